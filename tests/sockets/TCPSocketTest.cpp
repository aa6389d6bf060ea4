#include "TCPSupport.h"
#include "support/Child.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace support;

using Keepalive = TCPSocket::KeepaliveSettings;

static_assert(std::is_base_of_v<IPSocket, TCPSocket> && !std::is_copy_constructible_v<TCPSocket>);
static_assert(std::is_same_v<uint32_t const, decltype(TCPSocket::MAX_SEGMENT_SIZE)>);
static_assert(TCPSocket::MAX_SEGMENT_SIZE == 65495);
static_assert(offsetof(Keepalive, idle_seconds) == 4 && offsetof(Keepalive, probe_count) == 8);
static_assert(offsetof(Keepalive, probe_interval_seconds) == 12 && sizeof(Keepalive) == 16);

constexpr char const* SOURCE = "framework/src/vesk/posix/TCPSocket";

/// A socket that connects to nobody.
Client
makeIdle(bool blocking = true, bool reuse = false, IPSocket::IPProtocolVersion version = IPSocket::IPV4) {
    return {blocking, 0, 0, IPAddress(), IPAddress(getLoopback(version), 9), reuse, version};
}

int getOption(int fd, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

/// What a socket tells of itself.
testing::AssertionResult isInactive(Client const& socket) {
    if (socket.getState() == Socket::INACTIVE && socket.isValid() && isOpen(socket.getSocketFd())) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "state " << socket.getState() << ", valid " << socket.isValid()
                                       << ", descriptor " << socket.getSocketFd();
}

TEST(TCPSocket, callsItsHookBehindThoseOfItsBase) {
    EXPECT_EQ(getSlot(&IPSocket::closing) + 1, getSlot(&TCPSocket::connected));
}

// The constructor.

class TCPSocketVersions : public testing::TestWithParam<IPSocket::IPProtocolVersion> {};

INSTANTIATE_TEST_SUITE_P(versions, TCPSocketVersions, testing::ValuesIn(VERSIONS), getVersionName);

TEST_P(TCPSocketVersions, isInactiveWithADescriptorThatExecCloses) {
    Client const socket = makeIdle(true, false, GetParam());
    EXPECT_TRUE(isInactive(socket));
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(GetParam(), socket.getVersion());
    int const fd = socket.getSocketFd();
    EXPECT_EQ(SOCK_STREAM, getOption(fd, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(GetParam() == IPSocket::IPV6 ? AF_INET6 : AF_INET, getOption(fd, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL)) << "it waits";
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPSocket, thatDoesNotWaitHasADescriptorThatDoesNot) {
    Client const socket = makeIdle(false);
    EXPECT_TRUE(isInactive(socket));
    EXPECT_EQ(O_RDWR | O_NONBLOCK, s_last.status_flags);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(socket.getSocketFd(), F_GETFL));
}

TEST(TCPSocket, thatWaitsLeavesTheStatusFlagsAlone) {
    Fault const flags(inject_fcntl, 0);
    Client const socket = makeIdle(true);
    EXPECT_EQ(0, flags.getCalls());
}

TEST(TCPSocket, reusesAddressesOnlyIfAskedTo) {
    Client const careful = makeIdle(true, false);
    EXPECT_EQ(0, getOption(careful.getSocketFd(), SOL_SOCKET, SO_REUSEADDR));
    Client const bold = makeIdle(true, true);
    EXPECT_EQ(1, getOption(bold.getSocketFd(), SOL_SOCKET, SO_REUSEADDR));
}

TEST(TCPSocket, withoutReuseTheOptionIsNotTouched) {
    Fault const options(inject_setsockopt, 0);
    Client const careful = makeIdle(true, false);
    EXPECT_EQ(0, options.getCalls());
    Client const bold = makeIdle(true, true);
    EXPECT_EQ(1, options.getCalls());
}

TEST(TCPSocket, withAnAddressThatLeadsToNothingIsInvalidAndHasNoDescriptor) {
    IPAddress const loopback(IPSocket::LOOPBACK_IP, 9);
    IPAddress const of_other_version(IPSocket::LOOPBACK_IP6, 9);
    Fault const descriptors(inject_socket, 0);
    for (bool const is_local : {true, false}) {
        TCPSocket const socket(
            true, 0, 0, is_local ? of_other_version : loopback, is_local ? loopback : of_other_version, true,
            IPSocket::IPV4);
        EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
    }
    EXPECT_EQ(0, descriptors.getCalls());
}

class TCPSocketCreation : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketCreation, failureLeavesTheSocketInvalid) {
    EventRecorder const events;
    {
        Fault const fault(inject_socket, GetParam().error);
        Client const socket = makeIdle(false, true);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ("", events.getText()) << "it is destroyed in silence";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketCreation, testing::ValuesIn(getCreationRows()));

/// A failure behind `socket`: the descriptor is closed again, and the cause stays.
void expectCauseToSurviveClose(Injected& call, int nth, ErrorRow const& row) {
    EventRecorder const events;
    int const descriptors = countDescriptors();
    {
        Fault const fault(call, row.error, nth);
        Client const socket = makeIdle(false, true);
        EXPECT_TRUE(failureIs(row));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(descriptors, countDescriptors());
    }
    EXPECT_EQ("", events.getText());
}

class TCPSocketStatusFlags : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketStatusFlags, thatCannotBeReadMakeTheSocketInvalid) {
    expectCauseToSurviveClose(inject_fcntl, 1, GetParam());
}

TEST_P(TCPSocketStatusFlags, thatCannotBeSetMakeTheSocketInvalid) {
    Fault const options(inject_setsockopt, 0);
    expectCauseToSurviveClose(inject_fcntl, 2, GetParam());
    EXPECT_EQ(0, options.getCalls()) << "reuse is not tried any more";
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketStatusFlags, testing::ValuesIn(getStatusFlagRows()));

class TCPSocketReuse : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketReuse, thatIsRefusedMakesTheSocketInvalid) {
    expectCauseToSurviveClose(inject_setsockopt, 1, GetParam());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketReuse, testing::ValuesIn(getSetOptionRows()));

TEST(TCPSocket, endsTheProcessIfWhatItCannotUseCannotBeClosedEither) {
    EventRecorder const events;
    int const fd = getNextDescriptor();
    {
        Fault const fault(inject_setsockopt, ENOPROTOOPT);
        Fault const close_fault(inject_close, EIO);
        Client const socket = makeIdle(true, true);
        EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::UNKNOWN_OPTION, ENOPROTOOPT))
            << "and the cause is still told";
        EXPECT_FALSE(socket.isValid());
    }
    EXPECT_EQ(std::string("ABORT ") + SOURCE + " TCPSocket: ctor error, close error", events.getText());
    EXPECT_EQ(0, close(fd));
}

TEST(TCPSocket, reallyEndsTheProcessThen) {
    ChildEnd const end = runInChild([] {
        Fault const fault(inject_fcntl, EPERM);
        Fault const close_fault(inject_close, EIO);
        Client const socket = makeIdle(false);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("ctor error, close error"));
}

// Connecting.

TEST_P(TCPSocketVersions, connectsAndLearnsItsAddresses) {
    Listener listener(GetParam());
    Client client = listener.makeClient();
    EXPECT_FALSE(client.connect());
    EXPECT_FALSE(client.hadError());
    EXPECT_EQ(Socket::OPEN, client.getState());
    EXPECT_TRUE(client.isValid());
    EXPECT_EQ(getLoopback(GetParam()), client.getLocalAddress().host);
    EXPECT_EQ(getLoopback(GetParam()), client.getPeerAddress().host);
    EXPECT_EQ(listener.getLocalAddress().port, client.getPeerAddress().port);

    Client server(true, 0, 0, listener.acceptConnection());
    EXPECT_EQ(client.getLocalAddress().port, server.getPeerAddress().port);
    EXPECT_EQ(client.getLocalAddress().host, server.getPeerAddress().host);
    writeTo(client, "there");
    EXPECT_EQ("there", readFrom(server, 5));
    writeTo(server, "and back");
    EXPECT_EQ("and back", readFrom(client, 8));
    EXPECT_FALSE(client.close(true));
    EXPECT_TRUE(isAtItsEnd(server));
    EXPECT_EQ(Socket::OPEN, server.getState()) << "only a close changes that";
}

TEST_P(TCPSocketVersions, thatDoesNotWaitIsOnItsWay) {
    Listener listener(GetParam());
    Client client = listener.makeClient(false);
    EXPECT_TRUE(client.connect());
    EXPECT_FALSE(client.hadError());
    EXPECT_EQ(Socket::OPEN, client.getState());
    EXPECT_TRUE(chainIs({}));
    EXPECT_NE(0, client.getLocalAddress().port) << "it is bound";
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
    Client server(true, 0, 0, listener.acceptConnection());
    writeTo(client, "made");
    EXPECT_EQ("made", readFrom(server, 4));
}

TEST_P(TCPSocketVersions, thatIsRefusedMayTryAgain) {
    BoundSocket const peer(GetParam());
    Client client(true, 0, 0, IPAddress(), peer.getAddress(), false, GetParam());
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(client.connect());
        EXPECT_TRUE(client.hadError());
        EXPECT_TRUE(isInactive(client));
        EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED));
    }
    ASSERT_EQ(0, listen(peer.getFd(), 1));
    EXPECT_FALSE(client.connect());
    EXPECT_FALSE(client.hadError());
    EXPECT_EQ(Socket::OPEN, client.getState());
}

TEST_P(TCPSocketVersions, thatDoesNotWaitLearnsARefusalFromItsNextRead) {
    BoundSocket const peer(GetParam());
    Client client(false, 0, 0, IPAddress(), peer.getAddress(), false, GetParam());
    EXPECT_TRUE(client.connect());
    EXPECT_FALSE(client.hadError());
    EXPECT_EQ(Socket::OPEN, client.getState());
    EXPECT_TRUE(chainIs({}));
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
    char byte = 0;
    unsigned int count = 12345;
    EXPECT_EQ(-1, client.read(&byte, 1, count));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED, 0));
    EXPECT_EQ(Socket::OPEN, client.getState());
}

TEST(TCPSocket, connectedTwiceFailsWithAResultOfFalse) {
    Connection connection;
    EXPECT_FALSE(connection.client.connect());
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::OPEN, connection.client.getState());
    writeTo(connection.client, "still there");
    EXPECT_EQ("still there", readFrom(connection.server, 11));
}

TEST(TCPSocket, onItsWayCannotBeConnectedAgain) {
    Listener listener;
    Client client = listener.makeClient(false);
    EXPECT_TRUE(client.connect());
    Fault const calls(inject_connect, 0);
    EXPECT_FALSE(client.connect());
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::OPEN, client.getState());
    EXPECT_EQ(0, calls.getCalls());
}

TEST(TCPSocket, closedOrAdoptedCannotBeConnected) {
    Connection connection;
    EXPECT_FALSE(connection.server.connect());
    EXPECT_TRUE(connection.server.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::OPEN, connection.server.getState());

    EXPECT_FALSE(connection.client.close(false));
    EXPECT_FALSE(connection.client.connect());
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(Socket::DEAD, connection.client.getState());
}

TEST(TCPSocket, thatHasNoDescriptorCannotBeConnected) {
    TCPSocket socket(true, 0, 0, IPAddress(), IPAddress(IPSocket::LOOPBACK_IP6, 9), false, IPSocket::IPV4);
    std::ErrorStorage::ack();
    EventRecorder const events;
    EXPECT_TRUE(socket.connect());
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT,
          rowText(std::CommonErrorId::INVALID_ARGUMENT, "p_socket_fd is invalid")}}));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon bindSocket: p_socket_fd != INVALID_SOCKET_FD",
        events.getText());
}

TEST(TCPSocket, isAlwaysBoundBeforeItConnects) {
    Listener listener;
    Client client = listener.makeClient();
    Fault const binds(inject_bind, 0);
    Fault const connects(inject_connect, 0);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(1, binds.getCalls());
    EXPECT_EQ(1, connects.getCalls());
}

TEST(TCPSocket, connectsFromTheLocalAddressThatItIsGiven) {
    Listener listener;
    Client client(true, 0, 0, IPAddress("127.0.0.2", 0), listener.getLocalAddress(), false, IPSocket::IPV4);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ("127.0.0.2", client.getLocalAddress().host);
    Client const server(true, 0, 0, listener.acceptConnection());
    EXPECT_EQ("127.0.0.2", server.getPeerAddress().host);
}

TEST_P(TCPSocketVersions, takesTheAnyAddressOfThePeerForThisMachine) {
    Listener listener(GetParam());
    Client client(true, 0, 0, IPAddress(), IPAddress("", listener.getLocalAddress().port), false, GetParam());
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(getLoopback(GetParam()), client.getPeerAddress().host) << "it is told where that led to";
}

TEST_P(TCPSocketVersions, nobodyListensOnPort0) {
    Client client(true, 0, 0, IPAddress(), IPAddress(getLoopback(GetParam()), 0), false, GetParam());
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED));
}

TEST(TCPSocket, cannotConnectFromAnAddressInUse) {
    Listener listener;
    BoundSocket const other;
    Client client(true, 0, 0, other.getAddress(), listener.getLocalAddress(), false, IPSocket::IPV4);
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE));
    EXPECT_TRUE(isInactive(client));
}

TEST(TCPSocket, cannotConnectFromAnAddressOfAnotherMachine) {
    Listener listener;
    Client client(true, 0, 0, IPAddress("203.0.113.1", 0), listener.getLocalAddress(), false, IPSocket::IPV4);
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL));
    EXPECT_TRUE(isInactive(client));
}

class TCPSocketBind : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketBind, failureIsReportedAndLeavesTheSocketInactive) {
    Listener listener;
    Client client = listener.makeClient();
    int const descriptors = countDescriptors();
    {
        Fault const fault(inject_bind, GetParam().error);
        Fault const connects(inject_connect, 0);
        EXPECT_TRUE(client.connect());
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
        EXPECT_EQ(0, connects.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(client.hadError());
    EXPECT_TRUE(isInactive(client));
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_FALSE(client.connect()) << "it may try again";
    EXPECT_FALSE(client.hadError());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketBind, testing::ValuesIn(getBindRows()));

TEST(TCPSocket, thatIsBoundAlreadyConnectsAllTheSame) {
    Listener listener;
    Client client = listener.makeClient();
    Fault const fault(inject_bind, EINVAL);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(client.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, client.getState());
}

ErrorRows getConnectRows() {
    ErrorRows rows;
    add(rows, {EPERM, EACCES}, SysError, vesk::SysErrorId::PERMISSION_DENIED);
    add(rows,
        {ENOENT, EBADF, EFAULT, ENOTDIR, EINVAL, ENAMETOOLONG, ELOOP, ENOTSOCK, EPROTOTYPE, EOPNOTSUPP,
         EAFNOSUPPORT, EISCONN, ETIMEDOUT},
        SysError, vesk::SysErrorId::SPOILED_INTEGRITY);
    add(rows, {EAGAIN, ENOBUFS}, SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EADDRINUSE}, Socket::Error, Socket::ErrorId::ADDRESS_IN_USE);
    add(rows, {EADDRNOTAVAIL}, Socket::Error, Socket::ErrorId::ADDRESS_INVALID);
    add(rows, {ENETDOWN, ENETUNREACH}, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE);
    add(rows, {ECONNRESET}, Socket::Error, Socket::ErrorId::CONNECTION_RESET);
    add(rows, {ECONNREFUSED, EHOSTUNREACH}, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE);
    add(rows, {EIO, ENOMEM, EPROTO}, SysError, vesk::SysErrorId::UNCLASSIFIED);
    return rows;
}

/// A socket that notes when it is told of its connection.
class Hooked : public Client {
public:
    using Client::Client;

    bool connected() override {
        ++m_calls;
        EXPECT_EQ(Socket::OPEN, getState());
        EXPECT_NE(0, getLocalAddress().port) << "the addresses are known by now";
        if (m_refuses) {
            std::ErrorOutput("hook", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "not this peer");
        }
        return m_refuses;
    }

    int m_calls = 0;
    bool m_refuses = false;
};

std::unique_ptr<Hooked> makeHooked(Listener const& listener, bool blocking = true) {
    return std::make_unique<Hooked>(
        blocking, 0u, 0u, IPAddress(), listener.getLocalAddress(), false, IPSocket::IPV4);
}

class TCPSocketConnect : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketConnect, failureIsReportedAndLeavesTheSocketInactive) {
    Listener listener;
    auto const client = makeHooked(listener);
    int const descriptors = countDescriptors();
    {
        Fault const fault(inject_connect, GetParam().error);
        EXPECT_TRUE(client->connect());
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    }
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(client->hadError());
    EXPECT_TRUE(isInactive(*client));
    EXPECT_EQ(0, client->m_calls);
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_FALSE(client->connect()) << "it may try again";
    EXPECT_FALSE(client->hadError());
    EXPECT_EQ(1, client->m_calls);
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketConnect, testing::ValuesIn(getConnectRows()));

TEST(TCPSocket, connectIsRepeatedWhileSignalsInterruptIt) {
    Listener listener;
    Client client = listener.makeClient();
    Fault const fault(inject_connect, EINTR, 1, 3);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(client.hadError());
    EXPECT_TRUE(chainIs({}));
}

class TCPSocketOnItsWay : public testing::TestWithParam<int> {};

TEST_P(TCPSocketOnItsWay, isNoFailure) {
    Listener listener;
    auto const client = makeHooked(listener);
    Fault const fault(inject_connect, GetParam());
    EXPECT_TRUE(client->connect());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(client->hadError());
    EXPECT_EQ(Socket::OPEN, client->getState());
    EXPECT_EQ(0, client->m_calls) << "nobody is told of a connection that is not made yet";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketOnItsWay, testing::Values(EALREADY, EINPROGRESS));

TEST(TCPSocket, interruptedOnItsWayIsOnItsWay) {
    Listener listener;
    Client client = listener.makeClient(false);
    Fault const fault(inject_connect, EINTR);
    EXPECT_TRUE(client.connect());
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_FALSE(client.hadError());
    EXPECT_EQ(Socket::OPEN, client.getState());
}

TEST(TCPSocket, tellsItsSubclassOnceThatItIsConnected) {
    Listener listener;
    auto const client = makeHooked(listener);
    EXPECT_FALSE(client->connect());
    EXPECT_EQ(1, client->m_calls);
    EXPECT_FALSE(client->hadError());
    EXPECT_FALSE(client->connect());
    EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
    EXPECT_EQ(1, client->m_calls);
}

TEST(TCPSocket, whoseSubclassRefusesTheConnectionFailsAndStaysOpen) {
    Listener listener;
    auto const client = makeHooked(listener);
    client->m_refuses = true;
    EXPECT_TRUE(client->connect());
    EXPECT_TRUE(client->hadError());
    EXPECT_EQ(Socket::OPEN, client->getState());
    EXPECT_TRUE(misuseIs("not this peer"));
    Client server(true, 0, 0, listener.acceptConnection());
    writeTo(*client, "all the same");
    EXPECT_EQ("all the same", readFrom(server, 12));
}

TEST(TCPSocket, onItsWayTellsNothingToItsSubclass) {
    Listener listener;
    auto const client = makeHooked(listener, false);
    EXPECT_TRUE(client->connect());
    ASSERT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
    EXPECT_EQ(0, client->m_calls);
}

TEST(TCPSocket, itsOwnHookHasNoObjection) {
    Client socket = makeIdle();
    EXPECT_FALSE(socket.connected());
    EXPECT_FALSE(socket.hadError());
}

TEST(TCPSocket, connectClearsTheFlagOfAnEarlierFailure) {
    Listener listener;
    Client client = listener.makeClient();
    {
        Fault const fault(inject_setsockopt, EINVAL);
        EXPECT_TRUE(client.setTCPNoDelay(true));
        EXPECT_TRUE(client.hadError());
        std::ErrorStorage::ack();
    }
    EXPECT_FALSE(client.connect());
    EXPECT_FALSE(client.hadError());
}

// Options.

TEST(TCPSocket, sendsSmallPiecesAtOnceIfAskedTo) {
    Connection connection;
    int const fd = connection.client.getSocketFd();
    EXPECT_EQ(0, getOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_FALSE(connection.client.setTCPNoDelay(true));
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_EQ(1, getOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_FALSE(connection.client.setTCPNoDelay(false));
    EXPECT_EQ(0, getOption(fd, IPPROTO_TCP, TCP_NODELAY));
}

TEST(TCPSocket, optionsCanBeSetBeforeItConnects) {
    Client socket = makeIdle();
    EXPECT_FALSE(socket.setTCPNoDelay(true));
    EXPECT_FALSE(socket.setKeepalive({true, 7, 3, 2}));
    int const fd = socket.getSocketFd();
    EXPECT_EQ(1, getOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, getOption(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(7, getOption(fd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(3, getOption(fd, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(2, getOption(fd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_FALSE(socket.setKeepalive({false, 1, 1, 1}));
    EXPECT_EQ(0, getOption(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(7, getOption(fd, IPPROTO_TCP, TCP_KEEPIDLE)) << "the others do not count then";
}

/// The options that a call sets: level, option and value of each.
template <typename Call>
std::vector<int> recordOptions(Call call) {
    s_last.options.clear();
    s_last.records_options = true;
    call();
    s_last.records_options = false;
    return s_last.options;
}

TEST(TCPSocket, keepaliveSetsTheIdleTimeTwice) {
    Client socket = makeIdle();
    std::vector<int> const expected{
        SOL_SOCKET,  SO_KEEPALIVE,  1,  //
        IPPROTO_TCP, TCP_KEEPIDLE,  11, //
        IPPROTO_TCP, TCP_KEEPIDLE,  11, //
        IPPROTO_TCP, TCP_KEEPCNT,   5,  //
        IPPROTO_TCP, TCP_KEEPINTVL, 4,
    };
    EXPECT_EQ(expected, recordOptions([&] { EXPECT_FALSE(socket.setKeepalive({true, 11, 5, 4})); }));
    EXPECT_FALSE(socket.hadError());
}

TEST(TCPSocket, keepaliveThatIsSwitchedOffIsOneCall) {
    Client socket = makeIdle();
    std::vector<int> const expected{SOL_SOCKET, SO_KEEPALIVE, 0};
    EXPECT_EQ(expected, recordOptions([&] { EXPECT_FALSE(socket.setKeepalive({false, 11, 5, 4})); }));
}

TEST(TCPSocket, keepaliveTimesThatTheSystemDoesNotTakeAreRefused) {
    Client socket = makeIdle();
    for (Keepalive const& settings :
         {Keepalive{true, 0, 1, 1}, Keepalive{true, -1, 1, 1}, Keepalive{true, 1, 0, 1},
          Keepalive{true, 1, 1, 0}, Keepalive{true, 32768, 1, 1}}) {
        EXPECT_TRUE(socket.setKeepalive(settings));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(failureIs(SysError, vesk::SysErrorId::INVALID_PATH, EINVAL));
        EXPECT_TRUE(isInactive(socket));
    }
}

class TCPSocketOption : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketOption, failureOfNoDelayIsReported) {
    Client socket = makeIdle();
    Fault const fault(inject_setsockopt, GetParam().error);
    EXPECT_TRUE(socket.setTCPNoDelay(true));
    EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_TRUE(isInactive(socket));
}

TEST_P(TCPSocketOption, failureStopsKeepaliveAtAnyOfItsSteps) {
    Client socket = makeIdle();
    for (int step = 1; step <= 5; ++step) {
        Fault const fault(inject_setsockopt, GetParam().error, step);
        EXPECT_TRUE(socket.setKeepalive({true, 1, 1, 1}));
        EXPECT_EQ(step, fault.getCalls());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(failureIs(GetParam()));
        EXPECT_TRUE(isInactive(socket));
    }
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketOption, testing::ValuesIn(getSetOptionRows()));

TEST(TCPSocket, optionsNeedADescriptor) {
    Client socket = makeIdle();
    EXPECT_FALSE(socket.close(false));
    Fault const options(inject_setsockopt, 0);
    errno = EIO;
    EXPECT_TRUE(socket.setTCPNoDelay(true));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(failureIs(Socket::Error, Socket::ErrorId::INVALID_SOCKET, EIO))
        << "the text is that of whatever errno is";
    for (bool const enabled : {true, false}) {
        EXPECT_TRUE(socket.setKeepalive({enabled, 1, 1, 1}));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    }
    EXPECT_EQ(0, options.getCalls());
}

TEST(TCPSocket, largestPieceIsTheSendBufferButNotMoreThanASegment) {
    Connection connection;
    TCPSocket& socket = connection.client;
    EXPECT_FALSE(socket.setSendBuffer(1u << 20));
    ASSERT_GT(socket.getSendBuffer(), TCPSocket::MAX_SEGMENT_SIZE);
    EXPECT_EQ(TCPSocket::MAX_SEGMENT_SIZE, socket.maxTxSize());
    EXPECT_FALSE(socket.setSendBuffer(10000));
    EXPECT_EQ(10000u, socket.maxTxSize());
    EXPECT_FALSE(socket.hadError());
    EXPECT_FALSE(socket.setSendBuffer(TCPSocket::MAX_SEGMENT_SIZE));
    EXPECT_EQ(TCPSocket::MAX_SEGMENT_SIZE, socket.maxTxSize());
    EXPECT_FALSE(socket.setSendBuffer(TCPSocket::MAX_SEGMENT_SIZE - 1));
    EXPECT_EQ(TCPSocket::MAX_SEGMENT_SIZE - 1, socket.maxTxSize());
}

TEST(TCPSocket, largestPieceOfAClosedSocketIsNothing) {
    Client socket = makeIdle();
    EXPECT_FALSE(socket.close(false));
    EventRecorder const events;
    EXPECT_EQ(0u, socket.maxTxSize());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_EQ(std::string("WARNING ") + SOURCE + " maxTxSize: error getting buffer size", events.getText());
}

class TCPSocketSize : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketSize, thatIsUnknownIsAWarningAndNothing) {
    Client socket = makeIdle();
    EventRecorder const events;
    {
        Fault const fault(inject_getsockopt, GetParam().error);
        EXPECT_EQ(0u, socket.maxTxSize());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(std::string("WARNING ") + SOURCE + " maxTxSize: error getting buffer size", events.getText());
    EXPECT_NE(0u, socket.maxTxSize());
    EXPECT_FALSE(socket.hadError());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketSize, testing::ValuesIn(getGetOptionRows()));

// States.

class TCPSocketThatIsNotOpen : public testing::TestWithParam<Socket::State> {};

TEST_P(TCPSocketThatIsNotOpen, neitherReadsNorWrites) {
    Client socket = makeIdle();
    if (GetParam() == Socket::DEAD) {
        EXPECT_FALSE(socket.close(true));
    }
    char byte = 0;
    unsigned int count = 12345;
    EXPECT_EQ(-1, socket.read(&byte, 1, count));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(streamMisuseIs("called read on non-OPEN socket", 0));
    EXPECT_EQ(-1, socket.write(&byte, 1, count));
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(streamMisuseIs("called write on non-OPEN socket", 0));
    EXPECT_FALSE(socket.flush(false)) << "there is nothing to pass on";
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(GetParam(), socket.getState());
}

TEST_P(TCPSocketThatIsNotOpen, keepsItsAddresses) {
    Client socket = makeIdle();
    if (GetParam() == Socket::DEAD) {
        EXPECT_FALSE(socket.close(true));
    }
    socket.updateLocalAddress();
    socket.updatePeerAddress();
    EXPECT_EQ("", socket.getLocalAddress().host);
    EXPECT_EQ(0, socket.getLocalAddress().port);
    EXPECT_EQ(IPSocket::LOOPBACK_IP, socket.getPeerAddress().host);
    EXPECT_EQ(9, socket.getPeerAddress().port);
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    states, TCPSocketThatIsNotOpen, testing::Values(Socket::INACTIVE, Socket::DEAD),
    [](auto const& row) { return std::string(row.param == Socket::DEAD ? "dead" : "inactive"); });

TEST(TCPSocket, isClosedOnce) {
    for (bool const is_open : {false, true}) {
        Connection connection;
        Client idle = makeIdle();
        Client& socket = is_open ? connection.client : idle;
        int const fd = socket.getSocketFd();
        EXPECT_FALSE(socket.close(true));
        EXPECT_FALSE(socket.hadError());
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_FALSE(isOpen(fd));
        EXPECT_TRUE(chainIs({}));

        Fault const closes(inject_close, 0);
        EXPECT_TRUE(socket.close(true));
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(misuseIs("called close on already DEAD socket"));
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(0, closes.getCalls());
    }
}

TEST(TCPSocket, thatNeverConnectedIsDestroyedInSilence) {
    EventRecorder const events;
    int const fd = getNextDescriptor();
    {
        TCPSocket const socket(
            true, 16, 16, IPAddress(), IPAddress(IPSocket::LOOPBACK_IP, 9), true, IPSocket::IPV4);
        ASSERT_EQ(fd, socket.getSocketFd());
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("", events.getText());
}

TEST(TCPSocket, thatIsOpenMustNotBeDestroyed) {
    Listener listener;
    EventRecorder const events;
    int fd = -1;
    {
        TCPSocket socket(true, 0, 0, IPAddress(), listener.getLocalAddress(), false, IPSocket::IPV4);
        EXPECT_FALSE(socket.connect());
        fd = socket.getSocketFd();
    }
    EXPECT_FALSE(isOpen(fd)) << "but it is closed even then";
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: this->getState() != OPEN", events.getText());
}

// Closing.

TEST(TCPSocket, closeWithoutShutdownLeavesTheConnectionToOtherDescriptorsOfIt) {
    Connection connection;
    int const other = dup(connection.client.getSocketFd());
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_EQ(5, send(other, "still", 5, MSG_NOSIGNAL));
    EXPECT_EQ("still", readFrom(connection.server, 5));
    EXPECT_FALSE(isReady(connection.server.getSocketFd(), POLLIN));
    close(other);
    EXPECT_TRUE(isAtItsEnd(connection.server));
}

TEST(TCPSocket, closeWithShutdownEndsItForOtherDescriptors) {
    Connection connection;
    int const other = dup(connection.client.getSocketFd());
    EXPECT_FALSE(connection.client.close(true));
    EXPECT_TRUE(isAtItsEnd(connection.server));
    EXPECT_EQ(-1, send(other, "still", 5, MSG_NOSIGNAL));
    close(other);
}

ErrorRows getShutdownRows() {
    ErrorRows rows;
    add(rows, {EBADF, EINVAL, ENOTSOCK, ENOTCONN}, SysError, vesk::SysErrorId::SPOILED_INTEGRITY);
    add(rows, {ENOBUFS}, SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED);
    add(rows, {EINTR, EIO, EPIPE}, SysError, vesk::SysErrorId::UNCLASSIFIED);
    return rows;
}

class TCPSocketShutdown : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketShutdown, failureDoesNotStopAClose) {
    Connection connection;
    int const descriptors = countDescriptors();
    {
        Fault const fault(inject_shutdown, GetParam().error);
        EXPECT_FALSE(connection.client.close(true));
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    }
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_FALSE(std::ErrorStorage::isError(false)) << "it is acknowledged";
    auto const& [error, family, id] = GetParam();
    std::string const told = tarn_error.getReasonList();
    EXPECT_NE(std::string::npos, told.find(rowText(*family, id, systemText(error)))) << told;
    EXPECT_EQ(Socket::DEAD, connection.client.getState());
    EXPECT_EQ(descriptors - 1, countDescriptors());
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketShutdown, testing::ValuesIn(getShutdownRows()));

class TCPSocketClose : public testing::TestWithParam<ErrorRow> {};

TEST_P(TCPSocketClose, failureIsReportedAndTheSocketIsDead) {
    Connection connection;
    int const fd = connection.client.getSocketFd();
    {
        Fault const fault(inject_close, GetParam().error);
        EXPECT_TRUE(connection.client.close(true));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(failureIs(GetParam()));
    EXPECT_EQ(Socket::DEAD, connection.client.getState());
    EXPECT_EQ(-1, connection.client.getSocketFd());
    EXPECT_EQ(0, close(fd));
}

INSTANTIATE_TEST_SUITE_P(rows, TCPSocketClose, testing::ValuesIn(getCloseRows()));

TEST(TCPSocket, closeOfADescriptorThatWasNotOpenFailsWithoutAReport) {
    Connection connection;
    close(connection.client.getSocketFd());
    EXPECT_TRUE(connection.client.close(false));
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::DEAD, connection.client.getState());
    EXPECT_EQ(-1, connection.client.getSocketFd());
}

TEST(TCPSocket, closeIsRepeatedWhileSignalsInterruptIt) {
    Connection connection;
    Fault const fault(inject_close, EINTR, 1, 2);
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
}

// The stream.

TEST(TCPSocket, withAWriteBufferSendsWhatIsFlushed) {
    Connection connection(true, 0, 64);
    writeTo(connection.client, "one ");
    writeTo(connection.client, "piece");
    EXPECT_FALSE(isReady(connection.server.getSocketFd(), POLLIN)) << "nothing is sent yet";
    EXPECT_FALSE(connection.client.flush(false));
    EXPECT_EQ("one piece", readFrom(connection.server, 9));
}

TEST(TCPSocket, closeSendsWhatIsBuffered) {
    for (bool const do_shutdown : {true, false}) {
        Connection connection(true, 0, 64);
        writeTo(connection.client, "last words");
        EXPECT_FALSE(connection.client.close(do_shutdown));
        EXPECT_EQ("last words", readFrom(connection.server, 10));
        EXPECT_TRUE(isAtItsEnd(connection.server));
    }
}

TEST(TCPSocket, withAReadBufferReadsAhead) {
    Connection connection(true, 64, 0);
    EXPECT_TRUE(connection.client.isInputBuffered());
    EXPECT_FALSE(connection.client.isOutputBuffered());
    writeTo(connection.server, "0123456789");
    EXPECT_EQ("012", readFrom(connection.client, 3));
    EXPECT_FALSE(isReady(connection.client.getSocketFd(), POLLIN)) << "the socket has nothing left";
    char rest[16] = {};
    unsigned int count = 0;
    EXPECT_EQ(1, connection.client.read(rest, sizeof rest, count));
    EXPECT_EQ("3456789", std::string(rest, count));
}

TEST(TCPSocket, thatDoesNotWaitReadsNothingWhereNothingIs) {
    Connection connection(false);
    char byte = 0;
    unsigned int count = 12345;
    EXPECT_EQ(1, connection.client.read(&byte, 1, count));
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
}

/// Bytes that show where they belong.
std::string makePattern(size_t size) {
    std::string pattern(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        pattern[i] = static_cast<char>(i * 31 + (i >> 8) * 7);
    }
    return pattern;
}

TEST(TCPSocket, whosePeerDoesNotReadTakesNothingUntilItDoes) {
    Listener listener;
    EXPECT_FALSE(listener.setRecvBuffer(8192));
    Client client = listener.makeClient(false);
    EXPECT_FALSE(client.setSendBuffer(8192));
    EXPECT_TRUE(client.connect());
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
    Client server(true, 0, 0, listener.acceptConnection());

    std::string const pattern = makePattern(1u << 20);
    std::string received;
    size_t sent = 0;
    int refusals = 0;
    while (sent < pattern.size() && !testing::Test::HasFailure()) {
        unsigned int written = 12345;
        auto const left = static_cast<unsigned int>(pattern.size() - sent);
        ASSERT_EQ(1, client.write(pattern.data() + sent, std::min(left, 65536u), written));
        ASSERT_FALSE(client.hadError());
        sent += written;
        if (written == 0) {
            ++refusals;
            EXPECT_TRUE(chainIs({})) << "that is no failure";
            received += readFrom(server, sent - received.size());
            ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
        }
    }
    received += readFrom(server, sent - received.size());
    EXPECT_GT(refusals, 0);
    EXPECT_TRUE(pattern == received);
}

TEST(TCPSocket, closeDropsWhatAPeerThatDoesNotReadLeavesInTheBuffer) {
    Listener listener;
    EXPECT_FALSE(listener.setRecvBuffer(4096));
    Client client = listener.makeClient(false, 0, 1024);
    EXPECT_FALSE(client.setSendBuffer(4096));
    EXPECT_TRUE(client.connect());
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
    Client const server(true, 0, 0, listener.acceptConnection());
    std::string const block = makePattern(512);
    unsigned int written = 1;
    while (written != 0) {
        ASSERT_EQ(1, client.write(block.data(), 512, written));
    }
    EXPECT_TRUE(client.flush(false));
    EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_FALSE(client.close(true));
    EXPECT_FALSE(client.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPSocket, whosePeerHasEndedItsHalfCanStillWrite) {
    Connection connection;
    writeTo(connection.server, "bye");
    ASSERT_EQ(0, shutdown(connection.server.getSocketFd(), SHUT_WR));
    EXPECT_EQ("bye", readFrom(connection.client, 3));
    EXPECT_TRUE(isAtItsEnd(connection.client));
    EXPECT_TRUE(isAtItsEnd(connection.client)) << "as often as it is asked";
    EXPECT_EQ(Socket::OPEN, connection.client.getState());
    writeTo(connection.client, "answer");
    EXPECT_EQ("answer", readFrom(connection.server, 6));
}

TEST(TCPSocket, whosePeerResetsItTellsSoOnce) {
    Connection connection;
    makeCloseReset(connection.server.getSocketFd());
    EXPECT_FALSE(connection.server.close(false));
    ASSERT_TRUE(awaitEvents(connection.client.getSocketFd(), POLLIN));
    char byte = 0;
    unsigned int count = 12345;
    EXPECT_EQ(-1, connection.client.read(&byte, 1, count));
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::CONNECTION_RESET, ECONNRESET, 0));
    EXPECT_EQ(Socket::OPEN, connection.client.getState());
    EXPECT_TRUE(isAtItsEnd(connection.client)) << "from then on it is at its end";
}

TEST(TCPSocket, writesToAResetConnectionFailWithoutASignal) {
    signal(SIGPIPE, SIG_DFL);
    Connection connection;
    makeCloseReset(connection.server.getSocketFd());
    EXPECT_FALSE(connection.server.close(false));
    ASSERT_TRUE(awaitEvents(connection.client.getSocketFd(), POLLHUP));
    unsigned int count = 12345;
    EXPECT_EQ(-1, connection.client.write("x", 1, count));
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::CONNECTION_RESET, ECONNRESET, 0));
    EXPECT_EQ(-1, connection.client.write("x", 1, count));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(connection.client.hadError());
    EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::INVALID_SOCKET, EPIPE, 0));
    EXPECT_FALSE(connection.client.close(true)) << "and it can be closed";
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPSocket, closesWithBufferedDataThatNobodyTakes) {
    Connection connection(true, 0, 64);
    writeTo(connection.client, "to nobody");
    makeCloseReset(connection.server.getSocketFd());
    EXPECT_FALSE(connection.server.close(false));
    ASSERT_TRUE(awaitEvents(connection.client.getSocketFd(), POLLHUP));
    EXPECT_FALSE(connection.client.close(false));
    EXPECT_FALSE(connection.client.hadError());
    EXPECT_TRUE(chainIs({}));
}

TEST(TCPSocket, carriesAnyBytes) {
    Connection connection(true, 100, 1000);
    std::string const pattern = makePattern(20000);
    for (size_t at = 0; at < pattern.size(); at += 400) {
        writeTo(connection.client, pattern.substr(at, 400));
    }
    EXPECT_FALSE(connection.client.flush(false));
    EXPECT_TRUE(pattern == readFrom(connection.server, pattern.size()));
    writeTo(connection.server, pattern.substr(0, 5000));
    EXPECT_TRUE(pattern.substr(0, 5000) == readFrom(connection.client, 5000));
}

} // namespace
