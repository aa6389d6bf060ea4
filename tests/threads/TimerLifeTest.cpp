#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "support/Emulation.h"
#include "support/HeapUse.h"

#include <vesk/Timer.h>

VESK_INJECT_ERRNO(int, -1, timer_delete, (timer_t timer), (timer))

/// Engines that are created with the first timer and destroyed with the last one, thousands of times.

namespace {

using namespace support;
using vesk::Timer;

constexpr int ROUNDS = IS_SLOW ? 1000 : 10000;

void ignore(Timer*) {}

/// Creates a timer, starts and stops it in a way that depends on the round, and destroys it, often just when it expires.
void use(int round) {
    Timer timer(ignore, false);
    if (round % 4 == 1) {
        timer.start(1, true);
    } else if (round % 4 == 2) {
        timer.snooze(); // Expires at once.
    } else if (round % 4 == 3) {
        timer.start(1, false);
        timer.stop();
    }
}

TEST(TimerLife, lastTimerIsCreatedAndDestroyedManyTimesInARow) {
    int const threads = g_threads_at_start;
    for (int i = 0; i < 8; ++i) {
        use(i); // The first threads of a process leave stacks to be used again.
    }
    long long const blocks_before = g_heap_blocks;
    Fault const deletions(inject_timer_delete, 0);
    for (int i = 0; i < ROUNDS; ++i) {
        use(i);
    }
    long long const blocks_after = g_heap_blocks;
    EXPECT_EQ(ROUNDS, deletions.getCalls());
    EXPECT_TRUE(hasThreads(threads));
    EXPECT_EQ(blocks_before, blocks_after);
}

TEST(TimerLife, lastTimerIsCreatedAndDestroyedManyTimesByManyThreads) {
    int const threads = g_threads_at_start;
    constexpr int THREADS = 4;
    auto const useManyTimes = [](int rounds) {
        runThreads(THREADS, [rounds](int thread) {
            for (int i = 0; i < rounds; ++i) {
                use(thread + i);
            }
        });
    };
    useManyTimes(50);
    long long const blocks_before = g_heap_blocks;
    Fault const deletions(inject_timer_delete, 0, 1, 1, Fault::Threads::ALL);
    useManyTimes(ROUNDS / THREADS);
    long long const blocks_after = g_heap_blocks;
    EXPECT_GT(deletions.getCalls(), 0);
    EXPECT_TRUE(hasThreads(threads));
    // The system may keep a block or two with each stack for later threads.
    EXPECT_NEAR(static_cast<double>(blocks_before), static_cast<double>(blocks_after), 40);
    struct sigaction action {};
    sigaction(SIGRTMIN + 3, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TEST(TimerLife, everyLastTimerOfSeveralThreadsEndsTheEngine) {
    // All threads create their timers together, and destroy them together.
    constexpr int THREADS = 3;
    constexpr int TURNS = ROUNDS / 20;
    Fault const deletions(inject_timer_delete, 0, 1, 1, Fault::Threads::ALL);
    std::atomic<int> arrived{0};
    auto const meet = [&arrived](int turn) {
        ++arrived;
        while (arrived < turn * THREADS) {
            sched_yield();
        }
    };
    runThreads(THREADS, [&meet](int) {
        for (int i = 0; i < TURNS; ++i) {
            {
                Timer timer(ignore, false);
                timer.start(1, true);
                meet(2 * i + 1);
            }
            meet(2 * i + 2);
        }
    });
    EXPECT_EQ(TURNS, deletions.getCalls());
}

} // namespace
