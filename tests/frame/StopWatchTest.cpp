#include "frame/FakeClock.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/ProcessTimeStopWatch.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/SysError.h>
#include <vesk/ThreadTimeStopWatch.h>
#include <vesk/Time.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

VESK_INJECT_RESULT(clock_getcpuclockid, (pid_t pid, clockid_t* clock), (pid, clock))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::FakeClock;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::ProcessTimeStopWatch;
using vesk::RealtimeStopWatch;
using vesk::StopWatchBase;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::ThreadTimeStopWatch;
using vesk::Time;

constexpr auto MS = StopWatchBase::TimeUnit::MILLISECONDS;
constexpr auto US = StopWatchBase::TimeUnit::MICROSECONDS;

/// A stopwatch and the clock it runs on.
class StopWatch : public testing::Test {
protected:
    /// Adds one period from a moment to another.
    void addPeriod(time_t start, long start_ns, time_t end, long end_ns) {
        m_clock.set(start, start_ns);
        m_watch.start();
        m_clock.set(end, end_ns);
        m_watch.stop();
    }

    FakeClock m_clock{100, 0};
    RealtimeStopWatch m_watch{false};
};

// ---- periods ----

TEST_F(StopWatch, isStoppedAndEmptyAtFirst) {
    Fault const reads(inject_clock_gettime, 0);
    EXPECT_EQ(0, m_watch.getStoppedTime(MS));
    EXPECT_EQ(0, m_watch.peekRuntime(MS));
    EXPECT_EQ(0, m_watch.getElapsedTime(US));
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_EQ(0, reads.getCalls());
}

TEST_F(StopWatch, measuresFromStartToStop) {
    m_watch.start();
    m_clock.set(103, 250000000);
    m_watch.stop();
    m_clock.set(200, 0);
    EXPECT_EQ(3250, m_watch.getStoppedTime(MS));
    EXPECT_EQ(3250000, m_watch.getStoppedTime(US));
    EXPECT_EQ(0, m_watch.peekRuntime(MS));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StopWatch, startingTwiceKeepsTheFirstStart) {
    m_watch.start();
    m_clock.set(101, 0);
    m_watch.start();
    EXPECT_EQ(1000, m_watch.peekRuntime(MS));
    m_clock.set(105, 0);
    m_watch.stop();
    EXPECT_EQ(5000, m_watch.getStoppedTime(MS));
}

TEST_F(StopWatch, stoppingWithoutAStartAddsNothingAndReportsNothing) {
    addPeriod(10, 0, 12, 0);
    m_clock.set(20, 0);
    Fault const reads(inject_clock_gettime, EINVAL);
    m_watch.stop();
    EXPECT_EQ(2000, m_watch.getStoppedTime(MS));
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StopWatch, resetWhileRunningKeepsThePeriodOpen) {
    addPeriod(10, 0, 17, 0);
    m_clock.set(20, 0);
    m_watch.start();
    m_clock.set(21, 0);
    m_watch.reset();
    EXPECT_EQ(0, m_watch.getStoppedTime(MS));
    EXPECT_EQ(1000, m_watch.peekRuntime(MS));
    m_clock.set(24, 0);
    EXPECT_EQ(4000, m_watch.peekRuntime(MS));
    m_watch.stop();
    EXPECT_EQ(4000, m_watch.getStoppedTime(MS));
}

TEST_F(StopWatch, resetOfAStoppedOneForgetsEverything) {
    addPeriod(10, 0, 17, 5);
    m_watch.reset();
    EXPECT_EQ(0, m_watch.getElapsedTime(US));
    addPeriod(20, 0, 21, 0);
    EXPECT_EQ(1000000, m_watch.getElapsedTime(US));
}

TEST_F(StopWatch, elapsedTimeOfAStoppedOneIsItsStoppedTime) {
    addPeriod(10, 0, 12, 345678901);
    EXPECT_EQ(2345, m_watch.getElapsedTime(MS));
    EXPECT_EQ(m_watch.getStoppedTime(MS), m_watch.getElapsedTime(MS));
    EXPECT_EQ(m_watch.getStoppedTime(US), m_watch.getElapsedTime(US));
}

TEST_F(StopWatch, elapsedTimeOfARunningOneIsTheSum) {
    addPeriod(10, 0, 12, 0);
    m_clock.set(30, 0);
    m_watch.start();
    m_clock.set(31, 500000000);
    EXPECT_EQ(2000, m_watch.getStoppedTime(MS));
    EXPECT_EQ(1500, m_watch.peekRuntime(MS));
    EXPECT_EQ(3500, m_watch.getElapsedTime(MS));
    EXPECT_EQ(3500000, m_watch.getElapsedTime(US));
}

TEST_F(StopWatch, twoPeriodsCarryTheirNanoseconds) {
    addPeriod(10, 0, 10, 600000000);
    addPeriod(20, 0, 20, 600000000);
    EXPECT_EQ(1200, m_watch.getStoppedTime(MS));
    EXPECT_EQ(1200000, m_watch.getStoppedTime(US));
}

TEST_F(StopWatch, carriesAtAFullSecond) {
    addPeriod(10, 0, 10, 999999999);
    EXPECT_EQ(999999, m_watch.getStoppedTime(US));
    addPeriod(20, 0, 20, 1);
    EXPECT_EQ(1000000, m_watch.getStoppedTime(US));
    EXPECT_EQ(1000, m_watch.getStoppedTime(MS));
}

TEST_F(StopWatch, periodAcrossAFullSecondBorrows) {
    addPeriod(10, 900000000, 12, 100000000);
    EXPECT_EQ(1200, m_watch.getStoppedTime(MS));
    m_clock.set(10, 999999999);
    m_watch.start();
    m_clock.set(11, 0);
    EXPECT_EQ(0, m_watch.peekRuntime(US));
    m_clock.set(11, 999);
    EXPECT_EQ(1, m_watch.peekRuntime(US));
}

TEST_F(StopWatch, startsByItselfIfTold) {
    RealtimeStopWatch const watch(true);
    m_clock.set(107, 0);
    EXPECT_EQ(7000, watch.peekRuntime(MS));
    RealtimeStopWatch const waiting(false);
    m_clock.set(110, 0);
    EXPECT_EQ(0, waiting.peekRuntime(MS));
}

TEST_F(StopWatch, isAPlainValueWithoutVirtualOperations) {
    static_assert(!std::is_polymorphic_v<RealtimeStopWatch>);
    static_assert(!std::is_polymorphic_v<ProcessTimeStopWatch>);
    m_watch.start();
    RealtimeStopWatch const copy = m_watch;
    m_clock.set(101, 0);
    m_watch.stop();
    m_clock.set(102, 0);
    EXPECT_EQ(2000, copy.peekRuntime(MS));
}

// ---- units ----

TEST_F(StopWatch, unitsAreRoundedDown) {
    addPeriod(10, 0, 10, 1999999);
    EXPECT_EQ(1, m_watch.getStoppedTime(MS));
    EXPECT_EQ(1999, m_watch.getStoppedTime(US));
}

TEST_F(StopWatch, anyOtherUnitIsMicroseconds) {
    static_assert(static_cast<int>(MS) == 0 && static_cast<int>(US) == 1);
    addPeriod(10, 0, 11, 0);
    EXPECT_EQ(1000000, m_watch.getStoppedTime(static_cast<StopWatchBase::TimeUnit>(7)));
    EXPECT_EQ(1000000, m_watch.getStoppedTime(static_cast<StopWatchBase::TimeUnit>(-1)));
}

struct WrapRow {
    time_t seconds;
    long nanoseconds;
    long long ms;
    long long us;
};

void PrintTo(WrapRow const& row, std::ostream* out) {
    *out << row.seconds << " s";
}

class StopWatchWrap : public StopWatch, public testing::WithParamInterface<WrapRow> {};

TEST_P(StopWatchWrap, ofMillisecondsIsThatOf32BitSeconds) {
    WrapRow const& row = GetParam();
    m_clock.set(0, 0);
    m_watch.start();
    m_clock.set(row.seconds, row.nanoseconds);
    EXPECT_EQ(row.ms, m_watch.peekRuntime(MS));
    EXPECT_EQ(row.us, m_watch.peekRuntime(US));
    m_watch.stop();
    EXPECT_EQ(row.ms, m_watch.getStoppedTime(MS));
    EXPECT_EQ(row.us, m_watch.getStoppedTime(US));
}

INSTANTIATE_TEST_SUITE_P(
    All, StopWatchWrap,
    testing::Values(
        WrapRow{2147483, 0, 2147483000, 2147483000000},
        // Only the product has 32 bits: the milliseconds behind it come on top.
        WrapRow{2147483, 999999999, 2147483999, 2147483999999},
        WrapRow{2147484, 0, -2147483296, 2147484000000},
        WrapRow{2147484, 500000000, -2147482796, 2147484500000}, WrapRow{4294968, 0, 704, 4294968000000},
        WrapRow{2147483647, 0, -1000, 2147483647000000}));

TEST_F(StopWatch, sumOfPeriodsWrapsTheMillisecondsToo) {
    addPeriod(0, 0, 2000000, 0);
    addPeriod(0, 0, 147484, 0);
    EXPECT_EQ(-2147483296, m_watch.getStoppedTime(MS));
    EXPECT_EQ(2147484000000, m_watch.getStoppedTime(US));
    m_clock.set(0, 0);
    m_watch.start();
    m_clock.set(1, 0);
    EXPECT_EQ(-2147482296, m_watch.getElapsedTime(MS));
}

TEST_F(StopWatch, sumOfPeriodsHas32BitSeconds) {
    addPeriod(0, 0, 2000000000, 0);
    addPeriod(0, 0, 147483647, 999999999);
    EXPECT_EQ(2147483647999999, m_watch.getStoppedTime(US));
    addPeriod(0, 0, 0, 1);
    EXPECT_EQ(-2147483648000000, m_watch.getStoppedTime(US));
}

// ---- a clock that goes backwards ----

TEST_F(StopWatch, clockThatGoesBackIsAnAssertionAndTheDifferenceIsNegative) {
    EventRecorder const recorder;
    m_clock.set(10, 500000000);
    m_watch.start();
    m_clock.set(8, 200000000);
    EXPECT_EQ(-2300, m_watch.peekRuntime(MS));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/StopWatchBase calcDiffTime: end.tv_sec >= start.tv_sec",
        recorder.getText());
    m_watch.stop();
    EXPECT_EQ(2u, recorder.getCount());
    EXPECT_EQ(-2300, m_watch.getStoppedTime(MS));
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_TRUE(chainIs({}));
    addPeriod(10, 0, 13, 0);
    EXPECT_EQ(700, m_watch.getStoppedTime(MS));
}

TEST_F(StopWatch, clockThatGoesBackWithinItsSecondIsNoAssertion) {
    EventRecorder const recorder;
    m_clock.set(10, 500000000);
    m_watch.start();
    m_clock.set(10, 400000000);
    EXPECT_EQ(-100, m_watch.peekRuntime(MS));
    EXPECT_EQ(0u, recorder.getCount());
}

// ---- a clock that cannot be read ----

class StopWatchFailure : public StopWatch, public testing::WithParamInterface<int> {
protected:
    testing::AssertionResult isReported() const {
        return chainIs({{Time::ErrorId::GET_TIME_FAILED, "Failed to get time: " + systemText(GetParam())}});
    }
};

TEST_P(StopWatchFailure, ofStartLeavesThePeriodClosed) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_clock_gettime, GetParam());
        m_watch.start();
    }
    EXPECT_TRUE(m_watch.hasFailed());
    EXPECT_TRUE(isReported());
    m_clock.set(102, 0);
    m_watch.stop();
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_EQ(0, m_watch.getElapsedTime(MS));
    addPeriod(110, 0, 111, 0);
    EXPECT_EQ(1000, m_watch.getStoppedTime(MS));
}

TEST_P(StopWatchFailure, ofStopLeavesThePeriodOpen) {
    m_watch.start();
    m_clock.set(102, 0);
    {
        Fault const fault(inject_clock_gettime, GetParam());
        m_watch.stop();
    }
    EXPECT_TRUE(m_watch.hasFailed());
    EXPECT_TRUE(isReported());
    EXPECT_EQ(0, m_watch.getStoppedTime(MS));
    EXPECT_TRUE(m_watch.hasFailed()) << "reading the sum changes no flag";
    m_clock.set(105, 0);
    m_watch.stop();
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_EQ(5000, m_watch.getStoppedTime(MS));
    EXPECT_TRUE(chainIs({}));
}

TEST_P(StopWatchFailure, ofPeekGivesZeroAndLeavesThePeriodOpen) {
    m_watch.start();
    m_clock.set(102, 0);
    RealtimeStopWatch const& watch = m_watch;
    {
        Fault const fault(inject_clock_gettime, GetParam());
        EXPECT_EQ(0, watch.peekRuntime(MS));
    }
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(isReported());
    EXPECT_EQ(2000, watch.peekRuntime(MS));
    EXPECT_FALSE(watch.hasFailed());
}

TEST_P(StopWatchFailure, ofElapsedTimeGivesTheStoppedTime) {
    addPeriod(10, 0, 13, 0);
    m_clock.set(100, 0);
    m_watch.start();
    m_clock.set(102, 0);
    {
        Fault const fault(inject_clock_gettime, GetParam());
        EXPECT_EQ(3000, m_watch.getElapsedTime(MS));
    }
    EXPECT_TRUE(m_watch.hasFailed());
    EXPECT_TRUE(isReported());
}

TEST_P(StopWatchFailure, ofAutoStartLeavesThePeriodClosed) {
    Fault const fault(inject_clock_gettime, GetParam());
    RealtimeStopWatch const watch(true);
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(isReported());
    EXPECT_EQ(0, watch.peekRuntime(MS));
    EXPECT_EQ(1, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(All, StopWatchFailure, testing::Values(EINVAL, EPERM, EFAULT, ENOSYS));

TEST_F(StopWatch, failureIsForgottenByTheNextOperationEvenIfThatDoesNothing) {
    m_watch.start();
    auto const fail = [this] {
        Fault const fault(inject_clock_gettime, EINVAL);
        m_watch.peekRuntime(MS);
        EXPECT_TRUE(m_watch.hasFailed());
    };
    fail();
    m_watch.reset();
    EXPECT_TRUE(m_watch.hasFailed());
    m_watch.start(); // It runs already.
    EXPECT_FALSE(m_watch.hasFailed());
    fail();
    m_watch.stop();
    EXPECT_FALSE(m_watch.hasFailed());

    auto const failStart = [this] {
        Fault const fault(inject_clock_gettime, EINVAL);
        m_watch.start();
        EXPECT_TRUE(m_watch.hasFailed());
    };
    failStart();
    m_watch.stop(); // It is stopped already.
    EXPECT_FALSE(m_watch.hasFailed());
    failStart();
    EXPECT_EQ(0, m_watch.peekRuntime(MS));
    EXPECT_FALSE(m_watch.hasFailed());
}

// ---- the clocks ----

TEST(StopWatchClock, ofRealtimeIsTheMonotonicOne) {
    FakeClock const clock(1, 0);
    RealtimeStopWatch const watch(true);
    EXPECT_EQ(CLOCK_MONOTONIC, clock.getClock());
}

TEST(StopWatchClock, ofThreadTimeIsTheThreads) {
    FakeClock const clock(1, 0);
    ThreadTimeStopWatch const watch(true);
    EXPECT_EQ(CLOCK_THREAD_CPUTIME_ID, clock.getClock());
}

TEST(StopWatchClock, ofProcessTimeIsTheProcesss) {
    FakeClock const clock(1, 0);
    ProcessTimeStopWatch const watch(true);
    EXPECT_EQ(CLOCK_PROCESS_CPUTIME_ID, clock.getClock());
}

TEST(StopWatchClock, ofAnotherProcessIsThatProcesss) {
    clockid_t expected = 0;
    ASSERT_EQ(0, clock_getcpuclockid(getppid(), &expected));
    FakeClock const clock(1, 0);
    ProcessTimeStopWatch const watch(getppid(), true);
    EXPECT_EQ(expected, clock.getClock());
    EXPECT_FALSE(watch.hasFailed());
}

TEST(StopWatchClock, isNotReadWithoutAutoStart) {
    Fault const reads(inject_clock_gettime, 0);
    RealtimeStopWatch const realtime(false);
    ThreadTimeStopWatch const thread(false);
    ProcessTimeStopWatch const process(false);
    ProcessTimeStopWatch const other(getpid(), false);
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_EQ(0, other.peekRuntime(MS));
}

TEST(StopWatchClock, realtimePassesWhileTheThreadSleeps) {
    RealtimeStopWatch realtime(true);
    ThreadTimeStopWatch thread(true);
    Time::sleep(50);
    thread.stop();
    realtime.stop();
    // A sleep counts from the last full millisecond.
    EXPECT_LE(49, realtime.getStoppedTime(MS));
    EXPECT_LT(thread.getStoppedTime(US), realtime.getStoppedTime(US));
}

/// Keeps the processor busy for a length of processor time.
void burn(long long us) {
    ThreadTimeStopWatch const watch(true);
    while (watch.peekRuntime(US) < us) {}
}

TEST(StopWatchClock, threadTimeIsThatOfTheCallingThreadAndProcessTimeThatOfAll) {
    ProcessTimeStopWatch process(true);
    ThreadTimeStopWatch mine(true);
    burn(10000);
    std::thread([] { burn(60000); }).join();
    mine.stop();
    process.stop();
    EXPECT_LE(10000, mine.getStoppedTime(US));
    EXPECT_LE(70000, process.getStoppedTime(US));
    EXPECT_LE(mine.getStoppedTime(US) + 60000, process.getStoppedTime(US));
}

TEST(StopWatchClock, ofThisProcessByItsIdIsItsOwn) {
    ProcessTimeStopWatch by_id(getpid(), true);
    ProcessTimeStopWatch by_zero(0, true);
    burn(5000);
    by_zero.stop();
    by_id.stop();
    EXPECT_LE(5000, by_zero.getStoppedTime(US));
    EXPECT_LE(by_zero.getStoppedTime(US), by_id.getStoppedTime(US));
}

/// A child process that keeps the processor busy until it is ended.
class BusyChild {
public:
    BusyChild() : m_pid(fork()) {
        if (m_pid == 0) {
            alarm(60);
            for (std::atomic<int> i{0};;) {
                ++i;
            }
        }
    }
    ~BusyChild() { end(); }

    void end() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_ended = m_pid;
            m_pid = -1;
        }
    }

    pid_t getPid() const { return m_pid > 0 ? m_pid : m_ended; }

private:
    pid_t m_pid;
    pid_t m_ended = -1;
};

TEST(StopWatchClock, measuresAnotherProcess) {
    BusyChild const child;
    ProcessTimeStopWatch watch(child.getPid(), true);
    ASSERT_FALSE(watch.hasFailed());
    RealtimeStopWatch const deadline(true);
    while (watch.peekRuntime(US) < 10000 && deadline.peekRuntime(MS) < 30000) {
        std::this_thread::yield();
    }
    watch.stop();
    EXPECT_LE(10000, watch.getStoppedTime(US));
    EXPECT_FALSE(watch.hasFailed());
}

TEST(StopWatchClock, ofAProcessThatHasEndedCannotBeRead) {
    BusyChild child;
    ProcessTimeStopWatch watch(child.getPid(), true);
    ASSERT_FALSE(watch.hasFailed());
    child.end();
    watch.stop();
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(chainIs(
        {{Time::ErrorId::GET_TIME_FAILED, rowText(Time::ErrorId::GET_TIME_FAILED, systemText(EINVAL))}}));
}

// ---- a process without a clock ----

TEST(StopWatchNoClock, ofAProcessThatDoesNotExist) {
    BusyChild child;
    child.end();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    ProcessTimeStopWatch watch(child.getPid(), true);
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(chainIs(
        {{Time::ErrorId::NO_CLOCK, "No clock source available in the system: " + systemText(ESRCH)}}));
    watch.stop();
    EXPECT_EQ(0, watch.getElapsedTime(US));
    EXPECT_FALSE(watch.hasFailed());
}

class StopWatchNoClockRows : public testing::TestWithParam<int> {};

TEST_P(StopWatchNoClockRows, reportsAndStaysStopped) {
    Fault const reads(inject_clock_gettime, 0);
    Fault const fault(inject_clock_getcpuclockid, GetParam());
    ProcessTimeStopWatch const watch(getpid(), true);
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_EQ(GetParam(), errno);
    EXPECT_TRUE(
        chainIs({{Time::ErrorId::NO_CLOCK, rowText(Time::ErrorId::NO_CLOCK, systemText(GetParam()))}}));
    EXPECT_EQ(0, watch.peekRuntime(US));
    EXPECT_EQ(0, reads.getCalls());
}

INSTANTIATE_TEST_SUITE_P(All, StopWatchNoClockRows, testing::Values(ESRCH, EPERM, ENOSYS));

TEST(StopWatchNoClock, startFailsLikeAnyClockThatCannotBeRead) {
    Fault const fault(inject_clock_getcpuclockid, EPERM);
    ProcessTimeStopWatch watch(getpid(), false);
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(chainIs({{Time::ErrorId::NO_CLOCK}}));
    watch.start();
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(chainIs(
        {{Time::ErrorId::GET_TIME_FAILED, rowText(Time::ErrorId::GET_TIME_FAILED, systemText(EINVAL))}}));
    EXPECT_EQ(0, watch.peekRuntime(US));
}

} // namespace
