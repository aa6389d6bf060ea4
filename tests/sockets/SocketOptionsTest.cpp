#include "TestSocket.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ostream>
#include <string>
#include <sys/socket.h>

namespace {
/// One call, as it was made.
struct Call {
    int fd = -1;
    int level = -1;
    int option = -1;
    int value = 0;
    socklen_t length = 0;
};
Call s_set;
Call s_get;
// What the system is to answer instead of what it does.
bool s_pretend = false;
int s_value = 0;
socklen_t s_length = sizeof(int);
} // namespace

support::Injected inject_setsockopt("setsockopt");
extern "C" VESK_UNWATCHED int
setsockopt(int fd, int level, int option, void const* value, socklen_t length) noexcept {
    int error = 0;
    if (inject_setsockopt.fails(error)) {
        errno = error;
        return -1;
    }
    s_set = {fd, level, option, 0, length};
    memcpy(&s_set.value, value, sizeof s_set.value);
    return reinterpret_cast<int (*)(int, int, int, void const*, socklen_t)>(inject_setsockopt.getReal())(
        fd, level, option, value, length);
}

support::Injected inject_getsockopt("getsockopt");
extern "C" VESK_UNWATCHED int
getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    int error = 0;
    if (inject_getsockopt.fails(error)) {
        errno = error;
        return -1;
    }
    s_get = {fd, level, option, 0, *length};
    if (s_pretend) {
        memcpy(value, &s_value, sizeof s_value);
        *length = s_length;
        return 0;
    }
    return reinterpret_cast<int (*)(int, int, int, void*, socklen_t*)>(inject_getsockopt.getReal())(
        fd, level, option, value, length);
}

namespace {

using support::chainIs;
using support::Ends;
using support::EventRecorder;
using support::Fault;
using support::makeEnds;
using support::makeTcpEnds;
using support::rowText;
using support::systemText;
using support::TestSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// Both operations on one buffer.
struct Buffer {
    char const* name;
    int option;
    bool (Socket::*set)(unsigned int);
    unsigned int (Socket::*get)() const;
};

constexpr Buffer SEND = {"getSendBuffer", SO_SNDBUF, &Socket::setSendBuffer, &Socket::getSendBuffer};
constexpr Buffer RECEIVE = {"getRecvBuffer", SO_RCVBUF, &Socket::setRecvBuffer, &Socket::getRecvBuffer};

struct Row {
    int error;
    std::ErrorType const& family;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class SocketOptionSet : public testing::TestWithParam<Row> {};

TEST_P(SocketOptionSet, failureIsReportedAndKeepsTheState) {
    Row const& row = GetParam();
    for (Buffer const& buffer : {SEND, RECEIVE}) {
        Ends ends = makeEnds();
        TestSocket socket(ends.takeMine());
        Fault const fault(inject_setsockopt, row.error);
        EXPECT_TRUE((socket.*buffer.set)(16384));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{row.family, row.id, rowText(row.family, row.id, systemText(row.error))}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(socket.isValid());

        EXPECT_FALSE((socket.*buffer.set)(16384));
        EXPECT_FALSE(socket.hadError());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, SocketOptionSet,
    testing::Values(
        Row{EBADF, Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{ENOTSOCK, Socket::Error, Socket::ErrorId::INVALID_SOCKET}, //
        Row{EFAULT, SysError, SysErrorId::INVALID_PATH}, Row{EINVAL, SysError, SysErrorId::INVALID_PATH},
        Row{EDOM, SysError, SysErrorId::INVALID_PATH}, Row{EISCONN, SysError, SysErrorId::INVALID_PATH}, //
        Row{ENOPROTOOPT, Socket::Error, Socket::ErrorId::UNKNOWN_OPTION},                                //
        Row{ENOMEM, SysError, SysErrorId::UNCLASSIFIED}, Row{ENOBUFS, SysError, SysErrorId::UNCLASSIFIED},
        Row{EACCES, SysError, SysErrorId::UNCLASSIFIED}, Row{EPERM, SysError, SysErrorId::UNCLASSIFIED},
        Row{EINTR, SysError, SysErrorId::UNCLASSIFIED}));

class SocketOptionGet : public testing::TestWithParam<Row> {};

TEST_P(SocketOptionGet, failureIsReportedAndKeepsTheState) {
    Row const& row = GetParam();
    for (Buffer const& buffer : {SEND, RECEIVE}) {
        Ends ends = makeEnds();
        TestSocket socket(ends.takeMine());
        Fault const fault(inject_getsockopt, row.error);
        EXPECT_EQ(0U, (socket.*buffer.get)());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{row.family, row.id, rowText(row.family, row.id, systemText(row.error))}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(socket.isValid());

        EXPECT_NE(0U, (socket.*buffer.get)());
        EXPECT_FALSE(socket.hadError());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, SocketOptionGet,
    testing::Values(
        Row{EBADF, Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{EINVAL, Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{ENOTSOCK, Socket::Error, Socket::ErrorId::INVALID_SOCKET},    //
        Row{EACCES, SysError, SysErrorId::PERMISSION_DENIED},             //
        Row{ENOPROTOOPT, Socket::Error, Socket::ErrorId::UNKNOWN_OPTION}, //
        Row{ENOBUFS, SysError, SysErrorId::OUT_OF_MEMORY},                //
        Row{EFAULT, SysError, SysErrorId::UNCLASSIFIED}, Row{ENOMEM, SysError, SysErrorId::UNCLASSIFIED},
        Row{EPERM, SysError, SysErrorId::UNCLASSIFIED}, Row{EINTR, SysError, SysErrorId::UNCLASSIFIED}));

TEST(SocketOptions, anIntIsSetOnTheDescriptor) {
    for (Buffer const& buffer : {SEND, RECEIVE}) {
        Ends ends = makeEnds();
        TestSocket socket(ends.takeMine());
        socket.setHadError();
        EXPECT_FALSE((socket.*buffer.set)(12345));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(socket.getSocketFd(), s_set.fd);
        EXPECT_EQ(SOL_SOCKET, s_set.level);
        EXPECT_EQ(buffer.option, s_set.option);
        EXPECT_EQ(12345, s_set.value);
        EXPECT_EQ(sizeof(int), s_set.length);
        (socket.*buffer.set)(UINT_MAX);
        EXPECT_EQ(-1, s_set.value);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(SocketOptions, sizeThatWasSetIsTheSizeThatIsTold) {
    for (bool const tcp : {false, true}) {
        for (Buffer const& buffer : {SEND, RECEIVE}) {
            Ends ends = tcp ? makeTcpEnds() : makeEnds();
            TestSocket socket(ends.takeMine());
            EXPECT_FALSE((socket.*buffer.set)(20000));
            socket.setHadError();
            EXPECT_EQ(20000U, (socket.*buffer.get)());
            EXPECT_FALSE(socket.hadError());
            EXPECT_EQ(socket.getSocketFd(), s_get.fd);
            EXPECT_EQ(SOL_SOCKET, s_get.level);
            EXPECT_EQ(buffer.option, s_get.option);
            EXPECT_EQ(sizeof(int), s_get.length);
        }
    }
}

TEST(SocketOptions, sizeBeyondTheSystemsBoundsIsToldAsItWasGranted) {
    for (Buffer const& buffer : {SEND, RECEIVE}) {
        Ends ends = makeEnds();
        TestSocket socket(ends.takeMine());
        for (unsigned int const size : {1U, static_cast<unsigned int>(INT_MAX)}) {
            EXPECT_FALSE((socket.*buffer.set)(size));
            int granted = 0;
            socklen_t length = sizeof granted;
            ASSERT_EQ(0, getsockopt(socket.getSocketFd(), SOL_SOCKET, buffer.option, &granted, &length));
            EXPECT_EQ(static_cast<unsigned int>(granted / 2), (socket.*buffer.get)());
            EXPECT_NE(size, (socket.*buffer.get)());
        }
    }
}

TEST(SocketOptions, halfIsThatOfASignedNumber) {
    Ends ends = makeEnds();
    TestSocket const socket(ends.takeMine());
    s_pretend = true;
    for (auto const& [value, half] : {std::pair(7, 3U), std::pair(1, 0U), std::pair(-7, 0U - 3U)}) {
        s_value = value;
        EXPECT_EQ(half, socket.getSendBuffer());
        EXPECT_EQ(half, socket.getRecvBuffer());
    }
    s_pretend = false;
    EXPECT_FALSE(socket.hadError());
}

TEST(SocketOptions, anotherLengthThanThatOfAnIntBreaksAnInvariant) {
    Ends ends = makeEnds();
    TestSocket const socket(ends.takeMine());
    s_pretend = true;
    s_value = 4000;
    for (Buffer const& buffer : {SEND, RECEIVE}) {
        for (socklen_t const length : {0U, 2U, 3U, 5U, 8U}) {
            EventRecorder const events;
            s_length = length;
            EXPECT_EQ(2000U, (socket.*buffer.get)()) << "the assertion returned";
            EXPECT_EQ(
                std::string("ASSERT framework/src/vesk/posix/Socket ") + buffer.name +
                    ": retsize == sizeof(int)",
                events.getText());
        }
        EventRecorder const events;
        s_length = sizeof(int);
        EXPECT_EQ(2000U, (socket.*buffer.get)());
        EXPECT_EQ("", events.getText());
    }
    s_pretend = false;
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(SocketOptions, withoutADescriptorNothingIsAsked) {
    TestSocket socket;
    for (auto const state : {Socket::INACTIVE, Socket::DEAD}) {
        socket.set(-1, state);
        for (Buffer const& buffer : {SEND, RECEIVE}) {
            Fault const set(inject_setsockopt, 0);
            Fault const get(inject_getsockopt, 0);
            errno = EXDEV;
            EXPECT_TRUE((socket.*buffer.set)(16384));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(chainIs(
                {{Socket::ErrorId::INVALID_SOCKET,
                  rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EXDEV))}}));
            errno = EXDEV;
            EXPECT_EQ(0U, (socket.*buffer.get)());
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(chainIs(
                {{Socket::ErrorId::INVALID_SOCKET,
                  rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EXDEV))}}));
            EXPECT_EQ(0, set.getCalls() + get.getCalls());
        }
    }
}

TEST(SocketOptions, descriptorThatIsNoSocketIsRefused) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    {
        TestSocket socket(ends[0]);
        std::string const text = rowText(Socket::ErrorId::INVALID_SOCKET, systemText(ENOTSOCK));
        EXPECT_TRUE(socket.setSendBuffer(16384));
        EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET, text}}));
        EXPECT_EQ(0U, socket.getRecvBuffer());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET, text}}));
    }
    close(ends[1]);
}

TEST(SocketOptions, needNoOpenSocket) {
    TestSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), Socket::INACTIVE);
    EXPECT_FALSE(socket.setRecvBuffer(20000));
    EXPECT_EQ(20000U, socket.getRecvBuffer());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

} // namespace
