#include "plugins/tovra_plugin_com.h"

#include "reader/connector.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <thread>

namespace tovra {
namespace {

using logging::hex;

constexpr std::uint32_t kTrace = logcat::Com;
constexpr std::uint32_t kError = logcat::Error | logcat::Com;
constexpr auto kSettleTime = std::chrono::milliseconds(100);
constexpr auto kGateWait = std::chrono::milliseconds(100);

// The text as it stands when "%u" reads a number from it (so "3x" is kept whole).
bool readsAsUnsigned(const std::string& text)
{
    unsigned value = 0;
    return std::sscanf(text.c_str(), "%u", &value) == 1;
}

} // namespace

bool cutDevice(const std::string& device, std::string& portPrefix, std::string& portNumber)
{
    portPrefix.clear();
    portNumber.clear();
    for (const char c : device) {
        if (c >= '0' && c <= '9') {
            portNumber += c;
        } else {
            if (!portNumber.empty()) return false;
            portPrefix += c;
        }
    }
    if (portNumber.empty()) return false;
    std::string lower = portPrefix;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.empty() || lower == "com";
}

TovraPluginCom::TovraPluginCom(ConnectionRecord* owner) : DeviceLibraryPlugin(owner, 1, logcat::Com) {}

std::int32_t TovraPluginCom::pliConnect(const char* connector)
try {
    lastError_ = 0;
    acceptedByListener_ = false;
    TOVRA_REQUIRE_LIBRARY();
    TOVRA_LOG_TRACE(logger(), kTrace, "Connect ", connector != nullptr ? connector : "");

    const ConnectorKeys keys(connector);
    if (!keys.has("device")) {
        TOVRA_LOG_ERROR(logger(), kError, "Connection parameter error: no device");
        return fail(err::ConnectionParameter);
    }
    const std::string device = keys.text("device");
    const std::string givenAddress = keys.text("busaddress");
    const std::string busAddress = readsAsUnsigned(givenAddress) ? givenAddress : "255";
    const std::string baud = keys.text("baud", "38400");
    const std::string frame = keys.text("frame", "8E1");
    const std::string opmode = keys.text("opmode", "RS232");

    std::string prefix, number;
    TOVRA_LOG_TRACE(logger(), kTrace, "Device: ", device);
    if (!cutDevice(device, prefix, number)) {
        TOVRA_LOG_ERROR(logger(), kError, "Connection parameter error: device '", device, "'");
        return fail(err::ConnectionParameter);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Splitted to: portPrefix='", prefix, "' portNo=", number);

    const std::int32_t handle = library_.openPort()(number.c_str());
    if (handle < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "OpenPort ", library_.errorText(handle));
        return fail(handle);
    }
    const std::int32_t setUp = setUpPort(handle, busAddress, baud, frame, opmode);
    if (setUp < 0) {
        // Left open, an exclusively opened port would stay locked until the process ends.
        library_.closePort()(handle);
        return fail(setUp);
    }
    std::this_thread::sleep_for(kSettleTime);
    TOVRA_LOG_TRACE(logger(), kTrace, "COM connected to '", device, "' op-mode=", opmode, " baudrate=", baud,
                    " frame=", frame, " PH=0x", hex(handle));
    return handle;
} catch (...) {
    return fail(err::ConnectionParameter);
}

std::int32_t TovraPluginCom::setUpPort(std::int32_t handle, const std::string& busAddress, const std::string& baud,
                                       const std::string& frame, const std::string& opmode)
{
    const auto set = library_.setPortPara();
    // The library's own settings: their results are not looked at.
    set(handle, "UseQEMA", "1");
    set(handle, "Opt4ZKSP", "1");
    set(handle, "TIMEOUT", "300");
    set(handle, "TxTimeControl", "0");
    set(handle, "BUSADDRESS", busAddress.c_str());
    for (const auto& [name, value] : {std::pair{"baud", &baud}, std::pair{"frame", &frame}, std::pair{"opmode", &opmode}}) {
        const std::int32_t result = set(handle, name, value->c_str());
        if (result < 0) {
            TOVRA_LOG_ERROR(logger(), kError, "Set ", name, "=", *value, ": ", library_.errorText(result));
            return result;
        }
    }
    if (opmode != "RS232") return err::Ok;
    for (const char* command : {"SETRTS", "SETDTR"}) {
        const std::int32_t result = library_.doPortCmd()(handle, command, "ON");
        if (result < 0) {
            TOVRA_LOG_ERROR(logger(), kError, command, ": ", library_.errorText(result));
            return result;
        }
    }
    return err::Ok;
}

std::int32_t TovraPluginCom::pliAccept(TovraListener* listener)
try {
    const char* connector = listener != nullptr && listener->kind() == kind_ ? listener->acceptedConnector() : nullptr;
    if (connector == nullptr) {
        TOVRA_LOG_ERROR(logger(), kError, "Dynamic_cast error on accept");
        return fail(err::NullPointer);
    }
    const std::int32_t result = pliConnect(connector);
    // Only a port handle of exactly 0 counts as taken over from the listener.
    acceptedByListener_ = result == 0;
    return result;
} catch (...) {
    return fail(err::NullPointer);
}

bool TovraPluginCom::listenerGone() const { return acceptedByListener_ && owner_->connectionState() != 1; }

std::int32_t TovraPluginCom::pliDisconnect(std::int32_t portHandle)
try {
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t result = library_.closePort()(portHandle);
    if (result < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "ClosePort ", library_.errorText(result));
        return fail(result);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "COM disconnected PH=0x", hex(portHandle));
    return err::Ok;
} catch (...) {
    return fail(err::DisconnectFailed);
}

std::int32_t TovraPluginCom::pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length)
try {
    TOVRA_REQUIRE_LIBRARY();
    if (listenerGone()) return fail(err::DisconnectedByPeer);
    lastError_ = library_.transmit()(portHandle, data, clampedSize(length));
    return lastError_;
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginCom::pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize)
try {
    TOVRA_REQUIRE_LIBRARY();
    if (listenerGone()) return fail(err::DisconnectedByPeer);
    TOVRA_LOG_TRACE(logger(), kTrace, "Start receive protMax=", bufferSize);
    const std::int32_t result = library_.receive()(portHandle, buffer, clampedSize(bufferSize));
    if (result == ZKCOM_TIMEOUT) return err::ReceivePending;
    if (result < 0) return fail(result);
    return result;
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginCom::pliPutParam(std::int32_t portHandle, const char* key, const char* value)
try {
    TOVRA_REQUIRE_LIBRARY();
    lastError_ = library_.setPortPara()(portHandle, key, value);
    TOVRA_LOG_TRACE(logger(), kTrace, "Set parameter ", key != nullptr ? key : "", "=", value != nullptr ? value : "");
    return lastError_;
} catch (...) {
    return fail(err::NotImplemented);
}

std::int32_t TovraPluginCom::pliGetParam(std::int32_t, const char*, std::string&)
try {
    TOVRA_REQUIRE_LIBRARY();
    return fail(err::NotImplemented);
} catch (...) {
    return fail(err::NotImplemented);
}

TovraListenerCom::TovraListenerCom(ConnectionRecord* owner) : TovraListener(owner) { kind_ = 1; }

TovraLogger& TovraListenerCom::logger() const { return owner_->logger(); }

std::int32_t TovraListenerCom::start(const char* connector)
try {
    connector_ = connector != nullptr ? connector : "";
    TOVRA_LOG_TRACE(logger(), kTrace, "Start ", connector_);
    ConnectionGate& gate = owner_->connectionGate();
    if (!gate.tryAcquireFor(kGateWait)) {
        TOVRA_LOG_ERROR(logger(), kError, "Already started");
        return err::ListenerRunning;
    }
    owner_->setConnectionText("COM from host connection");
    owner_->setConnectionState(1);
    std::int32_t result = err::ConnectFailed;
    if (owner_->acceptedEntry) result = owner_->acceptedEntry(*owner_);
    if (result >= 0) return err::Ok; // the gate stays held while the reader is connected
    TOVRA_LOG_ERROR(logger(), kError, "Accept COM canceled");
    owner_->setConnectionState(0);
    connector_.clear();
    gate.release();
    return err::ListenerRunning;
} catch (...) {
    return err::ListenerRunning;
}

void TovraListenerCom::stop()
{
    owner_->setConnectionState(0);
    connector_.clear();
}

} // namespace tovra
