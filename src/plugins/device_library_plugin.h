#pragma once

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "logging/log.h"
#include "plugins/tovra_plugin.h"
#include "reader/connection_record.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>

// Refuses the current operation while the plugin's library cannot be used, logging the
// refusal under the operation's own name.
#define TOVRA_REQUIRE_LIBRARY()                                                                \
    do {                                                                                       \
        if (const std::int32_t tovraRefused_ = this->refusal(TOVRA_LOG_METHOD, __LINE__); tovraRefused_ < 0) \
            return tovraRefused_;                                                              \
    } while (0)

namespace tovra {

// A transport that reaches its hardware through a device library: the plugin owns its
// own loader, loads it when made, and refuses every operation while the library is
// missing (-5021) or too old (-5022).
template <typename Library>
class DeviceLibraryPlugin : public TovraPlugin {
public:
    const char* pliGetErrorText(std::int32_t code) override
    try {
        // Per thread: two threads asking at once must not share one text.
        thread_local std::string text;
        if (!loaded_) text.clear();
        else if (code == err::PluginVersionMismatch) text = library_.versionText();
        else text = library_.errorText(code);
        return text.c_str();
    } catch (...) {
        return "";
    }

    const char* pliGetVersion() override { return loaded_ ? library_.rawVersion() : ""; }

    // No port parameters pass through: -5024 while the library can be used, not stored.
    std::int32_t pliPutParam(std::int32_t, const char*, const char*) override
    try {
        const std::int32_t refused = refusal();
        return refused < 0 ? refused : err::NotImplemented;
    } catch (...) {
        return err::NotImplemented;
    }
    std::int32_t pliGetParam(std::int32_t, const char*, std::string&) override
    try {
        const std::int32_t refused = refusal();
        return refused < 0 ? refused : err::NotImplemented;
    } catch (...) {
        return err::NotImplemented;
    }

protected:
    DeviceLibraryPlugin(ConnectionRecord* owner, std::int32_t kind, std::uint32_t category)
        : TovraPlugin(owner), category_(category)
    {
        kind_ = kind;
        loaded_ = library_.load();
        if (!loaded_) {
            TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, "Load ", library_.name(), " failed: ",
                            library_.statusText());
            return;
        }
        versionOk_ = library_.isCompatible();
        if (versionOk_) TOVRA_LOG_TRACE(logger(), category_, library_.versionText());
        else TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, library_.versionText());
    }

    // 0 while the library can be used; else -5021 or -5022, stored as the last error and
    // logged under `method`.
    std::int32_t refusal(std::string_view method = TOVRA_LOG_METHOD, int line = __LINE__)
    {
        std::int32_t code = err::Ok;
        if (!loaded_) code = fail(err::CannotLoadPlugin);
        else if (!versionOk_) code = fail(err::PluginVersionMismatch);
        if (code < 0 && logger().isEnabled(category_ | logcat::Error))
            logger().error(method, line,
                           code == err::PluginVersionMismatch ? library_.versionText() : libraryErrorText(code));
        return code;
    }

    // A transmit's result is kept as the last error whatever its sign.
    std::int32_t transmitted(std::int32_t result, std::string_view what)
    {
        lastError_ = result;
        if (result < 0) TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, what, " ", library_.errorText(result));
        else TOVRA_LOG_TRACE(logger(), category_, what, " ", result);
        return result;
    }

    // What a library that delivers whole frames answered a receive of `size` bytes: the
    // frame's length (never more than the buffer holds), pending for its time-out (0), or
    // the stored error.
    std::int32_t wholeFrame(std::int32_t result, std::size_t size)
    {
        if (result == 0) return err::ReceivePending;
        if (result < 0) {
            TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, "Receive ", library_.errorText(result));
            return fail(result);
        }
        if (static_cast<std::size_t>(result) > size) {
            TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, "Receive reported ", result, " bytes for ", size);
            return static_cast<std::int32_t>(size);
        }
        return result;
    }

    static std::int32_t clampedSize(std::size_t size)
    {
        return static_cast<std::int32_t>(std::min<std::size_t>(size, INT32_MAX));
    }

    TovraLogger& logger() const { return owner_->logger(); }
    std::uint32_t category() const { return category_; }

    Library library_;
    bool versionOk_ = false;

private:
    const std::uint32_t category_;
};

// A device library plugin over a library that carries whole frames: its transmit takes
// one, its receive gives one (0 on its time-out), its close ends the connection.
template <typename Library>
class WholeFramePlugin : public DeviceLibraryPlugin<Library> {
public:
    std::int32_t pliDisconnect(std::int32_t portHandle) override
    try {
        TOVRA_REQUIRE_LIBRARY();
        const std::int32_t result = this->library_.close()(portHandle);
        if (result < 0) {
            TOVRA_LOG_ERROR(this->logger(), this->category() | logcat::Error, "Disconnect ",
                            this->library_.errorText(result));
            return this->fail(result);
        }
        TOVRA_LOG_TRACE(this->logger(), this->category(), disconnectedText_);
        return err::Ok;
    } catch (...) {
        return this->fail(err::DisconnectFailed);
    }

    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override
    try {
        TOVRA_REQUIRE_LIBRARY();
        return this->transmitted(this->library_.transmit()(portHandle, data, this->clampedSize(length)), "Transmit");
    } catch (...) {
        return this->fail(err::DisconnectedByPeer);
    }

    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override
    try {
        TOVRA_REQUIRE_LIBRARY();
        TOVRA_LOG_TRACE(this->logger(), this->category(), "Start receive");
        return this->wholeFrame(this->library_.receive()(portHandle, buffer, this->clampedSize(bufferSize)),
                                bufferSize);
    } catch (...) {
        return this->fail(err::DisconnectedByPeer);
    }

protected:
    WholeFramePlugin(ConnectionRecord* owner, std::int32_t kind, std::uint32_t category, const char* disconnectedText)
        : DeviceLibraryPlugin<Library>(owner, kind, category), disconnectedText_(disconnectedText)
    {
    }

private:
    const char* const disconnectedText_;
};

} // namespace tovra
