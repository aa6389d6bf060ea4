#pragma once

#include <tarncommon/Export.h>

namespace tarnbase {

/// A length of time in milliseconds, as a 64-bit number.
class Duration {
public:
    constexpr Duration() noexcept = default;
    /// Creates a duration of milliseconds.
    TARN_API_INLINE constexpr explicit Duration(long long ms) noexcept : m_ms(ms) {}

    /// Returns the length in milliseconds.
    TARN_API_INLINE constexpr long long getCount() const noexcept { return m_ms; }

    /// @{
    /// Compares two durations.
    TARN_API_INLINE friend constexpr bool operator==(Duration a, Duration b) noexcept {
        return a.m_ms == b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator!=(Duration a, Duration b) noexcept {
        return a.m_ms != b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator<(Duration a, Duration b) noexcept {
        return a.m_ms < b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator<=(Duration a, Duration b) noexcept {
        return a.m_ms <= b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator>(Duration a, Duration b) noexcept {
        return a.m_ms > b.m_ms;
    }
    TARN_API_INLINE friend constexpr bool operator>=(Duration a, Duration b) noexcept {
        return a.m_ms >= b.m_ms;
    }
    /// @}

private:
    long long m_ms = 0;
};

} // namespace tarnbase
