#pragma once

#include <vesk/Export.h>
#include <vesk/NetworkInterface.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <list>
#include <map>

namespace vesk {

class NetDeviceMonitorImpl;

/// Tells a listener about the network interfaces of the machine and their addresses: first all that are there, then every
/// change. It brings no thread of its own: one is given to `watch`, and any other one ends that.
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
/// The monitor keeps a table of what it was told, so that what the kernel repeats is told once. For an interface that is
/// there with one IPv4 address a listener sees, in this order:
///
/// | what the kernel tells | callbacks |
/// |---|---|
/// | the interface | `interface_appeared`, `interface_status`, then `address_appeared` and `address_operable` for its MAC |
/// | the end of all interfaces | none |
/// | the address | `address_appeared`, `address_operable` |
///
/// **What counts as operable.** An address is operable as soon as it is there and its interface has told its status once.
/// The state of the link plays no part: an interface stays up in the table, and its addresses operable, until the
/// interface or the address is removed.
/// An interface that leaves a bridge counts as removed, and as new when the kernel tells it next.
///
/// **Which addresses are one and the same** is decided by `AddrInfo::address` alone, within one interface. An IPv4 address
/// stands there, and its broadcast address in `peer`. An IPv6 address, as the kernel tells one without a far end, stands in
/// `peer`, and `address` is empty. So all such IPv6 addresses of an interface count as one: only the first of them is told,
/// and the removal of any of them tells that it is gone. An IPv6 address with a far end stands in `address`. One whose
/// uniqueness is still being checked (tentative) is not told before the check has ended well.
///
/// **Names and numbers.** An interface keeps the name under which it was first seen. Numbers of interfaces are followed up
/// to 65,535: beyond, only the lower 16 bits count for all but the removal of an interface.
///
/// **What gets lost.** A kernel message beyond 4,096 bytes is cut, and its rest not seen. When changes come faster than the
/// listener takes them, the kernel drops some (`ENOBUFS`): that is reported and shows in the result of `watch`. The monitor
/// then takes what the kernel has kept, asks once more for all interfaces and addresses, and tells the difference between
/// its table and the answer: what is new as it comes, with the status of each interface, and what has gone at the end. A
/// change that was taken back meanwhile is not told. An address whose netmask or peer has changed is told as gone and as
/// new. Messages that are lost during that make the monitor ask again. The first answers of a further `watch` are compared
/// with the table in the same way.
///
/// The table, `watch` and all callbacks belong to one thread at a time; `stopWatching` may be called from any, also from
/// several at once and from a callback.
class VESK_API NetDeviceMonitor : private tarnbase::NonCopyable {
public:
    class Listener;
    using AddrInfo = NetworkInterface::AddrInfo;
    using Info = NetworkInterface::Info;

    /// Reports `std::CommonErrorId::INVALID_ARGUMENT` "Listener must not be null", and `std::CommonErrorId::CONTRACT_BROKEN` if there is no memory: such a
    /// monitor cannot watch.
    /// @param listener  must stay until the monitor is gone
    explicit NetDeviceMonitor(Listener* listener);

    /// As `stopWatching`, but does not wait: no thread may be inside `watch` or `stopWatching` any more.
    ~NetDeviceMonitor();

    /// Tells what is there, then follows the changes until `stopWatching` (netlink, `recvmsg`). Blocks. What is there is
    /// asked for in two steps, interfaces and addresses; what changes meanwhile is told in between. So an address that is
    /// added at the very beginning may come before its interface, which then stays without number and name.
    ///
    /// The network is that of the calling thread's network namespace. After `stopWatching` a further call looks at the
    /// beginning of each answer only, and returns.
    ///
    /// | failed call | report | and then |
    /// |---|---|---|
    /// | `socket` | `Socket::ErrorId::CREATE_FAILED` | returns |
    /// | `bind`, `sendmsg` | `SysErrorId::UNCLASSIFIED` | returns |
    /// | `recvmsg`, also if a signal interrupts it | `SysErrorId::UNCLASSIFIED` | goes on |
    ///
    /// After a `recvmsg` that tells of lost messages it asks for everything once more. It pauses for 100 ms before each
    /// attempt that follows two failures in a row.
    ///
    /// Asserts "m_impl" if the constructor had no memory, and reports `std::CommonErrorId::CONTRACT_BROKEN`. Asserts "name" for an interface
    /// without one, and passes over it. A malformed message is passed over in silence. Exceptions of the listener and
    /// `std::bad_alloc` pass through; the monitor may be used again.
    /// @return true if anything failed, even if it went on
    bool watch();

    /// Ends `watch`, now and for good. Does not wait for its end, and reports nothing. If nobody watches, a later `watch`
    /// ends soon after its beginning.
    void stopWatching();

    // ---- the table: what the system's side has learned. For the watching thread, and not from callbacks. ----
    //
    // All but `interface_appeared` make an entry without number and name for an interface that is unknown. Each asserts
    // "m_listener" before a callback; without a listener the table is kept all the same.

    /// An interface is there. Nothing happens if it is known.
    /// @param name  not null
    void interface_appeared(unsigned short index, char const* name);

    /// The status of an interface was told. It is up from now on; the last two arguments have no effect.
    void interface_up(
        unsigned short index, bool broadcast, bool point_to_point, bool loopback, int mtu, bool link_up,
        bool present);

    /// An interface is gone, and with it its addresses.
    void interface_disappeared(int index);

    /// An address is there. Nothing happens if it is known.
    void address_appeared(unsigned short index, AddrInfo const& address);

    /// An address is gone. Nothing is told if it is unknown.
    void address_disappeared(unsigned short index, AddrInfo const& address);

private:
    friend class NetDeviceMonitorImpl;

    /// Addresses by the number of their interface, as the table has them.
    using Snapshot = std::map<uint32_t, std::list<AddrInfo>>;

    Listener* getListener(char const* function, int line = __builtin_LINE()) const;

    /// Tells, and forgets, what the table has and `there` has not; tells what has changed in its details anew.
    __attribute__((visibility("hidden"))) void forgetAllBut(Snapshot const& there);

    // What only the system's side can do.
    NetDeviceMonitorImpl* makeImpl() noexcept;
    void deleteImpl() noexcept;
    bool runImpl();
    void stopImpl() noexcept;

    Listener* m_listener;
    std::map<uint32_t, Info> m_interfaces;
    NetDeviceMonitorImpl* m_impl;
};

/// Who is told. Every operation does nothing unless it is overridden; all are called in the thread that is inside
/// `NetDeviceMonitor::watch`. The arguments are valid during the call. An operation may call `stopWatching`, but nothing else
/// of the monitor. While it runs, changes gather in the kernel, which has room for a few hundred.
///
/// The address of an IPv6 interface address is in `AddrInfo::peer` as a rule; see `NetDeviceMonitor`.
class VESK_API NetDeviceMonitor::Listener {
public:
    using AddrInfo = NetworkInterface::AddrInfo;
    using Info = NetworkInterface::Info;

    virtual ~Listener() = default;

    /// An interface was seen for the first time. Only `index` and `name` are known yet.
    virtual void interface_appeared(Info const& interface);

    /// An interface was removed; its addresses have been told before, and are still there.
    virtual void interface_disappeared(Info const& interface);

    /// The kernel has told the status of an interface: at the beginning and with every change.
    virtual void interface_status(Info const& interface);

    /// An address has been added.
    virtual void address_appeared(AddrInfo const& address, Info const& interface);

    /// An address was removed, or is going with its interface; it is still in the list.
    virtual void address_disappeared(AddrInfo const& address, Info const& interface);

    /// An address can be used: it was added to an interface that is up, or its interface has come up.
    virtual void address_operable(AddrInfo const& address, Info const& interface);

    /// An address that could be used cannot be any more.
    virtual void address_inoperable(AddrInfo const& address, Info const& interface);
};

} // namespace vesk
