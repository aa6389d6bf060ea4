#pragma once

#include <vesk/loop/Loop.h>

#include <chrono>
#include <optional>
#include <string_view>

namespace vesk::loop {

/// Tells the service manager that has started this process about its state, by datagrams to the socket of
/// `NOTIFY_SOCKET`. Without that variable nothing is sent, and the result is false.
///
///     auto const alive = ServiceManager::keepAlive(loop);   // if the service has a watchdog
///     (void)ServiceManager::ready();
///     loop.run();
///     (void)ServiceManager::stopping();
///
/// No operation blocks: a manager that does not read its socket makes them fail with `EAGAIN`. Any thread may call them,
/// as long as no thread changes the environment.
class VESK_LOOP_API ServiceManager {
public:
    /// Tells that the service has started, or has reloaded its configuration (`READY=1`).
    static Result<bool> ready();
    /// Tells that the service begins to reload its configuration (`RELOADING=1`, with the time). `ready` ends it.
    static Result<bool> reloading();
    /// Tells that the service begins to stop (`STOPPING=1`).
    static Result<bool> stopping();
    /// Sets the text that the manager shows. One line.
    static Result<bool> status(std::string_view text);
    /// Sends assignments of the protocol, one a line.
    static Result<bool> send(std::string_view assignments);

    /// Returns within which time the manager wants a sign of life of this process (`WATCHDOG_USEC`, `WATCHDOG_PID`).
    static std::optional<std::chrono::microseconds> watchdog();
    /// Sends a sign of life twice in that time as long as the loop runs. Without `watchdog` the timer is over at once.
    static Result<Timer> keepAlive(Loop& loop, Options options = {});
};

} // namespace vesk::loop
