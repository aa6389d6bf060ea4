#include "SocketRows.h"
#include "support/NetworkNamespace.h"
#include "support/calls/ResolverCalls.h"

#include <vesk/IPSocket.h>

#include <net/if.h>

namespace {
// The size of the buffer that the last call of inet_ntop received.
socklen_t s_text_room = 0;
} // namespace

VESK_INJECT_NOTING(
    char const*, nullptr, inet_ntop, (int family, void const* address, char* text, socklen_t room) noexcept,
    (family, address, text, room), s_text_room = room)

namespace {

using namespace support;
using vesk::IPSocket;
using IPAddress = vesk::IPSocket::IPAddress;
using Bytes = std::vector<int>;

static_assert(std::is_copy_constructible_v<IPAddress> && std::is_copy_assignable_v<IPAddress>);
static_assert(std::is_move_constructible_v<IPAddress> && std::is_destructible_v<IPAddress>);
static_assert(!std::is_polymorphic_v<IPAddress>);
static_assert(std::is_same_v<decltype(IPAddress::host), std::string>);
static_assert(std::is_same_v<decltype(IPAddress::port), unsigned short>);
static_assert(IPSocket::IPV4 == 0 && IPSocket::IPV6 == 1);

Reports const UNRESOLVED_AGAIN =
    withText({std::CommonErrorId::INVALID_ARGUMENT}, "Given hostname doesn't resolve into any IP addresses");

/// Returns the bytes of an object in the order of memory.
template <typename T>
Bytes bytesOf(T const& object) {
    auto const* const bytes = reinterpret_cast<unsigned char const*>(&object);
    return {bytes, bytes + sizeof object};
}

/// Returns an object with every byte set to an unlikely value.
template <typename T>
T makePoisoned() {
    T object;
    memset(&object, 0xEB, sizeof object);
    return object;
}

in6_addr addressOf(std::string const& text) {
    in6_addr address{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text.c_str(), &address)) << text;
    return address;
}

/// Returns the bytes of the binary form of a numeric address of either version.
Bytes bytesOf(std::string const& text, unsigned int port, unsigned int scope = 0) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1
        ? bytesOf(IPAddress::makeHandle(ntohl(address.s_addr), port))
        : bytesOf(IPAddress::makeHandle(addressOf(text), port, scope));
}

/// Converts an address to its binary form. Returns whether that failed, and the bytes of the result.
std::pair<bool, Bytes> toBinary(IPAddress& address, IPSocket::IPProtocolVersion version) {
    if (version == V4) {
        auto binary = makePoisoned<sockaddr_in>();
        bool const failed = address.getBinary(binary);
        return {failed, bytesOf(binary)};
    }
    auto binary = makePoisoned<sockaddr_in6>();
    bool const failed = address.getBinary(binary);
    return {failed, bytesOf(binary)};
}

/// Checks that a host does not resolve and is kept.
void expectUnresolved(std::string const& host, IPSocket::IPProtocolVersion version) {
    IPAddress address(host, 80);
    EXPECT_TRUE(toBinary(address, version).first) << host;
    EXPECT_TRUE(chainIs(UNRESOLVED)) << host;
    EXPECT_EQ(host, address.host);
}

testing::AssertionResult isEmpty(IPAddress const& address) {
    return address.host.empty() && address.port == 0
        ? chainIs({})
        : testing::AssertionFailure() << address.host << " " << address.port;
}

// ---- values ----

TEST(IPAddress, keepsHostAndPortUnchangedInCopiesAndIsEmptyByDefault) {
    EXPECT_TRUE(isEmpty(IPAddress()));
    IPAddress const address(" No host\xff ", 65535);
    EXPECT_EQ(" No host\xff ", address.host);
    EXPECT_EQ(65535, address.port);
    IPAddress const original("127.0.0.1", 80);
    IPAddress copy(original);
    copy.host += "0";
    copy.port = 81;
    EXPECT_EQ("127.0.0.1", original.host);
    EXPECT_EQ(80, original.port);
    copy = original;
    EXPECT_EQ("127.0.0.1", copy.host);
    EXPECT_EQ(80, copy.port);
}

std::string const s_any_text_before_main = IPAddress::ANY_ADDRESS.host + " " + IPAddress::ANY_ADDRESS6.host;

TEST(IPAddress, constantsAreTextsAndAnyAddressesExistBeforeMain) {
    EXPECT_STREQ("0.0.0.0", IPSocket::ANY_IP);
    EXPECT_STREQ("::", IPSocket::ANY_IP6);
    EXPECT_STREQ("127.0.0.1", IPSocket::LOOPBACK_IP);
    EXPECT_STREQ("::1", IPSocket::LOOPBACK_IP6);
    EXPECT_EQ("0.0.0.0 ::", s_any_text_before_main);
    EXPECT_EQ(0, IPAddress::ANY_ADDRESS.port);
    EXPECT_EQ(0, IPAddress::ANY_ADDRESS6.port);
}

// ---- numeric addresses ----

/// Numeric addresses of both versions with ports.
constexpr std::pair<char const*, unsigned short> TEXTS[] = {
    {"0.0.0.0", 0},
    {"127.0.0.1", 80},
    {"1.2.3.4", 0x0102},
    {"255.255.255.255", 65535},
    {"224.0.0.251", 5353},
    {"192.168.0.123", 1},
    {"::", 0},
    {"::1", 80},
    {"102:304:506:708:90a:b0c:d0e:f10", 0x0102},
    {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 65535},
    {"::ffff:192.168.0.123", 5353},
    {"fd00::1:0:0:1", 1},
};
VESK_TEST_TABLE(IPAddressTexts, haveTheirBinaryAddressAndItHasThem, testing::Test, TEXTS) {
    auto const [text, port] = GetParam();
    bool const is_four = strchr(text, ':') == nullptr;
    Bytes const bytes = bytesOf(text, port);
    unsigned char raw[sizeof(sockaddr_in6)];
    std::copy(bytes.begin(), bytes.end(), raw);
    ResolverCalls const calls;
    IPAddress address = is_four ? IPAddress(reinterpret_cast<sockaddr_in const&>(raw))
                                : IPAddress(reinterpret_cast<sockaddr_in6 const&>(raw));
    EXPECT_EQ(text, address.host);
    EXPECT_EQ(port, address.port);
    EXPECT_EQ(0U, calls.getLookups().size());
    EXPECT_EQ(is_four ? 0U : 1U, calls.getNamings().size());

    address = IPAddress(text, port);
    EXPECT_EQ(std::pair(false, bytes), toBinary(address, is_four ? V4 : V6));
    EXPECT_EQ(text, address.host);
    EXPECT_EQ(port, address.port);
}

TEST(IPAddress, textOfABinaryAddressIsFormattedInto16BytesOrRequestedInNumericForm) {
    EXPECT_EQ("255.255.255.255", IPAddress(IPAddress::makeHandle(0xFFFFFFFF, 1)).host);
    EXPECT_EQ(16U, s_text_room);
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

TEST(IPAddress, binaryAddressOfAnotherFamilyOrWithoutATextMakesAnEmptyAddress) {
    // AF_INET6 is another family only for the shorter structure.
    for (int const family : {AF_UNSPEC, AF_UNIX, AF_INET6, 4711}) {
        sockaddr_in binary = IPAddress::makeHandle(0x7F000001, 80);
        binary.sin_family = static_cast<sa_family_t>(family);
        EXPECT_TRUE(isEmpty(IPAddress(binary))) << family;
    }
    for (int const family : {AF_UNSPEC, 4711}) {
        sockaddr_in6 binary = IPAddress::makeHandle(in6addr_loopback, 80, 0);
        binary.sin6_family = static_cast<sa_family_t>(family);
        EXPECT_TRUE(isEmpty(IPAddress(binary))) << family;
    }
    for (int const error : {ENOSPC, EAFNOSUPPORT}) {
        Calls const fault(inject_inet_ntop, 1, error);
        EXPECT_TRUE(isEmpty(IPAddress(IPAddress::makeHandle(0x7F000001, 80))));
    }
    for (int const code :
         {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_FAMILY, EAI_MEMORY, EAI_OVERFLOW, EAI_SYSTEM}) {
        ResolverCalls calls;
        calls.failName(code, EIO);
        EXPECT_TRUE(isEmpty(IPAddress(IPAddress::makeHandle(in6addr_loopback, 80, 0)))) << code;
    }
}

// ---- the scope of an address of IPv6 ----

TEST(IPAddress, scopeIsInTheTextByTheNameOfItsInterface) {
    unsigned int const lo = if_nametoindex("lo");
    ASSERT_NE(0U, lo);
    in6_addr const ip_address = addressOf("fe80::1");
    EXPECT_EQ("fe80::1%lo", IPAddress(IPAddress::makeHandle(ip_address, 80, lo)).host);
    EXPECT_EQ("fe80::1", IPAddress(IPAddress::makeHandle(ip_address, 80, 0)).host);
    EXPECT_EQ("fe80::1%47110815", IPAddress(IPAddress::makeHandle(ip_address, 80, 47110815)).host);
    for (std::string const& scope : {std::string("lo"), std::to_string(lo)}) {
        IPAddress address("fe80::1%" + scope, 80);
        EXPECT_EQ(std::pair(false, bytesOf("fe80::1", 80, lo)), toBinary(address, V6));
        EXPECT_EQ("fe80::1%lo", address.host);
    }
    ResolverCalls const calls;
    expectUnresolved("fe80::1%nonesuch", V6);
}

TEST(IPAddress, binaryAddressWithATooLongTextMakesAnEmptyAddress) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makePair("an-interface-15", "other"));
        unsigned int const scope = if_nametoindex("an-interface-15");
        ASSERT_NE(0U, scope);
        // The second text has 46 bytes with its end, the third one more.
        for (char const* const text : {"fe80::2222:3333:4444:5555:66", "fe80::2222:3333:4444:5555:666"}) {
            EXPECT_EQ(
                std::string(text) + "%an-interface-15",
                IPAddress(IPAddress::makeHandle(addressOf(text), 80, scope)).host);
        }
        EXPECT_TRUE(isEmpty(
            IPAddress(IPAddress::makeHandle(addressOf("fe80::2222:3333:4444:5555:6666"), 80, scope))));
    });
}

// ---- hosts ----

TEST(IPAddress, emptyHostIsTheAnyAddressWithoutTheResolver) {
    ResolverCalls const calls;
    IPAddress address("", 0x0102);
    EXPECT_EQ(std::pair(false, bytesOf("0.0.0.0", 0x0102)), toBinary(address, V4));
    EXPECT_EQ(std::pair(false, bytesOf("::", 0x0102)), toBinary(address, V6));
    EXPECT_EQ("", address.host);
    EXPECT_TRUE(calls.getLookups().empty() && calls.getNamings().empty());
}

TEST(IPAddress, textOfIPv4IsResolvedOnce) {
    ResolverCalls const calls;
    IPAddress address("127.0.0.1", 80);
    EXPECT_FALSE(toBinary(address, V4).first);
    EXPECT_EQ(1U, calls.getLookups().size());
    EXPECT_EQ(1U, calls.getNamings().size());
    EXPECT_EQ(1, calls.countFreed());
}

TEST(IPAddress, textOfIPv6IsResolvedAndThenLookedUpForItsScope) {
    ResolverCalls const calls;
    IPAddress address("::1", 80);
    EXPECT_FALSE(toBinary(address, V6).first);
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

TEST(IPAddress, unusualSpellingsOfIPv4BecomeTheUsualOne) {
    constexpr std::pair<char const*, char const*> ROWS[] = {
        {"127.1", "127.0.0.1"},
        {"0x7f.0.0.1", "127.0.0.1"},
        {"2130706433", "127.0.0.1"},
        {"010.0.0.1", "8.0.0.1"},
        {"0", "0.0.0.0"}};
    for (auto const& [host, numeric] : ROWS) {
        ResolverCalls const calls;
        IPAddress address(host, 80);
        EXPECT_EQ(std::pair(false, bytesOf(numeric, 80)), toBinary(address, V4)) << host;
        EXPECT_EQ(numeric, address.host);
    }
}

TEST(IPAddress, replacedHostIsNotLookedUpByItsNameAgain) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}});
    IPAddress address("one.example", 80);
    EXPECT_FALSE(toBinary(address, V4).first);
    EXPECT_EQ(std::pair(false, bytesOf("10.0.0.9", 80)), toBinary(address, V4));
    ASSERT_EQ(2U, calls.getLookups().size());
    EXPECT_EQ("10.0.0.9", calls.getLookups()[1].name);
}

/// The answers of the resolver, and what becomes of the host "some.example".
struct AnswersRow : NamedRow {
    IPSocket::IPProtocolVersion version;
    std::vector<Answer> answers;
    std::vector<std::string> lookups; ///< The names that are looked up after the host.
    char const* host;                 ///< The new host.
    char const* binary;               ///< The binary address; null for a failure.
    Reports reports;
    unsigned int scope;
    char const* events;
};

AnswersRow
row(char const* name, IPSocket::IPProtocolVersion version, std::vector<Answer> answers,
    std::vector<std::string> lookups, char const* host, char const* binary, Reports reports = {},
    unsigned int scope = 0, char const* events = "") {
    return {{name}, version, std::move(answers), std::move(lookups), host, binary, std::move(reports),
            scope,  events};
}

constexpr char const* SAME = "some.example";
Answer const NINE = list({{"10.0.0.9"}});
Answer const NINE6 = list({{"fd00::9"}});
Answer const NOT_NUMERIC("not numeric");
Answer const ONE_AND_TWO6 = list({{"fd00::1"}, {"fd00::2"}});

AnswersRow const ANSWER_ROWS[] = {
    row("firstOfSeveralAddresses", V4, {list({{"10.0.0.9"}, {"10.0.0.1"}, {"10.0.0.5"}})}, {}, "10.0.0.9",
        "10.0.0.9"),
    row("noName", V4, {Answer(EAI_NONAME)}, {}, SAME, nullptr, UNRESOLVED),
    row("noData", V4, {Answer(EAI_NODATA)}, {}, SAME, nullptr, UNRESOLVED),
    row("otherFamily", V4, {Answer(EAI_ADDRFAMILY)}, {}, SAME, nullptr, UNRESOLVED),
    row("failure", V4, {Answer(EAI_AGAIN)}, {}, SAME, nullptr, resolverFailed(EAI_AGAIN)),
    row("resultThatIsNotNumericIsResolvedAgain", V4, {NINE, NOT_NUMERIC, list({{"10.0.0.1"}, {"10.0.0.2"}})},
        {"not numeric"}, "not numeric", "10.0.0.1"),
    row("noNameOnTheSecondResolve", V4, {NINE, NOT_NUMERIC, Answer(EAI_NONAME)}, {"not numeric"},
        "not numeric", nullptr, UNRESOLVED_AGAIN),
    row("failureOfTheSecondResolve", V4, {NINE, NOT_NUMERIC, Answer(EAI_FAIL)}, {"not numeric"},
        "not numeric", nullptr, resolverFailed(EAI_FAIL)),
    row("secondResultThatIsNotNumericFailsAnAssertion", V4,
        {NINE, NOT_NUMERIC, list({{"10.0.0.1"}}), NOT_NUMERIC}, {"not numeric"}, "not numeric", nullptr, {},
        0, "ASSERT framework/src/vesk/posix/SocketPosixCommon convertAddrToBinary: conv_res == 1"),
    row("firstOfSeveralAddressesOfIPv6", V6, {list({{"fd00::9"}, {"fd00::1"}})}, {"fd00::9"}, "fd00::9",
        "fd00::9"),
    row("noNameOfIPv6", V6, {Answer(EAI_NONAME)}, {}, SAME, nullptr, UNRESOLVED),
    row("noDataOfIPv6", V6, {Answer(EAI_NODATA)}, {}, SAME, nullptr, UNRESOLVED),
    row("otherFamilyOfIPv6", V6, {Answer(EAI_ADDRFAMILY)}, {}, SAME, nullptr, UNRESOLVED),
    row("failureOfIPv6", V6, {Answer(EAI_AGAIN)}, {}, SAME, nullptr, resolverFailed(EAI_AGAIN)),
    row("addressAndScopeAreThoseOfTheFirstEntryOfIPv6", V6,
        {NINE6, list({{"10.0.0.9"}, ListEntry::local(), {"fe80::5", 0x01020304}, {"fe80::6", 7}})},
        {"fd00::9"}, "fd00::9", "fe80::5", {}, 0x01020304),
    row("lookupWithoutAnEntryOfIPv6FailsWithoutAReport", V6,
        {NINE6, list({{"10.0.0.9"}, ListEntry::local()})}, {"fd00::9"}, "fd00::9", nullptr),
    row("failedLookupIsFollowedByAResolve", V6, {NINE6, Answer(EAI_AGAIN), ONE_AND_TWO6},
        {"fd00::9", "fd00::9"}, "fd00::9", "fd00::1"),
    row("lookupWithoutANameIsFollowedByAResolve", V6, {NINE6, Answer(EAI_NONAME), ONE_AND_TWO6},
        {"fd00::9", "fd00::9"}, "fd00::9", "fd00::1"),
    row("lookupWithoutMemoryIsFollowedByAResolve", V6, {NINE6, Answer(EAI_MEMORY), ONE_AND_TWO6},
        {"fd00::9", "fd00::9"}, "fd00::9", "fd00::1"),
    row("lookupThatTheSystemFailsIsFollowedByAResolve", V6, {NINE6, Answer(EAI_SYSTEM, EIO), ONE_AND_TWO6},
        {"fd00::9", "fd00::9"}, "fd00::9", "fd00::1"),
    row("noDataAfterAFailedLookup", V6, {NINE6, Answer(EAI_AGAIN), Answer(EAI_NODATA)},
        {"fd00::9", "fd00::9"}, "fd00::9", nullptr, UNRESOLVED_AGAIN),
    row("failureAfterAFailedLookup", V6, {NINE6, Answer(EAI_AGAIN), Answer(EAI_FAIL)}, {"fd00::9", "fd00::9"},
        "fd00::9", nullptr, resolverFailed(EAI_FAIL)),
    row("resultThatIsNotNumericAfterAFailedLookupFailsWithoutAReport", V6,
        {NINE6, Answer(EAI_AGAIN), list({{"fe80::1", 1}}), Answer("fd00::9"), Answer("fe80::1%lo")},
        {"fd00::9", "fd00::9"}, "fd00::9", nullptr)};
VESK_TEST_TABLE(IPAddressAnswers, decideAddressAndHost, testing::Test, ANSWER_ROWS) {
    AnswersRow const& row = GetParam();
    EventRecorder const events;
    ResolverCalls calls;
    calls.answer(row.answers);
    IPAddress address("some.example", 80);
    auto const [failed, bytes] = toBinary(address, row.version);
    EXPECT_EQ(row.binary == nullptr, failed);
    if (row.binary != nullptr) {
        EXPECT_EQ(bytesOf(row.binary, 80, row.scope), bytes);
    }
    EXPECT_TRUE(chainIs(row.reports));
    EXPECT_EQ(row.host, address.host);
    EXPECT_EQ(80, address.port);
    EXPECT_EQ(row.events, events.getText());
    std::vector<std::string> names = {"some.example"};
    names.insert(names.end(), row.lookups.begin(), row.lookups.end());
    EXPECT_EQ(names, calls.getNames());
    if (calls.getLookups().size() == 3) {
        EXPECT_EQ(0x40, calls.getLookups()[2].flags) << "the last lookup is that of the resolver";
    }
}

TEST(IPAddress, garbageOrAnAddressOfTheOtherVersionDoesNotResolve) {
    ResolverCalls const calls;
    for (std::string const& host : stringsOf(
             "127.0.0.1 x", "127.0.0.1:80", "256.0.0.1", "1.2.3.4.5", "::1::", "[::1]", " ", "-", "%",
             "\x01\x02\n", "../..", "%s%n%s", "host/8", "@", std::string(300, '1'), std::string(5000, 'x'),
             "fe80::1%", "\t::1", "0x", ":", ".")) {
        expectUnresolved(host, V4);
        expectUnresolved(host, V6);
    }
    expectUnresolved("::1", V4);
    expectUnresolved("127.0.0.1", V6);
}

TEST(IPAddress, failureLeavesAZeroAddressWithTheFamilyAndPort) {
    ResolverCalls const calls;
    IPAddress address(std::string("127.0.0.1\0garbage", 17), 80);
    EXPECT_FALSE(toBinary(address, V4).first);
    EXPECT_EQ("127.0.0.1", address.host);
    IPAddress none("none.example", 0x0102);
    EXPECT_EQ(std::pair(true, bytesOf("0.0.0.0", 0x0102)), toBinary(none, V4));
    EXPECT_EQ(std::pair(true, bytesOf("::", 0x0102)), toBinary(none, V6));
    std::ErrorStorage::ack();
}

// ---- binary addresses and their parts ----

TEST(IPAddress, handleOfIPv4IsInNetworkByteOrderWithTheLow16BitsOfAPort) {
    sockaddr_in const handle = IPAddress::makeHandle(0x01020304, 0x0506);
    EXPECT_EQ(AF_INET, handle.sin_family);
    EXPECT_EQ((Bytes{1, 2, 3, 4}), bytesOf(handle.sin_addr));
    EXPECT_EQ((Bytes{5, 6}), bytesOf(handle.sin_port));
    EXPECT_EQ(Bytes(8, 0), bytesOf(handle.sin_zero));
    unsigned int ip_address = 0;
    unsigned int port = 0;
    IPAddress::getBinary(handle, ip_address, port);
    EXPECT_EQ(0x01020304U, ip_address);
    EXPECT_EQ(0x0506U, port);
    IPAddress::getBinary(IPAddress::makeHandle(1, 0x12345), ip_address, port);
    EXPECT_EQ(0x2345U, port);
    in6_addr ip6{};
    unsigned int scope = 0;
    IPAddress::getBinary(IPAddress::makeHandle(in6addr_any, 0xFFFF0001, 0), ip6, port, scope);
    EXPECT_EQ(1U, port);
}

TEST(IPAddress, handleOfIPv6IsInNetworkByteOrderExceptForTheScope) {
    in6_addr const ip_address = addressOf("102:304:506:708:90a:b0c:d0e:f10");
    sockaddr_in6 const handle = IPAddress::makeHandle(ip_address, 0x0506, 0x01020304);
    EXPECT_EQ(AF_INET6, handle.sin6_family);
    EXPECT_EQ((Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}), bytesOf(handle.sin6_addr));
    EXPECT_EQ((Bytes{5, 6}), bytesOf(handle.sin6_port));
    EXPECT_EQ(0U, handle.sin6_flowinfo);
    EXPECT_EQ(0x01020304U, handle.sin6_scope_id);
}

constexpr std::pair<unsigned int, unsigned int> PARTS[] = {
    {0U, 0U},          {0xFFFFFFFFU, 65535U}, {0x01020304U, 0x0102U}, {0x04030201U, 0x0201U},
    {0x7F000001U, 1U}, {0x80000000U, 0x8000U}};
VESK_TEST_TABLE(IPAddressParts, makeAHandleThatReturnsThem, testing::Test, PARTS) {
    auto const [number, port] = GetParam();
    unsigned int ip_back = 1;
    unsigned int port_back = 1;
    IPAddress::getBinary(IPAddress::makeHandle(number, port), ip_back, port_back);
    EXPECT_EQ(number, ip_back);
    EXPECT_EQ(port, port_back);

    in6_addr ip6{};
    memcpy(ip6.s6_addr + 3, &number, sizeof number);
    auto ip6_back = makePoisoned<in6_addr>();
    unsigned int scope_back = 1;
    IPAddress::getBinary(IPAddress::makeHandle(ip6, port, number), ip6_back, port_back, scope_back);
    EXPECT_EQ(bytesOf(ip6), bytesOf(ip6_back));
    EXPECT_EQ(port, port_back);
    EXPECT_EQ(number, scope_back);
}

} // namespace
