#include "UDPSupport.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/Privileges.h"
#include "support/VtableSlot.h"
#include "support/calls/UDPCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>

namespace {

using support::CallRecorder;
using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::getSlot;
using support::OpenUDPSocket;
using support::Peer;
using support::PretendedOption;
using support::rowText;
using support::StreamError;
using support::streamFailure;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UDPSocket;

using IPAddress = IPSocket::IPAddress;

static_assert(UDPSocket::MAX_TEL_SIZE == 65507);
static_assert(std::is_same_v<decltype(UDPSocket::MAX_TEL_SIZE), uint32_t const>);
static_assert(std::is_base_of_v<IPSocket, UDPSocket> && !std::is_abstract_v<UDPSocket>);
static_assert(!std::is_copy_constructible_v<UDPSocket> && !std::is_copy_assignable_v<UDPSocket>);
static_assert(std::is_same_v<void, decltype(std::declval<UDPSocket&>().open())>);
static_assert(std::is_same_v<void, decltype(std::declval<UDPSocket&>().setBroadcast(true))>);

constexpr unsigned int UNTOUCHED = 77;

IPAddress const LOCAL(IPSocket::LOOPBACK_IP, 0);
IPAddress const LOCAL6(IPSocket::LOOPBACK_IP6, 0);
IPAddress const PEER(IPSocket::LOOPBACK_IP, 9);
IPAddress const PEER6(IPSocket::LOOPBACK_IP6, 9);
IPAddress const GROUP("239.1.2.3", 5000);
IPAddress const GROUP6("ff02::1:3", 5000);

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int getIntOption(int fd, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, option, &value, &length));
    return value;
}

// ---- making and destroying ----

TEST(UDPSocket, addsNoSlotToTheTableOfItsBase) {
    EXPECT_EQ(getSlot(&IPSocket::maxTxSize), getSlot(&UDPSocket::maxTxSize));
}

TEST(UDPSocket, newObjectIsInactiveAndHasADatagramSocketThatExecCloses) {
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        bool const six = version == IPSocket::IPV6;
        if (six && !Peer(version).isThere()) {
            continue;
        }
        UDPSocket const socket(true, 0, 0, six ? LOCAL6 : LOCAL, six ? PEER6 : PEER, version);
        EXPECT_TRUE(socket.isValid());
        EXPECT_FALSE(socket.hadError());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_EQ(version, socket.getVersion());
        EXPECT_EQ(SOCK_DGRAM, getIntOption(socket.getSocketFd(), SO_TYPE));
        EXPECT_EQ(six ? AF_INET6 : AF_INET, getIntOption(socket.getSocketFd(), SO_DOMAIN));
        EXPECT_EQ(FD_CLOEXEC, fcntl(socket.getSocketFd(), F_GETFD));
        EXPECT_EQ(O_RDWR, fcntl(socket.getSocketFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    }
}

TEST(UDPSocket, blockingOneIsMadeWithOneCall) {
    CallRecorder calls;
    UDPSocket const socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
    EXPECT_EQ("socket(AF_INET, " + std::to_string(SOCK_DGRAM | SOCK_CLOEXEC) + ", 0)\n", calls.getText());
}

TEST(UDPSocket, nonBlockingOneIsMadeSoBehindTheCallThatMakesIt) {
    CallRecorder calls;
    UDPSocket const socket(false, 0, 0, LOCAL6, PEER6, IPSocket::IPV6);
    EXPECT_EQ(
        "socket(AF_INET6, " + std::to_string(SOCK_DGRAM | SOCK_CLOEXEC) + ", 0)\nfcntl(s, F_GETFL)\n" +
            "fcntl(s, F_SETFL, " + std::to_string(O_RDWR | O_NONBLOCK) + ")\n",
        calls.getText());
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(socket.getSocketFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
}

TEST(UDPSocket, addressesBecomeNumeric) {
    UDPSocket const socket(true, 0, 0, {"", 7}, {"FF02::0:1", 5000}, IPSocket::IPV6);
    EXPECT_EQ("", socket.getLocalAddress().host);
    EXPECT_EQ(7, socket.getLocalAddress().port);
    EXPECT_EQ("ff02::1", socket.getPeerAddress().host);
    EXPECT_EQ(5000, socket.getPeerAddress().port);
}

TEST(UDPSocket, peerThatDoesNotResolveMakesAnInvalidObjectWithoutADescriptor) {
    EventRecorder const events;
    {
        CallRecorder calls;
        Fault const fault(inject_getaddrinfo, EAI_NONAME, 1, Fault::FOREVER);
        UDPSocket socket(true, 0, 0, {"", 0}, {"no.such.host", 1}, IPSocket::IPV4);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ("", calls.getText());
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(-1, socket.getSocketFd());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::INVALID_ARGUMENT,
              rowText(std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname")}}));
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(UDPSocket, localAddressThatDoesNotResolveMakesAnInvalidObjectWithoutADescriptor) {
    CallRecorder calls;
    Fault const fault(inject_getaddrinfo, EAI_NONAME, 1, Fault::FOREVER);
    UDPSocket const socket(false, 0, 0, {"no.such.host", 0}, {"", 1}, IPSocket::IPV6);
    EXPECT_EQ("", calls.getText());
    EXPECT_FALSE(socket.isValid());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
}

TEST(UDPSocket, addressOfTheOtherVersionMakesAnInvalidObject) {
    UDPSocket const socket(true, 0, 0, LOCAL, PEER6, IPSocket::IPV4);
    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(-1, socket.getSocketFd());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
}

TEST(UDPSocket, withoutMemoryForABufferItIsInvalidWithoutADescriptor) {
    for (int const nth : {1, 2}) {
        CallRecorder calls;
        support::NewFault const fault(support::New::NOTHROW_ARRAY, nth);
        UDPSocket const socket(true, 64, 64, LOCAL, PEER, IPSocket::IPV4);
        EXPECT_EQ(2, fault.getCalls());
        EXPECT_EQ("", calls.getText());
        EXPECT_FALSE(socket.isValid());
        EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
    }
}

TEST(UDPSocket, operationsOnAnInvalidObjectFail) {
    Fault const fault(inject_socket, EMFILE, 1, Fault::FOREVER);
    OpenUDPSocket socket(LOCAL, PEER);
    EXPECT_TRUE(chainIs({{SysErrorId::RESOURCES_EXHAUSTED}}));
    EXPECT_FALSE(socket.getBroadcast());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    socket.setBroadcast(true);
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({{Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_EQ(0U, socket.maxTxSize());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EventRecorder const events;
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT,
          rowText(std::CommonErrorId::INVALID_ARGUMENT, "p_socket_fd is invalid")}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon bindSocket: p_socket_fd != INVALID_SOCKET_FD\n"
        "WARNING framework/src/vesk/posix/UDPSocket open: error closing",
        events.getText());
}

TEST(UDPSocket, destructorClosesASocketThatWasNeverOpened) {
    EventRecorder const events;
    int fd = -1;
    {
        UDPSocket const socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
        fd = socket.getSocketFd();
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("", events.getText());
}

TEST(UDPSocket, destructorOfAnOpenOneAssertsAndClosesIt) {
    EventRecorder const events;
    int fd = -1;
    {
        UDPSocket socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
        socket.open();
        EXPECT_FALSE(socket.hadError());
        fd = socket.getSocketFd();
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket ~IPSocket: this->getState() != OPEN", events.getText());
}

TEST(UDPSocket, canBeDestroyedAsAStream) {
    int fd = -1;
    {
        auto socket = std::make_unique<UDPSocket>(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
        fd = socket->getSocketFd();
        std::unique_ptr<std::IBinOutputStream> const stream = std::move(socket);
    }
    EXPECT_FALSE(isOpen(fd));
}

// ---- which peers are groups ----

struct Classification {
    char const* peer;
    bool multicast;

    friend std::ostream& operator<<(std::ostream& out, Classification const& row) { return out << row.peer; }
};

class UDPClassification : public testing::TestWithParam<Classification> {};

TEST_P(UDPClassification, decidesHowTheSocketWorks) {
    bool const six = strchr(GetParam().peer, ':') != nullptr;
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket(
        six ? LOCAL6 : LOCAL, {GetParam().peer, 5000}, six ? IPSocket::IPV6 : IPSocket::IPV4);
    ASSERT_TRUE(socket.isValid());
    calls.getText();
    socket.open();
    std::string const opening = calls.getText();
    unsigned int put = 0;
    EXPECT_FALSE(socket.performWrite("x", 1, put));
    std::string const writing = calls.getText();

    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ(GetParam().multicast, opening.find("SO_REUSEADDR") != std::string::npos) << opening;
    EXPECT_EQ(GetParam().multicast, opening.find("ADD_MEMBERSHIP") != std::string::npos) << opening;
    EXPECT_EQ(!GetParam().multicast, opening.find("connect") != std::string::npos) << opening;
    EXPECT_EQ(GetParam().multicast ? 0U : std::string::npos, writing.find("sendto(")) << writing;
    EXPECT_EQ(GetParam().multicast ? std::string::npos : 0U, writing.find("send(")) << writing;
}

INSTANTIATE_TEST_SUITE_P(
    IPv4, UDPClassification,
    testing::Values(
        Classification{"0.0.0.0", false}, Classification{"127.0.0.1", false},
        Classification{"192.0.2.255", false}, Classification{"223.255.255.255", false},
        Classification{"224.0.0.0", true}, Classification{"224.0.0.1", true},
        Classification{"239.1.2.3", true}, Classification{"239.255.255.255", true},
        Classification{"240.0.0.1", true}, Classification{"255.255.255.254", true},
        Classification{"255.255.255.255", true}));

INSTANTIATE_TEST_SUITE_P(
    IPv6, UDPClassification,
    testing::Values(
        Classification{"::", false}, Classification{"::1", false}, Classification{"fe80::1%lo", false},
        Classification{"ff00::1", true}, Classification{"ff01::1", true}, Classification{"ff02::1", true},
        Classification{"FF02::1", true}, Classification{"ff02::1%lo", true},
        Classification{"ff02:0:0:0:0:0:0:1", true}, Classification{"ff0e::1", true},
        Classification{"ff0f::1", true}, Classification{"ff0f:ffff::", true},
        Classification{"ff10::1", false}, Classification{"ff12::1", false}, Classification{"ff1e::1", false},
        Classification{"ff3e::1", false}, Classification{"fe80::1", false}, Classification{"feff::1", false},
        Classification{"::ffff:239.1.2.3", false},
        // Not a group at all, but its text begins like one.
        Classification{"0ff0::1", true}, Classification{"ff0::1", true}));

TEST(UDPClassification, emptyPeerIsTheAnyAddressAndNoGroup) {
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        CallRecorder calls(CallRecorder::PRETEND);
        OpenUDPSocket socket({"", 0}, {"", 1}, version);
        calls.getText();
        socket.open();
        EXPECT_EQ(std::string::npos, calls.getText().find("setsockopt"));
        EXPECT_EQ(Socket::OPEN, socket.getState());
    }
}

// ---- the calls of open and write ----

TEST(UDPSocket, openBindsAndConnectsToTheOnePeer) {
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket({"127.0.0.1", 5000}, {"192.0.2.7", 5001});
    calls.getText();
    socket.open();
    EXPECT_EQ(
        "bind(s, 020013887f0000010000000000000000)\n"
        "connect(s, 02001389c00002070000000000000000)\n",
        calls.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());

    unsigned int put = UNTOUCHED;
    EXPECT_FALSE(socket.performWrite("abc", 3, put));
    EXPECT_EQ("send(s, 616263, " + std::to_string(MSG_NOSIGNAL) + ")\n", calls.getText());
    EXPECT_EQ(3U, put);
}

TEST(UDPSocket, openBindsAndConnectsToTheOnePeerOfIPv6) {
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket({"::1", 5000}, {"fe80::7%lo", 5001}, IPSocket::IPV6);
    calls.getText();
    socket.open();
    EXPECT_EQ(
        "bind(s, 0a001388000000000000000000000000000000000000000100000000)\n"
        "connect(s, 0a00138900000000fe80000000000000000000000000000701000000)\n",
        calls.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST(UDPSocket, openSharesTheAddressBindsNamesTheInterfaceAndJoinsTheGroup) {
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket({"10.0.0.1", 5000}, {"239.1.2.3", 5001});
    calls.getText();
    socket.open();
    EXPECT_EQ(
        "setsockopt(s, SO_REUSEADDR, 01000000)\n"
        "bind(s, 020013880a0000010000000000000000)\n"
        "setsockopt(s, IPPROTO_IP IP_MULTICAST_IF, 0a000001)\n"
        "setsockopt(s, IPPROTO_IP IP_ADD_MEMBERSHIP, ef0102030a000001)\n",
        calls.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());

    unsigned int put = UNTOUCHED;
    EXPECT_FALSE(socket.performWrite("abc", 3, put));
    EXPECT_EQ(
        "sendto(s, 616263, " + std::to_string(MSG_NOSIGNAL) + ", 02001389ef0102030000000000000000)\n",
        calls.getText());
    EXPECT_EQ(3U, put);

    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ("close(s)\n", calls.getText()) << "leaving the group is left to the system";
}

TEST(UDPSocket, openJoinsAGroupOfIPv6OnTheInterfaceOfTheLocalScope) {
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket({"fe80::1%258", 5000}, {"ff02::1:3", 5001}, IPSocket::IPV6);
    ASSERT_TRUE(socket.isValid());
    calls.getText();
    socket.open();
    EXPECT_EQ(
        "setsockopt(s, SO_REUSEADDR, 01000000)\n"
        "bind(s, 0a00138800000000fe80000000000000000000000000000102010000)\n"
        "setsockopt(s, IPPROTO_IPV6 IPV6_MULTICAST_IF, 02010000)\n"
        "setsockopt(s, IPPROTO_IPV6 IPV6_ADD_MEMBERSHIP, ff02000000000000000000000001000302010000)\n",
        calls.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());

    unsigned int put = UNTOUCHED;
    EXPECT_FALSE(socket.performWrite("abc", 3, put));
    EXPECT_EQ(
        "sendto(s, 616263, " + std::to_string(MSG_NOSIGNAL) +
            ", 0a00138900000000ff02000000000000000000000001000300000000)\n",
        calls.getText());
    EXPECT_EQ(3U, put);
}

TEST(UDPSocket, localAddressWithoutAScopeLeavesTheInterfaceToTheSystemEvenIfThePeerHasOne) {
    CallRecorder calls(CallRecorder::PRETEND);
    OpenUDPSocket socket({"::", 0}, {"ff02::1:3%lo", 5001}, IPSocket::IPV6);
    calls.getText();
    socket.open();
    EXPECT_EQ(
        "setsockopt(s, SO_REUSEADDR, 01000000)\n"
        "bind(s, 0a000000000000000000000000000000000000000000000000000000)\n"
        "setsockopt(s, IPPROTO_IPV6 IPV6_MULTICAST_IF, 00000000)\n"
        "setsockopt(s, IPPROTO_IPV6 IPV6_ADD_MEMBERSHIP, ff02000000000000000000000001000300000000)\n",
        calls.getText());
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST(UDPSocket, emptyWriteSendsNothing) {
    for (auto const& peer : {PEER, GROUP}) {
        CallRecorder calls(CallRecorder::PRETEND);
        OpenUDPSocket socket(LOCAL, peer);
        socket.open();
        calls.getText();
        socket.m_had_error = true;
        unsigned int put = UNTOUCHED;
        EXPECT_FALSE(socket.performWrite("", 0, put));
        EXPECT_EQ(0U, put);
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ("", calls.getText());
    }
}

TEST(UDPSocket, writeAndFlushAllocateNothing) {
    for (auto const& peer : {PEER, GROUP}) {
        OpenUDPSocket socket(LOCAL, peer);
        {
            CallRecorder const calls(CallRecorder::PRETEND);
            socket.open();
        }
        // Refused by a socket that is not connected or bound for real, which allocates nothing, either.
        Fault const send_fault(inject_send, EAGAIN, 1, Fault::FOREVER);
        Fault const sendto_fault(inject_sendto, EAGAIN, 1, Fault::FOREVER);
        support::NewFault const single(support::New::SINGLE, 1, 0);
        unsigned int put = UNTOUCHED;
        EXPECT_FALSE(socket.performWrite("abc", 3, put));
        EXPECT_FALSE(socket.performFlush());
        EXPECT_EQ(0, single.getCalls());
        EXPECT_EQ(1, send_fault.getCalls() + sendto_fault.getCalls());
    }
}

// ---- open, and what may go wrong ----

TEST(UDPSocket, openClearsTheFlagOfTheOperationBefore) {
    OpenUDPSocket socket(LOCAL, PEER);
    socket.m_had_error = true;
    socket.open();
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST(UDPSocket, secondOpenFailsAndLeavesTheStateAlone) {
    for (auto const& peer : {PEER, GROUP}) {
        CallRecorder calls(CallRecorder::PRETEND);
        OpenUDPSocket socket(LOCAL, peer);
        socket.open();
        EXPECT_FALSE(socket.hadError());
        calls.getText();
        socket.open();
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "open() called in state != INACTIVE")}}));
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_EQ("", calls.getText());
        unsigned int put = 0;
        EXPECT_FALSE(socket.performWrite("x", 1, put)) << "it works as before";
        EXPECT_FALSE(socket.hadError());
    }
}

TEST(UDPSocket, openOfAClosedSocketFailsAndLeavesItDead) {
    UDPSocket socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
    EXPECT_FALSE(socket.close(false));
    CallRecorder calls;
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          rowText(std::CommonErrorId::CONTRACT_BROKEN, "open() called in state != INACTIVE")}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ("", calls.getText());
}

TEST(UDPSocket, openAfterARefusedSharingWorks) {
    OpenUDPSocket socket(LOCAL, GROUP);
    CallRecorder const calls(CallRecorder::PRETEND);
    {
        Fault const fault(inject_setsockopt, ENOPROTOOPT);
        socket.open();
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{Socket::ErrorId::UNKNOWN_OPTION}}));
    }
    socket.open();
    EXPECT_FALSE(socket.hadError());
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

TEST(UDPSocket, secondOpenAfterAFailedJoinCannotBindAgainAndCloses) {
    OpenUDPSocket socket({"127.0.0.1", 0}, GROUP);
    {
        Fault const fault(inject_setsockopt, ENODEV, 2);
        socket.open();
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED}}));
        ASSERT_EQ(Socket::INACTIVE, socket.getState());
    }
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EINVAL))}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UDPSocket, limitedBroadcastAndReservedAddressesTakeTheWayOfGroupsAndCannotBeJoined) {
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    for (char const* const peer : {"255.255.255.255", "240.0.0.1"}) {
        EventRecorder const events;
        {
            CallRecorder calls;
            OpenUDPSocket socket({"127.0.0.1", 0}, {peer, 5000});
            ASSERT_TRUE(socket.isValid());
            int const fd = socket.getSocketFd();
            socket.open();
            EXPECT_NE(std::string::npos, calls.getText().find("IP_ADD_MEMBERSHIP"));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(
                chainIs({{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(EINVAL))}}));
            EXPECT_TRUE(socket.isValid());
            EXPECT_EQ(Socket::INACTIVE, socket.getState());
            EXPECT_EQ(fd, socket.getSocketFd());
            EXPECT_TRUE(isOpen(fd));
        }
        EXPECT_EQ("", events.getText()) << "it is destroyed without a complaint";
    }
}

TEST(UDPSocket, textThatOnlyLooksLikeAGroupCannotBeJoined) {
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    OpenUDPSocket socket({"::1", 0}, {"ff0::1", 5000}, IPSocket::IPV6);
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(EINVAL))}}));
    EXPECT_EQ(Socket::INACTIVE, socket.getState());
}

TEST(UDPSocket, addressInUseCannotBeBound) {
    Peer const peer;
    OpenUDPSocket socket(peer.getAddress(), PEER);
    int const fd = socket.getSocketFd();
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::ADDRESS_IN_USE,
          rowText(Socket::ErrorId::ADDRESS_IN_USE, systemText(EADDRINUSE))}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_FALSE(isOpen(fd));
}

TEST(UDPSocket, addressOfAnotherMachineCannotBeBound) {
    OpenUDPSocket socket({"192.0.2.1", 0}, PEER);
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::ADDRESS_INVALID,
          rowText(Socket::ErrorId::ADDRESS_INVALID, systemText(EADDRNOTAVAIL))}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
}

TEST(UDPSocket, lowPortCannotBeBoundWithoutRights) {
    VESK_SKIP_UNLESS_ROOT();
    support::expectInChild([] {
        // The limit may be lifted for all users of a container; a network of its own begins with the usual one.
        if (unshare(CLONE_NEWNET) != 0) {
            return;
        }
        ASSERT_TRUE(support::dropRights());
        OpenUDPSocket socket({"", 1}, PEER);
        socket.open();
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EACCES))}}));
        EXPECT_EQ(Socket::DEAD, socket.getState());
    });
}

TEST(UDPSocket, dataThatWaitsInTheStreamDoesNotDisturbTheReportOfAFailedBind) {
    EventRecorder const events;
    UDPSocket socket(true, 0, 16, LOCAL, PEER, IPSocket::IPV4);
    unsigned int written = 0;
    EXPECT_EQ(1, socket.write("abc", 3, written));
    Fault const fault(inject_bind, EADDRINUSE);
    socket.open();
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::ADDRESS_IN_USE,
          rowText(Socket::ErrorId::ADDRESS_IN_USE, systemText(EADDRINUSE))}}));
    EXPECT_EQ(Socket::DEAD, socket.getState());
    EXPECT_EQ("", events.getText());
}

TEST(UDPSocket, secondSocketSharesTheAddressOfAGroupButNotThatOfAPeer) {
    CallRecorder calls;
    OpenUDPSocket first({"127.0.0.1", 0}, GROUP);
    OpenUDPSocket other(LOCAL, PEER);
    {
        Fault const interface(inject_setsockopt, EDOM, 2);
        first.open();
        EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}}));
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ASSERT_EQ(0, getsockname(first.getSocketFd(), reinterpret_cast<sockaddr*>(&bound), &length));
    ASSERT_NE(0, bound.sin_port);
    OpenUDPSocket second(IPAddress{bound}, GROUP);
    {
        Fault const interface(inject_setsockopt, EDOM, 2);
        second.open();
        EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}})) << "it was bound to the same address";
    }
    OpenUDPSocket third(IPAddress{bound}, PEER);
    third.open();
    EXPECT_TRUE(chainIs({{Socket::ErrorId::ADDRESS_IN_USE}}));
}

// ---- states ----

enum class Mode { UNICAST, MULTICAST };

struct StateRow {
    char const* name;
    Socket::State state;
    Mode mode;

    friend std::ostream& operator<<(std::ostream& out, StateRow const& row) { return out << row.name; }
};

/// A socket in one of its states; its calls only seem to succeed.
class UDPStates : public testing::TestWithParam<StateRow> {
protected:
    void SetUp() override {
        m_socket = std::make_unique<OpenUDPSocket>(LOCAL, isGroup() ? GROUP : PEER);
        if (getState() == Socket::OPEN) {
            m_socket->open();
        } else if (getState() == Socket::DEAD) {
            EXPECT_FALSE(m_socket->close(false));
        }
        ASSERT_EQ(getState(), m_socket->getState());
        m_socket->m_had_error = true;
        m_calls.getText();
    }
    void TearDown() override { EXPECT_EQ("", m_events.getText()); }

    Socket::State getState() const { return GetParam().state; }
    bool isGroup() const { return GetParam().mode == Mode::MULTICAST; }

    EventRecorder m_events;
    CallRecorder m_calls{CallRecorder::PRETEND};
    std::unique_ptr<OpenUDPSocket> m_socket;
    unsigned int m_count = UNTOUCHED;
};

TEST_P(UDPStates, open) {
    m_socket->open();
    bool const may = getState() == Socket::INACTIVE;
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may, m_calls.getText() != "");
    EXPECT_EQ(may ? Socket::OPEN : getState(), m_socket->getState());
    EXPECT_TRUE(chainIs(
        may ? std::vector<ExpectedReport>{}
            : std::vector<ExpectedReport>{{std::CommonError, std::CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_P(UDPStates, performWrite) {
    bool const may = getState() == Socket::OPEN;
    EXPECT_EQ(!may, m_socket->performWrite("abc", 3, m_count));
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? 3U : UNTOUCHED, m_count);
    EXPECT_EQ(
        !may            ? std::string::npos
            : isGroup() ? m_calls.getText().find("sendto(")
                        : m_calls.getText().find("send("),
        may ? 0U : std::string::npos);
    EXPECT_EQ(getState(), m_socket->getState());
    if (may) {
        EXPECT_TRUE(chainIs({}));
    } else {
        EXPECT_EQ("", m_calls.getText());
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "called write on non-OPEN socket")},
             {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    }
}

TEST_P(UDPStates, performRead) {
    bool const may = getState() == Socket::OPEN;
    Fault const nothing_there(inject_recv, EAGAIN, 1, Fault::FOREVER);
    char block[4];
    EXPECT_EQ(!may, m_socket->performRead(block, sizeof block, m_count));
    EXPECT_EQ(may ? 1 : 0, nothing_there.getCalls());
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? 0 : UNTOUCHED, m_count);
    EXPECT_EQ(getState(), m_socket->getState());
    if (may) {
        EXPECT_TRUE(chainIs({}));
    } else {
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "called read on non-OPEN socket")},
             {StreamError, std::IBinStreamBase::StreamErrorId::UNUSABLE}}));
    }
}

TEST_P(UDPStates, performFlush) {
    EXPECT_FALSE(m_socket->performFlush());
    EXPECT_FALSE(m_socket->hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", m_calls.getText());
}

TEST_P(UDPStates, setBroadcast) {
    m_socket->setBroadcast(true);
    bool const may = getState() != Socket::DEAD;
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? "setsockopt(s, SO_BROADCAST, 01000000)\n" : "", m_calls.getText());
    EXPECT_TRUE(chainIs(
        may ? std::vector<ExpectedReport>{}
            : std::vector<ExpectedReport>{{Socket::Error, Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_EQ(getState(), m_socket->getState());
}

TEST_P(UDPStates, getBroadcast) {
    EXPECT_FALSE(m_socket->getBroadcast());
    bool const may = getState() != Socket::DEAD;
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? "getsockopt(s, SO_BROADCAST, 4)\n" : "", m_calls.getText());
    EXPECT_TRUE(chainIs(
        may ? std::vector<ExpectedReport>{}
            : std::vector<ExpectedReport>{{Socket::Error, Socket::ErrorId::INVALID_SOCKET}}));
    EXPECT_EQ(getState(), m_socket->getState());
}

TEST_P(UDPStates, maxTxSize) {
    bool const may = getState() != Socket::DEAD;
    EXPECT_EQ(may, m_socket->maxTxSize() != 0);
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? "getsockopt(s, SO_SNDBUF, 4)\n" : "", m_calls.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_EQ(getState(), m_socket->getState());
}

TEST_P(UDPStates, close) {
    bool const may = getState() != Socket::DEAD;
    EXPECT_EQ(!may, m_socket->close(false));
    EXPECT_EQ(!may, m_socket->hadError());
    EXPECT_EQ(may ? "close(s)\n" : "", m_calls.getText());
    EXPECT_EQ(Socket::DEAD, m_socket->getState());
    EXPECT_EQ(-1, m_socket->getSocketFd());
    EXPECT_FALSE(m_socket->isValid());
    if (may) {
        EXPECT_TRUE(chainIs({}));
    } else {
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "called close on already DEAD socket")}}));
    }
}

TEST_P(UDPStates, updateAddresses) {
    m_socket->updateLocalAddress();
    m_socket->updatePeerAddress();
    EXPECT_EQ(isGroup() ? "239.1.2.3" : "127.0.0.1", m_socket->getPeerAddress().host);
    // What only seems to be bound has no address.
    EXPECT_EQ(getState() == Socket::OPEN ? "0.0.0.0" : "127.0.0.1", m_socket->getLocalAddress().host);
    EXPECT_TRUE(m_socket->hadError()) << "they do not report, and leave the flag alone";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    all, UDPStates,
    testing::Values(
        StateRow{"inactiveUnicast", Socket::INACTIVE, Mode::UNICAST},
        StateRow{"openUnicast", Socket::OPEN, Mode::UNICAST},
        StateRow{"deadUnicast", Socket::DEAD, Mode::UNICAST},
        StateRow{"inactiveMulticast", Socket::INACTIVE, Mode::MULTICAST},
        StateRow{"openMulticast", Socket::OPEN, Mode::MULTICAST},
        StateRow{"deadMulticast", Socket::DEAD, Mode::MULTICAST}),
    [](testing::TestParamInfo<StateRow> const& row) { return row.param.name; });

// ---- broadcast ----

TEST(UDPBroadcast, isForbiddenUntilItIsAllowed) {
    OpenUDPSocket socket(LOCAL, PEER);
    EXPECT_FALSE(socket.getBroadcast());
    socket.setBroadcast(true);
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(socket.getBroadcast());
    EXPECT_EQ(1, getIntOption(socket.getSocketFd(), SO_BROADCAST));
    socket.open();
    EXPECT_TRUE(socket.getBroadcast());
    socket.setBroadcast(false);
    EXPECT_FALSE(socket.hadError());
    EXPECT_FALSE(socket.getBroadcast());
    EXPECT_EQ(0, getIntOption(socket.getSocketFd(), SO_BROADCAST));
    EXPECT_TRUE(chainIs({}));
}

TEST(UDPBroadcast, isSetWithAnInt) {
    OpenUDPSocket socket(LOCAL, PEER);
    CallRecorder calls;
    socket.setBroadcast(true);
    socket.setBroadcast(false);
    EXPECT_TRUE(!socket.getBroadcast());
    EXPECT_EQ(
        "setsockopt(s, SO_BROADCAST, 01000000)\nsetsockopt(s, SO_BROADCAST, 00000000)\n"
        "getsockopt(s, SO_BROADCAST, 4)\n",
        calls.getText());
}

TEST(UDPBroadcast, anyValueButZeroMeansAllowed) {
    OpenUDPSocket const socket(LOCAL, PEER);
    for (int const value : {1, 2, 256, -1}) {
        PretendedOption const option(value, sizeof(int));
        EXPECT_TRUE(socket.getBroadcast()) << value;
    }
    PretendedOption const option(0, sizeof(int));
    EXPECT_FALSE(socket.getBroadcast());
}

TEST(UDPBroadcast, valueOfAnotherLengthIsABrokenInvariant) {
    OpenUDPSocket const socket(LOCAL, PEER);
    for (socklen_t const length : {0U, 1U, 3U, 8U}) {
        EventRecorder const events;
        PretendedOption const option(1, length);
        EXPECT_TRUE(socket.getBroadcast());
        EXPECT_EQ(
            "ASSERT framework/src/vesk/posix/UDPSocket getBroadcast: ret_size == sizeof(int)",
            events.getText());
        EXPECT_FALSE(socket.hadError());
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(UDPBroadcast, doesNotExistInIPv6) {
    VESK_SKIP_WITHOUT_IPV6();
    OpenUDPSocket socket(LOCAL6, PEER6, IPSocket::IPV6);
    for (bool const flag : {false, true}) {
        CallRecorder calls;
        socket.m_had_error = flag;
        socket.setBroadcast(true);
        EXPECT_EQ(flag, socket.hadError()) << "the flag is left alone";
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_EQ(flag, socket.hadError());
        EXPECT_EQ("", calls.getText());
    }
    EXPECT_EQ(0, getIntOption(socket.getSocketFd(), SO_BROADCAST));
    EXPECT_FALSE(socket.close(false));
    socket.setBroadcast(true);
    EXPECT_FALSE(socket.getBroadcast());
    EXPECT_FALSE(socket.hadError()) << "not even that it is closed is looked at";
    EXPECT_TRUE(chainIs({}));
}

// ---- the largest datagram ----

struct SizeRow {
    int option; ///< What the system tells, twice what was granted.
    unsigned int size;

    friend std::ostream& operator<<(std::ostream& out, SizeRow const& row) { return out << row.option; }
};

class UDPMaxTxSize : public testing::TestWithParam<SizeRow> {};

TEST_P(UDPMaxTxSize, isWhatTheBufferHoldsUpToWhatADatagramHolds) {
    OpenUDPSocket socket(LOCAL, PEER);
    socket.m_had_error = true;
    PretendedOption const option(GetParam().option, sizeof(int));
    EXPECT_EQ(GetParam().size, socket.maxTxSize());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    sizes, UDPMaxTxSize,
    testing::Values(
        SizeRow{0, 0}, SizeRow{1, 0}, SizeRow{4608, 2304}, SizeRow{131012, 65506}, SizeRow{131013, 65506},
        SizeRow{131014, 65507}, SizeRow{131015, 65507}, SizeRow{131016, 65507}, SizeRow{212992, 65507},
        SizeRow{2147483647, 65507}));

TEST(UDPSocket, largestDatagramFollowsTheSendBuffer) {
    OpenUDPSocket socket(LOCAL, PEER);
    ASSERT_FALSE(socket.setSendBuffer(8192));
    EXPECT_EQ(8192U, socket.maxTxSize());
    ASSERT_FALSE(socket.setSendBuffer(80000));
    EXPECT_EQ(65507U, socket.maxTxSize());
    IPSocket const& base = socket;
    EXPECT_EQ(65507U, base.maxTxSize());
}

TEST(UDPSocket, closedOneTakesNoDatagram) {
    EventRecorder const events;
    OpenUDPSocket socket(LOCAL, PEER);
    socket.open();
    EXPECT_FALSE(socket.close(false));
    EXPECT_EQ(0U, socket.maxTxSize());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", events.getText());
}

// ---- real datagrams on the loopback interface ----

/// The version of the addresses.
class UDPLoopback : public testing::TestWithParam<IPSocket::IPProtocolVersion> {
protected:
    void SetUp() override {
        if (!m_peer.isThere()) {
            GTEST_SKIP() << "this machine has no IPv6";
        }
    }

    /// An open socket with the peer as its one.
    std::unique_ptr<UDPSocket>
    connect(unsigned int read_buffer = 0, unsigned int write_buffer = 0, bool blocking = true) {
        auto socket = std::make_unique<UDPSocket>(
            blocking, read_buffer, write_buffer, getLocal(), m_peer.getAddress(), GetParam());
        EXPECT_TRUE(socket->isValid());
        socket->open();
        EXPECT_FALSE(socket->hadError());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(Socket::OPEN, socket->getState());
        socket->updateLocalAddress();
        EXPECT_NE(0, socket->getLocalAddress().port);
        return socket;
    }
    IPAddress const& getLocal() const { return GetParam() == IPSocket::IPV6 ? LOCAL6 : LOCAL; }

    Peer m_peer{GetParam()};
};

TEST_P(UDPLoopback, datagramsGoBothWays) {
    auto const socket = connect();
    EXPECT_TRUE(support::isWritten(*socket, "ping"));
    EXPECT_EQ("ping", m_peer.receive());
    EXPECT_TRUE(m_peer.answer("pong"));
    EXPECT_TRUE(m_peer.answer("pang"));
    EXPECT_EQ("pong", support::receive(*socket));
    EXPECT_EQ("pang", support::receive(*socket));
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(socket->close(true));
}

TEST_P(UDPLoopback, updatedAddressesAreThoseOfTheSystem) {
    auto const socket = connect();
    socket->updatePeerAddress();
    EXPECT_EQ(m_peer.getAddress().host, socket->getPeerAddress().host);
    EXPECT_EQ(m_peer.getAddress().port, socket->getPeerAddress().port);
    EXPECT_EQ(getLocal().host, socket->getLocalAddress().host);
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, datagramsOfOthersAreNotReceived) {
    auto const socket = connect();
    Peer stranger(GetParam());
    EXPECT_TRUE(stranger.sendTo(socket->getLocalAddress(), "stranger"));
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "peer"));
    EXPECT_EQ("peer", support::receive(*socket));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, eachWriteIsADatagramButOneOfNothingIsNone) {
    auto const socket = connect();
    EXPECT_TRUE(support::isWritten(*socket, "one"));
    EXPECT_TRUE(support::isWritten(*socket, ""));
    EXPECT_TRUE(support::isWritten(*socket, "two"));
    EXPECT_EQ("one", m_peer.receive());
    EXPECT_EQ("two", m_peer.receive());
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, readOfNothingTakesNoDatagram) {
    auto const socket = connect();
    unsigned int count = UNTOUCHED;
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "one"));
    EXPECT_EQ(1, socket->read(nullptr, 0, count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ("one", support::receive(*socket));
    EXPECT_EQ(1, socket->read(nullptr, 0, count)) << "with nothing there it does not wait";
    EXPECT_EQ(0U, count);
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, emptyDatagramReadsAsAnEndAndTheNextOneIsReadAllTheSame) {
    auto const socket = connect();
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), ""));
    EXPECT_TRUE(m_peer.answer("more"));
    char block[8];
    unsigned int count = UNTOUCHED;
    EXPECT_EQ(0, socket->read(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(chainIs(
        {{Socket::ErrorId::CONNECTION_CLOSED,
          rowText(Socket::ErrorId::CONNECTION_CLOSED, "Connection closed normally")},
         {std::IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
    EXPECT_EQ(Socket::OPEN, socket->getState());
    EXPECT_EQ("more", support::receive(*socket));
    EXPECT_FALSE(socket->hadError());
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, writeBufferGathersOneDatagramUntilItIsFlushed) {
    auto const socket = connect(0, 16);
    EXPECT_TRUE(support::isWritten(*socket, "ab"));
    EXPECT_TRUE(support::isWritten(*socket, ""));
    EXPECT_TRUE(support::isWritten(*socket, "cde"));
    EXPECT_FALSE(socket->flush(false));
    EXPECT_FALSE(socket->flush(false)) << "nothing is left";
    EXPECT_TRUE(support::isWritten(*socket, "f"));
    EXPECT_FALSE(socket->flush(true));
    EXPECT_EQ("abcde", m_peer.receive());
    EXPECT_EQ("f", m_peer.receive());
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, fullWriteBufferIsADatagramAndABlockAsLargeGoesAlone) {
    auto const socket = connect(0, 8);
    EXPECT_TRUE(support::isWritten(*socket, "12345"));
    EXPECT_TRUE(support::isWritten(*socket, "6789"));
    EXPECT_TRUE(support::isWritten(*socket, "block as large as it"));
    EXPECT_EQ("12345", m_peer.receive());
    EXPECT_EQ("6789", m_peer.receive());
    EXPECT_EQ("block as large as it", m_peer.receive());
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, closeSendsWhatTheBufferHolds) {
    auto const socket = connect(0, 16);
    EXPECT_TRUE(support::isWritten(*socket, "last"));
    EXPECT_FALSE(socket->close(false));
    EXPECT_EQ("last", m_peer.receive());
}

TEST_P(UDPLoopback, readBufferHoldsADatagramForSmallReads) {
    auto const socket = connect(64);
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "abcdefgh"));
    EXPECT_TRUE(m_peer.answer("next"));
    EXPECT_EQ("abc", support::receive(*socket, 3));
    char block[8] = "";
    unsigned int count = 0;
    EXPECT_EQ(1, socket->read(block, 5, count));
    EXPECT_EQ("defgh", std::string(block, count));
    EXPECT_EQ(1, socket->read(block, 5, count));
    EXPECT_EQ("next", std::string(block, count));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, whatDoesNotFitIntoAReadIsLost) {
    auto const socket = connect();
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "abcdefgh"));
    EXPECT_TRUE(m_peer.answer("next"));
    EXPECT_EQ("abc", support::receive(*socket, 3));
    EXPECT_EQ("nex", support::receive(*socket, 3));
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, whatDoesNotFitIntoTheReadBufferIsLost) {
    auto const socket = connect(4);
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "abcdefgh"));
    EXPECT_TRUE(m_peer.answer("next"));
    EXPECT_EQ("abc", support::receive(*socket, 3));
    EXPECT_EQ("d", support::receive(*socket, 3)) << "of the buffer";
    EXPECT_EQ("next", support::receive(*socket, 4));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, nonBlockingReadWithNothingThereSucceeds) {
    auto const socket = connect(0, 0, false);
    char block[8];
    unsigned int count = UNTOUCHED;
    EXPECT_EQ(1, socket->read(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_FALSE(socket->hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "now"));
    EXPECT_EQ("now", support::receive(*socket));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, selectTellsOfADatagram) {
    auto const socket = connect();
    auto const silent = connect();
    EXPECT_TRUE(m_peer.sendTo(socket->getLocalAddress(), "x"));
    std::set<Socket const*> read{socket.get(), silent.get()};
    std::set<Socket const*> write;
    std::set<Socket const*> except;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, 30000, true));
    EXPECT_EQ(std::set<Socket const*>{socket.get()}, read);
    EXPECT_FALSE(socket->close(false));
    EXPECT_FALSE(silent->close(false));
}

TEST_P(UDPLoopback, largestDatagramPassesAndOneByteMoreIsTooBig) {
    auto const socket = connect();
    // What IPv6 counts leaves out its own header.
    unsigned int const largest = GetParam() == IPSocket::IPV6 ? 65527 : UDPSocket::MAX_TEL_SIZE;
    std::string const datagram(largest, 'd');
    EXPECT_TRUE(support::isWritten(*socket, datagram));
    auto const received = m_peer.receive();
    EXPECT_TRUE(received == datagram) << received->size();
    EXPECT_TRUE(m_peer.answer(datagram));
    EXPECT_TRUE(support::receive(*socket) == datagram);

    std::string const larger(largest + 1, 'd');
    unsigned int written = UNTOUCHED;
    EXPECT_EQ(-1, socket->write(larger.data(), largest + 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(chainIs(streamFailure(Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, EMSGSIZE, 1)));
    EXPECT_EQ(Socket::OPEN, socket->getState());
    EXPECT_TRUE(support::isWritten(*socket, "small"));
    EXPECT_EQ("small", m_peer.receive());
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, refusedDatagramFailsTheNextRead) {
    auto const socket = connect();
    m_peer.stop();
    EXPECT_TRUE(support::isWritten(*socket, "lost"));
    EXPECT_TRUE(support::isReadable(socket->getSocketFd()));
    char block[8];
    unsigned int count = UNTOUCHED;
    EXPECT_EQ(-1, socket->read(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(chainIs(streamFailure(Socket::Error, Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED, 0)));
    EXPECT_EQ(Socket::OPEN, socket->getState());
    EXPECT_TRUE(support::isWritten(*socket, "told only once"));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, refusedDatagramFailsTheNextWrite) {
    auto const socket = connect();
    m_peer.stop();
    EXPECT_TRUE(support::isWritten(*socket, "lost"));
    EXPECT_TRUE(support::isReadable(socket->getSocketFd())) << "the refusal is there";
    unsigned int written = UNTOUCHED;
    EXPECT_EQ(-1, socket->write("again", 5, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(socket->hadError());
    EXPECT_TRUE(chainIs(streamFailure(SysError, SysErrorId::UNCLASSIFIED, ECONNREFUSED, 4)));
    EXPECT_EQ(Socket::OPEN, socket->getState());
    EXPECT_TRUE(support::isWritten(*socket, "told only once"));
    EXPECT_FALSE(socket->close(false));
}

TEST_P(UDPLoopback, closeWithAShutdownWorks) {
    auto const socket = connect();
    EXPECT_FALSE(socket->close(true));
    EXPECT_EQ(Socket::DEAD, socket->getState());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    versions, UDPLoopback, testing::Values(IPSocket::IPV4, IPSocket::IPV6),
    [](testing::TestParamInfo<IPSocket::IPProtocolVersion> const& row) {
        return std::string(row.param == IPSocket::IPV6 ? "IPv6" : "IPv4");
    });

TEST(UDPSocket, twoOfThemTalkToEachOther) {
    // An address that no other process has: all of 127.0.0.0/8 are addresses of this machine.
    unsigned int const pid = static_cast<unsigned int>(getpid());
    std::string const host = "127." + std::to_string(128 + pid / 16384 % 127) + "." +
        std::to_string(pid / 128 % 128) + "." + std::to_string(pid % 128 + 1);
    OpenUDPSocket left({host, 5000}, {host, 5001});
    OpenUDPSocket right({host, 5001}, {host, 5000});
    left.open();
    right.open();
    ASSERT_FALSE(left.hadError() || right.hadError());
    EXPECT_TRUE(support::isWritten(left, "to the right"));
    EXPECT_EQ("to the right", support::receive(right));
    EXPECT_TRUE(support::isWritten(right, "to the left"));
    EXPECT_EQ("to the left", support::receive(left));
}

} // namespace
