#include "support/Chain.h"

#include <vesk/Condition.h>
#include <vesk/FileAccessError.h>
#include <vesk/Mutex.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Row {
    int nargs;
    std::string format;
};

void expectRows(std::ErrorType const& family, std::vector<Row> const& rows) {
    for (int id = 0; id < static_cast<int>(rows.size()); ++id) {
        ASSERT_NE(nullptr, family.getRow(id)) << id;
        EXPECT_EQ(id, family.getRow(id)->id);
        EXPECT_EQ(rows[static_cast<size_t>(id)].nargs, family.getRow(id)->nargs) << id;
        EXPECT_EQ(rows[static_cast<size_t>(id)].format, family.getRow(id)->format);
    }
    EXPECT_EQ(nullptr, family.getRow(static_cast<int>(rows.size())));
}

TEST(SysError, hasItsTwentyRows) {
    expectRows(
        vesk::SysError,
        {{1, "System ressources exhausted: %s"},
         {1, "System is out of memory: %s"},
         {1, "Invalid path specified: %s"},
         {1, "Given path is not a directory: %s"},
         {2, "Given path exceeds system maximum: %s (%d chars encountered, only max %d chars allowed)"},
         {1, "System call has been interrupted: %s"},
         {1, "Function not implemented: %s"},
         {1, "Permission denied: %s"},
         {1, "Supplied parameter is invalid: %s"},
         {1, "Supplied parameter has invalid address: %s"},
         {1, "Spoiled integrity: %s"},
         {1, "Input/Output error: %s"},
         {1, "A file already exists: %s"},
         {1, "The operation cannot be performed, because the object is still in use: %s"},
         {1, "The directory is not empty: %s"},
         {1, "Not enough space left on file system: %s"},
         {1, "Given device is not existing, not ready or does not support the operation: %s"},
         {1, "Querying the requested system information failed: %s"},
         {1, "The given process does not exist"},
         {1, "Unclassified error occured: %s"}});
}

TEST(FileAccessError, hasItsTenRows) {
    expectRows(
        vesk::FileAccessError,
        {{1, "Bad path '%s'"},
         {1, "Path '%s' is not a directory"},
         {1, "Path '%s' is a directory"},
         {1, "Access to path '%s' denied"},
         {1, "'%s' is already existing"},
         {1, "Path '%s' is busy"},
         {1, "Can't get file descriptor for path '%s'"},
         {1, "Not enough space to create '%s'"},
         {1, "Given device '%s' is not existing or not ready"},
         {1, "Unclassified open/access error occured for path '%s'"}});
}

TEST(MutexError, hasItsRowsAlsoUnderItsOtherName) {
    expectRows(
        vesk::Mutex::Error,
        {{1, "Mutex creation failed: %s"},
         {1, "Mutex lock failed: %s"},
         {1, "Mutex unlock failed: %s"},
         {1, "Mutex inconsistency detected: %s"}});
    EXPECT_EQ(&vesk::Mutex::Error, &vesk::ShmMutex::Error);
}

TEST(ConditionError, hasItsRowsAlsoUnderItsOtherName) {
    expectRows(
        vesk::Condition::Error,
        {{0, "Creating condition variable failed"},
         {0, "Waiting on condition variable failed"},
         {0, "Signaling condition variable failed"}});
    EXPECT_EQ(&vesk::Condition::Error, &vesk::ShmCondition::Error);
}

TEST(SysError, pathThatIsTooLongTellsNameAndLengthAndLeavesTheLimitOpen) {
    std::ErrorOutput("file", 1, true)(vesk::SysErrorId::PATH_TOO_LONG, "name", 4711);
    EXPECT_TRUE(support::chainIs(
        {{vesk::SysErrorId::PATH_TOO_LONG,
          "Given path exceeds system maximum: name (4711 chars encountered, only max ? chars allowed)"}}));
}

TEST(SysError, missingProcessTakesAnArgumentAndDoesNotShowIt) {
    std::ErrorOutput("file", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS, "unseen");
    EXPECT_TRUE(support::chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS, "The given process does not exist"}}));
}

TEST(SysError, familiesOfClassesDeriveFromItAndFileAccessErrorDoesNot) {
    EXPECT_TRUE(vesk::Mutex::Error.isA(vesk::SysError));
    EXPECT_TRUE(vesk::Condition::Error.isA(vesk::SysError));
    EXPECT_FALSE(vesk::FileAccessError.isA(vesk::SysError));
    EXPECT_FALSE(vesk::SysError.isA(vesk::Mutex::Error));
    std::ErrorOutput("file", 1, true)(vesk::Mutex::ErrorId::LOCK_FAILED, "x");
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::SysError));
    std::ErrorOutput("file", 1, true)(vesk::FileAccessErrorId::NOT_A_DIRECTORY, "x");
    EXPECT_FALSE(std::ErrorStorage::isA(vesk::SysError));
}

} // namespace
