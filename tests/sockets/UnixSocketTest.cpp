#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"
#include "support/calls/UnixCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/Group.h>
#include <vesk/ProcessTNG.h>
#include <vesk/User.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <set>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>
#include <utility>

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
using support::UnixConnection;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::Path;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnixServerSocket;
using vesk::UnixSocket;
using vesk::UnixSocketBase;

constexpr auto ABSTRACT = UnixSocketBase::ABSTRACT;
constexpr auto FILESYSTEM = UnixSocketBase::FILESYSTEM;
constexpr std::ErrorType const& StreamError = std::IBinStreamBase::StreamError;

static_assert(ABSTRACT == 0 && FILESYSTEM == 1);
static_assert(std::is_base_of_v<Socket, UnixSocketBase> && std::is_base_of_v<UnixSocketBase, UnixSocket>);
static_assert(!std::is_copy_constructible_v<UnixSocket>);
static_assert(std::is_destructible_v<UnixSocketBase>);

constexpr char const* OPEN_ASSERTION =
    "ASSERT framework/src/vesk/posix/UnixSocketBase ~UnixSocketBase: this->getState() != OPEN";
constexpr char const* CLOSE_ASSERTION =
    "ASSERT framework/src/vesk/posix/UnixSocketBase ~UnixSocketBase: !has_error: error closing socket";

/// Shows what is for subclasses only.
class TestedSocket : public UnixSocket {
public:
    using UnixSocket::UnixSocket;
    using UnixSocketBase::m_bound;
    using UnixSocketBase::m_local_binary;
    using UnixSocketBase::m_local_length;
    using UnixSocketBase::m_peer_binary;
    using UnixSocketBase::m_peer_length;

    static_assert(sizeof m_local_binary == 110 && sizeof m_peer_binary == 110);
};

std::string allOf(sockaddr_un const& address) {
    return support::bytesOf(&address, sizeof address);
}

/// An address with zeros up to its end.
std::string filled(std::string const& address) {
    return address + std::string(sizeof(sockaddr_un) - address.size(), '\0');
}

std::string pathAddress(std::string const& path) {
    return abstractAddress("").substr(0, 2) + path;
}

/// A server of plain system calls.
class PlainServer {
public:
    explicit PlainServer(std::string const& address, int backlog = 8, int type = SOCK_STREAM)
        : m_fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        sockaddr_un binary{};
        memcpy(&binary, address.data(), address.size());
        auto const length = static_cast<socklen_t>(address.size());
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr*>(&binary), length)) << strerror(errno);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, listen(m_fd, backlog));
        }
    }
    ~PlainServer() { close(m_fd); }

    PlainServer(PlainServer const&) = delete;
    PlainServer& operator=(PlainServer const&) = delete;

    int getFd() const { return m_fd; }
    int acceptOne() const { return accept4(m_fd, nullptr, &m_no_room, SOCK_CLOEXEC); }

private:
    int m_fd;
    mutable socklen_t m_no_room = 0;
};

// ---- construction ----

TEST(UnixSocket, startsInactiveWithADescriptorThatExecCloses) {
    UnixSocket const socket(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_EQ(AF_UNIX, s_unix_calls.domain);
    EXPECT_EQ(SOCK_STREAM | SOCK_CLOEXEC, s_unix_calls.type);
    EXPECT_EQ(0, s_unix_calls.protocol);
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket.getSocketFd(), F_GETFD));
    EXPECT_EQ(0, fcntl(socket.getSocketFd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ("", socket.getLocalPath());
    EXPECT_EQ("peer", socket.getPeerPath());
    EXPECT_EQ(ABSTRACT, socket.getNameSpace());
}

TEST(UnixSocket, thatDoesNotWaitHasSuchADescriptor) {
    UnixSocket const socket(false, 0, 0, "own", "", FILESYSTEM);
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(socket.getSocketFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(FILESYSTEM, socket.getNameSpace());
    EXPECT_EQ("own", socket.getLocalPath());
}

TEST(UnixSocket, preparesTheAddressesOfItsNames) {
    TestedSocket const both(true, 0, 0, "own", "peer", FILESYSTEM);
    EXPECT_EQ(6U, both.m_local_length);
    EXPECT_EQ(7U, both.m_peer_length);
    EXPECT_EQ(filled(pathAddress("own")), allOf(both.m_local_binary));
    EXPECT_EQ(filled(pathAddress("peer")), allOf(both.m_peer_binary));
    EXPECT_FALSE(both.m_bound);

    TestedSocket const local(true, 0, 0, "own", "", ABSTRACT);
    EXPECT_TRUE(local.isValid());
    EXPECT_EQ(6U, local.m_local_length);
    EXPECT_EQ(filled(abstractAddress("own")), allOf(local.m_local_binary));
    EXPECT_EQ(0U, local.m_peer_length);
    EXPECT_EQ(std::string(110, '\0'), allOf(local.m_peer_binary));

    TestedSocket const peer(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_EQ(0U, peer.m_local_length);
    EXPECT_EQ(std::string(110, '\0'), allOf(peer.m_local_binary));
    EXPECT_EQ(filled(abstractAddress("peer")), allOf(peer.m_peer_binary));
}

TEST(UnixSocket, withTwoEmptyPathsIsInvalidWithNothingReported) {
    Fault const sockets(inject_socket, 0);
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        UnixSocket const socket(true, 0, 0, "", "", name_space);
        EXPECT_FALSE(socket.isValid());
        EXPECT_TRUE(chainIs({}));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
    }
    EXPECT_EQ(0, sockets.getCalls());
}

TEST(UnixSocket, withoutMemoryForABufferIsInvalidAndMakesNoDescriptor) {
    Fault const sockets(inject_socket, 0);
    for (unsigned int const read_buffer : {0U, 64U}) {
        support::NewFault const fault(support::New::NOTHROW_ARRAY);
        UnixSocket const socket(true, read_buffer, 64 - read_buffer, "", "peer", ABSTRACT);
        EXPECT_FALSE(socket.isValid());
        EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ(0, sockets.getCalls());
}

class UnixSocketCreation : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixSocketCreation, failureMakesItInvalid) {
    support::EventRecorder const events;
    {
        Fault const fault(inject_socket, GetParam().error);
        Fault const closes(inject_close, 0);
        UnixSocket const socket(true, 0, 0, "", "peer", ABSTRACT);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, closes.getCalls());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
    }
    EXPECT_EQ("", events.getText()) << "it is destroyed without a word";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixSocketCreation, testing::ValuesIn(support::CREATION_ROWS));

TEST(UnixSocket, isNotMadeWithoutDescriptorsLeft) {
    support::expectInChild([] {
        // A sanitizer takes descriptors for its first look at an object.
        EXPECT_TRUE(UnixSocket(true, 0, 0, "", "peer", ABSTRACT).isValid());
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        UnixSocket const socket(true, 0, 0, "", "peer", ABSTRACT);
        EXPECT_TRUE(failureIs({EMFILE, SysError, SysErrorId::RESOURCES_EXHAUSTED}));
        EXPECT_FALSE(socket.isValid());
    });
}

class UnixSocketFlags : public testing::TestWithParam<Injected*> {};

TEST_P(UnixSocketFlags, thatCannotBeSetMakeItInvalidAndCloseTheDescriptor) {
    support::EventRecorder const events;
    {
        Fault const fault(*GetParam(), EINVAL);
        Fault const closes(inject_close, EINTR);
        UnixSocket const socket(false, 0, 0, "", "peer", ABSTRACT);
        EXPECT_EQ(2, closes.getCalls());
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::UNCLASSIFIED}));
        EXPECT_FALSE(socket.isValid());
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::DEAD, socket.getState());
    }
    EXPECT_EQ("", events.getText());
}

TEST_P(UnixSocketFlags, thatCannotBeSetEndTheProcessIfItCannotBeClosedEither) {
    auto const end = support::runInChild([] {
        Fault const fault(*GetParam(), EINVAL);
        Fault const closes(inject_close, EIO);
        UnixSocket const socket(false, 0, 0, "", "peer", ABSTRACT);
        ADD_FAILURE() << "not reached";
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("ctor error, close error")) << end.errors;
}

TEST_P(UnixSocketFlags, thatCannotBeSetStayReportedIfTheAbortReturns) {
    support::EventRecorder const events;
    int const fd = dup(1); // The number that the socket gets.
    close(fd);
    {
        Fault const fault(*GetParam(), EINVAL);
        Fault const closes(inject_close, EIO);
        UnixSocket const socket(false, 0, 0, "", "peer", ABSTRACT);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::UNCLASSIFIED}));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/UnixSocket UnixSocket: ctor error, close error", events.getText());
    support::closeForReal(fd);
}

INSTANTIATE_TEST_SUITE_P(
    calls, UnixSocketFlags, testing::Values(&inject_getfl, &inject_setfl), support::flagCallName);

// ---- prepareAddress ----

class UnixSocketAddress : public testing::TestWithParam<size_t> {};

TEST_P(UnixSocketAddress, ofAPathIsCutAt107BytesAndCountsThemAll) {
    TestedSocket const socket(true, 0, 0, "", "peer", FILESYSTEM);
    std::string const path(GetParam(), 'p');
    sockaddr_un address{};
    EXPECT_EQ(GetParam() + 3, socket.prepareAddress(address, path));
    EXPECT_EQ(filled(pathAddress(path.substr(0, 107))), allOf(address));
}

TEST_P(UnixSocketAddress, ofAnAbstractNameIsCutAt106BytesAndCountsThemAll) {
    TestedSocket const socket(true, 0, 0, "", "peer", ABSTRACT);
    std::string const name(GetParam(), 'n');
    sockaddr_un address{};
    EXPECT_EQ(GetParam() + 3, socket.prepareAddress(address, name));
    EXPECT_EQ(filled(abstractAddress(name.substr(0, 106))), allOf(address));
}

INSTANTIATE_TEST_SUITE_P(
    lengths, UnixSocketAddress, testing::Values(0, 1, 2, 104, 105, 106, 107, 108, 109, 110, 300));

TEST(UnixSocket, addressTakesEveryByteButZero) {
    std::string name;
    for (int byte = 1; byte < 100; ++byte) {
        name += static_cast<char>(byte % 2 == 0 ? byte : 256 - byte);
    }
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        TestedSocket const socket(true, 0, 0, "", "peer", name_space);
        sockaddr_un address{};
        EXPECT_EQ(102U, socket.prepareAddress(address, name));
        EXPECT_EQ(filled(name_space == ABSTRACT ? abstractAddress(name) : pathAddress(name)), allOf(address));
        sockaddr_un with_zero{};
        EXPECT_EQ(6U, socket.prepareAddress(with_zero, std::string("a\0b", 3)));
        EXPECT_EQ(filled(name_space == ABSTRACT ? abstractAddress("a") : pathAddress("a")), allOf(with_zero));
    }
}

TEST(UnixSocket, withAPathHasAPlaceInItsObjectForAllThatTheSystemCopies) {
    // It copies up to 128 bytes before it looks at the length.
    TestedSocket const socket(true, 0, 0, "own", "peer", ABSTRACT);
    auto const* const end = reinterpret_cast<char const*>(&socket) + sizeof socket;
    EXPECT_GE(end - reinterpret_cast<char const*>(&socket.m_peer_binary), 128);
    EXPECT_GE(end - reinterpret_cast<char const*>(&socket.m_local_binary), 128);
}

// ---- connect ----

TEST(UnixSocket, connectsByAPath) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    UnixSocket socket(true, 0, 0, "", folder / "server", FILESYSTEM);
    EXPECT_FALSE(socket.connect());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(folder / "server", socket.getPeerPath());
    EXPECT_EQ((folder / "server").size() + 3, s_unix_calls.connect_length);
    EXPECT_EQ(pathAddress(folder / "server") + '\0', s_unix_calls.connected);
    EXPECT_FALSE(socket.close(false));
    EXPECT_TRUE(support::isSocketFile(folder / "server"));
}

TEST(UnixSocket, connectsByAnAbstractName) {
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    server.enableListen(1);
    UnixSocket socket(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(socket.connect());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ(abstractAddress(name), s_unix_calls.connected);
    EXPECT_EQ(name.size() + 3, s_unix_calls.connect_length);
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixSocket, withoutANameOfItsOwnDoesNotBind) {
    Fault const binds(inject_bind, 0);
    std::string const name = makeAbstractName();
    PlainServer const server(abstractAddress(name));
    EXPECT_EQ(1, binds.getCalls());
    UnixSocket socket(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(socket.connect());
    EXPECT_EQ(1, binds.getCalls());
    EXPECT_FALSE(socket.close(false));
}

TEST(UnixSocket, withAPathOfItsOwnBindsBeforeItConnectsAndRemovesItsFileAtClose) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    TestedSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(socket.connect());
    EXPECT_TRUE(socket.m_bound);
    EXPECT_EQ((folder / "own").size() + 3, s_unix_calls.bind_length);
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(socket.close(false));
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_TRUE(support::isSocketFile(folder / "server")) << "that is not its own";
}

TEST(UnixSocket, showsItsOwnNameToTheServer) {
    TempFolder const folder;
    UnixConnection by_path(true, 0, folder / "server", FILESYSTEM, folder / "own");
    EXPECT_EQ(folder / "own", by_path.accepted->getPeerPath());
    EXPECT_EQ(folder / "server", by_path.client.getPeerPath());
    EXPECT_EQ(folder / "server", by_path.accepted->getLocalPath());

    std::string const name = makeAbstractName();
    UnixConnection abstract(true, 0, makeAbstractName(), ABSTRACT, name);
    if (!support::keepsAddresses()) {
        GTEST_SKIP() << "the emulator puts a zero behind abstract names";
    }
    EXPECT_EQ(name, abstract.accepted->getPeerPath());
    EXPECT_EQ(abstract.server.getLocalPath(), abstract.client.getPeerPath());
    EXPECT_EQ(abstractAddress(name), support::addressOf(abstract.client.getSocketFd()));
}

TEST(UnixSocket, connectsOnce) {
    UnixConnection connection;
    EXPECT_FALSE(connection.client.connect());
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::OPEN, connection.client.getState());
    EXPECT_TRUE(support::sends(connection.client, "still connected"));
    EXPECT_TRUE(support::receives(*connection.accepted, "still connected"));
    EXPECT_FALSE(connection.accepted->connect()) << "neither does an adopted one";
    EXPECT_TRUE(connection.accepted->hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
}

TEST(UnixSocket, cannotConnectAfterClose) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UnixSocket, learnsTheNameThatTheServerHasBound) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    folder.makeLink("link", folder / "server");
    UnixSocket socket(true, 0, 0, "", folder / "link", FILESYSTEM);
    EXPECT_EQ(folder / "link", socket.getPeerPath());
    EXPECT_FALSE(socket.connect());
    EXPECT_EQ(folder / "server", socket.getPeerPath());
    EXPECT_FALSE(socket.close(false));
}

TEST(UnixSocket, clearsTheFlagOfAnEarlierFailure) {
    std::string const name = makeAbstractName();
    UnixSocket socket(true, 0, 0, "", name, ABSTRACT);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs({ECONNREFUSED, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE}))
        << "nobody listens";
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(support::isOpenDescriptor(socket.getSocketFd()));
    UnixServerSocket server(name, true, ABSTRACT);
    server.enableListen(1);
    EXPECT_FALSE(socket.connect()) << "it may be tried again";
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixSocket, thatFailedWithAPathOfItsOwnKeepsItsFileUntilItIsClosed) {
    TempFolder const folder;
    TestedSocket socket(true, 0, 0, folder / "own", folder / "nobody", FILESYSTEM);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(failureIs({ENOENT, SysError, SysErrorId::SPOILED_INTEGRITY}));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(socket.m_bound);
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_TRUE(socket.connect()) << "its name cannot be bound twice";
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(std::ErrorStorage::isA(Socket::Error) || std::ErrorStorage::isA(SysError));
    std::ErrorStorage::ack();
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
}

TEST(UnixSocket, thatFailedWithAnAbstractNameOfItsOwnCannotBindItAgain) {
    UnixSocket socket(true, 0, 0, makeAbstractName(), makeAbstractName(), ABSTRACT);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(failureIs({ECONNREFUSED, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE}));
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::SPOILED_INTEGRITY}));
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(UnixSocket, withoutAPeersNameHasNobodyToConnectTo) {
    UnixSocket socket(true, 0, 0, makeAbstractName(), "", ABSTRACT);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(0U, s_unix_calls.connect_length);
    EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::SPOILED_INTEGRITY}));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(UnixSocket, thatIsInvalidHasNoDescriptorToConnect) {
    support::EventRecorder const events;
    UnixSocket socket(true, 0, 0, "", "", ABSTRACT);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({{CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon connectSocket: p_socket_fd != INVALID_SOCKET_FD",
        events.getText());
}

class UnixSocketBind : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixSocketBind, failureLeavesItInactiveAndNotBound) {
    TempFolder const folder;
    std::string const foreign = folder.makeFile("own", "somebody else's");
    TestedSocket socket(true, 0, 0, foreign, folder / "server", FILESYSTEM);
    {
        Fault const fault(inject_bind, GetParam().error);
        Fault const connects(inject_connect, 0);
        EXPECT_TRUE(socket.connect());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, connects.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_FALSE(socket.m_bound);
    EXPECT_TRUE(support::isOpenDescriptor(socket.getSocketFd()));
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ("somebody else's", support::contentOf(foreign));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixSocketBind, testing::ValuesIn(support::BIND_ROWS));

class UnixSocketConnect : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixSocketConnect, failureLeavesItInactive) {
    TempFolder const folder;
    TestedSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    {
        Fault const fault(inject_connect, GetParam().error);
        Fault const names(inject_getpeername, 0);
        EXPECT_TRUE(socket.connect());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(0, names.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(support::isOpenDescriptor(socket.getSocketFd()));
    EXPECT_TRUE(socket.m_bound);
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixSocketConnect, testing::ValuesIn(support::CONNECT_ROWS));

class UnixSocketUnderWay : public testing::TestWithParam<int> {};

TEST_P(UnixSocketUnderWay, connectionMakesItOpenWithoutAnError) {
    UnixSocket socket(false, 0, 0, "", "peer", ABSTRACT);
    Fault const fault(inject_connect, GetParam());
    EXPECT_TRUE(socket.connect());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ("peer", socket.getPeerPath()) << "there is no other one yet";
    EXPECT_FALSE(socket.close(false));
}

INSTANTIATE_TEST_SUITE_P(errors, UnixSocketUnderWay, testing::Values(EINPROGRESS, EALREADY));

TEST(UnixSocket, connectsAgainWhileSignalsInterruptIt) {
    std::string const name = makeAbstractName();
    PlainServer const server(abstractAddress(name));
    UnixSocket socket(true, 0, 0, "", name, ABSTRACT);
    Fault const fault(inject_connect, EINTR, 1, 5);
    EXPECT_FALSE(socket.connect());
    EXPECT_EQ(6, fault.getCalls());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(socket.close(false));
}

struct PeerCase {
    char const* name;
    int error;
    std::ErrorType const* family;
    int id;
};

void PrintTo(PeerCase const& row, std::ostream* out) {
    *out << row.name;
}

class UnixSocketPeer : public testing::TestWithParam<PeerCase> {};

TEST_P(UnixSocketPeer, thatCannotBeReachedIsReported) {
    TempFolder const folder;
    folder.makeFile("file");
    folder.makeFolder("folder");
    folder.makeLink("loop", folder / "loop");
    { PlainServer const left_alone(pathAddress(folder / "left")); }
    PlainServer const datagrams(pathAddress(folder / "datagrams"), 0, SOCK_DGRAM);
    UnixSocket socket(true, 0, 0, "", folder / GetParam().name, FILESYSTEM);
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs({GetParam().error, *GetParam().family, GetParam().id}));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_EQ(folder / GetParam().name, socket.getPeerPath());
}

INSTANTIATE_TEST_SUITE_P(
    paths, UnixSocketPeer,
    testing::Values(
        PeerCase{"nothing", ENOENT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PeerCase{"file", ECONNREFUSED, &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE},
        PeerCase{"folder", ECONNREFUSED, &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE},
        PeerCase{"file/x", ENOTDIR, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PeerCase{"loop", ELOOP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        PeerCase{"left", ECONNREFUSED, &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE},
        PeerCase{"datagrams", EPROTOTYPE, &SysError, SysErrorId::SPOILED_INTEGRITY}));

TEST(UnixSocket, withoutTheRightToIsRefused) {
    VESK_SKIP_UNLESS_ROOT();
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    ASSERT_EQ(0, chmod((folder / "server").c_str(), 0600));
    support::expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        UnixSocket socket(true, 0, 0, "", folder / "server", FILESYSTEM);
        EXPECT_TRUE(socket.connect());
        EXPECT_TRUE(failureIs({EACCES, SysError, SysErrorId::PERMISSION_DENIED}));
        UnixSocket named(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
        EXPECT_TRUE(named.connect());
        EXPECT_TRUE(failureIs({EACCES, SysError, SysErrorId::PERMISSION_DENIED}));
    });
}

TEST(UnixSocket, thatDoesNotWaitIsRefusedByAFullBacklog) {
    std::string const name = makeAbstractName();
    PlainServer const server(abstractAddress(name), 0);
    UnixSocket first(false, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(first.connect());
    UnixSocket second(false, 0, 0, "", name, ABSTRACT);
    EXPECT_TRUE(second.connect());
    EXPECT_TRUE(second.hadError());
    EXPECT_TRUE(failureIs({EAGAIN, SysError, SysErrorId::RESOURCES_EXHAUSTED}));
    EXPECT_EQ(Socket::INACTIVE, second.getState());
    close(server.acceptOne());
    EXPECT_FALSE(second.connect()) << "there is room now";
    EXPECT_EQ(Socket::OPEN, second.getState());
    EXPECT_FALSE(first.close(false));
    EXPECT_FALSE(second.close(false));
}

TEST(UnixSocket, waitsWhileTheBacklogIsFull) {
    std::string const name = makeAbstractName();
    PlainServer const server(abstractAddress(name), 0);
    UnixSocket first(true, 0, 0, "", name, ABSTRACT);
    EXPECT_FALSE(first.connect());
    std::atomic<pid_t> waiting{0};
    std::thread thread([&] {
        UnixSocket second(true, 0, 0, "", name, ABSTRACT);
        waiting = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_FALSE(second.connect());
        EXPECT_EQ(Socket::OPEN, second.getState());
        EXPECT_FALSE(second.close(false));
    });
    while (waiting == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(getpid(), waiting);
    close(server.acceptOne());
    thread.join();
    EXPECT_FALSE(first.close(false));
}

// ---- names that are long ----

TEST(UnixSocket, pathOf107BytesIsTheLongest) {
    TempFolder const folder;
    std::string const longest = folder / std::string(107 - folder.getPath().size() - 1, 'p');
    ASSERT_EQ(107U, longest.size());
    UnixConnection connection(true, 0, longest, FILESYSTEM);
    EXPECT_TRUE(support::isSocketFile(longest));
    EXPECT_EQ(longest, connection.client.getPeerPath());
    EXPECT_EQ(110U, s_unix_calls.connect_length);
}

class UnixSocketLongName : public testing::TestWithParam<size_t> {};

TEST_P(UnixSocketLongName, isRefusedByTheSystem) {
    if (!support::keepsAddresses()) {
        GTEST_SKIP() << "the emulator shortens addresses that are too long";
    }
    std::string const name = makeAbstractName() + std::string(GetParam(), 'x');
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        UnixSocket peer(true, 0, 0, "", name.substr(0, GetParam()), name_space);
        EXPECT_TRUE(peer.connect());
        EXPECT_EQ(GetParam() + 3, s_unix_calls.connect_length);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::SPOILED_INTEGRITY}));
        UnixSocket local(true, 0, 0, name.substr(0, GetParam()), "peer", name_space);
        EXPECT_TRUE(local.connect());
        EXPECT_EQ(GetParam() + 3, s_unix_calls.bind_length);
        EXPECT_TRUE(failureIs({EINVAL, SysError, SysErrorId::SPOILED_INTEGRITY}));
        EXPECT_EQ(Socket::INACTIVE, local.getState());
    }
}

INSTANTIATE_TEST_SUITE_P(lengths, UnixSocketLongName, testing::Values(108, 109, 125, 126, 300, 5000));

// ---- close ----

TEST(UnixSocket, isDeadAfterClose) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    int const fd = socket.getSocketFd();
    Fault const shutdowns(inject_shutdown, 0);
    EXPECT_FALSE(socket.close(false));
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_FALSE(socket.isValid());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_EQ(0, shutdowns.getCalls());
}

TEST(UnixSocket, closesOnce) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_FALSE(socket.close(false));
    Fault const closes(inject_close, 0);
    Fault const shutdowns(inject_shutdown, 0);
    EXPECT_TRUE(socket.close(true));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(misuseIs("called close on already DEAD socket"));
    EXPECT_EQ(0, closes.getCalls());
    EXPECT_EQ(0, shutdowns.getCalls());
}

TEST(UnixSocket, withAShutdownEndsTheConnectionForOtherDescriptorsToo) {
    UnixConnection connection;
    int const other = dup(connection.client.getSocketFd());
    EXPECT_FALSE(connection.client.close(true));
    EXPECT_EQ(SHUT_RDWR, s_unix_calls.how);
    EXPECT_TRUE(support::isAtEnd(*connection.accepted));
    close(other);
}

TEST(UnixSocket, withoutAShutdownLeavesTheConnectionToOtherDescriptors) {
    UnixConnection connection;
    int const other = dup(connection.client.getSocketFd());
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_EQ(5, write(other, "hello", 5));
    EXPECT_TRUE(support::receives(*connection.accepted, "hello"));
    close(other);
}

class UnixSocketShutdown : public testing::TestWithParam<SystemRow> {};

TEST_P(UnixSocketShutdown, failureDoesNotKeepItFromClosing) {
    UnixConnection connection;
    {
        Fault const fault(inject_shutdown, GetParam().error);
        EXPECT_FALSE(connection.client.close(true));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, connection.client.getState());
    EXPECT_TRUE(support::isAtEnd(*connection.accepted));
}

INSTANTIATE_TEST_SUITE_P(rows, UnixSocketShutdown, testing::ValuesIn(support::SHUTDOWN_ROWS));

TEST(UnixSocket, thatIsNotConnectedCanBeClosedWithAShutdown) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_FALSE(socket.close(true));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UnixSocket, doesNotSendWhatItsBufferHoldsWhenItIsClosed) {
    UnixConnection connection(true, 64);
    unsigned int count = 0;
    EXPECT_EQ(1, connection.client.write("unsent", 6, count));
    EXPECT_EQ(6U, count);
    EXPECT_FALSE(connection.client.close(true));
    EXPECT_TRUE(support::isAtEnd(*connection.accepted));
}

TEST(UnixSocket, closesAgainWhileSignalsInterruptIt) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    int const fd = socket.getSocketFd();
    Fault const fault(inject_close, EINTR, 1, 4);
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(5, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(support::isOpenDescriptor(fd));
}

class UnixSocketClose : public testing::TestWithParam<int> {};

TEST_P(UnixSocketClose, failureIsReportedAndLeavesItDead) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    EXPECT_FALSE(socket.connect());
    int const fd = socket.getSocketFd();
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(socket.close(false));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    if (GetParam() == EBADF) {
        EXPECT_TRUE(chainIs({})) << "nothing is left to be done about it";
    } else {
        EXPECT_TRUE(failureIs({GetParam(), SysError, SysErrorId::SPOILED_INTEGRITY}));
    }
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_FALSE(support::isSocketFile(folder / "own")) << "it is removed all the same";
    support::closeForReal(fd);
}

INSTANTIATE_TEST_SUITE_P(errors, UnixSocketClose, testing::Values(EBADF, EIO, ENOSPC, EDQUOT, EINVAL));

TEST(UnixSocket, whoseDescriptorWasClosedBehindItsBackFailsToCloseWithoutAReport) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    close(socket.getSocketFd());
    EXPECT_TRUE(socket.close(false));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UnixSocket, thatIsInvalidHasNothingToClose) {
    UnixSocket socket(true, 0, 0, "", "", ABSTRACT);
    EXPECT_TRUE(socket.close(false));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

struct RemovalRow {
    int error;
    int cause;
    int on_top; ///< -1: none.
};

void PrintTo(RemovalRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class UnixSocketRemoval : public testing::TestWithParam<RemovalRow> {};

TEST_P(UnixSocketRemoval, failureIsReportedOnTopAndLeavesItDead) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    EXPECT_FALSE(socket.connect());
    int const fd = socket.getSocketFd();
    RemovalRow const& row = GetParam();
    {
        Fault const fault(inject_unlink, row.error);
        EXPECT_TRUE(socket.close(false));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    std::vector<support::ExpectedReport> reports = {expected({row.error, SysError, row.cause})};
    if (row.on_top >= 0) {
        reports.emplace_back(
            FileAccessError, row.on_top, support::rowText(FileAccessError, row.on_top, folder / "own"));
    }
    reports.push_back(expected({row.error, SysError, SysErrorId::SPOILED_INTEGRITY}));
    EXPECT_TRUE(chainIs(reports));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_TRUE(support::isSocketFile(folder / "own"));
}

INSTANTIATE_TEST_SUITE_P(
    rows, UnixSocketRemoval,
    testing::Values(
        RemovalRow{EPERM, 7, 3}, RemovalRow{EACCES, 7, 3}, RemovalRow{EROFS, 7, 3}, RemovalRow{ENOENT, 2, 0},
        RemovalRow{ENOTDIR, 2, 0}, RemovalRow{ENAMETOOLONG, 2, 0}, RemovalRow{ELOOP, 2, 0},
        RemovalRow{EBUSY, 13, 5}, RemovalRow{EISDIR, 2, 2}, RemovalRow{EFAULT, 10, 9},
        RemovalRow{ENOMEM, 1, -1}, RemovalRow{EINTR, 19, 9}, RemovalRow{EIO, 19, 9}));

TEST(UnixSocket, whoseFileSomebodyHasRemovedFailsToClose) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    EXPECT_FALSE(socket.connect());
    ASSERT_EQ(0, unlink((folder / "own").c_str()));
    EXPECT_TRUE(socket.close(false));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {expected({ENOENT, SysError, SysErrorId::INVALID_PATH}),
         {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path '" + folder / "own" + "'"},
         expected({ENOENT, SysError, SysErrorId::SPOILED_INTEGRITY})}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UnixSocket, closeReportsTheFileLastIfBothFail) {
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
    EXPECT_FALSE(socket.connect());
    int const fd = socket.getSocketFd();
    {
        Fault const closes(inject_close, EIO);
        Fault const removals(inject_unlink, EPERM);
        EXPECT_TRUE(socket.close(false));
    }
    EXPECT_TRUE(chainIs(
        {expected({EPERM, SysError, SysErrorId::PERMISSION_DENIED}),
         {FileAccessError, FileAccessErrorId::ACCESS_DENIED,
          "Access to path '" + folder / "own" + "' denied"},
         expected({EPERM, SysError, SysErrorId::SPOILED_INTEGRITY})}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    support::closeForReal(fd);
}

TEST(UnixSocket, withAnAbstractNameRemovesNoFileOfThatName) {
    TempFolder const folder;
    std::string const file = folder.makeFile("own", "precious");
    Fault const removals(inject_unlink, 0);
    UnixConnection connection(true, 0, makeAbstractName(), ABSTRACT, file);
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_EQ(0, removals.getCalls());
    EXPECT_EQ("precious", support::contentOf(file));
}

// ---- the peer's name ----

class UnixSocketPeerName : public testing::Test {
protected:
    void TearDown() override { s_unix_calls.peer_name.reset(); }

    /// Has the system tell this name, of that length in all.
    void tell(std::string const& address, socklen_t length) {
        sockaddr_un binary{};
        memcpy(&binary, address.data(), address.size());
        s_unix_calls.peer_name = binary;
        s_unix_calls.peer_length = length;
    }

    void tell(std::string const& address) { tell(address, static_cast<socklen_t>(address.size())); }

    Path const& update() {
        m_connection.client.updatePeerAddress();
        EXPECT_TRUE(chainIs({}));
        return m_connection.client.getPeerPath();
    }

    UnixConnection m_connection;
    Path const m_before = m_connection.client.getPeerPath();
};

TEST_F(UnixSocketPeerName, isNotAskedForUnlessTheSocketIsOpen) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    tell(abstractAddress("other"));
    socket.updatePeerAddress();
    EXPECT_EQ("peer", socket.getPeerPath());
    EXPECT_FALSE(socket.close(false));
    socket.updatePeerAddress();
    EXPECT_EQ("peer", socket.getPeerPath());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(UnixSocketPeerName, ofAnUnnamedClientLeavesThePathAsItWas) {
    m_connection.accepted->updatePeerAddress();
    EXPECT_EQ("", m_connection.accepted->getPeerPath());
    tell(abstractAddress("").substr(0, 2));
    EXPECT_EQ(m_before, update());
}

TEST_F(UnixSocketPeerName, ofASocketThatWasNotBoundLeavesWhatAConnectionKnewBefore) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    // The same descriptor number, another peer.
    ASSERT_EQ(m_connection.client.getSocketFd(), dup3(ends[0], m_connection.client.getSocketFd(), O_CLOEXEC));
    EXPECT_EQ(m_before, update());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(UnixSocketPeerName, isTextUpToItsZeroIfItIsAPath) {
    tell(pathAddress(std::string("/run/x\0rest", 11)), 14);
    EXPECT_EQ("/run/x", update());
}

TEST_F(UnixSocketPeerName, mayBeAPathThatNoZeroEnds) {
    std::string const path(108, 'p');
    tell(pathAddress(path), 111);
    EXPECT_EQ(path, update());
}

TEST_F(UnixSocketPeerName, mayBeAnyBytesIfItIsAbstract) {
    std::string const name("\0a\0\xff\n/\0", 7);
    tell(abstractAddress(name));
    EXPECT_EQ(name, update());
    EXPECT_EQ(7U, m_connection.client.getPeerPath().size());
}

TEST_F(UnixSocketPeerName, mayFillTheWholeAddress) {
    std::string const name(107, 'n');
    tell(abstractAddress(name));
    EXPECT_EQ(name, update());
    tell(abstractAddress(name), 200);
    EXPECT_EQ(name, update()) << "there is no more than that";
}

TEST_F(UnixSocketPeerName, mayBeAbstractAndEmpty) {
    tell(abstractAddress(""));
    EXPECT_EQ("", update());
}

TEST_F(UnixSocketPeerName, thatCannotBeToldLeavesThePathAsItWas) {
    tell(abstractAddress("other"));
    for (int const error : {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTCONN, ENOTSOCK}) {
        Fault const fault(inject_getpeername, error);
        EXPECT_EQ(m_before, update());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ("other", update());
}

TEST_F(UnixSocketPeerName, ofAnotherFamilyLeavesThePathAsItWas) {
    std::string address = abstractAddress("other");
    address[0] = AF_INET;
    tell(address);
    EXPECT_EQ(m_before, update());
    tell(abstractAddress("other"), 0);
    EXPECT_EQ(m_before, update());
    tell(abstractAddress("other"), 1);
    EXPECT_EQ(m_before, update());
}

TEST(UnixSocket, learnsAbstractNamesToTheByte) {
    std::string const name = makeAbstractName() + std::string("\0\xff\1/ \n\0", 7);
    PlainServer const server(abstractAddress(name));
    std::string const clean = makeAbstractName() + "\xff\1/ \n\x80";
    if (!support::keepsAddresses()) {
        GTEST_SKIP() << "the emulator puts a zero behind abstract names";
    }
    UnixConnection connection(true, 0, clean, ABSTRACT, clean + "client");
    EXPECT_EQ(abstractAddress(clean), support::addressOf(connection.server.getSocketFd()));
    EXPECT_EQ(abstractAddress(clean + "client"), support::addressOf(connection.client.getSocketFd()));
    EXPECT_EQ(clean, connection.client.getPeerPath());
    EXPECT_EQ(clean + "client", connection.accepted->getPeerPath());

    // A name with zeros in it, of somebody else's making.
    int const plain = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string const zeros = makeAbstractName() + std::string("\0x\0", 3);
    sockaddr_un binary{};
    memcpy(&binary, abstractAddress(zeros).data(), zeros.size() + 3);
    ASSERT_EQ(0, bind(plain, reinterpret_cast<sockaddr*>(&binary), static_cast<socklen_t>(zeros.size() + 3)));
    std::string const target = abstractAddress(clean);
    memcpy(&binary, target.data(), target.size());
    ASSERT_EQ(0, connect(plain, reinterpret_cast<sockaddr*>(&binary), static_cast<socklen_t>(target.size())));
    UnixSocket accepted(true, 0, 0, connection.server.acceptConnection());
    EXPECT_EQ(zeros, accepted.getPeerPath());
    EXPECT_FALSE(accepted.close(false));
    close(plain);
}

// ---- the peer's credentials ----

struct Credentials {
    long long uid = 77;
    long long gid = 77;
    int pid = 77;
};

bool operator==(Credentials const& left, Credentials const& right) {
    return left.uid == right.uid && left.gid == right.gid && left.pid == right.pid;
}

void PrintTo(Credentials const& credentials, std::ostream* out) {
    *out << credentials.uid << " " << credentials.gid << " " << credentials.pid;
}

Credentials askForPeer(UnixSocketBase const& socket) {
    Credentials result;
    socket.getPeerCredentials(result.uid, result.gid, result.pid);
    EXPECT_TRUE(chainIs({}));
    return result;
}

Credentials const UNKNOWN{vesk::User::BAD_ID, vesk::Group::BAD_ID, vesk::ProcessTNG::INVALID_PROCESS_ID};

TEST(UnixSocketCredentials, areUnknownWithoutAConnection) {
    static_assert(
        vesk::User::BAD_ID == -1 && vesk::Group::BAD_ID == -1 && vesk::ProcessTNG::INVALID_PROCESS_ID == -1);
    UnixSocket socket(true, 0, 0, "", makeAbstractName(), ABSTRACT);
    EXPECT_EQ(UNKNOWN, askForPeer(socket));
    EXPECT_TRUE(socket.connect());
    std::ErrorStorage::ack();
    EXPECT_EQ(UNKNOWN, askForPeer(socket)) << "after a failure";
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(UNKNOWN, askForPeer(socket)) << "without a descriptor";
    UnixSocket const invalid(true, 0, 0, "", "", ABSTRACT);
    EXPECT_EQ(UNKNOWN, askForPeer(invalid));
}

TEST(UnixSocketCredentials, areThoseOfTheProcessAtTheOtherEnd) {
    UnixConnection connection;
    Credentials const mine{geteuid(), getegid(), getpid()};
    EXPECT_EQ(mine, askForPeer(connection.client));
    EXPECT_EQ(mine, askForPeer(*connection.accepted));
}

class UnixSocketCredentialsAnswer : public testing::Test {
protected:
    void TearDown() override { s_unix_calls.credentials.reset(); }

    void tell(ucred const& credentials, socklen_t length) {
        s_unix_calls.credentials = credentials;
        s_unix_calls.credentials_length = length;
    }

    UnixConnection m_connection;
};

TEST_F(UnixSocketCredentialsAnswer, areUnknownIfTheSystemDoesNotTell) {
    for (int const error : {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK, ENODATA, EINTR}) {
        Fault const fault(inject_getsockopt, error);
        EXPECT_EQ(UNKNOWN, askForPeer(m_connection.client));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_FALSE(m_connection.client.hadError());
    }
}

TEST_F(UnixSocketCredentialsAnswer, areUnknownIfTheAnswerHasAnotherSize) {
    for (socklen_t const length : {0U, 1U, 4U, 8U, 11U, 13U, 16U, 128U}) {
        tell({1, 2, 3}, length);
        EXPECT_EQ(UNKNOWN, askForPeer(m_connection.client)) << length;
    }
    tell({1, 2, 3}, 12);
    EXPECT_EQ((Credentials{2, 3, 1}), askForPeer(m_connection.client));
}

TEST_F(UnixSocketCredentialsAnswer, haveIdsWithoutASign) {
    tell({0x7fffffff, 0xfffffffe, 0xffffffff}, 12);
    EXPECT_EQ((Credentials{0xfffffffeLL, 0xffffffffLL, 0x7fffffff}), askForPeer(m_connection.client));
    tell({1, 0x80000000, 0x80000001}, 12);
    EXPECT_EQ((Credentials{0x80000000LL, 0x80000001LL, 1}), askForPeer(m_connection.client));
}

TEST_F(UnixSocketCredentialsAnswer, areUnknownIfTheAnswerIsNobody) {
    tell({0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)}, 12);
    EXPECT_EQ(UNKNOWN, askForPeer(m_connection.client));
}

TEST(UnixSocketCredentials, areToldToBothOfTwoProcessesThatMeetAtAnAbstractName) {
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    server.enableListen(1);
    pid_t const parent = getpid();
    support::Process child([&] {
        UnixSocket client(true, 0, 0, "", name, ABSTRACT);
        EXPECT_FALSE(client.connect());
        EXPECT_EQ((Credentials{geteuid(), getegid(), parent}), askForPeer(client));
        EXPECT_TRUE(support::isAtEnd(client));
        EXPECT_FALSE(client.close(false));
    });
    UnixSocket accepted(true, 0, 0, server.acceptConnection());
    EXPECT_EQ((Credentials{geteuid(), getegid(), child.getId()}), askForPeer(accepted));
    EXPECT_FALSE(accepted.close(false));
    EXPECT_EQ(0, child.join());
    EXPECT_FALSE(server.close(false));
}

TEST(UnixSocketCredentials, areThoseAtTheTimeOfTheConnection) {
    VESK_SKIP_UNLESS_ROOT();
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    server.enableListen(2);
    support::Process child([&] {
        UnixSocket before(true, 0, 0, "", name, ABSTRACT);
        EXPECT_FALSE(before.connect());
        EXPECT_EQ(0, setgroups(0, nullptr));
        EXPECT_EQ(0, setgid(4321));
        EXPECT_EQ(0, setuid(1234));
        UnixSocket after(true, 0, 0, "", name, ABSTRACT);
        EXPECT_FALSE(after.connect());
        EXPECT_EQ(0, askForPeer(after).uid) << "the server is root's";
        EXPECT_EQ(0, askForPeer(after).gid);
        EXPECT_TRUE(support::isAtEnd(after));
        EXPECT_FALSE(before.close(false));
        EXPECT_FALSE(after.close(false));
    });
    UnixSocket before(true, 0, 0, server.acceptConnection());
    UnixSocket after(true, 0, 0, server.acceptConnection());
    EXPECT_EQ((Credentials{0, 0, child.getId()}), askForPeer(before));
    EXPECT_EQ((Credentials{1234, 4321, child.getId()}), askForPeer(after));
    EXPECT_FALSE(before.close(false));
    EXPECT_FALSE(after.close(false));
    EXPECT_EQ(0, child.join());
    EXPECT_FALSE(server.close(false));
}

TEST(UnixSocketCredentials, outliveTheirProcess) {
    std::string const name = makeAbstractName();
    UnixServerSocket server(name, true, ABSTRACT);
    server.enableListen(1);
    support::Process child([&] {
        UnixSocket client(true, 0, 0, "", name, ABSTRACT);
        EXPECT_FALSE(client.connect());
        raise(SIGKILL);
    });
    pid_t const id = child.getId();
    UnixSocket accepted(true, 0, 0, server.acceptConnection());
    EXPECT_EQ(-1, child.join());
    Credentials const peer = askForPeer(accepted);
    EXPECT_EQ(geteuid(), peer.uid);
    EXPECT_EQ(getegid(), peer.gid);
    EXPECT_TRUE(peer.pid == id || peer.pid == 0) << peer.pid;
    EXPECT_FALSE(accepted.close(false));
    EXPECT_FALSE(server.close(false));
}

TEST(UnixSocketCredentials, doNotTellAProcessThatCannotBeSeen) {
    VESK_SKIP_UNLESS_ROOT();
    support::expectInChild([] {
        std::string const name = makeAbstractName();
        UnixServerSocket server(name, true, ABSTRACT);
        server.enableListen(1);
        UnixSocket client(true, 0, 0, "", name, ABSTRACT);
        ASSERT_FALSE(client.connect());
        ASSERT_EQ(0, unshare(CLONE_NEWPID)) << strerror(errno);
        support::Process elsewhere([&] {
            UnixSocket accepted(true, 0, 0, server.acceptConnection());
            EXPECT_EQ((Credentials{0, 0, 0}), askForPeer(accepted));
        });
        EXPECT_EQ(0, elsewhere.join());
        EXPECT_FALSE(client.close(false));
        EXPECT_FALSE(server.close(false));
    });
}

TEST(UnixSocketCredentials, ofASocketThatListensAreItsOwn) {
    UnixServerSocket server(makeAbstractName(), true, ABSTRACT);
    EXPECT_EQ(UNKNOWN, askForPeer(server));
    server.enableListen(1);
    EXPECT_EQ((Credentials{geteuid(), getegid(), getpid()}), askForPeer(server));
    EXPECT_FALSE(server.close(false));
    EXPECT_EQ(UNKNOWN, askForPeer(server));
}

// ---- traffic ----

TEST(UnixSocket, carriesBytesBothWays) {
    for (unsigned int const buffers : {0U, 16U, 512U}) {
        UnixConnection connection(true, buffers);
        EXPECT_TRUE(support::sends(connection.client, "question, and a long one"));
        EXPECT_TRUE(support::receives(*connection.accepted, "question, and a long one"));
        EXPECT_TRUE(support::sends(*connection.accepted, "answer"));
        EXPECT_TRUE(support::receives(connection.client, "answer"));
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(UnixSocket, waitsForData) {
    UnixConnection connection;
    std::atomic<pid_t> waiting{0};
    std::thread reader([&] {
        waiting = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_TRUE(support::receives(*connection.accepted, "late"));
    });
    while (waiting == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(getpid(), waiting);
    EXPECT_TRUE(support::sends(connection.client, "late"));
    reader.join();
}

TEST(UnixSocket, thatDoesNotWaitReadsNothingWhenNothingIsThere) {
    UnixConnection connection(false);
    char byte = 0;
    unsigned int count = 99;
    EXPECT_EQ(1, connection.client.read(&byte, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(UnixSocket, thatDoesNotWaitWritesNothingIntoAFullBuffer) {
    UnixConnection connection(false);
    EXPECT_FALSE(connection.client.setSendBuffer(4096));
    std::string const block(64 * 1024, 'b');
    auto const size = static_cast<unsigned int>(block.size());
    size_t total = 0;
    unsigned int count = 1;
    while (count != 0) {
        ASSERT_EQ(1, connection.client.write(block.data(), size, count));
        total += count;
    }
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_GT(total, 0U);
    EXPECT_TRUE(support::receives(*connection.accepted, std::string(total, 'b')));
    EXPECT_EQ(1, connection.client.write("more", 4, count));
    EXPECT_EQ(4U, count) << "there is room again";
}

TEST(UnixSocket, carriesMegabytesBothWaysAtOnce) {
    constexpr unsigned int TOTAL = 4U << 20;
    for (unsigned int const buffers : {0U, 1000U}) {
        UnixConnection connection(true, buffers);
        auto const byte_at = [](unsigned int at) { return static_cast<unsigned char>(at * 7 + (at >> 13)); };
        auto const send_all = [&](Socket& socket) {
            std::vector<unsigned char> block(50000);
            for (unsigned int at = 0; at < TOTAL;) {
                unsigned int const size = std::min(TOTAL - at, static_cast<unsigned int>(block.size()));
                for (unsigned int i = 0; i < size; ++i) {
                    block[i] = byte_at(at + i);
                }
                unsigned int count = 0;
                ASSERT_EQ(1, socket.write(block.data(), size, count));
                ASSERT_EQ(size, count);
                at += size;
            }
            ASSERT_FALSE(socket.flush(false));
        };
        auto const receive_all = [&](Socket& socket) {
            std::vector<unsigned char> block(33333);
            for (unsigned int at = 0; at < TOTAL;) {
                unsigned int count = 0;
                ASSERT_EQ(1, socket.read(block.data(), static_cast<unsigned int>(block.size()), count));
                for (unsigned int i = 0; i < count; ++i) {
                    if (block[i] != byte_at(at + i)) {
                        FAIL() << "at " << at + i;
                    }
                }
                at += count;
            }
        };
        std::thread echo([&] {
            // Of two threads at one socket each belongs to a direction; this one has both of the other end.
            receive_all(*connection.accepted);
            send_all(*connection.accepted);
        });
        send_all(connection.client);
        receive_all(connection.client);
        echo.join();
        EXPECT_FALSE(connection.client.close(false));
        EXPECT_TRUE(support::isAtEnd(*connection.accepted));
    }
}

TEST(UnixSocket, seesThePeersOrderlyEndAndStaysOpen) {
    UnixConnection connection;
    EXPECT_TRUE(support::sends(connection.client, "bye"));
    EXPECT_FALSE(connection.client.close(true));
    EXPECT_TRUE(support::receives(*connection.accepted, "bye"));
    EXPECT_TRUE(support::isAtEnd(*connection.accepted));
    EXPECT_EQ(Socket::OPEN, connection.accepted->getState());
    EXPECT_TRUE(connection.accepted->isValid());
    EXPECT_TRUE(support::isAtEnd(*connection.accepted)) << "again and again";
}

TEST(UnixSocket, writesToAClosedConnectionInVainAndWithoutASignal) {
    UnixConnection connection;
    EXPECT_FALSE(connection.accepted->close(false));
    unsigned int count = 99;
    EXPECT_EQ(-1, connection.client.write("x", 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(chainIs(
        {expected({EPIPE, Socket::Error, Socket::ErrorId::INVALID_SOCKET}),
         {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(Socket::OPEN, connection.client.getState());
}

class UnixSocketVanishedPeer : public testing::Test {
protected:
    void SetUp() override {
        m_server.enableListen(1);
        ASSERT_FALSE(m_server.hadError());
    }
    void TearDown() override { EXPECT_FALSE(m_server.close(false)); }

    std::string const m_name = makeAbstractName();
    UnixServerSocket m_server{m_name, true, ABSTRACT};
};

TEST_F(UnixSocketVanishedPeer, isSeenWhenItsDataIsRead) {
    support::Process child([&] {
        UnixSocket client(true, 0, 0, "", m_name, ABSTRACT);
        EXPECT_FALSE(client.connect());
        EXPECT_TRUE(support::sends(client, "last words"));
        raise(SIGKILL);
    });
    UnixSocket accepted(true, 0, 0, m_server.acceptConnection());
    EXPECT_EQ(-1, child.join());
    EXPECT_TRUE(support::receives(accepted, "last words"));
    EXPECT_TRUE(support::isAtEnd(accepted));
    unsigned int count = 99;
    EXPECT_EQ(-1, accepted.write("x", 1, count));
    EXPECT_TRUE(chainIs(
        {expected({EPIPE, Socket::Error, Socket::ErrorId::INVALID_SOCKET}),
         {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(accepted.close(true));
}

TEST_F(UnixSocketVanishedPeer, thatLeftDataUnreadResetsTheConnection) {
    support::Process child([&] {
        UnixSocket client(true, 0, 0, "", m_name, ABSTRACT);
        EXPECT_FALSE(client.connect());
        EXPECT_TRUE(support::receives(client, "first"));
        raise(SIGKILL);
    });
    UnixSocket accepted(true, 0, 0, m_server.acceptConnection());
    EXPECT_TRUE(support::sends(accepted, "first, and what nobody reads"));
    EXPECT_EQ(-1, child.join());
    char byte = 0;
    unsigned int count = 99;
    EXPECT_EQ(-1, accepted.read(&byte, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(accepted.hadError());
    EXPECT_TRUE(chainIs(
        {expected({ECONNRESET, Socket::Error, Socket::ErrorId::CONNECTION_RESET}),
         {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    EXPECT_EQ(Socket::OPEN, accepted.getState());
    EXPECT_FALSE(accepted.close(false));
}

TEST_F(UnixSocketVanishedPeer, freesAWriterThatWaitsForRoom) {
    support::Process child([&] {
        UnixSocket client(true, 0, 0, "", m_name, ABSTRACT);
        EXPECT_FALSE(client.connect());
        EXPECT_TRUE(support::receives(client, "b"));
        pause(); // Reads no more.
    });
    UnixSocket accepted(true, 0, 0, m_server.acceptConnection());
    EXPECT_FALSE(accepted.setSendBuffer(4096));
    std::atomic<pid_t> waiting{0};
    std::thread writer([&] {
        waiting = static_cast<pid_t>(syscall(SYS_gettid));
        std::string const block(1 << 20, 'b');
        int result = 1;
        while (result == 1) {
            unsigned int count = 0;
            result = accepted.write(block.data(), static_cast<unsigned int>(block.size()), count);
        }
        EXPECT_EQ(-1, result);
        EXPECT_TRUE(std::ErrorStorage::isA(StreamError));
        EXPECT_EQ(0, std::ErrorStorage::id());
        std::ErrorStorage::ack();
    });
    while (waiting == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(getpid(), waiting);
    child.kill();
    writer.join();
    EXPECT_TRUE(accepted.hadError());
    EXPECT_FALSE(accepted.close(false));
}

TEST(UnixSocket, canBeSelected) {
    UnixConnection connection;
    EXPECT_TRUE(support::sends(connection.client, "x"));
    std::set<Socket const*> read = {&connection.client, connection.accepted.get()};
    std::set<Socket const*> write;
    std::set<Socket const*> except;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, 60000, true));
    EXPECT_EQ(std::set<Socket const*>{connection.accepted.get()}, read);
    EXPECT_TRUE(support::receives(*connection.accepted, "x"));
}

// ---- what is refused in which state ----

testing::AssertionResult refusesTraffic(UnixSocket& socket) {
    char byte = 'x';
    unsigned int count = 99;
    if (socket.read(&byte, 1, count) != -1 || !socket.hadError() ||
        !chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              support::rowText(CommonErrorId::CONTRACT_BROKEN, "called read on non-OPEN socket")},
             {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}})) {
        return testing::AssertionFailure() << "read";
    }
    if (socket.write(&byte, 1, count) != -1 || !socket.hadError() ||
        !chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              support::rowText(CommonErrorId::CONTRACT_BROKEN, "called write on non-OPEN socket")},
             {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}})) {
        return testing::AssertionFailure() << "write";
    }
    return testing::AssertionSuccess();
}

TEST(UnixSocketStates, inactiveRefusesTrafficAndAnswersTheRest) {
    UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
    EXPECT_TRUE(refusesTraffic(socket));
    EXPECT_FALSE(socket.flush(false));
    EXPECT_FALSE(socket.hadError());
    EXPECT_FALSE(socket.checkValidSocket());
    EXPECT_FALSE(socket.setSendBuffer(65536));
    EXPECT_NE(0U, socket.getSendBuffer());
    socket.updatePeerAddress();
    EXPECT_EQ("peer", socket.getPeerPath());
    EXPECT_EQ(UNKNOWN, askForPeer(socket));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(socket.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST(UnixSocketStates, openRefusesOnlyToConnect) {
    UnixConnection connection;
    UnixSocket& socket = connection.client;
    EXPECT_FALSE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_FALSE(socket.checkValidSocket());
    EXPECT_FALSE(socket.hadError());
    EXPECT_FALSE(socket.setRecvBuffer(65536));
    EXPECT_NE(0U, socket.getRecvBuffer());
    EXPECT_FALSE(socket.flush(false));
    EXPECT_FALSE(socket.close(true));
}

TEST(UnixSocketStates, deadRefusesEverything) {
    UnixConnection connection;
    UnixSocket& socket = connection.client;
    EXPECT_FALSE(socket.close(false));
    EXPECT_TRUE(refusesTraffic(socket));
    EXPECT_FALSE(socket.connect());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_TRUE(socket.close(true));
    EXPECT_TRUE(misuseIs("called close on already DEAD socket"));
    EXPECT_TRUE(socket.checkValidSocket());
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_TRUE(socket.setSendBuffer(65536));
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_EQ(0U, socket.getSendBuffer());
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_FALSE(socket.flush(false));
    socket.updatePeerAddress();
    EXPECT_EQ(UNKNOWN, askForPeer(socket));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(socket.isValid());
}

// ---- the end ----

TEST(UnixSocketEnd, ofAnInactiveOneClosesIt) {
    support::EventRecorder const events;
    int fd = -1;
    {
        UnixSocket const socket(true, 0, 0, "", "peer", ABSTRACT);
        fd = socket.getSocketFd();
    }
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(UnixSocketEnd, ofAnInactiveOneThatHasBoundRemovesItsFile) {
    support::EventRecorder const events;
    TempFolder const folder;
    {
        UnixSocket socket(true, 0, 0, folder / "own", folder / "nobody", FILESYSTEM);
        EXPECT_TRUE(socket.connect());
        EXPECT_TRUE(failureIs({ENOENT, SysError, SysErrorId::SPOILED_INTEGRITY}));
        EXPECT_TRUE(support::isSocketFile(folder / "own"));
    }
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_EQ("", events.getText());
}

TEST(UnixSocketEnd, ofAnOpenOneIsABrokenInvariantAndClosesItAllTheSame) {
    support::EventRecorder const events;
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    int fd = -1;
    Fault const shutdowns(inject_shutdown, 0);
    {
        UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
        EXPECT_FALSE(socket.connect());
        fd = socket.getSocketFd();
    }
    EXPECT_EQ(OPEN_ASSERTION, events.getText());
    EXPECT_FALSE(support::isOpenDescriptor(fd));
    EXPECT_FALSE(support::isSocketFile(folder / "own"));
    EXPECT_EQ(0, shutdowns.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(UnixSocketEnd, ofADeadOneDoesNothing) {
    support::EventRecorder const events;
    Fault const closes(inject_close, 0);
    {
        UnixSocket socket(true, 0, 0, "", "peer", ABSTRACT);
        EXPECT_FALSE(socket.close(false));
    }
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_EQ("", events.getText());
}

TEST(UnixSocketEnd, ofAnInvalidOneDoesNothing) {
    support::EventRecorder const events;
    Fault const closes(inject_close, 0);
    { UnixSocket const socket(true, 0, 0, "", "", FILESYSTEM); }
    EXPECT_EQ(0, closes.getCalls());
    EXPECT_EQ("", events.getText());
}

TEST(UnixSocketEnd, thatCannotCloseIsABrokenInvariant) {
    support::EventRecorder const events;
    auto socket = std::make_unique<UnixSocket>(true, 0U, 0U, "", "peer", ABSTRACT);
    int const fd = socket->getSocketFd();
    {
        Fault const fault(inject_close, EIO);
        socket.reset();
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ(CLOSE_ASSERTION, events.getText());
    EXPECT_TRUE(failureIs({EIO, SysError, SysErrorId::SPOILED_INTEGRITY}));
    support::closeForReal(fd);
}

TEST(UnixSocketEnd, thatCannotRemoveItsFileIsABrokenInvariant) {
    support::EventRecorder const events;
    TempFolder const folder;
    PlainServer const server(pathAddress(folder / "server"));
    {
        UnixSocket socket(true, 0, 0, folder / "own", folder / "server", FILESYSTEM);
        EXPECT_FALSE(socket.connect());
        ASSERT_EQ(0, unlink((folder / "own").c_str()));
    }
    EXPECT_EQ(std::string(OPEN_ASSERTION) + "\n" + CLOSE_ASSERTION, events.getText());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH},
         {SysError, SysErrorId::SPOILED_INTEGRITY}}));
}

} // namespace
