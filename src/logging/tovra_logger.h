#pragma once

#include "logging/zk_logger_base.h"
#include "tovra/tovra.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tovra {

// The logger of one reader (lines tagged "RH=" handle) or of a discovery manager (lines
// tagged with the manager's name), with the application's own outputs for dump and
// application records.
class TovraLogger : public ZkLoggerBase {
public:
    explicit TovraLogger(std::uint32_t readerHandle);
    // Manager loggers: "COMman", "USBman", "BLEman", "UDPman".
    static std::unique_ptr<TovraLogger> forManager(std::string managerTag);

    void configure(const std::string& sectionText, char separator) override;

    // Records; call sites test the category first (see logging/log.h).
    void trace(std::string_view method, int line, std::string_view message);
    void error(std::string_view method, int line, std::string_view message);
    void dump(std::string_view header, std::string_view body);
    void appendAppMessage(std::string_view text);

    void setAppCallback(void* context, TOVRA_AppLoggingCallback callback);
    void setAppFilename(const std::string& fileName);
    void setAppUdpDestination(const std::string& address, std::uint32_t port);

    std::uint32_t readerHandle() const { return readerHandle_; }

private:
    TovraLogger(std::uint32_t readerHandle, std::string recordTag);

    std::string traceHeader(std::string_view method, int line) const;
    // Dump and application records also reach the application's outputs.
    void writeWithAppOutputs(std::string_view header, std::string_view body);

    const std::string recordTag_;

    std::mutex callbackLock_;
    bool appCallbackOn_ = false;
    TOVRA_AppLoggingCallback appCallback_ = nullptr;
    void* appCallbackContext_ = nullptr;

    std::mutex appFileLock_;
    bool appFileOn_ = false;
    std::string appFileName_;

    std::mutex appUdpLock_;
    UdpSender appUdp_;
};

} // namespace tovra
