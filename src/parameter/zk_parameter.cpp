#include "tovra/zk_parameter.h"

#include <cctype>
#include <cstdio>

namespace {

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

char folded(char c, bool fold)
{
    return fold ? static_cast<char>(std::tolower(static_cast<unsigned char>(c))) : c;
}

// Characters from `p` up to (not including) the next '[' or the end.
const char* copyBody(const char* p, std::string& body)
{
    const char* start = p;
    while (*p != '\0' && *p != '[') ++p;
    body.assign(start, p);
    return p;
}

} // namespace

std::string ZkParameter::getSection(const std::string& text, const std::string& sectionName)
{
    const std::string key = "[" + sectionName + "]";
    const auto at = text.find(key);
    if (at == std::string::npos) return {};
    std::string body;
    copyBody(text.c_str() + at + key.size(), body);
    return body;
}

const char* ZkParameter::getSection(const char* position, std::string& name, std::string& body)
{
    name.clear();
    body.clear();
    if (position == nullptr) return nullptr;

    const char* p = position;
    while (*p != '\0' && *p != '[') ++p;
    if (*p == '\0') return nullptr;

    // An unterminated "[" makes the rest of the text the name, with no body.
    const char* nameStart = ++p;
    while (*p != '\0' && *p != ']') ++p;
    name.assign(nameStart, p);
    if (*p == '\0') return p;

    return copyBody(p + 1, body);
}

std::string ZkParameter::buildSectionBody(const std::string& sectionName, const std::string& body)
{
    return "[" + sectionName + "]\n" + body + "\n";
}

const char* ZkParameter::parseSection(const char* position, std::string& tag, std::string& value,
                                      char separator, bool foldTagsToLowerCase)
{
    tag.clear();
    value.clear();
    if (position == nullptr) return nullptr;

    enum class Phase { Tag, Value, Quoted } phase = Phase::Tag;
    for (const char* p = position; *p != '\0'; ++p) {
        const char c = *p;
        switch (phase) {
        case Phase::Tag:
            if (c == separator) return p + 1;
            if (isBlank(c)) break;
            if (c == '=') phase = Phase::Value;
            else tag += folded(c, foldTagsToLowerCase);
            break;
        case Phase::Value:
            if (c == separator) return p + 1;
            if (isBlank(c)) break;
            if (c == '"') phase = Phase::Quoted;
            else value += c;
            break;
        case Phase::Quoted:
            if (c == '"') phase = Phase::Value;
            else value += c;
            break;
        }
    }
    return nullptr;
}

void ZkParameter::sectionToMap(const std::string& body, TagMap& map, char separator,
                               bool foldTagsToLowerCase)
{
    map.clear();
    std::string tag;
    std::string value;
    const char* p = body.c_str();
    while (p != nullptr) {
        p = parseSection(p, tag, value, separator, foldTagsToLowerCase);
        if (!tag.empty()) map.emplace(tag, value);
    }
}

std::string ZkParameter::mapToSection(const TagMap& map, char separator, const char* linePrefix)
{
    std::string text;
    for (const auto& [tag, value] : map) {
        if (linePrefix != nullptr) text += linePrefix;
        text += tag;
        text += '=';
        text += value;
        text += separator;
    }
    return text;
}

bool ZkParameter::valueOfTag(const TagMap& map, const std::string& tag, std::string& value)
{
    const auto it = map.find(tag);
    if (it == map.end()) return false;
    value = it->second;
    return true;
}

bool ZkParameter::writeToFile(const std::string& filePath, const std::string& text)
{
    std::FILE* file = std::fopen(filePath.c_str(), "w");
    if (file == nullptr) return false;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
    return true;
}

bool ZkParameter::readFromFile(const std::string& filePath, std::string& text)
{
    std::FILE* file = std::fopen(filePath.c_str(), "r");
    if (file == nullptr) return false;
    text.clear();
    char chunk[4096];
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, got);
    std::fclose(file);
    return true;
}
