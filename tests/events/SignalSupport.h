#pragma once

#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "support/Sleeper.h"
#include "support/Testing.h"

#include <vesk/SignalQueue.h>

#include <chrono>
#include <condition_variable>
#include <dlfcn.h>

/// Support for tests of signals and self-pipes. Must be included in exactly one file of a test program,
/// because it replaces `pipe` and `close`.

namespace support {

constexpr std::chrono::seconds DEADLINE(30);

/// The last pipe that the library made, and how many it has made.
inline int s_pipe[2] = {-1, -1};
inline std::atomic<int> s_pipes{0};

/// The descriptors that were closed, if it is set.
inline std::vector<int>* s_closed = nullptr;
inline void noteClosed(int fd) {
    if (s_closed != nullptr) {
        s_closed->push_back(fd);
    }
}

/// Returns whether code of the library is at an address. A sanitizer's runtime calls replaced functions too.
inline bool isOfLibrary(void const* address) {
#ifdef VESK_STATIC_LIBRARIES
    return address != nullptr;
#else
    Dl_info info{};
    return dladdr(address, &info) != 0 && strstr(info.dli_fname, "libvesk.so") != nullptr;
#endif
}

} // namespace support

support::Injected inject_pipe("pipe");
extern "C" VESK_UNWATCHED int pipe(int* ends) {
    auto const real = reinterpret_cast<int (*)(int*)>(inject_pipe.getReal());
    if (!support::isOfLibrary(__builtin_return_address(0))) {
        return real(ends);
    }
    if (inject_pipe.fails()) {
        return -1;
    }
    int const result = real(ends);
    support::s_pipe[0] = ends[0];
    support::s_pipe[1] = ends[1];
    ++support::s_pipes;
    return result;
}

VESK_INJECT_NOTING(int, -1, close, (int fd), (fd), support::noteClosed(fd))

namespace support {

/// Runs `body` in a thread that is canceled at its first cancellation point. Returns whether it found one.
inline bool isCanceled(std::function<void()> const& body) {
    struct Canceled {
        std::function<void()> const& body;
        std::atomic<bool> completed{false};
    } canceled{body, {false}};
    pthread_t thread{};
    auto const run = [](void* argument) -> void* {
        auto& self = *static_cast<Canceled*>(argument);
        pthread_cancel(pthread_self());
        self.body();
        self.completed = true;
        pthread_testcancel();
        return nullptr;
    };
    EXPECT_EQ(0, pthread_create(&thread, nullptr, run, &canceled));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    return !canceled.completed;
}

/// Records the calls of a callback, in order.
class CallLog {
public:
    struct Call {
        int signal;
        pid_t thread;
    };

    /// The callback. Its data is the log.
    static void record(int signal, void* log) {
        auto& self = *static_cast<CallLog*>(log);
        std::lock_guard<std::mutex> const guard(self.m_mutex);
        self.m_calls.push_back({signal, getThreadId()});
        self.m_changed.notify_all();
    }

    /// Waits for so many calls. Returns false if they do not arrive within the deadline.
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

/// A callback with a body.
struct Callback {
    /// The callback. Its data is the object.
    static void run(int signal, void* data) { static_cast<Callback*>(data)->body(signal); }

    std::function<void(int signal)> body;
};

/// A callback that waits until it is released, and records its calls then.
struct HeldCallback {
    /// The callback. Its data is the object.
    static void run(int signal, void* data) {
        auto& self = *static_cast<HeldCallback*>(data);
        self.entered = true;
        EXPECT_TRUE(eventually([&] { return self.released.load(); }));
        CallLog::record(signal, &self.log);
    }
    void awaitEntry() const {
        EXPECT_TRUE(eventually([this] { return entered.load(); }));
    }

    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    CallLog log;
};

/// Counts its signals, for a queue without a dispatcher. Signal handlers call it.
class CountingNotifier : public vesk::Dispatcher::Notifier {
public:
    void wait() override { FAIL() << "the tests do not wait"; }
    void signal() override {
        ++signals;
        if (on_signal) {
            on_signal();
        }
    }

    std::atomic<int> signals{0};
    std::function<void()> on_signal;
};

/// Pops a message of a queue and invokes it. Returns false if there is none.
inline bool popOne(vesk::SignalQueue& queue) {
    vesk::Message* const message = queue.pop_nonblock();
    if (message == nullptr) {
        return false;
    }
    message->invoke();
    message->dismiss();
    return true;
}

/// Pops all messages of a queue and invokes them. Returns their number.
inline int popAll(vesk::SignalQueue& queue) {
    int count = 0;
    while (popOne(queue)) {
        ++count;
    }
    return count;
}

/// A test of a queue without a dispatcher. Events are failures, except for those that the test expects.
class SignalTest : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(expected_events, events.getText());
        popAll(queue);
    }

    /// Checks that there were exactly these events, and no others until the end of the test.
    void expectEvents(std::string const& text) {
        EXPECT_EQ(text, events.getText());
        expected_events = text;
    }

    EventRecorder events;
    std::string expected_events;
    CallLog log;
    CountingNotifier notifier;
    vesk::SignalQueue queue{notifier};
};

/// Runs `body` in a child that uses all descriptors below `free`, so that it is the next one.
inline ChildEnd runWithDescriptors(int free, std::function<void()> const& body) {
    return runInChild([&] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 2048;
        limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            printf("no descriptors");
            return;
        }
        while (open("/dev/null", O_RDONLY) < free - 1) {}
        body();
    });
}

#define VESK_SKIP_WITHOUT_DESCRIPTORS(end)                                                                   \
    if ((end).output == "no descriptors") {                                                                  \
        GTEST_SKIP() << "the limit of descriptors cannot be raised";                                         \
    }

/// Sets the action of a signal. The destructor restores the previous one.
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

/// All signals that a process can catch. They are ignored during the object's lifetime.
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
        if (!IS_EMULATED) {
            EXPECT_EQ(60u, m_signals.size());
        }
    }

    std::vector<int> const& get() const { return m_signals; }

private:
    std::vector<std::unique_ptr<ActionGuard>> m_guards;
    std::vector<int> m_signals;
};

/// Returns the current action of a signal.
inline struct sigaction getAction(int signal) {
    struct sigaction action {};
    EXPECT_EQ(0, sigaction(signal, nullptr, &action));
    return action;
}

} // namespace support
