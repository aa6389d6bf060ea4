#pragma once

#include "support/Eventually.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

/// Support for tests of memory that processes share.

namespace support {

/// An object in a mapping that forked children share with the test.
template <typename T>
class SharedObject : tarnbase::NonCopyable {
public:
    template <typename... Args>
    explicit SharedObject(Args&&... args)
        : m_memory(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        m_object = new (m_memory) T(std::forward<Args>(args)...);
    }
    ~SharedObject() {
        m_object->~T();
        munmap(m_memory, sizeof(T));
    }

    T& operator*() const noexcept { return *m_object; }
    T* operator->() const noexcept { return m_object; }

private:
    void* m_memory;
    T* m_object;
};

/// A forked child that runs `body` concurrently with the test. It exits with 0, or with 1 if an expectation
/// failed in it. SIGALRM ends it after a minute. The destructor kills a child that still runs.
class Process {
public:
    template <typename Body>
    explicit Process(Body&& body) {
        fflush(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            alarm(60);
            body();
            fflush(nullptr);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    }
    Process(Process&& other) noexcept : m_pid(std::exchange(other.m_pid, -1)) {}
    Process& operator=(Process&&) = delete;
    ~Process() { kill(); }

    pid_t getId() const noexcept { return m_pid; }

    /// Waits for the end of the child. Returns its exit code, or -1 if a signal ended it.
    int join() noexcept {
        int status = 0;
        while (m_pid > 0 && waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {}
        bool const exited = m_pid > 0 && WIFEXITED(status);
        m_signal = m_pid > 0 && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        m_pid = -1;
        return exited ? WEXITSTATUS(status) : -1;
    }

    /// Returns the signal that ended the joined child, or 0.
    int getSignal() const noexcept { return m_signal; }

    /// Ends the child with SIGKILL and reaps it. Does nothing if it has been reaped.
    void kill() noexcept {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            join();
        }
    }

private:
    pid_t m_pid = -1;
    int m_signal = 0;
};

/// A child that has run `prepare` when the constructor returns. Then it calls `go_on` until it is killed.
class PreparedChild : public Process {
public:
    template <typename Prepare, typename GoOn>
    PreparedChild(
        Prepare const& prepare, GoOn const& go_on,
        SharedObject<std::atomic<bool>> const& is_ready = SharedObject<std::atomic<bool>>(false))
        : Process([&] {
              prepare();
              *is_ready = true;
              for (;;) {
                  go_on();
              }
          }) {
        EXPECT_TRUE(eventually([&] { return is_ready->load(); }));
    }
};

/// Returns one field of a thread's `stat` line in /proc, counted from 1 as in proc(5); 3 is the state.
/// Returns an empty text if the thread has ended.
inline std::string threadField(pid_t process, pid_t thread, int field) {
    std::string const path = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/stat";
    FILE* const file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return {};
    }
    char line[1024];
    size_t const length = fread(line, 1, sizeof line - 1, file);
    fclose(file);
    line[length] = '\0';
    char const* at = strrchr(line, ')'); // The name before it may contain any character.
    for (int i = 2; at != nullptr && i < field; ++i) {
        at = strchr(at + 1, ' ');
    }
    return at == nullptr ? std::string() : std::string(at + 1, strcspn(at + 1, " \n"));
}

/// Yields until a thread sleeps in the kernel or has ended. Detects that a thread which announced a wait has
/// reached it. Valid only where nothing else makes the thread sleep between the announcement and the wait.
inline void waitUntilAsleep(pid_t process, pid_t thread) {
    for (;;) {
        std::string const state = threadField(process, thread, 3);
        if (state.empty() || state == "S") {
            return;
        }
        sched_yield();
    }
}

} // namespace support
