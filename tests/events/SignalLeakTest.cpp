#include "support/Descriptors.h"
#include "support/Inject.h"

#include "SignalSupport.h"

#include <vesk/SignalCatcher.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

support::Injected inject_pipe("pipe");
extern "C" VESK_UNWATCHED int pipe(int* ends) {
    using Function = int (*)(int*);
    auto const real = reinterpret_cast<Function>(inject_pipe.getReal());
    if (!support::isOfLibrary(__builtin_return_address(0))) {
        return real(ends);
    }
    int error = 0;
    inject_pipe.fails(error); // Counts.
    return real(ends);
}

namespace {
// Bytes and blocks of the heap that are in use, in all threads. The sanitizers look for leaks themselves.
std::atomic<long long> s_bytes{0};
std::atomic<long long> s_blocks{0};
} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

void* add(void* memory) {
    if (memory != nullptr) {
        s_bytes += static_cast<long long>(malloc_usable_size(memory));
        ++s_blocks;
    }
    return memory;
}

void subtract(void* memory) {
    if (memory != nullptr) {
        s_bytes -= static_cast<long long>(malloc_usable_size(memory));
        --s_blocks;
    }
}

} // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

void* malloc(size_t size) {
    return add(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) {
    return add(__libc_calloc(count, size));
}
void* realloc(void* memory, size_t size) {
    subtract(memory);
    return add(__libc_realloc(memory, size));
}
void free(void* memory) {
    subtract(memory);
    __libc_free(memory);
}
}

#endif

namespace {

using support::Fault;
using vesk::SignalCatcher;

constexpr int THREADS = 4;
constexpr int CYCLES = 10'000;

void ignore(int, void*) {}

/// Makes and destroys catchers in several threads at once, one signal a thread. With a lock each is the first and the
/// last of the process.
void cycle(int cycles, std::mutex* lock) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            // All of them exist at once, so that the system keeps as many stacks each time.
            ++ready;
            while (ready < THREADS) {
                sched_yield();
            }
            for (int n = 0; n < cycles / THREADS; ++n) {
                std::unique_lock<std::mutex> const guard =
                    lock != nullptr ? std::unique_lock<std::mutex>(*lock) : std::unique_lock<std::mutex>();
                SignalCatcher const catcher(SIGRTMIN + 1 + i, ignore, nullptr);
                if (n % 16 == 0) {
                    raise(SIGRTMIN + 1 + i);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

struct Use {
    static Use now() { return {support::countThreads(), support::countDescriptors(), s_blocks, s_bytes}; }

    int threads;
    int descriptors;
    long long blocks;
    long long bytes;
};

void expectNoMoreAfter(std::mutex* lock) {
    int const threads = support::countThreads();
    cycle(40, lock); // What is made once is there.
    EXPECT_TRUE(support::waitUntil([&] { return support::countThreads() == threads; }));
    Use const before = Use::now();
    cycle(CYCLES, lock);
    EXPECT_TRUE(support::waitUntil([&] { return support::countThreads() == before.threads; }));
    Use const after = Use::now();
    EXPECT_EQ(before.descriptors, after.descriptors);
    EXPECT_EQ(before.blocks, after.blocks);
    EXPECT_EQ(before.bytes, after.bytes);
}

TEST(SignalLeakTest, TheLastCatcherMadeAndDestroyedTenThousandTimesInARowLeavesNothing) {
    std::mutex one_at_a_time;
    Fault const pipes(inject_pipe, 0, 1, 1, Fault::Threads::ALL);
    expectNoMoreAfter(&one_at_a_time);
    // Each was the first and the last.
    EXPECT_EQ(40 + CYCLES, pipes.getCalls());
}

TEST(SignalLeakTest, CatchersMadeAndDestroyedBySeveralThreadsAtOnceLeaveNothing) {
    Fault const pipes(inject_pipe, 0, 1, 1, Fault::Threads::ALL);
    expectNoMoreAfter(nullptr);
    EXPECT_LT(0, pipes.getCalls());
}

} // namespace
