#include "SignalSupport.h"
#include "support/Descriptors.h"
#include "support/HeapUse.h"

#include <vesk/SignalCatcher.h>

namespace {

using namespace support;
using vesk::SignalCatcher;

constexpr int THREADS = 4;
constexpr int CYCLES = 10'000;

void ignore(int, void*) {}

/// Makes and destroys catchers in several threads, one signal a thread. All of them exist at once, so that the
/// system keeps as many stacks each time. With a lock each catcher is the first and the last of the process.
void cycle(int cycles, std::mutex* lock) {
    runInThreads(THREADS, [&](int i) {
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

void expectNoMoreAfter(std::mutex* lock) {
    int const threads = countThreads();
    cycle(40, lock); // Objects that are made only once exist now.
    EXPECT_TRUE(hasThreads(threads));
    int const threads_before = countThreads();
    int const descriptors = countDescriptors();
    long long const blocks = g_heap_blocks;
    long long const bytes = g_heap_bytes;
    cycle(CYCLES, lock);
    EXPECT_TRUE(hasThreads(threads_before));
    EXPECT_EQ(descriptors, countDescriptors());
    EXPECT_EQ(blocks, g_heap_blocks);
    EXPECT_EQ(bytes, g_heap_bytes);
}

TEST(SignalLeakTest, theLastCatcherMadeAndDestroyedTenThousandTimesLeavesNothing) {
    std::mutex one_at_a_time;
    Fault const pipes(inject_pipe, 0, 1, 1, Fault::Threads::ALL);
    expectNoMoreAfter(&one_at_a_time);
    EXPECT_EQ(40 + CYCLES, pipes.getCalls()) << "each was the first and the last";
}

TEST(SignalLeakTest, catchersMadeAndDestroyedBySeveralThreadsAtOnceLeaveNothing) {
    Fault const pipes(inject_pipe, 0, 1, 1, Fault::Threads::ALL);
    expectNoMoreAfter(nullptr);
    EXPECT_LT(0, pipes.getCalls());
}

} // namespace
