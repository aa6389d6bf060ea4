#include "Cable.h"
#include "UDPSupport.h"
#include "support/EventRecorder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

using support::Cable;
using support::chainIs;
using support::EventRecorder;
using support::expectInNetwork;
using support::isWritten;
using support::OpenUDPSocket;
using support::Peer;
using support::receive;
using support::rowText;
using support::streamFailure;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UDPSocket;

constexpr unsigned int UNTOUCHED = 77;
constexpr char const* WARNING = "WARNING framework/src/vesk/posix/UDPSocket open: error connecting";

/// Opens a socket that has no way to its peer.
void expectUnreachable(
    IPSocket::IPAddress const& local, IPSocket::IPAddress const& peer, IPSocket::IPProtocolVersion version) {
    EventRecorder const events;
    OpenUDPSocket socket(local, peer, version);
    ASSERT_TRUE(socket.isValid());
    socket.open();
    EXPECT_EQ(WARNING, events.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::NETWORK_UNAVAILABLE,
          rowText(Socket::ErrorId::NETWORK_UNAVAILABLE, systemText(ENETUNREACH))}}));
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_NE(-1, socket.getSocketFd());

    unsigned int written = UNTOUCHED;
    EXPECT_EQ(-1, socket.write("x", 1, written)) << "it never was connected";
    EXPECT_TRUE(socket.hadError());
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(chainIs(streamFailure(Socket::Error, Socket::ErrorId::ADDRESS_INVALID, EDESTADDRREQ, 0)));
    EXPECT_FALSE(socket.close(false));
}

TEST(UDPNetwork, unreachableNetworkOnlyWarnsAndTheSocketIsOpen) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] { expectUnreachable({"", 0}, {"192.0.2.7", 5000}, IPSocket::IPV4); });
}

TEST(UDPNetwork, unreachableNetworkOfIPv6OnlyWarnsAndTheSocketIsOpen) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    expectInNetwork([] { expectUnreachable({"", 0}, {"2001:db8::7", 5000}, IPSocket::IPV6); });
}

TEST(UDPNetwork, socketThatCouldNotBeConnectedReceivesFromAnybody) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        EventRecorder const events;
        OpenUDPSocket socket({"", 5000}, {"192.0.2.7", 5000});
        socket.open();
        EXPECT_EQ(WARNING, events.getText());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::NETWORK_UNAVAILABLE}}));
        Peer anybody;
        EXPECT_TRUE(anybody.sendTo({"127.0.0.1", 5000}, "hello"));
        EXPECT_EQ("hello", receive(socket));
    });
}

TEST(UDPNetwork, datagramsPassBetweenNetworks) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"10.0.0.1", 5001}, {"10.0.0.2", 5002});
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
        right.open();
        ASSERT_FALSE(left.hadError() || right.hadError());
        EXPECT_TRUE(isWritten(left, "to the right"));
        EXPECT_EQ("to the right", receive(right));
        EXPECT_TRUE(isWritten(right, "to the left"));
        EXPECT_EQ("to the left", receive(left));
        right.updateLocalAddress();
        EXPECT_EQ("10.0.0.2", right.getLocalAddress().host) << "the way to the peer has told it";
    });
}

TEST(UDPNetwork, linkLocalAddressesWithTheirScopesPassBetweenNetworks) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"fe80::1%left", 5001}, {"fe80::2%left", 5002}, IPSocket::IPV6);
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"fe80::1%right", 5001}, IPSocket::IPV6);
        right.open();
        ASSERT_FALSE(left.hadError() || right.hadError());
        EXPECT_TRUE(isWritten(left, "to the right"));
        EXPECT_EQ("to the right", receive(right));
        EXPECT_TRUE(isWritten(right, "to the left"));
        EXPECT_EQ("to the left", receive(left));
        right.updateLocalAddress();
        EXPECT_EQ("fe80::2%right", right.getLocalAddress().host);
    });
}

TEST(UDPNetwork, refusalComesBackThroughTheNetwork) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"", 0}, {"10.0.0.2", 5002});
        left.open();
        EXPECT_TRUE(isWritten(left, "nobody there"));
        EXPECT_TRUE(support::isReadable(left.getSocketFd()));
        EXPECT_EQ(std::nullopt, receive(left));
        EXPECT_TRUE(left.hadError());
        EXPECT_TRUE(
            chainIs(streamFailure(Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED, 0)));
        EXPECT_EQ(Socket::OPEN, left.getState());

        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
        right.open();
        EXPECT_TRUE(isWritten(left, "now there is")) << "the socket works on";
        EXPECT_FALSE(left.close(false));
    });
}

TEST(UDPNetwork, withoutItsNetworkWritingFailsUntilItIsBack) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"", 5001}, {"10.0.0.2", 5002});
        left.open();
        ASSERT_FALSE(left.hadError());
        ASSERT_TRUE(support::setDown("left"));
        unsigned int written = UNTOUCHED;
        EXPECT_EQ(-1, left.write("x", 1, written));
        EXPECT_TRUE(
            chainIs(streamFailure(Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, ENETUNREACH, 0)));
        EXPECT_EQ(Socket::OPEN, left.getState());
        ASSERT_TRUE(support::setUp("left"));
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
        right.open();
        EXPECT_TRUE(isWritten(left, "back"));
        EXPECT_EQ("back", receive(right));
    });
}

TEST(UDPNetwork, broadcastAddressCannotBeConnectedWithoutThePermission) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        EventRecorder const events;
        OpenUDPSocket left({"", 0}, {"10.0.0.255", 5002});
        left.open();
        EXPECT_EQ(WARNING, events.getText());
        EXPECT_FALSE(left.hadError());
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EACCES))}}));
        EXPECT_EQ(Socket::OPEN, left.getState());
    });
}

TEST(UDPNetwork, broadcastReachesTheOtherEndWithThePermission) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        EventRecorder const events;
        OpenUDPSocket left({"", 5001}, {"10.0.0.255", 5002});
        left.setBroadcast(true);
        left.open();
        EXPECT_EQ("", events.getText());
        EXPECT_FALSE(left.hadError());
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"10.0.0.255", 5002}, {"10.0.0.1", 5001});
        right.open();
        ASSERT_FALSE(right.hadError());
        EXPECT_TRUE(isWritten(left, "to all"));
        EXPECT_EQ("to all", receive(right));
    });
}

/// The largest packet of the cable, in bytes.
class UDPSizes : public testing::TestWithParam<int> {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

TEST_P(UDPSizes, datagramsPassWholeUpToTheLargest) {
    int const mtu = GetParam();
    expectInNetwork([mtu] {
        Cable const cable(mtu);
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"", 5001}, {"10.0.0.2", 5002});
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
        right.open();
        ASSERT_FALSE(left.hadError() || right.hadError());
        for (unsigned int const size : {1U, 1472U, 1473U, 8972U, 8973U, 65506U, UDPSocket::MAX_TEL_SIZE}) {
            std::string datagram(size, '.');
            for (unsigned int i = 0; i < size; ++i) {
                datagram[i] = static_cast<char>(i * 31 + i / 256);
            }
            EXPECT_TRUE(isWritten(left, datagram)) << size;
            EXPECT_TRUE(receive(right) == datagram) << size;
        }
        std::string const larger(UDPSocket::MAX_TEL_SIZE + 1, 'x');
        unsigned int written = UNTOUCHED;
        EXPECT_EQ(-1, left.write(larger.data(), UDPSocket::MAX_TEL_SIZE + 1, written));
        EXPECT_EQ(0U, written);
        EXPECT_TRUE(left.hadError());
        EXPECT_TRUE(chainIs(streamFailure(Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, EMSGSIZE, 1)));
        EXPECT_TRUE(isWritten(left, "the next"));
        EXPECT_EQ("the next", receive(right));
    });
}

INSTANTIATE_TEST_SUITE_P(
    mtu, UDPSizes, testing::Values(1500, 9000, 65535), testing::PrintToStringParamName());

TEST(UDPNetwork, datagramOfTheSizeThatIsToldPasses) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        Cable const cable(9000);
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"", 5001}, {"10.0.0.2", 5002});
        ASSERT_FALSE(left.setSendBuffer(4096));
        EXPECT_EQ(4096U, left.maxTxSize());
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
        right.open();
        std::string const datagram(left.maxTxSize(), 'x');
        EXPECT_TRUE(isWritten(left, datagram));
        EXPECT_TRUE(receive(right) == datagram);
    });
}

} // namespace
