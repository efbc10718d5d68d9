#include "plugins/tovra_plugin_tcp.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "platform/clock.h"
#include "reader/connection_record.h"
#include "reader/connector.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>

namespace tovra {
namespace {

using logging::hex;

constexpr std::uint32_t kTrace = logcat::Tcp;
constexpr std::uint32_t kError = logcat::Error | logcat::Tcp;

// Every frame starts with three bytes that hold its length.
constexpr std::size_t kHeaderLength = 3;


// The length of the frame whose first `assembled` bytes are in `frame`: the header length
// until the header is complete, then the length the header declares.
std::size_t expectedLength(const ProtocolFrame& frame, std::size_t assembled)
{
    return assembled < kHeaderLength ? kHeaderLength : frame.declaredLength();
}

const char* messageOf(std::int32_t code)
{
    switch (code) {
    case tcperr::CannotCreateSocket: return "Cannot create TCP socket";
    case tcperr::InvalidAddress: return "Invalid IP address (no IPv4 or IPv6)";
    case tcperr::InvalidPort: return "Invalid port number";
    case tcperr::CannotResolve: return "Cannot resolve domain name";
    case tcperr::ConnectFailed: return "Connect failed";
    case tcperr::TransmitFailed: return "Transmit failed";
    case tcperr::ReceiveFailed: return "Receive failed";
    case tcperr::BufferOverflow: return "Protocol buffer overflow";
    default: return "---";
    }
}

} // namespace

TovraPluginTcp::TovraPluginTcp(ConnectionRecord* owner) : TovraPlugin(owner)
{
    kind_ = 3;
    endpoint_.reset();
    frame_.clear();
    const int started = platform::startNetwork();
    wsaStarted_ = started == 0;
    if (!wsaStarted_) TOVRA_LOG_ERROR(logger(), kError, "WSAStartup error ", started);
}

TovraPluginTcp::~TovraPluginTcp()
{
    try {
        if (endpoint_.valid()) closeSocket();
    } catch (...) {
        // Only logging can throw (out of memory); the socket is closed in any case.
        if (endpoint_.valid()) platform::closeSocket(endpoint_.socket());
    }
    if (wsaStarted_) platform::stopNetwork();
}

TovraLogger& TovraPluginTcp::logger() const { return owner_->logger(); }

std::int32_t TovraPluginTcp::newPortHandle()
{
    static std::mutex lock;
    static std::uint32_t counter = 0;
    std::lock_guard guard(lock);
    ++counter;
    return static_cast<std::int32_t>((counter & 0x0FFFFFFFu) | 0x20000000u);
}

const char* TovraPluginTcp::pliGetErrorText(std::int32_t code)
try {
    // Per thread: two threads asking at once must not share one text.
    thread_local std::string text;
    text = "TOVRA.TCP error " + std::to_string(code) + ": " + messageOf(code);
    return text.c_str();
} catch (...) {
    return "TOVRA.TCP error";
}

const char* TovraPluginTcp::pliGetVersion() { return ""; }

std::int32_t TovraPluginTcp::pliConnect(const char* connector)
try {
    lastError_ = 0;
    TOVRA_LOG_TRACE(logger(), kTrace, "Connect ", connector != nullptr ? connector : "");
    // A plugin serves one connection: a second connect replaces the first.
    if (endpoint_.valid()) closeSocket();

    const ConnectorKeys keys(connector);
    const std::string address = keys.text("ipaddress");
    const std::int32_t port = keys.number("port", 10001);
    const std::int32_t connectTimeout = keys.number("connecttimeout", -1);
    if (address.empty()) {
        TOVRA_LOG_ERROR(logger(), kError, "Connection parameter error: no ipaddress");
        return fail(err::ConnectionParameter);
    }

    int opened = endpoint_.openNumeric(address.c_str(), port);
    if (opened == IpEndpoint::kBadAddress) {
        TOVRA_LOG_TRACE(logger(), kTrace, "No IPv4 or IPv6 ==> resolve hostname");
        opened = endpoint_.openResolved(address.c_str(), port);
        if (opened == IpEndpoint::kNotResolved) {
            TOVRA_LOG_ERROR(logger(), kError, "Resolve hostname failed: ", natError());
            endpoint_.reset();
            return fail(tcperr::CannotResolve);
        }
    }
    if (opened == IpEndpoint::kNoSocket) {
        TOVRA_LOG_ERROR(logger(), kError, "New socket failed: ", natError());
        return fail(tcperr::CannotCreateSocket);
    }
    if (opened < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Invalid port number: ", port);
        return fail(-1500 + opened); // -3 to -1503, as -1 to -1501
    }

    const platform::SocketHandle s = endpoint_.socket();
    const std::string peer = endpoint_.addressText() + ":" + std::to_string(endpoint_.port());
    bool connected;
    if (connectTimeout < 1) {
        TOVRA_LOG_TRACE(logger(), kTrace, "TCP socket=", s, " blocking connect to ", peer, " ...");
        connected = blockingConnect();
    } else {
        TOVRA_LOG_TRACE(logger(), kTrace, "TCP socket=", s, " non-blocking connect to ", peer,
                        " (tout=", connectTimeout, " ms) ...");
        connected = nonblockingConnect(connectTimeout);
    }
    if (!connected) {
        lastError_ = tcperr::ConnectFailed;
        closeSocket();
        return tcperr::ConnectFailed;
    }

    // Closing resets the connection at once instead of lingering.
    if (!platform::setLinger(s, true, 0)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set SO_LINGER failed: ", natError());
        return fail(tcperr::SocketOptionFailed); // the socket stays open
    }
    // Each frame goes out in one send: nothing to gain from waiting for more.
    if (!platform::setNoDelay(s, true)) TOVRA_LOG_ERROR(logger(), kError, "Set TCP_NODELAY failed: ", natError());

    const std::int32_t handle = newPortHandle();
    TOVRA_LOG_TRACE(logger(), kTrace, "TCP socket=", s, " connected to ", peer, " PH=0x", hex(handle));
    return handle;
} catch (...) {
    return fail(tcperr::ConnectFailed);
}

bool TovraPluginTcp::blockingConnect()
{
    const platform::SocketHandle s = endpoint_.socket();
    const int error = platform::connectSocket(s, endpoint_.address());
    if (error != 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Blocking connect failed: ", natError(error));
        return false;
    }
    return waitingReceive();
}

bool TovraPluginTcp::waitingReceive()
{
    if (platform::setWaitingReceive(endpoint_.socket())) return true;
    TOVRA_LOG_ERROR(logger(), kError, "Set socket nonblocking failed: ", natError());
    return false;
}

bool TovraPluginTcp::nonblockingConnect(std::int32_t timeoutMs)
{
    const platform::SocketHandle s = endpoint_.socket();
    if (!platform::setNonBlocking(s, true)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set socket nonblocking failed: ", natError());
        return false;
    }
    const int error = platform::connectSocket(s, endpoint_.address());
    if (error == 0) return waitingReceive();
    if (!platform::isConnectInProgress(error)) {
        TOVRA_LOG_ERROR(logger(), kError, "Non blocking connect failed: ", natError(error));
        return false;
    }
    const int ready = platform::waitSocket(s, true, true, timeoutMs);
    if (ready < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Select failed: ", natError());
        return false;
    }
    if (ready == 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Connect timed out");
        return false;
    }
    if ((ready & (platform::kWaitReadable | platform::kWaitWritable)) == 0) {
        TOVRA_LOG_ERROR(logger(), kError, "FD_ISSET failed: Should never happen");
        return false;
    }
    int pending = 0;
    if (!platform::socketError(s, pending)) {
        TOVRA_LOG_ERROR(logger(), kError, "Cannot get SO_ERROR socket option");
        return false;
    }
    if (pending != 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Connect with SO_ERROR=", pending);
        return false;
    }
    return waitingReceive();
}

std::int32_t TovraPluginTcp::pliAccept(TovraListener* listener)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Accept");
    IpEndpoint* accepted = listener != nullptr ? listener->acceptedSocket() : nullptr;
    if (accepted == nullptr) {
        TOVRA_LOG_ERROR(logger(), kError, "Dynamic_cast error on accept");
        return fail(tcperr::AcceptFailed);
    }
    if (endpoint_.valid()) closeSocket();
    endpoint_.moveFrom(*accepted);

    const platform::SocketHandle s = endpoint_.socket();
    if (!waitingReceive()) return fail(tcperr::AcceptFailed);
    if (!platform::setNoDelay(s, true)) TOVRA_LOG_ERROR(logger(), kError, "Set TCP_NODELAY failed: ", natError());

    const std::int32_t handle = newPortHandle();
    TOVRA_LOG_TRACE(logger(), kTrace, "TCP socket=", s, " accepted from ", endpoint_.addressText(), ":",
                    endpoint_.port(), " PH=0x", hex(handle));
    return handle;
} catch (...) {
    return fail(tcperr::AcceptFailed);
}

std::int32_t TovraPluginTcp::pliDisconnect(std::int32_t portHandle)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Disconnect PH=0x", hex(portHandle));
    if (!endpoint_.valid()) {
        TOVRA_LOG_ERROR(logger(), kError, "Disconnect failed: no socket PH=0x", hex(portHandle));
        return fail(err::DisconnectFailed);
    }
    closeSocket();
    TOVRA_LOG_TRACE(logger(), kTrace, "TCP disconnected");
    return err::Ok;
} catch (...) {
    return fail(err::DisconnectFailed);
}

void TovraPluginTcp::pliAbortReceive()
{
    // Shutting both directions down wakes the wait at once with an end of stream; the
    // socket itself stays open until pliDisconnect closes it.
    std::lock_guard guard(closeLock_);
    if (endpoint_.valid()) platform::shutdownSocket(endpoint_.socket());
    if (watch_.isOpen()) watch_.wake();
}

bool TovraPluginTcp::quiet() const { return !logger().isEnabled(kTrace); }

bool TovraPluginTcp::canWaitReadable() const
{
    std::lock_guard guard(closeLock_);
    return endpoint_.valid() && quiet();
}

int TovraPluginTcp::watchReadable()
{
    {
        std::lock_guard guard(closeLock_);
        if (!endpoint_.valid() || !quiet()) return kNoReadiness;
        if (!watch_.isOpen() && !watch_.open(endpoint_.socket())) return kNoReadiness;
    }
    // Closed only once its receiver has ended: no lock needed while it sleeps.
    const int ready = watch_.wait();
    if (ready < 0) return kNoReadiness;
    return (ready & platform::kWaitReadable) != 0 ? kReadable : kNotReadable;
}

bool TovraPluginTcp::pauseWatch()
{
    std::lock_guard guard(closeLock_);
    if (!endpoint_.valid() || !quiet()) return false;
    if (watch_.isOpen()) watch_.pause();
    return true;
}

void TovraPluginTcp::resumeWatch()
{
    std::lock_guard guard(closeLock_);
    if (!watch_.isOpen()) return;
    watch_.resume();
    if (stashed_ > 0) watch_.wake();
}

void TovraPluginTcp::wakeWatch()
{
    std::lock_guard guard(closeLock_);
    if (watch_.isOpen()) watch_.wake();
}

void TovraPluginTcp::sendRest(const std::uint8_t* data, std::size_t length)
{
    // Half a frame must never stay on a connection that goes on: the rest goes out as room
    // comes free, or the connection ends.
    const platform::SocketHandle s = endpoint_.socket();
    const std::int64_t deadline = platform::monotonicMicros() + std::int64_t{kSendRestMs} * 1000;
    while (length > 0) {
        const std::int64_t left = deadline - platform::monotonicMicros();
        if (left <= 0 || platform::waitSocket(s, false, true, static_cast<int>((left + 999) / 1000)) <= 0) break;
        const std::ptrdiff_t sent = platform::sendNow(s, data, length);
        if (sent < 0 && !platform::isWouldBlock(platform::lastSocketError())) break;
        if (sent > 0) {
            data += sent;
            length -= static_cast<std::size_t>(sent);
        }
    }
    if (length == 0) {
        TOVRA_LOG_TRACE(logger(), kTrace, "... rest of the frame sent");
        return;
    }
    TOVRA_LOG_ERROR(logger(), kError, "Rest of the frame not sent: connection ended");
    platform::shutdownSocket(s);
}

int TovraPluginTcp::closeSocket()
{
    const platform::SocketHandle s = endpoint_.socket();
    TOVRA_LOG_TRACE(logger(), kTrace, "Shutdown and close socket=", s);
    if (!platform::setNonBlocking(s, false))
        TOVRA_LOG_ERROR(logger(), kError, "Set socket blocking failed: ", natError());
    if (!platform::shutdownSocket(s)) TOVRA_LOG_ERROR(logger(), kError, "Shutdown failed: ", natError());
    std::lock_guard guard(closeLock_);
    watch_.close();
    const int result = platform::closeSocket(s);
    endpoint_.reset();
    stashed_ = 0;
    waitSet_ = -1;
    return result;
}

std::int32_t TovraPluginTcp::pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Sending ", length, " bytes PH=0x", hex(portHandle), " ...");
    const std::ptrdiff_t sent = platform::sendNow(endpoint_.socket(), data, length);
    if (sent >= 0 && static_cast<std::size_t>(sent) == length) {
        TOVRA_LOG_TRACE(logger(), kTrace, "... done");
        return err::Ok;
    }
    if (sent >= 0) {
        // A short write stores no code of its own: the caller gets the last error as it stands.
        TOVRA_LOG_ERROR(logger(), kError, "Transmit failed: Not all bytes send");
        sendRest(data + sent, length - static_cast<std::size_t>(sent));
        return lastError_;
    }
    const int error = platform::lastSocketError();
    if (platform::isConnectionReset(error)) {
        TOVRA_LOG_ERROR(logger(), kError, "Transmit failed: Disconnect by peer");
        return fail(err::DisconnectedByPeer);
    }
    TOVRA_LOG_ERROR(logger(), kError, "Transmit failed: ", natError(error));
    return fail(tcperr::TransmitFailed);
} catch (...) {
    return fail(tcperr::TransmitFailed);
}

std::int32_t TovraPluginTcp::pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize)
{
    return receiveWithin(portHandle, buffer, bufferSize, receiveTimeout_);
}

std::int32_t TovraPluginTcp::receiveWithin(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize,
                                           int waitMs)
try {
    if (buffer == nullptr) bufferSize = 0;
    if (quiet()) return receiveQuietly(buffer, bufferSize, waitMs);
    TOVRA_LOG_TRACE(logger(), kTrace, "Start receive PH=0x", hex(portHandle));
    const platform::SocketHandle s = endpoint_.socket();
    std::size_t stashed = unstash();
    std::size_t count = 0;
    std::size_t expected = kHeaderLength;
    std::int64_t now = platform::monotonicMicros();
    std::int64_t deadline = now + std::int64_t{std::min(waitMs, receiveTimeout_)} * 1000;
    // Bytes that the last FIONREAD reported and that are still unread: reading them needs
    // no wait and no second query.
    long unread = 0;

    for (;;) {
        if (stashed > 0) {
            // Read ahead by a receive while the records were off: the socket gave them already.
            if (const std::int32_t result = assembleBuffered(stashed, count, expected, deadline, buffer, bufferSize);
                result != -1)
                return result;
            continue;
        }
        if (now >= deadline) return err::ReceivePending;
        long available = unread;
        if (available <= 0) {
            if (const std::int32_t waited = waitForData(s, deadline - now); waited != err::Ok) return waited;
            available = platform::availableBytes(s);
            if (available < 0) {
                TOVRA_LOG_ERROR(logger(), kError, "Receive failed: ", natError());
                return fail(tcperr::ReceiveFailed);
            }
            if (available == 0) {
                TOVRA_LOG_ERROR(logger(), kError, "Zero bytes available: Disconnect by peer");
                return fail(err::DisconnectedByPeer);
            }
            TOVRA_LOG_TRACE(logger(), kTrace, available, " bytes available");
        }

        // Never more than the current frame still needs: the next frame stays in the socket.
        const auto ready = static_cast<std::size_t>(available);
        const std::size_t toRead = count + ready > expected ? expected - count : ready;
        const std::ptrdiff_t got = platform::recvBytes(s, frame_.bytes.data() + count, toRead);
        if (got < 0) {
            const int error = platform::lastSocketError();
            if (platform::isConnectionReset(error)) {
                TOVRA_LOG_ERROR(logger(), kError, "Receive failed: Disconnect by peer");
                return fail(err::DisconnectedByPeer);
            }
            TOVRA_LOG_ERROR(logger(), kError, "Receive failed: ", natError(error));
            return fail(tcperr::ReceiveFailed);
        }
        if (got == 0) {
            TOVRA_LOG_ERROR(logger(), kError, "Receive failed: Disconnect by peer");
            return fail(err::DisconnectedByPeer);
        }
        const auto read = static_cast<std::size_t>(got);
        unread = available - static_cast<long>(read);
        TOVRA_LOG_TRACE(logger(), kTrace, "Read ", read, " bytes");
        now = platform::monotonicMicros();
        if (const std::int32_t result = assembled(read, count, expected, deadline, buffer, bufferSize); result != -1)
            return result;
    }
} catch (...) {
    return fail(tcperr::ReceiveFailed);
}

std::int32_t TovraPluginTcp::waitForData(platform::SocketHandle s, std::int64_t leftMicros)
{
    const int ready = platform::waitSocket(s, true, false, static_cast<int>((leftMicros + 999) / 1000));
    if (ready < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Select failed: ", natError());
        return fail(tcperr::ReceiveFailed);
    }
    if (ready == 0) return err::ReceivePending;
    if ((ready & platform::kWaitReadable) == 0) {
        TOVRA_LOG_ERROR(logger(), kError, "FD_ISSET failed: Should never happen");
        return fail(tcperr::ReceiveFailed);
    }
    return err::Ok;
}

std::int32_t TovraPluginTcp::assembled(std::size_t read, std::size_t& count, std::size_t& expected,
                                       std::int64_t& deadline, std::uint8_t* buffer, std::size_t bufferSize)
{
    if (expected == kHeaderLength) {
        // Recomputed after every read until the header is complete; each such read gives
        // the frame a fresh time-out.
        expected = expectedLength(frame_, count + read);
        TOVRA_LOG_TRACE(logger(), kTrace, "Expected protocol length: ", expected, " bytes");
        // A declared length below the header length still hands out the whole header.
        if (std::max(expected, count + read) > std::min(bufferSize, ProtocolFrame::maxLength)) {
            TOVRA_LOG_ERROR(logger(), kError, "Buffer overflow: protocol too long");
            return fail(tcperr::BufferOverflow);
        }
        deadline = platform::monotonicMicros() + std::int64_t{receiveTimeout_} * 1000;
    }
    count += read;
    // A declared length of 0, 1 or 2 is already passed by the header: the three bytes go out
    // as the frame, which the frame check then rejects, and the stream stays in step.
    if (count < expected) return -1;
    std::memcpy(buffer, frame_.bytes.data(), count);
    frame_.length = count;
    return static_cast<std::int32_t>(count);
}

std::int32_t TovraPluginTcp::receiveQuietly(std::uint8_t* buffer, std::size_t bufferSize, int waitMs)
{
    std::size_t have = unstash();
    std::size_t count = 0;
    std::size_t expected = kHeaderLength;
    std::int64_t deadline = platform::monotonicMicros() + std::int64_t{std::min(waitMs, receiveTimeout_)} * 1000;
    for (;;) {
        if (have == 0) {
            const std::int32_t got = readAhead(count, deadline);
            if (got < 0) return got;
            have = static_cast<std::size_t>(got);
        }
        if (const std::int32_t result = assembleBuffered(have, count, expected, deadline, buffer, bufferSize);
            result != -1)
            return result;
    }
}

std::int32_t TovraPluginTcp::assembleBuffered(std::size_t& have, std::size_t& count, std::size_t& expected,
                                              std::int64_t& deadline, std::uint8_t* buffer, std::size_t bufferSize)
{
    const std::size_t take = std::min(have, expected - count);
    have -= take;
    TOVRA_LOG_TRACE(logger(), kTrace, "Read ", take, " bytes");
    const std::size_t end = count + take;
    const std::int32_t result = assembled(take, count, expected, deadline, buffer, bufferSize);
    if (result != -1) stash(end, have);
    return result;
}

std::int32_t TovraPluginTcp::readAhead(std::size_t count, std::int64_t deadline)
{
    const platform::SocketHandle s = endpoint_.socket();
    for (;;) {
        const std::int64_t left = deadline - platform::monotonicMicros();
        if (left <= 0) return err::ReceivePending;
        const std::ptrdiff_t got = platform::recvWithin(s, frame_.bytes.data() + count, ProtocolFrame::maxLength - count,
                                                        static_cast<int>((left + 999) / 1000), waitSet_);
        if (got > 0) return static_cast<std::int32_t>(got);
        const int error = got < 0 ? platform::lastSocketError() : 0;
        if (got < 0 && platform::isWouldBlock(error)) continue;
        // The count query, which follows a wait for every byte it has not reported, would
        // have found nothing to read.
        if (got == 0 || platform::isConnectionReset(error)) {
            TOVRA_LOG_ERROR(logger(), kError, "Zero bytes available: Disconnect by peer");
            return fail(err::DisconnectedByPeer);
        }
        TOVRA_LOG_ERROR(logger(), kError, "Receive failed: ", natError(error));
        return fail(tcperr::ReceiveFailed);
    }
}

std::size_t TovraPluginTcp::unstash()
{
    frame_.length = 0;
    if (stashed_ > 0 && stashAt_ > 0) std::memmove(frame_.bytes.data(), frame_.bytes.data() + stashAt_, stashed_);
    return std::exchange(stashed_, 0);
}

void TovraPluginTcp::stash(std::size_t at, std::size_t count)
{
    stashAt_ = at;
    stashed_ = count;
}

bool TovraPluginTcp::hasBufferedInput() const { return stashed_ > 0; }

std::int32_t TovraPluginTcp::pliPutParam(std::int32_t portHandle, const char* key, const char*)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Put parameter ", key != nullptr ? key : "", " PH=0x", hex(portHandle));
    TOVRA_LOG_ERROR(logger(), kError, "Plugin function is not implemented");
    return fail(err::NotImplemented);
} catch (...) {
    return fail(err::NotImplemented);
}

std::int32_t TovraPluginTcp::pliGetParam(std::int32_t portHandle, const char* key, std::string&)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Get parameter ", key != nullptr ? key : "", " PH=0x", hex(portHandle));
    TOVRA_LOG_ERROR(logger(), kError, "Plugin function is not implemented");
    return fail(err::NotImplemented);
} catch (...) {
    return fail(err::NotImplemented);
}

} // namespace tovra
