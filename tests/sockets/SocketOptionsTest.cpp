#include "SocketRows.h"
#include "TestSocket.h"
#include "support/InjectNoting.h"

#include <climits>

namespace {

/// The arguments of the last call.
struct OptionCall {
    int fd;
    int level;
    int option;
    int value;
    socklen_t length;
};
OptionCall s_call;
// The answer that replaces that of getsockopt while `s_pretend` is set.
bool s_pretend = false;
int s_value = 0;
socklen_t s_length = sizeof(int);

} // namespace

VESK_INJECT_NOTING(
    int, -1, setsockopt, (int fd, int level, int option, void const* value, socklen_t length) noexcept,
    (fd, level, option, value, length), s_call = {fd, level, option, *static_cast<int const*>(value), length})

support::Injected inject_getsockopt("getsockopt");
extern "C" VESK_UNWATCHED int
getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    s_call = {fd, level, option, 0, *length};
    int error = 0;
    if (inject_getsockopt.fails(error)) {
        errno = error;
        return -1;
    }
    if (s_pretend) {
        memcpy(value, &s_value, sizeof s_value);
        *length = s_length;
        return 0;
    }
    return reinterpret_cast<decltype(&getsockopt)>(inject_getsockopt.getReal())(
        fd, level, option, value, length);
}

namespace {

using namespace support;
using vesk::Socket;

/// A buffer's operations.
struct Buffer {
    char const* getter;
    int option;
    bool (Socket::*set)(unsigned int);
    unsigned int (Socket::*get)() const;
};

constexpr Buffer BUFFERS[] = {
    {"getSendBuffer", SO_SNDBUF, &Socket::setSendBuffer, &Socket::getSendBuffer},
    {"getRecvBuffer", SO_RCVBUF, &Socket::setRecvBuffer, &Socket::getRecvBuffer},
};

/// Checks that the last call was for the buffer of a socket and for an int.
void expectCall(TestSocket const& socket, Buffer const& buffer) {
    EXPECT_EQ(socket.getSocketFd(), s_call.fd);
    EXPECT_EQ(SOL_SOCKET, s_call.level);
    EXPECT_EQ(buffer.option, s_call.option);
    EXPECT_EQ(sizeof(int), s_call.length);
}

/// Checks that an operation on each buffer reports a failure once, keeps the state and succeeds afterwards.
template <typename Operation>
void expectFailure(Injected& call, ErrnoRow const& row, Operation const& succeeds) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
        Fault const fault(call, row.error);
        EXPECT_FALSE(succeeds(socket, buffer));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(row.reports));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(socket.isValid());

        EXPECT_TRUE(succeeds(socket, buffer));
        EXPECT_FALSE(socket.hadError());
    }
}

VESK_TEST_ROWS(SocketOptionSet, failureIsReportedAndKeepsTheState, setOptionRows()) {
    expectFailure(inject_setsockopt, GetParam(), [](TestSocket& socket, Buffer const& buffer) {
        return !(socket.*buffer.set)(16384);
    });
}

VESK_TEST_ROWS(SocketOptionGet, failureIsReportedAndKeepsTheState, getOptionRows()) {
    expectFailure(inject_getsockopt, GetParam(), [](TestSocket& socket, Buffer const& buffer) {
        return (socket.*buffer.get)() != 0;
    });
}

TEST(SocketOptions, sizeIsSetAsAnInt) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
        socket.setHadError();
        EXPECT_FALSE((socket.*buffer.set)(12345));
        EXPECT_FALSE(socket.hadError());
        expectCall(socket, buffer);
        EXPECT_EQ(12345, s_call.value);
        (socket.*buffer.set)(UINT_MAX);
        EXPECT_EQ(-1, s_call.value);
    }
}

TEST(SocketOptions, sizeThatWasSetIsReturnedAlsoOfAnInactiveSocket) {
    for (bool const tcp : {false, true}) {
        for (Buffer const& buffer : BUFFERS) {
            ConnectedSocket socket(tcp ? makeTcpEnds() : makeEnds());
            EXPECT_FALSE((socket.*buffer.set)(20000));
            socket.setHadError();
            EXPECT_EQ(20000U, (socket.*buffer.get)());
            EXPECT_FALSE(socket.hadError());
            expectCall(socket, buffer);
        }
    }
    TestSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), Socket::INACTIVE);
    EXPECT_FALSE(socket.setRecvBuffer(20000));
    EXPECT_EQ(20000U, socket.getRecvBuffer());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(SocketOptions, sizeBeyondTheSystemsLimitsIsReturnedAsGranted) {
    for (Buffer const& buffer : BUFFERS) {
        ConnectedSocket socket;
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

TEST(SocketOptions, halfOfTheSystemsSizeIsTakenAsASignedNumberAndAnotherLengthFailsAnAssertion) {
    ConnectedSocket socket;
    s_pretend = true;
    for (auto const& [value, half] : {std::pair(7, 3U), std::pair(1, 0U), std::pair(-7, 0U - 3U)}) {
        s_value = value;
        EXPECT_EQ(half, socket.getSendBuffer());
        EXPECT_EQ(half, socket.getRecvBuffer());
    }
    s_value = 4000;
    for (Buffer const& buffer : BUFFERS) {
        std::string const assertion = std::string("ASSERT framework/src/vesk/posix/Socket ") + buffer.getter +
            ": retsize == sizeof(int)";
        for (socklen_t const length : {0U, 2U, 3U, 5U, 8U, 4U}) {
            EventRecorder const events;
            s_length = length;
            EXPECT_EQ(2000U, (socket.*buffer.get)()) << "the function continues";
            EXPECT_EQ(length == sizeof(int) ? "" : assertion, events.getText());
        }
    }
    s_pretend = false;
    EXPECT_FALSE(socket.hadError());
}

TEST(SocketOptions, withoutADescriptorNoCallIsMadeAndADescriptorThatIsNoSocketFails) {
    TestSocket socket;
    for (auto const state : {Socket::INACTIVE, Socket::DEAD}) {
        socket.set(-1, state);
        for (Buffer const& buffer : BUFFERS) {
            Fault const set(inject_setsockopt, 0);
            Fault const get(inject_getsockopt, 0);
            errno = EXDEV;
            EXPECT_TRUE((socket.*buffer.set)(16384));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, EXDEV));
            errno = EXDEV;
            EXPECT_EQ(0U, (socket.*buffer.get)());
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, EXDEV));
            EXPECT_EQ(0, set.getCalls() + get.getCalls());
        }
    }
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    {
        TestSocket pipe_end(ends[0]);
        EXPECT_TRUE(pipe_end.setSendBuffer(16384));
        EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, ENOTSOCK));
        EXPECT_EQ(0U, pipe_end.getRecvBuffer());
        EXPECT_TRUE(causeIs(SocketErrorId::INVALID_SOCKET, ENOTSOCK));
    }
    close(ends[1]);
}

} // namespace
