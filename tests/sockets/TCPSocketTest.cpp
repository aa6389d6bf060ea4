#include "StreamSocketSupport.h"
#include "support/VtableSlot.h"

/// What TCP sockets do and Unix sockets do not. The rest is in StreamSocketTest.cpp.

namespace {

using namespace support;

using Keepalive = TCPSocket::KeepaliveSettings;

static_assert(std::is_base_of_v<IPSocket, TCPSocket> && !std::is_copy_constructible_v<TCPSocket>);
static_assert(std::is_base_of_v<IPSocket, TCPServerSocket> && !std::is_copy_constructible_v<TCPServerSocket>);
static_assert(std::is_same_v<uint32_t const, decltype(TCPSocket::MAX_SEGMENT_SIZE)>);
static_assert(TCPSocket::MAX_SEGMENT_SIZE == 65495);
static_assert(offsetof(Keepalive, idle_seconds) == 4 && offsetof(Keepalive, probe_count) == 8);
static_assert(offsetof(Keepalive, probe_interval_seconds) == 12 && sizeof(Keepalive) == 16);

IPAddress const LOOPBACK(IPSocket::LOOPBACK_IP, 9);

Client makeIdle() {
    return {true, 0, 0, IPAddress(), LOOPBACK, false, IPSocket::IPV4};
}

Client makeClient(IPAddress const& local, IPAddress const& peer) {
    return {true, 0, 0, local, peer, false, IPSocket::IPV4};
}

TEST(TCPSocket, callsItsHookThroughTheSlotAfterThoseOfItsBase) {
    EXPECT_EQ(getSlot(&IPSocket::closing) + 1, getSlot(&TCPSocket::connected));
}

TEST(TCPSocket, withAnAddressOfTheOtherVersionIsInvalidWithoutADescriptor) {
    IPAddress const other(IPSocket::LOOPBACK_IP6, 9);
    Calls const descriptors(inject_socket, 0);
    auto const expectInvalid = [](Socket const& socket) {
        EXPECT_TRUE(chainIs({CommonErrorId::INVALID_ARGUMENT}));
        EXPECT_TRUE(isUnusable(socket));
    };
    expectInvalid(TCPSocket(true, 0, 0, other, LOOPBACK, true, IPSocket::IPV4));
    expectInvalid(TCPSocket(true, 0, 0, LOOPBACK, other, true, IPSocket::IPV4));
    expectInvalid(TCPServerSocket(other, false, true, IPSocket::IPV4));
    expectInvalid(UDPSocket(false, 0, 0, other, LOOPBACK, IPSocket::IPV4));
    expectInvalid(UDPSocket(false, 0, 0, LOOPBACK, other, IPSocket::IPV4));
}

// ---- Connecting ----

class TCPSocketVersions : public testing::TestWithParam<Transport> {
protected:
    IPSocket::IPProtocolVersion const m_version = getVersion(GetParam());
    std::string const m_loopback = getLoopback(m_version);
};

INSTANTIATE_TEST_SUITE_P(
    versions, TCPSocketVersions, testing::Values(Transport::IPV4, Transport::IPV6), byParameters);

TEST_P(TCPSocketVersions, learnsItsAddressesWhenItConnects) {
    Connection const connection(GetParam());
    TCPSocket& client = connection.getTcp();
    auto& server = dynamic_cast<TCPSocket&>(*connection.server);
    for (bool const is_updated : {false, true}) {
        EXPECT_EQ(m_version, client.getVersion());
        EXPECT_EQ(m_loopback, client.getLocalAddress().host);
        EXPECT_NE(0, client.getLocalAddress().port);
        EXPECT_EQ(m_loopback, client.getPeerAddress().host);
        EXPECT_EQ(connection.listener.getPlace().port, client.getPeerAddress().port);
        EXPECT_EQ(m_loopback, server.getLocalAddress().host);
        EXPECT_EQ(connection.listener.getPlace().port, server.getLocalAddress().port);
        EXPECT_EQ(m_loopback, server.getPeerAddress().host);
        EXPECT_EQ(client.getLocalAddress().port, server.getPeerAddress().port);
        for (TCPSocket* const socket : {&client, &server}) {
            socket->updateLocalAddress();
            socket->updatePeerAddress();
        }
        EXPECT_TRUE(chainIs({})) << is_updated;
    }
}

TEST_P(TCPSocketVersions, thatDoesNotBlockIsOpenWhileItConnects) {
    Listener const listener(GetParam());
    SocketPtr const client = listener.makeClient({false});
    EXPECT_TRUE(connects(*client, true));
    EXPECT_NE(0, dynamic_cast<TCPSocket&>(*client).getLocalAddress().port);
    ASSERT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
    EXPECT_EQ(0, countHookCalls(*client));
    EXPECT_TRUE(transfers(*client, *listener.accept(), "made"));
    Place place(GetParam());
    PlainServer const peer(place);
    SocketPtr const refused = makeClient(place, {false});
    EXPECT_TRUE(connects(*refused, true));
    ASSERT_TRUE(awaitEvents(refused->getSocketFd(), POLLOUT));
    EXPECT_TRUE(failsToRead(
        *refused, ErrnoRow(Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED, {StreamErrorId::UNUSABLE})));
}

TEST(TCPSocket, isAlwaysBoundToItsLocalAddressBeforeItConnects) {
    Listener const listener;
    Fault const binds(inject_bind, 0);
    Fault const connects(inject_connect, 0);
    EXPECT_FALSE(connectSocket(*listener.makeClient()));
    EXPECT_EQ(1, binds.getCalls());
    EXPECT_EQ(1, connects.getCalls());
    Client client = makeClient(IPAddress("127.0.0.2", 0), listener.getTcp().getLocalAddress());
    EXPECT_FALSE(client.connect());
    EXPECT_EQ("127.0.0.2", client.getLocalAddress().host);
    EXPECT_TRUE(listener.accept()->isValid());
    SocketPtr const server = listener.accept();
    EXPECT_EQ("127.0.0.2", dynamic_cast<TCPSocket&>(*server).getPeerAddress().host);
}

TEST_P(TCPSocketVersions, takesTheAnyAddressOfThePeerForTheLoopbackAndIsRefusedByPort0) {
    Listener const listener(GetParam());
    IPAddress const any("", listener.getPlace().port);
    Client client(true, 0, 0, IPAddress(), any, false, m_version);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(m_loopback, client.getPeerAddress().host);
    SocketPtr const refused = makeClient(Place(GetParam()));
    EXPECT_TRUE(failsToConnect(*refused, {Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED}));
}

TEST(TCPSocket, cannotConnectFromAnAddressInUseOrOfAnotherMachine) {
    Listener const listener;
    Place other(Transport::IPV4);
    PlainServer const user(other);
    struct {
        IPAddress local;
        ErrnoRow row;
    } const rows[] = {
        {{IPSocket::LOOPBACK_IP, other.port}, {Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE}},
        {{"203.0.113.1", 0}, {Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL}},
    };
    for (auto const& [local, row] : rows) {
        Client client = makeClient(local, listener.getTcp().getLocalAddress());
        EXPECT_TRUE(failsToConnect(client, row));
    }
}

TEST(TCPSocket, thatIsInterruptedWhileItConnectsWithoutBlockingIsUnderWay) {
    Listener const listener;
    SocketPtr const client = listener.makeClient({false});
    Calls const calls(inject_connect, 2, EINTR);
    EXPECT_TRUE(connects(*client, true));
}

TEST(TCPSocket, failsAndStaysOpenIfItsHookRefusesTheConnection) {
    struct Refusing : Client {
        using Client::Client;
        bool connected() override {
            std::ErrorOutput("hook", 1, true)(CommonErrorId::CONTRACT_BROKEN, "not this peer");
            return true;
        }
    };
    Listener const listener;
    Refusing client(true, 0, 0, IPAddress(), listener.getTcp().getLocalAddress(), false, IPSocket::IPV4);
    EXPECT_TRUE(client.connect());
    EXPECT_TRUE(failed(client, Socket::OPEN, {misuse("not this peer")}));
    EXPECT_TRUE(transfers(client, *listener.accept(), "all the same"));
    Client socket = makeIdle();
    EXPECT_FALSE(socket.TCPSocket::connected());
    EXPECT_FALSE(socket.hadError());
}

TEST(TCPSocket, clearsTheFlagOfAnEarlierFailureWhenItConnects) {
    Listener const listener;
    SocketPtr const client = listener.makeClient();
    Fault const fault(inject_setsockopt, EINVAL);
    EXPECT_TRUE(dynamic_cast<TCPSocket&>(*client).setTCPNoDelay(true));
    EXPECT_TRUE(client->hadError());
    std::ErrorStorage::ack();
    EXPECT_TRUE(connects(*client));
}

// ---- Options ----

TEST(TCPSocket, takesOptionsBeforeAndAfterItConnects) {
    Connection const connection;
    int const fd = connection.client->getSocketFd();
    EXPECT_EQ(0, getOption(fd, IPPROTO_TCP, TCP_NODELAY));
    for (bool const on : {true, false}) {
        EXPECT_FALSE(connection.getTcp().setTCPNoDelay(on));
        EXPECT_TRUE(succeeded(*connection.client, Socket::OPEN));
        EXPECT_EQ(on, getOption(fd, IPPROTO_TCP, TCP_NODELAY) != 0);
    }
    Client socket = makeIdle();
    EXPECT_FALSE(socket.setTCPNoDelay(true));
    EXPECT_FALSE(socket.setKeepalive({true, 7, 3, 2}));
    int const idle = socket.getSocketFd();
    EXPECT_EQ(1, getOption(idle, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, getOption(idle, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(7, getOption(idle, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(3, getOption(idle, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(2, getOption(idle, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_FALSE(socket.setKeepalive({false, 1, 1, 1}));
    EXPECT_EQ(0, getOption(idle, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(7, getOption(idle, IPPROTO_TCP, TCP_KEEPIDLE)) << "without probes, the times are not set";
}

/// Returns the options that `setKeepalive` sets: level, option and value of each.
std::vector<int> recordKeepalive(Keepalive const& settings) {
    Client socket = makeIdle();
    s_calls.options.emplace();
    EXPECT_FALSE(socket.setKeepalive(settings));
    EXPECT_TRUE(succeeded(socket, Socket::INACTIVE));
    std::vector<int> options = std::move(*s_calls.options);
    s_calls.options.reset();
    return options;
}

TEST(TCPSocket, keepaliveSetsTheIdleTimeTwiceOrOneOption) {
    std::vector<int> const expected{
        SOL_SOCKET,  SO_KEEPALIVE,  1,  //
        IPPROTO_TCP, TCP_KEEPIDLE,  11, //
        IPPROTO_TCP, TCP_KEEPIDLE,  11, //
        IPPROTO_TCP, TCP_KEEPCNT,   5,  //
        IPPROTO_TCP, TCP_KEEPINTVL, 4,
    };
    EXPECT_EQ(expected, recordKeepalive({true, 11, 5, 4}));
    EXPECT_EQ((std::vector<int>{SOL_SOCKET, SO_KEEPALIVE, 0}), recordKeepalive({false, 11, 5, 4}));
    Client socket = makeIdle();
    for (Keepalive const& settings :
         {Keepalive{true, 0, 1, 1}, Keepalive{true, -1, 1, 1}, Keepalive{true, 1, 0, 1},
          Keepalive{true, 1, 1, 0}, Keepalive{true, 32768, 1, 1}}) {
        EXPECT_TRUE(socket.setKeepalive(settings));
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::INVALID_PATH, EINVAL)));
    }
}

VESK_TEST_EACH(
    TCPSocketOptionRows, stopTheKeepaliveAtEachStepAndAreReportedForTheDelay, testing::Test,
    setOptionRows()) {
    Client socket = makeIdle();
    for (int step = 1; step <= 5; ++step) {
        Fault const fault(inject_setsockopt, GetParam().error, step);
        EXPECT_TRUE(socket.setKeepalive({true, 1, 1, 1}));
        EXPECT_EQ(step, fault.getCalls());
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, GetParam()));
    }
    Fault const fault(inject_setsockopt, GetParam().error);
    EXPECT_TRUE(socket.setTCPNoDelay(true));
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_TRUE(failed(socket, Socket::INACTIVE, GetParam()));
}

// ---- The largest transfer, also of a server ----

class TCPSocketSize : public testing::Test {
protected:
    /// Checks that the size is unknown, which only a client warns about.
    static void expectUnknown(IPSocket& socket, bool is_server) {
        EventRecorder const events;
        EXPECT_EQ(0U, socket.maxTxSize());
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({})) << "the failure is acknowledged";
        EXPECT_EQ(
            is_server ? ""
                      : "WARNING framework/src/vesk/posix/TCPSocket maxTxSize: error getting buffer size",
            events.getText());
    }

    Client m_client = makeIdle();
    Server m_server{LOOPBACK, true, false, IPSocket::IPV4};
    IPSocket* const m_sockets[2] = {&m_client, &m_server};
};

TEST_F(TCPSocketSize, isThatOfTheSendBufferUpToTheSizeOfASegment) {
    for (IPSocket* const socket : m_sockets) {
        EXPECT_FALSE(socket->setSendBuffer(1U << 20));
        ASSERT_GT(socket->getSendBuffer(), TCPSocket::MAX_SEGMENT_SIZE);
        EXPECT_EQ(TCPSocket::MAX_SEGMENT_SIZE, socket->maxTxSize());
        for (unsigned int const size :
             {10000U, TCPSocket::MAX_SEGMENT_SIZE, TCPSocket::MAX_SEGMENT_SIZE - 1}) {
            EXPECT_FALSE(socket->setSendBuffer(size));
            EXPECT_EQ(size, socket->maxTxSize());
            EXPECT_TRUE(succeeded(*socket, Socket::INACTIVE));
        }
    }
    m_server.enableListen(1);
    EXPECT_NE(0U, m_server.maxTxSize());
    EXPECT_TRUE(succeeded(m_server, Socket::OPEN));
    for (IPSocket* const socket : m_sockets) {
        EXPECT_FALSE(socket->close(false));
        expectUnknown(*socket, socket == &m_server);
    }
}

VESK_TEST_EACH(TCPSocketSizeRows, makeTheSize0WithAWarningOfAClient, TCPSocketSize, getOptionRows()) {
    for (IPSocket* const socket : m_sockets) {
        Fault const fault(inject_getsockopt, GetParam().error);
        expectUnknown(*socket, socket == &m_server);
        EXPECT_NE(0U, socket->maxTxSize());
        EXPECT_TRUE(succeeded(*socket, Socket::INACTIVE));
    }
}

// ---- Closing ----

TEST(TCPSocket, closeSendsWhatIsBufferedAndDropsWhatThePeerDoesNotRead) {
    for (bool const do_shutdown : {true, false}) {
        Connection const connection(Transport::IPV4, {true, 0, 64});
        writeTo(*connection.client, "last words");
        EXPECT_FALSE(closeSocket(*connection.client, do_shutdown));
        EXPECT_EQ("last words", readFrom(*connection.server, 10));
        EXPECT_TRUE(isAtEnd(*connection.server));
    }
    Listener const listener;
    EXPECT_FALSE(listener->setRecvBuffer(4096));
    SocketPtr const client = listener.makeClient({false, 0, 1024});
    EXPECT_FALSE(client->setSendBuffer(4096));
    EXPECT_TRUE(connectSocket(*client));
    ASSERT_TRUE(awaitEvents(client->getSocketFd(), POLLOUT));
    SocketPtr const server = listener.accept();
    Transfer transfer(1, 1);
    while (transfer.second != 0) {
        transfer = write(*client, std::string(512, 'x'));
        ASSERT_EQ(1, transfer.first);
    }
    EXPECT_TRUE(client->flush(false));
    EXPECT_TRUE(chainIs({StreamErrorId::TRANSFER_FAILED}));
    EXPECT_TRUE(closes(*client, true));
}

/// A connection that the peer has reset.
struct ResetConnection : Connection {
    explicit ResetConnection(unsigned int write_buffer = 0)
        : Connection(Transport::IPV4, {true, 0, write_buffer}) {
        if (write_buffer != 0) {
            writeTo(*client, "unread");
        }
        makeCloseReset(server->getSocketFd());
        EXPECT_FALSE(closeSocket(*server, false));
        EXPECT_TRUE(awaitEvents(client->getSocketFd(), POLLHUP));
    }
};

TEST(TCPSocket, reportsAResetByThePeerOnceAndClosesWithBufferedData) {
    ResetConnection const connection;
    EXPECT_TRUE(isReset(*connection.client));
    EXPECT_TRUE(isAtEnd(*connection.client)) << "later reads report the end";
    ResetConnection const buffered(64);
    EXPECT_TRUE(closes(*buffered.client, false));
}

TEST(TCPSocket, failsToWriteToAResetConnectionWithoutASignal) {
    signal(SIGPIPE, SIG_DFL);
    ResetConnection const connection;
    EXPECT_TRUE(failsToWrite(
        *connection.client,
        ErrnoRow(Socket::ErrorId::CONNECTION_RESET, ECONNRESET, {StreamErrorId::UNUSABLE})));
    EXPECT_TRUE(failsToWrite(
        *connection.client, ErrnoRow(Socket::ErrorId::INVALID_SOCKET, EPIPE, {StreamErrorId::UNUSABLE})));
    EXPECT_TRUE(closes(*connection.client, true));
}

// ---- Servers ----

TEST_P(TCPSocketVersions, thatListensKnowsItsPortAfterAnUpdate) {
    Server server(IPAddress(getLoopback(m_version), 0), true, false, m_version);
    server.enableListen(5);
    EXPECT_EQ(0, server.getLocalAddress().port) << "it is not updated by itself";
    server.updateLocalAddress();
    EXPECT_NE(0, server.getLocalAddress().port);
    EXPECT_EQ(getLoopback(m_version), server.getLocalAddress().host);
    server.updatePeerAddress();
    EXPECT_EQ("", server.getPeerAddress().host);
    EXPECT_TRUE(succeeded(server, Socket::OPEN));
    Server everywhere(IPAddress(), true, false, m_version);
    everywhere.enableListen(5);
    everywhere.updateLocalAddress();
    EXPECT_EQ(
        m_version == IPSocket::IPV6 ? IPSocket::ANY_IP6 : IPSocket::ANY_IP,
        everywhere.getLocalAddress().host);
    Place place(GetParam());
    place.port = everywhere.getLocalAddress().port;
    EXPECT_FALSE(connectSocket(*makeClient(place)));
}

TEST(TCPServerSocket, ofIPv6ServesClientsOfIPv4) {
    Server server(IPAddress::ANY_ADDRESS6, true, false, IPSocket::IPV6);
    setOption(server.getSocketFd(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
    server.enableListen(1);
    Place place(Transport::IPV4);
    place.port = getPort(server.getSocketFd());
    SocketPtr const client = makeClient(place);
    EXPECT_FALSE(connectSocket(*client));
    Client const accepted(true, 0, 0, server.acceptConnection());
    EXPECT_EQ("::ffff:127.0.0.1", accepted.getPeerAddress().host);
    EXPECT_EQ(dynamic_cast<TCPSocket&>(*client).getLocalAddress().port, accepted.getPeerAddress().port);
}

ErrnoRow const IN_USE(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE);

TEST(TCPServerSocket, cannotListenWhereAnotherListensElsewhereOrOnABoundDescriptor) {
    Listener const first;
    EXPECT_TRUE(failsToListen(*makeServer(first.getPlace(), true, true), IN_USE));
    Server server(IPAddress("203.0.113.1", 0), true, false, IPSocket::IPV4);
    EXPECT_TRUE(failsToListen(server, {Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL}));
    Place const place(Transport::IPV4);
    SocketPtr const bound = makeServer(place);
    ASSERT_EQ(0, withAddress(bind, bound->getSocketFd(), getAddress(place)));
    EXPECT_TRUE(failsToListen(*bound, {SysErrorId::SPOILED_INTEGRITY, EINVAL}));
}

TEST(TCPServerSocket, withReuseListensAgainWhileOldConnectionsLinger) {
    Place place(Transport::IPV4);
    {
        SocketPtr const server = makeServer(place, true, true);
        enableListen(*server);
        place.port = getPort(server->getSocketFd());
        SocketPtr const client = makeClient(place);
        ASSERT_FALSE(connectSocket(*client));
        // The end that closes first remembers the connection for a while.
        EXPECT_FALSE(closeSocket(*acceptSocket(*server), true));
        EXPECT_TRUE(isAtEnd(*client));
    }
    EXPECT_TRUE(failsToListen(*makeServer(place), IN_USE));
    SocketPtr const reusing = makeServer(place, true, true);
    enableListen(*reusing);
    EXPECT_TRUE(succeeded(*reusing, Socket::OPEN));
}

VESK_TEST_EACH(
    TCPServerSocketBacklog, letsOneMoreConnectionWait, testing::Test, (std::vector<unsigned int>{0, 1, 3})) {
    Listener const listener(Transport::IPV4, true, GetParam());
    std::vector<SocketPtr> clients;
    for (unsigned int i = 0; i <= GetParam(); ++i) {
        clients.push_back(listener.makeClient());
        EXPECT_FALSE(connectSocket(*clients.back()));
    }
    SocketPtr const late = listener.makeClient({false});
    EXPECT_TRUE(connects(*late, true));
    EXPECT_FALSE(isReady(late->getSocketFd(), POLLOUT)) << "there is no room for it";
    EXPECT_TRUE(transfers(*clients.front(), *listener.accept(), "first"));
    EXPECT_TRUE(awaitEvents(late->getSocketFd(), POLLOUT)) << "now there is";
}

TEST(TCPServerSocket, acceptsAConnectionThatThePeerHasReset) {
    Waiting waiting;
    makeCloseReset(waiting.client->getSocketFd());
    waiting.client.reset();
    SocketPtr const accepted = waiting.listener.accept();
    EXPECT_TRUE(succeeded(*waiting.listener, Socket::OPEN));
    EXPECT_EQ(Socket::OPEN, accepted->getState());
    EXPECT_EQ("", dynamic_cast<TCPSocket&>(*accepted).getPeerAddress().host) << "it is not connected";
    EXPECT_TRUE(isReset(*accepted));
}

} // namespace
