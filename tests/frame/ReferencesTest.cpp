#include "support/NewFault.h"
#include "support/Testing.h"

#include <common/Shared.h>
#include <common/SharedBuf.h>
#include <vesk/RefCounted.h>

#include <chrono>
#include <future>
#include <stdexcept>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
using std::SharedBuf;

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

TEST(RefCounted, releasingTheLastHandleTwiceDestroysOnceAlsoThroughABase) {
    Thing thing;
    std::unique_ptr<vesk::RefCounted> base;
    {
        auto handle = std::make_unique<Handle>(thing);
        handle->release();
        EXPECT_EQ(1, thing.destroyed);
        EXPECT_EQ(nullptr, handle->getCounter());
        base = std::move(handle);
    }
    base = std::make_unique<Handle>(thing);
    EXPECT_EQ(1, thing.destroyed);
    base.reset();
    EXPECT_EQ(2, thing.destroyed);
}

TEST(RefCounted, handlesNeedNeitherMemoryNorALockExceptTheFirst) {
    Thing thing;
    { Handle const handle(thing); }
    NewFault const single(New::SINGLE, 1, 0);
    Fault const locks(inject_pthread_mutex_lock, 0);
    { Handle const handle(thing); }
    {
        Handle const handle(thing);
        Handle const copy(handle);
        Handle const another(copy);
        EXPECT_EQ(3, handle.getCount());
    }
    EXPECT_EQ(0, single.getCalls());
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_EQ(3, thing.destroyed);
}

TEST(RefCounted, furtherPoolsComeAndGoWithTheCountersFromThe1025thOn) {
    struct Step {
        int count;
        unsigned int pools;
        unsigned int next_size;
    };
    Step const steps[] = {
        {1024, 0, 1024},
        {1, 1, 2048},
        {2047, 1, 2048},
        {1, 2, 4096},
        {-1, 1, 2048},
        {-2047, 1, 2048},
        {-1, 0, 1024},
        // A spare is used before the pool grows.
        {-1, 0, 1024},
        {1, 0, 1024},
        {-2, 0, 1024},
        {2, 0, 1024},
        {-3, 0, 1024},
        {3, 0, 1024},
        {1, 1, 2048}};
    Crowd crowd(0);
    for (Step const& step : steps) {
        step.count > 0 ? crowd.grow(static_cast<unsigned int>(step.count))
                       : crowd.shrink(static_cast<unsigned int>(-step.count));
        expectPools(step.pools, step.next_size);
        if (crowd.get().size() > 1024 && step.count > 0) {
            void* const counter = crowd.get().back()->getCounter();
            EXPECT_EQ(step.next_size, getDepletion().getCurrent()->getItemCount());
            EXPECT_TRUE(getDepletion().getCurrent()->contains(counter));
            EXPECT_FALSE(Handle::getPool()->contains(counter));
            EXPECT_EQ(1, crowd.get().back()->getCount());
        }
    }
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

constexpr unsigned int SPARES = 8; // Of a thread.

TEST(RefCounted, sparesOfOtherThreadsLeaveACountForEachOf1024HandlesWithoutMemory) {
    expectInChild([] {
        EventRecorder const recorder;
        Thing thing;
        std::promise<void> kept;
        std::promise<void> end;
        std::thread other([&] {
            { Crowd const crowd(SPARES); }
            kept.set_value();
            end.get_future().wait();
        });
        kept.get_future().wait();
        {
            Crowd const crowd(1024 - SPARES);
            // Few in the second round: each attempt without memory doubles the list of free items of the next.
            for (unsigned int const count : {SPARES, 2U}) {
                auto const make = [&thing] {
                    NewFault const fault(New::NOTHROW_ARRAY);
                    return std::make_unique<Handle>(thing);
                };
                std::vector<std::unique_ptr<Handle>> last;
                for (unsigned int i = 0; i < count; ++i) {
                    last.push_back(make());
                    EXPECT_NE(nullptr, last.back()->getCounter()) << count;
                    EXPECT_FALSE(Handle::getPool()->contains(last.back()->getCounter()));
                }
                EXPECT_EQ(count < SPARES, make()->getCounter() != nullptr) << count;
            }
        }
        end.set_value();
        other.join();
        Crowd const whole(1024);
        for (auto const& handle : whole.get()) {
            EXPECT_TRUE(Handle::getPool()->contains(handle->getCounter()));
        }
    });
}

TEST(RefCounted, threadsThatEndLeaveTheirSparesToThePool) {
    for (int round = 0; round < 3; ++round) {
        // More threads at a time than may have spares.
        std::atomic<int> ready{0};
        runInThreads(100, [&ready](int) {
            { Crowd const crowd(SPARES + 1); }
            ++ready;
            while (ready < 100) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        expectPoolIsWhole();
    }
}

TEST(RefCounted, threadsUseTheirSparesAtTheSameTime) {
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
    runInThreads(THREADS, [](int) {
        Thing thing;
        for (int round = 0; round < ROUNDS; ++round) {
            Handle const handle(thing);
            ASSERT_TRUE(Handle::getPool()->contains(handle.getCounter())) << "the pool has grown";
        }
        EXPECT_EQ(ROUNDS, thing.destroyed);
    });
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

// ---- SharedBuf ----

/// Counts the freed blocks. Not atomic: only the last reference may call it.
class Owner : public SharedBuf::Owner {
public:
    void free(SharedBuf const& buf) override {
        ++freed;
        last_data = buf.getData();
        last_size = buf.getSize();
    }

    int freed = 0;
    void* last_data = nullptr;
    unsigned int last_size = 0;
};

struct SharedBufTest : testing::Test {
    Owner owner;
    std::atomic<int32_t> count{1};
    char data[16] = {};
};

TEST_F(SharedBufTest, addedReferenceIsReleasedExplicitly) {
    {
        SharedBuf const buf(&count, &owner, data, sizeof data);
        buf.ref();
        EXPECT_EQ(2, count);
    }
    EXPECT_EQ(1, count);
    EXPECT_EQ(0, owner.freed);
    {
        SharedBuf const same(&count, &owner, data, sizeof data);
        same.ref();
        same.unref();
        EXPECT_EQ(1, count);
        EXPECT_EQ(0, owner.freed);
    }
    EXPECT_EQ(1, owner.freed);
}

TEST_F(SharedBufTest, withoutACountOrAnOwnerFreesNothing) {
    {
        SharedBuf const buf(nullptr, &owner, data, sizeof data);
        buf.unref();
        buf.ref();
        SharedBuf const copy(buf);
        EXPECT_EQ(data, copy.getData());
    }
    EXPECT_EQ(0, owner.freed);
    {
        SharedBuf const buf(&count, nullptr, data, sizeof data);
        SharedBuf const copy(buf);
    }
    EXPECT_EQ(0, count);
    SharedBuf const buf;
    EXPECT_EQ(nullptr, buf.getData());
    EXPECT_EQ(0u, buf.getSize());
    EXPECT_EQ(nullptr, buf.getOwner());
    buf.unref();
}

// ---- Shared ----

template <typename T>
using Ptr = std::SharedBase::Ptr<T>;

/// Counts its objects. Not atomic: only the holder's lock makes the numbers right. Each test uses its own
/// `TAG`.
template <int TAG>
struct Engine {
    Engine() : serial(++built) {
        ++alive;
        if (throws) {
            --alive;
            throw std::runtime_error("no engine");
        }
    }
    ~Engine() {
        ++destroyed;
        --alive;
    }

    int serial;

    static inline int built = 0;
    static inline int destroyed = 0;
    static inline int alive = 0;
    static inline bool throws = false;
};

static_assert(std::is_base_of_v<tarnbase::NonCopyable, std::Shared<int>>);
static_assert(!std::is_copy_constructible_v<std::Shared<int>>);
static_assert(std::is_copy_constructible_v<Ptr<int>> && std::is_copy_assignable_v<Ptr<int>>);
static_assert(sizeof(Ptr<int>) == 2 * sizeof(void*));

TEST(Shared, firstReferenceBuildsTheObjectAndTheLastDestroysItUntilALaterOneBuildsAFreshObject) {
    using E = Engine<1>;
    std::Shared<E> shared;
    EXPECT_EQ(0, E::built);
    {
        Ptr<E> const first(&shared, shared.getObject());
        EXPECT_EQ(1, E::built);
        Ptr<E> const second(&shared, shared.getObject());
        EXPECT_EQ(1, E::built);
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(0, E::destroyed);
    }
    EXPECT_EQ(1, E::destroyed);
    EXPECT_EQ(0, E::alive);
    Ptr<E> const reference(shared);
    EXPECT_EQ(2, reference->serial);
    EXPECT_EQ(2, E::built);
    EXPECT_EQ(1, E::destroyed);
}

TEST(Shared, objectLiesInsideTheHolder) {
    struct alignas(64) Wide {
        char bytes[64];
    };
    std::Shared<Wide> shared;
    Ptr<Wide> const reference(shared);
    auto const object = reinterpret_cast<uintptr_t>(reference.get());
    auto const holder = reinterpret_cast<uintptr_t>(&shared);
    EXPECT_GE(object, holder);
    EXPECT_LE(object + sizeof(Wide), holder + sizeof shared);
    EXPECT_EQ(0u, object % 64);
}

TEST(Shared, emptyReferenceNeedsNoHolder) {
    int value = 7;
    Ptr<int> const pointing(nullptr, &value);
    EXPECT_EQ(7, *pointing);
    EXPECT_EQ(nullptr, pointing.getHolder());
    Ptr<int> const copy(pointing);
    EXPECT_EQ(&value, copy.get());
    Ptr<int> const empty;
    EXPECT_FALSE(empty);
    EXPECT_EQ(nullptr, empty.get());
}

TEST(Shared, referenceBehavesLikeAPointerAndThatToABaseKeepsTheDerivedObject) {
    using E = Engine<4>;
    struct Derived : E {
        int more = 42;
    };
    std::Shared<Derived> shared;
    {
        Ptr<E> const reference(shared);
        EXPECT_TRUE(reference);
        EXPECT_EQ(reference.get(), &*reference);
        EXPECT_EQ(&reference->serial, &reference.get()->serial);
        EXPECT_EQ(&shared, reference.getHolder());
        EXPECT_EQ(42, static_cast<Derived&>(*reference).more);
    }
    EXPECT_EQ(0, E::alive);
}

TEST(Shared, constructorThatThrowsLeavesNoReference) {
    using E = Engine<8>;
    std::Shared<E> shared;
    E::throws = true;
    EXPECT_THROW(Ptr<E>{shared}, std::runtime_error);
    E::throws = false;
    {
        Ptr<E> const reference(shared);
        EXPECT_EQ(2, reference->serial);
    }
    EXPECT_EQ(0, E::alive);
}

TEST(Shared, destroyedHolderLeavesTheObjectUnchanged) {
    using E = Engine<9>;
    alignas(std::Shared<E>) static unsigned char memory[sizeof(std::Shared<E>)];
    auto* const shared = new (memory) std::Shared<E>;
    alignas(Ptr<E>) static unsigned char reference_memory[sizeof(Ptr<E>)];
    new (reference_memory) Ptr<E>(*shared); // Never ends.
    shared->~Shared();
    EXPECT_EQ(1, E::alive);
}

std::Shared<Engine<10>> s_global;
int const s_serial_from_an_initializer = Ptr<Engine<10>>(s_global)->serial;

TEST(Shared, globalHolderServesInitializersBehindIt) {
    EXPECT_EQ(1, s_serial_from_an_initializer);
    EXPECT_EQ(0, Engine<10>::alive);
}

/// A holder with operations that spoil the count.
class BadHolder : public std::SharedBase {
public:
    int built = 0;
    int destroyed = 0;
    bool spoils = false;

private:
    void build() override {
        ++built;
        if (spoils) {
            refcount = 0;
        }
    }
    void destroy() override { ++destroyed; }
};

TEST(Shared, countOfZeroTripsAnAssertionInConstructionAndDestructionOfAReference) {
    EventRecorder const recorder;
    BadHolder holder;
    holder.spoils = true;
    {
        int value = 0;
        Ptr<int> const reference(&holder, &value);
        EXPECT_EQ("ASSERT framework/include/common/Shared PtrBase: shared->refcount!=0", recorder.getText());
    }
    EXPECT_EQ(
        "ASSERT framework/include/common/Shared PtrBase: shared->refcount!=0\n"
        "ASSERT framework/include/common/Shared ~PtrBase: shared->refcount!=0",
        recorder.getText());
    EXPECT_EQ(1, holder.built);
    EXPECT_EQ(0, holder.destroyed);
}

TEST(Shared, failureToLockAborts) {
    using E = Engine<11>;
    EventRecorder const recorder;
    std::Shared<E> shared;
    std::string expected;
    {
        Ptr<E> const keeper(shared);
        alignas(Ptr<E>) unsigned char memory[sizeof(Ptr<E>)];
        for (std::string const function : {"PtrBase", "~PtrBase"}) {
            {
                Fault const lock(inject_pthread_mutex_lock, EINVAL);
                Fault const unlock(
                    inject_pthread_mutex_unlock, EINVAL, 2); // The first call is the recorder's.
                if (function == "PtrBase") {
                    new (memory) Ptr<E>(shared);
                } else {
                    reinterpret_cast<Ptr<E>*>(memory)->~Ptr();
                }
            }
            std::string const begin = "ABORT framework/include/common/Shared " + function + ": error ";
            expected += (expected.empty() ? "" : "\n") + begin + "locking\n" + begin + "unlocking";
            EXPECT_EQ(expected, recorder.getText());
        }
        EXPECT_EQ(1, E::alive) << "the operations continued";
    }
    EXPECT_EQ(0, E::alive);
}

struct Recursive {
    Recursive();
};
std::Shared<Recursive> s_recursive;
Recursive::Recursive() {
    Ptr<Recursive> const self(s_recursive);
}

TEST(Shared, referenceFromWithinTheConstructorOfTheSameObjectEndsTheProcess) {
    ChildEnd const end = runInChild([] { Ptr<Recursive> const reference(s_recursive); });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

/// Its constructor waits for `may_end`.
struct Slow {
    Slow() {
        started = true;
        while (!may_end) {
            std::this_thread::yield();
        }
        ready = true;
    }
    bool ready = false;

    static inline std::atomic<bool> started{false};
    static inline std::atomic<bool> may_end{false};
};

TEST(Shared, otherReferencesWaitUntilTheObjectIsBuilt) {
    static std::Shared<Slow> shared;
    std::thread builder([] { Ptr<Slow> const reference(shared); });
    EXPECT_TRUE(eventually([] { return Slow::started.load(); }));
    // From here on only the second reference locks.
    Fault const locks(inject_pthread_mutex_lock, 0, 1, 1, Fault::Threads::ALL);
    std::thread other([] {
        Ptr<Slow> const reference(shared);
        EXPECT_TRUE(reference->ready);
    });
    EXPECT_TRUE(eventually([&] { return locks.getCalls() != 0; }));
    Slow::may_end = true;
    builder.join();
    other.join();
}

TEST(Shared, threadsCompeteForConstructionAndDestruction) {
    using E = Engine<12>;
    static std::Shared<E> shared;
    runInThreads(4, [](int) {
        for (int round = 0; round < 5000; ++round) {
            Ptr<E> const reference(shared);
            Ptr<E> const copy(reference);
            ASSERT_EQ(reference->serial, copy->serial);
            ASSERT_GE(E::built, 1);
        }
    });
    EXPECT_EQ(0, E::alive);
    EXPECT_EQ(E::built, E::destroyed);
    EXPECT_GE(E::built, 1);
}

// ---- what all references have in common ----

/// A thing with references of one kind.
struct OfRefCounted {
    using Reference = Handle;
    Reference make() { return Handle(thing); }
    bool isIn(Reference const& reference) const { return reference.getThing() == &thing; }
    static int countOf(Reference const& reference) { return reference.getCount(); }
    int countDestroyed() const { return thing.destroyed; }

    Thing thing;
};

struct OfSharedBuf {
    using Reference = SharedBuf;
    Reference make() { return {&count, &owner, data, sizeof data}; }
    bool isIn(Reference const& reference) const {
        return reference.getData() == data && reference.getSize() == sizeof data &&
            reference.getOwner() == &owner;
    }
    int countOf(Reference const& /*reference*/) const { return count; }
    int countDestroyed() const {
        EXPECT_EQ(owner.freed == 0 ? 0 : sizeof data, owner.last_size);
        EXPECT_EQ(owner.freed == 0 ? nullptr : data, owner.last_data);
        return owner.freed;
    }

    Owner owner;
    std::atomic<int32_t> count{1};
    char data[16] = {};
};

struct OfShared : std::SharedBase {
    using Reference = Ptr<int>;
    Reference make() { return Ptr<int>(this, &value); }
    bool isIn(Reference const& reference) const {
        return reference.get() == &value && reference.getHolder() == this;
    }
    int countOf(Reference const& /*reference*/) const { return static_cast<int>(refcount); }
    int countDestroyed() const { return destroyed; }
    void build() override { EXPECT_EQ(destroyed, built++); }
    void destroy() override { ++destroyed; }

    int value = 0;
    int built = 0;
    int destroyed = 0;
};

template <typename Kind>
class References : public testing::Test {
protected:
    Kind m_left;
    Kind m_right;
};

using Kinds = testing::Types<OfRefCounted, OfSharedBuf, OfShared>;
TYPED_TEST_SUITE(References, Kinds);

TYPED_TEST(References, shareOneCountAndTheLastOneDestroys) {
    using Reference = typename TypeParam::Reference;
    auto first = std::make_unique<Reference>(this->m_left.make());
    EXPECT_EQ(1, this->m_left.countOf(*first));
    auto last = std::make_unique<Reference>(*first);
    {
        Reference const third(*last);
        EXPECT_TRUE(this->m_left.isIn(third));
        EXPECT_EQ(3, this->m_left.countOf(third));
    }
    first.reset();
    EXPECT_EQ(1, this->m_left.countOf(*last));
    EXPECT_EQ(0, this->m_left.countDestroyed());
    last.reset();
    EXPECT_EQ(1, this->m_left.countDestroyed());
}

TYPED_TEST(References, assignmentReleasesTheOldThingAndSharesTheNew) {
    using Reference = typename TypeParam::Reference;
    {
        Reference reference = this->m_left.make();
        {
            Reference const keeper(reference);
            Reference const other = this->m_right.make();
            reference = other;
            EXPECT_EQ(0, this->m_left.countDestroyed()) << "it has another reference";
            EXPECT_EQ(1, this->m_left.countOf(keeper));
            EXPECT_EQ(2, this->m_right.countOf(other));
        }
        EXPECT_EQ(1, this->m_left.countDestroyed());
        EXPECT_TRUE(this->m_right.isIn(reference));
        EXPECT_EQ(0, this->m_right.countDestroyed());
    }
    EXPECT_EQ(1, this->m_left.countDestroyed());
    EXPECT_EQ(1, this->m_right.countDestroyed());
}

TYPED_TEST(References, assignmentToItselfOrACopyKeepsTheThingAndThatToTheLastReferenceDestroysIt) {
    using Reference = typename TypeParam::Reference;
    Reference reference = this->m_left.make();
    Reference& same = reference;
    reference = same;
    {
        Reference const copy(reference);
        reference = copy;
        EXPECT_EQ(2, this->m_left.countOf(copy));
        EXPECT_EQ(0, this->m_left.countDestroyed());
        EXPECT_TRUE(this->m_left.isIn(reference));
    }
    Reference const other = this->m_right.make();
    reference = other;
    EXPECT_EQ(1, this->m_left.countDestroyed());
}

TYPED_TEST(References, threadsThatCopyAndReleaseDestroyOnce) {
    using Reference = typename TypeParam::Reference;
    for (int round = 0; round < 200; ++round) {
        TypeParam thing;
        {
            std::vector<std::unique_ptr<Reference>> references;
            auto first = std::make_unique<Reference>(thing.make());
            for (int i = 0; i < 4; ++i) {
                references.push_back(std::make_unique<Reference>(*first));
            }
            first.reset();
            runInThreads(4, [&references](int i) {
                for (int copies = 0; copies < 50; ++copies) {
                    Reference const copy(*references[static_cast<size_t>(i)]);
                    Reference const another(copy);
                }
                references[static_cast<size_t>(i)].reset();
            });
        }
        EXPECT_EQ(1, thing.countDestroyed());
    }
}

} // namespace
