#pragma once

#include "support/Chain.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

/// Support for tests of errno tables.

namespace support {

/// An error number of a system call, and the reports that an operation makes of it: the cause with the system's
/// text and, if the operation reports it, the meaning for the path on top.
struct ErrnoCase {
    int error;
    vesk::SysErrorId::Id cause;
    std::optional<vesk::FileAccessErrorId::Id> meaning = {};

    /// Checks that the pending chain is exactly these reports. Acknowledges the chain.
    testing::AssertionResult isPending(std::string const& path = "") const {
        if (!meaning) {
            return causeIs(cause, error);
        }
        return chainIs({{cause, rowText(cause, systemText(error))}, {*meaning, rowText(*meaning, path)}});
    }
};

inline void PrintTo(ErrnoCase const& errno_case, std::ostream* out) {
    *out << "errno " << errno_case.error;
}

/// Error numbers that an operation reports alike: one row of the library's table.
struct ErrnoGroup {
    std::vector<int> errors;
    vesk::SysErrorId::Id cause;
    std::optional<vesk::FileAccessErrorId::Id> meaning = {};
};

/// Returns one test parameter per error number of a table.
inline auto eachErrno(std::vector<ErrnoGroup> const& table) {
    std::vector<ErrnoCase> cases;
    for (ErrnoGroup const& group : table) {
        for (int const error : group.errors) {
            cases.push_back({error, group.cause, group.meaning});
        }
    }
    return testing::ValuesIn(cases);
}

/// Returns the reports of a path that does not name what the operation needs.
inline ErrnoCase badPath(int error) {
    return {error, vesk::SysErrorId::INVALID_PATH, vesk::FileAccessErrorId::BAD_PATH};
}

/// Returns the reports of a path to which access is denied.
inline ErrnoCase accessDenied(int error) {
    return {error, vesk::SysErrorId::PERMISSION_DENIED, vesk::FileAccessErrorId::ACCESS_DENIED};
}

/// Checks that the pending chain says only that a contract with the caller is broken. Acknowledges the chain.
inline testing::AssertionResult isContractBroken(std::string const& text) {
    return chainIs(
        {{std::CommonErrorId::CONTRACT_BROKEN, rowText(std::CommonErrorId::CONTRACT_BROKEN, text)}});
}

} // namespace support
