#include "Conversions.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Locales.h"
#include "support/TemporaryDirectory.h"

#include <vesk/FileSys.h>
#include <vesk/SysError.h>
#include <vesk/WidePath.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
VESK_INJECT_ERRNO(char*, nullptr, realpath, (char const* path, char* resolved), (path, resolved))

namespace {

using support::chainIs;
using support::Conversions;
using support::EventRecorder;
using support::Fault;
using support::ScopedLocale;
using support::TemporaryDirectory;
using vesk::UnicodeString;
using vesk::WidePath;

static_assert(std::is_base_of_v<std::wstring, WidePath>);
static_assert(sizeof(WidePath) == sizeof(std::wstring) + sizeof(void*));
static_assert(std::is_convertible_v<UnicodeString const&, WidePath>);
static_assert(std::is_convertible_v<WidePath const&, std::string>);

constexpr size_t FAILED = static_cast<size_t>(-1);

/// A path with this text and this flag, whatever the locale can express.
WidePath makePath(std::wstring const& text, bool valid) {
    WidePath path(valid ? "x" : "");
    path.assign(text);
    return path;
}

std::wstring widen(std::string const& ascii) {
    return {ascii.begin(), ascii.end()};
}

// ---- conversion ----

TEST(WidePath, ofATextIsValid) {
    WidePath const path(UnicodeString("abc"));
    EXPECT_EQ(L"abc", path);
    EXPECT_TRUE(path.isValid());
    ScopedLocale const locale("C.UTF-8");
    WidePath const wide(UnicodeString("/\xE2\x82\xAC/\xF0\x9F\x96\xA8"));
    EXPECT_EQ(L"/\u20AC/\U0001F5A8", wide);
    EXPECT_TRUE(wide.isValid());
}

TEST(WidePath, ofAnEmptyTextIsEmptyAndNotValid) {
    EventRecorder const events;
    Conversions const conversions;
    for (WidePath const& path : {WidePath(UnicodeString("")), WidePath("", 0), WidePath("", 5)}) {
        EXPECT_EQ(L"", path);
        EXPECT_FALSE(path.isValid());
    }
    EXPECT_EQ(3U, conversions.getPasses().size());
    EXPECT_EQ(0U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

TEST(WidePath, ofAMalformedTextIsEmptyAndNotValid) {
    for (char const* const name : {"C", "C.UTF-8"}) {
        ScopedLocale const locale(name);
        ASSERT_TRUE(locale.isSet());
        EventRecorder const events;
        for (WidePath const& path : {WidePath(UnicodeString("abc\xE4")), WidePath("\xE4", 1)}) {
            EXPECT_EQ(L"", path);
            EXPECT_FALSE(path.isValid());
        }
        EXPECT_EQ(0U, events.getCount());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(WidePath, ofNoTextIsEmptyAndNotValid) {
    UnicodeString const failed(std::wstring(L"\u20AC"));
    ASSERT_EQ(nullptr, failed.c_str());
    char const* const nothing = nullptr;
    for (WidePath const& path : {WidePath(failed), WidePath(nothing, 0), WidePath(nothing, 3)}) {
        EXPECT_EQ(L"", path);
        EXPECT_FALSE(path.isValid());
    }
}

TEST(WidePath, isNotCutByTheLengthOfItsText) {
    for (unsigned int const length : {0U, 1U, 3U, 6U, 7U, 1000U, 0xFFFFFFFFU}) {
        WidePath const path("abcdef", length);
        EXPECT_EQ(L"abcdef", path) << length;
        EXPECT_TRUE(path.isValid());
    }
    EXPECT_EQ(10U, WidePath("0123456789", 3).length());
    EXPECT_EQ(L"abc", WidePath("abc\0def", 7));
}

TEST(WidePath, isConvertedInTwoPasses) {
    ScopedLocale const locale("C.UTF-8");
    Conversions const conversions;
    WidePath const path("\xE2\x82\xAC/b", 1);
    ASSERT_EQ(2U, conversions.getPasses().size());
    EXPECT_TRUE(conversions.getPasses()[0].measures);
    EXPECT_EQ(FAILED, conversions.getPasses()[0].limit);
    EXPECT_FALSE(conversions.getPasses()[1].measures);
    EXPECT_EQ(4U, conversions.getPasses()[1].limit);
}

TEST(WidePath, differentPassesEmptyItAndWarn) {
    for (size_t const second : {FAILED, size_t{0}, size_t{5}, size_t{7}}) {
        SCOPED_TRACE(second);
        EventRecorder const events;
        Conversions conversions;
        conversions.change = [second](size_t pass, size_t result) { return pass == 2 ? second : result; };
        WidePath const path("abcdef", 0);
        EXPECT_EQ(L"", path);
        EXPECT_FALSE(path.isValid());
        EXPECT_EQ(
            "WARNING framework/src/vesk/posix/WidePath WidePath: second call to mbstowcs returned different "
            "result!",
            events.getText());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(WidePath, localeThatChangesBetweenThePassesEmptiesIt) {
    ScopedLocale const locale("C.UTF-8");
    EventRecorder const events;
    Conversions conversions;
    conversions.before = [](size_t pass) { setlocale(LC_CTYPE, pass == 1 ? "C.UTF-8" : "C"); };
    WidePath const path(UnicodeString("ab\xE2\x82\xAC"));
    EXPECT_EQ(L"", path);
    EXPECT_FALSE(path.isValid());
    EXPECT_EQ(1U, events.getCount());
}

// ---- a wide string with a flag ----

TEST(WidePath, keepsItsFlagThroughTheOperationsOfAString) {
    WidePath path("abc");
    path += L"/d";
    path.append(1, L'e');
    EXPECT_EQ(L"abc/de", path);
    EXPECT_TRUE(path.isValid());
    path.clear();
    EXPECT_TRUE(path.isValid());
    WidePath invalid("");
    invalid.assign(L"text");
    EXPECT_EQ(L"text", invalid);
    EXPECT_FALSE(invalid.isValid());
}

TEST(WidePath, copiesTakeTextAndFlag) {
    for (bool const valid : {true, false}) {
        WidePath const source = makePath(L"text", valid);
        WidePath const copy(source);
        EXPECT_EQ(L"text", copy);
        EXPECT_EQ(valid, copy.isValid());
        WidePath target = makePath(L"other", !valid);
        target = source;
        EXPECT_EQ(L"text", target);
        EXPECT_EQ(valid, target.isValid());
        WidePath const moved(std::move(target));
        EXPECT_EQ(L"text", moved);
        EXPECT_EQ(valid, moved.isValid());
    }
}

// ---- back to narrow text ----

TEST(WidePath, becomesNarrowWhetherValidOrNot) {
    ScopedLocale const locale("C.UTF-8");
    for (bool const valid : {true, false}) {
        std::string const narrow = makePath(L"a/\u20AC", valid);
        EXPECT_EQ("a/\xE2\x82\xAC", narrow);
        EXPECT_EQ("", static_cast<std::string>(makePath(L"", valid)));
    }
}

TEST(WidePath, thatTheLocaleCannotExpressThrowsALogicError) {
    struct {
        char const* locale;
        std::wstring text;
    } const rows[] = {{"C", L"a\u00E4"}, {"C", L"\u20AC"}, {"C.UTF-8", std::wstring(1, wchar_t{0xD800})}};
    for (auto const& row : rows) {
        ScopedLocale const locale(row.locale);
        ASSERT_TRUE(locale.isSet());
        EXPECT_THROW((void)static_cast<std::string>(makePath(row.text, true)), std::logic_error);
        EXPECT_THROW((void)static_cast<std::string>(makePath(row.text, false)), std::logic_error);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(WidePath, goesThroughALocaleThatIsNotUTF8) {
    TemporaryDirectory const directory;
    if (!support::buildLatin1(directory.get())) {
        GTEST_SKIP() << "there is no 8-bit locale for this libc";
    }
    ScopedLocale const locale("latin1");
    ASSERT_TRUE(locale.isSet());
    WidePath const path("/\xE4");
    EXPECT_EQ(L"/\u00E4", path);
    EXPECT_TRUE(path.isValid());
    EXPECT_EQ("/\xE4", static_cast<std::string>(path));
    EXPECT_THROW((void)static_cast<std::string>(makePath(L"\u20AC", true)), std::logic_error);
}

// ---- getAbsolute ----

TEST(WidePath, absolutePathIsItsOwnAbsoluteFormWithItsFlag) {
    Fault const asked(inject_getcwd, 0);
    for (bool const valid : {true, false}) {
        for (wchar_t const* const text : {L"/", L"/a/../b", L"//a/", L"/\u20AC"}) {
            WidePath const absolute = makePath(text, valid).getAbsolute();
            EXPECT_EQ(text, absolute);
            EXPECT_EQ(valid, absolute.isValid());
        }
    }
    EXPECT_EQ(0, asked.getCalls());
}

TEST(WidePath, relativePathStandsBehindTheWorkingDirectoryAndItsFlagDoesNotMatter) {
    TemporaryDirectory const directory;
    for (bool const valid : {true, false}) {
        for (std::wstring const text : {L"", L"a", L"../a/./b//c/", L"\u20AC"}) {
            WidePath const absolute = makePath(text, valid).getAbsolute();
            EXPECT_EQ(widen(directory.get()) + L'/' + text, absolute);
            EXPECT_TRUE(absolute.isValid());
        }
    }
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ(L"//a", WidePath("a").getAbsolute());
}

TEST(WidePath, workingDirectoryThatCannotBeConvertedMakesTheAbsoluteFormInvalid) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, mkdir("\xE2\x82\xAC", 0700));
    ASSERT_EQ(0, chdir("\xE2\x82\xAC"));
    WidePath const unknown = makePath(L"a", true).getAbsolute();
    EXPECT_EQ(L"/a", unknown);
    EXPECT_FALSE(unknown.isValid());
    ScopedLocale const locale("C.UTF-8");
    WidePath const absolute = makePath(L"a", true).getAbsolute();
    EXPECT_EQ(widen(directory.get()) + L"/\u20AC/a", absolute);
    EXPECT_TRUE(absolute.isValid());
}

TEST(WidePath, withoutAWorkingDirectoryTheAbsoluteFormIsEmptyAndValidAndNothingIsPending) {
    for (bool const valid : {true, false}) {
        for (int const error : {ENOENT, EACCES, ENOMEM, ERANGE, EIO}) {
            Fault const fault(inject_getcwd, error);
            WidePath const absolute = makePath(L"a", valid).getAbsolute();
            EXPECT_EQ(L"", absolute);
            EXPECT_TRUE(absolute.isValid());
            EXPECT_TRUE(chainIs({}));
        }
    }
}

// ---- getCanonicalized ----

TEST(WidePath, canonicalFormHasNoLinksAndNoDots) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, mkdir("real", 0700));
    ASSERT_TRUE(std::ofstream("real/file").good());
    ASSERT_EQ(0, symlink("real", "link"));
    for (bool const valid : {true, false}) {
        WidePath const canonical = makePath(L"./link/..//real/./file", valid).getCanonicalized();
        EXPECT_EQ(widen(directory.get()) + L"/real/file", canonical);
        EXPECT_TRUE(canonical.isValid());
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(WidePath, canonicalFormIsConvertedInTheLocale) {
    TemporaryDirectory const directory;
    ASSERT_EQ(0, mkdir("\xE2\x82\xAC", 0700));
    ASSERT_EQ(0, symlink("\xE2\x82\xAC", "link"));
    {
        ScopedLocale const locale("C.UTF-8");
        for (wchar_t const* const text : {L"\u20AC", L"link"}) {
            WidePath const canonical = makePath(text, true).getCanonicalized();
            EXPECT_EQ(widen(directory.get()) + L"/\u20AC", canonical);
            EXPECT_TRUE(canonical.isValid());
        }
    }
    // It exists, but its name is malformed now.
    WidePath const unknown = makePath(L"link", true).getCanonicalized();
    EXPECT_EQ(L"", unknown);
    EXPECT_FALSE(unknown.isValid());
}

TEST(WidePath, canonicalFormOfWhatDoesNotExistIsEmptyAndValid) {
    TemporaryDirectory const directory;
    EventRecorder const events;
    for (bool const valid : {true, false}) {
        errno = 0;
        WidePath const canonical = makePath(L"nothing", valid).getCanonicalized();
        EXPECT_EQ(ENOENT, errno);
        EXPECT_EQ(L"", canonical);
        EXPECT_TRUE(canonical.isValid());
        EXPECT_TRUE(makePath(L"", valid).getCanonicalized().isValid());
    }
    EXPECT_EQ(0U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

TEST(WidePath, canonicalFormOfWhatTheLocaleCannotExpressIsEmptyAndValid) {
    Fault const asked(inject_realpath, 0);
    errno = 0;
    WidePath const canonical = makePath(L"/\u20AC", false).getCanonicalized();
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(1, asked.getCalls());
    EXPECT_EQ(L"", canonical);
    EXPECT_TRUE(canonical.isValid());
}

TEST(WidePath, failureToCanonicalizeLeavesWhatIsPending) {
    std::string ignored;
    {
        Fault const fault(inject_getcwd, EACCES);
        ASSERT_TRUE(vesk::FileSys::currentWD(ignored));
    }
    for (int const error : {EACCES, ENOMEM, EIO}) {
        Fault const fault(inject_realpath, error);
        WidePath const canonical = WidePath("/").getCanonicalized();
        EXPECT_EQ(error, errno);
        EXPECT_EQ(L"", canonical);
        EXPECT_TRUE(canonical.isValid());
    }
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::PERMISSION_DENIED}}));
}

} // namespace
