#include <vesk/Alarm.h>

#include "../common/AlarmTable.h"
#include "CancellationOff.h"

#include <vesk/Thread.h>
#include <vesk/common/AbortingLock.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <functional>
#include <limits>

namespace vesk {

using tarnbase::Duration;
using tarnbase::TimePoint;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Alarm";

/// Before the first alarm the kernel's timer counts as armed for a time that nobody lives to see.
constexpr Duration FAR_AWAY(std::numeric_limits<unsigned long long>::max() / 1000);

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

/// No expiry lies before the boot or wraps around: their order is the same with and without a sign.
TimePoint addTo(TimePoint now, Duration delay) noexcept {
    return delay < TimePoint::MAX - now ? now + delay : TimePoint::MAX;
}

/// An id that the kernel gives to no timer, while a pointer's lowest values are the first ones that it gives.
timer_t getNoTimer() noexcept {
    return reinterpret_cast<timer_t>(static_cast<intptr_t>(INT_MAX)); // NOLINT(performance-no-int-to-ptr)
}

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

/// Arms the timer for what is left when `ring` is done, also when a callback throws.
class Alarm::Timer::ArmedAtEnd : private tarnbase::NonCopyable {
public:
    ArmedAtEnd(Timer& engine, TimePoint now) noexcept : m_engine(engine), m_now(now) {}
    ~ArmedAtEnd() { m_engine.armForNext(m_now); }

private:
    Timer& m_engine;
    TimePoint m_now;
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
      m_alarms(std::make_unique<detail::AlarmTable>()),
      m_next_expiry(TimePoint::now() + FAR_AWAY),
      m_timer(getNoTimer()),
      m_signal(signal),
      m_dispatcher(thread_name, scheduling),
      m_catcher(signal, m_dispatcher.getQueue(), caught, this) {
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signal;
    timer_t timer = getNoTimer();
    // Unchecked, as is every later call for the timer: nobody who starts an alarm could do anything about a kernel
    // that has no timer left, and there is nobody else to tell.
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    m_timer.store(timer, std::memory_order_relaxed);
}

Alarm::Timer::~Timer() {
    m_dispatcher.stop();
    timer_delete(m_timer.load(std::memory_order_relaxed));
    dropSignals();
}

/// An expiry of the last moment may still be on its way to some thread, and would end the process once the signal has
/// its default action again.
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
    Duration const wait = std::max(delay, Duration(0));
    InternalLock const lock(m_lock, SOURCE, "add");
    TimePoint const expiry = addTo(TimePoint::now(), wait);
    m_alarms->set(alarm, expiry);
    if (m_next_expiry <= expiry) {
        return;
    }
    m_next_expiry = expiry;
    armTimer(wait);
}

void Alarm::Timer::remove(Alarm* alarm) {
    InternalLock const lock(m_lock, SOURCE, "remove");
    m_alarms->erase(alarm);
    // The kernel's timer stays as it is: a ring too many is cheaper than a system call here.
    m_next_expiry = m_alarms->getEarliest();
}

void Alarm::Timer::ring(void* engine) {
    Timer& timer = *static_cast<Timer*>(engine);
    std::vector<Alarm*> due;
    due.reserve(timer.m_alarms->getCount());
    TimePoint const now = TimePoint::now();
    InternalLock const lock(timer.m_lock, SOURCE, "ring");
    ArmedAtEnd const armed_at_end(timer, now);
    if (timer.m_next_expiry > now) {
        // Early, or for an alarm that was removed or put off. Armed here for the rest, and at the end as always.
        timer.armForNext(now);
        return;
    }
    timer.takeDue(now, due);
    for (Alarm const* const alarm : due) {
        alarm->deliver();
    }
}

void Alarm::Timer::takeDue(TimePoint now, std::vector<Alarm*>& due) {
    due.reserve(m_alarms->getCount()); // Some may have come in while the lock was not held.
    while (m_alarms->getEarliest() <= now) {
        due.push_back(m_alarms->takeEarliest());
    }
    m_next_expiry = m_alarms->getEarliest();
    std::sort(due.begin(), due.end(), std::less<>());
}

void Alarm::Timer::armForNext(TimePoint now) noexcept {
    if (m_next_expiry < TimePoint::MAX) {
        armTimer(m_next_expiry - now);
    }
}

void Alarm::Timer::armTimer(Duration delay) noexcept {
    itimerspec value{}; // One shot.
    // A time that is too long for the system becomes its longest: the ring that comes too early arms for the rest.
    value.it_value = TimePoint(delay.getCount()).toTimespec();
    if (value.it_value.tv_sec == 0 && value.it_value.tv_nsec == 0) {
        value.it_value.tv_nsec = 1; // All zero would disarm it.
    }
    timer_settime(m_timer.load(std::memory_order_relaxed), 0, &value, nullptr);
}

} // namespace vesk
