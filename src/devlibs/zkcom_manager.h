#pragma once

#include "devlibs/device_libraries.h"
#include "devlibs/device_library_manager.h"

#include <cstdint>
#include <string>

namespace tovra {

// Whether serial port N is present, for the application (pseudo-handle -3). Concurrent
// detects share one library and one last error.
class ZkcomManager : public DeviceLibraryManager<ZkcomLibrary> {
public:
    static ZkcomManager& instance();

    // 1 when the port is present, 0 when not, or a negative error.
    std::int32_t detect(const char* deviceType, std::int32_t port);

private:
    ZkcomManager();
    std::string textOf(std::int32_t code) override;
};

} // namespace tovra
