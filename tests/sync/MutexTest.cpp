#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/Mutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <thread>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::chainIs;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::Mutex;

TEST(Mutex, rowsHaveTheirTexts) {
    char const* const texts[] = {
        "Mutex creation failed: %s",
        "Mutex lock failed: %s",
        "Mutex unlock failed: %s",
        "Mutex inconsistency detected: %s",
    };
    int id = 0;
    for (char const* text : texts) {
        ASSERT_NE(nullptr, Mutex::Error.getRow(id));
        EXPECT_STREQ(text, Mutex::Error.getRow(id)->format);
        EXPECT_EQ(1, Mutex::Error.getRow(id)->nargs);
        ++id;
    }
    EXPECT_EQ(nullptr, Mutex::Error.getRow(id));
}

TEST(Mutex, locksAndUnlocksWithoutAReport) {
    Mutex mutex;
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(chainIs({}));
}

TEST(Mutex, lockingTwiceIsAnInconsistencyAndKeepsTheLock) {
    Mutex mutex;
    ASSERT_FALSE(mutex.lock());
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(chainIs(
        {{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EDEADLK))}}));
    EXPECT_FALSE(mutex.unlock());
}

TEST(Mutex, unlockingWhatNobodyHoldsIsAnInconsistency) {
    Mutex mutex;
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(
        chainIs({{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EPERM))}}));
}

TEST(Mutex, unlockingWhatAnotherThreadHoldsIsAnInconsistency) {
    Mutex mutex;
    ASSERT_FALSE(mutex.lock());
    std::thread([&mutex] {
        EXPECT_TRUE(mutex.unlock());
        EXPECT_TRUE(chainIs(
            {{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EPERM))}}));
    }).join();
    EXPECT_FALSE(mutex.unlock());
}

TEST(Mutex, recursiveOneIsFreeAfterAsManyUnlocks) {
    Mutex mutex(true);
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.unlock());
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(chainIs({{Mutex::ErrorId::INCONSISTENT}}));
}

TEST(Mutex, familyDerivesFromTheSystemFamily) {
    Mutex mutex;
    ASSERT_TRUE(mutex.unlock());
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    EXPECT_TRUE(std::ErrorStorage::isA(Mutex::Error));
}

TEST(Mutex, keepsThreadsOutOfEachOthersWay) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 20000;
    Mutex mutex;
    int counter = 0; // Not atomic: only the lock makes the sum right.
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::MutexLock const lock(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * ROUNDS, counter);
}

struct Row {
    int error;
    int id;
};

class MutexLockRows : public testing::TestWithParam<Row> {};

TEST_P(MutexLockRows, reports) {
    Mutex mutex;
    bool failed = false;
    {
        Fault const fault(inject_pthread_mutex_lock, GetParam().error);
        failed = mutex.lock();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs(
        {{Mutex::Error, GetParam().id, rowText(Mutex::Error, GetParam().id, systemText(GetParam().error))}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, MutexLockRows,
    testing::Values(Row{EDEADLK, 3}, Row{EINVAL, 3}, Row{EPERM, 3}, Row{EAGAIN, 1}, Row{ENOTRECOVERABLE, 1}));

class MutexUnlockRows : public testing::TestWithParam<Row> {};

TEST_P(MutexUnlockRows, reports) {
    Mutex mutex;
    ASSERT_FALSE(mutex.lock());
    bool failed = false;
    {
        Fault const fault(inject_pthread_mutex_unlock, GetParam().error);
        failed = mutex.unlock();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs(
        {{Mutex::Error, GetParam().id, rowText(Mutex::Error, GetParam().id, systemText(GetParam().error))}}));
    EXPECT_FALSE(mutex.unlock()) << "a failed unlock leaves the lock held";
}

INSTANTIATE_TEST_SUITE_P(
    All, MutexUnlockRows, testing::Values(Row{EPERM, 3}, Row{EINVAL, 3}, Row{EDEADLK, 3}, Row{EAGAIN, 2}));

} // namespace
