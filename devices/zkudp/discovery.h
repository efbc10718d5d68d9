// One running discovery: its socket, its thread, the readers it has seen and the set-ups
// waiting for their acknowledgement.
//
// The thread owns the socket's receiving side: it sends each round's Discover, reads
// every answer, reports readers to the handler, and hands SetupAck answers to the set-up
// waiting for them. Set-ups run on the application's threads and only send.
#pragma once

#include "messages.h"
#include "requests.h"
#include "udp_socket.h"

#include "tovra/device/zkudp.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace zkudp {

class Discovery {
public:
    // Opens the socket and starts the thread. kOk and the discovery, or an error.
    static std::int32_t start(const Target& target, std::chrono::milliseconds interval, void* context,
                              ZKUDP_Handler handler, std::shared_ptr<Discovery>& discovery);
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // Ends the thread and joins it: the handler is not called after this returns. A
    // set-up still waiting returns kStoppedDuringSetup. Never call it on the thread itself.
    void stop();

    // Sends the set-up and waits for the reader's Result; or an error.
    std::int32_t setup(const SetupFields& fields, std::uint8_t flags);

    // True on the thread of a discovery, where the handler runs.
    static bool onDiscoveryThread();

private:
    struct Known {
        std::string scanInfo;  // as last reported
        std::uint64_t lastRound = 0;
        Endpoint from;         // where its last answer came from
    };
    struct PendingSetup {
        std::uint32_t seq = 0;
        std::string macKey;
        std::optional<std::int32_t> result;
    };

    Discovery(const Target& target, std::chrono::milliseconds interval, void* context, ZKUDP_Handler handler);

    void run();
    void runRound(std::vector<char>& buffer);
    void receiveUntil(std::chrono::steady_clock::time_point deadline, std::vector<char>& buffer);
    void handleDatagram(std::string_view text, const Endpoint& from);
    void onAnnounce(const Announce& announce, const Endpoint& from);
    void onSetupAck(const Message& message);
    void reportGone();
    void report(std::int32_t event, const std::string& scanInfo);
    std::vector<Endpoint> destinations() const;
    bool sendSetup(const std::string& datagram, const std::string& macKey);

    const Target target_;
    const std::chrono::milliseconds interval_;
    void* const context_;
    const ZKUDP_Handler handler_;
    std::unique_ptr<UdpSocket> socket_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    // The discovery thread's own.
    std::uint64_t round_ = 0;
    std::uint32_t roundSeq_ = 0;

    std::mutex mutex_; // readers_, pending_; stopping_ is set under it too
    std::condition_variable acknowledged_;
    std::map<std::string, Known> readers_; // by upper-case MAC address
    std::vector<PendingSetup*> pending_;
};

} // namespace zkudp
