#include "processes/ProcessSupport.h"

#include "support/CleanEnd.h"
#include "support/ErrnoRows.h"
#include "support/Inject.h"

#include <vesk/FileAccessError.h>

#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/tracing/Channel.h>

#include <climits>
#include <memory>
#include <optional>
#include <type_traits>

// Records the signals that are sent.
namespace {
std::vector<std::pair<pid_t, int>> g_signals;
} // namespace

support::Injected inject_kill("kill");
extern "C" VESK_UNWATCHED int kill(pid_t pid, int signal) {
    g_signals.emplace_back(pid, signal);
    return reinterpret_cast<int (*)(pid_t, int)>(inject_kill.getReal())(pid, signal);
}

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
using vesk::SysErrorId::INVALID_PATH;
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
        EXPECT_TRUE(hasExitedWith(state, code));
        EXPECT_EQ(&process, state.process);
    }
    for (int const signal : {SIGTERM, SIGKILL, SIGABRT}) {
        setProbe(process, {"die", std::to_string(signal)});
        EXPECT_TRUE(wasKilledBy(run(process), signal));
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
        EXPECT_TRUE(chainIs(fails ? std::vector{badPath(program)} : std::vector<ExpectedReport>()));
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
        EXPECT_TRUE(chainIs({{INVALID_PATH}, badPath(path)}));
    }
    // It stays invalid until it is initialized again.
    EXPECT_FALSE(process.setExecutable(getProbePath()));
    EXPECT_FALSE(process.isValid());
    process.init();
    EXPECT_TRUE(process.isValid());
    EXPECT_FALSE(ProcessTNG("/no/such/program").isValid());
    EXPECT_TRUE(chainIs({{INVALID_PATH}, badPath("/no/such/program")}));
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

} // namespace
