#pragma once

#include <common/Shared.h>
#include <vesk/Alarm.h>
#include <vesk/Export.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// A timer that calls a function after a time, once or periodically.
///
///     void blink(vesk::Timer* timer) { ... }
///
///     vesk::Timer timer(blink, false);
///     timer.start(500, true);
///     ...
///     timer.stop();
///
/// All timers of ordinary priority share one thread, "Timer", and all timers of high priority another,
/// "HighPrioTimer". The callbacks of a thread therefore run one after the other, and a slow callback delays
/// all timers of its thread. The first timer of a priority starts the thread, the last one ends it. Times are
/// on the monotonic clock: setting the date has no effect.
///
/// The callback may call `start`, `stop` and `snooze` of any timer, of both priorities. It may destroy its
/// own timer, unless that is the last one of its priority. It must not destroy another timer, since the
/// callback of that timer may be due at the same moment. An exception that leaves the callback ends the
/// process. A derived class must call `stop` in its own destructor: the callback may otherwise run when only
/// the base class is left.
///
/// Two callbacks of different priority may stop or start each other's timers at the same time. The second of
/// these calls does not wait: it returns while the other callback is still inside its own call, which
/// continues after this callback has returned.
///
/// Each priority has a signal: `SIGRTMIN` plus 3, and `SIGRTMIN` plus 2 for the high priority. The signal
/// interrupts system calls in any thread that does not block it, and it ends the process if it interrupts a
/// thread inside `Poller::poll`. Such a thread must block signals after the first timer was created:
///
///     vesk::Timer timer(blink, false);
///     vesk::Poller::SignalsOff const signals_off;
///     while (!poller.poll()) {}
///
/// A timer may be used by one thread at a time and by its callback. `stop` and the destructor return when no
/// callback of any timer of the same priority is running: calling them while holding a lock that a callback
/// takes is a deadlock. An internal lock that fails goes to `std::GlobalErrorHandler::doAbort`.
///
/// Each priority needs one thread, one pipe and one timer of the system. Without the thread the error of `Thread` is
/// pending after the constructor; without the timer there is no report (see `Alarm::Timer`). No timer of the priority
/// rings then. Without the pipe, which takes two descriptors, the process ends.
class VESK_API Timer : private tarnbase::NonCopyable {
public:
    class HighPrioTimer;

    /// Failures of timers. Derives from `SysError`. The argument of each row is a text. Provided for clients:
    /// the library reports none of these ids, since the operations below it report no failures.
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

    /// The engine of the timers of high priority. It exists while there are references to it; each such timer
    /// holds one.
    static std::Shared<HighPrioTimer> timer_high_prio;

    /// The engine of the timers of ordinary priority: `Alarm::DEFAULT_TIMER`.
    static std::Shared<Alarm::DefaultTimer>& timer_low_prio;

    /// Creates a stopped timer, with an interval of 0 and not periodic. Starts the thread if the timer is the
    /// first of its priority.
    /// @param callback       runs in the thread of the priority; not null
    /// @param high_priority  whether the timer uses the thread of high priority, which slow callbacks of
    ///                       ordinary timers do not delay
    Timer(void (*callback)(Timer*), bool high_priority);

    /// Stops the timer, and ends the thread if the timer is the last of its priority. Blocks while a callback
    /// is running.
    virtual ~Timer();

    /// Starts the timer, or restarts it from now.
    ///
    /// A periodic timer measures each period from the moment of the previous call, so it drifts by the delay
    /// of each call; `startFixedRate` does not. A callback that takes longer than the interval is called again immediately. Blocks while
    /// a callback is running in another thread. Throws `std::bad_alloc` if there is no memory for another
    /// running timer, and leaves the timer stopped.
    /// @param interval_ms  milliseconds, not 0
    /// @param periodic     whether to continue after the first call
    /// @return true on failure, with everything unchanged: `std::CommonErrorId::CONTRACT_BROKEN` for an
    ///         interval of 0
    [[nodiscard]] bool start(unsigned int interval_ms, bool periodic);

    /// Starts or restarts the timer as a periodic one that does not drift: the calls are planned for the first
    /// full millisecond of the clock that is `interval_ms` from now, and for each multiple of the interval
    /// after that. The delay of a call does not postpone the next one. Periods that have passed completely
    /// before a call begins are skipped. Blocks and throws as `start` does.
    ///
    ///     vesk::Timer sampler(sample, true);
    ///     sampler.startFixedRate(10); // 100 calls in each second
    ///
    /// `snooze` begins the periods anew, and `start` ends the fixed rate.
    /// @param interval_ms  milliseconds, not 0
    /// @return true on failure, with everything unchanged: `std::CommonErrorId::CONTRACT_BROKEN` for an
    ///         interval of 0
    [[nodiscard]] bool startFixedRate(unsigned int interval_ms);

    /// Stops the timer; a stopped timer stays stopped. Interval and kind are unchanged. After the return the
    /// callback will not be called. It is not running either, unless it makes this call or waits for the
    /// caller in a call of its own. Blocks until the current callback has returned, however soon the next one
    /// is due.
    ///
    /// The callback of another timer of the same priority cannot stop a timer that is due at the same moment:
    /// that timer is still called, and continues if it is periodic.
    /// @return false
    [[nodiscard]] bool stop();

    /// Starts a period from now, with the current interval and kind; a stopped timer runs again. Before the
    /// first `start` the interval is 0: the callback is called once, immediately. Blocks and throws as
    /// `start` does; after an exception a running timer is unchanged.
    /// @return false
    [[nodiscard]] bool snooze();

    /// Returns the interval in milliseconds; 0 before the first `start`.
    VESK_API_INLINE unsigned int getInterval() const noexcept {
        return m_interval.load(std::memory_order_relaxed);
    }

    /// Returns whether the timer is periodic.
    VESK_API_INLINE bool isPeriodic() const noexcept { return m_periodic.load(std::memory_order_relaxed); }

    /// Calls the callback, and restarts a periodic timer before that. The engine calls it at each expiry, in
    /// its thread and with its lock held.
    /// @param timer  a `Timer*`
    static void procedure(void* timer);

private:
    struct Settings;

    static std::SharedBase::Ptr<Alarm::Timer> getEngine(bool high_priority);
    TARN_HIDDEN bool start(Settings settings);

    void (*m_callback)(Timer*);
    [[maybe_unused]] bool m_high_priority; // Unused.
    // Read by the engine's thread without a lock.
    std::atomic<uint32_t> m_interval{0};
    std::atomic<bool> m_periodic{false};
    std::atomic<bool> m_fixed_rate{false}; // In what was padding: the size is the same as before.
    Alarm m_alarm;
};

/// The engine in `Timer::timer_high_prio`: signal `SIGRTMIN` plus 2, thread "HighPrioTimer", scheduled as the
/// main thread was when it created the `Vesk`.
class VESK_API Timer::HighPrioTimer : public Alarm::Timer {
public:
    HighPrioTimer();
};

} // namespace vesk
