#include "KernelTimers.h"
#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "frame/FakeClock.h"

#include <vesk/Timer.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <pthread.h>
#include <utility>

/// What timers have armed, and when.

namespace {

using support::eventually;
using support::FakeClock;
using support::KernelTimers;
using support::ms;
using support::Spans;
using vesk::Timer;

class Clock : public Timer {
public:
    explicit Clock(std::function<void(Clock&)> then = nullptr)
        : Timer(tick, false), action(std::move(then)) {}
    ~Clock() override { stop(); }

    std::atomic<int> count{0};
    std::function<void(Clock&)> action;

private:
    static void tick(Timer* timer) {
        Clock& self = *static_cast<Clock*>(timer);
        if (self.action) {
            self.action(self);
        }
        ++self.count;
    }
};

/// The clock is the test's and the kernel's timer is only recorded: the test rings the engine.
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

    FakeClock m_fake{5000, 0};
    KernelTimers m_timers;
    std::SharedBase::Ptr<vesk::Alarm::DefaultTimer> m_engine{Timer::timer_low_prio};
    Clock m_clock;
};

TEST_F(TimerPeriod, startArmsForTheInterval) {
    EXPECT_FALSE(m_clock.start(1500, false));
    EXPECT_EQ(Spans{ms(1500)}, m_timers.take());
    EXPECT_FALSE(m_clock.start(4294967295U, false));
    EXPECT_EQ(Spans{ms(4294967295)}, m_timers.take());
}

TEST_F(TimerPeriod, startWhileItRunsBeginsThePeriodAnewFromNow) {
    EXPECT_FALSE(m_clock.start(1000, false));
    setTime(400);
    EXPECT_FALSE(m_clock.start(1000, false));
    EXPECT_EQ((Spans{ms(1000), ms(1000)}), m_timers.take());
    ringAt(1000);
    EXPECT_EQ(0, m_clock.count);
    ringAt(1400);
    EXPECT_EQ(1, m_clock.count);
}

TEST_F(TimerPeriod, snoozeOfARunningTimerPutsItOffWithoutASystemCall) {
    EXPECT_FALSE(m_clock.start(1000, false));
    m_timers.take();
    setTime(400);
    EXPECT_FALSE(m_clock.snooze());
    EXPECT_EQ(Spans(), m_timers.take());
    ringAt(1000);
    EXPECT_EQ(0, m_clock.count);
    ringAt(1400);
    EXPECT_EQ(1, m_clock.count);
}

TEST_F(TimerPeriod, stopMakesNoSystemCall) {
    EXPECT_FALSE(m_clock.start(1000, true));
    m_timers.take();
    EXPECT_FALSE(m_clock.stop());
    ringAt(1000);
    EXPECT_EQ(0, m_clock.count);
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(TimerPeriod, startWithZeroTouchesNothing) {
    EXPECT_FALSE(m_clock.start(1000, false));
    m_timers.take();
    setTime(400);
    EXPECT_TRUE(m_clock.start(0, true));
    std::ErrorStorage::ack();
    EXPECT_EQ(Spans(), m_timers.take());
    ringAt(1000);
    EXPECT_EQ(1, m_clock.count);
}

TEST_F(TimerPeriod, countsFromTheMomentOfTheExpiryAndSoDrifts) {
    EXPECT_FALSE(m_clock.start(1000, true));
    ringAt(1030);
    EXPECT_EQ(1, m_clock.count);
    ringAt(2029);
    EXPECT_EQ(1, m_clock.count);
    ringAt(2045);
    EXPECT_EQ(2, m_clock.count);
    ringAt(3044);
    EXPECT_EQ(2, m_clock.count);
    ringAt(3045);
    EXPECT_EQ(3, m_clock.count);
}

TEST_F(TimerPeriod, isArmedBeforeTheCallbackRuns) {
    Spans before_callback;
    m_clock.action = [&](Clock&) {
        before_callback = m_timers.take();
        setTime(1300);
    };
    EXPECT_FALSE(m_clock.start(1000, true));
    m_timers.take();
    ringAt(1000);
    EXPECT_EQ(Spans{ms(1000)}, before_callback);
    EXPECT_EQ(Spans{ms(1000)}, m_timers.take());
    m_clock.action = nullptr;
    ringAt(1999);
    EXPECT_EQ(1, m_clock.count);
    ringAt(2000);
    EXPECT_EQ(2, m_clock.count);
}

TEST_F(TimerPeriod, aCallbackThatStopsRemovesWhatWasJustArmed) {
    m_clock.action = [](Clock& self) { self.stop(); };
    EXPECT_FALSE(m_clock.start(1000, true));
    ringAt(1000);
    EXPECT_EQ(1, m_clock.count);
    m_timers.take();
    ringAt(1000000);
    EXPECT_EQ(1, m_clock.count);
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(TimerPeriod, aCallbackCannotStopAnotherTimerThatIsDueWithIt) {
    // Whichever has the lower address is called first, and stops the other one.
    Clock other([this](Clock&) { m_clock.stop(); });
    m_clock.action = [&other](Clock&) { other.stop(); };
    EXPECT_FALSE(m_clock.start(1000, true));
    EXPECT_FALSE(other.start(1000, true));
    ringAt(1000);
    EXPECT_EQ(1, m_clock.count);
    EXPECT_EQ(1, other.count);
    ringAt(2000);
    EXPECT_EQ(3, m_clock.count + other.count) << "the first one is stopped by the other, which goes on";
}

/// The kernel gets the arming of the start and the one before the callback, and no later one: only the signal that came
/// while the callback ran can bring the second call.
TEST(TimerOnItsThread, aCallbackThatTakesLongerThanTheIntervalIsFollowedAtOnceByTheNextCall) {
    KernelTimers timers(2);
    {
        Clock clock([](Clock& self) {
            if (self.count == 0) {
                long long const end = tarnbase::TimePoint::now().getCount() + 100;
                EXPECT_TRUE(eventually([&] { return tarnbase::TimePoint::now().getCount() > end; }));
            }
        });
        EXPECT_FALSE(clock.start(20, true));
        EXPECT_TRUE(eventually([&] { return clock.count == 2; }));
    }
}

} // namespace
