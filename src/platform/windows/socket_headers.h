// The headers that socket addresses need on Windows.
#pragma once

#include "platform/net.h"
#include "platform/windows/win.h"

namespace tovra::platform::detail {
using NativeFamily = ADDRESS_FAMILY;
// Address conversions need Windows Sockets started.
inline bool networkReady() { return ensureNetwork(); }
}  // namespace tovra::platform::detail
