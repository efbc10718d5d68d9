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
    // Stops and joins the receiver, then the callback thread.
    void terminate();
    // Marks a handed-over buffer unused again.
    void release(ProtocolFrame& frame);

private:
    static constexpr std::size_t kBuffers = 3;

    void run();
    ProtocolFrame* unusedBuffer();
    void route(ProtocolFrame& frame);

    ConnectionRecord& record_;
    TovraAppTransceive1P& transceive_;
    TovraAppCallback1P& callback_;
    std::array<std::unique_ptr<ProtocolFrame>, kBuffers> buffers_;
    // A buffer is in use from the moment the receiver fills it until its taker releases it.
    std::array<std::atomic<bool>, kBuffers> inUse_{};
    WorkerThread thread_;
};

} // namespace tovra
