#include "TCPSupport.h"
#include "support/NetworkNamespace.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace support;

using Server = Closing<TCPServerSocket>;

constexpr char const* LEFT = "10.77.0.1";
constexpr char const* RIGHT = "10.77.0.2";
constexpr char const* LEFT6 = "fd77::1";
constexpr char const* RIGHT6 = "fd77::2";

/// Two networks, one machine in each, with a cable between them. A socket belongs to the network in which it was made,
/// so one thread can play both. For a child that `expectInNetwork` runs: its first network is the left one.
class Cable {
public:
    Cable() : m_left(openOwn()) {
        EXPECT_TRUE(separateNetwork());
        m_right = openOwn();
        EXPECT_TRUE(setUp("lo"));
        enterLeft();
        // Addresses of their own let both know each other without asking, also when the other does not answer any more.
        std::string const right = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_right);
        EXPECT_TRUE(
            ip("link add name left address 02:00:00:00:00:01 type veth peer name right address "
               "02:00:00:00:00:02\n"
               "link set dev right netns " +
               right));
        EXPECT_TRUE(addMachine("left", LEFT, LEFT6, RIGHT, RIGHT6, "02:00:00:00:00:02"));
        enterRight();
        EXPECT_TRUE(addMachine("right", RIGHT, RIGHT6, LEFT, LEFT6, "02:00:00:00:00:01"));
        enterLeft();
    }
    ~Cable() {
        close(m_left);
        close(m_right);
    }

    Cable(Cable const&) = delete;
    Cable& operator=(Cable const&) = delete;

    void enterLeft() const { EXPECT_EQ(0, setns(m_left, CLONE_NEWNET)) << strerror(errno); }
    void enterRight() const { EXPECT_EQ(0, setns(m_right, CLONE_NEWNET)) << strerror(errno); }

    /// Makes the right machine vanish: it says nothing any more, not even that it is gone.
    void pull() const {
        enterRight();
        EXPECT_TRUE(setDown("right"));
        enterLeft();
    }

private:
    static int openOwn() {
        int const fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        EXPECT_NE(-1, fd);
        return fd;
    }

    static testing::AssertionResult addMachine(
        std::string const& name, std::string const& own, std::string const& own6, std::string const& other,
        std::string const& other6, std::string const& others_hardware) {
        return ip(
            "addr add " + own + "/24 dev " + name + "\naddr add " + own6 + "/64 dev " + name +
            " nodad\nlink set dev " + name + " up\nneigh replace " + other + " lladdr " + others_hardware +
            " nud permanent dev " + name + "\nneigh replace " + other6 + " lladdr " + others_hardware +
            " nud permanent dev " + name);
    }

    int m_left;
    int m_right = -1;
};

/// A connection from the left machine to a server on the right one.
struct FarConnection {
    explicit FarConnection(Cable const& cable, IPSocket::IPProtocolVersion version = IPSocket::IPV4) {
        char const* const right = version == IPSocket::IPV6 ? RIGHT6 : RIGHT;
        cable.enterRight();
        listener = std::make_unique<Listener>(IPAddress(right, 0), version);
        cable.enterLeft();
        client =
            std::make_unique<Client>(true, 0u, 0u, IPAddress(), listener->getLocalAddress(), false, version);
        EXPECT_FALSE(client->connect());
        EXPECT_TRUE(chainIs({}));
        server = std::make_unique<Client>(true, 0u, 0u, listener->acceptConnection());
    }

    std::unique_ptr<Listener> listener;
    std::unique_ptr<Client> client;
    std::unique_ptr<Client> server;
};

/// A socket that connects to somebody from where it is made.
Client makeClient(std::string const& host, unsigned short port, bool blocking = true) {
    auto const version = host.find(':') == std::string::npos ? IPSocket::IPV4 : IPSocket::IPV6;
    return {blocking, 0, 0, IPAddress(), IPAddress(host, port), false, version};
}

/// Connects, which fails.
testing::AssertionResult failsToConnect(Client& client, std::ErrorType const& family, int id, int error) {
    if (!client.connect() || !client.hadError() || client.getState() != Socket::INACTIVE) {
        return testing::AssertionFailure() << "it has connected, or is on its way";
    }
    return failureIs(family, id, error);
}

class TCPNetwork : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

TEST_F(TCPNetwork, connectsMachines) {
    expectInNetwork([] {
        Cable const cable;
        for (IPSocket::IPProtocolVersion const version : VERSIONS) {
            bool const is_v6 = version == IPSocket::IPV6;
            FarConnection connection(cable, version);
            EXPECT_EQ(is_v6 ? LEFT6 : LEFT, connection.client->getLocalAddress().host);
            EXPECT_EQ(is_v6 ? RIGHT6 : RIGHT, connection.client->getPeerAddress().host);
            EXPECT_EQ(is_v6 ? LEFT6 : LEFT, connection.server->getPeerAddress().host);
            EXPECT_EQ(connection.client->getLocalAddress().port, connection.server->getPeerAddress().port);
            std::string const block(100000, 'x');
            EXPECT_FALSE(connection.server->setRecvBuffer(200000));
            writeTo(*connection.client, block);
            EXPECT_TRUE(block == readFrom(*connection.server, block.size()));
            EXPECT_FALSE(connection.server->close(true));
            EXPECT_TRUE(isAtItsEnd(*connection.client));
        }
    });
}

TEST_F(TCPNetwork, connectsByLinkLocalAddressesWithTheirScope) {
    expectInNetwork([] {
        Cable const cable;
        cable.enterRight();
        ASSERT_TRUE(addAddress("right", "fe80::2/64 nodad"));
        Listener listener(IPAddress("fe80::2%right", 0), IPSocket::IPV6);
        EXPECT_EQ("fe80::2%right", listener.getLocalAddress().host);
        cable.enterLeft();
        ASSERT_TRUE(addAddress("left", "fe80::1/64 nodad"));
        Client client(
            true, 0, 0, IPAddress("fe80::1%left", 0),
            IPAddress("fe80::2%left", listener.getLocalAddress().port), false, IPSocket::IPV6);
        EXPECT_FALSE(client.connect());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ("fe80::1%left", client.getLocalAddress().host);
        EXPECT_EQ("fe80::2%left", client.getPeerAddress().host);
        TCPSocket::Description const accepted = listener.acceptConnection();
        EXPECT_NE(0u, accepted.peer_binary.v6.sin6_scope_id);
    });
}

TEST_F(TCPNetwork, connectsToAnyPort) {
    expectInNetwork([] {
        for (IPSocket::IPProtocolVersion const version : VERSIONS) {
            for (unsigned short const port : std::initializer_list<unsigned short>{1, 80, 65535}) {
                Server server(IPAddress(getLoopback(version), port), true, true, version);
                server.enableListen(1);
                ASSERT_FALSE(server.hadError());
                Client client = makeClient(getLoopback(version), port);
                EXPECT_FALSE(client.connect());
                EXPECT_EQ(port, client.getPeerAddress().port);
                Client const accepted(true, 0, 0, server.acceptConnection());
                EXPECT_EQ(port, accepted.getLocalAddress().port);
            }
        }
    });
}

TEST_F(TCPNetwork, connectsFromAnyPort) {
    expectInNetwork([] {
        Listener listener;
        for (unsigned short const port : std::initializer_list<unsigned short>{1, 65535}) {
            Client client(
                true, 0, 0, IPAddress(IPSocket::LOOPBACK_IP, port), listener.getLocalAddress(), true,
                IPSocket::IPV4);
            EXPECT_FALSE(client.connect());
            EXPECT_EQ(port, client.getLocalAddress().port);
            Client const accepted(true, 0, 0, listener.acceptConnection());
            EXPECT_EQ(port, accepted.getPeerAddress().port);
        }
    });
}

TEST_F(TCPNetwork, thatAreRefusedOnAPortOfTheirOwnMayTryAgain) {
    expectInNetwork([] {
        for (IPSocket::IPProtocolVersion const version : VERSIONS) {
            BoundSocket const peer(version);
            IPAddress const own(getLoopback(version), 4711);
            Client client(true, 0, 0, own, peer.getAddress(), false, version);
            EXPECT_TRUE(
                failsToConnect(client, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED));
            ASSERT_EQ(0, listen(peer.getFd(), 1));
            EXPECT_FALSE(client.connect()) << "that it is bound already does no harm";
            EXPECT_EQ(own.port, client.getLocalAddress().port);
            EXPECT_TRUE(chainIs({}));
        }
    });
}

TEST_F(TCPNetwork, lowPortsAreNotForEverybody) {
    expectInNetwork([] {
        ASSERT_TRUE(dropRights());
        Server server(IPAddress(IPSocket::LOOPBACK_IP, 80), true, false, IPSocket::IPV4);
        server.enableListen(1);
        EXPECT_TRUE(server.hadError());
        EXPECT_TRUE(failureIs(SysError, vesk::SysErrorId::PERMISSION_DENIED, EACCES));
        EXPECT_EQ(Socket::DEAD, server.getState());

        Client client(
            true, 0, 0, IPAddress(IPSocket::LOOPBACK_IP, 80), IPAddress(IPSocket::LOOPBACK_IP, 9), false,
            IPSocket::IPV4);
        EXPECT_TRUE(failsToConnect(client, SysError, vesk::SysErrorId::PERMISSION_DENIED, EACCES));
    });
}

TEST_F(TCPNetwork, machinesRefuseWhereNobodyListens) {
    expectInNetwork([] {
        Cable const cable;
        for (char const* const host : {RIGHT, RIGHT6}) {
            Client client = makeClient(host, 80);
            EXPECT_TRUE(
                failsToConnect(client, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED));
        }
    });
}

TEST_F(TCPNetwork, thatDoNotWaitLearnARefusalLater) {
    expectInNetwork([] {
        Cable const cable;
        Client client = makeClient(RIGHT, 80, false);
        EXPECT_TRUE(client.connect());
        EXPECT_FALSE(client.hadError());
        EXPECT_EQ(Socket::OPEN, client.getState());
        ASSERT_TRUE(awaitEvents(client.getSocketFd(), POLLOUT));
        unsigned int written = 12345;
        EXPECT_EQ(-1, client.write("x", 1, written));
        EXPECT_TRUE(chainIs(
            {{vesk::SysErrorId::UNCLASSIFIED,
              rowText(vesk::SysErrorId::UNCLASSIFIED, systemText(ECONNREFUSED))},
             {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
    });
}

TEST_F(TCPNetwork, withoutARouteIsUnavailable) {
    expectInNetwork([] {
        for (char const* const host : {"10.88.0.1", "fd88::1"}) {
            for (bool const blocking : {true, false}) {
                Client client = makeClient(host, 80, blocking);
                EXPECT_TRUE(
                    failsToConnect(client, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, ENETUNREACH));
            }
        }
    });
}

struct RouteRow {
    char const* type;
    std::ErrorType const* family;
    int id;
    int error;
};

void PrintTo(RouteRow const& row, std::ostream* out) {
    *out << row.type;
}

class TCPNetworkRoutes : public testing::TestWithParam<RouteRow> {};

TEST_P(TCPNetworkRoutes, thatLeadNowhereTellWhy) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(ip(std::string("route add ") + GetParam().type + " 10.88.0.0/24"));
        Client client = makeClient("10.88.0.1", 80);
        EXPECT_TRUE(failsToConnect(client, *GetParam().family, GetParam().id, GetParam().error));
    });
}

INSTANTIATE_TEST_SUITE_P(
    types, TCPNetworkRoutes,
    testing::Values(
        RouteRow{"unreachable", &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, EHOSTUNREACH},
        RouteRow{"prohibit", &SysError, vesk::SysErrorId::PERMISSION_DENIED, EACCES},
        RouteRow{"blackhole", &SysError, vesk::SysErrorId::SPOILED_INTEGRITY, EINVAL}));

TEST_F(TCPNetwork, machinesThatNobodyKnowsAreNotReachable) {
    expectInNetwork([] {
        Cable const cable;
        // Nobody answers who that is.
        Client client = makeClient("10.77.0.99", 80);
        EXPECT_TRUE(failsToConnect(client, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, EHOSTUNREACH));
    });
}

TEST_F(TCPNetwork, machinesThatDoNotAnswerTimeOut) {
    expectInNetwork([] {
        Cable const cable;
        cable.pull();
        Client client = makeClient(RIGHT, 80);
        int const tries = 1;
        ASSERT_EQ(0, setsockopt(client.getSocketFd(), IPPROTO_TCP, TCP_SYNCNT, &tries, sizeof tries));
        EXPECT_TRUE(failsToConnect(client, SysError, vesk::SysErrorId::SPOILED_INTEGRITY, ETIMEDOUT));
    });
}

TEST_F(TCPNetwork, thatDoNotWaitAreOnTheirWayToAMachineThatDoesNotAnswer) {
    expectInNetwork([] {
        Cable const cable;
        cable.pull();
        Client client = makeClient(RIGHT, 80, false);
        EXPECT_TRUE(client.connect());
        EXPECT_FALSE(client.hadError());
        EXPECT_EQ(Socket::OPEN, client.getState());
        EXPECT_FALSE(isReady(client.getSocketFd(), POLLOUT));
        EXPECT_TRUE(chainIs({}));
        EXPECT_FALSE(client.connect());
        EXPECT_TRUE(client.hadError());
        EXPECT_TRUE(misuseIs("connect called in state != INACTIVE"));
        char byte = 0;
        unsigned int count = 12345;
        EXPECT_EQ(1, client.read(&byte, 1, count));
        EXPECT_EQ(0u, count) << "nothing has come yet";
        EXPECT_EQ(1, client.write("x", 1, count));
        EXPECT_EQ(0u, count) << "and nothing can go yet";
        EXPECT_FALSE(client.close(true)) << "but it can be given up";
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(TCPNetwork, peersThatResetAreTold) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        makeCloseReset(connection.server->getSocketFd());
        EXPECT_FALSE(connection.server->close(false));
        ASSERT_TRUE(awaitEvents(connection.client->getSocketFd(), POLLIN));
        char byte = 0;
        unsigned int count = 12345;
        EXPECT_EQ(-1, connection.client->read(&byte, 1, count));
        EXPECT_TRUE(streamFailureIs(Socket::Error, Socket::ErrorId::CONNECTION_RESET, ECONNRESET, 0));
        EXPECT_EQ(Socket::OPEN, connection.client->getState());
    });
}

/// Reads from a connection that the system gives up in time.
testing::AssertionResult timesOut(Client& client) {
    char byte = 0;
    unsigned int count = 12345;
    if (!awaitEvents(client.getSocketFd(), POLLIN)) {
        return testing::AssertionFailure() << "it was not given up";
    }
    if (client.read(&byte, 1, count) != -1 || !client.hadError() || client.getState() != Socket::OPEN) {
        return testing::AssertionFailure() << "there was something to read";
    }
    return streamFailureIs(Socket::Error, Socket::ErrorId::COMMUNICATION_FAILED, ETIMEDOUT, 1);
}

TEST_F(TCPNetwork, peersThatVanishAreFoundByKeepalive) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        ASSERT_FALSE(connection.client->setKeepalive({true, 1, 1, 1}));
        cable.pull();
        EXPECT_TRUE(timesOut(*connection.client));
        EXPECT_FALSE(connection.client->close(true));
    });
}

TEST_F(TCPNetwork, peersThatVanishAreFoundByDataThatTheyDoNotAcknowledge) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        unsigned int const milliseconds = 500;
        ASSERT_EQ(
            0,
            setsockopt(
                connection.client->getSocketFd(), IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds,
                sizeof milliseconds));
        cable.pull();
        writeTo(*connection.client, "is anybody there?");
        EXPECT_TRUE(timesOut(*connection.client));
    });
}

TEST_F(TCPNetwork, peersThatAreOnlyAwayForAWhileAreNotLost) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        cable.pull();
        writeTo(*connection.client, "later");
        EXPECT_FALSE(isReady(connection.server->getSocketFd(), POLLIN));
        cable.enterRight();
        ASSERT_TRUE(ip("link set dev right up\nneigh replace 10.77.0.1 lladdr 02:00:00:00:00:01 nud "
                       "permanent dev right"));
        cable.enterLeft();
        EXPECT_EQ("later", readFrom(*connection.server, 5));
    });
}

TEST_F(TCPNetwork, peersThatEndTheirHalfStillListen) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        ASSERT_EQ(0, shutdown(connection.server->getSocketFd(), SHUT_WR));
        EXPECT_TRUE(isAtItsEnd(*connection.client));
        writeTo(*connection.client, "still here");
        EXPECT_EQ("still here", readFrom(*connection.server, 10));
        EXPECT_FALSE(connection.client->close(true));
        EXPECT_TRUE(isAtItsEnd(*connection.server));
    });
}

TEST_F(TCPNetwork, peersThatSendAnythingAreReadAsTheySend) {
    expectInNetwork([] {
        Cable const cable;
        FarConnection connection(cable);
        std::string garbage(3000, '\0');
        for (size_t i = 0; i < garbage.size(); ++i) {
            garbage[i] = static_cast<char>(i * i * 7 + i);
        }
        int const fd = connection.server->getSocketFd();
        for (size_t at = 0; at < garbage.size(); at += 100) {
            ASSERT_EQ(100, send(fd, garbage.data() + at, 100, MSG_NOSIGNAL));
        }
        // The last byte is out of band: who does not ask for it does not get it.
        ASSERT_EQ(3, send(fd, "ab!", 3, MSG_NOSIGNAL | MSG_OOB));
        ASSERT_EQ(1, send(fd, "c", 1, MSG_NOSIGNAL));
        EXPECT_TRUE(garbage == readFrom(*connection.client, garbage.size()));
        EXPECT_EQ("abc", readFrom(*connection.client, 3));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(TCPNetwork, serversThatDoNotWaitAcceptWhatHasCome) {
    expectInNetwork([] {
        Cable const cable;
        cable.enterRight();
        Listener listener(IPAddress(RIGHT, 0), IPSocket::IPV4, false);
        EXPECT_FALSE(listener.acceptConnection().valid);
        EXPECT_FALSE(listener.hadError());
        cable.enterLeft();
        Client first = makeClient(RIGHT, listener.getLocalAddress().port);
        Client second = makeClient(RIGHT, listener.getLocalAddress().port);
        EXPECT_FALSE(first.connect());
        EXPECT_FALSE(second.connect());
        for (Client const* const client : {&first, &second}) {
            ASSERT_TRUE(awaitEvents(listener.getSocketFd(), POLLIN));
            Client const accepted(true, 0, 0, listener.acceptConnection());
            EXPECT_EQ(client->getLocalAddress().port, accepted.getPeerAddress().port);
        }
        EXPECT_FALSE(listener.acceptConnection().valid);
        EXPECT_FALSE(listener.hadError());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(TCPNetwork, aCableThatIsDownOnThisSideIsAnUnavailableNetwork) {
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(setDown("left"));
        Client client = makeClient(RIGHT, 80);
        EXPECT_TRUE(failsToConnect(client, Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, ENETUNREACH));
        ASSERT_TRUE(setUp("left"));
        EXPECT_TRUE(failsToConnect(client, Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED))
            << "it may try again";
    });
}

} // namespace
