#pragma once

#include "support/CleanEnd.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/stream/IBinStreamBase.h>
#include <vesk/Socket.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

/// Chains of reports that show one text, and tables of them.

namespace support {

namespace SysErrorId = vesk::SysErrorId;
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
    int error;
    Reports reports;

    std::string getName() const {
        char const* const name = strerrorname_np(error);
        return name != nullptr ? name : std::to_string(error);
    }
    friend std::ostream& operator<<(std::ostream& out, ErrnoRow const& row) { return out << row.getName(); }
};

/// Names the case of a row after its error number.
inline std::string errnoName(testing::TestParamInfo<ErrnoRow> const& info) {
    return info.param.getName();
}

/// Error numbers that make the same chain of reports.
struct ErrnoGroup {
    std::vector<int> errors;
    Reports reports;
};

/// Returns one row for each number of the groups.
inline std::vector<ErrnoRow> errnoRows(std::vector<ErrnoGroup> const& groups) {
    std::vector<ErrnoRow> rows;
    for (ErrnoGroup const& group : groups) {
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
#define VESK_TEST_ROWS(suite, name, ...)                                                                     \
    class suite : public testing::TestWithParam<support::ErrnoRow> {};                                       \
    INSTANTIATE_TEST_SUITE_P(rows, suite, testing::ValuesIn(__VA_ARGS__), support::errnoName);               \
    TEST_P(suite, name)

// ---- the tables that several classes share ----

inline std::vector<ErrnoRow> createRows() {
    return errnoRows({
        {{EMFILE, ENFILE}, {SysErrorId::RESOURCES_EXHAUSTED}},
        {{EACCES}, {SysErrorId::PERMISSION_DENIED}},
        {{EINVAL, EPROTOTYPE, EPROTONOSUPPORT, EAFNOSUPPORT}, {SocketErrorId::CREATE_FAILED}},
        {{ENOMEM, ENOBUFS}, {SysErrorId::OUT_OF_MEMORY}},
        {{EPERM, EINTR, EFAULT}, {SysErrorId::UNCLASSIFIED}},
    });
}

inline std::vector<ErrnoRow> setOptionRows() {
    return errnoRows({
        {{EBADF, ENOTSOCK}, {SocketErrorId::INVALID_SOCKET}},
        {{EFAULT, EINVAL, EDOM, EISCONN}, {SysErrorId::INVALID_PATH}},
        {{ENOPROTOOPT}, {SocketErrorId::UNKNOWN_OPTION}},
        {{ENODEV, EADDRNOTAVAIL, EADDRINUSE, ENOMEM, ENOBUFS, EACCES, EPERM, EINTR},
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
        {{ENODEV, EPERM, EINTR, EAGAIN}, {SysErrorId::UNCLASSIFIED}},
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

} // namespace support
