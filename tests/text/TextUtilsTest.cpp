#include "support/Testing.h"

#include <vesk/ProcessTNG.h>
#include <vesk/TextUtils.h>

#include <sys/mman.h>

namespace {

static_assert(std::is_same_v<decltype(vesk::strnlen("", 0U)), unsigned int>);
static_assert(std::is_same_v<decltype(vesk::wcsnlen(L"", 0U)), unsigned int>);
static_assert(std::is_same_v<decltype(vesk::getPathLiteral<char>()), char const*>);
static_assert(std::is_same_v<decltype(vesk::getPathLiteral<wchar_t>()), wchar_t const*>);

TEST(TextUtils, lengthEndsAtTheNulOrTheLimit) {
    EXPECT_EQ(0U, vesk::strnlen("", 10));
    EXPECT_EQ(3U, vesk::strnlen("abc", 10));
    EXPECT_EQ(3U, vesk::strnlen("abc", 4));
    EXPECT_EQ(3U, vesk::strnlen("abc", 3));
    EXPECT_EQ(2U, vesk::strnlen("abc", 2));
    EXPECT_EQ(0U, vesk::strnlen("abc", 0));
    EXPECT_EQ(1U, vesk::strnlen("a\0b", 3));
    EXPECT_EQ(3U, vesk::strnlen("abc", UINT_MAX));
    EXPECT_EQ(0U, vesk::wcsnlen(L"", 10));
    EXPECT_EQ(3U, vesk::wcsnlen(L"a\u20ACc", 10));
    EXPECT_EQ(3U, vesk::wcsnlen(L"abc", 3));
    EXPECT_EQ(2U, vesk::wcsnlen(L"abc", 2));
    EXPECT_EQ(0U, vesk::wcsnlen(L"abc", 0));
    EXPECT_EQ(1U, vesk::wcsnlen(L"a\0b", 3));
    EXPECT_EQ(3U, vesk::wcsnlen(L"abc", UINT_MAX >> 3));
}

TEST(TextUtils, lengthReadsNothingBeyondTheLimit) {
    // The page behind the text cannot be read.
    auto const page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    auto* const end = static_cast<char*>(memory) + page;
    ASSERT_EQ(0, mprotect(end, page, PROT_NONE));
    memset(memory, 'x', page);
    EXPECT_EQ(5U, vesk::strnlen(end - 5, 5));
    wchar_t const* const wide = reinterpret_cast<wchar_t const*>(end) - 3;
    EXPECT_EQ(3U, vesk::wcsnlen(wide, 3));
    EXPECT_EQ(0, munmap(memory, 2 * page));
}

/// Initialized before main.
std::string const s_early = std::string("x") + vesk::ProcessTNG::ExecutableSuffix;

TEST(TextUtils, executablesHaveNoSuffixAndTheVariableOfTheirFoldersItsName) {
    EXPECT_STREQ("", vesk::ProcessTNG::ExecutableSuffix);
    EXPECT_EQ("", vesk::getExecutableSuffix<std::string>());
    EXPECT_EQ(L"", vesk::getExecutableSuffix<std::wstring>());
    EXPECT_EQ("x", s_early) << "the suffix is initialized before global objects";
    EXPECT_STREQ("PATH", vesk::getPathLiteral<char>());
    EXPECT_STREQ(L"PATH", vesk::getPathLiteral<wchar_t>());
}

} // namespace
