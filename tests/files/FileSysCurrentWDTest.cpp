#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/TemporaryDirectory.h"

#include <vesk/FileSys.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))

namespace {

using support::chainIs;
using support::Fault;
using support::rowText;
using support::runInChild;
using support::systemText;
using support::TemporaryDirectory;
using vesk::FileSys;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

TEST(FileSysCurrentWD, isTheWorkingDirectory) {
    TemporaryDirectory const directory;
    std::string result = "a longer text that was there before, and goes";
    EXPECT_FALSE(FileSys::currentWD(result));
    EXPECT_EQ(directory.get(), result);
    EXPECT_TRUE(chainIs({}));
}

TEST(FileSysCurrentWD, ofTheRootIsOneSeparator) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, chdir("/"));
    std::string result;
    EXPECT_FALSE(FileSys::currentWD(result));
    EXPECT_EQ("/", result);
}

TEST(FileSysCurrentWD, isAskedForOnceWithRoomFor4096Bytes) {
    TemporaryDirectory const directory;
    Fault const count(inject_getcwd, 0);
    std::string result;
    EXPECT_FALSE(FileSys::currentWD(result));
    EXPECT_EQ(1, count.getCalls());
}

struct Row {
    int error;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class FileSysCurrentWDRows : public testing::TestWithParam<Row> {};

TEST_P(FileSysCurrentWDRows, reportsAndLeavesTheResult) {
    Row const& row = GetParam();
    std::string result = "before";
    {
        Fault const fault(inject_getcwd, row.error, 1, Fault::FOREVER);
        EXPECT_TRUE(FileSys::currentWD(result));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ("before", result);
    EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.error))}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCurrentWDRows,
    testing::Values(
        Row{ENOENT, 2}, Row{ENOMEM, 1}, Row{EACCES, 7}, Row{EFAULT, 10}, Row{EINVAL, 10}, Row{ERANGE, 10},
        Row{EINTR, 19}, Row{EIO, 19}, Row{ENAMETOOLONG, 19}, Row{EPERM, 19}, Row{ENOSYS, 19}));

TEST(FileSysCurrentWD, failureOpensANewChain) {
    std::string result;
    for (int const error : {EACCES, ENOMEM}) {
        Fault const fault(inject_getcwd, error);
        EXPECT_TRUE(FileSys::currentWD(result));
    }
    EXPECT_TRUE(chainIs({{SysErrorId::OUT_OF_MEMORY}}));
}

TEST(FileSysCurrentWD, removedDirectoryIsAnInvalidPath) {
    TemporaryDirectory const directory;
    support::ChildEnd const end = runInChild([] {
        ASSERT_EQ(0, mkdir("gone", 0700));
        ASSERT_EQ(0, chdir("gone"));
        ASSERT_EQ(0, rmdir("../gone"));
        std::string result = "before";
        EXPECT_TRUE(FileSys::currentWD(result));
        EXPECT_EQ("before", result);
        EXPECT_TRUE(
            chainIs({{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

/// Goes down into new folders until the working directory's path has this many bytes.
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
    TemporaryDirectory const directory;
    support::ChildEnd const end = runInChild([&] {
        descend(directory.get().length(), 4095);
        std::string result;
        EXPECT_FALSE(FileSys::currentWD(result));
        EXPECT_EQ(4095U, result.length());
        EXPECT_EQ(0U, result.find(directory.get()));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST(FileSysCurrentWD, longerPathIsSpoiledIntegrity) {
    TemporaryDirectory const directory;
    support::ChildEnd const end = runInChild([&] {
        descend(directory.get().length(), 4096);
        std::string result = "before";
        EXPECT_TRUE(FileSys::currentWD(result));
        EXPECT_EQ("before", result);
        EXPECT_TRUE(chainIs(
            {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(ERANGE))}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

} // namespace
