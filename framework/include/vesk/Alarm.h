#pragma once

#include <common/Shared.h>
#include <vesk/Export.h>
#include <vesk/Message.h>
#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>
#include <vesk/sched.h>

#include <tarncommon/tarnbase/Duration.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <cstddef>
#include <ctime>
#include <memory>
#include <vector>

namespace vesk {

class Timer;

namespace detail {
class AlarmTable;
struct AlarmRinger;
struct Moment;
} // namespace detail

/// A single pending timeout. Any number of alarms share an engine, which consists of one kernel timer and one
/// thread.
///
///     std::SharedBase::Ptr<vesk::Alarm::Timer> const engine(vesk::Alarm::DEFAULT_TIMER);
///     vesk::Alarm alarm(engine, nullptr, giveUp, &request);
///     alarm.start(tarnbase::Duration(250));
///     ...
///     alarm.stop();
///
/// An alarm rings once per `start`. For repeated calls, start it again, for example from its callback. All
/// times are on the monotonic clock: setting the date has no effect. `vesk::Timer` is the more convenient
/// form.
///
/// An alarm must be stopped before it is destroyed. It must not be destroyed by the callback of another alarm
/// of its engine, since both may be due together. Its own callback may destroy it, provided that other alarms
/// keep the engine.
class VESK_API Alarm : private tarnbase::NonCopyable {
public:
    class Timer;
    class DefaultTimer;

    /// The engine of the process, of ordinary priority. It exists while references to it exist; each `Alarm`
    /// holds one.
    static std::Shared<DefaultTimer> DEFAULT_TIMER;

    /// Takes a reference on the engine. The new alarm is not pending.
    /// @param engine    not empty
    /// @param sink      Receives the call as a message when the alarm is due: `callback` then runs in the
    ///                  thread that serves the sink, with no lock held. Null for a call in the engine's
    ///                  thread, with the engine's lock held. Not owned.
    /// @param callback  called with `data`; not null
    Alarm(std::SharedBase::Ptr<Timer> const& engine, Message::Sink* sink, void (*callback)(void*), void* data)
        : m_engine(engine), m_sink(sink), m_callback(callback), m_data(data) {}

    /// Sets the expiry to `delay` from now, whether the alarm is pending or not. Calls `Timer::add` of its
    /// engine.
    void start(tarnbase::Duration const& delay);

    /// Cancels the pending timeout. Calls `Timer::remove` of its engine.
    void stop();

private:
    friend class vesk::Timer;

    /// When a restarted alarm expires: after the delay, or at the beginning of the millisecond after that. The
    /// second is the beginning of a fixed rate, which has only full milliseconds.
    enum class Start : unsigned char { EXACT, AT_FULL_MILLISECOND };

    void deliver() const;
    TARN_HIDDEN void
    restart(Start start, tarnbase::Duration const& delay, void (*change)(void*), void* argument);
    TARN_HIDDEN void startNext(tarnbase::Duration const& interval);

    std::SharedBase::Ptr<Timer> m_engine;
    Message::Sink* m_sink;
    void (*m_callback)(void*);
    void* m_data;
};

/// The engine behind alarms: one POSIX timer on the monotonic clock, one real-time signal, and one thread
/// that calls the alarms that are due.
///
///     vesk::Alarm::Timer engine(SIGRTMIN + 5, "Watchdog", vesk::Thread::getMainSchedAttrs());
///     vesk::Alarm alarm(std::SharedBase::Ptr<vesk::Alarm::Timer>(nullptr, &engine), nullptr, bite, &dog);
///     engine.add(&alarm, tarnbase::Duration(5000));
///
/// The kernel timer is armed for the earliest alarm. It raises the signal. The signal handler runs in any
/// thread that does not block the signal, and wakes the engine's thread. The signal must be free, and must
/// stay unblocked in at least one thread.
///
/// `add` and `remove` may be called from any thread, and by callbacks of this and of other engines. The
/// engine's lock is held while a callback without a sink runs. Callbacks of one engine therefore run one
/// after the other, and a slow callback delays all alarms and blocks `add` and `remove`. Removing an alarm
/// while holding a lock that its callback takes is a deadlock. A callback that throws ends the process.
///
/// A call that waits for the lock is served before the next `ring`, however soon that follows the current
/// one.
///
/// Callbacks of several engines may call `add` and `remove` of each other's engines. Where each of these
/// calls would wait for a callback that itself waits in such a call, the last call is carried out
/// immediately. The callbacks for which it does not wait continue after the callback that made the call has
/// returned.
///
/// An engine makes no reports of its own. If its thread cannot be created, the error of `Thread` is pending.
/// Without a thread, or without a kernel timer, the engine never rings by itself. An internal lock that fails
/// goes to `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
class VESK_API Alarm::Timer : private tarnbase::NonCopyable {
public:
    /// Starts the thread, catches the signal (`sigaction`) and creates the timer (`timer_create`).
    ///
    /// If the system has no timer, no alarm rings, and nothing reports it. A timer needs one of the signals that the
    /// user may have queued (`RLIMIT_SIGPENDING`).
    /// @param signal       a real-time signal without another user; `SIGRTMIN` plus 2 and plus 3 belong to
    ///                     the library
    /// @param thread_name  name of the thread; copied
    /// @param attributes   scheduling of the thread
    Timer(int signal, char const* thread_name, sched::Attr const& attributes);

    /// Creates an engine in the older form: the thread keeps the policy of the calling thread, with
    /// `priority` as its real-time priority or nice value. With 0 it inherits all scheduling.
    Timer(int signal, char const* thread_name, int const& priority);

    /// Blocks until the current callback and the thread have ended, and restores the old action of the
    /// signal. Discards alarms that are still pending; none may be added or removed any more. Must not be
    /// called by the engine's own callbacks.
    ~Timer();

    /// Sets the expiry of an alarm to `delay` from now, whether it is pending or not. Makes a system call
    /// (`timer_settime`) only if the alarm becomes the earliest of all and the kernel's timer, which stays
    /// armed when an alarm is removed, does not ring before. Blocks while a callback runs in another thread.
    ///
    /// Throws `std::bad_alloc` if there is no memory for another pending alarm, and leaves everything
    /// unchanged.
    /// @param alarm  not owned; must be removed before it is destroyed
    /// @param delay  milliseconds. A negative delay counts as 0: the alarm rings immediately. An expiry
    ///               beyond `tarnbase::TimePoint::MAX` counts as never.
    void add(Alarm* alarm, tarnbase::Duration const& delay);

    /// Removes an alarm; ignores an alarm that is not pending. After the return the engine begins no further
    /// callback of the alarm. No callback of it is running either, except the callback that makes this call,
    /// or a callback inside a call of its own that waits for the caller. A message that the engine has
    /// already pushed to a sink still runs. A callback cannot remove another alarm of its own engine that
    /// became due at the same moment. Blocks while a callback runs in another thread.
    void remove(Alarm* alarm);

    /// Delivers all due alarms in the order of their addresses, and arms the timer for the next alarm. The
    /// engine's thread calls it for each signal. Early calls are harmless.
    ///
    /// Exceptions of callbacks and of sinks, and `std::bad_alloc`, pass through, with the lock released and
    /// the timer armed. Alarms that became due together with the alarm that threw, and follow it in the
    /// order, are discarded.
    /// @param engine  an `Alarm::Timer*`
    static void ring(void* engine);

    /// Returns whether there are callbacks for which `add` and `remove` would block.
    bool isCallingBack() const noexcept;

    /// Blocks until the callbacks for which `add` and `remove` block have ended.
    void waitForCallback() noexcept;

private:
    friend class Alarm;

    class Access;
    class Ring;
    class Waiting;
    struct DueAlarm;

    template <typename Scheduling>
    Timer(Scheduling const& scheduling, int signal, char const* thread_name);

    static void caught(int signal, void* engine);

    bool isOfOtherThread() const noexcept;
    static bool leadsToCaller(Timer const& engine) noexcept;
    void waitForRing(char const* function) noexcept TARN_REQUIRES(m_lock);
    bool waitForCalls(char const* function) noexcept TARN_REQUIRES(m_lock);
    void wakeNext() noexcept TARN_REQUIRES(m_lock);
    void dropSignals() noexcept;
    TARN_HIDDEN void restart(
        Alarm* alarm, Start start, tarnbase::Duration const& delay, void (*change)(void*), void* argument);
    TARN_HIDDEN void addNext(Alarm* alarm, tarnbase::Duration const& interval);
    TARN_HIDDEN void set(Alarm* alarm, tarnbase::Duration delay) TARN_REQUIRES(m_lock);
    TARN_HIDDEN void setAt(Alarm* alarm, detail::Moment const& now, tarnbase::TimePoint expiry)
        TARN_REQUIRES(m_lock);
    TARN_HIDDEN bool putIn(Alarm* alarm, tarnbase::TimePoint expiry) TARN_REQUIRES(m_lock);
    TARN_HIDDEN void erase(Alarm const* alarm) noexcept TARN_REQUIRES(m_lock);
    TARN_HIDDEN void
    armFor(detail::Moment const& now, tarnbase::TimePoint expiry, tarnbase::Duration delay) noexcept
        TARN_REQUIRES(m_lock);
    TARN_HIDDEN void armAt(detail::Moment const& now, tarnbase::TimePoint expiry) noexcept
        TARN_REQUIRES(m_lock);
    TARN_HIDDEN bool isEarly(tarnbase::TimePoint now) const noexcept TARN_REQUIRES(m_lock);
    TARN_HIDDEN long long getExactRest() const noexcept TARN_REQUIRES(m_lock);
    TARN_HIDDEN bool arm(timespec const& delay) noexcept;
    void armTimer(tarnbase::Duration delay) noexcept;
    void armForNext(tarnbase::TimePoint now) noexcept TARN_REQUIRES(m_lock);
    TARN_HIDDEN void takeDue(tarnbase::TimePoint now, std::vector<DueAlarm>& due) TARN_REQUIRES(m_lock);

    // Everything that `ring` uses is initialized before the thread starts, since the signal may come from
    // elsewhere.
    void (*m_handler)(void*);
    void* m_handler_data;
    // The engine's lock consists of this mutex, which is held for a few instructions, and of the ring that
    // runs callbacks: another thread that acquires the mutex waits for the end of the ring. The mutex guards
    // all members from here to the expiry.
    threadsafe::MutexImpl m_lock;
    threadsafe::ConditionImpl m_calls_may_go_on; // After a ring, for the calls that arrived meanwhile.
    threadsafe::ConditionImpl m_ring_may_begin;  // After these calls.
    size_t m_waiting_calls TARN_GUARDED_BY(m_lock) = 0;
    Ring* m_ring TARN_GUARDED_BY(m_lock) = nullptr;      // The innermost ring.
    std::atomic<detail::AlarmRinger*> m_ringer{nullptr}; // Its thread. Changes under `RingersLock`, too.
    std::unique_ptr<detail::AlarmTable> m_alarms TARN_GUARDED_BY(m_lock);
    // The kernel timer is armed for this time or an earlier one. MAX: no alarm is pending.
    tarnbase::TimePoint m_next_expiry TARN_GUARDED_BY(m_lock);
    std::atomic<timer_t> m_timer;
    int m_signal;
    SignalDispatcher m_dispatcher;
    SignalCatcher m_catcher;
};

/// The engine in `Alarm::DEFAULT_TIMER`: signal `SIGRTMIN` plus 3, thread "Timer", scheduled as the main
/// thread was when it created the `Vesk`.
class VESK_API Alarm::DefaultTimer : public Alarm::Timer {
public:
    DefaultTimer();
};

inline void Alarm::start(tarnbase::Duration const& delay) {
    m_engine->add(this, delay);
}

inline void Alarm::stop() {
    m_engine->remove(this);
}

} // namespace vesk
