#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

#include <climits>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>

// What is signalled, and with what.
namespace {

std::vector<std::pair<pid_t, int>> g_signals;

} // namespace

support::Injected inject_kill("kill");
extern "C" VESK_UNWATCHED int kill(pid_t pid, int signal) {
    g_signals.emplace_back(pid, signal);
    return reinterpret_cast<int (*)(pid_t, int)>(inject_kill.getReal())(pid, signal);
}

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::Event;
using support::hasExitedWith;
using support::HeldProbe;
using support::RecordingListener;
using support::run;
using support::setProbe;
using support::systemText;
using support::TempDir;
using support::waitFor;
using support::wasKilledBy;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::ProcessTNG;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using ExitState = ProcessTNG::ExitState;
using Signals = std::vector<std::pair<pid_t, int>>;

constexpr char const* NOTHING_LEFT =
    "Contract broken by the caller: no child process running, no child exit states left";

class ProcessTNGTest : public support::ProcessTest {
protected:
    void SetUp() override { g_signals.clear(); }
};

// ---- what it is ----

TEST_F(ProcessTNGTest, isNoValueAndHasAVirtualDestructor) {
    EXPECT_FALSE(std::is_copy_constructible_v<ProcessTNG>);
    EXPECT_FALSE(std::is_copy_assignable_v<ProcessTNG>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ProcessTNG>);
    EXPECT_TRUE(std::is_copy_assignable_v<ExitState>);
}

TEST_F(ProcessTNGTest, hasItsConstants) {
    EXPECT_EQ(-1, ProcessTNG::INVALID_PROCESS_ID);
    EXPECT_STREQ("", ProcessTNG::ExecutableSuffix);
}

TEST_F(ProcessTNGTest, hasFiveRowsOfErrorsAndSysErrorAsItsParent) {
    char const* const rows[] = {
        "Failed to start child process: %s", "Failed to create process object: %s",
        "Failed to kill child process: %s", "Failed to wait for child process: %s",
        "Process could not be found: %s"};
    for (int id = 0; id < 5; ++id) {
        EXPECT_STREQ(rows[id], ProcessTNG::Error.getRow(id)->format);
    }
    EXPECT_EQ(nullptr, ProcessTNG::Error.getRow(5));
    EXPECT_TRUE(ProcessTNG::Error.isA(SysError));
}

TEST_F(ProcessTNGTest, hasATraceChannel) {
    EXPECT_TRUE(tracing::Channel::setThreshold("FW_Vesk_Process", 7));
}

TEST_F(ProcessTNGTest, anExitStateBeginsEmpty) {
    ExitState const state;
    EXPECT_FALSE(state.hasExited());
    EXPECT_FALSE(state.exited);
    EXPECT_FALSE(state.killed);
    EXPECT_EQ(-1, state.status);
    EXPECT_EQ(nullptr, state.process);
}

TEST_F(ProcessTNGTest, beginsIdleAndValid) {
    ProcessTNG const process;
    EXPECT_TRUE(process.isValid());
    EXPECT_EQ(-1, process.getPid());
    EXPECT_EQ(-1, process.getLastPid());
}

TEST_F(ProcessTNGTest, isMadeWithAProgramAndItsArguments) {
    ProcessTNG process(support::getProbePath(), support::getProbeArguments({"exit", "7"}));
    EXPECT_TRUE(process.isValid());
    EXPECT_TRUE(hasExitedWith(run(process), 7));
}

TEST_F(ProcessTNGTest, isInvalidWhenMadeWithAMissingProgram) {
    ProcessTNG const process("/no/such/program");
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path '/no/such/program'"}}));
}

// ---- one child ----

TEST_F(ProcessTNGTest, tellsTheExitCodeOfAChild) {
    for (int const code : {0, 1, 7, 255}) {
        ProcessTNG process;
        setProbe(process, {"exit", std::to_string(code)});
        int const pid = process.start();
        EXPECT_GT(pid, 0);
        ExitState const state = waitFor(process);
        EXPECT_TRUE(hasExitedWith(state, code));
        EXPECT_EQ(&process, state.process);
    }
}

TEST_F(ProcessTNGTest, tellsTheSignalThatEndedAChild) {
    for (int const signal : {SIGTERM, SIGKILL, SIGABRT}) {
        ProcessTNG process;
        setProbe(process, {"die", std::to_string(signal)});
        EXPECT_TRUE(wasKilledBy(run(process), signal));
    }
}

TEST_F(ProcessTNGTest, startGivesTheIdOfTheChildThatRuns) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    int const pid = process.start();
    held.waitUntilBegun();
    EXPECT_EQ(pid, process.getPid());
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid));
    EXPECT_EQ(std::to_string(getpid()), support::threadField(pid, pid, 4)); // Its parent.
    held.release();
    waitFor(process);
    EXPECT_EQ(-1, process.getPid());
}

TEST_F(ProcessTNGTest, remembersTheIdOfTheLastChildUntilItsEndIsFetched) {
    ProcessTNG process;
    RecordingListener listener;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "0"});
    int const pid = process.start();
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(pid, process.getLastPid());
    waitFor(process);
    EXPECT_EQ(-1, process.getLastPid());
}

TEST_F(ProcessTNGTest, runsOneChildAfterTheOther) {
    ProcessTNG process;
    for (int code = 0; code < 5; ++code) {
        setProbe(process, {"exit", std::to_string(code)});
        EXPECT_TRUE(hasExitedWith(run(process), code));
    }
}

TEST_F(ProcessTNGTest, startWhileAChildRunsFailsAndLeavesThatChildAlone) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    int const pid = process.start();
    held.waitUntilBegun();
    EXPECT_EQ(-1, process.start());
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          "Contract broken by the caller: There is already a child running."}}));
    EXPECT_EQ(pid, process.getPid());
    EXPECT_EQ(0, ProcessTNG::existsProcess(pid));
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessTNGTest, startForgetsAnEndThatNobodyFetched) {
    ProcessTNG process;
    RecordingListener listener;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "1"});
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    setProbe(process, {"exit", "2"});
    EXPECT_TRUE(hasExitedWith(run(process), 2));
    ExitState state;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN, NOTHING_LEFT}}));
    EXPECT_TRUE(listener.waitForCalls(2)); // Which comes after the waiter.
}

TEST_F(ProcessTNGTest, theDestructorBlocksUntilTheChildHasEnded) {
    HeldProbe held;
    auto process = std::make_unique<ProcessTNG>();
    held.set(*process);
    EXPECT_GT(process->start(), 0);
    held.waitUntilBegun();
    Event destroyed;
    std::atomic<pid_t> destroyer{0};
    std::thread thread([&] {
        destroyer = static_cast<pid_t>(syscall(SYS_gettid));
        process.reset();
        destroyed.set();
    });
    EXPECT_TRUE(support::eventually([&] { return destroyer != 0; }));
    support::waitUntilAsleep(getpid(), destroyer);
    EXPECT_FALSE(destroyed.isSet());
    EXPECT_EQ(Signals(), g_signals); // It does not kill.
    held.release();
    EXPECT_TRUE(destroyed.wait());
    thread.join();
    held.waitUntilGone();
}

// ---- waiting ----

TEST_F(ProcessTNGTest, waitOnAnObjectThatNeverStartedAChildFails) {
    ProcessTNG process;
    ExitState state;
    state.status = 77;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN, NOTHING_LEFT}}));
    EXPECT_TRUE(process.wait(state, true, 1000));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN, NOTHING_LEFT}}));
    EXPECT_EQ(77, state.status);
}

TEST_F(ProcessTNGTest, waitAfterTheChildHasEndedReturnsItsStateOnce) {
    ProcessTNG process;
    RecordingListener listener;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "3"});
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_TRUE(hasExitedWith(waitFor(process), 3));
    ExitState state;
    EXPECT_TRUE(process.wait(state, false, 0));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN, NOTHING_LEFT}}));
}

TEST_F(ProcessTNGTest, aTimedWaitThatExpiresSucceedsAndALaterOneFetchesTheState) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    for (long long const timeout : {10LL, 0LL, -5LL, LLONG_MIN}) {
        ExitState state;
        state.exited = true;
        state.killed = true;
        state.status = 5;
        EXPECT_FALSE(process.wait(state, true, timeout)) << timeout;
        EXPECT_FALSE(state.hasExited());
        EXPECT_FALSE(state.killed);
        EXPECT_EQ(-1, state.status);
        EXPECT_EQ(&process, state.process);
        EXPECT_TRUE(chainIs({}));
    }
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessTNGTest, aTimedWaitWaitsForItsTime) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    long long const begin = tarnbase::TimePoint::now().getCount();
    ExitState state;
    EXPECT_FALSE(process.wait(state, true, 50));
    EXPECT_GE(tarnbase::TimePoint::now().getCount() - begin, 50);
    held.release();
    waitFor(process);
}

TEST_F(ProcessTNGTest, aTimedWaitEndsWithTheChildHoweverLongItsTime) {
    for (long long const timeout : {60000LL, LLONG_MAX}) {
        ProcessTNG process;
        setProbe(process, {"exit", "4"});
        EXPECT_GT(process.start(), 0);
        ExitState state;
        EXPECT_FALSE(process.wait(state, true, timeout));
        EXPECT_TRUE(hasExitedWith(state, 4));
    }
}

TEST_F(ProcessTNGTest, aSecondWaiterStaysBlockedUntilALaterChildEnds) {
    ProcessTNG process;
    HeldProbe first;
    first.set(process);
    EXPECT_GT(process.start(), 0);
    std::atomic<int> served{0};
    std::atomic<int> status[2] = {{-1}, {-1}};
    std::atomic<pid_t> waiters[2] = {{0}, {0}};
    auto const wait = [&](int i) {
        waiters[i] = static_cast<pid_t>(syscall(SYS_gettid));
        ExitState state;
        EXPECT_FALSE(process.wait(state, false, 0));
        status[i] = state.status;
        ++served;
    };
    std::thread threads[] = {std::thread(wait, 0), std::thread(wait, 1)};
    for (auto const& waiter : waiters) {
        EXPECT_TRUE(support::eventually([&] { return waiter != 0; }));
        support::waitUntilAsleep(getpid(), waiter);
    }
    first.release();
    EXPECT_TRUE(support::eventually([&] { return served == 1; }));
    int const left = status[0] == 0 ? 1 : 0;
    support::waitUntilAsleep(getpid(), waiters[left]);
    EXPECT_EQ(1, served);
    EXPECT_EQ(-1, status[left]);

    setProbe(process, {"exit", "6"});
    EXPECT_GT(process.start(), 0);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(6, status[left]);
}

TEST_F(ProcessTNGTest, aCancelledWaiterLetsGoOfTheObject) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer keeps marks of the stack of a cancelled thread that was unwound";
#endif
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    std::atomic<pid_t> waiter{0};
    struct Context {
        ProcessTNG& process;
        std::atomic<pid_t>& waiter;
    } context{process, waiter};
    pthread_t thread{};
    ASSERT_EQ(
        0,
        pthread_create(
            &thread, nullptr,
            [](void* argument) -> void* {
                auto& c = *static_cast<Context*>(argument);
                c.waiter = static_cast<pid_t>(syscall(SYS_gettid));
                ExitState state;
                c.process.wait(state, false, 0);
                return nullptr;
            },
            &context));
    EXPECT_TRUE(support::eventually([&] { return waiter != 0; }));
    support::waitUntilAsleep(getpid(), waiter);
    EXPECT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

// ---- ending a child ----

TEST_F(ProcessTNGTest, killEndsTheChildGracefullyOrNot) {
    for (bool const graceful : {true, false}) {
        g_signals.clear();
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        int const pid = process.start();
        held.waitUntilBegun();
        EXPECT_FALSE(process.kill(graceful));
        int const signal = graceful ? SIGTERM : SIGKILL;
        EXPECT_TRUE(wasKilledBy(waitFor(process), signal));
        EXPECT_EQ(Signals({{pid, signal}}), g_signals);
    }
}

TEST_F(ProcessTNGTest, aGracefulKillCanBeIgnoredByTheChild) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process, "stubborn");
    EXPECT_GT(process.start(), 0);
    held.waitUntilBegun();
    EXPECT_FALSE(process.kill(true));
    held.release();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
}

TEST_F(ProcessTNGTest, killAfterTheChildHasEndedSucceedsAndSendsNothing) {
    ProcessTNG process;
    EXPECT_FALSE(process.kill(true)); // Never started.
    setProbe(process, {"exit", "0"});
    run(process);
    EXPECT_FALSE(process.kill(true));
    EXPECT_FALSE(process.kill(false));
    EXPECT_EQ(Signals(), g_signals);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ProcessTNGTest, killSignalsTheWholeGroupOfAChildThatHasOne) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process, "brood");
    process.setNewGroup(true);
    int const pid = process.start();
    held.waitUntilBegun(2);
    // What is set for the next child does not touch this one.
    process.setNewGroup(false);
    EXPECT_FALSE(process.kill(false));
    EXPECT_EQ(Signals({{-pid, SIGKILL}}), g_signals);
    EXPECT_TRUE(wasKilledBy(waitFor(process), SIGKILL));
    held.waitUntilGone(); // The grandchild, too.
}

TEST_F(ProcessTNGTest, killSignalsTheChildAloneIfItHasNoGroupOfItsOwn) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process, "brood");
    int const pid = process.start();
    held.waitUntilBegun(2);
    process.setNewGroup(true);
    EXPECT_FALSE(process.kill(false));
    EXPECT_EQ(Signals({{pid, SIGKILL}}), g_signals);
    EXPECT_TRUE(wasKilledBy(waitFor(process), SIGKILL));
    held.release();
    held.waitUntilGone();
}

TEST_F(ProcessTNGTest, killOvertakesAWait) {
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    EXPECT_GT(process.start(), 0);
    held.waitUntilBegun();
    std::atomic<pid_t> waiter{0};
    ExitState state;
    std::thread thread([&] {
        waiter = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_FALSE(process.wait(state, false, 0));
    });
    EXPECT_TRUE(support::eventually([&] { return waiter != 0; }));
    support::waitUntilAsleep(getpid(), waiter);
    EXPECT_FALSE(process.kill(true));
    thread.join();
    EXPECT_TRUE(wasKilledBy(state, SIGTERM));
}

// ---- the program ----

TEST_F(ProcessTNGTest, setExecutableTakesAFileThatItsOwnerMayExecute) {
    TempDir const dir;
    support::writeFile(dir / "program", "");
    for (mode_t const mode : {0100U, 0700U, 0755U}) {
        ASSERT_EQ(0, chmod((dir / "program").c_str(), mode));
        ProcessTNG process;
        EXPECT_FALSE(process.setExecutable(dir / "program")) << mode;
        EXPECT_TRUE(process.isValid());
    }
}

TEST_F(ProcessTNGTest, setExecutableFailsOnAFileThatItsOwnerMayNotExecute) {
    TempDir const dir;
    support::writeFile(dir / "program", "");
    for (mode_t const mode : {0010U, 0001U, 0077U, 0666U, 0000U}) { // The group's bit alone does not do.
        ASSERT_EQ(0, chmod((dir / "program").c_str(), mode));
        ProcessTNG process;
        EXPECT_TRUE(process.setExecutable(dir / "program")) << mode;
        EXPECT_FALSE(process.isValid());
        EXPECT_TRUE(chainIs({{FileAccessErrorId::BAD_PATH, "Bad path '" + (dir / "program") + "'"}}));
    }
}

TEST_F(ProcessTNGTest, setExecutableFollowsLinks) {
    TempDir const dir;
    ProcessTNG process;
    ASSERT_EQ(0, symlink(support::getProbePath().c_str(), (dir / "link").c_str()));
    EXPECT_FALSE(process.setExecutable(dir / "link"));
    ASSERT_EQ(0, symlink("nowhere", (dir / "dangling").c_str()));
    EXPECT_TRUE(process.setExecutable(dir / "dangling"));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path '" + (dir / "dangling") + "'"}}));
}

TEST_F(ProcessTNGTest, setExecutableTakesADirectory) {
    ProcessTNG process;
    EXPECT_FALSE(process.setExecutable("/proc"));
    EXPECT_TRUE(process.isValid());
}

TEST_F(ProcessTNGTest, setExecutableFailsOnAMissingFileAndAnEmptyPath) {
    ProcessTNG process;
    EXPECT_TRUE(process.setExecutable("/no/such/program"));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path '/no/such/program'"}}));
    EXPECT_TRUE(process.setExecutable(""));
    EXPECT_TRUE(
        chainIs({{SysErrorId::INVALID_PATH}, {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path ''"}}));
}

TEST_F(ProcessTNGTest, anInvalidObjectStaysSoUntilItIsInitialisedAgain) {
    ProcessTNG process;
    EXPECT_TRUE(process.setExecutable("/no/such/program"));
    std::ErrorStorage::ack();
    EXPECT_FALSE(process.setExecutable(support::getProbePath()));
    EXPECT_FALSE(process.isValid());
    process.init();
    EXPECT_TRUE(process.isValid());
}

TEST_F(ProcessTNGTest, startDoesNotAskWhetherTheObjectIsValid) {
    TempDir const dir;
    // A file that its owner must not execute, but the group may: root's right does not ask for more.
    support::writeFile(dir / "script", "#!/bin/sh\nexit 9\n");
    ASSERT_EQ(0, chmod((dir / "script").c_str(), 0070));
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may execute what its owner may not";
    }
    ProcessTNG process;
    EXPECT_TRUE(process.setExecutable(dir / "script"));
    std::ErrorStorage::ack();
    EXPECT_FALSE(process.isValid());
    EXPECT_TRUE(hasExitedWith(run(process), 9));
}

TEST_F(ProcessTNGTest, initTakesBackTheRequestsButNotWhatElseIsSet) {
    TempDir const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", "err"});
    process.setStdoutFile(dir / "out", true);
    process.setStderrFile(dir / "err", true);
    support::writeFile(dir / "out", "old ");
    support::writeFile(dir / "err", "old ");
    process.setStdoutNull(true);
    process.setStderrNull(true);
    process.init();
    EXPECT_TRUE(hasExitedWith(run(process), 0));
    EXPECT_EQ("out", support::readFile(dir / "out"));
    EXPECT_EQ("err", support::readFile(dir / "err"));
}

TEST_F(ProcessTNGTest, prioritiesAreTakenAsTheyAre) {
    ProcessTNG process;
    EXPECT_FALSE(process.setPriority(false, 1000));
    EXPECT_FALSE(process.setPriority(true, 0));
    EXPECT_FALSE(process.setSchedAttrs(vesk::sched::Attr()));
    EXPECT_TRUE(process.isValid());
}

// ---- listeners ----

TEST_F(ProcessTNGTest, aListenerIsToldOfTheEnd) {
    RecordingListener listener;
    ProcessTNG process;
    process.setExitListener(&listener);
    setProbe(process, {"exit", "8"});
    EXPECT_GT(process.start(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_TRUE(hasExitedWith(listener.last, 8));
    EXPECT_EQ(&process, listener.last.process);
    EXPECT_TRUE(hasExitedWith(waitFor(process), 8)); // It takes nothing away from a waiter.
    EXPECT_EQ(1, listener.calls);
}

TEST_F(ProcessTNGTest, aListenerThatWasTakenBackIsNotTold) {
    RecordingListener listener;
    {
        ProcessTNG process;
        process.setExitListener(&listener);
        HeldProbe held;
        held.set(process);
        EXPECT_GT(process.start(), 0);
        process.setExitListener(nullptr);
        held.release();
        waitFor(process);
    }
    ProcessTNG::exit(); // The collector is gone now.
    EXPECT_EQ(0, listener.calls);
}

TEST_F(ProcessTNGTest, processExitedHandsAnEndOver) {
    RecordingListener listener;
    ProcessTNG process;
    process.setExitListener(&listener);
    ProcessTNG::processExited(&process, true, SIGHUP);
    EXPECT_TRUE(wasKilledBy(listener.last, SIGHUP));
    EXPECT_TRUE(wasKilledBy(waitFor(process), SIGHUP));
}

// ---- cancellation ----

TEST_F(ProcessTNGTest, aThreadThatIsBeingCancelledStartsItsChildAllTheSame) {
    TempDir const dir;
    ProcessTNG process;
    setProbe(process, {"say", "out", ""});
    process.setStdoutFile(dir / "out", false); // Opening it could be cancelled.
    std::thread([&] {
        EXPECT_EQ(0, pthread_cancel(pthread_self()));
        EXPECT_GT(process.start(), 0);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    EXPECT_TRUE(hasExitedWith(waitFor(process), 0));
    EXPECT_EQ("out", support::readFile(dir / "out"));
}

TEST_F(ProcessTNGTest, aThreadIsNotCancelledInTheDestructor) {
    HeldProbe held;
    std::atomic<pid_t> tid{0};
    Event destroyed;
    std::thread thread([&] {
        {
            ProcessTNG process;
            held.set(process);
            EXPECT_GT(process.start(), 0);
            tid = static_cast<pid_t>(syscall(SYS_gettid));
        }
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        destroyed.set();
    });
    held.waitUntilBegun();
    EXPECT_TRUE(support::eventually([&] { return tid != 0; }));
    support::waitUntilAsleep(getpid(), tid);
    EXPECT_EQ(0, pthread_cancel(thread.native_handle()));
    held.release();
    thread.join();
    EXPECT_TRUE(destroyed.isSet());
}

} // namespace
