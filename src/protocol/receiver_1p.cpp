#include "protocol/receiver_1p.h"

#include "api/error_codes.h"
#include "plugins/tovra_plugin.h"
#include "logging/log.h"
#include "protocol/app_callback_1p.h"
#include "protocol/app_transceive_1p.h"
#include "reader/connection_record.h"

#include <chrono>
#include <utility>

namespace tovra {
namespace {
constexpr std::uint32_t kErrors = logcat::Error | logcat::Reader;
constexpr auto kBuffersBusyPause = std::chrono::milliseconds(200);
} // namespace

TovraReceiver1P::TovraReceiver1P(ConnectionRecord& record, TovraAppTransceive1P& transceive,
                                 TovraAppCallback1P& callback)
    : record_(record), transceive_(transceive), callback_(callback)
{
}

TovraReceiver1P::~TovraReceiver1P() { terminate(); }

bool TovraReceiver1P::start(bool connectedByReader)
{
    callback_.start(connectedByReader);
    bool started = false;
    if (thread_.exists() && !thread_.finished()) {
        TOVRA_LOG_ERROR(record_.logger(), kErrors, "1port receiver: thread already started");
    } else {
        try {
            // Made by the first connection: a module that never connects carries none.
            for (auto& buffer : buffers_)
                if (!buffer) buffer = std::make_unique<ProtocolFrame>();
            started = thread_.start(record_.reader(), [this] { run(); });
        } catch (...) {
            // No receiver: the callback thread ends at once and closes the connection.
            TOVRA_LOG_ERROR(record_.logger(), kErrors, "1port receiver: thread not started");
            transceive_.receiverEnded();
            callback_.signalEnd(false);
        }
    }
    // Only now may the callback thread run the application's callbacks, whatever they do
    // to this connection.
    callback_.letRun();
    return started;
}

void TovraReceiver1P::prepareThreads()
{
    callback_.prepareThread();
    thread_.prepare();
}

void TovraReceiver1P::retireThreads()
{
    thread_.retire();
    callback_.retireThread();
}

void TovraReceiver1P::stop()
{
    thread_.requestStop();
    record_.receive().abort();
    // A receiver waiting to hand a request over must not wait for a taker that stops.
    callback_.closeDelivery();
    // Nor for data, or for the end of a caller's turn.
    if (const std::shared_ptr<TovraPlugin> plugin = record_.plugin()) plugin->wakeWatch();
    { std::lock_guard guard(turnLock_); }
    turnChanged_.notify_all();
}

void TovraReceiver1P::stopAndJoin()
{
    if (!thread_.exists()) return;
    stop();
    if (!thread_.finished()) record_.abortPluginReceive();
    thread_.join();
}

void TovraReceiver1P::terminate()
{
    stopAndJoin();
    callback_.terminate();
}

void TovraReceiver1P::release(ProtocolFrame& frame)
{
    for (std::size_t i = 0; i < kBuffers; ++i) {
        if (buffers_[i].get() == &frame) {
            frame.clear();
            request_[i].store(false);
            inUse_[i].store(false, std::memory_order_release);
        }
    }
}

ProtocolFrame* TovraReceiver1P::unusedBuffer()
{
    for (std::size_t i = 0; i < kBuffers; ++i) {
        if (!inUse_[i].load(std::memory_order_acquire)) {
            inUse_[i].store(true, std::memory_order_relaxed);
            return buffers_[i].get();
        }
    }
    return nullptr;
}

bool TovraReceiver1P::anyUnused() const
{
    for (const auto& used : inUse_)
        if (!used.load(std::memory_order_acquire)) return true;
    return false;
}

void TovraReceiver1P::markRequest(const ProtocolFrame& frame)
{
    for (std::size_t i = 0; i < kBuffers; ++i)
        if (buffers_[i].get() == &frame) request_[i].store(true);
}

bool TovraReceiver1P::noRequestPending() const
{
    for (std::size_t i = 0; i < kBuffers; ++i)
        if (inUse_[i].load() && request_[i].load()) return false;
    return true;
}

bool TovraReceiver1P::watchForEnd()
{
    if (!aside_) aside_ = std::make_unique<ProtocolFrame>();
    const std::int32_t received = record_.receive().receiveProtocol(*aside_);
    if (received == err::DisconnectedByPeer) return true;
    if (received == err::Ok && !thread_.stopRequested()) {
        // A response that a transceive took meanwhile has freed its buffer.
        if (ProtocolFrame* buffer = unusedBuffer()) {
            buffer->copyFrom(*aside_);
            route(*buffer);
        } else {
            TOVRA_LOG_ERROR(record_.logger(), kErrors, "No unused receive buffer available");
        }
    }
    aside_->clear();
    return false;
}

void TovraReceiver1P::run()
{
    TovraLogger& logger = record_.logger();
    TOVRA_LOG_TRACE(logger, logcat::Reader, "1port receiver thread started");
    for (std::size_t i = 0; i < kBuffers; ++i) {
        buffers_[i]->clear();
        inUse_[i].store(false);
        request_[i].store(false);
    }
    {
        std::lock_guard guard(turnLock_);
        turn_ = Turn::Reading;
        handedBack_ = nullptr;
        readerLeft_ = false;
    }
    bool disconnectedByReader = false;

    while (!thread_.stopRequested()) {
        const Awaited awaited = awaitData();
        if (awaited == Awaited::ReaderLeft) {
            TOVRA_LOG_TRACE(logger, logcat::Reader, "Detected disconnect by reader");
            disconnectedByReader = true;
            break;
        }
        if (awaited == Awaited::Again) continue;
        ProtocolFrame* buffer = unusedBuffer();
        if (buffer == nullptr) {
            TOVRA_LOG_ERROR(logger, kErrors, "No unused receive buffer available");
            if (noRequestPending()) {
                if (watchForEnd() && !thread_.stopRequested()) {
                    TOVRA_LOG_TRACE(logger, logcat::Reader, "Detected disconnect by reader");
                    disconnectedByReader = true;
                    break;
                }
                continue;
            }
            std::this_thread::sleep_for(kBuffersBusyPause);
            continue;
        }
        const std::int32_t received = record_.receive().receiveProtocol(*buffer);
        if (received == err::DisconnectedByPeer) {
            TOVRA_LOG_TRACE(logger, logcat::Reader, "Detected disconnect by reader");
            disconnectedByReader = true;
            release(*buffer);
            break;
        }
        if (received < 0) {
            release(*buffer);
            continue;
        }
        if (thread_.stopRequested()) break; // the buffer keeps its frame
        route(*buffer);
    }

    endTurns();
    TOVRA_LOG_TRACE(logger, logcat::Reader, "1port receiver thread stopped");
    transceive_.receiverEnded();
    callback_.signalEnd(disconnectedByReader);
}

bool TovraReceiver1P::route(ProtocolFrame& frame, bool mayWait)
{
    TovraLogger& logger = record_.logger();
    switch (frame.generation()) {
    case FrameGeneration::Enhanced: break;
    case FrameGeneration::Standard:
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation standard is not supported");
        release(frame);
        return true;
    case FrameGeneration::Advanced:
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation advanced is not supported");
        release(frame);
        return true;
    default:
        TOVRA_LOG_ERROR(logger, kErrors, "Unknown protocol generation");
        release(frame);
        return true;
    }
    const std::uint8_t flags = frame.directionFlags();
    if ((flags & kDirectionRequest) != 0) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Protocol generation enhanced reader request to app");
        markRequest(frame);
        if (mayWait) {
            if (!callback_.deliverRequest(frame)) release(frame);
            return true;
        }
        switch (callback_.tryDeliverRequest(frame)) {
        case TovraAppCallback1P::Delivery::Busy: return false;
        case TovraAppCallback1P::Delivery::Closed: release(frame); break;
        case TovraAppCallback1P::Delivery::Delivered: break;
        }
    } else if ((flags & kDirectionResponse) != 0) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Protocol generation enhanced reader response to app");
        transceive_.deliverResponse(frame);
    } else {
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation enhanced with unexpected trail");
        release(frame);
    }
    return true;
}

TovraReceiver1P::Awaited TovraReceiver1P::awaitData()
{
    const std::shared_ptr<TovraPlugin> plugin = record_.plugin();
    {
        std::unique_lock lock(turnLock_);
        awaitTurn(lock, [this] { return turn_ != Turn::Caller || thread_.stopRequested(); });
        if (thread_.stopRequested()) return Awaited::Again;
        if (takeOverFromCaller(lock)) return readerLeft_ ? Awaited::ReaderLeft : Awaited::Again;
        // With every buffer in use the loop goes on as it always does, data or not. Input
        // that a caller read ahead is there already: no watch would see it come.
        // Reading from here on keeps callers from taking a turn at the same bytes.
        if (!plugin || !plugin->canWaitReadable() || !anyUnused() || plugin->hasBufferedInput()) {
            turn_ = Turn::Reading;
            return Awaited::Read;
        }
        turn_ = Turn::Watching;
    }
    const int ready = plugin->watchReadable();
    std::lock_guard guard(turnLock_);
    // What a caller left behind comes before anything read now.
    if (turn_ == Turn::Caller || handedBack_ != nullptr || readerLeft_) return Awaited::Again;
    turn_ = Turn::Reading;
    return ready == TovraPlugin::kNotReadable ? Awaited::Again : Awaited::Read;
}

bool TovraReceiver1P::takeOverFromCaller(std::unique_lock<std::mutex>& lock)
{
    if (readerLeft_) return true;
    ProtocolFrame* request = std::exchange(handedBack_, nullptr);
    if (request == nullptr) return false;
    // No caller reads, and delivers, ahead of it meanwhile.
    turn_ = Turn::Reading;
    lock.unlock();
    // Waits for the callback thread to take it, as a request read here would.
    if (!callback_.deliverRequest(*request)) release(*request);
    lock.lock();
    return true;
}

template <typename Done>
void TovraReceiver1P::awaitTurn(std::unique_lock<std::mutex>& lock, Done done)
{
    ++turnWaiters_;
    turnChanged_.wait(lock, done);
    --turnWaiters_;
}

void TovraReceiver1P::endTurns()
{
    std::unique_lock lock(turnLock_);
    awaitTurn(lock, [this] { return turn_ != Turn::Caller; });
    turn_ = Turn::Ended;
    if (ProtocolFrame* request = std::exchange(handedBack_, nullptr)) release(*request);
}

bool TovraReceiver1P::beginCallersTurn()
{
    // The reader's own threads wait for nothing that this connection's threads do.
    if (WorkerThread::currentOwner() == record_.reader()) return false;
    std::shared_ptr<TovraPlugin> plugin = record_.plugin();
    if (!plugin) return false;
    std::lock_guard guard(turnLock_);
    if (turn_ != Turn::Watching || handedBack_ != nullptr || readerLeft_ || !plugin->pauseWatch()) return false;
    turn_ = Turn::Caller;
    turnPlugin_ = std::move(plugin);
    return true;
}

void TovraReceiver1P::endCallersTurn()
{
    std::shared_ptr<TovraPlugin> plugin; // let go of outside the lock
    bool waited = false;
    {
        std::lock_guard guard(turnLock_);
        if (turn_ != Turn::Caller) return;
        turn_ = Turn::Watching;
        plugin = std::move(turnPlugin_);
        plugin->resumeWatch();
        waited = turnWaiters_ > 0;
    }
    if (waited) turnChanged_.notify_all();
}

TovraReceiver1P::CallersRead TovraReceiver1P::readOnCallersTurn(int timeoutMs)
{
    TovraPlugin& plugin = *turnPlugin_;
    // Logging that shows the polls, switched on meanwhile, leaves them to the receiver.
    if (thread_.stopRequested() || !plugin.canWaitReadable()) return CallersRead::GiveBack;
    ProtocolFrame* buffer = unusedBuffer();
    if (buffer == nullptr) return CallersRead::GiveBack;

    const std::int32_t received = record_.receive().receiveProtocolWithin(plugin, *buffer, timeoutMs);
    if (received == err::ReceivePending) {
        release(*buffer);
        return CallersRead::Timeout;
    }
    if (received == err::DisconnectedByPeer || received == err::Terminated) {
        release(*buffer);
        std::lock_guard guard(turnLock_);
        readerLeft_ = received == err::DisconnectedByPeer;
        return CallersRead::GiveBack;
    }
    if (received < 0) {
        release(*buffer);
        return CallersRead::Read;
    }
    if (thread_.stopRequested()) return CallersRead::GiveBack; // the buffer keeps its frame
    if (route(*buffer, false)) return CallersRead::Read;
    std::lock_guard guard(turnLock_);
    handedBack_ = buffer;
    return CallersRead::GiveBack;
}

} // namespace tovra
