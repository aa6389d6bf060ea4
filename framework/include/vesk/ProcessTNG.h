#pragma once

#include <vesk/Condition.h>
#include <vesk/Export.h>
#include <vesk/Mutex.h>
#include <vesk/sched.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace vesk {

/// Child processes, one at a time for each object, and what there is to know about processes in general.
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
/// What is set holds for every start that follows. An object is idle or has a child running; when that has ended, the next
/// can be started, whether or not somebody has fetched the end of the last one.
///
/// | from | event | to |
/// |---|---|---|
/// | idle | `start` | running; the end of the child before is forgotten |
/// | running | the child has ended | idle, with an end that can be fetched once |
/// | idle | `wait` | idle; the end is fetched |
/// | running | the destructor | blocks until the child has ended: it neither kills it nor lets go of it |
///
/// **How children begin.** `start` makes a `fork` of the process, which prepares itself and then executes the program.
/// Nothing that goes wrong in there fails the start: it shows on the child's standard error, or as an early end of the
/// child (a program that cannot be executed ends with `SIGABRT`). The child has every descriptor of the process that is not
/// marked close-on-exec, its working directory, its limits, and the signals that it ignores. No signal is blocked in it, and
/// the signals that the process handles have their default action in it from the start: a signal that is sent after `start`
/// has returned reaches the child, wherever it is.
///
/// Before the program begins, two things of the process run in the child: the functions of `pthread_atfork`, and the hook
/// of `std::GlobalErrorHandler` if something fails. Locks that other threads held at the moment of the fork stay locked
/// there for ever, so both must keep to async-signal-safe calls, as the library does.
///
/// **How children end.** One thread of the library, "vesk::ProcessCollector", waits for the end of children while at
/// least one of any object is running, and hands each end over to its object. It takes children that others have started,
/// too, with a warning, and their `waitpid` then finds nothing. The collector needs the start-up of the library; a process
/// that was forked without a new program has none.
///
/// Nothing else may fetch the ends of these children, nor may the process ignore `SIGCHLD` or set `SA_NOCLDWAIT` for it,
/// which makes the system throw the ends away. The set-up of the collector gives an ignored `SIGCHLD`, which a program
/// inherits, its default action, and takes the flag back. If a process ignores it later, one warning tells that the
/// collector's wait fails. Each child that is gone then counts as ended with a `status` of -1, as soon as the process has
/// no child left.
///
/// All operations may be called from any thread, also from listeners. Threads that wait for the same child are served one
/// by one: each end wakes one of them, and the others go on waiting for the end of a later child.
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

    /// What `start` gives for a failure, and `getPid` for an object without a child.
    VESK_API_INLINE static constexpr int INVALID_PROCESS_ID = -1;

    /// What the file name of an executable ends in: the empty text on this system. There before any initialiser runs.
    static char const* const ExecutableSuffix;

    /// How a child has ended. A plain value.
    class ExitState {
    public:
        /// Whether an end is recorded here. False for the state of a `wait` whose time ran out.
        VESK_API_INLINE bool hasExited() const noexcept { return exited; }

        bool exited = false; ///< What `hasExited` tells.
        bool killed = false; ///< A signal has ended the child.
        int status = -1;     ///< The exit code, the number of the signal if `killed`, -1 if it was lost.
        ProcessTNG* process = nullptr; ///< The object that started the child.
    };

    /// Is told of the end of children, instead of waiting for it.
    class VESK_API ExitListener {
    public:
        virtual ~ExitListener() = default;

        /// A child has ended. Runs in the collector's thread, with no lock held and all signals blocked, which threads
        /// that it makes inherit. A waiter was woken before: the object that `state->process` names is there only if
        /// nothing destroys it that early. No other end of a child is told while it runs, so it is to be short; it must
        /// not throw. It may use any `ProcessTNG` but must not wait for one.
        ///
        /// @param state  valid during the call only
        virtual void processExited(ExitState const* state) = 0;
    };

    /// Makes an object without a program. The first one of the process starts the collector, unless the start-up has.
    /// A collector that cannot be had makes the object invalid, and the reports of its failure stay pending; so does an
    /// object that is made before the start-up or after `exit`, with `Vesk::ErrorId::INIT_FAILED`.
    ProcessTNG();

    /// The same with a program, as by `setExecutable`.
    explicit ProcessTNG(std::string const& path);

    /// The same with a program and its arguments.
    ProcessTNG(std::string const& path, std::vector<std::string> const& argument_list);

    /// Waits until no child is running; see the table of the class. An internal lock that fails goes to
    /// `std::GlobalErrorHandler::doAbort`. The calling thread is not cancelled meanwhile.
    virtual ~ProcessTNG();

    /// What every constructor calls: makes the object valid if there is a collector, and takes back priority, null
    /// devices, appending and the new group. What else was set stays.
    void init();

    /// False if the object could not be made, or `setExecutable` has failed since. Only tells: `start` does not ask.
    bool isValid() const;

    /// The running child, or `INVALID_PROCESS_ID`.
    int getPid() const;

    /// The child that has ended last, until `wait` fetches its end; else -1.
    int getLastPid() const;

    // ---- what the next child is to be; nothing of it touches a child that is running ----

    /// Sets the program: a path, absolute or from the working directory, no name to be searched for. It is the child's
    /// `argv[0]`, too. Looks at the file at once, following links: whether it is there (`stat`) and its owner may execute
    /// it. No other right counts: a caller who cannot execute the file notices only from the child.
    /// @return true on failure, with the path kept and the object invalid: the report of `FileInfo`, or `FileAccessError`
    ///         0 if the owner must not execute it
    bool setExecutable(std::string const& path);

    /// Sets `argv[1]` and what follows. Each text ends at its first null byte.
    void setArguments(std::vector<std::string> const& argument_list);

    /// Sets the environment, names with their values: the child gets exactly these. Empty: it inherits that of the
    /// process. Names are not checked: one with a "=" in it ends there for the child, and the rest begins its value.
    void setEnvironment(std::vector<std::pair<std::string, std::string>> const& variables);

    // Standard streams. For each of the two that are written the null device wins over a file, and a file over a
    // descriptor; where none is set the stream is that of the process. What fails is told on the child's standard error,
    // with the system's text in English, and the child goes on with the stream that it has. One descriptor cannot serve
    // two streams.

    /// Opens a file for standard output, in the child: made with mode 0600 where it is missing. Empty: none.
    /// @param append  whether to write behind what the file holds, instead of emptying it
    void setStdoutFile(std::string const& path, bool append);
    /// Opens a file for standard error, likewise.
    void setStderrFile(std::string const& path, bool append);
    /// Opens a file for standard input, likewise, for reading only.
    void setStdinFile(std::string const& path);

    /// Makes a descriptor of the process the child's standard output and closes it there; -1: none. The descriptor stays
    /// open in the process. 1 itself stays what it is, and open for the program even if it is marked close-on-exec.
    void setStdoutFd(int fd);
    /// Makes a descriptor the child's standard error, likewise.
    void setStderrFd(int fd);
    /// The other way round, on purpose: the child's `fd` becomes what its standard input was, which is closed. 0 itself
    /// stays what it is, likewise. -1: none.
    void setStdinFd(int fd);

    /// Sends standard output to "/dev/null".
    void setStdoutNull(bool use_null);
    /// Sends standard error to "/dev/null".
    void setStderrNull(bool use_null);

    /// Puts the child into a process group of its own, which `kill` then signals. The group exists when `start` returns.
    void setNewGroup(bool use_new_group);

    /// Keeps the policy of the process, with another priority.
    /// @param use_default  true: leaves scheduling alone, and takes an earlier priority back
    /// @param priority     real-time priority, or nice value under time sharing
    /// @return false
    bool setPriority(bool use_default, int priority);

    /// Sets policy and parameters of the child. `VESK_SCHED_NOOP` and the classes leave scheduling alone.
    /// `VESK_SCHED_POLICY_KEEP` takes the priority of `setPriority`, and without one those of `attrs`. What the system
    /// refuses is a warning of the child's, which goes on.
    /// @return false
    bool setSchedAttrs(sched::Attr const& attrs);

    /// Sets the processors on which the child may run: one entry a processor, by its number. Empty: those of the
    /// process. Entries beyond the machine's processors are ignored. Without a true entry the system refuses, which is a
    /// warning of the child's, which goes on.
    void setAffinity(std::vector<bool> const& processors);

    /// Sets who is told of the child's end; null: nobody. Not owned: it has to stay until the end has been told. The
    /// listener at the moment of the end counts.
    void setExitListener(ExitListener* listener);

    // ---- the life of a child ----

    /// Starts a child (`fork`, then `execv` or `execve` in the child). Does not wait for the program: see the class. All
    /// signals of the calling thread are blocked during the fork. Memory for the arguments and the environment that is not
    /// there is waited for, by `std::GlobalErrorHandler::doOutOfMem`. An assertion tells if the system gives the child an
    /// id that another object has entered, whose child something else must have fetched: that object waits for ever.
    /// @return the child's process id; `INVALID_PROCESS_ID` on failure: `std::CommonErrorId::CONTRACT_BROKEN` if a child is running (which
    ///         is left alone); `SysErrorId::RESOURCES_EXHAUSTED` without resources, 1 without memory; else `ErrorId::START_FAILED`. Without a collector an
    ///         assertion precedes it. If the collector's lock fails, the object stays locked.
    int start();

    /// Fetches the end of the child, waiting for it first. Each end can be fetched once, also long after it, until the
    /// next start. A cancellation point.
    ///
    /// @param state    how the child has ended. Where the time has run out: not exited, with a `status` of -1
    /// @param timed    whether to wait for `timeout` only
    /// @param timeout  milliseconds on the monotonic clock; what is not above 0 does not wait
    /// @return true on failure: `std::CommonErrorId::CONTRACT_BROKEN` if no child is running and no end is left to be fetched, with
    ///         `state` untouched; what the lock or the condition reports, and `ErrorId::WAIT_FAILED`, if one of them fails. Running out
    ///         of time is no failure: `state.hasExited()` tells.
    bool wait(ExitState& state, bool timed, long long timeout);

    /// Signals the child, or its whole process group if it has one of its own. Does nothing, with success, when no child
    /// is running, and when it has ended just now. Does not wait for the end.
    /// @param graceful  `SIGTERM`, which a program can handle, instead of `SIGKILL`
    /// @return true on failure, as for `killProcess`; `ErrorId::KILL_FAILED` if the lock fails
    bool kill(bool graceful);

    // ---- any process ----

    /// Signals a process (`kill`).
    /// @param process_id  as the system takes it: 0 is the process group of the caller, below -1 a group, and -1 every
    ///                    process that the caller may signal
    /// @param graceful    `SIGTERM` instead of `SIGKILL`
    /// @return true on failure: `ErrorId::NOT_FOUND` if there is no such process; `SysErrorId::PERMISSION_DENIED` without the right to signal it, then
    ///         `ErrorId::KILL_FAILED`; else `ErrorId::KILL_FAILED`
    static bool killProcess(int const& process_id, bool graceful);

    /// Whether a process exists, also one that may not be signalled, and one that has ended but whose end nobody has
    /// fetched (`kill` with signal 0). Ids of 0 and less are taken as by `killProcess`.
    /// @return 0 it exists, 1 it does not (not reported), -1 on failure: `SysErrorId::UNCLASSIFIED`
    static signed char existsProcess(int const& process_id);

    /// Finds processes by the first text of their command line. Processes without one, such as those of the kernel, are
    /// not found; the calling process is.
    ///
    /// @param name   compared byte for byte
    /// @param pids   gets the ids appended, in the order of the directory; untouched, with the report of `Directory`
    ///               pending, if "/proc" cannot be opened
    /// @param exact  true compares with the whole text, false with its last path component
    static void getProcessId(std::string const& name, std::vector<int>& pids, bool exact);

    /// The id of the calling process (`getpid`).
    static int getOwnProcessId();

    /// The absolute path of the calling process's program (`readlink` of "/proc/.../exe"), at most 4,095 bytes of it.
    /// Read once and kept. Empty if it could not be read (not reported), before the start-up, after `exit` and if the
    /// set-up behind it failed (`Vesk::ErrorId::INIT_FAILED`).
    static std::string getOwnProcessName();

    // ---- for the library itself ----

    /// Called by the start-up of the library: prepares the machinery behind this class, and sets it up at once unless it
    /// is to be `lazy`. True on failure, with the reports of the set-up.
    static bool init(bool lazy);

    /// Called by `Vesk::cleanupAll`: blocks until all children have ended, which it does not bring about, and ends the
    /// collector. Does nothing before `init`. No object may be in use meanwhile; those that stay start nothing until the
    /// library has been started again.
    static void exit();

    /// Hands the end of its child over to an object; called by the collector alone. A lock that fails goes to
    /// `std::GlobalErrorHandler::doAbort`.
    static void processExited(ProcessTNG* process, bool was_killed, int exit_status);

private:
    class VectorTransformer;

    // Stands for a priority that was not set.
    static constexpr int NO_PRIORITY = INT_MIN;

    bool startChild();
    [[noreturn]] void runChild(char* const* args, char* const* env) noexcept;
    void applyScheduling() const;
    void applyAffinity() const;
    void redirectStreams(int own_pid) const;
    void enterNewGroup() const;
    template <typename Change>
    void change(char const* function, Change make);

    bool invalid = false;
    int pid = INVALID_PROCESS_ID;
    int last_pid = INVALID_PROCESS_ID;
    std::string executable;
    std::vector<std::string> arguments;
    std::vector<std::pair<std::string, std::string>> environment;
    std::string stdout_file;
    std::string stderr_file;
    std::string stdin_file;
    int stdout_fd = -1;
    int stdin_fd = -1;
    int stderr_fd = -1;
    bool in_new_group = false; // Of the child that is running.
    ExitListener* exit_listener = nullptr;
    bool stdout_null = false;
    bool stderr_null = false;
    bool stdout_append = false;
    bool stderr_append = false;
    bool new_group = false; // Of the next child.
    Mutex mutex;            // Taken before the collector's. Guards all fields.
    Condition exit_condition;
    ExitState m_last_state;
    int priority_value = NO_PRIORITY;
    sched::Attr sched_attrs;
    std::vector<bool> affinity;
};

} // namespace vesk
