#include "TestEngine.h"

#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/DnsSd.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// How many threads took the name "vesk::DnsSd".
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

using std::unicode::String;
using support::EventRecorder;
using support::Fault;
using support::Installed;
using support::TestEngine;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::DnsSd;
using vesk::DnsSdBase;
using Calls = std::vector<std::string>;
using Reference = std::SharedBase::Ptr<DnsSd::DnsSdThread>;

TimePoint in(long long ms) {
    return TimePoint::now() + Duration(ms);
}

/// Beyond any good run.
TimePoint farAway() {
    return in(60000);
}

String text(std::string const& utf8) {
    return String::fromUTF8(utf8);
}

/// Counts the starts and ends of threads by the calling one, and those of them that are for discovery.
class ThreadCount {
public:
    int getStarts() const { return m_starts.getCalls(); }
    int getEnds() const { return m_ends.getCalls(); }
    /// Exact once the threads have ended.
    int getNamed() const { return g_named - m_named; }

private:
    int m_named = g_named;
    Fault m_starts{inject_pthread_create, 0};
    Fault m_ends{inject_pthread_join, 0};
};

// ---- without an engine ----

TEST(DnsSdWithoutEngine, isHowAProcessStarts) {
    EXPECT_EQ(nullptr, DnsSd::getEngine());
}

TEST(DnsSdWithoutEngine, theFirstClientToGoStartsAndJoinsTheThread) {
    ThreadCount const count;
    {
        DnsSd::SyncBrowser const browser("_http._tcp", "local");
        EXPECT_EQ(0, count.getStarts()) << "the constructor takes no reference";
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getStarts());
    EXPECT_EQ(1, count.getEnds());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST(DnsSdWithoutEngine, everyKindOfClientDoesSo) {
    ThreadCount const count;
    { DnsSd::SyncBrowser const client("_http._tcp", "local"); }
    EXPECT_EQ(1, count.getNamed());
    { DnsSd::SyncResolver const client(text("name"), "_http._tcp", "local"); }
    EXPECT_EQ(2, count.getNamed());
    { DnsSd::SyncLookup const client("host.local"); }
    EXPECT_EQ(3, count.getNamed());
    { DnsSd::SyncService const client(text("name"), "_http._tcp", "local", 80); }
    EXPECT_EQ(4, count.getNamed());
    EXPECT_EQ(4, count.getStarts());
    EXPECT_EQ(4, count.getEnds());
}

TEST(DnsSdWithoutEngine, aClientThatGoesSharesTheThreadOfWhoHoldsAReference) {
    ThreadCount const count;
    {
        Reference const held(DnsSd::DEFAULT);
        EXPECT_EQ(1, count.getStarts());
        { DnsSd::SyncLookup const client("host.local"); }
        EXPECT_EQ(1, count.getStarts());
        EXPECT_EQ(0, count.getEnds());
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getEnds());
}

TEST(DnsSdWithoutEngine, anEngineThatComesLaterHasNothingToDoWithAClient) {
    TestEngine engine;
    {
        DnsSd::SyncBrowser const browser("_http._tcp", "local");
        Installed const installed(engine);
    }
    std::optional<DnsSd::SyncBrowser> browser;
    browser.emplace("_http._tcp", "local");
    Installed const installed(engine);
    browser.reset();
    EXPECT_EQ(Calls{}, engine.getCalls());
}

TEST(DnsSdWithoutEngine, clientsOfManyThreadsComeAndGo) {
    int const before = g_named;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 25; ++round) {
                DnsSd::SyncBrowser browser("_http._tcp", "local");
                browser.service_appeared(text("name"), "_http._tcp", "local");
                EXPECT_FALSE(browser.wait());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(g_named - before, 1);
    EXPECT_LE(g_named - before, 100);
}

// ---- installing ----

TEST(DnsSdSetEngine, givesBackTheOneBefore) {
    TestEngine first;
    TestEngine second;
    EXPECT_EQ(nullptr, DnsSd::setEngine(&first));
    EXPECT_EQ(&first, DnsSd::getEngine());
    EXPECT_EQ(&first, DnsSd::setEngine(&second));
    EXPECT_EQ(&second, DnsSd::getEngine());
    EXPECT_EQ(&second, DnsSd::setEngine(nullptr));
    EXPECT_EQ(nullptr, DnsSd::getEngine());
}

// ---- with an engine ----

class DnsSdEngine : public testing::Test {
protected:
    TestEngine m_engine;
    Installed m_installed{m_engine};
};

TEST_F(DnsSdEngine, isAskedByEachKindOfClientAndCancelled) {
    { DnsSd::SyncBrowser const client("_http._tcp", "local"); }
    EXPECT_EQ((Calls{"browse _http._tcp local", "cancel"}), m_engine.getCalls());
    { DnsSd::SyncResolver const client(text("a n\xC3\xA4me"), "_ipp._tcp", "example"); }
    { DnsSd::SyncLookup const client("host.local"); }
    DnsSdBase::Txt txt;
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

TEST_F(DnsSdEngine, deliversToABrowserThatWaits) {
    std::atomic<bool> about_to_wait{false};
    auto const reader = static_cast<pid_t>(syscall(SYS_gettid));
    m_engine.tell([&](DnsSdBase::Client& client) {
        while (!about_to_wait) {
            sched_yield();
        }
        support::waitUntilAsleep(getpid(), reader);
        client.service_appeared(text("first"), "_http._tcp", "local");
        client.all_for_now();
        client.service_disappeared(text("first"), "_http._tcp", "local");
    });
    DnsSd::SyncBrowser browser("_http._tcp", "local");
    about_to_wait = true;
    EXPECT_FALSE(browser.wait());
    DnsSd::SyncBrowser::Result result;
    ASSERT_FALSE(browser.get(result));
    EXPECT_TRUE(text("first") == result.name);
    EXPECT_TRUE(result.appeared);
    ASSERT_FALSE(browser.wait(farAway()));
    ASSERT_FALSE(browser.get(result));
    EXPECT_TRUE(text("first") == result.name);
    EXPECT_FALSE(result.appeared);
    EXPECT_TRUE(browser.get(result)) << "the end of a first batch is not told";
}

TEST_F(DnsSdEngine, deliversToAResolverAndToALookup) {
    m_engine.tell([](DnsSdBase::Client& client) {
        unsigned char const record[] = {3, 'a', '=', 'b'};
        client.resolved(
            text("name"), "_http._tcp", "local", "host.local", 8080, DnsSdBase::Txt(sizeof record, record));
        client.address("host.local", "192.0.2.1");
    });
    DnsSd::SyncResolver resolver(text("name"), "_http._tcp", "local");
    ASSERT_FALSE(resolver.wait(farAway()));
    DnsSd::SyncResolver::Result where;
    ASSERT_FALSE(resolver.get(where));
    EXPECT_EQ("host.local", where.host);
    EXPECT_EQ(8080, where.port);
    EXPECT_EQ("b", where.txt.at("a"));
    EXPECT_TRUE(resolver.get(where)) << "addresses are not for a resolver";

    DnsSd::SyncLookup lookup(where.host);
    ASSERT_FALSE(lookup.wait(farAway()));
    DnsSd::SyncLookup::Result found;
    ASSERT_FALSE(lookup.get(found));
    EXPECT_EQ("192.0.2.1", found.address);
}

TEST_F(DnsSdEngine, mayCallBackBeforeTheConstructorHasReturned) {
    std::atomic<bool> delivered{false};
    m_engine.tell([&](DnsSdBase::Client& client) {
        client.service_appeared(text("early"), "_http._tcp", "local");
        delivered = true;
    });
    m_engine.on_enter = [&](DnsSdBase::Client&) {
        while (!delivered) {
            sched_yield();
        }
    };
    DnsSd::SyncBrowser browser("_http._tcp", "local");
    DnsSd::SyncBrowser::Result result;
    EXPECT_FALSE(browser.get(result));
    EXPECT_TRUE(text("early") == result.name);
}

TEST_F(DnsSdEngine, aSilentOneLetsAWaitRunOut) {
    DnsSd::SyncLookup lookup("host.local");
    TimePoint const deadline = in(30);
    EXPECT_TRUE(lookup.wait(deadline));
    EXPECT_GE(TimePoint::now(), deadline);
}

TEST_F(DnsSdEngine, callsOfAnotherKindAreIgnored) {
    m_engine.tell([](DnsSdBase::Client& client) {
        client.resolved(text("name"), "type", "local", "host", 1, DnsSdBase::Txt::EMPTY);
        client.service_appeared(text("name"), "type", "local");
        client.service_disappeared(text("name"), "type", "local");
        client.all_for_now();
        client.address("host", "192.0.2.1");
    });
    DnsSd::SyncLookup lookup("host.local");
    ASSERT_FALSE(lookup.wait(farAway()));
    DnsSd::SyncLookup::Result result;
    EXPECT_FALSE(lookup.get(result));
    EXPECT_EQ("192.0.2.1", result.address);
    EXPECT_TRUE(lookup.get(result));
    DnsSd::SyncService const service(text("name"), "_http._tcp", "local", 80); // Has no queue for any of it.
}

TEST_F(DnsSdEngine, clientsHoldTheThreadForTheirLife) {
    ThreadCount const count;
    {
        DnsSd::SyncBrowser const browser("_http._tcp", "local");
        {
            DnsSd::SyncResolver const resolver(text("name"), "_http._tcp", "local");
            DnsSd::SyncLookup const lookup("host.local");
            DnsSd::SyncService const service(text("name"), "_http._tcp", "local", 80);
        }
        EXPECT_EQ(0, count.getEnds());
    }
    EXPECT_EQ(1, count.getNamed());
    EXPECT_EQ(1, count.getStarts());
    EXPECT_EQ(1, count.getEnds());
}

TEST_F(DnsSdEngine, theThreadIsThereWhenTheEngineIsAsked) {
    ThreadCount const count;
    int starts_at_entry = -1;
    m_engine.on_enter = [&](DnsSdBase::Client&) { starts_at_entry = count.getStarts(); };
    DnsSd::SyncLookup const lookup("host.local");
    EXPECT_EQ(1, starts_at_entry);
}

TEST_F(DnsSdEngine, isCancelledBeforeTheThreadEnds) {
    ThreadCount const count;
    int ends_at_cancel = -1;
    m_engine.on_cancel = [&](DnsSdBase::Client&) { ends_at_cancel = count.getEnds(); };
    { DnsSd::SyncBrowser const browser("_http._tcp", "local"); }
    EXPECT_EQ(0, ends_at_cancel);
    EXPECT_EQ(1, count.getEnds());
}

TEST_F(DnsSdEngine, isCancelledWithTheClientThatItWasGiven) {
    std::vector<DnsSdBase::Client*> entered;
    std::vector<DnsSdBase::Client*> cancelled;
    m_engine.on_enter = [&](DnsSdBase::Client& client) { entered.push_back(&client); };
    m_engine.on_cancel = [&](DnsSdBase::Client& client) { cancelled.push_back(&client); };
    {
        DnsSd::SyncBrowser const browser("_http._tcp", "local");
        DnsSd::SyncLookup const lookup("host.local");
    }
    ASSERT_EQ(2U, entered.size());
    EXPECT_EQ((std::vector<DnsSdBase::Client*>{entered[1], entered[0]}), cancelled);
}

TEST_F(DnsSdEngine, maySendItsLastCallsWhileItIsCancelled) {
    m_engine.on_cancel = [](DnsSdBase::Client& client) {
        // Late, but before the engine was told.
        std::thread([&client] {
            client.service_disappeared(text("last"), "_http._tcp", "local");
            client.resolved(text("last"), "_http._tcp", "local", "host", 80, DnsSdBase::Txt::EMPTY);
            client.address("host", "192.0.2.1");
        }).join();
    };
    EventRecorder const recorder;
    { DnsSd::SyncBrowser const client("_http._tcp", "local"); }
    { DnsSd::SyncResolver const client(text("name"), "_http._tcp", "local"); }
    { DnsSd::SyncLookup const client("host.local"); }
    { DnsSd::SyncService const client(text("name"), "_http._tcp", "local", 80); }
    EXPECT_EQ("", recorder.getText());
}

TEST_F(DnsSdEngine, staysWithItsClientsWhenAnotherOneIsInstalled) {
    TestEngine other;
    {
        DnsSd::SyncBrowser const browser("_http._tcp", "local");
        Installed const installed(other);
        DnsSd::SyncLookup const lookup("host.local");
    }
    EXPECT_EQ((Calls{"browse _http._tcp local", "cancel"}), m_engine.getCalls());
    EXPECT_EQ((Calls{"lookup host.local", "cancel"}), other.getCalls());

    std::optional<DnsSd::SyncBrowser> browser;
    browser.emplace("_ipp._tcp", "local");
    DnsSd::setEngine(nullptr);
    browser.reset();
    EXPECT_EQ(4U, m_engine.getCalls().size());
}

TEST_F(DnsSdEngine, failingIsABrokenInvariant) {
    EventRecorder const recorder;
    m_engine.tell([](DnsSdBase::Client& client) {
        client.error();
        client.address("host", "192.0.2.1");
    });
    DnsSd::SyncLookup lookup("host.local");
    ASSERT_FALSE(lookup.wait(farAway()));
    EXPECT_EQ("ASSERT framework/src/vesk/DnsSd error: !\"Implement me!\"", recorder.getText());
}

/// Takes no client.
class ThrowingEngine : public DnsSd::Engine {
public:
    void browse(DnsSdBase::Client&, std::string const&, std::string const&) override { fail(); }
    void resolve(DnsSdBase::Client&, String const&, std::string const&, std::string const&) override {
        fail();
    }
    void lookup(DnsSdBase::Client&, std::string const&) override { fail(); }
    void publish(
        DnsSdBase::Client&, String const&, std::string const&, std::string const&, unsigned short,
        DnsSdBase::Txt const&) override {
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
    EXPECT_THROW(DnsSd::SyncBrowser("_http._tcp", "local"), std::runtime_error);
    EXPECT_THROW(DnsSd::SyncResolver(text("name"), "_http._tcp", "local"), std::runtime_error);
    EXPECT_THROW(DnsSd::SyncLookup("host.local"), std::runtime_error);
    EXPECT_THROW(DnsSd::SyncService(text("name"), "_http._tcp", "local", 80), std::runtime_error);
    EXPECT_EQ(0, engine.cancels);
    EXPECT_EQ(4, count.getNamed());
    EXPECT_EQ(4, count.getEnds());
}

// ---- under load ----

TEST_F(DnsSdEngine, deliversWhileClientsAreDestroyed) {
    m_engine.flood([](DnsSdBase::Client& client) {
        client.service_appeared(text("name"), "_http._tcp", "local");
        client.resolved(text("name"), "_http._tcp", "local", "host", 80, DnsSdBase::Txt::EMPTY);
        client.address("host", "192.0.2.1");
    });
    for (int round = 0; round < 50; ++round) {
        auto browser = std::make_unique<DnsSd::SyncBrowser>("_http._tcp", "local");
        auto resolver = std::make_unique<DnsSd::SyncResolver>(text("name"), "_http._tcp", "local");
        auto lookup = std::make_unique<DnsSd::SyncLookup>("host.local");
        DnsSd::SyncService const service(text("name"), "_http._tcp", "local", 80);
        EXPECT_FALSE(lookup->wait(farAway()));
        DnsSd::SyncLookup::Result result;
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
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 20; ++round) {
                DnsSd::SyncBrowser browser("_http._tcp", "local");
                for (int record = 0; record < 3; ++record) {
                    ASSERT_FALSE(browser.wait(farAway()));
                    DnsSd::SyncBrowser::Result result;
                    ASSERT_FALSE(browser.get(result));
                    ASSERT_TRUE(text("name") == result.name);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(160U, m_engine.getCalls().size());
}

} // namespace
