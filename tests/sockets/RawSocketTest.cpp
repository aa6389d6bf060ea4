#include "SocketRows.h"
#include "support/Descriptors.h"
#include "support/InjectNoting.h"
#include "support/NetworkNamespace.h"
#include "support/NewFault.h"

#include <vesk/RawSocket.h>

#include <arpa/inet.h>
#include <array>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <type_traits>

namespace {

/// The arguments of the last calls.
struct RawCalls {
    std::array<int, 3> socket; ///< Domain, type and protocol.
    std::string device;        ///< All 16 bytes of the name in the SIOCGIFINDEX request.
    std::string bound;         ///< The address of the bind.
};

RawCalls s_raw_calls;

} // namespace

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_NOTING(
    int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol),
    s_raw_calls.socket = {domain, type, protocol})
VESK_INJECT_NOTING(
    int, -1, bind, (int fd, sockaddr const* address, socklen_t length), (fd, address, length),
    s_raw_calls.bound.assign(reinterpret_cast<char const*>(address), length))

support::Injected inject_ioctl("ioctl");
extern "C" VESK_UNWATCHED int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == SIOCGIFINDEX) {
        s_raw_calls.device.assign(static_cast<ifreq*>(argument)->ifr_name, IFNAMSIZ);
        int error = 0;
        if (inject_ioctl.fails(error)) {
            errno = error;
            return -1;
        }
    }
    return reinterpret_cast<int (*)(int, unsigned long, ...)>(inject_ioctl.getReal())(fd, request, argument);
}

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
using SysErrorId::UNCLASSIFIED;
using vesk::RawSocket;
using vesk::Socket;

static_assert(std::is_base_of_v<Socket, RawSocket> && sizeof(RawSocket) == sizeof(Socket));
static_assert(!std::is_copy_constructible_v<RawSocket> && !std::is_abstract_v<RawSocket>);

constexpr char const* OPEN_ASSERTION =
    "ASSERT framework/src/vesk/linux/RawSocket ~RawSocket: this->getState() != OPEN";
constexpr char const* END_WARNING =
    "WARNING framework/src/vesk/linux/RawSocket ~RawSocket: error closing socket";
constexpr char const* OPEN_WARNING = "WARNING framework/src/vesk/linux/RawSocket open: error closing socket";

constexpr char const* DEVICES[] = {nullptr, "lo"};

/// A socket without buffers. Its destructor closes it.
class PlainSocket : public RawSocket {
public:
    PlainSocket() : RawSocket(true, 0, 0) {}
    ~PlainSocket() override { EXPECT_FALSE(close()); }
};

bool isOpenDescriptor(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Checks the error flag, the state, and that a descriptor exists in the state `OPEN` only.
testing::AssertionResult isIn(RawSocket const& socket, Socket::State state, bool had_error = false) {
    if (socket.getState() == state && socket.hadError() == had_error &&
        socket.isValid() == (state != Socket::DEAD) &&
        (socket.getSocketFd() != -1) == (state == Socket::OPEN)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "state " << socket.getState() << ", fd " << socket.getSocketFd()
                                       << ", error " << socket.hadError();
}

/// Checks that a socket opens without a report.
testing::AssertionResult opens(RawSocket& socket, char const* device) {
    bool const failed = socket.open(device);
    testing::AssertionResult const state = isIn(socket, Socket::OPEN);
    return failed || !state ? testing::AssertionFailure() << chainIs({}).message() << state.message()
                            : chainIs({});
}

/// Checks that a socket does not open because it is in the wrong state.
testing::AssertionResult isMisuse(RawSocket& socket, char const* device, char const* text) {
    return socket.open(device) && socket.hadError() ? chainIs(text, {CONTRACT_BROKEN})
                                                    : testing::AssertionFailure() << "opened";
}

bool mayOpenPackets() {
    int const fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd != -1) {
        close(fd);
    }
    return fd != -1;
}

#define VESK_SKIP_WITHOUT_PACKETS()                                                                          \
    if (!mayOpenPackets()) {                                                                                 \
        GTEST_SKIP() << "packet sockets are not granted to the test";                                        \
    }

// ---- construction ----

TEST(RawSocket, startsInactiveWithoutADescriptor) {
    Fault const sockets(inject_socket, 0);
    RawSocket const socket(true, 0, 0);
    EXPECT_TRUE(isIn(socket, Socket::INACTIVE));
    EXPECT_EQ(0, sockets.getCalls());
}

TEST(RawSocket, hasTheBuffersOfItsConstructor) {
    for (unsigned int const size : {64U, 0U}) {
        RawSocket const socket(true, size, size / 2);
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ(size != 0, socket.isInputBuffered());
        EXPECT_EQ(size != 0, socket.isOutputBuffered());
    }
}

TEST(RawSocket, thatIsInvalidCannotBeOpened) {
    Fault const sockets(inject_socket, 0);
    std::unique_ptr<RawSocket> socket;
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        socket = std::make_unique<RawSocket>(true, 64U, 0U);
    }
    EXPECT_TRUE(chainIs({std::CommonErrorId::OUT_OF_MEMORY}));
    EXPECT_FALSE(socket->isValid());
    for (char const* const device : DEVICES) {
        EXPECT_TRUE(isMisuse(*socket, device, "open on invalid object"));
    }
    EXPECT_EQ(0, sockets.getCalls());
    EXPECT_FALSE(socket->close());
    socket.reset();
}

// ---- open ----

TEST(RawSocket, isNotBoundForAllDevices) {
    VESK_SKIP_WITHOUT_PACKETS();
    PlainSocket socket;
    Fault const binds(inject_bind, 0);
    Fault const queries(inject_ioctl, 0);
    EXPECT_TRUE(opens(socket, nullptr));
    EXPECT_EQ((std::array<int, 3>{AF_PACKET, SOCK_RAW, 768}), s_raw_calls.socket);
    EXPECT_EQ(0, binds.getCalls());
    EXPECT_EQ(0, queries.getCalls());
}

TEST(RawSocket, isBoundToTheIndexOfItsDevice) {
    VESK_SKIP_WITHOUT_PACKETS();
    PlainSocket socket;
    EXPECT_TRUE(opens(socket, "lo"));
    EXPECT_EQ(std::string("lo") + std::string(14, '\0'), s_raw_calls.device);
    sockaddr_ll address{};
    ASSERT_EQ(20U, s_raw_calls.bound.size());
    memcpy(&address, s_raw_calls.bound.data(), sizeof address);
    EXPECT_EQ(17, address.sll_family);
    EXPECT_EQ(std::string("\0\3", 2), s_raw_calls.bound.substr(2, 2));
    EXPECT_EQ(static_cast<int>(if_nametoindex("lo")), address.sll_ifindex);
    EXPECT_EQ(std::string(12, '\0'), s_raw_calls.bound.substr(8));
}

TEST(RawSocket, descriptorBlocksAndStaysOpenAcrossExec) {
    VESK_SKIP_WITHOUT_PACKETS();
    for (bool const blocking : {true, false}) {
        RawSocket socket(blocking, 0, 0);
        EXPECT_FALSE(socket.open("lo"));
        EXPECT_EQ(0, fcntl(socket.getSocketFd(), F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(0, fcntl(socket.getSocketFd(), F_GETFL) & O_NONBLOCK) << blocking;
        EXPECT_FALSE(socket.close());
    }
}

TEST(RawSocket, thatIsOpenCannotBeOpenedAgainAndKeepsItsDescriptor) {
    VESK_SKIP_WITHOUT_PACKETS();
    PlainSocket socket;
    EXPECT_TRUE(opens(socket, "lo"));
    int const fd = socket.getSocketFd();
    Fault const sockets(inject_socket, 0);
    for (char const* const device : {static_cast<char const*>(nullptr), "lo", "none"}) {
        EXPECT_TRUE(isMisuse(socket, device, "open() called in state != INACTIVE"));
    }
    EXPECT_EQ(0, sockets.getCalls());
    EXPECT_TRUE(isIn(socket, Socket::OPEN, true));
    EXPECT_EQ(fd, socket.getSocketFd());
    EXPECT_TRUE(isOpenDescriptor(fd));
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.hadError());
}

class RawSocketCreation : public testing::TestWithParam<ErrnoRow> {};

TEST_P(RawSocketCreation, failureLeavesItInactiveAndItCanBeOpenedLater) {
    PlainSocket socket;
    for (char const* const device : DEVICES) {
        Fault const fault(inject_socket, GetParam().error);
        Fault const closes(inject_close, 0);
        EXPECT_TRUE(socket.open(device));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, closes.getCalls());
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_TRUE(isIn(socket, Socket::INACTIVE, true));
    }
    if (mayOpenPackets()) {
        EXPECT_TRUE(opens(socket, "lo"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, RawSocketCreation,
    testing::ValuesIn(errnoRows(
        {{{EPERM}, {SysErrorId::PERMISSION_DENIED}},
         {{EACCES, EMFILE, ENFILE, ENOMEM, ENOBUFS, EAFNOSUPPORT, EINVAL, EINTR}, {UNCLASSIFIED}}})),
    errnoName);

/// A call after the creation of the descriptor fails.
class RawSocketFailure : public testing::TestWithParam<ErrnoRow> {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_PACKETS(); }

    /// Checks that a failed call closes the descriptor and is reported.
    void expectDead(Injected& function) const {
        int const descriptors = countDescriptors();
        RawSocket socket(true, 0, 0);
        Fault const fault(function, GetParam().error);
        Fault const closes(inject_close, 0);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
        EXPECT_EQ(descriptors, countDescriptors());
    }

    /// Checks that a failed close after the failed call is not repeated and makes only a warning.
    void expectWarning(Injected& function, int close_error) const {
        EventRecorder const events;
        int const fd = dup(1); // The number that the socket gets.
        close(fd);
        RawSocket socket(true, 0, 0);
        Fault const fault(function, GetParam().error);
        Fault const closes(inject_close, close_error);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_EQ(OPEN_WARNING, events.getText());
        EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
        EXPECT_TRUE(isOpenDescriptor(fd));
        close(fd);
    }
};

class RawSocketDevice : public RawSocketFailure {};

TEST_P(RawSocketDevice, failureLeavesItDead) {
    expectDead(inject_ioctl);
}

TEST_P(RawSocketDevice, failureIsReportedAndAFailedCloseIsAWarning) {
    expectWarning(inject_ioctl, EIO);
}

INSTANTIATE_TEST_SUITE_P(
    rows, RawSocketDevice,
    testing::ValuesIn(errnoRows(
        {{{ENODEV}, {SysErrorId::NO_DEVICE}},
         {{ENXIO, EPERM, EBADF, EFAULT, EINVAL, ENOTTY, EINTR}, {UNCLASSIFIED}}})),
    errnoName);

class RawSocketBind : public RawSocketFailure {};

TEST_P(RawSocketBind, failureLeavesItDead) {
    expectDead(inject_bind);
}

TEST_P(RawSocketBind, failureIsReportedAndAFailedCloseIsAWarning) {
    expectWarning(inject_bind, EINTR);
}

INSTANTIATE_TEST_SUITE_P(
    errors, RawSocketBind,
    testing::ValuesIn(errnoRows(
        {{{ENODEV, ENETDOWN, EINVAL, EADDRINUSE, EACCES, EPERM, ENOMEM, ENOBUFS, EINTR, EIO},
          {UNCLASSIFIED}}})),
    errnoName);

class RawSocketName : public testing::TestWithParam<char const*> {};

TEST_P(RawSocketName, ofNoDeviceLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_TRUE(socket.open(GetParam()));
    EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV));
    EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
    std::string sent(GetParam());
    sent.resize(15, '\0');
    EXPECT_EQ(sent + '\0', s_raw_calls.device) << "the request has 16 bytes, and the last one is zero";
}

INSTANTIATE_TEST_SUITE_P(
    names, RawSocketName,
    testing::Values(
        "", "no-device", "fifteen-letters", "sixteen--letters", "a-name-of-forty-letters-is-much-too-long"));

TEST(RawSocket, isDeniedToAnUnprivilegedProcess) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([] {
        ASSERT_TRUE(dropRights());
        for (char const* const device : DEVICES) {
            RawSocket socket(true, 0, 0);
            EXPECT_TRUE(socket.open(device));
            EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EPERM));
            EXPECT_TRUE(isIn(socket, Socket::INACTIVE, true));
        }
    });
}

TEST(RawSocket, canBeOpenedOnceThePrivilegeExists) {
    VESK_SKIP_UNLESS_ROOT();
    VESK_SKIP_WITHOUT_PACKETS();
    expectInChild([] {
        PlainSocket socket;
        ASSERT_EQ(0, seteuid(65534));
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EPERM));
        ASSERT_EQ(0, seteuid(0));
        EXPECT_TRUE(opens(socket, "lo"));
    });
}

TEST(RawSocket, isNotOpenedWithoutAFreeDescriptor) {
    VESK_SKIP_WITHOUT_PACKETS();
    expectInChild([] {
        {
            // A sanitizer uses descriptors when it first sees an object.
            RawSocket seen(true, 0, 0);
            EXPECT_TRUE(seen.open("no-device"));
            EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV));
            EXPECT_NE(Socket::INACTIVE, seen.getState());
        }
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        RawSocket socket(true, 0, 0);
        EXPECT_TRUE(socket.open(nullptr));
        EXPECT_TRUE(causeIs(UNCLASSIFIED, EMFILE));
        EXPECT_TRUE(isIn(socket, Socket::INACTIVE, true));
    });
}

// ---- close ----

TEST(RawSocket, thatNeverOpenedStaysInactiveWhenItIsClosed) {
    Fault const closes(inject_close, 0);
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(isIn(socket, Socket::INACTIVE));
    EXPECT_EQ(0, closes.getCalls());
}

TEST(RawSocket, closeWithoutADescriptorKeepsTheStateAndTheReports) {
    RawSocket socket(true, 0, 0);
    Fault const fault(inject_socket, EPERM);
    EXPECT_TRUE(socket.open(nullptr));
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EPERM));
    EXPECT_TRUE(isIn(socket, Socket::INACTIVE, true));
}

TEST(RawSocket, isDeadAfterCloseAndCannotBeOpenedAgain) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open(nullptr));
    int const fd = socket.getSocketFd();
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(socket.close());
        EXPECT_TRUE(isIn(socket, Socket::DEAD));
        EXPECT_FALSE(isOpenDescriptor(fd));
    }
    EXPECT_TRUE(isMisuse(socket, "lo", "open on invalid object"));
    EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
}

class RawSocketClose : public testing::TestWithParam<int> {};

TEST_P(RawSocketClose, failureIsReportedNotRepeatedAndLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    int const fd = socket.getSocketFd();
    Fault const fault(inject_close, GetParam());
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(causeIs(UNCLASSIFIED, GetParam()));
    EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
    EXPECT_FALSE(socket.close());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(isOpenDescriptor(fd));
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(errors, RawSocketClose, testing::Values(EINTR, EBADF, EIO, ENOSPC));

TEST(RawSocket, closeFailsIfTheDescriptorIsAlreadyClosed) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    close(socket.getSocketFd());
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(causeIs(UNCLASSIFIED, EBADF));
    EXPECT_TRUE(isIn(socket, Socket::DEAD, true));
}

// ---- destruction ----

TEST(RawSocketEnd, ofAnOpenSocketFailsAnAssertionAndClosesIt) {
    VESK_SKIP_WITHOUT_PACKETS();
    for (int const close_error : {0, EIO}) {
        EventRecorder const events;
        int fd = -1;
        {
            Fault const fault(inject_close, close_error);
            RawSocket socket(true, 0, 0);
            EXPECT_FALSE(socket.open("lo"));
            fd = socket.getSocketFd();
        }
        EXPECT_EQ(
            std::string(OPEN_ASSERTION) + (close_error != 0 ? std::string("\n") + END_WARNING : ""),
            events.getText());
        EXPECT_EQ(close_error != 0, isOpenDescriptor(fd));
        close(fd);
    }
}

TEST(RawSocketEnd, ofADeadSocketIsSilent) {
    VESK_SKIP_WITHOUT_PACKETS();
    Fault const closes(inject_close, 0);
    {
        RawSocket socket(true, 0, 0);
        EXPECT_FALSE(socket.open("lo"));
        EXPECT_FALSE(socket.close());
    }
    EXPECT_EQ(1, closes.getCalls());
    {
        RawSocket socket(true, 0, 0);
        EXPECT_TRUE(socket.open("no-device"));
        EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV));
    }
    EXPECT_EQ(2, closes.getCalls());
}

// ---- states ----

TEST(RawSocketStates, onlyAnOpenSocketTransfersFrames) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    for (int closed = 0; closed < 2; ++closed) {
        char byte = 'x';
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.read(&byte, 1, count));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs("called read on non-OPEN socket", {CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
        EXPECT_EQ(-1, socket.write(&byte, 1, count));
        EXPECT_TRUE(chainIs("called write on non-OPEN socket", {CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
        EXPECT_FALSE(socket.flush(false));
        EXPECT_TRUE(socket.checkValidSocket());
        EXPECT_TRUE(chainIs({SocketErrorId::INVALID_SOCKET}));
        EXPECT_EQ(0U, socket.getRecvBuffer());
        EXPECT_TRUE(chainIs({SocketErrorId::INVALID_SOCKET}));
        if (closed == 0) {
            EXPECT_FALSE(socket.open("lo"));
            EXPECT_FALSE(socket.checkValidSocket());
            EXPECT_FALSE(socket.setRecvBuffer(65536));
            EXPECT_NE(0U, socket.getRecvBuffer());
            EXPECT_FALSE(socket.flush(false));
            EXPECT_FALSE(socket.close());
        }
    }
}

// ---- frames in a separate network ----

/// Frame types that are reserved for experiments, so that no system sends one by itself.
constexpr uint16_t OUR_TYPE = 0x88B5;
constexpr uint16_t PROBE_TYPE = 0x88B6;

/// Returns a broadcast frame that contains a text.
std::string makeFrame(std::string const& text, uint16_t type = OUR_TYPE) {
    std::string frame = std::string(6, '\xff') + std::string("\2\0\0\0\0\1", 6);
    frame += static_cast<char>(type >> 8);
    frame += static_cast<char>(type & 0xff);
    frame += text;
    frame.resize(std::max<size_t>(frame.size(), 60), '\0');
    return frame;
}

bool isOurs(std::string const& frame) {
    return frame.size() >= 14 && frame[12] == static_cast<char>(OUR_TYPE >> 8) &&
        frame[13] == static_cast<char>(OUR_TYPE & 0xff);
}

/// Returns the next frame that contains a text, cut to `room` bytes. Returns nothing if a read fails.
std::string readFrameWith(RawSocket& socket, std::string const& text, unsigned int room = 4096) {
    std::string frame;
    do {
        frame.assign(room, '\0');
        unsigned int count = 0;
        EXPECT_EQ(1, socket.read(frame.data(), room, count));
        frame.resize(count);
    } while (!frame.empty() && frame.find(text) == std::string::npos);
    return frame;
}

/// Returns the text of the next frame of our type. Systems send other frames even in a separate network.
std::string readText(RawSocket& socket, unsigned int room = 4096) {
    std::string frame;
    do {
        frame = readFrameWith(socket, "", room);
    } while (!frame.empty() && !isOurs(frame));
    return frame.empty() ? "(none)" : frame.substr(14, frame.find('\0', 14) - 14);
}

testing::AssertionResult writes(RawSocket& socket, std::string const& frame) {
    unsigned int count = 0;
    int const result = socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count);
    return result == 1 && count == frame.size() ? testing::AssertionSuccess()
                                                : testing::AssertionFailure() << result << " " << count;
}

/// Checks that a transfer of the open socket fails with these reports and transfers nothing.
testing::AssertionResult
fails(RawSocket const& socket, int result, unsigned int count, int error, Reports const& reports) {
    testing::AssertionResult const state = isIn(socket, Socket::OPEN, true);
    return result != -1 || count != 0 || !state
        ? testing::AssertionFailure() << result << " " << count << " " << state.message()
        : chainIs(error, reports);
}

testing::AssertionResult
failsToWrite(RawSocket& socket, std::string const& frame, int error, Reports const& reports) {
    unsigned int count = 99;
    int const result = socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count);
    return fails(socket, result, count, error, reports);
}

/// Checks that a read fails because the device is down.
testing::AssertionResult failsToRead(RawSocket& socket) {
    char block[100];
    unsigned int count = 99;
    int const result = socket.read(block, sizeof block, count);
    return fails(socket, result, count, ENETDOWN, {UNCLASSIFIED, StreamErrorId::UNCLASSIFIED});
}

/// A packet socket of plain system calls.
class PlainPort : private tarnbase::NonCopyable {
public:
    explicit PlainPort(char const* device, uint16_t type = 0)
        : m_fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(type))) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(type);
        address.sll_ifindex = static_cast<int>(if_nametoindex(device));
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address));
    }
    ~PlainPort() { close(m_fd); }

    void sendFrame(std::string const& frame) const {
        EXPECT_EQ(static_cast<ssize_t>(frame.size()), send(m_fd, frame.data(), frame.size(), 0))
            << strerror(errno);
    }

    /// Waits at most some milliseconds for a frame.
    bool getsFrame(int timeout_ms) const {
        pollfd entry{m_fd, POLLIN, 0};
        return poll(&entry, 1, timeout_ms) == 1;
    }

private:
    int m_fd;
};

/// Sends a text from a device.
void sendFrom(char const* device, std::string const& text) {
    PlainPort(device).sendFrame(makeFrame(text));
}

/// Waits until frames pass: the system drops them for a while after both ends were set up.
void waitForCable(char const* one, char const* other) {
    for (auto const& way : {std::make_pair(one, other), std::make_pair(other, one)}) {
        PlainPort const from(way.first);
        PlainPort const to(way.second, PROBE_TYPE);
        do {
            from.sendFrame(makeFrame("probe", PROBE_TYPE));
        } while (!to.getsFrame(10));
    }
}

/// Runs with the cables "left" to "right" and "north" to "south", which are up, and a socket for a device.
void expectWithCables(char const* device, std::function<void(RawSocket& socket)> const& body) {
    expectInNetwork([&] {
        ASSERT_TRUE(makePair("left", "right"));
        ASSERT_TRUE(makePair("north", "south"));
        for (char const* const end : {"left", "right", "north", "south"}) {
            ASSERT_TRUE(setUp(end));
        }
        waitForCable("left", "right");
        waitForCable("north", "south");
        PlainSocket socket;
        ASSERT_TRUE(opens(socket, device));
        body(socket);
        EXPECT_TRUE(chainIs({}));
    });
}

class RawSocketFrames : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

TEST_F(RawSocketFrames, areReceivedWhole) {
    expectWithCables("right", [](RawSocket& socket) {
        sendFrom("left", "from the left");
        EXPECT_EQ(makeFrame("from the left"), readFrameWith(socket, "from the left"));
    });
}

TEST_F(RawSocketFrames, areNotConsumedByAnEmptyRead) {
    VESK_SKIP_WITHOUT_PACKETS();
    expectWithCables("right", [](RawSocket& socket) {
        sendFrom("left", "hello");
        pollfd entry{socket.getSocketFd(), POLLIN, 0};
        ASSERT_EQ(1, poll(&entry, 1, 60000));
        unsigned int count = 99;
        EXPECT_EQ(1, socket.read(nullptr, 0, count));
        EXPECT_EQ(0U, count);
        EXPECT_EQ("hello", readText(socket));
    });
}

TEST_F(RawSocketFrames, areThoseOfOneDevice) {
    expectWithCables("right", [](RawSocket& socket) {
        sendFrom("north", "elsewhere");
        sendFrom("south", "elsewhere");
        sendFrom("left", "here");
        EXPECT_EQ("here", readText(socket));
        sendFrom("north", "elsewhere");
        sendFrom("left", "here again");
        EXPECT_EQ("here again", readText(socket));
    });
}

TEST_F(RawSocketFrames, areThoseOfAllDevicesWithoutAName) {
    expectWithCables(nullptr, [](RawSocket& socket) {
        sendFrom("left", "one");
        sendFrom("north", "two");
        sendFrom("lo", "three");
        std::multiset<std::string> texts;
        while (texts.count("three") < 2) {
            texts.insert(readText(socket));
        }
        EXPECT_EQ((std::multiset<std::string>{"one", "one", "two", "two", "three", "three"}), texts)
            << "each frame is seen when it is sent and when it is received";
    });
}

TEST_F(RawSocketFrames, areOfAllProtocols) {
    expectWithCables("lo", [](RawSocket& raw) {
        int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in binary{};
        binary.sin_family = AF_INET;
        binary.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const address = reinterpret_cast<sockaddr*>(&binary);
        socklen_t length = sizeof binary;
        ASSERT_EQ(0, bind(fd, address, length));
        ASSERT_EQ(0, getsockname(fd, address, &length));
        ASSERT_EQ(8, sendto(fd, "datagram", 8, 0, address, length));
        std::string const frame = readFrameWith(raw, "datagram");
        ASSERT_EQ(14U + 20U + 8U + 8U, frame.size()) << "Ethernet, IP, UDP and the text";
        EXPECT_EQ(std::string("\x08\0", 2), frame.substr(12, 2));
        close(fd);
    });
}

TEST_F(RawSocketFrames, areSentToTheOtherEndButNotToTheSender) {
    expectWithCables("left", [](RawSocket& left) {
        PlainSocket right;
        ASSERT_TRUE(opens(right, "right"));
        EXPECT_TRUE(writes(left, makeFrame("question")));
        EXPECT_FALSE(left.hadError());
        EXPECT_EQ("question", readText(right));
        EXPECT_TRUE(writes(right, makeFrame("answer")));
        EXPECT_EQ("answer", readText(left));
    });
}

TEST_F(RawSocketFrames, areCollectedInTheBufferUntilAFlush) {
    expectWithCables("south", [](RawSocket&) {
        RawSocket left(true, 0, 2000);
        RawSocket right(true, 2000, 0);
        ASSERT_TRUE(opens(left, "left"));
        ASSERT_TRUE(opens(right, "right"));
        std::string const frame = makeFrame("in pieces");
        EXPECT_TRUE(writes(left, frame.substr(0, 10)));
        EXPECT_TRUE(writes(left, frame.substr(10)));
        EXPECT_FALSE(left.flush(false));
        std::string got;
        while (got.find("in pieces") == std::string::npos) {
            got += readFrameWith(right, "", 14);
        }
        EXPECT_FALSE(left.close());
        EXPECT_FALSE(right.close());
    });
}

TEST_F(RawSocketFrames, areCutToTheSizeOfTheRead) {
    expectWithCables("right", [](RawSocket& socket) {
        sendFrom("left", "long " + std::string(500, 'x'));
        sendFrom("left", "short");
        EXPECT_EQ("long ", readText(socket, 19));
        EXPECT_EQ("short", readText(socket)) << "the rest of the long frame is lost";
    });
}

TEST_F(RawSocketFrames, thatAreTooLongAreRefused) {
    expectWithCables("left", [](RawSocket& socket) {
        EXPECT_TRUE(failsToWrite(
            socket, makeFrame(std::string(2000, 'x')), EMSGSIZE,
            {SocketErrorId::MESSAGE_TOO_BIG, StreamErrorId::TRANSFER_FAILED}));
        EXPECT_TRUE(writes(socket, makeFrame("short")));
    });
}

TEST_F(RawSocketFrames, withoutAHeaderAreRefused) {
    expectWithCables("left", [](RawSocket& socket) {
        EXPECT_TRUE(failsToWrite(socket, "tiny", EINVAL, {UNCLASSIFIED, StreamErrorId::UNCLASSIFIED}));
    });
}

TEST_F(RawSocketFrames, cannotBeSentWithoutADevice) {
    expectWithCables(nullptr, [](RawSocket& socket) {
        EXPECT_TRUE(failsToWrite(
            socket, makeFrame("to nowhere"), ENXIO, {UNCLASSIFIED, StreamErrorId::UNCLASSIFIED}));
    });
}

class RawSocketDevices : public RawSocketFrames {};

TEST_F(RawSocketDevices, thatGoDownFailTheNextReadAndCanBeUsedWhenTheyAreUpAgain) {
    expectWithCables("right", [](RawSocket& socket) {
        ASSERT_TRUE(setDown("right"));
        EXPECT_TRUE(failsToRead(socket));
        EXPECT_TRUE(failsToWrite(
            socket, makeFrame("in vain"), ENETDOWN,
            {SocketErrorId::NETWORK_UNAVAILABLE, StreamErrorId::UNUSABLE}));

        ASSERT_TRUE(setUp("right"));
        waitForCable("left", "right");
        sendFrom("left", "up again");
        EXPECT_EQ("up again", readText(socket));
    });
}

TEST_F(RawSocketDevices, thatAreRemovedFailReadAndWrite) {
    expectWithCables("right", [](RawSocket& socket) {
        ASSERT_TRUE(removeInterface("right"));
        EXPECT_TRUE(failsToRead(socket));
        EXPECT_TRUE(failsToWrite(
            socket, makeFrame("to nowhere"), ENXIO, {UNCLASSIFIED, StreamErrorId::UNCLASSIFIED}));
    });
}

TEST_F(RawSocketDevices, thatAreDownCanBeOpened) {
    expectInNetwork([] {
        ASSERT_TRUE(makePair("left", "right"));
        PlainSocket socket;
        EXPECT_TRUE(opens(socket, "right"));
        EXPECT_TRUE(failsToRead(socket));
    });
}

TEST_F(RawSocketDevices, haveNamesOfUpTo15LettersAndLongerNamesAreCut) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("fifteen-letters"));
        for (char const* const name :
             {"fifteen-letters", "fifteen-letters!", "fifteen-letters-and-more-than-forty-in-all"}) {
            PlainSocket socket;
            EXPECT_TRUE(opens(socket, name)) << name;
            sockaddr_ll address{};
            socklen_t length = sizeof address;
            EXPECT_EQ(0, getsockname(socket.getSocketFd(), reinterpret_cast<sockaddr*>(&address), &length));
            EXPECT_EQ(static_cast<int>(if_nametoindex("fifteen-letters")), address.sll_ifindex);
            EXPECT_EQ(htons(ETH_P_ALL), address.sll_protocol);
        }
        RawSocket other(true, 0, 0);
        EXPECT_TRUE(other.open("fifteen-letter")) << "a shorter name is another one";
        EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV));
    });
}

TEST_F(RawSocketDevices, canBeReadByManySockets) {
    expectWithCables("right", [](RawSocket& first) {
        PlainSocket second;
        PlainSocket all;
        ASSERT_TRUE(opens(second, "right"));
        ASSERT_TRUE(opens(all, nullptr));
        sendFrom("left", "to all");
        for (RawSocket* const socket :
             {&first, static_cast<RawSocket*>(&second), static_cast<RawSocket*>(&all)}) {
            EXPECT_EQ("to all", readText(*socket));
        }
    });
}

} // namespace
