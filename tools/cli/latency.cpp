#include "latency.h"

#include <algorithm>

namespace tovra::cli {

namespace {

double milliseconds(std::chrono::nanoseconds duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

// The smallest sample that at least `percent` of all samples do not exceed.
std::chrono::nanoseconds rank(const std::vector<std::chrono::nanoseconds>& sorted, std::size_t percent) {
    const std::size_t position = (sorted.size() * percent + 99) / 100;
    return sorted[std::max<std::size_t>(position, 1) - 1];
}

}  // namespace

LatencySummary Latencies::summary() const {
    LatencySummary summary;
    summary.count = samples_.size();
    if (samples_.empty()) return summary;
    auto sorted = samples_;
    std::sort(sorted.begin(), sorted.end());
    summary.p50Ms = milliseconds(rank(sorted, 50));
    summary.p99Ms = milliseconds(rank(sorted, 99));
    summary.maxMs = milliseconds(sorted.back());
    return summary;
}

}  // namespace tovra::cli
