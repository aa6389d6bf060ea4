#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/FileAccessError.h>
#include <vesk/FileSys.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, stat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, lstat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, mkdir, (char const* path, mode_t mode), (path, mode))
VESK_INJECT_ERRNO(int, -1, unlink, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rmdir, (char const* path), (path))
VESK_INJECT_ERRNO(int, -1, rename, (char const* from, char const* to), (from, to))
VESK_INJECT_ERRNO(int, -1, chdir, (char const* path), (path))
#if __WORDSIZE == 32
VESK_INJECT_ERRNO(int, -1, statvfs64, (char const* path, struct statvfs64* info), (path, info))
support::Injected& inject_file_system = inject_statvfs64;
#else
VESK_INJECT_ERRNO(int, -1, statvfs, (char const* path, struct statvfs* info), (path, info))
support::Injected& inject_file_system = inject_statvfs;
#endif
VESK_INJECT_ERRNO(ssize_t, -1, readlink, (char const* path, char* buffer, size_t size), (path, buffer, size))
VESK_INJECT_ERRNO(int, -1, symlink, (char const* target, char const* link), (target, link))
VESK_INJECT_ERRNO(int, -1, chmod, (char const* path, mode_t mode), (path, mode))
VESK_INJECT_ERRNO(int, -1, chown, (char const* path, uid_t user, gid_t group), (path, user, group))

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;
using vesk::FileAccess;
using vesk::FileAccessError;
using vesk::FileSys;
using vesk::Group;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnicodeString;
using vesk::User;

char const* const PATH = "/some/path";

/// In place of a row of `FileAccessError`: none on top of the cause.
constexpr int ALONE = -1;

struct Row {
    int error;
    int sys_id;
    int file_id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

std::vector<ExpectedReport> reportsOf(Row const& row, char const* path = PATH) {
    std::vector<ExpectedReport> reports;
    reports.emplace_back(SysError, row.sys_id, rowText(SysError, row.sys_id, systemText(row.error)));
    if (row.file_id != ALONE) {
        reports.emplace_back(FileAccessError, row.file_id, rowText(FileAccessError, row.file_id, path));
    }
    return reports;
}

/// One row through the operation: one system call fails, and the operation with it.
class FileSysRows : public testing::TestWithParam<Row> {
protected:
    void expectFailure(Injected& function, std::function<bool()> const& operation, char const* path = PATH) {
        // What is pending from before goes with the new chain.
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        Fault const fault(function, GetParam().error);
        EXPECT_TRUE(operation());
        EXPECT_EQ(1, fault.getCalls()) << "tried again";
        EXPECT_TRUE(chainIs(reportsOf(GetParam(), path)));
    }
};

// ---- exists ----

class FileSysExistsRows : public FileSysRows {};

TEST_P(FileSysExistsRows, isReported) {
    expectFailure(inject_stat, [] { return FileSys::exists(PATH, true) == -1; });
    expectFailure(inject_lstat, [] { return FileSys::exists(PATH, false) == -1; });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysExistsRows,
    testing::Values(
        Row{EACCES, 7, 3},                         //
        Row{EIO, 11, 8},                           //
        Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{ENOMEM, 1, ALONE},                     //
        Row{EFAULT, 10, ALONE},                    //
        Row{EINTR, 19, ALONE}, Row{EPERM, 19, ALONE}));

struct Answer {
    int error;
    int result;
};

void PrintTo(Answer const& answer, std::ostream* out) {
    *out << strerrorname_np(answer.error);
}

class FileSysExistsAnswers : public testing::TestWithParam<Answer> {};

TEST_P(FileSysExistsAnswers, isAnAnswerAndNotReported) {
    {
        Fault const fault(inject_stat, GetParam().error);
        EXPECT_EQ(GetParam().result, FileSys::exists(PATH, true));
    }
    Fault const fault(inject_lstat, GetParam().error);
    EXPECT_EQ(GetParam().result, FileSys::exists(PATH, false));
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysExistsAnswers,
    testing::Values(
        Answer{ENOENT, 1}, Answer{ENOTDIR, 1}, //
        Answer{EOVERFLOW, 0}));

// ---- createDir ----

class FileSysCreateDirRows : public FileSysRows {};

TEST_P(FileSysCreateDirRows, isReported) {
    expectFailure(inject_mkdir, [] { return FileSys::createDir(PATH); });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCreateDirRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                            //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{EEXIST, 12, 4},                                                               //
        Row{EMLINK, 0, 9},                                                                //
        Row{EINTR, 19, 9}, Row{ENOSPC, 19, 9}, Row{EIO, 19, 9}, Row{EFAULT, 19, 9}));

// ---- removeFile ----

class FileSysRemoveFileRows : public FileSysRows {};

TEST_P(FileSysRemoveFileRows, isReported) {
    expectFailure(inject_unlink, [] { return FileSys::removeFile(PATH); });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysRemoveFileRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                             //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0},  //
        Row{EBUSY, 13, 5}, Row{EEXIST, 13, 5}, Row{ETXTBSY, 13, 5}, Row{ENOTEMPTY, 13, 5}, //
        Row{EISDIR, 2, 2},                                                                 //
        Row{EFAULT, 10, 9},                                                                //
        Row{ENOMEM, 1, ALONE},                                                             //
        Row{EINTR, 19, 9}, Row{EIO, 19, 9}));

// ---- removeDir ----

class FileSysRemoveDirRows : public FileSysRows {};

TEST_P(FileSysRemoveDirRows, isReported) {
    expectFailure(inject_rmdir, [] { return FileSys::removeDir(PATH); });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysRemoveDirRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                            //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{EBUSY, 13, 5}, Row{ETXTBSY, 13, 5},                                           //
        Row{EEXIST, 14, 5}, Row{ENOTEMPTY, 14, 5},                                        //
        Row{EISDIR, 2, 2},                                                                //
        Row{EFAULT, 10, 9},                                                               //
        Row{ENOMEM, 1, ALONE},                                                            //
        Row{EINTR, 19, 9}, Row{EINVAL, 19, 9}));

// ---- move ----

class FileSysMoveRows : public FileSysRows {};

TEST_P(FileSysMoveRows, isReportedWithBothPaths) {
    expectFailure(
        inject_rename, [] { return FileSys::move(PATH, "/other"); }, "/some/path or /other");
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysMoveRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                             //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{EISDIR, 2, 0}, Row{EINVAL, 2, 0},       //
        Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0},                                         //
        Row{EIO, 11, 8},                                                                   //
        Row{EBUSY, 13, 5}, Row{EEXIST, 13, 5}, Row{ETXTBSY, 13, 5}, Row{ENOTEMPTY, 13, 5}, //
        Row{EXDEV, 6, 9},                                                                  //
        Row{ENOSPC, 15, 7},                                                                //
        Row{EMLINK, 0, 9},                                                                 //
        Row{EINTR, 19, 9}, Row{EFAULT, 19, 9}, Row{ENOMEM, 19, 9}));

// ---- changeWD ----

class FileSysChangeWDRows : public FileSysRows {};

TEST_P(FileSysChangeWDRows, isReported) {
    expectFailure(inject_chdir, [] { return FileSys::changeWD(PATH); });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysChangeWDRows,
    testing::Values(
        Row{ENOENT, 2, 3}, Row{ENAMETOOLONG, 2, 3}, Row{ELOOP, 2, 3}, //
        Row{EACCES, 7, 3},                                            //
        Row{ENOTDIR, 3, 1},                                           //
        Row{EIO, 11, 8},                                              //
        Row{EFAULT, 10, 9},                                           //
        Row{EINTR, 19, 9}, Row{ENOMEM, 19, 9}));

// ---- maxComponentLength ----

class FileSysMaxComponentLengthRows : public FileSysRows {};

TEST_P(FileSysMaxComponentLengthRows, isReportedWithALengthOfNothing) {
    expectFailure(inject_file_system, [] {
        unsigned int length = 7;
        bool const failed = FileSys::maxComponentLength(PATH, length);
        EXPECT_EQ(0U, length);
        return failed;
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysMaxComponentLengthRows,
    testing::Values(
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{EACCES, 7, 3},                                                                //
        Row{EIO, 11, 9},                                                                  //
        Row{ENOSYS, 19, 9}, Row{EOVERFLOW, 19, 9}, Row{ENOMEM, 19, 9}, Row{EFAULT, 19, 9}));

TEST(FileSysMaxComponentLength, interruptionsAreWaitedOutHoweverManyThereAre) {
    constexpr int MANY = 1'000'000;
    unsigned int length = 0;
    {
        Fault const fault(inject_file_system, EINTR, 1, MANY);
        EXPECT_FALSE(FileSys::maxComponentLength("/", length));
        EXPECT_EQ(MANY + 1, fault.getCalls());
    }
    EXPECT_NE(0U, length);
    EXPECT_TRUE(chainIs({}));
}

TEST(FileSysMaxComponentLength, failureBehindAnInterruptionIsReported) {
    Fault const fault(inject_file_system, EINTR);
    unsigned int length = 7;
    EXPECT_TRUE(FileSys::maxComponentLength("/no/such/path", length));
    EXPECT_EQ(0U, length);
    EXPECT_TRUE(chainIs(reportsOf({ENOENT, 2, 0}, "/no/such/path")));
}

// ---- readLink ----

class FileSysReadLinkRows : public FileSysRows {};

TEST_P(FileSysReadLinkRows, isReportedWithAnEmptyText) {
    expectFailure(inject_readlink, [] {
        char buffer[] = "old";
        unsigned int size = sizeof buffer;
        bool const failed = FileSys::readLink(PATH, buffer, size);
        EXPECT_EQ(0U, size);
        EXPECT_STREQ("", buffer);
        EXPECT_STREQ("ld", buffer + 1) << "more than the first byte was touched";
        return failed;
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysReadLinkRows,
    testing::Values(
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{EINVAL, 2, 0}, Row{ENAMETOOLONG, 2, 0},
        Row{ELOOP, 2, 0},  //
        Row{EACCES, 7, 3}, //
        Row{EIO, 11, 8},   //
        Row{EINTR, 19, 9}, Row{EFAULT, 19, 9}, Row{ENOMEM, 19, 9}));

// ---- createLink ----

class FileSysCreateLinkRows : public FileSysRows {};

TEST_P(FileSysCreateLinkRows, isReportedWithTheLink) {
    expectFailure(inject_symlink, [] { return FileSys::createLink("/target", PATH); });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCreateLinkRows,
    testing::Values(
        Row{EPERM, 6, 9},                                                                 //
        Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                                              //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{EEXIST, 12, 4},                                                               //
        Row{EIO, 11, 8},                                                                  //
        Row{ENOSPC, 15, 7},                                                               //
        Row{EINTR, 19, 9}, Row{EFAULT, 19, 9}, Row{ENOMEM, 19, 9}));

// ---- changeAccess and changeOwnerGroup ----

class FileSysChangeRows : public FileSysRows {};

TEST_P(FileSysChangeRows, isReportedByChangeAccess) {
    expectFailure(inject_chmod, [] { return FileSys::changeAccess(PATH, FileAccess::owner_all); });
}

TEST_P(FileSysChangeRows, isReportedByChangeOwnerGroup) {
    expectFailure(inject_chown, [] {
        return FileSys::changeOwnerGroup(UnicodeString(PATH, sizeof "/some/path"), User(0LL), Group(0LL));
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysChangeRows,
    testing::Values(
        Row{EPERM, 7, 3}, Row{EACCES, 7, 3}, Row{EROFS, 7, 3},                            //
        Row{ENOENT, 2, 0}, Row{ENOTDIR, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ELOOP, 2, 0}, //
        Row{EIO, 11, 8},                                                                  //
        Row{EFAULT, 10, 9}, Row{EINVAL, 10, 9},                                           //
        Row{ENOMEM, 1, ALONE},                                                            //
        Row{EBUSY, 19, 9}, Row{ENOSPC, 19, 9}));

TEST(FileSysChangeAccess, isRepeatedWhenInterrupted) {
    Fault const fault(inject_chmod, EINTR, 1, 3);
    EXPECT_TRUE(FileSys::changeAccess("/no/such/path", FileAccess::owner_all));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(chainIs(reportsOf({ENOENT, 2, 0}, "/no/such/path")));
}

TEST(FileSysChangeOwnerGroup, isRepeatedWhenInterrupted) {
    Fault const fault(inject_chown, EINTR, 1, 3);
    EXPECT_TRUE(FileSys::changeOwnerGroup(std::string("/no/such/path"), User(0LL), Group(0LL)));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(chainIs(reportsOf({ENOENT, 2, 0}, "/no/such/path")));
}

} // namespace
