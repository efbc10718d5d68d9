#include "frame_assembler.h"

namespace zkcom {

void FrameAssembler::append(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) return;
    // Compact before growing, so that a long-lived port does not keep consumed bytes.
    if (start_ > 0) {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    bytes_.insert(bytes_.end(), data, data + size);
}

FrameAssembler::State FrameAssembler::state()
{
    frameLength_ = 0;
    while (buffered() > 0) {
        const std::uint8_t* head = bytes_.data() + start_;
        std::size_t length = head[0];
        if (length == 0) {
            drop(1);
            continue;
        }
        if (length < kMinLength) {
            if (buffered() < 3) return State::partial;
            length = std::size_t{head[1]} << 8 | head[2];
            if (length < kMinLength || length > kMaxLength) {
                drop(1);
                continue;
            }
        }
        if (buffered() < length) return State::partial;
        frameLength_ = length;
        return State::complete;
    }
    clear();
    return State::empty;
}

void FrameAssembler::dropFrame()
{
    drop(frameLength_);
    frameLength_ = 0;
}

void FrameAssembler::clear()
{
    position_ += buffered();
    bytes_.clear();
    start_ = 0;
    frameLength_ = 0;
}

void FrameAssembler::drop(std::size_t count)
{
    start_ += count;
    position_ += count;
    if (start_ == bytes_.size()) {
        bytes_.clear();
        start_ = 0;
    }
}

} // namespace zkcom
