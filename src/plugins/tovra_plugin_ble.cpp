#include "plugins/tovra_plugin_ble.h"

#include "tovra/zk_parameter.h"

namespace tovra {
namespace {

constexpr std::uint32_t kTrace = logcat::Ble;
constexpr std::uint32_t kError = logcat::Error | logcat::Ble;

} // namespace

BleConnection bleConnection(const char* connector)
{
    BleConnection connection;
    if (connector == nullptr) return connection;
    const char* position = connector;
    while (position != nullptr) {
        std::string tag, value;
        position = ZkParameter::parseSection(position, tag, value, ':', true);
        if (tag == "bthle") connection.mode = BleConnection::lowEnergy;
        else if (tag == "bthspp") connection.mode = BleConnection::serialPort;
        else if (tag == "macaddress") connection.macAddress = value;
        else if (tag == "secure") connection.secure = value == "true";
    }
    return connection;
}

TovraPluginBle::TovraPluginBle(ConnectionRecord* owner) : WholeFramePlugin(owner, 4, logcat::Ble, "BLE disconnected") {}

std::int32_t TovraPluginBle::pliConnect(const char* connector)
try {
    lastError_ = 0;
    TOVRA_LOG_TRACE(logger(), kTrace, "connector=", connector != nullptr ? connector : "");
    TOVRA_REQUIRE_LIBRARY();
    const BleConnection connection = bleConnection(connector);
    if (connection.macAddress.empty() || connection.mode == BleConnection::none) {
        TOVRA_LOG_ERROR(logger(), kError, libraryErrorText(err::ConnectionParameter));
        return fail(err::ConnectionParameter);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "BLE connecting to ", connection.macAddress);
    const std::int32_t handle = connection.mode == BleConnection::lowEnergy
                                    ? library_.connect()(connection.macAddress.c_str())
                                    : library_.connectSpp()(connection.macAddress.c_str(), connection.secure);
    if (handle < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "Connect failed with error code ", handle);
        return fail(handle);
    }
    library_.putParameter()(handle, "timeout", "300");
    TOVRA_LOG_TRACE(logger(), kTrace, "BTH SPP connected to ", connection.macAddress);
    return handle;
} catch (...) {
    return fail(err::ConnectionParameter);
}

} // namespace tovra
