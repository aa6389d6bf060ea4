#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/Privileges.h"
#include "support/Processes.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Timer.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using support::chainIs;
using support::Event;
using support::eventually;
using tarnbase::TimePoint;
using vesk::Timer;

constexpr unsigned int AN_HOUR = 3600000;

static_assert(std::has_virtual_destructor_v<Timer>);
static_assert(std::is_base_of_v<tarnbase::NonCopyable, Timer>);
static_assert(!std::is_copy_constructible_v<Timer> && !std::is_copy_assignable_v<Timer>);
static_assert(std::is_base_of_v<vesk::Alarm::Timer, Timer::HighPrioTimer>);
static_assert(std::is_same_v<decltype(Timer::timer_high_prio), std::Shared<Timer::HighPrioTimer>>);
static_assert(std::is_same_v<decltype(Timer::timer_low_prio), std::Shared<vesk::Alarm::DefaultTimer>&>);

/// A timer that counts its calls and may do something in each.
class Clock : public Timer {
public:
    explicit Clock(bool high_priority = false, std::function<void(Clock&)> then = nullptr)
        : Timer(tick, high_priority), action(std::move(then)) {}
    ~Clock() override { stop(); }

    bool waitFor(int calls) const {
        return eventually([&] { return count >= calls; });
    }

    std::atomic<int> count{0};
    std::string thread_name; // Of the last call.
    std::function<void(Clock&)> action;

private:
    static void tick(Timer* timer) {
        Clock& self = *static_cast<Clock*>(timer);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        self.thread_name = name;
        if (self.action) {
            self.action(self);
        }
        ++self.count;
    }
};

/// Nothing is late when this has passed through the engine: it was added after it, for the same time or later.
void letPass(unsigned int ms, bool high_priority = false) {
    Clock other(high_priority);
    EXPECT_FALSE(other.start(ms, false));
    EXPECT_TRUE(other.waitFor(1));
}

class TimerOfPriority : public testing::TestWithParam<bool> {};

TEST_P(TimerOfPriority, standsStillAtFirst) {
    Clock clock(GetParam());
    EXPECT_EQ(0U, clock.getInterval());
    EXPECT_FALSE(clock.isPeriodic());
    letPass(5, GetParam());
    EXPECT_EQ(0, clock.count);
}

TEST_P(TimerOfPriority, runsItsCallbackOnTheThreadOfItsPriority) {
    Clock clock(GetParam());
    EXPECT_FALSE(clock.start(1, false));
    ASSERT_TRUE(clock.waitFor(1));
    clock.stop();
    EXPECT_EQ(GetParam() ? "HighPrioTimer" : "Timer", clock.thread_name);
}

TEST_P(TimerOfPriority, aOneShotTimerRunsItsCallbackOnce) {
    Clock clock(GetParam());
    EXPECT_FALSE(clock.start(3, false));
    EXPECT_EQ(3U, clock.getInterval());
    EXPECT_FALSE(clock.isPeriodic());
    ASSERT_TRUE(clock.waitFor(1));
    letPass(10, GetParam());
    EXPECT_EQ(1, clock.count);
    EXPECT_EQ(3U, clock.getInterval());
}

TEST_P(TimerOfPriority, aPeriodicTimerGoesOn) {
    Clock clock(GetParam());
    long long const before = TimePoint::now().getCount();
    EXPECT_FALSE(clock.start(4, true));
    EXPECT_TRUE(clock.isPeriodic());
    ASSERT_TRUE(clock.waitFor(10));
    EXPECT_LE(40, TimePoint::now().getCount() - before);
}

TEST_P(TimerOfPriority, theLastOneEndsTheThreadAndANewOneStartsANewOne) {
    for (int i = 0; i < 3; ++i) {
        {
            Clock const first(GetParam());
            EXPECT_TRUE(support::hasThreads(support::g_threads_at_start + 1));
            {
                Clock second(GetParam());
                EXPECT_FALSE(second.start(AN_HOUR, true));
                EXPECT_TRUE(support::hasThreads(support::g_threads_at_start + 1));
            }
            EXPECT_TRUE(support::hasThreads(support::g_threads_at_start + 1));
        }
        EXPECT_TRUE(support::hasThreads(support::g_threads_at_start));
    }
    Clock clock(GetParam());
    EXPECT_FALSE(clock.start(1, true));
    EXPECT_TRUE(clock.waitFor(3));
}

TEST_P(TimerOfPriority, hasItsSignalWhileThereAreSome) {
    int const signal = SIGRTMIN + (GetParam() ? 2 : 3);
    struct sigaction action {};
    {
        Clock const clock(GetParam());
        sigaction(signal, nullptr, &action);
        EXPECT_EQ(vesk::SignalCatcherImpl::enqueue_signal, action.sa_handler);
    }
    sigaction(signal, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TEST_P(TimerOfPriority, itsThreadIsScheduledAsTheOneThatStartedTheLibrary) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(5, 7, 5);
    auto const end = support::runInChild([] {
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 5));
        vesk::Vesk const vesk(true, false);
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 7));
        int seen = -100;
        Clock clock(GetParam(), [&seen](Clock&) { seen = getpriority(PRIO_PROCESS, 0); });
        EXPECT_FALSE(clock.start(1, false));
        EXPECT_TRUE(clock.waitFor(1));
        clock.stop();
        EXPECT_EQ(5, seen);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

INSTANTIATE_TEST_SUITE_P(All, TimerOfPriority, testing::Bool(), [](auto const& tested) {
    return tested.param ? "high" : "low";
});

TEST(Timer, startWithZeroFailsAndARunningTimerKeepsRunning) {
    Clock clock;
    EXPECT_FALSE(clock.start(2, true));
    // Whatever is pending, this is a chain of its own.
    std::ErrorOutput("test", 1, true)(std::CommonErrorId::OUT_OF_MEMORY);
    EXPECT_TRUE(clock.start(0, false));
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN,
          "Contract broken by the caller: zero tick interval specified"}}));
    EXPECT_EQ(2U, clock.getInterval());
    EXPECT_TRUE(clock.isPeriodic());
    int const before = clock.count;
    EXPECT_TRUE(clock.waitFor(before + 3));
}

TEST(Timer, startWithZeroLeavesAStoppedTimerStopped) {
    Clock clock;
    EXPECT_TRUE(clock.start(0, true));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_FALSE(clock.isPeriodic());
    letPass(5);
    EXPECT_EQ(0, clock.count);
}

TEST(Timer, stoppingAStoppedTimerSucceedsAndDoesNothing) {
    Clock clock;
    EXPECT_FALSE(clock.stop());
    EXPECT_FALSE(clock.stop());
    EXPECT_FALSE(clock.start(1, false));
    EXPECT_TRUE(clock.waitFor(1));
    EXPECT_FALSE(clock.stop());
    EXPECT_TRUE(chainIs({}));
}

TEST(Timer, stopKeepsTheIntervalAndTheKind) {
    Clock clock;
    EXPECT_FALSE(clock.start(AN_HOUR, true));
    EXPECT_FALSE(clock.stop());
    EXPECT_EQ(AN_HOUR, clock.getInterval());
    EXPECT_TRUE(clock.isPeriodic());
}

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

TEST(Timer, startWhileItRunsTakesTheNewIntervalAndKind) {
    Clock clock;
    EXPECT_FALSE(clock.start(AN_HOUR, true));
    EXPECT_FALSE(clock.start(2, false));
    EXPECT_EQ(2U, clock.getInterval());
    EXPECT_FALSE(clock.isPeriodic());
    ASSERT_TRUE(clock.waitFor(1));
    letPass(10);
    EXPECT_EQ(1, clock.count);
}

TEST(Timer, snoozeFromTheCallbackOfAOneShotTimerGivesOneMoreCall) {
    Clock clock(false, [](Clock& self) {
        if (self.count == 0) {
            EXPECT_FALSE(self.snooze());
        }
    });
    EXPECT_FALSE(clock.start(2, false));
    ASSERT_TRUE(clock.waitFor(2));
    letPass(10);
    EXPECT_EQ(2, clock.count);
}

TEST(Timer, snoozeOnAStoppedTimerStartsOneMorePeriod) {
    Clock clock;
    EXPECT_FALSE(clock.start(2, false));
    ASSERT_TRUE(clock.waitFor(1));
    EXPECT_FALSE(clock.snooze());
    ASSERT_TRUE(clock.waitFor(2));
    EXPECT_FALSE(clock.stop());
    EXPECT_FALSE(clock.snooze());
    ASSERT_TRUE(clock.waitFor(3));
    letPass(10);
    EXPECT_EQ(3, clock.count);
}

TEST(Timer, snoozeOnATimerThatWasNeverStartedRingsOnceAtOnce) {
    Clock clock;
    EXPECT_FALSE(clock.snooze());
    ASSERT_TRUE(clock.waitFor(1));
    letPass(5);
    EXPECT_EQ(1, clock.count);
}

TEST(Timer, aPeriodicTimerThatIsSnoozedAfterAStopGoesOn) {
    Clock clock;
    EXPECT_FALSE(clock.start(1, true));
    ASSERT_TRUE(clock.waitFor(1));
    EXPECT_FALSE(clock.stop());
    int const before = clock.count;
    EXPECT_FALSE(clock.snooze());
    EXPECT_TRUE(clock.waitFor(before + 5));
}

TEST(Timer, aPeriodicTimerWhoseCallbackStopsItHasNoFurtherExpiry) {
    Clock clock(false, [](Clock& self) { EXPECT_FALSE(self.stop()); });
    EXPECT_FALSE(clock.start(2, true));
    ASSERT_TRUE(clock.waitFor(1));
    letPass(10);
    EXPECT_EQ(1, clock.count);
}

TEST(Timer, aCallbackMayStartItsTimerAnew) {
    Clock clock(false, [](Clock& self) {
        if (self.count == 2) {
            EXPECT_FALSE(self.start(1, false));
        }
    });
    EXPECT_FALSE(clock.start(2, true));
    ASSERT_TRUE(clock.waitFor(4));
    letPass(10);
    EXPECT_EQ(4, clock.count);
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
    struct Mayfly : Timer {
        explicit Mayfly(Event& event) : Timer(end, false), after(event) {}
        static void end(Timer* timer) {
            Event& after = static_cast<Mayfly*>(timer)->after;
            delete timer;
            after.set();
        }
        Event& after;
    };
    Mayfly* const mayfly = new Mayfly(gone);
    EXPECT_FALSE(mayfly->start(1, true));
    EXPECT_TRUE(gone.wait());
    letPass(3);
}

TEST(Timer, stopAndTheDestructorWaitForACallbackThatIsRunning) {
    for (bool const destroy : {false, true}) {
        Event entered;
        Event leave;
        bool left = false; // No atomic: the engine's lock orders it.
        auto clock = std::make_unique<Clock>(false, [&](Clock&) {
            entered.set();
            EXPECT_TRUE(leave.wait());
            left = true;
        });
        EXPECT_FALSE(clock->start(1, false));
        ASSERT_TRUE(entered.wait());
        std::atomic<bool> done{false};
        std::thread other([&] {
            if (destroy) {
                clock.reset();
            } else {
                clock->stop();
            }
            EXPECT_TRUE(left);
            done = true;
        });
        for (int i = 0; i < 1000; ++i) {
            sched_yield();
            ASSERT_FALSE(done);
        }
        leave.set();
        other.join();
    }
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

TEST(Timer, aSlowCallbackHoldsUpItsPriorityAndNotTheOther) {
    Event entered;
    Event leave;
    Clock slow(false, [&](Clock&) {
        entered.set();
        EXPECT_TRUE(leave.wait());
    });
    Clock low;
    Clock high(true);
    EXPECT_FALSE(low.start(150, true));
    EXPECT_FALSE(slow.start(1, false));
    ASSERT_TRUE(entered.wait());
    int const before = low.count;
    long long const end = TimePoint::now().getCount() + 300;
    EXPECT_FALSE(high.start(1, true));
    EXPECT_TRUE(high.waitFor(20));
    EXPECT_TRUE(eventually([&] { return TimePoint::now().getCount() > end; }));
    EXPECT_EQ(before, low.count);
    leave.set();
    EXPECT_TRUE(low.waitFor(before + 1));
}

/// A call that needs the engine while a callback runs, made by several threads at once.
struct WaitingCall {
    char const* name;
    size_t threads;
    void (*call)(std::unique_ptr<Clock>& own);
};

void PrintTo(WaitingCall const& row, std::ostream* out) {
    *out << row.name;
}

class TimerOfBusyEngine : public testing::TestWithParam<WaitingCall> {};

TEST_P(TimerOfBusyEngine, isServedBeforeTheEngineGoesOn) {
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
            support::waitUntilAsleep(getpid(), ids[i]);
            seen_asleep[i] = begun.load();
        }
        timespec const longer_than_the_interval{0, 3000000};
        nanosleep(&longer_than_the_interval, nullptr);
    });
    ids[0] = support::getThreadId();
    EXPECT_FALSE(busy.start(1, true));
    auto const callAgainAndAgain = [&](size_t i) {
        ids[i] = support::getThreadId();
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

INSTANTIATE_TEST_SUITE_P(
    All, TimerOfBusyEngine,
    testing::Values(
        WaitingCall{"stop", 1, [](std::unique_ptr<Clock>& own) { own->stop(); }},
        WaitingCall{"start", 1, [](std::unique_ptr<Clock>& own) { own->start(AN_HOUR, true); }},
        WaitingCall{"destroy", 1, [](std::unique_ptr<Clock>& own) { own.reset(); }},
        WaitingCall{"snoozeOfMany", 6, [](std::unique_ptr<Clock>& own) { own->snooze(); }}),
    [](auto const& row) { return std::string(row.param.name); });

TEST(Timer, callbacksOfBothPrioritiesMayStopAndStartEachOthersTimers) {
    auto const end = support::runInChild([] {
        Clock* clocks[2] = {};
        Event entered[2];
        auto const stopOther = [&](Clock& self) {
            size_t const own = &self == clocks[0] ? 0 : 1;
            entered[own].set();
            if (self.count == 0) {
                EXPECT_TRUE(entered[1 - own].wait());
            }
            EXPECT_FALSE(clocks[1 - own]->stop());
            EXPECT_FALSE(clocks[1 - own]->start(1, true));
        };
        Clock low(false, stopOther);
        Clock high(true, stopOther);
        clocks[0] = &low;
        clocks[1] = &high;
        EXPECT_FALSE(low.start(1, true));
        EXPECT_FALSE(high.start(1, true));
        EXPECT_TRUE(low.waitFor(300));
        EXPECT_TRUE(high.waitFor(300));
        low.stop();
        high.stop();
    });
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

TEST(Timer, procedureIsTheCallOfTheEngine) {
    Clock clock;
    Timer::procedure(static_cast<Timer*>(&clock));
    EXPECT_EQ(1, clock.count);
    EXPECT_FALSE(clock.start(1, true));
    EXPECT_FALSE(clock.stop());
    int const before = clock.count;
    Timer::procedure(static_cast<Timer*>(&clock)); // Begins the next period, as the engine's call does.
    EXPECT_TRUE(clock.waitFor(before + 3));
}

TEST(Timer, theEngineOfOrdinaryTimersIsThatOfAlarms) {
    EXPECT_EQ(&vesk::Alarm::DEFAULT_TIMER, &Timer::timer_low_prio);
}

TEST(Timer, anAlarmAndAnOrdinaryTimerShareTheThread) {
    int const threads = support::countThreads();
    Clock const clock;
    std::SharedBase::Ptr<vesk::Alarm::Timer> const engine(vesk::Alarm::DEFAULT_TIMER);
    EXPECT_TRUE(support::hasThreads(threads + 1));
}

struct ErrorRow {
    int id;
    char const* text;
};

class TimerError : public testing::TestWithParam<ErrorRow> {};

TEST_P(TimerError, hasItsText) {
    std::ErrorOutput("test", 1, true)(Timer::Error, GetParam().id, "reason");
    EXPECT_TRUE(Timer::Error.isA(vesk::SysError));
    EXPECT_TRUE(chainIs({{Timer::Error, GetParam().id, GetParam().text}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, TimerError,
    testing::Values(
        ErrorRow{0, "Failed to create timer: reason"}, ErrorRow{1, "Failed to start timer: reason"},
        ErrorRow{2, "Failed to stop timer: reason"}, ErrorRow{3, "Failed to snooze timer: reason"}));

TEST(Timer, manyThreadsUseTimersOfTheirOwn) {
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
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
    for (std::thread& thread : threads) {
        thread.join();
    }
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
