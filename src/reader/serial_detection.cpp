// Finding the line settings of a reader on a serial port: the port is opened, then each
// candidate setting is tried with a probe request until the reader answers.
#include "api/error_codes.h"
#include "logging/log.h"
#include "reader/connector.h"
#include "reader/tovra_reader.h"

#include <array>
#include <chrono>
#include <span>
#include <string>
#include <thread>

namespace tovra {
namespace {

constexpr std::uint32_t kReaderErrors = logcat::Error | logcat::Reader;
constexpr std::uint32_t kProbeTimeoutMs = 200;
constexpr std::uint32_t kConnectedTimeoutMs = 5000;
constexpr std::uint64_t kProbeResponseCapacity = 32;

// Within each rate: even parity, no parity, odd parity. The first nine are the short list.
constexpr std::array<const char*, 21> kCandidates = {
    "Baud=38400:Frame=8E1",  "Baud=38400:Frame=8N1",  "Baud=38400:Frame=8O1",  "Baud=57600:Frame=8E1",
    "Baud=57600:Frame=8N1",  "Baud=57600:Frame=8O1",  "Baud=115200:Frame=8E1", "Baud=115200:Frame=8N1",
    "Baud=115200:Frame=8O1", "Baud=230400:Frame=8E1", "Baud=230400:Frame=8N1", "Baud=230400:Frame=8O1",
    "Baud=19200:Frame=8E1",  "Baud=19200:Frame=8N1",  "Baud=19200:Frame=8O1",  "Baud=9600:Frame=8E1",
    "Baud=9600:Frame=8N1",   "Baud=9600:Frame=8O1",   "Baud=4800:Frame=8E1",   "Baud=4800:Frame=8N1",
    "Baud=4800:Frame=8O1",
};
constexpr std::size_t kShortList = 9;

std::span<const char* const> candidatesFor(std::int32_t detectMode)
{
    return detectMode == 1 ? std::span<const char* const>(kCandidates).first(kShortList)
                           : std::span<const char* const>(kCandidates);
}

// "%u" of the bus address text, 255 when it reads no number.
unsigned busAddressOf(const std::string& text)
{
    unsigned value = 0;
    return std::sscanf(text.c_str(), "%u", &value) == 1 ? value : 255;
}

} // namespace

std::int32_t TovraReader::detectSerial(const char* detection)
{
    lastError_.store(0);
    const ConnectorKeys keys(detection);
    if (connectorSectionName(detection) != "com" || !keys.has("device")) return fail(err::DetectionParameter);
    const unsigned busAddress = keys.has("busaddress") ? busAddressOf(keys.text("busaddress")) : 255;
    const auto pause = std::chrono::milliseconds(keys.number("detectdelay", 5));
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Detect: ", detection);

    const std::string connection = "COM:Device=" + keys.text("device") + ":BusAddress=" + std::to_string(busAddress);
    const std::int32_t connected = connectByHost(connection.c_str());
    if (connected < 0) return connected;
    setReceiveTimeout(kProbeTimeoutMs);

    const std::uint8_t probe[] = {0x52, 0x00};
    for (const char* candidate : candidatesFor(keys.number("detectmode", 0))) {
        paramPlugin(hostRecord(), candidate);
        const std::string description = connection + ":" + candidate;
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Detect(", generationLabel(hostRecord().frameType()), ") ",
                        description);
        TOVRA_DetectSerialCallback callback = nullptr;
        void* context = nullptr;
        {
            std::lock_guard guard(detectLock_);
            callback = detectCallback_;
            context = detectContext_;
        }
        if (callback != nullptr) callback(handle_, context, description.c_str());
        std::this_thread::sleep_for(pause);

        std::uint8_t response[kProbeResponseCapacity];
        std::uint64_t responseLength = sizeof response;
        if (transceive(probe, sizeof probe, response, &responseLength) == err::Ok) {
            TOVRA_LOG_TRACE(logger_, logcat::Reader, "Detect OK");
            setReceiveTimeout(kConnectedTimeoutMs);
            hostRecord().setConnector(description.c_str());
            std::this_thread::sleep_for(pause);
            lastError_.store(err::Ok);
            return err::Ok;
        }
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Detect failed");
    }
    setReceiveTimeout(kConnectedTimeoutMs);
    disconnectByHost();
    return fail(err::DetectionFailed);
}

} // namespace tovra
