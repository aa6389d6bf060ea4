#pragma once

#include <vesk/Export.h>
#include <vesk/NetworkAddress.h>

#include <cstdint>
#include <list>
#include <string>

namespace vesk {

/// The index of a network interface, found by its name, and the data types of `NetDeviceMonitor`.
///
///     vesk::NetworkInterface const loopback("lo");
///     if (loopback.getIndex() == 0) { ... }            // There is none of that name.
class VESK_API NetworkInterface {
public:
    /// An address of an interface, with its netmask and peer. A plain value.
    struct AddrInfo {
        NetworkAddress address; ///< The address; the link address of the interface counts as an address.
        NetworkAddress netmask; ///< The netmask of its prefix. No address for a link address.
        NetworkAddress peer;    ///< The broadcast address, or that of the other end; see `NetDeviceMonitor`.
    };

    /// An interface with its addresses. A plain value.
    struct Info {
        uint32_t index = 0;            ///< The kernel's index of it.
        std::string name;              ///< The name that was reported first.
        int mtu = 0;                   ///< The largest packet in bytes.
        bool up = false;               ///< The kernel has reported its status; stays true.
        bool operable = false;         ///< Set together with `up`.
        bool broadcast = false;        ///< Supports broadcast (`IFF_BROADCAST`).
        bool point_to_point = false;   ///< Has a single other end (`IFF_POINTOPOINT`).
        bool loopback = false;         ///< Is a loopback to the machine itself (`IFF_LOOPBACK`).
        std::list<AddrInfo> addresses; ///< In the order in which they were reported.
    };

    /// Looks up the name in the network namespace of the calling thread (`if_nametoindex`). Does not block.
    /// Reports nothing.
    explicit NetworkInterface(std::string const& name);

    /// Returns the kernel's index of the interface at the time of the construction; 0 if no interface had the
    /// name.
    uint32_t getIndex() const noexcept { return m_index; }

private:
    uint32_t m_index;
};

} // namespace vesk
