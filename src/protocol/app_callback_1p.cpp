#include "protocol/app_callback_1p.h"

#include "logging/log.h"
#include "protocol/receiver_1p.h"
#include "reader/connection_record.h"
#include "reader/tovra_reader.h"

#include <utility>

namespace tovra {

TovraAppCallback1P::TovraAppCallback1P(ConnectionRecord& record) : record_(record) {}

TovraAppCallback1P::~TovraAppCallback1P() { terminate(); }

bool TovraAppCallback1P::start(bool connectedByReader)
{
    if (thread_.exists() && !thread_.finished()) {
        TOVRA_LOG_ERROR(record_.logger(), logcat::Error | logcat::Reader,
                        "1port application callback: thread already started");
        return false;
    }
    connectedByReader_.store(connectedByReader);
    disconnectedByReader_.store(false);
    endAfterCallback_.store(false);
    deliveryClosed_.store(false);
    {
        std::lock_guard guard(lock_);
        pendingRequest_ = nullptr;
        mayRun_ = false;
    }
    return thread_.start(record_.reader(), [this] { run(); });
}

void TovraAppCallback1P::letRun()
{
    {
        std::lock_guard guard(lock_);
        mayRun_ = true;
    }
    changed_.notify_all();
}

void TovraAppCallback1P::waitUntilLetRun()
{
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return mayRun_; });
}

bool TovraAppCallback1P::deliverRequest(ProtocolFrame& frame)
{
    {
        std::unique_lock lock(lock_);
        // One request waits at a time, as the receiver would block on a busy taker.
        changed_.wait(lock, [this] { return pendingRequest_ == nullptr || deliveryClosed_.load(); });
        if (deliveryClosed_.load()) return false;
        pendingRequest_ = &frame;
    }
    changed_.notify_all();
    return true;
}

TovraAppCallback1P::Delivery TovraAppCallback1P::tryDeliverRequest(ProtocolFrame& frame)
{
    {
        std::lock_guard guard(lock_);
        if (deliveryClosed_.load()) return Delivery::Closed;
        if (pendingRequest_ != nullptr) return Delivery::Busy;
        pendingRequest_ = &frame;
    }
    changed_.notify_all();
    return Delivery::Delivered;
}

void TovraAppCallback1P::closeDelivery()
{
    deliveryClosed_.store(true);
    { std::lock_guard guard(lock_); }
    changed_.notify_all();
}

void TovraAppCallback1P::signalEnd(bool disconnectedByReader)
{
    if (disconnectedByReader) disconnectedByReader_.store(true);
    thread_.requestStop();
    closeDelivery();
}

void TovraAppCallback1P::terminate()
{
    if (!thread_.exists()) return;
    signalEnd(false);
    letRun(); // a thread that never got going ends too
    thread_.join();
}

ProtocolFrame* TovraAppCallback1P::nextRequest()
{
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return pendingRequest_ != nullptr || thread_.stopRequested(); });
    if (thread_.stopRequested()) return nullptr;
    ProtocolFrame* request = std::exchange(pendingRequest_, nullptr);
    lock.unlock();
    changed_.notify_all(); // the slot is free for the receiver
    return request;
}

bool TovraAppCallback1P::endedFromCallback()
{
    if (!endAfterCallback_.load()) return false;
    // The receiver is another thread: waiting for it here is safe, and it is woken first.
    receiver_->stopAndJoin();
    return true;
}

void TovraAppCallback1P::run()
{
    waitUntilLetRun();
    TovraLogger& logger = record_.logger();
    TovraReader* reader = record_.reader();
    bool ended = false;
    if (connectedByReader_.load()) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "1port application callback thread started: connected by reader");
        if (reader != nullptr) reader->connectedByReader(record_);
        ended = endedFromCallback();
    } else {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "1port application callback thread started: connected by host");
    }

    // The application's callback runs without this thread's lock held.
    while (!ended) {
        ProtocolFrame* request = nextRequest();
        if (request == nullptr) break;
        const std::int32_t answered = reader != nullptr ? reader->readerRequest(record_, *request, *response_) : -1;
        receiver_->release(*request);
        if (answered >= 0 && !thread_.stopRequested()) record_.transmit().transmitProtocol(*response_);
        ended = endedFromCallback();
    }

    const bool byReader = disconnectedByReader_.load();
    if (byReader && reader != nullptr) reader->disconnectedByReader(record_);
    closeConnection();
    TOVRA_LOG_TRACE(logger, logcat::Reader,
                    byReader ? "1port application callback thread stopped: disconnected by reader"
                             : "1port application callback thread stopped: disconnected by host");
}

void TovraAppCallback1P::closeConnection()
{
    record_.disconnectPlugin();
    record_.retireConnection();
}

} // namespace tovra
