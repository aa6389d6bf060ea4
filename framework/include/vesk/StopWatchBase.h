#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <ctime>

namespace vesk {

/// What the stopwatches have in common: it measures periods on one clock of the system and adds them up. Take one of
/// `RealtimeStopWatch`, `ThreadTimeStopWatch` and `ProcessTimeStopWatch`:
///
///     vesk::RealtimeStopWatch watch(true);
///     ...
///     watch.stop();
///     long long const us = watch.getStoppedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS);
///
/// It is stopped or running. While it runs, a period is open, which `peekRuntime` tells; the periods that are over are
/// in `getStoppedTime`; `getElapsedTime` is the sum of the two.
///
/// A clock that cannot be read leaves a report pending, `Time::ErrorId::GET_TIME_FAILED`, and `hasFailed` tells.
///
/// It is not locked: one stopwatch belongs to one thread at a time, even to read it. Nothing blocks or allocates. Reading
/// the clock is a `clock_gettime`.
///
/// Times come in milliseconds or in microseconds, rounded down. Milliseconds are made from seconds in 32 bits: the count
/// wraps around above 2,147,483 seconds (24.8 days). For more than that take microseconds, which hold 68 years.
class VESK_API StopWatchBase {
public:
    /// The unit of a result. Whatever is not milliseconds is microseconds.
    enum class TimeUnit { MILLISECONDS = 0, MICROSECONDS = 1 };

    /// Opens a period. While one is open it does nothing: the period keeps its start.
    /// A clock that cannot be read leaves the stopwatch stopped, with the failure as told above.
    void start();

    /// Closes the period and adds its length up; without an open one it does nothing.
    /// A clock that cannot be read leaves the period open, with the failure as told above.
    void stop();

    /// Forgets all closed periods. An open one goes on.
    void reset() noexcept;

    /// The sum of all closed periods. Cannot fail.
    long long getStoppedTime(TimeUnit unit) const noexcept;

    /// How long the open period is by now, 0 if none is open. A clock that cannot be read gives 0, with the failure as
    /// told above.
    long long peekRuntime(TimeUnit unit) const;

    /// `getStoppedTime` plus `peekRuntime`.
    long long getElapsedTime(TimeUnit unit) const;

    /// Whether the last `start`, `stop` or look at the open period could not read the clock, or there was no clock to
    /// be had for the constructor.
    bool hasFailed() const noexcept { return m_failed; }

protected:
    explicit StopWatchBase(clockid_t clock) noexcept : m_clock(clock) {}
    ~StopWatchBase() = default;
    StopWatchBase(StopWatchBase const&) noexcept = default;
    StopWatchBase& operator=(StopWatchBase const&) noexcept = default;

    /// For a constructor that does not find its clock: stopped, `hasFailed`, and every `start` fails.
    void setNoClock() noexcept;
    void setClock(clockid_t clock) noexcept { m_clock = clock; }

private:
    /// A length of time. 32 bits in every build.
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
