#pragma once

#include <vesk/Export.h>
#include <vesk/IPSocket.h>
#include <vesk/common/UniqueFd.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <string>

struct if_nameindex;
struct ifreq;

namespace vesk {

/// The network interfaces of the machine with their properties, and the settings of a single interface.
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
/// An object is a cursor over the interfaces that existed when it was created. It starts before the first
/// interface. Each `getNextInfo` moves it to the next interface, even if the call then fails. The setters
/// change the interface at the cursor. A setter that finds the cursor before the first interface moves it to
/// the first interface; the next `getNextInfo` then returns the second interface. After the last interface
/// the cursor does not move.
///
/// Only IPv4 addresses are read and set; `NetDeviceMonitor` supports IPv4 and IPv6. Changes need the
/// permission of an administrator (`CAP_NET_ADMIN`), and last until the interface or the system goes down.
///
/// An object with a failed construction has no interface, and all its operations fail with
/// `CommonErrorId::CONTRACT_BROKEN` "invalid object".
///
/// No operation blocks, except for a host name given as an address. An object must be used by one thread at a
/// time; threads may use separate objects, also for the same interface.
class VESK_API NetDevice : private tarnbase::NonCopyable {
public:
    /// The properties of an interface.
    struct InterfaceInfo {
        /// The kinds of interfaces.
        enum Type : int {
            LOOPBACK = 0,       ///< The machine itself.
            POINT_TO_POINT = 1, ///< A link with a single other end; also if it is a loopback.
            OTHER = 2,
        };

        /// The name, such as "eth0".
        std::string name;
        IPSocket::IPAddress address; ///< The IPv4 address (the first of several), if `has_address`; port 0.
        IPSocket::IPAddress netmask; ///< The netmask of `address`, if `has_netmask`; port 0.
        IPSocket::IPAddress broadcast_address; ///< If `has_broadcast_address`; port 0.
        bool has_broadcast_address = false;    ///< Only for an interface that can broadcast.
        /// Whether the interface has an address.
        bool has_address = false;
        /// Whether the interface has a netmask.
        bool has_netmask = false;
        unsigned char hardware_address[6] = {}; ///< The MAC address, if `has_hardware_address`.
        bool has_hardware_address = false;      ///< Only for a device of the Ethernet type.
        bool up = false;                        ///< Switched on administratively.
        bool running = false;                   ///< Ready for traffic, for example with a cable connected.
        bool promiscuous = false;               ///< Also receives packets for other receivers.
        /// Whether the interface supports multicast.
        bool multicast = false;
        /// Whether the interface supports broadcast.
        bool broadcast = false;
        int mtu = 0;        ///< The largest packet in bytes.
        int type = OTHER;   ///< One of `Type`.
        uint32_t flags = 0; ///< The system's flags (`IFF_UP` and so on), in the low 16 bits.
    };

    /// Lists the existing interfaces (`socket`, and `if_nametoindex` or `if_nameindex`). After a failure the
    /// object is invalid, with a report pending: `SysErrorId::NO_DEVICE` if no interface has this name;
    /// `CommonErrorId::OUT_OF_MEMORY` without memory for a single interface; `SysErrorId::OUT_OF_MEMORY` if
    /// all interfaces cannot be listed, for whatever reason; `SysErrorId::UNCLASSIFIED` if the control socket
    /// cannot be created.
    /// @param name  the only interface to use, at most 15 bytes; null: all of them, in the system's order
    explicit NetDevice(char const* name);
    ~NetDevice();

    /// Returns whether the object can be used: its construction succeeded.
    bool isValid() const noexcept { return m_control.isOpen(); }

    /// Moves to the next interface and returns its properties (`ioctl`, five or six times). An interface
    /// without an IPv4 address is not a failure.
    /// @param info  overwritten; unchanged after the last interface; filled up to the failed query after a
    ///              failure
    /// @return 0 done; 1 after the last interface, also for further calls; -1 on failure:
    ///         `SysErrorId::UNCLASSIFIED`, for example for an interface that has been removed. The next call
    ///         continues with the interface after it
    [[nodiscard]] int getNextInfo(InterfaceInfo& info);

    /// @{
    /// Sets the IPv4 address or the netmask of the interface (`ioctl`). A new address sets the netmask and
    /// the broadcast address of its class, so set the address first.
    /// The text is numeric, or a host name, for which the call blocks as long as the resolver does. An empty
    /// text or null is "0.0.0.0", which removes the address.
    /// @return true on failure: the reports of `IPResolver`; `CommonErrorId::INVALID_ARGUMENT` for a text
    ///         without an IPv4 address; `CommonErrorId::CONTRACT_BROKEN` "no current interface" after the
    ///         last one; `SysErrorId::PERMISSION_DENIED` without the permission; otherwise
    ///         `SysErrorId::UNCLASSIFIED`, for example for a netmask without an address
    [[nodiscard]] bool setAddress(char const* address);
    [[nodiscard]] bool setNetmask(char const* netmask);
    /// @}

    /// @{
    /// Switches the interface on or off, or switches the reception of packets for other receivers on or off
    /// (`ioctl`, twice). Changes to the interface's flags that are made between the two calls are lost.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` "no current interface" after the last
    ///         interface; `SysErrorId::PERMISSION_DENIED` without the permission; otherwise
    ///         `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool setInterfaceStatus(bool up);
    [[nodiscard]] bool setPromiscuous(bool on);
    /// @}

private:
    bool open(char const* name);
    void releaseList() noexcept;
    bool isInvalid() const;
    bool advance() noexcept;
    bool selectCurrent(ifreq& request);
    bool prepareAddress(char const* text, ifreq& request);
    bool changeFlag(int flag, bool on);

    detail::UniqueFd m_control;
    struct if_nameindex* m_list = nullptr;
    int m_position = -1;
    bool m_single = true;
};

} // namespace vesk
