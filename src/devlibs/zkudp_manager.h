#pragma once

#include "devlibs/device_libraries.h"
#include "devlibs/device_library_manager.h"

#include <cstdint>
#include <string>

namespace tovra {

// Finds readers on the network through ZKUDP and sets their network up, for the
// application (pseudo-handle -4). The callback is set apart from the start and stays
// across starts; it runs on the library's thread.
class ZkudpManager : public DiscoveryManager<ZkudpLibrary> {
public:
    static ZkudpManager& instance();

    std::int32_t setEventCallback(void* context, TOVRA_DiscoveryCallback callback);
    // -5032 while discovery runs.
    std::int32_t startDiscover(std::uint32_t intervalMs, const char* target);
    // -5033 while it does not; refused with -5032 from inside the callback, whose thread
    // cannot wait for itself.
    std::int32_t stopDiscover();
    // The reader's result, or an error; -5033 while discovery does not run.
    std::int32_t setup(const char* setupText, std::uint8_t flags);

private:
    ZkudpManager();
    std::string textOf(std::int32_t code) override;
    void onEvent(std::int32_t event, const char* line);

    static void ZKUDP_CALL cbEvent(void* context, std::int32_t event, const char* scanInfo);

    // Guarded by operationLock_.
    bool running_ = false;
};

} // namespace tovra
