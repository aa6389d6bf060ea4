#include "processes/ProcessSupport.h"
#include "support/Emulation.h"

#include "support/CleanEnd.h"
#include "support/UnlockFault.h"

#include <vesk/Mutex.h>

#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

namespace {

std::vector<std::pair<pid_t, int>> g_signals; ///< That were sent, with their receivers.
std::atomic<bool> g_signal_wakes_all{false};

} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))

VESK_INJECT(
    int, return error, pthread_cond_signal, (pthread_cond_t * c), (c),
    if (g_signal_wakes_all) { return pthread_cond_broadcast(c); })
VESK_INJECT_NOTING(int, -1, kill, (pid_t pid, int signal), (pid, signal), g_signals.emplace_back(pid, signal))
VESK_INJECT_ERRNO(pid_t, -1, fork, (), ())

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
namespace SysErrorId = vesk::SysErrorId;
using Chain = std::vector<ExpectedReport>;
using Id = ProcessTNG::ErrorId;
using Signals = std::vector<std::pair<pid_t, int>>;

class ProcessTNGTest : public ProcessTest {
protected:
    void SetUp() override { g_signals.clear(); }
};

ExpectedReport badPath(std::string const& path) {
    return {vesk::FileAccessErrorId::BAD_PATH, "Bad path '" + path + "'"};
}

static_assert(!std::is_copy_constructible_v<ProcessTNG> && !std::is_copy_assignable_v<ProcessTNG>);
static_assert(std::has_virtual_destructor_v<ProcessTNG> && std::is_copy_assignable_v<ExitState>);

TEST_F(ProcessTNGTest, hasItsConstantsItsErrorsAndATraceChannel) {
    EXPECT_EQ(-1, ProcessTNG::INVALID_PROCESS_ID);
    EXPECT_STREQ("", ProcessTNG::ExecutableSuffix);
    expectRows(
        ProcessTNG::Error,
        {"Failed to start child process: %s", "Failed to create process object: %s",
         "Failed to kill child process: %s", "Failed to wait for child process: %s",
         "Process could not be found: %s"},
        1);
    EXPECT_TRUE(tracing::Channel::setThreshold("FW_Vesk_Process", 7));
}

TEST_F(ProcessTNGTest, beginsIdleAndValid) {
    ExitState const state;
    EXPECT_FALSE(state.hasExited() || state.exited || state.killed);
    EXPECT_EQ(-1, state.status);
    EXPECT_EQ(nullptr, state.process);
    ProcessTNG process;
    EXPECT_TRUE(process.isValid());
    EXPECT_EQ(-1, process.getPid());
    EXPECT_EQ(-1, process.getLastPid());
    EXPECT_TRUE(hasNoState(process, false));
    EXPECT_TRUE(hasNoState(process, true));
}

TEST_F(ProcessTNGTest, returnsTheEndsOfItsChildren) {
    ProcessTNG process(getProbePath(), getProbeArguments({"exit", "7"}));
    EXPECT_TRUE(process.isValid());
    EXPECT_TRUE(hasExitedWith(run(process), 7));
    for (int const code : {0, 1, 7, 255}) {
        setExit(process, code);
        ExitState const state = run(process);
        EXPECT_TRUE(hasExitedWith(state, code)) << code;
        EXPECT_EQ(&process, state.process);
    }
    for (int const signal : {SIGTERM, SIGKILL, SIGABRT}) {
        setProbe(process, {"die", std::to_string(signal)});
        EXPECT_TRUE(wasKilledBy(run(process), signal)) << signal;
    }
}

TEST_F(ProcessTNGTest, startReturnsTheIdOfTheRunningChildAndFailsUntilItEnds) {
    HeldChild child;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(child.pid, child.process.getPid());
        EXPECT_EQ(0, ProcessTNG::existsProcess(child.pid));
        EXPECT_EQ(std::to_string(getpid()), threadField(child.pid, child.pid, 4)); // Its parent.
        EXPECT_EQ(-1, child.process.start());
        EXPECT_TRUE(
            chainIs({{CONTRACT_BROKEN, "Contract broken by the caller: There is already a child running."}}));
    }
    EXPECT_TRUE(child.ends());
    EXPECT_EQ(-1, child.process.getPid());
}

/// An object with a child that has ended. The state is not fetched.
class ProcessTNGEnded : public ProcessTNGTest {
protected:
    void SetUp() override {
        ProcessTNGTest::SetUp();
        m_pid = m_listener.start(m_process, 3);
        ASSERT_TRUE(m_listener.waitForCalls());
    }

    RecordingListener m_listener;
    ProcessTNG m_process;
    int m_pid = -1;
};

TEST_F(ProcessTNGEnded, hasCalledTheListenerAndReturnsTheStateOnce) {
    EXPECT_TRUE(hasExitedWith(m_listener.last, 3));
    EXPECT_EQ(&m_process, m_listener.last.process);
    EXPECT_EQ(m_pid, m_process.getLastPid());
    EXPECT_TRUE(hasExitedWith(waitFor(m_process), 3)); // The waiter gets the state, too.
    EXPECT_EQ(-1, m_process.getLastPid());
    EXPECT_TRUE(hasNoState(m_process));
    EXPECT_EQ(1, m_listener.calls);
}

TEST_F(ProcessTNGEnded, discardsTheStateAtTheNextStart) {
    EXPECT_TRUE(runsExit(m_process, 2));
    EXPECT_TRUE(hasNoState(m_process));
    EXPECT_TRUE(m_listener.waitForCalls(2)); // The listener follows the waiter.
}

TEST_F(ProcessTNGTest, theDestructorBlocksUntilTheChildHasEndedAlsoInACanceledThread) {
    for (bool const cancels : {false, true}) {
        SCOPED_TRACE(cancels ? "canceled" : "not canceled");
        HeldProbe held;
        auto process = std::make_unique<ProcessTNG>();
        held.set(*process);
        EXPECT_GT(process->start(), 0);
        held.waitUntilBegun();
        SleepingThread thread([&] {
            process.reset();
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        });
        if (cancels) {
            thread.cancel();
        }
        EXPECT_FALSE(thread.isDone());
        EXPECT_EQ(Signals(), g_signals); // It does not kill.
        held.release();
        EXPECT_EQ(nullptr, thread.join());
        EXPECT_TRUE(thread.isDone());
        held.waitUntilGone();
    }
}

TEST_F(ProcessTNGTest, aTimedWaitThatExpiresSucceedsAndALaterOneFetchesTheState) {
    HeldChild child;
    for (long long const timeout : {50LL, 0LL, -5LL, LLONG_MIN}) {
        ExitState state;
        state.exited = state.killed = true;
        state.status = 5;
        long long const begin = tarnbase::TimePoint::now().getCount();
        SCOPED_TRACE(timeout);
        EXPECT_FALSE(child.process.wait(state, true, timeout));
        EXPECT_GE(tarnbase::TimePoint::now().getCount() - begin, timeout == 50 ? 50 : 0);
        EXPECT_FALSE(state.hasExited() || state.killed);
        EXPECT_EQ(-1, state.status);
        EXPECT_EQ(&child.process, state.process);
    }
    EXPECT_TRUE(child.ends());
}

TEST_F(ProcessTNGTest, aTimedWaitReturnsAtTheEndOfTheChild) {
    for (long long const timeout : {60000LL, LLONG_MAX}) {
        SCOPED_TRACE(timeout);
        ProcessTNG process;
        setExit(process, 4);
        EXPECT_GT(process.start(), 0);
        ExitState state;
        EXPECT_FALSE(process.wait(state, true, timeout));
        EXPECT_TRUE(hasExitedWith(state, 4));
    }
}

TEST_F(ProcessTNGTest, aSecondWaiterStaysBlockedUntilALaterChildEnds) {
    HeldChild child;
    std::atomic<int> served{0};
    std::atomic<int> status[2] = {{-1}, {-1}};
    auto const wait = [&](int i) {
        status[i] = waitFor(child.process).status;
        ++served;
    };
    SleepingThread threads[] = {SleepingThread([&] { wait(0); }), SleepingThread([&] { wait(1); })};
    child.release();
    EXPECT_TRUE(eventually([&] { return served == 1; }));
    int const left = status[0] == 0 ? 1 : 0;
    threads[left].awaitSleep();
    EXPECT_EQ(1, served);
    EXPECT_EQ(-1, status[left]);

    setExit(child.process, 6);
    EXPECT_GT(child.process.start(), 0);
    threads[0].join();
    threads[1].join();
    EXPECT_EQ(6, status[left]);
}

TEST_F(ProcessTNGTest, aCanceledWaiterUnlocksTheObject) {
    VESK_SKIP_WITHOUT_CANCELLATION();
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer keeps marks of the stack of a cancelled thread that was unwound";
#endif
    HeldChild child;
    {
        SleepingThread waiter([&] { waitFor(child.process); });
        waiter.cancel();
        waiter.join();
        EXPECT_FALSE(waiter.isDone());
    }
    EXPECT_TRUE(child.ends());
}

TEST_F(ProcessTNGTest, killEndsTheChildBySignalWhileAnotherThreadWaits) {
    for (int const signal : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(strsignal(signal));
        HeldChild child;
        g_signals.clear();
        SleepingThread const waiter([&] { EXPECT_TRUE(wasKilledBy(waitFor(child.process), signal)); });
        EXPECT_FALSE(child.process.kill(signal == SIGTERM));
        EXPECT_EQ(Signals({{child.pid, signal}}), g_signals);
    }
}

TEST_F(ProcessTNGTest, killSucceedsWithoutEffectOnAChildThatIgnoresItOrHasEnded) {
    ProcessTNG process;
    EXPECT_FALSE(process.kill(true)); // Never started.
    EXPECT_TRUE(runsExit(process, 0));
    EXPECT_FALSE(process.kill(true));
    EXPECT_FALSE(process.kill(false));
    EXPECT_EQ(Signals(), g_signals);
    HeldChild child("stubborn");
    EXPECT_FALSE(child.process.kill(true));
    EXPECT_TRUE(child.ends());
}

// The setting for the next child does not affect the running one.
TEST_F(ProcessTNGTest, killSignalsTheWholeGroupOfAChildIfItHasASeparateOne) {
    for (bool const separate : {true, false}) {
        SCOPED_TRACE(separate ? "separate group" : "same group");
        g_signals.clear();
        HeldChild child("brood", 2, separate);
        child.process.setNewGroup(!separate);
        EXPECT_FALSE(child.process.kill(false));
        EXPECT_EQ(Signals({{separate ? -child.pid : child.pid, SIGKILL}}), g_signals);
        EXPECT_TRUE(wasKilledBy(waitFor(child.process), SIGKILL));
        if (!separate) {
            child.release();
        }
        child.waitUntilGone(); // The grandchild, too.
    }
}

// The bits of the group and of others do not count.
TEST_F(ProcessTNGTest, setExecutableFailsOnAFileThatItsOwnerMayNotExecute) {
    TempFolder const dir;
    for (mode_t const mode : {0100U, 0700U, 0755U, 0010U, 0001U, 0077U, 0666U, 0000U}) {
        SCOPED_TRACE(mode);
        bool const fails = (mode & S_IXUSR) == 0;
        std::string const program = dir.makeFile("program" + std::to_string(mode), "", mode);
        ProcessTNG process;
        EXPECT_EQ(fails, process.setExecutable(program));
        EXPECT_EQ(!fails, process.isValid());
        EXPECT_TRUE(chainIs(fails ? Chain{badPath(program)} : Chain()));
    }
}

TEST_F(ProcessTNGTest, setExecutableAcceptsADirectoryAndFollowsLinksButNotToAMissingFile) {
    TempFolder const dir;
    ProcessTNG process;
    EXPECT_FALSE(process.setExecutable(dir.makeLink("link", getProbePath())));
    EXPECT_FALSE(process.setExecutable("/proc"));
    EXPECT_TRUE(process.isValid());
    for (std::string const& path :
         {dir.makeLink("dangling", "nowhere"), std::string("/no/such/program"), std::string()}) {
        SCOPED_TRACE(path);
        EXPECT_TRUE(process.setExecutable(path));
        EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, badPath(path)}));
    }
    // It stays invalid until it is initialized again.
    EXPECT_FALSE(process.setExecutable(getProbePath()));
    EXPECT_FALSE(process.isValid());
    process.init();
    EXPECT_TRUE(process.isValid());
    EXPECT_FALSE(ProcessTNG("/no/such/program").isValid());
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, badPath("/no/such/program")}));
}

TEST_F(ProcessTNGTest, startDoesNotCheckIfTheObjectIsValid) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may execute what its owner may not";
    }
    TempFolder const dir("/tmp"); // Other file systems may be mounted without the right to execute.
    ProcessTNG process;
    // Root may execute a file that its owner must not execute, if the group may.
    EXPECT_TRUE(process.setExecutable(dir.makeFile("script", "#!/bin/sh\nexit 9\n", 0070)));
    std::ErrorStorage::ack();
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(hasExitedWith(run(process), 9));
}

TEST_F(ProcessTNGTest, initClearsTheRequestsAndKeepsTheOtherSettings) {
    TempFolder const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", "err"});
    process.setStdoutFile(dir.makeFile("out", "old "), true);
    process.setStderrFile(dir.makeFile("err", "old "), true);
    process.setStdoutNull(true);
    process.setStderrNull(true);
    process.init();
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("out", contentOf(dir / "out"));
    EXPECT_EQ("err", contentOf(dir / "err"));
}

TEST_F(ProcessTNGTest, doesNotCheckPriorities) {
    ProcessTNG process;
    EXPECT_FALSE(process.setPriority(false, 1000));
    EXPECT_FALSE(process.setPriority(true, 0));
    EXPECT_FALSE(process.setSchedAttrs(vesk::sched::Attr()));
    EXPECT_TRUE(process.isValid());
}

TEST_F(ProcessTNGTest, onlyTheListenerThatIsSetAtTheEndIsCalled) {
    RecordingListener first;
    RecordingListener second;
    for (ProcessTNG::ExitListener* const last : {static_cast<ProcessTNG::ExitListener*>(&second), {}}) {
        SCOPED_TRACE(last == nullptr ? "no listener" : "another listener");
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        process.setExitListener(&first);
        EXPECT_GT(process.start(), 0);
        process.setExitListener(last);
        held.release();
        waitFor(process);
    }
    ProcessTNG::exit(); // Ends the collector.
    EXPECT_EQ(0, first.calls);
    EXPECT_EQ(1, second.calls);
}

TEST_F(ProcessTNGTest, processExitedStoresAnEnd) {
    RecordingListener listener;
    ProcessTNG process;
    process.setExitListener(&listener);
    ProcessTNG::processExited(&process, true, SIGHUP);
    EXPECT_TRUE(wasKilledBy(listener.last, SIGHUP));
    EXPECT_TRUE(wasKilledBy(waitFor(process), SIGHUP));
}

TEST_F(ProcessTNGTest, aCanceledThreadStartsItsChild) {
    TempFolder const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", ""});
    process.setStdoutFile(dir / "out", false); // The child could be canceled in open.
    std::thread([&] {
        EXPECT_EQ(0, pthread_cancel(pthread_self()));
        EXPECT_GT(process.start(), 0);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    EXPECT_EQ("out", contentOf(dir / "out"));
}

// ---- failures ----

class ProcessTNGFailure : public ProcessTNGTest {};

template <typename AnyId>
ExpectedReport report(AnyId id, int error) {
    return {id, rowText(id, systemText(error))};
}

/// Returns the chain of an operation that failed because of a lock.
Chain lockFailed(Id id, char const* text = "locking operation failed", int error = EINVAL) {
    return {report(vesk::Mutex::ErrorId::INCONSISTENT, error), {id, rowText(id, text)}};
}

std::string aborted(std::string const& function, std::string const& text) {
    return "ABORT framework/src/vesk/posix/ProcessTNG " + function + ": " + text;
}

/// An operation during a child, with a fault.
struct OperationRow : NamedRow {
    bool (*call)(ProcessTNG& process, ExitState& state);
    Injected& function;
    int error;
    Chain chain{};   ///< Of a failed operation.
    int status = 77; ///< In the result of the wait, which is 77 before.
    int signal = 0;  ///< What ends the child.
    std::string event{};
};

bool start(ProcessTNG& process, ExitState& /*state*/) {
    return process.start() == -1;
}
template <bool TIMED>
bool wait(ProcessTNG& process, ExitState& state) {
    return process.wait(state, TIMED, 10);
}
template <bool GRACEFUL>
bool kill(ProcessTNG& process, ExitState& /*state*/) {
    return process.kill(GRACEFUL);
}
Chain const CONDITION_FAILED = {
    {SysErrorId::SPOILED_INTEGRITY},
    {Id::WAIT_FAILED, rowText(Id::WAIT_FAILED, "wait for process exit signal failed")}};
Chain killRefused(int error) {
    return {report(SysErrorId::PERMISSION_DENIED, error), report(Id::KILL_FAILED, error)};
}

OperationRow const OPERATIONS[] = {
    {"startWithoutItsLock", start, inject_pthread_mutex_lock, EINVAL, lockFailed(Id::START_FAILED)},
    {"startWithoutUnlock",
     start,
     inject_pthread_mutex_unlock,
     EINVAL,
     {{std::CommonErrorId::CONTRACT_BROKEN}},
     77,
     0,
     aborted("start", "error unlocking")},
    {"waitWithoutItsLock", wait<false>, inject_pthread_mutex_lock, EINVAL, lockFailed(Id::WAIT_FAILED)},
    {"timedWaitWithoutItsLock", wait<true>, inject_pthread_mutex_lock, EINVAL, lockFailed(Id::WAIT_FAILED)},
    {"waitWithoutItsCondition", wait<false>, inject_pthread_cond_wait, EINVAL, CONDITION_FAILED, -1},
    {"timedWaitWithoutItsCondition", wait<true>, inject_pthread_cond_timedwait, EINVAL, CONDITION_FAILED, -1},
    {"killWithoutItsLock", kill<true>, inject_pthread_mutex_lock, EINVAL, lockFailed(Id::KILL_FAILED)},
    {"killWithoutUnlock", kill<true>, inject_pthread_mutex_unlock, EINVAL,
     lockFailed(Id::KILL_FAILED, "unlocking operation failed"), 77, SIGTERM},
    {"killOfAChildThatHasJustEnded", kill<true>, inject_kill, ESRCH},
    {"killOfAChildThatHasJustEndedByForce", kill<false>, inject_kill, ESRCH},
    {"killWithEINVAL", kill<false>, inject_kill, EINVAL, killRefused(EINVAL)},
    {"killWithEPERM", kill<false>, inject_kill, EPERM, killRefused(EPERM)},
    {"killWithENOSYS", kill<false>, inject_kill, ENOSYS, {report(Id::KILL_FAILED, ENOSYS)}},
};

VESK_TEST_TABLE(ProcessOperationRows, haveThisOutcomeAndLeaveTheLocksFree, ProcessTNGFailure, OPERATIONS) {
    HeldChild child;
    ExitState state;
    state.status = 77;
    {
        EventRecorder recorder;
        Fault const fault(GetParam().function, GetParam().error);
        EXPECT_EQ(!GetParam().chain.empty(), GetParam().call(child.process, state));
        EXPECT_EQ(GetParam().event, recorder.getText());
        if (&GetParam().function == &inject_kill) {
            EXPECT_EQ(1, fault.getCalls());
        }
    }
    EXPECT_TRUE(chainIs(GetParam().chain));
    EXPECT_FALSE(state.hasExited());
    EXPECT_EQ(GetParam().status, state.status);
    EXPECT_TRUE(GetParam().signal == 0 ? child.ends() : wasKilledBy(waitFor(child.process), SIGTERM));
}

TEST_F(ProcessTNGFailure, theStaticOperationsReportTheirErrors) {
    std::pair<int, Chain> const kills[] = {
        {ESRCH, {report(Id::NOT_FOUND, ESRCH)}},
        {EINVAL, killRefused(EINVAL)},
        {EPERM, killRefused(EPERM)},
        {ENOSYS, {report(Id::KILL_FAILED, ENOSYS)}}};
    for (auto const& [error, chain] : kills) {
        SCOPED_TRACE(strerrorname_np(error));
        for (bool const graceful : {true, false}) {
            Fault const fault(inject_kill, error);
            EXPECT_TRUE(ProcessTNG::killProcess(getpid(), graceful));
            EXPECT_TRUE(chainIs(chain));
        }
    }
    for (auto const& [error, result] : {std::pair(EPERM, 0), {ESRCH, 1}, {EINVAL, -1}}) {
        Fault const fault(inject_kill, error);
        EXPECT_EQ(result, ProcessTNG::existsProcess(getpid())) << strerrorname_np(error);
        EXPECT_TRUE(chainIs(result == -1 ? Chain{report(SysErrorId::UNCLASSIFIED, error)} : Chain()));
    }
}

TEST_F(ProcessTNGFailure, startFailsWithoutTheCollectorsLockAndLeavesTheObjectLocked) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    for (int const nth : {1, 2}) { // Its own lock, the collector's.
        SCOPED_TRACE(nth);
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL, nth);
        EXPECT_EQ(-1, process->start());
        EXPECT_EQ(0, forks.getCalls());
        EXPECT_TRUE(chainIs(lockFailed(Id::START_FAILED)));
    }
    // This thread holds the lock.
    ExitState state;
    auto const deadlocked = [](Id id) { return lockFailed(id, "locking operation failed", EDEADLK); };
    EXPECT_TRUE(process->wait(state, false, 0));
    EXPECT_TRUE(chainIs(deadlocked(Id::WAIT_FAILED)));
    EXPECT_TRUE(process->kill(true));
    EXPECT_TRUE(chainIs(deadlocked(Id::KILL_FAILED)));
    EXPECT_EQ(-1, process->start());
    EXPECT_TRUE(chainIs(deadlocked(Id::START_FAILED)));
    EXPECT_EQ(0U, recorder.getCount());
    process.reset();
    EXPECT_TRUE(causeIs(vesk::Mutex::ErrorId::INCONSISTENT, EDEADLK));
    EXPECT_EQ(aborted("~ProcessTNG", "error locking"), recorder.getText());
    // The collector's own lock is free.
    ProcessTNG other;
    EXPECT_TRUE(runsExit(other, 3));
}

TEST_F(ProcessTNGFailure, startAbortsIfItCannotWakeTheCollector) {
    ProcessTNG process;
    EXPECT_TRUE(runsExit(process, 4)); // The collector has bound its condition, or will soon.
    waitForCollector();
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_cond_signal, EINVAL);
        EXPECT_GT(process.start(), 0);
    }
    EXPECT_EQ(aborted("start", "error signaling condition"), recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY}}));
    // If the collector still sleeps, another child wakes it.
    ProcessTNG other;
    EXPECT_TRUE(runsExit(other, 0));
    EXPECT_TRUE(hasExitedWith(waitFor(process), 4));
}

TEST_F(ProcessTNGFailure, startAbortsIfItCannotUnlock) {
    for (bool const forks : {true, false}) {
        // The lock of the collector, and of the object.
        for (int nth : {1, 2}) {
            SCOPED_TRACE(std::to_string(nth) + (forks ? ". unlock" : ". unlock without a fork"));
            EventRecorder recorder;
            ProcessTNG process;
            setExit(process, 0);
            {
                Fault const no_fork(inject_fork, forks ? 0 : EAGAIN);
                Fault const fault(inject_pthread_mutex_unlock, EINVAL, nth);
                EXPECT_EQ(forks, process.start() > 0);
            }
            EXPECT_EQ(aborted("start", "error unlocking"), recorder.getText());
            std::ErrorStorage::ack();
            EXPECT_TRUE(forks ? hasExitedWith(waitFor(process), 0) : runsExit(process, 0));
        }
    }
}

TEST_F(ProcessTNGFailure, waitFailsIfItCannotUnlockAfterItHasFetchedTheState) {
    ProcessTNG process;
    RecordingListener listener;
    listener.start(process, 6);
    ASSERT_TRUE(listener.waitForCalls());
    ExitState state;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_TRUE(process.wait(state, false, 0));
    }
    EXPECT_TRUE(chainIs(lockFailed(Id::WAIT_FAILED, "unlocking operation failed")));
    EXPECT_TRUE(hasExitedWith(state, 6));
    EXPECT_TRUE(hasNoState(process));
}

// One of two waiters fetches the state while the other one wakes up spuriously.
TEST_F(ProcessTNGFailure, aWaiterThatFindsNoStateAssertsAndSucceeds) {
    HeldChild child;
    EventRecorder recorder;
    ExitState states[2];
    {
        SleepingThread const first([&] { states[0] = waitFor(child.process); });
        SleepingThread const second([&] { states[1] = waitFor(child.process); });
        g_signal_wakes_all = true;
        child.release();
    }
    g_signal_wakes_all = false;
    EXPECT_NE(states[0].hasExited(), states[1].hasExited());
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/ProcessTNG wait: m_last_state.hasExited()", recorder.getText());
}

TEST_F(ProcessTNGFailure, theDestructorAbortsWithoutItsLock) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        process.reset();
    }
    // It cannot unlock either.
    EXPECT_EQ(
        aborted("~ProcessTNG", "error locking") + "\n" + aborted("~ProcessTNG", "error unlocking"),
        recorder.getText());
    std::ErrorStorage::ack();
}

TEST_F(ProcessTNGFailure, theDestructorAbortsIfItCannotWait) {
    HeldProbe held;
    auto process = std::make_unique<ProcessTNG>();
    held.set(*process);
    EXPECT_GT(process->start(), 0);
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_cond_wait, EINVAL);
        std::thread releaser([&] {
            EXPECT_TRUE(eventually([&] { return recorder.getCount() > 0; }));
            held.release();
        });
        process.reset();
        releaser.join();
    }
    EXPECT_EQ(aborted("~ProcessTNG", "error waiting on condition"), recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY}}));
}

struct LockingRow : NamedRow {
    void (*call)(std::unique_ptr<ProcessTNG>& process);
};

LockingRow const LOCKING_OPERATIONS[] = {
    {"destructor", [](auto& p) { p.reset(); }},
    {"setExecutable", [](auto& p) { p->setExecutable("/"); }},
    {"setArguments", [](auto& p) { p->setArguments({}); }},
    {"setEnvironment", [](auto& p) { p->setEnvironment({}); }},
    {"setStdoutFile", [](auto& p) { p->setStdoutFile("", false); }},
    {"setStderrFile", [](auto& p) { p->setStderrFile("", false); }},
    {"setStdinFile", [](auto& p) { p->setStdinFile(""); }},
    {"setStdoutFd", [](auto& p) { p->setStdoutFd(-1); }},
    {"setStderrFd", [](auto& p) { p->setStderrFd(-1); }},
    {"setStdinFd", [](auto& p) { p->setStdinFd(-1); }},
    {"setStdoutNull", [](auto& p) { p->setStdoutNull(false); }},
    {"setStderrNull", [](auto& p) { p->setStderrNull(false); }},
    {"setNewGroup", [](auto& p) { p->setNewGroup(false); }},
    {"setPriority", [](auto& p) { p->setPriority(true, 0); }},
    {"setSchedAttrs", [](auto& p) { p->setSchedAttrs({}); }},
    {"setAffinity", [](auto& p) { p->setAffinity({}); }},
    {"setExitListener", [](auto& p) { p->setExitListener(nullptr); }},
    {"init", [](auto& p) { p->init(); }},
    {"isValid", [](auto& p) { p->isValid(); }},
    {"getPid", [](auto& p) { p->getPid(); }},
    {"getLastPid", [](auto& p) { p->getLastPid(); }}};

VESK_TEST_TABLE(ProcessLocking, abortsIfItCannotUnlock, ProcessTNGFailure, LOCKING_OPERATIONS) {
    auto process = std::make_unique<ProcessTNG>();
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        GetParam().call(process);
    }
    std::string const name = process == nullptr ? "~ProcessTNG" : GetParam().what;
    EXPECT_EQ(aborted(name, "error unlocking"), recorder.getText());
    std::ErrorStorage::ack();
}

} // namespace
