#include "port.h"

#include "error_codes.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace zkcom {
namespace {

using Clock = std::chrono::steady_clock;

// A day: longer waits are a mistake rather than a wish.
constexpr std::uint32_t kMaxTimeoutMs = 24 * 60 * 60 * 1000;
// Read in pieces of this size; the assembler then holds at most one unfinished frame
// plus one piece.
constexpr std::size_t kReadChunk = 4096;

// Rounded up, so that a wait never ends just before its deadline and spins on zero.
int millisecondsUntil(Clock::time_point deadline, Clock::time_point now)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

} // namespace

Port::Port(std::unique_ptr<SerialLine> line) : line_(std::move(line)) {}

std::int32_t Port::start()
{
    std::lock_guard guard(settingsLock_);
    return line_->apply(settings_);
}

void Port::close()
{
    closed_ = true;
    line_->wake();
}

std::int32_t Port::transmit(const std::uint8_t* data, std::size_t size)
{
    std::lock_guard guard(transmitLock_);
    if (closed_) return kPortClosed;
    if (size == 0) return kOk;
    return line_->write(data, size, transmitStallMs(size));
}

// Enough for the driver's own buffer and the frame to leave the wire twice over at the
// current speed, plus slack: a port that takes nothing for that long takes nothing at all.
int Port::transmitStallMs(std::size_t size) const
{
    constexpr std::uint64_t kDriverBuffer = 4096;
    constexpr std::uint64_t kBitsPerByte = 11; // start, 8 data, parity, stop
    const std::uint64_t wireMs = (kDriverBuffer + size) * kBitsPerByte * 1000 / std::max<std::uint32_t>(baud_, 1);
    return static_cast<int>(std::min<std::uint64_t>(2000 + 2 * wireMs, INT_MAX));
}

std::int32_t Port::receive(std::uint8_t* buffer, std::size_t size)
{
    std::lock_guard guard(receiveLock_);
    const auto start = Clock::now();
    const auto firstByteDeadline = start + std::chrono::milliseconds(timeoutMs_.load());
    auto lastByte = start;
    bool readOnce = false; // a time-out of 0 still takes what is waiting
    std::uint8_t chunk[kReadChunk];
    for (;;) {
        if (closed_) return kPortClosed;
        const std::uint64_t generation = lineGeneration_;
        if (generation != seenGeneration_) {
            assembler_.clear();
            seenGeneration_ = generation;
        }
        const FrameAssembler::State state = assembler_.state();
        if (state == FrameAssembler::State::complete) {
            const std::size_t length = assembler_.frameLength();
            if (length <= size) std::memcpy(buffer, assembler_.frame(), length);
            assembler_.dropFrame();
            return length <= size ? static_cast<std::int32_t>(length) : kFrameTooLarge;
        }
        const bool partial = state == FrameAssembler::State::partial;
        const auto deadline = partial ? lastByte + std::chrono::milliseconds(kInterByteGapMs) : firstByteDeadline;
        const auto now = Clock::now();
        if (now >= deadline && readOnce) {
            if (!partial) return kTimeout;
            assembler_.clear();
            return kFrameIncomplete;
        }
        readOnce = true;
        const ReadResult read = line_->read(chunk, sizeof chunk, millisecondsUntil(deadline, now));
        switch (read.kind) {
        case ReadResult::data:
            // Settings changed while the read waited: what came before belongs to the old
            // ones. These bytes came after the change's flush, so they belong to the new.
            if (const std::uint64_t current = lineGeneration_; current != seenGeneration_) {
                assembler_.clear();
                seenGeneration_ = current;
            }
            assembler_.append(chunk, read.count);
            lastByte = Clock::now();
            break;
        case ReadResult::nothing:
            break;
        case ReadResult::woken:
            return kPortClosed;
        case ReadResult::hungUp:
            return waitOutHangUp(kHungUp, firstByteDeadline);
        case ReadResult::failed:
            return waitOutHangUp(kReceiveFailed, firstByteDeadline);
        }
    }
}

// A dead line answers at once, every time: a caller that receives in a loop would spin.
// It gets the answer no sooner than a quiet line would have given its time-out.
std::int32_t Port::waitOutHangUp(std::int32_t result, Clock::time_point until)
{
    const auto now = Clock::now();
    if (now < until) line_->pause(millisecondsUntil(until, now));
    return closed_ ? kPortClosed : result;
}

std::int32_t Port::applyLine(const LineSettings& settings)
{
    const std::int32_t result = line_->apply(settings);
    ++lineGeneration_;
    if (result != kOk) return result;
    settings_ = settings;
    baud_ = settings.baud;
    return kOk;
}

std::int32_t Port::setParameter(const char* name, const char* value)
{
    if (name == nullptr || value == nullptr || *name == '\0') return kInvalidArgument;
    const std::string_view key(name);
    const std::string_view text(value);
    std::lock_guard guard(settingsLock_);
    if (closed_) return kPortClosed;
    if (sameIgnoringCase(key, "baud")) {
        const auto baud = parseDecimal(text, UINT32_MAX);
        if (!baud || !isStandardBaud(*baud)) return kUnsupportedBaud;
        LineSettings next = settings_;
        next.baud = *baud;
        return applyLine(next);
    }
    if (sameIgnoringCase(key, "frame")) {
        LineSettings next = settings_;
        if (!parseFrameFormat(text, next)) return kInvalidFrameFormat;
        return applyLine(next);
    }
    if (sameIgnoringCase(key, "opmode")) {
        const bool rs485 = sameIgnoringCase(text, "RS485");
        if (!rs485 && !sameIgnoringCase(text, "RS232")) return kInvalidOpMode;
        const std::int32_t result = line_->setRs485(rs485);
        line_->dropInput();
        ++lineGeneration_;
        if (result == kOk) rs485_ = rs485;
        return result;
    }
    if (sameIgnoringCase(key, "timeout")) {
        const auto ms = parseDecimal(text, kMaxTimeoutMs);
        if (!ms) return kInvalidTimeout;
        timeoutMs_ = static_cast<int>(*ms);
        return kOk;
    }
    others_[lowerCase(key)] = std::string(text);
    return kOk;
}

std::int32_t Port::getParameter(const char* name, char* value, std::size_t size)
{
    if (name == nullptr || value == nullptr || size == 0) return kInvalidArgument;
    const std::string_view key(name);
    std::string text;
    {
        std::lock_guard guard(settingsLock_);
        if (sameIgnoringCase(key, "baud")) {
            text = std::to_string(settings_.baud);
        } else if (sameIgnoringCase(key, "frame")) {
            text = frameFormatText(settings_);
        } else if (sameIgnoringCase(key, "opmode")) {
            text = rs485_ ? "RS485" : "RS232";
        } else if (sameIgnoringCase(key, "timeout")) {
            text = std::to_string(timeoutMs_.load());
        } else {
            const auto found = others_.find(lowerCase(key));
            if (found == others_.end()) {
                value[0] = '\0';
                return kUnknownParameter;
            }
            text = found->second;
        }
    }
    const std::size_t copied = std::min(text.size(), size - 1);
    std::memcpy(value, text.data(), copied);
    value[copied] = '\0';
    return copied == text.size() ? kOk : kValueTruncated;
}

std::int32_t Port::command(const char* name, const char* value)
{
    if (name == nullptr || value == nullptr) return kInvalidArgument;
    ModemLine line;
    if (sameIgnoringCase(name, "SETRTS"))
        line = ModemLine::rts;
    else if (sameIgnoringCase(name, "SETDTR"))
        line = ModemLine::dtr;
    else
        return kUnknownCommand;
    const bool on = sameIgnoringCase(value, "ON");
    if (!on && !sameIgnoringCase(value, "OFF")) return kInvalidCommandValue;
    std::lock_guard guard(settingsLock_);
    if (closed_) return kPortClosed;
    return line_->setModemLine(line, on);
}

} // namespace zkcom
