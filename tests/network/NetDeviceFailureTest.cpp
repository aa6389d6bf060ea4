#include "support/CleanEnd.h"
#include "support/NewFault.h"

#include "AnswerCalls.h"
#include "NetDeviceSupport.h"

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <sys/socket.h>

namespace {

using Request = unsigned long;
using Calls = std::vector<std::pair<Request, std::string>>;

sockaddr makeAddress(char const* text) {
    sockaddr_in const address{AF_INET, 0, {inet_addr(text)}, {}};
    sockaddr result;
    memcpy(&result, &address, sizeof result);
    return result;
}

std::string textOf(sockaddr const& address) {
    sockaddr_in binary;
    memcpy(&binary, &address, sizeof binary);
    return binary.sin_family == AF_INET ? inet_ntoa(binary.sin_addr) : "";
}

std::map<Request, ifreq> makeReplies() {
    std::map<Request, ifreq> replies;
    replies[SIOCGIFMTU].ifr_mtu = 1400;
    replies[SIOCGIFHWADDR].ifr_hwaddr = {ARPHRD_ETHER, "\x02\x1a\x2b\x3c\x4d\xff\x66\x77"};
    replies[SIOCGIFADDR].ifr_addr = makeAddress("192.0.2.7");
    replies[SIOCGIFNETMASK].ifr_netmask = makeAddress("255.255.255.0");
    replies[SIOCGIFBRDADDR].ifr_broadaddr = makeAddress("192.0.2.255");
    return replies;
}

/// The system: its interfaces, which are all alike, and what was requested of it.
struct System {
    std::vector<std::string> names = {"first", "second"};
    int flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
    std::map<Request, ifreq> replies = makeReplies();
    std::map<Request, int> errors; ///< The requests that fail, and their numbers.
    std::vector<ifreq> calls;      ///< The arguments of all requests.
    Calls requests;
    int lists = 0; ///< The number of lists of all interfaces that are not freed.
    int list_requests = 0;
    std::vector<int> sockets;      ///< Family, type and protocol of each.
    std::vector<addrinfo> queries; ///< The hints of each query of the resolver.
    std::map<size_t, int> answers; ///< The queries that fail, counted from 1, and their codes.
};
System g;

struct if_nameindex* makeList() {
    ++g.list_requests;
    ++g.lists;
    auto* const list =
        static_cast<struct if_nameindex*>(calloc(g.names.size() + 1, sizeof(struct if_nameindex)));
    for (size_t i = 0; i < g.names.size(); ++i) {
        list[i].if_name = strdup(g.names[i].c_str());
        list[i].if_index = static_cast<unsigned int>(i + 1);
    }
    return list;
}

/// Records a query. Returns the code that it must fail with, or 0.
int query(addrinfo const& hints) {
    g.queries.push_back(hints);
    auto const answer = g.answers.find(g.queries.size());
    return answer == g.answers.end() ? 0 : answer->second;
}

} // namespace

extern "C" VESK_UNWATCHED int ioctl(int /*fd*/, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    ifreq& data = *va_arg(arguments, ifreq*);
    va_end(arguments);
    g.calls.push_back(data);
    g.requests.emplace_back(request, data.ifr_name);
    auto const error = g.errors.find(request);
    if (error != g.errors.end()) {
        errno = error->second;
        return -1;
    }
    auto const reply = g.replies.find(request);
    if (request == SIOCGIFFLAGS) {
        data.ifr_flags = static_cast<short>(g.flags); // The kernel, too, sets only the lower half.
    } else if (reply != g.replies.end()) {
        data.ifr_ifru = reply->second.ifr_ifru;
    } else {
        EXPECT_TRUE(request == SIOCSIFADDR || request == SIOCSIFNETMASK || request == SIOCSIFFLAGS);
    }
    return 0;
}

extern "C" VESK_UNWATCHED void if_freenameindex(struct if_nameindex* list) {
    --g.lists;
    for (struct if_nameindex const* row = list; row->if_index != 0; ++row) {
        free(row->if_name);
    }
    free(list);
}

VESK_ANSWER(unsigned int, 0, if_nametoindex, (char const* name), (name), return 7)
VESK_ANSWER(struct if_nameindex*, nullptr, if_nameindex, (), (), return makeList())
VESK_ANSWER(
    int, -1, socket, (int family, int type, int protocol), (family, type, protocol),
    g.sockets.insert(g.sockets.end(), {family, type, protocol}))
VESK_ANSWER(
    int, EAI_SYSTEM, getaddrinfo,
    (char const* name, char const* service, addrinfo const* hints, addrinfo** result),
    (name, service, hints, result), if (int const code = query(*hints)) { return code; })

namespace {

using namespace support;
using vesk::NetDevice;
namespace CommonErrorId = std::CommonErrorId;
namespace SysErrorId = vesk::SysErrorId;
using Info = NetDevice::InterfaceInfo;

constexpr Request QUESTIONS[] = {SIOCGIFFLAGS, SIOCGIFMTU,     SIOCGIFHWADDR,
                                 SIOCGIFADDR,  SIOCGIFNETMASK, SIOCGIFBRDADDR};

constexpr int ERRORS[] = {EPERM,        EACCES,          ENODEV, ENXIO,  ENOTTY, EBADF, EFAULT,
                          EINVAL,       ENOMEM,          EINTR,  EIO,    EEXIST, EBUSY, EADDRNOTAVAIL,
                          EAFNOSUPPORT, EPROTONOSUPPORT, EMFILE, ENFILE, ENOBUFS};

/// Begins with a new system.
void restart(std::vector<std::string> const& names = {"first", "second"}) {
    EXPECT_EQ(0, g.lists) << "a list was not freed";
    g = System();
    g.names = names;
}

class NetDeviceFailure : public testing::Test {
protected:
    void TearDown() override { restart(); }
};

/// Returns the content of an info, one text for each question. "URPMB" stands for up, running, promiscuous,
/// multicast and broadcast.
std::vector<std::string> partsOf(Info const& info) {
    auto const number = [](auto value) { return " " + std::to_string(value); };
    auto const address = [number](auto const& ip, bool is_set) {
        return ip.host + number(ip.port) + number(is_set);
    };
    char const* const types[] = {"loopback", "point to point", "other"};
    std::string letters;
    letters += info.up ? "U" : "";
    letters += info.running ? "R" : "";
    letters += info.promiscuous ? "P" : "";
    letters += info.multicast ? "M" : "";
    letters += info.broadcast ? "B" : "";
    std::string hardware = number(info.has_hardware_address);
    for (unsigned char const byte : info.hardware_address) {
        hardware += number(byte);
    }
    return {
        info.name + number(info.flags) + " " + types[info.type] + (letters.empty() ? "" : " ") + letters,
        number(info.mtu),
        hardware,
        address(info.address, info.has_address),
        address(info.netmask, info.has_netmask),
        address(info.broadcast_address, info.has_broadcast_address)};
}

/// Expects the content of an info about the first interface after answers to these questions.
void expectInfo(Info const& info, std::set<int> const& answered) {
    std::vector<std::string> const all = {"first 4163 other URMB", " 1400",
                                          " 1 2 26 43 60 77 255",  "192.0.2.7 0 1",
                                          "255.255.255.0 0 1",     "192.0.2.255 0 1"};
    std::vector<std::string> expected = {" 0 other", " 0", " 0 0 0 0 0 0 0", " 0 0", " 0 0", " 0 0"};
    for (int const question : answered) {
        expected[static_cast<size_t>(question)] = all[static_cast<size_t>(question)];
    }
    EXPECT_EQ(expected, partsOf(info));
}

TEST_F(NetDeviceFailure, hasAnEmptyInfoAtFirst) {
    Info info;
    EXPECT_FALSE(info.has_hardware_address);
    memset(info.hardware_address, 0, sizeof info.hardware_address);
    expectInfo(info, {});
}

// The earlier content of an info must not matter.
Info makeFull() {
    Info info;
    info.name = "before";
    info.address = info.netmask = info.broadcast_address = {"198.51.100.1", 99};
    info.has_address = info.has_netmask = info.has_broadcast_address = info.has_hardware_address = true;
    info.up = info.running = info.promiscuous = info.multicast = info.broadcast = true;
    memset(info.hardware_address, 0xab, sizeof info.hardware_address);
    info.mtu = 77;
    info.type = 1;
    info.flags = 0xffffffff;
    return info;
}

/// Returns the info about "first", read into one that is full.
Info readFirst() {
    NetDevice device("first");
    Info info = makeFull();
    EXPECT_EQ(0, device.getNextInfo(info));
    return info;
}

/// Expects that the next interface of the walk is "second", and that the walk ends behind it.
void expectSecondIsLast(NetDevice& devices) {
    Info info;
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("second", info.name);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(1, devices.getNextInfo(info));
        EXPECT_EQ("second", info.name) << "the end of the walk must not change the info";
    }
}

TEST_F(NetDeviceFailure, makesOneSocketAndCopiesItsName) {
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, 0);
        NetDevice const device("first");
        EXPECT_EQ((std::vector<size_t>{2 * sizeof(struct if_nameindex), 17}), fault.getSizes());
        EXPECT_EQ((std::vector<int>{AF_INET, SOCK_DGRAM, 0}), g.sockets);
        EXPECT_EQ(0, g.list_requests);
    }
    NetDevice const devices(nullptr);
    EXPECT_EQ((std::vector<int>{AF_INET, SOCK_DGRAM, 0, AF_INET, SOCK_DGRAM, 0}), g.sockets);
    EXPECT_EQ(1, g.list_requests);
    EXPECT_EQ(1, g.lists);
    EXPECT_TRUE(g.calls.empty());
}

void expectUseless(NetDevice& device) {
    EXPECT_FALSE(device.isValid());
    for (int i = 0; i < 2; ++i) {
        Info info = makeFull();
        EXPECT_EQ(-1, device.getNextInfo(info));
        EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT));
        expectInfo(info, {});
        expectSettersFail(device, CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT);
        for (char const* const text : {"no name at all", static_cast<char const*>(nullptr)}) {
            EXPECT_TRUE(device.setAddress(text));
            EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT));
        }
    }
    EXPECT_TRUE(g.calls.empty());
    EXPECT_TRUE(g.queries.empty());
}

TEST_F(NetDeviceFailure, isUselessWithoutASocketAListAnIndexOrMemory) {
    struct Row {
        Injected& function;
        char const* device;
        SysErrorId::Id id;
    };
    for (auto const& [function, name, id] :
         {Row{inject_socket, "first", SysErrorId::UNCLASSIFIED},
          Row{inject_socket, nullptr, SysErrorId::UNCLASSIFIED},
          Row{inject_if_nameindex, nullptr, SysErrorId::OUT_OF_MEMORY},
          Row{inject_if_nametoindex, "first", SysErrorId::NO_DEVICE}}) {
        for (int const error : ERRORS) {
            SCOPED_TRACE(std::to_string(id) + (name == nullptr ? " of all " : " ") + strerrorname_np(error));
            restart();
            Fault const fault(function, error);
            NetDevice device(name);
            EXPECT_TRUE(causeIs(id, error));
            EXPECT_EQ(0, g.list_requests);
            expectUseless(device);
        }
    }
    for (int const nth : {1, 2}) {
        SCOPED_TRACE(nth);
        restart();
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        NetDevice device("first");
        EXPECT_TRUE(isPending(CommonErrorId::OUT_OF_MEMORY, ""));
        expectUseless(device);
    }
}

TEST_F(NetDeviceFailure, makesItsRequestsInThisOrder) {
    Info info = makeFull();
    {
        NetDevice devices(nullptr);
        ASSERT_EQ(0, devices.getNextInfo(info));
        expectInfo(info, {0, 1, 2, 3, 4, 5});
        expectSecondIsLast(devices);
    }
    Calls expected;
    for (char const* const name : {"first", "second"}) {
        for (Request const question : QUESTIONS) {
            expected.emplace_back(question, name);
        }
    }
    EXPECT_EQ(expected, g.requests);
    ifreq first{}; // The rest is cleared.
    strcpy(first.ifr_name, "first");
    EXPECT_EQ(0, memcmp(&first, &g.calls[0], sizeof first));

    restart();
    g.flags = IFF_UP | IFF_POINTOPOINT; // No broadcast.
    info = readFirst();
    expected.resize(5);
    EXPECT_EQ(expected, g.requests);
    EXPECT_FALSE(info.has_broadcast_address);
    EXPECT_EQ("", info.broadcast_address.host);
}

class FailedQuestion : public NetDeviceFailure, public testing::WithParamInterface<int> {};

TEST_P(FailedQuestion, endsTheCallAndNotTheWalk) {
    std::set<int> answered;
    for (int i = 0; i < GetParam(); ++i) {
        answered.insert(i);
    }
    for (int const error : ERRORS) {
        // To a question about an address, this is an answer.
        if (error == EADDRNOTAVAIL && GetParam() > 2) {
            continue;
        }
        SCOPED_TRACE(strerror(error));
        for (bool const second_fails : {false, true}) {
            SCOPED_TRACE(second_fails);
            restart();
            g.errors[QUESTIONS[GetParam()]] = error;
            NetDevice devices(nullptr);
            Info info = makeFull();
            EXPECT_EQ(-1, devices.getNextInfo(info));
            EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
            expectInfo(info, answered);
            EXPECT_EQ(answered.size() + 1, g.calls.size());
            EXPECT_EQ("first", g.requests.back().second);
            if (!second_fails) {
                g.errors.clear();
                expectSecondIsLast(devices);
                continue;
            }
            EXPECT_EQ(-1, devices.getNextInfo(info));
            EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
            EXPECT_EQ("second", g.requests.back().second);
            // The setters stay on the interface that failed.
            EXPECT_FALSE(devices.setAddress("192.0.2.8"));
            EXPECT_EQ(Calls::value_type(SIOCSIFADDR, "second"), g.requests.back());
            EXPECT_EQ(1, devices.getNextInfo(info));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Questions, FailedQuestion, testing::Range(0, 6));

TEST_F(NetDeviceFailure, acceptsThatAnInterfaceHasNoAddress) {
    for (std::set<int> const& answered :
         {std::set{0, 1, 2, 4, 5}, {0, 1, 2, 3, 5}, {0, 1, 2, 3, 4}, {0, 1, 2}}) {
        SCOPED_TRACE(testing::PrintToString(answered));
        restart();
        for (int question = 0; question < 6; ++question) {
            if (answered.count(question) == 0) {
                g.errors[QUESTIONS[question]] = EADDRNOTAVAIL;
            }
        }
        expectInfo(readFirst(), answered);
        EXPECT_EQ(6U, g.calls.size());
    }
}

TEST_F(NetDeviceFailure, reportsFlagsOneByOneAndUnchanged) {
    std::pair<int, std::string> const rows[] = {
        {0, "other"},
        {IFF_UP, "other U"},
        {IFF_BROADCAST, "other B"},
        {IFF_DEBUG, "other"},
        {IFF_LOOPBACK, "loopback"},
        {IFF_POINTOPOINT, "point to point"},
        {IFF_LOOPBACK | IFF_POINTOPOINT, "point to point"},
        {IFF_RUNNING, "other R"},
        {IFF_NOARP, "other"},
        {IFF_PROMISC, "other P"},
        {IFF_ALLMULTI, "other"},
        {IFF_MULTICAST, "other M"},
        {IFF_DYNAMIC, "other"},
        {IFF_UP | IFF_LOOPBACK | IFF_RUNNING, "loopback UR"},
        {0xffff, "point to point URPMB"}};
    for (auto const& [flags, meaning] : rows) {
        g.flags = flags;
        EXPECT_EQ("first " + std::to_string(flags) + " " + meaning, partsOf(readFirst())[0]);
    }
}

TEST_F(NetDeviceFailure, reportsAHardwareAddressOnlyIfItIsEthernet) {
    for (int const type :
         {0, ARPHRD_ETHER, ARPHRD_EETHER, 257, ARPHRD_PPP, ARPHRD_LOOPBACK, ARPHRD_IEEE80211, ARPHRD_TUNNEL,
          0xfffe, 0xffff}) {
        g.replies[SIOCGIFHWADDR].ifr_hwaddr.sa_family = static_cast<unsigned short>(type);
        Info const info = readFirst();
        EXPECT_EQ(type == 1, info.has_hardware_address) << type;
        if (type == 1) {
            EXPECT_EQ(" 1 2 26 43 60 77 255", partsOf(info)[2]);
        }
    }
}

TEST_F(NetDeviceFailure, cutsNamesToTheLimitOfTheSystem) {
    std::string const letters = "bcdefghijklmnopqrstuvwxyz" + std::string(275, 'a');
    for (size_t const length : {1U, 14U, 15U, 16U, 17U, 300U}) {
        for (bool const single : {true, false}) {
            SCOPED_TRACE(std::to_string(length) + (single ? " single" : ""));
            std::string const name = letters.substr(0, length);
            restart({name});
            NetDevice device(single ? name.c_str() : nullptr);
            Info info;
            ASSERT_EQ(0, device.getNextInfo(info));
            EXPECT_EQ(name.substr(0, 15), info.name);
            EXPECT_FALSE(device.setAddress("192.0.2.7"));
            EXPECT_FALSE(device.setPromiscuous(true));
            EXPECT_EQ(9U, g.calls.size());
            for (ifreq const& call : g.calls) {
                EXPECT_EQ(name.substr(0, 15), call.ifr_name);
                EXPECT_EQ('\0', call.ifr_name[15]);
            }
        }
    }
}

TEST_F(NetDeviceFailure, isAtTheEndAtOnceWithoutInterfaces) {
    restart({});
    NetDevice devices(nullptr);
    ASSERT_TRUE(devices.isValid());
    Info info;
    for (int i = 0; i < 4; ++i) {
        expectSettersFail(devices, CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE);
        EXPECT_EQ(1, devices.getNextInfo(info));
    }
    EXPECT_TRUE(g.calls.empty());
}

class EverySetter : public NetDeviceFailure, public testing::WithParamInterface<Setter> {
protected:
    /// Expects that the setter makes its requests about an interface.
    void expectCalls(NetDevice& device, char const* interface) const {
        g.requests.clear();
        EXPECT_FALSE(GetParam().call(device));
        Calls calls;
        for (Request const request : GetParam().requests) {
            calls.emplace_back(request, interface);
        }
        EXPECT_EQ(calls, g.requests);
    }
};

TEST_P(EverySetter, reportsTheCause) {
    for (size_t i = 0; i < GetParam().requests.size(); ++i) {
        for (int const error : ERRORS) {
            SCOPED_TRACE(std::to_string(i) + " " + strerrorname_np(error));
            restart();
            g.errors[GetParam().requests[i]] = error;
            NetDevice device("first");
            EXPECT_TRUE(GetParam().call(device));
            bool const is_denied = error == EPERM || error == EACCES;
            EXPECT_TRUE(causeIs(is_denied ? SysErrorId::PERMISSION_DENIED : SysErrorId::UNCLASSIFIED, error));
            EXPECT_EQ(i + 1, g.calls.size());
        }
    }
}

TEST_P(EverySetter, movesToTheFirstInterfaceBeforeTheWalkEvenIfTheSystemRefuses) {
    NetDevice devices(nullptr);
    expectCalls(devices, "first");
    expectSecondIsLast(devices);

    NetDevice refused(nullptr);
    g.errors[GetParam().requests.back()] = EPERM;
    EXPECT_TRUE(GetParam().call(refused));
    std::ErrorStorage::ack();
    g.errors.clear();
    expectSecondIsLast(refused);

    NetDevice device("first");
    expectCalls(device, "first");
    expectCalls(device, "first");
    Info info;
    EXPECT_EQ(1, device.getNextInfo(info));
}

TEST_P(EverySetter, setsTheCurrentInterfaceOfTheWalk) {
    NetDevice devices(nullptr);
    Info info;
    for (char const* const name : {"first", "second"}) {
        ASSERT_EQ(0, devices.getNextInfo(info));
        expectCalls(devices, name);
        expectCalls(devices, name);
    }
    ASSERT_EQ(1, devices.getNextInfo(info));
    g.requests.clear();
    EXPECT_TRUE(GetParam().call(devices));
    EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE));
    EXPECT_TRUE(g.requests.empty());
}

INSTANTIATE_TEST_SUITE_P(Setters, EverySetter, testing::ValuesIn(SETTERS), [](auto const& row) {
    return std::string(row.param.name);
});

TEST_F(NetDeviceFailure, changesOneFlag) {
    struct Row {
        bool (NetDevice::*set)(bool on);
        int bit;
    };
    for (auto const& [set, bit] :
         {Row{&NetDevice::setInterfaceStatus, IFF_UP}, Row{&NetDevice::setPromiscuous, IFF_PROMISC}}) {
        for (int const before : {0, bit, 0xffff & ~bit, 0xffff}) {
            for (bool const on : {true, false}) {
                SCOPED_TRACE(std::to_string(bit) + " of " + std::to_string(before) + (on ? " on" : " off"));
                restart();
                g.flags = before;
                NetDevice device("first");
                EXPECT_FALSE((device.*set)(on));
                ASSERT_EQ(2U, g.calls.size());
                EXPECT_EQ(on ? before | bit : before & ~bit, g.calls[1].ifr_flags & 0xffff);
            }
        }
    }
}

TEST_F(NetDeviceFailure, requestsTheAddressOfAText) {
    for (auto const& [text, address] :
         {std::pair("192.0.2.8", "192.0.2.8"),
          {"0.0.0.0", "0.0.0.0"},
          {"255.255.255.255", "255.255.255.255"},
          {"127.1", "127.0.0.1"},
          {"", "0.0.0.0"},
          {nullptr, "0.0.0.0"}}) {
        SCOPED_TRACE(testing::PrintToString(text));
        restart();
        NetDevice device("first");
        EXPECT_FALSE(device.setAddress(text));
        EXPECT_FALSE(device.setNetmask(text));
        ASSERT_EQ(2U, g.calls.size());
        for (ifreq const& call : g.calls) {
            EXPECT_EQ(address, textOf(call.ifr_addr));
            EXPECT_EQ(0, call.ifr_addr.sa_data[0] | call.ifr_addr.sa_data[1]) << "the port";
        }
    }
}

TEST_F(NetDeviceFailure, firstAsksTheResolverIfATextIsNumeric) {
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("192.0.2.8"));
    ASSERT_EQ(2U, g.queries.size());
    addrinfo const& hints = g.queries[0];
    EXPECT_EQ(AI_NUMERICHOST, hints.ai_flags);
    EXPECT_EQ(SOCK_DGRAM, hints.ai_socktype);
    EXPECT_EQ(AF_UNSPEC, hints.ai_family);
    EXPECT_EQ(0, hints.ai_protocol);
    EXPECT_EQ(AF_INET, g.queries[1].ai_family);
    EXPECT_FALSE(device.setAddress(""));
    EXPECT_FALSE(device.setNetmask(nullptr));
    EXPECT_EQ(2U, g.queries.size());
}

TEST_F(NetDeviceFailure, resolvesANameOnceAndItsResultOnceMore) {
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("localhost"));
    EXPECT_EQ(3U, g.queries.size());
    EXPECT_EQ("127.0.0.1", textOf(g.calls.back().ifr_addr));
}

TEST_F(NetDeviceFailure, rejectsAnIPv6Address) {
    for (char const* const text : {"::1", "fe80::1", "2001:db8::1"}) {
        SCOPED_TRACE(text);
        restart();
        NetDevice device("first");
        EXPECT_TRUE(device.setAddress(text));
        EXPECT_TRUE(isUnresolved());
        EXPECT_TRUE(device.setNetmask(text));
        EXPECT_TRUE(isUnresolved());
        EXPECT_TRUE(g.calls.empty());
        // It is numeric, so the cursor had moved before.
        Info info;
        EXPECT_EQ(1, device.getNextInfo(info));
    }
}

TEST_F(NetDeviceFailure, failsOnANameBeforeTheCursorMovesAndOnANumericTextBehindThat) {
    ExpectedReport const unresolved(CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname");
    for (auto const& [code, id] :
         {std::pair(EAI_NONAME, unresolved),
          {EAI_NODATA, unresolved},
          {EAI_ADDRFAMILY, unresolved},
          {EAI_AGAIN, vesk::Socket::ErrorId::RESOLVE_FAILED},
          {EAI_FAIL, vesk::Socket::ErrorId::RESOLVE_FAILED},
          {EAI_MEMORY, SysErrorId::OUT_OF_MEMORY},
          {EAI_FAMILY, SysErrorId::UNCLASSIFIED}}) {
        SCOPED_TRACE(gai_strerror(code));
        ExpectedReport report = id;
        report.text = rowText(*id.family, id.id, id.text.value_or(gai_strerror(code)));
        restart();
        NetDevice device("first");
        // The query for a numeric text may fail in any way.
        g.answers = {{1, EAI_MEMORY}, {2, code}, {4, EAI_SYSTEM}, {5, code}, {7, code}};
        EXPECT_TRUE(device.setAddress("some.name"));
        EXPECT_TRUE(chainIs({report}));
        EXPECT_EQ(2U, g.queries.size());
        g.queries.resize(3);
        EXPECT_TRUE(device.setNetmask("some.name"));
        EXPECT_TRUE(chainIs({report}));
        EXPECT_EQ(5U, g.queries.size());
        EXPECT_TRUE(g.calls.empty());
        Info info;
        EXPECT_EQ(0, device.getNextInfo(info));
        g.calls.clear();

        NetDevice other("first");
        EXPECT_TRUE(other.setAddress("192.0.2.8"));
        EXPECT_TRUE(chainIs({report}));
        EXPECT_TRUE(g.calls.empty());
        EXPECT_EQ(1, other.getNextInfo(info));
    }
}

TEST_F(NetDeviceFailure, resolvesANameBeforeItLooksForAnInterface) {
    g.answers = {{1, EAI_NONAME}, {2, EAI_NONAME}};
    NetDevice device("first");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    ASSERT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(device.setAddress("some.name"));
    EXPECT_TRUE(isUnresolved());
}

} // namespace
