#pragma once

#include <ctime>
#include <limits>

namespace vesk::detail {

/// A deadline on the wall clock, for the system calls that support no other clock.
class WallDeadline {
public:
    /// Computes the current time plus `timeout_ms` milliseconds. A negative timeout gives a deadline that has
    /// passed. Seconds beyond the range of the system's `time_t` become its largest value, and negative
    /// seconds become 0.
    explicit WallDeadline(long long timeout_ms) noexcept
        : m_valid(clock_gettime(CLOCK_REALTIME, &m_time) == 0) {
        long long seconds = timeout_ms / 1000;
        long nanoseconds = m_time.tv_nsec + static_cast<long>(timeout_ms % 1000) * 1000000;
        if (nanoseconds > 999999999) {
            nanoseconds -= 1000000000;
            ++seconds;
        } else if (nanoseconds < 0) {
            nanoseconds += 1000000000;
            --seconds;
        }
        using Limits = std::numeric_limits<time_t>;
        // Cannot overflow: the first is what a clock shows, the second a number of milliseconds divided by 1000.
        long long const sum = static_cast<long long>(m_time.tv_sec) + seconds;
        m_time.tv_sec = sum > Limits::max() ? Limits::max() : sum < 0 ? 0 : static_cast<time_t>(sum);
        m_time.tv_nsec = nanoseconds;
    }

    /// Returns whether the clock could be read.
    bool isValid() const noexcept { return m_valid; }
    timespec const* get() const noexcept { return &m_time; }

private:
    timespec m_time{};
    bool m_valid;
};

} // namespace vesk::detail
