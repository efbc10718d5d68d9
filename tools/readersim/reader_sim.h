// A simulated reader on a loopback TCP connection or a serial line, for tests,
// benchmarks and the demo. As a server it accepts connections one after another
// and serves each until it ends; as a client it connects to a listening host and
// serves that one connection; on a serial line it owns a pseudo-terminal whose
// slave side is the host's port. It answers requests (echo by default, or
// scripted), sends requests of its own, records what it receives, and can
// misbehave on demand.
#pragma once

#include "readersim/frame_codec.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tovra::readersim {

using std::chrono::milliseconds;

// The answer to a request. A response is sent in the request's generation with
// the request's bus address (enhanced: direction flags 0x02); its payload is
// [command code, status] + data, or data alone when raw, truncated to the
// largest payload of the generation.
struct Reply {
    std::vector<std::uint8_t> data;
    std::uint8_t status = 0x00;
    bool raw = false;
    bool silent = false;  // no response at all
    milliseconds delay{0};  // wait this long before answering

    static Reply with(std::vector<std::uint8_t> data, std::uint8_t status = 0x00);
    static Reply payload(std::vector<std::uint8_t> whole);  // raw
    static Reply none();
};

// Misbehaviour applied to the responses the simulator would send. A request that
// gets no response (silent reply) is left alone and does not use up the count.
enum class FaultKind {
    none,
    silence,          // send nothing
    badCrc,           // the first CRC byte is inverted
    wrongGeneration,  // answered in Fault::generation instead of the request's
    noDirection,      // an enhanced response whose direction flags are 0x00
    declaredLength,   // the length field says Fault::declaredLength (CRC still
                      // correct for the bytes sent); standard frames get its low byte
    closeMidFrame,    // the first half of the response (at least 1 byte), then close
    trickle,          // one byte at a time, Fault::byteDelay apart
    reset,            // zero-linger close (RST) instead of answering
    flood,            // the response Fault::floodCount times back to back
};

struct Fault {
    FaultKind kind = FaultKind::none;
    int count = -1;  // responses affected; negative: until changed or cleared
    Generation generation = Generation::advanced;
    std::uint16_t declaredLength = 32769;
    milliseconds byteDelay{2};
    int floodCount = 100;
};

// Settings of a serial line. A pseudo-terminal shows its user's speed, parity and
// stop bits but not the data bits, which are kept for the text only.
struct LineSettings {
    int baud = 9600;
    int dataBits = 8;
    char parity = 'N';  // 'N', 'E' or 'O'
    int stopBits = 1;

    // "9600:8E1", "9600 8E1", or the speed alone for 8N1; parity in either case.
    static std::optional<LineSettings> parse(std::string_view text);
    std::string text() const;  // "9600 8E1"
    bool operator==(const LineSettings&) const = default;
};

struct ReceivedFrame {
    Frame frame;
    std::vector<std::uint8_t> bytes;  // as they came over the wire
    bool crcOk = false;
};

class ReaderSim {
public:
    ReaderSim();
    ~ReaderSim();  // stop()
    ReaderSim(const ReaderSim&) = delete;
    ReaderSim& operator=(const ReaderSim&) = delete;

    // --- Modes (one at a time; stop() ends any) -------------------------------
    // Listens on 127.0.0.1 (::1 with ipv6); port 0 lets the system choose.
    bool listen(std::uint16_t port = 0, bool ipv6 = false);
    std::uint16_t port() const;  // the listening port, 0 when not listening
    // Connects to a numeric loopback address (or "localhost") and serves that
    // connection until it ends; may be called again afterwards.
    bool connect(const std::string& host, std::uint16_t port, milliseconds timeout = milliseconds(5000));
    // Creates a pseudo-terminal and serves its slave side as a serial line (Linux
    // only). Requests are heard only while the slave's user has set the speed,
    // parity and stop bits of answerAt; at other settings the line carries nothing
    // either way: received bytes are discarded (discardedBytes()) and what the
    // simulator sends is lost. Input is never kept across a change of settings.
    // The pseudo-terminal is the connection: it lasts until closed (closeConnection,
    // a fault that closes, stop()), and its users then see a hang-up.
    bool servePty(const LineSettings& answerAt);
    std::string ptyPath() const;  // the slave's path, "" when there is none
    void setLineSettings(const LineSettings& answerAt);  // also while serving
    // Closes every socket and joins the thread. Rules, faults and records stay.
    void stop();

    // --- Answers --------------------------------------------------------------
    // An exact request payload wins over its command code; anything else gets
    // the echo: [command code, 0x00] + request payload[1..], truncated to fit.
    void setReply(std::uint8_t command, Reply reply);
    void setReply(std::vector<std::uint8_t> requestPayload, Reply reply);
    void clearReplies();
    void setFault(const Fault& fault);
    void setFault(FaultKind kind) { setFault(Fault{.kind = kind}); }
    void clearFault() { setFault(FaultKind::none); }

    // --- Requests of the reader ------------------------------------------------
    // Sends an enhanced request (bus address 0xFF) and waits for the host's
    // enhanced response (direction bit 0x02 without 0x01); its payload, or
    // nothing on time-out or when the connection ends.
    std::optional<std::vector<std::uint8_t>> sendRequest(std::vector<std::uint8_t> payload,
                                                         std::uint8_t directionFlags = kDirectionRequest,
                                                         milliseconds timeout = milliseconds(5000));
    // Any generation. For a standard or advanced request, the next frame of the
    // same generation counts as its response.
    std::optional<Frame> sendRequestFrame(const Frame& request, milliseconds timeout = milliseconds(5000));
    // Unsolicited output: a frame, or raw bytes. False when not connected.
    bool sendFrame(const Frame& frame);
    bool sendRaw(std::span<const std::uint8_t> bytes);

    // --- Connection -------------------------------------------------------------
    bool isConnected() const;
    bool waitForConnection(milliseconds timeout);  // until a connection is open
    bool waitForConnections(std::size_t total, milliseconds timeout);  // accepted in total
    bool waitForDisconnect(milliseconds timeout);  // until none is open
    // End the open connection now (ordinary close, or zero-linger reset); return
    // once it is closed. A server then accepts the next one. A pseudo-terminal
    // closes too; an ordinary close first gives its user a moment to read what was
    // already sent, as bytes on a wire would still arrive.
    void closeConnection();
    void resetConnection();

    // --- Observation ----------------------------------------------------------
    std::size_t connectionsAccepted() const;  // client connections count too
    std::size_t requestsSeen() const;         // requests with a good CRC
    std::size_t framesReceived() const;       // all whole frames, bad CRC included
    std::size_t badFrames() const;            // frames with a bad CRC (never answered)
    std::size_t discardedBytes() const;       // bytes that could not start a frame
    std::vector<ReceivedFrame> received() const;  // the most recent frames, oldest first
    bool waitForFrames(std::size_t total, milliseconds timeout);  // framesReceived() >= total
    void clearReceived();
    void setRecordLimit(std::size_t frames);  // default 1024; older frames are dropped

    // Receives one line per event (connections; with verbose, every frame).
    // Called on the simulator's thread.
    void setLog(std::function<void(const std::string&)> log, bool verbose = false);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovra::readersim
