#pragma once

#include "protocol/protocol_frame.h"
#include "protocol/worker_thread.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace tovra {

class ConnectionRecord;
class TovraReceiver1P;

// The thread that answers a one-port reader's own requests through the application, and
// that reports connect and disconnect and closes the connection when it ends.
class TovraAppCallback1P {
public:
    explicit TovraAppCallback1P(ConnectionRecord& record);
    ~TovraAppCallback1P();
    void attachReceiver(TovraReceiver1P& receiver) { receiver_ = &receiver; }

    bool start(bool connectedByReader);
    // Hands a request over; waits while the previous one has not been taken yet.
    // False when the thread is ending: the caller keeps the buffer.
    bool deliverRequest(ProtocolFrame& frame);
    void signalEnd(bool disconnectedByReader);
    void terminate();

private:
    void run();
    // The next request, or null once the thread is to end.
    ProtocolFrame* nextRequest();
    void closeConnection();

    ConnectionRecord& record_;
    TovraReceiver1P* receiver_ = nullptr;
    std::unique_ptr<ProtocolFrame> response_ = std::make_unique<ProtocolFrame>();
    ProtocolFrame* pendingRequest_ = nullptr; // one of the receiver's buffers
    std::atomic<bool> connectedByReader_{false};
    std::atomic<bool> disconnectedByReader_{false};
    std::mutex lock_;
    std::condition_variable changed_;
    WorkerThread thread_;
};

} // namespace tovra
