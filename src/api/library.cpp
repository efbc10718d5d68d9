// The exported C functions: thin forwarders into the library.
#include "tovra/tovra.h"

#include "api/version.h"

extern "C" {

TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void) { return tovra::versionText(); }

} // extern "C"
