// The exported C functions: thin forwarders into the library. Each looks the reader up
// under the registry lock and calls it outside; nothing thrown inside leaves here.
#include "tovra/tovra.h"

#include "api/error_codes.h"
#include "api/guarded.h"
#include "api/manager_exports.h"
#include "api/reader_registry.h"
#include "api/version.h"
#include "logging/logging_state.h"

#include <new>

namespace {

using tovra::guarded;
using tovra::ReaderRegistry;
using tovra::TovraReader;
namespace err = tovra::err;

// Calls `call` with the reader of `handle`, held for the whole call, or answers `unknown`.
template <typename Result, typename Call>
Result withReader(std::int32_t handle, Result unknown, Result onFailure, Call&& call) noexcept
{
    return guarded(onFailure, [&]() -> Result {
        const std::shared_ptr<TovraReader> reader = ReaderRegistry::instance().find(handle);
        return reader ? call(*reader) : unknown;
    });
}

template <typename Call>
std::int32_t withReader(std::int32_t handle, Call&& call) noexcept
{
    return withReader<std::int32_t>(handle, err::InvalidReaderHandle, err::CannotCreateReader,
                                    std::forward<Call>(call));
}

template <typename Call>
const char* textOfReader(std::int32_t handle, Call&& call) noexcept
{
    return withReader<const char*>(handle, "", "", std::forward<Call>(call));
}

} // namespace

extern "C" {

TOVRA_API std::int32_t TOVRA_CALL TOVRA_Create(std::int32_t moduleKind, const char* connector)
{
    return guarded(err::CannotCreateReader, [&] { return ReaderRegistry::instance().create(moduleKind, connector); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_Delete(std::int32_t readerHandle)
{
    return guarded(err::InvalidReaderHandle, [&] { return ReaderRegistry::instance().remove(readerHandle); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_Terminate(std::int32_t readerHandle)
{
    return guarded(err::InvalidReaderHandle, [&] { return ReaderRegistry::instance().terminate(readerHandle); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_NextReaderHandle(std::int32_t first)
{
    return guarded(0, [&] { return ReaderRegistry::instance().nextHandle(first); });
}

TOVRA_API const char* TOVRA_CALL TOVRA_GetConnector(std::int32_t readerHandle)
{
    return textOfReader(readerHandle, [](TovraReader& r) { return r.connectorText(); });
}

TOVRA_API const char* TOVRA_CALL TOVRA_GetConnectionState(std::int32_t readerHandle)
{
    return textOfReader(readerHandle, [](TovraReader& r) { return r.connectionState(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_GetLowLevelPortHandle(std::int32_t readerHandle)
{
    return withReader(readerHandle, [](TovraReader& r) { return r.lowLevelPortHandle(); });
}

TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void) { return tovra::versionText(); }

TOVRA_API std::int32_t TOVRA_CALL TOVRA_ConnectByHost(std::int32_t readerHandle, const char* connection)
{
    return withReader(readerHandle, [&](TovraReader& r) { return r.connectByHost(connection); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_DisconnectByHost(std::int32_t readerHandle)
{
    return withReader(readerHandle, [](TovraReader& r) {
        r.disconnectByHost();
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_DetectSerial(std::int32_t readerHandle, const char* detection)
{
    return withReader(readerHandle, [&](TovraReader& r) { return r.detectSerial(detection); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_StartListener(std::int32_t readerHandle, const char* listener)
{
    return withReader(readerHandle, [&](TovraReader& r) { return r.startListener(listener); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_StopListener(std::int32_t readerHandle)
{
    return withReader(readerHandle, [](TovraReader& r) { return r.stopListener(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_Transceive(std::int32_t readerHandle, const std::uint8_t* request,
                                                   std::uint64_t requestLength, std::uint8_t* response,
                                                   std::uint64_t* responseLength)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        return r.transceive(request, requestLength, response, responseLength);
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetReceiveTimeout(std::int32_t readerHandle, std::uint32_t milliseconds)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.setReceiveTimeout(milliseconds);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_GetReceiveTimeout(std::int32_t readerHandle)
{
    return withReader(readerHandle, [](TovraReader& r) { return r.receiveTimeout(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetReaderConnectedCallbacks(std::int32_t readerHandle, void* userContext,
                                                                    TOVRA_ReaderConnectedCallback connected,
                                                                    TOVRA_ReaderDisconnectedCallback disconnected)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.setConnectedCallbacks(userContext, connected, disconnected);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetReaderRequestCallback(std::int32_t readerHandle, void* userContext,
                                                                 TOVRA_ReaderRequestCallback callback)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.setRequestCallback(userContext, callback);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetDetectSerialCallback(std::int32_t readerHandle, void* userContext,
                                                                TOVRA_DetectSerialCallback callback)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.setDetectSerialCallback(userContext, callback);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_GetLastError(std::int32_t handle)
{
    if (tovra::isManagerHandle(handle)) return guarded(err::Ok, [&] { return tovra::managerLastError(handle); });
    return withReader(handle, [](TovraReader& r) { return r.lastError(); });
}

TOVRA_API const char* TOVRA_CALL TOVRA_GetLastErrorText(std::int32_t handle)
{
    if (tovra::isManagerHandle(handle)) return guarded("", [&] { return tovra::managerLastErrorText(handle); });
    return textOfReader(handle, [](TovraReader& r) { return r.lastErrorText(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetAppLoggingCallback(std::int32_t readerHandle, void* userContext,
                                                              TOVRA_AppLoggingCallback callback)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.logger().setAppCallback(userContext, callback);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetAppLoggingFilename(std::int32_t readerHandle, const char* fileName)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.logger().setAppFilename(fileName != nullptr ? fileName : "");
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_SetAppLoggingUdpDestination(std::int32_t readerHandle, const char* address,
                                                                    std::uint32_t port)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        r.logger().setAppUdpDestination(address != nullptr ? address : "", port);
        return err::Ok;
    });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_AppendLogMessage(std::int32_t readerHandle, const char* message)
{
    return withReader(readerHandle, [&](TovraReader& r) {
        if (message == nullptr) return err::NullPointer;
        r.logger().appendAppMessage(message);
        return err::Ok;
    });
}

TOVRA_API void TOVRA_CALL TOVRA_SetLoggingParameter(const char* parameterText)
{
    guarded(0, [&] {
        tovra::setPendingLoggingParameter(parameterText);
        return 0;
    });
}

TOVRA_API void TOVRA_CALL TOVRA_SetLoggingCallback(void* context, TOVRA_LoggingCallback callback)
{
    guarded(0, [&] {
        tovra::setPendingLoggingCallback(context, callback);
        return 0;
    });
}

} // extern "C"
