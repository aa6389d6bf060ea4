#pragma once

#include <vesk/Condition.h>
#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/sched.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <climits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vesk {

class ProcessImpl;

/// Child processes, at most one at a time per object, and queries about any process.
///
///     vesk::ProcessTNG process;
///     process.setExecutable("/usr/bin/converter");
///     process.setArguments({"--fast", "in.dat"});
///     if (process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID) { ... }
///     ...
///     vesk::ProcessTNG::ExitState state;
///     if (process.wait(state, false, 0)) { ... }
///     if (state.killed || state.status != 0) { ... }
///
/// Settings apply to every later start. An object is idle or has a running child. When the child has ended,
/// the next one can be started, even if the exit state of the last one was not fetched.
///
/// | from | event | to |
/// |---|---|---|
/// | idle | `start` | running; the exit state of the previous child is discarded |
/// | running | the child ends | idle, with an exit state that can be fetched once |
/// | idle | `wait` | idle; the exit state is fetched |
/// | running | the destructor | blocks until the child has ended; does not kill the child |
///
/// **How children start.** `start` forks the process; the child prepares itself and then executes the
/// program. A failure in the child does not make `start` fail: it appears on the child's standard error, or
/// as an early end of the child (a program that cannot be executed ends with `SIGABRT`). The child inherits
/// every descriptor of the process that is not marked close-on-exec, its working directory, its limits, and
/// the set of ignored signals. No signal is blocked in the child, and signals that the process handles have
/// their default action there from the start: a signal that is sent after `start` has returned reaches the
/// child in every phase.
///
/// Before the program runs, two kinds of the process's code run in the child: the functions of
/// `pthread_atfork`, and the hook of `std::GlobalErrorHandler` if something fails. Locks that other threads
/// held at the moment of the fork are never released in the child. Therefore both must make only
/// async-signal-safe calls, as the library does.
///
/// **How children end.** One thread of the library, "vesk::ProcessCollector", waits for the end of children
/// while any object has a running child, and passes each exit state to its object. It also reaps children
/// that were started without this class, with a warning; their `waitpid` then finds no child. It leaves those
/// of `KeptChildren` alone. The collector requires that the library is started. A process that was forked without executing a new program has no
/// collector.
///
/// Nothing else may reap these children. The process must not ignore `SIGCHLD` or set `SA_NOCLDWAIT` for it,
/// because the kernel then discards the exit states. The setup of the collector resets an ignored `SIGCHLD`,
/// which a program can inherit, to its default action, and clears the flag. If the process ignores `SIGCHLD`
/// later, one warning says that the collector's wait fails. As soon as the process has no child left, each
/// missing child then counts as ended with a `status` of -1.
///
/// All operations may be called from any thread, also from listeners. If several threads wait for the same
/// child, its end wakes one of them, and the others continue to wait for the end of a later child.
class VESK_API ProcessTNG : private tarnbase::NonCopyable {
public:
    /// Failures of processes. Derives from `SysError`. The argument of each row is a text.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        START_FAILED = 0,  ///< Starting the child failed.
        CREATE_FAILED = 1, ///< Creating the object failed.
        KILL_FAILED = 2,   ///< Sending a signal to the child failed.
        WAIT_FAILED = 3,   ///< Waiting for the child failed.
        NOT_FOUND = 4,     ///< The process was not found.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// The result of `start` on failure, and of `getPid` for an object without a child.
    VESK_API_INLINE static constexpr int INVALID_PROCESS_ID = -1;

    /// The suffix of the file name of an executable: empty on this system. Constant-initialized.
    static char const* const ExecutableSuffix;

    /// The exit state of a child. A plain value.
    class ExitState {
    public:
        /// Returns whether the object holds an exit state. False after a `wait` that timed out.
        VESK_API_INLINE bool hasExited() const noexcept { return exited; }

        bool exited = false; ///< The result of `hasExited`.
        bool killed = false; ///< Whether a signal has ended the child.
        int status = -1;     ///< The exit code; the number of the signal if `killed`; -1 if it was lost.
        ProcessTNG* process = nullptr; ///< The object that started the child.
    };

    /// Interface for notifications about the end of children, as an alternative to `wait`.
    class VESK_API ExitListener {
    public:
        virtual ~ExitListener() = default;

        /// Called when a child has ended. Runs in the collector's thread, with no lock held and all signals
        /// blocked; threads that it creates inherit the blocked signals. A waiting thread was woken before
        /// the call: the object that `state->process` points to exists only if no thread destroys it that
        /// early. No other exit state is processed while this function runs, so it must be short. It must not
        /// throw. It may use any `ProcessTNG`, but must not wait for a child.
        ///
        /// @param state  valid during the call only
        virtual void processExited(ExitState const* state) = 0;
    };

    /// Constructs an object without a program. The first object of the process starts the collector, unless
    /// it was started with the library. If the collector cannot be started, that object is invalid, and the
    /// reports of the failure stay pending. Later objects are then valid, but their `start` fails. An object
    /// that is constructed before the library is started or after `exit` is invalid, with
    /// `Vesk::ErrorId::INIT_FAILED`.
    ProcessTNG();

    /// Constructs an object with a program, as with `setExecutable`.
    explicit ProcessTNG(std::string const& path);

    /// Constructs an object with a program and its arguments.
    ProcessTNG(std::string const& path, std::vector<std::string> const& argument_list);

    /// Blocks until no child is running; see the table of the class. If an internal lock fails, calls
    /// `std::GlobalErrorHandler::doAbort`. Cancellation is disabled during the call.
    virtual ~ProcessTNG();

    /// Called by every constructor: makes the object valid if there is a collector, and resets the priority,
    /// null devices, appending and the new group. All other settings stay.
    void init();

    /// Returns false if the constructor has failed, or if `setExecutable` has failed since. `start` does not
    /// check this.
    bool isValid() const;

    /// Returns the process id of the running child, or `INVALID_PROCESS_ID`.
    int getPid() const;

    /// Returns the process id of the last child that has ended, until `wait` fetches its exit state; else -1.
    int getLastPid() const;

    // ---- settings for the next child; a running child is not affected ----

    /// Sets the program: an absolute path or a path relative to the working directory, without a search. It
    /// is also the child's `argv[0]`. Checks immediately, following symbolic links, that the file exists
    /// (`stat`) and that its owner may execute it. No other permission is checked: if the caller lacks the
    /// permission to execute the file, only the child fails.
    /// @return true on failure, with the path set and the object invalid: the report of `FileInfo`, or
    ///         `FileAccessErrorId::BAD_PATH` if the owner must not execute the file
    [[nodiscard]] bool setExecutable(std::string const& path);

    /// Sets the arguments from `argv[1]` on. Each text ends at its first null byte.
    void setArguments(std::vector<std::string> const& argument_list);

    /// Sets the environment as pairs of name and value: the child gets exactly these. Empty: it inherits the
    /// environment of the process. Names are not checked: a name with a "=" ends there for the child, and the
    /// rest is the beginning of its value.
    void setEnvironment(std::vector<std::pair<std::string, std::string>> const& variables);

    // Standard streams. For standard output and standard error the null device has precedence over a file,
    // and for all three a file over a descriptor. A stream without any of these is inherited from the
    // process. Failures are reported on the child's standard error, with the system's text in English, and
    // the child continues with the stream that it has. Two streams cannot share a descriptor.

    /// Makes the child open a file as its standard output. A missing file is created with mode 0600. Empty:
    /// none.
    /// @param append  whether to append to the file instead of truncating it
    void setStdoutFile(std::string const& path, bool append);
    /// Makes the child open a file as its standard error, as `setStdoutFile` does.
    void setStderrFile(std::string const& path, bool append);
    /// Makes the child open an existing file as its standard input, for reading only. Empty: none.
    void setStdinFile(std::string const& path);

    /// Makes a descriptor of the process the child's standard output, and closes the descriptor in the child;
    /// -1: none. The descriptor stays open in the process. With 1 the stream is unchanged, and stays open for
    /// the program even if it is marked close-on-exec.
    void setStdoutFd(int fd);
    /// Makes a descriptor of the process the child's standard error, as `setStdoutFd` does; 2 leaves the
    /// stream unchanged.
    void setStderrFd(int fd);
    /// Makes `fd` in the child a copy of standard input, and closes standard input. This is reversed compared
    /// with `setStdoutFd`. Required by callers: programs rely on it. With 0 the stream is unchanged, and
    /// stays open for the program. -1: none.
    void setStdinFd(int fd);

    /// Redirects standard output to "/dev/null".
    void setStdoutNull(bool use_null);
    /// Redirects standard error to "/dev/null".
    void setStderrNull(bool use_null);

    /// Puts the child into its own process group, which `kill` then signals. The group exists when `start`
    /// returns.
    void setNewGroup(bool use_new_group);

    /// Sets the child's priority under the scheduling policy of the process.
    /// @param use_default  true: leaves scheduling unchanged, and clears an earlier priority
    /// @param priority     real-time priority, or nice value under time sharing
    /// @return false
    [[nodiscard]] bool setPriority(bool use_default, int priority);

    /// Sets the scheduling policy and parameters of the child. `VESK_SCHED_NOOP` and the classes leave
    /// scheduling unchanged. `VESK_SCHED_POLICY_KEEP` uses the priority of `setPriority`, or the parameters
    /// of `attrs` if none is set. If the system rejects the settings, the child makes a warning and
    /// continues.
    /// @return false
    [[nodiscard]] bool setSchedAttrs(sched::Attr const& attrs);

    /// Sets the processors on which the child may run: one entry per processor, indexed by its number. Empty:
    /// those of the process. Entries beyond the machine's processors are ignored. Without a true entry the
    /// system rejects the set. If the system rejects it, the child makes a warning and continues.
    void setAffinity(std::vector<bool> const& processors);

    /// Sets the listener that is called when a child has ended; null: none. The object does not own the
    /// listener, which must exist until it was called. The listener that is set at the moment of the end is
    /// called.
    void setExitListener(ExitListener* listener);

    // ---- running a child ----

    /// Starts a child (`fork`, then `execv` or `execve` in the child). Does not wait for the program: see the
    /// class. All signals of the calling thread are blocked during the fork. If there is no memory for the
    /// arguments and the environment, waits for it with `std::GlobalErrorHandler::doOutOfMem`. If the system
    /// gives the child an id that another object still has entered, because something else has reaped that
    /// object's child, an assertion fails, and that object waits without end.
    /// @return the child's process id, or `INVALID_PROCESS_ID` on failure:
    ///         `std::CommonErrorId::CONTRACT_BROKEN` if a child is running, which is not affected;
    ///         `SysErrorId::RESOURCES_EXHAUSTED` without resources; `SysErrorId::OUT_OF_MEMORY` without
    ///         memory; else `ErrorId::START_FAILED`. Without a collector an assertion fails first, and
    ///         `ErrorId::START_FAILED` is on top of `Vesk::ErrorId::INIT_FAILED`. If the collector's lock
    ///         fails, the object stays locked.
    [[nodiscard]] int start();

    /// Fetches the exit state of the child. Blocks until the child has ended. Each exit state can be fetched
    /// once, at any time until the next start. A cancellation point.
    ///
    /// @param state    receives the exit state. After a timeout: not exited, with a `status` of -1
    /// @param timed    whether `timeout` limits the wait
    /// @param timeout  milliseconds on the monotonic clock; with 0 or less the call does not block
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if no child is running and no exit
    ///         state is left, with `state` unchanged; `ErrorId::WAIT_FAILED` on top of the report of the lock
    ///         or the condition if one of them fails; `state` is set if only unlocking failed. A timeout is
    ///         not a failure: check `state.hasExited()`.
    [[nodiscard]] bool wait(ExitState& state, bool timed, long long timeout);

    /// Sends a signal to the child, or to its whole process group if it has its own. Does nothing, with
    /// success, if no child is running or the child has just ended. Does not wait for the end.
    /// @param graceful  `SIGTERM`, which a program can handle, instead of `SIGKILL`
    /// @return true on failure, as for `killProcess`; `ErrorId::KILL_FAILED` if the lock fails
    [[nodiscard]] bool kill(bool graceful);

    // ---- any process ----

    /// Sends a signal to a process (`kill`).
    /// @param process_id  as for the system call: 0 is the process group of the caller, a value below -1 is a
    ///                    group, and -1 is every process that the caller may signal
    /// @param graceful    `SIGTERM` instead of `SIGKILL`
    /// @return true on failure: `ErrorId::NOT_FOUND` if there is no such process; without the permission to
    ///         signal it, `SysErrorId::PERMISSION_DENIED` with `ErrorId::KILL_FAILED` on top; else
    ///         `ErrorId::KILL_FAILED`
    [[nodiscard]] static bool killProcess(int const& process_id, bool graceful);

    /// Returns whether a process exists (`kill` with signal 0). A process that the caller must not signal
    /// exists, and so does one that has ended but was not reaped. For ids of 0 and less see `killProcess`.
    /// @return 0 if it exists; 1 if it does not, which is not reported; -1 on failure:
    ///         `SysErrorId::UNCLASSIFIED`
    static signed char existsProcess(int const& process_id);

    /// Finds processes by the first argument of their command line. Includes the calling process. Processes
    /// without a command line, such as those of the kernel, are not found, nor are those with one that cannot be
    /// opened, also for lack of memory.
    ///
    /// @param name   compared byte by byte
    /// @param pids   receives the ids, appended in the order of the directory; unchanged, with the report of
    ///               `Directory` pending, if "/proc" cannot be opened
    /// @param exact  true compares with the whole argument, false with its last path component
    static void getProcessId(std::string const& name, std::vector<int>& pids, bool exact);

    /// Returns the id of the calling process (`getpid`).
    static int getOwnProcessId();

    /// Returns the absolute path of the calling process's program (`readlink` of "/proc/.../exe"), at most
    /// 4,095 bytes of it. The path is read once and cached. Empty if it could not be read, which is not
    /// reported. Empty with `Vesk::ErrorId::INIT_FAILED` before the library is started, after `exit`, and if
    /// the setup of the cache has failed; the call that ran the setup may report
    /// `std::CommonErrorId::OUT_OF_MEMORY` instead.
    static std::string getOwnProcessName();

    // ---- for the library itself ----

    /// Called when the library is started: prepares the state behind this class, and sets it up at once
    /// unless `lazy`. Returns true on failure, with the reports of the setup.
    [[nodiscard]] static bool init(bool lazy);

    /// Called by `Vesk::cleanupAll`: blocks until all children have ended, without ending them, and stops the
    /// collector. Does nothing before `init`. No object may be in use during the call. Objects that still
    /// exist start no child until the library has been started again.
    static void exit();

    /// Passes an exit state to the object of its child; called only by the collector. If a lock fails, calls
    /// `std::GlobalErrorHandler::doAbort`.
    static void processExited(ProcessTNG* process, bool was_killed, int exit_status);

private:
    class VectorTransformer;

    // The value of a priority that is not set.
    static constexpr int NO_PRIORITY = INT_MIN;

    TARN_HIDDEN int startLocked(ProcessImpl& impl, std::map<int, ProcessTNG*>& entry);
    bool startChild() TARN_REQUIRES(mutex);
    [[noreturn]] void runChild(char* const* args, char* const* env) noexcept TARN_REQUIRES(mutex);
    void applyScheduling() const TARN_REQUIRES(mutex);
    void applyAffinity() const TARN_REQUIRES(mutex);
    void redirectStreams(int own_pid) const TARN_REQUIRES(mutex);
    void enterNewGroup() const TARN_REQUIRES(mutex);

    bool invalid TARN_GUARDED_BY(mutex) = false;
    int pid TARN_GUARDED_BY(mutex) = INVALID_PROCESS_ID;
    int last_pid TARN_GUARDED_BY(mutex) = INVALID_PROCESS_ID;
    std::string executable TARN_GUARDED_BY(mutex);
    std::vector<std::string> arguments TARN_GUARDED_BY(mutex);
    std::vector<std::pair<std::string, std::string>> environment TARN_GUARDED_BY(mutex);
    std::string stdout_file TARN_GUARDED_BY(mutex);
    std::string stderr_file TARN_GUARDED_BY(mutex);
    std::string stdin_file TARN_GUARDED_BY(mutex);
    int stdout_fd TARN_GUARDED_BY(mutex) = -1;
    int stdin_fd TARN_GUARDED_BY(mutex) = -1;
    int stderr_fd TARN_GUARDED_BY(mutex) = -1;
    bool in_new_group TARN_GUARDED_BY(mutex) = false; // Of the running child.
    ExitListener* exit_listener TARN_GUARDED_BY(mutex) = nullptr;
    bool stdout_null TARN_GUARDED_BY(mutex) = false;
    bool stderr_null TARN_GUARDED_BY(mutex) = false;
    bool stdout_append TARN_GUARDED_BY(mutex) = false;
    bool stderr_append TARN_GUARDED_BY(mutex) = false;
    bool new_group TARN_GUARDED_BY(mutex) = false; // Of the next child.
    Mutex mutex{TARN_LOCK_NAME(CHILD)};            // Taken before the collector's.
    Condition exit_condition;
    ExitState m_last_state TARN_GUARDED_BY(mutex);
    int priority_value TARN_GUARDED_BY(mutex) = NO_PRIORITY;
    sched::Attr sched_attrs TARN_GUARDED_BY(mutex);
    std::vector<bool> affinity TARN_GUARDED_BY(mutex);
};

} // namespace vesk
