#include "output.h"

#include "platform/system.h"

#include <cstdio>

namespace tovra::cli {

std::string jsonString(std::string_view text) {
    static const char digits[] = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (byte < 0x20 || byte >= 0x7F) {
            quoted += "\\u00";
            quoted += digits[byte >> 4];
            quoted += digits[byte & 0x0F];
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

void JsonObject::key(std::string_view name) {
    if (!fields_.empty()) fields_ += ',';
    fields_ += jsonString(name) + ':';
}

JsonObject& JsonObject::add(std::string_view name, std::string_view text) {
    key(name);
    fields_ += jsonString(text);
    return *this;
}

JsonObject& JsonObject::add(std::string_view name, std::int64_t number) {
    key(name);
    fields_ += std::to_string(number);
    return *this;
}

JsonObject& JsonObject::add(std::string_view name, double number) {
    key(name);
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", number);
    fields_ += text;
    return *this;
}

JsonObject& JsonObject::addNull(std::string_view name) {
    key(name);
    fields_ += "null";
    return *this;
}

void Output::result(const std::string& text, const JsonObject& object) {
    std::lock_guard lock(mutex_);
    const std::string line = json_ ? object.text() : text;
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

void Output::progress(const std::string& text) {
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Output::status(const std::string& text) {
    if (!platform::standardErrorIsTerminal()) return;
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "\r%s\x1b[K", text.c_str());
    std::fflush(stderr);
    statusShown_ = true;
}

void Output::endStatus() {
    std::lock_guard lock(mutex_);
    if (statusShown_) std::fputc('\n', stderr);
    statusShown_ = false;
}

void Output::failure(const std::string& what, std::int32_t code, const std::string& why) {
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "tovra: %s: %s\n", what.c_str(), why.c_str());
    if (json_) {
        const JsonObject object = JsonObject().add("error", static_cast<std::int64_t>(code)).add("errorText", why);
        std::fprintf(stdout, "%s\n", object.text().c_str());
        std::fflush(stdout);
    }
}

}  // namespace tovra::cli
