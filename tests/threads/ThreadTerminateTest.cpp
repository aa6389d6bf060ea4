#include "support/Cancellation.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "threads/ThreadSupport.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <pthread.h>
#include <string>
#include <thread>
#include <tuple>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::Event;
using support::eventually;
using support::rowText;
using support::SetAtEnd;
using support::waitForCancellation;
using vesk::Condition;
using vesk::Mutex;
using vesk::MutexLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using vesk::sched::Attr;

testing::AssertionResult isRefused() {
    return chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Invalid state for termination request")}});
}

using Body = std::function<void()>;
void run(void* body) {
    (*static_cast<Body*>(body))();
}

std::atomic<int> g_normal{0};
std::atomic<int> g_terminated{0};
void count(Thread::ThreadId const&, Thread::ExitReason reason) {
    ++(reason == Thread::EXIT_NORMAL ? g_normal : g_terminated);
}

class ThreadTerminate : public support::ThreadsGone {
protected:
    void SetUp() override { g_normal = g_terminated = 0; }
    void waitForTheEnd() const { EXPECT_TRUE(eventually(areThreadsGone)); }
};

// ---- what it does ----

TEST_F(ThreadTerminate, unwindsTheBodyAndCallsTheHandlersInTheCaller) {
    static Thread::ThreadId s_caller;
    static Thread::ThreadId s_id;
    Event ready;
    Event left;
    Body body = [&] {
        SetAtEnd const end(left);
        Thread::registerExitHandler([](Thread::ThreadId const& id, Thread::ExitReason reason) {
            s_id = id;
            s_caller = Thread::getCallerThreadId();
            EXPECT_EQ(Thread::EXIT_TERMINATED, reason);
        });
        Thread::registerExitHandler(count);
        ready.set();
        waitForCancellation();
    };
    Thread thread(run, &body, "terminated");
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_EQ(Thread::getCallerThreadId(), s_caller);
    EXPECT_EQ(thread.getThreadId(), s_id);
    EXPECT_EQ(1, g_terminated);
    EXPECT_TRUE(left.wait());
    EXPECT_EQ(0, g_normal);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadTerminate, leavesNothingToBeJoined) {
    int const before = support::countThreads();
    Event ready;
    Body body = [&ready] {
        ready.set();
        waitForCancellation();
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_EQ(-1, thread.joinTimeout(0));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    EXPECT_FALSE(thread.wakeup());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTerminate, isRefusedBeforeTheStartAndAfterTheEnd) {
    Thread thread([](void*) {}, nullptr);
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::FINISHED; }));
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(Thread::FINISHED, thread.getThreadState());
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
}

TEST_F(ThreadTerminate, isRefusedASecondTime) {
    Event ready;
    Body body = [&ready] {
        Thread::registerExitHandler(count);
        ready.set();
        waitForCancellation();
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(1, g_terminated);
}

TEST_F(ThreadTerminate, refusalReportsOnTopOfWhatIsPending) {
    Thread thread([](void*) {}, nullptr);
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}, {CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_F(ThreadTerminate, isRefusedWhileItIsSuspended) {
    Thread* self = nullptr;
    Body body = [&self] { EXPECT_FALSE(self->suspend(0)); };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::SUSPENDED; }));
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
    EXPECT_FALSE(thread.wakeup());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTerminate, isRefusedWhenItHasEndedByItself) {
    Body body = [] { pthread_exit(nullptr); };
    Thread thread(run, &body);
    int const before = support::countThreads();
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before - 1; }));
    EXPECT_TRUE(thread.terminate());
    EXPECT_TRUE(isRefused());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTerminate, ofADetachedOneCallsItsHandlers) {
    Event ready;
    Event left;
    Body body = [&] {
        SetAtEnd const end(left);
        Thread::registerExitHandler(count);
        ready.set();
        waitForCancellation();
    };
    Thread thread(run, &body, nullptr, Attr(), true);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_TRUE(left.wait());
    EXPECT_EQ(1, g_terminated);
    EXPECT_EQ(0, g_normal);
}

TEST_F(ThreadTerminate, byTheThreadItselfTakesHoldAtTheNextCancellationPoint) {
    Thread* self = nullptr;
    Event left;
    std::atomic<bool> went_on{false};
    Body body = [&] {
        SetAtEnd const end(left);
        Thread::registerExitHandler(count);
        EXPECT_FALSE(self->terminate());
        EXPECT_EQ(1, g_terminated);
        went_on = true;
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(left.wait());
    EXPECT_TRUE(went_on);
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTerminate, bodyThatReturnsAllTheSameLeavesTheStateDead) {
    Event ready;
    Event go;
    int const before = support::countThreads();
    Body body = [&] {
        Thread::registerExitHandler(count);
        ready.set();
        EXPECT_TRUE(go.wait()); // No cancellation point.
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    go.set();
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_EQ(1, g_terminated);
    EXPECT_EQ(0, g_normal);
}

TEST_F(ThreadTerminate, bodyThatReturnsAfterItsObjectIsGoneTouchesNothing) {
    Event ready;
    Event go;
    Event done;
    Body body = [&] {
        ready.set();
        EXPECT_TRUE(go.wait());
        done.set();
    };
    auto thread = std::make_unique<Thread>(run, &body, "orphan");
    EXPECT_FALSE(thread->start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread->terminate());
    thread.reset();
    go.set();
    EXPECT_TRUE(done.wait());
}

// ---- locks and unwinding ----

TEST_F(ThreadTerminate, conditionWaitIsLeftWithTheLockFree) {
    if (!support::FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    for (bool const timed : {false, true}) {
        Mutex mutex;
        Condition condition;
        Event left;
        std::atomic<bool> waiting{false};
        Body body = [&] {
            SetAtEnd const end(left);
            MutexLock const lock(mutex);
            waiting = true;
            for (;;) {
                if (timed) {
                    condition.waitTimeout(mutex, vesk::AbsTimeT(std::numeric_limits<long long>::max() - 1));
                } else {
                    condition.wait(mutex);
                }
            }
        };
        Thread thread(run, &body);
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(eventually([&waiting] { return waiting.load(); }));
        { MutexLock const lock(mutex); } // It is in its wait now.
        EXPECT_FALSE(thread.terminate());
        EXPECT_TRUE(left.wait());
        EXPECT_FALSE(mutex.lock());
        EXPECT_FALSE(mutex.unlock());
        EXPECT_FALSE(condition.signal());
    }
}

TEST_F(ThreadTerminate, cancellationInSuspendLeavesTheLockFree) {
    if (!support::FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    for (long long const ms : {0LL, 3600000LL}) {
        Thread* self = nullptr;
        Event left;
        Body body = [&] {
            SetAtEnd const end(left);
            self->suspend(ms);
        };
        Thread thread(run, &body);
        self = &thread;
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::SUSPENDED; }));
        // terminate refuses, so it takes somebody who knows the handle.
        EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
        EXPECT_TRUE(left.wait());
        EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
        EXPECT_FALSE(thread.wakeup());
        EXPECT_FALSE(thread.join());
    }
}

TEST_F(ThreadTerminate, suspendOfATerminatedThreadIsCancelledAndLeavesTheStateDead) {
    Thread* self = nullptr;
    Event left;
    Body body = [&] {
        SetAtEnd const end(left);
        EXPECT_FALSE(self->terminate());
        self->suspend(0);
        ADD_FAILURE() << "not cancelled";
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(left.wait());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTerminate, suspendOfATerminatedThreadThatRefusesCancellationDoesNotWait) {
    Thread* self = nullptr;
    Event done;
    Body body = [&] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        EXPECT_FALSE(self->terminate());
        EXPECT_FALSE(self->suspend(0));
        done.set();
    };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTerminate, cancellationBeforeTheStartWaitsForTheBody) {
    Event left;
    Body body = [&left] {
        SetAtEnd const end(left);
        waitForCancellation();
    };
    Thread thread(run, &body);
    EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(left.wait());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTerminate, cancellationBeforeTheStartDoesNotKeepTheObjectFromItsEnd) {
    for (bool const detached : {false, true}) {
        Body body = [] { ADD_FAILURE() << "ran"; };
        Thread thread(run, &body, nullptr, Attr(), detached);
        EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
    }
}

TEST_F(ThreadTerminate, catchingEverythingAndThrowingItOnLetsTheUnwindingPass) {
    Event ready;
    Event left;
    bool caught = false;
    Body body = [&] {
        SetAtEnd const end(left);
        try {
            ready.set();
            waitForCancellation();
        } catch (...) {
            caught = true;
            throw;
        }
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(left.wait());
    EXPECT_TRUE(caught);
}

TEST_F(ThreadTerminate, sleepOfTheLibraryIsCancelled) {
    if (!support::FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    if (!support::WATCHES_CANCELLED_CALLS) {
        GTEST_SKIP() << "the thread sanitizer does not know threads that are cancelled in clock_nanosleep";
    }
    Event ready;
    Event left;
    Body body = [&] {
        SetAtEnd const end(left);
        ready.set();
        vesk::Time::sleep(3600000);
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(left.wait());
}

// ---- the object of a suspended thread ----

/// Whether the thread is detached, and how long it suspends itself.
using Suspending = std::tuple<bool, long long>;

class ThreadEndInSuspend : public ThreadTerminate, public testing::WithParamInterface<Suspending> {
protected:
    std::unique_ptr<Thread> start() {
        auto thread = std::make_unique<Thread>(run, &m_body, "suspended", Attr(), std::get<0>(GetParam()));
        m_self = thread.get();
        EXPECT_FALSE(thread->start());
        return thread;
    }
    bool suspend() { return m_self.load()->suspend(std::get<1>(GetParam())); }

    Body m_body;
    std::atomic<Thread*> m_self{nullptr};
};

INSTANTIATE_TEST_SUITE_P(
    All, ThreadEndInSuspend, testing::Combine(testing::Bool(), testing::Values(0LL, 1LL, 3600000LL)),
    [](auto const& row) {
        return (std::get<0>(row.param) ? "detached" : "joinable") + std::to_string(std::get<1>(row.param));
    });

TEST_P(ThreadEndInSuspend, wokenTerminatedAndDestroyedAtOnceLeavesNoTrace) {
    if (!support::FORGETS_UNWOUND_FRAMES) {
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";
    }
    std::atomic<int> ended{0};
    m_body = [this, &ended] {
        std::unique_ptr<std::atomic<int>, void (*)(std::atomic<int>*)> const count(
            &ended, [](std::atomic<int>* counter) { ++*counter; });
        for (;;) {
            suspend();
        }
    };
    support::EventRecorder const recorder;
    for (int round = 0; round < 300; ++round) {
        std::unique_ptr<Thread> thread = start();
        ASSERT_TRUE(eventually([&thread] { return thread->getThreadState() == Thread::SUSPENDED; }));
        // A thread that suspends itself once more in between is not terminated.
        while (thread->wakeup() || thread->terminate()) {
            std::ErrorStorage::ack();
        }
        thread.reset();
        waitForTheEnd();
        if (support::UNWINDS_ASYNCHRONOUSLY) {
            EXPECT_EQ(round + 1, ended);
        }
    }
    EXPECT_EQ("", recorder.getText());
}

TEST_P(ThreadEndInSuspend, bodyOfATerminatedThreadMaySuspendWithoutItsObject) {
    Event ready;
    Event gone;
    Event done;
    m_body = [&] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        ready.set();
        EXPECT_TRUE(gone.wait());
        EXPECT_FALSE(suspend());
        done.set();
    };
    std::unique_ptr<Thread> thread = start();
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread->terminate());
    thread.reset();
    gone.set();
    EXPECT_TRUE(done.wait());
}

TEST_F(ThreadTerminate, objectThatEndsWakesItsDetachedThread) {
    support::EventRecorder const recorder;
    for (long long const ms : {0LL, 1LL, 3600000LL}) {
        std::atomic<Thread*> self{nullptr};
        Event gone;
        Event done;
        Body body = [&] {
            EXPECT_FALSE(self.load()->suspend(ms));
            EXPECT_TRUE(gone.wait());
            EXPECT_TRUE(self.load()->suspend(ms));
            EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
            done.set();
        };
        auto thread = std::make_unique<Thread>(run, &body, nullptr, Attr(), true);
        self = thread.get();
        EXPECT_FALSE(thread->start());
        EXPECT_TRUE(eventually([&thread] { return thread->getThreadState() == Thread::SUSPENDED; }));
        thread.reset();
        gone.set();
        EXPECT_TRUE(done.wait());
    }
    waitForTheEnd();
    EXPECT_EQ("", recorder.getText());
}

// ---- races ----

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int ROUNDS = 3000; // Each takes about ten times as long.
#else
constexpr int ROUNDS = 10000;
#endif

/// A little time, other in every round, to hit every moment of a thread's life.
void linger(int round, int longest = 100000) {
    for (volatile int i = 0; i < round * 7919 % longest; i = i + 1) {}
}

std::atomic<int> g_begun{0};

void registerCount(void*) {
    Thread::registerExitHandler(count);
    ++g_begun;
}

void registerAndWait(void*) {
    Thread::registerExitHandler(count);
    waitForCancellation();
}

class ThreadTerminateRace : public ThreadTerminate, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(All, ThreadTerminateRace, testing::Bool(), [](auto const& row) {
    return row.param ? "detached" : "joinable";
});

// The memory of the object is given back at once, so that the address sanitizer sees who touches it.
TEST_P(ThreadTerminateRace, withTheEndOfTheBodyHasOneWinner) {
    bool const detached = GetParam();
    int refused = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        auto thread = std::make_unique<Thread>(registerCount, nullptr, "racing", Attr(), detached);
        int const begun = g_begun;
        ASSERT_FALSE(thread->start());
        if (round % 2 == 0) {
            linger(round);
        } else {
            // The end of the body follows at once.
            ASSERT_TRUE(eventually([begun] { return g_begun != begun; }));
            linger(round, 20000);
        }
        if (!thread->terminate()) {
            ASSERT_EQ(Thread::DEAD, thread->getThreadState());
        } else {
            ASSERT_TRUE(isRefused());
            ++refused;
            ASSERT_TRUE(detached || !thread->join());
        }
    }
    waitForTheEnd();
    EXPECT_EQ(detached ? 0 : refused, g_normal) << "once for each thread that ended by itself";
    EXPECT_LE(g_terminated, ROUNDS - refused) << "at most once for each that was terminated";
    RecordProperty("refused", refused);
}

TEST_P(ThreadTerminateRace, withTheBeginningOfTheThreadHasOneWinner) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto thread = std::make_unique<Thread>(registerAndWait, nullptr, "racing", Attr(), GetParam());
        if (round % 2 == 1) {
            linger(round / 8);
        }
        ASSERT_FALSE(thread->start());
        ASSERT_FALSE(thread->terminate());
    }
    EXPECT_EQ(0, g_normal);
    EXPECT_LE(g_terminated, ROUNDS);
}

TEST_F(ThreadTerminate, isNotNeededWhereTheObjectOfADetachedThreadGoesAtAnyMoment) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto thread = std::make_unique<Thread>(registerCount, nullptr, "racing", Attr(), true);
        if (round % 3 != 0) {
            ASSERT_FALSE(thread->start());
        }
        linger(round);
    }
    EXPECT_EQ(0, g_normal);
}

TEST_F(ThreadTerminate, ofSeveralAtOnceOneSucceeds) {
    for (int round = 0; round < ROUNDS / 10; ++round) {
        g_terminated = 0;
        Event ready;
        Body body = [&ready] {
            Thread::registerExitHandler(count);
            ready.set();
            waitForCancellation();
        };
        Thread thread(run, &body);
        ASSERT_FALSE(thread.start());
        ASSERT_TRUE(ready.wait());
        std::atomic<int> succeeded{0};
        auto const terminate = [&] {
            if (!thread.terminate()) {
                ++succeeded;
            }
            std::ErrorStorage::ack();
        };
        std::thread other(terminate);
        terminate();
        other.join();
        ASSERT_EQ(1, succeeded);
        ASSERT_EQ(1, g_terminated);
    }
}

TEST_F(ThreadTerminate, fightsWithAJoinAndBothComeToAnEnd) {
    for (int round = 0; round < ROUNDS / 5; ++round) {
        auto thread = std::make_unique<Thread>(
            round % 2 == 0 ? registerAndWait : registerCount, nullptr, "fought over");
        ASSERT_FALSE(thread->start());
        bool joined = false;
        std::thread joiner([&] {
            if (round % 4 < 2) {
                joined = !thread->join();
                EXPECT_TRUE(joined || chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
            } else {
                signed char const result = thread->joinTimeout(round % 3);
                joined = result == 0;
                EXPECT_TRUE(result >= 0 || chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
            }
        });
        linger(round);
        bool const terminated = !thread->terminate();
        EXPECT_TRUE(terminated || isRefused());
        joiner.join();
        if (!joined && !terminated) {
            ASSERT_FALSE(thread->join());
        }
        ASSERT_EQ(Thread::DEAD, thread->getThreadState());
    }
}

TEST_F(ThreadTerminate, suspendAndWakeupFightOverTheState) {
    for (int round = 0; round < ROUNDS / 50; ++round) {
        struct Job {
            std::atomic<Thread*> self{nullptr};
        } job;
        auto thread = std::make_unique<Thread>(
            [](void* argument) {
                Thread& self = *static_cast<Job*>(argument)->self;
                for (int i = 0; i < 3; ++i) {
                    self.suspend(i);
                }
            },
            &job);
        job.self = thread.get();
        ASSERT_FALSE(thread->start());
        std::atomic<bool> over{false};
        std::thread waker([&] {
            while (!over) {
                EXPECT_FALSE(thread->wakeup());
            }
        });
        ASSERT_FALSE(thread->join());
        over = true;
        waker.join();
    }
}

} // namespace
