// How the library holds up with many readers: one table, every figure beside what a plain
// blocking-socket client reaches against the same peer in the same run. The peer is a
// separate process (tovra_bench_peer), so the CPU figures are the client's alone.
//   tovra_scale_bench [--quick] [--json]
#include "round_trips.h"
#include "scale/accept_models.h"
#include "scale/load.h"
#include "scale/measure.h"
#include "scale/peer_process.h"
#include "scale/report.h"
#include "scale/sockets.h"
#include "tovra/tovra.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace tovra::bench;
using Handles = std::vector<std::int32_t>;

constexpr std::int32_t kOnePort = 2;
constexpr std::int32_t kTwoPort = 1;
constexpr std::size_t kReaders = 1000;
constexpr std::array<std::size_t, 3> kThreadCounts{1, 4, 16};

struct Plan {
    double singleSeconds; // one run of the one-reader figures
    double loadSeconds;   // one run of a many-reader figure
    double idleSeconds;
    int runs;             // figures are the median of this many runs
    int stops;
};
constexpr Plan kFull{1.0, 1.0, 5.0, 3, 30};
constexpr Plan kQuick{0.25, 0.15, 1.5, 3, 10};

std::string tcpText(std::uint16_t port) { return "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port); }

void sleepSeconds(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

Handles createReaders(std::int32_t kind, std::size_t count, const char* connector,
                      std::vector<double>* micros = nullptr)
{
    Handles handles;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int64_t start = monotonicNanos();
        const std::int32_t reader = TOVRA_Create(kind, connector);
        if (micros) micros->push_back(double(monotonicNanos() - start) / 1e3);
        if (reader <= 0) throw std::runtime_error("TOVRA_Create failed: " + std::to_string(reader));
        handles.push_back(reader);
    }
    return handles;
}

void connectAll(const Handles& handles)
{
    for (const std::int32_t reader : handles)
        if (TOVRA_ConnectByHost(reader, nullptr) != 0)
            throw std::runtime_error(std::string("connect: ") + TOVRA_GetLastErrorText(reader));
}

void deleteAll(const Handles& handles)
{
    for (const std::int32_t reader : handles) TOVRA_Delete(reader);
}

std::vector<int> rawConnections(std::size_t count, std::uint16_t port)
{
    std::vector<int> sockets;
    for (std::size_t i = 0; i < count; ++i) {
        sockets.push_back(connectLoopback(port));
        if (sockets.back() < 0) throw std::runtime_error("plain client cannot connect");
    }
    return sockets;
}

void closeAll(const std::vector<int>& sockets)
{
    for (const int s : sockets) close(s);
}

auto libraryTrip(const Handles& handles)
{
    return [&handles](std::size_t i) {
        std::uint8_t response[64];
        std::uint64_t length = sizeof response;
        return TOVRA_Transceive(handles[i], kRequest.data(), kRequest.size(), response, &length) == 0;
    };
}

const RawExchange& rawExchange()
{
    static const RawExchange exchange(kRequest);
    return exchange;
}

auto rawTrip(const std::vector<int>& sockets)
{
    return [&sockets](std::size_t i) { return rawExchange().roundTrip(sockets[i]); };
}

auto watchedTrip(const WatchedConnections& connections)
{
    return [&connections](std::size_t i) { return connections.roundTrip(rawExchange(), i); };
}

struct GridRow {
    LoadStats library, raw, watched;
};

// Library, plain client and watched plain client take turns run by run, so that a change
// in the machine's load during the grid falls on all alike; each figure the median of its runs.
template <typename LibraryTrip, typename RawTrip, typename WatchedTrip>
std::array<GridRow, kThreadCounts.size()> loadGrid(const Plan& plan, std::size_t connections, LibraryTrip libraryTrip,
                                                    RawTrip rawTrip, WatchedTrip watchedTrip)
{
    std::array<GridRow, kThreadCounts.size()> grid;
    for (std::size_t t = 0; t < kThreadCounts.size(); ++t) {
        std::vector<LoadStats> library, raw, watched;
        for (int r = 0; r < plan.runs; ++r) {
            library.push_back(runLoad(connections, kThreadCounts[t], plan.loadSeconds, libraryTrip));
            raw.push_back(runLoad(connections, kThreadCounts[t], plan.loadSeconds, rawTrip));
            watched.push_back(runLoad(connections, kThreadCounts[t], plan.loadSeconds, watchedTrip));
        }
        grid[t] = {medianOf(library), medianOf(raw), medianOf(watched)};
    }
    return grid;
}

void addLoad(Report& report, const std::string& section, const std::string& what, const GridRow& row)
{
    const LoadStats& library = row.library;
    report.add(section, what + " round trips", "1/s", library.perSecond, "raw", row.raw.perSecond);
    report.add(section, what + " round trips", "1/s", library.perSecond, "raw+watch", row.watched.perSecond);
    report.add(section, what + " p50", "us", library.p50, "raw", row.raw.p50);
    report.add(section, what + " p99", "us", library.p99, "raw", row.raw.p99);
    report.add(section, what + " p99", "us", library.p99, "raw+watch", row.watched.p99);
    report.add(section, what + " p99.9", "us", library.p999, "raw", row.raw.p999);
    report.add(section, what + " CPU per round trip", "us", library.cpuMicros, "raw", row.raw.cpuMicros);
    report.add(section, what + " CPU per round trip", "us", library.cpuMicros, "raw+watch", row.watched.cpuMicros);
}

struct Idle {
    double cpuPercent;
    double wakeupsPerSecond;
};

Idle measureIdle(double seconds)
{
    // Reading every thread's counters costs CPU of its own: it stays out of the CPU window.
    const std::int64_t wakeups = processWakeups();
    const double cpu = processCpuSeconds();
    const std::int64_t start = monotonicNanos();
    sleepSeconds(seconds);
    const double elapsed = secondsSince(start);
    const double cpuPercent = (processCpuSeconds() - cpu) / elapsed * 100;
    return {cpuPercent, double(processWakeups() - wakeups) / elapsed};
}

// Sections 2 to 5 for N readers; the memory, creation and idle figures only for the first,
// thousand-reader round, which runs before anything else touched the heap.
void manyReaders(Report& report, const Plan& plan, std::uint16_t port, std::size_t count)
{
    const bool first = count == kReaders;
    const std::string connector = tcpText(port);
    // The plain connections first: their idle figure must not count the library's threads.
    const double rawBefore = residentBytes();
    const std::vector<int> sockets = rawConnections(count, port);
    const double rawConnected = residentBytes();
    const Idle rawIdle = first ? measureIdle(plan.idleSeconds) : Idle{};

    const double rssBefore = residentBytes();
    std::vector<double> createMicros;
    const Handles handles = createReaders(kOnePort, count, connector.c_str(), &createMicros);
    const double created = residentBytes();
    connectAll(handles);
    const double connected = residentBytes();
    Idle idle{};
    if (first) {
        sleepSeconds(1.0); // lets the connects' after-effects settle
        idle = measureIdle(plan.idleSeconds);
    }
    const auto grid = [&] {
        const WatchedConnections watched(sockets);
        return loadGrid(plan, count, libraryTrip(handles), rawTrip(sockets), watchedTrip(watched));
    }();
    deleteAll(handles);
    closeAll(sockets);

    for (std::size_t t = 0; t < kThreadCounts.size(); ++t)
        addLoad(report, "2 one-port, N readers, T threads",
                "N=" + std::to_string(count) + " T=" + std::to_string(kThreadCounts[t]), grid[t]);
    if (!first) return;
    const GridRow& busiest = grid.back();
    report.add("3 CPU per 100k round trips", "1000 readers, 16 threads", "ms", busiest.library.cpuMicros * 100, "raw",
               busiest.raw.cpuMicros * 100);
    report.add("4 1000 idle one-port readers", "CPU of one core", "%", idle.cpuPercent, "raw", rawIdle.cpuPercent);
    report.add("4 1000 idle one-port readers", "wake-ups", "1/s", idle.wakeupsPerSecond, "raw",
               rawIdle.wakeupsPerSecond);
    const double perReader = 1024.0 * double(count);
    report.add("5 memory and creation", "RSS per reader, created", "KiB", (created - rssBefore) / perReader);
    report.add("5 memory and creation", "RSS per reader, connected", "KiB", (connected - rssBefore) / perReader,
               "raw", (rawConnected - rawBefore) / perReader);
    report.add("5 memory and creation", "TOVRA_Create p50", "us", median(createMicros));
}

// Section 1 and the one-reader lines of section 3: one-port, two-port and plain client take turns.
void oneReader(Report& report, const Plan& plan, std::uint16_t port)
{
    const std::string connector = tcpText(port);
    const Handles onePort = createReaders(kOnePort, 1, connector.c_str());
    const Handles twoPort = createReaders(kTwoPort, 1, connector.c_str());
    connectAll(onePort);
    connectAll(twoPort);
    const std::vector<int> socket = rawConnections(1, port);
    std::vector<LoadStats> one, two, raw;
    for (int r = 0; r < plan.runs; ++r) {
        one.push_back(runLoad(1, 1, plan.singleSeconds, libraryTrip(onePort)));
        two.push_back(runLoad(1, 1, plan.singleSeconds, libraryTrip(twoPort)));
        raw.push_back(runLoad(1, 1, plan.singleSeconds, rawTrip(socket)));
    }
    closeAll(socket);
    deleteAll(onePort);
    deleteAll(twoPort);

    const LoadStats a = medianOf(one), b = medianOf(two), c = medianOf(raw);
    const std::string section = "1 one reader, one thread";
    report.add(section, "one-port p50", "us", a.p50, "raw", c.p50);
    report.add(section, "one-port p50", "us", a.p50, "two-port", b.p50);
    report.add(section, "one-port p99", "us", a.p99, "raw", c.p99);
    report.add(section, "one-port p99", "us", a.p99, "two-port", b.p99);
    report.add(section, "two-port p50", "us", b.p50, "raw", c.p50);
    report.add(section, "two-port p99", "us", b.p99, "raw", c.p99);
    report.add("3 CPU per 100k round trips", "1 reader, 1 thread, one-port", "ms", a.cpuMicros * 100, "raw",
               c.cpuMicros * 100);
    report.add("3 CPU per 100k round trips", "1 reader, 1 thread, two-port", "ms", b.cpuMicros * 100, "raw",
               c.cpuMicros * 100);
}

std::vector<std::uint16_t> freePorts(std::size_t count)
{
    std::vector<int> probes;
    std::vector<std::uint16_t> ports;
    for (std::size_t i = 0; i < count; ++i) {
        probes.push_back(listenLoopback());
        ports.push_back(localPort(probes.back()));
    }
    closeAll(probes); // only after all are taken, so that no port comes twice
    return ports;
}

// The peer connects to every port at once; its start time of each connect, in port order.
template <typename Arrivals>
std::vector<std::int64_t> connectBurst(const std::vector<std::uint16_t>& ports, Arrivals arrivals)
{
    std::vector<std::string> arguments{"connect"};
    for (const std::uint16_t port : ports) arguments.push_back(std::to_string(port));
    PeerProcess peer(arguments);
    const std::vector<std::int64_t> arrived = arrivals();
    std::vector<std::int64_t> starts;
    for (auto line = peer.readLine(); line && *line != "done"; line = peer.readLine())
        starts.push_back(std::stoll(*line));
    std::vector<std::int64_t> delays;
    for (std::size_t i = 0; i < arrived.size() && i < starts.size(); ++i)
        if (arrived[i] != 0) delays.push_back(arrived[i] - starts[i]);
    if (delays.size() < ports.size())
        std::fprintf(stderr, "warning: %zu of %zu connections arrived\n", delays.size(), ports.size());
    return delays;
}

std::atomic<int> connectedReaders{0};

void TOVRA_CALL onConnected(std::int32_t, void* context, const char*)
{
    static_cast<std::atomic<std::int64_t>*>(context)->store(monotonicNanos());
    ++connectedReaders;
}

std::vector<std::int64_t> libraryAcceptBurst()
{
    const std::vector<std::uint16_t> ports = freePorts(kReaders);
    std::vector<std::atomic<std::int64_t>> connectedAt(kReaders);
    const Handles handles = createReaders(kOnePort, kReaders, nullptr);
    for (std::size_t i = 0; i < kReaders; ++i) {
        TOVRA_SetReaderConnectedCallbacks(handles[i], &connectedAt[i], onConnected, nullptr);
        if (TOVRA_StartListener(handles[i], tcpText(ports[i]).c_str()) != 0)
            throw std::runtime_error(std::string("listener: ") + TOVRA_GetLastErrorText(handles[i]));
    }
    connectedReaders = 0;
    const auto delays = connectBurst(ports, [&] {
        const std::int64_t start = monotonicNanos();
        while (connectedReaders < int(kReaders) && secondsSince(start) < 20) sleepSeconds(0.01);
        std::vector<std::int64_t> times;
        for (const auto& at : connectedAt) times.push_back(at.load());
        return times;
    });
    deleteAll(handles);
    return delays;
}

// Plain listening sockets and their ports, closed with the object.
struct Listeners {
    std::vector<int> sockets;
    std::vector<std::uint16_t> ports;
    explicit Listeners(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            sockets.push_back(listenLoopback());
            ports.push_back(localPort(sockets.back()));
        }
    }
    ~Listeners() { closeAll(sockets); }
};

std::vector<std::int64_t> rawAcceptBurst()
{
    const Listeners listeners(kReaders);
    return connectBurst(listeners.ports, [&] { return acceptEach(listeners.sockets, 20000); });
}

std::vector<std::int64_t> modelAcceptBurst(AcceptModel model)
{
    const Listeners listeners(kReaders);
    AcceptModelRun run(model, listeners.sockets);
    return connectBurst(listeners.ports, [&] { return run.wait(); });
}

// p50, p99 and max of one burst's delays, in microseconds.
std::array<double, 3> burstFigures(const std::vector<std::int64_t>& nanos)
{
    std::vector<double> micros;
    for (const std::int64_t delay : nanos) micros.push_back(double(delay) / 1e3);
    std::sort(micros.begin(), micros.end());
    return {percentile(micros, 0.5), percentile(micros, 0.99), micros.empty() ? 0 : micros.back()};
}

// Section 6: from the peer's connect to the connected callback, beside a plain epoll accept loop
// and the plain-socket models of what each connection needs before a callback of its own.
void acceptBurst(Report& report, const Plan& plan)
{
    struct Line {
        const char* name;
        std::function<std::vector<std::int64_t>()> burst;
        std::array<std::vector<double>, 3> figures;
    };
    std::vector<Line> lines{
        {"accept loop", rawAcceptBurst, {}},
        {"loop+wake", [] { return modelAcceptBurst(AcceptModel::LoopWakesWaiting); }, {}},
        {"listener+wake", [] { return modelAcceptBurst(AcceptModel::ListenerWakesWaiting); }, {}},
        {"listener+2 threads", [] { return modelAcceptBurst(AcceptModel::ListenerStartsThreads); }, {}},
    };
    std::array<std::vector<double>, 3> library;
    for (int r = 0; r < plan.runs; ++r) {
        const auto viaLibrary = burstFigures(libraryAcceptBurst());
        for (std::size_t i = 0; i < 3; ++i) library[i].push_back(viaLibrary[i]);
        for (Line& line : lines) {
            const auto figures = burstFigures(line.burst());
            for (std::size_t i = 0; i < 3; ++i) line.figures[i].push_back(figures[i]);
        }
    }
    const std::array<const char*, 3> names{"p50", "p99", "max"};
    for (std::size_t i = 0; i < 3; ++i)
        for (const Line& line : lines)
            report.add("6 accept burst, 1000 listeners", std::string("connect to callback ") + names[i], "us",
                       median(library[i]), line.name, median(line.figures[i]));
}

// Section 7: an idle listener stopped at random moments of its worker's wait.
void stopListener(Report& report, const Plan& plan)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<double> pause(0, 0.3);
    std::vector<double> micros;
    for (int i = 0; i < plan.stops; ++i) {
        const std::int32_t reader = TOVRA_Create(kOnePort, nullptr);
        if (TOVRA_StartListener(reader, tcpText(freePorts(1).front()).c_str()) != 0)
            throw std::runtime_error(std::string("listener: ") + TOVRA_GetLastErrorText(reader));
        sleepSeconds(pause(random));
        const std::int64_t start = monotonicNanos();
        TOVRA_StopListener(reader);
        micros.push_back(double(monotonicNanos() - start) / 1e3);
        TOVRA_Delete(reader);
    }
    double sum = 0;
    for (const double value : micros) sum += value;
    const std::string section = "7 StopListener, idle TCP listener";
    report.add(section, "stop, average of " + std::to_string(plan.stops), "us", sum / double(micros.size()));
    report.add(section, "stop, max", "us", *std::max_element(micros.begin(), micros.end()));
}

std::string now()
{
    const std::time_t t = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&t));
    return text;
}

// Other work on the machine skews every figure; the table says how busy it was.
std::string loadAverage()
{
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    char text[64];
    std::snprintf(text, sizeof text, "load average at start: %.2f %.2f %.2f", load[0], load[1], load[2]);
    return text;
}

std::uint16_t servingPort(PeerProcess& peer)
{
    const auto line = peer.readLine();
    if (!line || !line->starts_with("port ")) throw std::runtime_error("the peer did not start");
    return static_cast<std::uint16_t>(std::stoi(line->substr(5)));
}

} // namespace

int main(int argc, char** argv)
{
    bool quick = false;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        quick = quick || argument == "--quick";
        json = json || argument == "--json";
    }
    const Plan& plan = quick ? kQuick : kFull;
    raiseDescriptorLimit();

    Report report;
    report.title = "tovra scale benchmark, library " + std::string(TOVRA_GetVersion());
    const auto millis = [](double seconds) { return std::to_string(static_cast<int>(seconds * 1000)) + " ms"; };
    report.notes = {"cpus: " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)), "date: " + now(), loadAverage(),
                    "load figures: median of " + std::to_string(plan.runs) + " runs of " + millis(plan.loadSeconds) +
                        " (one reader: " + millis(plan.singleSeconds) + "); raw = plain blocking-socket client",
                    "raw+watch = the plain client pausing and resuming an epoll watch of its connection around "
                    "each exchange, as a one-port reader's receiver is paused for the caller's turn"};
    try {
        PeerProcess server({"serve"});
        const std::uint16_t port = servingPort(server);
        for (const std::size_t count : {kReaders, std::size_t{500}, std::size_t{100}})
            manyReaders(report, plan, port, count);
        oneReader(report, plan, port);
        acceptBurst(report, plan);
        stopListener(report, plan);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tovra_scale_bench: %s\n", error.what());
        return 1;
    }
    std::stable_sort(report.figures.begin(), report.figures.end(),
                     [](const Figure& a, const Figure& b) { return a.section < b.section; });
    if (json) report.printJson();
    else report.printText();
    return 0;
}
