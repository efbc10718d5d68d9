#include "tovra/zk_parameter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using TagMap = ZkParameter::TagMap;

struct Entry {
    std::string tag;
    std::string value;
    bool last;
};

std::vector<Entry> entries(const std::string& body, char separator, bool fold)
{
    std::vector<Entry> out;
    std::string tag, value;
    const char* p = body.c_str();
    do {
        p = ZkParameter::parseSection(p, tag, value, separator, fold);
        out.push_back({tag, value, p == nullptr});
    } while (p != nullptr);
    return out;
}

TEST(ZkParameterSections, LookupMatchesTheWholeBracketedName)
{
    const std::string text = "x[AB]\nab=1\n[A]\na=2\n";
    EXPECT_EQ(ZkParameter::getSection(text, "A"), "\na=2\n");
    EXPECT_EQ(ZkParameter::getSection(text, "AB"), "\nab=1\n");
    EXPECT_EQ(ZkParameter::getSection(text, "a"), "");
    EXPECT_EQ(ZkParameter::getSection(text, "C"), "");
}

TEST(ZkParameterSections, IterationVisitsEverySectionThenStops)
{
    const std::string text = "junk [one] a=1 [two]b=2";
    std::vector<std::pair<std::string, std::string>> seen;
    std::string name, body;
    for (const char* p = ZkParameter::getSection(text.c_str(), name, body); p != nullptr;
         p = ZkParameter::getSection(p, name, body))
        seen.emplace_back(name, body);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], std::make_pair(std::string("one"), std::string(" a=1 ")));
    EXPECT_EQ(seen[1], std::make_pair(std::string("two"), std::string("b=2")));

    EXPECT_EQ(ZkParameter::getSection("no sections", name, body), nullptr);
    EXPECT_EQ(ZkParameter::getSection(nullptr, name, body), nullptr);
}

TEST(ZkParameterSections, BracketInsideQuotesStartsTheNextSection)
{
    const std::string text = "[log]\npath=\"C:[x]\"\n";
    EXPECT_EQ(ZkParameter::getSection(text, "log"), "\npath=\"C:");
    std::string name, body;
    const char* p = ZkParameter::getSection(text.c_str(), name, body);
    p = ZkParameter::getSection(p, name, body);
    EXPECT_EQ(name, "x");
    EXPECT_EQ(body, "\"\n");
}

TEST(ZkParameterSections, UnterminatedBracketNamesTheRestWithoutBody)
{
    std::string name, body;
    const char* p = ZkParameter::getSection("[open a=1\nb=2", name, body);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(*p, '\0');
    EXPECT_EQ(name, "open a=1\nb=2");
    EXPECT_EQ(body, "");
    EXPECT_EQ(ZkParameter::getSection(p, name, body), nullptr);
}

TEST(ZkParameterSections, BuildSectionBodyReadsBack)
{
    const std::string built = ZkParameter::buildSectionBody("tcp", "port=10001");
    EXPECT_EQ(built, "[tcp]\nport=10001\n");
    EXPECT_EQ(ZkParameter::getSection(built, "tcp"), "\nport=10001\n");
}

TEST(ZkParameterEntries, BlanksDroppedOutsideQuotesAndKeptInside)
{
    const auto e = entries(" Log Path = \"C:\\my logs\\\"x y \n next=1", '\n', false);
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].tag, "LogPath");
    EXPECT_EQ(e[0].value, "C:\\my logs\\xy");
    EXPECT_FALSE(e[0].last);
    EXPECT_EQ(e[1].tag, "next");
    EXPECT_EQ(e[1].value, "1");
    EXPECT_TRUE(e[1].last);
}

TEST(ZkParameterEntries, SeparatorInsideQuotesBelongsToTheValue)
{
    const auto e = entries("path=\"/tmp/a b\nc:d\":port=1", ':', true);
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].value, "/tmp/a b\nc:d");
    EXPECT_EQ(e[1].tag, "port");
    EXPECT_EQ(e[1].value, "1");
}

TEST(ZkParameterEntries, UnterminatedQuoteKeepsTheRestOfTheText)
{
    const auto e = entries("a=\"x\ny=2\nz", '\n', false);
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].value, "x\ny=2\nz");
    EXPECT_TRUE(e[0].last);
}

TEST(ZkParameterEntries, TagFoldingAndOddEntries)
{
    EXPECT_EQ(entries("IpAddress=X", '\n', true)[0].tag, "ipaddress");
    EXPECT_EQ(entries("IpAddress=X", '\n', false)[0].tag, "IpAddress");
    EXPECT_EQ(entries("IpAddress=X", '\n', true)[0].value, "X");

    const auto e = entries("flag\n\nk=a=b\n", '\n', false);
    ASSERT_EQ(e.size(), 4u);
    EXPECT_EQ(e[0].tag, "flag");
    EXPECT_EQ(e[0].value, "");
    EXPECT_EQ(e[1].tag, "");
    EXPECT_EQ(e[2].value, "a=b");
    EXPECT_TRUE(e[3].last);
}

TEST(ZkParameterMaps, FirstDuplicateWinsAndEmptyTagsAreSkipped)
{
    TagMap map{{"stale", "x"}};
    ZkParameter::sectionToMap("\nB=2\na=1\n=orphan\nb=3\n", map, '\n', true);
    EXPECT_EQ(map, (TagMap{{"a", "1"}, {"b", "2"}}));

    std::string value = "unchanged";
    EXPECT_TRUE(ZkParameter::valueOfTag(map, "b", value));
    EXPECT_EQ(value, "2");
    EXPECT_FALSE(ZkParameter::valueOfTag(map, "B", value));
    EXPECT_EQ(value, "2");
}

TEST(ZkParameterMaps, MapToSectionWritesUnquotedValuesInTagOrder)
{
    const TagMap map{{"z", "last"}, {"B", "two words"}, {"a", "1"}};
    EXPECT_EQ(ZkParameter::mapToSection(map, '\n', nullptr), "B=two words\na=1\nz=last\n");
    EXPECT_EQ(ZkParameter::mapToSection(map, ';', "  "), "  B=two words;  a=1;  z=last;");

    // Unquoted output loses the blank on the way back.
    TagMap back;
    ZkParameter::sectionToMap(ZkParameter::mapToSection(map, '\n', nullptr), back, '\n', false);
    EXPECT_EQ(back.at("B"), "twowords");
}

TEST(ZkParameterFiles, WriteAndReadBackThroughARealFile)
{
    const auto dir = std::filesystem::temp_directory_path() / "tovra-parameter-test";
    std::filesystem::create_directories(dir);
    const std::string path = (dir / "settings.conf").string();
    const std::string text = ZkParameter::buildSectionBody("TOVRA", "logerror=1\nlogpath=\"a b\"");

    ASSERT_TRUE(ZkParameter::writeToFile(path, text));
    std::string read = "old";
    ASSERT_TRUE(ZkParameter::readFromFile(path, read));
    EXPECT_EQ(read, text);

    // A second write truncates.
    ASSERT_TRUE(ZkParameter::writeToFile(path, "[x]"));
    ASSERT_TRUE(ZkParameter::readFromFile(path, read));
    EXPECT_EQ(read, "[x]");

    const std::string missing = (dir / "missing" / "nothing.conf").string();
    read = "kept";
    EXPECT_FALSE(ZkParameter::readFromFile(missing, read));
    EXPECT_EQ(read, "kept");
    EXPECT_FALSE(ZkParameter::writeToFile(missing, text));
    std::filesystem::remove_all(dir);
}

} // namespace
