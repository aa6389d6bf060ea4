#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/DnsSd.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr size_t MAX_DEADLINES = 8;

// The deadlines of this thread's timed waits, and how many of its next waits end for no reason, with which result.
thread_local timespec t_deadlines[MAX_DEADLINES];
thread_local size_t t_waits = 0;
thread_local int t_spurious = 0;
thread_local int t_spurious_result = 0;

} // namespace

support::Injected inject_pthread_cond_timedwait("pthread_cond_timedwait");
extern "C" VESK_UNWATCHED int
pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* deadline) {
    if (t_waits < MAX_DEADLINES) {
        t_deadlines[t_waits] = *deadline;
    }
    ++t_waits;
    if (t_spurious > 0) {
        --t_spurious;
        return t_spurious_result;
    }
    return reinterpret_cast<int (*)(pthread_cond_t*, pthread_mutex_t*, timespec const*)>(
        inject_pthread_cond_timedwait.getReal())(condition, mutex, deadline);
}
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * condition), (condition))

namespace {

using std::unicode::String;
using support::EventRecorder;
using support::Fault;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::DnsSd;
using vesk::DnsSdBase;
using Txt = DnsSdBase::Txt;

TimePoint in(long long ms) {
    return TimePoint::now() + Duration(ms);
}

TimePoint const LONG_PAST(1);

/// Beyond any good run.
TimePoint farAway() {
    return in(60000);
}

String text(std::string const& utf8) {
    return String::fromUTF8(utf8);
}

/// Runs in a thread of its own, and tells when that is about to sleep in a wait that comes next.
class Waiter {
public:
    template <typename Body>
    explicit Waiter(Body body)
        : m_thread([this, body] {
              m_id = static_cast<pid_t>(syscall(SYS_gettid));
              body();
          }) {}
    ~Waiter() { join(); }

    void untilAsleep() const {
        while (m_id == 0) {
            sched_yield();
        }
        support::waitUntilAsleep(getpid(), m_id);
    }
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    std::atomic<pid_t> m_id{0};
    std::thread m_thread;
};

// ---- what the three clients with a queue have in common, each fed with numbered records ----

struct Browser {
    using Client = DnsSd::SyncBrowser;
    using Result = Client::Result;

    static void add(Client& client, int number) {
        client.service_appeared(text(std::to_string(number)), "_http._tcp", "local");
    }
    static int getNumber(Result const& result) { return std::stoi(result.name.toUTF8()); }
    static Result makeResult(int number) { return {text(std::to_string(number)), "type", "domain", true}; }

    Client client{"_http._tcp", "local"};
};

struct Resolver {
    using Client = DnsSd::SyncResolver;
    using Result = Client::Result;

    static void add(Client& client, int number) {
        client.resolved(text("name"), "type", "local", "host", static_cast<unsigned short>(number), Txt());
    }
    static int getNumber(Result const& result) { return result.port; }
    static Result makeResult(int number) {
        return Result(text("n"), "t", "d", "h", static_cast<unsigned short>(number), Txt());
    }

    Client client{text("name"), "_http._tcp", "local"};
};

struct Lookup {
    using Client = DnsSd::SyncLookup;
    using Result = Client::Result;

    static void add(Client& client, int number) { client.address("host", std::to_string(number)); }
    static int getNumber(Result const& result) { return std::stoi(result.address); }
    static Result makeResult(int number) { return {"host", std::to_string(number)}; }

    Client client{"host.local"};
};

template <typename Kind>
class DnsSdQueue : public testing::Test {
protected:
    using Result = typename Kind::Result;

    void add(int number) { Kind::add(m_kind.client, number); }
    /// The number of the record that `get` takes, -1 if there is none.
    int get() {
        Result result;
        return m_kind.client.get(result) ? -1 : Kind::getNumber(result);
    }
    typename Kind::Client& client() { return m_kind.client; }

    Kind m_kind;
};

class KindNames {
public:
    template <typename Kind>
    static std::string GetName(int) {
        return std::is_same_v<Kind, Browser> ? "Browser"
            : std::is_same_v<Kind, Resolver> ? "Resolver"
                                             : "Lookup";
    }
};

using Kinds = testing::Types<Browser, Resolver, Lookup>;
TYPED_TEST_SUITE(DnsSdQueue, Kinds, KindNames);

TYPED_TEST(DnsSdQueue, getOnAnEmptyQueueReturnsTrueAndLeavesOutAsItWas) {
    auto result = TypeParam::makeResult(77);
    EXPECT_TRUE(this->client().get(result));
    EXPECT_EQ(77, TypeParam::getNumber(result));
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, getTakesTheOldestRecord) {
    this->add(1);
    this->add(2);
    this->add(3);
    EXPECT_EQ(1, this->get());
    EXPECT_EQ(2, this->get());
    this->add(4);
    EXPECT_EQ(3, this->get());
    EXPECT_EQ(4, this->get());
    EXPECT_EQ(-1, this->get());
}

TYPED_TEST(DnsSdQueue, getOverwritesWhatOutHeld) {
    this->add(1);
    auto result = TypeParam::makeResult(77);
    EXPECT_FALSE(this->client().get(result));
    EXPECT_EQ(1, TypeParam::getNumber(result));
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

TYPED_TEST(DnsSdQueue, waitWithARecordReturnsFalseAtOnceAndTakesNothing) {
    this->add(5);
    EXPECT_FALSE(this->client().wait());
    EXPECT_FALSE(this->client().wait());
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithADeadlineAndARecordReturnsFalseAtOnceAlsoInThePast) {
    this->add(5);
    t_waits = 0;
    EXPECT_FALSE(this->client().wait(LONG_PAST));
    EXPECT_FALSE(this->client().wait(TimePoint(-5)));
    EXPECT_FALSE(this->client().wait(farAway()));
    EXPECT_FALSE(this->client().wait(TimePoint::MAX));
    EXPECT_EQ(0U, t_waits);
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithAPastDeadlineReturnsTrueAfterOneTimedWait) {
    t_waits = 0;
    EXPECT_TRUE(this->client().wait(LONG_PAST));
    EXPECT_EQ(1U, t_waits);
    EXPECT_TRUE(this->client().wait(TimePoint(-5)));
    EXPECT_EQ(2U, t_waits);
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, waitReturnsTrueAtItsDeadlineAndNotBefore) {
    TimePoint const deadline = in(30);
    EXPECT_TRUE(this->client().wait(deadline));
    EXPECT_GE(TimePoint::now(), deadline);
}

TYPED_TEST(DnsSdQueue, spuriousWakeUpsNeitherEndTheWaitNorProlongIt) {
    TimePoint const deadline = in(30);
    timespec const expected = deadline.toTimespec();
    t_waits = 0;
    t_spurious = 3;
    EXPECT_TRUE(this->client().wait(deadline));
    EXPECT_GE(TimePoint::now(), deadline);
    ASSERT_GE(t_waits, 4U);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(expected.tv_sec, t_deadlines[i].tv_sec);
        EXPECT_EQ(expected.tv_nsec, t_deadlines[i].tv_nsec);
    }
}

TYPED_TEST(DnsSdQueue, waitsThatFailAreRepeatedUntilTheDeadline) {
    for (int const error : {EINVAL, EPERM, ENOMEM}) {
        TimePoint const deadline = in(10);
        t_waits = 0;
        t_spurious = 2;
        t_spurious_result = error;
        EXPECT_TRUE(this->client().wait(deadline));
        t_spurious_result = 0;
        EXPECT_GE(TimePoint::now(), deadline);
        EXPECT_GE(t_waits, 3U);
    }
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, aWaiterThatIsCancelledLeavesTheQueueUsable) {
    std::atomic<pid_t> id{0};
    auto body = [&] {
        id = static_cast<pid_t>(syscall(SYS_gettid));
        this->client().wait();
        ADD_FAILURE() << "nothing ever came";
    };
    pthread_t thread{};
    ASSERT_EQ(
        0,
        pthread_create(
            &thread, nullptr,
            [](void* argument) -> void* {
                (*static_cast<decltype(body)*>(argument))();
                return nullptr;
            },
            &body));
    while (id == 0) {
        sched_yield();
    }
    support::waitUntilAsleep(getpid(), id);
    EXPECT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EventRecorder const recorder;
    this->add(5);
    EXPECT_EQ(5, this->get());
    EXPECT_EQ("", recorder.getText());
}

TYPED_TEST(DnsSdQueue, waitEndsWhenARecordComes) {
    Waiter waiter([this] { EXPECT_FALSE(this->client().wait()); });
    waiter.untilAsleep();
    this->add(5);
    waiter.join();
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithADeadlineEndsWhenARecordComes) {
    for (TimePoint const& deadline : {farAway(), TimePoint(TimePoint::MAX)}) {
        Waiter waiter([this, deadline] { EXPECT_FALSE(this->client().wait(deadline)); });
        waiter.untilAsleep();
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
    this->client().wait();
    EXPECT_EQ(3, count.getCalls());
}

TYPED_TEST(DnsSdQueue, everyRecordWakesOneOfSeveralWaiters) {
    constexpr int WAITERS = 3;
    std::vector<std::unique_ptr<Waiter>> waiters;
    std::atomic<int> sum{0};
    for (int i = 0; i < WAITERS; ++i) {
        waiters.push_back(std::make_unique<Waiter>([this, &sum] {
            // Another reader may be faster between the two.
            int number = -1;
            while (number < 0) {
                EXPECT_FALSE(this->client().wait(farAway()));
                number = this->get();
            }
            sum += number;
        }));
    }
    for (auto const& waiter : waiters) {
        waiter->untilAsleep();
    }
    this->add(1);
    this->add(10);
    this->add(100);
    waiters.clear();
    EXPECT_EQ(111, sum);
}

TYPED_TEST(DnsSdQueue, keepsTheOrderOfEachOfManyProducers) {
    constexpr int PRODUCERS = 4;
    constexpr int RECORDS = 400;
    std::vector<std::thread> producers;
    for (int producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([this, producer] {
            for (int i = 0; i < RECORDS; ++i) {
                this->add(producer * RECORDS + i);
            }
        });
    }
    std::vector<int> next(PRODUCERS, 0);
    for (int i = 0; i < PRODUCERS * RECORDS; ++i) {
        ASSERT_FALSE(this->client().wait(farAway()));
        int const number = this->get();
        ASSERT_GE(number, 0);
        ASSERT_EQ(next[static_cast<size_t>(number / RECORDS)]++, number % RECORDS);
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    EXPECT_EQ(-1, this->get());
}

TYPED_TEST(DnsSdQueue, givesEachRecordToOneOfManyReaders) {
    constexpr int READERS = 3;
    constexpr int RECORDS = 900;
    std::mutex mutex;
    std::vector<int> seen(RECORDS, 0);
    std::atomic<int> left{RECORDS};
    std::vector<std::thread> readers;
    for (int i = 0; i < READERS; ++i) {
        readers.emplace_back([&] {
            while (left > 0) {
                // A record that another reader took leaves nothing to wait for.
                if (this->client().wait(in(5))) {
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
    }
    for (int i = 0; i < RECORDS; ++i) {
        this->add(i);
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(std::vector<int>(RECORDS, 1), seen);
}

TYPED_TEST(DnsSdQueue, destroyingAClientWithUnreadRecordsIsSilent) {
    EventRecorder const recorder;
    {
        TypeParam kind;
        for (int i = 0; i < 100; ++i) {
            TypeParam::add(kind.client, i);
        }
    }
    EXPECT_EQ("", recorder.getText());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, destroyingAClientLeavesAPendingErrorOfItsCallerAlone) {
    std::ErrorOutput("here", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "mine");
    { TypeParam const kind; }
    EXPECT_TRUE(std::ErrorStorage::isError(true));
    EXPECT_EQ(1, std::ErrorStorage::id());
    std::ErrorStorage::ack();
}

// ---- the records of each ----

TEST(SyncBrowser, tellsWhatCameAndWhatWent) {
    DnsSd::SyncBrowser browser("_ipp._tcp", "local");
    browser.service_appeared(
        text("Pr\xC3\xBC"
             "fer"),
        "_ipp._tcp", "local");
    browser.service_appeared(text("second"), "_http._tcp", "example");
    browser.service_disappeared(
        text("Pr\xC3\xBC"
             "fer"),
        "_ipp._tcp", "local");
    std::vector<std::string> records;
    DnsSd::SyncBrowser::Result result;
    while (!browser.get(result)) {
        records.push_back(
            result.name.toUTF8() + " " + result.type + " " + result.domain + (result.appeared ? " +" : " -"));
    }
    EXPECT_EQ(
        (std::vector<std::string>{
            "Pr\xC3\xBC"
            "fer _ipp._tcp local +",
            "second _http._tcp example +",
            "Pr\xC3\xBC"
            "fer _ipp._tcp local -"}),
        records);
}

TEST(SyncResolver, keepsEveryFieldOfARecord) {
    DnsSd::SyncResolver resolver(text("name"), "_ipp._tcp", "local");
    Txt txt;
    txt["path"] = "/status";
    resolver.resolved(text("Printer"), "_ipp._tcp", "local", "printer.local", 65535, txt);
    DnsSd::SyncResolver::Result result;
    ASSERT_FALSE(resolver.get(result));
    EXPECT_TRUE(text("Printer") == result.name);
    EXPECT_EQ("_ipp._tcp", result.type);
    EXPECT_EQ("local", result.domain);
    EXPECT_EQ("printer.local", result.host);
    EXPECT_EQ(65535, result.port);
    EXPECT_EQ(txt, result.txt);
}

TEST(SyncResolver, keepsItsOwnCopyOfTheTxtRecord) {
    DnsSd::SyncResolver resolver(text("name"), "_ipp._tcp", "local");
    {
        Txt txt;
        txt["path"] = "/status";
        resolver.resolved(text("Printer"), "_ipp._tcp", "local", "printer.local", 631, txt);
        txt["path"] = "/other";
        txt["more"] = "1";
    }
    DnsSd::SyncResolver::Result result;
    ASSERT_FALSE(resolver.get(result));
    EXPECT_EQ((std::map<std::string, std::string>{{"path", "/status"}}), result.txt);
}

TEST(SyncResolver, resultIsMadeFromItsFieldsAndCopied) {
    Txt txt;
    txt["a"] = "1";
    DnsSd::SyncResolver::Result const result(text("n"), "t", "d", "h", 80, txt);
    DnsSd::SyncResolver::Result const copy(result);
    txt["a"] = "2";
    for (auto const* each : {&result, &copy}) {
        EXPECT_TRUE(text("n") == each->name);
        EXPECT_EQ("t", each->type);
        EXPECT_EQ("d", each->domain);
        EXPECT_EQ("h", each->host);
        EXPECT_EQ(80, each->port);
        EXPECT_EQ("1", each->txt.at("a"));
    }
}

TEST(SyncLookup, keepsNameAndAddress) {
    DnsSd::SyncLookup lookup("printer.local");
    lookup.address("printer.local", "192.0.2.1");
    lookup.address("printer.local", "2001:db8::1");
    lookup.address("", "");
    std::vector<std::string> records;
    DnsSd::SyncLookup::Result result;
    while (!lookup.get(result)) {
        records.push_back(result.name + "=" + result.address);
    }
    EXPECT_EQ(
        (std::vector<std::string>{"printer.local=192.0.2.1", "printer.local=2001:db8::1", "="}), records);
}

TEST(DnsSdResults, startEmpty) {
    DnsSd::SyncBrowser::Result const browsed;
    EXPECT_FALSE(browsed.appeared);
    EXPECT_TRUE(browsed.name.isEmpty());
    DnsSd::SyncResolver::Result const resolved;
    EXPECT_EQ(0, resolved.port);
    EXPECT_TRUE(resolved.txt.empty());
}

// ---- failures of an engine ----

TEST(DnsSdError, isABrokenInvariantOfEveryClient) {
    DnsSd::SyncBrowser browser("_ipp._tcp", "local");
    DnsSd::SyncResolver resolver(text("name"), "_ipp._tcp", "local");
    DnsSd::SyncLookup lookup("host.local");
    DnsSd::SyncService service(text("name"), "_ipp._tcp", "local", 631);
    std::string const expected = "ASSERT framework/src/vesk/DnsSd error: !\"Implement me!\"";
    {
        EventRecorder const recorder;
        browser.error();
        EXPECT_EQ(expected, recorder.getText());
    }
    {
        EventRecorder const recorder;
        resolver.error();
        EXPECT_EQ(expected, recorder.getText());
    }
    {
        EventRecorder const recorder;
        lookup.error();
        EXPECT_EQ(expected, recorder.getText());
    }
    {
        EventRecorder const recorder;
        service.error();
        EXPECT_EQ(expected, recorder.getText());
    }
}

// ---- the classes ----

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

} // namespace
