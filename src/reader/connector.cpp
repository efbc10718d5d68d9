#include "reader/connector.h"

#include "tovra/zk_parameter.h"

#include <array>
#include <string_view>

namespace tovra {
namespace {

struct NamedType {
    std::string_view name;
    std::int32_t type;
};

constexpr std::array<NamedType, 7> kConnectorTypes = {{
    {"com", kConnectorCom},
    {"usb", kConnectorUsb},
    {"tcp", kConnectorTcp},
    {"bthle", kConnectorBle},
    {"bthspp", kConnectorBle},
    {"cust", kConnectorCust},
    {"gadget", kConnectorGadget},
}};

} // namespace

std::string connectorSectionName(const char* text)
{
    std::string name, value;
    if (text != nullptr) ZkParameter::parseSection(text, name, value, ':', true);
    return name;
}

std::int32_t connectorType(const char* text)
{
    const std::string name = connectorSectionName(text);
    for (const auto& entry : kConnectorTypes)
        if (name == entry.name) return entry.type;
    return kConnectorNone;
}

} // namespace tovra
