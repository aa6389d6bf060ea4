#include "TestSocket.h"
#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>

namespace {
// What the last call was given.
int s_fd = -1;
int s_flags = -1;
// What a call tells beyond what it received.
ssize_t s_excess = 0;
} // namespace

support::Injected inject_recv("recv");
extern "C" VESK_UNWATCHED ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    int error = 0;
    if (inject_recv.fails(error)) {
        errno = error;
        return -1;
    }
    s_fd = fd;
    s_flags = flags;
    ssize_t const count = reinterpret_cast<ssize_t (*)(int, void*, size_t, int)>(inject_recv.getReal())(
        fd, buffer, size, flags);
    return count > 0 ? count + s_excess : count;
}

namespace {

using support::chainIs;
using support::Ends;
using support::Fault;
using support::makeEnds;
using support::makeTcpEnds;
using support::rowText;
using support::systemText;
using support::TestSocket;
using Row = support::TransferRow;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
constexpr std::ErrorType const& StreamError = std::IBinStreamBase::StreamError;

class SocketReadRow : public testing::TestWithParam<Row> {};

TEST_P(SocketReadRow, isReportedBelowTheStreamsErrorAndKeepsTheState) {
    Row const& row = GetParam();
    Ends ends = makeEnds();
    ends.send("ab");
    TestSocket socket(ends.takeMine());
    int const fd = socket.getSocketFd();
    char block[4] = {};
    unsigned int got = 99;
    {
        Fault const fault(inject_recv, row.error);
        EXPECT_TRUE(socket.performRead(block, sizeof block, got));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs(
        {{row.family, row.id, rowText(row.family, row.id, systemText(row.error))},
         {StreamError, row.stream_id, rowText(StreamError, row.stream_id, "")}}));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(fd, socket.getSocketFd());
    {
        Fault const fault(inject_recv, row.error);
        EXPECT_EQ(-1, socket.read(block, sizeof block, got));
        EXPECT_EQ(0U, got);
    }
    EXPECT_TRUE(chainIs({{row.family, row.id}, {StreamError, row.stream_id}}));

    EXPECT_FALSE(socket.performRead(block, sizeof block, got)) << "the next one may succeed";
    EXPECT_EQ("ab", std::string(block, got));
    EXPECT_FALSE(socket.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SocketReadRow,
    testing::Values(
        Row{ECONNRESET, Socket::Error, Socket::ErrorId::CONNECTION_RESET, 0}, //
        Row{EINVAL, Socket::Error, Socket::ErrorId::INVALID_SOCKET, 0},       //
        Row{EIO, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{EBADF, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{ENOTSOCK, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{EOPNOTSUPP, SysError, SysErrorId::SPOILED_INTEGRITY, 0}, //
        Row{ENOTCONN, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, 0},
        Row{ECONNREFUSED, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, 0},  //
        Row{ETIMEDOUT, Socket::Error, Socket::ErrorId::COMMUNICATION_FAILED, 1}, //
        Row{ENOBUFS, SysError, SysErrorId::RESOURCES_EXHAUSTED, 1},              //
        Row{ENOMEM, SysError, SysErrorId::OUT_OF_MEMORY, 1},                     //
        Row{EFAULT, SysError, SysErrorId::UNCLASSIFIED, 4}, Row{EPIPE, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EPERM, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EHOSTUNREACH, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EMSGSIZE, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ENODEV, SysError, SysErrorId::UNCLASSIFIED, 4}));

class SocketReadState : public testing::TestWithParam<Socket::State> {};

TEST_P(SocketReadState, isNotOpenSoNothingIsReadAndTheCountStaysAsItWas) {
    Ends ends = makeEnds();
    ends.send("ab");
    TestSocket socket(ends.takeMine(), Socket::OPEN);
    int const fd = socket.getSocketFd();
    socket.set(fd, GetParam());
    char block[4] = "xyz";
    unsigned int got = 99;
    Fault const calls(inject_recv, 0);
    EXPECT_TRUE(socket.performRead(block, sizeof block, got));
    EXPECT_EQ(99U, got);
    EXPECT_STREQ("xyz", block);
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          rowText(std::CommonErrorId::CONTRACT_BROKEN, "called read on non-OPEN socket")},
         {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(-1, socket.read(block, sizeof block, got));
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(GetParam(), socket.getState());
}

INSTANTIATE_TEST_SUITE_P(states, SocketReadState, testing::Values(Socket::INACTIVE, Socket::DEAD));

TEST(SocketRead, givesWhatIsThereWithOneCall) {
    Ends ends = makeEnds();
    ends.send("hello");
    TestSocket socket(ends.takeMine());
    socket.setHadError();
    char block[16];
    unsigned int got = 99;
    Fault const calls(inject_recv, 0);
    EXPECT_FALSE(socket.performRead(block, sizeof block, got));
    EXPECT_EQ("hello", std::string(block, got));
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_EQ(socket.getSocketFd(), s_fd);
    EXPECT_EQ(0, s_flags);
    EXPECT_TRUE(chainIs({}));
}

TEST(SocketRead, takesNoMoreThanItIsAskedFor) {
    Ends ends = makeEnds();
    ends.send("hello");
    TestSocket socket(ends.takeMine());
    char block[4] = "xyz";
    unsigned int got = 99;
    EXPECT_FALSE(socket.performRead(block, 2, got));
    EXPECT_EQ(2U, got);
    EXPECT_STREQ("hez", block);
    EXPECT_FALSE(socket.performRead(block, 3, got));
    EXPECT_EQ("llo", std::string(block, got));
}

TEST(SocketRead, isRepeatedWhileASignalInterruptsIt) {
    Ends ends = makeEnds();
    ends.send("ab");
    TestSocket socket(ends.takeMine());
    char block[4];
    unsigned int got = 99;
    Fault const fault(inject_recv, EINTR, 1, 5);
    EXPECT_FALSE(socket.performRead(block, sizeof block, got));
    EXPECT_EQ(2U, got);
    EXPECT_EQ(6, fault.getCalls());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(SocketRead, findsNothingYetAndThatIsNoFailure) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(ends.takeMine());
    char byte = 0;
    unsigned int got = 99;
    socket.setHadError();
    EXPECT_FALSE(socket.performRead(&byte, 1, got));
    EXPECT_EQ(0U, got);
    EXPECT_FALSE(socket.hadError());
    got = 99;
    EXPECT_EQ(1, socket.read(&byte, 1, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(chainIs({}));
}

TEST(SocketRead, ofNothingSucceedsWithoutACallAndTakesNoDatagram) {
    for (int const type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
        for (unsigned int const buffer : {0U, 64U}) {
            Ends ends = makeEnds(type);
            TestSocket socket(true, buffer, 0);
            socket.set(ends.takeMine(), Socket::OPEN);
            for (char const* const waiting : {"abcd", ""}) {
                if (*waiting != '\0') {
                    ends.send(waiting);
                }
                Fault const calls(inject_recv, 0);
                unsigned int got = 99;
                socket.setHadError();
                EXPECT_FALSE(socket.performRead(nullptr, 0, got));
                EXPECT_EQ(0U, got);
                EXPECT_FALSE(socket.hadError());
                got = 99;
                EXPECT_EQ(1, socket.read(nullptr, 0, got));
                EXPECT_EQ(0U, got);
                EXPECT_EQ(0, calls.getCalls());
                EXPECT_TRUE(chainIs({}));
                if (*waiting != '\0') {
                    char block[64];
                    EXPECT_EQ(1, socket.read(block, sizeof block, got));
                    EXPECT_EQ(waiting, std::string(block, got));
                }
            }
        }
    }
}

TEST(SocketRead, waitsAsItsDescriptorDoesWhateverTheStreamSays) {
    Ends ends = makeEnds();
    timeval const limit{0, 50000};
    TestSocket socket(false, 0, 0);
    socket.set(ends.takeMine(), Socket::OPEN);
    ASSERT_EQ(0, setsockopt(socket.getSocketFd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit));
    char byte = 0;
    unsigned int got = 99;
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket.performRead(&byte, 1, got));
    EXPECT_LE(std::chrono::milliseconds(50), std::chrono::steady_clock::now() - start);
    EXPECT_EQ(0U, got);
}

TEST(SocketRead, waitsForThePeer) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    std::thread peer([&ends] { ends.send("x"); });
    char byte = 0;
    unsigned int got = 99;
    EXPECT_FALSE(socket.performRead(&byte, 1, got));
    EXPECT_EQ(1U, got);
    EXPECT_EQ('x', byte);
    peer.join();
}

void expectEnd(TestSocket& socket) {
    char block[4];
    unsigned int got = 99;
    EXPECT_TRUE(socket.performRead(block, sizeof block, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::CONNECTION_CLOSED,
          rowText(Socket::ErrorId::CONNECTION_CLOSED, "Connection closed normally")},
         {StreamError, std::IBinStreamBase::StreamErrorId::END_OF_STREAM,
          rowText(std::IBinStreamBase::StreamErrorId::END_OF_STREAM, "")}}));
    got = 99;
    EXPECT_EQ(0, socket.read(block, sizeof block, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(std::ErrorStorage::isA(StreamError));
    EXPECT_EQ(2, std::ErrorStorage::id());
    EXPECT_TRUE(
        chainIs({{Socket::ErrorId::CONNECTION_CLOSED}, {std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
}

TEST(SocketRead, ofAConnectionThatThePeerHasClosedIsTheEndAndLeavesItOpen) {
    for (bool const tcp : {false, true}) {
        Ends ends = tcp ? makeTcpEnds() : makeEnds();
        TestSocket socket(ends.takeMine());
        ends.send("last");
        ends.closePeer();
        char block[16];
        unsigned int got = 0;
        EXPECT_EQ(1, socket.read(block, sizeof block, got));
        EXPECT_EQ("last", std::string(block, got));
        expectEnd(socket);
        expectEnd(socket);
    }
}

TEST(SocketRead, endOfThePeersDirectionLeavesTheOtherOneInUse) {
    Ends ends = makeTcpEnds();
    TestSocket socket(ends.takeMine());
    ASSERT_EQ(0, shutdown(ends.getPeer(), SHUT_WR));
    expectEnd(socket);
    unsigned int put = 0;
    EXPECT_EQ(1, socket.write("still", 5, put));
    EXPECT_EQ("still", ends.receive(16));
}

TEST(SocketRead, bufferedStreamGivesWhatCameBeforeTheEnd) {
    Ends ends = makeEnds();
    TestSocket socket(true, 64, 0);
    socket.set(ends.takeMine(), Socket::OPEN);
    ends.send("abc");
    ends.closePeer();
    char block[16];
    unsigned int got = 0;
    EXPECT_EQ(1, socket.read(block, 2, got));
    EXPECT_EQ(2U, got);
    EXPECT_EQ(1, socket.read(block, 2, got));
    EXPECT_EQ(1U, got);
    EXPECT_EQ(0, socket.read(block, 2, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(
        chainIs({{Socket::ErrorId::CONNECTION_CLOSED}, {std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
}

TEST(SocketRead, ofAConnectionThatThePeerHasResetTellsSo) {
    Ends ends = makeTcpEnds();
    TestSocket socket(ends.takeMine());
    ends.resetByPeer();
    ASSERT_TRUE(support::waitFor(socket.getSocketFd(), POLLIN));
    char byte = 0;
    unsigned int got = 99;
    EXPECT_TRUE(socket.performRead(&byte, 1, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::CONNECTION_RESET,
          rowText(Socket::ErrorId::CONNECTION_RESET, systemText(ECONNRESET))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST(SocketRead, ofADescriptorThatIsNoConnectedSocketFails) {
    char byte = 0;
    unsigned int got = 99;
    TestSocket without_descriptor(-1, Socket::OPEN);
    EXPECT_TRUE(without_descriptor.performRead(&byte, 1, got));
    EXPECT_EQ(0U, got);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EBADF))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));

    TestSocket unconnected(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(unconnected.performRead(&byte, 1, got));
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::PEER_UNREACHABLE,
          rowText(Socket::ErrorId::PEER_UNREACHABLE, systemText(ENOTCONN))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
}

TEST(SocketRead, ofMoreThanThereIsRoomForIsCutToItAndFailsWithoutTheFlag) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    char block[4];
    unsigned int got = 99;
    s_excess = 1;
    for (unsigned int const size : {1U, 4U}) {
        ends.send("abcd");
        socket.setHadError();
        errno = EXDEV;
        EXPECT_TRUE(socket.performRead(block, size, got));
        EXPECT_EQ(size, got);
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::MESSAGE_TOO_BIG, rowText(Socket::ErrorId::MESSAGE_TOO_BIG, systemText(EXDEV))},
             {StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED,
              rowText(std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED, "")}}));
        s_excess = 1;
        char rest[4];
        ::recv(socket.getSocketFd(), rest, sizeof rest, MSG_DONTWAIT);
    }
    ends.send("ab");
    EXPECT_EQ(-1, socket.read(block, 2, got));
    EXPECT_EQ(2U, got);
    EXPECT_TRUE(
        chainIs({{Socket::ErrorId::MESSAGE_TOO_BIG}, {std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    ends.send("ab");
    EXPECT_FALSE(socket.performRead(block, 3, got)) << "as much as there is room for";
    EXPECT_EQ(3U, got);
    s_excess = 0;
}

} // namespace
