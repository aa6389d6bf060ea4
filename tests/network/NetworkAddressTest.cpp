#include "support/NamedRow.h"
#include "support/NetworkNamespace.h"

#include "NetworkTest.h"

#include <vesk/NetworkAddress.h>
#include <vesk/NetworkInterface.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdint>
#include <iterator>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <type_traits>
#include <utility>
#include <vector>

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

constexpr unsigned char BYTES[] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0x1a, 0x2b, 0xff, 0xfe, 0x4d, 0x5e, 0x09};

testing::AssertionResult
is(NetworkAddressBase const& address, NetworkAddressBase::Type type, std::string const& text) {
    if (address.getType() == type && address.getText() == text) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "type " << address.getType() << " \"" << address.getText() << "\"";
}

// The earlier content of an object must not matter.
NetworkAddress const FULL(NetworkAddress::LINK, "00:11:22:33:44:55");

// The last row of each is that of all larger prefixes.
TEST(NetworkAddressBase, hasTheNetmasksOfPrefixes) {
    std::pair<unsigned int, char const*> const ipv4[] = {
        {0, "0.0.0.0"},      {1, "128.0.0.0"},      {7, "254.0.0.0"},        {8, "255.0.0.0"},
        {12, "255.240.0.0"}, {24, "255.255.255.0"}, {31, "255.255.255.254"}, {32, "255.255.255.255"}};
    std::pair<unsigned int, char const*> const ipv6[] = {
        {0, "0000:0000:0000:0000:0000:0000:0000:0000"},   {1, "8000:0000:0000:0000:0000:0000:0000:0000"},
        {12, "fff0:0000:0000:0000:0000:0000:0000:0000"},  {15, "fffe:0000:0000:0000:0000:0000:0000:0000"},
        {16, "ffff:0000:0000:0000:0000:0000:0000:0000"},  {24, "ffff:ff00:0000:0000:0000:0000:0000:0000"},
        {32, "ffff:ffff:0000:0000:0000:0000:0000:0000"},  {64, "ffff:ffff:ffff:ffff:0000:0000:0000:0000"},
        {127, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe"}, {128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
    auto const expectMask = [](NetworkAddressBase::Type type, unsigned int prefix, char const* text) {
        NetworkAddressBase address = FULL;
        EXPECT_FALSE(address.set_prefix(type, prefix));
        EXPECT_TRUE(is(address, type, text)) << prefix;
    };
    for (auto const& [prefix, text] : ipv4) {
        expectMask(NetworkAddress::IPV4, prefix, text);
    }
    for (auto const& [prefix, text] : ipv6) {
        expectMask(NetworkAddress::IPV6, prefix, text);
    }
    for (unsigned int const prefix : {33U, 64U, 128U, 200U, UINT32_MAX}) {
        expectMask(NetworkAddress::IPV4, prefix, std::end(ipv4)[-1].second);
    }
    for (unsigned int const prefix : {200U, UINT32_MAX}) {
        expectMask(NetworkAddress::IPV6, prefix, std::end(ipv6)[-1].second);
    }
    for (uint32_t const type : {0U, 1U, 4U, 10U, UINT32_MAX}) {
        NetworkAddressBase address = FULL;
        EXPECT_TRUE(address.set_prefix(static_cast<NetworkAddressBase::Type>(type), 24));
        EXPECT_TRUE(is(address, NetworkAddressBase::NONE, ""));
    }
}

// Compares each mask with the result of arithmetic on the representation of the system.
TEST(NetworkAddressBase, hasEveryPrefix) {
    for (unsigned int length = 0; length <= 32; ++length) {
        in_addr const mask{htonl(length == 0 ? 0 : ~uint32_t{0} << (32 - length))};
        NetworkAddressBase address;
        EXPECT_FALSE(address.set_prefix(NetworkAddressBase::IPV4, length));
        EXPECT_EQ(inet_ntoa(mask), address.getText()) << length;
    }
    for (unsigned int length = 0; length <= 128; ++length) {
        in6_addr expected{};
        for (unsigned int bit = 0; bit < length; ++bit) {
            expected.s6_addr[bit / 8] =
                static_cast<unsigned char>(expected.s6_addr[bit / 8] | 0x80 >> bit % 8);
        }
        NetworkAddressBase address;
        EXPECT_FALSE(address.set_prefix(NetworkAddressBase::IPV6, length));
        EXPECT_EQ(39U, address.getText().size());
        in6_addr mask{};
        EXPECT_EQ(1, inet_pton(AF_INET6, address.getText().c_str(), &mask)) << address.getText();
        EXPECT_TRUE(IN6_ARE_ADDR_EQUAL(&expected, &mask)) << length << " " << address.getText();
    }
}

struct BinaryRow : NamedRow {
    int family;
    std::vector<unsigned char> bytes;
    NetworkAddressBase::Type type;
    char const* text;
};

class BinaryAddress : public testing::TestWithParam<BinaryRow> {};

TEST_P(BinaryAddress, becomesItsText) {
    BinaryRow const& row = GetParam();
    NetworkAddress address = FULL;
    EXPECT_FALSE(address.set(row.family, row.bytes.data()));
    EXPECT_TRUE(is(address, row.type, row.text));
    // The bytes need no alignment.
    std::vector<unsigned char> shifted(1);
    shifted.insert(shifted.end(), row.bytes.begin(), row.bytes.end());
    EXPECT_FALSE(address.set(row.family, shifted.data() + 1));
    EXPECT_TRUE(is(address, row.type, row.text));
}

INSTANTIATE_TEST_SUITE_P(
    Of, BinaryAddress,
    rowsOf<BinaryRow>(
        {{"fourBytes", AF_INET, {192, 168, 0, 254}, NetworkAddress::IPV4, "192.168.0.254"},
         {"theLowestIPv4", AF_INET, {0, 0, 0, 0}, NetworkAddress::IPV4, "0.0.0.0"},
         {"theHighestIPv4", AF_INET, {255, 255, 255, 255}, NetworkAddress::IPV4, "255.255.255.255"},
         {"sixteenBytes",
          AF_INET6,
          {std::begin(BYTES), std::end(BYTES)},
          NetworkAddress::IPV6,
          "fe80::1a:2bff:fe4d:5e09"},
         {"aLink", 0, {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, NetworkAddress::LINK, "00:1a:2b:3c:4d:5e"},
         {"aLinkOfHighBytes",
          0,
          {0xff, 0xf0, 0x0f, 0x80, 0xfe, 0x01},
          NetworkAddress::LINK,
          "ff:f0:0f:80:fe:01"}}),
    byName);

TEST(NetworkAddress, hasTheFormOfTheSystemForIPv6) {
    for (char const* const text :
         {"::", "::1", "fe80::", "::ffff:192.168.100.200", "2001:db8::1:0:0:1",
          "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "1:0:2:0:3:0:4:0"}) {
        in6_addr bytes{};
        ASSERT_EQ(1, inet_pton(AF_INET6, text, &bytes));
        NetworkAddress address;
        EXPECT_FALSE(address.set(AF_INET6, &bytes));
        EXPECT_TRUE(is(address, NetworkAddress::IPV6, text));
    }
}

TEST(NetworkAddress, isKeptWithoutDataAndLostWithAnUnknownFamily) {
    for (int const family : {0, AF_INET, AF_INET6, AF_UNIX, -1}) {
        NetworkAddress address = FULL;
        EXPECT_TRUE(address.set(family, nullptr));
        EXPECT_TRUE(is(address, FULL.getType(), FULL.getText()));
    }
    for (int const family : {AF_UNIX, AF_PACKET, 3, 9, 11, -1, 0x7fffffff}) {
        NetworkAddress address = FULL;
        EXPECT_TRUE(address.set(family, BYTES));
        EXPECT_TRUE(is(address, NetworkAddress::NONE, ""));
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
        EXPECT_EQ(0U, NetworkInterface(name).getIndex());
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

TEST(NetworkInterface, supportsTheNetworksOfTests) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("lone"));
        ASSERT_TRUE(setUp("lone"));
        ASSERT_TRUE(addAddress("lone", "10.0.0.1/24 brd +"));
        ASSERT_TRUE(addAddress("lone", "fd00::1/64 nodad"));
        ASSERT_TRUE(removeAddress("lone", "fd00::1/64"));
        ASSERT_TRUE(setDown("lone"));
        EXPECT_FALSE(setUp("none"));
        EXPECT_FALSE(removeAddress("lone", "10.0.0.2/24"));
    });
    EXPECT_EQ(0U, NetworkInterface("lone").getIndex());
}

} // namespace
