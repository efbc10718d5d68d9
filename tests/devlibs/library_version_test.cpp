#include "devlibs/library_version.h"

#include <gtest/gtest.h>

namespace tovra {
namespace {

TEST(LibraryVersion, ParsesNumbersAndPreReleaseTags)
{
    const auto release = LibraryVersion::parse("5.0.0");
    EXPECT_TRUE(release.valid());
    EXPECT_EQ(release.rank, LibraryVersion::kRelease);
    EXPECT_EQ(release.text(), "05.00.00");

    const auto rc = LibraryVersion::parse("5.0.0-rc1");
    EXPECT_EQ(rc.rank, 2001);
    EXPECT_EQ(rc.text(), "05.00.00-rc1");
    EXPECT_EQ(LibraryVersion::parse("7.1.0-beta2").text(), "07.01.00-beta2");
    EXPECT_EQ(LibraryVersion::parse("1.2.3-alpha7").rank, 7);
    // Only the leading tag and number count; the rest of the tag is kept as written.
    const auto hotfix = LibraryVersion::parse("1.0.0-rc2-hotfix");
    EXPECT_EQ(hotfix.rank, 2002);
    EXPECT_EQ(hotfix.suffix, "rc2-hotfix");
    EXPECT_EQ(LibraryVersion::parse("10.123.4").text(), "10.123.04");

    // No known tag, or a tag behind something else than digits and points: a release.
    for (const char* text : {"1.0.0-gamma", "1.0.0 build-7", "1.0.0-", "1.0.0-rc"}) {
        const auto version = LibraryVersion::parse(text);
        EXPECT_TRUE(version.valid()) << text;
        EXPECT_EQ(version.rank, LibraryVersion::kRelease) << text;
        EXPECT_EQ(version.suffix, "") << text;
    }
    // A huge tag number still ranks below the release.
    EXPECT_LT(LibraryVersion::parse("1.0.0-rc2147483647").rank, LibraryVersion::kRelease);
}

TEST(LibraryVersion, TextsThatAreNoVersion)
{
    for (const char* text : {"7.1", "", "x.1.2", "-1.0.0", "1.-2.3"}) {
        const auto version = LibraryVersion::parse(text);
        EXPECT_FALSE(version.valid()) << text;
        EXPECT_EQ(version.text(), "-.-.-") << text;
    }
    EXPECT_FALSE(LibraryVersion::parse(nullptr).valid());
    // Numbers read before the failure stay; the version is still invalid.
    EXPECT_EQ(LibraryVersion::parse("7.1").minor, 1);
}

TEST(LibraryVersion, ComparesNumbersThenRankButNeverTheSuffixText)
{
    const auto required = LibraryVersion::release(5, 0, 0);
    EXPECT_TRUE(LibraryVersion::parse("5.0.0") >= required);
    EXPECT_FALSE(LibraryVersion::parse("5.0.0-rc1") >= required);
    EXPECT_FALSE(LibraryVersion::parse("4.9.12") >= required);
    EXPECT_TRUE(LibraryVersion::parse("5.0.1-alpha1") >= required);
    EXPECT_TRUE(LibraryVersion::parse("10.0.0") > LibraryVersion::parse("9.99.99"));
    EXPECT_TRUE(LibraryVersion::parse("1.0.0-alpha999") < LibraryVersion::parse("1.0.0-beta0"));
    EXPECT_TRUE(LibraryVersion::parse("1.0.0-beta5") < LibraryVersion::parse("1.0.0-rc1"));
    EXPECT_TRUE(LibraryVersion::parse("1.0.0-rc1x") == LibraryVersion::parse("1.0.0-rc1"));
    EXPECT_TRUE(LibraryVersion::parse("1.0.0-gamma") == LibraryVersion::release(1, 0, 0));
    EXPECT_TRUE(LibraryVersion::parse("2.0.0") <= LibraryVersion::parse("2.0.0"));
}

} // namespace
} // namespace tovra
