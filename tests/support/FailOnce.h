#pragma once

#include "support/Inject.h"

#include <gtest/gtest.h>

namespace support {

/// Runs `action` while the first call of a function by this thread fails with `error`. Expects that `action`
/// makes no other call of the function. Returns the result of `action`.
template <typename Action>
auto failOnce(Injected& function, int error, Action action) {
    Fault const fault(function, error);
    auto const result = action();
    EXPECT_EQ(1, fault.getCalls());
    return result;
}

} // namespace support
