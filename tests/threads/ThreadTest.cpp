#include "support/Child.h"
#include "support/ErrnoRows.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "threads/ThreadSupport.h"

#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <sys/resource.h>
#include <type_traits>

namespace {

// Whether the main thread was known when the start-up read each of the clocks; -1 if it did not.
int g_main_known_at_monotonic = -1;
int g_main_known_at_wall_clock = -1;

bool isMainThreadKnown() {
    return vesk::Thread::s_main_thread_id != vesk::Thread::ThreadId::INVALID_THREAD_ID;
}

} // namespace

support::Injected inject_clock_gettime("clock_gettime");
extern "C" VESK_UNWATCHED int clock_gettime(clockid_t clock, timespec* time) {
    if (clock == CLOCK_REALTIME) {
        g_main_known_at_wall_clock = isMainThreadKnown();
        int error = 0;
        if (inject_clock_gettime.fails(error)) {
            errno = error;
            return -1;
        }
    } else if (clock == CLOCK_MONOTONIC && g_main_known_at_monotonic == -1) {
        g_main_known_at_monotonic = isMainThreadKnown();
    }
    return reinterpret_cast<int (*)(clockid_t, timespec*)>(inject_clock_gettime.getReal())(clock, time);
}

VESK_INJECT_ERRNO(int, -1, sigaction, (int s, struct sigaction const* a, struct sigaction* o), (s, a, o))
VESK_INJECT_ERRNO(int, -1, sched_yield, (), ())

namespace {

using namespace support;
namespace CommonErrorId = std::CommonErrorId;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using vesk::sched::Attr;

testing::AssertionResult isMisuse(char const* text) {
    return chainIs({{CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)}});
}

void expectJoinRefused(
    Thread& thread, long long timeout_ms,
    char const* text = "Invalid state for join, or tried to join the own thread") {
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isMisuse(text));
    EXPECT_EQ(-1, thread.joinTimeout(timeout_ms));
    EXPECT_TRUE(isMisuse(text));
}

class ThreadTest : public ThreadsGone {
protected:
    /// Counts the runs of a body.
    Body const m_count = [this] { ++m_runs; };
    /// Waits for `m_go`.
    Body const m_wait = [this] { EXPECT_TRUE(m_go.wait()); };

    std::atomic<int> m_runs{0};
    Event m_go;
    int m_threads = countThreads();
};

void expectGoodEnd(ChildEnd const& end) {
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0, end.signal) << end.output << end.errors;
}

// ---- creation and start ----

static_assert(std::has_virtual_destructor_v<Thread> && !std::is_copy_constructible_v<Thread>);
static_assert(Thread::CREATED == 0 && Thread::RUNNING == 1 && Thread::SUSPENDED == 2);
static_assert(Thread::FINISHED == 3 && Thread::DEAD == 4);
static_assert(Thread::EXIT_NORMAL == 0 && Thread::EXIT_TERMINATED == 1);

TEST_F(ThreadTest, runsItsBodyWithItsArgumentOnceItIsStarted) {
    std::atomic<void*> argument{nullptr};
    Thread thread([](void* data) { *static_cast<std::atomic<void*>*>(data) = data; }, &argument);
    EXPECT_TRUE(thread.isValid());
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_EQ(nullptr, argument.load());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(&argument, argument.load());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, goesThroughItsStates) {
    TestThread thread(m_wait);
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    m_go.set();
    EXPECT_TRUE(thread.isIn(Thread::FINISHED));
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, systemThreadExistsFromTheConstructorOn) {
    Thread thread(doNothing, nullptr);
    EXPECT_EQ(m_threads + 1, countThreads());
    EXPECT_NE(Thread::ThreadId::INVALID_THREAD_ID, thread.getThreadId());
    EXPECT_NE(Thread::getCallerThreadId(), thread.getThreadId());
}

TEST_F(ThreadTest, successLeavesAPendingErrorAlone) {
    leaveOlderReport();
    {
        Thread thread(doNothing, nullptr, "name");
        EXPECT_FALSE(thread.start());
        EXPECT_FALSE(thread.wakeup());
        EXPECT_FALSE(thread.join());
    }
    EXPECT_TRUE(onlyOlderIsPending());
}

TEST_F(ThreadTest, startingTwiceFails) {
    StartedThread thread(m_count);
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(isMisuse("start() called in invalid state"));
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(isMisuse("start() called in invalid state"));
    EXPECT_EQ(1, m_runs);
}

TEST_F(ThreadTest, startInAWrongStateReportsOnTopOfWhatIsPending) {
    StartedThread thread(m_count);
    leaveOlderReport();
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(chainIs({SysErrorId::NO_SUCH_PROCESS, CommonErrorId::CONTRACT_BROKEN}));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, destroyedWithoutAStartRunsNoBodyAndWaitsForTheEnd) {
    EventRecorder const recorder;
    for (bool const detached : {false, true}) {
        {
            TestThread const thread(m_count, "not started", Attr(), detached);
            EXPECT_TRUE(thread.isValid());
        }
        EXPECT_TRUE(hasThreads(m_threads));
        EXPECT_EQ(0, m_runs);
    }
    EXPECT_EQ("", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, manyAreDestroyedWithoutAStartAtAnyMoment) {
    for (int round = 0; round < 500; ++round) {
        TestThread const thread(m_count, nullptr, Attr(), round % 2 == 1);
        for (volatile int i = 0; i < round * 20; i = i + 1) {}
    }
    EXPECT_EQ(0, m_runs);
}

TEST_F(ThreadTest, threadsManageEachOther) {
    auto const branch = [this] {
        std::vector<std::unique_ptr<Thread>> threads;
        for (int i = 0; i < 5; ++i) {
            threads.push_back(std::make_unique<StartedThread>(m_count));
        }
        for (auto const& thread : threads) {
            EXPECT_FALSE(thread->join());
        }
    };
    StartedThread one(branch);
    StartedThread two(branch);
    EXPECT_FALSE(one.join());
    EXPECT_FALSE(two.join());
    EXPECT_EQ(10, m_runs);
}

// ---- what the thread knows about itself ----

TEST_F(ThreadTest, slotHoldsTheObjectInItsThreadAlone) {
    void* seen = nullptr;
    TestThread thread([&seen] { seen = Thread::s_tls_ctrl_object.get(); });
    thread.runToEnd();
    EXPECT_EQ(static_cast<Thread*>(&thread), seen);
    EXPECT_EQ(nullptr, Thread::s_tls_ctrl_object.get());
}

TEST_F(ThreadTest, idIsThatWhichTheThreadItselfSees) {
    Thread::ThreadId seen;
    TestThread thread([&seen] { seen = Thread::getCallerThreadId(); });
    thread.runToEnd();
    EXPECT_EQ(thread.getThreadId(), seen);
}

std::string getName() {
    char name[64] = "";
    EXPECT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof name));
    return name;
}

struct NameRow {
    char const* given;
    char const* shown;
};

class ThreadNames : public ThreadsGone, public testing::WithParamInterface<NameRow> {};

TEST_P(ThreadNames, areShownWithTheirTail) {
    std::string shown;
    Body body = [&shown] { shown = getName(); };
    std::string name = GetParam().given;
    Thread thread(run, &body, name.c_str());
    name.assign(name.size(), '#'); // The thread has a copy.
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(GetParam().shown, shown);
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadNames,
    testing::Values(
        NameRow{"a", "a"}, NameRow{"fifteen-letters", "fifteen-letters"},
        NameRow{"sixteen--letters", "ixteen--letters"}, NameRow{"name-of-20-characters", "f-20-characters"},
        NameRow{"abcdefghij0123456789", "fghij0123456789"}, NameRow{"", ""}));

TEST_F(ThreadTest, withoutANameItHasThatOfItsCreator) {
    std::string shown;
    TestThread([&shown] { shown = getName(); }, nullptr).runToEnd();
    EXPECT_EQ(getName(), shown);
}

// ---- the store of errors ----

TEST_F(ThreadTest, hasAStoreOfErrorsOfItsOwn) {
    leaveOlderReport();
    runInThread([] {
        EXPECT_FALSE(std::ErrorStorage::isError(false));
        std::ErrorOutput("inner", 1, true)(SysErrorId::NOT_A_DIRECTORY);
        std::ErrorStorage::ack();
    });
    EXPECT_TRUE(onlyOlderIsPending());
}

void leaveError(void* unused) {
    (void)unused;
    std::ErrorOutput("some/file", 12, true)(SysErrorId::IN_USE, "door");
}

void leaveErrorAndExit(void* unused) {
    leaveError(unused);
    pthread_exit(nullptr);
}

void leaveErrorAndWait(void* ready) {
    leaveError(nullptr);
    static_cast<Event*>(ready)->set();
    waitForCancellation();
}

void leaveErrorAndReturnCancelled(void* ready) {
    leaveError(nullptr);
    static_cast<Event*>(ready)->set();
    // No cancellation point from here on: writing the error out at the end must not become one.
    EXPECT_TRUE(eventually([] { return self().getThreadState() == Thread::DEAD; }));
}

void replaceErrorWhenCancelled(void* ready) {
    leaveErrorAndReturnCancelled(ready);
    // Discards the error before it, which is written out in the middle of a report.
    std::ErrorOutput("other/file", 34, true)(SysErrorId::IN_USE);
    waitForCancellation();
}

struct LeftError {
    char const* name;
    Thread::Function body;
    bool terminate;
};

class ThreadLeftErrors : public testing::TestWithParam<LeftError> {};

TEST_P(ThreadLeftErrors, areWrittenToStandardOutput) {
    if (GetParam().body == replaceErrorWhenCancelled && !FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    ChildEnd const end = runInChild([] {
        int const before = countThreads();
        Event ready;
        Thread thread(GetParam().body, &ready);
        EXPECT_FALSE(thread.start());
        if (GetParam().terminate) {
            EXPECT_TRUE(ready.wait());
            EXPECT_FALSE(thread.terminate());
        } else {
            EXPECT_FALSE(thread.join());
        }
        EXPECT_TRUE(hasThreads(before));
    });
    expectGoodEnd(end);
    EXPECT_NE(std::string::npos, end.output.find("unacknowledged error chain of 1 report")) << end.output;
    EXPECT_NE(std::string::npos, end.output.find("some/file:12")) << end.output;
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadLeftErrors,
    testing::Values(
        LeftError{"byReturning", leaveError, false}, LeftError{"byItsOwnExit", leaveErrorAndExit, false},
        LeftError{"whenCancelled", leaveErrorAndWait, true},
        LeftError{"byReturningAfterItsCancellation", leaveErrorAndReturnCancelled, true},
        LeftError{"whenReplacedAfterItsCancellation", replaceErrorWhenCancelled, true}),
    RowName());

// ---- join ----

TEST_F(ThreadTest, joinWaitsForTheEnd) {
    StartedThread thread([this] {
        m_wait();
        ++m_runs;
    });
    std::thread helper([this] { m_go.set(); });
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(1, m_runs);
    helper.join();
}

TEST_F(ThreadTest, joiningItselfFails) {
    runInThread([] { expectJoinRefused(self(), 0); });
}

TEST_F(ThreadTest, joiningBeforeTheStartFails) {
    TestThread thread(m_count);
    expectJoinRefused(thread, 10000);
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    thread.runToEnd();
}

TEST_F(ThreadTest, joiningTwiceFails) {
    TestThread thread(m_count);
    thread.runToEnd();
    leaveOlderReport();
    expectJoinRefused(thread, 0);
}

TEST_F(ThreadTest, joiningADetachedOneFails) {
    Thread thread(doNothing, nullptr, nullptr, Attr(), true);
    expectJoinRefused(thread, 0, "Attempt to join detached thread");
    EXPECT_FALSE(thread.start());
    expectJoinRefused(thread, 10, "Attempt to join detached thread");
}

long long getTime() {
    long long time = 0;
    EXPECT_FALSE(vesk::Time::getTime(time));
    return time;
}

TEST_F(ThreadTest, timedJoinThatTimesOutLeavesTheThreadToBeJoined) {
    StartedThread thread(m_wait);
    EXPECT_EQ(1, thread.joinTimeout(0));
    EXPECT_EQ(1, thread.joinTimeout(-5));
    long long const before = getTime();
    EXPECT_EQ(1, thread.joinTimeout(20));
    EXPECT_GE(getTime() - before, 18) << "on another clock, to the millisecond";
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    m_go.set();
    EXPECT_EQ(0, thread.joinTimeout(60000));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, timedJoinWithoutAnEndIsAJoin) {
    StartedThread thread(m_count);
    EXPECT_EQ(0, thread.joinTimeout(std::numeric_limits<long long>::max()));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, timedJoinThatCannotReadTheClockFailsAndLeavesTheThreadToBeJoined) {
    StartedThread thread(m_count);
    {
        Fault const fault(inject_clock_gettime, EINVAL);
        leaveOlderReport();
        EXPECT_EQ(-1, thread.joinTimeout(60000));
    }
    EXPECT_TRUE(causeIs(Thread::ErrorId::JOIN_FAILED, EINVAL));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, threadThatEndedByItselfIsJoined) {
    StartedThread thread([this] {
        SetAtEnd const end(m_go);
        pthread_exit(nullptr);
    });
    EXPECT_TRUE(m_go.wait());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, joinCanBeCancelledAndLeavesTheThreadToBeJoined) {
    if (!WATCHES_CANCELLED_CALLS) {
        GTEST_SKIP() << "the thread sanitizer does not know threads that are cancelled in pthread_join";
    }
#if defined(__arm__)
    GTEST_SKIP()
        << "under QEMU's user mode a cancellation that comes while a thread enters pthread_join may get lost";
#endif
    Event joining;
    Event left;
    StartedThread joined(m_wait);
    {
        StartedThread joiner([&] {
            SetAtEnd const end(left);
            joining.set();
            joined.join();
        });
        EXPECT_TRUE(joining.wait());
        EXPECT_FALSE(joiner.terminate());
        EXPECT_TRUE(left.wait());
    }
    m_go.set();
    EXPECT_FALSE(joined.join());
}

// ---- the destructor ----

TEST_F(ThreadTest, destructorJoinsOneThatHasFinished) {
    EventRecorder const recorder;
    {
        StartedThread const thread(m_count, "finished");
        EXPECT_TRUE(thread.isIn(Thread::FINISHED));
    }
    EXPECT_TRUE(hasThreads(m_threads));
    EXPECT_EQ("", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

constexpr char const* STILL_RUNNING =
    "ABORT framework/src/vesk/posix/Thread ~Thread: thread still running\n"
    "ASSERT framework/src/vesk/posix/Thread ~Thread: getThreadState() == DEAD || m_detached_mode";

TEST_F(ThreadTest, destroyingOneThatRunsEndsTheProcess) {
    ChildEnd const end = runInChild([] {
        rlimit const no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        StartedThread const thread([] { waitForCancellation(); });
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("framework/src/vesk/posix/Thread")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find("thread still running")) << end.errors;
}

/// A body with events of its own, for a thread that outlives its object.
struct LongBody {
    static void run(void* data) {
        auto& body = *static_cast<LongBody*>(data);
        if (body.suspends) {
            EXPECT_FALSE(self().suspend(1));
        }
        body.running.set();
        EXPECT_TRUE(body.go.wait());
        body.registration_failed =
            Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) {});
        body.done.set();
    }
    void end() {
        go.set();
        EXPECT_TRUE(done.wait());
    }

    bool suspends = false;
    bool registration_failed = false;
    Event running;
    Event go;
    Event done;
};

TEST_F(ThreadTest, runsOnWithoutItsObjectIfTheAbortOfItsDestructorReturns) {
    for (bool const suspends : {false, true}) {
        EventRecorder const recorder;
        LongBody body;
        body.suspends = suspends;
        {
            Thread thread(LongBody::run, &body);
            EXPECT_FALSE(thread.start());
            EXPECT_TRUE(body.running.wait());
            EXPECT_EQ(suspends ? Thread::SUSPENDED : Thread::RUNNING, thread.getThreadState());
        }
        EXPECT_EQ(STILL_RUNNING, recorder.getText());
        body.end();
    }
}

TEST_F(ThreadTest, destructionThatTheProcessSurvivesDoesNotRaceWithTheStartOrTheEnd) {
    EventRecorder const recorder;
    for (int round = 0; round < 1000; ++round) {
        auto thread = std::make_unique<Thread>(
            [](void*) { Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) {}); },
            nullptr);
        EXPECT_FALSE(thread->start());
        for (volatile int i = 0; i < round * 97 % 50000; i = i + 1) {}
    }
    for (auto const& event : recorder.getEvents()) {
        EXPECT_TRUE(
            event.message == "thread still running" ||
            event.expression == "getThreadState() == DEAD || m_detached_mode")
            << event.message;
    }
}

TEST_F(ThreadTest, detachedOneDestroyedRightAfterItsStartRunsOn) {
    for (int round = 0; round < 300; ++round) {
        LongBody body;
        {
            Thread thread(LongBody::run, &body, "detached", Attr(), true);
            EXPECT_FALSE(thread.start());
        } // Waits for the hand-over, not for the body, which waits for this thread.
        EXPECT_FALSE(body.done.isSet());
        body.end();
    }
}

TEST_F(ThreadTest, detachedOneCanOutliveItsBody) {
    StartedThread thread(m_count, nullptr, Attr(), true);
    EXPECT_TRUE(eventually([this] { return m_runs == 1; }));
    EXPECT_TRUE(hasThreads(m_threads));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState()) << "the thread does not touch its object";
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isMisuse("Invalid state for termination request"));
}

TEST_F(ThreadTest, destructorOfAThreadThatIsBeingCanceledFinishesItsJoin) {
    Event ready;
    Event left;
    StartedThread outer([&] {
        SetAtEnd const end(left);
        {
            StartedThread const inner(m_wait);
            ready.set();
            EXPECT_TRUE(inner.isIn(Thread::FINISHED));
        } // Joins with a cancellation pending.
        waitForCancellation();
    });
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(outer.terminate());
    m_go.set();
    EXPECT_TRUE(left.wait());
}

// ---- suspend and wakeup ----

TEST_F(ThreadTest, suspendWaitsForTheWakeup) {
    TestThread thread([this] {
        for (int i = 0; i < 50; ++i) {
            EXPECT_FALSE(self().suspend(0));
            ++m_runs;
        }
    });
    EXPECT_FALSE(thread.wakeup()) << "nothing to wake up";
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(thread.isIn(Thread::SUSPENDED));
        EXPECT_EQ(i, m_runs);
        EXPECT_FALSE(thread.wakeup());
        EXPECT_TRUE(eventually([this, i] { return m_runs > i; }));
    }
    EXPECT_FALSE(thread.join());
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, suspendFromAnotherThreadFailsAndLeavesTheState) {
    TestThread thread(m_wait);
    EXPECT_TRUE(thread.suspend(0));
    EXPECT_TRUE(isMisuse("suspend() called by non-associated thread"));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.suspend(10));
    EXPECT_TRUE(isMisuse("suspend() called by non-associated thread"));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    m_go.set();
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, suspendThatTimesOutLeavesTheStateSuspended) {
    Event first;
    Event second;
    StartedThread thread([&] {
        long long const before = getTime();
        EXPECT_FALSE(self().suspend(20));
        EXPECT_GE(getTime() - before, 20);
        EXPECT_TRUE(chainIs({}));
        first.set();
        m_wait();
        EXPECT_FALSE(self().suspend(1)) << "a later one works normally";
        second.set();
    });
    EXPECT_TRUE(first.wait());
    EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isMisuse("Invalid state for termination request"));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    m_go.set();
    EXPECT_TRUE(second.wait());
    EXPECT_FALSE(thread.join()) << "a suspended thread can be joined";
}

TEST_F(ThreadTest, suspendForANegativeTimeTimesOutAtOnce) {
    runInThread([] {
        EXPECT_FALSE(self().suspend(-1));
        EXPECT_FALSE(self().suspend(std::numeric_limits<long long>::min()));
    });
}

TEST_F(ThreadTest, suspendForTheLongestTimeWaitsForTheWakeup) {
    StartedThread thread([] { EXPECT_FALSE(self().suspend(std::numeric_limits<long long>::max())); });
    EXPECT_TRUE(thread.isIn(Thread::SUSPENDED));
    EXPECT_EQ(1, thread.joinTimeout(1));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_FALSE(thread.join());
}

// ---- exit handlers ----

using Handled = std::vector<std::string>;
Handled g_handled; // Written by one thread at a time.
Thread::ThreadId g_handled_in;
Thread::ThreadId g_handled_id;

template <int N>
void handleExit(Thread::ThreadId const& id, Thread::ExitReason reason) {
    g_handled.push_back(std::to_string(N) + (reason == Thread::EXIT_NORMAL ? " normal" : " terminated"));
    g_handled_in = Thread::getCallerThreadId();
    g_handled_id = id;
    EXPECT_NE(Thread::ThreadId::INVALID_THREAD_ID, id);
}

/// Checks that the thread takes four handlers and refuses a fifth one with the text of the last failure of the system.
void registerTooManyHandlers(int error) {
    EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
    EXPECT_FALSE(Thread::registerExitHandler(handleExit<2>));
    EXPECT_FALSE(Thread::registerExitHandler(handleExit<3>));
    EXPECT_FALSE(Thread::registerExitHandler(handleExit<4>));
    leaveOlderReport();
    errno = error;
    EXPECT_TRUE(Thread::registerExitHandler(handleExit<5>));
    EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, error));
}

void expectRegistrationRefused() {
    EXPECT_TRUE(Thread::registerExitHandler(handleExit<1>));
    EXPECT_TRUE(isMisuse("calling thread is no VESK thread"));
}

class ThreadExitHandlers : public ThreadTest {
protected:
    void SetUp() override { g_handled.clear(); }
};

TEST_F(ThreadExitHandlers, runInOrderInTheThreadItselfAndGetItsId) {
    TestThread thread([] {
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<2>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_TRUE(g_handled.empty());
    });
    thread.runToEnd();
    EXPECT_EQ((Handled{"1 normal", "2 normal", "1 normal"}), g_handled);
    EXPECT_EQ(thread.getThreadId(), g_handled_in);
    EXPECT_EQ(thread.getThreadId(), g_handled_id);
}

TEST_F(ThreadExitHandlers, runWithoutTheLockBeforeTheStateChanges) {
    static Thread::State s_state;
    runInThread([] {
        Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) {
            s_state = self().getThreadState();
            EXPECT_TRUE(self().terminate()) << "its body is over";
            EXPECT_TRUE(isMisuse("Invalid state for termination request"));
        });
    });
    EXPECT_EQ(Thread::RUNNING, s_state);
}

TEST_F(ThreadExitHandlers, fifthOneFailsAndTheFirstFourStay) {
    runInThread([] { registerTooManyHandlers(ENOSPC); });
    EXPECT_EQ((Handled{"1 normal", "2 normal", "3 normal", "4 normal"}), g_handled);
}

TEST_F(ThreadExitHandlers, ofADetachedOneDoNotRunWhenItsBodyReturns) {
    StartedThread thread(
        [this] {
            EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
            ++m_runs;
        },
        nullptr, Attr(), true);
    EXPECT_TRUE(eventually([this] { return m_runs == 1; }));
    EXPECT_TRUE(hasThreads(m_threads));
    EXPECT_TRUE(g_handled.empty());
    thread.callExitHandlers(thread.getThreadId(), Thread::EXIT_NORMAL);
    EXPECT_EQ(Handled{"1 normal"}, g_handled) << "it was registered";
}

TEST_F(ThreadExitHandlers, canBeRegisteredWhenTheObjectIsDestroyed) {
    LongBody body;
    {
        Thread thread(LongBody::run, &body, nullptr, Attr(), true);
        EXPECT_FALSE(thread.start());
    }
    body.end();
    EXPECT_FALSE(body.registration_failed);
    EXPECT_TRUE(g_handled.empty());
}

/// Registers a handler at the very end of its thread, behind the wrapper of the body.
class RegistersLate {
public:
    ~RegistersLate() {
        expectRegistrationRefused();
        s_done = true;
    }
    void use() {}
    static inline std::atomic<bool> s_done{false};
};
thread_local RegistersLate t_registers_late;

TEST_F(ThreadExitHandlers, cannotBeRegisteredBehindTheWrapper) {
    runInThread([] { t_registers_late.use(); });
    EXPECT_TRUE(RegistersLate::s_done);
}

TEST_F(ThreadExitHandlers, ofAForeignThreadAreRefused) {
    std::thread(expectRegistrationRefused).join();
    // Nor is the first thread the main one before a start-up.
    expectRegistrationRefused();
}

TEST_F(ThreadExitHandlers, ofTheMainThreadAreKeptAndNeverCalled) {
    ChildEnd const end = runInChild([] {
        vesk::Vesk const vesk(true, false);
        registerTooManyHandlers(EMFILE);
        std::thread(expectRegistrationRefused).join();
        runInThread([] { EXPECT_FALSE(Thread::registerExitHandler(handleExit<6>)); });
        EXPECT_EQ(Handled{"6 normal"}, g_handled) << "each thread has its own";
        std::atexit([] { fprintf(stderr, "%zu handled", g_handled.size()); });
        fflush(stdout);
        exit(testing::Test::HasFailure() ? 1 : 0);
    });
    expectGoodEnd(end);
    EXPECT_EQ("1 handled", end.errors);
}

// ---- the start-up ----

TEST_F(ThreadTest, startUpStoresTheMainThreadBetweenTheClocksAndTheRest) {
    expectGoodEnd(runInChild([] {
        EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
        g_main_known_at_monotonic = -1;
        g_main_known_at_wall_clock = -1;
        vesk::Vesk const vesk(true, false);
        EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
        EXPECT_EQ(0, g_main_known_at_monotonic) << "Time::init runs before";
        EXPECT_EQ(1, g_main_known_at_wall_clock) << "Vesk::postInit runs behind";
    }));
}

TEST_F(ThreadTest, startUpThatFailsEarlierDoesNotStoreTheMainThread) {
    expectGoodEnd(runInChild([] {
        EventRecorder const recorder;
        Fault const fault(inject_sigaction, EINVAL);
        vesk::Vesk const vesk(true, false);
        EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
        EXPECT_EQ(1u, recorder.getCount());
    }));
}

TEST_F(ThreadTest, secondStartUpInAnotherThreadKeepsTheMainThread) {
    expectGoodEnd(runInChild([] {
        vesk::Vesk const first(true, false);
        Thread::ThreadId const main_id = Thread::getCallerThreadId();
        std::thread([] { vesk::Vesk const second(true, false); }).join();
        EXPECT_EQ(main_id, Thread::s_main_thread_id);
    }));
}

TEST_F(ThreadTest, initAlwaysSucceeds) {
    expectGoodEnd(runInChild([] {
        std::thread([] {
            EXPECT_FALSE(Thread::init());
            EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
            EXPECT_TRUE(chainIs({}));
        }).join();
    }));
}

TEST_F(ThreadTest, yieldSucceedsWithoutAReport) {
    EXPECT_FALSE(Thread::yield());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, yieldThatFailsReports) {
    leaveOlderReport();
    Fault const fault(inject_sched_yield, ENOSYS);
    EXPECT_TRUE(Thread::yield());
    EXPECT_TRUE(chainIs({{Thread::ErrorId::YIELD_FAILED, "Thread yield failed: " + systemText(ENOSYS)}}));
}

TEST_F(ThreadTest, holdsTheLowestIntegerInAFieldThatIsNeverRead) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join()); // The thread no longer writes to the object.
    int32_t words[sizeof(Thread) / sizeof(int32_t)];
    memcpy(words, static_cast<void const*>(&thread), sizeof words);
    EXPECT_NE(std::end(words), std::find(std::begin(words), std::end(words), INT32_MIN));
}

} // namespace
