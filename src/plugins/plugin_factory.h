#pragma once

#include "plugins/tovra_plugin.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace tovra {

// The only place that names concrete plugins and listeners: one table of transports.

// The connector type of a lower-cased section name ("tcp" gives 3); 0 for none.
std::int32_t transportType(std::string_view sectionName);

// 0 with the plugin of the connector type in `plugin`, or -5020 for a type without one.
// A plugin that cannot be allocated leaves `plugin` empty and still gives 0.
std::int32_t createPlugin(std::int32_t connectorType, ConnectionRecord& owner,
                          std::unique_ptr<TovraPlugin>& plugin);

// 0 with the listener of the connector type in `listener`, or -5030 for a type without one.
std::int32_t createListener(std::int32_t connectorType, ConnectionRecord& owner,
                            std::unique_ptr<TovraListener>& listener);

} // namespace tovra
