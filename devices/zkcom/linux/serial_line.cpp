// Serial ports over termios. The descriptor stays non-blocking; every wait is a poll on
// the port and on an eventfd that wake() sets for good.
#include "serial_line.h"

#include "error_codes.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace zkcom {
namespace {

// The kernel's "no such ioctl" that leaks to user space from some drivers.
constexpr int kNoIoctlCommand = 515;

bool isUnsupported(int error)
{
    return error == ENOTTY || error == EINVAL || error == EOPNOTSUPP || error == kNoIoctlCommand;
}

// A descriptor whose device went away: a closed pty master, a pulled USB adapter.
bool isGone(int error)
{
    return error == EIO || error == ENXIO || error == ENODEV || error == EBADF;
}

speed_t speedOf(std::uint32_t baud)
{
    switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    case 460800: return B460800;
    case 921600: return B921600;
    default: return B0;
    }
}

tcflag_t sizeOf(int dataBits)
{
    switch (dataBits) {
    case 5: return CS5;
    case 6: return CS6;
    case 7: return CS7;
    default: return CS8;
    }
}

} // namespace

struct SerialLine::System {
    int fd = -1;
    int wakeFd = -1;

    ~System()
    {
        if (wakeFd >= 0) ::close(wakeFd);
        if (fd >= 0) ::close(fd);
    }
};

SerialLine::SerialLine(std::unique_ptr<System> system) : system_(std::move(system)) {}
SerialLine::~SerialLine() = default;

std::int32_t SerialLine::open(const std::string& path, std::unique_ptr<SerialLine>& line)
{
    auto system = std::make_unique<System>();
    // Non-blocking also keeps open from waiting for carrier on a modem line.
    system->fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (system->fd < 0) return errno == EBUSY ? kPortInUse : kCannotOpen;
    // TIOCEXCL would not keep out root, and it outlives us on a pty whose master holds
    // the slave open; an advisory lock does neither.
    if (::flock(system->fd, LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? kPortInUse : kCannotOpen;
    termios settings{};
    if (::tcgetattr(system->fd, &settings) != 0) return kNotASerialPort;
    system->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (system->wakeFd < 0) return kCannotOpen;
    line.reset(new SerialLine(std::move(system)));
    return kOk;
}

std::int32_t SerialLine::apply(const LineSettings& settings)
{
    const speed_t speed = speedOf(settings.baud);
    termios wanted{};
    if (speed == B0) return kUnsupportedBaud;
    if (::tcgetattr(system_->fd, &wanted) != 0) return isGone(errno) ? kHungUp : kSettingsRejected;
    ::cfmakeraw(&wanted);
    wanted.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    wanted.c_cflag |= CLOCAL | CREAD | sizeOf(settings.dataBits);
    if (settings.parity != 'N') wanted.c_cflag |= PARENB;
    if (settings.parity == 'O') wanted.c_cflag |= PARODD;
    if (settings.stopBits == 2) wanted.c_cflag |= CSTOPB;
    // With INPCK a byte with a parity error reads as 0x00, which the framing skips.
    wanted.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY | INPCK | IGNPAR | PARMRK);
    if (settings.parity != 'N') wanted.c_iflag |= INPCK;
    // With VMIN 0 a read finding nothing returns 0, which is also how a hang-up reads;
    // with VMIN 1 on a non-blocking descriptor it fails with EAGAIN instead.
    wanted.c_cc[VMIN] = 1;
    wanted.c_cc[VTIME] = 0;
    ::cfsetispeed(&wanted, speed);
    ::cfsetospeed(&wanted, speed);

    // The C library answers EINVAL when none of the changes took effect, as when the
    // same settings are set twice on a pty: what counts is what the port now has. Only
    // the speed must stick; a pty clears PARENB and forces CS8 whatever it is asked.
    if (::tcsetattr(system_->fd, TCSANOW, &wanted) != 0 && errno != EINVAL)
        return isGone(errno) ? kHungUp : kSettingsRejected;
    termios actual{};
    if (::tcgetattr(system_->fd, &actual) != 0) return isGone(errno) ? kHungUp : kSettingsRejected;
    if (::cfgetospeed(&actual) != speed) return kSettingsRejected;
    dropInput();
    return kOk;
}

std::int32_t SerialLine::setRs485(bool on)
{
    serial_rs485 mode{};
    if (::ioctl(system_->fd, TIOCGRS485, &mode) != 0) {
        if (isUnsupported(errno)) return kOk;
        return isGone(errno) ? kHungUp : kSettingsRejected;
    }
    // The driver drives RTS for the transmitter; delays set by the system stay.
    if (on) {
        mode.flags |= SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
        mode.flags &= ~static_cast<decltype(mode.flags)>(SER_RS485_RTS_AFTER_SEND);
    } else {
        mode.flags &= ~static_cast<decltype(mode.flags)>(SER_RS485_ENABLED);
    }
    if (::ioctl(system_->fd, TIOCSRS485, &mode) != 0) {
        if (isUnsupported(errno)) return kOk;
        return isGone(errno) ? kHungUp : kSettingsRejected;
    }
    return kOk;
}

std::int32_t SerialLine::setModemLine(ModemLine line, bool on)
{
    int bits = line == ModemLine::rts ? TIOCM_RTS : TIOCM_DTR;
    if (::ioctl(system_->fd, on ? TIOCMBIS : TIOCMBIC, &bits) == 0) return kOk;
    if (isUnsupported(errno)) return kIgnored;
    return isGone(errno) ? kHungUp : kCommandFailed;
}

void SerialLine::dropInput()
{
    ::tcflush(system_->fd, TCIFLUSH);
}

ReadResult SerialLine::read(std::uint8_t* buffer, std::size_t size, int timeoutMs)
{
    pollfd waits[2] = {{system_->fd, POLLIN, 0}, {system_->wakeFd, POLLIN, 0}};
    const int ready = ::poll(waits, 2, timeoutMs);
    if (ready < 0) return {errno == EINTR ? ReadResult::nothing : ReadResult::failed, 0};
    if (ready == 0) return {ReadResult::nothing, 0};
    if (waits[1].revents != 0) return {ReadResult::woken, 0};
    const bool broken = (waits[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    const ssize_t count = ::read(system_->fd, buffer, size);
    if (count > 0) return {ReadResult::data, static_cast<std::size_t>(count)};
    // A tty reads 0 bytes only after a hang-up: there is no end of file on a raw line.
    if (count == 0 || isGone(errno)) return {ReadResult::hungUp, 0};
    if (errno == EAGAIN || errno == EINTR) return {broken ? ReadResult::hungUp : ReadResult::nothing, 0};
    return {ReadResult::failed, 0};
}

std::int32_t SerialLine::write(const std::uint8_t* data, std::size_t size, int stallMs)
{
    using Clock = std::chrono::steady_clock;
    auto lastProgress = Clock::now();
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(system_->fd, data + done, size - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            lastProgress = Clock::now();
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EAGAIN) return isGone(errno) ? kHungUp : kTransmitFailed;
        const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastProgress);
        if (waited.count() >= stallMs) return kTransmitStalled;
        pollfd waits[2] = {{system_->fd, POLLOUT, 0}, {system_->wakeFd, POLLIN, 0}};
        const int ready = ::poll(waits, 2, stallMs - static_cast<int>(waited.count()));
        if (ready < 0 && errno != EINTR) return kTransmitFailed;
        if (waits[1].revents != 0) return kPortClosed;
        if ((waits[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return kHungUp;
    }
    return kOk;
}

void SerialLine::pause(int ms)
{
    using Clock = std::chrono::steady_clock;
    const auto until = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0) return;
        pollfd wait{system_->wakeFd, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(left)) > 0) return;
    }
}

void SerialLine::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(system_->wakeFd, &one, sizeof one);
}

} // namespace zkcom
