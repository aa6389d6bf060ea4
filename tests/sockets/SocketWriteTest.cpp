#include "TestSocket.h"
#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Privileges.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
// What the last call was given.
int s_fd = -1;
size_t s_size = 0;
int s_flags = -1;
} // namespace

support::Injected inject_send("send");
extern "C" VESK_UNWATCHED ssize_t send(int fd, void const* buffer, size_t size, int flags) {
    int error = 0;
    if (inject_send.fails(error)) {
        errno = error;
        return -1;
    }
    s_fd = fd;
    s_size = size;
    s_flags = flags;
    return reinterpret_cast<ssize_t (*)(int, void const*, size_t, int)>(inject_send.getReal())(
        fd, buffer, size, flags);
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

class SocketWriteRow : public testing::TestWithParam<Row> {};

TEST_P(SocketWriteRow, isReportedBelowTheStreamsErrorAndKeepsTheState) {
    Row const& row = GetParam();
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    int const fd = socket.getSocketFd();
    unsigned int put = 99;
    {
        Fault const fault(inject_send, row.error);
        EXPECT_TRUE(socket.performWrite("ab", 2, put));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs(
        {{row.family, row.id, rowText(row.family, row.id, systemText(row.error))},
         {StreamError, row.stream_id, rowText(StreamError, row.stream_id, "")}}));
    EXPECT_EQ(0U, put);
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(fd, socket.getSocketFd());
    {
        Fault const fault(inject_send, row.error);
        EXPECT_EQ(-1, socket.write("ab", 2, put));
        EXPECT_EQ(0U, put);
    }
    EXPECT_TRUE(chainIs({{row.family, row.id}, {StreamError, row.stream_id}}));

    EXPECT_FALSE(socket.performWrite("ab", 2, put)) << "the next one may succeed";
    EXPECT_EQ(2U, put);
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ("ab", ends.receive(16));
}

INSTANTIATE_TEST_SUITE_P(
    rows, SocketWriteRow,
    testing::Values(
        Row{EPERM, SysError, SysErrorId::PERMISSION_DENIED, 0},
        Row{EACCES, SysError, SysErrorId::PERMISSION_DENIED, 0}, //
        Row{EIO, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{EBADF, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{ENOTSOCK, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{EOPNOTSUPP, SysError, SysErrorId::SPOILED_INTEGRITY, 0},
        Row{ENOTCONN, SysError, SysErrorId::SPOILED_INTEGRITY, 0},             //
        Row{EPIPE, Socket::Error, Socket::ErrorId::INVALID_SOCKET, 0},         //
        Row{EDESTADDRREQ, Socket::Error, Socket::ErrorId::ADDRESS_INVALID, 0}, //
        Row{ENETDOWN, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, 0},
        Row{ENETUNREACH, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, 0}, //
        Row{ECONNRESET, Socket::Error, Socket::ErrorId::CONNECTION_RESET, 0},     //
        Row{EMSGSIZE, Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, 1},        //
        Row{ENOBUFS, SysError, SysErrorId::RESOURCES_EXHAUSTED, 1},               //
        Row{EFAULT, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ENOMEM, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EINVAL, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ETIMEDOUT, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ECONNREFUSED, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EHOSTUNREACH, SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EISCONN, SysError, SysErrorId::UNCLASSIFIED, 4}));

class SocketWriteState : public testing::TestWithParam<Socket::State> {};

TEST_P(SocketWriteState, isNotOpenSoNothingIsWrittenAndTheCountStaysAsItWas) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(ends.takeMine(), GetParam());
    unsigned int put = 99;
    Fault const calls(inject_send, 0);
    EXPECT_TRUE(socket.performWrite("ab", 2, put));
    EXPECT_EQ(99U, put);
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          rowText(std::CommonErrorId::CONTRACT_BROKEN, "called write on non-OPEN socket")},
         {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(-1, socket.write("ab", 2, put));
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(GetParam(), socket.getState());
}

INSTANTIATE_TEST_SUITE_P(states, SocketWriteState, testing::Values(Socket::INACTIVE, Socket::DEAD));

TEST(SocketWrite, sendsWithOneCallThatRaisesNoSignal) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    socket.setHadError();
    unsigned int put = 99;
    Fault const calls(inject_send, 0);
    EXPECT_FALSE(socket.performWrite("hello", 5, put));
    EXPECT_EQ(5U, put);
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_EQ(socket.getSocketFd(), s_fd);
    EXPECT_EQ(MSG_NOSIGNAL, s_flags);
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("hello", ends.receive(16));
}

TEST(SocketWrite, isRepeatedWhileASignalInterruptsIt) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    unsigned int put = 99;
    Fault const fault(inject_send, EINTR, 1, 5);
    EXPECT_FALSE(socket.performWrite("ab", 2, put));
    EXPECT_EQ(2U, put);
    EXPECT_EQ(6, fault.getCalls());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("ab", ends.receive(16));
}

TEST(SocketWrite, mayBeShortAndFindsNoRoomAtTheEndWhichIsNoFailure) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(false, 0, 0);
    socket.set(ends.takeMine(), Socket::OPEN);
    std::vector<char> const much(16 << 20, 'x');
    auto const size = static_cast<unsigned int>(much.size());
    unsigned int put = 0;
    unsigned int sent = 0;
    {
        Fault const calls(inject_send, 0);
        EXPECT_FALSE(socket.performWrite(much.data(), size, put));
        EXPECT_EQ(1, calls.getCalls()) << "the rest is the caller's business";
        EXPECT_EQ(much.size(), s_size);
    }
    EXPECT_LT(0U, put);
    EXPECT_GT(size, put);
    for (sent = put; put != 0; sent += put) {
        ASSERT_FALSE(socket.performWrite(much.data(), size, put));
    }
    put = 99;
    socket.setHadError();
    EXPECT_FALSE(socket.performWrite("x", 1, put));
    EXPECT_EQ(0U, put);
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));

    while (sent != 0) {
        size_t const count = ends.receive(much.size()).size();
        ASSERT_LT(0U, count) << "what was told as sent arrives";
        sent -= static_cast<unsigned int>(count);
    }
}

TEST(SocketWrite, streamThatDoesNotWaitTellsHowMuchWasTaken) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(false, 0, 0);
    socket.set(ends.takeMine(), Socket::OPEN);
    std::vector<char> const much(16 << 20, 'x');
    unsigned int written = 0;
    EXPECT_EQ(1, socket.write(much.data(), static_cast<unsigned int>(much.size()), written));
    EXPECT_LT(0U, written);
    EXPECT_GT(much.size(), written);
    EXPECT_EQ(1, socket.write("x", 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(chainIs({}));
}

// The flag belongs to all that have the descriptor open: another one of them may have set it.
TEST(SocketWrite, streamThatWaitsDoesNotSpinOnADescriptorThatDoesNot) {
    Ends ends = makeEnds(SOCK_STREAM | SOCK_NONBLOCK);
    TestSocket socket(ends.takeMine());
    std::vector<char> const much(4 << 20, 'x');
    size_t arrived = 0;
    std::thread peer([&] {
        while (arrived < much.size()) {
            usleep(1000); // Slower than the writer.
            char block[1 << 16];
            ssize_t const count = ::recv(ends.getPeer(), block, sizeof block, 0);
            arrived += count > 0 ? static_cast<size_t>(count) : 0;
        }
    });
    unsigned int written = 0;
    {
        Fault const calls(inject_send, 0);
        EXPECT_EQ(1, socket.write(much.data(), static_cast<unsigned int>(much.size()), written));
        EXPECT_GE(500, calls.getCalls());
    }
    EXPECT_EQ(much.size(), written);
    EXPECT_FALSE(socket.hadError());
    peer.join();
    EXPECT_TRUE(chainIs({}));
}

TEST(SocketWrite, ofNothingSucceedsWithoutACallAndSendsNoDatagram) {
    for (int const type : {SOCK_STREAM, SOCK_DGRAM, SOCK_SEQPACKET}) {
        for (unsigned int const buffer : {0U, 64U}) {
            Ends ends = makeEnds(type);
            TestSocket socket(true, 0, buffer);
            socket.set(ends.takeMine(), Socket::OPEN);
            unsigned int written = 99;
            {
                Fault const calls(inject_send, 0);
                socket.setHadError();
                EXPECT_FALSE(socket.performWrite(nullptr, 0, written));
                EXPECT_EQ(0U, written);
                EXPECT_FALSE(socket.hadError());
                written = 99;
                EXPECT_EQ(1, socket.write("", 0, written));
                EXPECT_EQ(0U, written);
                EXPECT_EQ(0, calls.getCalls());
            }
            EXPECT_EQ(1, socket.write("x", 1, written));
            EXPECT_FALSE(socket.flush(false));
            EXPECT_EQ("x", ends.receive(16));
            EXPECT_TRUE(chainIs({}));
        }
    }
}

TEST(SocketWrite, streamThatWaitsGoesOnUntilAllIsSent) {
    Ends ends = makeTcpEnds();
    TestSocket socket(ends.takeMine());
    std::string const much(4 << 20, 'x');
    std::string arrived;
    std::thread peer([&] {
        while (arrived.size() < much.size()) {
            std::string const piece = ends.receive(1 << 16);
            if (piece.empty()) {
                return;
            }
            arrived += piece;
        }
    });
    unsigned int written = 0;
    EXPECT_EQ(1, socket.write(much.data(), static_cast<unsigned int>(much.size()), written));
    EXPECT_EQ(much.size(), written);
    peer.join();
    EXPECT_EQ(much.size(), arrived.size());
}

TEST(SocketWrite, waitsAsItsDescriptorDoes) {
    Ends ends = makeEnds();
    TestSocket socket(ends.takeMine());
    timeval const limit{0, 50000};
    ASSERT_EQ(0, setsockopt(socket.getSocketFd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit));
    std::vector<char> const much(1 << 20, 'x');
    unsigned int put = 0;
    do {
        ASSERT_FALSE(socket.performWrite(much.data(), static_cast<unsigned int>(much.size()), put));
    } while (put == much.size());
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket.performWrite(much.data(), static_cast<unsigned int>(much.size()), put));
    EXPECT_LE(std::chrono::milliseconds(50), std::chrono::steady_clock::now() - start);
    EXPECT_EQ(0U, put);
}

TEST(SocketWrite, toAConnectionThatThePeerHasClosedFailsAndRaisesNoSignal) {
    support::expectInChild([] {
        signal(SIGPIPE, SIG_DFL);
        Ends ends = makeEnds();
        TestSocket socket(ends.takeMine());
        ends.closePeer();
        unsigned int put = 99;
        EXPECT_TRUE(socket.performWrite("x", 1, put));
        EXPECT_EQ(0U, put);
        EXPECT_TRUE(socket.hadError());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::INVALID_SOCKET, rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EPIPE))},
             {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    });
}

TEST(SocketWrite, overTcpToAPeerThatIsGoneFailsAndRaisesNoSignal) {
    support::expectInChild([] {
        signal(SIGPIPE, SIG_DFL);
        Ends ends = makeTcpEnds();
        TestSocket socket(ends.takeMine());
        ends.closePeer();
        unsigned int put = 0;
        // The first one finds out: the peer's system answers it with a reset.
        EXPECT_FALSE(socket.performWrite("x", 1, put));
        EXPECT_EQ(1U, put);
        ASSERT_TRUE(support::waitFor(socket.getSocketFd(), POLLHUP));
        EXPECT_TRUE(socket.performWrite("x", 1, put));
        EXPECT_EQ(0U, put);
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::INVALID_SOCKET, rowText(Socket::ErrorId::INVALID_SOCKET, systemText(EPIPE))},
             {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
    });
}

TEST(SocketWrite, toAConnectionThatThePeerHasResetTellsSo) {
    Ends ends = makeTcpEnds();
    TestSocket socket(ends.takeMine());
    ends.resetByPeer();
    ASSERT_TRUE(support::waitFor(socket.getSocketFd(), POLLHUP));
    unsigned int put = 99;
    EXPECT_TRUE(socket.performWrite("x", 1, put));
    EXPECT_EQ(0U, put);
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::CONNECTION_RESET,
          rowText(Socket::ErrorId::CONNECTION_RESET, systemText(ECONNRESET))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
}

TEST(SocketWrite, ofADatagramThatIsTooBigTellsSo) {
    Ends ends = makeEnds(SOCK_DGRAM);
    TestSocket socket(ends.takeMine());
    std::vector<char> const much(64 << 20, 'x');
    unsigned int put = 99;
    EXPECT_TRUE(socket.performWrite(much.data(), static_cast<unsigned int>(much.size()), put));
    EXPECT_EQ(0U, put);
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::MESSAGE_TOO_BIG, rowText(Socket::ErrorId::MESSAGE_TOO_BIG, systemText(EMSGSIZE))},
         {std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
}

TEST(SocketWrite, toADescriptorThatIsNoConnectedSocketFails) {
    unsigned int put = 99;
    TestSocket without_descriptor(-1, Socket::OPEN);
    EXPECT_TRUE(without_descriptor.performWrite("x", 1, put));
    EXPECT_EQ(0U, put);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EBADF))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));

    TestSocket unconnected(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(unconnected.performWrite("x", 1, put));
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::ADDRESS_INVALID,
          rowText(Socket::ErrorId::ADDRESS_INVALID, systemText(EDESTADDRREQ))},
         {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
}

} // namespace
