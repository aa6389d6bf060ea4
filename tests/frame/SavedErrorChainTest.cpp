#include "support/Chain.h"

#include <vesk/SavedErrorChain.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::ErrorObject;
using std::ErrorOutput;
using std::ErrorStorage;
using support::chainIs;
using vesk::SavedErrorChain;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// Reports named by their numbers, the root cause 0.
void reportLevels(int count) {
    for (int i = 0; i < count; ++i) {
        ErrorOutput("file", 100 + i, i == 0)(CommonError, CommonErrorId::CONTRACT_BROKEN, i);
    }
}

TEST(SavedErrorChain, bringsTheChainBackAcrossACleanUpThatReports) {
    ErrorOutput("low", 1, true)(SysErrorId::UNCLASSIFIED, "bind");
    ErrorOutput("high", 2, false)(CommonErrorId::INVALID_ARGUMENT, "address");
    SavedErrorChain const saved;
    EXPECT_FALSE(ErrorStorage::isError(true)) << "saving acknowledges";
    ErrorOutput("cleanup", 3, true)(CommonErrorId::OUT_OF_MEMORY);
    ErrorStorage::ack();
    saved.restore();
    ASSERT_NE(nullptr, ErrorStorage::get());
    EXPECT_STREQ("high", ErrorStorage::get()->file);
    EXPECT_EQ(2, ErrorStorage::get()->line);
    EXPECT_STREQ("low", ErrorStorage::get()->next->file);
    EXPECT_EQ(1, ErrorStorage::get()->next->line);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, "Unclassified error occured: bind"},
         {CommonError, CommonErrorId::INVALID_ARGUMENT, "Argument is not usable: address"}}));
}

TEST(SavedErrorChain, ofMoreThanEightReportsComesBackWithTheEightOfTheHighestLevel) {
    reportLevels(11);
    SavedErrorChain const saved;
    saved.restore();
    int line = 110;
    int count = 0;
    for (ErrorObject const* report = ErrorStorage::get(); report != nullptr; report = report->next) {
        EXPECT_EQ(line--, report->line);
        ++count;
        if (count == 8) {
            EXPECT_EQ(nullptr, report->next) << "the eighth is the new root";
        }
    }
    EXPECT_EQ(8, count);
}

TEST(SavedErrorChain, ofEightReportsComesBackWhole) {
    reportLevels(8);
    SavedErrorChain const saved;
    saved.restore();
    int count = 0;
    for (ErrorObject const* report = ErrorStorage::get(); report != nullptr; report = report->next) {
        EXPECT_EQ(107 - count, report->line);
        ++count;
    }
    EXPECT_EQ(8, count);
}

TEST(SavedErrorChain, ofNothingRestoresNothing) {
    SavedErrorChain const saved;
    saved.restore();
    EXPECT_TRUE(chainIs({}));
    ErrorOutput("file", 1, true)(CommonErrorId::OUT_OF_MEMORY);
    saved.restore();
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
}

TEST(SavedErrorChain, rootOpensANewChain) {
    reportLevels(2);
    SavedErrorChain const saved;
    ErrorOutput("cleanup", 3, true)(CommonErrorId::OUT_OF_MEMORY);
    saved.restore();
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {CommonErrorId::CONTRACT_BROKEN}}))
        << "what the clean-up left does not mix in";
}

TEST(SavedErrorChain, mayBeRestoredTwice) {
    reportLevels(3);
    SavedErrorChain const saved;
    saved.restore();
    saved.restore();
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN},
         {CommonErrorId::CONTRACT_BROKEN},
         {CommonErrorId::CONTRACT_BROKEN}}));
}

} // namespace
