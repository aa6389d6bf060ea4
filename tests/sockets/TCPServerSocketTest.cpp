#include "TCPSupport.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <type_traits>
#include <vector>

namespace {

using namespace support;

static_assert(std::is_base_of_v<IPSocket, TCPServerSocket> && !std::is_copy_constructible_v<TCPServerSocket>);

constexpr char const* SOURCE = "framework/src/vesk/posix/TCPServerSocket";

using Server = Closing<TCPServerSocket>;

/// A server that does not listen yet.
Server
makeIdle(bool blocking = true, bool reuse = false, IPSocket::IPProtocolVersion version = IPSocket::IPV4) {
    return {IPAddress(getLoopback(version), 0), blocking, reuse, version};
}

int getOption(int fd, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

testing::AssertionResult isEmpty(TCPSocket::Description const& description) {
    bool const empty = !description.valid && description.socket_fd == -1 &&
        description.local_address.host.empty() && description.local_address.port == 0 &&
        description.version == IPSocket::IPV4;
    return empty ? testing::AssertionSuccess() : testing::AssertionFailure() << "it has something";
}

// The constructor.

class TCPServerSocketVersions : public testing::TestWithParam<IPSocket::IPProtocolVersion> {};

INSTANTIATE_TEST_SUITE_P(versions, TCPServerSocketVersions, testing::ValuesIn(VERSIONS), getVersionName);

TEST_P(TCPServerSocketVersions, isInactiveWithADescriptorThatExecCloses) {
    Server const server = makeIdle(true, false, GetParam());
    EXPECT_EQ(Socket::INACTIVE, server.getState());
    EXPECT_TRUE(server.isValid());
    EXPECT_FALSE(server.hadError());
    EXPECT_FALSE(server.isInputBuffered());
    EXPECT_FALSE(server.isOutputBuffered());
    int const fd = server.getSocketFd();
    EXPECT_EQ(SOCK_STREAM, getOption(fd, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(GetParam() == IPSocket::IPV6 ? AF_INET6 : AF_INET, getOption(fd, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL));
    EXPECT_EQ(0, getOption(fd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0, getOption(fd, SOL_SOCKET, SO_ACCEPTCONN)) << "it does not listen yet";
    EXPECT_TRUE(chainIs({}));
}

TEST_P(TCPServerSocketVersions, thatDoesNotWaitAndReusesHasSuchADescriptor) {
    Server const server = makeIdle(false, true, GetParam());
    EXPECT_EQ(O_RDWR | O_NONBLOCK, s_last.status_flags);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(server.getSocketFd(), F_GETFL));
    EXPECT_EQ(1, getOption(server.getSocketFd(), SOL_SOCKET, SO_REUSEADDR));
}

TEST(TCPServerSocket, leavesOptionsAndFlagsAloneThatNobodyAskedFor) {
    Fault const options(inject_setsockopt, 0);
    Fault const flags(inject_fcntl, 0);
    Server const server = makeIdle(true, false);
    EXPECT_EQ(0, options.getCalls());
    EXPECT_EQ(0, flags.getCalls());
}

TEST(TCPServerSocket, withAnAddressOfTheOtherVersionIsInvalidAndHasNoDescriptor) {
    Fault const descriptors(inject_socket, 0);
    TCPServerSocket server(IPAddress(IPSocket::LOOPBACK_IP6, 0), false, true, IPSocket::IPV4);
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_FALSE(server.isValid());
    EXPECT_EQ(-1, server.getSocketFd());
    EXPECT_EQ(0, descriptors.getCalls());

    EventRecorder const events;
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT,
          rowText(std::CommonErrorId::INVALID_ARGUMENT, "p_socket_fd is invalid")}}));
    EXPECT_EQ(Socket::DEAD, server.getState());
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon bindSocket: p_socket_fd != INVALID_SOCKET_FD",
        events.getText());
}

class TCPServerSocketCreation : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketCreation, failureLeavesTheServerInvalid) {
    EventRecorder const events;
    {
        Fault const fault(inject_socket, GetParam().error);
        Server const server = makeIdle(false, true);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_FALSE(server.isValid());
        EXPECT_EQ(-1, server.getSocketFd());
    }
    EXPECT_EQ("", events.getText()) << "it is destroyed in silence";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketCreation, testing::ValuesIn(getCreationRows()));

/// A failure behind `socket`: the descriptor is closed again, and the cause stays although a server cannot be flushed.
void expectCauseToSurviveClose(Injected& call, int nth, ErrorRow const& row) {
    EventRecorder const events;
    int const descriptors = countDescriptors();
    {
        Fault const fault(call, row.error, nth);
        Server const server = makeIdle(false, true);
        EXPECT_TRUE(failureIs(row));
        EXPECT_FALSE(server.isValid());
        EXPECT_EQ(-1, server.getSocketFd());
        EXPECT_EQ(Socket::DEAD, server.getState());
        EXPECT_EQ(descriptors, countDescriptors());
    }
    EXPECT_EQ("", events.getText());
}

class TCPServerSocketStatusFlags : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketStatusFlags, thatCannotBeReadMakeTheServerInvalid) {
    expectCauseToSurviveClose(inject_fcntl, 1, GetParam());
}

TEST_P(TCPServerSocketStatusFlags, thatCannotBeSetMakeTheServerInvalid) {
    Fault const options(inject_setsockopt, 0);
    expectCauseToSurviveClose(inject_fcntl, 2, GetParam());
    EXPECT_EQ(0, options.getCalls()) << "reuse is not tried any more";
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketStatusFlags, testing::ValuesIn(getStatusFlagRows()));

class TCPServerSocketReuse : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketReuse, thatIsRefusedMakesTheServerInvalid) {
    expectCauseToSurviveClose(inject_setsockopt, 1, GetParam());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketReuse, testing::ValuesIn(getSetOptionRows()));

TEST(TCPServerSocket, endsTheProcessIfWhatItCannotUseCannotBeClosedEither) {
    EventRecorder const events;
    int const fd = getNextDescriptor();
    {
        Fault const fault(inject_fcntl, EPERM);
        Fault const close_fault(inject_close, EIO);
        Server const server = makeIdle(false);
        EXPECT_TRUE(failureIs(SysError, vesk::SysErrorId::UNCLASSIFIED, EPERM))
            << "and the cause is still told";
        EXPECT_FALSE(server.isValid());
    }
    EXPECT_EQ(
        std::string("ABORT ") + SOURCE + " TCPServerSocket: error constructing, error closing",
        events.getText());
    EXPECT_EQ(0, close(fd));
}

TEST(TCPServerSocket, reallyEndsTheProcessThen) {
    ChildEnd const end = runInChild([] {
        Fault const fault(inject_setsockopt, EPERM);
        Fault const close_fault(inject_close, EIO);
        Server const server = makeIdle(true, true);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error constructing, error closing"));
}

// Listening.

TEST_P(TCPServerSocketVersions, listensAndTellsItsPortWhenItIsAskedToLook) {
    Server server = makeIdle(true, false, GetParam());
    server.enableListen(5);
    EXPECT_FALSE(server.hadError());
    EXPECT_EQ(Socket::OPEN, server.getState());
    EXPECT_EQ(1, getOption(server.getSocketFd(), SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_EQ(0, server.getLocalAddress().port) << "it is not looked up by itself";
    server.updateLocalAddress();
    EXPECT_NE(0, server.getLocalAddress().port);
    EXPECT_EQ(getLoopback(GetParam()), server.getLocalAddress().host);
    server.updatePeerAddress();
    EXPECT_EQ("", server.getPeerAddress().host) << "there is no peer";
    EXPECT_TRUE(chainIs({}));
}

TEST_P(TCPServerSocketVersions, withoutAHostListensOnAllAddresses) {
    Listener listener(IPAddress(), GetParam());
    EXPECT_EQ(
        GetParam() == IPSocket::IPV6 ? IPSocket::ANY_IP6 : IPSocket::ANY_IP, listener.getLocalAddress().host);
    Client client(
        true, 0, 0, IPAddress(), IPAddress(getLoopback(GetParam()), listener.getLocalAddress().port), false,
        GetParam());
    EXPECT_FALSE(client.connect());
}

TEST(TCPServerSocket, ofIPv6ServesClientsOfIPv4) {
    Server server(IPAddress::ANY_ADDRESS6, true, false, IPSocket::IPV6);
    int const off = 0;
    ASSERT_EQ(0, setsockopt(server.getSocketFd(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off));
    server.enableListen(1);
    server.updateLocalAddress();
    Client client(
        true, 0, 0, IPAddress(), IPAddress(IPSocket::LOOPBACK_IP, server.getLocalAddress().port), false,
        IPSocket::IPV4);
    EXPECT_FALSE(client.connect());
    Client const accepted(true, 0, 0, server.acceptConnection());
    EXPECT_EQ("::ffff:127.0.0.1", accepted.getPeerAddress().host);
    EXPECT_EQ(client.getLocalAddress().port, accepted.getPeerAddress().port);
}

class TCPServerSocketStates : public testing::TestWithParam<Socket::State> {
protected:
    TCPServerSocketStates() : m_server(IPAddress(IPSocket::LOOPBACK_IP, 0), true, false, IPSocket::IPV4) {
        if (GetParam() != Socket::INACTIVE) {
            m_server.enableListen(1);
        }
        if (GetParam() == Socket::DEAD) {
            EXPECT_FALSE(m_server.close(false));
        }
        EXPECT_EQ(GetParam(), m_server.getState());
    }

    Server m_server;
};

TEST_P(TCPServerSocketStates, readingFails) {
    char byte = 'x';
    unsigned int count = 12345;
    EXPECT_EQ(-1, m_server.read(&byte, 1, count));
    EXPECT_TRUE(m_server.hadError());
    EXPECT_EQ('x', byte);
    EXPECT_TRUE(streamMisuseIs("read operation on server socket is invalid", 3));
    EXPECT_EQ(GetParam(), m_server.getState());
}

TEST_P(TCPServerSocketStates, writingFails) {
    unsigned int count = 12345;
    EXPECT_EQ(-1, m_server.write("x", 1, count));
    EXPECT_TRUE(m_server.hadError());
    EXPECT_TRUE(streamMisuseIs("write operation on server socket is invalid", 3));
    EXPECT_EQ(GetParam(), m_server.getState());
}

TEST_P(TCPServerSocketStates, flushingFails) {
    EXPECT_TRUE(m_server.flush(false));
    EXPECT_TRUE(m_server.hadError());
    EXPECT_TRUE(streamMisuseIs("flush operation on socket is invalid", 3));
    EXPECT_EQ(GetParam(), m_server.getState());
}

TEST_P(TCPServerSocketStates, transfersOfNothingFailToo) {
    unsigned int count = 12345;
    EXPECT_EQ(-1, m_server.read(nullptr, 0, count));
    EXPECT_TRUE(streamMisuseIs("read operation on server socket is invalid", 3));
    EXPECT_EQ(-1, m_server.write(nullptr, 0, count));
    EXPECT_TRUE(streamMisuseIs("write operation on server socket is invalid", 3));
}

TEST_P(TCPServerSocketStates, closingSucceedsOnceAlthoughFlushingFails) {
    bool const is_dead = GetParam() == Socket::DEAD;
    EXPECT_EQ(is_dead, m_server.close(true));
    EXPECT_EQ(is_dead, m_server.hadError());
    EXPECT_TRUE(is_dead ? misuseIs("called close on already DEAD socket") : chainIs({}));
    EXPECT_EQ(Socket::DEAD, m_server.getState());
    EXPECT_EQ(-1, m_server.getSocketFd());
    EXPECT_FALSE(m_server.isValid());
}

TEST_P(TCPServerSocketStates, largestPieceNeedsADescriptor) {
    EventRecorder const events;
    bool const is_dead = GetParam() == Socket::DEAD;
    EXPECT_EQ(is_dead, m_server.maxTxSize() == 0);
    EXPECT_EQ(is_dead, m_server.hadError());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_EQ("", events.getText()) << "and no warning";
}

INSTANTIATE_TEST_SUITE_P(
    states, TCPServerSocketStates, testing::Values(Socket::INACTIVE, Socket::OPEN, Socket::DEAD),
    [](auto const& row) {
        return std::string(
            row.param == Socket::DEAD       ? "dead"
                : row.param == Socket::OPEN ? "open"
                                            : "inactive");
    });

TEST(TCPServerSocket, listensOnlyOnce) {
    Server server = makeIdle();
    server.enableListen(1);
    Fault const binds(inject_bind, 0);
    for (Socket::State const state : {Socket::OPEN, Socket::DEAD}) {
        server.enableListen(1);
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(misuseIs("enableListen() called in state != INACTIVE"));
        EXPECT_EQ(state, server.getState());
        EXPECT_EQ(state == Socket::DEAD, server.close(false));
        std::ErrorStorage::ack();
    }
    EXPECT_EQ(0, binds.getCalls());
}

/// A listen that has failed: the server is closed, and what failed is told whatever the close says.
void expectFailureToClose(Injected& call, ErrorRow const& row) {
    for (bool const close_fails : {false, true}) {
        Server server = makeIdle();
        int const fd = server.getSocketFd();
        int const descriptors = countDescriptors();
        {
            Fault const fault(call, row.error);
            Fault const close_fault(inject_close, close_fails ? EIO : 0);
            server.enableListen(1);
            EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
            EXPECT_EQ(1, close_fault.getCalls());
        }
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(failureIs(row));
        EXPECT_EQ(Socket::DEAD, server.getState());
        EXPECT_FALSE(server.isValid());
        EXPECT_EQ(-1, server.getSocketFd());
        EXPECT_EQ(descriptors - (close_fails ? 0 : 1), countDescriptors());
        EXPECT_EQ(close_fails, isOpen(fd));
        if (close_fails) {
            close(fd);
        }
    }
}

class TCPServerSocketBind : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketBind, failureClosesTheServerAndIsStillTold) {
    Fault const listens(inject_listen, 0);
    expectFailureToClose(inject_bind, GetParam());
    EXPECT_EQ(0, listens.getCalls());
}

ErrorRows getServerBindRows() {
    ErrorRows rows = getBindRows();
    add(rows, {EINVAL}, SysError, vesk::SysErrorId::SPOILED_INTEGRITY);
    return rows;
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketBind, testing::ValuesIn(getServerBindRows()));

ErrorRows getListenRows() {
    ErrorRows rows;
    add(rows, {EADDRINUSE}, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE);
    add(rows, {ENOBUFS}, SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EACCES}, SysError, vesk::SysErrorId::PERMISSION_DENIED);
    add(rows, {EBADF, EINVAL, ENOTSOCK, EDESTADDRREQ, EOPNOTSUPP}, SysError,
        vesk::SysErrorId::SPOILED_INTEGRITY);
    add(rows, {EINTR, EPERM, ENOMEM}, SysError, vesk::SysErrorId::UNCLASSIFIED);
    return rows;
}

class TCPServerSocketListen : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketListen, failureClosesTheServerAndIsStillTold) {
    expectFailureToClose(inject_listen, GetParam());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketListen, testing::ValuesIn(getListenRows()));

TEST(TCPServerSocket, cannotListenWhereSomebodyElseDoes) {
    Listener first;
    Server second(first.getLocalAddress(), true, false, IPSocket::IPV4);
    second.enableListen(1);
    EXPECT_TRUE(second.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE));
    EXPECT_EQ(Socket::DEAD, second.getState());

    Server third(first.getLocalAddress(), true, true, IPSocket::IPV4);
    third.enableListen(1);
    EXPECT_TRUE(third.hadError()) << "not even with reuse";
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE));
}

TEST(TCPServerSocket, cannotListenOnAnAddressOfAnotherMachine) {
    Server server(IPAddress("203.0.113.1", 0), true, false, IPSocket::IPV4);
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL));
    EXPECT_EQ(Socket::DEAD, server.getState());
}

TEST(TCPServerSocket, onABoundDescriptorCannotListen) {
    Server server = makeIdle();
    sockaddr_in const address = IPAddress::makeHandle(INADDR_LOOPBACK, 0);
    ASSERT_EQ(0, bind(server.getSocketFd(), reinterpret_cast<sockaddr const*>(&address), sizeof address));
    server.enableListen(1);
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(failureIs(SysError, vesk::SysErrorId::SPOILED_INTEGRITY, EINVAL));
    EXPECT_EQ(Socket::DEAD, server.getState());
}

TEST(TCPServerSocket, withReuseListensAgainWhileOldConnectionsLinger) {
    IPAddress address;
    {
        Server server = makeIdle(true, true);
        server.enableListen(1);
        server.updateLocalAddress();
        address = server.getLocalAddress();
        Client client(true, 0, 0, IPAddress(), address, false, IPSocket::IPV4);
        ASSERT_FALSE(client.connect());
        Client accepted(true, 0, 0, server.acceptConnection());
        // Who ends a connection first remembers it for a while.
        EXPECT_FALSE(accepted.close(true));
        EXPECT_TRUE(isAtItsEnd(client));
    }
    Server careful(address, true, false, IPSocket::IPV4);
    careful.enableListen(1);
    EXPECT_TRUE(careful.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE));
    Server bold(address, true, true, IPSocket::IPV4);
    bold.enableListen(1);
    EXPECT_FALSE(bold.hadError());
}

TEST(TCPServerSocket, handsTheBacklogOverAsItIs) {
    for (unsigned int const backlog : {0u, 1u, 100u, 4294967295u}) {
        Server server = makeIdle();
        server.enableListen(backlog);
        EXPECT_FALSE(server.hadError());
        EXPECT_EQ(backlog, static_cast<unsigned int>(s_last.backlog));
    }
}

class TCPServerSocketBacklog : public testing::TestWithParam<unsigned int> {};

TEST_P(TCPServerSocketBacklog, letsOneMoreWaitThanItSays) {
    Listener listener(IPSocket::IPV4, true, GetParam());
    std::vector<std::unique_ptr<Client>> clients;
    auto const addClient = [&](bool blocking) -> Client& {
        clients.push_back(std::make_unique<Client>(
            blocking, 0u, 0u, IPAddress(), listener.getLocalAddress(), false, IPSocket::IPV4));
        return *clients.back();
    };
    for (unsigned int i = 0; i <= GetParam(); ++i) {
        EXPECT_FALSE(addClient(true).connect());
    }
    Client& late = addClient(false);
    EXPECT_TRUE(late.connect());
    EXPECT_FALSE(late.hadError());
    EXPECT_FALSE(isReady(late.getSocketFd(), POLLOUT)) << "there is no room for it";
    Client const accepted(true, 0, 0, listener.acceptConnection());
    EXPECT_EQ(clients.front()->getLocalAddress().port, accepted.getPeerAddress().port) << "in order";
    EXPECT_TRUE(awaitEvents(late.getSocketFd(), POLLOUT)) << "now there is";
}

INSTANTIATE_TEST_SUITE_P(sizes, TCPServerSocketBacklog, testing::Values(0u, 1u, 3u));

TEST(TCPServerSocket, withAHugeBacklogLetsManyWait) {
    Listener listener(IPSocket::IPV4, true, 4294967295u);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<Client>(
            true, 0u, 0u, IPAddress(), listener.getLocalAddress(), false, IPSocket::IPV4));
        ASSERT_FALSE(clients.back()->connect());
    }
    for (auto const& client : clients) {
        Client const accepted(true, 0, 0, listener.acceptConnection());
        EXPECT_EQ(client->getLocalAddress().port, accepted.getPeerAddress().port);
    }
}

// Accepting.

TEST_P(TCPServerSocketVersions, acceptsAndTellsAboutTheConnection) {
    Listener listener(GetParam(), false);
    Client client = listener.makeClient();
    ASSERT_FALSE(client.connect());
    ASSERT_TRUE(awaitEvents(listener.getSocketFd(), POLLIN));
    TCPSocket::Description const accepted = listener.acceptConnection();
    EXPECT_FALSE(listener.hadError());
    EXPECT_TRUE(accepted.valid);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted.socket_fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(accepted.socket_fd, F_GETFL)) << "it waits, unlike the server";
    EXPECT_EQ(GetParam(), accepted.version);
    EXPECT_EQ(listener.getLocalAddress().host, accepted.local_address.host);
    EXPECT_EQ(listener.getLocalAddress().port, accepted.local_address.port);

    std::string const zeros(sizeof accepted.local_binary, '\0');
    EXPECT_EQ(0, memcmp(zeros.data(), &accepted.local_binary, zeros.size()));
    IPAddress const peer = GetParam() == IPSocket::IPV6 ? IPAddress(accepted.peer_binary.v6)
                                                        : IPAddress(accepted.peer_binary.v4);
    EXPECT_EQ(getLoopback(GetParam()), peer.host);
    EXPECT_EQ(client.getLocalAddress().port, peer.port);
    if (GetParam() == IPSocket::IPV4) {
        size_t const rest = sizeof accepted.peer_binary - sizeof accepted.peer_binary.v4;
        auto const* const bytes = reinterpret_cast<char const*>(&accepted.peer_binary);
        EXPECT_EQ(0, memcmp(zeros.data(), bytes + sizeof accepted.peer_binary.v4, rest));
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPServerSocket, keepsThePortUnknownInADescriptionWhereItNeverLooked) {
    Server server = makeIdle();
    server.enableListen(1);
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ASSERT_EQ(0, getsockname(server.getSocketFd(), reinterpret_cast<sockaddr*>(&bound), &size));
    Client client(true, 0, 0, IPAddress(), IPAddress(bound), false, IPSocket::IPV4);
    ASSERT_FALSE(client.connect());
    TCPSocket::Description const accepted = server.acceptConnection();
    EXPECT_TRUE(accepted.valid);
    EXPECT_EQ(IPSocket::LOOPBACK_IP, accepted.local_address.host);
    EXPECT_EQ(0, accepted.local_address.port);
}

TEST(TCPServerSocket, thatDoesNotWaitGivesNothingWhereNobodyCame) {
    Listener listener(IPSocket::IPV4, false);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(isEmpty(listener.acceptConnection()));
        EXPECT_FALSE(listener.hadError());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(Socket::OPEN, listener.getState());
    }
}

TEST(TCPServerSocket, thatIsNotOpenAcceptsNothing) {
    Server server = makeIdle();
    Fault const accepts(inject_accept4, 0);
    for (Socket::State const state : {Socket::INACTIVE, Socket::DEAD}) {
        EXPECT_TRUE(isEmpty(server.acceptConnection()));
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(misuseIs("acceptConnection() called in state != OPEN"));
        EXPECT_EQ(state, server.getState());
        EXPECT_EQ(state == Socket::DEAD, server.close(false));
        std::ErrorStorage::ack();
    }
    EXPECT_EQ(0, accepts.getCalls());
}

ErrorRows getAcceptRows() {
    ErrorRows rows;
    add(rows, {EPERM}, SysError, vesk::SysErrorId::PERMISSION_DENIED);
    add(rows, {ESRCH}, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE);
    add(rows, {EBADF, EINVAL}, Socket::Error, Socket::ErrorId::INVALID_SOCKET);
    add(rows, {ENOMEM, ENOBUFS}, SysError, vesk::SysErrorId::OUT_OF_MEMORY);
    add(rows, {EFAULT, ENOTSOCK, EOPNOTSUPP}, SysError, vesk::SysErrorId::SPOILED_INTEGRITY);
    add(rows, {ENFILE, EMFILE}, SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EPROTO, ETIMEDOUT}, Socket::Error, Socket::ErrorId::COMMUNICATION_FAILED);
    add(rows, {ECONNABORTED}, Socket::Error, Socket::ErrorId::CONNECTION_CLOSED);
    add(rows, {EIO, ENETDOWN, ECONNRESET, EACCES}, SysError, vesk::SysErrorId::UNCLASSIFIED);
    return rows;
}

class TCPServerSocketAccept : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketAccept, failureGivesNothingAndTheServerGoesOn) {
    Listener listener;
    Client client = listener.makeClient();
    ASSERT_FALSE(client.connect());
    int const descriptors = countDescriptors();
    {
        Fault const fault(inject_accept4, GetParam().error);
        EXPECT_TRUE(isEmpty(listener.acceptConnection()));
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    }
    EXPECT_TRUE(listener.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_EQ(Socket::OPEN, listener.getState());
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_TRUE(listener.acceptConnection().valid);
    EXPECT_FALSE(listener.hadError());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketAccept, testing::ValuesIn(getAcceptRows()));

TEST(TCPServerSocket, acceptIsRepeatedWhileSignalsInterruptIt) {
    Listener listener;
    Client client = listener.makeClient();
    ASSERT_FALSE(client.connect());
    Fault const fault(inject_accept4, EINTR, 1, 3);
    EXPECT_TRUE(listener.acceptConnection().valid);
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(listener.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPServerSocket, withoutDescriptorsLeftAcceptsLater) {
    ChildEnd const end = runInChild([] {
        Listener listener;
        Client client = listener.makeClient();
        ASSERT_FALSE(client.connect());
        writeTo(client, "patience");
        int const descriptors = countDescriptors();
        rlimit limit{};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        rlimit const none{3, limit.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        bool accepted_any = false;
        bool told_all = true;
        for (int i = 0; i < 5; ++i) {
            accepted_any |= listener.acceptConnection().valid;
            told_all &=
                listener.hadError() && failureIs(SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED, EMFILE);
        }
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_FALSE(accepted_any);
        EXPECT_TRUE(told_all);
        EXPECT_EQ(descriptors, countDescriptors());
        Client server(true, 0, 0, listener.acceptConnection());
        EXPECT_FALSE(listener.hadError());
        EXPECT_EQ("patience", readFrom(server, 8)) << "the connection has waited";
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(TCPServerSocket, acceptsConnectionsWhosePeerIsGoneAlready) {
    Listener listener;
    {
        Client client = listener.makeClient();
        ASSERT_FALSE(client.connect());
        writeTo(client, "left");
    }
    {
        Client client = listener.makeClient();
        ASSERT_FALSE(client.connect());
        makeCloseReset(client.getSocketFd());
    }
    Client ended(true, 0, 0, listener.acceptConnection());
    EXPECT_EQ("left", readFrom(ended, 4));
    EXPECT_TRUE(isAtItsEnd(ended));

    Client reset(true, 0, 0, listener.acceptConnection());
    EXPECT_FALSE(listener.hadError());
    EXPECT_EQ(Socket::OPEN, reset.getState());
    EXPECT_EQ("", reset.getPeerAddress().host) << "nobody is there to ask";
    char byte = 0;
    unsigned int count = 0;
    EXPECT_EQ(-1, reset.read(&byte, 1, count));
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::CONNECTION_RESET, ECONNRESET, 0));
}

TEST(TCPServerSocket, closedWhileConnectionsWaitResetsThem) {
    Listener listener;
    Client client = listener.makeClient();
    ASSERT_FALSE(client.connect());
    EXPECT_FALSE(listener.close(false));
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLIN));
    char byte = 0;
    unsigned int count = 0;
    EXPECT_EQ(-1, client.read(&byte, 1, count));
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::CONNECTION_RESET, ECONNRESET, 0));
}

// Sizes.

TEST(TCPServerSocket, largestPieceIsTheSendBufferButNotMoreThanASegment) {
    Server server = makeIdle();
    EXPECT_FALSE(server.setSendBuffer(1u << 20));
    ASSERT_GT(server.getSendBuffer(), TCPSocket::MAX_SEGMENT_SIZE);
    EXPECT_EQ(TCPSocket::MAX_SEGMENT_SIZE, server.maxTxSize());
    EXPECT_FALSE(server.setSendBuffer(10000));
    EXPECT_EQ(10000u, server.maxTxSize());
    EXPECT_FALSE(server.hadError());
}

class TCPServerSocketSize : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketSize, thatIsUnknownIsNothingWithoutAWarning) {
    Server server = makeIdle();
    EventRecorder const events;
    {
        Fault const fault(inject_getsockopt, GetParam().error);
        EXPECT_EQ(0u, server.maxTxSize());
    }
    EXPECT_TRUE(server.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", events.getText());
    EXPECT_NE(0u, server.maxTxSize());
    EXPECT_FALSE(server.hadError());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketSize, testing::ValuesIn(getGetOptionRows()));

// The end.

class TCPServerSocketClose : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPServerSocketClose, failureIsReportedAndTheServerIsDead) {
    Listener listener;
    int const fd = listener.getSocketFd();
    {
        Fault const fault(inject_close, GetParam().error);
        EXPECT_TRUE(listener.close(false));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(listener.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_EQ(Socket::DEAD, listener.getState());
    EXPECT_EQ(-1, listener.getSocketFd());
    EXPECT_EQ(0, close(fd));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPServerSocketClose, testing::ValuesIn(getCloseRows()));

TEST(TCPServerSocket, thatNeverListenedIsDestroyedInSilence) {
    EventRecorder const events;
    int fd = -1;
    {
        TCPServerSocket const server(IPAddress(), true, false, IPSocket::IPV6);
        fd = server.getSocketFd();
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPServerSocket, thatListensMustNotBeDestroyed) {
    EventRecorder const events;
    int fd = -1;
    {
        TCPServerSocket server(IPAddress(IPSocket::LOOPBACK_IP, 0), true, false, IPSocket::IPV4);
        server.enableListen(1);
        fd = server.getSocketFd();
    }
    EXPECT_FALSE(isOpen(fd)) << "but it is closed even then";
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: this->getState() != OPEN", events.getText());
}

TEST(TCPServerSocket, whoseListenFailedIsDestroyedInSilence) {
    Listener first;
    EventRecorder const events;
    {
        TCPServerSocket second(first.getLocalAddress(), true, false, IPSocket::IPV4);
        second.enableListen(1);
        EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE));
    }
    EXPECT_EQ("", events.getText());
}

} // namespace
