// Windows has no pseudo-terminals of this kind: every call fails.
#include "platform/pty.h"

namespace tovra::platform {

PtyHandle openPty(std::string&) { return kInvalidPty; }
void closePty(PtyHandle) {}
bool ptyLineSettings(PtyHandle, PtyLineSettings&) { return false; }
std::ptrdiff_t ptyRead(PtyHandle, void*, std::size_t) { return -1; }
std::ptrdiff_t ptyWrite(PtyHandle, const void*, std::size_t) { return -1; }
int waitPty(PtyHandle, bool, bool, int) { return -1; }
bool ptyUnread(PtyHandle) { return false; }
PtyHandle openPtySlave(const std::string&) { return kInvalidPty; }
bool setPtySlaveSettings(PtyHandle, const PtyLineSettings&) { return false; }
void closePtySlave(PtyHandle) {}

}  // namespace tovra::platform
