#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/AbsTime.h>
#include <vesk/Time.h>

#include <limits>
#include <sys/time.h>

namespace {

/// One call of `clock_nanosleep`.
struct SleepCall {
    clockid_t clock;
    int flags;
    timespec deadline;
};

/// Records the calls of `clock_nanosleep` by the test's thread, and may make them return at once.
class SleepRecorder {
public:
    enum class Sleeps { REALLY, NOT_AT_ALL };

    explicit SleepRecorder(Sleeps sleeps) : m_sleeps(sleeps) {
        m_calls.reserve(1000);
        s_current = this;
    }
    ~SleepRecorder() { s_current = nullptr; }

    std::vector<SleepCall> const& getCalls() const { return m_calls; }

    /// Checks that all calls have the same deadline on the monotonic clock.
    void expectOneDeadline() const {
        for (SleepCall const& call : m_calls) {
            EXPECT_EQ(CLOCK_MONOTONIC, call.clock);
            EXPECT_EQ(TIMER_ABSTIME, call.flags);
            EXPECT_EQ(m_calls[0].deadline.tv_sec, call.deadline.tv_sec);
            EXPECT_EQ(m_calls[0].deadline.tv_nsec, call.deadline.tv_nsec);
        }
    }

    /// Adds a call, and moves its deadline into the past if the call must return at once. No sanitizer's runtime calls
    /// the function before `main`, so it may use a vector.
    static void note(clockid_t clock, int flags, timespec const*& deadline) {
        static constexpr timespec PAST{};
        if (s_current != nullptr && pthread_equal(s_current->m_thread, pthread_self()) != 0) {
            s_current->m_calls.push_back({clock, flags, *deadline});
            deadline = s_current->m_sleeps == Sleeps::REALLY ? deadline : &PAST;
        }
    }

private:
    static inline SleepRecorder* s_current = nullptr;

    Sleeps m_sleeps;
    pthread_t m_thread = pthread_self();
    std::vector<SleepCall> m_calls;
};

} // namespace

VESK_INJECT(
    int, return error, clock_nanosleep,
    (clockid_t clock, int flags, timespec const* deadline, timespec* remaining),
    (clock, flags, deadline, remaining), SleepRecorder::note(clock, flags, deadline))

namespace {

using namespace support;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Time;

long long readMs(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

long long monotonicMs() {
    return readMs(CLOCK_MONOTONIC);
}

// ---- the family ----

TEST(TimeError, rowsHaveTheirTexts) {
    expectRows(
        Time::Error,
        {"No clock source available in the system: %s", "Sleep failed: %s", "Failed to get time: %s",
         "Failed to get uptime: %s", "Failed to get timestamp: %s"},
        1);
    EXPECT_EQ(nullptr, Time::Error.getRow(-1));
    std::ErrorOutput("file", 1, true)(Time::ErrorId::GET_UPTIME_FAILED, "why");
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    EXPECT_TRUE(chainIs({{Time::ErrorId::GET_UPTIME_FAILED, "Failed to get uptime: why"}}));
}

// ---- clocks ----

static_assert(!std::is_default_constructible_v<Time> && std::is_empty_v<Time>);

TEST(Time, timeAndTimestampAreTheSystemsClocks) {
    for (clockid_t const clock : {CLOCK_MONOTONIC, CLOCK_REALTIME}) {
        long long const before = readMs(clock);
        long long now = 0;
        EXPECT_FALSE(clock == CLOCK_MONOTONIC ? Time::getTime(now) : Time::getTimestamp(now));
        long long const after = readMs(clock);
        EXPECT_LE(before, now);
        EXPECT_LE(now, after);
    }
}

TEST(Time, timeAndTimestampHaveSixtyFourBitsAndAreRoundedDown) {
    FakeClock clock(2147483, 999999999);
    long long now = 0;
    EXPECT_FALSE(Time::getTime(now));
    EXPECT_EQ(2147483999, now);
    EXPECT_EQ(CLOCK_MONOTONIC, clock.getClock());
    clock.set(INT_MAX, 5999999);
    EXPECT_FALSE(Time::getTimestamp(now));
    EXPECT_EQ(2147483647005, now);
    EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
}

TEST(Time, timeCannotFailAndTheTimestampReportsItsFailureAndKeepsTheArgument) {
    long long now = 0;
    {
        Fault const fault(inject_clock_gettime, EINVAL);
        EXPECT_FALSE(Time::getTime(now));
        EXPECT_TRUE(chainIs({}));
    }
    std::pair<int, ExpectedReport> const rows[] = {
        {EINVAL, SysErrorId::NOT_IMPLEMENTED},
        {EFAULT, Time::ErrorId::GET_TIMESTAMP_FAILED},
        {EPERM, Time::ErrorId::GET_TIMESTAMP_FAILED},
        {ENOSYS, Time::ErrorId::GET_TIMESTAMP_FAILED}};
    for (auto const& [error, report] : rows) {
        leaveOlderReport();
        now = 77;
        {
            Fault const fault(inject_clock_gettime, error);
            EXPECT_TRUE(Time::getTimestamp(now));
        }
        EXPECT_EQ(77, now);
        EXPECT_TRUE(causeIs(*report.family, report.id, error)) << error;
    }
}

// The process has one origin: only children set it, so that the tests of this program stay independent.

TEST(Time, uptimeBeforeTheStartOfTheLibraryIsTheTime) {
    EXPECT_EQ(0, Time::getInitTime());
    FakeClock const clock(1234, 567000000);
    long long now = 0;
    long long uptime = 0;
    EXPECT_FALSE(Time::getTime(now));
    EXPECT_FALSE(Time::getUptime(uptime));
    EXPECT_EQ(1234567, uptime);
    EXPECT_EQ(now, uptime);
}

VESK_TEST_BY(expectInChild, Time, uptimeCountsFromTheStartOfTheLibrary) {
    FakeClock clock(1000, 250000000);
    EXPECT_FALSE(Time::init());
    EXPECT_EQ(1000250, Time::getInitTime());
    long long uptime = -1;
    EXPECT_FALSE(Time::getUptime(uptime));
    EXPECT_EQ(0, uptime);
    clock.set(1003, 0);
    EXPECT_FALSE(Time::getUptime(uptime));
    EXPECT_EQ(2750, uptime);
    EXPECT_TRUE(chainIs({}));
}

VESK_TEST_BY(expectInChild, Time, everyThreadSeesTheSameOriginAndASecondStartMovesItInPlace) {
    long long const& origin = Time::getInitTime();
    long long const before_start = monotonicMs();
    EXPECT_FALSE(Time::init());
    EXPECT_LE(before_start, origin);
    EXPECT_LE(origin, monotonicMs());
    runInThreads(4, [&origin](int) {
        long long uptime = -1;
        for (int round = 0; round < 1000; ++round) {
            long long const before = monotonicMs();
            EXPECT_FALSE(Time::getUptime(uptime));
            EXPECT_LE(before - origin, uptime);
            EXPECT_LE(uptime, monotonicMs() - origin);
        }
    });
    FakeClock const clock(1 << 30, 0);
    EXPECT_FALSE(Time::init());
    EXPECT_EQ((1LL << 30) * 1000, origin);
    EXPECT_EQ(&origin, &Time::getInitTime());
}

// ---- sleep ----

TEST(TimeSleep, ofNothingReturnsAtOnceWithoutASystemCall) {
    Fault const reads(inject_clock_gettime, 0);
    Fault const sleeps(inject_clock_nanosleep, 0);
    for (long long const ms : {0LL, -1LL, -5LL, LLONG_MIN}) {
        EXPECT_FALSE(Time::sleep(ms));
    }
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_EQ(0, sleeps.getCalls());
}

TEST(TimeSleep, sleepsUntilTheClockHasPassedTheDeadline) {
    for (int const ms : {1, 30}) {
        long long const start = monotonicMs();
        EXPECT_FALSE(Time::sleep(ms));
        EXPECT_LE(ms, monotonicMs() - start);
    }
}

TEST(TimeSleep, deadlineIsNowPlusTheTimeOnTheMonotonicClock) {
    FakeClock const clock(12, 345678901);
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    EXPECT_FALSE(Time::sleep(1700));
    EXPECT_EQ(CLOCK_MONOTONIC, clock.getClock());
    ASSERT_EQ(1u, recorder.getCalls().size());
    EXPECT_EQ(CLOCK_MONOTONIC, recorder.getCalls()[0].clock);
    EXPECT_EQ(TIMER_ABSTIME, recorder.getCalls()[0].flags);
    EXPECT_EQ(14, recorder.getCalls()[0].deadline.tv_sec);
    EXPECT_EQ(45000000, recorder.getCalls()[0].deadline.tv_nsec);
}

std::atomic<int> s_signals{0};

TEST(TimeSleep, signalDoesNotShortenIt) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++s_signals; };
    struct sigaction before {};
    ASSERT_EQ(0, sigaction(SIGALRM, &action, &before)); // Without SA_RESTART.
    s_signals = 0;

    SleepRecorder const recorder(SleepRecorder::Sleeps::REALLY);
    itimerval const every_5_ms{{0, 5000}, {0, 5000}};
    long long const start = monotonicMs();
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &every_5_ms, nullptr));
    EXPECT_FALSE(Time::sleep(100));
    itimerval const never{};
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &never, nullptr));
    long long const passed = monotonicMs() - start;
    ASSERT_EQ(0, sigaction(SIGALRM, &before, nullptr));

    EXPECT_LE(100, passed);
    EXPECT_LT(0, s_signals);
    EXPECT_LT(1u, recorder.getCalls().size()) << "no signal interrupted it";
    recorder.expectOneDeadline();
}

TEST(TimeSleep, interruptionIsNoFailureAndKeepsTheDeadline) {
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    Fault const fault(inject_clock_nanosleep, EINTR, 1, 5);
    EXPECT_FALSE(Time::sleep(1000));
    EXPECT_EQ(6u, recorder.getCalls().size());
    recorder.expectOneDeadline();
}

TEST(TimeSleep, failuresAreReportedAndTheSleepIsCompleted) {
    for (int const error : {EINVAL, EFAULT, EOPNOTSUPP, ENOSYS}) {
        long long const start = monotonicMs();
        SleepRecorder const recorder(SleepRecorder::Sleeps::REALLY);
        leaveOlderReport();
        Fault const fault(inject_clock_nanosleep, error, 1, 2);
        EXPECT_TRUE(Time::sleep(20));
        EXPECT_EQ(error, errno);
        EXPECT_LE(20, monotonicMs() - start);
        EXPECT_EQ(3u, recorder.getCalls().size());
        recorder.expectOneDeadline();
        EXPECT_TRUE(causeIs(Time::ErrorId::SLEEP_FAILED, error));
    }
}

TEST(TimeSleep, reportsAFailureFollowedByASignal) {
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    Fault const failure(inject_clock_nanosleep, EINVAL);
    EXPECT_TRUE(Time::sleep(1000));
    EXPECT_EQ(2u, recorder.getCalls().size());
    EXPECT_TRUE(chainIs({{Time::ErrorId::SLEEP_FAILED}}));
    // The next sleep does not report it.
    EXPECT_FALSE(Time::sleep(1000));
    EXPECT_TRUE(chainIs({}));
}

TEST(TimeSleep, ofAnyLengthHasADeadlineThatTheSystemAccepts) {
    for (long long const ms :
         {INT_MAX * 1LL, INT_MAX * 1000LL, INT_MAX * 1000LL + 999, LLONG_MAX - 1000000, LLONG_MAX - 1,
          LLONG_MAX}) {
        SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
        long long const now = monotonicMs();
        EXPECT_FALSE(Time::sleep(ms));
        ASSERT_EQ(1u, recorder.getCalls().size());
        timespec const& deadline = recorder.getCalls()[0].deadline;
        long long const latest = std::numeric_limits<time_t>::max();
        long long const wanted = ms > LLONG_MAX - now ? LLONG_MAX / 1000 : (now + ms) / 1000;
        EXPECT_LE(std::min(wanted, latest), deadline.tv_sec) << ms;
        EXPECT_GE(std::min(wanted + 60, latest), deadline.tv_sec) << ms;
        EXPECT_LE(0, deadline.tv_nsec);
        EXPECT_GT(1000000000, deadline.tv_nsec);
    }
}

TEST(TimeSleep, longestSleepDoesNotWrapAround) {
    FakeClock const clock(1, 0);
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    EXPECT_FALSE(Time::sleep(LLONG_MAX - 1000));
    EXPECT_FALSE(Time::sleep(LLONG_MAX - 999));
    ASSERT_EQ(2u, recorder.getCalls().size());
    recorder.expectOneDeadline();
    EXPECT_LT(0, recorder.getCalls()[0].deadline.tv_sec);
}

// ---- deadlines ----

TEST(AbsTime, isGoodOnlyWhenMadeFromATime) {
    vesk::AbsTimeT const deadline(1LL << 40);
    EXPECT_EQ(1LL << 40, deadline.value);
    EXPECT_NE(0, deadline.good);
    vesk::AbsTimeT const none;
    EXPECT_EQ(0, none.value);
    EXPECT_EQ(0, none.good);
}

} // namespace
