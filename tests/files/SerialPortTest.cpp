#include "FileSteps.h"
#include "support/NewFault.h"

#include <vesk/SerialPort.h>

#include <poll.h>
#include <termios.h>

namespace {
// The arguments of the last `tcsetattr`, and whether it is only recorded.
termios s_set{};
int s_set_action = -1;
bool s_only_records = false;
} // namespace

VESK_INJECT_ERRNO(int, -1, tcgetattr, (int fd, termios* line), (fd, line))
VESK_INJECT_ERRNO(int, -1, cfsetospeed, (termios * line, speed_t speed), (line, speed))
VESK_INJECT_ERRNO(int, -1, cfsetispeed, (termios * line, speed_t speed), (line, speed))
VESK_INJECT_ERRNO(int, -1, tcdrain, (int fd), (fd))

VESK_INJECT_NOTING(
    int, -1, tcsetattr, (int fd, int action, termios const* line), (fd, action, line), s_set = *line;
    s_set_action = action; if (s_only_records) { return 0; })

namespace {

using namespace support;
using vesk::SerialPort;
using Parity = SerialPort::Parity;

static_assert(std::is_same_v<std::underlying_type_t<Parity>, uint32_t>);
static_assert(static_cast<int>(Parity::NONE) == 0 && static_cast<int>(Parity::EVEN) == 1);
static_assert(static_cast<int>(Parity::ODD) == 2 && static_cast<int>(Parity::MARK) == 3);
static_assert(static_cast<int>(Parity::SPACE) == 4);

/// Both ends of a line. The test keeps the device open too, so that it keeps its settings.
class PseudoTerminal : tarnbase::NonCopyable {
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

    std::string const& getPath() const { return m_path; }

    void send(std::string const& text) const {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(m_master, text.data(), text.size()));
    }

    /// Waits until `size` bytes have arrived at the other end, and returns them.
    std::string receive(size_t size) const {
        std::string text;
        while (text.size() < size) {
            pollfd row{m_master, POLLIN, 0};
            char chunk[256];
            ssize_t const count = ::poll(&row, 1, 20000) == 1 ? ::read(m_master, chunk, sizeof chunk) : 0;
            if (count <= 0) {
                ADD_FAILURE() << "nothing arrives after \"" << text << "\"";
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

class SerialPortTest : public FileTest {
protected:
    SerialPortTest() {
        m_steps.verbs["open"] = m_steps.operation([this](Words const&) { return m_used->open(); });
        m_steps.verbs["send"] = Steps::check([this](Words const& words) { m_terminal.send(words[1]); });
        m_steps.verbs["receive"] = Steps::check(
            [this](Words const& words) { EXPECT_EQ(words[1], m_terminal.receive(words[1].size())); });
        m_steps.calls["tcdrain"] = &inject_tcdrain;
    }
    void TearDown() override { s_only_records = false; }

    /// Performs steps on a port. They may also use the other end of the line ("send TEXT", "receive TEXT").
    void run(SerialPort& port, StepList const& steps) {
        m_used = &port;
        m_steps.run(port, steps);
    }

    /// Checks that `open` has failed to configure the line, and its reports after those of `before`.
    testing::AssertionResult isRefused(int error, std::vector<ExpectedReport> before = {}) const {
        std::string const text = rowText(FileAccessErrorId::UNCLASSIFIED, m_port.getDevice());
        before.push_back(causedBy(SysErrorId::UNCLASSIFIED, error));
        before.emplace_back(FileAccessErrorId::UNCLASSIFIED, text);
        return hasFailed(m_port, before);
    }

    PseudoTerminal m_terminal;
    SerialPort m_port{m_terminal.getPath()};
    /// Reads ahead, and has no buffer for writing.
    SerialPort m_reader{m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 16, 0};
    SerialPort m_writer{m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 0, 16};
    SerialPort* m_used = nullptr; ///< The port of the steps.
    Steps m_steps{m_folder, m_dir};
};

class OpenSerialPort : public SerialPortTest {
protected:
    OpenSerialPort() { EXPECT_FALSE(m_port.open()); }
};

TEST_F(SerialPortTest, keepsItsSettingsWithoutAccessToTheDevice) {
    Calls const none(inject_open, 0);
    SerialPort port("/no/such/device", 115200, Parity::ODD, 2, true, false, false);
    auto const get_settings = [&port] {
        return std::make_tuple(
            port.getDevice(), port.getBaudRate(), port.getParity(), port.getStopBits(), port.getXon(),
            port.getXoff());
    };
    EXPECT_EQ(std::make_tuple("/no/such/device", 115200U, Parity::ODD, 2, true, false), get_settings());
    EXPECT_FALSE(port.isValid());
    port.setDevice("/other");
    port.setBaudRate(300);
    port.setParity(Parity::EVEN);
    port.setStopBits(1);
    port.setXon(false);
    port.setXoff(true);
    EXPECT_EQ(std::make_tuple("/other", 300U, Parity::EVEN, 1, false, true), get_settings());
}

struct Slots : SerialPort {
    using SerialPort::performFlush;
    using SerialPort::StreamBinFileRW::checkWriteBufferConsistency;
};

TEST_F(SerialPortTest, passesTheBufferSizesOnAndHasItsOwnFlush) {
    EXPECT_FALSE(m_port.isInputBuffered());
    EXPECT_FALSE(m_port.isOutputBuffered());
    EXPECT_TRUE(m_reader.isInputBuffered());
    EXPECT_FALSE(m_reader.isOutputBuffered());
    EXPECT_FALSE(m_writer.isInputBuffered());
    EXPECT_TRUE(m_writer.isOutputBuffered());
    EXPECT_EQ(7, getSlot(&Slots::checkWriteBufferConsistency));
    EXPECT_EQ(8, getSlot(&Slots::performFlush));
}

struct BadSettings : NamedRow {
    Parity parity;
    bool has_device;
    ExpectedReport report;
};

ExpectedReport const UNSUPPORTED(
    CommonErrorId::NOT_SUPPORTED,
    rowText(CommonErrorId::NOT_SUPPORTED, "MARK/SPACE setting is not supported on POSIX"));
ExpectedReport const NO_PATH(FileAccessErrorId::BAD_PATH, "Bad path '<empty string given>'");

BadSettings const SERIAL_PORT_BAD_SETTINGS[] = {
    {"mark", Parity::MARK, true, UNSUPPORTED},
    {"space", Parity::SPACE, true, UNSUPPORTED},
    {"markWithoutADevice", Parity::MARK, false, UNSUPPORTED},
    {"spaceWithoutADevice", Parity::SPACE, false, UNSUPPORTED},
    {"noDevice", Parity::NONE, false, NO_PATH},
};

VESK_TEST_TABLE(
    SerialPortBadSettings, areRefusedBeforeTheDeviceIsOpenedButCloseAnOpenPort, SerialPortTest,
    SERIAL_PORT_BAD_SETTINGS) {
    for (bool const is_open : {false, true}) {
        SerialPort port(m_terminal.getPath());
        EXPECT_FALSE(is_open && port.open());
        EXPECT_EQ(is_open, port.isValid());
        Calls const none(inject_open, 0);
        port.setParity(GetParam().parity);
        port.setDevice(GetParam().has_device ? m_terminal.getPath() : "");
        leaveOlderReport();
        EXPECT_TRUE(port.open());
        EXPECT_FALSE(port.isValid());
        EXPECT_TRUE(hasFailed(port, {GetParam().report}));
    }
}

TEST_F(SerialPortTest, receiverIsSwitchedOn) {
    s_only_records = true;
    ASSERT_FALSE(m_port.open());
    EXPECT_NE(0U, s_set.c_cflag & CREAD);
}

TEST_F(SerialPortTest, missingDeviceIsReportedByTheOpenOfTheFile) {
    m_port.setDevice(m_missing);
    EXPECT_TRUE(m_port.open());
    EXPECT_FALSE(m_port.isValid());
    EXPECT_TRUE(isMissing(m_missing));
}

TEST_F(OpenSerialPort, lineIsRawWithEightBits) {
    EXPECT_TRUE(m_port.isValid());
    EXPECT_TRUE(hasNoError(m_port));
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
}

/// Settings of a port, and the flags of the line that they set. Without flags, those of the device are kept.
struct SettingRow : NamedRow {
    bool xon;
    bool xoff;
    int stop_bits;
    Parity parity;
    tcflag_t termios::*field;
    tcflag_t mask;
    std::optional<tcflag_t> flags;
};

constexpr tcflag_t FLOW = IXON | IXOFF;
constexpr tcflag_t PARITY = PARENB | PARODD;
constexpr tcflag_t MODEM = CLOCAL | CRTSCTS;

SettingRow const SERIAL_PORT_SETTINGS[] = {
    {"noFlowControl", false, false, 1, Parity::NONE, &termios::c_iflag, FLOW, 0},
    {"xonAlone", true, false, 1, Parity::NONE, &termios::c_iflag, FLOW, IXON},
    {"xoffAlone", false, true, 1, Parity::NONE, &termios::c_iflag, FLOW, IXOFF},
    {"xonAndXoff", true, true, 1, Parity::NONE, &termios::c_iflag, FLOW, FLOW},
    {"twoStopBits", false, false, 2, Parity::NONE, &termios::c_cflag, CSTOPB, CSTOPB},
    {"oneStopBit", false, false, 1, Parity::NONE, &termios::c_cflag, CSTOPB, 0},
    {"noStopBitIsOne", false, false, 0, Parity::NONE, &termios::c_cflag, CSTOPB, 0},
    {"threeStopBitsAreOne", false, false, 3, Parity::NONE, &termios::c_cflag, CSTOPB, 0},
    {"255StopBitsAreOne", false, false, 255, Parity::NONE, &termios::c_cflag, CSTOPB, 0},
    {"noParity", false, false, 1, Parity::NONE, &termios::c_cflag, PARENB, 0},
    {"noParityKeepsOdd", false, false, 1, Parity::NONE, &termios::c_cflag, PARODD, {}},
    {"evenParity", false, false, 1, Parity::EVEN, &termios::c_cflag, PARITY, PARENB},
    {"oddParity", false, false, 1, Parity::ODD, &termios::c_cflag, PARITY, PARITY},
    {"unknownParityIsNone", false, false, 1, Parity(5), &termios::c_cflag, PARENB, 0},
    {"keepsModemLines", false, false, 1, Parity::NONE, &termios::c_cflag, MODEM, {}},
};

VESK_TEST_TABLE(SerialPortSettings, areSetWhateverTheDeviceUsedBefore, SerialPortTest, SERIAL_PORT_SETTINGS) {
    SettingRow const row = GetParam();
    // A pseudo-terminal checks no parity.
    tcflag_t const mask = row.mask & ~static_cast<tcflag_t>(row.field == &termios::c_cflag ? PARENB : 0);
    m_port.setXon(row.xon);
    m_port.setXoff(row.xoff);
    m_port.setStopBits(static_cast<uint8_t>(row.stop_bits));
    m_port.setParity(row.parity);
    for (bool const on : {true, false, true}) {
        termios before = m_terminal.getSettings();
        before.*row.field = on ? before.*row.field | mask : before.*row.field & ~mask;
        before.c_cc[VINTR] = on ? 'i' : 'j';
        before.c_cc[VSTART] = on ? 's' : 't';
        // If nothing else changes, the C library takes the missing parity for a refusal.
        cfsetospeed(&before, on ? B1200 : B2400);
        m_terminal.change(before);
        ASSERT_FALSE(m_port.open());
        tcflag_t const expected = row.flags.value_or(before.*row.field & row.mask);
        EXPECT_EQ(expected, s_set.*row.field & row.mask);
        termios const line = m_terminal.getSettings();
        EXPECT_EQ(expected & mask, line.*row.field & mask);
        EXPECT_EQ(before.c_cc[VINTR], line.c_cc[VINTR]);
        EXPECT_EQ(before.c_cc[VSTART], line.c_cc[VSTART]);
    }
}

constexpr std::pair<unsigned int, speed_t> SPEEDS[] = {
    {50, B50},
    {300, B300},
    {1200, B1200},
    {2400, B2400},
    {4800, B4800},
    {9600, B9600},
    {19200, B19200},
    {38400, B38400},
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    // A number that happens to be a constant of the system is passed on as it is.
    {13, B9600},
    {static_cast<unsigned int>(B115200), B115200}};
VESK_TEST_TABLE(SerialPortSpeeds, areSetForBothDirections, SerialPortTest, SPEEDS) {
    m_port.setBaudRate(GetParam().first);
    ASSERT_FALSE(m_port.open());
    termios const line = m_terminal.getSettings();
    EXPECT_EQ(GetParam().second, cfgetospeed(&line));
    EXPECT_EQ(GetParam().second, cfgetispeed(&line));
}

constexpr unsigned int BAD_SPEEDS[] = {
#ifndef __powerpc__ // The C library accepts each number below 256 there.
    75,  110,  134,    150,    200,
#endif
    600, 1800, 460800, 500000, 921600, 4000000, 0xFFFFFFFF};
VESK_TEST_TABLE(
    SerialPortBadSpeeds, areRefusedForBothDirectionsAndTheLineIsClosed, SerialPortTest, BAD_SPEEDS) {
    m_port.setBaudRate(GetParam());
    Calls const output(inject_cfsetospeed, 1);
    Calls const input(inject_cfsetispeed, 1);
    Calls const none(inject_tcsetattr, 0);
    EXPECT_TRUE(m_port.open());
    EXPECT_EQ(-1, m_port.getDescriptor());
    EXPECT_TRUE(isRefused(EINVAL));
}

class SerialPortConfigureRows : public SerialPortTest,
                                public testing::WithParamInterface<std::tuple<Injected*, int>> {};

TEST_P(SerialPortConfigureRows, closesTheLineAndIsReported) {
    auto const [function, error] = GetParam();
    Calls const calls(*function, 2, error);
    EXPECT_TRUE(m_port.open());
    EXPECT_EQ(-1, m_port.getDescriptor());
    EXPECT_TRUE(isRefused(error)) << "in spite of the close that succeeded";
    EXPECT_FALSE(m_port.open()) << "the next one may succeed";
    EXPECT_FALSE(m_port.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    tcgetattr, SerialPortConfigureRows,
    testing::Combine(testing::Values(&inject_tcgetattr), testing::Values(EBADF, ENOTTY, EIO)));
INSTANTIATE_TEST_SUITE_P(
    cfsetspeed, SerialPortConfigureRows,
    testing::Combine(testing::Values(&inject_cfsetospeed, &inject_cfsetispeed), testing::Values(EINVAL)));
INSTANTIATE_TEST_SUITE_P(
    tcsetattr, SerialPortConfigureRows,
    testing::Combine(testing::Values(&inject_tcsetattr), testing::Values(EINTR, EINVAL, EIO)));

TEST_F(SerialPortTest, refusalIsReportedOnTopOfAnEarlierFailureAndOfAFailureToCloseTheLine) {
    leaveOlderReport();
    Fault const refused(inject_tcgetattr, EIO, 1, 2);
    EXPECT_TRUE(m_port.open());
    EXPECT_TRUE(isRefused(EIO, {SysErrorId::NO_SUCH_PROCESS}));
    Fault const not_closed(inject_close, EIO);
    EXPECT_TRUE(m_port.open());
    EXPECT_TRUE(isRefused(EIO, {causedBy(SysErrorId::INPUT_OUTPUT, EIO)}));
    EXPECT_FALSE(m_port.close()) << "it can be tried again";
}

TEST_F(SerialPortTest, plainFileIsOpenedAndClosedAgain) {
    m_port.setDevice(m_path);
    Calls const opened(inject_open, 1);
    {
        Calls const closed(inject_close, 1);
        EXPECT_TRUE(m_port.open());
    }
    EXPECT_FALSE(m_port.isValid());
    EXPECT_EQ("0123456789abcdef", contentOf(m_path));
    // Neither can a file be drained when it is closed.
    EXPECT_TRUE(
        isRefused(ENOTTY, {causedBy(SysErrorId::INPUT_OUTPUT, ENOTTY), StreamErrorId::TRANSFER_FAILED}));
}

TEST_F(OpenSerialPort, openAppliesTheSettingsToANewDescriptor) {
    m_port.setBaudRate(115200);
    m_port.setStopBits(2);
    run(m_port,
        {"count open", "count close", "count tcdrain", "open", "calls open 1", "calls close 1",
         "calls tcdrain 1"});
    termios const line = m_terminal.getSettings();
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&line));
    EXPECT_NE(0U, line.c_cflag & CSTOPB);
    run(m_port, {"send x", "read 1 x", "seek current 0 FAILS SPOILED_INTEGRITY ESPIPE"});
}

TEST_F(OpenSerialPort, portThatCannotBeDrainedIsClosedAndNotOpenedAgain) {
    run(m_port,
        {"count open", "fail tcdrain EIO", "open FAILS INPUT_OUTPUT EIO TRANSFER_FAILED", "invalid",
         "calls open 0", "open"});
}

TEST_F(SerialPortTest, openKeepsTheReadAhead) {
    run(m_reader, {"open", "send abc", "read 1 a", "open", "read 2 bc"});
}

TEST_F(SerialPortTest, portWithoutItsBufferIsNeverValidAndLosesNoDescriptor) {
    NewFault const fault(New::NOTHROW_ARRAY);
    SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 16, 0);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_FALSE(port.open());
    EXPECT_FALSE(port.isValid());
    EXPECT_FALSE(port.open());
    EXPECT_EQ("", readFrom(port, 1, -1));
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}, {StreamErrorId::UNUSABLE}}));
    port.setBaudRate(600);
    EXPECT_TRUE(port.open());
    EXPECT_EQ(-1, port.getDescriptor()) << "a refused line is not left open";
    ErrnoCase const refused = {EINVAL, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
    EXPECT_TRUE(refused.isPending(m_terminal.getPath()));
}

TEST_F(OpenSerialPort, bytesArriveUnchangedInBothDirections) {
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
    }
    writeTo(m_port, all);
    EXPECT_TRUE(all == m_terminal.receive(256));

    m_terminal.send(all);
    std::string received;
    while (received.size() < 256 && !HasFailure()) {
        received += readFrom(m_port, 256);
    }
    EXPECT_TRUE(all == received);
}

TEST_F(SerialPortTest, writtenBytesLeaveTheBufferWithTheFlushAndTheClose) {
    run(m_writer, {"open", "write abc", "sync", "receive abc", "write de", "close", "receive de"});
}

TEST_F(SerialPortTest, onlyANonBlockingPortIsOpenedWithNonBlockAndReads0BytesWithSuccess) {
    for (bool const blocking : {true, false}) {
        SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, blocking);
        for (int i = 0; i < 2; ++i) {
            ASSERT_FALSE(port.open());
            int const fd = port.getDescriptor();
            EXPECT_EQ(O_RDWR | O_CLOEXEC | (blocking ? 0 : O_NONBLOCK), s_file_calls.open_flags);
            EXPECT_EQ(blocking ? 0 : O_NONBLOCK, fcntl(fd, F_GETFL) & O_NONBLOCK);
            EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
            EXPECT_EQ("", blocking ? "" : readFrom(port, 1));
            EXPECT_TRUE(chainIs({}));
        }
    }
}

TEST_F(OpenSerialPort, flushDrainsTheLineAndSynchronizesNothing) {
    run(m_port,
        {"count fsync", "fail tcdrain EINTR 3", "sync", "calls tcdrain 4", "count tcdrain", "flush",
         "calls tcdrain 0", "count tcdrain", "close", "calls tcdrain 1", "calls fsync 0"});
}

TEST_F(SerialPortTest, closedPortCannotBeFlushedButClosedAgain) {
    run(m_port, {"sync FAILS CLOSED", "close"});
}

constexpr int FLUSH_ERRORS[] = {EIO, EBADF, ENOTTY, EINVAL, EAGAIN};
VESK_TEST_TABLE(SerialPortFlushRows, isAnErrorOfTheLineForEveryReason, OpenSerialPort, FLUSH_ERRORS) {
    leaveOlderReport();
    Calls const calls(inject_tcdrain, 2, GetParam());
    run(m_port,
        {std::string("sync FAILS INPUT_OUTPUT ") + strerrorname_np(GetParam()) + " TRANSFER_FAILED", "sync"});
}

class SerialPortDestructor : public SerialPortTest {
protected:
    /// Destroys an open port with these bytes in its buffer. Returns the warnings.
    std::string destroy(std::string const& bytes = "") {
        EventRecorder const events;
        {
            SerialPort port(m_terminal.getPath(), 9600, Parity::NONE, 1, false, false, true, 0, 16);
            EXPECT_FALSE(port.open());
            writeTo(port, bytes);
        }
        return events.getText();
    }

    std::string m_warning =
        "WARNING framework/src/vesk/posix/SerialPort ~SerialPort: error closing SerialPort";
};

TEST_F(SerialPortDestructor, drainsAndClosesOnlyAnOpenPort) {
    Calls const drained(inject_tcdrain, 1);
    Calls const closed(inject_close, 1);
    EXPECT_EQ("", destroy("abc"));
    EXPECT_EQ("abc", m_terminal.receive(3));
    { SerialPort const port(m_terminal.getPath()); }
}

TEST_F(SerialPortDestructor, warnsAboutAFailedFlushOrClose) {
    {
        Calls const closed(inject_close, 1);
        Fault const fault(inject_tcdrain, EIO);
        EXPECT_EQ(m_warning, destroy());
        EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    }
    Calls const closed(inject_close, 2, EIO); // The base class tries it again.
    EXPECT_EQ(m_warning, destroy());
}

} // namespace
