// Pseudo-terminals, for a simulated reader on a serial line: this process holds the
// master side, and whoever opens the slave path sees a serial port. Linux only; on
// Windows every call fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tovra::platform {

using PtyHandle = std::intptr_t;
inline constexpr PtyHandle kInvalidPty = -1;

// The line settings that the slave's user has set, as far as the master can see them:
// speed, parity (from INPCK and PARODD: 'N', 'E' or 'O') and stop bits. The data bits
// are not visible on a pseudo-terminal.
struct PtyLineSettings {
    int baud = 0;
    char parity = 'N';
    int stopBits = 1;
};

// Opens a new master (non-blocking) and gives the slave's path. The master also keeps
// the slave open itself, so that the slave's user may open and close it without the
// master seeing a hang-up. kInvalidPty on failure.
PtyHandle openPty(std::string& slavePath);
// Closes the master: the slave's user sees a hang-up.
void closePty(PtyHandle pty);
bool ptyLineSettings(PtyHandle pty, PtyLineSettings& settings);
// Byte counts, or -1 (nothing to read yet is -1 with isWouldBlock(lastSocketError())).
std::ptrdiff_t ptyRead(PtyHandle pty, void* buffer, std::size_t length);
std::ptrdiff_t ptyWrite(PtyHandle pty, const void* data, std::size_t length);
// As waitSocket: -1 failure, 0 time-out, else kWaitReadable / kWaitWritable (with
// kWaitError on a hang-up).
int waitPty(PtyHandle pty, bool readable, bool writable, int timeoutMs);
// True while the slave's users have not read everything the master wrote. A hang-up
// throws that away, so a master that wants its last bytes seen waits for this first.
bool ptyUnread(PtyHandle pty);

// --- The slave's side, as a serial port's user sees it (tests) ---------------------
// Opens the slave path (non-blocking, raw). Read, write and wait on the handle with
// ptyRead, ptyWrite and waitPty; once the master is gone, waitPty reports kWaitError
// and ptyRead returns 0. kInvalidPty on failure.
PtyHandle openPtySlave(const std::string& path);
// Sets speed, parity and stop bits as a serial port's user does: raw mode stays, and
// the slave's pending input is flushed. False for a speed this system cannot set.
bool setPtySlaveSettings(PtyHandle slave, const PtyLineSettings& settings);
void closePtySlave(PtyHandle slave);

}  // namespace tovra::platform
