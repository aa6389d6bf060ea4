#include "Conversions.h"
#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Locales.h"
#include "support/NewFault.h"
#include "support/TemporaryDirectory.h"
#include "support/VtableSlot.h"

#include <vesk/RefCounted.h>
#include <vesk/UnicodeString.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace support {

/// Counts how often one piece of memory is freed, where no sanitizer watches that.
inline std::atomic<void*> s_watched{nullptr};
inline std::atomic<int> s_frees{0};

void watch(void const* memory) {
    s_watched = const_cast<void*>(memory);
    s_frees = 0;
}

} // namespace support

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void __libc_free(void*);
extern "C" void free(void* memory) {
    if (memory != nullptr && memory == support::s_watched.load(std::memory_order_relaxed)) {
        ++support::s_frees;
        return; // Nobody gets this piece while it is watched.
    }
    __libc_free(memory);
}
#endif

namespace {

using support::AllocationCounter;
using support::chainIs;
using support::Conversions;
using support::COUNTS_ALLOCATIONS;
using support::EventRecorder;
using support::New;
using support::NewFault;
using support::Pass;
using support::ScopedLocale;
using support::TemporaryDirectory;
using vesk::UnicodeString;

/// The first handle builds the pool of counters; no test counts that.
UnicodeString const s_first("", 1);

constexpr unsigned int FAILED_SIZE = 0xFFFFFFFF;
constexpr size_t FAILED = static_cast<size_t>(-1);

/// What programs that were built against the class know of an object.
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

#define EXPECT_FREED_SO_FAR(count) EXPECT_EQ(COUNTS_ALLOCATIONS ? (count) : 0, support::s_frees)

TEST(UnicodeString, encodingIsOne) {
    EXPECT_EQ(1U, UnicodeString::s_encoding);
}

TEST(UnicodeString, destroyHasTheSlotBehindTheTwoDestructors) {
    EXPECT_EQ(2, support::getSlot(&UnicodeString::destroy));
}

// ---- borrowing ----

TEST(UnicodeString, borrowsATextOfToldSize) {
    char text[] = "abc";
    UnicodeString const borrowed(text, 4);
    EXPECT_EQ(text, borrowed.c_str());
    EXPECT_EQ(4U, borrowed.getSize());
    text[0] = 'x';
    EXPECT_STREQ("xbc", borrowed.c_str());
    Layout const layout = layoutOf(borrowed);
    EXPECT_EQ(text, layout.data);
    EXPECT_EQ(4U, layout.size);
    EXPECT_EQ(0U, layout.storage);
}

TEST(UnicodeString, takesTheSizeOfABorrowedTextAsTold) {
    for (unsigned int const size : {0U, 1U, 100U, FAILED_SIZE}) {
        EXPECT_EQ(size, UnicodeString("abc", size).getSize());
    }
    EXPECT_EQ(L"abc", static_cast<std::wstring>(UnicodeString("abc", 0)));
}

TEST(UnicodeString, borrowsAString) {
    std::string const text(100, 'x');
    UnicodeString const borrowed(text);
    EXPECT_EQ(text.c_str(), borrowed.c_str());
    EXPECT_EQ(101U, borrowed.getSize());
    EXPECT_EQ(0U, layoutOf(borrowed).storage);
    EXPECT_EQ(1U, UnicodeString(std::string()).getSize());
}

TEST(UnicodeString, borrowingAllocatesNothing) {
    std::string const text(100, 'x');
    AllocationCounter const allocations;
    {
        UnicodeString const borrowed(text);
        UnicodeString const bare(text.c_str(), 101);
        UnicodeString const copy(bare);
    }
    EXPECT_EQ(0, allocations.getCount());
}

TEST(UnicodeString, neverFreesABorrowedText) {
    auto* const text = static_cast<char*>(malloc(4));
    memcpy(text, "abc", 4);
    support::watch(text);
    {
        UnicodeString const borrowed(text, 4);
        UnicodeString copy(borrowed);
        EXPECT_EQ(0, copy.destroy());
        EXPECT_EQ(nullptr, copy.c_str());
        EXPECT_STREQ("abc", borrowed.c_str());
    }
    EXPECT_FREED_SO_FAR(0);
    EXPECT_STREQ("abc", text);
    support::watch(nullptr);
    free(text);
}

TEST(UnicodeString, borrowsNothingFromANullPointer) {
    EventRecorder const events;
    UnicodeString const borrowed(nullptr, 7);
    EXPECT_EQ(nullptr, borrowed.c_str());
    EXPECT_EQ(7U, borrowed.getSize());
    EXPECT_EQ(L"", static_cast<std::wstring>(borrowed));
    EXPECT_EQ(0U, events.getCount());
}

// ---- copying ----

TEST(UnicodeString, copiesABareText) {
    char text[] = "abcdef";
    NewFault const count(New::NOTHROW_ARRAY, 1, 0);
    UnicodeString const owned(text);
    EXPECT_EQ((std::vector<size_t>{7}), count.getSizes());
    EXPECT_NE(text, owned.c_str());
    memset(text, 'x', sizeof text - 1);
    EXPECT_STREQ("abcdef", owned.c_str());
    EXPECT_EQ(7U, owned.getSize());
    EXPECT_EQ(owned.c_str(), layoutOf(owned).data);
    EXPECT_EQ(7U, layoutOf(owned).size);
    EXPECT_EQ(2U, layoutOf(owned).storage);
}

TEST(UnicodeString, copiesTheEmptyText) {
    UnicodeString const owned("");
    EXPECT_STREQ("", owned.c_str());
    EXPECT_EQ(1U, owned.getSize());
    EXPECT_EQ(2U, layoutOf(owned).storage);
}

TEST(UnicodeString, copyOfANullPointerIsTheEmptyText) {
    char const* const nothing = nullptr;
    UnicodeString const owned(nothing);
    EXPECT_STREQ("", owned.c_str());
    EXPECT_EQ(1U, owned.getSize());
}

TEST(UnicodeString, copyingWaitsForMemory) {
    EventRecorder const events;
    std::optional<UnicodeString> owned;
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, 3);
        owned.emplace("abcdef");
        EXPECT_EQ((std::vector<size_t>{7, 7, 7, 7}), fault.getSizes());
    }
    std::string const line =
        "OUT_OF_MEMORY framework/src/vesk/posix/UnicodeString checkStorage: cannot make UC copy";
    EXPECT_EQ(line + '\n' + line + '\n' + line, events.getText());
    EXPECT_STREQ("abcdef", owned->c_str());
    EXPECT_TRUE(chainIs({}));
}

// ---- sharing ----

TEST(UnicodeString, copyKeepsTheTextAliveAndTheLastHolderFreesItOnce) {
    auto source = std::make_unique<UnicodeString>("abc");
    char const* const text = source->c_str();
    {
        AllocationCounter const allocations;
        UnicodeString const copy(*source);
        EXPECT_EQ(0, allocations.getCount());
        EXPECT_EQ(text, copy.c_str());
        EXPECT_EQ(4U, copy.getSize());
        EXPECT_EQ(2U, layoutOf(copy).storage);
        EXPECT_EQ(layoutOf(*source).counter, layoutOf(copy).counter);
        support::watch(text);
        source.reset();
        EXPECT_FREED_SO_FAR(0);
        EXPECT_STREQ("abc", copy.c_str());
        UnicodeString const second(copy);
        EXPECT_EQ(text, second.c_str());
    }
    EXPECT_FREED_SO_FAR(1);
    support::watch(nullptr);
    if (COUNTS_ALLOCATIONS) {
        free(const_cast<char*>(text));
    }
}

TEST(UnicodeString, assignmentLetsGoAndShares) {
    UnicodeString const source("source");
    UnicodeString target("target");
    char const* const text = target.c_str();
    support::watch(text);
    target = source;
    EXPECT_FREED_SO_FAR(1);
    support::watch(nullptr);
    if (COUNTS_ALLOCATIONS) {
        free(const_cast<char*>(text));
    }
    EXPECT_EQ(source.c_str(), target.c_str());
    EXPECT_EQ(7U, target.getSize());
    UnicodeString const& same = target;
    target = same;
    EXPECT_STREQ("source", target.c_str());
    target = UnicodeString("borrowed", 9);
    EXPECT_EQ(0U, layoutOf(target).storage);
    EXPECT_STREQ("borrowed", target.c_str());
    EXPECT_STREQ("source", source.c_str());
}

TEST(UnicodeString, destroyForgetsTheText) {
    UnicodeString owned("abc");
    EXPECT_EQ(0, owned.destroy());
    EXPECT_EQ(nullptr, owned.c_str());
    EXPECT_EQ(0U, layoutOf(owned).storage);
    EXPECT_EQ(0, owned.destroy());
    EXPECT_EQ(L"", static_cast<std::wstring>(owned));
}

TEST(UnicodeString, holdersInManyThreadsEndInAnyOrder) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 300;
    std::atomic<int> wrong{0};
    for (int round = 0; round < ROUNDS; ++round) {
        auto source = std::make_unique<UnicodeString>("shared by all of them");
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, copy = *source] {
                ++ready;
                while (ready < THREADS) {}
                UnicodeString const mine(copy);
                wrong += strcmp("shared by all of them", mine.c_str()) != 0;
            });
        }
        source.reset();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(0, wrong);
}

// ---- conversions in the locales ----

struct Text {
    char const* locale;
    std::string narrow;
    std::wstring wide;
};

void PrintTo(Text const& text, std::ostream* out) {
    *out << text.locale << ' ' << testing::PrintToString(text.narrow);
}

class UnicodeStringTexts : public testing::TestWithParam<Text> {};

TEST_P(UnicodeStringTexts, goThereAndBack) {
    ScopedLocale const locale(GetParam().locale);
    ASSERT_TRUE(locale.isSet());
    EventRecorder const events;
    UnicodeString const narrow(GetParam().wide);
    ASSERT_NE(nullptr, narrow.c_str());
    EXPECT_EQ(GetParam().narrow, narrow.c_str());
    EXPECT_EQ(GetParam().narrow.length() + 1, narrow.getSize());
    EXPECT_EQ(2U, layoutOf(narrow).storage);
    EXPECT_EQ(GetParam().wide, static_cast<std::wstring>(narrow));
    EXPECT_EQ(GetParam().wide, static_cast<std::wstring>(UnicodeString(GetParam().narrow)));
    EXPECT_EQ(0U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringTexts,
    testing::Values(
        Text{"C", "", L""}, Text{"C", "plain", L"plain"}, Text{"C", "\x01 \x7F~", L"\x01 \x7F~"},
        Text{"C", std::string(70000, 'x'), std::wstring(70000, L'x')}, Text{"C.UTF-8", "", L""},
        Text{"C.UTF-8", "plain", L"plain"}, Text{"C.UTF-8", "\xC3\xA4!", L"\u00E4!"},
        Text{"C.UTF-8", "\xE2\x82\xAC", L"\u20AC"}, Text{"C.UTF-8", "a\xF0\x9F\x96\xA8z", L"a\U0001F5A8z"},
        Text{"C.UTF-8", "\xEF\xBB\xBF", L"\uFEFF"}, Text{"C.UTF-8", "\xF4\x8F\xBF\xBF", L"\U0010FFFF"}));

struct Unexpressed {
    char const* locale;
    std::wstring text;
};

void PrintTo(Unexpressed const& row, std::ostream* out) {
    *out << row.locale << ' ' << testing::PrintToString(row.text);
}

class UnicodeStringUnexpressed : public testing::TestWithParam<Unexpressed> {};

TEST_P(UnicodeStringUnexpressed, leavesNoTextAndTheHighestSize) {
    ScopedLocale const locale(GetParam().locale);
    ASSERT_TRUE(locale.isSet());
    EventRecorder const events;
    NewFault const count(New::NOTHROW_ARRAY, 1, 0);
    UnicodeString const narrow(GetParam().text);
    EXPECT_EQ(nullptr, narrow.c_str());
    EXPECT_EQ(FAILED_SIZE, narrow.getSize());
    EXPECT_EQ(nullptr, layoutOf(narrow).data);
    EXPECT_EQ(FAILED_SIZE, layoutOf(narrow).size);
    EXPECT_EQ(2U, layoutOf(narrow).storage);
    UnicodeString const copy(narrow);
    EXPECT_EQ(nullptr, copy.c_str());
    EXPECT_EQ(FAILED_SIZE, copy.getSize());
    EXPECT_EQ(L"", static_cast<std::wstring>(copy));
    EXPECT_EQ(0, count.getCalls());
    EXPECT_EQ(0U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringUnexpressed,
    testing::Values(
        Unexpressed{"C", L"\u00E4"}, Unexpressed{"C", L"abc\u20AC"}, Unexpressed{"C", L"\U0001F5A8z"},
        Unexpressed{"C.UTF-8", std::wstring(1, wchar_t{0xD800})},
        Unexpressed{"C.UTF-8", L"abc" + std::wstring(1, wchar_t{0xDFFF}) + L"d"}));

struct Malformed {
    char const* locale;
    char const* text;
};

void PrintTo(Malformed const& row, std::ostream* out) {
    *out << row.locale << ' ' << testing::PrintToString(row.text);
}

class UnicodeStringMalformed : public testing::TestWithParam<Malformed> {};

TEST_P(UnicodeStringMalformed, givesAnEmptyWideTextWithoutAReport) {
    ScopedLocale const locale(GetParam().locale);
    ASSERT_TRUE(locale.isSet());
    EventRecorder const events;
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString(GetParam().text)));
    EXPECT_EQ(0U, events.getCount());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringMalformed,
    testing::Values(
        Malformed{"C", "\xE4"}, Malformed{"C", "abc\x80"}, Malformed{"C", "\xC3\xA4"},
        Malformed{"C.UTF-8", "\xE4"}, Malformed{"C.UTF-8", "abc\x80"}, Malformed{"C.UTF-8", "abc\xE2\x82"},
        Malformed{"C.UTF-8", "\xC0\xAF"}, Malformed{"C.UTF-8", "\xFFz"}));

TEST(UnicodeString, followsALocaleThatIsNotUTF8) {
    TemporaryDirectory const directory;
    if (!support::buildLatin1(directory.get())) {
        GTEST_SKIP() << "there is no 8-bit locale for this libc";
    }
    ScopedLocale const locale("latin1");
    ASSERT_TRUE(locale.isSet());
    UnicodeString const narrow(std::wstring(L"\u00E4\u00FF!"));
    ASSERT_NE(nullptr, narrow.c_str());
    EXPECT_STREQ("\xE4\xFF!", narrow.c_str());
    EXPECT_EQ(4U, narrow.getSize());
    EXPECT_EQ(L"\u00E4\u00FF!", static_cast<std::wstring>(narrow));
    // Well-formed in UTF-8 is nothing special here.
    EXPECT_EQ(L"\u00C3\u00A4", static_cast<std::wstring>(UnicodeString("\xC3\xA4")));
    UnicodeString const unexpressed(std::wstring(L"\u20AC"));
    EXPECT_EQ(nullptr, unexpressed.c_str());
    EXPECT_EQ(FAILED_SIZE, unexpressed.getSize());
}

TEST(UnicodeString, textEndsAtItsFirstNul) {
    UnicodeString const narrow(std::wstring(L"ab\0cd", 5));
    EXPECT_STREQ("ab", narrow.c_str());
    EXPECT_EQ(3U, narrow.getSize());
    std::string const text("ab\0cd", 5);
    EXPECT_EQ(6U, UnicodeString(text).getSize());
    EXPECT_EQ(L"ab", static_cast<std::wstring>(UnicodeString(text)));
}

// ---- the two passes ----

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

TEST(UnicodeString, wideTextIsConvertedInTwoPassesIntoMemoryOfItsSize) {
    ScopedLocale const locale("C.UTF-8");
    std::wstring const wide = L"\u20AC and more of it";
    Conversions const conversions;
    NewFault const count(New::NOTHROW_ARRAY, 1, 0);
    UnicodeString const narrow(wide);
    EXPECT_EQ((std::vector<size_t>{wide.length() + 3}), count.getSizes());
    expectTwoPasses(conversions.getPasses(), wide.length() + 2);
}

TEST(UnicodeString, narrowTextIsConvertedInTwoPassesIntoMemoryOfItsSize) {
    ScopedLocale const locale("C.UTF-8");
    UnicodeString const narrow("\xE2\x82\xAC and more of it");
    // The passes themselves are recorded elsewhere: a record allocates as well.
    std::vector<size_t> sizes;
    {
        NewFault const count(New::SINGLE, 1, 0);
        std::wstring const wide = narrow;
        sizes = count.getSizes();
        EXPECT_EQ(L"\u20AC and more of it", wide);
    }
    EXPECT_EQ((std::vector<size_t>{17 * sizeof(wchar_t)}), sizes);
    Conversions const conversions;
    std::wstring const wide = narrow;
    expectTwoPasses(conversions.getPasses(), 16);
}

TEST(UnicodeString, whatHasNoTextIsNotConvertedASecondTime) {
    Conversions const conversions;
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString("", 1)));
    EXPECT_EQ(L"", static_cast<std::wstring>(UnicodeString("\xFF", 2)));
    EXPECT_EQ(2U, conversions.getPasses().size());
    UnicodeString const narrow(std::wstring(L"\u20AC"));
    EXPECT_EQ(nullptr, narrow.c_str());
    EXPECT_EQ(3U, conversions.getPasses().size());
}

TEST(UnicodeString, wideConversionWaitsForMemory) {
    EventRecorder const events;
    std::optional<UnicodeString> narrow;
    {
        std::wstring const wide = L"abcdef";
        NewFault const fault(New::NOTHROW_ARRAY, 1, 5);
        narrow.emplace(wide);
        EXPECT_EQ((std::vector<size_t>(6, 7)), fault.getSizes());
    }
    std::string expected;
    for (int i = 0; i < 5; ++i) {
        expected += expected.empty() ? "" : "\n";
        expected += "OUT_OF_MEMORY framework/src/vesk/posix/UnicodeString UnicodeString: "
                    "cannot allocate data for wcs conversion";
    }
    EXPECT_EQ(expected, events.getText());
    EXPECT_STREQ("abcdef", narrow->c_str());
    EXPECT_TRUE(chainIs({}));
}

constexpr char const* NARROW_WARNING = "WARNING framework/src/vesk/posix/UnicodeString UnicodeString: got "
                                       "different result in second call to wide_to_utf8";
constexpr char const* WIDE_WARNING = "WARNING framework/src/vesk/posix/UnicodeString operator "
                                     "std::__cxx11::wstring: second call to utf8_to_wide returned different "
                                     "result";

TEST(UnicodeString, localeThatChangesBetweenThePassesLeavesWhatWasWritten) {
    ScopedLocale const locale("C.UTF-8");
    EventRecorder const events;
    Conversions conversions;
    conversions.before = [](size_t pass) { setlocale(LC_CTYPE, pass == 1 ? "C.UTF-8" : "C"); };
    UnicodeString const narrow(std::wstring(L"ab\u20ACcd"));
    EXPECT_EQ(NARROW_WARNING, events.getText());
    EXPECT_STREQ("ab", narrow.c_str());
    EXPECT_EQ(8U, narrow.getSize());
    EXPECT_EQ(2U, layoutOf(narrow).storage);
    EXPECT_TRUE(chainIs({}));
}

TEST(UnicodeString, textThatGrowsBetweenThePassesIsCutAndTerminated) {
    EventRecorder const events;
    std::wstring wide = L"abc";
    wide.reserve(10);
    Conversions conversions;
    conversions.before = [&wide](size_t pass) {
        if (pass == 2) {
            wide.data()[3] = L'd';
            wide.data()[4] = L'\0';
        }
    };
    UnicodeString const narrow(wide);
    EXPECT_EQ(NARROW_WARNING, events.getText());
    EXPECT_STREQ("abc", narrow.c_str());
    EXPECT_EQ(4U, narrow.getSize());
}

TEST(UnicodeString, textThatShrinksBetweenThePassesIsTheShorterOne) {
    EventRecorder const events;
    std::wstring wide = L"abc";
    Conversions conversions;
    conversions.before = [&wide](size_t pass) {
        if (pass == 2) {
            wide.data()[1] = L'\0';
        }
    };
    UnicodeString const narrow(wide);
    EXPECT_EQ(NARROW_WARNING, events.getText());
    EXPECT_STREQ("a", narrow.c_str());
    EXPECT_EQ(4U, narrow.getSize());
}

TEST(UnicodeString, wideTextOfDifferentPassesStaysAsItStands) {
    struct {
        size_t result;
        char const* what;
    } const rows[] = {{FAILED, "fails"}, {5, "shorter"}, {7, "longer"}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        EventRecorder const events;
        UnicodeString const narrow("abcdef");
        Conversions conversions;
        conversions.change = [&row](size_t pass, size_t result) { return pass == 2 ? row.result : result; };
        EXPECT_EQ(L"abcdef", static_cast<std::wstring>(narrow));
        EXPECT_EQ(WIDE_WARNING, events.getText());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(UnicodeString, narrowTextThatShrinksBetweenThePassesKeepsItsMeasuredLength) {
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

TEST(UnicodeString, whatIsTooLongForItsSizeCountsAsAFailedConversion) {
    EventRecorder const events;
    std::vector<size_t> lengths = {FAILED_SIZE};
    if (sizeof(size_t) > 4) {
        lengths.push_back(static_cast<size_t>(0x100000002ULL));
    }
    for (size_t const length : lengths) {
        Conversions conversions;
        conversions.change = [length](size_t, size_t) { return length; };
        UnicodeString const narrow(std::wstring(L"abc"));
        EXPECT_EQ(nullptr, narrow.c_str());
        EXPECT_EQ(FAILED_SIZE, narrow.getSize());
        EXPECT_EQ(1U, conversions.getPasses().size());
    }
    EXPECT_EQ(0U, events.getCount());
}

} // namespace
