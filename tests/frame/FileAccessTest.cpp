#include "support/Testing.h"

#include <vesk/FileAccess.h>

#include <sys/stat.h>

namespace {

using vesk::FileAccess;

struct Row : support::NamedRow {
    FileAccess const* constant;
    unsigned int octal;
};

class FileAccessConstants : public testing::TestWithParam<Row> {};

TEST_P(FileAccessConstants, haveTheSystemsBits) {
    EXPECT_EQ(GetParam().octal, GetParam().constant->getBits());
    EXPECT_EQ(GetParam().octal, static_cast<mode_t>(*GetParam().constant));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileAccessConstants,
    testing::Values(
        Row{"none", &FileAccess::none, 0}, Row{"owner_read", &FileAccess::owner_read, 0400},
        Row{"owner_write", &FileAccess::owner_write, 0200}, Row{"owner_exec", &FileAccess::owner_exec, 0100},
        Row{"owner_all", &FileAccess::owner_all, 0700}, Row{"group_read", &FileAccess::group_read, 040},
        Row{"group_write", &FileAccess::group_write, 020}, Row{"group_exec", &FileAccess::group_exec, 010},
        Row{"group_all", &FileAccess::group_all, 070}, Row{"others_read", &FileAccess::others_read, 04},
        Row{"others_write", &FileAccess::others_write, 02}, Row{"others_exec", &FileAccess::others_exec, 01},
        Row{"others_all", &FileAccess::others_all, 07}, Row{"all", &FileAccess::all, 0777},
        Row{"set_uid", &FileAccess::set_uid, 04000}, Row{"set_gid", &FileAccess::set_gid, 02000},
        Row{"sticky_bit", &FileAccess::sticky_bit, 01000}, Row{"mask", &FileAccess::mask, 07777}));

TEST(FileAccess, combinesWithOrAndMasksWithAnd) {
    FileAccess const access = FileAccess::owner_read | FileAccess::owner_write | FileAccess::group_read;
    EXPECT_EQ(0640u, access.getBits());
    EXPECT_EQ(FileAccess(0040), access & FileAccess::group_all);
    EXPECT_NE(access, FileAccess::all);
}

TEST(FileAccess, isPassedToTheSystemUnchanged) {
    char path[] = "/tmp/vesk-access-XXXXXX";
    int const fd = mkstemp(path);
    ASSERT_NE(-1, fd);
    EXPECT_EQ(0, fchmod(fd, FileAccess::owner_all | FileAccess::others_exec));
    struct stat info {};
    EXPECT_EQ(0, fstat(fd, &info));
    EXPECT_EQ(0701u, info.st_mode & FileAccess::mask);
    close(fd);
    unlink(path);
}

} // namespace
