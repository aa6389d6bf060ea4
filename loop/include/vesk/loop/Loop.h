#pragma once

#include <vesk/loop/Callback.h>
#include <vesk/loop/Result.h>
#include <vesk/loop/Watch.h>

#include <exception>
#include <memory>
#include <sys/types.h>

namespace vesk::loop {

class Command;
class Process;
struct Output;

/// The order of the callbacks of one round. A round calls each callback that was due at its begin, so that no
/// priority starves another one.
enum class Priority : unsigned char { HIGH, NORMAL, LOW };

/// When a descriptor calls back: as long as it is ready, or each time it becomes ready.
enum class Trigger : unsigned char { LEVEL, EDGE };

/// Where a callback was given to a loop.
struct Place {
    static constexpr Place here(char const* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept {
        return {file, line};
    }
    char const* file;
    int line;
};

/// How a child process ended.
struct Exit {
    pid_t pid = -1;
    int code = -1;            ///< The exit status, -1 after the end by a signal.
    int signal = 0;           ///< The signal that ended it, otherwise 0. Unknown after the end: -1 and 0.
    bool dumped_core = false; ///< Whether it left a core dump.
    bool ok() const noexcept { return code == 0; }
};

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

    // ---- running ----

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

    // ---- calls ----

    /// Lets the loop call back once, in the order of the calls. Any thread.
    Result<> post(Callback<void()> call, Priority priority = Priority::NORMAL);

    // ---- watches ----

    /// Calls back when a read would not block, at the end of the data too (`epoll`). The descriptor must not be a
    /// file. It stays the caller's, and must stay open as long as the watch is active.
    Result<Watch> onReadable(
        int fd, Callback<void()> callback, Priority priority = Priority::NORMAL,
        Trigger trigger = Trigger::LEVEL, Place place = Place::here());
    /// Calls back when a write would not block. Otherwise like `onReadable`.
    Result<Watch> onWritable(
        int fd, Callback<void()> callback, Priority priority = Priority::NORMAL,
        Trigger trigger = Trigger::LEVEL, Place place = Place::here());

    /// Calls back once after `delay`, or at a moment (`CLOCK_MONOTONIC`: setting the date changes nothing).
    Result<Timer> after(
        Clock::duration delay, Callback<void()> callback, Priority priority = Priority::NORMAL,
        Place place = Place::here());
    Result<Timer>
    at(Clock::time_point moment, Callback<void()> callback, Priority priority = Priority::NORMAL,
       Place place = Place::here());
    /// Calls back every `period`, first after one period. The moments have no drift: a late call does not delay the
    /// next one, and moments that were missed while other callbacks ran are left out. The period is at least 1 ns.
    Result<Timer> every(
        Clock::duration period, Callback<void()> callback, Priority priority = Priority::NORMAL,
        Place place = Place::here());

    /// Calls back when the process or the calling thread gets the signal (`signalfd`). Blocks the signal in the
    /// calling thread, also beyond the watch: call it before the start of other threads, which inherit that.
    Result<Watch> onSignal(
        int signal, Callback<void()> callback, Priority priority = Priority::HIGH,
        Place place = Place::here());

    /// Calls back once when a child has ended, and reaps it (`pidfd_open`, before Linux 5.3 a thread; `waitid`).
    /// If other code has reaped it, how it ended is unknown.
    Result<Watch> onExit(
        pid_t child, Callback<void(Exit)> callback, Priority priority = Priority::NORMAL,
        Place place = Place::here());

    /// Starts a program, and calls back once when it has ended and its captured streams are closed. See
    /// `vesk/loop/Command.h`.
    Result<Process> start(
        Command const& command, Callback<void(Output)> callback, Priority priority = Priority::NORMAL,
        Place place = Place::here());

    /// Calls back in each round in which nothing else is due.
    Result<Watch> onIdle(Callback<void()> callback, Place place = Place::here());

    // ---- exceptions ----

    /// Sets the function that gets the exceptions of callbacks. Without one, and if it throws, the process ends.
    void setExceptionHook(Callback<void(std::exception_ptr)> hook);

private:
    class Turn;
    template <typename IsOver>
    [[gnu::visibility("hidden")]] Result<> runUntil(IsOver is_over, Clock::duration timeout);
    template <typename W, typename S, typename Id, typename... Args>
    [[gnu::visibility("hidden")]] Result<W> add(Id refused, int argument, Args&&... args);
    Result<Timer> startTimer(
        Clock::time_point deadline, Clock::duration period, Callback<void()> callback, Priority priority,
        Place place);

    std::shared_ptr<detail::Core> m_core;
};

} // namespace vesk::loop
