#include "UDPSupport.h"
#include "support/EventRecorder.h"
#include "support/calls/UDPCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

namespace {

using support::CallRecorder;
using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::OpenUDPSocket;
using support::rowText;
using support::StreamError;
using support::streamFailure;
using support::systemText;
using vesk::IPSocket;
using vesk::Socket;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UDPSocket;

using IPAddress = IPSocket::IPAddress;

IPAddress const LOCAL(IPSocket::LOOPBACK_IP, 0);
IPAddress const PEER(IPSocket::LOOPBACK_IP, 9);
IPAddress const GROUP("239.1.2.3", 5000);
IPAddress const LOCAL6("fe80::1%lo", 0);
IPAddress const GROUP6("ff02::1:3", 5000);

/// What one number means; without a family it makes no report.
struct Row {
    int error;
    std::ErrorType const* family;
    int id;
    int stream = -1;

    friend std::ostream& operator<<(std::ostream& out, Row const& row) {
        return out << strerrorname_np(row.error);
    }
};

std::string nameOf(testing::TestParamInfo<Row> const& info) {
    return strerrorname_np(info.param.error);
}

std::vector<ExpectedReport> reportOf(Row const& row) {
    if (row.family == nullptr) {
        return {};
    }
    return {{*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))}};
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// ---- socket ----

class UDPSocketCall : public testing::TestWithParam<Row> {};

TEST_P(UDPSocketCall, failureMakesAnInvalidObject) {
    EventRecorder const events;
    for (auto const version : {IPSocket::IPV4, IPSocket::IPV6}) {
        IPAddress const& address =
            version == IPSocket::IPV6 ? IPAddress::ANY_ADDRESS6 : IPAddress::ANY_ADDRESS;
        Fault const fault(inject_socket, GetParam().error, 1, Fault::FOREVER);
        UDPSocket const socket(false, 0, 0, address, address, version);
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
        EXPECT_TRUE(chainIs(reportOf(GetParam())));
        EXPECT_FALSE(socket.isValid());
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ("", events.getText()) << "it is destroyed silently";
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPSocketCall,
    testing::Values(
        Row{EMFILE, &SysError, SysErrorId::RESOURCES_EXHAUSTED},
        Row{ENFILE, &SysError, SysErrorId::RESOURCES_EXHAUSTED},
        Row{EACCES, &SysError, SysErrorId::PERMISSION_DENIED},
        Row{EINVAL, &Socket::Error, Socket::ErrorId::CREATE_FAILED},
        Row{EPROTOTYPE, &Socket::Error, Socket::ErrorId::CREATE_FAILED},
        Row{EPROTONOSUPPORT, &Socket::Error, Socket::ErrorId::CREATE_FAILED},
        Row{EAFNOSUPPORT, &Socket::Error, Socket::ErrorId::CREATE_FAILED},
        Row{ENOMEM, &SysError, SysErrorId::OUT_OF_MEMORY}, Row{ENOBUFS, &SysError, SysErrorId::OUT_OF_MEMORY},
        Row{EPERM, &SysError, SysErrorId::UNCLASSIFIED}, Row{EINTR, &SysError, SysErrorId::UNCLASSIFIED}),
    nameOf);

// ---- fcntl ----

/// Which of the two calls fails, with what.
struct FlagRow {
    char const* name;
    int nth;
    int error;

    friend std::ostream& operator<<(std::ostream& out, FlagRow const& row) { return out << row.name; }
};

class UDPFcntl : public testing::TestWithParam<FlagRow> {};

TEST_P(UDPFcntl, failureClosesTheDescriptorAndKeepsItsReport) {
    EventRecorder const events;
    {
        CallRecorder calls;
        Fault const fault(inject_fcntl, GetParam().error, GetParam().nth);
        OpenUDPSocket const socket(LOCAL, PEER, IPSocket::IPV4, false);
        std::string const text = calls.getText();
        EXPECT_EQ("close(s)\n", text.substr(text.find("close")));
        EXPECT_EQ(GetParam().nth, fault.getCalls());
        EXPECT_TRUE(chainIs(
            {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(GetParam().error))}}));
        EXPECT_FALSE(socket.isValid());
        EXPECT_FALSE(socket.m_object_valid);
        EXPECT_EQ(Socket::DEAD, socket.getState());
        EXPECT_EQ(-1, socket.getSocketFd());
    }
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(UDPFcntl, failedCloseBehindAFailureWarnsAndKeepsTheFirstReport) {
    for (int const close_error : {EIO, EBADF}) {
        EventRecorder const events;
        {
            Fault const fault(inject_fcntl, GetParam().error, GetParam().nth);
            Fault const close_fault(inject_close, close_error);
            UDPSocket const socket(false, 0, 0, LOCAL, PEER, IPSocket::IPV4);
            EXPECT_EQ(1, close_fault.getCalls());
            EXPECT_TRUE(chainIs(
                {{SysErrorId::UNCLASSIFIED,
                  rowText(SysErrorId::UNCLASSIFIED, systemText(GetParam().error))}}));
            EXPECT_FALSE(socket.isValid());
            EXPECT_EQ(Socket::DEAD, socket.getState());
            EXPECT_EQ(-1, socket.getSocketFd());
        }
        EXPECT_EQ("WARNING framework/src/vesk/posix/UDPSocket UDPSocket: close error", events.getText());
        close(CallRecorder::s_last_socket);
    }
}

TEST_P(UDPFcntl, interruptedCloseBehindAFailureIsRepeated) {
    EventRecorder const events;
    Fault const fault(inject_fcntl, GetParam().error, GetParam().nth);
    Fault const close_fault(inject_close, EINTR, 1, 2);
    UDPSocket const socket(false, 0, 0, LOCAL, PEER, IPSocket::IPV4);
    EXPECT_EQ(3, close_fault.getCalls());
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED}}));
    EXPECT_EQ("", events.getText());
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPFcntl,
    testing::Values(
        FlagRow{"getEBADF", 1, EBADF}, FlagRow{"getEINTR", 1, EINTR}, FlagRow{"setEINVAL", 2, EINVAL},
        FlagRow{"setEPERM", 2, EPERM}),
    [](testing::TestParamInfo<FlagRow> const& row) { return row.param.name; });

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

class UDPSetOption : public testing::TestWithParam<Row> {};

TEST_P(UDPSetOption, failureInOpenStopsItAndLeavesTheSocketInactiveWithItsDescriptor) {
    for (OptionCall const& call : OPTION_CALLS) {
        SCOPED_TRACE(call.name);
        EventRecorder const events;
        {
            CallRecorder calls(CallRecorder::PRETEND);
            bool const six = call.version == IPSocket::IPV6;
            UDPSocket socket(true, 0, 0, six ? LOCAL6 : LOCAL, six ? GROUP6 : GROUP, call.version);
            ASSERT_TRUE(socket.isValid());
            int const fd = socket.getSocketFd();
            calls.getText();
            {
                Fault const fault(inject_setsockopt, GetParam().error, call.nth, Fault::FOREVER);
                socket.open();
                EXPECT_EQ(call.nth, fault.getCalls()) << "it is not repeated, and nothing comes behind it";
            }
            std::string const text = calls.getText();
            size_t const last = text.rfind("setsockopt");
            ASSERT_NE(std::string::npos, last);
            EXPECT_NE(std::string::npos, text.find(call.name, last)) << text;
            EXPECT_EQ(text.size() - 1, text.find('\n', last)) << text;
            EXPECT_EQ(call.nth != 1, text.find("bind(") != std::string::npos) << text;

            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(chainIs(reportOf(GetParam())));
            EXPECT_TRUE(socket.isValid());
            EXPECT_EQ(Socket::INACTIVE, socket.getState());
            EXPECT_EQ(fd, socket.getSocketFd());
            EXPECT_TRUE(isOpen(fd));
        }
        EXPECT_EQ("", events.getText()) << "it is closed without a complaint";
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_P(UDPSetOption, failureOfBroadcastIsToldByTheFlag) {
    for (auto const& peer : {PEER, GROUP}) {
        UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
        Fault const fault(inject_setsockopt, GetParam().error, 1, Fault::FOREVER);
        socket.setBroadcast(true);
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(reportOf(GetParam())));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_TRUE(isOpen(socket.getSocketFd()));
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_FALSE(socket.hadError());
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPSetOption,
    testing::Values(
        Row{EBADF, &Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{ENOTSOCK, &Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{EFAULT, &SysError, SysErrorId::INVALID_PATH}, Row{EINVAL, &SysError, SysErrorId::INVALID_PATH},
        Row{EDOM, &SysError, SysErrorId::INVALID_PATH}, Row{EISCONN, &SysError, SysErrorId::INVALID_PATH},
        Row{ENOPROTOOPT, &Socket::Error, Socket::ErrorId::UNKNOWN_OPTION},
        Row{ENODEV, &SysError, SysErrorId::UNCLASSIFIED},
        Row{EADDRNOTAVAIL, &SysError, SysErrorId::UNCLASSIFIED},
        Row{EADDRINUSE, &SysError, SysErrorId::UNCLASSIFIED},
        Row{ENOBUFS, &SysError, SysErrorId::UNCLASSIFIED}, Row{EINTR, &SysError, SysErrorId::UNCLASSIFIED}),
    nameOf);

// ---- getsockopt ----

class UDPGetOption : public testing::TestWithParam<Row> {};

TEST_P(UDPGetOption, failureOfBroadcastIsToldByTheFlag) {
    for (auto const& peer : {PEER, GROUP}) {
        UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
        socket.setBroadcast(true);
        Fault const fault(inject_getsockopt, GetParam().error, 1, Fault::FOREVER);
        EXPECT_FALSE(socket.getBroadcast());
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
        EXPECT_TRUE(socket.hadError());
        EXPECT_TRUE(chainIs(reportOf(GetParam())));
        EXPECT_EQ(Socket::INACTIVE, socket.getState());
        EXPECT_TRUE(isOpen(socket.getSocketFd()));
    }
}

TEST_P(UDPGetOption, failureOfTheLargestSizeIsToldByTheFlagAlone) {
    EventRecorder const events;
    UDPSocket const socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
    {
        Fault const fault(inject_getsockopt, GetParam().error, 1, Fault::FOREVER);
        EXPECT_EQ(0U, socket.maxTxSize());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", events.getText()) << "there is no warning";
    EXPECT_NE(0U, socket.maxTxSize());
    EXPECT_FALSE(socket.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPGetOption,
    testing::Values(
        Row{EBADF, &Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{EINVAL, &Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{ENOTSOCK, &Socket::Error, Socket::ErrorId::INVALID_SOCKET},
        Row{EACCES, &SysError, SysErrorId::PERMISSION_DENIED},
        Row{ENOPROTOOPT, &Socket::Error, Socket::ErrorId::UNKNOWN_OPTION},
        Row{ENOBUFS, &SysError, SysErrorId::OUT_OF_MEMORY}, Row{EFAULT, &SysError, SysErrorId::UNCLASSIFIED},
        Row{EINTR, &SysError, SysErrorId::UNCLASSIFIED}),
    nameOf);

// ---- bind ----

class UDPBind : public testing::TestWithParam<Row> {};

TEST_P(UDPBind, failureClosesTheSocketAndKeepsItsReport) {
    for (auto const& peer : {PEER, GROUP}) {
        EventRecorder const events;
        {
            CallRecorder calls;
            UDPSocket socket(true, 0, 0, LOCAL, peer, IPSocket::IPV4);
            calls.getText();
            {
                Fault const fault(inject_bind, GetParam().error, 1, Fault::FOREVER);
                socket.open();
                EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
            }
            std::string const text = calls.getText();
            EXPECT_EQ(
                "bind(s, 020000007f0000010000000000000000)\nclose(s)\n", text.substr(text.find("bind")));
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(chainIs(reportOf(GetParam())));
            EXPECT_FALSE(socket.isValid());
            EXPECT_EQ(Socket::DEAD, socket.getState());
            EXPECT_EQ(-1, socket.getSocketFd());
        }
        EXPECT_EQ("", events.getText());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_P(UDPBind, failedCloseBehindAFailureWarnsAndKeepsTheFirstReport) {
    for (int const close_error : {EIO, EBADF}) {
        EventRecorder const events;
        {
            UDPSocket socket(true, 0, 0, LOCAL, PEER, IPSocket::IPV4);
            Fault const fault(inject_bind, GetParam().error);
            Fault const close_fault(inject_close, close_error);
            socket.open();
            EXPECT_EQ(1, close_fault.getCalls());
            EXPECT_TRUE(socket.hadError());
            EXPECT_TRUE(chainIs(reportOf(GetParam())));
            EXPECT_EQ(Socket::DEAD, socket.getState());
            EXPECT_EQ(-1, socket.getSocketFd());
        }
        EXPECT_EQ("WARNING framework/src/vesk/posix/UDPSocket open: error closing", events.getText());
        close(CallRecorder::s_last_socket);
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPBind,
    testing::Values(
        Row{EINVAL, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOENT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EIO, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EBADF, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EFAULT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOTDIR, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EISDIR, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EROFS, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENAMETOOLONG, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ELOOP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOTSOCK, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EDESTADDRREQ, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EOPNOTSUPP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EAFNOSUPPORT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EISCONN, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOMEM, &SysError, SysErrorId::OUT_OF_MEMORY},
        Row{EACCES, &SysError, SysErrorId::PERMISSION_DENIED},
        Row{EADDRINUSE, &Socket::Error, Socket::ErrorId::ADDRESS_IN_USE},
        Row{EADDRNOTAVAIL, &Socket::Error, Socket::ErrorId::ADDRESS_INVALID},
        Row{ENOBUFS, &SysError, SysErrorId::RESOURCES_EXHAUSTED},
        Row{ENODEV, &SysError, SysErrorId::UNCLASSIFIED}, Row{EPERM, &SysError, SysErrorId::UNCLASSIFIED},
        Row{EINTR, &SysError, SysErrorId::UNCLASSIFIED}),
    nameOf);

// ---- connect ----

class UDPConnect : public testing::TestWithParam<Row> {};

TEST_P(UDPConnect, failureOnlyWarnsAndLeavesItsReport) {
    EventRecorder const events;
    OpenUDPSocket socket(LOCAL, PEER);
    int const fd = socket.getSocketFd();
    {
        Fault const fault(inject_connect, GetParam().error);
        socket.open();
        EXPECT_EQ(1, fault.getCalls()) << "it is not repeated";
    }
    EXPECT_EQ("WARNING framework/src/vesk/posix/UDPSocket open: error connecting", events.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs(reportOf(GetParam())));
    EXPECT_TRUE(socket.isValid());
    EXPECT_EQ(Socket::OPEN, socket.getState());
    EXPECT_EQ(fd, socket.getSocketFd());
    EXPECT_TRUE(isOpen(fd));
}

INSTANTIATE_TEST_SUITE_P(
    rows, UDPConnect,
    testing::Values(
        Row{EALREADY, nullptr, 0}, Row{EINPROGRESS, nullptr, 0},
        Row{EPERM, &SysError, SysErrorId::PERMISSION_DENIED},
        Row{EACCES, &SysError, SysErrorId::PERMISSION_DENIED},
        Row{ENOENT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EBADF, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EFAULT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOTDIR, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EINVAL, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENAMETOOLONG, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ELOOP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ENOTSOCK, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EPROTOTYPE, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EOPNOTSUPP, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EAFNOSUPPORT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EISCONN, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{ETIMEDOUT, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{EAGAIN, &SysError, SysErrorId::RESOURCES_EXHAUSTED},
        Row{ENOBUFS, &SysError, SysErrorId::RESOURCES_EXHAUSTED},
        Row{EADDRINUSE, &Socket::Error, Socket::ErrorId::ADDRESS_IN_USE},
        Row{EADDRNOTAVAIL, &Socket::Error, Socket::ErrorId::ADDRESS_INVALID},
        Row{ENETDOWN, &Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE},
        Row{ENETUNREACH, &Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE},
        Row{ECONNRESET, &Socket::Error, Socket::ErrorId::CONNECTION_RESET},
        Row{ECONNREFUSED, &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE},
        Row{EHOSTUNREACH, &Socket::Error, Socket::ErrorId::PEER_UNREACHABLE},
        Row{EIO, &SysError, SysErrorId::UNCLASSIFIED}, Row{ENOMEM, &SysError, SysErrorId::UNCLASSIFIED}),
    nameOf);

TEST(UDPConnectCall, isRepeatedWhileASignalInterruptsIt) {
    EventRecorder const events;
    OpenUDPSocket socket(LOCAL, PEER);
    Fault const fault(inject_connect, EINTR, 1, 3);
    socket.open();
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_EQ("", events.getText());
    EXPECT_FALSE(socket.hadError());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Socket::OPEN, socket.getState());
}

// ---- send and sendto ----

constexpr unsigned int UNTOUCHED = 77;

class UDPSendCalls : public testing::Test {
protected:
    /// Opens a socket to a peer or to a group, with calls that only seem to succeed, and has it write once.
    void writeOnce(IPAddress const& peer, Injected& function, int error, int times) {
        OpenUDPSocket socket(LOCAL, peer);
        socket.open();
        ASSERT_FALSE(socket.hadError());
        socket.m_had_error = true;
        int const fd = socket.getSocketFd();
        m_calls.getText();
        {
            Fault const fault(function, error, 1, times);
            m_failed = socket.performWrite("abc", 3, m_put);
            m_count = fault.getCalls();
            m_text = m_calls.getText();
        }
        m_had_error = socket.hadError();
        EXPECT_TRUE(socket.isValid());
        EXPECT_EQ(Socket::OPEN, socket.getState());
        EXPECT_EQ(fd, socket.getSocketFd());
        EXPECT_TRUE(isOpen(fd));
    }

    CallRecorder m_calls{CallRecorder::PRETEND};
    unsigned int m_put = UNTOUCHED;
    bool m_failed = false;
    bool m_had_error = false;
    int m_count = 0;
    std::string m_text;
};

class UDPSend : public UDPSendCalls, public testing::WithParamInterface<Row> {};

TEST_P(UDPSend, failureToTheOnePeerIsReported) {
    Row const& row = GetParam();
    writeOnce(PEER, inject_send, row.error, Fault::FOREVER);
    EXPECT_EQ(1, m_count) << "it is not repeated";
    EXPECT_TRUE(m_failed);
    EXPECT_TRUE(m_had_error);
    EXPECT_EQ(0U, m_put);
    EXPECT_TRUE(chainIs(streamFailure(*row.family, row.id, row.error, row.stream)));
}

class UDPSendTo : public UDPSendCalls, public testing::WithParamInterface<Row> {};

TEST_P(UDPSendTo, failureToTheGroupIsReported) {
    Row const& row = GetParam();
    writeOnce(GROUP, inject_sendto, row.error, Fault::FOREVER);
    EXPECT_EQ(1, m_count) << "it is not repeated";
    EXPECT_TRUE(m_failed);
    EXPECT_TRUE(m_had_error);
    EXPECT_EQ(0U, m_put);
    if (row.family != nullptr) {
        EXPECT_TRUE(chainIs(streamFailure(*row.family, row.id, row.error, row.stream)));
    } else {
        EXPECT_TRUE(chainIs({{StreamError, row.stream}}));
    }
}

auto const LISTED = testing::Values(
    Row{EPERM, &SysError, SysErrorId::PERMISSION_DENIED, 0},
    Row{EACCES, &SysError, SysErrorId::PERMISSION_DENIED, 0},
    Row{EIO, &SysError, SysErrorId::SPOILED_INTEGRITY, 0},
    Row{EBADF, &SysError, SysErrorId::SPOILED_INTEGRITY, 0},
    Row{ENOTSOCK, &SysError, SysErrorId::SPOILED_INTEGRITY, 0},
    Row{EOPNOTSUPP, &SysError, SysErrorId::SPOILED_INTEGRITY, 0},
    Row{ENOTCONN, &SysError, SysErrorId::SPOILED_INTEGRITY, 0},
    Row{EPIPE, &Socket::Error, Socket::ErrorId::INVALID_SOCKET, 0},
    Row{EDESTADDRREQ, &Socket::Error, Socket::ErrorId::ADDRESS_INVALID, 0},
    Row{ENETDOWN, &Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, 0},
    Row{ENETUNREACH, &Socket::Error, Socket::ErrorId::NETWORK_UNAVAILABLE, 0},
    Row{ECONNRESET, &Socket::Error, Socket::ErrorId::CONNECTION_RESET, 0},
    Row{EMSGSIZE, &Socket::Error, Socket::ErrorId::MESSAGE_TOO_BIG, 1},
    Row{ENOBUFS, &SysError, SysErrorId::RESOURCES_EXHAUSTED, 1});

INSTANTIATE_TEST_SUITE_P(listed, UDPSend, LISTED, nameOf);
INSTANTIATE_TEST_SUITE_P(listed, UDPSendTo, LISTED, nameOf);

INSTANTIATE_TEST_SUITE_P(
    others, UDPSend,
    testing::Values(
        Row{ECONNREFUSED, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EINVAL, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EFAULT, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ENOMEM, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EHOSTUNREACH, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{EISCONN, &SysError, SysErrorId::UNCLASSIFIED, 4},
        Row{ETIMEDOUT, &SysError, SysErrorId::UNCLASSIFIED, 4}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    others, UDPSendTo,
    testing::Values(
        Row{ECONNREFUSED, nullptr, 0, 4}, Row{EINVAL, nullptr, 0, 4}, Row{EFAULT, nullptr, 0, 4},
        Row{ENOMEM, nullptr, 0, 4}, Row{EHOSTUNREACH, nullptr, 0, 4}, Row{EISCONN, nullptr, 0, 4},
        Row{ETIMEDOUT, nullptr, 0, 4}, Row{EAFNOSUPPORT, nullptr, 0, 4}),
    nameOf);

TEST_F(UDPSendCalls, noRoomToTheOnePeerIsSuccessWithNothingTaken) {
    writeOnce(PEER, inject_send, EAGAIN, Fault::FOREVER);
    EXPECT_EQ(1, m_count);
    EXPECT_FALSE(m_failed);
    EXPECT_FALSE(m_had_error);
    EXPECT_EQ(0U, m_put);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(UDPSendCalls, noRoomToTheGroupIsSuccessWithNothingTaken) {
    writeOnce(GROUP, inject_sendto, EAGAIN, Fault::FOREVER);
    EXPECT_EQ(1, m_count);
    EXPECT_FALSE(m_failed);
    EXPECT_FALSE(m_had_error);
    EXPECT_EQ(0U, m_put);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(UDPSendCalls, interruptedOneToTheOnePeerIsRepeated) {
    writeOnce(PEER, inject_send, EINTR, 3);
    EXPECT_EQ(4, m_count);
    EXPECT_FALSE(m_failed);
    EXPECT_FALSE(m_had_error);
    EXPECT_EQ(3U, m_put);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(UDPSendCalls, interruptedOneToTheGroupIsRepeatedWithTheSameArguments) {
    writeOnce(GROUP, inject_sendto, EINTR, 3);
    EXPECT_EQ(4, m_count);
    EXPECT_FALSE(m_failed);
    EXPECT_FALSE(m_had_error);
    EXPECT_EQ(3U, m_put);
    EXPECT_TRUE(chainIs({}));
    std::string const once = "sendto(s, 616263, 16384, 02001388ef0102030000000000000000)\n";
    EXPECT_EQ(once + once + once + once, m_text);
}

TEST_F(UDPSendCalls, reportBehindOneThatIsPendingStandsOnTopOfItWhereThereIsNoCause) {
    OpenUDPSocket socket(LOCAL, GROUP);
    socket.open();
    std::ErrorOutput("file", 1, true)(std::CommonErrorId::CONTRACT_BROKEN, "pending");
    Fault const fault(inject_sendto, EINVAL);
    EXPECT_TRUE(socket.performWrite("abc", 3, m_put));
    EXPECT_TRUE(
        chainIs({{std::CommonErrorId::CONTRACT_BROKEN}, {std::IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
}

} // namespace
