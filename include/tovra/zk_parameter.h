#ifndef TOVRA_ZK_PARAMETER_H
#define TOVRA_ZK_PARAMETER_H

// Parameter texts: named sections "[name]" whose bodies hold "tag=value" entries
// separated by a caller-chosen character. Pure text functions; two touch files.

#include <map>
#include <string>

#include "tovra/export.h"

class TOVRA_API ZkParameter {
public:
    using TagMap = std::map<std::string, std::string>;

    // Body of the first section named exactly `sectionName`, or "" when there is none.
    static std::string getSection(const std::string& text, const std::string& sectionName);

    // Iterates the sections of a text: returns the position for the next call,
    // or nullptr when no further section exists.
    static const char* getSection(const char* position, std::string& name, std::string& body);

    // "[" name "]\n" body "\n"
    static std::string buildSectionBody(const std::string& sectionName, const std::string& body);

    // Reads one entry; returns the position after its separator, or nullptr when the
    // end of the text was reached. The entry read is valid in both cases.
    static const char* parseSection(const char* position, std::string& tag, std::string& value,
                                    char separator, bool foldTagsToLowerCase);

    // Reads all entries of a body; the first entry of a tag wins.
    static void sectionToMap(const std::string& body, TagMap& map, char separator,
                             bool foldTagsToLowerCase);

    // Writes prefix, tag, "=", value and the separator per entry; values are not quoted.
    static std::string mapToSection(const TagMap& map, char separator, const char* linePrefix);

    static bool valueOfTag(const TagMap& map, const std::string& tag, std::string& value);

    static bool writeToFile(const std::string& filePath, const std::string& text);
    static bool readFromFile(const std::string& filePath, std::string& text);

    ZkParameter() = delete;
};

#endif
