#include "StreamSocketSupport.h"

#include <gtest/gtest.h>

#include <type_traits>

/// What TCP servers do and Unix servers do not. The rest is in StreamServerSocketTest.cpp.

namespace {

using namespace support;

static_assert(std::is_base_of_v<IPSocket, TCPServerSocket> && !std::is_copy_constructible_v<TCPServerSocket>);

class TCPServerSocketVersions : public testing::TestWithParam<Transport> {
protected:
    IPSocket::IPProtocolVersion const m_version = getVersion(GetParam());
};

INSTANTIATE_TEST_SUITE_P(
    versions, TCPServerSocketVersions, testing::Values(Transport::IPV4, Transport::IPV6), byName);

TEST_P(TCPServerSocketVersions, knowsItsPortAfterAnUpdateAndHasNoPeer) {
    Server server(IPAddress(getLoopback(m_version), 0), true, false, m_version);
    server.enableListen(5);
    EXPECT_EQ(0, server.getLocalAddress().port) << "it is not updated by itself";
    server.updateLocalAddress();
    EXPECT_NE(0, server.getLocalAddress().port);
    EXPECT_EQ(getLoopback(m_version), server.getLocalAddress().host);
    server.updatePeerAddress();
    EXPECT_EQ("", server.getPeerAddress().host);
    EXPECT_TRUE(succeeded(server, Socket::OPEN));
}

TEST_P(TCPServerSocketVersions, withoutAHostListensOnAllAddresses) {
    Server server(IPAddress(), true, false, m_version);
    server.enableListen(5);
    server.updateLocalAddress();
    EXPECT_EQ(
        m_version == IPSocket::IPV6 ? IPSocket::ANY_IP6 : IPSocket::ANY_IP, server.getLocalAddress().host);
    Place place(GetParam());
    place.port = server.getLocalAddress().port;
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

ErrorRow const IN_USE(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE);

TEST(TCPServerSocket, cannotListenWhereAnotherListensAlsoWithReuse) {
    Listener const first;
    EXPECT_TRUE(failsToListen(*makeServer(first.getPlace(), true, true), IN_USE));
}

TEST(TCPServerSocket, cannotListenOnAnAddressOfAnotherMachine) {
    Server server(IPAddress("203.0.113.1", 0), true, false, IPSocket::IPV4);
    EXPECT_TRUE(failsToListen(server, {Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL}));
}

TEST(TCPServerSocket, cannotListenOnABoundDescriptor) {
    Place const place(Transport::IPV4);
    SocketPtr const server = makeServer(place);
    ASSERT_EQ(0, withAddress(bind, server->getSocketFd(), getAddress(place)));
    EXPECT_TRUE(failsToListen(*server, {SysErrorId::SPOILED_INTEGRITY, EINVAL}));
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

class TCPServerSocketBacklog : public testing::TestWithParam<unsigned int> {};

INSTANTIATE_TEST_SUITE_P(
    sizes, TCPServerSocketBacklog, testing::Values(0U, 1U, 3U), testing::PrintToStringParamName());

TEST_P(TCPServerSocketBacklog, letsOneMoreConnectionWait) {
    Listener const listener(Transport::IPV4, true, GetParam());
    std::vector<SocketPtr> clients;
    for (unsigned int i = 0; i <= GetParam(); ++i) {
        clients.push_back(listener.makeClient());
        EXPECT_FALSE(connectSocket(*clients.back()));
    }
    SocketPtr const late = listener.makeClient({false});
    EXPECT_TRUE(connectSocket(*late));
    EXPECT_TRUE(succeeded(*late, Socket::OPEN));
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
    EXPECT_EQ(FAILED, readByte(*accepted));
    EXPECT_TRUE(streamFailureIs({Socket::ErrorId::CONNECTION_RESET, ECONNRESET}, StreamErrorId::UNUSABLE));
}

} // namespace
