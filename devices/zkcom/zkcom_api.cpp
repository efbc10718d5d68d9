// The exported entry points. Each one catches everything: no exception leaves the library.
#include "error_codes.h"
#include "port_table.h"
#include "serial_line.h"

#include "tovra/device/zkcom.h"

#include <cstdio>
#include <new>
#include <type_traits>

#if defined(_WIN32)
#  define ZKCOM_EXPORT extern "C" __declspec(dllexport)
#else
#  define ZKCOM_EXPORT extern "C" __attribute__((visibility("default")))
#endif

ZKCOM_EXPORT const char* ZKCOM_CALL ZKCOM_GetDLLVersion(void);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_GetErrorText(int32_t code, char* text, int32_t size);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_OpenPort(const char* port);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_ClosePort(int32_t handle);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_Transmit(int32_t handle, const uint8_t* data, int32_t length);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_Receive(int32_t handle, uint8_t* buffer, int32_t size);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_GetPortPara(int32_t handle, const char* name, char* value, int32_t size);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_SetPortPara(int32_t handle, const char* name, const char* value);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_DoPortCmd(int32_t handle, const char* command, const char* value);
ZKCOM_EXPORT int32_t ZKCOM_CALL ZKCOM_DetectPort(int32_t port);

// The loader casts each symbol to these types: a signature that drifts must not build.
static_assert(std::is_same_v<decltype(&ZKCOM_GetDLLVersion), ZKCOM_GetDLLVersion_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_GetErrorText), ZKCOM_GetErrorText_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_OpenPort), ZKCOM_OpenPort_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_ClosePort), ZKCOM_ClosePort_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_Transmit), ZKCOM_Transmit_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_Receive), ZKCOM_Receive_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_GetPortPara), ZKCOM_GetPortPara_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_SetPortPara), ZKCOM_SetPortPara_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_DoPortCmd), ZKCOM_DoPortCmd_t>);
static_assert(std::is_same_v<decltype(&ZKCOM_DetectPort), ZKCOM_DetectPort_t>);
static_assert(ZKCOM_TIMEOUT == zkcom::kTimeout);

namespace {

using namespace zkcom;

template <typename Call>
int32_t guarded(Call call)
{
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return kOutOfMemory;
    } catch (...) {
        return kInternalError;
    }
}

// Runs `call` on the port behind `handle`, holding it for the length of the call.
template <typename Call>
int32_t withPort(int32_t handle, Call call)
{
    return guarded([&]() -> int32_t {
        const std::shared_ptr<Port> port = PortTable::instance().find(handle);
        return port ? call(*port) : int32_t{kInvalidHandle};
    });
}

} // namespace

const char* ZKCOM_CALL ZKCOM_GetDLLVersion(void)
{
    return "5.0.0";
}

int32_t ZKCOM_CALL ZKCOM_GetErrorText(int32_t code, char* text, int32_t size)
{
    if (text == nullptr || size <= 0) return kInvalidArgument;
    const char* known = resultText(code);
    std::snprintf(text, static_cast<std::size_t>(size), "ZKCOM error %d: %s", static_cast<int>(code),
                  known != nullptr ? known : "Unknown error code");
    return kOk;
}

int32_t ZKCOM_CALL ZKCOM_OpenPort(const char* port)
{
    return guarded([&]() -> int32_t {
        const auto number = parsePortNumber(port);
        if (!number) return kInvalidPortNumber;
        std::unique_ptr<SerialLine> line;
        const int32_t opened = SerialLine::open(portPath(*number), line);
        if (opened != kOk) return opened;
        auto shared = std::make_shared<Port>(std::move(line));
        const int32_t started = shared->start();
        if (started != kOk) return started;
        return PortTable::instance().add(std::move(shared));
    });
}

int32_t ZKCOM_CALL ZKCOM_ClosePort(int32_t handle)
{
    return guarded([&]() -> int32_t {
        const std::shared_ptr<Port> port = PortTable::instance().remove(handle);
        if (!port) return kInvalidHandle;
        port->close();
        return kOk;
    });
}

int32_t ZKCOM_CALL ZKCOM_Transmit(int32_t handle, const uint8_t* data, int32_t length)
{
    if (length < 0 || (data == nullptr && length > 0)) return kInvalidArgument;
    return withPort(handle, [&](Port& port) { return port.transmit(data, static_cast<std::size_t>(length)); });
}

int32_t ZKCOM_CALL ZKCOM_Receive(int32_t handle, uint8_t* buffer, int32_t size)
{
    if (buffer == nullptr || size <= 0) return kInvalidArgument;
    return withPort(handle, [&](Port& port) { return port.receive(buffer, static_cast<std::size_t>(size)); });
}

int32_t ZKCOM_CALL ZKCOM_GetPortPara(int32_t handle, const char* name, char* value, int32_t size)
{
    if (size <= 0) return kInvalidArgument;
    return withPort(handle,
                    [&](Port& port) { return port.getParameter(name, value, static_cast<std::size_t>(size)); });
}

int32_t ZKCOM_CALL ZKCOM_SetPortPara(int32_t handle, const char* name, const char* value)
{
    return withPort(handle, [&](Port& port) { return port.setParameter(name, value); });
}

int32_t ZKCOM_CALL ZKCOM_DoPortCmd(int32_t handle, const char* command, const char* value)
{
    return withPort(handle, [&](Port& port) { return port.command(command, value); });
}

int32_t ZKCOM_CALL ZKCOM_DetectPort(int32_t port)
{
    return guarded([&]() -> int32_t {
        if (port <= 0 || port > kMaxPortNumber) return kInvalidPortNumber;
        return detectPort(port);
    });
}
