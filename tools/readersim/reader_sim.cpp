#include "readersim/reader_sim.h"

#include "platform/net.h"
#include "platform/pty.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace tovra::readersim {

namespace net = tovra::platform;

namespace {

// The longest the thread waits on a socket before it looks at its flags again.
constexpr int kSliceMs = 10;
// Bound for closeConnection() and friends; only reached when something is broken.
constexpr milliseconds kControlPatience{10000};
// How long a closing pseudo-terminal waits for its user to read what was sent.
constexpr milliseconds kDrainPatience{2000};

using Clock = std::chrono::steady_clock;

enum class Control { none, close, reset };

std::string hexByte(std::uint8_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%02X", static_cast<unsigned>(value));
    return text;
}

std::string describe(const Frame& frame) {
    static const char* const names[] = {"Std", "", "Adv", "Enh"};
    std::string text = names[static_cast<int>(frame.generation)];
    if (frame.generation == Generation::enhanced) text += " flags=" + hexByte(frame.flags);
    text += " addr=" + hexByte(frame.address) + " cmd=" + hexByte(frame.payload.at(0)) +
            " payload=" + std::to_string(frame.payload.size());
    return text;
}

std::string describe(const net::PtyLineSettings& line) {
    return std::to_string(line.baud) + " " + line.parity + std::to_string(line.stopBits);
}

}  // namespace

std::optional<LineSettings> LineSettings::parse(std::string_view text) {
    LineSettings line;
    const auto split = text.find_first_of(": ");
    const std::string_view speed = text.substr(0, split);
    const auto [end, error] = std::from_chars(speed.data(), speed.data() + speed.size(), line.baud);
    if (speed.empty() || error != std::errc() || end != speed.data() + speed.size() || line.baud <= 0) {
        return std::nullopt;
    }
    if (split == std::string_view::npos) return line;
    const std::string_view frame = text.substr(split + 1);
    if (frame.size() != 3) return std::nullopt;
    line.dataBits = frame[0] - '0';
    line.parity = static_cast<char>(std::toupper(static_cast<unsigned char>(frame[1])));
    line.stopBits = frame[2] - '0';
    if (line.dataBits < 5 || line.dataBits > 8) return std::nullopt;
    if (line.parity != 'N' && line.parity != 'E' && line.parity != 'O') return std::nullopt;
    if (line.stopBits != 1 && line.stopBits != 2) return std::nullopt;
    return line;
}

std::string LineSettings::text() const {
    return std::to_string(baud) + " " + std::to_string(dataBits) + parity + std::to_string(stopBits);
}

Reply Reply::with(std::vector<std::uint8_t> data, std::uint8_t status) {
    Reply reply;
    reply.data = std::move(data);
    reply.status = status;
    return reply;
}

Reply Reply::payload(std::vector<std::uint8_t> whole) {
    Reply reply;
    reply.data = std::move(whole);
    reply.raw = true;
    return reply;
}

Reply Reply::none() {
    Reply reply;
    reply.silent = true;
    return reply;
}

struct ReaderSim::Impl {
    // --- Guarded by mutex; `changed` is signalled on every change -----------
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::map<std::uint8_t, Reply> commandReplies;
    std::map<std::vector<std::uint8_t>, Reply> payloadReplies;
    Fault fault;
    std::deque<ReceivedFrame> record;
    std::size_t recordLimit = 1024;
    std::size_t accepted = 0, requests = 0, frames = 0, bad = 0, discarded = 0;
    bool connected = false;
    std::uint64_t serial = 0;  // counts connections, to tell them apart
    std::optional<Generation> awaiting;  // generation of our own pending request
    std::optional<Frame> answer;         // its response, once here
    // Written under mutex, read lock-free by the sending loops.
    std::atomic<Control> control{Control::none};
    std::atomic<bool> stopping{false};

    // --- The open connection, for every thread that sends ----------------------
    // Lock order: sendMutex before mutex, never the other way round.
    std::mutex sendMutex;
    net::SocketHandle connection = net::kInvalidSocket;

    // --- The pseudo-terminal, guarded by mutex --------------------------------------
    // Its output goes through the outbox, which the serving thread writes as the
    // master takes it: a pty holds far less than a frame can be, and that thread
    // must go on reading and watching the settings meanwhile.
    struct Piece {
        std::vector<std::uint8_t> bytes;
        milliseconds byteDelay{0};
        std::size_t done = 0;              // written so far; serving thread only
        std::shared_ptr<int> outcome;      // for a sender that waits: 1 sent, -1 lost
    };
    net::PtyHandle pty = net::kInvalidPty;
    std::thread::id ptyThread;  // the one serving it
    std::string ptyPath;
    LineSettings wanted;
    std::uint64_t wantedVersion = 0;
    std::deque<Piece> outbox;

    // --- Owned by the controlling thread ----------------------------------------
    std::thread worker;
    net::SocketHandle listener = net::kInvalidSocket;
    std::atomic<std::uint16_t> listenPort{0};
    std::mutex requestMutex;  // one own request at a time

    std::mutex logMutex;
    std::function<void(const std::string&)> logSink;
    bool verbose = false;

    // ------------------------------------------------------------------------
    void log(const std::string& line) {
        std::function<void(const std::string&)> sink;
        {
            std::lock_guard lock(logMutex);
            sink = logSink;
        }
        if (sink) sink(line);
    }
    bool logsFrames() {
        std::lock_guard lock(logMutex);
        return verbose && logSink;
    }

    bool interrupted() const { return stopping || control != Control::none; }

    // Waits, but returns early when the simulator stops or the connection is to end.
    void pause(milliseconds duration) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, duration, [&] { return interrupted(); });
    }

    // Sends on the open connection, with byteDelay between bytes when set.
    bool sendAll(std::span<const std::uint8_t> bytes, milliseconds byteDelay = milliseconds(0)) {
        if (const auto queued = queueOnPty(bytes, byteDelay)) return *queued;
        std::lock_guard sendLock(sendMutex);
        if (connection == net::kInvalidSocket) return false;
        if (byteDelay.count() <= 0) return sendLoop(connection, bytes);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i > 0) pause(byteDelay);
            if (!sendLoop(connection, bytes.subspan(i, 1))) return false;
        }
        return true;
    }

    // Nothing when no pseudo-terminal is served; else whether the bytes went out.
    // The serving thread itself cannot wait for its own loop: true at once.
    std::optional<bool> queueOnPty(std::span<const std::uint8_t> bytes, milliseconds byteDelay) {
        std::unique_lock lock(mutex);
        if (pty == net::kInvalidPty) return std::nullopt;
        if (bytes.empty()) return true;
        const bool wait = std::this_thread::get_id() != ptyThread;
        Piece piece{{bytes.begin(), bytes.end()}, byteDelay, 0, nullptr};
        const auto outcome = wait ? std::make_shared<int>(0) : nullptr;
        piece.outcome = outcome;
        outbox.push_back(std::move(piece));
        if (!wait) return true;
        // The serving thread settles every piece, at the latest when the pty closes.
        changed.wait(lock, [&] { return *outcome != 0; });
        return *outcome > 0;
    }

    bool sendLoop(net::SocketHandle socket, std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            if (interrupted()) return false;
            const std::ptrdiff_t sent = net::sendBytes(socket, bytes.data(), bytes.size());
            if (sent > 0) {
                bytes = bytes.subspan(static_cast<std::size_t>(sent));
            } else if (sent < 0 && net::isWouldBlock(net::lastSocketError())) {
                net::waitSocket(socket, false, true, kSliceMs);
            } else {
                return false;
            }
        }
        return true;
    }

    // --- Connections ---------------------------------------------------------
    void open(net::SocketHandle socket) {
        net::setNonBlocking(socket, true);
        net::setNoDelay(socket, true);
        {
            std::lock_guard sendLock(sendMutex);
            connection = socket;
        }
        {
            std::lock_guard lock(mutex);
            markOpen();
        }
        changed.notify_all();
        log("connection open");
    }

    void markOpen() {  // under mutex
        connected = true;
        ++serial;
        ++accepted;
        control = Control::none;
    }

    void finish(net::SocketHandle socket, Control how, bool byPeer) {
        {
            std::lock_guard sendLock(sendMutex);
            connection = net::kInvalidSocket;
        }
        if (how == Control::reset) net::setLinger(socket, true, 0);
        {
            // Closed under the lock: whoever sees the close also sees the state.
            std::lock_guard lock(mutex);
            net::closeSocket(socket);
            connected = false;
            control = Control::none;
        }
        changed.notify_all();
        log(byPeer ? "connection closed by peer"
                   : how == Control::reset ? "connection reset" : "connection closed");
    }

    void runServer() {
        while (!stopping) {
            const int ready = net::waitSocket(listener, true, false, kSliceMs);
            if (ready < 0) pause(milliseconds(kSliceMs));
            if (ready <= 0) continue;
            const net::SocketHandle socket = net::acceptSocket(listener, nullptr);
            if (socket == net::kInvalidSocket) continue;
            open(socket);
            serve(socket);
        }
    }

    // Reads frames and answers them until the connection ends.
    void serve(net::SocketHandle socket) {
        std::vector<std::uint8_t> inbox;
        std::vector<std::uint8_t> chunk(65536);
        Control how = Control::close;
        bool byPeer = false;
        while (!stopping) {
            if (control != Control::none) {
                how = control;
                break;
            }
            const int ready = net::waitSocket(socket, true, false, kSliceMs);
            if (ready < 0) break;
            if (ready == 0 || control != Control::none) continue;
            const std::ptrdiff_t got = net::recvBytes(socket, chunk.data(), chunk.size());
            if (got < 0 && net::isWouldBlock(net::lastSocketError())) continue;
            if (got <= 0) {
                byPeer = true;
                break;
            }
            inbox.insert(inbox.end(), chunk.begin(), chunk.begin() + got);
            const Control ending = consume(inbox);
            if (ending != Control::none) {
                how = ending;
                break;
            }
        }
        finish(socket, how, byPeer);
    }

    // Handles the whole frames at the start of inbox and drops them from it.
    Control consume(std::vector<std::uint8_t>& inbox) {
        std::size_t offset = 0;
        Control ending = Control::none;
        while (ending == Control::none) {
            const auto rest = std::span<const std::uint8_t>(inbox).subspan(offset);
            Decoded decoded = decode(rest);
            if (decoded.status == Decoded::Status::incomplete) break;
            if (decoded.status == Decoded::Status::garbage) {
                offset += decoded.size;
                std::lock_guard lock(mutex);
                discarded += decoded.size;
                continue;
            }
            const auto bytes = rest.first(decoded.size);
            offset += bytes.size();
            ending = handle(std::move(decoded), bytes);
        }
        inbox.erase(inbox.begin(), inbox.begin() + static_cast<std::ptrdiff_t>(offset));
        return ending;
    }

    // --- Frames ----------------------------------------------------------------
    Control handle(Decoded decoded, std::span<const std::uint8_t> bytes) {
        const Frame& frame = decoded.frame;
        bool isRequest = false;
        Reply reply;
        Fault applied;
        {
            std::lock_guard lock(mutex);
            ++frames;
            if (!decoded.crcOk) ++bad;
            record.push_back({frame, {bytes.begin(), bytes.end()}, decoded.crcOk});
            while (record.size() > recordLimit) record.pop_front();

            if (decoded.crcOk) {
                bool isResponse;
                if (frame.generation == Generation::enhanced) {
                    isRequest = (frame.flags & kDirectionRequest) != 0;
                    isResponse = !isRequest && (frame.flags & kDirectionResponse) != 0;
                } else {
                    isResponse = awaiting == frame.generation;
                    isRequest = !isResponse;
                }
                if (isResponse && awaiting == frame.generation && !answer) answer = frame;
            }
            if (isRequest) {
                ++requests;
                reply = chooseReply(frame);
                if (!reply.silent) applied = takeFault();
            }
        }
        changed.notify_all();
        if (logsFrames()) {
            log(std::string("<< ") + describe(frame) + (decoded.crcOk ? "" : " BAD CRC"));
        }
        if (!isRequest || reply.silent) return Control::none;
        return respond(frame, reply, applied);
    }

    Reply chooseReply(const Frame& request) const {
        if (const auto it = payloadReplies.find(request.payload); it != payloadReplies.end()) {
            return it->second;
        }
        if (const auto it = commandReplies.find(request.payload[0]); it != commandReplies.end()) {
            return it->second;
        }
        return Reply::with({request.payload.begin() + 1, request.payload.end()});
    }

    Fault takeFault() {
        const Fault taken = fault;
        if (fault.count > 0 && --fault.count == 0) fault = Fault{};
        return taken;
    }

    Control respond(const Frame& request, const Reply& reply, const Fault& applied) {
        if (reply.delay.count() > 0) {
            pause(reply.delay);
            if (interrupted()) return Control::none;  // the serving loop sees why
        }
        Frame response;
        response.generation = request.generation;
        response.address = request.address;
        if (applied.kind == FaultKind::wrongGeneration) response.generation = applied.generation;
        if (applied.kind == FaultKind::noDirection) response.generation = Generation::enhanced;
        if (response.generation == Generation::enhanced) {
            response.flags = applied.kind == FaultKind::noDirection ? 0x00 : kDirectionResponse;
        }
        const std::size_t prefix = reply.raw ? 0 : 2;
        response.payload.resize(prefix + reply.data.size());
        if (!reply.raw) {
            response.payload[0] = request.payload[0];
            response.payload[1] = reply.status;
        }
        std::copy(reply.data.begin(), reply.data.end(), response.payload.begin() + static_cast<std::ptrdiff_t>(prefix));
        if (response.payload.size() > maxPayload(response.generation)) {
            response.payload.resize(maxPayload(response.generation));
        }
        std::vector<std::uint8_t> bytes = encode(response);
        if (bytes.empty()) return Control::none;  // an empty raw reply
        if (logsFrames()) log(">> " + describe(response));

        switch (applied.kind) {
            case FaultKind::silence:
                return Control::none;
            case FaultKind::reset:
                return Control::reset;
            case FaultKind::badCrc:
                bytes[bytes.size() - 2] ^= 0xFF;
                break;
            case FaultKind::declaredLength:
                if (response.generation == Generation::standard) {
                    bytes[0] = static_cast<std::uint8_t>(applied.declaredLength & 0xFF);
                } else {
                    bytes[1] = static_cast<std::uint8_t>(applied.declaredLength >> 8);
                    bytes[2] = static_cast<std::uint8_t>(applied.declaredLength & 0xFF);
                }
                resealCrc(bytes);
                break;
            case FaultKind::closeMidFrame:
                sendAll(std::span(bytes).first(std::max<std::size_t>(1, bytes.size() / 2)));
                return Control::close;
            case FaultKind::trickle:
                sendAll(bytes, applied.byteDelay);
                return Control::none;
            case FaultKind::flood: {
                std::vector<std::uint8_t> many;
                many.reserve(bytes.size() * static_cast<std::size_t>(std::max(applied.floodCount, 0)));
                for (int i = 0; i < applied.floodCount; ++i) many.insert(many.end(), bytes.begin(), bytes.end());
                bytes = std::move(many);
                break;
            }
            case FaultKind::none:
            case FaultKind::wrongGeneration:
            case FaultKind::noDirection:
                break;
        }
        sendAll(bytes);
        return Control::none;
    }

    // --- Pseudo-terminal -----------------------------------------------------------
    // What the serving thread knows of the line.
    struct Line {
        std::optional<net::PtyLineSettings> seen;
        std::uint64_t version = 0;
        bool matching = false;
        Clock::time_point nextByte{};  // of a trickled piece
    };

    void servePtyLoop(net::PtyHandle master) {
        {
            std::lock_guard lock(mutex);
            ptyThread = std::this_thread::get_id();
        }
        std::vector<std::uint8_t> inbox;
        std::vector<std::uint8_t> chunk(65536);
        Line line;
        Control how = Control::close;
        bool broken = false;
        while (!stopping) {
            if (control != Control::none) {
                how = control;
                break;
            }
            look(master, line, inbox);
            const Output output = flush(master, line);
            if (output.failed) {
                broken = true;
                break;
            }
            const int ready = net::waitPty(master, true, output.waitWritable, output.waitMs);
            if (ready < 0) {
                broken = true;
                break;
            }
            if ((ready & net::kWaitReadable) == 0 || control != Control::none) continue;
            const std::ptrdiff_t got = net::ptyRead(master, chunk.data(), chunk.size());
            if (got < 0 && net::isWouldBlock(net::lastSocketError())) continue;
            if (got <= 0) {  // the held slave rules out a hang-up: the pty is broken
                broken = true;
                break;
            }
            // Judged by the settings now: a host changes them only between its writes,
            // and the thread reads as soon as bytes arrive.
            if (!look(master, line, inbox)) {
                std::lock_guard lock(mutex);
                discarded += static_cast<std::size_t>(got);
                continue;
            }
            inbox.insert(inbox.end(), chunk.begin(), chunk.begin() + got);
            const Control ending = consume(inbox);
            if (ending != Control::none) {
                how = ending;
                break;
            }
        }
        if (how == Control::close && !broken) drain(master, line, inbox);
        closePtyConnection(master, how, broken);
    }

    // Whether the host's settings are the wanted ones. Input kept from before a
    // change of either was heard at other settings: it is dropped.
    bool look(net::PtyHandle master, Line& line, std::vector<std::uint8_t>& inbox) {
        net::PtyLineSettings now{};
        if (!net::ptyLineSettings(master, now)) now.baud = 0;  // matches nothing
        LineSettings want;
        std::uint64_t version;
        {
            std::lock_guard lock(mutex);
            want = wanted;
            version = wantedVersion;
        }
        const bool same = line.seen && version == line.version && line.seen->baud == now.baud &&
                          line.seen->parity == now.parity && line.seen->stopBits == now.stopBits;
        if (same) return line.matching;
        line.seen = now;
        line.version = version;
        line.matching = now.baud == want.baud && now.parity == want.parity && now.stopBits == want.stopBits;
        if (!inbox.empty()) {
            std::lock_guard lock(mutex);
            discarded += inbox.size();
            inbox.clear();
        }
        log("line at " + describe(now) + (line.matching ? ": answering" : ": deaf (answers at " + want.text() + ")"));
        return line.matching;
    }

    struct Output {
        bool waitWritable = false;
        int waitMs = kSliceMs;
        bool pending = false;
        bool failed = false;
    };

    // Writes from the outbox what the master takes now; says how to wait for more.
    Output flush(net::PtyHandle master, Line& line) {
        for (;;) {
            Piece* piece;
            {
                std::lock_guard lock(mutex);
                if (outbox.empty()) return {};
                if (!line.matching) {
                    // Sent at the wrong settings: nothing the host could read.
                    for (Piece& lost : outbox) settle(lost, 1);
                    outbox.clear();
                    changed.notify_all();
                    return {};
                }
                piece = &outbox.front();  // only this thread pops: the piece stays put
            }
            const bool trickled = piece->byteDelay.count() > 0;
            if (trickled) {
                const auto wait = std::chrono::ceil<milliseconds>(line.nextByte - Clock::now());
                if (wait.count() > 0) {
                    return {.waitMs = static_cast<int>(std::min<milliseconds::rep>(wait.count(), kSliceMs)),
                            .pending = true};
                }
            }
            const std::size_t length = trickled ? 1 : piece->bytes.size() - piece->done;
            const std::ptrdiff_t wrote = net::ptyWrite(master, piece->bytes.data() + piece->done, length);
            if (wrote < 0 && !net::isWouldBlock(net::lastSocketError())) return {.failed = true};
            if (wrote <= 0) return {.waitWritable = true, .pending = true};
            piece->done += static_cast<std::size_t>(wrote);
            if (trickled) line.nextByte = Clock::now() + piece->byteDelay;
            if (piece->done == piece->bytes.size()) {
                {
                    std::lock_guard lock(mutex);
                    settle(outbox.front(), 1);
                    outbox.pop_front();
                }
                changed.notify_all();
            }
        }
    }

    static void settle(Piece& piece, int outcome) {  // under mutex
        if (piece.outcome) *piece.outcome = outcome;
    }

    // Before an ordinary close: a hang-up throws away what the host has not read.
    void drain(net::PtyHandle master, Line& line, std::vector<std::uint8_t>& inbox) {
        const auto deadline = Clock::now() + kDrainPatience;
        while (!stopping && control != Control::reset && Clock::now() < deadline) {
            look(master, line, inbox);
            const Output output = flush(master, line);
            if (output.failed || (!output.pending && !net::ptyUnread(master))) return;
            if (output.pending) {
                net::waitPty(master, false, output.waitWritable, output.waitMs);
            } else {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
    }

    void closePtyConnection(net::PtyHandle master, Control how, bool broken) {
        {
            std::lock_guard lock(mutex);
            for (Piece& lost : outbox) settle(lost, -1);
            outbox.clear();
            net::closePty(master);
            pty = net::kInvalidPty;
            ptyThread = {};
            ptyPath.clear();
            connected = false;
            control = Control::none;
        }
        changed.notify_all();
        log(broken ? "pseudo-terminal failed"
                   : how == Control::reset ? "pseudo-terminal hung up at once" : "pseudo-terminal closed");
    }

    // --- Controls --------------------------------------------------------------
    void endConnection(Control how) {
        std::unique_lock sendLock(sendMutex);
        std::unique_lock lock(mutex);
        if (!connected) return;
        const std::uint64_t current = serial;
        control = how;
        // An ordinary close wakes the serving thread at once; a reset must not send a FIN first.
        if (how == Control::close && connection != net::kInvalidSocket) net::shutdownSocket(connection);
        sendLock.unlock();
        changed.notify_all();
        changed.wait_for(lock, kControlPatience, [&] { return !connected || serial != current; });
    }

    // A client's thread may still be on its way out once its connection has ended.
    bool busy() {
        std::lock_guard lock(mutex);
        return listener != net::kInvalidSocket || connected;
    }

    void reap() {
        if (worker.joinable()) worker.join();
    }

};

ReaderSim::ReaderSim() : impl_(std::make_unique<Impl>()) {}

ReaderSim::~ReaderSim() { stop(); }

bool ReaderSim::listen(std::uint16_t port, bool ipv6) {
    Impl& im = *impl_;
    if (im.busy()) return false;
    im.reap();
    net::SocketAddress address{};
    if (!net::parseNumericAddress(ipv6 ? "::1" : "127.0.0.1", port, address)) return false;
    const net::SocketHandle socket =
        net::openSocket(ipv6 ? net::AddressFamily::ipv6 : net::AddressFamily::ipv4, net::SocketKind::stream);
    if (socket == net::kInvalidSocket) return false;
    // A fixed port must be reusable at once when a previous run left connections behind.
    if (port != 0) net::setReuseAddress(socket, true);
    net::SocketAddress bound{};
    if (!net::bindSocket(socket, address) || !net::listenSocket(socket, 1024) ||
        !net::localAddress(socket, bound)) {
        net::closeSocket(socket);
        return false;
    }
    im.listener = socket;
    im.listenPort = static_cast<std::uint16_t>(net::addressPort(bound));
    im.log("listening on " + std::string(ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(im.listenPort));
    im.worker = std::thread([&im] { im.runServer(); });
    return true;
}

std::uint16_t ReaderSim::port() const { return impl_->listenPort; }

bool ReaderSim::connect(const std::string& host, std::uint16_t port, milliseconds timeout) {
    Impl& im = *impl_;
    if (im.busy()) return false;
    im.reap();
    std::string text = host == "localhost" ? "127.0.0.1" : host;
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
    net::SocketAddress address{};
    if (!net::parseNumericAddress(text.c_str(), port, address)) return false;
    const net::SocketHandle socket = net::openSocket(net::addressFamily(address), net::SocketKind::stream);
    if (socket == net::kInvalidSocket) return false;
    bool ok = net::setNonBlocking(socket, true);
    if (ok) {
        const int started = net::connectSocket(socket, address);
        if (started != 0) {
            int pending = -1;
            ok = net::isConnectInProgress(started) &&
                 (net::waitSocket(socket, false, true, static_cast<int>(timeout.count())) & net::kWaitWritable) != 0 &&
                 net::socketError(socket, pending) && pending == 0;
        }
    }
    if (!ok) {
        net::closeSocket(socket);
        return false;
    }
    im.log("connected to " + host + ":" + std::to_string(port));
    im.open(socket);
    im.worker = std::thread([&im, socket] { im.serve(socket); });
    return true;
}

bool ReaderSim::servePty(const LineSettings& answerAt) {
    Impl& im = *impl_;
    if (im.busy()) return false;
    im.reap();
    std::string path;
    const net::PtyHandle master = net::openPty(path);
    if (master == net::kInvalidPty) return false;
    {
        std::lock_guard lock(im.mutex);
        im.pty = master;
        im.ptyPath = path;
        im.wanted = answerAt;
        ++im.wantedVersion;
        im.markOpen();
    }
    im.changed.notify_all();
    im.log("serving " + path + ", answering at " + answerAt.text());
    im.worker = std::thread([&im, master] { im.servePtyLoop(master); });
    return true;
}

std::string ReaderSim::ptyPath() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->ptyPath;
}

void ReaderSim::setLineSettings(const LineSettings& answerAt) {
    std::lock_guard lock(impl_->mutex);
    impl_->wanted = answerAt;
    ++impl_->wantedVersion;
}

void ReaderSim::stop() {
    Impl& im = *impl_;
    {
        std::lock_guard lock(im.mutex);
        im.stopping = true;
    }
    im.changed.notify_all();
    im.reap();
    if (im.listener != net::kInvalidSocket) {
        net::closeSocket(im.listener);
        im.listener = net::kInvalidSocket;
        im.listenPort = 0;
    }
    im.stopping = false;
}

void ReaderSim::setReply(std::uint8_t command, Reply reply) {
    std::lock_guard lock(impl_->mutex);
    impl_->commandReplies[command] = std::move(reply);
}

void ReaderSim::setReply(std::vector<std::uint8_t> requestPayload, Reply reply) {
    std::lock_guard lock(impl_->mutex);
    impl_->payloadReplies[std::move(requestPayload)] = std::move(reply);
}

void ReaderSim::clearReplies() {
    std::lock_guard lock(impl_->mutex);
    impl_->commandReplies.clear();
    impl_->payloadReplies.clear();
}

void ReaderSim::setFault(const Fault& fault) {
    std::lock_guard lock(impl_->mutex);
    impl_->fault = fault.count == 0 ? Fault{} : fault;
}

std::optional<std::vector<std::uint8_t>> ReaderSim::sendRequest(std::vector<std::uint8_t> payload,
                                                                std::uint8_t directionFlags,
                                                                milliseconds timeout) {
    Frame request;
    request.flags = directionFlags;
    request.payload = std::move(payload);
    auto response = sendRequestFrame(request, timeout);
    if (!response) return std::nullopt;
    return std::move(response->payload);
}

std::optional<Frame> ReaderSim::sendRequestFrame(const Frame& request, milliseconds timeout) {
    Impl& im = *impl_;
    std::lock_guard one(im.requestMutex);
    const std::vector<std::uint8_t> bytes = encode(request);
    if (bytes.empty()) return std::nullopt;
    std::uint64_t current;
    {
        std::lock_guard lock(im.mutex);
        if (!im.connected) return std::nullopt;
        im.awaiting = request.generation;
        im.answer.reset();
        current = im.serial;
    }
    const bool sent = im.sendAll(bytes);
    std::unique_lock lock(im.mutex);
    if (sent) {
        im.changed.wait_for(lock, timeout, [&] {
            return im.answer || !im.connected || im.serial != current || im.stopping;
        });
    }
    std::optional<Frame> result = std::move(im.answer);
    im.answer.reset();
    im.awaiting.reset();
    return result;
}

bool ReaderSim::sendFrame(const Frame& frame) {
    const std::vector<std::uint8_t> bytes = encode(frame);
    return !bytes.empty() && impl_->sendAll(bytes);
}

bool ReaderSim::sendRaw(std::span<const std::uint8_t> bytes) { return impl_->sendAll(bytes); }

bool ReaderSim::isConnected() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->connected;
}

bool ReaderSim::waitForConnection(milliseconds timeout) {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->connected; });
}

bool ReaderSim::waitForConnections(std::size_t total, milliseconds timeout) {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->accepted >= total; });
}

bool ReaderSim::waitForDisconnect(milliseconds timeout) {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return !impl_->connected; });
}

void ReaderSim::closeConnection() { impl_->endConnection(Control::close); }
void ReaderSim::resetConnection() { impl_->endConnection(Control::reset); }

std::size_t ReaderSim::connectionsAccepted() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->accepted;
}

std::size_t ReaderSim::requestsSeen() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::size_t ReaderSim::framesReceived() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->frames;
}

std::size_t ReaderSim::badFrames() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->bad;
}

std::size_t ReaderSim::discardedBytes() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->discarded;
}

std::vector<ReceivedFrame> ReaderSim::received() const {
    std::lock_guard lock(impl_->mutex);
    return {impl_->record.begin(), impl_->record.end()};
}

bool ReaderSim::waitForFrames(std::size_t total, milliseconds timeout) {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->frames >= total; });
}

void ReaderSim::clearReceived() {
    std::lock_guard lock(impl_->mutex);
    impl_->record.clear();
}

void ReaderSim::setRecordLimit(std::size_t frames) {
    std::lock_guard lock(impl_->mutex);
    impl_->recordLimit = frames;
    while (impl_->record.size() > frames) impl_->record.pop_front();
}

void ReaderSim::setLog(std::function<void(const std::string&)> log, bool verbose) {
    std::lock_guard lock(impl_->logMutex);
    impl_->logSink = std::move(log);
    impl_->verbose = verbose;
}

}  // namespace tovra::readersim
