// The exported functions of the discovery managers, and their last errors.
#include "api/manager_exports.h"

#include "api/error_codes.h"
#include "api/guarded.h"
#include "devlibs/zkcom_manager.h"
#include "tovra/tovra.h"

namespace tovra {
namespace {

constexpr std::int32_t kComManager = -3;

} // namespace

std::int32_t managerLastError(std::int32_t handle)
{
    // A manager not built yet has no error.
    return handle == kComManager ? ZkcomManager::instance().lastError() : err::Ok;
}

const char* managerLastErrorText(std::int32_t handle)
{
    return handle == kComManager ? ZkcomManager::instance().lastErrorText() : "";
}

} // namespace tovra

extern "C" {

TOVRA_API std::int32_t TOVRA_CALL TOVRA_ComManagerDetect(const char* deviceType, std::int32_t port)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkcomManager::instance().detect(deviceType, port); });
}

} // extern "C"
