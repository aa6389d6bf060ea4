#pragma once

#include <vesk/Export.h>
#include <vesk/IPSocket.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <string>

struct if_nameindex;
struct ifreq;

namespace vesk {

/// The network interfaces of the machine, with what the system tells of each, and the settings of one of them.
///
///     vesk::NetDevice devices(nullptr);
///     vesk::NetDevice::InterfaceInfo info;
///     while (devices.getNextInfo(info) == 0) {
///         use(info.name, info.has_address ? info.address.host : "no address");
///     }
///
///     vesk::NetDevice device("eth0");
///     if (device.setAddress("192.0.2.7") || device.setInterfaceStatus(true)) { ... }
///
/// An object is a cursor over the interfaces that were there when it was made. It stands before the first one; each
/// `getNextInfo` moves it to the next, also when it then fails, and the setters act on the interface that it stands on. A
/// setter that finds it before the first moves it to the first, which a later `getNextInfo` then passes over. Past the
/// last one it stays.
///
/// Only IPv4 is told and set: `NetDeviceMonitor` knows both. Changes take rights that only an administrator has
/// (`CAP_NET_ADMIN`), and last until the interface or the system goes down.
///
/// An object whose construction failed has no interface, and all its operations fail with `CommonErrorId::CONTRACT_BROKEN` "invalid object".
///
/// Nothing blocks, except for a host name given as an address. An object belongs to one thread at a time; threads may use
/// objects of their own, also for the same interface.
class VESK_API NetDevice : private tarnbase::NonCopyable {
public:
    /// What there is to know of an interface.
    struct InterfaceInfo {
        enum Type : int {
            LOOPBACK = 0,       ///< The machine itself.
            POINT_TO_POINT = 1, ///< A link with one other end; also if it is a loopback.
            OTHER = 2,
        };

        std::string name;
        IPSocket::IPAddress address; ///< The IPv4 address, of several the first, if `has_address`; port 0.
        IPSocket::IPAddress netmask; ///< The netmask of that, if `has_netmask`; port 0.
        IPSocket::IPAddress broadcast_address; ///< If `has_broadcast_address`; port 0.
        bool has_broadcast_address = false;    ///< Only for an interface that can broadcast.
        bool has_address = false;
        bool has_netmask = false;
        unsigned char hardware_address[6] = {}; ///< The MAC address, if `has_hardware_address`.
        bool has_hardware_address = false;      ///< Only for a device of the Ethernet type.
        bool up = false;                        ///< Switched on by the administrator.
        bool running = false;                   ///< Ready for traffic, for example with a cable in it.
        bool promiscuous = false;               ///< Receives what is sent to others, too.
        bool multicast = false;
        bool broadcast = false;
        int mtu = 0;        ///< The largest packet, in bytes.
        int type = OTHER;   ///< One of `Type`.
        uint32_t flags = 0; ///< The system's flags as they come (`IFF_UP` and so on), in the low 16 bits.
    };

    /// Notes which interfaces there are (`socket`, and `if_nametoindex` or `if_nameindex`). On failure the object is
    /// invalid, and pending is `SysErrorId::NO_DEVICE` if there is no interface of this name; `CommonErrorId::OUT_OF_MEMORY` or `SysErrorId::OUT_OF_MEMORY` without
    /// memory; `SysErrorId::UNCLASSIFIED` without a socket for the questions.
    /// @param name  the only interface to look at, of at most 15 bytes; null: all of them, in the system's order
    explicit NetDevice(char const* name);
    ~NetDevice();

    /// Whether the object can be used: its construction succeeded.
    bool isValid() const noexcept { return m_control_fd != -1; }

    /// Moves to the next interface and tells all about it (`ioctl`, five or six times). An interface without an IPv4
    /// address is no failure.
    /// @param info  overwritten; at the end left as it was, and after a failure filled as far as it went
    /// @return 0 done; 1 past the last interface, again and again; -1 on failure: `SysErrorId::UNCLASSIFIED`, for example for an
    ///         interface that is gone by now. The next call goes on with the interface behind it
    int getNextInfo(InterfaceInfo& info);

    /// Set the IPv4 address, or the netmask, of the interface (`ioctl`). A new address brings the netmask and the broadcast
    /// address of its class, so the address goes first.
    /// @param address  numeric, or a host name, which may block as long as the resolver does; empty or null: "0.0.0.0",
    ///                 which takes the address away
    /// @return true on failure: what `IPResolver` reported; `CommonErrorId::INVALID_ARGUMENT` for a text that leads to no IPv4 address, 1 "no
    ///         current interface" past the last one; `SysErrorId::PERMISSION_DENIED` without the right; else `SysErrorId::UNCLASSIFIED`, as for a netmask
    ///         without an address
    bool setAddress(char const* address);
    bool setNetmask(char const* netmask);

    /// Switch the interface on or off, and receiving what is sent to others (`ioctl`, twice). Between the two calls other
    /// changes of the interface's flags are lost.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` "no current interface" past the last one; `SysErrorId::PERMISSION_DENIED` without the right;
    ///         else `SysErrorId::UNCLASSIFIED`
    bool setInterfaceStatus(bool up);
    bool setPromiscuous(bool on);

private:
    bool open(char const* name);
    void releaseList() noexcept;
    bool isInvalid() const;
    bool advance() noexcept;
    bool selectCurrent(ifreq& request);
    bool prepareAddress(char const* text, ifreq& request);
    bool changeFlag(int flag, bool on);

    int m_control_fd = -1;
    struct if_nameindex* m_list = nullptr;
    int m_position = -1;
    bool m_single = true;
};

} // namespace vesk
