#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/Privileges.h"
#include "support/RunInThreads.h"

#include <vesk/RefCounted.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;

/// The object that handles share. Not atomic: only the last handle may change it.
struct Thing {
    int destroyed = 0;
};

class Handle final : public vesk::RefCounted {
public:
    using vesk::RefCounted::CounterPool;

    explicit Handle(Thing& thing) : m_thing(&thing) {}
    Handle(Handle const&) = default;
    Handle& operator=(Handle const&) = default;
    ~Handle() override { decrement(); }

    /// Releases the reference before the destructor.
    void release() { decrement(); }

    Thing* getThing() const { return m_thing; }
    void* getCounter() const { return counter; }
    int32_t getCount() const { return counter->load(); }

    static int32_t getInitCounter() { return s_init_counter; }
    static CounterPool* getPool() { return s_counter_pool; }

private:
    int destroy() override {
        ++m_thing->destroyed;
        return 0;
    }

    Thing* m_thing;
};

static_assert(std::is_abstract_v<vesk::RefCounted>);
static_assert(std::has_virtual_destructor_v<vesk::RefCounted>);
// The table of operations and one field.
static_assert(sizeof(vesk::RefCounted) == 2 * sizeof(void*));

std::UsePoolOnDepletion& getDepletion() {
    return Handle::getPool()->getDepletion();
}

void expectPools(unsigned int count, unsigned int next_size) {
    EXPECT_EQ(count, getDepletion().getPoolCount());
    EXPECT_EQ(next_size, getDepletion().getNextSize());
}

/// A number of independent handles.
class Crowd {
public:
    explicit Crowd(unsigned int count) { grow(count); }

    void grow(unsigned int count) {
        for (unsigned int i = 0; i < count; ++i) {
            m_handles.push_back(std::make_unique<Handle>(m_thing));
        }
    }
    void shrink(unsigned int count) { m_handles.resize(m_handles.size() - count); }

    std::vector<std::unique_ptr<Handle>> const& get() const { return m_handles; }

private:
    Thing m_thing;
    std::vector<std::unique_ptr<Handle>> m_handles;
};

/// Checks that every item is back, and only once: 1,024 handles fit into the main pool, the next one does
/// not.
void expectPoolIsWhole() {
    expectPools(0, 1024);
    Crowd crowd(1024);
    EXPECT_EQ(0u, getDepletion().getPoolCount());
    std::set<void*> counters;
    for (auto const& handle : crowd.get()) {
        counters.insert(handle->getCounter());
        EXPECT_TRUE(Handle::getPool()->contains(handle->getCounter()));
    }
    EXPECT_EQ(1024u, counters.size());
    crowd.grow(1);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    crowd.shrink(1);
    EXPECT_EQ(0u, getDepletion().getPoolCount());
}

/// The state in which an initializer makes a handle.
struct Early {
    Early() {
        Handle const handle(thing);
        count = handle.getCount();
    }
    Thing thing;
    int32_t init_counter = Handle::getInitCounter();
    bool pool_exists = Handle::getPool() != nullptr;
    int32_t count = 0;
} s_early;

TEST(RefCounted, handleMayBeMadeByAnInitializer) {
    EXPECT_EQ(0, s_early.init_counter);
    EXPECT_FALSE(s_early.pool_exists);
    EXPECT_EQ(1, s_early.count);
    EXPECT_EQ(1, s_early.thing.destroyed);
}

TEST(RefCounted, globalHandleMayEndWithTheProcess) {
    ChildEnd const end = runInChild([] {
        static Thing thing;
        static struct Witness {
            ~Witness() {
                if (thing.destroyed == 1) {
                    (void)!write(STDERR_FILENO, "destroyed", 9);
                }
            }
        } witness; // Destroyed after the handle, which is constructed later.
        static Handle handle(thing);
        exit(0);
    });
    EXPECT_EQ(0, end.exit_code) << end.errors;
    EXPECT_EQ("destroyed", end.errors);
}

TEST(RefCounted, copiesShareOneCountAndTheLastOneDestroys) {
    Thing thing;
    {
        Handle const first(thing);
        EXPECT_EQ(1, first.getCount());
        {
            Handle const second(first);
            Handle const third(second);
            EXPECT_EQ(first.getCounter(), third.getCounter());
            EXPECT_EQ(3, first.getCount());
        }
        EXPECT_EQ(1, first.getCount());
        EXPECT_EQ(0, thing.destroyed);
    }
    EXPECT_EQ(1, thing.destroyed);
}

TEST(RefCounted, lastHandleNeedNotBeTheFirst) {
    Thing thing;
    auto first = std::make_unique<Handle>(thing);
    auto const second = std::make_unique<Handle>(*first);
    first.reset();
    EXPECT_EQ(0, thing.destroyed);
    EXPECT_EQ(1, second->getCount());
}

TEST(RefCounted, releasingTheLastHandleTwiceDestroysOnce) {
    Thing thing;
    {
        Handle handle(thing);
        handle.release();
        EXPECT_EQ(1, thing.destroyed);
        EXPECT_EQ(nullptr, handle.getCounter());
    }
    EXPECT_EQ(1, thing.destroyed);
}

TEST(RefCounted, destroysThroughABase) {
    Thing thing;
    std::unique_ptr<vesk::RefCounted> handle = std::make_unique<Handle>(thing);
    handle.reset();
    EXPECT_EQ(1, thing.destroyed);
}

TEST(RefCounted, assignmentReleasesTheOldThingAndSharesTheNew) {
    Thing left;
    Thing right;
    {
        Handle handle(left);
        {
            Handle const other(right);
            handle = other;
            EXPECT_EQ(1, left.destroyed);
            EXPECT_EQ(2, other.getCount());
            EXPECT_EQ(&right, handle.getThing());
        }
        EXPECT_EQ(0, right.destroyed);
    }
    EXPECT_EQ(1, left.destroyed);
    EXPECT_EQ(1, right.destroyed);
}

TEST(RefCounted, assignmentOfOneHandleLeavesTheOldThingToItsOtherHandles) {
    Thing left;
    Thing right;
    Handle const keeper(left);
    Handle handle(keeper);
    handle = Handle(right);
    EXPECT_EQ(0, left.destroyed);
    EXPECT_EQ(1, keeper.getCount());
    EXPECT_EQ(0, right.destroyed);
}

TEST(RefCounted, assignmentToItselfOrToACopyKeepsTheThing) {
    Thing thing;
    Handle handle(thing);
    Handle const copy(handle);
    Handle& same = handle;
    handle = same;
    handle = copy;
    EXPECT_EQ(2, copy.getCount());
    EXPECT_EQ(0, thing.destroyed);
    EXPECT_EQ(&thing, handle.getThing());
}

TEST(RefCounted, copyingNeedsNeitherMemoryNorALock) {
    Thing thing;
    Handle const handle(thing);
    NewFault const single(New::SINGLE, 1, 0);
    Fault const locks(inject_pthread_mutex_lock, 0);
    {
        Handle const copy(handle);
        Handle const another(copy);
        EXPECT_EQ(3, handle.getCount());
    }
    EXPECT_EQ(0, single.getCalls());
    EXPECT_EQ(0, locks.getCalls());
}

TEST(RefCounted, constructionAndDestructionNeedNeitherMemoryNorALock) {
    Thing thing;
    { Handle const handle(thing); }
    NewFault const single(New::SINGLE, 1, 0);
    Fault const locks(inject_pthread_mutex_lock, 0);
    { Handle const handle(thing); }
    { Handle const handle(thing); }
    EXPECT_EQ(0, single.getCalls());
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_EQ(3, thing.destroyed);
}

TEST(RefCounted, the1025thLiveCounterComesFromAFurtherPoolOf2048) {
    Crowd crowd(1024);
    expectPools(0, 1024);
    crowd.grow(1);
    expectPools(1, 2048);
    EXPECT_EQ(2048u, getDepletion().getCurrent()->getItemCount());
    EXPECT_TRUE(getDepletion().getCurrent()->contains(crowd.get().back()->getCounter()));
    EXPECT_FALSE(Handle::getPool()->contains(crowd.get().back()->getCounter()));
    EXPECT_EQ(1, crowd.get().back()->getCount());
}

TEST(RefCounted, furtherPoolIsFreedWithItsLastCounterAndHalvesTheNextSize) {
    Crowd crowd(1024 + 2048);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    crowd.grow(1);
    expectPools(2, 4096);
    crowd.shrink(1);
    expectPools(1, 2048);
    crowd.shrink(2047);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    crowd.shrink(1);
    expectPools(0, 1024);
}

TEST(RefCounted, reservedItemIsUsedBeforeThePoolGrows) {
    Crowd crowd(1024);
    for (unsigned int count : {1U, 2U, 3U}) {
        crowd.shrink(count);
        crowd.grow(count);
        EXPECT_EQ(0u, getDepletion().getPoolCount()) << count;
    }
    crowd.grow(1);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
}

TEST(RefCounted, withoutMemoryForACounterAHandleWorksButNeverDestroys) {
    expectInChild([] {
        EventRecorder const recorder;
        Crowd const crowd(1024);
        Thing thing;
        Thing other;
        {
            NewFault const fault(New::NOTHROW_ARRAY);
            Handle handle(thing);
            EXPECT_EQ(nullptr, handle.getCounter());
            Handle const copy(handle);
            EXPECT_EQ(nullptr, copy.getCounter());
            EXPECT_EQ(&thing, copy.getThing());
            handle = copy;
            handle = Handle(other);
            EXPECT_EQ(1, handle.getCount());
            handle = copy;
            EXPECT_EQ(nullptr, handle.getCounter());
            handle.release();
        }
        EXPECT_EQ(0, thing.destroyed);
        EXPECT_EQ(1, other.destroyed);
        EXPECT_EQ(
            "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
            "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start",
            recorder.getText());
    });
}

TEST(RefCounted, waitsForTheMemoryOfAnotherPool) {
    EventRecorder const recorder;
    Crowd crowd(1024);
    Thing thing;
    {
        NewFault const fault(New::NOTHROW_SINGLE, 1, 2);
        Handle const handle(thing);
        EXPECT_EQ(1, handle.getCount());
    }
    EXPECT_EQ(
        "OUT_OF_MEMORY framework/include/common/MemoryPool getHelp: need another pool\n"
        "OUT_OF_MEMORY framework/include/common/MemoryPool getHelp: need another pool",
        recorder.getText());
    EXPECT_EQ(1, thing.destroyed);
}

TEST(RefCounted, itemReservedWhileAnotherThreadWaitsForThePoolIsUsedBeforeThePoolGrows) {
    Crowd crowd(1024);
    std::thread other;
    {
        Handle::CounterPool::LockGuard const guard(*Handle::getPool());
        // From here on only the other thread locks: it found no reserved item and waits for the pool.
        Fault const locks(inject_pthread_mutex_lock, 0, 1, 1, Fault::Threads::ALL);
        other = std::thread([] {
            Thing thing;
            Handle const handle(thing);
            EXPECT_TRUE(Handle::getPool()->contains(handle.getCounter()));
        });
        while (locks.getCalls() == 0) {
            std::this_thread::yield();
        }
        crowd.shrink(1);
    }
    other.join();
    EXPECT_EQ(0u, getDepletion().getPoolCount());
}

TEST(RefCounted, threadsThatEndCopiesOfOneHandleDestroyOnce) {
    for (int round = 0; round < 200; ++round) {
        Thing thing;
        std::vector<Handle> handles(4, Handle(thing));
        runInThreads(4, [&handles](int i) {
            Handle const copy(handles[static_cast<size_t>(i)]);
            handles[static_cast<size_t>(i)].release();
        });
        EXPECT_EQ(1, thing.destroyed);
    }
}

TEST(RefCounted, threadsCompeteForTheReservedItem) {
    std::atomic<int> wrong{0};
    runInThreads(2, [&wrong](int) { // More threads would take turns on a small machine rather than compete.
        for (int round = 0; round < 500000; ++round) {
            Thing thing;
            {
                Handle const handle(thing);
                Handle const copy(handle);
                wrong += handle.getCount() != 2; // No other thread has this count.
            }
            wrong += thing.destroyed != 1;
        }
    });
    EXPECT_EQ(0, wrong);
    expectPoolIsWhole();
}

TEST(RefCounted, threadsCompeteForThePoolNearItsDepletion) {
    // There are never more than 1,024 handles, so the pool must not grow.
    constexpr int THREADS = 4;
    static constexpr int ROUNDS = 5000;
    Crowd const others(1024 - THREADS);
    std::atomic<bool> grown{false};
    runInThreads(THREADS, [&grown](int) {
        Thing thing;
        for (int round = 0; round < ROUNDS; ++round) {
            Handle const handle(thing);
            if (!Handle::getPool()->contains(handle.getCounter())) {
                grown = true;
            }
        }
        EXPECT_EQ(ROUNDS, thing.destroyed);
    });
    EXPECT_FALSE(grown);
}

TEST(RefCounted, threadsExchangeHandlesBeyondTheMainPoolWithoutLoss) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 5;
    constexpr int HANDLES = 900;
    using Batch = std::vector<Handle>;
    std::mutex mutex;
    std::vector<Batch> market; // Copies that another thread may take and destroy.
    std::vector<std::vector<Thing>> things(THREADS, std::vector<Thing>(ROUNDS * HANDLES));
    runInThreads(THREADS, [&](int i) {
        auto next = things[static_cast<size_t>(i)].begin();
        for (int round = 0; round < ROUNDS; ++round) {
            Batch mine;
            mine.reserve(HANDLES);
            for (int handle = 0; handle < HANDLES; ++handle) {
                mine.emplace_back(*next++);
            }
            Batch copies(mine);
            Batch foreign;
            {
                std::lock_guard<std::mutex> const guard(mutex);
                market.push_back(std::move(copies));
                // One batch stays for the next thread to come.
                if (market.size() > 1) {
                    foreign.swap(market.front());
                    market.erase(market.begin());
                }
            }
        }
    });
    market.clear();
    for (auto const& list : things) {
        for (Thing const& thing : list) {
            ASSERT_EQ(1, thing.destroyed);
        }
    }
    expectPoolIsWhole();
}

} // namespace
