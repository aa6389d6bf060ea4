#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <vesk/Dispatcher.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::runInChild;
using vesk::Dispatcher;
using vesk::Message;
using VanillaQueue = vesk::Dispatcher::VanillaQueue;

/// What happened, in order. One thread at a time.
using Log = std::vector<std::string>;

/// A message that logs what is done to it. Whoever pushes it may have it do something as its work.
class TestMessage : public Message {
public:
    TestMessage(Log& log, std::string name, std::function<void()> work = {})
        : m_log(log), m_name(std::move(name)), m_work(std::move(work)) {}
    ~TestMessage() override { m_log.push_back("delete " + m_name); }

    void get_handled_by(Handler* handler) override { handler->handle(*this); }
    void invoke() override {
        m_log.push_back("invoke " + m_name);
        if (m_work) {
            m_work();
        }
    }
    int abort() override {
        m_log.push_back("abort " + m_name);
        return 0;
    }

    std::string const& getName() const { return m_name; }
    Log& getLog() { return m_log; }

private:
    Log& m_log;
    std::string m_name;
    std::function<void()> m_work;
};

class TestHandler : public Message::Handler {
public:
    explicit TestHandler(std::string name, std::function<void()> work = {})
        : m_name(std::move(name)), m_work(std::move(work)) {}

    void handle(Message& message) override {
        auto& shown = dynamic_cast<TestMessage&>(message);
        shown.getLog().push_back(m_name + " sees " + shown.getName());
        if (m_work) {
            m_work();
        }
    }

private:
    std::string m_name;
    std::function<void()> m_work;
};

/// The ready-made notifier, with a count of who goes to sleep on it.
class CountingNotifier : public Dispatcher::VanillaNotifier {
public:
    void wait() override {
        ++waits;
        Dispatcher::VanillaNotifier::wait();
    }

    void awaitWaits(int count) const {
        while (waits < count) {
            std::this_thread::yield();
        }
    }

    std::atomic<int> waits{0};
};

/// The ready-made queue, with a count of who asks it.
class CountingQueue : public VanillaQueue {
public:
    using VanillaQueue::VanillaQueue;
    Message* pop_nonblock() override {
        ++pops;
        return VanillaQueue::pop_nonblock();
    }

    std::atomic<int> pops{0};
};

class DispatcherTest : public testing::Test {
protected:
    /// A message that only logs.
    TestMessage* make(std::string name, std::function<void()> work = {}) {
        return new TestMessage(m_log, std::move(name), std::move(work));
    }
    /// A message that stops the dispatcher.
    TestMessage* makeStop(std::string name = "stop") {
        return make(std::move(name), [this] { m_dispatcher.stop(); });
    }
    /// A message that does nothing at all.
    Message* makeQuiet() { return new Message; }

    Log m_log;
    CountingNotifier m_notifier;
    CountingQueue m_first{m_notifier};
    CountingQueue m_second{m_notifier};
    Dispatcher m_dispatcher{m_notifier};
};

// ---- run and stop ----

TEST_F(DispatcherTest, withoutSourcesItSleepsAtOnceAndLeavesOnlyThroughStop) {
    std::atomic<bool> returned{false};
    std::thread loop([&] {
        m_dispatcher.run();
        returned = true;
    });
    m_notifier.awaitWaits(1);
    EXPECT_FALSE(returned);
    m_notifier.signal();
    m_notifier.awaitWaits(2);
    EXPECT_FALSE(returned) << "a wake-up alone is no reason to leave";
    EXPECT_TRUE(m_dispatcher.isRunning());
    m_dispatcher.stop();
    loop.join();
    EXPECT_TRUE(m_dispatcher.isRunning());
    EXPECT_TRUE(m_log.empty());
}

TEST_F(DispatcherTest, isRunningFromConstructionOn) {
    EXPECT_TRUE(m_dispatcher.isRunning());
    m_dispatcher.stop();
    EXPECT_FALSE(m_dispatcher.isRunning());
}

TEST_F(DispatcherTest, stopBeforeRunMakesItReturnAtOnceWithoutAskingASource) {
    m_dispatcher.add_source(m_first);
    m_first.push(makeStop());
    m_dispatcher.stop();
    m_dispatcher.run();
    EXPECT_EQ(0, m_first.pops);
    EXPECT_EQ(0, m_notifier.waits);
    EXPECT_TRUE(m_dispatcher.isRunning());
    EXPECT_TRUE(m_log.empty());
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log) << "the second run enters the loop";
}

TEST_F(DispatcherTest, stoppedTwiceBeforeRunItReturnsAtOnceOnlyOnce) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.stop();
    m_dispatcher.stop();
    m_dispatcher.run();
    EXPECT_EQ(0, m_first.pops);
    EXPECT_TRUE(m_dispatcher.isRunning());
    m_first.push(makeStop());
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log);
}

TEST_F(DispatcherTest, stoppedTwiceWhileItRunsItReturnsOnce) {
    m_dispatcher.add_source(m_first);
    m_first.push(make("both", [this] {
        m_dispatcher.stop();
        m_dispatcher.stop();
    }));
    m_dispatcher.run();
    EXPECT_TRUE(m_dispatcher.isRunning());
    m_first.push(makeStop());
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke both", "delete both", "invoke stop", "delete stop"}), m_log);
}

TEST_F(DispatcherTest, stopPutsTheFlagDownBeforeItSignals) {
    class Watcher : public Dispatcher::Notifier {
    public:
        void wait() override {}
        void signal() override {
            ++signals;
            was_running = dispatcher->isRunning();
        }
        Dispatcher* dispatcher = nullptr;
        int signals = 0;
        bool was_running = true;
    } watcher;
    Dispatcher dispatcher(watcher);
    watcher.dispatcher = &dispatcher;
    dispatcher.stop();
    EXPECT_EQ(1, watcher.signals);
    EXPECT_FALSE(watcher.was_running);
}

TEST_F(DispatcherTest, aSleepingOneIsStoppedByAnotherThread) {
    m_dispatcher.add_source(m_first);
    std::thread loop([this] { m_dispatcher.run(); });
    m_notifier.awaitWaits(1);
    m_dispatcher.stop();
    loop.join();
    EXPECT_EQ(1, m_first.pops) << "no pass after the stop";
}

TEST_F(DispatcherTest, whatIsQueuedWhenStopTakesEffectIsLeftForALaterRun) {
    m_dispatcher.add_source(m_first);
    m_first.push(makeStop());
    m_first.push(make("left"));
    m_first.push(makeStop("end"));
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log);
    m_log.clear();
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke left", "delete left", "invoke end", "delete end"}), m_log);
}

TEST_F(DispatcherTest, whatIsQueuedAtItsEndIsLeftAlone) {
    TestMessage* const left = make("left");
    {
        CountingQueue queue(m_notifier);
        Dispatcher dispatcher(m_notifier);
        dispatcher.add_source(queue);
        queue.push(left);
        dispatcher.stop();
        dispatcher.run();
    }
    EXPECT_TRUE(m_log.empty()) << "neither invoked nor dismissed nor aborted nor deleted";
    delete left;
}

TEST_F(DispatcherTest, itCanBeStoppedAndRunAgainManyTimes) {
    m_dispatcher.add_source(m_first);
    for (int i = 0; i < 100; ++i) {
        m_first.push(makeStop());
        m_dispatcher.run();
    }
    EXPECT_EQ(200U, m_log.size());
    EXPECT_TRUE(m_dispatcher.isRunning());
}

TEST_F(DispatcherTest, mainRunsItsArgument) {
    m_dispatcher.add_source(m_first);
    m_first.push(makeStop());
    void (*const entry)(void*) = Dispatcher::main;
    std::thread(entry, &m_dispatcher).join();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log);
}

// ---- Sources ----

TEST_F(DispatcherTest, allMessagesOfTheFirstSourceComeBeforeTheSecondOnes) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(m_second);
    m_second.push(make("b1"));
    m_second.push(makeStop("b2"));
    m_first.push(make("a1"));
    m_first.push(make("a2"));
    m_dispatcher.run();
    EXPECT_EQ(
        (
            Log{"invoke a1", "delete a1", "invoke a2", "delete a2", "invoke b1", "delete b1", "invoke b2",
                "delete b2"}),
        m_log);
}

TEST_F(DispatcherTest, aMessagePushedIntoTheFirstSourceOvertakesTheSecondOnes) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(m_second);
    m_second.push(make("b1", [this] { m_first.push(make("urgent")); }));
    m_second.push(makeStop("b2"));
    m_dispatcher.run();
    EXPECT_EQ(
        (Log{"invoke b1", "delete b1", "invoke urgent", "delete urgent", "invoke b2", "delete b2"}), m_log);
}

TEST_F(DispatcherTest, aSourceThatAlwaysHasAMessageStarvesThoseBehindIt) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(m_second);
    int rounds = 0;
    std::function<void()> again = [&] {
        EXPECT_EQ(0, m_second.pops);
        if (++rounds < 1000) {
            m_first.push(new Message::Callback(
                [](void* work) { (*static_cast<std::function<void()>*>(work))(); }, &again));
        }
    };
    m_second.push(makeStop("starved"));
    m_first.push(make("first", again));
    m_dispatcher.run();
    EXPECT_EQ(1000, rounds);
    EXPECT_EQ((Log{"invoke first", "delete first", "invoke starved", "delete starved"}), m_log);
}

TEST_F(DispatcherTest, itSleepsOnlyAfterAPassInWhichEverySourceWasEmpty) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(m_second);
    std::thread loop([this] { m_dispatcher.run(); });
    m_notifier.awaitWaits(1);
    EXPECT_EQ(1, m_first.pops);
    EXPECT_EQ(1, m_second.pops);
    m_second.push(makeQuiet());
    m_notifier.awaitWaits(2);
    EXPECT_EQ(3, m_first.pops) << "asked before the message, and again after it";
    EXPECT_EQ(3, m_second.pops);
    m_dispatcher.stop();
    loop.join();
}

TEST_F(DispatcherTest, aMessageBetweenTheLastLookAndTheSleepIsNotLost) {
    /// Puts its message into the queue when the queue has just been found empty.
    class Latecomer : public Message::Source {
    public:
        Latecomer(VanillaQueue& queue, Message* message) : m_queue(queue), m_message(message) {}
        Message* pop_nonblock() override {
            if (Message* const message = std::exchange(m_message, nullptr)) {
                m_queue.push(message);
            }
            return nullptr;
        }

    private:
        VanillaQueue& m_queue;
        Message* m_message;
    } latecomer(m_first, makeStop());
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(latecomer);
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log);
    EXPECT_EQ(1, m_notifier.waits);
}

TEST_F(DispatcherTest, aSourceAddedTwiceIsAskedTwiceAPass) {
    m_dispatcher.add_source(m_first);
    m_dispatcher.add_source(m_first);
    std::thread loop([this] { m_dispatcher.run(); });
    m_notifier.awaitWaits(1);
    EXPECT_EQ(2, m_first.pops);
    m_dispatcher.stop();
    loop.join();
}

TEST_F(DispatcherTest, messagesOfManyThreadsAreAllInvokedInTheOrderOfEach) {
    constexpr int THREADS = 4;
    constexpr int MESSAGES = 2000;
    struct Producer {
        int last = -1; // Not atomic: only the loop's thread touches it.
        bool in_order = true;
    };
    class Numbered : public Message {
    public:
        Numbered(Producer& producer, int number) : m_producer(producer), m_number(number) {}
        void invoke() override {
            m_producer.in_order = m_producer.in_order && m_number == m_producer.last + 1;
            m_producer.last = m_number;
        }

    private:
        Producer& m_producer;
        int m_number;
    };
    m_dispatcher.add_source(m_first);
    std::thread loop(Dispatcher::main, &m_dispatcher);
    std::vector<Producer> producers(THREADS);
    std::vector<std::thread> threads;
    for (Producer& producer : producers) {
        threads.emplace_back([&] {
            for (int i = 0; i < MESSAGES; ++i) {
                m_first.push(new Numbered(producer, i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_first.push(makeStop());
    loop.join();
    for (Producer const& producer : producers) {
        EXPECT_TRUE(producer.in_order);
        EXPECT_EQ(MESSAGES - 1, producer.last);
    }
}

// ---- dispatch ----

TEST_F(DispatcherTest, handlersSeeAMessageInOrderBeforeItsWorkAndThenItIsDismissed) {
    TestHandler one("one");
    TestHandler two("two");
    m_dispatcher.add_handler(one);
    m_dispatcher.add_handler(two);
    m_dispatcher.dispatch(make("m"));
    EXPECT_EQ((Log{"one sees m", "two sees m", "invoke m", "delete m"}), m_log);
}

TEST_F(DispatcherTest, runShowsMessagesToTheHandlersToo) {
    TestHandler handler("handler");
    m_dispatcher.add_handler(handler);
    m_dispatcher.add_source(m_first);
    m_first.push(makeStop("m"));
    m_dispatcher.run();
    EXPECT_EQ((Log{"handler sees m", "invoke m", "delete m"}), m_log);
}

TEST_F(DispatcherTest, aMessageIsEndedByItsOwnDismiss) {
    class Member : public Message {
    public:
        void dismiss() override { ++dismissed; }
        int dismissed = 0;
    } member;
    m_dispatcher.dispatch(&member);
    m_dispatcher.dispatch(&member);
    EXPECT_EQ(2, member.dismissed);
}

TEST_F(DispatcherTest, handlersRunWithTheLockHeld) {
    EventRecorder const recorder;
    TestHandler other("other");
    TestHandler handler("handler", [&] { m_dispatcher.remove_handler(other); });
    m_dispatcher.add_handler(handler);
    m_dispatcher.dispatch(make("m"));
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher remove_handler: error locking\n"
        "ABORT framework/src/vesk/Dispatcher dispatch: error unlocking",
        recorder.getText());
}

TEST_F(DispatcherTest, aHandlerThatTakesItselfOutAfterAllDoesNotEndTheRound) {
    EventRecorder const recorder; // Where the process survives the fatal error.
    TestHandler one("one", [&] { m_dispatcher.remove_handler(one); });
    TestHandler two("two");
    m_dispatcher.add_handler(one);
    m_dispatcher.add_handler(two);
    m_dispatcher.dispatch(make("m"));
    EXPECT_EQ((Log{"one sees m", "two sees m", "invoke m", "delete m"}), m_log);
    EXPECT_EQ(2U, recorder.getCount());
}

TEST_F(DispatcherTest, workRunsWithoutALock) {
    EventRecorder const recorder;
    TestHandler handler("handler");
    m_dispatcher.dispatch(make("m", [&] {
        m_dispatcher.add_handler(handler);
        m_dispatcher.dispatch(make("inner"));
        m_dispatcher.remove_handler(handler);
    }));
    EXPECT_EQ((Log{"invoke m", "handler sees inner", "invoke inner", "delete inner", "delete m"}), m_log);
    EXPECT_EQ("", recorder.getText());
}

TEST_F(DispatcherTest, severalThreadsDispatchWithOneHandlingAtATimeAndOverlappingWork) {
    constexpr int THREADS = 3;
    class Meeting : public Message {
    public:
        explicit Meeting(std::atomic<int>& present) : m_present(present) {}
        void get_handled_by(Handler* handler) override { handler->handle(*this); }
        void invoke() override {
            ++m_present;
            while (m_present < THREADS) { // Ends only if all of them work at once.
                std::this_thread::yield();
            }
        }

    private:
        std::atomic<int>& m_present;
    };
    class Counter : public Message::Handler {
    public:
        void handle(Message&) override { ++count; }
        int count = 0; // Not atomic: the dispatcher's lock makes the sum right.
    } counter;
    m_dispatcher.add_handler(counter);
    std::atomic<int> present{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                class Seen : public Message {
                    void get_handled_by(Handler* handler) override { handler->handle(*this); }
                };
                m_dispatcher.dispatch(new Seen);
            }
            m_dispatcher.dispatch(new Meeting(present));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * 1001, counter.count);
}

// ---- Handlers ----

TEST_F(DispatcherTest, aHandlerAddedTwiceSeesEachMessageTwiceAndIsRemovedAltogether) {
    TestHandler handler("handler");
    m_dispatcher.add_handler(handler);
    m_dispatcher.add_handler(handler);
    m_dispatcher.dispatch(make("m"));
    m_dispatcher.remove_handler(handler);
    m_dispatcher.dispatch(make("n"));
    EXPECT_EQ(
        (Log{"handler sees m", "handler sees m", "invoke m", "delete m", "invoke n", "delete n"}), m_log);
}

TEST_F(DispatcherTest, removingAnUnknownHandlerIsIgnored) {
    TestHandler handler("handler");
    TestHandler unknown("unknown");
    m_dispatcher.remove_handler(unknown);
    m_dispatcher.add_handler(handler);
    m_dispatcher.remove_handler(unknown);
    m_dispatcher.dispatch(make("m"));
    EXPECT_EQ((Log{"handler sees m", "invoke m", "delete m"}), m_log);
}

TEST_F(DispatcherTest, handlersComeAndGoWhileOthersDispatch) {
    class Counter : public Message::Handler {
    public:
        ~Counter() override { count = -1000000; }
        void handle(Message&) override { EXPECT_GE(++count, 0) << "called after its end"; }
        int count = 0; // Not atomic: the dispatcher's lock guards it.
    };
    class Seen : public Message {
        void get_handled_by(Handler* handler) override { handler->handle(*this); }
    };
    std::atomic<bool> end{false};
    std::atomic<int> delivered{0};
    std::thread loop([&] {
        while (!end) {
            m_dispatcher.dispatch(new Seen);
            ++delivered;
        }
    });
    while (delivered == 0) {
        std::this_thread::yield();
    }
    for (int round = 0; round < 2000; ++round) {
        Counter counter;
        m_dispatcher.add_handler(counter);
        m_dispatcher.remove_handler(counter);
    }
    end = true;
    loop.join();
    EXPECT_TRUE(chainIs({}));
}

// ---- Exceptions ----

TEST_F(DispatcherTest, anExceptionOfTheWorkPassesOutAndLeavesTheMessageUndismissed) {
    m_dispatcher.add_source(m_first);
    TestMessage* const bad = make("bad", [] { throw std::runtime_error("bad"); });
    m_first.push(bad);
    m_first.push(makeStop());
    EXPECT_THROW(m_dispatcher.run(), std::runtime_error);
    EXPECT_EQ((Log{"invoke bad"}), m_log);
    delete bad;
    m_log.clear();
    EXPECT_TRUE(m_dispatcher.isRunning());
    m_dispatcher.run();
    EXPECT_EQ((Log{"invoke stop", "delete stop"}), m_log) << "it can be run again";
}

TEST_F(DispatcherTest, anExceptionOfAHandlerPassesOutAndFreesTheLock) {
    EventRecorder const recorder;
    TestHandler handler("handler", [] { throw std::runtime_error("bad"); });
    m_dispatcher.add_handler(handler);
    TestMessage* const message = make("m");
    EXPECT_THROW(m_dispatcher.dispatch(message), std::runtime_error);
    EXPECT_EQ((Log{"handler sees m"}), m_log) << "neither invoked nor dismissed";
    m_dispatcher.remove_handler(handler);
    m_dispatcher.dispatch(message);
    EXPECT_EQ((Log{"handler sees m", "invoke m", "delete m"}), m_log);
    EXPECT_EQ("", recorder.getText());
}

// ---- The lock fails ----

struct Operation {
    char const* function;
    void (*call)(Dispatcher& dispatcher, Message::Handler& handler);
};

void PrintTo(Operation const& operation, std::ostream* out) {
    *out << operation.function;
}

class DispatcherLock : public testing::TestWithParam<Operation> {
protected:
    std::string text(char const* message) const {
        return std::string("ABORT framework/src/vesk/Dispatcher ") + GetParam().function + ": " + message;
    }

    Log m_log;
    CountingNotifier m_notifier;
    TestHandler m_handler{"handler"};
    Dispatcher m_dispatcher{m_notifier};
};

TEST_P(DispatcherLock, failingToLockIsFatal) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        GetParam().call(m_dispatcher, m_handler);
    }
    EXPECT_EQ(text("error locking") + "\n" + text("error unlocking"), recorder.getText());
    EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}})) << "the mutex has reported first";
}

TEST_P(DispatcherLock, failingToUnlockIsFatal) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        GetParam().call(m_dispatcher, m_handler);
    }
    EXPECT_EQ(text("error unlocking"), recorder.getText());
    EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}}));
    m_dispatcher.remove_handler(m_handler); // Frees the lock.
    EXPECT_EQ(2U, recorder.getCount());
}

TEST_P(DispatcherLock, fatalMeansThatTheProcessEnds) {
    support::ChildEnd const end = runInChild([this] {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        GetParam().call(m_dispatcher, m_handler);
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

INSTANTIATE_TEST_SUITE_P(
    All, DispatcherLock,
    testing::Values(
        Operation{"dispatch", [](Dispatcher& d, Message::Handler&) { d.dispatch(new Message); }},
        Operation{"add_handler", [](Dispatcher& d, Message::Handler& h) { d.add_handler(h); }},
        Operation{"remove_handler", [](Dispatcher& d, Message::Handler& h) { d.remove_handler(h); }}));

TEST_F(DispatcherTest, aDeliveryGoesOnWhereAFatalErrorIsSurvived) {
    EventRecorder const recorder;
    TestHandler handler("handler");
    m_dispatcher.add_handler(handler);
    TestMessage* const message = make("m");
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        m_dispatcher.dispatch(message);
    }
    EXPECT_EQ((Log{"handler sees m", "invoke m", "delete m"}), m_log);
    EXPECT_EQ(2U, recorder.getCount());
}

TEST(DispatcherClass, hasNoVirtualOperations) {
    EXPECT_FALSE(std::is_polymorphic_v<Dispatcher>);
    EXPECT_FALSE(std::is_copy_constructible_v<Dispatcher>);
    EXPECT_EQ(1U, sizeof(std::atomic<bool>)) << "its flag is a plain byte";
}

TEST_F(DispatcherTest, addingASourceTakesNoLock) {
    Fault const locks(inject_pthread_mutex_lock, 0);
    VanillaQueue queue(m_notifier);
    m_dispatcher.add_source(queue);
    EXPECT_EQ(0, locks.getCalls());
}

} // namespace
