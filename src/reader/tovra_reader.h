#pragma once

#include "logging/tovra_logger.h"
#include "reader/connection_record.h"
#include "tovra/tovra.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace tovra {

class TovraAppCallback1P;
class TovraAppChannel2P;
class TovraRdrChannel2P;
class TovraAppTransceive1P;
class TovraReceiver1P;
struct ProtocolFrame;

// The module behind one reader handle: a one-port module (kind 2, channel "SingleCh") or a
// two-port module (any other kind, channels "AppCh" and "RdrCh").
//
// How connections start and end, so that none can crash, hang or cut off another:
//
// 1. A connection is retired as a whole, by the one party that serves it: the one-port
//    callback thread, the two-port reader channel thread, or, for the two-port application
//    channel, the host's disconnect once it holds the exchange lock. That party closes the
//    plugin only after every receive on it has returned, and frees the channel (plugin
//    released, port handle -1, claim and listener gate free) as its very last step. A
//    channel that reads "Discon" is free, and nothing of the old connection touches the
//    next one.
// 2. Whoever uses a plugin holds it: transmit, receive and abort work on the plugin they
//    started with, so letting go of it in the record never frees it under a running call.
// 3. A new connection first reaps the threads of the previous one, which have freed the
//    channel and are on their way out. Starting and ending connections on a channel are
//    serialised by the record's lifecycle lock, which no thread serving the channel takes.
// 4. No library thread waits for itself. Ending a connection from one of the reader's own
//    threads (an application callback calling DisconnectByHost, StopListener or Delete) is
//    recorded and carried out by that thread once the callback has returned, its response
//    sent; its own join is left to whoever reaps it next: a connect, a stop, the
//    destructor, or the registry for a reader deleted from its own callback.
class TovraReader {
public:
    TovraReader(std::int32_t moduleKind, const char* connector);
    ~TovraReader();
    TovraReader(const TovraReader&) = delete;
    TovraReader(TovraReader&&) = delete;
    TovraReader& operator=(const TovraReader&) = delete;

    std::int32_t handle() const { return handle_; }
    bool isOnePort() const { return moduleKind_ == 2; }
    TovraLogger& logger() { return logger_; }

    const char* connectorText() const { return hostRecord().connectorText(); }
    const char* connectionState() const;
    std::int32_t lowLevelPortHandle() const { return hostRecord().portHandle(); }
    std::int32_t lastError() const { return lastError_.load(); }
    const char* lastErrorText() { return hostRecord().errorText(lastError_.load()); }

    // Marks the module as terminating and releases the waits of its channels; never blocks.
    void terminate();
    bool terminating() const { return terminating_.load(); }
    // What destruction does before it frees anything: terminate, stop the listener, end the
    // host connection. On one of the reader's own threads nothing is waited for: the
    // connections end once the current callback has returned.
    void shutdown();
    // Deleted from one of its own callbacks: the application hears nothing more from it.
    void markDeleted() { deleted_.store(true); }
    // True on a thread this reader started.
    bool onOwnThread() const;
    // No thread of this reader runs any more.
    bool quiescent() const;

    void setReceiveTimeout(std::uint32_t milliseconds);
    std::int32_t receiveTimeout() const;

    std::int32_t connectByHost(const char* connection);
    std::int32_t transceive(const std::uint8_t* request, std::uint64_t requestLength, std::uint8_t* response,
                            std::uint64_t* responseLength);
    void disconnectByHost();
    std::int32_t detectSerial(const char* detection);
    std::int32_t startListener(const char* listenerText);
    std::int32_t stopListener();
    // Hands each "key=value" section to the connected plugin; the number accepted, or an error.
    std::int32_t paramPlugin(ConnectionRecord& record, const char* parameters);

    void setConnectedCallbacks(void* context, TOVRA_ReaderConnectedCallback connected,
                               TOVRA_ReaderDisconnectedCallback disconnected);
    void setRequestCallback(void* context, TOVRA_ReaderRequestCallback callback);
    void setDetectSerialCallback(void* context, TOVRA_DetectSerialCallback callback);

    // Writes the frame generation into all three records.
    void setFrameType(std::uint8_t frameType);

    // Called by a listener's thread once it has accepted a reader's connection for `record`:
    // 0 keeps the connection, a negative code declines it.
    std::int32_t connectByReaderAccepted(ConnectionRecord& record);

    // Called by the channel thread that serves a connection the reader made.
    void connectedByReader(ConnectionRecord& record);
    void disconnectedByReader(ConnectionRecord& record);
    // Hands a reader's request to the application and builds the response frame:
    // 0 when there is a response to send, -1 when there is none.
    std::int32_t readerRequest(ConnectionRecord& record, const ProtocolFrame& request, ProtocolFrame& response);

private:
    // The channel the host connects: "SingleCh" or "AppCh".
    ConnectionRecord& hostRecord() { return isOnePort() ? single_ : app_; }
    const ConnectionRecord& hostRecord() const { return isOnePort() ? single_ : app_; }
    // The channel readers connect to: "SingleCh" or "RdrCh".
    ConnectionRecord& readerRecord() { return isOnePort() ? single_ : rdr_; }
    std::int32_t fail(std::int32_t code);
    const char* channelWords() const;
    // Ends the connection that the calling thread, one of this reader's own, serves.
    void endOwnConnectionLater();
    // Stops the threads of the reader channel's connection and waits for them.
    void endReaderChannel();
    // Starts the threads of a new connection on `record`; when they cannot start, the
    // connection is ended and false returned.
    bool startChannel(ConnectionRecord& record, bool byReader);

    const std::int32_t moduleKind_;
    std::atomic<std::int32_t> lastError_{0};
    std::atomic<bool> terminating_{false};
    std::atomic<bool> deleted_{false};
    const std::int32_t handle_;
    TovraLogger logger_;

    std::mutex connectedLock_;
    void* connectedContext_ = nullptr;
    TOVRA_ReaderConnectedCallback connectedCallback_ = nullptr;
    TOVRA_ReaderDisconnectedCallback disconnectedCallback_ = nullptr;

    std::mutex detectLock_;
    void* detectContext_ = nullptr;
    TOVRA_DetectSerialCallback detectCallback_ = nullptr;

    std::mutex requestLock_;
    void* requestContext_ = nullptr;
    TOVRA_ReaderRequestCallback requestCallback_ = nullptr;

    ConnectionRecord single_;
    ConnectionRecord app_;
    ConnectionRecord rdr_;

    // One-port channel objects (none in a two-port module).
    std::unique_ptr<TovraAppTransceive1P> transceive1P_;
    std::unique_ptr<TovraAppCallback1P> callback1P_;
    std::unique_ptr<TovraReceiver1P> receiver1P_;
    // Two-port channel objects (none in a one-port module).
    std::unique_ptr<TovraAppChannel2P> appChannel2P_;
    std::unique_ptr<TovraRdrChannel2P> rdrChannel2P_;
};

// Takes the next reader handle: 1, 2, 3, ... with the top four bits cleared.
std::int32_t nextReaderHandle();

} // namespace tovra
