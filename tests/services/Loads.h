#pragma once

#include "support/Chain.h"

#include <vesk/SysError.h>
#include <vesk/Time.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>

/// Reports that the loads of a process and of the system have in common.

namespace support {

inline testing::AssertionResult isInvalidParameter(char const* name) {
    using vesk::SysErrorId::INVALID_PARAMETER;
    return chainIs({{INVALID_PARAMETER, rowText(INVALID_PARAMETER, name)}});
}

/// A failure to read the clock, and its first report.
struct ClockFailure {
    int error;
    ExpectedReport cause;

    /// Checks that the pending chain is this failure of a query. Acknowledges the chain.
    testing::AssertionResult isPending() const {
        using vesk::SysErrorId::QUERY_FAILED;
        std::string const text = systemText(error);
        return chainIs(
            {{*cause.family, cause.id, rowText(*cause.family, cause.id, text)},
             {QUERY_FAILED, rowText(QUERY_FAILED, text)}});
    }
};

inline void PrintTo(ClockFailure const& failure, std::ostream* out) {
    *out << "errno " << failure.error;
}

inline auto eachClockFailure() {
    return testing::Values(
        ClockFailure{EINVAL, vesk::SysErrorId::NOT_IMPLEMENTED},
        ClockFailure{EFAULT, vesk::Time::ErrorId::GET_TIMESTAMP_FAILED});
}

} // namespace support
