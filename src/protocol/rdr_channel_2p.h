#pragma once

#include "protocol/protocol_frame.h"
#include "protocol/worker_thread.h"

#include <atomic>
#include <memory>

namespace tovra {

class ConnectionRecord;

// The reader channel of a two-port module: a thread that receives the reader's requests,
// has the application answer them, sends the answers back, and closes the connection and
// tells the application when it ends.
class TovraRdrChannel2P {
public:
    explicit TovraRdrChannel2P(ConnectionRecord& record) : record_(record) {}
    ~TovraRdrChannel2P() { terminate(); }

    // False while a previous thread still runs; a finished one is joined first.
    bool start();
    // While a listener waits for readers the thread is made ahead, so that an accepted
    // connection only wakes it; retired, it ends once idle.
    void prepareThread() { thread_.prepare(); }
    void retireThread() { thread_.retire(); }
    // Asks the thread to end and aborts its receive; does not wait.
    void stop();
    // Stops and joins the thread, which closes the connection.
    void terminate();
    // From inside an application callback on this thread: the connection ends once the
    // callback has returned (and its response has been sent).
    void endAfterCallback() { endAfterCallback_.store(true); }
    bool finished() const { return thread_.finished(); }
    bool isCurrent() const { return thread_.isCurrent(); }

private:
    void run();

    ConnectionRecord& record_;
    LazyFrame request_;
    LazyFrame response_;
    std::atomic<bool> endAfterCallback_{false};
    WorkerThread thread_;
};

// Appends the bus address to a request of command 0x77, as its readers expect: the first
// CRC byte becomes the bus address and the frame grows by one byte. False at the largest
// frame, which has no room to grow.
bool adjustCommand77(ProtocolFrame& frame);

} // namespace tovra
