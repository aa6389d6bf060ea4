#pragma once

#include "support/Sanitizers.h"
#include "support/Testing.h"
#include "support/Threads.h"

#include <vesk/Thread.h>

/// What the tests of threads have in common.
namespace support {

namespace CommonErrorId = std::CommonErrorId;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using vesk::sched::Attr;

/// An event that happens once.
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

/// Sets an event when a scope is left, also by the unwinding of a canceled thread.
class SetAtEnd {
public:
    explicit SetAtEnd(Event& event) noexcept : m_event(event) {}
    ~SetAtEnd() { m_event.set(); }

private:
    Event& m_event;
};

/// Tests that leave detached or terminated threads behind. Waits for the end of these threads, so that they do not
/// outlast the process.
class ThreadsGone : public testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(eventually(areThreadsGone)) << "a thread is left"; }
    static bool areThreadsGone() { return countThreads() <= g_threads_at_start; }
};

#if defined(__SANITIZE_THREAD__)
/// The thread sanitizer no longer watches a thread that is unwound from a system call in which it blocks, except from
/// the wait of a condition. From then on it reports races that do not exist.
constexpr bool WATCHES_CANCELLED_CALLS = false;
#else
constexpr bool WATCHES_CANCELLED_CALLS = true;
#endif

/// Waits until the thread is canceled.
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

/// Any callable as the body of a `Thread`.
using Body = std::function<void()>;
inline void run(void* body) {
    (*static_cast<Body*>(body))();
}
inline void doNothing(void* /*unused*/) {}

/// Starts a thread and joins it.
inline void runToEnd(Thread& thread) {
    ASSERT_TRUE(thread.isValid());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

struct BodyOwner {
    Body body;
};

/// A thread that owns its body. Not for bodies that outlive the object.
class TestThread : private BodyOwner, public Thread {
public:
    explicit TestThread(
        Body callable, char const* name = nullptr, Attr const& attributes = Attr(), bool detached = false)
        : BodyOwner{std::move(callable)}, Thread(run, &body, name, attributes, detached) {}

    void runToEnd() { support::runToEnd(*this); }
    bool isIn(State state) const {
        return eventually([this, state] { return getThreadState() == state; });
    }
};

/// A thread that has been started.
class StartedThread : public TestThread {
public:
    template <typename... Args>
    explicit StartedThread(Args&&... args) : TestThread(std::forward<Args>(args)...) {
        EXPECT_FALSE(start());
    }
};

struct Hold {
    Event ready;
    Event go;
    std::atomic<pid_t> thread{0};
};

/// A thread that is in its body until the test releases it.
class HeldThread : private Hold, public StartedThread {
public:
    explicit HeldThread(Attr const& attributes = Attr())
        : StartedThread(
              [this] {
                  thread = support::getThreadId();
                  ready.set();
                  EXPECT_TRUE(go.wait());
              },
              nullptr, attributes) {
        EXPECT_TRUE(ready.wait());
    }
    ~HeldThread() override { end(); }

    pid_t getId() const { return thread; }
    void release() { go.set(); }
    /// Releases the thread and joins it, if that has not been done.
    void end() {
        release();
        EXPECT_FALSE(getThreadState() != DEAD && join());
    }
};

/// Runs `body` in a thread to its end.
inline void runInThread(Body body) {
    TestThread(std::move(body)).runToEnd();
}

/// Runs `body` with the numbers from 0 on in so many threads of the standard library. Waits for their end.
template <typename Callable>
void runThreads(int count, Callable body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Returns the object of the calling thread.
inline Thread& self() {
    return *static_cast<Thread*>(Thread::s_tls_ctrl_object.get());
}

} // namespace support
