#include "SocketRows.h"
#include "TestSocket.h"

#include <chrono>
#include <sys/time.h>

/// Reading and writing of the base class of all sockets.

namespace {
// The arguments of the last call.
int s_fd = -1;
size_t s_size = 0;
int s_flags = -1;
// How many bytes more a call returns than it received.
ssize_t s_excess = 0;
} // namespace

VESK_INJECT_NOTING(
    ssize_t, -1, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags), s_fd = fd,
    s_size = size, s_flags = flags)

support::Injected inject_recv("recv");
extern "C" VESK_UNWATCHED ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    s_fd = fd;
    s_flags = flags;
    if (inject_recv.fails()) {
        return -1;
    }
    ssize_t const count = reinterpret_cast<decltype(&recv)>(inject_recv.getReal())(fd, buffer, size, flags);
    return count > 0 ? count + s_excess : count;
}

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
using vesk::Socket;

constexpr unsigned int UNTOUCHED = 99;
constexpr std::chrono::milliseconds SHORT_WAIT{50};

/// Reading or writing. Both transfer the bytes "ab" or fewer of them.
struct Direction : NamedRow {
    Injected& call;
    char const* misuse;
    bool (*perform)(TestSocket& socket, unsigned int size, unsigned int& count);
    int (*transfer)(TestSocket& socket, unsigned int size, unsigned int& count);
};

char s_block[] = "..";

Direction const READ{
    "read", inject_recv, "called read on non-OPEN socket",
    [](TestSocket& socket, unsigned int size, unsigned int& count) {
        return socket.performRead(size != 0 ? s_block : nullptr, size, count);
    },
    [](TestSocket& socket, unsigned int size, unsigned int& count) {
        return socket.read(size != 0 ? s_block : nullptr, size, count);
    }};
Direction const WRITE{
    "write", inject_send, "called write on non-OPEN socket",
    [](TestSocket& socket, unsigned int size, unsigned int& count) {
        return socket.performWrite(size != 0 ? "ab" : nullptr, size, count);
    },
    [](TestSocket& socket, unsigned int size, unsigned int& count) {
        return socket.write(size != 0 ? "ab" : nullptr, size, count);
    }};

/// Checks that "ab" was read from the peer, which has sent it, or has arrived there.
void expectTransferred(Direction const& direction, Ends const& ends) {
    EXPECT_EQ("ab", &direction.call == &inject_recv ? std::string(s_block) : ends.receive(16));
    strcpy(s_block, "..");
}

/// Checks that a failed transfer transfers nothing, is reported and keeps the state of the socket.
void expectFailure(Direction const& direction, ErrnoRow const& row) {
    ConnectedSocket socket;
    socket.ends.send("ab");
    int const fd = socket.getSocketFd();
    unsigned int count = UNTOUCHED;
    Fault const fault(direction.call, row.error, 1, 2);
    EXPECT_TRUE(direction.perform(socket, 2, count));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(failed(socket, Socket::OPEN, row));
    EXPECT_EQ(0U, count);
    EXPECT_EQ(fd, socket.getSocketFd());
    EXPECT_EQ(-1, direction.transfer(socket, 2, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs(row.reports));

    EXPECT_FALSE(direction.perform(socket, 2, count)) << "the next transfer can succeed";
    EXPECT_EQ(2U, count);
    EXPECT_FALSE(socket.hadError());
    expectTransferred(direction, socket.ends);
}

VESK_TEST_ROWS(
    SocketReadRow, isReportedBelowTheStreamsErrorAndKeepsTheState,
    errnoRows({
        {{ECONNRESET}, {SocketErrorId::CONNECTION_RESET, StreamErrorId::UNUSABLE}},
        {{EINVAL}, {SocketErrorId::INVALID_SOCKET, StreamErrorId::UNUSABLE}},
        {{EIO, EBADF, ENOTSOCK, EOPNOTSUPP}, {SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE}},
        {{ENOTCONN, ECONNREFUSED}, {SocketErrorId::PEER_UNREACHABLE, StreamErrorId::UNUSABLE}},
        {{ETIMEDOUT}, {SocketErrorId::COMMUNICATION_FAILED, StreamErrorId::TRANSFER_FAILED}},
        {{ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED}},
        {{ENOMEM}, {SysErrorId::OUT_OF_MEMORY, StreamErrorId::TRANSFER_FAILED}},
        {{EFAULT, EPIPE, EPERM, EHOSTUNREACH, EMSGSIZE, ENODEV},
         {SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED}},
    })) {
    expectFailure(READ, GetParam());
}

VESK_TEST_ROWS(SocketWriteRow, isReportedBelowTheStreamsErrorAndKeepsTheState, sendRows()) {
    expectFailure(WRITE, GetParam());
}

// ---- both directions ----

auto const DIRECTIONS = testing::Values(READ, WRITE);

class SocketTransferState : public testing::TestWithParam<std::tuple<Direction, Socket::State>> {};

TEST_P(SocketTransferState, otherThanOpenTransfersNothingAndLeavesTheCount) {
    auto const& [direction, state] = GetParam();
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    ends.send("ab");
    TestSocket socket(ends.takeMine(), state);
    unsigned int count = UNTOUCHED;
    Calls const calls(direction.call, 0);
    EXPECT_TRUE(direction.perform(socket, 2, count));
    EXPECT_EQ(UNTOUCHED, count);
    EXPECT_STREQ("..", s_block);
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(direction.misuse, {CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
    EXPECT_EQ(-1, direction.transfer(socket, 2, count));
    EXPECT_TRUE(chainIs({CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
    EXPECT_EQ(state, socket.getState());
}

INSTANTIATE_TEST_SUITE_P(
    states, SocketTransferState,
    testing::Combine(DIRECTIONS, testing::Values(Socket::INACTIVE, Socket::DEAD)), [](auto const& row) {
        return std::string(std::get<0>(row.param).what) +
            (std::get<1>(row.param) == Socket::DEAD ? "Dead" : "Inactive");
    });

class SocketTransfer : public testing::TestWithParam<Direction> {};

TEST_P(SocketTransfer, isRepeatedWhileASignalInterruptsIt) {
    ConnectedSocket socket;
    socket.ends.send("ab");
    unsigned int count = UNTOUCHED;
    Fault const fault(GetParam().call, EINTR, 1, 5);
    EXPECT_FALSE(GetParam().perform(socket, 2, count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(6, fault.getCalls());
    EXPECT_FALSE(socket.hadError());
    expectTransferred(GetParam(), socket.ends);
}

TEST_P(SocketTransfer, ofNoBytesSucceedsWithoutACallAndTransfersNoDatagram) {
    for (int const type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
        for (unsigned int const buffer : {0U, 64U}) {
            ConnectedSocket socket(makeEnds(type), true, buffer, buffer);
            unsigned int count = UNTOUCHED;
            for (bool const is_waiting : {false, true}) {
                if (is_waiting) {
                    socket.ends.send("ab");
                }
                Calls const calls(GetParam().call, 0);
                socket.setHadError();
                EXPECT_FALSE(GetParam().perform(socket, 0, count));
                EXPECT_EQ(0U, count);
                EXPECT_FALSE(socket.hadError());
                count = UNTOUCHED;
                EXPECT_EQ(1, GetParam().transfer(socket, 0, count));
                EXPECT_EQ(0U, count);
            }
            EXPECT_EQ(1, GetParam().transfer(socket, 2, count));
            EXPECT_FALSE(socket.flush(false));
            expectTransferred(GetParam(), socket.ends);
        }
    }
}

TEST_P(SocketTransfer, failsAfterThePeerResetTheConnection) {
    ConnectedSocket socket(makeTcpEnds());
    socket.ends.resetByPeer();
    ASSERT_TRUE(awaitEvents(socket.getSocketFd(), POLLHUP));
    unsigned int count = UNTOUCHED;
    EXPECT_TRUE(GetParam().perform(socket, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs(ECONNRESET, {SocketErrorId::CONNECTION_RESET, StreamErrorId::UNUSABLE}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST_P(SocketTransfer, failsWithoutAConnectedSocket) {
    unsigned int count = UNTOUCHED;
    TestSocket without_descriptor(-1, Socket::OPEN);
    EXPECT_TRUE(GetParam().perform(without_descriptor, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs(EBADF, {SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE}));

    bool const reads = &GetParam().call == &inject_recv;
    TestSocket unconnected(socket(AF_INET, (reads ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(GetParam().perform(unconnected, 1, count));
    EXPECT_TRUE(
        reads ? chainIs(ENOTCONN, {SocketErrorId::PEER_UNREACHABLE, StreamErrorId::UNUSABLE})
              : chainIs(EDESTADDRREQ, {SocketErrorId::ADDRESS_INVALID, StreamErrorId::UNUSABLE}));
}

INSTANTIATE_TEST_SUITE_P(directions, SocketTransfer, DIRECTIONS, testing::PrintToStringParamName());

// ---- reading ----

/// Whether a `performRead` has failed, and the bytes.
using Received = std::pair<bool, std::string>;

Received performRead(TestSocket& socket, unsigned int size) {
    std::string block(size, '\0');
    unsigned int got = UNTOUCHED;
    bool const failed = socket.performRead(block.data(), size, got);
    block.resize(got);
    return {failed, block};
}

TEST(SocketRead, returnsTheReceivedBytesWithOneCallAndNoMoreThanRequested) {
    ConnectedSocket socket;
    socket.ends.send("hello");
    socket.setHadError();
    Fault const calls(inject_recv, 0);
    EXPECT_EQ(Received(false, "hello"), performRead(socket, 16));
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_EQ(socket.getSocketFd(), s_fd);
    EXPECT_EQ(0, s_flags);
    socket.ends.send("world");
    char block[] = "xyz";
    unsigned int got = UNTOUCHED;
    EXPECT_FALSE(socket.performRead(block, 2, got));
    EXPECT_EQ(2U, got);
    EXPECT_STREQ("woz", block);
    EXPECT_EQ(Received(false, "rld"), performRead(socket, 3));
}

TEST(SocketRead, succeedsWithoutBytesOnANonBlockingDescriptor) {
    ConnectedSocket socket(makeEnds(SOCK_STREAM | SOCK_NONBLOCK));
    socket.setHadError();
    EXPECT_EQ(Received(false, ""), performRead(socket, 1));
    EXPECT_FALSE(socket.hadError());
    char byte = 0;
    unsigned int got = UNTOUCHED;
    EXPECT_EQ(1, socket.read(&byte, 1, got));
    EXPECT_EQ(0U, got);
}

TEST(SocketRead, waitsAsItsDescriptorDoesEvenInANonBlockingStream) {
    ConnectedSocket socket(makeEnds(), false, 0, 0);
    timeval const limit{0, 50000};
    ASSERT_EQ(0, setsockopt(socket.getSocketFd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(Received(false, ""), performRead(socket, 1));
    EXPECT_LE(SHORT_WAIT, std::chrono::steady_clock::now() - start);
    ConnectedSocket waiting;
    std::thread peer([&waiting] { waiting.ends.send("x"); });
    EXPECT_EQ(Received(false, "x"), performRead(waiting, 1));
    peer.join();
}

void expectEnd(TestSocket& socket) {
    Reports const end = withText(
        {SocketErrorId::CONNECTION_CLOSED, StreamErrorId::END_OF_STREAM}, "Connection closed normally");
    EXPECT_EQ(Received(true, ""), performRead(socket, 4));
    EXPECT_TRUE(failed(socket, Socket::OPEN, end));
    EXPECT_TRUE(failsToRead(socket, end, 0));
}

TEST(SocketRead, reachesTheEndAfterThePeerClosedAndLeavesTheSocketOpen) {
    for (bool const tcp : {false, true}) {
        ConnectedSocket socket(tcp ? makeTcpEnds() : makeEnds());
        socket.ends.send("last");
        socket.ends.closePeer();
        EXPECT_EQ(Received(false, "last"), performRead(socket, 16));
        expectEnd(socket);
        expectEnd(socket);
    }
    ConnectedSocket half(makeTcpEnds());
    ASSERT_EQ(0, shutdown(half.ends.getPeer(), SHUT_WR));
    expectEnd(half);
    EXPECT_TRUE(isWritten(half, "still")) << "the other direction is usable";
    EXPECT_EQ("still", half.ends.receive(16));
}

TEST(SocketRead, bufferedStreamReturnsTheBytesBeforeTheEnd) {
    ConnectedSocket socket(makeEnds(), true, 64, 0);
    socket.ends.send("abc");
    socket.ends.closePeer();
    for (unsigned int const expected : {2U, 1U, 0U}) {
        char block[16];
        unsigned int got = UNTOUCHED;
        EXPECT_EQ(expected != 0 ? 1 : 0, socket.read(block, 2, got));
        EXPECT_EQ(expected, got);
    }
    EXPECT_TRUE(chainIs({SocketErrorId::CONNECTION_CLOSED, StreamErrorId::END_OF_STREAM}));
}

TEST(SocketRead, ofMoreBytesThanRequestedIsCutAndFailsWithoutTheErrorFlag) {
    ConnectedSocket socket;
    char block[4];
    unsigned int got = UNTOUCHED;
    s_excess = 1;
    Reports const too_big = {SocketErrorId::MESSAGE_TOO_BIG, StreamErrorId::TRANSFER_FAILED};
    for (unsigned int const size : {1U, 4U}) {
        socket.ends.send("abcd");
        socket.setHadError();
        errno = EXDEV;
        EXPECT_TRUE(socket.performRead(block, size, got));
        EXPECT_EQ(size, got);
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(chainIs(EXDEV, too_big));
        char rest[4];
        ::recv(socket.getSocketFd(), rest, sizeof rest, MSG_DONTWAIT);
    }
    socket.ends.send("ab");
    EXPECT_EQ(-1, socket.read(block, 2, got));
    EXPECT_EQ(2U, got);
    EXPECT_TRUE(chainIs(too_big));
    socket.ends.send("ab");
    EXPECT_FALSE(socket.performRead(block, 3, got)) << "as many bytes as requested";
    EXPECT_EQ(3U, got);
    s_excess = 0;
}

// ---- writing ----

/// Whether a `performWrite` has failed, and the number of bytes.
using Sent = std::pair<bool, unsigned int>;

Sent performWrite(TestSocket& socket, std::string const& bytes) {
    unsigned int put = UNTOUCHED;
    bool const failed = socket.performWrite(bytes.data(), static_cast<unsigned int>(bytes.size()), put);
    return {failed, put};
}

TEST(SocketWrite, sendsWithOneCallThatRaisesNoSignal) {
    ConnectedSocket socket;
    socket.setHadError();
    Calls const calls(inject_send, 1);
    EXPECT_EQ(Sent(false, 5), performWrite(socket, "hello"));
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(socket.getSocketFd(), s_fd);
    EXPECT_EQ(MSG_NOSIGNAL, s_flags);
    EXPECT_EQ("hello", socket.ends.receive(16));
}

TEST(SocketWrite, ofMoreThanThereIsRoomForIsShortAndThenSucceedsWithoutBytes) {
    ConnectedSocket socket(makeEnds(SOCK_STREAM | SOCK_NONBLOCK), false, 0, 0);
    std::string const much(16 << 20, 'x');
    unsigned int sent = 0;
    {
        Fault const calls(inject_send, 0);
        sent = performWrite(socket, much).second;
        EXPECT_EQ(1, calls.getCalls()) << "sending the rest is left to the caller";
        EXPECT_EQ(much.size(), s_size);
    }
    EXPECT_LT(0U, sent);
    EXPECT_GT(much.size(), sent);
    for (Sent next(false, 1); next.second != 0; sent += next.second) {
        next = performWrite(socket, much);
        ASSERT_FALSE(next.first);
    }
    socket.setHadError();
    EXPECT_EQ(Sent(false, 0), performWrite(socket, "x"));
    EXPECT_FALSE(socket.hadError());

    ConnectedSocket stream(makeEnds(SOCK_STREAM | SOCK_NONBLOCK), false, 0, 0);
    unsigned int put = 0;
    EXPECT_EQ(1, stream.write(much.data(), static_cast<unsigned int>(much.size()), put));
    EXPECT_LT(0U, put);
    EXPECT_GT(much.size(), put);
    EXPECT_EQ(1, stream.write("x", 1, put));
    EXPECT_EQ(0U, put);

    while (sent != 0) {
        size_t const count = socket.ends.receive(much.size()).size();
        ASSERT_LT(0U, count) << "every byte that was reported as sent arrives";
        sent -= static_cast<unsigned int>(count);
    }
}

/// Writes 4 MiB to a blocking stream while the peer receives them.
/// @param delay  what the peer waits before each block, in microseconds
void expectAllWritten(Ends ends, unsigned int delay, int most_calls) {
    TestSocket socket(ends.takeMine());
    std::vector<char> const much(4 << 20, 'x');
    size_t arrived = 0;
    std::thread peer([&] {
        ssize_t count = 1;
        while (arrived < much.size() && (count > 0 || (count < 0 && errno == EAGAIN))) {
            usleep(delay);
            char block[1 << 16];
            count = ::recv(ends.getPeer(), block, sizeof block, 0);
            arrived += count > 0 ? static_cast<size_t>(count) : 0;
        }
    });
    unsigned int written = 0;
    {
        Fault const calls(inject_send, 0);
        EXPECT_EQ(1, socket.write(much.data(), static_cast<unsigned int>(much.size()), written));
        EXPECT_GE(most_calls, calls.getCalls());
    }
    EXPECT_EQ(much.size(), written);
    EXPECT_FALSE(socket.hadError());
    peer.join();
    EXPECT_EQ(much.size(), arrived);
}

TEST(SocketWrite, blockingStreamContinuesUntilEveryByteIsSentWithoutSpinning) {
    expectAllWritten(makeTcpEnds(), 0, Fault::FOREVER);
    // The flag belongs to every holder of the descriptor: another holder may have set it.
    expectAllWritten(makeEnds(SOCK_STREAM | SOCK_NONBLOCK), 1000, 500);
}

TEST(SocketWrite, waitsAsItsDescriptorDoes) {
    ConnectedSocket socket;
    timeval const limit{0, 50000};
    ASSERT_EQ(0, setsockopt(socket.getSocketFd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit));
    std::string const much(1 << 20, 'x');
    while (performWrite(socket, much) == Sent(false, 1 << 20)) {}
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(Sent(false, 0), performWrite(socket, much));
    EXPECT_LE(SHORT_WAIT, std::chrono::steady_clock::now() - start);
}

class SocketWriteClosed : public testing::TestWithParam<bool> {};

TEST_P(SocketWriteClosed, connectionFailsTheWriteAndRaisesNoSignal) {
    expectInChild([tcp = GetParam()] {
        signal(SIGPIPE, SIG_DFL);
        ConnectedSocket socket(tcp ? makeTcpEnds() : makeEnds());
        socket.ends.closePeer();
        if (tcp) {
            // The first write detects it: the peer's system answers with a reset.
            EXPECT_EQ(Sent(false, 1), performWrite(socket, "x"));
            ASSERT_TRUE(awaitEvents(socket.getSocketFd(), POLLHUP));
        }
        EXPECT_EQ(Sent(true, 0), performWrite(socket, "x"));
        EXPECT_TRUE(failed(
            socket, Socket::OPEN, ErrnoRow(SocketErrorId::INVALID_SOCKET, EPIPE, {StreamErrorId::UNUSABLE})));
    });
}

INSTANTIATE_TEST_SUITE_P(peers, SocketWriteClosed, testing::Bool(), [](auto const& row) {
    return std::string(row.param ? "tcp" : "local");
});

TEST(SocketWrite, ofADatagramThatIsTooBigFails) {
    ConnectedSocket socket(makeEnds(SOCK_DGRAM));
    EXPECT_EQ(Sent(true, 0), performWrite(socket, std::string(64 << 20, 'x')));
    EXPECT_TRUE(chainIs(EMSGSIZE, {SocketErrorId::MESSAGE_TOO_BIG, StreamErrorId::TRANSFER_FAILED}));
}

} // namespace
