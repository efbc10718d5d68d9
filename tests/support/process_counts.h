#pragma once

#include <filesystem>
#include <iterator>
#include <system_error>

namespace tovra::test {

// Open descriptors and threads of this process, -1 where the system does not list them.
// Under wine /proc lists wine's own descriptors and threads too, which come and go with
// the load of the machine: the counts are only taken on Linux itself.
inline long entriesOf(const char* folder)
{
#if defined(_WIN32)
    (void)folder;
    return -1;
#else
    std::error_code error;
    std::filesystem::directory_iterator entries(folder, error);
    return error ? -1 : std::distance(entries, std::filesystem::directory_iterator{});
#endif
}

inline long openDescriptors() { return entriesOf("/proc/self/fd"); }
inline long runningThreads() { return entriesOf("/proc/self/task"); }

} // namespace tovra::test
