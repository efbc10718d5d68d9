#pragma once

#include "devlibs/device_libraries.h"
#include "logging/tovra_logger.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace tovra {

// Whether serial port N is present, for the application (pseudo-handle -3). The serial
// device library is loaded on first use and kept for the life of the process; a library
// that failed once is not loaded again.
class ZkcomManager {
public:
    static ZkcomManager& instance();

    // 1 when the port is present, 0 when not, or a negative error.
    std::int32_t detect(const char* deviceType, std::int32_t port);
    std::int32_t lastError() const;
    // Valid on the calling thread until its next call.
    const char* lastErrorText() const;

private:
    ZkcomManager();
    // 0, -5021 or -5022. The caller holds lock_.
    std::int32_t loadLibrary();
    // Stores and logs the code and its text; returns the code.
    std::int32_t setError(std::int32_t code);

    std::unique_ptr<TovraLogger> logger_;
    // Concurrent detects take turns: they share one library and one last error.
    mutable std::mutex lock_;
    std::unique_ptr<ZkcomLibrary> library_;
    bool loaded_ = false;
    bool versionOk_ = false;
    std::int32_t lastError_ = 0;
    std::string lastErrorText_;
};

} // namespace tovra
