#include "readersim/udp_responder.h"

#include "platform/net.h"
#include "tovra/zk_parameter.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

namespace tovra::readersim {

namespace net = tovra::platform;

namespace {

// The largest UDP payload: a datagram is read whole, whatever it is.
constexpr std::size_t kDatagramBuffer = 65536;
// Receive errors in a row before the thread waits again (a Windows socket reports a
// send that drew "port unreachable" as an error of the next receive).
constexpr int kErrorsInARow = 16;

bool sameText(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
           });
}

template <typename Number>
std::optional<Number> numberOf(const std::string& text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string valueOf(const ZkParameter::TagMap& map, const char* key) {
    std::string value;
    ZkParameter::valueOfTag(map, key, value);
    return value;
}

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

std::string announceOf(const SimulatedReader& reader, std::uint32_t seq) {
    return "ZKUDP:Version=1:Cmd=Announce:Seq=" + std::to_string(seq) + ":ReaderType=" + quoted(reader.readerType) +
           ":DeviceId=" + reader.deviceId + ":MacAddress=" + quoted(reader.macAddress) +
           ":IpAddress=" + quoted(reader.ipAddress) + ":Netmask=" + quoted(reader.netmask) +
           ":Gateway=" + quoted(reader.gateway) + ":Dhcp=" + (reader.dhcp ? "1" : "0") +
           ":Port=" + std::to_string(reader.port);
}

// Applies the fields a set-up carries; false (and nothing changed) for a value that
// does not fit.
bool applySetup(const ZkParameter::TagMap& map, SimulatedReader& reader) {
    SimulatedReader changed = reader;
    for (const auto& [key, value] : map) {
        if (key == "ipaddress") changed.ipAddress = value;
        else if (key == "netmask") changed.netmask = value;
        else if (key == "gateway") changed.gateway = value;
        else if (key == "dhcp") {
            if (value != "0" && value != "1") return false;
            changed.dhcp = value == "1";
        } else if (key == "port") {
            const auto port = numberOf<std::uint16_t>(value);
            if (!port || *port == 0) return false;
            changed.port = *port;
        }
    }
    reader = changed;
    return true;
}

}  // namespace

struct UdpResponder::Impl {
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<SimulatedReader> readers;
    std::size_t discovers = 0, ignored = 0;
    std::optional<DiscoverSeen> lastDiscover;
    std::vector<SetupSeen> setups;
    std::function<void(const std::string&)> logSink;

    // Owned by the controlling thread.
    net::SocketHandle socket = net::kInvalidSocket;
    net::SocketAddress self{};  // where a datagram reaches the socket, to wake its thread
    std::thread worker;
    std::atomic<std::uint16_t> boundPort{0};
    std::atomic<bool> stopping{false};

    void log(const std::string& line) {
        std::function<void(const std::string&)> sink;
        {
            std::lock_guard lock(mutex);
            sink = logSink;
        }
        if (sink) sink(line);
    }

    void ignore(const std::string& why) {
        {
            std::lock_guard lock(mutex);
            ++ignored;
        }
        log("udp: ignored " + why);
    }

    void run() {
        std::vector<char> buffer(kDatagramBuffer);
        while (!stopping) {
            if (net::waitSocket(socket, true, false, -1) < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            int errors = 0;
            while (!stopping && errors < kErrorsInARow) {
                net::SocketAddress from{};
                const std::ptrdiff_t got = net::recvDatagram(socket, buffer.data(), buffer.size(), from);
                if (got < 0) {
                    if (net::isWouldBlock(net::lastSocketError())) break;
                    ++errors;
                    continue;
                }
                errors = 0;
                if (stopping) break;
                handle(std::string(buffer.data(), static_cast<std::size_t>(got)), from);
            }
        }
    }

    void handle(const std::string& datagram, const net::SocketAddress& from) {
        // The first entry names the protocol and carries no value.
        std::string tag, value;
        const char* rest = ZkParameter::parseSection(datagram.c_str(), tag, value, ':', true);
        if (tag != "zkudp" || !value.empty() || rest == nullptr) {
            return ignore("datagram of " + std::to_string(datagram.size()) + " bytes");
        }
        ZkParameter::TagMap map;
        ZkParameter::sectionToMap(rest, map, ':', true);
        const auto seq = numberOf<std::uint32_t>(valueOf(map, "seq"));
        const std::string command = valueOf(map, "cmd");
        if (!seq || valueOf(map, "version").empty()) return ignore("datagram without Seq or Version");
        if (sameText(command, "Discover")) return answerDiscover(*seq, from);
        if (sameText(command, "Setup")) return answerSetup(*seq, map, from);
        ignore("command " + command);
    }

    void answerDiscover(std::uint32_t seq, const net::SocketAddress& from) {
        std::vector<SimulatedReader> answering;
        {
            std::lock_guard lock(mutex);
            ++discovers;
            lastDiscover = DiscoverSeen{net::addressText(from), static_cast<std::uint16_t>(net::addressPort(from)), seq};
            answering = readers;
        }
        changed.notify_all();
        log("udp: discover seq=" + std::to_string(seq) + " from " + net::addressText(from) + ":" +
            std::to_string(net::addressPort(from)) + ", " + std::to_string(answering.size()) + " reader(s) answer");
        for (const SimulatedReader& reader : answering) send(announceOf(reader, seq), from);
    }

    void answerSetup(std::uint32_t seq, const ZkParameter::TagMap& map, const net::SocketAddress& from) {
        const std::string mac = valueOf(map, "macaddress");
        const auto flags = numberOf<std::uint8_t>(valueOf(map, "flags"));
        std::optional<std::string> answer;
        {
            std::lock_guard lock(mutex);
            const auto found = std::find_if(readers.begin(), readers.end(),
                                            [&](const SimulatedReader& r) { return sameText(r.macAddress, mac); });
            if (found != readers.end()) {
                std::int32_t result = found->setupResult;
                if (result == 0 && !applySetup(map, *found)) result = -1;
                answer = "ZKUDP:Version=1:Cmd=SetupAck:Seq=" + std::to_string(seq) +
                         ":MacAddress=" + quoted(found->macAddress) + ":Result=" + std::to_string(result);
            }
            setups.push_back(SetupSeen{seq, mac, flags ? int{*flags} : -1, answer.has_value()});
        }
        changed.notify_all();
        log("udp: setup seq=" + std::to_string(seq) + " for " + mac + (answer ? "" : " (no such reader)"));
        if (answer) send(*answer, from);
    }

    void send(const std::string& datagram, const net::SocketAddress& to) {
        net::sendDatagram(socket, datagram.data(), datagram.size(), to);
    }
};

UdpResponder::UdpResponder() : impl_(std::make_unique<Impl>()) {}

UdpResponder::~UdpResponder() { stop(); }

bool UdpResponder::start(std::uint16_t port, bool anyAddress) {
    Impl& im = *impl_;
    if (im.socket != net::kInvalidSocket) return false;
    net::SocketAddress address{};
    if (!net::parseNumericAddress(anyAddress ? "0.0.0.0" : "127.0.0.1", port, address)) return false;
    const net::SocketHandle socket = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::datagram);
    if (socket == net::kInvalidSocket) return false;
    net::SocketAddress bound{};
    if (!net::bindSocket(socket, address) || !net::localAddress(socket, bound) ||
        !net::setNonBlocking(socket, true)) {
        net::closeSocket(socket);
        return false;
    }
    // The thread's wake-up call arrives over loopback, whichever address is bound.
    net::parseNumericAddress("127.0.0.1", static_cast<std::uint16_t>(net::addressPort(bound)), im.self);
    im.socket = socket;
    im.boundPort = static_cast<std::uint16_t>(net::addressPort(bound));
    im.stopping = false;
    im.log("udp: answering discovery on " + std::string(anyAddress ? "0.0.0.0:" : "127.0.0.1:") +
           std::to_string(im.boundPort));
    im.worker = std::thread([&im] { im.run(); });
    return true;
}

std::uint16_t UdpResponder::port() const { return impl_->boundPort; }

void UdpResponder::stop() {
    Impl& im = *impl_;
    if (im.socket == net::kInvalidSocket) return;
    im.stopping = true;
    const char wake = 0;
    net::sendDatagram(im.socket, &wake, 1, im.self);
    if (im.worker.joinable()) im.worker.join();
    net::closeSocket(im.socket);
    im.socket = net::kInvalidSocket;
    im.boundPort = 0;
}

void UdpResponder::setReader(const SimulatedReader& reader) {
    std::lock_guard lock(impl_->mutex);
    auto& readers = impl_->readers;
    const auto found = std::find_if(readers.begin(), readers.end(),
                                    [&](const SimulatedReader& r) { return sameText(r.macAddress, reader.macAddress); });
    if (found != readers.end()) *found = reader;
    else readers.push_back(reader);
}

bool UdpResponder::removeReader(const std::string& macAddress) {
    std::lock_guard lock(impl_->mutex);
    auto& readers = impl_->readers;
    const auto found = std::find_if(readers.begin(), readers.end(),
                                    [&](const SimulatedReader& r) { return sameText(r.macAddress, macAddress); });
    if (found == readers.end()) return false;
    readers.erase(found);
    return true;
}

std::optional<SimulatedReader> UdpResponder::reader(const std::string& macAddress) const {
    std::lock_guard lock(impl_->mutex);
    for (const SimulatedReader& r : impl_->readers)
        if (sameText(r.macAddress, macAddress)) return r;
    return std::nullopt;
}

std::vector<SimulatedReader> UdpResponder::readers() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->readers;
}

std::size_t UdpResponder::discoversSeen() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->discovers;
}

std::optional<DiscoverSeen> UdpResponder::lastDiscover() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->lastDiscover;
}

bool UdpResponder::waitForDiscovers(std::size_t total, std::chrono::milliseconds timeout) {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->discovers >= total; });
}

std::vector<SetupSeen> UdpResponder::setupsSeen() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->setups;
}

std::size_t UdpResponder::ignoredDatagrams() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->ignored;
}

void UdpResponder::setLog(std::function<void(const std::string&)> log) {
    std::lock_guard lock(impl_->mutex);
    impl_->logSink = std::move(log);
}

}  // namespace tovra::readersim
