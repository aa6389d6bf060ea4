#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/TimePoint.h>

namespace vesk {

/// Operations that read the clocks, and sleep. All times are milliseconds in 64 bits.
///
///     long long start = 0;
///     vesk::Time::getTime(start);
///     ...
///     vesk::Time::sleep(20);
///
/// To measure durations use `getTime` or a stopwatch, such as `RealtimeStopWatch`: the date may be set at any
/// moment, which makes `getTimestamp` jump.
///
/// All operations may be called from any thread, once the process has its `Vesk` object.
class VESK_API Time {
public:
    Time() = delete;

    /// Failures of clocks, sleeping and stopwatches. Derives from `SysError`.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        NO_CLOCK = 0,             ///< The system has no such clock.
        SLEEP_FAILED = 1,         ///< Sleeping failed.
        GET_TIME_FAILED = 2,      ///< Reading the time failed.
        GET_UPTIME_FAILED = 3,    ///< Reading the uptime failed.
        GET_TIMESTAMP_FAILED = 4, ///< Reading the timestamp failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Makes the present moment the origin of `getUptime`. Called by the start-up of the library, in `Vesk`.
    /// @return true on failure: `ErrorId::NO_CLOCK`
    [[nodiscard]] static bool init();

    /// Reads the monotonic clock, which counts from the boot of the system and never jumps (`clock_gettime`,
    /// `CLOCK_MONOTONIC`). Does not block. Callable in a signal handler.
    /// @param ms  set to the time
    /// @return false: it cannot fail
    VESK_API_INLINE static bool getTime(long long& ms) noexcept {
        ms = tarnbase::TimePoint::now().getCount();
        return false;
    }

    /// Reads the time since the first `Vesk` object of the process, on the clock of `getTime`. Before the
    /// first object the time is that of `getTime`. Does not block.
    /// @param ms  set to the time
    /// @return true on failure: `ErrorId::GET_UPTIME_FAILED`
    [[nodiscard]] static bool getUptime(long long& ms);

    /// Reads the time since the beginning of 1970, UTC (`clock_gettime`, `CLOCK_REALTIME`). Does not block.
    /// @param ms  set to the time, rounded down; unchanged on failure
    /// @return true on failure: `SysErrorId::NOT_IMPLEMENTED` if the system does not have the clock,
    ///         otherwise `ErrorId::GET_TIMESTAMP_FAILED`
    [[nodiscard]] static bool getTimestamp(long long& ms);

    /// Returns the origin of `getUptime` on the clock of `getTime`, in milliseconds; 0 until the library has
    /// started. Only the start-up writes it, so any thread may read it afterwards without a lock.
    static long long const& getInitTime() noexcept;

    /// Blocks the calling thread for a time (`clock_nanosleep` with an absolute deadline on
    /// `CLOCK_MONOTONIC`). Neither a signal nor setting the date shortens or extends the sleep.
    /// @param ms  milliseconds, counted from the last full millisecond, so that the sleep may be up to 1 ms
    ///            shorter. A value below 1 returns at once. A value beyond the range of a deadline sleeps
    ///            forever.
    /// @return true if the system refused to sleep at least once: `ErrorId::SLEEP_FAILED`. The sleep is
    ///         retried until it succeeds, so the time has passed in any case. If it never succeeds, the call
    ///         does not return.
    [[nodiscard]] static bool sleep(long long ms);

private:
    static long long s_init_time;
};

} // namespace vesk
