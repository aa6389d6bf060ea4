#include "KernelTimers.h"
#include "SignalsToMainThread.h"
#include "TimerSupport.h"
#include "frame/FakeClock.h"
#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/Sleeper.h"

#include <vesk/Dispatcher.h>

#include <deque>
#include <limits>
#include <random>
#include <stdexcept>

/// The bookkeeping of the engine: the test sets the clock and calls `ring`, and the kernel's timer is only recorded.

namespace {

using namespace support;
using tarnbase::Duration;
using vesk::Alarm;
using vesk::Message;

int const SIGNAL = SIGRTMIN + 5;
constexpr long long START = 5000000; // The clock at first, in milliseconds.
constexpr Span AT_ONCE{0, 1};
constexpr long long FAR_AWAY = 18446744073709551; // For this time an engine without alarms counts as armed.

/// An alarm that adds itself to a list in each call, and may run an action then.
class Bell {
public:
    Bell(Engine& engine, std::vector<Bell*>& rung, Message::Sink* sink = nullptr)
        : alarm(EnginePtr(nullptr, &engine), sink, call, this), m_rung(rung) {}

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
    void setTime(long long since_start) {
        long long const now = START + since_start;
        m_clock.set(static_cast<time_t>(now / 1000), static_cast<long>(now % 1000) * 1000000);
    }
    void add(Bell& bell, long long delay) { m_engine.add(&bell.alarm, Duration(delay)); }
    void remove(Bell& bell) { m_engine.remove(&bell.alarm); }

    /// Returns the bells that a ring at that time calls.
    Rung ringAt(long long since_start) {
        setTime(since_start);
        m_rung.clear();
        Engine::ring(&m_engine);
        return m_rung;
    }
    void expectRing(long long since_start, Rung const& rung, Spans const& armed = {}) {
        m_timers.take();
        EXPECT_EQ(rung, ringAt(since_start));
        EXPECT_EQ(armed, m_timers.take());
    }
    /// Rings at that time. Checks what the ring throws and arms, and that another thread can lock the engine then.
    template <typename Exception>
    void expectThrow(long long since_start, Spans const& armed = {}, int nth_allocation = 0) {
        setTime(since_start);
        m_timers.take();
        {
            NewFault const fault(New::SINGLE, std::max(nth_allocation, 1), nth_allocation == 0 ? 0 : 1);
            EXPECT_THROW(Engine::ring(&m_engine), Exception);
        }
        EXPECT_EQ(armed, m_timers.take());
        Bell unknown(m_engine, m_rung);
        Sleeper other([&] { remove(unknown); });
        EXPECT_TRUE(eventually([&other] { return other.isDone(); }));
    }
    void expectNothingPending() { expectRing(1000000000, {}); }

    FakeClock m_clock{START / 1000, 0};
    KernelTimers m_timers;
    Engine m_engine{SIGNAL, "Engine", Attr()};
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

// ---- what each step arms ----

/// One step: moves the clock, adds or removes the alarm 'a', 'b' or 'c', rings, or sets the action of a callback.
struct Step {
    enum Kind { AT, ADD, REMOVE, RING, RING_INSIDE, ACTION };
    Kind kind;
    long long time;
    std::string bells;
    Spans armed;
    std::vector<Step> action = {};
};

Step at(long long time) {
    return {Step::AT, time, "", {}};
}
Step add(char bell, long long delay, Spans armed = {}) {
    return {Step::ADD, delay, {bell}, std::move(armed)};
}
Step remove(char bell) {
    return {Step::REMOVE, 0, {bell}, {}};
}
/// A ring at this time that calls these alarms in this order.
Step ring(long long time, char const* bells, Spans armed = {}) {
    return {Step::RING, time, bells, std::move(armed)};
}

/// A ring from within a callback.
Step ringInside() {
    return {Step::RING_INSIDE, 0, "", {}};
}
/// From now on the callback of an alarm does this.
Step action(char bell, std::vector<Step> steps) {
    return {Step::ACTION, 0, {bell}, {}, std::move(steps)};
}

struct Course {
    char const* name;
    std::vector<Step> steps;
};

class AlarmTimerSteps : public AlarmTimer {
protected:
    Bell& get(char bell) { return bell == 'a' ? m_a : bell == 'b' ? m_b : m_c; }

    void run(Step const& step) {
        Rung rung;
        switch (step.kind) {
        case Step::AT:
            return setTime(step.time);
        case Step::ADD:
            return AlarmTimer::add(get(step.bells[0]), step.time);
        case Step::REMOVE:
            return AlarmTimer::remove(get(step.bells[0]));
        case Step::RING:
            for (char const bell : step.bells) {
                rung.push_back(&get(bell));
            }
            EXPECT_EQ(rung, ringAt(step.time));
            return;
        case Step::RING_INSIDE:
            return Engine::ring(&m_engine);
        case Step::ACTION:
            get(step.bells[0]).action = [this, &step] {
                for (Step const& inner : step.action) {
                    run(inner);
                }
            };
        }
    }
};

/// Delays below zero count as zero: all alarms are due together.
Course belowZero(char const* name, long long delay) {
    return {
        name,
        {add('a', 0, {AT_ONCE}), add('a', delay), remove('a'), add('a', delay, {AT_ONCE}), add('b', 0),
         add('c', delay), ring(0, "abc")}};
}

Course const COURSES[] = {
    {"isNotArmedAtFirst", {at(0)}},
    {"armsForTheFirstAlarm", {add('a', 1500, {ms(1500)})}},
    {"earlierAlarmArmsAndALaterOneDoesNot",
     {add('b', 1000, {ms(1000)}), add('c', 1001), add('a', 999, {ms(999)})}},
    {"alarmAtTheSameTimeDoesNotArm", {add('a', 1000, {ms(1000)}), add('b', 1000), at(400), add('c', 600)}},
    {"delayOfZeroArmsForOneNanosecond", {add('a', 0, {AT_ONCE}), ring(0, "a")}},
    belowZero("delayOfMinusOneCountsAsZero", -1),
    belowZero("delayOfMinusOneSecondCountsAsZero", -1000),
    belowZero("lowestDelayCountsAsZero", std::numeric_limits<long long>::min()),
    {"alarmThatIsDueIsTakenOutAndCalled",
     {add('a', 100, {ms(100)}), ring(100, "a"), ring(100, ""), ring(1000, "")}},
    {"alarmIsDueAtItsTimeAndNotBefore",
     {add('a', 100, {ms(100)}), add('b', 101), ring(99, "", {ms(1), ms(1)}), ring(100, "a", {ms(1)}),
      ring(101, "b")}},
    {"alarmsOfTheSameTimeRingTogetherInTheOrderOfTheirAddresses",
     {add('c', 100, {ms(100)}), add('a', 100), add('b', 100), ring(100, "abc")}},
    {"orderOfAddressesHoldsWhateverTheTimesWere",
     {add('b', 300, {ms(300)}), add('a', 200, {ms(200)}), add('c', 100, {ms(100)}), ring(300, "abc")}},
    {"armsForTheEarliestThatIsLeftAfterARing",
     {add('a', 100, {ms(100)}), add('b', 250), add('c', 700), ring(110, "a", {ms(140)}),
      ring(250, "b", {ms(450)}), ring(800, "c")}},
    {"removingTheOnlyAlarmLeavesTheTimerArmedAndTheNextRingDoesNothing",
     {add('a', 100, {ms(100)}), remove('a'), ring(100, "")}},
    {"removingTheEarliestLeavesTheTimerArmedAndItsRingArmsForTheNextOne",
     {add('a', 100, {ms(100)}), add('b', 500), remove('a'), add('c', 499), ring(100, "", {ms(399), ms(399)}),
      ring(499, "c", {ms(1)})}},
    {"timerThatRingsTooLateIsArmedAnew",
     {add('a', 100, {ms(100)}), remove('a'), at(30), add('b', 69, {ms(69)})}},
    {"ringThatIsOverdueIsNotReliedUpon",
     {add('a', 100, {ms(100)}), remove('a'), at(100), add('b', 50, {ms(50)})}},
    {"whatARingHasArmedIsNotReliedUpon",
     {add('a', 100, {ms(100)}), add('b', 200), ring(100, "a", {ms(100)}), remove('b'),
      add('b', 300, {ms(300)})}},
    {"removingWhatIsNotPendingIsHarmless",
     {remove('a'), add('b', 100, {ms(100)}), remove('a'), remove('a'), ring(100, "b"), remove('b'),
      ring(1000000000, "")}},
    {"movingAnAlarmToAnEarlierTimeArmsAtOnce",
     {add('a', 1000, {ms(1000)}), at(100), add('a', 200, {ms(200)}), ring(300, "a"), ring(1000000000, "")}},
    {"movingAnAlarmToALaterTimeLeadsToAnEarlyRingThatArmsAgainAndRunsNothing",
     {add('a', 100, {ms(100)}), at(50), add('a', 200), ring(100, "", {ms(150)}), ring(250, "a")}},
    {"oldTimeOfAnAlarmThatWasPutOffStillCountsAsArmed",
     {add('a', 100, {ms(100)}), add('a', 1000), add('b', 500), remove('c'), add('c', 500), add('c', 499),
      ring(100, "", {ms(399), ms(399)})}},
    {"ringThatComesTooEarlyArmsTwice", {add('a', 100, {ms(100)}), ring(30, "", {ms(70), ms(70)})}},
    {"delayOf1MsIsSplit", {add('a', 1, {{0, 1000000}})}},
    {"delayOf999MsIsSplit", {add('a', 999, {{0, 999000000}})}},
    {"delayOf1000MsIsSplit", {add('a', 1000, {{1, 0}})}},
    {"delayOf1001MsIsSplit", {add('a', 1001, {{1, 1000000}})}},
    {"delayOf59999MsIsSplit", {add('a', 59999, {{59, 999000000}})}},
    {"delayOf32BitsIsSplit", {add('a', 4294967295, {{4294967, 295000000}})}},
    {"delayOf31BitsOfSecondsIsSplit", {add('a', 2147483647999, {{2147483647, 999000000}})}},
    {"callbackMayAddItsOwnAlarmAgain",
     {action('a', {add('a', 40)}), add('a', 100, {ms(100)}), ring(100, "a", {ms(40), ms(40)}),
      ring(140, "a", {ms(40), ms(40)}), ring(179, "", {ms(1), ms(1)})}},
    {"whatACallbackArmsIsOverwrittenWithTheSameTimeSeenFromTheBeginningOfTheRing",
     {action('a', {at(130), add('b', 50)}), add('a', 100, {ms(100)}), ring(100, "a", {ms(50), ms(80)})}},
    // Armed at 10 s for 100 ms, though due since 200 ms.
    {"slowCallbackDelaysTheNextAlarmByItsOwnLength",
     {action('a', {at(10000)}), add('a', 100, {ms(100)}), add('b', 200), ring(100, "a", {ms(100)})}},
    {"callbackThatAddsALaterAlarmArmsNothing",
     {action('a', {add('c', 900)}), add('a', 100, {ms(100)}), add('b', 200), ring(100, "a", {ms(100)})}},
    {"callbackCannotTakeBackAnotherAlarmThatIsDueWithIt",
     {action('a', {remove('b')}), add('a', 100, {ms(100)}), add('b', 100), ring(100, "ab"),
      ring(1000000000, "")}},
    {"callbackCanTakeBackWhatIsNotDue",
     {action('a', {remove('b')}), add('a', 100, {ms(100)}), add('b', 101), ring(100, "a"),
      ring(1000000000, "")}},
    {"alarmThatACallbackAddsToThoseThatAreDueRingsNextTime",
     {action('a', {add('b', 0)}), add('a', 100, {ms(100)}), add('b', 100),
      ring(100, "ab", {AT_ONCE, AT_ONCE}), ring(100, "b")}},
    {"callbackMayRingItsEngine",
     {action('a', {ringInside()}), action('b', {add('c', 0)}), add('a', 100, {ms(100)}), add('b', 100),
      ring(100, "ab", {AT_ONCE, AT_ONCE}), ring(100, "c")}},
};
VESK_TEST_TABLE(AlarmTimerCourse, armsAndRings, AlarmTimerSteps, COURSES) {
    int number = 0;
    for (Step const& step : GetParam().steps) {
        run(step);
        EXPECT_EQ(step.armed, m_timers.take()) << "step " << ++number;
        EXPECT_TRUE(step.armed.empty() || m_timers.armed_timer == m_timers.created_timer);
    }
}

/// 32-bit systems have a short `time_t`.
TEST_F(AlarmTimer, delayBeyondTheSystemsLongestIsArmedInPieces) {
    constexpr time_t LONGEST = std::numeric_limits<time_t>::max();
    constexpr long long DELAY = 2147483648000 + 5000;
    bool const fits = DELAY / 1000 <= LONGEST;
    add(m_a, DELAY);
    EXPECT_EQ(Spans{fits ? ms(DELAY) : (Span{LONGEST, 0})}, m_timers.take());
    Span const again = fits ? ms(DELAY - 1000) : Span{LONGEST, 0};
    expectRing(1000, {}, {again, again});
    Span const last = ms(DELAY - 5001);
    expectRing(5001, {}, {last, last});
}

TEST_F(AlarmTimer, engineWithoutAlarmsCountsAsArmedForAFarTimeUntilItHasLostAnAlarm) {
    add(m_a, FAR_AWAY);
    EXPECT_EQ(Spans(), m_timers.take());
    add(m_a, FAR_AWAY - 1);
    EXPECT_EQ(1U, m_timers.take().size());
    Engine idle(SIGNAL + 1, "Idle", Attr());
    Engine::ring(&idle);
    m_timers.take();
    EXPECT_EQ(Rung(), m_rung);
    Engine other(SIGNAL + 2, "Other", Attr());
    other.remove(&m_b.alarm);
    other.add(&m_b.alarm, Duration(FAR_AWAY + 1));
    EXPECT_EQ(1U, m_timers.take().size());
}

TEST_F(AlarmTimer, delayBeyondTheLatestTimeIsForever) {
    constexpr long long LONGEST = std::numeric_limits<long long>::max();
    for (long long const delay : {LONGEST, LONGEST - START, LONGEST - START + 1}) {
        remove(m_a);
        add(m_a, delay);
        EXPECT_EQ(Spans(), m_timers.take());
        expectRing(1000, {});
        add(m_b, 10);
        EXPECT_EQ(Spans{ms(10)}, m_timers.take()) << "other alarms ring";
        expectRing(1010, {&m_b});
        setTime(0);
    }
}

// ---- two engines ----

/// Two engines with callbacks that call each other's engine: one already waits, the other runs in this thread.
class AlarmTimerOfTwo : public AlarmTimer {
protected:
    /// Rings an engine in another thread, and waits until a callback of it waits for another engine.
    static std::thread ringElsewhere(Engine& engine, Rung const& bells) {
        std::atomic<pid_t> id{0};
        std::thread thread([&engine, bells, &id] {
            for (Bell* const bell : bells) {
                engine.add(&bell->alarm, Duration(0)); // Here, since the clock is not faked here.
            }
            id = getThreadId();
            Engine::ring(&engine);
        });
        EXPECT_TRUE(eventually([&id] { return id != 0; }));
        waitUntilAsleep(getpid(), id);
        return thread;
    }

    /// Rings the engine of this thread, with a callback that makes a call while the other engine waits for it.
    void ringWith(std::function<void()> const& call) {
        std::thread other;
        m_other_first.action = [this] { remove(m_c); };
        m_a.action = [this, &call, &other] {
            other = ringElsewhere(m_other, {&m_other_first, &m_other_second});
            call();
            EXPECT_EQ(Rung{&m_other_first}, m_other_rung) << "the other callback continues afterwards";
        };
        add(m_a, 100);
        EXPECT_EQ(Rung{&m_a}, ringAt(100));
        other.join();
    }

    Engine m_other{SIGNAL + 1, "Other", Attr()};
    Rung m_other_rung;
    Bell m_other_first{m_other, m_other_rung};
    Bell m_other_second{m_other, m_other_rung};
    Rung const m_both{&m_other_first, &m_other_second};
};

TEST_F(AlarmTimerOfTwo, callForWhichTheOtherCallbackWaitsDoesNotWaitForIt) {
    Bell later(m_other, m_other_rung);
    ringWith([&] { m_other.add(&later.alarm, Duration(50)); });
    EXPECT_EQ(m_both, m_other_rung);
    setTime(150);
    Engine::ring(&m_other);
    EXPECT_EQ((Rung{&m_other_first, &m_other_second, &later}), m_other_rung);
}

TEST_F(AlarmTimerOfTwo, alarmThatIsDueThereAndRemovedDoesNotRing) {
    ringWith([this] { m_other.remove(&m_other_second.alarm); });
    EXPECT_EQ(Rung{&m_other_first}, m_other_rung);
}

TEST_F(AlarmTimerOfTwo, alarmWithAWaitingCallbackDoesNotRingAgain) {
    ringWith([this] {
        m_other.add(&m_other_first.alarm, Duration(0));
        m_other.remove(&m_other_first.alarm);
        Engine::ring(&m_other); // Leaves the rest to the other ring.
    });
    EXPECT_EQ(m_both, m_other_rung);
    Engine::ring(&m_other);
    EXPECT_EQ(m_both, m_other_rung);
}

TEST_F(AlarmTimerOfTwo, thirdEngineMayStandBetweenThem) {
    Engine third(SIGNAL + 2, "Third", Attr());
    Rung third_rung;
    Bell bell(third, third_rung);
    // Waits for the other engine, which waits for the first one.
    bell.action = [this] { m_other.remove(&m_other_second.alarm); };
    std::thread thread;
    ringWith([&] {
        thread = ringElsewhere(third, {&bell});
        third.remove(&bell.alarm);
    });
    thread.join();
    EXPECT_EQ(m_both, m_other_rung);
    EXPECT_EQ(Rung{&bell}, third_rung);
}

/// Keeps what is pushed.
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

TEST_F(AlarmTimer, alarmWithASinkPushesAMessageThatRemoveDoesNotReach) {
    for (bool const removes : {false, true}) {
        KeepingSink sink;
        Bell bell(m_engine, m_rung, &sink);
        setTime(0);
        add(bell, 100);
        EXPECT_EQ(Rung(), ringAt(100));
        if (removes) {
            remove(bell);
        }
        ASSERT_EQ(1U, sink.messages.size());
        EXPECT_NE(nullptr, dynamic_cast<Message::Callback*>(sink.messages[0]));
        sink.messages[0]->invoke();
        EXPECT_EQ(Rung{&bell}, m_rung);
    }
}

TEST_F(AlarmTimer, readsOnlyTheMonotonicClockAndOnlyToAddAndToRing) {
    add(m_a, 100);
    EXPECT_EQ(CLOCK_MONOTONIC, m_clock.getClock());
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    ringAt(50);
    EXPECT_EQ(CLOCK_MONOTONIC, m_clock.getClock());
    Fault const count(inject_clock_gettime, 0);
    add(m_a, 100);
    EXPECT_EQ(1, count.getCalls());
    Engine::ring(&m_engine);
    EXPECT_EQ(2, count.getCalls());
    remove(m_a);
    EXPECT_EQ(2, count.getCalls());
}

// ---- failures ----

TEST_F(AlarmTimer, resultOfTheSystemCallDoesNotMatter) {
    KernelTimers const all(KernelTimers::ALL);
    Fault const fault(inject_timer_settime, EINVAL, 1, Fault::FOREVER);
    add(m_a, 100);
    add(m_b, 50);
    EXPECT_EQ((Rung{&m_b}), ringAt(50));
    EXPECT_EQ((Rung{&m_a}), ringAt(100));
}

TEST_F(AlarmTimer, timerThatCouldNotBeArmedIsNotReliedUpon) {
    KernelTimers timers(KernelTimers::ALL);
    {
        Fault const fault(inject_timer_settime, EINVAL);
        add(m_a, 100);
    }
    remove(m_a);
    add(m_b, 200);
    EXPECT_EQ((Spans{ms(100), ms(200)}), timers.take());
}

TEST_F(AlarmTimer, engineWithoutATimerTouchesNoOtherTimer) {
    timer_t const timer_of_another_engine = m_timers.created_timer;
    {
        Fault const fault(inject_timer_create, EAGAIN);
        Engine engine(SIGNAL + 1, "Other", Attr());
        EXPECT_TRUE(chainIs({}));
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

TEST_F(AlarmTimer, ringWithoutMemoryThrowsAndChangesNothing) {
    add(m_a, 100);
    add(m_b, 200);
    expectThrow<std::bad_alloc>(100, {}, 1);
    expectRing(100, {&m_a}, {ms(100)});
}

TEST_F(AlarmTimer, ringAllocatesOnceForItsListAndNotForEachAlarm) {
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
    EXPECT_LE(sizes.at(0), 300 * 2 * sizeof(tarnbase::TimePoint)) << "an entry is an alarm and its expiry";
    EXPECT_EQ(300U, m_rung.size());
}

TEST_F(AlarmTimer, messageWithoutMemoryLeavesTheEngineArmedAndUnlocked) {
    KeepingSink sink;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    add(m_b, 300);
    expectThrow<std::bad_alloc>(100, {ms(200)}, 2);
    EXPECT_EQ(Rung{&m_b}, ringAt(300));
}

TEST_F(AlarmTimer, sinkThatThrowsLosesNoMemory) {
    KeepingSink sink;
    sink.throws = true;
    Bell bell(m_engine, m_rung, &sink);
    add(bell, 100);
    expectThrow<std::runtime_error>(100); // The address sanitizer sees the message.
    expectNothingPending();
}

TEST_F(AlarmTimer, callbackThatThrowsLeavesTheEngineArmedAndUnlocked) {
    m_a.action = [] { throw std::runtime_error("broken"); };
    add(m_a, 100);
    add(m_b, 100);
    add(m_c, 400);
    expectThrow<std::runtime_error>(100, {ms(300)});
    Bell other(m_engine, m_rung);
    add(other, 250);
    EXPECT_EQ(Spans{ms(250)}, m_timers.take());
    EXPECT_EQ(Rung{&other}, ringAt(350));
    EXPECT_EQ(Rung{&m_c}, ringAt(400)) << "b is discarded";
}

TEST_F(AlarmTimer, addWithoutMemoryChangesNothingAndLeavesTheAlarmOut) {
    // At some numbers of alarms, one more needs memory.
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
    for (bool left_out = false; !left_out;) {
        Bell& bell = bells.emplace_back(m_engine, m_rung);
        NewFault const fault(New::SINGLE);
        try {
            add(bell, 100);
        } catch (std::bad_alloc const&) {
            left_out = true;
        }
    }
    Rung const rung = ringAt(200000);
    EXPECT_EQ(bells.size() - 1, rung.size());
    EXPECT_EQ(0, std::count(rung.begin(), rung.end(), &bells.back()));
    expectNothingPending();
}

// ---- creation and destruction ----

bool isCaught(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler != SIG_DFL;
}

TEST(AlarmTimerLife, threadAndHandlerExistBeforeTheTimerAndTheThreadEndsBeforeIt) {
    int const threads = g_threads_at_start;
    KernelTimers timers;
    int calls = 0;
    auto const check = [&](int expected_threads) {
        ++calls;
        EXPECT_TRUE(hasThreads(expected_threads));
        EXPECT_TRUE(isCaught(SIGNAL));
    };
    timers.on_create = [&] { check(threads + 1); };
    timers.on_delete = [&] { check(threads); };
    EXPECT_FALSE(isCaught(SIGNAL));
    {
        Engine const engine(SIGNAL, "Engine", Attr());
        EXPECT_EQ(1, calls);
    }
    EXPECT_EQ(2, calls);
    EXPECT_EQ(1, timers.deleted);
    EXPECT_EQ(timers.created_timer, timers.deleted_timer);
    EXPECT_FALSE(isCaught(SIGNAL));
    EXPECT_TRUE(hasThreads(threads));
}

/// The kernel may have raised the signal when the timer is deleted, without a thread having handled it yet.
VESK_TEST_BY(expectInChild, AlarmTimerLife, signalThatIsPendingAtTheEndDoesNotEndTheProcess) {
    KernelTimers timers;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGNAL);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); // Also for the engine's thread.
    timers.on_delete = [] {
        kill(getpid(), SIGNAL);
        kill(getpid(), SIGNAL);
    };
    { Engine const engine(SIGNAL, "Engine", Attr()); }
    EXPECT_EQ(1, timers.deleted);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, sigismember(&pending, SIGNAL));
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

TEST(AlarmTimerLife, engineForASignalThatCannotBeCaughtIsCreatedAndDestroyed) {
    KernelTimers const timers; // Keeps SIGKILL from being raised.
    for (int const signal : {0, SIGKILL}) {
        Engine engine(signal, "Engine", Attr());
        Rung rung;
        Bell bell(engine, rung);
        engine.add(&bell.alarm, Duration(0));
        Engine::ring(&engine);
        EXPECT_EQ(Rung{&bell}, rung);
    }
}

TEST(AlarmTimerLife, signalFromElsewhereIsAnEarlyRingAndAlarmsThatArePendingAtTheEndDoNotRing) {
    KernelTimers timers;
    Rung rung;
    {
        Engine engine(SIGNAL, "Engine", Attr());
        Bell bell(engine, rung);
        engine.add(&bell.alarm, Duration(3600000));
        timers.take();
        kill(getpid(), SIGNAL);
        ASSERT_TRUE(eventually([&] { return timers.countArmings() == 3; }));
        engine.add(&bell.alarm, Duration(1000000)); // Waits for the end of the ring.
    }
    EXPECT_EQ(Rung(), rung);
}

// ---- against a model ----

/// The simplest form of the engine: a map, which each query searches completely.
class Model {
public:
    void add(Bell* bell, long long now, long long delay) {
        m_expiries[bell] = now + delay;
        if (m_next <= now + delay) {
            return;
        }
        m_next = now + delay;
        if (now >= m_rings_at || m_rings_at > m_next) {
            m_rings_at = m_next;
            arm(delay);
        }
    }
    void remove(Bell* bell) {
        m_expiries.erase(bell);
        lookForNext();
    }
    Rung beginRing(long long now) {
        if (m_next > now) {
            armForNext(now);
            return {};
        }
        Rung due;
        for (auto const& [bell, expiry] : m_expiries) {
            if (expiry <= now) {
                due.push_back(bell);
            }
        }
        for (Bell* const bell : due) {
            m_expiries.erase(bell);
        }
        lookForNext();
        return due;
    }
    void armForNext(long long now) {
        m_rings_at = 0;
        if (m_next < NEVER) {
            arm(m_next - now);
        }
    }

    Spans take() { return std::exchange(m_spans, {}); }
    size_t getCount() const { return m_expiries.size(); }
    Bell* getAny(size_t i) const { return std::next(m_expiries.begin(), static_cast<long>(i))->first; }

private:
    static constexpr long long NEVER = std::numeric_limits<long long>::max();

    void arm(long long delay) {
        constexpr time_t LONGEST = std::numeric_limits<time_t>::max();
        m_spans.push_back(delay == 0 ? AT_ONCE : delay / 1000 > LONGEST ? Span{LONGEST, 0} : ms(delay));
    }
    void lookForNext() {
        m_next = NEVER;
        for (auto const& entry : m_expiries) {
            m_next = std::min(m_next, entry.second);
        }
    }

    std::map<Bell*, long long, std::less<>> m_expiries;
    long long m_next = FAR_AWAY;
    long long m_rings_at = 0; // The kernel's timer, if known.
    Spans m_spans;
};

/// How many alarms there are, how many steps, and how far their times lie apart.
struct Walk {
    unsigned int seed;
    int alarms;
    int steps;
    long long longest;
};

class AlarmTimerModel : public AlarmTimer, public testing::WithParamInterface<Walk> {
protected:
    void SetUp() override {
        for (int i = 0; i < GetParam().alarms; ++i) {
            m_bells.push_back(std::make_unique<Bell>(m_engine, m_rung));
            m_bells.back()->action = [this] {
                if (pick(3) == 0) {
                    change();
                }
            };
        }
    }

    long long pick(long long below) {
        return std::uniform_int_distribution<long long>(0, below - 1)(m_random);
    }
    Bell* pickBell() { return m_bells[static_cast<size_t>(pick(GetParam().alarms))].get(); }
    void pass(long long by) {
        m_now += by;
        setTime(m_now);
    }

    /// Adds, moves or removes one, with the engine and with the model.
    void change() {
        if (pick(3) != 0) {
            Bell* const bell = pickBell();
            long long const delay = pick(GetParam().longest);
            add(*bell, delay);
            m_model.add(bell, m_now, delay);
        } else {
            auto const count = static_cast<long long>(m_model.getCount());
            bool const known = count != 0 && pick(4) != 0;
            Bell* const bell = known ? m_model.getAny(static_cast<size_t>(pick(count))) : pickBell();
            remove(*bell);
            m_model.remove(bell);
        }
    }

    void ring() {
        long long const now = m_now;
        Rung const due = m_model.beginRing(now);
        ASSERT_EQ(due, ringAt(now));
        m_model.armForNext(now);
    }

    long long m_now = 0;
    Model m_model;
    std::mt19937 m_random{GetParam().seed};
    std::vector<std::unique_ptr<Bell>> m_bells;
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
        Walk{1, 3, 20000, 6}, Walk{2, 9, 20000, 20}, Walk{3, 40, 20000, 100}, Walk{4, 40, 20000, 100000},
        Walk{5, 500, 20000, 1000}, Walk{6, 3000, 9000, 100000}));

} // namespace
