#include "support/Chain.h"

#include <vesk/SystemError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using vesk::SystemError;

TEST(SystemError, givesTheSystemsTextAndTheNumber) {
    EXPECT_EQ("Permission denied (errno = 13)", SystemError(EACCES).getString());
    EXPECT_EQ("Success (errno = 0)", SystemError(0).getString());
}

TEST(SystemError, unknownNumberGivesTheSystemsTextForUnknownErrors) {
    EXPECT_EQ("Unknown error 9999 (errno = 9999)", SystemError(9999).getString());
    EXPECT_EQ("Unknown error -1 (errno = -1)", SystemError(-1).getString());
    EXPECT_EQ(support::systemText(INT_MIN), SystemError(INT_MIN).getString());
}

TEST(SystemError, keepsItsNumberWhateverErrnoDoesLater) {
    errno = ENOENT;
    SystemError const error;
    errno = EACCES;
    EXPECT_EQ(support::systemText(ENOENT), error.getString());
    EXPECT_EQ(support::systemText(ENOENT), error.getString());
}

TEST(SystemError, leavesErrnoAlone) {
    errno = EPIPE;
    EXPECT_EQ(support::systemText(9999), SystemError(9999).getString());
    EXPECT_EQ(EPIPE, errno);
}

TEST(SystemError, threadsGetTheirOwnTexts) {
    std::vector<std::thread> threads;
    for (int number = 1; number <= 4; ++number) {
        threads.emplace_back([number] {
            std::string const expected =
                std::string(strerrordesc_np(number)) + " (errno = " + std::to_string(number) + ")";
            int wrong = 0;
            for (int i = 0; i < 2000; ++i) {
                wrong += SystemError(number).getString() == expected ? 0 : 1;
            }
            EXPECT_EQ(0, wrong);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
