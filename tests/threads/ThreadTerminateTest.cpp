#include "support/Cancellation.h"
#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "threads/ThreadSupport.h"

#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/Time.h>

#include <limits>

namespace {

using namespace support;
using vesk::Condition;
using vesk::Mutex;
using vesk::MutexLock;

std::atomic<int> g_normal{0};
std::atomic<int> g_terminated{0};
void count(Thread::ThreadId const&, Thread::ExitReason reason) {
    ++(reason == Thread::EXIT_NORMAL ? g_normal : g_terminated);
}

class ThreadTerminate : public ThreadsGone {
protected:
    void SetUp() override { g_normal = g_terminated = 0; }
    void TearDown() override {
        // Orders the last use of this object in the thread before its destruction.
        EXPECT_TRUE(!m_ready.isSet() || m_left.wait());
        ThreadsGone::TearDown();
    }
    void waitForTheEnd() const { EXPECT_TRUE(eventually(areThreadsGone)); }

    /// Starts a thread and waits until it is ready.
    void start(Thread& thread) {
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(m_ready.wait());
    }
    void expectCalls(int normal, int terminated) const {
        EXPECT_EQ(normal, g_normal);
        EXPECT_EQ(terminated, g_terminated);
    }

    int m_threads = countThreads();
    Event m_ready;
    Event m_go;
    Event m_left;
    Body m_cancelable = [this] {
        SetAtEnd const end(m_left);
        Thread::registerExitHandler(count);
        m_ready.set();
        waitForCancellation();
    };
    /// Waits for `m_go` without a cancellation point.
    Body m_returning = [this] {
        SetAtEnd const end(m_left);
        Thread::registerExitHandler(count);
        m_ready.set();
        EXPECT_TRUE(m_go.wait());
    };
};

testing::AssertionResult isRefused() {
    return chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Invalid state for termination request")}});
}

// ---- what it does ----

TEST_F(ThreadTerminate, unwindsTheBodyAndCallsTheHandlersInTheCaller) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    static Thread::ThreadId s_caller;
    static Thread::ThreadId s_id;
    for (bool const detached : {false, true}) {
        SCOPED_TRACE(detached);
        Event ready;
        Event left;
        StartedThread thread(
            [&] {
                SetAtEnd const end(left);
                Thread::registerExitHandler([](Thread::ThreadId const& id, Thread::ExitReason reason) {
                    s_id = id;
                    s_caller = Thread::getCallerThreadId();
                    EXPECT_EQ(Thread::EXIT_TERMINATED, reason);
                });
                Thread::registerExitHandler(count);
                ready.set();
                waitForCancellation();
            },
            nullptr, Attr(), detached);
        EXPECT_TRUE(ready.wait());
        EXPECT_FALSE(thread.terminate());
        EXPECT_EQ(Thread::DEAD, thread.getThreadState());
        EXPECT_EQ(Thread::getCallerThreadId(), s_caller);
        EXPECT_EQ(thread.getThreadId(), s_id);
        EXPECT_TRUE(left.wait());
        EXPECT_TRUE(thread.terminate());
        EXPECT_TRUE(isRefused());
        expectCalls(0, detached ? 2 : 1);
    }
}

TEST_F(ThreadTerminate, byTheThreadItselfTakesEffectAtTheNextCancellationPoint) {
    StartedThread thread([this] {
        SetAtEnd const end(m_left);
        Thread::registerExitHandler(count);
        EXPECT_FALSE(self().terminate());
        EXPECT_EQ(1, g_terminated);
        m_go.set();
        pthread_testcancel();
        ADD_FAILURE() << "not canceled";
    });
    EXPECT_TRUE(m_left.wait());
    EXPECT_TRUE(m_go.isSet());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

TEST_F(ThreadTerminate, bodyThatReturnsAllTheSameLeavesTheStateDead) {
    TestThread thread(m_returning);
    start(thread);
    EXPECT_FALSE(thread.terminate());
    m_go.set();
    EXPECT_TRUE(hasThreads(m_threads));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    expectCalls(0, 1);
}

TEST_F(ThreadTerminate, bodyThatReturnsAfterItsObjectIsDestroyedTouchesNothing) {
    auto thread = std::make_unique<Thread>(run, &m_returning, "orphan");
    start(*thread);
    EXPECT_FALSE(thread->terminate());
    thread.reset();
    m_go.set();
    EXPECT_TRUE(m_left.wait());
}

// ---- locks and unwinding ----

TEST_F(ThreadTerminate, conditionWaitIsLeftWithTheLockFree) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    for (bool const timed : {false, true}) {
        Mutex mutex;
        Condition condition;
        Event left;
        std::atomic<bool> waiting{false};
        StartedThread thread([&] {
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
        });
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
    VESK_SKIP_WITHOUT_CANCELLATION();
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    for (long long const ms : {0LL, 3600000LL}) {
        Event left;
        StartedThread thread([&left, ms] {
            SetAtEnd const end(left);
            self().suspend(ms);
        });
        EXPECT_TRUE(thread.isIn(Thread::SUSPENDED));
        // terminate refuses a suspended thread.
        EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
        EXPECT_TRUE(left.wait());
        EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
        EXPECT_FALSE(thread.wakeup());
        EXPECT_FALSE(thread.join());
    }
}

TEST_F(ThreadTerminate, suspendOfATerminatedThreadIsCanceledOrDoesNotWaitAndLeavesTheStateDead) {
    for (bool const cancelable : {true, false}) {
        Event left;
        StartedThread thread([&] {
            SetAtEnd const end(left);
            pthread_setcancelstate(cancelable ? PTHREAD_CANCEL_ENABLE : PTHREAD_CANCEL_DISABLE, nullptr);
            EXPECT_FALSE(self().terminate());
            EXPECT_FALSE(self().suspend(0));
            EXPECT_FALSE(cancelable) << "not canceled";
        });
        EXPECT_TRUE(left.wait());
        waitForTheEnd();
        EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    }
}

TEST_F(ThreadTerminate, cancellationBeforeTheStartWaitsForTheBody) {
    TestThread thread(m_cancelable);
    EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(m_left.wait());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadTerminate, cancellationBeforeTheStartDoesNotKeepTheObjectFromItsEnd) {
    for (bool const detached : {false, true}) {
        TestThread thread([] { ADD_FAILURE() << "ran"; }, nullptr, Attr(), detached);
        EXPECT_EQ(0, pthread_cancel(thread.getThreadId().getValue()));
    }
}

TEST_F(ThreadTerminate, unwindingPassesABodyThatCatchesEverythingAndRethrows) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    std::atomic<bool> caught{false};
    TestThread thread([&] {
        try {
            m_cancelable();
        } catch (...) {
            caught = true;
            throw;
        }
    });
    start(thread);
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(eventually(areThreadsGone));
    EXPECT_TRUE(caught);
}

TEST_F(ThreadTerminate, sleepOfTheLibraryIsCanceled) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    if (!WATCHES_CANCELLED_CALLS) {
        GTEST_SKIP() << "the thread sanitizer does not know threads that are cancelled in clock_nanosleep";
    }
    TestThread thread([this] {
        SetAtEnd const end(m_left);
        m_ready.set();
        vesk::Time::sleep(3600000);
    });
    start(thread);
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(m_left.wait());
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
    VESK_SKIP_WITHOUT_CANCELLATION();
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    std::atomic<int> ended{0};
    m_body = [this, &ended] {
        std::unique_ptr<std::atomic<int>, void (*)(std::atomic<int>*)> const count(
            &ended, [](std::atomic<int>* counter) { ++*counter; });
        for (;;) {
            suspend();
        }
    };
    EventRecorder const recorder;
    for (int round = 0; round < 300; ++round) {
        std::unique_ptr<Thread> thread = start();
        ASSERT_TRUE(eventually([&thread] { return thread->getThreadState() == Thread::SUSPENDED; }));
        // A thread that suspends itself once more in between is not terminated.
        while (thread->wakeup() || thread->terminate()) {
            std::ErrorStorage::ack();
        }
        thread.reset();
        waitForTheEnd();
        if (UNWINDS_ASYNCHRONOUSLY) {
            EXPECT_EQ(round + 1, ended);
        }
    }
    EXPECT_EQ("", recorder.getText());
}

TEST_P(ThreadEndInSuspend, bodyOfATerminatedThreadMaySuspendWithoutItsObject) {
    m_body = [this] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        m_ready.set();
        EXPECT_TRUE(m_go.wait());
        EXPECT_FALSE(suspend());
        m_left.set();
    };
    std::unique_ptr<Thread> thread = start();
    EXPECT_TRUE(m_ready.wait());
    EXPECT_FALSE(thread->terminate());
    thread.reset();
    m_go.set();
    EXPECT_TRUE(m_left.wait());
}

TEST_F(ThreadTerminate, destructorOfADetachedSuspendedThreadWakesIt) {
    EventRecorder const recorder;
    for (long long const ms : {0LL, 1LL, 3600000LL}) {
        std::atomic<Thread*> self{nullptr};
        Event gone;
        Event done;
        Body body = [&] {
            EXPECT_FALSE(self.load()->suspend(ms));
            EXPECT_TRUE(gone.wait());
            EXPECT_TRUE(self.load()->suspend(ms));
            EXPECT_TRUE(chainIs({CommonErrorId::CONTRACT_BROKEN}));
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

constexpr int ROUNDS = IS_SLOW ? 3000 : 10000; // Each takes about ten times as long.

/// Passes a little time, different in every round, to hit every moment of a thread's life.
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

// The memory of the object is given back at once, so that the address sanitizer sees each access to it.
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
    VESK_SKIP_WITHOUT_CANCELLATION();
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

TEST_F(ThreadTerminate, isNotNeededIfTheObjectOfADetachedThreadIsDestroyedAtAnyMoment) {
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
    VESK_SKIP_WITHOUT_CANCELLATION();
    for (int round = 0; round < ROUNDS / 10; ++round) {
        g_terminated = 0;
        Event ready;
        StartedThread thread([&ready] {
            Thread::registerExitHandler(count);
            ready.set();
            waitForCancellation();
        });
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

TEST_F(ThreadTerminate, racesWithAJoinAndBothComeToAnEnd) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    for (int round = 0; round < ROUNDS / 5; ++round) {
        auto thread =
            std::make_unique<Thread>(round % 2 == 0 ? registerAndWait : registerCount, nullptr, "contended");
        ASSERT_FALSE(thread->start());
        bool joined = false;
        std::thread joiner([&] {
            if (round % 4 < 2) {
                joined = !thread->join();
                EXPECT_TRUE(joined || chainIs({CommonErrorId::CONTRACT_BROKEN}));
            } else {
                signed char const result = thread->joinTimeout(round % 3);
                joined = result == 0;
                EXPECT_TRUE(result >= 0 || chainIs({CommonErrorId::CONTRACT_BROKEN}));
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

TEST_F(ThreadTerminate, suspendAndWakeupRaceForTheState) {
    for (int round = 0; round < ROUNDS / 50; ++round) {
        StartedThread thread([] {
            for (int i = 0; i < 3; ++i) {
                self().suspend(i);
            }
        });
        std::atomic<bool> over{false};
        std::thread waker([&] {
            while (!over) {
                EXPECT_FALSE(thread.wakeup());
            }
        });
        ASSERT_FALSE(thread.join());
        over = true;
        waker.join();
    }
}

} // namespace
