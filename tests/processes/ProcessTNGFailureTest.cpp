#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/Condition.h>
#include <vesk/FileAccessError.h>
#include <vesk/Mutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <csignal>
#include <functional>
#include <memory>
#include <pthread.h>
#include <sys/syscall.h>
#include <thread>

namespace {

// Whether a failing unlock lets go of the lock all the same.
std::atomic<bool> g_failing_unlock_unlocks{true};
std::atomic<bool> g_signal_wakes_all{false};

template <typename Function>
VESK_UNWATCHED Function* getReal(support::Injected& injected, Function*) {
    return reinterpret_cast<Function*>(injected.getReal());
}

} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))

support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    if (fails && !g_failing_unlock_unlocks) {
        return error;
    }
    int const result = getReal(inject_pthread_mutex_unlock, &pthread_mutex_unlock)(mutex);
    return fails ? error : result;
}

VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))

support::Injected inject_pthread_cond_signal("pthread_cond_signal");
extern "C" VESK_UNWATCHED int pthread_cond_signal(pthread_cond_t* condition) {
    int error = 0;
    if (inject_pthread_cond_signal.fails(error)) {
        return error;
    }
    return g_signal_wakes_all ? pthread_cond_broadcast(condition)
                              : getReal(inject_pthread_cond_signal, &pthread_cond_signal)(condition);
}

VESK_INJECT_ERRNO(int, -1, kill, (pid_t pid, int signal), (pid, signal))
VESK_INJECT_ERRNO(pid_t, -1, fork, (), ())

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::hasExitedWith;
using support::HeldProbe;
using support::rowText;
using support::run;
using support::setProbe;
using support::systemText;
using support::waitFor;
using vesk::Mutex;
using vesk::ProcessTNG;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using ExitState = ProcessTNG::ExitState;

class ProcessTNGFailure : public support::ProcessTest {
protected:
    void SetUp() override { g_failing_unlock_unlocks = true; }

    /// Waits until the collector waits for children to be started.
    static void makeCollectorIdle() {
        pid_t collector = 0;
        EXPECT_TRUE(support::eventually([&] { return (collector = support::findCollector()) != 0; }));
        support::waitUntilAsleep(getpid(), collector);
    }
};

ExpectedReport lockFailed(int error = EINVAL) {
    return {
        Mutex::Error, Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(error))};
}

ExpectedReport failed(int id, std::string const& what) {
    return {ProcessTNG::Error, id, rowText(ProcessTNG::Error, id, what)};
}

std::string aborted(std::string const& file, std::string const& function, std::string const& text) {
    return "ABORT framework/src/vesk/posix/" + file + " " + function + ": " + text;
}

// ---- start ----

TEST_F(ProcessTNGFailure, startFailsWithoutItsLock) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    {
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_EQ(-1, process.start());
        EXPECT_EQ(0, forks.getCalls());
    }
    EXPECT_TRUE(chainIs({lockFailed(), failed(0, "locking operation failed")}));
    EXPECT_TRUE(hasExitedWith(run(process), 0));
}

TEST_F(ProcessTNGFailure, startFailsWithoutTheCollectorsLockAndLeavesTheObjectLocked) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    setProbe(*process, {"exit", "0"});
    {
        Fault const forks(inject_fork, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL, 2);
        EXPECT_EQ(-1, process->start());
        EXPECT_EQ(0, forks.getCalls());
    }
    EXPECT_TRUE(chainIs({lockFailed(), failed(0, "locking operation failed")}));
    // Held by this very thread.
    ExitState state;
    EXPECT_TRUE(process->wait(state, false, 0));
    EXPECT_TRUE(chainIs({lockFailed(EDEADLK), failed(3, "locking operation failed")}));
    EXPECT_TRUE(process->kill(true));
    EXPECT_TRUE(chainIs({lockFailed(EDEADLK), failed(2, "locking operation failed")}));
    EXPECT_EQ(-1, process->start());
    EXPECT_TRUE(chainIs({lockFailed(EDEADLK), failed(0, "locking operation failed")}));
    EXPECT_EQ(0U, recorder.getCount());
    process.reset();
    EXPECT_TRUE(chainIs({lockFailed(EDEADLK)}));
    EXPECT_EQ(aborted("ProcessTNG", "~ProcessTNG", "error locking"), recorder.getText());
    // The collector's own lock is free.
    ProcessTNG other;
    setProbe(other, {"exit", "3"});
    EXPECT_TRUE(hasExitedWith(run(other), 3));
}

TEST_F(ProcessTNGFailure, startCannotGoOnWithoutWakingTheCollector) {
    ProcessTNG process;
    setProbe(process, {"exit", "4"});
    EXPECT_TRUE(
        hasExitedWith(run(process), 4)); // The collector has bound its condition, or will do so on its way.
    makeCollectorIdle();
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_cond_signal, EINVAL);
        EXPECT_GT(process.start(), 0);
    }
    EXPECT_EQ(aborted("ProcessTNG", "start", "error signaling condition"), recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY}}));
    // The collector may not have been woken: another child does it.
    ProcessTNG other;
    setProbe(other, {"exit", "0"});
    EXPECT_TRUE(hasExitedWith(run(other), 0));
    EXPECT_TRUE(hasExitedWith(waitFor(process), 4));
}

TEST_F(ProcessTNGFailure, startCannotGoOnWithoutUnlocking) {
    for (int const nth : {1, 2, 3}) { // The condition's, the collector's, the object's.
        EventRecorder recorder;
        ProcessTNG process;
        setProbe(process, {"exit", "0"});
        {
            Fault const fault(inject_pthread_mutex_unlock, EINVAL, nth);
            EXPECT_GT(process.start(), 0);
        }
        std::string const expected = nth == 1
            ? "ABORT framework/src/vesk/posix/Condition signal: error unlocking"
            : aborted("ProcessTNG", "start", "error unlocking");
        EXPECT_EQ(expected, recorder.getText()) << nth;
        std::ErrorStorage::ack();
        EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    }
}

TEST_F(ProcessTNGFailure, startUnlocksTheObjectFirstAfterAForkThatFailed) {
    for (int const nth : {1, 2}) {
        EventRecorder recorder;
        ProcessTNG process;
        setProbe(process, {"exit", "0"});
        {
            Fault const no_fork(inject_fork, EAGAIN);
            Fault const fault(inject_pthread_mutex_unlock, EINVAL, nth);
            EXPECT_EQ(-1, process.start());
        }
        EXPECT_EQ(aborted("ProcessTNG", "start", "error unlocking"), recorder.getText());
        std::ErrorStorage::ack();
        EXPECT_TRUE(hasExitedWith(run(process), 0));
    }
}

TEST_F(ProcessTNGFailure, startDuringAChildCannotGoOnWithoutUnlocking) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_EQ(-1, process.start());
    }
    EXPECT_EQ(aborted("ProcessTNG", "start", "error unlocking"), recorder.getText());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    held.release();
    waitFor(process);
}

// ---- wait ----

TEST_F(ProcessTNGFailure, waitFailsWithoutItsLock) {
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    EXPECT_GT(process.start(), 0);
    for (bool const timed : {false, true}) {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        ExitState state;
        state.status = 77;
        EXPECT_TRUE(process.wait(state, timed, 10));
        EXPECT_TRUE(chainIs({lockFailed(), failed(3, "locking operation failed")}));
        EXPECT_EQ(77, state.status);
    }
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessTNGFailure, waitFailsWhenItsConditionDoesAndLetsGoOfTheLock) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    {
        Fault const fault(inject_pthread_cond_wait, EINVAL);
        ExitState state;
        state.status = 77;
        EXPECT_TRUE(process.wait(state, false, 0));
        EXPECT_FALSE(state.hasExited());
        EXPECT_EQ(-1, state.status);
        EXPECT_TRUE(
            chainIs({{SysErrorId::SPOILED_INTEGRITY}, failed(3, "wait for process exit signal failed")}));
    }
    {
        Fault const fault(inject_pthread_cond_timedwait, EINVAL);
        ExitState state;
        EXPECT_TRUE(process.wait(state, true, 10));
        EXPECT_TRUE(
            chainIs({{SysErrorId::SPOILED_INTEGRITY}, failed(3, "wait for process exit signal failed")}));
    }
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessTNGFailure, waitFailsWhenItCannotUnlockThoughItHasFetchedTheState) {
    ProcessTNG process;
    support::RecordingListener listener;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "6"});
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    ExitState state;
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_TRUE(process.wait(state, false, 0));
    }
    EXPECT_TRUE(chainIs({lockFailed(), failed(3, "unlocking operation failed")}));
    EXPECT_TRUE(hasExitedWith(state, 6));
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_F(ProcessTNGFailure, aWaiterThatIsWokenWithoutAStateLeftAssertsAndSucceeds) {
    // Two wait for one end. The first one fetches it while the second one wakes up for nothing, which conditions may do.
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    EventRecorder recorder;
    ExitState states[2];
    std::atomic<pid_t> waiters[2] = {{0}, {0}};
    auto const wait = [&](int i) {
        waiters[i] = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_FALSE(process.wait(states[i], false, 0));
    };
    std::thread threads[] = {std::thread(wait, 0), std::thread(wait, 1)};
    for (auto const& waiter : waiters) {
        EXPECT_TRUE(support::eventually([&] { return waiter != 0; }));
        support::waitUntilAsleep(getpid(), waiter);
    }
    g_signal_wakes_all = true;
    held.release();
    for (std::thread& thread : threads) {
        thread.join();
    }
    g_signal_wakes_all = false;
    EXPECT_NE(states[0].hasExited(), states[1].hasExited());
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/ProcessTNG wait: m_last_state.hasExited()", recorder.getText());
}

// ---- kill ----

TEST_F(ProcessTNGFailure, killFailsWithoutItsLock) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    {
        Fault const kills(inject_kill, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(process.kill(true));
        EXPECT_EQ(0, kills.getCalls());
    }
    EXPECT_TRUE(chainIs({lockFailed(), failed(2, "locking operation failed")}));
    held.release();
    waitFor(process);
}

TEST_F(ProcessTNGFailure, killFailsWhenItCannotUnlockThoughItHasSignalled) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    held.waitUntilBegun();
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_TRUE(process.kill(true));
    }
    EXPECT_TRUE(chainIs({lockFailed(), failed(2, "unlocking operation failed")}));
    EXPECT_TRUE(support::wasKilledBy(waitFor(process), SIGTERM));
}

TEST_F(ProcessTNGFailure, killSucceedsWhenTheChildHasJustGone) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    {
        Fault const fault(inject_kill, ESRCH);
        EXPECT_FALSE(process.kill(true));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({}));
    held.release();
    waitFor(process);
}

struct KillRow {
    int error;
    std::vector<ExpectedReport> chain;
};

void PrintTo(KillRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ProcessKillRows : public ProcessTNGFailure, public testing::WithParamInterface<KillRow> {};

TEST_P(ProcessKillRows, areReportedByTheStaticOperation) {
    Fault const fault(inject_kill, GetParam().error);
    for (bool const graceful : {true, false}) {
        Fault const each(inject_kill, GetParam().error);
        EXPECT_TRUE(ProcessTNG::killProcess(getpid(), graceful));
        EXPECT_TRUE(chainIs(GetParam().chain));
    }
}

TEST_P(ProcessKillRows, areReportedByAnObjectUnlessTheChildHasGone) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    {
        Fault const fault(inject_kill, GetParam().error);
        EXPECT_EQ(GetParam().error != ESRCH, process.kill(false));
    }
    EXPECT_TRUE(chainIs(GetParam().error != ESRCH ? GetParam().chain : std::vector<ExpectedReport>()));
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessKillRows,
    testing::Values(
        KillRow{ESRCH, {failed(4, systemText(ESRCH))}},
        KillRow{
            EINVAL,
            {{SysError, SysErrorId::PERMISSION_DENIED,
              rowText(SysErrorId::PERMISSION_DENIED, systemText(EINVAL))},
             failed(2, systemText(EINVAL))}},
        KillRow{
            EPERM,
            {{SysError, SysErrorId::PERMISSION_DENIED,
              rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
             failed(2, systemText(EPERM))}},
        KillRow{ENOSYS, {failed(2, systemText(ENOSYS))}}));

// ---- existsProcess ----

struct ExistsRow {
    int error;
    signed char result;
    std::vector<ExpectedReport> chain;
};

void PrintTo(ExistsRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ProcessExistsRows : public ProcessTNGFailure, public testing::WithParamInterface<ExistsRow> {};

TEST_P(ProcessExistsRows, giveTheirAnswer) {
    Fault const fault(inject_kill, GetParam().error);
    EXPECT_EQ(GetParam().result, ProcessTNG::existsProcess(getpid()));
    EXPECT_TRUE(chainIs(GetParam().chain));
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessExistsRows,
    testing::Values(
        ExistsRow{EPERM, 0, {}}, ExistsRow{ESRCH, 1, {}},
        ExistsRow{
            EINVAL,
            -1,
            {{SysError, SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EINVAL))}}}));

// ---- the destructor ----

TEST_F(ProcessTNGFailure, theDestructorCannotGoOnWithoutItsLock) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        process.reset();
    }
    // Nor can it unlock what it does not hold.
    EXPECT_EQ(
        aborted("ProcessTNG", "~ProcessTNG", "error locking") + "\n" +
            aborted("ProcessTNG", "~ProcessTNG", "error unlocking"),
        recorder.getText());
    std::ErrorStorage::ack();
}

TEST_F(ProcessTNGFailure, theDestructorCannotGoOnWithoutUnlocking) {
    EventRecorder recorder;
    auto process = std::make_unique<ProcessTNG>();
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        process.reset();
    }
    EXPECT_EQ(aborted("ProcessTNG", "~ProcessTNG", "error unlocking"), recorder.getText());
    std::ErrorStorage::ack();
}

TEST_F(ProcessTNGFailure, theDestructorCannotGoOnWithoutWaiting) {
    HeldProbe held;
    auto process = std::make_unique<ProcessTNG>();
    held.set(*process);
    EXPECT_GT(process->start(), 0);
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_cond_wait, EINVAL);
        std::thread releaser([&] {
            EXPECT_TRUE(support::eventually([&] { return recorder.getCount() > 0; }));
            held.release();
        });
        process.reset();
        releaser.join();
    }
    EXPECT_EQ(aborted("ProcessTNG", "~ProcessTNG", "error waiting on condition"), recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::SPOILED_INTEGRITY}}));
}

// ---- what a start reads ----

TEST_F(ProcessTNGFailure, whatIsSetIsSetUnderTheLock) {
    struct Setter {
        char const* name;
        std::function<void(ProcessTNG&)> call;
    };
    Setter const setters[] = {
        {"setExecutable", [](ProcessTNG& p) { p.setExecutable("/"); }},
        {"setArguments", [](ProcessTNG& p) { p.setArguments({}); }},
        {"setEnvironment", [](ProcessTNG& p) { p.setEnvironment({}); }},
        {"setStdoutFile", [](ProcessTNG& p) { p.setStdoutFile("", false); }},
        {"setStderrFile", [](ProcessTNG& p) { p.setStderrFile("", false); }},
        {"setStdinFile", [](ProcessTNG& p) { p.setStdinFile(""); }},
        {"setStdoutFd", [](ProcessTNG& p) { p.setStdoutFd(-1); }},
        {"setStderrFd", [](ProcessTNG& p) { p.setStderrFd(-1); }},
        {"setStdinFd", [](ProcessTNG& p) { p.setStdinFd(-1); }},
        {"setStdoutNull", [](ProcessTNG& p) { p.setStdoutNull(false); }},
        {"setStderrNull", [](ProcessTNG& p) { p.setStderrNull(false); }},
        {"setNewGroup", [](ProcessTNG& p) { p.setNewGroup(false); }},
        {"setPriority", [](ProcessTNG& p) { p.setPriority(true, 0); }},
        {"setSchedAttrs", [](ProcessTNG& p) { p.setSchedAttrs({}); }},
        {"setAffinity", [](ProcessTNG& p) { p.setAffinity({}); }},
        {"setExitListener", [](ProcessTNG& p) { p.setExitListener(nullptr); }},
        {"init", [](ProcessTNG& p) { p.init(); }},
        {"isValid", [](ProcessTNG& p) { p.isValid(); }},
        {"getPid", [](ProcessTNG& p) { p.getPid(); }},
        {"getLastPid", [](ProcessTNG& p) { p.getLastPid(); }},
    };
    for (Setter const& setter : setters) {
        ProcessTNG process;
        EventRecorder recorder;
        g_failing_unlock_unlocks = true;
        {
            Fault const fault(inject_pthread_mutex_unlock, EINVAL);
            setter.call(process);
        }
        EXPECT_EQ(aborted("ProcessTNG", setter.name, "error unlocking"), recorder.getText()) << setter.name;
        std::ErrorStorage::ack();
    }
}

} // namespace
