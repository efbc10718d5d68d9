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
// that reports connect and disconnect and closes the connection when it ends. It is the
// one thread that retires its connection.
class TovraAppCallback1P {
public:
    explicit TovraAppCallback1P(ConnectionRecord& record);
    ~TovraAppCallback1P();
    void attachReceiver(TovraReceiver1P& receiver) { receiver_ = &receiver; }

    // The thread waits for letRun() before it calls the application, so that whatever a
    // callback does to the connection finds the receiver started.
    bool start(bool connectedByReader);
    void prepareThread() { thread_.prepare(); }
    void retireThread() { thread_.retire(); }
    void letRun();
    // Hands a request over; waits while the previous one has not been taken yet.
    // False once delivery is closed: the caller keeps the buffer.
    bool deliverRequest(ProtocolFrame& frame);
    // The same without waiting: Busy while the previous request has not been taken.
    enum class Delivery { Delivered, Busy, Closed };
    Delivery tryDeliverRequest(ProtocolFrame& frame);
    // Ends deliveries that wait, for good (until the next start).
    void closeDelivery();
    // The receiver has ended; a reader that left is reported to the application. A later
    // call never takes that back.
    void signalEnd(bool disconnectedByReader);
    // From inside an application callback on this thread: the connection ends once the
    // callback has returned (and its response has been sent).
    void endAfterCallback() { endAfterCallback_.store(true); }
    void terminate();
    bool finished() const { return thread_.finished(); }
    bool isCurrent() const { return thread_.isCurrent(); }

private:
    void run();
    void waitUntilLetRun();
    // The next request, or null once the thread is to end.
    ProtocolFrame* nextRequest();
    // Ends the receiver from this thread when a callback asked for the connection to end.
    bool endedFromCallback();
    void closeConnection();

    ConnectionRecord& record_;
    TovraReceiver1P* receiver_ = nullptr;
    LazyFrame response_;
    ProtocolFrame* pendingRequest_ = nullptr; // one of the receiver's buffers
    bool mayRun_ = false;
    std::atomic<bool> deliveryClosed_{false};
    std::atomic<bool> connectedByReader_{false};
    std::atomic<bool> disconnectedByReader_{false};
    std::atomic<bool> endAfterCallback_{false};
    std::mutex lock_;
    std::condition_variable changed_;
    WorkerThread thread_;
};

} // namespace tovra
