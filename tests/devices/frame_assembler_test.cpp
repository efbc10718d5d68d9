#include "frame_assembler.h"
#include "raw_frames.h"

#include <gtest/gtest.h>

#include <vector>

namespace zkcom {
namespace {

using zkcom::test::Bytes;
using zkcom::test::frameOf;
using State = FrameAssembler::State;


// Every frame the assembler gives for the bytes, fed in pieces of `piece` bytes.
std::vector<Bytes> framesFrom(const Bytes& stream, std::size_t piece, FrameAssembler& assembler)
{
    std::vector<Bytes> frames;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        assembler.append(stream.data() + at, std::min(piece, stream.size() - at));
        while (assembler.state() == State::complete) {
            frames.emplace_back(assembler.frame(), assembler.frame() + assembler.frameLength());
            assembler.dropFrame();
        }
    }
    return frames;
}

TEST(FrameAssembler, FindsTheSameFramesWhateverPiecesTheyComeIn)
{
    const Bytes shortFrame = frameOf(7, 0x11);
    const Bytes longFrame = frameOf(300, 0x22);
    const Bytes largest = frameOf(FrameAssembler::kMaxLength, 0x33);
    Bytes stream;
    for (const Bytes* frame : {&shortFrame, &longFrame, &largest, &shortFrame})
        stream.insert(stream.end(), frame->begin(), frame->end());

    for (std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{3}, std::size_t{4096}, stream.size()}) {
        FrameAssembler assembler;
        const auto frames = framesFrom(stream, piece, assembler);
        ASSERT_EQ(frames.size(), 4u) << "pieces of " << piece;
        EXPECT_EQ(frames[0], shortFrame);
        EXPECT_EQ(frames[1], longFrame);
        EXPECT_EQ(frames[2], largest);
        EXPECT_EQ(frames[3], shortFrame);
        EXPECT_EQ(assembler.state(), State::empty);
        EXPECT_EQ(assembler.position(), stream.size());
    }
}

TEST(FrameAssembler, SkipsIdleBytesAndResynchronisesOnImpossibleLengths)
{
    // Zeros and a long head declaring 4 (too short) come to nothing.
    Bytes stream = {0x00, 0x00, 0x01, 0x00, 0x04, 0x00, 0x00};
    const std::size_t idle = stream.size();
    // A head declaring 32769 loses one byte; its length's high byte then heads 128 bytes.
    Bytes tooLong = {0x02, 0x80, 0x01};
    tooLong.resize(129, 0xAB);
    const Bytes frame = frameOf(6, 0x44);
    stream.insert(stream.end(), tooLong.begin(), tooLong.end());
    stream.insert(stream.end(), frame.begin(), frame.end());

    FrameAssembler assembler;
    assembler.append(stream.data(), stream.size());
    ASSERT_EQ(assembler.state(), State::complete);
    EXPECT_EQ(assembler.position(), idle + 1);
    EXPECT_EQ(Bytes(assembler.frame(), assembler.frame() + assembler.frameLength()), Bytes(tooLong.begin() + 1, tooLong.end()));
    assembler.dropFrame();
    ASSERT_EQ(assembler.state(), State::complete);
    EXPECT_EQ(Bytes(assembler.frame(), assembler.frame() + assembler.frameLength()), frame);
}

TEST(FrameAssembler, WaitsForTheLengthAndTheRestOfAFrame)
{
    FrameAssembler assembler;
    const Bytes head = {0x04, 0x00};
    assembler.append(head.data(), head.size());
    EXPECT_EQ(assembler.state(), State::partial); // length byte still missing

    const Bytes rest = {0x05, 0xAA, 0xBB};
    assembler.append(rest.data(), 1);
    EXPECT_EQ(assembler.state(), State::partial);
    assembler.append(rest.data() + 1, 2);
    ASSERT_EQ(assembler.state(), State::complete);
    EXPECT_EQ(assembler.frameLength(), 5u);

    // What follows a frame stays: a cleared assembler starts afresh.
    const Bytes next = {0x09, 0x01};
    assembler.append(next.data(), next.size());
    assembler.dropFrame();
    EXPECT_EQ(assembler.state(), State::partial);
    EXPECT_EQ(assembler.buffered(), 2u);
    assembler.clear();
    EXPECT_EQ(assembler.state(), State::empty);
    EXPECT_EQ(assembler.position(), 7u);
}

} // namespace
} // namespace zkcom
