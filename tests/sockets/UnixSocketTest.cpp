#include "StreamSocketSupport.h"
#include "support/TempFolder.h"

#include <vesk/Group.h>
#include <vesk/ProcessTNG.h>
#include <vesk/User.h>

/// What Unix sockets do and TCP sockets do not: names, files and credentials. The rest is in StreamSocketTest.cpp.

namespace {

using namespace support;

using NameSpace = UnixSocketBase::NameSpace;

constexpr auto ABSTRACT = UnixSocketBase::ABSTRACT;
constexpr auto FILESYSTEM = UnixSocketBase::FILESYSTEM;

static_assert(ABSTRACT == 0 && FILESYSTEM == 1);
static_assert(std::is_base_of_v<Socket, UnixSocketBase> && std::is_base_of_v<UnixSocketBase, UnixSocket>);
static_assert(!std::is_copy_constructible_v<UnixSocket>);
static_assert(std::is_destructible_v<UnixSocketBase>);
static_assert(std::is_base_of_v<UnixSocketBase, UnixServerSocket>);
static_assert(!std::is_copy_constructible_v<UnixServerSocket>);
static_assert(sizeof UnixClient::m_local_binary == 110 && sizeof UnixClient::m_peer_binary == 110);

ErrnoRow const IN_USE(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE);
ErrnoRow const REFUSED(Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED);
ErrnoRow const INVALID(SysErrorId::SPOILED_INTEGRITY, EINVAL);
ErrnoRow const NO_ACCESS(SysErrorId::PERMISSION_DENIED, EACCES);

/// A client with the name `local` for a server with the name `peer`.
UnixClient makeClient(
    std::string const& local, std::string const& peer, NameSpace name_space = FILESYSTEM,
    bool blocking = true) {
    return {blocking, 0, 0, local, peer, name_space};
}

/// Returns an address with zeros up to its end.
std::string filled(std::string const& address) {
    return address + std::string(sizeof(sockaddr_un) - address.size(), '\0');
}

std::string addressIn(NameSpace name_space, std::string const& name) {
    return name_space == ABSTRACT ? abstractAddress(name) : pathAddress(name);
}

/// A server of plain system calls with a file, and a path for a client.
class UnixSocketFile : public testing::Test {
protected:
    UnixSocketFile() { m_server.listen(); }

    std::unique_ptr<UnixClient> connect() const {
        auto client = std::make_unique<UnixClient>(true, 0, 0, m_own, m_peer, FILESYSTEM);
        EXPECT_FALSE(client->connect());
        EXPECT_TRUE(succeeded(*client, Socket::OPEN));
        EXPECT_TRUE(isSocketFile(m_own));
        return client;
    }

    TempFolder const m_folder;
    std::string const m_own = m_folder / "own";
    std::string const m_peer = m_folder / "server";
    PlainServer const m_server{pathAddress(m_peer)};
};

// ---- Names ----

TEST(UnixSocket, preparesTheAddressesOfItsNames) {
    struct {
        std::string local;
        std::string peer;
        NameSpace name_space;
    } const rows[] = {{"own", "peer", FILESYSTEM}, {"own", "", ABSTRACT}, {"", "peer", ABSTRACT}};
    for (auto const& [local, peer, name_space] : rows) {
        UnixClient const socket = makeClient(local, peer, name_space);
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ(local, socket.getLocalPath());
        EXPECT_EQ(peer, socket.getPeerPath());
        EXPECT_EQ(name_space, socket.getNameSpace());
        EXPECT_EQ(local.empty() ? 0U : 6U, socket.m_local_length);
        EXPECT_EQ(peer.empty() ? 0U : 7U, socket.m_peer_length);
        EXPECT_EQ(
            filled(local.empty() ? "" : addressIn(name_space, local)), bytesOf(&socket.m_local_binary, 110));
        EXPECT_EQ(
            filled(peer.empty() ? "" : addressIn(name_space, peer)), bytesOf(&socket.m_peer_binary, 110));
        EXPECT_FALSE(socket.m_bound);
    }
}

TEST(UnixSocket, withoutANameIsInvalidWithoutAReport) {
    Fault const sockets(inject_socket, 0);
    Fault const closes(inject_close, 0);
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        UnixSocket const client(true, 0, 0, "", "", name_space);
        UnixServerSocket const server("", true, name_space);
        for (Socket const* const socket : std::initializer_list<Socket const*>{&client, &server}) {
            EXPECT_TRUE(isUnusable(*socket));
            EXPECT_FALSE(socket->hadError());
        }
        EXPECT_TRUE(chainIs({}));
    }
    EXPECT_EQ(0, sockets.getCalls() + closes.getCalls());
}

TEST(UnixSocket, thatListensHasANameButNoPeer) {
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        TempFolder const folder;
        UnixServer server(folder / "own", true, name_space);
        for (Socket::State const state : {Socket::INACTIVE, Socket::OPEN}) {
            EXPECT_TRUE(succeeded(server, state));
            server.updatePeerAddress();
            EXPECT_EQ(folder / "own", server.getLocalPath());
            EXPECT_EQ("", server.getPeerPath());
            EXPECT_EQ(name_space, server.getNameSpace());
            if (state == Socket::INACTIVE) {
                enableListen(server);
            }
        }
    }
}

VESK_TEST_EACH(
    UnixSocketAddress, isCutToTheRoomButHasTheWholeLength, testing::Test,
    (std::vector<size_t>{0, 1, 2, 104, 105, 106, 107, 108, 109, 110, 300})) {
    std::string const name(GetParam(), 'n');
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        sockaddr_un address{};
        EXPECT_EQ(GetParam() + 3, makeClient("", "peer", name_space).prepareAddress(address, name));
        std::string const cut = name.substr(0, name_space == ABSTRACT ? 106 : 107);
        EXPECT_EQ(filled(addressIn(name_space, cut)), bytesOf(&address, 110));
    }
}

TEST(UnixSocket, addressTakesEveryByteButZero) {
    std::string name;
    for (int byte = 1; byte < 100; ++byte) {
        name += static_cast<char>(byte % 2 == 0 ? byte : 256 - byte);
    }
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        UnixClient const socket = makeClient("", "peer", name_space);
        sockaddr_un address{};
        EXPECT_EQ(102U, socket.prepareAddress(address, name));
        EXPECT_EQ(filled(addressIn(name_space, name)), bytesOf(&address, 110));
        sockaddr_un with_zero{};
        EXPECT_EQ(6U, socket.prepareAddress(with_zero, std::string("a\0b", 3)));
        EXPECT_EQ(filled(addressIn(name_space, "a")), bytesOf(&with_zero, 110));
    }
}

TEST(UnixSocket, addressHasRoomForAllThatTheSystemCopies) {
    // It copies up to 128 bytes before it checks the length.
    UnixClient const socket = makeClient("own", "peer", ABSTRACT);
    auto const* const end = reinterpret_cast<char const*>(&socket) + sizeof socket;
    EXPECT_GE(end - reinterpret_cast<char const*>(&socket.m_peer_binary), 128);
    EXPECT_GE(end - reinterpret_cast<char const*>(&socket.m_local_binary), 128);
}

VESK_TEST_EACH(
    UnixSocketLongName, isRejectedByTheSystem, testing::Test,
    (std::vector<size_t>{108, 109, 125, 126, 300, 5000})) {
    if (!keepsAddresses()) {
        GTEST_SKIP() << "the emulator shortens addresses that are too long";
    }
    std::string name = makeName();
    name.resize(GetParam(), 'x');
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        UnixClient peer = makeClient("", name, name_space);
        EXPECT_TRUE(failsToConnect(peer, INVALID));
        EXPECT_EQ(GetParam() + 3, s_calls.connect_length);
        UnixClient local = makeClient(name, "peer", name_space);
        EXPECT_TRUE(failsToConnect(local, INVALID));
        EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
        UnixServer server(name, true, name_space);
        EXPECT_TRUE(failsToListen(server, INVALID));
        EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
        EXPECT_FALSE(isSocketFile(name.substr(0, 107)));
    }
}

// ---- Connecting ----

VESK_SUITE(UnixSocketNameSpaces, UNIX_TRANSPORTS);

TEST_P(UnixSocketNameSpaces, connectsByNameAndBindsOnlyANameOfItsOwn) {
    Listener const listener(GetParam());
    Fault const binds(inject_bind, 0);
    SocketPtr const unnamed = listener.makeClient();
    EXPECT_FALSE(connectSocket(*unnamed));
    EXPECT_EQ(getAddress(listener.getPlace()), s_calls.connected);
    EXPECT_EQ(listener.getPlace().name.size() + 3, s_calls.connect_length);
    EXPECT_EQ(0, binds.getCalls());

    Place const own(GetParam());
    SocketPtr const named = listener.makeClient({true, 0, 0, own.name});
    EXPECT_FALSE(isSocketFile(own.name));
    EXPECT_FALSE(connectSocket(*named));
    EXPECT_TRUE(dynamic_cast<UnixClient&>(*named).m_bound);
    EXPECT_EQ(1, binds.getCalls());
    EXPECT_EQ(own.name.size() + 3, s_calls.bind_length);
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(own.name));
    EXPECT_TRUE(closes(*named, false));
    EXPECT_FALSE(isSocketFile(own.name));
    EXPECT_EQ(GetParam() == Transport::PATH, isSocketFile(listener.getPlace().name));
}

TEST_P(UnixSocketNameSpaces, showsItsNameToTheServer) {
    if (GetParam() == Transport::ABSTRACT && !keepsAddresses()) {
        GTEST_SKIP() << "the emulator puts a zero behind abstract names";
    }
    Place const own(GetParam());
    Waiting const waiting(GetParam(), {true, 0, 0, own.name});
    auto const& client = dynamic_cast<UnixSocket&>(*waiting.client);
    UnixSocket::Description const accepted = waiting.listener.getUnix().acceptConnection();
    std::string const address = getAddress(own);
    EXPECT_EQ(address, bytesOf(&accepted.peer_binary, static_cast<socklen_t>(address.size())));
    UnixClient const server(true, 0, 0, accepted);
    EXPECT_EQ(own.name, server.getPeerPath());
    EXPECT_EQ(waiting.listener.getPlace().name, client.getPeerPath());
    EXPECT_EQ(waiting.listener.getPlace().name, server.getLocalPath());
    EXPECT_EQ(address, addressOf(client.getSocketFd()));
}

TEST_F(UnixSocketFile, learnsThePathThatTheServerHasBound) {
    std::string const link = m_folder.makeLink("link", m_peer);
    UnixClient client = makeClient("", link);
    EXPECT_EQ(link, client.getPeerPath());
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(m_peer, client.getPeerPath());
}

TEST_F(UnixSocketFile, isKeptByAFailedConnectUntilTheSocketCloses) {
    UnixClient client = makeClient(m_own, m_folder / "none");
    EXPECT_TRUE(failsToConnect(client, {SysErrorId::SPOILED_INTEGRITY, ENOENT}));
    EXPECT_EQ(m_folder / "none", client.getPeerPath());
    EXPECT_TRUE(client.m_bound);
    EXPECT_TRUE(isSocketFile(m_own));
    EXPECT_TRUE(client.connect()) << "the path cannot be bound twice";
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(hasState(client, Socket::INACTIVE));
    EXPECT_TRUE(std::ErrorStorage::isA(Socket::Error) || std::ErrorStorage::isA(vesk::SysError));
    std::ErrorStorage::ack();
    EXPECT_FALSE(client.close(false));
    EXPECT_FALSE(isSocketFile(m_own));
}

TEST(UnixSocket, cannotBindAnAbstractNameAgainAfterAFailedConnectOrConnectWithoutTheNameOfAPeer) {
    UnixClient client = makeClient(makeName(), makeName(), ABSTRACT);
    EXPECT_TRUE(failsToConnect(client, REFUSED));
    EXPECT_TRUE(failsToConnect(client, INVALID));
    UnixClient peerless = makeClient(makeName(), "", ABSTRACT);
    EXPECT_TRUE(failsToConnect(peerless, INVALID));
    EXPECT_EQ(0U, s_calls.connect_length);
}

/// A path, and what connecting to it and listening on it report.
struct PathRow : NamedRow {
    char const* path;
    ErrnoRow connecting;
    ErrnoRow listening;
};

ErrnoRow spoiledBy(int error) {
    return {SysErrorId::SPOILED_INTEGRITY, error};
}

PathRow const PATHS[] = {
    {"belowNothing", "none/own", spoiledBy(ENOENT), spoiledBy(ENOENT)},
    {"belowAFile", "file/own", spoiledBy(ENOTDIR), spoiledBy(ENOTDIR)},
    {"belowALoop", "loop/own", spoiledBy(ELOOP), spoiledBy(ELOOP)},
    {"file", "file", REFUSED, IN_USE},
    {"folder", "folder", REFUSED, IN_USE},
    {"loop", "loop", spoiledBy(ELOOP), IN_USE},
    {"closed", "closed", REFUSED, IN_USE},
    {"datagrams", "datagrams", spoiledBy(EPROTOTYPE), IN_USE}};
VESK_TEST_TABLE(UnixSocketPath, thatIsNoSocketIsReported, UnixSocketFile, PATHS) {
    m_folder.makeFile("file", "precious");
    m_folder.makeFolder("folder");
    m_folder.makeLink("loop", m_folder / "loop");
    { PlainServer const closed(pathAddress(m_folder / "closed")); }
    PlainServer const datagrams(pathAddress(m_folder / "datagrams"), SOCK_DGRAM);
    std::string const path = m_folder / GetParam().path;
    UnixClient client = makeClient("", path);
    EXPECT_TRUE(failsToConnect(client, GetParam().connecting));
    EXPECT_EQ(path, client.getPeerPath());
    UnixServer server(path, true, FILESYSTEM);
    EXPECT_TRUE(failsToListen(server, GetParam().listening));
    EXPECT_EQ("precious", contentOf(m_folder / "file"));
}

TEST_F(UnixSocketFile, isNeitherReachedNorCreatedWithoutPermission) {
    VESK_SKIP_UNLESS_ROOT();
    ASSERT_EQ(0, chmod(m_peer.c_str(), 0600));
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        UnixClient unnamed = makeClient("", m_peer);
        EXPECT_TRUE(failsToConnect(unnamed, NO_ACCESS));
        UnixClient named = makeClient(m_own, m_peer);
        EXPECT_TRUE(failsToConnect(named, NO_ACCESS));
        UnixServer server(m_own, true, FILESYSTEM);
        EXPECT_TRUE(failsToListen(server, NO_ACCESS));
    });
}

TEST(UnixSocket, thatDoesNotBlockIsRefusedByAFullBacklog) {
    Listener const listener(Transport::PATH, true, 1);
    SocketPtr const clients[] = {listener.makeClient({false}), listener.makeClient({false})};
    for (SocketPtr const& client : clients) {
        EXPECT_FALSE(connectSocket(*client)) << "one more waits than the backlog";
    }
    SocketPtr const late = listener.makeClient({false});
    EXPECT_TRUE(failsToConnect(*late, {SysErrorId::RESOURCES_EXHAUSTED, EAGAIN}));
    EXPECT_TRUE(listener.accept()->isValid());
    EXPECT_TRUE(connects(*late)) << "there is room now";
}

TEST_F(UnixSocketFile, ofAServerWithAFullBacklogLetsAClientWait) {
    m_server.listen(0);
    UnixClient first = makeClient("", m_peer);
    EXPECT_FALSE(first.connect());
    SleepingThread thread([&] {
        UnixClient second = makeClient("", m_peer);
        EXPECT_TRUE(connects(second));
    });
    close(accept4(m_server.getFd(), nullptr, nullptr, 0));
    thread.join();
}

// ---- Closing ----

TEST(UnixSocket, discardsWhatItsBufferHoldsWhenItCloses) {
    Connection const connection(Transport::PATH, {true, 0, 64});
    writeTo(*connection.client, "unsent");
    EXPECT_FALSE(closeSocket(*connection.client, true));
    EXPECT_TRUE(isAtEnd(*connection.server));
}

/// Returns the reports of a failure to remove a file.
Reports getReports(ErrnoRow const& row, std::string const& path) {
    Reports reports = row;
    for (ExpectedReport& report : reports) {
        if (report.family == &vesk::FileAccessError) {
            report.text = rowText(vesk::FileAccessError, report.id, path);
        }
    }
    reports.push_back(ErrnoRow(SysErrorId::SPOILED_INTEGRITY, row.error).reports[0]);
    return reports;
}

auto const UNLINK_ROWS = errnoRows({
    {{EPERM, EACCES, EROFS}, {SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED}},
    {{ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, {SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}},
    {{EBUSY}, {SysErrorId::IN_USE, FileAccessErrorId::BUSY}},
    {{EISDIR}, {SysErrorId::INVALID_PATH, FileAccessErrorId::IS_A_DIRECTORY}},
    {{EFAULT}, {SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED}},
    {{ENOMEM}, {SysErrorId::OUT_OF_MEMORY}},
    {{EINTR, EIO}, {SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}},
});
VESK_TEST_EACH(UnixSocketRemoval, failureIsReportedOnTopAndTheSocketIsDead, UnixSocketFile, UNLINK_ROWS) {
    auto const client = connect();
    int const fd = client->getSocketFd();
    Fault const fault(inject_unlink, GetParam().error);
    EXPECT_TRUE(client->close(false));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(failed(*client, Socket::DEAD, getReports(GetParam(), m_own)));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(isSocketFile(m_own));
}

TEST_F(UnixSocketFile, thatWasRemovedByAnotherIsReportedByClose) {
    UnixServer server(m_folder / "other", true, FILESYSTEM);
    enableListen(server);
    auto const client = connect();
    for (UnixSocketBase* const socket : std::initializer_list<UnixSocketBase*>{client.get(), &server}) {
        ASSERT_EQ(0, unlink(socket->getLocalPath().c_str()));
        EXPECT_TRUE(socket->close(false));
        ErrnoRow const row(SysErrorId::INVALID_PATH, ENOENT, {FileAccessErrorId::BAD_PATH});
        EXPECT_TRUE(failed(*socket, Socket::DEAD, getReports(row, socket->getLocalPath())));
    }
    auto const unclosed = connect();
    int const fd = unclosed->getSocketFd();
    Fault const closes(inject_close, EIO);
    Fault const removals(inject_unlink, EPERM);
    EXPECT_TRUE(unclosed->close(false));
    ErrnoRow const row(SysErrorId::PERMISSION_DENIED, EPERM, {FileAccessErrorId::ACCESS_DENIED});
    EXPECT_TRUE(failed(*unclosed, Socket::DEAD, getReports(row, m_own)));
    closeForReal(fd);
}

TEST_F(UnixSocketFile, withTheNameOfAnAbstractSocketIsNotRemoved) {
    m_folder.makeFile("own", "precious");
    Calls const removals(inject_unlink, 0);
    Connection const connection(Transport::ABSTRACT, {true, 0, 0, m_own});
    EXPECT_FALSE(closeSocket(*connection.client, false));
    EXPECT_EQ("precious", contentOf(m_own));
}

// ---- Destruction ----

TEST_F(UnixSocketFile, isRemovedByTheDestructorAndAFailureIsABrokenInvariant) {
    WithoutClosing const without_closing;
    {
        UnixClient client = makeClient(m_own, m_folder / "none");
        EXPECT_TRUE(failsToConnect(client, {SysErrorId::SPOILED_INTEGRITY, ENOENT}));
        EXPECT_TRUE(isSocketFile(m_own));
    }
    EXPECT_FALSE(isSocketFile(m_own));

    EventRecorder const events;
    auto client = connect();
    ASSERT_EQ(0, unlink(m_own.c_str()));
    client.reset();
    std::string const assertion = "ASSERT framework/src/vesk/posix/UnixSocketBase ~UnixSocketBase: ";
    EXPECT_EQ(
        assertion + "this->getState() != OPEN\n" + assertion + "!has_error: error closing socket",
        events.getText());
    EXPECT_TRUE(
        chainIs({SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH, SysErrorId::SPOILED_INTEGRITY}));
}

// ---- Servers ----

testing::AssertionResult listens(UnixServer& server) {
    enableListen(server);
    return succeeded(server, Socket::OPEN);
}

/// Returns whether a client of plain system calls can connect to an address.
bool isReached(std::string const& address) {
    int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool const reached = withAddress(connect, fd, address) == 0;
    close(fd);
    return reached;
}

TEST(UnixServerSocket, withAnAbstractNameOfOneLetterBindsFourBytesAndCreatesNoFile) {
    // One of the letters is free, also if other runs of this test use the rest.
    for (std::string const letter : {"v", "w", "x", "y", "z"}) {
        UnixServer server(letter, true, ABSTRACT);
        server.enableListen(1);
        if (server.hadError()) {
            EXPECT_TRUE(chainIs(IN_USE.reports));
            continue;
        }
        EXPECT_EQ(4U, s_calls.bind_length);
        EXPECT_EQ(abstractAddress(letter), s_calls.bound);
        if (keepsAddresses()) {
            EXPECT_EQ(abstractAddress(letter), addressOf(server.getSocketFd()));
        }
        EXPECT_FALSE(isSocketFile(letter));
        Process child([&] {
            UnixClient client = makeClient("", letter, ABSTRACT);
            EXPECT_FALSE(client.connect());
            writeTo(client, "met");
            EXPECT_FALSE(client.close(true));
        });
        EXPECT_EQ("met", readFrom(*acceptSocket(server), 3));
        EXPECT_EQ(0, child.join());
        Calls const removals(inject_unlink, 0);
        EXPECT_FALSE(server.close(false));
        UnixServer next(letter, true, ABSTRACT);
        EXPECT_TRUE(listens(next)) << "the name has ended with its socket";
        return;
    }
    FAIL() << "none of the names was free";
}

VESK_TEST_EACH(
    UnixServerSocketName, thatIsAbstractIsBoundExactlyUpTo106Bytes, testing::Test,
    (std::vector<size_t>{40, 104, 105, 106, 107})) {
    std::string name = makeName() + "-\x80\xff\1\n ";
    name.resize(GetParam(), 'n');
    // The last byte of a longer name becomes zero, for servers and for clients.
    std::string const bound = GetParam() == 107 ? name.substr(0, 106) + '\0' : name;
    UnixServer server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
    EXPECT_EQ(abstractAddress(bound), s_calls.bound);
    UnixClient client = makeClient("", name, ABSTRACT);
    EXPECT_TRUE(connects(client));
    if (keepsAddresses() || GetParam() == 107) {
        EXPECT_EQ(abstractAddress(bound), addressOf(server.getSocketFd()));
        EXPECT_EQ(bound, client.getPeerPath());
        EXPECT_TRUE(isReached(abstractAddress(bound)));
        EXPECT_FALSE(isReached(abstractAddress(bound + '\0'))) << "no zero follows the name";
        EXPECT_FALSE(isReached(abstractAddress(bound.substr(0, bound.size() - 1))));
    }
}

VESK_TEST_EACH(
    UnixServerSocketPath, isTheNameOfAFileOfUpTo107Bytes, UnixSocketFile,
    (std::vector<size_t>{60, 105, 106, 107})) {
    std::string path = m_own;
    path.resize(GetParam(), 'p');
    UnixServer server(path, true, FILESYSTEM);
    EXPECT_FALSE(isSocketFile(path));
    EXPECT_TRUE(listens(server));
    EXPECT_EQ(GetParam() + 3, s_calls.bind_length);
    EXPECT_TRUE(isSocketFile(path));
    UnixClient client = makeClient("", path);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(GetParam() + 3, s_calls.connect_length);
    EXPECT_EQ(path, client.getPeerPath());
    EXPECT_FALSE(server.close(false));
    EXPECT_FALSE(isSocketFile(path));
}

TEST_F(UnixSocketFile, isAnAddressInUseAfterItsProcessHasCrashed) {
    for (auto const name_space : {ABSTRACT, FILESYSTEM}) {
        std::string const name = name_space == ABSTRACT ? makeName() : m_own;
        Process child([&] {
            UnixServer server(name, true, name_space);
            EXPECT_TRUE(listens(server));
            raise(SIGKILL);
        });
        EXPECT_EQ(-1, child.join());
        if (name_space == FILESYSTEM) {
            UnixServer server(name, true, name_space);
            EXPECT_TRUE(failsToListen(server, IN_USE));
            EXPECT_TRUE(isSocketFile(name)) << "it is not removed";
            ASSERT_EQ(0, unlink(name.c_str()));
        }
        UnixServer next(name, true, name_space);
        EXPECT_TRUE(listens(next)) << "an abstract name is free at once";
    }
}

TEST_F(UnixSocketFile, doesNotShareItsNameWithAbstractSockets) {
    UnixServer by_path(m_own, true, FILESYSTEM);
    UnixServer by_name(m_own, true, ABSTRACT);
    EXPECT_TRUE(listens(by_path));
    EXPECT_TRUE(listens(by_name));
    UnixClient client = makeClient("", m_own, ABSTRACT);
    EXPECT_FALSE(client.connect());
    EXPECT_TRUE(acceptSocket(by_name)->isValid());
    EXPECT_FALSE(by_name.close(false));
    EXPECT_TRUE(isSocketFile(m_own));
}

TEST_F(UnixSocketFile, isRemovedByCloseOnlyIfTheServerHasCreatedIt) {
    m_folder.makeFile("own", "precious");
    UnixServer never_listened(m_own, true, FILESYSTEM);
    EXPECT_FALSE(never_listened.close(false));
    EXPECT_EQ("precious", contentOf(m_own));
    ASSERT_EQ(0, unlink(m_own.c_str()));

    UnixServer server(m_own, true, FILESYSTEM);
    EXPECT_TRUE(listens(server));
    EXPECT_FALSE(server.close(false));
    m_folder.makeFile("own", "the next owner's");
    EXPECT_TRUE(server.close(false));
    EXPECT_TRUE(chainIs({misuse("called close on already DEAD socket")}));
    EXPECT_EQ("the next owner's", contentOf(m_own));
}

TEST_F(UnixSocketFile, withARelativePathIsInTheWorkingDirectory) {
    expectInChild([this] {
        ASSERT_EQ(0, chdir(m_folder.getPath().c_str()));
        UnixServer server("own", true, FILESYSTEM);
        EXPECT_TRUE(listens(server));
        EXPECT_TRUE(isSocketFile(m_own));
        UnixClient client(true, 0, 0, "", "own", FILESYSTEM);
        EXPECT_FALSE(client.connect());
        EXPECT_EQ("own", client.getPeerPath());
        EXPECT_FALSE(server.close(false));
        EXPECT_FALSE(isSocketFile(m_own));
    });
}

// ---- The name of the peer ----

class UnixSocketPeerName : public testing::Test, protected Connection {
protected:
    UnixSocketPeerName() : Connection(Transport::ABSTRACT) {}
    void TearDown() override { s_calls.peer_name.reset(); }

    /// Makes the system answer with this name, of that length in total.
    static void setAnswer(std::string const& address, size_t length) {
        sockaddr_un binary{};
        memcpy(&binary, address.data(), address.size());
        s_calls.peer_name = binary;
        s_calls.peer_length = static_cast<socklen_t>(length);
    }

    static void setAnswer(std::string const& address) { setAnswer(address, address.size()); }

    vesk::Path const& update() const {
        m_client.updatePeerAddress();
        EXPECT_TRUE(chainIs({}));
        return m_client.getPeerPath();
    }

    UnixSocket& m_client = dynamic_cast<UnixSocket&>(*client);
    vesk::Path const m_before = m_client.getPeerPath();
};

TEST_F(UnixSocketPeerName, isUpdatedOnlyWhileTheSocketIsOpen) {
    UnixClient socket = makeClient("", "peer", ABSTRACT);
    setAnswer(abstractAddress("other"));
    for (Socket::State const state : {Socket::INACTIVE, Socket::DEAD}) {
        EXPECT_TRUE(succeeded(socket, state));
        socket.updatePeerAddress();
        EXPECT_EQ("peer", socket.getPeerPath());
        if (state == Socket::INACTIVE) {
            EXPECT_FALSE(socket.close(false));
        }
    }
}

TEST_F(UnixSocketPeerName, isKeptIfThePeerHasNoneOrTheCallFailsOrReturnsAnotherFamilyOrTooLittle) {
    auto& adopted = dynamic_cast<UnixSocket&>(*server);
    adopted.updatePeerAddress();
    EXPECT_EQ("", adopted.getPeerPath());
    setAnswer(pathAddress(""));
    EXPECT_EQ(m_before, update());
    std::string address = abstractAddress("other");
    for (size_t const length : {0U, 1U}) {
        setAnswer(address, length);
        EXPECT_EQ(m_before, update());
    }
    address[0] = AF_INET;
    setAnswer(address);
    EXPECT_EQ(m_before, update());
    setAnswer(abstractAddress("other"));
    for (int const error : {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTCONN, ENOTSOCK}) {
        Calls const calls(inject_getpeername, 1, error);
        EXPECT_EQ(m_before, update());
    }
    EXPECT_EQ("other", update());
}

struct PeerNameRow : NamedRow {
    std::string address;
    size_t length;
    std::string expected;
};

std::string const PATH108(108, 'p');
std::string const NAME107(107, 'n');
std::string const BYTES("\0a\0\xff\n/\0", 7);

PeerNameRow const PEER_NAME_ROWS[] = {
    {"pathUpToItsZero", pathAddress(std::string("/run/x\0rest", 11)), 14, "/run/x"},
    {"pathWithoutAZero", pathAddress(PATH108), 111, PATH108},
    {"abstractNameOfAnyBytes", abstractAddress(BYTES), 10, BYTES},
    {"abstractNameThatFillsTheAddress", abstractAddress(NAME107), 110, NAME107},
    {"abstractNameWithALengthBeyondTheAddress", abstractAddress(NAME107), 200, NAME107},
    {"emptyAbstractName", abstractAddress(""), 3, ""}};
VESK_TEST_TABLE(UnixSocketPeerNameRows, isTakenFromTheAddress, UnixSocketPeerName, PEER_NAME_ROWS) {
    setAnswer(GetParam().address, GetParam().length);
    EXPECT_EQ(GetParam().expected, update());
    EXPECT_EQ(GetParam().expected.size(), m_client.getPeerPath().size());
}

TEST(UnixSocket, learnsAbstractNamesWithEveryByte) {
    if (!keepsAddresses()) {
        GTEST_SKIP() << "the emulator puts a zero behind abstract names";
    }
    std::string const name = makeName() + "\xff\1/ \n\x80";
    UnixServer server(name, true, ABSTRACT);
    EXPECT_TRUE(listens(server));
    UnixClient client = makeClient(name + "client", name, ABSTRACT);
    EXPECT_TRUE(connects(client));
    EXPECT_EQ(abstractAddress(name), addressOf(server.getSocketFd()));
    EXPECT_EQ(abstractAddress(name + "client"), addressOf(client.getSocketFd()));
    EXPECT_EQ(name, client.getPeerPath());
    EXPECT_EQ(name + "client", UnixClient(true, 0, 0, server.acceptConnection()).getPeerPath());
    // Only plain system calls bind a name with zeros.
    std::string const zeros = makeName() + std::string("\0x\0", 3);
    PlainServer const plain((abstractAddress(zeros)));
    ASSERT_EQ(0, withAddress(connect, plain.getFd(), abstractAddress(name)));
    EXPECT_EQ(zeros, UnixClient(true, 0, 0, server.acceptConnection()).getPeerPath());
}

// ---- The credentials of the peer ----

/// User, group and process.
using Credentials = std::array<long long, 3>;

Credentials getPeer(Socket const& socket) {
    Credentials result{77, 77};
    int pid = 77;
    dynamic_cast<UnixSocketBase const&>(socket).getPeerCredentials(result[0], result[1], pid);
    EXPECT_TRUE(chainIs({}));
    return {result[0], result[1], pid};
}

Credentials const UNKNOWN{vesk::User::BAD_ID, vesk::Group::BAD_ID, vesk::ProcessTNG::INVALID_PROCESS_ID};
static_assert(
    vesk::User::BAD_ID == -1 && vesk::Group::BAD_ID == -1 && vesk::ProcessTNG::INVALID_PROCESS_ID == -1);

Credentials const MINE{geteuid(), getegid(), getpid()};

TEST(UnixSocketCredentials, areThoseOfTheOtherEndOrItsOwnIfItListens) {
    UnixClient socket = makeClient("", makeName(), ABSTRACT);
    EXPECT_EQ(UNKNOWN, getPeer(socket));
    EXPECT_TRUE(failsToConnect(socket, REFUSED));
    EXPECT_EQ(UNKNOWN, getPeer(socket)) << "after a failure";
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(UNKNOWN, getPeer(socket)) << "without a descriptor";
    EXPECT_EQ(UNKNOWN, getPeer(UnixSocket(true, 0, 0, "", "", ABSTRACT))) << "of an invalid socket";
    Connection const connection(Transport::ABSTRACT);
    EXPECT_EQ(MINE, getPeer(*connection.client));
    EXPECT_EQ(MINE, getPeer(*connection.server));
    SocketPtr const server = makeServer(Place(Transport::ABSTRACT));
    EXPECT_EQ(UNKNOWN, getPeer(*server));
    enableListen(*server);
    EXPECT_EQ(MINE, getPeer(*server));
    EXPECT_FALSE(closeSocket(*server, false));
    EXPECT_EQ(UNKNOWN, getPeer(*server));
}

class UnixSocketCredentialsAnswer : public testing::Test, protected Connection {
protected:
    UnixSocketCredentialsAnswer() : Connection(Transport::ABSTRACT) {}
    void TearDown() override { s_calls.credentials.reset(); }

    /// Returns what the socket makes of an answer of the system.
    Credentials getPeerFrom(ucred const& credentials, socklen_t length = 12) const {
        s_calls.credentials = credentials;
        s_calls.credentials_length = length;
        return getPeer(*client);
    }
};

TEST_F(UnixSocketCredentialsAnswer, isUnknownIfItFailsOrHasAnotherSizeOrNoUser) {
    for (int const error : {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK, ENODATA, EINTR}) {
        Calls const calls(inject_getsockopt, 1, error);
        EXPECT_EQ(UNKNOWN, getPeer(*client));
        EXPECT_FALSE(client->hadError());
    }
    for (socklen_t const length : {0U, 1U, 4U, 8U, 11U, 13U, 16U, 128U}) {
        EXPECT_EQ(UNKNOWN, getPeerFrom({1, 2, 3}, length)) << length;
    }
    EXPECT_EQ((Credentials{2, 3, 1}), getPeerFrom({1, 2, 3}));
    EXPECT_EQ(UNKNOWN, getPeerFrom({0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)}));
    EXPECT_EQ(
        (Credentials{0xfffffffeLL, 0xffffffffLL, 0x7fffffff}),
        getPeerFrom({0x7fffffff, 0xfffffffe, 0xffffffff}));
    EXPECT_EQ((Credentials{0x80000000LL, 0x80000001LL, 1}), getPeerFrom({1, 0x80000000, 0x80000001}));
}

/// A server for a client in another process.
class UnixSocketProcess : public testing::Test {
protected:
    /// Runs `body` with a connected client in a child.
    template <typename Body>
    Process startClient(Body body) const {
        return Process([&] {
            SocketPtr const client = m_listener.makeClient();
            EXPECT_FALSE(connectSocket(*client));
            body(*client);
        });
    }

    Listener const m_listener{Transport::ABSTRACT};
};

TEST_F(UnixSocketProcess, knowsTheCredentialsOfTheOther) {
    Process child = startClient([](Socket& client) {
        EXPECT_EQ((Credentials{geteuid(), getegid(), getppid()}), getPeer(client));
        EXPECT_TRUE(isAtEnd(client));
    });
    SocketPtr const accepted = m_listener.accept();
    EXPECT_EQ((Credentials{geteuid(), getegid(), child.getId()}), getPeer(*accepted));
    EXPECT_FALSE(closeSocket(*accepted, false));
    EXPECT_EQ(0, child.join());
}

TEST_F(UnixSocketProcess, hasTheCredentialsOfTheTimeOfTheConnection) {
    VESK_SKIP_UNLESS_ROOT();
    Process child = startClient([this](Socket& /*before*/) {
        EXPECT_EQ(0, setgroups(0, nullptr));
        EXPECT_EQ(0, setgid(4321));
        EXPECT_EQ(0, setuid(1234));
        SocketPtr const after = m_listener.makeClient();
        EXPECT_FALSE(connectSocket(*after));
        EXPECT_EQ((Credentials{0, 0, getppid()}), getPeer(*after)) << "the server is root's";
        EXPECT_TRUE(isAtEnd(*after));
    });
    SocketPtr const before = m_listener.accept();
    SocketPtr const after = m_listener.accept();
    EXPECT_EQ((Credentials{0, 0, child.getId()}), getPeer(*before));
    EXPECT_EQ((Credentials{1234, 4321, child.getId()}), getPeer(*after));
    EXPECT_FALSE(closeSocket(*before, false));
    EXPECT_FALSE(closeSocket(*after, false));
    EXPECT_EQ(0, child.join());
}

TEST_F(UnixSocketProcess, isOutlivedByItsCredentials) {
    Process child = startClient([](Socket& /*client*/) { raise(SIGKILL); });
    pid_t const id = child.getId();
    SocketPtr const accepted = m_listener.accept();
    EXPECT_EQ(-1, child.join());
    Credentials const peer = getPeer(*accepted);
    EXPECT_EQ((Credentials{geteuid(), getegid(), peer[2]}), peer);
    EXPECT_TRUE(peer[2] == id || peer[2] == 0) << peer[2];
}

TEST_F(UnixSocketProcess, thatIsInvisibleHasTheId0) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([this] {
        SocketPtr const client = m_listener.makeClient();
        ASSERT_FALSE(connectSocket(*client));
        ASSERT_EQ(0, unshare(CLONE_NEWPID)) << strerror(errno);
        Process elsewhere([&] { EXPECT_EQ((Credentials{0, 0, 0}), getPeer(*m_listener.accept())); });
        EXPECT_EQ(0, elsewhere.join());
    });
}

// ---- A peer that is gone ----

ErrnoRow const BROKEN_PIPE(Socket::ErrorId::INVALID_SOCKET, EPIPE, {StreamErrorId::UNUSABLE});

TEST_F(UnixSocketProcess, thatIsKilledEndsTheConnectionAfterItsData) {
    Process child = startClient([](Socket& client) {
        writeTo(client, "last words");
        raise(SIGKILL);
    });
    SocketPtr const accepted = m_listener.accept();
    EXPECT_EQ(-1, child.join());
    EXPECT_EQ("last words", readFrom(*accepted, 10));
    EXPECT_TRUE(isAtEnd(*accepted));
    EXPECT_TRUE(failsToWrite(*accepted, BROKEN_PIPE));
    EXPECT_FALSE(closeSocket(*accepted, true));
}

TEST_F(UnixSocketProcess, thatLeavesDataUnreadResetsTheConnection) {
    Process child = startClient([](Socket& client) {
        EXPECT_EQ("first", readFrom(client, 5));
        raise(SIGKILL);
    });
    SocketPtr const accepted = m_listener.accept();
    writeTo(*accepted, "first, and unread data");
    EXPECT_EQ(-1, child.join());
    EXPECT_TRUE(isReset(*accepted));
}

TEST_F(UnixSocketProcess, thatIsKilledWakesAWriterThatWaitsForRoom) {
    Process child = startClient([](Socket& client) {
        EXPECT_EQ("b", readFrom(client, 1));
        pause(); // Reads no more.
    });
    SocketPtr const accepted = m_listener.accept();
    EXPECT_FALSE(accepted->setSendBuffer(4096));
    SleepingThread writer([&] {
        std::string const block(1 << 20, 'b');
        int result = 1;
        while (result == 1) {
            result = write(*accepted, block).first;
        }
        EXPECT_EQ(-1, result);
        EXPECT_TRUE(std::ErrorStorage::isA(std::IBinStreamBase::StreamError));
        EXPECT_EQ(StreamErrorId::UNUSABLE, std::ErrorStorage::id());
        std::ErrorStorage::ack();
    });
    child.kill();
    writer.join();
    EXPECT_TRUE(accepted->hadError());
}

} // namespace
