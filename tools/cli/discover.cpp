#include "commands.h"
#include "ending.h"
#include "output.h"
#include "reader.h"

#include <atomic>

namespace tovra::cli {

namespace {

struct Discovery {
    explicit Discovery(Output& out) : output(out) {}

    Output& output;
    Ending ending;
    std::atomic<unsigned> found{0};
};

// Event 1: a reader came (plugged in, in range, answering); 2: it went.
void TOVRA_CALL onEvent(void* context, std::int32_t event, const char* line) {
    auto& discovery = *static_cast<Discovery*>(context);
    const char* what = event == 1 ? "found" : event == 2 ? "gone" : "event";
    discovery.output.result(std::string(what) + " " + (line != nullptr ? line : ""),
                            JsonObject().add("event", what).add("line", line != nullptr ? line : ""));
    if (event == 1) ++discovery.found;
    discovery.ending.wake();
}

// One discovery manager behind the public API.
struct Manager {
    std::int32_t pseudoHandle;
    std::int32_t (*start)(Discovery&, const DiscoverOptions&);
    std::int32_t (*stop)();
};

std::int32_t startUsb(Discovery& discovery, const DiscoverOptions&) {
    return TOVRA_UsbManagerStartDiscover(&discovery, onEvent);
}

std::int32_t startBle(Discovery& discovery, const DiscoverOptions&) {
    return TOVRA_BleManagerStartDiscover(&discovery, onEvent);
}

std::int32_t startUdp(Discovery& discovery, const DiscoverOptions& options) {
    TOVRA_UdpManagerSetEventCallback(&discovery, onEvent);
    return TOVRA_UdpManagerStartDiscover(options.intervalMs, options.target.c_str());
}

std::int32_t stopUsb() { return TOVRA_UsbManagerStopDiscover(); }
std::int32_t stopBle() { return TOVRA_BleManagerStopDiscover(); }

std::int32_t stopUdp() {
    const std::int32_t result = TOVRA_UdpManagerStopDiscover();
    TOVRA_UdpManagerSetEventCallback(nullptr, nullptr);
    return result;
}

const Manager* managerOf(const std::string& kind) {
    static const Manager usb{-1, startUsb, stopUsb};
    static const Manager ble{-2, startBle, stopBle};
    static const Manager udp{-4, startUdp, stopUdp};
    if (kind == "usb") return &usb;
    if (kind == "ble") return &ble;
    if (kind == "udp") return &udp;
    return nullptr;
}

}  // namespace

int discover(const DiscoverOptions& options, Output& output) {
    const Manager* manager = managerOf(options.kind);
    if (manager == nullptr) return 2;  // the command line admits no other kind
    Discovery discovery(output);
    Ending::catchSignals();
    if (const std::int32_t result = manager->start(discovery, options); result < 0) {
        return failManager(output, "discover " + options.kind, result, manager->pseudoHandle);
    }
    discovery.ending.wait([&] { return options.count > 0 && discovery.found >= options.count; }, options.seconds);
    // After the stop returns no callback comes, so the discovery state may go.
    if (const std::int32_t result = manager->stop(); result < 0) {
        return failManager(output, "discover " + options.kind, result, manager->pseudoHandle);
    }
    return 0;
}

}  // namespace tovra::cli
