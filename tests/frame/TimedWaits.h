#pragma once

#include "support/Sleeper.h"

#include <vesk/Alarm.h>
#include <vesk/Condition.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/Socket.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Timer.h>

#include <atomic>

/// The waits with a time limit, and the timers, with the clock on which each of them measures its time. The same table
/// is in docs/time.md.

namespace support {

/// When a wait ends that nothing but its limit ends.
enum class Ending { IN_TIME, AT_ANY_TIME, FAILS };

/// A limit that no test waits for.
constexpr long long HALF_AN_HOUR = 1'800'000;

struct TimedWait {
    char const* name;
    bool uses_wall_clock;
    /// Returns 1 when the time has expired, -1 on failure.
    signed char (*run)(long long ms);

    /// Waits, while another thread holds what it waits for.
    void expectTimeout(Ending ending, long long ms = 50) const;
};

inline vesk::ShmMutex const* s_mutex;
inline vesk::RWLock const* s_lock;

/// Returns the end of a wait that takes a deadline on the monotonic clock.
inline vesk::AbsTimeT fromNow(long long ms) {
    long long now = 0;
    EXPECT_FALSE(vesk::Time::getTime(now));
    return vesk::AbsTimeT(now + ms);
}

/// Waits for the calls of a timer.
template <typename AnyTimer>
signed char awaitTimer(long long ms, bool is_periodic) {
    static std::atomic<int> s_calls;
    s_calls = 0;
    AnyTimer timer([](vesk::Timer*) { ++s_calls; });
    timer.start(static_cast<unsigned int>(is_periodic ? ms / 2 : ms), is_periodic);
    return eventually([is_periodic] { return s_calls >= (is_periodic ? 2 : 1); }) ? 1 : -1;
}

struct HighTimer : vesk::Timer {
    explicit HighTimer(void (*callback)(vesk::Timer*)) : vesk::Timer(callback, true) {}
};
struct NormalTimer : vesk::Timer {
    explicit NormalTimer(void (*callback)(vesk::Timer*)) : vesk::Timer(callback, false) {}
};

/// Returns a name that no other process uses.
inline std::string makeName() {
    return "vesk-timed-waits-" + std::to_string(getpid());
}

/// Runs `use` on an empty queue, or one without space.
template <typename Use>
signed char useQueue(bool fills, Use use) {
    vesk::MsgQueueServer queue;
    EXPECT_FALSE(queue.create(makeName().c_str(), 8, 1, vesk::Creatable::REPLACE));
    char text[8] = "message";
    vesk::MsgQueueBase::Message message{text, sizeof text, 0};
    EXPECT_FALSE(fills && queue.writeMsg(&message));
    signed char const result = use(queue, message);
    EXPECT_FALSE(queue.deleteName());
    return result;
}

/// Runs `use` on a thread that runs until it has returned.
template <typename Use>
signed char useThread(Use use) {
    std::atomic<bool> ends{false};
    vesk::Thread thread(
        [](void* flag) {
            while (!*static_cast<std::atomic<bool>*>(flag)) {
                EXPECT_FALSE(vesk::Time::sleep(1));
            }
        },
        &ends);
    EXPECT_FALSE(thread.start());
    signed char const result = use(thread);
    ends = true;
    EXPECT_FALSE(thread.join());
    return result;
}

constexpr TimedWait TIMED_WAITS[] = {
    {"ShmMutex_tryLockTimeout", true, [](long long ms) { return s_mutex->tryLockTimeout(ms); }},
    {"RWLock_tryLockForRead", true,
     [](long long ms) { return s_lock->tryLockForRead(static_cast<unsigned int>(ms)); }},
    {"RWLock_tryLockForWrite", true,
     [](long long ms) { return s_lock->tryLockForWrite(static_cast<unsigned int>(ms)); }},
    {"Semaphore_tryTakeTimeout", true,
     [](long long ms) {
         vesk::SemaphoreCreator semaphore;
         EXPECT_FALSE(semaphore.create(makeName().c_str(), 0, vesk::Creatable::REPLACE));
         signed char const result = semaphore.tryTakeTimeout(ms);
         EXPECT_FALSE(semaphore.deleteName());
         return result;
     }},
    {"MsgQueue_readMsgTimeout", true,
     [](long long ms) {
         return useQueue(
             false, [ms](auto& queue, auto& message) { return queue.readMsgTimeout(&message, ms); });
     }},
    {"MsgQueue_writeMsgTimeout", true,
     [](long long ms) {
         return useQueue(
             true, [ms](auto& queue, auto& message) { return queue.writeMsgTimeout(&message, ms); });
     }},
    {"Thread_joinTimeout", true,
     [](long long ms) { return useThread([ms](vesk::Thread& thread) { return thread.joinTimeout(ms); }); }},
    {"Thread_suspend", false,
     [](long long ms) {
         struct Suspension {
             vesk::Thread* thread;
             long long ms;
             bool has_failed;
         } suspension{nullptr, ms, true};
         vesk::Thread thread(
             [](void* argument) {
                 auto& own = *static_cast<Suspension*>(argument);
                 own.has_failed = own.thread->suspend(own.ms);
             },
             &suspension);
         suspension.thread = &thread;
         EXPECT_FALSE(thread.start());
         EXPECT_FALSE(thread.join());
         return static_cast<signed char>(suspension.has_failed ? -1 : 1);
     }},
    {"Condition_waitTimeout", false,
     [](long long ms) {
         vesk::Mutex mutex;
         vesk::Condition condition;
         vesk::MutexLock const guard(mutex);
         return condition.waitTimeout(mutex, fromNow(ms));
     }},
    {"ShmCondition_waitTimeout", false,
     [](long long ms) {
         vesk::ShmMutex mutex;
         vesk::ShmCondition condition;
         vesk::ShmMutexLock const guard(mutex);
         return condition.waitTimeout(mutex, fromNow(ms));
     }},
    {"Time_sleep", false,
     [](long long ms) { return static_cast<signed char>(vesk::Time::sleep(ms) ? -1 : 1); }},
    {"Socket_selectSockets", false,
     [](long long ms) {
         std::set<vesk::Socket const*> none[3];
         int const ready =
             vesk::Socket::selectSockets(none[0], none[1], none[2], static_cast<unsigned int>(ms), true);
         return static_cast<signed char>(ready == 0 ? 1 : -1);
     }},
    {"Timer_once", false, [](long long ms) { return awaitTimer<NormalTimer>(ms, false); }},
    {"Timer_periodic", false, [](long long ms) { return awaitTimer<NormalTimer>(ms, true); }},
    {"HighTimer_once", false, [](long long ms) { return awaitTimer<HighTimer>(ms, false); }},
    {"HighTimer_periodic", false, [](long long ms) { return awaitTimer<HighTimer>(ms, true); }},
};

inline long long readMonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

inline void TimedWait::expectTimeout(Ending ending, long long ms) const {
    vesk::ShmMutex const mutex;
    vesk::RWLock const lock;
    s_mutex = &mutex;
    s_lock = &lock;
    ASSERT_EQ(0, mutex.lock());
    ASSERT_EQ(0, lock.lockForWrite());
    signed char result = 0;
    long long const before = readMonotonicMs();
    Sleeper([this, ms, &result] { result = run(ms); }).join();
    long long const duration = readMonotonicMs() - before;
    EXPECT_EQ(ending == Ending::FAILS ? -1 : 1, result);
    if (ending == Ending::IN_TIME) {
        EXPECT_LE(ms - 1, duration);
    }
    if (ending != Ending::FAILS) {
        EXPECT_GT(HALF_AN_HOUR, duration);
    }
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_EQ(0, lock.unlock());
}

} // namespace support
