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
namespace SysErrorId = vesk::SysErrorId;

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
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    errno = 0;
    EXPECT_EQ(row.result, row.handler(row.error));
    EXPECT_EQ(row.error, errno);
    if (row.family == nullptr) {
        EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "no report leaves what was pending";
    } else {
        EXPECT_TRUE(chainIs({{*row.family, row.id, rowText(*row.family, row.id, systemText(row.error))}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, SpinLockOpsRows,
    testing::Values(
        Row{"init", initError, ENOMEM, 1, &SpinLock::Error, SpinLock::ErrorId::CREATE_FAILED},
        Row{"init", initError, EAGAIN, 1, &SpinLock::Error, SpinLock::ErrorId::CREATE_FAILED},
        Row{"destroy", destroyError, EBUSY, 1, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{"destroy", destroyError, EINVAL, 1, &SysError, SysErrorId::SPOILED_INTEGRITY},
        Row{"destroy", destroyError, EPERM, 1, &SysError, SysErrorId::UNCLASSIFIED},
        Row{"lock", lockError, EPERM, 1, &SpinLock::Error, SpinLock::ErrorId::INCONSISTENT},
        Row{"lock", lockError, EDEADLK, 1, &SpinLock::Error, SpinLock::ErrorId::UNLOCK_FAILED},
        Row{"lock", lockError, EBUSY, 1, &SpinLock::Error, SpinLock::ErrorId::UNLOCK_FAILED},
        Row{"lock", lockError, EINVAL, 1, &SpinLock::Error, SpinLock::ErrorId::UNLOCK_FAILED},
        Row{"trylock", tryLockError, EBUSY, 1, nullptr, -1},
        Row{"trylock", tryLockError, EDEADLK, -1, &SpinLock::Error, SpinLock::ErrorId::INCONSISTENT},
        Row{"trylock", tryLockError, EPERM, -1, &SpinLock::Error, SpinLock::ErrorId::LOCK_FAILED},
        Row{"trylock", tryLockError, EINVAL, -1, &SpinLock::Error, SpinLock::ErrorId::LOCK_FAILED},
        Row{"unlock", unlockError, EDEADLK, 1, &SpinLock::Error, SpinLock::ErrorId::INCONSISTENT},
        Row{"unlock", unlockError, EPERM, 1, &SpinLock::Error, SpinLock::ErrorId::LOCK_FAILED},
        Row{"unlock", unlockError, EINVAL, 1, &SpinLock::Error, SpinLock::ErrorId::LOCK_FAILED}));

TEST(SpinLockOps, failedLockReportsTheRowOfUnlocking) {
    EXPECT_TRUE(SpinLockOps::handleLockError(EINVAL));
    EXPECT_TRUE(
        chainIs({{SpinLock::ErrorId::UNLOCK_FAILED, "SpinLock unlock failed: " + systemText(EINVAL)}}));
}

TEST(SpinLockOps, failedUnlockReportsTheRowOfLocking) {
    EXPECT_TRUE(SpinLockOps::handleUnlockError(EINVAL));
    EXPECT_TRUE(chainIs({{SpinLock::ErrorId::LOCK_FAILED, "SpinLock lock failed: " + systemText(EINVAL)}}));
}

} // namespace
