#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"
#include "support/calls/UnixCalls.h"

#include <tarncommon/error/CommonError.h>

#include <atomic>
#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::abstractAddress;
using support::chainIs;
using support::expected;
using support::failureIs;
using support::Fault;
using support::Injected;
using support::makeAbstractName;
using support::misuseIs;
using support::s_unix_calls;
using support::SystemRow;
using support::TempFolder;
using vesk::Path;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnixServerSocket;
using vesk::UnixSocket;
using vesk::UnixSocketBase;

using Description = UnixSocket::Description;

constexpr auto ABSTRACT = UnixSocketBase::ABSTRACT;
constexpr auto FILESYSTEM = UnixSocketBase::FILESYSTEM;
constexpr std::ErrorType const& StreamError = std::IBinStreamBase::StreamError;

static_assert(std::is_base_of_v<UnixSocketBase, UnixServerSocket>);
static_assert(!std::is_copy_constructible_v<UnixServerSocket>);

constexpr char const* OPEN_ASSERTION =
    "ASSERT framework/src/vesk/posix/UnixSocketBase ~UnixSocketBase: this->getState() != OPEN";

/// Whether it is closed for good after a failure that it told by `hadError`.
testing::AssertionResult hasGivenUp(UnixServerSocket const& server) {
    if (server.hadError() && server.getState() == Socket::DEAD && server.getSocketFd() == -1 &&
        !server.isValid()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << server.hadError() << server.getState() << server.getSocketFd();
}

testing::AssertionResult listens(UnixServerSocket& server, unsigned int backlog = 4) {
    server.enableListen(backlog);
    if (!server.hadError() && server.getState() == Socket::OPEN && chainIs({})) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << server.hadError() << server.getState();
}

/// A client of plain system calls, -1 if it cannot connect.
int connectTo(std::string const& address) {
    sockaddr_un binary{};
    memcpy(&binary, address.data(), address.size());
    int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&binary), static_cast<socklen_t>(address.size())) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

bool isEmptyWithoutAnError(Description const& description, UnixServerSocket const& server) {
    return !description.valid && description.socket_fd == -1 && description.local_path.empty() &&
        description.name_space == FILESYSTEM && description.peer_binary.sun_family == 0 && !server.hadError();
}

// ---- construction ----

TEST(UnixServerSocket, startsInactiveWithADescriptorThatExecCloses) {
    Fault const binds(inject_bind, 0);
    UnixServerSocket const server("/run/own", true, FILESYSTEM);
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(server.isValid());
    EXPECT_FALSE(server.hadError());
    EXPECT_EQ(Socket::INACTIVE, server.getState());
    EXPECT_EQ(AF_UNIX, s_unix_calls.domain);
    EXPECT_EQ(SOCK_STREAM | SOCK_CLOEXEC, s_unix_calls.type);
    EXPECT_EQ(0, s_unix_calls.protocol);
    EXPECT_EQ(FD_CLOEXEC, fcntl(server.getSocketFd(), F_GETFD));
    EXPECT_EQ(0, fcntl(server.getSocketFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ("/run/own", server.getLocalPath());
    EXPECT_EQ("", server.getPeerPath());
    EXPECT_EQ(FILESYSTEM, server.getNameSpace());
    EXPECT_FALSE(server.isInputBuffered());
    EXPECT_FALSE(server.isOutputBuffered());
    EXPECT_EQ(0, binds.getCalls());
}

TEST(UnixServerSocket, thatDoesNotWaitHasSuchADescriptor) {
    UnixServerSocket const server("own", false, ABSTRACT);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(server.getSocketFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
}

TEST(UnixServerSocket, withAnEmptyNameIsInvalidWithNothingReported) {
    Fault const sockets(inject_socket, 0);
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        support::EventRecorder const events;
        {
            UnixServerSocket const server("", true, name_space);
            EXPECT_FALSE(server.isValid());
            EXPECT_FALSE(server.hadError());
            EXPECT_EQ(-1, server.getSocketFd());
        }
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ("", events.getText());
    }
    EXPECT_EQ(0, sockets.getCalls());
}

class UnixServerSocketCreation : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixServerSocketCreation, failureMakesItInvalid) {
    support::EventRecorder const events;
    {
        Fault const fault(inject_socket, GetParam().error);
        Fault const closes(inject_close, 0);
        UnixServerSocket const server("own", true, ABSTRACT);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, closes.getCalls());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_FALSE(server.isValid());
        EXPECT_EQ(-1, server.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, server.getState());
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixServerSocketCreation, testing::ValuesIn(support::CREATION_ROWS));

class UnixServerSocketFlags : public testing::TestWithParam<Injected*> {};

TEST_P(UnixServerSocketFlags, thatCannotBeSetMakeItInvalidAndCloseTheDescriptor) {
    support::EventRecorder const events;
    {
        Fault const fault(*GetParam(), EINVAL);
        UnixServerSocket const server("own", false, ABSTRACT);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::UNCLASSIFIED}));
        EXPECT_FALSE(server.isValid());
        EXPECT_EQ(-1, server.getSocketFd());
        EXPECT_EQ(Socket::DEAD, server.getState());
    }
    EXPECT_EQ("", events.getText());
}

TEST_P(UnixServerSocketFlags, thatCannotBeSetEndTheProcessIfItCannotBeClosedEither) {
    auto const end = support::runInChild([] {
        Fault const fault(*GetParam(), EINVAL);
        Fault const closes(inject_close, EBADF);
        UnixServerSocket const server("own", false, ABSTRACT);
        ADD_FAILURE() << "not reached";
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error constructing, error closing")) << end.errors;
}

TEST_P(UnixServerSocketFlags, thatCannotBeSetStayReportedIfTheAbortReturns) {
    support::EventRecorder const events;
    int const fd = dup(1); // The number that the server gets.
    close(fd);
    {
        Fault const fault(*GetParam(), EINVAL);
        Fault const closes(inject_close, EIO);
        UnixServerSocket const server("own", false, ABSTRACT);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::UNCLASSIFIED}));
        EXPECT_FALSE(server.isValid());
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/UnixServerSocket UnixServerSocket: error constructing, error closing",
        events.getText());
    support::closeForReal(fd);
}

INSTANTIATE_TEST_SUITE_P(
    calls, UnixServerSocketFlags, testing::Values(&inject_getfl, &inject_setfl), support::flagCallName);

// ---- enableListen ----

TEST(UnixServerSocket, makesItsFileWhenItBeginsToListenAndRemovesItAtClose) {
    TempFolder const folder;
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_TRUE(listens(server, 17));
    EXPECT_EQ(17, s_unix_calls.backlog);
    EXPECT_EQ((folder / "own").size() + 3, s_unix_calls.bind_length);
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_TRUE(server.isValid());
    EXPECT_FALSE(server.close(false));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, server.getState());
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
}

TEST(UnixServerSocket, thatNeverListenedRemovesNoFile) {
    TempFolder const folder;
    std::string const file = folder.makeFile("own", "precious");
    UnixServerSocket server(file, true, FILESYSTEM);
    EXPECT_FALSE(server.close(false));
    EXPECT_EQ("precious", support::contentOf(file));
}

TEST(UnixServerSocket, withAnAbstractNameOfOneLetterBindsFourBytesAndLeavesNoFile) {
    // Some letter is free, also where another run of this test goes on beside.
    for (char const letter : {'v', 'w', 'x', 'y', 'z'}) {
        UnixServerSocket server(std::string(1, letter), true, ABSTRACT);
        server.enableListen(1);
        if (server.hadError()) {
            EXPECT_TRUE(failureIs({EADDRINUSE, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE}));
            continue;
        }
        EXPECT_EQ(4U, s_unix_calls.bind_length);
        EXPECT_EQ(abstractAddress(std::string(1, letter)), s_unix_calls.bound);
        if (support::keepsAddresses()) {
            EXPECT_EQ(abstractAddress(std::string(1, letter)), support::addressOf(server.getSocketFd()));
        }
        EXPECT_FALSE(support::isSocketFile(std::string(1, letter)));
        support::Process child([&] {
            UnixSocket client(true, 0, 0, "", std::string(1, letter), ABSTRACT);
            EXPECT_FALSE(client.connect());
            EXPECT_TRUE(support::sends(client, "met"));
            EXPECT_FALSE(client.close(true));
        });
        UnixSocket accepted(true, 0, 0, server.acceptConnection());
        EXPECT_TRUE(support::receives(accepted, "met"));
        EXPECT_EQ(0, child.join());
        EXPECT_FALSE(accepted.close(false));
        Fault const removals(inject_unlink, 0);
        EXPECT_FALSE(server.close(false));
        EXPECT_EQ(0, removals.getCalls());
        UnixServerSocket next(std::string(1, letter), true, ABSTRACT);
        next.enableListen(1);
        EXPECT_FALSE(next.hadError()) << "the name has gone with its socket";
        EXPECT_FALSE(next.close(false));
        return;
    }
    FAIL() << "none of the names was free";
}

class UnixServerSocketName : public testing::TestWithParam<size_t> {};

TEST_P(UnixServerSocketName, thatIsAbstractIsExactToTheByte) {
    std::string name = makeAbstractName() + "-\x80\xff\1\n ";
    name.resize(GetParam(), 'n');
    UnixServerSocket server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_unix_calls.bind_length);
    EXPECT_EQ(abstractAddress(name), s_unix_calls.bound);
    if (support::keepsAddresses()) {
        EXPECT_EQ(abstractAddress(name), support::addressOf(server.getSocketFd()));
        int const client = connectTo(abstractAddress(name));
        EXPECT_NE(-1, client);
        EXPECT_EQ(-1, connectTo(abstractAddress(name + '\0'))) << "there is no filler in it";
        EXPECT_EQ(-1, connectTo(abstractAddress(name.substr(0, name.size() - 1))));
        close(client);
    }
    EXPECT_FALSE(server.close(false));
}

INSTANTIATE_TEST_SUITE_P(lengths, UnixServerSocketName, testing::Values(40, 104, 105, 106));

TEST(UnixServerSocket, withAnAbstractNameOf107BytesHasOneThatEndsInAZero) {
    std::string name = makeAbstractName();
    name.resize(107, 'n');
    UnixServerSocket server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(110U, s_unix_calls.bind_length);
    EXPECT_EQ(abstractAddress(name.substr(0, 106) + '\0'), s_unix_calls.bound);
    EXPECT_EQ(abstractAddress(name.substr(0, 106) + '\0'), support::addressOf(server.getSocketFd()));
    UnixSocket client(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(client.connect()) << "a client has the same";
    EXPECT_EQ(name.substr(0, 106) + '\0', client.getPeerPath());
    EXPECT_FALSE(client.close(false));
    EXPECT_FALSE(server.close(false));
}

class UnixServerSocketPath : public testing::TestWithParam<size_t> {};

TEST_P(UnixServerSocketPath, isTheNameOfAFileOfUpTo107Bytes) {
    TempFolder const folder;
    std::string path = folder / "own";
    path.resize(GetParam(), 'p');
    UnixServerSocket server(path, true, FILESYSTEM);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_unix_calls.bind_length);
    EXPECT_TRUE(support::isSocketFile(path));
    EXPECT_FALSE(server.close(false));
    EXPECT_FALSE(support::isSocketFile(path));
}

INSTANTIATE_TEST_SUITE_P(lengths, UnixServerSocketPath, testing::Values(60, 105, 106, 107));

class UnixServerSocketLongName : public testing::TestWithParam<size_t> {};

TEST_P(UnixServerSocketLongName, isRefusedByTheSystem) {
    if (!support::keepsAddresses()) {
        GTEST_SKIP() << "the emulator shortens addresses that are too long";
    }
    TempFolder const folder;
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        std::string path = folder / "own";
        path.resize(GetParam(), 'p');
        UnixServerSocket server(path, true, name_space);
        EXPECT_TRUE(server.isValid());
        server.enableListen(1);
        EXPECT_EQ(GetParam() + 3, s_unix_calls.bind_length);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::SPOILED_INTEGRITY}));
        EXPECT_TRUE(hasGivenUp(server));
        EXPECT_FALSE(support::isSocketFile(path.substr(0, 107)));
    }
}

INSTANTIATE_TEST_SUITE_P(lengths, UnixServerSocketLongName, testing::Values(108, 109, 125, 126, 300, 5000));

TEST(UnixServerSocket, listensOnce) {
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    Fault const binds(inject_bind, 0);
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(misuseIs("enableListen() called in state != INACTIVE"));
    EXPECT_EQ(Socket::OPEN, server.getState());
    EXPECT_EQ(0, binds.getCalls());
    int const client = connectTo(support::addressOf(server.getSocketFd()));
    EXPECT_NE(-1, client) << "it goes on listening";
    close(client);
    EXPECT_FALSE(server.close(false));
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(misuseIs("enableListen() called in state != INACTIVE"));
    EXPECT_EQ(Socket::DEAD, server.getState());
}

class UnixServerSocketBind : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixServerSocketBind, failureLeavesItDeadAndTheFileAlone) {
    TempFolder const folder;
    std::string const foreign = folder.makeFile("own", "somebody else's");
    UnixServerSocket server(foreign, true, FILESYSTEM);
    int const fd = server.getSocketFd();
    {
        Fault const fault(inject_bind, GetParam().error);
        Fault const calls(inject_listen, 0);
        server.enableListen(1);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, calls.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(hasGivenUp(server));
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_EQ("somebody else's", support::contentOf(foreign));
}

TEST_P(UnixServerSocketBind, failureStaysReportedIfTheCloseFailsToo) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    int const fd = server.getSocketFd();
    {
        Fault const fault(inject_bind, GetParam().error);
        Fault const closes(inject_close, EIO);
        server.enableListen(1);
        EXPECT_EQ(1, closes.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(hasGivenUp(server));
    support::closeForReal(fd);
}

INSTANTIATE_TEST_SUITE_P(rows, UnixServerSocketBind, testing::ValuesIn(support::BIND_ROWS));

class UnixServerSocketListen : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixServerSocketListen, failureLeavesItDeadAndRemovesItsFile) {
    TempFolder const folder;
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    int const fd = server.getSocketFd();
    {
        Fault const fault(inject_listen, GetParam().error);
        Fault const removals(inject_unlink, 0);
        server.enableListen(1);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(1, removals.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(hasGivenUp(server));
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
}

TEST_P(UnixServerSocketListen, failureStaysReportedIfTheCleanUpFailsToo) {
    TempFolder const folder;
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    int const fd = server.getSocketFd();
    {
        Fault const fault(inject_listen, GetParam().error);
        Fault const closes(inject_close, EIO);
        Fault const removals(inject_unlink, EBUSY);
        server.enableListen(1);
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(hasGivenUp(server));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    support::closeForReal(fd);
}

INSTANTIATE_TEST_SUITE_P(rows, UnixServerSocketListen, testing::ValuesIn(support::LISTEN_ROWS));

TEST(UnixServerSocket, leftoverFileOfACrashedProcessIsAnAddressInUse) {
    TempFolder const folder;
    support::Process child([&] {
        UnixServerSocket server(folder / "own", true, FILESYSTEM);
        EXPECT_TRUE(listens(server));
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, child.join());
    ASSERT_TRUE(support::isSocketFile(folder / "own"));
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    server.enableListen(1);
    EXPECT_TRUE(failureIs({EADDRINUSE, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE}));
    EXPECT_TRUE(hasGivenUp(server));
    EXPECT_TRUE(support::isSocketFile(folder / "own")) << "it is not removed";
    ASSERT_EQ(0, unlink((folder / "own").c_str()));
    UnixServerSocket next(folder / "own", true, FILESYSTEM);
    EXPECT_TRUE(listens(next));
    EXPECT_FALSE(next.close(false));
}

TEST(UnixServerSocket, abstractNameOfACrashedProcessIsFreeAtOnce) {
    std::string const name = makeAbstractName();
    support::Process child([&] {
        UnixServerSocket server(name, true, ABSTRACT);
        EXPECT_TRUE(listens(server));
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, child.join());
    UnixServerSocket server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, nameOfAServerThatIsThereIsInUse) {
    TempFolder const folder;
    std::string const abstract = makeAbstractName();
    UnixServerSocket by_path(folder / "own", true, FILESYSTEM);
    UnixServerSocket by_name(abstract, true, ABSTRACT);
    EXPECT_TRUE(listens(by_path));
    EXPECT_TRUE(listens(by_name));
    UnixServerSocket second(folder / "own", true, FILESYSTEM);
    second.enableListen(1);
    EXPECT_TRUE(failureIs({EADDRINUSE, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE}));
    EXPECT_TRUE(hasGivenUp(second));
    UnixServerSocket third(abstract, true, ABSTRACT);
    third.enableListen(1);
    EXPECT_TRUE(failureIs({EADDRINUSE, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE}));
    EXPECT_TRUE(hasGivenUp(third));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(by_path.close(false));
    EXPECT_FALSE(by_name.close(false));
}

TEST(UnixServerSocket, bothNameSpacesHaveNamesOfTheirOwn) {
    TempFolder const folder;
    UnixServerSocket by_path(folder / "own", true, FILESYSTEM);
    UnixServerSocket by_name(folder / "own", true, ABSTRACT);
    EXPECT_TRUE(listens(by_path));
    EXPECT_TRUE(listens(by_name));
    UnixSocket client(true, 0, 0, "", folder / "own", ABSTRACT);
    EXPECT_FALSE(client.connect());
    UnixSocket accepted(true, 0, 0, by_name.acceptConnection());
    EXPECT_TRUE(accepted.isValid());
    EXPECT_FALSE(accepted.close(false));
    EXPECT_FALSE(client.close(false));
    EXPECT_FALSE(by_name.close(false));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(by_path.close(false));
}

struct PathCase {
    char const* name;
    int error;
    std::ErrorType const* family;
    int id;
};

void PrintTo(PathCase const& row, std::ostream* out) {
    *out << row.name;
}

class UnixServerSocketBadPath : public testing::TestWithParam<PathCase> {};

TEST_P(UnixServerSocketBadPath, isReported) {
    TempFolder const folder;
    folder.makeFile("file", "precious");
    folder.makeFolder("folder");
    folder.makeLink("loop", folder / "loop");
    UnixServerSocket server(folder / GetParam().name, true, FILESYSTEM);
    server.enableListen(1);
    EXPECT_TRUE(failureIs({GetParam().error, *GetParam().family, GetParam().id}));
    EXPECT_TRUE(hasGivenUp(server));
    EXPECT_EQ("precious", support::contentOf(folder / "file"));
}

INSTANTIATE_TEST_SUITE_P(
    paths, UnixServerSocketBadPath,
    testing::Values(
        PathCase{"none/own", ENOENT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PathCase{"file/own", ENOTDIR, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PathCase{"loop/own", ELOOP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PathCase{"file", EADDRINUSE, &Socket::Error, Socket::ErrorId::ADDRESS_IN_USE},
        PathCase{"folder", EADDRINUSE, &Socket::Error, Socket::ErrorId::ADDRESS_IN_USE},
        PathCase{"loop", EADDRINUSE, &Socket::Error, Socket::ErrorId::ADDRESS_IN_USE}));

TEST(UnixServerSocket, withoutTheRightToMakeItsFileGivesUp) {
    VESK_SKIP_UNLESS_ROOT();
    TempFolder const folder;
    support::expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        UnixServerSocket server(folder / "own", true, FILESYSTEM);
        server.enableListen(1);
        EXPECT_TRUE(failureIs({EACCES, SysError, SysErrorId::PERMISSION_DENIED}));
        EXPECT_TRUE(hasGivenUp(server));
    });
}

TEST(UnixServerSocket, thatIsInvalidCannotListen) {
    support::EventRecorder const events;
    UnixServerSocket server("", true, ABSTRACT);
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(chainIs({{CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon bindSocket: p_socket_fd != INVALID_SOCKET_FD",
        events.getText());
}

TEST(UnixServerSocket, letsItsBacklogWait) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server, 1));
    std::string const address = support::addressOf(server.getSocketFd());
    int const clients[] = {connectTo(address), connectTo(address), connectTo(address)};
    EXPECT_NE(-1, clients[0]);
    EXPECT_NE(-1, clients[1]) << "the system lets one more wait";
    EXPECT_EQ(-1, clients[2]);
    EXPECT_EQ(EAGAIN, errno);
    close(clients[0]);
    close(clients[1]);
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, takesEveryBacklog) {
    for (unsigned int const backlog : {0U, 1U, 1U << 16, 0x7fffffffU, 0xffffffffU}) {
        UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
        EXPECT_TRUE(listens(server, backlog));
        EXPECT_EQ(static_cast<int>(backlog), s_unix_calls.backlog);
        int const client = connectTo(support::addressOf(server.getSocketFd()));
        EXPECT_NE(-1, client) << backlog;
        close(client);
        EXPECT_FALSE(server.close(false));
    }
}

// ---- acceptConnection ----

TEST(UnixServerSocket, acceptsConnectionsInTheirOrder) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    std::string const address = support::addressOf(server.getSocketFd());
    int clients[3];
    for (int& client : clients) {
        client = connectTo(address);
    }
    for (int const client : clients) {
        UnixSocket accepted(true, 0, 0, server.acceptConnection());
        EXPECT_TRUE(accepted.isValid());
        EXPECT_FALSE(server.hadError());
        std::string const text = std::to_string(client);
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(client, text.data(), text.size()));
        EXPECT_TRUE(support::receives(accepted, text));
        EXPECT_FALSE(accepted.close(false));
        close(client);
    }
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, acceptsWithRoomForAWholeAddressAndForExecToClose) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    int const client = connectTo(support::addressOf(server.getSocketFd()));
    EXPECT_TRUE(server.acceptConnection().valid);
    EXPECT_EQ(110U, s_unix_calls.accept_room);
    EXPECT_EQ(SOCK_CLOEXEC, s_unix_calls.accept_flags);
    close(client);
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, waitsForAConnection) {
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    std::atomic<pid_t> waiting{0};
    std::thread thread([&] {
        waiting = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_TRUE(server.acceptConnection().valid);
    });
    while (waiting == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(getpid(), waiting);
    UnixSocket client(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(client.connect());
    thread.join();
    EXPECT_FALSE(server.hadError());
    EXPECT_FALSE(client.close(false));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, thatDoesNotWaitGivesAnEmptyDescriptionWithoutAnError) {
    UnixServerSocket server(makeAbstractName(), false, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_TRUE(isEmptyWithoutAnError(server.acceptConnection(), server));
    EXPECT_TRUE(chainIs({}));
    int const client = connectTo(support::addressOf(server.getSocketFd()));
    EXPECT_TRUE(server.acceptConnection().valid);
    EXPECT_TRUE(isEmptyWithoutAnError(server.acceptConnection(), server));
    close(client);
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, acceptsOnlyWhileItIsOpen) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    Fault const calls(inject_accept4, 0);
    for (int closed = 0; closed < 2; ++closed) {
        Description const description = server.acceptConnection();
        EXPECT_FALSE(description.valid);
        EXPECT_EQ(-1, description.socket_fd);
        EXPECT_EQ("", description.local_path);
        EXPECT_EQ(FILESYSTEM, description.name_space);
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(misuseIs("acceptConnection() called in state != OPEN"));
        if (closed == 0) {
            EXPECT_FALSE(server.close(false));
        }
    }
    EXPECT_EQ(0, calls.getCalls());
}

class UnixServerSocketAccept : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixServerSocketAccept, failureGivesAnEmptyDescriptionAndKeepsTheServerOpen) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    int const client = connectTo(support::addressOf(server.getSocketFd()));
    {
        Fault const fault(inject_accept4, GetParam().error);
        Description const description = server.acceptConnection();
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_FALSE(description.valid);
        EXPECT_EQ(-1, description.socket_fd);
        EXPECT_EQ("", description.local_path);
        EXPECT_EQ(FILESYSTEM, description.name_space);
    }
    EXPECT_EQ(Socket::OPEN, server.getState());
    EXPECT_TRUE(server.acceptConnection().valid);
    EXPECT_FALSE(server.hadError());
    close(client);
    EXPECT_FALSE(server.close(false));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixServerSocketAccept, testing::ValuesIn(support::ACCEPT_ROWS));

TEST(UnixServerSocket, acceptsAgainWhileSignalsInterruptIt) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    int const client = connectTo(support::addressOf(server.getSocketFd()));
    Fault const fault(inject_accept4, EINTR, 1, 4);
    EXPECT_TRUE(server.acceptConnection().valid);
    EXPECT_EQ(5, fault.getCalls());
    EXPECT_EQ(110U, s_unix_calls.accept_room);
    EXPECT_TRUE(chainIs({}));
    close(client);
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocket, withoutDescriptorsLeftKeepsTheConnectionWaiting) {
    support::expectInChild([] {
        UnixServerSocket server(makeAbstractName(), false, ABSTRACT);
        EXPECT_TRUE(listens(server));
        int const client = connectTo(support::addressOf(server.getSocketFd()));
        rlimit const limit{static_cast<rlim_t>(client) + 1, static_cast<rlim_t>(client) + 1};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_FALSE(server.acceptConnection().valid);
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(failureIs({EMFILE, SysError, SysErrorId::RESOURCES_EXHAUSTED}));
        close(client);
        EXPECT_TRUE(server.acceptConnection().valid) << "there is a number again";
        EXPECT_FALSE(server.close(false));
    });
}

TEST(UnixServerSocket, acceptsAClientThatHasGoneAgain) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    close(connectTo(support::addressOf(server.getSocketFd())));
    UnixSocket accepted(true, 0, 0, server.acceptConnection());
    EXPECT_TRUE(accepted.isValid());
    EXPECT_TRUE(support::isAtEnd(accepted));
    EXPECT_FALSE(accepted.close(true));
    EXPECT_FALSE(server.close(false));
}

// ---- its files and those of others ----

TEST(UnixServerSocket, keepsItsFileWhenAnAcceptedSocketCloses) {
    TempFolder const folder;
    support::UnixConnection connection(true, 0, folder / "own", FILESYSTEM);
    EXPECT_FALSE(connection.accepted->close(false));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(connection.server.close(false));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
}

TEST(UnixServerSocket, leavesItsConnectionsAloneWhenItCloses) {
    support::UnixConnection connection;
    EXPECT_FALSE(connection.server.close(true));
    EXPECT_TRUE(support::sends(connection.client, "still here"));
    EXPECT_TRUE(support::receives(*connection.accepted, "still here"));
}

TEST(UnixServerSocket, whoseFileSomebodyHasRemovedFailsToClose) {
    TempFolder const folder;
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    EXPECT_TRUE(listens(server));
    ASSERT_EQ(0, unlink((folder / "own").c_str()));
    EXPECT_TRUE(server.close(false));
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(chainIs(
        {expected({ENOENT, SysError, SysErrorId::INVALID_PATH}),
         {vesk::FileAccessError, vesk::FileAccessErrorId::BAD_PATH, "Bad path '" + folder / "own" + "'"},
         expected({ENOENT, SysError, SysErrorId::SPOILED_INTEGRITY})}));
    EXPECT_EQ(Socket::DEAD, server.getState());
    EXPECT_EQ(-1, server.getSocketFd());
}

TEST(UnixServerSocket, closesOnce) {
    TempFolder const folder;
    UnixServerSocket server(folder / "own", true, FILESYSTEM);
    EXPECT_TRUE(listens(server));
    EXPECT_FALSE(server.close(false));
    std::string const next = folder.makeFile("own", "the next owner's");
    EXPECT_TRUE(server.close(false));
    EXPECT_TRUE(misuseIs("called close on already DEAD socket"));
    EXPECT_EQ("the next owner's", support::contentOf(next));
}

TEST(UnixServerSocket, withARelativePathHasItsFileInTheWorkingDirectory) {
    support::expectInChild([] {
        TempFolder const folder;
        ASSERT_EQ(0, chdir(folder.getPath().c_str()));
        support::UnixConnection connection(true, 0, "own", FILESYSTEM);
        EXPECT_TRUE(support::isSocketFile(folder / "own"));
        EXPECT_EQ("own", connection.client.getPeerPath());
        EXPECT_FALSE(connection.server.close(false));
        EXPECT_FALSE(support::isSocketFile(folder / "own"));
        ASSERT_EQ(0, chdir("/"));
    });
}

// ---- a stream only by descent ----

testing::AssertionResult refusesToBeAStream(UnixServerSocket& server) {
    char byte = 0;
    unsigned int count = 99;
    if (server.read(&byte, 1, count) != -1 || !server.hadError() ||
        !chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              support::rowText(CommonErrorId::CONTRACT_BROKEN, "read operation on server socket is invalid")},
             {StreamError, std::IBinStreamBase::StreamErrorId::NOT_SUPPORTED}})) {
        return testing::AssertionFailure() << "read";
    }
    if (server.write(&byte, 1, count) != -1 || !server.hadError() ||
        !chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              support::rowText(
                  CommonErrorId::CONTRACT_BROKEN, "write operation on server socket is invalid")},
             {StreamError, std::IBinStreamBase::StreamErrorId::NOT_SUPPORTED}})) {
        return testing::AssertionFailure() << "write";
    }
    if (!server.flush(false) || !server.hadError() ||
        !chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              support::rowText(CommonErrorId::CONTRACT_BROKEN, "flush operation on socket is invalid")},
             {StreamError, std::IBinStreamBase::StreamErrorId::NOT_SUPPORTED}})) {
        return testing::AssertionFailure() << "flush";
    }
    return testing::AssertionSuccess();
}

TEST(UnixServerSocketStates, allRefuseToBeAStream) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_TRUE(refusesToBeAStream(server)) << "inactive";
    EXPECT_TRUE(listens(server));
    EXPECT_TRUE(refusesToBeAStream(server)) << "open";
    EXPECT_EQ(Socket::OPEN, server.getState());
    EXPECT_FALSE(server.close(false));
    EXPECT_TRUE(refusesToBeAStream(server)) << "dead";
}

TEST(UnixServerSocketStates, haveNoPeerName) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    server.updatePeerAddress();
    EXPECT_EQ("", server.getPeerPath());
    EXPECT_TRUE(listens(server));
    server.updatePeerAddress();
    EXPECT_EQ("", server.getPeerPath());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixServerSocketStates, inactiveAndDeadHaveNoPeersCredentials) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    for (int closed = 0; closed < 2; ++closed) {
        long long uid = 7;
        long long gid = 7;
        int pid = 7;
        server.getPeerCredentials(uid, gid, pid);
        EXPECT_EQ(-1, uid);
        EXPECT_EQ(-1, gid);
        EXPECT_EQ(-1, pid);
        if (closed == 0) {
            EXPECT_FALSE(server.close(false));
        }
    }
    EXPECT_TRUE(chainIs({}));
}

// ---- the end ----

TEST(UnixServerSocketEnd, ofAnOpenOneIsABrokenInvariantAndRemovesItsFileAllTheSame) {
    support::EventRecorder const events;
    TempFolder const folder;
    int fd = -1;
    {
        UnixServerSocket server(folder / "own", true, FILESYSTEM);
        EXPECT_TRUE(listens(server));
        fd = server.getSocketFd();
    }
    EXPECT_EQ(OPEN_ASSERTION, events.getText());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_TRUE(chainIs({}));
}

TEST(UnixServerSocketEnd, ofOneThatIsNotOpenIsQuiet) {
    support::EventRecorder const events;
    TempFolder const folder;
    int fd = -1;
    {
        UnixServerSocket const server(folder / "own", true, FILESYSTEM);
        fd = server.getSocketFd();
    }
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    {
        UnixServerSocket server(folder / "own", true, FILESYSTEM);
        EXPECT_TRUE(listens(server));
        EXPECT_FALSE(server.close(false));
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

} // namespace
