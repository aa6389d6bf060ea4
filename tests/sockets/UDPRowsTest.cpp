#include "UDPSupport.h"
#include "support/calls/UDPCalls.h"

#include <tarncommon/error/ErrorOutput.h>

namespace {

using namespace support;

using IPAddress = IPSocket::IPAddress;

IPAddress const LOCAL(IPSocket::LOOPBACK_IP, 0);
IPAddress const PEER(IPSocket::LOOPBACK_IP, 9);
IPAddress const GROUP("239.1.2.3", 5000);
IPAddress const LOCAL6("fe80::1%lo", 0);
IPAddress const GROUP6("ff02::1:3", 5000);

// ---- socket ----

VESK_TEST_ROWS(UDPSocketCall, failureMakesAnInvalidSocket, createRows()) {
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        IPAddress const& address =
            version == IPSocket::IPV6 ? IPAddress::ANY_ADDRESS6 : IPAddress::ANY_ADDRESS;
        Fault const fault(inject_socket, GetParam().error, 1, Fault::FOREVER);
        UDPSocket const socket(false, 0, 0, address, address, version);
        EXPECT_EQ(1, fault.getCalls()) << "the call is not repeated";
        EXPECT_TRUE(chainIs(GetParam().reports));
        EXPECT_TRUE(isUnusable(socket));
    }
}

// ---- fcntl ----

/// Which of the two calls fails, and its error.
class UDPFcntl : public testing::TestWithParam<std::pair<int, int>> {
protected:
    /// Makes an `fcntl` of a new socket fail. Checks that it is closed and this failure reported.
    void expectDead() const {
        Fault const fault(inject_fcntl, GetParam().second, GetParam().first);
        OpenUDPSocket const socket(LOCAL, PEER, IPSocket::IPV4, false);
        EXPECT_EQ(GetParam().first, fault.getCalls());
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, GetParam().second));
        EXPECT_FALSE(socket.m_object_valid);
        EXPECT_TRUE(isUnusable(socket, Socket::DEAD));
    }

    EventRecorder m_events;
};

TEST_P(UDPFcntl, failureClosesTheDescriptorAlsoIfASignalInterruptsItAndKeepsItsReport) {
    CallRecorder calls;
    expectDead();
    std::string const text = calls.getText();
    EXPECT_EQ("close(s)\n", text.substr(text.find("close")));
    EXPECT_EQ("", m_events.getText());
    Fault const close_fault(inject_close, EINTR, 1, 2);
    expectDead();
    EXPECT_EQ(3, close_fault.getCalls());
    EXPECT_EQ("", m_events.getText());
}

TEST_P(UDPFcntl, failedCloseAfterAFailureWarnsAndKeepsTheFirstReport) {
    for (int const close_error : {EIO, EBADF}) {
        EventRecorder const events;
        Fault const close_fault(inject_close, close_error);
        expectDead();
        EXPECT_EQ(1, close_fault.getCalls());
        EXPECT_EQ("WARNING framework/src/vesk/posix/UDPSocket UDPSocket: close error", events.getText());
        close(CallRecorder::s_last_socket);
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPFcntl,
    testing::Values(std::pair(1, EBADF), std::pair(1, EINTR), std::pair(2, EINVAL), std::pair(2, EPERM)),
    [](auto const& row) {
        return std::string(row.param.first == 1 ? "get" : "set") + strerrorname_np(row.param.second);
    });

// ---- setsockopt ----

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
        UDPSocket socket(true, 0, 0, six ? LOCAL6 : LOCAL, six ? GROUP6 : GROUP, call.version);
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

// ---- getsockopt ----

VESK_TEST_ROWS(
    UDPGetOption, failureOfBroadcastSetsTheErrorFlagAndOfTheLargestSizeWithoutAReport, getOptionRows()) {
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

// ---- bind ----

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

// ---- connect ----

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

// ---- send and sendto ----

/// A call that sends "abc", and the peer for which a socket makes it.
struct SendCall {
    char const* name;
    Injected& function;
    IPAddress peer;
};

SendCall const SEND{"send", inject_send, PEER};
SendCall const SEND_TO{"sendto", inject_sendto, GROUP};

/// Opens a socket with calls that succeed without effect, and writes once. Checks that the socket stays open,
/// and that the write transfers everything or nothing.
/// @param times  how many calls fail with `error`
void expectWrite(
    SendCall const& call, int error, int times, Reports const& reports, bool transferred = false) {
    CallRecorder calls{CallRecorder::PRETEND};
    OpenUDPSocket socket(LOCAL, call.peer);
    ASSERT_TRUE(opens(socket));
    socket.m_had_error = true;
    int const fd = socket.getSocketFd();
    unsigned int put = 77;
    Fault const fault(call.function, error, 1, times);
    EXPECT_EQ(!reports.empty(), socket.performWrite("abc", 3, put));
    EXPECT_EQ(transferred ? times + 1 : 1, fault.getCalls());
    EXPECT_EQ(transferred ? 3U : 0U, put);
    EXPECT_EQ(!reports.empty(), socket.hadError());
    EXPECT_TRUE(chainIs(reports));
    EXPECT_TRUE(hasState(socket, Socket::OPEN));
    EXPECT_EQ(fd, socket.getSocketFd());
}

VESK_TEST_ROWS(UDPSend, failureToThePeerIsReported, sendRows()) {
    expectWrite(SEND, GetParam().error, Fault::FOREVER, GetParam().reports);
}

VESK_TEST_ROWS(UDPSendTo, failureToTheGroupIsReported, sendRows({StreamErrorId::UNCLASSIFIED})) {
    expectWrite(SEND_TO, GetParam().error, Fault::FOREVER, GetParam().reports);
}

class UDPSendCalls : public testing::TestWithParam<SendCall> {};

TEST_P(UDPSendCalls, withoutRoomTransfersNothingAndIsRepeatedWhileASignalInterruptsIt) {
    expectWrite(GetParam(), EAGAIN, Fault::FOREVER, {});
    expectWrite(GetParam(), EINTR, 3, {}, true);
}

INSTANTIATE_TEST_SUITE_P(calls, UDPSendCalls, testing::Values(SEND, SEND_TO), [](auto const& row) {
    return row.param.name;
});

TEST(UDPSendCalls, sendtoIsRepeatedWithTheSameArguments) {
    CallRecorder calls{CallRecorder::PRETEND};
    OpenUDPSocket socket(LOCAL, GROUP);
    ASSERT_TRUE(opens(socket));
    calls.getText();
    Fault const fault(inject_sendto, EINTR, 1, 2);
    EXPECT_TRUE(isWritten(socket, "abc"));
    std::string const once = "sendto(s, 616263, 16384, 02001388ef0102030000000000000000)\n";
    EXPECT_EQ(once + once + once, calls.getText());
}

TEST(UDPSendCalls, reportWithoutACauseIsAddedToThePendingReport) {
    CallRecorder const calls{CallRecorder::PRETEND};
    OpenUDPSocket socket(LOCAL, GROUP);
    socket.open();
    std::ErrorOutput("file", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "pending");
    Fault const fault(inject_sendto, EINVAL);
    unsigned int put = 77;
    EXPECT_TRUE(socket.performWrite("abc", 3, put));
    EXPECT_TRUE(chainIs({std::CommonErrorId::CONTRACT_BROKEN, StreamErrorId::UNCLASSIFIED}));
}

} // namespace
