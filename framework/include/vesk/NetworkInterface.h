#pragma once

#include <vesk/Export.h>
#include <vesk/NetworkAddress.h>

#include <cstdint>
#include <list>
#include <string>

namespace vesk {

/// A network interface by its name, and what a `NetDeviceMonitor` knows of one.
///
///     vesk::NetworkInterface const loopback("lo");
///     if (loopback.getIndex() == 0) { ... }            // There is none of that name.
class VESK_API NetworkInterface {
public:
    /// An address of an interface, with what belongs to it. A plain value.
    struct AddrInfo {
        NetworkAddress address; ///< The address; that of the link, too, is one of its addresses.
        NetworkAddress netmask; ///< The mask of its prefix. None for an address of the link.
        NetworkAddress peer;    ///< The broadcast address, or that of the far end; see `NetDeviceMonitor`.
    };

    /// An interface with its addresses. A plain value.
    struct Info {
        uint32_t index = 0;            ///< The kernel's number for it.
        std::string name;              ///< The name under which it was first seen.
        int mtu = 0;                   ///< The longest packet, in bytes.
        bool up = false;               ///< The kernel has told its status; stays so.
        bool operable = false;         ///< Comes with `up`.
        bool broadcast = false;        ///< Can reach all at once (`IFF_BROADCAST`).
        bool point_to_point = false;   ///< Has one far end (`IFF_POINTOPOINT`).
        bool loopback = false;         ///< Leads back to the machine itself (`IFF_LOOPBACK`).
        std::list<AddrInfo> addresses; ///< In the order of their arrival.
    };

    /// Looks the name up (`if_nametoindex`), in the network namespace of the calling thread. Does not block for long, and
    /// reports nothing.
    explicit NetworkInterface(std::string const& name);

    /// The kernel's number for the interface at the moment of the construction; 0 if no interface had the name.
    uint32_t getIndex() const noexcept { return m_index; }

private:
    uint32_t m_index;
};

} // namespace vesk
