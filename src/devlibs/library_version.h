#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tovra {

// A device library's version: "major.minor.patch" with an optional pre-release tag.
// alphaN ranks N, betaN N + 1000, rcN N + 2000, a release above them all.
struct LibraryVersion {
    static constexpr std::int32_t kRelease = 0x7FFFFFFF;

    std::int32_t major = -1;
    std::int32_t minor = -1;
    std::int32_t patch = -1;
    std::string suffix;
    std::int32_t rank = kRelease;

    static LibraryVersion release(std::int32_t major, std::int32_t minor, std::int32_t patch)
    {
        return {major, minor, patch, {}, kRelease};
    }
    // From the text a library's version query returns; invalid when it does not start
    // with three numbers.
    static LibraryVersion parse(const char* text);

    bool valid() const { return major >= 0 && minor >= 0 && patch >= 0; }
    void reset() { *this = LibraryVersion{}; }
    // Each number zero-padded to `width` digits, then "-" and the suffix; "-.-.-" when invalid.
    std::string text(int width = 2) const;

    // Numbers first, then the rank; the suffix text itself is never compared.
    friend bool operator>=(const LibraryVersion& a, const LibraryVersion& b);
    friend bool operator<=(const LibraryVersion& a, const LibraryVersion& b) { return b >= a; }
    friend bool operator<(const LibraryVersion& a, const LibraryVersion& b) { return !(a >= b); }
    friend bool operator>(const LibraryVersion& a, const LibraryVersion& b) { return !(a <= b); }
    friend bool operator==(const LibraryVersion& a, const LibraryVersion& b)
    {
        return a.major == b.major && a.minor == b.minor && a.patch == b.patch && a.rank == b.rank;
    }
};

} // namespace tovra
