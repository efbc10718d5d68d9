#include "reader.h"

#include "output.h"

namespace tovra::cli {

int Reader::fail(Output& output, const std::string& what, std::int32_t code) const {
    output.failure(what, code, errorText());
    return 1;
}

int Reader::failCreate(Output& output) const {
    output.failure("create", handle_, "cannot create a reader module (code " + std::to_string(handle_) + ")");
    return 1;
}

int failManager(Output& output, const std::string& what, std::int32_t code, std::int32_t manager) {
    output.failure(what, code, TOVRA_GetLastErrorText(manager));
    return 1;
}

}  // namespace tovra::cli
