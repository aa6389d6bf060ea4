#include "support/Aborts.h"
#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "threads/ThreadSupport.h"

#include <vesk/Time.h>
#include <vesk/Vesk.h>
#include <vesk/common/Unwindable.h>

#include <limits>

namespace {

// Whether the main thread was known when the start-up read each of the clocks; -1 if it did not.
int g_main_known_at_monotonic = -1;
int g_main_known_at_wall_clock = -1;

VESK_UNWATCHED void noteClock(clockid_t clock) {
    bool const known = vesk::Thread::s_main_thread_id != vesk::Thread::ThreadId::INVALID_THREAD_ID;
    if (clock == CLOCK_REALTIME) {
        g_main_known_at_wall_clock = known;
    } else if (clock == CLOCK_MONOTONIC && g_main_known_at_monotonic == -1) {
        g_main_known_at_monotonic = known;
    }
}

} // namespace

VESK_INJECT_NOTING(int, -1, clock_gettime, (clockid_t clock, timespec* time), (clock, time), noteClock(clock))
VESK_INJECT_ERRNO(int, -1, sigaction, (int s, struct sigaction const* a, struct sigaction* o), (s, a, o))
VESK_INJECT_ERRNO(int, -1, sched_yield, (), ())

namespace {

using namespace support;

ExpectedReport contractBroken(char const* text) {
    auto const id = CommonErrorId::CONTRACT_BROKEN;
    return {id, rowText(id, text == nullptr ? "" : text)};
}
testing::AssertionResult isMisuse(char const* text) {
    return chainIs({contractBroken(text)});
}

constexpr char const* NO_START = "start() called in invalid state";
constexpr char const* NO_JOIN = "Invalid state for join, or tried to join the own thread";
constexpr char const* DETACHED = "Attempt to join detached thread";
constexpr char const* NO_TERMINATION = "Invalid state for termination request";
constexpr char const* OTHER_THREAD = "suspend() called by non-associated thread";

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

// ---- creation and start ----

static_assert(std::has_virtual_destructor_v<Thread> && !std::is_copy_constructible_v<Thread>);
static_assert(Thread::CREATED == 0 && Thread::RUNNING == 1 && Thread::SUSPENDED == 2);
static_assert(Thread::FINISHED == 3 && Thread::DEAD == 4);
static_assert(Thread::EXIT_NORMAL == 0 && Thread::EXIT_TERMINATED == 1);

TEST_F(ThreadTest, isASystemThreadFromTheConstructorOnAndRunsItsBodyWithItsArgumentOnceStarted) {
    std::atomic<void*> argument{nullptr};
    Thread thread([](void* data) { *static_cast<std::atomic<void*>*>(data) = data; }, &argument);
    EXPECT_TRUE(thread.isValid());
    EXPECT_TRUE(hasThreads(m_threads + 1));
    EXPECT_NE(Thread::ThreadId::INVALID_THREAD_ID, thread.getThreadId());
    EXPECT_NE(Thread::getCallerThreadId(), thread.getThreadId());
    EXPECT_EQ(nullptr, argument.load());
    runToEnd(thread);
    EXPECT_EQ(&argument, argument.load());
}

TEST_F(ThreadTest, destroyedWithoutAStartAtAnyMomentRunsNoBodyAndWaitsForTheEnd) {
    for (int round = 0; round < 500; ++round) {
        bool const detached = round % 2 == 1;
        EXPECT_TRUE(TestThread(m_count, "not started", Attr(), detached).isValid());
        EXPECT_TRUE(round > 1 || hasThreads(m_threads));
        TestThread const thread(m_count, nullptr, Attr(), detached);
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

// ---- what each call does in each state ----

/// A thread, and what its body waits for.
struct Subject {
    Subject(void (*body)(Subject&), bool detached)
        : thread([this, body] { ++runs, body(*this); }, "name", Attr(), detached) {}

    std::atomic<int> runs{0};
    Event go;
    TestThread thread;
};

struct Call {
    int (*run)(Subject& subject);
    char const* misuse = nullptr; ///< The text of its report.
};

constexpr Call START{
    [](Subject& to) -> int {
        bool const failed = to.thread.start();
        EXPECT_TRUE(eventually([&to] { return to.runs == 1; }));
        return failed;
    },
    NO_START};
constexpr Call JOIN{[](Subject& to) -> int { return to.thread.join(); }, NO_JOIN};
template <long long MS>
constexpr Call JOIN_FOR{[](Subject& to) -> int { return to.thread.joinTimeout(MS); }, NO_JOIN};
template <long long MS>
constexpr Call SUSPEND_FOR{[](Subject& to) -> int { return to.thread.suspend(MS); }, OTHER_THREAD};
constexpr Call WAKE_UP{[](Subject& to) -> int { return to.thread.wakeup(); }};
constexpr Call TERMINATE{[](Subject& to) -> int { return to.thread.terminate(); }, NO_TERMINATION};
constexpr Call LET_GO{[](Subject& to) -> int {
    to.go.set();
    return 0;
}};
constexpr Call AWAIT_END{[](Subject& /*to*/) -> int { return !hasThreads(g_threads_at_start); }};

/// One call, its result, and the state behind it.
struct Step {
    Call call;
    Thread::State state;
    int result;
    bool is_misuse;
};
Step succeeds(Call call, Thread::State state) {
    return {call, state, 0, false};
}
Step timesOut(Call call, Thread::State state) {
    return {call, state, 1, false};
}
Step fails(Call call, Thread::State state, int result = 1) {
    return {call, state, result, true};
}

void waitForGo(Subject& subject) {
    EXPECT_TRUE(subject.go.wait());
}
template <long long MS>
void suspendItself(Subject& /*subject*/) {
    EXPECT_FALSE(self().suspend(MS));
}
void joinItself(Subject& subject) {
    EXPECT_TRUE(self().join());
    EXPECT_TRUE(isMisuse(NO_JOIN));
    EXPECT_EQ(-1, subject.thread.joinTimeout(0));
    EXPECT_TRUE(isMisuse(NO_JOIN));
}

struct Course {
    char const* name;
    void (*body)(Subject&);
    std::vector<Step> steps;
    bool detached = false;
};

constexpr auto CREATED = Thread::CREATED;
constexpr auto RUNNING = Thread::RUNNING;
constexpr auto SUSPENDED = Thread::SUSPENDED;
constexpr auto FINISHED = Thread::FINISHED;
constexpr auto DEAD = Thread::DEAD;
constexpr long long FOREVER = std::numeric_limits<long long>::max();
constexpr long long LOWEST = std::numeric_limits<long long>::min();

Course const COURSES[] = {
    {"startsOnlyOnce",
     waitForGo,
     {succeeds(START, RUNNING), fails(START, RUNNING), succeeds(LET_GO, FINISHED), fails(START, FINISHED),
      succeeds(JOIN, DEAD), fails(START, DEAD)}},
    {"isJoinedOnlyOnceAndNotBeforeItsStart",
     waitForGo,
     {fails(JOIN, CREATED), fails(JOIN_FOR<10000>, CREATED, -1), succeeds(START, RUNNING),
      succeeds(LET_GO, FINISHED), succeeds(JOIN, DEAD), fails(JOIN, DEAD), fails(JOIN_FOR<0>, DEAD, -1)}},
    {"timedJoinThatTimesOutLeavesItToBeJoined",
     waitForGo,
     {succeeds(START, RUNNING), timesOut(JOIN_FOR<0>, RUNNING), timesOut(JOIN_FOR<-5>, RUNNING),
      succeeds(LET_GO, FINISHED), succeeds(JOIN_FOR<60000>, DEAD)}},
    {"timedJoinWithoutAnEndIsAJoin",
     waitForGo,
     {succeeds(START, RUNNING), succeeds(LET_GO, FINISHED), succeeds(JOIN_FOR<FOREVER>, DEAD)}},
    {"cannotJoinItself", joinItself, {succeeds(START, FINISHED), succeeds(JOIN, DEAD)}},
    {"detachedOneIsNotJoined",
     waitForGo,
     {fails(JOIN, CREATED), fails(JOIN_FOR<0>, CREATED, -1), succeeds(START, RUNNING), fails(JOIN, RUNNING),
      fails(JOIN_FOR<10>, RUNNING, -1), succeeds(LET_GO, RUNNING)},
     true},
    {"endOfADetachedOneDoesNotChangeItsState",
     waitForGo,
     {succeeds(START, RUNNING), succeeds(LET_GO, RUNNING), succeeds(AWAIT_END, RUNNING),
      fails(TERMINATE, RUNNING)},
     true},
    {"isJoinedAndNotTerminatedOnceItHasExitedByItself",
     [](Subject&) { pthread_exit(nullptr); },
     {succeeds(START, RUNNING), succeeds(AWAIT_END, RUNNING), fails(TERMINATE, RUNNING),
      succeeds(JOIN, DEAD)}},
    {"isSuspendedOnlyByItself",
     waitForGo,
     {fails(SUSPEND_FOR<0>, CREATED), succeeds(START, RUNNING), fails(SUSPEND_FOR<10>, RUNNING),
      succeeds(LET_GO, FINISHED), succeeds(JOIN, DEAD)}},
    {"wakeupSucceedsInEachState",
     suspendItself<0>,
     {succeeds(WAKE_UP, CREATED), succeeds(START, SUSPENDED), succeeds(WAKE_UP, FINISHED),
      succeeds(WAKE_UP, FINISHED), succeeds(JOIN, DEAD), succeeds(WAKE_UP, DEAD)}},
    {"suspendedForTheLongestTimeIsWokenAndNotTerminated",
     suspendItself<FOREVER>,
     {succeeds(START, SUSPENDED), timesOut(JOIN_FOR<1>, SUSPENDED), fails(TERMINATE, SUSPENDED),
      succeeds(WAKE_UP, FINISHED), succeeds(JOIN, DEAD)}},
    {"isTerminatedOnlyOnceAndThenNotJoined",
     [](Subject&) { waitForCancellation(); },
     {fails(TERMINATE, CREATED), succeeds(START, RUNNING), succeeds(TERMINATE, DEAD), fails(TERMINATE, DEAD),
      fails(JOIN, DEAD), fails(JOIN_FOR<0>, DEAD, -1), succeeds(AWAIT_END, DEAD), succeeds(WAKE_UP, DEAD)}},
    {"isNotTerminatedAfterItsEnd",
     waitForGo,
     {succeeds(START, RUNNING), succeeds(LET_GO, FINISHED), fails(TERMINATE, FINISHED), succeeds(JOIN, DEAD),
      fails(TERMINATE, DEAD)}},
};

VESK_TEST_TABLE(ThreadCourse, eachStepHasItsReportAndItsState, ThreadsGone, COURSES) {
    if (std::string_view(GetParam().name) == "isTerminatedOnlyOnceAndThenNotJoined") {
        VESK_SKIP_WITHOUT_CANCELLATION();
    }
    Subject subject(GetParam().body, GetParam().detached);
    int number = 0;
    for (Step const& step : GetParam().steps) {
        SCOPED_TRACE(++number);
        leaveOlderReport();
        EXPECT_EQ(step.result, step.call.run(subject));
        bool const joins = step.call.misuse == NO_JOIN;
        auto const misuse = contractBroken(joins && GetParam().detached ? DETACHED : step.call.misuse);
        if (!step.is_misuse) {
            EXPECT_TRUE(onlyOlderIsPending());
        } else if (joins || step.call.misuse == OTHER_THREAD) {
            EXPECT_TRUE(chainIs({misuse}));
        } else {
            EXPECT_TRUE(chainIs({SysErrorId::NO_SUCH_PROCESS, misuse})) << "on top of what is pending";
        }
        EXPECT_TRUE(subject.thread.isIn(step.state)) << subject.thread.getThreadState();
    }
    EXPECT_TRUE(eventually(areThreadsGone));
    EXPECT_EQ(1, subject.runs);
}

// ---- what the thread knows about itself ----

TEST_F(ThreadTest, findsItsObjectAndItsIdItself) {
    void* object = nullptr;
    Thread::ThreadId id;
    TestThread thread([&] {
        object = Thread::s_tls_ctrl_object.get();
        id = Thread::getCallerThreadId();
    });
    thread.runToEnd();
    EXPECT_EQ(static_cast<Thread*>(&thread), object);
    EXPECT_EQ(thread.getThreadId(), id);
    EXPECT_EQ(nullptr, Thread::s_tls_ctrl_object.get());
}

std::string getName() {
    char name[64] = "";
    EXPECT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof name));
    return name;
}

TEST_F(ThreadTest, nameIsShownWithItsTail) {
    struct {
        char const* given;
        std::string shown;
    } const rows[] = {
        {"a", "a"},
        {"fifteen-letters", "fifteen-letters"},
        {"sixteen--letters", "ixteen--letters"},
        {"name-of-20-characters", "f-20-characters"},
        {"abcdefghij0123456789", "fghij0123456789"},
        {"", ""},
        {nullptr, getName()}, // That of the creator.
    };
    for (auto const& row : rows) {
        std::string shown;
        Body body = [&shown] { shown = getName(); };
        std::string name = row.given == nullptr ? "" : row.given;
        Thread thread(run, &body, row.given == nullptr ? nullptr : name.c_str());
        name.assign(name.size(), '#'); // The thread has a copy.
        runToEnd(thread);
        EXPECT_EQ(row.shown, shown);
    }
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

LeftError const LEFT_ERRORS[] = {
    {"byReturning", leaveError, false},
    {"byItsOwnExit", leaveErrorAndExit, false},
    {"whenCancelled", leaveErrorAndWait, true},
    {"byReturningAfterItsCancellation", leaveErrorAndReturnCancelled, true},
    {"whenReplacedAfterItsCancellation", replaceErrorWhenCancelled, true}};

VESK_TEST_TABLE(ThreadLeftErrors, areWrittenToStandardOutput, testing::Test, LEFT_ERRORS) {
    if (GetParam().terminate) {
        VESK_SKIP_WITHOUT_CANCELLATION();
    }
    if (GetParam().body == replaceErrorWhenCancelled) {
        VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
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
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
    EXPECT_NE(std::string::npos, end.output.find("unacknowledged error chain of 1 report")) << end.output;
    EXPECT_NE(std::string::npos, end.output.find("some/file:12")) << end.output;
}

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

long long getTime() {
    long long time = 0;
    EXPECT_FALSE(vesk::Time::getTime(time));
    return time;
}

TEST_F(ThreadTest, timedJoinWaitsForItsTime) {
    StartedThread thread(m_wait);
    long long const before = getTime();
    EXPECT_EQ(1, thread.joinTimeout(20));
    EXPECT_GE(getTime() - before, 18) << "on another clock, to the millisecond";
    m_go.set();
    EXPECT_FALSE(thread.join());
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

TEST_F(ThreadTest, joinCanBeCancelledAndLeavesTheThreadToBeJoined) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    if (!WATCHES_CANCELLED_CALLS) {
        GTEST_SKIP() << "the thread sanitizer does not know threads that are cancelled in pthread_join";
    }
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

// On 32-bit ARM it surrounds the calls that cannot be unwound there.
TEST(CallUnwindable, callsTheFunctionOnce) {
    int calls = 0;
    vesk::callUnwindable([](void* count) { ++*static_cast<int*>(count); }, &calls);
    EXPECT_EQ(1, calls);
    EXPECT_EQ(7, vesk::unwindable([&calls] { return ++calls + 5; }));
}

// ---- the destructor ----

TEST_F(ThreadTest, destructorJoinsOneThatHasFinished) {
    EXPECT_TRUE(StartedThread(m_count, "finished").isIn(Thread::FINISHED));
    EXPECT_TRUE(hasThreads(m_threads));
}

constexpr char const* STILL_RUNNING =
    "ABORT framework/src/vesk/posix/Thread ~Thread: thread still running\n"
    "ASSERT framework/src/vesk/posix/Thread ~Thread: getThreadState() == DEAD || m_detached_mode";

TEST_F(ThreadTest, destroyingOneThatRunsEndsTheProcess) {
    auto const destroy = [] { StartedThread const thread([] { waitForCancellation(); }); };
    EXPECT_TRUE(abortsWith("framework/src/vesk/posix/Thread", destroy));
    EXPECT_TRUE(abortsWith("thread still running", destroy));
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
            Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) { ADD_FAILURE(); });
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
        EXPECT_FALSE(body.registration_failed) << "exit handlers can be registered without the object";
    }
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
    StartedThread thread([this] {
        for (int i = 0; i < 50; ++i) {
            EXPECT_FALSE(self().suspend(0));
            ++m_runs;
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(thread.isIn(Thread::SUSPENDED));
        EXPECT_EQ(i, m_runs);
        EXPECT_FALSE(thread.wakeup());
        EXPECT_TRUE(eventually([this, i] { return m_runs > i; }));
    }
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, suspendThatTimesOutLeavesTheStateSuspended) {
    Event first;
    Event second;
    StartedThread thread([&] {
        EXPECT_FALSE(self().suspend(-1)) << "times out at once";
        EXPECT_FALSE(self().suspend(LOWEST));
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
    EXPECT_TRUE(isMisuse(NO_TERMINATION));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    m_go.set();
    EXPECT_TRUE(second.wait());
    EXPECT_FALSE(thread.join()) << "a suspended thread can be joined";
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
            EXPECT_TRUE(isMisuse(NO_TERMINATION));
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
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
    EXPECT_EQ("1 handled", end.errors);
}

// ---- the start-up ----

VESK_TEST_BY(expectInChild, ThreadStartUp, storesTheMainThreadBetweenTheClocksAndTheRest) {
    EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
    g_main_known_at_monotonic = -1;
    g_main_known_at_wall_clock = -1;
    vesk::Vesk const vesk(true, false);
    EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
    EXPECT_EQ(0, g_main_known_at_monotonic) << "Time::init runs before";
    EXPECT_EQ(1, g_main_known_at_wall_clock) << "Vesk::postInit runs behind";
}

VESK_TEST_BY(expectInChild, ThreadStartUp, thatFailsEarlierDoesNotStoreTheMainThread) {
    EventRecorder const recorder;
    Fault const fault(inject_sigaction, EINVAL);
    vesk::Vesk const vesk(true, false);
    EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
    EXPECT_EQ(1u, recorder.getCount());
}

VESK_TEST_BY(expectInChild, ThreadStartUp, secondOneInAnotherThreadKeepsTheMainThreadAndInitTakesTheCaller) {
    vesk::Vesk const first(true, false);
    Thread::ThreadId const main_id = Thread::getCallerThreadId();
    std::thread([] { vesk::Vesk const second(true, false); }).join();
    EXPECT_EQ(main_id, Thread::s_main_thread_id);
    std::thread([] {
        EXPECT_FALSE(Thread::init());
        EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
        EXPECT_TRUE(chainIs({}));
    }).join();
}

TEST_F(ThreadTest, yieldReportsOnlyAFailure) {
    leaveOlderReport();
    EXPECT_FALSE(Thread::yield());
    EXPECT_TRUE(onlyOlderIsPending());
    leaveOlderReport();
    Fault const fault(inject_sched_yield, ENOSYS);
    EXPECT_TRUE(Thread::yield());
    EXPECT_TRUE(chainIs({{Thread::ErrorId::YIELD_FAILED, "Thread yield failed: " + systemText(ENOSYS)}}));
}

TEST_F(ThreadTest, holdsTheLowestIntegerInAFieldThatIsNeverRead) {
    Thread thread([](void*) {}, nullptr);
    runToEnd(thread); // The thread no longer writes to the object.
    int32_t words[sizeof(Thread) / sizeof(int32_t)];
    memcpy(words, static_cast<void const*>(&thread), sizeof words);
    EXPECT_NE(std::end(words), std::find(std::begin(words), std::end(words), INT32_MIN));
}

} // namespace
