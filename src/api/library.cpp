// The exported C functions: thin forwarders into the library.
#include "tovra/tovra.h"

#include "api/version.h"
#include "logging/logging_state.h"

extern "C" {

TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void) { return tovra::versionText(); }

TOVRA_API void TOVRA_CALL TOVRA_SetLoggingParameter(const char* parameterText)
{
    tovra::setPendingLoggingParameter(parameterText);
}

TOVRA_API void TOVRA_CALL TOVRA_SetLoggingCallback(void* context, TOVRA_LoggingCallback callback)
{
    tovra::setPendingLoggingCallback(context, callback);
}

} // extern "C"
