#include "processes/ProcessSupport.h"

#include "support/Inject.h"
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

TEST_F(ProcessTNGFailure, startFailsWithoutItsLock) {
    ProcessTNG process;
    {
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_EQ(-1, process.start());
        EXPECT_EQ(0, forks.getCalls());
    }
    EXPECT_TRUE(chainIs(lockFailed(Id::START_FAILED)));
    EXPECT_TRUE(runsExit(process, 0));
}

TEST_F(ProcessTNGFailure, startFailsWithoutTheCollectorsLockAndLeavesTheObjectLocked) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    {
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL, 2);
        EXPECT_EQ(-1, process->start());
        EXPECT_EQ(0, forks.getCalls());
    }
    EXPECT_TRUE(chainIs(lockFailed(Id::START_FAILED)));
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
    for (int const nth : {1, 2, 3}) { // The lock of the condition, of the collector, of the object.
        EventRecorder recorder;
        ProcessTNG process;
        setExit(process, 0);
        {
            Fault const fault(inject_pthread_mutex_unlock, EINVAL, nth);
            EXPECT_GT(process.start(), 0);
        }
        EXPECT_EQ(
            nth == 1 ? "ABORT framework/src/vesk/posix/Condition signal: error unlocking"
                     : aborted("start", "error unlocking"),
            recorder.getText())
            << nth;
        std::ErrorStorage::ack();
        EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    }
}

TEST_F(ProcessTNGFailure, startUnlocksTheObjectFirstAfterAFailedFork) {
    for (int const nth : {1, 2}) {
        EventRecorder recorder;
        ProcessTNG process;
        {
            Fault const no_fork(inject_fork, EAGAIN);
            Fault const fault(inject_pthread_mutex_unlock, EINVAL, nth);
            EXPECT_EQ(-1, process.start());
        }
        EXPECT_EQ(aborted("start", "error unlocking"), recorder.getText());
        std::ErrorStorage::ack();
        EXPECT_TRUE(runsExit(process, 0));
    }
}

TEST_F(ProcessTNGFailure, startDuringAChildAbortsIfItCannotUnlock) {
    HeldChild child;
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_EQ(-1, child.process.start());
    }
    EXPECT_EQ(aborted("start", "error unlocking"), recorder.getText());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_F(ProcessTNGFailure, waitFailsWithoutItsLock) {
    HeldChild child;
    for (bool const timed : {false, true}) {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        ExitState state;
        state.status = 77;
        EXPECT_TRUE(child.process.wait(state, timed, 10));
        EXPECT_TRUE(chainIs(lockFailed(Id::WAIT_FAILED)));
        EXPECT_EQ(77, state.status);
    }
    EXPECT_TRUE(child.ends());
}

TEST_F(ProcessTNGFailure, waitFailsWithItsConditionAndUnlocks) {
    HeldChild child;
    for (bool const timed : {false, true}) {
        Fault const fault(timed ? inject_pthread_cond_timedwait : inject_pthread_cond_wait, EINVAL);
        ExitState state;
        state.status = 77;
        EXPECT_TRUE(child.process.wait(state, timed, 10));
        EXPECT_FALSE(state.hasExited());
        EXPECT_EQ(-1, state.status);
        EXPECT_TRUE(chainIs(
            {{SysErrorId::SPOILED_INTEGRITY},
             {Id::WAIT_FAILED, rowText(Id::WAIT_FAILED, "wait for process exit signal failed")}}));
    }
    EXPECT_TRUE(child.ends());
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

TEST_F(ProcessTNGFailure, killFailsWithoutItsLock) {
    HeldChild child;
    {
        Fault const kills(inject_kill, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(child.process.kill(true));
        EXPECT_EQ(0, kills.getCalls());
    }
    EXPECT_TRUE(chainIs(lockFailed(Id::KILL_FAILED)));
}

TEST_F(ProcessTNGFailure, killFailsIfItCannotUnlockAfterTheSignal) {
    HeldChild child;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_TRUE(child.process.kill(true));
    }
    EXPECT_TRUE(chainIs(lockFailed(Id::KILL_FAILED, "unlocking operation failed")));
    EXPECT_TRUE(wasKilledBy(waitFor(child.process), SIGTERM));
}

TEST_F(ProcessTNGFailure, killSucceedsIfTheChildHasJustEnded) {
    HeldChild child;
    {
        Fault const fault(inject_kill, ESRCH);
        EXPECT_FALSE(child.process.kill(true));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({}));
}

struct ErrnoRow {
    int error;
    int result;
    Chain chain;

    friend void PrintTo(ErrnoRow const& row, std::ostream* out) { *out << "errno " << row.error; }
};

class ProcessKillRows : public ProcessTNGFailure, public testing::WithParamInterface<ErrnoRow> {};

TEST_P(ProcessKillRows, areReportedByTheStaticOperation) {
    for (bool const graceful : {true, false}) {
        Fault const fault(inject_kill, GetParam().error);
        EXPECT_TRUE(ProcessTNG::killProcess(getpid(), graceful));
        EXPECT_TRUE(chainIs(GetParam().chain));
    }
}

TEST_P(ProcessKillRows, areReportedByAnObjectUnlessTheChildHasEnded) {
    HeldChild child;
    {
        Fault const fault(inject_kill, GetParam().error);
        EXPECT_EQ(GetParam().result != 0, child.process.kill(false));
    }
    EXPECT_TRUE(chainIs(GetParam().result != 0 ? GetParam().chain : Chain()));
    EXPECT_TRUE(child.ends());
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessKillRows,
    testing::Values(
        ErrnoRow{ESRCH, 0, {report(Id::NOT_FOUND, ESRCH)}},
        ErrnoRow{EINVAL, 1, {report(SysErrorId::PERMISSION_DENIED, EINVAL), report(Id::KILL_FAILED, EINVAL)}},
        ErrnoRow{EPERM, 1, {report(SysErrorId::PERMISSION_DENIED, EPERM), report(Id::KILL_FAILED, EPERM)}},
        ErrnoRow{ENOSYS, 1, {report(Id::KILL_FAILED, ENOSYS)}}));

class ProcessExistsRows : public ProcessTNGFailure, public testing::WithParamInterface<ErrnoRow> {};

TEST_P(ProcessExistsRows, haveThisResult) {
    Fault const fault(inject_kill, GetParam().error);
    EXPECT_EQ(GetParam().result, ProcessTNG::existsProcess(getpid()));
    EXPECT_TRUE(chainIs(GetParam().chain));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessExistsRows,
    testing::Values(
        ErrnoRow{EPERM, 0, {}}, ErrnoRow{ESRCH, 1, {}},
        ErrnoRow{EINVAL, -1, {report(SysErrorId::UNCLASSIFIED, EINVAL)}}));

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

struct LockingRow {
    std::string name;
    void (*call)(std::unique_ptr<ProcessTNG>& process);

    friend void PrintTo(LockingRow const& row, std::ostream* out) { *out << row.name; }
};

class ProcessLocking : public ProcessTNGFailure, public testing::WithParamInterface<LockingRow> {};

TEST_P(ProcessLocking, abortsIfItCannotUnlock) {
    auto process = std::make_unique<ProcessTNG>();
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        GetParam().call(process);
    }
    std::string const name = GetParam().name == "destructor" ? "~ProcessTNG" : GetParam().name;
    EXPECT_EQ(aborted(name, "error unlocking"), recorder.getText());
    std::ErrorStorage::ack();
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessLocking,
    testing::Values(
        LockingRow{"destructor", [](auto& p) { p.reset(); }},
        LockingRow{"setExecutable", [](auto& p) { p->setExecutable("/"); }},
        LockingRow{"setArguments", [](auto& p) { p->setArguments({}); }},
        LockingRow{"setEnvironment", [](auto& p) { p->setEnvironment({}); }},
        LockingRow{"setStdoutFile", [](auto& p) { p->setStdoutFile("", false); }},
        LockingRow{"setStderrFile", [](auto& p) { p->setStderrFile("", false); }},
        LockingRow{"setStdinFile", [](auto& p) { p->setStdinFile(""); }},
        LockingRow{"setStdoutFd", [](auto& p) { p->setStdoutFd(-1); }},
        LockingRow{"setStderrFd", [](auto& p) { p->setStderrFd(-1); }},
        LockingRow{"setStdinFd", [](auto& p) { p->setStdinFd(-1); }},
        LockingRow{"setStdoutNull", [](auto& p) { p->setStdoutNull(false); }},
        LockingRow{"setStderrNull", [](auto& p) { p->setStderrNull(false); }},
        LockingRow{"setNewGroup", [](auto& p) { p->setNewGroup(false); }},
        LockingRow{"setPriority", [](auto& p) { p->setPriority(true, 0); }},
        LockingRow{"setSchedAttrs", [](auto& p) { p->setSchedAttrs({}); }},
        LockingRow{"setAffinity", [](auto& p) { p->setAffinity({}); }},
        LockingRow{"setExitListener", [](auto& p) { p->setExitListener(nullptr); }},
        LockingRow{"init", [](auto& p) { p->init(); }}, LockingRow{"isValid", [](auto& p) { p->isValid(); }},
        LockingRow{"getPid", [](auto& p) { p->getPid(); }},
        LockingRow{"getLastPid", [](auto& p) { p->getLastPid(); }}),
    [](auto const& row) { return row.param.name; });

} // namespace
