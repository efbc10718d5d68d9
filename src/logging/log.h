#pragma once

// One-line logging at call sites:
//
//   TOVRA_LOG_TRACE(logger, logcat::Reader, "Tout=", timeout, " ms");
//   TOVRA_LOG_ERROR(logger, logcat::Error | logcat::Reader, "Receive failed: ", code);
//
// The category mask is tested before any text is composed; the record carries the
// qualified method name ("TovraReader::transceive") and the source line.

#include "logging/log_categories.h"
#include "logging/tovra_logger.h"

#include <concepts>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

namespace tovra::logging {

// "TovraReader::transceive" from the compiler's full function signature.
constexpr std::string_view qualifiedMethodName(std::string_view signature)
{
    const std::size_t open = signature.find('(');
    std::string_view name = signature.substr(0, open);
    // Skip the return type, but not blanks inside template arguments.
    int depth = 0;
    for (std::size_t i = name.size(); i-- > 0;) {
        if (name[i] == '>') ++depth;
        else if (name[i] == '<') --depth;
        else if (name[i] == ' ' && depth == 0) {
            name = name.substr(i + 1);
            break;
        }
    }
    constexpr std::string_view ownNamespace = "tovra::";
    if (name.starts_with(ownNamespace)) name.remove_prefix(ownNamespace.size());
    return name;
}

// Upper-case hexadecimal without leading zeros, as port handles are logged ("PH=0x2000001A").
inline std::string hex(std::int32_t value)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    auto bits = static_cast<std::uint32_t>(value);
    std::string text;
    do {
        text.insert(text.begin(), digits[bits & 0xF]);
        bits >>= 4;
    } while (bits != 0);
    return text;
}

// An address in upper-case hexadecimal, for the records that name callbacks and contexts
// after "0x".
inline std::string pointer(const void* address)
{
    char text[32];
    std::snprintf(text, sizeof text, "%llX",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
    return text;
}

template <typename T>
void appendPiece(std::string& text, const T& piece)
{
    if constexpr (std::is_same_v<T, char>) text += piece;
    else if constexpr (std::is_same_v<T, bool>) text += piece ? "true" : "false";
    else if constexpr (std::is_arithmetic_v<T>) text += std::to_string(piece);
    else if constexpr (std::is_enum_v<T>) text += std::to_string(static_cast<std::underlying_type_t<T>>(piece));
    else text += std::string_view(piece);
}

template <typename... Pieces>
std::string compose(const Pieces&... pieces)
{
    std::string text;
    (appendPiece(text, pieces), ...);
    return text;
}

} // namespace tovra::logging

#define TOVRA_LOG_METHOD ::tovra::logging::qualifiedMethodName(__PRETTY_FUNCTION__)

#define TOVRA_LOG_TRACE(logger, mask, ...)                                                     \
    do {                                                                                       \
        ::tovra::TovraLogger& tovraLog_ = (logger);                                            \
        if (tovraLog_.isEnabled(mask))                                                         \
            tovraLog_.trace(TOVRA_LOG_METHOD, __LINE__, ::tovra::logging::compose(__VA_ARGS__)); \
    } while (0)

#define TOVRA_LOG_ERROR(logger, mask, ...)                                                     \
    do {                                                                                       \
        ::tovra::TovraLogger& tovraLog_ = (logger);                                            \
        if (tovraLog_.isEnabled(mask))                                                         \
            tovraLog_.error(TOVRA_LOG_METHOD, __LINE__, ::tovra::logging::compose(__VA_ARGS__)); \
    } while (0)
