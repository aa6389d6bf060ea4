#include "SignalsToMainThread.h"
#include "ThreadSupport.h"
#include "support/Inject.h"

#include <vesk/Timer.h>

#include <csignal>
#include <cstddef>

VESK_INJECT_ERRNO(int, -1, timer_delete, (timer_t timer), (timer))

/// Engines that are created with the first timer and destroyed with the last one, thousands of times.

// The sanitizers have allocation functions of their own. The address sanitizer reports leaks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VESK_COUNTS_BLOCKS 0
#else
#define VESK_COUNTS_BLOCKS 1
#endif

namespace {

/// The number of blocks of the heap that all threads use.
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

using namespace support;
using vesk::Timer;

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr int ROUNDS = 1000;
#else
constexpr int ROUNDS = 10000;
#endif

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
    int const threads = countThreads();
    for (int i = 0; i < 8; ++i) {
        use(i); // The first threads of a process leave stacks to be used again.
    }
    long const blocks_before = g_blocks;
    Fault const deletions(inject_timer_delete, 0);
    for (int i = 0; i < ROUNDS; ++i) {
        use(i);
    }
    long const blocks_after = g_blocks;
    EXPECT_EQ(ROUNDS, deletions.getCalls());
    EXPECT_TRUE(hasThreads(threads));
    EXPECT_EQ(blocks_before, blocks_after);
}

TEST(TimerLife, lastTimerIsCreatedAndDestroyedManyTimesByManyThreads) {
    int const threads = countThreads();
    constexpr int THREADS = 4;
    auto const useManyTimes = [](int rounds) {
        runThreads(THREADS, [rounds](int thread) {
            for (int i = 0; i < rounds; ++i) {
                use(thread + i);
            }
        });
    };
    useManyTimes(50);
    long const blocks_before = g_blocks;
    Fault const deletions(inject_timer_delete, 0, 1, 1, Fault::Threads::ALL);
    useManyTimes(ROUNDS / THREADS);
    long const blocks_after = g_blocks;
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
