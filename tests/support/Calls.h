#pragma once

#include "support/Inject.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <gtest/gtest.h>

namespace support {

/// Expects a number of calls of a function during its lifetime, and makes the first ones fail.
class Calls : tarnbase::NonCopyable {
public:
    Calls(Injected& function, int expected, int error = 0, int failures = 1)
        : m_fault(function, error, 1, failures), m_expected(expected) {}
    ~Calls() { EXPECT_EQ(m_expected, m_fault.getCalls()) << "calls"; }

private:
    Fault m_fault;
    int m_expected;
};

} // namespace support
