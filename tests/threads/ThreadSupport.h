#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <dirent.h>
#include <sched.h>
#include <unistd.h>

/// What the tests of threads have in common.
namespace support {

/// Waits until something is so, at most two minutes. It takes no lock, so it is in no fault's way, and it is no
/// cancellation point, so a body that waits here goes on when its thread is terminated.
template <typename Condition>
bool eventually(Condition condition) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    time_t const end = now.tv_sec + 120;
    while (!condition()) {
        sched_yield();
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > end) {
            return false;
        }
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

/// How many threads the process has, as the system sees it.
inline int countThreads() {
    DIR* const directory = opendir("/proc/self/task");
    if (directory == nullptr) {
        return -1;
    }
    int count = -2; // "." and ".."
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

/// Tests that leave detached or terminated threads behind wait for their end here, so that the process does not end
/// under them.
class ThreadsGone : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_TRUE(eventually([this] { return areThreadsGone(); })) << "a thread is left";
    }
    bool areThreadsGone() const { return countThreads() <= m_before; }

private:
    int m_before = countThreads();
};

/// A body that ends at its next cancellation point.
[[noreturn]] inline void waitForCancellation() {
    for (;;) {
        pause();
    }
}

} // namespace support
