#include "Clients.h"

#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NamedRow.h"
#include "support/NewFault.h"
#include "support/UnlockFault.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <functional>
#include <new>

VESK_INJECT_RESULT(
    pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, function, argument))
VESK_INJECT_RESULT(pthread_join, (pthread_t thread, void** result), (thread, result))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
using tarnbase::TimePoint;

/// A client of each kind with a queue, which holds a record.
struct Clients {
    Clients() {
        browser.service_appeared(text("name"), "type", "domain");
        resolver.resolved(text("name"), "type", "domain", "host", 1, Txt::EMPTY);
        lookup.address("name", "address");
    }

    Browser browser = make<Browser>();
    Resolver resolver = make<Resolver>();
    Lookup lookup = make<Lookup>();
};

struct LockRow : NamedRow {
    char const* function;
    void (*call)(Clients&);
};

template <typename Client>
void get(Client& client) {
    typename Client::Result result;
    client.get(result);
}

class DnsSdLock : public testing::TestWithParam<LockRow> {};

TEST_P(DnsSdLock, failureAborts) {
    Clients clients;
    std::string const where = std::string("ABORT framework/src/vesk/DnsSd ") + GetParam().function;
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        GetParam().call(clients);
    }
    // The mutex that is not locked cannot be unlocked either.
    EXPECT_EQ(where + ": error locking\n" + where + ": error unlocking", recorder.getText());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST_P(DnsSdLock, failureOfUnlockAborts) {
    Clients clients;
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        GetParam().call(clients);
    }
    EXPECT_EQ(
        std::string("ABORT framework/src/vesk/DnsSd ") + GetParam().function + ": error unlocking",
        recorder.getText());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DnsSdLock,
    rowsOf<LockRow>({
        {"browserWait", "wait", [](Clients& c) { c.browser.wait(); }},
        {"browserTimedWait", "wait", [](Clients& c) { c.browser.wait(TimePoint(1)); }},
        {"browserGet", "get", [](Clients& c) { get(c.browser); }},
        {"browserAppeared", "service_appeared",
         [](Clients& c) { c.browser.service_appeared(text("name"), "type", "domain"); }},
        {"browserDisappeared", "service_disappeared",
         [](Clients& c) { c.browser.service_disappeared(text("name"), "type", "domain"); }},
        {"resolverWait", "wait", [](Clients& c) { c.resolver.wait(); }},
        {"resolverTimedWait", "wait", [](Clients& c) { c.resolver.wait(TimePoint(1)); }},
        {"resolverGet", "get", [](Clients& c) { get(c.resolver); }},
        {"resolverResolved", "resolved",
         [](Clients& c) { c.resolver.resolved(text("name"), "type", "domain", "host", 1, Txt::EMPTY); }},
        {"lookupWait", "wait", [](Clients& c) { c.lookup.wait(); }},
        {"lookupTimedWait", "wait", [](Clients& c) { c.lookup.wait(TimePoint(1)); }},
        {"lookupGet", "get", [](Clients& c) { get(c.lookup); }},
        {"lookupAddress", "address", [](Clients& c) { c.lookup.address("name", "address"); }},
    }),
    byName);

/// Makes each allocation of a callback fail in turn: the exception passes, nothing is queued, and the lock is free.
template <typename Client>
void failEveryAllocation(Client& client, std::function<void()> const& callback) {
    typename Client::Result result;
    EventRecorder const recorder;
    int failures = 0;
    for (int nth = 1;; ++nth) {
        bool failed = false;
        {
            NewFault const fault(New::SINGLE, nth);
            try {
                callback();
            } catch (std::bad_alloc const&) {
                failed = true;
            }
        }
        ASSERT_EQ(failed, client.get(result)) << "allocation " << nth;
        if (!failed) {
            break;
        }
        ++failures;
        ASSERT_TRUE(client.wait(TimePoint(1)));
    }
    EXPECT_GE(failures, 3) << "texts and record are on the heap";
    EXPECT_EQ("", recorder.getText());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

std::string const LONG(100, 'x');
String const LONG_NAME = text(LONG);

TEST(DnsSdMemory, browserPassesExceptionsOnAndStaysUsable) {
    Browser browser = make<Browser>();
    failEveryAllocation(browser, [&] { browser.service_appeared(LONG_NAME, LONG, LONG); });
    failEveryAllocation(browser, [&] { browser.service_disappeared(LONG_NAME, LONG, LONG); });
}

TEST(DnsSdMemory, resolverPassesExceptionsOnAndStaysUsable) {
    Resolver resolver = make<Resolver>();
    Txt txt;
    txt["a"] = LONG;
    txt["b"] = LONG;
    failEveryAllocation(resolver, [&] { resolver.resolved(LONG_NAME, LONG, LONG, LONG, 80, txt); });
}

TEST(DnsSdMemory, lookupPassesExceptionsOnAndStaysUsable) {
    Lookup lookup = make<Lookup>();
    failEveryAllocation(lookup, [&] { lookup.address(LONG, LONG); });
}

TEST(DnsSdMemory, recordsBeforeAFailureAreKept) {
    Lookup lookup = make<Lookup>();
    lookup.address("first", "1");
    {
        NewFault const fault(New::SINGLE);
        EXPECT_THROW(lookup.address(LONG, LONG), std::bad_alloc);
    }
    lookup.address("second", "2");
    Lookup::Result result;
    EXPECT_FALSE(lookup.get(result));
    EXPECT_EQ("first", result.name);
    EXPECT_FALSE(lookup.get(result));
    EXPECT_EQ("second", result.name);
    EXPECT_TRUE(lookup.get(result));
}

TEST(DnsSdMemory, getAllocatesNothing) {
    Resolver resolver = make<Resolver>();
    Txt txt;
    txt["a"] = LONG;
    resolver.resolved(LONG_NAME, LONG, LONG, LONG, 80, txt);
    Resolver::Result result;
    NewFault const fault(New::SINGLE);
    EXPECT_FALSE(resolver.get(result));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_EQ(LONG, result.host);
    EXPECT_EQ(LONG, result.txt.at("a"));
}

TEST(DnsSdMemory, txtDataWithoutMemoryIsInvalid) {
    Txt txt;
    for (bool const filled : {false, true}) {
        if (filled) {
            txt["a"] = "b";
        }
        NewFault const fault(New::NOTHROW_SINGLE);
        std::Buf const wire = txt.data();
        EXPECT_FALSE(wire.isValid());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({std::CommonErrorId::OUT_OF_MEMORY}));
    }
}

TEST(DnsSdThread, failedStartIsAWarningAndClientsStayUsable) {
    EventRecorder const recorder;
    {
        Lookup lookup = make<Lookup>();
        lookup.address("name", "address");
        Fault const fault(inject_pthread_create, EAGAIN);
        Lookup::Result result;
        EXPECT_FALSE(lookup.get(result));
        Fault const joins(inject_pthread_join, 0);
        { Browser const browser = make<Browser>(); }
        EXPECT_EQ(0, joins.getCalls()) << "there is none to join";
    }
    ASSERT_EQ(1U, recorder.getCount());
    std::string const warning = recorder.getText();
    EXPECT_EQ(
        0U,
        warning.find(
            "WARNING framework/src/vesk/DnsSd DnsSdThread: Couldn't start the thread of service discovery: "))
        << warning;
    EXPECT_NE(std::string::npos, warning.find("thread creation failed")) << warning;
    EXPECT_TRUE(chainIs({}));
}

TEST(DnsSdThread, startIsRetriedAfterAFailure) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_create, EAGAIN);
        { Lookup const lookup = make<Lookup>(); }
        { Lookup const lookup = make<Lookup>(); }
        EXPECT_EQ(2, fault.getCalls());
    }
    EXPECT_EQ(1U, recorder.getCount());
}

TEST(DnsSdThread, failedJoinIsAWarning) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_join, EINVAL);
        { Lookup const lookup = make<Lookup>(); }
    }
    std::string const warning = recorder.getText();
    EXPECT_EQ(
        0U,
        warning.find(
            "WARNING framework/src/vesk/DnsSd ~DnsSdThread: Couldn't join the thread of service discovery: "))
        << warning;
    EXPECT_TRUE(chainIs({}));
}

} // namespace
