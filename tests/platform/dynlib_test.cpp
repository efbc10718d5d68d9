#include "platform/dynlib.h"
#include "platform/system.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace tovra::platform {
namespace {

bool isWindows() { return std::string(osName()) == "Windows"; }

TEST(DynamicLibrary, LoadsResolvesCallsAndUnloads) {
    LibraryHandle library = loadLibrary(TOVRA_TEST_MODULE);
    ASSERT_NE(library, nullptr) << lastLoadError();

    using Add = int (*)(int, int);
    const auto add = symbolAs<Add>(findSymbol(library, "tovra_test_module_add"));
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(add(40, 2), 42);
    EXPECT_EQ(findSymbol(library, "tovra_test_module_missing"), nullptr);

    EXPECT_TRUE(unloadLibrary(library));
    EXPECT_FALSE(unloadLibrary(nullptr));
    EXPECT_EQ(findSymbol(nullptr, "tovra_test_module_add"), nullptr);
}

TEST(DynamicLibrary, AFailedLoadLeavesItsReasonForThatThread) {
    const std::string missing = libraryFileName("tovra_no_such_library");
    EXPECT_EQ(loadLibrary(missing.c_str()), nullptr);
    const std::string reason = lastLoadError();
    ASSERT_FALSE(reason.empty());
    if (isWindows()) {
        // Printed after "Error=": the system's error number in decimal.
        EXPECT_EQ(reason.find_first_not_of("0123456789"), std::string::npos) << reason;
    } else {
        EXPECT_NE(reason.find("tovra_no_such_library"), std::string::npos) << reason;
    }

    // A successful load elsewhere does not disturb it, nor does another thread.
    std::string other = "unset";
    std::thread([&] { other = lastLoadError(); }).join();
    EXPECT_EQ(other, "");
    LibraryHandle library = loadLibrary(TOVRA_TEST_MODULE);
    EXPECT_EQ(lastLoadError(), reason);
    unloadLibrary(library);
}

}  // namespace
}  // namespace tovra::platform
