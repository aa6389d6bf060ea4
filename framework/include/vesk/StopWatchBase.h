#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <ctime>

namespace vesk {

/// Common base of the stopwatches: measures periods on one clock of the system and adds them up. Use one of
/// `RealtimeStopWatch`, `ThreadTimeStopWatch` and `ProcessTimeStopWatch`:
///
///     vesk::RealtimeStopWatch watch(true);
///     ...
///     watch.stop();
///     long long const us = watch.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS);
///
/// A stopwatch is stopped or running. While it runs, a period is open. `peekRuntime` returns the length of
/// the open period, `getStoppedTime` the sum of the closed periods, and `getElapsedTime` the sum of both.
///
/// If the clock cannot be read, the report `Time::ErrorId::GET_TIME_FAILED` is pending and `hasFailed`
/// returns true.
///
/// A stopwatch has no lock: it belongs to one thread at a time, even for reading. No operation blocks or
/// allocates. The clock is read with `clock_gettime`.
///
/// Times are in milliseconds or in microseconds, rounded down. Milliseconds are computed from seconds in 32
/// bits: the value wraps around above 2,147,483 seconds (24.8 days). Use microseconds for longer times; they
/// cover 68 years.
class VESK_API StopWatchBase {
public:
    /// The unit of a result. Any value other than `MILLISECONDS` counts as microseconds.
    enum class TimeUnit { MILLISECONDS = 0, MICROSECONDS = 1 };

    /// Opens a period. Does nothing while a period is open, which keeps its start. If the clock cannot be
    /// read, the stopwatch stays stopped and the failure is reported (see the class).
    void start();

    /// Closes the period and adds its length to the sum. Does nothing without an open period. If the clock
    /// cannot be read, the period stays open and the failure is reported (see the class).
    void stop();

    /// Discards all closed periods. An open period is not affected.
    void reset() noexcept;

    /// Returns the sum of all closed periods. Cannot fail.
    long long getStoppedTime(TimeUnit unit) const noexcept;

    /// Returns the present length of the open period, 0 if no period is open. If the clock cannot be read,
    /// returns 0 and reports the failure (see the class).
    long long peekRuntime(TimeUnit unit) const;

    /// Returns `getStoppedTime` plus `peekRuntime`.
    long long getElapsedTime(TimeUnit unit) const;

    /// Returns whether the last `start`, `stop`, `peekRuntime` or `getElapsedTime` could not read the clock,
    /// or the constructor found no clock.
    bool hasFailed() const noexcept { return m_failed; }

protected:
    /// Creates a stop watch on a clock of the system.
    explicit StopWatchBase(clockid_t clock) noexcept : m_clock(clock) {}
    ~StopWatchBase() = default;
    /// @{
    /// Copies clock, start and sum.
    StopWatchBase(StopWatchBase const&) noexcept = default;
    StopWatchBase& operator=(StopWatchBase const&) noexcept = default;
    /// @}

    /// @{
    /// Marks the stopwatch as having no clock, for a constructor that does not find its clock: it is stopped,
    /// `hasFailed` returns true, and every `start` fails.
    void setNoClock() noexcept;
    void setClock(clockid_t clock) noexcept { m_clock = clock; }
    /// @}

private:
    /// A length of time, in 32 bits in every build.
    struct Length {
        int32_t seconds = 0;
        int32_t nanoseconds = 0;
    };

    static Length calcDiffTime(timespec const& start, timespec const& end);
    static long long toUnit(Length const& length, TimeUnit unit) noexcept;
    bool readClock(timespec& time) const;

    timespec m_start_time{};
    Length m_accumulated_time;
    clockid_t m_clock;
    bool m_running = false;
    mutable bool m_failed = false;
};

} // namespace vesk
