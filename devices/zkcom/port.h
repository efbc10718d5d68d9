// One open port: its line, its settings and the bytes received but not yet handed out.
#pragma once

#include "frame_assembler.h"
#include "line_settings.h"
#include "serial_line.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace zkcom {

// Each further byte of a frame must follow the one before within this gap, else the frame
// counts as cut short. A tenth of a second is many byte times even at 1200 baud, and it
// leaves room for USB adapters, which hand bytes over in bursts every few milliseconds.
inline constexpr int kInterByteGapMs = 100;

class Port {
public:
    explicit Port(std::unique_ptr<SerialLine> line);
    // Puts the line into the initial settings (38400 8E1).
    std::int32_t start();
    // Marks the port closed and wakes whoever waits on it; the line itself closes when
    // the last caller inside leaves.
    void close();

    std::int32_t transmit(const std::uint8_t* data, std::size_t size);
    std::int32_t receive(std::uint8_t* buffer, std::size_t size);
    std::int32_t setParameter(const char* name, const char* value);
    std::int32_t getParameter(const char* name, char* value, std::size_t size);
    std::int32_t command(const char* name, const char* value);

private:
    std::int32_t applyLine(const LineSettings& settings);
    std::int32_t waitOutHangUp(std::int32_t result, std::chrono::steady_clock::time_point until);
    int transmitStallMs(std::size_t size) const;

    const std::unique_ptr<SerialLine> line_;
    std::atomic<bool> closed_{false};

    std::mutex settingsLock_; // settings_, rs485_, others_ and every change of the line
    LineSettings settings_;
    bool rs485_ = false;
    std::map<std::string, std::string> others_; // by lower-case name
    std::atomic<std::uint32_t> baud_{38400};
    std::atomic<int> timeoutMs_{300};
    // Counts changes of the line settings, so that a receive drops what it holds from before.
    std::atomic<std::uint64_t> lineGeneration_{0};

    std::mutex receiveLock_; // one receive at a time: assembler_, seenGeneration_
    FrameAssembler assembler_;
    std::uint64_t seenGeneration_ = 0;

    std::mutex transmitLock_; // one transmit at a time, so that frames never interleave
};

} // namespace zkcom
