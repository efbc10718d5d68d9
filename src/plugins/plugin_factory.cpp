#include "plugins/plugin_factory.h"

#include "api/error_codes.h"
#include "plugins/tovra_listener_tcp.h"
#include "plugins/tovra_plugin_tcp.h"
#include "plugins/unavailable_transport.h"
#include "reader/connector.h"

#include <new>

namespace tovra {

std::int32_t createPlugin(std::int32_t connectorType, ConnectionRecord& owner,
                          std::unique_ptr<TovraPlugin>& plugin)
{
    plugin.reset();
    try {
        switch (connectorType) {
        case kConnectorCom: plugin = std::make_unique<TovraPluginUnavailable>(&owner, connectorType, "COM"); break;
        case kConnectorUsb: plugin = std::make_unique<TovraPluginUnavailable>(&owner, connectorType, "USB"); break;
        case kConnectorTcp: plugin = std::make_unique<TovraPluginTcp>(&owner); break;
        case kConnectorBle:
        case kConnectorBle5: plugin = std::make_unique<TovraPluginUnavailable>(&owner, connectorType, "BLE"); break;
        case kConnectorCust: plugin = std::make_unique<TovraPluginUnavailable>(&owner, connectorType, "CUST"); break;
        case kConnectorGadget: plugin = std::make_unique<TovraPluginUnavailable>(&owner, connectorType, "GADGET"); break;
        default: return err::InvalidPluginType;
        }
    } catch (const std::bad_alloc&) {
        // Kept as it is: no plugin, yet success; the following connect fails on the missing plugin.
    }
    return err::Ok;
}

std::int32_t createListener(std::int32_t connectorType, ConnectionRecord& owner,
                            std::unique_ptr<TovraListener>& listener)
{
    listener.reset();
    try {
        switch (connectorType) {
        case kConnectorCom: listener = std::make_unique<TovraListenerUnavailable>(&owner, connectorType); break;
        case kConnectorTcp: listener = std::make_unique<TovraListenerTcp>(&owner); break;
        case kConnectorGadget: listener = std::make_unique<TovraListenerUnavailable>(&owner, connectorType); break;
        default: return err::InvalidListenerType;
        }
    } catch (const std::bad_alloc&) {
    }
    return err::Ok;
}

} // namespace tovra
