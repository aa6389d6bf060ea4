#pragma once

#include "support/Threads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <sched.h>
#include <utility>
#include <vector>

/// What tests of signals need.

namespace support {

constexpr std::chrono::seconds DEADLINE(30);

/// Gives way until a condition holds. False if it does not come to hold in a time that is far beyond any good run.
template <typename Condition>
bool waitUntil(Condition condition) {
    auto const deadline = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        sched_yield();
    }
    return true;
}

/// Whether code of the library lies at an address. A sanitizer's runtime calls replaced functions for itself as well.
inline bool isOfLibrary(void const* address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 && strstr(info.dli_fname, "libvesk.so") != nullptr;
}

/// The calls of a callback, in order.
class CallLog {
public:
    struct Call {
        int signal;
        pid_t thread;
    };

    /// The callback; its data is the log.
    static void record(int signal, void* log) {
        auto& self = *static_cast<CallLog*>(log);
        std::lock_guard<std::mutex> const guard(self.m_mutex);
        self.m_calls.push_back({signal, getThreadId()});
        self.m_changed.notify_all();
    }

    /// Waits for so many calls. False if they do not come.
    bool waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, DEADLINE, [&] { return m_calls.size() >= count; });
    }

    size_t getCount() const { return getCalls().size(); }
    std::vector<Call> getCalls() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_calls;
    }
    std::vector<int> getSignals() const {
        std::vector<int> signals;
        for (Call const& call : getCalls()) {
            signals.push_back(call.signal);
        }
        return signals;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Call> m_calls;
};

/// Sets the action of a signal, and puts the one before it back at the end.
class ActionGuard {
public:
    explicit ActionGuard(int signal) : m_signal(signal) {
        EXPECT_EQ(0, sigaction(signal, nullptr, &m_before));
    }
    ActionGuard(int signal, void (*handler)(int), int flags = 0) : m_signal(signal) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        EXPECT_EQ(0, sigaction(signal, &action, &m_before));
    }
    ~ActionGuard() { EXPECT_EQ(0, sigaction(m_signal, &m_before, nullptr)); }

    ActionGuard(ActionGuard const&) = delete;
    ActionGuard& operator=(ActionGuard const&) = delete;

private:
    int m_signal;
    struct sigaction m_before {};
};

/// All signals that a process can catch. They are ignored while it lives, so that one that nobody catches does no harm.
class CatchableSignals {
public:
    CatchableSignals() {
        for (int signal = 1; signal <= SIGRTMAX; ++signal) {
            bool const between = signal > 31 && signal < SIGRTMIN; // Belongs to libc.
            if (signal == SIGKILL || signal == SIGSTOP || between) {
                continue;
            }
            auto guard = std::make_unique<ActionGuard>(signal, SIG_IGN);
            // An emulator may have fewer of them than it admits.
            if (raise(signal) == 0) {
                m_guards.push_back(std::move(guard));
                m_signals.push_back(signal);
            }
        }
#if !defined(__arm__)
        EXPECT_EQ(60u, m_signals.size());
#endif
    }

    std::vector<int> const& get() const {
        return m_signals;
    }

private:
    std::vector<std::unique_ptr<ActionGuard>> m_guards;
    std::vector<int> m_signals;
};

/// The action of a signal now.
inline struct sigaction getAction(int signal) {
    struct sigaction action {};
    EXPECT_EQ(0, sigaction(signal, nullptr, &action));
    return action;
}

} // namespace support
