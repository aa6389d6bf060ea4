#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/Privileges.h"
#include "support/VtableSlot.h"
#include "support/calls/ResolverCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/IPSocket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, gethostname, (char* name, size_t size), (name, size))

namespace {

// What happens to a socket while it is closed, in order; null: nobody looks.
std::vector<std::string>* s_steps = nullptr;

void note(char const* step) {
    if (s_steps != nullptr) {
        s_steps->emplace_back(step);
    }
}

// What getsockname and getpeername tell instead of the truth, and what they were called with.
struct AddressCalls {
    bool answers = false;
    sockaddr_in6 answer{};
    int fd = -1;
    socklen_t room = 0;
    bool was_cleared = false;

    void note(int on, sockaddr const* address, socklen_t const* length) {
        fd = on;
        room = *length;
        auto const* const bytes = reinterpret_cast<unsigned char const*>(address);
        was_cleared = std::all_of(bytes, bytes + room, [](unsigned char byte) { return byte == 0; });
    }
    int tell(sockaddr* address, socklen_t* length) const {
        memcpy(address, &answer, sizeof answer);
        *length = sizeof answer;
        return 0;
    }
};
AddressCalls s_address_calls;

} // namespace

support::Injected inject_close("close");
support::Injected inject_shutdown("shutdown");
support::Injected inject_send("send");
support::Injected inject_getsockname("getsockname");
support::Injected inject_getpeername("getpeername");

extern "C" {

VESK_UNWATCHED int close(int fd) {
    note("close");
    int error = 0;
    if (inject_close.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int)>(inject_close.getReal())(fd);
}

VESK_UNWATCHED int shutdown(int fd, int how) noexcept {
    note(how == SHUT_RDWR ? "shutdown" : "shutdown of one direction");
    int error = 0;
    if (inject_shutdown.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int)>(inject_shutdown.getReal())(fd, how);
}

VESK_UNWATCHED ssize_t send(int fd, void const* data, size_t size, int flags) {
    note("send");
    int error = 0;
    if (inject_send.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<decltype(&send)>(inject_send.getReal())(fd, data, size, flags);
}

VESK_UNWATCHED int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
    s_address_calls.note(fd, address, length);
    int error = 0;
    if (inject_getsockname.fails(error)) {
        errno = error;
        return -1;
    }
    return s_address_calls.answers
        ? s_address_calls.tell(address, length)
        : reinterpret_cast<decltype(&getsockname)>(inject_getsockname.getReal())(fd, address, length);
}

VESK_UNWATCHED int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
    s_address_calls.note(fd, address, length);
    int error = 0;
    if (inject_getpeername.fails(error)) {
        errno = error;
        return -1;
    }
    return s_address_calls.answers
        ? s_address_calls.tell(address, length)
        : reinterpret_cast<decltype(&getpeername)>(inject_getpeername.getReal())(fd, address, length);
}

} // extern "C"

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::getSlot;
using support::Injected;
using support::New;
using support::NewFault;
using support::ResolverCalls;
using support::rowText;
using support::runInChild;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using IPAddress = vesk::IPSocket::IPAddress;
using Steps = std::vector<std::string>;

static_assert(std::is_base_of_v<Socket, IPSocket> && std::is_abstract_v<IPSocket>);
static_assert(!std::is_copy_constructible_v<IPSocket> && std::has_virtual_destructor_v<IPSocket>);
static_assert(std::is_destructible_v<IPSocket>);

ExpectedReport reported(std::ErrorType const& family, int id, int error) {
    return {family, id, rowText(family, id, systemText(error))};
}

ExpectedReport misuse(char const* text) {
    return {
        std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
        rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

ExpectedReport const UNRESOLVED{
    std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
    rowText(std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname")};

/// The least that makes an IPSocket: a descriptor from elsewhere.
class TestSocket : public IPSocket {
public:
    explicit TestSocket(
        int fd = INVALID_SOCKET_FD, State state = OPEN, unsigned int write_buffer = 0, bool blocking = true)
        : TestSocket(IPAddress(), IPAddress(), IPV4, 0, write_buffer, blocking) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = state;
    }

    TestSocket(
        IPAddress const& local, IPAddress const& peer, IPProtocolVersion version,
        unsigned int read_buffer = 0, unsigned int write_buffer = 0, bool blocking = true)
        : IPSocket(blocking, read_buffer, write_buffer, local, peer, version) {}

    unsigned int maxTxSize() const override { return 4711; }

    bool closing() override {
        note("closing");
        had_error_in_closing = hadError();
        if (closing_fails) {
            std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::UNCLASSIFIED, "closing");
            m_had_error = true;
        }
        return closing_fails;
    }

    bool performFlush() override {
        note("flush");
        if (flush_fails) {
            std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::UNCLASSIFIED, "flush");
            m_had_error = true;
        }
        return flush_fails;
    }

    using IPSocket::getBinaryLength;
    using IPSocket::getLocalBinary;
    using IPSocket::getPeerBinary;

    sockaddr_in const& getLocal4() const { return m_local_binary.v4; }
    sockaddr_in const& getPeer4() const { return m_peer_binary.v4; }
    sockaddr_in6 const& getLocal6() const { return m_local_binary.v6; }
    sockaddr_in6 const& getPeer6() const { return m_peer_binary.v6; }

    void setHadError() { m_had_error = true; }
    void setOpen(int fd) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = OPEN;
    }

    bool closing_fails = false;
    bool flush_fails = false;
    bool had_error_in_closing = false;
};

/// Looks at the steps of a close.
class StepRecorder {
public:
    StepRecorder() { s_steps = &m_steps; }
    ~StepRecorder() { s_steps = nullptr; }

    StepRecorder(StepRecorder const&) = delete;
    StepRecorder& operator=(StepRecorder const&) = delete;

    Steps const& get() const { return m_steps; }

private:
    Steps m_steps;
};

/// Two connected descriptors; the first becomes a socket's.
class Pair {
public:
    Pair() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_socket_end = ends[0];
        m_far_end = ends[1];
    }
    ~Pair() { ::close(m_far_end); }

    Pair(Pair const&) = delete;
    Pair& operator=(Pair const&) = delete;

    int getSocketEnd() const { return m_socket_end; }

    /// What arrives without waiting; "(nothing)" or "(end)".
    std::string receive() const {
        char buffer[64];
        ssize_t const count = recv(m_far_end, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0) {
            return std::string(buffer, static_cast<size_t>(count));
        }
        return count == 0 ? "(end)" : errno == EAGAIN ? "(nothing)" : strerror(errno);
    }

private:
    int m_socket_end;
    int m_far_end;
};

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// ---- construction ----

TEST(IPSocket, startsInactiveWithoutADescriptor) {
    ResolverCalls const calls;
    TestSocket socket({"127.0.0.1", 80}, {"127.0.0.2", 81}, IPSocket::IPV4);
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(IPSocket::IPV4, socket.getVersion());
    EXPECT_TRUE(chainIs({}));
    socket.close(false);
}

TEST(IPSocket, addressesOfIPv4AreKeptAsTextAndInBinary) {
    TestSocket socket({"127.1", 0x0102}, {"0x7f.0.0.2", 65535}, IPSocket::IPV4);
    EXPECT_EQ("127.0.0.1", socket.getLocalAddress().host);
    EXPECT_EQ(0x0102, socket.getLocalAddress().port);
    EXPECT_EQ("127.0.0.2", socket.getPeerAddress().host);
    EXPECT_EQ(65535, socket.getPeerAddress().port);
    EXPECT_EQ(AF_INET, socket.getLocalBinary()->sa_family);
    EXPECT_EQ(0x7F000001U, ntohl(socket.getLocal4().sin_addr.s_addr));
    EXPECT_EQ(0x0102, ntohs(socket.getLocal4().sin_port));
    EXPECT_EQ(0x7F000002U, ntohl(socket.getPeer4().sin_addr.s_addr));
    EXPECT_EQ(65535, ntohs(socket.getPeer4().sin_port));
    EXPECT_EQ(16U, socket.getBinaryLength());
    EXPECT_EQ(static_cast<void const*>(&socket.getLocal4()), socket.getLocalBinary());
    EXPECT_EQ(static_cast<void const*>(&socket.getPeer4()), socket.getPeerBinary());
    socket.close(false);
}

TEST(IPSocket, addressesOfIPv6AreKeptAsTextAndInBinary) {
    TestSocket socket({"::0001", 0x0102}, {"fe80::2%lo", 65535}, IPSocket::IPV6);
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ("::1", socket.getLocalAddress().host);
    EXPECT_EQ("fe80::2%lo", socket.getPeerAddress().host);
    EXPECT_EQ(AF_INET6, socket.getLocalBinary()->sa_family);
    EXPECT_EQ(0, memcmp(&in6addr_loopback, &socket.getLocal6().sin6_addr, 16));
    EXPECT_EQ(0x0102, ntohs(socket.getLocal6().sin6_port));
    EXPECT_EQ(0U, socket.getLocal6().sin6_scope_id);
    EXPECT_EQ(0xFE, socket.getPeer6().sin6_addr.s6_addr[0]);
    EXPECT_EQ(65535, ntohs(socket.getPeer6().sin6_port));
    EXPECT_EQ(if_nametoindex("lo"), socket.getPeer6().sin6_scope_id);
    EXPECT_EQ(28U, socket.getBinaryLength());
    EXPECT_EQ(IPSocket::IPV6, socket.getVersion());
    socket.close(false);
}

TEST(IPSocket, binaryFormsHoldNothingBeyondAnAddressOfIPv4) {
    alignas(TestSocket) unsigned char memory[sizeof(TestSocket)];
    memset(memory, 0xEB, sizeof memory);
    auto* const socket = new (memory) TestSocket({"127.0.0.1", 80}, {"127.0.0.2", 81}, IPSocket::IPV4);
    for (sockaddr_in6 const* binary : {&socket->getLocal6(), &socket->getPeer6()}) {
        auto const* const bytes = reinterpret_cast<unsigned char const*>(binary);
        EXPECT_TRUE(std::all_of(bytes + 16, bytes + 28, [](unsigned char byte) { return byte == 0; }));
    }
    socket->close(false);
    socket->~TestSocket();
}

TEST(IPSocket, emptyAddressesAreTheAnyAddressWithoutTheResolver) {
    for (IPSocket::IPProtocolVersion const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        ResolverCalls const calls;
        TestSocket socket(IPAddress(), IPAddress("", 80), version);
        EXPECT_TRUE(socket.isValid());
        EXPECT_TRUE(calls.getLookups().empty() && calls.getNamings().empty());
        EXPECT_EQ("", socket.getLocalAddress().host);
        EXPECT_EQ("", socket.getPeerAddress().host);
        EXPECT_EQ(version == IPSocket::IPV6 ? AF_INET6 : AF_INET, socket.getLocalBinary()->sa_family);
        EXPECT_EQ(80, ntohs(socket.getPeer4().sin_port));
        socket.close(false);
    }
}

TEST(IPSocket, argumentsOfTheConstructorKeepTheirNames) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.1"}});
    calls.answerList({{"10.0.0.2"}, {"10.0.0.3"}});
    IPAddress const local("local.example", 80);
    IPAddress const peer("peer.example", 81);
    TestSocket socket(local, peer, IPSocket::IPV4);
    EXPECT_EQ("local.example", calls.getLookups().at(0).name);
    EXPECT_EQ("peer.example", calls.getLookups().at(1).name);
    EXPECT_EQ("10.0.0.1", socket.getLocalAddress().host);
    EXPECT_EQ("10.0.0.2", socket.getPeerAddress().host);
    EXPECT_EQ("local.example", local.host);
    EXPECT_EQ("peer.example", peer.host);
    socket.close(false);
}

/// Which of the addresses leads to nothing.
class IPSocketUnresolvable : public testing::TestWithParam<std::tuple<IPSocket::IPProtocolVersion, bool>> {};

TEST_P(IPSocketUnresolvable, addressMakesAnInvalidSocketWithASilentEnd) {
    auto const [version, is_local] = GetParam();
    EventRecorder const events;
    StepRecorder const steps;
    ResolverCalls const calls;
    {
        IPAddress const nowhere("none.example", 80);
        TestSocket const socket(is_local ? nowhere : IPAddress(), is_local ? IPAddress() : nowhere, version);
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ("none.example", (is_local ? socket.getLocalAddress() : socket.getPeerAddress()).host);
        EXPECT_TRUE(chainIs({UNRESOLVED}));
    }
    EXPECT_EQ("", events.getText());
    EXPECT_EQ(Steps{}, steps.get());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IPSocketUnresolvable, failureOfTheResolverStaysReported) {
    auto const [version, is_local] = GetParam();
    ResolverCalls calls;
    calls.failList(EAI_AGAIN);
    IPAddress const nowhere("none.example", 80);
    TestSocket const socket(is_local ? nowhere : IPAddress(), is_local ? IPAddress() : nowhere, version);
    EXPECT_FALSE(socket.isValid());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::RESOLVE_FAILED,
          rowText(Socket::ErrorId::RESOLVE_FAILED, gai_strerror(EAI_AGAIN))}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPSocketUnresolvable,
    testing::Combine(testing::Values(IPSocket::IPV4, IPSocket::IPV6), testing::Bool()));

TEST(IPSocket, addressOfTheOtherVersionMakesAnInvalidSocket) {
    ResolverCalls const calls;
    EXPECT_FALSE(TestSocket(IPAddress::ANY_ADDRESS6, IPAddress(), IPSocket::IPV4).isValid());
    EXPECT_TRUE(chainIs({UNRESOLVED}));
    EXPECT_FALSE(TestSocket(IPAddress::ANY_ADDRESS, IPAddress(), IPSocket::IPV6).isValid());
    EXPECT_TRUE(chainIs({UNRESOLVED}));
}

TEST(IPSocket, absurdHostsMakeAnInvalidSocket) {
    ResolverCalls const calls;
    for (std::string const& host :
         {std::string(300, 'x'), std::string(5000, 'x'), std::string("127.0.0.1 x")}) {
        EXPECT_FALSE(TestSocket({host, 0}, IPAddress(), IPSocket::IPV4).isValid());
        EXPECT_TRUE(chainIs({UNRESOLVED}));
        EXPECT_FALSE(TestSocket(IPAddress(), {host, 0}, IPSocket::IPV6).isValid());
        EXPECT_TRUE(chainIs({UNRESOLVED}));
    }
}

TEST(IPSocket, withoutMemoryForABufferItDoesNotResolve) {
    for (int const nth : {1, 2}) {
        ResolverCalls const calls;
        EventRecorder const events;
        {
            NewFault const fault(New::NOTHROW_ARRAY, nth);
            TestSocket const socket({"127.0.0.1", 80}, {"127.0.0.2", 81}, IPSocket::IPV4, 16, 16);
            EXPECT_FALSE(socket.isValid());
            EXPECT_EQ("127.0.0.1", socket.getLocalAddress().host);
            auto const* const bytes = reinterpret_cast<unsigned char const*>(&socket.getLocal6());
            EXPECT_TRUE(std::all_of(bytes, bytes + 28, [](unsigned char byte) { return byte == 0; }));
        }
        EXPECT_TRUE(calls.getLookups().empty());
        EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
        EXPECT_EQ("", events.getText());
    }
}

// ---- virtual operations ----

TEST(IPSocket, addsItsVirtualOperationsBehindThoseOfASocket) {
    EXPECT_EQ(7, getSlot(&IPSocket::maxTxSize));
    EXPECT_EQ(8, getSlot(&IPSocket::closing));
}

TEST(IPSocket, closingDoesNothingByItself) {
    class Plain : public IPSocket {
    public:
        Plain() : IPSocket(true, 0, 0, IPAddress(), IPAddress(), IPV4) {}
        unsigned int maxTxSize() const override { return 0; }
    } socket;
    socket.close(false);
    EXPECT_FALSE(socket.closing());
    EXPECT_TRUE(chainIs({}));
}

// ---- closing ----

TEST(IPSocket, closeFlushesTellsShutsDownAndClosesInThisOrder) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd(), Socket::OPEN, 16);
    unsigned int written = 0;
    ASSERT_EQ(1, socket.write("hello", 5, written));
    EXPECT_EQ("(nothing)", pair.receive());
    StepRecorder const steps;
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ((Steps{"send", "flush", "closing", "shutdown", "close"}), steps.get());
    EXPECT_EQ("hello", pair.receive());
    EXPECT_EQ("(end)", pair.receive());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_FALSE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_FALSE(isOpen(pair.getSocketEnd()));
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeWithoutAShutdownLeavesTheConnectionToOtherDescriptors) {
    Pair const pair;
    int const other = fcntl(pair.getSocketEnd(), F_DUPFD_CLOEXEC, 0);
    TestSocket socket(pair.getSocketEnd());
    StepRecorder const steps;
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ((Steps{"flush", "closing", "close"}), steps.get());
    EXPECT_EQ("(nothing)", pair.receive());
    EXPECT_EQ(1, write(other, "x", 1));
    EXPECT_EQ("x", pair.receive());
    ::close(other);
}

TEST(IPSocket, closeWithAShutdownEndsTheConnectionForOtherDescriptors) {
    Pair const pair;
    int const other = fcntl(pair.getSocketEnd(), F_DUPFD_CLOEXEC, 0);
    TestSocket socket(pair.getSocketEnd());
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ("(end)", pair.receive());
    ::close(other);
}

TEST(IPSocket, inactiveOneIsClosedTheSameWay) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    TestSocket socket(fd, Socket::INACTIVE);
    StepRecorder const steps;
    // It has no connection to shut down, which does not matter.
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ((Steps{"flush", "closing", "shutdown", "close"}), steps.get());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeOfADeadOneFailsAndChangesNothing) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    ASSERT_FALSE(socket.close(true));
    StepRecorder const steps;
    for (bool const do_shutdown : {false, true}) {
        EXPECT_TRUE(socket.close(do_shutdown));
        EXPECT_TRUE(chainIs({misuse("called close on already DEAD socket")}));
        EXPECT_TRUE(socket.hadError());
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ(Steps{}, steps.get());
}

TEST(IPSocket, dataThatCannotGoOutDoesNotStopAClose) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd(), Socket::OPEN, 16);
    unsigned int written = 0;
    ASSERT_EQ(1, socket.write("hello", 5, written));
    Fault const fault(inject_send, EPIPE);
    StepRecorder const steps;
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ((Steps{"send", "closing", "shutdown", "close"}), steps.get());
    EXPECT_FALSE(socket.had_error_in_closing);
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ("(end)", pair.receive());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, dataThatWouldHaveToWaitDoesNotStopAClose) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd(), Socket::OPEN, 16, false);
    unsigned int written = 0;
    ASSERT_EQ(1, socket.write("hello", 5, written));
    Fault const fault(inject_send, EAGAIN, 1, Fault::FOREVER);
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, dataOfAnInactiveOneIsDroppedByAClose) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd(), Socket::INACTIVE, 16);
    unsigned int written = 0;
    ASSERT_EQ(1, socket.write("hello", 5, written));
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ("(end)", pair.receive());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, flushThatFailsDoesNotStopAClose) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    socket.flush_fails = true;
    StepRecorder const steps;
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ((Steps{"flush", "closing", "shutdown", "close"}), steps.get());
    EXPECT_FALSE(socket.had_error_in_closing);
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closingThatFailsDoesNotStopAClose) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    socket.closing_fails = true;
    StepRecorder const steps;
    EXPECT_FALSE(socket.close(true));
    EXPECT_EQ((Steps{"flush", "closing", "shutdown", "close"}), steps.get());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, shutdownThatFailsDoesNotStopAClose) {
    for (int const error : {EBADF, EINVAL, ENOTSOCK, ENOTCONN, ENOBUFS, EIO}) {
        Pair const pair;
        TestSocket socket(pair.getSocketEnd());
        Fault const fault(inject_shutdown, error);
        EXPECT_FALSE(socket.close(true)) << error;
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_FALSE(isOpen(pair.getSocketEnd()));
        EXPECT_FALSE(socket.hadError());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IPSocket, closeThatASignalInterruptsIsRepeated) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    Fault const fault(inject_close, EINTR, 1, 3);
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(isOpen(pair.getSocketEnd()));
    EXPECT_TRUE(chainIs({}));
}

struct CloseRow {
    int error;
    bool is_reported;
};

class IPSocketCloseErrors : public testing::TestWithParam<CloseRow> {};

TEST_P(IPSocketCloseErrors, leaveTheSocketDeadAllTheSame) {
    Pair const pair;
    {
        TestSocket socket(pair.getSocketEnd());
        Fault const fault(inject_close, GetParam().error);
        EXPECT_TRUE(socket.close(true));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs(
            GetParam().is_reported
                ? std::vector{reported(SysError, SysErrorId::SPOILED_INTEGRITY, GetParam().error)}
                : std::vector<ExpectedReport>{}));
        EXPECT_TRUE(socket.hadError());
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_FALSE(socket.isValid());
    }
    ::close(pair.getSocketEnd());
}

INSTANTIATE_TEST_SUITE_P(
    All, IPSocketCloseErrors,
    testing::Values(
        CloseRow{EBADF, false}, CloseRow{EIO, true}, CloseRow{ENOSPC, true}, CloseRow{EDQUOT, true},
        CloseRow{EINVAL, true}, CloseRow{4711, true}));

TEST(IPSocket, descriptorThatWasClosedBehindItsBackFailsWithoutAReport) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    ::close(pair.getSocketEnd());
    EXPECT_TRUE(socket.close(true));
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeWithoutADescriptorFailsWithoutAReport) {
    TestSocket socket(Socket::INVALID_SOCKET_FD, Socket::INACTIVE);
    EXPECT_TRUE(socket.close(false));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeWithAShutdownAndWithoutADescriptorIsABrokenInvariant) {
    EventRecorder const events;
    TestSocket socket(Socket::INVALID_SOCKET_FD, Socket::OPEN);
    EXPECT_TRUE(socket.close(true));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon shutdownSocket: p_socket_fd != INVALID_SOCKET_FD",
        events.getText());
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeForgetsAFailureOfBefore) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    socket.setHadError();
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(socket.had_error_in_closing);
    EXPECT_FALSE(socket.hadError());
}

TEST(IPSocket, nothingOpensADeadOne) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    ASSERT_FALSE(socket.close(false));
    unsigned int count = 4711;
    EXPECT_EQ(-1, socket.write("x", 1, count));
    EXPECT_TRUE(chainIs(
        {misuse("called write on non-OPEN socket"),
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    char byte = 0;
    EXPECT_EQ(-1, socket.read(&byte, 1, count));
    EXPECT_TRUE(chainIs(
        {misuse("called read on non-OPEN socket"),
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_TRUE(socket.checkValidSocket());
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

// ---- destruction ----

TEST(IPSocket, deadOneIsDestroyedSilently) {
    EventRecorder const events;
    Pair const pair;
    {
        TestSocket socket(pair.getSocketEnd());
        ASSERT_FALSE(socket.close(false));
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, inactiveOneIsClosedByItsDestructorWithoutComplaint) {
    EventRecorder const events;
    Pair const pair;
    StepRecorder const steps;
    { TestSocket const socket(pair.getSocketEnd(), Socket::INACTIVE); }
    // The subclass is gone by then, and so are its operations.
    EXPECT_EQ(Steps{"close"}, steps.get());
    EXPECT_FALSE(isOpen(pair.getSocketEnd()));
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, openOneIsABrokenInvariantOfItsDestructorWhichClosesIt) {
    EventRecorder const events;
    Pair const pair;
    int const other = fcntl(pair.getSocketEnd(), F_DUPFD_CLOEXEC, 0);
    {
        TestSocket socket(pair.getSocketEnd(), Socket::OPEN, 16);
        unsigned int written = 0;
        ASSERT_EQ(1, socket.write("hello", 5, written));
    }
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: this->getState() != OPEN", events.getText());
    EXPECT_FALSE(isOpen(pair.getSocketEnd()));
    EXPECT_EQ("hello", pair.receive());
    EXPECT_EQ("(nothing)", pair.receive()); // Not shut down: the other descriptor has the connection.
    ::close(other);
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, closeThatFailsInTheDestructorIsABrokenInvariant) {
    for (int const error : {EIO, EBADF}) {
        EventRecorder const events;
        Pair const pair;
        {
            auto socket = std::make_unique<TestSocket>(pair.getSocketEnd(), Socket::INACTIVE);
            Fault const fault(inject_close, error);
            socket.reset();
        }
        EXPECT_EQ(
            "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: !has_error: error closing socket",
            events.getText());
        ::close(pair.getSocketEnd());
        std::ErrorStorage::ack();
    }
}

TEST(IPSocket, inactiveOneWithoutADescriptorIsABrokenInvariantOfItsDestructor) {
    EventRecorder const events;
    { TestSocket const socket(Socket::INVALID_SOCKET_FD, Socket::INACTIVE); }
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: !has_error: error closing socket",
        events.getText());
    EXPECT_TRUE(chainIs({}));
}

// ---- the addresses of the system ----

/// Either of the two operations, and what it asks and changes.
struct Update {
    char const* name;
    Injected* call;
    void (IPSocket::*update)();
    IPAddress const& (IPSocket::*get)() const noexcept;
    IPAddress const& (IPSocket::*get_other)() const noexcept;
};

void PrintTo(Update const& update, std::ostream* out) {
    *out << update.name;
}

class IPSocketUpdates : public testing::TestWithParam<Update> {
protected:
    void SetUp() override { s_address_calls = AddressCalls(); }
    void TearDown() override { s_address_calls = AddressCalls(); }

    void update(IPSocket& socket) const { (socket.*GetParam().update)(); }
    static void setAnswer(sockaddr_in const& answer) {
        s_address_calls.answers = true;
        memcpy(&s_address_calls.answer, &answer, sizeof answer);
    }
    static void setAnswer(sockaddr_in6 const& answer) {
        s_address_calls.answers = true;
        s_address_calls.answer = answer;
    }
    std::string getText(IPSocket const& socket) const { return toText((socket.*GetParam().get)()); }
    std::string getOtherText(IPSocket const& socket) const {
        return toText((socket.*GetParam().get_other)());
    }

    static std::string toText(IPAddress const& address) {
        return address.host + " " + std::to_string(address.port);
    }
};

TEST_P(IPSocketUpdates, takeAnAddressOfIPv4) {
    setAnswer(IPAddress::makeHandle(0x01020304, 0x0506));
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    update(socket);
    EXPECT_EQ("1.2.3.4 1286", getText(socket));
    EXPECT_EQ(" 0", getOtherText(socket));
    EXPECT_EQ(pair.getSocketEnd(), s_address_calls.fd);
    EXPECT_TRUE(chainIs({}));
    socket.close(false);
}

TEST_P(IPSocketUpdates, takeAnAddressOfIPv6WithItsScope) {
    in6_addr ip{};
    ip.s6_addr[0] = 0xFE;
    ip.s6_addr[1] = 0x80;
    ip.s6_addr[15] = 1;
    setAnswer(IPAddress::makeHandle(ip, 65535, if_nametoindex("lo")));
    Pair const pair;
    // The version of the socket plays no part.
    TestSocket socket(pair.getSocketEnd());
    update(socket);
    EXPECT_EQ("fe80::1%lo 65535", getText(socket));
    EXPECT_EQ(" 0", getOtherText(socket));
    socket.close(false);
}

TEST_P(IPSocketUpdates, offerTheSystem128ClearBytes) {
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    update(socket);
    EXPECT_EQ(128U, s_address_calls.room);
    EXPECT_TRUE(s_address_calls.was_cleared);
    socket.close(false);
}

TEST_P(IPSocketUpdates, leaveTheAddressForAnotherFamily) {
    Pair const pair; // Of local sockets.
    for (int const family : {AF_UNSPEC, AF_UNIX, AF_PACKET}) {
        sockaddr_in answer = IPAddress::makeHandle(0x01020304, 0x0506);
        answer.sin_family = static_cast<sa_family_t>(family);
        setAnswer(answer);
        TestSocket open({"127.0.0.1", 80}, {"127.0.0.1", 80}, IPSocket::IPV4);
        open.setOpen(dup(pair.getSocketEnd()));
        update(open);
        EXPECT_EQ("127.0.0.1 80", getText(open)) << family;
        EXPECT_TRUE(chainIs({}));
        open.close(false);
    }
    ::close(pair.getSocketEnd());
}

TEST_P(IPSocketUpdates, leaveTheAddressAfterAFailure) {
    for (int const error : {EBADF, ENOTSOCK, ENOTCONN, ENOBUFS, EINVAL, EFAULT}) {
        Pair const pair;
        TestSocket socket({"127.0.0.1", 80}, {"127.0.0.1", 80}, IPSocket::IPV4);
        socket.setOpen(pair.getSocketEnd());
        Fault const fault(*GetParam().call, error);
        update(socket);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ("127.0.0.1 80", getText(socket)) << error;
        EXPECT_FALSE(socket.hadError());
        EXPECT_TRUE(chainIs({}));
        socket.close(false);
    }
}

TEST_P(IPSocketUpdates, leaveTheAddressWhenItHasNoText) {
    setAnswer(IPAddress::makeHandle(in6addr_loopback, 4711, 0));
    Pair const pair;
    TestSocket socket({"127.0.0.1", 80}, {"127.0.0.1", 80}, IPSocket::IPV4);
    socket.setOpen(pair.getSocketEnd());
    ResolverCalls calls;
    calls.failName(EAI_OVERFLOW);
    update(socket);
    EXPECT_EQ("127.0.0.1 80", getText(socket));
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    socket.close(false);
}

TEST_P(IPSocketUpdates, askNothingUnlessTheSocketIsOpen) {
    setAnswer(IPAddress::makeHandle(0x01020304, 0x0506));
    Pair const pair;
    TestSocket socket(pair.getSocketEnd(), Socket::INACTIVE);
    Fault const calls(*GetParam().call, 0);
    update(socket);
    EXPECT_EQ(" 0", getText(socket));
    socket.close(false);
    update(socket);
    EXPECT_EQ(" 0", getText(socket));
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IPSocketUpdates, keepTheFlagOfTheLastOperation) {
    setAnswer(IPAddress::makeHandle(0x01020304, 0x0506));
    Pair const pair;
    TestSocket socket(pair.getSocketEnd());
    socket.setHadError();
    update(socket);
    EXPECT_TRUE(socket.hadError());
    socket.close(false);
}

INSTANTIATE_TEST_SUITE_P(
    All, IPSocketUpdates,
    testing::Values(
        Update{
            "local", &inject_getsockname, &IPSocket::updateLocalAddress, &IPSocket::getLocalAddress,
            &IPSocket::getPeerAddress},
        Update{
            "peer", &inject_getpeername, &IPSocket::updatePeerAddress, &IPSocket::getPeerAddress,
            &IPSocket::getLocalAddress}));

TEST(IPSocket, addressesOfARealConnectionAreThoseOfItsEnds) {
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = IPAddress::makeHandle(0x7F000001, 0);
    socklen_t length = sizeof at;
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr const*>(&at), sizeof at));
    ASSERT_EQ(0, listen(listener, 1));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&at), &length));
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr const*>(&at), sizeof at));
    int const accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);

    TestSocket near(fd);
    TestSocket far(accepted);
    for (TestSocket* socket : {&near, &far}) {
        socket->updateLocalAddress();
        socket->updatePeerAddress();
        EXPECT_EQ("127.0.0.1", socket->getLocalAddress().host);
        EXPECT_EQ("127.0.0.1", socket->getPeerAddress().host);
    }
    EXPECT_EQ(ntohs(at.sin_port), near.getPeerAddress().port);
    EXPECT_EQ(ntohs(at.sin_port), far.getLocalAddress().port);
    EXPECT_NE(0, near.getLocalAddress().port);
    EXPECT_EQ(near.getLocalAddress().port, far.getPeerAddress().port);
    EXPECT_FALSE(near.close(true));
    EXPECT_FALSE(far.close(false));
    ::close(listener);
}

// ---- the name of the machine ----

TEST(IPSocket, hostnameIsTheMachines) {
    char expected[256] = "";
    ASSERT_EQ(0, gethostname(expected, sizeof expected));
    std::string name = "before";
    EXPECT_FALSE(IPSocket::getHostname(name));
    EXPECT_EQ(expected, name);
    EXPECT_TRUE(chainIs({}));
}

TEST(IPSocket, hostnameTakesOneAllocationOf64Bytes) {
    std::string name;
    NewFault const calls(New::NOTHROW_ARRAY, 1, 0);
    EXPECT_FALSE(IPSocket::getHostname(name));
    EXPECT_EQ((std::vector<size_t>{64}), calls.getSizes());
}

TEST(IPSocket, hostnameWithoutMemoryFails) {
    std::string name = "before";
    Fault const calls(inject_gethostname, 0);
    NewFault const fault(New::NOTHROW_ARRAY);
    EXPECT_TRUE(IPSocket::getHostname(name));
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::OUT_OF_MEMORY, rowText(std::CommonErrorId::OUT_OF_MEMORY, "")}}));
    EXPECT_EQ("before", name);
    EXPECT_EQ(0, calls.getCalls());
}

struct HostnameRow {
    int error;
    int id;
};

class IPSocketHostnameErrors : public testing::TestWithParam<HostnameRow> {};

TEST_P(IPSocketHostnameErrors, areReportedAndLeaveTheName) {
    std::string name = "before";
    Fault const fault(inject_gethostname, GetParam().error);
    EXPECT_TRUE(IPSocket::getHostname(name));
    EXPECT_TRUE(chainIs({reported(SysError, GetParam().id, GetParam().error)}));
    EXPECT_EQ("before", name);
    EXPECT_EQ(1, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, IPSocketHostnameErrors,
    testing::Values(
        HostnameRow{EFAULT, 10}, HostnameRow{EINVAL, 10}, HostnameRow{ENAMETOOLONG, 10},
        HostnameRow{EPERM, 19}, HostnameRow{EINTR, 19}, HostnameRow{ENOSYS, 19}, HostnameRow{4711, 19}));

TEST(IPSocket, hostnameMayHave63BytesButNot64) {
    if (runInChild([] { EXPECT_EQ(0, unshare(CLONE_NEWUTS)); }).exit_code != 0) {
        GTEST_SKIP() << "a host name of its own is not granted to the test";
    }
    expectInChild([] {
        ASSERT_EQ(0, unshare(CLONE_NEWUTS));
        for (std::string const& host : {std::string(63, 'h'), std::string(), std::string("a b\xff")}) {
            ASSERT_EQ(0, sethostname(host.data(), host.size()));
            std::string name = "before";
            EXPECT_FALSE(IPSocket::getHostname(name));
            EXPECT_EQ(host, name);
        }
        std::string const host(64, 'h');
        ASSERT_EQ(0, sethostname(host.data(), host.size()));
        std::string name = "before";
        EXPECT_TRUE(IPSocket::getHostname(name));
        EXPECT_TRUE(chainIs({reported(SysError, SysErrorId::SPOILED_INTEGRITY, ENAMETOOLONG)}));
        EXPECT_EQ("before", name);
    });
}

TEST(IPSocket, hostnameIsTheSameInManyThreads) {
    std::string expected;
    ASSERT_FALSE(IPSocket::getHostname(expected));
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 200; ++round) {
                std::string name;
                right += !IPSocket::getHostname(name) && name == expected ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(800, right);
}

} // namespace
