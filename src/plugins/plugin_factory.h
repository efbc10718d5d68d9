#pragma once

#include "plugins/tovra_plugin.h"

#include <cstdint>
#include <memory>

namespace tovra {

// The only place that names concrete plugins and listeners.

// 0 with the plugin of the connector type in `plugin`, or -5020 for a type without one.
// A plugin that cannot be allocated leaves `plugin` empty and still gives 0.
std::int32_t createPlugin(std::int32_t connectorType, ConnectionRecord& owner,
                          std::unique_ptr<TovraPlugin>& plugin);

// 0 with the listener of the connector type in `listener`, or -5030 for a type without one.
std::int32_t createListener(std::int32_t connectorType, ConnectionRecord& owner,
                            std::unique_ptr<TovraListener>& listener);

} // namespace tovra
