// A reader object of the library, deleted when the command is done with it.
#pragma once

#include "tovra/tovra.h"

#include <cstdint>
#include <string>

namespace tovra::cli {

class Output;

class Reader {
public:
    // TOVRA_Create; check ok() before use.
    Reader(std::int32_t moduleKind, const char* connector) : handle_(TOVRA_Create(moduleKind, connector)) {}
    ~Reader() {
        if (ok()) TOVRA_Delete(handle_);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool ok() const { return handle_ > 0; }
    std::int32_t handle() const { return handle_; }
    std::string errorText() const { return TOVRA_GetLastErrorText(handle_); }
    // Reports a failed call `what` that returned `code` and gives the exit status 1.
    int fail(Output& output, const std::string& what, std::int32_t code) const;
    // Reports a reader that could not be created.
    int failCreate(Output& output) const;

private:
    std::int32_t handle_;
};

// Reports a failed call of a discovery manager (pseudo-handle -1 to -4), exit status 1.
int failManager(Output& output, const std::string& what, std::int32_t code, std::int32_t manager);

}  // namespace tovra::cli
