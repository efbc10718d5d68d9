// The operating system's side of a serial port: one implementation file per system
// (linux/ over termios, windows/ over the Win32 communications API). Everything else in
// the library is the same on both.
#pragma once

#include "line_settings.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace zkcom {

enum class ModemLine { rts, dtr };

struct ReadResult {
    enum Kind {
        data,     // `count` bytes were read
        nothing,  // the wait ran out (or a spurious wake-up): look at the clock again
        woken,    // wake() was called
        hungUp,   // the line is gone (pty master closed, adapter pulled) and stays gone
        failed,
    };
    Kind kind = nothing;
    std::size_t count = 0;
};

// An open port. read, write, pause and wake may run at the same time from different
// threads; apply, setRs485 and setModemLine are serialised by the caller.
class SerialLine {
public:
    // Opens `path` exclusively, raw, without making it a controlling terminal.
    // kOk and the line, or an error code.
    static std::int32_t open(const std::string& path, std::unique_ptr<SerialLine>& line);
    ~SerialLine();
    SerialLine(const SerialLine&) = delete;
    SerialLine& operator=(const SerialLine&) = delete;

    // Speed and frame format; drops input waiting at the old settings. kOk or an error.
    std::int32_t apply(const LineSettings& settings);
    // kOk, also where the port has no RS-485 mode to switch; or an error.
    std::int32_t setRs485(bool on);
    // kOk, kIgnored where the port has no such control line, or an error.
    std::int32_t setModemLine(ModemLine line, bool on);
    void dropInput();

    // Waits up to `timeoutMs` for input and reads what is there, at most `size` bytes.
    ReadResult read(std::uint8_t* buffer, std::size_t size, int timeoutMs);
    // Writes all bytes, waiting for room; gives up after `stallMs` without progress.
    // kOk, kPortClosed when woken, or an error.
    std::int32_t write(const std::uint8_t* data, std::size_t size, int stallMs);
    // Sleeps `ms`, or less once woken.
    void pause(int ms);
    // Ends every wait in read, write and pause, now and later.
    void wake();

private:
    struct System;
    explicit SerialLine(std::unique_ptr<System> system);
    std::unique_ptr<System> system_;
};

// The device a port number stands for: the variable ZKCOM_COM<N> when set, else the
// system's own name (and on Linux <ZKCOM_PORTDIR>/com<N> before that).
std::string portPath(int number);
// kOk when the port's device is there, checked without opening it; else kPortAbsent.
std::int32_t detectPort(int number);

// The value of an environment variable; nullopt when unset or empty.
std::optional<std::string> environmentValue(const char* name);

} // namespace zkcom
