#pragma once

#include "support/Inject.h"

#include <ctime>

/// Replaces `clock_gettime`. Must be included in exactly one file of a test program. A `support::Fault` on
/// `inject_clock_gettime` counts and fails its calls, a `FakeClock` sets the time that it returns.

inline support::Injected inject_clock_gettime("clock_gettime");

namespace support {

/// During its lifetime, every clock stands still in the constructing thread, at the time that the test sets.
/// Only one at a time.
class FakeClock {
public:
    FakeClock(time_t seconds, long nanoseconds) noexcept {
        set(seconds, nanoseconds);
        s_thread = pthread_self();
        s_active = true;
    }
    ~FakeClock() { s_active = false; }

    FakeClock(FakeClock const&) = delete;
    FakeClock& operator=(FakeClock const&) = delete;

    void set(time_t seconds, long nanoseconds) noexcept {
        s_seconds = seconds;
        s_nanoseconds = nanoseconds;
    }

    /// Returns the clock that was read last.
    clockid_t getClock() const noexcept { return s_clock; }

    VESK_UNWATCHED static bool read(clockid_t clock, timespec* time) noexcept {
        if (!s_active || pthread_equal(s_thread, pthread_self()) == 0) {
            return false;
        }
        s_clock = clock;
        time->tv_sec = s_seconds;
        time->tv_nsec = s_nanoseconds;
        return true;
    }

private:
    static inline std::atomic<bool> s_active{false};
    static inline pthread_t s_thread{};
    static inline std::atomic<time_t> s_seconds{0};
    static inline std::atomic<long> s_nanoseconds{0};
    static inline std::atomic<clockid_t> s_clock{0};
};

} // namespace support

extern "C" VESK_UNWATCHED int clock_gettime(clockid_t clock, timespec* time) {
    if (inject_clock_gettime.fails()) {
        return -1;
    }
    return support::FakeClock::read(clock, time) ? 0
                                                 : inject_clock_gettime.getReal(clock_gettime)(clock, time);
}
