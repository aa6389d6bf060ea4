#include "vesk/posix/sockets/SocketPosixCommon.h"

#include "SocketRows.h"
#include "TestSocket.h"
#include "support/InjectNoting.h"

#include <tarncommon/error/ErrorStorage.h>

#include <cstdint>
#include <functional>

namespace {
// The arguments of the last calls.
std::vector<std::pair<int, intptr_t>>* s_commands = nullptr;
int s_how = -1;
int s_option = -1;
int s_value = -1;
} // namespace

VESK_INJECT_ERRNO(int, -1, bind, (int fd, sockaddr const* a, socklen_t length) noexcept, (fd, a, length))
VESK_INJECT_ERRNO(int, -1, connect, (int fd, sockaddr const* a, socklen_t length), (fd, a, length))

support::Injected inject_fcntl("fcntl");
extern "C" VESK_UNWATCHED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    intptr_t const argument = va_arg(arguments, intptr_t);
    va_end(arguments);
    int error = 0;
    if (inject_fcntl.fails(error)) {
        errno = error;
        return -1;
    }
    if (s_commands != nullptr) {
        s_commands->emplace_back(command, command == F_SETFL ? static_cast<int>(argument) : 0);
    }
    return reinterpret_cast<int (*)(int, int, ...)>(inject_fcntl.getReal())(fd, command, argument);
}

VESK_INJECT_NOTING(int, -1, shutdown, (int fd, int how) noexcept, (fd, how), s_how = how)
VESK_INJECT_NOTING(
    int, -1, setsockopt, (int fd, int level, int option, void const* value, socklen_t length) noexcept,
    (fd, level, option, value, length), s_option = option, s_value = *static_cast<int const*>(value))

namespace {

using namespace vesk::detail;
using namespace support;
using support::ErrnoRow;

/// The descriptor of a TCP socket that is neither bound nor connected.
class Fresh : private tarnbase::NonCopyable {
public:
    Fresh() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Fresh() { ::close(m_fd); }
    int get() const { return m_fd; }

private:
    int m_fd;
};

/// An address of the loopback interface.
struct Loopback {
    Loopback() {
        binary.sin_family = AF_INET;
        binary.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&binary); }

    /// Becomes the address that a descriptor is bound to.
    void take(int fd) {
        socklen_t length = sizeof binary;
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&binary), &length));
    }

    sockaddr_in binary{};
    static constexpr socklen_t LENGTH = sizeof(sockaddr_in);
};

// ---- setNonBlocking ----

TEST(SetNonBlocking, keepsTheAccessModeAndDropsEveryOtherFlagWithOneReadAndOneWrite) {
    Ends ends = makeEnds();
    int const fd = ends.getPeer();
    ASSERT_EQ(0, ::fcntl(fd, F_SETFL, O_APPEND | O_ASYNC));
    ASSERT_EQ(O_APPEND | O_ASYNC, ::fcntl(fd, F_GETFL) & (O_APPEND | O_ASYNC | O_NONBLOCK));
    EXPECT_FALSE(setNonBlocking(fd));
    int const flags = ::fcntl(fd, F_GETFL);
    EXPECT_EQ(O_NONBLOCK, flags & (O_APPEND | O_ASYNC | O_NONBLOCK));
    EXPECT_EQ(O_RDWR, flags & O_ACCMODE);
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    for (int const end : {0, 1}) {
        std::vector<std::pair<int, intptr_t>> commands;
        s_commands = &commands;
        EXPECT_FALSE(setNonBlocking(pipe_ends[end]));
        s_commands = nullptr;
        ASSERT_EQ(2U, commands.size());
        EXPECT_EQ(F_GETFL, commands[0].first);
        EXPECT_EQ(F_SETFL, commands[1].first);
        EXPECT_EQ((end == 0 ? O_RDONLY : O_WRONLY) | O_NONBLOCK, commands[1].second);
        ::close(pipe_ends[end]);
    }
}

TEST(SetNonBlocking, failureOfEachCallIsReported) {
    Ends ends = makeEnds();
    for (int const nth : {1, 2}) {
        for (int const error : {EBADF, EINVAL, EINTR, EPERM}) {
            Fault const fault(inject_fcntl, error, nth);
            EXPECT_TRUE(setNonBlocking(ends.getPeer()));
            EXPECT_EQ(nth, fault.getCalls());
            EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
        }
    }
    EXPECT_EQ(0, ::fcntl(ends.getPeer(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(setNonBlocking(-1));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EBADF));
}

// ---- Without a descriptor ----

TEST(WithoutADescriptor, helpersFailAnAssertionAndReturnAFailure) {
    Loopback const address;
    struct {
        char const* name;
        std::function<bool()> call;
    } const helpers[] = {
        {"setReuse", [] { return setReuse(-1, true); }},
        {"bindSocket", [&] { return bindSocket(-1, address.get(), Loopback::LENGTH, true); }},
        {"connectSocket", [&] { return connectSocket(-1, address.get(), Loopback::LENGTH) == -1; }},
        {"shutdownSocket", [] { return shutdownSocket(-1); }},
    };
    Fault const set(inject_setsockopt, 0);
    Fault const bound(inject_bind, 0);
    Fault const connected(inject_connect, 0);
    Fault const shut(inject_shutdown, 0);
    for (auto const& helper : helpers) {
        EventRecorder const events;
        EXPECT_TRUE(helper.call()) << helper.name;
        EXPECT_EQ(
            std::string("ASSERT framework/src/vesk/posix/SocketPosixCommon ") + helper.name +
                ": p_socket_fd != INVALID_SOCKET_FD",
            events.getText());
        EXPECT_TRUE(chainIs("p_socket_fd is invalid", {std::CommonErrorId::INVALID_ARGUMENT}));
    }
    EXPECT_EQ(0, set.getCalls() + bound.getCalls() + connected.getCalls() + shut.getCalls());
}

// ---- Options ----

VESK_TEST_ROWS(SetReuse, failureIsReported, setOptionRows()) {
    Fresh const fresh;
    Fault const fault(inject_setsockopt, GetParam().error);
    EXPECT_TRUE(setReuse(fresh.get(), true));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(GetParam().reports));
}

TEST(SetReuse, setsAnIntToOneOrZero) {
    Fresh const fresh;
    for (bool const on : {true, false, true}) {
        EXPECT_FALSE(setReuse(fresh.get(), on));
        EXPECT_EQ(SO_REUSEADDR, s_option);
        EXPECT_EQ(on ? 1 : 0, s_value);
        int value = -1;
        socklen_t length = sizeof value;
        ASSERT_EQ(0, getsockopt(fresh.get(), SOL_SOCKET, SO_REUSEADDR, &value, &length));
        EXPECT_EQ(on, value != 0);
    }
}

/// Checks that a function reports `errno`.
void expectReported(bool (*classify)(), ErrnoRow const& row) {
    errno = row.error;
    EXPECT_TRUE(classify());
    EXPECT_TRUE(chainIs(row.reports));
}

VESK_TEST_ROWS(ClassifySetOptError, reportsErrno, setOptionRows()) {
    expectReported(classifySetOptError, GetParam());
}

VESK_TEST_ROWS(ClassifyGetOptError, reportsErrno, getOptionRows()) {
    expectReported(classifyGetOptError, GetParam());
}

VESK_TEST_ROWS(ClassifySocketCreateError, reportsErrno, createRows()) {
    expectReported(classifySocketCreateError, GetParam());
}

// ---- bindSocket ----

VESK_TEST_ROWS(BindSocket, failureIsReportedAfterOneCall, bindRows()) {
    Fresh const fresh;
    for (bool const tolerate_einval : {false, true}) {
        bool const tolerated = tolerate_einval && GetParam().error == EINVAL;
        Fault const fault(inject_bind, GetParam().error);
        EXPECT_EQ(!tolerated, bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, tolerate_einval));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs(tolerated ? Reports() : GetParam().reports));
    }
}

TEST(BindSocket, secondBindFailsUnlessItIsTolerated) {
    Fresh const fresh;
    EXPECT_FALSE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, false));
    Loopback bound;
    bound.take(fresh.get());
    EXPECT_NE(0, bound.binary.sin_port);
    EXPECT_FALSE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, true));
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, false));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL));

    Fresh const other;
    EXPECT_TRUE(bindSocket(other.get(), bound.get(), Loopback::LENGTH, true));
    EXPECT_TRUE(causeIs(SocketErrorId::ADDRESS_IN_USE, EADDRINUSE));
}

// ---- connectSocket ----

VESK_TEST_ROWS(ConnectSocket, returnsItsResultAfterOneCall, connectRows()) {
    Fresh const fresh;
    Fault const fault(inject_connect, GetParam().error);
    EXPECT_EQ(
        GetParam().reports.empty() ? 1 : -1, connectSocket(fresh.get(), Loopback().get(), Loopback::LENGTH));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(GetParam().reports));
}

TEST(ConnectSocket, isRepeatedWhileASignalInterruptsItAndRefusedByAPortWithoutAListener) {
    Fresh const listener;
    ASSERT_EQ(0, ::bind(listener.get(), Loopback().get(), Loopback::LENGTH));
    ASSERT_EQ(0, ::listen(listener.get(), 1));
    Loopback address;
    address.take(listener.get());
    Fresh const fresh;
    Fault const fault(inject_connect, EINTR, 1, 3);
    EXPECT_EQ(0, connectSocket(fresh.get(), address.get(), Loopback::LENGTH));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_EQ(-1, connectSocket(fresh.get(), address.get(), Loopback::LENGTH));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EISCONN));
    Loopback closed_port;
    Fresh const gone;
    ASSERT_EQ(0, ::bind(gone.get(), closed_port.get(), Loopback::LENGTH));
    closed_port.take(gone.get());
    Fresh const other;
    EXPECT_EQ(-1, connectSocket(other.get(), closed_port.get(), Loopback::LENGTH))
        << "the socket does not listen";
    EXPECT_TRUE(causeIs(SocketErrorId::PEER_UNREACHABLE, ECONNREFUSED));
}

// ---- shutdownSocket ----

VESK_TEST_ROWS(ShutdownSocket, failureIsReportedAfterOneCall, shutdownRows()) {
    Ends ends = makeEnds();
    Fault const fault(inject_shutdown, GetParam().error);
    EXPECT_TRUE(shutdownSocket(ends.getPeer()));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(GetParam().reports));
}

TEST(ShutdownSocket, endsBothDirectionsAndKeepsTheDescriptor) {
    Ends ends = makeTcpEnds();
    int const mine = ends.takeMine();
    EXPECT_FALSE(shutdownSocket(mine));
    EXPECT_EQ(SHUT_RDWR, s_how);
    EXPECT_EQ("", ends.receive(1)) << "the end";
    char byte = 0;
    EXPECT_EQ(0, recv(mine, &byte, 1, 0));
    EXPECT_EQ(-1, send(mine, &byte, 1, MSG_NOSIGNAL));
    EXPECT_EQ(0, ::close(mine));

    Fresh const fresh;
    EXPECT_TRUE(shutdownSocket(fresh.get()));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ENOTCONN));
}

// ---- closeKeepingChain ----

TEST(CloseKeepingChain, keepsThePendingReports) {
    for (bool const close_fails : {false, true}) {
        report("here", Chain::NEW, SocketErrorId::CONNECTION_RESET, "text");
        report("there", Chain::ON_TOP, SysErrorId::SPOILED_INTEGRITY, "text");
        int failures = 0;
        closeKeepingChain(
            [&] {
                EXPECT_FALSE(std::ErrorStorage::isError(true)) << "the clean-up starts without reports";
                if (close_fails) {
                    report("close", Chain::NEW, SysErrorId::UNCLASSIFIED, "another");
                }
                return close_fails;
            },
            [&] { ++failures; });
        EXPECT_EQ(close_fails ? 1 : 0, failures);
        EXPECT_TRUE(chainIs("text", {SocketErrorId::CONNECTION_RESET, SysErrorId::SPOILED_INTEGRITY}));
    }
}

} // namespace
