#pragma once

#include "plugins/ip_endpoint.h"
#include "plugins/tovra_plugin.h"
#include "platform/read_watch.h"
#include "protocol/protocol_frame.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace tovra {

class TovraLogger;

// Codes of the TCP transport.
namespace tcperr {
inline constexpr std::int32_t CannotCreateSocket = -1501;
inline constexpr std::int32_t InvalidAddress = -1502;
inline constexpr std::int32_t InvalidPort = -1503;
inline constexpr std::int32_t CannotResolve = -1504;
inline constexpr std::int32_t ConnectFailed = -1510;
inline constexpr std::int32_t BindFailed = -1511;
inline constexpr std::int32_t ListenFailed = -1512;
inline constexpr std::int32_t AcceptFailed = -1513;
inline constexpr std::int32_t SocketOptionFailed = -1515;
inline constexpr std::int32_t TransmitFailed = -1520;
inline constexpr std::int32_t ReceiveFailed = -1521;
inline constexpr std::int32_t BufferOverflow = -1522;
} // namespace tcperr

// Whole protocol frames over one TCP connection, either connected to a reader or taken over
// from the TCP listener. Transmit and receive may run on two threads at once: they share
// only the socket.
class TovraPluginTcp : public TovraPlugin {
public:
    explicit TovraPluginTcp(ConnectionRecord* owner);
    ~TovraPluginTcp() override;

    const char* pliGetErrorText(std::int32_t code) override;
    const char* pliGetVersion() override;
    // "tcp:ipaddress=...:port=...:connecttimeout=..."; a time-out below 1 ms connects blocking.
    std::int32_t pliConnect(const char* connector) override;
    // Takes over the accepted socket of a TovraListenerTcp.
    std::int32_t pliAccept(TovraListener* listener) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    void pliAbortReceive() override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;
    std::int32_t pliPutParam(std::int32_t portHandle, const char* key, const char* value) override;
    bool canWaitReadable() const override;
    int watchReadable() override;
    bool pauseWatch() override;
    void resumeWatch() override;
    void wakeWatch() override;
    std::int32_t receiveWithin(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize,
                               int waitMs) override;
    bool hasBufferedInput() const override;
    std::int32_t pliGetParam(std::int32_t portHandle, const char* key, std::string& value) override;

private:
    TovraLogger& logger() const;
    // The receive's own records are off: nothing shows whether it polls or sleeps.
    bool quiet() const;
    // The same frame as the traced receive, read without asking for the byte count first and
    // with whatever else the socket holds read ahead: with the records off nothing shows the
    // difference, and a frame usually costs one call.
    std::int32_t receiveQuietly(std::uint8_t* buffer, std::size_t bufferSize, int waitMs);
    // Bytes of the stream into frame_ after its first `count`, waiting for them until the
    // deadline: their number, or the receive's result.
    std::int32_t readAhead(std::size_t count, std::int64_t deadline);
    // The frame goes on with what it still needs of `have` bytes that lie in frame_ right after
    // its first `count`; once it ends, the rest is kept for the next receive. As assembled().
    std::int32_t assembleBuffered(std::size_t& have, std::size_t& count, std::size_t& expected,
                                  std::int64_t& deadline, std::uint8_t* buffer, std::size_t bufferSize);
    // Moves what was read ahead to the start of frame_: its length.
    std::size_t unstash();
    // Keeps frame_'s `count` bytes from `at` on, read but not handed out, for the next receive.
    void stash(std::size_t at, std::size_t count);
    // Until the socket has data: 0, the pending value when the time is up, or the failure.
    std::int32_t waitForData(platform::SocketHandle s, std::int64_t leftMicros);
    // The end of a frame's assembly: the header read, or the whole frame copied out.
    // -1 while the frame goes on, else the receive's result.
    std::int32_t assembled(std::size_t read, std::size_t& count, std::size_t& expected, std::int64_t& deadline,
                           std::uint8_t* buffer, std::size_t bufferSize);
    bool blockingConnect();
    bool waitingReceive();
    bool nonblockingConnect(std::int32_t timeoutMs);
    int closeSocket();
    // The rest of a frame that a send took only in part.
    void sendRest(const std::uint8_t* data, std::size_t length);
    static std::int32_t newPortHandle();

    IpEndpoint endpoint_;
    // An abort may come while the socket is being closed: it must never reach a closed one,
    // whose number the system may already have given to another socket. Guards the watch's
    // opening and closing for the same reason.
    mutable std::mutex closeLock_;
    platform::ReadWatch watch_; // opened by the first watchReadable()
    ProtocolFrame frame_; // assembly of the frame being received
    // Read ahead: the stream's next bytes, at frame_.bytes[stashAt_ ..]. Only the thread that
    // receives touches them; the one-port receiver looks at them between turns.
    std::size_t stashAt_ = 0;
    std::size_t stashed_ = 0;
    int waitSet_ = -1; // the socket's receive wait as last set, ms
    bool wsaStarted_ = false;
    std::int32_t receiveTimeout_ = 300; // ms, for the header and again for the rest
    // How long the rest of a frame may wait for room before the connection is ended.
    static constexpr std::int32_t kSendRestMs = 5000;
};

} // namespace tovra
