#include "KernelTimers.h"
#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "frame/FakeClock.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/NewFault.h"
#include "support/Processes.h"

#include <vesk/Alarm.h>
#include <vesk/Dispatcher.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

/// The engine's book-keeping: the clock is the test's, the kernel's timer is only recorded, and the tests call `ring`.

namespace {

using support::FakeClock;
using support::Fault;
using support::KernelTimers;
using support::ms;
using support::New;
using support::NewFault;
using support::runInChild;
using support::Span;
using support::Spans;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::Alarm;
using vesk::Dispatcher;
using vesk::Message;

using Engine = Alarm::Timer;

int const SIGNAL = SIGRTMIN + 5;
constexpr long long START = 5000000; // What the clock shows at first, in milliseconds.
constexpr Span AT_ONCE{0, 1};

/// An alarm that tells each call in a list, and may do something else then.
class Bell {
public:
    Bell(Engine& engine, std::vector<Bell*>& rung, Message::Sink* sink = nullptr)
        : alarm(std::SharedBase::Ptr<Engine>(nullptr, &engine), sink, call, this), m_rung(rung) {}

    std::function<void()> action;
    Alarm alarm;

private:
    static void call(void* data) {
        Bell* const self = static_cast<Bell*>(data);
        self->m_rung.push_back(self);
        if (self->action) {
            self->action();
        }
    }

    std::vector<Bell*>& m_rung;
};

using Rung = std::vector<Bell*>;

class AlarmTimer : public testing::Test {
protected:
    AlarmTimer() : m_clock(START / 1000, 0), m_engine(SIGNAL, "Engine", vesk::sched::Attr()) {}

    void setTime(long long since_start) {
        long long const now = START + since_start;
        m_clock.set(static_cast<time_t>(now / 1000), static_cast<long>(now % 1000) * 1000000);
    }
    void add(Bell& bell, long long delay) { m_engine.add(&bell.alarm, Duration(delay)); }
    void remove(Bell& bell) { m_engine.remove(&bell.alarm); }

    /// Which bells a ring at that time calls.
    Rung ringAt(long long since_start) {
        setTime(since_start);
        m_rung.clear();
        Engine::ring(&m_engine);
        return m_rung;
    }

    /// How many of some alarms are pending.
    void expectNothingPending() {
        KernelTimers::getCurrent()->take();
        EXPECT_EQ(Rung(), ringAt(1000000000));
        EXPECT_EQ(Spans(), m_timers.take());
    }

    FakeClock m_clock;
    KernelTimers m_timers;
    Engine m_engine;
    Rung m_rung;
    // Their addresses rise.
    Bell m_a{m_engine, m_rung};
    Bell m_b{m_engine, m_rung};
    Bell m_c{m_engine, m_rung};
};

TEST_F(AlarmTimer, hasATimerOnTheMonotonicClockThatRaisesItsSignal) {
    EXPECT_EQ(1, m_timers.created);
    EXPECT_EQ(CLOCK_MONOTONIC, m_timers.clock);
    sigevent expected{};
    expected.sigev_notify = SIGEV_SIGNAL;
    expected.sigev_signo = SIGNAL;
    EXPECT_EQ(SIGEV_SIGNAL, m_timers.event.sigev_notify);
    EXPECT_EQ(SIGNAL, m_timers.event.sigev_signo);
    EXPECT_EQ(nullptr, m_timers.event.sigev_value.sival_ptr);
    EXPECT_EQ(0, memcmp(&expected, &m_timers.event, sizeof expected));
}

TEST_F(AlarmTimer, isNotArmedAtFirst) {
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(AlarmTimer, armsForTheFirstAlarm) {
    add(m_a, 1500);
    EXPECT_EQ(Spans{ms(1500)}, m_timers.take());
    EXPECT_EQ(m_timers.created_timer, m_timers.armed_timer);
}

TEST_F(AlarmTimer, anEarlierAlarmArmsAndALaterOneDoesNot) {
    add(m_b, 1000);
    EXPECT_EQ(Spans{ms(1000)}, m_timers.take());
    add(m_c, 1001);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_a, 999);
    EXPECT_EQ(Spans{ms(999)}, m_timers.take());
}

TEST_F(AlarmTimer, anAlarmAtTheSameTimeDoesNotArm) {
    add(m_a, 1000);
    m_timers.take();
    add(m_b, 1000);
    setTime(400);
    add(m_c, 600);
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(AlarmTimer, aDelayOfZeroArmsForOneNanosecond) {
    add(m_a, 0);
    EXPECT_EQ(Spans{AT_ONCE}, m_timers.take());
    EXPECT_EQ(Rung{&m_a}, ringAt(0));
}

TEST_F(AlarmTimer, aDelayBelowZeroCountsAsZero) {
    for (long long const delay : {-1LL, -1000LL, std::numeric_limits<long long>::min()}) {
        add(m_a, 0);
        m_timers.take();
        add(m_a, delay);
        EXPECT_EQ(Spans(), m_timers.take());
        remove(m_a);
        add(m_a, delay);
        EXPECT_EQ(Spans{AT_ONCE}, m_timers.take());
        add(m_b, 0);
        add(m_c, delay);
        EXPECT_EQ(Spans(), m_timers.take()) << "all were to be due together";
        EXPECT_EQ((Rung{&m_a, &m_b, &m_c}), ringAt(0));
        m_timers.take();
    }
}

struct Delay {
    long long ms;
    Span span;
};

class AlarmTimerDelay : public AlarmTimer, public testing::WithParamInterface<Delay> {};

TEST_P(AlarmTimerDelay, isSplitIntoSecondsAndNanoseconds) {
    add(m_a, GetParam().ms);
    EXPECT_EQ(Spans{GetParam().span}, m_timers.take());
}

INSTANTIATE_TEST_SUITE_P(
    All, AlarmTimerDelay,
    testing::Values(
        Delay{1, {0, 1000000}}, Delay{999, {0, 999000000}}, Delay{1000, {1, 0}}, Delay{1001, {1, 1000000}},
        Delay{59999, {59, 999000000}}, Delay{4294967295, {4294967, 295000000}},
        Delay{2147483647999, {2147483647, 999000000}}));

/// 32-bit systems have a short `time_t`.
TEST_F(AlarmTimer, aDelayBeyondTheSystemsLongestIsArmedInPieces) {
    constexpr time_t LONGEST = std::numeric_limits<time_t>::max();
    constexpr long long DELAY = 2147483648000 + 5000;
    bool const fits = DELAY / 1000 <= LONGEST;
    add(m_a, DELAY);
    EXPECT_EQ(Spans{fits ? ms(DELAY) : (Span{LONGEST, 0})}, m_timers.take());
    EXPECT_EQ(Rung(), ringAt(1000));
    Span const again = fits ? ms(DELAY - 1000) : Span{LONGEST, 0};
    EXPECT_EQ((Spans{again, again}), m_timers.take());
    EXPECT_EQ(Rung(), ringAt(5001));
    Span const last = ms(DELAY - 5001);
    EXPECT_EQ((Spans{last, last}), m_timers.take());
}

TEST_F(AlarmTimer, anEngineWithoutAlarmsCountsAsArmedForAFarTime) {
    constexpr long long FAR_AWAY = 18446744073709551;
    add(m_a, FAR_AWAY);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_a, FAR_AWAY - 1);
    EXPECT_EQ(1U, m_timers.take().size());
}

TEST_F(AlarmTimer, anEngineThatHasLostItsAlarmsIsArmedForNothing) {
    remove(m_a);
    add(m_a, 18446744073709552);
    EXPECT_EQ(1U, m_timers.take().size());
}

TEST_F(AlarmTimer, aDelayThatGoesBeyondAllTimeIsForever) {
    constexpr long long LONGEST = std::numeric_limits<long long>::max();
    for (long long const delay : {LONGEST, LONGEST - START, LONGEST - START + 1}) {
        remove(m_a);
        add(m_a, delay);
        EXPECT_EQ(Spans(), m_timers.take());
        EXPECT_EQ(Rung(), ringAt(1000));
        EXPECT_EQ(Spans(), m_timers.take());
        // And it keeps nobody else from ringing.
        add(m_b, 10);
        EXPECT_EQ(Spans{ms(10)}, m_timers.take());
        EXPECT_EQ(Rung{&m_b}, ringAt(1010));
        EXPECT_EQ(Spans(), m_timers.take());
        setTime(0);
    }
}

TEST_F(AlarmTimer, anAlarmThatIsDueIsTakenOutAndCalled) {
    add(m_a, 100);
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Rung(), ringAt(100));
    EXPECT_EQ(Rung(), ringAt(1000));
}

TEST_F(AlarmTimer, anAlarmIsDueWhenItsTimeIsNowAndNotBefore) {
    add(m_a, 100);
    add(m_b, 101);
    EXPECT_EQ(Rung(), ringAt(99));
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Rung{&m_b}, ringAt(101));
}

TEST_F(AlarmTimer, alarmsOfTheSameTimeRingTogetherInTheOrderOfTheirAddresses) {
    add(m_c, 100);
    add(m_a, 100);
    add(m_b, 100);
    EXPECT_EQ((Rung{&m_a, &m_b, &m_c}), ringAt(100));
}

TEST_F(AlarmTimer, theOrderOfAddressesHoldsWhateverTheTimesWere) {
    add(m_b, 300);
    add(m_a, 200);
    add(m_c, 100);
    EXPECT_EQ((Rung{&m_a, &m_b, &m_c}), ringAt(300));
}

TEST_F(AlarmTimer, armsForTheEarliestThatIsLeftAfterARing) {
    add(m_a, 100);
    add(m_b, 250);
    add(m_c, 700);
    m_timers.take();
    EXPECT_EQ(Rung{&m_a}, ringAt(110));
    EXPECT_EQ(Spans{ms(140)}, m_timers.take());
    EXPECT_EQ(Rung{&m_b}, ringAt(250));
    EXPECT_EQ(Spans{ms(450)}, m_timers.take());
    EXPECT_EQ(Rung{&m_c}, ringAt(800));
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(AlarmTimer, removingTheOnlyAlarmLeavesTheTimerArmedAndTheNextRingDoesNothing) {
    add(m_a, 100);
    m_timers.take();
    remove(m_a);
    EXPECT_EQ(Spans(), m_timers.take());
    EXPECT_EQ(Rung(), ringAt(100));
    EXPECT_EQ(Spans(), m_timers.take());
}

TEST_F(AlarmTimer, removingTheEarliestLeavesTheTimerArmedButTheNextOneCounts) {
    add(m_a, 100);
    add(m_b, 500);
    m_timers.take();
    remove(m_a);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_c, 500);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_c, 499);
    EXPECT_EQ(Spans{ms(499)}, m_timers.take());
}

TEST_F(AlarmTimer, removingWhatIsNotPendingIsHarmless) {
    remove(m_a);
    add(m_b, 100);
    m_timers.take();
    remove(m_a);
    remove(m_a);
    EXPECT_EQ(Spans(), m_timers.take());
    EXPECT_EQ(Rung{&m_b}, ringAt(100));
    remove(m_b);
    expectNothingPending();
}

TEST_F(AlarmTimer, movingAnAlarmToAnEarlierTimeArmsAtOnce) {
    add(m_a, 1000);
    m_timers.take();
    setTime(100);
    add(m_a, 200);
    EXPECT_EQ(Spans{ms(200)}, m_timers.take());
    EXPECT_EQ(Rung{&m_a}, ringAt(300));
    expectNothingPending();
}

TEST_F(AlarmTimer, movingAnAlarmToALaterTimeLeadsToAnEarlyRingThatArmsAgainAndRunsNothing) {
    add(m_a, 100);
    m_timers.take();
    setTime(50);
    add(m_a, 200);
    EXPECT_EQ(Spans(), m_timers.take());
    EXPECT_EQ(Rung(), ringAt(100));
    EXPECT_EQ(Spans{ms(150)}, m_timers.take());
    EXPECT_EQ(Rung{&m_a}, ringAt(250));
}

TEST_F(AlarmTimer, afterAnAlarmWasPutOffTheOldTimeStillCountsAsArmed) {
    add(m_a, 100);
    m_timers.take();
    add(m_a, 1000);
    add(m_b, 500);
    EXPECT_EQ(Spans(), m_timers.take());
    // Whatever is removed, the smallest time is looked for.
    remove(m_c);
    add(m_c, 500);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_c, 499);
    EXPECT_EQ(Spans{ms(499)}, m_timers.take());
}

TEST_F(AlarmTimer, aRingThatComesTooEarlyArmsTwice) {
    add(m_a, 100);
    m_timers.take();
    EXPECT_EQ(Rung(), ringAt(30));
    EXPECT_EQ((Spans{ms(70), ms(70)}), m_timers.take());
}

TEST_F(AlarmTimer, aRingOfAnEngineThatNeverHadAnAlarmRunsNothing) {
    EXPECT_EQ(Rung(), ringAt(100));
}

TEST_F(AlarmTimer, aCallbackMayAddItsOwnAlarmAgain) {
    m_a.action = [this] { add(m_a, 40); };
    add(m_a, 100);
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Rung{&m_a}, ringAt(140));
    EXPECT_EQ(Rung(), ringAt(179));
}

TEST_F(AlarmTimer, whatACallbackArmsIsOverwrittenWithTheSameTimeSeenFromTheBeginningOfTheRing) {
    m_a.action = [this] {
        setTime(130); // The callback takes its time.
        add(m_b, 50);
    };
    add(m_a, 100);
    m_timers.take();
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ((Spans{ms(50), ms(80)}), m_timers.take());
}

TEST_F(AlarmTimer, aSlowCallbackDelaysTheNextAlarmByItsOwnLength) {
    m_a.action = [this] { setTime(10000); };
    add(m_a, 100);
    add(m_b, 200);
    m_timers.take();
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Spans{ms(100)}, m_timers.take()) << "armed at 10 s, though due since 200 ms";
}

TEST_F(AlarmTimer, aCallbackThatAddsALaterAlarmArmsNothingOfItsOwn) {
    m_a.action = [this] { add(m_c, 900); };
    add(m_a, 100);
    add(m_b, 200);
    m_timers.take();
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Spans{ms(100)}, m_timers.take());
}

TEST_F(AlarmTimer, aCallbackCannotTakeBackAnotherAlarmThatIsDueWithIt) {
    m_a.action = [this] { remove(m_b); };
    add(m_a, 100);
    add(m_b, 100);
    EXPECT_EQ((Rung{&m_a, &m_b}), ringAt(100));
    expectNothingPending();
}

TEST_F(AlarmTimer, aCallbackCanTakeBackWhatIsNotDue) {
    m_a.action = [this] { remove(m_b); };
    add(m_a, 100);
    add(m_b, 101);
    m_timers.take();
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Spans(), m_timers.take());
    expectNothingPending();
}

TEST_F(AlarmTimer, anAlarmThatACallbackAddsToThoseThatAreDueRingsNextTime) {
    m_a.action = [this] { add(m_b, 0); };
    add(m_a, 100);
    add(m_b, 100);
    m_timers.take();
    EXPECT_EQ((Rung{&m_a, &m_b}), ringAt(100));
    EXPECT_EQ((Spans{AT_ONCE, AT_ONCE}), m_timers.take());
    EXPECT_EQ(Rung{&m_b}, ringAt(100));
}

TEST_F(AlarmTimer, aCallbackMayRingItsEngine) {
    m_a.action = [this] { Engine::ring(&m_engine); };
    m_b.action = [this] { add(m_c, 0); };
    add(m_a, 100);
    add(m_b, 100);
    EXPECT_EQ((Rung{&m_a, &m_b}), ringAt(100));
    EXPECT_EQ(Rung{&m_c}, ringAt(100));
}

/// Two engines with callbacks that call each other's engine: one already waits, the other runs in this thread.
class AlarmTimerOfTwo : public AlarmTimer {
protected:
    /// Rings the other engine in another thread. The callback of `m_other_first` waits there for this thread's engine.
    void ringOtherEngine() {
        m_other_first.action = [this] { remove(m_c); };
        m_thread = std::thread([this] {
            for (Bell* const bell : {&m_other_first, &m_other_second}) {
                m_other.add(&bell->alarm, Duration(0)); // Here, since the clock is not faked here.
            }
            m_id = support::getThreadId();
            Engine::ring(&m_other);
        });
        EXPECT_TRUE(support::eventually([this] { return m_id != 0; }));
        support::waitUntilAsleep(getpid(), m_id);
    }

    /// What the engine of this thread rings, with a callback that makes a call while the other engine waits for it.
    void ringWith(std::function<void()> const& call) {
        m_a.action = [this, call] {
            ringOtherEngine();
            call();
            EXPECT_EQ(Rung{&m_other_first}, m_other_rung) << "the other callback goes on afterwards";
        };
        add(m_a, 100);
        EXPECT_EQ(Rung{&m_a}, ringAt(100));
        m_thread.join();
    }

    Engine m_other{SIGNAL + 1, "Other", vesk::sched::Attr()};
    Rung m_other_rung;
    Bell m_other_first{m_other, m_other_rung};
    Bell m_other_second{m_other, m_other_rung};
    std::thread m_thread;
    std::atomic<pid_t> m_id{0};
};

TEST_F(AlarmTimerOfTwo, aCallForWhichTheOtherCallbackWaitsDoesNotWaitForIt) {
    Bell later(m_other, m_other_rung);
    ringWith([&] { m_other.add(&later.alarm, Duration(50)); });
    EXPECT_EQ((Rung{&m_other_first, &m_other_second}), m_other_rung);
    setTime(150);
    Engine::ring(&m_other);
    EXPECT_EQ((Rung{&m_other_first, &m_other_second, &later}), m_other_rung);
}

TEST_F(AlarmTimerOfTwo, anAlarmThatIsDueThereAndRemovedDoesNotRing) {
    ringWith([this] { m_other.remove(&m_other_second.alarm); });
    EXPECT_EQ(Rung{&m_other_first}, m_other_rung);
}

TEST_F(AlarmTimerOfTwo, theAlarmWhoseCallbackWaitsDoesNotRingAgain) {
    ringWith([this] {
        m_other.add(&m_other_first.alarm, Duration(0));
        m_other.remove(&m_other_first.alarm);
    });
    EXPECT_EQ((Rung{&m_other_first, &m_other_second}), m_other_rung);
    Engine::ring(&m_other);
    EXPECT_EQ((Rung{&m_other_first, &m_other_second}), m_other_rung);
}

TEST_F(AlarmTimerOfTwo, aRingForWhichTheOtherCallbackWaitsLeavesItToThatOne) {
    ringWith([this] { Engine::ring(&m_other); });
    EXPECT_EQ((Rung{&m_other_first, &m_other_second}), m_other_rung);
}

TEST_F(AlarmTimerOfTwo, aThirdEngineMayStandBetweenThem) {
    Engine third(SIGNAL + 2, "Third", vesk::sched::Attr());
    Rung third_rung;
    Bell bell(third, third_rung);
    std::atomic<pid_t> id{0};
    std::thread thread;
    bell.action = [this] {
        m_other.remove(&m_other_second.alarm);
    }; // Waits for the other, that for the first.
    ringWith([&] {
        thread = std::thread([&] {
            third.add(&bell.alarm, Duration(0));
            id = support::getThreadId();
            Engine::ring(&third);
        });
        EXPECT_TRUE(support::eventually([&] { return id != 0; }));
        support::waitUntilAsleep(getpid(), id);
        third.remove(&bell.alarm);
    });
    thread.join();
    EXPECT_EQ((Rung{&m_other_first, &m_other_second}), m_other_rung);
    EXPECT_EQ(Rung{&bell}, third_rung);
}

/// Counts what is pushed, and keeps it.
class KeepingSink : public Message::Sink {
public:
    ~KeepingSink() override {
        for (Message* const message : messages) {
            message->dismiss();
        }
    }
    void push(Message* message) override {
        if (throws) {
            throw std::runtime_error("full");
        }
        messages.push_back(message);
    }

    bool throws = false;
    std::vector<Message*> messages;
};

TEST_F(AlarmTimer, anAlarmWithASinkGetsAMessageWithItsCallback) {
    KeepingSink sink;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    EXPECT_EQ(Rung(), ringAt(100));
    ASSERT_EQ(1U, sink.messages.size());
    EXPECT_NE(nullptr, dynamic_cast<Message::Callback*>(sink.messages[0]));
    sink.messages[0]->invoke();
    EXPECT_EQ(Rung{&bell}, m_rung);
}

TEST_F(AlarmTimer, aMessageThatWasPushedIsOutOfReachOfRemove) {
    KeepingSink sink;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    ringAt(100);
    remove(bell);
    ASSERT_EQ(1U, sink.messages.size());
    sink.messages[0]->invoke();
    EXPECT_EQ(Rung{&bell}, m_rung);
}

TEST_F(AlarmTimer, asksOnlyTheMonotonicClock) {
    add(m_a, 100);
    EXPECT_EQ(CLOCK_MONOTONIC, m_clock.getClock());
    for (clockid_t const other : {CLOCK_REALTIME}) {
        timespec time{};
        clock_gettime(other, &time);
        ringAt(50);
        EXPECT_EQ(CLOCK_MONOTONIC, m_clock.getClock());
    }
    Fault const count(inject_clock_gettime, 0);
    add(m_a, 100);
    EXPECT_EQ(1, count.getCalls());
    Engine::ring(&m_engine);
    EXPECT_EQ(2, count.getCalls());
    remove(m_a);
    EXPECT_EQ(2, count.getCalls());
}

// ---- Failures ----

/// True if another thread can have the engine's lock.
bool isUnlocked(Engine& engine, Alarm& alarm) {
    support::Event done;
    std::thread other([&] {
        engine.remove(&alarm);
        done.set();
    });
    bool const unlocked = done.wait();
    other.join();
    return unlocked;
}

TEST_F(AlarmTimer, whatTheKernelAnswersDoesNotMatter) {
    KernelTimers const all(KernelTimers::ALL);
    Fault const fault(inject_timer_settime, EINVAL, 1, Fault::FOREVER);
    add(m_a, 100);
    add(m_b, 50);
    EXPECT_EQ((Rung{&m_b}), ringAt(50));
    EXPECT_EQ((Rung{&m_a}), ringAt(100));
    EXPECT_TRUE(support::chainIs({}));
}

TEST_F(AlarmTimer, anEngineWithoutATimerTouchesNoOtherTimer) {
    timer_t const timer_of_another_engine = m_timers.created_timer;
    {
        Fault const fault(inject_timer_create, EAGAIN);
        Engine engine(SIGNAL + 1, "Other", vesk::sched::Attr());
        EXPECT_TRUE(support::chainIs({}));
        Bell bell(engine, m_rung);
        engine.add(&bell.alarm, Duration(10));
        EXPECT_NE(timer_of_another_engine, m_timers.armed_timer);
        itimerspec value{};
        EXPECT_EQ(-1, timer_gettime(m_timers.armed_timer, &value));
        EXPECT_EQ(EINVAL, errno);
        setTime(10);
        Engine::ring(&engine);
        EXPECT_EQ(Rung{&bell}, m_rung);
    }
    EXPECT_EQ(m_timers.armed_timer, m_timers.deleted_timer);
}

TEST_F(AlarmTimer, aRingWithoutMemoryThrowsAndChangesNothing) {
    add(m_a, 100);
    add(m_b, 200);
    m_timers.take();
    setTime(100);
    {
        NewFault const fault(New::SINGLE);
        EXPECT_THROW(Engine::ring(&m_engine), std::bad_alloc);
    }
    EXPECT_TRUE(isUnlocked(m_engine, m_c.alarm));
    EXPECT_EQ(Rung{&m_a}, ringAt(100));
    EXPECT_EQ(Spans{ms(100)}, m_timers.take());
}

TEST_F(AlarmTimer, aRingAllocatesOnceForItsListAndNotForEachAlarm) {
    std::deque<Bell> bells;
    for (int i = 0; i < 300; ++i) {
        add(bells.emplace_back(m_engine, m_rung), 100);
    }
    m_rung.reserve(bells.size());
    setTime(100);
    int calls = 0;
    std::vector<size_t> sizes;
    {
        NewFault const count(New::SINGLE, 1, 0);
        Engine::ring(&m_engine);
        calls = count.getCalls();
        sizes = count.getSizes();
    }
    EXPECT_EQ(1, calls);
    EXPECT_EQ(300 * sizeof(Alarm*), sizes.at(0));
    EXPECT_EQ(300U, m_rung.size());
}

TEST_F(AlarmTimer, aMessageWithoutMemoryLeavesTheEngineArmedAndUnlocked) {
    KeepingSink sink;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    add(m_b, 300);
    m_timers.take();
    setTime(100);
    {
        NewFault const fault(New::SINGLE, 2);
        EXPECT_THROW(Engine::ring(&m_engine), std::bad_alloc);
    }
    EXPECT_EQ(Spans{ms(200)}, m_timers.take());
    EXPECT_TRUE(isUnlocked(m_engine, m_c.alarm));
    EXPECT_EQ(Rung{&m_b}, ringAt(300));
}

TEST_F(AlarmTimer, aSinkThatThrowsLosesNoMemory) {
    KeepingSink sink;
    sink.throws = true;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    setTime(100);
    EXPECT_THROW(Engine::ring(&m_engine), std::runtime_error); // The address sanitizer sees the message.
    EXPECT_TRUE(isUnlocked(m_engine, m_c.alarm));
    expectNothingPending();
}

TEST_F(AlarmTimer, aCallbackThatThrowsLeavesTheEngineArmedAndUnlocked) {
    m_a.action = [] { throw std::runtime_error("broken"); };
    add(m_a, 100);
    add(m_b, 100);
    add(m_c, 400);
    m_timers.take();
    setTime(100);
    EXPECT_THROW(Engine::ring(&m_engine), std::runtime_error);
    EXPECT_EQ(Spans{ms(300)}, m_timers.take());
    Bell other(m_engine, m_rung);
    EXPECT_TRUE(isUnlocked(m_engine, other.alarm));
    add(other, 250);
    EXPECT_EQ(Spans{ms(250)}, m_timers.take());
    EXPECT_EQ(Rung{&other}, ringAt(350));
    EXPECT_EQ(Rung{&m_c}, ringAt(400)) << "b is given up";
}

TEST_F(AlarmTimer, anAddWithoutMemoryChangesNothing) {
    // However many there are, at some number one more needs memory.
    int refused = 0;
    std::deque<Bell> bells;
    for (int i = 0; i < 3000; ++i) {
        Bell& bell = bells.emplace_back(m_engine, m_rung);
        long long const delay = 100000 - i;
        for (int nth = 1;; ++nth) {
            m_timers.take();
            NewFault const fault(New::SINGLE, nth);
            try {
                add(bell, delay);
                break;
            } catch (std::bad_alloc const&) {
                ++refused;
                EXPECT_EQ(Spans(), m_timers.take());
            }
        }
        EXPECT_EQ(Spans{ms(delay)}, m_timers.take());
    }
    EXPECT_GT(refused, 2);
    EXPECT_EQ(3000U, ringAt(200000).size());
    expectNothingPending();
}

TEST_F(AlarmTimer, anAddWithoutMemoryLeavesTheAlarmOut) {
    std::deque<Bell> bells;
    for (bool refused = false; !refused;) {
        Bell& bell = bells.emplace_back(m_engine, m_rung);
        NewFault const fault(New::SINGLE);
        try {
            add(bell, 100);
        } catch (std::bad_alloc const&) {
            refused = true;
        }
    }
    Rung const rung = ringAt(100);
    EXPECT_EQ(bells.size() - 1, rung.size());
    EXPECT_EQ(0, std::count(rung.begin(), rung.end(), &bells.back()));
}

// ---- Beginning and end ----

bool isCaught(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler != SIG_DFL;
}

TEST(AlarmTimerLife, theThreadAndTheHandlerAreThereBeforeTheTimerAndTheThreadGoesBeforeIt) {
    int const threads = support::countThreads();
    KernelTimers timers;
    int calls = 0;
    auto const check = [&](int expected_threads) {
        ++calls;
        EXPECT_TRUE(support::hasThreads(expected_threads));
        EXPECT_TRUE(isCaught(SIGNAL));
    };
    timers.on_create = [&] { check(threads + 1); };
    timers.on_delete = [&] { check(threads); };
    EXPECT_FALSE(isCaught(SIGNAL));
    {
        Engine const engine(SIGNAL, "Engine", vesk::sched::Attr());
        EXPECT_EQ(1, calls);
    }
    EXPECT_EQ(2, calls);
    EXPECT_EQ(1, timers.deleted);
    EXPECT_EQ(timers.created_timer, timers.deleted_timer);
    EXPECT_FALSE(isCaught(SIGNAL));
    EXPECT_TRUE(support::hasThreads(threads));
}

TEST(AlarmTimerLife, alarmsThatArePendingAtTheEndAreForgotten) {
    std::vector<Bell*> rung;
    {
        Engine engine(SIGNAL, "Engine", vesk::sched::Attr());
        Bell bell(engine, rung);
        engine.add(&bell.alarm, Duration(1000000));
    }
    EXPECT_EQ(Rung(), rung);
}

/// The kernel may have raised the signal when the timer is deleted, without a thread having handled it yet.
TEST(AlarmTimerLife, aSignalThatIsStillOnItsWayAtTheEndDoesNotEndTheProcess) {
    auto const end = runInChild([] {
        KernelTimers timers;
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGNAL);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr); // Also for the engine's thread.
        timers.on_delete = [] {
            kill(getpid(), SIGNAL);
            kill(getpid(), SIGNAL);
        };
        { Engine const engine(SIGNAL, "Engine", vesk::sched::Attr()); }
        EXPECT_EQ(1, timers.deleted);
        sigset_t pending;
        sigpending(&pending);
        EXPECT_EQ(0, sigismember(&pending, SIGNAL));
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    });
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

TEST(AlarmTimerLife, anEngineForASignalThatCannotBeCaughtComesAndGoes) {
    KernelTimers const timers; // Keeps SIGKILL from being raised.
    for (int const signal : {0, SIGKILL}) {
        Engine engine(signal, "Engine", vesk::sched::Attr());
        std::vector<Bell*> rung;
        Bell bell(engine, rung);
        engine.add(&bell.alarm, Duration(0));
        Engine::ring(&engine);
        EXPECT_EQ(Rung{&bell}, rung);
    }
    EXPECT_TRUE(support::chainIs({}));
}

TEST(AlarmTimerLife, aSignalFromElsewhereIsAnEarlyRing) {
    KernelTimers timers;
    Engine engine(SIGNAL, "Engine", vesk::sched::Attr());
    std::vector<Bell*> rung;
    Bell bell(engine, rung);
    engine.add(&bell.alarm, Duration(3600000));
    timers.take();
    kill(getpid(), SIGNAL);
    ASSERT_TRUE(support::eventually([&] { return timers.countArmings() == 3; }));
    engine.remove(&bell.alarm);
    EXPECT_EQ(Rung(), rung);
}

// ---- Against a model ----

/// The engine told as plainly as can be: a map, and a walk over all of it for each question.
class Model {
public:
    void add(Alarm* alarm, long long now, long long delay) {
        m_expiries[alarm] = now + delay;
        if (m_next > now + delay) {
            m_next = now + delay;
            arm(delay);
        }
    }
    void remove(Alarm* alarm) {
        m_expiries.erase(alarm);
        lookForNext();
    }
    std::vector<Alarm*> beginRing(long long now) {
        if (m_next > now) {
            armForNext(now);
            return {};
        }
        std::vector<Alarm*> due;
        for (auto const& [alarm, expiry] : m_expiries) {
            if (expiry <= now) {
                due.push_back(alarm);
            }
        }
        for (Alarm* const alarm : due) {
            m_expiries.erase(alarm);
        }
        lookForNext();
        return due;
    }
    void endRing(long long now) { armForNext(now); }

    Spans take() { return std::exchange(m_spans, {}); }
    size_t getCount() const { return m_expiries.size(); }
    Alarm* getAny(size_t i) const { return std::next(m_expiries.begin(), static_cast<long>(i))->first; }

private:
    static constexpr long long NEVER = std::numeric_limits<long long>::max();

    void arm(long long delay) {
        constexpr time_t LONGEST = std::numeric_limits<time_t>::max();
        m_spans.push_back(delay == 0 ? AT_ONCE : delay / 1000 > LONGEST ? Span{LONGEST, 0} : ms(delay));
    }
    void armForNext(long long now) {
        if (m_next < NEVER) {
            arm(m_next - now);
        }
    }
    void lookForNext() {
        m_next = NEVER;
        for (auto const& entry : m_expiries) {
            m_next = std::min(m_next, entry.second);
        }
    }

    std::map<Alarm*, long long, std::less<>> m_expiries;
    long long m_next = START + 18446744073709551;
    Spans m_spans;
};

/// How many alarms there are, how many steps, and how far their times lie apart.
struct Course {
    unsigned int seed;
    int alarms;
    int steps;
    long long longest;
};

class AlarmTimerModel : public testing::TestWithParam<Course> {
protected:
    struct Chime {
        Chime(AlarmTimerModel& test, Engine& engine)
            : owner(test), alarm(std::SharedBase::Ptr<Engine>(nullptr, &engine), nullptr, rang, this) {}

        static void rang(void* data) {
            auto* const self = static_cast<Chime*>(data);
            self->owner.m_rung.push_back(&self->alarm);
            if (self->owner.pick(3) == 0) {
                self->owner.change();
            }
        }

        AlarmTimerModel& owner;
        Alarm alarm;
    };

    AlarmTimerModel() : m_clock(START / 1000, 0), m_random(GetParam().seed) {
        for (int i = 0; i < GetParam().alarms; ++i) {
            m_chimes.push_back(std::make_unique<Chime>(*this, m_engine));
        }
    }

    long long pick(long long below) {
        return std::uniform_int_distribution<long long>(0, below - 1)(m_random);
    }
    Alarm* pickAlarm() {
        return &m_chimes[static_cast<size_t>(pick(static_cast<long long>(m_chimes.size())))]->alarm;
    }
    void pass(long long by) {
        m_now += by;
        m_clock.set(static_cast<time_t>(m_now / 1000), static_cast<long>(m_now % 1000) * 1000000);
    }

    /// Adds, moves or removes one, with the engine and with the model.
    void change() {
        if (pick(3) != 0) {
            Alarm* const alarm = pickAlarm();
            long long const delay = pick(GetParam().longest);
            m_engine.add(alarm, Duration(delay));
            m_model.add(alarm, m_now, delay);
        } else {
            bool const known = m_model.getCount() != 0 && pick(4) != 0;
            Alarm* const alarm = known
                ? m_model.getAny(static_cast<size_t>(pick(static_cast<long long>(m_model.getCount()))))
                : pickAlarm();
            m_engine.remove(alarm);
            m_model.remove(alarm);
        }
    }

    void ring() {
        long long const now = m_now;
        std::vector<Alarm*> const due = m_model.beginRing(now);
        m_rung.clear();
        Engine::ring(&m_engine);
        m_model.endRing(now);
        ASSERT_EQ(due, m_rung);
    }

    FakeClock m_clock;
    long long m_now = START;
    KernelTimers m_timers;
    Engine m_engine{SIGNAL, "Engine", vesk::sched::Attr()};
    Model m_model;
    std::mt19937 m_random;
    std::vector<std::unique_ptr<Chime>> m_chimes;
    std::vector<Alarm*> m_rung;
};

TEST_P(AlarmTimerModel, behavesLikeAPlainMap) {
    for (int i = 0; i < GetParam().steps; ++i) {
        pass(pick(4) == 0 ? pick(GetParam().longest / 20 + 2) : 0);
        if (pick(6) == 0) {
            ASSERT_NO_FATAL_FAILURE(ring()) << "in step " << i;
        } else {
            change();
        }
        ASSERT_EQ(m_model.take(), m_timers.take()) << "in step " << i;
    }
    pass(GetParam().longest);
    size_t const left = m_model.getCount();
    ASSERT_NO_FATAL_FAILURE(ring());
    EXPECT_EQ(left, m_rung.size());
}

INSTANTIATE_TEST_SUITE_P(
    All, AlarmTimerModel,
    testing::Values(
        Course{1, 3, 20000, 6}, Course{2, 9, 20000, 20}, Course{3, 40, 20000, 100},
        Course{4, 40, 20000, 100000}, Course{5, 500, 20000, 1000}, Course{6, 3000, 9000, 100000}));

} // namespace
