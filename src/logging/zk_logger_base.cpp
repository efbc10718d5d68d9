#include "logging/zk_logger_base.h"

#include "logging/log_categories.h"
#include "parameter/atoi_like.h"
#include "platform/clock.h"
#include "platform/system.h"
#include "tovra/zk_parameter.h"

#include <cinttypes>
#include <cstdio>

namespace tovra {

ZkLoggerBase::ZkLoggerBase(std::string name, std::uint32_t readerHandle)
    : state_(LoggingState::instance()), name_(std::move(name)), readerHandle_(readerHandle)
{
    configureOutputs(state_.getSection("OUTPUTTER"));
}

void ZkLoggerBase::configureOutputs(const std::string& sectionText)
{
    std::string path = ".";
    std::string file = "log-" + libraryStart().text;
    std::string udpAddress;
    std::int64_t udpPort = -1;

    // Entries apply in the order they stand: a later one overrides an earlier one.
    std::string tag, value;
    for (const char* p = sectionText.c_str(); p != nullptr;) {
        p = ZkParameter::parseSection(p, tag, value, '\n', true);
        const bool on = isOn(value);
        if (tag == "logreltime") relativeTime_ = on;
        else if (tag == "logabstime") relativeTime_ = !on;
        else if (tag == "logpath") path = value;
        else if (tag == "logfile") file = value;
        else if (tag == "logconsole") console_ = on;
        else if (tag == "logfileshared") {
            sharedFile_ = on;
            if (on) perReaderFile_ = false;
        } else if (tag == "logfileperreader") {
            perReaderFile_ = on;
            if (on) sharedFile_ = false;
        } else if (tag == "androidlogcat") logcat_ = on;
        else if (tag == "logudpaddr") udpAddress = value;
        else if (tag == "logudpport") udpPort = atoiLike(value);
    }

    // The separator is appended even when the path already ends in one.
    const std::string base = path + platform::pathSeparator() + file + "-" + name_;
    if (sharedFile_) filePath_ = base + ".log";
    else if (perReaderFile_) filePath_ = base + "-RH" + std::to_string(readerHandle_) + ".log";
    if (!udpAddress.empty()) udp_.open(udpAddress, udpPort);
}

bool ZkLoggerBase::isProtocolOn() const { return isEnabled(logcat::Protocol); }

bool ZkLoggerBase::isPayloadOn() const { return isEnabled(logcat::Payload); }

void ZkLoggerBase::updateFlags(std::uint32_t set, std::uint32_t clear)
{
    std::uint32_t current = flags_.load(std::memory_order_relaxed);
    while (!flags_.compare_exchange_weak(current, (current | set) & ~clear, std::memory_order_relaxed)) {
    }
}

std::string relativeStampText(std::int64_t elapsedMicros)
{
    const auto micros = static_cast<std::uint64_t>(elapsedMicros < 0 ? 0 : elapsedMicros);
    char text[48];
    std::snprintf(text, sizeof text, "%04" PRIu64 ".%06" PRIu64, micros / 1000000, micros % 1000000);
    return text;
}

std::string absoluteStampText(std::int64_t wallMicros)
{
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06u", static_cast<unsigned>(wallMicros % 1000000));
    return platform::formatLocalTime(wallMicros, "%Y.%m.%d-%H.%M.%S") + fraction;
}

std::string ZkLoggerBase::timeStampText() const
{
    if (relativeTime_) return relativeStampText(platform::monotonicMicros() - libraryStart().monotonicMicros);
    return absoluteStampText(platform::wallClockMicros());
}

void ZkLoggerBase::write(const std::string& timeStamp, std::string_view header, std::string_view body)
{
    output(composeLine(timeStamp, header, body));
}

std::string ZkLoggerBase::composeLine(const std::string& timeStamp, std::string_view header,
                                      std::string_view body) const
{
    std::string line;
    line.reserve(timeStamp.size() + name_.size() + header.size() + body.size() + 8);
    line += timeStamp;
    line += " :: ";
    line += name_;
    line += header;
    line += " :: ";
    line += body;
    return line;
}

void ZkLoggerBase::output(const std::string& line)
{
    if (console_) state_.writeConsole(line);
    if (sharedFile_) state_.writeSharedFile(filePath_, line);
    if (perReaderFile_) {
        std::lock_guard guard(fileLock_);
        appendLogLine(filePath_, line, state_.headerText(), headerPending_);
    }
    if (udp_.valid()) udp_.send(line + "\n");
    state_.callGlobalCallback(line);
}

} // namespace tovra
