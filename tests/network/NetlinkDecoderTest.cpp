#include "support/CleanEnd.h"

#include "AnswerCalls.h"
#include "MonitorSupport.h"
#include "NetlinkMessages.h"
#include "support/ByteOrder.h"

#include <vesk/Socket.h>

#include <arpa/inet.h>
#include <deque>
#include <linux/if_addr.h>
#include <net/if.h>
#include <stdexcept>

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
    Step(std::string const& datagram, int number = 0, int stale_number = 0)
        : bytes(datagram), error(number), stale_error(stale_number) {}
    Step(Message const& message) : Step(message.get()) {}

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
    std::function<void()> action = [] {};
};
using Steps = std::vector<Step>;

Step const DONE(doneMessage());
Step const EMPTY = Step::failure(EAGAIN); // The queue, for a call that does not wait.

std::string toHex(void const* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        unsigned char const byte = static_cast<unsigned char const*>(data)[i];
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

/// Returns the digits of an address.
std::string addressToHex(void const* address, size_t size) {
    std::string const bytes = support::addressToLittleEndian(address, size);
    return toHex(bytes.data(), bytes.size());
}

/// Returns the digits of a message that begins with its header.
std::string messageToHex(void const* message, size_t size) {
    std::string const bytes =
        support::toLittleEndian(message, size, {{0, 4}, {4, 2}, {6, 2}, {8, 4}, {12, 4}});
    return toHex(bytes.data(), bytes.size());
}

/// The kernel's end of the socket during its lifetime. After the last step it stops the monitor.
class Kernel {
public:
    explicit Kernel(Steps const& steps, std::string filling = std::string(1, '\0'))
        : m_filling(std::move(filling)), m_steps_left(steps.begin(), steps.end()) {
        s_current = this;
    }
    ~Kernel() { s_current = nullptr; }

    static Kernel* getCurrent() noexcept { return s_current; }

    bool watch(NetDeviceMonitor& monitor) {
        m_monitor = &monitor;
        return monitor.watch();
    }
    size_t countStepsLeft() const { return m_steps_left.size(); }
    /// Returns the names of the calls, separated by blanks.
    std::string getCallNames() const {
        std::string names;
        for (std::string const& call : calls) {
            names += (names.empty() ? "" : " ") + call.substr(0, call.find(' '));
        }
        return names;
    }

    Log calls; ///< With "fd" for the descriptor.
    Log requests;
    Log wakes;
    std::atomic<int> closes{0};
    /// Called in the thread that sends, before the call returns.
    std::function<void()> on_send = [] {};

    // The replaced functions.

    int socket(int family, int type, int protocol) {
        record("socket", family, type, protocol);
        m_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        return m_fd;
    }
    int bind(int fd, sockaddr const* address, socklen_t size) {
        record("bind", nameOf(fd), addressToHex(address, size));
        return 0;
    }
    ssize_t sendmsg(int fd, msghdr const* message, int flags) {
        record(
            "sendmsg", nameOf(fd), flags, message->msg_flags,
            addressToHex(message->msg_name, message->msg_namelen), message->msg_iovlen,
            message->msg_controllen, message->msg_control == nullptr ? "-" : "control");
        requests.push_back(messageToHex(message->msg_iov->iov_base, message->msg_iov->iov_len));
        return static_cast<ssize_t>(message->msg_iov->iov_len);
    }
    ssize_t recvmsg(int fd, msghdr* message, int flags) {
        size_t const room = message->msg_iov->iov_len;
        record(
            "recvmsg", nameOf(fd), flags, message->msg_namelen, message->msg_iovlen, room,
            message->msg_controllen);
        auto* const buffer = static_cast<char*>(message->msg_iov->iov_base);
        ASAN_UNPOISON_MEMORY_REGION(buffer, room);
        if (m_steps_left.empty()) {
            m_monitor->stopWatching();
            errno = EINTR;
            return -1;
        }
        Step const step = m_steps_left.front();
        m_steps_left.pop_front();
        step.action();
        errno = step.error != 0 ? step.error : step.stale_error;
        if (step.error != 0) {
            return -1;
        }
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
    ssize_t send(int fd, void const* data, size_t size, int flags) {
        wakes.push_back(nameOf(fd) + " " + std::to_string(flags) + " " + messageToHex(data, size));
        on_send();
        return static_cast<ssize_t>(size);
    }
    void noteClose(int fd) {
        if (fd == m_fd) {
            record("close", nameOf(fd));
            ++closes;
        }
    }

private:
    template <typename... Values>
    void record(char const* call, Values const&... values) {
        std::ostringstream line;
        line << call;
        ((line << ' ' << values), ...);
        calls.push_back(line.str());
    }

    std::string nameOf(int fd) const { return fd == m_fd ? "fd" : std::to_string(fd); }

    static inline Kernel* s_current = nullptr;

    std::string m_filling;
    std::deque<Step> m_steps_left;
    NetDeviceMonitor* m_monitor = nullptr;
    int m_fd = -1;
};

} // namespace

// Each function calls the kernel of the test, or else the real function.
#define VESK_ASK_KERNEL(result, name, parameters, arguments)                                                 \
    VESK_ANSWER(                                                                                             \
        result, -1, name, parameters, arguments,                                                             \
        if (Kernel* const kernel = Kernel::getCurrent()) { return kernel->name arguments; })

VESK_ASK_KERNEL(int, socket, (int family, int type, int protocol), (family, type, protocol))
VESK_ASK_KERNEL(int, bind, (int fd, sockaddr const* address, socklen_t size), (fd, address, size))
VESK_ASK_KERNEL(ssize_t, sendmsg, (int fd, msghdr const* message, int flags), (fd, message, flags))
VESK_ASK_KERNEL(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
VESK_ASK_KERNEL(ssize_t, send, (int fd, void const* data, size_t size, int flags), (fd, data, size, flags))
VESK_ANSWER(
    int, -1, close, (int fd), (fd),
    if (Kernel* const kernel = Kernel::getCurrent()) { kernel->noteClose(fd); })

// Counts the pauses of the watching thread and records the length of the last one, without pausing.
namespace {
std::atomic<int> s_sleeps{0};
std::atomic<long> s_last_sleep_ns{0};
} // namespace
VESK_INJECT(
    int, , nanosleep, (timespec const* time, timespec* left), (time, left), s_last_sleep_ns = time->tv_nsec;
    ++s_sleeps; if (Kernel::getCurrent() != nullptr && time->tv_nsec > 1000000) { return 0; })

namespace {

/// Returns all that a monitor reports: its log, the interface as the last call received it, and events.
Log reported(Log const& log, std::string const& interface = "", std::string const& events = "") {
    return log + Log{interface, events};
}

Log decodeOnce(Steps const& datagrams, std::string const& filling) {
    RecordingListener listener;
    NetDeviceMonitor monitor(&listener);
    EventRecorder const events;
    Kernel kernel(Steps{DONE, DONE} + datagrams, filling);
    EXPECT_FALSE(kernel.watch(monitor));
    EXPECT_EQ(0U, kernel.countStepsLeft());
    EXPECT_TRUE(chainIs({}));
    return reported(listener.take(), listener.getInterface(), events.getText());
}

std::string const FILLINGS[] = {
    std::string(1, '\0'), std::string(1, '\xff'), std::string("\x08\x00\x01\x00\x10\x00\x00\x00", 8)};

/// Decodes the datagrams with different bytes behind them, in the end with a plausible continuation. The
/// result must be the same.
Log decode(Steps const& datagrams) {
    Log const reported = decodeOnce(datagrams, FILLINGS[0]);
    Message const plausible = linkMessage(RTM_NEWLINK, 9).add(IFLA_IFNAME, std::string("evil", 5));
    for (std::string const& filling : {FILLINGS[1], FILLINGS[2], padded(plausible)}) {
        EXPECT_EQ(reported, decodeOnce(datagrams, filling))
            << "before " << toHex(filling.data(), filling.size());
    }
    return reported;
}

Log decodeLog(Steps const& datagrams) {
    Log reported = decode(datagrams);
    return {reported.begin(), reported.end() - 2};
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

/// Returns an IPv4 or IPv6 address in binary form.
std::string ip(std::string const& text) {
    bool const is_ipv6 = text.find(':') != std::string::npos;
    std::string bytes(is_ipv6 ? 16 : 4, '\0');
    EXPECT_EQ(1, inet_pton(is_ipv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()));
    return bytes;
}
std::string const IP_1 = ip("10.0.0.1");
std::string const IP_2 = ip("10.0.0.2");
std::string const BROADCAST = ip("10.0.0.255");
std::string const IPV6_1 = ip("fd00::1");

Message ipv4Message(Attributes const& attributes = {}, unsigned int prefix = 24) {
    return addressMessage(RTM_NEWADDR, AF_INET, prefix, 3).addAll(attributes);
}
Message ipv6Message(Attributes const& attributes = {}, unsigned int prefix = 64, unsigned int flags = 0) {
    return addressMessage(RTM_NEWADDR, AF_INET6, prefix, 3, flags).addAll(attributes);
}
Message removedAddress(std::string const& address) {
    return addressMessage(RTM_DELADDR, AF_INET, 24, 3).add(IFA_LOCAL, address);
}
static_assert(IFA_ADDRESS == 1 && IFA_LOCAL == 2 && IFA_BROADCAST == 4);

Message const LINK = eth0({{IFLA_ADDRESS, MAC}});
Message const ADDRESS_1 = ipv4Message({{IFA_LOCAL, IP_1}});
Message const ADDRESS_2 = ipv4Message({{IFA_LOCAL, IP_2}});
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

/// What is reported about "eth0" without any other attribute, and with an MTU.
Log const REPORTED_PLAIN = reported(LINK_LOG, PLAIN);
Log const REPORTED_MTU = reported(LINK_LOG, WITH_MTU);

struct Row : NamedRow {
    Steps datagrams;
    Log expected;
};

Row row(
    char const* name, Steps const& datagrams, Log const& log, char const* interface = "",
    char const* events = "") {
    return {name, datagrams, reported(log, interface, events)};
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
        row("aChangedMac", {LINK, eth0({{IFLA_ADDRESS, "\x02\x1a\x2b\x3c\x4d\x5e"}})},
            LINK_LOG_WITH_MAC + STATUS + addressAppears("02:1a:2b:3c:4d:5e"),
            "3 eth0 mtu 0 up operable [00:1a:2b:3c:4d:5e, 02:1a:2b:3c:4d:5e]"),
        row("assertsWithoutAName", {link(3, 0, {{IFLA_ADDRESS, MAC}, {IFLA_MTU, MTU}})}, Log(), "",
            NAME_MISSING),
        row("aNegativeNumberIsCutTo16Bits", {eth0({}, -1)}, LINK_LOG, "65535 eth0 mtu 0 up operable []"),
        row("aLargeNumberIsCutTo16Bits", {eth0({}, 0x10001)}, LINK_LOG, "1 eth0 mtu 0 up operable []"),
        row("aRemovalNeedsNoName", {eth0(), removal()}, LINK_LOG + REMOVED, PLAIN),
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
        row("aRemovalWithoutItsLastByteIsIgnored", {Message(RTM_DELLINK, std::string(15, '\x01'))}, Log()),
        row("aRemovalOfTheFixedFieldsAlone", {Message(RTM_DELLINK, std::string(16, '\x01'))}, BLANK_REMOVED,
            "0  mtu 0 []")),
    byName);

TEST(LinkMessage, hasItsFlagsButItsStateDoesNotMatter) {
    // IFF_UP and IFF_RUNNING, 0x1 and 0x40, are ignored.
    std::pair<unsigned int, char const*> const rows[] = {
        {0, ""},
        {0x2, "broadcast "},
        {0x10, "point_to_point "},
        {0x8, "loopback "},
        {0x1, ""},
        {0x40, ""},
        {~0x1aU, ""},
        {~0U, "broadcast point_to_point loopback "}};
    for (auto const& [flags, text] : rows) {
        std::string const interface = std::string("3 eth0 mtu 0 up operable ") + text + "[]";
        EXPECT_EQ(reported(LINK_LOG, interface), decode({eth0({}, 3, flags)})) << flags;
    }
    for (char state = 0; state < 8; ++state) {
        EXPECT_EQ(REPORTED_PLAIN, decode({eth0({{IFLA_OPERSTATE, std::string(1, state)}})})) << int(state);
    }
}

TEST(LinkMessage, mayHaveItsAttributesInAnyOrder) {
    Attribute const attributes[] = {
        {IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}, {IFLA_MTU, MTU}, {IFLA_OPERSTATE, "\x06"}};
    int order[] = {0, 1, 2, 3};
    do {
        Message message = link();
        std::string types;
        for (int const i : order) {
            message.addAll({{IFLA_QDISC, "noqueue"}, attributes[i]});
            types += " " + std::to_string(attributes[i].first);
        }
        EXPECT_EQ(reported(LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC), decodeOnce({message}, "x")) << types;
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

using namespace std::string_literals;

TEST(LinkMessage, hasANameThatEndsAtItsZeroOrWithItsAttribute) {
    std::string const longest(15, 'n');
    std::string const too_long(40, 'n');
    std::pair<std::string, std::string> const rows[] = {
        {"eth0\0"s, "eth0"}, {"eth0", "eth0"}, {"eth01", "eth01"}, {"eth0123", "eth0123"},
        {"a\0b\0"s, "a"},    {"\0"s, ""},      {"", ""},           {longest + '\0', longest},
        {too_long, too_long}};
    for (auto const& [data, name] : rows) {
        Message message = link().add(IFLA_IFNAME, data);
        EXPECT_EQ(interfaceAppears(name), decodeLog({message}));
        message.add(IFLA_MTU, bytesOf(0x41414141));
        EXPECT_EQ(interfaceAppears(name), decodeLog({message})) << "before another attribute";
    }
}

TEST(LinkMessage, isReportedWithoutAttributesThatAreTooShort) {
    for (size_t size = 0; size < 6; ++size) {
        Attribute const mac(IFLA_ADDRESS, MAC.substr(0, size));
        EXPECT_EQ(REPORTED_PLAIN, decode({eth0({mac})})) << size;
        EXPECT_EQ(REPORTED_MTU, decode({eth0({mac, {IFLA_MTU, MTU}})})) << size;
    }
    for (size_t size = 0; size < 4; ++size) {
        std::string const mtu = bytesOf(0x01010101).substr(0, size);
        EXPECT_EQ(REPORTED_PLAIN, decode({eth0({{IFLA_MTU, mtu}})})) << size;
    }
    for (char const* const rest : {"\x04", "\x04\x01", "\x04\x01\x02"}) {
        Message const message(RTM_NEWLINK, (padded(eth0()) + rest).substr(sizeof(nlmsghdr)));
        EXPECT_EQ(REPORTED_PLAIN, decode({message})) << strlen(rest) << " bytes of an attribute";
    }
    // A wrong length ends the walk over the attributes.
    for (int const length : {0, 1, 2, 3, 21, 22, 24, 255, 0x7fff, 0xffff}) {
        Message const message = eth0().add(IFLA_ADDRESS, MAC, length).add(IFLA_MTU, MTU);
        EXPECT_EQ(REPORTED_PLAIN, decode({message})) << length;
    }
}

/// Expects that each beginning of a message has the last of the results that start at its size or before.
void expectCuts(Message const& message, std::vector<std::pair<size_t, Log>> const& results) {
    ASSERT_EQ(results.back().first, message.get().size());
    for (size_t size = 1; size <= message.get().size(); ++size) {
        Log expected = reported({});
        for (auto const& [begin, result] : results) {
            expected = size >= begin ? result : expected;
        }
        EXPECT_EQ(expected, decode({message.getCut(size)})) << size;
    }
}

// Each attribute counts as soon as it is complete, also without padding. The fixed fields end at 32.
TEST(LinkMessage, isReportedAsFarAsItIsComplete) {
    expectCuts(
        link(3, 0, {{IFLA_MTU, MTU}, {IFLA_IFNAME, NAME}, {IFLA_ADDRESS, MAC}}),
        {{32, reported({}, "", NAME_MISSING)},
         {49, REPORTED_MTU},
         {62, reported(LINK_LOG_WITH_MAC, WITH_MTU_AND_MAC)}});
}

// The fixed fields end at 24.
TEST(AddressMessage, isReportedAsFarAsItIsComplete) {
    auto const withAddress = [](std::string const& address) {
        return reported({"address_appeared  " + address}, "0  mtu 0 [" + address + "]");
    };
    expectCuts(
        ipv4Message({{IFA_ADDRESS, ip("10.0.0.9")}, {IFA_LOCAL, IP_1}, {IFA_BROADCAST, BROADCAST}}),
        {{24, withAddress("-/255.255.255.0")},
         {32, withAddress("10.0.0.9/255.255.255.0")},
         {40, withAddress("10.0.0.1/255.255.255.0")},
         {48, withAddress("10.0.0.1/255.255.255.0 peer 10.0.0.255")}});
}

// A message that is longer than the received bytes is not read.
TEST(Datagram, isSkippedIfItsMessageIsIncomplete) {
    Message const message = eth0({{IFLA_MTU, MTU}});
    for (size_t size = 1; size < message.get().size(); ++size) {
        EXPECT_EQ(REPORTED_PLAIN, decode({message.get().substr(0, size), eth0()})) << size;
    }
}

TEST(Datagram, isReadUpToAWrongLength) {
    for (uint32_t const length :
         {0U, 1U, 4U, 15U, 53U, 4096U, 4097U, 0x7fffffffU, 0x80000000U, 0xfffffffcU, 0xfffffffdU,
          0xffffffffU}) {
        Message const wrong = eth0({{IFLA_MTU, MTU}}).setLength(length);
        EXPECT_EQ(REPORTED_PLAIN, decode({wrong, eth0()})) << length;
    }
    for (uint32_t const length :
         {0U, 1U, 15U, 500U, 4096U, 0x7fffffffU, 0x80000000U, 0xfffffff0U, 0xfffffffdU, 0xffffffffU}) {
        EXPECT_EQ(
            reported(interfaceAppears("if1"), "1 if1 mtu 0 up operable []"),
            decode({datagramOf({numbered(1), numbered(2).setLength(length), numbered(3)})}))
            << length;
    }
}

TEST(Datagram, isReadWithoutMessagesOfOtherTypesAndFamilies) {
    for (uint16_t const type :
         std::initializer_list<uint16_t>{0, 1, 2, 4, 15, 18, 19, 22, 23, 24, 25, 28, 0x110, 0xffff}) {
        Message const other = eth0({}, 4).setType(type);
        EXPECT_EQ(REPORTED_PLAIN, decode({other, datagramOf({other, eth0()})})) << type;
    }
    for (int const family : {0, 1, 3, 7, 9, 11, 17, 255}) {
        std::string const data(16, 'x');
        Message const added = addressMessage(RTM_NEWADDR, family, 24, 3).add(IFA_LOCAL, data);
        Message const removed = addressMessage(RTM_DELADDR, family, 24, 3).add(IFA_LOCAL, data);
        EXPECT_EQ(reported({}), decode({added, removed})) << family;
    }
}

TEST(Datagram, isReportedMessageByMessageEachAligned) {
    for (size_t length = 1; length <= 9; ++length) {
        std::string const name(length, 'n');
        EXPECT_EQ(
            interfaceAppears(name) + interfaceAppears("if2") + interfaceAppears("if3"),
            decodeLog({datagramOf({link(1).add(IFLA_IFNAME, name), numbered(2), numbered(3)})}))
            << length;
    }
}

TEST(Datagram, mayEndWithoutPadding) {
    Message const last = link(2, 0, {{IFLA_MTU, bytesOf(7)}, {IFLA_IFNAME, "last\0"s}});
    Log const expected = interfaceAppears("if1") + interfaceAppears("last");
    ASSERT_NE(0U, last.get().size() % 4);
    EXPECT_EQ(expected, decodeLog({datagramOf({numbered(1), last})}));
    // Padding alone is no message.
    for (size_t rest = 1; rest < 16; ++rest) {
        std::string const padding(rest, '\x10');
        EXPECT_EQ(expected, decodeLog({datagramOf({numbered(1), last, padding})})) << rest;
    }
}

// 17 bytes are less than the fixed fields; the next message is at 20.
TEST(Datagram, isReadBehindAMessageThatIsTooShort) {
    for (uint16_t const type : {RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR}) {
        for (size_t const length : {16U, 17U, 20U, 23U}) {
            Message const message(type, std::string(length - 16, '\x02'));
            EXPECT_EQ(interfaceAppears("if1"), decodeLog({datagramOf({message, numbered(1)})}))
                << type << " " << length;
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
    EXPECT_EQ("interface_appeared eth0", decode({datagram}).front());
}

// The kernel cuts what does not fit: the message at the cut is incomplete.
TEST(Datagram, losesTheMessageThatExceedsTheBuffer) {
    Message const large = link(2, 0, {{IFLA_IFALIAS, std::string(5000, 'x')}, {IFLA_IFNAME, "if2"}});
    EXPECT_EQ(
        interfaceAppears("if1") + interfaceAppears("if3"),
        decodeLog({datagramOf({numbered(1), large}), numbered(3)}));
}

// Nothing outside of the datagram influences the result, whichever byte is changed.
TEST(Datagram, isReadInsideItsBoundsWithAnyContent) {
    std::string const datagram = datagramOf(
        {link(3, IFF_BROADCAST, {{IFLA_IFNAME, "eth0"}, {IFLA_MTU, MTU}, {IFLA_ADDRESS, MAC}}),
         ipv6Message({{IFA_ADDRESS, IPV6_1}}), ipv4Message({{IFA_LOCAL, IP_1}, {IFA_BROADCAST, BROADCAST}})});
    for (size_t i = 0; i < datagram.size(); ++i) {
        for (int const value : {0, 1, 3, 5, 0x10, 0x40, 0x7f, 0xff}) {
            std::string changed = datagram;
            changed[i] = static_cast<char>(value);
            Log const reported = decodeOnce({changed}, FILLINGS[0]);
            EXPECT_EQ(reported, decodeOnce({changed}, FILLINGS[1])) << i << " " << value;
            EXPECT_EQ(reported, decodeOnce({changed}, FILLINGS[2])) << i << " " << value;
        }
    }
}

Row row(char const* name, Message const& message, std::string const& text) {
    std::string const interface = "3 eth0 mtu 0 up operable [" + text + "]";
    return {name, {eth0(), message}, reported(LINK_LOG + addressAppears(text), interface)};
}

INSTANTIATE_TEST_SUITE_P(
    IPv4, Decoding,
    testing::Values(
        row("no attribute", ipv4Message(), "-/255.255.255.0"), row("IFA_LOCAL alone", ADDRESS_1, TEXT_1),
        row("IFA_ADDRESS alone", ipv4Message({{IFA_ADDRESS, IP_1}}), TEXT_1),
        row("as the kernel sends it",
            ipv4Message(
                {{IFA_ADDRESS, IP_1}, {IFA_LOCAL, IP_1}, {IFA_BROADCAST, BROADCAST}, {IFA_LABEL, NAME}}),
            "10.0.0.1/255.255.255.0 peer 10.0.0.255"),
        row("with a far end: the later attribute wins",
            ipv4Message({{IFA_ADDRESS, IP_2}, {IFA_LOCAL, IP_1}}, 32), "10.0.0.1/255.255.255.255"),
        row("with a far end behind it", ipv4Message({{IFA_LOCAL, IP_1}, {IFA_ADDRESS, IP_2}}, 32),
            "10.0.0.2/255.255.255.255"),
        row("broadcast alone", ipv4Message({{IFA_BROADCAST, BROADCAST}}), "-/255.255.255.0 peer 10.0.0.255"),
        row("a first attribute of 16 to 31 bytes: IFA_ADDRESS is the peer",
            ipv4Message({{IFA_LABEL, "twelve bytes"}, {IFA_ADDRESS, IP_1}}), "-/255.255.255.0 peer 10.0.0.1"),
        row("a first attribute of 32 bytes: IFA_ADDRESS is the address",
            ipv4Message({{IFA_LABEL, std::string(28, 'x')}, {IFA_ADDRESS, IP_1}}), TEXT_1),
        row("too short", ipv4Message({{IFA_LOCAL, "abc"}, {IFA_ADDRESS, ""}, {IFA_BROADCAST, "x"}}),
            "-/255.255.255.0"),
        row("too short behind a good one", Message(ADDRESS_1).add(IFA_LOCAL, "abc"), TEXT_1),
        row("too long", ipv4Message().add(IFA_LOCAL, IP_1 + "more"), TEXT_1),
        row("prefix 0", ipv4Message({{IFA_LOCAL, IP_1}}, 0), "10.0.0.1/0.0.0.0"),
        row("prefix 200", ipv4Message({{IFA_LOCAL, IP_1}}, 200), "10.0.0.1/255.255.255.255"),
        row("other attributes", ipv4Message({{3, IP_1}, {5, IP_1}, {7, "x"}}), "-/255.255.255.0")));

INSTANTIATE_TEST_SUITE_P(
    IPv6, Decoding,
    testing::Values(
        row("as the kernel sends it: IFA_ADDRESS is the peer",
            ipv6Message(
                {{IFA_ADDRESS, IPV6_1}, {IFA_CACHEINFO, std::string(16, 'x')}, {IFA_FLAGS, bytesOf(0x80)}}),
            PEER_ONLY),
        row("with a far end, as the kernel sends it",
            ipv6Message({{IFA_LOCAL, IPV6_1}, {IFA_ADDRESS, ip("fd00::2")}}), with64("fd00::1", "fd00::2")),
        row("a first attribute of 4 bytes: IFA_ADDRESS is the address",
            ipv6Message({{IFA_FLAGS, bytesOf(0x80)}, {IFA_ADDRESS, IPV6_1}}), with64("fd00::1", "")),
        row("a first attribute of 16 bytes that is no address",
            ipv6Message({{IFA_CACHEINFO, std::string(16, 'x')}, {IFA_ADDRESS, IPV6_1}}), PEER_ONLY),
        row("too short", ipv6Message({{IFA_ADDRESS, IP_1}, {IFA_LOCAL, std::string(15, 'x')}}),
            with64("-", "")),
        row("prefix 0", ipv6Message({{IFA_LOCAL, ip("::1")}}, 0),
            "::1/0000:0000:0000:0000:0000:0000:0000:0000"),
        row("prefix 200", ipv6Message({{IFA_LOCAL, ip("::1")}}, 200),
            "::1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")));

// The removal of a tentative address is invisible, too.
INSTANTIATE_TEST_SUITE_P(
    AddressMessage, Decoding,
    testing::Values(
        row("aTentativeAddressWhenTheKernelRepeatsItWithoutTheFlag",
            {eth0(), ipv6Message({{IFA_ADDRESS, IPV6_1}}, 64, 0xc0),
             ipv6Message({{IFA_ADDRESS, IPV6_1}}, 64, 0x80), ipv6Message({{IFA_ADDRESS, IPV6_1}}, 64, 0x80),
             addressMessage(RTM_DELADDR, AF_INET6, 64, 3, 0xc0).add(IFA_ADDRESS, IPV6_1)},
            LINK_LOG + addressAppears(PEER_ONLY), WITH_PEER),
        // Without a far end, all IPv6 addresses of an interface are equal.
        row("onlyOneOfManyIPv6AddressesWithoutAFarEnd",
            {eth0(), ipv6Message({{IFA_ADDRESS, IPV6_1}}), ipv6Message({{IFA_ADDRESS, ip("fe80::2")}}),
             addressMessage(RTM_DELADDR, AF_INET6, 64, 3, 0x80).add(IFA_ADDRESS, ip("fe80::2"))},
            LINK_LOG + addressAppears(PEER_ONLY) + addressDisappears(with64("-", "fe80::2")), WITH_PEER),
        row("theNumberOfTheInterfaceIsCutTo16Bits",
            {eth0(), addressMessage(RTM_NEWADDR, AF_INET, 24, 0x10003).add(IFA_LOCAL, IP_1)},
            LINK_LOG + addressAppears(TEXT_1), WITH_ADDRESS_1)),
    byName);

TEST(AddressMessage, isIgnoredWhileTheAddressIsTentative) {
    for (int const family : {AF_INET, AF_INET6}) {
        std::string const data = family == AF_INET ? IP_1 : IPV6_1;
        for (unsigned int const flags : {0x40U, 0xc0U, 0xffU, 0x80U, 0xbfU}) {
            Message const message = addressMessage(RTM_NEWADDR, family, 24, 3, flags).add(IFA_LOCAL, data);
            size_t const lines = (flags & IFA_F_TENTATIVE) != 0 ? 2 : 4;
            EXPECT_EQ(lines, decodeLog({eth0(), message}).size()) << family << " " << flags;
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
        EXPECT_EQ(1, m_kernel->closes);
        EXPECT_EQ("close fd", m_kernel->calls.back());
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
    Log const calls = {
        "socket 16 " + std::to_string(SOCK_DGRAM | SOCK_CLOEXEC) + " 0",
        "bind fd 100000000000000011010000",
        request,
        reception,
        request,
        reception,
        reception,
        "close fd"};
    EXPECT_EQ(calls, m_kernel->calls);
    EXPECT_EQ(0x80, MSG_EOR);
    EXPECT_EQ(
        (Log{"1100000012000103010000000000000000", "1100000016000103010000000000000000"}),
        m_kernel->requests);
    EXPECT_EQ((Log{"fd 0 10000000000004000000000000000000"}), m_kernel->wakes) << "an empty request";
    for (int i = 0; i < 2; ++i) { // It leaves no socket for a late stop, and stays stopped.
        m_monitor.stopWatching();
        EXPECT_EQ(1U, m_kernel->wakes.size());
    }
    for (int i = 0; i < 2; ++i) {
        watch({DONE, DONE});
        EXPECT_EQ(0U, m_kernel->wakes.size());
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
    EXPECT_EQ(GetParam().requests, m_kernel->requests.size());
    EXPECT_EQ(0U, m_kernel->countStepsLeft());
    EXPECT_EQ(GetParam().pauses, s_sleeps - sleeps);
    if (GetParam().pauses != 0) {
        EXPECT_EQ(100000000, s_last_sleep_ns);
    }
    // Two requests, first with the number 1, then with the next one.
    for (size_t i = 0; i < m_kernel->requests.size(); ++i) {
        EXPECT_EQ("0" + std::to_string(i / 2 + 1) + "000000", m_kernel->requests[i].substr(16, 8)) << i;
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
          ipv4Message({{IFA_ADDRESS, IP_1}, {IFA_LOCAL, IP_1}}), DONE},
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
    EXPECT_EQ(2U, m_kernel->requests.size());
    EXPECT_EQ(0U, m_kernel->wakes.size());
}

TEST_F(Watch, canBeStoppedByACallback) {
    m_listener.on_call = [this](std::string const& line) {
        if (line == "interface_appeared if2") {
            m_monitor.stopWatching();
        }
    };
    EXPECT_EQ(4U, watch({DONE, DONE, numbered(1), numbered(2), numbered(3)}).size());
    EXPECT_EQ(1U, m_kernel->countStepsLeft());
    EXPECT_EQ(1U, m_kernel->wakes.size());
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
        SCOPED_TRACE(strerrorname_np(error));
        Fault const fault(inject_socket, error);
        Kernel kernel({DONE, DONE});
        EXPECT_TRUE(kernel.watch(m_monitor));
        EXPECT_TRUE(causeIs(Socket::ErrorId::CREATE_FAILED, error));
        EXPECT_EQ(0U, kernel.calls.size());
    }
    for (int const error : {EADDRINUSE, ENOMEM, EACCES, EPERM}) {
        SCOPED_TRACE(strerrorname_np(error));
        Fault const fault(inject_bind, error);
        watch({DONE, DONE}, error);
        EXPECT_EQ(2U, m_kernel->calls.size());
    }
    EXPECT_EQ(IF1, watch({numbered(1), DONE, DONE})) << "after a failure";
}

TEST_F(Watch, failsWithoutARequest) {
    for (int const nth : {1, 2}) {
        for (int const error : {ENOBUFS, EINTR, EAGAIN, EPERM, ECONNREFUSED}) {
            SCOPED_TRACE(std::to_string(nth) + " " + strerrorname_np(error));
            Fault const fault(inject_sendmsg, error, nth);
            watch({DONE, DONE}, error);
            EXPECT_EQ(nth, fault.getCalls());
            // The number of the closed socket is not used.
            m_monitor.stopWatching();
            EXPECT_EQ(0U, m_kernel->wakes.size());
        }
    }
}

TEST_F(Watch, takesAFailedReceptionForItsEndAfterTheStop) {
    for (Step const& step : {BROKEN, Step::nothing(EBADF)}) {
        SCOPED_TRACE(step.error);
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
Log const STATUS_OF_IF4 = {"interface_status if4"};
Log const STATUS_OF_BOTH = STATUS + STATUS_OF_IF4;
Log const IF4_REMOVED = {"interface_disappeared if4"};

// The monitor knows an interface with two addresses and another interface when messages are lost.
Steps const KNOWN = {LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, DONE, LOST};
Log const KNOWN_LOG =
    LINK_LOG_WITH_MAC + interfaceAppears("if4") + addressAppears(TEXT_1) + addressAppears(TEXT_2);

/// Returns a row with the steps and the log from the loss on.
WatchRow lossRow(char const* name, Steps const& further, Log const& log, size_t requests = 4) {
    return {name, KNOWN + further, KNOWN_LOG + log, ENOBUFS, requests};
}

INSTANTIATE_TEST_SUITE_P(
    Loss, WatchRows,
    testing::Values(
        lossRow(
            "reportsOnlyTheStatusIfNothingHasChanged", {EMPTY, LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, DONE},
            STATUS_OF_BOTH),
        lossRow(
            "reportsTheNewBeforeTheRemoved",
            {EMPTY, eth0({{IFLA_ADDRESS, "\0\x1a\x2b\x3c\x4d\x5f"s}}), numbered(5), DONE, ADDRESS_2,
             ipv4Message({{IFA_LOCAL, ip("10.0.0.3")}}), DONE},
            STATUS + addressAppears("00:1a:2b:3c:4d:5f") + interfaceAppears("if5") +
                addressAppears("10.0.0.3/255.255.255.0") + addressDisappears(MAC_TEXT) +
                addressDisappears(TEXT_1) + IF4_REMOVED),
        lossRow(
            "reportsARemovedInterfaceWithItsAddresses", {EMPTY, IF4, DONE, DONE},
            STATUS_OF_IF4 + addressDisappears(MAC_TEXT) + addressDisappears(TEXT_1) +
                addressDisappears(TEXT_2) + REMOVED),
        lossRow(
            "reportsAnAddressWithAnotherNetmaskAsRemovedAndNew",
            {EMPTY, LINK, IF4, DONE, ipv4Message({{IFA_LOCAL, IP_1}}, 16), ADDRESS_2, DONE},
            STATUS_OF_BOTH + addressDisappears(TEXT_1) + addressAppears("10.0.0.1/255.255.0.0")),
        // The state at the end of the answers counts.
        lossRow(
            "includesChangesDuringTheAnswers",
            {EMPTY, LINK, IF4, DONE, ADDRESS_1, ADDRESS_2, removal(4), removedAddress(IP_2), numbered(6),
             DONE},
            STATUS_OF_BOTH + IF4_REMOVED + addressDisappears(TEXT_2) + interfaceAppears("if6")),
        // A message without a MAC does not remove the MAC.
        lossRow(
            "keepsTheMacThatOneOfTwoMessagesHas",
            {EMPTY, LINK, eth0(), IF4, DONE, ADDRESS_1, ADDRESS_2, DONE}, STATUS + STATUS_OF_BOTH),
        lossRow(
            "requestsAgainAfterALossDuringTheAnswers",
            {EMPTY, LOST, DONE, EMPTY, LINK, DONE, ADDRESS_1, ADDRESS_2, DONE}, STATUS + IF4_REMOVED, 6),
        lossRow(
            "requestsAgainAfterAnAnswerThatAChangeInterrupted",
            {EMPTY, numbered(4).setFlags(NLM_F_DUMP_INTR), DONE, DONE, EMPTY, LINK, IF4, DONE, ADDRESS_1,
             ADDRESS_2, DONE},
            STATUS_OF_IF4 + STATUS_OF_BOTH, 6),
        lossRow(
            "removesNothingAfterAnAnswerThatWasCut",
            {EMPTY, datagramOf({IF4, std::string(4096, '\0')}), DONE, DONE}, STATUS_OF_IF4),
        lossRow(
            "ignoresTheEndOfAnEarlierAnswer",
            {EMPTY, doneMessage().setSequence(1), LINK, IF4, doneMessage().setSequence(2), ADDRESS_1,
             ADDRESS_2, doneMessage().setSequence(2)},
            STATUS_OF_BOTH)),
    byName);

TEST_F(Watch, removesNothingThatWasLostBeforeTheStop) {
    EXPECT_EQ(KNOWN_LOG, watch(KNOWN + Steps{EMPTY, DONE, stopDuring(DONE)}, ENOBUFS));
    EXPECT_EQ(0U, m_kernel->countStepsLeft());
}

// An interface disappears while no watch is running.
TEST_F(Watch, makesALossGoodWhoseRequestFailedInTheWatchBefore) {
    Fault const fault(inject_sendmsg, ENOMEM, 3);
    EXPECT_EQ(KNOWN_LOG, watch(KNOWN + Steps{EMPTY}, ENOMEM));
    EXPECT_EQ(0U, m_kernel->countStepsLeft());
    EXPECT_EQ(2U, m_kernel->requests.size());
    EXPECT_EQ(STATUS + IF4_REMOVED, watch({LINK, DONE, ADDRESS_1, ADDRESS_2, DONE}));
    EXPECT_EQ("01000000", m_kernel->requests[0].substr(16, 8));
}

TEST_F(Watch, closesItsSocketWhenTheListenerThrows) {
    m_listener.on_call = [](std::string const&) { throw std::runtime_error("no more"); };
    Kernel kernel({numbered(1), DONE, DONE});
    EXPECT_THROW(kernel.watch(m_monitor), std::runtime_error);
    EXPECT_EQ(1, kernel.closes);
    m_monitor.stopWatching();
    EXPECT_EQ(0U, kernel.wakes.size());
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
        while (s_sleeps < before + 3 && kernel.closes == 0) {
            sched_yield();
        }
        EXPECT_EQ(0, kernel.closes);
    };
    EXPECT_FALSE(kernel.watch(m_monitor));
    stopper.join();
    EXPECT_EQ(1, kernel.closes);
    EXPECT_EQ(1U, kernel.wakes.size());
}

} // namespace
