#include "UDPSupport.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"
#include "support/calls/UDPCalls.h"

namespace {

using namespace support;
using std::CommonErrorId::CONTRACT_BROKEN;
using std::CommonErrorId::INVALID_ARGUMENT;

using IPAddress = IPSocket::IPAddress;

static_assert(UDPSocket::MAX_TEL_SIZE == 65507);
static_assert(std::is_same_v<decltype(UDPSocket::MAX_TEL_SIZE), uint32_t const>);
static_assert(std::is_base_of_v<IPSocket, UDPSocket> && !std::is_abstract_v<UDPSocket>);
static_assert(!std::is_copy_constructible_v<UDPSocket> && !std::is_copy_assignable_v<UDPSocket>);
static_assert(std::is_same_v<void, decltype(std::declval<UDPSocket&>().open())>);
static_assert(std::is_same_v<void, decltype(std::declval<UDPSocket&>().setBroadcast(true))>);

constexpr unsigned int UNTOUCHED = 77;

IPAddress const LOCAL(IPSocket::LOOPBACK_IP, 0);
IPAddress const LOCAL6(IPSocket::LOOPBACK_IP6, 0);
IPAddress const PEER(IPSocket::LOOPBACK_IP, 9);
IPAddress const PEER6(IPSocket::LOOPBACK_IP6, 9);
IPAddress const GROUP("239.1.2.3", 5000);
IPAddress const GROUP6("ff02::1:3", 5000);
IPAddress const SCOPED6("fe80::1%lo", 0);

/// A socket with calls that are recorded and succeed without effect.
struct RecordedSocket {
    RecordedSocket(
        IPAddress const& local, IPAddress const& peer, IPSocket::IPProtocolVersion version = IPSocket::IPV4)
        : socket(local, peer, version) {
        EXPECT_TRUE(socket.isValid());
        calls.getText();
    }

    /// Opens the socket. Returns the calls.
    std::string open() {
        EXPECT_TRUE(opens(socket));
        return calls.getText();
    }
    /// Returns the calls of one write.
    std::string write(std::string const& data) {
        unsigned int put = UNTOUCHED;
        EXPECT_FALSE(socket.performWrite(data.data(), static_cast<unsigned int>(data.size()), put));
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(data.size(), put);
        return calls.getText();
    }

    CallRecorder calls{CallRecorder::PRETEND};
    OpenUDPSocket socket;
};

// ---- construction and destruction ----

TEST(UDPSocket, addsNoVirtualOperation) {
    EXPECT_EQ(getSlot(&IPSocket::maxTxSize), getSlot(&UDPSocket::maxTxSize));
}

TEST(UDPSocket, addressesBecomeNumeric) {
    UDPSocket const socket(true, 0, 0, {"", 7}, {"FF02::0:1", 5000}, IPSocket::IPV6);
    EXPECT_EQ("", socket.getLocalAddress().host);
    EXPECT_EQ(7, socket.getLocalAddress().port);
    EXPECT_EQ("ff02::1", socket.getPeerAddress().host);
    EXPECT_EQ(5000, socket.getPeerAddress().port);
}

TEST(UDPSocket, optionsOfASocketWithoutADescriptorFail) {
    Fault const fault(inject_socket, EMFILE);
    OpenUDPSocket socket(LOCAL, PEER);
    EXPECT_TRUE(chainIs({SysErrorId::RESOURCES_EXHAUSTED}));
    EXPECT_FALSE(socket.getBroadcast());
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({Socket::ErrorId::INVALID_SOCKET}));
    socket.setBroadcast(true);
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({Socket::ErrorId::INVALID_SOCKET}));
    EXPECT_EQ(0U, socket.maxTxSize());
    EXPECT_TRUE(socket.hadError());
}

// ---- which peers are groups ----

/// A peer, and whether it is a group.
class UDPClassification : public testing::TestWithParam<std::tuple<char const*, bool>> {};

TEST_P(UDPClassification, decidesHowTheSocketWorks) {
    auto const [peer, multicast] = GetParam();
    bool const six = strchr(peer, ':') != nullptr;
    RecordedSocket recorded(six ? LOCAL6 : LOCAL, {peer, 5000}, six ? IPSocket::IPV6 : IPSocket::IPV4);
    std::string const opening = recorded.open();
    EXPECT_EQ(multicast, opening.find("SO_REUSEADDR") != std::string::npos) << opening;
    EXPECT_EQ(multicast, opening.find("ADD_MEMBERSHIP") != std::string::npos) << opening;
    EXPECT_EQ(!multicast, opening.find("connect") != std::string::npos) << opening;
    std::string const writing = recorded.write("x");
    EXPECT_EQ(multicast ? 0U : std::string::npos, writing.find("sendto(")) << writing;
    EXPECT_EQ(multicast ? std::string::npos : 0U, writing.find("send(")) << writing;
}

constexpr char const* HOSTS[] = {
    "0.0.0.0", "127.0.0.1", "192.0.2.255", "223.255.255.255", "::",      "::1",     "fe80::1%lo",
    "ff10::1", "ff12::1",   "ff1e::1",     "ff3e::1",         "fe80::1", "feff::1", "::ffff:239.1.2.3"};
// The last two are no groups, but their texts begin like those of groups.
constexpr char const* GROUPS[] = {
    "224.0.0.0",          "224.0.0.1", "239.1.2.3", "239.255.255.255", "240.0.0.1", "255.255.255.254",
    "255.255.255.255",    "ff00::1",   "ff01::1",   "ff02::1",         "FF02::1",   "ff02::1%lo",
    "ff02:0:0:0:0:0:0:1", "ff0e::1",   "ff0f::1",   "ff0f:ffff::",     "0ff0::1",   "ff0::1"};

INSTANTIATE_TEST_SUITE_P(
    hosts, UDPClassification, testing::Combine(testing::ValuesIn(HOSTS), testing::Values(false)));
INSTANTIATE_TEST_SUITE_P(
    groups, UDPClassification, testing::Combine(testing::ValuesIn(GROUPS), testing::Values(true)));

TEST(UDPClassification, emptyPeerIsTheAnyAddressAndNoGroup) {
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        RecordedSocket recorded({"", 0}, {"", 1}, version);
        EXPECT_EQ(std::string::npos, recorded.open().find("setsockopt"));
    }
}

// ---- the calls of open and write ----

struct CallsRow : NamedRow {
    IPSocket::IPProtocolVersion version;
    IPAddress local;
    IPAddress peer;
    char const* opening;
    std::string writing; ///< The arguments of the call that writes "abc".
};

std::string const SEND = "send(s, 616263, " + std::to_string(MSG_NOSIGNAL) + ")\n";
std::string const SEND_TO = "sendto(s, 616263, " + std::to_string(MSG_NOSIGNAL) + ", ";

CallsRow const CALLS_ROWS[] = {
    {"bindsAndConnectsToThePeer",
     IPSocket::IPV4,
     {"127.0.0.1", 5000},
     {"192.0.2.7", 5001},
     "bind(s, 020013887f0000010000000000000000)\n"
     "connect(s, 02001389c00002070000000000000000)\n",
     SEND},
    {"bindsAndConnectsToThePeerOfIPv6",
     IPSocket::IPV6,
     {"::1", 5000},
     {"fe80::7%lo", 5001},
     "bind(s, 0a001388000000000000000000000000000000000000000100000000)\n"
     "connect(s, 0a00138900000000fe80000000000000000000000000000701000000)\n",
     SEND},
    {"sharesTheAddressBindsSetsTheInterfaceAndJoinsTheGroup",
     IPSocket::IPV4,
     {"10.0.0.1", 5000},
     {"239.1.2.3", 5001},
     "setsockopt(s, SO_REUSEADDR, 01000000)\n"
     "bind(s, 020013880a0000010000000000000000)\n"
     "setsockopt(s, IPPROTO_IP IP_MULTICAST_IF, 0a000001)\n"
     "setsockopt(s, IPPROTO_IP IP_ADD_MEMBERSHIP, ef0102030a000001)\n",
     SEND_TO + "02001389ef0102030000000000000000)\n"},
    {"joinsAGroupOfIPv6OnTheInterfaceOfTheLocalScope",
     IPSocket::IPV6,
     {"fe80::1%258", 5000},
     {"ff02::1:3", 5001},
     "setsockopt(s, SO_REUSEADDR, 01000000)\n"
     "bind(s, 0a00138800000000fe80000000000000000000000000000102010000)\n"
     "setsockopt(s, IPPROTO_IPV6 IPV6_MULTICAST_IF, 02010000)\n"
     "setsockopt(s, IPPROTO_IPV6 IPV6_ADD_MEMBERSHIP, ff02000000000000000000000001000302010000)\n",
     SEND_TO + "0a00138900000000ff02000000000000000000000001000300000000)\n"},
    {"leavesTheInterfaceToTheSystemIfOnlyThePeerHasAScope",
     IPSocket::IPV6,
     {"::", 0},
     {"ff02::1:3%lo", 5001},
     "setsockopt(s, SO_REUSEADDR, 01000000)\n"
     "bind(s, 0a000000000000000000000000000000000000000000000000000000)\n"
     "setsockopt(s, IPPROTO_IPV6 IPV6_MULTICAST_IF, 00000000)\n"
     "setsockopt(s, IPPROTO_IPV6 IPV6_ADD_MEMBERSHIP, ff02000000000000000000000001000300000000)\n",
     SEND_TO + "0a00138900000000ff02000000000000000000000001000301000000)\n"}};
VESK_TEST_TABLE(UDPOpen, makesTheCalls, testing::Test, CALLS_ROWS) {
    CallsRow const& row = GetParam();
    RecordedSocket recorded(row.local, row.peer, row.version);
    EXPECT_EQ(row.opening, recorded.open());
    EXPECT_EQ(row.writing, recorded.write("abc"));
    EXPECT_FALSE(recorded.socket.close(false));
    EXPECT_EQ("close(s)\n", recorded.calls.getText()) << "the system leaves the group";
}

TEST(UDPSocket, emptyWriteSendsNothing) {
    for (auto const& peer : {PEER, GROUP}) {
        RecordedSocket recorded(LOCAL, peer);
        recorded.open();
        recorded.socket.m_had_error = true;
        EXPECT_EQ("", recorded.write(""));
    }
}

TEST(UDPSocket, writeAndFlushAllocateNothing) {
    for (auto const& peer : {PEER, GROUP}) {
        OpenUDPSocket socket(LOCAL, peer);
        {
            CallRecorder const calls(CallRecorder::PRETEND);
            socket.open();
        }
        // The socket is neither bound nor connected: the calls must not reach the system.
        Fault const send_fault(inject_send, EAGAIN, 1, Fault::FOREVER);
        Fault const sendto_fault(inject_sendto, EAGAIN, 1, Fault::FOREVER);
        NewFault const single(New::SINGLE, 1, 0);
        unsigned int put = UNTOUCHED;
        EXPECT_FALSE(socket.performWrite("abc", 3, put));
        EXPECT_FALSE(socket.performFlush());
        EXPECT_EQ(0, single.getCalls());
        EXPECT_EQ(1, send_fault.getCalls() + sendto_fault.getCalls());
    }
}

// ---- failures of open ----

TEST(UDPSocket, opensAfterAddressSharingWasRefused) {
    OpenUDPSocket socket(LOCAL, GROUP);
    CallRecorder const calls(CallRecorder::PRETEND);
    Fault const fault(inject_setsockopt, ENOPROTOOPT);
    EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, {Socket::ErrorId::UNKNOWN_OPTION}));
    EXPECT_TRUE(opens(socket));
}

TEST(UDPSocket, secondOpenAfterAFailedJoinCannotBindAgainAndCloses) {
    OpenUDPSocket socket({"127.0.0.1", 0}, GROUP);
    Fault const fault(inject_setsockopt, ENODEV, 2);
    ASSERT_TRUE(failsToOpen(socket, Socket::INACTIVE, {SysErrorId::UNCLASSIFIED}));
    EXPECT_TRUE(failsToOpen(socket, Socket::DEAD, ErrnoRow(SysErrorId::SPOILED_INTEGRITY, EINVAL)));
}

TEST(UDPSocket, limitedBroadcastIsAGroupThatCannotBeJoined) {
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV4);
    for (char const* const peer : {"255.255.255.255", "240.0.0.1"}) {
        CallRecorder calls;
        OpenUDPSocket socket({"127.0.0.1", 0}, {peer, 5000});
        int const fd = socket.getSocketFd();
        EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::INVALID_PATH, EINVAL)));
        EXPECT_NE(std::string::npos, calls.getText().find("IP_ADD_MEMBERSHIP"));
        EXPECT_EQ(fd, socket.getSocketFd());
    }
}

TEST(UDPSocket, addressWithATextLikeThatOfAGroupCannotBeJoined) {
    VESK_SKIP_WITHOUT_IPV6();
    VESK_SKIP_WITHOUT_GROUPS(IPSocket::IPV6);
    OpenUDPSocket socket({"::1", 0}, {"ff0::1", 5000}, IPSocket::IPV6);
    EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, ErrnoRow(SysErrorId::INVALID_PATH, EINVAL)));
}

TEST(UDPSocket, addressInUseOrOfAnotherMachineCannotBeBound) {
    Peer const peer;
    OpenUDPSocket in_use(peer.getAddress(), PEER);
    int const fd = in_use.getSocketFd();
    EXPECT_TRUE(failsToOpen(in_use, Socket::DEAD, ErrnoRow(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE)));
    EXPECT_FALSE(isOpen(fd));
    OpenUDPSocket elsewhere({"192.0.2.1", 0}, PEER);
    EXPECT_TRUE(
        failsToOpen(elsewhere, Socket::DEAD, ErrnoRow(Socket::ErrorId::ADDRESS_INVALID, EADDRNOTAVAIL)));
}

TEST(UDPSocket, bufferedDataDoesNotReplaceTheReportOfAFailedBind) {
    UDPSocket socket(true, 0, 16, LOCAL, PEER, IPSocket::IPV4);
    EXPECT_TRUE(isWritten(socket, "abc"));
    Fault const fault(inject_bind, EADDRINUSE);
    EXPECT_TRUE(failsToOpen(socket, Socket::DEAD, ErrnoRow(Socket::ErrorId::ADDRESS_IN_USE, EADDRINUSE)));
}

TEST(UDPSocket, groupsShareALocalAddressButAPeerDoesNot) {
    CallRecorder calls;
    OpenUDPSocket first({"127.0.0.1", 0}, GROUP);
    OpenUDPSocket other(LOCAL, PEER);
    // The second option fails, which happens after the bind.
    auto const binds = [](OpenUDPSocket& socket) {
        Fault const interface(inject_setsockopt, EDOM, 2);
        socket.open();
        return chainIs({SysErrorId::INVALID_PATH});
    };
    EXPECT_TRUE(binds(first));
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ASSERT_EQ(0, getsockname(first.getSocketFd(), reinterpret_cast<sockaddr*>(&bound), &length));
    ASSERT_NE(0, bound.sin_port);
    OpenUDPSocket second(IPAddress{bound}, GROUP);
    EXPECT_TRUE(binds(second));
    OpenUDPSocket third(IPAddress{bound}, PEER);
    third.open();
    EXPECT_TRUE(chainIs({Socket::ErrorId::ADDRESS_IN_USE}));
}

// ---- states ----

/// The state of a socket, and whether its peer is a group.
class UDPStates : public testing::TestWithParam<std::tuple<Socket::State, bool>> {};

TEST_P(UDPStates, decideWhichOperationsSucceed) {
    Socket::State const state = std::get<0>(GetParam());
    bool const is_group = std::get<1>(GetParam());
    bool const is_open = state == Socket::OPEN;
    bool const is_alive = state != Socket::DEAD;
    RecordedSocket recorded(LOCAL, is_group ? GROUP : PEER);
    OpenUDPSocket& socket = recorded.socket;
    if (is_open) {
        recorded.open();
    } else if (!is_alive) {
        EXPECT_FALSE(socket.close(false));
        recorded.calls.getText();
    }
    Fault const nothing_there(inject_recv, EAGAIN, 1, Fault::FOREVER);
    Reports const no_descriptor = {Socket::ErrorId::INVALID_SOCKET};
    char block[4];
    unsigned int count = UNTOUCHED;
    struct {
        char const* name;
        bool succeeds;
        std::function<void()> call;
        std::string calls;
        Reports reports;
    } const steps[] = {
        {"read",
         is_open,
         [&] {
             EXPECT_EQ(!is_open, socket.performRead(block, sizeof block, count));
             EXPECT_EQ(is_open ? 1 : 0, nothing_there.getCalls());
             EXPECT_EQ(is_open ? 0U : UNTOUCHED, count);
         },
         "",
         {misuse("called read on non-OPEN socket"), StreamErrorId::UNUSABLE}},
        {"write",
         is_open,
         [&] {
             count = UNTOUCHED;
             EXPECT_EQ(!is_open, socket.performWrite("abc", 3, count));
             EXPECT_EQ(is_open ? 3U : UNTOUCHED, count);
         },
         is_group ? SEND_TO + "02001388ef0102030000000000000000)\n" : SEND,
         {misuse("called write on non-OPEN socket"), StreamErrorId::UNUSABLE}},
        {"flush", true, [&] { EXPECT_FALSE(socket.performFlush()); }, "", {}},
        {"setBroadcast", is_alive, [&] { socket.setBroadcast(true); },
         "setsockopt(s, SO_BROADCAST, 01000000)\n", no_descriptor},
        {"getBroadcast", is_alive, [&] { EXPECT_FALSE(socket.getBroadcast()); },
         "getsockopt(s, SO_BROADCAST, 4)\n", no_descriptor},
        {"maxTxSize",
         is_alive,
         [&] { EXPECT_EQ(is_alive, socket.maxTxSize() != 0); },
         "getsockopt(s, SO_SNDBUF, 4)\n",
         {}},
    };
    for (auto const& step : steps) {
        SCOPED_TRACE(step.name);
        socket.m_had_error = true;
        step.call();
        EXPECT_EQ(!step.succeeds, socket.hadError());
        EXPECT_EQ(step.succeeds ? step.calls : "", recorded.calls.getText());
        EXPECT_TRUE(chainIs(step.succeeds ? Reports{} : step.reports));
        EXPECT_EQ(state, socket.getState());
    }
    socket.m_had_error = true;
    socket.updateLocalAddress();
    socket.updatePeerAddress();
    EXPECT_TRUE(socket.hadError()) << "the flag is unchanged";
    EXPECT_EQ(is_group ? "239.1.2.3" : "127.0.0.1", socket.getPeerAddress().host);
    // The pretended bind gave the socket no address.
    EXPECT_EQ(is_open ? "0.0.0.0" : "127.0.0.1", socket.getLocalAddress().host);
    if (state != Socket::INACTIVE) {
        EXPECT_TRUE(failsToOpen(socket, state, {misuse("open() called in state != INACTIVE")}));
        EXPECT_EQ("", recorded.calls.getText());
    }
    EXPECT_EQ(!is_alive, socket.close(false));
    EXPECT_TRUE(
        is_alive ? succeeded(socket, Socket::DEAD)
                 : failed(socket, Socket::DEAD, {misuse("called close on already DEAD socket")}));
    EXPECT_EQ(is_alive ? "close(s)\n" : "", recorded.calls.getText());
}

constexpr char const* STATE_NAMES[] = {"inactive", "open", "dead"};
INSTANTIATE_TEST_SUITE_P(
    all, UDPStates,
    testing::Combine(testing::Values(Socket::INACTIVE, Socket::OPEN, Socket::DEAD), testing::Bool()),
    [](auto const& row) {
        return STATE_NAMES[std::get<0>(row.param)] + std::string(std::get<1>(row.param) ? "Group" : "Peer");
    });

// ---- broadcast ----

TEST(UDPBroadcast, isForbiddenUntilItIsAllowed) {
    OpenUDPSocket socket(LOCAL, PEER);
    EXPECT_FALSE(socket.getBroadcast());
    for (bool const allowed : {true, false}) {
        CallRecorder calls;
        socket.setBroadcast(allowed);
        EXPECT_EQ(
            allowed ? "setsockopt(s, SO_BROADCAST, 01000000)\n" : "setsockopt(s, SO_BROADCAST, 00000000)\n",
            calls.getText());
        EXPECT_FALSE(socket.hadError());
        EXPECT_EQ(allowed, socket.getBroadcast());
        EXPECT_EQ("getsockopt(s, SO_BROADCAST, 4)\n", calls.getText());
        EXPECT_EQ(allowed ? 1 : 0, getOption(socket.getSocketFd(), SOL_SOCKET, SO_BROADCAST));
        if (allowed) {
            EXPECT_TRUE(opens(socket));
            EXPECT_TRUE(socket.getBroadcast());
        }
    }
}

TEST(UDPBroadcast, everyValueExceptZeroMeansAllowed) {
    OpenUDPSocket const socket(LOCAL, PEER);
    for (int const value : {1, 2, 256, -1, 0}) {
        PretendedOption const option(value, sizeof(int));
        EXPECT_EQ(value != 0, socket.getBroadcast()) << value;
    }
    for (socklen_t const length : {0U, 1U, 3U, 8U}) {
        EventRecorder const events;
        PretendedOption const option(1, length);
        EXPECT_TRUE(socket.getBroadcast());
        EXPECT_EQ(
            "ASSERT framework/src/vesk/posix/UDPSocket getBroadcast: ret_size == sizeof(int)",
            events.getText());
        EXPECT_FALSE(socket.hadError());
    }
}

TEST(UDPBroadcast, isIgnoredForIPv6) {
    VESK_SKIP_WITHOUT_IPV6();
    OpenUDPSocket socket(LOCAL6, PEER6, IPSocket::IPV6);
    for (bool const flag : {false, true}) {
        CallRecorder calls;
        socket.m_had_error = flag;
        socket.setBroadcast(true);
        EXPECT_EQ(flag, socket.hadError()) << "the flag is unchanged";
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_EQ(flag, socket.hadError());
        EXPECT_EQ("", calls.getText());
    }
    EXPECT_EQ(0, getOption(socket.getSocketFd(), SOL_SOCKET, SO_BROADCAST));
    EXPECT_FALSE(socket.close(false));
    socket.setBroadcast(true);
    EXPECT_FALSE(socket.getBroadcast());
    EXPECT_FALSE(socket.hadError()) << "the state is not checked";
}

// ---- the largest datagram ----

TEST(UDPSocket, largestDatagramIsTheSizeOfTheSendBufferUpToALimit) {
    // The answer of the system, which is twice the size that it granted, and the largest datagram.
    constexpr std::pair<int, unsigned int> SIZES[] = {
        {0, 0},          {1, 0},          {4608, 2304},    {131012, 65506}, {131013, 65506},
        {131014, 65507}, {131015, 65507}, {131016, 65507}, {212992, 65507}, {2147483647, 65507},
    };
    OpenUDPSocket socket(LOCAL, PEER);
    for (auto const& [answer, largest] : SIZES) {
        SCOPED_TRACE(answer);
        socket.m_had_error = true;
        PretendedOption const option(answer, sizeof(int));
        EXPECT_EQ(largest, socket.maxTxSize());
        EXPECT_FALSE(socket.hadError());
    }
}

TEST(UDPSocket, largestDatagramFollowsTheSendBuffer) {
    OpenUDPSocket socket(LOCAL, PEER);
    ASSERT_FALSE(socket.setSendBuffer(8192));
    EXPECT_EQ(8192U, socket.maxTxSize());
    ASSERT_FALSE(socket.setSendBuffer(80000));
    EXPECT_EQ(65507U, socket.maxTxSize());
    IPSocket const& base = socket;
    EXPECT_EQ(65507U, base.maxTxSize());
}

// ---- rows of setsockopt ----

/// The calls of `open` that set an option.
struct OptionCall {
    char const* name;
    IPSocket::IPProtocolVersion version;
    int nth;
};

constexpr OptionCall OPTION_CALLS[] = {
    {"SO_REUSEADDR", IPSocket::IPV4, 1},      {"IP_MULTICAST_IF", IPSocket::IPV4, 2},
    {"IP_ADD_MEMBERSHIP", IPSocket::IPV4, 3}, {"SO_REUSEADDR", IPSocket::IPV6, 1},
    {"IPV6_MULTICAST_IF", IPSocket::IPV6, 2}, {"IPV6_ADD_MEMBERSHIP", IPSocket::IPV6, 3},
};

VESK_TEST_ROWS(UDPSetOption, failureStopsOpenAndLeavesTheSocketInactiveWithItsDescriptor, setOptionRows()) {
    for (OptionCall const& call : OPTION_CALLS) {
        SCOPED_TRACE(call.name);
        CallRecorder calls(CallRecorder::PRETEND);
        bool const six = call.version == IPSocket::IPV6;
        UDPSocket socket(true, 0, 0, six ? SCOPED6 : LOCAL, six ? GROUP6 : GROUP, call.version);
        int const fd = socket.getSocketFd();
        calls.getText();
        Fault const fault(inject_setsockopt, GetParam().error, call.nth, Fault::FOREVER);
        EXPECT_TRUE(failsToOpen(socket, Socket::INACTIVE, GetParam().reports));
        EXPECT_EQ(call.nth, fault.getCalls()) << "no call is repeated or follows";
        std::string const text = calls.getText();
        size_t const last = text.rfind("setsockopt");
        ASSERT_NE(std::string::npos, last);
        EXPECT_NE(std::string::npos, text.find(call.name, last)) << text;
        EXPECT_EQ(text.size() - 1, text.find('\n', last)) << text;
        EXPECT_EQ(call.nth != 1, text.find("bind(") != std::string::npos) << text;
        EXPECT_EQ(fd, socket.getSocketFd());
    }
}

TEST_P(UDPSetOption, failureOfBroadcastSetsTheErrorFlag) {
    for (auto const& peer : {PEER, GROUP}) {
        UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
        Fault const fault(inject_setsockopt, GetParam().error, 1, Fault::FOREVER);
        socket.setBroadcast(true);
        EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, GetParam().reports));
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_FALSE(socket.hadError());
    }
}

// ---- rows of getsockopt ----

VESK_TEST_ROWS(UDPGetOption, failureSetsTheErrorFlag, getOptionRows()) {
    for (auto const& peer : {PEER, GROUP}) {
        UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
        socket.setBroadcast(true);
        Fault const fault(inject_getsockopt, GetParam().error, 1, Fault::FOREVER);
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
        EXPECT_TRUE(failed(socket, Socket::INACTIVE, GetParam().reports));
    }
    UDPSocket const socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
    Fault const fault(inject_getsockopt, GetParam().error);
    EXPECT_EQ(0U, socket.maxTxSize());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(socket.hadError());
    EXPECT_NE(0U, socket.maxTxSize());
    EXPECT_FALSE(socket.hadError());
}

// ---- rows of bind ----

VESK_TEST_ROWS(UDPBind, failureClosesTheSocketAndKeepsItsReport, bindRows()) {
    for (auto const& peer : {PEER, GROUP}) {
        for (int const close_error : {0, EIO, EBADF}) {
            EventRecorder const events;
            CallRecorder calls;
            UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
            Fault const fault(inject_bind, GetParam().error, 1, Fault::FOREVER);
            Fault const close_fault(inject_close, close_error);
            EXPECT_TRUE(failsToOpen(socket, Socket::DEAD, GetParam().reports));
            EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
            EXPECT_EQ(1, close_fault.getCalls());
            std::string const text = calls.getText();
            EXPECT_EQ(
                "bind(s, 020000007f0000010000000000000000)\nclose(s)\n", text.substr(text.find("bind")));
            EXPECT_EQ(
                close_error == 0 ? "" : "WARNING framework/src/vesk/posix/UDPSocket open: error closing",
                events.getText());
            if (close_error != 0) {
                close(CallRecorder::s_last_socket);
            }
        }
    }
}

// ---- rows of connect ----

VESK_TEST_ROWS(UDPConnect, failureOnlyWarnsAndLeavesItsReport, connectRows()) {
    EventRecorder const events;
    OpenUDPSocket socket(LOCAL, PEER);
    int const fd = socket.getSocketFd();
    Fault const fault(inject_connect, GetParam().error);
    socket.open();
    EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
    EXPECT_EQ("WARNING framework/src/vesk/posix/UDPSocket open: error connecting", events.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs(GetParam().reports));
    EXPECT_TRUE(hasState(socket, Socket::OPEN));
    EXPECT_EQ(fd, socket.getSocketFd());
}

TEST(UDPConnectCall, isRepeatedWhileASignalInterruptsIt) {
    OpenUDPSocket socket(LOCAL, PEER);
    Fault const fault(inject_connect, EINTR, 1, 3);
    EXPECT_TRUE(opens(socket));
    EXPECT_EQ(4, fault.getCalls());
}

// ---- rows of sendto ----

/// Writes once to an open socket of a group, with calls that succeed without effect. Checks that the socket stays open, and
/// that the write transfers everything or nothing.
/// @param times  how many calls fail with `error`
void expectWriteToGroup(int error, int times, Reports const& reports, bool transferred = false) {
    RecordedSocket recorded(LOCAL, GROUP);
    OpenUDPSocket& socket = recorded.socket;
    recorded.open();
    socket.m_had_error = true;
    int const fd = socket.getSocketFd();
    unsigned int put = UNTOUCHED;
    Fault const fault(inject_sendto, error, 1, times);
    EXPECT_EQ(!reports.empty(), socket.performWrite("abc", 3, put));
    EXPECT_EQ(transferred ? times + 1 : 1, fault.getCalls());
    EXPECT_EQ(transferred ? 3U : 0U, put);
    EXPECT_TRUE(reports.empty() ? succeeded(socket, Socket::OPEN) : failed(socket, Socket::OPEN, reports));
    EXPECT_EQ(fd, socket.getSocketFd());
    std::string const calls = recorded.calls.getText();
    std::string const once = SEND_TO + "02001388ef0102030000000000000000)\n";
    EXPECT_EQ(0U, calls.find(transferred ? once + once + once + once : once)) << calls;
}

VESK_TEST_ROWS(UDPSendTo, failureToTheGroupIsReported, sendRows({StreamErrorId::UNCLASSIFIED})) {
    expectWriteToGroup(GetParam().error, Fault::FOREVER, GetParam().reports);
}

TEST(UDPSendToCall, isRepeatedWhileASignalInterruptsItButNotWithoutRoom) {
    expectWriteToGroup(EAGAIN, Fault::FOREVER, {});
    expectWriteToGroup(EINTR, 3, {}, true);
}

TEST(UDPSendToCall, reportWithoutACauseIsAddedToThePendingReport) {
    RecordedSocket recorded(LOCAL, GROUP);
    recorded.open();
    std::ErrorOutput("file", 1, true)(CONTRACT_BROKEN, "pending");
    Fault const fault(inject_sendto, EINVAL);
    unsigned int put = UNTOUCHED;
    EXPECT_TRUE(recorded.socket.performWrite("abc", 3, put));
    EXPECT_TRUE(chainIs({CONTRACT_BROKEN, StreamErrorId::UNCLASSIFIED}));
}

// ---- real datagrams on the loopback interface ----

/// The version of the addresses.
class UDPLoopback : public testing::TestWithParam<IPSocket::IPProtocolVersion> {
protected:
    void SetUp() override {
        if (!m_peer.isThere()) {
            GTEST_SKIP() << "this machine has no IPv6";
        }
    }

    /// Returns an open socket that is connected to the peer.
    std::unique_ptr<OpenUDPSocket>
    connect(unsigned int read_buffer = 0, unsigned int write_buffer = 0, bool blocking = true) {
        auto socket = std::make_unique<OpenUDPSocket>(
            blocking, read_buffer, write_buffer, getLocal(), m_peer.getAddress(), GetParam());
        EXPECT_TRUE(opens(*socket));
        socket->updateLocalAddress();
        EXPECT_NE(0, socket->getLocalAddress().port);
        return socket;
    }
    /// Connects the socket of the test.
    UDPSocket& start(unsigned int read_buffer = 0, unsigned int write_buffer = 0, bool blocking = true) {
        m_socket = connect(read_buffer, write_buffer, blocking);
        return *m_socket;
    }
    /// Sends datagrams from the peer to the socket of the test.
    void send(std::initializer_list<char const*> datagrams) {
        for (char const* const datagram : datagrams) {
            EXPECT_TRUE(m_peer.sendTo(m_socket->getLocalAddress(), datagram));
        }
    }
    /// Writes to the socket of the test.
    void write(std::initializer_list<char const*> blocks) {
        for (char const* const block : blocks) {
            EXPECT_TRUE(isWritten(*m_socket, block));
        }
    }
    void expectAtPeer(std::initializer_list<char const*> datagrams) {
        for (char const* const datagram : datagrams) {
            EXPECT_EQ(datagram, m_peer.receive());
        }
    }
    /// Writes blocks through a buffer and closes the socket. Checks the datagrams at the peer.
    void expectWritten(
        unsigned int buffer, std::initializer_list<char const*> blocks,
        std::initializer_list<char const*> datagrams) {
        UDPSocket& socket = start(0, buffer);
        write(blocks);
        EXPECT_FALSE(socket.close(false));
        expectAtPeer(datagrams);
    }
    /// Checks what reads into blocks of these sizes return if "abcdefgh" and "next" were sent.
    void expectRead(unsigned int buffer, std::initializer_list<std::pair<unsigned int, char const*>> blocks) {
        UDPSocket& socket = start(buffer);
        send({"abcdefgh", "next"});
        for (auto const& [size, expected] : blocks) {
            EXPECT_EQ(expected, receive(socket, size));
        }
    }
    IPAddress const& getLocal() const { return GetParam() == IPSocket::IPV6 ? LOCAL6 : LOCAL; }

    Peer m_peer{GetParam()};
    std::unique_ptr<OpenUDPSocket> m_socket;
    unsigned int m_count = UNTOUCHED;
};

TEST_P(UDPLoopback, datagramsPassInBothDirectionsBetweenTheAddressesOfTheSystem) {
    UDPSocket& socket = start();
    write({"ping"});
    expectAtPeer({"ping"});
    EXPECT_TRUE(m_peer.answer("pong"));
    EXPECT_TRUE(m_peer.answer("pang"));
    EXPECT_EQ("pong", receive(socket));
    EXPECT_EQ("pang", receive(socket));
    socket.updatePeerAddress();
    EXPECT_EQ(m_peer.getAddress().host, socket.getPeerAddress().host);
    EXPECT_EQ(m_peer.getAddress().port, socket.getPeerAddress().port);
    EXPECT_EQ(getLocal().host, socket.getLocalAddress().host);
    EXPECT_FALSE(socket.close(true));
    EXPECT_TRUE(succeeded(socket, Socket::DEAD));
}

TEST_P(UDPLoopback, receivesNoDatagramsOfOtherSenders) {
    UDPSocket& socket = start();
    EXPECT_TRUE(Peer(GetParam()).sendTo(socket.getLocalAddress(), "stranger"));
    send({"peer"});
    EXPECT_EQ("peer", receive(socket));
    auto const silent = connect();
    send({"x"});
    std::set<Socket const*> read{m_socket.get(), silent.get()};
    std::set<Socket const*> write;
    std::set<Socket const*> except;
    EXPECT_EQ(1, Socket::selectSockets(read, write, except, 30000, true));
    EXPECT_EQ(std::set<Socket const*>{m_socket.get()}, read);
}

TEST_P(UDPLoopback, eachWriteOrFullBufferIsADatagramUnlessEmpty) {
    expectWritten(0, {"one", "", "two"}, {"one", "two"});
    expectWritten(
        8, {"12345", "6789", "larger than the buffer"}, {"12345", "6789", "larger than the buffer"});
    expectWritten(16, {"last"}, {"last"});
}

TEST_P(UDPLoopback, writeBufferGathersOneDatagramUntilItIsFlushed) {
    UDPSocket& socket = start(0, 16);
    write({"ab", "", "cde"});
    EXPECT_FALSE(socket.flush(false));
    EXPECT_FALSE(socket.flush(false)) << "the buffer is empty";
    write({"f"});
    EXPECT_FALSE(socket.flush(true));
    expectAtPeer({"abcde", "f"});
}

TEST_P(UDPLoopback, bufferHoldsADatagramForSmallReads) {
    expectRead(64, {{3, "abc"}, {5, "defgh"}, {5, "next"}});
    expectRead(0, {{3, "abc"}, {3, "nex"}});
    expectRead(4, {{3, "abc"}, {3, "d"}, {4, "next"}});
}

TEST_P(UDPLoopback, emptyDatagramReadsAsTheEndOfTheStream) {
    UDPSocket& socket = start();
    send({"one"});
    EXPECT_EQ(1, socket.read(nullptr, 0, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_EQ("one", receive(socket));
    EXPECT_EQ(1, socket.read(nullptr, 0, m_count));
    EXPECT_EQ(0U, m_count);
    send({"", "more"});
    Reports const end = {Socket::ErrorId::CONNECTION_CLOSED, StreamErrorId::END_OF_STREAM};
    EXPECT_TRUE(failsToRead(socket, withText(end, "Connection closed normally"), 0));
    EXPECT_EQ("more", receive(socket));
    EXPECT_FALSE(socket.hadError());
}

TEST_P(UDPLoopback, nonBlockingReadSucceedsWithoutADatagram) {
    UDPSocket& socket = start(0, 0, false);
    char block[8];
    EXPECT_EQ(1, socket.read(block, sizeof block, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_FALSE(socket.hadError());
    send({"now"});
    EXPECT_EQ("now", receive(socket));
}

TEST_P(UDPLoopback, largestDatagramPassesAndOneByteMoreIsTooBig) {
    UDPSocket& socket = start();
    // The limit of IPv6 does not include its header.
    unsigned int const largest = GetParam() == IPSocket::IPV6 ? 65527 : UDPSocket::MAX_TEL_SIZE;
    std::string const datagram(largest, 'd');
    EXPECT_TRUE(isWritten(socket, datagram));
    auto const received = m_peer.receive();
    EXPECT_TRUE(received == datagram) << received->size();
    EXPECT_TRUE(m_peer.answer(datagram));
    EXPECT_TRUE(receive(socket) == datagram);

    EXPECT_TRUE(failsToWrite(
        socket, ErrnoRow(Socket::ErrorId::MESSAGE_TOO_BIG, EMSGSIZE, {StreamErrorId::TRANSFER_FAILED}),
        datagram + "d"));
    write({"small"});
    expectAtPeer({"small"});
}

TEST_P(UDPLoopback, refusedDatagramFailsTheNextTransferOnce) {
    m_peer.stop();
    for (bool const reads : {true, false}) {
        UDPSocket& socket = start();
        write({"lost"});
        EXPECT_TRUE(awaitEvents(socket.getSocketFd(), POLLIN)) << "the refusal has arrived";
        EXPECT_TRUE(
            reads ? failsToRead(
                        socket,
                        ErrnoRow(Socket::ErrorId::PEER_UNREACHABLE, ECONNREFUSED, {StreamErrorId::UNUSABLE}))
                  : failsToWrite(
                        socket,
                        ErrnoRow(SysErrorId::UNCLASSIFIED, ECONNREFUSED, {StreamErrorId::UNCLASSIFIED})));
        write({"the next one succeeds"});
    }
}

INSTANTIATE_TEST_SUITE_P(
    versions, UDPLoopback, testing::Values(IPSocket::IPV4, IPSocket::IPV6),
    [](auto const& row) { return std::string(row.param == IPSocket::IPV6 ? "IPv6" : "IPv4"); });

} // namespace
