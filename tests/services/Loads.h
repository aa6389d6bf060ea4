#pragma once

#include "support/Testing.h"

#include <vesk/Time.h>

/// Reports that the loads of a process and of the system have in common.

namespace support {

inline testing::AssertionResult isInvalidParameter(char const* name) {
    using vesk::SysErrorId::INVALID_PARAMETER;
    return chainIs({{INVALID_PARAMETER, rowText(INVALID_PARAMETER, name)}});
}

/// Checks that the pending chain is a query that fails because of the clock. Acknowledges the chain.
inline testing::AssertionResult isClockFailure(int error) {
    using vesk::SysErrorId::QUERY_FAILED;
    std::string const text = systemText(error);
    ExpectedReport cause = vesk::Time::ErrorId::GET_TIMESTAMP_FAILED;
    if (error == EINVAL) {
        cause = vesk::SysErrorId::NOT_IMPLEMENTED;
    }
    cause.text = rowText(*cause.family, cause.id, text);
    return chainIs({cause, {QUERY_FAILED, rowText(QUERY_FAILED, text)}});
}

} // namespace support
