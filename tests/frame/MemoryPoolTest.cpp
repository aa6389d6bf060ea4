#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"

#include <common/MemoryPool.h>
#include <vesk/Mutex.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::EventRecorder;
using support::Fault;
using support::New;
using support::NewFault;
using support::runInChild;

using PlainPool = std::MemoryPool<std::NullOnDepletion, std::FakeLock, std::FakeCondition>;
using GrowingPool = std::MemoryPool<std::UsePoolOnDepletion, std::FakeLock, std::FakeCondition>;
using LockedPool = std::MemoryPool<std::UsePoolOnDepletion, vesk::Mutex, std::FakeCondition>;

constexpr unsigned int POINTER = sizeof(void*);

constexpr char const* NO_BLOCK = "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
                                 "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start";

std::vector<void*> take(GrowingPool& pool, int count) {
    std::vector<void*> items;
    for (int i = 0; i < count; ++i) {
        items.push_back(pool.get());
    }
    return items;
}

void giveBack(GrowingPool& pool, std::vector<void*> const& items) {
    for (void* const item : items) {
        pool.thankYou(item);
    }
}

// The lock that does nothing

TEST(FakeLock, doesNothingAndSucceeds) {
    std::FakeLock const lock;
    EXPECT_FALSE(lock.lock());
    EXPECT_FALSE(lock.lock());
    EXPECT_EQ(0, lock.tryLock());
    EXPECT_EQ(0, lock.tryLockTimeout(5));
    EXPECT_FALSE(lock.unlock());
}

TEST(FakeCondition, doesNothingAndSucceeds) {
    std::FakeCondition const condition;
    std::FakeLock lock;
    EXPECT_FALSE(condition.wait(lock));
    EXPECT_EQ(0, condition.waitTimeout(lock, 5LL));
    EXPECT_FALSE(condition.signal());
}

// The loop around running out of memory

TEST(ErrorHelper, triesUntilTheAllocationSucceeds) {
    EventRecorder const recorder;
    int attempts = 0;
    int value = 0;
    int* const result = std::allocateOrWait(
        [&] { return ++attempts < 4 ? nullptr : &value; }, "path/File", "operation", "need 100% of it");
    EXPECT_EQ(&value, result);
    EXPECT_EQ(4, attempts);
    EXPECT_EQ(
        "OUT_OF_MEMORY path/File operation: need 100% of it\n"
        "OUT_OF_MEMORY path/File operation: need 100% of it\n"
        "OUT_OF_MEMORY path/File operation: need 100% of it",
        recorder.getText());
}

TEST(ErrorHelper, doesNothingMoreIfTheFirstAttemptSucceeds) {
    EventRecorder const recorder;
    int value = 0;
    EXPECT_EQ(&value, std::allocateOrWait([&] { return &value; }, "path/File", "operation", "x"));
    EXPECT_EQ(0u, recorder.getCount());
}

// The stack of free items

TEST(FreeStack, handsOutTheItemsFromTheEndOfTheBlockDownward) {
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
}

TEST(FreeStack, givesBackTheLastOneFirst) {
    unsigned char block[4 * 8];
    std::FreeStack stack(block, 8, 4);
    void* const first = stack.pop();
    void* const second = stack.pop();
    stack.push(first);
    stack.push(second);
    EXPECT_EQ(second, stack.pop());
    EXPECT_EQ(first, stack.pop());
}

TEST(FreeStack, fullOneTripsAnAssertionAndDropsTheItem) {
    EventRecorder const recorder;
    unsigned char block[2 * 8];
    std::FreeStack stack(block, 8, 2);
    stack.push(block);
    EXPECT_EQ("ASSERT framework/include/common/MemoryPool push: m_left < m_size", recorder.getText());
    EXPECT_EQ(2u, stack.getLeft());
    EXPECT_EQ(block + 8, stack.pop());
    EXPECT_EQ(block, stack.pop());
    EXPECT_EQ(nullptr, stack.pop());
}

TEST(FreeStack, withoutABlockAnAssertionTripsAndItIsEmpty) {
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
    EXPECT_EQ(
        "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack\n"
        "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack\n"
        "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack",
        recorder.getText());
    EXPECT_EQ(2u, stack.getLeft());
}

TEST(FreeStack, ofNoItemsIsEmptyAndFull) {
    EventRecorder const recorder;
    unsigned char block[1];
    std::FreeStack stack(block, 8, 0);
    EXPECT_EQ(nullptr, stack.pop());
    EXPECT_TRUE(stack.isFull());
    EXPECT_EQ(0u, recorder.getCount());
}

// The pool

TEST(MemoryPool, itemsAreDistinctAlignedAndInsideTheBlock) {
    PlainPool pool(2 * POINTER, 16);
    std::set<void*> items;
    for (int i = 0; i < 16; ++i) {
        void* const item = pool.get();
        ASSERT_NE(nullptr, item);
        EXPECT_TRUE(pool.contains(item));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(item) % POINTER);
        memset(item, 0xA5, 2 * POINTER); // The sanitizer sees the bounds.
        items.insert(item);
    }
    EXPECT_EQ(16u, items.size());
    unsigned char const* const lowest = static_cast<unsigned char*>(*items.begin());
    EXPECT_EQ(lowest + 15 * 2 * POINTER, *items.rbegin());
    EXPECT_FALSE(pool.contains(lowest - 1));
    EXPECT_FALSE(pool.contains(lowest + 16 * 2 * POINTER));
    EXPECT_TRUE(pool.contains(lowest + 16 * 2 * POINTER - 1));
    EXPECT_FALSE(pool.contains(nullptr));
}

TEST(MemoryPool, itemIsAtLeastAPointerInSize) {
    NewFault const counter(New::NOTHROW_ARRAY, 1, 0);
    PlainPool const small(1, 10);
    EXPECT_EQ(POINTER, small.getItemSize());
    PlainPool const exact(POINTER, 10);
    EXPECT_EQ(POINTER, exact.getItemSize());
    PlainPool const large(POINTER + 1, 10);
    EXPECT_EQ(POINTER + 1, large.getItemSize());
    EXPECT_EQ(10u, large.getItemCount());
    // A block and the array of its stack each.
    std::vector<size_t> const expected = {10 * POINTER, 10 * POINTER,      10 * POINTER,
                                          10 * POINTER, 10 * POINTER + 10, 10 * sizeof(void*)};
    EXPECT_EQ(expected, counter.getSizes());
}

TEST(MemoryPool, handsOutTheItemsFromTheEndOfTheBlockDownward) {
    PlainPool pool(POINTER, 3);
    auto* const last = static_cast<unsigned char*>(pool.get());
    EXPECT_EQ(last - POINTER, pool.get());
    EXPECT_EQ(last - 2 * POINTER, pool.get());
}

TEST(MemoryPool, givesNullOnDepletionAndTheItemsThatCameBack) {
    PlainPool pool(POINTER, 2);
    void* const first = pool.get();
    void* const second = pool.get();
    EXPECT_EQ(nullptr, pool.get());
    pool.thankYou(first);
    EXPECT_EQ(first, pool.get());
    EXPECT_EQ(nullptr, pool.get());
    pool.thankYou(second);
    pool.thankYou(first);
    EXPECT_EQ(2u, pool.getFreeStack().getLeft());
}

TEST(MemoryPool, thanksForNothingDoNothing) {
    EventRecorder const recorder;
    PlainPool plain(POINTER, 2);
    plain.thankYou(nullptr);
    LockedPool locked(POINTER, 2);
    Fault const locks(inject_pthread_mutex_lock, 0);
    locked.thankYou(nullptr);
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_EQ(2u, locked.getFreeStack().getLeft());
    EXPECT_EQ(0u, recorder.getCount());
}

TEST(MemoryPool, itemFromOutsideOfAPlainPoolTripsAnAssertion) {
    EventRecorder const recorder;
    PlainPool pool(POINTER, 2);
    int elsewhere = 0;
    pool.thankYou(&elsewhere);
    EXPECT_EQ("ASSERT framework/include/common/MemoryPool thankYou: ! ptr", recorder.getText());
    EXPECT_EQ(2u, pool.getFreeStack().getLeft());
    pool.getDepletion().thankYou(nullptr);
    EXPECT_EQ(1u, recorder.getCount());
}

TEST(MemoryPool, itemGivenBackTwiceToAFullPoolTripsAnAssertion) {
    EventRecorder const recorder;
    LockedPool pool(POINTER, 2);
    void* const item = pool.get();
    pool.thankYou(item);
    pool.thankYou(item);
    EXPECT_EQ("ASSERT framework/include/common/MemoryPool push: m_left < m_size", recorder.getText());
    EXPECT_EQ(item, pool.get());
    EXPECT_NE(item, pool.get());
}

TEST(MemoryPool, withoutABlockTwoAssertionsTripAndItIsEmpty) {
    EventRecorder const recorder;
    NewFault const fault(New::NOTHROW_ARRAY);
    PlainPool pool(POINTER, 4);
    EXPECT_EQ(NO_BLOCK, recorder.getText());
    EXPECT_EQ(nullptr, pool.get());
    EXPECT_FALSE(pool.contains(nullptr));
    EXPECT_FALSE(pool.contains(&pool));
}

TEST(MemoryPool, withoutABlockAGrowingPoolLivesOnFurtherPools) {
    EventRecorder const recorder;
    NewFault const fault(New::NOTHROW_ARRAY);
    GrowingPool pool(POINTER, 4);
    EXPECT_EQ(NO_BLOCK, recorder.getText());
    std::vector<void*> const items = take(pool, 8);
    EXPECT_EQ(0, std::count(items.begin(), items.end(), nullptr));
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    giveBack(pool, items);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(2u, recorder.getCount());
}

#if __SIZEOF_POINTER__ == 4
TEST(MemoryPool, blockWhoseSizeDoesNotFitAnAddressIsNotAllocated) {
    EventRecorder const recorder;
    NewFault const fault(New::NOTHROW_ARRAY, 1, 0);
    PlainPool pool(0x80000001U, 2);
    EXPECT_EQ(NO_BLOCK, recorder.getText());
    EXPECT_EQ(1, fault.getCalls()) << "the array alone";
    EXPECT_EQ(nullptr, pool.get());
}
#endif

// The lock of the pool

static_assert(std::is_base_of_v<
              std::ScopeGuard<vesk::Mutex const, bool (vesk::Mutex::*)() const, std::NoopResultConv>,
              LockedPool::LockGuard>);

TEST(MemoryPool, takesTheLockOnceForEachOperation) {
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
        EXPECT_EQ("ABORT framework/include/common/MemoryPool LockGuard: error locking", recorder.getText());
    }
    LockedPool::LockGuard const after(pool);
    EXPECT_TRUE(after.isArmed());
    EXPECT_EQ(1u, recorder.getCount());
    std::ErrorStorage::ack();
}

TEST(MemoryPool, lockThatFailsAborts) {
    EventRecorder const recorder;
    LockedPool pool(POINTER, 2);
    void* item = nullptr;
    {
        Fault const lock(inject_pthread_mutex_lock, EINVAL);
        item = pool.get();
    }
    EXPECT_EQ("ABORT framework/include/common/MemoryPool LockGuard: error locking", recorder.getText())
        << "what is not held is not unlocked, which would fail";
    EXPECT_NE(nullptr, item);
    std::ErrorStorage::ack();
}

TEST(MemoryPool, unlockThatFailsTripsTheAssertionOfTheGuard) {
    EventRecorder const recorder;
    LockedPool pool(POINTER, 2);
    {
        Fault const unlock(inject_pthread_mutex_unlock, EPERM);
        EXPECT_NE(nullptr, pool.get());
    }
    EXPECT_EQ("ASSERT framework/include/common/ScopeGuard ~ScopeGuard: ! release_failed", recorder.getText());
    // The lock is still held: a guard that failed to take it lets go of it.
    {
        LockedPool::LockGuard guard(pool);
        guard.arm();
    }
    EXPECT_NE(nullptr, pool.get());
    EXPECT_EQ(2u, recorder.getCount());
    std::ErrorStorage::ack();
}

// Growing

TEST(UsePoolOnDepletion, furtherPoolsDoubleInSize) {
    NewFault const counter(New::NOTHROW_ARRAY, 1, 0);
    GrowingPool pool(POINTER, 2);
    EXPECT_EQ(2u, pool.getDepletion().getNextSize());
    EXPECT_EQ(POINTER, pool.getDepletion().getItemSize());
    std::vector<void*> const items = take(pool, 2 + 4 + 8 + 1);
    EXPECT_EQ(3u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(16u, pool.getDepletion().getNextSize());
    EXPECT_EQ(items.size(), std::set<void*>(items.begin(), items.end()).size());
    // A block and the array of its stack each.
    std::vector<size_t> const expected = {2 * POINTER, 2 * POINTER, 4 * POINTER,  4 * POINTER,
                                          8 * POINTER, 8 * POINTER, 16 * POINTER, 16 * POINTER};
    EXPECT_EQ(expected, counter.getSizes());
    giveBack(pool, items);
}

TEST(UsePoolOnDepletion, nothingGrowsBeforeTheMainPoolIsEmpty) {
    GrowingPool pool(POINTER, 4);
    std::vector<void*> items = take(pool, 4);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    items.push_back(pool.get());
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(8u, pool.getDepletion().getCurrent()->getItemCount());
    giveBack(pool, items);
}

TEST(UsePoolOnDepletion, furtherPoolHandsOutItsItemsFromTheEndDownward) {
    GrowingPool pool(POINTER, 1);
    std::vector<void*> const items = take(pool, 3);
    EXPECT_EQ(static_cast<unsigned char*>(items[1]) - POINTER, items[2]);
    giveBack(pool, items);
}

TEST(UsePoolOnDepletion, allItemsBackFreesThePoolAndHalvesTheNextSize) {
    GrowingPool pool(POINTER, 2);
    std::vector<void*> const main = take(pool, 2);
    std::vector<void*> const first = take(pool, 4);
    EXPECT_EQ(4u, pool.getDepletion().getNextSize());
    for (size_t i = 0; i < 3; ++i) {
        pool.thankYou(first[i]);
        EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
        EXPECT_EQ(4u, pool.getDepletion().getNextSize());
    }
    EXPECT_NE(nullptr, pool.getDepletion().getCurrent());
    pool.thankYou(first[3]);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(2u, pool.getDepletion().getNextSize());
    EXPECT_EQ(nullptr, pool.getDepletion().getCurrent());
    void* const again = pool.get();
    EXPECT_EQ(4u, pool.getDepletion().getNextSize()) << "the next one is as large as the first was";
    pool.thankYou(again);
    giveBack(pool, main);
}

TEST(UsePoolOnDepletion, anotherPoolGoingAwayKeepsTheCurrentOne) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);
    std::vector<void*> const second = take(pool, 1);
    auto* const current = pool.getDepletion().getCurrent();
    EXPECT_EQ(4u, current->getItemCount());
    giveBack(pool, first);
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(current, pool.getDepletion().getCurrent());
    EXPECT_EQ(2u, pool.getDepletion().getNextSize());
    EXPECT_TRUE(current->contains(pool.get()));
    EXPECT_TRUE(current->contains(second[0]));
}

TEST(UsePoolOnDepletion, poolInTheMiddleMayGo) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);
    std::vector<void*> const second = take(pool, 4);
    std::vector<void*> const third = take(pool, 1);
    EXPECT_EQ(3u, pool.getDepletion().getPoolCount());
    giveBack(pool, second);
    EXPECT_EQ(2u, pool.getDepletion().getPoolCount());
    giveBack(pool, third);
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    giveBack(pool, first);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(1u, pool.getDepletion().getNextSize());
}

TEST(UsePoolOnDepletion, freeCountStartsAtTheNewPoolsItemsLessTheOneHandedOut) {
    GrowingPool pool(POINTER, 2);
    EXPECT_EQ(0u, pool.getDepletion().getFreeCount());
    take(pool, 3);
    EXPECT_EQ(3u, pool.getDepletion().getFreeCount());
    take(pool, 1);
    EXPECT_EQ(3u, pool.getDepletion().getFreeCount()) << "items of the current pool are not counted";
}

TEST(UsePoolOnDepletion, freeCountFallsWithItemsFoundByAWalkAndWithItemsGivenBack) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);  // Count 1.
    std::vector<void*> const second = take(pool, 4); // Count 1 + 3.
    EXPECT_EQ(4u, pool.getDepletion().getFreeCount());
    auto* const current = pool.getDepletion().getCurrent();
    pool.thankYou(first[0]);
    EXPECT_EQ(3u, pool.getDepletion().getFreeCount());
    EXPECT_EQ(first[0], pool.get()) << "the current pool is empty, the walk finds the item in the first one";
    EXPECT_EQ(2u, pool.getDepletion().getFreeCount());
    EXPECT_NE(current, pool.getDepletion().getCurrent()) << "the pool that had the item is tried first now";
    EXPECT_EQ(2u, pool.getDepletion().getPoolCount());
}

TEST(UsePoolOnDepletion, walkGoesInTheOrderOfCreation) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);
    std::vector<void*> const second = take(pool, 4);
    std::vector<void*> const third = take(pool, 8);
    pool.thankYou(second[0]);
    pool.thankYou(first[0]);
    EXPECT_EQ(first[0], pool.get());
    EXPECT_EQ(second[0], pool.get());
    EXPECT_EQ(3u, pool.getDepletion().getPoolCount());
}

TEST(UsePoolOnDepletion, currentPoolIsTriedBeforeTheWalk) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);
    std::vector<void*> const second = take(pool, 4);
    pool.thankYou(first[0]);
    pool.thankYou(second[0]);
    EXPECT_EQ(second[0], pool.get());
    EXPECT_EQ(first[0], pool.get());
}

TEST(UsePoolOnDepletion, freeCountOfZeroLeadsToANewPoolThoughItemsAreFree) {
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    std::vector<void*> const first = take(pool, 2);  // Count 1.
    std::vector<void*> const second = take(pool, 4); // Count 4; the second pool is current.
    pool.thankYou(first[0]);                         // 3
    EXPECT_EQ(first[0], pool.get());                 // 2; the first pool is current and empty.
    pool.thankYou(second[0]);                        // 1
    pool.thankYou(second[1]);                        // 0
    ASSERT_EQ(0u, pool.getDepletion().getFreeCount());
    void* const item = pool.get();
    EXPECT_EQ(3u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(8u, pool.getDepletion().getNextSize());
    EXPECT_TRUE(pool.getDepletion().getCurrent()->contains(item));
    EXPECT_EQ(7u, pool.getDepletion().getFreeCount());
}

TEST(UsePoolOnDepletion, freeCountWrapsAroundBelowZero) {
    GrowingPool pool(POINTER, 2);
    take(pool, 2);
    std::vector<void*> const first = take(pool, 4);
    EXPECT_EQ(3u, pool.getDepletion().getFreeCount());
    giveBack(pool, first);
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(0xFFFFFFFFU, pool.getDepletion().getFreeCount());
    // Not 0, but there is nothing to walk: a new pool, whose items go on top.
    void* const item = pool.get();
    EXPECT_NE(nullptr, item);
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(4u, pool.getDepletion().getNextSize());
    EXPECT_EQ(2u, pool.getDepletion().getFreeCount());
}

TEST(UsePoolOnDepletion, itemFromOutsideOfAnyPoolAborts) {
    EventRecorder const recorder;
    GrowingPool pool(POINTER, 1);
    int elsewhere = 0;
    pool.thankYou(&elsewhere);
    EXPECT_EQ(
        "ABORT framework/include/common/MemoryPool thankYou: item is not from here!", recorder.getText())
        << "without any further pool";
    take(pool, 2);
    unsigned int const count = pool.getDepletion().getFreeCount();
    pool.thankYou(&elsewhere);
    EXPECT_EQ(2u, recorder.getCount()) << "with one";
    EXPECT_EQ(count, pool.getDepletion().getFreeCount());
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
}

TEST(UsePoolOnDepletion, itemFromOutsideOfAnyPoolEndsTheProcess) {
    support::ChildEnd const end = runInChild([] {
        GrowingPool pool(POINTER, 1);
        int elsewhere = 0;
        pool.thankYou(&elsewhere);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("item is not from here!")) << end.errors;
}

TEST(UsePoolOnDepletion, waitsForTheMemoryOfAnotherPool) {
    EventRecorder const recorder;
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    NewFault const fault(New::NOTHROW_SINGLE, 1, 2);
    EXPECT_NE(nullptr, pool.get());
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_EQ(
        "OUT_OF_MEMORY framework/include/common/MemoryPool getHelp: need another pool\n"
        "OUT_OF_MEMORY framework/include/common/MemoryPool getHelp: need another pool",
        recorder.getText());
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(2u, pool.getDepletion().getNextSize()) << "doubled once, not with each attempt";
}

TEST(UsePoolOnDepletion, waitsForTheMemoryOfAnotherPoolsStack) {
    EventRecorder const recorder;
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    NewFault const fault(New::NOTHROW_ARRAY, 2, 2); // The first call is for the block.
    EXPECT_NE(nullptr, pool.get());
    EXPECT_EQ(
        "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack\n"
        "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack",
        recorder.getText());
}

TEST(UsePoolOnDepletion, anotherPoolWithoutABlockGivesNull) {
    EventRecorder const recorder;
    GrowingPool pool(POINTER, 1);
    take(pool, 1);
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        EXPECT_EQ(nullptr, pool.get());
    }
    EXPECT_EQ(NO_BLOCK, recorder.getText());
    EXPECT_EQ(1u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(1u, pool.getDepletion().getFreeCount());
    void* const item = pool.get();
    EXPECT_NE(nullptr, item) << "the next attempt makes the next pool";
    EXPECT_EQ(2u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(4u, pool.getDepletion().getNextSize());
    pool.thankYou(item);
    EXPECT_EQ(2u, recorder.getCount());
}

TEST(UsePoolOnDepletion, poolThatEndsFreesItsFurtherPools) {
    // The leak check of the sanitizer sees them.
    GrowingPool pool(POINTER, 1);
    std::vector<void*> const items = take(pool, 20);
    EXPECT_EQ(0, std::count(items.begin(), items.end(), nullptr));
    EXPECT_EQ(4u, pool.getDepletion().getPoolCount());
}

TEST(UsePoolOnDepletion, threadsFightOverThePool) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 500;
    constexpr int ITEMS = 20;
    LockedPool pool(sizeof(uintptr_t), 8);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&pool, i] {
            for (int round = 0; round < ROUNDS; ++round) {
                uintptr_t* mine[ITEMS];
                for (uintptr_t*& item : mine) {
                    item = static_cast<uintptr_t*>(pool.get());
                    *item = static_cast<uintptr_t>(i);
                }
                for (uintptr_t* const item : mine) {
                    ASSERT_EQ(static_cast<uintptr_t>(i), *item) << "nobody else has it";
                    pool.thankYou(item);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8u, pool.getFreeStack().getLeft());
    EXPECT_EQ(0u, pool.getDepletion().getPoolCount());
    EXPECT_EQ(8u, pool.getDepletion().getNextSize());
}

} // namespace
