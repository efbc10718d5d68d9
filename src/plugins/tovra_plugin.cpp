#include "plugins/tovra_plugin.h"

namespace tovra {

const char* TovraPlugin::pliGetErrorText(std::int32_t) { return ""; }

const char* TovraPlugin::pliGetVersion() { return ""; }

std::int32_t TovraPlugin::pliAccept(TovraListener*) { return 0; }

std::int32_t TovraPlugin::pliPutParam(std::int32_t, const char*, const char*) { return 0; }

std::int32_t TovraPlugin::pliGetParam(std::int32_t, const char*, std::string&) { return 0; }

std::int32_t TovraPlugin::pliGetLastError(std::int32_t) { return lastError_; }

} // namespace tovra
