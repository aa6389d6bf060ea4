#include "Clients.h"
#include "TestEngine.h"

#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"
#include "support/RunInThreads.h"
#include "support/Threads.h"

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>

namespace {

/// The number of threads that have taken the name "vesk::DnsSd".
std::atomic<int> g_named{0};

} // namespace

VESK_INJECT_RESULT(
    pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, function, argument))
VESK_INJECT_RESULT(pthread_join, (pthread_t thread, void** result), (thread, result))

support::Injected inject_pthread_setname_np("pthread_setname_np");
extern "C" VESK_UNWATCHED int pthread_setname_np(pthread_t thread, char const* name) {
    if (strcmp(name, "vesk::DnsSd") == 0) {
        ++g_named;
    }
    return reinterpret_cast<int (*)(pthread_t, char const*)>(inject_pthread_setname_np.getReal())(
        thread, name);
}

namespace {

using namespace support;
using tarnbase::TimePoint;
using Calls = std::vector<std::string>;
using Reference = std::SharedBase::Ptr<DnsSd::DnsSdThread>;

/// Counts the starts and joins of threads by the calling thread, and the threads of service discovery.
class ThreadCount {
public:
    int getStarts() const { return m_starts.getCalls(); }
    int getEnds() const { return m_ends.getCalls(); }
    /// Exact after the threads have ended.
    int getNamed() const { return g_named - m_named; }

private:
    int m_named = g_named;
    Fault m_starts{inject_pthread_create, 0};
    Fault m_ends{inject_pthread_join, 0};
};

TEST(DnsSdWithoutEngine, isTheStateOfANewProcess) {
    EXPECT_EQ(nullptr, DnsSd::getEngine());
}

TEST(DnsSdWithoutEngine, destructorOfAClientStartsAndJoinsTheThread) {
    ThreadCount const count;
    {
        Browser const browser = make<Browser>();
        EXPECT_EQ(0, count.getStarts()) << "the constructor takes no reference";
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getStarts());
    EXPECT_EQ(1, count.getEnds());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST(DnsSdWithoutEngine, everyKindOfClientStartsAndJoinsTheThread) {
    ThreadCount const count;
    { Browser const client = make<Browser>(); }
    EXPECT_EQ(1, count.getNamed());
    { Resolver const client = make<Resolver>(); }
    EXPECT_EQ(2, count.getNamed());
    { Lookup const client = make<Lookup>(); }
    EXPECT_EQ(3, count.getNamed());
    { Service const client = make<Service>(); }
    EXPECT_EQ(4, count.getNamed());
    EXPECT_EQ(4, count.getStarts());
    EXPECT_EQ(4, count.getEnds());
}

TEST(DnsSdWithoutEngine, destroyedClientSharesTheThreadOfAnotherReference) {
    ThreadCount const count;
    {
        Reference const held(DnsSd::DEFAULT);
        EXPECT_EQ(1, count.getStarts());
        { Lookup const client = make<Lookup>(); }
        EXPECT_EQ(1, count.getStarts());
        EXPECT_EQ(0, count.getEnds());
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getEnds());
}

TEST(DnsSdWithoutEngine, laterEngineIsNotCalledForAnEarlierClient) {
    TestEngine engine;
    {
        Browser const browser = make<Browser>();
        Installed const installed(engine);
    }
    std::unique_ptr<Browser> browser(new Browser(make<Browser>()));
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

TEST(DnsSdSetEngine, returnsTheEarlierEngine) {
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
    { Browser const client = make<Browser>(); }
    EXPECT_EQ((Calls{"browse _http._tcp local", "cancel"}), m_engine.getCalls());
    { DnsSd::SyncResolver const client(text("a n\xC3\xA4me"), "_ipp._tcp", "example"); }
    { Lookup const client = make<Lookup>(); }
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

TEST_F(DnsSdEngine, deliversToAWaitingBrowser) {
    std::atomic<bool> about_to_wait{false};
    pid_t const reader = getThreadId();
    m_engine.deliverOnce([&](DnsSdBase::Client& client) {
        while (!about_to_wait) {
            sched_yield();
        }
        waitUntilAsleep(getpid(), reader);
        client.service_appeared(text("first"), "_http._tcp", "local");
        client.all_for_now();
        client.service_disappeared(text("first"), "_http._tcp", "local");
    });
    Browser browser = make<Browser>();
    about_to_wait = true;
    EXPECT_FALSE(browser.wait());
    Browser::Result result;
    ASSERT_FALSE(browser.get(result));
    EXPECT_TRUE(text("first") == result.name);
    EXPECT_TRUE(result.appeared);
    ASSERT_FALSE(browser.wait(farAway()));
    ASSERT_FALSE(browser.get(result));
    EXPECT_TRUE(text("first") == result.name);
    EXPECT_FALSE(result.appeared);
    EXPECT_TRUE(browser.get(result)) << "the end of the first batch makes no record";
}

TEST_F(DnsSdEngine, deliversToAResolverAndToALookup) {
    m_engine.deliverOnce([](DnsSdBase::Client& client) {
        unsigned char const record[] = {3, 'a', '=', 'b'};
        client.resolved(text("name"), "_http._tcp", "local", "host.local", 8080, Txt(sizeof record, record));
        client.address("host.local", "192.0.2.1");
    });
    Resolver resolver = make<Resolver>();
    ASSERT_FALSE(resolver.wait(farAway()));
    Resolver::Result where;
    ASSERT_FALSE(resolver.get(where));
    EXPECT_EQ("host.local", where.host);
    EXPECT_EQ(8080, where.port);
    EXPECT_EQ("b", where.txt.at("a"));
    EXPECT_TRUE(resolver.get(where)) << "addresses are not for a resolver";

    DnsSd::SyncLookup lookup(where.host);
    ASSERT_FALSE(lookup.wait(farAway()));
    Lookup::Result found;
    ASSERT_FALSE(lookup.get(found));
    EXPECT_EQ("192.0.2.1", found.address);
}

TEST_F(DnsSdEngine, canCallBackBeforeTheConstructorReturns) {
    std::atomic<bool> delivered{false};
    m_engine.deliverOnce([&](DnsSdBase::Client& client) {
        client.service_appeared(text("early"), "_http._tcp", "local");
        delivered = true;
    });
    m_engine.on_enter = [&](DnsSdBase::Client&) {
        while (!delivered) {
            sched_yield();
        }
    };
    Browser browser = make<Browser>();
    Browser::Result result;
    EXPECT_FALSE(browser.get(result));
    EXPECT_TRUE(text("early") == result.name);
}

TEST_F(DnsSdEngine, waitEndsAtItsDeadlineWithoutADelivery) {
    Lookup lookup = make<Lookup>();
    TimePoint const deadline = in(30);
    EXPECT_TRUE(lookup.wait(deadline));
    EXPECT_GE(TimePoint::now(), deadline);
}

TEST_F(DnsSdEngine, callsOfAnotherKindAreIgnored) {
    m_engine.deliverOnce([](DnsSdBase::Client& client) {
        client.resolved(text("name"), "type", "local", "host", 1, Txt::EMPTY);
        client.service_appeared(text("name"), "type", "local");
        client.service_disappeared(text("name"), "type", "local");
        client.all_for_now();
        client.address("host", "192.0.2.1");
    });
    Lookup lookup = make<Lookup>();
    ASSERT_FALSE(lookup.wait(farAway()));
    Lookup::Result result;
    EXPECT_FALSE(lookup.get(result));
    EXPECT_EQ("192.0.2.1", result.address);
    EXPECT_TRUE(lookup.get(result));
    Service const service = make<Service>(); // Ignores all of them.
}

TEST_F(DnsSdEngine, clientsKeepTheThreadDuringTheirLifetime) {
    ThreadCount const count;
    {
        Browser const browser = make<Browser>();
        {
            Resolver const resolver = make<Resolver>();
            Lookup const lookup = make<Lookup>();
            Service const service = make<Service>();
        }
        EXPECT_EQ(0, count.getEnds());
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getStarts());
    EXPECT_EQ(1, count.getEnds());
}

TEST_F(DnsSdEngine, isCalledAfterTheStartOfTheThread) {
    ThreadCount const count;
    int starts_at_entry = -1;
    m_engine.on_enter = [&](DnsSdBase::Client&) { starts_at_entry = count.getStarts(); };
    Lookup const lookup = make<Lookup>();
    EXPECT_EQ(1, starts_at_entry);
}

TEST_F(DnsSdEngine, isCanceledBeforeTheThreadEnds) {
    ThreadCount const count;
    int ends_at_cancel = -1;
    m_engine.on_cancel = [&](DnsSdBase::Client&) { ends_at_cancel = count.getEnds(); };
    { Browser const browser = make<Browser>(); }
    EXPECT_EQ(0, ends_at_cancel);
    EXPECT_EQ(1, count.getEnds());
}

TEST_F(DnsSdEngine, isCanceledWithTheClientOfTheCall) {
    std::vector<DnsSdBase::Client*> entered;
    std::vector<DnsSdBase::Client*> canceled;
    m_engine.on_enter = [&](DnsSdBase::Client& client) { entered.push_back(&client); };
    m_engine.on_cancel = [&](DnsSdBase::Client& client) { canceled.push_back(&client); };
    {
        Browser const browser = make<Browser>();
        Lookup const lookup = make<Lookup>();
    }
    ASSERT_EQ(2U, entered.size());
    EXPECT_EQ((std::vector<DnsSdBase::Client*>{entered[1], entered[0]}), canceled);
}

TEST_F(DnsSdEngine, canDeliverDuringTheCancellation) {
    m_engine.on_cancel = [](DnsSdBase::Client& client) {
        std::thread([&client] {
            client.service_disappeared(text("last"), "_http._tcp", "local");
            client.resolved(text("last"), "_http._tcp", "local", "host", 80, Txt::EMPTY);
            client.address("host", "192.0.2.1");
        }).join();
    };
    EventRecorder const recorder;
    { Browser const client = make<Browser>(); }
    { Resolver const client = make<Resolver>(); }
    { Lookup const client = make<Lookup>(); }
    { Service const client = make<Service>(); }
    EXPECT_EQ("", recorder.getText());
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

    std::unique_ptr<Browser> browser(new Browser(make<Browser>()));
    DnsSd::setEngine(nullptr);
    browser.reset();
    EXPECT_EQ(4U, m_engine.getCalls().size());
}

TEST_F(DnsSdEngine, errorTripsAnAssertion) {
    EventRecorder const recorder;
    m_engine.deliverOnce([](DnsSdBase::Client& client) {
        client.error();
        client.address("host", "192.0.2.1");
    });
    Lookup lookup = make<Lookup>();
    ASSERT_FALSE(lookup.wait(farAway()));
    EXPECT_EQ("ASSERT framework/src/vesk/DnsSd error: !\"Implement me!\"", recorder.getText());
}

/// Rejects every client.
class ThrowingEngine : public DnsSd::Engine {
public:
    void browse(DnsSdBase::Client&, std::string const&, std::string const&) override { fail(); }
    void resolve(DnsSdBase::Client&, String const&, std::string const&, std::string const&) override {
        fail();
    }
    void lookup(DnsSdBase::Client&, std::string const&) override { fail(); }
    void publish(
        DnsSdBase::Client&, String const&, std::string const&, std::string const&, unsigned short,
        Txt const&) override {
        fail();
    }
    void cancel(DnsSdBase::Client&) override { ++cancels; }

    int cancels = 0;

private:
    [[noreturn]] static void fail() { throw std::runtime_error("no more clients"); }
};

TEST(DnsSdThrowingEngine, leavesNoClientAndNoReference) {
    ThrowingEngine engine;
    Installed const installed(engine);
    ThreadCount const count;
    EXPECT_THROW(make<Browser>(), std::runtime_error);
    EXPECT_THROW(make<Resolver>(), std::runtime_error);
    EXPECT_THROW(make<Lookup>(), std::runtime_error);
    EXPECT_THROW(make<Service>(), std::runtime_error);
    EXPECT_EQ(0, engine.cancels);
    EXPECT_EQ(4, count.getNamed());
    EXPECT_EQ(4, count.getEnds());
}

TEST_F(DnsSdEngine, deliversWhileClientsAreDestroyed) {
    m_engine.flood([](DnsSdBase::Client& client) {
        client.service_appeared(text("name"), "_http._tcp", "local");
        client.resolved(text("name"), "_http._tcp", "local", "host", 80, Txt::EMPTY);
        client.address("host", "192.0.2.1");
    });
    for (int round = 0; round < 50; ++round) {
        std::unique_ptr<Browser> browser(new Browser(make<Browser>()));
        std::unique_ptr<Resolver> resolver(new Resolver(make<Resolver>()));
        std::unique_ptr<Lookup> lookup(new Lookup(make<Lookup>()));
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
    m_engine.flood(
        [](DnsSdBase::Client& client) { client.service_appeared(text("name"), "_http._tcp", "local"); });
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
