#pragma once

namespace tovra {

// "major.minor.patch" of this build; a static text that lives as long as the library.
const char* versionText();

} // namespace tovra
