#pragma once

#include "tovra/tovra.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace tovra::bench {

// The request payload every round-trip benchmark sends.
inline const std::vector<std::uint8_t> kRequest = {0x65, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06,
                                                   0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E};

// Reports round trips per second and the 50th and 99th percentile in microseconds;
// returns the 50th.
inline double report(benchmark::State& state, std::vector<double>& micros)
{
    if (micros.empty()) return 0;
    std::sort(micros.begin(), micros.end());
    const double p50 = micros[micros.size() / 2];
    state.counters["p50_us"] = p50;
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    state.counters["round_trips"] = benchmark::Counter(static_cast<double>(micros.size()), benchmark::Counter::kIsRate);
    return p50;
}

// Round trips of a one-port module connected with `connector`; the 50th percentile.
inline double libraryRoundTrips(benchmark::State& state, const char* connector)
{
    using Clock = std::chrono::steady_clock;
    const std::int32_t reader = TOVRA_Create(2, connector);
    if (TOVRA_ConnectByHost(reader, nullptr) != 0) {
        state.SkipWithError(TOVRA_GetLastErrorText(reader));
        TOVRA_Delete(reader);
        return 0;
    }
    std::vector<double> micros;
    std::uint8_t response[64];
    for (auto _ : state) {
        std::uint64_t length = sizeof response;
        const auto start = Clock::now();
        if (TOVRA_Transceive(reader, kRequest.data(), kRequest.size(), response, &length) != 0) {
            state.SkipWithError(TOVRA_GetLastErrorText(reader));
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    TOVRA_Delete(reader);
    return report(state, micros);
}

} // namespace tovra::bench
