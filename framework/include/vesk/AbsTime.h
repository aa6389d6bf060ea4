#pragma once

#include <cstdint>

namespace vesk {

/// An absolute deadline in milliseconds of the monotonic clock, the clock of `Time::getTime`.
struct AbsTimeT {
    long long value = 0; ///< Milliseconds.
    int16_t good = 0;    ///< Not 0 if the value is good.

    constexpr AbsTimeT() noexcept = default;

    /// A good deadline.
    constexpr explicit AbsTimeT(long long ms) noexcept : value(ms), good(1) {}
};

} // namespace vesk
