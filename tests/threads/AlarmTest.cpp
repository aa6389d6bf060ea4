#include "SignalsToMainThread.h"
#include "TimerSupport.h"
#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "support/Processes.h"
#include "support/UnlockFault.h"

#include <vesk/Dispatcher.h>

#include <deque>
#include <random>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

/// Alarms on real engines: the kernel's timer, its signal, and the threads.

namespace {

using namespace support;
using namespace vesk;
using tarnbase::Duration;
using tarnbase::TimePoint;

int const SIGNAL = SIGRTMIN + 6;
constexpr long long AT_ONCE = 0;
constexpr long long SOON = 20;
constexpr long long AN_HOUR = 3600000;

static_assert(!std::is_polymorphic_v<Alarm> && !std::is_polymorphic_v<Engine>);
static_assert(!std::is_copy_constructible_v<Alarm> && !std::is_copy_constructible_v<Engine>);
static_assert(sizeof(Alarm) == 5 * sizeof(void*));
static_assert(std::is_base_of_v<Engine, Alarm::DefaultTimer>);
static_assert(std::is_same_v<decltype(Alarm::DEFAULT_TIMER), std::Shared<Alarm::DefaultTimer>>);

constexpr int SLOW = IS_SLOW ? 10 : 1; // Divides the numbers of rounds.

class AlarmOnEngine : public testing::Test {
protected:
    Engine m_engine{SIGNAL, "Engine", Attr()};
    EnginePtr m_reference{nullptr, &m_engine};
};

TEST_F(AlarmOnEngine, ringsOnceOnTheEnginesThread) {
    TestAlarm alarm(m_reference);
    alarm.start(SOON);
    ASSERT_TRUE(alarm.waitFor(1));
    EXPECT_EQ("Engine", alarm.thread_name);
    EXPECT_EQ(0, pthread_equal(pthread_self(), alarm.thread));
    // A second call of the first alarm would come before that of a later alarm.
    TestAlarm later(m_reference);
    later.start(SOON);
    ASSERT_TRUE(later.waitFor(1));
    EXPECT_EQ(1, alarm.count);
}

TEST_F(AlarmOnEngine, doesNotRingBeforeItsTime) {
    std::vector<long long> delays(50); // Zeros.
    delays.insert(delays.end(), {1, 2, 7, 30});
    for (long long const delay : delays) {
        TestAlarm alarm(m_reference);
        long long const before = TimePoint::now().getCount();
        alarm.start(delay);
        ASSERT_TRUE(alarm.waitFor(1));
        EXPECT_LE(before + delay, alarm.at);
    }
}

TEST_F(AlarmOnEngine, movedToAnEarlierOrALaterTimeItRingsThen) {
    TestAlarm earlier(m_reference);
    earlier.start(AN_HOUR);
    earlier.start(SOON);
    EXPECT_TRUE(earlier.waitFor(1));
    TestAlarm alarm(m_reference);
    alarm.start(5);
    long long const before = TimePoint::now().getCount();
    alarm.start(100);
    ASSERT_TRUE(alarm.waitFor(1));
    if (alarm.count == 1) { // On a slow machine the first time may pass before the alarm is moved.
        EXPECT_LE(before + 100, alarm.at);
    }
}

TEST_F(AlarmOnEngine, stoppedOneDoesNotRingAndTheOthersDo) {
    TestAlarm stopped(m_reference);
    TestAlarm alarm(m_reference);
    stopped.start(500);
    alarm.start(510);
    stopped.stop();
    ASSERT_TRUE(alarm.waitFor(1));
    EXPECT_EQ(0, stopped.count);
}

TEST_F(AlarmOnEngine, callbackMayStartItsOwnAlarmAgain) {
    TestAlarm alarm(m_reference, [](TestAlarm& self) {
        if (self.count < 19) {
            self.start(1);
        }
    });
    alarm.start(1);
    EXPECT_TRUE(alarm.waitFor(20));
}

/// A dispatcher on its own thread.
class AlarmWithSink : public AlarmOnEngine {
protected:
    void SetUp() override {
        m_dispatcher.add_source(m_queue);
        ASSERT_FALSE(m_thread.start());
    }
    void end() {
        m_dispatcher.stop();
        EXPECT_FALSE(m_thread.join());
    }

    Dispatcher::VanillaNotifier m_notifier;
    Dispatcher::VanillaQueue m_queue{m_notifier};
    Dispatcher m_dispatcher{m_notifier};
    Thread m_thread{Dispatcher::main, &m_dispatcher, "Sink"};
};

TEST_F(AlarmWithSink, ringsOnTheSinksThreadAndNotOnTheEngines) {
    TestAlarm alarm(m_reference, nullptr, &m_queue);
    alarm.start(SOON);
    EXPECT_TRUE(alarm.waitFor(1));
    alarm.stop();
    end();
    EXPECT_EQ("Sink", alarm.thread_name);
    EXPECT_EQ(1, alarm.count);
}

TEST_F(AlarmWithSink, callbackDoesNotHoldTheEnginesLock) {
    Lingering lingering;
    TestAlarm slow(m_reference, std::ref(lingering), &m_queue);
    slow.start(AT_ONCE);
    EXPECT_TRUE(lingering.entered.wait());
    TestAlarm other(m_reference);
    other.start(AT_ONCE);
    EXPECT_TRUE(other.waitFor(1));
    slow.stop();
    lingering.leave.set();
    end();
}

TEST_F(AlarmOnEngine, callbackMayDestroyItsOwnAlarm) {
    struct SelfDestroying {
        static void end(void* data) {
            SelfDestroying& self = *static_cast<SelfDestroying*>(data);
            self.alarm->stop();
            self.alarm.reset();
            ++*self.ended;
        }
        std::unique_ptr<Alarm> alarm;
        std::atomic<int>* ended;
    };
    std::atomic<int> ended{0};
    std::deque<SelfDestroying> objects(20);
    for (SelfDestroying& object : objects) {
        object.ended = &ended;
        object.alarm = std::make_unique<Alarm>(m_reference, nullptr, SelfDestroying::end, &object);
        object.alarm->start(Duration(SOON));
    }
    EXPECT_TRUE(eventually([&] { return ended == 20; }));
}

/// Every thread is created behind the mask, except that of the sanitizer, which blocks signals anyway.
TEST(AlarmEngine, expiryWhileTheSignalIsBlockedEverywhereIsNotLost) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGNAL);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    Engine engine(SIGNAL, "Blocked", Attr());
    TestAlarm alarm(EnginePtr(nullptr, &engine));
    alarm.start(AT_ONCE);
    sigset_t pending;
    EXPECT_TRUE(eventually([&] { return sigpending(&pending) == 0 && sigismember(&pending, SIGNAL) == 1; }));
    EXPECT_EQ(0, alarm.count);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(alarm.waitFor(1));
}

// ---- how the thread is scheduled ----

void expectCallbacks(Engine& engine, char const* thread_name, int nice) {
    TestAlarm alarm(EnginePtr(nullptr, &engine));
    alarm.start(AT_ONCE);
    EXPECT_TRUE(alarm.waitFor(1));
    alarm.stop();
    EXPECT_EQ(nice, alarm.nice);
    EXPECT_EQ(thread_name, alarm.thread_name);
}

TEST(AlarmEngine, isScheduledAsItsAttributesSay) {
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param.nice = std::min(getpriority(PRIO_PROCESS, 0) + 3, 19);
    Engine engine(SIGNAL, "Engine", attributes);
    expectCallbacks(engine, "Engine", attributes.param.nice);
}

TEST(AlarmEngine, olderFormTakesAPriorityAndInheritsWithAPriorityOfZero) {
    int const mine = getpriority(PRIO_PROCESS, 0);
    {
        int const wanted = std::min(mine + 4, 19);
        Engine engine(SIGNAL, "Older", wanted);
        expectCallbacks(engine, "Older", wanted);
    }
    Engine engine(SIGNAL, "Older", 0);
    expectCallbacks(engine, "Older", mine);
}

// ---- the engine of the process ----

/// Destroys itself in its callback, waits until the thread that destroys the last alarm sleeps, and creates a successor.
struct SelfReplacing {
    static void replace(void* data) {
        SelfReplacing& self = *static_cast<SelfReplacing*>(data);
        self.alarm->stop();
        self.alarm.reset();
        self.entered.set();
        EXPECT_TRUE(eventually([&] { return self.destroyer != 0; }));
        waitUntilAsleep(getpid(), self.destroyer);
        self.successor = std::make_unique<TestAlarm>(EnginePtr(Alarm::DEFAULT_TIMER));
        self.successor->start(AT_ONCE);
        self.replaced.set();
    }

    Event entered;
    Event replaced;
    std::atomic<pid_t> destroyer{0};
    std::unique_ptr<TestAlarm> successor;
    std::unique_ptr<Alarm> alarm =
        std::make_unique<Alarm>(EnginePtr(Alarm::DEFAULT_TIMER), nullptr, replace, this);
};

VESK_TEST_BY(expectInChild, DefaultTimer, staysForAnAlarmThatACallbackCreatesWhileTheLastOneIsDestroyed) {
    SelfReplacing object;
    auto last = std::make_unique<TestAlarm>(EnginePtr(Alarm::DEFAULT_TIMER));
    object.alarm->start(Duration(AT_ONCE));
    ASSERT_TRUE(object.entered.wait());
    object.destroyer = getThreadId();
    last.reset();
    EXPECT_TRUE(object.replaced.wait());
    EXPECT_TRUE(object.successor->waitFor(1));
}

// ---- a lock that fails ----

TEST(AlarmLock, failureIsFatal) {
    struct {
        std::string name;
        void (*call)(Engine& engine, Alarm& alarm);
    } const rows[] = {
        {"add", [](Engine& engine, Alarm& alarm) { engine.add(&alarm, Duration(AN_HOUR)); }},
        {"remove", [](Engine& engine, Alarm& alarm) { engine.remove(&alarm); }},
        {"ring", [](Engine& engine, Alarm&) { Engine::ring(&engine); }},
    };
    for (auto const& row : rows) {
        std::string const place = "ABORT framework/src/vesk/posix/Alarm " + row.name;
        for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
            bool const locks = function == &inject_pthread_mutex_lock;
            Engine engine(SIGNAL, "Engine", Attr());
            Alarm alarm(EnginePtr(nullptr, &engine), nullptr, doNothing, nullptr);
            EventRecorder const recorder;
            {
                Fault const fault(*function, EINVAL);
                row.call(engine, alarm);
            }
            EXPECT_EQ(
                (locks ? place + ": error locking\n" : "") + place + ": error unlocking", recorder.getText());
        }
    }
}

// ---- many alarms ----

TEST_F(AlarmOnEngine, hundredThousandArePendingAndEachRingsOnceAtItsTime) {
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
        rows.emplace_back(m_reference, rung).alarm.start(Duration(AN_HOUR));
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
    // A part of them is taken back. On a slow machine some of these have rung already.
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

/// An alarm that knows whether it may ring. Nothing in it is atomic: the engine's lock must order it all.
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

TEST_F(AlarmOnEngine, removedAlarmNeverRingsHoweverManyThreadsAddMoveAndRemove) {
    constexpr int ALARMS = 30;
    std::atomic<int> rung{0};
    std::atomic<int> rung_wrongly{0};
    auto const change = [&](int thread) {
        std::mt19937 random(static_cast<unsigned int>(thread) + 1);
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
    runThreads(4, change);
    EXPECT_GT(rung, 0);
    EXPECT_EQ(0, rung_wrongly);
}

TEST_F(AlarmOnEngine, alarmsThatAreStillPendingAfterManyChangesRing) {
    std::deque<TestAlarm> alarms;
    for (int i = 0; i < 40; ++i) {
        alarms.emplace_back(m_reference);
    }
    runThreads(4, [&alarms](int thread) {
        auto const t = static_cast<unsigned int>(thread);
        std::mt19937 random(t);
        for (int i = 0; i < 5000 / SLOW; ++i) {
            TestAlarm& alarm = alarms[t * 10 + random() % 10];
            if (random() % 3 == 0) {
                alarm.stop();
            } else {
                alarm.start(static_cast<long long>(random() % 5));
            }
        }
        for (size_t i = t * 10; i < t * 10 + 10; ++i) {
            alarms[i].stop();
            alarms[i].count = 0;
            alarms[i].start(static_cast<long long>(random() % 50));
        }
    });
    for (TestAlarm& alarm : alarms) {
        EXPECT_TRUE(alarm.waitFor(1));
        alarm.stop();
        EXPECT_EQ(1, alarm.count);
    }
}

} // namespace
