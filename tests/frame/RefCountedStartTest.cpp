#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"

#include <vesk/RefCounted.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <set>
#include <thread>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::EventRecorder;
using support::Fault;
using support::New;
using support::NewFault;

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

/// Runs `body` in a process that has made no handle yet.
void inFreshProcess(std::function<void()> const& body) {
    ASSERT_EQ(nullptr, Handle::getPool());
    support::ChildEnd const end = support::runInChild(body);
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(nullptr, Handle::getPool());
}

TEST(RefCountedStart, firstHandleBuildsThePool) {
    inFreshProcess([] {
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
    });
}

TEST(RefCountedStart, initLockThatFailsAborts) {
    inFreshProcess([] {
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
    });
}

TEST(RefCountedStart, initLockIsForTheFirstUseAlone) {
    inFreshProcess([] {
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
    });
}

TEST(RefCountedStart, withoutAMainBlockTheCountersComeFromAFurtherPool) {
    inFreshProcess([] {
        EventRecorder const recorder;
        NewFault const fault(New::NOTHROW_ARRAY);
        Handle const handle;
        EXPECT_EQ(
            "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
            "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start",
            recorder.getText());
        EXPECT_EQ(1, handle.getCount());
        EXPECT_EQ(2048u, Handle::getPool()->getDepletion().getNextSize());
        {
            Handle const copy(handle);
            Handle const other;
            EXPECT_EQ(2, handle.getCount());
        }
        EXPECT_EQ(1, handle.getCount());
    });
}

TEST(RefCountedStart, waitsForTheMemoryOfTheFreeStack) {
    inFreshProcess([] {
        EventRecorder const recorder;
        NewFault const fault(New::NOTHROW_ARRAY, 2, 2);
        Handle const handle;
        EXPECT_EQ(
            "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack\n"
            "OUT_OF_MEMORY framework/include/common/MemoryPool FreeStack: need free stack",
            recorder.getText());
        EXPECT_EQ(1, handle.getCount());
    });
}

TEST(RefCountedStart, poolThatCannotBeAllocatedThrowsAndTheNextHandleTriesAgain) {
    inFreshProcess([] {
        bool thrown = false;
        {
            NewFault const fault(New::SINGLE);
            try {
                Handle const handle;
            } catch (std::bad_alloc const&) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown);
        EXPECT_EQ(0, Handle::getInitCounter());
        EXPECT_EQ(nullptr, Handle::getPool());
        Handle const handle;
        EXPECT_EQ(1, handle.getCount());
        EXPECT_EQ(1, Handle::getInitCounter());
    });
}

TEST(RefCountedStart, threadsThatStartTogetherBuildOnePool) {
    for (int run = 0; run < 10; ++run) {
        inFreshProcess([] {
            constexpr int THREADS = 4;
            std::atomic<int> ready{0};
            Handle::CounterPool* pools[THREADS] = {};
            void* counters[THREADS] = {};
            std::vector<std::thread> threads;
            for (int i = 0; i < THREADS; ++i) {
                threads.emplace_back([&, i] {
                    ++ready;
                    while (ready < THREADS) {
                        std::this_thread::yield();
                    }
                    Handle const handle;
                    pools[i] = Handle::getPool();
                    counters[i] = handle.getCounter();
                    ++ready;
                    while (ready < 2 * THREADS) {
                        std::this_thread::yield();
                    }
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            EXPECT_EQ(1u, std::set<void*>(pools, pools + THREADS).size());
            EXPECT_EQ(size_t{THREADS}, std::set<void*>(counters, counters + THREADS).size());
            for (void* const counter : counters) {
                EXPECT_TRUE(Handle::getPool()->contains(counter));
            }
        });
    }
}

} // namespace
