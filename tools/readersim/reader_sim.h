// A simulated reader on a loopback TCP connection, for tests, benchmarks and the
// demo. As a server it accepts connections one after another and serves each
// until it ends; as a client it connects to a listening host and serves that
// one connection. It answers requests (echo by default, or scripted), sends
// requests of its own, records what it receives, and can misbehave on demand.
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

    // --- Modes (one at a time; stop() ends either) ---------------------------
    // Listens on 127.0.0.1 (::1 with ipv6); port 0 lets the system choose.
    bool listen(std::uint16_t port = 0, bool ipv6 = false);
    std::uint16_t port() const;  // the listening port, 0 when not listening
    // Connects to a numeric loopback address (or "localhost") and serves that
    // connection until it ends; may be called again afterwards.
    bool connect(const std::string& host, std::uint16_t port, milliseconds timeout = milliseconds(5000));
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
    // once it is closed. A server then accepts the next one.
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
