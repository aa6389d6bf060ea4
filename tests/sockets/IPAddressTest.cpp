#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NetworkNamespace.h"
#include "support/calls/ResolverCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/IPSocket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstddef>
#include <cstring>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {
// The room that the last call of inet_ntop was given.
socklen_t s_text_room = 0;
} // namespace

support::Injected inject_inet_ntop("inet_ntop");
extern "C" char const* inet_ntop(int family, void const* address, char* text, socklen_t room) noexcept {
    s_text_room = room;
    int error = 0;
    if (inject_inet_ntop.fails(error)) {
        errno = error;
        return nullptr;
    }
    return reinterpret_cast<decltype(&inet_ntop)>(inject_inet_ntop.getReal())(family, address, text, room);
}

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::expectInNetwork;
using support::Fault;
using support::ip;
using support::ListEntry;
using support::LookupCall;
using support::NamingCall;
using support::ResolverCalls;
using support::rowText;
using vesk::IPSocket;
using vesk::SysError;
using IPAddress = vesk::IPSocket::IPAddress;

static_assert(std::is_copy_constructible_v<IPAddress> && std::is_copy_assignable_v<IPAddress>);
static_assert(std::is_move_constructible_v<IPAddress> && std::is_destructible_v<IPAddress>);
static_assert(!std::is_polymorphic_v<IPAddress>);
static_assert(std::is_same_v<decltype(IPAddress::host), std::string>);
static_assert(std::is_same_v<decltype(IPAddress::port), unsigned short>);
static_assert(IPSocket::IPV4 == 0 && IPSocket::IPV6 == 1);

ExpectedReport unresolved(char const* text) {
    return {
        std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
        rowText(std::CommonErrorId::INVALID_ARGUMENT, text)};
}

ExpectedReport resolverFailed(int code) {
    return {
        vesk::Socket::Error, vesk::Socket::ErrorId::RESOLVE_FAILED,
        rowText(vesk::Socket::ErrorId::RESOLVE_FAILED, gai_strerror(code))};
}

/// The bytes of an object, in the order in which they lie in memory.
template <typename T>
std::vector<int> bytesOf(T const& object) {
    std::vector<int> bytes;
    for (size_t i = 0; i < sizeof object; ++i) {
        bytes.push_back(reinterpret_cast<unsigned char const*>(&object)[i]);
    }
    return bytes;
}

/// Full of what nobody set.
template <typename T>
T makePoisoned() {
    T object;
    memset(&object, 0xEB, sizeof object);
    return object;
}

std::string textOf(in6_addr const& address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &address, text, sizeof text);
    return text;
}

in6_addr addressOf(char const* text) {
    in6_addr address{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text, &address)) << text;
    return address;
}

// ---- values ----

TEST(IPAddress, withoutArgumentsIsEmptyWithPort0) {
    IPAddress const address;
    EXPECT_EQ("", address.host);
    EXPECT_EQ(0, address.port);
}

TEST(IPAddress, keepsHostAndPortAsTheyAreGiven) {
    IPAddress const address(" No host\xff ", 65535);
    EXPECT_EQ(" No host\xff ", address.host);
    EXPECT_EQ(65535, address.port);
}

TEST(IPAddress, isCopied) {
    IPAddress const address("127.0.0.1", 80);
    IPAddress copy(address);
    copy.host += "0";
    copy.port = 81;
    EXPECT_EQ("127.0.0.1", address.host);
    EXPECT_EQ(80, address.port);
    copy = address;
    EXPECT_EQ("127.0.0.1", copy.host);
    EXPECT_EQ(80, copy.port);
}

TEST(IPAddress, constantsAreTexts) {
    EXPECT_STREQ("0.0.0.0", IPSocket::ANY_IP);
    EXPECT_STREQ("::", IPSocket::ANY_IP6);
    EXPECT_STREQ("127.0.0.1", IPSocket::LOOPBACK_IP);
    EXPECT_STREQ("::1", IPSocket::LOOPBACK_IP6);
}

TEST(IPAddress, anyAddressesHavePort0) {
    EXPECT_EQ("0.0.0.0", IPAddress::ANY_ADDRESS.host);
    EXPECT_EQ(0, IPAddress::ANY_ADDRESS.port);
    EXPECT_EQ("::", IPAddress::ANY_ADDRESS6.host);
    EXPECT_EQ(0, IPAddress::ANY_ADDRESS6.port);
}

std::string const s_any_text_before_main = IPAddress::ANY_ADDRESS.host + " " + IPAddress::ANY_ADDRESS6.host;

TEST(IPAddress, anyAddressesAreThereForGlobalObjectsOfAProgram) {
    EXPECT_EQ("0.0.0.0 ::", s_any_text_before_main);
}

// ---- from a binary address of IPv4 ----

struct Text4 {
    unsigned int ip;
    unsigned int port;
    char const* text;
};

class IPAddressTexts4 : public testing::TestWithParam<Text4> {};

TEST_P(IPAddressTexts4, binaryAddressHasTheTextAndThePort) {
    ResolverCalls const calls;
    IPAddress const address(IPAddress::makeHandle(GetParam().ip, GetParam().port));
    EXPECT_EQ(GetParam().text, address.host);
    EXPECT_EQ(GetParam().port, address.port);
    EXPECT_TRUE(calls.getLookups().empty() && calls.getNamings().empty());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IPAddressTexts4, textHasTheBinaryAddressAndThePort) {
    ResolverCalls const calls;
    IPAddress address(GetParam().text, static_cast<unsigned short>(GetParam().port));
    auto binary = makePoisoned<sockaddr_in>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(GetParam().ip, GetParam().port)), bytesOf(binary));
    EXPECT_EQ(GetParam().text, address.host);
    EXPECT_EQ(GetParam().port, address.port);
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPAddressTexts4,
    testing::Values(
        Text4{0, 0, "0.0.0.0"}, Text4{0x7F000001, 80, "127.0.0.1"}, Text4{0x01020304, 0x0102, "1.2.3.4"},
        Text4{0xFFFFFFFF, 65535, "255.255.255.255"}, Text4{0xE00000FB, 5353, "224.0.0.251"},
        Text4{0xC0A8007B, 1, "192.168.0.123"}));

TEST(IPAddress, textOfABinaryAddressHasRoomFor16Bytes) {
    EXPECT_EQ("255.255.255.255", IPAddress(IPAddress::makeHandle(0xFFFFFFFF, 1)).host);
    EXPECT_EQ(16U, s_text_room);
}

TEST(IPAddress, binaryAddressOfAnotherFamilyGivesAnEmptyOne) {
    for (int const family : {AF_UNSPEC, AF_UNIX, AF_INET6, 4711}) {
        sockaddr_in binary = IPAddress::makeHandle(0x7F000001, 80);
        binary.sin_family = static_cast<sa_family_t>(family);
        IPAddress const address(binary);
        EXPECT_EQ("", address.host) << family;
        EXPECT_EQ(0, address.port) << family;
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(IPAddress, binaryAddressWithoutATextGivesAnEmptyOne) {
    for (int const error : {ENOSPC, EAFNOSUPPORT}) {
        Fault const fault(inject_inet_ntop, error);
        IPAddress const address(IPAddress::makeHandle(0x7F000001, 80));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ("", address.host);
        EXPECT_EQ(0, address.port);
        EXPECT_TRUE(chainIs({}));
    }
}

// ---- from a binary address of IPv6 ----

struct Text6 {
    char const* text;
    unsigned int port;
};

class IPAddressTexts6 : public testing::TestWithParam<Text6> {};

TEST_P(IPAddressTexts6, binaryAddressHasTheTextAndThePort) {
    ResolverCalls const calls;
    IPAddress const address(IPAddress::makeHandle(addressOf(GetParam().text), GetParam().port, 0));
    EXPECT_EQ(GetParam().text, address.host);
    EXPECT_EQ(GetParam().port, address.port);
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IPAddressTexts6, textHasTheBinaryAddressAndThePort) {
    ResolverCalls const calls;
    IPAddress address(GetParam().text, static_cast<unsigned short>(GetParam().port));
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(
        bytesOf(IPAddress::makeHandle(addressOf(GetParam().text), GetParam().port, 0)), bytesOf(binary));
    EXPECT_EQ(GetParam().text, address.host);
    EXPECT_EQ(GetParam().port, address.port);
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPAddressTexts6,
    testing::Values(
        Text6{"::", 0}, Text6{"::1", 80}, Text6{"102:304:506:708:90a:b0c:d0e:f10", 0x0102},
        Text6{"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 65535}, Text6{"::ffff:192.168.0.123", 5353},
        Text6{"fd00::1:0:0:1", 1}));

TEST(IPAddress, textOfABinaryAddressOfIPv6IsAskedForInNumbers) {
    ResolverCalls const calls;
    EXPECT_EQ("fd00::1", IPAddress(IPAddress::makeHandle(addressOf("fd00::1"), 80, 0)).host);
    ASSERT_EQ(1U, calls.getNamings().size());
    NamingCall const& call = calls.getNamings()[0];
    EXPECT_EQ("fd00::1", call.address);
    EXPECT_EQ(28U, call.length);
    EXPECT_EQ(46U, call.room);
    EXPECT_FALSE(call.has_service);
    EXPECT_EQ(NI_NUMERICHOST, call.flags);
}

TEST(IPAddress, binaryAddressOfIPv6WithoutATextGivesAnEmptyOne) {
    for (int const code :
         {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_FAMILY, EAI_MEMORY, EAI_OVERFLOW, EAI_SYSTEM}) {
        ResolverCalls calls;
        calls.failName(code, EIO);
        IPAddress const address(IPAddress::makeHandle(in6addr_loopback, 80, 0));
        EXPECT_EQ("", address.host) << code;
        EXPECT_EQ(0, address.port) << code;
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IPAddress, binaryAddressOfAFamilyThatTheResolverDoesNotHaveGivesAnEmptyOne) {
    for (int const family : {AF_UNSPEC, 4711}) {
        sockaddr_in6 binary = IPAddress::makeHandle(in6addr_loopback, 80, 0);
        binary.sin6_family = static_cast<sa_family_t>(family);
        IPAddress const address(binary);
        EXPECT_EQ("", address.host) << family;
        EXPECT_EQ(0, address.port) << family;
    }
    EXPECT_TRUE(chainIs({}));
}

// ---- the scope of an address of IPv6 ----

TEST(IPAddress, scopeOfALinkLocalAddressIsInTheText) {
    unsigned int const lo = if_nametoindex("lo");
    ASSERT_NE(0U, lo);
    in6_addr const ip_address = addressOf("fe80::1");
    EXPECT_EQ("fe80::1%lo", IPAddress(IPAddress::makeHandle(ip_address, 80, lo)).host);
    EXPECT_EQ("fe80::1", IPAddress(IPAddress::makeHandle(ip_address, 80, 0)).host);
    EXPECT_EQ("fe80::1%47110815", IPAddress(IPAddress::makeHandle(ip_address, 80, 47110815)).host);
}

TEST(IPAddress, scopeOfALinkLocalTextIsKept) {
    unsigned int const lo = if_nametoindex("lo");
    IPAddress address("fe80::1%lo", 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(addressOf("fe80::1"), 80, lo)), bytesOf(binary));
    EXPECT_EQ(lo, binary.sin6_scope_id);
    EXPECT_EQ("fe80::1%lo", address.host);
    EXPECT_TRUE(chainIs({}));
}

TEST(IPAddress, scopeByNumberBecomesTheNameOfTheInterface) {
    unsigned int const lo = if_nametoindex("lo");
    IPAddress address("fe80::1%" + std::to_string(lo), 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(lo, binary.sin6_scope_id);
    EXPECT_EQ("fe80::1%lo", address.host);
}

TEST(IPAddress, scopeOfAnInterfaceThatIsNotThereLeadsToNothing) {
    ResolverCalls const calls;
    IPAddress address("fe80::1%nonesuch", 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")}));
    EXPECT_EQ("fe80::1%nonesuch", address.host);
}

TEST(IPAddress, textWithAScopeThatIsLongerThanAnyAddressGivesAnEmptyOne) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(support::makePair("an-interface-15", "other"));
        unsigned int const scope = if_nametoindex("an-interface-15");
        ASSERT_NE(0U, scope);
        // 46 bytes with the end, and one more.
        IPAddress const fits(IPAddress::makeHandle(addressOf("fe80::2222:3333:4444:5555:66"), 80, scope));
        EXPECT_EQ("fe80::2222:3333:4444:5555:66%an-interface-15", fits.host);
        IPAddress const exact(IPAddress::makeHandle(addressOf("fe80::2222:3333:4444:5555:666"), 80, scope));
        EXPECT_EQ("fe80::2222:3333:4444:5555:666%an-interface-15", exact.host);
        IPAddress const too_long(
            IPAddress::makeHandle(addressOf("fe80::2222:3333:4444:5555:6666"), 80, scope));
        EXPECT_EQ("", too_long.host);
        EXPECT_EQ(0, too_long.port);
        EXPECT_TRUE(chainIs({}));
    });
}

// ---- from text: an empty host ----

TEST(IPAddress, emptyHostIsTheAnyAddressWithoutTheResolver) {
    ResolverCalls const calls;
    IPAddress address("", 0x0102);
    auto binary = makePoisoned<sockaddr_in>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(0, 0x0102)), bytesOf(binary));
    auto binary6 = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary6));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(in6addr_any, 0x0102, 0)), bytesOf(binary6));
    EXPECT_EQ("", address.host);
    EXPECT_TRUE(calls.getLookups().empty() && calls.getNamings().empty());
    EXPECT_TRUE(chainIs({}));
}

// ---- from text: IPv4 ----

TEST(IPAddress, textOfIPv4GoesThroughTheResolverOnce) {
    ResolverCalls const calls;
    IPAddress address("127.0.0.1", 80);
    sockaddr_in binary;
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(1U, calls.getLookups().size());
    EXPECT_EQ(1U, calls.getNamings().size());
    EXPECT_EQ(1, calls.countFreed());
}

TEST(IPAddress, oddSpellingsOfIPv4BecomeTheUsualOne) {
    struct Row {
        char const* host;
        char const* numeric;
    };
    for (Row const row :
         {Row{"127.1", "127.0.0.1"}, Row{"0x7f.0.0.1", "127.0.0.1"}, Row{"2130706433", "127.0.0.1"},
          Row{"010.0.0.1", "8.0.0.1"}, Row{"0", "0.0.0.0"}}) {
        ResolverCalls const calls;
        IPAddress address(row.host, 80);
        sockaddr_in binary;
        EXPECT_FALSE(address.getBinary(binary)) << row.host;
        EXPECT_EQ(row.numeric, address.host);
        EXPECT_EQ(row.numeric, IPAddress(binary).host);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IPAddress, firstOfSeveralAddressesWinsAndReplacesTheHost) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}, {"10.0.0.1"}, {"10.0.0.5"}});
    IPAddress address("many.example", 80);
    auto binary = makePoisoned<sockaddr_in>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(0x0A000009, 80)), bytesOf(binary));
    EXPECT_EQ("10.0.0.9", address.host);
    EXPECT_EQ(80, address.port);
    EXPECT_EQ(1U, calls.getLookups().size());
    EXPECT_EQ("many.example", calls.getLookups()[0].name);
    EXPECT_EQ(1, calls.countFreed());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPAddress, hostThatWasReplacedIsNotLookedUpByItsNameAgain) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    IPAddress address("one.example", 80);
    sockaddr_in binary;
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_FALSE(address.getBinary(binary));
    ASSERT_EQ(2U, calls.getLookups().size());
    EXPECT_EQ("10.0.0.9", calls.getLookups()[1].name);
    EXPECT_EQ(0x0A000009U, ntohl(binary.sin_addr.s_addr));
}

TEST(IPAddress, nameWithoutAnAddressFailsAndStays) {
    for (int const code : {EAI_NONAME, EAI_NODATA, EAI_ADDRFAMILY}) {
        ResolverCalls calls;
        calls.failList(code);
        IPAddress address("none.example", 80);
        auto binary = makePoisoned<sockaddr_in>();
        EXPECT_TRUE(address.getBinary(binary));
        EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")})) << code;
        EXPECT_EQ("none.example", address.host);
        EXPECT_EQ(1U, calls.getLookups().size());
    }
}

TEST(IPAddress, failureOfTheResolverIsAllThatIsReported) {
    ResolverCalls calls;
    calls.failList(EAI_AGAIN);
    IPAddress address("none.example", 80);
    sockaddr_in binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({resolverFailed(EAI_AGAIN)}));
    EXPECT_EQ("none.example", address.host);
    EXPECT_EQ(1U, calls.getLookups().size());
}

TEST(IPAddress, resultThatIsNotNumericIsResolvedOnceMore) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    calls.answerName("not numeric");
    calls.answerList({{"10.0.0.1"}, {"10.0.0.2"}});
    IPAddress address("odd.example", 80);
    auto binary = makePoisoned<sockaddr_in>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(0x0A000001, 80)), bytesOf(binary));
    EXPECT_EQ("not numeric", address.host);
    ASSERT_EQ(2U, calls.getLookups().size());
    EXPECT_EQ("not numeric", calls.getLookups()[1].name);
    EXPECT_EQ(2, calls.countFreed());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPAddress, secondResolveWithoutAnAddressFailsWithATextOfItsOwn) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    calls.answerName("not numeric");
    calls.failList(EAI_NONAME);
    IPAddress address("odd.example", 80);
    sockaddr_in binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({unresolved("Given hostname doesn't resolve into any IP addresses")}));
    EXPECT_EQ(1, calls.countFreed());
}

TEST(IPAddress, secondResolveThatFailsIsAllThatIsReported) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    calls.answerName("not numeric");
    calls.failList(EAI_FAIL);
    IPAddress address("odd.example", 80);
    sockaddr_in binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({resolverFailed(EAI_FAIL)}));
}

TEST(IPAddress, secondResultThatIsNotNumericEitherIsABrokenInvariant) {
    EventRecorder const events;
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    calls.answerName("not numeric");
    calls.answerList({{"10.0.0.1"}});
    calls.answerName("still not numeric");
    IPAddress address("odd.example", 80);
    sockaddr_in binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/SocketPosixCommon convertAddrToBinary: conv_res == 1",
        events.getText());
    EXPECT_TRUE(chainIs({}));
}

// ---- from text: IPv6 ----

TEST(IPAddress, textOfIPv6GoesThroughTheResolverAndThenIsLookedUpForItsScope) {
    ResolverCalls const calls;
    IPAddress address("::1", 80);
    sockaddr_in6 binary;
    EXPECT_FALSE(address.getBinary(binary));
    ASSERT_EQ(2U, calls.getLookups().size());
    EXPECT_EQ(1U, calls.getNamings().size());
    EXPECT_EQ(2, calls.countFreed());
    LookupCall const& call = calls.getLookups()[1];
    EXPECT_EQ("::1", call.name);
    EXPECT_FALSE(call.has_service);
    EXPECT_TRUE(call.has_only_hints);
    EXPECT_EQ(0, call.flags);
    EXPECT_EQ(AF_INET6, call.family);
    EXPECT_EQ(SOCK_DGRAM, call.type);
    EXPECT_EQ(0, call.protocol);
}

TEST(IPAddress, firstOfSeveralAddressesOfIPv6WinsAndReplacesTheHost) {
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}, {"fd00::1"}});
    IPAddress address("many.example", 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(addressOf("fd00::9"), 80, 0)), bytesOf(binary));
    EXPECT_EQ("fd00::9", address.host);
    EXPECT_EQ("fd00::9", calls.getLookups()[1].name);
    EXPECT_TRUE(chainIs({}));
}

TEST(IPAddress, firstEntryOfIPv6InTheListGivesAddressAndScope) {
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}});
    calls.answerList({{"10.0.0.9"}, ListEntry::local(), {"fe80::5", 0x01020304}, {"fe80::6", 7}});
    IPAddress address("one.example", 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(addressOf("fe80::5"), 80, 0x01020304)), bytesOf(binary));
    EXPECT_EQ("fd00::9", address.host);
    EXPECT_EQ(2, calls.countFreed());
}

TEST(IPAddress, listWithoutAnEntryOfIPv6FailsWithoutAReport) {
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}});
    calls.answerList({{"10.0.0.9"}, ListEntry::local()});
    IPAddress address("one.example", 80);
    auto binary = makePoisoned<sockaddr_in6>();
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(2U, calls.getLookups().size());
    EXPECT_EQ(2, calls.countFreed());
}

TEST(IPAddress, nameWithoutAnAddressOfIPv6FailsAndStays) {
    for (int const code : {EAI_NONAME, EAI_NODATA, EAI_ADDRFAMILY}) {
        ResolverCalls calls;
        calls.failList(code);
        IPAddress address("none.example", 80);
        sockaddr_in6 binary;
        EXPECT_TRUE(address.getBinary(binary));
        EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")})) << code;
        EXPECT_EQ("none.example", address.host);
        EXPECT_EQ(1U, calls.getLookups().size());
    }
}

TEST(IPAddress, failureOfTheResolverForIPv6IsAllThatIsReported) {
    ResolverCalls calls;
    calls.failList(EAI_AGAIN);
    IPAddress address("none.example", 80);
    sockaddr_in6 binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({resolverFailed(EAI_AGAIN)}));
    EXPECT_EQ(1U, calls.getLookups().size());
}

TEST(IPAddress, lookUpThatFailsIsFollowedByTheResolver) {
    for (int const code : {EAI_NONAME, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM}) {
        ResolverCalls calls;
        calls.answerList({{"fd00::9"}});
        calls.failList(code, EIO);
        calls.answerList({{"fd00::1"}, {"fd00::2"}});
        IPAddress address("one.example", 80);
        auto binary = makePoisoned<sockaddr_in6>();
        EXPECT_FALSE(address.getBinary(binary)) << code;
        EXPECT_EQ(bytesOf(IPAddress::makeHandle(addressOf("fd00::1"), 80, 0)), bytesOf(binary));
        EXPECT_EQ("fd00::9", address.host);
        EXPECT_EQ(3U, calls.getLookups().size());
        EXPECT_EQ("fd00::9", calls.getLookups()[2].name);
        EXPECT_EQ(0x40, calls.getLookups()[2].flags);
        EXPECT_EQ(2, calls.countFreed());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IPAddress, lookUpThatFailsAndAResolverWithoutAnAddressFailWithATextOfTheirOwn) {
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}});
    calls.failList(EAI_AGAIN);
    calls.failList(EAI_NODATA);
    IPAddress address("one.example", 80);
    sockaddr_in6 binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({unresolved("Given hostname doesn't resolve into any IP addresses")}));
}

TEST(IPAddress, lookUpAndResolverThatBothFailReportTheResolvers) {
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}});
    calls.failList(EAI_AGAIN);
    calls.failList(EAI_FAIL);
    IPAddress address("one.example", 80);
    sockaddr_in6 binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({resolverFailed(EAI_FAIL)}));
}

TEST(IPAddress, lookUpThatFailsAndAResultThatIsNotNumericFailWithoutAReport) {
    EventRecorder const events;
    ResolverCalls calls;
    calls.answerList({{"fd00::9"}});
    calls.failList(EAI_AGAIN);
    calls.answerList({{"fe80::1", 1}});
    calls.answerName("fd00::9");
    calls.answerName("fe80::1%lo");
    IPAddress address("one.example", 80);
    sockaddr_in6 binary;
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", events.getText());
}

// ---- from text: what is no address ----

TEST(IPAddress, addressOfTheOtherVersionLeadsToNothing) {
    ResolverCalls const calls;
    IPAddress v6("::1", 80);
    sockaddr_in binary;
    EXPECT_TRUE(v6.getBinary(binary));
    EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")}));
    EXPECT_EQ("::1", v6.host);

    IPAddress v4("127.0.0.1", 80);
    sockaddr_in6 binary6;
    EXPECT_TRUE(v4.getBinary(binary6));
    EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")}));
    EXPECT_EQ("127.0.0.1", v4.host);
}

TEST(IPAddress, garbageLeadsToNothing) {
    ResolverCalls const calls;
    std::string const hosts[] = {
        "127.0.0.1 x",
        "127.0.0.1:80",
        "256.0.0.1",
        "1.2.3.4.5",
        "::1::",
        "[::1]",
        " ",
        "-",
        "%",
        "\x01\x02\n",
        "../..",
        "%s%n%s",
        "host/8",
        "@",
        std::string(300, '1'),
        std::string(5000, 'x'),
        "fe80::1%",
        "\t::1",
        "0x",
        ":",
        ".",
    };
    for (std::string const& host : hosts) {
        IPAddress address(host, 80);
        sockaddr_in binary;
        EXPECT_TRUE(address.getBinary(binary)) << host;
        EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")})) << host;
        sockaddr_in6 binary6;
        EXPECT_TRUE(address.getBinary(binary6)) << host;
        EXPECT_TRUE(chainIs({unresolved("Couldn't resolve hostname")})) << host;
        EXPECT_EQ(host, address.host);
    }
}

TEST(IPAddress, hostEndsAtItsFirstNul) {
    ResolverCalls const calls;
    IPAddress address(std::string("127.0.0.1\0garbage", 17), 80);
    sockaddr_in binary;
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ("127.0.0.1", address.host);
}

TEST(IPAddress, failureLeavesAZeroAddressOfTheFamilyAndPort) {
    ResolverCalls const calls;
    IPAddress address("none.example", 0x0102);
    auto binary = makePoisoned<sockaddr_in>();
    EXPECT_TRUE(address.getBinary(binary));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(0, 0x0102)), bytesOf(binary));
    auto binary6 = makePoisoned<sockaddr_in6>();
    EXPECT_TRUE(address.getBinary(binary6));
    EXPECT_EQ(bytesOf(IPAddress::makeHandle(in6addr_any, 0x0102, 0)), bytesOf(binary6));
    std::ErrorStorage::ack();
}

// ---- binary addresses from their parts, and back ----

TEST(IPAddress, handleOfIPv4LiesInTheOrderOfTheNetwork) {
    sockaddr_in const handle = IPAddress::makeHandle(0x01020304, 0x0506);
    EXPECT_EQ(AF_INET, handle.sin_family);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), bytesOf(handle.sin_addr));
    EXPECT_EQ((std::vector<int>{5, 6}), bytesOf(handle.sin_port));
    EXPECT_EQ((std::vector<int>(8, 0)), bytesOf(handle.sin_zero));
}

TEST(IPAddress, handleOfIPv6LiesInTheOrderOfTheNetworkExceptForTheScope) {
    in6_addr const ip_address = addressOf("102:304:506:708:90a:b0c:d0e:f10");
    sockaddr_in6 const handle = IPAddress::makeHandle(ip_address, 0x0506, 0x01020304);
    EXPECT_EQ(AF_INET6, handle.sin6_family);
    EXPECT_EQ(
        (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}), bytesOf(handle.sin6_addr));
    EXPECT_EQ((std::vector<int>{5, 6}), bytesOf(handle.sin6_port));
    EXPECT_EQ(0U, handle.sin6_flowinfo);
    EXPECT_EQ(0x01020304U, handle.sin6_scope_id);
}

TEST(IPAddress, partsOfAHandleComeInTheOrderOfTheMachine) {
    unsigned char const bytes[] = {0x01, 0x02, 0x03, 0x04};
    unsigned char const port_bytes[] = {0x05, 0x06};
    sockaddr_in handle{};
    memcpy(&handle.sin_addr, bytes, sizeof bytes);
    memcpy(&handle.sin_port, port_bytes, sizeof port_bytes);
    unsigned int ip_address = 0;
    unsigned int port = 0;
    IPAddress::getBinary(handle, ip_address, port);
    EXPECT_EQ(0x01020304U, ip_address);
    EXPECT_EQ(0x0506U, port);
}

class IPAddressParts : public testing::TestWithParam<std::pair<unsigned int, unsigned int>> {};

TEST_P(IPAddressParts, makeAHandleAndComeBackFromIt) {
    auto const [number, port] = GetParam();
    unsigned int ip_back = 1;
    unsigned int port_back = 1;
    IPAddress::getBinary(IPAddress::makeHandle(number, port), ip_back, port_back);
    EXPECT_EQ(number, ip_back);
    EXPECT_EQ(port, port_back);

    in6_addr ip6{};
    memcpy(ip6.s6_addr + 3, &number, sizeof number);
    in6_addr ip6_back = makePoisoned<in6_addr>();
    unsigned int scope_back = 1;
    IPAddress::getBinary(IPAddress::makeHandle(ip6, port, number), ip6_back, port_back, scope_back);
    EXPECT_EQ(textOf(ip6), textOf(ip6_back));
    EXPECT_EQ(port, port_back);
    EXPECT_EQ(number, scope_back);
}

INSTANTIATE_TEST_SUITE_P(
    All, IPAddressParts,
    testing::Values(
        std::pair(0U, 0U), std::pair(0xFFFFFFFFU, 65535U), std::pair(0x01020304U, 0x0102U),
        std::pair(0x04030201U, 0x0201U), std::pair(0x7F000001U, 1U), std::pair(0x80000000U, 0x8000U)));

TEST(IPAddress, handleTakesTheLow16BitsOfAPort) {
    unsigned int ip_address = 0;
    unsigned int port = 0;
    IPAddress::getBinary(IPAddress::makeHandle(1, 0x12345), ip_address, port);
    EXPECT_EQ(0x2345U, port);
    in6_addr ip6{};
    unsigned int scope = 0;
    IPAddress::getBinary(IPAddress::makeHandle(in6addr_any, 0xFFFF0001, 0), ip6, port, scope);
    EXPECT_EQ(1U, port);
}

} // namespace
