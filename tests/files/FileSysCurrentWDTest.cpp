#include "support/CleanEnd.h"
#include "support/ErrnoCases.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>

#include <gtest/gtest.h>

#include <algorithm>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))

namespace {

using namespace support;
using namespace vesk;

/// Checks a failure: the result keeps its value, and the cause is reported.
void expectFailure(SysErrorId::Id id, int error) {
    std::string result = "before";
    EXPECT_TRUE(FileSys::currentWD(result));
    EXPECT_EQ("before", result);
    EXPECT_TRUE(causeIs(id, error));
}

TEST(FileSysCurrentWD, isReadWithOneCall) {
    WorkingFolder const folder;
    Fault const count(inject_getcwd, 0);
    std::string result = "a longer earlier text, which is replaced";
    EXPECT_FALSE(FileSys::currentWD(result));
    EXPECT_EQ(1, count.getCalls());
    EXPECT_EQ(folder.getCanonicalPath(), result);
}

TEST(FileSysCurrentWD, ofTheRootIsOneSeparator) {
    WorkingFolder const folder;
    ASSERT_EQ(0, chdir("/"));
    std::string result;
    EXPECT_FALSE(FileSys::currentWD(result));
    EXPECT_EQ("/", result);
}

class FileSysCurrentWDRows : public testing::TestWithParam<ErrnoCase> {};

TEST_P(FileSysCurrentWDRows, failureIsReportedAndTheResultIsUnchanged) {
    Fault const fault(inject_getcwd, GetParam().error, 1, Fault::FOREVER);
    expectFailure(GetParam().cause, GetParam().error);
    EXPECT_EQ(1, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCurrentWDRows,
    eachErrno({
        {{ENOENT}, SysErrorId::INVALID_PATH},
        {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
        {{EACCES}, SysErrorId::PERMISSION_DENIED},
        {{EFAULT, EINVAL, ERANGE}, SysErrorId::SPOILED_INTEGRITY},
        {{EINTR, EIO, ENAMETOOLONG, EPERM, ENOSYS}, SysErrorId::UNCLASSIFIED},
    }));

TEST(FileSysCurrentWD, failureOpensANewChain) {
    std::string result;
    for (int const error : {EACCES, ENOMEM}) {
        Fault const fault(inject_getcwd, error);
        EXPECT_TRUE(FileSys::currentWD(result));
    }
    EXPECT_TRUE(chainIs({SysErrorId::OUT_OF_MEMORY}));
}

TEST(FileSysCurrentWD, removedDirectoryIsAnInvalidPath) {
    WorkingFolder const folder;
    expectInChild([] {
        ASSERT_EQ(0, mkdir("gone", 0700));
        ASSERT_EQ(0, chdir("gone"));
        ASSERT_EQ(0, rmdir("../gone"));
        expectFailure(SysErrorId::INVALID_PATH, ENOENT);
    });
}

/// Descends into new folders until the path of the working directory has this many bytes.
void descend(size_t length, size_t target) {
    while (length < target) {
        // The last step must have room for a separator and a name.
        size_t name_length = std::min<size_t>(target - length - 1, 200);
        if (target - length - 1 - name_length == 1) {
            --name_length;
        }
        std::string const name(name_length, 'd');
        ASSERT_EQ(0, mkdir(name.c_str(), 0700));
        ASSERT_EQ(0, chdir(name.c_str()));
        length += 1 + name_length;
    }
}

TEST(FileSysCurrentWD, pathOf4095BytesFits) {
    WorkingFolder const folder;
    std::string const path = folder.getCanonicalPath();
    expectInChild([&path] {
        descend(path.length(), 4095);
        std::string result;
        EXPECT_FALSE(FileSys::currentWD(result));
        EXPECT_EQ(4095U, result.length());
        EXPECT_EQ(0U, result.find(path));
    });
}

TEST(FileSysCurrentWD, longerPathIsSpoiledIntegrity) {
    WorkingFolder const folder;
    expectInChild([&folder] {
        descend(folder.getCanonicalPath().length(), 4096);
        expectFailure(SysErrorId::SPOILED_INTEGRITY, ERANGE);
    });
}

} // namespace
