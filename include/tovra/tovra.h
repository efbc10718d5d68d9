#ifndef TOVRA_TOVRA_H
#define TOVRA_TOVRA_H

/* The flat C interface of the tovra reader communication library. */

#include <stdint.h>

#include "tovra/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The library version text, "1.0.2". */
TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void);

#ifdef __cplusplus
}
#endif

#endif
