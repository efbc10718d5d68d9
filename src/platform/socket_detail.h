// Internals shared by the socket implementations of every OS.
#pragma once

#include "platform/net.h"

namespace tovra::platform::detail {

// The OS's address family number stored in an address, and the number of a family.
int familyOf(const SocketAddress& address);
int nativeFamily(AddressFamily family);

}  // namespace tovra::platform::detail
