#include "protocol/receiver_1p.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "protocol/app_callback_1p.h"
#include "protocol/app_transceive_1p.h"
#include "reader/connection_record.h"

#include <chrono>

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

void TovraReceiver1P::stop()
{
    thread_.requestStop();
    record_.receive().abort();
    // A receiver waiting to hand a request over must not wait for a taker that stops.
    callback_.closeDelivery();
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
    bool disconnectedByReader = false;

    while (!thread_.stopRequested()) {
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

    TOVRA_LOG_TRACE(logger, logcat::Reader, "1port receiver thread stopped");
    transceive_.receiverEnded();
    callback_.signalEnd(disconnectedByReader);
}

void TovraReceiver1P::route(ProtocolFrame& frame)
{
    TovraLogger& logger = record_.logger();
    switch (frame.generation()) {
    case FrameGeneration::Enhanced: break;
    case FrameGeneration::Standard:
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation standard is not supported");
        release(frame);
        return;
    case FrameGeneration::Advanced:
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation advanced is not supported");
        release(frame);
        return;
    default:
        TOVRA_LOG_ERROR(logger, kErrors, "Unknown protocol generation");
        release(frame);
        return;
    }
    const std::uint8_t flags = frame.directionFlags();
    if ((flags & kDirectionRequest) != 0) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Protocol generation enhanced reader request to app");
        markRequest(frame);
        if (!callback_.deliverRequest(frame)) release(frame);
    } else if ((flags & kDirectionResponse) != 0) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Protocol generation enhanced reader response to app");
        transceive_.deliverResponse(frame);
    } else {
        TOVRA_LOG_ERROR(logger, kErrors, "Protocol generation enhanced with unexpected trail");
        release(frame);
    }
}

} // namespace tovra
