#pragma once

#include "platform/waker.h"
#include "plugins/ip_endpoint.h"
#include "plugins/tovra_plugin.h"
#include "protocol/worker_thread.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace tovra {

class TovraLogger;

// Lets a reader connect to the host over TCP: listens on a port and, on its own worker
// thread, accepts one connection at a time. Each accepted socket waits in the accept
// endpoint while the owner's accept handler runs; the handler takes it over through
// TovraPluginTcp::pliAccept. The owner's connection gate stays held while an accepted reader
// is connected, so further requests are refused until the owner releases it.
class TovraListenerTcp : public TovraListener {
public:
    explicit TovraListenerTcp(ConnectionRecord* owner);
    // Stops the worker, which closes the listen socket. An accepted socket belongs to the
    // plugin that took it over and is not closed here.
    ~TovraListenerTcp() override;

    // "tcp:ipaddress=...:port=...:backlog=...:keepalive=...:keepidle=...:keepcount=...:keepinterval=..."
    // 0, -5009 (null), -5008 (running, or no accept handler), -1501..-1504, -1511, -1512, -1515.
    std::int32_t start(const char* connector) override;
    // Wakes the worker, which ends at once, and joins it; does nothing when not started.
    void stop() override;
    bool onOwnThread() const override { return worker_.isCurrent(); }
    bool idle() const override { return !worker_.exists() || worker_.finished(); }

    // The socket and peer address of the connection being handed over.
    IpEndpoint* acceptedSocket() override { return &acceptEndpoint_; }

private:
    TovraLogger& logger() const;
    void setDefaults();
    void run();
    // One wait on the listen socket and, when a request is pending, its accept and hand-over.
    void serveOne();
    // With the gate taken: the owner's accept handler takes the connection or declines it.
    void handOver(const std::string& peer);
    // Waits a little before the next try after a failure; a stop ends the wait.
    void pause();
    void setKeepAliveOptions(platform::SocketHandle socket);
    void closeAcceptSocket();
    void closeListenSocket();

    IpEndpoint listenEndpoint_;
    IpEndpoint acceptEndpoint_;
    std::int32_t backlog_ = 5;
    std::int32_t keepIdle_ = 1;     // s
    std::int32_t keepCount_ = 5;
    std::int32_t keepInterval_ = 1; // s
    bool keepAlive_ = true;
    bool wsaStarted_ = false;
    // Set after a refusal: requests already queued behind it are refused without waiting
    // for the gate again, so a flood of them clears quickly.
    bool refusing_ = false;
    // Accepts fail (no descriptors left): said once, until one succeeds again.
    bool acceptFailing_ = false;
    // Owned by the worker while it runs; a stop wakes its wait through it.
    platform::SocketWaker waker_;
    WorkerThread worker_;
};

} // namespace tovra
