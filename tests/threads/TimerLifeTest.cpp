#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "support/Inject.h"

#include <vesk/Timer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <memory>
#include <sched.h>
#include <thread>
#include <vector>

VESK_INJECT_ERRNO(int, -1, timer_delete, (timer_t timer), (timer))

/// Engines that come and go with the last timer, thousands of times.

// The sanitizers have allocation functions of their own; the address sanitizer tells what was lost.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VESK_COUNTS_BLOCKS 0
#else
#define VESK_COUNTS_BLOCKS 1
#endif

namespace {

/// Blocks of the heap that are in use, of all threads.
std::atomic<long> g_blocks{0};

} // namespace

#if VESK_COUNTS_BLOCKS
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static void* counted(void* block) {
    if (block != nullptr) {
        g_blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}
void* malloc(size_t size) {
    return counted(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
    return counted(__libc_calloc(count, size));
}
void* memalign(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}
void* realloc(void* block, size_t size) {
    void* const result = __libc_realloc(block, size);
    if (block == nullptr) {
        return counted(result);
    }
    if (size == 0) {
        g_blocks.fetch_sub(1, std::memory_order_relaxed);
    }
    return result;
}
void free(void* block) {
    if (block != nullptr) {
        g_blocks.fetch_sub(1, std::memory_order_relaxed);
    }
    __libc_free(block);
}
}
#endif

namespace {

using support::Fault;
using vesk::Timer;

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int ROUNDS = 1000;
#else
constexpr int ROUNDS = 10000;
#endif

std::atomic<int> g_calls{0};

void count(Timer*) {
    ++g_calls;
}

/// One life: started, perhaps stopped, and often destroyed just when its time has come.
void live(int round) {
    Timer timer(count, false);
    switch (round % 4) {
    case 0:
        break;
    case 1:
        timer.start(1, true);
        break;
    case 2:
        timer.snooze(); // At once.
        break;
    default:
        timer.start(1, false);
        timer.stop();
        break;
    }
}

TEST(TimerLife, theLastTimerIsMadeAndDestroyedTenThousandTimesInARow) {
    int const threads = support::countThreads();
    for (int i = 0; i < 8; ++i) {
        live(i); // The first threads of a process leave stacks to be used again.
    }
    long const blocks_before = g_blocks;
    Fault const count(inject_timer_delete, 0);
    for (int i = 0; i < ROUNDS; ++i) {
        live(i);
    }
    long const blocks_after = g_blocks;
    EXPECT_EQ(ROUNDS, count.getCalls());
    EXPECT_TRUE(support::hasThreads(threads));
    EXPECT_EQ(blocks_before, blocks_after);
}

TEST(TimerLife, theLastTimerIsMadeAndDestroyedTenThousandTimesByManyThreads) {
    int const threads = support::countThreads();
    constexpr int THREADS = 4;
    auto const liveManyTimes = [](int rounds) {
        std::vector<std::thread> others;
        for (int t = 0; t < THREADS; ++t) {
            others.emplace_back([=] {
                for (int i = 0; i < rounds; ++i) {
                    live(t + i);
                }
            });
        }
        for (std::thread& other : others) {
            other.join();
        }
    };
    liveManyTimes(50);
    long const blocks_before = g_blocks;
    Fault const count(inject_timer_delete, 0, 1, 1, Fault::Threads::ALL);
    liveManyTimes(ROUNDS / THREADS);
    long const blocks_after = g_blocks;
    EXPECT_GT(count.getCalls(), 0);
    EXPECT_TRUE(support::hasThreads(threads));
    // The system may keep a block or two with each stack for threads to come.
    EXPECT_NEAR(static_cast<double>(blocks_before), static_cast<double>(blocks_after), 40);
    struct sigaction action {};
    sigaction(SIGRTMIN + 3, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TEST(TimerLife, everyLastTimerOfSeveralThreadsEndsTheEngine) {
    // All threads make their timers together, and let go of them together.
    constexpr int THREADS = 3;
    constexpr int TURNS = ROUNDS / 20;
    Fault const count(inject_timer_delete, 0, 1, 1, Fault::Threads::ALL);
    std::atomic<int> arrived{0};
    auto const meet = [&arrived](int turn) {
        ++arrived;
        while (arrived < turn * THREADS) {
            sched_yield();
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&meet] {
            for (int i = 0; i < TURNS; ++i) {
                {
                    Timer timer(::count, false);
                    timer.start(1, true);
                    meet(2 * i + 1);
                }
                meet(2 * i + 2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(TURNS, count.getCalls());
}

} // namespace
