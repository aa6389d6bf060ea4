#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>
#include <vesk/Path.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
VESK_INJECT_ERRNO(char*, nullptr, realpath, (char const* path, char* resolved), (path, resolved))

namespace {

using namespace support;
using vesk::FileSys;
using vesk::Path;

static_assert(std::is_base_of_v<std::string, Path>);
static_assert(sizeof(Path) == sizeof(std::string));
static_assert(std::is_convertible_v<char const*, Path> && std::is_convertible_v<std::string, Path>);
static_assert(std::is_nothrow_move_constructible_v<Path>);

TEST(Path, isAString) {
    Path path;
    EXPECT_TRUE(path.empty());
    path = "a";
    path += "/b";
    path.append(1, '/');
    EXPECT_EQ("a/b/", path);
    path = path + "c";
    EXPECT_EQ("a/b/c", path);
    EXPECT_EQ(5U, path.length());
    EXPECT_EQ(std::string("a/b/c"), path);
    EXPECT_EQ("b", Path(path.substr(2, 1)));
    Path const copy(path);
    path = std::string("other");
    EXPECT_EQ("a/b/c", copy);
    EXPECT_EQ("xxx", Path(3, 'x'));
    EXPECT_EQ("ab", Path("abc", 2));
    std::string const& text = path;
    EXPECT_EQ("other", text);
}

TEST(Path, absolutePathStaysAsItIs) {
    Fault const calls(inject_getcwd, 0);
    for (char const* const path : {"/", "/a", "/a/../b", "/a/./b//c/", "//a", "/no such thing"}) {
        EXPECT_EQ(path, Path(path).getAbsolute());
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(Path, relativePathIsAppendedToTheWorkingDirectoryUnchanged) {
    WorkingFolder const folder;
    for (std::string const path : {"", "a", "a/b/", "../a/./b//c", ".", "..", "no such thing", " "}) {
        EXPECT_EQ(folder.getCanonicalPath() + '/' + path, Path(path).getAbsolute());
    }
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("//a", Path("a").getAbsolute());
    EXPECT_EQ("//", Path().getAbsolute());
}

TEST(Path, absoluteFormWithoutAWorkingDirectoryIsEmptyAndNothingIsReported) {
    for (int const error : {ENOENT, EACCES, ENOMEM, ERANGE, EIO}) {
        Fault const fault(inject_getcwd, error);
        EXPECT_EQ("", Path("a").getAbsolute()) << error;
        EXPECT_TRUE(chainIs({}));
    }
    WorkingFolder const directory;
    ASSERT_EQ(0, mkdir("gone", 0700));
    ASSERT_EQ(0, chdir("gone"));
    ASSERT_EQ(0, rmdir("../gone"));
    EXPECT_EQ("", Path("a").getAbsolute());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("/a", Path("/a").getAbsolute());
}

TEST(Path, canonicalFormHasNoLinksAndNoDots) {
    WorkingFolder const directory;
    ASSERT_EQ(0, mkdir("real", 0700));
    ASSERT_TRUE(std::ofstream("real/file").good());
    ASSERT_EQ(0, symlink("real", "link"));
    ASSERT_EQ(0, symlink("../link/file", "real/around"));
    std::string const path = directory.getCanonicalPath();
    std::string const file = path + "/real/file";
    EXPECT_EQ(file, Path("real/file").getCanonicalized());
    EXPECT_EQ(file, Path("./link/..//real/./file").getCanonicalized());
    EXPECT_EQ(file, Path(path + "/link/around").getCanonicalized());
    EXPECT_EQ(path, Path(".").getCanonicalized());
    EXPECT_EQ("/", Path("/..").getCanonicalized());
    EXPECT_TRUE(chainIs({}));
}

TEST(Path, canonicalFormOfAMissingPathIsEmptyWithErrno) {
    WorkingFolder const directory;
    ASSERT_TRUE(std::ofstream("file").good());
    ASSERT_EQ(0, symlink("loop", "loop"));
    for (auto const& [path, error] :
         {std::pair("missing", ENOENT), std::pair("", ENOENT), std::pair("missing/..", ENOENT),
          std::pair("file/x", ENOTDIR), std::pair("loop", ELOOP)}) {
        EventRecorder const events;
        errno = 0;
        Path const canonical = Path(path).getCanonicalized();
        EXPECT_EQ(error, errno) << path;
        EXPECT_EQ("", canonical);
        EXPECT_EQ(0U, events.getCount());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(Path, failureToCanonicalizeKeepsPendingReports) {
    std::string ignored;
    {
        Fault const fault(inject_getcwd, EACCES);
        ASSERT_TRUE(FileSys::currentWD(ignored));
    }
    for (int const error : {EACCES, ENOMEM, EIO}) {
        Fault const fault(inject_realpath, error);
        Path const canonical = Path("/").getCanonicalized();
        EXPECT_EQ(error, errno);
        EXPECT_EQ("", canonical);
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({vesk::SysErrorId::PERMISSION_DENIED}));
}

} // namespace
