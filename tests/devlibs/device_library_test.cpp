// The loader against stand-in libraries of the test build. A process keeps a library it
// loaded once, so each suite runs in a process of its own (see CMakeLists.txt).
#include "devlibs/device_libraries.h"
#include "support/standin.h"

#include <gtest/gtest.h>

#include <array>

namespace tovra {
namespace {

using test::StandIn;

TEST(GoodLibrary, VersionDecidesCompatibility)
{
    StandIn standIn("zkcom", "zkcom");
    ASSERT_TRUE(standIn.loaded());
    ZkcomLibrary library;
    ASSERT_TRUE(library.load()) << library.statusText();
    EXPECT_EQ(library.statusText(), "");
    EXPECT_TRUE(library.isCompatible());
    EXPECT_EQ(library.versionText(), "ZKCOM version: 05.00.00");
    EXPECT_STREQ(library.rawVersion(), "5.0.0");

    // The version is read again at every check.
    const struct {
        const char* version;
        const char* line;
    } cases[] = {
        {"5.0.0-rc1", "ZKCOM version mismatch: required 05.00.00 - available 05.00.00-rc1"},
        {"4.9.12", "ZKCOM version mismatch: required 05.00.00 - available 04.09.12"},
        {"7.1", "ZKCOM version mismatch: required 05.00.00 - available -.-.-"},
        {"5.0.0 build-7", "ZKCOM version: 05.00.00"},
        {"6.0.0-gamma", "ZKCOM version: 06.00.00"},
    };
    for (const auto& c : cases) {
        standIn.control(std::string("version ") + c.version);
        EXPECT_EQ(library.versionText(), c.line) << c.version;
    }

    library.unload();
    EXPECT_EQ(library.versionText(), "ZKCOM library not loaded");
    EXPECT_EQ(library.statusText().rfind("Error=", 0), 0u) << library.statusText();
    EXPECT_STREQ(library.rawVersion(), "");
}

TEST(PartialLibrary, NamesTheFirstMissingEntryPoint)
{
    StandIn standIn("zkcom-partial", "zkcom");
    ASSERT_TRUE(standIn.loaded());
    ZkcomLibrary library;
    EXPECT_FALSE(library.load());
    EXPECT_EQ(library.statusText(), "ZKCOM_DetectPort");
    EXPECT_EQ(library.versionText(), "ZKCOM library not loaded");
}

TEST(MissingLibrary, ReportsTheSystemsReason)
{
    static constexpr std::array<const char*, 1> entries = {"NOLIB_GetVersion"};
    static const DeviceLibraryDescription absent{"NOLIB", "tovra-no-such-library", entries,
                                                 LibraryVersion::release(1, 0, 0)};
    DeviceLibrary library(absent);
    EXPECT_FALSE(library.load());
    EXPECT_EQ(library.statusText().rfind("Error=", 0), 0u);
    EXPECT_GT(library.statusText().size(), 6u) << "the system says why";
    EXPECT_EQ(library.versionText(), "NOLIB library not loaded");

    // The gadget library fails with a text of its own wherever it cannot be found.
    DeviceLibrary gadget(kZkgadgetLibrary);
    EXPECT_FALSE(gadget.load());
    EXPECT_EQ(gadget.statusText(), "ZKGADGET-LIBRARY-LOAD");
    EXPECT_EQ(&ZkgadgetLibrary::process(), &ZkgadgetLibrary::process());
}

} // namespace
} // namespace tovra
