#include "support/Chain.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using support::chainIs;
using support::rowText;
using support::systemText;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::handleOpenError;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

struct Row {
    int error;
    int sys_id;
    int file_id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class HandleOpenErrorRows : public testing::TestWithParam<Row> {};

TEST_P(HandleOpenErrorRows, reportsTheCauseAndThePath) {
    Row const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_FALSE(handleOpenError(row.error, "/some/path"));
    EXPECT_TRUE(chainIs(
        {{SysError, row.sys_id, rowText(SysError, row.sys_id, systemText(row.error))},
         {FileAccessError, row.file_id, rowText(FileAccessError, row.file_id, "/some/path")}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, HandleOpenErrorRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3}, //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{EISDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0},
        Row{ELOOP, 2, 0},                         //
        Row{ENXIO, 16, 8}, Row{ENODEV, 16, 8},    //
        Row{ENOMEM, 1, 9},                        //
        Row{EEXIST, 13, 4},                       //
        Row{ENFILE, 0, 6}, Row{EMFILE, 0, 6},     //
        Row{ETXTBSY, 13, 5},                      //
        Row{EFBIG, 19, 9}, Row{EOVERFLOW, 19, 9}, //
        Row{ENOSPC, 15, 7},                       //
        Row{EIO, 10, 9}, Row{EBADF, 10, 9}));

TEST(HandleOpenError, interruptionAsksForARepetitionWithoutAReport) {
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(chainIs({}));
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(handleOpenError(EINTR, "/some/path"));
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}})) << "what was pending stays";
}

TEST(HandleOpenError, nullPathAndUnknownNumberAreSurvived) {
    EXPECT_FALSE(handleOpenError(0, nullptr));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(0))},
         {FileAccessError, FileAccessErrorId::UNCLASSIFIED,
          rowText(FileAccessErrorId::UNCLASSIFIED, "(null)")}}));
    EXPECT_FALSE(handleOpenError(-7, ""));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY},
         {FileAccessError, FileAccessErrorId::UNCLASSIFIED, rowText(FileAccessErrorId::UNCLASSIFIED, "")}}));
}

TEST(OpenError, isTheSameFamilyUnderAnotherName) {
    EXPECT_EQ(&vesk::OpenError, &FileAccessError);
    EXPECT_FALSE(handleOpenError(ENOENT, "x"));
    EXPECT_TRUE(std::ErrorStorage::isA(vesk::OpenError));
    EXPECT_TRUE(std::ErrorStorage::isA(FileAccessError));
    EXPECT_FALSE(std::ErrorStorage::isA(SysError));
    std::ErrorOutput("file", 1, true)(SysErrorId::UNCLASSIFIED, "x");
    EXPECT_FALSE(std::ErrorStorage::isA(vesk::OpenError));
    EXPECT_FALSE(std::ErrorStorage::isA(FileAccessError));
}

} // namespace
