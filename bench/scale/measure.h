// Clocks, process counters and percentiles of the scale benchmark and its peer.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tovra::bench {

// CLOCK_MONOTONIC on purpose: the peer's timestamps are compared with the bench's.
inline std::int64_t monotonicNanos()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline double secondsSince(std::int64_t startNanos) { return double(monotonicNanos() - startNanos) / 1e9; }

// A thousand connections per process need more descriptors than the usual soft limit.
inline void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// User plus system time of every thread of the process, the library's own included.
inline double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline double residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    double size = 0;
    double resident = 0;
    statm >> size >> resident;
    return resident * double(sysconf(_SC_PAGESIZE));
}

// Voluntary plus involuntary context switches summed over the process's threads.
inline std::int64_t processWakeups()
{
    std::int64_t total = 0;
    std::error_code ignored; // a thread may end while the folder is read
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:") || line.starts_with("nonvoluntary_ctxt_switches:"))
                total += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return total;
}

// The value below which `fraction` of the sorted values lie.
inline double percentile(const std::vector<double>& sorted, double fraction)
{
    if (sorted.empty()) return 0;
    const auto at = std::min(sorted.size() - 1, static_cast<std::size_t>(fraction * double(sorted.size())));
    return sorted[at];
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return percentile(values, 0.5);
}

} // namespace tovra::bench
