#pragma once

#include <gtest/gtest.h>

/// Defines a test with a body that `run` calls, for example in a child process.
///
///     VESK_TEST_BY(support::expectInChild, Channel, writesOneLine) {
///         ...
///     }
#define VESK_TEST_BY(run, suite, name)                                                                       \
    static void suite##_##name##_body();                                                                     \
    TEST(suite, name) {                                                                                      \
        run(suite##_##name##_body);                                                                          \
    }                                                                                                        \
    static void suite##_##name##_body()

/// Defines a test of the fixture `suite` with a body that `run` calls with arguments for `parameters`.
///
///     VESK_TEST_WITH(expectWithCable, UDPNetwork, reachesTheOtherEnd, (Cable const& cable)) {
///         ...
///     }
#define VESK_TEST_WITH(run, suite, name, parameters)                                                         \
    static void suite##_##name##_body parameters;                                                            \
    TEST_F(suite, name) {                                                                                    \
        run(suite##_##name##_body);                                                                          \
    }                                                                                                        \
    static void suite##_##name##_body parameters
