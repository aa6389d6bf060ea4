#include "SocketRows.h"
#include "TestSocket.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"
#include "support/calls/ResolverCalls.h"

#include <vesk/IPSocket.h>

#include <net/if.h>

namespace {

// The steps of a close, in order; null if they are not recorded.
std::vector<std::string>* s_steps = nullptr;

void note(char const* step) {
    if (s_steps != nullptr) {
        s_steps->emplace_back(step);
    }
}

bool isZero(void const* memory, size_t size) {
    return std::string(static_cast<char const*>(memory), size) == std::string(size, '\0');
}

/// The arguments of the last getsockname or getpeername, and the answer that replaces that of the system.
struct AddressCalls {
    bool answers = false;
    sockaddr_in6 answer{};
    int fd = -1;
    socklen_t room = 0;
    bool was_cleared = false;

    int call(support::Injected& function, int on, sockaddr* address, socklen_t* length) {
        fd = on;
        room = *length;
        was_cleared = isZero(address, room);
        if (function.fails()) {
            return -1;
        }
        if (!answers) {
            return reinterpret_cast<int (*)(int, sockaddr*, socklen_t*)>(function.getReal())(
                on, address, length);
        }
        memcpy(address, &answer, sizeof answer);
        *length = sizeof answer;
        return 0;
    }
};
AddressCalls s_address_calls;

} // namespace

VESK_INJECT_ERRNO(int, -1, gethostname, (char* name, size_t size), (name, size))
VESK_INJECT_NOTING(int, -1, close, (int fd), (fd), note("close"))
VESK_INJECT_NOTING(
    int, -1, shutdown, (int fd, int how) noexcept, (fd, how),
    note(how == SHUT_RDWR ? "shutdown" : "shutdown of one direction"))
VESK_INJECT_NOTING(
    ssize_t, -1, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags),
    note("send"))

support::Injected inject_getsockname("getsockname");
support::Injected inject_getpeername("getpeername");

extern "C" {

VESK_UNWATCHED int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
    return s_address_calls.call(inject_getsockname, fd, address, length);
}
VESK_UNWATCHED int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
    return s_address_calls.call(inject_getpeername, fd, address, length);
}

} // extern "C"

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
using std::CommonErrorId::OUT_OF_MEMORY;
using vesk::IPSocket;
using vesk::Socket;
using IPAddress = vesk::IPSocket::IPAddress;
using Steps = std::vector<std::string>;

static_assert(std::is_base_of_v<Socket, IPSocket> && std::is_abstract_v<IPSocket>);
static_assert(!std::is_copy_constructible_v<IPSocket> && std::has_virtual_destructor_v<IPSocket>);
static_assert(std::is_destructible_v<IPSocket>);

/// A socket that takes any descriptor and records its hooks, which can fail.
class HookedSocket : public IPSocket {
public:
    explicit HookedSocket(
        int fd = INVALID_SOCKET_FD, State state = OPEN, unsigned int write_buffer = 0, bool blocking = true)
        : HookedSocket(IPAddress(), IPAddress(), IPV4, 0, write_buffer, blocking) {
        set(fd, state);
    }

    HookedSocket(
        IPAddress const& local, IPAddress const& peer, IPProtocolVersion version,
        unsigned int read_buffer = 0, unsigned int write_buffer = 0, bool blocking = true)
        : IPSocket(blocking, read_buffer, write_buffer, local, peer, version) {}

    unsigned int maxTxSize() const override { return 4711; }

    bool closing() override {
        had_error_in_closing = hadError();
        return run("closing");
    }
    bool performFlush() override { return run("flush"); }

    using IPSocket::getBinaryLength;
    using IPSocket::getLocalBinary;
    using IPSocket::getPeerBinary;
    using IPSocket::m_local_binary;
    using IPSocket::m_peer_binary;

    void setHadError() { m_had_error = true; }
    void set(int fd, State state) {
        m_socket_handle.socket_fd = fd;
        m_socket_state = state;
    }

    std::string failing_hook;
    bool had_error_in_closing = false;

private:
    bool run(char const* hook) {
        note(hook);
        if (hook == failing_hook) {
            std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::UNCLASSIFIED, hook);
            m_had_error = true;
        }
        return hook == failing_hook;
    }
};

/// Records the steps of a close during its lifetime.
class StepRecorder : private tarnbase::NonCopyable {
public:
    StepRecorder() { s_steps = &m_steps; }
    ~StepRecorder() { s_steps = nullptr; }

    Steps const& get() const { return m_steps; }

private:
    Steps m_steps;
};

/// Returns what has arrived at a descriptor; "(nothing)" or "(end)" if there are no bytes.
std::string receiveAt(int fd) {
    char buffer[64];
    ssize_t const count = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count > 0) {
        return std::string(buffer, static_cast<size_t>(count));
    }
    return count == 0 ? "(end)" : errno == EAGAIN ? "(nothing)" : strerror(errno);
}

/// Writes "hello" into the buffer of a stream.
void writeHello(HookedSocket& socket) {
    unsigned int written = 0;
    EXPECT_EQ(1, socket.write("hello", 5, written));
    EXPECT_EQ(5U, written);
}

std::string textOf(IPAddress const& address) {
    return address.host + " " + std::to_string(address.port);
}

// ---- construction ----

TEST(IPSocket, startsInactiveWithItsAddressesAsTextAndInBinary) {
    HookedSocket socket({"127.1", 0x0102}, {"0x7f.0.0.2", 65535}, IPSocket::IPV4);
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_EQ(IPSocket::IPV4, socket.getVersion());
    EXPECT_EQ("127.0.0.1 258", textOf(socket.getLocalAddress()));
    EXPECT_EQ("127.0.0.2 65535", textOf(socket.getPeerAddress()));
    EXPECT_EQ(AF_INET, socket.getLocalBinary()->sa_family);
    EXPECT_EQ(0x7F000001U, ntohl(socket.m_local_binary.v4.sin_addr.s_addr));
    EXPECT_EQ(0x0102, ntohs(socket.m_local_binary.v4.sin_port));
    EXPECT_EQ(0x7F000002U, ntohl(socket.m_peer_binary.v4.sin_addr.s_addr));
    EXPECT_EQ(65535, ntohs(socket.m_peer_binary.v4.sin_port));
    EXPECT_EQ(16U, socket.getBinaryLength());
    EXPECT_EQ(static_cast<void const*>(&socket.m_local_binary.v4), socket.getLocalBinary());
    EXPECT_EQ(static_cast<void const*>(&socket.m_peer_binary.v4), socket.getPeerBinary());
    socket.close(false);
    HookedSocket six({"::0001", 0x0102}, {"fe80::2%lo", 65535}, IPSocket::IPV6);
    EXPECT_TRUE(six.isValid());
    EXPECT_EQ("::1 258", textOf(six.getLocalAddress()));
    EXPECT_EQ("fe80::2%lo 65535", textOf(six.getPeerAddress()));
    EXPECT_EQ(AF_INET6, six.getLocalBinary()->sa_family);
    EXPECT_EQ(0, memcmp(&in6addr_loopback, &six.m_local_binary.v6.sin6_addr, 16));
    EXPECT_EQ(0x0102, ntohs(six.m_local_binary.v6.sin6_port));
    EXPECT_EQ(0U, six.m_local_binary.v6.sin6_scope_id);
    EXPECT_EQ(0xFE, six.m_peer_binary.v6.sin6_addr.s6_addr[0]);
    EXPECT_EQ(65535, ntohs(six.m_peer_binary.v6.sin6_port));
    EXPECT_EQ(if_nametoindex("lo"), six.m_peer_binary.v6.sin6_scope_id);
    EXPECT_EQ(28U, six.getBinaryLength());
    EXPECT_EQ(IPSocket::IPV6, six.getVersion());
    six.close(false);
}

TEST(IPSocket, binaryFormsAreZeroBeyondAnAddressOfIPv4) {
    alignas(HookedSocket) unsigned char memory[sizeof(HookedSocket)];
    memset(memory, 0xEB, sizeof memory);
    auto* const socket = new (memory) HookedSocket({"127.0.0.1", 80}, {"127.0.0.2", 81}, IPSocket::IPV4);
    EXPECT_TRUE(isZero(&socket->m_local_binary.v4 + 1, 12));
    EXPECT_TRUE(isZero(&socket->m_peer_binary.v4 + 1, 12));
    socket->close(false);
    socket->~HookedSocket();
}

TEST(IPSocket, emptyAddressesAreTheAnyAddressWithoutTheResolver) {
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        ResolverCalls const calls;
        HookedSocket socket(IPAddress(), IPAddress("", 80), version);
        EXPECT_TRUE(socket.isValid());
        EXPECT_TRUE(calls.getLookups().empty() && calls.getNamings().empty());
        EXPECT_EQ(" 0", textOf(socket.getLocalAddress()));
        EXPECT_EQ(" 80", textOf(socket.getPeerAddress()));
        EXPECT_EQ(version == IPSocket::IPV6 ? AF_INET6 : AF_INET, socket.getLocalBinary()->sa_family);
        EXPECT_EQ(80, ntohs(socket.m_peer_binary.v4.sin_port));
        socket.close(false);
    }
}

TEST(IPSocket, argumentsOfTheConstructorAreNotChanged) {
    ResolverCalls calls;
    calls.answer({list({{"10.0.0.1"}}), list({{"10.0.0.2"}, {"10.0.0.3"}})});
    IPAddress const local("local.example", 80);
    IPAddress const peer("peer.example", 81);
    HookedSocket socket(local, peer, IPSocket::IPV4);
    EXPECT_EQ((std::vector<std::string>{"local.example", "peer.example"}), calls.getNames());
    EXPECT_EQ("10.0.0.1", socket.getLocalAddress().host);
    EXPECT_EQ("10.0.0.2", socket.getPeerAddress().host);
    EXPECT_EQ("local.example", local.host);
    EXPECT_EQ("peer.example", peer.host);
    socket.close(false);
}

/// The version, and whether the local address is the one that does not resolve.
class IPSocketUnresolvable : public testing::TestWithParam<std::tuple<IPSocket::IPProtocolVersion, bool>> {
protected:
    /// Creates and destroys a socket. Checks that it is invalid and that only `reports` are made.
    static void expectInvalid(std::string const& host, Reports const& reports) {
        auto const [version, is_local] = GetParam();
        StepRecorder const steps;
        IPAddress const nowhere(host, 80);
        {
            HookedSocket const socket(
                is_local ? nowhere : IPAddress(), is_local ? IPAddress() : nowhere, version);
            EXPECT_TRUE(isUnusable(socket));
            EXPECT_EQ(host, (is_local ? socket.getLocalAddress() : socket.getPeerAddress()).host);
            EXPECT_TRUE(chainIs(reports));
        }
        EXPECT_EQ(Steps{}, steps.get());
    }
};

TEST_P(IPSocketUnresolvable, addressOfAnyTextOrTheOtherVersionMakesAnInvalidSocketThatIsDestroyedSilently) {
    ResolverCalls const calls;
    expectInvalid("none.example", UNRESOLVED);
    for (std::string const& host :
         {std::string(300, 'x'), std::string(5000, 'x'), std::string("127.0.0.1 x"),
          std::string(std::get<0>(GetParam()) == IPSocket::IPV6 ? "0.0.0.0" : "::")}) {
        expectInvalid(host, UNRESOLVED);
    }
}

TEST_P(IPSocketUnresolvable, failureOfTheResolverIsReported) {
    ResolverCalls calls;
    calls.failList(EAI_AGAIN);
    expectInvalid("none.example", resolverFailed(EAI_AGAIN));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPSocketUnresolvable,
    testing::Combine(testing::Values(IPSocket::IPV4, IPSocket::IPV6), testing::Bool()));

TEST(IPSocket, withoutMemoryForABufferItDoesNotResolve) {
    for (int const nth : {1, 2}) {
        ResolverCalls const calls;
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        HookedSocket const socket({"127.0.0.1", 80}, {"127.0.0.2", 81}, IPSocket::IPV4, 16, 16);
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ("127.0.0.1", socket.getLocalAddress().host);
        EXPECT_TRUE(isZero(&socket.m_local_binary.v6, 28));
        EXPECT_TRUE(calls.getLookups().empty());
        EXPECT_TRUE(chainIs({OUT_OF_MEMORY}));
    }
}

// ---- virtual operations ----

TEST(IPSocket, addsItsVirtualOperationsAfterThoseOfASocket) {
    EXPECT_EQ(7, getSlot(&IPSocket::maxTxSize));
    EXPECT_EQ(8, getSlot(&IPSocket::closing));
    class Plain : public IPSocket {
    public:
        Plain() : IPSocket(true, 0, 0, IPAddress(), IPAddress(), IPV4) {}
        unsigned int maxTxSize() const override { return 0; }
    } socket;
    socket.close(false);
    EXPECT_FALSE(socket.closing());
}

// ---- closing ----

struct CloseRow : NamedRow {
    Socket::State state;
    bool shuts_down;
    bool has_data; ///< Whether "hello" is in the buffer.
    int send_error;
    char const* failing_hook;
    Steps steps;
    std::vector<std::string> received;
};

CloseRow
row(char const* name, Socket::State state, bool shuts_down, bool has_data, int send_error,
    char const* failing_hook, Steps steps, std::vector<std::string> received) {
    return {{name},     state,        shuts_down,       has_data,
            send_error, failing_hook, std::move(steps), std::move(received)};
}

CloseRow const CLOSES[] = {
    row("flushesRunsTheHookShutsDownAndCloses", Socket::OPEN, true, true, 0, "",
        {"send", "flush", "closing", "shutdown", "close"}, {"hello", "(end)"}),
    row("withoutAShutdownLeavesTheConnectionToOtherDescriptors", Socket::OPEN, false, false, 0, "",
        {"flush", "closing", "close"}, {"(nothing)"}),
    row("withAShutdownEndsTheConnectionForOtherDescriptors", Socket::OPEN, true, false, 0, "",
        {"flush", "closing", "shutdown", "close"}, {"(end)"}),
    row("ofAnInactiveSocketTakesTheSameSteps", Socket::INACTIVE, true, false, 0, "",
        {"flush", "closing", "shutdown", "close"}, {"(end)"}),
    row("continuesIfDataCannotBeSent", Socket::OPEN, true, true, EPIPE, "",
        {"send", "closing", "shutdown", "close"}, {"(end)"}),
    row("doesNotWaitForRoom", Socket::OPEN, false, true, EAGAIN, "", {"send", "closing", "close"},
        {"(nothing)"}),
    row("ofAnInactiveSocketDropsItsData", Socket::INACTIVE, false, true, 0, "", {"closing", "close"},
        {"(nothing)"}),
    row("continuesIfTheFlushFails", Socket::OPEN, true, false, 0, "flush",
        {"flush", "closing", "shutdown", "close"}, {"(end)"}),
    row("continuesIfTheHookFails", Socket::OPEN, true, false, 0, "closing",
        {"flush", "closing", "shutdown", "close"}, {"(end)"})};
VESK_TEST_TABLE(IPSocketClose, takesItsStepsAndSucceeds, testing::Test, CLOSES) {
    CloseRow const& row = GetParam();
    Ends ends = makeEnds();
    int const fd = ends.takeMine();
    int const other = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    {
        HookedSocket socket(fd, row.state, row.has_data ? 16 : 0, row.send_error != EAGAIN);
        if (row.has_data) {
            writeHello(socket);
        }
        EXPECT_EQ("(nothing)", receiveAt(ends.getPeer()));
        socket.setHadError();
        socket.failing_hook = row.failing_hook;
        Fault const fault(inject_send, row.send_error, 1, Fault::FOREVER);
        StepRecorder const steps;
        EXPECT_FALSE(socket.close(row.shuts_down));
        EXPECT_EQ(row.steps, steps.get());
        EXPECT_FALSE(socket.had_error_in_closing) << "the error flag is cleared";
        EXPECT_TRUE(succeeded(socket, Socket::DEAD));
        EXPECT_FALSE(isOpen(fd));
        EXPECT_TRUE(socket.close(row.shuts_down));
        EXPECT_TRUE(failed(socket, Socket::DEAD, {misuse("called close on already DEAD socket")}));
        EXPECT_EQ(row.steps, steps.get()) << "a second close takes no step";
    }
    for (std::string const& text : row.received) {
        EXPECT_EQ(text, receiveAt(ends.getPeer()));
    }
    EXPECT_EQ(row.shuts_down ? -1 : 1, send(other, "x", 1, MSG_NOSIGNAL));
    EXPECT_EQ(row.shuts_down ? "(end)" : "x", receiveAt(ends.getPeer()));
    ::close(other);
}

TEST(IPSocket, closeWithoutADescriptorFailsWithoutAReport) {
    for (bool const do_shutdown : {false, true}) {
        EventRecorder const events;
        HookedSocket socket(Socket::INVALID_SOCKET_FD, do_shutdown ? Socket::OPEN : Socket::INACTIVE);
        EXPECT_TRUE(socket.close(do_shutdown));
        EXPECT_TRUE(failed(socket, Socket::DEAD, {}));
        EXPECT_EQ(
            do_shutdown ? "ASSERT framework/src/vesk/posix/SocketPosixCommon shutdownSocket: p_socket_fd != "
                          "INVALID_SOCKET_FD"
                        : "",
            events.getText());
    }
}

// ---- destruction ----

TEST(IPSocket, destructorClosesSilentlyWithoutTheHooksOfTheSubclassUnlessTheSocketIsOpen) {
    Ends ends = makeEnds();
    int const fd = ends.takeMine();
    StepRecorder const steps;
    { HookedSocket const socket(fd, Socket::INACTIVE); }
    EXPECT_EQ(Steps{"close"}, steps.get());
    EXPECT_FALSE(isOpen(fd));
    EventRecorder const events;
    Ends open_ends = makeEnds();
    int const open_fd = open_ends.takeMine();
    int const other = fcntl(open_fd, F_DUPFD_CLOEXEC, 0);
    {
        HookedSocket socket(open_fd, Socket::OPEN, 16);
        writeHello(socket);
    }
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: this->getState() != OPEN", events.getText());
    EXPECT_FALSE(isOpen(open_fd));
    EXPECT_EQ("hello", receiveAt(open_ends.getPeer()));
    EXPECT_EQ("(nothing)", receiveAt(open_ends.getPeer())) << "the connection is not shut down";
    ::close(other);
}

TEST(IPSocket, destructorWithoutADescriptorFailsAnAssertion) {
    EventRecorder const events;
    { HookedSocket const socket(-1, Socket::INACTIVE); }
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: !has_error: error closing socket",
        events.getText());
}

// ---- the addresses of the system ----

/// An operation, its system call, and the accessors of the address that it changes and of the other one.
struct Update : NamedRow {
    Injected* call;
    void (IPSocket::*update)();
    IPAddress const& (IPSocket::*get)() const noexcept;
    IPAddress const& (IPSocket::*get_other)() const noexcept;
};

class IPSocketUpdates : public testing::TestWithParam<Update> {
protected:
    void SetUp() override {
        s_address_calls = AddressCalls();
        m_socket.set(m_fd, Socket::OPEN);
    }
    void TearDown() override {
        s_address_calls = AddressCalls();
        if (m_socket.getState() != Socket::DEAD) {
            m_socket.close(false);
        }
    }

    /// Makes the system answer with an address.
    template <typename Address>
    static void setAnswer(Address const& answer) {
        s_address_calls.answers = true;
        memcpy(&s_address_calls.answer, &answer, sizeof answer);
    }
    void update() { (m_socket.*GetParam().update)(); }
    /// Returns the address that the operation changes, and checks that the other one is not changed.
    std::string getText() const {
        EXPECT_EQ(UNCHANGED, textOf((m_socket.*GetParam().get_other)()));
        return textOf((m_socket.*GetParam().get)());
    }

    static constexpr char const* UNCHANGED = "127.0.0.1 80";

    Ends m_ends = makeEnds();
    int const m_fd = m_ends.takeMine();
    HookedSocket m_socket{{"127.0.0.1", 80}, {"127.0.0.1", 80}, IPSocket::IPV4};
};

TEST_P(IPSocketUpdates, takeAnAddressOfAnyVersionWithItsScopeFrom128ClearBytes) {
    setAnswer(IPAddress::makeHandle(0x01020304, 0x0506));
    m_socket.setHadError();
    update();
    EXPECT_EQ("1.2.3.4 1286", getText());
    EXPECT_TRUE(m_socket.hadError()) << "the flag is unchanged";
    EXPECT_EQ(128U, s_address_calls.room);
    EXPECT_TRUE(s_address_calls.was_cleared);
    EXPECT_EQ(m_fd, s_address_calls.fd);
    in6_addr ip{};
    ip.s6_addr[0] = 0xFE;
    ip.s6_addr[1] = 0x80;
    ip.s6_addr[15] = 1;
    setAnswer(IPAddress::makeHandle(ip, 65535, if_nametoindex("lo")));
    update();
    EXPECT_EQ("fe80::1%lo 65535", getText());
}

TEST_P(IPSocketUpdates, keepTheAddressIfItsFamilyOrTextIsUnknownOrTheCallFails) {
    for (int const family : {AF_UNSPEC, AF_UNIX, AF_PACKET}) {
        sockaddr_in answer = IPAddress::makeHandle(0x01020304, 0x0506);
        answer.sin_family = static_cast<sa_family_t>(family);
        setAnswer(answer);
        update();
        EXPECT_EQ(UNCHANGED, getText()) << family;
    }
    for (int const error : {EBADF, ENOTSOCK, ENOTCONN, ENOBUFS, EINVAL, EFAULT}) {
        Calls const calls(*GetParam().call, 1, error);
        update();
        EXPECT_EQ(UNCHANGED, getText()) << error;
        EXPECT_FALSE(m_socket.hadError());
    }
    setAnswer(IPAddress::makeHandle(in6addr_loopback, 4711, 0));
    ResolverCalls calls;
    calls.failName(EAI_OVERFLOW);
    update();
    EXPECT_EQ(UNCHANGED, getText());
    EXPECT_FALSE(m_socket.hadError());
}

TEST_P(IPSocketUpdates, makeNoCallUnlessTheSocketIsOpen) {
    setAnswer(IPAddress::makeHandle(0x01020304, 0x0506));
    m_socket.set(m_fd, Socket::INACTIVE);
    Calls const calls(*GetParam().call, 0);
    update();
    EXPECT_EQ(UNCHANGED, getText());
    m_socket.close(false);
    update();
    EXPECT_EQ(UNCHANGED, getText());
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

// ---- the host name ----

TEST(IPSocket, hostnameIsThatOfTheMachineAndTakesOneAllocationOf64Bytes) {
    char expected[256] = "";
    ASSERT_EQ(0, gethostname(expected, sizeof expected));
    std::string name = "before";
    EXPECT_FALSE(IPSocket::getHostname(name));
    EXPECT_EQ(expected, name);
    NewFault const calls(New::NOTHROW_ARRAY, 1, 0);
    EXPECT_FALSE(IPSocket::getHostname(name));
    EXPECT_EQ((std::vector<size_t>{64}), calls.getSizes());
}

/// Checks that the host name cannot be read, and that the argument is not changed.
void expectNoHostname(Reports const& reports) {
    std::string name = "before";
    EXPECT_TRUE(IPSocket::getHostname(name));
    EXPECT_TRUE(chainIs(reports));
    EXPECT_EQ("before", name);
}

TEST(IPSocket, hostnameWithoutMemoryFails) {
    Calls const calls(inject_gethostname, 0);
    NewFault const fault(New::NOTHROW_ARRAY);
    expectNoHostname(withText({OUT_OF_MEMORY}, ""));
}

VESK_TEST_ROWS(
    IPSocketHostnameErrors, areReportedAndLeaveTheName,
    errnoRows(
        {{{EFAULT, EINVAL, ENAMETOOLONG}, {SysErrorId::SPOILED_INTEGRITY}},
         {{EPERM, EINTR, ENOSYS, 4711}, {SysErrorId::UNCLASSIFIED}}})) {
    Fault const fault(inject_gethostname, GetParam().error);
    expectNoHostname(GetParam().reports);
    EXPECT_EQ(1, fault.getCalls());
}

TEST(IPSocket, hostnameCanHave63BytesButNot64) {
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
        expectNoHostname(withText({SysErrorId::SPOILED_INTEGRITY}, systemText(ENAMETOOLONG)));
    });
}

TEST(IPSocket, hostnameIsTheSameInManyThreads) {
    std::string expected;
    ASSERT_FALSE(IPSocket::getHostname(expected));
    std::atomic<int> right{0};
    runInThreads(4, [&](int) {
        for (int round = 0; round < 200; ++round) {
            std::string name;
            right += !IPSocket::getHostname(name) && name == expected ? 1 : 0;
        }
    });
    EXPECT_EQ(800, right);
}

} // namespace
