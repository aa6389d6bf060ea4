#include "support/Chain.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/Mutex.h>
#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> g_type{-1};
std::atomic<int> g_protocol{-1};
std::atomic<int> g_shared{-1};

int note(std::atomic<int>& to, int value) {
    to = value;
    return value;
}

} // namespace

VESK_INJECT_RESULT(pthread_mutexattr_settype, (pthread_mutexattr_t * a, int type), (a, note(g_type, type)))
VESK_INJECT_RESULT(
    pthread_mutexattr_setprotocol, (pthread_mutexattr_t * a, int protocol), (a, note(g_protocol, protocol)))
VESK_INJECT_RESULT(
    pthread_mutexattr_setpshared, (pthread_mutexattr_t * a, int shared), (a, note(g_shared, shared)))
VESK_INJECT_RESULT(pthread_mutex_init, (pthread_mutex_t * m, pthread_mutexattr_t const* a), (m, a))
VESK_INJECT_RESULT(pthread_mutex_destroy, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_trylock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_mutex_timedlock, (pthread_mutex_t * m, timespec const* t), (m, t))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * m), (m))

namespace {

using support::chainIs;
using support::Fault;
using support::Process;
using support::rowText;
using support::SharedObject;
using support::systemText;
using vesk::Mutex;
using vesk::ShmMutex;
using vesk::ShmMutexLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

constexpr bool RECURSIVE = true;
constexpr bool INHERIT = true;

/// What the processes of a test share.
struct Shared {
    Shared() = default;
    Shared(bool recursive, bool inherit) : mutex(recursive, inherit) {}

    ShmMutex mutex;
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    std::atomic<bool> locked{false};
    volatile int counter = 0; // Not atomic: only the lock makes the sum right.
};

void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
}

// ---- creation ----

TEST(ShmMutex, familyIsThatOfMutex) {
    EXPECT_EQ(&Mutex::Error, &ShmMutex::Error);
}

TEST(ShmMutex, formsAreMadeForProcesses) {
    for (bool const recursive : {false, true}) {
        for (bool const inherit : {false, true}) {
            g_type = g_protocol = g_shared = -1;
            ShmMutex const mutex(recursive, inherit);
            EXPECT_TRUE(mutex.isValid());
            EXPECT_EQ(recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT, g_type);
            EXPECT_EQ(inherit ? PTHREAD_PRIO_INHERIT : -1, g_protocol);
            EXPECT_EQ(PTHREAD_PROCESS_SHARED, g_shared);
            EXPECT_FALSE(mutex.lock());
            EXPECT_FALSE(mutex.unlock());
            EXPECT_TRUE(chainIs({}));
        }
    }
}

TEST(ShmMutex, isPlainUnlessToldOtherwise) {
    g_type = g_protocol = -1;
    ShmMutex const mutex;
    EXPECT_EQ(PTHREAD_MUTEX_DEFAULT, g_type);
    EXPECT_EQ(-1, g_protocol);
}

TEST(ShmMutex, lockThatCannotBeMadeIsInvalidAndNotDestroyed) {
    Fault const destroyed(inject_pthread_mutex_destroy, 0);
    {
        std::optional<Fault> fault(std::in_place, inject_pthread_mutex_init, EAGAIN);
        ShmMutex const mutex;
        fault.reset();
        EXPECT_FALSE(mutex.isValid());
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EAGAIN))}}));
    EXPECT_EQ(0, destroyed.getCalls());
}

TEST(ShmMutex, lockThatCannotBeDestroyedLeavesItsReport) {
    Fault const fault(inject_pthread_mutex_destroy, EBUSY);
    { ShmMutex const mutex; }
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EBUSY))}}));
}

// ---- failures ----

struct Row {
    char const* name;
    support::Injected* function;
    int (*operation)(ShmMutex const&);
    int error;
    int result;
    int id; // -1: no report
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

int lock(ShmMutex const& mutex) {
    return mutex.lock() ? 1 : 0;
}
int tryLock(ShmMutex const& mutex) {
    return mutex.tryLock();
}
int tryLockTimeout(ShmMutex const& mutex) {
    return mutex.tryLockTimeout(1000);
}
int unlock(ShmMutex const& mutex) {
    return mutex.unlock() ? 1 : 0;
}

class ShmMutexRows : public testing::TestWithParam<Row> {};

TEST_P(ShmMutexRows, reports) {
    Row const& row = GetParam();
    ShmMutex const mutex;
    ASSERT_FALSE(mutex.lock());
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    int result = 0;
    {
        Fault const fault(*row.function, row.error);
        result = row.operation(mutex);
    }
    EXPECT_EQ(row.result, result);
    if (row.id < 0) {
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "no report leaves what was pending";
    } else {
        EXPECT_TRUE(
            chainIs({{ShmMutex::Error, row.id, rowText(ShmMutex::Error, row.id, systemText(row.error))}}));
    }
    EXPECT_FALSE(mutex.unlock()) << "a failure changes nothing about the lock";
}

INSTANTIATE_TEST_SUITE_P(
    All, ShmMutexRows,
    testing::Values(
        Row{"lock", &inject_pthread_mutex_lock, lock, EPERM, 1, 3},
        Row{"lock", &inject_pthread_mutex_lock, lock, EBUSY, 1, 3},
        Row{"lock", &inject_pthread_mutex_lock, lock, EINVAL, 1, 3},
        Row{"lock", &inject_pthread_mutex_lock, lock, EDEADLK, 1, 3},
        Row{"lock", &inject_pthread_mutex_lock, lock, EAGAIN, 1, 1},
        Row{"trylock", &inject_pthread_mutex_trylock, tryLock, EBUSY, 1, -1},
        Row{"trylock", &inject_pthread_mutex_trylock, tryLock, EPERM, -1, 3},
        Row{"trylock", &inject_pthread_mutex_trylock, tryLock, EINVAL, -1, 3},
        Row{"trylock", &inject_pthread_mutex_trylock, tryLock, EDEADLK, -1, 3},
        Row{"trylock", &inject_pthread_mutex_trylock, tryLock, EAGAIN, -1, 1},
        Row{"timedlock", &inject_pthread_mutex_timedlock, tryLockTimeout, ETIMEDOUT, 1, -1},
        Row{"timedlock", &inject_pthread_mutex_timedlock, tryLockTimeout, EDEADLK, -1, 3},
        Row{"timedlock", &inject_pthread_mutex_timedlock, tryLockTimeout, EPERM, -1, 1},
        Row{"unlock", &inject_pthread_mutex_unlock, unlock, EPERM, 1, 3},
        Row{"unlock", &inject_pthread_mutex_unlock, unlock, EINVAL, 1, 3},
        Row{"unlock", &inject_pthread_mutex_unlock, unlock, EBUSY, 1, 2}));

// ---- between threads ----

TEST(ShmMutex, recursiveOneIsFreeAfterAsManyUnlocks) {
    ShmMutex const mutex(RECURSIVE);
    EXPECT_FALSE(mutex.lock());
    EXPECT_FALSE(mutex.lock());
    EXPECT_EQ(0, mutex.tryLock());
    EXPECT_EQ(0, mutex.tryLockTimeout(0));
    for (int i = 0; i < 4; ++i) {
        std::thread([&mutex] { EXPECT_EQ(1, mutex.tryLock()); }).join();
        EXPECT_FALSE(mutex.unlock());
    }
    std::thread([&mutex] {
        EXPECT_EQ(0, mutex.tryLock());
        EXPECT_FALSE(mutex.unlock());
    }).join();
}

TEST(ShmMutex, recursiveOneChecksItsOwner) {
    ShmMutex const mutex(RECURSIVE);
    ASSERT_FALSE(mutex.lock());
    std::thread([&mutex] {
        EXPECT_TRUE(mutex.unlock());
        EXPECT_TRUE(chainIs(
            {{ShmMutex::ErrorId::INCONSISTENT,
              rowText(ShmMutex::ErrorId::INCONSISTENT, systemText(EPERM))}}));
    }).join();
    EXPECT_FALSE(mutex.unlock());
}

/// Runs `body` in a thread with a real-time priority; false if the system does not allow that.
template <typename Body>
bool runUrgent(std::optional<std::thread>& thread, int priority, Body body) {
    std::atomic<int> allowed{-1};
    thread.emplace([&allowed, priority, body] {
        sched_param parameters{};
        parameters.sched_priority = priority;
        bool const set = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
        allowed = set ? 1 : 0;
        if (set) {
            body();
        }
    });
    while (allowed < 0) {
        sched_yield();
    }
    if (allowed == 0) {
        thread->join();
        thread.reset();
    }
    return allowed == 1;
}

TEST(ShmMutex, ownerInheritsThePriorityOfTheMostUrgentWaiter) {
    ShmMutex const mutex(!RECURSIVE, INHERIT);
    ASSERT_TRUE(mutex.isValid());
    ASSERT_FALSE(mutex.lock());
    pid_t const process = getpid();
    pid_t const owner = gettid();
    std::string const before = support::threadField(process, owner, 18);
    std::atomic<pid_t> waiting{0};
    std::optional<std::thread> waiter;
    bool const allowed = runUrgent(waiter, 7, [&] {
        waiting = gettid();
        EXPECT_FALSE(mutex.lock());
        EXPECT_FALSE(mutex.unlock());
    });
    if (!allowed) {
        EXPECT_FALSE(mutex.unlock());
        GTEST_SKIP() << "real-time scheduling is not allowed here";
    }
    while (waiting == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(process, waiting);
    // The kernel shows real-time priority 7 as -8.
    EXPECT_EQ("-8", support::threadField(process, owner, 18));
    EXPECT_FALSE(mutex.unlock());
    waiter->join();
    EXPECT_EQ(before, support::threadField(process, owner, 18));
}

// ---- between processes ----

struct Form {
    bool recursive;
    bool inherit;
};

void PrintTo(Form const& form, std::ostream* out) {
    *out << (form.recursive ? "recursive" : "plain") << (form.inherit ? ", inherits priority" : "");
}

class ShmMutexForms : public testing::TestWithParam<Form> {};

TEST_P(ShmMutexForms, processesStayOutOfEachOthersWay) {
    constexpr int PROCESSES = 4;
    constexpr int ROUNDS = 5000;
    SharedObject<Shared> const shared(GetParam().recursive, GetParam().inherit);
    ASSERT_TRUE(shared->mutex.isValid());
    std::vector<Process> processes;
    for (int i = 0; i < PROCESSES; ++i) {
        processes.emplace_back([&shared] {
            await(shared->go);
            for (int round = 0; round < ROUNDS; ++round) {
                ShmMutexLock const lock(shared->mutex);
                shared->counter = shared->counter + 1;
            }
        });
    }
    shared->go = true;
    for (Process& process : processes) {
        EXPECT_EQ(0, process.join());
    }
    EXPECT_EQ(PROCESSES * ROUNDS, shared->counter);
}

TEST_P(ShmMutexForms, triesFindWhatAnotherProcessHoldsBusy) {
    SharedObject<Shared> const shared(GetParam().recursive, GetParam().inherit);
    Process holder([&shared] {
        EXPECT_FALSE(shared->mutex.lock());
        shared->ready = true;
        await(shared->go);
        EXPECT_FALSE(shared->mutex.unlock());
    });
    await(shared->ready);
    EXPECT_EQ(1, shared->mutex.tryLock());
    EXPECT_EQ(1, shared->mutex.tryLockTimeout(0));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, shared->mutex.tryLockTimeout(20));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
    EXPECT_TRUE(chainIs({})) << "busy is no failure";
    shared->go = true;
    EXPECT_EQ(0, shared->mutex.tryLockTimeout(60000));
    EXPECT_FALSE(shared->mutex.unlock());
    EXPECT_EQ(0, holder.join());
}

TEST_P(ShmMutexForms, waitsForAnotherProcessToLetGo) {
    SharedObject<Shared> const shared(GetParam().recursive, GetParam().inherit);
    ASSERT_FALSE(shared->mutex.lock());
    Process waiter([&shared] {
        shared->ready = true;
        EXPECT_FALSE(shared->mutex.lock());
        shared->locked = true;
        EXPECT_FALSE(shared->mutex.unlock());
    });
    await(shared->ready);
    support::waitUntilAsleep(waiter.getId(), waiter.getId());
    EXPECT_FALSE(shared->locked);
    EXPECT_FALSE(shared->mutex.unlock());
    EXPECT_EQ(0, waiter.join());
    EXPECT_TRUE(shared->locked);
}

TEST_P(ShmMutexForms, outliveAProcessThatDiesWithoutHoldingThem) {
    SharedObject<Shared> const shared(GetParam().recursive, GetParam().inherit);
    // One that has used it and one that waits for it.
    Process user([&shared] {
        EXPECT_FALSE(shared->mutex.lock());
        EXPECT_FALSE(shared->mutex.unlock());
        shared->ready = true;
        await(shared->go);
    });
    await(shared->ready);
    user.kill();
    ASSERT_EQ(0, shared->mutex.tryLock());
    shared->ready = false;
    Process waiter([&shared] {
        shared->ready = true;
        shared->mutex.lock();
    });
    await(shared->ready);
    support::waitUntilAsleep(waiter.getId(), waiter.getId());
    waiter.kill();
    EXPECT_FALSE(shared->mutex.unlock());
    EXPECT_FALSE(shared->mutex.lock());
    EXPECT_FALSE(shared->mutex.unlock());
    EXPECT_EQ(0, Process([&shared] {
                     EXPECT_EQ(0, shared->mutex.tryLock());
                     EXPECT_FALSE(shared->mutex.unlock());
                 }).join());
}

INSTANTIATE_TEST_SUITE_P(
    All, ShmMutexForms,
    testing::Values(
        Form{!RECURSIVE, !INHERIT}, Form{RECURSIVE, !INHERIT}, Form{!RECURSIVE, INHERIT},
        Form{RECURSIVE, INHERIT}));

} // namespace
