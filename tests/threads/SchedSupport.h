#pragma once

#include "support/Testing.h"

#include <vesk/sched.h>

#include <sched.h>
#include <sys/syscall.h>

/// What the tests of scheduling have in common.
namespace support {

/// Checks the parameters, including those without a meaning.
inline void expectParam(
    vesk::sched::Param const& param, int priority, int nice, unsigned int byte = 0, unsigned int word = 0,
    unsigned int last = 0) {
    EXPECT_EQ(priority, param.priority);
    EXPECT_EQ(nice, param.nice);
    EXPECT_EQ(byte, param.reserved_byte);
    EXPECT_EQ(word, param.reserved_word);
    EXPECT_EQ(last, param.reserved_last);
}

/// Sets the policy of the calling thread. Returns 0 or an error number.
inline int setPolicy(int policy, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), policy, &param);
}

/// Binds the calling thread to the first processor that it may use.
inline bool useOneProcessor() {
    cpu_set_t all;
    cpu_set_t one;
    CPU_ZERO(&one);
    if (sched_getaffinity(0, sizeof all, &all) != 0) {
        return false;
    }
    for (size_t i = 0; i < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++i) {
        if (CPU_ISSET(i, &all)) {
            CPU_SET(i, &one);
        }
    }
    return sched_setaffinity(0, sizeof one, &one) == 0;
}

/// Runs `body` in a thread that `setUp` has prepared. Skips the test if the system refuses that.
template <typename SetUp, typename Body>
void inPreparedThread(std::string const& refusal, SetUp setUp, Body body) {
    int refused = 0;
    std::thread([&] {
        refused = setUp();
        if (refused == 0) {
            body();
        }
    }).join();
    if (refused != 0) {
        GTEST_SKIP() << refusal << ": " << systemText(refused);
    }
}

} // namespace support
