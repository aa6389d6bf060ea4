#include "NameServer.h"
#include "support/Chain.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/IPSocket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <netdb.h>
#include <string>
#include <vector>

/// The resolver with real names of a real server.

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::expectWithNames;
using support::expectWithNameServer;
using support::NameServer;
using support::rowText;
using support::SilentNameServer;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using IPAddress = vesk::IPSocket::IPAddress;
using Items = std::vector<std::string>;
using Resolver = vesk::IPSocket::IPResolver;

constexpr char const* ZONE = "10.0.0.9 many.test\n"
                             "10.0.0.1 many.test\n"
                             "10.0.0.5 many.test\n"
                             "10.0.0.7 printer.test\n"
                             "10.0.0.8 scanner.example\n"
                             "fd00::9 six.test\n"
                             "fd00::1 six.test\n"
                             "10.0.0.2 both.test\n"
                             "fd00::2 both.test\n";

Items itemsOf(Resolver const& resolver) {
    Items items;
    for (unsigned int i = 0; i < resolver.getCount(); ++i) {
        items.push_back(resolver.getItem(i));
    }
    return items;
}

ExpectedReport failed(int code) {
    return {
        Socket::Error, Socket::ErrorId::RESOLVE_FAILED,
        rowText(Socket::ErrorId::RESOLVE_FAILED, gai_strerror(code))};
}

ExpectedReport const UNRESOLVED{
    std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
    rowText(std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname")};

/// What the system itself says of a name.
int askSystem(std::string const& name, int family, Items& addresses) {
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

class IPResolverNames : public testing::Test {
protected:
    void SetUp() override { VESK_SKIP_WITHOUT_NAMES(); }
};

// ---- from names to addresses ----

TEST_F(IPResolverNames, severalAddressesComeInTheOrderOfTheSystem) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Items expected;
        ASSERT_EQ(0, askSystem("many.test", AF_INET, expected));
        Resolver resolver;
        EXPECT_EQ(3, resolver.resolveName("many.test", IPSocket::IPV4));
        EXPECT_EQ(3U, resolver.getCount());
        EXPECT_EQ(expected, itemsOf(resolver));
        EXPECT_EQ((Items{"10.0.0.9", "10.0.0.1", "10.0.0.5"}), itemsOf(resolver));

        expected.clear();
        ASSERT_EQ(0, askSystem("six.test", AF_INET6, expected));
        EXPECT_EQ(2, resolver.resolveName("six.test", IPSocket::IPV6));
        EXPECT_EQ(expected, itemsOf(resolver));
        EXPECT_EQ((Items{"fd00::9", "fd00::1"}), itemsOf(resolver));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, versionDecidesWhichAddressesThereAre) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("both.test", IPSocket::IPV4));
        EXPECT_EQ(Items{"10.0.0.2"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveName("both.test", IPSocket::IPV6));
        EXPECT_EQ(Items{"fd00::2"}, itemsOf(resolver));
        EXPECT_EQ(0, resolver.resolveName("six.test", IPSocket::IPV4));
        EXPECT_EQ(Items{}, itemsOf(resolver));
        EXPECT_EQ(0, resolver.resolveName("many.test", IPSocket::IPV6));
        EXPECT_EQ(Items{}, itemsOf(resolver));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, nameThatDoesNotExistHasNoAddressesAndNoReport) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(0, resolver.resolveName("nobody.test", IPSocket::IPV4));
        EXPECT_EQ(0, resolver.resolveName("nobody.test", IPSocket::IPV6));
        EXPECT_EQ(0U, resolver.getCount());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, hostsFileAnswersWithoutTheServer) {
    expectWithNames([] {
        SilentNameServer const server;
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("listed.example", IPSocket::IPV4));
        EXPECT_EQ(Items{"10.1.0.1"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveIP("10.1.0.1", true, IPSocket::IPV4));
        EXPECT_EQ(Items{"listed.example"}, itemsOf(resolver));
        EXPECT_EQ(0, server.countQuestions());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, numericAddressIsNoQuestionForTheServer) {
    expectWithNames([] {
        SilentNameServer const server;
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("10.0.0.1", IPSocket::IPV4));
        EXPECT_EQ(1, resolver.resolveName("fd00::1", IPSocket::IPV6));
        EXPECT_EQ(0, resolver.resolveIP("many.test", true, IPSocket::IPV4));
        IPAddress address("10.0.0.1", 80);
        sockaddr_in binary;
        EXPECT_FALSE(address.getBinary(binary));
        EXPECT_EQ(0, server.countQuestions());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, secondResolveReplacesAllOfTheFirst) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(3, resolver.resolveName("many.test", IPSocket::IPV4));
        EXPECT_EQ(1, resolver.resolveName("printer.test", IPSocket::IPV4));
        EXPECT_EQ(Items{"10.0.0.7"}, itemsOf(resolver));
        EXPECT_EQ(2, resolver.resolveName("six.test", IPSocket::IPV6));
        EXPECT_EQ(0, resolver.resolveName("nobody.test", IPSocket::IPV4));
        EXPECT_EQ(Items{}, itemsOf(resolver));
    });
}

// ---- from addresses to names ----

TEST_F(IPResolverNames, addressHasItsNameWithTheDomainIfWanted) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveIP("10.0.0.7", true, IPSocket::IPV4));
        EXPECT_EQ(Items{"printer.test"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveIP("10.0.0.7", false, IPSocket::IPV4));
        EXPECT_EQ(Items{"printer"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveIP("fd00::9", true, IPSocket::IPV6));
        EXPECT_EQ(Items{"six.test"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveIP("fd00::9", false, IPSocket::IPV6));
        EXPECT_EQ(Items{"six"}, itemsOf(resolver));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, nameInAnotherDomainKeepsIt) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveIP("10.0.0.8", false, IPSocket::IPV4));
        EXPECT_EQ(Items{"scanner.example"}, itemsOf(resolver));
    });
}

TEST_F(IPResolverNames, addressWithoutANameHasNoResultAndNoReport) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        for (bool const fqdn : {false, true}) {
            EXPECT_EQ(0, resolver.resolveIP("10.9.9.9", fqdn, IPSocket::IPV4));
            EXPECT_EQ(0, resolver.resolveIP("fd00::999", fqdn, IPSocket::IPV6));
            EXPECT_EQ(0U, resolver.getCount());
        }
        EXPECT_TRUE(chainIs({}));
    });
}

// ---- servers that fail ----

TEST_F(IPResolverNames, serverThatDoesNotAnswerFailsTheResolveInTime) {
    expectWithNames([] {
        SilentNameServer const server;
        Resolver resolver;
        auto const begin = std::chrono::steady_clock::now();
        EXPECT_EQ(-1, resolver.resolveName("many.test", IPSocket::IPV4));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
        EXPECT_TRUE(chainIs({failed(EAI_AGAIN)}));
        EXPECT_GT(server.countQuestions(), 0);
    });
}

TEST_F(IPResolverNames, serverThatDoesNotAnswerFailsTheWayBackFromAnAddress) {
    expectWithNames([] {
        SilentNameServer const server;
        Resolver resolver;
        EXPECT_EQ(-1, resolver.resolveIP("10.0.0.7", true, IPSocket::IPV4));
        EXPECT_TRUE(chainIs({failed(EAI_AGAIN)}));
        EXPECT_GT(server.countQuestions(), 0);
    });
}

TEST_F(IPResolverNames, serverThatRefusesFailsTheResolve) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(-1, resolver.resolveName("name.elsewhere", IPSocket::IPV4));
        EXPECT_TRUE(chainIs({failed(EAI_AGAIN)}));
    });
}

TEST_F(IPResolverNames, failureLeavesNothingOfTheResultBefore) {
    expectWithNameServer(ZONE, [](NameServer& server) {
        Resolver resolver;
        EXPECT_EQ(3, resolver.resolveName("many.test", IPSocket::IPV4));
        server.stop();
        EXPECT_EQ(-1, resolver.resolveName("many.test", IPSocket::IPV4));
        EXPECT_EQ(0U, resolver.getCount());
        EXPECT_TRUE(chainIs({failed(EAI_AGAIN)}));
        EXPECT_EQ(1, resolver.resolveName("127.0.0.1", IPSocket::IPV4));
    });
}

// ---- what is no name ----

TEST_F(IPResolverNames, garbageIsWhatTheSystemSaysOfIt) {
    expectWithNameServer(ZONE, [](NameServer&) {
        std::string const names[] = {
            "",
            ".",
            "..",
            "-",
            "%",
            "@",
            "*",
            "a b.test",
            "127.0.0.1 x",
            "127.0.0.1:80",
            "127.0.0.1%lo",
            "\x01\x02\x03.test",
            "many.test\n",
            "..many.test",
            "many..test",
            std::string(63, 'a') + ".test",
            std::string(64, 'a') + ".test",
            std::string(300, 'x'),
            std::string(5000, 'x'),
            std::string(2600, '.'),
            "h\xC3\xB6hle.test",
            "\xff\xfe\xfd.test",
            "xn--hhle-5qa.test",
            "xn--\xff.test",
        };
        for (std::string const& name : names) {
            for (IPSocket::IPProtocolVersion const version : {IPSocket::IPV4, IPSocket::IPV6}) {
                Items expected;
                int const code = askSystem(name, version == IPSocket::IPV6 ? AF_INET6 : AF_INET, expected);
                EXPECT_NE(0, code) << name;
                bool const is_nothing = code == EAI_NONAME || code == EAI_NODATA || code == EAI_ADDRFAMILY;
                Resolver resolver;
                EXPECT_EQ(is_nothing ? 0 : -1, resolver.resolveName(name.c_str(), version))
                    << name << ": " << gai_strerror(code);
                std::vector<ExpectedReport> chain;
                if (code == EAI_IDN_ENCODE) {
                    chain = {
                        {SysError, SysErrorId::UNCLASSIFIED,
                         rowText(SysErrorId::UNCLASSIFIED, gai_strerror(code))}};
                } else if (!is_nothing) {
                    chain = {failed(code)};
                }
                EXPECT_TRUE(chainIs(chain)) << name << ": " << gai_strerror(code);
                EXPECT_EQ(0U, resolver.getCount());
            }
        }
    });
}

TEST_F(IPResolverNames, longestLabelIsAName) {
    std::string const name = std::string(63, 'a') + ".test";
    expectWithNameServer("10.0.0.3 " + name + "\n", [&name](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName(name.c_str(), IPSocket::IPV4));
        EXPECT_EQ(Items{"10.0.0.3"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveIP("10.0.0.3", true, IPSocket::IPV4));
        EXPECT_EQ(Items{name}, itemsOf(resolver));
    });
}

TEST_F(IPResolverNames, capitalsAndAFinalDotDoNotMatter) {
    expectWithNameServer(ZONE, [](NameServer&) {
        Resolver resolver;
        EXPECT_EQ(1, resolver.resolveName("PRINTER.test", IPSocket::IPV4));
        EXPECT_EQ(Items{"10.0.0.7"}, itemsOf(resolver));
        EXPECT_EQ(1, resolver.resolveName("printer.test.", IPSocket::IPV4));
        EXPECT_EQ(Items{"10.0.0.7"}, itemsOf(resolver));
    });
}

// ---- addresses and sockets by name ----

TEST_F(IPResolverNames, firstAddressWinsAndReplacesTheHost) {
    expectWithNameServer(ZONE, [](NameServer& server) {
        IPAddress address("many.test", 80);
        sockaddr_in binary;
        EXPECT_FALSE(address.getBinary(binary));
        EXPECT_EQ("10.0.0.9", address.host);
        EXPECT_EQ("10.0.0.9", IPAddress(binary).host);
        EXPECT_EQ(80, ntohs(binary.sin_port));

        IPAddress address6("six.test", 81);
        sockaddr_in6 binary6;
        EXPECT_FALSE(address6.getBinary(binary6));
        EXPECT_EQ("fd00::9", address6.host);
        EXPECT_EQ("fd00::9", IPAddress(binary6).host);
        EXPECT_EQ(81, ntohs(binary6.sin6_port));

        // The names are not needed any more.
        server.stop();
        EXPECT_FALSE(address.getBinary(binary));
        EXPECT_FALSE(address6.getBinary(binary6));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_F(IPResolverNames, addressOfTheOtherVersionOnlyDoesNotHelp) {
    expectWithNameServer(ZONE, [](NameServer&) {
        IPAddress address("six.test", 80);
        sockaddr_in binary;
        EXPECT_TRUE(address.getBinary(binary));
        EXPECT_TRUE(chainIs({UNRESOLVED}));
        EXPECT_EQ("six.test", address.host);
        IPAddress address6("many.test", 80);
        sockaddr_in6 binary6;
        EXPECT_TRUE(address6.getBinary(binary6));
        EXPECT_TRUE(chainIs({UNRESOLVED}));
        EXPECT_EQ("many.test", address6.host);
    });
}

TEST_F(IPResolverNames, socketResolvesBothAddressesWhenItIsMade) {
    class NamedSocket : public IPSocket {
    public:
        NamedSocket(IPAddress const& local, IPAddress const& peer, IPProtocolVersion version)
            : IPSocket(true, 0, 0, local, peer, version) {}
        unsigned int maxTxSize() const override { return 0; }
    };
    expectWithNameServer(ZONE, [](NameServer&) {
        NamedSocket socket({"localhost", 1}, {"many.test", 2}, IPSocket::IPV4);
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ("127.0.0.1", socket.getLocalAddress().host);
        EXPECT_EQ("10.0.0.9", socket.getPeerAddress().host);
        socket.close(false);

        NamedSocket const no_peer(IPAddress(), {"nobody.test", 2}, IPSocket::IPV4);
        EXPECT_FALSE(no_peer.isValid());
        EXPECT_TRUE(chainIs({UNRESOLVED}));
        NamedSocket const no_local({"nobody.test", 2}, IPAddress(), IPSocket::IPV6);
        EXPECT_FALSE(no_local.isValid());
        EXPECT_TRUE(chainIs({UNRESOLVED}));
        NamedSocket const refused(IPAddress(), {"name.elsewhere", 2}, IPSocket::IPV4);
        EXPECT_FALSE(refused.isValid());
        EXPECT_TRUE(chainIs({failed(EAI_AGAIN)}));
    });
}

} // namespace
