// The client sub-commands, each on the library's public C API alone. Each returns the
// exit status: 0 done, 1 the library reported a failure (its text is on standard error),
// 2 the command line or a file it names does not make sense.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tovra::cli {

class Output;

struct TransceiveOptions {
    std::string connector;
    std::vector<std::string> requests;  // hex arguments, see parseRequests
    std::int32_t moduleKind = 2;
    unsigned timeoutMs = 0;  // 0: the library's own (5000 ms)
    unsigned repeat = 1;
};
int transceive(const TransceiveOptions& options, Output& output);

struct ListenOptions {
    std::string listener;
    std::string answer;  // hex; the response to requests no rule matches
    std::string rulesFile;
    unsigned seconds = 0;  // 0: until Ctrl-C
    unsigned count = 0;    // requests to answer before stopping; 0: no limit
};
int listen(const ListenOptions& options, Output& output);

struct DetectOptions {
    std::string detection;
};
int detect(const DetectOptions& options, Output& output);

struct PortsOptions {
    std::int32_t first = 1;
    std::int32_t last = 256;
};
int ports(const PortsOptions& options, Output& output);

struct DiscoverOptions {
    std::string kind;  // usb, ble or udp
    unsigned seconds = 10;  // 0: until Ctrl-C
    unsigned count = 0;     // readers found before stopping; 0: no limit
    std::string target;     // udp
    unsigned intervalMs = 1000;  // udp
};
int discover(const DiscoverOptions& options, Output& output);

}  // namespace tovra::cli
