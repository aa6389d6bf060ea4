#include "support/NewFault.h"
#include "support/Testing.h"

#include <common/MemoryPool.h>
#include <vesk/Mutex.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;

using PlainPool = std::MemoryPool<std::NullOnDepletion, std::FakeLock, std::FakeCondition>;
using GrowingPool = std::MemoryPool<std::UsePoolOnDepletion, std::FakeLock, std::FakeCondition>;
using LockedPool = std::MemoryPool<std::UsePoolOnDepletion, vesk::Mutex, std::FakeCondition>;

constexpr unsigned int POINTER = sizeof(void*);

constexpr char const* NO_BLOCK = "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
                                 "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start";
constexpr char const* FULL = "ASSERT framework/include/common/MemoryPool push: m_left < m_size";
constexpr char const* NO_STACK =
    "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack";

/// Returns a line several times, as an `EventRecorder` shows it.
std::string times(int count, std::string const& line) {
    return count == 1 ? line : line + "\n" + times(count - 1, line);
}

using Items = std::vector<void*>;

Items take(GrowingPool& pool, int count) {
    Items items;
    for (int i = 0; i < count; ++i) {
        items.push_back(pool.get());
    }
    return items;
}

void putBack(GrowingPool& pool, Items const& items) {
    for (void* const item : items) {
        pool.thankYou(item);
    }
}

// ---- the lock and the condition that do nothing ----

TEST(FakeLock, doesNothingAndSucceedsLikeItsCondition) {
    std::FakeLock lock;
    EXPECT_FALSE(lock.lock() || lock.lock() || lock.unlock());
    EXPECT_EQ(0, lock.tryLock());
    EXPECT_EQ(0, lock.tryLockTimeout(5));
    std::FakeCondition const condition;
    EXPECT_FALSE(condition.wait(lock) || condition.signal());
    EXPECT_EQ(0, condition.waitTimeout(lock, 5LL));
}

// ---- the loop around an allocation ----

TEST(ErrorHelper, repeatsTheAllocationUntilItSucceeds) {
    for (int const failures : {0, 3}) {
        EventRecorder const recorder;
        int attempts = 0;
        int value = 0;
        auto const allocate = [&] { return ++attempts <= failures ? nullptr : &value; };
        EXPECT_EQ(&value, std::allocateOrWait(allocate, "path/File", "operation", "need 100% of it"));
        EXPECT_EQ(failures + 1, attempts);
        std::string const line = "OUT_OF_MEMORY path/File operation: need 100% of it";
        EXPECT_EQ(failures == 0 ? "" : times(failures, line), recorder.getText());
    }
}

// ---- the stack of free items ----

TEST(FreeStack, returnsTheItemsFromTheEndOfTheBlockDownwardAndTheLastPushedFirst) {
    EventRecorder const recorder;
    unsigned char block[4 * 6];
    std::FreeStack stack(block, 6, 4);
    EXPECT_EQ(4u, stack.getLeft());
    EXPECT_EQ(4u, stack.getSize());
    EXPECT_TRUE(stack.isFull());
    for (int i = 3; i >= 0; --i) {
        EXPECT_EQ(block + i * 6, stack.pop());
    }
    EXPECT_EQ(0u, stack.getLeft());
    EXPECT_EQ(nullptr, stack.pop());
    EXPECT_EQ(4u, stack.getSize());
    for (int i = 0; i < 4; ++i) {
        stack.push(block + i * 6);
    }
    EXPECT_EQ(0u, recorder.getCount());
    stack.push(block); // One too many is dropped.
    EXPECT_EQ(FULL, recorder.getText());
    EXPECT_EQ(4u, stack.getLeft());
    for (int i = 3; i >= 0; --i) {
        EXPECT_EQ(block + i * 6, stack.pop());
    }
    EXPECT_EQ(nullptr, stack.pop());
    std::FreeStack none(block, 8, 0);
    EXPECT_EQ(nullptr, none.pop());
    EXPECT_TRUE(none.isFull());
    EXPECT_EQ(1u, recorder.getCount());
}

TEST(FreeStack, withoutABlockTripsAnAssertionAndIsEmpty) {
    EventRecorder const recorder;
    std::FreeStack stack(nullptr, 8, 4);
    EXPECT_EQ("ASSERT framework/include/common/MemoryPool FreeStack: init", recorder.getText());
    EXPECT_EQ(0u, stack.getLeft());
    EXPECT_EQ(4u, stack.getSize());
    EXPECT_EQ(nullptr, stack.pop());
}

TEST(FreeStack, waitsForTheMemoryOfItsArray) {
    EventRecorder const recorder;
    unsigned char block[2 * 8];
    NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
    std::FreeStack stack(block, 8, 2);
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_EQ(times(3, NO_STACK), recorder.getText());
    EXPECT_EQ(2u, stack.getLeft());
}

// ---- the pool ----

TEST(MemoryPool, itemsAreDistinctAlignedAndInsideTheBlock) {
    constexpr unsigned int SIZE = 2 * POINTER;
    PlainPool pool(SIZE, 16);
    std::set<void*> items;
    for (int i = 0; i < 16; ++i) {
        void* const item = pool.get();
        ASSERT_NE(nullptr, item);
        EXPECT_TRUE(pool.contains(item));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(item) % POINTER);
        memset(item, 0xA5, SIZE); // The sanitizer checks the bounds.
        items.insert(item);
    }
    EXPECT_EQ(16u, items.size());
    unsigned char const* const lowest = static_cast<unsigned char*>(*items.begin());
    EXPECT_EQ(lowest + 15 * SIZE, *items.rbegin());
    EXPECT_TRUE(pool.contains(lowest + 16 * SIZE - 1));
    for (unsigned char const* const outside :
         {lowest - 1, lowest + 16 * SIZE, static_cast<unsigned char const*>(nullptr)}) {
        EXPECT_FALSE(pool.contains(outside));
    }
}

TEST(MemoryPool, itemIsAtLeastAsLargeAsAPointer) {
    NewFault const counter(New::NOTHROW_ARRAY, 1, 0);
    EXPECT_EQ(POINTER, PlainPool(1, 10).getItemSize());
    EXPECT_EQ(POINTER, PlainPool(POINTER, 10).getItemSize());
    PlainPool const large(POINTER + 1, 10);
    EXPECT_EQ(POINTER + 1, large.getItemSize());
    EXPECT_EQ(10u, large.getItemCount());
    // A block and the array of its stack each.
    size_t const array = 10 * POINTER;
    EXPECT_EQ((std::vector<size_t>{array, array, array, array, array + 10, array}), counter.getSizes());
}

TEST(MemoryPool, returnsTheItemsDownwardThenNullThenThoseThatWerePutBack) {
    PlainPool pool(POINTER, 3);
    auto* const last = static_cast<unsigned char*>(pool.get());
    EXPECT_EQ(last - POINTER, pool.get());
    EXPECT_EQ(last - 2 * POINTER, pool.get());
    EXPECT_EQ(nullptr, pool.get());
    pool.thankYou(last);
    EXPECT_EQ(last, pool.get());
    EXPECT_EQ(nullptr, pool.get());
    pool.thankYou(last - POINTER);
    pool.thankYou(last);
    EXPECT_EQ(2u, pool.getFreeStack().getLeft());
}

TEST(MemoryPool, nullIsIgnoredAndAForeignOrRepeatedItemTripsAnAssertion) {
    EventRecorder const recorder;
    PlainPool plain(POINTER, 2);
    LockedPool locked(POINTER, 2);
    void* const item = locked.get();
    {
        Fault const locks(inject_pthread_mutex_lock, 0);
        plain.thankYou(nullptr);
        locked.thankYou(nullptr);
        plain.getDepletion().thankYou(nullptr);
        EXPECT_EQ(0, locks.getCalls());
    }
    EXPECT_EQ(1u, locked.getFreeStack().getLeft());
    EXPECT_EQ(0u, recorder.getCount());
    int elsewhere = 0;
    plain.thankYou(&elsewhere);
    std::string const foreign = "ASSERT framework/include/common/MemoryPool thankYou: ! ptr";
    EXPECT_EQ(foreign, recorder.getText());
    EXPECT_EQ(2u, plain.getFreeStack().getLeft());
    locked.thankYou(item);
    locked.thankYou(item);
    EXPECT_EQ(foreign + "\n" + FULL, recorder.getText());
    EXPECT_EQ(item, locked.get());
    EXPECT_NE(item, locked.get());
}

TEST(MemoryPool, withoutABlockTripsTwoAssertionsAndIsEmptyUnlessItGrows) {
    EventRecorder const recorder;
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        PlainPool pool(POINTER, 4);
        EXPECT_EQ(NO_BLOCK, recorder.getText());
        EXPECT_EQ(nullptr, pool.get());
        EXPECT_FALSE(pool.contains(nullptr) || pool.contains(&pool));
    }
    NewFault const fault(New::NOTHROW_ARRAY);
    GrowingPool pool(POINTER, 4);
    EXPECT_EQ(std::string(NO_BLOCK) + "\n" + NO_BLOCK, recorder.getText());
    Items const items = take(pool, 8);
    EXPECT_EQ(0, std::count(items.begin(), items.end(), nullptr));
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    putBack(pool, items);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(4u, recorder.getCount());
}

#if __SIZEOF_POINTER__ == 4
TEST(MemoryPool, blockLargerThanTheAddressSpaceIsNotAllocated) {
    EventRecorder const recorder;
    NewFault const fault(New::NOTHROW_ARRAY, 1, 0);
    PlainPool pool(0x80000001U, 2);
    EXPECT_EQ(NO_BLOCK, recorder.getText());
    EXPECT_EQ(1, fault.getCalls()) << "the array alone";
    EXPECT_EQ(nullptr, pool.get());
}
#endif

// ---- the lock of the pool ----

static_assert(std::is_base_of_v<
              std::ScopeGuard<vesk::Mutex const, bool (vesk::Mutex::*)() const, std::NoopResultConv>,
              LockedPool::LockGuard>);

constexpr char const* LOCK_FAILED = "ABORT framework/include/common/MemoryPool LockGuard: error locking";

TEST(MemoryPool, locksOnceForEachOperation) {
    LockedPool pool(POINTER, 2);
    Fault const locks(inject_pthread_mutex_lock, 0);
    Fault const unlocks(inject_pthread_mutex_unlock, 0);
    void* const item = pool.get();
    EXPECT_EQ(1, locks.getCalls());
    EXPECT_EQ(1, unlocks.getCalls());
    pool.thankYou(item);
    EXPECT_EQ(2, locks.getCalls());
    EXPECT_EQ(2, unlocks.getCalls());
}

TEST(MemoryPool, lockGuardHoldsTheLockForItsScope) {
    EventRecorder const recorder;
    LockedPool pool(POINTER, 2);
    {
        LockedPool::LockGuard const guard(pool);
        LockedPool::LockGuard const again(pool);
        EXPECT_FALSE(again.isArmed());
        EXPECT_EQ(LOCK_FAILED, recorder.getText());
    }
    LockedPool::LockGuard const after(pool);
    EXPECT_TRUE(after.isArmed());
    EXPECT_EQ(1u, recorder.getCount());
    std::ErrorStorage::ack();
}

TEST(MemoryPool, failureToLockAbortsAndFailureToUnlockTripsTheAssertionOfTheGuard) {
    EventRecorder const recorder;
    LockedPool pool(POINTER, 3);
    {
        Fault const lock(inject_pthread_mutex_lock, EINVAL);
        EXPECT_NE(nullptr, pool.get());
    }
    EXPECT_EQ(LOCK_FAILED, recorder.getText()) << "unlocking without the lock would fail";
    {
        Fault const unlock(inject_pthread_mutex_unlock, EPERM);
        EXPECT_NE(nullptr, pool.get());
    }
    EXPECT_EQ("~ScopeGuard", recorder.getEvents()[1].function);
    EXPECT_EQ("! release_failed", recorder.getEvents()[1].expression);
    // The lock is still held: a guard that failed to acquire it releases it.
    { LockedPool::LockGuard(pool).arm(); }
    EXPECT_NE(nullptr, pool.get());
    EXPECT_EQ(3u, recorder.getCount());
    std::ErrorStorage::ack();
}

// ---- growing ----

/// Returns the number of further pools, the size of the next one and the free count, then the size of the
/// current pool.
std::string furtherOf(GrowingPool& pool) {
    auto& depletion = pool.getDepletion();
    std::string text = std::to_string(depletion.getPoolCount());
    text += "/" + std::to_string(depletion.getNextSize()) + "/" + std::to_string(depletion.getFreeCount());
    auto const* const current = depletion.getCurrent();
    return current == nullptr ? text : text + " in " + std::to_string(current->getItemCount());
}

/// Steps with a pool of `size` items: "+3" takes three items, "-2" puts back item 2, as counted by their
/// first return. `seen` is the first item that each step takes, and the further pools then.
struct Growth : NamedRow {
    unsigned int size;
    char const* steps;
    char const* seen;
};

Growth const GROWTHS[] = {
    {"nothingGrowsBeforeTheMainPoolIsEmpty", 4, "+4 +1", "1: 0/4/0, 5: 1/8/7 in 8"},
    {"poolIsFreedWithItsLastItemAndHalvesTheNextSize", 2, "+2 +4 -3 -4 -5 -6 +1",
     "1: 0/2/0, 3: 1/4/3 in 4, 1/4/2 in 4, 1/4/1 in 4, 1/4/0 in 4, 0/2/4294967295, "
     "7: 1/4/2 in 4"},
    {"freeingAnotherPoolKeepsTheCurrentOne", 1, "+3 +1 -2 -3 +1",
     "1: 1/2/1 in 2, 4: 2/4/4 in 4, 2/4/3 in 4, 1/2/2 in 4, 5: 1/2/2 in 4"},
    {"poolInTheMiddleCanBeFreed", 1, "+1 +2 +4 +1 -4 -5 -6 -7 -8 -2 -3",
     "1: 0/1/0, 2: 1/2/1 in 2, 4: 2/4/4 in 4, 8: 3/8/11 in 8, 3/8/10 in 8, 3/8/9 in 8, "
     "3/8/8 in 8, 2/4/7 in 8, 1/2/6, 1/2/5, 0/1/4"},
    {"freeCountStartsAtTheNewPoolsItemsMinusTheReturnedOneAndIgnoresTheCurrentPool", 2, "+2 +1 +1",
     "1: 0/2/0, 3: 1/4/3 in 4, 4: 1/4/3 in 4"},
    {"freeCountFallsWithItemsFoundByAWalkAndWithItemsPutBack", 1, "+1 +2 +4 -2 +1",
     "1: 0/1/0, 2: 1/2/1 in 2, 4: 2/4/4 in 4, 2/4/3 in 4, 2: 2/4/2 in 2"},
    {"walkFollowsTheOrderOfCreation", 1, "+3 +4 +8 -4 -2 +1 +1",
     "1: 1/2/1 in 2, 4: 2/4/4 in 4, 8: 3/8/11 in 8, 3/8/10 in 8, 3/8/9 in 8, 2: 3/8/8 in 2, "
     "4: 3/8/7 in 4"},
    {"currentPoolIsTriedBeforeTheWalk", 1, "+3 +4 -2 -4 +1 +1",
     "1: 1/2/1 in 2, 4: 2/4/4 in 4, 2/4/3 in 4, 2/4/2 in 4, 4: 2/4/2 in 4, 2: 2/4/1 in 2"},
    {"freeCountOfZeroLeadsToANewPoolThoughItemsAreFree", 1, "+3 +4 -2 +1 -4 -5 +1",
     "1: 1/2/1 in 2, 4: 2/4/4 in 4, 2/4/3 in 4, 2: 2/4/2 in 2, 2/4/1 in 2, 2/4/0 in 2, "
     "8: 3/8/7 in 8"},
    {"freeCountWrapsAroundBelowZeroAndANewPoolAddsItsItems", 2, "+2 +4 -3 -4 -5 -6 +1",
     "1: 0/2/0, 3: 1/4/3 in 4, 1/4/2 in 4, 1/4/1 in 4, 1/4/0 in 4, 0/2/4294967295, "
     "7: 1/4/2 in 4"}};

VESK_TEST_TABLE(UsePoolOnDepletionSteps, growAndShrinkThePool, testing::Test, GROWTHS) {
    GrowingPool pool(POINTER, GetParam().size);
    Items known;
    std::string seen;
    std::istringstream steps(GetParam().steps);
    for (int step = 0; steps >> step;) {
        if (step < 0) {
            pool.thankYou(known[static_cast<size_t>(-step) - 1]);
        }
        for (int i = 0; i < step; ++i) {
            unsigned int const pools = pool.getDepletion().getPoolCount();
            void* const item = pool.get();
            bool const is_first = pools < pool.getDepletion().getPoolCount();
            auto found = is_first ? known.end() : std::find(known.begin(), known.end(), item);
            if (found == known.end()) {
                found = known.insert(found, item);
            }
            seen += i == 0 ? std::to_string(found - known.begin() + 1) + ": " : "";
        }
        seen += furtherOf(pool) + ", ";
    }
    EXPECT_EQ(GetParam().seen, seen.substr(0, seen.size() - 2));
}

/// A pool of pointers that is empty.
class UsePoolOnDepletion : public testing::Test {
protected:
    void* get() { return m_pool.get(); }

    EventRecorder m_recorder;
    GrowingPool m_pool{POINTER, 1};
    Items m_main = take(m_pool, 1);
};

TEST_F(UsePoolOnDepletion, furtherPoolsDoubleInSizeAndReturnTheirItemsDownward) {
    NewFault const counter(New::NOTHROW_ARRAY, 1, 0);
    GrowingPool pool(POINTER, 2);
    EXPECT_EQ("0/2/0", furtherOf(pool));
    EXPECT_EQ(POINTER, pool.getDepletion().getItemSize());
    Items const items = take(pool, 2 + 4 + 8 + 1);
    EXPECT_EQ(static_cast<unsigned char*>(items[2]) - POINTER, items[3]);
    EXPECT_EQ(3u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(16u, pool.getDepletion().getNextSize());
    EXPECT_EQ(items.size(), std::set<void*>(items.begin(), items.end()).size());
    // A block and the array of its stack each.
    std::vector<size_t> expected{2, 2, 4, 4, 8, 8, 16, 16};
    std::for_each(expected.begin(), expected.end(), [](size_t& size) { size *= POINTER; });
    EXPECT_EQ(expected, counter.getSizes());
    putBack(pool, items);
}

TEST_F(UsePoolOnDepletion, foreignItemAborts) {
    int elsewhere = 0;
    m_pool.thankYou(&elsewhere);
    std::string const line = "ABORT framework/include/common/MemoryPool thankYou: item is not from here!";
    EXPECT_EQ(line, m_recorder.getText()) << "without any further pool";
    get();
    std::string const before = furtherOf(m_pool);
    m_pool.thankYou(&elsewhere);
    EXPECT_EQ(times(2, line), m_recorder.getText()) << "with one";
    EXPECT_EQ(before, furtherOf(m_pool));
}

TEST_F(UsePoolOnDepletion, waitsForTheMemoryOfAnotherPoolAndItsStack) {
    std::string expected =
        times(2, "OUT_OF_MEMORY framework/include/common/MemoryPool getHelp: need another pool");
    {
        NewFault const fault(New::NOTHROW_SINGLE, 1, 2);
        EXPECT_NE(nullptr, get());
        EXPECT_EQ(3, fault.getCalls());
    }
    EXPECT_EQ(expected, m_recorder.getText());
    EXPECT_EQ("1/2/1 in 2", furtherOf(m_pool)) << "doubled once, not with each attempt";
    get();
    NewFault const fault(New::NOTHROW_ARRAY, 2, 2); // The first call is for the block.
    EXPECT_NE(nullptr, get());
    EXPECT_EQ(expected + "\n" + times(2, NO_STACK), m_recorder.getText());
}

TEST_F(UsePoolOnDepletion, anotherPoolWithoutABlockYieldsNull) {
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        EXPECT_EQ(nullptr, get());
    }
    EXPECT_EQ(NO_BLOCK, m_recorder.getText());
    EXPECT_EQ("1/2/1 in 2", furtherOf(m_pool));
    void* const item = get();
    EXPECT_NE(nullptr, item) << "the next attempt makes the next pool";
    EXPECT_EQ("2/4/4 in 4", furtherOf(m_pool));
    m_pool.thankYou(item);
    EXPECT_EQ(2u, m_recorder.getCount());
}

TEST_F(UsePoolOnDepletion, destructorFreesTheFurtherPools) {
    // The leak check of the sanitizer sees them.
    Items const items = take(m_pool, 19);
    EXPECT_EQ(0, std::count(items.begin(), items.end(), nullptr));
    EXPECT_EQ(4u, m_pool.getDepletion().getPoolCount());
}

TEST(UsePoolOnDepletionThreads, competeForThePool) {
    LockedPool pool(sizeof(uintptr_t), 8);
    runInThreads(4, [&pool](int i) {
        for (int round = 0; round < 500; ++round) {
            uintptr_t* mine[20];
            for (uintptr_t*& item : mine) {
                item = static_cast<uintptr_t*>(pool.get());
                *item = static_cast<uintptr_t>(i);
            }
            for (uintptr_t* const item : mine) {
                ASSERT_EQ(static_cast<uintptr_t>(i), *item) << "no other thread has it";
                pool.thankYou(item);
            }
        }
    });
    EXPECT_EQ(8u, pool.getFreeStack().getLeft());
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(8u, pool.getDepletion().getNextSize());
}

} // namespace
