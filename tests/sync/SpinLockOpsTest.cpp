#include "support/Chain.h"

#include <vesk/SpinLock.h>
#include <vesk/SpinLockOps.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using support::chainIs;
using support::rowText;
using support::systemText;
using vesk::SpinLock;
using vesk::SpinLockOps;
using vesk::SysError;

int initError(int error) {
    return SpinLockOps::handleInitError(error) ? 1 : 0;
}
int destroyError(int error) {
    return SpinLockOps::handleDestroyError(error) ? 1 : 0;
}
int lockError(int error) {
    return SpinLockOps::handleLockError(error) ? 1 : 0;
}
int tryLockError(int error) {
    return SpinLockOps::handleTryLockError(error);
}
int unlockError(int error) {
    return SpinLockOps::handleUnlockError(error) ? 1 : 0;
}

struct Row {
    char const* name;
    int (*handler)(int);
    int error;
    int result;
    std::ErrorType const* family; // null: no report
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

class SpinLockOpsRows : public testing::TestWithParam<Row> {};

TEST_P(SpinLockOpsRows, classifies) {
    Row const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysError, 18);
    errno = 0;
    EXPECT_EQ(row.result, row.handler(row.error));
    EXPECT_EQ(row.error, errno);
    if (row.family == nullptr) {
        EXPECT_TRUE(chainIs({{SysError, 18}})) << "no report leaves what was pending";
    } else {
        EXPECT_TRUE(chainIs({{*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, SpinLockOpsRows,
    testing::Values(
        Row{"init", initError, ENOMEM, 1, &SpinLock::Error, 0},
        Row{"init", initError, EAGAIN, 1, &SpinLock::Error, 0},
        Row{"destroy", destroyError, EBUSY, 1, &SysError, 10},
        Row{"destroy", destroyError, EINVAL, 1, &SysError, 10},
        Row{"destroy", destroyError, EPERM, 1, &SysError, 19},
        Row{"lock", lockError, EPERM, 1, &SpinLock::Error, 3},
        Row{"lock", lockError, EDEADLK, 1, &SpinLock::Error, 2},
        Row{"lock", lockError, EBUSY, 1, &SpinLock::Error, 2},
        Row{"lock", lockError, EINVAL, 1, &SpinLock::Error, 2},
        Row{"trylock", tryLockError, EBUSY, 1, nullptr, -1},
        Row{"trylock", tryLockError, EDEADLK, -1, &SpinLock::Error, 3},
        Row{"trylock", tryLockError, EPERM, -1, &SpinLock::Error, 1},
        Row{"trylock", tryLockError, EINVAL, -1, &SpinLock::Error, 1},
        Row{"unlock", unlockError, EDEADLK, 1, &SpinLock::Error, 3},
        Row{"unlock", unlockError, EPERM, 1, &SpinLock::Error, 1},
        Row{"unlock", unlockError, EINVAL, 1, &SpinLock::Error, 1}));

TEST(SpinLockOps, failedLockReportsTheRowOfUnlocking) {
    EXPECT_TRUE(SpinLockOps::handleLockError(EINVAL));
    EXPECT_TRUE(chainIs({{SpinLock::Error, 2, "SpinLock unlock failed: " + systemText(EINVAL)}}));
}

TEST(SpinLockOps, failedUnlockReportsTheRowOfLocking) {
    EXPECT_TRUE(SpinLockOps::handleUnlockError(EINVAL));
    EXPECT_TRUE(chainIs({{SpinLock::Error, 1, "SpinLock lock failed: " + systemText(EINVAL)}}));
}

} // namespace
