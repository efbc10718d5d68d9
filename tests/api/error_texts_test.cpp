#include "api/error_codes.h"
#include "api/error_texts.h"

#include <gtest/gtest.h>

namespace tovra {
namespace {

TEST(LibraryErrorText, ComposesPrefixCodeAndMessage)
{
    EXPECT_EQ(libraryErrorText(err::InvalidReaderHandle), "TOVRA error: code=-5002: Invalid reader handle");
    EXPECT_EQ(libraryErrorText(err::CannotCreateReader), "TOVRA error: code=-5001: Cannot create a reader module");
    EXPECT_EQ(libraryErrorText(err::NotStarted), "TOVRA error: code=-5033: The operation is not yet started");
    EXPECT_EQ(libraryErrorText(err::ReceiveTimeout), "TOVRA error: code=-5015: Receive timeout");
    EXPECT_EQ(libraryErrorText(err::InvalidListenerType), "TOVRA error: code=-5030: Invalid listener type");
}

TEST(LibraryErrorText, ReservedAndForeignCodesPrintDashes)
{
    for (std::int32_t code : {-5013, -5014, -5016, -5019, -5023, -5025, -5029, -5031, -5040, -5034,
                              -5000, 0, 1, -1501, INT32_MIN, INT32_MAX})
        EXPECT_EQ(libraryErrorMessage(code), "---") << code;
    EXPECT_EQ(libraryErrorText(-5014), "TOVRA error: code=-5014: ---");
    EXPECT_EQ(libraryErrorText(INT32_MIN), "TOVRA error: code=-2147483648: ---");
}

TEST(LibraryErrorText, EveryNamedCodeHasItsOwnMessage)
{
    int withText = 0;
    for (std::int32_t code = -5033; code <= -5001; ++code)
        if (libraryErrorMessage(code) != "---") ++withText;
    EXPECT_EQ(withText, 22);
}

TEST(ReaderStatusText, KnownBytesAndUnpaddedFallback)
{
    EXPECT_EQ(readerStatusText(0x00), "Ok");
    EXPECT_EQ(readerStatusText(0x13), "Login request");
    EXPECT_EQ(readerStatusText(0x36), "SAM Timeout");
    EXPECT_EQ(readerStatusText(0xF8), "Internal process cancelled");
    EXPECT_EQ(readerStatusText(0x12), "Reader status 0x12");
    EXPECT_EQ(readerStatusText(0x1A), "Reader status 0x1a");
    EXPECT_EQ(readerStatusText(0x0D), "Reader status 0xd");
    EXPECT_EQ(readerStatusText(0xFF), "Reader status 0xff");
}

} // namespace
} // namespace tovra
