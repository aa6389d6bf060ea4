#include "processes/ProcessSupport.h"

#include "support/CleanEnd.h"
#include "support/Inject.h"
#include "support/NamedRow.h"
#include "support/UnlockFault.h"

#include <vesk/Mutex.h>

#include <memory>

namespace {

std::atomic<bool> g_signal_wakes_all{false};

} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))

support::Injected inject_pthread_cond_signal("pthread_cond_signal");
extern "C" VESK_UNWATCHED int pthread_cond_signal(pthread_cond_t* condition) {
    int error = 0;
    if (inject_pthread_cond_signal.fails(error)) {
        return error;
    }
    using Real = int (*)(pthread_cond_t*);
    return g_signal_wakes_all ? pthread_cond_broadcast(condition)
                              : reinterpret_cast<Real>(inject_pthread_cond_signal.getReal())(condition);
}

VESK_INJECT_ERRNO(int, -1, kill, (pid_t pid, int signal), (pid, signal))
VESK_INJECT_ERRNO(pid_t, -1, fork, (), ())

namespace {

using namespace support;
using Chain = std::vector<ExpectedReport>;
using Id = ProcessTNG::ErrorId;
namespace SysErrorId = vesk::SysErrorId;

class ProcessTNGFailure : public ProcessTest {};

template <typename AnyId>
ExpectedReport report(AnyId id, int error) {
    return {id, rowText(id, systemText(error))};
}

/// Returns the chain of an operation that failed because of a lock.
Chain lockFailed(Id id, char const* text = "locking operation failed", int error = EINVAL) {
    return {report(vesk::Mutex::ErrorId::INCONSISTENT, error), {id, rowText(id, text)}};
}
Chain deadlocked(Id id) {
    return lockFailed(id, "locking operation failed", EDEADLK);
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

class ProcessOperationRows : public ProcessTNGFailure, public testing::WithParamInterface<OperationRow> {};

TEST_P(ProcessOperationRows, haveThisOutcomeAndLeaveTheLocksFree) {
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

INSTANTIATE_TEST_SUITE_P(
    DuringAChild, ProcessOperationRows,
    rowsOf<OperationRow>({
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
        {"timedWaitWithoutItsLock", wait<true>, inject_pthread_mutex_lock, EINVAL,
         lockFailed(Id::WAIT_FAILED)},
        {"waitWithoutItsCondition", wait<false>, inject_pthread_cond_wait, EINVAL, CONDITION_FAILED, -1},
        {"timedWaitWithoutItsCondition", wait<true>, inject_pthread_cond_timedwait, EINVAL, CONDITION_FAILED,
         -1},
        {"killWithoutItsLock", kill<true>, inject_pthread_mutex_lock, EINVAL, lockFailed(Id::KILL_FAILED)},
        {"killWithoutUnlock", kill<true>, inject_pthread_mutex_unlock, EINVAL,
         lockFailed(Id::KILL_FAILED, "unlocking operation failed"), 77, SIGTERM},
        {"killOfAChildThatHasJustEnded", kill<true>, inject_kill, ESRCH},
        {"killOfAChildThatHasJustEndedByForce", kill<false>, inject_kill, ESRCH},
        {"killWithEINVAL", kill<false>, inject_kill, EINVAL, killRefused(EINVAL)},
        {"killWithEPERM", kill<false>, inject_kill, EPERM, killRefused(EPERM)},
        {"killWithENOSYS", kill<false>, inject_kill, ENOSYS, {report(Id::KILL_FAILED, ENOSYS)}},
    }),
    byName);

TEST_F(ProcessTNGFailure, theStaticOperationsReportTheirErrors) {
    std::pair<int, Chain> const kills[] = {
        {ESRCH, {report(Id::NOT_FOUND, ESRCH)}},
        {EINVAL, killRefused(EINVAL)},
        {EPERM, killRefused(EPERM)},
        {ENOSYS, {report(Id::KILL_FAILED, ENOSYS)}}};
    for (auto const& [error, chain] : kills) {
        for (bool const graceful : {true, false}) {
            Fault const fault(inject_kill, error);
            EXPECT_TRUE(ProcessTNG::killProcess(getpid(), graceful));
            EXPECT_TRUE(chainIs(chain));
        }
    }
    for (auto const& [error, result] : {std::pair(EPERM, 0), {ESRCH, 1}, {EINVAL, -1}}) {
        Fault const fault(inject_kill, error);
        EXPECT_EQ(result, ProcessTNG::existsProcess(getpid()));
        EXPECT_TRUE(chainIs(result == -1 ? Chain{report(SysErrorId::UNCLASSIFIED, error)} : Chain()));
    }
}

TEST_F(ProcessTNGFailure, startFailsWithoutTheCollectorsLockAndLeavesTheObjectLocked) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    for (int const nth : {1, 2}) { // Its own lock, the collector's.
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL, nth);
        EXPECT_EQ(-1, process->start());
        EXPECT_EQ(0, forks.getCalls());
        EXPECT_TRUE(chainIs(lockFailed(Id::START_FAILED)));
    }
    // This thread holds the lock.
    ExitState state;
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
    process.setExitListener(&listener);
    setExit(process, 6);
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
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

class ProcessLocking : public ProcessTNGFailure, public testing::WithParamInterface<LockingRow> {};

TEST_P(ProcessLocking, abortsIfItCannotUnlock) {
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

INSTANTIATE_TEST_SUITE_P(
    All, ProcessLocking,
    rowsOf<LockingRow>(
        {{"destructor", [](auto& p) { p.reset(); }},
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
         {"getLastPid", [](auto& p) { p->getLastPid(); }}}),
    byName);

} // namespace
