#pragma once

#include <vesk/Export.h>
#include <vesk/NetworkInterface.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <list>
#include <map>

namespace vesk {

class NetDeviceMonitorImpl;

/// Reports the network interfaces of the machine and their addresses to a listener: first all existing ones,
/// then every change. It creates no thread: the caller runs `watch` in a thread, and any other thread ends
/// it.
///
///     class Addresses : public vesk::NetDeviceMonitor::Listener {
///         void address_operable(AddrInfo const& address, Info const& interface) override { ... }
///         void address_inoperable(AddrInfo const& address, Info const& interface) override { ... }
///     };
///     Addresses addresses;
///     vesk::NetDeviceMonitor monitor(&addresses);
///     std::thread thread([&monitor] { monitor.watch(); });
///     ...
///     monitor.stopWatching();
///     thread.join();
///
/// The monitor keeps a table of all known interfaces and addresses, so that repeated kernel messages are
/// reported once. For an existing interface with a single IPv4 address a listener is called in this order:
///
/// | message of the kernel | callbacks |
/// |---|---|
/// | the interface | `interface_appeared`, `interface_status`, then `address_appeared` and `address_operable` for its MAC address |
/// | the end of all interfaces | none |
/// | the address | `address_appeared`, `address_operable` |
///
/// **Operable addresses.** An address is operable as soon as it exists and the status of its interface has
/// been reported once. The state of the link has no effect: an interface stays up in the table, and its
/// addresses operable, until the interface or the address is removed. An interface that leaves a bridge
/// counts as removed, and as new with the next kernel message about it.
///
/// **Identity of addresses.** Two addresses of the same interface are the same if their `AddrInfo::address`
/// is equal. An IPv4 address is in `address`, and its broadcast address in `peer`. An IPv6 address without
/// another end is in `peer`, since the kernel sends it as `IFA_ADDRESS` alone, and `address` is empty. So all
/// such IPv6 addresses of an interface count as the same address: only the first of them is reported as new,
/// and the removal of any of them is reported as the removal of that address. An IPv6 address with another
/// end is in `address`. A tentative address, which the kernel still checks for duplicates, is reported only
/// after the check has succeeded.
///
/// **Names and indexes.** An interface keeps the name that was reported first. Indexes of interfaces are
/// supported up to 65,535: of a larger one only the lower 16 bits count, except for the removal of an
/// interface.
///
/// **Lost messages.** A kernel message of more than 4,096 bytes is truncated, and its rest is ignored. When
/// changes arrive faster than the listener processes them, the kernel drops some (`ENOBUFS`). This is
/// reported, and makes `watch` return true. The monitor then processes the messages that the kernel has kept,
/// and requests all interfaces and addresses again. It reports the difference between its table and the
/// answer: new entries as they arrive, with the status of each interface, and removed ones at the end. A
/// change that was reverted in between is not reported. An address with a changed netmask or peer is reported
/// as removed and as new. If messages are lost during this, the monitor repeats the request. The first
/// answers to a repeated call of `watch` are compared with the table in the same way.
///
/// The table, `watch` and all callbacks must be used by one thread at a time. `stopWatching` may be called
/// from any thread, from several threads at once, and from a callback.
class VESK_API NetDeviceMonitor : private tarnbase::NonCopyable {
public:
    class Listener;
    /// @{
    /// A short name.
    using AddrInfo = NetworkInterface::AddrInfo;
    using Info = NetworkInterface::Info;
    /// @}

    /// Reports `std::CommonErrorId::INVALID_ARGUMENT` "Listener must not be null" for a null listener, and
    /// `std::CommonErrorId::CONTRACT_BROKEN` without memory. A monitor without memory cannot watch.
    /// @param listener  must exist until the monitor is destroyed
    explicit NetDeviceMonitor(Listener* listener);

    /// Calls `stopWatching`, but does not wait: no thread may still be inside `watch` or `stopWatching`.
    ~NetDeviceMonitor();

    /// Reports the existing interfaces and addresses, then the changes, until `stopWatching` (netlink,
    /// `recvmsg`). Blocks.
    ///
    /// The existing entries are requested in two steps, interfaces and addresses; changes that happen
    /// meanwhile are reported in between. So an address that is added at the very beginning may be reported
    /// before its interface, which then stays without index and name.
    ///
    /// Watches the network namespace of the calling thread. After `stopWatching` a further call reads only
    /// the beginning of each answer, and returns.
    ///
    /// | failed call | report | consequence |
    /// |---|---|---|
    /// | `socket` | `Socket::ErrorId::CREATE_FAILED` | returns |
    /// | `bind`, `sendmsg` | `SysErrorId::UNCLASSIFIED` | returns |
    /// | `recvmsg`, also if a signal interrupts it | `SysErrorId::UNCLASSIFIED` | continues |
    ///
    /// After a `recvmsg` that failed because of lost messages, or failed during the answer to a request, it
    /// requests everything again. After two failures in a row it pauses for 100 ms before each further
    /// attempt; an interruption by a signal does not count.
    ///
    /// Asserts "m_impl" if the constructor had no memory, and reports `std::CommonErrorId::CONTRACT_BROKEN`.
    /// Asserts "name" for an interface without a name, and ignores it. Ignores malformed messages without a
    /// report. Exceptions of the listener and `std::bad_alloc` pass through; the monitor can be used again
    /// afterwards.
    /// @return true if anything failed, even if the operation continued
    [[nodiscard]] bool watch();

    /// Ends `watch` permanently. Does not wait for its end, and reports nothing. If no thread is inside
    /// `watch`, a later `watch` returns soon after its beginning.
    void stopWatching();

    // ---- The table, as kept by the system-specific part ----
    //
    // For the watching thread. Must not be called from callbacks.
    //
    // All operations except `interface_appeared` create an entry without index and name for an unknown
    // interface. Each operation asserts "m_listener" before a callback; without a listener the table is kept
    // nevertheless.

    /// Adds an interface. Does nothing if it is known.
    /// @param name  not null
    void interface_appeared(unsigned short index, char const* name);

    /// Updates the status of an interface. It is up from now on; the last two arguments have no effect.
    void interface_up(
        unsigned short index, bool broadcast, bool point_to_point, bool loopback, int mtu, bool link_up,
        bool present);

    /// Removes an interface and its addresses.
    void interface_disappeared(int index);

    /// Adds an address. Does nothing if it is known.
    void address_appeared(unsigned short index, AddrInfo const& address);

    /// Removes an address. Reports nothing if it is unknown.
    void address_disappeared(unsigned short index, AddrInfo const& address);

private:
    friend class NetDeviceMonitorImpl;

    /// Addresses by the index of their interface, as in the table.
    using Snapshot = std::map<uint32_t, std::list<AddrInfo>>;

    Listener* getListener(char const* function, int line = __builtin_LINE()) const;

    /// Reports and removes the table entries that are missing in `there`. Reports entries with a changed
    /// netmask or peer as removed and as new.
    TARN_HIDDEN void forgetAllBut(Snapshot const& there);

    // Implemented by the system-specific part.
    NetDeviceMonitorImpl* makeImpl() noexcept;
    void deleteImpl() noexcept;
    bool runImpl();
    void stopImpl() noexcept;

    Listener* m_listener;
    std::map<uint32_t, Info> m_interfaces;
    NetDeviceMonitorImpl* m_impl;
};

/// Receives the callbacks of a monitor. Every operation does nothing unless it is overridden. All are called
/// in the thread that is inside `NetDeviceMonitor::watch`. The arguments are valid during the call. An
/// operation may call `stopWatching`, but no other operation of the monitor. While it runs, changes are
/// queued in the kernel, which has room for a few hundred.
///
/// An IPv6 address is usually in `AddrInfo::peer`; see `NetDeviceMonitor`.
class VESK_API NetDeviceMonitor::Listener {
public:
    /// @{
    /// A short name.
    using AddrInfo = NetworkInterface::AddrInfo;
    using Info = NetworkInterface::Info;
    /// @}

    virtual ~Listener() = default;

    /// An interface was reported for the first time. Only `index` and `name` are known yet.
    virtual void interface_appeared(Info const& interface);

    /// An interface was removed. Its addresses were reported before, and are still in the list.
    virtual void interface_disappeared(Info const& interface);

    /// The kernel has reported the status of an interface: at the beginning and with every change.
    virtual void interface_status(Info const& interface);

    /// An address was added.
    virtual void address_appeared(AddrInfo const& address, Info const& interface);

    /// An address was removed, or is removed with its interface. It is still in the list.
    virtual void address_disappeared(AddrInfo const& address, Info const& interface);

    /// An address can be used: it was added to an interface that is up, or its interface is up now.
    virtual void address_operable(AddrInfo const& address, Info const& interface);

    /// An address that was operable can no longer be used.
    virtual void address_inoperable(AddrInfo const& address, Info const& interface);
};

} // namespace vesk
