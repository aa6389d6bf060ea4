#pragma once

#include <vesk/loop/Export.h>

#include <chrono>
#include <memory>
#include <utility>

namespace vesk::loop {

namespace detail {
class Core;
class JobSource;
class Source;
} // namespace detail

using Clock = std::chrono::steady_clock;

/// Owns the right of a callback to be called. A loop calls the callback as long as its watch exists.
///
/// When the destructor returns, the callback does not run and never will. It may be destroyed at any time: in its
/// own callback, in the callback of another watch, before or after the loop, and in another thread, which then
/// waits for the end of a callback that is running. The objects that the callback holds are destroyed with the
/// watch, or at the end of the call that is running.
///
/// Can be moved, but not be used by two threads at once.
class [[nodiscard]] VESK_LOOP_API Watch {
public:
    /// Watches nothing.
    Watch() noexcept = default;
    Watch(Watch&& other) noexcept = default;
    Watch& operator=(Watch&& other) noexcept {
        Watch taken(std::move(other));
        std::swap(m_source, taken.m_source);
        return *this;
    }
    ~Watch() { cancel(); }

    /// Ends the watch, as the destructor does. Does nothing for a watch that is over.
    void cancel() noexcept;

    /// Returns whether the callback can still be called. That of a single-shot timer cannot after its expiry, that
    /// of a child not after the report of its end.
    bool isActive() const noexcept;

protected:
    explicit Watch(std::shared_ptr<detail::Source> source) noexcept : m_source(std::move(source)) {}
    std::shared_ptr<detail::Source> m_source;

    friend class Loop;
    friend class detail::JobSource;
};

/// A watch of a moment in time.
class [[nodiscard]] VESK_LOOP_API Timer : public Watch {
public:
    Timer() noexcept = default;

    /// Lets the callback be called after `delay` from now, and then every period if the timer is periodic. Also
    /// for a timer that has expired.
    void restart(Clock::duration delay) noexcept;

private:
    using Watch::Watch;
    friend class Loop;
};

} // namespace vesk::loop
