#include "support/Chain.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include "MonitorSupport.h"

#include <vesk/NetDeviceMonitor.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <tuple>
#include <type_traits>

// The table and the callbacks. How the kernel's messages get here is what NetlinkDecoderTest is about.

namespace {

using support::AddrInfo;
using support::chainIs;
using support::EventRecorder;
using support::getSlot;
using support::Info;
using support::Log;
using support::New;
using support::NewFault;
using support::RecordingListener;
using vesk::NetDeviceMonitor;
using vesk::NetworkAddress;

static_assert(!std::is_copy_constructible_v<NetDeviceMonitor>);

AddrInfo ipv4(char const* address, char const* netmask = "255.0.0.0", char const* peer = "10.255.255.255") {
    return {{NetworkAddress::IPV4, address}, {NetworkAddress::IPV4, netmask}, {NetworkAddress::IPV4, peer}};
}

AddrInfo mac(char const* address) {
    return {{NetworkAddress::LINK, address}, {}, {}};
}

/// As the kernel's messages tell one.
AddrInfo ipv6(char const* address) {
    return {{}, {NetworkAddress::IPV6, "ffff::"}, {NetworkAddress::IPV6, address}};
}

class Table : public testing::Test {
protected:
    void up(unsigned short index) { m_monitor.interface_up(index, true, false, false, 1500, true, true); }

    /// An interface that has been told already.
    void addInterface(unsigned short index, char const* name) {
        m_monitor.interface_appeared(index, name);
        up(index);
        m_listener.take();
    }

    RecordingListener m_listener;
    NetDeviceMonitor m_monitor{&m_listener};
};

// ---- interfaces ----

TEST_F(Table, TellsTheBeginningInItsOrder) {
    m_monitor.interface_appeared(3, "eth0");
    up(3);
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ(
        (Log{
            "interface_appeared eth0",
            "interface_status eth0",
            "address_appeared eth0 00:1a:2b:3c:4d:5e",
            "address_operable eth0 00:1a:2b:3c:4d:5e",
            "address_appeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_operable eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
        }),
        m_listener.take());
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast "
        "[00:1a:2b:3c:4d:5e, 10.0.0.1/255.0.0.0 peer 10.255.255.255]",
        m_listener.getInterface());
}

TEST_F(Table, BeginsAnInterfaceWithNothingButNumberAndName) {
    m_monitor.interface_appeared(65535, "eth0");
    EXPECT_EQ("65535 eth0 mtu 0 []", m_listener.getInterface());
}

TEST_F(Table, TellsAnInterfaceOnce) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.interface_appeared(3, "eth0");
    EXPECT_EQ((Log{"interface_appeared eth0"}), m_listener.take());
}

TEST_F(Table, KeepsTheFirstNameOfAnInterface) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.interface_appeared(3, "lan");
    up(3);
    EXPECT_EQ((Log{"interface_appeared eth0", "interface_status eth0"}), m_listener.take());
}

TEST_F(Table, TellsTheStatusOfAKnownInterfaceAndNothingElse) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
    m_listener.take();
    for (int i = 0; i < 3; ++i) {
        m_monitor.interface_appeared(3, "eth0");
        up(3);
        m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
        EXPECT_EQ((Log{"interface_status eth0"}), m_listener.take());
    }
}

TEST_F(Table, TellsANewMacOfAKnownInterface) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
    m_listener.take();
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5f"));
    EXPECT_EQ(
        (Log{"address_appeared eth0 00:1a:2b:3c:4d:5f", "address_operable eth0 00:1a:2b:3c:4d:5f"}),
        m_listener.take());
    // The old one stays: nobody has told that it is gone.
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast [00:1a:2b:3c:4d:5e, 00:1a:2b:3c:4d:5f]",
        m_listener.getInterface());
}

struct StatusRow {
    bool broadcast;
    bool point_to_point;
    bool loopback;
    int mtu;
    char const* interface;
};

class Status : public Table, public testing::WithParamInterface<std::tuple<StatusRow, bool, bool>> {};

// Whatever the link does: the last two arguments have no effect.
TEST_P(Status, IsStoredAndUp) {
    auto const& [row, link_up, present] = GetParam();
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.interface_up(3, row.broadcast, row.point_to_point, row.loopback, row.mtu, link_up, present);
    EXPECT_EQ(row.interface, m_listener.getInterface());
    EXPECT_EQ((Log{"interface_appeared eth0", "interface_status eth0"}), m_listener.take());
}

INSTANTIATE_TEST_SUITE_P(
    All, Status,
    testing::Combine(
        testing::Values(
            StatusRow{false, false, false, 0, "3 eth0 mtu 0 up operable []"},
            StatusRow{true, false, false, 1500, "3 eth0 mtu 1500 up operable broadcast []"},
            StatusRow{false, true, false, 9000, "3 eth0 mtu 9000 up operable point_to_point []"},
            StatusRow{false, false, true, 65536, "3 eth0 mtu 65536 up operable loopback []"},
            StatusRow{
                true, true, true, -1, "3 eth0 mtu -1 up operable broadcast point_to_point loopback []"}),
        testing::Bool(), testing::Bool()));

TEST_F(Table, TakesBackWhatALaterStatusHasNot) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.interface_up(3, true, true, true, 9000, true, true);
    m_monitor.interface_up(3, false, false, false, 1500, false, false);
    EXPECT_EQ("3 eth0 mtu 1500 up operable []", m_listener.getInterface());
}

TEST_F(Table, TellsAddressesOperableWhenTheirInterfaceComesUp) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.2"));
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
    EXPECT_EQ(
        (Log{
            "interface_appeared eth0",
            "address_appeared eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
            "address_appeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_appeared eth0 00:1a:2b:3c:4d:5e",
        }),
        m_listener.take());
    up(3);
    EXPECT_EQ(
        (Log{
            "interface_status eth0",
            "address_operable eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
            "address_operable eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_operable eth0 00:1a:2b:3c:4d:5e",
        }),
        m_listener.take());
    up(3);
    EXPECT_EQ((Log{"interface_status eth0"}), m_listener.take());
}

TEST_F(Table, KeepsInterfacesApart) {
    addInterface(3, "eth0");
    addInterface(4, "eth1");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_monitor.address_appeared(4, ipv4("10.0.0.1"));
    m_monitor.address_disappeared(3, ipv4("10.0.0.1"));
    m_monitor.interface_disappeared(3);
    up(4);
    EXPECT_EQ(
        (Log{
            "address_appeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_operable eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_appeared eth1 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_operable eth1 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_inoperable eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_disappeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "interface_disappeared eth0",
            "interface_status eth1",
        }),
        m_listener.take());
}

// ---- removal of interfaces ----

TEST_F(Table, TellsEachAddressOfARemovedInterfaceFirst) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, mac("00:1a:2b:3c:4d:5e"));
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.interface_disappeared(3);
    EXPECT_EQ(
        (Log{
            "address_inoperable eth0 00:1a:2b:3c:4d:5e",
            "address_disappeared eth0 00:1a:2b:3c:4d:5e",
            "address_inoperable eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "address_disappeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "interface_disappeared eth0",
        }),
        m_listener.take());
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast "
        "[00:1a:2b:3c:4d:5e, 10.0.0.1/255.0.0.0 peer 10.255.255.255]",
        m_listener.getInterface());
}

TEST_F(Table, TellsNoAddressInoperableThatWasNotOperable) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.interface_disappeared(3);
    EXPECT_EQ(
        (Log{
            "address_disappeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255",
            "interface_disappeared eth0",
        }),
        m_listener.take());
}

TEST_F(Table, ForgetsARemovedInterface) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_monitor.interface_disappeared(3);
    m_listener.take();
    m_monitor.interface_appeared(3, "eth1");
    EXPECT_EQ("3 eth1 mtu 0 []", m_listener.getInterface());
    EXPECT_EQ((Log{"interface_appeared eth1"}), m_listener.take());
}

TEST_F(Table, TellsTheRemovalOfAnUnknownInterfaceWithABlankOne) {
    m_monitor.interface_disappeared(3);
    EXPECT_EQ((Log{"interface_disappeared "}), m_listener.take());
    EXPECT_EQ("0  mtu 0 []", m_listener.getInterface());
    // And has kept nothing of it.
    m_monitor.interface_appeared(3, "eth0");
    EXPECT_EQ((Log{"interface_appeared eth0"}), m_listener.take());
}

// Numbers of interfaces are cut to 16 bits, but not where one disappears.
TEST_F(Table, LooksForARemovedInterfaceByItsWholeNumber) {
    addInterface(1, "eth0");
    m_monitor.interface_disappeared(0x10001);
    EXPECT_EQ((Log{"interface_disappeared "}), m_listener.take());
    m_monitor.interface_disappeared(-65535);
    EXPECT_EQ((Log{"interface_disappeared "}), m_listener.take());
    m_monitor.interface_disappeared(1);
    EXPECT_EQ((Log{"interface_disappeared eth0"}), m_listener.take());
}

// ---- addresses ----

TEST_F(Table, TellsAnAddressOnce) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ(Log(), m_listener.take());
}

TEST_F(Table, TakesNeitherNetmaskNorPeerForAnotherAddress) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1", "255.0.0.0", "10.255.255.255"));
    m_listener.take();
    m_monitor.address_appeared(3, ipv4("10.0.0.1", "255.255.0.0", "10.255.255.255"));
    m_monitor.address_appeared(3, ipv4("10.0.0.1", "255.0.0.0", "10.0.0.2"));
    EXPECT_EQ(Log(), m_listener.take());
    // What came first is what stays.
    m_monitor.interface_disappeared(3);
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast [10.0.0.1/255.0.0.0 peer 10.255.255.255]",
        m_listener.getInterface());
}

TEST_F(Table, TakesAnotherTypeForAnotherAddress) {
    addInterface(3, "eth0");
    AddrInfo address = {{NetworkAddress::IPV4, "same"}, {}, {}};
    m_monitor.address_appeared(3, address);
    address.address = NetworkAddress(NetworkAddress::LINK, "same");
    m_monitor.address_appeared(3, address);
    EXPECT_EQ(4U, m_listener.take().size());
    EXPECT_EQ("3 eth0 mtu 1500 up operable broadcast [same, same]", m_listener.getInterface());
}

// The address of one stands in its peer, so that all of an interface look alike.
TEST_F(Table, TakesAllAddressesOfIPv6WithoutAFarEndForOne) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv6("fe80::1"));
    m_monitor.address_appeared(3, ipv6("fd00::1"));
    EXPECT_EQ(
        (Log{"address_appeared eth0 -/ffff:: peer fe80::1", "address_operable eth0 -/ffff:: peer fe80::1"}),
        m_listener.take());
    m_monitor.address_disappeared(3, ipv6("fd00::1"));
    EXPECT_EQ(
        (Log{
            "address_inoperable eth0 -/ffff:: peer fd00::1",
            "address_disappeared eth0 -/ffff:: peer fd00::1",
        }),
        m_listener.take());
    m_monitor.address_disappeared(3, ipv6("fe80::1"));
    EXPECT_EQ(Log(), m_listener.take());
}

TEST_F(Table, HandsAnAddressOnAsItCame) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1", "255.255.255.0", "10.0.0.255"));
    AddrInfo const told = m_listener.getAddress();
    EXPECT_EQ(NetworkAddress::IPV4, told.address.getType());
    EXPECT_EQ("10.0.0.1", told.address.getText());
    EXPECT_EQ("255.255.255.0", told.netmask.getText());
    EXPECT_EQ("10.0.0.255", told.peer.getText());
}

TEST_F(Table, TellsARemovedAddressAndForgetsIt) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_monitor.address_appeared(3, ipv4("10.0.0.2"));
    m_monitor.address_appeared(3, ipv4("10.0.0.3"));
    m_listener.take();
    m_monitor.address_disappeared(3, ipv4("10.0.0.2"));
    EXPECT_EQ(
        (Log{
            "address_inoperable eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
            "address_disappeared eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
        }),
        m_listener.take());
    m_monitor.address_disappeared(3, ipv4("10.0.0.2"));
    EXPECT_EQ(Log(), m_listener.take());
    up(3);
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast "
        "[10.0.0.1/255.0.0.0 peer 10.255.255.255, 10.0.0.3/255.0.0.0 peer 10.255.255.255]",
        m_listener.getInterface());
    m_listener.take();
    m_monitor.address_appeared(3, ipv4("10.0.0.2"));
    EXPECT_EQ(
        (Log{
            "address_appeared eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
            "address_operable eth0 10.0.0.2/255.0.0.0 peer 10.255.255.255",
        }),
        m_listener.take());
}

TEST_F(Table, HasARemovedAddressInItsListWhileItTellsSo) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_monitor.address_disappeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast [10.0.0.1/255.0.0.0 peer 10.255.255.255]",
        m_listener.getInterface());
}

TEST_F(Table, TellsARemovedAddressAsItsRemovalHasIt) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.address_disappeared(3, ipv4("10.0.0.1", "255.255.0.0", "10.0.0.2"));
    EXPECT_EQ(
        (Log{
            "address_inoperable eth0 10.0.0.1/255.255.0.0 peer 10.0.0.2",
            "address_disappeared eth0 10.0.0.1/255.255.0.0 peer 10.0.0.2",
        }),
        m_listener.take());
}

TEST_F(Table, TellsARemovedAddressOfAnInterfaceThatWasNotUp) {
    m_monitor.interface_appeared(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.address_disappeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ((Log{"address_disappeared eth0 10.0.0.1/255.0.0.0 peer 10.255.255.255"}), m_listener.take());
}

TEST_F(Table, TellsNothingOfAnUnknownAddress) {
    addInterface(3, "eth0");
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    m_listener.take();
    m_monitor.address_disappeared(3, ipv4("10.0.0.2"));
    EXPECT_EQ(Log(), m_listener.take());
}

// ---- what comes for an interface that is not known ----

TEST_F(Table, MakesABlankInterfaceForAnAddress) {
    m_monitor.address_appeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ((Log{"address_appeared  10.0.0.1/255.0.0.0 peer 10.255.255.255"}), m_listener.take());
    EXPECT_EQ("0  mtu 0 [10.0.0.1/255.0.0.0 peer 10.255.255.255]", m_listener.getInterface());
}

TEST_F(Table, MakesABlankInterfaceForAStatus) {
    up(3);
    EXPECT_EQ((Log{"interface_status "}), m_listener.take());
    EXPECT_EQ("0  mtu 1500 up operable broadcast []", m_listener.getInterface());
}

// So that the interface never gets its name: a known one cannot appear.
TEST_F(Table, MakesABlankInterfaceForARemovedAddress) {
    m_monitor.address_disappeared(3, ipv4("10.0.0.1"));
    EXPECT_EQ(Log(), m_listener.take());
    m_monitor.interface_appeared(3, "eth0");
    EXPECT_EQ(Log(), m_listener.take());
    up(3);
    EXPECT_EQ((Log{"interface_status "}), m_listener.take());
}

TEST_F(Table, HoldsManyInterfaces) {
    constexpr int COUNT = 65536;
    for (int i = 0; i < COUNT; ++i) {
        m_monitor.interface_appeared(static_cast<unsigned short>(i), "if");
    }
    EXPECT_EQ(static_cast<size_t>(COUNT), m_listener.take().size());
    for (int i = 0; i < COUNT; ++i) {
        m_monitor.interface_appeared(static_cast<unsigned short>(i), "if");
    }
    EXPECT_EQ(Log(), m_listener.take());
}

// ---- the listener ----

TEST(NetDeviceMonitorListener, DoesNothingUnlessItIsOverridden) {
    NetDeviceMonitor::Listener listener;
    NetDeviceMonitor monitor(&listener);
    EventRecorder const events;
    monitor.interface_appeared(3, "eth0");
    monitor.interface_up(3, true, false, false, 1500, true, true);
    monitor.address_appeared(3, ipv4("10.0.0.1"));
    monitor.address_disappeared(3, ipv4("10.0.0.1"));
    monitor.interface_disappeared(3);
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(NetDeviceMonitorListener, HasItsOperationsInThisOrder) {
    using Listener = NetDeviceMonitor::Listener;
    EXPECT_TRUE(std::has_virtual_destructor_v<Listener>);
    EXPECT_EQ(2, getSlot(&Listener::interface_appeared));
    EXPECT_EQ(3, getSlot(&Listener::interface_disappeared));
    EXPECT_EQ(4, getSlot(&Listener::interface_status));
    EXPECT_EQ(5, getSlot(&Listener::address_appeared));
    EXPECT_EQ(6, getSlot(&Listener::address_disappeared));
    EXPECT_EQ(7, getSlot(&Listener::address_operable));
    EXPECT_EQ(8, getSlot(&Listener::address_inoperable));
}

constexpr char const* MISSING = "ASSERT framework/src/vesk/common/NetDeviceMonitor ";

/// The lines of an assertion for each of these operations.
std::string missing(std::initializer_list<char const*> functions) {
    std::string text;
    for (char const* const function : functions) {
        text += (text.empty() ? "" : "\n") + std::string(MISSING) + function + ": m_listener";
    }
    return text;
}

TEST(NetDeviceMonitorWithoutListener, IsReported) {
    NetDeviceMonitor const monitor(nullptr);
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT, "Argument is not usable: Listener must not be null"}}));
}

TEST(NetDeviceMonitorWithoutListener, AssertsBeforeEachCallbackAndKeepsItsTable) {
    NetDeviceMonitor monitor(nullptr);
    EXPECT_EQ(5, std::ErrorStorage::id());
    std::ErrorStorage::ack();
    {
        EventRecorder const events;
        monitor.interface_appeared(3, "eth0");
        monitor.interface_appeared(3, "eth0");
        EXPECT_EQ(missing({"interface_appeared"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.address_appeared(3, ipv4("10.0.0.1"));
        monitor.address_appeared(3, ipv4("10.0.0.1"));
        EXPECT_EQ(missing({"address_appeared"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.interface_up(3, false, false, false, 0, false, false);
        EXPECT_EQ(missing({"interface_up", "interface_up"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.interface_up(3, false, false, false, 0, false, false);
        EXPECT_EQ(missing({"interface_up"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.address_appeared(3, ipv4("10.0.0.2"));
        EXPECT_EQ(missing({"address_appeared", "address_appeared"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.address_disappeared(3, ipv4("10.0.0.1"));
        monitor.address_disappeared(3, ipv4("10.0.0.1"));
        EXPECT_EQ(missing({"address_disappeared", "address_disappeared"}), events.getText());
    }
    {
        EventRecorder const events;
        monitor.interface_disappeared(3);
        EXPECT_EQ(
            missing({"interface_disappeared", "interface_disappeared", "interface_disappeared"}),
            events.getText());
    }
    EXPECT_TRUE(chainIs({}));
}

// ---- a monitor without memory ----

TEST(NetDeviceMonitorWithoutMemory, IsReportedAndCannotWatch) {
    RecordingListener listener;
    NewFault fault(New::NOTHROW_SINGLE);
    NetDeviceMonitor monitor(&listener);
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN, "Contract broken by the caller: no memory for the monitor"}}));

    EventRecorder const events;
    EXPECT_TRUE(monitor.watch());
    EXPECT_EQ("ASSERT framework/src/vesk/common/NetDeviceMonitor watch: m_impl", events.getText());
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          "Contract broken by the caller: watch() called in invalid state"}}));
    monitor.stopWatching();
    EXPECT_EQ(1U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

TEST(NetDeviceMonitorWithoutMemory, KeepsItsTable) {
    RecordingListener listener;
    NewFault const fault(New::NOTHROW_SINGLE);
    NetDeviceMonitor monitor(&listener);
    std::ErrorStorage::ack();
    monitor.interface_appeared(3, "eth0");
    EXPECT_EQ((Log{"interface_appeared eth0"}), listener.take());
}

TEST(NetDeviceMonitor, ReportsNothingAndOpensNothingUntilItWatches) {
    int const descriptors = support::countDescriptors();
    RecordingListener listener;
    {
        NetDeviceMonitor monitor(&listener);
        EXPECT_EQ(descriptors, support::countDescriptors());
        monitor.stopWatching();
        monitor.stopWatching();
        EXPECT_EQ(descriptors, support::countDescriptors());
    }
    EXPECT_EQ(Log(), listener.take());
    EXPECT_TRUE(chainIs({}));
}

} // namespace
