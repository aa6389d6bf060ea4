#include "support/CleanEnd.h"
#include "support/Descriptors.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include "MonitorSupport.h"

// The table and the callbacks. NetlinkDecoderTest covers the way of the kernel's messages to them.

namespace {

using namespace support;
using vesk::NetDeviceMonitor;
using vesk::NetworkAddress;

static_assert(!std::is_copy_constructible_v<NetDeviceMonitor>);

AddrInfo ipv4(char const* address, char const* netmask = "255.0.0.0", char const* peer = "10.255.255.255") {
    return {{NetworkAddress::IPV4, address}, {NetworkAddress::IPV4, netmask}, {NetworkAddress::IPV4, peer}};
}

/// Returns an IPv6 address in the form of the kernel's messages.
AddrInfo ipv6(char const* address) {
    return {{}, {NetworkAddress::IPV6, "ffff::"}, {NetworkAddress::IPV6, address}};
}

/// The addresses of the scripts.
std::map<std::string, AddrInfo> const ADDRESSES = {
    {"1", ipv4("10.0.0.1")},
    {"2", ipv4("10.0.0.2")},
    {"3", ipv4("10.0.0.3")},
    {"1/16", ipv4("10.0.0.1", "255.255.0.0")},
    {"1>2", ipv4("10.0.0.1", "255.0.0.0", "10.0.0.2")},
    {"1/16>2", ipv4("10.0.0.1", "255.255.0.0", "10.0.0.2")},
    {"mac", {{NetworkAddress::LINK, "00:1a:2b:3c:4d:5e"}, {}, {}}},
    {"mac2", {{NetworkAddress::LINK, "00:1a:2b:3c:4d:5f"}, {}, {}}},
    {"same4", {{NetworkAddress::IPV4, "same"}, {}, {}}},
    {"sameLink", {{NetworkAddress::LINK, "same"}, {}, {}}},
    {"fe80", ipv6("fe80::1")},
    {"fd00", ipv6("fd00::1")}};

/// Runs a script of words that are separated by blanks: "new:NAME" and "gone" make an interface appear and
/// disappear, "up" sets its status, "+ADDRESS" and "-ADDRESS" make an address appear and disappear. "@INDEX"
/// behind a word names the interface, which is 3 otherwise; its name is "eth0" by default.
void run(NetDeviceMonitor& monitor, std::string const& script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        size_t const at = word.find('@');
        int const index = at == std::string::npos ? 3 : std::stoi(word.substr(at + 1));
        auto const number = static_cast<unsigned short>(index);
        word = word.substr(0, at);
        if (word.compare(0, 3, "new") == 0) {
            monitor.interface_appeared(number, word.size() > 4 ? word.c_str() + 4 : "eth0");
        } else if (word == "gone") {
            monitor.interface_disappeared(index);
        } else if (word == "up") {
            monitor.interface_up(number, true, false, false, 1500, true, true);
        } else if (word[0] == '+') {
            monitor.address_appeared(number, ADDRESSES.at(word.substr(1)));
        } else {
            monitor.address_disappeared(number, ADDRESSES.at(word.substr(1)));
        }
    }
}

std::string const IP1 = "10.0.0.1/255.0.0.0 peer 10.255.255.255";
std::string const IP2 = "10.0.0.2/255.0.0.0 peer 10.255.255.255";
std::string const IP3 = "10.0.0.3/255.0.0.0 peer 10.255.255.255";
std::string const MAC = "00:1a:2b:3c:4d:5e";
std::string const MAC2 = "00:1a:2b:3c:4d:5f";
Log const NEW = {"interface_appeared eth0"};
Log const UP = {"interface_status eth0"};
Log const GONE = {"interface_disappeared eth0"};
Log const NEW_UP = NEW + UP;
Log const BLANK_UP = {"interface_status "};
Log const BLANK_GONE = {"interface_disappeared "};

/// Returns the text of the interface 3 after "up".
std::string eth0(std::string const& addresses) {
    return "3 eth0 mtu 1500 up operable broadcast [" + addresses + "]";
}

struct Row : NamedRow {
    char const* script;
    Log log;
    std::string interface; ///< As the last call received it.
};

class Table : public testing::Test {
protected:
    RecordingListener m_listener;
    NetDeviceMonitor m_monitor{&m_listener};
};

Row const ROWS[] = {
    {"interfaceIsReportedWithItsAddressesInThisOrder", "new up +mac +1",
     NEW_UP + addressAppears(MAC) + addressAppears(IP1), eth0(MAC + ", " + IP1)},
    {"interfaceBeginsWithNothingButItsNumberAndName", "new@65535", NEW, "65535 eth0 mtu 0 []"},
    {"interfaceIsReportedOnce", "new new", NEW, "3 eth0 mtu 0 []"},
    {"interfaceKeepsItsFirstName", "new new:lan up", NEW_UP, eth0("")},
    {"interfaceReportsOnlyItsStatusOnceItIsKnown", "new up +mac new up +mac new up +mac new up +mac",
     NEW_UP + addressAppears(MAC) + UP + UP + UP, eth0(MAC)},
    {"interfaceKeepsTheOldMacBesideANewOne", "new up +mac +mac2",
     NEW_UP + addressAppears(MAC) + addressAppears(MAC2), eth0(MAC + ", " + MAC2)},
    {"interfaceMakesItsAddressesOperableWhenItComesUp", "new +2 +1 +mac up up",
     NEW +
         Log{"address_appeared eth0 " + IP2, "address_appeared eth0 " + IP1, "address_appeared eth0 " + MAC} +
         UP +
         Log{"address_operable eth0 " + IP2, "address_operable eth0 " + IP1, "address_operable eth0 " + MAC} +
         UP,
     eth0(IP2 + ", " + IP1 + ", " + MAC)},
    {"interfaceIsIndependentOfOthers", "new up new:eth1@4 up@4 +1 +1@4 -1 gone up@4",
     NEW_UP + interfaceAppears("eth1") + addressAppears(IP1) + addressAppears(IP1, "eth1") +
         addressDisappears(IP1) + GONE + Log{"interface_status eth1"},
     "4 eth1 mtu 1500 up operable broadcast [" + IP1 + "]"},
    // The removal of an interface.
    {"removalOfAnInterfaceReportsItsAddressesFirst", "new up +mac +1 gone",
     NEW_UP + addressAppears(MAC) + addressAppears(IP1) + addressDisappears(MAC) + addressDisappears(IP1) +
         GONE,
     eth0(MAC + ", " + IP1)},
    {"removalOfAnInterfaceReportsNoAddressInoperableThatWasNotOperable", "new +1 gone",
     NEW + Log{"address_appeared eth0 " + IP1, "address_disappeared eth0 " + IP1} + GONE,
     "3 eth0 mtu 0 [" + IP1 + "]"},
    {"removalOfAnInterfaceDiscardsItsEntry", "new up +1 gone new:eth1",
     NEW_UP + addressAppears(IP1) + addressDisappears(IP1) + GONE + Log{"interface_appeared eth1"},
     "3 eth1 mtu 0 []"},
    {"removalOfAnInterfaceReportsABlankOneIfItIsUnknown", "gone", BLANK_GONE, "0  mtu 0 []"},
    {"removalOfAnInterfaceCreatesNoEntryIfItIsUnknown", "gone new", BLANK_GONE + NEW, "3 eth0 mtu 0 []"},
    // Interface numbers are cut to 16 bits, except here.
    {"removalOfAnInterfaceComparesItsWholeNumber", "new@1 up@1 gone@65537 gone@-65535 gone@1",
     NEW_UP + BLANK_GONE + BLANK_GONE + GONE, "1 eth0 mtu 1500 up operable broadcast []"},
    // Addresses.
    {"addressIsReportedOnce", "new up +1 +1", NEW_UP + addressAppears(IP1), eth0(IP1)},
    {"addressIsTheSameWithAnotherNetmaskOrPeer", "new up +1 +1/16 +1>2 gone",
     NEW_UP + addressAppears(IP1) + addressDisappears(IP1) + GONE, eth0(IP1)},
    {"addressIsAnotherOneWithAnotherType", "new up +same4 +sameLink",
     NEW_UP + addressAppears("same") + addressAppears("same"), eth0("same, same")},
    {"addressIsReportedWhenItIsRemoved", "new up +1 +2 +3 -2 -2 up",
     NEW_UP + addressAppears(IP1) + addressAppears(IP2) + addressAppears(IP3) + addressDisappears(IP2) + UP,
     eth0(IP1 + ", " + IP3)},
    {"addressCanReturnAfterItsRemoval", "new up +1 +2 -2 +2",
     NEW_UP + addressAppears(IP1) + addressAppears(IP2) + addressDisappears(IP2) + addressAppears(IP2),
     eth0(IP1 + ", " + IP2)},
    {"addressIsInTheListDuringTheReportOfItsRemoval", "new up +1 -1",
     NEW_UP + addressAppears(IP1) + addressDisappears(IP1), eth0(IP1)},
    {"addressIsReportedAsInTheMessageOfItsRemoval", "new up +1 -1/16>2",
     NEW_UP + addressAppears(IP1) + addressDisappears("10.0.0.1/255.255.0.0 peer 10.0.0.2"), eth0(IP1)},
    {"addressIsNotReportedInoperableIfItsInterfaceWasNotUp", "new +1 -1",
     NEW + Log{"address_appeared eth0 " + IP1, "address_disappeared eth0 " + IP1},
     "3 eth0 mtu 0 [" + IP1 + "]"},
    // The address is in the peer, so that all IPv6 addresses of an interface without a far end are equal.
    {"addressOfIPv6IsTheSameAsAnyOther", "new up +fe80 +fd00 -fd00 -fe80",
     NEW_UP + addressAppears("-/ffff:: peer fe80::1") + addressDisappears("-/ffff:: peer fd00::1"),
     eth0("-/ffff:: peer fe80::1")},
    {"addressIsNotReportedIfItIsUnknown", "new up +1 -2", NEW_UP + addressAppears(IP1), eth0(IP1)},
    // A known interface cannot appear, so that a blank one never gets its name.
    {"blankInterfaceIsCreatedForAnAddress", "+1", {"address_appeared  " + IP1}, "0  mtu 0 [" + IP1 + "]"},
    {"blankInterfaceIsCreatedForAStatus", "up", BLANK_UP, "0  mtu 1500 up operable broadcast []"},
    {"blankInterfaceIsCreatedForARemovedAddress", "-1 new up", BLANK_UP,
     "0  mtu 1500 up operable broadcast []"},
};

VESK_TEST_TABLE(TableScript, makesTheseCalls, Table, ROWS) {
    run(m_monitor, GetParam().script);
    EXPECT_EQ(GetParam().interface, m_listener.getInterface());
    EXPECT_EQ(GetParam().log, m_listener.take());
}

TEST(NetDeviceMonitorListener, receivesAnAddressUnchanged) {
    struct : NetDeviceMonitor::Listener {
        void address_appeared(AddrInfo const& info, Info const& /*interface*/) override { address = info; }
        AddrInfo address;
    } listener;
    NetDeviceMonitor monitor(&listener);
    run(monitor, "new up +1/16>2");
    EXPECT_EQ(NetworkAddress::IPV4, listener.address.address.getType());
    EXPECT_EQ("10.0.0.1/255.255.0.0 peer 10.0.0.2", describe(listener.address));
}

struct StatusRow {
    bool broadcast;
    bool point_to_point;
    bool loopback;
    int mtu;
    char const* interface;
};

// The last two arguments, the state of the link, have no effect.
TEST_F(Table, storesAStatusWhichIsUp) {
    StatusRow const rows[] = {
        {false, false, false, 0, "3 eth0 mtu 0 up operable []"},
        {true, false, false, 1500, "3 eth0 mtu 1500 up operable broadcast []"},
        {false, true, false, 9000, "3 eth0 mtu 9000 up operable point_to_point []"},
        {false, false, true, 65536, "3 eth0 mtu 65536 up operable loopback []"},
        {true, true, true, -1, "3 eth0 mtu -1 up operable broadcast point_to_point loopback []"},
        {false, false, false, 1500, "3 eth0 mtu 1500 up operable []"}};
    m_monitor.interface_appeared(3, "eth0");
    for (StatusRow const& row : rows) {
        for (int state = 0; state < 4; ++state) {
            m_listener.take();
            m_monitor.interface_up(
                3, row.broadcast, row.point_to_point, row.loopback, row.mtu, state % 2 != 0, state / 2 != 0);
            EXPECT_EQ(row.interface, m_listener.getInterface()) << state;
            EXPECT_EQ(UP, m_listener.take()) << row.interface << state;
        }
    }
}

TEST_F(Table, holdsManyInterfaces) {
    constexpr int COUNT = 65536;
    for (bool const known : {false, true}) {
        for (int i = 0; i < COUNT; ++i) {
            m_monitor.interface_appeared(static_cast<unsigned short>(i), "if");
        }
        EXPECT_EQ(known ? 0U : static_cast<size_t>(COUNT), m_listener.take().size());
    }
}

TEST(NetDeviceMonitorListener, hasItsOperationsInThisOrderAndDoesNothingUnlessItIsOverridden) {
    using Listener = NetDeviceMonitor::Listener;
    EXPECT_TRUE(std::has_virtual_destructor_v<Listener>);
    EXPECT_EQ(2, getSlot(&Listener::interface_appeared));
    EXPECT_EQ(3, getSlot(&Listener::interface_disappeared));
    EXPECT_EQ(4, getSlot(&Listener::interface_status));
    EXPECT_EQ(5, getSlot(&Listener::address_appeared));
    EXPECT_EQ(6, getSlot(&Listener::address_disappeared));
    EXPECT_EQ(7, getSlot(&Listener::address_operable));
    EXPECT_EQ(8, getSlot(&Listener::address_inoperable));
    Listener listener;
    NetDeviceMonitor monitor(&listener);
    run(monitor, "new up +1 -1 gone");
}

TEST(NetDeviceMonitorWithoutListener, isReportedAssertsBeforeEachCallbackAndKeepsItsTable) {
    NetDeviceMonitor monitor(nullptr);
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT, "Argument is not usable: Listener must not be null"}}));
    std::pair<char const*, std::vector<char const*>> const rows[] = {
        {"new new", {"interface_appeared"}},
        {"+1 +1", {"address_appeared"}},
        {"up", {"interface_up", "interface_up"}},
        {"up", {"interface_up"}},
        {"+2", {"address_appeared", "address_appeared"}},
        {"-1 -1", {"address_disappeared", "address_disappeared"}},
        {"gone", {"interface_disappeared", "interface_disappeared", "interface_disappeared"}}};
    for (auto const& [script, functions] : rows) {
        EventRecorder const events;
        run(monitor, script);
        std::string text;
        for (char const* const function : functions) {
            text += text.empty() ? "" : "\n";
            text +=
                std::string("ASSERT framework/src/vesk/common/NetDeviceMonitor ") + function + ": m_listener";
        }
        EXPECT_EQ(text, events.getText()) << script;
    }
}

TEST(NetDeviceMonitorWithoutMemory, isReportedAndCannotWatchAndKeepsItsTable) {
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
    run(monitor, "new");
    EXPECT_EQ(NEW, listener.take());
    EXPECT_EQ(1U, events.getCount());
}

TEST(NetDeviceMonitor, reportsNothingAndOpensNothingBeforeItWatches) {
    int const descriptors = countDescriptors();
    RecordingListener listener;
    {
        NetDeviceMonitor monitor(&listener);
        EXPECT_EQ(descriptors, countDescriptors());
        monitor.stopWatching();
        monitor.stopWatching();
        EXPECT_EQ(descriptors, countDescriptors());
    }
    EXPECT_EQ(Log(), listener.take());
}

} // namespace
