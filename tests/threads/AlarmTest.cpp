#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/Alarm.h>
#include <vesk/Dispatcher.h>
#include <vesk/Thread.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <deque>
#include <memory>
#include <pthread.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

/// Alarms on real engines: the kernel's timer, its signal, and the threads.

namespace {

using support::Event;
using support::EventRecorder;
using support::eventually;
using support::Fault;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::Alarm;
using vesk::Dispatcher;
using vesk::Message;
using vesk::Thread;

using Engine = Alarm::Timer;
using EnginePtr = std::SharedBase::Ptr<Engine>;

int const SIGNAL = SIGRTMIN + 6;
constexpr Duration AT_ONCE(0);
constexpr Duration SOON(20);
constexpr Duration AN_HOUR(3600000);

static_assert(!std::is_polymorphic_v<Alarm> && !std::is_polymorphic_v<Engine>);
static_assert(!std::is_copy_constructible_v<Alarm> && !std::is_copy_constructible_v<Engine>);
static_assert(sizeof(Alarm) == 5 * sizeof(void*));
static_assert(std::is_base_of_v<Engine, Alarm::DefaultTimer>);
static_assert(std::is_same_v<decltype(Alarm::DEFAULT_TIMER), std::Shared<Alarm::DefaultTimer>>);

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int SLOW = 10; // So many times fewer rounds.
#else
constexpr int SLOW = 1;
#endif

std::string getThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

/// Tells each call: how often, when, and on which thread.
struct Call {
    static void made(void* data) {
        Call& call = *static_cast<Call*>(data);
        call.at = TimePoint::now().getCount();
        call.thread = pthread_self();
        call.thread_name = getThreadName();
        ++call.count;
    }

    std::atomic<int> count{0};
    std::atomic<long long> at{0};
    pthread_t thread{};
    std::string thread_name;
};

class AlarmOnEngine : public testing::Test {
protected:
    Engine m_engine{SIGNAL, "Engine", vesk::sched::Attr()};
    EnginePtr m_reference{nullptr, &m_engine};
};

TEST_F(AlarmOnEngine, ringsOnceOnTheEnginesThread) {
    Call call;
    Alarm alarm(m_reference, nullptr, Call::made, &call);
    alarm.start(SOON);
    ASSERT_TRUE(eventually([&] { return call.count != 0; }));
    EXPECT_EQ("Engine", call.thread_name);
    EXPECT_EQ(0, pthread_equal(pthread_self(), call.thread));
    // Another one that comes later: had the first a second call to make, it would have been made before.
    Call later;
    Alarm other(m_reference, nullptr, Call::made, &later);
    other.start(SOON);
    ASSERT_TRUE(eventually([&] { return later.count != 0; }));
    EXPECT_EQ(1, call.count);
    alarm.stop();
    other.stop();
}

TEST_F(AlarmOnEngine, doesNotRingBeforeItsTime) {
    for (long long const delay : {0, 1, 2, 7, 30}) {
        Call call;
        Alarm alarm(m_reference, nullptr, Call::made, &call);
        long long const before = TimePoint::now().getCount();
        alarm.start(Duration(delay));
        ASSERT_TRUE(eventually([&] { return call.count != 0; }));
        EXPECT_LE(before + delay, call.at);
        alarm.stop();
    }
}

TEST_F(AlarmOnEngine, aDelayOfZeroRings) {
    for (int i = 0; i < 50; ++i) {
        Call call;
        Alarm alarm(m_reference, nullptr, Call::made, &call);
        alarm.start(AT_ONCE);
        ASSERT_TRUE(eventually([&] { return call.count != 0; }));
        alarm.stop();
    }
}

TEST_F(AlarmOnEngine, movedToAnEarlierTimeItRingsThen) {
    Call call;
    Alarm alarm(m_reference, nullptr, Call::made, &call);
    alarm.start(AN_HOUR);
    alarm.start(SOON);
    EXPECT_TRUE(eventually([&] { return call.count != 0; }));
    alarm.stop();
}

TEST_F(AlarmOnEngine, movedToALaterTimeItRingsThen) {
    Call call;
    Alarm alarm(m_reference, nullptr, Call::made, &call);
    alarm.start(Duration(5));
    long long const before = TimePoint::now().getCount();
    alarm.start(Duration(100));
    ASSERT_TRUE(eventually([&] { return call.count != 0; }));
    if (call.count == 1) { // Else a slow machine let the first time pass before it could be moved.
        EXPECT_LE(before + 100, call.at);
    }
    alarm.stop();
}

TEST_F(AlarmOnEngine, aStoppedOneDoesNotRingAndTheOthersDo) {
    Call stopped;
    Call call;
    Alarm first(m_reference, nullptr, Call::made, &stopped);
    Alarm second(m_reference, nullptr, Call::made, &call);
    first.start(Duration(500));
    second.start(Duration(510));
    first.stop();
    ASSERT_TRUE(eventually([&] { return call.count != 0; }));
    EXPECT_EQ(0, stopped.count);
    second.stop();
}

/// Rings so often before it has enough.
struct Repeater {
    explicit Repeater(EnginePtr const& engine) : alarm(engine, nullptr, again, this) {}

    static void again(void* data) {
        Repeater& self = *static_cast<Repeater*>(data);
        if (++self.count < 20) {
            self.alarm.start(Duration(1));
        }
    }

    std::atomic<int> count{0};
    Alarm alarm;
};

TEST_F(AlarmOnEngine, aCallbackMayStartItsOwnAlarmAgain) {
    Repeater repeater(m_reference);
    repeater.alarm.start(Duration(1));
    EXPECT_TRUE(eventually([&] { return repeater.count == 20; }));
    repeater.alarm.stop();
}

TEST_F(AlarmOnEngine, withASinkItRingsOnTheSinksThreadAndNotOnTheEngines) {
    Dispatcher::VanillaNotifier notifier;
    Dispatcher::VanillaQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    Thread thread(Dispatcher::main, &dispatcher, "Sink");
    ASSERT_FALSE(thread.start());
    Call call;
    Alarm alarm(m_reference, &queue, Call::made, &call);
    alarm.start(SOON);
    EXPECT_TRUE(eventually([&] { return call.count != 0; }));
    alarm.stop();
    dispatcher.stop();
    EXPECT_FALSE(thread.join());
    EXPECT_EQ("Sink", call.thread_name);
    EXPECT_EQ(1, call.count);
}

TEST_F(AlarmOnEngine, aSinksCallbackDoesNotHoldTheEnginesLock) {
    Dispatcher::VanillaNotifier notifier;
    Dispatcher::VanillaQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    Thread thread(Dispatcher::main, &dispatcher, "Sink");
    ASSERT_FALSE(thread.start());
    struct Gate {
        static void pass(void* data) {
            Gate& gate = *static_cast<Gate*>(data);
            gate.reached.set();
            EXPECT_TRUE(gate.open.wait());
        }
        Event reached;
        Event open;
    } gate;
    Call call;
    Alarm slow(m_reference, &queue, Gate::pass, &gate);
    Alarm other(m_reference, nullptr, Call::made, &call);
    slow.start(AT_ONCE);
    ASSERT_TRUE(gate.reached.wait());
    other.start(AT_ONCE);
    EXPECT_TRUE(eventually([&] { return call.count != 0; }));
    other.stop();
    slow.stop();
    gate.open.set();
    dispatcher.stop();
    EXPECT_FALSE(thread.join());
}

/// Stays in its callback until it is told to leave.
struct Lingerer {
    explicit Lingerer(EnginePtr const& engine) : alarm(engine, nullptr, linger, this) {}

    static void linger(void* data) {
        Lingerer& self = *static_cast<Lingerer*>(data);
        self.entered.set();
        EXPECT_TRUE(self.leave.wait());
        self.left = true;
    }

    Event entered;
    Event leave;
    bool left = false; // No atomic: the engine's lock orders it.
    Alarm alarm;
};

TEST_F(AlarmOnEngine, stopWaitsForACallbackThatIsRunning) {
    Lingerer lingerer(m_reference);
    lingerer.alarm.start(AT_ONCE);
    ASSERT_TRUE(lingerer.entered.wait());
    std::atomic<bool> stopped{false};
    std::thread other([&] {
        lingerer.alarm.stop();
        EXPECT_TRUE(lingerer.left);
        stopped = true;
    });
    for (int i = 0; i < 1000; ++i) {
        sched_yield();
        ASSERT_FALSE(stopped);
    }
    lingerer.leave.set();
    other.join();
}

TEST_F(AlarmOnEngine, aSlowCallbackHoldsUpTheOthers) {
    Lingerer lingerer(m_reference);
    Call call;
    Alarm other(m_reference, nullptr, Call::made, &call);
    other.start(Duration(30));
    lingerer.alarm.start(AT_ONCE);
    ASSERT_TRUE(lingerer.entered.wait());
    if (call.count == 0) { // Else the machine was slow, and the other was due as well.
        long long const due = TimePoint::now().getCount() + 60;
        EXPECT_TRUE(eventually([&] { return TimePoint::now().getCount() > due; }));
        EXPECT_EQ(0, call.count);
    }
    lingerer.leave.set();
    EXPECT_TRUE(eventually([&] { return call.count == 1; }));
    other.stop();
    lingerer.alarm.stop();
}

TEST_F(AlarmOnEngine, aSlowCallbackOfAnotherEngineHoldsUpNobody) {
    Engine other_engine(SIGNAL + 1, "Other", vesk::sched::Attr());
    Lingerer lingerer(m_reference);
    lingerer.alarm.start(AT_ONCE);
    ASSERT_TRUE(lingerer.entered.wait());
    Call call;
    Alarm alarm(EnginePtr(nullptr, &other_engine), nullptr, Call::made, &call);
    alarm.start(SOON);
    EXPECT_TRUE(eventually([&] { return call.count == 1; }));
    EXPECT_EQ("Other", call.thread_name);
    alarm.stop();
    lingerer.leave.set();
    lingerer.alarm.stop();
}

TEST_F(AlarmOnEngine, aCallbackMayDestroyItsOwnAlarm) {
    struct Mayfly {
        explicit Mayfly(EnginePtr const& engine, std::atomic<int>& gone)
            : alarm(std::make_unique<Alarm>(engine, nullptr, end, this)), ended(gone) {}
        static void end(void* data) {
            Mayfly& self = *static_cast<Mayfly*>(data);
            self.alarm->stop();
            self.alarm.reset();
            ++self.ended;
        }
        std::unique_ptr<Alarm> alarm;
        std::atomic<int>& ended;
    };
    std::atomic<int> ended{0};
    std::deque<Mayfly> mayflies;
    for (int i = 0; i < 20; ++i) {
        mayflies.emplace_back(m_reference, ended).alarm->start(SOON);
    }
    EXPECT_TRUE(eventually([&] { return ended == 20; }));
}

/// Every thread but the sanitizer's own, which blocks signals anyway, comes after the mask.
TEST(AlarmEngine, anExpiryThatComesWhileTheSignalIsBlockedEverywhereIsNotLost) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGNAL);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    {
        Engine engine(SIGNAL, "Blocked", vesk::sched::Attr());
        Call call;
        Alarm alarm(EnginePtr(nullptr, &engine), nullptr, Call::made, &call);
        alarm.start(AT_ONCE);
        sigset_t pending;
        EXPECT_TRUE(
            eventually([&] { return sigpending(&pending) == 0 && sigismember(&pending, SIGNAL) == 1; }));
        EXPECT_EQ(0, call.count);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        EXPECT_TRUE(eventually([&] { return call.count == 1; }));
        alarm.stop();
    }
}

// ---- How the thread is scheduled ----

struct NiceProbe {
    static void look(void* data) {
        static_cast<NiceProbe*>(data)->nice = getpriority(PRIO_PROCESS, 0);
        static_cast<NiceProbe*>(data)->done.set();
    }
    int nice = -100;
    Event done;
};

int getNiceOfCallbacks(Engine& engine) {
    NiceProbe probe;
    Alarm alarm(EnginePtr(nullptr, &engine), nullptr, NiceProbe::look, &probe);
    alarm.start(AT_ONCE);
    EXPECT_TRUE(probe.done.wait());
    alarm.stop();
    return probe.nice;
}

TEST(AlarmEngine, isScheduledAsItsAttributesSay) {
    vesk::sched::Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param.nice = getpriority(PRIO_PROCESS, 0) + 3;
    Engine engine(SIGNAL, "Engine", attributes);
    EXPECT_EQ(attributes.param.nice, getNiceOfCallbacks(engine));
}

TEST(AlarmEngine, theOlderFormTakesAPriority) {
    int const nice = getpriority(PRIO_PROCESS, 0) + 4;
    Engine engine(SIGNAL, "Older", nice);
    EXPECT_EQ(nice, getNiceOfCallbacks(engine));
    Call call;
    Alarm alarm(EnginePtr(nullptr, &engine), nullptr, Call::made, &call);
    alarm.start(AT_ONCE);
    EXPECT_TRUE(eventually([&] { return call.count == 1; }));
    EXPECT_EQ("Older", call.thread_name);
    alarm.stop();
}

TEST(AlarmEngine, theOlderFormInheritsWithAPriorityOfZero) {
    Engine engine(SIGNAL, "Older", 0);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), getNiceOfCallbacks(engine));
}

// ---- The engine of the process ----

TEST(DefaultTimer, livesAsLongAsAnAlarmRefersToIt) {
    int const threads = support::countThreads();
    {
        Call call;
        Alarm alarm(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, Call::made, &call);
        EXPECT_TRUE(support::hasThreads(threads + 1));
        {
            Alarm const second(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, Call::made, &call);
            EXPECT_TRUE(support::hasThreads(threads + 1));
        }
        EXPECT_TRUE(support::hasThreads(threads + 1));
        alarm.start(SOON);
        EXPECT_TRUE(eventually([&] { return call.count == 1; }));
        EXPECT_EQ("Timer", call.thread_name);
        alarm.stop();
    }
    EXPECT_TRUE(support::hasThreads(threads));
}

TEST(DefaultTimer, catchesTheThirdRealTimeSignalAndGivesItBack) {
    struct sigaction action {};
    {
        EnginePtr const engine(Alarm::DEFAULT_TIMER);
        sigaction(SIGRTMIN + 3, nullptr, &action);
        EXPECT_EQ(vesk::SignalCatcherImpl::enqueue_signal, action.sa_handler);
    }
    sigaction(SIGRTMIN + 3, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
}

/// Destroys itself in its callback, waits until the thread that destroys the last alarm sleeps, and makes a successor.
struct Phoenix {
    static void rise(void* data) {
        Phoenix& self = *static_cast<Phoenix*>(data);
        self.alarm->stop();
        self.alarm.reset();
        self.entered.set();
        EXPECT_TRUE(eventually([&] { return self.destroyer != 0; }));
        support::waitUntilAsleep(getpid(), self.destroyer);
        self.alarm =
            std::make_unique<Alarm>(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, Call::made, &self.call);
        self.alarm->start(AT_ONCE);
    }

    Event entered;
    std::atomic<pid_t> destroyer{0};
    Call call;
    std::unique_ptr<Alarm> alarm =
        std::make_unique<Alarm>(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, rise, this);
};

TEST(DefaultTimer, staysForAnAlarmThatACallbackMakesWhileTheLastOneIsDestroyed) {
    auto const end = support::runInChild([] {
        Phoenix phoenix;
        auto last = std::make_unique<Alarm>(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, Call::made, nullptr);
        phoenix.alarm->start(AT_ONCE);
        ASSERT_TRUE(phoenix.entered.wait());
        phoenix.destroyer = support::getThreadId();
        last.reset();
        EXPECT_TRUE(eventually([&] { return phoenix.call.count == 1; }));
        phoenix.alarm->stop();
    });
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

// ---- A lock that fails ----

struct LockedOperation {
    char const* name;
    void (*call)(Engine& engine, Alarm& alarm);
};

class AlarmLock : public testing::TestWithParam<LockedOperation> {
protected:
    static std::string text(char const* message) {
        return std::string("ABORT framework/src/vesk/posix/Alarm ") + GetParam().name + ": " + message;
    }
    static void doNothing(void*) {}

    Engine m_engine{SIGNAL, "Engine", vesk::sched::Attr()};
    Alarm m_alarm{EnginePtr(nullptr, &m_engine), nullptr, doNothing, nullptr};
};

TEST_P(AlarmLock, failingToLockIsFatal) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        GetParam().call(m_engine, m_alarm);
    }
    EXPECT_EQ(text("error locking") + "\n" + text("error unlocking"), recorder.getText());
}

TEST_P(AlarmLock, failingToUnlockIsFatal) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        GetParam().call(m_engine, m_alarm);
    }
    EXPECT_EQ(text("error unlocking"), recorder.getText());
    m_engine.remove(&m_alarm);
}

INSTANTIATE_TEST_SUITE_P(
    All, AlarmLock,
    testing::Values(
        LockedOperation{"add", [](Engine& engine, Alarm& alarm) { engine.add(&alarm, AN_HOUR); }},
        LockedOperation{"remove", [](Engine& engine, Alarm& alarm) { engine.remove(&alarm); }},
        LockedOperation{"ring", [](Engine& engine, Alarm&) { Engine::ring(&engine); }}),
    [](auto const& tested) { return tested.param.name; });

// ---- Many ----

TEST_F(AlarmOnEngine, aHundredThousandArePendingAndEachRingsOnceAtItsTime) {
    constexpr int COUNT = 100000;
    struct Row {
        explicit Row(EnginePtr const& engine, std::atomic<int>& total)
            : alarm(engine, nullptr, rang, this), rung(total) {}
        static void rang(void* data) {
            Row& row = *static_cast<Row*>(data);
            row.at = TimePoint::now().getCount();
            ++row.count;
            ++row.rung;
        }
        Alarm alarm;
        std::atomic<int>& rung;
        // The engine's lock orders these.
        long long due = 0;
        long long at = 0;
        int count = 0;
    };
    std::atomic<int> rung{0};
    std::deque<Row> rows;
    std::mt19937 random(7);
    int expected = 0;
    for (int i = 0; i < COUNT; ++i) {
        rows.emplace_back(m_reference, rung).alarm.start(AN_HOUR);
    }
    std::vector<Row*> moved;
    for (Row& row : rows) {
        moved.push_back(&row);
    }
    std::shuffle(moved.begin(), moved.end(), random);
    moved.resize(COUNT / 2);
    for (Row* const row : moved) {
        long long const delay = std::uniform_int_distribution<long long>(50, 1500)(random);
        row->due = TimePoint::now().getCount() + delay;
        row->alarm.start(Duration(delay));
        ++expected;
    }
    // A part of them is taken back; some of these may have rung already on a slow machine.
    for (size_t i = 0; i < moved.size(); i += 5) {
        moved[i]->alarm.stop();
        if (moved[i]->count == 0) {
            moved[i]->due = 0;
            --expected;
        }
    }
    ASSERT_TRUE(eventually([&] { return rung >= expected; }));
    for (Row& row : rows) {
        row.alarm.stop();
        ASSERT_EQ(row.due != 0 ? 1 : 0, row.count);
        ASSERT_LE(row.due, row.at);
    }
    EXPECT_EQ(expected, rung);
}

/// An alarm whose owner knows whether it may ring. Nothing in it is atomic: the engine's lock is to order it all.
struct Guarded {
    explicit Guarded(EnginePtr const& engine) : alarm(engine, nullptr, rang, this) {}

    static void rang(void* data) {
        Guarded& self = *static_cast<Guarded*>(data);
        ++self.rung;
        if (!self.allowed) {
            ++self.rung_wrongly;
        }
        if (self.rung % 3 == 0) {
            self.alarm.start(Duration(self.rung % 2));
        }
    }

    bool allowed = false;
    int rung = 0;
    int rung_wrongly = 0;
    Alarm alarm;
};

TEST_F(AlarmOnEngine, aRemovedAlarmNeverRingsHoweverManyThreadsAddMoveAndRemove) {
    constexpr int THREADS = 4;
    constexpr int ALARMS = 30;
    std::atomic<int> rung{0};
    std::atomic<int> rung_wrongly{0};
    auto const storm = [&](unsigned int seed) {
        std::mt19937 random(seed);
        std::deque<Guarded> alarms;
        for (int i = 0; i < ALARMS; ++i) {
            alarms.emplace_back(m_reference);
        }
        for (int i = 0; i < 20000 / SLOW; ++i) {
            Guarded& one = alarms[random() % ALARMS];
            if (one.allowed && random() % 2 == 0) {
                one.alarm.stop();
                one.allowed = false;
            } else {
                // Pending or not, it may ring from here on; but `allowed` may be touched only while it cannot.
                if (!one.allowed) {
                    one.allowed = true;
                }
                one.alarm.start(Duration(static_cast<long long>(random() % 4)));
            }
            if (random() % 64 == 0) {
                Engine::ring(&m_engine); // As if the signal came to another thread.
            }
        }
        for (Guarded& one : alarms) {
            one.alarm.stop();
            one.allowed = false;
        }
        for (Guarded const& one : alarms) {
            rung += one.rung;
            rung_wrongly += one.rung_wrongly;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < THREADS; ++i) {
        threads.emplace_back(storm, i + 1);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(rung, 0);
    EXPECT_EQ(0, rung_wrongly);
}

TEST_F(AlarmOnEngine, whatIsStillPendingAfterAStormRings) {
    std::deque<Call> calls(40);
    std::deque<Alarm> alarms;
    for (Call& call : calls) {
        alarms.emplace_back(m_reference, nullptr, Call::made, &call);
    }
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int i = 0; i < 5000 / SLOW; ++i) {
                Alarm& alarm = alarms[t * 10 + random() % 10];
                if (random() % 3 == 0) {
                    alarm.stop();
                } else {
                    alarm.start(Duration(static_cast<long long>(random() % 5)));
                }
            }
            for (size_t i = t * 10; i < t * 10 + 10; ++i) {
                alarms[i].stop();
                calls[i].count = 0;
                alarms[i].start(Duration(static_cast<long long>(random() % 50)));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_TRUE(eventually([&] { return calls[i].count == 1; })) << i;
        alarms[i].stop();
        EXPECT_EQ(1, calls[i].count);
    }
}

} // namespace
