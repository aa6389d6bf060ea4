#pragma once

#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <tarncommon/stream/IBinStreamBase.h>
#include <vesk/IPSocket.h>
#include <vesk/RawSocket.h>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

/// Chains of reports that show one text, and tables of them.

namespace support {

using SocketErrorId = vesk::Socket::ErrorId;
using StreamErrorId = std::IBinStreamBase::StreamErrorId;
using Reports = std::vector<ExpectedReport>;

/// Returns `reports` with `text` as the argument of each row that has one.
inline Reports withText(Reports reports, std::string const& text) {
    for (ExpectedReport& report : reports) {
        report.text = rowText(*report.family, report.id, text);
    }
    return reports;
}

/// Checks that the pending chain is `reports`, the root cause first, with `text` as the argument of each row
/// that has one. Acknowledges the chain.
inline testing::AssertionResult chainIs(std::string const& text, Reports const& reports) {
    return chainIs(withText(reports, text));
}

/// The same with the system's text of an error number.
inline testing::AssertionResult chainIs(int error, Reports const& reports) {
    return chainIs(systemText(error), reports);
}

/// An error number and the chain of reports that it makes.
struct ErrnoRow {
    ErrnoRow(int row_error, Reports row_reports) : error(row_error), reports(std::move(row_reports)) {}

    /// Makes the row of a cause, with the text of the number, and of the reports on top of it.
    template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
    ErrnoRow(Id cause, int row_error, Reports const& on_top = {}) : error(row_error), reports{cause} {
        reports.insert(reports.end(), on_top.begin(), on_top.end());
        reports = withText(reports, systemText(error));
    }

    operator Reports const&() const { return reports; }

    int error;
    Reports reports;

    std::string getName() const {
        char const* const name = strerrorname_np(error);
        return name != nullptr ? name : std::to_string(error);
    }
    friend std::ostream& operator<<(std::ostream& out, ErrnoRow const& row) { return out << row.getName(); }
};

/// Error numbers that make the same chain of reports.
struct ErrnoReports {
    std::vector<int> errors;
    Reports reports;
};

/// Returns one row for each number of the groups.
inline std::vector<ErrnoRow> errnoRows(std::vector<ErrnoReports> const& groups) {
    std::vector<ErrnoRow> rows;
    for (ErrnoReports const& group : groups) {
        for (int const error : group.errors) {
            rows.push_back({error, withText(group.reports, systemText(error))});
        }
    }
    return rows;
}

/// Starts the first test of a suite that runs once for each of the rows.
///
///     VESK_TEST_ROWS(UDPBind, failureIsReported, bindRows()) {
///         Fault const fault(inject_bind, GetParam().error);
///         ...
///     }
#define VESK_TEST_ROWS(suite, name, ...) VESK_TEST_EACH(suite, name, testing::Test, __VA_ARGS__)

/// The same for the values of any array or vector, with a fixture.
#define VESK_TEST_EACH(suite, name, fixture, ...)                                                            \
    class suite : public fixture,                                                                            \
                  public testing::WithParamInterface<std::decay_t<decltype((__VA_ARGS__)[0])>> {};           \
    INSTANTIATE_TEST_SUITE_P(                                                                                \
        rows, suite, testing::ValuesIn(__VA_ARGS__), testing::PrintToStringParamName());                     \
    TEST_P(suite, name)

// ---- the tables that several classes share ----

inline std::vector<ErrnoRow> createRows() {
    return errnoRows({
        {{EMFILE, ENFILE}, {SysErrorId::RESOURCES_EXHAUSTED}},
        {{EACCES}, {SysErrorId::PERMISSION_DENIED}},
        {{EINVAL, EPROTOTYPE, EPROTONOSUPPORT, EAFNOSUPPORT}, {SocketErrorId::CREATE_FAILED}},
        {{ENOMEM, ENOBUFS}, {SysErrorId::OUT_OF_MEMORY}},
        {{EPERM, EINTR, EFAULT, EIO, EAGAIN}, {SysErrorId::UNCLASSIFIED}},
    });
}

inline std::vector<ErrnoRow> setOptionRows() {
    return errnoRows({
        {{EBADF, ENOTSOCK}, {SocketErrorId::INVALID_SOCKET}},
        {{EFAULT, EINVAL, EDOM, EISCONN}, {SysErrorId::INVALID_PATH}},
        {{ENOPROTOOPT}, {SocketErrorId::UNKNOWN_OPTION}},
        {{ENODEV, EADDRNOTAVAIL, EADDRINUSE, ENOMEM, ENOBUFS, EACCES, EPERM, EINTR, EIO},
         {SysErrorId::UNCLASSIFIED}},
    });
}

inline std::vector<ErrnoRow> getOptionRows() {
    return errnoRows({
        {{EBADF, EINVAL, ENOTSOCK}, {SocketErrorId::INVALID_SOCKET}},
        {{EACCES}, {SysErrorId::PERMISSION_DENIED}},
        {{ENOPROTOOPT}, {SocketErrorId::UNKNOWN_OPTION}},
        {{ENOBUFS}, {SysErrorId::OUT_OF_MEMORY}},
        {{EFAULT, ENOMEM, EPERM, EINTR}, {SysErrorId::UNCLASSIFIED}},
    });
}

inline std::vector<ErrnoRow> bindRows() {
    return errnoRows({
        {{EINVAL, ENOENT, EIO, EBADF, EFAULT, ENOTDIR, EISDIR, EROFS, ENAMETOOLONG, ELOOP, ENOTSOCK,
          EDESTADDRREQ, EOPNOTSUPP, EAFNOSUPPORT, EISCONN},
         {SysErrorId::SPOILED_INTEGRITY}},
        {{ENOMEM}, {SysErrorId::OUT_OF_MEMORY}},
        {{EACCES}, {SysErrorId::PERMISSION_DENIED}},
        {{EADDRINUSE}, {SocketErrorId::ADDRESS_IN_USE}},
        {{EADDRNOTAVAIL}, {SocketErrorId::ADDRESS_INVALID}},
        {{ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED}},
        {{ENODEV, EPERM, EINTR, EAGAIN, ENOSPC}, {SysErrorId::UNCLASSIFIED}},
    });
}

/// The first two mean that the connection is under way, which makes no report.
inline std::vector<ErrnoRow> connectRows() {
    return errnoRows({
        {{EALREADY, EINPROGRESS}, {}},
        {{EPERM, EACCES}, {SysErrorId::PERMISSION_DENIED}},
        {{ENOENT, EBADF, EFAULT, ENOTDIR, EINVAL, ENAMETOOLONG, ELOOP, ENOTSOCK, EPROTOTYPE, EOPNOTSUPP,
          EAFNOSUPPORT, EISCONN, ETIMEDOUT},
         {SysErrorId::SPOILED_INTEGRITY}},
        {{EAGAIN, ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED}},
        {{EADDRINUSE}, {SocketErrorId::ADDRESS_IN_USE}},
        {{EADDRNOTAVAIL}, {SocketErrorId::ADDRESS_INVALID}},
        {{ENETDOWN, ENETUNREACH}, {SocketErrorId::NETWORK_UNAVAILABLE}},
        {{ECONNRESET}, {SocketErrorId::CONNECTION_RESET}},
        {{ECONNREFUSED, EHOSTUNREACH}, {SocketErrorId::PEER_UNREACHABLE}},
        {{EIO, ENOMEM, EPROTO}, {SysErrorId::UNCLASSIFIED}},
    });
}

inline std::vector<ErrnoRow> shutdownRows() {
    return errnoRows({
        {{EBADF, EINVAL, ENOTSOCK, ENOTCONN}, {SysErrorId::SPOILED_INTEGRITY}},
        {{ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED}},
        {{EINTR, EIO, EPERM, EPIPE}, {SysErrorId::UNCLASSIFIED}},
    });
}

/// @param others  the reports for the numbers that are not listed
inline std::vector<ErrnoRow>
sendRows(Reports const& others = {SysErrorId::UNCLASSIFIED, StreamErrorId::UNCLASSIFIED}) {
    return errnoRows({
        {{EPERM, EACCES}, {SysErrorId::PERMISSION_DENIED, StreamErrorId::UNUSABLE}},
        {{EIO, EBADF, ENOTSOCK, EOPNOTSUPP, ENOTCONN},
         {SysErrorId::SPOILED_INTEGRITY, StreamErrorId::UNUSABLE}},
        {{EPIPE}, {SocketErrorId::INVALID_SOCKET, StreamErrorId::UNUSABLE}},
        {{EDESTADDRREQ}, {SocketErrorId::ADDRESS_INVALID, StreamErrorId::UNUSABLE}},
        {{ENETDOWN, ENETUNREACH}, {SocketErrorId::NETWORK_UNAVAILABLE, StreamErrorId::UNUSABLE}},
        {{ECONNRESET}, {SocketErrorId::CONNECTION_RESET, StreamErrorId::UNUSABLE}},
        {{EMSGSIZE}, {SocketErrorId::MESSAGE_TOO_BIG, StreamErrorId::TRANSFER_FAILED}},
        {{ENOBUFS}, {SysErrorId::RESOURCES_EXHAUSTED, StreamErrorId::TRANSFER_FAILED}},
        {{ECONNREFUSED, EINVAL, EFAULT, ENOMEM, EHOSTUNREACH, EISCONN, ETIMEDOUT, EAFNOSUPPORT}, others},
    });
}

// ---- the resolver ----

constexpr auto V4 = vesk::IPSocket::IPV4;
constexpr auto V6 = vesk::IPSocket::IPV6;

inline Reports const UNRESOLVED =
    withText({std::CommonErrorId::INVALID_ARGUMENT}, "Couldn't resolve hostname");

inline Reports resolverFailed(int code) {
    return withText({SocketErrorId::RESOLVE_FAILED}, gai_strerror(code));
}

/// Returns texts that are literals or strings.
template <typename... Texts>
std::vector<std::string> stringsOf(Texts const&... texts) {
    return {std::string(texts)...};
}

// ---- descriptors and states ----

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

inline int getOption(int fd, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

/// Waits for `events` of `poll`, with a generous deadline.
inline testing::AssertionResult awaitEvents(int fd, short events) {
    pollfd look{fd, events, 0};
    int result = -1;
    do {
        result = poll(&look, 1, 60000);
    } while (result < 0 && errno == EINTR);
    return result == 1 ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << "nothing happened on the descriptor";
}

inline bool isReady(int fd, short events) {
    pollfd look{fd, events, 0};
    return poll(&look, 1, 0) == 1;
}

/// Checks a state, and that the socket is valid and has an open descriptor unless it is dead. A raw socket creates its
/// descriptor when it opens.
inline testing::AssertionResult hasState(vesk::Socket const& socket, vesk::Socket::State state) {
    int const fd = socket.getSocketFd();
    bool const is_raw = dynamic_cast<vesk::RawSocket const*>(&socket) != nullptr;
    bool const has_descriptor = is_raw ? state == vesk::Socket::OPEN : state != vesk::Socket::DEAD;
    if (socket.getState() == state && socket.isValid() == (state != vesk::Socket::DEAD) &&
        (has_descriptor ? isOpen(fd) : fd == -1)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
        << "state " << socket.getState() << ", valid " << socket.isValid() << ", descriptor " << fd;
}

/// Checks that the last operation succeeded and that nothing is pending.
inline testing::AssertionResult succeeded(vesk::Socket const& socket, vesk::Socket::State state) {
    if (socket.hadError()) {
        return testing::AssertionFailure() << "the flag for errors is set: " << chainIs({}).message();
    }
    testing::AssertionResult const silent = chainIs({});
    return silent ? hasState(socket, state) : silent;
}

/// Checks that the last operation failed with these reports.
inline testing::AssertionResult
failed(vesk::Socket const& socket, vesk::Socket::State state, Reports const& reports) {
    testing::AssertionResult const reported = chainIs(reports);
    if (!socket.hadError()) {
        return testing::AssertionFailure() << "the flag for errors is not set";
    }
    return reported ? hasState(socket, state) : reported;
}

/// Checks that the stream writes `data` as one request.
inline testing::AssertionResult isWritten(vesk::Socket& socket, std::string const& data) {
    unsigned int written = 0;
    int const result = socket.write(data.data(), static_cast<unsigned int>(data.size()), written);
    if (result == 1 && written == data.size() && !socket.hadError()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "result " << result << ", written " << written;
}

/// Checks that a transfer of the open socket fails with these reports and that nothing was transferred.
inline testing::AssertionResult
isFailure(vesk::Socket const& socket, int expected, int result, unsigned int count, Reports const& reports) {
    return result == expected && count == 0
        ? failed(socket, vesk::Socket::OPEN, reports)
        : testing::AssertionFailure() << "result " << result << ", count " << count;
}

/// Checks that writing `data` fails with these reports and that the socket stays open.
inline testing::AssertionResult
failsToWrite(vesk::Socket& socket, Reports const& reports, std::string const& data = "x") {
    unsigned int count = 77;
    int const result = socket.write(data.data(), static_cast<unsigned int>(data.size()), count);
    return isFailure(socket, -1, result, count, reports);
}

/// Checks that reading fails, or with the result 0 ends, with these reports, and that the socket stays open.
inline testing::AssertionResult failsToRead(vesk::Socket& socket, Reports const& reports, int expected = -1) {
    char block[100];
    unsigned int count = 77;
    int const result = socket.read(block, sizeof block, count);
    return isFailure(socket, expected, result, count, reports);
}

/// Checks that a constructor has failed.
inline bool isUnusable(vesk::Socket const& socket, vesk::Socket::State state = vesk::Socket::INACTIVE) {
    return !socket.isValid() && socket.getSocketFd() == -1 && socket.getState() == state;
}

inline ExpectedReport misuse(std::string const& text) {
    return {std::CommonErrorId::CONTRACT_BROKEN, rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

} // namespace support
