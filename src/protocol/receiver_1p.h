#pragma once

#include "protocol/protocol_frame.h"
#include "protocol/worker_thread.h"

#include <array>
#include <atomic>
#include <memory>

namespace tovra {

class ConnectionRecord;
class TovraAppCallback1P;
class TovraAppTransceive1P;

// Reads every frame of a one-port connection and routes it by its direction flags: responses
// to the waiting transceive, reader requests to the application callback thread. Frames are
// handed over by reference; the taker gives a buffer back with release().
class TovraReceiver1P {
public:
    TovraReceiver1P(ConnectionRecord& record, TovraAppTransceive1P& transceive, TovraAppCallback1P& callback);
    ~TovraReceiver1P();

    // Starts the callback thread, then the receiver; false while the receiver still runs.
    bool start(bool connectedByReader);
    // Asks the thread to end and aborts its receive; does not wait.
    void stop();
    // Ends the receiver on behalf of the host: stop, wake the plugin's wait, join. Called
    // by the callback thread when its connection is to end, and by terminate().
    void stopAndJoin();
    // Stops and joins the receiver, then the callback thread, which closes the connection.
    void terminate();
    bool finished() const { return thread_.finished(); }
    // Marks a handed-over buffer unused again.
    void release(ProtocolFrame& frame);

private:
    static constexpr std::size_t kBuffers = 3;

    void run();
    ProtocolFrame* unusedBuffer();
    // No buffer will come free by itself: none holds a request that the callback thread
    // is answering.
    bool noRequestPending() const;
    // With no buffer to come free, the end of the connection must still be seen: frames are
    // read aside and routed only if a buffer has come free meanwhile. True when it ended.
    bool watchForEnd();
    void route(ProtocolFrame& frame);
    void markRequest(const ProtocolFrame& frame);

    ConnectionRecord& record_;
    TovraAppTransceive1P& transceive_;
    TovraAppCallback1P& callback_;
    std::array<std::unique_ptr<ProtocolFrame>, kBuffers> buffers_;
    // A buffer is in use from the moment the receiver fills it until its taker releases it.
    std::array<std::atomic<bool>, kBuffers> inUse_{};
    std::array<std::atomic<bool>, kBuffers> request_{};
    std::unique_ptr<ProtocolFrame> aside_; // made on first need
    WorkerThread thread_;
};

} // namespace tovra
