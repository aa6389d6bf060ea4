#include "frame/FakeClock.h"
#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "support/RunInThreads.h"

#include <vesk/AbsTime.h>
#include <vesk/SysError.h>
#include <vesk/Time.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <limits>
#include <sys/time.h>
#include <type_traits>
#include <vector>

namespace {

/// One call of `clock_nanosleep`.
struct SleepCall {
    clockid_t clock;
    int flags;
    timespec deadline;
};

/// The calls of the test's thread during the lifetime of a `SleepRecorder`.
std::vector<SleepCall>* s_sleep_calls = nullptr;
pthread_t s_sleeper;
bool s_sleep_is_over = false;

} // namespace

support::Injected inject_clock_nanosleep("clock_nanosleep");

/// No sanitizer's runtime calls it before `main`, so it may use a vector.
extern "C" int clock_nanosleep(clockid_t clock, int flags, timespec const* deadline, timespec* remaining) {
    if (s_sleep_calls != nullptr && pthread_equal(s_sleeper, pthread_self()) != 0) {
        s_sleep_calls->push_back({clock, flags, *deadline});
    }
    int error = 0;
    if (inject_clock_nanosleep.fails(error)) {
        return error;
    }
    if (s_sleep_is_over) {
        return 0;
    }
    return reinterpret_cast<int (*)(clockid_t, int, timespec const*, timespec*)>(
        inject_clock_nanosleep.getReal())(clock, flags, deadline, remaining);
}

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

/// Records the calls of `clock_nanosleep`, and may make them return at once.
class SleepRecorder {
public:
    enum class Sleeps { REALLY, NOT_AT_ALL };

    explicit SleepRecorder(Sleeps sleeps) {
        m_calls.reserve(1000);
        s_sleeper = pthread_self();
        s_sleep_is_over = sleeps == Sleeps::NOT_AT_ALL;
        s_sleep_calls = &m_calls;
    }
    ~SleepRecorder() {
        s_sleep_calls = nullptr;
        s_sleep_is_over = false;
    }

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

private:
    std::vector<SleepCall> m_calls;
};

// ---- the family ----

struct TextRow {
    Time::ErrorId id;
    char const* text;
};

class TimeErrorRows : public testing::TestWithParam<TextRow> {};

TEST_P(TimeErrorRows, haveTheirTexts) {
    auto const& [id, text] = GetParam();
    std::ErrorOutput("file", 1, true)(id, "why");
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    EXPECT_TRUE(chainIs({{id, text}}));
    EXPECT_EQ(id, Time::Error.getRow(id)->id);
    EXPECT_EQ(1, Time::Error.getRow(id)->nargs);
}

TextRow const TEXTS[] = {
    {Time::ErrorId::NO_CLOCK, "No clock source available in the system: why"},
    {Time::ErrorId::SLEEP_FAILED, "Sleep failed: why"},
    {Time::ErrorId::GET_TIME_FAILED, "Failed to get time: why"},
    {Time::ErrorId::GET_UPTIME_FAILED, "Failed to get uptime: why"},
    {Time::ErrorId::GET_TIMESTAMP_FAILED, "Failed to get timestamp: why"},
};

INSTANTIATE_TEST_SUITE_P(All, TimeErrorRows, testing::ValuesIn(TEXTS));

TEST(TimeError, hasNoOtherRows) {
    EXPECT_EQ(nullptr, Time::Error.getRow(5));
    EXPECT_EQ(nullptr, Time::Error.getRow(-1));
}

// ---- clocks ----

TEST(Time, hasOnlyStaticMembers) {
    static_assert(!std::is_default_constructible_v<Time> && std::is_empty_v<Time>);
}

TEST(Time, timeIsTheMonotonicClock) {
    long long const before = monotonicMs();
    long long now = 0;
    EXPECT_FALSE(Time::getTime(now));
    long long const after = monotonicMs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(Time, timeIsReadFromTheMonotonicClockAndRoundedDown) {
    FakeClock const clock(2147483, 999999999);
    long long now = 0;
    EXPECT_FALSE(Time::getTime(now));
    EXPECT_EQ(2147483999, now);
    EXPECT_EQ(CLOCK_MONOTONIC, clock.getClock());
}

TEST(Time, timeCannotFail) {
    Fault const fault(inject_clock_gettime, EINVAL);
    long long now = 0;
    EXPECT_FALSE(Time::getTime(now));
    EXPECT_TRUE(chainIs({}));
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

TEST(Time, uptimeCountsFromTheStartOfTheLibrary) {
    expectInChild([] {
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
    });
}

TEST(Time, secondStartMovesTheOriginWithinTheSameReference) {
    expectInChild([] {
        long long const& origin = Time::getInitTime();
        long long const before = monotonicMs();
        EXPECT_FALSE(Time::init());
        EXPECT_LE(before, origin);
        EXPECT_LE(origin, monotonicMs());
        FakeClock const clock(1 << 30, 0);
        EXPECT_FALSE(Time::init());
        EXPECT_EQ((1LL << 30) * 1000, origin);
        EXPECT_EQ(&origin, &Time::getInitTime());
    });
}

TEST(Time, everyThreadSeesTheSameOrigin) {
    expectInChild([] {
        EXPECT_FALSE(Time::init());
        long long const origin = Time::getInitTime();
        runInThreads(4, [origin](int) {
            long long uptime = -1;
            for (int round = 0; round < 1000; ++round) {
                long long const before = monotonicMs();
                EXPECT_FALSE(Time::getUptime(uptime));
                EXPECT_LE(before - origin, uptime);
                EXPECT_LE(uptime, monotonicMs() - origin);
            }
        });
    });
}

TEST(Time, timestampIsTheWallClock) {
    long long const before = readMs(CLOCK_REALTIME);
    long long now = 0;
    EXPECT_FALSE(Time::getTimestamp(now));
    long long const after = readMs(CLOCK_REALTIME);
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    EXPECT_TRUE(chainIs({}));
}

TEST(Time, timestampHasSixtyFourBitsAndIsRoundedDown) {
    FakeClock const clock(INT_MAX, 5999999);
    long long now = 0;
    EXPECT_FALSE(Time::getTimestamp(now));
    EXPECT_EQ(2147483647005, now);
    EXPECT_EQ(CLOCK_REALTIME, clock.getClock());
}

struct TimestampRow {
    int error;
    ExpectedReport report;
};

void PrintTo(TimestampRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class TimestampRows : public testing::TestWithParam<TimestampRow> {};

TEST_P(TimestampRows, reportAndKeepTheArgument) {
    auto const& [error, report] = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    long long now = 77;
    {
        Fault const fault(inject_clock_gettime, error);
        EXPECT_TRUE(Time::getTimestamp(now));
    }
    EXPECT_EQ(77, now);
    EXPECT_TRUE(causeIs(*report.family, report.id, error));
}

INSTANTIATE_TEST_SUITE_P(
    All, TimestampRows,
    testing::Values(
        TimestampRow{EINVAL, SysErrorId::NOT_IMPLEMENTED},
        TimestampRow{EFAULT, Time::ErrorId::GET_TIMESTAMP_FAILED},
        TimestampRow{EPERM, Time::ErrorId::GET_TIMESTAMP_FAILED},
        TimestampRow{ENOSYS, Time::ErrorId::GET_TIMESTAMP_FAILED}));

// ---- sleep ----

class SleepOfNothing : public testing::TestWithParam<long long> {};

TEST_P(SleepOfNothing, returnsAtOnceWithoutASystemCall) {
    Fault const reads(inject_clock_gettime, 0);
    Fault const sleeps(inject_clock_nanosleep, 0);
    EXPECT_FALSE(Time::sleep(GetParam()));
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_EQ(0, sleeps.getCalls());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(All, SleepOfNothing, testing::Values(0, -1, -5, LLONG_MIN));

TEST(TimeSleep, sleepsUntilTheClockHasPassedTheDeadline) {
    long long const start = monotonicMs();
    EXPECT_FALSE(Time::sleep(30));
    EXPECT_LE(30, monotonicMs() - start);
    EXPECT_TRUE(chainIs({}));
}

TEST(TimeSleep, oneMillisecondIsASleep) {
    long long const start = monotonicMs();
    EXPECT_FALSE(Time::sleep(1));
    EXPECT_LE(1, monotonicMs() - start);
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
    EXPECT_TRUE(chainIs({}));
}

TEST(TimeSleep, interruptionIsNoFailureAndKeepsTheDeadline) {
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    Fault const fault(inject_clock_nanosleep, EINTR, 1, 5);
    EXPECT_FALSE(Time::sleep(1000));
    EXPECT_EQ(6u, recorder.getCalls().size());
    recorder.expectOneDeadline();
    EXPECT_TRUE(chainIs({}));
}

class SleepRows : public testing::TestWithParam<int> {};

TEST_P(SleepRows, areReportedAndTheSleepIsCompleted) {
    long long const start = monotonicMs();
    SleepRecorder const recorder(SleepRecorder::Sleeps::REALLY);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(inject_clock_nanosleep, GetParam(), 1, 2);
    EXPECT_TRUE(Time::sleep(20));
    EXPECT_EQ(GetParam(), errno);
    EXPECT_LE(20, monotonicMs() - start);
    EXPECT_EQ(3u, recorder.getCalls().size());
    recorder.expectOneDeadline();
    EXPECT_TRUE(causeIs(Time::ErrorId::SLEEP_FAILED, GetParam()));
}

INSTANTIATE_TEST_SUITE_P(All, SleepRows, testing::Values(EINVAL, EFAULT, EOPNOTSUPP, ENOSYS));

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

class SleepWithoutEnd : public testing::TestWithParam<long long> {};

TEST_P(SleepWithoutEnd, hasADeadlineThatTheSystemAccepts) {
    SleepRecorder const recorder(SleepRecorder::Sleeps::NOT_AT_ALL);
    long long const now = monotonicMs();
    EXPECT_FALSE(Time::sleep(GetParam()));
    ASSERT_EQ(1u, recorder.getCalls().size());
    timespec const& deadline = recorder.getCalls()[0].deadline;
    long long const latest = std::numeric_limits<time_t>::max();
    long long const wanted = GetParam() > LLONG_MAX - now ? LLONG_MAX / 1000 : (now + GetParam()) / 1000;
    EXPECT_LE(std::min(wanted, latest), deadline.tv_sec);
    EXPECT_GE(std::min(wanted + 60, latest), deadline.tv_sec);
    EXPECT_LE(0, deadline.tv_nsec);
    EXPECT_GT(1000000000, deadline.tv_nsec);
}

INSTANTIATE_TEST_SUITE_P(
    All, SleepWithoutEnd,
    testing::Values(
        INT_MAX, INT_MAX * 1000LL, INT_MAX * 1000LL + 999, LLONG_MAX - 1000000, LLONG_MAX - 1, LLONG_MAX));

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

TEST(AbsTime, isGoodWhenMadeFromATime) {
    vesk::AbsTimeT const deadline(1LL << 40);
    EXPECT_EQ(1LL << 40, deadline.value);
    EXPECT_NE(0, deadline.good);
}

TEST(AbsTime, isNotGoodByDefault) {
    vesk::AbsTimeT const deadline;
    EXPECT_EQ(0, deadline.value);
    EXPECT_EQ(0, deadline.good);
}

} // namespace
