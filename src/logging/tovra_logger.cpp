#include "logging/tovra_logger.h"

#include "logging/log_categories.h"
#include "platform/file.h"
#include "platform/thread.h"
#include "tovra/zk_parameter.h"

#include <array>
#include <utility>

namespace tovra {
namespace {

struct CategorySwitch {
    std::string_view option;
    std::uint32_t bit;
};

constexpr std::array<CategorySwitch, 12> kCategorySwitches = {{
    {"logreader", logcat::Reader},
    {"logudpmanager", logcat::UdpManager},
    {"logcommanager", logcat::ComManager},
    {"logusbmanager", logcat::UsbManager},
    {"logblemanager", logcat::BleManager},
    {"logtcp", logcat::Tcp},
    {"logusb", logcat::Usb},
    {"logcom", logcat::Com},
    {"logble", logcat::Ble},
    {"loggadget", logcat::Gadget},
    {"logcust", logcat::Cust},
    {"logerror", logcat::Error},
}};

std::string threadIdText() { return std::to_string(platform::currentThreadId()); }

} // namespace

TovraLogger::TovraLogger(std::uint32_t readerHandle)
    : TovraLogger(readerHandle, "RH=" + std::to_string(readerHandle))
{
}

TovraLogger::TovraLogger(std::uint32_t readerHandle, std::string recordTag)
    : ZkLoggerBase("TOVRA", readerHandle), recordTag_(std::move(recordTag))
{
    configure(state_.getSection(name_), '\n');
}

std::unique_ptr<TovraLogger> TovraLogger::forManager(std::string managerTag)
{
    return std::unique_ptr<TovraLogger>(new TovraLogger(0, std::move(managerTag)));
}

void TovraLogger::configure(const std::string& sectionText, char separator)
{
    std::string tag, value;
    for (const char* p = sectionText.c_str(); p != nullptr;) {
        p = ZkParameter::parseSection(p, tag, value, separator, true);
        const bool on = isOn(value);
        // Protocol and payload dumps exclude each other.
        if (tag == "logprotocol") updateFlags(on ? logcat::Protocol : 0, on ? logcat::Payload : logcat::Protocol);
        else if (tag == "logpayload") updateFlags(on ? logcat::Payload : 0, on ? logcat::Protocol : logcat::Payload);
        for (const auto& entry : kCategorySwitches)
            if (tag == entry.option) updateFlags(on ? entry.bit : 0, on ? 0 : entry.bit);
    }
}

std::string TovraLogger::traceHeader(std::string_view method, int line) const
{
    std::string header = " " + recordTag_ + " TID=" + threadIdText() + " ";
    header += method;
    header += ':';
    header += std::to_string(line);
    return header;
}

void TovraLogger::trace(std::string_view method, int line, std::string_view message)
{
    write(timeStampText(), traceHeader(method, line), message);
}

void TovraLogger::error(std::string_view method, int line, std::string_view message)
{
    write(timeStampText(), traceHeader(method, line) + " ERROR", message);
}

void TovraLogger::dump(std::string_view header, std::string_view body)
{
    writeWithAppOutputs(header, body);
}

void TovraLogger::appendAppMessage(std::string_view text)
{
    writeWithAppOutputs(" APP" + std::to_string(readerHandle_) + " TID=" + threadIdText(), text);
}

void TovraLogger::writeWithAppOutputs(std::string_view header, std::string_view body)
{
    const std::string line = composeLine(timeStampText(), header, body);
    output(line);

    {
        std::lock_guard guard(appFileLock_);
        if (appFileOn_) platform::appendToFile(appFileName_.c_str(), line + "\n");
    }
    TOVRA_AppLoggingCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard guard(callbackLock_);
        if (appCallbackOn_) {
            callback = appCallback_;
            context = appCallbackContext_;
        }
    }
    // The application's callback runs without any library lock held.
    if (callback != nullptr) callback(static_cast<std::int32_t>(readerHandle_), context, line.c_str());
    {
        std::lock_guard guard(appUdpLock_);
        appUdp_.send(line + "\n");
    }
}

void TovraLogger::setAppCallback(void* context, TOVRA_AppLoggingCallback callback)
{
    {
        std::lock_guard guard(callbackLock_);
        appCallback_ = callback;
        appCallbackContext_ = context;
        appCallbackOn_ = callback != nullptr;
    }
    if (callback != nullptr) updateFlags(logcat::Protocol, logcat::Payload);
}

void TovraLogger::setAppFilename(const std::string& fileName)
{
    {
        std::lock_guard guard(appFileLock_);
        appFileName_ = fileName;
        appFileOn_ = !fileName.empty();
    }
    if (!fileName.empty()) updateFlags(logcat::Protocol, logcat::Payload);
}

void TovraLogger::setAppUdpDestination(const std::string& address, std::uint32_t port)
{
    std::lock_guard guard(appUdpLock_);
    if (address.empty() || port < 1 || port > 65535) appUdp_.close();
    else appUdp_.open(address, port);
}

} // namespace tovra
