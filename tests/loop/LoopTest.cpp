#include "LoopSupport.h"
#include "support/Child.h"
#include "support/Descriptors.h"
#include "support/Emulation.h"
#include "support/Privileges.h"
#include "support/RunInThreads.h"

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <sys/resource.h>

namespace {

using namespace support;

class LoopTest : public testing::Test {
protected:
    Loop loop;
    std::string log;
    /// Returns a callback that notes its name.
    auto note(char const* name) {
        return [this, name] { log += name; };
    }
};

// ---- running ----

TEST_F(LoopTest, runsUntilItIsStoppedFromACallbackOrAnyThread) {
    ASSERT_TRUE(loop.post([this] { loop.stop(); }));
    EXPECT_TRUE(loop.run());
    std::thread other([this] { loop.stop(); });
    EXPECT_TRUE(loop.run());
    other.join();
    loop.stop();
    EXPECT_TRUE(loop.run()) << "a stop before the run ends it at once";
}

TEST_F(LoopTest, stopEndsTheRunAfterTheCallbackAndTheNextRunGoesOn) {
    for (char const* const name : {"a", "b", "c"}) {
        ASSERT_TRUE(loop.post([this, name] {
            log += name;
            loop.stop();
        }));
    }
    TestPipe pipe;
    pipe.write("x");
    Watch const watch = valueOf(loop.onReadable(
        pipe.getReader(),
        [&] {
            log += pipe.read();
            loop.stop();
        },
        Priority::LOW));
    for (char const* const expected : {"a", "ab", "abc", "abcx"}) {
        EXPECT_TRUE(loop.run());
        EXPECT_EQ(expected, log);
    }
}

TEST_F(LoopTest, runToEndEndsWithTheLastWatch) {
    EXPECT_TRUE(loop.runToEnd()) << "nothing to wait for";
    Timer const timer = valueOf(loop.after(1ms, [this] { (void)loop.post(note("post")); }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("post", log);
}

TEST_F(LoopTest, runOnceCallsWhatIsDueAndWaitsAtMostItsTime) {
    EXPECT_FALSE(valueOf(loop.runOnce()));
    Clock::time_point const begin = Clock::now();
    EXPECT_FALSE(valueOf(loop.runOnce(3ms)));
    EXPECT_LE(3ms, Clock::now() - begin);
    ASSERT_TRUE(loop.post(note("a")));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("a", log);
}

TEST_F(LoopTest, runsInOneThreadAtATimeAndNotInItsOwnCallbacks) {
    ASSERT_TRUE(loop.post([this] {
        Result<> const nested = loop.run();
        EXPECT_FALSE(nested);
        EXPECT_EQ(vesk::loop::LoopErrorId::RUNNING, nested.error().head().getID());
        std::thread([this] { EXPECT_FALSE(loop.runOnce()); }).join();
    }));
    EXPECT_TRUE(loop.runOnce());
}

TEST(LoopWithoutDescriptors, reportsThatFromEachOperation) {
    expectInChild([] {
        rlimit const none{static_cast<rlim_t>(countDescriptors()) + 3, 4096};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        while (dup(0) >= 0) {}
        Loop loop;
        EXPECT_TRUE(loop.run().error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.onReadable(0, [] {}).error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.onSignal(SIGUSR1, [] {}).error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.fd().error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.after(0s, [] {}).error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.onIdle([] {}).error() == std::errc::too_many_files_open);
        EXPECT_TRUE(loop.post([] {}).error() == std::errc::too_many_files_open);
        loop.stop();
    });
}

TEST_F(LoopTest, childOfAForkCannotDisturbTheLoopOfItsParent) {
    TestPipe pipe;
    Watch watch = valueOf(loop.onReadable(pipe.getReader(), [&] { log += pipe.read(); }));
    expectInChild([&] {
        EXPECT_TRUE(loop.run().error() == std::errc::no_child_process);
        EXPECT_TRUE(loop.onWritable(pipe.getWriter(), [] {}).error() == std::errc::no_child_process);
        EXPECT_TRUE(loop.onSignal(SIGUSR1, [] {}).error() == std::errc::no_child_process);
        watch = Watch();
        loop.stop();
        Loop own;
        EXPECT_TRUE(own.post([&own] { own.stop(); }));
        EXPECT_TRUE(own.run());
    });
    pipe.write("x");
    EXPECT_TRUE(runUntil(loop, [this] { return log == "x"; }));
}

TEST_F(LoopTest, canRunAgainAfterItsThreadWasCanceledInACallback) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    std::atomic<bool> waits{false};
    ASSERT_TRUE(loop.post([&waits] {
        waits = true;
        for (;;) {
            pause();
        }
    }));
    std::thread runner([this] { (void)loop.run(); });
    EXPECT_TRUE(eventually([&waits] { return waits.load(); }));
    pthread_cancel(runner.native_handle());
    runner.join();
    std::thread other([this] {
        std::this_thread::sleep_for(5ms);
        EXPECT_TRUE(loop.post([this] { loop.stop(); }));
    });
    EXPECT_TRUE(loop.run());
    other.join();
}

TEST_F(LoopTest, canBeCanceledWhileItWaitsForATimer) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    for (auto const delay : {Clock::duration(1h), Clock::duration(1h + 1ns)}) {
        auto const timer = valueOf(loop.after(delay, note("late")));
        std::atomic<bool> runs{false};
        std::atomic<bool> has_ended{false};
        ASSERT_TRUE(loop.post([&runs] { runs = true; }));
        std::thread runner([&] {
            std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool>*)> const end(
                &has_ended, [](std::atomic<bool>* ended) { *ended = true; });
            (void)loop.run();
        });
        EXPECT_TRUE(eventually([&runs] { return runs.load(); }));
        pthread_cancel(runner.native_handle());
        if (!eventually([&has_ended] { return has_ended.load(); })) {
            ADD_FAILURE() << "not canceled";
            loop.stop();
        }
        runner.join();
    }
}

// ---- order ----

TEST_F(LoopTest, oneRoundCallsInTheOrderOfThePriorities) {
    std::array<TestPipe, 3> pipes;
    std::vector<Watch> watches;
    for (size_t i = 0; i < 3; ++i) {
        pipes[i].write("x");
        constexpr char const* NAMES[] = {"h", "n", "l"};
        watches.push_back(
            valueOf(loop.onReadable(pipes[i].getReader(), note(NAMES[i]), static_cast<Priority>(i))));
    }
    ASSERT_TRUE(loop.post(note("L"), Priority::LOW));
    ASSERT_TRUE(loop.post(note("H"), Priority::HIGH));
    Timer const timer = valueOf(loop.after(0s, note("N")));
    EXPECT_TRUE(loop.runOnce());
    EXPECT_EQ("Hh", log.substr(0, 2));
    EXPECT_EQ("Ll", log.substr(4));
}

TEST_F(LoopTest, noPriorityStarvesAnother) {
    TestPipe pipe;
    pipe.write("x");
    int rounds = 0;
    Watch const eager = valueOf(loop.onReadable(
        pipe.getReader(), [&rounds] { ++rounds; }, Priority::HIGH));
    std::function<void()> again = [&] { (void)loop.post([&again] { again(); }, Priority::HIGH); };
    again();
    int low = 0;
    Timer const timer = valueOf(loop.every(
        1ns, [&] { loop.stop(), ++low; }, Priority::LOW));
    EXPECT_TRUE(loop.run());
    EXPECT_EQ(1, low);
    EXPECT_EQ(1, rounds);
}

TEST_F(LoopTest, idleCallbacksRunOnlyInRoundsWithoutOthers) {
    Watch idle = valueOf(loop.onIdle(note("i")));
    ASSERT_TRUE(loop.post(note("p")));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("pii", log);
    idle.cancel();
    EXPECT_FALSE(valueOf(loop.runOnce()));
}

// ---- posts ----

TEST_F(LoopTest, postsOfManyThreadsArriveInOrderWithoutLoss) {
    constexpr int THREADS = 4;
    constexpr int POSTS = 20000;
    std::array<int, THREADS> next{};
    int wrong = 0;
    int calls = 0;
    std::thread posters([&] {
        runInThreads(THREADS, [&](int thread) {
            for (int i = 0; i < POSTS; ++i) {
                EXPECT_TRUE(loop.post([&, thread, i] {
                    wrong += next[static_cast<size_t>(thread)]++ == i ? 0 : 1;
                    if (++calls == THREADS * POSTS) {
                        loop.stop();
                    }
                }));
            }
        });
    });
    EXPECT_TRUE(loop.run());
    posters.join();
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(THREADS * POSTS, calls);
}

TEST_F(LoopTest, noPostIsLeftWaitingIfTheLoopBeginsToWaitAtTheSameTime) {
    constexpr int POSTS = 20000;
    std::atomic<int> calls{0};
    std::thread poster([&] {
        for (int i = 1; i <= POSTS; ++i) {
            EXPECT_TRUE(loop.post([&calls] { ++calls; }));
            ASSERT_TRUE(eventually([&] { return calls == i; })) << i; // The loop is about to wait now.
        }
        loop.stop();
    });
    EXPECT_TRUE(loop.run());
    poster.join();
    EXPECT_EQ(POSTS, calls);
}

TEST(LoopOfPosts, mayBeDestroyedAsSoonAsTheLastOneHasStoppedIt) {
    for (int round = 0; round < 500; ++round) {
        auto loop = std::make_unique<Loop>();
        std::thread poster([&loop = *loop, round] {
            if (round % 2 == 0) {
                EXPECT_TRUE(loop.post([&loop] { loop.stop(); }));
            } else {
                loop.stop();
            }
        });
        EXPECT_TRUE(loop->run());
        loop.reset(); // The other thread may be inside its call still.
        poster.join();
    }
}

TEST_F(LoopTest, postOfACallbackWaitsForTheNextRound) {
    ASSERT_TRUE(loop.post([this] {
        log += "a";
        EXPECT_TRUE(loop.post(note("b")));
    }));
    EXPECT_TRUE(loop.runOnce());
    EXPECT_EQ("a", log);
    EXPECT_TRUE(loop.runOnce());
    EXPECT_EQ("ab", log);
}

TEST(LoopOfPosts, endsThePostsThatItHasNotCalledAlsoIfAWatchOutlivesIt) {
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const seen = held;
    auto loop = std::make_unique<Loop>();
    TestPipe pipe;
    Watch const outlives = valueOf(loop->onWritable(pipe.getWriter(), [] {}));
    auto watch = std::make_shared<Watch>(valueOf(loop->onReadable(pipe.getReader(), [] {})));
    ASSERT_TRUE(loop->post([held = std::move(held), watch = std::move(watch)] {}));
    loop.reset();
    EXPECT_TRUE(seen.expired());
    EXPECT_FALSE(outlives.isActive());
}

// ---- descriptors ----

TEST_F(LoopTest, levelCallsAsLongAsThereIsDataAndEdgeWhenMoreArrives) {
    for (Trigger const trigger : {Trigger::LEVEL, Trigger::EDGE}) {
        SCOPED_TRACE(trigger == Trigger::EDGE ? "edge" : "level");
        TestPipe pipe;
        int calls = 0;
        Watch const watch = valueOf(loop.onReadable(
            pipe.getReader(), [&calls] { ++calls; }, Priority::NORMAL, trigger));
        pipe.write("x");
        EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
        EXPECT_EQ(trigger == Trigger::LEVEL, valueOf(loop.runOnce()));
        pipe.write("y");
        EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
        EXPECT_EQ(trigger == Trigger::LEVEL ? 3 : 2, calls);
    }
}

TEST_F(LoopTest, dataBeforeAHangUpIsDelivered) {
    TestPipe pipe;
    Watch watch;
    watch = valueOf(loop.onReadable(pipe.getReader(), [&] {
        std::string const text = pipe.read(2);
        log += text.empty() ? "." : text;
        if (text.empty()) {
            watch.cancel();
        }
    }));
    pipe.write("data");
    pipe.closeWriter();
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("data.", log);
}

TEST_F(LoopTest, bothDirectionsOfADescriptorAreWatchedApart) {
    TestPipe pipe;
    Watch writer = valueOf(loop.onWritable(pipe.getWriter(), note("w")));
    Watch const reader = valueOf(loop.onReadable(pipe.getReader(), note("r")));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("w", log);
    writer.cancel();
    pipe.write("x");
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("wr", log);
}

TEST_F(LoopTest, refusesADescriptorThatIsWatchedClosedOrAFile) {
    TestPipe pipe;
    Watch const watch = valueOf(loop.onReadable(pipe.getReader(), [] {}));
    EXPECT_TRUE(loop.onReadable(pipe.getReader(), [] {}).error() == std::errc::file_exists);
    EXPECT_TRUE(loop.onReadable(-1, [] {}).error() == std::errc::bad_file_descriptor);
    EXPECT_TRUE(loop.onWritable(INT_MAX, [] {}).error() == std::errc::bad_file_descriptor);
    int const file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(loop.onReadable(file, [] {}).error() == std::errc::operation_not_permitted);
    close(file);
}

TEST_F(LoopTest, numberOfAClosedDescriptorCanBeWatchedAgain) {
    auto first = std::make_unique<TestPipe>();
    Watch watch = valueOf(loop.onReadable(first->getReader(), note("1")));
    int const number = first->getReader();
    first.reset();
    watch.cancel();
    TestPipe second;
    ASSERT_EQ(number, second.getReader());
    watch = valueOf(loop.onReadable(number, note("2")));
    second.write("x");
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("2", log);
}

// ---- timers ----

TEST_F(LoopTest, timersExpireInTheOrderOfTheirMomentsAndStarts) {
    std::vector<int> order;
    std::vector<Timer> timers;
    std::vector<int> expected;
    Clock::time_point const base = Clock::now() + 1ms;
    for (int i = 0; i < 1000; ++i) {
        int const slot = i * 7919 % 100;
        timers.push_back(valueOf(loop.at(base + slot * 10us, [&order, i] { order.push_back(i); })));
        expected.push_back(i);
    }
    std::stable_sort(expected.begin(), expected.end(), [](int one, int other) {
        return one * 7919 % 100 < other * 7919 % 100;
    });
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(expected, order);
}

TEST_F(LoopTest, periodicTimerStaysOnItsGridAndLeavesMissedMomentsOut) {
    constexpr auto PERIOD = 4ms;
    std::vector<Clock::duration> moments;
    Clock::time_point const begin = Clock::now();
    Timer const timer = valueOf(loop.every(PERIOD, [&] {
        moments.push_back(Clock::now() - begin);
        if (moments.size() == 3) {
            std::this_thread::sleep_for(3 * PERIOD);
        }
        if (moments.size() == 6) {
            loop.stop();
        }
    }));
    EXPECT_TRUE(loop.run());
    for (size_t i = 0; i < moments.size(); ++i) {
        EXPECT_LE(static_cast<int>(i + 1) * PERIOD, moments[i]) << i;
    }
    // The fourth call is late, and two moments were missed after it.
    EXPECT_LE(6 * PERIOD, moments[3]);
    EXPECT_LE(7 * PERIOD, moments[4]);
}

TEST_F(LoopTest, restartMovesATimerAlsoAfterItHasExpired) {
    int calls = 0;
    Timer timer = valueOf(loop.after(1h, [&] { ++calls; }));
    timer.restart(0s);
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_FALSE(timer.isActive());
    timer.restart(1ms);
    EXPECT_TRUE(timer.isActive());
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(2, calls);
}

TEST_F(LoopTest, stoppedTimerIsNotCalledUntilItIsRestarted) {
    Timer timer;
    timer = valueOf(loop.every(1ms, [&] {
        log += "x";
        timer.stop();
    }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_FALSE(timer.isActive());
    timer.restart(0s);
    timer.stop();
    EXPECT_TRUE(loop.runToEnd());
    timer.restart(0s);
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("xx", log);
    Timer().stop();
}

TEST_F(LoopTest, restartOfATimerThatIsDueInThisRoundPutsItOff) {
    Timer second;
    Timer const first = valueOf(loop.after(0s, [&] {
        log += "1";
        second.restart(1ms);
    }));
    second = valueOf(loop.after(0s, note("2")));
    std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(loop.runOnce());
    EXPECT_EQ("1", log);
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("12", log);
}

TEST_F(LoopTest, timersBeyondAllTimesExpireNeverOrAtOnce) {
    valueOf(loop.fd()); // Has a descriptor for the timers, too.
    Timer const never = valueOf(loop.after(Clock::duration::max(), note("a")));
    Timer const rarely = valueOf(loop.every(Clock::duration::max(), note("b")));
    Timer const now = valueOf(loop.at(Clock::time_point::min(), note("c")));
    Timer const past = valueOf(loop.after(Clock::duration::min(), note("d")));
    Timer const often = valueOf(loop.every(-1s, [this] { loop.stop(); }));
    EXPECT_TRUE(loop.run());
    EXPECT_EQ("cd", log);
}

TEST(TimerOfNoLoop, isNotStartedAgain) {
    auto loop = std::make_unique<Loop>();
    Timer timer = valueOf(loop->after(1h, [] {}));
    loop.reset();
    timer.restart(0s);
    EXPECT_FALSE(timer.isActive());
}

TEST_F(LoopTest, timerOfAnotherThreadEndsAWaitThatIsTooLong) {
    Timer timer;
    std::thread other([&] {
        std::this_thread::sleep_for(5ms);
        timer = valueOf(loop.after(1ms, [this] { loop.stop(); }));
    });
    EXPECT_TRUE(loop.run());
    other.join();
}

// ---- the real-time clock ----

TEST_F(LoopTest, datesComeOnceAndLateOnesAtOnce) {
    using Date = std::chrono::system_clock;
    Date::time_point const date = Date::now() + 100ms; // An emulator takes 10 ms for the first calls.
    Watch const soon = valueOf(loop.atDate(date, [&] {
        EXPECT_LE(date, Date::now());
        log += "s";
    }));
    Watch const past = valueOf(loop.atDate(Date::time_point(), note("p"), Priority::HIGH));
    Watch const ancient = valueOf(loop.atDate(Date::time_point(-1h), note("a"), Priority::LOW));
    EXPECT_TRUE(valueOf(loop.runOnce(-1s)));
    EXPECT_EQ("pa", log.substr(0, 2));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("pas", log);
    Watch const never = valueOf(loop.atDate(Date::time_point::max(), note("n")));
    Watch const set = valueOf(loop.onClockSet(note("c")));
    EXPECT_FALSE(valueOf(loop.runOnce(5ms)));
    EXPECT_TRUE(never.isActive() && set.isActive());
}

// ---- signals and children ----

TEST_F(LoopTest, signalsOfTheProcessAndTheThreadCallAllTheirWatches) {
    expectInChild([this] {
        Loop own;
        Watch const one = valueOf(own.onSignal(SIGUSR1, note("1")));
        Watch const other = valueOf(own.onSignal(SIGUSR1, note("2")));
        Watch const second = valueOf(own.onSignal(SIGUSR2, note("3")));
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(valueOf(own.runOnce(-1s)));
        EXPECT_EQ("12", log);
        raise(SIGUSR2);
        EXPECT_TRUE(valueOf(own.runOnce(-1s)));
        EXPECT_EQ("123", log);
    });
}

TEST_F(LoopTest, refusesSignalsThatNoProcessCanCatch) {
    for (int const signal : {0, -1, SIGKILL, SIGSTOP, NSIG}) {
        EXPECT_TRUE(loop.onSignal(signal, [] {}).error() == std::errc::invalid_argument) << signal;
    }
}

TEST_F(LoopTest, reportsHowEachChildEndsOnceAndReapsIt) {
    TestPipe gate;
    pid_t const exits = startChild(7);
    pid_t const waits = startChild(0, gate.getReader());
    std::vector<Exit> ends;
    auto const add = [&ends](Exit const& end) { ends.push_back(end); };
    Watch const first = valueOf(loop.onExit(exits, add));
    Watch const second = valueOf(loop.onExit(waits, add));
    ASSERT_TRUE(runUntil(loop, [&] { return ends.size() == 1; }));
    EXPECT_EQ(exits, ends[0].pid);
    EXPECT_EQ(7, ends[0].code);
    EXPECT_EQ(0, ends[0].signal);
    EXPECT_FALSE(ends[0].ok());
    EXPECT_FALSE(first.isActive());
    kill(waits, SIGKILL);
    EXPECT_TRUE(loop.runToEnd());
    ASSERT_EQ(2u, ends.size());
    EXPECT_EQ(-1, ends[1].code);
    EXPECT_EQ(SIGKILL, ends[1].signal);
    EXPECT_EQ(-1, waitpid(exits, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(LoopTest, refusesAProcessThatIsNotAChild) {
    EXPECT_TRUE(loop.onExit(-1, [](Exit const&) {}).error() == std::errc::invalid_argument);
    EXPECT_TRUE(loop.onExit(getpid(), [](Exit const&) {}).error() == std::errc::no_child_process);
}

TEST_F(LoopTest, doesNotKnowHowAChildEndedThatOtherCodeHasReaped) {
    TestPipe gate;
    pid_t const child = startChild(0, gate.getReader());
    Exit exit;
    Watch const watch = valueOf(loop.onExit(child, [&exit](Exit const& end) { exit = end; }));
    gate.write("x");
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ(child, exit.pid);
    EXPECT_EQ(-1, exit.code);
    EXPECT_EQ(0, exit.signal);
    EXPECT_FALSE(exit.ok());
}

// ---- inside another loop ----

TEST_F(LoopTest, runsInsideAnotherLoopByItsDescriptor) {
    Loop inner;
    TestPipe pipe;
    Watch const reader = valueOf(inner.onReadable(pipe.getReader(), [&] { log += pipe.read(); }));
    Timer const timer = valueOf(inner.every(1ms, [&] { log += log.size() < 5 ? "t" : ""; }));
    Watch const watch =
        valueOf(loop.onReadable(valueOf(inner.fd()), [&inner] { EXPECT_TRUE(inner.runOnce()); }));
    pipe.write("p");
    EXPECT_TRUE(runUntil(loop, [this] { return log.size() == 5; }));
    EXPECT_NE(std::string::npos, log.find('p'));
    std::thread([&inner, this] { EXPECT_TRUE(inner.post(note("!"))); }).join();
    EXPECT_TRUE(runUntil(loop, [this] { return log.back() == '!'; }));
}

TEST_F(LoopTest, insideAnotherLoopHasItsIdleCallbacks) {
    Loop inner;
    int calls = 0;
    Watch const idle = valueOf(inner.onIdle([&calls] { ++calls; }));
    Watch const watch =
        valueOf(loop.onReadable(valueOf(inner.fd()), [&inner] { EXPECT_TRUE(inner.runOnce()); }));
    EXPECT_TRUE(runUntil(loop, [&calls] { return calls == 5; }));
}

// ---- exceptions ----

TEST_F(LoopTest, exceptionsOfCallbacksGoToTheHookAndTheLoopGoesOn) {
    loop.setExceptionHook([this](std::exception_ptr const& exception) {
        try {
            std::rethrow_exception(exception);
        } catch (std::runtime_error const& error) {
            log += error.what();
        }
    });
    ASSERT_TRUE(loop.post([] { throw std::runtime_error("post"); }));
    Timer const timer = valueOf(loop.after(0s, [] { throw std::runtime_error("timer"); }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("posttimer", log);
}

TEST_F(LoopTest, exceptionOfACallbackThatHasEndedItsOwnWatchMayEndOthersToo) {
    loop.setExceptionHook([this](std::exception_ptr const&) { log += "!"; });
    TestPipe pipe;
    auto other = std::make_shared<Watch>(valueOf(loop.onReadable(pipe.getReader(), [] {})));
    Watch own;
    own = valueOf(loop.onIdle([&own, other = std::move(other)] {
        own = Watch();
        throw std::runtime_error("end"); // The last owner of the other watch is destroyed with this callback.
    }));
    EXPECT_TRUE(loop.runToEnd());
    EXPECT_EQ("!", log);
}

TEST_F(LoopTest, hookThatIsReplacedMayOwnWatches) {
    auto watch = std::make_shared<Watch>(valueOf(loop.onIdle([] {})));
    loop.setExceptionHook([watch = std::move(watch)](std::exception_ptr const&) {});
    loop.setExceptionHook({});
    EXPECT_TRUE(loop.runToEnd());
}

TEST(LoopWithoutAHook, endsTheProcessWithAnException) {
    ChildEnd const end = runInChild([] {
        Loop loop;
        (void)loop.post([] { throw 1; });
        (void)loop.run();
    });
    EXPECT_EQ(SIGABRT, end.signal);
}

} // namespace
