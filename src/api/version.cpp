#include "api/version.h"

#include "tovra/version.h"

namespace tovra {

const char* versionText() { return TOVRA_VERSION_TEXT; }

} // namespace tovra
