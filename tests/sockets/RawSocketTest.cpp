#include "support/Chain.h"
#include "support/Child.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NetworkNamespace.h"
#include "support/NewFault.h"
#include "support/Privileges.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/RawSocket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <ostream>
#include <poll.h>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))

support::Injected inject_socket("socket");
support::Injected inject_ioctl("ioctl");
support::Injected inject_bind("bind");

namespace {

/// What the last calls were made with.
struct RawCalls {
    int domain = -1;
    int type = -1;
    int protocol = -1;
    unsigned long request = 0;
    std::string device; ///< All 16 bytes.
    std::string bound;
};

RawCalls s_raw_calls;

VESK_UNWATCHED bool fails(support::Injected& function) {
    int error = 0;
    if (!function.fails(error)) {
        return false;
    }
    errno = error;
    return true;
}

} // namespace

extern "C" {

VESK_UNWATCHED int socket(int domain, int type, int protocol) {
    s_raw_calls.domain = domain;
    s_raw_calls.type = type;
    s_raw_calls.protocol = protocol;
    if (fails(inject_socket)) {
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, int)>(inject_socket.getReal())(domain, type, protocol);
}

VESK_UNWATCHED int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == SIOCGIFINDEX) {
        s_raw_calls.request = request;
        s_raw_calls.device.assign(static_cast<ifreq*>(argument)->ifr_name, IFNAMSIZ);
        if (fails(inject_ioctl)) {
            return -1;
        }
    }
    return reinterpret_cast<int (*)(int, unsigned long, ...)>(inject_ioctl.getReal())(fd, request, argument);
}

VESK_UNWATCHED int bind(int fd, sockaddr const* address, socklen_t length) {
    s_raw_calls.bound.assign(reinterpret_cast<char const*>(address), length);
    if (fails(inject_bind)) {
        return -1;
    }
    return reinterpret_cast<decltype(&bind)>(inject_bind.getReal())(fd, address, length);
}
}

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::expectInNetwork;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::RawSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

constexpr std::ErrorType const& StreamError = std::IBinStreamBase::StreamError;

static_assert(std::is_base_of_v<Socket, RawSocket> && sizeof(RawSocket) == sizeof(Socket));
static_assert(!std::is_copy_constructible_v<RawSocket> && !std::is_abstract_v<RawSocket>);

constexpr char const* OPEN_ASSERTION =
    "ASSERT framework/src/vesk/linux/RawSocket ~RawSocket: this->getState() != OPEN";
constexpr char const* END_WARNING =
    "WARNING framework/src/vesk/linux/RawSocket ~RawSocket: error closing socket";
constexpr char const* OPEN_WARNING = "WARNING framework/src/vesk/linux/RawSocket open: error closing socket";

support::ExpectedReport expected(int error, int id) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

testing::AssertionResult failureIs(int error, int id) {
    return chainIs({expected(error, id)});
}

testing::AssertionResult misuseIs(std::string const& text) {
    return chainIs({{CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)}});
}

/// A report of the system and one of the stream on top.
testing::AssertionResult trafficFailureIs(int error, std::ErrorType const& family, int id, int stream_id) {
    return chainIs({{family, id, rowText(family, id, systemText(error))}, {StreamError, stream_id}});
}

bool isOpenDescriptor(int fd) {
    return fcntl(fd, F_GETFD) != -1;
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
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(0, sockets.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(RawSocket, hasTheBuffersThatItIsMadeWith) {
    RawSocket const socket(true, 64, 32);
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(socket.isInputBuffered());
    EXPECT_TRUE(socket.isOutputBuffered());
    RawSocket const plain(true, 0, 0);
    EXPECT_FALSE(plain.isInputBuffered());
    EXPECT_FALSE(plain.isOutputBuffered());
}

TEST(RawSocket, thatIsInvalidRefusesToOpen) {
    Fault const sockets(inject_socket, 0);
    std::unique_ptr<RawSocket> socket;
    {
        support::NewFault const fault(support::New::NOTHROW_ARRAY);
        socket = std::make_unique<RawSocket>(true, 64U, 0U);
    }
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_FALSE(socket->isValid());
    EXPECT_TRUE(socket->open(nullptr));
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(misuseIs("open on invalid object"));
    EXPECT_TRUE(socket->open("lo"));
    EXPECT_TRUE(misuseIs("open on invalid object"));
    EXPECT_EQ(0, sockets.getCalls());
    EXPECT_FALSE(socket->close());
    support::EventRecorder const events;
    socket.reset();
    EXPECT_EQ("", events.getText());
}

// ---- open ----

TEST(RawSocket, opensForAllDevicesWithoutABind) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    Fault const binds(inject_bind, 0);
    Fault const queries(inject_ioctl, 0);
    EXPECT_FALSE(socket.open(nullptr));
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(AF_PACKET, s_raw_calls.domain);
    EXPECT_EQ(SOCK_RAW, s_raw_calls.type);
    EXPECT_EQ(768, s_raw_calls.protocol);
    EXPECT_EQ(0, binds.getCalls());
    EXPECT_EQ(0, queries.getCalls());
    EXPECT_FALSE(socket.close());
}

TEST(RawSocket, bindsToTheIndexOfItsDevice) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ(static_cast<unsigned long>(SIOCGIFINDEX), s_raw_calls.request);
    EXPECT_EQ(std::string("lo") + std::string(14, '\0'), s_raw_calls.device);
    sockaddr_ll address{};
    ASSERT_EQ(20U, s_raw_calls.bound.size());
    memcpy(&address, s_raw_calls.bound.data(), sizeof address);
    EXPECT_EQ(17, address.sll_family);
    EXPECT_EQ(std::string("\0\3", 2), s_raw_calls.bound.substr(2, 2));
    EXPECT_EQ(static_cast<int>(if_nametoindex("lo")), address.sll_ifindex);
    EXPECT_EQ(std::string(12, '\0'), s_raw_calls.bound.substr(8));
    EXPECT_FALSE(socket.close());
}

TEST(RawSocket, hasADescriptorThatWaitsAndStaysOpenAcrossExec) {
    VESK_SKIP_WITHOUT_PACKETS();
    for (bool const blocking : {true, false}) {
        RawSocket socket(blocking, 0, 0);
        EXPECT_FALSE(socket.open("lo"));
        EXPECT_EQ(0, fcntl(socket.getSocketFd(), F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(0, fcntl(socket.getSocketFd(), F_GETFL) & O_NONBLOCK) << blocking;
        EXPECT_FALSE(socket.close());
    }
}

TEST(RawSocket, thatIsOpenRefusesToOpenAgainAndKeepsItsDescriptor) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    int const fd = socket.getSocketFd();
    Fault const sockets(inject_socket, 0);
    for (char const* const device : {static_cast<char const*>(nullptr), "lo", "none"}) {
        EXPECT_TRUE(socket.open(device));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(misuseIs("open() called in state != INACTIVE"));
    }
    EXPECT_EQ(0, sockets.getCalls());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ(fd, socket.getSocketFd());
    EXPECT_TRUE(isOpenDescriptor(fd));
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.hadError());
}

TEST(RawSocket, thatIsDeadIsInvalidForOpen) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(socket.open("lo"));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(misuseIs("open on invalid object"));
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

struct Row {
    int error;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class RawSocketCreation : public testing::TestWithParam<Row> {};

TEST_P(RawSocketCreation, failureLeavesItInactiveToTryAgain) {
    RawSocket socket(true, 0, 0);
    for (char const* const device : {static_cast<char const*>(nullptr), "lo"}) {
        Fault const fault(inject_socket, GetParam().error);
        Fault const closes(inject_close, 0);
        EXPECT_TRUE(socket.open(device));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, closes.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    if (mayOpenPackets()) {
        EXPECT_FALSE(socket.open("lo"));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_FALSE(socket.close());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, RawSocketCreation,
    testing::Values(
        Row{EPERM, 7}, Row{EACCES, 19}, Row{EMFILE, 19}, Row{ENFILE, 19}, Row{ENOMEM, 19}, Row{ENOBUFS, 19},
        Row{EAFNOSUPPORT, 19}, Row{EINVAL, 19}, Row{EINTR, 19}));

class RawSocketDevice : public testing::TestWithParam<Row> {};

TEST_P(RawSocketDevice, failureLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    int const descriptors = support::countDescriptors();
    RawSocket socket(true, 0, 0);
    {
        Fault const fault(inject_ioctl, GetParam().error);
        Fault const binds(inject_bind, 0);
        Fault const closes(inject_close, 0);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, binds.getCalls());
        EXPECT_EQ(1, closes.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(descriptors, support::countDescriptors());
    EXPECT_EQ("", events.getText());
}

TEST_P(RawSocketDevice, failureStaysReportedAndACloseThatFailsIsAWarning) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    int const fd = dup(1); // The number that the socket gets.
    close(fd);
    RawSocket socket(true, 0, 0);
    {
        Fault const fault(inject_ioctl, GetParam().error);
        Fault const closes(inject_close, EIO);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, closes.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(OPEN_WARNING, events.getText());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_TRUE(isOpenDescriptor(fd));
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    rows, RawSocketDevice,
    testing::Values(
        Row{ENODEV, 16}, Row{ENXIO, 19}, Row{EPERM, 19}, Row{EBADF, 19}, Row{EFAULT, 19}, Row{EINVAL, 19},
        Row{ENOTTY, 19}, Row{EINTR, 19}));

class RawSocketBind : public testing::TestWithParam<int> {};

TEST_P(RawSocketBind, failureLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    int const descriptors = support::countDescriptors();
    RawSocket socket(true, 0, 0);
    {
        Fault const fault(inject_bind, GetParam());
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam(), 19));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(descriptors, support::countDescriptors());
    EXPECT_EQ("", events.getText());
}

TEST_P(RawSocketBind, failureStaysReportedAndACloseThatFailsIsAWarning) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    int const fd = dup(1); // The number that the socket gets.
    close(fd);
    RawSocket socket(true, 0, 0);
    {
        Fault const fault(inject_bind, GetParam());
        Fault const closes(inject_close, EINTR);
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_EQ(1, closes.getCalls()) << "it is not repeated";
    }
    EXPECT_TRUE(failureIs(GetParam(), 19));
    EXPECT_EQ(OPEN_WARNING, events.getText());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_TRUE(isOpenDescriptor(fd));
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    errors, RawSocketBind,
    testing::Values(ENODEV, ENETDOWN, EINVAL, EADDRINUSE, EACCES, EPERM, ENOMEM, ENOBUFS, EINTR, EIO));

class RawSocketName : public testing::TestWithParam<char const*> {};

TEST_P(RawSocketName, ofNoDeviceLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_TRUE(socket.open(GetParam()));
    EXPECT_TRUE(failureIs(ENODEV, 16));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    std::string sent(GetParam());
    sent.resize(15, '\0');
    EXPECT_EQ(sent + '\0', s_raw_calls.device) << "16 bytes, and the last is a zero";
}

INSTANTIATE_TEST_SUITE_P(
    names, RawSocketName,
    testing::Values(
        "", "no-device", "fifteen-letters", "sixteen--letters", "a-name-of-forty-letters-is-much-too-long"));

TEST(RawSocket, isRefusedToTheUnprivileged) {
    VESK_SKIP_UNLESS_ROOT();
    support::expectInChild([] {
        ASSERT_TRUE(support::dropRights());
        for (char const* const device : {static_cast<char const*>(nullptr), "lo"}) {
            RawSocket socket(true, 0, 0);
            EXPECT_TRUE(socket.open(device));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(failureIs(EPERM, 7));
            EXPECT_EQ(Socket::INACTIVE, socket.getState());
            EXPECT_TRUE(socket.isValid());
        }
    });
}

TEST(RawSocket, mayBeTriedAgainWhenTheRightIsThere) {
    VESK_SKIP_UNLESS_ROOT();
    VESK_SKIP_WITHOUT_PACKETS();
    support::expectInChild([] {
        RawSocket socket(true, 0, 0);
        ASSERT_EQ(0, seteuid(65534));
        EXPECT_TRUE(socket.open("lo"));
        EXPECT_TRUE(failureIs(EPERM, 7));
        ASSERT_EQ(0, seteuid(0));
        EXPECT_FALSE(socket.open("lo"));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocket, withoutDescriptorsLeftIsNotOpened) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::expectInChild([] {
        {
            // A sanitizer takes descriptors for its first look at an object.
            RawSocket seen(true, 0, 0);
            EXPECT_TRUE(seen.open("no-device"));
            EXPECT_TRUE(failureIs(ENODEV, 16));
            EXPECT_NE(Socket::INACTIVE, seen.getState());
        }
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        RawSocket socket(true, 0, 0);
        EXPECT_TRUE(socket.open(nullptr));
        EXPECT_TRUE(failureIs(EMFILE, 19));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
    });
}

// ---- close ----

TEST(RawSocket, thatNeverOpenedStaysInactiveWhenItIsClosed) {
    support::EventRecorder const events;
    {
        Fault const closes(inject_close, 0);
        RawSocket socket(true, 0, 0);
        EXPECT_FALSE(socket.close());
        EXPECT_FALSE(socket.close());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ(0, closes.getCalls());
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(RawSocket, withoutADescriptorNothingChangesByAClose) {
    RawSocket socket(true, 0, 0);
    {
        Fault const fault(inject_socket, EPERM);
        EXPECT_TRUE(socket.open(nullptr));
    }
    EXPECT_FALSE(socket.close());
    EXPECT_TRUE(failureIs(EPERM, 7)) << "also what is reported";
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(RawSocket, isDeadAfterClose) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open(nullptr));
    int const fd = socket.getSocketFd();
    EXPECT_FALSE(socket.close());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_FALSE(socket.isValid());
    EXPECT_FALSE(isOpenDescriptor(fd));
    EXPECT_FALSE(socket.close()) << "there is nothing left to close";
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_TRUE(chainIs({}));
}

class RawSocketClose : public testing::TestWithParam<int> {};

TEST_P(RawSocketClose, failureIsReportedNotRepeatedAndLeavesItDead) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    int const fd = socket.getSocketFd();
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(socket.close());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(failureIs(GetParam(), 19));
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_FALSE(socket.close());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(isOpenDescriptor(fd));
    close(fd);
}

INSTANTIATE_TEST_SUITE_P(errors, RawSocketClose, testing::Values(EINTR, EBADF, EIO, ENOSPC));

TEST(RawSocket, whoseDescriptorWasClosedBehindItsBackFailsToClose) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    EXPECT_FALSE(socket.open("lo"));
    close(socket.getSocketFd());
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(failureIs(EBADF, 19));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

// ---- the end ----

TEST(RawSocketEnd, ofAnOpenOneIsABrokenInvariantAndClosesItAllTheSame) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    int fd = -1;
    {
        RawSocket socket(true, 0, 0);
        EXPECT_FALSE(socket.open("lo"));
        fd = socket.getSocketFd();
    }
    EXPECT_EQ(OPEN_ASSERTION, events.getText());
    EXPECT_FALSE(isOpenDescriptor(fd));
    EXPECT_TRUE(chainIs({}));
}

TEST(RawSocketEnd, thatCannotCloseIsAWarningAndLeavesNothingPending) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
    auto socket = std::make_unique<RawSocket>(true, 0U, 0U);
    EXPECT_FALSE(socket->open("lo"));
    int const fd = socket->getSocketFd();
    {
        Fault const fault(inject_close, EIO);
        socket.reset();
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ(std::string(OPEN_ASSERTION) + "\n" + END_WARNING, events.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(isOpenDescriptor(fd));
    close(fd);
}

TEST(RawSocketEnd, ofADeadOneIsQuiet) {
    VESK_SKIP_WITHOUT_PACKETS();
    support::EventRecorder const events;
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
        EXPECT_TRUE(failureIs(ENODEV, 16));
    }
    EXPECT_EQ(2, closes.getCalls());
    EXPECT_EQ("", events.getText());
}

// ---- what is refused in which state ----

TEST(RawSocketStates, onlyAnOpenOneHasTraffic) {
    VESK_SKIP_WITHOUT_PACKETS();
    RawSocket socket(true, 0, 0);
    for (int closed = 0; closed < 2; ++closed) {
        char byte = 'x';
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.read(&byte, 1, count));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              rowText(CommonErrorId::CONTRACT_BROKEN, "called read on non-OPEN socket")},
             {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
        EXPECT_EQ(-1, socket.write(&byte, 1, count));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              rowText(CommonErrorId::CONTRACT_BROKEN, "called write on non-OPEN socket")},
             {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
        EXPECT_FALSE(socket.flush(false));
        EXPECT_TRUE(socket.checkValidSocket());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
        EXPECT_EQ(0U, socket.getRecvBuffer());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
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

// ---- traffic, in a network of the test's own ----

/// Types of frames that are reserved for experiments, so that no system sends one by itself.
constexpr uint16_t OUR_TYPE = 0x88B5;
constexpr uint16_t PROBE_TYPE = 0x88B6;

/// A frame to everybody that carries a text.
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

/// The next frame of any kind; empty, after a failure of the test, if there is none.
std::string readFrame(RawSocket& socket) {
    char block[4096];
    unsigned int count = 0;
    EXPECT_EQ(1, socket.read(block, sizeof block, count));
    return {block, count};
}

/// The text of the next frame of ours. Systems send frames by themselves, also in a network of one's own.
std::string readText(RawSocket& socket) {
    std::string frame = "not yet";
    while (!frame.empty() && !isOurs(frame)) {
        frame = readFrame(socket);
    }
    return frame.empty() ? "(none)" : std::string(frame.c_str() + 14);
}

testing::AssertionResult writes(RawSocket& socket, std::string const& frame) {
    unsigned int count = 0;
    int const result = socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count);
    return result == 1 && count == frame.size() ? testing::AssertionSuccess()
                                                : testing::AssertionFailure() << result << " " << count;
}

/// A packet socket of plain system calls.
class PlainPort {
public:
    explicit PlainPort(char const* device, uint16_t type = 0)
        : m_fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(type))) {
        m_address.sll_family = AF_PACKET;
        m_address.sll_protocol = htons(type);
        m_address.sll_ifindex = static_cast<int>(if_nametoindex(device));
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&m_address), sizeof m_address));
    }
    ~PlainPort() { close(m_fd); }

    PlainPort(PlainPort const&) = delete;
    PlainPort& operator=(PlainPort const&) = delete;

    void sendFrame(std::string const& frame) const {
        EXPECT_EQ(static_cast<ssize_t>(frame.size()), send(m_fd, frame.data(), frame.size(), 0))
            << strerror(errno);
    }

    /// Whether a frame comes within some milliseconds.
    bool getsFrame(int timeout_ms) const {
        pollfd entry{m_fd, POLLIN, 0};
        return poll(&entry, 1, timeout_ms) == 1;
    }

private:
    int m_fd;
    sockaddr_ll m_address{};
};

/// Puts a frame on the wire.
void sendFrom(char const* device, std::string const& frame) {
    PlainPort(device).sendFrame(frame);
}

/// Waits until frames come through: the system drops them for a while after both ends have been set up.
void waitForCable(char const* one, char const* other) {
    for (auto const& way : {std::make_pair(one, other), std::make_pair(other, one)}) {
        PlainPort const from(way.first);
        PlainPort const to(way.second, PROBE_TYPE);
        do {
            from.sendFrame(makeFrame("probe", PROBE_TYPE));
        } while (!to.getsFrame(10));
    }
}

/// Runs with two cables: "left" leads to "right", and "north" to "south". All are up.
void expectWithCables(std::function<void()> const& body) {
    expectInNetwork([&body] {
        ASSERT_TRUE(support::makePair("left", "right"));
        ASSERT_TRUE(support::makePair("north", "south"));
        for (char const* const device : {"left", "right", "north", "south"}) {
            ASSERT_TRUE(support::setUp(device));
        }
        waitForCable("left", "right");
        waitForCable("north", "south");
        body();
    });
}

TEST(RawSocketFrames, comeFromTheWireWhole) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        std::string const frame = makeFrame("from the left");
        sendFrom("left", frame);
        std::string got;
        do {
            got = readFrame(socket);
        } while (!got.empty() && !isOurs(got));
        EXPECT_EQ(frame, got);
        EXPECT_TRUE(chainIs({}));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, thatWaitAreLeftByAReadOfNothing) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_PACKETS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        sendFrom("left", makeFrame("hello"));
        pollfd entry{socket.getSocketFd(), POLLIN, 0};
        ASSERT_EQ(1, poll(&entry, 1, 60000));
        unsigned int count = 99;
        EXPECT_EQ(1, socket.read(nullptr, 0, count));
        EXPECT_EQ(0U, count);
        EXPECT_EQ("hello", readText(socket));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, areThoseOfOneDeviceOnly) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        sendFrom("north", makeFrame("elsewhere"));
        sendFrom("south", makeFrame("elsewhere"));
        sendFrom("left", makeFrame("here"));
        EXPECT_EQ("here", readText(socket));
        sendFrom("north", makeFrame("elsewhere"));
        sendFrom("left", makeFrame("here again"));
        EXPECT_EQ("here again", readText(socket));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, areThoseOfAllDevicesWithoutAName) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open(nullptr));
        sendFrom("left", makeFrame("one"));
        sendFrom("north", makeFrame("two"));
        sendFrom("lo", makeFrame("three"));
        std::multiset<std::string> texts;
        while (texts.count("three") < 2) {
            texts.insert(readText(socket));
        }
        EXPECT_EQ((std::multiset<std::string>{"one", "one", "two", "two", "three", "three"}), texts)
            << "each as it goes out and as it comes in";
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, areOfAllProtocols) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        RawSocket raw(true, 0, 0);
        ASSERT_FALSE(raw.open("lo"));
        int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        socklen_t length = sizeof address;
        ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
        ASSERT_EQ(8, sendto(fd, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&address), sizeof address));
        std::string frame;
        do {
            frame = readFrame(raw);
        } while (!frame.empty() && frame.find("datagram") == std::string::npos);
        ASSERT_EQ(14U + 20U + 8U + 8U, frame.size()) << "Ethernet, IP, UDP and the text";
        EXPECT_EQ(std::string("\x08\0", 2), frame.substr(12, 2));
        close(fd);
        EXPECT_FALSE(raw.close());
    });
}

TEST(RawSocketFrames, goToTheOtherEnd) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket left(true, 0, 0);
        RawSocket right(true, 0, 0);
        ASSERT_FALSE(left.open("left"));
        ASSERT_FALSE(right.open("right"));
        EXPECT_TRUE(writes(left, makeFrame("question")));
        EXPECT_FALSE(left.hadError());
        EXPECT_EQ("question", readText(right));
        EXPECT_TRUE(writes(right, makeFrame("answer")));
        EXPECT_EQ("answer", readText(left)) << "nobody sees what he sends himself";
        EXPECT_TRUE(chainIs({}));
        EXPECT_FALSE(left.close());
        EXPECT_FALSE(right.close());
    });
}

TEST(RawSocketFrames, areCollectedInTheBufferUntilAFlush) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket left(true, 0, 2000);
        RawSocket right(true, 2000, 0);
        ASSERT_FALSE(left.open("left"));
        ASSERT_FALSE(right.open("right"));
        std::string const frame = makeFrame("in pieces");
        EXPECT_TRUE(writes(left, frame.substr(0, 10)));
        EXPECT_TRUE(writes(left, frame.substr(10)));
        EXPECT_FALSE(left.flush(false));
        std::string got;
        while (got.find("in pieces") == std::string::npos) {
            char piece[14];
            unsigned int count = 0;
            ASSERT_EQ(1, right.read(piece, sizeof piece, count));
            got.append(piece, count);
        }
        EXPECT_FALSE(left.close());
        EXPECT_FALSE(right.close());
    });
}

TEST(RawSocketFrames, areCutToTheRoomThatIsThere) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        sendFrom("left", makeFrame("long " + std::string(500, 'x')));
        sendFrom("left", makeFrame("short"));
        std::string got;
        do {
            char block[19];
            unsigned int count = 0;
            ASSERT_EQ(1, socket.read(block, sizeof block, count));
            got.assign(block, count);
        } while (!isOurs(got));
        EXPECT_EQ("long ", got.substr(14));
        EXPECT_EQ("short", readText(socket)) << "the rest of the long one is gone";
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, thatAreTooLongAreRefused) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("left"));
        std::string const frame = makeFrame(std::string(2000, 'x'));
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count));
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(trafficFailureIs(EMSGSIZE, Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, 1));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(writes(socket, makeFrame("short")));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, withoutAHeaderAreRefused) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("left"));
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.write("tiny", 4, count));
        EXPECT_TRUE(trafficFailureIs(EINVAL, SysError, SysErrorId::UNCLASSIFIED, 4));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketFrames, needADeviceToGoTo) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open(nullptr));
        std::string const frame = makeFrame("to nowhere");
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count));
        EXPECT_TRUE(trafficFailureIs(ENXIO, SysError, SysErrorId::UNCLASSIFIED, 4));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketDevices, thatGoDownFailTheNextReadAndGoOnWhenTheyAreUpAgain) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        ASSERT_TRUE(support::setDown("right"));
        char block[100];
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.read(block, sizeof block, count));
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(trafficFailureIs(ENETDOWN, SysError, SysErrorId::UNCLASSIFIED, 4));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(socket.isValid());

        std::string const frame = makeFrame("in vain");
        EXPECT_EQ(-1, socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count));
        EXPECT_TRUE(trafficFailureIs(ENETDOWN, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, 0));

        ASSERT_TRUE(support::setUp("right"));
        waitForCable("left", "right");
        sendFrom("left", makeFrame("up again"));
        EXPECT_EQ("up again", readText(socket));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketDevices, thatAreRemovedFailReadAndWrite) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket socket(true, 0, 0);
        ASSERT_FALSE(socket.open("right"));
        ASSERT_TRUE(support::removeInterface("right"));
        char block[100];
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.read(block, sizeof block, count));
        EXPECT_TRUE(trafficFailureIs(ENETDOWN, SysError, SysErrorId::UNCLASSIFIED, 4));
        std::string const frame = makeFrame("to nowhere");
        EXPECT_EQ(-1, socket.write(frame.data(), static_cast<unsigned int>(frame.size()), count));
        EXPECT_TRUE(trafficFailureIs(ENXIO, SysError, SysErrorId::UNCLASSIFIED, 4));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketDevices, thatAreDownCanBeOpened) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(support::makePair("left", "right"));
        RawSocket socket(true, 0, 0);
        EXPECT_FALSE(socket.open("right"));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        char block[100];
        unsigned int count = 99;
        EXPECT_EQ(-1, socket.read(block, sizeof block, count));
        EXPECT_TRUE(trafficFailureIs(ENETDOWN, SysError, SysErrorId::UNCLASSIFIED, 4));
        EXPECT_FALSE(socket.close());
    });
}

TEST(RawSocketDevices, mayHaveFifteenLettersAndLongerNamesAreCutToThem) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(support::makeInterface("fifteen-letters"));
        for (char const* const name :
             {"fifteen-letters", "fifteen-letters!", "fifteen-letters-and-more-than-forty-in-all"}) {
            RawSocket socket(true, 0, 0);
            EXPECT_FALSE(socket.open(name)) << name;
            EXPECT_TRUE(chainIs({}));
            EXPECT_EQ(Socket::OPEN, socket.getState());
            sockaddr_ll address{};
            socklen_t length = sizeof address;
            EXPECT_EQ(0, getsockname(socket.getSocketFd(), reinterpret_cast<sockaddr*>(&address), &length));
            EXPECT_EQ(static_cast<int>(if_nametoindex("fifteen-letters")), address.sll_ifindex);
            EXPECT_EQ(htons(ETH_P_ALL), address.sll_protocol);
            EXPECT_FALSE(socket.close());
        }
        RawSocket other(true, 0, 0);
        EXPECT_TRUE(other.open("fifteen-letter")) << "a shorter name is another one";
        EXPECT_TRUE(failureIs(ENODEV, 16));
    });
}

TEST(RawSocketDevices, canBeWatchedBySeveralSockets) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectWithCables([] {
        RawSocket first(true, 0, 0);
        RawSocket second(true, 0, 0);
        RawSocket all(true, 0, 0);
        ASSERT_FALSE(first.open("right"));
        ASSERT_FALSE(second.open("right"));
        ASSERT_FALSE(all.open(nullptr));
        sendFrom("left", makeFrame("to all"));
        for (RawSocket* const socket : {&first, &second, &all}) {
            EXPECT_EQ("to all", readText(*socket));
            EXPECT_FALSE(socket->close());
        }
    });
}

} // namespace
