#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/Duration.h>

#include <ctime>

namespace tarnbase {

/// A moment of the system's monotonic clock (`CLOCK_MONOTONIC`) in milliseconds, as a 64-bit number. Setting
/// the date does not affect it.
class TARN_API TimePoint {
public:
    /// Later than every real time: stands for "never".
    static TimePoint const MAX;

    constexpr TimePoint() noexcept = default;
    /// Creates a point from milliseconds of its clock.
    TARN_API_INLINE constexpr explicit TimePoint(long long ms) noexcept : m_ms(ms) {}

    /// Reads the clock (`clock_gettime`), rounded down to the millisecond. Cannot fail. Callable from any
    /// thread and in a signal handler.
    TARN_API_INLINE static TimePoint now() noexcept {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return TimePoint(static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000);
    }

    /// Returns the moment in milliseconds.
    TARN_API_INLINE constexpr long long getCount() const noexcept { return m_ms; }

    /// Returns the moment for a system call that takes an absolute deadline on `CLOCK_MONOTONIC`. A moment
    /// that the system's `time_t` cannot hold becomes its largest value. A negative moment becomes 0.
    timespec toTimespec() const noexcept;

    /// Returns the time between two points.
    TARN_API_INLINE friend constexpr Duration operator-(TimePoint a, TimePoint b) noexcept {
        return Duration(a.m_ms - b.m_ms);
    }
    /// Returns a later point.
    TARN_API_INLINE friend constexpr TimePoint operator+(TimePoint a, Duration b) noexcept {
        return TimePoint(a.m_ms + b.getCount());
    }
    /// @{
    /// Compares two points.
    TARN_API_INLINE friend constexpr bool operator==(TimePoint a, TimePoint b) noexcept {
        return a.m_ms == b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator!=(TimePoint a, TimePoint b) noexcept {
        return a.m_ms != b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator<(TimePoint a, TimePoint b) noexcept {
        return a.m_ms < b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator<=(TimePoint a, TimePoint b) noexcept {
        return a.m_ms <= b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator>(TimePoint a, TimePoint b) noexcept {
        return a.m_ms > b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator>=(TimePoint a, TimePoint b) noexcept {
        return a.m_ms >= b.m_ms;
    }
    /// @}

private:
    long long m_ms = 0;
};

} // namespace tarnbase
