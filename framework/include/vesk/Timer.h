#pragma once

#include <common/Shared.h>
#include <vesk/Alarm.h>
#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// Calls a function after a time, once or again and again.
///
///     void blink(vesk::Timer* timer) { ... }
///
///     vesk::Timer timer(blink, false);
///     timer.start(500, true);
///     ...
///     timer.stop();
///
/// All timers of ordinary priority share one thread, "Timer", and all of high priority another, "HighPrioTimer". So
/// the callbacks of a thread run one after the other, and a slow one delays all timers of its thread. The first timer
/// starts the thread, the last one ends it. Times are on the monotonic clock: setting the date changes nothing.
///
/// The callback may call `start`, `stop` and `snooze` of any timer, of both priorities. It may destroy its own, unless that
/// is the last one of its priority; it must not destroy another one, whose callback may be due at the same moment. An
/// exception that leaves it ends the process.
///
/// Two callbacks of different priority may stop or start each other's timers at the same time. The call that comes second
/// does not wait then: it returns while the other callback is still inside its own call, which goes on when this callback
/// has returned.
///
/// Each priority has a signal, `SIGRTMIN` plus 3 and, for the high one, plus 2. It interrupts system calls in any thread
/// that does not block it, and ends a process one of whose threads is interrupted inside `Poller::poll`. Such a thread
/// blocks signals, after the first timer was made:
///
///     vesk::Timer timer(blink, false);
///     vesk::Poller::SignalsOff const signals_off;
///     while (!poller.poll()) {}
///
/// A timer is used by one thread at a time and by its callback. `stop` and the destructor return when no callback is
/// running, of whichever timer of the same priority: calling them while holding a lock that a callback takes is a
/// deadlock. An internal lock that fails goes to `std::GlobalErrorHandler::doAbort`.
class VESK_API Timer : private tarnbase::NonCopyable {
public:
    class HighPrioTimer;

    /// Failures of timers. Derives from `SysError`. The argument of each row is a text. There for clients to name: the
    /// library reports none of them, since what it uses does not fail in a way that it could tell.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0, ///< Creating the timer failed.
        START_FAILED = 1,  ///< Starting the timer failed.
        STOP_FAILED = 2,   ///< Stopping the timer failed.
        SNOOZE_FAILED = 3, ///< Snoozing the timer failed.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// The engine of the timers of high priority. It exists while somebody holds a reference; each such timer does.
    static std::Shared<HighPrioTimer> timer_high_prio;

    /// The engine of the others: `Alarm::DEFAULT_TIMER`.
    static std::Shared<Alarm::DefaultTimer>& timer_low_prio;

    /// A stopped timer, with an interval of 0 and not periodic. Starts the thread if it is the first of its priority.
    /// @param callback       runs in the thread of the priority; not null
    /// @param high_priority  whether nothing slow of an ordinary timer is to hold it up
    Timer(void (*callback)(Timer*), bool high_priority);

    /// Stops it, and ends the thread if it is the last of its priority. Waits for a callback that is running.
    virtual ~Timer();

    /// Starts it, or starts it anew from now.
    ///
    /// A periodic timer counts each period from the moment of the call before, so it drifts by the delay of each; a
    /// callback that takes longer than the interval is called again at once. Waits for a callback that is running in
    /// another thread. Throws `std::bad_alloc` if there is no memory for one more running timer, and is stopped then.
    /// @param interval_ms  milliseconds, not 0
    /// @param periodic     whether to go on after the first call
    /// @return true on failure, with everything as it was: `std::CommonErrorId::CONTRACT_BROKEN` for an interval of 0
    bool start(unsigned int interval_ms, bool periodic);

    /// Stops it; a stopped one stays so. Interval and kind stay what they were. When it returns, the callback will not be
    /// called. It is not running, unless it makes this call or waits for the caller in a call of its own. Waits for the
    /// callback that is running, however soon the next one is due.
    ///
    /// The callback of another timer of the same priority cannot take back one that is due at the same moment: it is
    /// still called, and goes on if it is periodic.
    /// @return false
    bool stop();

    /// Starts a period from now, with the interval and kind that it has; a stopped timer runs again. Before the first
    /// `start` that interval is 0: the callback is called once, at once. Waits and throws as `start` does; a running
    /// timer then stays as it was.
    /// @return false
    bool snooze();

    /// In milliseconds; 0 before the first `start`.
    VESK_API_INLINE unsigned int getInterval() const noexcept {
        return m_interval.load(std::memory_order_relaxed);
    }

    VESK_API_INLINE bool isPeriodic() const noexcept { return m_periodic.load(std::memory_order_relaxed); }

    /// What the engine calls at each expiry, in its thread and with its lock held.
    /// @param timer  a `Timer*`
    static void procedure(void* timer);

private:
    static std::SharedBase::Ptr<Alarm::Timer> getEngine(bool high_priority);

    void (*m_callback)(Timer*);
    [[maybe_unused]] bool m_high_priority; // Nothing reads it.
    // The engine's thread reads these two without a lock.
    std::atomic<uint32_t> m_interval{0};
    std::atomic<bool> m_periodic{false};
    Alarm m_alarm;
};

/// The engine in `Timer::timer_high_prio`: signal `SIGRTMIN` plus 2, thread "HighPrioTimer", scheduled as the main
/// thread was when it made the `Vesk`.
class VESK_API Timer::HighPrioTimer : public Alarm::Timer {
public:
    HighPrioTimer();
};

} // namespace vesk
