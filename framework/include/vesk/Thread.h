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

/// A thread of the system, and operations on the calling thread.
///
///     void work(void* argument) { ... }
///
///     vesk::Thread thread(work, &job, "worker");
///     if (!thread.isValid() || thread.start()) { ... }
///     ...
///     if (thread.join()) { ... }
///
/// The system's thread is created by the constructor and waits for `start`: all failures of its creation have
/// occurred by then, and starting it is cheap. `start`, `wakeup`, `terminate`, the scheduling and the
/// affinity may be called from any thread at any time while the object exists. Only one thread may join.
///
/// | from | event | to |
/// |---|---|---|
/// | | the constructor | `CREATED`, or `DEAD` if it failed |
/// | `CREATED` | `start` | `RUNNING` |
/// | `CREATED` | the destructor | `FINISHED`, then `DEAD`; the body does not run |
/// | `RUNNING` | `suspend` | `SUSPENDED` |
/// | `SUSPENDED` | `wakeup` | `RUNNING` |
/// | `SUSPENDED` | the time of `suspend` has expired | stays `SUSPENDED`, but the thread continues |
/// | `RUNNING`, `SUSPENDED` | a joinable thread's body has returned | `FINISHED` |
/// | `RUNNING`, `SUSPENDED` | a detached thread's body has returned | no change |
/// | `RUNNING` | `terminate` | `DEAD` |
/// | `RUNNING`, `SUSPENDED`, `FINISHED` | `join` or `joinTimeout`, joinable threads only | `DEAD` |
///
/// A joinable thread must be joined or terminated before its object is destroyed. The destructor joins a
/// thread that has finished or was never started. The object of a detached thread may be destroyed at any
/// time, and that of any thread as soon as `terminate` has returned: the thread continues without it, also
/// out of a `suspend`. On such an object the thread itself may still call `suspend`, and nothing else.
///
/// The body runs with a `std::ErrorStorage` of its own, which writes unacknowledged errors to standard
/// output. An exception that leaves the body ends the process. The body may end its thread with
/// `pthread_exit`; no exit handler runs then.
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

    /// The states of a thread; see the table of the class.
    enum State : int32_t {
        CREATED = 0,   ///< The system's thread waits for `start`.
        RUNNING = 1,   ///< Started.
        SUSPENDED = 2, ///< It has called `suspend`.
        FINISHED = 3,  ///< Its body has returned, or will not run any more; must be joined.
        DEAD = 4,      ///< Joined, terminated or never created.
    };

    /// The reason for calling exit handlers.
    enum ExitReason : int32_t {
        EXIT_NORMAL = 0,     ///< The body has returned. Handlers run in the thread itself.
        EXIT_TERMINATED = 1, ///< `terminate` has ended the thread. Handlers run in its calling thread.
    };

    /// The system's identification of a thread: a `pthread_t`. A plain value that can be compared and
    /// printed. The system may reuse the id of a thread that has ended for a new thread.
    class VESK_API ThreadId {
    public:
        /// An id with all bits set, which no thread has.
        static ThreadId const INVALID_THREAD_ID;

        /// @{
        /// Creates the invalid id.
        constexpr ThreadId() noexcept = default;
        constexpr explicit ThreadId(pthread_t value) noexcept : m_value(value) {}
        /// @}

        /// Returns the system's id.
        constexpr pthread_t getValue() const noexcept { return m_value; }

        /// @{
        /// Compares two ids.
        friend constexpr bool operator==(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value == b.m_value;
        }
        friend constexpr bool operator!=(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value != b.m_value;
        }
        /// @}
        /// Defines an arbitrary order, for sorted containers.
        friend constexpr bool operator<(ThreadId const& a, ThreadId const& b) noexcept {
            return a.m_value < b.m_value;
        }

    private:
        pthread_t m_value = static_cast<pthread_t>(-1);
    };

    /// The body of a thread; receives the argument of the constructor.
    using Function = void (*)(void*);

    /// Called at the end of the thread that registered it.
    using ExitHandler = void (*)(ThreadId const& id, ExitReason reason);

    /// The maximum number of exit handlers of a thread.
    static constexpr unsigned int EXIT_HANDLERS = 4;

    /// Creates a joinable thread that inherits its scheduling and has no name (`pthread_create`).
    ///
    /// After a failure only `isValid` and the destructor may be called. The pending error is a row of
    /// `SysError`, then `ErrorId::CREATE_FAILED`. The row is `SysErrorId::RESOURCES_EXHAUSTED` without
    /// resources, `SysErrorId::OUT_OF_MEMORY` without memory, `SysErrorId::PERMISSION_DENIED` without the
    /// permission, `SysErrorId::INVALID_PARAMETER` for parameters out of their range, and
    /// `SysErrorId::UNCLASSIFIED` otherwise.
    Thread(Function function, void* argument);

    /// Creates a joinable thread that inherits its scheduling and has a name.
    /// @param name  copied; may be null. The system shows its last 15 bytes, where long names differ.
    Thread(Function function, void* argument, char const* name);

    /// Creates a thread with the given scheduling.
    ///
    /// @param attributes  `priority` is used with `VESK_SCHED_POLICY_RR` and `_FIFO`, `nice` with `_NORMAL`.
    ///                    With `_KEEP` the policy of the calling thread determines which of the two is used.
    ///                    With `VESK_SCHED_NOOP` and with a class the thread inherits the scheduling of the
    ///                    calling thread. It also does so, without a report, if the process lacks the
    ///                    permission for the requested scheduling. The thread sets its nice value itself,
    ///                    before it runs the body. If it lacks the permission, it continues with its current
    ///                    nice value, and the trace channel "FW_Vesk_Thread" logs that at level 2.
    /// @param detached    whether the thread is never joined
    Thread(Function function, void* argument, char const* name, sched::Attr const& attributes, bool detached);

    /// Creates a thread in the older form.
    ///
    /// @param use_priority  False: the scheduling is inherited. True: the thread keeps the policy of the
    ///                      calling thread, with `priority`. If that policy cannot be read, or is unknown to
    ///                      the library, the thread inherits the scheduling and gets no name.
    /// @param priority      real-time priority, or nice value in a time-sharing thread
    /// @param stack_size    has no effect: every thread has the system's default stack
    Thread(
        Function function, void* argument, char const* name, bool use_priority, int priority,
        unsigned int stack_size, bool detached);

    /// Destroys the object. Blocks until the thread has ended if it has finished or was never started. Blocks
    /// until a detached thread, or a thread that was terminated, has finished its start-up and no longer uses
    /// the object, which takes until its next time slice. Ends a `suspend` of a detached thread, which
    /// returns with success.
    ///
    /// A joinable thread that is still running or suspended, and an internal lock that fails, go to
    /// `std::GlobalErrorHandler::doAbort`. The calling thread cannot be cancelled meanwhile.
    virtual ~Thread();

    /// Returns whether the constructor succeeded.
    VESK_API_INLINE bool isValid() const noexcept { return m_valid; }

    /// Starts the body, once. Does not block.
    /// @return true on failure, with the state unchanged unless unlocking fails:
    ///         `std::CommonErrorId::CONTRACT_BROKEN` in any other state than `CREATED`; the report of the
    ///         lock or of the condition, then `ErrorId::START_FAILED`, if one of them fails
    [[nodiscard]] bool start();

    /// Blocks until the thread has ended (`pthread_join`). A cancellation point.
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if the thread is detached, is not
    ///         started, was joined or terminated before, or is the calling thread; otherwise
    ///         `ErrorId::JOIN_FAILED`
    [[nodiscard]] bool join();

    /// Blocks until the thread has ended or the time has expired (`pthread_timedjoin_np`). The time is
    /// measured on the wall clock, so setting the date changes when it expires. A cancellation point.
    /// @param ms  milliseconds from now
    /// @return 0 joined, 1 timed out (not reported, the thread can still be joined), -1 on failure, as for
    ///         `join`
    signed char joinTimeout(long long const& ms);

    /// Blocks the calling thread until `wakeup`; only the thread of this object may call it. A cancellation
    /// point.
    ///
    /// When the time expires the thread continues but its state stays `SUSPENDED`, on purpose: a later
    /// `wakeup` ends that state, and `terminate` refuses until then. In a thread that was terminated it does
    /// not wait.
    ///
    /// @param ms  maximum time in milliseconds, on the monotonic clock; 0 is no limit, a negative time has
    ///            expired
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` in another thread, and in a detached
    ///         thread with a destroyed object; the report of the lock or of the condition, then
    ///         `ErrorId::SUSPEND_FAILED`, if one of them fails
    [[nodiscard]] bool suspend(long long ms);

    /// Ends a `suspend` of the thread. In any other state than `SUSPENDED` it does nothing, with success.
    /// Does not block.
    /// @return true on failure, with the state unchanged unless unlocking fails: `ErrorId::WAKEUP_FAILED`
    ///         alone
    [[nodiscard]] bool wakeup();

    /// Cancels the thread (`pthread_cancel`), and calls its exit handlers in the calling thread. The thread
    /// ends at its next cancellation point, with the destructors of the objects on its stack; a body that has
    /// not begun does not begin. The thread need not be joined. The object may be destroyed as soon as this
    /// returns, though the body may still run until its next cancellation point; no exit handler is called
    /// any more then. Does not wait for the end.
    ///
    /// On 32-bit ARM with glibc before 2.41, a cancellation that hits the first or last instructions of a
    /// cancellation point can end the thread without these destructors. Where they matter, let the body
    /// return instead.
    ///
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` in any other state than `RUNNING`, or
    ///         if the body has returned; `ErrorId::TERMINATE_FAILED` if the lock or the system call fails. A
    ///         thread that the system refuses to cancel is detached by then, and continues: it can be
    ///         terminated again, but not joined.
    [[nodiscard]] bool terminate();

    /// Registers a handler for the end of the calling thread. Handlers cannot be removed. Handlers of the
    /// main thread, which is the thread that created the `Vesk`, are stored but never called. Handlers of a
    /// detached thread are called by `terminate` only.
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if the calling thread is not a
    ///         `Thread`, `SysErrorId::RESOURCES_EXHAUSTED` if it has four handlers
    [[nodiscard]] static bool registerExitHandler(ExitHandler handler);

    /// Calls the exit handlers that the thread has registered, in the order of registration.
    void callExitHandlers(ThreadId const& id, ExitReason reason);

    /// Returns the thread's id. Takes no lock.
    VESK_API_INLINE ThreadId getThreadId() const noexcept { return ThreadId(m_handle); }

    /// Returns the calling thread's id (`pthread_self`).
    VESK_API_INLINE static ThreadId getCallerThreadId() noexcept { return ThreadId(pthread_self()); }

    /// Records the calling thread as the main thread; called by the start-up of the library. Always returns
    /// false.
    static bool init() noexcept;

    /// Yields the processor to other threads (`sched_yield`). Returns true on failure:
    /// `ErrorId::YIELD_FAILED`.
    [[nodiscard]] static bool yield();

    /// Returns the state, read under its lock. A lock that fails goes to `std::GlobalErrorHandler::doAssert`.
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
    /// (`setpriority`). Does nothing, with success, to a thread in the state `FINISHED` or `DEAD`. Does not
    /// block.
    ///
    /// The kernel id of a thread becomes known only when the thread first runs. Before that, the nice value
    /// of the calling thread is set instead. To avoid this, wait for an action of the thread's body. The same
    /// holds for all operations on nice values.
    ///
    /// @return true on failure: `SysErrorId::PERMISSION_DENIED`, then `ErrorId::SCHEDULING_FAILED`, for
    ///         `EPERM`; otherwise `ErrorId::SCHEDULING_FAILED`, also for the `EACCES` with which the kernel
    ///         refuses a lower nice value
    [[nodiscard]] bool setPriority(int priority);

    /// Returns the real-time priority, or the nice value of a time-sharing thread. Returns -2,147,483,648 on
    /// failure, reported as by `getSchedAttrs`.
    int getPriority() const;

    /// Sets policy and parameters (`pthread_setschedparam`, and `setpriority` for
    /// `VESK_SCHED_POLICY_NORMAL`). `VESK_SCHED_NOOP` does nothing. `VESK_SCHED_POLICY_KEEP` sets `priority`
    /// and keeps the thread's policy.
    /// @return true on failure: `ErrorId::SCHEDULING_FAILED` for a class; `SysErrorId::UNCLASSIFIED`, then
    ///         `ErrorId::SCHEDULING_FAILED`, if the system refuses
    [[nodiscard]] bool setSchedAttrs(sched::Attr const& attributes);

    /// Reads how the thread is scheduled. Results and failures are those of `getCallerSchedAttrs`.
    bool getSchedAttrs(sched::Attr& attributes) const;

    /// Reads how the calling thread is scheduled (`pthread_getschedparam`, for time sharing also
    /// `getpriority`). May be called from any thread, also from a thread that is not a `Thread`. Does not
    /// block.
    ///
    /// @param attributes  receives the policy `VESK_SCHED_POLICY_RR` or `_FIFO` with `priority`, or `_NORMAL`
    ///                    with `nice`. After a failure its policy is `VESK_SCHED_NOOP` and its parameters are
    ///                    unchanged.
    /// @return true on failure: `SysErrorId::UNCLASSIFIED` if the system refuses;
    ///         `ErrorId::SCHEDULING_FAILED` with "read unexpected policy from thread" if the library does not
    ///         know the policy, such as `SCHED_BATCH`
    [[nodiscard]] static bool getCallerSchedAttrs(sched::Attr& attributes);

    /// Returns how the main thread was scheduled when it created the `Vesk`; all zero before.
    static sched::Attr getMainSchedAttrs();

    /// @{
    /// Returns the lowest or the highest priority of the calling thread's policy (`sched_get_priority_min`
    /// and `_max`). Returns -2,147,483,648 on failure, with `ErrorId::SCHEDULING_FAILED`.
    [[nodiscard]] static int getMinPriority();
    [[nodiscard]] static int getMaxPriority();
    /// @}

    /// Sets the processors on which the thread may run (`pthread_setaffinity_np`).
    /// @param processors  one entry per processor, by its number; entries from 1,024 on are ignored. Empty
    ///                    means all. Without a true entry nothing changes, with success.
    /// @return true on failure, for example if the machine has none of them: `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool setCPUAffinity(std::vector<bool> const& processors);

    /// Reads the processors on which the thread may run (`pthread_getaffinity_np`).
    /// @param processors  resized to the number of processors that were online when the library was loaded
    /// @return true on failure: `SysErrorId::UNCLASSIFIED`; `std::CommonErrorId::UNSUPPORTED_VALUE` if that
    ///         number is not known
    [[nodiscard]] bool getCPUAffinity(std::vector<bool>& processors);

    // Read-only for callers.
    static ThreadId s_main_thread_id;  ///< The thread that created the `Vesk`; invalid before.
    static TLS::Key s_tls_ctrl_object; ///< The `Thread` of the calling thread, which may be destroyed by now.

private:
    friend class detail::ThreadLink;

    class Joining;
    struct Fields {};

    /// The state of the thread, and what it waits with. Stored in the link: a thread that was terminated or
    /// detached may still be leaving `suspend` after its object was destroyed.
    struct Shared {
        Condition condition; // Bound to the mutex.
        Mutex mutex{TARN_LOCK_NAME(THREAD_STATE)};
        // Changed under the mutex. Atomic for the single case that locking it fails after a join.
        std::atomic<State> state{DEAD};
        bool taken_over TARN_GUARDED_BY(mutex) = false;  // The wrapper's start-up no longer needs the object.
        bool object_gone TARN_GUARDED_BY(mutex) = false; // The object is being or was destroyed.
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
    TARN_HIDDEN static bool isSuspended(Shared const& shared) noexcept;
    TARN_HIDDEN static signed char waitForWakeup(Shared& shared, long long ms) TARN_REQUIRES(shared.mutex);

    TARN_HIDDEN void waitForTakeOver(char const* function) TARN_REQUIRES(m_shared.mutex);
    TARN_HIDDEN void endUnstarted() TARN_RELEASE(m_shared.mutex);
    TARN_HIDDEN void leaveRunning() TARN_RELEASE(m_shared.mutex);
    TARN_HIDDEN void abandon() TARN_EXCLUDES(m_shared.mutex);

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
    [[maybe_unused]] int32_t m_unused = INT32_MIN; // Unused.
    bool m_detached_mode;
    // A thread is inside a join of this thread. Changed under the state mutex, except when that fails.
    std::atomic<bool> m_joining{false};
    detail::ThreadLink& m_link; // Holds the exit handlers, too.
    Shared& m_shared;           // The members of the link that this header needs.
};

/// Writes "0x" and the id in hexadecimal, with at least 8 digits. Preserves the stream's flags, but leaves
/// "0" as its fill character.
VESK_API std::ostream& operator<<(std::ostream& out, Thread::ThreadId const& id);

} // namespace vesk
