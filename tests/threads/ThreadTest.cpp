#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "threads/ThreadSupport.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
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
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

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

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::ChildEnd;
using support::Event;
using support::EventRecorder;
using support::eventually;
using support::Fault;
using support::rowText;
using support::SetAtEnd;
using support::systemText;
using support::waitForCancellation;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using vesk::sched::Attr;

constexpr char const* INVALID_JOIN = "Invalid state for join, or tried to join the own thread";

testing::AssertionResult isMisuse(char const* text) {
    return chainIs({{CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)}});
}

/// Any callable as a body.
using Body = std::function<void()>;
void run(void* body) {
    (*static_cast<Body*>(body))();
}

class ThreadTest : public support::ThreadsGone {};

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
    std::atomic<void*> got{nullptr};
    struct Job {
        std::atomic<void*>& result;
    } job{got};
    Thread thread([](void* argument) { static_cast<Job*>(argument)->result = argument; }, &job);
    EXPECT_TRUE(thread.isValid());
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_EQ(nullptr, got.load());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(&job, got.load());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, goesThroughItsStates) {
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread thread(run, &body);
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    go.set();
    EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::FINISHED; }));
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, systemThreadExistsFromTheConstructorOn) {
    int const before = support::countThreads();
    Thread thread([](void*) {}, nullptr);
    EXPECT_EQ(before + 1, support::countThreads());
    EXPECT_NE(Thread::ThreadId::INVALID_THREAD_ID, thread.getThreadId());
    EXPECT_NE(Thread::getCallerThreadId(), thread.getThreadId());
}

TEST_F(ThreadTest, successLeavesAPendingErrorAlone) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Thread thread([](void*) {}, nullptr, "name");
        EXPECT_FALSE(thread.start());
        EXPECT_FALSE(thread.wakeup());
        EXPECT_FALSE(thread.join());
    }
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
}

TEST_F(ThreadTest, startingTwiceFails) {
    std::atomic<int> runs{0};
    Body body = [&runs] { ++runs; };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(isMisuse("start() called in invalid state"));
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(isMisuse("start() called in invalid state"));
    EXPECT_EQ(1, runs);
}

TEST_F(ThreadTest, startInAWrongStateReportsOnTopOfWhatIsPending) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_FALSE(thread.start());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}, {CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, destroyedWithoutAStartRunsNoBodyAndWaitsForTheEnd) {
    std::atomic<int> runs{0};
    Body body = [&runs] { ++runs; };
    int const before = support::countThreads();
    EventRecorder const recorder;
    {
        Thread thread(run, &body);
        EXPECT_TRUE(thread.isValid());
    }
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    EXPECT_EQ(0, runs);
    EXPECT_EQ("", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, manyAreDestroyedWithoutAStartAtAnyMoment) {
    std::atomic<int> runs{0};
    Body body = [&runs] { ++runs; };
    for (int round = 0; round < 500; ++round) {
        Thread thread(run, &body, nullptr, Attr(), round % 2 == 1);
        for (volatile int i = 0; i < round * 20; i = i + 1) {}
    }
    EXPECT_EQ(0, runs);
}

TEST_F(ThreadTest, threadsManageEachOther) {
    std::atomic<int> sum{0};
    Body leaf = [&sum] { ++sum; };
    Body branch = [&leaf] {
        std::vector<std::unique_ptr<Thread>> threads;
        for (int i = 0; i < 5; ++i) {
            threads.push_back(std::make_unique<Thread>(run, &leaf));
            EXPECT_FALSE(threads.back()->start());
        }
        for (auto const& thread : threads) {
            EXPECT_FALSE(thread->join());
        }
    };
    {
        Thread one(run, &branch);
        Thread two(run, &branch);
        EXPECT_FALSE(one.start());
        EXPECT_FALSE(two.start());
        EXPECT_FALSE(one.join());
        EXPECT_FALSE(two.join());
    }
    EXPECT_EQ(10, sum);
}

// ---- what the thread knows about itself ----

TEST_F(ThreadTest, slotHoldsTheObjectInItsThreadAlone) {
    Thread* seen = nullptr;
    Body body = [&seen] { seen = static_cast<Thread*>(Thread::s_tls_ctrl_object.get()); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(&thread, seen);
    EXPECT_EQ(nullptr, Thread::s_tls_ctrl_object.get());
}

TEST_F(ThreadTest, idIsThatWhichTheThreadItselfSees) {
    Thread::ThreadId seen;
    Body body = [&seen] { seen = Thread::getCallerThreadId(); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(thread.getThreadId(), seen);
}

struct NameRow {
    char const* given;
    char const* shown;
};

void PrintTo(NameRow const& row, std::ostream* out) {
    *out << row.given;
}

class ThreadNames : public support::ThreadsGone, public testing::WithParamInterface<NameRow> {};

TEST_P(ThreadNames, areShownWithTheirTail) {
    char shown[64] = "";
    Body body = [&shown] { EXPECT_EQ(0, pthread_getname_np(pthread_self(), shown, sizeof shown)); };
    std::string name = GetParam().given;
    Thread thread(run, &body, name.c_str());
    name.assign(name.size(), '#'); // The thread has a copy.
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_STREQ(GetParam().shown, shown);
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadNames,
    testing::Values(
        NameRow{"a", "a"}, NameRow{"fifteen-letters", "fifteen-letters"},
        NameRow{"sixteen--letters", "ixteen--letters"}, NameRow{"name-of-20-characters", "f-20-characters"},
        NameRow{"abcdefghij0123456789", "fghij0123456789"}, NameRow{"", ""}));

TEST_F(ThreadTest, withoutANameItHasThatOfItsCreator) {
    char mine[64] = "";
    ASSERT_EQ(0, pthread_getname_np(pthread_self(), mine, sizeof mine));
    char shown[64] = "";
    Body body = [&shown] { EXPECT_EQ(0, pthread_getname_np(pthread_self(), shown, sizeof shown)); };
    Thread thread(run, &body, nullptr);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_STREQ(mine, shown);
}

// ---- the store of errors ----

TEST_F(ThreadTest, hasAStoreOfErrorsOfItsOwn) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    bool pending = true;
    Body body = [&pending] {
        pending = std::ErrorStorage::isError(false);
        std::ErrorOutput("inner", 1, true)(SysErrorId::NOT_A_DIRECTORY);
        std::ErrorStorage::ack();
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_FALSE(pending);
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
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
    EXPECT_TRUE(eventually(
        [] { return static_cast<Thread*>(Thread::s_tls_ctrl_object.get())->getThreadState() == 4; }));
}

void replaceErrorWhenCancelled(void* ready) {
    leaveErrorAndReturnCancelled(ready);
    // Gives up the one before it, which is written out in the middle of a report.
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
    if (GetParam().body == replaceErrorWhenCancelled && !support::FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    ChildEnd const end = support::runInChild([] {
        int const before = support::countThreads();
        Event ready;
        Thread thread(GetParam().body, &ready);
        EXPECT_FALSE(thread.start());
        if (GetParam().terminate) {
            EXPECT_TRUE(ready.wait());
            EXPECT_FALSE(thread.terminate());
        } else {
            EXPECT_FALSE(thread.join());
        }
        EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
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
    [](auto const& row) { return row.param.name; });

// ---- join ----

TEST_F(ThreadTest, joinWaitsForTheEnd) {
    Event go;
    std::atomic<bool> done{false};
    Body body = [&] {
        EXPECT_TRUE(go.wait());
        done = true;
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    std::thread helper([&go] { go.set(); });
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(done);
    helper.join();
}

TEST_F(ThreadTest, joiningItselfFails) {
    Thread* self = nullptr;
    Body body = [&self] {
        EXPECT_TRUE(self->join());
        EXPECT_TRUE(isMisuse(INVALID_JOIN));
        EXPECT_EQ(-1, self->joinTimeout(0));
        EXPECT_TRUE(isMisuse(INVALID_JOIN));
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, joiningBeforeTheStartFails) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isMisuse(INVALID_JOIN));
    EXPECT_EQ(-1, thread.joinTimeout(10000));
    EXPECT_TRUE(isMisuse(INVALID_JOIN));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, joiningTwiceFails) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isMisuse(INVALID_JOIN));
    EXPECT_EQ(-1, thread.joinTimeout(0));
    EXPECT_TRUE(isMisuse(INVALID_JOIN));
}

TEST_F(ThreadTest, joiningADetachedOneFails) {
    Thread thread([](void*) {}, nullptr, nullptr, Attr(), true);
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isMisuse("Attempt to join detached thread"));
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(isMisuse("Attempt to join detached thread"));
    EXPECT_EQ(-1, thread.joinTimeout(10));
    EXPECT_TRUE(isMisuse("Attempt to join detached thread"));
}

TEST_F(ThreadTest, timedJoinThatTimesOutLeavesTheThreadToBeJoined) {
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_EQ(1, thread.joinTimeout(0));
    EXPECT_EQ(1, thread.joinTimeout(-5));
    long long before = 0;
    ASSERT_FALSE(vesk::Time::getTime(before));
    EXPECT_EQ(1, thread.joinTimeout(20));
    long long after = 0;
    ASSERT_FALSE(vesk::Time::getTime(after));
    EXPECT_GE(after - before, 18) << "on another clock, to the millisecond";
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    go.set();
    EXPECT_EQ(0, thread.joinTimeout(60000));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, timedJoinWithoutAnEndIsAJoin) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_FALSE(thread.start());
    EXPECT_EQ(0, thread.joinTimeout(std::numeric_limits<long long>::max()));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, timedJoinThatCannotReadTheClockFailsAndLeavesTheThreadToBeJoined) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_FALSE(thread.start());
    {
        Fault const fault(inject_clock_gettime, EINVAL);
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        EXPECT_EQ(-1, thread.joinTimeout(60000));
    }
    EXPECT_TRUE(
        chainIs({{Thread::ErrorId::JOIN_FAILED, rowText(Thread::ErrorId::JOIN_FAILED, systemText(EINVAL))}}));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, threadThatEndedByItselfIsJoined) {
    Event left;
    Body body = [&left] {
        SetAtEnd const end(left);
        pthread_exit(nullptr);
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(left.wait());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, joinCanBeCancelledAndLeavesTheThreadToBeJoined) {
    if (!support::WATCHES_CANCELLED_CALLS) {
        GTEST_SKIP() << "the thread sanitizer does not know threads that are cancelled in pthread_join";
    }
#if defined(__arm__)
    GTEST_SKIP()
        << "under QEMU's user mode a cancellation that comes while a thread enters pthread_join may get lost";
#endif
    Event go;
    Event joining;
    Event left;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread joined(run, &body);
    EXPECT_FALSE(joined.start());
    Body join_body = [&] {
        SetAtEnd const end(left);
        joining.set();
        joined.join();
    };
    {
        Thread joiner(run, &join_body);
        EXPECT_FALSE(joiner.start());
        EXPECT_TRUE(joining.wait());
        EXPECT_FALSE(joiner.terminate());
        EXPECT_TRUE(left.wait());
    }
    go.set();
    EXPECT_FALSE(joined.join());
}

// ---- the destructor ----

TEST_F(ThreadTest, destructorJoinsOneThatHasFinished) {
    int const before = support::countThreads();
    EventRecorder const recorder;
    {
        Thread thread([](void*) {}, nullptr, "finished");
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::FINISHED; }));
    }
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    EXPECT_EQ("", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

constexpr char const* STILL_RUNNING =
    "ABORT framework/src/vesk/posix/Thread ~Thread: thread still running\n"
    "ASSERT framework/src/vesk/posix/Thread ~Thread: getThreadState() == DEAD || m_detached_mode";

TEST_F(ThreadTest, destroyingOneThatRunsEndsTheProcess) {
    ChildEnd const end = support::runInChild([] {
        rlimit const no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        Thread thread([](void*) { waitForCancellation(); }, nullptr);
        EXPECT_FALSE(thread.start());
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("framework/src/vesk/posix/Thread")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find("thread still running")) << end.errors;
}

TEST_F(ThreadTest, survivingTheDestructionOfOneThatRunsLetsItRunOnWithoutItsObject) {
    EventRecorder const recorder;
    Event running;
    Event go;
    Event done;
    Body body = [&] {
        running.set();
        EXPECT_TRUE(go.wait());
        done.set();
    };
    auto thread = std::make_unique<Thread>(run, &body);
    EXPECT_FALSE(thread->start());
    EXPECT_TRUE(running.wait());
    thread.reset();
    EXPECT_EQ(STILL_RUNNING, recorder.getText());
    go.set();
    EXPECT_TRUE(done.wait());
}

TEST_F(ThreadTest, survivingTheDestructionOfOneThatIsJustStartedOrEndingIsNoRace) {
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

TEST_F(ThreadTest, destroyingASuspendedOneIsDestroyingOneThatRuns) {
    EventRecorder const recorder;
    Event ran_out;
    Event go;
    Event done;
    Thread* self = nullptr;
    Body body = [&] {
        EXPECT_FALSE(self->suspend(1));
        ran_out.set();
        EXPECT_TRUE(go.wait());
        done.set();
    };
    {
        Thread thread(run, &body);
        self = &thread;
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(ran_out.wait());
        EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
    }
    EXPECT_EQ(STILL_RUNNING, recorder.getText());
    go.set();
    EXPECT_TRUE(done.wait());
}

TEST_F(ThreadTest, detachedOneDestroyedRightAfterItsStartRunsOn) {
    for (int round = 0; round < 300; ++round) {
        struct Job {
            Event go;
            Event done;
        } job;
        auto thread = std::make_unique<Thread>(
            [](void* argument) {
                auto& mine = *static_cast<Job*>(argument);
                EXPECT_TRUE(mine.go.wait());
                mine.done.set();
            },
            &job, "detached", Attr(), true);
        EXPECT_FALSE(thread->start());
        thread.reset(); // Waits for the hand-over, not for the body, which waits for this thread.
        EXPECT_FALSE(job.done.isSet());
        job.go.set();
        EXPECT_TRUE(job.done.wait());
    }
}

TEST_F(ThreadTest, detachedOneCanOutliveItsBody) {
    Event done;
    Body body = [&done] { done.set(); };
    int const before = support::countThreads();
    Thread thread(run, &body, nullptr, Attr(), true);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(done.wait());
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState()) << "the thread does not touch its object";
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isMisuse("Invalid state for termination request"));
}

TEST_F(ThreadTest, detachedOneDestroyedBeforeItsStartRunsNoBody) {
    std::atomic<int> runs{0};
    Body body = [&runs] { ++runs; };
    EventRecorder const recorder;
    { Thread thread(run, &body, "unborn", Attr(), true); }
    EXPECT_EQ(0, runs);
    EXPECT_EQ("", recorder.getText());
}

TEST_F(ThreadTest, destructorOfAThreadThatIsBeingCancelledFinishesItsJoin) {
    Event ready;
    Event go;
    Event left;
    Body inner_body = [&go] { EXPECT_TRUE(go.wait()); };
    Body outer_body = [&] {
        SetAtEnd const end(left);
        {
            Thread inner(run, &inner_body);
            EXPECT_FALSE(inner.start());
            ready.set();
            EXPECT_TRUE(eventually([&inner] { return inner.getThreadState() == Thread::FINISHED; }));
        } // Joins with a cancellation pending.
        waitForCancellation();
    };
    Thread outer(run, &outer_body);
    EXPECT_FALSE(outer.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(outer.terminate());
    go.set();
    EXPECT_TRUE(left.wait());
}

// ---- suspend and wakeup ----

TEST_F(ThreadTest, suspendWaitsForTheWakeup) {
    Thread* self = nullptr;
    std::atomic<int> steps{0};
    Body body = [&] {
        for (int i = 0; i < 50; ++i) {
            EXPECT_FALSE(self->suspend(0));
            ++steps;
        }
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.wakeup()) << "nothing to wake up";
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::SUSPENDED; }));
        EXPECT_EQ(i, steps);
        EXPECT_FALSE(thread.wakeup());
        EXPECT_TRUE(eventually([&steps, i] { return steps > i; }));
    }
    EXPECT_FALSE(thread.join());
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTest, suspendFromAnotherThreadFailsAndLeavesTheState) {
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread thread(run, &body);
    EXPECT_TRUE(thread.suspend(0));
    EXPECT_TRUE(isMisuse("suspend() called by non-associated thread"));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.suspend(10));
    EXPECT_TRUE(isMisuse("suspend() called by non-associated thread"));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    go.set();
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, suspendWhoseTimeRunsOutLeavesTheStateSuspended) {
    Thread* self = nullptr;
    Event first;
    Event woken;
    Event second;
    Body body = [&] {
        long long before = 0;
        EXPECT_FALSE(vesk::Time::getTime(before));
        EXPECT_FALSE(self->suspend(20));
        long long after = 0;
        EXPECT_FALSE(vesk::Time::getTime(after));
        EXPECT_GE(after - before, 20);
        EXPECT_TRUE(chainIs({}));
        first.set();
        EXPECT_TRUE(woken.wait());
        EXPECT_FALSE(self->suspend(1)) << "a later one goes on normally";
        second.set();
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(first.wait());
    EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isMisuse("Invalid state for termination request"));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    woken.set();
    EXPECT_TRUE(second.wait());
    EXPECT_FALSE(thread.join()) << "a suspended state is no hindrance";
}

TEST_F(ThreadTest, suspendForANegativeTimeHasRunOut) {
    Thread* self = nullptr;
    Body body = [&self] {
        EXPECT_FALSE(self->suspend(-1));
        EXPECT_FALSE(self->suspend(std::numeric_limits<long long>::min()));
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTest, suspendForTheLongestTimeWaitsForTheWakeup) {
    Thread* self = nullptr;
    Body body = [&self] { EXPECT_FALSE(self->suspend(std::numeric_limits<long long>::max())); };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::SUSPENDED; }));
    EXPECT_EQ(1, thread.joinTimeout(1));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_FALSE(thread.join());
}

// ---- exit handlers ----

std::vector<std::string> g_handled; // Written by one thread at a time.
Thread::ThreadId g_handled_in;

template <int N>
void handleExit(Thread::ThreadId const& id, Thread::ExitReason reason) {
    g_handled.push_back(std::to_string(N) + (reason == Thread::EXIT_NORMAL ? " normal" : " terminated"));
    g_handled_in = Thread::getCallerThreadId();
    EXPECT_NE(Thread::ThreadId::INVALID_THREAD_ID, id);
}

TEST_F(ThreadTest, exitHandlersRunInOrderInTheThreadItself) {
    g_handled.clear();
    Body body = [] {
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<2>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_TRUE(g_handled.empty());
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ((std::vector<std::string>{"1 normal", "2 normal", "1 normal"}), g_handled);
    EXPECT_EQ(thread.getThreadId(), g_handled_in);
}

TEST_F(ThreadTest, exitHandlersGetTheIdOfTheThread) {
    static Thread::ThreadId s_id;
    Body body = [] {
        Thread::registerExitHandler([](Thread::ThreadId const& id, Thread::ExitReason) { s_id = id; });
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(thread.getThreadId(), s_id);
}

TEST_F(ThreadTest, exitHandlersRunWithoutTheLockBeforeTheStateChanges) {
    static Thread::State s_state;
    Body body = [] {
        Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) {
            auto* const self = static_cast<Thread*>(Thread::s_tls_ctrl_object.get());
            s_state = self->getThreadState();
            EXPECT_TRUE(self->terminate()) << "its body is over";
            EXPECT_TRUE(isMisuse("Invalid state for termination request"));
        });
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(Thread::RUNNING, s_state);
}

TEST_F(ThreadTest, fifthExitHandlerFailsAndTheFirstFourStay) {
    g_handled.clear();
    Body body = [] {
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<2>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<3>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<4>));
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        errno = ENOSPC; // The text is that of whatever failed last.
        EXPECT_TRUE(Thread::registerExitHandler(handleExit<5>));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::RESOURCES_EXHAUSTED,
              rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(ENOSPC))}}));
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_EQ((std::vector<std::string>{"1 normal", "2 normal", "3 normal", "4 normal"}), g_handled);
}

TEST_F(ThreadTest, exitHandlersOfADetachedOneDoNotRunWhenItsBodyReturns) {
    g_handled.clear();
    Event done;
    Body body = [&done] {
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        done.set();
    };
    int const before = support::countThreads();
    {
        Thread thread(run, &body, nullptr, Attr(), true);
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(done.wait());
        EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
        EXPECT_TRUE(g_handled.empty());
        thread.callExitHandlers(thread.getThreadId(), Thread::EXIT_NORMAL);
    }
    EXPECT_EQ((std::vector<std::string>{"1 normal"}), g_handled) << "it had one";
}

TEST_F(ThreadTest, exitHandlersCanBeRegisteredWhenTheObjectIsGone) {
    g_handled.clear();
    struct Job {
        Event go;
        Event done;
    } job;
    auto thread = std::make_unique<Thread>(
        [](void* argument) {
            auto& mine = *static_cast<Job*>(argument);
            EXPECT_TRUE(mine.go.wait());
            EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
            mine.done.set();
        },
        &job, nullptr, Attr(), true);
    EXPECT_FALSE(thread->start());
    thread.reset();
    job.go.set();
    EXPECT_TRUE(job.done.wait());
    EXPECT_TRUE(g_handled.empty());
}

/// Asks for a handler at the very end of its thread, when the wrapper is through.
class RegistersLate {
public:
    ~RegistersLate() {
        EXPECT_TRUE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_TRUE(isMisuse("calling thread is no VESK thread"));
        s_done = true;
    }
    void use() {}
    static inline std::atomic<bool> s_done{false};
};
thread_local RegistersLate t_registers_late;

TEST_F(ThreadTest, exitHandlersCannotBeRegisteredBehindTheWrapper) {
    Body body = [] { t_registers_late.use(); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(RegistersLate::s_done);
}

TEST_F(ThreadTest, exitHandlerOfAForeignThreadIsRefused) {
    std::thread([] {
        EXPECT_TRUE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_TRUE(isMisuse("calling thread is no VESK thread"));
    }).join();
    // Nor is the first thread the main one as long as there was no start-up.
    EXPECT_TRUE(Thread::registerExitHandler(handleExit<1>));
    EXPECT_TRUE(isMisuse("calling thread is no VESK thread"));
}

TEST_F(ThreadTest, exitHandlersOfTheMainThreadAreKeptAndNeverCalled) {
    ChildEnd const end = support::runInChild([] {
        g_handled.clear();
        vesk::Vesk const vesk(true, false);
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<1>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<2>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<3>));
        EXPECT_FALSE(Thread::registerExitHandler(handleExit<4>));
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        errno = EMFILE;
        EXPECT_TRUE(Thread::registerExitHandler(handleExit<5>));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::RESOURCES_EXHAUSTED,
              rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EMFILE))}}));
        std::thread([] {
            EXPECT_TRUE(Thread::registerExitHandler(handleExit<1>));
            EXPECT_TRUE(isMisuse("calling thread is no VESK thread"));
        }).join();
        {
            Body body = [] { EXPECT_FALSE(Thread::registerExitHandler(handleExit<6>)); };
            Thread thread(run, &body);
            EXPECT_FALSE(thread.start());
            EXPECT_FALSE(thread.join());
        }
        EXPECT_EQ((std::vector<std::string>{"6 normal"}), g_handled) << "each thread has its own";
        std::atexit([] { fprintf(stderr, "%zu handled", g_handled.size()); });
        fflush(stdout);
        exit(testing::Test::HasFailure() ? 1 : 0);
    });
    expectGoodEnd(end);
    EXPECT_EQ("1 handled", end.errors);
}

// ---- the start-up ----

TEST_F(ThreadTest, startUpKeepsTheMainThreadBehindTheClocksAndBeforeTheRest) {
    expectGoodEnd(support::runInChild([] {
        EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
        g_main_known_at_monotonic = -1;
        g_main_known_at_wall_clock = -1;
        vesk::Vesk const vesk(true, false);
        EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
        EXPECT_EQ(0, g_main_known_at_monotonic) << "Time::init comes before it";
        EXPECT_EQ(1, g_main_known_at_wall_clock) << "Vesk::postInit comes behind it";
    }));
}

TEST_F(ThreadTest, startUpThatFailsEarlierDoesNotKeepTheMainThread) {
    expectGoodEnd(support::runInChild([] {
        EventRecorder const recorder;
        Fault const fault(inject_sigaction, EINVAL);
        vesk::Vesk const vesk(true, false);
        EXPECT_EQ(Thread::ThreadId::INVALID_THREAD_ID, Thread::s_main_thread_id);
        EXPECT_EQ(1u, recorder.getCount());
    }));
}

TEST_F(ThreadTest, furtherStartUpInAnotherThreadKeepsTheFirstOne) {
    expectGoodEnd(support::runInChild([] {
        vesk::Vesk const first(true, false);
        Thread::ThreadId const main_id = Thread::getCallerThreadId();
        std::thread([] { vesk::Vesk const second(true, false); }).join();
        EXPECT_EQ(main_id, Thread::s_main_thread_id);
    }));
}

TEST_F(ThreadTest, initAlwaysSucceeds) {
    expectGoodEnd(support::runInChild([] {
        std::thread([] {
            EXPECT_FALSE(Thread::init());
            EXPECT_EQ(Thread::getCallerThreadId(), Thread::s_main_thread_id);
            EXPECT_TRUE(chainIs({}));
        }).join();
    }));
}

TEST_F(ThreadTest, yieldLetsOthersRun) {
    EXPECT_FALSE(Thread::yield());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTest, yieldThatFailsReports) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_sched_yield, ENOSYS);
        EXPECT_TRUE(Thread::yield());
    }
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
