#ifndef TOVRA_ZK_PARAMETER_H
#define TOVRA_ZK_PARAMETER_H

/**
 * @file
 * Parameter texts: named sections "[name]" whose bodies hold "tag=value" entries
 * separated by a caller-chosen character. Pure text functions; two touch files.
 */

/**
 * @defgroup tovra_parameter Parameter texts (ZkParameter)
 * Reading and writing the texts of sections and tagged values that the library's own
 * configuration and connector texts are made of.
 *
 * A section starts with its name in brackets, "[name]"; its body is everything after the
 * "]" up to the next "[" or the end of the text. There is no escape for "[": a "["
 * anywhere, even inside quotes, starts the next section. A body is a list of entries
 * "tag=value" separated by a character the caller chooses (the logging configuration uses
 * the line break, connector texts ':'). Blanks outside double quotes are dropped; a
 * quoted run keeps blanks and separators, without its quotes.
 * @{
 */

#include <map>
#include <string>

#include "tovra/export.h"

/**
 * Static functions over parameter texts; nothing to construct.
 *
 * @code
 * std::string text;
 * ZkParameter::readFromFile("olma.conf", text);
 * ZkParameter::TagMap tags;
 * ZkParameter::sectionToMap(ZkParameter::getSection(text, "TOVRA"), tags, '\n', true);
 * std::string value;
 * if (ZkParameter::valueOfTag(tags, "logerror", value)) { ... }
 * @endcode
 *
 * None of them keeps any state: each may be called on any thread at any time, as long as
 * the objects it is given are not changed meanwhile.
 */
class TOVRA_API ZkParameter {
public:
    /** Tags and their values, in the byte order of the tags. */
    using TagMap = std::map<std::string, std::string>;

    /**
     * Body of the first section named exactly `sectionName`, or "" when there is none.
     *
     * The bracketed name is searched whole and with case: "A" does not find "[AB]". The
     * body keeps its leading line break.
     *
     * @param text        The parameter text.
     * @param sectionName The name, without brackets.
     * @return The body, or an empty string.
     *
     * @par Thread safety
     * Reentrant.
     */
    static std::string getSection(const std::string& text, const std::string& sectionName);

    /**
     * Iterates the sections of a text: returns the position for the next call,
     * or nullptr when no further section exists.
     *
     * Text before the first "[" is skipped. A "[" without its "]" makes the rest of the text
     * the name, with an empty body. Loop while the result is not null: the call given the
     * end of the text returns null.
     *
     * @param position Where to go on: the text at first, then the last result; null gives null.
     * @param name     Set to the section's name, or cleared.
     * @param body     Set to the section's body, or cleared.
     * @return The position of the next "[" or the end of the text, or null when no
     *         section was found.
     *
     * @par Thread safety
     * Reentrant; the text must stay unchanged while it is iterated.
     */
    static const char* getSection(const char* position, std::string& name, std::string& body);

    /**
     * `"[" name "]\n" body "\n"`
     *
     * @param sectionName The name.
     * @param body        The body, as it is.
     * @return The section text.
     *
     * @par Thread safety
     * Reentrant.
     */
    static std::string buildSectionBody(const std::string& sectionName, const std::string& body);

    /**
     * Reads one entry; returns the position after its separator, or nullptr when the
     * end of the text was reached. The entry read is valid in both cases.
     *
     * An entry without "=" gives its characters as the tag and an empty value; an empty
     * entry an empty tag. A quote that is never closed keeps the rest of the text, with its
     * separators, in the value.
     *
     * @param position            Where the entry starts; null gives null and an empty entry.
     * @param tag                 Set to the tag, blanks dropped.
     * @param value               Set to the value, blanks outside quotes dropped, never folded.
     * @param separator           The character between entries.
     * @param foldTagsToLowerCase Whether the tag is folded to lower case.
     * @return The position after the separator, or null at the end of the text.
     *
     * @par Thread safety
     * Reentrant.
     */
    static const char* parseSection(const char* position, std::string& tag, std::string& value,
                                    char separator, bool foldTagsToLowerCase);

    /**
     * Reads all entries of a body; the first entry of a tag wins.
     *
     * Entries with an empty tag are skipped.
     *
     * @param body                The body.
     * @param map                 Cleared, then filled.
     * @param separator           The character between entries.
     * @param foldTagsToLowerCase Whether tags are folded to lower case.
     *
     * @par Thread safety
     * Reentrant.
     */
    static void sectionToMap(const std::string& body, TagMap& map, char separator,
                             bool foldTagsToLowerCase);

    /**
     * Writes prefix, tag, "=", value and the separator per entry; values are not quoted.
     *
     * So a value holding blanks or the separator does not read back the same.
     *
     * @param map        The entries, written in the map's order.
     * @param separator  Written after each entry.
     * @param linePrefix Written before each entry; may be null.
     * @return The body text.
     *
     * @par Thread safety
     * Reentrant.
     */
    static std::string mapToSection(const TagMap& map, char separator, const char* linePrefix);

    /**
     * Looks a tag up, exactly as it is written.
     *
     * @param map   The entries.
     * @param tag   The tag.
     * @param value Set to the tag's value when it is there; left alone otherwise.
     * @return Whether the tag is there.
     *
     * @par Thread safety
     * Reentrant.
     */
    static bool valueOfTag(const TagMap& map, const std::string& tag, std::string& value);

    /**
     * Creates or truncates the file and writes the text into it, in text mode.
     *
     * @param filePath The file.
     * @param text     What to write.
     * @return False when the file cannot be opened.
     *
     * @par Thread safety
     * Reentrant; writes to one file from two threads are not coordinated.
     */
    static bool writeToFile(const std::string& filePath, const std::string& text);

    /**
     * Reads the whole file, in text mode.
     *
     * @param filePath The file.
     * @param text     Set to its content when it can be opened.
     * @return False when the file cannot be opened.
     *
     * @par Thread safety
     * Reentrant.
     */
    static bool readFromFile(const std::string& filePath, std::string& text);

    ZkParameter() = delete;
};

/** @} */

#endif
