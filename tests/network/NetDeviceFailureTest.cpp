#include "support/Inject.h"
#include "support/NewFault.h"

#include "AnswerCalls.h"
#include "NetDeviceSupport.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <net/if_arp.h>
#include <netdb.h>
#include <set>
#include <sys/socket.h>
#include <utility>

namespace {

class FakeSystem;
FakeSystem* s_system = nullptr;

using Request = unsigned long;
using Calls = std::vector<std::pair<Request, std::string>>;

sockaddr makeAddress(char const* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text, &address.sin_addr);
    sockaddr result;
    memcpy(&result, &address, sizeof result);
    return result;
}

std::string textOf(sockaddr const& address) {
    sockaddr_in binary;
    memcpy(&binary, &address, sizeof binary);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(binary.sin_family, &binary.sin_addr, text, sizeof text);
    return text;
}

/// During its lifetime, the system has these interfaces, which are all alike.
class FakeSystem {
public:
    explicit FakeSystem(std::vector<std::string> interface_names = {"first", "second"})
        : names(std::move(interface_names)) {
        s_system = this;
        replies[SIOCGIFMTU].ifr_mtu = 1400;
        replies[SIOCGIFHWADDR].ifr_hwaddr = {ARPHRD_ETHER, "\x02\x1a\x2b\x3c\x4d\xff\x66\x77"};
        replies[SIOCGIFADDR].ifr_addr = makeAddress("192.0.2.7");
        replies[SIOCGIFNETMASK].ifr_netmask = makeAddress("255.255.255.0");
        replies[SIOCGIFBRDADDR].ifr_broadaddr = makeAddress("192.0.2.255");
    }
    ~FakeSystem() {
        s_system = nullptr;
        EXPECT_EQ(0, lists) << "a list was not freed";
    }

    FakeSystem(FakeSystem const&) = delete;
    FakeSystem& operator=(FakeSystem const&) = delete;

    int answer(Request request, ifreq& data) {
        calls.push_back(data);
        requests.emplace_back(request, data.ifr_name);
        auto const error = errors.find(request);
        if (error != errors.end()) {
            errno = error->second;
            return -1;
        }
        auto const reply = replies.find(request);
        if (request == SIOCGIFFLAGS) {
            data.ifr_flags = static_cast<short>(flags); // The kernel, too, sets only the lower half.
        } else if (reply != replies.end()) {
            data.ifr_ifru = reply->second.ifr_ifru;
        } else {
            EXPECT_TRUE(request == SIOCSIFADDR || request == SIOCSIFNETMASK || request == SIOCSIFFLAGS);
        }
        return 0;
    }

    struct if_nameindex* makeList() {
        ++list_requests;
        ++lists;
        auto* const list =
            static_cast<struct if_nameindex*>(calloc(names.size() + 1, sizeof(struct if_nameindex)));
        for (size_t i = 0; i < names.size(); ++i) {
            list[i].if_name = strdup(names[i].c_str());
            list[i].if_index = static_cast<unsigned int>(i + 1);
        }
        return list;
    }

    void freeList(struct if_nameindex* list) {
        --lists;
        for (struct if_nameindex const* row = list; row->if_index != 0; ++row) {
            free(row->if_name);
        }
        free(list);
    }

    /// Records a query. Returns the code that it must fail with, or 0.
    int query(addrinfo const& hints) {
        queries.push_back(hints);
        auto const answer = answers.find(queries.size());
        return answer == answers.end() ? 0 : answer->second;
    }

    std::vector<std::string> names;
    int flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
    std::map<Request, ifreq> replies;
    std::map<Request, int> errors; ///< The requests that fail, and their numbers.
    std::vector<ifreq> calls;      ///< The arguments of all requests.
    Calls requests;
    int lists = 0; ///< The number of lists of all interfaces that are not freed.
    int list_requests = 0;
    std::vector<int> sockets;      ///< Family, type and protocol of each.
    std::vector<addrinfo> queries; ///< The hints of each query of the resolver.
    std::map<size_t, int> answers; ///< The queries that fail, counted from 1, and their codes.
};

} // namespace

support::Injected inject_ioctl("ioctl");
extern "C" VESK_UNWATCHED int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const data = va_arg(arguments, void*);
    va_end(arguments);
    using Real = int (*)(int, unsigned long, ...);
    return s_system != nullptr ? s_system->answer(request, *static_cast<ifreq*>(data))
                               : reinterpret_cast<Real>(inject_ioctl.getReal())(fd, request, data);
}

support::Injected inject_if_freenameindex("if_freenameindex");
extern "C" VESK_UNWATCHED void if_freenameindex(struct if_nameindex* list) {
    using Real = void (*)(struct if_nameindex*);
    s_system != nullptr ? s_system->freeList(list)
                        : reinterpret_cast<Real>(inject_if_freenameindex.getReal())(list);
}

VESK_ANSWER(
    unsigned int, 0, if_nametoindex, (char const* name), (name), if (s_system != nullptr) { return 7; })
VESK_ANSWER(
    struct if_nameindex*, nullptr, if_nameindex, (), (),
    if (s_system != nullptr) { return s_system->makeList(); })
VESK_ANSWER(
    int, -1, socket, (int family, int type, int protocol), (family, type, protocol),
    if (s_system != nullptr) {
        s_system->sockets.insert(s_system->sockets.end(), {family, type, protocol});
    })
VESK_ANSWER(
    int, EAI_SYSTEM, getaddrinfo,
    (char const* name, char const* service, addrinfo const* hints, addrinfo** result),
    (name, service, hints, result),
    if (int const code = s_system != nullptr ? s_system->query(*hints) : 0) { return code; })

namespace {

using namespace support;
using vesk::NetDevice;
namespace CommonErrorId = std::CommonErrorId;
namespace SysErrorId = vesk::SysErrorId;
using Info = NetDevice::InterfaceInfo;

constexpr Request QUESTIONS[] = {SIOCGIFFLAGS, SIOCGIFMTU,     SIOCGIFHWADDR,
                                 SIOCGIFADDR,  SIOCGIFNETMASK, SIOCGIFBRDADDR};

/// Returns the content of an info, one text for each question.
std::vector<std::string> partsOf(Info const& info) {
    auto const number = [](auto value) { return " " + std::to_string(value); };
    std::string hardware = number(info.has_hardware_address);
    for (unsigned char const byte : info.hardware_address) {
        hardware += number(byte);
    }
    return {
        info.name + number(info.type) + number(info.flags) + number(info.up) + number(info.running) +
            number(info.promiscuous) + number(info.multicast) + number(info.broadcast),
        number(info.mtu),
        hardware,
        info.address.host + number(info.address.port) + number(info.has_address),
        info.netmask.host + number(info.netmask.port) + number(info.has_netmask),
        info.broadcast_address.host + number(info.broadcast_address.port) +
            number(info.has_broadcast_address)};
}

/// Expects the content of an info about the first interface after answers to these questions.
void expectInfo(Info const& info, std::set<int> const& answered) {
    std::vector<std::string> const all = {"first 2 4163 1 1 0 1 1", " 1400",
                                          " 1 2 26 43 60 77 255",   "192.0.2.7 0 1",
                                          "255.255.255.0 0 1",      "192.0.2.255 0 1"};
    std::vector<std::string> expected = partsOf(Info());
    for (int const question : answered) {
        expected[static_cast<size_t>(question)] = all[static_cast<size_t>(question)];
    }
    EXPECT_EQ(expected, partsOf(info));
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

/// Expects that the next interface of the walk is "second", and that the walk ends behind it.
void expectSecondIsLast(NetDevice& devices) {
    Info info;
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("second", info.name);
    EXPECT_EQ(1, devices.getNextInfo(info));
}

TEST(NetDeviceFailure, makesOneSocketForItsQuestions) {
    FakeSystem const system;
    {
        NetDevice const device("first");
        EXPECT_EQ((std::vector<int>{AF_INET, SOCK_DGRAM, 0}), system.sockets);
        EXPECT_EQ(0, system.list_requests);
    }
    NetDevice const devices(nullptr);
    EXPECT_EQ((std::vector<int>{AF_INET, SOCK_DGRAM, 0, AF_INET, SOCK_DGRAM, 0}), system.sockets);
    EXPECT_EQ(1, system.list_requests);
    EXPECT_EQ(1, system.lists);
    EXPECT_TRUE(system.calls.empty());
}

TEST(NetDeviceFailure, copiesItsName) {
    FakeSystem const system;
    NewFault const fault(New::NOTHROW_ARRAY, 1, 0);
    NetDevice const device("first");
    EXPECT_EQ((std::vector<size_t>{2 * sizeof(struct if_nameindex), 17}), fault.getSizes());
}

void expectUseless(NetDevice& device, FakeSystem const& system) {
    EXPECT_FALSE(device.isValid());
    for (int i = 0; i < 2; ++i) {
        Info info = makeFull();
        EXPECT_EQ(-1, device.getNextInfo(info));
        EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT));
        expectInfo(info, {});
        expectSettersFail(device, CommonErrorId::CONTRACT_BROKEN, INVALID_OBJECT);
    }
    EXPECT_TRUE(system.calls.empty());
    EXPECT_TRUE(system.queries.empty());
}

struct ConstructionRow {
    char const* name;
    support::Injected& function;
    char const* device;
    SysErrorId::Id id;

    friend void PrintTo(ConstructionRow const& row, std::ostream* out) { *out << row.name; }
};

class FailedConstruction : public testing::TestWithParam<ConstructionRow> {};

TEST_P(FailedConstruction, makesAUselessObject) {
    for (int const error :
         {EMFILE, ENFILE, EACCES, EPERM, ENOMEM, ENOBUFS, ENODEV, EAFNOSUPPORT, EPROTONOSUPPORT, EINVAL,
          EINTR}) {
        FakeSystem const system;
        Fault const fault(GetParam().function, error);
        NetDevice device(GetParam().device);
        EXPECT_TRUE(causeIs(GetParam().id, error));
        EXPECT_EQ(0, system.list_requests);
        expectUseless(device, system);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Without, FailedConstruction,
    testing::Values(
        ConstructionRow{"aSocketForOne", inject_socket, "first", SysErrorId::UNCLASSIFIED},
        ConstructionRow{"aSocketForAll", inject_socket, nullptr, SysErrorId::UNCLASSIFIED},
        ConstructionRow{"aListOfTheSystem", inject_if_nameindex, nullptr, SysErrorId::OUT_OF_MEMORY},
        ConstructionRow{"anIndexForItsName", inject_if_nametoindex, "first", SysErrorId::NO_DEVICE}),
    [](auto const& row) { return std::string(row.param.name); });

TEST(NetDeviceFailure, isUselessWithoutMemoryForItsList) {
    for (int const nth : {1, 2}) {
        FakeSystem const system;
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        NetDevice device("first");
        EXPECT_TRUE(isPending(CommonErrorId::OUT_OF_MEMORY, ""));
        expectUseless(device, system);
    }
}

TEST(NetDeviceFailure, makesItsRequestsInThisOrder) {
    FakeSystem const system;
    NetDevice devices(nullptr);
    Info info = makeFull();
    ASSERT_EQ(0, devices.getNextInfo(info));
    expectInfo(info, {0, 1, 2, 3, 4, 5});
    expectSecondIsLast(devices);
    Calls expected;
    for (char const* const name : {"first", "second"}) {
        for (Request const question : QUESTIONS) {
            expected.emplace_back(question, name);
        }
    }
    EXPECT_EQ(expected, system.requests);
}

TEST(NetDeviceFailure, requestsNoBroadcastAddressWithoutBroadcast) {
    FakeSystem system;
    system.flags = IFF_UP | IFF_POINTOPOINT;
    NetDevice devices(nullptr);
    Info info = makeFull();
    ASSERT_EQ(0, devices.getNextInfo(info));
    ASSERT_EQ(5U, system.requests.size());
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(Calls::value_type(QUESTIONS[i], "first"), system.requests[i]);
    }
    EXPECT_FALSE(info.has_broadcast_address);
    EXPECT_EQ("", info.broadcast_address.host);
}

/// The questions that are answered before one fails.
class FailedQuestion : public testing::TestWithParam<std::set<int>> {
protected:
    void expectEach(std::function<void(FakeSystem&, NetDevice&, int error)> const& expect) const {
        for (int const error :
             {EPERM, EACCES, ENODEV, ENXIO, ENOTTY, EBADF, EFAULT, EINVAL, ENOMEM, EINTR, EIO,
              EADDRNOTAVAIL}) {
            // To a question about an address, this is an answer.
            if (error == EADDRNOTAVAIL && GetParam().size() > 2) {
                continue;
            }
            SCOPED_TRACE(strerror(error));
            FakeSystem system;
            system.errors[QUESTIONS[GetParam().size()]] = error;
            NetDevice devices(nullptr);
            expect(system, devices, error);
        }
    }
};

TEST_P(FailedQuestion, endsTheCallAndNotTheWalk) {
    expectEach([](FakeSystem& system, NetDevice& devices, int error) {
        Info info = makeFull();
        EXPECT_EQ(-1, devices.getNextInfo(info));
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
        expectInfo(info, GetParam());
        EXPECT_EQ(GetParam().size() + 1, system.calls.size());
        system.errors.clear();
        expectSecondIsLast(devices);
    });
}

TEST_P(FailedQuestion, isFollowedByTheNextInterfaceEvenIfThatFails) {
    expectEach([](FakeSystem& system, NetDevice& devices, int error) {
        Info info;
        for (char const* const name : {"first", "second"}) {
            EXPECT_EQ(-1, devices.getNextInfo(info));
            EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
            EXPECT_EQ(name, system.requests.back().second);
        }
        EXPECT_EQ(1, devices.getNextInfo(info));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_P(FailedQuestion, leavesTheSettersOnTheInterfaceThatFailed) {
    expectEach([](FakeSystem& system, NetDevice& devices, int) {
        Info info;
        EXPECT_EQ(-1, devices.getNextInfo(info));
        EXPECT_EQ(-1, devices.getNextInfo(info));
        std::ErrorStorage::ack();
        EXPECT_FALSE(devices.setAddress("192.0.2.8"));
        EXPECT_EQ(Calls::value_type(SIOCSIFADDR, "second"), system.requests.back());
    });
}

using Answered = std::set<int>;
INSTANTIATE_TEST_SUITE_P(
    Questions, FailedQuestion,
    testing::Values(
        Answered{}, Answered{0}, Answered{0, 1}, Answered{0, 1, 2}, Answered{0, 1, 2, 3},
        Answered{0, 1, 2, 3, 4}));

/// The questions that have an answer.
class MissingAddress : public testing::TestWithParam<Answered> {};

TEST_P(MissingAddress, isNoFailure) {
    FakeSystem system;
    for (int question = 0; question < 6; ++question) {
        if (GetParam().count(question) == 0) {
            system.errors[QUESTIONS[question]] = EADDRNOTAVAIL;
        }
    }
    NetDevice device("first");
    Info info = makeFull();
    EXPECT_EQ(0, device.getNextInfo(info));
    EXPECT_TRUE(chainIs({}));
    expectInfo(info, GetParam());
    EXPECT_EQ(6U, system.calls.size());
}

INSTANTIATE_TEST_SUITE_P(
    Questions, MissingAddress,
    testing::Values(
        Answered{0, 1, 2, 4, 5}, Answered{0, 1, 2, 3, 5}, Answered{0, 1, 2, 3, 4}, Answered{0, 1, 2}));

struct FlagsRow {
    int flags;
    std::string meaning; ///< Those of "URPMB" that are set: up, running, promiscuous, multicast, broadcast.
    int type;

    friend void PrintTo(FlagsRow const& row, std::ostream* out) { *out << std::hex << row.flags; }
};

class Flags : public testing::TestWithParam<FlagsRow> {};

TEST_P(Flags, areReportedOneByOneAndUnchanged) {
    FakeSystem system;
    system.flags = GetParam().flags;
    NetDevice device("first");
    Info info = makeFull();
    ASSERT_EQ(0, device.getNextInfo(info));
    std::string meaning;
    meaning += info.up ? "U" : "";
    meaning += info.running ? "R" : "";
    meaning += info.promiscuous ? "P" : "";
    meaning += info.multicast ? "M" : "";
    meaning += info.broadcast ? "B" : "";
    EXPECT_EQ(GetParam().meaning, meaning);
    EXPECT_EQ(GetParam().type, info.type);
    EXPECT_EQ(static_cast<uint32_t>(GetParam().flags), info.flags);
}

INSTANTIATE_TEST_SUITE_P(
    Words, Flags,
    testing::Values(
        FlagsRow{0, "", Info::OTHER}, FlagsRow{IFF_UP, "U", Info::OTHER},
        FlagsRow{IFF_BROADCAST, "B", Info::OTHER}, FlagsRow{IFF_DEBUG, "", Info::OTHER},
        FlagsRow{IFF_LOOPBACK, "", Info::LOOPBACK}, FlagsRow{IFF_POINTOPOINT, "", Info::POINT_TO_POINT},
        FlagsRow{IFF_LOOPBACK | IFF_POINTOPOINT, "", Info::POINT_TO_POINT},
        FlagsRow{IFF_RUNNING, "R", Info::OTHER}, FlagsRow{IFF_NOARP, "", Info::OTHER},
        FlagsRow{IFF_PROMISC, "P", Info::OTHER}, FlagsRow{IFF_ALLMULTI, "", Info::OTHER},
        FlagsRow{IFF_MULTICAST, "M", Info::OTHER}, FlagsRow{IFF_DYNAMIC, "", Info::OTHER},
        FlagsRow{IFF_UP | IFF_LOOPBACK | IFF_RUNNING, "UR", Info::LOOPBACK},
        FlagsRow{0xffff, "URPMB", Info::POINT_TO_POINT}));

class HardwareType : public testing::TestWithParam<unsigned short> {};

TEST_P(HardwareType, hasAHardwareAddressOnlyIfItIsEthernet) {
    FakeSystem system;
    system.replies[SIOCGIFHWADDR].ifr_hwaddr.sa_family = GetParam();
    NetDevice device("first");
    Info info = makeFull();
    ASSERT_EQ(0, device.getNextInfo(info));
    EXPECT_EQ(GetParam() == 1, info.has_hardware_address);
    if (info.has_hardware_address) {
        EXPECT_EQ(0, memcmp("\x02\x1a\x2b\x3c\x4d\xff", info.hardware_address, 6));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Types, HardwareType,
    testing::Values(
        0, ARPHRD_ETHER, ARPHRD_EETHER, 257, ARPHRD_PPP, ARPHRD_LOOPBACK, ARPHRD_IEEE80211, ARPHRD_TUNNEL,
        0xfffe, 0xffff));

class NameLength : public testing::TestWithParam<size_t> {};

TEST_P(NameLength, isCutToTheLimitOfTheSystem) {
    std::string name;
    while (name.size() < GetParam()) {
        name += static_cast<char>('a' + name.size() % 26);
    }
    for (bool const single : {true, false}) {
        FakeSystem system({name});
        NetDevice device(single ? name.c_str() : nullptr);
        Info info;
        ASSERT_EQ(0, device.getNextInfo(info));
        EXPECT_EQ(name.substr(0, 15), info.name);
        EXPECT_FALSE(device.setAddress("192.0.2.7"));
        EXPECT_FALSE(device.setPromiscuous(true));
        EXPECT_EQ(9U, system.calls.size());
        for (ifreq const& call : system.calls) {
            EXPECT_EQ(name.substr(0, 15), call.ifr_name);
            EXPECT_EQ('\0', call.ifr_name[15]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, NameLength, testing::Values(1, 14, 15, 16, 17, 300));

TEST(NetDeviceFailure, clearsTheRestOfItsRequests) {
    FakeSystem const system;
    NetDevice device("first");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    ifreq expected{};
    strcpy(expected.ifr_name, "first");
    EXPECT_EQ(0, memcmp(&expected, &system.calls[0], sizeof expected));
}

TEST(NetDeviceFailure, isAtTheEndAtOnceWithoutInterfaces) {
    FakeSystem const system(std::vector<std::string>{});
    NetDevice devices(nullptr);
    ASSERT_TRUE(devices.isValid());
    Info info;
    for (int i = 0; i < 3; ++i) {
        expectSettersFail(devices, CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE);
        EXPECT_EQ(1, devices.getNextInfo(info));
    }
    expectSettersFail(devices, CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE);
    EXPECT_TRUE(system.calls.empty());
}

class EverySetter : public testing::TestWithParam<Setter> {
protected:
    Calls makeCalls(char const* interface, int times = 1) const {
        Calls calls;
        for (int i = 0; i < times; ++i) {
            for (Request const request : GetParam().requests) {
                calls.emplace_back(request, interface);
            }
        }
        return calls;
    }
};

TEST_P(EverySetter, reportsTheCause) {
    std::pair<SysErrorId::Id, std::vector<int>> const rows[] = {
        {SysErrorId::PERMISSION_DENIED, {EPERM, EACCES}},
        {SysErrorId::UNCLASSIFIED,
         {ENODEV, EADDRNOTAVAIL, EINVAL, EEXIST, ENOMEM, EBUSY, EIO, ENOTTY, EBADF, EINTR, ENXIO, EFAULT}}};
    for (size_t i = 0; i < GetParam().requests.size(); ++i) {
        for (auto const& [id, errors] : rows) {
            for (int const error : errors) {
                FakeSystem system;
                system.errors[GetParam().requests[i]] = error;
                NetDevice device("first");
                EXPECT_TRUE(GetParam().call(device));
                EXPECT_TRUE(causeIs(id, error));
                EXPECT_EQ(i + 1, system.calls.size());
            }
        }
    }
}

TEST_P(EverySetter, movesToTheFirstInterfaceBeforeTheWalk) {
    FakeSystem const system;
    NetDevice devices(nullptr);
    EXPECT_FALSE(GetParam().call(devices));
    EXPECT_EQ(makeCalls("first"), system.requests);
    expectSecondIsLast(devices);
}

TEST_P(EverySetter, leavesNothingToWalkBehindASingleInterface) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(GetParam().call(device));
    EXPECT_FALSE(GetParam().call(device));
    Info info;
    EXPECT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(chainIs({}));
}

TEST_P(EverySetter, movesToTheFirstInterfaceEvenIfTheSystemRefuses) {
    FakeSystem system;
    system.errors[GetParam().requests.back()] = EPERM;
    NetDevice devices(nullptr);
    EXPECT_TRUE(GetParam().call(devices));
    std::ErrorStorage::ack();
    system.errors.clear();
    expectSecondIsLast(devices);
}

TEST_P(EverySetter, setsTheCurrentInterfaceOfTheWalk) {
    FakeSystem system;
    NetDevice devices(nullptr);
    Info info;
    for (char const* const name : {"first", "second"}) {
        ASSERT_EQ(0, devices.getNextInfo(info));
        system.requests.clear();
        EXPECT_FALSE(GetParam().call(devices));
        EXPECT_FALSE(GetParam().call(devices));
        EXPECT_EQ(makeCalls(name, 2), system.requests);
    }
    ASSERT_EQ(1, devices.getNextInfo(info));
    system.requests.clear();
    EXPECT_TRUE(GetParam().call(devices));
    EXPECT_TRUE(isPending(CommonErrorId::CONTRACT_BROKEN, NO_INTERFACE));
    EXPECT_TRUE(system.requests.empty());
}

INSTANTIATE_TEST_SUITE_P(Setters, EverySetter, testing::ValuesIn(SETTERS), [](auto const& row) {
    return std::string(row.param.name);
});

struct ChangeRow {
    int before;
    bool (NetDevice::*set)(bool on);
    bool on;
    int after;
};

std::ostream& operator<<(std::ostream& stream, ChangeRow const& row) {
    return stream << std::hex << row.before << (row.on ? " on " : " off ") << row.after;
}

class Change : public testing::TestWithParam<ChangeRow> {};

TEST_P(Change, affectsOneFlag) {
    FakeSystem system;
    system.flags = GetParam().before;
    NetDevice device("first");
    EXPECT_FALSE((device.*GetParam().set)(GetParam().on));
    ASSERT_EQ(2U, system.calls.size());
    EXPECT_EQ(GetParam().after, system.calls[1].ifr_flags & 0xffff);
}

constexpr auto STATUS = &NetDevice::setInterfaceStatus;
constexpr auto PROMISCUOUS = &NetDevice::setPromiscuous;

INSTANTIATE_TEST_SUITE_P(
    Flags, Change,
    testing::Values(
        ChangeRow{0, STATUS, true, IFF_UP}, ChangeRow{0, STATUS, false, 0},
        ChangeRow{IFF_UP, STATUS, true, IFF_UP}, ChangeRow{IFF_UP, STATUS, false, 0},
        ChangeRow{0xfffe, STATUS, true, 0xffff}, ChangeRow{0xffff, STATUS, false, 0xfffe},
        ChangeRow{0, PROMISCUOUS, true, IFF_PROMISC}, ChangeRow{0, PROMISCUOUS, false, 0},
        ChangeRow{IFF_PROMISC, PROMISCUOUS, true, IFF_PROMISC}, ChangeRow{IFF_PROMISC, PROMISCUOUS, false, 0},
        ChangeRow{0xfeff, PROMISCUOUS, true, 0xffff}, ChangeRow{0xffff, PROMISCUOUS, false, 0xfeff}));

class AddressText : public testing::TestWithParam<std::pair<char const*, char const*>> {};

TEST_P(AddressText, becomesTheAddressOfTheRequest) {
    auto const& [text, address] = GetParam();
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress(text));
    EXPECT_FALSE(device.setNetmask(text));
    ASSERT_EQ(2U, system.calls.size());
    for (ifreq const& call : system.calls) {
        EXPECT_EQ(address, textOf(call.ifr_addr));
        EXPECT_EQ(0, call.ifr_addr.sa_data[0] | call.ifr_addr.sa_data[1]) << "the port";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AddressText,
    testing::Values(
        std::pair("192.0.2.8", "192.0.2.8"), std::pair("0.0.0.0", "0.0.0.0"),
        std::pair("255.255.255.255", "255.255.255.255"), std::pair("127.1", "127.0.0.1"),
        std::pair("", "0.0.0.0"), std::pair(nullptr, "0.0.0.0")));

TEST(NetDeviceFailure, firstAsksTheResolverIfATextIsNumeric) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("192.0.2.8"));
    ASSERT_EQ(2U, system.queries.size());
    addrinfo const& hints = system.queries[0];
    EXPECT_EQ(AI_NUMERICHOST, hints.ai_flags);
    EXPECT_EQ(SOCK_DGRAM, hints.ai_socktype);
    EXPECT_EQ(AF_UNSPEC, hints.ai_family);
    EXPECT_EQ(0, hints.ai_protocol);
    EXPECT_EQ(AF_INET, system.queries[1].ai_family);
    EXPECT_FALSE(device.setAddress(""));
    EXPECT_FALSE(device.setNetmask(nullptr));
    EXPECT_EQ(2U, system.queries.size());
}

TEST(NetDeviceFailure, resolvesANameOnceAndItsResultOnceMore) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("localhost"));
    EXPECT_EQ(3U, system.queries.size());
    EXPECT_EQ("127.0.0.1", textOf(system.calls.back().ifr_addr));
}

TEST(NetDeviceFailure, rejectsAnIPv6Address) {
    for (char const* const text : {"::1", "fe80::1", "2001:db8::1"}) {
        FakeSystem const system;
        NetDevice device("first");
        EXPECT_TRUE(device.setAddress(text));
        EXPECT_TRUE(isUnresolved());
        EXPECT_TRUE(device.setNetmask(text));
        EXPECT_TRUE(isUnresolved());
        EXPECT_TRUE(system.calls.empty());
        // It is numeric, so the cursor had moved before.
        Info info;
        EXPECT_EQ(1, device.getNextInfo(info));
    }
}

struct ResolverRow {
    int code;
    ExpectedReport report;

    friend void PrintTo(ResolverRow const& row, std::ostream* out) { *out << gai_strerror(row.code); }
};

class ResolverCode : public testing::TestWithParam<ResolverRow> {};

TEST_P(ResolverCode, ofANameFailsBeforeTheCursorMoves) {
    FakeSystem system;
    // The query for a numeric text may fail in any way.
    system.answers = {{1, EAI_MEMORY}, {2, GetParam().code}, {4, EAI_SYSTEM}, {5, GetParam().code}};
    NetDevice device("first");
    EXPECT_TRUE(device.setAddress("some.name"));
    EXPECT_TRUE(chainIs({GetParam().report}));
    EXPECT_EQ(2U, system.queries.size());
    system.queries.resize(3);
    EXPECT_TRUE(device.setNetmask("some.name"));
    EXPECT_TRUE(chainIs({GetParam().report}));
    EXPECT_EQ(5U, system.queries.size());
    EXPECT_TRUE(system.calls.empty());
    Info info;
    EXPECT_EQ(0, device.getNextInfo(info));
}

TEST_P(ResolverCode, ofANumericTextFailsAfterTheCursorHasMoved) {
    FakeSystem system;
    system.answers = {{2, GetParam().code}};
    NetDevice device("first");
    EXPECT_TRUE(device.setAddress("192.0.2.8"));
    EXPECT_TRUE(chainIs({GetParam().report}));
    EXPECT_TRUE(system.calls.empty());
    Info info;
    EXPECT_EQ(1, device.getNextInfo(info));
}

template <typename Id>
ResolverRow row(int code, Id id) {
    return {code, {id, rowText(id, gai_strerror(code))}};
}
ResolverRow unresolved(int code) {
    CommonErrorId::Id const id = CommonErrorId::INVALID_ARGUMENT;
    return {code, {id, rowText(id, "Couldn't resolve hostname")}};
}

INSTANTIATE_TEST_SUITE_P(
    Codes, ResolverCode,
    testing::Values(
        unresolved(EAI_NONAME), unresolved(EAI_NODATA), unresolved(EAI_ADDRFAMILY),
        row(EAI_AGAIN, vesk::Socket::ErrorId::RESOLVE_FAILED),
        row(EAI_FAIL, vesk::Socket::ErrorId::RESOLVE_FAILED), row(EAI_MEMORY, SysErrorId::OUT_OF_MEMORY),
        row(EAI_FAMILY, SysErrorId::UNCLASSIFIED)));

TEST(NetDeviceFailure, resolvesANameBeforeItLooksForAnInterface) {
    FakeSystem system;
    system.answers = {{1, EAI_NONAME}, {2, EAI_NONAME}};
    NetDevice device("first");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    ASSERT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(device.setAddress("some.name"));
    EXPECT_TRUE(isUnresolved());
}

} // namespace
