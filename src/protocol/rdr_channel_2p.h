#pragma once

#include "protocol/protocol_frame.h"
#include "protocol/worker_thread.h"

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
    // Asks the thread to end and aborts its receive; does not wait.
    void stop();
    // Stops and joins the thread.
    void terminate();

private:
    void run();

    ConnectionRecord& record_;
    std::unique_ptr<ProtocolFrame> request_ = std::make_unique<ProtocolFrame>();
    std::unique_ptr<ProtocolFrame> response_ = std::make_unique<ProtocolFrame>();
    WorkerThread thread_;
};

// Appends the bus address to a request of command 0x77, as its readers expect: the first
// CRC byte becomes the bus address and the frame grows by one byte. False at the largest
// frame, which has no room to grow.
bool adjustCommand77(ProtocolFrame& frame);

} // namespace tovra
