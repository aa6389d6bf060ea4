#include "support/CleanEnd.h"
#include "support/NamedRow.h"

#include "AnswerCalls.h"
#include "MonitorSupport.h"
#include "NetlinkMessages.h"

#include <vesk/Socket.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/if_addr.h>
#include <net/if.h>
#include <optional>
#include <ostream>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (void(address), void(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (void(address), void(size))
#endif

// The socket of a monitor is replaced: its requests are recorded, and what it receives is made up here.

namespace {

using namespace support;
using vesk::NetDeviceMonitor;
using vesk::Socket;
namespace SysErrorId = vesk::SysErrorId;

/// The result of one call of `recvmsg`: a datagram or a failure.
struct Step {
    // NOLINTBEGIN(google-explicit-constructor)
    Step(std::string const& datagram, int number = 0, int stale_number = 0)
        : bytes(datagram), error(number), stale_error(stale_number) {}
    Step(Message const& message) : Step(message.get()) {}
    // NOLINTEND(google-explicit-constructor)

    static Step failure(int number) { return Step("", number); }
    /// A result of 0, which leaves the number of an earlier failure in `errno`.
    static Step nothing(int number) { return Step("", 0, number); }
    /// Runs an action while the call blocks.
    Step during(std::function<void()> happens) const {
        Step step = *this;
        step.action = std::move(happens);
        return step;
    }

    std::string bytes;
    int error;
    int stale_error;
    std::function<void()> action;
};
using Steps = std::vector<Step>;

Step const DONE(doneMessage());
Step const EMPTY = Step::failure(EAGAIN); // The queue, for a call that does not wait.

/// The kernel's end of the socket during its lifetime. After the last step it stops the monitor.
class Kernel {
public:
    explicit Kernel(Steps steps, std::string filling = std::string(1, '\0'))
        : m_steps(std::move(steps)), m_filling(std::move(filling)) {
        s_current = this;
    }
    ~Kernel() { s_current = nullptr; }

    static Kernel* getCurrent() noexcept { return s_current; }

    bool watch(NetDeviceMonitor& monitor) {
        m_monitor = &monitor;
        return monitor.watch();
    }

    /// Returns the calls so far, with "fd" for the descriptor.
    Log const& getCalls() const { return m_calls; }
    /// Returns the names of the calls, separated by blanks.
    std::string getCallNames() const {
        std::string names;
        for (std::string const& call : m_calls) {
            names += (names.empty() ? "" : " ") + call.substr(0, call.find(' '));
        }
        return names;
    }
    Log const& getRequests() const { return m_requests; }
    Log const& getWakes() const { return m_wakes; }
    size_t countStepsLeft() const { return m_steps.size() - m_next; }
    int countCloses() const { return m_closes; }

    /// Called in the thread that sends, before the call returns.
    std::function<void()> on_send;

    // The replaced functions.

    int makeSocket(int family, int type, int protocol) {
        record("socket", family, type, protocol);
        m_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        return m_fd;
    }
    int bindSocket(int fd, sockaddr const* address, socklen_t size) {
        record("bind", nameOf(fd), toHex(address, size));
        return 0;
    }
    ssize_t sendMessage(int fd, msghdr const* message, int flags) {
        record(
            "sendmsg", nameOf(fd), flags, message->msg_flags, toHex(message->msg_name, message->msg_namelen),
            message->msg_iovlen, message->msg_controllen, message->msg_control == nullptr ? "-" : "control");
        m_requests.push_back(toHex(message->msg_iov->iov_base, message->msg_iov->iov_len));
        return static_cast<ssize_t>(message->msg_iov->iov_len);
    }
    ssize_t receiveMessage(int fd, msghdr* message, int flags) {
        size_t const room = message->msg_iov->iov_len;
        record(
            "recvmsg", nameOf(fd), flags, message->msg_namelen, message->msg_iovlen, room,
            message->msg_controllen);
        auto* const buffer = static_cast<char*>(message->msg_iov->iov_base);
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
        // The bytes behind the datagram must not matter.
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
    template <typename... Values>
    void record(char const* call, Values const&... values) {
        std::ostringstream line;
        line << call;
        ((line << ' ' << values), ...);
        m_calls.push_back(line.str());
    }

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

    Steps m_steps;
    std::string m_filling;
    size_t m_next = 0;
    NetDeviceMonitor* m_monitor = nullptr;
    int m_fd = -1;
    Log m_calls;
    Log m_requests;
    Log m_wakes;
    std::atomic<int> m_closes{0};
};

} // namespace

// Each function calls the kernel of the test, or else the real function.
#define VESK_ASK_KERNEL(result, name, parameters, arguments, answer)                                         \
    VESK_ANSWER(                                                                                             \
        result, -1, name, parameters, arguments,                                                             \
        if (Kernel* const kernel = Kernel::getCurrent()) { answer; })

VESK_ASK_KERNEL(
    int, socket, (int family, int type, int protocol), (family, type, protocol),
    return kernel->makeSocket(family, type, protocol))
VESK_ASK_KERNEL(
    int, bind, (int fd, sockaddr const* address, socklen_t size), (fd, address, size),
    return kernel->bindSocket(fd, address, size))
VESK_ASK_KERNEL(
    ssize_t, sendmsg, (int fd, msghdr const* message, int flags), (fd, message, flags),
    return kernel->sendMessage(fd, message, flags))
VESK_ASK_KERNEL(
    ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags),
    return kernel->receiveMessage(fd, message, flags))
VESK_ASK_KERNEL(
    ssize_t, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags),
    return kernel->wake(fd, data, size, flags))
VESK_ASK_KERNEL(int, close, (int fd), (fd), kernel->noteClose(fd))

// Counts the pauses of the watching thread and records the length of the last one, without pausing.
Injected inject_nanosleep("nanosleep");
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

/// Everything that a monitor reports about datagrams that follow the two dumps.
struct Reported {
    Log log;
    std::string interface {}; ///< As the last call received it.
    std::string events{};

    bool operator==(Reported const& other) const {
        return log == other.log && interface == other.interface && events == other.events;
    }
};

std::ostream& operator<<(std::ostream& stream, Reported const& reported) {
    for (std::string const& line : reported.log) {
        stream << line << "\n";
    }
    return stream << reported.interface << "\n" << reported.events;
}

Reported decodeOnce(Steps const& datagrams, std::string const& filling) {
    RecordingListener listener;
    NetDeviceMonitor monitor(&listener);
    EventRecorder const events;
    Kernel kernel(Steps{DONE, DONE} + datagrams, filling);
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(0U, kernel.countStepsLeft());
    EXPECT_TRUE(chainIs({}));
    return {listener.take(), listener.getInterface(), events.getText()};
}

std::string const FILLINGS[] = {
    std::string(1, '\0'), std::string(1, '\xff'), std::string("\x08\x00\x01\x00\x10\x00\x00\x00", 8)};

/// Decodes the datagrams with different bytes behind them, in the end with a plausible continuation. The
/// result must be the same.
Reported decode(Steps const& datagrams) {
    Reported const reported = decodeOnce(datagrams, FILLINGS[0]);
    Message const plausible = linkMessage(RTM_NEWLINK, 9).add(IFLA_IFNAME, std::string("evil", 5));
    EXPECT_EQ(reported, decodeOnce(datagrams, FILLINGS[1]));
    EXPECT_EQ(reported, decodeOnce(datagrams, FILLINGS[2]));
    EXPECT_EQ(reported, decodeOnce(datagrams, padded(plausible.get())));
    return reported;
}

using Attribute = Message::Attribute;
using Attributes = std::vector<Attribute>;

std::string const MAC("\x00\x1a\x2b\x3c\x4d\x5e", 6);
constexpr char const* MAC_TEXT = "00:1a:2b:3c:4d:5e";
std::string const NAME("eth0", 5);
std::string const MTU = bytesOf(1500);
Log const LINK_LOG = interfaceAppears("eth0");
Log const LINK_LOG_WITH_MAC = LINK_LOG + addressAppears(MAC_TEXT);
Log const STATUS = {"interface_status eth0"};
Log const REMOVED = {"interface_disappeared eth0"};
Log const BLANK_REMOVED = {"interface_disappeared "};
constexpr char const* PLAIN = "3 eth0 mtu 0 up operable []";
constexpr char const* WITH_MTU = "3 eth0 mtu 1500 up operable []";
constexpr char const* WITH_MAC = "3 eth0 mtu 0 up operable [00:1a:2b:3c:4d:5e]";
constexpr char const* WITH_MTU_AND_MAC = "3 eth0 mtu 1500 up operable [00:1a:2b:3c:4d:5e]";
constexpr char const* NAME_MISSING =
    "ASSERT framework/src/vesk/linux/NetDeviceMonitorImpl handleIfInfo: name";

Message link(int index = 3, unsigned int flags = 0, Attributes const& attributes = {}) {
    return linkMessage(RTM_NEWLINK, index, flags).addAll(attributes);
}
Message eth0(Attributes const& attributes = {}, int index = 3, unsigned int flags = 0) {
    return link(index, flags, {{IFLA_IFNAME, NAME}}).addAll(attributes);
}
Message numbered(int index) {
    return link(index, 0, {{IFLA_IFNAME, "if" + std::to_string(index)}});
}
Message removal(int index = 3, Attributes const& attributes = {}) {
    return linkMessage(RTM_DELLINK, index).addAll(attributes);
}

template <typename Binary = in_addr>
std::string ipv4(char const* text, int family = AF_INET) {
    Binary address{};
    EXPECT_EQ(1, inet_pton(family, text, &address));
    return bytesOf(address);
}
std::string ipv6(char const* text) {
    return ipv4<in6_addr>(text, AF_INET6);
}

/// Attributes with addresses as texts.
using Addresses = std::vector<std::pair<uint16_t, char const*>>;

Message ipv4Message(Addresses const& addresses = {}, unsigned int prefix = 24) {
    Message message = addressMessage(RTM_NEWADDR, AF_INET, prefix, 3);
    for (auto const& [type, text] : addresses) {
        message.add(type, ipv4(text));
    }
    return message;
}
Message ipv6Message(Addresses const& addresses = {}, unsigned int prefix = 64, unsigned int flags = 0) {
    Message message = addressMessage(RTM_NEWADDR, AF_INET6, prefix, 3, flags);
    for (auto const& [type, text] : addresses) {
        message.add(type, ipv6(text));
    }
    return message;
}
Message removedAddress(char const* text) {
    return addressMessage(RTM_DELADDR, AF_INET, 24, 3).add(IFA_LOCAL, ipv4(text));
}
static_assert(IFA_ADDRESS == 1 && IFA_LOCAL == 2 && IFA_BROADCAST == 4);

Message const LINK = eth0({{IFLA_ADDRESS, MAC}});
Message const ADDRESS_1 = ipv4Message({{IFA_LOCAL, "10.0.0.1"}});
Message const ADDRESS_2 = ipv4Message({{IFA_LOCAL, "10.0.0.2"}});
std::string const TEXT_1 = "10.0.0.1/255.255.255.0";
std::string const TEXT_2 = "10.0.0.2/255.255.255.0";
constexpr char const* WITH_ADDRESS_1 = "3 eth0 mtu 0 up operable [10.0.0.1/255.255.255.0]";

/// Returns an IPv6 address with the netmask of 64 bits.
std::string with64(std::string const& address, std::string const& peer) {
    return address + "/ffff:ffff:ffff:ffff:0000:0000:0000:0000" + (peer.empty() ? "" : " peer ") + peer;
}
std::string const PEER_ONLY = with64("-", "fd00::1");
constexpr char const* WITH_PEER =
    "3 eth0 mtu 0 up operable [-/ffff:ffff:ffff:ffff:0000:0000:0000:0000 peer fd00::1]";

struct Row : NamedRow {
    Steps datagrams;
    Reported expected;
};

Row row(
    char const* name, Steps const& datagrams, Log const& log, char const* interface = "",
    char const* events = "") {
    return {name, datagrams, {log, interface, events}};
}

class Decoding : public testing::TestWithParam<Row> {};

TEST_P(Decoding, reportsTheContentOfTheDatagrams) {
    EXPECT_EQ(GetParam().expected, decode(GetParam().datagrams));
}

INSTANTIATE_TEST_SUITE_P(
    LinkMessage, Decoding,
    testing::Values(
        row("allFields",
            {link(
                3, IFF_BROADCAST | IFF_LOOPBACK | IFF_POINTOPOINT,
                {{IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}, {IFLA_MTU, MTU}, {IFLA_OPERSTATE, "\x06"}})},
            LINK_LOG_WITH_MAC,
            "3 eth0 mtu 1500 up operable broadcast point_to_point loopback [00:1a:2b:3c:4d:5e]"),
        row("onlyTheStatusOfAKnownInterface", Steps(3, LINK), LINK_LOG_WITH_MAC + STATUS + STATUS, WITH_MAC),
        row("aChangedMac", {LINK, eth0({{IFLA_ADDRESS, "\x02\x1a\x2b\x3c\x4d\x5e"}})},
            LINK_LOG_WITH_MAC + STATUS + addressAppears("02:1a:2b:3c:4d:5e"),
            "3 eth0 mtu 0 up operable [00:1a:2b:3c:4d:5e, 02:1a:2b:3c:4d:5e]"),
        row("assertsWithoutAName", {link(3, 0, {{IFLA_ADDRESS, MAC}, {IFLA_MTU, MTU}})}, Log(), "",
            NAME_MISSING),
        row("aNegativeNumberIsCutTo16Bits", {eth0({}, -1)}, LINK_LOG, "65535 eth0 mtu 0 up operable []"),
        row("aLargeNumberIsCutTo16Bits", {eth0({}, 0x10001)}, LINK_LOG, "1 eth0 mtu 0 up operable []"),
        row("aRemovalNeedsNoName", {eth0(), removal()}, LINK_LOG + REMOVED, PLAIN),
        row("aRemovalReportsAllAddresses", {LINK, removal(3, {{IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}})},
            LINK_LOG_WITH_MAC + addressDisappears(MAC_TEXT) + REMOVED, WITH_MAC),
        row("aRemovalOfAnUnknownInterfaceReportsABlankOne", {removal()}, BLANK_REMOVED, "0  mtu 0 []"),
        row("aRemovalIsNotCutTo16Bits", {eth0({}, 1), removal(0x10001)}, LINK_LOG + BLANK_REMOVED,
            "0  mtu 0 []"),
        row("theFirstSixBytesOfALongMac", {eth0({{IFLA_ADDRESS, MAC + "more of it"}})}, LINK_LOG_WITH_MAC,
            WITH_MAC),
        row("aShortAttributeKeepsTheEarlierValue",
            {eth0(
                {{IFLA_MTU, MTU},
                 {IFLA_ADDRESS, MAC},
                 {IFLA_MTU, "xxx"},
                 {IFLA_ADDRESS, "xxx"},
                 {IFLA_OPERSTATE, ""}})},
            LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC),
        row("theLastOfRepeatedAttributes",
            {link(3, 0, {{IFLA_IFNAME, "old"}, {IFLA_MTU, bytesOf(1)}, {IFLA_ADDRESS, "xxxxxx"}})
                 .addAll({{IFLA_IFNAME, NAME}, {IFLA_MTU, MTU}, {IFLA_ADDRESS, MAC}})},
            LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC),
        row("withoutItsLastByteIsIgnored", {Message(RTM_NEWLINK, std::string(15, '\x01'))}, Log()),
        row("theFixedFieldsAlone", {Message(RTM_NEWLINK, std::string(16, '\x01'))}, Log(), "", NAME_MISSING),
        row("aRemovalWithoutItsLastByteIsIgnored", {Message(RTM_DELLINK, std::string(15, '\x01'))}, Log()),
        row("aRemovalOfTheFixedFieldsAlone", {Message(RTM_DELLINK, std::string(16, '\x01'))}, BLANK_REMOVED,
            "0  mtu 0 []")),
    byName);

TEST(LinkMessage, hasItsFlagsButItsStateDoesNotMatter) {
    std::pair<unsigned int, char const*> const rows[] = {
        {0, ""},
        {0x2, "broadcast "},
        {0x10, "point_to_point "},
        {0x8, "loopback "},
        // IFF_UP and IFF_RUNNING are ignored.
        {0x1, ""},
        {0x40, ""},
        {~0x1aU, ""},
        {~0U, "broadcast point_to_point loopback "}};
    for (auto const& [flags, text] : rows) {
        std::string const interface = std::string("3 eth0 mtu 0 up operable ") + text + "[]";
        EXPECT_EQ((Reported{LINK_LOG, interface}), decode({eth0({}, 3, flags)}));
    }
    for (char state = 0; state < 8; ++state) {
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({eth0({{IFLA_OPERSTATE, std::string(1, state)}})}));
    }
}

TEST(LinkMessage, mayHaveItsAttributesInAnyOrder) {
    Attribute const attributes[] = {
        {IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}, {IFLA_MTU, MTU}, {IFLA_OPERSTATE, "\x06"}};
    int order[] = {0, 1, 2, 3};
    do {
        Message message = link();
        for (int const i : order) {
            message.addAll({{IFLA_QDISC, "noqueue"}, attributes[i]});
        }
        EXPECT_EQ((Reported{LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC}), decodeOnce({message}, "x"));
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

using namespace std::string_literals;

TEST(LinkMessage, hasANameThatEndsAtItsZeroOrWithItsAttribute) {
    for (auto const& [data, name] :
         {std::pair("eth0\0"s, "eth0"s),
          {"eth0"s, "eth0"s},
          {"eth01"s, "eth01"s},
          {"eth0123"s, "eth0123"s},
          {"a\0b\0"s, "a"s},
          {"\0"s, ""s},
          {""s, ""s},
          {std::string(15, 'n') + '\0', std::string(15, 'n')},
          {std::string(40, 'n'), std::string(40, 'n')}}) {
        Message message = link().add(IFLA_IFNAME, data);
        EXPECT_EQ(interfaceAppears(name), decode({message}).log);
        message.add(IFLA_MTU, bytesOf(0x41414141));
        EXPECT_EQ(interfaceAppears(name), decode({message}).log) << "before another attribute";
    }
}

TEST(LinkMessage, isReportedWithoutAttributesThatAreTooShort) {
    for (size_t size = 0; size < 6; ++size) {
        Attribute const mac(IFLA_ADDRESS, MAC.substr(0, size));
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({eth0({mac})})) << size;
        EXPECT_EQ((Reported{LINK_LOG, WITH_MTU}), decode({eth0({mac, {IFLA_MTU, MTU}})})) << size;
    }
    for (size_t size = 0; size < 4; ++size) {
        std::string const mtu = bytesOf(0x01010101).substr(0, size);
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({eth0({{IFLA_MTU, mtu}})})) << size;
    }
    for (char const* const rest : {"\x04", "\x04\x01", "\x04\x01\x02"}) {
        Message const message(RTM_NEWLINK, (padded(eth0()) + rest).substr(sizeof(nlmsghdr)));
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({message}));
    }
    // A wrong length ends the walk over the attributes.
    for (int const length : {0, 1, 2, 3, 21, 22, 24, 255, 0x7fff, 0xffff}) {
        Message const message = eth0().add(IFLA_ADDRESS, MAC, length).add(IFLA_MTU, MTU);
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({message})) << length;
    }
}

TEST(LinkMessage, mayEndWithAnAttributeThatIsNotPadded) {
    Message const message = link(3, 0, {{IFLA_MTU, MTU}, {IFLA_IFNAME, NAME}}); // 5 bytes of name.
    ASSERT_EQ(49U, message.get().size());
    EXPECT_EQ((Reported{LINK_LOG, WITH_MTU}), decode({message}));
}

/// Expects that each beginning of a message has the last of the results that start at its size or before.
void expectCuts(Message const& message, std::vector<std::pair<size_t, Reported>> const& results) {
    ASSERT_EQ(results.back().first, message.get().size());
    for (size_t size = 1; size <= message.get().size(); ++size) {
        Reported expected;
        for (auto const& [begin, reported] : results) {
            expected = size >= begin ? reported : expected;
        }
        EXPECT_EQ(expected, decode({message.getCut(size)})) << size;
    }
}

// Each attribute counts as soon as it is complete. The fixed fields end at 32.
TEST(LinkMessage, isReportedAsFarAsItIsComplete) {
    expectCuts(
        link(3, 0, {{IFLA_MTU, MTU}, {IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}}),
        {{32, {{}, "", NAME_MISSING}},
         {49, {LINK_LOG, WITH_MTU}},
         {62, {LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC}}});
}

// The fixed fields end at 24.
TEST(AddressMessage, isReportedAsFarAsItIsComplete) {
    auto const reported = [](std::string const& address) {
        return Reported{{"address_appeared  " + address}, "0  mtu 0 [" + address + "]"};
    };
    expectCuts(
        ipv4Message({{IFA_ADDRESS, "10.0.0.9"}, {IFA_LOCAL, "10.0.0.1"}, {IFA_BROADCAST, "10.0.0.255"}}),
        {{24, reported("-/255.255.255.0")},
         {32, reported("10.0.0.9/255.255.255.0")},
         {40, reported("10.0.0.1/255.255.255.0")},
         {48, reported("10.0.0.1/255.255.255.0 peer 10.0.0.255")}});
}

// A message that is longer than the received bytes is not read.
TEST(Datagram, isSkippedIfItsMessageIsIncomplete) {
    Message const message = eth0({{IFLA_MTU, MTU}});
    for (size_t size = 1; size < message.get().size(); ++size) {
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({message.get().substr(0, size), eth0()})) << size;
    }
}

TEST(Datagram, isReadUpToAWrongLength) {
    for (uint32_t const length :
         {0U, 1U, 4U, 15U, 53U, 4096U, 4097U, 0x7fffffffU, 0x80000000U, 0xfffffffcU, 0xfffffffdU,
          0xffffffffU}) {
        Message const wrong = eth0({{IFLA_MTU, MTU}}).setLength(length);
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({wrong, eth0()})) << length;
    }
    for (uint32_t const length :
         {0U, 1U, 15U, 500U, 4096U, 0x7fffffffU, 0x80000000U, 0xfffffff0U, 0xfffffffdU, 0xffffffffU}) {
        EXPECT_EQ(
            (Reported{interfaceAppears("if1"), "1 if1 mtu 0 up operable []"}),
            decode({datagramOf({numbered(1), numbered(2).setLength(length), numbered(3)})}))
            << length;
    }
}

TEST(Datagram, isReadWithoutMessagesOfOtherTypesAndFamilies) {
    for (uint16_t const type :
         std::initializer_list<uint16_t>{0, 1, 2, 4, 15, 18, 19, 22, 23, 24, 25, 28, 0x110, 0xffff}) {
        Message const other = eth0({}, 4).setType(type);
        EXPECT_EQ((Reported{LINK_LOG, PLAIN}), decode({other, datagramOf({other, eth0()})})) << type;
    }
    for (int const family : {0, 1, 3, 7, 9, 11, 17, 255}) {
        std::string const data(16, 'x');
        EXPECT_EQ(
            Reported(),
            decode(
                {addressMessage(RTM_NEWADDR, family, 24, 3).add(IFA_LOCAL, data),
                 addressMessage(RTM_DELADDR, family, 24, 3).add(IFA_LOCAL, data)}))
            << family;
    }
}

TEST(Datagram, isReportedMessageByMessageEachAligned) {
    for (size_t length = 1; length <= 9; ++length) {
        std::string const name(length, 'n');
        EXPECT_EQ(
            interfaceAppears(name) + interfaceAppears("if2") + interfaceAppears("if3"),
            decode({datagramOf({link(1).add(IFLA_IFNAME, name), numbered(2), numbered(3)})}).log);
    }
}

TEST(Datagram, mayEndWithoutPadding) {
    Message const last = link(2, 0, {{IFLA_MTU, bytesOf(7)}, {IFLA_IFNAME, "last\0"s}});
    Log const expected = interfaceAppears("if1") + interfaceAppears("last");
    ASSERT_NE(0U, last.get().size() % 4);
    EXPECT_EQ(expected, decode({datagramOf({numbered(1), last})}).log);
    // Padding alone is no message.
    for (size_t rest = 1; rest < 16; ++rest) {
        std::string const padding(rest, '\x10');
        EXPECT_EQ(expected, decode({datagramOf({numbered(1), last, padding})}).log) << rest;
    }
}

// 17 bytes are less than the fixed fields; the next message is at 20.
TEST(Datagram, isReadBehindAMessageThatIsTooShort) {
    for (uint16_t const type : {RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR}) {
        for (size_t const length : {16U, 17U, 20U, 23U}) {
            Message const message(type, std::string(length - 16, '\x02'));
            EXPECT_EQ(interfaceAppears("if1"), decode({datagramOf({message, numbered(1)})}).log);
        }
    }
}

TEST(Datagram, mayBeAsLargeAsTheBuffer) {
    Message message = eth0();
    message.add(IFLA_IFALIAS, std::string(4096 - message.get().size() % 4 - 64, 'x'));
    std::string datagram = message;
    while (datagram.size() % 4 != 0 || datagram.size() + 44 <= 4096) {
        datagram = datagramOf({datagram, datagram.size() % 4 != 0 ? "" : numbered(7).get()});
    }
    ASSERT_LE(datagram.size(), 4096U);
    EXPECT_EQ("interface_appeared eth0", decode({datagram}).log.front());
}

// The kernel cuts what does not fit: the message at the cut is incomplete.
TEST(Datagram, losesTheMessageThatExceedsTheBuffer) {
    Message const large = link(2, 0, {{IFLA_IFALIAS, std::string(5000, 'x')}, {IFLA_IFNAME, "if2"}});
    EXPECT_EQ(
        interfaceAppears("if1") + interfaceAppears("if3"),
        decode({datagramOf({numbered(1), large}), numbered(3)}).log);
}

// Nothing outside of the datagram influences the result, whichever byte is changed.
TEST(Datagram, isReadInsideItsBoundsWithAnyContent) {
    std::string const datagram = datagramOf(
        {link(3, IFF_BROADCAST, {{IFLA_IFNAME, "eth0"}, {IFLA_MTU, MTU}, {IFLA_ADDRESS, MAC}}),
         ipv6Message({{IFA_ADDRESS, "fd00::1"}}),
         ipv4Message({{IFA_LOCAL, "10.0.0.1"}, {IFA_BROADCAST, "10.0.0.255"}})});
    for (size_t i = 0; i < datagram.size(); ++i) {
        for (int const value : {0, 1, 3, 5, 0x10, 0x40, 0x7f, 0xff}) {
            std::string changed = datagram;
            changed[i] = static_cast<char>(value);
            Reported const reported = decodeOnce({changed}, FILLINGS[0]);
            EXPECT_EQ(reported, decodeOnce({changed}, FILLINGS[1])) << i << " " << value;
            EXPECT_EQ(reported, decodeOnce({changed}, FILLINGS[2])) << i << " " << value;
        }
    }
}

Row row(char const* name, Message const& message, std::string const& text) {
    return {
        name,
        {eth0(), message},
        {LINK_LOG + addressAppears(text), "3 eth0 mtu 0 up operable [" + text + "]"}};
}

INSTANTIATE_TEST_SUITE_P(
    IPv4, Decoding,
    testing::Values(
        row("no attribute", ipv4Message(), "-/255.255.255.0"), row("IFA_LOCAL alone", ADDRESS_1, TEXT_1),
        row("IFA_ADDRESS alone", ipv4Message({{IFA_ADDRESS, "10.0.0.1"}}), TEXT_1),
        row("as the kernel sends it",
            ipv4Message({{IFA_ADDRESS, "10.0.0.1"}, {IFA_LOCAL, "10.0.0.1"}, {IFA_BROADCAST, "10.0.0.255"}})
                .add(IFA_LABEL, NAME),
            "10.0.0.1/255.255.255.0 peer 10.0.0.255"),
        row("with a far end: the later attribute wins",
            ipv4Message({{IFA_ADDRESS, "10.0.0.2"}, {IFA_LOCAL, "10.0.0.1"}}, 32),
            "10.0.0.1/255.255.255.255"),
        row("with a far end behind it", ipv4Message({{IFA_LOCAL, "10.0.0.1"}, {IFA_ADDRESS, "10.0.0.2"}}, 32),
            "10.0.0.2/255.255.255.255"),
        row("broadcast alone", ipv4Message({{IFA_BROADCAST, "10.0.0.255"}}),
            "-/255.255.255.0 peer 10.0.0.255"),
        row("a first attribute of 16 to 31 bytes: IFA_ADDRESS is the peer",
            ipv4Message().addAll({{IFA_LABEL, "twelve bytes"}, {IFA_ADDRESS, ipv4("10.0.0.1")}}),
            "-/255.255.255.0 peer 10.0.0.1"),
        row("a first attribute of 32 bytes: IFA_ADDRESS is the address",
            ipv4Message().addAll({{IFA_LABEL, std::string(28, 'x')}, {IFA_ADDRESS, ipv4("10.0.0.1")}}),
            TEXT_1),
        row("too short", ipv4Message().addAll({{IFA_LOCAL, "abc"}, {IFA_ADDRESS, ""}, {IFA_BROADCAST, "x"}}),
            "-/255.255.255.0"),
        row("too short behind a good one", Message(ADDRESS_1).add(IFA_LOCAL, "abc"), TEXT_1),
        row("too long", ipv4Message().add(IFA_LOCAL, ipv4("10.0.0.1") + "more"), TEXT_1),
        row("prefix 0", ipv4Message({{IFA_LOCAL, "10.0.0.1"}}, 0), "10.0.0.1/0.0.0.0"),
        row("prefix 200", ipv4Message({{IFA_LOCAL, "10.0.0.1"}}, 200), "10.0.0.1/255.255.255.255"),
        row("other attributes", ipv4Message({{3, "10.0.0.1"}, {5, "10.0.0.1"}}).add(7, "x"),
            "-/255.255.255.0")));

INSTANTIATE_TEST_SUITE_P(
    IPv6, Decoding,
    testing::Values(
        row("as the kernel sends it: IFA_ADDRESS is the peer",
            ipv6Message({{IFA_ADDRESS, "fd00::1"}})
                .addAll({{IFA_CACHEINFO, std::string(16, 'x')}, {IFA_FLAGS, bytesOf(0x80)}}),
            PEER_ONLY),
        row("with a far end, as the kernel sends it",
            ipv6Message({{IFA_LOCAL, "fd00::1"}, {IFA_ADDRESS, "fd00::2"}}), with64("fd00::1", "fd00::2")),
        row("a first attribute of 4 bytes: IFA_ADDRESS is the address",
            ipv6Message().addAll({{IFA_FLAGS, bytesOf(0x80)}, {IFA_ADDRESS, ipv6("fd00::1")}}),
            with64("fd00::1", "")),
        row("a first attribute of 16 bytes that is no address",
            ipv6Message().addAll({{IFA_CACHEINFO, std::string(16, 'x')}, {IFA_ADDRESS, ipv6("fd00::1")}}),
            PEER_ONLY),
        row("too short",
            ipv6Message().addAll({{IFA_ADDRESS, ipv4("10.0.0.1")}, {IFA_LOCAL, std::string(15, 'x')}}),
            with64("-", "")),
        row("prefix 0", ipv6Message({{IFA_LOCAL, "::1"}}, 0), "::1/0000:0000:0000:0000:0000:0000:0000:0000"),
        row("prefix 200", ipv6Message({{IFA_LOCAL, "::1"}}, 200),
            "::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")));

// The removal of a tentative address is invisible, too.
INSTANTIATE_TEST_SUITE_P(
    AddressMessage, Decoding,
    testing::Values(
        row("aTentativeAddressWhenTheKernelRepeatsItWithoutTheFlag",
            {eth0(), ipv6Message({{IFA_ADDRESS, "fd00::1"}}, 64, 0xc0),
             ipv6Message({{IFA_ADDRESS, "fd00::1"}}, 64, 0x80),
             ipv6Message({{IFA_ADDRESS, "fd00::1"}}, 64, 0x80),
             addressMessage(RTM_DELADDR, AF_INET6, 64, 3, 0xc0).add(IFA_ADDRESS, ipv6("fd00::1"))},
            LINK_LOG + addressAppears(PEER_ONLY), WITH_PEER),
        row("aRemovalOnce", {eth0(), ADDRESS_1, removedAddress("10.0.0.1"), removedAddress("10.0.0.1")},
            LINK_LOG + addressAppears(TEXT_1) + addressDisappears(TEXT_1), WITH_ADDRESS_1),
        row("theNumberOfTheInterfaceIsCutTo16Bits",
            {eth0(), addressMessage(RTM_NEWADDR, AF_INET, 24, 0x10003).add(IFA_LOCAL, ipv4("10.0.0.1"))},
            LINK_LOG + addressAppears(TEXT_1), WITH_ADDRESS_1),
        row("onlyTheFirstOfManyIPv6AddressesWithoutAFarEnd",
            {eth0(), ipv6Message({{IFA_ADDRESS, "fd00::1"}}), ipv6Message({{IFA_ADDRESS, "fd00::2"}}),
             ipv6Message({{IFA_ADDRESS, "fe80::3"}})},
            LINK_LOG + addressAppears(PEER_ONLY), WITH_PEER)),
    byName);

TEST(AddressMessage, isIgnoredWhileTheAddressIsTentative) {
    for (int const family : {AF_INET, AF_INET6}) {
        std::string const data = family == AF_INET ? ipv4("10.0.0.1") : ipv6("fd00::1");
        for (unsigned int const flags : {0x40U, 0xc0U, 0xffU, 0x80U, 0xbfU}) {
            Message const message = addressMessage(RTM_NEWADDR, family, 24, 3, flags).add(IFA_LOCAL, data);
            size_t const lines = (flags & IFA_F_TENTATIVE) != 0 ? 2 : 4;
            EXPECT_EQ(lines, decode({eth0(), message}).log.size()) << flags;
        }
    }
}

Step const LOST = Step::failure(ENOBUFS);
Step const SIGNAL = Step::failure(EINTR);
Step const BROKEN = Step::failure(EBADF);

/// A monitor that watches a kernel until its last step, and the kernel of the latest watch.
class Watch : public testing::Test {
protected:
    /// Watches, and returns the log. Expects that the watch fails with this number, or succeeds without one.
    Log watch(Steps const& steps, int error = 0) {
        m_kernel.emplace(steps);
        EXPECT_EQ(error != 0, m_kernel->watch(m_monitor));
        EXPECT_TRUE(error != 0 ? causeIs(SysErrorId::UNCLASSIFIED, error) : chainIs({}));
        EXPECT_EQ(1, m_kernel->countCloses());
        EXPECT_EQ("close fd", m_kernel->getCalls().back());
        return m_listener.take();
    }

    Step stopDuring(Step const& step) {
        return step.during([this] { m_monitor.stopWatching(); });
    }

    RecordingListener m_listener;
    NetDeviceMonitor m_monitor{&m_listener};
    std::optional<Kernel> m_kernel;
};

TEST_F(Watch, makesTheseCallsAndRequestsInterfacesThenAddresses) {
    watch({DONE, DONE});
    std::string const request = "sendmsg fd " + std::to_string(MSG_EOR) + " 0 100000000000000000000000 1 0 -";
    std::string const reception = "recvmsg fd 0 12 1 4096 0";
    EXPECT_EQ(
        (
            Log{"socket 16 " + std::to_string(SOCK_DGRAM | SOCK_CLOEXEC) + " 0",
                "bind fd 100000000000000011010000", request, reception, request, reception, reception,
                "close fd"}),
        m_kernel->getCalls());
    EXPECT_EQ(0x80, MSG_EOR);
    EXPECT_EQ(
        (Log{"1100000012000103010000000000000000", "1100000016000103010000000000000000"}),
        m_kernel->getRequests());
    EXPECT_EQ((Log{"fd 0 10000000000004000000000000000000"}), m_kernel->getWakes()) << "an empty request";
    for (int i = 0; i < 2; ++i) { // It leaves no socket for a late stop, and stays stopped.
        m_monitor.stopWatching();
        EXPECT_EQ(1U, m_kernel->getWakes().size());
    }
    for (int i = 0; i < 2; ++i) {
        watch({DONE, DONE});
        EXPECT_EQ(0U, m_kernel->getWakes().size());
    }
}

struct WatchRow : NamedRow {
    Steps steps;
    Log log{};
    int error = 0;
    size_t requests = 2;
    int pauses = 0;
};

class WatchRows : public Watch, public testing::WithParamInterface<WatchRow> {};

TEST_P(WatchRows, haveThisLogAndThisEnd) {
    int const sleeps = s_sleeps;
    EXPECT_EQ(GetParam().log, watch(GetParam().steps, GetParam().error));
    EXPECT_EQ(GetParam().requests, m_kernel->getRequests().size());
    EXPECT_EQ(0U, m_kernel->countStepsLeft());
    EXPECT_EQ(GetParam().pauses, s_sleeps - sleeps);
    if (GetParam().pauses != 0) {
        EXPECT_EQ(100000000, s_last_sleep_ns);
    }
}

Message const END(NLMSG_DONE);
Steps const DUMP_OF_IF1 = {EMPTY, numbered(1), DONE, DONE};
Log const IF1 = interfaceAppears("if1");

INSTANTIATE_TEST_SUITE_P(
    Dump, WatchRows,
    rowsOf<WatchRow>({
        {"reportsTheStartOfAnInterfaceInItsOrder",
         {eth0({{IFLA_MTU, MTU}, {IFLA_ADDRESS, MAC}}, 3, IFF_BROADCAST), DONE,
          ipv4Message({{IFA_ADDRESS, "10.0.0.1"}, {IFA_LOCAL, "10.0.0.1"}}), DONE},
         LINK_LOG_WITH_MAC + addressAppears(TEXT_1)},
        {"ignoresMessagesBehindItsEnd", {datagramOf({numbered(1), doneMessage(), numbered(2)}), DONE}, IF1},
        {"endsAtTheBeginningOfADatagram", {datagramOf({doneMessage(), numbered(2)}), DONE}},
        {"mayEndAgain", {DONE, DONE, DONE, numbered(1), DONE, numbered(2)}, IF1 + interfaceAppears("if2")},
        // The address creates an entry, which never gets a name.
        {"includesChanges",
         {ADDRESS_1, eth0(), DONE, removal(), DONE},
         Log{"address_appeared  " + TEXT_1, "interface_status ", "address_operable  " + TEXT_1} +
             addressDisappears(TEXT_1, "") + BLANK_REMOVED},
    }),
    byName);

// The watch requests a new dump of what was lost, or continues on the same socket.
INSTANTIATE_TEST_SUITE_P(
    FailedReception, WatchRows,
    rowsOf<WatchRow>({
        {"inTheDumpOfInterfaces", Steps{LOST, DONE} + DUMP_OF_IF1, IF1, ENOBUFS, 4},
        {"inTheDumpOfAddresses", Steps{DONE, LOST} + DUMP_OF_IF1, IF1, ENOBUFS, 4},
        {"afterTheDumps", Steps{DONE, DONE, LOST} + DUMP_OF_IF1, IF1, ENOBUFS, 4},
        {"withMessagesInTheQueue", {DONE, DONE, LOST, numbered(1), EMPTY, DONE}, IF1, ENOBUFS, 4},
        {"nothingInsteadOfInterfaces", Steps{Step::nothing(ENOBUFS), DONE} + DUMP_OF_IF1, IF1, ENOBUFS, 4},
        {"nothingInsteadOfAddresses", Steps{DONE, Step::nothing(ENOBUFS)} + DUMP_OF_IF1, IF1, ENOBUFS, 4},
        {"anInterruption", {DONE, DONE, SIGNAL, LOST, numbered(1)}, IF1, ENOBUFS},
        {"anInterruptionIsNotRepeated", {SIGNAL, DONE, DONE}, {}, EINTR},
    }),
    byName);

// Two attempts follow each other at once, the others after pauses.
INSTANTIATE_TEST_SUITE_P(
    RepeatedFailure, WatchRows,
    rowsOf<WatchRow>({
        {"manyTimes", Steps{DONE, DONE, SIGNAL, LOST, LOST, EMPTY, LOST, DONE} + DUMP_OF_IF1, IF1, ENOBUFS, 6,
         1},
        {"once", {DONE, DONE, BROKEN}, {}, EBADF},
        // The last attempt finds the monitor stopped.
        {"permanently", Steps{DONE, DONE} + Steps(50, BROKEN), {}, EBADF, 2, 49},
        {"permanentResultOf0", Steps{DONE, DONE} + Steps(10, Step::nothing(EIO)), {}, EIO, 2, 9},
        {"withMessagesBetween", {DONE, DONE, BROKEN, DONE, BROKEN, DONE, BROKEN, DONE}, {}, EBADF},
        {"interruptionsBySignals", Steps{DONE, DONE} + Steps(10, SIGNAL), {}, EINTR},
        {"whileItEmptiesTheQueue", {DONE, DONE, LOST, BROKEN, BROKEN, EMPTY, DONE}, {}, EBADF, 4, 2},
    }),
    byName);

TEST_F(Watch, requestsTheAddressesOnlyAtTheEndOfTheInterfaces) {
    watch({eth0(), numbered(4), DONE, ADDRESS_1, DONE});
    EXPECT_EQ(
        "socket bind sendmsg recvmsg recvmsg recvmsg sendmsg recvmsg recvmsg recvmsg close",
        m_kernel->getCallNames());
}

TEST_F(Watch, ignoresAnIncompleteEndOfADump) {
    Steps const ends = {END.get().substr(0, 15), Message(END).setLength(15), Message(END).setLength(17)};
    EXPECT_EQ(LINK_LOG, watch(ends + Steps{eth0(), DONE, DONE}));
    // Five receptions until the first dump ends.
    EXPECT_EQ(
        "socket bind sendmsg recvmsg recvmsg recvmsg recvmsg recvmsg sendmsg recvmsg recvmsg close",
        m_kernel->getCallNames());
}

TEST_F(Watch, takesOneDatagramOfEachDumpIfItWasStoppedBefore) {
    m_monitor.stopWatching();
    EXPECT_EQ(IF1 + interfaceAppears("if2"), watch({numbered(1), numbered(2), numbered(3)}));
    EXPECT_EQ(2U, m_kernel->getRequests().size());
    EXPECT_EQ(0U, m_kernel->getWakes().size());
}

TEST_F(Watch, canBeStoppedByACallback) {
    m_listener.on_call = [this](std::string const& line) {
        if (line == "interface_appeared if2") {
            m_monitor.stopWatching();
        }
    };
    EXPECT_EQ(4U, watch({DONE, DONE, numbered(1), numbered(2), numbered(3)}).size());
    EXPECT_EQ(1U, m_kernel->countStepsLeft());
    EXPECT_EQ(1U, m_kernel->getWakes().size());
}

TEST_F(Watch, worksWithoutAListener) {
    NetDeviceMonitor monitor(nullptr);
    std::ErrorStorage::ack();
    EventRecorder const events;
    Kernel kernel({eth0(), DONE, DONE, removal()});
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(3U, events.getCount());
}

TEST_F(Watch, failsWithoutASocketOrItsNumber) {
    for (int const error : {EMFILE, ENFILE, ENOBUFS, EPROTONOSUPPORT, EACCES}) {
        Fault const fault(inject_socket, error);
        Kernel kernel({DONE, DONE});
        EXPECT_TRUE(kernel.watch(m_monitor));
        EXPECT_TRUE(causeIs(Socket::ErrorId::CREATE_FAILED, error));
        EXPECT_EQ(0U, kernel.getCalls().size());
    }
    for (int const error : {EADDRINUSE, ENOMEM, EACCES, EPERM}) {
        Fault const fault(inject_bind, error);
        watch({DONE, DONE}, error);
        EXPECT_EQ(2U, m_kernel->getCalls().size());
    }
    EXPECT_EQ(IF1, watch({numbered(1), DONE, DONE})) << "after a failure";
}

TEST_F(Watch, failsWithoutARequest) {
    for (int const nth : {1, 2}) {
        for (int const error : {ENOBUFS, EINTR, EAGAIN, EPERM, ECONNREFUSED}) {
            Fault const fault(inject_sendmsg, error, nth);
            watch({DONE, DONE}, error);
            EXPECT_EQ(nth, fault.getCalls());
            // The number of the closed socket is not used.
            m_monitor.stopWatching();
            EXPECT_EQ(0U, m_kernel->getWakes().size());
        }
    }
}

TEST_F(Watch, keepsItsTableForTheNextWatch) {
    {
        Fault const fault(inject_sendmsg, ENOBUFS, 2);
        EXPECT_EQ(IF1, watch({numbered(1), DONE}, ENOBUFS));
    }
    EXPECT_EQ((Log{"interface_status if1"}), watch({numbered(1), DONE, DONE}));
}

TEST_F(Watch, takesAFailedReceptionForItsEndAfterTheStop) {
    for (Step const& step : {BROKEN, Step::nothing(EBADF)}) {
        RecordingListener listener;
        NetDeviceMonitor monitor(&listener);
        Kernel kernel({DONE, DONE, step.during([&monitor] { monitor.stopWatching(); }), DONE});
        EXPECT_FALSE(kernel.watch(monitor));
        EXPECT_EQ(1U, kernel.countStepsLeft());
    }
}

TEST_F(Watch, failsIfAReceptionFailedBeforeTheStop) {
    watch({DONE, Step::failure(EIO), stopDuring(Step::failure(EIO))}, EIO);
}

TEST_F(Watch, reportsTheDatagramThatArrivesWithTheStop) {
    EXPECT_EQ(IF1, watch({DONE, DONE, stopDuring(numbered(1)), numbered(2)}));
}

Message const IF4 = numbered(4);
Log const STATUS_OF_BOTH = {"interface_status eth0", "interface_status if4"};

/// A monitor that knows an interface with two addresses and another interface when messages are lost.
class Loss : public Watch {
protected:
    /// Returns the log from the loss on.
    Log report(Steps const& further, int error = ENOBUFS) {
        Steps const known = {LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, DONE, LOST};
        Log log = watch(known + further, error);
        EXPECT_EQ(0U, m_kernel->countStepsLeft());
        EXPECT_LE(10U, log.size());
        log.erase(log.begin(), log.begin() + 10);
        return log;
    }
};

struct LossRow : NamedRow {
    Steps further;
    Log log;
    size_t requests = 4;
};

class LossRows : public Loss, public testing::WithParamInterface<LossRow> {};

TEST_P(LossRows, reportTheDifference) {
    EXPECT_EQ(GetParam().log, report(GetParam().further));
    Log const& requests = m_kernel->getRequests();
    ASSERT_EQ(GetParam().requests, requests.size());
    // The requests of the first dumps have the number 1.
    EXPECT_EQ("02000000", requests[2].substr(16, 8));
    EXPECT_EQ("02000000", requests[3].substr(16, 8));
}

INSTANTIATE_TEST_SUITE_P(
    Loss, LossRows,
    rowsOf<LossRow>(
        {{"reportsOnlyTheStatusIfNothingHasChanged",
          {EMPTY, LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, DONE},
          STATUS_OF_BOTH},
         {"reportsTheNewBeforeTheRemoved",
          {EMPTY, eth0({{IFLA_ADDRESS, "\0\x1a\x2b\x3c\x4d\x5f"s}}), numbered(5), DONE, ADDRESS_2,
           ipv4Message({{IFA_LOCAL, "10.0.0.3"}}), DONE},
          STATUS + addressAppears("00:1a:2b:3c:4d:5f") + interfaceAppears("if5") +
              addressAppears("10.0.0.3/255.255.255.0") + addressDisappears(MAC_TEXT) +
              addressDisappears(TEXT_1) + Log{"interface_disappeared if4"}},
         {"reportsARemovedInterfaceWithItsAddresses",
          {EMPTY, IF4, DONE, DONE},
          Log{"interface_status if4"} + addressDisappears(MAC_TEXT) + addressDisappears(TEXT_1) +
              addressDisappears(TEXT_2) + REMOVED},
         {"reportsAnAddressWithAnotherNetmaskAsRemovedAndNew",
          {EMPTY, LINK, IF4, DONE, ipv4Message({{IFA_LOCAL, "10.0.0.1"}}, 16), ADDRESS_2, DONE},
          STATUS_OF_BOTH + addressDisappears(TEXT_1) + addressAppears("10.0.0.1/255.255.0.0")},
         // The state at the end of the answers counts.
         {"includesChangesDuringTheAnswers",
          {EMPTY, LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, removal(4), removedAddress("10.0.0.2"), numbered(6),
           DONE},
          Log{"interface_status eth0", "interface_status if4", "interface_disappeared if4"} +
              addressDisappears(TEXT_2) + interfaceAppears("if6")},
         // A message without a MAC does not remove the MAC.
         {"keepsTheMacThatOneOfTwoMessagesHas",
          {EMPTY, LINK, eth0(), IF4, DONE, ADDRESS_1, ADDRESS_2, DONE},
          {"interface_status eth0", "interface_status eth0", "interface_status if4"}},
         {"requestsAgainAfterALossDuringTheAnswers",
          {EMPTY, LOST, DONE, EMPTY, LINK, DONE, ADDRESS_1, ADDRESS_2, DONE},
          {"interface_status eth0", "interface_disappeared if4"},
          6},
         {"requestsAgainAfterAnAnswerThatAChangeInterrupted",
          {EMPTY, numbered(4).setFlags(NLM_F_DUMP_INTR), DONE, DONE, EMPTY, LINK, IF4, DONE, ADDRESS_1,
           ADDRESS_2, DONE},
          {"interface_status if4", "interface_status eth0", "interface_status if4"},
          6},
         {"removesNothingAfterAnAnswerThatWasCut",
          {EMPTY, datagramOf({IF4, std::string(4096, '\0')}), DONE, DONE},
          {"interface_status if4"}},
         {"ignoresTheEndOfAnEarlierAnswer",
          {EMPTY, doneMessage().setSequence(1), LINK, IF4, doneMessage().setSequence(2), ADDRESS_1, ADDRESS_2,
           doneMessage().setSequence(2)},
          STATUS_OF_BOTH}}),
    byName);

TEST_F(Loss, removesNothingAfterTheStop) {
    EXPECT_EQ(Log(), report({EMPTY, DONE, stopDuring(DONE)}));
}

// An interface disappears while no watch is running.
TEST_F(Loss, endsTheWatchIfTheNextRequestFailsAndIsMadeGoodByTheNextWatch) {
    Fault const fault(inject_sendmsg, ENOMEM, 3);
    EXPECT_EQ(Log(), report({EMPTY}, ENOMEM));
    EXPECT_EQ(2U, m_kernel->getRequests().size());
    EXPECT_EQ(
        (Log{"interface_status eth0", "interface_disappeared if4"}),
        watch({LINK, DONE, ADDRESS_1, ADDRESS_2, DONE}));
    EXPECT_EQ("01000000", m_kernel->getRequests()[0].substr(16, 8));
}

TEST_F(Watch, closesItsSocketWhenTheListenerThrows) {
    m_listener.on_call = [](std::string const&) { throw std::runtime_error("no more"); };
    Kernel kernel({numbered(1), DONE, DONE});
    EXPECT_THROW(kernel.watch(m_monitor), std::runtime_error);
    EXPECT_EQ(1, kernel.countCloses());
    m_monitor.stopWatching();
    EXPECT_EQ(0U, kernel.getWakes().size());
}

// While the stopping thread uses the number of the socket, it must not become that of another descriptor.
TEST_F(Watch, closesItsSocketOnlyAfterAStopInAnotherThread) {
    std::atomic<bool> is_sending{false};
    std::thread stopper;
    Step const stop = BROKEN.during([&] {
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
    EXPECT_FALSE(kernel.watch(m_monitor));
    stopper.join();
    EXPECT_EQ(1, kernel.countCloses());
    EXPECT_EQ(1U, kernel.getWakes().size());
}

} // namespace
