#pragma once

#include "logging/logging_state.h"
#include "logging/udp_sender.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tovra {

// "%04u.%06u": seconds and microseconds since the library was loaded.
std::string relativeStampText(std::int64_t elapsedMicros);
// Local time "%Y.%m.%d-%H.%M.%S" and ".%06u" microseconds.
std::string absoluteStampText(std::int64_t wallMicros);

// Turns records into lines and sends them to the outputs of the "OUTPUTTER" section:
// console, shared or per-reader file, UDP and the global callback.
class ZkLoggerBase {
public:
    virtual ~ZkLoggerBase() = default;
    ZkLoggerBase(const ZkLoggerBase&) = delete;
    ZkLoggerBase& operator=(const ZkLoggerBase&) = delete;

    // time stamp " :: " name header " :: " body
    virtual void write(const std::string& timeStamp, std::string_view header, std::string_view body);
    virtual void output(const std::string& line);
    // Reads the logger's own section (category switches).
    virtual void configure(const std::string& sectionText, char separator) = 0;

    std::string timeStampText() const;

    bool isEnabled(std::uint32_t mask) const { return (flags_.load(std::memory_order_relaxed) & mask) != 0; }
    bool isProtocolOn() const;
    bool isPayloadOn() const;
    std::uint32_t flags() const { return flags_.load(std::memory_order_relaxed); }

    const std::string& name() const { return name_; }
    const std::string& filePath() const { return filePath_; }

protected:
    ZkLoggerBase(std::string name, std::uint32_t readerHandle);

    std::string composeLine(const std::string& timeStamp, std::string_view header, std::string_view body) const;
    // Sets and clears category bits in one step (the flag word is read without locks).
    void updateFlags(std::uint32_t set, std::uint32_t clear);
    static bool isOn(const std::string& value) { return value != "off" && value != "0"; }

    LoggingState& state_;
    const std::string name_;
    const std::uint32_t readerHandle_;

private:
    void configureOutputs(const std::string& sectionText);

    std::atomic<std::uint32_t> flags_{0};
    std::string filePath_;
    std::mutex fileLock_;
    bool headerPending_ = true;
    bool relativeTime_ = false;
    bool console_ = false;
    bool sharedFile_ = false;
    bool perReaderFile_ = false;
    bool logcat_ = false; // kept; there is no logcat on these platforms
    UdpSender udp_;
};

} // namespace tovra
