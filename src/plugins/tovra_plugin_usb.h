#pragma once

#include "devlibs/device_libraries.h"
#include "plugins/device_library_plugin.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tovra {

// Bytes a USB device delivered that do not yet make a whole frame, or that came after one.
class ReceiveQueue {
public:
    // Room for `size` more bytes at the end; where the device may write them.
    std::uint8_t* reserve(std::size_t size);
    // Counts `count` bytes written at the end, never more than were reserved.
    void commit(std::size_t count);
    // Moves the frame at the front to `buffer` when it is whole and fits `size`: its length,
    // or 0. The length is that of the two-byte length layouts (bytes 1 and 2).
    std::size_t takeFrame(std::uint8_t* buffer, std::size_t size);
    void clear() { fill_ = 0; }
    std::size_t fill() const { return fill_; }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t fill_ = 0;
    std::size_t reserved_ = 0;
};

// "deviceid" read as hexadecimal the way "%x" reads it; 0 when missing or unreadable.
std::uint32_t usbDeviceId(const char* connector);

// A reader on USB through the ZKUSB library, which delivers bytes as they came: the plugin
// puts frames together itself. Each receive reads from the device before it looks at what
// is queued, so a second frame that came with the first waits for the next read.
class TovraPluginUsb : public DeviceLibraryPlugin<ZkusbLibrary> {
public:
    explicit TovraPluginUsb(ConnectionRecord* owner);

    std::int32_t pliConnect(const char* connector) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;

private:
    // Held through a receive, so that a disconnect never empties the queue under it.
    std::mutex queueLock_;
    ReceiveQueue queue_;
};

// A reader on USB through the ZKUSB2 library, which delivers whole frames.
class TovraPluginUsb2 : public WholeFramePlugin<Zkusb2Library> {
public:
    explicit TovraPluginUsb2(ConnectionRecord* owner);

    std::int32_t pliConnect(const char* connector) override;
};

} // namespace tovra
