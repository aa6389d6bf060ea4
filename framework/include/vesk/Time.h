#pragma once

#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/TimePoint.h>

namespace vesk {

/// Reads the clocks, and sleeps. All times are milliseconds in 64 bits.
///
///     long long start = 0;
///     vesk::Time::getTime(start);
///     ...
///     vesk::Time::sleep(20);
///
/// For lengths of time take `getTime` or a stopwatch, such as `RealtimeStopWatch`: the date may be set at any moment,
/// and `getTimestamp` jumps with it.
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
        GET_UPTIME_FAILED = 3,    ///< Reading the time since boot failed.
        GET_TIMESTAMP_FAILED = 4, ///< Reading the time stamp failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Makes this moment the origin of `getUptime`. Called by the start-up of the library, in `Vesk`.
    /// @return true on failure: `ErrorId::NO_CLOCK`
    static bool init();

    /// The monotonic clock, which counts from the boot of the system and never jumps (`clock_gettime`,
    /// `CLOCK_MONOTONIC`). Does not block; callable in a signal handler.
    /// @param ms  set to the time
    /// @return false: it cannot fail
    VESK_API_INLINE static bool getTime(long long& ms) noexcept {
        ms = tarnbase::TimePoint::now().getCount();
        return false;
    }

    /// The time since the first `Vesk` object of the process, on the clock of `getTime`; before there is one, the same
    /// as `getTime`. Does not block.
    /// @param ms  set to the time
    /// @return true on failure: `ErrorId::GET_UPTIME_FAILED`
    static bool getUptime(long long& ms);

    /// The time since the beginning of 1970, UTC (`clock_gettime`, `CLOCK_REALTIME`). Does not block.
    /// @param ms  set to the time, rounded down; not touched on failure
    /// @return true on failure: `SysErrorId::NOT_IMPLEMENTED` if the system has no such clock, else `ErrorId::GET_TIMESTAMP_FAILED`
    static bool getTimestamp(long long& ms);

    /// The origin of `getUptime` on the clock of `getTime`, in milliseconds; 0 until the library has started. It is
    /// written by the start-up alone, so it is a plain value that any thread may read afterwards.
    static long long const& getInitTime() noexcept;

    /// Blocks the calling thread for a time (`clock_nanosleep` until a moment of `CLOCK_MONOTONIC`). Neither a signal
    /// nor setting the date makes it shorter or longer.
    /// @param ms  milliseconds, counted from the last full one: up to one less than that may pass. Below 1 it returns at
    ///            once. A time that no deadline can hold is for ever.
    /// @return true if the system refused to sleep at least once: `ErrorId::SLEEP_FAILED`. The sleep is tried again until it works, so
    ///         the time has passed all the same; should it never work, the call does not return.
    static bool sleep(long long ms);

private:
    static long long s_init_time;
};

} // namespace vesk
