#include "SocketRows.h"
#include "TestSocket.h"
#include "support/calls/UDPCalls.h"

#include <climits>

namespace {

using namespace support;
using vesk::Socket;

/// A buffer's operations.
struct Buffer {
    char const* name;
    char const* getter;
    int option;
    bool (Socket::*set)(unsigned int);
    unsigned int (Socket::*get)() const;
};

constexpr Buffer BUFFERS[] = {
    {"SO_SNDBUF", "getSendBuffer", SO_SNDBUF, &Socket::setSendBuffer, &Socket::getSendBuffer},
    {"SO_RCVBUF", "getRecvBuffer", SO_RCVBUF, &Socket::setRecvBuffer, &Socket::getRecvBuffer},
};

/// Returns a call as a `CallRecorder` shows it for the last socket.
std::string callOf(char const* function, Buffer const& buffer, char const* value) {
    return std::string(function) + "(s, " + buffer.name + ", " + value + ")\n";
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
        CallRecorder calls;
        CallRecorder::s_last_socket = socket.getSocketFd();
        EXPECT_FALSE((socket.*buffer.set)(0x12345));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(callOf("setsockopt", buffer, "45230100"), calls.getText());
        (socket.*buffer.set)(UINT_MAX);
        EXPECT_EQ(callOf("setsockopt", buffer, "ffffffff"), calls.getText());
    }
}

TEST(SocketOptions, sizeThatWasSetIsReturnedAlsoOfAnInactiveSocket) {
    for (bool const tcp : {false, true}) {
        for (Buffer const& buffer : BUFFERS) {
            ConnectedSocket socket(tcp ? makeTcpEnds() : makeEnds());
            EXPECT_FALSE((socket.*buffer.set)(20000));
            socket.setHadError();
            CallRecorder calls;
            CallRecorder::s_last_socket = socket.getSocketFd();
            EXPECT_EQ(20000U, (socket.*buffer.get)());
            EXPECT_FALSE(socket.hadError());
            EXPECT_EQ(callOf("getsockopt", buffer, "4"), calls.getText());
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
            int const granted = getOption(socket.getSocketFd(), SOL_SOCKET, buffer.option);
            EXPECT_EQ(static_cast<unsigned int>(granted / 2), (socket.*buffer.get)());
            EXPECT_NE(size, (socket.*buffer.get)());
        }
    }
}

TEST(SocketOptions, halfOfTheSystemsSizeIsTakenAsASignedNumberAndAnotherLengthFailsAnAssertion) {
    ConnectedSocket socket;
    for (auto const& [value, half] : {std::pair(7, 3U), std::pair(1, 0U), std::pair(-7, 0U - 3U)}) {
        PretendedOption const option(value, sizeof(int));
        EXPECT_EQ(half, socket.getSendBuffer());
        EXPECT_EQ(half, socket.getRecvBuffer());
    }
    for (Buffer const& buffer : BUFFERS) {
        std::string const assertion = std::string("ASSERT framework/src/vesk/posix/Socket ") + buffer.getter +
            ": retsize == sizeof(int)";
        for (socklen_t const length : {0U, 2U, 3U, 5U, 8U, 4U}) {
            EventRecorder const events;
            PretendedOption const option(4000, length);
            EXPECT_EQ(2000U, (socket.*buffer.get)()) << "the function continues";
            EXPECT_EQ(length == sizeof(int) ? "" : assertion, events.getText());
        }
    }
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
