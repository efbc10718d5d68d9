#include "devlibs/library_version.h"

#include <algorithm>
#include <cstdio>

namespace tovra {
namespace {

// Reads "<tag><number>" at the start of `text`, as "%d" would after the tag.
bool readTagged(std::string_view text, std::string_view tag, std::int32_t& number)
{
    if (!text.starts_with(tag)) return false;
    const std::string rest(text.substr(tag.size()));
    int value = 0;
    if (std::sscanf(rest.c_str(), "%d", &value) != 1) return false;
    number = value;
    return true;
}

} // namespace

LibraryVersion LibraryVersion::parse(const char* text)
{
    LibraryVersion version;
    if (text == nullptr) return version;
    int major = -1, minor = -1, patch = -1;
    const int read = std::sscanf(text, "%d.%d.%d", &major, &minor, &patch);
    version.major = major;
    version.minor = minor;
    version.patch = patch;
    if (read < 3) return version;

    // The tag starts after the first '-' that follows digits and points only.
    const std::string_view all(text);
    std::size_t dash = std::string_view::npos;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const char c = all[i];
        if (c == '-') {
            dash = i;
            break;
        }
        if ((c < '0' || c > '9') && c != '.') break;
    }
    if (dash == std::string_view::npos || dash == 0) return version;

    const std::string_view tag = all.substr(dash + 1);
    std::int32_t number = 0;
    std::int64_t rank = 0;
    if (readTagged(tag, "alpha", number)) rank = number;
    else if (readTagged(tag, "beta", number)) rank = std::int64_t{number} + 1000;
    else if (readTagged(tag, "rc", number)) rank = std::int64_t{number} + 2000;
    else return version;
    // An absurd tag number stays a pre-release.
    version.rank = static_cast<std::int32_t>(std::min<std::int64_t>(rank, kRelease - 1));
    version.suffix = tag;
    return version;
}

std::string LibraryVersion::text(int width) const
{
    if (!valid()) return "-.-.-";
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%0*d.%0*d.%0*d", width, major, width, minor, width, patch);
    std::string result = buffer;
    if (!suffix.empty()) result += "-" + suffix;
    return result;
}

bool operator>=(const LibraryVersion& a, const LibraryVersion& b)
{
    if (a.major != b.major) return a.major > b.major;
    if (a.minor != b.minor) return a.minor > b.minor;
    if (a.patch != b.patch) return a.patch > b.patch;
    return a.rank >= b.rank;
}

} // namespace tovra
