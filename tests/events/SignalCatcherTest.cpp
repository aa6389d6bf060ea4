#include "SignalSupport.h"
#include "support/Aborts.h"

#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>
#include <vesk/Timer.h>

#include <stdexcept>

namespace {
// Each runs once, in the next call of sigaction.
std::function<void()> s_before_sigaction;
std::function<void()> s_after_sigaction;
// The old action that a failed sigaction returns, if it is set.
struct sigaction const* s_old_of_failure = nullptr;
} // namespace

support::Injected inject_sigaction("sigaction");
extern "C" VESK_UNWATCHED int
sigaction(int signal, struct sigaction const* action, struct sigaction* old) noexcept {
    if (s_before_sigaction) {
        std::exchange(s_before_sigaction, nullptr)();
    }
    if (inject_sigaction.fails()) {
        if (s_old_of_failure != nullptr && old != nullptr) {
            *old = *s_old_of_failure;
        }
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

using namespace support;
using namespace vesk;
using Handler = std::GlobalErrorHandler;
using Signals = std::vector<int>;

/// A set with one signal.
class SignalSet {
public:
    explicit SignalSet(int signal) {
        sigemptyset(&m_set);
        sigaddset(&m_set, signal);
    }
    void block() const { ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &m_set, nullptr)); }
    void unblock() const { ASSERT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &m_set, nullptr)); }

private:
    sigset_t m_set{};
};

class SignalCatcherTest : public SignalTest {
protected:
    void TearDown() override {
        SignalTest::TearDown();
        EXPECT_TRUE(hasThreads(g_threads_at_start));
    }

    /// Raises a signal and waits for its call.
    void raiseAndWait(int signal) {
        size_t const calls = log.getCount();
        raise(signal);
        EXPECT_TRUE(log.waitFor(calls + 1));
    }

    /// Makes a catcher that logs its calls.
    std::unique_ptr<SignalCatcher> make(int signal) {
        return std::make_unique<SignalCatcher>(signal, CallLog::record, &log);
    }
    /// Makes a catcher with the test's own queue, which no dispatcher serves.
    std::unique_ptr<SignalCatcher> makeQueued(int signal) {
        return std::make_unique<SignalCatcher>(signal, queue, CallLog::record, &log);
    }
};

// ---- from the signal to the callback ----

TEST_F(SignalCatcherTest, callsBackOutsideOfSignalContextOnTheThreadOfTheDispatcher) {
    char name[16] = "";
    sigset_t blocked{};
    Callback callback{[&](int signal) {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        CallLog::record(signal, &log);
    }};
    SignalCatcher const catcher(SIGUSR1, Callback::run, &callback);
    raiseAndWait(SIGUSR1);
    // The system shows the end of "vesk::SignalDispatcher".
    EXPECT_STREQ("ignalDispatcher", name);
    EXPECT_EQ(0, sigismember(&blocked, SIGUSR1));
    EXPECT_EQ(0, sigismember(&blocked, SIGUSR2));
}

TEST_F(SignalCatcherTest, handlesTheSignalInTheThreadThatReceivesItWithAllSignalsBlocked) {
    std::atomic<pid_t> thread{0};
    sigset_t blocked{};
    notifier.on_signal = [&] {
        thread = getThreadId();
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        errno = EAGAIN;
    };
    auto const catcher = makeQueued(SIGUSR1);
    errno = EDOM;
    raise(SIGUSR1);
    EXPECT_EQ(EDOM, errno) << "the interrupted code keeps its error number";
    EXPECT_EQ(getThreadId(), thread);
    for (int signal = 1; signal < 32; ++signal) {
        // Emulators report the two that cannot be blocked as blocked.
        if (signal != SIGKILL && signal != SIGSTOP) {
            EXPECT_EQ(1, sigismember(&blocked, signal)) << signal;
        }
    }
    EXPECT_EQ(1, sigismember(&blocked, SIGRTMIN));
    EXPECT_EQ(1, popAll(queue));
}

TEST_F(SignalCatcherTest, callsBackOnceForEachPendingRealTimeSignal) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer merges signals of one number that wait, as if they were standard ones";
#endif
    int const signal = SIGRTMIN + 5;
    SignalSet const set(signal);
    set.block(); // Also in the dispatcher's thread.
    auto const catcher = make(signal);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(0, sigqueue(getpid(), signal, sigval{}));
    }
    EXPECT_EQ(0u, log.getCount());
    set.unblock();
    EXPECT_TRUE(log.waitFor(10));
    // Any call too many would come before that of the next signal.
    EXPECT_EQ(0, sigqueue(getpid(), signal, sigval{}));
    EXPECT_TRUE(log.waitFor(11));
    EXPECT_EQ(11u, log.getCount());
}

TEST_F(SignalCatcherTest, callsBackInTheOrderOfTheNumbersAfterASlowCallback) {
    HeldCallback slow;
    SignalCatcher const slow_catcher(SIGWINCH, HeldCallback::run, &slow);
    auto const third = make(SIGUSR2);
    auto const second = make(SIGUSR1);
    auto const first = make(SIGHUP);
    raise(SIGWINCH);
    slow.awaitEntry();
    for (int const signal : {SIGUSR2, SIGUSR1, SIGUSR2, SIGHUP}) {
        raise(signal);
    }
    EXPECT_EQ(0u, log.getCount());
    slow.released = true;
    EXPECT_TRUE(log.waitFor(4));
    EXPECT_EQ((Signals{SIGWINCH}), slow.log.getSignals());
    EXPECT_EQ((Signals{SIGHUP, SIGUSR1, SIGUSR2, SIGUSR2}), log.getSignals());
}

TEST_F(SignalCatcherTest, restartsTheSystemCallThatTheHandlerInterrupted) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer keeps a signal until the system call has returned";
#endif
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    auto const catcher = make(SIGUSR1);
    ssize_t result = 0;
    Sleeper reader([&] {
        char byte = 0;
        result = read(ends[0], &byte, 1);
    });
    reader.awaitSleep();
    reader.kill(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
    reader.awaitSleep();
    EXPECT_EQ(1, write(ends[1], "x", 1));
    reader.join();
    EXPECT_EQ(1, result);
    close(ends[0]);
    close(ends[1]);
}

// ---- the action ----

TEST_F(SignalCatcherTest, installsItsHandlerWithAFullMaskAndOnlyTheRestartFlag) {
    auto const catcher = make(SIGUSR1);
    struct sigaction const action = getAction(SIGUSR1);
    EXPECT_EQ(&SignalCatcher::enqueue_signal, action.sa_handler);
    constexpr int SA_OF_LIBC = 0x04000000; // Says to the kernel how to return.
    EXPECT_EQ(SA_RESTART, action.sa_flags & ~SA_OF_LIBC);
    for (int signal = 1; signal < vesk::TARN_NSIGNALS; ++signal) {
        // The kernel removes signals that cannot be blocked. Those of the C library (32, 33) must be blocked, too.
        if (signal != SIGKILL && signal != SIGSTOP) {
            EXPECT_EQ(1, sigismember(&action.sa_mask, signal)) << signal;
        }
    }
}

TEST_F(SignalCatcherTest, restoresAQuietActionInItsDestructor) {
    struct {
        char const* name;
        void (*handler)(int);
        int flags;
    } const rows[] = {
        {"default", SIG_DFL, 0},
        {"ignored", SIG_IGN, 0},
        {"default with flags", SIG_DFL, SA_NODEFER},
        {"default with siginfo", SIG_DFL, SA_SIGINFO},
        {"ignored with siginfo", SIG_IGN, SA_SIGINFO},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        ActionGuard const guard(SIGUSR1, row.handler, row.flags);
        struct sigaction const before = getAction(SIGUSR1);
        {
            auto const catcher = make(SIGUSR1);
            raiseAndWait(SIGUSR1);
        }
        struct sigaction const after = getAction(SIGUSR1);
        EXPECT_EQ(before.sa_handler, after.sa_handler);
        EXPECT_EQ(before.sa_flags, after.sa_flags);
    }
}

std::atomic<int> s_old_calls{0};
void oldHandler(int) {
    ++s_old_calls;
}
void oldAction(int, siginfo_t*, void*) {
    ++s_old_calls;
}

/// Returns the action of a handler that is not the library's.
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
    void install() {
        ASSERT_EQ(0, sigaction(SIGUSR1, &m_old, nullptr));
        s_old_calls = 0;
    }

    struct sigaction const m_old = makeOld(GetParam());
    char const* const m_text = GetParam() ? OLD_ACTION : OLD_HANDLER;
};

TEST_P(SignalCatcherOldHandlerTest, isAnAssertionAndIsNotCalledButRestored) {
    ActionGuard const guard(SIGUSR1);
    install();
    {
        auto const catcher = make(SIGUSR1);
        expectEvents(m_text);
        raiseAndWait(SIGUSR1);
    }
    EXPECT_EQ(0, s_old_calls);
    raise(SIGUSR1);
    EXPECT_EQ(1, s_old_calls);
    EXPECT_EQ(1u, log.getCount());
}

TEST_P(SignalCatcherOldHandlerTest, isAnAssertionAlsoIfTheSystemRefuses) {
    s_old_of_failure = &m_old;
    {
        Fault const fault(inject_sigaction, EINVAL);
        auto const catcher = make(SIGUSR1);
        expectEvents(m_text);
    }
    s_old_of_failure = nullptr;
    EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
}

TEST_P(SignalCatcherOldHandlerTest, leavesNothingBehindIfTheAssertionUnwinds) {
    ActionGuard const guard(SIGUSR1);
    install();
    Handler::Hook const hook{
        [](Handler::Event const& event, void*) -> bool { throw std::runtime_error(event.expression); },
        nullptr};
    Handler::Hook const* const before = Handler::setHook(&hook);
    EXPECT_THROW(makeQueued(SIGUSR1), std::runtime_error);
    EXPECT_THROW(make(SIGUSR1), std::runtime_error);
    Handler::setHook(before);
    EXPECT_EQ(m_old.sa_handler, getAction(SIGUSR1).sa_handler);
    SignalCatcher::enqueue_signal(SIGUSR1);
    EXPECT_EQ(0, notifier.signals);
    EXPECT_FALSE(queue.sign_on(SIGUSR1, CallLog::record, &log));
}

INSTANTIATE_TEST_SUITE_P(All, SignalCatcherOldHandlerTest, testing::Bool(), [](auto const& row) {
    return row.param ? "WithSiginfo" : "Plain";
});

TEST_F(SignalCatcherTest, refusalOfTheSystemIsNotReportedAndTheDestructorSignsOff) {
    for (int const signal : {SIGKILL, SIGSTOP, 0, 32, SIGKILL, SIGSTOP, 0, 32}) {
        SCOPED_TRACE(signal);
        Fault const calls(inject_sigaction, 0);
        auto catcher = make(signal);
        EXPECT_TRUE(chainIs({}));
        EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
        catcher.reset();
        EXPECT_EQ(1, calls.getCalls()) << "the old action is not restored, as it was not replaced";
    }
}

TEST_F(SignalCatcherTest, replacedHandlerIsAnAssertionAfterTheOldActionIsRestored) {
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
    auto catcher = make(SIGUSR1);
    struct sigaction const other = makeOld(false);
    ASSERT_EQ(0, sigaction(SIGUSR1, &other, nullptr));
    Handler::Hook const* const before = Handler::setHook(&hook);
    catcher.reset();
    Handler::setHook(before);
    EXPECT_EQ(
        "framework/src/vesk/SignalCatcherImpl-posix ~SignalCatcherImpl: action.sa_handler==enqueue_signal",
        look.text);
    EXPECT_EQ(SIG_IGN, look.handler);
    EXPECT_EQ(SIG_IGN, getAction(SIGUSR1).sa_handler);
    auto const next = make(SIGUSR1); // The rest was cleaned up.
    raiseAndWait(SIGUSR1);
}

// ---- broken preconditions ----

struct BadNumber {
    char const* name;
    int signal;
    char const* in_constructor;
    char const* in_handler;
};

BadNumber const BAD_NUMBERS[] = {
    {"Minus1", -1, "0<=signal", "signal>=0"},
    {"Lowest", INT_MIN, "0<=signal", "signal>=0"},
    {"65", 65, "signal<TARN_NSIGNALS", "signal<TARN_NSIGNALS"},
    {"Highest", INT_MAX, "signal<TARN_NSIGNALS", "signal<TARN_NSIGNALS"}};

VESK_TEST_TABLE(
    SignalCatcherNumberTest, outOfRangeIsAnAssertionAndCatchesNothing, SignalCatcherTest, BAD_NUMBERS) {
    Fault const calls(inject_sigaction, 0);
    makeQueued(GetParam().signal).reset();
    make(GetParam().signal).reset();
    SignalCatcher::enqueue_signal(GetParam().signal);
    std::string const place = "ASSERT framework/src/vesk/SignalCatcherImpl-posix ";
    std::string const line = place + "SignalCatcherImpl: " + GetParam().in_constructor + "\n";
    expectEvents(line + line + place + "enqueue_signal: " + GetParam().in_handler);
    EXPECT_EQ(0, calls.getCalls());
}

TEST(SignalCatcherFatalTest, brokenSelfPipeEndsTheProcessAtTheNextSignal) {
    EXPECT_TRUE(abortsWith("write to self-pipe failed with errno=9 (Bad file descriptor)\n", [] {
        CallLog log;
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
        close(s_pipe[1]);
        raise(SIGUSR1);
    }));
}

// ---- sequences of operations ----

/// A sequence of steps with catchers A, B1, and so on. The first letter of a catcher is that of its log.
struct Scenario {
    char const* name;
    std::vector<std::string> steps;
};

class SignalCatcherSteps : public SignalCatcherTest {
protected:
    using Words = std::vector<std::string>;

    static int getSignal(std::string const& word) { return word == "USR1" ? SIGUSR1 : SIGUSR2; }
    CallLog& logOf(std::string const& name) { return m_logs[name[0]]; }

    void run(Words const& words) {
        std::string const& name = words[words.size() == 1 ? 0 : 1];
        int const signal = getSignal(words.back());
        int const number = atoi(words.back().c_str());
        CallLog& calls = logOf(name);
        std::map<std::string, std::function<void()>> const verbs{
            {"make", [&] { m_catchers[name].emplace(signal, CallLog::record, &calls); }},
            {"makeQueued", [&] { m_catchers[name].emplace(signal, queue, CallLog::record, &calls); }},
            {"makeOther", [&] { m_catchers[name].emplace(signal, m_other_queue, CallLog::record, &calls); }},
            {"end", [&] { m_catchers[name].reset(); }},
            {"raise", [&] { raise(signal); }},
            {"kill", [&] { kill(getpid(), signal); }},
            {"enqueue", [&] { SignalCatcher::enqueue_signal(signal); }},
            {"enqueueEach",
             [&] {
                 for (int each = 0; each < vesk::TARN_NSIGNALS; ++each) {
                     SignalCatcher::enqueue_signal(each);
                 }
             }},
            {"block", [&] { SignalSet(signal).block(); }},
            {"unblock", [&] { SignalSet(signal).unblock(); }},
            {"ignored", [&] { m_guard.emplace(signal, SIG_IGN); }},
            {"restored", [&] { m_guard.emplace(signal); }},
            {"refused", [&] { m_fault.emplace(inject_sigaction, EPERM); }},
            {"refusals", [&] { EXPECT_EQ(number, m_fault->getCalls()); }},
            {"wait", [&] { EXPECT_TRUE(calls.waitFor(static_cast<size_t>(number))); }},
            {"threads", [&] { EXPECT_TRUE(hasThreads(g_threads_at_start + number)); }},
            {"notified", [&] { EXPECT_EQ(number, notifier.signals); }},
            {"pop", [&] { EXPECT_EQ(number, popAll(queue)); }},
            {"popOther", [&] { EXPECT_EQ(number, popAll(m_other_queue)); }},
            {"isFree", [&] { EXPECT_FALSE(queue.sign_on(signal, CallLog::record, &calls)); }},
            {"isFreeInOther", [&] { EXPECT_FALSE(m_other_queue.sign_on(signal, CallLog::record, &calls)); }},
            {"isCaught", [&] { EXPECT_EQ(&SignalCatcher::enqueue_signal, getAction(signal).sa_handler); }},
            {"isDefault", [&] { EXPECT_EQ(SIG_DFL, getAction(signal).sa_handler); }},
            {"isIgnored", [&] { EXPECT_EQ(SIG_IGN, getAction(signal).sa_handler); }},
            {"calls",
             [&] {
                 Signals expected;
                 for (size_t i = 2; i < words.size(); ++i) {
                     expected.push_back(getSignal(words[i]));
                 }
                 EXPECT_EQ(expected, calls.getSignals());
             }},
            {"calledOnOneOtherThread", [&] {
                 for (CallLog::Call const& call : calls.getCalls()) {
                     EXPECT_NE(getThreadId(), call.thread);
                     EXPECT_EQ(calls.getCalls()[0].thread, call.thread);
                 }
             }}};
        verbs.at(words[0])();
    }

    std::map<char, CallLog> m_logs;
    SignalQueue m_other_queue{notifier};
    std::optional<ActionGuard> m_guard;
    std::optional<Fault> m_fault;
    std::map<std::string, std::optional<SignalCatcher>> m_catchers;
};

Scenario const SCENARIOS[] = {
    {"callsBackOnAnotherThreadForASignalToTheProcessOrToAThread",
     {"make A USR1", "kill USR1", "wait A 1", "raise USR1", "wait A 2", "calls A USR1 USR1",
      "calledOnOneOtherThread A"}},
    // The signal with the higher number comes after pending signals of the lower one.
    {"callsBackOnceForStandardSignalsThatTheKernelMerged",
     {"block USR1", "make A1 USR1", "make A2 USR2", "kill USR1", "kill USR1", "kill USR1", "unblock USR1",
      "raise USR2", "wait A 2", "calls A USR1 USR2"}},
    {"passesItsOwnDataToEachCallback",
     {"make A USR1", "make B USR2", "raise USR2", "wait B 1", "raise USR1", "wait A 1", "calls A USR1",
      "calls B USR2"}},
    {"refusedByTheSystemItLeavesTheActionAloneButClearsItsRow",
     {"refused", "makeQueued A USR1", "isDefault USR1", "enqueue USR1", "notified 1", "end A", "enqueue USR1",
      "notified 1", "pop 0"}},
    {"failureToRestoreTheActionIsNoAssertionAndTheHandlerThatStaysFindsNoQueue",
     {"restored USR1", "makeQueued A USR1", "refused", "end A", "refusals 1", "isCaught USR1", "raise USR1",
      "notified 0"}},
    {"secondCatcherOfASignalIsAnAssertionAndTheFirstContinues",
     {"make A USR1", "make B USR1",
      "ASSERT framework/src/vesk/SignalQueuePosixBase sign_on: signals[signal].callback==NULL", "raise USR1",
      "wait A 1", "calls B", "end B", "raise USR1", "wait A 2", "isCaught USR1"}},
    {"catcherWithASecondQueueIsAnAssertionAndStaysIfTheFirstEnds",
     {"ignored USR1", "makeQueued A1 USR1", "makeOther A2 USR1", OLD_HANDLER, "raise USR1", "pop 0",
      "popOther 1", "end A1", "isCaught USR1", "raise USR1", "pop 0", "popOther 1", "end A2",
      "isIgnored USR1", "isFree USR1", "isFreeInOther USR1"}},
    {"catcherWithASecondQueueIsAnAssertionAndGivesTheSignalBackAtItsEnd",
     {"ignored USR1", "makeQueued A1 USR1", "makeOther A2 USR1", OLD_HANDLER, "raise USR1", "pop 0",
      "popOther 1", "end A2", "isCaught USR1", "raise USR1", "pop 1", "popOther 0", "end A1",
      "isIgnored USR1", "isFree USR1", "isFreeInOther USR1"}},
    {"oneOfThreeMayEndInAnyOrder",
     {"ignored USR1", "makeQueued A1 USR1", "makeOther A2 USR1", "make A3 USR1",
      std::string(OLD_HANDLER) + "\n" + OLD_HANDLER, "end A1", "end A2", "isCaught USR1", "end A3",
      "isIgnored USR1", "isFree USR1", "isFreeInOther USR1"}},
    {"destructorDropsPendingSignals",
     {"makeQueued A USR1", "raise USR1", "raise USR1", "end A", "makeQueued A USR1", "pop 0", "raise USR1",
      "pop 1"}},
    {"aHandlerThatFindsNoQueueDropsItsSignal", {"makeQueued A USR1", "end A", "enqueueEach", "notified 0"}},
    {"twoWithoutAQueueUseOneThreadAndTheDestructionOfOneLeavesTheOtherWorking",
     {"make A1 USR1", "make A2 USR2", "threads 1", "raise USR1", "wait A 1", "raise USR2", "wait A 2",
      "end A1", "threads 1", "isDefault USR1", "raise USR2", "wait A 3", "calls A USR1 USR2 USR2",
      "calledOnOneOtherThread A"}},
    {"bothFormsWorkSideBySide",
     {"make A USR1", "makeQueued B USR2", "raise USR1", "raise USR2", "wait A 1", "pop 1", "calls A USR1",
      "calls B USR2"}}};

VESK_TEST_TABLE(SignalCatcherScenario, hasTheExpectedEffects, SignalCatcherSteps, SCENARIOS) {
    for (std::string const& step : GetParam().steps) {
        SCOPED_TRACE(step);
        std::istringstream words(step);
        if (step.find("ASSERT") == 0) {
            expectEvents(step);
        } else {
            run({std::istream_iterator<std::string>(words), {}});
        }
    }
    m_catchers.clear();
    popAll(m_other_queue);
}

// ---- the order of making and destroying ----

TEST_F(SignalCatcherTest, aSignalBeforeTheHandlerIsInstalledMeetsTheOldAction) {
    ActionGuard const guard(SIGUSR1, oldHandler);
    s_old_calls = 0;
    bool published = false;
    s_before_sigaction = [&] {
        raise(SIGUSR1);
        EXPECT_EQ(1, s_old_calls);
        EXPECT_EQ(0, notifier.signals);
        // Everything else is ready for the handler by now.
        SignalCatcher::enqueue_signal(SIGUSR1);
        published = notifier.signals == 1;
    };
    auto const catcher = makeQueued(SIGUSR1);
    expectEvents(OLD_HANDLER);
    EXPECT_TRUE(published);
    EXPECT_EQ(1, popAll(queue));
}

TEST_F(SignalCatcherTest, aSignalDuringTheRemovalOfTheHandlerIsDropped) {
    auto catcher = makeQueued(SIGUSR1);
    s_after_sigaction = [&] {
        EXPECT_EQ(SIG_DFL, getAction(SIGUSR1).sa_handler);
        // A handler that has begun in another thread still finds the queue.
        std::thread([] { SignalCatcher::enqueue_signal(SIGUSR1); }).join();
        EXPECT_EQ(1, notifier.signals);
    };
    catcher.reset();
    EXPECT_EQ(1, notifier.signals);
    EXPECT_EQ(0, popAll(queue));
    queue.sign_on(SIGUSR1, CallLog::record, &log);
    EXPECT_EQ(0, popAll(queue));
}

TEST_F(SignalCatcherTest, destructorWaitsForAHandlerThatUsesTheQueueInAnotherThread) {
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    std::atomic<bool> left{false};
    notifier.on_signal = [&] {
        entered = true;
        while (!released) {
            sched_yield();
        }
        left = true;
    };
    auto catcher = makeQueued(SIGUSR1);
    std::thread handling([] { raise(SIGUSR1); });
    EXPECT_TRUE(eventually([&] { return entered.load(); }));
    Sleeper destroyer([&] {
        catcher.reset();
        EXPECT_TRUE(left);
    });
    destroyer.awaitSleep();
    EXPECT_FALSE(destroyer.isDone());
    // Later signals meet the old action already.
    EXPECT_TRUE(eventually([] { return getAction(SIGUSR1).sa_handler == SIG_DFL; }));
    released = true;
    handling.join();
    destroyer.join();
    EXPECT_TRUE(destroyer.isDone());
    EXPECT_EQ(0, popAll(queue));
}

// ---- both forms and their threads ----

TEST_F(SignalCatcherTest, afterTheLastOneANewOneMakesANewThreadAndANewPipe) {
    int const pipes = s_pipes;
    for (size_t i = 1; i <= 2; ++i) {
        {
            auto const catcher = make(SIGUSR1);
            auto const other = make(SIGUSR2);
            EXPECT_EQ(pipes + static_cast<int>(i), s_pipes);
            EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
            raiseAndWait(SIGUSR1);
        }
        EXPECT_TRUE(hasThreads(g_threads_at_start));
        // The pipe is closed with the thread.
        char byte = 0;
        EXPECT_EQ(-1, read(s_pipe[0], &byte, 1));
        EXPECT_EQ(EBADF, errno);
        EXPECT_EQ(-1, write(s_pipe[1], "", 1));
        EXPECT_EQ(EBADF, errno);
    }
    EXPECT_NE(log.getCalls()[0].thread, log.getCalls()[1].thread);
}

TEST_F(SignalCatcherTest, withAQueueItStartsNoThreadAndCallsBackInTheThreadOfItsDispatcher) {
    SignalQueue::Notifier own_notifier;
    SignalQueue own_queue(own_notifier);
    Dispatcher dispatcher(own_notifier);
    dispatcher.add_source(own_queue);
    Callback callback{[&](int signal) {
        CallLog::record(signal, &log);
        dispatcher.stop();
    }};
    SignalCatcher const catcher(SIGUSR1, own_queue, Callback::run, &callback);
    EXPECT_TRUE(hasThreads(g_threads_at_start));
    raise(SIGUSR1);
    EXPECT_EQ(0u, log.getCount());
    dispatcher.run();
    EXPECT_EQ(1u, log.getCount());
    EXPECT_EQ(getThreadId(), log.getCalls()[0].thread);
    EXPECT_TRUE(hasThreads(g_threads_at_start));
}

TEST_F(SignalCatcherTest, mayBeMadeAndDestroyedByACallback) {
    std::unique_ptr<SignalCatcher> inner;
    Callback callback{[&](int signal) {
        if (inner == nullptr) {
            inner = make(SIGUSR2);
        } else {
            inner.reset();
        }
        CallLog::record(signal, &log);
    }};
    SignalCatcher const outer(SIGUSR1, Callback::run, &callback);
    raiseAndWait(SIGUSR1);
    raiseAndWait(SIGUSR2);
    raiseAndWait(SIGUSR1);
    EXPECT_EQ((Signals{SIGUSR1, SIGUSR2, SIGUSR1}), log.getSignals());
    EXPECT_EQ(SIG_DFL, getAction(SIGUSR2).sa_handler);
}

TEST_F(SignalCatcherTest, mayBeMadeByACallbackWhileAnotherThreadDestroysTheLastOne) {
    expectInChild([this] {
        std::atomic<bool> entered{false};
        std::atomic<pid_t> destroyer{0};
        std::unique_ptr<SignalCatcher> next;
        Callback callback{[&](int) {
            entered = true;
            EXPECT_TRUE(eventually([&] { return destroyer != 0; }));
            waitUntilAsleep(getpid(), destroyer);
            next = make(SIGUSR2);
        }};
        auto last = std::make_unique<SignalCatcher>(SIGUSR1, Callback::run, &callback);
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(eventually([&] { return entered.load(); }));
        destroyer = getThreadId();
        last.reset();
        ASSERT_NE(nullptr, next) << "the destructor waits for the callback";
        kill(getpid(), SIGUSR2);
        EXPECT_TRUE(log.waitFor(1));
    });
}

TEST_F(SignalCatcherTest, worksLikeATimerWithMoreDescriptorsThanASetCanHold) {
    ChildEnd const end = runWithDescriptors(1501, [this] {
        auto const catcher = make(SIGUSR1);
        EXPECT_LT(1500, s_pipe[0]);
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(log.waitFor(1));
        static std::atomic<int> rung{0};
        vesk::Timer timer([](vesk::Timer*) { ++rung; }, false);
        EXPECT_FALSE(timer.start(1, true));
        EXPECT_TRUE(eventually([] { return rung >= 3; }));
    });
    VESK_SKIP_WITHOUT_DESCRIPTORS(end);
    EXPECT_EQ(0, end.exit_code) << end.signal << end.output << end.errors;
}

TEST_F(SignalCatcherTest, callsBackForEverySignalThatCanBeCaught) {
    CatchableSignals const catchable;
    std::vector<std::unique_ptr<SignalCatcher>> catchers;
    for (int const signal : catchable.get()) {
        catchers.push_back(make(signal));
    }
    for (int const signal : catchable.get()) {
        raiseAndWait(signal);
    }
    EXPECT_EQ(catchable.get(), log.getSignals());
}

TEST(SignalCatcherClassTest, addsOnlyItsConstructors) {
    static_assert(std::is_base_of_v<vesk::SignalCatcherImpl, SignalCatcher>);
    static_assert(!std::is_polymorphic_v<SignalCatcher>);
    static_assert(!std::is_copy_constructible_v<SignalCatcher>);
    EXPECT_EQ(sizeof(vesk::SignalCatcherImpl), sizeof(SignalCatcher));
}

} // namespace
