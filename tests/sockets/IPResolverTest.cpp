#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/calls/ResolverCalls.h"

#include <tarncommon/error/ErrorStorage.h>
#include <vesk/IPSocket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <netdb.h>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::ListEntry;
using support::LookupCall;
using support::NamingCall;
using support::ResolverCalls;
using support::rowText;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Resolver = vesk::IPSocket::IPResolver;

static_assert(!std::is_copy_constructible_v<Resolver> && !std::is_copy_assignable_v<Resolver>);

std::vector<std::string> itemsOf(Resolver const& resolver) {
    std::vector<std::string> items;
    for (unsigned int i = 0; i < resolver.getCount(); ++i) {
        items.push_back(resolver.getItem(i));
    }
    return items;
}

using Items = std::vector<std::string>;

// ---- what the system is asked ----

/// A way to resolve, and what reaches the system then.
struct Question {
    char const* name;
    bool fqdn;
    bool reverse;
    int hint_flags;
    int name_flags;
};

void PrintTo(Question const& question, std::ostream* out) {
    *out << question.name;
}

class IPResolverQuestions : public testing::TestWithParam<std::tuple<Question, IPSocket::IPProtocolVersion>> {
};

TEST_P(IPResolverQuestions, haveTheFlagsOfTheirKind) {
    auto const [question, version] = GetParam();
    std::string const address = version == IPSocket::IPV6 ? "fd00::1" : "10.0.0.1";
    ResolverCalls calls;
    calls.answerList({{address}});
    calls.answerName("the answer");
    Resolver resolver;
    EXPECT_EQ(1, resolver.resolveAddr("the name", question.fqdn, question.reverse, version));
    EXPECT_EQ(Items{"the answer"}, itemsOf(resolver));

    ASSERT_EQ(1U, calls.getLookups().size());
    LookupCall const& lookup = calls.getLookups()[0];
    EXPECT_EQ("the name", lookup.name);
    EXPECT_FALSE(lookup.has_service);
    EXPECT_TRUE(lookup.has_only_hints);
    EXPECT_EQ(question.hint_flags, lookup.flags);
    EXPECT_EQ(version == IPSocket::IPV6 ? AF_INET6 : AF_INET, lookup.family);
    EXPECT_EQ(SOCK_DGRAM, lookup.type);
    EXPECT_EQ(0, lookup.protocol);

    ASSERT_EQ(1U, calls.getNamings().size());
    NamingCall const& naming = calls.getNamings()[0];
    EXPECT_EQ(address, naming.address);
    EXPECT_EQ(version == IPSocket::IPV6 ? 28U : 16U, naming.length);
    EXPECT_EQ(1025U, naming.room);
    EXPECT_FALSE(naming.has_service);
    EXPECT_EQ(question.name_flags, naming.flags);
    EXPECT_TRUE(chainIs({}));
}

TEST_P(IPResolverQuestions, areAlsoAskedByTheShorterForms) {
    auto const [question, version] = GetParam();
    ResolverCalls calls;
    calls.answerList({{version == IPSocket::IPV6 ? "fd00::1" : "10.0.0.1"}});
    calls.answerName("the answer");
    Resolver resolver;
    EXPECT_EQ(
        1,
        question.reverse ? resolver.resolveIP("the name", question.fqdn, version)
                         : resolver.resolveName("the name", version));
    EXPECT_EQ("the name", calls.getLookups().at(0).name);
    EXPECT_EQ(question.hint_flags, calls.getLookups().at(0).flags);
    EXPECT_EQ(version == IPSocket::IPV6 ? AF_INET6 : AF_INET, calls.getLookups().at(0).family);
    EXPECT_EQ(question.name_flags, calls.getNamings().at(0).flags);
}

INSTANTIATE_TEST_SUITE_P(
    All, IPResolverQuestions,
    testing::Combine(
        testing::Values(
            Question{"forward", false, false, 0x40, 0x21}, Question{"forwardFqdn", true, false, 0x40, 0x21},
            Question{"reverseFqdn", true, true, 0x44, 0x28}, Question{"reverse", false, true, 0x44, 0x2C}),
        testing::Values(IPSocket::IPV4, IPSocket::IPV6)));

// ---- results ----

TEST(IPResolver, newOneHasNoResults) {
    ResolverCalls const calls;
    Resolver const resolver;
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_TRUE(calls.getLookups().empty());
}

TEST(IPResolver, numericAddressIsItsOwnResult) {
    ResolverCalls const calls;
    Resolver resolver;
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EXPECT_EQ(Items{"127.0.0.1"}, itemsOf(resolver));
    EXPECT_EQ(1, resolver.resolveName("::0001", IPSocket::IPV6));
    EXPECT_EQ(Items{"::1"}, itemsOf(resolver));
    EXPECT_EQ(1, resolver.resolveName("fe80::1%lo", IPSocket::IPV6));
    EXPECT_EQ(Items{"fe80::1%lo"}, itemsOf(resolver));
    EXPECT_TRUE(chainIs({}));
}

TEST(IPResolver, severalResultsKeepTheOrderOfTheSystem) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.9"}, {"10.0.0.1"}, {"10.0.0.5"}, {"10.0.0.1"}});
    Resolver resolver;
    EXPECT_EQ(4, resolver.resolveName("many.example", IPSocket::IPV4));
    EXPECT_EQ(4U, resolver.getCount());
    EXPECT_EQ((Items{"10.0.0.9", "10.0.0.1", "10.0.0.5", "10.0.0.1"}), itemsOf(resolver));
}

TEST(IPResolver, entriesOfAnotherFamilyAreNotUsed) {
    std::vector<ListEntry> const mixed = {
        {"fd00::1"}, {"10.0.0.1"}, ListEntry::local(), {"fd00::2"}, {"10.0.0.2"}};
    ResolverCalls calls;
    calls.answerList(mixed);
    calls.answerList(mixed);
    Resolver resolver;
    EXPECT_EQ(2, resolver.resolveName("mixed.example", IPSocket::IPV4));
    EXPECT_EQ((Items{"10.0.0.1", "10.0.0.2"}), itemsOf(resolver));
    EXPECT_EQ(2U, calls.getNamings().size());
    EXPECT_EQ(2, resolver.resolveName("mixed.example", IPSocket::IPV6));
    EXPECT_EQ((Items{"fd00::1", "fd00::2"}), itemsOf(resolver));
    EXPECT_EQ(4U, calls.getNamings().size());
}

TEST(IPResolver, listWithoutAnEntryOfTheFamilyGives0) {
    ResolverCalls calls;
    calls.answerList({{"fd00::1"}, ListEntry::local()});
    calls.answerList({{"10.0.0.1"}});
    calls.answerList({});
    Resolver resolver;
    EXPECT_EQ(0, resolver.resolveName("other.example", IPSocket::IPV4));
    EXPECT_EQ(0, resolver.resolveName("other.example", IPSocket::IPV6));
    EXPECT_EQ(0, resolver.resolveName("other.example", IPSocket::IPV4));
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_TRUE(calls.getNamings().empty());
    EXPECT_TRUE(chainIs({}));
}

TEST(IPResolver, resultMayFillTheWholeRoom) {
    std::string const longest(1024, 'x');
    ResolverCalls calls;
    calls.answerList({{"10.0.0.1"}});
    calls.answerName(longest);
    Resolver resolver;
    EXPECT_EQ(1, resolver.resolveIP("10.0.0.1", true, IPSocket::IPV4));
    EXPECT_EQ(Items{longest}, itemsOf(resolver));

    calls.answerList({{"10.0.0.1"}});
    calls.answerName(longest + "x");
    EXPECT_EQ(-1, resolver.resolveIP("10.0.0.1", true, IPSocket::IPV4));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY,
          rowText(SysErrorId::SPOILED_INTEGRITY, gai_strerror(EAI_OVERFLOW))}}));
}

TEST(IPResolver, itemBeyondTheCountIsABrokenInvariant) {
    ResolverCalls const calls;
    Resolver resolver;
    std::string const assertion =
        "ASSERT framework/src/vesk/posix/IPSocket getItem: p_index < m_resolve_handle.entries.size()";
    {
        EventRecorder const events;
        EXPECT_EQ("", resolver.getItem(0));
        EXPECT_EQ(assertion, events.getText());
    }
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EventRecorder const events;
    EXPECT_EQ("127.0.0.1", resolver.getItem(0));
    EXPECT_EQ("", events.getText());
    EXPECT_EQ("", resolver.getItem(1));
    EXPECT_EQ(assertion, events.getText());
    EXPECT_EQ("", resolver.getItem(0xFFFFFFFF));
    EXPECT_EQ(assertion + "\n" + assertion, events.getText());
}

TEST(IPResolver, itemAfterNothingWasFoundIsABrokenInvariant) {
    EventRecorder const events;
    ResolverCalls calls;
    calls.failList(EAI_NONAME);
    Resolver resolver;
    EXPECT_EQ(0, resolver.resolveName("none.example", IPSocket::IPV4));
    EXPECT_EQ("", events.getText());
    resolver.getItem(0);
    EXPECT_EQ(
        "ASSERT framework/src/vesk/posix/IPSocket getItem: p_index < m_resolve_handle.entries.size()",
        events.getText());
}

// ---- the list of the system ----

TEST(IPResolver, listIsKeptUntilTheNextResolve) {
    ResolverCalls const calls;
    Resolver resolver;
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EXPECT_EQ(1U, calls.countKept());
    EXPECT_EQ(0, calls.countFreed());
    EXPECT_EQ(1, resolver.resolveName("127.0.0.2", IPSocket::IPV4));
    EXPECT_EQ(1U, calls.countKept());
    EXPECT_EQ(1, calls.countFreed());
    EXPECT_EQ(Items{"127.0.0.2"}, itemsOf(resolver));
}

TEST(IPResolver, listIsFreedAtTheEnd) {
    ResolverCalls const calls;
    {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
        EXPECT_EQ(0, calls.countFreed());
    }
    EXPECT_EQ(0U, calls.countKept());
    EXPECT_EQ(1, calls.countFreed());
}

TEST(IPResolver, oneWithoutAListFreesNothing) {
    ResolverCalls const calls;
    { Resolver const resolver; }
    EXPECT_EQ(0, calls.countFreed());
}

TEST(IPResolver, secondResolveReplacesAllOfTheFirst) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}});
    calls.answerList({{"10.0.0.4"}});
    Resolver resolver;
    EXPECT_EQ(3, resolver.resolveName("many.example", IPSocket::IPV4));
    EXPECT_EQ(1, resolver.resolveName("one.example", IPSocket::IPV4));
    EXPECT_EQ(Items{"10.0.0.4"}, itemsOf(resolver));
}

// ---- codes of getaddrinfo ----

struct CodeRow {
    int code;
    int result;
    std::ErrorType const* family;
    int id;
};

void PrintTo(CodeRow const& row, std::ostream* out) {
    *out << row.code << " (" << gai_strerror(row.code) << ")";
}

constexpr int LOOKUP_ERRNO = ENETUNREACH;

/// The report that a row makes.
std::vector<ExpectedReport> reportOf(CodeRow const& row) {
    if (row.family == nullptr) {
        return {};
    }
    return {
        {*row.family, row.id,
         rowText(
             *row.family, row.id,
             row.code == EAI_SYSTEM ? systemText(LOOKUP_ERRNO) : std::string(gai_strerror(row.code)))}};
}

class IPResolverLookupCodes : public testing::TestWithParam<CodeRow> {};

TEST_P(IPResolverLookupCodes, meanTheirResultAndReport) {
    ResolverCalls calls;
    calls.failList(GetParam().code, LOOKUP_ERRNO);
    Resolver resolver;
    EXPECT_EQ(GetParam().result, resolver.resolveName("some.example", IPSocket::IPV4));
    EXPECT_TRUE(chainIs(reportOf(GetParam())));
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_TRUE(calls.getNamings().empty());
}

TEST_P(IPResolverLookupCodes, meanTheSameForAnAddress) {
    ResolverCalls calls;
    calls.failList(GetParam().code, LOOKUP_ERRNO);
    Resolver resolver;
    EXPECT_EQ(GetParam().result, resolver.resolveIP("fd00::1", true, IPSocket::IPV6));
    EXPECT_TRUE(chainIs(reportOf(GetParam())));
}

TEST_P(IPResolverLookupCodes, leaveNothingOfTheResultBefore) {
    ResolverCalls calls;
    {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
        calls.failList(GetParam().code, LOOKUP_ERRNO);
        EXPECT_EQ(GetParam().result, resolver.resolveName("some.example", IPSocket::IPV4));
        EXPECT_EQ(0U, resolver.getCount());
        EXPECT_EQ(1, calls.countFreed());
        std::ErrorStorage::ack();
    }
    EXPECT_EQ(1, calls.countFreed());
}

TEST_P(IPResolverLookupCodes, leaveAnObjectThatResolvesAgain) {
    ResolverCalls calls;
    calls.failList(GetParam().code, LOOKUP_ERRNO);
    Resolver resolver;
    resolver.resolveName("some.example", IPSocket::IPV4);
    std::ErrorStorage::ack();
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EXPECT_EQ(Items{"127.0.0.1"}, itemsOf(resolver));
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPResolverLookupCodes,
    testing::Values(
        CodeRow{EAI_NONAME, 0, nullptr, 0}, CodeRow{EAI_NODATA, 0, nullptr, 0},
        CodeRow{EAI_ADDRFAMILY, 0, nullptr, 0}, CodeRow{EAI_MEMORY, -1, &SysError, SysErrorId::OUT_OF_MEMORY},
        CodeRow{EAI_AGAIN, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_FAIL, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_BADFLAGS, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_SOCKTYPE, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_SERVICE, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_SYSTEM, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_FAMILY, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_OVERFLOW, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_IDN_ENCODE, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_INTR, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_CANCELED, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{4711, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{-4711, -1, &SysError, SysErrorId::UNCLASSIFIED}));

// ---- codes of getnameinfo ----

class IPResolverNamingCodes : public testing::TestWithParam<CodeRow> {};

TEST_P(IPResolverNamingCodes, endTheWalkWithTheirReport) {
    ResolverCalls calls;
    {
        calls.answerList({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}});
        calls.answerName("one");
        calls.failName(GetParam().code, LOOKUP_ERRNO);
        Resolver resolver;
        EXPECT_EQ(-1, resolver.resolveIP("10.0.0.1", true, IPSocket::IPV4));
        EXPECT_TRUE(chainIs(reportOf(GetParam())));
        EXPECT_EQ(0U, resolver.getCount());
        EXPECT_EQ(2U, calls.getNamings().size());
        EXPECT_EQ(1U, calls.countKept());
        EXPECT_EQ(0, calls.countFreed());
    }
    EXPECT_EQ(1, calls.countFreed());
}

TEST_P(IPResolverNamingCodes, leaveAnObjectThatResolvesAgain) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.1"}});
    calls.failName(GetParam().code, LOOKUP_ERRNO);
    Resolver resolver;
    EXPECT_EQ(-1, resolver.resolveName("some.example", IPSocket::IPV4));
    std::ErrorStorage::ack();
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EXPECT_EQ(1, calls.countFreed());
    EXPECT_EQ(Items{"127.0.0.1"}, itemsOf(resolver));
}

INSTANTIATE_TEST_SUITE_P(
    All, IPResolverNamingCodes,
    testing::Values(
        CodeRow{EAI_OVERFLOW, -1, &SysError, SysErrorId::SPOILED_INTEGRITY},
        CodeRow{EAI_MEMORY, -1, &SysError, SysErrorId::OUT_OF_MEMORY},
        CodeRow{EAI_AGAIN, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_FAIL, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_BADFLAGS, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_FAMILY, -1, &Socket::Error, Socket::ErrorId::RESOLVE_FAILED},
        CodeRow{EAI_SYSTEM, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_NODATA, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_ADDRFAMILY, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_SERVICE, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_SOCKTYPE, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{EAI_IDN_ENCODE, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{4711, -1, &SysError, SysErrorId::UNCLASSIFIED},
        CodeRow{-4711, -1, &SysError, SysErrorId::UNCLASSIFIED}));

TEST(IPResolver, entryWithoutANameIsSkipped) {
    ResolverCalls calls;
    calls.answerList({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}});
    calls.answerName("one");
    calls.failName(EAI_NONAME);
    calls.answerName("three");
    Resolver resolver;
    EXPECT_EQ(2, resolver.resolveIP("10.0.0.1", true, IPSocket::IPV4));
    EXPECT_EQ((Items{"one", "three"}), itemsOf(resolver));
    EXPECT_TRUE(chainIs({}));
}

TEST(IPResolver, onlyEntriesWithoutANameGive0) {
    ResolverCalls calls;
    calls.answerList({{"fd00::1"}, {"fd00::2"}});
    calls.failName(EAI_NONAME);
    calls.failName(EAI_NONAME);
    Resolver resolver;
    EXPECT_EQ(0, resolver.resolveIP("fd00::1", false, IPSocket::IPV6));
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_EQ(2U, calls.getNamings().size());
    EXPECT_TRUE(chainIs({}));
}

// ---- what is no name and no address ----

TEST(IPResolver, nullHasNoAddresses) {
    ResolverCalls const calls;
    Resolver resolver;
    EXPECT_EQ(0, resolver.resolveName(nullptr, IPSocket::IPV4));
    EXPECT_EQ(0, resolver.resolveIP(nullptr, true, IPSocket::IPV6));
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_EQ(std::nullopt, calls.getLookups().at(0).name);
    EXPECT_TRUE(chainIs({}));
}

TEST(IPResolver, nullReplacesWhatWasFoundBefore) {
    ResolverCalls const calls;
    Resolver resolver;
    EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    EXPECT_EQ(0, resolver.resolveName(nullptr, IPSocket::IPV4));
    EXPECT_EQ(0U, resolver.getCount());
    EXPECT_EQ(1, calls.countFreed());
}

TEST(IPResolver, nameIsNoAddressToFindANameFor) {
    // With the flag for numbers, the real one asks nobody for these.
    Resolver resolver;
    for (std::string const& name :
         {std::string("name.invalid"), std::string(), std::string(300, 'x'), std::string(5000, 'x'),
          std::string("127.0.0.1 x"), std::string("256.0.0.1"), std::string("%s%n"), std::string(" "),
          std::string("1.2.3.4/8"), std::string("::1")}) {
        EXPECT_EQ(0, resolver.resolveIP(name.c_str(), true, IPSocket::IPV4)) << name;
        EXPECT_TRUE(chainIs({})) << name;
    }
    for (std::string const& name :
         {std::string("name.invalid"), std::string(), std::string(300, ':'), std::string(5000, '1'),
          std::string("[::1]"), std::string("::1::"), std::string("fe80::1%nonesuch"),
          std::string("127.0.0.1")}) {
        EXPECT_EQ(0, resolver.resolveIP(name.c_str(), false, IPSocket::IPV6)) << name;
        EXPECT_TRUE(chainIs({})) << name;
    }
}

TEST(IPResolver, addressOfTheOtherVersionHasNoResult) {
    ResolverCalls const calls;
    Resolver resolver;
    EXPECT_EQ(0, resolver.resolveName("::1", IPSocket::IPV4));
    EXPECT_EQ(0, resolver.resolveName("127.0.0.1", IPSocket::IPV6));
    EXPECT_TRUE(chainIs({}));
}

} // namespace
