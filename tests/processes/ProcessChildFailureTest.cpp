#include "processes/ChildCapture.h"

#include "support/Emulation.h"
#include "support/NewFault.h"

#include <fnmatch.h>

// The calls between fork and exec. The functions are replaced in the process; the child inherits their state
// and the faults that are set.
namespace {

// The descriptor for the record of the child's calls between fork and exec.
int g_record = -1;
bool g_in_child = false;
// The policy that the system reports, and whether setting one or a nice value only seems to succeed.
int g_policy = -1;
bool g_pretends_to_schedule = false;
// The descriptor from which the child reads a byte before it continues behind the fork.
int g_gate = -1;
// The result of fork, instead of a new child.
pid_t g_forked = -1;
// Whether the child ends at a forbidden call, and whether this is the child.
bool g_is_strict = false;
bool g_is_strict_child = false;

VESK_UNWATCHED void forbid(char const* name) {
    if (g_is_strict_child && !support::Injected::isResolving()) {
        (void)!write(STDERR_FILENO, name, strlen(name));
        (void)!write(STDERR_FILENO, " is called in the child\n", 24);
        _exit(77);
    }
}

VESK_UNWATCHED __attribute__((format(printf, 1, 2))) void record(char const* format, ...) {
    if (g_in_child && g_record != -1) {
        int const before = errno;
        va_list args;
        va_start(args, format);
        vdprintf(g_record, format, args);
        va_end(args);
        errno = before;
    }
}

/// Records that all signals are unblocked, and which of the signals were not blocked before.
VESK_UNWATCHED void recordMask(int how, sigset_t const* set) {
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    int unblocked = 0;
    for (int i = 1; set != nullptr && i < NSIG; ++i) {
        unblocked += sigismember(set, i) == 1 ? 1 : 0;
    }
    // All but the two that libc keeps for itself.
    record(
        "sigprocmask %s %s\n", how == SIG_UNBLOCK ? "unblock" : "other",
        unblocked >= NSIG - 3 ? "all" : "some");
    // User-mode QEMU keeps the last two for itself.
    for (int i = 1; i < NSIG - (support::IS_EMULATED ? 2 : 0); ++i) {
        bool const is_libcs = sigismember(set, i) != 1;
        if (i != SIGKILL && i != SIGSTOP && !is_libcs && sigismember(&before, i) != 1) {
            record("%d was not blocked\n", i);
        }
    }
}

VESK_UNWATCHED void beginChild() {
    g_in_child = g_record != -1;
    char byte = 0;
    while (g_gate != -1 && read(g_gate, &byte, 1) < 0 && errno == EINTR) {}
    g_is_strict_child = g_is_strict;
}
int const g_registered = pthread_atfork(nullptr, nullptr, beginChild);

} // namespace

VESK_INJECT_NOTING(
    pid_t, -1, fork, (), (), if (g_forked != -1) { return g_forked; })

// Functions that take a lock, use the heap or depend on the locale. The sanitizers have a heap of their own.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define VESK_FORBID_HEAP(result, name, parameters, arguments)                                                \
    extern "C" result __libc_##name parameters;                                                              \
    extern "C" result name parameters {                                                                      \
        forbid(#name);                                                                                       \
        return __libc_##name arguments;                                                                      \
    }

VESK_FORBID_HEAP(void*, malloc, (size_t size), (size))
VESK_FORBID_HEAP(void*, calloc, (size_t count, size_t size), (count, size))
VESK_FORBID_HEAP(void*, realloc, (void* memory, size_t size), (memory, size))
VESK_FORBID_HEAP(void, free, (void* memory), (memory))
#endif

#define VESK_FORBID(result, name, parameters, arguments)                                                     \
    VESK_INJECT(result, return {}, name, parameters, arguments, forbid(#name))

VESK_FORBID(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_FORBID(char*, strerror, (int number), (number))
VESK_FORBID(char*, strerror_r, (int number, char* text, size_t size), (number, text, size))
VESK_FORBID(
    int, vsnprintf, (char* text, size_t size, char const* format, va_list args), (text, size, format, args))

#define VESK_RECORD(name, parameters, arguments, ...)                                                        \
    VESK_INJECT_NOTING(int, -1, name, parameters, arguments, __VA_ARGS__)

// Only signals that a sanitizer's runtime does not handle.
VESK_RECORD(
    sigaction, (int signal, struct sigaction const* action, struct sigaction* old), (signal, action, old),
    if (action != nullptr && (signal == SIGUSR1 || signal == SIGUSR2 || signal == SIGRTMIN + 1)) {
        record("sigaction %d %s\n", signal, action->sa_handler == SIG_DFL ? "default" : "other");
    })
VESK_RECORD(sigprocmask, (int how, sigset_t const* set, sigset_t* old), (how, set, old), recordMask(how, set))
VESK_RECORD(
    sched_getscheduler, (pid_t pid), (pid), record("getscheduler %d\n", pid);
    if (g_policy != -1) { return g_policy; })
VESK_RECORD(getpid, (), (), record("getpid\n"))
VESK_RECORD(
    sched_setscheduler, (pid_t pid, int policy, sched_param const* param), (pid, policy, param),
    record("setscheduler %d %d %d\n", pid, policy, param->sched_priority);
    if (g_pretends_to_schedule) { return 0; })
VESK_RECORD(
    setpriority, (__priority_which_t which, id_t id, int priority), (which, id, priority),
    record("setpriority %d %d %d\n", static_cast<int>(which), static_cast<int>(id), priority);
    if (g_pretends_to_schedule) { return 0; })
VESK_RECORD(
    sched_setaffinity, (pid_t pid, size_t size, cpu_set_t const* set), (pid, size, set),
    record("sched_setaffinity %d %zu %d\n", pid, size, CPU_COUNT(set)))
VESK_INJECT_OPEN(record("open %s %x %o\n", path, static_cast<unsigned int>(flags), mode))
VESK_RECORD(dup2, (int from, int to), (from, to), record("dup2 %d %d\n", from, to))
VESK_RECORD(close, (int fd), (fd), record("close %d\n", fd))
VESK_RECORD(setpgid, (pid_t pid, pid_t group), (pid, group), record("setpgid %d %d\n", pid, group))
VESK_RECORD(
    execv, (char const* path, char* const* args), (path, args), record("execv %s %s\n", path, args[0]))
VESK_RECORD(
    execve, (char const* path, char* const* args, char* const* env), (path, args, env),
    record("execve %s %s %s\n", path, args[0], env[0]))
VESK_INJECT_ERRNO(char*, nullptr, strdup, (char const* text), (text))

namespace {

using namespace support;
using namespace vesk::sched;
namespace SysErrorId = vesk::SysErrorId;

class ProcessChildFailure : public ProcessTest {
protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        reset();
        ProcessTest::TearDown();
    }

    TempFolder m_dir;

private:
    static void reset() {
        g_record = g_policy = g_gate = g_forked = -1;
        g_in_child = g_pretends_to_schedule = g_is_strict = false;
    }
};

using Set = std::function<void(ProcessTNG&)>;

/// A child, and its calls between fork and exec.
struct Recorded : Capture {
    /// Returns the descriptor of the first call of dup2, or -1.
    int getDuplicated() const {
        int fd = -1;
        size_t const at = calls.find("dup2 ");
        sscanf(calls.c_str() + (at == std::string::npos ? 0 : at), "dup2 %d", &fd);
        return fd;
    }

    /// Checks that a text is this pattern, in which "*" matches any text, and that Capture::fill fills.
    testing::AssertionResult matches(std::string const& text, std::string pattern) const {
        pattern = fill(pattern, getDuplicated());
        for (size_t at = 0; (at = pattern.find('[', at)) != std::string::npos; at += 2) {
            pattern.insert(at, "\\");
        }
        return (fnmatch(pattern.c_str(), text.c_str(), 0) == 0 ? testing::AssertionSuccess()
                                                               : testing::AssertionFailure())
            << text << " does not match " << pattern;
    }

    std::string calls;
};

/// Captures a child that starts with a fault.
Recorded record(Set const& set, Injected& function = inject_dup2, int error = 0) {
    ProcessPipe pipe(ProcessPipe::ChildGets::READ_END);
    Recorded seen{
        capture([&](ProcessTNG& process, Go const& go) {
            set(process);
            g_record = pipe.getWriteEnd();
            Fault const fault(function, error);
            go();
        }),
        ""};
    seen.calls = pipe.readAll();
    return seen;
}

std::string unclassified(int error) {
    return rowText(SysErrorId::UNCLASSIFIED, systemText(error)) + "\n";
}

TEST_F(ProcessChildFailure, aFailedForkFailsTheStartAndLeavesTheObjectIdleWithoutItsLastEnd) {
    std::pair<int, ExpectedReport> const rows[] = {
        {EAGAIN, SysErrorId::RESOURCES_EXHAUSTED},
        {ENOMEM, SysErrorId::OUT_OF_MEMORY},
        {ENOSYS, ProcessTNG::ErrorId::START_FAILED}};
    for (bool const has_run : {false, true}) {
        for (auto const& [error, report] : rows) {
            SCOPED_TRACE(std::string(strerrorname_np(error)) + (has_run ? " after a child" : ""));
            RecordingListener listener;
            ProcessTNG process;
            setExit(process, 0);
            if (has_run) {
                listener.start(process, 0);
                ASSERT_TRUE(listener.waitForCalls());
            }
            {
                Fault const fault(inject_fork, error);
                EXPECT_EQ(-1, process.start());
            }
            EXPECT_TRUE(causeIs(*report.family, report.id, error));
            EXPECT_EQ(-1, process.getPid());
            EXPECT_TRUE(hasNoState(process));
            // All locks are free again.
            process.setExitListener(nullptr);
            EXPECT_TRUE(runsExit(process, 0));
        }
    }
}

/// A child with a fault of one of its calls.
struct ChildRow : NamedRow {
    Set set;
    Injected& function;
    int error;
    std::string errors = "err\n"; ///< What it writes to standard error.
    std::string calls = "*";      ///< Its calls between fork and exec.
};

int openGiven(int number = 60) {
    int const fd = inject_open.getReal(&open)("/dev/null", O_RDWR);
    EXPECT_EQ(number, inject_dup2.getReal(&dup2)(fd, number));
    return number;
}

rlim_t getDescriptorLimit() {
    rlimit limit{};
    EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    return limit.rlim_cur;
}

/// Returns the line about a file that cannot be opened, and the output of the child. The program and the
/// stream are exchanged in some lines.
std::string notOpened(char const* first, char const* last, std::string const& path, int error) {
    return std::string(first) + " [PID]: Couldn't open new " + last + " \"" + path +
        "\". Reason: " + strerror(error) + "\nerr\n";
}
/// The same about a descriptor.
std::string
notDuplicated(char const* first, std::string const& what, std::string const& last, int error = EMFILE) {
    return std::string(first) + " [PID]: Couldn't dup2 (" + what + " ) new " + last +
        "! Reason: " + strerror(error) + "\nerr\n";
}

std::string const NULL_NAME = " (\"/dev/null\") ";
constexpr char const* NOT_SCHEDULED =
    "*: startChild: warning: ProcessTNG::startChild (forked): Error applying scheduling policy/parameters: ";
std::string const NOT_RUN = "framework/src/vesk/posix/ProcessTNG_fork:*: startChild: fatal: error calling "
                            "exec() after fork()\n*";
std::string const NO_GROUP = "Error setting new process group: framework/*: ";
constexpr char const* NO_AFFINITY = "*: startChild: warning: after fork(): Error setting affinity\nerr\n";
std::string const LONG_PATH = "/" + std::string(10000, 'x'); // Longer than one write to a pipe.

void setNothing(ProcessTNG& /*process*/) {}
Set noProcessorOf(size_t count) {
    return [count](ProcessTNG& process) { process.setAffinity(std::vector<bool>(count, false)); };
}
/// Sets a program that cannot be executed.
Set program(std::string const& path) {
    return [path](ProcessTNG& process) {
        process.setExecutable(path);
        std::ErrorStorage::ack();
    };
}

constexpr char const* BEGIN = "getpid\nsigprocmask unblock all\n";

ChildRow const CHILD_ROWS[] = {
    // Not even EINTR is repeated.
    {"openOut", [](auto& p) { p.setStdoutFile("/x", false); }, inject_open, EINTR,
     notOpened("PROGRAM", "stdout", "/x", EINTR)},
    {"openOutToNull", [](auto& p) { p.setStdoutNull(true); }, inject_open, EINTR,
     notOpened("PROGRAM", "stdout", "/dev/null", EINTR)},
    {"openErr", [](auto& p) { p.setStderrFile("/x", false); }, inject_open, EINTR,
     notOpened("PROGRAM", "stderr", "/x", EINTR)},
    {"openErrToNull", [](auto& p) { p.setStderrNull(true); }, inject_open, EINTR,
     notOpened("PROGRAM", "stderr", "/dev/null", EINTR)},
    {"openIn", [](auto& p) { p.setStdinFile("/x"); }, inject_open, EINTR,
     notOpened("stdin", "PROGRAM", "/x", EINTR)},
    {"openUnknownNumber", [](auto& p) { p.setStdinFile("/x"); }, inject_open, 12345,
     notOpened("stdin", "PROGRAM", "/x", 12345)},
    {"openLongLine", [](auto& p) { p.setStdinFile(LONG_PATH); }, inject_open, 0,
     notOpened("stdin", "PROGRAM", LONG_PATH, ENAMETOOLONG)},
    {"openOutToAMissingFile", [](auto& p) { p.setStdoutFile("/no/such/file", false); }, inject_open, 0,
     notOpened("PROGRAM", "stdout", "/no/such/file", ENOENT)},
    {"openErrToADirectory", [](auto& p) { p.setStderrFile("/", true); }, inject_open, 0,
     notOpened("PROGRAM", "stderr", "/", EISDIR)},
    {"openInFromAMissingFile", [](auto& p) { p.setStdinFile("/no/such/file"); }, inject_open, 0,
     notOpened("stdin", "PROGRAM", "/no/such/file", ENOENT)},
    {"dupOutFile", [](auto& p) { p.setStdoutFile("/dev/null", false); }, inject_dup2, EMFILE,
     notDuplicated("PROGRAM", "FD to 1", "stdout" + NULL_NAME)},
    {"dupErrFile", [](auto& p) { p.setStderrFile("/dev/null", true); }, inject_dup2, EMFILE,
     notDuplicated("PROGRAM", "FD to 2", "stderr" + NULL_NAME)},
    {"dupInFile", [](auto& p) { p.setStdinFile("/dev/null"); }, inject_dup2, EMFILE,
     notDuplicated("stdin", "FD to 0", "PROGRAM" + NULL_NAME)},
    {"dupOut", [](auto& p) { p.setStdoutFd(openGiven()); }, inject_dup2, EMFILE,
     notDuplicated("stdout", "60 to 1", "PROGRAM")},
    {"dupErr", [](auto& p) { p.setStderrFd(openGiven()); }, inject_dup2, EMFILE,
     notDuplicated("PROGRAM", "60 to 2", "stderr")},
    {"dupIn", [](auto& p) { p.setStdinFd(openGiven()); }, inject_dup2, EMFILE,
     notDuplicated("PROGRAM", "0 to 60", "stdin")},
    {"dupBadOut", [](auto& p) { p.setStdoutFd(777); }, inject_dup2, 0,
     notDuplicated("stdout", "777 to 1", "PROGRAM", EBADF)},
    {"dupBadErr", [](auto& p) { p.setStderrFd(777); }, inject_dup2, 0,
     notDuplicated("PROGRAM", "777 to 2", "stderr", EBADF)},
    {"dupBadIn", [](auto& p) { p.setStdinFd(static_cast<int>(getDescriptorLimit())); }, inject_dup2, 0,
     notDuplicated("PROGRAM", "0 to " + std::to_string(getDescriptorLimit()), "stdin", EBADF)},
    {"setSignals", setNothing, inject_sigprocmask, EINVAL,
     "*: startChild: warning: after fork(): error unblocking signals\nerr\n"},
    {"setGroup", [](auto& p) { p.setNewGroup(true); }, inject_setpgid, EPERM,
     NO_GROUP + unclassified(EPERM) + "err\n"},
    {"setGroupWithAnUnknownNumber", [](auto& p) { p.setNewGroup(true); }, inject_setpgid, 12345,
     NO_GROUP + unclassified(12345) + "err\n"},
    {"setPriority", [](auto& p) { p.setPriority(false, 5); }, inject_setpriority, EACCES,
     NOT_SCHEDULED + systemText(EACCES) + "\nerr\n"},
    {"setPolicy", [](auto& p) { p.setSchedAttrs(makeAttributes(VESK_SCHED_POLICY_FIFO, 100000, 0)); },
     inject_open, 0, NOT_SCHEDULED + systemText(EINVAL) + "\nerr\n"},
    {"setNoneOf1Processor", noProcessorOf(1), inject_open, 0, NO_AFFINITY},
    {"setNoneOf2Processors", noProcessorOf(2), inject_open, 0, NO_AFFINITY},
    {"setNoneOf5000Processors", noProcessorOf(5000), inject_open, 0, NO_AFFINITY},
    {"execEACCES", setNothing, inject_execv, EACCES, NOT_RUN},
    {"execENOMEM", setNothing, inject_execv, ENOMEM, NOT_RUN},
    {"execE2BIG", setNothing, inject_execv, E2BIG, NOT_RUN},
    {"execETXTBSY", setNothing, inject_execv, ETXTBSY, NOT_RUN},
    {"execMissing", program("/no/such/program"), inject_execv, 0, NOT_RUN},
    {"execEmpty", program(""), inject_execv, 0, NOT_RUN},
    {"execDirectory", program("/tmp"), inject_execv, 0, NOT_RUN},
    {"execNotSearchedFor", program("sh"), inject_execv, 0, NOT_RUN},
    {"callsOfAPlainChild", setNothing, inject_dup2, 0, "err\n",
     std::string(BEGIN) + "execv PROGRAM PROGRAM\n"},
    // The mask omits processors that the machine does not have.
    {"callsWithProcessors", [](auto& p) { p.setAffinity(std::vector<bool>(5000, true)); }, inject_dup2, 0,
     "err\n", "*\nsched_setaffinity 0 128 " + std::to_string(vesk::Vesk::s_sys_info.processor_count) + "\n*"},
    {"callsWithDescriptors",
     [](auto& p) {
         p.setStdoutFd(openGiven(60));
         p.setStderrFd(openGiven(61));
         p.setStdinFd(62);
     },
     inject_open, 0, "",
     "*sigprocmask unblock all\ndup2 60 1\nclose 60\ndup2 61 2\nclose 61\ndup2 0 62\nclose 0\nexecv *"},
    {"callsWithTheNullDevice",
     [](auto& p) {
         p.setStdoutNull(true);
         p.setStderrFile("ignored", true);
         p.setStderrNull(true);
     },
     inject_open, 0, "", "*open /dev/null 241 600\n*open /dev/null 441 600\n*"},
    {"callsResetHandlersBeforeSignalsAreUnblocked",
     [](auto&) {
         signal(SIGUSR1, [](int) {});
         signal(SIGUSR2, SIG_IGN);
         struct sigaction action {};
         action.sa_flags = SA_SIGINFO;
         action.sa_sigaction = [](int, siginfo_t*, void*) {};
         EXPECT_EQ(0, sigaction(SIGRTMIN + 1, &action, nullptr));
     },
     inject_dup2, 0, "err\n",
     "getpid\nsigaction " + std::to_string(SIGUSR1) + " default\nsigaction " + std::to_string(SIGRTMIN + 1) +
         " default\nsigprocmask unblock all\nexecv *"},
};

VESK_TEST_TABLE(ProcessChildRows, makeTheseCallsAndLines, ProcessChildFailure, CHILD_ROWS) {
    Recorded const seen = record(GetParam().set, GetParam().function, GetParam().error);
    EXPECT_TRUE(seen.matches(seen.calls, GetParam().calls));
    EXPECT_TRUE(seen.matches(seen.errors, GetParam().errors));
    EXPECT_GT(seen.pid, 0); // The start itself succeeds.
    bool const aborts = GetParam().errors.find("fatal") != std::string::npos;
    EXPECT_EQ(aborts, seen.killed);
    EXPECT_EQ(aborts ? SIGABRT : 0, seen.status);
    // The rows without errors redirect both outputs.
    EXPECT_EQ(aborts || GetParam().errors.empty() ? "" : "out\n", seen.output);
    if (&GetParam().function == &inject_dup2 && GetParam().error != 0) {
        // A descriptor that the child has opened stays open, a given one is closed.
        bool const opened = seen.calls.find("open ") != std::string::npos;
        std::string const close = "close " + std::to_string(seen.getDuplicated()) + "\n";
        EXPECT_EQ(!opened, seen.calls.find(close) != std::string::npos) << seen.calls;
    }
}

TEST_F(ProcessChildFailure, aChildWithEverySettingMakesItsCallsInThisOrder) {
    std::string const out = m_dir / "out";
    std::string const err = m_dir / "err";
    Recorded const seen = record([&](ProcessTNG& process) {
        process.setSchedAttrs(makeAttributes(VESK_SCHED_POLICY_NORMAL, 0, 3));
        process.setAffinity({true});
        process.setStdoutFile(out, false);
        process.setStderrFile(err, true);
        process.setStdinFile("/dev/null");
        process.setNewGroup(true);
        process.setEnvironment({{"NAME", "value"}});
    });
    EXPECT_EQ(0, seen.status);
    EXPECT_TRUE(seen.matches(
        seen.calls,
        BEGIN + ("setscheduler 0 0 0\nsetpriority 0 0 3\nsched_setaffinity 0 128 1\nopen " + out) +
            " 241 600\ndup2 FD 1\nclose FD\nopen " + err +
            " 441 600\ndup2 FD 2\nclose FD\nopen /dev/null 0 0\ndup2 FD 0\nclose FD\nsetpgid 0 0\n"
            "execve PROGRAM PROGRAM NAME=value\n"));
}

TEST_F(ProcessChildFailure, aFileThatIsNoProgramAbortsTheChild) {
    for (auto const& [content, mode] : {std::pair("#!/bin/sh\n", 0600U), {"no program at all", 0700U}}) {
        SCOPED_TRACE(content);
        Recorded const seen = record(program(m_dir.makeFile("file", content, mode)));
        EXPECT_EQ(SIGABRT, seen.killed ? seen.status : 0);
        EXPECT_EQ("", seen.output);
        EXPECT_TRUE(seen.matches(seen.errors, NOT_RUN));
    }
}

struct KillCase : NamedRow {
    bool group;
    bool graceful;
};

KillCase const EARLY_KILLS[] = {
    {"terminate", false, true},
    {"kill", false, false},
    {"terminateItsGroup", true, true},
    {"killItsGroup", true, false}};

VESK_TEST_TABLE(ProcessEarlyKillRows, reachAChildThatHasJustBegun, ProcessChildFailure, EARLY_KILLS) {
    ProcessPipe gate(ProcessPipe::ChildGets::READ_END);
    ProcessPipe handled(ProcessPipe::ChildGets::READ_END);
    static int s_handled = -1;
    s_handled = handled.getWriteEnd();
    auto* const before = signal(SIGTERM, [](int) { (void)!write(s_handled, "handled", 7); });
    {
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        process.setNewGroup(GetParam().group);
        g_gate = gate.getReadEnd();
        EXPECT_GT(process.start(), 0);
        EXPECT_FALSE(process.kill(GetParam().graceful));
        EXPECT_EQ(1, write(gate.getWriteEnd(), "x", 1));
        ExitState state;
        EXPECT_FALSE(process.wait(state, true, 30'000));
        EXPECT_TRUE(wasKilledBy(state, GetParam().graceful ? SIGTERM : SIGKILL));
        held.release();
    }
    signal(SIGTERM, before);
    EXPECT_EQ("", handled.readAll());
}

TEST_F(ProcessChildFailure, startRestoresTheMaskOfTheCallingThread) {
    sigset_t set;
    sigset_t before;
    sigset_t after;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, &before));
    ProcessTNG process;
    EXPECT_TRUE(runsExit(process, 0));
    {
        Fault const fault(inject_fork, EAGAIN);
        EXPECT_EQ(-1, process.start());
        std::ErrorStorage::ack();
    }
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &before, &after));
    sigaddset(&before, SIGUSR2);
    for (int i = 1; i < NSIG; ++i) {
        EXPECT_EQ(sigismember(&before, i), sigismember(&after, i)) << i;
    }
}

TEST_F(ProcessChildFailure, noChildTakesALockOrUsesTheHeapAfterAnyFailure) {
    for (bool const executes : {true, false}) {
        SCOPED_TRACE(executes ? "with a program" : "without a program");
        Capture const seen = capture([executes](ProcessTNG& process, Go const& go) {
            process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_FIFO, 100000, 0));
            process.setAffinity({false});
            process.setEnvironment({{"ONE", "1"}});
            process.setStdoutFile("/no/such/directory/file", false);
            process.setStderrFile("/no/such/directory/file", false);
            process.setStdinFd(0x7fffffff);
            process.setNewGroup(true);
            if (!executes) {
                program("/no/such/program")(process);
            }
            Fault const group(inject_setpgid, EPERM);
            Fault const signals(inject_sigprocmask, EINVAL);
            g_is_strict = true;
            go();
        });
        EXPECT_EQ(!executes, seen.killed);
        EXPECT_EQ(executes ? 0 : SIGABRT, seen.status) << seen.errors;
        for (char const* const text :
             {"error unblocking signals\n", "Error applying scheduling policy/parameters: ",
              "Error setting affinity\n", "]: Couldn't open new stdout ", "]: Couldn't open new stderr ",
              "]: Couldn't dup2 (0 to 2147483647 ) new stdin! Reason: Bad file descriptor\n",
              "Error setting new process group: "}) {
            EXPECT_TRUE(contains(seen.errors, text));
        }
    }
}

TEST_F(ProcessChildFailure, aReusedIdIsAnAssertionAndBelongsToTheNewChild) {
    expectInChild([] {
        HeldChild first;
        EventRecorder recorder;
        ProcessTNG second;
        setExit(second, 0);
        g_forked = first.pid;
        EXPECT_EQ(first.pid, second.start());
        EXPECT_EQ("ASSERT framework/src/vesk/posix/ProcessTNG start: entered.inserted", recorder.getText());
        first.release();
        EXPECT_TRUE(hasExitedWith(waitFor(second), 0));
        EXPECT_EQ(first.pid, first.process.getPid());
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0); // The first object would wait forever.
    });
}

constexpr int NOT_SET = -12345;

struct ScheduleRow : NamedRow {
    int policy;   // Of the attributes, with the priority 4 and the nice value 6.
    int priority; // By setPriority, before it.
    int current;
    std::string calls;
};

constexpr int KEEP = VESK_SCHED_POLICY_KEEP;

ScheduleRow const SCHEDULES[] = {
    {"noop", VESK_SCHED_NOOP, NOT_SET, SCHED_FIFO, ""},
    {"noopAndPriority", VESK_SCHED_NOOP, 9, SCHED_FIFO, ""},
    {"keepFIFO", KEEP, NOT_SET, SCHED_FIFO, "getscheduler 0\nsetscheduler 0 1 4\n"},
    {"keepRR", KEEP, NOT_SET, SCHED_RR, "getscheduler 0\nsetscheduler 0 2 4\n"},
    {"keepOTHER", KEEP, NOT_SET, SCHED_OTHER, "getscheduler 0\nsetpriority 0 0 6\n"},
    {"keepBATCH", KEEP, NOT_SET, SCHED_BATCH, "getscheduler 0\nsetscheduler 0 3 4\n"},
    {"keepFIFOAndPriority", KEEP, 9, SCHED_FIFO, "getscheduler 0\nsetscheduler 0 1 9\n"},
    {"keepRRAndPriority", KEEP, 9, SCHED_RR, "getscheduler 0\nsetscheduler 0 2 9\n"},
    {"keepOTHERAndPriority", KEEP, 9, SCHED_OTHER, "getscheduler 0\nsetscheduler 0 0 0\nsetpriority 0 0 9\n"},
    {"keepBATCHAndPriority", KEEP, 9, SCHED_BATCH, "getscheduler 0\nsetscheduler 0 3 4\n"},
    {"RR", VESK_SCHED_POLICY_RR, 9, SCHED_OTHER, "setscheduler 0 2 4\n"},
    {"FIFO", VESK_SCHED_POLICY_FIFO, 9, SCHED_OTHER, "setscheduler 0 1 4\n"},
    {"NORMAL", VESK_SCHED_POLICY_NORMAL, 9, SCHED_FIFO, "setscheduler 0 0 0\nsetpriority 0 0 6\n"},
    {"idleClass", VESK_SCHED_CLASS_IDLE, 9, SCHED_OTHER, ""},
    {"belowNormalClass", VESK_SCHED_CLASS_BELOW_NORMAL, 9, SCHED_OTHER, ""},
    {"normalClass", VESK_SCHED_CLASS_NORMAL, 9, SCHED_OTHER, ""},
    {"aboveNormalClass", VESK_SCHED_CLASS_ABOVE_NORMAL, 9, SCHED_OTHER, ""},
    {"highClass", VESK_SCHED_CLASS_HIGH, 9, SCHED_OTHER, ""},
    {"realTimeClass", VESK_SCHED_CLASS_REALTIME, 9, SCHED_OTHER, ""},
    {"unknownPolicy", 11, 9, SCHED_OTHER, ""}};

VESK_TEST_TABLE(
    ProcessScheduleRows, makeTheseCallsAndWarnWhenTheLastOneFails, ProcessChildFailure, SCHEDULES) {
    auto const set = [](ProcessTNG& process) {
        if (GetParam().priority != NOT_SET) {
            process.setPriority(false, GetParam().priority);
        }
        process.setSchedAttrs(makeAttributes(GetParam().policy, 4, 6));
        g_policy = GetParam().current;
    };
    g_pretends_to_schedule = true;
    std::string const& calls = GetParam().calls;
    Recorded const seen = record(set);
    EXPECT_TRUE(seen.matches(seen.calls, BEGIN + calls + "execv *"));

    g_pretends_to_schedule = false;
    bool const sets = calls.find("set") != std::string::npos;
    // For a nice value in the attributes, only its own call counts.
    bool const is_nice =
        GetParam().policy == VESK_SCHED_POLICY_NORMAL || calls.find("setscheduler") == std::string::npos;
    Recorded const failed = record(
        [&](ProcessTNG& process) {
            set(process);
            static Fault const policy(inject_sched_setscheduler, EPERM); // Until the end of this process.
        },
        inject_setpriority, EACCES);
    EXPECT_TRUE(failed.matches(
        failed.errors,
        sets ? NOT_SCHEDULED + systemText(is_nice ? EACCES : EPERM) + "\nerr\n" : std::string("err\n")));
    EXPECT_EQ(0, seen.status + failed.status);
}

TEST_F(ProcessChildFailure, aPolicyThatCannotBeSetIsNoFailureOfTheNiceValue) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(0);
    Recorded const seen = record(
        [](ProcessTNG& process) { process.setSchedAttrs(makeAttributes(VESK_SCHED_POLICY_NORMAL, 0, 0)); },
        inject_sched_setscheduler, EPERM);
    EXPECT_EQ("err\n", seen.errors);
}

TEST_F(ProcessChildFailure, aChildWarnsIfItsProcessorsCannotBeSetAndAcknowledgesTheReport) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        EventWriter const writer;
        process.setAffinity({true});
        // The warning about signals shows the state of the store before that about the processors.
        Fault const signals(inject_sigprocmask, EINVAL);
        Fault const fault(inject_sched_setaffinity, EPERM);
        go();
    });
    EXPECT_EQ(0U, seen.errors.find("after fork(): error unblocking signals: nothing\n")) << seen.errors;
    EXPECT_TRUE(contains(seen.errors, "\nafter fork(): Error setting affinity: framework/"));
    EXPECT_TRUE(contains(seen.errors, unclassified(EPERM) + "err\n"));
}

/// Returns the events of three failed allocations.
std::string threeTimesWithoutMemory(char const* function) {
    std::string const event = std::string("OUT_OF_MEMORY framework/src/vesk/posix/ProcessTNG_fork ") +
        function + ": native arguments vector";
    return event + "\n" + event + "\n" + event;
}

TEST_F(ProcessChildFailure, theAllocationOfTheArraysIsRepeatedAndHasRoomForTheirContent) {
    EventRecorder recorder;
    ProcessTNG process("/bin/sh", {"-c", "exit 3"});
    process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}, {"THREE", "3"}, {"FOUR", "4"}});
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
        EXPECT_GT(process.start(), 0);
        size_t const arguments = 4 * sizeof(char*);
        size_t const environment = 5 * sizeof(char*);
        EXPECT_EQ(
            std::vector<size_t>({arguments, arguments, arguments, arguments, environment}), fault.getSizes());
    }
    EXPECT_TRUE(hasExitedWith(waitFor(process), 3));
    EXPECT_EQ(threeTimesWithoutMemory("getArgs"), recorder.getText());
}

TEST_F(ProcessChildFailure, theAllocationOfTheEnvironmentIsRepeated) {
    EventRecorder recorder;
    ProcessTNG process;
    setProbe(process, {"tell", m_dir / "sight"});
    process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}});
    {
        NewFault const array(New::NOTHROW_ARRAY, 2, 1);
        Fault const fault(inject_strdup, ENOMEM, 2, 2);
        EXPECT_GT(process.start(), 0);
    }
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    EXPECT_EQ(threeTimesWithoutMemory("getEnv"), recorder.getText());
    EXPECT_EQ(std::vector<std::string>({"ONE=1", "TWO=2"}), Sight(m_dir / "sight").getEnvironment());
}

} // namespace
