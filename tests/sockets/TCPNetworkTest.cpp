#include "Cable.h"
#include "StreamSocketSupport.h"
#include "support/Emulation.h"

namespace {

using namespace support;

constexpr char const* LEFT[] = {"10.77.0.1", "fd77::1"};
constexpr char const* RIGHT[] = {"10.77.0.2", "fd77::2"};

ErrnoRow const REFUSED(Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED);
ErrnoRow const UNREACHABLE(Socket::ErrorId::PEER_UNREACHABLE, EHOSTUNREACH);
ErrnoRow const UNAVAILABLE(Socket::ErrorId::NETWORK_UNAVAILABLE, ENETUNREACH);
ErrnoRow const NO_ACCESS(SysErrorId::PERMISSION_DENIED, EACCES);

/// Two machines, one in each of the networks. They have permanent hardware addresses of each other, which are valid also
/// when the other machine does not answer any more.
class Machines : public Cable {
public:
    Machines() {
        EXPECT_TRUE(isThere());
        EXPECT_TRUE(enterRight());
        addMachine("right", RIGHT, "2");
        plug();
        EXPECT_TRUE(enterLeft());
        addMachine("left", LEFT, "1");
        EXPECT_TRUE(addNeighbors("left", RIGHT, "2"));
    }

    /// Makes the right machine vanish without a message to the left one.
    void pull() const {
        EXPECT_TRUE(enterRight());
        EXPECT_TRUE(setDown("right"));
        EXPECT_TRUE(enterLeft());
    }

    void plug() const {
        EXPECT_TRUE(enterRight());
        EXPECT_TRUE(setUp("right"));
        EXPECT_TRUE(addNeighbors("right", LEFT, "1"));
        EXPECT_TRUE(enterLeft());
    }

private:
    using Addresses = char const* const[2];

    static void addMachine(std::string const& name, Addresses const& own, std::string const& hardware) {
        EXPECT_TRUE(ip("link set dev " + name + " address 02:00:00:00:00:0" + hardware));
        EXPECT_TRUE(addAddress(name, std::string(own[0]) + "/24"));
        EXPECT_TRUE(addAddress(name, std::string(own[1]) + "/64 nodad"));
    }

    static testing::AssertionResult
    addNeighbors(std::string const& name, Addresses const& others, std::string const& hardware) {
        std::string const rest = " lladdr 02:00:00:00:00:0" + hardware + " nud permanent dev " + name + "\n";
        return ip("neigh replace " + (others[0] + rest) + "neigh replace " + (others[1] + rest));
    }
};

Client makeClient(std::string const& host, unsigned short port, bool blocking = true) {
    auto const version = host.find(':') == std::string::npos ? IPSocket::IPV4 : IPSocket::IPV6;
    return {blocking, 0, 0, IPAddress(), IPAddress(host, port), false, version};
}

/// Makes a server that listens on an address of a version, or fails to.
std::unique_ptr<Server>
listenOn(IPAddress const& address, IPSocket::IPProtocolVersion version, bool blocking = true) {
    auto server = std::make_unique<Server>(address, blocking, true, version);
    server->enableListen(1);
    server->updateLocalAddress();
    return server;
}

struct FarConnection {
    explicit FarConnection(Cable const& cable, IPSocket::IPProtocolVersion version = IPSocket::IPV4) {
        EXPECT_TRUE(cable.enterRight());
        auto const listener = listenOn(IPAddress(RIGHT[version], 0), version);
        EXPECT_TRUE(cable.enterLeft());
        client =
            std::make_unique<Client>(true, 0U, 0U, IPAddress(), listener->getLocalAddress(), false, version);
        EXPECT_FALSE(client->connect());
        EXPECT_TRUE(chainIs({}));
        server = std::make_unique<Client>(true, 0U, 0U, listener->acceptConnection());
    }

    std::unique_ptr<Client> client;
    std::unique_ptr<Client> server;
};

testing::AssertionResult failsToConnect(std::string const& host, ErrnoRow const& row, bool blocking = true) {
    Client client = makeClient(host, 80, blocking);
    return support::failsToConnect(client, row);
}

class TCPNetwork : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

/// Runs `body` in a child, on the left machine.
template <typename Body>
void withMachines(Body body) {
    expectInNetwork([&body] { body(Machines()); });
}

/// The same with a connection to the right machine.
template <typename Body>
void withConnection(Body body) {
    withMachines([&body](Machines const& machines) {
        FarConnection const connection(machines);
        body(machines, *connection.client, *connection.server);
    });
}

VESK_TEST_WITH(withMachines, TCPNetwork, connectsMachines, (Machines const& machines)) {
    for (IPSocket::IPProtocolVersion const version : VERSIONS) {
        FarConnection const connection(machines, version);
        EXPECT_EQ(LEFT[version], connection.client->getLocalAddress().host);
        EXPECT_EQ(RIGHT[version], connection.client->getPeerAddress().host);
        EXPECT_EQ(LEFT[version], connection.server->getPeerAddress().host);
        EXPECT_EQ(connection.client->getLocalAddress().port, connection.server->getPeerAddress().port);
        EXPECT_FALSE(connection.server->setRecvBuffer(200000));
        EXPECT_TRUE(transfers(*connection.client, *connection.server, std::string(100000, 'x')));
        EXPECT_FALSE(connection.server->close(true));
        EXPECT_TRUE(isAtEnd(*connection.client));
    }
}

static void connectByLinkLocalAddresses() {
    Cable const cable;
    ASSERT_TRUE(cable.isThere());
    ASSERT_TRUE(cable.enterRight());
    auto const listener = listenOn(IPAddress("fe80::2%right", 0), IPSocket::IPV6);
    EXPECT_EQ("fe80::2%right", listener->getLocalAddress().host);
    ASSERT_TRUE(cable.enterLeft());
    Client client(
        true, 0, 0, IPAddress("fe80::1%left", 0), IPAddress("fe80::2%left", listener->getLocalAddress().port),
        false, IPSocket::IPV6);
    EXPECT_TRUE(connects(client));
    EXPECT_EQ("fe80::1%left", client.getLocalAddress().host);
    EXPECT_EQ("fe80::2%left", client.getPeerAddress().host);
    TCPSocket::Description const accepted = listener->acceptConnection();
    EXPECT_NE(0U, accepted.peer_binary.v6.sin6_scope_id);
}

TEST_F(TCPNetwork, connectsByLinkLocalAddressesWithTheirScope) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    expectInNetwork(connectByLinkLocalAddresses);
}

VESK_TEST_WITH(expectInNetwork, TCPNetwork, connectsToAndFromAnyPort, ()) {
    for (IPSocket::IPProtocolVersion const version : VERSIONS) {
        for (unsigned short const port : std::initializer_list<unsigned short>{1, 80, 65535}) {
            auto const server = listenOn(IPAddress(getLoopback(version), port), version);
            ASSERT_TRUE(succeeded(*server, Socket::OPEN));
            Client client = makeClient(getLoopback(version), port);
            EXPECT_FALSE(client.connect());
            EXPECT_EQ(port, client.getPeerAddress().port);
            Client const accepted(true, 0, 0, server->acceptConnection());
            EXPECT_EQ(port, accepted.getLocalAddress().port);
        }
    }
    Listener const listener;
    for (unsigned short const port : std::initializer_list<unsigned short>{1, 65535}) {
        Client client(
            true, 0, 0, IPAddress(IPSocket::LOOPBACK_IP, port), listener.getTcp().getLocalAddress(), true,
            IPSocket::IPV4);
        EXPECT_FALSE(client.connect());
        EXPECT_EQ(port, client.getLocalAddress().port);
        Client const accepted(true, 0, 0, listener.getTcp().acceptConnection());
        EXPECT_EQ(port, accepted.getPeerAddress().port);
    }
}

VESK_TEST_WITH(expectInNetwork, TCPNetwork, connectsAgainFromItsPortAfterARefusal, ()) {
    for (Transport const transport : {Transport::IPV4, Transport::IPV6}) {
        auto const version = getVersion(transport);
        Place place(transport);
        PlainServer const peer(place);
        IPAddress const own(getLoopback(version), 4711);
        Client client(true, 0, 0, own, IPAddress(own.host, place.port), false, version);
        EXPECT_TRUE(failsToConnect(client, REFUSED));
        peer.listen();
        EXPECT_FALSE(client.connect()) << "the socket may be bound already";
        EXPECT_EQ(own.port, client.getLocalAddress().port);
        EXPECT_TRUE(succeeded(client, Socket::OPEN));
    }
}

VESK_TEST_WITH(expectInNetwork, TCPNetwork, lowPortsNeedAPermission, ()) {
    ASSERT_TRUE(dropRights());
    IPAddress const low(IPSocket::LOOPBACK_IP, 80);
    EXPECT_TRUE(failed(*listenOn(low, IPSocket::IPV4), Socket::DEAD, NO_ACCESS));
    Client client(true, 0, 0, low, IPAddress(IPSocket::LOOPBACK_IP, 9), false, IPSocket::IPV4);
    EXPECT_TRUE(failsToConnect(client, NO_ACCESS));
    Closing<UDPSocket> udp(true, 0, 0, low, IPAddress(IPSocket::LOOPBACK_IP, 9), IPSocket::IPV4);
    udp.open();
    EXPECT_TRUE(failed(udp, Socket::DEAD, NO_ACCESS));
}

VESK_TEST_WITH(
    withMachines, TCPNetwork, cannotReachAMachineThatDoesNotExistOrWhereNoSocketListens, (Machines const&)) {
    EXPECT_TRUE(failsToConnect(RIGHT[0], REFUSED));
    EXPECT_TRUE(failsToConnect(RIGHT[1], REFUSED));
    EXPECT_TRUE(failsToConnect("10.77.0.99", UNREACHABLE));
    Client client = makeClient(RIGHT[0], 80, false);
    EXPECT_TRUE(connects(client, true));
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
    EXPECT_TRUE(failsToWrite(
        client, ErrnoRow(SysErrorId::UNCLASSIFIED, ECONNREFUSED, {StreamErrorId::UNCLASSIFIED})));
}

VESK_TEST_WITH(expectInNetwork, TCPNetwork, isUnavailableWithoutARoute, ()) {
    for (char const* const host : {"10.88.0.1", "fd88::1"}) {
        EXPECT_TRUE(failsToConnect(host, UNAVAILABLE));
        EXPECT_TRUE(failsToConnect(host, UNAVAILABLE, false));
    }
}

TEST_F(TCPNetwork, reportsRoutesWithoutADestination) {
    struct {
        std::string type;
        ErrnoRow row;
    } const routes[] = {
        {"unreachable", UNREACHABLE},
        {"prohibit", NO_ACCESS},
        {"blackhole", {SysErrorId::SPOILED_INTEGRITY, EINVAL}},
    };
    for (auto const& route : routes) {
        SCOPED_TRACE(route.type);
        expectInNetwork([&route] {
            ASSERT_TRUE(ip("route add " + route.type + " 10.88.0.0/24"));
            EXPECT_TRUE(failsToConnect("10.88.0.1", route.row));
        });
    }
}

VESK_TEST_WITH(
    withMachines, TCPNetwork, timesOutOrIsUnderWayWithoutBlockingIfTheMachineDoesNotAnswer,
    (Machines const& machines)) {
    machines.pull();
    Client client = makeClient(RIGHT[0], 80);
    setOption(client.getSocketFd(), IPPROTO_TCP, TCP_SYNCNT, 1);
    EXPECT_TRUE(failsToConnect(client, {SysErrorId::SPOILED_INTEGRITY, ETIMEDOUT}));
    Client waiting = makeClient(RIGHT[0], 80, false);
    EXPECT_TRUE(connects(waiting, true));
    EXPECT_FALSE(isReady(waiting.getSocketFd(), POLLOUT));
    EXPECT_FALSE(waiting.connect());
    EXPECT_TRUE(failed(waiting, Socket::OPEN, {misuse("connect called in state != INACTIVE")}));
    EXPECT_EQ(NOTHING, readByte(waiting));
    EXPECT_EQ(NOTHING, write(waiting, "x"));
    EXPECT_FALSE(waiting.close(true)) << "it can be closed";
    EXPECT_TRUE(chainIs({}));
}

VESK_TEST_WITH(withMachines, TCPNetwork, isUnavailableWhileItsOwnInterfaceIsDown, (Machines const&)) {
    ASSERT_TRUE(setDown("left"));
    Client client = makeClient(RIGHT[0], 80);
    EXPECT_TRUE(failsToConnect(client, UNAVAILABLE));
    ASSERT_TRUE(setUp("left"));
    EXPECT_TRUE(failsToConnect(client, REFUSED)) << "it may try again";
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, reportsThatThePeerResetsTheConnection,
    (Machines const&, Client& client, Client& server)) {
    makeCloseReset(server.getSocketFd());
    EXPECT_FALSE(server.close(false));
    ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLIN));
    EXPECT_TRUE(isReset(client));
}

testing::AssertionResult timesOut(Client& client) {
    testing::AssertionResult const ready = awaitEvents(client.getSocketFd(), POLLIN);
    return ready
        ? failsToRead(
              client,
              ErrnoRow(Socket::ErrorId::COMMUNICATION_FAILED, ETIMEDOUT, {StreamErrorId::TRANSFER_FAILED}))
        : ready;
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, detectsAVanishedPeerByKeepalive,
    (Machines const& machines, Client& client, Client&)) {
    ASSERT_FALSE(client.setKeepalive({true, 1, 1, 1}));
    machines.pull();
    EXPECT_TRUE(timesOut(client));
    EXPECT_FALSE(client.close(true));
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, detectsAVanishedPeerByUnacknowledgedData,
    (Machines const& machines, Client& client, Client&)) {
    unsigned int const milliseconds = 500;
    setOption(client.getSocketFd(), IPPROTO_TCP, TCP_USER_TIMEOUT, milliseconds);
    machines.pull();
    writeTo(client, "data");
    EXPECT_TRUE(timesOut(client));
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, reachesAPeerThatReturns,
    (Machines const& machines, Client& client, Client& server)) {
    machines.pull();
    writeTo(client, "later");
    EXPECT_FALSE(isReady(server.getSocketFd(), POLLIN));
    machines.plug();
    EXPECT_EQ("later", readFrom(server, 5));
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, canWriteToAPeerThatHasEndedItsHalf,
    (Machines const&, Client& client, Client& server)) {
    ASSERT_EQ(0, shutdown(server.getSocketFd(), SHUT_WR));
    EXPECT_TRUE(isAtEnd(client));
    EXPECT_TRUE(transfers(client, server, "still here"));
    EXPECT_FALSE(client.close(true));
    EXPECT_TRUE(isAtEnd(server));
}

VESK_TEST_WITH(
    withConnection, TCPNetwork, readsAllBytesButTheOutOfBandOne,
    (Machines const&, Client& client, Client& server)) {
    std::string bytes(3000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * i * 7 + i);
    }
    int const fd = server.getSocketFd();
    for (size_t at = 0; at < bytes.size(); at += 100) {
        ASSERT_EQ(100, send(fd, bytes.data() + at, 100, MSG_NOSIGNAL));
    }
    // The last byte is out of band, and only a read with a flag for it returns it.
    ASSERT_EQ(3, send(fd, "ab!", 3, MSG_NOSIGNAL | MSG_OOB));
    ASSERT_EQ(1, send(fd, "c", 1, MSG_NOSIGNAL));
    EXPECT_EQ(bytes, readFrom(client, bytes.size()));
    EXPECT_EQ("abc", readFrom(client, 3));
    EXPECT_TRUE(chainIs({}));
}

VESK_TEST_WITH(
    withMachines, TCPNetwork, acceptsWaitingConnectionsWithoutBlocking, (Machines const& machines)) {
    ASSERT_TRUE(machines.enterRight());
    auto const listener = listenOn(IPAddress(RIGHT[0], 0), IPSocket::IPV4, false);
    EXPECT_TRUE(acceptsNothing(*listener));
    ASSERT_TRUE(machines.enterLeft());
    unsigned short const port = listener->getLocalAddress().port;
    Client clients[] = {makeClient(RIGHT[0], port), makeClient(RIGHT[0], port)};
    EXPECT_FALSE(clients[0].connect() || clients[1].connect());
    for (Client const& client : clients) {
        ASSERT_TRUE(awaitEvents(listener->getSocketFd(), POLLIN));
        Client const accepted(true, 0, 0, listener->acceptConnection());
        EXPECT_EQ(client.getLocalAddress().port, accepted.getPeerAddress().port);
    }
    EXPECT_TRUE(acceptsNothing(*listener));
    EXPECT_TRUE(succeeded(*listener, Socket::OPEN));
}

} // namespace
