#include "support/NewFault.h"
#include "support/Testing.h"

#include <vesk/RefCounted.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;

constexpr size_t POINTER = sizeof(void*);

class Handle final : public vesk::RefCounted {
public:
    using vesk::RefCounted::CounterPool;

    Handle() = default;
    Handle(Handle const&) = default;
    ~Handle() override { decrement(); }

    void* getCounter() const { return counter; }
    int32_t getCount() const { return counter->load(); }

    static int32_t getInitCounter() { return s_init_counter; }
    static CounterPool* getPool() { return s_counter_pool; }

private:
    int destroy() override { return 0; }
};

/// Runs a test in a process that has made no handle yet.
void inFreshProcess(void (*body)()) {
    ASSERT_EQ(nullptr, Handle::getPool());
    expectInChild(body);
    EXPECT_EQ(nullptr, Handle::getPool());
}

VESK_TEST_BY(inFreshProcess, RefCountedStart, firstHandleBuildsThePool) {
    EXPECT_EQ(0, Handle::getInitCounter());
    NewFault const counter(New::NOTHROW_ARRAY, 1, 0);
    Handle const first;
    EXPECT_EQ(1, first.getCount());
    EXPECT_EQ(1, Handle::getInitCounter());
    Handle::CounterPool* const pool = Handle::getPool();
    ASSERT_NE(nullptr, pool);
    EXPECT_EQ(POINTER, pool->getItemSize());
    EXPECT_EQ(1024u, pool->getItemCount());
    EXPECT_EQ(POINTER, pool->getDepletion().getItemSize());
    EXPECT_EQ(1024u, pool->getDepletion().getNextSize());
    EXPECT_EQ(0u, pool->getDepletion().getFreeCount());
    EXPECT_EQ(nullptr, pool->getDepletion().getCurrent());
    EXPECT_EQ(1023u, pool->getFreeStack().getLeft());
    // The block, 4,096 bytes on a 32-bit target, and the array of its stack.
    std::vector<size_t> const expected = {1024 * POINTER, 1024 * POINTER};
    EXPECT_EQ(expected, counter.getSizes());

    Handle const second;
    EXPECT_EQ(pool, Handle::getPool());
    EXPECT_EQ(1, Handle::getInitCounter());
    EXPECT_EQ(2, counter.getCalls());
    EXPECT_EQ(static_cast<char*>(first.getCounter()) - POINTER, second.getCounter());
}

VESK_TEST_BY(inFreshProcess, RefCountedStart, failureOfTheInitLockAborts) {
    EventRecorder const recorder;
    Fault const lock(inject_pthread_mutex_lock, EINVAL);
    Fault const unlock(inject_pthread_mutex_unlock, EINVAL, 2); // The first one is the recorder's.
    Handle const handle;
    EXPECT_EQ(
        "ABORT framework/include/vesk/RefCounted checkInit: error locking\n"
        "ABORT framework/include/vesk/RefCounted checkInit: error unlocking",
        recorder.getText());
    EXPECT_EQ(1, handle.getCount());
    std::ErrorStorage::ack();
}

VESK_TEST_BY(inFreshProcess, RefCountedStart, initLockIsOnlyForTheFirstUse) {
    {
        Fault const locks(inject_pthread_mutex_lock, 0);
        Handle const handle;
        EXPECT_EQ(2, locks.getCalls()) << "that of the start and that of the pool";
    }
    Fault const locks(inject_pthread_mutex_lock, 0);
    Handle const first;
    EXPECT_EQ(0, locks.getCalls());
    Handle const second;
    EXPECT_EQ(1, locks.getCalls());
}

VESK_TEST_BY(inFreshProcess, RefCountedStart, withoutAMainBlockTheCountersComeFromAFurtherPool) {
    EventRecorder const recorder;
    NewFault const fault(New::NOTHROW_ARRAY);
    Handle const handle;
    EXPECT_EQ(
        "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
        "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start",
        recorder.getText());
    EXPECT_EQ(2048u, Handle::getPool()->getDepletion().getNextSize());
    {
        Handle const copy(handle);
        Handle const other;
        EXPECT_EQ(2, handle.getCount());
    }
    EXPECT_EQ(1, handle.getCount());
}

VESK_TEST_BY(inFreshProcess, RefCountedStart, poolThatCannotBeAllocatedThrowsAndTheNextHandleTriesAgain) {
    {
        NewFault const fault(New::SINGLE);
        EXPECT_THROW(Handle(), std::bad_alloc);
    }
    EXPECT_EQ(0, Handle::getInitCounter());
    EXPECT_EQ(nullptr, Handle::getPool());
    Handle const handle;
    EXPECT_EQ(1, handle.getCount());
    EXPECT_EQ(1, Handle::getInitCounter());
}

void buildOnePool() {
    Handle::CounterPool* pools[4] = {};
    std::unique_ptr<Handle> handles[4];
    runInThreads(4, [&](int i) {
        handles[i] = std::make_unique<Handle>();
        pools[i] = Handle::getPool();
    });
    EXPECT_EQ(1u, std::set<void*>(std::begin(pools), std::end(pools)).size());
    std::set<void*> counters;
    for (auto const& handle : handles) {
        counters.insert(handle->getCounter());
        EXPECT_TRUE(Handle::getPool()->contains(handle->getCounter()));
    }
    EXPECT_EQ(4u, counters.size());
}

TEST(RefCountedStart, threadsThatStartTogetherBuildOnePool) {
    for (int run = 0; run < 10; ++run) {
        inFreshProcess(buildOnePool);
    }
}

} // namespace
