// File output shared between loggers and processes.
#pragma once

#include <string_view>

namespace tovra::platform {

// Opens (creating it if needed) the file for appending with shared read and
// write access, appends the bytes in one write, and closes it again, so
// several writers can append to one file. false if it cannot be opened or
// written.
bool appendToFile(const char* path, std::string_view data);

}  // namespace tovra::platform
