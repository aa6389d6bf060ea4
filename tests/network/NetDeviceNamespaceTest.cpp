#include "support/Chain.h"
#include "support/NetworkNamespace.h"
#include "support/TempFolder.h"
#include "threads/ThreadSupport.h"

#include <vesk/NetDevice.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <string>
#include <sys/mount.h>
#include <vector>

/// Real interfaces in networks of the tests' own.

namespace {

using support::addAddress;
using support::chainIs;
using support::expectInNetwork;
using support::makeInterface;
using support::makePair;
using support::removeInterface;
using support::renameInterface;
using support::rowText;
using support::setDown;
using support::setUp;
using support::systemText;
using vesk::NetDevice;
using vesk::SysError;
using Info = NetDevice::InterfaceInfo;

testing::AssertionResult isPending(std::ErrorType const& family, int id, std::string const& argument) {
    return chainIs({{family, id, rowText(family, id, argument)}});
}

testing::AssertionResult isPending(int id, int error) {
    return isPending(SysError, id, systemText(error));
}

/// What a fresh object tells of an interface; without a name after a failure.
Info look(char const* name) {
    NetDevice device(name);
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

std::string getAddress(Info const& info) {
    return info.has_address ? info.address.host : "none";
}

std::string getNetmask(Info const& info) {
    return info.has_netmask ? info.netmask.host : "none";
}

std::string getBroadcast(Info const& info) {
    return info.has_broadcast_address ? info.broadcast_address.host : "none";
}

std::vector<std::string> walk() {
    std::vector<std::string> names;
    NetDevice devices(nullptr);
    Info info;
    while (devices.getNextInfo(info) == 0) {
        names.push_back(info.name);
    }
    EXPECT_TRUE(chainIs({}));
    return names;
}

// ---- asking ----

TEST(NetDeviceNamespace, TellsOfAFreshLoopback) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        EXPECT_EQ(std::vector<std::string>{"lo"}, walk());
        Info const up = look("lo");
        EXPECT_EQ(Info::LOOPBACK, up.type);
        EXPECT_TRUE(up.up && up.running);
        EXPECT_FALSE(up.broadcast || up.multicast || up.promiscuous);
        EXPECT_EQ(static_cast<uint32_t>(IFF_UP | IFF_LOOPBACK | IFF_RUNNING), up.flags);
        EXPECT_EQ("127.0.0.1", getAddress(up));
        EXPECT_EQ("255.0.0.0", getNetmask(up));
        EXPECT_EQ("none", getBroadcast(up));
        EXPECT_EQ("none", getMac(up));
        EXPECT_EQ(0, up.address.port + up.netmask.port);
        EXPECT_EQ(65536, up.mtu);

        ASSERT_TRUE(setDown("lo"));
        Info const down = look("lo");
        EXPECT_FALSE(down.up || down.running);
    });
}

TEST(NetDeviceNamespace, TellsAllOfAnEthernetInterface) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makePair("left", "right"));
        ASSERT_TRUE(support::ip("link set dev left address 02:1a:2b:3c:4d:ff mtu 1400"));
        ASSERT_TRUE(addAddress("left", "10.1.34.5/20 brd +"));
        ASSERT_TRUE(setUp("left"));
        ASSERT_TRUE(setUp("right"));
        EXPECT_EQ(3U, walk().size());
        // The kernel notices the link of its pair in its own time.
        EXPECT_TRUE(support::eventually([] { return look("left").running; }));
        Info const info = look("left");
        EXPECT_EQ("left", info.name);
        EXPECT_EQ("10.1.34.5", getAddress(info));
        EXPECT_EQ("255.255.240.0", getNetmask(info));
        EXPECT_EQ("10.1.47.255", getBroadcast(info));
        EXPECT_EQ("02:1a:2b:3c:4d:ff", getMac(info));
        EXPECT_EQ(1400, info.mtu);
        EXPECT_EQ(Info::OTHER, info.type);
        EXPECT_TRUE(info.up && info.broadcast && info.multicast);
        EXPECT_FALSE(info.promiscuous);
        EXPECT_EQ(static_cast<uint32_t>(IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST), info.flags);
    });
}

TEST(NetDeviceNamespace, TellsOfAnInterfaceWithoutAddress) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("bare"));
        Info const info = look("bare");
        EXPECT_EQ("none", getAddress(info));
        EXPECT_EQ("none", getNetmask(info));
        EXPECT_EQ("none", getBroadcast(info));
        EXPECT_EQ("", info.address.host + info.netmask.host + info.broadcast_address.host);
        EXPECT_TRUE(info.has_hardware_address && info.broadcast);
        EXPECT_FALSE(info.up || info.running);
    });
}

TEST(NetDeviceNamespace, DoesNotTellOfAddressesOfTheOtherVersion) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("six"));
        ASSERT_TRUE(setUp("six"));
        ASSERT_TRUE(addAddress("six", "fd00::1/64 nodad"));
        EXPECT_EQ("none", getAddress(look("six")));
    });
}

TEST(NetDeviceNamespace, TellsOfAnAddressWithoutBroadcastAddress) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("quiet"));
        ASSERT_TRUE(addAddress("quiet", "10.1.0.1/32"));
        Info const info = look("quiet");
        EXPECT_EQ("10.1.0.1", getAddress(info));
        EXPECT_EQ("255.255.255.255", getNetmask(info));
        EXPECT_EQ("0.0.0.0", getBroadcast(info));
    });
}

TEST(NetDeviceNamespace, TellsTheFirstOfSeveralAddresses) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("many"));
        ASSERT_TRUE(addAddress("many", "10.1.0.1/16 brd +"));
        ASSERT_TRUE(addAddress("many", "10.1.0.2/16 brd +"));
        ASSERT_TRUE(addAddress("many", "10.2.0.1/24 brd +"));
        Info const info = look("many");
        EXPECT_EQ("10.1.0.1", getAddress(info));
        EXPECT_EQ("255.255.0.0", getNetmask(info));
        EXPECT_EQ("10.1.255.255", getBroadcast(info));
    });
}

TEST(NetDeviceNamespace, TellsOfAPointToPointLink) {
    VESK_SKIP_WITHOUT_NETWORKS();
    constexpr char const* MAKE = "tuntap add dev link mode tun";
    if (support::runInChild([] { EXPECT_TRUE(support::separateNetwork() && support::ip(MAKE)); }).exit_code !=
        0) {
        GTEST_SKIP() << "the kernel has no tunnels, which are the links with one other end";
    }
    expectInNetwork([] {
        ASSERT_TRUE(support::ip(MAKE));
        ASSERT_TRUE(addAddress("link", "10.9.0.1 peer 10.9.0.2/32"));
        Info const info = look("link");
        EXPECT_EQ(Info::POINT_TO_POINT, info.type);
        EXPECT_FALSE(info.broadcast);
        EXPECT_EQ("none", getMac(info));
        EXPECT_EQ("none", getBroadcast(info));
        EXPECT_EQ("10.9.0.1", getAddress(info));
        EXPECT_EQ("255.255.255.255", getNetmask(info));
    });
}

TEST(NetDeviceNamespace, FindsANameOfFullLength) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        std::string const name = "fifteen-letters";
        ASSERT_EQ(15U, name.size());
        ASSERT_TRUE(makeInterface(name));
        EXPECT_EQ(name, look(name.c_str()).name);
        EXPECT_EQ((std::vector<std::string>{"lo", name}), walk());
        NetDevice device(name.c_str());
        EXPECT_FALSE(device.setInterfaceStatus(true));
        EXPECT_FALSE(device.setAddress("10.1.0.1"));
        EXPECT_EQ("10.1.0.1", getAddress(look(name.c_str())));

        for (size_t const length : {16U, 17U, 300U}) {
            NetDevice const longer((name + std::string(length - 15, 's')).c_str());
            EXPECT_FALSE(longer.isValid());
            EXPECT_TRUE(isPending(16, ENODEV)) << length;
        }
        NetDevice const shorter("fifteen-letter");
        EXPECT_FALSE(shorter.isValid());
        EXPECT_TRUE(isPending(16, ENODEV));
    });
}

// ---- interfaces that come and go ----

TEST(NetDeviceNamespace, GoesOnBehindAnInterfaceThatIsGone) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
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
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_EQ("", info.name);
        EXPECT_TRUE(devices.setAddress("10.1.0.1"));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_TRUE(devices.setNetmask("255.0.0.0"));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_TRUE(devices.setInterfaceStatus(true));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_TRUE(devices.setPromiscuous(true));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_EQ(0, devices.getNextInfo(info));
        EXPECT_EQ("three", info.name);
        EXPECT_EQ(1, devices.getNextInfo(info));
    });
}

TEST(NetDeviceNamespace, KnowsInterfacesByTheNameThatTheyHadAtTheStart) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("old"));
        NetDevice device("old");
        NetDevice again("old");
        NetDevice devices(nullptr);
        ASSERT_TRUE(renameInterface("old", "new"));
        Info info;
        EXPECT_EQ(-1, device.getNextInfo(info));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_EQ(1, device.getNextInfo(info));
        EXPECT_TRUE(again.setAddress("10.1.0.1"));
        EXPECT_TRUE(isPending(19, ENODEV));

        ASSERT_TRUE(makeInterface("late"));
        EXPECT_EQ(0, devices.getNextInfo(info));
        EXPECT_EQ(-1, devices.getNextInfo(info));
        EXPECT_TRUE(isPending(19, ENODEV));
        EXPECT_EQ(1, devices.getNextInfo(info));
        EXPECT_EQ((std::vector<std::string>{"lo", "new", "late"}), walk());
    });
}

// ---- addresses ----

TEST(NetDeviceNamespace, SetsAnAddressWithWhatItsClassBrings) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        EXPECT_FALSE(device.setAddress("10.1.2.3"));
        Info info = look("dev0");
        EXPECT_EQ("10.1.2.3", getAddress(info));
        EXPECT_EQ("255.0.0.0", getNetmask(info));
        EXPECT_EQ("10.255.255.255", getBroadcast(info));
        EXPECT_FALSE(device.setAddress("192.168.7.1"));
        info = look("dev0");
        EXPECT_EQ("192.168.7.1", getAddress(info));
        EXPECT_EQ("255.255.255.0", getNetmask(info));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST(NetDeviceNamespace, SetsANetmask) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        EXPECT_TRUE(device.setNetmask("255.255.0.0"));
        EXPECT_TRUE(isPending(19, EADDRNOTAVAIL)) << "there is no address yet";
        ASSERT_FALSE(device.setAddress("10.1.2.3"));
        EXPECT_FALSE(device.setNetmask("255.255.240.0"));
        EXPECT_EQ("10.1.2.3", getAddress(look("dev0")));
        EXPECT_EQ("255.255.240.0", getNetmask(look("dev0")));
        EXPECT_EQ("10.1.15.255", getBroadcast(look("dev0")));
        EXPECT_TRUE(device.setNetmask("255.0.255.0"));
        EXPECT_TRUE(isPending(19, EINVAL));
        EXPECT_EQ("255.255.240.0", getNetmask(look("dev0")));
    });
}

TEST(NetDeviceNamespace, TakesTheAddressAwayWithAnEmptyText) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        for (char const* const text : {"", static_cast<char const*>(nullptr), "0.0.0.0"}) {
            ASSERT_FALSE(device.setAddress("10.1.2.3"));
            ASSERT_EQ("10.1.2.3", getAddress(look("dev0")));
            EXPECT_FALSE(device.setAddress(text));
            EXPECT_EQ("none", getAddress(look("dev0")));
            // There is nothing to take away any more.
            EXPECT_FALSE(device.setAddress(text));
        }
        ASSERT_FALSE(device.setAddress("10.1.2.3"));
        EXPECT_FALSE(device.setNetmask(""));
        EXPECT_EQ("0.0.0.0", getNetmask(look("dev0")));
        EXPECT_FALSE(device.setNetmask("255.0.0.0"));
        EXPECT_FALSE(device.setNetmask(nullptr));
        EXPECT_EQ("0.0.0.0", getNetmask(look("dev0")));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST(NetDeviceNamespace, RefusesWhatIsNoAddressOfAnInterface) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        EXPECT_TRUE(device.setAddress("224.0.0.1"));
        EXPECT_TRUE(isPending(19, EINVAL));
        EXPECT_TRUE(device.setAddress("::1"));
        EXPECT_TRUE(
            isPending(std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"));
        EXPECT_EQ("none", getAddress(look("dev0")));
    });
}

/// Gives the calling process, a child, host names of its own and no others: nothing asks a name server.
testing::AssertionResult replaceHosts(support::TempFolder const& folder, std::string const& hosts) {
    std::string const files[] = {folder.makeFile("hosts", hosts), folder.makeFile("order", "hosts: files\n")};
    if (support::separateMounts() && mount(files[0].c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0 &&
        mount(files[1].c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << strerror(errno);
}

TEST(NetDeviceNamespace, SetsAnAddressByAHostName) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_MOUNTS();
    support::TempFolder const folder;
    expectInNetwork([&folder] {
        ASSERT_TRUE(replaceHosts(
            folder,
            "127.0.0.1 localhost\n10.7.7.7 device.test\n255.255.128.0 mask.test\nfd00::7 device.test "
            "six.test\n"));
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        EXPECT_FALSE(device.setAddress("device.test"));
        EXPECT_FALSE(device.setNetmask("mask.test"));
        EXPECT_TRUE(chainIs({}));
        Info const info = look("dev0");
        EXPECT_EQ("10.7.7.7", getAddress(info));
        EXPECT_EQ("255.255.128.0", getNetmask(info));
    });
}

TEST(NetDeviceNamespace, RefusesAHostNameThatLeadsNowhere) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_WITHOUT_MOUNTS();
    support::TempFolder const folder;
    expectInNetwork([&folder] {
        ASSERT_TRUE(replaceHosts(folder, "fd00::7 six.test\n"));
        ASSERT_TRUE(makeInterface("dev0"));
        NetDevice device("dev0");
        for (char const* const name :
             {"nobody.test", "six.test", "10.1.2.256", "10.1.2.3/8", "10.1.2.3 ", " "}) {
            EXPECT_TRUE(device.setAddress(name)) << name;
            EXPECT_TRUE(isPending(
                std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"))
                << name;
            EXPECT_TRUE(device.setNetmask(name)) << name;
            EXPECT_TRUE(isPending(
                std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"))
                << name;
        }
        // The cursor has not moved.
        Info info;
        EXPECT_EQ(0, device.getNextInfo(info));
        EXPECT_EQ("none", getAddress(info));
    });
}

// ---- flags ----

TEST(NetDeviceNamespace, SwitchesAnInterfaceOnAndOff) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makePair("left", "right"));
        ASSERT_TRUE(setUp("right"));
        NetDevice device("left");
        EXPECT_FALSE(device.setInterfaceStatus(true));
        EXPECT_TRUE(look("left").up);
        EXPECT_TRUE(support::eventually([] { return look("right").running; }));
        EXPECT_FALSE(device.setInterfaceStatus(true));
        EXPECT_TRUE(look("left").up);
        EXPECT_FALSE(device.setInterfaceStatus(false));
        EXPECT_FALSE(look("left").up);
        EXPECT_TRUE(support::eventually([] { return !look("right").running; }));
        EXPECT_FALSE(device.setInterfaceStatus(false));
        EXPECT_FALSE(look("left").up);
        EXPECT_TRUE(chainIs({}));
    });
}

TEST(NetDeviceNamespace, SwitchesPromiscuousModeOnAndOff) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
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
    });
}

// ---- the cursor ----

TEST(NetDeviceNamespace, SetsTheInterfaceThatTheWalkIsAt) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("one"));
        ASSERT_TRUE(makeInterface("two"));
        NetDevice devices(nullptr);
        Info info;
        int number = 0;
        while (devices.getNextInfo(info) == 0) {
            if (info.type == Info::OTHER) {
                EXPECT_FALSE(devices.setAddress(("10." + std::to_string(++number) + ".0.1").c_str()));
                EXPECT_FALSE(devices.setInterfaceStatus(number == 2));
            }
        }
        EXPECT_EQ("10.1.0.1", getAddress(look("one")));
        EXPECT_FALSE(look("one").up);
        EXPECT_EQ("10.2.0.1", getAddress(look("two")));
        EXPECT_TRUE(look("two").up);
        EXPECT_EQ("127.0.0.1", getAddress(look("lo")));
        EXPECT_TRUE(devices.setInterfaceStatus(false));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "no current interface"));
    });
}

TEST(NetDeviceNamespace, SetsTheFirstInterfaceBeforeTheWalk) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("one"));
        NetDevice devices(nullptr);
        EXPECT_FALSE(devices.setInterfaceStatus(false));
        EXPECT_FALSE(look("lo").up);
        Info info;
        EXPECT_EQ(0, devices.getNextInfo(info));
        EXPECT_EQ("one", info.name);
    });
}

// ---- rights ----

TEST(NetDeviceNamespace, ChangesNothingWithoutTheRight) {
    VESK_SKIP_WITHOUT_NETWORKS();
    VESK_SKIP_UNLESS_ROOT();
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("dev0"));
        ASSERT_TRUE(addAddress("dev0", "10.1.2.3/8"));
        ASSERT_TRUE(support::dropRights());
        NetDevice device("dev0");
        Info info;
        ASSERT_EQ(0, device.getNextInfo(info));
        EXPECT_EQ("10.1.2.3", getAddress(info));
        EXPECT_TRUE(device.setAddress("10.1.2.4"));
        EXPECT_TRUE(isPending(7, EPERM));
        EXPECT_TRUE(device.setNetmask("255.255.0.0"));
        EXPECT_TRUE(isPending(7, EPERM));
        EXPECT_TRUE(device.setInterfaceStatus(true));
        EXPECT_TRUE(isPending(7, EPERM));
        EXPECT_TRUE(device.setPromiscuous(true));
        EXPECT_TRUE(isPending(7, EPERM));
        info = look("dev0");
        EXPECT_EQ("10.1.2.3", getAddress(info));
        EXPECT_EQ("255.0.0.0", getNetmask(info));
        EXPECT_FALSE(info.up || info.promiscuous);
    });
}

} // namespace
