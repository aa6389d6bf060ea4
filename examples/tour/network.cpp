#include "Tour.h"

#include <vesk/NetDeviceMonitor.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tour {

namespace {

/// Prints all reported changes.
class Narrator : public vesk::NetDeviceMonitor::Listener {
public:
    void interface_appeared(Info const& interface) override {
        note("interface " + std::to_string(interface.index) + " " + interface.name + " has appeared");
    }
    void interface_disappeared(Info const& interface) override {
        note("interface " + interface.name + " has disappeared");
    }
    void interface_status(Info const& interface) override {
        // The kernel repeats the status with each small change.
        if (interface.addresses.empty()) {
            note("status of " + interface.name + ": MTU " + std::to_string(interface.mtu));
        }
    }
    void address_appeared(AddrInfo const& address, Info const& interface) override {
        note("address " + getText(address) + " of " + interface.name + " has appeared");
    }
    void address_disappeared(AddrInfo const& address, Info const& interface) override {
        note("address " + getText(address) + " of " + interface.name + " has disappeared");
    }
    void address_operable(AddrInfo const& address, Info const& interface) override {
        note("address " + getText(address) + " of " + interface.name + " is operable");
    }
    void address_inoperable(AddrInfo const& address, Info const& interface) override {
        note("address " + getText(address) + " of " + interface.name + " is not operable any more");
    }

    /// Waits for a report with this text. Returns true if it does not arrive within ten seconds.
    bool waitFor(std::string const& text) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return !m_told.wait_for(
            lock, std::chrono::seconds(10), [&] { return m_all.find(text) != std::string::npos; });
    }

private:
    /// Returns the address as a text. An IPv6 address is in the field `peer`.
    static std::string getText(AddrInfo const& info) {
        bool const is_peer = info.address.getType() == vesk::NetworkAddress::NONE;
        return is_peer ? info.peer.getText() : info.address.getText();
    }

    void note(std::string const& text) {
        tell("%s", text.c_str());
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_all += text + "\n";
        m_told.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_told;
    std::string m_all;
};

/// Runs a shell command. Returns true on failure.
bool run(char const* command) {
    return system(command) != 0; // NOLINT(cert-env33-c): runs only fixed commands.
}

void changeNetwork(Narrator& narrator) {
    failed(narrator.waitFor(" left has appeared"), "the new pair is reported");
    failed(run("ip link set dev left up && ip addr add 10.0.0.1/24 brd + dev left"), "adding an address");
    failed(narrator.waitFor("address 10.0.0.1 of left is operable"), "the address is reported");
    failed(
        run("ip addr del 10.0.0.1/24 dev left && ip link del dev left"), "removing the address and the pair");
    failed(narrator.waitFor("interface left has disappeared"), "the removal is reported");
}

/// Must run in a process with a separate network namespace.
void watchNetwork() {
    Narrator narrator;
    vesk::NetDeviceMonitor monitor(&narrator);
    std::thread watcher([&monitor] { failed(monitor.watch(), "watching the network"); });
    if (run("ip link add name left type veth peer name right")) {
        tell("this system cannot create pairs of interfaces; nothing more is shown");
    } else {
        changeNetwork(narrator);
    }
    monitor.stopWatching();
    watcher.join();
}

} // namespace

void network() {
    section("Network: a monitor of interfaces, in a separate network namespace");
    fflush(stdout);
    pid_t const child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            tell("no permission for a separate network namespace; nothing is shown");
            _exit(0);
        }
        watchNetwork();
        _exit(hasFailed() ? 1 : 0);
    }
    int status = 0;
    failed(waitpid(child, &status, 0) != child || status != 0, "a process with a separate network namespace");
}

} // namespace tour
