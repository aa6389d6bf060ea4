#include "KernelTimers.h"
#include "SignalsToMainThread.h"
#include "TimerSupport.h"
#include "frame/FakeClock.h"
#include "support/ErrnoRows.h"

#include <tarncommon/error/ErrorStorage.h>

/// What timers have armed, and when.

namespace {

using namespace support;
using vesk::Timer;

/// One step of a test: moves the clock, calls the timer, or rings the engine.
struct Step {
    enum Kind { AT, START, SNOOZE, STOP, RING };
    Kind kind;
    long long time = 0;
    bool periodic = false;
    int count = 0; ///< The calls so far, behind a ring.
    Spans armed = {};
};

Step const SNOOZE{Step::SNOOZE};
Step const STOP{Step::STOP};
Step at(long long time) {
    return {Step::AT, time};
}
Step start(unsigned int interval, bool periodic, Spans armed) {
    return {Step::START, interval, periodic, 0, std::move(armed)};
}
Step ring(long long time, int count, Spans armed = {}) {
    return {Step::RING, time, false, count, std::move(armed)};
}

/// The test sets the clock and rings the engine, and the kernel's timer is only recorded.
class TimerPeriod : public testing::Test {
protected:
    void setTime(long long since_start) {
        m_fake.set(
            5000 + static_cast<time_t>(since_start / 1000), static_cast<long>(since_start % 1000) * 1000000);
    }
    void ringAt(long long since_start) {
        setTime(since_start);
        vesk::Alarm::Timer::ring(m_engine.get());
    }
    /// Runs the steps. Checks what each of them has armed.
    void run(std::vector<Step> const& steps) {
        int number = 0;
        for (Step const& step : steps) {
            SCOPED_TRACE(++number);
            if (step.kind == Step::AT) {
                setTime(step.time);
            } else if (step.kind == Step::START) {
                EXPECT_EQ(step.time == 0, m_clock.start(static_cast<unsigned int>(step.time), step.periodic));
            } else if (step.kind == Step::RING) {
                ringAt(step.time);
                EXPECT_EQ(step.count, m_clock.count);
            } else {
                EXPECT_FALSE(step.kind == Step::STOP ? m_clock.stop() : m_clock.snooze());
            }
            EXPECT_EQ(step.armed, m_timers.take());
        }
        std::ErrorStorage::ack();
    }

    FakeClock m_fake{5000, 0};
    KernelTimers m_timers;
    std::SharedBase::Ptr<vesk::Alarm::DefaultTimer> m_engine{Timer::timer_low_prio};
    Clock m_clock;
};

struct Course {
    char const* name;
    std::vector<Step> steps;
    void (*action)(Clock&) = nullptr; ///< Of each call.
};

class TimerPeriodCourse : public TimerPeriod, public testing::WithParamInterface<Course> {};

TEST_P(TimerPeriodCourse, armsAndRings) {
    m_clock.action = GetParam().action;
    run(GetParam().steps);
}

Course const COURSES[] = {
    {"startArmsForTheInterval", {start(1500, false, {ms(1500)})}},
    {"startArmsForTheLongestInterval", {start(4294967295U, false, {ms(4294967295)})}},
    {"startWhileItRunsBeginsThePeriodAnewFromNow",
     {start(1000, false, {ms(1000)}), at(400), start(1000, false, {}), ring(1000, 0, {ms(400), ms(400)}),
      ring(1400, 1)}},
    {"snoozeOfARunningTimerPutsItOffWithoutASystemCall",
     {start(1000, false, {ms(1000)}), at(400), SNOOZE, ring(1000, 0, {ms(400)}), ring(1400, 1)}},
    {"stopMakesNoSystemCall", {start(1000, true, {ms(1000)}), STOP, ring(1000, 0)}},
    {"startWithZeroChangesNothing",
     {start(1000, false, {ms(1000)}), at(400), start(0, true, {}), ring(1000, 1)}},
    {"countsFromTheMomentOfTheExpiryAndSoDrifts",
     {start(1000, true, {ms(1000)}), ring(1030, 1, {ms(1000), ms(1000)}), ring(2029, 1, {ms(1), ms(1)}),
      ring(2045, 2, {ms(1000), ms(1000)}), ring(3044, 2, {ms(1), ms(1)}),
      ring(3045, 3, {ms(1000), ms(1000)})}},
    {"callbackThatStopsRemovesWhatWasJustArmed",
     {start(1000, true, {ms(1000)}), ring(1000, 1, {ms(1000)}), ring(1000000, 1)},
     [](Clock& clock) { clock.stop(); }},
};
INSTANTIATE_TEST_SUITE_P(All, TimerPeriodCourse, testing::ValuesIn(COURSES), RowName());

TEST_F(TimerPeriod, earlyRingDoesNotShortenAPeriodThatBeganWithinAMillisecond) {
    ASSERT_FALSE(m_clock.start(1000, false));
    m_fake.set(5000, 900000);
    ASSERT_FALSE(m_clock.start(1000, false));
    EXPECT_EQ(Spans{ms(1000)}, m_timers.take());
    ringAt(1000);
    EXPECT_EQ(0, m_clock.count);
    EXPECT_EQ((Spans{{0, 900000}, {0, 900000}}), m_timers.take());
    m_fake.set(5001, 900000);
    vesk::Alarm::Timer::ring(m_engine.get());
    EXPECT_EQ(1, m_clock.count);
}

TEST_F(TimerPeriod, isArmedBeforeTheCallbackRuns) {
    Spans before_callback;
    m_clock.action = [&](Clock&) {
        before_callback = m_timers.take();
        setTime(1300);
    };
    run({start(1000, true, {ms(1000)}), ring(1000, 1, {ms(1000)})});
    EXPECT_EQ(Spans{ms(1000)}, before_callback);
    m_clock.action = nullptr;
    run({ring(1999, 1, {ms(1), ms(1)}), ring(2000, 2, {ms(1000), ms(1000)})});
}

TEST_F(TimerPeriod, callbackCannotStopAnotherTimerThatIsDueWithIt) {
    // The one with the lower address is called first, and stops the other one.
    Clock other(false, [this](Clock&) { m_clock.stop(); });
    m_clock.action = [&other](Clock&) { other.stop(); };
    EXPECT_FALSE(m_clock.start(1000, true));
    EXPECT_FALSE(other.start(1000, true));
    ringAt(1000);
    EXPECT_EQ(1, m_clock.count);
    EXPECT_EQ(1, other.count);
    ringAt(2000);
    EXPECT_EQ(3, m_clock.count + other.count) << "the first one is stopped by the other, which runs on";
}

/// The kernel gets the arming of the start and the one before the callback, and no later one: only the signal that came
/// while the callback ran can bring the second call.
TEST(TimerOnItsThread, callbackThatTakesLongerThanTheIntervalIsFollowedAtOnceByTheNextCall) {
    KernelTimers timers(2);
    Clock clock(false, [](Clock& self) {
        if (self.count == 0) {
            pass(100);
        }
    });
    EXPECT_FALSE(clock.start(20, true));
    EXPECT_TRUE(eventually([&] { return clock.count == 2; }));
    clock.stop();
}

} // namespace
