#pragma once

#include <vesk/loop/Loop.h>

#include <vesk/NetworkInterface.h>

namespace vesk::loop {

/// What has happened to a network interface.
struct InterfaceEvent {
    /// The kind of an event.
    enum Kind : unsigned char {
        APPEARED,        ///< There is a new interface. Only its index and name are known yet.
        STATUS,          ///< Its status is known, or has changed.
        DISAPPEARED,     ///< It was removed, after its addresses.
        ADDRESS_ADDED,   ///< It has an address that can be used. An address of its link counts as one.
        ADDRESS_REMOVED, ///< It has lost an address.
    };
    Kind kind;                          ///< What has happened.
    NetworkInterface::Info interface;   ///< The interface at that time, with its addresses.
    NetworkInterface::AddrInfo address; ///< The address that was added or removed, otherwise empty.
};

/// Calls back for each network interface and address that there is, and then for each change (`NetDeviceMonitor`,
/// whose thread belongs to the watch). The namespace is that of the calling thread.
///
///     auto const watch = watchInterfaces(loop, [&](Result<InterfaceEvent> const& event) {
///         if (event && event->kind == InterfaceEvent::ADDRESS_ADDED) {
///             announce(event->address);
///         }
///     });
///
/// An error is the last call: the system has refused or ended the monitor. Changes that the system has lost are found
/// by a comparison with all interfaces.
VESK_LOOP_API Result<Watch>
watchInterfaces(Loop& loop, Callback<void(Result<InterfaceEvent> const&)> callback, Options options = {});

} // namespace vesk::loop
