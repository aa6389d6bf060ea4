#include "NameServer.h"
#include "SocketRows.h"
#include "support/calls/ResolverCalls.h"

#include <vesk/IPSocket.h>

#include <chrono>

/// The resolver with prepared answers, and in the suite `IPResolverNames` with a real name server.

namespace {

using namespace support;
using vesk::IPSocket;
using IPAddress = vesk::IPSocket::IPAddress;
using Resolver = vesk::IPSocket::IPResolver;
using Items = std::vector<std::string>;

static_assert(!std::is_copy_constructible_v<Resolver> && !std::is_copy_assignable_v<Resolver>);

Items itemsOf(Resolver const& resolver) {
    Items items;
    for (unsigned int i = 0; i < resolver.getCount(); ++i) {
        items.push_back(resolver.getItem(i));
    }
    return items;
}

/// Checks that the result of a resolve is the number of items, and returns them; "(failed)" for a failure.
Items itemsOf(Resolver const& resolver, int result) {
    Items const items = itemsOf(resolver);
    if (result < 0) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(Items{}, items);
        return {"(failed)"};
    }
    EXPECT_EQ(static_cast<size_t>(result), items.size());
    return items;
}

Items const NONE;
Items const FAILED = {"(failed)"};

Items addressesOf(Resolver& resolver, std::string const& name, IPSocket::IPProtocolVersion version = V4) {
    return itemsOf(resolver, resolver.resolveName(name.c_str(), version));
}

Items namesOf(
    Resolver& resolver, std::string const& address, IPSocket::IPProtocolVersion version = V4,
    bool fqdn = true) {
    return itemsOf(resolver, resolver.resolveIP(address.c_str(), fqdn, version));
}

// ---- the requests to the system ----

/// A kind of resolve and the flags of its calls.
struct Request {
    bool fqdn;
    bool reverse;
    int hint_flags;
    int name_flags;
};

class IPResolverRequests : public testing::TestWithParam<std::tuple<Request, IPSocket::IPProtocolVersion>> {};

TEST_P(IPResolverRequests, haveTheFlagsOfTheirKindAlsoInTheShorterForm) {
    auto const& [request, version] = GetParam();
    std::string const address = version == V6 ? "fd00::1" : "10.0.0.1";
    for (bool const is_short : {false, true}) {
        ResolverCalls calls;
        calls.answer({list({{address}}), Answer("the answer")});
        Resolver resolver;
        EXPECT_EQ(
            1,
            !is_short             ? resolver.resolveAddr("the name", request.fqdn, request.reverse, version)
                : request.reverse ? resolver.resolveIP("the name", request.fqdn, version)
                                  : resolver.resolveName("the name", version));
        EXPECT_EQ(Items{"the answer"}, itemsOf(resolver));
        ASSERT_EQ(1U, calls.getLookups().size());
        LookupCall const& lookup = calls.getLookups()[0];
        EXPECT_EQ("the name", lookup.name);
        EXPECT_FALSE(lookup.has_service);
        EXPECT_TRUE(lookup.has_only_hints);
        EXPECT_EQ(request.hint_flags, lookup.flags);
        EXPECT_EQ(version == V6 ? AF_INET6 : AF_INET, lookup.family);
        EXPECT_EQ(SOCK_DGRAM, lookup.type);
        EXPECT_EQ(0, lookup.protocol);

        ASSERT_EQ(1U, calls.getNamings().size());
        NamingCall const& naming = calls.getNamings()[0];
        EXPECT_EQ(address, naming.address);
        EXPECT_EQ(version == V6 ? 28U : 16U, naming.length);
        EXPECT_EQ(1025U, naming.room);
        EXPECT_FALSE(naming.has_service);
        EXPECT_EQ(request.name_flags, naming.flags);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IPResolverRequests,
    testing::Combine(
        testing::Values(
            Request{false, false, 0x40, 0x21}, Request{true, false, 0x40, 0x21},
            Request{true, true, 0x44, 0x28}, Request{false, true, 0x44, 0x2C}),
        testing::Values(V4, V6)));

// ---- results ----

class IPResolver : public testing::Test {
protected:
    std::optional<ResolverCalls> m_calls{std::in_place};
    Resolver m_resolver;
};

TEST_F(IPResolver, newResolverHasNoResultsAndFreesNothing) {
    EXPECT_EQ(0U, Resolver().getCount());
    EXPECT_TRUE(m_calls->getLookups().empty());
    EXPECT_EQ(0, m_calls->countFreed());
}

TEST_F(IPResolver, numericAddressIsItsOwnResultUnlessItIsOfTheOtherVersion) {
    EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(m_resolver, "127.0.0.1"));
    EXPECT_EQ(Items{"::1"}, addressesOf(m_resolver, "::0001", V6));
    EXPECT_EQ(Items{"fe80::1%lo"}, addressesOf(m_resolver, "fe80::1%lo", V6));
    EXPECT_EQ(NONE, addressesOf(m_resolver, "::1"));
    EXPECT_EQ(NONE, addressesOf(m_resolver, "127.0.0.1", V6));
}

TEST_F(IPResolver, resultsAreTheEntriesOfTheFamilyInTheOrderOfTheSystem) {
    m_calls->answer({list({{"fd00::1"}, ListEntry::local()}), list({{"10.0.0.1"}}), list({})});
    EXPECT_EQ(NONE, addressesOf(m_resolver, "other.example"));
    EXPECT_EQ(NONE, addressesOf(m_resolver, "other.example", V6));
    EXPECT_EQ(NONE, addressesOf(m_resolver, "other.example"));
    EXPECT_TRUE(m_calls->getNamings().empty());
    Answer const mixed = list({{"fd00::1"}, {"10.0.0.1"}, ListEntry::local(), {"fd00::2"}, {"10.0.0.2"}});
    m_calls->answer({mixed, mixed});
    EXPECT_EQ((Items{"10.0.0.1", "10.0.0.2"}), addressesOf(m_resolver, "mixed.example"));
    EXPECT_EQ(2U, m_calls->getNamings().size());
    EXPECT_EQ((Items{"fd00::1", "fd00::2"}), addressesOf(m_resolver, "mixed.example", V6));
    EXPECT_EQ(4U, m_calls->getNamings().size());
    m_calls->answerList({{"10.0.0.9"}, {"10.0.0.1"}, {"10.0.0.5"}, {"10.0.0.1"}});
    EXPECT_EQ(
        (Items{"10.0.0.9", "10.0.0.1", "10.0.0.5", "10.0.0.1"}), addressesOf(m_resolver, "many.example"));
}

TEST_F(IPResolver, resultCanFillTheWholeBuffer) {
    std::string const longest(1024, 'x');
    m_calls->answer({list({{"10.0.0.1"}}), Answer(longest.c_str())});
    EXPECT_EQ(Items{longest}, namesOf(m_resolver, "10.0.0.1"));

    m_calls->answer({list({{"10.0.0.1"}}), Answer((longest + "x").c_str())});
    EXPECT_EQ(FAILED, namesOf(m_resolver, "10.0.0.1"));
    EXPECT_TRUE(chainIs(gai_strerror(EAI_OVERFLOW), {SysErrorId::SPOILED_INTEGRITY}));
}

TEST_F(IPResolver, itemBeyondTheCountFailsAnAssertion) {
    m_calls->failList(EAI_NONAME);
    auto const assertionOf = [this](unsigned int index) {
        EventRecorder const events;
        EXPECT_EQ("", m_resolver.getItem(index));
        return events.getText();
    };
    std::string const assertion =
        "ASSERT framework/src/vesk/posix/IPSocket getItem: p_index < m_resolve_handle.entries.size()";
    EXPECT_EQ(assertion, assertionOf(0)) << "before a resolve";
    EXPECT_EQ(NONE, addressesOf(m_resolver, "none.example"));
    EXPECT_EQ(assertion, assertionOf(0)) << "after a resolve without results";
    EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(m_resolver, "127.0.0.1"));
    EXPECT_EQ(assertion, assertionOf(1));
    EXPECT_EQ(assertion, assertionOf(0xFFFFFFFF));
}

// ---- the list of the system ----

TEST_F(IPResolver, listIsKeptUntilTheNextResolveWhichReplacesAllResultsOrTheEnd) {
    {
        Resolver resolver;
        EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(resolver, "127.0.0.1"));
        EXPECT_EQ(1U, m_calls->countKept());
        EXPECT_EQ(0, m_calls->countFreed());
        EXPECT_EQ(Items{"127.0.0.2"}, addressesOf(resolver, "127.0.0.2"));
        EXPECT_EQ(1U, m_calls->countKept());
        EXPECT_EQ(1, m_calls->countFreed());
    }
    EXPECT_EQ(0U, m_calls->countKept());
    EXPECT_EQ(2, m_calls->countFreed());
    m_calls->answer({list({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}}), list({{"10.0.0.4"}})});
    EXPECT_EQ(3, m_resolver.resolveName("many.example", V4));
    EXPECT_EQ(Items{"10.0.0.4"}, addressesOf(m_resolver, "one.example"));
}

// ---- failures of getaddrinfo ----

constexpr int LOOKUP_ERRNO = ENETUNREACH;

/// Returns a row for each code of the groups. Without a report there are no results.
std::vector<ErrnoRow> codeRows(std::vector<ErrnoReports> const& groups) {
    std::vector<ErrnoRow> rows;
    for (ErrnoReports const& group : groups) {
        for (int const code : group.errors) {
            rows.push_back(
                {code,
                 withText(
                     group.reports,
                     code == EAI_SYSTEM ? systemText(LOOKUP_ERRNO) : std::string(gai_strerror(code)))});
        }
    }
    return rows;
}

auto const LOOKUP_CODES = codeRows(
    {{{EAI_NONAME, EAI_NODATA, EAI_ADDRFAMILY}, {}},
     {{EAI_MEMORY}, {SysErrorId::OUT_OF_MEMORY}},
     {{EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_SOCKTYPE, EAI_SERVICE}, {SocketErrorId::RESOLVE_FAILED}},
     {{EAI_SYSTEM, EAI_FAMILY, EAI_OVERFLOW, EAI_IDN_ENCODE, EAI_INTR, EAI_CANCELED, 4711, -4711},
      {SysErrorId::UNCLASSIFIED}}});
VESK_TEST_TABLE(
    IPResolverLookupCodes, haveTheirResultAndReportAndDiscardThePreviousResults, testing::Test,
    LOOKUP_CODES) {
    Items const& expected = GetParam().reports.empty() ? NONE : FAILED;
    ResolverCalls calls;
    {
        Resolver resolver;
        calls.failList(GetParam().error, LOOKUP_ERRNO);
        EXPECT_EQ(expected, addressesOf(resolver, "some.example"));
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_TRUE(calls.getNamings().empty());
        EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(resolver, "127.0.0.1")) << "it resolves again";
        calls.failList(GetParam().error, LOOKUP_ERRNO);
        EXPECT_EQ(expected, namesOf(resolver, "fd00::1", V6)) << "the same for an address";
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_EQ(1, calls.countFreed());
    }
    EXPECT_EQ(1, calls.countFreed());
}

// ---- failures of getnameinfo ----

auto const NAMING_CODES = codeRows(
    {{{EAI_OVERFLOW}, {SysErrorId::SPOILED_INTEGRITY}},
     {{EAI_MEMORY}, {SysErrorId::OUT_OF_MEMORY}},
     {{EAI_AGAIN, EAI_FAIL, EAI_BADFLAGS, EAI_FAMILY}, {SocketErrorId::RESOLVE_FAILED}},
     {{EAI_SYSTEM, EAI_NODATA, EAI_ADDRFAMILY, EAI_SERVICE, EAI_SOCKTYPE, EAI_IDN_ENCODE, 4711, -4711},
      {SysErrorId::UNCLASSIFIED}}});
VESK_TEST_TABLE(IPResolverNamingCodes, endTheResolveWithTheirReport, testing::Test, NAMING_CODES) {
    ResolverCalls calls;
    {
        calls.answer({list({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}}), Answer("one")});
        calls.failName(GetParam().error, LOOKUP_ERRNO);
        Resolver resolver;
        EXPECT_EQ(FAILED, namesOf(resolver, "10.0.0.1"));
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_EQ(2U, calls.getNamings().size());
        EXPECT_EQ(1U, calls.countKept());
        EXPECT_EQ(0, calls.countFreed());
        EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(resolver, "127.0.0.1")) << "it resolves again";
        EXPECT_EQ(1, calls.countFreed());
    }
    EXPECT_EQ(2, calls.countFreed());
}

TEST_F(IPResolver, entriesWithoutANameAreSkipped) {
    m_calls->answerList({{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}});
    m_calls->answerName("one");
    m_calls->failName(EAI_NONAME);
    m_calls->answerName("three");
    EXPECT_EQ((Items{"one", "three"}), namesOf(m_resolver, "10.0.0.1"));

    m_calls->answerList({{"fd00::1"}, {"fd00::2"}});
    m_calls->failName(EAI_NONAME);
    m_calls->failName(EAI_NONAME);
    EXPECT_EQ(NONE, namesOf(m_resolver, "fd00::1", V6, false));
    EXPECT_EQ(5U, m_calls->getNamings().size());
}

// ---- invalid names and addresses ----

TEST_F(IPResolver, nullHasNoResultsAndReplacesThePreviousOnes) {
    EXPECT_EQ(NONE, itemsOf(m_resolver, m_resolver.resolveName(nullptr, V4)));
    EXPECT_EQ(NONE, itemsOf(m_resolver, m_resolver.resolveIP(nullptr, true, V6)));
    EXPECT_EQ(std::nullopt, m_calls->getLookups().at(0).name);
    EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(m_resolver, "127.0.0.1"));
    EXPECT_EQ(NONE, itemsOf(m_resolver, m_resolver.resolveName(nullptr, V4)));
    EXPECT_EQ(1, m_calls->countFreed());
}

TEST_F(IPResolver, textThatIsNoAddressHasNoName) {
    m_calls.reset();
    // The flag for numeric addresses keeps the real function from querying a name server.
    for (std::string const& text : stringsOf(
             "name.invalid", "", "127.0.0.1 x", "256.0.0.1", "%s%n", " ", "1.2.3.4/8", "[::1]",
             "::1::", "fe80::1%nonesuch", std::string(300, 'x'), std::string(5000, 'x'),
             std::string(5000, '1'), std::string(300, ':'))) {
        EXPECT_EQ(NONE, namesOf(m_resolver, text)) << text;
        EXPECT_EQ(NONE, namesOf(m_resolver, text, V6, false)) << text;
    }
    EXPECT_EQ(NONE, namesOf(m_resolver, "::1"));
    EXPECT_EQ(NONE, namesOf(m_resolver, "127.0.0.1", V6, false));
}

// ---- a real name server ----

constexpr char const* ZONE = "10.0.0.9 many.test\n"
                             "10.0.0.1 many.test\n"
                             "10.0.0.5 many.test\n"
                             "10.0.0.7 printer.test\n"
                             "10.0.0.8 scanner.example\n"
                             "fd00::9 six.test\n"
                             "fd00::1 six.test\n"
                             "10.0.0.2 both.test\n"
                             "fd00::2 both.test\n";
/// Resolves a name with the functions of the system. Returns the code.
int resolveBySystem(std::string const& name, int family, Items& addresses) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_IDN;
    addrinfo* list = nullptr;
    int const code = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    for (addrinfo const* entry = list; code == 0 && entry != nullptr; entry = entry->ai_next) {
        char text[INET6_ADDRSTRLEN] = "";
        getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        addresses.emplace_back(text);
    }
    if (code == 0) {
        freeaddrinfo(list);
    }
    return code;
}

Items const MANY = {"10.0.0.9", "10.0.0.1", "10.0.0.5"};
Items const SIX = {"fd00::9", "fd00::1"};

class IPResolverNames : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NAMES(); }
};

/// Runs `body` with the name server of a zone. Checks that no report is left.
void run(
    std::function<void(Resolver& resolver, NameServer& server)> const& body, std::string const& zone = ZONE) {
    expectWithNameServer(zone, [&body](NameServer& server) {
        Resolver resolver;
        body(resolver, server);
        EXPECT_TRUE(chainIs({}));
    });
}

/// The same with a server that does not answer.
void runSilent(std::function<void(Resolver& resolver, SilentNameServer const& server)> const& body) {
    expectWithNames([&body] {
        SilentNameServer const server;
        Resolver resolver;
        body(resolver, server);
        EXPECT_TRUE(chainIs({}));
    });
}

/// A resolve and its items.
struct NameRow : NamedRow {
    IPSocket::IPProtocolVersion version;
    char const* text; ///< A name, or with `fqdn` an address.
    Items items;
    std::optional<bool> fqdn = {};
};

NameRow const NAME_ROWS[] = {
    {"several", V4, "many.test", {"10.0.0.9", "10.0.0.1", "10.0.0.5"}},
    {"severalOfIPv6", V6, "six.test", {"fd00::9", "fd00::1"}},
    {"onlyIPv4OfBoth", V4, "both.test", {"10.0.0.2"}},
    {"onlyIPv6OfBoth", V6, "both.test", {"fd00::2"}},
    {"noneOfIPv4", V4, "six.test", {}},
    {"noneOfIPv6", V6, "many.test", {}},
    {"unknownName", V4, "unknown.test", {}},
    {"unknownNameOfIPv6", V6, "unknown.test", {}},
    {"upperCase", V4, "PRINTER.test", {"10.0.0.7"}},
    {"finalDot", V4, "printer.test.", {"10.0.0.7"}},
    {"refusedName", V4, "name.elsewhere", {"(failed)"}},
    {"withDomain", V4, "10.0.0.7", {"printer.test"}, true},
    {"withoutDomain", V4, "10.0.0.7", {"printer"}, false},
    {"withDomainOfIPv6", V6, "fd00::9", {"six.test"}, true},
    {"withoutDomainOfIPv6", V6, "fd00::9", {"six"}, false},
    {"withoutAnotherDomain", V4, "10.0.0.8", {"scanner.example"}, false},
    {"addressWithoutAName", V4, "10.9.9.9", {}, true},
    {"addressWithoutAShortName", V4, "10.9.9.9", {}, false},
    {"addressOfIPv6WithoutAName", V6, "fd00::999", {}, true},
    {"addressOfIPv6WithoutAShortName", V6, "fd00::999", {}, false}};
VESK_TEST_TABLE(IPResolverNameRows, haveTheirItems, IPResolverNames, NAME_ROWS) {
    run([](Resolver& resolver, NameServer&) {
        NameRow const& row = GetParam();
        if (row.fqdn) {
            EXPECT_EQ(row.items, namesOf(resolver, row.text, row.version, *row.fqdn));
        } else {
            EXPECT_EQ(row.items, addressesOf(resolver, row.text, row.version));
            Items expected;
            int const code = resolveBySystem(row.text, row.version == V6 ? AF_INET6 : AF_INET, expected);
            EXPECT_EQ(row.items, code == EAI_AGAIN ? FAILED : expected);
        }
        EXPECT_TRUE(chainIs(row.items == FAILED ? resolverFailed(EAI_AGAIN) : Reports{}));
    });
}

VESK_TEST_WITH(
    runSilent, IPResolverNames, hostsFileAndNumericAddressesAreUsedWithoutAQuery,
    (Resolver & resolver, SilentNameServer const& server)) {
    EXPECT_EQ(Items{"10.1.0.1"}, addressesOf(resolver, "listed.example"));
    EXPECT_EQ(Items{"listed.example"}, namesOf(resolver, "10.1.0.1"));
    EXPECT_EQ(0, server.countQuestions());
    EXPECT_EQ(Items{"10.0.0.1"}, addressesOf(resolver, "10.0.0.1"));
    EXPECT_EQ(Items{"fd00::1"}, addressesOf(resolver, "fd00::1", V6));
    EXPECT_EQ(NONE, namesOf(resolver, "many.test"));
    IPAddress address("10.0.0.1", 80);
    sockaddr_in binary;
    EXPECT_FALSE(address.getBinary(binary));
    EXPECT_EQ(0, server.countQuestions());
}

VESK_TEST_WITH(
    run, IPResolverNames, secondResolveReplacesAllResultsOfTheFirst,
    (Resolver & resolver, NameServer& server)) {
    EXPECT_EQ(MANY, addressesOf(resolver, "many.test"));
    EXPECT_EQ(Items{"10.0.0.7"}, addressesOf(resolver, "printer.test"));
    EXPECT_EQ(SIX, addressesOf(resolver, "six.test", V6));
    EXPECT_EQ(NONE, addressesOf(resolver, "unknown.test"));
    EXPECT_EQ(MANY, addressesOf(resolver, "many.test"));
    server.stop();
    EXPECT_EQ(FAILED, addressesOf(resolver, "many.test"));
    EXPECT_TRUE(chainIs(resolverFailed(EAI_AGAIN)));
    EXPECT_EQ(Items{"127.0.0.1"}, addressesOf(resolver, "127.0.0.1"));
}

VESK_TEST_WITH(
    runSilent, IPResolverNames, serverThatDoesNotAnswerFailsTheResolveAfterItsTimeout,
    (Resolver & resolver, SilentNameServer const& server)) {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(FAILED, addressesOf(resolver, "many.test"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
    EXPECT_TRUE(chainIs(resolverFailed(EAI_AGAIN)));
    EXPECT_GT(server.countQuestions(), 0);
    EXPECT_EQ(FAILED, namesOf(resolver, "10.0.0.7"));
    EXPECT_TRUE(chainIs(resolverFailed(EAI_AGAIN)));
    EXPECT_GT(server.countQuestions(), 0);
}

VESK_TEST_WITH(run, IPResolverNames, garbageHasTheResultOfTheSystem, (Resolver & resolver, NameServer&)) {
    for (std::string const& name : stringsOf(
             "", ".", "..", "-", "%", "@", "*", "a b.test", "127.0.0.1 x", "127.0.0.1:80", "127.0.0.1%lo",
             "\x01\x02\x03.test", "many.test\n", "..many.test", "many..test", std::string(63, 'a') + ".test",
             std::string(64, 'a') + ".test", std::string(300, 'x'), std::string(5000, 'x'),
             std::string(2600, '.'), "h\xC3\xB6hle.test", "\xff\xfe\xfd.test", "xn--hhle-5qa.test",
             "xn--\xff.test")) {
        for (auto const version : {V4, V6}) {
            Items expected;
            int const code = resolveBySystem(name, version == V6 ? AF_INET6 : AF_INET, expected);
            EXPECT_NE(0, code) << name;
            bool const is_unknown = code == EAI_NONAME || code == EAI_NODATA || code == EAI_ADDRFAMILY;
            EXPECT_EQ(is_unknown ? NONE : FAILED, addressesOf(resolver, name, version))
                << name << ": " << gai_strerror(code);
            EXPECT_TRUE(chainIs(
                is_unknown                   ? Reports{}
                    : code == EAI_IDN_ENCODE ? withText({SysErrorId::UNCLASSIFIED}, gai_strerror(code))
                                             : resolverFailed(code)))
                << name << ": " << gai_strerror(code);
        }
    }
}

TEST_F(IPResolverNames, labelCanHave63Letters) {
    std::string const name = std::string(63, 'a') + ".test";
    run(
        [&name](Resolver& resolver, NameServer&) {
            EXPECT_EQ(Items{"10.0.0.3"}, addressesOf(resolver, name));
            EXPECT_EQ(Items{name}, namesOf(resolver, "10.0.0.3"));
        },
        "10.0.0.3 " + name + "\n");
}

VESK_TEST_WITH(
    run, IPResolverNames, firstAddressReplacesTheHostUnlessItIsOfTheOtherVersion,
    (Resolver&, NameServer& server)) {
    auto const expectReplaced = [](auto& binary, char const* name, char const* numeric, char const* other) {
        IPAddress of_other_version(other, 80);
        EXPECT_TRUE(of_other_version.getBinary(binary));
        EXPECT_TRUE(chainIs(UNRESOLVED));
        EXPECT_EQ(other, of_other_version.host);
        IPAddress address(name, 81);
        EXPECT_FALSE(address.getBinary(binary));
        EXPECT_EQ(numeric, address.host);
        EXPECT_EQ(numeric, IPAddress(binary).host);
        EXPECT_EQ(81, IPAddress(binary).port);
        return address;
    };
    sockaddr_in binary;
    sockaddr_in6 binary6;
    IPAddress many = expectReplaced(binary, "many.test", "10.0.0.9", "six.test");
    IPAddress six = expectReplaced(binary6, "six.test", "fd00::9", "many.test");
    server.stop();
    EXPECT_FALSE(many.getBinary(binary)) << "the name is not needed again";
    EXPECT_FALSE(six.getBinary(binary6));
}

VESK_TEST_WITH(run, IPResolverNames, socketResolvesBothAddressesInItsConstructor, (Resolver&, NameServer&)) {
    class NamedSocket : public IPSocket {
    public:
        NamedSocket(IPAddress const& local, IPAddress const& peer, IPProtocolVersion version)
            : IPSocket(true, 0, 0, local, peer, version) {}
        unsigned int maxTxSize() const override { return 0; }
    };
    NamedSocket socket({"localhost", 1}, {"many.test", 2}, V4);
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ("127.0.0.1", socket.getLocalAddress().host);
    EXPECT_EQ("10.0.0.9", socket.getPeerAddress().host);
    socket.close(false);

    EXPECT_FALSE(NamedSocket(IPAddress(), {"unknown.test", 2}, V4).isValid());
    EXPECT_TRUE(chainIs(UNRESOLVED));
    EXPECT_FALSE(NamedSocket({"unknown.test", 2}, IPAddress(), V6).isValid());
    EXPECT_TRUE(chainIs(UNRESOLVED));
    EXPECT_FALSE(NamedSocket(IPAddress(), {"name.elsewhere", 2}, V4).isValid());
    EXPECT_TRUE(chainIs(resolverFailed(EAI_AGAIN)));
}

} // namespace
