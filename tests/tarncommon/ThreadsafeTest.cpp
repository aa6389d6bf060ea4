#include "sync/LockCalls.h"

#include "support/Child.h"
#include "support/Testing.h"

#include <tarncommon/threadsafe/ConditionImpl.h>
#include <tarncommon/threadsafe/MutexImpl.h>
#include <tarncommon/threadsafe/TlsImpl.h>

VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_key_create, (pthread_key_t * key, void (*destructor)(void*)), (key, destructor))
VESK_INJECT_RESULT(pthread_setspecific, (pthread_key_t key, void const* value), (key, value))

namespace {

using namespace support;
using namespace threadsafe;
using tarnbase::Duration;
using tarnbase::TimePoint;

// ---- mutexes ----

TEST(MutexImpl, locksAndUnlocksAndReturnsInconsistencies) {
    MutexImpl mutex(false);
    EXPECT_EQ(0, mutex.lock());
    EXPECT_EQ(0, mutex.unlock());
    ASSERT_EQ(0, mutex.lock());
    std::thread([&mutex] {
        EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, mutex.unlock());
        EXPECT_EQ(EPERM, errno);
    }).join();
    EXPECT_EQ(0, mutex.unlock());
    ASSERT_EQ(0, mutex.lock());
    EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, mutex.lock());
    EXPECT_EQ(EDEADLK, errno);
    EXPECT_EQ(0, mutex.unlock());

    MutexImpl recursive(true);
    EXPECT_EQ(0, recursive.lock());
    EXPECT_EQ(0, recursive.lock());
    EXPECT_EQ(0, recursive.unlock());
    EXPECT_EQ(0, recursive.unlock());
    EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, recursive.unlock());
    {
        Fault const fault(inject_pthread_mutex_lock, EAGAIN);
        EXPECT_EQ(EAGAIN, mutex.lock());
    }
    ASSERT_EQ(0, mutex.lock());
    {
        Fault const fault(inject_pthread_mutex_unlock, EINVAL);
        EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, mutex.unlock());
    }
    ASSERT_EQ(0, mutex.unlock());
}

// ---- conditions ----

class ConditionImplTest : public testing::Test {
protected:
    /// Calls `wait` with the mutex in a thread until it is woken.
    template <typename Wait>
    void wakeWaiter(Wait const& wait) {
        std::thread waiter([&] {
            ASSERT_EQ(0, m_mutex.lock());
            while (!m_ready) {
                wait();
            }
            EXPECT_EQ(0, m_mutex.unlock());
        });
        ASSERT_EQ(0, m_mutex.lock());
        m_ready = true;
        EXPECT_EQ(0, m_condition.signal_one());
        EXPECT_EQ(0, m_mutex.unlock());
        waiter.join();
    }

    MutexImpl m_mutex{false};
    ConditionImpl m_condition{m_mutex};
    bool m_ready = false;
};

TEST_F(ConditionImplTest, signalWakesAWaiter) {
    wakeWaiter([this] { EXPECT_EQ(0, m_condition.wait()); });
}

TEST_F(ConditionImplTest, timedWaitReturnsTimeoutAtTheDeadlineAndNotBefore) {
    ASSERT_EQ(0, m_mutex.lock());
    TimePoint const deadline = TimePoint::now() + Duration(20);
    int result = 0;
    while ((result = m_condition.wait_timeout(deadline)) == 0) {}
    EXPECT_EQ(int{ConditionBase::TIMEOUT}, result);
    EXPECT_GE(TimePoint::now(), deadline);
    EXPECT_EQ(int{ConditionBase::TIMEOUT}, m_condition.wait_timeout(TimePoint(-5)));
    EXPECT_EQ(0, m_mutex.unlock());
}

TEST_F(ConditionImplTest, waitWithoutADeadlineIsAPlainWait) {
    wakeWaiter([this] {
        Fault const plain(inject_pthread_cond_wait, 0);
        EXPECT_EQ(0, m_condition.wait_timeout(TimePoint::MAX));
        EXPECT_EQ(1, plain.getCalls());
    });
}

TEST_F(ConditionImplTest, waitWithoutTheMutexIsAnInconsistency) {
    EXPECT_EQ(int{ConditionBase::ERROR_INCONSISTENCY}, m_condition.wait());
    EXPECT_EQ(EPERM, errno);
}

TEST_F(ConditionImplTest, everyOperationReturnsTheCodeOfItsFailure) {
    ASSERT_EQ(0, m_mutex.lock());
    for (auto const& [error, code] : std::initializer_list<std::pair<int, int>>{
             {ETIMEDOUT, 1}, {EINVAL, -1}, {EPERM, -1}, {EAGAIN, EAGAIN}, {ENOMEM, ENOMEM}}) {
        Fault const wait(inject_pthread_cond_wait, error);
        Fault const timed(inject_pthread_cond_timedwait, error);
        Fault const signal(inject_pthread_cond_signal, error);
        EXPECT_EQ(code, m_condition.wait()) << error;
        EXPECT_EQ(code, m_condition.wait_timeout(TimePoint::now() + Duration(60000))) << error;
        EXPECT_EQ(code, m_condition.signal_one()) << error;
    }
    ASSERT_EQ(0, m_mutex.unlock());
}

// ---- thread-specific storage ----

TEST(TlsImpl, valueBelongsToOneSlotAndOneThread) {
    TlsImpl slot;
    int mine = 0;
    EXPECT_EQ(nullptr, slot.get());
    slot.set(&mine);
    EXPECT_EQ(&mine, slot.get());
    std::thread([&slot] {
        int other = 0;
        EXPECT_EQ(nullptr, slot.get());
        slot.set(&other);
        EXPECT_EQ(&other, slot.get());
    }).join();
    EXPECT_EQ(&mine, slot.get());
    TlsImpl first;
    TlsImpl second;
    int value = 0;
    first.set(&value);
    EXPECT_EQ(nullptr, second.get());
}

TEST(TlsImpl, slotIsReleasedSoThatSlotsAreNeverExhausted) {
    EventRecorder const recorder;
    for (int i = 0; i < 3 * PTHREAD_KEYS_MAX; ++i) {
        TlsImpl slot;
        ASSERT_EQ(nullptr, slot.get());
        slot.set(&slot);
    }
    EXPECT_EQ(0u, recorder.getCount());
}

TEST(TlsImpl, staticSlotTakesAKeyWithItsFirstValue) {
    static TlsImpl slot(threadsafe::CONSTANT_INIT);
    {
        Fault const keys(inject_pthread_key_create, 0);
        EXPECT_EQ(nullptr, slot.get());
        EXPECT_EQ(0, keys.getCalls());
        slot.set(&slot);
        slot.set(&slot);
        EXPECT_EQ(1, keys.getCalls());
    }
    EXPECT_EQ(&slot, slot.get());
    std::thread([] { EXPECT_EQ(nullptr, slot.get()); }).join();
}

// ---- failures that are events ----

/// Constructs an object that is not destroyed, because its construction fails.
template <typename T, typename... Arguments>
void construct(Arguments&&... arguments) {
    alignas(T) unsigned char memory[sizeof(T)];
    new (memory) T(arguments...);
}

/// Destroys an object with a failure, and once more without one.
template <typename T, typename... Arguments>
void destroyTwice(Arguments&&... arguments) {
    T object(arguments...);
    object.~T();
    new (&object) T(arguments...);
}

/// A call that fails, the operation that makes it, and the event without the number of the error.
struct FailureRow : NamedRow {
    Injected* function;
    int error;
    void (*perform)(MutexImpl& mutex);
    std::string event;
};

std::string const SOURCES = " tarncommon/src/threadsafe/";
std::string const NO_MUTEX = "ABORT" + SOURCES + "MutexImpl MutexImpl: error creating mutex";
std::string const NO_CONDITION = "ABORT" + SOURCES + "ConditionImpl ConditionImpl: error creating condition";
auto const constructCondition = [](MutexImpl& mutex) { construct<ConditionImpl>(mutex); };

FailureRow const THREADSAFE_FAILURES[] = {
    {"toCreateAMutex", &inject_pthread_mutex_init, ENOMEM, [](MutexImpl&) { construct<MutexImpl>(false); },
     NO_MUTEX},
    {"toCreateARecursiveMutex", &inject_pthread_mutexattr_init, ENOMEM,
     [](MutexImpl&) { construct<MutexImpl>(true); }, NO_MUTEX},
    {"toDestroyAMutex", &inject_pthread_mutex_destroy, EBUSY,
     [](MutexImpl&) { destroyTwice<MutexImpl>(false); },
     "ASSERT" + SOURCES + "MutexImpl ~MutexImpl: error == 0: destroying mutex failed"},
    {"toInitializeTheAttributesOfACondition", &inject_pthread_condattr_init, ENOMEM, constructCondition,
     NO_CONDITION},
    {"toSetTheClockOfACondition", &inject_pthread_condattr_setclock, ENOMEM, constructCondition,
     NO_CONDITION},
    {"toCreateACondition", &inject_pthread_cond_init, ENOMEM, constructCondition, NO_CONDITION},
    {"toDestroyACondition", &inject_pthread_cond_destroy, EBUSY,
     [](MutexImpl& mutex) { destroyTwice<ConditionImpl>(mutex); },
     "ASSERT" + SOURCES + "ConditionImpl ~ConditionImpl: error == 0: destroying condition failed"},
    {"toCreateASlot", &inject_pthread_key_create, EAGAIN, [](MutexImpl&) { construct<TlsImpl>(); },
     "ABORT" + SOURCES + "TlsImpl TlsImpl: error creating key"},
    {"toStoreAValue", &inject_pthread_setspecific, ENOMEM,
     [](MutexImpl&) {
         TlsImpl slot;
         slot.set(&slot);
     },
     "ABORT" + SOURCES + "TlsImpl set: error storing value"}};

VESK_TEST_TABLE(ThreadsafeFailures, areFatalOrAsserted, testing::Test, THREADSAFE_FAILURES) {
    MutexImpl mutex(false);
    EventRecorder const recorder;
    {
        Fault const fault(*GetParam().function, GetParam().error);
        GetParam().perform(mutex);
    }
    EXPECT_EQ(GetParam().event + " (errno = " + std::to_string(GetParam().error) + ")", recorder.getText());
}

#if defined(TARN_CHECKS_LOCK_ORDER)

/// A lock with a place in the order of the library's locks.
struct OrderedLock : threadsafe::MutexImpl {
    explicit OrderedLock(threadsafe::LockName name, bool recursive = false) : MutexImpl(recursive) {
        setOrderName(name);
    }
};

using threadsafe::LockName;

TEST(LockOrder, wrongOrderEndsTheProcessWithBothNames) {
    struct Row {
        LockName first;
        LockName second;
        char const* message; // Null if the order is right.
    };
    constexpr Row ROWS[] = {
        {LockName::CHILD, LockName::COLLECTOR, nullptr},
        {LockName::COLLECTOR, LockName::CHILD,
         "wrong lock order: CHILD is acquired after COLLECTOR, but must be acquired before it"},
        {LockName::CHILD, LockName::CHILD, "wrong lock order: CHILD is acquired after CHILD"},
        {LockName::SHARED_OBJECT, LockName::SHARED_OBJECT, nullptr},
        {LockName::UNNAMED, LockName::CHILD, nullptr},
        {LockName::TRACE_CHANNELS, LockName::UNNAMED, nullptr},
    };
    for (Row const& row : ROWS) {
        SCOPED_TRACE(row.message != nullptr ? row.message : "right");
        support::ChildEnd const end = support::runInChild([&row] {
            OrderedLock first(row.first);
            OrderedLock second(row.second);
            EXPECT_EQ(0, first.lock());
            EXPECT_EQ(0, second.lock());
            EXPECT_EQ(0, second.unlock());
            EXPECT_EQ(0, first.unlock());
        });
        EXPECT_EQ(row.message != nullptr ? SIGABRT : 0, end.signal) << end.output;
        EXPECT_NE(std::string::npos, end.errors.find(row.message != nullptr ? row.message : ""))
            << end.errors;
    }
}

TEST(LockOrder, releasedLocksDoNotCountAndRecursiveOnesMayBeLockedAgain) {
    OrderedLock late(LockName::COLLECTOR, true);
    OrderedLock early(LockName::CHILD);
    EXPECT_EQ(0, late.lock());
    EXPECT_EQ(0, late.lock());
    EXPECT_EQ(0, late.unlock());
    EXPECT_EQ(0, late.unlock());
    EXPECT_EQ(0, early.lock());
    EXPECT_EQ(0, late.lock());
    EXPECT_EQ(0, early.unlock()) << "in any order";
    EXPECT_EQ(0, late.unlock());
    EXPECT_EQ(0, early.lock());
    EXPECT_EQ(0, early.unlock());
}

#endif

} // namespace
