// Frame build, check and dump costs for small, medium and maximum payloads.
#include "protocol/frame_dump.h"
#include "protocol/protocol_frame.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

using tovra::ProtocolFrame;

// Enhanced frames: 16 bytes, 1 KiB and the largest payload that fits.
constexpr std::int64_t kMaxEnhancedPayload = ProtocolFrame::maxLength - 8;

std::vector<std::uint8_t> payloadOf(std::int64_t length)
{
    std::vector<std::uint8_t> payload(static_cast<std::size_t>(length));
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i * 31 + 7);
    payload[0] = 0x65; // an unmasked command
    return payload;
}

std::unique_ptr<ProtocolFrame> builtFrame(std::int64_t length)
{
    auto frame = std::make_unique<ProtocolFrame>();
    const auto payload = payloadOf(length);
    tovra::buildFrame(*frame, payload.data(), payload.size(), 3, tovra::kDirectionRequest, 0xFF);
    return frame;
}

void BM_BuildFrame(benchmark::State& state)
{
    auto frame = std::make_unique<ProtocolFrame>();
    const auto payload = payloadOf(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovra::buildFrame(*frame, payload.data(), payload.size(), 3, 1, 0xFF));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_IsValidFrame(benchmark::State& state)
{
    const auto frame = builtFrame(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(tovra::isValidFrame(*frame));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_FrameToHex(benchmark::State& state)
{
    const auto frame = builtFrame(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(tovra::frameToHex(*frame));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_PayloadToHex(benchmark::State& state)
{
    const auto frame = builtFrame(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(tovra::payloadToHex(*frame));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

#define TOVRA_PAYLOAD_SIZES Arg(16)->Arg(1024)->Arg(kMaxEnhancedPayload)
BENCHMARK(BM_BuildFrame)->TOVRA_PAYLOAD_SIZES;
BENCHMARK(BM_IsValidFrame)->TOVRA_PAYLOAD_SIZES;
BENCHMARK(BM_FrameToHex)->TOVRA_PAYLOAD_SIZES;
BENCHMARK(BM_PayloadToHex)->TOVRA_PAYLOAD_SIZES;

} // namespace
