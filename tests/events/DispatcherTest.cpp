#include "support/CleanEnd.h"
#include "support/ErrnoRows.h"
#include "support/NewFault.h"
#include "support/RunInThreads.h"
#include "support/VtableSlot.h"

#include <vesk/Dispatcher.h>

#include <functional>
#include <sstream>
#include <stdexcept>

namespace {

using namespace support;
using vesk::Dispatcher;
using vesk::Message;
using VanillaQueue = vesk::Dispatcher::VanillaQueue;

/// The calls, in order, "invoke a; delete a;" for example. Belongs to one thread at a time.
using Log = std::string;

/// A message that does some work when it is invoked.
class Work : public Message {
public:
    explicit Work(std::function<void()> work = {}) : m_work(std::move(work)) {}
    void get_handled_by(Handler* handler) override { handler->handle(*this); }
    void invoke() override {
        if (m_work) {
            m_work();
        }
    }

private:
    std::function<void()> m_work;
};

/// A message that logs its calls.
class TestMessage : public Work {
public:
    TestMessage(Log& log, std::string name, std::function<void()> work)
        : Work(std::move(work)), m_log(log), m_name(std::move(name)) {}
    ~TestMessage() override { add("delete"); }
    void invoke() override {
        add("invoke");
        Work::invoke();
    }
    int abort() override {
        add("abort");
        return 0;
    }

    void logHandler(std::string const& handler) { m_log += handler + " sees " + m_name + "; "; }

private:
    void add(char const* call) { m_log += call + (" " + m_name) + "; "; }

    Log& m_log;
    std::string m_name;
};

class TestHandler : public Message::Handler {
public:
    explicit TestHandler(std::string name, std::function<void()> work = {})
        : m_name(std::move(name)), m_work(std::move(work)) {}

    void handle(Message& message) override {
        dynamic_cast<TestMessage&>(message).logHandler(m_name);
        if (m_work) {
            m_work();
        }
    }

private:
    std::string m_name;
    std::function<void()> m_work;
};

/// The ready-made notifier, which counts its calls.
class CountingNotifier : public Dispatcher::VanillaNotifier {
public:
    void signal() override {
        ++signals;
        if (on_signal) {
            on_signal();
        }
        Dispatcher::VanillaNotifier::signal();
    }
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
    std::atomic<int> signals{0};
    std::function<void()> on_signal;
};

/// The ready-made queue, which counts its pops.
class CountingQueue : public VanillaQueue {
public:
    using VanillaQueue::VanillaQueue;
    Message* pop_nonblock() override {
        ++pops;
        Message* const message = VanillaQueue::pop_nonblock();
        if (on_pop) {
            std::exchange(on_pop, nullptr)();
        }
        return message;
    }

    std::atomic<int> pops{0};
    std::function<void()> on_pop; ///< Runs once, after a pop.
};

/// Counts the messages. Destroyed, it gives a count below 0. The count is not atomic: the dispatcher's lock
/// guards it.
class CountingHandler : public Message::Handler {
public:
    ~CountingHandler() override { count = -1000000; }
    void handle(Message& message) override {
        EXPECT_GE(++count, 0) << "called after its end";
        last = &message;
    }

    int count = 0;
    Message* last = nullptr;
};

/// The dispatcher of the tests has the first queue as its source.
class DispatcherTest : public testing::Test {
protected:
    DispatcherTest() { m_dispatcher.add_source(m_first); }

    /// Pushes a message that stops the dispatcher, and runs it. Returns the log.
    Log run() {
        m_log.clear();
        m_first.push(makeStop());
        m_dispatcher.run();
        return m_log;
    }
    /// Runs the dispatcher in another thread, and returns when it sleeps.
    std::thread start() {
        std::thread loop([this] { m_dispatcher.run(); });
        m_notifier.awaitWaits(1);
        return loop;
    }
    void stop(std::thread loop) {
        m_dispatcher.stop();
        loop.join();
    }
    /// A message that only logs.
    TestMessage* make(std::string name, std::function<void()> work = {}) {
        return new TestMessage(m_log, std::move(name), std::move(work));
    }
    /// A message that stops the dispatcher.
    TestMessage* makeStop(std::string name = "stop") {
        return make(std::move(name), [this] { m_dispatcher.stop(); });
    }

    Log const m_stop = "invoke stop; delete stop; ";
    Log m_log;
    CountingNotifier m_notifier;
    CountingQueue m_first{m_notifier};
    CountingQueue m_second{m_notifier};
    Dispatcher m_dispatcher{m_notifier};
};

// ---- sequences of operations ----

using Steps = std::vector<std::string>;

/// A sequence of steps with two sources, "first" and "second", and handlers. A message logs its calls; the
/// message "stop" stops the dispatcher. "log" compares and clears the log.
struct Scenario {
    char const* name;
    Steps steps;
    std::map<std::string, Steps> reactions = {}; ///< The work of a message or handler.
    char const* fatal_errors = "";               ///< Those that a process survives.
};

class DispatcherScenario : public DispatcherTest, public testing::WithParamInterface<Scenario> {
protected:
    TestMessage* makeMessage(std::string const& name) {
        TestMessage* const message = make(name, [this, name] { react(name); });
        m_messages[name] = message;
        return message;
    }
    TestHandler& handler(std::string const& name) {
        return m_handlers.try_emplace(name, name, [this, name] { react(name); }).first->second;
    }
    void react(std::string const& name) {
        auto const reaction = GetParam().reactions.find(name);
        run(name == "stop"                               ? Steps{"stop"}
                : reaction == GetParam().reactions.end() ? Steps()
                                                         : reaction->second);
    }
    void run(Steps const& steps) {
        for (std::string const& step : steps) {
            SCOPED_TRACE(step);
            std::istringstream words(step);
            std::string verb;
            std::string name;
            words >> verb >> name;
            std::map<std::string, std::function<void()>> const verbs{
                {"first", [&] { m_first.push(makeMessage(name)); }},
                {"second", [&] { m_second.push(makeMessage(name)); }},
                {"firstAfterPopOfSecond", [&] { m_second.on_pop = [this] { run({"first stop"}); }; }},
                {"useSecond", [&] { m_dispatcher.add_source(m_second); }},
                {"stop", [&] { m_dispatcher.stop(); }},
                {"run", [&] { m_dispatcher.run(); }},
                {"runThrows", [&] { EXPECT_THROW(m_dispatcher.run(), std::runtime_error); }},
                {"isRunning", [&] { EXPECT_TRUE(m_dispatcher.isRunning()); }},
                {"isStopped", [&] { EXPECT_FALSE(m_dispatcher.isRunning()); }},
                {"add", [&] { m_dispatcher.add_handler(handler(name)); }},
                {"remove", [&] { m_dispatcher.remove_handler(handler(name)); }},
                {"dispatch", [&] { m_dispatcher.dispatch(makeMessage(name)); }},
                {"dispatchThrows",
                 [&] { EXPECT_THROW(m_dispatcher.dispatch(makeMessage(name)), std::runtime_error); }},
                {"dispatchAgain", [&] { m_dispatcher.dispatch(m_messages[name]); }},
                {"delete", [&] { delete m_messages[name]; }},
                {"throw", [] { throw std::runtime_error("bad"); }},
                {"pops", [&] { EXPECT_EQ(std::stoi(name), m_first.pops); }},
                {"waits", [&] { EXPECT_EQ(std::stoi(name), m_notifier.waits); }},
                {"log", [&] { EXPECT_EQ(step.substr(strlen("log ")), std::exchange(m_log, "") + "."); }}};
            verbs.at(verb)();
        }
    }

    std::map<std::string, TestMessage*> m_messages;
    std::map<std::string, TestHandler> m_handlers;
};

TEST_P(DispatcherScenario, makesTheExpectedCalls) {
    EventRecorder const recorder;
    run(GetParam().steps);
    EXPECT_EQ("", m_log);
    EXPECT_EQ(GetParam().fatal_errors, recorder.getText());
    EXPECT_TRUE(recorder.getCount() == 0 || chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}}));
}

Scenario const SCENARIOS[] = {
    {"runsFromItsConstructionOn", {"isRunning", "stop", "isStopped"}},
    {"stopBeforeRunMakesItReturnOnceWithoutAskingASource",
     {"stop", "first stop", "run", "log .", "pops 0", "waits 0", "isRunning", "run",
      "log invoke stop; delete stop; .", "pops 1"}},
    {"twoStopsBeforeRunMakeItReturnOnceWithoutAskingASource",
     {"stop", "stop", "first stop", "run", "log .", "pops 0", "waits 0", "isRunning", "run",
      "log invoke stop; delete stop; ."}},
    {"twoStopsDuringARunEndOnlyThatRun",
     {"first both", "run", "isRunning", "log invoke both; delete both; .", "first stop", "run",
      "log invoke stop; delete stop; ."},
     {{"both", {"stop", "stop"}}}},
    {"messagesQueuedWhenStopTakesEffectAreLeftForALaterRun",
     {"first stop", "first left", "first end", "run", "log invoke stop; delete stop; .", "run",
      "log invoke left; delete left; invoke end; delete end; ."},
     {{"end", {"stop"}}}},
    {"allMessagesOfTheFirstSourceComeBeforeTheSecondOnes",
     {"useSecond", "second b1", "second stop", "first a1", "first a2", "run",
      "log invoke a1; delete a1; invoke a2; delete a2; invoke b1; delete b1; invoke stop; delete stop; "
      "."}},
    {"aMessagePushedIntoTheFirstSourceOvertakesTheSecondOnes",
     {"useSecond", "second b1", "second stop", "run",
      "log invoke b1; delete b1; invoke urgent; delete urgent; invoke stop; delete stop; ."},
     {{"b1", {"first urgent"}}}},
    {"aMessageBetweenTheLastLookAndTheSleepIsNotLost",
     {"useSecond", "firstAfterPopOfSecond", "run", "log invoke stop; delete stop; .", "waits 1"}},
    {"handlersSeeAMessageInOrderBeforeItsWorkAndThenItIsDismissed",
     {"add one", "add two", "dispatch m", "log one sees m; two sees m; invoke m; delete m; .", "first stop",
      "run", "log one sees stop; two sees stop; invoke stop; delete stop; ."}},
    {"handlersRunWithTheLockLocked",
     {"add handler", "dispatch m", "log handler sees m; invoke m; delete m; ."},
     {{"handler", {"remove other"}}},
     "ABORT framework/src/vesk/Dispatcher remove_handler: error locking\n"
     "ABORT framework/src/vesk/Dispatcher dispatch: error unlocking"},
    {"aHandlerThatRemovesItselfDuringADispatchDoesNotEndIt",
     {"add one", "add two", "dispatch m", "log one sees m; two sees m; invoke m; delete m; ."},
     {{"one", {"remove one"}}},
     "ABORT framework/src/vesk/Dispatcher remove_handler: error locking\n"
     "ABORT framework/src/vesk/Dispatcher dispatch: error unlocking"},
    {"workRunsWithoutALock",
     {"dispatch m", "log invoke m; handler sees inner; invoke inner; delete inner; delete m; ."},
     {{"m", {"add handler", "dispatch inner", "remove handler"}}}},
    {"aHandlerAddedTwiceSeesEachMessageTwiceAndIsRemovedCompletely",
     {"add handler", "add handler", "dispatch m", "remove handler", "dispatch n",
      "log handler sees m; handler sees m; invoke m; delete m; invoke n; delete n; ."}},
    {"removingAnUnknownHandlerIsIgnored",
     {"remove unknown", "add handler", "remove unknown", "dispatch m",
      "log handler sees m; invoke m; delete m; ."}},
    {"anExceptionOfTheWorkPassesOutAndLeavesTheMessageUndismissed",
     {"first bad", "first stop", "runThrows", "log invoke bad; .", "delete bad", "log delete bad; .",
      "isRunning", "run", "log invoke stop; delete stop; ."},
     {{"bad", {"throw"}}}},
    {"anExceptionOfAHandlerPassesOutAndFreesTheLock",
     {"add handler", "dispatchThrows m", "log handler sees m; .", "remove handler", "dispatchAgain m",
      "log invoke m; delete m; ."},
     {{"handler", {"throw"}}}}};
INSTANTIATE_TEST_SUITE_P(All, DispatcherScenario, testing::ValuesIn(SCENARIOS), RowName());

// ---- run and stop ----

TEST_F(DispatcherTest, withoutSourcesItSleepsAtOnceAndReturnsOnlyAfterStop) {
    Dispatcher dispatcher(m_notifier);
    std::atomic<bool> returned{false};
    std::thread loop([&] {
        dispatcher.run();
        returned = true;
    });
    m_notifier.awaitWaits(1);
    EXPECT_FALSE(returned);
    m_notifier.signal();
    m_notifier.awaitWaits(2);
    EXPECT_FALSE(returned) << "a wake-up alone is no reason to return";
    EXPECT_TRUE(dispatcher.isRunning());
    dispatcher.stop();
    loop.join();
    EXPECT_TRUE(dispatcher.isRunning());
}

TEST_F(DispatcherTest, stopClearsTheFlagBeforeItSignals) {
    std::vector<bool> running;
    m_notifier.on_signal = [&] { running.push_back(m_dispatcher.isRunning()); };
    m_dispatcher.stop();
    EXPECT_EQ((std::vector<bool>{false}), running);
}

TEST_F(DispatcherTest, aSleepingDispatcherIsStoppedByAnotherThread) {
    stop(start());
    EXPECT_EQ(1, m_first.pops) << "no pass after the stop";
}

TEST_F(DispatcherTest, destructorLeavesQueuedMessagesAlone) {
    TestMessage* const left[] = {make("left"), make("last")};
    {
        CountingQueue queue(m_notifier);
        Dispatcher dispatcher(m_notifier);
        dispatcher.add_source(queue);
        queue.push(left[0]);
        queue.push(left[1]);
        dispatcher.stop();
        dispatcher.run();
    }
    EXPECT_TRUE(m_log.empty()) << "neither invoked nor dismissed nor aborted nor deleted";
    delete left[0];
    delete left[1];
}

TEST_F(DispatcherTest, itCanBeStoppedAndRunAgainManyTimes) {
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(m_stop, run());
        EXPECT_TRUE(m_dispatcher.isRunning());
    }
}

TEST_F(DispatcherTest, mainRunsItsArgument) {
    m_first.push(makeStop());
    void (*const entry)(void*) = Dispatcher::main;
    std::thread(entry, &m_dispatcher).join();
    EXPECT_EQ(m_stop, m_log);
}

// ---- Sources ----

TEST_F(DispatcherTest, aSourceThatAlwaysHasAMessageStarvesLaterOnes) {
    m_dispatcher.add_source(m_second);
    int rounds = 0;
    std::function<void()> again = [&] {
        EXPECT_EQ(0, m_second.pops);
        if (++rounds < 1000) {
            m_first.push(new Work(again));
        }
    };
    m_second.push(makeStop("starved"));
    m_first.push(make("first", again));
    m_dispatcher.run();
    EXPECT_EQ(1000, rounds);
    EXPECT_EQ("invoke first; delete first; invoke starved; delete starved; ", m_log);
}

TEST_F(DispatcherTest, itSleepsOnlyAfterAPassInWhichEverySourceWasEmpty) {
    m_dispatcher.add_source(m_second);
    std::thread loop = start();
    EXPECT_EQ(1, m_first.pops);
    EXPECT_EQ(1, m_second.pops);
    m_second.push(new Message);
    m_notifier.awaitWaits(2);
    EXPECT_EQ(3, m_first.pops) << "asked before the message, and again after it";
    EXPECT_EQ(3, m_second.pops);
    stop(std::move(loop));
}

TEST_F(DispatcherTest, aSourceAddedTwiceIsAskedTwiceAPass) {
    m_dispatcher.add_source(m_first); // Once more.
    std::thread loop = start();
    EXPECT_EQ(2, m_first.pops);
    stop(std::move(loop));
}

TEST_F(DispatcherTest, messagesOfManyThreadsAreAllInvokedInTheOrderOfEach) {
    constexpr int MESSAGES = 2000;
    struct Producer {
        int last = -1; // Not atomic: belongs to the loop's thread.
        bool in_order = true;
    };
    std::thread loop(Dispatcher::main, &m_dispatcher);
    std::vector<Producer> producers(4);
    runInThreads(4, [&](int thread) {
        Producer& producer = producers[static_cast<size_t>(thread)];
        for (int i = 0; i < MESSAGES; ++i) {
            m_first.push(new Work([&producer, i] {
                producer.in_order = producer.in_order && i == producer.last + 1;
                producer.last = i;
            }));
        }
    });
    m_first.push(makeStop());
    loop.join();
    for (Producer const& producer : producers) {
        EXPECT_TRUE(producer.in_order);
        EXPECT_EQ(MESSAGES - 1, producer.last);
    }
}

// ---- dispatch ----

TEST_F(DispatcherTest, aMessageIsDismissedByItsOwnOperation) {
    class Member : public Message {
    public:
        void dismiss() override { ++dismissed; }
        int dismissed = 0;
    } member;
    m_dispatcher.dispatch(&member);
    m_dispatcher.dispatch(&member);
    EXPECT_EQ(2, member.dismissed);
    static_cast<Message&>(member).dismiss();
    EXPECT_EQ(3, member.dismissed);
}

TEST_F(DispatcherTest, threadsDispatchWithOneHandlerCallAtATimeAndOverlappingWork) {
    constexpr int THREADS = 3;
    CountingHandler counter;
    m_dispatcher.add_handler(counter);
    std::atomic<int> present{0};
    runInThreads(THREADS, [&](int) {
        for (int round = 0; round < 1000; ++round) {
            m_dispatcher.dispatch(new Work);
        }
        m_dispatcher.dispatch(new Work([&] {
            ++present;
            while (present < THREADS) { // Ends only if all of them work at once.
                std::this_thread::yield();
            }
        }));
    });
    EXPECT_EQ(THREADS * 1001, counter.count);
}

TEST_F(DispatcherTest, handlersComeAndGoWhileOthersDispatch) {
    std::atomic<bool> end{false};
    std::atomic<int> delivered{0};
    std::thread loop([&] {
        while (!end) {
            m_dispatcher.dispatch(new Work);
            ++delivered;
        }
    });
    while (delivered == 0) {
        std::this_thread::yield();
    }
    for (int round = 0; round < 2000; ++round) {
        CountingHandler counter;
        m_dispatcher.add_handler(counter);
        m_dispatcher.remove_handler(counter);
    }
    end = true;
    loop.join();
}

TEST(DispatcherClass, hasNoVirtualOperations) {
    EXPECT_FALSE(std::is_polymorphic_v<Dispatcher>);
    EXPECT_FALSE(std::is_copy_constructible_v<Dispatcher>);
    EXPECT_EQ(1U, sizeof(std::atomic<bool>)) << "the flag is a plain byte";
}

// ---- the queue ----

class VanillaQueueTest : public testing::Test {
protected:
    CountingNotifier m_notifier;
    VanillaQueue m_queue{m_notifier};
};

TEST_F(VanillaQueueTest, firstInIsFirstOutAndEveryPushSignalsOnce) {
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
    EXPECT_EQ(0, m_notifier.signals);
    std::vector<Message> messages(1000);
    int pushes = 0;
    for (Message& message : messages) {
        m_queue.push(&message);
        EXPECT_EQ(++pushes, m_notifier.signals);
    }
    m_queue.push(&messages[0]); // Once more.
    for (Message& message : messages) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(&messages[0], m_queue.pop_nonblock());
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST_F(VanillaQueueTest, signalFollowsTheUnlockWithTheMessageInTheQueue) {
    Message message;
    Message* popped = nullptr; // An event would show that the lock is not free.
    m_notifier.on_signal = [&] { popped = m_queue.pop_nonblock(); };
    m_queue.push(&message);
    EXPECT_EQ(&message, popped);
}

TEST_F(VanillaQueueTest, severalThreadsPopEachMessageOnceAndInOrder) {
    constexpr int THREADS = 3;
    constexpr int MESSAGES = 3000;
    std::vector<Message> messages(MESSAGES);
    std::vector<std::atomic<int>> seen(MESSAGES);
    std::atomic<int> left{MESSAGES};
    runInThreads(THREADS + 1, [&](int thread) {
        if (thread == THREADS) {
            for (Message& message : messages) {
                m_queue.push(&message);
            }
        }
        Message* last = nullptr;
        while (thread < THREADS && left > 0) {
            if (Message* const message = m_queue.pop_nonblock()) {
                EXPECT_GT(message, last);
                last = message;
                ++seen[static_cast<size_t>(message - messages.data())];
                --left;
            } else {
                std::this_thread::yield();
            }
        }
    });
    for (std::atomic<int> const& count : seen) {
        EXPECT_EQ(1, count);
    }
    EXPECT_EQ(MESSAGES, m_notifier.signals);
}

TEST_F(VanillaQueueTest, withoutMemoryAPushThrowsAndLeavesTheMessageToTheCaller) {
    Message message;
    int pushed = 0;
    bool refused = false;
    while (!refused && pushed < 100000) {
        try {
            NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
            m_queue.push(&message);
            ++pushed;
        } catch (std::bad_alloc const&) {
            refused = true;
        }
    }
    ASSERT_TRUE(refused);
    EXPECT_EQ(pushed, m_notifier.signals) << "a refused message is not signaled";
    m_queue.push(&message);
    for (int i = 0; i < pushed + 1; ++i) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST(VanillaQueueClass, isASourceAndASinkWithoutMembersAndCanBeDeletedAsBoth) {
    CountingNotifier notifier;
    delete static_cast<Message::Source*>(new VanillaQueue(notifier));
    delete static_cast<Message::Sink*>(new VanillaQueue(notifier));
    EXPECT_EQ(0, notifier.signals);
    EXPECT_TRUE((std::is_base_of_v<Message::Source, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<Message::Sink, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<vesk::Dispatcher::Queue, VanillaQueue>));
    EXPECT_TRUE(std::is_abstract_v<vesk::Dispatcher::Queue>);
    EXPECT_EQ(2 * sizeof(void*), sizeof(vesk::Dispatcher::Queue));
}

// ---- messages ----

/// Counts its deletions.
class CountingMessage : public Message {
public:
    explicit CountingMessage(int& deleted) : m_deleted(deleted) {}
    ~CountingMessage() override { ++m_deleted; }

private:
    int& m_deleted;
};

/// Dismisses a message that may be null. The compiler neither sees the value nor checks the call.
__attribute__((noinline, no_sanitize("undefined"))) void dismissPossiblyNull(Message* volatile pointer) {
    Message* const message = pointer;
    message->Message::dismiss();
}

class MessageTest : public testing::Test {
protected:
    int m_deleted = 0;
    Message* m_message = new CountingMessage(m_deleted);
};

TEST_F(MessageTest, dismissOnANullPointerReturnsWithoutEffect) {
    dismissPossiblyNull(nullptr);
    EXPECT_EQ(0, m_deleted);
    dismissPossiblyNull(m_message);
    EXPECT_EQ(1, m_deleted);
}

TEST_F(MessageTest, baseInvokesNothingAndAbortsWithZeroAndStaysUntilItIsDismissed) {
    m_message->invoke();
    EXPECT_EQ(0, m_message->abort());
    EXPECT_EQ(0, m_deleted);
    m_message->dismiss();
    EXPECT_EQ(1, m_deleted) << "through its virtual destructor";
}

TEST(Message, onlyADerivedMessagePassesItselfToTheHandler) {
    class Shown : public Message {
        void get_handled_by(Handler* handler) override { handler->handle(*this); }
    } shown;
    Message base;
    Message& message = shown;
    CountingHandler handler;
    base.get_handled_by(&handler);
    EXPECT_EQ(0, handler.count);
    message.get_handled_by(&handler);
    EXPECT_EQ(1, handler.count);
    EXPECT_EQ(&message, handler.last);
}

TEST(MessageCallback, invokeCallsTheFunctionWithItsData) {
    int calls = 0;
    Message* const message = new Message::Callback([](void* data) { ++*static_cast<int*>(data); }, &calls);
    EXPECT_EQ(0, calls);
    message->invoke();
    message->invoke();
    EXPECT_EQ(2, calls);
    message->dismiss();
    EXPECT_EQ(2, calls);
    static void const* s_seen = &calls;
    Message::Callback callback([](void* data) { s_seen = data; }, nullptr);
    static_cast<Message&>(callback).invoke();
    EXPECT_EQ(nullptr, s_seen);
    EXPECT_EQ(sizeof(Message) + 2 * sizeof(void*), sizeof(Message::Callback));
}

TEST(MessageSlots, interfacesArePureAndVirtualOperationsFollowTheirDestructorsInOrder) {
    EXPECT_EQ(2, getSlot(&Message::get_handled_by));
    EXPECT_EQ(3, getSlot(&Message::invoke));
    EXPECT_EQ(4, getSlot(&Message::dismiss));
    EXPECT_EQ(5, getSlot(&Message::abort));
    EXPECT_EQ(2, getSlot(&Message::Source::pop_nonblock));
    EXPECT_EQ(2, getSlot(&Message::Sink::push));
    EXPECT_EQ(2, getSlot(&Message::Handler::handle));
    EXPECT_TRUE(
        std::is_abstract_v<Message::Source> && std::is_abstract_v<Message::Sink> &&
        std::is_abstract_v<Message::Handler>);
    EXPECT_FALSE(std::is_abstract_v<Message>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Source>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Sink>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Handler>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message>);
}

} // namespace
