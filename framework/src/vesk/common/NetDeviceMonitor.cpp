#include <vesk/NetDeviceMonitor.h>

#include "Report.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/common/NetDeviceMonitor";

bool isSame(NetworkInterface::AddrInfo const& left, NetworkInterface::AddrInfo const& right) noexcept {
    return left.address == right.address && left.netmask == right.netmask && left.peer == right.peer;
}

bool isOperable(NetworkInterface::Info const& interface) noexcept {
    return interface.up && interface.operable;
}

/// Finds an address by its identity, which includes neither netmask nor peer.
std::list<NetworkInterface::AddrInfo>::iterator
find(NetworkInterface::Info& interface, NetworkInterface::AddrInfo const& wanted) {
    return std::find_if(
        interface.addresses.begin(), interface.addresses.end(),
        [&wanted](NetworkInterface::AddrInfo const& known) { return known.address == wanted.address; });
}

} // namespace

NetDeviceMonitor::NetDeviceMonitor(Listener* listener) : m_listener(listener), m_impl(makeImpl()) {
    if (m_listener == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::INVALID_ARGUMENT, "Listener must not be null");
    }
    if (m_impl == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "no memory for the monitor");
    }
}

NetDeviceMonitor::~NetDeviceMonitor() {
    stopWatching();
    deleteImpl();
}

bool NetDeviceMonitor::watch() {
    std::GlobalErrorHandler::doAssert(m_impl != nullptr, "m_impl", SOURCE, __LINE__, "watch", nullptr);
    if (m_impl == nullptr) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "watch() called in invalid state");
        return true;
    }
    return runImpl();
}

void NetDeviceMonitor::stopWatching() {
    if (m_impl != nullptr) {
        stopImpl();
    }
}

// ---- The table ----

/// Returns null only if the assertion returns.
NetDeviceMonitor::Listener* NetDeviceMonitor::getListener(char const* function, int line) const {
    std::GlobalErrorHandler::doAssert(m_listener != nullptr, "m_listener", SOURCE, line, function, nullptr);
    return m_listener;
}

void NetDeviceMonitor::interface_appeared(unsigned short index, char const* name) {
    auto const [entry, is_new] = m_interfaces.try_emplace(index);
    if (!is_new) {
        return;
    }
    Info& interface = entry->second;
    interface.index = index;
    interface.name = name;
    if (Listener* const listener = getListener("interface_appeared")) {
        listener->interface_appeared(interface);
    }
}

// The state of the link is ignored: an interface with a reported status stays up until it disappears.
void NetDeviceMonitor::interface_up(
    unsigned short index, bool broadcast, bool point_to_point, bool loopback, int mtu, bool, bool) {
    Info& interface = m_interfaces[index];
    bool const was_operable = isOperable(interface);
    interface.broadcast = broadcast;
    interface.point_to_point = point_to_point;
    interface.loopback = loopback;
    interface.mtu = mtu;
    interface.up = true;
    interface.operable = true;
    if (Listener* const listener = getListener("interface_up")) {
        listener->interface_status(interface);
    }
    if (was_operable) {
        return;
    }
    for (AddrInfo const& address : interface.addresses) {
        if (Listener* const listener = getListener("interface_up")) {
            listener->address_operable(address, interface);
        }
    }
}

void NetDeviceMonitor::interface_disappeared(int index) {
    // The unchanged index, where all other operations get 16 bits.
    auto const entry = m_interfaces.try_emplace(static_cast<uint32_t>(index)).first;
    Info const& interface = entry->second;
    for (AddrInfo const& address : interface.addresses) {
        if (isOperable(interface)) {
            if (Listener* const listener = getListener("interface_disappeared")) {
                listener->address_inoperable(address, interface);
            }
        }
        if (Listener* const listener = getListener("interface_disappeared")) {
            listener->address_disappeared(address, interface);
        }
    }
    if (Listener* const listener = getListener("interface_disappeared")) {
        listener->interface_disappeared(interface);
    }
    m_interfaces.erase(entry);
}

void NetDeviceMonitor::address_appeared(unsigned short index, AddrInfo const& address) {
    Info& interface = m_interfaces[index];
    if (find(interface, address) != interface.addresses.end()) {
        return;
    }
    interface.addresses.push_back(address);
    if (Listener* const listener = getListener("address_appeared")) {
        listener->address_appeared(address, interface);
    }
    if (!isOperable(interface)) {
        return;
    }
    if (Listener* const listener = getListener("address_appeared")) {
        listener->address_operable(address, interface);
    }
}

// The listener gets the netmask and the peer of the removal, not those of the table.
void NetDeviceMonitor::address_disappeared(unsigned short index, AddrInfo const& address) {
    Info& interface = m_interfaces[index];
    auto const known = find(interface, address);
    if (known == interface.addresses.end()) {
        return;
    }
    if (isOperable(interface)) {
        if (Listener* const listener = getListener("address_disappeared")) {
            listener->address_inoperable(address, interface);
        }
    }
    if (Listener* const listener = getListener("address_disappeared")) {
        listener->address_disappeared(address, interface);
    }
    interface.addresses.erase(known);
}

void NetDeviceMonitor::forgetAllBut(Snapshot const& there) {
    // A copy, since the table changes during the loop. The table stays consistent if the listener throws.
    std::map<uint32_t, Info> const known = m_interfaces;
    for (auto const& [index, interface] : known) {
        auto const found = there.find(index);
        if (found == there.end()) {
            interface_disappeared(static_cast<int>(index));
            continue;
        }
        std::list<AddrInfo> const& addresses = found->second;
        auto const number = static_cast<unsigned short>(index);
        for (AddrInfo const& address : interface.addresses) {
            bool const stays =
                std::any_of(addresses.begin(), addresses.end(), [&address](AddrInfo const& other) {
                    return isSame(address, other);
                });
            if (stays) {
                continue;
            }
            address_disappeared(number, address);
            // The address may still exist with another netmask or peer.
            for (AddrInfo const& other : addresses) {
                if (other.address == address.address) {
                    address_appeared(number, other);
                }
            }
        }
    }
}

// ---- The default listener ----

void NetDeviceMonitor::Listener::interface_appeared(Info const&) {}

void NetDeviceMonitor::Listener::interface_disappeared(Info const&) {}

void NetDeviceMonitor::Listener::interface_status(Info const&) {}

void NetDeviceMonitor::Listener::address_appeared(AddrInfo const&, Info const&) {}

void NetDeviceMonitor::Listener::address_disappeared(AddrInfo const&, Info const&) {}

void NetDeviceMonitor::Listener::address_operable(AddrInfo const&, Info const&) {}

void NetDeviceMonitor::Listener::address_inoperable(AddrInfo const&, Info const&) {}

} // namespace vesk
