#include "processes/ProcessSupport.h"

namespace {

// The number of waits for any child, and whether a wait had other arguments than expected.
std::atomic<int> g_waits{0};
std::atomic<bool> g_waits_are_odd{false};
// The child that the next wait reports, and the descriptor at which a wait blocks before it returns.
std::atomic<pid_t> g_reported{0};
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
    if (is_any && inject_waitid.fails()) {
        return -1;
    }
    if (pid_t const pid = is_any ? g_reported.exchange(0) : 0) {
        *info = {};
        info->si_pid = pid;
        info->si_code = CLD_KILLED;
        info->si_status = SIGUSR1;
        return 0;
    }
    int const result = inject_waitid.getReal(&waitid)(type, id, info, options);
    char byte = 0;
    if (is_any && g_gate != -1) {
        g_is_at_gate = true;
        (void)!read(g_gate, &byte, 1);
    }
    return result;
}

namespace {

using namespace support;
using vesk::Vesk;

std::string const INIT_ASSERTS =
    "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_init\n"
    "ASSERT framework/src/vesk/posix/ProcessImpl init: !g_lazy_process_static_init";
constexpr int ROUNDS = 100 / (SLOWDOWN > 10 ? 10 : 1);

std::string waitFailed(int error) {
    return "WARNING framework/src/vesk/posix/ProcessImpl waitChild: error waiting for the end of children: " +
        systemText(error);
}

/// Checks that the process has this number of threads besides those of the test, one of them a collector.
testing::AssertionResult hasCollector(int threads) {
    EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
    return hasThreads(threads + 1);
}

class ProcessCollector : public ProcessTest {};

TEST(ProcessCollectorStart, aLazyStartUpStartsNoThreadBeforeTheFirstObject) {
    Vesk const vesk(true, false);
    int const threads = countThreads();
    EXPECT_EQ(0U, countCollectors());
    EXPECT_NE("", ProcessTNG::getOwnProcessName());
    EXPECT_EQ(0, ProcessTNG::existsProcess(getpid()));
    EXPECT_TRUE(hasThreads(threads));
    ProcessTNG const process;
    EXPECT_TRUE(hasCollector(threads));
    ProcessTNG const other;
    EXPECT_TRUE(hasThreads(threads + 1));
}

TEST(ProcessCollectorStart, anEagerStartUpStartsTheThread) {
    int const threads = countThreads();
    Vesk const vesk(false, false);
    EXPECT_TRUE(hasCollector(threads));
    Vesk::cleanupAll();
    EXPECT_TRUE(hasThreads(threads));
}

TEST(ProcessCollectorStart, aStartUpWithoutUseEndsAtOnce) {
    for (bool const lazy : {true, false}) {
        SCOPED_TRACE(lazy ? "lazy" : "eager");
        expectInChild([lazy] {
            Vesk const vesk(lazy, false);
            Vesk::cleanupAll(); // Perhaps before the thread has begun.
            EXPECT_TRUE(haveCollectorsGone());
            if (lazy) {
                Vesk::cleanupAll();
            }
        });
    }
}

TEST(ProcessCollectorStart, severalFirstObjectsStartOneCollector) {
    Vesk const vesk(true, false);
    runInThreads(8, [](int) {
        ProcessTNG process;
        EXPECT_TRUE(process.isValid());
        EXPECT_TRUE(runsExit(process, 0));
    });
    EXPECT_EQ(1U, countCollectors());
}

TEST(ProcessCollectorGone, anObjectFromBeforeTheStartUpIsInvalidAndItsStartFailsBehindTheAssertion) {
    EventRecorder recorder;
    ProcessTNG process;
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
    EXPECT_EQ(0U, recorder.getCount());
    process.setExecutable(getProbePath());
    EXPECT_EQ(-1, process.start());
    EXPECT_EQ(NO_START, recorder.getText());
    EXPECT_TRUE(chainIs(
        {{Vesk::ErrorId::INIT_FAILED, NO_IMPL},
         {ProcessTNG::ErrorId::START_FAILED, "Failed to start child process: locking operation failed"}}));
    // Nothing stays locked.
    EXPECT_TRUE(hasNoState(process));
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
    EXPECT_TRUE(old.isValid());
    for (ProcessTNG* const each : {&process, &old}) {
        EXPECT_EQ(-1, each->start()) << (each == &old ? "the old object" : "the new object");
        EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED}, {ProcessTNG::ErrorId::START_FAILED}}));
    }
    EXPECT_EQ(std::string(NO_START) + "\n" + NO_START, recorder.getText());
}

TEST(ProcessCollectorGone, theOwnNameIsEmptyBeforeTheStartUpAndAfterTheEnd) {
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i == 0 ? "before" : "after");
        EXPECT_EQ("", ProcessTNG::getOwnProcessName());
        EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
        if (i == 0) {
            Vesk const vesk(false, false);
            EXPECT_NE("", ProcessTNG::getOwnProcessName());
            ProcessTNG::exit();
        }
    }
}

TEST(ProcessCollectorGone, aNewStartUpRestoresEverything) {
    Vesk const first(false, false);
    ProcessTNG old;
    EXPECT_TRUE(runsExit(old, 1));
    Vesk::cleanupAll();
    EXPECT_TRUE(haveCollectorsGone());
    EventRecorder recorder;
    Vesk const second(true, false);
    EXPECT_EQ(
        "ASSERT framework/src/vesk/common/vesk Vesk: !s_init_count.getCurrentCount()", recorder.getText());
    ProcessTNG process;
    EXPECT_TRUE(runsExit(process, 2));
    EXPECT_TRUE(hasExitedWith(run(old), 1));
    EXPECT_EQ(1U, countCollectors());
    EXPECT_NE("", ProcessTNG::getOwnProcessName());
}

// In a child, because the earlier state is lost.

TEST(ProcessCollectorGone, settingUpTwiceIsAnAssertion) {
    for (bool const lazy : {true, false}) {
        SCOPED_TRACE(lazy ? "lazy" : "eager");
        expectInChild([lazy] {
            Vesk const vesk(lazy, false);
            if (!lazy) { // The first collector has read what the second one changes.
                ProcessTNG process;
                EXPECT_TRUE(runsExit(process, 0));
            }
            EventRecorder recorder;
            EXPECT_FALSE(ProcessTNG::init(lazy));
            EXPECT_EQ(
                INIT_ASSERTS +
                    (lazy ? ""
                          : "\nASSERT framework/src/vesk/posix/ProcessImpl doInit: ! g_process_impl\n"
                            "ASSERT framework/src/vesk/posix/ProcessImpl doInit: ! g_process_static_impl"),
                recorder.getText());
        });
    }
}

TEST_F(ProcessCollector, theEndOfTheLibraryBlocksUntilAllChildrenHaveEnded) {
    HeldChild children[3];
    SleepingThread thread([] { Vesk::cleanupAll(); });
    for (int i = 2; i >= 0; --i) {
        EXPECT_FALSE(thread.isDone());
        EXPECT_EQ(0, ProcessTNG::existsProcess(children[i].pid)); // It does not kill.
        EXPECT_TRUE(children[i].ends());
    }
    thread.join();
    EXPECT_TRUE(thread.isDone());
}

TEST_F(ProcessCollector, theEndRightAfterAStartBlocksUntilTheChildHasEnded) {
    // The collector may receive the child and its own end at the same time.
    for (int i = 0; i < ROUNDS; ++i) {
        EventRecorder recorder;
        RecordingListener listener;
        {
            ProcessTNG process;
            listener.start(process, 5);
            ProcessTNG::exit();
            EXPECT_EQ(1, listener.calls);
            EXPECT_TRUE(hasExitedWith(waitFor(process), 5));
        }
        EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
        EXPECT_FALSE(ProcessTNG::init(true));
    }
}

TEST_F(ProcessCollector, waitsForAnyChildAndFindsOneThatEndsAtOnce) {
    ProcessTNG process;
    EventRecorder recorder;
    for (int i = 1; i <= 2 * ROUNDS; ++i) {
        EXPECT_TRUE(runsExit(process, 0));
        EXPECT_EQ(i, g_waits);
    }
    EXPECT_FALSE(g_waits_are_odd);
    EXPECT_EQ("", recorder.getText());
}

TEST_F(ProcessCollector, warnsAboutAChildThatTheProcessHasForked) {
    for (bool const killed : {false, true}) {
        SCOPED_TRACE(killed ? "killed" : "exited");
        HeldChild child;
        EventRecorder recorder;
        Process const raw(killed ? +[] { (void)raise(SIGKILL); } : +[] { _exit(3); });
        EXPECT_TRUE(eventually([&] { return recorder.getCount() == 1; }));
        EXPECT_EQ(
            "WARNING framework/src/vesk/posix/ProcessImpl waitChild: waitChild: : got notification about "
            "exit of an unknown child process exit. PID = \"" +
                std::to_string(raw.getId()) + "\", was_killed = " + (killed ? "1" : "0") +
                ". If you intentionally created a child process outside of VESK then this is expected. "
                "Otherwise a programming error might be involved.",
            recorder.getText());
        // The process cannot wait for it any more.
        EXPECT_EQ(-1, waitpid(raw.getId(), nullptr, WNOHANG));
        EXPECT_EQ(ECHILD, errno);
        EXPECT_TRUE(child.ends());
        EXPECT_EQ(1U, recorder.getCount());
    }
}

TEST_F(ProcessCollector, leavesOtherChildrenAloneWhileNoneOfItsOwnRuns) {
    ProcessTNG process;
    EXPECT_TRUE(runsExit(process, 0));
    EXPECT_EQ(1, g_waits);
    waitForCollector();
    EventRecorder recorder;
    Process raw([] { _exit(3); });
    siginfo_t info{};
    // It has ended, but is not reaped yet.
    EXPECT_EQ(0, syscall(SYS_waitid, P_PID, raw.getId(), &info, WEXITED | WNOWAIT, nullptr));
    waitForCollector();
    EXPECT_EQ(1, g_waits);
    EXPECT_EQ(3, raw.join());
    EXPECT_EQ(0U, recorder.getCount());
}

TEST_F(ProcessCollector, repeatsAnInterruptedWaitAndWarnsOnceAboutAFailedOne) {
    ProcessTNG process;
    for (int const error : {EINTR, EINVAL, EINVAL}) {
        SCOPED_TRACE(strerrorname_np(error));
        EventRecorder recorder;
        Fault const fault(inject_waitid, error, 1, error == EINTR ? 2 : 4, Fault::Threads::OTHERS);
        EXPECT_TRUE(runsExit(process, 3));
        EXPECT_EQ(error == EINTR ? "" : waitFailed(error), recorder.getText());
    }
}

TEST_F(ProcessCollector, doesNotSpinWhileItsWaitFails) {
    EventRecorder recorder;
    std::optional<HeldChild> child;
    {
        Fault const fault(inject_waitid, EINVAL, 1, Fault::FOREVER, Fault::Threads::OTHERS);
        child.emplace();
        EXPECT_TRUE(eventually([] { return g_waits >= 5; }));
        waitForCollector();
    }
    EXPECT_EQ(1U, recorder.getCount());
    EXPECT_TRUE(child->ends());
}

struct IgnoreCase : NamedRow {
    void (*ignore)();
    bool has_handler;
};

class ProcessIgnoredEnds : public testing::TestWithParam<IgnoreCase> {};

void ignoreByFlag() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_NOCLDWAIT | SA_RESTART;
    EXPECT_EQ(0, sigaction(SIGCHLD, &action, nullptr));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessIgnoredEnds,
    rowsOf<IgnoreCase>(
        {{"by signal", [] { signal(SIGCHLD, SIG_IGN); }, false}, {"by flag", ignoreByFlag, true}}));

TEST_P(ProcessIgnoredEnds, areReportedIfTheyWereIgnoredBeforeTheSetUp) {
    expectInChild([] {
        GetParam().ignore();
        EventRecorder recorder;
        Vesk const vesk(true, false);
        ProcessTNG process;
        EXPECT_TRUE(runsExit(process, 3));
        EXPECT_EQ("", recorder.getText());
        struct sigaction action {};
        EXPECT_EQ(0, sigaction(SIGCHLD, nullptr, &action));
        EXPECT_EQ(GetParam().has_handler, action.sa_handler != SIG_DFL);
        EXPECT_EQ(0, action.sa_flags & SA_NOCLDWAIT);
    });
}

TEST_P(ProcessIgnoredEnds, areReportedWithoutAStatusIfTheyAreIgnoredLater) {
    if (IS_EMULATED && GetParam().has_handler) {
        GTEST_SKIP() << "user-mode QEMU does not pass SA_NOCLDWAIT on";
    }
    expectInChild([] {
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
        EXPECT_EQ(waitFailed(ECHILD), recorder.getText());
        EXPECT_LT(g_waits, 1000);
        signal(SIGCHLD, SIG_DFL);
        EXPECT_TRUE(runsExit(processes[0], 3));
    });
}

TEST_F(ProcessCollector, keepsTheIdOfAChildUntilItsEntryIsRemoved) {
    ProcessPipe gate(ProcessPipe::ChildGets::READ_END);
    ProcessTNG process;
    setExit(process, 3);
    g_gate = gate.getReadEnd();
    int const pid = process.start();
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(eventually([] { return g_is_at_gate.load(); }));
    // The collector knows the end, and the system still keeps the child.
    siginfo_t info{};
    EXPECT_EQ(0, syscall(SYS_waitid, P_PID, pid, &info, WEXITED | WNOWAIT | WNOHANG, nullptr));
    EXPECT_EQ(pid, info.si_pid);
    g_gate = -1;
    gate.closeWriteEnd();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 3));
    EXPECT_EQ(1, ProcessTNG::existsProcess(pid)); // It is reaped before its end is reported.
}

// The earlier process is an unknown child that was reaped before the collector came to it.
TEST_F(ProcessCollector, doesNotTakeTheEndOfAnEarlierProcessForThatOfARunningChild) {
    HeldChild first;
    EXPECT_TRUE(eventually([] { return g_waits == 1; }));
    EventRecorder recorder;
    HeldChild child;
    g_reported = child.pid;
    EXPECT_TRUE(first.ends());
    EXPECT_TRUE(eventually([] { return g_waits >= 3; }));
    EXPECT_EQ(child.pid, child.process.getPid());
    EXPECT_TRUE(child.ends());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(ProcessCollector, blocksAllSignals) {
    if (IS_EMULATED) {
        GTEST_SKIP() << "/proc tells what user-mode QEMU blocks, not its program";
    }
    HeldChild child;
    EXPECT_TRUE(eventually([] { return findCollector() != 0; }));
    std::string const status = contentOf("/proc/self/task/" + std::to_string(findCollector()) + "/status");
    size_t const at = status.find("\nSigBlk:\t");
    ASSERT_NE(std::string::npos, at) << status;
    // All but those that cannot be blocked and the two that libc keeps for itself.
    uint64_t const unblocked =
        1ULL << (SIGKILL - 1) | 1ULL << (SIGSTOP - 1) | 1ULL << (32 - 1) | 1ULL << (33 - 1);
    EXPECT_EQ(~unblocked, strtoull(status.c_str() + at + 9, nullptr, 16)) << status;
}

TEST_F(ProcessCollector, assignsEachEndToItsObject) {
    constexpr int COUNT = 10;
    HeldChild children[COUNT];
    for (int i = COUNT - 1; i >= 0; i -= 2) {
        EXPECT_FALSE(children[i].process.kill(i % 4 == 1));
        EXPECT_TRUE(wasKilledBy(waitFor(children[i].process), i % 4 == 1 ? SIGTERM : SIGKILL));
    }
    for (int i = 0; i < COUNT; i += 2) {
        EXPECT_EQ(children[i].pid, children[i].process.getPid());
        EXPECT_TRUE(children[i].ends());
    }
}

TEST_F(ProcessCollector, doesNotDelayStartsWhileItWaits) {
    HeldChild child;
    EXPECT_TRUE(eventually([] { return g_waits == 1; }));
    ProcessTNG second;
    EXPECT_TRUE(runsExit(second, 2));
    EXPECT_TRUE(child.ends());
}

TEST_F(ProcessCollector, callsTheListenerWithoutALockAndLetsItStartTheNextChild) {
    ProcessTNG process;
    pid_t const test = getThreadId();
    RecordingListener listener([&](ExitState const& state) {
        EXPECT_NE(test, getThreadId());
        EXPECT_EQ(getThreadId(), findCollector());
        EXPECT_TRUE(hasExitedWith(waitFor(*state.process), 3)); // Takes the object's lock.
        EXPECT_FALSE(state.process->kill(true));
        EXPECT_TRUE(hasExitedWith(state, 3)); // A copy.
        if (listener.calls < 4) {
            EXPECT_GT(state.process->start(), 0);
        }
    });
    listener.start(process, 3);
    EXPECT_TRUE(listener.waitForCalls(5));
}

TEST_F(ProcessCollector, reapsNoChildWhileTheListenerRuns) {
    Event entered;
    Event leave;
    RecordingListener slow([&](ExitState const&) {
        entered.set();
        EXPECT_TRUE(leave.wait());
    });
    ProcessTNG first;
    ProcessTNG second;
    setExit(second, 7);
    slow.start(first, 0);
    EXPECT_TRUE(entered.wait());
    EXPECT_TRUE(hasExitedWith(waitFor(first), 0)); // The waiter precedes the listener.
    int const pid = second.start();
    EXPECT_TRUE(eventually([pid] { return threadField(pid, pid, 3) == "Z"; }));
    ExitState state;
    EXPECT_FALSE(second.wait(state, true, 20));
    EXPECT_FALSE(state.hasExited());
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid)); // It has ended, but is not reaped.
    leave.set();
    EXPECT_TRUE(hasExitedWith(waitFor(second), 7));
}

TEST_F(ProcessCollector, allowsAWaiterOrTheListenerToDestroyTheObjectDuringTheListener) {
    for (bool const by_waiter : {true, false}) {
        SCOPED_TRACE(by_waiter ? "by a waiter" : "by the listener");
        Event entered;
        Event destroyed;
        auto process = std::make_unique<ProcessTNG>();
        RecordingListener listener([&](ExitState const& state) {
            EXPECT_TRUE(hasExitedWith(state, 6)); // A copy.
            entered.set();
            if (by_waiter) {
                EXPECT_TRUE(destroyed.wait());
            } else {
                EXPECT_EQ(process.get(), state.process);
                process.reset();
            }
            EXPECT_TRUE(hasExitedWith(state, 6));
        });
        listener.start(*process, 6);
        if (by_waiter) {
            EXPECT_TRUE(hasExitedWith(waitFor(*process), 6));
            EXPECT_TRUE(entered.wait());
            process.reset();
            destroyed.set();
        }
        EXPECT_TRUE(listener.waitForCalls());
        EXPECT_EQ(nullptr, process);
    }
}

} // namespace
