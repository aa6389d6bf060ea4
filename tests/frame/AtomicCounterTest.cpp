#include "support/Testing.h"

#include <vesk/AtomicCounter.h>

namespace {

using vesk::AtomicCounter;

static_assert(sizeof(AtomicCounter) == 4);
static_assert(!std::is_copy_constructible_v<AtomicCounter> && !std::is_copy_assignable_v<AtomicCounter>);

/// The first count in an initializer that runs before that of the counter would: the counter exists already.
extern AtomicCounter g_counter;
uint32_t const g_early = g_counter.increment();
AtomicCounter g_counter;

TEST(AtomicCounter, beginsAtZeroAndIncrementReturnsTheNewCount) {
    AtomicCounter counter;
    for (uint32_t count = 0; count < 3; ++count) {
        EXPECT_EQ(count, counter.getCurrentCount());
        EXPECT_EQ(count, counter.peekCount());
        EXPECT_EQ(count + 1, counter.increment());
    }
}

TEST(AtomicCounter, globalCounterWorksBeforeItsOwnInitializerWouldRun) {
    EXPECT_EQ(1u, g_early);
    EXPECT_EQ(1u, g_counter.getCurrentCount());
}

TEST(AtomicCounter, losesNoIncrementBetweenThreads) {
    constexpr uint32_t ROUNDS = 20000;
    AtomicCounter counter;
    support::runInThreads(4, [&counter](int) {
        uint32_t last = 0;
        for (uint32_t round = 0; round < ROUNDS; ++round) {
            uint32_t const count = counter.increment();
            EXPECT_GT(count, last);
            EXPECT_GE(counter.getCurrentCount(), count);
            last = count;
        }
    });
    EXPECT_EQ(4 * ROUNDS, counter.getCurrentCount());
}

class AtomicCounterOrder : public testing::TestWithParam<uint32_t (AtomicCounter::*)() const> {};

TEST_P(AtomicCounterOrder, showsWritesBeforeTheIncrement) {
    for (int round = 0; round < 200; ++round) {
        AtomicCounter counter;
        int written = 0; // Not atomic: only the counter orders it.
        std::thread writer([&] {
            written = 1;
            counter.increment();
        });
        while ((counter.*GetParam())() == 0) {
            std::this_thread::yield();
        }
        EXPECT_EQ(1, written);
        writer.join();
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, AtomicCounterOrder, testing::Values(&AtomicCounter::getCurrentCount, &AtomicCounter::peekCount),
    [](auto const& row) { return row.index == 0 ? "getCurrentCount" : "peekCount"; });

} // namespace
