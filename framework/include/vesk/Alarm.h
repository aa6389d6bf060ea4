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

namespace detail {
class AlarmTable;
struct AlarmRinger;
} // namespace detail

/// One pending timeout. Any number of them share an engine, that is one timer of the kernel and one thread.
///
///     std::SharedBase::Ptr<vesk::Alarm::Timer> const engine(vesk::Alarm::DEFAULT_TIMER);
///     vesk::Alarm alarm(engine, nullptr, giveUp, &request);
///     alarm.start(tarnbase::Duration(250));
///     ...
///     alarm.stop();
///
/// It rings once; whoever wants more starts it again, for example from its callback. All times are on the monotonic
/// clock: setting the date changes nothing. `vesk::Timer` is the comfortable form.
///
/// An alarm must be stopped before it is destroyed, and must not be destroyed by the callback of another alarm of its
/// engine: the two may be due together. Its own callback may destroy it, as long as other alarms keep the engine.
class VESK_API Alarm : private tarnbase::NonCopyable {
public:
    class Timer;
    class DefaultTimer;

    /// The engine of the process, of ordinary priority. It exists while somebody holds a reference; each `Alarm` does.
    static std::Shared<DefaultTimer> DEFAULT_TIMER;

    /// Takes a reference on the engine. Nothing is pending yet.
    /// @param engine    not empty
    /// @param sink      Where the call is to be queued, as a message, when the time has come: `callback` then runs in
    ///                  the thread that serves the sink, with no lock held. Null for a call in the engine's thread,
    ///                  with the engine's lock held. Not owned.
    /// @param callback  what to call with `data`; not null
    Alarm(std::SharedBase::Ptr<Timer> const& engine, Message::Sink* sink, void (*callback)(void*), void* data)
        : m_engine(engine), m_sink(sink), m_callback(callback), m_data(data) {}

    /// Sets the time to `delay` from now, whether it was pending or not; `Timer::add` of its engine.
    void start(tarnbase::Duration const& delay);

    /// Takes it back; `Timer::remove` of its engine.
    void stop();

private:
    void deliver() const;

    std::SharedBase::Ptr<Timer> m_engine;
    Message::Sink* m_sink;
    void (*m_callback)(void*);
    void* m_data;
};

/// The engine behind alarms: one POSIX timer on the monotonic clock, one real-time signal, and one thread that calls
/// the alarms whose time has come.
///
///     vesk::Alarm::Timer engine(SIGRTMIN + 5, "Watchdog", vesk::Thread::getMainSchedAttrs());
///     vesk::Alarm alarm(std::SharedBase::Ptr<vesk::Alarm::Timer>(nullptr, &engine), nullptr, bite, &dog);
///     engine.add(&alarm, tarnbase::Duration(5000));
///
/// The kernel's timer is armed for the earliest alarm. It raises the signal, whose handler runs in any thread that does
/// not block it and wakes the engine's thread. The signal must be free, and must stay unblocked in at least one thread.
///
/// `add` and `remove` may be called from any thread, and by callbacks of this and of other engines. The engine's lock is
/// held while a callback runs that has no sink. So callbacks of one engine run one after the other, a slow one delays all
/// alarms and blocks `add` and `remove`, and removing an alarm while holding a lock that its callback takes is a
/// deadlock. A callback that throws ends the process.
///
/// A call that waits for the lock is served before the next `ring`, however soon that follows the one under way.
///
/// Callbacks of several engines may call `add` and `remove` of each other's engines. Where each of these calls would wait
/// for a callback that itself waits in such a call, the last one is carried out at once instead. The callbacks for which
/// it does not wait go on after the one that made it has returned.
///
/// An engine reports nothing of its own. A thread that cannot be had leaves the error of `Thread` pending; without it, or
/// without a timer from the kernel, the engine never rings by itself. An internal lock that fails goes to
/// `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
class VESK_API Alarm::Timer : private tarnbase::NonCopyable {
public:
    /// Starts the thread, catches the signal (`sigaction`) and makes the timer (`timer_create`).
    /// @param signal       a real-time signal that nobody else uses; `SIGRTMIN` plus 2 and plus 3 belong to the library
    /// @param thread_name  name of the thread; copied
    /// @param attributes   its scheduling
    Timer(int signal, char const* thread_name, sched::Attr const& attributes);

    /// The older form: the thread keeps the policy of the calling one, with `priority` as its real-time priority or
    /// nice value; with 0 it inherits everything.
    Timer(int signal, char const* thread_name, int const& priority);

    /// Waits for the callback under way and for the end of the thread, and gives the signal back. Alarms that are still
    /// pending are forgotten; none may be added or removed any more. Not for the engine's own callbacks.
    ~Timer();

    /// Sets the time of an alarm to `delay` from now, whether it was pending or not. Costs a system call
    /// (`timer_settime`) only if it becomes the next one of all. Waits while a callback runs in another thread.
    ///
    /// Throws `std::bad_alloc` if there is no memory for one more pending alarm; everything is then as it was.
    /// @param alarm  not owned; to be removed before it is destroyed
    /// @param delay  milliseconds. What is below 0 counts as 0: the alarm rings at once. What goes beyond
    ///               `tarnbase::TimePoint::MAX` counts as never.
    void add(Alarm* alarm, tarnbase::Duration const& delay);

    /// Takes an alarm out; one that is not pending is ignored. When it returns, the engine will not begin another
    /// callback of the alarm. None is running, but for the one that makes this call, or one that is inside a call of its
    /// own that waits for the caller. What the engine has pushed to a sink before still runs, and a callback cannot take
    /// back another alarm of its own engine that has become due at the same moment. Waits while a callback runs in
    /// another thread.
    void remove(Alarm* alarm);

    /// The routine that the engine's thread runs with each signal: delivers all alarms whose time has come, in the
    /// order of their addresses, and arms the timer for the next one. Early calls are harmless.
    ///
    /// Exceptions of callbacks and of sinks, and `std::bad_alloc`, pass through, with the lock released and the timer
    /// armed. Alarms that had become due together with the one that threw, and were to ring after it, are given up.
    /// @param engine  an `Alarm::Timer*`
    static void ring(void* engine);

    /// Whether there are callbacks for which `add` and `remove` would wait.
    bool isCallingBack() const noexcept;

    /// Waits for the callbacks for which `add` and `remove` wait.
    void waitForCallback() noexcept;

private:
    class Access;
    class Ring;
    class Waiting;

    template <typename Scheduling>
    Timer(Scheduling const& scheduling, int signal, char const* thread_name);

    static void caught(int signal, void* engine);

    bool isOfOtherThread() const noexcept;
    static bool leadsToCaller(Timer const& engine) noexcept;
    void waitForRing(char const* function) noexcept;
    bool waitForCalls(char const* function) noexcept;
    void wakeNext() noexcept;
    void dropSignals() noexcept;
    void armTimer(tarnbase::Duration delay) noexcept;
    void armForNext(tarnbase::TimePoint now) noexcept;
    void takeDue(tarnbase::TimePoint now, std::vector<Alarm const*>& due);

    // All that `ring` needs stands before its thread starts, in case that the signal comes from elsewhere.
    void (*m_handler)(void*);
    void* m_handler_data;
    // The engine's lock consists of this mutex, which is held for a few instructions, and of the ring whose callbacks
    // run: whoever gets the mutex in another thread waits for the end of the ring. It guards all down to the expiry.
    threadsafe::MutexImpl m_lock;
    threadsafe::ConditionImpl m_calls_may_go_on; // After a ring, for the calls that have come meanwhile.
    threadsafe::ConditionImpl m_ring_may_begin;  // After these calls.
    size_t m_waiting_calls = 0;
    Ring* m_ring = nullptr;                              // The innermost one.
    std::atomic<detail::AlarmRinger*> m_ringer{nullptr}; // Its thread. Changes with a second lock, see there.
    std::unique_ptr<detail::AlarmTable> m_alarms;
    tarnbase::TimePoint m_next_expiry; // The kernel's timer is armed for it or for earlier; MAX is nothing.
    std::atomic<timer_t> m_timer;
    int m_signal;
    SignalDispatcher m_dispatcher;
    SignalCatcher m_catcher;
};

/// The engine in `Alarm::DEFAULT_TIMER`: signal `SIGRTMIN` plus 3, thread "Timer", scheduled as the main thread was
/// when it made the `Vesk`.
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
