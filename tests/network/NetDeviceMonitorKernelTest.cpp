#include "support/Chain.h"
#include "support/Descriptors.h"
#include "support/NetworkNamespace.h"
#include "support/Processes.h"

#include "MonitorSupport.h"

#include <vesk/NetDeviceMonitor.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

// A monitor of the real kernel's messages, each time in a network of the test's own.

namespace {

using support::addAddress;
using support::chainIs;
using support::countDescriptors;
using support::expectInNetwork;
using support::ip;
using support::Log;
using support::makeInterface;
using support::makePair;
using support::RecordingListener;
using support::removeAddress;
using support::removeInterface;
using support::renameInterface;
using support::setDown;
using support::setUp;
using support::systemText;
using vesk::NetDeviceMonitor;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__arm__)
constexpr int ROUNDS = 20;
#else
constexpr int ROUNDS = 100;
#endif

/// A monitor with a thread that watches, to be stopped at the end.
class Watcher {
public:
    Watcher() = default;
    ~Watcher() { stopIfRunning(); }
    Watcher(Watcher const&) = delete;
    Watcher& operator=(Watcher const&) = delete;

    void start() {
        m_thread = std::thread([this] {
            failed = monitor.watch();
            EXPECT_TRUE(chainIs(expected_chain));
        });
    }
    /// Returns when an interface that is there has been told: what comes earlier for it has no name to stand under.
    void startWith(std::string const& interface) {
        start();
        EXPECT_EQ(
            "interface_status " + interface, listener.takeUntil("interface_status " + interface).back());
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
    std::vector<support::ExpectedReport> expected_chain;
    bool failed = false;

private:
    std::thread m_thread;
};

/// What concerns one interface. How often the kernel repeats its status is its own affair: only the first one counts.
Log only(std::string const& interface, Log const& log) {
    Log lines;
    bool has_status = false;
    for (std::string const& line : log) {
        size_t const begin = line.find(' ') + 1;
        bool const concerns = line.compare(begin, interface.size(), interface) == 0 &&
            (line.size() == begin + interface.size() || line[begin + interface.size()] == ' ');
        bool const is_status = line.rfind("interface_status", 0) == 0;
        if (concerns && !(is_status && has_status)) {
            lines.push_back(line);
            has_status = has_status || is_status;
        }
    }
    return lines;
}

bool hasIPv6() {
    return access("/proc/net/if_inet6", F_OK) == 0;
}

/// The MAC of an interface, as the kernel writes it.
std::string getMac(std::string const& interface) {
    // The files below /sys show the network in which they were mounted; the program asks the one in which it runs.
    FILE* const pipe = popen(("ip -o link show dev " + interface).c_str(), "r");
    char line[1024] = "";
    if (pipe == nullptr || fgets(line, sizeof line, pipe) == nullptr) {
        ADD_FAILURE() << interface;
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    std::string const text = line;
    size_t const begin = text.find("link/ether ");
    return begin == std::string::npos ? "(none)" : text.substr(begin + 11, 17);
}

constexpr char const* MASK64 = "ffff:ffff:ffff:ffff:0000:0000:0000:0000";
constexpr char const* MASK128 = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";

class Kernel : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NETWORKS(); }
};

TEST_F(Kernel, TellsWhatIsThere) {
    expectInNetwork([] {
        Watcher watcher;
        watcher.start();
        std::string const ipv6 = std::string("-/") + MASK128 + " peer ::1";
        Log expected = {
            "interface_appeared lo",
            "interface_status lo",
            "address_appeared lo 00:00:00:00:00:00",
            "address_operable lo 00:00:00:00:00:00",
            "address_appeared lo 127.0.0.1/255.0.0.0",
            "address_operable lo 127.0.0.1/255.0.0.0",
        };
        if (hasIPv6()) {
            expected.push_back("address_appeared lo " + ipv6);
            expected.push_back("address_operable lo " + ipv6);
        }
        EXPECT_EQ(expected, only("lo", watcher.listener.takeUntil(expected.back())));
        EXPECT_EQ(
            "1 lo mtu 65536 up operable loopback [00:00:00:00:00:00, 127.0.0.1/255.0.0.0" +
                (hasIPv6() ? ", " + ipv6 : std::string()) + "]",
            watcher.listener.getInterface());
        EXPECT_FALSE(watcher.stop());
    });
}

TEST_F(Kernel, TellsManyInterfacesThatAreThere) {
    expectInNetwork([] {
        constexpr int COUNT = 60; // More than one datagram of each kind.
        std::string lines;
        for (int i = 0; i < COUNT; ++i) {
            std::string const name = "if" + std::to_string(i);
            lines += "link add name " + name + " type bridge\n";
            lines += "addr add 10.0." + std::to_string(i) + ".1/24 brd + dev " + name + "\n";
        }
        ASSERT_TRUE(ip(lines));
        Watcher watcher;
        watcher.start();
        std::string const last = std::to_string(COUNT - 1);
        Log const log = watcher.listener.takeUntil(
            "address_operable if" + last + " 10.0." + last + ".1/255.255.255.0 peer 10.0." + last + ".255");
        for (int i = 0; i < COUNT; ++i) {
            std::string const number = std::to_string(i);
            std::string const name = "if" + number;
            std::string const address =
                name + " 10.0." + number + ".1/255.255.255.0 peer 10.0." + number + ".255";
            std::string const mac = name + " " + getMac(name);
            EXPECT_EQ(
                (Log{
                    "interface_appeared " + name,
                    "interface_status " + name,
                    "address_appeared " + mac,
                    "address_operable " + mac,
                    "address_appeared " + address,
                    "address_operable " + address,
                }),
                only(name, log));
        }
    });
}

TEST_F(Kernel, TellsTheLifeOfAPair) {
    expectInNetwork([] {
        Watcher watcher;
        watcher.start();
        RecordingListener& listener = watcher.listener;
        ASSERT_TRUE(makePair("left", "right"));
        std::string const mac = "left " + getMac("left");
        EXPECT_EQ(
            (Log{"interface_appeared left", "interface_status left", "address_appeared " + mac}),
            only("left", listener.takeUntil("address_appeared " + mac)));

        ASSERT_TRUE(ip("link set dev left addrgenmode none\nlink set dev right addrgenmode none"));
        ASSERT_TRUE(setUp("left"));
        ASSERT_TRUE(setUp("right"));
        ASSERT_TRUE(addAddress("left", "10.0.0.1/24 brd +"));
        std::string const ipv4 = "left 10.0.0.1/255.255.255.0 peer 10.0.0.255";
        // Up and running are no more than a status.
        EXPECT_EQ(
            (Log{
                "address_operable " + mac,
                "interface_status left",
                "address_appeared " + ipv4,
                "address_operable " + ipv4,
            }),
            only("left", listener.takeUntil("address_operable " + ipv4)));

        ASSERT_TRUE(setDown("left"));
        ASSERT_TRUE(renameInterface("left", "other"));
        ASSERT_TRUE(setUp("other"));
        ASSERT_TRUE(removeAddress("other", "10.0.0.1/24"));
        // It keeps its first name, and its addresses stay operable.
        EXPECT_EQ(
            (Log{"interface_status left", "address_inoperable " + ipv4, "address_disappeared " + ipv4}),
            only("left", listener.takeUntil("address_disappeared " + ipv4)));

        ASSERT_TRUE(addAddress("other", "10.0.0.2/16"));
        ASSERT_TRUE(removeInterface("other"));
        std::string const second = "left 10.0.0.2/255.255.0.0";
        Log const end = listener.takeUntil("interface_disappeared left");
        Log without_status = only("left", end);
        without_status.erase(
            std::remove(without_status.begin(), without_status.end(), "interface_status left"),
            without_status.end());
        EXPECT_EQ(
            (Log{
                "address_appeared " + second,
                "address_operable " + second,
                "address_inoperable " + second,
                "address_disappeared " + second,
                "address_inoperable " + mac,
                "address_disappeared " + mac,
                "interface_disappeared left",
            }),
            without_status);
        Log const rest = listener.takeUntil("interface_disappeared right");
        EXPECT_FALSE(
            rest.empty() && std::find(end.begin(), end.end(), "interface_disappeared right") == end.end());
    });
}

TEST_F(Kernel, TellsAddressesOfAFarEnd) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("lone"));
        Watcher watcher;
        watcher.startWith("lone");
        ASSERT_TRUE(addAddress("lone", "10.0.0.1 peer 10.0.0.2/32"));
        // The far end of IPv4 is not told.
        std::string const ipv4 = "lone 10.0.0.1/255.255.255.255";
        watcher.listener.takeUntil("address_appeared " + ipv4);
        EXPECT_EQ(
            (Log{"address_operable " + ipv4}),
            only("lone", watcher.listener.takeUntil("address_operable " + ipv4)));
        ASSERT_TRUE(removeAddress("lone", "10.0.0.1 peer 10.0.0.2/32"));
        EXPECT_EQ(
            (Log{"address_inoperable " + ipv4, "address_disappeared " + ipv4}),
            only("lone", watcher.listener.takeUntil("address_disappeared " + ipv4)));
        if (hasIPv6()) {
            ASSERT_TRUE(ip("link set dev lone addrgenmode none"));
            ASSERT_TRUE(setUp("lone"));
            ASSERT_TRUE(addAddress("lone", "fd00::1 peer fd00::2/128 nodad"));
            std::string const ipv6 = std::string("lone fd00::1/") + MASK128 + " peer fd00::2";
            EXPECT_EQ(
                (Log{"interface_status lone", "address_appeared " + ipv6, "address_operable " + ipv6}),
                only("lone", watcher.listener.takeUntil("address_operable " + ipv6)));
        }
    });
}

// Without a far end, they cannot be told apart.
TEST_F(Kernel, TellsTheFirstOfAllAddressesOfIPv6) {
    expectInNetwork([] {
        if (!hasIPv6()) {
            GTEST_SKIP() << "the kernel has no IPv6";
        }
        ASSERT_TRUE(makeInterface("lone"));
        ASSERT_TRUE(ip("link set dev lone addrgenmode none"));
        ASSERT_TRUE(setUp("lone"));
        Watcher watcher;
        watcher.startWith("lone");
        std::string const first = std::string("lone -/") + MASK64 + " peer fd00::1";
        std::string const second = std::string("lone -/") + MASK64 + " peer fd00::2";
        ASSERT_TRUE(addAddress("lone", "fd00::1/64 nodad"));
        EXPECT_EQ(
            "address_operable " + first, watcher.listener.takeUntil("address_operable " + first).back());
        ASSERT_TRUE(addAddress("lone", "fd00::2/64 nodad"));
        ASSERT_TRUE(removeAddress("lone", "fd00::2/64"));
        EXPECT_EQ(
            (Log{"address_inoperable " + second, "address_disappeared " + second}),
            only("lone", watcher.listener.takeUntil("address_disappeared " + second)));
        ASSERT_TRUE(removeAddress("lone", "fd00::1/64"));
        ASSERT_TRUE(addAddress("lone", "10.0.0.1/8"));
        EXPECT_EQ(
            (Log{"address_appeared lone 10.0.0.1/255.0.0.0"}),
            only("lone", watcher.listener.takeUntil("address_appeared lone 10.0.0.1/255.0.0.0")));
    });
}

TEST_F(Kernel, TellsATentativeAddressWhenItsCheckHasEnded) {
    expectInNetwork([] {
        if (!hasIPv6()) {
            GTEST_SKIP() << "the kernel has no IPv6";
        }
        ASSERT_TRUE(makePair("left", "right"));
        ASSERT_TRUE(ip("link set dev left addrgenmode none\nlink set dev right addrgenmode none"));
        // The check cannot begin while the far end is down.
        ASSERT_TRUE(setUp("left"));
        ASSERT_TRUE(addAddress("left", "fd00::1/64"));
        Watcher watcher;
        watcher.startWith("left");
        ASSERT_TRUE(addAddress("left", "10.0.0.1/8"));
        Log const before = watcher.listener.takeUntil("address_operable left 10.0.0.1/255.0.0.0");
        for (std::string const& line : before) {
            EXPECT_EQ(std::string::npos, line.find("fd00::1")) << line;
        }
        ASSERT_TRUE(setUp("right"));
        std::string const address = std::string("left -/") + MASK64 + " peer fd00::1";
        Log const after = watcher.listener.takeUntil("address_operable " + address);
        EXPECT_EQ(
            (Log{"interface_status left", "address_appeared " + address, "address_operable " + address}),
            only("left", after));
    });
}

TEST_F(Kernel, TellsAnInterfaceThatMovesIntoAnotherNetwork) {
    expectInNetwork([] {
        ASSERT_TRUE(makePair("left", "right"));
        Watcher watcher;
        watcher.startWith("left");
        int ready[2];
        ASSERT_EQ(0, pipe(ready));
        {
            support::Process other([&] {
                ASSERT_TRUE(support::separateNetwork());
                ASSERT_EQ(1, write(ready[1], "x", 1));
                pause();
            });
            char byte = 0;
            ASSERT_EQ(1, read(ready[0], &byte, 1));
            ASSERT_TRUE(support::moveInterface("left", other.getId()));
            Log const log = watcher.listener.takeUntil("interface_disappeared left");
            EXPECT_EQ("interface_disappeared left", log.back());
        }
        close(ready[0]);
        close(ready[1]);
    });
}

// The kernel tells the end of the port as that of an interface, and then the interface again.
TEST_F(Kernel, TellsAnInterfaceThatLeavesItsBridgeAsGoneAndBack) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("lone"));
        ASSERT_TRUE(makePair("left", "right"));
        ASSERT_TRUE(ip("link set dev left master lone"));
        Watcher watcher;
        watcher.startWith("left");
        ASSERT_TRUE(ip("link set dev left nomaster"));
        watcher.listener.takeUntil("interface_disappeared left");
        Log const log = watcher.listener.takeUntil("interface_status left");
        ASSERT_FALSE(log.empty());
        EXPECT_EQ("interface_appeared left", only("left", log).front());
    });
}

// In steps, so that the kernel need not drop any of them.
TEST_F(Kernel, TellsHundredsOfChangesEachOnce) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("lone"));
        Watcher watcher;
        watcher.startWith("lone");
        constexpr int ADDRESSES = 50;
        for (int round = 0; round < 10; ++round) {
            std::string lines;
            Log expected;
            for (char const* const change : {"add", "del"}) {
                for (int i = 0; i < ADDRESSES; ++i) {
                    std::string const address = "10." + std::to_string(i) + ".0.1";
                    lines += std::string("addr ") + change + " " + address + "/16 dev lone\n";
                    std::string const told = "lone " + address + "/255.255.0.0";
                    bool const appears = *change == 'a';
                    expected.push_back((appears ? "address_appeared " : "address_inoperable ") + told);
                    expected.push_back((appears ? "address_operable " : "address_disappeared ") + told);
                }
            }
            std::string const name = "new" + std::to_string(round);
            lines += "link add name " + name + " type veth peer name peer\n";
            lines += "link del dev " + name + "\n";
            ASSERT_TRUE(ip(lines));
            Log const log = watcher.listener.takeUntil("interface_disappeared " + name);
            Log addresses;
            for (std::string const& line : only("lone", log)) {
                if (line.find(" lone 10.") != std::string::npos) {
                    addresses.push_back(line);
                }
            }
            EXPECT_EQ(expected, addresses);
            EXPECT_EQ(1, std::count(log.begin(), log.end(), "interface_appeared " + name));
            EXPECT_EQ(1, std::count(log.begin(), log.end(), "interface_disappeared " + name));
        }
    });
}

// ---- messages that the kernel drops ----

/// A watcher with a listener that blocks its thread during changes, so that the kernel drops most of them.
class SlowWatcher : public Watcher {
public:
    SlowWatcher() {
        expected_chain = {
            {SysError, SysErrorId::UNCLASSIFIED,
             support::rowText(SysErrorId::UNCLASSIFIED, systemText(ENOBUFS))}};
        listener.on_call = [this](std::string const& line) {
            keep(line);
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_shall_wait && line.rfind("address_operable gate", 0) == 0) {
                m_is_waiting = true;
                m_changed.notify_all();
                m_changed.wait(lock, [this] { return !m_shall_wait; });
                m_is_waiting = false;
            }
        };
    }

    ~SlowWatcher() {
        release();
        stopIfRunning();
    }

    /// Makes changes that the kernel can tell only a few of.
    void change(std::string const& lines) {
        setRoom(1);
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_shall_wait = true;
        }
        ASSERT_TRUE(addAddress("gate", "10.99.0.1/8"));
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            ASSERT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(40), [this] { return m_is_waiting; }));
        }
        EXPECT_TRUE(ip(lines));
        EXPECT_TRUE(removeAddress("gate", "10.99.0.1/8"));
        release();
    }

    /// Waits until what has been told so far is what there is.
    testing::AssertionResult comesTo(std::set<std::string> const& expected) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_changed.wait_for(lock, std::chrono::seconds(40), [&] { return m_there == expected; })) {
            return testing::AssertionSuccess();
        }
        testing::AssertionResult failure = testing::AssertionFailure();
        for (std::string const& one : m_there) {
            failure << (expected.count(one) == 0 ? one + " is told, " : "");
        }
        for (std::string const& one : expected) {
            failure << (m_there.count(one) == 0 ? one + " is not told, " : "");
        }
        return failure;
    }

private:
    void release() {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_shall_wait = false;
        m_changed.notify_all();
    }

    /// Keeps "lone" for an interface and "lone 10.0.0.1" for an address, up to its disappearance. Each comes and goes once.
    void keep(std::string const& line) {
        std::lock_guard<std::mutex> const guard(m_mutex);
        std::string const call = line.substr(0, line.find(' '));
        std::string const what = line.substr(call.size() + 1, line.find('/') - call.size() - 1);
        if (what.find(':') != std::string::npos || what.find('-') != std::string::npos) {
            return; // Of links and IPv6, which the kernel makes by itself.
        }
        if (call == "interface_appeared" || call == "address_appeared") {
            EXPECT_TRUE(m_there.insert(what).second) << line;
        } else if (call == "interface_disappeared" || call == "address_disappeared") {
            EXPECT_EQ(1U, m_there.erase(what)) << line;
        }
        m_changed.notify_all();
    }

    /// Sets the room for messages of the monitor's socket, the only one of its kind.
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
    bool m_shall_wait = false;
    bool m_is_waiting = false;
    std::set<std::string> m_there;
};

std::string nthAddress(int n) {
    return "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".1";
}

/// Lines that add or remove addresses.
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

class Loss : public Kernel {};

TEST_F(Loss, OfTheEndOfAnInterfaceWithManyAddressesIsMadeGood) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("gate"));
        ASSERT_TRUE(makeInterface("lone"));
        ASSERT_TRUE(ip(change("add", "lone", 0, 400)));
        SlowWatcher watcher;
        watcher.start();
        ASSERT_TRUE(watcher.comesTo(there({"lone"}, "lone", 0, 400)));
        watcher.change("link del dev lone\n");
        EXPECT_TRUE(watcher.comesTo(there({}, "", 0, 0)));
        EXPECT_TRUE(watcher.stop());
    });
}

TEST_F(Loss, OfManyChangesIsMadeGood) {
    expectInNetwork([] {
        ASSERT_TRUE(makeInterface("gate"));
        ASSERT_TRUE(makeInterface("lone"));
        ASSERT_TRUE(makeInterface("old"));
        SlowWatcher watcher;
        watcher.start();
        ASSERT_TRUE(watcher.comesTo(there({"lone", "old"}, "", 0, 0)));
        for (int round = 0; round < 3; ++round) {
            watcher.change(
                change("add", "lone", 0, 300) + change("add", "old", 300, 400) +
                change("del", "lone", 0, 100) + "link del dev old\nlink add name new type bridge\n");
            ASSERT_TRUE(watcher.comesTo(there({"lone", "new"}, "lone", 100, 300)));
            watcher.change(
                change("del", "lone", 100, 300) + "link del dev new\nlink add name old type bridge\n");
            ASSERT_TRUE(watcher.comesTo(there({"lone", "old"}, "", 0, 0)));
        }
        // And it follows as before.
        ASSERT_TRUE(addAddress("lone", nthAddress(1) + "/32"));
        EXPECT_TRUE(watcher.comesTo(there({"lone", "old"}, "lone", 1, 2)));
        EXPECT_TRUE(watcher.stop());
    });
}

// The monitor takes messages again, while the small room still makes the kernel drop others.
TEST_F(Loss, FollowedByMoreChangesIsMadeGood) {
    expectInNetwork([] {
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
        EXPECT_TRUE(watcher.stop());
    });
}

// ---- the end ----

TEST_F(Kernel, EndsAWatchThatWasStoppedBefore) {
    expectInNetwork([] {
        Watcher watcher;
        watcher.monitor.stopWatching();
        watcher.start();
        EXPECT_FALSE(watcher.join());
        // One datagram of each dump.
        Log const log = watcher.listener.take();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ("interface_appeared lo", log.front());
    });
}

TEST_F(Kernel, IsStoppedAtAnyMoment) {
    expectInNetwork([] {
        int const descriptors = countDescriptors();
        for (int round = 0; round < ROUNDS; ++round) {
            Watcher watcher;
            watcher.start();
            auto const moment = std::chrono::steady_clock::now() + std::chrono::microseconds(round * 20);
            while (std::chrono::steady_clock::now() < moment) {}
            EXPECT_FALSE(watcher.stop());
        }
        EXPECT_EQ(descriptors, countDescriptors());
    });
}

TEST_F(Kernel, IsStoppedDuringEachCallbackOfItsStart) {
    expectInNetwork([] {
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
            EXPECT_FALSE(watcher.join());
        }
    });
}

TEST_F(Kernel, IsStoppedWhileItFollows) {
    expectInNetwork([] {
        for (int round = 0; round < ROUNDS; ++round) {
            Watcher watcher;
            watcher.start();
            watcher.listener.takeUntil("address_operable lo 127.0.0.1/255.0.0.0");
            EXPECT_FALSE(watcher.stop());
        }
    });
}

TEST_F(Kernel, IsStoppedBySeveralThreadsAtOnce) {
    expectInNetwork([] {
        int const descriptors = countDescriptors();
        for (int round = 0; round < ROUNDS; ++round) {
            Watcher watcher;
            watcher.start();
            std::atomic<int> ready{0};
            std::vector<std::thread> stoppers;
            stoppers.reserve(4);
            for (int i = 0; i < 4; ++i) {
                stoppers.emplace_back([&] {
                    ++ready;
                    while (ready < 4) {
                        sched_yield();
                    }
                    watcher.monitor.stopWatching();
                });
            }
            EXPECT_FALSE(watcher.join());
            for (std::thread& stopper : stoppers) {
                stopper.join();
            }
        }
        EXPECT_EQ(descriptors, countDescriptors());
    });
}

// Another thread gets the number of the closed socket at once: nobody may close or use that.
TEST_F(Kernel, TouchesNoDescriptorOfOthersAtItsEnd) {
    expectInNetwork([] {
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
    });
}

TEST_F(Kernel, ClosesTheSocketOfACancelledThread) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer keeps its marks of the stack frames that a cancelled thread has left";
#endif
    expectInNetwork([] {
        int const descriptors = countDescriptors();
        RecordingListener listener;
        NetDeviceMonitor monitor(&listener);
        pthread_t thread{};
        ASSERT_EQ(
            0,
            pthread_create(
                &thread, nullptr,
                [](void* context) -> void* {
                    static_cast<NetDeviceMonitor*>(context)->watch();
                    return nullptr;
                },
                &monitor));
        listener.takeUntil("address_operable lo 127.0.0.1/255.0.0.0");
        EXPECT_EQ(descriptors + 1, countDescriptors());
        EXPECT_EQ(0, pthread_cancel(thread));
        void* result = nullptr;
        EXPECT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
        EXPECT_EQ(descriptors, countDescriptors());
        monitor.stopWatching();
    });
}

} // namespace
