// Sockets: the thin layer between the transports and the operating system's
// socket interface. Every function reports through its return value and never
// throws; failures leave their cause in lastSocketError().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tovra::platform {

// A socket of the operating system, widened to a pointer-sized integer.
using SocketHandle = std::intptr_t;
inline constexpr SocketHandle kInvalidSocket = -1;

enum class AddressFamily { none, ipv4, ipv6 };
enum class SocketKind { stream, datagram };

// Opaque storage big enough for any socket address of the platform. A zeroed
// object holds no address (family none).
struct SocketAddress {
    alignas(8) unsigned char storage[128];
};

// --- Start-up -------------------------------------------------------------
// Starts the socket library once per process, on first use, and keeps it for
// the life of the process. Thread-safe. Every function below that needs the
// library calls it itself, so callers only use it to learn whether it worked.
bool ensureNetwork();
// Counted start and stop, for objects that own their own share of the socket
// library (WSAStartup 2.2 / WSACleanup on Windows, no-ops elsewhere).
// startNetwork returns 0 or the start-up error; call stopNetwork only after a 0.
int startNetwork();
void stopNetwork();

// --- Errors ---------------------------------------------------------------
// The calling thread's last socket error number (errno / WSAGetLastError).
int lastSocketError();
bool isConnectionReset(int error);
bool isConnectionRefused(int error);
// A non-blocking connect that has started but not finished yet.
bool isConnectInProgress(int error);
// A non-blocking send or receive that would have to wait.
bool isWouldBlock(int error);
// The socket option is unknown to this system's network stack.
bool isOptionUnsupported(int error);

// --- Sockets --------------------------------------------------------------
// kInvalidSocket on failure (also for family none).
SocketHandle openSocket(AddressFamily family, SocketKind kind);
// 0, or -1 with lastSocketError() set. Closing kInvalidSocket fails.
int closeSocket(SocketHandle socket);
// Shuts down both directions.
bool shutdownSocket(SocketHandle socket);
bool setNonBlocking(SocketHandle socket, bool on);

// 0 when connected, otherwise the socket error number (never 0). On a
// non-blocking socket isConnectInProgress(result) means: wait until writable,
// then read socketError().
int connectSocket(SocketHandle socket, const SocketAddress& address);
bool bindSocket(SocketHandle socket, const SocketAddress& address);
bool listenSocket(SocketHandle socket, int backlog);
// Accepts one pending connection; the peer's address goes to *peer when given.
// The new socket is blocking on Linux and inherits the listener's mode on
// Windows; set the mode explicitly.
SocketHandle acceptSocket(SocketHandle socket, SocketAddress* peer);
// The local address a socket is bound to (getsockname).
bool localAddress(SocketHandle socket, SocketAddress& address);

// Byte counts, or -1 on failure. Sending never raises SIGPIPE; a broken
// connection reports an error instead. recvBytes returns 0 when the peer
// closed the connection.
std::ptrdiff_t sendBytes(SocketHandle socket, const void* data, std::size_t length);
std::ptrdiff_t recvBytes(SocketHandle socket, void* buffer, std::size_t length);
std::ptrdiff_t sendDatagram(SocketHandle socket, const void* data, std::size_t length,
                            const SocketAddress& to);
// Receives one datagram; its sender's address goes to `from`. Byte count, or -1 on
// failure. A datagram longer than the buffer is lost beyond it: Linux returns the part
// that fits, Windows fails with WSAEMSGSIZE.
std::ptrdiff_t recvDatagram(SocketHandle socket, void* buffer, std::size_t length, SocketAddress& from);
// Bytes that can be read without waiting (FIONREAD), or -1 on failure.
long availableBytes(SocketHandle socket);

// --- Streams whose receive waits in the call --------------------------------
// A connected stream set up so that a receive can wait for its data inside the call itself
// (one system call where a wait and a read would take two) while sends never wait for room:
// blocking with non-waiting sends on Linux, non-blocking on Windows.
bool setWaitingReceive(SocketHandle socket);
// A send on such a stream: what fits now, -1 with isWouldBlock() when nothing does.
std::ptrdiff_t sendNow(SocketHandle socket, const void* data, std::size_t length);
// Up to `length` bytes, waiting at most timeoutMs (at least 1) for the first: the count, 0 at
// the end of the stream, -1 on failure or, with isWouldBlock(lastSocketError()), when the
// time is up. `waitSet` keeps between calls what the socket's wait was last set to: start
// it at -1 for a new socket.
std::ptrdiff_t recvWithin(SocketHandle socket, void* buffer, std::size_t length, int timeoutMs, int& waitSet);

// Waits until the socket is readable and/or writable, as requested.
// Result: -1 on failure, 0 on time-out, otherwise a combination of the flags
// below. A socket with a pending error or hang-up counts as ready for every
// requested direction (and carries kWaitError), so a failed connect shows up
// as writable and a reset connection as readable. timeoutMs < 0 waits forever.
inline constexpr int kWaitReadable = 1;
inline constexpr int kWaitWritable = 2;
inline constexpr int kWaitError = 4;
int waitSocket(SocketHandle socket, bool readable, bool writable, int timeoutMs);
// Waits until `socket` is readable (or failed: kWaitReadable | kWaitError) or `wake` is
// readable (kWaitWoken): a thread that sleeps on its socket, and on a stop, at once.
inline constexpr int kWaitWoken = 8;
int waitReadableOrWoken(SocketHandle socket, SocketHandle wake, int timeoutMs);

// --- Options (true on success) ---------------------------------------------
bool setLinger(SocketHandle socket, bool on, int seconds);
bool setReuseAddress(SocketHandle socket, bool on);
bool setNoDelay(SocketHandle socket, bool on);
bool setKeepAlive(SocketHandle socket, bool on);
// Keep-alive tuning (TCP_KEEPIDLE, TCP_KEEPCNT, TCP_KEEPINTVL). Windows stacks
// older than Windows 10 1709 lack these options: there setKeepIdle falls back
// to SIO_KEEPALIVE_VALS (which also turns keep-alive on and sets the probe
// interval to 1 s), and setKeepCount / setKeepInterval fail with an error for
// which isOptionUnsupported() is true.
bool setKeepIdle(SocketHandle socket, int seconds);
bool setKeepCount(SocketHandle socket, int count);
bool setKeepInterval(SocketHandle socket, int seconds);
// Reads and clears the socket's pending error (SO_ERROR) into error.
bool socketError(SocketHandle socket, int& error);

// --- Addresses --------------------------------------------------------------
void clearAddress(SocketAddress& address);
AddressFamily addressFamily(const SocketAddress& address);
// Port in host order, -1 when the family is neither IPv4 nor IPv6.
int addressPort(const SocketAddress& address);
// Sets the port of an IPv4 or IPv6 address; false for any other family.
bool setAddressPort(SocketAddress& address, std::uint16_t port);
// sizeof the platform's sockaddr_in / sockaddr_in6 for the family, else 0.
int addressLength(const SocketAddress& address);
// Numeric text of the address (inet_ntop), "" when it has none.
std::string addressText(const SocketAddress& address);

// Parses a numeric IPv4 text, else a numeric IPv6 text; false when neither.
// On success the address holds the family, the address and the port.
bool parseNumericAddress(const char* text, std::uint16_t port, SocketAddress& address);
// Resolves a host name (getaddrinfo) and takes the first IPv4 or IPv6 result;
// family none accepts both, otherwise only that family. false when nothing
// usable was found.
bool resolveHostAddress(const char* name, std::uint16_t port, SocketAddress& address,
                        AddressFamily family = AddressFamily::none);

}  // namespace tovra::platform
