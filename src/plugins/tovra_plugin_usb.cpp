#include "plugins/tovra_plugin_usb.h"

#include "reader/connector.h"

#include <cstdlib>
#include <cstring>

namespace tovra {
namespace {

using logging::hex;

constexpr std::uint32_t kTrace = logcat::Usb;
constexpr std::uint32_t kError = logcat::Error | logcat::Usb;
constexpr char kInterface[] = "QEMA-RCI2";
// A frame that cannot be handed out (its length is beyond what the caller takes) holds
// everything behind it; past this much the queue starts over rather than grow for ever.
constexpr std::size_t kQueueLimit = 4 * 32768;

// What both USB plugins do on connect: open the device the connector names, then set its
// receive time-out; the port handle, or the library's error.
template <typename Library, typename SetTimeout>
std::int32_t openUsb(const Library& library, TovraLogger& logger, const char* connector, SetTimeout setTimeout)
{
    const std::uint32_t deviceId = usbDeviceId(connector);
    TOVRA_LOG_TRACE(logger, kTrace, "USB connecting to ", hex(static_cast<std::int32_t>(deviceId)));
    const std::int32_t handle = library.openDevice()(deviceId);
    if (handle < 0) {
        TOVRA_LOG_ERROR(logger, kError, "OpenDevice ", library.errorText(handle));
        return handle;
    }
    setTimeout(handle);
    TOVRA_LOG_TRACE(logger, kTrace, "USB connected to ", hex(static_cast<std::int32_t>(deviceId)));
    return handle;
}

} // namespace

std::uint8_t* ReceiveQueue::reserve(std::size_t size)
{
    if (fill_ + size > kQueueLimit) fill_ = 0;
    if (bytes_.size() < fill_ + size) bytes_.resize(fill_ + size);
    reserved_ = size;
    return bytes_.data() + fill_;
}

void ReceiveQueue::commit(std::size_t count)
{
    fill_ += std::min(count, reserved_);
    reserved_ = 0;
}

std::size_t ReceiveQueue::takeFrame(std::uint8_t* buffer, std::size_t size)
{
    // A length needs its two bytes; no frame is shorter than three.
    if (fill_ < 3) return 0;
    const std::size_t length = (std::size_t{bytes_[1]} << 8) | bytes_[2];
    if (length < 3) {
        // Nothing can ever be taken off this front: start over.
        fill_ = 0;
        return 0;
    }
    if (length > fill_ || length > size) return 0;
    std::memcpy(buffer, bytes_.data(), length);
    std::memmove(bytes_.data(), bytes_.data() + length, fill_ - length);
    fill_ -= length;
    return length;
}

std::uint32_t usbDeviceId(const char* connector)
{
    const ConnectorKeys keys(connector);
    if (!keys.has("deviceid")) return 0;
    // As "%x" reads: white space, a sign and "0x" allowed; the low 32 bits kept.
    return static_cast<std::uint32_t>(std::strtoull(keys.text("deviceid").c_str(), nullptr, 16));
}

TovraPluginUsb::TovraPluginUsb(ConnectionRecord* owner) : DeviceLibraryPlugin(owner, 2, logcat::Usb) {}

std::int32_t TovraPluginUsb::pliConnect(const char* connector)
try {
    lastError_ = 0;
    {
        std::lock_guard guard(queueLock_);
        queue_.clear();
    }
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t handle = openUsb(library_, logger(), connector, [&](std::int32_t opened) {
        library_.setDevicePara()(opened, "TIMEOUT", "300");
    });
    return handle < 0 ? fail(handle) : handle;
} catch (...) {
    return fail(err::ConnectionParameter);
}

std::int32_t TovraPluginUsb::pliDisconnect(std::int32_t portHandle)
try {
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t result = library_.closeDevice()(portHandle);
    {
        std::lock_guard guard(queueLock_);
        queue_.clear();
    }
    if (result < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "CloseDevice ", library_.errorText(result));
        return fail(result);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "USB disconnected");
    return err::Ok;
} catch (...) {
    return fail(err::DisconnectFailed);
}

std::int32_t TovraPluginUsb::pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length)
try {
    TOVRA_REQUIRE_LIBRARY();
    return transmitted(library_.transmit()(portHandle, kInterface, data, clampedSize(length)), "Transmit");
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginUsb::pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize)
try {
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t size = clampedSize(bufferSize);
    std::lock_guard guard(queueLock_);
    TOVRA_LOG_TRACE(logger(), kTrace, "Start receive (queue size =", queue_.fill(), " bytes)");
    for (;;) {
        const std::int32_t result =
            library_.receive()(portHandle, kInterface, queue_.reserve(static_cast<std::size_t>(size)), size);
        if (result == ZKUSB_TIMEOUT) return err::ReceivePending;
        if (result < 0) {
            TOVRA_LOG_ERROR(logger(), kError, "Receive ", library_.errorText(result));
            return fail(result);
        }
        TOVRA_LOG_TRACE(logger(), kTrace, "Received ", result, " bytes");
        queue_.commit(static_cast<std::size_t>(result));
        if (const std::size_t length = queue_.takeFrame(buffer, static_cast<std::size_t>(size)); length > 0) {
            TOVRA_LOG_TRACE(logger(), kTrace, "Received protocol with ", length, " bytes");
            return static_cast<std::int32_t>(length);
        }
    }
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

TovraPluginUsb2::TovraPluginUsb2(ConnectionRecord* owner) : WholeFramePlugin(owner, 2, logcat::Usb, "USB disconnected")
{
}

std::int32_t TovraPluginUsb2::pliConnect(const char* connector)
try {
    lastError_ = 0;
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t handle = openUsb(library_, logger(), connector, [&](std::int32_t opened) {
        library_.putParameter()(opened, "receive-timeout", "300");
    });
    return handle < 0 ? fail(handle) : handle;
} catch (...) {
    return fail(err::ConnectionParameter);
}

} // namespace tovra
