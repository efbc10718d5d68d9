#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tovra {

class ConnectionRecord;
class IpEndpoint;
class TovraListener;

// A transport: one object per open connection, owned by a connection record. All results
// are 0 or positive on success and negative error codes on failure; nothing throws.
class TovraPlugin {
public:
    explicit TovraPlugin(ConnectionRecord* owner) : owner_(owner) {}
    virtual ~TovraPlugin() = default;
    TovraPlugin(const TovraPlugin&) = delete;
    TovraPlugin& operator=(const TovraPlugin&) = delete;

    // Text of a code this plugin returned; valid until the next call.
    virtual const char* pliGetErrorText(std::int32_t code);
    virtual const char* pliGetVersion();
    // Port handle (not negative) or an error.
    virtual std::int32_t pliConnect(const char* connector) = 0;
    virtual std::int32_t pliAccept(TovraListener* listener);
    virtual std::int32_t pliDisconnect(std::int32_t portHandle) = 0;
    virtual std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) = 0;
    // Length of one whole frame, the pending value INT32_MIN while none is there, or an error.
    virtual std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) = 0;
    virtual std::int32_t pliPutParam(std::int32_t portHandle, const char* key, const char* value);
    virtual std::int32_t pliGetParam(std::int32_t portHandle, const char* key, std::string& value);
    virtual std::int32_t pliGetLastError(std::int32_t portHandle);
    // Ends a receive that is waiting, ahead of a disconnect by the host: the connection is
    // of no further use afterwards. Transports that cannot do it leave the wait to run out.
    // May run while another thread transmits or receives on the plugin.
    virtual void pliAbortReceive() {}

    // Transports that can sleep until their connection has something to read offer it: the
    // one-port receiver then waits in watchReadable() instead of polling pliReceive, and a
    // transceive reads its own response with receiveWithin() while the watch is paused.
    // Neither is used where the transport's log would show the polls left out.
    static constexpr int kNoReadiness = -2;
    static constexpr int kNotReadable = 0;
    static constexpr int kReadable = 1;
    virtual bool canWaitReadable() const { return false; }
    // kReadable, kNotReadable when woken by wakeWatch(), an abort or a pause, or kNoReadiness.
    virtual int watchReadable() { return kNoReadiness; }
    // Where the watch can be used now (as canWaitReadable()), data no longer ends
    // watchReadable() until resumeWatch(), and true; a pause may wake it instead.
    virtual bool pauseWatch() { return false; }
    // Input already buffered wakes the watch at once: no data to come would report it.
    virtual void resumeWatch() {}
    virtual void wakeWatch() {}
    // Input already taken from the port and not yet received: a receive needs no wait for
    // it, and no watch would report it.
    virtual bool hasBufferedInput() const { return false; }
    // pliReceive, waiting at most waitMs for the start of a frame.
    virtual std::int32_t receiveWithin(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize,
                                       int /*waitMs*/)
    {
        return pliReceive(portHandle, buffer, bufferSize);
    }

    // The host is ending this connection: wakes its waits for good. Whatever fails on the
    // plugin afterwards is the host's doing, not the reader's.
    void abortConnection()
    {
        connectionAborted_.store(true);
        pliAbortReceive();
    }
    bool connectionAborted() const { return connectionAborted_.load(); }

    std::int32_t kind() const { return kind_; }

protected:
    // Stores a failure where it happens and hands it back.
    std::int32_t fail(std::int32_t code)
    {
        lastError_ = code;
        return code;
    }

    std::int32_t kind_ = 0;
    ConnectionRecord* const owner_;
    bool loaded_ = false;
    bool secondFlag_ = false;
    std::atomic<std::int32_t> lastError_{0};

private:
    std::atomic<bool> connectionAborted_{false};
};

// Waits for a reader to connect to the host; owned by a connection record while listening.
class TovraListener {
public:
    explicit TovraListener(ConnectionRecord* owner) : owner_(owner) {}
    virtual ~TovraListener() = default;
    TovraListener(const TovraListener&) = delete;
    TovraListener& operator=(const TovraListener&) = delete;

    virtual std::int32_t start(const char* connector) = 0;
    // Idempotent; joins the worker thread, except on that thread itself, where it only asks
    // it to end.
    virtual void stop() = 0;
    // True on the listener's own thread (where its log records, and with them the
    // application's logging callbacks, run).
    virtual bool onOwnThread() const { return false; }
    // True while no thread of this listener runs.
    virtual bool idle() const { return true; }

    // What a listener hands to the plugin that takes an accepted connection over: the
    // accepted socket (TCP), or the connector to open (serial, gadget). Null when it has none.
    virtual IpEndpoint* acceptedSocket() { return nullptr; }
    virtual const char* acceptedConnector() const { return nullptr; }

    std::int32_t kind() const { return kind_; }

protected:
    std::int32_t kind_ = 0;
    ConnectionRecord* const owner_;
    bool firstFlag_ = false;
    bool secondFlag_ = false;
    std::atomic<bool> stopRequested_{false};
};

} // namespace tovra
