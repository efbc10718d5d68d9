// Round-trip times of a run, summed up as count, median, 99th percentile and maximum.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace tovra::cli {

struct LatencySummary {
    std::size_t count = 0;
    double p50Ms = 0, p99Ms = 0, maxMs = 0;
};

class Latencies {
public:
    void add(std::chrono::nanoseconds duration) { samples_.push_back(duration); }
    // Nearest-rank percentiles of what was added; all zero when nothing was.
    LatencySummary summary() const;

private:
    std::vector<std::chrono::nanoseconds> samples_;
};

}  // namespace tovra::cli
