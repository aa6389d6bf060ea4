#include "support/NetworkNamespace.h"
#include "support/TempFolder.h"

#include "NetDeviceSupport.h"

#include <tarncommon/tarnbase/NonCopyable.h>

// Real interfaces, those of the machine and in networks of the tests.

namespace {

using namespace support;
using vesk::NetDevice;
namespace SysErrorId = vesk::SysErrorId;
using Info = NetDevice::InterfaceInfo;
using Names = std::vector<std::string>;

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

/// Returns what a new object reports about an interface; without a name after a failure.
Info look(std::string const& name) {
    NetDevice device(name.c_str());
    Info info;
    EXPECT_EQ(0, device.getNextInfo(info)) << name;
    EXPECT_TRUE(chainIs({}));
    return info;
}

std::string getMac(Info const& info) {
    char text[18];
    unsigned char const* const bytes = info.hardware_address;
    snprintf(
        text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
        bytes[5]);
    return info.has_hardware_address ? text : "none";
}

/// Returns address, netmask and broadcast address.
std::string getAddresses(Info const& info) {
    return (info.has_address ? info.address.host : "none") + " " +
        (info.has_netmask ? info.netmask.host : "none") + " " +
        (info.has_broadcast_address ? info.broadcast_address.host : "none");
}
std::string getAddresses(std::string const& name) {
    return getAddresses(look(name));
}
std::string getAddress(std::string const& name) {
    Info const info = look(name);
    return info.has_address ? info.address.host : "none";
}

Names walk() {
    Names names;
    NetDevice devices(nullptr);
    EXPECT_TRUE(devices.isValid());
    Info info;
    int result = 0;
    while ((result = devices.getNextInfo(info)) == 0) {
        names.push_back(info.name);
    }
    EXPECT_EQ(1, result);
    EXPECT_TRUE(chainIs({}));
    return names;
}

TEST(NetDevice, walksAllInterfacesInTheOrderOfTheSystem) {
    Names names;
    struct if_nameindex* const list = if_nameindex();
    for (struct if_nameindex const* row = list; row != nullptr && row->if_index != 0; ++row) {
        names.emplace_back(row->if_name);
    }
    if_freenameindex(list);
    EXPECT_FALSE(names.empty());
    EXPECT_EQ(names, walk());
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

TEST(NetDevice, doesNotFindAnUnknownName) {
    using namespace std::string_literals;
    for (std::string const& name :
         {""s, "no-such-device"s, "lo "s, "LO"s, "%d"s, std::string(15, 'x'), std::string(16, 'x'),
          std::string(17, 'x'), std::string(300, 'x'), "lo\nlo"s, "\xff\xfe"s}) {
        EXPECT_FALSE(NetDevice(name.c_str()).isValid()) << name;
        EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV)) << name;
    }
}

VESK_NETWORK_TEST(NetDeviceNamespace, reportsANewLoopback) {
    EXPECT_EQ(Names{"lo"}, walk());
    Info const up = look("lo");
    EXPECT_EQ(Info::LOOPBACK, up.type);
    EXPECT_TRUE(up.up && up.running);
    EXPECT_FALSE(up.broadcast || up.multicast || up.promiscuous);
    EXPECT_EQ(static_cast<uint32_t>(IFF_UP | IFF_LOOPBACK | IFF_RUNNING), up.flags);
    EXPECT_EQ("127.0.0.1 255.0.0.0 none", getAddresses(up));
    EXPECT_EQ("none", getMac(up));
    EXPECT_EQ(0, up.address.port + up.netmask.port);
    EXPECT_EQ(65536, up.mtu);

    ASSERT_TRUE(setDown("lo"));
    Info const down = look("lo");
    EXPECT_FALSE(down.up || down.running);
}

VESK_NETWORK_TEST(NetDeviceNamespace, reportsEverythingAboutAnEthernetInterface) {
    ASSERT_TRUE(makePair("left", "right"));
    ASSERT_TRUE(ip("link set dev left address 02:1a:2b:3c:4d:ff mtu 1400"));
    ASSERT_TRUE(addAddress("left", "10.1.34.5/20 brd +"));
    ASSERT_TRUE(setUp("left"));
    ASSERT_TRUE(setUp("right"));
    EXPECT_EQ(3U, walk().size());
    // The kernel detects the link of the pair some time later.
    EXPECT_TRUE(eventually([] { return look("left").running; }));
    Info const info = look("left");
    EXPECT_EQ("left", info.name);
    EXPECT_EQ("10.1.34.5 255.255.240.0 10.1.47.255", getAddresses(info));
    EXPECT_EQ("02:1a:2b:3c:4d:ff", getMac(info));
    EXPECT_EQ(1400, info.mtu);
    EXPECT_EQ(Info::OTHER, info.type);
    EXPECT_TRUE(info.up && info.broadcast && info.multicast);
    EXPECT_FALSE(info.promiscuous);
    EXPECT_EQ(static_cast<uint32_t>(IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST), info.flags);
}

VESK_NETWORK_TEST(NetDeviceNamespace, reportsTheFirstIPv4AddressIfThereIsOne) {
    ASSERT_TRUE(makeInterface("bare"));
    Info const info = look("bare");
    EXPECT_EQ("none none none", getAddresses(info));
    EXPECT_EQ("", info.address.host + info.netmask.host + info.broadcast_address.host);
    EXPECT_TRUE(info.has_hardware_address && info.broadcast);
    EXPECT_FALSE(info.up || info.running);
    ASSERT_TRUE(setUp("bare"));
    ASSERT_TRUE(addAddress("bare", "fd00::1/64 nodad"));
    EXPECT_EQ("none", getAddress("bare"));
    ASSERT_TRUE(addAddress("bare", "10.1.0.1/16 brd +"));
    ASSERT_TRUE(addAddress("bare", "10.1.0.2/16 brd +"));
    ASSERT_TRUE(addAddress("bare", "10.2.0.1/24 brd +"));
    EXPECT_EQ("10.1.0.1 255.255.0.0 10.1.255.255", getAddresses("bare"));
    ASSERT_TRUE(makeInterface("quiet"));
    ASSERT_TRUE(addAddress("quiet", "10.1.0.1/32"));
    EXPECT_EQ("10.1.0.1 255.255.255.255 0.0.0.0", getAddresses("quiet")) << "without a broadcast address";
}

TEST(NetDeviceNamespace, reportsAPointToPointLink) {
    VESK_SKIP_WITHOUT_NETWORKS();
    constexpr char const* MAKE = "tuntap add dev link mode tun";
    if (runInChild([] { EXPECT_TRUE(separateNetwork() && ip(MAKE)); }).exit_code != 0) {
        GTEST_SKIP() << "the kernel has no tunnels, which are the links with one other end";
    }
    expectInNetwork([] {
        ASSERT_TRUE(ip(MAKE));
        ASSERT_TRUE(addAddress("link", "10.9.0.1 peer 10.9.0.2/32"));
        Info const info = look("link");
        EXPECT_EQ(Info::POINT_TO_POINT, info.type);
        EXPECT_FALSE(info.broadcast);
        EXPECT_EQ("none", getMac(info));
        EXPECT_EQ("10.9.0.1 255.255.255.255 none", getAddresses(info));
    });
}

VESK_NETWORK_TEST(NetDeviceNamespace, findsANameOfFullLength) {
    std::string const name = "fifteen-letters";
    ASSERT_EQ(15U, name.size());
    ASSERT_TRUE(makeInterface(name));
    EXPECT_EQ(name, look(name).name);
    EXPECT_EQ((Names{"lo", name}), walk());
    NetDevice device(name.c_str());
    EXPECT_FALSE(device.setInterfaceStatus(true));
    EXPECT_FALSE(device.setAddress("10.1.0.1"));
    EXPECT_EQ("10.1.0.1", getAddress(name));
    for (std::string const& other :
         {name + "s", name + "ss", name + std::string(285, 's'), std::string("fifteen-letter")}) {
        EXPECT_FALSE(NetDevice(other.c_str()).isValid());
        EXPECT_TRUE(causeIs(SysErrorId::NO_DEVICE, ENODEV)) << other;
    }
}

VESK_NETWORK_TEST(NetDeviceNamespace, continuesBehindARemovedInterface) {
    for (char const* const name : {"one", "two", "three"}) {
        ASSERT_TRUE(makeInterface(name));
    }
    NetDevice devices(nullptr);
    Info info;
    ASSERT_EQ(0, devices.getNextInfo(info));
    ASSERT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("one", info.name);
    ASSERT_TRUE(removeInterface("two"));
    EXPECT_EQ(-1, devices.getNextInfo(info));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, ENODEV));
    EXPECT_EQ("", info.name);
    expectSettersFail(devices, SysErrorId::UNCLASSIFIED, systemText(ENODEV));
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("three", info.name);
    EXPECT_EQ(1, devices.getNextInfo(info));
}

VESK_NETWORK_TEST(NetDeviceNamespace, keepsTheNamesOfTheInterfaces) {
    ASSERT_TRUE(makeInterface("old"));
    NetDevice device("old");
    NetDevice again("old");
    NetDevice devices(nullptr);
    ASSERT_TRUE(renameInterface("old", "new"));
    Info info;
    EXPECT_EQ(-1, device.getNextInfo(info));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, ENODEV));
    EXPECT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(again.setAddress("10.1.0.1"));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, ENODEV));

    ASSERT_TRUE(makeInterface("late"));
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ(-1, devices.getNextInfo(info));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, ENODEV));
    EXPECT_EQ(1, devices.getNextInfo(info));
    EXPECT_EQ((Names{"lo", "new", "late"}), walk());
}

VESK_NETWORK_TEST(NetDeviceNamespace, setsAnAddressAndANetmaskThatTheSystemAccepts) {
    ASSERT_TRUE(makeInterface("dev0"));
    NetDevice device("dev0");
    EXPECT_TRUE(device.setNetmask("255.255.0.0"));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EADDRNOTAVAIL)) << "there is no address yet";
    EXPECT_TRUE(device.setAddress("224.0.0.1"));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EINVAL));
    EXPECT_TRUE(device.setAddress("::1"));
    EXPECT_TRUE(isUnresolved());
    EXPECT_EQ("none", getAddress("dev0"));
    // With the netmask of its class.
    EXPECT_FALSE(device.setAddress("192.168.7.1"));
    EXPECT_EQ("192.168.7.1 255.255.255.0 192.168.7.255", getAddresses("dev0"));
    EXPECT_FALSE(device.setAddress("10.1.2.3"));
    EXPECT_EQ("10.1.2.3 255.0.0.0 10.255.255.255", getAddresses("dev0"));
    EXPECT_FALSE(device.setNetmask("255.255.240.0"));
    EXPECT_EQ("10.1.2.3 255.255.240.0 10.1.15.255", getAddresses("dev0"));
    EXPECT_TRUE(device.setNetmask("255.0.255.0"));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EINVAL));
    EXPECT_EQ("10.1.2.3 255.255.240.0 10.1.15.255", getAddresses("dev0"));

    for (char const* const text : {"", static_cast<char const*>(nullptr), "0.0.0.0"}) {
        ASSERT_FALSE(device.setAddress("10.1.2.3"));
        ASSERT_EQ("10.1.2.3", getAddress("dev0"));
        EXPECT_FALSE(device.setAddress(text)); // Removes it.
        EXPECT_EQ("none", getAddress("dev0"));
        EXPECT_FALSE(device.setAddress(text)) << "without an address";
    }
    ASSERT_FALSE(device.setAddress("10.1.2.3"));
    for (char const* const text : {"", static_cast<char const*>(nullptr)}) {
        EXPECT_FALSE(device.setNetmask("255.0.0.0"));
        EXPECT_FALSE(device.setNetmask(text));
        EXPECT_EQ("0.0.0.0", look("dev0").netmask.host);
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(NetDeviceNamespace, setsAnAddressByAHostNameThatHasAnIPv4Address) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_MOUNTS();
    TempFolder const folder;
    std::string const files[] = {
        folder.makeFile(
            "hosts",
            "127.0.0.1 localhost\n10.7.7.7 device.test\n255.255.128.0 mask.test\n"
            "fd00::7 device.test six.test\n"),
        folder.makeFile("order", "hosts: files\n")};
    expectInNetwork([&] {
        // The resolver knows these hosts and no name server.
        ASSERT_TRUE(separateMounts()) << strerror(errno);
        ASSERT_EQ(0, mount(files[0].c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr)) << strerror(errno);
        ASSERT_EQ(0, mount(files[1].c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr))
            << strerror(errno);
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        for (char const* const name :
             {"missing.test", "six.test", "10.1.2.256", "10.1.2.3/8", "10.1.2.3 ", " "}) {
            EXPECT_TRUE(device.setAddress(name)) << name;
            EXPECT_TRUE(isUnresolved()) << name;
            EXPECT_TRUE(device.setNetmask(name)) << name;
            EXPECT_TRUE(isUnresolved()) << name;
        }
        // The cursor has not moved.
        Info info;
        EXPECT_EQ(0, device.getNextInfo(info));
        EXPECT_EQ("none none none", getAddresses(info));
        EXPECT_FALSE(device.setAddress("device.test"));
        EXPECT_FALSE(device.setNetmask("mask.test"));
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(0U, getAddresses("dev0").find("10.7.7.7 255.255.128.0 "));
    });
}

VESK_NETWORK_TEST(NetDeviceNamespace, switchesAnInterfaceOnAndOff) {
    ASSERT_TRUE(makePair("left", "right"));
    ASSERT_TRUE(setUp("right"));
    NetDevice device("left");
    for (bool const up : {true, false}) {
        EXPECT_FALSE(device.setInterfaceStatus(up));
        EXPECT_EQ(up, look("left").up);
        EXPECT_TRUE(eventually([up] { return look("right").running == up; }));
        EXPECT_FALSE(device.setInterfaceStatus(up)) << "again";
        EXPECT_EQ(up, look("left").up);
    }
    EXPECT_TRUE(chainIs({}));
}

VESK_NETWORK_TEST(NetDeviceNamespace, switchesPromiscuousModeOnAndOff) {
    ASSERT_TRUE(makePair("left", "right"));
    NetDevice device("left");
    ASSERT_FALSE(device.setInterfaceStatus(true));
    EXPECT_FALSE(device.setPromiscuous(true));
    Info info = look("left");
    EXPECT_TRUE(info.promiscuous && info.up && info.broadcast && info.multicast);
    EXPECT_NE(0U, info.flags & IFF_PROMISC);
    EXPECT_FALSE(look("right").promiscuous);
    EXPECT_FALSE(device.setInterfaceStatus(false));
    EXPECT_TRUE(look("left").promiscuous);
    EXPECT_FALSE(device.setPromiscuous(false));
    info = look("left");
    EXPECT_FALSE(info.promiscuous || info.up);
    EXPECT_TRUE(chainIs({}));
}

TEST(NetDeviceNamespace, changesNothingWithoutTheRight) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_UNLESS_ROOT();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        ASSERT_TRUE(addAddress("dev0", "10.1.2.3/8"));
        ASSERT_TRUE(dropRights());
        NetDevice device("dev0");
        Info info;
        ASSERT_EQ(0, device.getNextInfo(info));
        EXPECT_EQ("10.1.2.3", info.address.host);
        expectSettersFail(device, SysErrorId::PERMISSION_DENIED, systemText(EPERM));
        info = look("dev0");
        EXPECT_EQ(0U, getAddresses(info).find("10.1.2.3 255.0.0.0 "));
        EXPECT_FALSE(info.up || info.promiscuous);
    });
}

} // namespace
