#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/SysError.h>
#include <vesk/common/LazyInit.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::LazyInitBase;
using vesk::Mutex;

class LazyThing : public LazyInitBase<void*> {
public:
    bool doInit() override {
        ++m_runs;
        m_seen = m_argument;
        if (m_fails) {
            std::ErrorOutput("thing", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
        }
        return m_fails;
    }

    bool m_fails = false;
    int m_runs = 0; // Not atomic: the set-up runs under a lock.
    void* m_seen = nullptr;
};

static_assert(std::is_abstract_v<LazyInitBase<void*>>);
static_assert(std::has_virtual_destructor_v<LazyInitBase<void*>>);
static_assert(!std::is_copy_constructible_v<LazyThing> && !std::is_copy_assignable_v<LazyThing>);

TEST(LazyInit, runsTheSetUpOnceAtTheFirstCheck) {
    LazyThing thing;
    EXPECT_EQ(0, thing.m_runs);
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, thing.m_runs);
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, thing.m_runs);
    EXPECT_TRUE(chainIs({}));
}

TEST(LazyInit, setUpSeesTheArgumentOfTheCheckThatRunsItAndNoLaterOne) {
    LazyThing thing;
    int first = 0;
    int second = 0;
    EXPECT_FALSE(thing.checkInit(&first));
    EXPECT_EQ(&first, thing.m_seen);
    EXPECT_FALSE(thing.checkInit(&second));
    EXPECT_EQ(&first, thing.m_seen);
}

TEST(LazyInit, failedSetUpIsToldOnceAndNotTriedAgain) {
    LazyThing thing;
    thing.m_fails = true;
    EXPECT_TRUE(thing.checkInit(nullptr));
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}})) << "what the set-up reported is pending";
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_FALSE(thing.checkInit(nullptr));
    std::thread([&thing] { EXPECT_FALSE(thing.checkInit(nullptr)); }).join();
    EXPECT_EQ(1, thing.m_runs);
    EXPECT_TRUE(chainIs({}));
}

TEST(LazyInit, checksAfterTheSetUpTakeNoLock) {
    LazyThing thing;
    Fault const locks(inject_pthread_mutex_lock, 0);
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, locks.getCalls());
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, locks.getCalls());
}

TEST(LazyInit, worksWithAnyTypeOfArgument) {
    struct Sum : LazyInitBase<int> {
        bool doInit() override {
            m_sum = m_argument + 1;
            return false;
        }
        int m_sum = 0;
    } sum;
    EXPECT_FALSE(sum.checkInit(41));
    EXPECT_EQ(42, sum.m_sum);
}

TEST(LazyInit, isDestroyedThroughItsBase) {
    struct Noticed : LazyThing {
        explicit Noticed(bool& destroyed) : m_destroyed(destroyed) {}
        ~Noticed() override { m_destroyed = true; }
        bool& m_destroyed;
    };
    bool destroyed = false;
    LazyInitBase<void*>* const base = new Noticed(destroyed);
    delete base;
    EXPECT_TRUE(destroyed);
}

// ---- the layout ----

/// Tells where the members lie.
struct Layout : LazyInitBase<void*> {
    bool doInit() override { return false; }
    size_t getArgumentOffset() const {
        return static_cast<size_t>(
            reinterpret_cast<char const*>(&m_argument) - reinterpret_cast<char const*>(this));
    }
};

TEST(LazyInit, holdsTheTableThenTheCounterThenTheLockThenTheArgument) {
    Layout object;
    uint32_t count = 1;
    memcpy(&count, reinterpret_cast<char const*>(&object) + sizeof(void*), sizeof count);
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(object.checkInit(nullptr));
    memcpy(&count, reinterpret_cast<char const*>(&object) + sizeof(void*), sizeof count);
    EXPECT_EQ(1u, count);
    struct Expected {
        void* table;
        uint32_t counter;
        alignas(Mutex) unsigned char mutex[sizeof(Mutex)];
        void* argument;
    };
    EXPECT_EQ(offsetof(Expected, argument), object.getArgumentOffset());
    EXPECT_EQ(sizeof(Expected), sizeof object);
}

TEST(LazyInit, setUpIsTheFirstVirtualOperation) {
    // A pointer to a virtual member holds its offset in the table of operations: marked by the lowest bit, or on ARM,
    // where a function's address has a use for that bit, as it is.
    bool (LazyThing::*const member)() = &LazyThing::doInit;
    uintptr_t representation[2];
    static_assert(sizeof member == sizeof representation);
    memcpy(representation, &member, sizeof representation);
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(0u, representation[0]);
    EXPECT_EQ(1u, representation[1] & 1);
#else
    EXPECT_EQ(1u, representation[0]);
#endif
}

// ---- threads ----

TEST(LazyInit, threadsThatCheckAtOnceRunItOnceAndAllSeeItsResult) {
    constexpr int THREADS = 8;
    for (int round = 0; round < 100; ++round) {
        LazyThing thing;
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&] {
                ++ready;
                while (ready < THREADS) {
                    std::this_thread::yield();
                }
                EXPECT_FALSE(thing.checkInit(&thing));
                EXPECT_EQ(&thing, thing.m_seen);
                EXPECT_EQ(1, thing.m_runs);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(LazyInit, oneThreadAloneSeesTheFailure) {
    constexpr int THREADS = 8;
    for (int round = 0; round < 50; ++round) {
        LazyThing thing;
        thing.m_fails = true;
        std::atomic<int> ready{0};
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&] {
                ++ready;
                while (ready < THREADS) {
                    std::this_thread::yield();
                }
                if (thing.checkInit(nullptr)) {
                    ++failures;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1, failures);
        EXPECT_EQ(1, thing.m_runs);
    }
}

/// A set-up that waits until another thread is about to wait for it.
struct SlowThing : LazyInitBase<void*> {
    bool doInit() override {
        ++m_runs;
        m_running = true;
        while (!m_go_on) {
            std::this_thread::yield();
        }
        return true;
    }
    int m_runs = 0;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_go_on{false};
};

TEST(LazyInit, threadThatWaitedForTheSetUpFindsItDoneAndSeesNoFailure) {
    SlowThing thing;
    std::thread first([&] { EXPECT_TRUE(thing.checkInit(nullptr)); });
    while (!thing.m_running) {
        std::this_thread::yield();
    }
    Fault const locks(inject_pthread_mutex_lock, 0, 1, 1, Fault::Threads::ALL);
    std::thread second([&] { EXPECT_FALSE(thing.checkInit(nullptr)); });
    while (locks.getCalls() ==
           0) { // The counter said no, so the second one goes for the lock, which is held.
        std::this_thread::yield();
    }
    thing.m_go_on = true;
    first.join();
    second.join();
    EXPECT_EQ(1, thing.m_runs);
    EXPECT_FALSE(thing.checkInit(nullptr));
}

// ---- a lock that fails ----

TEST(LazyInit, lockThatCannotBeHadEndsTheProcess) {
    LazyThing thing;
    EventRecorder recorder;
    {
        Fault const lock(inject_pthread_mutex_lock, EINVAL);
        // The second one, after that of the recorder: refused, as for any lock that nobody holds.
        Fault const unlock(inject_pthread_mutex_unlock, EPERM, 2);
        EXPECT_FALSE(thing.checkInit(nullptr));
    }
    EXPECT_EQ(
        "ABORT framework/include/vesk/common/LazyInit checkInit: error locking\n"
        "ABORT framework/include/vesk/common/LazyInit checkInit: error unlocking",
        recorder.getText());
    EXPECT_EQ(1, thing.m_runs) << "should the process live on, so does the set-up";
    EXPECT_TRUE(
        chainIs({{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EPERM))}}));
}

TEST(LazyInit, lockThatCannotBeGivenBackEndsTheProcess) {
    // Never destroyed: its lock stays held.
    alignas(LazyThing) static unsigned char s_storage[sizeof(LazyThing)];
    LazyThing& thing = *new (s_storage) LazyThing;
    EventRecorder recorder;
    {
        Fault const unlock(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_FALSE(thing.checkInit(nullptr));
    }
    EXPECT_EQ("ABORT framework/include/vesk/common/LazyInit checkInit: error unlocking", recorder.getText());
    EXPECT_TRUE(
        chainIs({{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EINVAL))}}));
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, thing.m_runs);
}

TEST(LazyInit, setUpThatChecksItsOwnObjectEndsTheProcess) {
    struct Recursive : LazyInitBase<void*> {
        bool doInit() override {
            if (++m_runs > 1) {
                return false;
            }
            // The check in here must not get to unlock, after the recorder: the lock belongs to the one around it.
            Fault const unlock(inject_pthread_mutex_unlock, EPERM, 2);
            return checkInit(nullptr);
        }
        int m_runs = 0;
    } thing;
    EventRecorder recorder;
    EXPECT_FALSE(thing.checkInit(nullptr));
    ASSERT_LE(1u, recorder.getCount());
    EXPECT_EQ("error locking", recorder.getEvents()[0].message);
    EXPECT_EQ("checkInit", recorder.getEvents()[0].function);
    std::ErrorStorage::ack();
}

} // namespace
