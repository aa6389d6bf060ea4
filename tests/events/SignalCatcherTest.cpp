#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include "SignalSupport.h"

#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>
#include <vesk/Timer.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {
// The pipe that was made last, and how many there were.
int s_pipe[2] = {-1, -1};
std::atomic<int> s_pipes{0};
// Called once each, at the next call of sigaction.
std::function<void()> s_before_sigaction;
std::function<void()> s_after_sigaction;
// What a sigaction that fails tells of the old action.
struct sigaction const* s_old_of_failure = nullptr;
} // namespace

support::Injected inject_pipe("pipe");
extern "C" VESK_UNWATCHED int pipe(int* ends) {
    using Function = int (*)(int*);
    auto const real = reinterpret_cast<Function>(inject_pipe.getReal());
    if (!support::isOfLibrary(__builtin_return_address(0))) {
        return real(ends);
    }
    int const result = real(ends);
    s_pipe[0] = ends[0];
    s_pipe[1] = ends[1];
    ++s_pipes;
    return result;
}

support::Injected inject_sigaction("sigaction");
extern "C" VESK_UNWATCHED int
sigaction(int signal, struct sigaction const* action, struct sigaction* old) noexcept {
    if (s_before_sigaction) {
        std::exchange(s_before_sigaction, nullptr)();
    }
    int error = 0;
    if (inject_sigaction.fails(error)) {
        if (s_old_of_failure != nullptr && old != nullptr) {
            *old = *s_old_of_failure;
        }
        errno = error;
        return -1;
    }
    using Function = int (*)(int, struct sigaction const*, struct sigaction*);
    int const result = reinterpret_cast<Function>(inject_sigaction.getReal())(signal, action, old);
    if (s_after_sigaction) {
        std::exchange(s_after_sigaction, nullptr)();
    }
    return result;
}

namespace {

using support::ActionGuard;
using support::CallLog;
using support::ChildEnd;
using support::countThreads;
using support::EventRecorder;
using support::Fault;
using support::g_threads_at_start;
using support::getAction;
using support::getThreadId;
using support::runInChild;
using support::waitUntil;
using vesk::Dispatcher;
using vesk::SignalCatcher;
using vesk::SignalDispatcher;
using vesk::SignalQueue;
using Handler = std::GlobalErrorHandler;
using Signals = std::vector<int>;

/// Counts its signals, for a queue that no dispatcher serves. Signal handlers call it.
class CountingNotifier : public Dispatcher::Notifier {
public:
    void wait() override { FAIL() << "nobody waits here"; }
    void signal() override { ++signals; }

    std::atomic<int> signals{0};
};

/// Pops all messages of a queue and carries them out. Gives their number.
int popAll(SignalQueue& queue) {
    int count = 0;
    while (vesk::Message* const message = queue.pop_nonblock()) {
        message->invoke();
        message->dismiss();
        ++count;
    }
    return count;
}

/// Something that blocks until it is opened.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> const guard(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, support::DEADLINE, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

class SignalCatcherTest : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_FALSE(std::ErrorStorage::isError(true));
        EXPECT_TRUE(waitUntil([] { return countThreads() == g_threads_at_start; }));
    }

    CallLog log;
};

// ---- the road of a signal ----

TEST_F(SignalCatcherTest, CallsBackForASignalToTheProcess) {
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    EXPECT_EQ(0, kill(getpid(), SIGUSR1));
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ((Signals{SIGUSR1}), log.getSignals());
}

TEST_F(SignalCatcherTest, CallsBackForASignalToAThreadOnAnotherOne) {
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    EXPECT_EQ(0, pthread_kill(pthread_self(), SIGUSR1));
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_NE(getThreadId(), log.getCalls()[0].thread);
}

TEST_F(SignalCatcherTest, CallsBackOutsideOfSignalContextOnTheThreadOfThatName) {
    struct Seen {
        CallLog& log;
        char name[16];
        sigset_t blocked;
    } seen{log, {}, {}};
    SignalCatcher const catcher(
        SIGUSR1,
        [](int signal, void* data) {
            auto& self = *static_cast<Seen*>(data);
            pthread_getname_np(pthread_self(), self.name, sizeof self.name);
            pthread_sigmask(SIG_SETMASK, nullptr, &self.blocked);
            CallLog::record(signal, &self.log);
        },
        &seen);
    raise(SIGUSR1);
    ASSERT_TRUE(log.waitFor(1));
    // The system shows the end of "vesk::SignalDispatcher".
    EXPECT_STREQ("ignalDispatcher", seen.name);
    EXPECT_EQ(0, sigismember(&seen.blocked, SIGUSR1));
    EXPECT_EQ(0, sigismember(&seen.blocked, SIGUSR2));
}

TEST_F(SignalCatcherTest, HandlesTheSignalInTheThreadThatGotItWithAllSignalsBlocked) {
    struct LookingNotifier : Dispatcher::Notifier {
        void wait() override {}
        void signal() override {
            thread = getThreadId();
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        }
        std::atomic<pid_t> thread{0};
        sigset_t blocked{};
    } notifier;
    SignalQueue queue(notifier);
    SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log);
    raise(SIGUSR1);
    EXPECT_EQ(getThreadId(), notifier.thread);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP && signal < 32) {
            EXPECT_EQ(1, sigismember(&notifier.blocked, signal)) << signal;
        }
    }
    EXPECT_EQ(1, sigismember(&notifier.blocked, SIGRTMIN));
    EXPECT_EQ(1, popAll(queue));
}

TEST_F(SignalCatcherTest, CallsBackOnceForEachRealTimeSignalThatWaited) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer merges signals of one number that wait, as if they were standard ones";
#endif
    int const signal = SIGRTMIN + 5;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr)); // Also in the dispatcher's thread.
    SignalCatcher const catcher(signal, CallLog::record, &log);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(0, sigqueue(getpid(), signal, sigval{}));
    }
    EXPECT_EQ(0u, log.getCount());
    ASSERT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &set, nullptr));
    EXPECT_TRUE(log.waitFor(10));
    // What comes after the next one would be too many.
    EXPECT_EQ(0, sigqueue(getpid(), signal, sigval{}));
    EXPECT_TRUE(log.waitFor(11));
    EXPECT_EQ(11u, log.getCount());
}

TEST_F(SignalCatcherTest, CallsBackOnceForStandardSignalsThatTheKernelMerged) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr));
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    SignalCatcher const later(SIGUSR2, CallLog::record, &log);
    for (int i = 0; i < 3; ++i) {
        kill(getpid(), SIGUSR1);
    }
    ASSERT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &set, nullptr));
    // A higher number, so it is behind whatever waits of the lower one.
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(2));
    EXPECT_EQ((Signals{SIGUSR1, SIGUSR2}), log.getSignals());
}

TEST_F(SignalCatcherTest, CallsBackInTheOrderOfTheNumbersAfterASlowCallback) {
    struct Slow {
        CallLog& log;
        Gate gate;
        std::atomic<bool> entered{false};
    } slow{log, {}, {false}};
    SignalCatcher const slow_catcher(
        SIGWINCH,
        [](int signal, void* data) {
            auto& self = *static_cast<Slow*>(data);
            self.entered = true;
            EXPECT_TRUE(self.gate.pass());
            CallLog::record(signal, &self.log);
        },
        &slow);
    SignalCatcher const third(SIGUSR2, CallLog::record, &log);
    SignalCatcher const second(SIGUSR1, CallLog::record, &log);
    SignalCatcher const first(SIGHUP, CallLog::record, &log);
    raise(SIGWINCH);
    EXPECT_TRUE(waitUntil([&] { return slow.entered.load(); }));
    raise(SIGUSR2);
    raise(SIGUSR1);
    raise(SIGUSR2);
    raise(SIGHUP);
    EXPECT_EQ(0u, log.getCount());
    slow.gate.open();
    EXPECT_TRUE(log.waitFor(5));
    EXPECT_EQ((Signals{SIGWINCH, SIGHUP, SIGUSR1, SIGUSR2, SIGUSR2}), log.getSignals());
}

TEST_F(SignalCatcherTest, RestartsTheSystemCallThatTheHandlerInterrupted) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer keeps a signal until the system call has returned";
#endif
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    std::atomic<pid_t> reader{0};
    ssize_t result = 0;
    std::thread thread([&] {
        reader = getThreadId();
        char byte = 0;
        result = read(ends[0], &byte, 1);
    });
    EXPECT_TRUE(waitUntil([&] { return reader != 0; }));
    support::waitUntilAsleep(getpid(), reader);
    EXPECT_EQ(0, pthread_kill(thread.native_handle(), SIGUSR1));
    EXPECT_TRUE(log.waitFor(1));
    support::waitUntilAsleep(getpid(), reader);
    EXPECT_EQ(1, write(ends[1], "x", 1));
    thread.join();
    EXPECT_EQ(1, result);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(SignalCatcherTest, LeavesTheErrorNumberOfTheInterruptedCodeAlone) {
    struct SpoilingNotifier : Dispatcher::Notifier {
        void wait() override {}
        void signal() override { errno = EAGAIN; }
    } notifier;
    SignalQueue queue(notifier);
    SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log);
    errno = EDOM;
    raise(SIGUSR1);
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(1, popAll(queue));
}

TEST_F(SignalCatcherTest, GivesEachCallbackItsOwnData) {
    CallLog other;
    SignalCatcher const first(SIGUSR1, CallLog::record, &log);
    SignalCatcher const second(SIGUSR2, CallLog::record, &other);
    raise(SIGUSR2);
    EXPECT_TRUE(other.waitFor(1));
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ((Signals{SIGUSR1}), log.getSignals());
    EXPECT_EQ((Signals{SIGUSR2}), other.getSignals());
}

// ---- the action ----

TEST_F(SignalCatcherTest, InstallsItsHandlerWithAFullMaskAndRestartAlone) {
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    struct sigaction const action = getAction(SIGUSR1);
    EXPECT_EQ(&SignalCatcher::enqueue_signal, action.sa_handler);
    constexpr int SA_OF_LIBC = 0x04000000; // Tells the kernel how to return.
    EXPECT_EQ(SA_RESTART, action.sa_flags & ~SA_OF_LIBC);
    for (int signal = 1; signal < vesk::TARN_NSIGNALS; ++signal) {
        // The kernel takes out what cannot be blocked; 32 and 33 are between libc and itself.
        if (signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN)) {
            EXPECT_EQ(1, sigismember(&action.sa_mask, signal)) << signal;
        }
    }
}

struct Quiet {
    char const* name;
    void (*handler)(int);
    int flags;
};
void PrintTo(Quiet const& row, std::ostream* out) {
    *out << row.name;
}

class SignalCatcherQuietActionTest : public SignalCatcherTest, public testing::WithParamInterface<Quiet> {};

TEST_P(SignalCatcherQuietActionTest, ComesBackAtTheEnd) {
    ActionGuard const guard(SIGUSR1, GetParam().handler, GetParam().flags);
    struct sigaction const before = getAction(SIGUSR1);
    EventRecorder const events;
    {
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        raise(SIGUSR1);
        EXPECT_TRUE(log.waitFor(1));
    }
    struct sigaction const after = getAction(SIGUSR1);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
    EXPECT_EQ(before.sa_flags, after.sa_flags);
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalCatcherQuietActionTest,
    testing::Values(
        Quiet{"Default", SIG_DFL, 0}, Quiet{"Ignored", SIG_IGN, 0},
        Quiet{"DefaultWithFlags", SIG_DFL, SA_NODEFER}, Quiet{"DefaultWithSiginfo", SIG_DFL, SA_SIGINFO},
        Quiet{"IgnoredWithSiginfo", SIG_IGN, SA_SIGINFO}),
    [](auto const& row) { return std::string(row.param.name); });

std::atomic<int> s_old_handlers_calls{0};
void oldHandler(int) {
    ++s_old_handlers_calls;
}
void oldAction(int, siginfo_t*, void*) {
    ++s_old_handlers_calls;
}

struct sigaction makeOld(bool siginfo) {
    struct sigaction action {};
    if (siginfo) {
        action.sa_sigaction = oldAction;
        action.sa_flags = SA_SIGINFO;
    } else {
        action.sa_handler = oldHandler;
    }
    return action;
}

constexpr char const* OLD_HANDLER =
    "ASSERT framework/src/vesk/SignalCatcherImpl-posix SignalCatcherImpl: "
    "(old_action.sa_flags & SA_SIGINFO) || old_action.sa_handler==SIG_DFL || old_action.sa_handler==SIG_IGN";
constexpr char const* OLD_ACTION = "ASSERT framework/src/vesk/SignalCatcherImpl-posix SignalCatcherImpl: "
                                   "!(old_action.sa_flags & SA_SIGINFO) || "
                                   "old_action.sa_sigaction==(void (*) (int, siginfo_t *, void *))SIG_DFL || "
                                   "old_action.sa_sigaction==(void (*) (int, siginfo_t *, void *))SIG_IGN";

class SignalCatcherOldHandlerTest : public SignalCatcherTest, public testing::WithParamInterface<bool> {
protected:
    bool hasSiginfo() const { return GetParam(); }
    char const* getText() const { return hasSiginfo() ? OLD_ACTION : OLD_HANDLER; }
};

TEST_P(SignalCatcherOldHandlerTest, IsAnAssertionAndIsNotCalledButComesBack) {
    ActionGuard const guard(SIGUSR1);
    struct sigaction const old = makeOld(hasSiginfo());
    ASSERT_EQ(0, sigaction(SIGUSR1, &old, nullptr));
    s_old_handlers_calls = 0;
    {
        EventRecorder const events;
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        EXPECT_EQ(getText(), events.getText());
        raise(SIGUSR1);
        EXPECT_TRUE(log.waitFor(1));
    }
    EXPECT_EQ(0, s_old_handlers_calls);
    raise(SIGUSR1);
    EXPECT_EQ(1, s_old_handlers_calls);
    EXPECT_EQ(1u, log.getCount());
}

TEST_P(SignalCatcherOldHandlerTest, IsAnAssertionAlsoIfTheSystemRefuses) {
    struct sigaction const old = makeOld(hasSiginfo());
    s_old_of_failure = &old;
    {
        EventRecorder const events;
        Fault const fault(inject_sigaction, EINVAL);
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        EXPECT_EQ(getText(), events.getText());
    }
    s_old_of_failure = nullptr;
    EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
}

TEST_P(SignalCatcherOldHandlerTest, LeavesNothingBehindIfTheAssertionUnwinds) {
    ActionGuard const guard(SIGUSR1);
    struct sigaction const old = makeOld(hasSiginfo());
    ASSERT_EQ(0, sigaction(SIGUSR1, &old, nullptr));
    Handler::Hook const hook{
        [](Handler::Event const& event, void*) -> bool { throw std::runtime_error(event.expression); },
        nullptr};
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    Handler::Hook const* const before = Handler::setHook(&hook);
    EXPECT_THROW(SignalCatcher(SIGUSR1, queue, CallLog::record, &log), std::runtime_error);
    EXPECT_THROW(SignalCatcher(SIGUSR1, CallLog::record, &log), std::runtime_error);
    Handler::setHook(before);
    EXPECT_EQ(old.sa_handler, getAction(SIGUSR1).sa_handler);
    SignalCatcher::enqueue_signal(SIGUSR1);
    EXPECT_EQ(0, notifier.signals);
    EventRecorder const events;
    queue.sign_on(SIGUSR1, CallLog::record, &log);
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(All, SignalCatcherOldHandlerTest, testing::Bool(), [](auto const& row) {
    return row.param ? "WithSiginfo" : "Plain";
});

struct Refused {
    char const* name;
    int signal;
};
void PrintTo(Refused const& row, std::ostream* out) {
    *out << row.name;
}

class SignalCatcherRefusalTest : public SignalCatcherTest, public testing::WithParamInterface<Refused> {};

TEST_P(SignalCatcherRefusalTest, IsNotReportedAndSignsOffInTheEnd) {
    EventRecorder const events;
    for (int i = 0; i < 2; ++i) {
        Fault const calls(inject_sigaction, 0);
        {
            SignalCatcher const catcher(GetParam().signal, CallLog::record, &log);
            EXPECT_EQ(1, calls.getCalls());
            EXPECT_FALSE(std::ErrorStorage::isError(true));
            EXPECT_EQ(g_threads_at_start + 1, countThreads());
        }
        // The action was not taken over, so it is not put back.
        EXPECT_EQ(1, calls.getCalls());
    }
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalCatcherRefusalTest,
    testing::Values(
        Refused{"SIGKILL", SIGKILL}, Refused{"SIGSTOP", SIGSTOP}, Refused{"Zero", 0}, Refused{"OfLibc", 32}),
    [](auto const& row) { return std::string(row.param.name); });

TEST_F(SignalCatcherTest, ThatWasRefusedLeavesTheActionAloneButClearsItsRow) {
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    EventRecorder const events;
    {
        Fault const fault(inject_sigaction, EPERM);
        SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log);
        EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
        // The row is there all the same.
        SignalCatcher::enqueue_signal(SIGUSR1);
        EXPECT_EQ(1, notifier.signals);
    }
    SignalCatcher::enqueue_signal(SIGUSR1);
    EXPECT_EQ(1, notifier.signals);
    EXPECT_EQ(0, popAll(queue));
    EXPECT_EQ("", events.getText());
}

TEST_F(SignalCatcherTest, WhoseHandlerWasReplacedIsAnAssertionAfterTheOldActionIsBack) {
    ActionGuard const guard(SIGUSR1, SIG_IGN);
    struct Look {
        std::string text;
        void (*handler)(int) = nullptr;
    } look;
    Handler::Hook const hook{
        [](Handler::Event const& event, void* context) {
            auto& self = *static_cast<Look*>(context);
            self.text += std::string(event.file) + " " + event.function + ": " + event.expression;
            self.handler = getAction(SIGUSR1).sa_handler;
            return true;
        },
        &look};
    Handler::Hook const* before = nullptr;
    {
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        struct sigaction const other = makeOld(false);
        ASSERT_EQ(0, sigaction(SIGUSR1, &other, nullptr));
        before = Handler::setHook(&hook);
    }
    Handler::setHook(before);
    EXPECT_EQ(
        "framework/src/vesk/SignalCatcherImpl-posix ~SignalCatcherImpl: action.sa_handler==enqueue_signal",
        look.text);
    EXPECT_EQ(SIG_IGN, look.handler);
    EXPECT_EQ(SIG_IGN, getAction(SIGUSR1).sa_handler);
    // The rest was cleaned up.
    EventRecorder const events;
    SignalCatcher const next(SIGUSR1, CallLog::record, &log);
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ("", events.getText());
}

TEST_F(SignalCatcherTest, ThatCannotPutTheActionBackIsNoAssertion) {
    ActionGuard const guard(SIGUSR1);
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    EventRecorder const events;
    auto catcher = std::make_unique<SignalCatcher>(SIGUSR1, queue, CallLog::record, &log);
    {
        Fault const fault(inject_sigaction, EINVAL);
        catcher.reset();
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ("", events.getText());
    // The handler is still there, but finds nothing.
    EXPECT_EQ(&SignalCatcher::enqueue_signal, getAction(SIGUSR1).sa_handler);
    raise(SIGUSR1);
    EXPECT_EQ(0, notifier.signals);
}

// ---- broken preconditions ----

struct BadNumber {
    int signal;
    char const* in_constructor;
    char const* in_handler;
};
void PrintTo(BadNumber const& row, std::ostream* out) {
    *out << row.signal;
}

class SignalCatcherNumberTest : public SignalCatcherTest, public testing::WithParamInterface<BadNumber> {};

TEST_P(SignalCatcherNumberTest, OfNoSignalIsAnAssertionAndCatchesNothing) {
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    Fault const calls(inject_sigaction, 0);
    EventRecorder const events;
    { SignalCatcher const catcher(GetParam().signal, queue, CallLog::record, &log); }
    { SignalCatcher const catcher(GetParam().signal, CallLog::record, &log); }
    std::string const line =
        std::string("ASSERT framework/src/vesk/SignalCatcherImpl-posix SignalCatcherImpl: ") +
        GetParam().in_constructor;
    EXPECT_EQ(line + "\n" + line, events.getText());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_P(SignalCatcherNumberTest, OfNoSignalIsAnAssertionInTheHandler) {
    EventRecorder const events;
    SignalCatcher::enqueue_signal(GetParam().signal);
    EXPECT_EQ(
        std::string("ASSERT framework/src/vesk/SignalCatcherImpl-posix enqueue_signal: ") +
            GetParam().in_handler,
        events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, SignalCatcherNumberTest,
    testing::Values(
        BadNumber{-1, "0<=signal", "signal>=0"}, BadNumber{INT_MIN, "0<=signal", "signal>=0"},
        BadNumber{65, "signal<TARN_NSIGNALS", "signal<TARN_NSIGNALS"},
        BadNumber{INT_MAX, "signal<TARN_NSIGNALS", "signal<TARN_NSIGNALS"}),
    [](auto const& row) { return "row" + std::to_string(row.index); });

TEST_F(SignalCatcherTest, WithASecondOneForItsSignalIsAnAssertionAndGoesOn) {
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    {
        CallLog other;
        EventRecorder const events;
        SignalCatcher const second(SIGUSR1, CallLog::record, &other);
        EXPECT_EQ(
            "ASSERT framework/src/vesk/SignalQueuePosixBase sign_on: signals[signal].callback==NULL",
            events.getText());
        raise(SIGUSR1);
        EXPECT_TRUE(log.waitFor(1));
        EXPECT_EQ(0u, other.getCount());
    }
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(2));
    EXPECT_EQ(&SignalCatcher::enqueue_signal, getAction(SIGUSR1).sa_handler);
}

/// Two catchers of one signal on different queues, and which of them ends first.
class SignalCatcherSecondQueueTest : public SignalCatcherTest, public testing::WithParamInterface<bool> {};

TEST_P(SignalCatcherSecondQueueTest, IsAnAssertionAndEachEndTakesBackOnlyItsOwn) {
    ActionGuard const guard(SIGUSR1, SIG_IGN);
    CountingNotifier notifier;
    SignalQueue first_queue(notifier);
    SignalQueue second_queue(notifier);
    {
        EventRecorder const events;
        auto first = std::make_unique<SignalCatcher>(SIGUSR1, first_queue, CallLog::record, &log);
        EXPECT_EQ("", events.getText());
        auto second = std::make_unique<SignalCatcher>(SIGUSR1, second_queue, CallLog::record, &log);
        EXPECT_EQ(OLD_HANDLER, events.getText());
        raise(SIGUSR1);
        EXPECT_EQ(0, popAll(first_queue));
        EXPECT_EQ(1, popAll(second_queue));
        bool const first_ends_first = GetParam();
        (first_ends_first ? first : second).reset();
        EXPECT_EQ(&SignalCatcher::enqueue_signal, getAction(SIGUSR1).sa_handler);
        raise(SIGUSR1);
        EXPECT_EQ(first_ends_first ? 0 : 1, popAll(first_queue));
        EXPECT_EQ(first_ends_first ? 1 : 0, popAll(second_queue));
        (first_ends_first ? second : first).reset();
        EXPECT_EQ(OLD_HANDLER, events.getText());
    }
    EXPECT_EQ(SIG_IGN, getAction(SIGUSR1).sa_handler);
    EventRecorder const events;
    EXPECT_FALSE(first_queue.sign_on(SIGUSR1, CallLog::record, &log));
    EXPECT_FALSE(second_queue.sign_on(SIGUSR1, CallLog::record, &log));
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(All, SignalCatcherSecondQueueTest, testing::Bool(), [](auto const& row) {
    return row.param ? "TheFirstEndsFirst" : "TheSecondEndsFirst";
});

TEST_F(SignalCatcherTest, WhoseSelfPipeIsBrokenEndsTheProcessWithItsSignal) {
    ChildEnd const end = runInChild([this] {
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        close(s_pipe[1]);
        raise(SIGUSR1);
    });
    EXPECT_EQ(SIGABRT, end.signal) << end.errors;
    EXPECT_NE(
        std::string::npos, end.errors.find("write to self-pipe failed with errno=9 (Bad file descriptor)\n"))
        << end.errors;
}

// ---- the order of making and destroying ----

TEST_F(SignalCatcherTest, ASignalBeforeTheHandlerIsInstalledMeetsTheOldAction) {
    ActionGuard const guard(SIGUSR1);
    struct sigaction const old = makeOld(false);
    ASSERT_EQ(0, sigaction(SIGUSR1, &old, nullptr));
    s_old_handlers_calls = 0;
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    EventRecorder const events;
    bool published = false;
    s_before_sigaction = [&] {
        raise(SIGUSR1);
        EXPECT_EQ(1, s_old_handlers_calls);
        EXPECT_EQ(0, notifier.signals);
        // Everything else is ready for the handler by now.
        SignalCatcher::enqueue_signal(SIGUSR1);
        published = notifier.signals == 1;
    };
    SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log);
    EXPECT_TRUE(published);
    EXPECT_EQ(1, popAll(queue));
}

TEST_F(SignalCatcherTest, ASignalWhileTheHandlerIsTakenAwayIsForgotten) {
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    EventRecorder const events;
    auto catcher = std::make_unique<SignalCatcher>(SIGUSR1, queue, CallLog::record, &log);
    s_after_sigaction = [&] {
        EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
        // A handler that began in another thread before finds the queue still there.
        std::thread([] { SignalCatcher::enqueue_signal(SIGUSR1); }).join();
        EXPECT_EQ(1, notifier.signals);
    };
    catcher.reset();
    EXPECT_EQ(1, notifier.signals);
    EXPECT_EQ(0, popAll(queue));
    queue.sign_on(SIGUSR1, CallLog::record, &log);
    EXPECT_EQ(0, popAll(queue));
    EXPECT_EQ("", events.getText());
}

TEST_F(SignalCatcherTest, AHandlerThatFindsNoQueueDropsItsSignal) {
    EventRecorder const events;
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    { SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log); }
    for (int signal = 0; signal < vesk::TARN_NSIGNALS; ++signal) {
        SignalCatcher::enqueue_signal(signal);
    }
    EXPECT_EQ(0, notifier.signals);
    EXPECT_EQ("", events.getText());
}

TEST_F(SignalCatcherTest, IsNotGoneBeforeAHandlerInAnotherThreadIsDoneWithTheQueue) {
    struct SlowNotifier : Dispatcher::Notifier {
        void wait() override {}
        void signal() override {
            entered = true;
            while (!released) {
                sched_yield();
            }
            left = true;
        }
        std::atomic<bool> entered{false};
        std::atomic<bool> released{false};
        std::atomic<bool> left{false};
    } notifier;
    SignalQueue queue(notifier);
    auto catcher = std::make_unique<SignalCatcher>(SIGUSR1, queue, CallLog::record, &log);
    std::thread handling([] { raise(SIGUSR1); });
    EXPECT_TRUE(waitUntil([&] { return notifier.entered.load(); }));
    std::atomic<pid_t> destroying{0};
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        destroying = getThreadId();
        catcher.reset();
        destroyed = true;
        EXPECT_TRUE(notifier.left);
    });
    EXPECT_TRUE(waitUntil([&] { return destroying != 0; }));
    support::waitUntilAsleep(getpid(), destroying);
    EXPECT_FALSE(destroyed);
    // What comes now is dropped already.
    EXPECT_TRUE(waitUntil([] { return getAction(SIGUSR1).sa_handler == SIG_DFL; }));
    notifier.released = true;
    handling.join();
    destroyer.join();
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(0, popAll(queue));
}

TEST_F(SignalCatcherTest, ForgetsWhatIsPendingAtItsEnd) {
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    {
        SignalCatcher const catcher(SIGUSR1, queue, CallLog::record, &log);
        raise(SIGUSR1);
        raise(SIGUSR1);
    }
    SignalCatcher const next(SIGUSR1, queue, CallLog::record, &log);
    EXPECT_EQ(0, popAll(queue));
    raise(SIGUSR1);
    EXPECT_EQ(1, popAll(queue));
}

// ---- both forms and their threads ----

TEST_F(SignalCatcherTest, TwoOfTheSharedFormUseOneThreadAndTheFirstLeavesTheSecondWorking) {
    auto first = std::make_unique<SignalCatcher>(SIGUSR1, CallLog::record, &log);
    SignalCatcher const second(SIGUSR2, CallLog::record, &log);
    EXPECT_EQ(g_threads_at_start + 1, countThreads());
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(2));
    first.reset();
    EXPECT_EQ(g_threads_at_start + 1, countThreads());
    EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(3));
    std::vector<CallLog::Call> const calls = log.getCalls();
    EXPECT_EQ(calls[0].thread, calls[1].thread);
    EXPECT_EQ(calls[0].thread, calls[2].thread);
    EXPECT_EQ((Signals{SIGUSR1, SIGUSR2, SIGUSR2}), log.getSignals());
}

TEST_F(SignalCatcherTest, AfterTheLastOneANewOneMakesANewThreadAndANewPipe) {
    int const pipes = s_pipes;
    for (size_t i = 1; i <= 2; ++i) {
        {
            SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
            SignalCatcher const other(SIGUSR2, CallLog::record, &log);
            EXPECT_EQ(pipes + static_cast<int>(i), s_pipes);
            EXPECT_EQ(g_threads_at_start + 1, countThreads());
            raise(SIGUSR1);
            EXPECT_TRUE(log.waitFor(i));
        }
        EXPECT_TRUE(waitUntil([] { return countThreads() == g_threads_at_start; }));
        // The pipe went with the thread.
        char byte = 0;
        EXPECT_EQ(-1, read(s_pipe[0], &byte, 1));
        EXPECT_EQ(EBADF, errno);
        EXPECT_EQ(-1, write(s_pipe[1], "", 1));
        EXPECT_EQ(EBADF, errno);
    }
    EXPECT_NE(log.getCalls()[0].thread, log.getCalls()[1].thread);
}

TEST_F(SignalCatcherTest, OfAClientsQueueStartsNoThreadAndCallsBackWhereItsDispatcherRuns) {
    SignalQueue::Notifier notifier;
    SignalQueue queue(notifier);
    Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    struct Client {
        CallLog& log;
        Dispatcher& dispatcher;
    } client{log, dispatcher};
    SignalCatcher const catcher(
        SIGUSR1, queue,
        [](int signal, void* data) {
            auto& self = *static_cast<Client*>(data);
            CallLog::record(signal, &self.log);
            self.dispatcher.stop();
        },
        &client);
    EXPECT_EQ(g_threads_at_start, countThreads());
    raise(SIGUSR1);
    EXPECT_EQ(0u, log.getCount());
    dispatcher.run();
    EXPECT_EQ(1u, log.getCount());
    EXPECT_EQ(getThreadId(), log.getCalls()[0].thread);
    EXPECT_EQ(g_threads_at_start, countThreads());
}

TEST_F(SignalCatcherTest, BothFormsWorkSideBySide) {
    CountingNotifier notifier;
    SignalQueue queue(notifier);
    CallLog mine;
    SignalCatcher const shared(SIGUSR1, CallLog::record, &log);
    SignalCatcher const own(SIGUSR2, queue, CallLog::record, &mine);
    raise(SIGUSR1);
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ(1, popAll(queue));
    EXPECT_EQ((Signals{SIGUSR1}), log.getSignals());
    EXPECT_EQ((Signals{SIGUSR2}), mine.getSignals());
}

TEST_F(SignalCatcherTest, MayBeMadeAndDestroyedByACallback) {
    struct Client {
        CallLog& log;
        std::unique_ptr<SignalCatcher> inner;
    } client{log, nullptr};
    SignalCatcher const outer(
        SIGUSR1,
        [](int signal, void* data) {
            auto& self = *static_cast<Client*>(data);
            if (self.inner == nullptr) {
                self.inner = std::make_unique<SignalCatcher>(SIGUSR2, CallLog::record, &self.log);
            } else {
                self.inner.reset();
            }
            CallLog::record(signal, &self.log);
        },
        &client);
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(2));
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(3));
    EXPECT_EQ((Signals{SIGUSR1, SIGUSR2, SIGUSR1}), log.getSignals());
    EXPECT_EQ(SIG_DFL, getAction(SIGUSR2).sa_handler);
}

TEST_F(SignalCatcherTest, MayBeMadeByACallbackWhileAnotherThreadDestroysTheLastOne) {
    ChildEnd const end = runInChild([this] {
        struct Client {
            CallLog& log;
            std::atomic<bool> entered{false};
            std::atomic<pid_t> destroyer{0};
            std::unique_ptr<SignalCatcher> next;
        } client{log, {false}, {0}, nullptr};
        auto last = std::make_unique<SignalCatcher>(
            SIGUSR1,
            [](int, void* data) {
                auto& self = *static_cast<Client*>(data);
                self.entered = true;
                EXPECT_TRUE(waitUntil([&] { return self.destroyer != 0; }));
                support::waitUntilAsleep(getpid(), self.destroyer);
                self.next = std::make_unique<SignalCatcher>(SIGUSR2, CallLog::record, &self.log);
            },
            &client);
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(waitUntil([&] { return client.entered.load(); }));
        client.destroyer = getThreadId();
        last.reset();
        ASSERT_NE(nullptr, client.next) << "the last one waits for the callback";
        kill(getpid(), SIGUSR2);
        EXPECT_TRUE(log.waitFor(1));
    });
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

TEST_F(SignalCatcherTest, WorksLikeATimerWithMoreDescriptorsThanASetCanHold) {
    ChildEnd const end = runInChild([this] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 2048;
        limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            printf("no descriptors");
            return;
        }
        while (open("/dev/null", O_RDONLY | O_CLOEXEC) < 1500) {}
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        EXPECT_LT(1500, s_pipe[0]);
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(log.waitFor(1));
        static std::atomic<int> rung{0};
        vesk::Timer timer([](vesk::Timer*) { ++rung; }, false);
        EXPECT_FALSE(timer.start(1, true));
        EXPECT_TRUE(waitUntil([] { return rung >= 3; }));
    });
    if (end.output == "no descriptors") {
        GTEST_SKIP() << "the limit of descriptors cannot be raised";
    }
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

TEST_F(SignalCatcherTest, CallsBackForEverySignalThatCanBeCaught) {
    support::CatchableSignals const catchable;
    std::vector<std::unique_ptr<SignalCatcher>> catchers;
    for (int const signal : catchable.get()) {
        catchers.push_back(std::make_unique<SignalCatcher>(signal, CallLog::record, &log));
    }
    size_t count = 0;
    for (int const signal : catchable.get()) {
        raise(signal);
        ASSERT_TRUE(log.waitFor(++count)) << signal;
    }
    EXPECT_EQ(catchable.get(), log.getSignals());
}

TEST(SignalCatcherClassTest, AddsOnlyItsConstructors) {
    static_assert(std::is_base_of_v<vesk::SignalCatcherImpl, SignalCatcher>);
    static_assert(!std::is_polymorphic_v<SignalCatcher>);
    static_assert(!std::is_copy_constructible_v<SignalCatcher>);
    EXPECT_EQ(sizeof(vesk::SignalCatcherImpl), sizeof(SignalCatcher));
}

} // namespace
