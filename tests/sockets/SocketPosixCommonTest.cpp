#include "vesk/posix/sockets/SocketPosixCommon.h"

#include "TestSocket.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {
// What the last calls were given.
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

support::Injected inject_shutdown("shutdown");
extern "C" VESK_UNWATCHED int shutdown(int fd, int how) noexcept {
    int error = 0;
    if (inject_shutdown.fails(error)) {
        errno = error;
        return -1;
    }
    s_how = how;
    return reinterpret_cast<int (*)(int, int)>(inject_shutdown.getReal())(fd, how);
}

support::Injected inject_setsockopt("setsockopt");
extern "C" VESK_UNWATCHED int
setsockopt(int fd, int level, int option, void const* value, socklen_t length) noexcept {
    int error = 0;
    if (inject_setsockopt.fails(error)) {
        errno = error;
        return -1;
    }
    if (level == SOL_SOCKET && length == sizeof(int)) {
        s_option = option;
        memcpy(&s_value, value, sizeof s_value);
    }
    return reinterpret_cast<int (*)(int, int, int, void const*, socklen_t)>(inject_setsockopt.getReal())(
        fd, level, option, value, length);
}

namespace {

using namespace vesk::detail;
using support::chainIs;
using support::Ends;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::makeEnds;
using support::makeTcpEnds;
using support::rowText;
using support::systemText;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// A descriptor of a socket that is neither bound nor connected.
class Fresh {
public:
    explicit Fresh(int type = SOCK_STREAM) : m_fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    ~Fresh() { ::close(m_fd); }
    Fresh(Fresh const&) = delete;
    Fresh& operator=(Fresh const&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

/// An address on loopback.
struct Loopback {
    explicit Loopback(uint16_t port = 0) {
        binary.sin_family = AF_INET;
        binary.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        binary.sin_port = htons(port);
    }
    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&binary); }

    /// Takes the address that a descriptor is bound to.
    void take(int fd) {
        socklen_t length = sizeof binary;
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&binary), &length));
    }

    sockaddr_in binary{};
    static constexpr socklen_t LENGTH = sizeof(sockaddr_in);
};

/// What a number leads to. Without a family there is no report.
struct Row {
    int error;
    std::ErrorType const* family;
    int id;
    int result = -1;
};

constexpr std::ErrorType const* SOCKET = &Socket::Error;
constexpr std::ErrorType const* SYSTEM = &SysError;

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

std::vector<ExpectedReport> expectedOf(Row const& row) {
    if (row.family == nullptr) {
        return {};
    }
    return {{*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))}};
}

// ---- setNonBlocking ----

TEST(SetNonBlocking, keepsTheAccessModeAndDropsEveryOtherFlag) {
    Ends ends = makeEnds();
    int const fd = ends.getPeer();
    ASSERT_EQ(0, ::fcntl(fd, F_SETFL, O_APPEND | O_ASYNC));
    ASSERT_EQ(O_APPEND | O_ASYNC, ::fcntl(fd, F_GETFL) & (O_APPEND | O_ASYNC | O_NONBLOCK));
    EXPECT_FALSE(setNonBlocking(fd));
    int const flags = ::fcntl(fd, F_GETFL);
    EXPECT_EQ(O_NONBLOCK, flags & (O_APPEND | O_ASYNC | O_NONBLOCK));
    EXPECT_EQ(O_RDWR, flags & O_ACCMODE);
    EXPECT_TRUE(chainIs({}));
}

TEST(SetNonBlocking, readsTheFlagsAndWritesThemOnce) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    for (int const end : {0, 1}) {
        std::vector<std::pair<int, intptr_t>> commands;
        s_commands = &commands;
        EXPECT_FALSE(setNonBlocking(ends[end]));
        s_commands = nullptr;
        ASSERT_EQ(2U, commands.size());
        EXPECT_EQ(F_GETFL, commands[0].first);
        EXPECT_EQ(F_SETFL, commands[1].first);
        EXPECT_EQ((end == 0 ? O_RDONLY : O_WRONLY) | O_NONBLOCK, commands[1].second);
        ::close(ends[end]);
    }
}

TEST(SetNonBlocking, eitherFailureIsReported) {
    Ends ends = makeEnds();
    for (int const nth : {1, 2}) {
        for (int const error : {EBADF, EINVAL, EINTR, EPERM}) {
            Fault const fault(inject_fcntl, error, nth);
            EXPECT_TRUE(setNonBlocking(ends.getPeer()));
            EXPECT_EQ(nth, fault.getCalls());
            EXPECT_TRUE(
                chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(error))}}));
        }
    }
    EXPECT_EQ(0, ::fcntl(ends.getPeer(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(setNonBlocking(-1));
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EBADF))}}));
}

// ---- Without a descriptor ----

TEST(WithoutADescriptor, helpersBreakAnInvariantAndFailAllTheSame) {
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
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::INVALID_ARGUMENT,
              rowText(std::CommonErrorId::INVALID_ARGUMENT, "p_socket_fd is invalid")}}));
    }
    EXPECT_EQ(0, set.getCalls() + bound.getCalls() + connected.getCalls() + shut.getCalls());
}

// ---- Options ----

class SetReuse : public testing::TestWithParam<Row> {};

TEST_P(SetReuse, failureIsReported) {
    Fresh const fresh;
    Fault const fault(inject_setsockopt, GetParam().error);
    EXPECT_TRUE(setReuse(fresh.get(), true));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

constexpr Row SET_ROWS[] = {
    {EBADF, SOCKET, 0},   {ENOTSOCK, SOCKET, 0}, //
    {EFAULT, SYSTEM, 2},  {EINVAL, SYSTEM, 2},      {EDOM, SYSTEM, 2},
    {EISCONN, SYSTEM, 2}, {ENOPROTOOPT, SOCKET, 1}, //
    {ENOMEM, SYSTEM, 19}, {EACCES, SYSTEM, 19},     {EINTR, SYSTEM, 19},
};

INSTANTIATE_TEST_SUITE_P(rows, SetReuse, testing::ValuesIn(SET_ROWS));

TEST(SetReuse, setsAnIntToOneOrNothing) {
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
    EXPECT_TRUE(chainIs({}));
}

class ClassifySetOptError : public testing::TestWithParam<Row> {};

TEST_P(ClassifySetOptError, reportsErrno) {
    errno = GetParam().error;
    EXPECT_TRUE(classifySetOptError());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(rows, ClassifySetOptError, testing::ValuesIn(SET_ROWS));

class ClassifyGetOptError : public testing::TestWithParam<Row> {};

TEST_P(ClassifyGetOptError, reportsErrno) {
    errno = GetParam().error;
    EXPECT_TRUE(classifyGetOptError());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(
    rows, ClassifyGetOptError,
    testing::Values(
        Row{EBADF, SOCKET, 0}, Row{EINVAL, SOCKET, 0}, Row{ENOTSOCK, SOCKET, 0}, //
        Row{EACCES, SYSTEM, 7},                                                  //
        Row{ENOPROTOOPT, SOCKET, 1},                                             //
        Row{ENOBUFS, SYSTEM, 1},                                                 //
        Row{EFAULT, SYSTEM, 19}, Row{ENOMEM, SYSTEM, 19}, Row{EINTR, SYSTEM, 19}));

class ClassifySocketCreateError : public testing::TestWithParam<Row> {};

TEST_P(ClassifySocketCreateError, reportsErrno) {
    errno = GetParam().error;
    EXPECT_TRUE(classifySocketCreateError());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(
    rows, ClassifySocketCreateError,
    testing::Values(
        Row{EMFILE, SYSTEM, 0}, Row{ENFILE, SYSTEM, 0}, //
        Row{EACCES, SYSTEM, 7},                         //
        Row{EINVAL, SOCKET, 3}, Row{EPROTOTYPE, SOCKET, 3}, Row{EPROTONOSUPPORT, SOCKET, 3},
        Row{EAFNOSUPPORT, SOCKET, 3},                    //
        Row{ENOMEM, SYSTEM, 1}, Row{ENOBUFS, SYSTEM, 1}, //
        Row{EPERM, SYSTEM, 19}, Row{EINTR, SYSTEM, 19}, Row{EFAULT, SYSTEM, 19}));

// ---- bindSocket ----

class BindSocket : public testing::TestWithParam<Row> {};

TEST_P(BindSocket, failureIsReportedAfterOneCall) {
    Fresh const fresh;
    for (bool const tolerate_einval : {false, true}) {
        bool const tolerated = tolerate_einval && GetParam().error == EINVAL;
        Fault const fault(inject_bind, GetParam().error);
        EXPECT_EQ(!tolerated, bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, tolerate_einval));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs(tolerated ? std::vector<ExpectedReport>() : expectedOf(GetParam())));
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, BindSocket,
    testing::Values(
        Row{EINVAL, SYSTEM, 10}, Row{ENOENT, SYSTEM, 10}, Row{EIO, SYSTEM, 10}, Row{EBADF, SYSTEM, 10},
        Row{EFAULT, SYSTEM, 10}, Row{ENOTDIR, SYSTEM, 10}, Row{EISDIR, SYSTEM, 10}, Row{EROFS, SYSTEM, 10},
        Row{ENAMETOOLONG, SYSTEM, 10}, Row{ELOOP, SYSTEM, 10}, Row{ENOTSOCK, SYSTEM, 10},
        Row{EDESTADDRREQ, SYSTEM, 10}, Row{EOPNOTSUPP, SYSTEM, 10}, Row{EAFNOSUPPORT, SYSTEM, 10},
        Row{EISCONN, SYSTEM, 10},      //
        Row{ENOMEM, SYSTEM, 1},        //
        Row{EACCES, SYSTEM, 7},        //
        Row{EADDRINUSE, SOCKET, 4},    //
        Row{EADDRNOTAVAIL, SOCKET, 5}, //
        Row{ENOBUFS, SYSTEM, 0},       //
        Row{EINTR, SYSTEM, 19}, Row{EPERM, SYSTEM, 19}, Row{EAGAIN, SYSTEM, 19}));

TEST(BindSocket, bindsAndTakesASecondTimeOnlyWhereThatIsTolerated) {
    Fresh const fresh;
    EXPECT_FALSE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, false));
    Loopback bound;
    bound.take(fresh.get());
    EXPECT_NE(0, bound.binary.sin_port);
    EXPECT_FALSE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, true));
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(bindSocket(fresh.get(), Loopback().get(), Loopback::LENGTH, false));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EINVAL))}}));

    Fresh const other;
    EXPECT_TRUE(bindSocket(other.get(), bound.get(), Loopback::LENGTH, true));
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::ADDRESS_IN_USE,
          rowText(Socket::ErrorId::ADDRESS_IN_USE, systemText(EADDRINUSE))}}));
}

// ---- connectSocket ----

class ConnectSocket : public testing::TestWithParam<Row> {};

TEST_P(ConnectSocket, givesItsResultAfterOneCall) {
    Fresh const fresh;
    Fault const fault(inject_connect, GetParam().error);
    EXPECT_EQ(GetParam().result, connectSocket(fresh.get(), Loopback().get(), Loopback::LENGTH));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(
    rows, ConnectSocket,
    testing::Values(
        Row{EALREADY, nullptr, 0, 1}, Row{EINPROGRESS, nullptr, 0, 1}, //
        Row{EPERM, SYSTEM, 7}, Row{EACCES, SYSTEM, 7},                 //
        Row{ENOENT, SYSTEM, 10}, Row{EBADF, SYSTEM, 10}, Row{EFAULT, SYSTEM, 10}, Row{ENOTDIR, SYSTEM, 10},
        Row{EINVAL, SYSTEM, 10}, Row{ENAMETOOLONG, SYSTEM, 10}, Row{ELOOP, SYSTEM, 10},
        Row{ENOTSOCK, SYSTEM, 10}, Row{EPROTOTYPE, SYSTEM, 10}, Row{EOPNOTSUPP, SYSTEM, 10},
        Row{EAFNOSUPPORT, SYSTEM, 10}, Row{EISCONN, SYSTEM, 10}, Row{ETIMEDOUT, SYSTEM, 10}, //
        Row{EAGAIN, SYSTEM, 0}, Row{ENOBUFS, SYSTEM, 0},                                     //
        Row{EADDRINUSE, SOCKET, 4},                                                          //
        Row{EADDRNOTAVAIL, SOCKET, 5},                                                       //
        Row{ENETDOWN, SOCKET, 8}, Row{ENETUNREACH, SOCKET, 8},                               //
        Row{ECONNRESET, SOCKET, 6},                                                          //
        Row{ECONNREFUSED, SOCKET, 7}, Row{EHOSTUNREACH, SOCKET, 7},                          //
        Row{ENOMEM, SYSTEM, 19}, Row{EIO, SYSTEM, 19}, Row{EPROTO, SYSTEM, 19}));

TEST(ConnectSocket, isRepeatedWhileASignalInterruptsIt) {
    Fresh const listener;
    ASSERT_EQ(0, ::bind(listener.get(), Loopback().get(), Loopback::LENGTH));
    ASSERT_EQ(0, ::listen(listener.get(), 1));
    Loopback address;
    address.take(listener.get());
    Fresh const fresh;
    Fault const fault(inject_connect, EINTR, 1, 3);
    EXPECT_EQ(0, connectSocket(fresh.get(), address.get(), Loopback::LENGTH));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(-1, connectSocket(fresh.get(), address.get(), Loopback::LENGTH));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EISCONN))}}));
}

TEST(ConnectSocket, toAPortOfNobodyIsRefused) {
    Loopback address;
    {
        Fresh const gone;
        ASSERT_EQ(0, ::bind(gone.get(), address.get(), Loopback::LENGTH));
        address.take(gone.get());
        Fresh const fresh;
        EXPECT_EQ(-1, connectSocket(fresh.get(), address.get(), Loopback::LENGTH)) << "it does not listen";
    }
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::PEER_UNREACHABLE,
          rowText(Socket::ErrorId::PEER_UNREACHABLE, systemText(ECONNREFUSED))}}));
}

// ---- shutdownSocket ----

class ShutdownSocket : public testing::TestWithParam<Row> {};

TEST_P(ShutdownSocket, failureIsReportedAfterOneCall) {
    Ends ends = makeEnds();
    Fault const fault(inject_shutdown, GetParam().error);
    EXPECT_TRUE(shutdownSocket(ends.getPeer()));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(
    rows, ShutdownSocket,
    testing::Values(
        Row{EBADF, SYSTEM, 10}, Row{EINVAL, SYSTEM, 10}, Row{ENOTSOCK, SYSTEM, 10},
        Row{ENOTCONN, SYSTEM, 10}, //
        Row{ENOBUFS, SYSTEM, 0},   //
        Row{EINTR, SYSTEM, 19}, Row{EIO, SYSTEM, 19}, Row{EPERM, SYSTEM, 19}));

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
    EXPECT_TRUE(chainIs({}));

    Fresh const fresh;
    EXPECT_TRUE(shutdownSocket(fresh.get()));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(ENOTCONN))}}));
}

// ---- closeKeepingChain ----

TEST(CloseKeepingChain, leavesTheReportsAsTheyWere) {
    for (bool const close_fails : {false, true}) {
        errno = ECONNRESET;
        report("here", Chain::NEW, Socket::Error, Socket::ErrorId::CONNECTION_RESET, "cause");
        report("there", Chain::ON_TOP, SysError, SysErrorId::SPOILED_INTEGRITY, "effect");
        int failures = 0;
        closeKeepingChain(
            [&] {
                EXPECT_FALSE(std::ErrorStorage::isError(true)) << "the clean-up starts without";
                if (close_fails) {
                    report("close", Chain::NEW, SysError, SysErrorId::UNCLASSIFIED, "another");
                }
                return close_fails;
            },
            [&] { ++failures; });
        EXPECT_EQ(close_fails ? 1 : 0, failures);
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::CONNECTION_RESET, rowText(Socket::ErrorId::CONNECTION_RESET, "cause")},
             {SysError, SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, "effect")}}));
    }
}

} // namespace
