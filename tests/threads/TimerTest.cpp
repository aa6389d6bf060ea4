#include "KernelTimers.h"
#include "SignalsToMainThread.h"
#include "TimerSupport.h"
#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/Processes.h"

#include <vesk/Vesk.h>

namespace {

using namespace support;
using tarnbase::TimePoint;
using vesk::Timer;

constexpr unsigned int AN_HOUR = 3600000;
constexpr bool ONCE = false;
constexpr bool PERIODIC = true;

static_assert(std::has_virtual_destructor_v<Timer>);
static_assert(std::is_base_of_v<tarnbase::NonCopyable, Timer>);
static_assert(!std::is_copy_constructible_v<Timer> && !std::is_copy_assignable_v<Timer>);
static_assert(std::is_base_of_v<vesk::Alarm::Timer, Timer::HighPrioTimer>);
static_assert(std::is_same_v<decltype(Timer::timer_high_prio), std::Shared<Timer::HighPrioTimer>>);
static_assert(std::is_same_v<decltype(Timer::timer_low_prio), std::Shared<vesk::Alarm::DefaultTimer>&>);

/// Waits until another timer has expired. An earlier timer for the same time or before has expired by then.
void letPass(unsigned int ms, bool high_priority = false) {
    Clock other(high_priority);
    EXPECT_FALSE(other.start(ms, false));
    EXPECT_TRUE(other.waitFor(1));
}

// ---- what timers do step by step ----

/// One step of a timer of high or low priority.
using Step = std::function<void(Clock&, bool)>;

/// Checks the interval and the kind.
Step has(unsigned int interval, bool periodic) {
    return [=](Clock& clock, bool) {
        EXPECT_EQ(interval, clock.getInterval());
        EXPECT_EQ(periodic, clock.isPeriodic());
    };
}
Step start(unsigned int interval, bool periodic) {
    return [=](Clock& clock, bool high) {
        EXPECT_FALSE(clock.start(interval, periodic));
        has(interval, periodic)(clock, high);
    };
}
Step failToStart(bool periodic) {
    return [=](Clock& clock, bool) {
        leaveOlderReport();
        EXPECT_TRUE(clock.start(0, periodic));
        auto const id = std::CommonErrorId::CONTRACT_BROKEN;
        EXPECT_TRUE(chainIs({{id, "Contract broken by the caller: zero tick interval specified"}}));
    };
}
/// Waits until the timer has made this number of calls, and checks that no further one follows.
Step rings(int calls) {
    return [=](Clock& clock, bool high) {
        EXPECT_TRUE(clock.waitFor(calls));
        letPass(10, high);
        EXPECT_EQ(calls, clock.count);
    };
}
Step const START_FIXED_RATE = [](Clock& clock, bool) { EXPECT_FALSE(clock.startFixedRate(2)); };
Step const STOP = [](Clock& clock, bool) { EXPECT_FALSE(clock.stop()); };
Step const SNOOZE = [](Clock& clock, bool) { EXPECT_FALSE(clock.snooze()); };
Step const GO_ON = [](Clock& clock, bool) { EXPECT_TRUE(clock.waitFor(clock.count + 5)); };
/// The call that the engine makes. Begins the next period of a periodic timer.
Step const EXPIRE = [](Clock& clock, bool) { Timer::procedure(static_cast<Timer*>(&clock)); };

struct Course {
    char const* name;
    std::vector<Step> steps;
    Clock::Action action = nullptr; ///< Of each call.
};

Course const COURSES[] = {
    {"standsStillAtFirst", {has(0, ONCE), rings(0)}},
    {"oneShotTimerRingsOnce", {start(3, ONCE), rings(1), has(3, ONCE)}},
    {"startWithZeroFailsAndARunningTimerKeepsRunning",
     {start(2, PERIODIC), failToStart(ONCE), has(2, PERIODIC), GO_ON}},
    {"startWithZeroLeavesAStoppedTimerStopped", {failToStart(PERIODIC), has(0, ONCE), rings(0)}},
    {"stoppingAStoppedTimerSucceedsAndDoesNothing", {STOP, STOP, start(1, ONCE), rings(1), STOP}},
    {"stopKeepsTheIntervalAndTheKind", {start(AN_HOUR, PERIODIC), STOP, has(AN_HOUR, PERIODIC)}},
    {"startWhileItRunsTakesTheNewIntervalAndKind",
     {start(AN_HOUR, PERIODIC), start(2, ONCE), rings(1), has(2, ONCE)}},
    {"snoozeFromTheCallbackOfAOneShotTimerLeadsToOneMoreCall",
     {start(2, ONCE), rings(2)},
     [](Clock& clock) { EXPECT_FALSE(clock.count == 0 && clock.snooze()); }},
    {"snoozeOnAStoppedTimerStartsOneMorePeriod",
     {start(2, ONCE), rings(1), SNOOZE, rings(2), STOP, SNOOZE, rings(3)}},
    {"snoozeOnATimerThatWasNeverStartedRingsOnceAtOnce", {SNOOZE, rings(1)}},
    {"periodicTimerThatIsSnoozedAfterAStopGoesOn", {start(1, PERIODIC), GO_ON, STOP, SNOOZE, GO_ON}},
    {"periodicTimerThatItsCallbackStopsHasNoFurtherExpiry",
     {start(2, PERIODIC), rings(1)},
     [](Clock& clock) { EXPECT_FALSE(clock.stop()); }},
    {"callbackMayStartItsTimerAnew",
     {start(2, PERIODIC), rings(4)},
     [](Clock& clock) { EXPECT_FALSE(clock.count == 2 && clock.start(1, ONCE)); }},
    {"fixedRateIsAKindOfPeriodicTimer",
     {start(AN_HOUR, ONCE), START_FIXED_RATE, has(2, PERIODIC), GO_ON, STOP, SNOOZE, GO_ON, EXPIRE, GO_ON}},
    {"procedureIsTheCallOfTheEngine", {EXPIRE, rings(1), start(1, PERIODIC), STOP, EXPIRE, GO_ON}},
};

VESK_TEST_TABLE(TimerCourse, makesItsCalls, testing::Test, COURSES) {
    for (bool const high : {false, true}) {
        Clock clock(high, GetParam().action);
        for (Step const& step : GetParam().steps) {
            step(clock, high);
        }
    }
}

// ---- threads and signals ----

class TimerOfPriority : public testing::TestWithParam<bool> {};

TEST_P(TimerOfPriority, periodicTimerGoesOnOnTheThreadOfItsPriority) {
    Clock clock(GetParam());
    long long const before = TimePoint::now().getCount();
    EXPECT_FALSE(clock.start(4, true));
    ASSERT_TRUE(clock.waitFor(10));
    EXPECT_LE(40, TimePoint::now().getCount() - before);
    EXPECT_FALSE(clock.stop());
    EXPECT_EQ(GetParam() ? "HighPrioTimer" : "Timer", clock.thread_name);
}

TEST_P(TimerOfPriority, itsThreadIsScheduledAsTheOneThatStartedTheLibrary) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(5, 7, 5);
    expectInChild([] {
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 5));
        vesk::Vesk const vesk(true, false);
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 7));
        Clock clock(GetParam());
        EXPECT_FALSE(clock.start(1, false));
        EXPECT_TRUE(clock.waitFor(1));
        clock.stop();
        EXPECT_EQ(5, clock.nice);
    });
}

INSTANTIATE_TEST_SUITE_P(All, TimerOfPriority, testing::Bool(), [](auto const& tested) {
    return tested.param ? "high" : "low";
});

TEST(Timer, aStoppedTimerIsSilent) {
    Clock clock;
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(clock.start(1, true));
        EXPECT_FALSE(clock.stop());
        int const before = clock.count;
        letPass(2);
        ASSERT_EQ(before, clock.count);
    }
}

TEST(Timer, aCallbackMayStartAndStopOtherTimers) {
    Clock started;
    Clock stopped;
    Clock clock(false, [&](Clock&) {
        EXPECT_FALSE(started.start(1, false));
        EXPECT_FALSE(stopped.stop());
    });
    EXPECT_FALSE(stopped.start(AN_HOUR, false));
    EXPECT_FALSE(clock.start(1, false));
    EXPECT_TRUE(started.waitFor(1));
    EXPECT_EQ(0, stopped.count);
}

TEST(Timer, aCallbackMayDestroyItsOwnTimerWhileThereAreOthers) {
    Clock const other;
    Event gone;
    struct SelfDestroying : Timer {
        explicit SelfDestroying(Event& event) : Timer(end, false), after(event) {}
        static void end(Timer* timer) {
            Event& after = static_cast<SelfDestroying*>(timer)->after;
            delete timer;
            after.set();
        }
        Event& after;
    };
    SelfDestroying* const object = new SelfDestroying(gone);
    EXPECT_FALSE(object->start(1, true));
    EXPECT_TRUE(gone.wait());
    letPass(3);
}

TEST(Timer, callbacksOfOnePriorityRunOneAfterTheOther) {
    int inside = 0;   // No atomics: they would
    int together = 0; // hide what is looked for.
    auto const action = [&](Clock&) {
        together += inside++;
        sched_yield();
        --inside;
    };
    std::vector<std::unique_ptr<Clock>> clocks;
    for (int i = 0; i < 8; ++i) {
        clocks.push_back(std::make_unique<Clock>(false, action));
        EXPECT_FALSE(clocks.back()->start(1, true));
    }
    for (auto const& clock : clocks) {
        EXPECT_TRUE(clock->waitFor(10));
    }
    clocks.clear();
    EXPECT_EQ(0, together);
}

// ---- what timers and alarms have in common ----

struct LowTimer : Clock {
    explicit LowTimer(Action then = nullptr) : Clock(false, std::move(then)) {}
    static constexpr int SIGNAL = 3; ///< From SIGRTMIN on.
    static constexpr char const* THREAD = "Timer";
};
struct HighTimer : Clock {
    explicit HighTimer(Action then = nullptr) : Clock(true, std::move(then)) {}
    static constexpr int SIGNAL = 2;
    static constexpr char const* THREAD = "HighPrioTimer";
};
struct DefaultAlarm : TestAlarm {
    explicit DefaultAlarm(Action then = nullptr)
        : TestAlarm(EnginePtr(vesk::Alarm::DEFAULT_TIMER), std::move(then)) {}
    static constexpr int SIGNAL = 3;
    static constexpr char const* THREAD = "Timer";
};

void startOnce(Clock& clock, unsigned int ms) {
    EXPECT_FALSE(clock.start(ms, false));
}
void startOnce(TestAlarm& alarm, unsigned int ms) {
    alarm.start(ms);
}

template <typename T>
class TimersAndAlarms : public testing::Test {};
using AllKinds = testing::Types<LowTimer, HighTimer, DefaultAlarm>;
TYPED_TEST_SUITE(TimersAndAlarms, AllKinds, TypeName);

TYPED_TEST(TimersAndAlarms, theLastOneEndsTheThreadAndANewOneStartsANewOne) {
    for (int i = 0; i < 3; ++i) {
        {
            TypeParam const first;
            EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
            {
                TypeParam second;
                startOnce(second, AN_HOUR);
                EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
            }
            EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
        }
        EXPECT_TRUE(hasThreads(g_threads_at_start));
    }
    TypeParam next;
    startOnce(next, 1);
    EXPECT_TRUE(next.waitFor(1));
    EXPECT_EQ(TypeParam::THREAD, next.thread_name);
}

TYPED_TEST(TimersAndAlarms, haveTheirSignalWhileThereAreSome) {
    struct sigaction action {};
    {
        TypeParam const one;
        sigaction(SIGRTMIN + TypeParam::SIGNAL, nullptr, &action);
        EXPECT_EQ(vesk::SignalCatcherImpl::enqueue_signal, action.sa_handler);
    }
    sigaction(SIGRTMIN + TypeParam::SIGNAL, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TYPED_TEST(TimersAndAlarms, stopAndTheDestructorWaitForACallbackThatIsRunning) {
    for (bool const destroy : {false, true}) {
        Lingering lingering;
        auto one = std::make_unique<TypeParam>(std::ref(lingering));
        startOnce(*one, 1);
        ASSERT_TRUE(lingering.entered.wait());
        std::atomic<bool> done{false};
        std::thread other([&] {
            if (destroy) {
                one.reset();
            } else {
                one->stop();
            }
            EXPECT_TRUE(lingering.left);
            done = true;
        });
        for (int i = 0; i < 1000; ++i) {
            sched_yield();
            ASSERT_FALSE(done);
        }
        lingering.leave.set();
        other.join();
    }
}

TYPED_TEST(TimersAndAlarms, slowCallbackDelaysItsEngineAndNotTheOther) {
    using Other = std::conditional_t<std::is_same_v<TypeParam, HighTimer>, LowTimer, HighTimer>;
    Lingering lingering;
    TypeParam slow(std::ref(lingering));
    TypeParam delayed([](auto& self) { startOnce(self, 150); });
    Other other([](auto& self) { startOnce(self, 1); });
    startOnce(delayed, 150);
    startOnce(slow, 1);
    ASSERT_TRUE(lingering.entered.wait());
    int const before = delayed.count;
    startOnce(other, 1);
    EXPECT_TRUE(other.waitFor(20));
    pass(300);
    EXPECT_EQ(before, delayed.count);
    lingering.leave.set();
    EXPECT_TRUE(delayed.waitFor(before + 1));
    other.stop();
    EXPECT_EQ(Other::THREAD, other.thread_name);
}

// ---- a busy engine ----

/// A call that needs the engine while a callback runs, made by several threads at once.
struct WaitingCall {
    char const* name;
    size_t threads;
    void (*call)(std::unique_ptr<Clock>& own);
};

WaitingCall const WAITING_CALLS[] = {
    {"stop", 1, [](std::unique_ptr<Clock>& own) { own->stop(); }},
    {"start", 1, [](std::unique_ptr<Clock>& own) { own->start(AN_HOUR, true); }},
    {"destroy", 1, [](std::unique_ptr<Clock>& own) { own.reset(); }},
    {"snoozeOfMany", 6, [](std::unique_ptr<Clock>& own) { own->snooze(); }}};

VESK_TEST_TABLE(TimerOfBusyEngine, isServedBeforeTheEngineGoesOn, testing::Test, WAITING_CALLS) {
    size_t const count = GetParam().threads;
    std::vector<std::atomic<pid_t>> ids(count);
    std::vector<std::atomic<int>> seen_asleep(count); // In which callback last.
    std::vector<int> most_begun(count);
    std::atomic<int> begun{0};
    Event everyone;
    // Each callback outlasts the interval, and ends when all threads wait for it.
    Clock busy(false, [&](Clock&) {
        ++begun;
        EXPECT_TRUE(everyone.wait());
        for (size_t i = 0; i < count; ++i) {
            waitUntilAsleep(getpid(), ids[i]);
            seen_asleep[i] = begun.load();
        }
        timespec const longer_than_the_interval{0, 3000000};
        nanosleep(&longer_than_the_interval, nullptr);
    });
    ids[0] = getThreadId();
    EXPECT_FALSE(busy.start(1, true));
    auto const callAgainAndAgain = [&](size_t i) {
        ids[i] = getThreadId();
        auto own = std::make_unique<Clock>();
        for (int round = 0; round < 30; ++round) {
            // A callback that waits for this thread; not in sleep, which is taken for waiting for the engine.
            while (begun == seen_asleep[i]) {
                sched_yield();
            }
            int const before = begun;
            GetParam().call(own);
            most_begun[i] = std::max(most_begun[i], begun - before);
            if (own == nullptr) {
                own = std::make_unique<Clock>();
            }
        }
    };
    std::vector<std::thread> threads;
    for (size_t i = 1; i < count; ++i) {
        threads.emplace_back(callAgainAndAgain, i);
        EXPECT_TRUE(eventually([&] { return ids[i] != 0; }));
    }
    everyone.set();
    // The main thread handles the engine's signal, which takes it away from the lock for which it waits.
    callAgainAndAgain(0);
    for (std::thread& thread : threads) {
        thread.join();
    }
    int const before = begun;
    busy.stop();
    EXPECT_GE(1, begun - before);
    // One callback may begin between two steps of a call, and one before they are counted.
    EXPECT_GE(2, *std::max_element(most_begun.begin(), most_begun.end()));
}

VESK_TEST_BY(expectInChild, Timer, callbacksOfBothPrioritiesMayStopAndStartEachOthersTimers) {
    Clock* clocks[2] = {};
    Event entered[2];
    std::atomic<bool> over{false};
    auto const stopOther = [&](Clock& self) {
        size_t const own = &self == clocks[0] ? 0 : 1;
        entered[own].set();
        if (self.count == 0) {
            EXPECT_TRUE(entered[1 - own].wait());
        }
        EXPECT_FALSE(clocks[1 - own]->stop());
        EXPECT_FALSE(!over && clocks[1 - own]->start(1, true));
    };
    Clock low(false, stopOther);
    Clock high(true, stopOther);
    clocks[0] = &low;
    clocks[1] = &high;
    EXPECT_FALSE(low.start(1, true));
    EXPECT_FALSE(high.start(1, true));
    EXPECT_TRUE(eventually([&] {
        unblockSignals(); // Only the thread sanitizer needs it.
        return low.count >= 300 && high.count >= 300;
    }));
    over = true;
    low.stop();
    high.stop();
    low.stop(); // A callback of the other one may have started it again.
}

TEST(Timer, anAlarmAndAnOrdinaryTimerShareTheEngineAndItsThread) {
    EXPECT_EQ(&vesk::Alarm::DEFAULT_TIMER, &Timer::timer_low_prio);
    Clock const clock;
    DefaultAlarm const alarm;
    EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
}

TEST(TimerError, hasItsTexts) {
    expectRows(
        Timer::Error,
        {"Failed to create timer: %s", "Failed to start timer: %s", "Failed to stop timer: %s",
         "Failed to snooze timer: %s"},
        1);
}

TEST(Timer, manyThreadsUseTimersOfTheirOwn) {
    runThreads(4, [](int t) {
        for (unsigned int i = 0; i < 100; ++i) {
            Clock clock(t % 2 == 0);
            EXPECT_FALSE(clock.start(1 + i % 3, i % 2 == 0));
            if (i % 4 == 0) {
                EXPECT_TRUE(clock.waitFor(1));
            }
            EXPECT_FALSE(clock.snooze());
            EXPECT_FALSE(clock.stop());
            int const count = clock.count;
            sched_yield();
            EXPECT_EQ(count, clock.count);
        }
    });
}

// ---- what timers have armed, and when ----

class TimerPeriod;

/// One step of a test, and what it arms.
struct PeriodStep {
    std::function<void(TimerPeriod&)> run;
    Spans armed = {};
};

/// The test sets the clock and rings the engine, and the kernel's timer is only recorded.
class TimerPeriod : public testing::Test {
public:
    void setTime(long long since_start) {
        m_fake.set(
            5000 + static_cast<time_t>(since_start / 1000), static_cast<long>(since_start % 1000) * 1000000);
    }
    void ringAt(long long since_start) {
        setTime(since_start);
        vesk::Alarm::Timer::ring(m_engine.get());
    }
    /// Runs the steps. Checks what each of them has armed.
    void run(std::vector<PeriodStep> const& steps) {
        int number = 0;
        for (PeriodStep const& step : steps) {
            SCOPED_TRACE(++number);
            step.run(*this);
            EXPECT_EQ(step.armed, m_timers.take());
        }
        std::ErrorStorage::ack();
    }

    FakeClock m_fake{5000, 0};
    KernelTimers m_timers;
    std::SharedBase::Ptr<vesk::Alarm::DefaultTimer> m_engine{Timer::timer_low_prio};
    Clock m_clock;
};

PeriodStep at(long long time) {
    return {[=](TimerPeriod& test) { test.setTime(time); }};
}
PeriodStep start(unsigned int interval, bool periodic, Spans const& armed) {
    return {
        [=](TimerPeriod& test) { EXPECT_EQ(interval == 0, test.m_clock.start(interval, periodic)); }, armed};
}
PeriodStep startFixedRate(unsigned int interval, Spans const& armed) {
    return {
        [=](TimerPeriod& test) { EXPECT_EQ(interval == 0, test.m_clock.startFixedRate(interval)); }, armed};
}
/// Rings the engine at this time. Checks the number of calls so far.
PeriodStep ring(long long time, int count, Spans const& armed = {}) {
    return {
        [=](TimerPeriod& test) {
            test.ringAt(time);
            EXPECT_EQ(count, test.m_clock.count);
        },
        armed};
}
PeriodStep const SNOOZE_ONCE{[](TimerPeriod& test) { EXPECT_FALSE(test.m_clock.snooze()); }};
PeriodStep const STOP_ONCE{[](TimerPeriod& test) { EXPECT_FALSE(test.m_clock.stop()); }};

struct PeriodCourse {
    char const* name;
    std::vector<PeriodStep> steps;
    void (*action)(Clock&) = nullptr; ///< Of each call.
};

PeriodCourse const PERIOD_COURSES[] = {
    {"startArmsForTheInterval", {start(1500, false, {ms(1500)})}},
    {"startArmsForTheLongestInterval", {start(4294967295U, false, {ms(4294967295)})}},
    {"startWhileItRunsBeginsThePeriodAnewFromNow",
     {start(1000, false, {ms(1000)}), at(400), start(1000, false, {}), ring(1000, 0, {ms(400), ms(400)}),
      ring(1400, 1)}},
    {"snoozeOfARunningTimerPutsItOffWithoutASystemCall",
     {start(1000, false, {ms(1000)}), at(400), SNOOZE_ONCE, ring(1000, 0, {ms(400)}), ring(1400, 1)}},
    {"stopMakesNoSystemCall", {start(1000, true, {ms(1000)}), STOP_ONCE, ring(1000, 0)}},
    {"startWithZeroChangesNothing",
     {start(1000, false, {ms(1000)}), at(400), start(0, true, {}), ring(1000, 1)}},
    {"countsFromTheMomentOfTheExpiryAndSoDrifts",
     {start(1000, true, {ms(1000)}), ring(1030, 1, {ms(1000), ms(1000)}), ring(2029, 1, {ms(1), ms(1)}),
      ring(2045, 2, {ms(1000), ms(1000)}), ring(3044, 2, {ms(1), ms(1)}),
      ring(3045, 3, {ms(1000), ms(1000)})}},
    {"fixedRateCountsFromThePlannedMomentAndDoesNotDrift",
     {startFixedRate(1000, {ms(1000)}), ring(1030, 1, {ms(970), ms(970)}), ring(1999, 1, {ms(1), ms(1)}),
      ring(2000, 2, {ms(1000), ms(1000)}), ring(3999, 3, {ms(1), ms(1)}),
      ring(4000, 4, {ms(1000), ms(1000)})}},
    {"fixedRateSkipsPeriodsThatHavePassed",
     {startFixedRate(1000, {ms(1000)}), ring(3400, 1, {ms(600), ms(600)}),
      ring(4000, 2, {ms(1000), ms(1000)})}},
    {"fixedRateWithZeroChangesNothing",
     {start(1000, false, {ms(1000)}), startFixedRate(0, {}), ring(1000, 1)}},
    {"startEndsAFixedRate",
     {startFixedRate(1000, {ms(1000)}), start(1000, true, {}), ring(1030, 1, {ms(1000), ms(1000)})}},
    {"snoozeBeginsAFixedRateAnew",
     {startFixedRate(1000, {ms(1000)}), at(400), SNOOZE_ONCE, ring(1000, 0, {ms(400)}),
      ring(1430, 1, {ms(970), ms(970)})}},
    {"callbackThatStopsRemovesWhatWasJustArmed",
     {start(1000, true, {ms(1000)}), ring(1000, 1, {ms(1000)}), ring(1000000, 1)},
     [](Clock& clock) { clock.stop(); }},
};

VESK_TEST_TABLE(TimerPeriodCourse, armsAndRings, TimerPeriod, PERIOD_COURSES) {
    m_clock.action = GetParam().action;
    run(GetParam().steps);
}

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

TEST_F(TimerPeriod, fixedRateBeginsAtTheNextFullMillisecond) {
    m_fake.set(5000, 200000);
    EXPECT_FALSE(m_clock.startFixedRate(10));
    EXPECT_EQ((Spans{{0, 10800000}}), m_timers.take());
    m_fake.set(5000, 11000000);
    vesk::Alarm::Timer::ring(m_engine.get());
    EXPECT_EQ(1, m_clock.count);
    EXPECT_EQ((Spans{ms(10), ms(10)}), m_timers.take());
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

TEST(Timer, keepsItsPriorityInAFieldThatIsNeverRead) {
    for (bool const high : {false, true}) {
        Timer const timer([](Timer*) {}, high);
        auto const* const behind_callback = reinterpret_cast<unsigned char const*>(&timer) +
            (std::is_polymorphic_v<Timer> ? 2 : 1) * sizeof(void*);
        EXPECT_EQ(high ? 1 : 0, *behind_callback);
    }
}

} // namespace
