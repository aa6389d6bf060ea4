#include "support/NetworkNamespace.h"

#include <vesk/NetworkAddress.h>
#include <vesk/NetworkInterface.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <type_traits>

namespace {

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

// What an object held before must not matter.
NetworkAddress const FULL(NetworkAddress::LINK, "00:11:22:33:44:55");

// ---- prefixes ----

struct PrefixRow {
    NetworkAddressBase::Type type;
    unsigned int length;
    char const* mask;
};

std::ostream& operator<<(std::ostream& stream, PrefixRow const& row) {
    return stream << "type " << row.type << " length " << row.length;
}

class Prefix : public testing::TestWithParam<PrefixRow> {};

TEST_P(Prefix, BecomesTheTextOfItsNetmask) {
    NetworkAddressBase address = FULL;
    EXPECT_FALSE(address.set_prefix(GetParam().type, GetParam().length));
    EXPECT_TRUE(is(address, GetParam().type, GetParam().mask));
}

INSTANTIATE_TEST_SUITE_P(
    IPv4, Prefix,
    testing::Values(
        PrefixRow{NetworkAddressBase::IPV4, 0, "0.0.0.0"},
        PrefixRow{NetworkAddressBase::IPV4, 1, "128.0.0.0"},
        PrefixRow{NetworkAddressBase::IPV4, 7, "254.0.0.0"},
        PrefixRow{NetworkAddressBase::IPV4, 8, "255.0.0.0"},
        PrefixRow{NetworkAddressBase::IPV4, 12, "255.240.0.0"},
        PrefixRow{NetworkAddressBase::IPV4, 24, "255.255.255.0"},
        PrefixRow{NetworkAddressBase::IPV4, 31, "255.255.255.254"},
        PrefixRow{NetworkAddressBase::IPV4, 32, "255.255.255.255"},
        PrefixRow{NetworkAddressBase::IPV4, 33, "255.255.255.255"},
        PrefixRow{NetworkAddressBase::IPV4, 64, "255.255.255.255"},
        PrefixRow{NetworkAddressBase::IPV4, 128, "255.255.255.255"},
        PrefixRow{NetworkAddressBase::IPV4, 200, "255.255.255.255"},
        PrefixRow{NetworkAddressBase::IPV4, UINT32_MAX, "255.255.255.255"}));

INSTANTIATE_TEST_SUITE_P(
    IPv6, Prefix,
    testing::Values(
        PrefixRow{NetworkAddressBase::IPV6, 0, "0000:0000:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 1, "8000:0000:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 12, "fff0:0000:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 15, "fffe:0000:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 16, "ffff:0000:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 24, "ffff:ff00:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 32, "ffff:ffff:0000:0000:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 64, "ffff:ffff:ffff:ffff:0000:0000:0000:0000"},
        PrefixRow{NetworkAddressBase::IPV6, 127, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe"},
        PrefixRow{NetworkAddressBase::IPV6, 128, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        PrefixRow{NetworkAddressBase::IPV6, 200, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        PrefixRow{NetworkAddressBase::IPV6, UINT32_MAX, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}));

// Each mask against what the arithmetic of the system's own representation gives.
TEST(NetworkAddressBase, HasEveryPrefixOfIPv4) {
    for (unsigned int length = 0; length <= 32; ++length) {
        in_addr const mask{htonl(length == 0 ? 0 : ~uint32_t{0} << (32 - length))};
        NetworkAddressBase address;
        EXPECT_FALSE(address.set_prefix(NetworkAddressBase::IPV4, length));
        EXPECT_EQ(inet_ntoa(mask), address.getText()) << length;
    }
}

TEST(NetworkAddressBase, HasEveryPrefixOfIPv6) {
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

class TypeWithoutPrefix : public testing::TestWithParam<uint32_t> {};

TEST_P(TypeWithoutPrefix, LeavesNoAddressAndFails) {
    NetworkAddressBase address = FULL;
    EXPECT_TRUE(address.set_prefix(static_cast<NetworkAddressBase::Type>(GetParam()), 24));
    EXPECT_TRUE(is(address, NetworkAddressBase::NONE, ""));
}

INSTANTIATE_TEST_SUITE_P(Types, TypeWithoutPrefix, testing::Values(0, 1, 4, 10, UINT32_MAX));

// ---- binary addresses ----

TEST(NetworkAddress, TakesFourBytesForIPv4) {
    NetworkAddress address = FULL;
    unsigned char const bytes[] = {192, 168, 0, 254};
    EXPECT_FALSE(address.set(AF_INET, bytes));
    EXPECT_TRUE(is(address, NetworkAddress::IPV4, "192.168.0.254"));
}

TEST(NetworkAddress, TakesTheExtremesOfIPv4) {
    NetworkAddress address;
    in_addr const none{INADDR_NONE};
    EXPECT_FALSE(address.set(AF_INET, &none));
    EXPECT_TRUE(is(address, NetworkAddress::IPV4, "255.255.255.255"));
    in_addr const any{INADDR_ANY};
    EXPECT_FALSE(address.set(AF_INET, &any));
    EXPECT_TRUE(is(address, NetworkAddress::IPV4, "0.0.0.0"));
}

TEST(NetworkAddress, TakesSixteenBytesForIPv6) {
    NetworkAddress address = FULL;
    EXPECT_FALSE(address.set(AF_INET6, BYTES));
    EXPECT_TRUE(is(address, NetworkAddress::IPV6, "fe80::1a:2bff:fe4d:5e09"));
}

class FormOfIPv6 : public testing::TestWithParam<char const*> {};

TEST_P(FormOfIPv6, IsThatOfTheSystem) {
    in6_addr bytes{};
    ASSERT_EQ(1, inet_pton(AF_INET6, GetParam(), &bytes));
    NetworkAddress address;
    EXPECT_FALSE(address.set(AF_INET6, &bytes));
    EXPECT_TRUE(is(address, NetworkAddress::IPV6, GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, FormOfIPv6,
    testing::Values(
        "::", "::1", "fe80::", "::ffff:192.168.100.200", "2001:db8::1:0:0:1",
        "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "1:0:2:0:3:0:4:0"));

TEST(NetworkAddress, TakesSixBytesForALink) {
    NetworkAddress address(NetworkAddress::IPV6, "::1");
    unsigned char const mac[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    EXPECT_FALSE(address.set(0, mac));
    EXPECT_TRUE(is(address, NetworkAddress::LINK, "00:1a:2b:3c:4d:5e"));
}

TEST(NetworkAddress, WritesTheHighestBytesOfALink) {
    NetworkAddress address;
    unsigned char const mac[] = {0xff, 0xf0, 0x0f, 0x80, 0xfe, 0x01};
    EXPECT_FALSE(address.set(0, mac));
    EXPECT_TRUE(is(address, NetworkAddress::LINK, "ff:f0:0f:80:fe:01"));
}

TEST(NetworkAddress, TakesBytesFromAnyPlace) {
    alignas(16) unsigned char shifted[17] = {};
    for (size_t i = 0; i < sizeof BYTES; ++i) {
        shifted[i + 1] = BYTES[i];
    }
    NetworkAddress address;
    EXPECT_FALSE(address.set(AF_INET6, shifted + 1));
    EXPECT_TRUE(is(address, NetworkAddress::IPV6, "fe80::1a:2bff:fe4d:5e09"));
    EXPECT_FALSE(address.set(AF_INET, shifted + 1));
    EXPECT_TRUE(is(address, NetworkAddress::IPV4, "254.128.0.0"));
}

class Family : public testing::TestWithParam<int> {};

TEST_P(Family, ChangesNothingWithoutData) {
    NetworkAddress address = FULL;
    EXPECT_TRUE(address.set(GetParam(), nullptr));
    EXPECT_TRUE(is(address, FULL.getType(), FULL.getText()));
}

INSTANTIATE_TEST_SUITE_P(All, Family, testing::Values(0, AF_INET, AF_INET6, AF_UNIX, -1));

class UnknownFamily : public testing::TestWithParam<int> {};

TEST_P(UnknownFamily, LeavesNoAddressAndFails) {
    NetworkAddress address = FULL;
    EXPECT_TRUE(address.set(GetParam(), BYTES));
    EXPECT_TRUE(is(address, NetworkAddress::NONE, ""));
}

INSTANTIATE_TEST_SUITE_P(Some, UnknownFamily, testing::Values(AF_UNIX, AF_PACKET, 3, 9, 11, -1, 0x7fffffff));

TEST(NetworkAddress, BeginsWithoutAnAddress) {
    EXPECT_TRUE(is(NetworkAddressBase(), NetworkAddress::NONE, ""));
    EXPECT_TRUE(is(NetworkAddress(), NetworkAddress::NONE, ""));
}

TEST(NetworkAddress, IsEqualInTypeAndText) {
    NetworkAddress const address(NetworkAddress::IPV4, "10.0.0.1");
    EXPECT_TRUE(address == NetworkAddress(NetworkAddress::IPV4, "10.0.0.1"));
    EXPECT_TRUE(address != NetworkAddress(NetworkAddress::IPV4, "10.0.0.2"));
    EXPECT_TRUE(address != NetworkAddress(NetworkAddress::IPV6, "10.0.0.1"));
    EXPECT_FALSE(address != address);
}

TEST(NetworkAddressBase, HasTheAddressesThatStandForAll) {
    EXPECT_TRUE(is(NetworkAddressBase::ANY_IPv4, NetworkAddressBase::IPV4, "0.0.0.0"));
    EXPECT_TRUE(is(NetworkAddressBase::ANY_IPv6, NetworkAddressBase::IPV6, "::"));
}

// The library is initialised before what is linked to it.
std::string const s_any =
    NetworkAddressBase::ANY_IPv4.getText() + " " + NetworkAddressBase::ANY_IPv6.getText();

TEST(NetworkAddressBase, HasThemForTheInitialisersOfAProgram) {
    EXPECT_EQ("0.0.0.0 ::", s_any);
}

// ---- interfaces ----

TEST(NetworkInterface, HasTheNumberOfItsName) {
    EXPECT_NE(0U, if_nametoindex("lo"));
    EXPECT_EQ(if_nametoindex("lo"), NetworkInterface("lo").getIndex());
}

TEST(NetworkInterface, HasNoNumberForAnUnknownName) {
    EXPECT_EQ(0U, NetworkInterface("no-such-if").getIndex());
    EXPECT_EQ(0U, NetworkInterface("").getIndex());
    EXPECT_EQ(0U, NetworkInterface(std::string(5000, 'x')).getIndex());
}

TEST(NetworkInterface, LooksUpAtItsConstructionOnly) {
    VESK_SKIP_WITHOUT_NETWORKS();
    support::expectInNetwork([] {
        ASSERT_TRUE(support::makePair("left", "right"));
        NetworkInterface const left("left");
        NetworkInterface const right("right");
        EXPECT_NE(0U, left.getIndex());
        EXPECT_NE(0U, right.getIndex());
        EXPECT_NE(left.getIndex(), right.getIndex());
        ASSERT_TRUE(support::renameInterface("left", "other"));
        EXPECT_EQ(left.getIndex(), NetworkInterface("other").getIndex());
        EXPECT_EQ(0U, NetworkInterface("left").getIndex());
        ASSERT_TRUE(support::removeInterface("other"));
        EXPECT_EQ(0U, NetworkInterface("right").getIndex());
        EXPECT_NE(0U, right.getIndex());
    });
}

TEST(NetworkInterface, SupportsTheNetworksOfTests) {
    VESK_SKIP_WITHOUT_NETWORKS();
    support::expectInNetwork([] {
        ASSERT_TRUE(support::makeInterface("lone"));
        ASSERT_TRUE(support::setUp("lone"));
        ASSERT_TRUE(support::addAddress("lone", "10.0.0.1/24 brd +"));
        ASSERT_TRUE(support::addAddress("lone", "fd00::1/64 nodad"));
        ASSERT_TRUE(support::removeAddress("lone", "fd00::1/64"));
        ASSERT_TRUE(support::setDown("lone"));
        EXPECT_FALSE(support::setUp("none"));
        EXPECT_FALSE(support::removeAddress("lone", "10.0.0.2/24"));
    });
    EXPECT_EQ(0U, NetworkInterface("lone").getIndex());
}

} // namespace
