#ifndef TOVRA_TOVRA_H
#define TOVRA_TOVRA_H

/* The flat C interface of the tovra reader communication library. */

#include <stdint.h>

#include "tovra/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives every log line of the library, with the context given at registration. */
typedef void (TOVRA_CALL *TOVRA_LoggingCallback)(void* context, const char* line);
/* Receives the dump and application log lines of one reader. */
typedef void (TOVRA_CALL *TOVRA_AppLoggingCallback)(int32_t readerHandle, void* userContext, const char* line);

/* The library version text, "1.0.2". */
TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void);

/* Logging configuration text and process-wide log callback. Both take effect only when
   called before the first reader object is created; a null text clears the pending text. */
TOVRA_API void TOVRA_CALL TOVRA_SetLoggingParameter(const char* parameterText);
TOVRA_API void TOVRA_CALL TOVRA_SetLoggingCallback(void* context, TOVRA_LoggingCallback callback);

#ifdef __cplusplus
}
#endif

#endif
