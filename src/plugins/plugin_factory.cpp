#include "plugins/plugin_factory.h"

#include "api/error_codes.h"
#include "plugins/tovra_listener_tcp.h"
#include "plugins/tovra_plugin_ble.h"
#include "plugins/tovra_plugin_com.h"
#include "plugins/tovra_plugin_cust.h"
#include "plugins/tovra_plugin_gadget.h"
#include "plugins/tovra_plugin_tcp.h"
#include "plugins/tovra_plugin_usb.h"
#include "reader/connector.h"

#include <array>
#include <new>

namespace tovra {
namespace {

using PluginMaker = std::unique_ptr<TovraPlugin> (*)(ConnectionRecord&);
using ListenerMaker = std::unique_ptr<TovraListener> (*)(ConnectionRecord&);

template <typename Plugin>
std::unique_ptr<TovraPlugin> make(ConnectionRecord& owner)
{
    return std::make_unique<Plugin>(&owner);
}

template <typename Listener>
std::unique_ptr<TovraListener> makeListener(ConnectionRecord& owner)
{
    return std::make_unique<Listener>(&owner);
}

// One row per transport: the section name of its connector texts, its type, and how its
// plugin and (if readers can connect over it) its listener are made.
struct Transport {
    std::string_view name;
    std::int32_t type;
    PluginMaker plugin;
    ListenerMaker listener;
};

constexpr std::array kTransports = {
    Transport{"com", kConnectorCom, make<TovraPluginCom>, makeListener<TovraListenerCom>},
    Transport{"usb", kConnectorUsb, make<TovraPluginUsb>, nullptr},
    Transport{"tcp", kConnectorTcp, make<TovraPluginTcp>, makeListener<TovraListenerTcp>},
    Transport{"bthle", kConnectorBle, make<TovraPluginBle>, nullptr},
    Transport{"bthspp", kConnectorBle, make<TovraPluginBle>, nullptr},
    // No section name gives this type; the factory still takes it.
    Transport{"", kConnectorBle5, make<TovraPluginBle>, nullptr},
    Transport{"cust", kConnectorCust, make<TovraPluginCust>, nullptr},
    Transport{"gadget", kConnectorGadget, make<TovraPluginGadget>, makeListener<TovraListenerGadget>},
};

const Transport* transportOfType(std::int32_t type)
{
    for (const Transport& transport : kTransports)
        if (transport.type == type) return &transport;
    return nullptr;
}

} // namespace

std::int32_t transportType(std::string_view sectionName)
{
    if (sectionName.empty()) return kConnectorNone;
    for (const Transport& transport : kTransports)
        if (transport.name == sectionName) return transport.type;
    return kConnectorNone;
}

std::int32_t createPlugin(std::int32_t connectorType, ConnectionRecord& owner,
                          std::unique_ptr<TovraPlugin>& plugin)
{
    plugin.reset();
    const Transport* transport = transportOfType(connectorType);
    if (transport == nullptr) return err::InvalidPluginType;
    try {
        plugin = transport->plugin(owner);
    } catch (const std::bad_alloc&) {
        // Kept as it is: no plugin, yet success; the following connect fails on the missing plugin.
    }
    return err::Ok;
}

std::int32_t createListener(std::int32_t connectorType, ConnectionRecord& owner,
                            std::unique_ptr<TovraListener>& listener)
{
    listener.reset();
    const Transport* transport = transportOfType(connectorType);
    if (transport == nullptr || transport->listener == nullptr) return err::InvalidListenerType;
    try {
        listener = transport->listener(owner);
    } catch (const std::bad_alloc&) {
    }
    return err::Ok;
}

} // namespace tovra
