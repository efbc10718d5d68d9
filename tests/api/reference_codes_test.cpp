// The result codes the reference documents, read from the public headers as a user reads
// them, against the texts the library gives: a code added, renamed or mistyped in either
// place shows here.
#include "api/error_texts.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace tovra {
namespace {

std::string publicHeader(const std::string& name)
{
    std::ifstream in(std::string(TOVRA_PUBLIC_HEADERS) + "/" + name);
    EXPECT_TRUE(in) << name;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The rows " * | -5002 | Invalid reader handle | ... |" of the code table, by code, with
// the text column as the reader sees it (`---` for a code without a text of its own).
std::map<std::int32_t, std::string> tableOfCodes()
{
    static const std::regex row(R"(\n \* \| (-5\d\d\d) \| ([^|]*?) +\|)");
    const std::string header = publicHeader("tovra.h");
    std::map<std::int32_t, std::string> codes;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), row); it != std::sregex_iterator(); ++it) {
        std::string text = (*it)[2];
        if (text == "`---`") text = "---";
        EXPECT_TRUE(codes.emplace(std::stoi((*it)[1]), text).second) << "listed twice: " << (*it)[1];
    }
    return codes;
}

// Every code the functions of a header list as a result value.
std::set<std::int32_t> listedResults(const std::string& header)
{
    static const std::regex listed(R"(@retval (-?\d+))");
    std::set<std::int32_t> codes;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), listed); it != std::sregex_iterator(); ++it)
        codes.insert(std::stoi((*it)[1]));
    return codes;
}

TEST(ReferenceCodes, TheTableGivesEveryCodeTheTextTheLibraryGives)
{
    const auto table = tableOfCodes();
    ASSERT_FALSE(table.empty()) << "no code table in tovra.h";
    for (const auto& [code, text] : table)
        EXPECT_EQ(libraryErrorText(code), "TOVRA error: code=" + std::to_string(code) + ": " + text);
    for (std::int32_t code = -5033; code <= -5001; ++code)
        if (libraryErrorMessage(code) != "---") EXPECT_TRUE(table.contains(code)) << code << " is not in the table";
}

TEST(ReferenceCodes, EveryLibraryCodeAFunctionListsIsInTheTable)
{
    const auto table = tableOfCodes();
    for (const char* name : {"tovra.h", "transport.h", "zk_parameter.h"}) {
        const auto listed = listedResults(publicHeader(name));
        for (const std::int32_t code : listed)
            if (code <= -5000 && code >= -5999) EXPECT_TRUE(table.contains(code)) << name << " lists " << code;
    }
    // The functions do list their codes: the check above would pass on an empty header.
    EXPECT_TRUE(listedResults(publicHeader("tovra.h")).contains(-5002));
}

} // namespace
} // namespace tovra
