#pragma once

#include <vesk/loop/Callback.h>
#include <vesk/loop/Exit.h>
#include <vesk/loop/Options.h>
#include <vesk/loop/Result.h>
#include <vesk/loop/Watch.h>

#include <chrono>
#include <exception>
#include <memory>
#include <sys/types.h>

namespace vesk::loop {

class Command;
class Process;
struct Output;

/// Waits in one thread for descriptors, timers, signals, children and the calls of other threads, and calls back.
///
///     vesk::loop::Loop loop;
///     auto const quit = loop.onSignal(SIGTERM, [&] { loop.stop(); });
///     auto const tick = loop.every(1s, [&] { publish(sensor.read()); });
///     return loop.run() ? 0 : 1;
///
/// A watch may be made and destroyed in any thread and in every callback, also before and after the life of the
/// loop. Callbacks run in the thread that runs the loop, without any lock. If the system refuses the descriptors of
/// a loop, each operation reports that; a child of `fork` gets `ECHILD` and cannot disturb its parent's loop.
/// Only a callable that is larger than four pointers can make the caller throw `std::bad_alloc`.
class VESK_LOOP_API Loop {
public:
    Loop();
    /// Ends all watches. Not for use in a callback of this loop.
    ~Loop();
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    /// Calls back until `stop`.
    Result<> run();
    /// Calls back until `stop`, or until no active watch and no posted call is left.
    Result<> runToEnd();
    /// Waits at most `timeout` for the first callback, calls back once for all that is due, and returns whether a
    /// callback was called. A negative timeout waits without limit.
    Result<bool> runOnce(Clock::duration timeout = Clock::duration::zero());
    /// Lets `run` return after the callback that is running; before `run`, at once. Any thread.
    void stop() noexcept;
    /// Returns a descriptor that is readable when `runOnce` would call back, for use in another loop.
    Result<int> fd();
    /// Lets the loop call back once, in the order of the calls. Any thread.
    Result<> post(Callback<void()> call, Priority priority = Priority::NORMAL);
    /// Sets the function that gets the exceptions of callbacks. Without one, and if it throws, the process ends.
    void setExceptionHook(Callback<void(std::exception_ptr)> hook);

    /// @{
    /// Calls back when a read (at the end of the data too) or a write would not block (`epoll`). The descriptor must
    /// not be a file. It stays the caller's, and must stay open as long as the watch is active.
    Result<Watch>
    onReadable(int fd, Callback<void()> callback, Options options = {}, Trigger trigger = Trigger::LEVEL);
    Result<Watch>
    onWritable(int fd, Callback<void()> callback, Options options = {}, Trigger trigger = Trigger::LEVEL);
    /// @}

    /// @{
    /// Calls back once after `delay`, or at a moment (`CLOCK_MONOTONIC`: setting the date changes nothing).
    Result<Timer> after(Clock::duration delay, Callback<void()> callback, Options options = {});
    Result<Timer> at(Clock::time_point moment, Callback<void()> callback, Options options = {});
    /// @}
    /// Calls back every `period`, first after one period. The moments have no drift: a late call does not delay the
    /// next one, and moments that were missed while other callbacks ran are left out. The period is at least 1 ns.
    Result<Timer> every(Clock::duration period, Callback<void()> callback, Options options = {});
    /// Calls back once at a moment of the real-time clock, also if the clock is set meanwhile (`timerfd`).
    Result<Watch>
    atDate(std::chrono::system_clock::time_point moment, Callback<void()> callback, Options options = {});
    /// Calls back each time the real-time clock has been set (`TFD_TIMER_CANCEL_ON_SET`).
    Result<Watch> onClockSet(Callback<void()> callback, Options options = {});

    /// Calls back when the process or the calling thread gets the signal (`signalfd`). Blocks the signal in the
    /// calling thread, also beyond the watch: call it before the start of other threads, which inherit that.
    Result<Watch> onSignal(int signal, Callback<void()> callback, Options options = Priority::HIGH);
    /// Calls back once when a child has ended, and reaps it (`pidfd_open`, before Linux 5.3 a thread; `waitid`).
    /// If other code has reaped it, how it ended is unknown.
    Result<Watch> onExit(pid_t child, Callback<void(Exit)> callback, Options options = {});
    /// Starts a program, and calls back once when it has ended and its captured streams are closed. See
    /// `vesk/loop/Command.h`.
    Result<Process> start(Command const& command, Callback<void(Output)> callback, Options options = {});
    /// Calls back in each round in which nothing else is due.
    Result<Watch> onIdle(Callback<void()> callback, Options options = Priority::LOW);

private:
    friend struct detail::Access;

    std::shared_ptr<detail::Core> m_core;
};

} // namespace vesk::loop
