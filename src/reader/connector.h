#pragma once

#include <cstdint>
#include <string>

namespace tovra {

// Connector types, from the section name of a connector text.
enum ConnectorType : std::int32_t {
    kConnectorNone = 0,
    kConnectorCom = 1,
    kConnectorUsb = 2,
    kConnectorTcp = 3,
    kConnectorBle = 4,   // "bthle" and "bthspp" alike
    kConnectorBle5 = 5,  // no name gives it; the plugin factory still takes it
    kConnectorCust = 10,
    kConnectorGadget = 20,
};

// The section name of a connector, listener or detection text ("tcp:port=1" gives "tcp"),
// lower-cased.
std::string connectorSectionName(const char* text);

// The connector type of a text; kConnectorNone for an unknown or missing name.
std::int32_t connectorType(const char* text);

} // namespace tovra
