#include "plugins/tovra_plugin_cust.h"

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "logging/log.h"
#include "reader/connection_record.h"
#include "reader/connector.h"

#include <array>

namespace tovra {
namespace {

using logging::hex;

constexpr std::uint32_t kTrace = logcat::Cust;
constexpr std::uint32_t kError = logcat::Error | logcat::Cust;

constexpr std::array kEntries = {
    "TOVRA_PLI_GetVersion", "TOVRA_PLI_GetErrorText", "TOVRA_PLI_Connect",          "TOVRA_PLI_Disconnect",
    "TOVRA_PLI_Transmit",   "TOVRA_PLI_Receive",      "TOVRA_PLI_PutPortParameter", "TOVRA_PLI_GetPortParameter",
};
const DeviceLibraryDescription kCustomTransport{"CUST", "", kEntries, LibraryVersion::release(0, 0, 0)};

} // namespace

CustomTransportLibrary::CustomTransportLibrary() : DeviceLibrary(kCustomTransport) {}

TovraPluginCust::TovraPluginCust(ConnectionRecord* owner) : TovraPlugin(owner) { kind_ = 10; }

TovraLogger& TovraPluginCust::logger() const { return owner_->logger(); }

std::int32_t TovraPluginCust::notLoaded()
{
    TOVRA_LOG_ERROR(logger(), kError, libraryErrorText(err::CannotLoadPlugin));
    return fail(err::CannotLoadPlugin);
}

const char* TovraPluginCust::pliGetErrorText(std::int32_t code)
try {
    thread_local std::string text;
    text = loaded_ ? library_.errorText(code) : std::string();
    return text.c_str();
} catch (...) {
    return "";
}

const char* TovraPluginCust::pliGetVersion() { return loaded_ ? library_.rawVersion() : ""; }

std::int32_t TovraPluginCust::pliConnect(const char* connector)
try {
    const ConnectorKeys keys(connector);
    if (!keys.has("libname")) {
        TOVRA_LOG_ERROR(logger(), kError, libraryErrorText(err::ConnectionParameter));
        return fail(err::ConnectionParameter);
    }
    const std::string file = keys.text("libname");
    loaded_ = library_.loadFile(file);
    if (!loaded_) {
        TOVRA_LOG_ERROR(logger(), kError, libraryErrorText(err::CannotLoadPlugin), ": ", file, " ",
                        library_.statusText());
        return fail(err::CannotLoadPlugin);
    }
    const std::int32_t handle = library_.connect()(connector);
    if (handle < 0) {
        TOVRA_LOG_ERROR(logger(), kError, library_.errorText(handle));
        return fail(handle);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Connected ", file, " PH=0x", hex(handle));
    return handle;
} catch (...) {
    return fail(err::ConnectionParameter);
}

std::int32_t TovraPluginCust::pliDisconnect(std::int32_t portHandle)
try {
    if (!loaded_) return notLoaded();
    const std::int32_t result = library_.disconnect()(portHandle);
    if (result < 0) {
        TOVRA_LOG_ERROR(logger(), kError, library_.errorText(result));
        return fail(result);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Disconnected PH=0x", hex(portHandle));
    return err::Ok;
} catch (...) {
    return fail(err::DisconnectFailed);
}

std::int32_t TovraPluginCust::pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length)
try {
    if (!loaded_) return notLoaded();
    // Kept whatever its sign: a success leaves its own result as the last error.
    lastError_ = library_.transmit()(portHandle, data, length);
    return lastError_;
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginCust::pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize)
try {
    if (!loaded_) return notLoaded();
    const std::int32_t result = library_.receive()(portHandle, buffer, bufferSize);
    if (result == TOVRA_PLI_TIMEOUT) return err::ReceivePending;
    if (result < 0) return fail(result);
    return result;
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginCust::pliPutParam(std::int32_t, const char*, const char*)
{
    return loaded_ ? err::NotImplemented : err::CannotLoadPlugin;
}

std::int32_t TovraPluginCust::pliGetParam(std::int32_t, const char*, std::string&)
{
    return loaded_ ? err::NotImplemented : err::CannotLoadPlugin;
}

} // namespace tovra
