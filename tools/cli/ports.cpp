#include "commands.h"
#include "output.h"
#include "reader.h"

namespace tovra::cli {

namespace {

// The pseudo-handle under which the serial port manager keeps its last error.
constexpr std::int32_t kSerialManager = -3;

}  // namespace

int ports(const PortsOptions& options, Output& output) {
    for (std::int32_t port = options.first; port <= options.last; ++port) {
        const std::int32_t present = TOVRA_ComManagerDetect("com", port);
        if (present < 0) return failManager(output, "ports", present, kSerialManager);
        if (present == 0) continue;
        const std::string device = "COM" + std::to_string(port);
        output.result(device + "  com:Device=" + device,
                      JsonObject().add("port", std::int64_t{port}).add("connector", "com:Device=" + device));
    }
    return 0;
}

}  // namespace tovra::cli
