#pragma once

#include <vesk/Condition.h>
#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/TLS.h>
#include <vesk/sched.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <pthread.h>
#include <vector>

namespace vesk {

namespace detail {
class ThreadLink;
}

/// A thread of the system, and what concerns the calling one.
///
///     void work(void* argument) { ... }
///
///     vesk::Thread thread(work, &job, "worker");
///     if (!thread.isValid() || thread.start()) { ... }
///     ...
///     if (thread.join()) { ... }
///
/// The system's thread exists when the constructor is done and waits for `start`: whatever can go wrong with its
/// creation has happened by then, and starting it is cheap. `start`, `wakeup`, `terminate`, the scheduling and the
/// affinity may be called from any thread at any time while the object exists; only one thread may join.
///
/// | from | event | to |
/// |---|---|---|
/// | | the constructor | `CREATED`, or `DEAD` if it failed |
/// | `CREATED` | `start` | `RUNNING` |
/// | `CREATED` | the destructor | `FINISHED`, then `DEAD`; the body does not run |
/// | `RUNNING` | `suspend` | `SUSPENDED` |
/// | `SUSPENDED` | `wakeup` | `RUNNING` |
/// | `SUSPENDED` | the time of `suspend` has run out | stays `SUSPENDED`, with the thread running on |
/// | `RUNNING`, `SUSPENDED` | a joinable thread's body has returned | `FINISHED` |
/// | `RUNNING`, `SUSPENDED` | a detached thread's body has returned | no change |
/// | `RUNNING` | `terminate` | `DEAD` |
/// | `RUNNING`, `SUSPENDED`, `FINISHED` | `join` or `joinTimeout`, joinable threads only | `DEAD` |
///
/// A joinable thread is to be joined or terminated before its object is destroyed; one that has finished, or was never
/// started, is joined by the destructor. The object of a detached thread may be destroyed at any time, and that of any
/// thread as soon as `terminate` has returned: the thread goes on without it, also out of a `suspend`. Of such an object
/// the thread itself may still call `suspend`, and nothing else.
///
/// The body runs with a `std::ErrorStorage` of its own, which writes errors that nobody acknowledged to standard output.
/// An exception that leaves the body ends the process. The body may end its thread with `pthread_exit`; no exit handler
/// runs then.
class VESK_API Thread : private tarnbase::NonCopyable {
public:
    /// Failures of threads. Derives from `SysError`. The argument of each row is a text.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        CREATE_FAILED = 0,     ///< Creating the thread failed.
        START_FAILED = 1,      ///< Starting the thread failed.
        SCHEDULING_FAILED = 2, ///< Reading or changing the scheduling failed.
        YIELD_FAILED = 3,      ///< Yielding the processor failed.
        JOIN_FAILED = 4,       ///< Joining the thread failed.
        TERMINATE_FAILED = 5,  ///< Terminating the thread failed.
        SUSPEND_FAILED = 6,    ///< Suspending the thread failed. Has no row: the text is that of an unknown
                               ///< error.
        WAKEUP_FAILED = 7,     ///< Waking the thread up failed. Has no row: the text is that of an unknown
                               ///< error.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Where a thread is in its life; the class tells how it gets there.
    enum State : int32_t {
        CREATED = 0,   ///< The system's thread waits for `start`.
        RUNNING = 1,   ///< Started.
        SUSPENDED = 2, ///< It has called `suspend`.
        FINISHED = 3,  ///< Its body has returned, or is not to run any more; to be joined.
        DEAD = 4,      ///< Joined, terminated or never created.
    };

    /// Why exit handlers are called.
    enum ExitReason : int32_t {
        EXIT_NORMAL = 0,     ///< The body has returned. They run in the thread itself.
        EXIT_TERMINATED = 1, ///< `terminate` has ended the thread. They run in the thread that called it.
    };

    /// What the system tells threads apart by: a `pthread_t`. A plain value that can be compared and printed. The id of
    /// a thread that is gone may come back as that of a new one.
    class VESK_API ThreadId {
    public:
        /// An id with all bits set, which no thread has.
        static ThreadId const INVALID_THREAD_ID;

        /// The invalid id.
        constexpr ThreadId() noexcept = default;
        constexpr explicit ThreadId(pthread_t value) noexcept : m_value(value) {}

        constexpr pthread_t getValue() const noexcept { return m_value; }

        friend constexpr bool operator==(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value == b.m_value;
        }
        friend constexpr bool operator!=(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value != b.m_value;
        }
        /// An order without a meaning, for sorted containers.
        friend constexpr bool operator<(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value < b.m_value;
        }

    private:
        pthread_t m_value = static_cast<pthread_t>(-1);
    };

    /// The body of a thread; gets the argument of the constructor.
    using Function = void (*)(void*);

    /// Called at the end of the thread that registered it.
    using ExitHandler = void (*)(ThreadId const& id, ExitReason reason);

    /// How many exit handlers a thread can have.
    static constexpr unsigned int EXIT_HANDLERS = 4;

    /// Creates a joinable thread that inherits its scheduling and has no name (`pthread_create`).
    ///
    /// A constructor that fails leaves an object with which nothing can be done but asking `isValid` and destroying it,
    /// and the error pending: a row of `SysError` (0 without resources, 1 without memory, 7 without the right, 8 for
    /// parameters out of their range, else 19), then `ErrorId::CREATE_FAILED`.
    Thread(Function function, void* argument);

    /// The same with a name.
    /// @param name  copied; may be null. The system shows its last 15 bytes, where long names differ.
    Thread(Function function, void* argument, char const* name);

    /// The same with scheduling.
    ///
    /// @param attributes  With `VESK_SCHED_POLICY_RR` and `_FIFO` `priority` counts, with `_NORMAL` `nice`, with
    ///                    `_KEEP` the one of the two that belongs to the policy of the calling thread. With
    ///                    `VESK_SCHED_NOOP` and with a class the thread inherits the scheduling of the calling one. So it
    ///                    does, without a report, when the process has no right to what it wants. The thread sets its
    ///                    nice value itself, before it runs the body; if it may not, it runs on with the one it has, and
    ///                    the trace channel "FW_Vesk_Thread" tells that at level 2.
    /// @param detached    whether nobody will join the thread
    Thread(Function function, void* argument, char const* name, sched::Attr const& attributes, bool detached);

    /// The older form of the one above.
    ///
    /// @param use_priority  False: the scheduling is inherited. True: the thread keeps the policy of the calling one,
    ///                      with `priority`; if that policy cannot be read, or is none that the library knows, the
    ///                      thread inherits the scheduling and goes without its name.
    /// @param priority      real-time priority, or nice value in a time-sharing thread
    /// @param stack_size    has no effect: every thread has the system's default stack
    Thread(
        Function function, void* argument, char const* name, bool use_priority, int priority,
        unsigned int stack_size, bool detached);

    /// Ends the object. Blocks until the thread is gone if it has finished or was never started, and until a detached
    /// thread, or one that was terminated, has taken over from its creation, which is a matter of its next time slice.
    /// Ends a `suspend` of a detached thread, which returns with success.
    ///
    /// A joinable thread that still runs, and an internal lock that fails, go to `std::GlobalErrorHandler::doAbort`. The
    /// calling thread is not cancelled meanwhile.
    virtual ~Thread();

    /// Whether the constructor succeeded.
    VESK_API_INLINE bool isValid() const noexcept { return m_valid; }

    /// Lets the body run. Once only. Does not block.
    /// @return true on failure, with the state as it was: `std::CommonErrorId::CONTRACT_BROKEN` in any other state than `CREATED`; what
    ///         the lock or the condition reports, and `ErrorId::START_FAILED`, if one of them fails
    bool start();

    /// Waits for the end of the thread (`pthread_join`). A cancellation point.
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if the thread is detached, is not started, was joined or terminated
    ///         before, or is the calling one; else `ErrorId::JOIN_FAILED`
    bool join();

    /// The same for a time (`pthread_timedjoin_np`). Its clock is the wall clock, so setting the date changes when it
    /// gives up.
    /// @param ms  milliseconds from now
    /// @return 0 joined, 1 timed out (not reported, the thread can still be joined), -1 on failure, as for `join`
    signed char joinTimeout(long long const& ms);

    /// Lets the calling thread wait for `wakeup`; only the thread of this object may call it. A cancellation point.
    ///
    /// When the time runs out the thread goes on but its state stays `SUSPENDED`, on purpose: a `wakeup` afterwards finds
    /// it so, and `terminate` refuses until then. In a thread that was terminated it does not wait.
    ///
    /// @param ms  milliseconds at most, on the monotonic clock; 0 is no limit, what is below 0 has run out
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` in another thread, and in a detached one whose object is gone; what
    ///         the lock or the condition reports, and `ErrorId::SUSPEND_FAILED`, if one of them fails
    bool suspend(long long ms);

    /// Ends a `suspend` of the thread. In any other state than `SUSPENDED` it does nothing, with success. Does not block.
    /// @return true on failure, with the state as it was: `ErrorId::WAKEUP_FAILED` alone
    bool wakeup();

    /// Cancels the thread (`pthread_cancel`), and calls its exit handlers in the calling one. The thread ends at its next
    /// cancellation point, with the destructors of the objects on its stack; a body that has not begun does not begin.
    /// Nobody has to join it. The object may be destroyed as soon as this returns, though the body may run on a little;
    /// then no exit handler is called any more. Does not wait for the end.
    ///
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` in any other state than `RUNNING`, or if the body has returned;
    ///         `ErrorId::TERMINATE_FAILED` if the lock or the system fails. A thread that the system refuses to cancel is detached by
    ///         then, and runs on: it can be terminated again, but not joined
    bool terminate();

    /// Registers a handler for the end of the calling thread. Handlers cannot be removed. Those of the main thread, that
    /// is the one that made the `Vesk`, are kept but never called; those of a detached thread are called by `terminate`
    /// alone.
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if the calling thread is none of this class, `SysErrorId::RESOURCES_EXHAUSTED` if it has
    ///         four handlers
    static bool registerExitHandler(ExitHandler handler);

    /// Calls the exit handlers that the thread has registered, the first one first.
    void callExitHandlers(ThreadId const& id, ExitReason reason);

    /// The thread's id. Takes no lock.
    VESK_API_INLINE ThreadId getThreadId() const noexcept { return ThreadId(m_handle); }

    /// The calling thread's id (`pthread_self`).
    VESK_API_INLINE static ThreadId getCallerThreadId() noexcept { return ThreadId(pthread_self()); }

    /// Keeps the calling thread as the main thread; called by the start-up of the library. Always false.
    static bool init() noexcept;

    /// Lets other threads have the processor (`sched_yield`). True on failure: `ErrorId::YIELD_FAILED`.
    static bool yield();

    /// The state, read under its lock. A lock that fails goes to `std::GlobalErrorHandler::doAssert`.
    State getThreadState() const {
        bool error = m_shared.mutex.lock();
        State const state = getState();
        if (!error) {
            error = m_shared.mutex.unlock();
        }
        if (error) {
            std::GlobalErrorHandler::doAssert(
                false, "! error", "framework/src/vesk/posix/Thread", __LINE__, "getThreadState", nullptr);
        }
        return state;
    }

    /// Sets the real-time priority (`pthread_setschedparam`), or the nice value of a time-sharing thread
    /// (`setpriority`). Does nothing, with success, to a thread in the state `FINISHED` or `DEAD`. Does not block.
    ///
    /// A thread that was created just now may not have told its kernel id yet. Its nice value is then set on the calling
    /// thread; whoever wants to be sure waits for a sign of its body. This holds for all operations on nice values.
    ///
    /// @return true on failure: without the right `SysErrorId::PERMISSION_DENIED`, then `ErrorId::SCHEDULING_FAILED`; else `ErrorId::SCHEDULING_FAILED`
    bool setPriority(int priority);

    /// The real-time priority, or the nice value of a time-sharing thread; -2,147,483,648 on failure, reported as by
    /// `getSchedAttrs`.
    int getPriority() const;

    /// Sets policy and parameters (`pthread_setschedparam`, and `setpriority` for `VESK_SCHED_POLICY_NORMAL`).
    /// `VESK_SCHED_NOOP` does nothing. `VESK_SCHED_POLICY_KEEP` sets `priority` and keeps the thread's policy.
    /// @return true on failure: `ErrorId::SCHEDULING_FAILED` for a class; `SysErrorId::UNCLASSIFIED`, then `ErrorId::SCHEDULING_FAILED`, for what the system refuses
    bool setSchedAttrs(sched::Attr const& attributes);

    /// How the thread is scheduled. Results and failures are those of `getCallerSchedAttrs`.
    bool getSchedAttrs(sched::Attr& attributes) const;

    /// How the calling thread is scheduled (`pthread_getschedparam`, for time sharing also `getpriority`). Callable
    /// from any thread, also from one that is no `Thread`. Does not block.
    ///
    /// @param attributes  gets the policy `VESK_SCHED_POLICY_RR` or `_FIFO` with `priority`, or `_NORMAL` with `nice`.
    ///                    After a failure its policy is `VESK_SCHED_NOOP` and its parameters are as they were.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED` if the system refuses; `ErrorId::SCHEDULING_FAILED` with "read unexpected policy from thread"
    ///         if it has a policy of which this library knows nothing, such as `SCHED_BATCH`
    static bool getCallerSchedAttrs(sched::Attr& attributes);

    /// How the main thread was scheduled when it made the `Vesk`; all zero before.
    static sched::Attr getMainSchedAttrs();

    /// The lowest and the highest priority of the calling thread's policy (`sched_get_priority_min` and `_max`);
    /// -2,147,483,648 on failure, with `ErrorId::SCHEDULING_FAILED`.
    static int getMinPriority();
    static int getMaxPriority();

    /// Sets the processors on which the thread may run (`pthread_setaffinity_np`).
    /// @param processors  one entry a processor, by its number; those from 1,024 on are ignored. Empty stands for all.
    ///                    Without a true entry nothing changes, with success.
    /// @return true on failure, for example if the machine has none of them: `SysErrorId::UNCLASSIFIED`
    bool setCPUAffinity(std::vector<bool> const& processors);

    /// The processors on which the thread may run (`pthread_getaffinity_np`).
    /// @param processors  resized to the number of processors that were online when the library was loaded
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`; `std::CommonErrorId::UNSUPPORTED_VALUE` if that number is not known
    bool getCPUAffinity(std::vector<bool>& processors);

    // To be read only.
    static ThreadId s_main_thread_id; ///< The thread that made the `Vesk`; invalid before.
    static TLS::Key
        s_tls_ctrl_object; ///< In each thread of this class its `Thread`, which may be gone by now.

private:
    friend class detail::ThreadLink;

    class Joining;
    struct Fields {};

    /// What the thread waits with, and for. It lies in the link, since a thread that was terminated or detached may still
    /// be on its way out of `suspend` when its object is gone.
    struct Shared {
        Condition condition; // Bound to the mutex.
        Mutex mutex;
        // Changed under the mutex. Atomic for the one case that this lock fails after a join.
        std::atomic<State> state{DEAD};
        bool taken_over = false;  // The wrapper is done with the object's creation. Under the mutex.
        bool object_gone = false; // The object is being destroyed, or is gone. Under the mutex.
    };

    Thread(Fields, Function function, void* argument, bool detached);

    bool initialize(void* argument, char const* name, unsigned int stack_size, sched::Attr const& attributes);
    bool create(char const* name);

    static void* threadWrapper(void* this_thread);
    void applyNice();
    bool takeOver();
    void finish();

    bool prepareJoin();
    bool markJoined();
    static bool suspendCaller(Shared& shared, long long ms);

    State getState() const noexcept { return m_shared.state.load(std::memory_order_relaxed); }
    void setState(State state) noexcept { m_shared.state.store(state, std::memory_order_relaxed); }
    pid_t getTid() const noexcept { return m_tid.load(std::memory_order_relaxed); }

    static std::atomic<ExitHandler> s_main_exit_handlers[EXIT_HANDLERS];

    bool m_valid = false;
    pthread_t m_handle{};
    sched::Attr m_attributes;
    std::atomic<int32_t> m_tid{0};
    char* m_name = nullptr;
    Function m_function;
    void* m_argument;
    [[maybe_unused]] int32_t m_unused = INT32_MIN; // Nothing reads it.
    bool m_detached_mode;
    // Somebody is on the way into, in or out of the system's join. Under the state mutex, but for its failure.
    std::atomic<bool> m_joining{false};
    detail::ThreadLink& m_link; // Holds the exit handlers, too.
    Shared& m_shared;           // The part of the link that this header needs.
};

/// Writes "0x" and the id in hexadecimal, with at least 8 digits. Leaves the stream's flags as they were, and "0" as its
/// fill character.
VESK_API std::ostream& operator<<(std::ostream& out, Thread::ThreadId const& id);

} // namespace vesk
