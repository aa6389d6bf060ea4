#include "SocketRows.h"
#include "support/Descriptors.h"
#include "support/NetworkNamespace.h"
#include "support/NewFault.h"
#include "support/calls/UDPCalls.h"

#include <vesk/RawSocket.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>

namespace {

/// All 16 bytes of the name in the last SIOCGIFINDEX request.
std::string s_device;

} // namespace

support::Injected inject_ioctl("ioctl");
extern "C" VESK_UNWATCHED int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == SIOCGIFINDEX) {
        s_device.assign(static_cast<ifreq*>(argument)->ifr_name, IFNAMSIZ);
        if (inject_ioctl.fails()) {
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

/// Checks that a socket opens without a report.
testing::AssertionResult opens(RawSocket& socket, char const* device) {
    return socket.open(device) ? testing::AssertionFailure() << chainIs({}).message()
                               : succeeded(socket, Socket::OPEN);
}

/// Checks that a socket does not open because it is in the wrong state.
testing::AssertionResult isMisuse(RawSocket& socket, char const* device, char const* text) {
    return socket.open(device) && socket.hadError() ? chainIs(text, {CONTRACT_BROKEN})
                                                    : testing::AssertionFailure() << "opened";
}

bool mayOpenPackets() {
    return close(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) == 0;
}

#define VESK_SKIP_WITHOUT_PACKETS()                                                                          \
    if (!mayOpenPackets()) {                                                                                 \
        GTEST_SKIP() << "packet sockets are not granted to the test";                                        \
    }

// ---- construction ----

TEST(RawSocket, startsInactiveWithTheBuffersOfItsConstructor) {
    Calls const sockets(inject_socket, 0);
    RawSocket const socket(true, 0, 0);
    EXPECT_TRUE(succeeded(socket, Socket::INACTIVE));
    for (unsigned int const size : {64U, 0U}) {
        RawSocket const buffered(true, size, size / 2);
        EXPECT_TRUE(buffered.isValid());
        EXPECT_EQ(size != 0, buffered.isInputBuffered());
        EXPECT_EQ(size != 0, buffered.isOutputBuffered());
    }
}

TEST(RawSocket, thatIsInvalidCannotBeOpened) {
    Calls const sockets(inject_socket, 0);
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
    EXPECT_FALSE(socket->close());
    socket.reset();
}

// ---- open ----

TEST(RawSocket, isNotBoundForAllDevicesOrBoundToTheIndexOfItsDevice) {
    VESK_SKIP_WITHOUT_PACKETS();
    PlainSocket socket;
    CallRecorder calls;
    Fault const queries(inject_ioctl, 0);
    EXPECT_TRUE(opens(socket, nullptr));
    std::string const made = "socket(other, 3, " + std::to_string(htons(ETH_P_ALL)) + ")\n";
    EXPECT_EQ(made, calls.getText());
    EXPECT_EQ(0, queries.getCalls());
    PlainSocket bound;
    EXPECT_TRUE(opens(bound, "lo"));
    EXPECT_EQ(std::string("lo") + std::string(14, '\0'), s_device);
    // The family 17, the protocol 3 and the index, then zeros.
    unsigned int const index = if_nametoindex("lo");
    EXPECT_EQ(
        made + "bind(s, 11000003" + CallRecorder::toHex(&index, sizeof index) + std::string(24, '0') + ")\n",
        calls.getText());
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
    Calls const sockets(inject_socket, 0);
    for (char const* const device : {static_cast<char const*>(nullptr), "lo", "none"}) {
        EXPECT_TRUE(isMisuse(socket, device, "open() called in state != INACTIVE"));
    }
    EXPECT_TRUE(failed(socket, Socket::OPEN, {}));
    EXPECT_EQ(fd, socket.getSocketFd());
    EXPECT_TRUE(isOpen(fd));
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.hadError());
}

VESK_TEST_ROWS(
    RawSocketCreation, failureLeavesItInactiveAndItCanBeOpenedLater,
    errnoRows(
        {{{EPERM}, {SysErrorId::PERMISSION_DENIED}},
         {{EACCES, EMFILE, ENFILE, ENOMEM, ENOBUFS, EAFNOSUPPORT, EINVAL, EINTR}, {UNCLASSIFIED}}})) {
    PlainSocket socket;
    for (char const* const device : DEVICES) {
        Fault const fault(inject_socket, GetParam().error);
        Calls const closes(inject_close, 0);
        EXPECT_TRUE(socket.open(device));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, GetParam().reports));
    }
    if (mayOpenPackets()) {
        EXPECT_TRUE(opens(socket, "lo"));
    }
}

/// Checks that a failed call after the creation of the descriptor closes it and is reported, and that a failure of the close is
/// not repeated and makes only a warning.
void expectDead(Injected& function, ErrnoRow const& row, int error_of_close) {
    VESK_SKIP_WITHOUT_PACKETS();
    for (int const close_error : {0, error_of_close}) {
        int const descriptors = countDescriptors();
        EventRecorder const events;
        int const fd = dup(1); // The number that the socket gets.
        close(fd);
        RawSocket socket(true, 0, 0);
        Calls const calls(function, 1, row.error);
        Fault const closes(inject_close, close_error);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, closes.getCalls());
        EXPECT_TRUE(failed(socket, Socket::DEAD, row));
        EXPECT_EQ(close_error != 0 ? OPEN_WARNING : "", events.getText());
        EXPECT_EQ(close_error != 0, isOpen(fd));
        close(fd);
        EXPECT_EQ(descriptors, countDescriptors());
    }
}

VESK_TEST_ROWS(
    RawSocketDevice, failureLeavesItDeadAndAFailedCloseIsAWarning,
    errnoRows(
        {{{ENODEV}, {SysErrorId::NO_DEVICE}},
         {{ENXIO, EPERM, EBADF, EFAULT, EINVAL, ENOTTY, EINTR}, {UNCLASSIFIED}}})) {
    expectDead(inject_ioctl, GetParam(), EIO);
}

VESK_TEST_ROWS(
    RawSocketBind, failureLeavesItDeadAndAFailedCloseIsAWarning,
    errnoRows(
        {{{ENODEV, ENETDOWN, EINVAL, EADDRINUSE, EACCES, EPERM, ENOMEM, ENOBUFS, EINTR, EIO},
          {UNCLASSIFIED}}})) {
    expectDead(inject_bind, GetParam(), EINTR);
}

constexpr char const* NO_DEVICES[] = {
    "", "no-device", "fifteen-letters", "sixteen--letters", "a-name-of-forty-letters-is-much-too-long"};
VESK_TEST_TABLE(RawSocketName, ofNoDeviceLeavesItDead, testing::Test, NO_DEVICES) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_TRUE(socket.open(GetParam()));
    EXPECT_TRUE(failed(socket, Socket::DEAD, ErrnoRow(SysErrorId::NO_DEVICE, ENODEV)));
    std::string sent(GetParam());
    sent.resize(15, '\0');
    EXPECT_EQ(sent + '\0', s_device) << "the request has 16 bytes, and the last one is zero";
}

TEST(RawSocket, isDeniedToAnUnprivilegedProcessUntilThePrivilegeExists) {
    VESK_SKIP_UNLESS_ROOT();
    bool const opens_later = mayOpenPackets();
    expectInChild([opens_later] {
        PlainSocket socket;
        ASSERT_EQ(0, seteuid(65534));
        for (char const* const device : DEVICES) {
            EXPECT_TRUE(socket.open(device));
            EXPECT_TRUE(failed(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::PERMISSION_DENIED, EPERM)));
        }
        ASSERT_EQ(0, seteuid(0));
        if (opens_later) {
            EXPECT_TRUE(opens(socket, "lo"));
        }
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
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, ErrnoRow(UNCLASSIFIED, EMFILE)));
    });
}

// ---- close ----

TEST(RawSocket, thatNeverOpenedStaysInactiveWhenItIsClosed) {
    Calls const closes(inject_close, 0);
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(succeeded(socket, Socket::INACTIVE));
    Fault const fault(inject_socket, EPERM);
    EXPECT_TRUE(socket.open(nullptr));
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(failed(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::PERMISSION_DENIED, EPERM)));
}

TEST(RawSocket, isDeadAfterCloseAndCannotBeOpenedAgain) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open(nullptr));
    int const fd = socket.getSocketFd();
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(socket.close());
        EXPECT_TRUE(succeeded(socket, Socket::DEAD));
        EXPECT_FALSE(isOpen(fd));
    }
    EXPECT_TRUE(isMisuse(socket, "lo", "open on invalid object"));
    EXPECT_TRUE(failed(socket, Socket::DEAD, {}));
}

constexpr int CLOSE_ERRORS[] = {EINTR, EBADF, EIO, ENOSPC};
VESK_TEST_TABLE(RawSocketClose, failureIsReportedNotRepeatedAndLeavesItDead, testing::Test, CLOSE_ERRORS) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    int const fd = socket.getSocketFd();
    Fault const fault(inject_close, GetParam());
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(failed(socket, Socket::DEAD, ErrnoRow(UNCLASSIFIED, GetParam())));
    EXPECT_FALSE(socket.close());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(isOpen(fd));
    close(fd);
}

TEST(RawSocket, closeFailsIfTheDescriptorIsAlreadyClosed) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    close(socket.getSocketFd());
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(failed(socket, Socket::DEAD, ErrnoRow(UNCLASSIFIED, EBADF)));
}

// ---- destruction ----

TEST(RawSocketEnd, failsAnAssertionUnlessTheSocketIsDead) {
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
        EXPECT_EQ(close_error != 0, isOpen(fd));
        close(fd);
    }
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

ErrnoRow const DOWN(UNCLASSIFIED, ENETDOWN, {StreamErrorId::UNCLASSIFIED});
ErrnoRow const NOWHERE(UNCLASSIFIED, ENXIO, {StreamErrorId::UNCLASSIFIED});

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

/// Returns a function that runs `body` with the cables "left" to "right" and "north" to "south", which are up, and a socket
/// for a device.
auto withSocketOf(char const* device) {
    return [device](void (*body)(RawSocket & socket)) {
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
    };
}

class RawSocketFrames : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

VESK_TEST_WITH(
    withSocketOf("right"), RawSocketFrames, areThoseOfOneDeviceCutToTheSizeOfTheRead, (RawSocket & socket)) {
    sendFrom("left", "from the left");
    EXPECT_EQ(makeFrame("from the left"), readFrameWith(socket, "from the left"));
    sendFrom("left", "long " + std::string(500, 'x'));
    sendFrom("left", "short");
    EXPECT_EQ("long ", readText(socket, 19));
    EXPECT_EQ("short", readText(socket)) << "the rest of the long frame is lost";
    sendFrom("left", "hello");
    ASSERT_TRUE(awaitEvents(socket.getSocketFd(), POLLIN));
    unsigned int count = 99;
    EXPECT_EQ(1, socket.read(nullptr, 0, count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ("hello", readText(socket));
    sendFrom("north", "elsewhere");
    sendFrom("south", "elsewhere");
    sendFrom("left", "here");
    EXPECT_EQ("here", readText(socket));
    sendFrom("north", "elsewhere");
    sendFrom("left", "here again");
    EXPECT_EQ("here again", readText(socket));
}

VESK_TEST_WITH(
    withSocketOf(nullptr), RawSocketFrames, areThoseOfAllDevicesWithoutANameAndCannotBeSent,
    (RawSocket & socket)) {
    sendFrom("left", "one");
    sendFrom("north", "two");
    sendFrom("lo", "three");
    std::multiset<std::string> texts;
    while (texts.count("three") < 2) {
        texts.insert(readText(socket));
    }
    EXPECT_EQ((std::multiset<std::string>{"one", "one", "two", "two", "three", "three"}), texts)
        << "each frame is seen when it is sent and when it is received";
    EXPECT_TRUE(failsToWrite(socket, NOWHERE, makeFrame("to nowhere")));
}

VESK_TEST_WITH(withSocketOf("lo"), RawSocketFrames, areOfAllProtocols, (RawSocket & raw)) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in binary = vesk::IPSocket::IPAddress::makeHandle(INADDR_LOOPBACK, 0);
    auto* const address = reinterpret_cast<sockaddr*>(&binary);
    socklen_t length = sizeof binary;
    ASSERT_EQ(0, bind(fd, address, length));
    ASSERT_EQ(0, getsockname(fd, address, &length));
    ASSERT_EQ(8, sendto(fd, "datagram", 8, 0, address, length));
    std::string const frame = readFrameWith(raw, "datagram");
    ASSERT_EQ(14U + 20U + 8U + 8U, frame.size()) << "Ethernet, IP, UDP and the text";
    EXPECT_EQ(std::string("\x08\0", 2), frame.substr(12, 2));
    close(fd);
}

VESK_TEST_WITH(
    withSocketOf("left"), RawSocketFrames, areSentToTheOtherEndButNotToTheSender, (RawSocket & left)) {
    PlainSocket right;
    ASSERT_TRUE(opens(right, "right"));
    EXPECT_TRUE(isWritten(left, makeFrame("question")));
    EXPECT_EQ("question", readText(right));
    EXPECT_TRUE(isWritten(right, makeFrame("answer")));
    EXPECT_EQ("answer", readText(left));
}

VESK_TEST_WITH(withSocketOf("south"), RawSocketFrames, areCollectedInTheBufferUntilAFlush, (RawSocket&)) {
    RawSocket left(true, 0, 2000);
    RawSocket right(true, 2000, 0);
    ASSERT_TRUE(opens(left, "left"));
    ASSERT_TRUE(opens(right, "right"));
    std::string const frame = makeFrame("in pieces");
    EXPECT_TRUE(isWritten(left, frame.substr(0, 10)));
    EXPECT_TRUE(isWritten(left, frame.substr(10)));
    EXPECT_FALSE(left.flush(false));
    std::string got;
    while (got.find("in pieces") == std::string::npos) {
        got += readFrameWith(right, "", 14);
    }
    EXPECT_FALSE(left.close());
    EXPECT_FALSE(right.close());
}

VESK_TEST_WITH(
    withSocketOf("left"), RawSocketFrames, thatAreTooLongOrHaveNoHeaderAreRefused, (RawSocket & socket)) {
    EXPECT_TRUE(failsToWrite(
        socket, ErrnoRow(SocketErrorId::MESSAGE_TOO_BIG, EMSGSIZE, {StreamErrorId::TRANSFER_FAILED}),
        makeFrame(std::string(2000, 'x'))));
    EXPECT_TRUE(isWritten(socket, makeFrame("short")));
    EXPECT_TRUE(failsToWrite(socket, ErrnoRow(UNCLASSIFIED, EINVAL, {StreamErrorId::UNCLASSIFIED}), "tiny"));
}

class RawSocketDevices : public RawSocketFrames {};

VESK_TEST_WITH(
    withSocketOf("right"), RawSocketDevices, failTransfersWhileTheyAreDownOrRemoved, (RawSocket & socket)) {
    ASSERT_TRUE(setDown("right"));
    EXPECT_TRUE(failsToRead(socket, DOWN));
    EXPECT_TRUE(failsToWrite(
        socket, ErrnoRow(SocketErrorId::NETWORK_UNAVAILABLE, ENETDOWN, {StreamErrorId::UNUSABLE}),
        makeFrame("in vain")));

    ASSERT_TRUE(setUp("right"));
    waitForCable("left", "right");
    sendFrom("left", "up again");
    EXPECT_EQ("up again", readText(socket));
    ASSERT_TRUE(removeInterface("right"));
    EXPECT_TRUE(failsToRead(socket, DOWN));
    EXPECT_TRUE(failsToWrite(socket, NOWHERE, makeFrame("to nowhere")));
}

VESK_TEST_WITH(expectInNetwork, RawSocketDevices, haveNamesThatAreCutTo15Letters, ()) {
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
    ASSERT_TRUE(makePair("left", "right"));
    PlainSocket down;
    EXPECT_TRUE(opens(down, "right"));
    EXPECT_TRUE(failsToRead(down, DOWN));
}

VESK_TEST_WITH(withSocketOf("right"), RawSocketDevices, canBeReadByManySockets, (RawSocket & first)) {
    PlainSocket second;
    PlainSocket all;
    ASSERT_TRUE(opens(second, "right"));
    ASSERT_TRUE(opens(all, nullptr));
    sendFrom("left", "to all");
    for (RawSocket* const socket :
         {&first, static_cast<RawSocket*>(&second), static_cast<RawSocket*>(&all)}) {
        EXPECT_EQ("to all", readText(*socket));
    }
}

} // namespace
