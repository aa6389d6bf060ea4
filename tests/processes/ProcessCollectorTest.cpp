#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

// What the collector waits for.
namespace {

// Of any child; others tell of one.
std::atomic<int> g_waits{0};
std::atomic<bool> g_waits_are_odd{false};
// The child that the next wait is to tell of, and where a wait stays before it returns.
std::atomic<pid_t> g_told{0};
std::atomic<int> g_gate{-1};
std::atomic<bool> g_is_at_gate{false};

} // namespace

support::Injected inject_waitid("waitid");
extern "C" VESK_UNWATCHED int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
    bool const is_any = type == P_ALL;
    g_waits += is_any ? 1 : 0;
    if (is_any ? id != 0 || options != (WEXITED | WNOWAIT) : type != P_PID || (options & WNOHANG) == 0) {
        g_waits_are_odd = true;
    }
    int error = 0;
    if (is_any && inject_waitid.fails(error)) {
        errno = error;
        return -1;
    }
    if (pid_t const told = is_any ? g_told.exchange(0) : 0) {
        *info = {};
        info->si_pid = told;
        info->si_code = CLD_KILLED;
        info->si_status = SIGUSR1;
        return 0;
    }
    int const result = reinterpret_cast<int (*)(idtype_t, id_t, siginfo_t*, int)>(inject_waitid.getReal())(
        type, id, info, options);
    char byte = 0;
    if (is_any && g_gate != -1) {
        g_is_at_gate = true;
        (void)!read(g_gate, &byte, 1);
    }
    return result;
}

namespace {

using support::chainIs;
using support::countCollectors;
using support::Event;
using support::EventRecorder;
using support::eventually;
using support::Fault;
using support::findCollector;
using support::hasExitedWith;
using support::HeldProbe;
using support::RecordingListener;
using support::run;
using support::setProbe;
using support::waitFor;
using support::wasKilledBy;
using vesk::ProcessTNG;
using vesk::Vesk;
using ExitState = ProcessTNG::ExitState;

/// A child that this process makes by itself.
pid_t forkRaw(std::function<void()> const& body) {
    pid_t const pid = fork();
    if (pid == 0) {
        body();
        _exit(99);
    }
    return pid;
}

pid_t getTid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

class ProcessCollector : public support::ProcessTest {
protected:
    void SetUp() override {
        g_waits = 0;
        g_waits_are_odd = false;
        g_told = 0;
        g_gate = -1;
        g_is_at_gate = false;
    }

    static std::string warned(int pid, bool killed) {
        return "WARNING framework/src/vesk/posix/ProcessImpl waitChild: waitChild: : got notification about "
               "exit "
               "of an unknown child process exit. PID = \"" +
            std::to_string(pid) + "\", was_killed = " + (killed ? "1" : "0") +
            ". If you intentionally created a child process outside of VESK then this is expected. Otherwise "
            "a "
            "programming error might be involved.";
    }
};

// ---- when it is there ----

TEST(ProcessCollectorStart, aLazyStartUpStartsNoThreadBeforeTheFirstObject) {
    Vesk const vesk(true, false);
    int const threads = support::countThreads();
    EXPECT_EQ(0U, countCollectors());
    EXPECT_NE("", ProcessTNG::getOwnProcessName()); // Which needs none.
    EXPECT_EQ(0, ProcessTNG::existsProcess(getpid()));
    EXPECT_EQ(threads, support::countThreads());
    ProcessTNG const process;
    EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
    EXPECT_EQ(threads + 1, support::countThreads());
    ProcessTNG const other;
    EXPECT_EQ(threads + 1, support::countThreads());
}

TEST(ProcessCollectorStart, anEagerStartUpStartsTheThread) {
    int const threads = support::countThreads();
    Vesk const vesk(false, false);
    EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
    EXPECT_EQ(threads + 1, support::countThreads());
    Vesk::cleanupAll();
    EXPECT_TRUE(support::hasThreads(threads));
}

TEST(ProcessCollectorStart, anEagerStartUpOfUnusedChildrenEndsAtOnce) {
    Vesk const vesk(false, false);
    Vesk::cleanupAll(); // The thread may not even have begun.
    EXPECT_TRUE(support::haveCollectorsGone());
}

TEST(ProcessCollectorStart, aLazyStartUpWithoutUseNeedsNothingToEnd) {
    Vesk const vesk(true, false);
    Vesk::cleanupAll();
    Vesk::cleanupAll();
    EXPECT_TRUE(support::haveCollectorsGone());
}

TEST(ProcessCollectorStart, manyFirstObjectsAtOnceMakeOneCollector) {
    Vesk const vesk(true, false);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < 8) {
                sched_yield();
            }
            ProcessTNG process;
            EXPECT_TRUE(process.isValid());
            setProbe(process, {"exit", "0"});
            EXPECT_TRUE(hasExitedWith(run(process), 0));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1U, countCollectors());
}

// ---- without it ----

TEST(ProcessCollectorGone, anObjectFromBeforeTheStartUpIsInvalidAndItsStartFailsBehindTheAssertion) {
    EventRecorder recorder;
    ProcessTNG process;
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(chainIs(
        {{Vesk::ErrorId::INIT_FAILED,
          "Unable to initialize VESK: \"process impl. object is invalid\" failed"}}));
    EXPECT_EQ(0U, recorder.getCount());
    process.setExecutable(support::getProbePath());
    EXPECT_EQ(-1, process.start());
    EXPECT_EQ("ASSERT framework/src/vesk/posix/ProcessTNG start: g_process_impl", recorder.getText());
    EXPECT_TRUE(chainIs(
        {{Vesk::ErrorId::INIT_FAILED,
          "Unable to initialize VESK: \"process impl. object is invalid\" failed"},
         {ProcessTNG::Error, ProcessTNG::ErrorId::START_FAILED,
          "Failed to start child process: locking operation failed"}}));
    // Nothing stays locked.
    ExitState state;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_FALSE(process.kill(true));
}

TEST(ProcessCollectorGone, anObjectFromAfterTheEndIsInvalidAndItsStartFailsBehindTheAssertion) {
    Vesk const vesk(false, false);
    ProcessTNG old;
    ProcessTNG::exit();
    EventRecorder recorder;
    ProcessTNG process;
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED}}));
    EXPECT_EQ(-1, process.start());
    EXPECT_TRUE(
        chainIs({{Vesk::ErrorId::INIT_FAILED}, {ProcessTNG::Error, ProcessTNG::ErrorId::START_FAILED}}));
    // One that was made before is no better off.
    EXPECT_TRUE(old.isValid());
    EXPECT_EQ(-1, old.start());
    EXPECT_TRUE(
        chainIs({{Vesk::ErrorId::INIT_FAILED}, {ProcessTNG::Error, ProcessTNG::ErrorId::START_FAILED}}));
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/ProcessTNG start: g_process_impl\n"
        "ASSERT framework/src/vesk/posix/ProcessTNG start: g_process_impl",
        recorder.getText());
}

TEST(ProcessCollectorGone, theOwnNameIsEmptyBeforeTheStartUpAndAfterTheEnd) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ("", ProcessTNG::getOwnProcessName());
        EXPECT_TRUE(chainIs(
            {{Vesk::ErrorId::INIT_FAILED,
              "Unable to initialize VESK: \"process static impl. object is invalid\" failed"}}));
        if (i == 0) {
            Vesk const vesk(false, false);
            EXPECT_NE("", ProcessTNG::getOwnProcessName());
            ProcessTNG::exit();
        }
    }
}

TEST(ProcessCollectorGone, aNewStartUpBringsEverythingBack) {
    Vesk const first(false, false);
    ProcessTNG old;
    setProbe(old, {"exit", "1"});
    EXPECT_TRUE(hasExitedWith(run(old), 1));
    Vesk::cleanupAll();
    EXPECT_TRUE(support::haveCollectorsGone());
    EventRecorder recorder;
    Vesk const second(true, false);
    EXPECT_EQ(
        "ASSERT framework/src/vesk/common/vesk Vesk: !s_init_count.getCurrentCount()", recorder.getText());
    ProcessTNG process;
    setProbe(process, {"exit", "2"});
    EXPECT_TRUE(hasExitedWith(run(process), 2));
    EXPECT_TRUE(hasExitedWith(run(old), 1));
    EXPECT_EQ(1U, countCollectors());
    EXPECT_NE("", ProcessTNG::getOwnProcessName());
}

// What was there before is lost then, so these are the last thing that a process does.

TEST(ProcessCollectorGone, preparingTwiceIsAnAssertion) {
    support::ChildEnd const end = support::runInChild([] {
        Vesk const vesk(true, false);
        EventRecorder recorder;
        EXPECT_FALSE(ProcessTNG::init(true));
        EXPECT_EQ(
            "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_init\n"
            "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_static_init",
            recorder.getText());
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(ProcessCollectorGone, settingUpTwiceIsAnAssertion) {
    support::ChildEnd const end = support::runInChild([] {
        Vesk const vesk(false, false);
        ProcessTNG process;
        setProbe(process, {"exit", "0"});
        run(process); // The first collector has begun by now, and looks at nothing that the second one changes.
        EventRecorder recorder;
        EXPECT_FALSE(ProcessTNG::init(false));
        EXPECT_EQ(
            "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_init\n"
            "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_static_init\n"
            "ASSERT framework/src/vesk/posix/ProcessImpl doInit: ! g_process_impl\n"
            "ASSERT framework/src/vesk/posix/ProcessImpl doInit: ! g_process_static_impl",
            recorder.getText());
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

// ---- its end ----

TEST_F(ProcessCollector, theEndOfTheLibraryBlocksUntilTheChildHasEnded) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    held.waitUntilBegun();
    Event ended;
    std::atomic<pid_t> ender{0};
    std::thread thread([&] {
        ender = getTid();
        Vesk::cleanupAll();
        ended.set();
    });
    EXPECT_TRUE(eventually([&] { return ender != 0; }));
    support::waitUntilAsleep(getpid(), ender);
    EXPECT_FALSE(ended.isSet());
    EXPECT_EQ(0, ProcessTNG::existsProcess(process.getPid())); // It does not kill.
    held.release();
    EXPECT_TRUE(ended.wait());
    thread.join();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessCollector, theEndRightAfterAStartBlocksUntilTheChildHasEnded) {
    // The collector may get to know of the child and of its own end at the same moment.
    for (int i = 0; i < 100 / (support::SLOWDOWN > 10 ? 10 : 1); ++i) {
        EventRecorder recorder;
        RecordingListener listener;
        {
            ProcessTNG process;
            process.setExitListener(&listener);
            setProbe(process, {"exit", "5"});
            EXPECT_GT(process.start(), 0);
            ProcessTNG::exit();
            EXPECT_EQ(1, listener.calls);
            EXPECT_TRUE(hasExitedWith(waitFor(process), 5));
        }
        EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
        EXPECT_FALSE(ProcessTNG::init(true));
    }
}

TEST_F(ProcessCollector, theEndBlocksForAllChildren) {
    HeldProbe held[3];
    ProcessTNG processes[3];
    for (int i = 0; i < 3; ++i) {
        held[i].set(processes[i]);
        EXPECT_GT(processes[i].start(), 0);
        held[i].waitUntilBegun();
    }
    std::thread thread([] { ProcessTNG::exit(); });
    for (int i = 2; i >= 0; --i) {
        held[i].release();
        EXPECT_TRUE(hasExitedWith(waitFor(processes[i]), 0));
    }
    thread.join();
}

// ---- how it waits ----

TEST_F(ProcessCollector, waitsForAnyChild) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    run(process);
    EXPECT_EQ(1, g_waits);
    EXPECT_FALSE(g_waits_are_odd);
}

TEST_F(ProcessCollector, findsAChildThatEndsAtOnce) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    EventRecorder recorder;
    for (int i = 0; i < 200 / (support::SLOWDOWN > 10 ? 10 : 1); ++i) {
        EXPECT_TRUE(hasExitedWith(run(process), 0));
    }
    EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
}

TEST_F(ProcessCollector, warnsOfAChildThatTheProcessHasMadeItself) {
    for (bool const killed : {false, true}) {
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        EXPECT_GT(process.start(), 0);
        held.waitUntilBegun();
        EventRecorder recorder;
        pid_t const raw = forkRaw([killed] {
            if (killed) {
                raise(SIGKILL);
            }
            _exit(3);
        });
        EXPECT_TRUE(eventually([&] { return recorder.getCount() == 1; }));
        EXPECT_EQ(warned(raw, killed), recorder.getText());
        // It is gone for its maker.
        EXPECT_EQ(-1, waitpid(raw, nullptr, WNOHANG));
        EXPECT_EQ(ECHILD, errno);
        held.release();
        EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
        EXPECT_EQ(1U, recorder.getCount());
    }
}

TEST_F(ProcessCollector, leavesOtherChildrenAloneWhileNoneOfItsOwnRuns) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    run(process);
    EXPECT_EQ(1, g_waits);
    pid_t const collector = findCollector();
    ASSERT_NE(0, collector);
    support::waitUntilAsleep(getpid(), collector);
    EventRecorder recorder;
    pid_t const raw = forkRaw([] { _exit(3); });
    siginfo_t info{};
    // Ended, but not fetched yet.
    EXPECT_EQ(0, syscall(SYS_waitid, P_PID, raw, &info, WEXITED | WNOWAIT, nullptr));
    support::waitUntilAsleep(getpid(), collector);
    EXPECT_EQ(1, g_waits);
    int status = 0;
    EXPECT_EQ(raw, waitpid(raw, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    EXPECT_EQ(0U, recorder.getCount());
}

TEST_F(ProcessCollector, repeatsAWaitThatWasInterrupted) {
    EventRecorder recorder;
    Fault const fault(inject_waitid, EINTR, 1, 2, Fault::Threads::OTHERS);
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("", recorder.getText());
}

TEST_F(ProcessCollector, warnsOnceOfAWaitThatFailsAgainAndAgain) {
    ProcessTNG process;
    for (int round = 0; round < 2; ++round) {
        EventRecorder recorder;
        Fault const fault(inject_waitid, EINVAL, 1, 4, Fault::Threads::OTHERS);
        setProbe(process, {"exit", "3"});
        EXPECT_TRUE(hasExitedWith(run(process), 3));
        EXPECT_EQ(
            "WARNING framework/src/vesk/posix/ProcessImpl waitChild: error waiting for the end of "
            "children: " +
                support::systemText(EINVAL),
            recorder.getText());
    }
}

TEST_F(ProcessCollector, doesNotSpinWhileItsWaitFails) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EventRecorder recorder;
    {
        Fault const fault(inject_waitid, EINVAL, 1, Fault::FOREVER, Fault::Threads::OTHERS);
        EXPECT_GT(process.start(), 0);
        EXPECT_TRUE(eventually([] { return g_waits >= 5; }));
        EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
        support::waitUntilAsleep(getpid(), findCollector());
    }
    EXPECT_EQ(1U, recorder.getCount());
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

// ---- ignored ends ----

void ignoreBySignal() {
    signal(SIGCHLD, SIG_IGN);
}

void ignoreByFlag() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_NOCLDWAIT | SA_RESTART;
    EXPECT_EQ(0, sigaction(SIGCHLD, &action, nullptr));
}

struct IgnoreCase {
    char const* name;
    void (*ignore)();
    bool has_handler;
};

void PrintTo(IgnoreCase const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessIgnoredEnds : public testing::TestWithParam<IgnoreCase> {};

INSTANTIATE_TEST_SUITE_P(
    All, ProcessIgnoredEnds,
    testing::Values(
        IgnoreCase{"by signal", ignoreBySignal, false}, IgnoreCase{"by flag", ignoreByFlag, true}));

TEST_P(ProcessIgnoredEnds, areToldWhenTheyWereIgnoredBeforeTheSetUp) {
    support::ChildEnd const end = support::runInChild([] {
        GetParam().ignore();
        EventRecorder recorder;
        Vesk const vesk(true, false);
        ProcessTNG process;
        setProbe(process, {"exit", "3"});
        EXPECT_TRUE(hasExitedWith(run(process), 3));
        EXPECT_EQ("", recorder.getText());
        struct sigaction action {};
        EXPECT_EQ(0, sigaction(SIGCHLD, nullptr, &action));
        EXPECT_EQ(GetParam().has_handler, action.sa_handler != SIG_DFL);
        EXPECT_EQ(0, action.sa_flags & SA_NOCLDWAIT);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_P(ProcessIgnoredEnds, areToldAsUnknownWhenTheyAreIgnoredLater) {
    if (IS_EMULATED && GetParam().has_handler) {
        GTEST_SKIP() << "user-mode QEMU does not pass SA_NOCLDWAIT on";
    }
    support::ChildEnd const end = support::runInChild([] {
        Vesk const vesk(true, false);
        EventRecorder recorder;
        HeldProbe held;
        ProcessTNG processes[3];
        GetParam().ignore();
        g_waits = 0;
        for (ProcessTNG& process : processes) {
            held.set(process);
            EXPECT_GT(process.start(), 0);
        }
        held.waitUntilBegun(3);
        held.release();
        for (ProcessTNG& process : processes) {
            EXPECT_TRUE(hasExitedWith(waitFor(process), -1));
        }
        EXPECT_EQ(
            "WARNING framework/src/vesk/posix/ProcessImpl waitChild: error waiting for the end of "
            "children: " +
                support::systemText(ECHILD),
            recorder.getText());
        EXPECT_LT(g_waits, 1000);
        signal(SIGCHLD, SIG_DFL);
        setProbe(processes[0], {"exit", "3"});
        EXPECT_TRUE(hasExitedWith(run(processes[0]), 3));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- ids that are given out again ----

TEST_F(ProcessCollector, keepsTheIdOfAChildUntilItsEntryIsGone) {
    support::ProcessPipe gate(support::ProcessPipe::ChildGets::READ_END);
    ProcessTNG process;
    setProbe(process, {"exit", "3"});
    g_gate = gate.getReadEnd();
    int const pid = process.start();
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(eventually([] { return g_is_at_gate.load(); }));
    // The collector has seen the end, and still the system keeps the child.
    siginfo_t info{};
    EXPECT_EQ(0, syscall(SYS_waitid, P_PID, pid, &info, WEXITED | WNOWAIT | WNOHANG, nullptr));
    EXPECT_EQ(pid, info.si_pid);
    g_gate = -1;
    gate.closeWriteEnd();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 3));
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid)); // By the time that its end is told it is gone.
}

TEST_F(ProcessCollector, doesNotTakeTheEndOfAnEarlierProcessForThatOfAChildThatRuns) {
    // Of an unknown child, which its maker has fetched before the collector had come to it.
    HeldProbe first_held;
    HeldProbe held;
    ProcessTNG first;
    ProcessTNG process;
    first_held.set(first);
    held.set(process);
    EXPECT_GT(first.start(), 0);
    EXPECT_TRUE(eventually([] { return g_waits == 1; }));
    EventRecorder recorder;
    int const pid = process.start();
    held.waitUntilBegun();
    g_told = pid;
    first_held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(first), 0));
    EXPECT_TRUE(eventually([] { return g_waits >= 3; }));
    EXPECT_EQ(pid, process.getPid());
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    EXPECT_EQ("", recorder.getText());
}

TEST_F(ProcessCollector, blocksAllSignals) {
    if (IS_EMULATED) {
        GTEST_SKIP() << "/proc tells what user-mode QEMU blocks, not its program";
    }
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
    std::string const status =
        support::readFile("/proc/self/task/" + std::to_string(findCollector()) + "/status");
    size_t const at = status.find("\nSigBlk:\t");
    ASSERT_NE(std::string::npos, at) << status;
    // All but those that cannot be blocked and the two that libc keeps for itself.
    uint64_t const unblocked =
        1ULL << (SIGKILL - 1) | 1ULL << (SIGSTOP - 1) | 1ULL << (32 - 1) | 1ULL << (33 - 1);
    EXPECT_EQ(~unblocked, strtoull(status.c_str() + at + 9, nullptr, 16)) << status;
    held.release();
    waitFor(process);
}

TEST_F(ProcessCollector, handsEachEndToItsObject) {
    constexpr int COUNT = 10;
    HeldProbe held[COUNT];
    ProcessTNG processes[COUNT];
    int pids[COUNT] = {};
    for (int i = 0; i < COUNT; ++i) {
        held[i].set(processes[i]);
        pids[i] = processes[i].start();
        held[i].waitUntilBegun();
    }
    for (int i = COUNT - 1; i >= 0; i -= 2) {
        EXPECT_FALSE(processes[i].kill(i % 4 == 1));
        EXPECT_TRUE(wasKilledBy(waitFor(processes[i]), i % 4 == 1 ? SIGTERM : SIGKILL));
    }
    for (int i = 0; i < COUNT; i += 2) {
        EXPECT_EQ(pids[i], processes[i].getPid());
        held[i].release();
        EXPECT_TRUE(hasExitedWith(waitFor(processes[i]), 0));
    }
}

TEST_F(ProcessCollector, hasStartsGoOnWhileItWaits) {
    HeldProbe held;
    ProcessTNG first;
    held.set(first);
    EXPECT_GT(first.start(), 0);
    EXPECT_TRUE(eventually([] { return g_waits == 1; }));
    ProcessTNG second;
    setProbe(second, {"exit", "2"});
    EXPECT_TRUE(hasExitedWith(run(second), 2));
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(first), 0));
}

// ---- listeners ----

/// Does in the listener what a test wants.
class CallingListener : public ProcessTNG::ExitListener {
public:
    explicit CallingListener(std::function<void(ExitState const*)> body) : m_body(std::move(body)) {}
    void processExited(ExitState const* state) override { m_body(state); }

private:
    std::function<void(ExitState const*)> m_body;
};

TEST_F(ProcessCollector, callsTheListenerWithNoLockHeld) {
    Event done;
    ProcessTNG process;
    std::thread::id caller;
    CallingListener listener([&](ExitState const* state) {
        caller = std::this_thread::get_id();
        EXPECT_EQ(getTid(), findCollector());
        ExitState fetched;
        EXPECT_FALSE(state->process->wait(fetched, false, 0)); // Takes the object's lock, without waiting.
        EXPECT_TRUE(hasExitedWith(fetched, 3));
        EXPECT_FALSE(state->process->kill(true));
        EXPECT_TRUE(hasExitedWith(*state, 3)); // A copy, which nobody takes away.
        done.set();
    });
    process.setExitListener(&listener);
    setProbe(process, {"exit", "3"});
    EXPECT_GT(process.start(), 0);
    EXPECT_TRUE(done.wait());
    EXPECT_NE(std::this_thread::get_id(), caller);
}

TEST_F(ProcessCollector, letsTheListenerStartTheNextChild) {
    Event done;
    ProcessTNG process;
    int runs = 0;
    CallingListener listener([&](ExitState const* state) {
        EXPECT_TRUE(hasExitedWith(*state, 1));
        if (++runs < 5) {
            EXPECT_GT(state->process->start(), 0);
        } else {
            done.set();
        }
    });
    process.setExitListener(&listener);
    setProbe(process, {"exit", "1"});
    EXPECT_GT(process.start(), 0);
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(5, runs);
}

TEST_F(ProcessCollector, reapsNobodyWhileTheListenerRuns) {
    Event entered;
    Event leave;
    CallingListener slow([&](ExitState const*) {
        entered.set();
        EXPECT_TRUE(leave.wait());
    });
    ProcessTNG first;
    first.setExitListener(&slow);
    setProbe(first, {"exit", "0"});
    ProcessTNG second;
    setProbe(second, {"exit", "7"});
    EXPECT_GT(first.start(), 0);
    EXPECT_TRUE(entered.wait());
    EXPECT_TRUE(hasExitedWith(waitFor(first), 0)); // Its waiter came first.
    int const pid = second.start();
    EXPECT_TRUE(eventually([pid] { return support::threadField(pid, pid, 3) == "Z"; }));
    ExitState state;
    EXPECT_FALSE(second.wait(state, true, 20));
    EXPECT_FALSE(state.hasExited());
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid)); // Ended, but not fetched.
    leave.set();
    EXPECT_TRUE(hasExitedWith(waitFor(second), 7));
}

TEST_F(ProcessCollector, allowsAWaiterToDestroyTheObjectUnderTheListener) {
    Event entered;
    Event destroyed;
    Event done;
    CallingListener listener([&](ExitState const* state) {
        entered.set();
        EXPECT_TRUE(destroyed.wait());
        EXPECT_TRUE(hasExitedWith(*state, 6)); // Its own copy.
        done.set();
    });
    auto process = std::make_unique<ProcessTNG>();
    process->setExitListener(&listener);
    setProbe(*process, {"exit", "6"});
    EXPECT_TRUE(hasExitedWith(run(*process), 6));
    EXPECT_TRUE(entered.wait());
    process.reset();
    destroyed.set();
    EXPECT_TRUE(done.wait());
}

TEST_F(ProcessCollector, allowsTheListenerToDestroyTheObject) {
    Event done;
    auto process = std::make_unique<ProcessTNG>();
    CallingListener listener([&](ExitState const* state) {
        EXPECT_EQ(process.get(), state->process);
        process.reset();
        done.set();
    });
    process->setExitListener(&listener);
    setProbe(*process, {"exit", "6"});
    EXPECT_GT(process->start(), 0);
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(nullptr, process);
}

TEST_F(ProcessCollector, callsTheListenerThatIsSetAtTheEnd) {
    RecordingListener first;
    RecordingListener second;
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    process.setExitListener(&first);
    EXPECT_GT(process.start(), 0);
    process.setExitListener(&second);
    held.release();
    EXPECT_TRUE(second.waitForCalls(1));
    EXPECT_EQ(0, first.calls);
}

} // namespace
