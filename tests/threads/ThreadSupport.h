#pragma once

#include "support/Sanitizers.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

/// What the tests of threads have in common.
namespace support {

/// Waits until something is so, at most about two minutes. It takes no lock, so it is in no fault's way, and it is no
/// cancellation point, so a body that waits here goes on when its thread is terminated.
template <typename Condition>
bool eventually(Condition condition) {
    constexpr int IMPATIENT_ROUNDS = 200;
    constexpr int ROUNDS = 1200000;
    for (int round = 0; !condition(); ++round) {
        if (round < IMPATIENT_ROUNDS) {
            sched_yield();
            continue;
        }
        if (round == ROUNDS) {
            return false;
        }
        // Lets those run that a real-time thread would not.
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        timespec const little{0, 100000};
        nanosleep(&little, nullptr);
        pthread_setcancelstate(before, nullptr);
    }
    return true;
}

/// Something that happens once.
class Event {
public:
    void set() noexcept { m_set = true; }
    bool isSet() const noexcept { return m_set; }
    bool wait() const {
        return eventually([this] { return m_set.load(); });
    }

private:
    std::atomic<bool> m_set{false};
};

/// Tells that a scope was left, also by the unwinding of a cancelled thread.
class SetAtEnd {
public:
    explicit SetAtEnd(Event& event) noexcept : m_event(event) {}
    ~SetAtEnd() { m_event.set(); }

private:
    Event& m_event;
};

/// Waits until the process has so many threads: one that was joined may be seen for another moment.
inline testing::AssertionResult hasThreads(int count) {
    if (eventually([count] { return countThreads() == count; })) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << countThreads() << " threads instead of " << count;
}

/// Tests that leave detached or terminated threads behind wait for their end here, so that the process does not end
/// under them.
class ThreadsGone : public testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(eventually(areThreadsGone)) << "a thread is left"; }
    static bool areThreadsGone() { return countThreads() <= g_threads_at_start; }
};

#if defined(__SANITIZE_THREAD__)
/// The thread sanitizer loses sight of a thread that is unwound from a system call in which it blocks, except from the
/// wait of a condition, and sees races from then on where there are none.
constexpr bool WATCHES_CANCELLED_CALLS = false;
#else
constexpr bool WATCHES_CANCELLED_CALLS = true;
#endif

/// A body that ends when it is cancelled.
[[noreturn]] inline void waitForCancellation() {
    for (;;) {
        if constexpr (WATCHES_CANCELLED_CALLS) {
            pause();
        } else {
            pthread_testcancel();
            sched_yield();
        }
    }
}

} // namespace support
