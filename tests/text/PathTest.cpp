#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/TemporaryDirectory.h"

#include <vesk/FileSys.h>
#include <vesk/Path.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
VESK_INJECT_ERRNO(char*, nullptr, realpath, (char const* path, char* resolved), (path, resolved))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::TemporaryDirectory;
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

// ---- getAbsolute ----

TEST(Path, absolutePathIsItsOwnAbsoluteForm) {
    Fault const asked(inject_getcwd, 0);
    for (char const* const path : {"/", "/a", "/a/../b", "/a/./b//c/", "//a", "/no such thing"}) {
        EXPECT_EQ(path, Path(path).getAbsolute());
    }
    EXPECT_EQ(0, asked.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST(Path, relativePathStandsBehindTheWorkingDirectoryAsItIs) {
    TemporaryDirectory const directory;
    for (std::string const path : {"a", "a/b/", "../a/./b//c", ".", "..", "no such thing", " "}) {
        EXPECT_EQ(directory.get() + '/' + path, Path(path).getAbsolute());
    }
}

TEST(Path, absoluteFormOfTheEmptyPathIsTheWorkingDirectoryWithASeparator) {
    TemporaryDirectory const directory;
    EXPECT_EQ(directory.get() + '/', Path().getAbsolute());
}

TEST(Path, inTheRootARelativePathGetsTwoSeparators) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("//a", Path("a").getAbsolute());
    EXPECT_EQ("//", Path().getAbsolute());
}

TEST(Path, withoutAWorkingDirectoryTheAbsoluteFormIsEmptyAndNothingIsPending) {
    for (int const error : {ENOENT, EACCES, ENOMEM, ERANGE, EIO}) {
        Fault const fault(inject_getcwd, error);
        EXPECT_EQ("", Path("a").getAbsolute()) << error;
        EXPECT_TRUE(chainIs({}));
    }
    TemporaryDirectory const directory;
    ASSERT_EQ(0, mkdir("gone", 0700));
    ASSERT_EQ(0, chdir("gone"));
    ASSERT_EQ(0, rmdir("../gone"));
    EXPECT_EQ("", Path("a").getAbsolute());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("/a", Path("/a").getAbsolute());
}

// ---- getCanonicalized ----

TEST(Path, canonicalFormHasNoLinksAndNoDots) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, mkdir("real", 0700));
    ASSERT_TRUE(std::ofstream("real/file").good());
    ASSERT_EQ(0, symlink("real", "link"));
    ASSERT_EQ(0, symlink("../link/file", "real/around"));
    std::string const file = directory.get() + "/real/file";
    EXPECT_EQ(file, Path("real/file").getCanonicalized());
    EXPECT_EQ(file, Path("./link/..//real/./file").getCanonicalized());
    EXPECT_EQ(file, Path(directory.get() + "/link/around").getCanonicalized());
    EXPECT_EQ(directory.get(), Path(".").getCanonicalized());
    EXPECT_EQ("/", Path("/..").getCanonicalized());
    EXPECT_TRUE(chainIs({}));
}

TEST(Path, canonicalFormOfWhatDoesNotExistIsEmptyAndErrnoTellsWhy) {
    TemporaryDirectory const directory;
    ASSERT_TRUE(std::ofstream("file").good());
    ASSERT_EQ(0, symlink("loop", "loop"));
    struct {
        char const* path;
        int error;
    } const rows[] = {
        {"nothing", ENOENT}, {"", ENOENT}, {"nothing/..", ENOENT}, {"file/x", ENOTDIR}, {"loop", ELOOP}};
    for (auto const& row : rows) {
        EventRecorder const events;
        errno = 0;
        Path const canonical = Path(row.path).getCanonicalized();
        EXPECT_EQ(row.error, errno) << row.path;
        EXPECT_EQ("", canonical);
        EXPECT_EQ(0U, events.getCount());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(Path, failureToCanonicalizeLeavesWhatIsPending) {
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
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::PERMISSION_DENIED}}));
}

} // namespace
