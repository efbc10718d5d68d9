// The headers that socket addresses need on Linux.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tovra::platform::detail {
using NativeFamily = sa_family_t;
inline bool networkReady() { return true; }
}  // namespace tovra::platform::detail
