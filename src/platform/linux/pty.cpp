// Pseudo-terminals through posix_openpt.
#include "platform/pty.h"

#include "platform/net.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

namespace tovra::platform {
namespace {

// The slave side each master keeps open, so that the slave's own users can come and go.
std::mutex heldLock;
std::map<int, int> heldSlaves;

struct Speed {
    speed_t code;
    int baud;
};
constexpr Speed kSpeeds[] = {
    {B50, 50},           {B75, 75},           {B110, 110},         {B300, 300},
    {B600, 600},         {B1200, 1200},       {B2400, 2400},       {B4800, 4800},
    {B9600, 9600},       {B19200, 19200},     {B38400, 38400},     {B57600, 57600},
    {B115200, 115200},   {B230400, 230400},   {B460800, 460800},   {B500000, 500000},
    {B576000, 576000},   {B921600, 921600},   {B1000000, 1000000}, {B1152000, 1152000},
    {B1500000, 1500000}, {B2000000, 2000000}, {B2500000, 2500000}, {B3000000, 3000000},
    {B3500000, 3500000}, {B4000000, 4000000},
};

int baudOf(speed_t code)
{
    for (const Speed& speed : kSpeeds) {
        if (speed.code == code) return speed.baud;
    }
    return 0;
}

}  // namespace

PtyHandle openPty(std::string& slavePath)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0) return kInvalidPty;
    char name[128];
    if (::grantpt(master) != 0 || ::unlockpt(master) != 0 || ::ptsname_r(master, name, sizeof name) != 0) {
        ::close(master);
        return kInvalidPty;
    }
    const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        ::close(master);
        return kInvalidPty;
    }
    // Raw, so that the line discipline neither echoes nor rewrites a byte.
    termios raw{};
    if (::tcgetattr(slave, &raw) == 0) {
        ::cfmakeraw(&raw);
        ::tcsetattr(slave, TCSANOW, &raw);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    {
        std::lock_guard guard(heldLock);
        heldSlaves[master] = slave;
    }
    slavePath = name;
    return master;
}

void closePty(PtyHandle pty)
{
    if (pty == kInvalidPty) return;
    const int master = static_cast<int>(pty);
    int slave = -1;
    {
        std::lock_guard guard(heldLock);
        const auto it = heldSlaves.find(master);
        if (it != heldSlaves.end()) {
            slave = it->second;
            heldSlaves.erase(it);
        }
    }
    if (slave >= 0) ::close(slave);
    ::close(master);
}

bool ptyLineSettings(PtyHandle pty, PtyLineSettings& settings)
{
    termios t{};
    if (::tcgetattr(static_cast<int>(pty), &t) != 0) return false;
    settings.baud = baudOf(::cfgetospeed(&t));
    // The pty driver clears PARENB: parity shows only through the input check.
    settings.parity = (t.c_iflag & INPCK) == 0 ? 'N' : (t.c_cflag & PARODD) != 0 ? 'O' : 'E';
    settings.stopBits = (t.c_cflag & CSTOPB) != 0 ? 2 : 1;
    return true;
}

std::ptrdiff_t ptyRead(PtyHandle pty, void* buffer, std::size_t length)
{
    ssize_t r;
    do {
        r = ::read(static_cast<int>(pty), buffer, length);
    } while (r < 0 && errno == EINTR);
    return r;
}

std::ptrdiff_t ptyWrite(PtyHandle pty, const void* data, std::size_t length)
{
    ssize_t r;
    do {
        r = ::write(static_cast<int>(pty), data, length);
    } while (r < 0 && errno == EINTR);
    return r;
}

int waitPty(PtyHandle pty, bool readable, bool writable, int timeoutMs)
{
    // A descriptor is a descriptor: the socket wait serves here too.
    return waitSocket(static_cast<SocketHandle>(pty), readable, writable, timeoutMs);
}

bool ptyUnread(PtyHandle pty)
{
    int slave = -1;
    {
        std::lock_guard guard(heldLock);
        const auto it = heldSlaves.find(static_cast<int>(pty));
        if (it != heldSlaves.end()) slave = it->second;
    }
    if (slave < 0) return false;
    // Asking the held slave: its poll also counts what the driver has not yet handed
    // to the line discipline, which its input-queue count would miss.
    pollfd p{slave, POLLIN, 0};
    int r;
    do {
        r = ::poll(&p, 1, 0);
    } while (r < 0 && errno == EINTR);
    return r > 0 && (p.revents & POLLIN) != 0;
}

PtyHandle openPtySlave(const std::string& path)
{
    const int slave = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (slave < 0) return kInvalidPty;
    termios raw{};
    if (::tcgetattr(slave, &raw) != 0) {
        ::close(slave);
        return kInvalidPty;
    }
    ::cfmakeraw(&raw);
    ::tcsetattr(slave, TCSANOW, &raw);
    return slave;
}

bool setPtySlaveSettings(PtyHandle slave, const PtyLineSettings& settings)
{
    const int fd = static_cast<int>(slave);
    speed_t code = B0;
    for (const Speed& speed : kSpeeds) {
        if (speed.baud == settings.baud) code = speed.code;
    }
    termios t{};
    if (code == B0 || ::tcgetattr(fd, &t) != 0) return false;
    ::cfmakeraw(&t);
    if (::cfsetispeed(&t, code) != 0 || ::cfsetospeed(&t, code) != 0) return false;
    t.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD | CSTOPB);
    t.c_iflag &= ~static_cast<tcflag_t>(INPCK);
    if (settings.parity == 'E' || settings.parity == 'O') {
        t.c_cflag |= PARENB;
        t.c_iflag |= INPCK;
        if (settings.parity == 'O') t.c_cflag |= PARODD;
    }
    if (settings.stopBits == 2) t.c_cflag |= CSTOPB;
    // glibc reports EINVAL when nothing changed (a pty already at these settings): judge by
    // what the line reads back.
    if (::tcsetattr(fd, TCSANOW, &t) != 0) {
        termios now{};
        if (errno != EINVAL || ::tcgetattr(fd, &now) != 0 || ::cfgetospeed(&now) != code) return false;
    }
    ::tcflush(fd, TCIFLUSH);
    return true;
}

void closePtySlave(PtyHandle slave)
{
    if (slave != kInvalidPty) ::close(static_cast<int>(slave));
}

}  // namespace tovra::platform
