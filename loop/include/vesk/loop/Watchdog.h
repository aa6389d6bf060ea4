#pragma once

#include <vesk/loop/Loop.h>

#include <memory>

namespace vesk::loop {

/// Reports a callback of a loop that does not return.
///
///     auto const watchdog = Watchdog::start(loop, 2s, [](Place const& place) {
///         std::cerr << "stuck: the callback of " << place.file << ':' << place.line << '\n';
///     });
///
/// A thread of its own looks four times within the limit. The destructor ends it, and waits for a report that another
/// thread is making.
class [[nodiscard]] VESK_LOOP_API Watchdog {
public:
    /// Calls back once for each callback that runs for longer than `limit`, in the thread of the watchdog. It gets
    /// the place where the watch was made, for a posted call "post". Must not throw.
    static Result<Watchdog> start(Loop& loop, Clock::duration limit, Callback<void(Place const&)> report);

    /// Watches nothing.
    Watchdog() noexcept = default;
    /// Takes over the watchdog of `other`, which watches nothing then.
    Watchdog(Watchdog&& other) noexcept = default;
    /// Ends the own watchdog, and takes over that of `other`.
    Watchdog& operator=(Watchdog&& other) noexcept;
    ~Watchdog();

private:
    class Guard;
    std::shared_ptr<Guard> m_guard;
};

} // namespace vesk::loop
