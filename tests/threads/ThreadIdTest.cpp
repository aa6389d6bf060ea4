#include "support/Testing.h"

#include <vesk/Thread.h>

#include <iomanip>

namespace {

using ThreadId = vesk::Thread::ThreadId;

constexpr pthread_t ALL_BITS = ~pthread_t{0};

// As wide as what the system has, so that nothing is cut: 32 bits on the target.
static_assert(sizeof(ThreadId) == sizeof(pthread_t));
static_assert(sizeof(void*) != 4 || sizeof(ThreadId) == 4);
static_assert(std::is_trivially_copyable_v<ThreadId>);

std::string textOf(ThreadId const& id) {
    std::ostringstream out;
    out << id;
    return out.str();
}

TEST(ThreadId, hasAllBitsSetByDefault) {
    EXPECT_EQ(ALL_BITS, ThreadId().getValue());
    EXPECT_EQ(ThreadId::INVALID_THREAD_ID, ThreadId());
    EXPECT_EQ(ALL_BITS, ThreadId::INVALID_THREAD_ID.getValue());
}

TEST(ThreadId, ofTheCallerIsThatOfTheSystem) {
    EXPECT_EQ(pthread_self(), vesk::Thread::getCallerThreadId().getValue());
    EXPECT_NE(ThreadId::INVALID_THREAD_ID, vesk::Thread::getCallerThreadId());
    ThreadId other;
    std::thread([&other] { other = vesk::Thread::getCallerThreadId(); }).join();
    EXPECT_NE(other, vesk::Thread::getCallerThreadId());
}

TEST(ThreadId, comparesItsValue) {
    ThreadId const one(1);
    EXPECT_TRUE(one == ThreadId(1));
    EXPECT_FALSE(one == ThreadId(2));
    EXPECT_TRUE(one != ThreadId(2));
    EXPECT_FALSE(one != ThreadId(1));
}

TEST(ThreadId, isOrderedWithoutASignAndCanBeAKey) {
    ThreadId const high(ALL_BITS - (ALL_BITS >> 1)); // The highest bit alone, which is below 0 with a sign.
    EXPECT_TRUE(ThreadId(1) < high);
    EXPECT_FALSE(high < ThreadId(1));
    EXPECT_TRUE(high < ThreadId::INVALID_THREAD_ID);
    EXPECT_FALSE(high < high);
    std::map<ThreadId, int> numbers;
    numbers[ThreadId(3)] = 3;
    numbers[ThreadId(1)] = 1;
    numbers[ThreadId(3)] = 4;
    EXPECT_EQ(2u, numbers.size());
    EXPECT_EQ(1, numbers.begin()->second);
}

TEST(ThreadId, isWrittenWithEightDigitsAtLeastAndAllOfTheSystem) {
    EXPECT_EQ("0x00000000", textOf(ThreadId(0)));
    EXPECT_EQ("0x0000002a", textOf(ThreadId(42)));
    EXPECT_EQ("0x89abcdef", textOf(ThreadId(0x89abcdefU)));
    EXPECT_EQ("0x" + std::string(2 * sizeof(pthread_t), 'f'), textOf(ThreadId()));
    bool const is_short = sizeof(pthread_t) <= 4;
    ThreadId const id = is_short ? ThreadId() : ThreadId(static_cast<pthread_t>(0x7fedcba987654321LL));
    EXPECT_EQ(is_short ? "0xffffffff" : "0x7fedcba987654321", textOf(id));
}

TEST(ThreadId, restoresTheFlagsOfTheStreamLeavesItsFillAtZeroAndIgnoresItsWidth) {
    std::ostringstream out;
    out << std::left << std::uppercase << std::showbase << std::setfill('*');
    std::ios_base::fmtflags const flags = out.flags();
    out << ThreadId(0xab);
    EXPECT_EQ("0x000000ab", out.str()) << "whatever the flags are";
    EXPECT_EQ(flags, out.flags());
    EXPECT_EQ('0', out.fill());
    out.str("");
    out << std::right << std::dec << std::noshowbase << std::setw(4) << 7;
    EXPECT_EQ("0007", out.str());
    out.str("");
    out << std::setw(20) << ThreadId(1) << "|" << 2;
    EXPECT_EQ("0x00000001|2", out.str());
}

} // namespace
