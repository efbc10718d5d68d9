// Serial round trips on a pseudo-terminal against the reader simulator: the library with
// our open serial library beside a plain client on the same line; and how long serial
// detection takes to find a reader at its sixteenth candidate.
#include "platform/dynlib.h"
#include "platform/env.h"
#include "platform/net.h"
#include "round_trips.h"
#include "platform/pty.h"
#include "readersim/frame_codec.h"
#include "readersim/reader_sim.h"
#include "tovra/tovra.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

namespace platform = tovra::platform;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using tovra::bench::kRequest;
using tovra::bench::report;
using tovra::readersim::LineSettings;

constexpr const char* kPortVariable = "ZKCOM_COM42";
constexpr const char* kConnector = "com:Device=COM42:Baud=38400:Frame=8E1";

tovra::readersim::ReaderSim& simulator()
{
    static tovra::readersim::ReaderSim sim;
    static const bool serving = [] {
        if (!sim.servePty(LineSettings{.baud = 38400, .parity = 'E'})) return false;
        return platform::setEnv(kPortVariable, sim.ptyPath().c_str());
    }();
    (void)serving;
    return sim;
}

double p50OfLibrary = 0;
double p50OfPlain = 0;

void BM_LibrarySerialTransceive(benchmark::State& state)
{
    simulator();
    p50OfLibrary = tovra::bench::libraryRoundTrips(state, kConnector);
}
BENCHMARK(BM_LibrarySerialTransceive)->UseRealTime()->MinTime(2.0);

// Reads until `length` bytes are there, waiting on the line in between.
bool readExactly(platform::PtyHandle line, std::uint8_t* into, std::size_t length)
{
    for (std::size_t got = 0; got < length;) {
        if (platform::waitPty(line, true, false, 2000) <= 0) return false;
        const auto n = platform::ptyRead(line, into + got, length - got);
        if (n > 0) got += static_cast<std::size_t>(n);
        else if (n == 0 || !platform::isWouldBlock(platform::lastSocketError())) return false;
    }
    return true;
}

void BM_PlainSerialClient(benchmark::State& state)
{
    tovra::readersim::Frame frame;
    frame.flags = tovra::readersim::kDirectionRequest;
    frame.payload = kRequest;
    const Bytes wire = tovra::readersim::encode(frame);
    const platform::PtyHandle line = platform::openPtySlave(simulator().ptyPath());
    if (line == platform::kInvalidPty ||
        !platform::setPtySlaveSettings(line, platform::PtyLineSettings{.baud = 38400, .parity = 'E'})) {
        state.SkipWithError("cannot open the line");
        platform::closePtySlave(line);
        return;
    }
    std::vector<double> micros;
    std::uint8_t response[64];
    for (auto _ : state) {
        const auto start = Clock::now();
        bool ok = platform::ptyWrite(line, wire.data(), wire.size()) == static_cast<std::ptrdiff_t>(wire.size()) &&
                  readExactly(line, response, 3);
        const std::size_t length = ok ? (std::size_t{response[1]} << 8 | response[2]) : 0;
        ok = ok && length >= 3 && length <= sizeof response && readExactly(line, response + 3, length - 3);
        if (!ok) {
            state.SkipWithError("exchange failed");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    p50OfPlain = report(state, micros);
    platform::closePtySlave(line);
}
BENCHMARK(BM_PlainSerialClient)->UseRealTime()->MinTime(2.0);

// The whole search: twenty-one candidates, the reader answering at the sixteenth.
void BM_DetectionToTheSixteenthProbe(benchmark::State& state)
{
    simulator().setLineSettings(LineSettings{.baud = 9600, .parity = 'E'});
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    for (auto _ : state) {
        if (TOVRA_DetectSerial(reader, "COM:Device=COM42") != 0) {
            state.SkipWithError(TOVRA_GetLastErrorText(reader));
            break;
        }
        state.PauseTiming();
        TOVRA_DisconnectByHost(reader);
        state.ResumeTiming();
    }
    TOVRA_Delete(reader);
    simulator().setLineSettings(LineSettings{.baud = 38400, .parity = 'E'});
}
BENCHMARK(BM_DetectionToTheSixteenthProbe)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

int main(int argc, char** argv)
{
    // Our open serial library, loaded by path: the library's load by name finds this one.
    if (platform::loadLibrary(TOVRA_ZKCOM_PATH) == nullptr) {
        std::fprintf(stderr, "cannot load %s: %s\n", TOVRA_ZKCOM_PATH, platform::lastLoadError().c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (p50OfLibrary > 0 && p50OfPlain > 0)
        std::printf("p50 library / plain serial client: %.2f\n", p50OfLibrary / p50OfPlain);
    return 0;
}
