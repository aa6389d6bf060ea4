#pragma once

#include "support/Processes.h"
#include "support/Threads.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <functional>

namespace support {

/// Runs `body` in a thread, and can wait until this thread sleeps in a system call. The destructor joins the
/// thread.
class Sleeper : tarnbase::NonCopyable {
public:
    explicit Sleeper(std::function<void()> body) : m_body(std::move(body)) {
        EXPECT_EQ(0, pthread_create(&m_thread, nullptr, run, this));
    }
    ~Sleeper() { join(); }

    /// Waits until the thread sleeps in the wait that it enters next.
    void awaitSleep() const {
        EXPECT_TRUE(eventually([this] { return m_id != 0; }));
        waitUntilAsleep(getpid(), m_id);
    }
    /// Returns whether `body` has returned.
    bool isDone() const { return m_is_done; }
    void kill(int signal) { EXPECT_EQ(0, pthread_kill(m_thread, signal)); }
    void cancel() { EXPECT_EQ(0, pthread_cancel(m_thread)); }
    /// Returns `PTHREAD_CANCELED` if the thread was canceled.
    void* join() {
        if (!m_is_joined) {
            EXPECT_EQ(0, pthread_join(m_thread, &m_result));
            m_is_joined = true;
        }
        return m_result;
    }

private:
    static void* run(void* self) {
        auto& sleeper = *static_cast<Sleeper*>(self);
        sleeper.m_id = getThreadId();
        sleeper.m_body();
        sleeper.m_is_done = true;
        return nullptr;
    }

    std::function<void()> m_body;
    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_is_done{false};
    pthread_t m_thread{};
    void* m_result = nullptr;
    bool m_is_joined = false;
};

/// A thread that sleeps in `body` when its constructor returns.
class SleepingThread : public Sleeper {
public:
    explicit SleepingThread(std::function<void()> body) : Sleeper(std::move(body)) { awaitSleep(); }
};

} // namespace support
