#pragma once

#include <vesk/loop/Export.h>

#include <tarncommon/error/ErrorType.h>

namespace vesk::loop {

/// The failures of this library. Below such a report lies the report of the cause, usually of `vesk::SysError`.
VESK_LOOP_API extern std::ErrorType const LoopError;

/// The reports of `LoopError`.
namespace LoopErrorId {
/// The reports of `LoopError`.
enum Id : int {
    NOT_CREATED = 0, ///< The system refused the descriptors of the loop.
    WAIT_FAILED = 1, ///< The loop could not wait.
    RUNNING = 2,     ///< The loop runs already: in another thread, or because a callback tries to run it.
    FD_REFUSED = 3,  ///< The descriptor cannot be watched. Argument: the descriptor.
    FD_WATCHED = 4,  ///< The loop watches this direction of the descriptor already. Argument: the descriptor.
    SIGNAL_REFUSED = 5, ///< The signal cannot be watched. Argument: the signal.
    CHILD_REFUSED = 6, ///< The process is not a child that can be watched or signaled. Argument: the process.
    NOT_STARTED = 7,   ///< A program cannot be started. Arguments: the program, and the step that has failed.
    ADDRESS_REFUSED =
        8, ///< The address cannot be used. Arguments: the address, and the step that has failed.
    CONNECTION_FAILED = 9,   ///< The connection has failed.
    NOT_SENT = 10,           ///< A datagram was not sent. Argument: the address.
    PATH_REFUSED = 11,       ///< The path cannot be watched. Argument: the path.
    NOT_NOTIFIED = 12,       ///< The service manager was not notified.
    NO_WATCHDOG = 13,        ///< The thread of a watchdog was refused.
    CLOCK_REFUSED = 14,      ///< The real-time clock cannot be watched.
    INTERFACES_REFUSED = 15, ///< The network interfaces cannot be watched, or not any more.
};

/// Returns the family of these ids.
constexpr std::ErrorType const& familyOf(Id /*unused*/) noexcept {
    return LoopError;
}
} // namespace LoopErrorId

} // namespace vesk::loop
