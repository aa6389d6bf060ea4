#include "support/Inject.h"

#include <limits>
#include <mqueue.h>
#include <semaphore.h>
#include <sys/time.h>

/// Waits and timers while the wall clock is set. Setting the system's clock would disturb the whole machine, and no
/// namespace has a wall clock of its own. So this program replaces the calls that read the clock, and those that wait
/// on it: they wait in short pieces and look at the replaced clock between them, as the kernel does when the clock is
/// set.

namespace {

std::atomic<long long> s_offset{0}; // In seconds.

/// Whether the replaced clock shows a date that `time_t` cannot hold.
std::atomic<bool> s_is_beyond{false};

long long toNs(timespec const& time) {
    return static_cast<long long>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

} // namespace

support::Injected inject_clock_gettime("clock_gettime");

extern "C" VESK_UNWATCHED int clock_gettime(clockid_t clock, timespec* time) {
    if (clock == CLOCK_REALTIME && s_is_beyond) {
        errno = EOVERFLOW;
        return -1;
    }
    int const result = inject_clock_gettime.getReal(clock_gettime)(clock, time);
    if (clock == CLOCK_REALTIME) {
        time->tv_sec += static_cast<time_t>(s_offset);
    }
    return result;
}

extern "C" VESK_UNWATCHED time_t time(time_t* result) {
    timespec now{};
    time_t const seconds = clock_gettime(CLOCK_REALTIME, &now) == 0 ? now.tv_sec : -1;
    if (result != nullptr) {
        *result = seconds;
    }
    return seconds;
}

extern "C" VESK_UNWATCHED int gettimeofday(timeval* result, void* /*zone*/) noexcept {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    result->tv_sec = now.tv_sec;
    result->tv_usec = now.tv_nsec / 1000;
    return 0;
}

namespace {

/// Moves a deadline on the replaced clock to the end of the next piece on the real one, if it is not earlier. The
/// arguments of a replaced call refer to the object.
class Piece {
public:
    explicit Piece(timespec const* deadline) : m_deadline(deadline) {}

    /// Calls `wait`, which returns an error number, until it succeeds, fails, or the time has expired.
    template <typename Wait>
    int run(Wait wait) {
        for (;;) {
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            bool const is_last = toNs(now) >= toNs(*m_deadline);
            timespec end{};
            inject_clock_gettime.getReal(clock_gettime)(CLOCK_REALTIME, &end);
            end.tv_nsec += is_last ? 0 : 1'000'000;
            end.tv_sec += end.tv_nsec / 1'000'000'000;
            end.tv_nsec %= 1'000'000'000;
            int const error = wait(&end);
            if (error != ETIMEDOUT || is_last) {
                return error;
            }
        }
    }

private:
    timespec const* m_deadline;
};

} // namespace

/// Replaces a call that waits on the wall clock. `first` and `arguments` stand before the deadline.
#define VESK_WAIT_RESULT(name, parameters, ...)                                                              \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED int name parameters {                                                          \
        return Piece(deadline).run(                                                                          \
            [&](timespec const* end) { return inject_##name.getReal(name)(__VA_ARGS__, end); });             \
    }
#define VESK_WAIT_ERRNO(result, name, parameters, ...)                                                       \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        result value = -1;                                                                                   \
        int const error = Piece(deadline).run([&](timespec const* end) {                                     \
            value = inject_##name.getReal(name)(__VA_ARGS__, end);                                           \
            return value == -1 ? errno : 0;                                                                  \
        });                                                                                                  \
        errno = error;                                                                                       \
        return value;                                                                                        \
    }

VESK_WAIT_RESULT(pthread_mutex_timedlock, (pthread_mutex_t * mutex, timespec const* deadline), mutex)
VESK_WAIT_RESULT(pthread_rwlock_timedrdlock, (pthread_rwlock_t * lock, timespec const* deadline), lock)
VESK_WAIT_RESULT(pthread_rwlock_timedwrlock, (pthread_rwlock_t * lock, timespec const* deadline), lock)
VESK_WAIT_RESULT(
    pthread_timedjoin_np, (pthread_t thread, void** result, timespec const* deadline), thread, result)
VESK_WAIT_ERRNO(int, sem_timedwait, (sem_t * semaphore, timespec const* deadline), semaphore)
VESK_WAIT_ERRNO(
    ssize_t, mq_timedreceive,
    (mqd_t queue, char* buffer, size_t size, unsigned int* priority, timespec const* deadline), queue, buffer,
    size, priority)
VESK_WAIT_ERRNO(
    int, mq_timedsend,
    (mqd_t queue, char const* buffer, size_t size, unsigned int priority, timespec const* deadline), queue,
    buffer, size, priority)

#include "frame/TimedWaits.h"
#include "support/CleanEnd.h"
#include "support/Testing.h"
#include "threads/SignalsToMainThread.h"

#include <vesk/CalendarTime.h>
#include <vesk/RealtimeStopWatch.h>

namespace {

using namespace support;

constexpr long long HOUR = 3600;

/// Sets the clock an hour forth and back, every ten milliseconds.
class Jumps {
public:
    Jumps()
        : m_thread([this] {
              while (!m_ends) {
                  s_offset = s_offset == 0 ? HOUR : 0;
                  timespec const pause{0, 10'000'000};
                  nanosleep(&pause, nullptr);
              }
          }) {
        EXPECT_TRUE(eventually([] { return s_offset != 0; }));
    }
    ~Jumps() {
        m_ends = true;
        m_thread.join();
        s_offset = 0;
    }

private:
    std::atomic<bool> m_ends{false};
    Sleeper m_thread;
};

class ClockJumps : public testing::TestWithParam<TimedWait> {};

TEST_P(ClockJumps, thereAndBackEndNoWaitEarlyUnlessItIsOnTheWallClock) {
    Jumps const jumps;
    for (int i = 0; i < 3; ++i) {
        GetParam().expectTimeout(GetParam().uses_wall_clock ? Ending::AT_ANY_TIME : Ending::IN_TIME);
    }
}

TEST_P(ClockJumps, forthEndOnlyWaitsOnTheWallClock) {
    bool const moves = GetParam().uses_wall_clock;
    std::atomic<bool> ends{false};
    Sleeper jumps([&ends] {
        while (!ends) {
            timespec const pause{0, 10'000'000};
            nanosleep(&pause, nullptr);
            s_offset += HOUR;
        }
    });
    GetParam().expectTimeout(moves ? Ending::AT_ANY_TIME : Ending::IN_TIME, moves ? HALF_AN_HOUR : 50);
    ends = true;
    jumps.join();
    s_offset = 0;
}

TEST_P(ClockJumps, beyond2038LeaveOnlyWaitsOnTheWallClockWithoutATime) {
    bool const fits = sizeof(time_t) > 4;
    constexpr long long SECONDS_OF_2045 = 2'366'841'600;
    s_is_beyond = !fits;
    s_offset = fits ? SECONDS_OF_2045 - ::time(nullptr) : 0;
    GetParam().expectTimeout(GetParam().uses_wall_clock && !fits ? Ending::FAILS : Ending::IN_TIME);
    s_is_beyond = false;
    s_offset = 0;
}

INSTANTIATE_TEST_SUITE_P(All, ClockJumps, testing::ValuesIn(TIMED_WAITS), [](auto const& row) {
    return row.param.name;
});

TEST(ClockJumpsOf, dateMovesWithTheClock) {
    long long before = 0;
    ASSERT_FALSE(vesk::Time::getTimestamp(before));
    vesk::CalendarTime const date(true);
    s_offset = HOUR;
    long long after = 0;
    EXPECT_FALSE(vesk::Time::getTimestamp(after));
    EXPECT_LE(HOUR * 1000, after - before);
    EXPECT_LE(HOUR * 1000 - 1000, vesk::CalendarTime(true).getTimestamp() - date.getTimestamp());
    s_offset = 0;
}

TEST(ClockJumpsOf, monotonicTimeAndStopWatchesDoNotMove) {
    long long before = 0;
    ASSERT_FALSE(vesk::Time::getTime(before));
    vesk::RealtimeStopWatch const watch(true);
    Jumps const jumps;
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(vesk::Time::sleep(5));
        long long now = 0;
        EXPECT_FALSE(vesk::Time::getTime(now));
        EXPECT_LE(5, now - before);
        EXPECT_GT(HALF_AN_HOUR, now - before);
        EXPECT_GT(HALF_AN_HOUR, watch.peekRuntime(vesk::StopWatchBase::TimeUnit::MILLISECONDS));
        before = now;
    }
}

} // namespace
