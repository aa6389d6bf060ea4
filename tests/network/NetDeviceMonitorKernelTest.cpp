#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/NetworkNamespace.h"
#include "support/Processes.h"
#include "support/Sleeper.h"

#include "MonitorSupport.h"

#include <sys/socket.h>

// A monitor of the real kernel's messages, each time in a separate network.

namespace {

using namespace support;
using vesk::NetDeviceMonitor;
namespace SysErrorId = vesk::SysErrorId;

#if defined(__SANITIZE_ADDRESS__)
constexpr int ROUNDS = 20;
#else
constexpr int ROUNDS = IS_SLOW ? 20 : 100;
#endif

/// Returns the lines about one interface. The kernel may repeat its status any number of times: only the
/// first one counts.
Log only(std::string const& interface, Log const& log) {
    Log lines;
    bool has_status = false;
    for (std::string const& line : log) {
        size_t const begin = line.find(' ') + 1;
        bool const is_status = line.rfind("interface_status", 0) == 0;
        if ((line + " ").compare(begin, interface.size() + 1, interface + " ") == 0 &&
            !(is_status && has_status)) {
            lines.push_back(line);
            has_status = has_status || is_status;
        }
    }
    return lines;
}

/// A monitor with a thread that watches until the end of the object.
class Watcher {
public:
    Watcher() = default;
    /// Starts, and returns when an existing interface has been reported, because an earlier message finds it
    /// without a name.
    explicit Watcher(std::string const& interface) {
        start();
        std::string const line = "interface_status " + interface;
        EXPECT_EQ(line, listener.takeUntil(line).back());
    }
    ~Watcher() { stopIfRunning(); }
    void start() {
        m_thread = std::thread([this] {
            failed = monitor.watch();
            EXPECT_TRUE(chainIs(expected_chain));
        });
    }
    /// Expects that these are the next lines about an interface.
    void expect(std::string const& interface, Log const& expected) {
        EXPECT_EQ(expected, only(interface, listener.takeUntil(expected.back())));
    }
    bool stop() {
        monitor.stopWatching();
        return join();
    }
    bool join() {
        m_thread.join();
        return failed;
    }
    void stopIfRunning() {
        if (m_thread.joinable()) {
            EXPECT_FALSE(stop());
        }
    }

    RecordingListener listener;
    NetDeviceMonitor monitor{&listener};
    std::vector<ExpectedReport> expected_chain;
    bool failed = false;

private:
    std::thread m_thread;
};

bool hasIPv6() {
    return access("/proc/net/if_inet6", F_OK) == 0;
}

std::string const MASK64 = "/ffff:ffff:ffff:ffff:0000:0000:0000:0000";
std::string const MASK128 = "/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
constexpr char const* LO_ADDRESS = "address_operable lo 127.0.0.1/255.0.0.0";

VESK_MONITOR_TEST(Kernel, reportsTheExistingInterface) {
    Watcher watcher;
    watcher.start();
    std::string const ipv6 = "-" + MASK128 + " peer ::1";
    watcher.expect(
        "lo",
        interfaceAppears("lo") + addressAppears("00:00:00:00:00:00", "lo") +
            addressAppears("127.0.0.1/255.0.0.0", "lo") + (hasIPv6() ? addressAppears(ipv6, "lo") : Log()));
    EXPECT_EQ(
        "1 lo mtu 65536 up operable loopback [00:00:00:00:00:00, 127.0.0.1/255.0.0.0" +
            (hasIPv6() ? ", " + ipv6 : std::string()) + "]",
        watcher.listener.getInterface());
    EXPECT_FALSE(watcher.stop());
}

VESK_MONITOR_TEST(Kernel, reportsManyExistingInterfaces) {
    constexpr int COUNT = 60; // More than one datagram of each kind.
    auto const addressOf = [](int i) {
        std::string const net = "10." + std::to_string(i);
        return net + ".0.1/255.255.255.0 peer " + net + ".0.255";
    };
    auto const macOf = [](int i) { return "02:00:00:00:00:" + std::to_string(10 + i); };
    std::string lines;
    for (int i = 0; i < COUNT; ++i) {
        std::string const name = "if" + std::to_string(i);
        lines += "link add name " + name + " address " + macOf(i) + " type bridge\n";
        lines += "addr add 10." + std::to_string(i) + ".0.1/24 brd + dev " + name + "\n";
    }
    ASSERT_TRUE(ip(lines));
    Watcher watcher;
    watcher.start();
    Log const log = watcher.listener.takeUntil(
        addressAppears(addressOf(COUNT - 1), "if" + std::to_string(COUNT - 1)).back());
    for (int i = 0; i < COUNT; ++i) {
        std::string const name = "if" + std::to_string(i);
        EXPECT_EQ(
            interfaceAppears(name) + addressAppears(macOf(i), name) + addressAppears(addressOf(i), name),
            only(name, log));
    }
}

VESK_MONITOR_TEST(Kernel, reportsAPairFromItsCreationToItsRemoval) {
    Watcher watcher;
    watcher.start();
    std::string const mac = "02:1a:2b:3c:4d:5e";
    ASSERT_TRUE(ip("link add name left address " + mac + " type veth peer name right"));
    watcher.expect("left", interfaceAppears("left") + Log{"address_appeared left " + mac});

    ASSERT_TRUE(ip("link set dev left addrgenmode none\nlink set dev right addrgenmode none"));
    ASSERT_TRUE(setUp("left"));
    ASSERT_TRUE(setUp("right"));
    ASSERT_TRUE(addAddress("left", "10.0.0.1/24 brd +"));
    std::string const ipv4 = "10.0.0.1/255.255.255.0 peer 10.0.0.255";
    // Up and running are only a status.
    watcher.expect(
        "left", Log{"address_operable left " + mac, "interface_status left"} + addressAppears(ipv4, "left"));

    ASSERT_TRUE(setDown("left"));
    ASSERT_TRUE(renameInterface("left", "other"));
    ASSERT_TRUE(setUp("other"));
    ASSERT_TRUE(removeAddress("other", "10.0.0.1/24"));
    // It keeps its first name, and its addresses stay operable.
    watcher.expect("left", Log{"interface_status left"} + addressDisappears(ipv4, "left"));

    ASSERT_TRUE(addAddress("other", "10.0.0.2/16"));
    ASSERT_TRUE(removeInterface("other"));
    std::string const second = "10.0.0.2/255.255.0.0";
    Log const end = watcher.listener.takeUntil("interface_disappeared left");
    Log lines = only("left", end);
    lines.erase(std::remove(lines.begin(), lines.end(), "interface_status left"), lines.end());
    EXPECT_EQ(
        addressAppears(second, "left") + addressDisappears(second, "left") + addressDisappears(mac, "left") +
            Log{"interface_disappeared left"},
        lines);
    Log const rest = watcher.listener.takeUntil("interface_disappeared right");
    EXPECT_FALSE(
        rest.empty() && std::find(end.begin(), end.end(), "interface_disappeared right") == end.end());
}

VESK_MONITOR_TEST(Kernel, reportsTheFarEndOfIPv6Only) {
    ASSERT_TRUE(makeInterface("lone"));
    Watcher watcher("lone");
    ASSERT_TRUE(addAddress("lone", "10.0.0.1 peer 10.0.0.2/32"));
    std::string const ipv4 = "10.0.0.1/255.255.255.255";
    watcher.listener.takeUntil("address_appeared lone " + ipv4);
    watcher.expect("lone", {"address_operable lone " + ipv4});
    ASSERT_TRUE(removeAddress("lone", "10.0.0.1 peer 10.0.0.2/32"));
    watcher.expect("lone", addressDisappears(ipv4, "lone"));
    if (hasIPv6()) {
        ASSERT_TRUE(ip("link set dev lone addrgenmode none"));
        ASSERT_TRUE(setUp("lone"));
        ASSERT_TRUE(addAddress("lone", "fd00::1 peer fd00::2/128 nodad"));
        watcher.expect(
            "lone",
            Log{"interface_status lone"} + addressAppears("fd00::1" + MASK128 + " peer fd00::2", "lone"));
    }
}

VESK_MONITOR_TEST(Kernel, reportsATentativeAddressWhenItsCheckHasEnded) {
    if (!hasIPv6()) {
        GTEST_SKIP() << "the kernel has no IPv6";
    }
    ASSERT_TRUE(makePair("left", "right"));
    ASSERT_TRUE(ip("link set dev left addrgenmode none\nlink set dev right addrgenmode none"));
    // The check cannot begin while the far end is down.
    ASSERT_TRUE(setUp("left"));
    ASSERT_TRUE(addAddress("left", "fd00::1/64"));
    Watcher watcher("left");
    ASSERT_TRUE(addAddress("left", "10.0.0.1/8"));
    for (std::string const& line : watcher.listener.takeUntil("address_operable left 10.0.0.1/255.0.0.0")) {
        EXPECT_EQ(std::string::npos, line.find("fd00::1")) << line;
    }
    ASSERT_TRUE(setUp("right"));
    watcher.expect(
        "left", Log{"interface_status left"} + addressAppears("-" + MASK64 + " peer fd00::1", "left"));
}

VESK_MONITOR_TEST(Kernel, reportsThatAnInterfaceMovesToAnotherNetwork) {
    ASSERT_TRUE(makePair("left", "right"));
    Watcher watcher("left");
    PreparedChild const other([] { ASSERT_TRUE(separateNetwork()); }, pause);
    ASSERT_TRUE(moveInterface("left", other.getId()));
    Log const log = watcher.listener.takeUntil("interface_disappeared left");
    EXPECT_EQ("interface_disappeared left", log.back());
}

// The kernel reports the removal of the port as that of an interface, and then the interface again.
VESK_MONITOR_TEST(Kernel, reportsAnInterfaceThatLeavesItsBridgeAsRemovedAndNew) {
    ASSERT_TRUE(makeInterface("lone"));
    ASSERT_TRUE(makePair("left", "right"));
    ASSERT_TRUE(ip("link set dev left master lone"));
    Watcher watcher("left");
    ASSERT_TRUE(ip("link set dev left nomaster"));
    watcher.listener.takeUntil("interface_disappeared left");
    Log const log = watcher.listener.takeUntil("interface_status left");
    ASSERT_FALSE(log.empty());
    EXPECT_EQ("interface_appeared left", only("left", log).front());
}

// In steps, so that the kernel drops none of them.
VESK_MONITOR_TEST(Kernel, reportsEachOfHundredsOfChangesOnce) {
    ASSERT_TRUE(makeInterface("lone"));
    Watcher watcher("lone");
    for (int round = 0; round < 10; ++round) {
        std::string const name = "new" + std::to_string(round);
        std::string added;
        std::string removed;
        Log appear;
        Log disappear;
        for (int i = 0; i < 50; ++i) {
            std::string const address = "10." + std::to_string(i) + ".0.1";
            added += "addr add " + address + "/16 dev lone\n";
            removed += "addr del " + address + "/16 dev lone\n";
            appear = appear + addressAppears(address + "/255.255.0.0", "lone");
            disappear = disappear + addressDisappears(address + "/255.255.0.0", "lone");
        }
        ASSERT_TRUE(ip(
            added + removed + "link add name " + name + " type veth peer name peer\nlink del dev " + name));
        Log const log = watcher.listener.takeUntil("interface_disappeared " + name);
        Log addresses = only("lone", log);
        addresses.erase(
            std::remove_if(
                addresses.begin(), addresses.end(),
                [](std::string const& line) { return line.find(" lone 10.") == std::string::npos; }),
            addresses.end());
        EXPECT_EQ(appear + disappear, addresses);
        EXPECT_EQ(1, std::count(log.begin(), log.end(), "interface_appeared " + name));
        EXPECT_EQ(1, std::count(log.begin(), log.end(), "interface_disappeared " + name));
    }
}

/// A watcher with a listener that blocks its thread during changes, so that the kernel drops most of their
/// messages.
class SlowWatcher : public Watcher {
public:
    SlowWatcher() {
        expected_chain = {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ENOBUFS))}};
        listener.on_call = [this](std::string const& line) {
            keep(line);
            if (line.rfind("address_operable gate", 0) == 0) {
                m_is_waiting = m_shall_wait.load();
                EXPECT_TRUE(eventually([this] { return !m_shall_wait; }));
                m_is_waiting = false;
            }
        };
    }

    ~SlowWatcher() {
        m_shall_wait = false;
        stopIfRunning();
    }

    /// Makes changes while there is room for only a few messages.
    void change(std::string const& lines) {
        setRoom(1);
        m_shall_wait = true;
        ASSERT_TRUE(addAddress("gate", "10.99.0.1/8"));
        ASSERT_TRUE(eventually([this] { return m_is_waiting.load(); }));
        EXPECT_TRUE(ip(lines));
        EXPECT_TRUE(removeAddress("gate", "10.99.0.1/8"));
        m_shall_wait = false;
    }

    /// Waits until the reported interfaces and addresses are the expected ones.
    testing::AssertionResult comesTo(std::set<std::string> const& expected) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_changed.wait_for(lock, std::chrono::seconds(40), [&] { return m_there == expected; })) {
            return testing::AssertionSuccess();
        }
        testing::AssertionResult failure = testing::AssertionFailure();
        for (std::string const& one : m_there) {
            failure << (expected.count(one) == 0 ? one + " is reported, " : "");
        }
        for (std::string const& one : expected) {
            failure << (m_there.count(one) == 0 ? one + " is not reported, " : "");
        }
        return failure;
    }

private:
    /// Stores "lone" for an interface and "lone 10.0.0.1" for an address until it disappears.
    void keep(std::string const& line) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        std::string const call = line.substr(0, line.find(' '));
        std::string const what = line.substr(call.size() + 1, line.find('/') - call.size() - 1);
        if (what.find(':') != std::string::npos || what.find('-') != std::string::npos) {
            return; // A MAC or an IPv6 address, which the kernel sets.
        }
        if (call == "interface_appeared" || call == "address_appeared") {
            EXPECT_TRUE(m_there.insert(what).second) << line;
        } else if (call == "interface_disappeared" || call == "address_disappeared") {
            EXPECT_EQ(1U, m_there.erase(what)) << line;
        }
        m_changed.notify_all();
    }

    /// Sets the room for messages of the monitor's socket, the only netlink socket.
    static void setRoom(int size) {
        int found = 0;
        for (int fd = 0; fd < 64; ++fd) {
            int domain = 0;
            socklen_t length = sizeof domain;
            if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_NETLINK) {
                EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size)) << strerror(errno);
                ++found;
            }
        }
        EXPECT_EQ(1, found);
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_shall_wait{false};
    std::atomic<bool> m_is_waiting{false};
    std::set<std::string> m_there;
};

std::string nthAddress(int n) {
    return "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".1";
}

/// Returns lines that add or remove addresses.
std::string change(char const* how, char const* interface, int first, int last) {
    std::string lines;
    for (int i = first; i < last; ++i) {
        lines += std::string("addr ") + how + " " + nthAddress(i) + "/32 dev " + interface + "\n";
    }
    return lines;
}

std::set<std::string>
there(std::vector<std::string> const& interfaces, char const* with, int first, int last) {
    std::set<std::string> all(interfaces.begin(), interfaces.end());
    all.insert({"lo", "lo 127.0.0.1", "gate"});
    for (int i = first; i < last; ++i) {
        all.insert(std::string(with) + " " + nthAddress(i));
    }
    return all;
}

VESK_MONITOR_TEST(Loss, ofChangesIsMadeGood) {
    for (char const* const name : {"gate", "lone", "old"}) {
        ASSERT_TRUE(makeInterface(name));
    }
    SlowWatcher watcher;
    watcher.start();
    ASSERT_TRUE(watcher.comesTo(there({"lone", "old"}, "", 0, 0)));
    for (int round = 0; round < 3; ++round) {
        watcher.change(
            change("add", "lone", 0, 300) + change("add", "old", 300, 400) + change("del", "lone", 0, 100) +
            "link del dev old\nlink add name new type bridge\n");
        ASSERT_TRUE(watcher.comesTo(there({"lone", "new"}, "lone", 100, 300)));
        watcher.change(change("del", "lone", 100, 300) + "link del dev new\nlink add name old type bridge\n");
        ASSERT_TRUE(watcher.comesTo(there({"lone", "old"}, "", 0, 0)));
    }
    // It continues as before.
    ASSERT_TRUE(addAddress("lone", nthAddress(1) + "/32"));
    EXPECT_TRUE(watcher.comesTo(there({"lone", "old"}, "lone", 1, 2)));
    EXPECT_TRUE(watcher.stop());
}

// The monitor receives messages again while the small room still makes the kernel drop others.
VESK_MONITOR_TEST(Loss, isMadeGoodDuringFurtherChangesAndTheRemovalOfAnInterfaceWithManyAddresses) {
    ASSERT_TRUE(makeInterface("gate"));
    ASSERT_TRUE(makeInterface("lone"));
    SlowWatcher watcher;
    watcher.start();
    ASSERT_TRUE(watcher.comesTo(there({"lone"}, "", 0, 0)));
    watcher.change(change("add", "lone", 0, 200));
    ASSERT_TRUE(ip(change("del", "lone", 0, 200) + change("add", "lone", 200, 400)));
    EXPECT_TRUE(watcher.comesTo(there({"lone"}, "lone", 200, 400)));
    ASSERT_TRUE(ip(change("del", "lone", 200, 400)));
    EXPECT_TRUE(watcher.comesTo(there({"lone"}, "", 0, 0)));
    ASSERT_TRUE(ip(change("add", "lone", 0, 400)));
    EXPECT_TRUE(watcher.comesTo(there({"lone"}, "lone", 0, 400)));
    watcher.change("link del dev lone\n");
    EXPECT_TRUE(watcher.comesTo(there({}, "", 0, 0)));
    EXPECT_TRUE(watcher.stop());
}

VESK_MONITOR_TEST(Kernel, isStoppedAtAnyMomentAndAfterTheDumps) {
    int const descriptors = countDescriptors();
    for (int round = 0; round < ROUNDS; ++round) {
        for (bool const after_the_dumps : {false, true}) {
            Watcher watcher;
            watcher.start();
            auto const moment = std::chrono::steady_clock::now() + std::chrono::microseconds(round * 20);
            while (!after_the_dumps && std::chrono::steady_clock::now() < moment) {}
            if (after_the_dumps) {
                watcher.listener.takeUntil(LO_ADDRESS);
            }
            EXPECT_FALSE(watcher.stop()) << after_the_dumps;
        }
    }
    EXPECT_EQ(descriptors, countDescriptors());
}

VESK_MONITOR_TEST(Kernel, isStoppedDuringEachCallbackOfTheDumps) {
    ASSERT_TRUE(ip("link add name one type bridge\nlink add name two type bridge"));
    for (int call = 0; call < 14; ++call) {
        Watcher watcher;
        int calls = 0;
        watcher.listener.on_call = [&](std::string const&) {
            if (calls++ == call) {
                watcher.monitor.stopWatching();
            }
        };
        watcher.start();
        EXPECT_FALSE(watcher.join()) << call;
    }
}

VESK_MONITOR_TEST(Kernel, isStoppedBySeveralThreadsAtOnce) {
    int const descriptors = countDescriptors();
    for (int round = 0; round < ROUNDS; ++round) {
        Watcher watcher;
        watcher.start();
        runInThreads(4, [&](int) { watcher.monitor.stopWatching(); });
        EXPECT_FALSE(watcher.join());
    }
    EXPECT_EQ(descriptors, countDescriptors());
}

// The other thread opens descriptors with the number of the closed socket at once.
VESK_MONITOR_TEST(Kernel, closesNoDescriptorOfAnotherThread) {
    std::atomic<bool> is_over{false};
    std::thread other([&] {
        while (!is_over) {
            int ends[2];
            ASSERT_EQ(0, pipe(ends)) << strerror(errno);
            char byte = 'x';
            EXPECT_EQ(1, write(ends[1], &byte, 1)) << strerror(errno);
            EXPECT_EQ(1, read(ends[0], &byte, 1)) << strerror(errno);
            EXPECT_EQ(0, close(ends[0])) << strerror(errno);
            EXPECT_EQ(0, close(ends[1])) << strerror(errno);
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        Watcher watcher;
        watcher.start();
        watcher.listener.takeUntil("interface_appeared lo");
        EXPECT_FALSE(watcher.stop());
    }
    is_over = true;
    other.join();
}

TEST(Kernel, closesTheSocketOfACanceledThread) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    VESK_SKIP_WITHOUT_NETWORKS();
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer keeps its marks of the stack frames that a cancelled thread has left";
#endif
    expectInNetwork([] {
        int const descriptors = countDescriptors();
        RecordingListener listener;
        NetDeviceMonitor monitor(&listener);
        Sleeper thread([&monitor] { monitor.watch(); });
        listener.takeUntil(LO_ADDRESS);
        EXPECT_EQ(descriptors + 1, countDescriptors());
        thread.cancel();
        EXPECT_EQ(PTHREAD_CANCELED, thread.join());
        EXPECT_EQ(descriptors, countDescriptors());
        monitor.stopWatching();
    });
}

} // namespace
