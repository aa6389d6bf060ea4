#include <vesk/SerialPort.h>

#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <termios.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/SerialPort";

using StreamErrorId = std::IBinStreamBase::StreamErrorId;

constexpr ErrnoRow DRAIN_ERRORS[] = {
    // Every failure means that the line did not take the output.
    {OTHERS, SysErrorId::INPUT_OUTPUT, StreamErrorId::TRANSFER_FAILED},
};

struct SpeedRow {
    unsigned int baud_rate;
    speed_t speed;
};

constexpr SpeedRow SPEEDS[] = {
    {50, B50},       {300, B300},     {1200, B1200},   {2400, B2400},     {4800, B4800},     {9600, B9600},
    {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400},
};
static_assert(B50 == 1 && B300 == 7 && B1200 == 9 && B2400 == 11 && B4800 == 12 && B9600 == 13);
static_assert(B19200 == 14 && B38400 == 15);
#ifdef __powerpc__
// The numbers of the fast speeds follow the others. `cfsetospeed` accepts each number below 256 there.
static_assert(B57600 == 0x10 && B115200 == 0x11 && B230400 == 0x12);
#else
static_assert(B57600 == 0x1001 && B115200 == 0x1002 && B230400 == 0x1003);
#endif

/// Returns the system's constant for a speed. Returns an unknown speed unchanged, and the system refuses it.
speed_t getSpeed(unsigned int baud_rate) noexcept {
    for (SpeedRow const& row : SPEEDS) {
        if (row.baud_rate == baud_rate) {
            return row.speed;
        }
    }
    return baud_rate;
}

void setFlag(tcflag_t& flags, tcflag_t flag, bool on) noexcept {
    flags = on ? flags | flag : flags & ~flag;
}

void setCheck(tcflag_t& flags, SerialPort::Parity parity) noexcept {
    switch (parity) {
    case SerialPort::Parity::NONE:
    case SerialPort::Parity::MARK: // `open` has refused these two.
    case SerialPort::Parity::SPACE:
        setFlag(flags, PARENB, false);
        break;
    case SerialPort::Parity::EVEN:
        setFlag(flags, PARENB, true);
        setFlag(flags, PARODD, false);
        break;
    case SerialPort::Parity::ODD:
        setFlag(flags, PARENB | PARODD, true);
        break;
    }
}

} // namespace

SerialPort::~SerialPort() {
    if (!isValid()) {
        return;
    }
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (flushAndClose()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~SerialPort", "error closing SerialPort");
        std::ErrorStorage::ack();
    }
}

bool SerialPort::open() {
    m_had_error = isValid() && close();
    if (m_had_error) {
        return true;
    }
    closeUnbuffered();
    if (m_parity == Parity::MARK || m_parity == Parity::SPACE) {
        m_had_error = true;
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::NOT_SUPPORTED,
            "MARK/SPACE setting is not supported on POSIX");
        return true;
    }
    if (m_device.empty()) {
        m_had_error = true;
        report(SOURCE, Chain::NEW, FileAccessErrorId::BAD_PATH, "<empty string given>");
        return true;
    }
    OpenFlags const flags = m_blocking ? READ_WRITE : READ_WRITE | NON_BLOCK;
    if (BinFileBase::open(m_device.c_str(), flags, DEFAULT_ACCESS)) {
        return true;
    }
    return configure() && giveUp();
}

/// Applies the settings to the open line. Returns true on failure, with the reason in `errno`.
bool SerialPort::configure() {
    termios line;
    if (tcgetattr(m_fd, &line) != 0) {
        return true;
    }
    cfmakeraw(&line);
    speed_t const speed = getSpeed(m_baud_rate);
    bool const output_failed = cfsetospeed(&line, speed) != 0;
    if (cfsetispeed(&line, speed) != 0 || output_failed) {
        return true;
    }
    setFlag(line.c_iflag, IXON, m_xon);
    setFlag(line.c_iflag, IXOFF, m_xoff);
    setFlag(line.c_cflag, CSTOPB, m_stop_bits == 2);
    setCheck(line.c_cflag, m_parity);
    setFlag(line.c_cflag, CREAD, true);
    return tcsetattr(m_fd, TCSANOW, &line) != 0;
}

/// Closes the line after `open` could not configure it. Always returns true.
bool SerialPort::giveUp() {
    // Taken before the close, which changes `errno`.
    SystemErrorText const reason;
    static_cast<void>(close());
    closeUnbuffered();
    m_had_error = true;
    report(SOURCE, Chain::UNKNOWN, SysErrorId::UNCLASSIFIED, reason.get());
    report(SOURCE, Chain::ON_TOP, FileAccessErrorId::UNCLASSIFIED, m_device.c_str());
    return true;
}

/// Closes a line that is open although the allocation of a buffer failed. The object is then never valid, so
/// that nothing else closes the descriptor.
void SerialPort::closeUnbuffered() {
    if (m_fd != -1 && !isValid()) {
        closeFd(m_fd);
        m_fd = -1;
    }
}

bool SerialPort::performFlush() {
    m_had_error = false;
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "attempted flush on invalid file object");
        report(SOURCE, Chain::ON_TOP, StreamErrorId::UNUSABLE);
        m_had_error = true;
        return true;
    }
    if (retryOnEintr([&] { return tcdrain(m_fd); }) == 0) {
        return false;
    }
    classify(SOURCE, DRAIN_ERRORS, errno);
    m_had_error = true;
    return true;
}

} // namespace vesk
