#include "Storm.h"

#include <vesk/NetDeviceMonitor.h>
#include <vesk/ProcessTNG.h>
#include <vesk/Thread.h>

#include <optional>
#include <string>

namespace soak {

namespace {

/// A monitor that watches while a pair of interfaces appears, gets an address, and disappears.
class NetworkStorm : public Storm, private vesk::NetDeviceMonitor::Listener {
public:
    NetworkStorm() : Storm("network") {}

    std::string start() override {
        if (ip("link add name soak0 type veth peer name soak1") || ip("link del dev soak0")) {
            return "pairs of interfaces cannot be created here";
        }
        m_monitor.emplace(static_cast<Listener*>(this));
        m_watcher.emplace(watch, this, "watch");
        check(m_watcher->start(), "starting the watching thread");
        return {};
    }

    void stop() override {
        if (m_watcher) {
            m_monitor->stopWatching();
            check(m_watcher->join(), "joining the watching thread");
            m_watcher.reset();
            m_monitor.reset();
        }
    }

    void work() override {
        unsigned int const addresses = m_addresses;
        unsigned int const gone = m_gone;
        check(ip("link add name soak0 type veth peer name soak1"), "adding a pair");
        check(ip("addr add 10.9.8.7/24 dev soak0"), "adding an address");
        for (unsigned int left = random(4); left > 0; --left) {
            check(ip("link set dev soak0 up") || ip("link set dev soak1 up"), "enabling it");
            check(ip("link set dev soak0 down"), "disabling it");
            countProvoked();
        }
        check(!eventually([&] { return m_addresses > addresses; }), "an address is not reported");
        check(ip("link del dev soak0"), "removing the pair");
        check(!eventually([&] { return m_gone >= gone + 2; }), "the removal is not reported");
    }

private:
    static void watch(void* storm) {
        auto& self = *static_cast<NetworkStorm*>(storm);
        self.check(self.m_monitor->watch(), "watching");
    }

    /// Runs `ip` with these arguments. Returns true on failure.
    static bool ip(std::string const& arguments) {
        vesk::ProcessTNG process("/bin/sh", {"-c", "exec ip " + arguments});
        process.setStderrNull(true);
        vesk::ProcessTNG::ExitState state;
        return process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID || process.wait(state, false, 0) ||
            state.killed || state.status != 0;
    }

    void interface_disappeared(Info const& /*interface*/) override { ++m_gone; }
    void address_appeared(AddrInfo const& /*address*/, Info const& /*interface*/) override { ++m_addresses; }

    std::atomic<unsigned int> m_addresses{0};
    std::atomic<unsigned int> m_gone{0};
    std::optional<vesk::NetDeviceMonitor> m_monitor;
    std::optional<vesk::Thread> m_watcher;
};

} // namespace

std::unique_ptr<Storm> makeNetworkStorm() {
    return std::make_unique<NetworkStorm>();
}

} // namespace soak
