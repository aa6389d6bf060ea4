#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"

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

using support::EventRecorder;
using support::Fault;
using support::New;
using support::NewFault;
using support::runInChild;

/// What handles share. Not atomic: only the last handle may come here.
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

    /// Lets go ahead of the destructor.
    void letGo() { decrement(); }

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

/// As many handles of their own as asked for, alive together.
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

/// Every item is back, and none of them twice: 1,024 handles fit into the main pool, the next one does not.
void expectPoolIsWhole() {
    EXPECT_EQ(0u, getDepletion().getPoolCount());
    EXPECT_EQ(1024u, getDepletion().getNextSize());
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

/// What a handle made by an initialiser finds.
struct Early {
    Early() {
        Handle const handle(thing);
        count = handle.getCount();
    }
    Thing thing;
    int32_t init_counter = Handle::getInitCounter();
    bool had_pool = Handle::getPool() != nullptr;
    int32_t count = 0;
} s_early;

TEST(RefCounted, handleMayBeMadeByAnInitialiser) {
    EXPECT_EQ(0, s_early.init_counter);
    EXPECT_FALSE(s_early.had_pool);
    EXPECT_EQ(1, s_early.count);
    EXPECT_EQ(1, s_early.thing.destroyed);
}

TEST(RefCounted, globalHandleMayEndWithTheProcess) {
    support::ChildEnd const end = runInChild([] {
        static Thing thing;
        static struct Witness {
            ~Witness() {
                if (thing.destroyed == 1) {
                    (void)!write(STDERR_FILENO, "destroyed", 9);
                }
            }
        } witness; // Ends behind the handle, which is made after it.
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

TEST(RefCounted, lastToGoNeedNotBeTheFirstToCome) {
    Thing thing;
    auto first = std::make_unique<Handle>(thing);
    auto const second = std::make_unique<Handle>(*first);
    first.reset();
    EXPECT_EQ(0, thing.destroyed);
    EXPECT_EQ(1, second->getCount());
}

TEST(RefCounted, lettingGoTwiceOfTheLastHandleDestroysOnce) {
    Thing thing;
    {
        Handle handle(thing);
        handle.letGo();
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

TEST(RefCounted, assignmentLetsGoOfTheOldThingAndSharesTheNew) {
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

TEST(RefCounted, copyingCostsNeitherMemoryNorALock) {
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

TEST(RefCounted, makingAndEndingOneInPassingCostsNeitherMemoryNorALock) {
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
    EXPECT_EQ(0u, getDepletion().getPoolCount());
    EXPECT_EQ(1024u, getDepletion().getNextSize());
    crowd.grow(1);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    EXPECT_EQ(2048u, getDepletion().getNextSize());
    EXPECT_EQ(2048u, getDepletion().getCurrent()->getItemCount());
    EXPECT_TRUE(getDepletion().getCurrent()->contains(crowd.get().back()->getCounter()));
    EXPECT_FALSE(Handle::getPool()->contains(crowd.get().back()->getCounter()));
    EXPECT_EQ(1, crowd.get().back()->getCount());
}

TEST(RefCounted, furtherPoolGoesWithItsLastCounterAndHalvesTheNextSize) {
    Crowd crowd(1024 + 2048);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    crowd.grow(1);
    EXPECT_EQ(2u, getDepletion().getPoolCount());
    EXPECT_EQ(4096u, getDepletion().getNextSize());
    crowd.shrink(1);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    EXPECT_EQ(2048u, getDepletion().getNextSize());
    crowd.shrink(2047);
    EXPECT_EQ(1u, getDepletion().getPoolCount());
    crowd.shrink(1);
    EXPECT_EQ(0u, getDepletion().getPoolCount());
    EXPECT_EQ(1024u, getDepletion().getNextSize());
}

TEST(RefCounted, itemSetAsideIsUsedBeforeThePoolGrows) {
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
    support::ChildEnd const end = runInChild([] {
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
            handle.letGo();
        }
        EXPECT_EQ(0, thing.destroyed);
        EXPECT_EQ(1, other.destroyed);
        EXPECT_EQ(
            "ASSERT framework/include/common/MemoryPool FreeStack: init\n"
            "ASSERT framework/include/common/MemoryPool MemoryPool: m_memblock_start",
            recorder.getText());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
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

TEST(RefCounted, itemSetAsideWhileAnotherThreadWaitsForThePoolIsUsedBeforeThePoolGrows) {
    Crowd crowd(1024);
    std::thread other;
    {
        Handle::CounterPool::LockGuard const guard(*Handle::getPool());
        // From here on only the other thread locks anything: having found nothing set aside, it waits for the pool.
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
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 200;
    for (int round = 0; round < ROUNDS; ++round) {
        Thing thing;
        std::vector<std::thread> threads;
        {
            Handle const first(thing);
            for (int i = 0; i < THREADS; ++i) {
                threads.emplace_back([mine = Handle(first)] { Handle const copy(mine); });
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1, thing.destroyed);
    }
}

TEST(RefCounted, threadsFightOverTheItemSetAside) {
    static constexpr int THREADS = 2; // More would take turns on a small machine rather than fight.
    static constexpr int ROUNDS = 500000;
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&ready, &wrong] {
            ++ready;
            while (ready < THREADS) {
                std::this_thread::yield();
            }
            for (int round = 0; round < ROUNDS; ++round) {
                Thing thing;
                {
                    Handle const handle(thing);
                    Handle const copy(handle);
                    wrong += handle.getCount() != 2; // Nobody else has this count.
                }
                wrong += thing.destroyed != 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
    expectPoolIsWhole();
}

TEST(RefCounted, threadsFightOverThePoolAroundItsDepletion) {
    // 1,024 handles are never exceeded, though they change hands all the time: the pool must not grow.
    constexpr int THREADS = 4;
    static constexpr int ROUNDS = 5000;
    constexpr unsigned int OTHERS = 1024 - THREADS;
    Crowd const others(OTHERS);
    std::atomic<bool> grown{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&grown] {
            Thing thing;
            for (int round = 0; round < ROUNDS; ++round) {
                Handle const handle(thing);
                if (!Handle::getPool()->contains(handle.getCounter())) {
                    grown = true;
                }
            }
            EXPECT_EQ(ROUNDS, thing.destroyed);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(grown);
}

TEST(RefCounted, threadsThatExchangeHandlesBeyondTheMainPoolLoseNone) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 5;
    constexpr int HANDLES = 900;
    using Batch = std::vector<Handle>;
    std::mutex mutex;
    std::vector<Batch> market; // Copies that another thread may take and end.
    std::vector<std::vector<Thing>> things(THREADS, std::vector<Thing>(ROUNDS * HANDLES));
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
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
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    market.clear();
    for (auto const& list : things) {
        for (Thing const& thing : list) {
            ASSERT_EQ(1, thing.destroyed);
        }
    }
    expectPoolIsWhole();
}

} // namespace
