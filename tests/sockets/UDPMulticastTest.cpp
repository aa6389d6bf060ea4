#include "Cable.h"
#include "UDPSupport.h"
#include "support/EventRecorder.h"
#include "support/Processes.h"

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <net/if.h>
#include <sstream>
#include <string>
#include <sys/eventfd.h>

namespace {

using support::Cable;
using support::chainIs;
using support::EventRecorder;
using support::expectInNetwork;
using support::isReadable;
using support::isWritten;
using support::OpenUDPSocket;
using support::receive;
using support::rowText;
using support::StreamError;
using support::streamFailure;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UDPSocket;

constexpr unsigned int UNTOUCHED = 77;
constexpr char const* GROUP = "239.1.2.3";
constexpr char const* GROUP6 = "ff02::1:3";

/// Whether the calling thread's network receives a group on an interface.
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
        std::string name;
        if (four && line[0] == '\t') {
            std::string address;
            words >> address;
            if (current == interface && address == text) {
                return true;
            }
        } else if (words >> index >> name) {
            current = name;
            std::string address;
            if (!four && words >> address && name == interface && address == text) {
                return true;
            }
        }
    }
    return false;
}

/// Has a datagram go from one to the other.
void expectDelivered(UDPSocket& sender, UDPSocket& receiver, std::string const& data = "hello") {
    EXPECT_TRUE(isWritten(sender, data));
    auto const received = receive(receiver);
    EXPECT_TRUE(received == data) << "received " << (received ? received->size() : 0) << " bytes";
    EXPECT_FALSE(receiver.hadError());
    EXPECT_TRUE(chainIs({}));
}

// ---- one network ----

TEST(UDPMulticast, allMembersOfAGroupReceiveAlsoOnTheSendersMachine) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket first({"", 5000}, {GROUP, 5000});
        OpenUDPSocket second({"", 5000}, {GROUP, 5000});
        OpenUDPSocket sender({"10.0.0.1", 0}, {GROUP, 5000});
        for (OpenUDPSocket* const socket : {&first, &second, &sender}) {
            socket->open();
            EXPECT_FALSE(socket->hadError());
            EXPECT_TRUE(chainIs({}));
            ASSERT_EQ(Socket::OPEN, socket->getState());
        }
        EXPECT_TRUE(isWritten(sender, "to all"));
        EXPECT_EQ("to all", receive(first));
        EXPECT_EQ("to all", receive(second));
        EXPECT_TRUE(isWritten(first, "also to itself"));
        EXPECT_EQ("also to itself", receive(first));
        EXPECT_EQ("also to itself", receive(second));
    });
}

TEST(UDPMulticast, socketBoundToAnInterfacesAddressSendsToTheGroupButReceivesOnlyWhatIsSentToItself) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket bound({"10.0.0.1", 5000}, {GROUP, 5000});
        OpenUDPSocket member({"", 5000}, {GROUP, 5000});
        OpenUDPSocket direct({"", 5001}, {"10.0.0.1", 5000});
        bound.open();
        member.open();
        direct.open();
        ASSERT_FALSE(bound.hadError() || member.hadError() || direct.hadError());
        expectDelivered(bound, member, "to the group");
        expectDelivered(direct, bound, "directly");
    });
}

TEST(UDPMulticast, localAddressNamesTheInterface) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        ASSERT_TRUE(support::makePair("one", "two"));
        ASSERT_TRUE(support::addAddress("one", "10.1.0.1/24"));
        ASSERT_TRUE(support::setUp("one"));
        ASSERT_TRUE(support::setUp("two"));

        OpenUDPSocket by_route({"", 5000}, {GROUP, 5000});
        by_route.open();
        EXPECT_FALSE(by_route.hadError());
        EXPECT_TRUE(isJoined("left", GROUP));
        EXPECT_FALSE(isJoined("one", GROUP));
        EXPECT_FALSE(by_route.close(false));
        EXPECT_FALSE(isJoined("left", GROUP)) << "the system has left the group";

        OpenUDPSocket by_address({"10.1.0.1", 5000}, {GROUP, 5000});
        by_address.open();
        EXPECT_FALSE(by_address.hadError());
        EXPECT_TRUE(isJoined("one", GROUP));
        EXPECT_FALSE(isJoined("left", GROUP));
        in_addr interface {};
        socklen_t length = sizeof interface;
        EXPECT_EQ(0, getsockopt(by_address.getSocketFd(), IPPROTO_IP, IP_MULTICAST_IF, &interface, &length));
        EXPECT_EQ(inet_addr("10.1.0.1"), interface.s_addr);
    });
}

TEST(UDPMulticast, scopeOfTheLocalAddressNamesTheInterface) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        ASSERT_TRUE(support::makePair("one", "two"));
        ASSERT_TRUE(support::ip("link set dev one addrgenmode none up\nlink set dev two up\n"
                                "addr add fe80::11/64 nodad dev one"));
        struct Row {
            std::string local;
            char const* interface;
        };
        for (Row const& row :
             {Row{"fe80::1%left", "left"}, Row{"fe80::11%one", "one"},
              Row{"::%" + std::to_string(if_nametoindex("one")), "one"}, Row{"ff02::1:3%left", "left"}}) {
            SCOPED_TRACE(row.local);
            OpenUDPSocket socket({row.local, 5000}, {GROUP6, 5000}, IPSocket::IPV6);
            socket.open();
            EXPECT_FALSE(socket.hadError());
            EXPECT_TRUE(chainIs({}));
            EXPECT_EQ(std::string("one") == row.interface, isJoined("one", GROUP6));
            EXPECT_EQ(std::string("left") == row.interface, isJoined("left", GROUP6));
            unsigned int index = 0;
            socklen_t length = sizeof index;
            EXPECT_EQ(0, getsockopt(socket.getSocketFd(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, &length));
            EXPECT_EQ(if_nametoindex(row.interface), index);
            if (socket.getState() == Socket::OPEN) {
                EXPECT_FALSE(socket.close(false));
            }
            EXPECT_FALSE(isJoined(row.interface, GROUP6)) << "the system has left the group";
        }
    });
}

TEST(UDPMulticast, withoutAnInterfaceForItTheGroupCannotBeJoined) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        EventRecorder const events;
        {
            UDPSocket socket(true, 0, 0, {"", 5000}, {GROUP, 5000}, IPSocket::IPV4);
            socket.open();
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(
                chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ENODEV))}}));
            EXPECT_TRUE(socket.isValid());
            EXPECT_EQ(Socket::INACTIVE, socket.getState());
            EXPECT_NE(-1, fcntl(socket.getSocketFd(), F_GETFD));
            unsigned int written = UNTOUCHED;
            EXPECT_EQ(-1, socket.write("x", 1, written));
            EXPECT_TRUE(chainIs(
                {{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
        }
        EXPECT_EQ("", events.getText());
    });
}

TEST(UDPMulticast, interfaceOfIPv6ThatDoesNotExistCannotBeNamed) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    expectInNetwork([] {
        UDPSocket socket(true, 0, 0, {"::%4711", 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        ASSERT_TRUE(socket.isValid());
        socket.open();
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(
            chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ENODEV))}}));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_NE(-1, fcntl(socket.getSocketFd(), F_GETFD));
    });
}

TEST(UDPMulticast, writingWithoutTheNetworkFails) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket socket({"10.0.0.1", 5000}, {GROUP, 5000});
        socket.open();
        ASSERT_FALSE(socket.hadError());
        ASSERT_TRUE(support::removeAddress("left", "10.0.0.1/24"));
        ASSERT_TRUE(support::setDown("left"));
        unsigned int written = UNTOUCHED;
        EXPECT_EQ(-1, socket.write("x", 1, written));
        EXPECT_EQ(0U, written);
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(
            chainIs(streamFailure(Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, ENETUNREACH, 0)));
        EXPECT_EQ(Socket::OPEN, socket.getState());
    });
}

TEST(UDPMulticast, numberThatNoRowHasReportsOnlyThatOfTheStream) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket socket({"10.0.0.1", 5000}, {GROUP, 0});
        socket.open();
        ASSERT_FALSE(socket.hadError());
        unsigned int written = UNTOUCHED;
        EXPECT_EQ(-1, socket.write("x", 1, written)) << "nothing can be sent to port 0";
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{std::IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
    });
}

TEST(UDPMulticast, streamGathersAndTruncatesAsWithOnePeer) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        UDPSocket sender(true, 0, 16, {"10.0.0.1", 0}, {GROUP, 5000}, IPSocket::IPV4);
        OpenUDPSocket receiver({"", 5000}, {GROUP, 5000}, IPSocket::IPV4, false);
        sender.open();
        receiver.open();
        ASSERT_FALSE(sender.hadError() || receiver.hadError());
        char block[8];
        unsigned int count = UNTOUCHED;
        EXPECT_EQ(1, receiver.read(block, sizeof block, count)) << "nothing there";
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(isWritten(sender, "abc"));
        EXPECT_TRUE(isWritten(sender, "def"));
        EXPECT_FALSE(sender.flush(false));
        EXPECT_TRUE(isWritten(sender, "last"));
        EXPECT_FALSE(sender.close(false));
        EXPECT_EQ("abcd", receive(receiver, 4));
        EXPECT_EQ("last", receive(receiver, 4));
    });
}

TEST(UDPMulticast, emptyDatagramToTheGroupReadsAsAnEnd) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket socket({"", 5000}, {GROUP, 5000});
        socket.open();
        sockaddr_in group{};
        ASSERT_FALSE(IPSocket::IPAddress(GROUP, 5000).getBinary(group));
        EXPECT_EQ(
            0,
            sendto(socket.getSocketFd(), "", 0, 0, reinterpret_cast<sockaddr const*>(&group), sizeof group));
        EXPECT_TRUE(isReadable(socket.getSocketFd()));
        char block[8];
        unsigned int count = UNTOUCHED;
        EXPECT_EQ(0, socket.read(block, sizeof block, count));
        EXPECT_EQ(0U, count);
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::CONNECTION_CLOSED}, {std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
    });
}

// ---- two networks ----

TEST(UDPMulticast, groupIsHeardInAnotherNetwork) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"10.0.0.1", 5001}, {GROUP, 5000});
        OpenUDPSocket left_member({"", 5000}, {GROUP, 5000});
        left.open();
        left_member.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5000}, {GROUP, 5000});
        right.open();
        ASSERT_FALSE(left.hadError() || left_member.hadError() || right.hadError());
        EXPECT_TRUE(isJoined("right", GROUP));
        expectDelivered(left, right, "from the left");
        EXPECT_EQ("from the left", receive(left_member));
        expectDelivered(right, left_member, "from the right");
    });
}

/// The local address of the one who listens in the right network; "#" stands for the index of the interface.
class UDPMulticast6 : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        VESK_SKIP_WITHOUT_NETWORKS();
        VESK_SKIP_WITHOUT_IPV6();
        VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    }
};

TEST_P(UDPMulticast6, groupIsHeardInAnotherNetwork) {
    std::string local = GetParam();
    expectInNetwork([&local] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"fe80::1%left", 5001}, {GROUP6, 5000}, IPSocket::IPV6);
        left.open();
        ASSERT_TRUE(cable.enterRight());
        size_t const place = local.find('#');
        if (place != std::string::npos) {
            local.replace(place, 1, std::to_string(if_nametoindex("right")));
        }
        OpenUDPSocket right({local, 5000}, {"FF02::1:3", 5000}, IPSocket::IPV6);
        right.open();
        EXPECT_TRUE(chainIs({}));
        ASSERT_FALSE(left.hadError() || right.hadError());
        EXPECT_TRUE(isJoined("right", GROUP6));
        expectDelivered(left, right, "from the left");
        expectDelivered(left, right, std::string(40000, 'f'));
        expectDelivered(right, right, "to itself");
    });
}

INSTANTIATE_TEST_SUITE_P(
    locals, UDPMulticast6, testing::Values("ff02::1:3%right", "ff02::1:3%#", "::%#", "::", ""));

TEST(UDPMulticast, linkLocalAddressOfAnInterfaceReceivesOnlyWhatIsSentToItself) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    expectInNetwork([] {
        Cable const cable;
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"fe80::1%left", 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket group({"fe80::2%right", 5001}, {GROUP6, 5000}, IPSocket::IPV6);
        OpenUDPSocket direct({"fe80::2%right", 5002}, {"fe80::1%right", 5000}, IPSocket::IPV6);
        OpenUDPSocket member({GROUP6 + std::string("%right"), 5000}, {GROUP6, 5000}, IPSocket::IPV6);
        group.open();
        direct.open();
        member.open();
        EXPECT_TRUE(chainIs({}));
        ASSERT_FALSE(left.hadError() || group.hadError() || direct.hadError() || member.hadError());
        expectDelivered(group, member, "to the group");
        expectDelivered(direct, left, "directly");
        expectDelivered(left, member, "from the left");
    });
}

/// The largest packet of the cable, in bytes.
class UDPMulticastSizes : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        VESK_SKIP_WITHOUT_NETWORKS();
        VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    }
};

TEST_P(UDPMulticastSizes, datagramsPassWholeUpToTheLargest) {
    int const mtu = GetParam();
    expectInNetwork([mtu] {
        Cable const cable(mtu);
        ASSERT_TRUE(cable.isThere());
        OpenUDPSocket left({"10.0.0.1", 5001}, {GROUP, 5000});
        left.open();
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket right({"", 5000}, {GROUP, 5000});
        right.open();
        ASSERT_FALSE(left.hadError() || right.hadError());
        for (unsigned int const size : {1U, 1473U, 8972U, 8973U, UDPSocket::MAX_TEL_SIZE}) {
            expectDelivered(left, right, std::string(size, 'd'));
        }
        std::string const larger(UDPSocket::MAX_TEL_SIZE + 1, 'x');
        unsigned int written = UNTOUCHED;
        EXPECT_EQ(-1, left.write(larger.data(), UDPSocket::MAX_TEL_SIZE + 1, written));
        EXPECT_EQ(0U, written);
        EXPECT_TRUE(left.hadError());
        EXPECT_TRUE(chainIs(streamFailure(Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, EMSGSIZE, 1)));
        EXPECT_EQ(Socket::OPEN, left.getState());
        expectDelivered(left, right, "the next");
    });
}

INSTANTIATE_TEST_SUITE_P(
    mtu, UDPMulticastSizes, testing::Values(1500, 9000, 65535), testing::PrintToStringParamName());

// ---- two processes ----

/// Has a process in the right network join a group, hear a word and say one back.
void talkThroughGroup(
    IPSocket::IPProtocolVersion version, char const* group, std::string const& left_local,
    std::string const& right_local) {
    Cable const cable;
    ASSERT_TRUE(cable.isThere());
    OpenUDPSocket speaker({left_local, 5001}, {group, 5000}, version);
    OpenUDPSocket listener(
        {right_local.empty() ? "" : std::string(group) + "%left", 5000}, {group, 5000}, version);
    speaker.open();
    listener.open();
    EXPECT_TRUE(chainIs({}));
    ASSERT_FALSE(speaker.hadError() || listener.hadError());

    int const is_member = eventfd(0, EFD_CLOEXEC);
    support::Process other([&] {
        ASSERT_TRUE(cable.enterRight());
        OpenUDPSocket member({right_local, 5000}, {group, 5000}, version);
        member.open();
        EXPECT_FALSE(member.hadError());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(0, eventfd_write(is_member, 1));
        EXPECT_EQ("question", receive(member));
        EXPECT_TRUE(isWritten(member, "answer"));
    });
    EXPECT_TRUE(isReadable(is_member));
    close(is_member);
    EXPECT_TRUE(isWritten(speaker, "question"));
    EXPECT_EQ("question", receive(listener));
    EXPECT_EQ("answer", receive(listener));
    EXPECT_EQ(0, other.join());
}

TEST(UDPMulticast, processesTalkThroughAGroup) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    expectInNetwork([] { talkThroughGroup(IPSocket::IPV4, GROUP, "10.0.0.1", ""); });
}

TEST(UDPMulticast, processesTalkThroughAGroupOfIPv6) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    expectInNetwork([] { talkThroughGroup(IPSocket::IPV6, GROUP6, "fe80::1%left", "ff02::1:3%right"); });
}

} // namespace
