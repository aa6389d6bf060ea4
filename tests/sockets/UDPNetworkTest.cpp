#include "Cable.h"
#include "UDPSupport.h"
#include "support/Emulation.h"
#include "support/Processes.h"

#include <arpa/inet.h>
#include <fstream>
#include <sys/eventfd.h>

/// UDP sockets in network namespaces. The suites `UDPNetwork` and `UDPSizes` have one peer, the others groups.

namespace {

using namespace support;

constexpr char const* WARNING = "WARNING framework/src/vesk/posix/UDPSocket open: error connecting";
constexpr char const* GROUP = "239.1.2.3";
constexpr char const* GROUP6 = "ff02::1:3";

/// Runs `body` in a network namespace that a cable connects with another one.
void expectWithCable(std::function<void(Cable const& cable)> const& body, int mtu = 1500) {
    expectInNetwork([&] {
        Cable const cable(mtu);
        ASSERT_TRUE(cable.isThere());
        body(cable);
    });
}

/// A socket that is open from its construction.
class OpenedUDPSocket : public OpenUDPSocket {
public:
    OpenedUDPSocket(
        IPAddress const& local, IPAddress const& peer, IPProtocolVersion version = IPV4, bool blocking = true)
        : OpenUDPSocket(local, peer, version, blocking) {
        EXPECT_TRUE(opens(*this));
    }
};

/// Checks that a datagram passes from one socket to the other.
void expectDelivered(UDPSocket& sender, UDPSocket& receiver, std::string const& data = "hello") {
    EXPECT_TRUE(isWritten(sender, data));
    auto const received = receive(receiver);
    EXPECT_TRUE(received == data) << "received " << (received ? received->size() : 0) << " bytes";
    EXPECT_FALSE(receiver.hadError());
    EXPECT_TRUE(chainIs({}));
}

/// Checks that datagrams of each size, but no larger ones, pass whole from left to right.
void expectSizesPass(UDPSocket& left, UDPSocket& right) {
    for (unsigned int const size : {1U, 1472U, 1473U, 8972U, 8973U, 65506U, UDPSocket::MAX_TEL_SIZE}) {
        std::string datagram(size, '.');
        for (unsigned int i = 0; i < size; ++i) {
            datagram[i] = static_cast<char>(i * 31 + i / 256);
        }
        expectDelivered(left, right, datagram);
    }
    EXPECT_TRUE(failsToWrite(
        left, ErrnoRow(SocketErrorId::MESSAGE_TOO_BIG, EMSGSIZE, {StreamErrorId::TRANSFER_FAILED}),
        std::string(UDPSocket::MAX_TEL_SIZE + 1, 'x')));
    expectDelivered(left, right, "the next");
}

class UDPNetwork : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

class UDPMulticast : public UDPNetwork {
protected:
    void SetUp() override {
        UDPNetwork::SetUp();
        VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    }
};

#define VESK_SKIP_WITHOUT_IPV6_GROUPS()                                                                      \
    VESK_SKIP_WITHOUT_IPV6();                                                                                \
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6)

// ---- one peer ----

/// The version of the addresses.
class UDPVersions : public UDPNetwork, public testing::WithParamInterface<IPSocket::IPProtocolVersion> {
protected:
    void SetUp() override {
        UDPNetwork::SetUp();
        if (m_six) {
            VESK_SKIP_WITHOUT_IPV6();
        }
    }

    bool const m_six = GetParam() == IPSocket::IPV6;
};

INSTANTIATE_TEST_SUITE_P(
    versions, UDPVersions, testing::Values(IPSocket::IPV4, IPSocket::IPV6),
    [](auto const& row) { return std::string(row.param == IPSocket::IPV6 ? "IPv6" : "IPv4"); });

TEST_P(UDPVersions, unreachableNetworkOnlyWarns) {
    expectInNetwork([this] {
        EventRecorder const events;
        OpenUDPSocket socket({"", 5000}, {m_six ? "2001:db8::7" : "192.0.2.7", 5000}, GetParam());
        socket.open();
        EXPECT_EQ(WARNING, events.getText());
        EXPECT_FALSE(socket.hadError());
        EXPECT_TRUE(causeIs(SocketErrorId::NETWORK_UNAVAILABLE, ENETUNREACH));
        EXPECT_TRUE(failsToWrite(
            socket, ErrnoRow(SocketErrorId::ADDRESS_INVALID, EDESTADDRREQ, {StreamErrorId::UNUSABLE})))
            << "the socket is not connected";
        char const* const loopback = m_six ? IPSocket::LOOPBACK_IP6 : IPSocket::LOOPBACK_IP;
        EXPECT_TRUE(Peer(GetParam()).sendTo({loopback, 5000}, "hello"));
        EXPECT_EQ("hello", receive(socket));
    });
}

TEST_P(UDPVersions, datagramsPassBetweenNetworksAlsoWithTheScopeOfLinkLocalAddresses) {
    if (m_six) {
        VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    }
    expectWithCable([this](Cable const& cable) {
        OpenedUDPSocket left(
            {m_six ? "fe80::1%left" : "10.0.0.1", 5001}, {m_six ? "fe80::2%left" : "10.0.0.2", 5002},
            GetParam());
        ASSERT_TRUE(cable.enterRight());
        OpenedUDPSocket right({"", 5002}, {m_six ? "fe80::1%right" : "10.0.0.1", 5001}, GetParam());
        expectDelivered(left, right, "to the right");
        expectDelivered(right, left, "to the left");
        right.updateLocalAddress();
        EXPECT_EQ(m_six ? "fe80::2%right" : "10.0.0.2", right.getLocalAddress().host)
            << "the address of the route to the peer";
    });
}

VESK_TEST_WITH(
    expectWithCable, UDPNetwork, refusalArrivesFromAnotherNetworkAndTheSocketStaysUsable,
    (Cable const& cable)) {
    OpenedUDPSocket left({"", 0}, {"10.0.0.2", 5002});
    EXPECT_TRUE(isWritten(left, "to a port that is not bound"));
    EXPECT_TRUE(awaitEvents(left.getSocketFd(), POLLIN));
    EXPECT_TRUE(failsToRead(
        left, ErrnoRow(SocketErrorId::PEER_UNREACHABLE, ECONNREFUSED, {StreamErrorId::UNUSABLE})));
    ASSERT_TRUE(cable.enterRight());
    OpenedUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
    EXPECT_TRUE(isWritten(left, "to a port that is bound"));
}

VESK_TEST_WITH(expectWithCable, UDPNetwork, writingFailsWhileTheInterfaceIsDown, (Cable const& cable)) {
    OpenedUDPSocket left({"", 5001}, {"10.0.0.2", 5002});
    ASSERT_TRUE(setDown("left"));
    EXPECT_TRUE(failsToWrite(
        left, ErrnoRow(SocketErrorId::NETWORK_UNAVAILABLE, ENETUNREACH, {StreamErrorId::UNUSABLE})));
    ASSERT_TRUE(setUp("left"));
    ASSERT_TRUE(cable.enterRight());
    OpenedUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
    expectDelivered(left, right, "back");
}

VESK_TEST_WITH(
    expectWithCable, UDPNetwork, broadcastReachesTheOtherEndOnlyWithThePermission, (Cable const& cable)) {
    EventRecorder const events;
    OpenUDPSocket left({"", 0}, {"10.0.0.255", 5002});
    left.open();
    EXPECT_EQ(WARNING, events.getText());
    EXPECT_FALSE(left.hadError());
    EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EACCES));
    EXPECT_EQ(Socket::OPEN, left.getState());
    OpenUDPSocket allowed({"", 5001}, {"10.0.0.255", 5002});
    allowed.setBroadcast(true);
    ASSERT_TRUE(opens(allowed));
    EXPECT_EQ(WARNING, events.getText());
    ASSERT_TRUE(cable.enterRight());
    OpenedUDPSocket right({"10.0.0.255", 5002}, {"10.0.0.1", 5001});
    expectDelivered(allowed, right, "to all");
}

TEST_F(UDPNetwork, datagramOfTheReportedLargestSizePasses) {
    expectWithCable(
        [](Cable const& cable) {
            OpenUDPSocket left({"", 5001}, {"10.0.0.2", 5002});
            ASSERT_FALSE(left.setSendBuffer(4096));
            EXPECT_EQ(4096U, left.maxTxSize());
            left.open();
            ASSERT_TRUE(cable.enterRight());
            OpenedUDPSocket right({"", 5002}, {"10.0.0.1", 5001});
            expectDelivered(left, right, std::string(left.maxTxSize(), 'x'));
        },
        9000);
}

/// The largest packet of the cable, in bytes, and whether the peer is a group.
class UDPSizes : public UDPNetwork, public testing::WithParamInterface<std::tuple<int, bool>> {};

TEST_P(UDPSizes, datagramsPassWholeUpToTheLargest) {
    auto const [mtu, is_group] = GetParam();
    if (is_group) {
        VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    }
    expectWithCable(
        [is_group = is_group](Cable const& cable) {
            OpenedUDPSocket left({"10.0.0.1", 5000}, {is_group ? GROUP : "10.0.0.2", 5000});
            ASSERT_TRUE(cable.enterRight());
            OpenedUDPSocket right({"", 5000}, {is_group ? GROUP : "10.0.0.1", 5000});
            expectSizesPass(left, right);
        },
        mtu);
}

INSTANTIATE_TEST_SUITE_P(
    mtu, UDPSizes, testing::Combine(testing::Values(1500, 9000, 65535), testing::Bool()),
    [](auto const& row) {
        return (std::get<1>(row.param) ? "group" : "peer") + std::to_string(std::get<0>(row.param));
    });

// ---- groups, one network ----

/// Returns whether an interface of the calling thread's network has joined a group.
bool isJoined(std::string const& interface, char const* group) {
    in_addr binary{};
    in6_addr binary6{};
    char text[33] = "";
    bool const four = inet_pton(AF_INET, group, &binary) == 1;
    if (four) {
        snprintf(text, sizeof text, "%08X", binary.s_addr);
    } else if (inet_pton(AF_INET6, group, &binary6) == 1) {
        for (size_t i = 0; i < 16; ++i) {
            snprintf(text + 2 * i, 3, "%02x", binary6.s6_addr[i]);
        }
    }
    std::ifstream file(four ? "/proc/thread-self/net/igmp" : "/proc/thread-self/net/igmp6");
    EXPECT_TRUE(file.is_open());
    std::string current;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string index;
        std::string address;
        // A group of IPv4 has a line of its own after the line of its interface.
        if (four && line[0] == '\t') {
            words >> address;
        } else {
            words >> index >> current >> address;
        }
        if (current == interface && address == text) {
            return true;
        }
    }
    return false;
}

VESK_TEST_WITH(
    expectWithCable, UDPMulticast, everyMemberOfAGroupReceivesUnlessItHasTheAddressOfAnInterface,
    (Cable const&)) {
    OpenedUDPSocket first({"", 5000}, {GROUP, 5000});
    OpenedUDPSocket second({"", 5000}, {GROUP, 5000});
    OpenedUDPSocket sender({"10.0.0.1", 0}, {GROUP, 5000});
    expectDelivered(sender, first, "to all");
    EXPECT_EQ("to all", receive(second));
    expectDelivered(first, first, "also to itself");
    EXPECT_EQ("also to itself", receive(second));
    OpenedUDPSocket bound({"10.0.0.1", 5000}, {GROUP, 5000});
    OpenedUDPSocket member({"", 5000}, {GROUP, 5000});
    OpenedUDPSocket direct({"", 5001}, {"10.0.0.1", 5000});
    expectDelivered(bound, member, "to the group");
    expectDelivered(direct, bound, "directly");
}

VESK_TEST_WITH(expectWithCable, UDPMulticast, localAddressSelectsTheInterface, (Cable const&)) {
    ASSERT_TRUE(makePair("one", "two"));
    ASSERT_TRUE(addAddress("one", "10.1.0.1/24"));
    ASSERT_TRUE(setUp("one"));
    ASSERT_TRUE(setUp("two"));

    OpenedUDPSocket by_route({"", 5000}, {GROUP, 5000});
    EXPECT_TRUE(isJoined("left", GROUP));
    EXPECT_FALSE(isJoined("one", GROUP));
    EXPECT_FALSE(by_route.close(false));
    EXPECT_FALSE(isJoined("left", GROUP)) << "the system leaves the group";

    OpenedUDPSocket by_address({"10.1.0.1", 5000}, {GROUP, 5000});
    EXPECT_TRUE(isJoined("one", GROUP));
    EXPECT_FALSE(isJoined("left", GROUP));
    in_addr selected{};
    socklen_t length = sizeof selected;
    EXPECT_EQ(0, getsockopt(by_address.getSocketFd(), IPPROTO_IP, IP_MULTICAST_IF, &selected, &length));
    EXPECT_EQ(inet_addr("10.1.0.1"), selected.s_addr);
}

TEST_F(UDPMulticast, scopeOfTheLocalAddressSelectsTheInterface) {
    VESK_SKIP_WITHOUT_IPV6_GROUPS();
    expectWithCable([](Cable const&) {
        ASSERT_TRUE(makePair("one", "two"));
        ASSERT_TRUE(ip("link set dev one addrgenmode none up\nlink set dev two up\n"
                       "addr add fe80::11/64 nodad dev one"));
        std::pair<std::string, std::string> const rows[] = {
            {"fe80::1%left", "left"},
            {"fe80::11%one", "one"},
            {"::%" + std::to_string(if_nametoindex("one")), "one"},
            {"ff02::1:3%left", "left"}};
        for (auto const& [local, interface] : rows) {
            SCOPED_TRACE(local);
            OpenedUDPSocket socket({local, 5000}, {GROUP6, 5000}, IPSocket::IPV6);
            EXPECT_EQ(interface == "one", isJoined("one", GROUP6));
            EXPECT_EQ(interface == "left", isJoined("left", GROUP6));
            unsigned int index = 0;
            socklen_t length = sizeof index;
            EXPECT_EQ(0, getsockopt(socket.getSocketFd(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, &length));
            EXPECT_EQ(if_nametoindex(interface.c_str()), index);
            EXPECT_FALSE(socket.close(false));
            EXPECT_FALSE(isJoined(interface, GROUP6)) << "the system leaves the group";
        }
    });
}

VESK_TEST_WITH(expectInNetwork, UDPMulticast, groupCannotBeJoinedWithoutARouteToIt, ()) {
    EventRecorder const events;
    {
        UDPSocket socket(true, 0, 0, {"", 5000}, {GROUP, 5000}, IPSocket::IPV4);
        EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::UNCLASSIFIED, ENODEV)));
        unsigned int written = 77;
        EXPECT_EQ(-1, socket.write("x", 1, written));
        EXPECT_TRUE(chainIs({std::CommonErrorId::CONTRACT_BROKEN, StreamErrorId::UNUSABLE}));
    }
    EXPECT_EQ("", events.getText());
}

TEST_F(UDPMulticast, groupOfIPv6CannotBeJoinedOnAnInterfaceThatDoesNotExist) {
    VESK_SKIP_WITHOUT_IPV6_GROUPS();
    expectInNetwork([] {
        UDPSocket socket(true, 0, 0, {"::%4711", 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::UNCLASSIFIED, ENODEV)));
    });
}

VESK_TEST_WITH(expectWithCable, UDPMulticast, unlistedErrorMakesOnlyTheReportOfTheStream, (Cable const&)) {
    OpenedUDPSocket socket({"10.0.0.1", 5000}, {GROUP, 0});
    EXPECT_TRUE(failsToWrite(socket, {StreamErrorId::UNCLASSIFIED})) << "port 0 is not a destination";
    OpenedUDPSocket cut_off({"10.0.0.1", 5000}, {GROUP, 5000});
    ASSERT_TRUE(removeAddress("left", "10.0.0.1/24"));
    ASSERT_TRUE(setDown("left"));
    EXPECT_TRUE(failsToWrite(
        cut_off, ErrnoRow(SocketErrorId::NETWORK_UNAVAILABLE, ENETUNREACH, {StreamErrorId::UNUSABLE})));
}

VESK_TEST_WITH(expectWithCable, UDPMulticast, streamBuffersAndTruncatesAsWithOnePeer, (Cable const&)) {
    UDPSocket sender(true, 0, 16, {"10.0.0.1", 0}, {GROUP, 5000}, IPSocket::IPV4);
    OpenedUDPSocket receiver({"", 5000}, {GROUP, 5000}, IPSocket::IPV4, false);
    ASSERT_TRUE(opens(sender));
    char block[8];
    unsigned int count = 77;
    EXPECT_EQ(1, receiver.read(block, sizeof block, count)) << "nothing has arrived";
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(isWritten(sender, "abc"));
    EXPECT_TRUE(isWritten(sender, "def"));
    EXPECT_FALSE(sender.flush(false));
    EXPECT_TRUE(isWritten(sender, "last"));
    EXPECT_FALSE(sender.close(false));
    EXPECT_EQ("abcd", receive(receiver, 4));
    EXPECT_EQ("last", receive(receiver, 4));
}

VESK_TEST_WITH(
    expectWithCable, UDPMulticast, emptyDatagramToTheGroupReadsAsTheEndOfTheStream, (Cable const&)) {
    OpenedUDPSocket socket({"", 5000}, {GROUP, 5000});
    sockaddr_in group{};
    ASSERT_FALSE(IPSocket::IPAddress(GROUP, 5000).getBinary(group));
    auto const* const address = reinterpret_cast<sockaddr const*>(&group);
    EXPECT_EQ(0, sendto(socket.getSocketFd(), "", 0, 0, address, sizeof group));
    EXPECT_TRUE(awaitEvents(socket.getSocketFd(), POLLIN));
    EXPECT_TRUE(failsToRead(socket, {SocketErrorId::CONNECTION_CLOSED, StreamErrorId::END_OF_STREAM}, 0));
}

// ---- groups, two networks ----

VESK_TEST_WITH(expectWithCable, UDPMulticast, datagramsToAGroupReachAnotherNetwork, (Cable const& cable)) {
    OpenedUDPSocket left({"10.0.0.1", 5001}, {GROUP, 5000});
    OpenedUDPSocket left_member({"", 5000}, {GROUP, 5000});
    ASSERT_TRUE(cable.enterRight());
    OpenedUDPSocket right({"", 5000}, {GROUP, 5000});
    EXPECT_TRUE(isJoined("right", GROUP));
    expectDelivered(left, right, "from the left");
    EXPECT_EQ("from the left", receive(left_member));
    expectDelivered(right, left_member, "from the right");
}

/// The local address of the receiver; "#" stands for the index of its interface.
constexpr char const* LOCALS6[] = {"ff02::1:3%right", "ff02::1:3%#", "::%#", "::", ""};
VESK_TEST_TABLE(UDPMulticast6, datagramsToAGroupReachAnotherNetwork, UDPMulticast, LOCALS6) {
    VESK_SKIP_WITHOUT_IPV6_GROUPS();
    expectWithCable([local = std::string(GetParam())](Cable const& cable) mutable {
        OpenedUDPSocket left({"fe80::1%left", 5001}, {GROUP6, 5000}, IPSocket::IPV6);
        ASSERT_TRUE(cable.enterRight());
        size_t const place = local.find('#');
        if (place != std::string::npos) {
            local.replace(place, 1, std::to_string(if_nametoindex("right")));
        }
        OpenedUDPSocket right({local, 5000}, {"FF02::1:3", 5000}, IPSocket::IPV6);
        EXPECT_TRUE(isJoined("right", GROUP6));
        expectDelivered(left, right, "from the left");
        expectDelivered(left, right, std::string(40000, 'f'));
        expectDelivered(right, right, "to itself");
    });
}

TEST_F(UDPMulticast, linkLocalAddressOfAGroupMemberReceivesOnlyWhatIsSentToItself) {
    VESK_SKIP_WITHOUT_IPV6_GROUPS();
    expectWithCable([](Cable const& cable) {
        OpenedUDPSocket left({"fe80::1%left", 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        ASSERT_TRUE(cable.enterRight());
        OpenedUDPSocket group({"fe80::2%right", 5001}, {GROUP6, 5000}, IPSocket::IPV6);
        OpenedUDPSocket direct({"fe80::2%right", 5002}, {"fe80::1%right", 5000}, IPSocket::IPV6);
        OpenedUDPSocket member({GROUP6 + std::string("%right"), 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        expectDelivered(group, member, "to the group");
        expectDelivered(direct, left, "directly");
        expectDelivered(left, member, "from the left");
    });
}

// ---- groups, two processes ----

/// Starts a process in the right network that joins a group, receives a datagram and sends one.
void expectExchangeInGroup(
    IPSocket::IPProtocolVersion version, char const* group, std::string const& left_local,
    std::string const& right_local) {
    expectWithCable([&](Cable const& cable) {
        OpenedUDPSocket speaker({left_local, 5001}, {group, 5000}, version);
        OpenedUDPSocket listener(
            {right_local.empty() ? "" : std::string(group) + "%left", 5000}, {group, 5000}, version);
        int const is_member = eventfd(0, EFD_CLOEXEC);
        Process other([&] {
            ASSERT_TRUE(cable.enterRight());
            OpenedUDPSocket member({right_local, 5000}, {group, 5000}, version);
            EXPECT_EQ(0, eventfd_write(is_member, 1));
            EXPECT_EQ("question", receive(member));
            EXPECT_TRUE(isWritten(member, "answer"));
        });
        EXPECT_TRUE(awaitEvents(is_member, POLLIN));
        close(is_member);
        EXPECT_TRUE(isWritten(speaker, "question"));
        EXPECT_EQ("question", receive(listener));
        EXPECT_EQ("answer", receive(listener));
        EXPECT_EQ(0, other.join());
    });
}

TEST_F(UDPMulticast, processesExchangeDatagramsThroughAGroup) {
    expectExchangeInGroup(IPSocket::IPV4, GROUP, "10.0.0.1", "");
}

TEST_F(UDPMulticast, processesExchangeDatagramsThroughAGroupOfIPv6) {
    VESK_SKIP_WITHOUT_IPV6_GROUPS();
    expectExchangeInGroup(IPSocket::IPV6, GROUP6, "fe80::1%left", "ff02::1:3%right");
}

} // namespace
