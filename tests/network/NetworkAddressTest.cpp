#include "support/NetworkNamespace.h"
#include "support/Testing.h"

#include <vesk/NetworkAddress.h>
#include <vesk/NetworkInterface.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <numeric>
#include <sys/socket.h>

namespace {

using namespace support;
using vesk::NetworkAddress;
using vesk::NetworkAddressBase;
using vesk::NetworkInterface;

static_assert(sizeof(NetworkAddressBase::Type) == 4);
static_assert(NetworkAddressBase::NONE == 0 && NetworkAddressBase::LINK == 1);
static_assert(NetworkAddressBase::IPV4 == 2 && NetworkAddressBase::IPV6 == 3);
static_assert(sizeof(NetworkAddress) == sizeof(NetworkAddressBase));
static_assert(std::is_base_of_v<NetworkAddressBase, NetworkAddress>);
static_assert(std::is_copy_assignable_v<NetworkInterface::AddrInfo>);
static_assert(sizeof(NetworkInterface) == sizeof(uint32_t));

std::vector<unsigned char> const SIXTEEN = {0xfe, 0x80, 0,    0,    0,    0,    0,    0,
                                            0,    0x1a, 0x2b, 0xff, 0xfe, 0x4d, 0x5e, 0x09};

testing::AssertionResult
is(NetworkAddressBase const& address, NetworkAddressBase::Type type, std::string const& text) {
    if (address.getType() == type && address.getText() == text) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "type " << address.getType() << " \"" << address.getText() << "\"";
}

// The earlier content of an object must not matter.
NetworkAddress const FULL(NetworkAddress::LINK, "00:11:22:33:44:55");

// Larger prefixes than an address has bits are cut.
TEST(NetworkAddressBase, hasTheNetmaskOfEveryPrefix) {
    std::vector<unsigned int> prefixes(140);
    std::iota(prefixes.begin(), prefixes.end(), 0U);
    prefixes.insert(prefixes.end(), {200U, UINT32_MAX});
    for (unsigned int const prefix : prefixes) {
        SCOPED_TRACE(prefix);
        NetworkAddressBase ipv4 = FULL;
        EXPECT_FALSE(ipv4.set_prefix(NetworkAddress::IPV4, prefix));
        in_addr const mask{htonl(prefix == 0 ? 0 : ~uint32_t{0} << (32 - std::min(prefix, 32U)))};
        EXPECT_TRUE(is(ipv4, NetworkAddress::IPV4, inet_ntoa(mask)));
        NetworkAddressBase ipv6 = FULL;
        EXPECT_FALSE(ipv6.set_prefix(NetworkAddress::IPV6, prefix));
        std::string text; // All digits, each of four bits.
        for (unsigned int bit = 0; bit < 128; bit += 4) {
            text += bit != 0 && bit % 16 == 0 ? ":" : "";
            text += prefix <= bit ? '0' : "08cef"[std::min(prefix - bit, 4U)];
        }
        EXPECT_TRUE(is(ipv6, NetworkAddress::IPV6, text));
    }
}

TEST(NetworkAddressBase, isLostWithAPrefixOfAnUnknownType) {
    for (uint32_t const type : {0U, 1U, 4U, 10U, UINT32_MAX}) {
        NetworkAddressBase address = FULL;
        EXPECT_TRUE(address.set_prefix(static_cast<NetworkAddressBase::Type>(type), 24)) << type;
        EXPECT_TRUE(is(address, NetworkAddressBase::NONE, "")) << type;
    }
}

struct BinaryRow : NamedRow {
    int family;
    std::vector<unsigned char> bytes;
    NetworkAddressBase::Type type;
    char const* text;
};

BinaryRow const BINARY[] = {
    {"fourBytes", AF_INET, {192, 168, 0, 254}, NetworkAddress::IPV4, "192.168.0.254"},
    {"theLowestIPv4", AF_INET, {0, 0, 0, 0}, NetworkAddress::IPV4, "0.0.0.0"},
    {"theHighestIPv4", AF_INET, {255, 255, 255, 255}, NetworkAddress::IPV4, "255.255.255.255"},
    {"sixteenBytes", AF_INET6, SIXTEEN, NetworkAddress::IPV6, "fe80::1a:2bff:fe4d:5e09"},
    {"aLink", 0, {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, NetworkAddress::LINK, "00:1a:2b:3c:4d:5e"},
    {"aLinkOfHighBytes", 0, {255, 0xf0, 15, 0x80, 0xfe, 1}, NetworkAddress::LINK, "ff:f0:0f:80:fe:01"},
};

VESK_TEST_TABLE(BinaryAddress, becomesItsText, testing::Test, BINARY) {
    BinaryRow const& row = GetParam();
    // The bytes need no alignment.
    for (bool const is_shifted : {false, true}) {
        std::vector<unsigned char> bytes(is_shifted ? 1 : 0);
        bytes.insert(bytes.end(), row.bytes.begin(), row.bytes.end());
        NetworkAddress address = FULL;
        EXPECT_FALSE(address.set(row.family, bytes.data() + (is_shifted ? 1 : 0)));
        EXPECT_TRUE(is(address, row.type, row.text)) << is_shifted;
    }
}

TEST(NetworkAddress, hasTheFormOfTheSystemForIPv6) {
    for (char const* const text :
         {"::", "::1", "fe80::", "::ffff:192.168.100.200", "2001:db8::1:0:0:1",
          "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "1:0:2:0:3:0:4:0"}) {
        in6_addr bytes{};
        ASSERT_EQ(1, inet_pton(AF_INET6, text, &bytes));
        NetworkAddress address;
        EXPECT_FALSE(address.set(AF_INET6, &bytes)) << text;
        EXPECT_TRUE(is(address, NetworkAddress::IPV6, text));
    }
}

TEST(NetworkAddress, isKeptWithoutDataAndLostWithAnUnknownFamily) {
    for (int const family : {0, AF_INET, AF_INET6, AF_UNIX, -1}) {
        NetworkAddress address = FULL;
        EXPECT_TRUE(address.set(family, nullptr)) << family;
        EXPECT_TRUE(is(address, FULL.getType(), FULL.getText())) << family;
    }
    for (int const family : {AF_UNIX, AF_PACKET, 3, 9, 11, -1, 0x7fffffff}) {
        NetworkAddress address = FULL;
        EXPECT_TRUE(address.set(family, SIXTEEN.data())) << family;
        EXPECT_TRUE(is(address, NetworkAddress::NONE, "")) << family;
    }
}

TEST(NetworkAddress, beginsWithoutAnAddress) {
    EXPECT_TRUE(is(NetworkAddressBase(), NetworkAddress::NONE, ""));
    EXPECT_TRUE(is(NetworkAddress(), NetworkAddress::NONE, ""));
}

TEST(NetworkAddress, isEqualInTypeAndText) {
    NetworkAddress const address(NetworkAddress::IPV4, "10.0.0.1");
    EXPECT_TRUE(address == NetworkAddress(NetworkAddress::IPV4, "10.0.0.1"));
    EXPECT_TRUE(address != NetworkAddress(NetworkAddress::IPV4, "10.0.0.2"));
    EXPECT_TRUE(address != NetworkAddress(NetworkAddress::IPV6, "10.0.0.1"));
    EXPECT_FALSE(address != address);
}

// The library is initialized before the program that is linked to it.
std::string const s_any =
    NetworkAddressBase::ANY_IPv4.getText() + " " + NetworkAddressBase::ANY_IPv6.getText();

TEST(NetworkAddressBase, hasTheWildcardAddressesAlsoForTheInitializersOfAProgram) {
    EXPECT_TRUE(is(NetworkAddressBase::ANY_IPv4, NetworkAddressBase::IPV4, "0.0.0.0"));
    EXPECT_TRUE(is(NetworkAddressBase::ANY_IPv6, NetworkAddressBase::IPV6, "::"));
    EXPECT_EQ("0.0.0.0 ::", s_any);
}

TEST(NetworkInterface, hasTheNumberOfItsNameOrNone) {
    EXPECT_NE(0U, if_nametoindex("lo"));
    EXPECT_EQ(if_nametoindex("lo"), NetworkInterface("lo").getIndex());
    for (std::string const& name : {std::string("no-such-if"), std::string(), std::string(5000, 'x')}) {
        EXPECT_EQ(0U, NetworkInterface(name).getIndex()) << name;
    }
}

VESK_NETWORK_TEST(NetworkInterface, isLookedUpAtItsConstructionOnly) {
    ASSERT_TRUE(makePair("left", "right"));
    NetworkInterface const left("left");
    NetworkInterface const right("right");
    EXPECT_NE(0U, left.getIndex());
    EXPECT_NE(0U, right.getIndex());
    EXPECT_NE(left.getIndex(), right.getIndex());
    ASSERT_TRUE(renameInterface("left", "other"));
    EXPECT_EQ(left.getIndex(), NetworkInterface("other").getIndex());
    EXPECT_EQ(0U, NetworkInterface("left").getIndex());
    ASSERT_TRUE(removeInterface("other"));
    EXPECT_EQ(0U, NetworkInterface("right").getIndex());
    EXPECT_NE(0U, right.getIndex());
}

TEST(NetworkInterface, isInTheNetworkOfATestOnly) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("lone"));
        EXPECT_FALSE(setUp("none"));
        EXPECT_FALSE(removeAddress("lone", "10.0.0.2/24"));
    });
    EXPECT_EQ(0U, NetworkInterface("lone").getIndex());
}

} // namespace
