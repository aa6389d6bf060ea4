#include "Conversions.h"
#include "support/AllocationCounter.h"
#include "support/CleanEnd.h"
#include "support/Locales.h"
#include "support/NewFault.h"
#include "support/RunInThreads.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"

#include <vesk/RefCounted.h>
#include <vesk/UnicodeString.h>
#include <vesk/WidePath.h>

#include <memory>
#include <type_traits>

namespace support {

/// Counts how often one piece of memory is freed, unless a sanitizer detects that.
inline std::atomic<void*> s_watched{nullptr};
inline std::atomic<int> s_frees{0};

} // namespace support

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void __libc_free(void*);
extern "C" void free(void* memory) {
    if (memory != nullptr && memory == support::s_watched.load(std::memory_order_relaxed)) {
        ++support::s_frees;
        return; // The watched piece is not used again.
    }
    __libc_free(memory);
}
#endif

namespace {

using namespace support;
using vesk::UnicodeString;

/// The first handle builds the pool of counters, which no test counts.
UnicodeString const s_first("", 1);

constexpr unsigned int FAILED_SIZE = 0xFFFFFFFF;
constexpr size_t FAILED = static_cast<size_t>(-1);

/// The layout on which programs that were built against the class depend.
struct Layout {
    void* operations;
    void* counter;
    char* data;
    uint32_t size;
    uint32_t storage;
};
static_assert(sizeof(UnicodeString) == sizeof(Layout));

Layout layoutOf(UnicodeString const& text) {
    Layout layout;
    memcpy(&layout, static_cast<void const*>(&text), sizeof layout);
    return layout;
}

static_assert(std::is_base_of_v<vesk::RefCounted, UnicodeString>);
static_assert(std::is_convertible_v<std::string const&, UnicodeString>);
static_assert(std::is_convertible_v<std::wstring const&, UnicodeString>);
static_assert(std::is_convertible_v<char const*, UnicodeString>);
static_assert(std::is_convertible_v<UnicodeString const&, std::wstring>);
static_assert(std::is_same_v<decltype(UnicodeString::s_encoding), uint32_t const>);

void expectText(char const* text, unsigned int size, uint32_t storage, UnicodeString const& string) {
    EXPECT_STREQ(text, string.c_str());
    EXPECT_EQ(size, string.getSize());
    Layout const layout = layoutOf(string);
    EXPECT_EQ(string.c_str(), layout.data);
    EXPECT_EQ(size, layout.size);
    EXPECT_EQ(storage, layout.storage);
}

/// Watches a piece of memory. The destructor frees it.
class Watch : tarnbase::NonCopyable {
public:
    explicit Watch(char const* memory) : m_memory(const_cast<char*>(memory)) {
        s_watched = m_memory;
        s_frees = 0;
    }
    ~Watch() {
        s_watched = nullptr;
        if (COUNTS_ALLOCATIONS || !m_expected) {
            free(m_memory);
        }
    }

    void expectFreed(int count) {
        m_expected = count != 0;
        EXPECT_EQ(COUNTS_ALLOCATIONS ? count : 0, s_frees);
    }

private:
    char* m_memory;
    bool m_expected = false;
};

TEST(UnicodeString, encodingIsOneAndDestroyHasTheThirdSlot) {
    EXPECT_EQ(1U, UnicodeString::s_encoding);
    EXPECT_EQ(2, getSlot(&UnicodeString::destroy)) << "behind the two destructors";
}

TEST(UnicodeString, borrowsATextAndDoesNotCheckItsSize) {
    char text[] = "abc";
    UnicodeString const borrowed(text, 4);
    EXPECT_EQ(text, borrowed.c_str());
    text[0] = 'x';
    expectText("xbc", 4, 0, borrowed);
    for (unsigned int const size : {0U, 1U, 100U, FAILED_SIZE}) {
        expectText("abc", size, 0, UnicodeString("abc", size));
        expectText(nullptr, size, 0, UnicodeString(nullptr, size));
    }
    EXPECT_EQ(L"abc", static_cast<std::wstring>(UnicodeString("abc", 0)));
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString(nullptr, 7)));
}

TEST(UnicodeString, borrowsAStringWithoutAnAllocation) {
    std::string const text(100, 'x');
    AllocationCounter const allocations;
    {
        UnicodeString const borrowed(text);
        UnicodeString const bare(text.c_str(), 101);
        UnicodeString const copy(bare);
        EXPECT_EQ(0, allocations.getCount());
        EXPECT_EQ(text.c_str(), borrowed.c_str());
        expectText(text.c_str(), 101, 0, borrowed);
    }
    EXPECT_EQ(1U, UnicodeString(std::string()).getSize());
}

TEST(UnicodeString, neverFreesABorrowedText) {
    auto* const text = static_cast<char*>(malloc(4));
    memcpy(text, "abc", 4);
    Watch watch(text);
    {
        UnicodeString const borrowed(text, 4);
        UnicodeString copy(borrowed);
        EXPECT_EQ(0, copy.destroy());
        EXPECT_EQ(nullptr, copy.c_str());
        EXPECT_STREQ("abc", borrowed.c_str());
    }
    watch.expectFreed(0);
    EXPECT_STREQ("abc", text);
}

TEST(UnicodeString, copiesABareTextAndTakesANullPointerForTheEmptyText) {
    char text[] = "abcdef";
    NewFault const count(New::NOTHROW_ARRAY, 1, 0);
    UnicodeString const owned(text);
    EXPECT_EQ((std::vector<size_t>{7}), count.getSizes());
    EXPECT_NE(text, owned.c_str());
    memset(text, 'x', sizeof text - 1);
    expectText("abcdef", 7, 2, owned);
    for (char const* const empty : {"", static_cast<char const*>(nullptr)}) {
        expectText("", 1, 2, UnicodeString(empty));
    }
}

/// Constructs a string while three allocations fail, and checks that it waits for memory.
template <typename Source>
void expectWait(Source const& source, std::string const& event) {
    EventRecorder const events;
    std::optional<UnicodeString> text;
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
        text.emplace(source);
        EXPECT_EQ((std::vector<size_t>{7, 7, 7, 7}), fault.getSizes());
    }
    std::string const line = "OUT_OF_MEMORY framework/src/vesk/posix/UnicodeString " + event;
    EXPECT_EQ(line + '\n' + line + '\n' + line, events.getText());
    EXPECT_STREQ("abcdef", text->c_str());
}

TEST(UnicodeString, copyAndConversionWaitForMemory) {
    expectWait("abcdef", "checkStorage: cannot make UC copy");
    expectWait(std::wstring(L"abcdef"), "UnicodeString: cannot allocate data for wcs conversion");
}

TEST(UnicodeString, lastCopyFreesTheSharedTextOnce) {
    auto source = std::make_unique<UnicodeString>("abc");
    char const* const text = source->c_str();
    Watch watch(text);
    {
        AllocationCounter const allocations;
        UnicodeString const copy(*source);
        EXPECT_EQ(0, allocations.getCount());
        EXPECT_EQ(text, copy.c_str());
        EXPECT_EQ(layoutOf(*source).counter, layoutOf(copy).counter);
        source.reset();
        watch.expectFreed(0);
        expectText("abc", 4, 2, copy);
        UnicodeString const second(copy);
        EXPECT_EQ(text, second.c_str());
    }
    watch.expectFreed(1);
}

TEST(UnicodeString, assignmentReleasesOneTextAndSharesTheOther) {
    UnicodeString const source("source");
    UnicodeString target("target");
    {
        Watch watch(target.c_str());
        target = source;
        watch.expectFreed(1);
    }
    EXPECT_EQ(source.c_str(), target.c_str());
    EXPECT_EQ(7U, target.getSize());
    UnicodeString const& same = target;
    target = same;
    EXPECT_STREQ("source", target.c_str());
    target = UnicodeString("borrowed", 9);
    expectText("borrowed", 9, 0, target);
    EXPECT_STREQ("source", source.c_str());
}

TEST(UnicodeString, destroyReleasesTheText) {
    UnicodeString owned("abc");
    EXPECT_EQ(0, owned.destroy());
    EXPECT_EQ(nullptr, owned.c_str());
    EXPECT_EQ(0U, layoutOf(owned).storage);
    EXPECT_EQ(0, owned.destroy());
    EXPECT_EQ(L"", static_cast<std::wstring>(owned));
}

TEST(UnicodeString, copiesCanBeDestroyedInDifferentThreads) {
    constexpr int THREADS = 4;
    std::atomic<int> wrong{0};
    for (int round = 0; round < 300; ++round) {
        std::vector<std::unique_ptr<UnicodeString>> copies;
        copies.push_back(std::make_unique<UnicodeString>("shared by all of them"));
        for (int i = 1; i < THREADS; ++i) {
            copies.push_back(std::make_unique<UnicodeString>(*copies[0]));
        }
        runInThreads(THREADS, [&](int number) {
            auto const original = std::move(copies[static_cast<size_t>(number)]);
            UnicodeString const mine(*original);
            wrong += strcmp("shared by all of them", mine.c_str()) != 0;
        });
    }
    EXPECT_EQ(0, wrong);
}

struct Text {
    char const* locale;
    std::string narrow;
    std::wstring wide;
};

void PrintTo(Text const& text, std::ostream* out) {
    *out << text.locale << ' ' << testing::PrintToString(text.narrow);
}

/// Converts texts in the locale of the row.
class UnicodeStringTexts : public testing::TestWithParam<Text> {
protected:
    void SetUp() override { ASSERT_TRUE(m_locale.isSet()); }

    ScopedLocale m_locale{GetParam().locale};
};

TEST_P(UnicodeStringTexts, areConvertedThereAndBack) {
    UnicodeString const narrow(GetParam().wide);
    ASSERT_NE(nullptr, narrow.c_str());
    EXPECT_EQ(GetParam().narrow, narrow.c_str());
    EXPECT_EQ(GetParam().narrow.length() + 1, narrow.getSize());
    EXPECT_EQ(2U, layoutOf(narrow).storage);
    EXPECT_EQ(GetParam().wide, static_cast<std::wstring>(narrow));
    EXPECT_EQ(GetParam().wide, static_cast<std::wstring>(UnicodeString(GetParam().narrow)));
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringTexts,
    testing::Values(
        Text{"C", "", L""}, Text{"C", "plain", L"plain"}, Text{"C", "\x01 \x7F~", L"\x01 \x7F~"},
        Text{"C", std::string(70000, 'x'), std::wstring(70000, L'x')}, Text{"C.UTF-8", "", L""},
        Text{"C.UTF-8", "plain", L"plain"}, Text{"C.UTF-8", "\xC3\xA4!", L"\u00E4!"},
        Text{"C.UTF-8", "\xE2\x82\xAC", L"\u20AC"}, Text{"C.UTF-8", "a\xF0\x9F\x96\xA8z", L"a\U0001F5A8z"},
        Text{"C.UTF-8", "\xEF\xBB\xBF", L"\uFEFF"}, Text{"C.UTF-8", "\xF4\x8F\xBF\xBF", L"\U0010FFFF"}));

class UnicodeStringUnexpressed : public UnicodeStringTexts {};

TEST_P(UnicodeStringUnexpressed, hasANullTextAndTheHighestSize) {
    NewFault const count(New::NOTHROW_ARRAY, 1, 0);
    UnicodeString const narrow(GetParam().wide);
    expectText(nullptr, FAILED_SIZE, 2, narrow);
    UnicodeString const copy(narrow);
    expectText(nullptr, FAILED_SIZE, 2, copy);
    EXPECT_EQ(L"", static_cast<std::wstring>(copy));
    EXPECT_EQ(0, count.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringUnexpressed,
    testing::Values(
        Text{"C", "", L"\u00E4"}, Text{"C", "", L"abc\u20AC"}, Text{"C", "", L"\U0001F5A8z"},
        Text{"C.UTF-8", "", std::wstring(1, wchar_t{0xD800})},
        Text{"C.UTF-8", "", L"abc" + std::wstring(1, wchar_t{0xDFFF}) + L"d"}));

class UnicodeStringMalformed : public UnicodeStringTexts {};

TEST_P(UnicodeStringMalformed, isAnEmptyWideTextWithoutAReport) {
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString(GetParam().narrow)));
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringMalformed,
    testing::Values(
        Text{"C", "\xE4", L""}, Text{"C", "abc\x80", L""}, Text{"C", "\xC3\xA4", L""},
        Text{"C.UTF-8", "\xE4", L""}, Text{"C.UTF-8", "abc\x80", L""}, Text{"C.UTF-8", "abc\xE2\x82", L""},
        Text{"C.UTF-8", "\xC0\xAF", L""}, Text{"C.UTF-8", "\xFFz", L""}));

/// Returns what the C library makes of a text; empty if it is malformed.
std::wstring convertByLibc(std::string const& text) {
    std::wstring wide(text.length() + 1, L'\0');
    mbstate_t state{};
    char const* source = text.c_str();
    size_t const length = mbsrtowcs(wide.data(), &source, wide.length(), &state);
    wide.resize(length != FAILED ? length : 0);
    return wide;
}

TEST(UnicodeString, everyCharacterOfUtf8IsConvertedAsTheCLibraryDoes) {
    ScopedLocale const locale("C.UTF-8");
    constexpr int PIECE = 61; // Moves the characters over all positions in a word.
    for (wchar_t code = 1; code < 0x110000;) {
        std::wstring wide;
        for (int i = 0; i < PIECE && code < 0x110000; ++i, ++code) {
            if (code < 0xD800 || code > 0xDFFF) {
                wide += code;
            }
        }
        UnicodeString const narrow(wide);
        ASSERT_NE(nullptr, narrow.c_str()) << std::hex << code;
        ASSERT_EQ(convertByLibc(narrow.c_str()), wide) << std::hex << code;
        ASSERT_EQ(wide, static_cast<std::wstring>(narrow)) << std::hex << code;
        ASSERT_EQ(strlen(narrow.c_str()) + 1, narrow.getSize());
    }
}

TEST(UnicodeString, sequencesOfUtf8AreMalformedWhereTheCLibrarySaysSo) {
    ScopedLocale const locale("C.UTF-8");
    std::string const bytes = "a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4"
                              "\xF5\xF7\xF8\xFC\xFE\xFF";
    int malformed = 0;
    size_t round = 0;
    for (char const first : bytes) {
        for (char const second : bytes) {
            for (char const third : bytes) {
                for (char const* const rest : {"", "\x80", "\xBFz"}) {
                    std::string const text = std::string(round++ % 9, 'x') + first + second + third + rest;
                    std::wstring const expected = convertByLibc(text);
                    ASSERT_EQ(expected, static_cast<std::wstring>(UnicodeString(text)))
                        << testing::PrintToString(text);
                    ASSERT_EQ(expected, vesk::WidePath(UnicodeString(text)));
                    malformed += expected.empty() ? 1 : 0;
                }
            }
        }
    }
    EXPECT_GT(malformed, 10000);
}

TEST(UnicodeString, isConvertedInALocaleOtherThanUTF8) {
    TempFolder const folder;
    Latin1 const latin1(folder.getPath());
    if (!latin1.isBuilt()) {
        GTEST_SKIP() << "there is no 8-bit locale for this libc";
    }
    ScopedLocale const locale("latin1");
    ASSERT_TRUE(locale.isSet());
    UnicodeString const narrow(std::wstring(L"\u00E4\u00FF!"));
    expectText("\xE4\xFF!", 4, 2, narrow);
    EXPECT_EQ(L"\u00E4\u00FF!", static_cast<std::wstring>(narrow));
    // Text that is also well-formed UTF-8.
    EXPECT_EQ(L"\u00C3\u00A4", static_cast<std::wstring>(UnicodeString("\xC3\xA4")));
    expectText(nullptr, FAILED_SIZE, 2, UnicodeString(std::wstring(L"\u20AC")));
}

TEST(UnicodeString, textEndsAtItsFirstNul) {
    expectText("ab", 3, 2, UnicodeString(std::wstring(L"ab\0cd", 5)));
    std::string const text("ab\0cd", 5);
    EXPECT_EQ(6U, UnicodeString(text).getSize());
    EXPECT_EQ(L"ab", static_cast<std::wstring>(UnicodeString(text)));
}

void expectTwoPasses(std::vector<Pass> const& passes, size_t length) {
    ASSERT_EQ(2U, passes.size());
    EXPECT_TRUE(passes[0].measures && passes[0].is_fresh);
    EXPECT_EQ(FAILED, passes[0].limit);
    EXPECT_EQ(length, passes[0].result);
    EXPECT_FALSE(passes[1].measures);
    EXPECT_TRUE(passes[1].is_fresh);
    EXPECT_EQ(length + 1, passes[1].limit);
    EXPECT_EQ(length, passes[1].result);
}

/// Records the passes of the C library in the locale C.UTF-8. The library converts such text itself, unless the
/// process has another locale at the start of the conversion.
class PassesInUtf8 {
public:
    PassesInUtf8() {
        m_conversions.before = [](size_t) { setlocale(LC_CTYPE, "C.UTF-8"); };
    }
    std::vector<Pass> const& get() const { return m_conversions.getPasses(); }

private:
    ScopedLocale m_locale{"C"};
    Conversions m_conversions;
};

TEST(UnicodeString, isConvertedInTwoPassesIntoMemoryOfItsSize) {
    std::wstring const wide = L"\u20AC and more of it";
    std::optional<UnicodeString> narrow;
    {
        PassesInUtf8 const passes;
        NewFault const count(New::NOTHROW_ARRAY, 1, 0);
        narrow.emplace(wide);
        EXPECT_EQ((std::vector<size_t>{wide.length() + 3}), count.getSizes());
        expectTwoPasses(passes.get(), wide.length() + 2);
    }
    {
        ScopedLocale const locale("C.UTF-8");
        // The passes themselves are recorded below: a record allocates as well, and so does a comparison.
        std::vector<size_t> const expected{17 * sizeof(wchar_t)};
        NewFault const count(New::SINGLE, 1, 0);
        std::wstring const back = *narrow;
        EXPECT_EQ(expected, count.getSizes());
        EXPECT_EQ(wide, back);
    }
    PassesInUtf8 const passes;
    std::wstring const again = *narrow;
    expectTwoPasses(passes.get(), 16);
}

TEST(UnicodeString, emptyAndFailedConversionsHaveNoSecondPass) {
    Conversions const conversions;
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString("", 1)));
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString("\xFF", 2)));
    EXPECT_EQ(2U, conversions.getPasses().size());
    UnicodeString const narrow(std::wstring(L"\u20AC"));
    EXPECT_EQ(nullptr, narrow.c_str());
    EXPECT_EQ(3U, conversions.getPasses().size());
}

constexpr char const* NARROW_WARNING = "WARNING framework/src/vesk/posix/UnicodeString UnicodeString: got "
                                       "different result in second call to wide_to_utf8";
constexpr char const* WIDE_WARNING = "WARNING framework/src/vesk/posix/UnicodeString operator "
                                     "std::__cxx11::wstring: second call to utf8_to_wide returned different "
                                     "result";

TEST(UnicodeString, changeOfTheTextOrTheLocaleBetweenThePassesKeepsTheConvertedPart) {
    for (auto const& [second, narrow] : {std::pair(L"abcd", "abc"), std::pair(L"a", "a")}) {
        EventRecorder const events;
        std::wstring wide = L"abc";
        wide.reserve(10);
        Conversions conversions;
        conversions.before = [&wide, text = second](size_t pass) {
            if (pass == 2) {
                wcscpy(wide.data(), text);
            }
        };
        expectText(narrow, 4, 2, UnicodeString(wide));
        EXPECT_EQ(NARROW_WARNING, events.getText());
    }
    ScopedLocale const locale("C");
    EventRecorder const events;
    Conversions conversions;
    conversions.before = [](size_t pass) { setlocale(LC_CTYPE, pass == 1 ? "C.UTF-8" : "C"); };
    UnicodeString const narrow(std::wstring(L"ab\u20ACcd"));
    EXPECT_EQ(NARROW_WARNING, events.getText());
    expectText("ab", 8, 2, narrow);
}

TEST(UnicodeString, wideTextOfDifferentPassesIsTheSecondOne) {
    for (size_t const second : {FAILED, size_t{5}, size_t{7}}) {
        SCOPED_TRACE(second);
        EventRecorder const events;
        UnicodeString const narrow("abcdef");
        Conversions conversions;
        conversions.change = [second](size_t pass, size_t result) { return pass == 2 ? second : result; };
        EXPECT_EQ(L"abcdef", static_cast<std::wstring>(narrow));
        EXPECT_EQ(WIDE_WARNING, events.getText());
        EXPECT_TRUE(chainIs({}));
    }
    EventRecorder const events;
    char text[] = "abcdef";
    UnicodeString const narrow(text, sizeof text);
    Conversions conversions;
    conversions.before = [&text](size_t pass) {
        if (pass == 2) {
            text[2] = '\0';
        }
    };
    EXPECT_EQ(std::wstring(L"ab\0\0\0\0", 6), static_cast<std::wstring>(narrow));
    EXPECT_EQ(WIDE_WARNING, events.getText());
}

TEST(UnicodeString, textThatIsTooLongForTheSizeIsAFailedConversion) {
    std::vector<size_t> lengths = {FAILED_SIZE};
    if (sizeof(size_t) > 4) {
        lengths.push_back(static_cast<size_t>(0x100000002ULL));
    }
    for (size_t const length : lengths) {
        Conversions conversions;
        conversions.change = [length](size_t, size_t) { return length; };
        expectText(nullptr, FAILED_SIZE, 2, UnicodeString(std::wstring(L"abc")));
        EXPECT_EQ(1U, conversions.getPasses().size());
    }
}

} // namespace
