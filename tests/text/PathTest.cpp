#include "Conversions.h"
#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/Locales.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>
#include <vesk/Path.h>
#include <vesk/SysError.h>
#include <vesk/WidePath.h>

#include <stdexcept>
#include <type_traits>
#include <unistd.h>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
VESK_INJECT_ERRNO(char*, nullptr, realpath, (char const* path, char* resolved), (path, resolved))

namespace {

using namespace support;
using vesk::Path;
using vesk::UnicodeString;
using vesk::WidePath;

static_assert(std::is_base_of_v<std::string, Path>);
static_assert(sizeof(Path) == sizeof(std::string));
static_assert(std::is_convertible_v<char const*, Path> && std::is_convertible_v<std::string, Path>);
static_assert(std::is_nothrow_move_constructible_v<Path>);

static_assert(std::is_base_of_v<std::wstring, WidePath>);
static_assert(sizeof(WidePath) == sizeof(std::wstring) + sizeof(void*));
static_assert(std::is_convertible_v<UnicodeString const&, WidePath>);
static_assert(std::is_convertible_v<WidePath const&, std::string>);

constexpr size_t FAILED = static_cast<size_t>(-1);

/// Returns a path with this text and validity, whatever the locale can express.
WidePath makePath(std::wstring const& text, bool valid) {
    WidePath path(valid ? "x" : "");
    path.assign(text);
    return path;
}

std::wstring widen(std::string const& ascii) {
    return {ascii.begin(), ascii.end()};
}

void expectPath(std::wstring const& text, bool valid, WidePath const& path) {
    EXPECT_EQ(text, path);
    EXPECT_EQ(valid, path.isValid());
}

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

TEST(WidePath, ofATextIsValid) {
    expectPath(L"abc", true, UnicodeString("abc"));
    ScopedLocale const locale("C.UTF-8");
    expectPath(L"/\u20AC/\U0001F5A8", true, UnicodeString("/\xE2\x82\xAC/\xF0\x9F\x96\xA8"));
}

TEST(WidePath, ofAnEmptyOrNullTextIsEmptyAndNotValid) {
    Conversions const conversions;
    UnicodeString const failed(std::wstring(L"\u20AC"));
    ASSERT_EQ(nullptr, failed.c_str());
    expectPath(L"", false, failed);
    char const* const nothing = nullptr;
    for (unsigned int const length : {0U, 3U, 5U}) {
        expectPath(L"", false, WidePath("", length));
        expectPath(L"", false, WidePath(nothing, length));
    }
    expectPath(L"", false, UnicodeString(""));
    EXPECT_EQ(1U + 3U + 1U, conversions.getPasses().size()) << "a null text is not converted";
}

TEST(WidePath, ofAMalformedTextIsEmptyAndNotValid) {
    for (char const* const name : {"C", "C.UTF-8"}) {
        ScopedLocale const locale(name);
        ASSERT_TRUE(locale.isSet());
        EventRecorder const events;
        expectPath(L"", false, UnicodeString("abc\xE4"));
        expectPath(L"", false, WidePath("\xE4", 1));
        EXPECT_EQ(0U, events.getCount());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(WidePath, isNotCutByTheLengthOfItsText) {
    for (unsigned int const length : {0U, 1U, 3U, 6U, 7U, 1000U, 0xFFFFFFFFU}) {
        expectPath(L"abcdef", true, WidePath("abcdef", length));
    }
    EXPECT_EQ(10U, WidePath("0123456789", 3).length());
    EXPECT_EQ(L"abc", WidePath("abc\0def", 7));
    ScopedLocale const locale("C");
    Conversions conversions;
    conversions.before = [](size_t) { setlocale(LC_CTYPE, "C.UTF-8"); };
    WidePath const path("\xE2\x82\xAC/b", 1);
    ASSERT_EQ(2U, conversions.getPasses().size());
    EXPECT_TRUE(conversions.getPasses()[0].measures);
    EXPECT_EQ(FAILED, conversions.getPasses()[0].limit);
    EXPECT_FALSE(conversions.getPasses()[1].measures);
    EXPECT_EQ(4U, conversions.getPasses()[1].limit);
}

constexpr char const* WARNING = "WARNING framework/src/vesk/posix/WidePath WidePath: second call to mbstowcs "
                                "returned different result!";

TEST(WidePath, isEmptyWithAWarningIfThePassesDiffer) {
    auto const expectWarning = [](char const* text) {
        EventRecorder const events;
        expectPath(L"", false, WidePath(text, 0));
        EXPECT_EQ(WARNING, events.getText());
        EXPECT_TRUE(chainIs({}));
    };
    for (size_t const second : {FAILED, size_t{0}, size_t{5}, size_t{7}}) {
        SCOPED_TRACE(second);
        Conversions conversions;
        conversions.change = [second](size_t pass, size_t result) { return pass == 2 ? second : result; };
        expectWarning("abcdef");
    }
    ScopedLocale const locale("C");
    Conversions conversions;
    conversions.before = [](size_t pass) { setlocale(LC_CTYPE, pass == 1 ? "C.UTF-8" : "C"); };
    expectWarning("ab\xE2\x82\xAC");
}

TEST(WidePath, staysValidOrInvalidInStringOperations) {
    WidePath path("abc");
    path += L"/d";
    path.append(1, L'e');
    expectPath(L"abc/de", true, path);
    path.clear();
    EXPECT_TRUE(path.isValid());
    WidePath invalid("");
    invalid.assign(L"text");
    expectPath(L"text", false, invalid);
    for (bool const valid : {true, false}) {
        WidePath const source = makePath(L"text", valid);
        WidePath const copy(source);
        expectPath(L"text", valid, copy);
        WidePath target = makePath(L"other", !valid);
        target = source;
        expectPath(L"text", valid, target);
        WidePath const moved(std::move(target));
        expectPath(L"text", valid, moved);
    }
}

TEST(WidePath, conversionToAStringThrowsIfTheLocaleCannotExpressIt) {
    for (bool const valid : {true, false}) {
        for (auto const& [name, text] :
             {std::pair("C", std::wstring(L"a\u00E4")), std::pair("C", std::wstring(L"\u20AC")),
              std::pair("C.UTF-8", std::wstring(1, wchar_t{0xD800}))}) {
            ScopedLocale const locale(name);
            ASSERT_TRUE(locale.isSet());
            EXPECT_THROW((void)static_cast<std::string>(makePath(text, valid)), std::logic_error);
            EXPECT_TRUE(chainIs({}));
        }
        ScopedLocale const locale("C.UTF-8");
        EXPECT_EQ("a/\xE2\x82\xAC", static_cast<std::string>(makePath(L"a/\u20AC", valid)));
        EXPECT_EQ("", static_cast<std::string>(makePath(L"", valid)));
    }
}

TEST(WidePath, isConvertedInALocaleOtherThanUTF8) {
    WorkingFolder const directory;
    support::Latin1 const latin1(directory.getPath());
    if (!latin1.isBuilt()) {
        GTEST_SKIP() << "there is no 8-bit locale for this libc";
    }
    ScopedLocale const locale("latin1");
    ASSERT_TRUE(locale.isSet());
    WidePath const path("/\xE4");
    expectPath(L"/\u00E4", true, path);
    EXPECT_EQ("/\xE4", static_cast<std::string>(path));
    EXPECT_THROW((void)static_cast<std::string>(makePath(L"\u20AC", true)), std::logic_error);
}

TEST(WidePath, absoluteFormKeepsCharactersAndIsInvalidIfTheWorkingDirectoryCannotBeConverted) {
    WorkingFolder const directory;
    std::wstring const here = widen(directory.getCanonicalPath());
    for (bool const valid : {true, false}) {
        expectPath(L"/\u20AC", valid, makePath(L"/\u20AC", valid).getAbsolute());
        expectPath(here + L"/\u20AC", true, makePath(L"\u20AC", valid).getAbsolute());
    }
    ASSERT_EQ(0, mkdir("\xE2\x82\xAC", 0700));
    ASSERT_EQ(0, chdir("\xE2\x82\xAC"));
    expectPath(L"/a", false, makePath(L"a", true).getAbsolute());
    ScopedLocale const locale("C.UTF-8");
    expectPath(here + L"/\u20AC/a", true, makePath(L"a", true).getAbsolute());
}

TEST(WidePath, canonicalFormIsConvertedInTheLocale) {
    WorkingFolder const directory;
    ASSERT_EQ(0, mkdir("\xE2\x82\xAC", 0700));
    ASSERT_EQ(0, symlink("\xE2\x82\xAC", "link"));
    {
        ScopedLocale const locale("C.UTF-8");
        for (wchar_t const* const text : {L"\u20AC", L"link"}) {
            expectPath(
                widen(directory.getCanonicalPath()) + L"/\u20AC", true,
                makePath(text, true).getCanonicalized());
        }
    }
    // The target exists, but its name is malformed in this locale.
    expectPath(L"", false, makePath(L"link", true).getCanonicalized());
}

TEST(WidePath, canonicalFormIsEmptyAndValidIfTheLocaleCannotExpressThePath) {
    Calls const calls(inject_realpath, 1);
    errno = 0;
    WidePath const canonical = makePath(L"/\u20AC", false).getCanonicalized();
    EXPECT_EQ(EINVAL, errno);
    expectPath(L"", true, canonical);
}

/// A path that may be valid and wide, and the check of its forms.
struct Narrow {
    static constexpr char const* NAME = "Path";
    static constexpr bool VALID = true;
    static Path make(std::string const& text) { return text; }
    static void expect(std::string const& text, bool, Path const& path) { EXPECT_EQ(text, path); }
};
template <bool IsValid>
struct Wide {
    static constexpr char const* NAME = IsValid ? "ValidWidePath" : "InvalidWidePath";
    static constexpr bool VALID = IsValid;
    static WidePath make(std::string const& text) { return makePath(widen(text), VALID); }
    static void expect(std::string const& text, bool valid, WidePath const& path) {
        expectPath(widen(text), valid, path);
    }
};

template <typename Kind>
class PathForms : public testing::Test {
protected:
    static void expectAbsolute(std::string const& expected, std::string const& text, bool valid = true) {
        Kind::expect(expected, valid, Kind::make(text).getAbsolute());
        EXPECT_TRUE(chainIs({}));
    }
    /// Sets `errno` like the call.
    static void expectCanonical(std::string const& expected, std::string const& text) {
        errno = 0;
        auto const canonical = Kind::make(text).getCanonicalized();
        int const error = errno;
        Kind::expect(expected, true, canonical);
        errno = error;
    }

    std::string getPath() const { return m_folder.getCanonicalPath(); }

    WorkingFolder m_folder;
};

struct KindNames {
    template <typename Kind>
    static std::string GetName(int) {
        return Kind::NAME;
    }
};

using Kinds = testing::Types<Narrow, Wide<true>, Wide<false>>;
TYPED_TEST_SUITE(PathForms, Kinds, KindNames);

TYPED_TEST(PathForms, absolutePathStaysAsItIs) {
    Calls const calls(inject_getcwd, 0);
    for (char const* const path : {"/", "/a", "/a/../b", "/a/./b//c/", "//a", "//a/", "/no such thing"}) {
        this->expectAbsolute(path, path, TypeParam::VALID);
    }
}

TYPED_TEST(PathForms, relativePathIsAppendedToTheWorkingDirectoryUnchanged) {
    for (std::string const path :
         {"", "a", "a/b/", "../a/./b//c", "../a/./b//c/", ".", "..", "no such thing", " "}) {
        this->expectAbsolute(this->getPath() + '/' + path, path);
    }
    ASSERT_EQ(0, chdir("/"));
    this->expectAbsolute("//a", "a");
    this->expectAbsolute("//", "");
}

TYPED_TEST(PathForms, absoluteFormWithoutAWorkingDirectoryIsEmptyAndNothingIsReported) {
    for (int const error : {ENOENT, EACCES, ENOMEM, ERANGE, EIO}) {
        Fault const fault(inject_getcwd, error);
        this->expectAbsolute("", "a");
    }
    ASSERT_EQ(0, mkdir("gone", 0700));
    ASSERT_EQ(0, chdir("gone"));
    ASSERT_EQ(0, rmdir("../gone"));
    this->expectAbsolute("", "a");
    this->expectAbsolute("/a", "/a", TypeParam::VALID);
}

TYPED_TEST(PathForms, canonicalFormHasNoLinksAndNoDots) {
    this->m_folder.makeFolder("real");
    this->m_folder.makeFile("real/file");
    this->m_folder.makeLink("link", "real");
    this->m_folder.makeLink("real/around", "../link/file");
    std::string const file = this->getPath() + "/real/file";
    this->expectCanonical(file, "real/file");
    this->expectCanonical(file, "./link/..//real/./file");
    this->expectCanonical(file, this->getPath() + "/link/around");
    this->expectCanonical(this->getPath(), ".");
    this->expectCanonical("/", "/..");
}

TYPED_TEST(PathForms, canonicalFormOfAMissingPathIsEmptyWithErrno) {
    this->m_folder.makeFile("file");
    this->m_folder.makeLink("loop", "loop");
    for (auto const& [path, error] :
         {std::pair("missing", ENOENT), std::pair("", ENOENT), std::pair("missing/..", ENOENT),
          std::pair("file/x", ENOTDIR), std::pair("loop", ELOOP)}) {
        this->expectCanonical("", path);
        EXPECT_EQ(error, errno) << path;
    }
}

TYPED_TEST(PathForms, failureToCanonicalizeKeepsPendingReports) {
    std::string ignored;
    {
        Fault const fault(inject_getcwd, EACCES);
        ASSERT_TRUE(vesk::FileSys::currentWD(ignored));
    }
    for (int const error : {EACCES, ENOMEM, EIO}) {
        Calls const calls(inject_realpath, 1, error);
        this->expectCanonical("", "/");
        EXPECT_EQ(error, errno);
    }
    EXPECT_TRUE(chainIs({vesk::SysErrorId::PERMISSION_DENIED}));
}

} // namespace
