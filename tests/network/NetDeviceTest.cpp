#include "NetDeviceSupport.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <fstream>
#include <type_traits>

// Tests that only read the interfaces of the machine.

namespace {

using namespace support;
using vesk::NetDevice;
namespace CommonErrorId = std::CommonErrorId;
using Info = NetDevice::InterfaceInfo;

static_assert(!std::is_copy_constructible_v<NetDevice> && !std::is_copy_assignable_v<NetDevice>);
static_assert(std::is_base_of_v<tarnbase::NonCopyable, NetDevice>);
static_assert(!std::is_polymorphic_v<NetDevice>);
static_assert(!std::is_convertible_v<char const*, NetDevice>);
static_assert(std::is_same_v<decltype(Info::name), std::string>);
static_assert(std::is_same_v<decltype(Info::address), vesk::IPSocket::IPAddress>);
static_assert(std::is_same_v<decltype(Info::netmask), vesk::IPSocket::IPAddress>);
static_assert(std::is_same_v<decltype(Info::broadcast_address), vesk::IPSocket::IPAddress>);
static_assert(sizeof Info::hardware_address == 6);
static_assert(std::is_same_v<decltype(Info::mtu), int> && std::is_same_v<decltype(Info::type), int>);
static_assert(std::is_same_v<decltype(Info::flags), uint32_t>);
static_assert(Info::LOOPBACK == 0 && Info::POINT_TO_POINT == 1 && Info::OTHER == 2);

std::vector<std::string> getNames() {
    std::vector<std::string> names;
    struct if_nameindex* const list = if_nameindex();
    for (struct if_nameindex const* row = list; row != nullptr && row->if_index != 0; ++row) {
        names.emplace_back(row->if_name);
    }
    if_freenameindex(list);
    return names;
}

TEST(NetDevice, walksAllInterfacesInTheOrderOfTheSystem) {
    NetDevice devices(nullptr);
    ASSERT_TRUE(devices.isValid());
    std::vector<std::string> names;
    Info info;
    int result = 0;
    while ((result = devices.getNextInfo(info)) == 0) {
        names.push_back(info.name);
    }
    EXPECT_EQ(1, result);
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(names.empty());
    EXPECT_EQ(getNames(), names);
}

TEST(NetDevice, reportsASingleInterfaceOnceAndStaysAtTheEndWhereItSetsNothing) {
    NetDevice device("lo");
    ASSERT_TRUE(device.isValid());
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(1, device.getNextInfo(info));
        ASSERT_EQ("lo", info.name) << "the end of the walk must not change the info";
        ASSERT_EQ(Info::LOOPBACK, info.type);
    }
    expectSettersFail(device, CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE);
    EXPECT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(chainIs({}));
}

TEST(NetDevice, walksIndependentlyOfOthersAndDoesNotKeepTheTextOfItsName) {
    NetDevice const unused(nullptr);
    std::string name = "lo";
    NetDevice first(name.c_str());
    NetDevice second(name.c_str());
    name = "no";
    Info info;
    for (int const result : {0, 1}) {
        for (NetDevice* const device : {&first, &second}) {
            EXPECT_EQ(result, device->getNextInfo(info));
            EXPECT_EQ("lo", info.name);
        }
    }
    EXPECT_TRUE(unused.isValid() && NetDevice("lo").isValid());
}

TEST(NetDevice, reportsTheLoopback) {
    NetDevice device("lo");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    EXPECT_EQ(Info::LOOPBACK, info.type);
    EXPECT_FALSE(info.has_hardware_address || info.has_broadcast_address || info.broadcast);
    EXPECT_EQ("", info.broadcast_address.host);
    EXPECT_EQ(info.up, (info.flags & IFF_UP) != 0);
    EXPECT_EQ(static_cast<uint32_t>(IFF_LOOPBACK), info.flags & (IFF_LOOPBACK | IFF_POINTOPOINT | ~0xffffU));
    int mtu = 0;
    ASSERT_TRUE(std::ifstream("/sys/class/net/lo/mtu") >> mtu);
    EXPECT_EQ(mtu, info.mtu);
}

TEST(NetDevice, hasAnEmptyInfoAtFirst) {
    Info const info;
    EXPECT_EQ("", info.name + info.address.host + info.netmask.host + info.broadcast_address.host);
    EXPECT_EQ(0, info.address.port + info.netmask.port + info.broadcast_address.port);
    EXPECT_FALSE(info.has_address || info.has_netmask || info.has_broadcast_address);
    EXPECT_FALSE(info.has_hardware_address);
    EXPECT_FALSE(info.up || info.running || info.promiscuous || info.multicast || info.broadcast);
    EXPECT_EQ(0, info.mtu);
    EXPECT_EQ(Info::OTHER, info.type);
    EXPECT_EQ(0U, info.flags);
}

class UnknownName : public testing::TestWithParam<std::string> {};

TEST_P(UnknownName, makesAnObjectThatDoesNothing) {
    NetDevice device(GetParam().c_str());
    EXPECT_FALSE(device.isValid());
    EXPECT_TRUE(causeIs(vesk::SysErrorId::NO_DEVICE, ENODEV));
    Info info;
    info.name = "before";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(-1, device.getNextInfo(info));
        EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT));
        EXPECT_EQ("", info.name);
        expectSettersFail(device, CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT);
        for (char const* const text : {"no name at all", static_cast<char const*>(nullptr)}) {
            EXPECT_TRUE(device.setAddress(text));
            EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, UnknownName,
    testing::Values(
        "", "no-such-device", "lo ", "LO", "%d", std::string(15, 'x'), std::string(16, 'x'),
        std::string(17, 'x'), std::string(300, 'x'), "lo\nlo", "\xff\xfe"));

} // namespace
