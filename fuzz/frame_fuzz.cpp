// Feeds arbitrary bytes to the frame parser, checker, accessors and dumps.
#include "protocol/frame_dump.h"
#include "protocol/protocol_frame.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

using tovra::ProtocolFrame;

namespace {

volatile std::size_t observed = 0;

void touchEverything(const ProtocolFrame& frame)
{
    std::size_t sink = frame.declaredLength() + frame.headerSize() + frame.busAddress() + frame.commandCode() +
            frame.status() + frame.directionFlags() + frame.storedCrc() + frame.payload().size() +
            frame.generationLabel().size() + frame.directionLabel().size();
    sink += tovra::frameDumpHeader(1, "SingleCh", frame, true).size();
    sink += tovra::frameDumpBody(tovra::DumpDirection::Receive, frame, true).size();
    sink += tovra::frameDumpBody(tovra::DumpDirection::Send, frame, false).size();
    observed = sink;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto frame = std::make_unique<ProtocolFrame>();
    static auto again = std::make_unique<ProtocolFrame>();

    // As hex text: a parsed frame dumps and reads back to the same bytes unless masked.
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (tovra::hexToFrame(*frame, text)) {
        touchEverything(*frame);
        const std::string dump = tovra::frameToHex(*frame);
        if (dump.find('#') == std::string::npos) {
            if (!tovra::hexToFrame(*again, dump) || again->length != frame->length ||
                std::memcmp(again->bytes.data(), frame->bytes.data(), frame->usedLength()) != 0)
                std::abort();
        }
    }

    // As raw bytes after a length count that may disagree with them, now and then
    // beyond the buffer.
    if (size >= 2) {
        frame->clear();
        const std::size_t copied = std::min(size - 2, ProtocolFrame::maxLength);
        std::memcpy(frame->bytes.data(), data + 2, copied);
        const std::uint64_t claimed = std::uint64_t{data[0]} << 8 | data[1];
        frame->length = data[0] == 0xFF ? claimed << 2 : claimed % (copied + 16);
        tovra::isValidFrame(*frame);
        touchEverything(*frame);
    }

    // As a payload: every built frame checks out.
    for (std::uint8_t generation : {0, 2, 3}) {
        if (tovra::buildFrame(*frame, data, size, generation, 1, 0xFF) && !tovra::isValidFrame(*frame))
            std::abort();
    }
    return 0;
}
