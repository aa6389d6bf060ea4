#include "support/Chain.h"
#include "support/Inject.h"
#include "support/NewFault.h"

#include <vesk/NetDevice.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <ostream>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

class FakeSystem;
FakeSystem* s_system = nullptr;

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

/// While it lives, the system has these interfaces, all alike, and answers as it is told.
class FakeSystem {
public:
    struct Call {
        unsigned long request;
        ifreq data; ///< As it came.
    };

    explicit FakeSystem(std::vector<std::string> interface_names = {"first", "second"})
        : names(std::move(interface_names)) {
        s_system = this;
    }
    ~FakeSystem() {
        s_system = nullptr;
        EXPECT_EQ(0, lists) << "a list was not given back";
    }

    FakeSystem(FakeSystem const&) = delete;
    FakeSystem& operator=(FakeSystem const&) = delete;

    int answer(unsigned long request, ifreq& data) {
        calls.push_back({request, data});
        auto const error = errors.find(request);
        if (error != errors.end()) {
            errno = error->second;
            return -1;
        }
        switch (request) {
        case SIOCGIFFLAGS:
            // As the kernel does: only the half that it knows.
            data.ifr_flags = static_cast<short>(flags);
            break;
        case SIOCGIFMTU:
            data.ifr_mtu = mtu;
            break;
        case SIOCGIFHWADDR:
            data.ifr_hwaddr = {};
            data.ifr_hwaddr.sa_family = hardware_type;
            memcpy(data.ifr_hwaddr.sa_data, "\x02\x1a\x2b\x3c\x4d\xff\x66\x77", 8);
            break;
        case SIOCGIFADDR:
            data.ifr_addr = makeAddress("192.0.2.7");
            break;
        case SIOCGIFNETMASK:
            data.ifr_netmask = makeAddress("255.255.255.0");
            break;
        case SIOCGIFBRDADDR:
            data.ifr_broadaddr = makeAddress("192.0.2.255");
            break;
        case SIOCSIFADDR:
        case SIOCSIFNETMASK:
        case SIOCSIFFLAGS:
            break;
        default:
            ADD_FAILURE() << "request " << request;
        }
        return 0;
    }

    std::vector<std::pair<unsigned long, std::string>> getCalls() const {
        std::vector<std::pair<unsigned long, std::string>> result;
        for (Call const& call : calls) {
            result.emplace_back(call.request, call.data.ifr_name);
        }
        return result;
    }

    std::vector<std::string> names;
    int flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
    int mtu = 1400;
    unsigned short hardware_type = ARPHRD_ETHER;
    std::map<unsigned long, int> errors; ///< Which requests fail, and with what.
    std::vector<Call> calls;
    int lists = 0;                            ///< How many lists of all interfaces there are.
    int list_requests = 0;                    ///< How often there was one.
    std::vector<int> sockets;                 ///< Family, type and protocol of each.
    std::vector<addrinfo> questions;          ///< The hints of each question to the resolver.
    std::vector<std::pair<int, int>> answers; ///< Which of them fail, counted from 1, and with what.
};

using RealIoctl = int (*)(int, unsigned long, ...);

} // namespace

support::Injected inject_ioctl("ioctl");
extern "C" VESK_UNWATCHED int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const data = va_arg(arguments, void*);
    va_end(arguments);
    return s_system != nullptr ? s_system->answer(request, *static_cast<ifreq*>(data))
                               : reinterpret_cast<RealIoctl>(inject_ioctl.getReal())(fd, request, data);
}

support::Injected inject_if_nametoindex("if_nametoindex");
extern "C" VESK_UNWATCHED unsigned int if_nametoindex(char const* name) {
    int error = 0;
    if (inject_if_nametoindex.fails(error)) {
        errno = error;
        return 0;
    }
    return s_system != nullptr
        ? 7
        : reinterpret_cast<unsigned int (*)(char const*)>(inject_if_nametoindex.getReal())(name);
}

support::Injected inject_if_nameindex("if_nameindex");
extern "C" VESK_UNWATCHED struct if_nameindex* if_nameindex() {
    int error = 0;
    if (s_system != nullptr) {
        ++s_system->list_requests;
    }
    if (inject_if_nameindex.fails(error)) {
        errno = error;
        return nullptr;
    }
    if (s_system == nullptr) {
        return reinterpret_cast<struct if_nameindex* (*)()>(inject_if_nameindex.getReal())();
    }
    ++s_system->lists;
    auto* const list =
        static_cast<struct if_nameindex*>(calloc(s_system->names.size() + 1, sizeof(struct if_nameindex)));
    unsigned int index = 0;
    for (std::string const& name : s_system->names) {
        list[index].if_name = strdup(name.c_str());
        list[index].if_index = index + 1;
        ++index;
    }
    return list;
}

support::Injected inject_if_freenameindex("if_freenameindex");
extern "C" VESK_UNWATCHED void if_freenameindex(struct if_nameindex* list) {
    if (s_system == nullptr) {
        reinterpret_cast<void (*)(struct if_nameindex*)>(inject_if_freenameindex.getReal())(list);
        return;
    }
    --s_system->lists;
    for (struct if_nameindex const* row = list; row->if_index != 0; ++row) {
        free(row->if_name);
    }
    free(list);
}

support::Injected inject_socket("socket");
extern "C" VESK_UNWATCHED int socket(int family, int type, int protocol) {
    if (s_system != nullptr) {
        s_system->sockets.insert(s_system->sockets.end(), {family, type, protocol});
    }
    int error = 0;
    if (inject_socket.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, int)>(inject_socket.getReal())(family, type, protocol);
}

support::Injected inject_getaddrinfo("getaddrinfo");
extern "C" VESK_UNWATCHED int
getaddrinfo(char const* name, char const* service, addrinfo const* hints, addrinfo** result) {
    if (s_system != nullptr) {
        s_system->questions.push_back(*hints);
        for (auto const& [question, code] : s_system->answers) {
            if (question == static_cast<int>(s_system->questions.size())) {
                return code;
            }
        }
    }
    return reinterpret_cast<int (*)(char const*, char const*, addrinfo const*, addrinfo**)>(
        inject_getaddrinfo.getReal())(name, service, hints, result);
}

namespace {

using support::chainIs;
using support::Fault;
using support::New;
using support::NewFault;
using support::rowText;
using support::systemText;
using vesk::NetDevice;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using Info = NetDevice::InterfaceInfo;
using Calls = std::vector<std::pair<unsigned long, std::string>>;

testing::AssertionResult isPending(std::ErrorType const& family, int id, std::string const& argument) {
    return chainIs({{family, id, rowText(family, id, argument)}});
}

testing::AssertionResult isPending(std::ErrorType const& family, int id, int error) {
    return isPending(family, id, systemText(error));
}

std::string textOf(Info const& info) {
    std::string text = info.name + " " + info.address.host + ":" + std::to_string(info.address.port) + " " +
        info.netmask.host + ":" + std::to_string(info.netmask.port) + " " + info.broadcast_address.host +
        ":" + std::to_string(info.broadcast_address.port) + " ";
    for (unsigned char const byte : info.hardware_address) {
        text += std::to_string(byte) + ".";
    }
    for (bool const flag :
         {info.has_broadcast_address, info.has_address, info.has_netmask, info.has_hardware_address, info.up,
          info.running, info.promiscuous, info.multicast, info.broadcast}) {
        text += flag ? " 1" : " 0";
    }
    for (long long const number :
         {static_cast<long long>(info.mtu), static_cast<long long>(info.type),
          static_cast<long long>(info.flags)}) {
        text += " " + std::to_string(number);
    }
    return text;
}

// What an info held before must not matter.
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

constexpr unsigned long QUESTIONS[] = {SIOCGIFFLAGS, SIOCGIFMTU,     SIOCGIFHWADDR,
                                       SIOCGIFADDR,  SIOCGIFNETMASK, SIOCGIFBRDADDR};

/// What is known of the first interface when these of the questions were answered.
Info makeInfo(std::vector<unsigned long> const& answered) {
    Info info;
    for (unsigned long const question : answered) {
        switch (question) {
        case SIOCGIFFLAGS:
            info.name = "first";
            info.up = info.running = info.broadcast = info.multicast = true;
            info.flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
            break;
        case SIOCGIFMTU:
            info.mtu = 1400;
            break;
        case SIOCGIFHWADDR:
            info.has_hardware_address = true;
            memcpy(info.hardware_address, "\x02\x1a\x2b\x3c\x4d\xff", 6);
            break;
        case SIOCGIFADDR:
            info.has_address = true;
            info.address = {"192.0.2.7", 0};
            break;
        case SIOCGIFNETMASK:
            info.has_netmask = true;
            info.netmask = {"255.255.255.0", 0};
            break;
        default:
            info.has_broadcast_address = true;
            info.broadcast_address = {"192.0.2.255", 0};
        }
    }
    return info;
}

// ---- making one ----

TEST(NetDeviceFailure, MakesOneSocketForItsQuestions) {
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

TEST(NetDeviceFailure, CopiesANameOfItsOwn) {
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
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "invalid object"));
        EXPECT_EQ(textOf(Info()), textOf(info));
        EXPECT_TRUE(device.setAddress("192.0.2.7"));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "invalid object"));
        EXPECT_TRUE(device.setNetmask("255.0.0.0"));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "invalid object"));
        EXPECT_TRUE(device.setInterfaceStatus(true));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "invalid object"));
        EXPECT_TRUE(device.setPromiscuous(true));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "invalid object"));
    }
    EXPECT_TRUE(system.calls.empty());
    EXPECT_TRUE(system.questions.empty());
}

constexpr int ERRORS[] = {EMFILE, ENFILE,       EACCES,          EPERM,  ENOMEM, ENOBUFS,
                          ENODEV, EAFNOSUPPORT, EPROTONOSUPPORT, EINVAL, EINTR};

TEST(NetDeviceFailure, IsUselessWithoutASocket) {
    for (int const error : ERRORS) {
        for (char const* const name : {"first", static_cast<char const*>(nullptr)}) {
            FakeSystem const system;
            Fault const fault(inject_socket, error);
            NetDevice device(name);
            EXPECT_TRUE(isPending(SysError, SysErrorId::UNCLASSIFIED, error));
            EXPECT_EQ(0, system.list_requests);
            expectUseless(device, system);
        }
    }
}

TEST(NetDeviceFailure, IsUselessWithoutAListOfTheSystem) {
    for (int const error : ERRORS) {
        FakeSystem const system;
        Fault const fault(inject_if_nameindex, error);
        NetDevice device(nullptr);
        EXPECT_TRUE(isPending(SysError, SysErrorId::OUT_OF_MEMORY, error));
        expectUseless(device, system);
    }
}

TEST(NetDeviceFailure, IsUselessWithoutAnIndexForItsName) {
    for (int const error : ERRORS) {
        FakeSystem const system;
        Fault const fault(inject_if_nametoindex, error);
        NetDevice device("first");
        EXPECT_TRUE(isPending(SysError, SysErrorId::NO_DEVICE, error));
        EXPECT_EQ(0, system.list_requests);
        expectUseless(device, system);
    }
}

TEST(NetDeviceFailure, IsUselessWithoutMemoryForItsList) {
    for (int const nth : {1, 2}) {
        FakeSystem const system;
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        NetDevice device("first");
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::OUT_OF_MEMORY, ""));
        expectUseless(device, system);
    }
}

// ---- asking ----

TEST(NetDeviceFailure, AsksInItsOrder) {
    FakeSystem const system;
    NetDevice devices(nullptr);
    Info info = makeFull();
    ASSERT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ(textOf(makeInfo({std::begin(QUESTIONS), std::end(QUESTIONS)})), textOf(info));
    ASSERT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("second", info.name);
    EXPECT_EQ(1, devices.getNextInfo(info));
    Calls expected;
    for (char const* const name : {"first", "second"}) {
        for (unsigned long const question : QUESTIONS) {
            expected.emplace_back(question, name);
        }
    }
    EXPECT_EQ(expected, system.getCalls());
}

TEST(NetDeviceFailure, DoesNotAskForABroadcastAddressWithoutBroadcast) {
    FakeSystem system;
    system.flags = IFF_UP | IFF_POINTOPOINT;
    NetDevice devices(nullptr);
    Info info = makeFull();
    ASSERT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ(
        (Calls{
            {SIOCGIFFLAGS, "first"},
            {SIOCGIFMTU, "first"},
            {SIOCGIFHWADDR, "first"},
            {SIOCGIFADDR, "first"},
            {SIOCGIFNETMASK, "first"}}),
        system.getCalls());
    EXPECT_FALSE(info.has_broadcast_address);
    EXPECT_EQ("", info.broadcast_address.host);
}

/// The position of a question that fails, in every way that it can.
class FailedQuestion : public testing::TestWithParam<int> {
protected:
    void expectEach(std::function<void(FakeSystem&, NetDevice&, int error)> const& expect) const {
        for (int const error : ERRORS) {
            // Where an address was asked for, this one is an answer.
            if (error == EADDRNOTAVAIL && GetParam() > 2) {
                continue;
            }
            SCOPED_TRACE(strerror(error));
            FakeSystem system;
            system.errors[QUESTIONS[GetParam()]] = error;
            NetDevice devices(nullptr);
            expect(system, devices, error);
        }
    }

    static constexpr int ERRORS[] = {EPERM,  EACCES, ENODEV, ENXIO, ENOTTY, EBADF,
                                     EFAULT, EINVAL, ENOMEM, EINTR, EIO,    EADDRNOTAVAIL};
};

TEST_P(FailedQuestion, EndsTheCallAndNotTheWalk) {
    expectEach([](FakeSystem& system, NetDevice& devices, int error) {
        Info info = makeFull();
        EXPECT_EQ(-1, devices.getNextInfo(info));
        EXPECT_TRUE(isPending(SysError, SysErrorId::UNCLASSIFIED, error));
        EXPECT_EQ(textOf(makeInfo({QUESTIONS, QUESTIONS + GetParam()})), textOf(info));
        EXPECT_EQ(static_cast<size_t>(GetParam() + 1), system.calls.size());

        system.errors.clear();
        EXPECT_EQ(0, devices.getNextInfo(info));
        EXPECT_EQ("second", info.name);
        EXPECT_EQ(1, devices.getNextInfo(info));
    });
}

TEST_P(FailedQuestion, IsFollowedByTheNextInterfaceAlsoWhenThatFails) {
    expectEach([](FakeSystem& system, NetDevice& devices, int error) {
        Info info;
        for (char const* const name : {"first", "second"}) {
            EXPECT_EQ(-1, devices.getNextInfo(info));
            EXPECT_TRUE(isPending(SysError, SysErrorId::UNCLASSIFIED, error));
            EXPECT_STREQ(name, system.calls.back().data.ifr_name);
        }
        EXPECT_EQ(1, devices.getNextInfo(info));
        EXPECT_TRUE(chainIs({}));
    });
}

TEST_P(FailedQuestion, LeavesTheSettersOnTheInterfaceThatFailed) {
    expectEach([](FakeSystem& system, NetDevice& devices, int) {
        Info info;
        EXPECT_EQ(-1, devices.getNextInfo(info));
        EXPECT_EQ(-1, devices.getNextInfo(info));
        std::ErrorStorage::ack();
        EXPECT_FALSE(devices.setAddress("192.0.2.8"));
        EXPECT_EQ((std::pair<unsigned long, std::string>(SIOCSIFADDR, "second")), system.getCalls().back());
    });
}

INSTANTIATE_TEST_SUITE_P(Questions, FailedQuestion, testing::Range(0, 6));

/// Which of the questions have no answer.
class MissingAddress : public testing::TestWithParam<std::vector<unsigned long>> {};

TEST_P(MissingAddress, IsNoFailure) {
    FakeSystem system;
    std::vector<unsigned long> answered;
    for (unsigned long const question : QUESTIONS) {
        bool missing = false;
        for (unsigned long const other : GetParam()) {
            missing = missing || other == question;
        }
        if (missing) {
            system.errors[question] = EADDRNOTAVAIL;
        } else {
            answered.push_back(question);
        }
    }
    NetDevice device("first");
    Info info = makeFull();
    EXPECT_EQ(0, device.getNextInfo(info));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(textOf(makeInfo(answered)), textOf(info));
    EXPECT_EQ(6U, system.calls.size());
}

INSTANTIATE_TEST_SUITE_P(
    Questions, MissingAddress,
    testing::Values(
        std::vector<unsigned long>{SIOCGIFADDR}, std::vector<unsigned long>{SIOCGIFNETMASK},
        std::vector<unsigned long>{SIOCGIFBRDADDR},
        std::vector<unsigned long>{SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFBRDADDR}));

struct FlagsRow {
    int flags;
    std::string meaning; ///< Those of "URPMB" that are told: up, running, promiscuous, multicast, broadcast.
    int type;
};

std::ostream& operator<<(std::ostream& stream, FlagsRow const& row) {
    return stream << std::hex << row.flags;
}

class Flags : public testing::TestWithParam<FlagsRow> {};

TEST_P(Flags, AreToldOneByOneAndAsTheyCome) {
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

TEST_P(HardwareType, HasNoHardwareAddressUnlessItIsEthernet) {
    FakeSystem system;
    system.hardware_type = GetParam();
    NetDevice device("first");
    Info info = makeFull();
    ASSERT_EQ(0, device.getNextInfo(info));
    EXPECT_EQ(GetParam() == 1, info.has_hardware_address);
    unsigned char const expected[] = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0xff};
    if (info.has_hardware_address) {
        EXPECT_EQ(0, memcmp(expected, info.hardware_address, 6));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Types, HardwareType,
    testing::Values(
        0, ARPHRD_ETHER, ARPHRD_EETHER, 257, ARPHRD_PPP, ARPHRD_LOOPBACK, ARPHRD_IEEE80211, ARPHRD_TUNNEL,
        0xfffe, 0xffff));

class NameLength : public testing::TestWithParam<size_t> {};

TEST_P(NameLength, IsCutToWhatTheSystemTakes) {
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
        for (FakeSystem::Call const& call : system.calls) {
            EXPECT_EQ(name.substr(0, 15), call.data.ifr_name);
            EXPECT_EQ('\0', call.data.ifr_name[15]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, NameLength, testing::Values(1, 14, 15, 16, 17, 300));

TEST(NetDeviceFailure, AsksWithARequestThatIsClear) {
    FakeSystem const system;
    NetDevice device("first");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    ifreq expected{};
    strcpy(expected.ifr_name, "first");
    EXPECT_EQ(0, memcmp(&expected, &system.calls[0].data, sizeof expected));
}

// ---- no interfaces at all ----

TEST(NetDeviceFailure, IsAtItsEndAtOnceWithoutInterfaces) {
    FakeSystem const system(std::vector<std::string>{});
    NetDevice devices(nullptr);
    ASSERT_TRUE(devices.isValid());
    EXPECT_TRUE(devices.setInterfaceStatus(true));
    EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "no current interface"));
    Info info;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(1, devices.getNextInfo(info));
        EXPECT_TRUE(devices.setAddress("192.0.2.7"));
        EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "no current interface"));
    }
    EXPECT_TRUE(system.calls.empty());
}

// ---- setting ----

struct Setter {
    char const* name;
    std::function<bool(NetDevice&)> call;
    std::vector<unsigned long> requests;
};

std::ostream& operator<<(std::ostream& stream, Setter const& setter) {
    return stream << setter.name;
}

Setter const SETTERS[] = {
    {"setAddress", [](NetDevice& device) { return device.setAddress("192.0.2.8"); }, {SIOCSIFADDR}},
    {"setNetmask", [](NetDevice& device) { return device.setNetmask("255.0.0.0"); }, {SIOCSIFNETMASK}},
    {"setInterfaceStatus",
     [](NetDevice& device) { return device.setInterfaceStatus(true); },
     {SIOCGIFFLAGS, SIOCSIFFLAGS}},
    {"setPromiscuous",
     [](NetDevice& device) { return device.setPromiscuous(true); },
     {SIOCGIFFLAGS, SIOCSIFFLAGS}},
};

class EverySetter : public testing::TestWithParam<Setter> {
protected:
    Calls makeCalls(char const* interface) const {
        Calls calls;
        for (unsigned long const request : GetParam().requests) {
            calls.emplace_back(request, interface);
        }
        return calls;
    }
};

TEST_P(EverySetter, TellsWhyItFailed) {
    struct Row {
        int error;
        int id;
    };
    constexpr Row ROWS[] = {
        {EPERM, 7},  {EACCES, 7}, {ENODEV, 19}, {EADDRNOTAVAIL, 19}, {EINVAL, 19}, {EEXIST, 19}, {ENOMEM, 19},
        {EBUSY, 19}, {EIO, 19},   {ENOTTY, 19}, {EBADF, 19},         {EINTR, 19},  {ENXIO, 19},  {EFAULT, 19},
    };
    for (size_t i = 0; i < GetParam().requests.size(); ++i) {
        for (Row const& row : ROWS) {
            FakeSystem system;
            system.errors[GetParam().requests[i]] = row.error;
            NetDevice device("first");
            EXPECT_TRUE(GetParam().call(device));
            EXPECT_TRUE(isPending(SysError, row.id, row.error));
            EXPECT_EQ(i + 1, system.calls.size());
        }
    }
}

TEST_P(EverySetter, TakesTheFirstInterfaceBeforeTheWalkWhichThenGoesOnBehindIt) {
    FakeSystem system;
    NetDevice devices(nullptr);
    EXPECT_FALSE(GetParam().call(devices));
    EXPECT_EQ(makeCalls("first"), system.getCalls());
    Info info;
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("second", info.name);
    EXPECT_EQ(1, devices.getNextInfo(info));
}

TEST_P(EverySetter, LeavesNothingToWalkBehindASingleInterface) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(GetParam().call(device));
    EXPECT_FALSE(GetParam().call(device));
    Info info;
    EXPECT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(chainIs({}));
}

TEST_P(EverySetter, MovesToTheFirstInterfaceAlsoWhenTheSystemRefuses) {
    FakeSystem system;
    system.errors[GetParam().requests.back()] = EPERM;
    NetDevice devices(nullptr);
    EXPECT_TRUE(GetParam().call(devices));
    std::ErrorStorage::ack();
    Info info;
    EXPECT_EQ(0, devices.getNextInfo(info));
    EXPECT_EQ("second", info.name);
}

TEST_P(EverySetter, TakesTheInterfaceThatTheWalkIsAt) {
    FakeSystem system;
    NetDevice devices(nullptr);
    Info info;
    for (char const* const name : {"first", "second"}) {
        ASSERT_EQ(0, devices.getNextInfo(info));
        system.calls.clear();
        EXPECT_FALSE(GetParam().call(devices));
        EXPECT_FALSE(GetParam().call(devices));
        Calls expected = makeCalls(name);
        Calls const once = expected;
        expected.insert(expected.end(), once.begin(), once.end());
        EXPECT_EQ(expected, system.getCalls());
    }
    ASSERT_EQ(1, devices.getNextInfo(info));
    system.calls.clear();
    EXPECT_TRUE(GetParam().call(devices));
    EXPECT_TRUE(isPending(std::CommonError, std::CommonErrorId::CONTRACT_BROKEN, "no current interface"));
    EXPECT_TRUE(system.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Setters, EverySetter, testing::ValuesIn(SETTERS),
    [](testing::TestParamInfo<Setter> const& row) { return std::string(row.param.name); });

// ---- flags ----

struct ChangeRow {
    int before;
    bool promiscuous; ///< Otherwise the status.
    bool on;
    int after;
};

std::ostream& operator<<(std::ostream& stream, ChangeRow const& row) {
    return stream << std::hex << row.before << (row.promiscuous ? " promiscuous " : " status ") << row.on;
}

class Change : public testing::TestWithParam<ChangeRow> {};

TEST_P(Change, TouchesOneFlag) {
    FakeSystem system;
    system.flags = GetParam().before;
    NetDevice device("first");
    EXPECT_FALSE(
        GetParam().promiscuous ? device.setPromiscuous(GetParam().on)
                               : device.setInterfaceStatus(GetParam().on));
    ASSERT_EQ(2U, system.calls.size());
    EXPECT_EQ(GetParam().after, system.calls[1].data.ifr_flags & 0xffff);
}

INSTANTIATE_TEST_SUITE_P(
    Flags, Change,
    testing::Values(
        ChangeRow{0, false, true, IFF_UP}, ChangeRow{0, false, false, 0},
        ChangeRow{IFF_UP, false, true, IFF_UP}, ChangeRow{IFF_UP, false, false, 0},
        ChangeRow{0xfffe, false, true, 0xffff}, ChangeRow{0xffff, false, false, 0xfffe},
        ChangeRow{0, true, true, IFF_PROMISC}, ChangeRow{0, true, false, 0},
        ChangeRow{IFF_PROMISC, true, true, IFF_PROMISC}, ChangeRow{IFF_PROMISC, true, false, 0},
        ChangeRow{0xfeff, true, true, 0xffff}, ChangeRow{0xffff, true, false, 0xfeff}));

// ---- addresses ----

struct TextRow {
    char const* text;
    char const* address;
};

std::ostream& operator<<(std::ostream& stream, TextRow const& row) {
    return stream << (row.text != nullptr ? row.text : "null");
}

class AddressText : public testing::TestWithParam<TextRow> {};

TEST_P(AddressText, BecomesTheAddressOfTheRequest) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress(GetParam().text));
    EXPECT_FALSE(device.setNetmask(GetParam().text));
    ASSERT_EQ(2U, system.calls.size());
    for (FakeSystem::Call const& call : system.calls) {
        EXPECT_EQ(GetParam().address, textOf(call.data.ifr_addr));
        // The port.
        EXPECT_EQ(0, call.data.ifr_addr.sa_data[0] | call.data.ifr_addr.sa_data[1]);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AddressText,
    testing::Values(
        TextRow{"192.0.2.8", "192.0.2.8"}, TextRow{"0.0.0.0", "0.0.0.0"},
        TextRow{"255.255.255.255", "255.255.255.255"}, TextRow{"127.1", "127.0.0.1"}, TextRow{"", "0.0.0.0"},
        TextRow{nullptr, "0.0.0.0"}));

TEST(NetDeviceFailure, AsksTheResolverFirstWhetherATextIsNumeric) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("192.0.2.8"));
    ASSERT_EQ(2U, system.questions.size());
    addrinfo const& hints = system.questions[0];
    EXPECT_EQ(AI_NUMERICHOST, hints.ai_flags);
    EXPECT_EQ(SOCK_DGRAM, hints.ai_socktype);
    EXPECT_EQ(AF_UNSPEC, hints.ai_family);
    EXPECT_EQ(0, hints.ai_protocol);
    EXPECT_EQ(AF_INET, system.questions[1].ai_family);
    EXPECT_FALSE(device.setAddress(""));
    EXPECT_FALSE(device.setNetmask(nullptr));
    EXPECT_EQ(2U, system.questions.size());
}

TEST(NetDeviceFailure, ResolvesANameOnceAndItsResultOnceMore) {
    FakeSystem const system;
    NetDevice device("first");
    EXPECT_FALSE(device.setAddress("localhost"));
    EXPECT_EQ(3U, system.questions.size());
    EXPECT_EQ("127.0.0.1", textOf(system.calls.back().data.ifr_addr));
}

TEST(NetDeviceFailure, RefusesAnAddressOfTheOtherVersion) {
    for (char const* const text : {"::1", "fe80::1", "2001:db8::1"}) {
        FakeSystem const system;
        NetDevice device("first");
        EXPECT_TRUE(device.setAddress(text));
        EXPECT_TRUE(
            isPending(std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"));
        EXPECT_TRUE(device.setNetmask(text));
        EXPECT_TRUE(
            isPending(std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"));
        EXPECT_TRUE(system.calls.empty());
        // It was numeric, so the cursor had moved when it turned out to be of no use.
        Info info;
        EXPECT_EQ(1, device.getNextInfo(info));
    }
}

struct ResolverRow {
    int code;
    std::ErrorType const* family;
    int id;
    char const* text; ///< Null: that of the code.
};

std::ostream& operator<<(std::ostream& stream, ResolverRow const& row) {
    return stream << gai_strerror(row.code);
}

class ResolverCode : public testing::TestWithParam<ResolverRow> {
protected:
    testing::AssertionResult isTold() const {
        ResolverRow const& row = GetParam();
        return isPending(*row.family, row.id, row.text != nullptr ? row.text : gai_strerror(row.code));
    }
};

TEST_P(ResolverCode, OfANameFailsBeforeTheCursorMoves) {
    FakeSystem system;
    // The question whether it is numeric is no reason to give up.
    system.answers = {{1, EAI_MEMORY}, {2, GetParam().code}, {4, EAI_SYSTEM}, {5, GetParam().code}};
    NetDevice device("first");
    EXPECT_TRUE(device.setAddress("some.name"));
    EXPECT_TRUE(isTold());
    EXPECT_EQ(2U, system.questions.size());
    system.questions.resize(3);
    EXPECT_TRUE(device.setNetmask("some.name"));
    EXPECT_TRUE(isTold());
    EXPECT_EQ(5U, system.questions.size());
    EXPECT_TRUE(system.calls.empty());
    Info info;
    EXPECT_EQ(0, device.getNextInfo(info));
}

TEST_P(ResolverCode, OfANumericTextFailsBehindTheCursor) {
    FakeSystem system;
    system.answers = {{2, GetParam().code}};
    NetDevice device("first");
    EXPECT_TRUE(device.setAddress("192.0.2.8"));
    EXPECT_TRUE(isTold());
    EXPECT_TRUE(system.calls.empty());
    Info info;
    EXPECT_EQ(1, device.getNextInfo(info));
}

INSTANTIATE_TEST_SUITE_P(
    Codes, ResolverCode,
    testing::Values(
        ResolverRow{
            EAI_NONAME, &std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"},
        ResolverRow{
            EAI_NODATA, &std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"},
        ResolverRow{
            EAI_ADDRFAMILY, &std::CommonError, std::CommonErrorId::INVALID_ARGUMENT,
            "Couldn't resolve hostname"},
        ResolverRow{EAI_AGAIN, &vesk::Socket::Error, vesk::Socket::ErrorId::RESOLVE_FAILED, nullptr},
        ResolverRow{EAI_FAIL, &vesk::Socket::Error, vesk::Socket::ErrorId::RESOLVE_FAILED, nullptr},
        ResolverRow{EAI_MEMORY, &SysError, SysErrorId::OUT_OF_MEMORY, nullptr},
        ResolverRow{EAI_FAMILY, &SysError, SysErrorId::UNCLASSIFIED, nullptr}));

TEST(NetDeviceFailure, ResolvesANameBeforeItLooksForAnInterface) {
    FakeSystem system;
    system.answers = {{1, EAI_NONAME}, {2, EAI_NONAME}};
    NetDevice device("first");
    Info info;
    ASSERT_EQ(0, device.getNextInfo(info));
    ASSERT_EQ(1, device.getNextInfo(info));
    EXPECT_TRUE(device.setAddress("some.name"));
    EXPECT_TRUE(
        isPending(std::CommonError, std::CommonErrorId::INVALID_ARGUMENT, "Couldn't resolve hostname"));
}

} // namespace
