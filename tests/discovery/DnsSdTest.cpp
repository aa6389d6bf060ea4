#include "Clients.h"
#include "TestEngine.h"
#include "support/Emulation.h"

#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/Sleeper.h"
#include "support/Testing.h"
#include "support/UnlockFault.h"

#include <stdexcept>

namespace {

constexpr size_t MAX_DEADLINES = 8;

// The deadlines of the timed waits of this thread, and the number and result of its next spurious wake-ups.
thread_local timespec t_deadlines[MAX_DEADLINES];
thread_local size_t t_waits = 0;
thread_local int t_spurious = 0;
thread_local int t_spurious_result = 0;
/// The number of threads that have taken the name "vesk::DnsSd".
std::atomic<int> g_named{0};

} // namespace

VESK_INJECT(
    int, return error, pthread_cond_timedwait,
    (pthread_cond_t * condition, pthread_mutex_t* mutex, timespec const* deadline),
    (condition, mutex, deadline),
    if (t_waits < MAX_DEADLINES) { t_deadlines[t_waits] = *deadline; } ++t_waits;
    if (t_spurious > 0) {
        --t_spurious;
        return t_spurious_result;
    })
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * condition), (condition))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(
    pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, function, argument))
VESK_INJECT_RESULT(pthread_join, (pthread_t thread, void** result), (thread, result))
VESK_INJECT(
    int, return error, pthread_setname_np, (pthread_t thread, char const* name), (thread, name),
    if (strcmp(name, "vesk::DnsSd") == 0) { ++g_named; })

namespace {

using namespace support;
using tarnbase::TimePoint;
using Calls = std::vector<std::string>;
using Reference = std::SharedBase::Ptr<DnsSd::DnsSdThread>;

TimePoint const LONG_PAST(1);
DnsSd::Engine* const g_engine_at_start = DnsSd::getEngine();

/// Counts the starts and joins of threads by the calling thread, and the threads of service discovery.
class ThreadCount {
public:
    int getStarts() const { return m_starts.getCalls(); }
    int getEnds() const { return m_ends.getCalls(); }
    /// Checks that this many threads of service discovery have started and ended.
    void expect(int threads) const {
        EXPECT_EQ(threads, getStarts());
        EXPECT_EQ(threads, getEnds());
        EXPECT_EQ(threads, g_named - m_named);
    }

private:
    int m_named = g_named;
    Fault m_starts{inject_pthread_create, 0};
    Fault m_ends{inject_pthread_join, 0};
};

/// Makes and destroys a client of each kind.
void makeEachKind() {
    make<Browser>();
    make<Resolver>();
    make<Lookup>();
    make<Service>();
}

// ---- records

void add(Browser& client, int number) {
    client.service_appeared(text(std::to_string(number)), "_http._tcp", "local");
}
void add(Resolver& client, int number) {
    client.resolved(text("name"), "type", "local", "host", static_cast<unsigned short>(number), Txt());
}
void add(Lookup& client, int number) {
    client.address("host", std::to_string(number));
}

/// Returns a record as a text that begins with the number of `add`.
std::string describe(Browser::Result const& result) {
    return result.name.toUTF8() + " " + result.type + " " + result.domain + (result.appeared ? " +" : " -");
}
std::string describe(Resolver::Result const& result) {
    std::string text = std::to_string(result.port) + " " + result.name.toUTF8() + " " + result.type + " " +
        result.domain + " " + result.host;
    for (auto const& [key, value] : result.txt) {
        text += " " + key + "=" + value;
    }
    return text;
}
std::string describe(Lookup::Result const& result) {
    return result.address + " " + result.name;
}

/// Waits for records and takes all that there are.
template <typename Client>
std::vector<std::string> take(Client& client, size_t count) {
    std::vector<std::string> records;
    for (typename Client::Result result; records.size() < count && !client.wait(farAway());) {
        while (!client.get(result)) {
            records.push_back(describe(result));
        }
    }
    return records;
}

std::string const LONG(100, 'x');
String const LONG_NAME = text(LONG);

/// An operation of a client, with its name in reports.
struct Operation {
    char const* name;
    std::function<void()> call;
};

/// Returns the operations that make a record, here one of long texts.
std::vector<Operation> makersOf(Browser& client) {
    return {
        {"service_appeared", [&client] { client.service_appeared(LONG_NAME, LONG, LONG); }},
        {"service_disappeared", [&client] { client.service_disappeared(LONG_NAME, LONG, LONG); }}};
}
std::vector<Operation> makersOf(Resolver& client) {
    Txt txt;
    txt["a"] = LONG;
    txt["b"] = LONG;
    return {{"resolved", [&client, txt] { client.resolved(LONG_NAME, LONG, LONG, LONG, 80, txt); }}};
}
std::vector<Operation> makersOf(Lookup& client) {
    return {{"address", [&client] { client.address(LONG, LONG); }}};
}

template <typename Client>
class DnsSdQueue : public testing::Test {
protected:
    using Result = typename Client::Result;

    void add(int number) { ::add(m_client, number); }
    /// Takes a record. Returns its number, or -1 if there is none.
    int get() {
        Result result;
        return m_client.get(result) ? -1 : std::stoi(describe(result));
    }

    Client m_client = make<Client>();
};

class KindNames {
public:
    template <typename Client>
    static std::string GetName(int) {
        return std::is_same_v<Client, Browser> ? "Browser"
            : std::is_same_v<Client, Resolver> ? "Resolver"
            : std::is_same_v<Client, Lookup>   ? "Lookup"
                                               : "Service";
    }
};

using Kinds = testing::Types<Browser, Resolver, Lookup>;
TYPED_TEST_SUITE(DnsSdQueue, Kinds, KindNames);

TYPED_TEST(DnsSdQueue, getTakesTheOldestRecordAndKeepsTheResultIfThereIsNone) {
    typename TestFixture::Result result;
    this->add(1);
    this->add(2);
    this->add(3);
    for (int const number : {1, 2}) {
        EXPECT_FALSE(this->m_client.get(result)) << number;
        EXPECT_EQ(number, std::stoi(describe(result))) << "overwritten";
    }
    this->add(4);
    EXPECT_EQ(3, this->get());
    EXPECT_EQ(4, this->get());
    EXPECT_TRUE(this->m_client.get(result));
    EXPECT_EQ(2, std::stoi(describe(result)));
}

TYPED_TEST(DnsSdQueue, hasNoLimit) {
    constexpr int RECORDS = 20000;
    for (int i = 0; i < RECORDS; ++i) {
        this->add(i);
    }
    for (int i = 0; i < RECORDS; ++i) {
        ASSERT_EQ(i, this->get());
    }
    EXPECT_EQ(-1, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithARecordReturnsAtOnceEvenAfterItsDeadlineAndKeepsIt) {
    this->add(5);
    t_waits = 0;
    EXPECT_FALSE(this->m_client.wait());
    for (TimePoint const& deadline : {LONG_PAST, TimePoint(-5), farAway(), TimePoint(TimePoint::MAX)}) {
        EXPECT_FALSE(this->m_client.wait(deadline)) << deadline.toTimespec().tv_sec;
    }
    EXPECT_EQ(0U, t_waits);
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitEndsAtItsDeadlineWhichSpuriousAndFailedWaitsDoNotChange) {
    for (TimePoint const& past : {LONG_PAST, TimePoint(-5)}) {
        t_waits = 0;
        EXPECT_TRUE(this->m_client.wait(past)) << past.toTimespec().tv_sec;
        EXPECT_EQ(1U, t_waits) << past.toTimespec().tv_sec;
    }
    for (int const result : {0, EINVAL, EPERM, ENOMEM}) {
        SCOPED_TRACE(result);
        TimePoint const deadline = in(30);
        timespec const expected = deadline.toTimespec();
        t_waits = 0;
        t_spurious = 3;
        t_spurious_result = result;
        EXPECT_TRUE(this->m_client.wait(deadline));
        EXPECT_GE(TimePoint::now(), deadline);
        ASSERT_GE(t_waits, 4U);
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(expected.tv_sec, t_deadlines[i].tv_sec);
            EXPECT_EQ(expected.tv_nsec, t_deadlines[i].tv_nsec);
        }
    }
}

TYPED_TEST(DnsSdQueue, canceledWaiterLeavesTheQueueUsable) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    Sleeper waiter([this] {
        this->m_client.wait();
        ADD_FAILURE() << "the wait has returned";
    });
    waiter.awaitSleep();
    waiter.cancel();
    EXPECT_EQ(PTHREAD_CANCELED, waiter.join());
    this->add(5);
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithOrWithoutADeadlineEndsWithARecord) {
    for (TimePoint const& deadline : {TimePoint(), farAway(), TimePoint(TimePoint::MAX)}) {
        SCOPED_TRACE(deadline.toTimespec().tv_sec);
        Sleeper waiter([this, deadline] {
            EXPECT_FALSE(deadline == TimePoint() ? this->m_client.wait() : this->m_client.wait(deadline));
        });
        waiter.awaitSleep();
        this->add(5);
        waiter.join();
        EXPECT_EQ(5, this->get());
    }
}

TYPED_TEST(DnsSdQueue, signalsOncePerRecord) {
    Fault const count(inject_pthread_cond_signal, 0);
    this->add(1);
    EXPECT_EQ(1, count.getCalls());
    this->add(2);
    this->add(3);
    EXPECT_EQ(3, count.getCalls());
    this->get();
    this->m_client.wait();
    EXPECT_EQ(3, count.getCalls());
}

TYPED_TEST(DnsSdQueue, everyRecordWakesOneOfSeveralWaiters) {
    constexpr int WAITERS = 3;
    std::vector<std::unique_ptr<Sleeper>> waiters;
    std::atomic<int> sum{0};
    for (int i = 0; i < WAITERS; ++i) {
        waiters.push_back(std::make_unique<Sleeper>([this, &sum] {
            // Another reader may be faster between the two.
            int number = -1;
            while (number < 0) {
                EXPECT_FALSE(this->m_client.wait(farAway()));
                number = this->get();
            }
            sum += number;
        }));
    }
    for (auto const& waiter : waiters) {
        waiter->awaitSleep();
    }
    this->add(1);
    this->add(10);
    this->add(100);
    waiters.clear();
    EXPECT_EQ(111, sum);
}

TYPED_TEST(DnsSdQueue, keepsTheOrderOfEachProducer) {
    constexpr int PRODUCERS = 4;
    constexpr int RECORDS = 400;
    runInThreads(PRODUCERS + 1, [this](int thread) {
        for (int i = 0; thread < PRODUCERS && i < RECORDS; ++i) {
            this->add(thread * RECORDS + i);
        }
        std::vector<int> next(PRODUCERS, 0);
        for (int i = 0; thread == PRODUCERS && i < PRODUCERS * RECORDS; ++i) {
            ASSERT_FALSE(this->m_client.wait(farAway()));
            int const number = this->get();
            ASSERT_GE(number, 0);
            ASSERT_EQ(next[static_cast<size_t>(number / RECORDS)]++, number % RECORDS);
        }
    });
    EXPECT_EQ(-1, this->get());
}

TYPED_TEST(DnsSdQueue, deliversEachRecordToOneReader) {
    constexpr int RECORDS = 900;
    std::mutex mutex;
    std::vector<int> seen(RECORDS, 0);
    std::atomic<int> left{RECORDS};
    runInThreads(4, [&](int thread) {
        for (int i = 0; thread == 0 && i < RECORDS; ++i) {
            this->add(i);
        }
        while (left > 0) {
            // A record that another reader took leaves nothing to wait for.
            if (this->m_client.wait(in(5))) {
                continue;
            }
            int const number = this->get();
            if (number >= 0) {
                --left;
                std::lock_guard<std::mutex> const guard(mutex);
                ++seen[static_cast<size_t>(number)];
            }
        }
    });
    EXPECT_EQ(std::vector<int>(RECORDS, 1), seen);
}

TYPED_TEST(DnsSdQueue, clientWithUnreadRecordsIsDestroyedSilentlyAndKeepsPendingReports) {
    std::ErrorOutput("here", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "mine");
    {
        TypeParam client = make<TypeParam>();
        for (int i = 0; i < 100; ++i) {
            add(client, i);
        }
    }
    EXPECT_TRUE(chainIs({std::CommonErrorId::CONTRACT_BROKEN}));
}

TYPED_TEST(DnsSdQueue, failureOfTheLockAborts) {
    TypeParam& client = this->m_client;
    std::vector<Operation> operations = makersOf(client);
    operations.push_back({"wait", [&client] { client.wait(); }});
    operations.push_back({"wait", [&client] { client.wait(TimePoint(1)); }});
    operations.push_back({"get", [&client] {
                              typename TestFixture::Result result;
                              client.get(result);
                          }});
    for (Operation const& operation : operations) {
        std::string const where = std::string("ABORT framework/src/vesk/DnsSd ") + operation.name;
        for (bool const locks : {true, false}) {
            SCOPED_TRACE(where);
            add(client, 1); // To wait for.
            EventRecorder const recorder;
            {
                Fault const fault(
                    locks ? inject_pthread_mutex_lock : inject_pthread_mutex_unlock, locks ? EINVAL : EPERM);
                operation.call();
            }
            // A mutex that is not locked cannot be unlocked either.
            EXPECT_EQ(
                (locks ? where + ": error locking\n" : "") + where + ": error unlocking", recorder.getText());
        }
    }
}

TYPED_TEST(DnsSdQueue, failedAllocationThrowsAndLeavesTheQueueAsItIs) {
    this->add(1);
    for (Operation const& maker : makersOf(this->m_client)) {
        int failures = 0;
        for (bool failed = true; failed;) {
            failed = false;
            {
                NewFault const fault(New::SINGLE, failures + 1);
                try {
                    maker.call();
                } catch (std::bad_alloc const&) {
                    failed = true;
                }
            }
            this->add(2);
            ASSERT_EQ(1, this->get()) << "the record before the failure";
            typename TestFixture::Result result;
            ASSERT_FALSE(failed ? false : this->m_client.get(result)) << "the record of the last call";
            ASSERT_EQ(2, this->get());
            ASSERT_TRUE(this->m_client.wait(LONG_PAST));
            this->add(1);
            failures += failed ? 1 : 0;
        }
        EXPECT_GE(failures, 3) << "texts and record are on the heap";
    }
}

TYPED_TEST(DnsSdQueue, getAllocatesNothing) {
    makersOf(this->m_client)[0].call();
    typename TestFixture::Result result;
    NewFault const fault(New::SINGLE);
    EXPECT_FALSE(this->m_client.get(result));
    EXPECT_EQ(0, fault.getCalls());
}

TEST(SyncBrowser, recordsAppearedAndDisappearedServices) {
    EXPECT_EQ("   -", describe(Browser::Result()));
    std::string const printer = "Pr\303\274fer";
    Browser browser = make<Browser>();
    browser.service_appeared(text(printer), "_ipp._tcp", "local");
    browser.service_appeared(text("second"), "_http._tcp", "example");
    browser.service_disappeared(text(printer), "_ipp._tcp", "local");
    EXPECT_EQ(
        (Calls{
            printer + " _ipp._tcp local +", "second _http._tcp example +", printer + " _ipp._tcp local -"}),
        take(browser, 3));
}

TEST(SyncResolver, recordsEveryFieldAndItsOwnCopyOfTheTxtRecord) {
    EXPECT_EQ("0    ", describe(Resolver::Result()));
    Resolver resolver = make<Resolver>();
    Txt txt;
    txt["path"] = "/status";
    resolver.resolved(text("Printer"), "_ipp._tcp", "local", "printer.local", 65535, txt);
    Resolver::Result const made(text("Printer"), "_ipp._tcp", "local", "printer.local", 65535, txt);
    Resolver::Result const copy(made);
    txt["path"] = "/other";
    txt["more"] = "1";
    std::string const expected = "65535 Printer _ipp._tcp local printer.local path=/status";
    EXPECT_EQ(Calls{expected}, take(resolver, 1));
    EXPECT_EQ(expected, describe(made));
    EXPECT_EQ(expected, describe(copy));
}

TEST(SyncLookup, recordsNameAndAddress) {
    Lookup lookup = make<Lookup>();
    lookup.address("printer.local", "192.0.2.1");
    lookup.address("printer.local", "2001:db8::1");
    lookup.address("", "");
    EXPECT_EQ((Calls{"192.0.2.1 printer.local", "2001:db8::1 printer.local", " "}), take(lookup, 3));
}

template <typename Client>
class DnsSdError : public testing::Test {};

using AllKinds = testing::Types<Browser, Resolver, Lookup, Service>;
TYPED_TEST_SUITE(DnsSdError, AllKinds, KindNames);

TYPED_TEST(DnsSdError, tripsAnAssertion) {
    TypeParam client = make<TypeParam>();
    EventRecorder const recorder;
    client.error();
    EXPECT_EQ("ASSERT framework/src/vesk/DnsSd error: !\"Implement me!\"", recorder.getText());
}

template <typename Class>
constexpr bool isSynchronousClient() {
    return std::is_base_of_v<DnsSd::Client, Class> && !std::is_convertible_v<Class*, DnsSd::Client*> &&
        !std::is_convertible_v<Class*, DnsSdBase::Client*> && !std::is_abstract_v<Class> &&
        std::has_virtual_destructor_v<Class> && !std::is_copy_constructible_v<Class> &&
        !std::is_copy_assignable_v<Class>;
}

static_assert(isSynchronousClient<DnsSd::SyncBrowser>());
static_assert(isSynchronousClient<DnsSd::SyncResolver>());
static_assert(isSynchronousClient<DnsSd::SyncLookup>());
static_assert(isSynchronousClient<DnsSd::SyncService>());
static_assert(std::is_abstract_v<DnsSd::Client> && std::is_base_of_v<DnsSdBase::Client, DnsSd::Client>);
static_assert(sizeof(DnsSd::SyncService) < sizeof(DnsSd::SyncLookup), "it has neither lock nor queue");
static_assert(std::is_same_v<decltype(DnsSd::DEFAULT), std::Shared<DnsSd::DnsSdThread>>);

TEST(DnsSdTxt, dataWithoutMemoryIsInvalid) {
    Txt txt;
    for (bool const filled : {false, true}) {
        if (filled) {
            txt["a"] = "b";
        }
        SCOPED_TRACE(filled);
        NewFault const fault(New::NOTHROW_SINGLE);
        std::Buf const wire = txt.data();
        EXPECT_FALSE(wire.isValid());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({std::CommonErrorId::OUT_OF_MEMORY}));
    }
}

// ---- the thread

/// Checks that the first event is a warning of a thread operation.
void expectWarning(EventRecorder const& recorder, std::string const& begin) {
    std::string const warning = recorder.getText();
    EXPECT_EQ(0U, warning.find("WARNING framework/src/vesk/DnsSd " + begin)) << warning;
}

TEST(DnsSdThread, failedStartIsAWarningOnceAndIsRetriedWhileClientsStayUsable) {
    EventRecorder const recorder;
    {
        Lookup lookup = make<Lookup>();
        add(lookup, 1);
        Fault const fault(inject_pthread_create, EAGAIN);
        Lookup::Result result;
        EXPECT_FALSE(lookup.get(result));
        Fault const joins(inject_pthread_join, 0);
        make<Browser>();
        EXPECT_EQ(0, joins.getCalls()) << "there is none to join";
        make<Browser>();
        EXPECT_EQ(2, fault.getCalls());
        EXPECT_EQ(1, joins.getCalls());
    }
    EXPECT_EQ(1U, recorder.getCount());
    expectWarning(recorder, "DnsSdThread: Couldn't start the thread of service discovery: ");
    EXPECT_NE(std::string::npos, recorder.getText().find("thread creation failed")) << recorder.getText();
}

TEST(DnsSdThread, failedJoinIsAWarning) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_join, EINVAL);
        make<Lookup>();
    }
    expectWarning(recorder, "~DnsSdThread: Couldn't join the thread of service discovery: ");
}

TEST(DnsSdWithoutEngine, destructorOfAClientStartsAndJoinsTheThread) {
    ThreadCount const count;
    {
        Browser const browser = make<Browser>();
        EXPECT_EQ(0, count.getStarts()) << "the constructor takes no reference";
    }
    count.expect(1);
    makeEachKind();
    count.expect(5);
    {
        Reference const held(DnsSd::DEFAULT);
        make<Lookup>();
        EXPECT_EQ(6, count.getStarts()) << "the destructor shares the thread";
        EXPECT_EQ(5, count.getEnds());
    }
    count.expect(6);
}

/// Returns a client that a test destroys early.
template <typename Client>
std::unique_ptr<Client> hold() {
    return std::unique_ptr<Client>(new Client(make<Client>()));
}

TEST(DnsSdWithoutEngine, laterEngineIsNotCalledForAnEarlierClient) {
    TestEngine engine;
    {
        Browser const browser = make<Browser>();
        Installed const installed(engine);
    }
    auto browser = hold<Browser>();
    Installed const installed(engine);
    browser.reset();
    EXPECT_EQ(Calls{}, engine.getCalls());
}

TEST(DnsSdWithoutEngine, manyThreadsCreateAndDestroyClients) {
    int const before = g_named;
    runInThreads(4, [](int) {
        for (int round = 0; round < 25; ++round) {
            Browser browser = make<Browser>();
            browser.service_appeared(text("name"), "_http._tcp", "local");
            EXPECT_FALSE(browser.wait());
        }
    });
    EXPECT_GE(g_named - before, 1);
    EXPECT_LE(g_named - before, 100);
}

// ---- engines

TEST(DnsSdSetEngine, returnsTheEarlierEngineFirstNone) {
    EXPECT_EQ(nullptr, g_engine_at_start);
    TestEngine first;
    TestEngine second;
    EXPECT_EQ(nullptr, DnsSd::setEngine(&first));
    EXPECT_EQ(&first, DnsSd::getEngine());
    EXPECT_EQ(&first, DnsSd::setEngine(&second));
    EXPECT_EQ(&second, DnsSd::getEngine());
    EXPECT_EQ(&second, DnsSd::setEngine(nullptr));
    EXPECT_EQ(nullptr, DnsSd::getEngine());
}

class DnsSdEngine : public testing::Test {
protected:
    TestEngine m_engine;
    Installed m_installed{m_engine};
};

TEST_F(DnsSdEngine, isCalledAndCanceledByEachKindOfClient) {
    make<Browser>();
    EXPECT_EQ((Calls{"browse _http._tcp local", "cancel"}), m_engine.getCalls());
    { DnsSd::SyncResolver const client(text("a n\xC3\xA4me"), "_ipp._tcp", "example"); }
    make<Lookup>();
    Txt txt;
    txt["path"] = "/status";
    { DnsSd::SyncService const client(text("mine"), "_http._tcp", "local", 65535, txt); }
    { DnsSd::SyncService const client(text("bare"), "_http._tcp", "local", 0); }
    EXPECT_EQ(
        (Calls{
            "browse _http._tcp local", "cancel", "resolve a n\xC3\xA4me _ipp._tcp example", "cancel",
            "lookup host.local", "cancel", "publish mine _http._tcp local 65535 path=/status", "cancel",
            "publish bare _http._tcp local 0", "cancel"}),
        m_engine.getCalls());
}

/// Makes each of the calls of an engine.
void callAll(DnsSdBase::Client& client) {
    unsigned char const record[] = {3, 'a', '=', 'b'};
    client.service_appeared(text("name"), "_http._tcp", "local");
    client.resolved(text("name"), "_http._tcp", "local", "host.local", 8080, Txt(sizeof record, record));
    client.all_for_now();
    client.service_disappeared(text("name"), "_http._tcp", "local");
    client.address("host.local", "192.0.2.1");
}

TEST_F(DnsSdEngine, deliversToEachClientTheRecordsOfItsKind) {
    m_engine.deliver(callAll);
    Service const service = make<Service>(); // Ignores all of them.
    Browser browser = make<Browser>();
    Resolver resolver = make<Resolver>();
    Lookup lookup = make<Lookup>();
    EXPECT_EQ((Calls{"name _http._tcp local +", "name _http._tcp local -"}), take(browser, 2));
    EXPECT_EQ(Calls{"8080 name _http._tcp local host.local a=b"}, take(resolver, 1));
    EXPECT_EQ(Calls{"192.0.2.1 host.local"}, take(lookup, 1)); // The last call for the last client.
    EXPECT_TRUE(browser.wait(LONG_PAST));
    EXPECT_TRUE(resolver.wait(LONG_PAST));
    EXPECT_TRUE(lookup.wait(LONG_PAST));
}

TEST_F(DnsSdEngine, canCallBackBeforeTheConstructorReturns) {
    std::atomic<bool> delivered{false};
    m_engine.deliver([&](DnsSdBase::Client& client) {
        client.service_appeared(text("early"), "_http._tcp", "local");
        delivered = true;
    });
    m_engine.on_enter = [&](DnsSdBase::Client&) {
        EXPECT_TRUE(eventually([&] { return delivered.load(); }));
    };
    Browser browser = make<Browser>();
    Browser::Result result;
    EXPECT_FALSE(browser.get(result));
    EXPECT_TRUE(text("early") == result.name);
}

TEST_F(DnsSdEngine, isCalledAndCanceledForEachClientWhileTheThreadRuns) {
    ThreadCount const count;
    std::vector<DnsSdBase::Client*> entered;
    std::vector<DnsSdBase::Client*> canceled;
    m_engine.on_enter = [&](DnsSdBase::Client& client) {
        EXPECT_EQ(1, count.getStarts());
        entered.push_back(&client);
    };
    m_engine.on_cancel = [&](DnsSdBase::Client& client) {
        EXPECT_EQ(0, count.getEnds());
        canceled.insert(canceled.begin(), &client);
    };
    {
        Browser const browser = make<Browser>();
        {
            Resolver const resolver = make<Resolver>();
            Lookup const lookup = make<Lookup>();
            Service const service = make<Service>();
        }
        EXPECT_EQ(3U, canceled.size());
    }
    EXPECT_EQ(4U, entered.size());
    EXPECT_EQ(entered, canceled);
    count.expect(1);
}

TEST_F(DnsSdEngine, canDeliverDuringTheCancellation) {
    m_engine.on_cancel = [](DnsSdBase::Client& client) {
        std::thread([&client] { callAll(client); }).join();
    };
    makeEachKind();
}

TEST_F(DnsSdEngine, keepsItsClientsWhenAnotherEngineIsInstalled) {
    TestEngine other;
    {
        Browser const browser = make<Browser>();
        Installed const installed(other);
        Lookup const lookup = make<Lookup>();
    }
    EXPECT_EQ((Calls{"browse _http._tcp local", "cancel"}), m_engine.getCalls());
    EXPECT_EQ((Calls{"lookup host.local", "cancel"}), other.getCalls());

    auto browser = hold<Browser>();
    DnsSd::setEngine(nullptr);
    browser.reset();
    EXPECT_EQ(4U, m_engine.getCalls().size());
}

TEST_F(DnsSdEngine, thatThrowsLeavesNoClientAndNoReference) {
    ThreadCount const count;
    m_engine.on_enter = [](DnsSdBase::Client&) { throw std::runtime_error("no more clients"); };
    EXPECT_THROW(make<Browser>(), std::runtime_error);
    EXPECT_THROW(make<Resolver>(), std::runtime_error);
    EXPECT_THROW(make<Lookup>(), std::runtime_error);
    EXPECT_THROW(make<Service>(), std::runtime_error);
    EXPECT_EQ(4U, m_engine.getCalls().size()) << "none is canceled";
    count.expect(4);
}

TEST_F(DnsSdEngine, deliversWhileClientsAreDestroyed) {
    m_engine.deliver(callAll, true);
    for (int round = 0; round < 50; ++round) {
        auto browser = hold<Browser>();
        auto resolver = hold<Resolver>();
        auto lookup = hold<Lookup>();
        Service const service = make<Service>();
        EXPECT_FALSE(lookup->wait(farAway()));
        Lookup::Result result;
        EXPECT_FALSE(lookup->get(result));
        lookup.reset();
        EXPECT_FALSE(browser->wait(farAway()));
        browser.reset();
        EXPECT_FALSE(resolver->wait(farAway()));
    }
}

TEST_F(DnsSdEngine, servesClientsOfManyThreads) {
    m_engine.deliver(callAll, true);
    runInThreads(4, [](int) {
        for (int round = 0; round < 20; ++round) {
            Browser browser = make<Browser>();
            for (int record = 0; record < 3; ++record) {
                ASSERT_FALSE(browser.wait(farAway()));
                Browser::Result result;
                ASSERT_FALSE(browser.get(result));
                ASSERT_TRUE(text("name") == result.name);
            }
        }
    });
    EXPECT_EQ(160U, m_engine.getCalls().size());
}

} // namespace
