#pragma once

#include <vesk/Export.h>

#include <cstdint>

namespace vesk {

/// An absolute deadline in milliseconds of the monotonic clock, the clock of `Time::getTime`. Setting the
/// date does not change it.
///
///     long long now = 0;
///     vesk::Time::getTime(now);
///     vesk::AbsTimeT const deadline(now + 500);
///
/// A plain value of fixed size.
struct AbsTimeT {
    long long value = 0; ///< Milliseconds since the boot of the system.
    int16_t good = 0;    ///< Not 0 if the value is valid. Operations that check it fail if it is 0.

    /// Creates an invalid deadline: its flag is 0.
    constexpr AbsTimeT() noexcept = default;

    /// Creates a valid deadline, in milliseconds as for `value`.
    constexpr explicit AbsTimeT(long long ms) noexcept : value(ms), good(1) {}
};

} // namespace vesk
