#include "Clients.h"

#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"
#include "support/RunInThreads.h"
#include "support/Threads.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>

namespace {

constexpr size_t MAX_DEADLINES = 8;

// The deadlines of the timed waits of this thread, and the number and result of its next spurious wake-ups.
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

using namespace support;
using tarnbase::TimePoint;

TimePoint const LONG_PAST(1);

/// A thread that runs `body`.
class Waiter {
public:
    template <typename Body>
    explicit Waiter(Body body)
        : m_thread([this, body] {
              m_id = getThreadId();
              body();
          }) {}
    ~Waiter() { join(); }

    /// Waits until the thread sleeps in the wait that it enters next.
    void untilAsleep() const {
        while (m_id == 0) {
            sched_yield();
        }
        waitUntilAsleep(getpid(), m_id);
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

void add(Browser& client, int number) {
    client.service_appeared(text(std::to_string(number)), "_http._tcp", "local");
}
void add(Resolver& client, int number) {
    client.resolved(text("name"), "type", "local", "host", static_cast<unsigned short>(number), Txt());
}
void add(Lookup& client, int number) {
    client.address("host", std::to_string(number));
}

int getNumber(Browser::Result const& result) {
    return std::stoi(result.name.toUTF8());
}
int getNumber(Resolver::Result const& result) {
    return result.port;
}
int getNumber(Lookup::Result const& result) {
    return std::stoi(result.address);
}

template <typename Client>
class DnsSdQueue : public testing::Test {
protected:
    void add(int number) { ::add(m_client, number); }
    /// Takes a record. Returns its number, or -1 if there is none.
    int get() {
        typename Client::Result result;
        return m_client.get(result) ? -1 : getNumber(result);
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

/// Returns a result that is not in the queue, with the number 77.
template <typename Client>
typename Client::Result makeResult() {
    Client client = make<Client>();
    add(client, 77);
    typename Client::Result result;
    EXPECT_FALSE(client.get(result));
    return result;
}

TYPED_TEST(DnsSdQueue, getOnAnEmptyQueueReturnsTrueAndKeepsTheResult) {
    auto result = makeResult<TypeParam>();
    EXPECT_TRUE(this->m_client.get(result));
    EXPECT_EQ(77, getNumber(result));
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

TYPED_TEST(DnsSdQueue, getOverwritesTheResult) {
    this->add(1);
    auto result = makeResult<TypeParam>();
    EXPECT_FALSE(this->m_client.get(result));
    EXPECT_EQ(1, getNumber(result));
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
        EXPECT_FALSE(this->m_client.wait(deadline));
    }
    EXPECT_EQ(0U, t_waits);
    EXPECT_EQ(5, this->get());
}

TYPED_TEST(DnsSdQueue, waitWithAPastDeadlineMakesOneTimedWait) {
    t_waits = 0;
    EXPECT_TRUE(this->m_client.wait(LONG_PAST));
    EXPECT_EQ(1U, t_waits);
    EXPECT_TRUE(this->m_client.wait(TimePoint(-5)));
    EXPECT_EQ(2U, t_waits);
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, waitReturnsAtItsDeadlineAndNotBefore) {
    TimePoint const deadline = in(30);
    EXPECT_TRUE(this->m_client.wait(deadline));
    EXPECT_GE(TimePoint::now(), deadline);
}

TYPED_TEST(DnsSdQueue, spuriousAndFailedWaitsDoNotChangeTheDeadline) {
    for (int const result : {0, EINVAL, EPERM, ENOMEM}) {
        TimePoint const deadline = in(10);
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
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, canceledWaiterLeavesTheQueueUsable) {
    std::atomic<pid_t> id{0};
    auto body = [&] {
        id = getThreadId();
        this->m_client.wait();
        ADD_FAILURE() << "the wait has returned";
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
    waitUntilAsleep(getpid(), id);
    EXPECT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EventRecorder const recorder;
    this->add(5);
    EXPECT_EQ(5, this->get());
    EXPECT_EQ("", recorder.getText());
}

TYPED_TEST(DnsSdQueue, waitWithOrWithoutADeadlineEndsWithARecord) {
    for (TimePoint const& deadline : {TimePoint(), farAway(), TimePoint(TimePoint::MAX)}) {
        Waiter waiter([this, deadline] {
            EXPECT_FALSE(deadline == TimePoint() ? this->m_client.wait() : this->m_client.wait(deadline));
        });
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
    this->m_client.wait();
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
                EXPECT_FALSE(this->m_client.wait(farAway()));
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

TYPED_TEST(DnsSdQueue, keepsTheOrderOfEachProducer) {
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
        ASSERT_FALSE(this->m_client.wait(farAway()));
        int const number = this->get();
        ASSERT_GE(number, 0);
        ASSERT_EQ(next[static_cast<size_t>(number / RECORDS)]++, number % RECORDS);
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
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

TYPED_TEST(DnsSdQueue, clientWithUnreadRecordsIsDestroyedSilently) {
    EventRecorder const recorder;
    {
        TypeParam client = make<TypeParam>();
        for (int i = 0; i < 100; ++i) {
            add(client, i);
        }
    }
    EXPECT_EQ("", recorder.getText());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TYPED_TEST(DnsSdQueue, destroyedClientKeepsPendingReports) {
    std::ErrorOutput("here", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "mine");
    { TypeParam const client = make<TypeParam>(); }
    EXPECT_TRUE(std::ErrorStorage::isError(true));
    EXPECT_EQ(1, std::ErrorStorage::id());
    std::ErrorStorage::ack();
}

std::string const PRINTER = "Pr\303\274fer";

TEST(SyncBrowser, recordsAppearedAndDisappearedServices) {
    Browser browser = make<Browser>();
    browser.service_appeared(text(PRINTER), "_ipp._tcp", "local");
    browser.service_appeared(text("second"), "_http._tcp", "example");
    browser.service_disappeared(text(PRINTER), "_ipp._tcp", "local");
    std::vector<std::string> records;
    Browser::Result result;
    EXPECT_FALSE(result.appeared);
    EXPECT_TRUE(result.name.isEmpty());
    while (!browser.get(result)) {
        records.push_back(
            result.name.toUTF8() + " " + result.type + " " + result.domain + (result.appeared ? " +" : " -"));
    }
    EXPECT_EQ(
        (std::vector<std::string>{
            PRINTER + " _ipp._tcp local +", "second _http._tcp example +", PRINTER + " _ipp._tcp local -"}),
        records);
}

void expectPrinter(Resolver::Result const& result) {
    EXPECT_TRUE(text("Printer") == result.name);
    EXPECT_EQ("_ipp._tcp", result.type);
    EXPECT_EQ("local", result.domain);
    EXPECT_EQ("printer.local", result.host);
    EXPECT_EQ(65535, result.port);
    EXPECT_EQ((std::map<std::string, std::string>{{"path", "/status"}}), result.txt);
}

TEST(SyncResolver, recordsEveryFieldAndItsOwnCopyOfTheTxtRecord) {
    Resolver resolver = make<Resolver>();
    {
        Txt txt;
        txt["path"] = "/status";
        resolver.resolved(text("Printer"), "_ipp._tcp", "local", "printer.local", 65535, txt);
        txt["path"] = "/other";
        txt["more"] = "1";
    }
    Resolver::Result result;
    EXPECT_EQ(0, result.port);
    EXPECT_TRUE(result.txt.empty());
    ASSERT_FALSE(resolver.get(result));
    expectPrinter(result);
}

TEST(SyncResolver, resultIsMadeFromItsFieldsAndCopied) {
    Txt txt;
    txt["path"] = "/status";
    Resolver::Result const result(text("Printer"), "_ipp._tcp", "local", "printer.local", 65535, txt);
    Resolver::Result const copy(result);
    txt["path"] = "/other";
    expectPrinter(result);
    expectPrinter(copy);
}

TEST(SyncLookup, recordsNameAndAddress) {
    Lookup lookup = make<Lookup>();
    lookup.address("printer.local", "192.0.2.1");
    lookup.address("printer.local", "2001:db8::1");
    lookup.address("", "");
    std::vector<std::string> records;
    Lookup::Result result;
    while (!lookup.get(result)) {
        records.push_back(result.name + "=" + result.address);
    }
    EXPECT_EQ(
        (std::vector<std::string>{"printer.local=192.0.2.1", "printer.local=2001:db8::1", "="}), records);
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

} // namespace
