#include "commands.h"
#include "output.h"
#include "reader.h"

namespace tovra::cli {

namespace {

// Each candidate takes up to a probe's time-out: show it as it goes.
void TOVRA_CALL onCandidate(std::int32_t, void* context, const char* candidate) {
    static_cast<Output*>(context)->progress(std::string("probing ") + candidate);
}

}  // namespace

int detect(const DetectOptions& options, Output& output) {
    const Reader reader(2, nullptr);
    if (!reader.ok()) return reader.failCreate(output);
    TOVRA_SetDetectSerialCallback(reader.handle(), &output, onCandidate);
    if (const std::int32_t result = TOVRA_DetectSerial(reader.handle(), options.detection.c_str()); result < 0) {
        return reader.fail(output, "detect", result);
    }
    const std::string connector = TOVRA_GetConnector(reader.handle());
    output.result(connector, JsonObject().add("connector", connector));
    TOVRA_DisconnectByHost(reader.handle());
    return 0;
}

}  // namespace tovra::cli
