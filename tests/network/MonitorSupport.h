#pragma once

#include <vesk/NetDeviceMonitor.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// What the tests of the monitor have in common.
namespace support {

using AddrInfo = vesk::NetworkInterface::AddrInfo;
using Info = vesk::NetworkInterface::Info;
using vesk::NetworkAddress;
using Log = std::vector<std::string>;

/// "10.0.0.1/255.255.255.0 peer 10.0.0.255", with "-" for an address that is none.
inline std::string describe(AddrInfo const& info) {
    std::string text = info.address.getType() == NetworkAddress::NONE ? "-" : info.address.getText();
    text += info.netmask.getType() == NetworkAddress::NONE ? "" : "/" + info.netmask.getText();
    text += info.peer.getType() == NetworkAddress::NONE ? "" : " peer " + info.peer.getText();
    return text;
}

/// "3 eth0 mtu 1500 up operable broadcast [...]", with all addresses.
inline std::string describe(Info const& info) {
    std::string text = std::to_string(info.index) + " " + info.name + " mtu " + std::to_string(info.mtu);
    text += info.up ? " up" : "";
    text += info.operable ? " operable" : "";
    text += info.broadcast ? " broadcast" : "";
    text += info.point_to_point ? " point_to_point" : "";
    text += info.loopback ? " loopback" : "";
    text += " [";
    for (AddrInfo const& address : info.addresses) {
        text += text.back() == '[' ? "" : ", ";
        text += describe(address);
    }
    return text + "]";
}

/// Writes down all that it is told, a line a call: "address_appeared eth0 10.0.0.1/255.255.255.0".
class RecordingListener : public vesk::NetDeviceMonitor::Listener {
public:
    /// Called in the watching thread after each call was written down.
    std::function<void(std::string const& line)> on_call;

    void interface_appeared(Info const& interface) override { add("interface_appeared", interface); }
    void interface_disappeared(Info const& interface) override { add("interface_disappeared", interface); }
    void interface_status(Info const& interface) override { add("interface_status", interface); }
    void address_appeared(AddrInfo const& address, Info const& interface) override {
        add("address_appeared", interface, &address);
    }
    void address_disappeared(AddrInfo const& address, Info const& interface) override {
        add("address_disappeared", interface, &address);
    }
    void address_operable(AddrInfo const& address, Info const& interface) override {
        add("address_operable", interface, &address);
    }
    void address_inoperable(AddrInfo const& address, Info const& interface) override {
        add("address_inoperable", interface, &address);
    }

    /// All calls since the last `take`.
    Log take() {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return std::exchange(m_log, {});
    }

    /// The interface as the last call had it, with its addresses.
    std::string getInterface() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_interface;
    }

    AddrInfo getAddress() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_address;
    }

    /// Waits until a line has been written down, and takes all up to it; all there are if it does not come in 40 seconds.
    Log takeUntil(std::string const& line) {
        return takeUntil([&line](std::string const& seen) { return seen == line; });
    }
    Log takeUntil(std::function<bool(std::string const&)> const& is_wanted) {
        std::unique_lock<std::mutex> lock(m_mutex);
        size_t count = 0;
        m_called.wait_for(lock, std::chrono::seconds(40), [&] {
            while (count < m_log.size()) {
                if (is_wanted(m_log[count++])) {
                    return true;
                }
            }
            return false;
        });
        auto const end = m_log.begin() + static_cast<ptrdiff_t>(count);
        Log taken(m_log.begin(), end);
        m_log.erase(m_log.begin(), end);
        return taken;
    }

private:
    void add(char const* call, Info const& interface, AddrInfo const* address = nullptr) {
        std::string line = std::string(call) + " " + interface.name;
        line += address == nullptr ? "" : " " + describe(*address);
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_log.push_back(line);
            m_interface = describe(interface);
            m_address = address != nullptr ? *address : AddrInfo();
            m_called.notify_all();
        }
        if (on_call) {
            on_call(line);
        }
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_called;
    Log m_log;
    std::string m_interface;
    AddrInfo m_address;
};

} // namespace support
