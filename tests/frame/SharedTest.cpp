#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/RunInThreads.h"

#include <common/Shared.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;

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

TEST(Shared, firstReferenceBuildsTheObjectAndTheLastDestroysIt) {
    using E = Engine<1>;
    std::Shared<E> shared;
    EXPECT_EQ(0, E::built);
    {
        Ptr<E> const first(&shared, shared.getObject());
        EXPECT_EQ(1, E::built);
        Ptr<E> const second(&shared, shared.getObject());
        EXPECT_EQ(1, E::built);
        EXPECT_EQ(first.get(), second.get());
        { Ptr<E> const third(second); }
        EXPECT_EQ(0, E::destroyed);
    }
    EXPECT_EQ(1, E::destroyed);
    EXPECT_EQ(0, E::alive);
}

TEST(Shared, lastReferenceNeedNotBeTheFirst) {
    using E = Engine<2>;
    std::Shared<E> shared;
    Ptr<E> last;
    {
        Ptr<E> const first(shared);
        last = first;
    }
    EXPECT_EQ(1, E::alive);
    EXPECT_EQ(1, last->serial);
    last = Ptr<E>();
    EXPECT_EQ(0, E::alive);
}

TEST(Shared, laterReferenceBuildsAFreshObject) {
    using E = Engine<3>;
    std::Shared<E> shared;
    {
        Ptr<E> const reference(shared);
        EXPECT_EQ(1, reference->serial);
    }
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

TEST(Shared, referenceBehavesLikeAPointer) {
    using E = Engine<4>;
    std::Shared<E> shared;
    Ptr<E> const reference(shared);
    EXPECT_TRUE(reference);
    EXPECT_EQ(reference.get(), &*reference);
    EXPECT_EQ(&reference->serial, &reference.get()->serial);
    EXPECT_EQ(&shared, reference.getHolder());
}

TEST(Shared, referenceToABaseKeepsTheDerivedObject) {
    struct Derived : Engine<5> {
        int more = 42;
    };
    std::Shared<Derived> shared;
    {
        Ptr<Engine<5>> const reference(shared);
        EXPECT_EQ(42, static_cast<Derived&>(*reference).more);
    }
    EXPECT_EQ(0, Engine<5>::alive);
}

TEST(Shared, assignmentMovesToTheOtherHolder) {
    using E = Engine<6>;
    std::Shared<E> left;
    std::Shared<E> right;
    Ptr<E> reference(left);
    Ptr<E> const other(right);
    EXPECT_EQ(2, E::alive);
    reference = other;
    EXPECT_EQ(1, E::alive);
    EXPECT_EQ(other.get(), reference.get());
    EXPECT_EQ(&right, reference.getHolder());
}

TEST(Shared, assignmentToItselfKeepsTheObject) {
    using E = Engine<7>;
    std::Shared<E> shared;
    Ptr<E> reference(shared);
    Ptr<E>& same = reference;
    reference = same;
    EXPECT_EQ(1, E::built);
    EXPECT_EQ(0, E::destroyed);
    EXPECT_TRUE(reference);
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
    while (!Slow::started) {
        std::this_thread::yield();
    }
    // From here on only the second reference locks.
    Fault const locks(inject_pthread_mutex_lock, 0, 1, 1, Fault::Threads::ALL);
    std::thread other([] {
        Ptr<Slow> const reference(shared);
        EXPECT_TRUE(reference->ready);
    });
    while (locks.getCalls() == 0) {
        std::this_thread::yield();
    }
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

} // namespace
