#include "reader/connector.h"

#include "parameter/atoi_like.h"
#include "plugins/plugin_factory.h"
#include "tovra/zk_parameter.h"

namespace tovra {

std::string connectorSectionName(const char* text)
{
    std::string name, value;
    if (text != nullptr) ZkParameter::parseSection(text, name, value, ':', true);
    return name;
}

std::int32_t connectorType(const char* text) { return transportType(connectorSectionName(text)); }

ConnectorKeys::ConnectorKeys(const char* text)
{
    if (text != nullptr) ZkParameter::sectionToMap(text, keys_, ':', true);
}

std::string ConnectorKeys::text(const std::string& key, const std::string& fallback) const
{
    const auto it = keys_.find(key);
    return it != keys_.end() ? it->second : fallback;
}

std::int32_t ConnectorKeys::number(const std::string& key, std::int32_t fallback) const
{
    const auto it = keys_.find(key);
    return it != keys_.end() ? atoiLike(it->second) : fallback;
}

} // namespace tovra
