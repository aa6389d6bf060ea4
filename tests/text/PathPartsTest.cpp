#include "support/Testing.h"

#include <vesk/PathParts.h>

namespace {

using vesk::PathParts;

static_assert(std::is_standard_layout_v<PathParts>);
static_assert(offsetof(PathParts, directory) == 0 && offsetof(PathParts, name) == sizeof(std::string));
static_assert(sizeof(PathParts) == 2 * sizeof(std::string));

struct Row {
    char const* path;
    char const* directory;
    char const* name;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << '"' << row.path << '"';
}

class PathPartsSplit : public testing::TestWithParam<Row> {};

TEST_P(PathPartsSplit, hasDirectoryAndLastComponent) {
    PathParts const parts(GetParam().path);
    EXPECT_EQ(GetParam().directory, parts.directory);
    EXPECT_EQ(GetParam().name, parts.name);
}

INSTANTIATE_TEST_SUITE_P(
    All, PathPartsSplit,
    testing::Values(
        Row{"", "", ""}, Row{"/", "/", "/"}, Row{"//", "/", "/"}, Row{"////", "/", "/"},
        Row{"/foo", "/", "foo"}, Row{"/foo/", "/", "foo"}, Row{"//foo", "/", "foo"},
        Row{"///foo//", "/", "foo"}, Row{"foo", ".", "foo"}, Row{"foo/", ".", "foo"},
        Row{"foo///", ".", "foo"}, Row{"/usr/bin", "/usr", "bin"}, Row{"/usr/bin/", "/usr", "bin"},
        Row{"a/b", "a", "b"}, Row{"a//b//", "a", "b"}, Row{"//a//b//", "//a", "b"}, Row{"a/b/c", "a/b", "c"},
        Row{"a//b//c", "a//b", "c"}, Row{".", ".", "."}, Row{"..", ".", ".."}, Row{"/.", "/", "."},
        Row{"../", ".", ".."}, Row{"a/..", "a", ".."}, Row{"./a", ".", "a"},
        Row{"/a/b.tar.gz", "/a", "b.tar.gz"}, Row{"a\\b", ".", "a\\b"}, Row{" / ", " ", " "}));

TEST(PathParts, ofALongPathKeepsEveryCharacter) {
    std::string const directory = "/" + std::string(5000, 'd');
    std::string const name(5000, 'n');
    PathParts const parts(directory + "//" + name + "/");
    EXPECT_EQ(directory, parts.directory);
    EXPECT_EQ(name, parts.name);
}

} // namespace
