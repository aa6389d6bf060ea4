#include "support/Chain.h"
#include "support/Descriptors.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"

#include "MonitorSupport.h"
#include "NetlinkMessages.h"

#include <vesk/NetDeviceMonitor.h>
#include <vesk/Socket.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <linux/if_addr.h>
#include <net/if.h>
#include <ostream>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (void(address), void(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (void(address), void(size))
#endif

// The socket of a monitor is replaced: what it asks is written down, and what it receives is made up here.

namespace {

using support::addressMessage;
using support::bytesOf;
using support::chainIs;
using support::datagramOf;
using support::doneMessage;
using support::EventRecorder;
using support::Fault;
using support::linkMessage;
using support::Log;
using support::Message;
using support::NetworkAddress;
using support::RecordingListener;
using support::rowText;
using support::systemText;
using vesk::NetDeviceMonitor;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// What one call of `recvmsg` gives: a datagram, or a failure.
struct Step {
    Step(std::string const& datagram) : bytes(datagram) {} // NOLINT(google-explicit-constructor)
    Step(char const* datagram) : bytes(datagram) {}        // NOLINT(google-explicit-constructor)
    Step(Message const& message) : bytes(message.get()) {} // NOLINT(google-explicit-constructor)
    static Step failure(int number) {
        Step step("");
        step.error = number;
        return step;
    }
    /// A result of 0, which leaves the number of an older failure behind.
    static Step nothing(int number) {
        Step step("");
        step.stale_error = number;
        return step;
    }
    /// What happens while the call blocks.
    Step during(std::function<void()> happens) const {
        Step step = *this;
        step.action = std::move(happens);
        return step;
    }

    std::string bytes;
    int error = 0;
    int stale_error = 0;
    std::function<void()> action;
};

Step const DONE(doneMessage());
Step const EMPTY = Step::failure(EAGAIN); // The queue, for a call that does not wait.

/// The kernel's end of the socket, while it lives. When all steps are taken, the monitor is stopped.
class Kernel {
public:
    explicit Kernel(std::vector<Step> steps, std::string filling = std::string(1, '\0'))
        : m_steps(std::move(steps)), m_filling(std::move(filling)) {
        s_current = this;
    }
    ~Kernel() { s_current = nullptr; }

    Kernel(Kernel const&) = delete;
    Kernel& operator=(Kernel const&) = delete;

    static Kernel* getCurrent() noexcept { return s_current; }

    bool watch(NetDeviceMonitor& monitor) {
        m_monitor = &monitor;
        return monitor.watch();
    }

    /// The calls so far; the descriptor is "fd" in them.
    Log const& getCalls() const { return m_calls; }
    std::vector<std::string> const& getRequests() const { return m_requests; }
    std::vector<std::string> const& getWakes() const { return m_wakes; }
    size_t countStepsLeft() const { return m_steps.size() - m_next; }
    int countCloses() const { return m_closes; }

    /// Called in the thread that sends, before it is done.
    std::function<void()> on_send;

    // What the replaced functions do.

    int makeSocket(int family, int type, int protocol) {
        m_calls.push_back(
            "socket " + std::to_string(family) + " " + std::to_string(type) + " " + std::to_string(protocol));
        m_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        return m_fd;
    }
    void bindSocket(int fd, sockaddr const* address, socklen_t size) {
        m_calls.push_back("bind " + nameOf(fd) + " " + toHex(address, size));
    }
    ssize_t sendMessage(int fd, msghdr const* message, int flags) {
        m_calls.push_back(
            "sendmsg " + nameOf(fd) + " " + std::to_string(flags) + " " + std::to_string(message->msg_flags) +
            " " + toHex(message->msg_name, message->msg_namelen) + " " + std::to_string(message->msg_iovlen) +
            " " + std::to_string(message->msg_controllen) +
            (message->msg_control == nullptr ? "" : " control"));
        m_requests.push_back(toHex(message->msg_iov->iov_base, message->msg_iov->iov_len));
        return static_cast<ssize_t>(message->msg_iov->iov_len);
    }
    ssize_t receiveMessage(int fd, msghdr* message, int flags) {
        m_calls.push_back(
            "recvmsg " + nameOf(fd) + " " + std::to_string(flags) + " " +
            std::to_string(message->msg_namelen) + " " + std::to_string(message->msg_iovlen) + " " +
            std::to_string(message->msg_iov->iov_len) + " " + std::to_string(message->msg_controllen));
        auto* const buffer = static_cast<char*>(message->msg_iov->iov_base);
        size_t const room = message->msg_iov->iov_len;
        ASAN_UNPOISON_MEMORY_REGION(buffer, room);
        if (m_next == m_steps.size()) {
            m_monitor->stopWatching();
            errno = EINTR;
            return -1;
        }
        Step const step = m_steps[m_next++];
        if (step.action) {
            step.action();
        }
        if (step.error != 0) {
            errno = step.error;
            return -1;
        }
        errno = step.stale_error;
        // What lies behind the datagram must not matter.
        for (size_t i = 0; i < room; ++i) {
            buffer[i] = m_filling[i % m_filling.size()];
        }
        size_t const size = std::min(room, step.bytes.size());
        memcpy(buffer, step.bytes.data(), size);
        message->msg_flags = size < step.bytes.size() ? MSG_TRUNC : 0;
        ASAN_POISON_MEMORY_REGION(buffer + size, room - size);
        return static_cast<ssize_t>(size);
    }
    ssize_t wake(int fd, void const* data, size_t size, int flags) {
        m_wakes.push_back(nameOf(fd) + " " + std::to_string(flags) + " " + toHex(data, size));
        if (on_send) {
            on_send();
        }
        return static_cast<ssize_t>(size);
    }
    void noteClose(int fd) {
        if (fd == m_fd) {
            m_calls.emplace_back("close fd");
            ++m_closes;
        }
    }

private:
    std::string nameOf(int fd) const { return fd == m_fd ? "fd" : std::to_string(fd); }

    static std::string toHex(void const* data, size_t size) {
        std::string text;
        for (size_t i = 0; i < size; ++i) {
            unsigned char const byte = static_cast<unsigned char const*>(data)[i];
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

    static inline Kernel* s_current = nullptr;

    std::vector<Step> m_steps;
    std::string m_filling;
    size_t m_next = 0;
    NetDeviceMonitor* m_monitor = nullptr;
    int m_fd = -1;
    Log m_calls;
    std::vector<std::string> m_requests;
    std::vector<std::string> m_wakes;
    std::atomic<int> m_closes{0};
};

} // namespace

// Each fails if a fault says so; with a kernel of the test's it asks that, and else the real function.
#define VESK_ANSWER(result, name, parameters, arguments, answer)                                             \
    support::Injected inject_##name(#name);                                                                  \
    extern "C" VESK_UNWATCHED result name parameters {                                                       \
        int error = 0;                                                                                       \
        if (inject_##name.fails(error)) {                                                                    \
            errno = error;                                                                                   \
            return -1;                                                                                       \
        }                                                                                                    \
        if (Kernel* const kernel = Kernel::getCurrent()) {                                                   \
            answer;                                                                                          \
        }                                                                                                    \
        return reinterpret_cast<result(*) parameters>(inject_##name.getReal()) arguments;                    \
    }

VESK_ANSWER(
    int, socket, (int family, int type, int protocol), (family, type, protocol),
    return kernel->makeSocket(family, type, protocol))
VESK_ANSWER(int, bind, (int fd, sockaddr const* address, socklen_t size), (fd, address, size),
            kernel->bindSocket(fd, address, size);
            return 0)
VESK_ANSWER(
    ssize_t, sendmsg, (int fd, msghdr const* message, int flags), (fd, message, flags),
    return kernel->sendMessage(fd, message, flags))
VESK_ANSWER(
    ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags),
    return kernel->receiveMessage(fd, message, flags))
VESK_ANSWER(
    ssize_t, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags),
    return kernel->wake(fd, data, size, flags))
VESK_ANSWER(int, close, (int fd), (fd), kernel->noteClose(fd))

// Counts how often the watching thread finds that it has to wait, and how long; it does not wait for real.
support::Injected inject_nanosleep("nanosleep");
namespace {
std::atomic<int> s_sleeps{0};
std::atomic<long> s_last_sleep_ns{0};
} // namespace
extern "C" VESK_UNWATCHED int nanosleep(timespec const* time, timespec* left) {
    ++s_sleeps;
    s_last_sleep_ns = time->tv_nsec;
    if (Kernel::getCurrent() != nullptr && time->tv_nsec > 1000000) {
        return 0;
    }
    using Real = int (*)(timespec const*, timespec*);
    return reinterpret_cast<Real>(inject_nanosleep.getReal())(time, left);
}

namespace {

// ---- decoding ----

/// What a listener is told of datagrams that come after the two dumps.
struct Told {
    Log log;
    std::string interface;
    std::string events;

    bool operator==(Told const& other) const {
        return log == other.log && interface == other.interface && events == other.events;
    }
};

std::ostream& operator<<(std::ostream& stream, Told const& told) {
    for (std::string const& line : told.log) {
        stream << line << "\n";
    }
    return stream << told.interface << "\n" << told.events;
}

Told decodeOnce(std::vector<Step> const& datagrams, std::string const& filling) {
    std::vector<Step> steps = {DONE, DONE};
    steps.insert(steps.end(), datagrams.begin(), datagrams.end());
    RecordingListener listener;
    NetDeviceMonitor monitor(&listener);
    EventRecorder const events;
    Kernel kernel(steps, filling);
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(0U, kernel.countStepsLeft());
    EXPECT_TRUE(chainIs({}));
    return {listener.take(), listener.getInterface(), events.getText()};
}

/// Behind each datagram lies something different, the last time what could be its continuation; the answer is the same.
Told decode(std::vector<Step> const& datagrams) {
    Told const told = decodeOnce(datagrams, std::string(1, '\0'));
    Message const plausible = linkMessage(RTM_NEWLINK, 9).add(IFLA_IFNAME, std::string("evil", 5));
    EXPECT_EQ(told, decodeOnce(datagrams, std::string(1, '\xff')));
    EXPECT_EQ(told, decodeOnce(datagrams, std::string("\x08\x00\x01\x00\x10\x00\x00\x00", 8)));
    EXPECT_EQ(told, decodeOnce(datagrams, support::padded(plausible.get())));
    return told;
}

/// Calls without their arguments.
Log namesOf(Log const& calls) {
    Log names;
    for (std::string const& call : calls) {
        names.push_back(call.substr(0, call.find(' ')));
    }
    return names;
}

std::string const MAC("\x00\x1a\x2b\x3c\x4d\x5e", 6);
std::string const NAME("eth0", 5);
Log const LINK_LOG = {"interface_appeared eth0", "interface_status eth0"};
Log const LINK_LOG_WITH_MAC = {
    "interface_appeared eth0",
    "interface_status eth0",
    "address_appeared eth0 00:1a:2b:3c:4d:5e",
    "address_operable eth0 00:1a:2b:3c:4d:5e",
};
constexpr char const* NAME_MISSING =
    "ASSERT framework/src/vesk/linux/NetDeviceMonitorImpl handleIfInfo: name";

Message eth0(int index = 3, unsigned int flags = 0) {
    return linkMessage(RTM_NEWLINK, index, flags).add(IFLA_IFNAME, NAME);
}

std::string ipv4(char const* text) {
    in_addr address{};
    EXPECT_EQ(1, inet_pton(AF_INET, text, &address));
    return bytesOf(address);
}

std::string ipv6(char const* text) {
    in6_addr address{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text, &address));
    return bytesOf(address);
}

TEST(LinkMessage, IsToldWithAllItsFields) {
    Message message = eth0(3, IFF_BROADCAST | IFF_LOOPBACK | IFF_POINTOPOINT);
    message.add(IFLA_ADDRESS, MAC).add(IFLA_MTU, bytesOf(1500)).add(IFLA_OPERSTATE, "\x06");
    Told const told = decode({message});
    EXPECT_EQ(LINK_LOG_WITH_MAC, told.log);
    EXPECT_EQ(
        "3 eth0 mtu 1500 up operable broadcast point_to_point loopback [00:1a:2b:3c:4d:5e]", told.interface);
    EXPECT_EQ("", told.events);
}

TEST(LinkMessage, HasItsAttributesInAnyOrder) {
    struct Attribute {
        uint16_t type;
        std::string data;
    };
    Attribute const attributes[] = {
        {IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}, {IFLA_MTU, bytesOf(1500)}, {IFLA_OPERSTATE, "\x06"}};
    int order[] = {0, 1, 2, 3};
    do {
        Message message = linkMessage(RTM_NEWLINK, 3);
        for (int const i : order) {
            message.add(IFLA_QDISC, "noqueue").add(attributes[i].type, attributes[i].data);
        }
        Told const told = decodeOnce({message}, "x");
        EXPECT_EQ(LINK_LOG_WITH_MAC, told.log);
        EXPECT_EQ("3 eth0 mtu 1500 up operable [00:1a:2b:3c:4d:5e]", told.interface);
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

struct FlagRow {
    unsigned int flags;
    char const* interface;
};

std::ostream& operator<<(std::ostream& stream, FlagRow const& row) {
    return stream << "flags " << row.flags;
}

class LinkFlags : public testing::TestWithParam<FlagRow> {};

TEST_P(LinkFlags, AreTold) {
    EXPECT_EQ(GetParam().interface, decode({eth0(3, GetParam().flags)}).interface);
}

INSTANTIATE_TEST_SUITE_P(
    Each, LinkFlags,
    testing::Values(
        FlagRow{0, "3 eth0 mtu 0 up operable []"}, FlagRow{0x2, "3 eth0 mtu 0 up operable broadcast []"},
        FlagRow{0x10, "3 eth0 mtu 0 up operable point_to_point []"},
        FlagRow{0x8, "3 eth0 mtu 0 up operable loopback []"},
        // What IFF_UP and IFF_RUNNING say is not looked at.
        FlagRow{0x1, "3 eth0 mtu 0 up operable []"}, FlagRow{0x40, "3 eth0 mtu 0 up operable []"},
        FlagRow{~0x1aU, "3 eth0 mtu 0 up operable []"},
        FlagRow{~0U, "3 eth0 mtu 0 up operable broadcast point_to_point loopback []"}));

class OperationalState : public testing::TestWithParam<int> {};

TEST_P(OperationalState, DoesNotMatter) {
    Message message = eth0();
    message.add(IFLA_OPERSTATE, std::string(1, static_cast<char>(GetParam())));
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}), decode({message}));
}

INSTANTIATE_TEST_SUITE_P(All, OperationalState, testing::Range(0, 8));

TEST(LinkMessage, OfAKnownInterfaceTellsItsStatusAlone) {
    Message message = eth0();
    message.add(IFLA_ADDRESS, MAC);
    Log expected = LINK_LOG_WITH_MAC;
    expected.emplace_back("interface_status eth0");
    expected.emplace_back("interface_status eth0");
    EXPECT_EQ(expected, decode({message, message, message}).log);
}

TEST(LinkMessage, TellsAMacThatHasChanged) {
    Message before = eth0();
    before.add(IFLA_ADDRESS, MAC);
    Message after = eth0();
    after.add(IFLA_ADDRESS, "\x02\x1a\x2b\x3c\x4d\x5e");
    Log expected = LINK_LOG_WITH_MAC;
    expected.emplace_back("interface_status eth0");
    expected.emplace_back("address_appeared eth0 02:1a:2b:3c:4d:5e");
    expected.emplace_back("address_operable eth0 02:1a:2b:3c:4d:5e");
    EXPECT_EQ(expected, decode({before, after}).log);
}

TEST(LinkMessage, WithoutANameIsAssertedAndIgnored) {
    Message message = linkMessage(RTM_NEWLINK, 3);
    message.add(IFLA_ADDRESS, MAC).add(IFLA_MTU, bytesOf(1500));
    EXPECT_EQ((Told{{}, "", NAME_MISSING}), decode({message}));
}

TEST(LinkMessage, WithANegativeNumberIsCutTo16Bits) {
    EXPECT_EQ("65535 eth0 mtu 0 up operable []", decode({eth0(-1)}).interface);
    EXPECT_EQ("1 eth0 mtu 0 up operable []", decode({eth0(0x10001)}).interface);
}

TEST(LinkMessage, OfARemovalNeedsNoName) {
    EXPECT_EQ(
        (Log{"interface_appeared eth0", "interface_status eth0", "interface_disappeared eth0"}),
        decode({eth0(), linkMessage(RTM_DELLINK, 3)}).log);
}

TEST(LinkMessage, OfARemovalTellsAllThatGoes) {
    Message message = eth0();
    message.add(IFLA_ADDRESS, MAC);
    Message removal = linkMessage(RTM_DELLINK, 3);
    removal.add(IFLA_IFNAME, NAME).add(IFLA_ADDRESS, MAC);
    Log expected = LINK_LOG_WITH_MAC;
    expected.emplace_back("address_inoperable eth0 00:1a:2b:3c:4d:5e");
    expected.emplace_back("address_disappeared eth0 00:1a:2b:3c:4d:5e");
    expected.emplace_back("interface_disappeared eth0");
    EXPECT_EQ(expected, decode({message, removal}).log);
}

TEST(LinkMessage, OfARemovalOfTheUnknownTellsABlankInterface) {
    EXPECT_EQ((Told{{"interface_disappeared "}, "0  mtu 0 []", ""}), decode({linkMessage(RTM_DELLINK, 3)}));
}

TEST(LinkMessage, OfARemovalHasItsWholeNumber) {
    EXPECT_EQ(
        (Log{"interface_appeared eth0", "interface_status eth0", "interface_disappeared "}),
        decode({eth0(1), linkMessage(RTM_DELLINK, 0x10001)}).log);
}

// ---- attributes that are not what they should be ----

struct NameRow {
    std::string data;
    char const* name;
};

std::ostream& operator<<(std::ostream& stream, NameRow const& row) {
    return stream << testing::PrintToString(row.data);
}

class LinkName : public testing::TestWithParam<NameRow> {};

TEST_P(LinkName, EndsAtItsZeroOrWithItsAttribute) {
    Message message = linkMessage(RTM_NEWLINK, 3);
    message.add(IFLA_IFNAME, GetParam().data);
    std::string const name = GetParam().name;
    Log const expected = {"interface_appeared " + name, "interface_status " + name};
    EXPECT_EQ(expected, decode({message}).log);
    // Also if more comes behind it.
    message.add(IFLA_MTU, bytesOf(0x41414141));
    EXPECT_EQ(expected, decode({message}).log);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, LinkName,
    testing::Values(
        NameRow{std::string("eth0", 5), "eth0"}, NameRow{"eth0", "eth0"}, NameRow{"eth01", "eth01"},
        NameRow{"eth0123", "eth0123"}, NameRow{std::string("a\0b", 4), "a"},
        NameRow{std::string(1, '\0'), ""}, NameRow{"", ""},
        NameRow{std::string(15, 'n') + '\0', "nnnnnnnnnnnnnnn"},
        NameRow{std::string(40, 'n'), "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn"}));

class ShortMac : public testing::TestWithParam<size_t> {};

TEST_P(ShortMac, CountsAsNotThere) {
    Message message = eth0();
    message.add(IFLA_ADDRESS, MAC.substr(0, GetParam()));
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}), decode({message}));
    message.add(IFLA_MTU, bytesOf(1500));
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 1500 up operable []", ""}), decode({message}));
}

INSTANTIATE_TEST_SUITE_P(All, ShortMac, testing::Range<size_t>(0, 6));

TEST(LinkMessage, TakesTheFirstSixBytesOfALongMac) {
    Message message = eth0();
    message.add(IFLA_ADDRESS, MAC + "more of it");
    EXPECT_EQ(LINK_LOG_WITH_MAC, decode({message}).log);
}

class ShortMtu : public testing::TestWithParam<size_t> {};

TEST_P(ShortMtu, CountsAsNotThere) {
    Message message = eth0();
    message.add(IFLA_MTU, bytesOf(0x01010101).substr(0, GetParam()));
    EXPECT_EQ("3 eth0 mtu 0 up operable []", decode({message}).interface);
}

INSTANTIATE_TEST_SUITE_P(All, ShortMtu, testing::Range<size_t>(0, 4));

TEST(LinkMessage, KeepsWhatAShortAttributeRepeats) {
    Message message = eth0();
    message.add(IFLA_MTU, bytesOf(1500)).add(IFLA_ADDRESS, MAC);
    message.add(IFLA_MTU, "xxx").add(IFLA_ADDRESS, "xxx").add(IFLA_OPERSTATE, "");
    EXPECT_EQ("3 eth0 mtu 1500 up operable [00:1a:2b:3c:4d:5e]", decode({message}).interface);
}

TEST(LinkMessage, TakesTheLastOfAttributesThatAreRepeated) {
    Message message = linkMessage(RTM_NEWLINK, 3);
    message.add(IFLA_IFNAME, "old").add(IFLA_MTU, bytesOf(1)).add(IFLA_ADDRESS, "xxxxxx");
    message.add(IFLA_IFNAME, NAME).add(IFLA_MTU, bytesOf(2)).add(IFLA_ADDRESS, MAC);
    EXPECT_EQ("3 eth0 mtu 2 up operable [00:1a:2b:3c:4d:5e]", decode({message}).interface);
}

class AttributeLength : public testing::TestWithParam<int> {};

TEST_P(AttributeLength, EndsTheWalkIfItCannotBe) {
    Message message = eth0();
    message.add(IFLA_ADDRESS, MAC, GetParam()).add(IFLA_MTU, bytesOf(1500));
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}), decode({message}));
}

INSTANTIATE_TEST_SUITE_P(
    Values, AttributeLength, testing::Values(0, 1, 2, 3, 21, 22, 24, 255, 0x7fff, 0xffff));

TEST(LinkMessage, HasNoAttributeInFewerThanFourBytes) {
    for (char const* const rest : {"\x04", "\x04\x01", "\x04\x01\x02"}) {
        Message const message = eth0();
        std::string const bytes = support::padded(message) + rest;
        Message longer = Message(RTM_NEWLINK, bytes.substr(sizeof(nlmsghdr)));
        EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}), decode({longer}));
    }
}

TEST(LinkMessage, MayEndWithAnAttributeThatIsNotPadded) {
    Message message = linkMessage(RTM_NEWLINK, 3);
    message.add(IFLA_MTU, bytesOf(1500)).add(IFLA_IFNAME, NAME); // 5 bytes of name.
    ASSERT_EQ(49U, message.get().size());
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 1500 up operable []", ""}), decode({message}));
}

// The name is told of as soon as it is whole, and so is each of the others.
TEST(LinkMessage, IsToldAsFarAsItGoesIfItIsCut) {
    Message message = linkMessage(RTM_NEWLINK, 3);
    size_t const ends_of_mtu = message.add(IFLA_MTU, bytesOf(1500)).get().size();
    size_t const ends_of_name = message.add(IFLA_IFNAME, NAME).get().size();
    size_t const ends_of_mac = message.add(IFLA_ADDRESS, MAC).get().size();
    ASSERT_EQ(40U, ends_of_mtu);
    ASSERT_EQ(49U, ends_of_name);
    ASSERT_EQ(62U, ends_of_mac);
    for (size_t size = 1; size <= message.get().size(); ++size) {
        SCOPED_TRACE(size);
        Told expected;
        if (size < 32) {
            // Does not hold its fixed fields.
        } else if (size < ends_of_name) {
            expected.events = NAME_MISSING;
        } else if (size < ends_of_mac) {
            expected = {LINK_LOG, "3 eth0 mtu 1500 up operable []", ""};
        } else {
            expected = {LINK_LOG_WITH_MAC, "3 eth0 mtu 1500 up operable [00:1a:2b:3c:4d:5e]", ""};
        }
        EXPECT_EQ(expected, decode({message.getCut(size)}));
    }
}

TEST(AddressMessage, IsToldAsFarAsItGoesIfItIsCut) {
    Message message = addressMessage(RTM_NEWADDR, AF_INET, 24, 3);
    message.add(IFA_ADDRESS, ipv4("10.0.0.9")).add(IFA_LOCAL, ipv4("10.0.0.1"));
    message.add(IFA_BROADCAST, ipv4("10.0.0.255"));
    ASSERT_EQ(48U, message.get().size());
    for (size_t size = 1; size <= message.get().size(); ++size) {
        SCOPED_TRACE(size);
        Log expected;
        if (size < 24) {
            // Does not hold its fixed fields.
        } else if (size < 32) {
            expected = {"address_appeared  -/255.255.255.0"};
        } else if (size < 40) {
            expected = {"address_appeared  10.0.0.9/255.255.255.0"};
        } else if (size < 48) {
            expected = {"address_appeared  10.0.0.1/255.255.255.0"};
        } else {
            expected = {"address_appeared  10.0.0.1/255.255.255.0 peer 10.0.0.255"};
        }
        EXPECT_EQ(expected, decode({message.getCut(size)}).log);
    }
}

// A message that says that it is longer than what was received is none.
TEST(Datagram, IsSkippedIfItsMessageIsNotWhole) {
    Message message = eth0();
    message.add(IFLA_MTU, bytesOf(1500));
    for (size_t size = 1; size < message.get().size(); ++size) {
        EXPECT_EQ(
            (Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}),
            decode({message.get().substr(0, size), eth0()}))
            << size;
    }
}

class FirstLength : public testing::TestWithParam<uint32_t> {};

TEST_P(FirstLength, SkipsTheDatagramIfItCannotBe) {
    Message message = eth0();
    message.add(IFLA_MTU, bytesOf(1500)).setLength(GetParam());
    EXPECT_EQ((Told{LINK_LOG, "3 eth0 mtu 0 up operable []", ""}), decode({message, eth0()}));
}

INSTANTIATE_TEST_SUITE_P(
    Values, FirstLength,
    testing::Values(
        0U, 1U, 4U, 15U, 53U, 4096U, 4097U, 0x7fffffffU, 0x80000000U, 0xfffffffcU, 0xfffffffdU, 0xffffffffU));

// Not even the end of a dump.
TEST(Datagram, IsSkippedIfItsEndOfADumpIsNotWhole) {
    RecordingListener listener;
    NetDeviceMonitor monitor(&listener);
    Message const end(NLMSG_DONE);
    Kernel kernel(
        {end.get().substr(0, 15), Message(NLMSG_DONE).setLength(15), Message(NLMSG_DONE).setLength(17),
         eth0(), DONE, DONE});
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(LINK_LOG, listener.take());
    // Five receptions until the first dump is over.
    EXPECT_EQ(
        (
            Log{"socket", "bind", "sendmsg", "recvmsg", "recvmsg", "recvmsg", "recvmsg", "recvmsg", "sendmsg",
                "recvmsg", "recvmsg", "close"}),
        namesOf(kernel.getCalls()));
}

// ---- many messages ----

Message interfaceMessage(int index) {
    Message message = linkMessage(RTM_NEWLINK, index);
    message.add(IFLA_IFNAME, "if" + std::to_string(index));
    return message;
}

TEST(Datagram, TellsAllItsMessages) {
    EXPECT_EQ(
        (
            Log{"interface_appeared if1", "interface_status if1", "interface_appeared if2",
                "interface_status if2", "interface_appeared if3", "interface_status if3"}),
        decode({datagramOf({interfaceMessage(1), interfaceMessage(2), interfaceMessage(3)})}).log);
}

TEST(Datagram, FindsTheNextMessageAligned) {
    for (size_t length = 1; length <= 9; ++length) {
        Message first = linkMessage(RTM_NEWLINK, 1);
        std::string const name(length, 'n');
        first.add(IFLA_IFNAME, name);
        EXPECT_EQ(
            (
                Log{"interface_appeared " + name, "interface_status " + name, "interface_appeared if2",
                    "interface_status if2"}),
            decode({datagramOf({first, interfaceMessage(2)})}).log);
    }
}

TEST(Datagram, MayEndWithoutPadding) {
    Message last = linkMessage(RTM_NEWLINK, 2);
    last.add(IFLA_MTU, bytesOf(7)).add(IFLA_IFNAME, std::string("last", 5));
    ASSERT_NE(0U, last.get().size() % 4);
    EXPECT_EQ(
        (
            Log{"interface_appeared if1", "interface_status if1", "interface_appeared last",
                "interface_status last"}),
        decode({datagramOf({interfaceMessage(1), last})}).log);
    // Nor does the padding alone make a message.
    for (size_t rest = 1; rest < 16; ++rest) {
        std::string const padding(rest, '\x10');
        EXPECT_EQ(4U, decode({datagramOf({interfaceMessage(1), last, padding})}).log.size());
    }
}

class NextLength : public testing::TestWithParam<uint32_t> {};

TEST_P(NextLength, EndsTheWalkIfItCannotBe) {
    std::string const broken = interfaceMessage(2).setLength(GetParam());
    EXPECT_EQ(
        (Log{"interface_appeared if1", "interface_status if1"}),
        decode({datagramOf({interfaceMessage(1), broken, interfaceMessage(3)})}).log);
}

INSTANTIATE_TEST_SUITE_P(
    Values, NextLength,
    testing::Values(
        0U, 1U, 15U, 500U, 4096U, 0x7fffffffU, 0x80000000U, 0xfffffff0U, 0xfffffffdU, 0xffffffffU));

// 17 bytes hold no fixed fields; what comes behind them is found at 20.
TEST(Datagram, PassesOverAMessageThatIsTooShort) {
    for (uint16_t const type : {RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR}) {
        for (size_t const length : {16U, 17U, 20U, 23U}) {
            std::string const payload(length - 16, '\x02');
            EXPECT_EQ(
                (Log{"interface_appeared if1", "interface_status if1"}),
                decode({datagramOf({Message(type, payload), interfaceMessage(1)})}).log);
        }
    }
}

TEST(Datagram, PassesOverALinkMessageThatLacksItsLastByte) {
    EXPECT_EQ((Told{{}, "", ""}), decode({Message(RTM_NEWLINK, std::string(15, '\x01'))}));
    EXPECT_EQ((Told{{}, "", NAME_MISSING}), decode({Message(RTM_NEWLINK, std::string(16, '\x01'))}));
    EXPECT_EQ((Told{{}, "", ""}), decode({Message(RTM_DELLINK, std::string(15, '\x01'))}));
    EXPECT_EQ((Log{"interface_disappeared "}), decode({Message(RTM_DELLINK, std::string(16, '\x01'))}).log);
}

class OtherType : public testing::TestWithParam<uint16_t> {};

TEST_P(OtherType, IsIgnored) {
    Message link = eth0();
    uint16_t const type = GetParam();
    std::string bytes = link.get();
    memcpy(bytes.data() + 4, &type, sizeof type);
    EXPECT_EQ((Told{{}, "", ""}), decode({bytes}));
    EXPECT_EQ(LINK_LOG, decode({datagramOf({bytes, eth0()})}).log);
}

INSTANTIATE_TEST_SUITE_P(
    Types, OtherType, testing::Values(0, 1, 2, 4, 15, 18, 19, 22, 23, 24, 25, 28, 0x110, 0xffff));

TEST(Datagram, MayBeAsLargeAsTheBuffer) {
    Message message = eth0();
    message.add(IFLA_IFALIAS, std::string(4096 - message.get().size() % 4 - 64, 'x'));
    std::string datagram = message;
    while (datagram.size() % 4 != 0 || datagram.size() + 44 <= 4096) {
        datagram = datagramOf({datagram, datagram.size() % 4 != 0 ? "" : interfaceMessage(7).get()});
    }
    ASSERT_LE(datagram.size(), 4096U);
    EXPECT_EQ("interface_appeared eth0", decode({datagram}).log.front());
}

// The kernel cuts what does not fit: the message at the cut is not whole.
TEST(Datagram, LosesWhatIsBeyondTheBuffer) {
    std::string datagram = interfaceMessage(1);
    Message large = linkMessage(RTM_NEWLINK, 2);
    large.add(IFLA_IFALIAS, std::string(5000, 'x')).add(IFLA_IFNAME, "if2");
    EXPECT_EQ(
        (
            Log{"interface_appeared if1", "interface_status if1", "interface_appeared if3",
                "interface_status if3"}),
        decode({datagramOf({interfaceMessage(1), large}), interfaceMessage(3)}).log);
}

// Whatever a byte is changed to: nothing outside of the datagram has a say in what is told.
TEST(Datagram, IsReadInsideItsBoundsWhateverItHolds) {
    Message link = linkMessage(RTM_NEWLINK, 3, IFF_BROADCAST);
    link.add(IFLA_IFNAME, "eth0").add(IFLA_MTU, bytesOf(1500)).add(IFLA_ADDRESS, MAC);
    Message address = addressMessage(RTM_NEWADDR, AF_INET6, 64, 3);
    address.add(IFA_ADDRESS, ipv6("fd00::1"));
    Message second = addressMessage(RTM_NEWADDR, AF_INET, 24, 3);
    second.add(IFA_LOCAL, ipv4("10.0.0.1")).add(IFA_BROADCAST, ipv4("10.0.0.255"));
    std::string const datagram = datagramOf({link, address, second});
    std::vector<std::string> const fillings = {
        std::string(1, '\0'), std::string(1, '\xff'), std::string("\x08\x00\x01\x00\x10\x00\x00\x00", 8)};
    for (size_t i = 0; i < datagram.size(); ++i) {
        for (int const value : {0, 1, 3, 5, 0x10, 0x40, 0x7f, 0xff}) {
            std::string changed = datagram;
            changed[i] = static_cast<char>(value);
            Told const told = decodeOnce({changed}, fillings[0]);
            EXPECT_EQ(told, decodeOnce({changed}, fillings[1])) << i << " " << value;
            EXPECT_EQ(told, decodeOnce({changed}, fillings[2])) << i << " " << value;
        }
    }
}

// ---- addresses ----

struct AddressRow {
    char const* what;
    Message message;
    char const* address;
};

std::ostream& operator<<(std::ostream& stream, AddressRow const& row) {
    return stream << row.what;
}

class AddressAttributes : public testing::TestWithParam<AddressRow> {};

TEST_P(AddressAttributes, AreTold) {
    EXPECT_EQ(
        (Log{
            "interface_appeared eth0",
            "interface_status eth0",
            std::string("address_appeared eth0 ") + GetParam().address,
            std::string("address_operable eth0 ") + GetParam().address,
        }),
        decode({eth0(), GetParam().message}).log);
}

Message ipv4Message(unsigned int prefix = 24) {
    return addressMessage(RTM_NEWADDR, AF_INET, prefix, 3);
}
Message ipv6Message(unsigned int prefix = 64) {
    return addressMessage(RTM_NEWADDR, AF_INET6, prefix, 3);
}
constexpr char const* MASK64 = "ffff:ffff:ffff:ffff:0000:0000:0000:0000";
static_assert(IFA_ADDRESS == 1 && IFA_LOCAL == 2 && IFA_BROADCAST == 4);

INSTANTIATE_TEST_SUITE_P(
    IPv4, AddressAttributes,
    testing::Values(
        AddressRow{"no attribute", ipv4Message(), "-/255.255.255.0"},
        AddressRow{"its own alone", ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1")), "10.0.0.1/255.255.255.0"},
        AddressRow{
            "IFA_ADDRESS alone", ipv4Message().add(IFA_ADDRESS, ipv4("10.0.0.1")), "10.0.0.1/255.255.255.0"},
        AddressRow{
            "as the kernel tells one",
            ipv4Message()
                .add(IFA_ADDRESS, ipv4("10.0.0.1"))
                .add(IFA_LOCAL, ipv4("10.0.0.1"))
                .add(IFA_BROADCAST, ipv4("10.0.0.255"))
                .add(IFA_LABEL, NAME),
            "10.0.0.1/255.255.255.0 peer 10.0.0.255"},
        AddressRow{
            "with a far end: the later one wins",
            ipv4Message(32).add(IFA_ADDRESS, ipv4("10.0.0.2")).add(IFA_LOCAL, ipv4("10.0.0.1")),
            "10.0.0.1/255.255.255.255"},
        AddressRow{
            "with a far end behind it",
            ipv4Message(32).add(IFA_LOCAL, ipv4("10.0.0.1")).add(IFA_ADDRESS, ipv4("10.0.0.2")),
            "10.0.0.2/255.255.255.255"},
        AddressRow{
            "broadcast alone", ipv4Message().add(IFA_BROADCAST, ipv4("10.0.0.255")),
            "-/255.255.255.0 peer 10.0.0.255"},
        AddressRow{
            "a first attribute of 16 to 31 bytes: IFA_ADDRESS is the peer",
            ipv4Message().add(IFA_LABEL, "twelve bytes").add(IFA_ADDRESS, ipv4("10.0.0.1")),
            "-/255.255.255.0 peer 10.0.0.1"},
        AddressRow{
            "one of 32 bytes: it is the address",
            ipv4Message().add(IFA_LABEL, std::string(28, 'x')).add(IFA_ADDRESS, ipv4("10.0.0.1")),
            "10.0.0.1/255.255.255.0"},
        AddressRow{
            "too short", ipv4Message().add(IFA_LOCAL, "abc").add(IFA_ADDRESS, "").add(IFA_BROADCAST, "x"),
            "-/255.255.255.0"},
        AddressRow{
            "too short behind one that is not",
            ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1")).add(IFA_LOCAL, "abc"), "10.0.0.1/255.255.255.0"},
        AddressRow{
            "longer than it should be", ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1") + "more"),
            "10.0.0.1/255.255.255.0"},
        AddressRow{"prefix 0", ipv4Message(0).add(IFA_LOCAL, ipv4("10.0.0.1")), "10.0.0.1/0.0.0.0"},
        AddressRow{
            "prefix 200", ipv4Message(200).add(IFA_LOCAL, ipv4("10.0.0.1")), "10.0.0.1/255.255.255.255"},
        AddressRow{
            "other attributes", ipv4Message().add(3, ipv4("10.0.0.1")).add(5, ipv4("10.0.0.1")).add(7, "x"),
            "-/255.255.255.0"}));

std::string with64(char const* address, char const* peer) {
    return std::string(address) + "/" + MASK64 + (*peer != '\0' ? std::string(" peer ") + peer : "");
}
std::string const PEER_ONLY = with64("-", "fd00::1");
std::string const ADDRESS_ONLY = with64("fd00::1", "");
std::string const BOTH = with64("fd00::1", "fd00::2");

INSTANTIATE_TEST_SUITE_P(
    IPv6, AddressAttributes,
    testing::Values(
        AddressRow{
            "as the kernel tells one: it is the peer",
            ipv6Message()
                .add(IFA_ADDRESS, ipv6("fd00::1"))
                .add(IFA_CACHEINFO, std::string(16, 'x'))
                .add(IFA_FLAGS, bytesOf(0x80)),
            PEER_ONLY.c_str()},
        AddressRow{
            "with a far end, as the kernel tells it",
            ipv6Message().add(IFA_LOCAL, ipv6("fd00::1")).add(IFA_ADDRESS, ipv6("fd00::2")), BOTH.c_str()},
        AddressRow{
            "a first attribute of 4 bytes: it is the address",
            ipv6Message().add(IFA_FLAGS, bytesOf(0x80)).add(IFA_ADDRESS, ipv6("fd00::1")),
            ADDRESS_ONLY.c_str()},
        AddressRow{
            "a first attribute of 16 bytes that is no address",
            ipv6Message().add(IFA_CACHEINFO, std::string(16, 'x')).add(IFA_ADDRESS, ipv6("fd00::1")),
            PEER_ONLY.c_str()},
        AddressRow{
            "too short",
            ipv6Message().add(IFA_ADDRESS, ipv4("10.0.0.1")).add(IFA_LOCAL, std::string(15, 'x')),
            "-/ffff:ffff:ffff:ffff:0000:0000:0000:0000"},
        AddressRow{
            "prefix 0", ipv6Message(0).add(IFA_LOCAL, ipv6("::1")),
            "::1/0000:0000:0000:0000:0000:0000:0000:0000"},
        AddressRow{
            "prefix 200", ipv6Message(200).add(IFA_LOCAL, ipv6("::1")),
            "::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}));

class AddressFamily : public testing::TestWithParam<int> {};

TEST_P(AddressFamily, IsIgnoredIfItIsAnother) {
    for (uint16_t const type : {RTM_NEWADDR, RTM_DELADDR}) {
        Message message = addressMessage(type, GetParam(), 24, 3);
        message.add(IFA_LOCAL, std::string(16, 'x'));
        EXPECT_EQ((Told{{}, "", ""}), decode({message}));
    }
}

INSTANTIATE_TEST_SUITE_P(Others, AddressFamily, testing::Values(0, 1, 3, 7, 9, 11, 17, 255));

TEST(AddressMessage, IsIgnoredWhileTheAddressIsTentative) {
    for (int const family : {AF_INET, AF_INET6}) {
        std::string const address = family == AF_INET ? ipv4("10.0.0.1") : ipv6("fd00::1");
        for (unsigned int const flags : {0x40U, 0xc0U, 0xffU}) {
            Message message = addressMessage(RTM_NEWADDR, family, 24, 3, flags);
            message.add(IFA_LOCAL, address);
            EXPECT_EQ(LINK_LOG, decode({eth0(), message}).log);
        }
        for (unsigned int const flags : {0x80U, 0xbfU}) {
            Message message = addressMessage(RTM_NEWADDR, family, 24, 3, flags);
            message.add(IFA_LOCAL, address);
            EXPECT_EQ(4U, decode({eth0(), message}).log.size());
        }
    }
}

TEST(AddressMessage, IsToldWhenTheKernelRepeatsItWithoutTheFlag) {
    Message tentative = addressMessage(RTM_NEWADDR, AF_INET6, 64, 3, 0xc0);
    tentative.add(IFA_ADDRESS, ipv6("fd00::1"));
    Message valid = addressMessage(RTM_NEWADDR, AF_INET6, 64, 3, 0x80);
    valid.add(IFA_ADDRESS, ipv6("fd00::1"));
    Log expected = LINK_LOG;
    expected.emplace_back("address_appeared eth0 " + PEER_ONLY);
    expected.emplace_back("address_operable eth0 " + PEER_ONLY);
    EXPECT_EQ(expected, decode({eth0(), tentative, valid, valid}).log);
    // The removal of a tentative address is as invisible as it was.
    Message removal = addressMessage(RTM_DELADDR, AF_INET6, 64, 3, 0xc0);
    removal.add(IFA_ADDRESS, ipv6("fd00::1"));
    EXPECT_EQ(expected, decode({eth0(), tentative, valid, removal}).log);
}

TEST(AddressMessage, OfARemovalIsTold) {
    Message removal = addressMessage(RTM_DELADDR, AF_INET, 24, 3);
    removal.add(IFA_LOCAL, ipv4("10.0.0.1"));
    Log expected = LINK_LOG;
    expected.emplace_back("address_appeared eth0 10.0.0.1/255.255.255.0");
    expected.emplace_back("address_operable eth0 10.0.0.1/255.255.255.0");
    expected.emplace_back("address_inoperable eth0 10.0.0.1/255.255.255.0");
    expected.emplace_back("address_disappeared eth0 10.0.0.1/255.255.255.0");
    EXPECT_EQ(
        expected, decode({eth0(), ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1")), removal, removal}).log);
}

TEST(AddressMessage, CutsTheNumberOfItsInterface) {
    Message message = addressMessage(RTM_NEWADDR, AF_INET, 24, 0x10003);
    message.add(IFA_LOCAL, ipv4("10.0.0.1"));
    EXPECT_EQ("3 eth0 mtu 0 up operable [10.0.0.1/255.255.255.0]", decode({eth0(), message}).interface);
}

TEST(AddressMessage, TellsOneOfManyAddressesOfIPv6WithoutAFarEnd) {
    Log expected = LINK_LOG;
    expected.emplace_back("address_appeared eth0 " + PEER_ONLY);
    expected.emplace_back("address_operable eth0 " + PEER_ONLY);
    EXPECT_EQ(
        expected,
        decode({
                   eth0(),
                   ipv6Message().add(IFA_ADDRESS, ipv6("fd00::1")),
                   ipv6Message().add(IFA_ADDRESS, ipv6("fd00::2")),
                   ipv6Message().add(IFA_ADDRESS, ipv6("fe80::3")),
               })
            .log);
}

// ---- the conversation ----

/// A monitor that watches what a kernel gives, once.
class Watch : public testing::Test {
protected:
    bool watch(Kernel& kernel) { return kernel.watch(m_monitor); }

    RecordingListener m_listener;
    NetDeviceMonitor m_monitor{&m_listener};
};

TEST_F(Watch, AsksForInterfacesThenForAddresses) {
    Kernel kernel({DONE, DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(
        (std::vector<std::string>{
            "11000000"
            "1200"
            "0103"
            "01000000"
            "00000000"
            "00",
            "11000000"
            "1600"
            "0103"
            "01000000"
            "00000000"
            "00",
        }),
        kernel.getRequests());
}

TEST_F(Watch, MakesTheseCalls) {
    Kernel kernel({DONE, DONE});
    EXPECT_FALSE(watch(kernel));
    std::string const request = "sendmsg fd " + std::to_string(MSG_EOR) + " 0 100000000000000000000000 1 0";
    std::string const reception = "recvmsg fd 0 12 1 4096 0";
    EXPECT_EQ(
        (Log{
            "socket 16 " + std::to_string(SOCK_DGRAM | SOCK_CLOEXEC) + " 0",
            "bind fd 100000000000000011010000",
            request,
            reception,
            request,
            reception,
            reception,
            "close fd",
        }),
        kernel.getCalls());
    EXPECT_EQ(0x80, MSG_EOR);
}

TEST_F(Watch, IsWokenByAnEmptyRequest) {
    Kernel kernel({DONE, DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(
        (std::vector<std::string>{"fd 0 "
                                  "10000000"
                                  "0000"
                                  "0400"
                                  "00000000"
                                  "00000000"}),
        kernel.getWakes());
}

TEST_F(Watch, EndsADumpOnlyAtItsEnd) {
    Message const address = ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1"));
    Kernel kernel({eth0(), interfaceMessage(4), DONE, address, DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(
        (
            Log{"socket", "bind", "sendmsg", "recvmsg", "recvmsg", "recvmsg", "sendmsg", "recvmsg", "recvmsg",
                "recvmsg", "close"}),
        namesOf(kernel.getCalls()));
}

TEST_F(Watch, TellsTheStartOfOneInterfaceInItsOrder) {
    Message link = eth0(3, IFF_BROADCAST);
    link.add(IFLA_MTU, bytesOf(1500)).add(IFLA_ADDRESS, MAC);
    Message const address = ipv4Message().add(IFA_ADDRESS, ipv4("10.0.0.1")).add(IFA_LOCAL, ipv4("10.0.0.1"));
    Kernel kernel({link, DONE, address, DONE});
    EXPECT_FALSE(watch(kernel));
    Log expected = LINK_LOG_WITH_MAC;
    expected.emplace_back("address_appeared eth0 10.0.0.1/255.255.255.0");
    expected.emplace_back("address_operable eth0 10.0.0.1/255.255.255.0");
    EXPECT_EQ(expected, m_listener.take());
}

TEST_F(Watch, SeesTheEndOfADumpInTheMiddleOfADatagram) {
    Kernel kernel({datagramOf({interfaceMessage(1), doneMessage(), interfaceMessage(2)}), DONE});
    EXPECT_FALSE(watch(kernel));
    // What is behind the end is not looked at.
    EXPECT_EQ((Log{"interface_appeared if1", "interface_status if1"}), m_listener.take());
    EXPECT_EQ(2U, kernel.getRequests().size());
    EXPECT_EQ(0U, kernel.countStepsLeft());
}

TEST_F(Watch, SeesTheEndOfADumpAtTheBeginningOfADatagram) {
    Kernel kernel({datagramOf({doneMessage(), interfaceMessage(2)}), DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(Log(), m_listener.take());
    EXPECT_EQ(2U, kernel.getRequests().size());
}

TEST_F(Watch, GoesOnFollowingBehindTheEndOfADump) {
    Kernel kernel({DONE, DONE, DONE, interfaceMessage(1), DONE, interfaceMessage(2)});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(4U, m_listener.take().size());
    EXPECT_EQ(2U, kernel.getRequests().size());
}

TEST_F(Watch, TellsWhatChangesDuringTheDumps) {
    Kernel kernel(
        {ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1")), eth0(), DONE, linkMessage(RTM_DELLINK, 3), DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(
        (Log{
            "address_appeared  10.0.0.1/255.255.255.0",
            // It has an entry already, which never gets its name.
            "interface_status ",
            "address_operable  10.0.0.1/255.255.255.0",
            "address_inoperable  10.0.0.1/255.255.255.0",
            "address_disappeared  10.0.0.1/255.255.255.0",
            "interface_disappeared ",
        }),
        m_listener.take());
}

TEST_F(Watch, LeavesAtOnceWhenItWasStoppedBefore) {
    m_monitor.stopWatching();
    Kernel kernel({interfaceMessage(1), interfaceMessage(2), interfaceMessage(3)});
    EXPECT_FALSE(watch(kernel));
    // One datagram of each dump.
    EXPECT_EQ(
        (
            Log{"interface_appeared if1", "interface_status if1", "interface_appeared if2",
                "interface_status if2"}),
        m_listener.take());
    EXPECT_EQ(2U, kernel.getRequests().size());
    EXPECT_EQ(0U, kernel.getWakes().size());
    EXPECT_EQ(1, kernel.countCloses());
}

TEST_F(Watch, StaysStoppedForGood) {
    for (int i = 0; i < 3; ++i) {
        Kernel kernel({DONE, DONE});
        EXPECT_FALSE(watch(kernel));
        EXPECT_EQ(1, kernel.countCloses());
        // Only the first time there was something to end.
        EXPECT_EQ(i == 0 ? 1U : 0U, kernel.getWakes().size());
    }
}

TEST_F(Watch, CanBeStoppedByACallback) {
    m_listener.on_call = [this](std::string const& line) {
        if (line == "interface_appeared if2") {
            m_monitor.stopWatching();
        }
    };
    Kernel kernel({DONE, DONE, interfaceMessage(1), interfaceMessage(2), interfaceMessage(3)});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(1U, kernel.countStepsLeft());
    EXPECT_EQ(4U, m_listener.take().size());
    EXPECT_EQ(1U, kernel.getWakes().size());
}

TEST_F(Watch, KeepsItsTableForTheNextOne) {
    Fault const fault(inject_sendmsg, ENOBUFS, 2);
    Kernel first({interfaceMessage(1), DONE});
    EXPECT_TRUE(watch(first));
    EXPECT_EQ((Log{"interface_appeared if1", "interface_status if1"}), m_listener.take());
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED}}));
    Kernel second({interfaceMessage(1), DONE, DONE});
    EXPECT_FALSE(watch(second));
    EXPECT_EQ((Log{"interface_status if1"}), m_listener.take());
}

TEST_F(Watch, NeedsNoListener) {
    NetDeviceMonitor monitor(nullptr);
    std::ErrorStorage::ack();
    EventRecorder const events;
    Kernel kernel({eth0(), DONE, DONE, linkMessage(RTM_DELLINK, 3)});
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(3U, events.getCount());
}

// ---- failures ----

TEST_F(Watch, FailsWithoutASocket) {
    for (int const error : {EMFILE, ENFILE, ENOBUFS, EPROTONOSUPPORT, EACCES}) {
        Kernel kernel({DONE, DONE});
        Fault const fault(inject_socket, error);
        EXPECT_TRUE(watch(kernel));
        EXPECT_TRUE(chainIs(
            {{Socket::ErrorId::CREATE_FAILED, rowText(Socket::ErrorId::CREATE_FAILED, systemText(error))}}));
        EXPECT_EQ(0U, kernel.getCalls().size());
    }
}

TEST_F(Watch, FailsIfItCannotBind) {
    for (int const error : {EADDRINUSE, ENOMEM, EACCES, EPERM}) {
        Kernel kernel({DONE, DONE});
        Fault const fault(inject_bind, error);
        EXPECT_TRUE(watch(kernel));
        EXPECT_TRUE(
            chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(error))}}));
        EXPECT_EQ(2U, kernel.getCalls().size());
        EXPECT_EQ(1, kernel.countCloses());
    }
}

class FailedRequest : public Watch, public testing::WithParamInterface<int> {};

TEST_P(FailedRequest, EndsIt) {
    for (int const error : {ENOBUFS, EINTR, EAGAIN, EPERM, ECONNREFUSED}) {
        Kernel kernel({DONE, DONE});
        Fault const fault(inject_sendmsg, error, GetParam());
        EXPECT_TRUE(watch(kernel));
        EXPECT_EQ(GetParam(), fault.getCalls());
        EXPECT_TRUE(
            chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(error))}}));
        EXPECT_EQ("close fd", kernel.getCalls().back());
        EXPECT_EQ(1, kernel.countCloses());
        // There is no number left of a socket that is closed.
        m_monitor.stopWatching();
        EXPECT_EQ(0U, kernel.getWakes().size());
    }
}

INSTANTIATE_TEST_SUITE_P(Each, FailedRequest, testing::Values(1, 2));

TEST_F(Watch, CanBeRepeatedAfterAFailure) {
    {
        Kernel kernel({DONE, DONE});
        Fault const fault(inject_bind, EADDRINUSE);
        EXPECT_TRUE(watch(kernel));
        EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED}}));
    }
    Kernel kernel({interfaceMessage(1), DONE, DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(2U, m_listener.take().size());
}

struct ReceptionRow {
    char const* what;
    std::vector<Step> steps;
    size_t requests = 2;
};

std::ostream& operator<<(std::ostream& stream, ReceptionRow const& row) {
    return stream << row.what;
}

class FailedReception : public Watch, public testing::WithParamInterface<ReceptionRow> {};

// With the next dump, or on the same socket. What was lost is asked for again.
TEST_P(FailedReception, IsReportedAndItGoesOn) {
    Kernel kernel(GetParam().steps);
    EXPECT_TRUE(watch(kernel));
    EXPECT_TRUE(
        chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ENOBUFS))}}));
    EXPECT_EQ((Log{"interface_appeared if1", "interface_status if1"}), m_listener.take());
    EXPECT_EQ(GetParam().requests, kernel.getRequests().size());
    EXPECT_EQ(0U, kernel.countStepsLeft());
    EXPECT_EQ(1, kernel.countCloses());
}

INSTANTIATE_TEST_SUITE_P(
    Each, FailedReception,
    testing::Values(
        ReceptionRow{
            "in the dump of interfaces",
            {Step::failure(ENOBUFS), DONE, EMPTY, interfaceMessage(1), DONE, DONE},
            4},
        ReceptionRow{
            "in the dump of addresses",
            {DONE, Step::failure(ENOBUFS), EMPTY, interfaceMessage(1), DONE, DONE},
            4},
        ReceptionRow{
            "while following",
            {DONE, DONE, Step::failure(ENOBUFS), EMPTY, interfaceMessage(1), DONE, DONE},
            4},
        ReceptionRow{
            "with messages in the queue",
            {DONE, DONE, Step::failure(ENOBUFS), interfaceMessage(1), EMPTY, DONE},
            4},
        ReceptionRow{
            "many times",
            {DONE, DONE, Step::failure(EINTR), Step::failure(ENOBUFS), Step::failure(ENOBUFS), EMPTY,
             Step::failure(ENOBUFS), DONE, EMPTY, interfaceMessage(1), DONE, DONE},
            6},
        ReceptionRow{
            "nothing instead of interfaces",
            {Step::nothing(ENOBUFS), DONE, EMPTY, interfaceMessage(1), DONE, DONE},
            4},
        ReceptionRow{
            "nothing instead of addresses",
            {DONE, Step::nothing(ENOBUFS), EMPTY, interfaceMessage(1), DONE, DONE},
            4},
        ReceptionRow{
            "an interruption",
            {DONE, DONE, Step::failure(EINTR), Step::failure(ENOBUFS), interfaceMessage(1)}}));

// ---- what was lost ----

/// A kernel that has an interface with two addresses, and another one, when its messages are lost.
std::vector<Step> lossOf(std::vector<Step> const& further) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    std::vector<Step> steps = {
        link,
        interfaceMessage(4),
        DONE,
        ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1")),
        ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.2")),
        DONE,
        Step::failure(ENOBUFS),
    };
    steps.insert(steps.end(), further.begin(), further.end());
    return steps;
}

/// What a monitor tells from the loss on.
class Loss : public Watch {
protected:
    Log tell(std::vector<Step> const& further) {
        Kernel kernel(lossOf(further));
        EXPECT_TRUE(watch(kernel));
        EXPECT_EQ(0U, kernel.countStepsLeft());
        EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED}}));
        m_requests = kernel.getRequests();
        Log log = m_listener.take();
        EXPECT_LE(10U, log.size());
        log.erase(log.begin(), log.begin() + 10);
        return log;
    }

    std::vector<std::string> m_requests;
};

Message const ADDRESS_1 = ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1"));
Message const ADDRESS_2 = ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.2"));

TEST_F(Loss, OfNothingTellsTheStatusAlone) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{"interface_status eth0", "interface_status if4"}),
        tell({EMPTY, link, interfaceMessage(4), DONE, ADDRESS_1, ADDRESS_2, DONE}));
    // The first time the number of the requests is 1.
    ASSERT_EQ(4U, m_requests.size());
    EXPECT_EQ("02000000", m_requests[2].substr(16, 8));
    EXPECT_EQ("02000000", m_requests[3].substr(16, 8));
}

TEST_F(Loss, TellsWhatIsNewAndThenWhatHasGone) {
    Message const link = eth0().add(IFLA_ADDRESS, std::string("\x00\x1a\x2b\x3c\x4d\x5f", 6));
    EXPECT_EQ(
        (Log{
            "interface_status eth0",
            "address_appeared eth0 00:1a:2b:3c:4d:5f",
            "address_operable eth0 00:1a:2b:3c:4d:5f",
            "interface_appeared if5",
            "interface_status if5",
            "address_appeared eth0 10.0.0.3/255.255.255.0",
            "address_operable eth0 10.0.0.3/255.255.255.0",
            "address_inoperable eth0 00:1a:2b:3c:4d:5e",
            "address_disappeared eth0 00:1a:2b:3c:4d:5e",
            "address_inoperable eth0 10.0.0.1/255.255.255.0",
            "address_disappeared eth0 10.0.0.1/255.255.255.0",
            "interface_disappeared if4",
        }),
        tell(
            {EMPTY, link, interfaceMessage(5), DONE, ADDRESS_2,
             ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.3")), DONE}));
}

TEST_F(Loss, OfAllTellsAnInterfaceThatIsGoneWithItsAddresses) {
    EXPECT_EQ(
        (Log{
            "interface_status if4",
            "address_inoperable eth0 00:1a:2b:3c:4d:5e",
            "address_disappeared eth0 00:1a:2b:3c:4d:5e",
            "address_inoperable eth0 10.0.0.1/255.255.255.0",
            "address_disappeared eth0 10.0.0.1/255.255.255.0",
            "address_inoperable eth0 10.0.0.2/255.255.255.0",
            "address_disappeared eth0 10.0.0.2/255.255.255.0",
            "interface_disappeared eth0",
        }),
        tell({EMPTY, interfaceMessage(4), DONE, DONE}));
}

TEST_F(Loss, TellsAnAddressWithAnotherNetmaskAsGoneAndNew) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    Message const changed = addressMessage(RTM_NEWADDR, AF_INET, 16, 3).add(IFA_LOCAL, ipv4("10.0.0.1"));
    EXPECT_EQ(
        (Log{
            "interface_status eth0",
            "interface_status if4",
            "address_inoperable eth0 10.0.0.1/255.255.255.0",
            "address_disappeared eth0 10.0.0.1/255.255.255.0",
            "address_appeared eth0 10.0.0.1/255.255.0.0",
            "address_operable eth0 10.0.0.1/255.255.0.0",
        }),
        tell({EMPTY, link, interfaceMessage(4), DONE, changed, ADDRESS_2, DONE}));
}

// What changes while the kernel answers counts as it is at the end.
TEST_F(Loss, HeedsWhatChangesDuringTheAnswers) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{
            "interface_status eth0",
            "interface_status if4",
            "interface_disappeared if4",
            "address_inoperable eth0 10.0.0.2/255.255.255.0",
            "address_disappeared eth0 10.0.0.2/255.255.255.0",
            "interface_appeared if6",
            "interface_status if6",
        }),
        tell(
            {EMPTY, link, interfaceMessage(4), DONE, ADDRESS_1, ADDRESS_2, linkMessage(RTM_DELLINK, 4),
             addressMessage(RTM_DELADDR, AF_INET, 24, 3).add(IFA_LOCAL, ipv4("10.0.0.2")),
             interfaceMessage(6), DONE}));
}

// Of a message without a MAC nothing follows for the MAC.
TEST_F(Loss, KeepsTheMacThatOneOfTwoMessagesTells) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{"interface_status eth0", "interface_status eth0", "interface_status if4"}),
        tell({EMPTY, link, eth0(), interfaceMessage(4), DONE, ADDRESS_1, ADDRESS_2, DONE}));
}

TEST_F(Loss, DuringTheAnswersAsksOnceMore) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{
            "interface_status eth0",
            "interface_disappeared if4",
        }),
        tell({EMPTY, Step::failure(ENOBUFS), DONE, EMPTY, link, DONE, ADDRESS_1, ADDRESS_2, DONE}));
    EXPECT_EQ(6U, m_requests.size());
}

TEST_F(Loss, IsNotMadeGoodByAnAnswerThatAChangeInterrupted) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{"interface_status if4", "interface_status eth0", "interface_status if4"}),
        tell(
            {EMPTY, interfaceMessage(4).setFlags(NLM_F_DUMP_INTR), DONE, DONE, EMPTY, link,
             interfaceMessage(4), DONE, ADDRESS_1, ADDRESS_2, DONE}));
    EXPECT_EQ(6U, m_requests.size());
}

TEST_F(Loss, RemovesNothingAfterAnAnswerThatWasCut) {
    std::string const too_long = datagramOf({interfaceMessage(4), std::string(4096, '\0')});
    EXPECT_EQ((Log{"interface_status if4"}), tell({EMPTY, too_long, DONE, DONE}));
    EXPECT_EQ(4U, m_requests.size());
}

TEST_F(Loss, TakesTheEndOfAnOlderAnswerForNone) {
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    EXPECT_EQ(
        (Log{"interface_status eth0", "interface_status if4"}),
        tell(
            {EMPTY, doneMessage().setSequence(1), link, interfaceMessage(4), doneMessage().setSequence(2),
             ADDRESS_1, ADDRESS_2, doneMessage().setSequence(2)}));
}

TEST_F(Loss, RemovesNothingOnceItIsStopped) {
    EXPECT_EQ(Log(), tell({EMPTY, DONE, Step(DONE).during([this] { m_monitor.stopWatching(); })}));
}

TEST_F(Loss, EndsTheWatchIfTheKernelCannotBeAskedAgain) {
    Fault const fault(inject_sendmsg, ENOMEM, 3);
    EXPECT_EQ(Log(), tell({EMPTY}));
    EXPECT_EQ(2U, m_requests.size());
}

// What disappeared while no watch was running.
TEST_F(Loss, IsMadeGoodByTheNextWatch) {
    Fault const fault(inject_sendmsg, ENOMEM, 3);
    EXPECT_EQ(Log(), tell({EMPTY}));
    Message const link = eth0().add(IFLA_ADDRESS, MAC);
    Kernel second({link, DONE, ADDRESS_1, ADDRESS_2, DONE});
    EXPECT_FALSE(watch(second));
    EXPECT_EQ((Log{"interface_status eth0", "interface_disappeared if4"}), m_listener.take());
    EXPECT_EQ("01000000", second.getRequests()[0].substr(16, 8));
}

struct PauseRow {
    char const* what;
    std::vector<Step> steps;
    int pauses;
};

std::ostream& operator<<(std::ostream& stream, PauseRow const& row) {
    return stream << row.what;
}

class RepeatedFailure : public Watch, public testing::WithParamInterface<PauseRow> {};

TEST_P(RepeatedFailure, PausesBeforeAThirdAttempt) {
    std::vector<Step> steps = {DONE, DONE};
    steps.insert(steps.end(), GetParam().steps.begin(), GetParam().steps.end());
    Kernel kernel(steps);
    int const before = s_sleeps;
    EXPECT_TRUE(watch(kernel));
    EXPECT_EQ(GetParam().pauses, s_sleeps - before);
    EXPECT_EQ(0U, kernel.countStepsLeft());
    if (GetParam().pauses != 0) {
        EXPECT_EQ(100000000, s_last_sleep_ns);
    }
    std::ErrorStorage::ack();
}

Step const BROKEN = Step::failure(EBADF);
Step const SIGNAL = Step::failure(EINTR);
INSTANTIATE_TEST_SUITE_P(
    Each, RepeatedFailure,
    testing::Values(
        PauseRow{"one failure", {BROKEN}, 0},
        // The last of the attempts is the one that finds the monitor stopped.
        PauseRow{"for good", std::vector<Step>(50, BROKEN), 49},
        PauseRow{"nothing for good", std::vector<Step>(10, Step::nothing(0)), 9},
        PauseRow{"messages between", {BROKEN, DONE, BROKEN, DONE, BROKEN, DONE}, 0},
        PauseRow{"interruptions by signals", std::vector<Step>(10, SIGNAL), 0},
        PauseRow{"while it empties the queue", {Step::failure(ENOBUFS), BROKEN, BROKEN, EMPTY, DONE}, 2}));

TEST_F(Watch, DoesNotRepeatAnInterruptedReception) {
    Kernel kernel({Step::failure(EINTR), DONE, DONE});
    EXPECT_TRUE(watch(kernel));
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EINTR))}}));
}

TEST_F(Watch, TakesAFailedReceptionForItsEndOnceItIsStopped) {
    for (Step const& step : {Step::failure(EBADF), Step::nothing(EBADF)}) {
        RecordingListener listener;
        NetDeviceMonitor monitor(&listener);
        Kernel kernel({DONE, DONE, step.during([&monitor] { monitor.stopWatching(); }), DONE});
        EXPECT_FALSE(kernel.watch(monitor));
        EXPECT_EQ(1U, kernel.countStepsLeft());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(Watch, RemembersAFailureBeforeItIsStopped) {
    Kernel kernel(
        {DONE, Step::failure(EIO), Step::failure(EIO).during([this] { m_monitor.stopWatching(); })});
    EXPECT_TRUE(watch(kernel));
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EIO))}}));
}

TEST_F(Watch, TellsWhatCameWithTheStop) {
    Kernel kernel(
        {DONE, DONE, Step(interfaceMessage(1)).during([this] { m_monitor.stopWatching(); }),
         interfaceMessage(2)});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ((Log{"interface_appeared if1", "interface_status if1"}), m_listener.take());
}

TEST_F(Watch, ClosesItsSocketWhenTheListenerThrows) {
    m_listener.on_call = [](std::string const&) { throw std::runtime_error("no more"); };
    {
        Kernel kernel({interfaceMessage(1), DONE, DONE});
        EXPECT_THROW(watch(kernel), std::runtime_error);
        EXPECT_EQ(1, kernel.countCloses());
        m_monitor.stopWatching();
        EXPECT_EQ(0U, kernel.getWakes().size());
    }
    EXPECT_TRUE(chainIs({}));
}

// ---- two threads ----

// The stopping thread has the number in its hands: until it has let go of it, it must not become somebody else's.
TEST_F(Watch, ClosesItsSocketOnlyWhenNobodyUsesIt) {
    std::atomic<bool> is_sending{false};
    std::thread stopper;
    Step const stop = Step::failure(EBADF).during([&] {
        stopper = std::thread([this] { m_monitor.stopWatching(); });
        while (!is_sending) {
            sched_yield();
        }
    });
    Kernel kernel({DONE, DONE, stop});
    kernel.on_send = [&] {
        int const before = s_sleeps;
        is_sending = true;
        while (s_sleeps < before + 3 && kernel.countCloses() == 0) {
            sched_yield();
        }
        EXPECT_EQ(0, kernel.countCloses());
    };
    EXPECT_FALSE(watch(kernel));
    stopper.join();
    EXPECT_EQ(1, kernel.countCloses());
    EXPECT_EQ(1U, kernel.getWakes().size());
}

// A stop that nobody waits for any more finds no socket.
TEST_F(Watch, LeavesNothingForALateStop) {
    Kernel kernel({DONE, DONE});
    EXPECT_FALSE(watch(kernel));
    EXPECT_EQ(1U, kernel.getWakes().size());
    m_monitor.stopWatching();
    m_monitor.stopWatching();
    EXPECT_EQ(1U, kernel.getWakes().size());
    EXPECT_EQ(1, kernel.countCloses());
}

} // namespace
