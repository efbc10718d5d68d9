// Round trips against the reader simulator on loopback: the library's transceive beside a
// plain blocking-socket client that sends the same frames to the same simulator.
#include "platform/net.h"
#include "round_trips.h"
#include "readersim/frame_codec.h"
#include "readersim/reader_sim.h"
#include "tovra/tovra.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace net = tovra::platform;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using tovra::bench::kRequest;
using tovra::bench::report;


tovra::readersim::ReaderSim& simulator()
{
    static tovra::readersim::ReaderSim sim;
    static const bool listening = sim.listen();
    (void)listening;
    return sim;
}

double p50OfLibrary = 0;
double p50OfPlain = 0;

void BM_LibraryTransceive(benchmark::State& state)
{
    const std::string connector = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(simulator().port());
    p50OfLibrary = tovra::bench::libraryRoundTrips(state, connector.c_str());
}
BENCHMARK(BM_LibraryTransceive)->UseRealTime()->MinTime(2.0);

bool receiveExactly(net::SocketHandle s, std::uint8_t* into, std::size_t length)
{
    for (std::size_t got = 0; got < length;) {
        const auto n = net::recvBytes(s, into + got, length - got);
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

void BM_PlainSocketClient(benchmark::State& state)
{
    tovra::readersim::Frame frame;
    frame.flags = tovra::readersim::kDirectionRequest;
    frame.payload = kRequest;
    const Bytes wire = tovra::readersim::encode(frame);

    net::SocketAddress address{};
    net::parseNumericAddress("127.0.0.1", simulator().port(), address);
    const net::SocketHandle s = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
    if (net::connectSocket(s, address) != 0) {
        state.SkipWithError("connect failed");
        net::closeSocket(s);
        return;
    }
    net::setNoDelay(s, true);
    std::vector<double> micros;
    std::uint8_t response[64];
    for (auto _ : state) {
        const auto start = Clock::now();
        bool ok = net::sendBytes(s, wire.data(), wire.size()) == static_cast<std::ptrdiff_t>(wire.size()) &&
                  receiveExactly(s, response, 3);
        const std::size_t length = ok ? (std::size_t{response[1]} << 8 | response[2]) : 0;
        ok = ok && length >= 3 && length <= sizeof response && receiveExactly(s, response + 3, length - 3);
        if (!ok) {
            state.SkipWithError("exchange failed");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    p50OfPlain = report(state, micros);
    net::closeSocket(s);
}
BENCHMARK(BM_PlainSocketClient)->UseRealTime()->MinTime(2.0);

std::atomic<int> connections{0};
std::atomic<int> disconnections{0};

void TOVRA_CALL countConnected(std::int32_t, void*, const char*) { ++connections; }
void TOVRA_CALL countDisconnected(std::int32_t, void*) { ++disconnections; }

// From the reader's connect returning to the application's connected callback.
void BM_AcceptToCallback(benchmark::State& state)
{
    std::uint16_t port = 0;
    {
        tovra::readersim::ReaderSim probe; // borrows a free loopback port
        if (probe.listen()) port = probe.port();
    }
    const std::int32_t host = TOVRA_Create(3, nullptr);
    TOVRA_SetReaderConnectedCallbacks(host, nullptr, countConnected, countDisconnected);
    if (TOVRA_StartListener(host, ("tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port)).c_str()) != 0) {
        state.SkipWithError(TOVRA_GetLastErrorText(host));
        TOVRA_Delete(host);
        return;
    }
    std::vector<double> micros;
    tovra::readersim::ReaderSim reader;
    for (auto _ : state) {
        const int before = connections.load();
        if (!reader.connect("127.0.0.1", port)) {
            state.SkipWithError("connect failed");
            break;
        }
        const auto start = Clock::now();
        while (connections.load() == before) std::this_thread::yield();
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        state.PauseTiming();
        const int left = disconnections.load();
        reader.closeConnection();
        while (disconnections.load() == left) std::this_thread::yield();
        state.ResumeTiming();
    }
    report(state, micros);
    TOVRA_StopListener(host);
    TOVRA_Delete(host);
}
BENCHMARK(BM_AcceptToCallback)->UseRealTime()->Iterations(300);

// TOVRA_StopListener of an idle listener, at varying moments of its worker's wait.
void BM_StopListener(benchmark::State& state)
{
    std::uint16_t port = 0;
    {
        tovra::readersim::ReaderSim probe; // borrows a free loopback port
        if (probe.listen()) port = probe.port();
    }
    const std::string listener = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port);
    std::vector<double> micros;
    for (auto _ : state) {
        state.PauseTiming();
        const std::int32_t host = TOVRA_Create(static_cast<std::int32_t>(state.range(0)), nullptr);
        if (TOVRA_StartListener(host, listener.c_str()) != 0) {
            state.SkipWithError(TOVRA_GetLastErrorText(host));
            TOVRA_Delete(host);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(micros.size() * 7 % 300));
        state.ResumeTiming();
        const auto start = Clock::now();
        TOVRA_StopListener(host);
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        state.PauseTiming();
        TOVRA_Delete(host);
        state.ResumeTiming();
    }
    std::vector<double> sorted = micros;
    report(state, micros);
    if (!sorted.empty()) state.counters["max_us"] = *std::max_element(sorted.begin(), sorted.end());
}
BENCHMARK(BM_StopListener)->Arg(2)->Arg(3)->UseRealTime()->Iterations(60);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (p50OfLibrary > 0 && p50OfPlain > 0)
        std::printf("p50 library / plain client: %.2f (goal: at most 1.5)\n", p50OfLibrary / p50OfPlain);
    return 0;
}
