// Feeds arbitrary byte streams, in arbitrary pieces, to the serial device library's frame
// assembly. Each input is a list of pieces: a control byte, then that many stream bytes
// (a control byte of 0 drops what is buffered, as a receive does when a frame is cut short).
#include "frame_assembler.h"

#include <cstdlib>
#include <cstring>
#include <vector>

using zkcom::FrameAssembler;

namespace {

std::size_t declaredLength(const std::uint8_t* frame)
{
    return frame[0] >= FrameAssembler::kMinLength ? frame[0] : std::size_t{frame[1]} << 8 | frame[2];
}

void check(bool condition)
{
    if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FrameAssembler assembler;
    std::vector<std::uint8_t> stream;
    std::uint64_t frameEnd = 0;
    std::size_t at = 0;
    while (at < size) {
        const std::size_t piece = data[at++];
        if (piece == 0) {
            assembler.clear();
            check(assembler.buffered() == 0 && assembler.position() == stream.size());
            continue;
        }
        const std::size_t taken = piece < size - at ? piece : size - at;
        stream.insert(stream.end(), data + at, data + at + taken);
        assembler.append(data + at, taken);
        at += taken;

        while (assembler.state() == FrameAssembler::State::complete) {
            const std::size_t length = assembler.frameLength();
            const std::uint8_t* frame = assembler.frame();
            // The length its first bytes declare, in range, after the frame before it, and
            // byte for byte where it lies in the stream.
            check(frame[0] != 0 && length >= FrameAssembler::kMinLength && length <= FrameAssembler::kMaxLength);
            check(declaredLength(frame) == length);
            check(assembler.position() >= frameEnd && assembler.position() + length <= stream.size());
            check(std::memcmp(frame, stream.data() + assembler.position(), length) == 0);
            frameEnd = assembler.position() + length;
            assembler.dropFrame();
        }
        // Never more than one unfinished frame and the piece that came with it.
        check(assembler.buffered() < FrameAssembler::kMaxLength + 256);
        check(assembler.position() + assembler.buffered() == stream.size());
    }
    return 0;
}
