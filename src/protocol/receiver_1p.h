#pragma once

#include "protocol/protocol_frame.h"
#include "protocol/worker_thread.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace tovra {

class ConnectionRecord;
class TovraAppCallback1P;
class TovraAppTransceive1P;
class TovraPlugin;

// Reads every frame of a one-port connection and routes it by its direction flags: responses
// to the waiting transceive, reader requests to the application callback thread. Frames are
// handed over by reference; the taker gives a buffer back with release().
//
// Where the transport can sleep until there is something to read, the receiver does so, and
// a transceive on an application thread takes the reading over for its exchange while the
// receiver sleeps: the response then wakes only the thread that waits for it. The caller
// reads and routes exactly as the receiver would; whatever would make it wait (a request
// the callback thread cannot take yet, the reader leaving) goes back to the receiver.
class TovraReceiver1P {
public:
    TovraReceiver1P(ConnectionRecord& record, TovraAppTransceive1P& transceive, TovraAppCallback1P& callback);
    ~TovraReceiver1P();

    // Starts the callback thread, then the receiver; false while the receiver still runs.
    bool start(bool connectedByReader);
    // While a listener waits for readers: both threads are made ahead and wait for each
    // accepted connection, so that accepting one only wakes them. Retired, they end once
    // idle (joined then, unless on one of them, or by the next start).
    void prepareThreads();
    void retireThreads();
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

    // The caller's turn at reading, for a transceive that is not on one of the reader's own
    // threads. True when the caller reads from now on; it ends the turn with endCallersTurn().
    bool beginCallersTurn();
    void endCallersTurn();
    // The connection's plugin for the whole turn: it stays the record's until the turn
    // ends, since the connection is closed only after the receiver, which waits for it.
    // For the caller's thread alone, during its turn.
    const std::shared_ptr<TovraPlugin>& turnPlugin() const { return turnPlugin_; }
    // Waits up to timeoutMs for a frame, then reads and routes it. GiveBack: the caller ends
    // its turn and leaves the rest to the receiver.
    enum class CallersRead { Read, Timeout, GiveBack };
    CallersRead readOnCallersTurn(int timeoutMs);

private:
    static constexpr std::size_t kBuffers = 3;

    void run();
    // Sleeps until there is something to read, when the transport can. Read: go on and read;
    // Again: woken, or the caller reads now; ReaderLeft: the caller saw the reader leave.
    enum class Awaited { Read, Again, ReaderLeft };
    Awaited awaitData();
    // What the caller left to the receiver: a request to deliver, or the reader gone.
    bool takeOverFromCaller(std::unique_lock<std::mutex>& lock);
    // The connection is closed once this thread has ended: a caller reading gives it back first.
    void endTurns();
    // Waits on turnChanged_ until `done`; a turn that ends wakes only such waiters.
    template <typename Done>
    void awaitTurn(std::unique_lock<std::mutex>& lock, Done done);
    ProtocolFrame* unusedBuffer();
    bool anyUnused() const;
    // No buffer will come free by itself: none holds a request that the callback thread
    // is answering.
    bool noRequestPending() const;
    // With no buffer to come free, the end of the connection must still be seen: frames are
    // read aside and routed only if a buffer has come free meanwhile. True when it ended.
    bool watchForEnd();
    // False when the frame is a request that the callback thread cannot take without a wait
    // and `mayWait` is false; the frame is not delivered then.
    bool route(ProtocolFrame& frame, bool mayWait = true);
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

    // Who reads the connection: the receiver (Reading, or asleep in its watch: Watching),
    // a transceive (Caller), nobody any more (Ended).
    enum class Turn { Reading, Watching, Caller, Ended };
    std::mutex turnLock_;
    std::condition_variable turnChanged_;
    Turn turn_ = Turn::Reading;
    ProtocolFrame* handedBack_ = nullptr; // a request the caller read, to deliver
    bool readerLeft_ = false;             // the caller saw the end of the connection
    int turnWaiters_ = 0;
    std::shared_ptr<TovraPlugin> turnPlugin_; // the caller's, see turnPlugin()
};

} // namespace tovra
