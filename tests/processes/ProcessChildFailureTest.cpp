#include "processes/ChildCapture.h"

#include "support/Inject.h"
#include "support/NewFault.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdarg>
#include <cstring>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>

// The calls between fork and exec. The functions are replaced in the process; the child inherits their state
// and the faults that are set.
namespace {

// The descriptor for the record of the child's calls between fork and exec.
int g_record = -1;
bool g_in_child = false;
// The policy that the system reports, and whether setting one is omitted.
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
    if (g_is_strict_child) {
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

template <typename Function>
VESK_UNWATCHED Function* getReal(support::Injected& injected, Function*) {
    return reinterpret_cast<Function*>(injected.getReal());
}

} // namespace

support::Injected inject_fork("fork");
extern "C" VESK_UNWATCHED pid_t fork() {
    int error = 0;
    if (inject_fork.fails(error)) {
        errno = error;
        return -1;
    }
    if (g_forked != -1) {
        return g_forked;
    }
    pid_t const pid = getReal(inject_fork, &fork)();
    if (pid != 0) {
        return pid;
    }
    g_in_child = g_record != -1;
    char byte = 0;
    while (g_gate != -1 && read(g_gate, &byte, 1) < 0 && errno == EINTR) {}
    g_is_strict_child = g_is_strict;
    return 0;
}

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
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters noexcept {                                              \
        forbid(#name);                                                                                       \
        return getReal(inject_##name, &name) arguments;                                                      \
    }

VESK_FORBID(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_FORBID(char*, strerror, (int error), (error))
VESK_FORBID(char*, strerror_r, (int error, char* text, size_t size), (error, text, size))
VESK_FORBID(
    int, vsnprintf, (char* text, size_t size, char const* format, va_list args), (text, size, format, args))

support::Injected inject_sigaction("sigaction");
extern "C" VESK_UNWATCHED int
sigaction(int signal, struct sigaction const* action, struct sigaction* old) noexcept {
    // Only signals that a sanitizer's runtime does not handle.
    if (action != nullptr && (signal == SIGUSR1 || signal == SIGUSR2 || signal == SIGRTMIN + 1)) {
        record("sigaction %d %s\n", signal, action->sa_handler == SIG_DFL ? "default" : "other");
    }
    return getReal(inject_sigaction, &sigaction)(signal, action, old);
}

support::Injected inject_sigprocmask("sigprocmask");
extern "C" VESK_UNWATCHED int sigprocmask(int how, sigset_t const* set, sigset_t* old) {
    int blocked = 0;
    for (int i = 1; set != nullptr && i < NSIG; ++i) {
        blocked += sigismember(set, i) == 1 ? 1 : 0;
    }
    // All but the two that libc keeps for itself.
    record(
        "sigprocmask %s %s\n", how == SIG_UNBLOCK ? "unblock" : "other",
        blocked >= NSIG - 3 ? "all" : "some");
    sigset_t before;
    getReal(inject_sigprocmask, &sigprocmask)(SIG_BLOCK, nullptr, &before);
    // User-mode QEMU keeps the last two for itself.
    for (int i = 1; i < NSIG - (IS_EMULATED ? 2 : 0); ++i) {
        bool const is_libcs = sigismember(set, i) != 1;
        if (i != SIGKILL && i != SIGSTOP && !is_libcs && sigismember(&before, i) != 1) {
            record("%d was not blocked\n", i);
        }
    }
    int error = 0;
    if (inject_sigprocmask.fails(error)) {
        errno = error;
        return -1;
    }
    return getReal(inject_sigprocmask, &sigprocmask)(how, set, old);
}

support::Injected inject_sched_getscheduler("sched_getscheduler");
extern "C" VESK_UNWATCHED int sched_getscheduler(pid_t pid) noexcept {
    record("getscheduler %d\n", pid);
    return g_policy != -1 ? g_policy : getReal(inject_sched_getscheduler, &sched_getscheduler)(pid);
}

// Records a call. Returns 0 instead of calling the real function if it is only pretended.
#define VESK_RECORD(name, parameters, arguments, is_pretended, ...)                                          \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED int name parameters {                                                          \
        record(__VA_ARGS__);                                                                                 \
        int error = 0;                                                                                       \
        if (inject_##name.fails(error)) {                                                                    \
            errno = error;                                                                                   \
            return -1;                                                                                       \
        }                                                                                                    \
        return is_pretended ? 0 : getReal(inject_##name, &name) arguments;                                   \
    }

VESK_RECORD(getpid, (), (), false, "getpid\n")
VESK_RECORD(
    sched_setscheduler, (pid_t pid, int policy, sched_param const* param), (pid, policy, param),
    g_pretends_to_schedule, "setscheduler %d %d %d\n", pid, policy, param->sched_priority)
VESK_RECORD(
    setpriority, (__priority_which_t which, id_t id, int priority), (which, id, priority),
    g_pretends_to_schedule, "setpriority %d %d %d\n", static_cast<int>(which), static_cast<int>(id), priority)
VESK_RECORD(
    sched_setaffinity, (pid_t pid, size_t size, cpu_set_t const* set), (pid, size, set), false,
    "sched_setaffinity %d %zu %d\n", pid, size, CPU_COUNT(set))
VESK_INJECT_OPEN(record("open %s %x %o\n", path, static_cast<unsigned int>(flags), mode))
VESK_RECORD(dup2, (int from, int to), (from, to), false, "dup2 %d %d\n", from, to)
VESK_RECORD(close, (int fd), (fd), false, "close %d\n", fd)
VESK_RECORD(setpgid, (pid_t pid, pid_t group), (pid, group), false, "setpgid %d %d\n", pid, group)
VESK_RECORD(execv, (char const* path, char* const* args), (path, args), false, "execv %s %s\n", path, args[0])
VESK_RECORD(
    execve, (char const* path, char* const* args, char* const* env), (path, args, env), false,
    "execve %s %s %s\n", path, args[0], env[0])
VESK_INJECT_ERRNO(char*, nullptr, strdup, (char const* text), (text))

namespace {

using namespace support;
using vesk::sched::Attr;
namespace SysErrorId = vesk::SysErrorId;
using Handler = std::GlobalErrorHandler;

class ProcessChildFailure : public ProcessTest {
protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        reset();
        ProcessTest::TearDown();
    }

private:
    static void reset() {
        g_record = g_policy = g_gate = g_forked = -1;
        g_in_child = g_pretends_to_schedule = g_is_strict = false;
    }
};

using Set = std::function<void(ProcessTNG&)>;

/// Captures a child with a fault that is set for its start.
Capture captureFault(
    Injected& function, int error, Set const& set = [](ProcessTNG&) {}) {
    return capture([&](ProcessTNG& process, Go const& go) {
        set(process);
        Fault const fault(function, error);
        go();
    });
}

/// Captures a child, and stores its calls between fork and exec in `calls`.
Capture captureCalls(std::string& calls, Set const& set, int dup_error = 0) {
    ProcessPipe pipe(ProcessPipe::ChildGets::READ_END);
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        set(process);
        g_record = pipe.getWriteEnd();
        Fault const fault(inject_dup2, dup_error);
        go();
    });
    EXPECT_EQ(0, seen.status);
    calls = pipe.readAll();
    return seen;
}

/// Returns the calls of the child between fork and exec.
std::string recordCalls(Set const& set) {
    std::string calls;
    captureCalls(calls, set);
    return calls;
}

/// Returns the descriptor of the first call of dup2.
int findDuplicated(std::string const& calls) {
    int fd = -1;
    size_t const at = calls.find("dup2 ");
    EXPECT_NE(std::string::npos, at) << calls;
    EXPECT_EQ(1, sscanf(calls.substr(at == std::string::npos ? 0 : at).c_str(), "dup2 %d", &fd));
    return fd;
}

size_t count(std::string const& text, std::string const& part) {
    size_t number = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
        ++number;
    }
    return number;
}

Attr makeAttributes(int policy, int priority, int nice) {
    Attr attributes;
    attributes.policy = static_cast<vesk::sched::Policy_E>(policy);
    attributes.param.priority = priority;
    attributes.param.nice = nice;
    return attributes;
}

std::string unclassified(int error) {
    return rowText(SysErrorId::UNCLASSIFIED, systemText(error)) + "\n";
}

struct ForkRow {
    int error;
    ExpectedReport report;

    friend void PrintTo(ForkRow const& row, std::ostream* out) { *out << "errno " << row.error; }
};

class ProcessForkRows : public ProcessChildFailure, public testing::WithParamInterface<ForkRow> {};

TEST_P(ProcessForkRows, failTheStartAndLeaveTheObjectIdle) {
    ProcessTNG process;
    {
        Fault const fault(inject_fork, GetParam().error);
        EXPECT_EQ(-1, process.start());
    }
    EXPECT_TRUE(chainIs({GetParam().report}));
    EXPECT_EQ(-1, process.getPid());
    EXPECT_TRUE(hasNoState(process));
    // All locks are free again.
    EXPECT_TRUE(runsExit(process, 0));
}

template <typename Id>
ForkRow row(int error, Id id) {
    return {error, {id, rowText(id, systemText(error))}};
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessForkRows,
    testing::Values(
        row(EAGAIN, SysErrorId::RESOURCES_EXHAUSTED), row(ENOMEM, SysErrorId::OUT_OF_MEMORY),
        row(ENOSYS, ProcessTNG::ErrorId::START_FAILED)));

TEST_F(ProcessChildFailure, aFailedStartDiscardsTheLastEnd) {
    ProcessTNG process;
    RecordingListener listener;
    process.setExitListener(&listener);
    setExit(process, 0);
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    {
        Fault const fault(inject_fork, EAGAIN);
        EXPECT_EQ(-1, process.start());
    }
    EXPECT_TRUE(hasNoState(process));
}

TEST_F(ProcessChildFailure, aPlainChildMakesOnlyTheseCalls) {
    EXPECT_EQ(
        "getpid\nsigprocmask unblock all\nexecv " + getProbePath() + " " + getProbePath() + "\n",
        recordCalls([](ProcessTNG&) {}));
}

TEST_F(ProcessChildFailure, theMaskOmitsProcessorsThatTheMachineDoesNotHave) {
    std::string const processors = std::to_string(vesk::Vesk::s_sys_info.processor_count);
    EXPECT_TRUE(contains(
        recordCalls([](ProcessTNG& process) { process.setAffinity(std::vector<bool>(5000, true)); }),
        "\nsched_setaffinity 0 128 " + processors + "\n"));
}

TEST_F(ProcessChildFailure, aChildWithEverySettingMakesItsCallsInThisOrder) {
    TempDir const dir;
    std::string calls;
    Capture const seen = captureCalls(calls, [&](ProcessTNG& process) {
        process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_NORMAL, 0, 3));
        process.setAffinity({true});
        process.setStdoutFile(dir / "out", false);
        process.setStderrFile(dir / "err", true);
        process.setStdinFile("/dev/null");
        process.setNewGroup(true);
        process.setEnvironment({{"NAME", "value"}});
    });
    std::string const expected = "getpid\n"
                                 "sigprocmask unblock all\n"
                                 "setscheduler 0 0 0\n"
                                 "setpriority 0 0 3\n"
                                 "sched_setaffinity 0 128 1\n"
                                 "open " +
        (dir / "out") +
        " 241 600\n"
        "dup2 FD 1\n"
        "close FD\n"
        "open " +
        (dir / "err") +
        " 441 600\n"
        "dup2 FD 2\n"
        "close FD\n"
        "open /dev/null 0 0\n"
        "dup2 FD 0\n"
        "close FD\n"
        "setpgid 0 0\n"
        "execve PROGRAM PROGRAM NAME=value\n";
    EXPECT_EQ(seen.fill(expected, findDuplicated(calls)), calls);
}

TEST_F(ProcessChildFailure, aChildWithDescriptorsMakesItsCallsInThisOrder) {
    std::string const calls = recordCalls([&](ProcessTNG& process) {
        int const out = getReal(inject_open, &open)("/dev/null", O_WRONLY);
        EXPECT_EQ(60, dup2(out, 60));
        EXPECT_EQ(61, dup2(out, 61));
        process.setStdoutFd(60);
        process.setStderrFd(61);
        process.setStdinFd(62);
    });
    EXPECT_TRUE(contains(
        calls,
        "sigprocmask unblock all\ndup2 60 1\nclose 60\ndup2 61 2\nclose 61\ndup2 0 62\nclose 0\nexecv "));
}

TEST_F(ProcessChildFailure, theNullDeviceIsOpenedLikeAFile) {
    std::string const calls = recordCalls([&](ProcessTNG& process) {
        process.setStdoutNull(true);
        process.setStderrFile("ignored", true);
        process.setStderrNull(true);
    });
    EXPECT_TRUE(contains(calls, "open /dev/null 241 600\n"));
    EXPECT_TRUE(contains(calls, "open /dev/null 441 600\n"));
}

TEST_F(ProcessChildFailure, aChildWarnsIfItCannotUnblockSignals) {
    Capture const seen = captureFault(inject_sigprocmask, EINVAL);
    EXPECT_TRUE(
        contains(seen.errors, ": startChild: warning: after fork(): error unblocking signals\nerr\n"));
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChildFailure, aChildResetsHandlersBeforeItUnblocksSignals) {
    std::string const calls = recordCalls([](ProcessTNG&) {
        signal(SIGUSR1, [](int) {});
        signal(SIGUSR2, SIG_IGN);
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t*, void*) {};
        EXPECT_EQ(0, sigaction(SIGRTMIN + 1, &action, nullptr));
    });
    EXPECT_TRUE(contains(
        calls,
        "getpid\nsigaction " + std::to_string(SIGUSR1) + " default\nsigaction " +
            std::to_string(SIGRTMIN + 1) + " default\nsigprocmask unblock all\nexecv "));
}

struct KillCase {
    char const* name;
    bool group;
    bool graceful;

    friend void PrintTo(KillCase const& row, std::ostream* out) { *out << row.name; }
};

class ProcessEarlyKillRows : public ProcessChildFailure, public testing::WithParamInterface<KillCase> {};

TEST_P(ProcessEarlyKillRows, reachAChildThatHasJustBegun) {
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

INSTANTIATE_TEST_SUITE_P(
    All, ProcessEarlyKillRows,
    testing::Values(
        KillCase{"terminate", false, true}, KillCase{"kill", false, false},
        KillCase{"terminate its group", true, true}, KillCase{"kill its group", true, false}));

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
        Capture const seen = capture([executes](ProcessTNG& process, Go const& go) {
            process.setSchedAttrs(makeAttributes(vesk::sched::VESK_SCHED_POLICY_FIFO, 100000, 0));
            process.setAffinity({false});
            process.setEnvironment({{"ONE", "1"}});
            process.setStdoutFile("/no/such/directory/file", false);
            process.setStderrFile("/no/such/directory/file", false);
            process.setStdinFd(0x7fffffff);
            process.setNewGroup(true);
            if (!executes) {
                process.setExecutable("/no/such/program");
                std::ErrorStorage::ack();
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

TEST_F(ProcessChildFailure, aChildWritesALineCompletelyThatIsLongerThanOneWriteToAPipe) {
    std::string const path = "/" + std::string(10000, 'x');
    Capture const seen = captureWith([&](ProcessTNG& process) { process.setStdinFile(path); });
    EXPECT_EQ(
        seen.fill("stdin [PID]: Couldn't open new PROGRAM \"") + path +
            "\". Reason: File name too long\nerr\n",
        seen.errors);
}

TEST_F(ProcessChildFailure, anUnknownErrorNumberHasTheTextOfTheSystem) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStdinFile("/x");
        process.setNewGroup(true);
        Fault const open_fault(inject_open, 12345);
        Fault const group_fault(inject_setpgid, 12345);
        go();
    });
    EXPECT_TRUE(contains(seen.errors, "\". Reason: Unknown error 12345\n"));
    EXPECT_TRUE(contains(seen.errors, ": " + unclassified(12345)));
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

struct ScheduleRow {
    char const* name;
    int policy;   // Of the attributes, with the priority 4 and the nice value 6.
    int priority; // By setPriority, before it.
    int current;
    char const* calls;

    friend void PrintTo(ScheduleRow const& row, std::ostream* out) { *out << row.name; }
};

class ProcessScheduleRows : public ProcessChildFailure, public testing::WithParamInterface<ScheduleRow> {
protected:
    static void set(ProcessTNG& process) {
        if (GetParam().priority != NOT_SET) {
            process.setPriority(false, GetParam().priority);
        }
        process.setSchedAttrs(makeAttributes(GetParam().policy, 4, 6));
        g_policy = GetParam().current;
        g_pretends_to_schedule = true;
    }
};

TEST_P(ProcessScheduleRows, makeTheseCalls) {
    std::string const calls = recordCalls(set);
    std::string const expected =
        std::string("getpid\nsigprocmask unblock all\n") + GetParam().calls + "execv ";
    EXPECT_EQ(expected, calls.substr(0, expected.size()));
}

TEST_P(ProcessScheduleRows, warnWhenTheLastCallFails) {
    std::string const calls = GetParam().calls;
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        set(process);
        Fault const policy(inject_sched_setscheduler, EPERM);
        Fault const nice(inject_setpriority, EACCES);
        go();
    });
    if (calls.empty() || calls == "getscheduler 0\n") {
        EXPECT_EQ("err\n", seen.errors);
    } else {
        EXPECT_TRUE(contains(
            seen.errors,
            ": startChild: warning: ProcessTNG::startChild (forked): Error applying scheduling "
            "policy/parameters: "));
        // For a nice value in the attributes, only its own call counts.
        bool const is_nice = GetParam().policy == vesk::sched::VESK_SCHED_POLICY_NORMAL ||
            calls.find("setscheduler") == std::string::npos;
        EXPECT_TRUE(contains(seen.errors, ": " + systemText(is_nice ? EACCES : EPERM) + "\nerr\n"));
    }
    EXPECT_EQ(0, seen.status);
}

ScheduleRow row(char const* name, int policy, int priority, int current, char const* calls) {
    return {name, policy, priority, current, calls};
}

using namespace vesk::sched;
constexpr int KEEP = VESK_SCHED_POLICY_KEEP;

INSTANTIATE_TEST_SUITE_P(
    All, ProcessScheduleRows,
    testing::Values(
        row("noop", VESK_SCHED_NOOP, NOT_SET, SCHED_FIFO, ""),
        row("noop and priority", VESK_SCHED_NOOP, 9, SCHED_FIFO, ""),
        row("keep FIFO", KEEP, NOT_SET, SCHED_FIFO, "getscheduler 0\nsetscheduler 0 1 4\n"),
        row("keep RR", KEEP, NOT_SET, SCHED_RR, "getscheduler 0\nsetscheduler 0 2 4\n"),
        row("keep OTHER", KEEP, NOT_SET, SCHED_OTHER, "getscheduler 0\nsetpriority 0 0 6\n"),
        row("keep BATCH", KEEP, NOT_SET, SCHED_BATCH, "getscheduler 0\nsetscheduler 0 3 4\n"),
        row("keep FIFO and priority", KEEP, 9, SCHED_FIFO, "getscheduler 0\nsetscheduler 0 1 9\n"),
        row("keep RR and priority", KEEP, 9, SCHED_RR, "getscheduler 0\nsetscheduler 0 2 9\n"),
        row("keep OTHER and priority", KEEP, 9, SCHED_OTHER,
            "getscheduler 0\nsetscheduler 0 0 0\nsetpriority 0 0 9\n"),
        row("keep BATCH and priority", KEEP, 9, SCHED_BATCH, "getscheduler 0\nsetscheduler 0 3 4\n"),
        row("RR", VESK_SCHED_POLICY_RR, 9, SCHED_OTHER, "setscheduler 0 2 4\n"),
        row("FIFO", VESK_SCHED_POLICY_FIFO, 9, SCHED_OTHER, "setscheduler 0 1 4\n"),
        row("NORMAL", VESK_SCHED_POLICY_NORMAL, 9, SCHED_FIFO, "setscheduler 0 0 0\nsetpriority 0 0 6\n"),
        row("idle class", VESK_SCHED_CLASS_IDLE, 9, SCHED_OTHER, ""),
        row("below-normal class", VESK_SCHED_CLASS_BELOW_NORMAL, 9, SCHED_OTHER, ""),
        row("normal class", VESK_SCHED_CLASS_NORMAL, 9, SCHED_OTHER, ""),
        row("above-normal class", VESK_SCHED_CLASS_ABOVE_NORMAL, 9, SCHED_OTHER, ""),
        row("high class", VESK_SCHED_CLASS_HIGH, 9, SCHED_OTHER, ""),
        row("real-time class", VESK_SCHED_CLASS_REALTIME, 9, SCHED_OTHER, ""),
        row("unknown policy", 11, 9, SCHED_OTHER, "")));

TEST_F(ProcessChildFailure, aPolicyThatCannotBeSetIsNoFailureOfTheNiceValue) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(0);
    Capture const seen = captureFault(inject_sched_setscheduler, EPERM, [](ProcessTNG& process) {
        process.setSchedAttrs(makeAttributes(VESK_SCHED_POLICY_NORMAL, 0, 0));
    });
    EXPECT_EQ("err\n", seen.errors);
}

TEST_F(ProcessChildFailure, aChildWarnsIfItsPriorityCannotBeSetAsNiceValue) {
    Capture const seen =
        captureFault(inject_setpriority, EACCES, [](ProcessTNG& process) { process.setPriority(false, 5); });
    EXPECT_TRUE(contains(seen.errors, ": " + systemText(EACCES) + "\nerr\n"));
}

TEST_F(ProcessChildFailure, aChildWarnsIfItsProcessorsCannotBeSetAndAcknowledgesTheReport) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        Handler::Hook const hook{
            [](Handler::Event const& event, void*) {
                dprintf(
                    STDERR_FILENO, "%s: %s\n", event.message,
                    std::ErrorStorage::isError(true) ? tarn_error.getReasonList().c_str() : "nothing");
                return true;
            },
            nullptr};
        Handler::Hook const* const before = Handler::setHook(&hook);
        process.setAffinity({true});
        // The warning about signals shows the state of the store before that about the processors.
        Fault const signals(inject_sigprocmask, EINVAL);
        Fault const fault(inject_sched_setaffinity, EPERM);
        go();
        Handler::setHook(before);
    });
    EXPECT_EQ(0U, seen.errors.find("after fork(): error unblocking signals: nothing\n")) << seen.errors;
    EXPECT_TRUE(contains(seen.errors, "\nafter fork(): Error setting affinity: framework/"));
    EXPECT_TRUE(contains(seen.errors, unclassified(EPERM) + "err\n"));
}

struct RedirectionRow {
    char const* name;
    void (*set)(ProcessTNG& process);
    char const* text;

    friend void PrintTo(RedirectionRow const& row, std::ostream* out) { *out << row.name; }
};

RedirectionRow row(char const* name, void (*set)(ProcessTNG& process), char const* text) {
    return {name, set, text};
}

class ProcessDupRows : public ProcessChildFailure, public testing::WithParamInterface<RedirectionRow> {};

TEST_P(ProcessDupRows, areReportedAndTheChildContinues) {
    std::string calls;
    Capture const seen = captureCalls(calls, GetParam().set, EMFILE);
    int const fd = findDuplicated(calls);
    EXPECT_EQ(seen.fill(GetParam().text, fd) + "! Reason: Too many open files\nerr\n", seen.errors);
    EXPECT_EQ("out\n", seen.output);
    // A descriptor that the child has opened stays open, a given one is closed.
    bool const opened = calls.find("open ") != std::string::npos;
    EXPECT_EQ(!opened, calls.find("close " + std::to_string(fd) + "\n") != std::string::npos) << calls;
}

int openGiven() {
    int const fd = getReal(inject_open, &open)("/dev/null", O_RDWR);
    EXPECT_EQ(60, getReal(inject_dup2, &dup2)(fd, 60));
    return 60;
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessDupRows,
    testing::Values(
        row(
            "stdout by name", [](ProcessTNG& p) { p.setStdoutFile("/dev/null", false); },
            "PROGRAM [PID]: Couldn't dup2 (FD to 1 ) new stdout (\"/dev/null\") "),
        row(
            "stderr by name", [](ProcessTNG& p) { p.setStderrFile("/dev/null", true); },
            "PROGRAM [PID]: Couldn't dup2 (FD to 2 ) new stderr (\"/dev/null\") "),
        row(
            "stdin by name", [](ProcessTNG& p) { p.setStdinFile("/dev/null"); },
            "stdin [PID]: Couldn't dup2 (FD to 0 ) new PROGRAM (\"/dev/null\") "),
        row(
            "stdout by descriptor", [](ProcessTNG& p) { p.setStdoutFd(openGiven()); },
            "stdout [PID]: Couldn't dup2 (60 to 1 ) new PROGRAM"),
        row(
            "stderr by descriptor", [](ProcessTNG& p) { p.setStderrFd(openGiven()); },
            "PROGRAM [PID]: Couldn't dup2 (60 to 2 ) new stderr"),
        row(
            "stdin by descriptor", [](ProcessTNG& p) { p.setStdinFd(openGiven()); },
            "PROGRAM [PID]: Couldn't dup2 (0 to 60 ) new stdin")));

class ProcessOpenRows : public ProcessChildFailure, public testing::WithParamInterface<RedirectionRow> {};

TEST_P(ProcessOpenRows, areReportedAndTheChildContinues) {
    Capture const seen = captureFault(inject_open, EINTR, GetParam().set); // Not even that is repeated.
    EXPECT_EQ(seen.fill(GetParam().text) + "\". Reason: Interrupted system call\nerr\n", seen.errors);
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(0, seen.status);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessOpenRows,
    testing::Values(
        row(
            "stdout", [](ProcessTNG& p) { p.setStdoutFile("/x", false); },
            "PROGRAM [PID]: Couldn't open new stdout \"/x"),
        row(
            "stdout null", [](ProcessTNG& p) { p.setStdoutNull(true); },
            "PROGRAM [PID]: Couldn't open new stdout \"/dev/null"),
        row(
            "stderr", [](ProcessTNG& p) { p.setStderrFile("/x", false); },
            "PROGRAM [PID]: Couldn't open new stderr \"/x"),
        row(
            "stderr null", [](ProcessTNG& p) { p.setStderrNull(true); },
            "PROGRAM [PID]: Couldn't open new stderr \"/dev/null"),
        row(
            "stdin", [](ProcessTNG& p) { p.setStdinFile("/x"); },
            "stdin [PID]: Couldn't open new PROGRAM \"/x")));

TEST_F(ProcessChildFailure, aChildReportsAFailedGroupAndContinues) {
    Capture const seen =
        captureFault(inject_setpgid, EPERM, [](ProcessTNG& process) { process.setNewGroup(true); });
    EXPECT_EQ(0U, seen.errors.find("Error setting new process group: framework/")) << seen.errors;
    EXPECT_TRUE(contains(seen.errors, ": " + unclassified(EPERM) + "err\n"));
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChildFailure, aFailedExecAbortsTheChild) {
    for (int const error : {EACCES, ENOMEM, E2BIG, ETXTBSY}) {
        Capture const seen = captureFault(inject_execv, error);
        EXPECT_TRUE(seen.killed);
        EXPECT_EQ(SIGABRT, seen.status);
        EXPECT_TRUE(contains(seen.errors, ": startChild: fatal: error calling exec() after fork()\n"));
    }
}

std::string const OUT_OF_MEMORY = ": out of memory: native arguments vector\n";

TEST_F(ProcessChildFailure, theAllocationOfTheArraysIsRepeated) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}});
        NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
        go();
    });
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(3U, count(seen.errors, OUT_OF_MEMORY)) << seen.errors;
    EXPECT_TRUE(contains(seen.errors, ": getArgs" + OUT_OF_MEMORY));
}

TEST_F(ProcessChildFailure, theAllocationOfTheEnvironmentIsRepeated) {
    TempDir const dir;
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        setProbe(process, {"tell", dir / "sight"});
        process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}});
        NewFault const array(New::NOTHROW_ARRAY, 2, 1);
        Fault const fault(inject_strdup, ENOMEM, 2, 2);
        go();
    });
    EXPECT_EQ(3U, count(seen.errors, ": getEnv" + OUT_OF_MEMORY)) << seen.errors;
    EXPECT_EQ(std::vector<std::string>({"ONE=1", "TWO=2"}), Sight(dir / "sight").getEnvironment());
}

TEST_F(ProcessChildFailure, theArraysHaveRoomForTheirContent) {
    ProcessPipe sizes(ProcessPipe::ChildGets::READ_END);
    static int s_sizes = -1;
    static NewFault const* s_fault = nullptr;
    Handler::Hook const hook{
        [](Handler::Event const&, void*) {
            for (size_t const size : s_fault->getSizes()) {
                dprintf(s_sizes, "%zu ", size / sizeof(char*));
            }
            return true;
        },
        nullptr};
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        process.setArguments({"1", "2"});
        process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}, {"THREE", "3"}, {"FOUR", "4"}});
        process.setExecutable("/no/such/program"); // The abort calls the hook.
        std::ErrorStorage::ack();
        NewFault const fault(New::NOTHROW_ARRAY, 1, 0);
        s_sizes = sizes.getWriteEnd();
        s_fault = &fault;
        Handler::Hook const* const before = Handler::setHook(&hook);
        go();
        Handler::setHook(before);
    });
    EXPECT_EQ(1, seen.status);
    EXPECT_EQ("4 5 ", sizes.readAll());
}

} // namespace
