#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"

#include <vesk/FileAccessError.h>
#include <vesk/SerialPort.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ostream>
#include <poll.h>
#include <string>
#include <termios.h>
#include <type_traits>
#include <unistd.h>

namespace {
// What the last calls were given.
termios s_set{};
int s_set_action = -1;
int s_open_flags = 0;
// Whether settings only pretend to be made.
bool s_pretend = false;
} // namespace

VESK_INJECT_ERRNO(int, -1, tcgetattr, (int fd, termios* line), (fd, line))
VESK_INJECT_ERRNO(int, -1, cfsetospeed, (termios * line, speed_t speed), (line, speed))
VESK_INJECT_ERRNO(int, -1, cfsetispeed, (termios * line, speed_t speed), (line, speed))
VESK_INJECT_ERRNO(int, -1, tcdrain, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, fsync, (int fd), (fd))
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))

support::Injected inject_tcsetattr("tcsetattr");
extern "C" VESK_UNWATCHED int tcsetattr(int fd, int action, termios const* line) {
    int error = 0;
    if (inject_tcsetattr.fails(error)) {
        errno = error;
        return -1;
    }
    s_set = *line;
    s_set_action = action;
    if (s_pretend) {
        return 0;
    }
    return reinterpret_cast<int (*)(int, int, termios const*)>(inject_tcsetattr.getReal())(fd, action, line);
}

VESK_INJECT_OPEN(s_open_flags = flags)

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::getSlot;
using support::Injected;
using support::New;
using support::NewFault;
using support::rowText;
using support::systemText;
using support::TempFolder;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::SerialPort;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Parity = SerialPort::Parity;
using StreamBase = std::IBinStreamBase;

static_assert(std::is_same_v<std::underlying_type_t<Parity>, uint32_t>);
static_assert(static_cast<int>(Parity::NONE) == 0 && static_cast<int>(Parity::EVEN) == 1);
static_assert(static_cast<int>(Parity::ODD) == 2 && static_cast<int>(Parity::MARK) == 3);
static_assert(static_cast<int>(Parity::SPACE) == 4);

/// Both ends of a line. The test's own end of the device stays open, so that the device keeps its settings.
class PseudoTerminal {
public:
    PseudoTerminal() : m_master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        char path[64] = "";
        EXPECT_EQ(0, grantpt(m_master));
        EXPECT_EQ(0, unlockpt(m_master));
        EXPECT_EQ(0, ptsname_r(m_master, path, sizeof path));
        m_path = path;
        m_device = ::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_NE(-1, m_device) << strerror(errno);
    }
    ~PseudoTerminal() {
        ::close(m_device);
        ::close(m_master);
    }
    PseudoTerminal(PseudoTerminal const&) = delete;
    PseudoTerminal& operator=(PseudoTerminal const&) = delete;

    std::string const& getPath() const { return m_path; }

    void send(std::string const& text) const {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(m_master, text.data(), text.size()));
    }

    /// What arrives at the other end, as much as is expected.
    std::string receive(size_t size) const {
        std::string text;
        while (text.size() < size) {
            pollfd row{m_master, POLLIN, 0};
            char chunk[256];
            if (::poll(&row, 1, 20000) != 1) {
                ADD_FAILURE() << "nothing arrives behind \"" << text << "\"";
                break;
            }
            ssize_t const count = ::read(m_master, chunk, sizeof chunk);
            if (count <= 0) {
                ADD_FAILURE() << strerror(errno);
                break;
            }
            text.append(chunk, static_cast<size_t>(count));
        }
        return text;
    }

    termios getSettings() const {
        termios line{};
        EXPECT_EQ(0, tcgetattr(m_device, &line)) << strerror(errno);
        return line;
    }

    void change(termios const& line) const { EXPECT_EQ(0, tcsetattr(m_device, TCSANOW, &line)); }

private:
    int m_master;
    std::string m_path;
    int m_device = -1;
};

/// The root cause that `open` reports, and the report on top of it.
std::vector<ExpectedReport> refusal(int error, std::string const& device) {
    return {
        {SysError, SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(error))},
        {FileAccessError, FileAccessErrorId::UNCLASSIFIED, rowText(FileAccessErrorId::UNCLASSIFIED, device)}};
}

class SerialPortTest : public testing::Test {
protected:
    void TearDown() override { s_pretend = false; }

    PseudoTerminal m_terminal;
};

// ---- The object ----

TEST(SerialPort, keepsItsSettingsAndTouchesNoDevice) {
    Fault const opened(inject_open, 0);
    SerialPort port("/no/such/device", 115200, Parity::ODD, 2, true, false, false);
    EXPECT_EQ(0, opened.getCalls());
    EXPECT_EQ("/no/such/device", port.getDevice());
    EXPECT_EQ(115200U, port.getBaudRate());
    EXPECT_EQ(Parity::ODD, port.getParity());
    EXPECT_EQ(2, port.getStopBits());
    EXPECT_TRUE(port.getXon());
    EXPECT_FALSE(port.getXoff());
    EXPECT_FALSE(port.isValid());
    EXPECT_FALSE(port.isInputBuffered());
    EXPECT_FALSE(port.isOutputBuffered());
    port.setDevice("/other");
    port.setBaudRate(300);
    port.setParity(Parity::EVEN);
    port.setStopBits(1);
    port.setXon(false);
    port.setXoff(true);
    EXPECT_EQ("/other", port.getDevice());
    EXPECT_EQ(300U, port.getBaudRate());
    EXPECT_EQ(Parity::EVEN, port.getParity());
    EXPECT_EQ(1, port.getStopBits());
    EXPECT_FALSE(port.getXon());
    EXPECT_TRUE(port.getXoff());
}

TEST(SerialPort, passesTheBufferSizesOn) {
    SerialPort const port("/no/such/device", 9600, Parity::NONE, 1, false, false, true, 16, 0);
    EXPECT_TRUE(port.isInputBuffered());
    EXPECT_FALSE(port.isOutputBuffered());
    SerialPort const other("/no/such/device", 9600, Parity::NONE, 1, false, false, true, 0, 16);
    EXPECT_FALSE(other.isInputBuffered());
    EXPECT_TRUE(other.isOutputBuffered());
}

struct Slots : SerialPort {
    using SerialPort::performFlush;
    using SerialPort::StreamBinFileRW::checkWriteBufferConsistency;
};

TEST(SerialPort, flushStandsBehindTheOperationsOfTheBase) {
    EXPECT_EQ(7, getSlot(&Slots::checkWriteBufferConsistency));
    EXPECT_EQ(8, getSlot(&Slots::performFlush));
}

// ---- What is refused before the device is looked at ----

class SerialPortUnsupportedParity : public SerialPortTest, public testing::WithParamInterface<Parity> {};

TEST_P(SerialPortUnsupportedParity, isRefusedBeforeTheDevice) {
    std::vector<ExpectedReport> const expected = {
        {std::CommonError, std::CommonErrorId::NOT_SUPPORTED,
         rowText(std::CommonErrorId::NOT_SUPPORTED, "MARK/SPACE setting is not supported on POSIX")}};
    Fault const opened(inject_open, 0);
    for (std::string const& device : {m_terminal.getPath(), std::string()}) {
        SerialPort port(device, 9600, GetParam());
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        EXPECT_TRUE(port.open());
        EXPECT_TRUE(port.hadError());
        EXPECT_FALSE(port.isValid());
        EXPECT_TRUE(chainIs(expected));
    }
    EXPECT_EQ(0, opened.getCalls());
}

INSTANTIATE_TEST_SUITE_P(All, SerialPortUnsupportedParity, testing::Values(Parity::MARK, Parity::SPACE));

TEST(SerialPort, emptyDeviceIsABadPath) {
    Fault const opened(inject_open, 0);
    SerialPort port("");
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(port.open());
    EXPECT_TRUE(port.hadError());
    EXPECT_FALSE(port.isValid());
    EXPECT_TRUE(chainIs({{FileAccessErrorId::BAD_PATH, "Bad path '<empty string given>'"}}));
    EXPECT_EQ(0, opened.getCalls());
}

TEST_F(SerialPortTest, openPortIsClosedEvenIfItsNewSettingsAreRefused) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    port.setParity(Parity::MARK);
    EXPECT_TRUE(port.open());
    EXPECT_FALSE(port.isValid());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::NOT_SUPPORTED}}));
    port.setParity(Parity::NONE);
    ASSERT_FALSE(port.open());
    port.setDevice("");
    EXPECT_TRUE(port.open());
    EXPECT_FALSE(port.isValid());
    EXPECT_TRUE(chainIs({{FileAccessErrorId::BAD_PATH}}));
}

TEST(SerialPort, missingDeviceIsReportedByTheOpenOfTheFile) {
    SerialPort port("/no/such/device");
    EXPECT_TRUE(port.open());
    EXPECT_FALSE(port.isValid());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
         {FileAccessError, FileAccessErrorId::BAD_PATH,
          rowText(FileAccessErrorId::BAD_PATH, "/no/such/device")}}));
}

// ---- How the line is set up ----

TEST_F(SerialPortTest, lineIsRawWithEightBits) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open()) << "defaults";
    EXPECT_TRUE(port.isValid());
    EXPECT_FALSE(port.hadError());
    termios const line = m_terminal.getSettings();
    termios raw = line;
    cfmakeraw(&raw);
    EXPECT_EQ(raw.c_iflag & ~static_cast<tcflag_t>(IXON | IXOFF), line.c_iflag);
    EXPECT_EQ(raw.c_oflag, line.c_oflag);
    EXPECT_EQ(raw.c_lflag, line.c_lflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8), line.c_cflag & CSIZE);
    EXPECT_EQ(0U, line.c_cflag & (CSTOPB | PARENB));
    EXPECT_NE(0U, line.c_cflag & CREAD);
    EXPECT_EQ(1, line.c_cc[VMIN]);
    EXPECT_EQ(0, line.c_cc[VTIME]);
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&line));
    EXPECT_EQ(TCSANOW, s_set_action);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SerialPortTest, softwareFlowControlIsSetForEachDirection) {
    for (bool const xon : {false, true}) {
        for (bool const xoff : {false, true}) {
            // The device has it the other way round.
            termios before = m_terminal.getSettings();
            before.c_iflag = (xon ? 0U : IXON) | (xoff ? 0U : IXOFF);
            m_terminal.change(before);
            SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, xon, xoff);
            ASSERT_FALSE(port.open());
            termios const line = m_terminal.getSettings();
            EXPECT_EQ(xon ? IXON : 0U, line.c_iflag & IXON);
            EXPECT_EQ(xoff ? IXOFF : 0U, line.c_iflag & IXOFF);
        }
    }
}

TEST_F(SerialPortTest, onlyTwoStopBitsAreTwo) {
    for (int const given : {2, 0, 2, 1, 2, 3, 2, 255}) {
        auto const stop_bits = static_cast<uint8_t>(given);
        SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, stop_bits);
        ASSERT_FALSE(port.open());
        EXPECT_EQ(stop_bits == 2 ? CSTOPB : 0U, m_terminal.getSettings().c_cflag & CSTOPB) << given;
    }
}

TEST_F(SerialPortTest, receiverIsSwitchedOn) {
    s_pretend = true;
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    EXPECT_NE(0U, s_set.c_cflag & CREAD);
}

struct ParityRow {
    Parity parity;
    tcflag_t flags;
};

class SerialPortParity : public SerialPortTest, public testing::WithParamInterface<ParityRow> {};

TEST_P(SerialPortParity, isSetWhateverTheDeviceHad) {
    for (tcflag_t const odd : {0U, tcflag_t{PARODD}}) {
        termios before = m_terminal.getSettings();
        before.c_cflag = (before.c_cflag & ~static_cast<tcflag_t>(PARODD)) | odd;
        // It checks no characters, which the C library takes for a refusal unless something else changes with it.
        cfsetospeed(&before, B1200);
        m_terminal.change(before);
        ASSERT_EQ(odd, m_terminal.getSettings().c_cflag & PARODD);
        SerialPort port(m_terminal.getPath(), 9600, GetParam().parity);
        ASSERT_FALSE(port.open());
        EXPECT_EQ(GetParam().flags & PARENB, s_set.c_cflag & PARENB);
        if (GetParam().parity != Parity::NONE) {
            EXPECT_EQ(GetParam().flags & PARODD, s_set.c_cflag & PARODD);
            EXPECT_EQ(GetParam().flags & PARODD, m_terminal.getSettings().c_cflag & PARODD);
        } else {
            EXPECT_EQ(odd, s_set.c_cflag & PARODD) << "without a check it is left alone";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, SerialPortParity,
    testing::Values(
        ParityRow{Parity::NONE, 0}, //
        ParityRow{Parity::EVEN, PARENB}, ParityRow{Parity::ODD, PARENB | PARODD}));

TEST_F(SerialPortTest, parityThatNobodyKnowsIsNone) {
    SerialPort port(m_terminal.getPath(), 9600, static_cast<Parity>(5));
    ASSERT_FALSE(port.open());
    EXPECT_EQ(0U, s_set.c_cflag & PARENB);
}

TEST_F(SerialPortTest, modemLinesAndHardwareFlowControlAndCharactersStayAsTheDeviceHadThem) {
    for (bool const on : {true, false}) {
        termios before = m_terminal.getSettings();
        tcflag_t const flags = CLOCAL | CRTSCTS;
        before.c_cflag = on ? before.c_cflag | flags : before.c_cflag & ~flags;
        before.c_cc[VINTR] = on ? 'i' : 'j';
        before.c_cc[VSTART] = on ? 's' : 't';
        m_terminal.change(before);
        SerialPort port(m_terminal.getPath());
        ASSERT_FALSE(port.open());
        EXPECT_EQ(on ? flags : 0U, s_set.c_cflag & flags);
        EXPECT_EQ(on ? flags : 0U, m_terminal.getSettings().c_cflag & flags);
        EXPECT_EQ(before.c_cc[VINTR], m_terminal.getSettings().c_cc[VINTR]);
        EXPECT_EQ(before.c_cc[VSTART], m_terminal.getSettings().c_cc[VSTART]);
    }
}

// ---- Speeds ----

struct Speed {
    unsigned int baud_rate;
    speed_t constant;
};

void PrintTo(Speed const& speed, std::ostream* out) {
    *out << speed.baud_rate;
}

class SerialPortSpeeds : public SerialPortTest, public testing::WithParamInterface<Speed> {};

TEST_P(SerialPortSpeeds, areThoseOfBothDirections) {
    SerialPort port(m_terminal.getPath(), GetParam().baud_rate);
    ASSERT_FALSE(port.open());
    termios const line = m_terminal.getSettings();
    EXPECT_EQ(GetParam().constant, cfgetospeed(&line));
    EXPECT_EQ(GetParam().constant, cfgetispeed(&line));
}

INSTANTIATE_TEST_SUITE_P(
    All, SerialPortSpeeds,
    testing::Values(
        Speed{50, B50}, Speed{300, B300}, Speed{1200, B1200}, Speed{2400, B2400}, Speed{4800, B4800},
        Speed{9600, B9600}, Speed{19200, B19200}, Speed{38400, B38400}, Speed{57600, B57600},
        Speed{115200, B115200}, Speed{230400, B230400},
        // A number that happens to be a constant of the system goes on as it is.
        Speed{13, B9600}, Speed{0x1002, B115200}));

class SerialPortBadSpeeds : public SerialPortTest, public testing::WithParamInterface<unsigned int> {};

TEST_P(SerialPortBadSpeeds, areRefusedForBothDirectionsAndTheLineIsClosed) {
    SerialPort port(m_terminal.getPath(), GetParam());
    Fault const output(inject_cfsetospeed, 0);
    Fault const input(inject_cfsetispeed, 0);
    Fault const set(inject_tcsetattr, 0);
    EXPECT_TRUE(port.open());
    EXPECT_EQ(1, output.getCalls());
    EXPECT_EQ(1, input.getCalls());
    EXPECT_EQ(0, set.getCalls());
    EXPECT_FALSE(port.isValid());
    EXPECT_EQ(-1, port.getDescriptor());
    EXPECT_TRUE(port.hadError());
    EXPECT_TRUE(chainIs(refusal(EINVAL, m_terminal.getPath())));
}

INSTANTIATE_TEST_SUITE_P(
    All, SerialPortBadSpeeds,
    testing::Values(75, 110, 134, 150, 200, 600, 1800, 460800, 500000, 921600, 4000000, 0xFFFFFFFF));

// ---- What the system refuses ----

struct ConfigureRow {
    char const* call;
    Injected* function;
    int error;
};

void PrintTo(ConfigureRow const& row, std::ostream* out) {
    *out << row.call << " " << strerrorname_np(row.error);
}

class SerialPortConfigureRows : public SerialPortTest, public testing::WithParamInterface<ConfigureRow> {};

TEST_P(SerialPortConfigureRows, closesTheLineAndIsReported) {
    SerialPort port(m_terminal.getPath());
    {
        Fault const fault(*GetParam().function, GetParam().error);
        EXPECT_TRUE(port.open());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_FALSE(port.isValid());
    EXPECT_EQ(-1, port.getDescriptor());
    EXPECT_TRUE(port.hadError()) << "in spite of the close that went well";
    EXPECT_TRUE(chainIs(refusal(GetParam().error, m_terminal.getPath())));
    EXPECT_FALSE(port.open()) << "the next one may go well";
    EXPECT_FALSE(port.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    All, SerialPortConfigureRows,
    testing::Values(
        ConfigureRow{"tcgetattr", &inject_tcgetattr, EBADF},
        ConfigureRow{"tcgetattr", &inject_tcgetattr, ENOTTY},
        ConfigureRow{"tcgetattr", &inject_tcgetattr, EIO},
        ConfigureRow{"cfsetospeed", &inject_cfsetospeed, EINVAL},
        ConfigureRow{"cfsetispeed", &inject_cfsetispeed, EINVAL},
        ConfigureRow{"tcsetattr", &inject_tcsetattr, EINTR},
        ConfigureRow{"tcsetattr", &inject_tcsetattr, EINVAL},
        ConfigureRow{"tcsetattr", &inject_tcsetattr, EIO}));

TEST_F(SerialPortTest, refusalStaysOnTopOfWhatWasPendingBefore) {
    SerialPort port(m_terminal.getPath());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(inject_tcgetattr, EIO);
    EXPECT_TRUE(port.open());
    std::vector<ExpectedReport> expected = refusal(EIO, m_terminal.getPath());
    expected.insert(expected.begin(), {SysError, SysErrorId::NO_SUCH_PROCESS});
    EXPECT_TRUE(chainIs(expected));
}

TEST_F(SerialPortTest, failureToCloseARefusedLineIsToldBelowTheRefusal) {
    SerialPort port(m_terminal.getPath());
    {
        Fault const refused(inject_tcgetattr, ENODEV);
        Fault const not_closed(inject_close, EIO);
        EXPECT_TRUE(port.open());
    }
    std::vector<ExpectedReport> expected = refusal(ENODEV, m_terminal.getPath());
    expected.insert(
        expected.begin(),
        {SysError, SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))});
    EXPECT_TRUE(chainIs(expected));
    EXPECT_TRUE(port.hadError());
    EXPECT_FALSE(port.close()) << "it may be tried again";
}

TEST(SerialPort, plainFileIsOpenedAndClosedAgain) {
    TempFolder const folder;
    std::string const path = folder.makeFile("file", "content");
    SerialPort port(path);
    Fault const opened(inject_open, 0);
    Fault const closed(inject_close, 0);
    EXPECT_TRUE(port.open());
    EXPECT_EQ(1, opened.getCalls());
    EXPECT_EQ(1, closed.getCalls());
    EXPECT_FALSE(port.isValid());
    EXPECT_TRUE(port.hadError());
    // Nor can a file be drained when it is closed.
    std::vector<ExpectedReport> expected = refusal(ENOTTY, path);
    expected.insert(
        expected.begin(),
        {{SysError, SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(ENOTTY))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}});
    EXPECT_TRUE(chainIs(expected));
    EXPECT_EQ("content", support::contentOf(path));
}

// ---- Opening again ----

TEST_F(SerialPortTest, openingAgainAppliesTheSettingsToAFreshDescriptor) {
    SerialPort port(m_terminal.getPath(), 9600);
    ASSERT_FALSE(port.open());
    Fault const opened(inject_open, 0);
    Fault const closed(inject_close, 0);
    Fault const drained(inject_tcdrain, 0);
    port.setBaudRate(115200);
    port.setStopBits(2);
    EXPECT_FALSE(port.open());
    EXPECT_EQ(1, drained.getCalls());
    EXPECT_EQ(1, closed.getCalls());
    EXPECT_EQ(1, opened.getCalls());
    termios const line = m_terminal.getSettings();
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&line));
    EXPECT_NE(0U, line.c_cflag & CSTOPB);
    m_terminal.send("x");
    char byte = 0;
    unsigned int count = 0;
    EXPECT_EQ(1, port.read(&byte, 1, count));
    EXPECT_EQ('x', byte);
}

TEST_F(SerialPortTest, lineThatCannotBeClosedIsNotOpenedAgain) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    Fault const opened(inject_open, 0);
    {
        Fault const fault(inject_tcdrain, EIO);
        EXPECT_TRUE(port.open());
    }
    EXPECT_EQ(0, opened.getCalls());
    EXPECT_FALSE(port.isValid()) << "it is closed all the same";
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_FALSE(port.open());
}

TEST_F(SerialPortTest, openingAgainKeepsWhatWasReadAhead) {
    SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 16, 0);
    ASSERT_FALSE(port.open());
    m_terminal.send("abc");
    char bytes[4] = "";
    unsigned int count = 0;
    ASSERT_EQ(1, port.read(bytes, 1, count));
    ASSERT_FALSE(port.open());
    EXPECT_EQ(1, port.read(bytes + 1, 2, count));
    EXPECT_EQ(2U, count);
    EXPECT_STREQ("abc", bytes);
}

TEST_F(SerialPortTest, portWithoutItsBufferIsNeverValidAndLosesNoDescriptor) {
    NewFault const fault(New::NOTHROW_ARRAY);
    SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 16, 0);
    EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_FALSE(port.open());
    EXPECT_FALSE(port.isValid());
    EXPECT_FALSE(port.open());
    char byte = 0;
    unsigned int count = 0;
    EXPECT_EQ(-1, port.read(&byte, 1, count));
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::OUT_OF_MEMORY},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    port.setBaudRate(75);
    EXPECT_TRUE(port.open());
    EXPECT_EQ(-1, port.getDescriptor()) << "a refused line is not left half open";
    EXPECT_TRUE(chainIs(refusal(EINVAL, m_terminal.getPath())));
}

// ---- Bytes ----

TEST_F(SerialPortTest, bytesGoBothWaysUnchanged) {
    SerialPort port(m_terminal.getPath(), 115200);
    ASSERT_FALSE(port.open());
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
    }
    unsigned int count = 0;
    EXPECT_EQ(1, port.write(all.data(), 256, count));
    EXPECT_EQ(256U, count);
    EXPECT_TRUE(all == m_terminal.receive(256));

    m_terminal.send(all);
    std::string got;
    while (got.size() < 256) {
        char bytes[256];
        ASSERT_EQ(1, port.read(bytes, sizeof bytes, count));
        got.append(bytes, count);
    }
    EXPECT_TRUE(all == got);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SerialPortTest, writtenBytesLeaveTheBufferWithTheFlush) {
    SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 0, 16);
    ASSERT_FALSE(port.open());
    unsigned int count = 0;
    EXPECT_EQ(1, port.write("abc", 3, count));
    EXPECT_FALSE(port.flush(false));
    EXPECT_EQ("abc", m_terminal.receive(3));
    EXPECT_EQ(1, port.write("de", 2, count));
    EXPECT_FALSE(port.close());
    EXPECT_EQ("de", m_terminal.receive(2));
}

TEST_F(SerialPortTest, blockingPortIsOpenedWithoutNonBlock) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    EXPECT_EQ(O_RDWR | O_CLOEXEC, s_open_flags);
    EXPECT_EQ(0, fcntl(port.getDescriptor(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(port.getDescriptor(), F_GETFD));
}

TEST_F(SerialPortTest, nonBlockingPortReadsNothingWithSuccess) {
    SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, false);
    for (int i = 0; i < 2; ++i) {
        ASSERT_FALSE(port.open());
        EXPECT_EQ(O_RDWR | O_CLOEXEC | O_NONBLOCK, s_open_flags);
        EXPECT_NE(0, fcntl(port.getDescriptor(), F_GETFL) & O_NONBLOCK);
        char byte = 0;
        unsigned int count = 7;
        EXPECT_EQ(1, port.read(&byte, 1, count));
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(SerialPortTest, lineHasNoPosition) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    unsigned int position = 0;
    EXPECT_TRUE(port.seek(0, SerialPort::Current, position));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(ESPIPE))}}));
}

// ---- Flushing and closing ----

TEST_F(SerialPortTest, flushDrainsTheLineAndSynchronisesNothing) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    Fault const drained(inject_tcdrain, 0);
    Fault const synchronised(inject_fsync, 0);
    EXPECT_FALSE(port.flush(false));
    EXPECT_EQ(1, drained.getCalls());
    EXPECT_FALSE(port.flush(true));
    EXPECT_EQ(1, drained.getCalls());
    EXPECT_FALSE(port.close());
    EXPECT_EQ(2, drained.getCalls());
    EXPECT_EQ(0, synchronised.getCalls());
}

TEST_F(SerialPortTest, interruptedFlushGoesOn) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    Fault const fault(inject_tcdrain, EINTR, 1, 3);
    EXPECT_FALSE(port.flush(false));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(port.hadError());
    EXPECT_TRUE(chainIs({}));
}

class SerialPortFlushRows : public SerialPortTest, public testing::WithParamInterface<int> {};

TEST_P(SerialPortFlushRows, isAnErrorOfTheLineWhateverTheReason) {
    SerialPort port(m_terminal.getPath());
    ASSERT_FALSE(port.open());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_tcdrain, GetParam());
        EXPECT_TRUE(port.flush(false));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(port.hadError());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(GetParam()))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_FALSE(port.flush(false));
    EXPECT_FALSE(port.hadError());
}

INSTANTIATE_TEST_SUITE_P(All, SerialPortFlushRows, testing::Values(EIO, EBADF, ENOTTY, EINVAL, EAGAIN));

TEST(SerialPort, closedPortCannotBeFlushed) {
    SerialPort port("/no/such/device");
    EXPECT_TRUE(port.flush(false));
    EXPECT_TRUE(port.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          rowText(std::CommonErrorId::CONTRACT_BROKEN, "attempted flush on invalid file object")},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(port.close()) << "but closed again";
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SerialPortTest, destructorDrainsAndCloses) {
    EventRecorder const recorder;
    Fault const drained(inject_tcdrain, 0);
    Fault const closed(inject_close, 0);
    {
        SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 0, 16);
        ASSERT_FALSE(port.open());
        unsigned int count = 0;
        EXPECT_EQ(1, port.write("abc", 3, count));
    }
    EXPECT_EQ("abc", m_terminal.receive(3));
    EXPECT_EQ(1, drained.getCalls());
    EXPECT_EQ(1, closed.getCalls());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(SerialPortTest, destructorOfAClosedPortDoesNothing) {
    EventRecorder const recorder;
    Fault const drained(inject_tcdrain, 0);
    { SerialPort const port(m_terminal.getPath()); }
    EXPECT_EQ(0, drained.getCalls());
    EXPECT_EQ("", recorder.getText());
}

constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/SerialPort ~SerialPort: error closing SerialPort";

TEST_F(SerialPortTest, destructorWarnsOfAFlushThatFailsAndClosesAllTheSame) {
    EventRecorder const recorder;
    Fault const closed(inject_close, 0);
    {
        SerialPort port(m_terminal.getPath());
        ASSERT_FALSE(port.open());
        Fault const fault(inject_tcdrain, EIO);
        // The fault must see the destructor's call: destroy it within its scope.
        SerialPort* const gone = &port;
        gone->~SerialPort();
        EXPECT_EQ(1, closed.getCalls());
        EXPECT_EQ(WARNING, recorder.getText());
        EXPECT_TRUE(chainIs({})) << "acknowledged";
        new (gone) SerialPort(m_terminal.getPath());
    }
}

TEST_F(SerialPortTest, destructorWarnsOfACloseThatFailsAndTheBaseTriesAgain) {
    EventRecorder const recorder;
    Fault const closed(inject_close, EIO);
    {
        SerialPort port(m_terminal.getPath());
        ASSERT_FALSE(port.open());
    }
    EXPECT_EQ(2, closed.getCalls());
    EXPECT_EQ(WARNING, recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

} // namespace
