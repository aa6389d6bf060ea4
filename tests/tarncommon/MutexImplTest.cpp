#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/threadsafe/MutexImpl.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <string>
#include <thread>

VESK_INJECT_RESULT(pthread_mutexattr_init, (pthread_mutexattr_t * a), (a))
VESK_INJECT_RESULT(pthread_mutex_init, (pthread_mutex_t * m, pthread_mutexattr_t const* a), (m, a))
VESK_INJECT_RESULT(pthread_mutex_destroy, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))

namespace {

using support::EventRecorder;
using support::Fault;
using threadsafe::MutexBase;
using threadsafe::MutexImpl;

TEST(MutexImpl, locksAndUnlocks) {
    MutexImpl mutex(false);
    EXPECT_EQ(0, mutex.lock());
    EXPECT_EQ(0, mutex.unlock());
}

TEST(MutexImpl, unlockingWhatAnotherThreadHoldsIsAnInconsistency) {
    MutexImpl mutex(false);
    ASSERT_EQ(0, mutex.lock());
    std::thread([&mutex] {
        EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, mutex.unlock());
        EXPECT_EQ(EPERM, errno);
    }).join();
    EXPECT_EQ(0, mutex.unlock());
}

TEST(MutexImpl, lockingTwiceIsAnInconsistencyUnlessItIsRecursive) {
    MutexImpl mutex(false);
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
}

TEST(MutexImpl, otherFailuresKeepTheirNumber) {
    MutexImpl mutex(false);
    int locked = 0;
    int unlocked = 0;
    {
        Fault const lock_fault(inject_pthread_mutex_lock, EAGAIN);
        locked = mutex.lock();
    }
    ASSERT_EQ(0, mutex.lock());
    {
        Fault const unlock_fault(inject_pthread_mutex_unlock, EINVAL);
        unlocked = mutex.unlock();
    }
    ASSERT_EQ(0, mutex.unlock());
    EXPECT_EQ(EAGAIN, locked);
    EXPECT_EQ(int{MutexBase::ERROR_INCONSISTENCY}, unlocked);
}

TEST(MutexImpl, beingUnableToCreateItIsFatal) {
    EventRecorder const recorder;
    alignas(MutexImpl) unsigned char memory[sizeof(MutexImpl)]; // Not destroyed: there is nothing to destroy.
    {
        Fault const fault(inject_pthread_mutex_init, ENOMEM);
        new (memory) MutexImpl(false);
    }
    {
        Fault const fault(inject_pthread_mutexattr_init, ENOMEM);
        new (memory) MutexImpl(true);
    }
    std::string const line =
        "ABORT tarncommon/src/threadsafe/MutexImpl MutexImpl: error creating mutex (errno = " +
        std::to_string(ENOMEM) + ")";
    EXPECT_EQ(line + "\n" + line, recorder.getText());
}

TEST(MutexImpl, destroyingAHeldOneIsAsserted) {
    EventRecorder const recorder;
    {
        MutexImpl const mutex(false);
        Fault const fault(inject_pthread_mutex_destroy, EBUSY);
        mutex.~MutexImpl();
        new (const_cast<MutexImpl*>(&mutex)) MutexImpl(false);
    }
    EXPECT_EQ(
        "ASSERT tarncommon/src/threadsafe/MutexImpl ~MutexImpl: error == 0: destroying mutex failed (errno "
        "= " +
            std::to_string(EBUSY) + ")",
        recorder.getText());
}

} // namespace
