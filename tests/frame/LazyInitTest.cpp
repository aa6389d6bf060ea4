#include "support/CleanEnd.h"
#include "support/Testing.h"
#include "support/VtableSlot.h"

#include <vesk/common/LazyInit.h>

#include <new>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
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

TEST(LazyInit, firstCheckRunsTheSetUpWithItsArgumentAndLaterOnesTakeNoLock) {
    LazyThing thing;
    EXPECT_EQ(0, thing.m_runs);
    Fault const locks(inject_pthread_mutex_lock, 0);
    for (int argument = 0; argument < 3; ++argument) {
        static int arguments[3];
        EXPECT_FALSE(thing.checkInit(&arguments[argument]));
        EXPECT_EQ(&arguments[0], thing.m_seen);
        EXPECT_EQ(1, thing.m_runs);
        EXPECT_EQ(1, locks.getCalls());
    }
}

TEST(LazyInit, failedSetUpIsReportedOnceAndNotRepeated) {
    LazyThing thing;
    thing.m_fails = true;
    EXPECT_TRUE(thing.checkInit(nullptr));
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}})) << "the report of the set-up is pending";
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_FALSE(thing.checkInit(nullptr));
    std::thread([&thing] { EXPECT_FALSE(thing.checkInit(nullptr)); }).join();
    EXPECT_EQ(1, thing.m_runs);
}

TEST(LazyInit, worksWithAnyTypeOfArgumentAndIsDestroyedThroughItsBase) {
    static int s_sum = 0;
    struct Sum : LazyInitBase<int> {
        ~Sum() override { s_sum = 0; }
        bool doInit() override {
            s_sum = m_argument + 1;
            return false;
        }
    };
    std::unique_ptr<LazyInitBase<int>> base = std::make_unique<Sum>();
    EXPECT_FALSE(base->checkInit(41));
    EXPECT_EQ(42, s_sum);
    base.reset();
    EXPECT_EQ(0, s_sum);
}

// ---- the layout ----

/// Returns the offset of the argument and the value of the counter.
struct Layout : LazyInitBase<void*> {
    bool doInit() override { return false; }
    size_t getArgumentOffset() const {
        return static_cast<size_t>(
            reinterpret_cast<char const*>(&m_argument) - reinterpret_cast<char const*>(this));
    }
    uint32_t getCount() const {
        uint32_t count = 12345;
        memcpy(&count, reinterpret_cast<char const*>(this) + sizeof(void*), sizeof count);
        return count;
    }
};

TEST(LazyInit, holdsTheTableThenTheCounterThenTheLockThenTheArgument) {
    Layout object;
    EXPECT_EQ(0u, object.getCount());
    EXPECT_FALSE(object.checkInit(nullptr));
    EXPECT_EQ(1u, object.getCount());
    struct Expected {
        void* table;
        uint32_t counter;
        alignas(Mutex) unsigned char mutex[sizeof(Mutex)];
        void* argument;
    };
    EXPECT_EQ(offsetof(Expected, argument), object.getArgumentOffset());
    EXPECT_EQ(sizeof(Expected), sizeof object);
    EXPECT_EQ(0, getSlot(&LazyThing::doInit));
}

// ---- threads ----

TEST(LazyInit, threadsThatCheckAtOnceRunItOnceAndOneOfThemSeesAFailure) {
    for (int round = 0; round < 100; ++round) {
        LazyThing thing;
        thing.m_fails = round % 2 == 0;
        std::atomic<int> failures{0};
        runInThreads(8, [&](int) {
            failures += thing.checkInit(&thing) ? 1 : 0;
            EXPECT_EQ(&thing, thing.m_seen);
            EXPECT_EQ(1, thing.m_runs);
        });
        EXPECT_EQ(thing.m_fails ? 1 : 0, failures);
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
    EXPECT_TRUE(eventually([&] { return thing.m_running.load(); }));
    Fault const locks(inject_pthread_mutex_lock, 0, 1, 1, Fault::Threads::ALL);
    std::thread second([&] { EXPECT_FALSE(thing.checkInit(nullptr)); });
    // The second thread saw the counter at 0 and waits for the lock.
    EXPECT_TRUE(eventually([&] { return locks.getCalls() != 0; }));
    thing.m_go_on = true;
    first.join();
    second.join();
    EXPECT_EQ(1, thing.m_runs);
    EXPECT_FALSE(thing.checkInit(nullptr));
}

// ---- a lock that fails ----

TEST(LazyInit, failureToLockEndsTheProcess) {
    LazyThing thing;
    EventRecorder recorder;
    {
        Fault const lock(inject_pthread_mutex_lock, EINVAL);
        // The second call, after that of the recorder, is refused as for any lock that is not held.
        Fault const unlock(inject_pthread_mutex_unlock, EPERM, 2);
        EXPECT_FALSE(thing.checkInit(nullptr));
    }
    EXPECT_EQ(
        "ABORT framework/include/vesk/common/LazyInit checkInit: error locking\n"
        "ABORT framework/include/vesk/common/LazyInit checkInit: error unlocking",
        recorder.getText());
    EXPECT_EQ(1, thing.m_runs) << "a process that continues runs the set-up";
    EXPECT_TRUE(causeIs(Mutex::ErrorId::INCONSISTENT, EPERM));
}

TEST(LazyInit, failureToUnlockEndsTheProcess) {
    // Never destroyed: its lock stays held.
    alignas(LazyThing) static unsigned char s_storage[sizeof(LazyThing)];
    LazyThing& thing = *new (s_storage) LazyThing;
    EventRecorder recorder;
    {
        Fault const unlock(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_FALSE(thing.checkInit(nullptr));
    }
    EXPECT_EQ("ABORT framework/include/vesk/common/LazyInit checkInit: error unlocking", recorder.getText());
    EXPECT_TRUE(causeIs(Mutex::ErrorId::INCONSISTENT, EINVAL));
    EXPECT_FALSE(thing.checkInit(nullptr));
    EXPECT_EQ(1, thing.m_runs);
}

TEST(LazyInit, setUpThatChecksItsOwnObjectEndsTheProcess) {
    struct Recursive : LazyInitBase<void*> {
        bool doInit() override {
            if (++m_runs > 1) {
                return false;
            }
            // The inner check must not unlock, after the recorder: the lock belongs to the outer one.
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
