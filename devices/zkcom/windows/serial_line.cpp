// Serial ports over the Win32 communications API, with overlapped I/O throughout: on a
// handle opened for synchronous I/O a waiting ReadFile holds up every WriteFile until it
// returns, and nothing could wake it.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "serial_line.h"

#include "error_codes.h"

#include <algorithm>

namespace zkcom {
namespace {

// A read returns as soon as a byte is there, or after this long with nothing; the caller's
// own wait goes round again until its deadline.
constexpr DWORD kReadSliceMs = 100;
// Bytes handed to one WriteFile, so that a stall is noticed within one stall period.
constexpr std::size_t kWriteChunk = 4096;

// A port whose device went away (a pulled USB adapter; under wine, a hung-up tty).
bool isGone(DWORD error)
{
    return error == ERROR_BAD_COMMAND || error == ERROR_DEVICE_REMOVED || error == ERROR_GEN_FAILURE ||
           error == ERROR_ACCESS_DENIED || error == ERROR_INVALID_HANDLE || error == ERROR_DEVICE_NOT_CONNECTED ||
           error == ERROR_BROKEN_PIPE || error == ERROR_NOT_READY || error == ERROR_IO_DEVICE;
}

bool isUnsupported(DWORD error)
{
    return error == ERROR_NOT_SUPPORTED || error == ERROR_INVALID_FUNCTION || error == ERROR_INVALID_PARAMETER;
}

BYTE parityOf(char parity)
{
    return parity == 'E' ? EVENPARITY : parity == 'O' ? ODDPARITY : NOPARITY;
}

void setLine(DCB& dcb, const LineSettings& settings)
{
    dcb.BaudRate = settings.baud;
    dcb.ByteSize = static_cast<BYTE>(settings.dataBits);
    dcb.Parity = parityOf(settings.parity);
    dcb.StopBits = settings.stopBits == 2 ? TWOSTOPBITS : ONESTOPBIT;
    dcb.fParity = settings.parity != 'N';
}

} // namespace

struct SerialLine::System {
    HANDLE port = INVALID_HANDLE_VALUE;
    // What apply() last set: GetCommState cannot be trusted to read parity back (a
    // pseudo-terminal under wine always reads "none"), so later changes start from this.
    bool lineApplied = false;
    LineSettings line;
    HANDLE wakeEvent = nullptr; // manual reset, set for good by wake()
    HANDLE readEvent = nullptr;
    HANDLE writeEvent = nullptr;

    ~System()
    {
        for (HANDLE event : {wakeEvent, readEvent, writeEvent})
            if (event != nullptr) ::CloseHandle(event);
        if (port != INVALID_HANDLE_VALUE) ::CloseHandle(port);
    }

    // Waits for an overlapped operation, cancelling it when the wait ends first. Which
    // handle ended the wait: 0 the operation, 1 wake(), else a time-out.
    DWORD finish(OVERLAPPED& operation, HANDLE event, int timeoutMs, DWORD& transferred, DWORD& error)
    {
        const HANDLE waits[2] = {event, wakeEvent};
        const DWORD which = ::WaitForMultipleObjects(2, waits, FALSE, static_cast<DWORD>(std::max(timeoutMs, 0)));
        if (which != WAIT_OBJECT_0) ::CancelIoEx(port, &operation);
        error = ERROR_SUCCESS;
        if (!::GetOverlappedResult(port, &operation, &transferred, TRUE)) {
            error = ::GetLastError();
            if (error == ERROR_OPERATION_ABORTED) error = ERROR_SUCCESS;
        }
        return which - WAIT_OBJECT_0;
    }

    // What the port holds now, without waiting for more.
    ReadResult readWaiting(std::uint8_t* buffer, std::size_t size)
    {
        OVERLAPPED operation{};
        operation.hEvent = readEvent;
        DWORD got = 0;
        const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(size, MAXDWORD));
        if (::ReadFile(port, buffer, wanted, &got, &operation))
            return {got > 0 ? ReadResult::data : ReadResult::nothing, got};
        DWORD error = ::GetLastError();
        if (error != ERROR_IO_PENDING) return {isGone(error) ? ReadResult::hungUp : ReadResult::failed, 0};
        // Completes at once with what is there; the bound only guards against a driver that
        // does not.
        const DWORD which = finish(operation, readEvent, kReadSliceMs, got, error);
        if (got > 0) return {ReadResult::data, got};
        if (error != ERROR_SUCCESS) return {isGone(error) ? ReadResult::hungUp : ReadResult::failed, 0};
        return {which == 1 ? ReadResult::woken : ReadResult::nothing, 0};
    }
};

SerialLine::SerialLine(std::unique_ptr<System> system) : system_(std::move(system)) {}
SerialLine::~SerialLine() = default;

std::int32_t SerialLine::open(const std::string& path, std::unique_ptr<SerialLine>& line)
{
    auto system = std::make_unique<System>();
    // No sharing: a second open of the port fails with access denied.
    system->port = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED, nullptr);
    if (system->port == INVALID_HANDLE_VALUE) {
        const DWORD error = ::GetLastError();
        return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION ? kPortInUse : kCannotOpen;
    }
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!::GetCommState(system->port, &dcb)) return kNotASerialPort;
    // A read takes what is there and returns at once; waiting is WaitCommEvent's.
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = MAXDWORD;
    if (!::SetCommTimeouts(system->port, &timeouts)) return kNotASerialPort;
    if (!::SetCommMask(system->port, EV_RXCHAR)) return kNotASerialPort;
    for (HANDLE* event : {&system->wakeEvent, &system->readEvent, &system->writeEvent}) {
        *event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (*event == nullptr) return kCannotOpen;
    }
    line.reset(new SerialLine(std::move(system)));
    return kOk;
}

std::int32_t SerialLine::apply(const LineSettings& settings)
{
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!::GetCommState(system_->port, &dcb)) return isGone(::GetLastError()) ? kHungUp : kSettingsRejected;
    setLine(dcb, settings);
    dcb.fBinary = TRUE;
    // A byte with a parity error reads as 0x00, which the framing skips (as on Linux).
    dcb.fErrorChar = settings.parity != 'N';
    dcb.ErrorChar = 0;
    dcb.fNull = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fTXContinueOnXoff = TRUE;
    dcb.fAbortOnError = FALSE;
    // The control lines stay as SETRTS/SETDTR and opmode left them; only handshaking goes.
    if (dcb.fDtrControl == DTR_CONTROL_HANDSHAKE) dcb.fDtrControl = DTR_CONTROL_ENABLE;
    if (dcb.fRtsControl == RTS_CONTROL_HANDSHAKE) dcb.fRtsControl = RTS_CONTROL_ENABLE;
    // A driver may refuse a change that changes nothing (wine passes on the C library's
    // EINVAL for a tty): what counts is what the port now has, and only the speed must
    // stick, as on Linux, where a pty keeps no parity.
    if (!::SetCommState(system_->port, &dcb)) {
        const DWORD error = ::GetLastError();
        if (isGone(error)) return kHungUp;
        // Wine applies the speed, then the rest, step by step, and stops at the first step
        // that changes nothing: a new parity at the same speed never arrives. Passing
        // through another speed makes every step change something.
        DCB detour = dcb;
        detour.BaudRate = dcb.BaudRate == CBR_9600 ? CBR_19200 : CBR_9600;
        ::SetCommState(system_->port, &detour);
        ::SetCommState(system_->port, &dcb);
        DCB actual{};
        actual.DCBlength = sizeof actual;
        if (!::GetCommState(system_->port, &actual) || actual.BaudRate != settings.baud) return kSettingsRejected;
    }
    system_->line = settings;
    system_->lineApplied = true;
    dropInput();
    return kOk;
}

std::int32_t SerialLine::setRs485(bool on)
{
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!::GetCommState(system_->port, &dcb)) return isGone(::GetLastError()) ? kHungUp : kSettingsRejected;
    if (system_->lineApplied) setLine(dcb, system_->line);
    // The driver raises RTS while it sends, for the line driver's direction.
    dcb.fRtsControl = on ? RTS_CONTROL_TOGGLE : RTS_CONTROL_ENABLE;
    if (::SetCommState(system_->port, &dcb)) return kOk;
    const DWORD error = ::GetLastError();
    if (isUnsupported(error)) return kOk;
    return isGone(error) ? kHungUp : kSettingsRejected;
}

std::int32_t SerialLine::setModemLine(ModemLine line, bool on)
{
    const DWORD function = line == ModemLine::rts ? (on ? SETRTS : CLRRTS) : (on ? SETDTR : CLRDTR);
    if (::EscapeCommFunction(system_->port, function)) return kOk;
    const DWORD error = ::GetLastError();
    if (isUnsupported(error)) return kIgnored;
    return isGone(error) ? kHungUp : kCommandFailed;
}

void SerialLine::dropInput()
{
    ::PurgeComm(system_->port, PURGE_RXCLEAR);
}

ReadResult SerialLine::read(std::uint8_t* buffer, std::size_t size, int timeoutMs)
{
    ReadResult now = system_->readWaiting(buffer, size);
    if (now.kind != ReadResult::nothing) return now;
    // A read that waits for data of its own is not completed when data comes on every
    // system (wine waits out its time-out): wait for the next byte, then read again.
    OVERLAPPED operation{};
    operation.hEvent = system_->readEvent;
    DWORD events = 0;
    if (!::WaitCommEvent(system_->port, &events, &operation)) {
        DWORD error = ::GetLastError();
        if (error != ERROR_IO_PENDING) return {isGone(error) ? ReadResult::hungUp : ReadResult::failed, 0};
        // A byte that came just before the wait began raises no event: look once more.
        DWORD errors = 0;
        COMSTAT status{};
        const bool waiting = ::ClearCommError(system_->port, &errors, &status) && status.cbInQue > 0;
        DWORD transferred = 0;
        const DWORD which = system_->finish(operation, system_->readEvent, waiting ? 0 : timeoutMs, transferred, error);
        if (error != ERROR_SUCCESS) return {isGone(error) ? ReadResult::hungUp : ReadResult::failed, 0};
        if (which == 1) return {ReadResult::woken, 0};
    }
    return system_->readWaiting(buffer, size);
}

std::int32_t SerialLine::write(const std::uint8_t* data, std::size_t size, int stallMs)
{
    std::size_t done = 0;
    while (done < size) {
        OVERLAPPED operation{};
        operation.hEvent = system_->writeEvent;
        const DWORD chunk = static_cast<DWORD>(std::min(size - done, kWriteChunk));
        DWORD put = 0;
        DWORD which = 0;
        if (!::WriteFile(system_->port, data + done, chunk, &put, &operation)) {
            DWORD error = ::GetLastError();
            if (error != ERROR_IO_PENDING) return isGone(error) ? kHungUp : kTransmitFailed;
            which = system_->finish(operation, system_->writeEvent, stallMs, put, error);
            if (error != ERROR_SUCCESS) return isGone(error) ? kHungUp : kTransmitFailed;
        }
        done += put;
        if (which == 1) return kPortClosed;
        if (put == 0) return kTransmitStalled;
    }
    return kOk;
}

void SerialLine::pause(int ms)
{
    ::WaitForSingleObject(system_->wakeEvent, static_cast<DWORD>(std::max(ms, 0)));
}

void SerialLine::wake()
{
    ::SetEvent(system_->wakeEvent);
}

} // namespace zkcom
