#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/Processes.h"
#include "support/Testing.h"

#include <vesk/ProcessTimeStopWatch.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/ThreadTimeStopWatch.h>
#include <vesk/Time.h>

VESK_INJECT_RESULT(clock_getcpuclockid, (pid_t pid, clockid_t* clock), (pid, clock))

namespace {

using namespace support;
using namespace vesk;

constexpr auto MS = StopWatchBase::TimeUnit::MILLISECONDS;
constexpr auto US = StopWatchBase::TimeUnit::MICROSECONDS;

/// A stopwatch with a clock that the test sets.
class StopWatch : public testing::Test {
protected:
    void startAt(time_t seconds, long nanoseconds = 0) {
        m_clock.set(seconds, nanoseconds);
        m_watch.start();
    }
    void stopAt(time_t seconds, long nanoseconds = 0) {
        m_clock.set(seconds, nanoseconds);
        m_watch.stop();
    }
    FakeClock m_clock{100, 0};
    RealtimeStopWatch m_watch{false};
};

// ---- periods ----

/// Two periods, the second one perhaps empty, and the measured time.
struct Periods : NamedRow {
    time_t start;
    long start_ns;
    time_t end;
    long end_ns;
    time_t second;
    long second_ns;
    long long us;
    long long ms;
};

Periods const STOP_WATCH_PERIODS[] = {
    {"fromStartToStop", 100, 0, 103, 250000000, 0, 0, 3250000, 3250},
    {"roundedDown", 10, 0, 10, 1999999, 0, 0, 1999, 1},
    {"roundedDownAfterSeconds", 10, 0, 12, 345678901, 0, 0, 2345678, 2345},
    {"withACarryOfNanoseconds", 10, 0, 10, 600000000, 0, 600000000, 1200000, 1200},
    {"justBelowASecond", 10, 0, 10, 999999999, 0, 0, 999999, 999},
    {"withACarryAtAFullSecond", 10, 0, 10, 999999999, 0, 1, 1000000, 1000},
    {"acrossAFullSecond", 10, 900000000, 12, 100000000, 0, 0, 1200000, 1200},
    {"ofOneNanosecondToAFullSecond", 10, 999999999, 11, 0, 0, 0, 0, 0},
    {"acrossAFullSecondRoundedDown", 10, 999999999, 11, 999, 0, 0, 1, 0},
    {"belowTheWrapOfMilliseconds", 0, 0, 2147483, 0, 0, 0, 2147483000000, 2147483000},
    // Only the product has 32 bits: the milliseconds are added to it.
    {"belowTheWrapOfTheProduct", 0, 0, 2147483, 999999999, 0, 0, 2147483999999, 2147483999},
    {"afterTheWrapOfMilliseconds", 0, 0, 2147484, 0, 0, 0, 2147484000000, -2147483296},
    {"afterTheWrapWithAFraction", 0, 0, 2147484, 500000000, 0, 0, 2147484500000, -2147482796},
    {"afterTwoWraps", 0, 0, 4294968, 0, 0, 0, 4294968000000, 704},
    {"ofTheLargestTime", 0, 0, 2147483647, 0, 0, 0, 2147483647000000, -1000},
    {"withAWrapOfTheSumOfMilliseconds", 0, 0, 2000000, 0, 147484, 0, 2147484000000, -2147483296},
    {"withTheLargestSum", 0, 0, 2000000000, 0, 147483647, 999999999, 2147483647999999, -1},
    {"withAWrapOfTheSum", 0, 0, 2000000000, 1, 147483647, 999999999, -2147483648000000, 0}};

VESK_TEST_TABLE(StopWatchPeriods, areAdded, StopWatch, STOP_WATCH_PERIODS) {
    Periods const& row = GetParam();
    startAt(row.start, row.start_ns);
    m_clock.set(row.end, row.end_ns);
    if (row.second == 0 && row.second_ns == 0) {
        EXPECT_EQ(row.us, m_watch.peekRuntime(US));
        EXPECT_EQ(row.ms, m_watch.peekRuntime(MS));
    }
    m_watch.stop();
    startAt(0);
    stopAt(row.second, row.second_ns);
    m_clock.set(200, 0);
    EXPECT_EQ(row.us, m_watch.getStoppedTime(US));
    EXPECT_EQ(row.ms, m_watch.getStoppedTime(MS));
    EXPECT_EQ(row.us, m_watch.getElapsedTime(US));
    EXPECT_EQ(row.ms, m_watch.getElapsedTime(MS));
    EXPECT_EQ(0, m_watch.peekRuntime(MS));
    EXPECT_TRUE(chainIs({}));
}

/// Operations of a stopwatch with their results in milliseconds, or "us" for the elapsed microseconds.
/// "@1500" sets the clock to 1500 ms, "fail:" makes an operation fail to read the clock, "!" behind it says
/// that its failure flag is set.
struct Sequence : NamedRow {
    char const* operations;
};

class StopWatchSequences : public StopWatch, public testing::WithParamInterface<std::tuple<Sequence, int>> {
protected:
    std::string perform(std::string const& operation) {
        if (operation == "start") {
            m_watch.start();
        } else if (operation == "stop") {
            m_watch.stop();
        } else if (operation == "reset") {
            m_watch.reset();
        } else {
            auto const& watch = m_watch;
            long long const time = operation == "peek" ? watch.peekRuntime(MS)
                : operation == "stopped"               ? watch.getStoppedTime(MS)
                                                       : watch.getElapsedTime(operation == "us" ? US : MS);
            return operation + "=" + std::to_string(time);
        }
        return operation;
    }
};

TEST_P(StopWatchSequences, haveTheirResults) {
    auto const& [row, error] = GetParam();
    std::istringstream words(row.operations);
    std::string seen;
    for (std::string word; words >> word;) {
        bool const fails = word.find("fail:") == 0;
        std::string const operation = word.substr(fails ? 5 : 0, word.find_first_of("=!") - (fails ? 5 : 0));
        if (operation[0] == '@') {
            long long const ms = std::stoll(operation.substr(1));
            m_clock.set(static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000));
            seen += word + " ";
            continue;
        }
        leaveOlderReport();
        Fault const fault(inject_clock_gettime, fails ? error : 0);
        seen += (fails ? "fail:" : "") + perform(operation);
        seen += m_watch.hasFailed() ? "! " : " ";
        EXPECT_TRUE(fails ? causeIs(Time::ErrorId::GET_TIME_FAILED, error) : onlyOlderIsPending()) << word;
    }
    EXPECT_EQ(std::string(row.operations) + " ", seen);
}

Sequence const SEQUENCES[] = {
    {"isStoppedAndEmptyAtFirst", "stopped=0 peek=0 us=0"},
    {"startingTwiceKeepsTheFirstStart", "@100 start @1100 start peek=1000 @5100 stop stopped=5000"},
    {"stoppingWithoutAStartAddsNothing", "@1000 start @3000 stop @9000 stop stopped=2000"},
    {"resetWhileRunningKeepsThePeriodOpen",
     "@1000 start @8000 stop @20000 start @21000 reset stopped=0 peek=1000 @24000 peek=4000 stop "
     "stopped=4000"},
    {"resetWhileStoppedForgetsEverything",
     "@1000 start @8500 stop reset us=0 @20000 start @21000 stop us=1000000"},
    {"elapsedTimeOfARunningOneIsTheSum",
     "@1000 start @3000 stop @30000 start @31500 stopped=2000 peek=1500 elapsed=3500 us=3500000"},
    {"elapsedTimeOfARunningOneWrapsLikeTheStoppedTime",
     "@0 start @2147484000 stop @0 start @1000 elapsed=-2147482296 us=2147485000000"},
    {"failureIsForgottenByAStartThatDoesNothing", "@100 start fail:peek=0! reset! start"},
    {"failureIsForgottenByAStop", "@100 start fail:peek=0! stop"},
    {"failureIsForgottenByAStopThatDoesNothing", "@100 fail:start! stop"},
    {"failureIsForgottenByAPeekThatDoesNothing", "@100 fail:start! peek=0"},
    {"failureOfStartLeavesThePeriodClosed",
     "fail:start! @2000 stop elapsed=0 @10000 start @11000 stop stopped=1000"},
    {"failureOfStopLeavesThePeriodOpen", "@1000 start @3000 fail:stop! stopped=0! @6000 stop stopped=5000"},
    {"failureOfPeekReturnsZeroAndLeavesThePeriodOpen", "@1000 start @3000 fail:peek=0! peek=2000"},
    {"failureOfElapsedTimeReturnsTheStoppedTime",
     "@1000 start @4000 stop @5000 start @7000 fail:elapsed=3000!"},
};

INSTANTIATE_TEST_SUITE_P(
    All, StopWatchSequences,
    testing::Combine(testing::ValuesIn(SEQUENCES), testing::Values(EINVAL, EPERM, EFAULT, ENOSYS)),
    [](auto const& row) {
        return std::string(std::get<0>(row.param).what) + std::to_string(std::get<1>(row.param));
    });

TEST_F(StopWatch, readsTheClockOnlyAfterAStartWhichIsItsOwnIfRequested) {
    RealtimeStopWatch const watch(true);
    m_clock.set(107, 0);
    EXPECT_EQ(7000, watch.peekRuntime(MS));
    Fault const reads(inject_clock_gettime, EINVAL);
    m_watch.stop();
    EXPECT_EQ(0, m_watch.peekRuntime(MS));
    EXPECT_EQ(0, m_watch.getElapsedTime(US));
    EXPECT_FALSE(m_watch.hasFailed());
    EXPECT_EQ(0, reads.getCalls());
}

static_assert(!std::is_polymorphic_v<RealtimeStopWatch> && !std::is_polymorphic_v<ProcessTimeStopWatch>);
static_assert(static_cast<int>(MS) == 0 && static_cast<int>(US) == 1);

TEST_F(StopWatch, isAPlainValueAndAnyOtherUnitIsMicroseconds) {
    startAt(100);
    RealtimeStopWatch const copy = m_watch;
    stopAt(101);
    m_clock.set(102, 0);
    EXPECT_EQ(2000, copy.peekRuntime(MS));
    for (int const unit : {7, -1}) {
        EXPECT_EQ(1000000, m_watch.getStoppedTime(static_cast<StopWatchBase::TimeUnit>(unit)));
    }
}

// ---- a clock that goes backwards ----

TEST_F(StopWatch, clockThatGoesBackIsAnAssertionUnlessWithinItsSecondAndTheDifferenceIsNegative) {
    EventRecorder const recorder;
    startAt(10, 500000000);
    m_clock.set(10, 400000000);
    EXPECT_EQ(-100, m_watch.peekRuntime(MS));
    EXPECT_EQ(0u, recorder.getCount());
    m_clock.set(8, 200000000);
    EXPECT_EQ(-2300, m_watch.peekRuntime(MS));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/StopWatchBase calcDiffTime: end.tv_sec >= start.tv_sec",
        recorder.getText());
    m_watch.stop();
    EXPECT_EQ(2u, recorder.getCount());
    EXPECT_EQ(-2300, m_watch.getStoppedTime(MS));
    EXPECT_FALSE(m_watch.hasFailed());
    startAt(10);
    stopAt(13);
    EXPECT_EQ(700, m_watch.getStoppedTime(MS));
}

// ---- a clock that cannot be read ----

TEST(StopWatchFailure, ofAutoStartLeavesThePeriodClosed) {
    for (int const error : {EINVAL, EPERM, EFAULT, ENOSYS}) {
        Fault const fault(inject_clock_gettime, error);
        RealtimeStopWatch const watch(true);
        EXPECT_TRUE(watch.hasFailed());
        EXPECT_TRUE(causeIs(Time::ErrorId::GET_TIME_FAILED, error));
        EXPECT_EQ(0, watch.peekRuntime(MS));
        EXPECT_EQ(1, fault.getCalls());
    }
}

// ---- the clocks ----

template <typename Watch>
clockid_t clockOf() {
    FakeClock const clock(1, 0);
    Watch const watch(true);
    return clock.getClock();
}

TEST(StopWatchClock, ofEachKindIsReadAtTheStart) {
    EXPECT_EQ(CLOCK_MONOTONIC, clockOf<RealtimeStopWatch>());
    EXPECT_EQ(CLOCK_THREAD_CPUTIME_ID, clockOf<ThreadTimeStopWatch>());
    EXPECT_EQ(CLOCK_PROCESS_CPUTIME_ID, clockOf<ProcessTimeStopWatch>());
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
    // Without the sleep, apart from the system's own work for it.
    EXPECT_LE(0, thread.getStoppedTime(US));
    EXPECT_GE(realtime.getStoppedTime(US) - 40000, thread.getStoppedTime(US));
}

/// Keeps the processor busy for some processor time.
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

TEST(StopWatchClock, ofThisProcessByItsIdIsThatOfTheProcess) {
    ProcessTimeStopWatch by_id(getpid(), true);
    ProcessTimeStopWatch by_zero(0, true);
    burn(5000);
    by_zero.stop();
    by_id.stop();
    EXPECT_LE(5000, by_zero.getStoppedTime(US));
    EXPECT_LE(by_zero.getStoppedTime(US), by_id.getStoppedTime(US));
}

/// A child process that keeps the processor busy until its end.
struct BusyChild : Process {
    BusyChild()
        : Process([] {
              for (std::atomic<int> i{0};;) {
                  ++i;
              }
          }) {}
};

TEST(StopWatchClock, measuresAnotherProcessAndCannotBeReadAfterTheEndOfThat) {
    BusyChild child;
    pid_t const pid = child.getId();
    ProcessTimeStopWatch watch(pid, true);
    ASSERT_FALSE(watch.hasFailed());
    EXPECT_TRUE(eventually([&watch] { return watch.peekRuntime(US) >= 10000; }));
    watch.stop();
    EXPECT_LE(10000, watch.getStoppedTime(US));
    EXPECT_FALSE(watch.hasFailed());
    watch.start();
    ASSERT_FALSE(watch.hasFailed());
    child.kill();
    watch.stop();
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(causeIs(Time::ErrorId::GET_TIME_FAILED, EINVAL));
    leaveOlderReport();
    ProcessTimeStopWatch of_none(pid, true);
    EXPECT_TRUE(of_none.hasFailed());
    EXPECT_TRUE(causeIs(Time::ErrorId::NO_CLOCK, ESRCH));
    of_none.stop();
    EXPECT_EQ(0, of_none.getElapsedTime(US));
    EXPECT_FALSE(of_none.hasFailed());
}

// ---- a process without a clock ----

TEST(StopWatchNoClock, isReportedAndTheWatchStaysStopped) {
    for (int const error : {ESRCH, EPERM, ENOSYS}) {
        Fault const reads(inject_clock_gettime, 0);
        Fault const fault(inject_clock_getcpuclockid, error);
        ProcessTimeStopWatch const watch(getpid(), true);
        EXPECT_TRUE(watch.hasFailed());
        EXPECT_EQ(error, errno);
        EXPECT_TRUE(causeIs(Time::ErrorId::NO_CLOCK, error));
        EXPECT_EQ(0, watch.peekRuntime(US));
        EXPECT_EQ(0, reads.getCalls());
    }
}

TEST(StopWatchNoClock, startFailsAsWithAnyUnreadableClock) {
    Fault const fault(inject_clock_getcpuclockid, EPERM);
    ProcessTimeStopWatch watch(getpid(), false);
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(causeIs(Time::ErrorId::NO_CLOCK, EPERM));
    watch.start();
    EXPECT_TRUE(watch.hasFailed());
    EXPECT_TRUE(causeIs(Time::ErrorId::GET_TIME_FAILED, EINVAL));
    EXPECT_EQ(0, watch.peekRuntime(US));
}

} // namespace
