// Round trips from T threads over N connections for a fixed time, with the process's CPU.
#pragma once

#include "scale/measure.h"

#include <atomic>
#include <cstdio>
#include <latch>
#include <thread>
#include <vector>

namespace tovra::bench {

struct LoadStats {
    double perSecond = 0;
    double p50 = 0; // microseconds, as the other latencies
    double p99 = 0;
    double p999 = 0;
    double cpuMicros = 0; // process CPU per round trip
};

// Thread t takes connections t, t + T, t + 2T, ... in turn, one round trip at a time, so
// there are never more than T exchanges under way.
template <typename RoundTrip>
LoadStats runLoad(std::size_t connections, std::size_t threads, double seconds, RoundTrip roundTrip)
{
    std::vector<std::vector<double>> micros(threads);
    std::atomic<int> failures{0};
    std::latch start(1);
    std::int64_t deadline = 0; // published to the workers by the latch
    std::vector<std::thread> workers;
    for (std::size_t t = 0; t < threads && t < connections; ++t) {
        workers.emplace_back([&, t] {
            micros[t].reserve(1 << 16);
            start.wait();
            for (std::size_t i = t;; i = i + threads < connections ? i + threads : t) {
                const std::int64_t begin = monotonicNanos();
                if (!roundTrip(i)) {
                    ++failures;
                    return;
                }
                const std::int64_t end = monotonicNanos();
                micros[t].push_back(double(end - begin) / 1e3);
                if (end >= deadline) return;
            }
        });
    }
    const double cpuBefore = processCpuSeconds();
    const std::int64_t began = monotonicNanos();
    deadline = began + static_cast<std::int64_t>(seconds * 1e9);
    start.count_down();
    for (std::thread& worker : workers) worker.join();
    const double elapsed = secondsSince(began);
    const double cpu = processCpuSeconds() - cpuBefore;

    std::vector<double> all;
    for (const auto& some : micros) all.insert(all.end(), some.begin(), some.end());
    std::sort(all.begin(), all.end());
    if (failures > 0)
        std::fprintf(stderr, "warning: %d exchanges failed (%zu connections)\n", failures.load(), connections);
    const double trips = std::max<double>(1, double(all.size()));
    return {double(all.size()) / elapsed, percentile(all, 0.5), percentile(all, 0.99), percentile(all, 0.999),
            cpu * 1e6 / trips};
}

// Each figure the median of its own over the runs.
inline LoadStats medianOf(const std::vector<LoadStats>& runs)
{
    const auto pick = [&](double LoadStats::*field) {
        std::vector<double> values;
        for (const LoadStats& run : runs) values.push_back(run.*field);
        return median(values);
    };
    return {pick(&LoadStats::perSecond), pick(&LoadStats::p50), pick(&LoadStats::p99), pick(&LoadStats::p999),
            pick(&LoadStats::cpuMicros)};
}

} // namespace tovra::bench
