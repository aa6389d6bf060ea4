#pragma once

#include "support/Testing.h"

#include <vesk/NetDeviceMonitor.h>

#include <chrono>
#include <condition_variable>

/// Support for the tests of the monitor.
namespace support {

using AddrInfo = vesk::NetworkInterface::AddrInfo;
using Info = vesk::NetworkInterface::Info;
using vesk::NetworkAddress;
using Log = std::vector<std::string>;

template <typename Value>
std::vector<Value> operator+(std::vector<Value> log, std::vector<Value> const& more) {
    log.insert(log.end(), more.begin(), more.end());
    return log;
}

/// Returns the lines about a new interface, and about an address that an interface in operation gets and
/// loses.
inline Log interfaceAppears(std::string const& name) {
    return {"interface_appeared " + name, "interface_status " + name};
}
inline Log addressAppears(std::string const& address, std::string const& interface = "eth0") {
    std::string const what = interface + " " + address;
    return {"address_appeared " + what, "address_operable " + what};
}
inline Log addressDisappears(std::string const& address, std::string const& interface = "eth0") {
    std::string const what = interface + " " + address;
    return {"address_inoperable " + what, "address_disappeared " + what};
}

/// Returns "10.0.0.1/255.255.255.0 peer 10.0.0.255", with "-" for an empty address.
inline std::string describe(AddrInfo const& info) {
    std::string text = info.address.getType() == NetworkAddress::NONE ? "-" : info.address.getText();
    text += info.netmask.getType() == NetworkAddress::NONE ? "" : "/" + info.netmask.getText();
    text += info.peer.getType() == NetworkAddress::NONE ? "" : " peer " + info.peer.getText();
    return text;
}

/// Returns "3 eth0 mtu 1500 up operable broadcast [...]", with all addresses.
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

/// Records each call as one line: "address_appeared eth0 10.0.0.1/255.255.255.0".
class RecordingListener : public vesk::NetDeviceMonitor::Listener {
public:
    /// Called in the watching thread after each call has been recorded.
    std::function<void(std::string const& line)> on_call;

    void interface_appeared(Info const& i) override { add("interface_appeared", i); }
    void interface_disappeared(Info const& i) override { add("interface_disappeared", i); }
    void interface_status(Info const& i) override { add("interface_status", i); }
    void address_appeared(AddrInfo const& a, Info const& i) override { add("address_appeared", i, &a); }
    void address_disappeared(AddrInfo const& a, Info const& i) override { add("address_disappeared", i, &a); }
    void address_operable(AddrInfo const& a, Info const& i) override { add("address_operable", i, &a); }
    void address_inoperable(AddrInfo const& a, Info const& i) override { add("address_inoperable", i, &a); }

    /// Returns all calls since the last `take`.
    Log take() {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return std::exchange(m_log, {});
    }

    /// Returns the interface of the last call, with its addresses.
    std::string getInterface() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_interface;
    }

    /// Waits until a line has been recorded, and takes all lines up to it; after 40 seconds, takes all.
    Log takeUntil(std::string const& line) {
        std::unique_lock<std::mutex> lock(m_mutex);
        size_t count = 0;
        m_called.wait_for(lock, std::chrono::seconds(40), [&] {
            while (count < m_log.size()) {
                if (m_log[count++] == line) {
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
};

} // namespace support
