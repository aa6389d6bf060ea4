#include "processes/ChildCapture.h"

#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/Privileges.h"

#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>

// What happens between fork and exec, call by call. The functions are replaced in the process; the fork takes their state,
// and the faults that are set, into the child.
namespace {

constexpr int NO_RECORD = -1;
// Where the child writes what it calls; it does so between fork and exec alone.
int g_record = NO_RECORD;
bool g_in_child = false;
// What the system says to be the policy, and whether setting one is left out.
int g_policy = -1;
bool g_pretends_to_schedule = false;
// Where the child waits for a byte before it goes on behind the fork.
int g_gate = -1;
// What fork gives, instead of making a child.
pid_t g_forked = -1;
// Whether the child ends at what it must not call, and whether this is the child.
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
    if (g_in_child && g_record != NO_RECORD) {
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
    g_in_child = g_record != NO_RECORD;
    char byte = 0;
    while (g_gate != -1 && read(g_gate, &byte, 1) < 0 && errno == EINTR) {}
    g_is_strict_child = g_is_strict;
    return 0;
}

// What takes a lock, uses the heap or depends on the locale. The sanitizers bring a heap of their own.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

void* malloc(size_t size) {
    forbid("malloc");
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    forbid("calloc");
    return __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
    forbid("realloc");
    return __libc_realloc(memory, size);
}
void free(void* memory) {
    forbid("free");
    __libc_free(memory);
}
}
#endif

support::Injected inject_pthread_mutex_lock("pthread_mutex_lock");
extern "C" VESK_UNWATCHED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    forbid("pthread_mutex_lock");
    return getReal(inject_pthread_mutex_lock, &pthread_mutex_lock)(mutex);
}

support::Injected inject_strerror("strerror");
extern "C" VESK_UNWATCHED char* strerror(int error) noexcept {
    forbid("strerror");
    return getReal(inject_strerror, &strerror)(error);
}

support::Injected inject_strerror_r("strerror_r");
extern "C" VESK_UNWATCHED char* strerror_r(int error, char* text, size_t size) noexcept {
    forbid("strerror_r");
    return getReal(inject_strerror_r, &strerror_r)(error, text, size);
}

support::Injected inject_vsnprintf("vsnprintf");
extern "C" VESK_UNWATCHED int vsnprintf(char* text, size_t size, char const* format, va_list args) noexcept {
    forbid("vsnprintf");
    return getReal(inject_vsnprintf, &vsnprintf)(text, size, format, args);
}

support::Injected inject_sigaction("sigaction");
extern "C" VESK_UNWATCHED int
sigaction(int signal, struct sigaction const* action, struct sigaction* old) noexcept {
    // Of those that a sanitizer's runtime does not handle for itself.
    if (action != nullptr && (signal == SIGUSR1 || signal == SIGUSR2 || signal == SIGRTMIN + 1)) {
        record("sigaction %d %s\n", signal, action->sa_handler == SIG_DFL ? "default" : "other");
    }
    return getReal(inject_sigaction, &sigaction)(signal, action, old);
}

support::Injected inject_getpid("getpid");
extern "C" VESK_UNWATCHED pid_t getpid() {
    record("getpid\n");
    return getReal(inject_getpid, &getpid)();
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
    record("sched_getscheduler %d\n", pid);
    return g_policy != -1 ? g_policy : getReal(inject_sched_getscheduler, &sched_getscheduler)(pid);
}

support::Injected inject_sched_setscheduler("sched_setscheduler");
extern "C" VESK_UNWATCHED int sched_setscheduler(pid_t pid, int policy, sched_param const* param) noexcept {
    record("sched_setscheduler %d %d %d\n", pid, policy, param->sched_priority);
    int error = 0;
    if (inject_sched_setscheduler.fails(error)) {
        errno = error;
        return -1;
    }
    return g_pretends_to_schedule
        ? 0
        : getReal(inject_sched_setscheduler, &sched_setscheduler)(pid, policy, param);
}

support::Injected inject_setpriority("setpriority");
extern "C" VESK_UNWATCHED int setpriority(__priority_which_t which, id_t who, int priority) noexcept {
    record("setpriority %d %d %d\n", static_cast<int>(which), static_cast<int>(who), priority);
    int error = 0;
    if (inject_setpriority.fails(error)) {
        errno = error;
        return -1;
    }
    return g_pretends_to_schedule ? 0 : getReal(inject_setpriority, &setpriority)(which, who, priority);
}

support::Injected inject_sched_setaffinity("sched_setaffinity");
extern "C" VESK_UNWATCHED int sched_setaffinity(pid_t pid, size_t size, cpu_set_t const* set) noexcept {
    record("sched_setaffinity %d %zu %d\n", pid, size, CPU_COUNT(set));
    int error = 0;
    if (inject_sched_setaffinity.fails(error)) {
        errno = error;
        return -1;
    }
    return getReal(inject_sched_setaffinity, &sched_setaffinity)(pid, size, set);
}

VESK_INJECT_OPEN(record("open %s %x %o\n", path, static_cast<unsigned int>(flags), mode))

support::Injected inject_dup2("dup2");
extern "C" VESK_UNWATCHED int dup2(int from, int to) noexcept {
    record("dup2 %d %d\n", from, to);
    int error = 0;
    if (inject_dup2.fails(error)) {
        errno = error;
        return -1;
    }
    return getReal(inject_dup2, &dup2)(from, to);
}

support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    record("close %d\n", fd);
    return getReal(inject_close, &close)(fd);
}

support::Injected inject_setpgid("setpgid");
extern "C" VESK_UNWATCHED int setpgid(pid_t pid, pid_t group) noexcept {
    record("setpgid %d %d\n", pid, group);
    int error = 0;
    if (inject_setpgid.fails(error)) {
        errno = error;
        return -1;
    }
    return getReal(inject_setpgid, &setpgid)(pid, group);
}

support::Injected inject_execv("execv");
extern "C" VESK_UNWATCHED int execv(char const* path, char* const* args) noexcept {
    record("execv %s %s\n", path, args[0]);
    int error = 0;
    if (inject_execv.fails(error)) {
        errno = error;
        return -1;
    }
    return getReal(inject_execv, &execv)(path, args);
}

support::Injected inject_execve("execve");
extern "C" VESK_UNWATCHED int execve(char const* path, char* const* args, char* const* env) noexcept {
    record("execve %s %s %s\n", path, args[0], env[0]);
    return getReal(inject_execve, &execve)(path, args, env);
}

VESK_INJECT_ERRNO(char*, nullptr, strdup, (char const* text), (text))

namespace {

using support::Capture;
using support::capture;
using support::chainIs;
using support::ExpectedReport;
using support::Fault;
using support::Go;
using support::New;
using support::NewFault;
using support::ProcessPipe;
using support::rowText;
using support::setProbe;
using support::systemText;
using support::TempDir;
using vesk::ProcessTNG;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::sched::Attr;
using vesk::sched::Policy;
using Handler = std::GlobalErrorHandler;

class ProcessChildFailure : public support::ProcessTest {
protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        reset();
        ProcessTest::TearDown();
    }

private:
    static void reset() {
        g_record = NO_RECORD;
        g_in_child = false;
        g_policy = -1;
        g_pretends_to_schedule = false;
        g_gate = -1;
        g_forked = -1;
        g_is_strict = false;
    }
};

/// What the child calls between fork and exec.
std::string recordCalls(std::function<void(ProcessTNG&)> const& body) {
    ProcessPipe calls(ProcessPipe::ChildGets::READ_END);
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        body(process);
        g_record = calls.getWriteEnd();
        go();
    });
    EXPECT_EQ(0, seen.status);
    return calls.readAll();
}

// ---- fork ----

struct ForkRow {
    int error;
    std::vector<ExpectedReport> chain;
};

void PrintTo(ForkRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ProcessForkRows : public ProcessChildFailure, public testing::WithParamInterface<ForkRow> {};

TEST_P(ProcessForkRows, failTheStartAndLeaveTheObjectIdle) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    {
        Fault const fault(inject_fork, GetParam().error);
        EXPECT_EQ(-1, process.start());
    }
    EXPECT_TRUE(chainIs(GetParam().chain));
    EXPECT_EQ(-1, process.getPid());
    ProcessTNG::ExitState state;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    // All locks are free again.
    EXPECT_TRUE(support::hasExitedWith(support::run(process), 0));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessForkRows,
    testing::Values(
        ForkRow{
            EAGAIN,
            {{SysError, SysErrorId::RESOURCES_EXHAUSTED,
              rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EAGAIN))}}},
        ForkRow{
            ENOMEM,
            {{SysError, SysErrorId::OUT_OF_MEMORY, rowText(SysErrorId::OUT_OF_MEMORY, systemText(ENOMEM))}}},
        ForkRow{
            ENOSYS,
            {{ProcessTNG::Error, ProcessTNG::ErrorId::START_FAILED,
              "Failed to start child process: " + systemText(ENOSYS)}}}));

TEST_F(ProcessChildFailure, aStartThatFailsHasForgottenTheLastEnd) {
    ProcessTNG process;
    support::RecordingListener listener;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "0"});
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    {
        Fault const fault(inject_fork, EAGAIN);
        EXPECT_EQ(-1, process.start());
    }
    ProcessTNG::ExitState state;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
}

// ---- the order of the calls ----

TEST_F(ProcessChildFailure, aPlainChildCallsNothingButWhatItNeeds) {
    std::string const program = support::getProbePath();
    EXPECT_EQ(
        "getpid\n"
        "sigprocmask unblock all\n"
        "execv " +
            program + " " + program + "\n",
        recordCalls([](ProcessTNG&) {}));
}

TEST_F(ProcessChildFailure, processorsThatTheMachineDoesNotHaveStayOutOfTheMask) {
    std::string const calls =
        recordCalls([](ProcessTNG& process) { process.setAffinity(std::vector<bool>(5000, true)); });
    std::string const count = std::to_string(vesk::Vesk::s_sys_info.processor_count);
    EXPECT_NE(std::string::npos, calls.find("\nsched_setaffinity 0 128 " + count + "\n")) << calls;
}

TEST_F(ProcessChildFailure, aChildWithEverythingCallsInThisOrder) {
    TempDir const dir;
    std::string const program = support::getProbePath();
    std::string const calls = recordCalls([&](ProcessTNG& process) {
        Attr attributes;
        attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
        attributes.param.nice = 3;
        process.setSchedAttrs(attributes);
        process.setAffinity({true});
        process.setStdoutFile(dir / "out", false);
        process.setStderrFile(dir / "err", true);
        process.setStdinFile("/dev/null");
        process.setNewGroup(true);
        process.setEnvironment({{"NAME", "value"}});
    });
    // Which descriptors are free is the test's business.
    std::string expected = "getpid\n"
                           "sigprocmask unblock all\n"
                           "sched_setscheduler 0 0 0\n"
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
        "execve " +
        program + " " + program + " NAME=value\n";
    int fd = -1;
    size_t const at = calls.find("dup2 ");
    ASSERT_NE(std::string::npos, at) << calls;
    ASSERT_EQ(1, sscanf(calls.c_str() + at, "dup2 %d", &fd));
    for (size_t i = expected.find("FD"); i != std::string::npos; i = expected.find("FD")) {
        expected.replace(i, 2, std::to_string(fd));
    }
    EXPECT_EQ(expected, calls);
}

TEST_F(ProcessChildFailure, aChildWithDescriptorsCallsInThisOrder) {
    std::string const calls = recordCalls([&](ProcessTNG& process) {
        int const out = getReal(inject_open, &open)("/dev/null", O_WRONLY);
        EXPECT_EQ(60, dup2(out, 60));
        EXPECT_EQ(61, dup2(out, 61));
        process.setStdoutFd(60);
        process.setStderrFd(61);
        process.setStdinFd(62);
    });
    EXPECT_NE(
        std::string::npos,
        calls.find("sigprocmask unblock all\n"
                   "dup2 60 1\n"
                   "close 60\n"
                   "dup2 61 2\n"
                   "close 61\n"
                   "dup2 0 62\n"
                   "close 0\n"
                   "execv "))
        << calls;
}

TEST_F(ProcessChildFailure, theNullDeviceIsOpenedLikeAFile) {
    std::string const calls = recordCalls([&](ProcessTNG& process) {
        process.setStdoutNull(true);
        process.setStderrFile("ignored", true);
        process.setStderrNull(true);
    });
    EXPECT_NE(std::string::npos, calls.find("open /dev/null 241 600\n")) << calls;
    EXPECT_NE(std::string::npos, calls.find("open /dev/null 441 600\n")) << calls;
}

// ---- signals ----

TEST_F(ProcessChildFailure, signalsThatCannotBeUnblockedAreAWarning) {
    Capture const seen = capture([](ProcessTNG&, Go const& go) {
        Fault const fault(inject_sigprocmask, EINVAL);
        go();
    });
    EXPECT_NE(
        std::string::npos,
        seen.errors.find(": startChild: warning: after fork(): error unblocking signals\nerr\n"))
        << seen.errors;
    EXPECT_EQ(0, seen.status);
}

TEST_F(ProcessChildFailure, handlersOfTheProcessAreGoneBeforeSignalsAreUnblocked) {
    std::string const calls = recordCalls([](ProcessTNG&) {
        signal(SIGUSR1, [](int) {});
        signal(SIGUSR2, SIG_IGN);
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t*, void*) {};
        EXPECT_EQ(0, sigaction(SIGRTMIN + 1, &action, nullptr));
    });
    EXPECT_NE(
        std::string::npos,
        calls.find(
            "getpid\nsigaction " + std::to_string(SIGUSR1) + " default\nsigaction " +
            std::to_string(SIGRTMIN + 1) + " default\nsigprocmask unblock all\nexecv "))
        << calls;
}

struct KillCase {
    char const* name;
    bool group;
    bool graceful;
};

void PrintTo(KillCase const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessEarlyKillRows : public ProcessChildFailure, public testing::WithParamInterface<KillCase> {};

TEST_P(ProcessEarlyKillRows, reachTheChildThatHasBarelyBegun) {
    ProcessPipe gate(ProcessPipe::ChildGets::READ_END);
    ProcessPipe handled(ProcessPipe::ChildGets::WRITE_END);
    static int s_handled = -1;
    s_handled = handled.getWriteEnd();
    fcntl(handled.getWriteEnd(), F_SETFD, FD_CLOEXEC);
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { (void)!write(s_handled, "handled", 7); };
    ASSERT_EQ(0, sigaction(SIGTERM, &action, &before));
    {
        support::HeldProbe held;
        ProcessTNG process;
        held.set(process);
        process.setNewGroup(GetParam().group);
        g_gate = gate.getReadEnd();
        EXPECT_GT(process.start(), 0);
        EXPECT_FALSE(process.kill(GetParam().graceful));
        EXPECT_EQ(1, write(gate.getWriteEnd(), "x", 1));
        ProcessTNG::ExitState state;
        EXPECT_FALSE(process.wait(state, true, 30'000));
        EXPECT_TRUE(support::wasKilledBy(state, GetParam().graceful ? SIGTERM : SIGKILL));
        held.release();
    }
    sigaction(SIGTERM, &before, nullptr);
    EXPECT_EQ("", handled.readAll());
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessEarlyKillRows,
    testing::Values(
        KillCase{"terminate", false, true}, KillCase{"kill", false, false},
        KillCase{"terminate its group", true, true}, KillCase{"kill its group", true, false}));

TEST_F(ProcessChildFailure, theMaskOfTheCallingThreadIsWhatItWas) {
    sigset_t set;
    sigset_t before;
    sigset_t after;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, &before));
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    EXPECT_TRUE(support::hasExitedWith(support::run(process), 0));
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

// ---- what must not be called ----

/// Every failure that a child can have before it executes.
void setToFail(ProcessTNG& process) {
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_FIFO;
    attributes.param.priority = 100000;
    process.setSchedAttrs(attributes);
    process.setAffinity({false});
    process.setEnvironment({{"ONE", "1"}});
    process.setStdoutFile("/no/such/directory/file", false);
    process.setStderrFile("/no/such/directory/file", false);
    process.setStdinFd(0x7fffffff);
    process.setNewGroup(true);
}

TEST_F(ProcessChildFailure, noChildTakesALockOrUsesTheHeapWhateverFails) {
    for (bool const executes : {true, false}) {
        Capture const seen = capture([executes](ProcessTNG& process, Go const& go) {
            setToFail(process);
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
            EXPECT_NE(std::string::npos, seen.errors.find(text)) << text << " in " << seen.errors;
        }
    }
}

TEST_F(ProcessChildFailure, aLineLongerThanAPipeTakesAtOnceIsToldWhole) {
    std::string const path = "/" + std::string(10000, 'x');
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        process.setStdinFile(path);
        go();
    });
    EXPECT_EQ(
        "stdin [" + std::to_string(seen.pid) + "]: Couldn't open new " + seen.program + " \"" + path +
            "\". Reason: File name too long\nerr\n",
        seen.errors);
}

TEST_F(ProcessChildFailure, anUnknownErrorNumberIsToldAsTheSystemTellsIt) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setStdinFile("/x");
        process.setNewGroup(true);
        Fault const open_fault(inject_open, 12345);
        Fault const group_fault(inject_setpgid, 12345);
        go();
    });
    EXPECT_NE(std::string::npos, seen.errors.find("\". Reason: Unknown error 12345\n")) << seen.errors;
    EXPECT_NE(
        std::string::npos,
        seen.errors.find(": " + rowText(SysErrorId::UNCLASSIFIED, systemText(12345)) + "\n"))
        << seen.errors;
}

// ---- an id that is given out twice ----

TEST_F(ProcessChildFailure, anIdThatIsStillEnteredIsAnAssertionAndGoesToTheNewChild) {
    support::ChildEnd const end = support::runInChild([] {
        support::HeldProbe held;
        ProcessTNG first;
        held.set(first);
        g_forked = -1;
        int const pid = first.start();
        held.waitUntilBegun();
        support::EventRecorder recorder;
        ProcessTNG second;
        setProbe(second, {"exit", "0"});
        g_forked = pid;
        EXPECT_EQ(pid, second.start());
        EXPECT_EQ("ASSERT framework/src/vesk/posix/ProcessTNG start: entered.inserted", recorder.getText());
        held.release();
        EXPECT_TRUE(support::hasExitedWith(support::waitFor(second), 0));
        EXPECT_EQ(pid, first.getPid());
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0); // The first object would wait for ever.
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- scheduling ----

constexpr int NOT_SET = -12345;

struct ScheduleRow {
    char const* name;
    int policy;   // Of the attributes, whose priority is 4 and nice value 6.
    int priority; // By setPriority, before it.
    int current;
    char const* calls;
};

void PrintTo(ScheduleRow const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessScheduleRows : public ProcessChildFailure, public testing::WithParamInterface<ScheduleRow> {
protected:
    static void set(ProcessTNG& process) {
        Attr attributes;
        attributes.policy = static_cast<vesk::sched::Policy_E>(GetParam().policy);
        attributes.param.priority = 4;
        attributes.param.nice = 6;
        if (GetParam().priority != NOT_SET) {
            process.setPriority(false, GetParam().priority);
        }
        process.setSchedAttrs(attributes);
        g_policy = GetParam().current;
        g_pretends_to_schedule = true;
    }
};

TEST_P(ProcessScheduleRows, makeTheseCalls) {
    std::string calls = recordCalls([](ProcessTNG& process) { set(process); });
    std::string const begin = "getpid\nsigprocmask unblock all\n";
    ASSERT_EQ(0U, calls.find(begin)) << calls;
    calls.erase(0, begin.size());
    ASSERT_NE(std::string::npos, calls.find("execv ")) << calls;
    EXPECT_EQ(GetParam().calls, calls.substr(0, calls.find("execv ")));
}

TEST_P(ProcessScheduleRows, warnWhenTheLastCallFails) {
    std::string const calls = GetParam().calls;
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        set(process);
        Fault const policy(inject_sched_setscheduler, EPERM);
        Fault const nice(inject_setpriority, EACCES);
        go();
    });
    size_t const begin =
        seen.errors.find(": startChild: warning: ProcessTNG::startChild (forked): Error applying "
                         "scheduling policy/parameters: ");
    if (calls.empty() || calls == "sched_getscheduler 0\n") {
        EXPECT_EQ("err\n", seen.errors);
    } else {
        EXPECT_NE(std::string::npos, begin) << seen.errors;
        // Under time sharing the nice value alone counts where it is an attribute.
        int const error = GetParam().policy == vesk::sched::VESK_SCHED_POLICY_NORMAL ||
                calls.find("sched_setscheduler") == std::string::npos
            ? EACCES
            : EPERM;
        EXPECT_NE(std::string::npos, seen.errors.find(": " + systemText(error) + "\nerr\n")) << seen.errors;
    }
    EXPECT_EQ(0, seen.status);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessScheduleRows,
    testing::Values(
        ScheduleRow{"noop", vesk::sched::VESK_SCHED_NOOP, NOT_SET, SCHED_FIFO, ""},
        ScheduleRow{"noop with a priority", vesk::sched::VESK_SCHED_NOOP, 9, SCHED_FIFO, ""},
        ScheduleRow{
            "keep FIFO", vesk::sched::VESK_SCHED_POLICY_KEEP, NOT_SET, SCHED_FIFO,
            "sched_getscheduler 0\nsched_setscheduler 0 1 4\n"},
        ScheduleRow{
            "keep RR", vesk::sched::VESK_SCHED_POLICY_KEEP, NOT_SET, SCHED_RR,
            "sched_getscheduler 0\nsched_setscheduler 0 2 4\n"},
        ScheduleRow{
            "keep OTHER", vesk::sched::VESK_SCHED_POLICY_KEEP, NOT_SET, SCHED_OTHER,
            "sched_getscheduler 0\nsetpriority 0 0 6\n"},
        ScheduleRow{
            "keep BATCH", vesk::sched::VESK_SCHED_POLICY_KEEP, NOT_SET, SCHED_BATCH,
            "sched_getscheduler 0\nsched_setscheduler 0 3 4\n"},
        ScheduleRow{
            "keep FIFO with a priority", vesk::sched::VESK_SCHED_POLICY_KEEP, 9, SCHED_FIFO,
            "sched_getscheduler 0\nsched_setscheduler 0 1 9\n"},
        ScheduleRow{
            "keep RR with a priority", vesk::sched::VESK_SCHED_POLICY_KEEP, 9, SCHED_RR,
            "sched_getscheduler 0\nsched_setscheduler 0 2 9\n"},
        ScheduleRow{
            "keep OTHER with a priority", vesk::sched::VESK_SCHED_POLICY_KEEP, 9, SCHED_OTHER,
            "sched_getscheduler 0\nsched_setscheduler 0 0 0\nsetpriority 0 0 9\n"},
        ScheduleRow{
            "keep BATCH with a priority", vesk::sched::VESK_SCHED_POLICY_KEEP, 9, SCHED_BATCH,
            "sched_getscheduler 0\nsched_setscheduler 0 3 4\n"},
        ScheduleRow{"RR", vesk::sched::VESK_SCHED_POLICY_RR, 9, SCHED_OTHER, "sched_setscheduler 0 2 4\n"},
        ScheduleRow{
            "FIFO", vesk::sched::VESK_SCHED_POLICY_FIFO, 9, SCHED_OTHER, "sched_setscheduler 0 1 4\n"},
        ScheduleRow{
            "NORMAL", vesk::sched::VESK_SCHED_POLICY_NORMAL, 9, SCHED_FIFO,
            "sched_setscheduler 0 0 0\nsetpriority 0 0 6\n"},
        ScheduleRow{"idle class", vesk::sched::VESK_SCHED_CLASS_IDLE, 9, SCHED_OTHER, ""},
        ScheduleRow{"below-normal class", vesk::sched::VESK_SCHED_CLASS_BELOW_NORMAL, 9, SCHED_OTHER, ""},
        ScheduleRow{"normal class", vesk::sched::VESK_SCHED_CLASS_NORMAL, 9, SCHED_OTHER, ""},
        ScheduleRow{"above-normal class", vesk::sched::VESK_SCHED_CLASS_ABOVE_NORMAL, 9, SCHED_OTHER, ""},
        ScheduleRow{"high class", vesk::sched::VESK_SCHED_CLASS_HIGH, 9, SCHED_OTHER, ""},
        ScheduleRow{"real-time class", vesk::sched::VESK_SCHED_CLASS_REALTIME, 9, SCHED_OTHER, ""},
        ScheduleRow{"unknown policy", 11, 9, SCHED_OTHER, ""}));

TEST_F(ProcessChildFailure, aPolicyThatCannotBeSetIsNoFailureOfTheNiceValue) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(0);
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        Attr attributes;
        attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
        process.setSchedAttrs(attributes);
        Fault const fault(inject_sched_setscheduler, EPERM);
        go();
    });
    EXPECT_EQ("err\n", seen.errors);
}

TEST_F(ProcessChildFailure, aNiceValueThatCannotBeSetAsPriorityIsAWarning) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setPriority(false, 5);
        Fault const fault(inject_setpriority, EACCES);
        go();
    });
    EXPECT_NE(std::string::npos, seen.errors.find(": " + systemText(EACCES) + "\nerr\n")) << seen.errors;
}

// ---- processors ----

TEST_F(ProcessChildFailure, processorsThatCannotBeSetAreAWarningAndAReportThatIsAcknowledged) {
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
        // The fault of the policy shows the state of the store after that of the processors; signals come before.
        Fault const signals(inject_sigprocmask, EINVAL);
        Fault const fault(inject_sched_setaffinity, EPERM);
        go();
        Handler::setHook(before);
    });
    EXPECT_EQ(0U, seen.errors.find("after fork(): error unblocking signals: nothing\n")) << seen.errors;
    EXPECT_NE(std::string::npos, seen.errors.find("\nafter fork(): Error setting affinity: framework/"))
        << seen.errors;
    EXPECT_NE(
        std::string::npos, seen.errors.find(rowText(SysErrorId::UNCLASSIFIED, systemText(EPERM)) + "\nerr\n"))
        << seen.errors;
}

// ---- redirection ----

struct DupRow {
    char const* name;
    void (*set)(ProcessTNG& process, TempDir const& dir);
    char const* text; // Of "PROGRAM", "PID", "FD" and "DIR".
};

void PrintTo(DupRow const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessDupRows : public ProcessChildFailure, public testing::WithParamInterface<DupRow> {};

std::string replaceAll(std::string text, std::string const& what, std::string const& by) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

TEST_P(ProcessDupRows, areToldAndTheChildGoesOn) {
    TempDir const dir;
    ProcessPipe calls(ProcessPipe::ChildGets::READ_END);
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        GetParam().set(process, dir);
        g_record = calls.getWriteEnd();
        Fault const fault(inject_dup2, EMFILE);
        go();
    });
    std::string const made = calls.readAll();
    int fd = -1;
    size_t const at = made.find("dup2 ");
    ASSERT_NE(std::string::npos, at) << made;
    ASSERT_EQ(1, sscanf(made.c_str() + at, "dup2 %d", &fd));
    std::string text = replaceAll(GetParam().text, "PROGRAM", seen.program);
    text = replaceAll(text, "PID", std::to_string(seen.pid));
    text = replaceAll(text, "FD", std::to_string(fd));
    text = replaceAll(text, "DIR", dir / "");
    EXPECT_EQ(text + "Too many open files\nerr\n", seen.errors);
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(0, seen.status);
    // One that was opened stays open, one that was given goes.
    bool const opened = made.find("open ") != std::string::npos;
    EXPECT_EQ(!opened, made.find("close " + std::to_string(fd) + "\n") != std::string::npos) << made;
}

constexpr int GIVEN = 60;

void openGiven() {
    int const fd = getReal(inject_open, &open)("/dev/null", O_RDWR);
    EXPECT_EQ(GIVEN, getReal(inject_dup2, &dup2)(fd, GIVEN));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessDupRows,
    testing::Values(
        DupRow{
            "stdout by name", [](ProcessTNG& p, TempDir const& dir) { p.setStdoutFile(dir / "f", false); },
            "PROGRAM [PID]: Couldn't dup2 (FD to 1 ) new stdout (\"DIRf\") ! Reason: "},
        DupRow{
            "stderr by name", [](ProcessTNG& p, TempDir const& dir) { p.setStderrFile(dir / "f", true); },
            "PROGRAM [PID]: Couldn't dup2 (FD to 2 ) new stderr (\"DIRf\") ! Reason: "},
        DupRow{
            "stdin by name", [](ProcessTNG& p, TempDir const&) { p.setStdinFile("/dev/null"); },
            "stdin [PID]: Couldn't dup2 (FD to 0 ) new PROGRAM (\"/dev/null\") ! Reason: "},
        DupRow{
            "stdout by descriptor",
            [](ProcessTNG& p, TempDir const&) {
                openGiven();
                p.setStdoutFd(GIVEN);
            },
            "stdout [PID]: Couldn't dup2 (60 to 1 ) new PROGRAM! Reason: "},
        DupRow{
            "stderr by descriptor",
            [](ProcessTNG& p, TempDir const&) {
                openGiven();
                p.setStderrFd(GIVEN);
            },
            "PROGRAM [PID]: Couldn't dup2 (60 to 2 ) new stderr! Reason: "},
        DupRow{
            "stdin by descriptor",
            [](ProcessTNG& p, TempDir const&) {
                openGiven();
                p.setStdinFd(GIVEN);
            },
            "PROGRAM [PID]: Couldn't dup2 (0 to 60 ) new stdin! Reason: "}));

struct OpenRow {
    char const* name;
    void (*set)(ProcessTNG& process);
    char const* text;
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessOpenRows : public ProcessChildFailure, public testing::WithParamInterface<OpenRow> {};

TEST_P(ProcessOpenRows, areToldAndTheChildGoesOn) {
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        GetParam().set(process);
        Fault const fault(inject_open, EINTR); // Not even that is tried again.
        go();
    });
    std::string text = replaceAll(GetParam().text, "PROGRAM", seen.program);
    text = replaceAll(text, "PID", std::to_string(seen.pid));
    EXPECT_EQ(text + "Interrupted system call\nerr\n", seen.errors);
    EXPECT_EQ("out\n", seen.output);
    EXPECT_EQ(0, seen.status);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessOpenRows,
    testing::Values(
        OpenRow{
            "stdout", [](ProcessTNG& p) { p.setStdoutFile("/x", false); },
            "PROGRAM [PID]: Couldn't open new stdout \"/x\". Reason: "},
        OpenRow{
            "stdout null", [](ProcessTNG& p) { p.setStdoutNull(true); },
            "PROGRAM [PID]: Couldn't open new stdout \"/dev/null\". Reason: "},
        OpenRow{
            "stderr", [](ProcessTNG& p) { p.setStderrFile("/x", false); },
            "PROGRAM [PID]: Couldn't open new stderr \"/x\". Reason: "},
        OpenRow{
            "stderr null", [](ProcessTNG& p) { p.setStderrNull(true); },
            "PROGRAM [PID]: Couldn't open new stderr \"/dev/null\". Reason: "},
        OpenRow{
            "stdin", [](ProcessTNG& p) { p.setStdinFile("/x"); },
            "stdin [PID]: Couldn't open new PROGRAM \"/x\". Reason: "}));

// ---- the group ----

TEST_F(ProcessChildFailure, aGroupThatCannotBeMadeIsToldAndTheChildGoesOn) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setNewGroup(true);
        Fault const fault(inject_setpgid, EPERM);
        go();
    });
    EXPECT_EQ(0U, seen.errors.find("Error setting new process group: framework/")) << seen.errors;
    EXPECT_NE(
        std::string::npos,
        seen.errors.find(": " + rowText(SysErrorId::UNCLASSIFIED, systemText(EPERM)) + "\nerr\n"))
        << seen.errors;
    EXPECT_EQ(0, seen.status);
}

// ---- exec ----

TEST_F(ProcessChildFailure, anExecThatFailsIsAnAbortOfTheChild) {
    for (int const error : {EACCES, ENOMEM, E2BIG, ETXTBSY}) {
        Capture const seen = capture([&](ProcessTNG&, Go const& go) {
            Fault const fault(inject_execv, error);
            go();
        });
        EXPECT_TRUE(seen.killed);
        EXPECT_EQ(SIGABRT, seen.status);
        EXPECT_NE(
            std::string::npos, seen.errors.find(": startChild: fatal: error calling exec() after fork()\n"))
            << seen.errors;
    }
}

// ---- memory ----

std::string const OUT_OF_MEMORY = ": out of memory: native arguments vector\n";

TEST_F(ProcessChildFailure, theArraysAreAllocatedUntilItWorks) {
    Capture const seen = capture([](ProcessTNG& process, Go const& go) {
        process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}});
        NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
        go();
    });
    EXPECT_EQ("out\n", seen.output);
    size_t count = 0;
    for (size_t at = 0; (at = seen.errors.find(OUT_OF_MEMORY, at)) != std::string::npos; ++at) {
        ++count;
    }
    EXPECT_EQ(3U, count) << seen.errors;
    EXPECT_NE(std::string::npos, seen.errors.find(": getArgs" + OUT_OF_MEMORY)) << seen.errors;
}

TEST_F(ProcessChildFailure, theRowsOfTheEnvironmentAreAllocatedUntilItWorks) {
    TempDir const dir;
    Capture const seen = capture([&](ProcessTNG& process, Go const& go) {
        support::setProbe(process, {"tell", dir / "sight"});
        process.setEnvironment({{"ONE", "1"}, {"TWO", "2"}});
        NewFault const array(New::NOTHROW_ARRAY, 2, 1);
        Fault const fault(inject_strdup, ENOMEM, 2, 2);
        go();
    });
    size_t count = 0;
    for (size_t at = 0; (at = seen.errors.find(": getEnv" + OUT_OF_MEMORY, at)) != std::string::npos; ++at) {
        ++count;
    }
    EXPECT_EQ(3U, count) << seen.errors;
    EXPECT_EQ(std::vector<std::string>({"ONE=1", "TWO=2"}), support::Sight(dir / "sight").getEnvironment());
}

TEST_F(ProcessChildFailure, theArraysHaveRoomForWhatIsInThem) {
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
        process.setExecutable("/no/such/program"); // The abort tells.
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
