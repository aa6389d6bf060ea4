#pragma once

#include "support/NetworkNamespace.h"

#include <gtest/gtest.h>

/// Defines a test with a body that runs in a child with a separate network namespace.
#define VESK_NETWORK_TEST(suite, name)                                                                       \
    static void suite##_##name();                                                                            \
    TEST(suite, name) {                                                                                      \
        VESK_SKIP_WITHOUT_NETWORKS();                                                                        \
        support::expectInNetwork(suite##_##name);                                                            \
    }                                                                                                        \
    static void suite##_##name()
