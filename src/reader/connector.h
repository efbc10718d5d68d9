#pragma once

#include <cstdint>
#include <map>
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

// The "key=value" sections of a connector, listener or detection text, with keys folded to
// lower case ("TCP:IPAddress=..." has the key "ipaddress"). A key given twice keeps its
// first value.
class ConnectorKeys {
public:
    explicit ConnectorKeys(const char* text);

    bool has(const std::string& key) const { return keys_.contains(key); }
    // The value, or `fallback` when the key is missing.
    std::string text(const std::string& key, const std::string& fallback = {}) const;
    // The value read as atoi reads it, or `fallback` when the key is missing.
    std::int32_t number(const std::string& key, std::int32_t fallback) const;

private:
    std::map<std::string, std::string> keys_;
};

} // namespace tovra
