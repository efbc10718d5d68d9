#include "plugins/tovra_listener_tcp.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "plugins/tovra_plugin_tcp.h"
#include "reader/connection_record.h"
#include "reader/connector.h"

#include <algorithm>
#include <chrono>
#include <string>

namespace tovra {
namespace {

using logging::hex;

constexpr std::uint32_t kTrace = logcat::Tcp;
constexpr std::uint32_t kError = logcat::Error | logcat::Tcp;

// How long one wait on the listen socket lasts when no waker could be made to end it.
constexpr int kWaitMs = 300;
constexpr auto kGateWait = std::chrono::milliseconds(100);
constexpr auto kRetryPause = std::chrono::milliseconds(100);


// Releases the gate when the hand-over ends, unless the owner kept the connection.
class GateHold {
public:
    explicit GateHold(ConnectionGate& gate) : gate_(gate) {}
    ~GateHold()
    {
        if (!kept_) gate_.release();
    }
    GateHold(const GateHold&) = delete;
    GateHold& operator=(const GateHold&) = delete;
    void keep() { kept_ = true; }

private:
    ConnectionGate& gate_;
    bool kept_ = false;
};

} // namespace

TovraListenerTcp::TovraListenerTcp(ConnectionRecord* owner) : TovraListener(owner)
{
    kind_ = 3;
    listenEndpoint_.reset();
    acceptEndpoint_.reset();
    setDefaults();
    const int started = platform::startNetwork();
    wsaStarted_ = started == 0;
    if (!wsaStarted_) {
        try {
            TOVRA_LOG_ERROR(logger(), kError, "WSAStartup error ", started);
        } catch (...) {
        }
    }
}

TovraListenerTcp::~TovraListenerTcp()
{
    stop();
    if (wsaStarted_) platform::stopNetwork();
}

TovraLogger& TovraListenerTcp::logger() const { return owner_->logger(); }

void TovraListenerTcp::setDefaults()
{
    backlog_ = 5;
    keepIdle_ = 1;
    keepCount_ = 5;
    keepInterval_ = 1;
    keepAlive_ = true;
}

std::int32_t TovraListenerTcp::start(const char* connector)
try {
    TOVRA_LOG_TRACE(logger(), kTrace, "Start ", connector != nullptr ? connector : "");
    if (connector == nullptr) {
        TOVRA_LOG_ERROR(logger(), kError, "Listener parameter error: no connector");
        return err::ListenerParameter;
    }
    if (worker_.exists() || !owner_->acceptedEntry) {
        TOVRA_LOG_ERROR(logger(), kError, worker_.exists() ? "Listener already running" : "No accept handler");
        return err::ListenerRunning;
    }

    // Keys left out never inherit the values of an earlier start.
    setDefaults();
    const ConnectorKeys keys(connector);
    std::string address = keys.text("ipaddress");
    if (address.empty()) address = "0.0.0.0";
    const std::int32_t port = keys.number("port", -1);
    if (keys.has("backlog")) backlog_ = std::max(keys.number("backlog", 5), 1);
    if (keys.has("keepalive")) keepAlive_ = keys.number("keepalive", 1) >= 1;
    keepIdle_ = keys.number("keepidle", keepIdle_);
    keepCount_ = keys.number("keepcount", keepCount_);
    keepInterval_ = keys.number("keepinterval", keepInterval_);

    // Numeric addresses only: a listener has no host name to resolve.
    const int opened = listenEndpoint_.openNumeric(address.c_str(), port);
    if (opened < 0) {
        if (opened == IpEndpoint::kNoSocket) TOVRA_LOG_ERROR(logger(), kError, "New socket failed: ", natError());
        else if (opened == IpEndpoint::kBadAddress) TOVRA_LOG_ERROR(logger(), kError, "Invalid IP address: ", address);
        else TOVRA_LOG_ERROR(logger(), kError, "Invalid port number: ", port);
        listenEndpoint_.reset();
        return -1500 + opened; // -1 to -1501, -2 to -1502, -3 to -1503
    }

    const platform::SocketHandle s = listenEndpoint_.socket();
    if (!platform::setReuseAddress(s, true)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set SO_REUSEADDR failed: ", natError());
        closeListenSocket();
        return tcperr::SocketOptionFailed;
    }
    if (!platform::bindSocket(s, listenEndpoint_.address())) {
        TOVRA_LOG_ERROR(logger(), kError, "Bind failed: ", natError());
        closeListenSocket();
        return tcperr::BindFailed;
    }
    if (!platform::listenSocket(s, backlog_)) {
        TOVRA_LOG_ERROR(logger(), kError, "Listen failed: ", natError());
        closeListenSocket();
        return tcperr::ListenFailed;
    }
    // An accept must never block the worker, even when a request vanished after the wait.
    if (!platform::setNonBlocking(s, true))
        TOVRA_LOG_ERROR(logger(), kError, "Set socket nonblocking failed: ", natError());

    TOVRA_LOG_TRACE(logger(), kTrace, "Listen socket=", s, " ", address, ":", port, " Backlog=", backlog_);
    // Without it a stop still ends the worker, only after its current wait.
    if (!waker_.open()) TOVRA_LOG_ERROR(logger(), kError, "Wake-up socket failed: ", natError());
    refusing_ = false;
    acceptFailing_ = false;
    try {
        worker_.start(owner_->reader(), [this] { run(); });
    } catch (...) {
        TOVRA_LOG_ERROR(logger(), kError, "Listener thread not started");
        waker_.close();
        closeListenSocket();
        return tcperr::ListenFailed;
    }
    return err::Ok;
} catch (...) {
    if (!worker_.exists() && listenEndpoint_.valid()) {
        platform::closeSocket(listenEndpoint_.socket());
        listenEndpoint_.reset();
    }
    return tcperr::ListenFailed;
}

void TovraListenerTcp::stop()
{
    if (!worker_.exists()) return;
    worker_.requestStop();
    waker_.wake();
    // The worker cannot join itself: it ends on its own after the current request, and a
    // later stop joins it.
    if (worker_.isCurrent()) return;
    try {
        TOVRA_LOG_TRACE(logger(), kTrace, "Stop listener thread ...");
    } catch (...) {
    }
    worker_.join();
}

void TovraListenerTcp::run()
{
    try {
        TOVRA_LOG_TRACE(logger(), kTrace, "TCP listener thread started");
    } catch (...) {
    }
    while (!worker_.stopRequested()) {
        try {
            serveOne();
        } catch (...) {
            // Only logging can throw (out of memory): the request in hand is dropped.
            if (acceptEndpoint_.valid()) {
                platform::closeSocket(acceptEndpoint_.socket());
                acceptEndpoint_.reset();
            }
        }
    }
    waker_.close();
    try {
        closeListenSocket();
        TOVRA_LOG_TRACE(logger(), kTrace, "TCP listener thread stopped");
    } catch (...) {
        if (listenEndpoint_.valid()) platform::closeSocket(listenEndpoint_.socket());
        listenEndpoint_.reset();
    }
}

void TovraListenerTcp::serveOne()
{
    const platform::SocketHandle listenSocket = listenEndpoint_.socket();
    // Right after a refusal only a request that is already queued is taken at once. With a
    // waker, a stop ends the wait: an idle listener sleeps until a reader comes.
    const bool wakeable = waker_.socket() != platform::kInvalidSocket;
    const int timeout = refusing_ ? 0 : wakeable ? -1 : kWaitMs;
    const int ready = wakeable ? platform::waitReadableOrWoken(listenSocket, waker_.socket(), timeout)
                               : platform::waitSocket(listenSocket, true, false, timeout);
    if (ready > 0 && (ready & platform::kWaitWoken) != 0) {
        waker_.drain();
        if ((ready & platform::kWaitReadable) == 0) return;
    }
    if (ready < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Select failed: ", natError());
        refusing_ = false;
        pause();
        return;
    }
    if (ready == 0) {
        refusing_ = false;
        return;
    }
    if ((ready & platform::kWaitReadable) == 0) {
        TOVRA_LOG_ERROR(logger(), kError, "FD_ISSET failed: Should never happen");
        return;
    }
    if (worker_.stopRequested()) return;

    if (!acceptEndpoint_.acceptFrom(listenSocket)) {
        // Out of descriptors, the request stays pending and the listen socket readable:
        // without a pause the worker would spin, and the log fill with the same line.
        if (!acceptFailing_) TOVRA_LOG_ERROR(logger(), kError, "Accept failed: ", natError(), "; retrying");
        acceptFailing_ = true;
        pause();
        return;
    }
    if (acceptFailing_) TOVRA_LOG_TRACE(logger(), kTrace, "Accept works again");
    acceptFailing_ = false;
    const std::string peer =
        "TCP:PeerAddress=" + acceptEndpoint_.addressText() + ":PeerPort=" + std::to_string(acceptEndpoint_.port());
    TOVRA_LOG_TRACE(logger(), kTrace, "Accept socket=", acceptEndpoint_.socket(), " connection request from ", peer);

    // The gate is held while a reader is connected. A short wait lets one that is just
    // leaving make room; requests queued behind a refusal get no wait of their own.
    ConnectionGate& gate = owner_->connectionGate();
    if (!gate.tryAcquireFor(refusing_ ? std::chrono::milliseconds(0) : kGateWait)) {
        TOVRA_LOG_TRACE(logger(), kTrace, "Connection request refused PH=0x", hex(owner_->portHandle()));
        closeAcceptSocket();
        refusing_ = true;
        return;
    }
    refusing_ = false;
    handOver(peer);
}

void TovraListenerTcp::pause()
{
    if (waker_.socket() == platform::kInvalidSocket) {
        std::this_thread::sleep_for(kRetryPause);
        return;
    }
    // A stop ends the pause at once.
    if (platform::waitSocket(waker_.socket(), true, false, static_cast<int>(kRetryPause.count())) > 0) waker_.drain();
}

void TovraListenerTcp::handOver(const std::string& peer)
{
    GateHold hold(owner_->connectionGate());
    TOVRA_LOG_TRACE(logger(), kTrace, "Connection request accepted");
    if (keepAlive_) setKeepAliveOptions(acceptEndpoint_.socket());
    owner_->setConnectionText(peer);

    // The handler takes the socket over (pliAccept) or declines; no lock of this listener is
    // held while it runs.
    std::int32_t result = tcperr::AcceptFailed;
    try {
        if (owner_->acceptedEntry) result = owner_->acceptedEntry(*owner_);
    } catch (...) {
        result = tcperr::AcceptFailed;
    }

    if (result < 0) {
        TOVRA_LOG_TRACE(logger(), kTrace, "Connection request canceled");
        if (acceptEndpoint_.valid()) closeAcceptSocket();
        return; // the gate is released
    }
    // The owner keeps the connection and releases the gate when it ends.
    hold.keep();
    // A socket the handler left behind would be overwritten by the next accept.
    if (acceptEndpoint_.valid()) {
        TOVRA_LOG_ERROR(logger(), kError, "Accepted socket not taken over");
        closeAcceptSocket();
    }
}

void TovraListenerTcp::setKeepAliveOptions(platform::SocketHandle socket)
{
    // Each option only after the previous one took; a failure leaves the connection as it is.
    if (!platform::setKeepAlive(socket, true)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set SO_KEEPALIVE failed: ", natError());
        return;
    }
    if (!platform::setKeepIdle(socket, keepIdle_)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set TCP_KEEPIDLE failed: ", natError());
        return;
    }
    if (!platform::setKeepCount(socket, keepCount_)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set TCP_KEEPCNT failed: ", natError());
        return;
    }
    if (!platform::setKeepInterval(socket, keepInterval_)) {
        TOVRA_LOG_ERROR(logger(), kError, "Set TCP_KEEPINTVL failed: ", natError());
        return;
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Set keep alive done: socket=", socket, " idle=", keepIdle_, " cnt=",
                    keepCount_, " intvl=", keepInterval_);
}

void TovraListenerTcp::closeAcceptSocket()
{
    const platform::SocketHandle s = acceptEndpoint_.socket();
    TOVRA_LOG_TRACE(logger(), kTrace, "shutdown and close accept socket=", s);
    if (!platform::setNonBlocking(s, false))
        TOVRA_LOG_ERROR(logger(), kError, "Set socket blocking failed: ", natError());
    if (!platform::shutdownSocket(s)) TOVRA_LOG_ERROR(logger(), kError, "Shutdown failed: ", natError());
    platform::closeSocket(s);
    acceptEndpoint_.reset();
}

void TovraListenerTcp::closeListenSocket()
{
    const platform::SocketHandle s = listenEndpoint_.socket();
    TOVRA_LOG_TRACE(logger(), kTrace, "Close listen socket=", s);
    platform::closeSocket(s);
    listenEndpoint_.reset();
}

} // namespace tovra
