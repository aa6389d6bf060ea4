#include <vesk/Alarm.h>

#include "vesk/common/AlarmTable.h"
#include "vesk/posix/detail/StaticMutex.h"
#include <vesk/common/CancellationOff.h>

#include <vesk/Thread.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <functional>
#include <limits>
#include <pthread.h>

namespace vesk {

using tarnbase::Duration;
using tarnbase::TimePoint;

/// A moment of the monotonic clock in two resolutions. Expiries are in milliseconds.
struct detail::Moment {
    Moment() noexcept {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        ns = static_cast<long long>(time.tv_sec) * NS_PER_S + time.tv_nsec;
        ms = TimePoint(ns / NS_PER_MS);
    }

    static constexpr long long NS_PER_MS = 1000000;
    static constexpr long long NS_PER_S = 1000000000;

    long long ns;
    TimePoint ms;
};

namespace {

using detail::Moment;

constexpr char const* SOURCE = "framework/src/vesk/posix/Alarm";

/// The longest delay for which moments are kept in nanoseconds, about 30 years. Moments do not overflow.
constexpr Duration LONGEST_EXACT_DELAY(1000000000000);

/// Before the first alarm the kernel timer is treated as armed for the far future.
constexpr Duration FAR_AWAY(std::numeric_limits<unsigned long long>::max() / 1000);

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

// Guards the ringers of all engines, and what these threads wait for.
detail::StaticMutex s_ringers(threadsafe::ConstantInit{TARN_LOCK_NAME(ALARM_RINGERS)});

/// Returns `now` plus `delay`, at most `TimePoint::MAX`. An expiry is neither negative nor wraps around, so
/// the order is the same with signed and unsigned numbers.
TimePoint addTo(TimePoint now, Duration delay) noexcept {
    return delay < TimePoint::MAX - now ? now + delay : TimePoint::MAX;
}

timespec toTimespec(long long ns) noexcept {
    timespec time{};
    time.tv_sec = static_cast<time_t>(ns / Moment::NS_PER_S);
    time.tv_nsec = static_cast<long>(ns % Moment::NS_PER_S);
    return time;
}

/// Returns an id that the kernel assigns to no timer. A null pointer is no such id: the kernel numbers timers
/// from 0.
timer_t getNoTimer() noexcept {
    return reinterpret_cast<timer_t>(static_cast<intptr_t>(INT_MAX)); // NOLINT(performance-no-int-to-ptr)
}

} // namespace

/// The state of a thread that runs rings. Each thread has one.
struct detail::AlarmRinger {
    unsigned int rings = 0; // More than one if a callback calls `ring`.
    Alarm::Timer const* waits_for TARN_GUARDED_BY(s_ringers) = nullptr;
};

namespace {
TARN_CONSTANT_INIT thread_local detail::AlarmRinger t_ringer;
} // namespace

TARN_CONSTANT_INIT std::Shared<Alarm::DefaultTimer> Alarm::DEFAULT_TIMER;

Alarm::DefaultTimer::DefaultTimer() : Timer(SIGRTMIN + 3, "Timer", Thread::getMainSchedAttrs()) {}

void Alarm::deliver() const {
    if (m_sink == nullptr) {
        m_callback(m_data); // May destroy this object.
        return;
    }
    auto message = std::make_unique<Message::Callback>(m_callback, m_data);
    m_sink->push(message.get());
    static_cast<void>(message.release());
}

void Alarm::restart(Start start, Duration const& delay, void (*change)(void*), void* argument) {
    m_engine->restart(this, start, delay, change, argument);
}

void Alarm::startNext(Duration const& interval) {
    m_engine->addNext(this, interval);
}

/// An alarm that a ring calls. It is null if it was removed meanwhile.
struct Alarm::Timer::DueAlarm {
    Alarm const* alarm;
    TimePoint expiry;
};

/// Holds the engine's lock for one of its operations. It does not wait for the current ring in a callback of
/// that ring, nor if the ring waits for the calling thread.
class [[nodiscard]] TARN_SCOPED_LOCK Alarm::Timer::Access : private tarnbase::NonCopyable {
public:
    Access(Timer& engine, char const* function, int line = __builtin_LINE())
        TARN_ACQUIRE(engine.m_lock) TARN_NOT_ANALYZED : m_lock(engine.m_lock, SOURCE, function, line) {
        if (engine.isOfOtherThread()) {
            engine.waitForRing(function);
        }
    }
    ~Access() TARN_RELEASE() = default;

private:
    InternalLock m_lock;
};

/// Records during a scope that the calling thread waits for an engine. Needed only inside callbacks: no
/// engine waits for other threads.
class [[nodiscard]] Alarm::Timer::Waiting : private tarnbase::NonCopyable {
public:
    explicit Waiting(Timer const& engine) noexcept {
        if (t_ringer.rings == 0) {
            return;
        }
        detail::StaticLock const lock(s_ringers);
        m_is_deadlock = leadsToCaller(engine);
        if (!m_is_deadlock) {
            t_ringer.waits_for = &engine;
        }
    }
    ~Waiting() {
        if (t_ringer.rings != 0) {
            detail::StaticLock const lock(s_ringers);
            t_ringer.waits_for = nullptr;
        }
    }

    bool isDeadlock() const noexcept { return m_is_deadlock; }

private:
    bool m_is_deadlock = false;
};

/// One run of `ring`. It acts as the engine's lock from `begin` until its end. At the end the engine is armed
/// for the remaining alarms, also when a callback throws.
class Alarm::Timer::Ring : private tarnbase::NonCopyable {
public:
    explicit Ring(Timer& engine) : m_engine(engine) {
        m_due.reserve(engine.m_alarms->getCount());
        m_now = TimePoint::now();
    }
    ~Ring() {
        if (m_begun) {
            end();
        }
    }

    bool begin();
    void deliver();
    void forget(Alarm const* alarm) noexcept;
    Ring* getOuter() const noexcept { return m_outer; }

    /// Returns for when the alarm that is being called was planned.
    TimePoint getPlanned() const noexcept { return m_due[m_next - 1].expiry; }

private:
    void enter() noexcept TARN_REQUIRES(m_engine.m_lock);
    void end() noexcept;

    Timer& m_engine;
    std::vector<DueAlarm> m_due;
    TimePoint m_now;
    size_t m_next = 0;
    bool m_begun = false;
    Ring* m_outer = nullptr; // The ring of the same engine from which a callback made this one.
};

Alarm::Timer::Timer(int signal, char const* thread_name, sched::Attr const& attributes)
    : Timer(attributes, signal, thread_name) {}

Alarm::Timer::Timer(int signal, char const* thread_name, int const& priority)
    : Timer(priority, signal, thread_name) {}

template <typename Scheduling>
Alarm::Timer::Timer(Scheduling const& scheduling, int signal, char const* thread_name)
    : m_handler(ring),
      m_handler_data(this),
      m_lock(true),
      m_calls_may_go_on(m_lock),
      m_ring_may_begin(m_lock),
      m_alarms(std::make_unique<detail::AlarmTable>()),
      m_next_expiry(TimePoint::now() + FAR_AWAY),
      m_timer(getNoTimer()),
      m_signal(signal),
      m_dispatcher(thread_name, scheduling),
      m_catcher(signal, m_dispatcher.getQueue(), caught, this) {
    TARN_NAME_LOCK(m_lock, ALARM_ENGINE);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signal;
    timer_t timer = getNoTimer();
    // Unchecked, as is every later call for the timer: code that starts an alarm could not handle a kernel
    // without free timers, and there is no other receiver for a report.
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    m_timer.store(timer, std::memory_order_relaxed);
}

Alarm::Timer::~Timer() {
    m_dispatcher.stop();
    timer_delete(m_timer.load(std::memory_order_relaxed));
    dropSignals();
}

/// Consumes pending signals. A final expiry may still be pending for some thread, and would end the process
/// once the signal has its default action again.
void Alarm::Timer::dropSignals() noexcept {
    detail::CancellationOff const cancellation_off;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, m_signal);
    timespec const at_once{};
    while (sigtimedwait(&signals, nullptr, &at_once) > 0) {}
}

void Alarm::Timer::caught(int, void* engine) {
    Timer const& timer = *static_cast<Timer*>(engine);
    timer.m_handler(timer.m_handler_data);
}

void Alarm::Timer::add(Alarm* alarm, Duration const& delay) {
    Access const access(*this, "add");
    set(alarm, std::max(delay, Duration(0)));
}

void Alarm::Timer::remove(Alarm* alarm) {
    Access const access(*this, "remove");
    erase(alarm);
}

/// Removes an alarm and adds it again, in one step. Calls `change` in between, with the lock held. Throws as
/// `add` does, and leaves the alarm removed.
void Alarm::Timer::restart(
    Alarm* alarm, Start start, Duration const& delay, void (*change)(void*), void* argument) {
    Access const access(*this, "remove"); // The first of the two steps: a failure is reported in its name.
    erase(alarm);
    change(argument);
    if (start == Start::AT_FULL_MILLISECOND) {
        Moment const now;
        bool const is_full = now.ns % Moment::NS_PER_MS == 0;
        setAt(alarm, now, addTo(now.ms, Duration(delay.getCount() + (is_full ? 0 : 1))));
    } else {
        set(alarm, delay);
    }
}

/// Adds an alarm from its own callback, `interval` after the moment for which this call was planned. Skips the
/// periods that have passed since. Outside of a callback the period begins now.
void Alarm::Timer::addNext(Alarm* alarm, Duration const& interval) {
    Access const access(*this, "add");
    Moment const now;
    bool const is_called = m_ring != nullptr && !isOfOtherThread();
    TimePoint const planned = is_called ? m_ring->getPlanned() : now.ms;
    long long const skipped = std::max((now.ms - planned).getCount(), 0LL) / interval.getCount();
    setAt(alarm, now, addTo(planned, Duration((skipped + 1) * interval.getCount())));
}

void Alarm::Timer::set(Alarm* alarm, Duration delay) {
    Moment const now;
    TimePoint const expiry = addTo(now.ms, delay);
    if (putIn(alarm, expiry)) {
        armFor(now, expiry, delay);
    }
}

void Alarm::Timer::setAt(Alarm* alarm, Moment const& now, TimePoint expiry) {
    if (putIn(alarm, expiry)) {
        armAt(now, expiry);
    }
}

/// Returns whether the alarm has become the earliest of all.
bool Alarm::Timer::putIn(Alarm* alarm, TimePoint expiry) {
    m_alarms->set(alarm, expiry);
    if (m_next_expiry <= expiry) {
        return false;
    }
    m_next_expiry = expiry;
    return true;
}

void Alarm::Timer::erase(Alarm const* alarm) noexcept {
    m_alarms->erase(alarm);
    // The kernel timer stays as it is: a superfluous ring is cheaper than a system call here.
    m_next_expiry = m_alarms->getEarliest();
    if (isOfOtherThread()) {
        // The ring waits for this thread, and must not call the alarm when it continues.
        for (Ring* ring = m_ring; ring != nullptr; ring = ring->getOuter()) {
            ring->forget(alarm);
        }
    }
}

/// Arms the kernel's timer for the earliest alarm, unless it rings before that alarm anyway. Its ring then finds
/// the alarm early, and arms for the rest.
void Alarm::Timer::armFor(Moment const& now, TimePoint expiry, Duration delay) noexcept {
    detail::AlarmTable::KernelTimer& timer = m_alarms->getKernelTimer();
    bool const is_exact = delay < LONGEST_EXACT_DELAY;
    long long const exact = is_exact ? now.ns + delay.getCount() * Moment::NS_PER_MS : 0;
    // A ring that should have come already may have been lost, and is not relied upon.
    if (is_exact && now.ns < timer.rings_at && timer.rings_at <= exact) {
        timer.exact_for = expiry;
        timer.exact = exact;
        return;
    }
    timer.exact_for = TimePoint::MAX;
    timer.rings_at = arm(TimePoint(delay.getCount()).toTimespec()) ? exact : 0;
}

/// Arms the kernel's timer for the beginning of the millisecond `expiry`, unless it rings before that anyway.
void Alarm::Timer::armAt(Moment const& now, TimePoint expiry) noexcept {
    detail::AlarmTable::KernelTimer& timer = m_alarms->getKernelTimer();
    timer.exact_for = expiry;
    timer.exact = expiry.getCount() * Moment::NS_PER_MS;
    if (now.ns < timer.rings_at && timer.rings_at <= timer.exact) {
        return; // LCOV_EXCL_LINE: only if an exact alarm rings shortly before
    }
    timer.rings_at = arm(toTimespec(timer.exact - now.ns)) ? timer.exact : 0;
}

bool Alarm::Timer::isCallingBack() const noexcept {
    if (!isOfOtherThread()) {
        return false;
    }
    // LCOV_EXCL_LINE: only if the last handle ends while another thread rings
    detail::StaticLock const lock(s_ringers);
    return !leadsToCaller(*this);
}

void Alarm::Timer::waitForCallback() noexcept {
    Access const access(*this, "waitForCallback");
}

/// Returns whether another thread runs callbacks of the engine.
bool Alarm::Timer::isOfOtherThread() const noexcept {
    detail::AlarmRinger const* const ringer = m_ringer.load(std::memory_order_acquire);
    return ringer != nullptr && ringer != &t_ringer;
}

/// Returns whether the engine's ring waits for a ring of the calling thread, directly or through other rings.
bool Alarm::Timer::leadsToCaller(Timer const& engine) noexcept TARN_REQUIRES(s_ringers) {
    for (Timer const* next = &engine; next != nullptr;) {
        detail::AlarmRinger const* const ringer = next->m_ringer.load(std::memory_order_relaxed);
        if (ringer == &t_ringer) {
            return true;
        }
        next = ringer != nullptr ? ringer->waits_for : nullptr;
    }
    return false;
}

/// Blocks an operation until the ring of another thread has ended. The next ring begins only after the
/// waiting operations. Otherwise a thread with callbacks that take longer than their interval would acquire
/// the lock again before any of these operations has woken up.
void Alarm::Timer::waitForRing(char const* function) noexcept {
    Waiting const waiting(*this);
    if (waiting.isDeadlock()) {
        return;
    }
    detail::CancellationOff const cancellation_off;
    ++m_waiting_calls;
    while (m_ring != nullptr) {
        if (m_calls_may_go_on.wait() != 0) {
            // LCOV_EXCL_LINE: the condition belongs to the engine and is valid
            std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, function, "error locking");
            break;
        }
    }
    --m_waiting_calls;
    wakeNext();
}

/// Blocks a new ring until the current ring, and the calls that wait for it, have ended.
/// @return false if the current ring waits for this thread
bool Alarm::Timer::waitForCalls(char const* function) noexcept {
    bool const is_inner = m_ring != nullptr && !isOfOtherThread();
    if (is_inner || (m_ring == nullptr && m_waiting_calls == 0)) {
        return true;
    }
    Waiting const waiting(*this);
    if (waiting.isDeadlock()) {
        return false;
    }
    detail::CancellationOff const cancellation_off;
    while (m_ring != nullptr || m_waiting_calls != 0) {
        if (m_ring_may_begin.wait() != 0) {
            // LCOV_EXCL_LINE: the condition belongs to the engine and is valid
            std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, function, "error locking");
            break;
        }
    }
    return true;
}

/// Wakes the next waiter: a call, or the ring that follows all calls. Each waiter that continues wakes the
/// next.
void Alarm::Timer::wakeNext() noexcept {
    static_cast<void>((m_waiting_calls != 0 ? m_calls_may_go_on : m_ring_may_begin).signal_one());
}

void Alarm::Timer::ring(void* engine) {
    Ring ring(*static_cast<Timer*>(engine));
    if (ring.begin()) {
        ring.deliver();
    }
}

/// Acquires the engine's lock and removes the due alarms from the table.
/// @return false if no alarm is due, or if the current ring waits for this thread
bool Alarm::Timer::Ring::begin() {
    InternalLock const lock(m_engine.m_lock, SOURCE, "ring");
    if (!m_engine.waitForCalls("ring")) {
        return false; // The current ring arms the timer when it ends.
    }
    if (m_engine.isEarly(m_now)) {
        // The call is early, or the alarm was removed or postponed. Arms twice on purpose, once for the
        // remaining time and once as every ring does at its end: the call sequence is part of the contract
        // with callers.
        m_engine.armForNext(m_now);
        m_engine.armForNext(m_now);
        m_engine.wakeNext();
        return false;
    }
    enter();
    m_engine.takeDue(m_now, m_due);
    return true;
}

/// Calls the due alarms in the order of their addresses, without the mutex.
void Alarm::Timer::Ring::deliver() {
    while (m_next < m_due.size()) {
        Alarm const* const alarm = m_due[m_next++].alarm;
        if (alarm != nullptr) {
            alarm->deliver();
        }
    }
}

void Alarm::Timer::Ring::forget(Alarm const* alarm) noexcept {
    for (size_t i = m_next; i < m_due.size(); ++i) {
        if (m_due[i].alarm == alarm) {
            m_due[i].alarm = nullptr;
        }
    }
}

void Alarm::Timer::Ring::enter() noexcept {
    detail::StaticLock const lock(s_ringers);
    m_begun = true;
    m_outer = m_engine.m_ring;
    m_engine.m_ring = this;
    m_engine.m_ringer.store(&t_ringer, std::memory_order_release);
    ++t_ringer.rings;
}

void Alarm::Timer::Ring::end() noexcept {
    InternalLock const lock(m_engine.m_lock, SOURCE, "ring");
    m_engine.armForNext(m_now);
    detail::StaticLock const ringers_lock(s_ringers);
    m_engine.m_ring = m_outer;
    if (m_outer == nullptr) {
        m_engine.m_ringer.store(nullptr, std::memory_order_release);
        m_engine.wakeNext();
    }
    --t_ringer.rings;
}

void Alarm::Timer::takeDue(TimePoint now, std::vector<DueAlarm>& due) {
    due.reserve(m_alarms->getCount()); // Alarms may have been added while the lock was not held.
    while (m_alarms->getEarliest() <= now) {
        TimePoint const expiry = m_alarms->getEarliest();
        due.push_back({m_alarms->takeEarliest(), expiry});
    }
    m_next_expiry = m_alarms->getEarliest();
    std::sort(due.begin(), due.end(), [](DueAlarm const& a, DueAlarm const& b) {
        return std::less<>()(a.alarm, b.alarm);
    });
}

/// Returns whether the earliest alarm is not due yet.
bool Alarm::Timer::isEarly(TimePoint now) const noexcept {
    return m_next_expiry > now || getExactRest() > 0;
}

/// Returns the time to the earliest alarm in nanoseconds, if its moment is known exactly, else 0.
long long Alarm::Timer::getExactRest() const noexcept {
    detail::AlarmTable::KernelTimer const& timer = m_alarms->getKernelTimer();
    return m_next_expiry == timer.exact_for ? std::max(timer.exact - Moment().ns, 0LL) : 0;
}

void Alarm::Timer::armForNext(TimePoint now) noexcept {
    // When the timer rings is unknown from here on: `now` may be long ago.
    m_alarms->getKernelTimer().rings_at = 0;
    if (m_next_expiry == TimePoint::MAX) {
        return;
    }
    if (long long const rest = getExactRest(); rest > 0) {
        arm(toTimespec(rest));
    } else {
        armTimer(m_next_expiry - now);
    }
}

/// A delay that is too long for the system becomes the longest: the ring comes too early and arms for the rest.
void Alarm::Timer::armTimer(Duration delay) noexcept {
    arm(TimePoint(delay.getCount()).toTimespec());
}

/// Arms the kernel's timer for one ring. Returns whether it succeeded.
bool Alarm::Timer::arm(timespec const& delay) noexcept {
    itimerspec value{}; // One shot.
    value.it_value = delay;
    if (value.it_value.tv_sec == 0 && value.it_value.tv_nsec == 0) {
        value.it_value.tv_nsec = 1; // All zero would disarm the timer.
    }
    return timer_settime(m_timer.load(std::memory_order_relaxed), 0, &value, nullptr) == 0;
}

} // namespace vesk
