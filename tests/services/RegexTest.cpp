#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/Regex.h>
#include <vesk/RegexHandle.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <regex.h>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

int s_flags = 0;   // Of the last regcomp.
int s_frees = 0;   // Calls of regfree.
size_t s_room = 0; // How many sub-matches the last regexec was to find.

} // namespace

support::Injected inject_regcomp("regcomp");
extern "C" VESK_UNWATCHED int regcomp(regex_t* preg, char const* pattern, int flags) {
    s_flags = flags;
    int error = 0;
    if (inject_regcomp.fails(error)) {
        return error;
    }
    return reinterpret_cast<int (*)(regex_t*, char const*, int)>(inject_regcomp.getReal())(
        preg, pattern, flags);
}

support::Injected inject_regexec("regexec");
extern "C" VESK_UNWATCHED int
regexec(regex_t const* preg, char const* text, size_t count, regmatch_t* found, int flags) {
    int error = 0;
    if (inject_regexec.fails(error)) {
        return error;
    }
    s_room = count;
    return reinterpret_cast<int (*)(regex_t const*, char const*, size_t, regmatch_t*, int)>(
        inject_regexec.getReal())(preg, text, count, found, flags);
}

support::Injected inject_regfree("regfree");
extern "C" VESK_UNWATCHED void regfree(regex_t* preg) {
    ++s_frees;
    reinterpret_cast<void (*)(regex_t*)>(inject_regfree.getReal())(preg);
}

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::Fault;
using support::rowText;
using vesk::Regex;
using vesk::RegexHandle;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using SubMatch = Regex::SubMatch;

constexpr char const* INVALID = "match() was called on invalid object";
constexpr char const* UNFIT = "sub matches requested but regex was not compiled for sub matches";

support::ExpectedReport misuse(char const* text) {
    return {CommonError, CommonErrorId::CONTRACT_BROKEN, rowText(CommonErrorId::CONTRACT_BROKEN, text)};
}

/// The system's text for a code.
std::string codeText(int code) {
    regex_t const nothing{};
    char text[256];
    regerror(code, &nothing, text, sizeof text);
    return text;
}

support::ExpectedReport reportOf(int id, int code) {
    return {Regex::Error, id, rowText(Regex::Error, id, codeText(code))};
}

// ---- what it is ----

TEST(Regex, ownsItsExpressionAlone) {
    static_assert(std::is_base_of_v<RegexHandle, Regex> && sizeof(Regex) == sizeof(RegexHandle));
    static_assert(!std::is_copy_constructible_v<Regex> && !std::is_copy_assignable_v<Regex>);
    static_assert(!std::is_copy_constructible_v<RegexHandle> && !std::is_copy_assignable_v<RegexHandle>);
    static_assert(!std::is_polymorphic_v<Regex>);
}

TEST(Regex, rowsOfItsFamilyWhichHasNoParent) {
    EXPECT_EQ("Syntax error in regular expression: x", rowText(Regex::ErrorId::SYNTAX_ERROR, "x"));
    EXPECT_EQ(
        "Memory exhausted in regular expression handling: x", rowText(Regex::ErrorId::OUT_OF_MEMORY, "x"));
    EXPECT_EQ("Error matching regular expression: x", rowText(Regex::ErrorId::MATCH_FAILED, "x"));
    Regex regex;
    EXPECT_EQ(1, regex.compile("(", 0));
    EXPECT_TRUE(std::ErrorStorage::isA(Regex::Error));
    EXPECT_FALSE(std::ErrorStorage::isA(SysError));
    std::ErrorStorage::ack();
}

// ---- compiling ----

TEST(Regex, isNotValidBeforeItIsCompiled) {
    Regex const regex;
    EXPECT_FALSE(regex.isValid());
    EXPECT_EQ(0u, regex.getSubMatchCount());
}

struct FlagsRow {
    unsigned int flags;
    int system_flags;
};

void PrintTo(FlagsRow const& row, std::ostream* out) {
    *out << row.flags;
}

class RegexFlags : public testing::TestWithParam<FlagsRow> {};

TEST_P(RegexFlags, becomeTheSystems) {
    Regex regex;
    EXPECT_EQ(0, regex.compile("a", GetParam().flags));
    EXPECT_EQ(GetParam().system_flags, s_flags);
    EXPECT_TRUE(regex.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexFlags,
    testing::Values(
        FlagsRow{0, REG_EXTENDED | REG_NOSUB}, FlagsRow{1, REG_EXTENDED | REG_NOSUB | REG_ICASE},
        FlagsRow{2, REG_EXTENDED}, FlagsRow{3, REG_EXTENDED | REG_ICASE},
        FlagsRow{0xFFFFFFFC, REG_EXTENDED | REG_NOSUB}));

TEST(Regex, flagsHaveTheirNumbers) {
    EXPECT_EQ(1, Regex::IGNORE_CASE);
    EXPECT_EQ(2, Regex::SUB_MATCHES);
}

TEST(Regex, compilingTwiceFreesTheFirstExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    s_frees = 0;
    EXPECT_EQ(0, regex.compile("b", 0));
    EXPECT_EQ(1, s_frees);
    EXPECT_EQ(1, regex.match("a"));
    EXPECT_EQ(0, regex.match("b"));
}

TEST(Regex, endFreesTheExpression) {
    s_frees = 0;
    {
        Regex regex;
        ASSERT_EQ(0, regex.compile("a", 0));
    }
    EXPECT_EQ(1, s_frees);
    {
        Regex const nothing;
        Regex failed;
        EXPECT_EQ(1, failed.compile("(", 0));
        std::ErrorStorage::ack();
    }
    EXPECT_EQ(1, s_frees) << "without an expression there is nothing to free";
}

TEST(Regex, compilingThatFailsLeavesNothingToMatch) {
    Regex regex;
    EXPECT_EQ(1, regex.compile("(", 0));
    EXPECT_FALSE(regex.isValid());
    EXPECT_TRUE(chainIs({reportOf(0, REG_EPAREN)}));
}

TEST(Regex, compilingThatFailsLeavesNothingOfAnEarlierExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
    s_frees = 0;
    EXPECT_EQ(1, regex.compile("(", Regex::SUB_MATCHES));
    EXPECT_EQ(1, s_frees);
    EXPECT_FALSE(regex.isValid());
    EXPECT_EQ(0u, regex.getSubMatchCount());
    std::ErrorStorage::ack();
    EXPECT_EQ(-1, regex.match("a"));
    EXPECT_TRUE(chainIs({misuse(INVALID)}));
    EXPECT_EQ(0, regex.compile("a", 0));
    EXPECT_EQ(0, regex.match("a"));
    EXPECT_EQ(1, s_frees);
}

struct PatternRow {
    char const* pattern;
    int code;
};

void PrintTo(PatternRow const& row, std::ostream* out) {
    *out << row.pattern;
}

class RegexPatterns : public testing::TestWithParam<PatternRow> {};

TEST_P(RegexPatterns, areWrong) {
    Regex regex;
    EXPECT_EQ(1, regex.compile(GetParam().pattern, 0));
    EXPECT_TRUE(chainIs({reportOf(0, GetParam().code)}));
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexPatterns,
    testing::Values(
        PatternRow{"(a", REG_EPAREN}, PatternRow{"[a", REG_EBRACK}, PatternRow{"[[:nothing:]]", REG_ECTYPE},
        PatternRow{"[b-a]", REG_ERANGE}, PatternRow{"a\\", REG_EESCAPE}, PatternRow{"a{2,1}", REG_BADBR},
        PatternRow{"(a)\\2", REG_ESUBREG}));

TEST(Regex, wrongExpressionIsReportedOnTopOfWhatIsPending) {
    std::ErrorOutput("test", 1, true)(SysErrorId::INVALID_PARAMETER, "before");
    Regex regex;
    EXPECT_EQ(1, regex.compile("(", 0));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, "before")},
         reportOf(0, REG_EPAREN)}));
}

class RegexMemory : public testing::TestWithParam<int> {};

TEST_P(RegexMemory, exhaustionHasReportsOfItsOwn) {
    std::ErrorOutput("test", 1, true)(SysErrorId::INVALID_PARAMETER, "before");
    Regex regex;
    {
        Fault const fault(inject_regcomp, GetParam());
        EXPECT_EQ(1, regex.compile("a", 0));
    }
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}, reportOf(1, GetParam())}));
    EXPECT_FALSE(regex.isValid());
}

INSTANTIATE_TEST_SUITE_P(All, RegexMemory, testing::Values(REG_ESPACE, REG_ESIZE));

TEST(Regex, expressionTooLargeForTheSystemIsExhaustion) {
    Regex regex;
    EXPECT_EQ(1, regex.compile("a{40000}", 0));
    EXPECT_TRUE(std::ErrorStorage::isA(Regex::Error));
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}, {Regex::Error, Regex::ErrorId::OUT_OF_MEMORY}}));
}

TEST(Regex, compilingNullFailsAndLeavesNothingOfAnEarlierExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    s_frees = 0;
    EXPECT_EQ(1, regex.compile(nullptr, 0));
    EXPECT_EQ(1, s_frees);
    EXPECT_FALSE(regex.isValid());
    EXPECT_TRUE(chainIs({misuse("NULL pointer given for pattern")}));
}

// ---- matching ----

TEST(Regex, tellsWhetherItMatches) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("^a+b$", 0));
    EXPECT_EQ(0, regex.match("aaab"));
    EXPECT_EQ(1, regex.match("aaabc"));
    EXPECT_EQ(1, regex.match(""));
    EXPECT_TRUE(chainIs({})) << "no match is an ordinary answer";
}

TEST(Regex, emptyExpressionMatchesEverything) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("", 0));
    EXPECT_EQ(0, regex.match(""));
    EXPECT_EQ(0, regex.match("abc"));
}

TEST(Regex, caseCountsUnlessItIsIgnored) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("Abc", 0));
    EXPECT_EQ(1, regex.match("aBC"));
    ASSERT_EQ(0, regex.compile("Abc", Regex::IGNORE_CASE));
    EXPECT_EQ(0, regex.match("aBC"));
}

TEST(Regex, tellsWhatMatchedWhere) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("v([0-9]+)\\.([0-9]+)", Regex::SUB_MATCHES));
    EXPECT_EQ(3u, regex.getSubMatchCount());
    char const* const subject = "lib v12.345 beta";
    SubMatch found[3];
    ASSERT_EQ(0, regex.match(subject, found));
    EXPECT_TRUE(found[0].isSet() && found[1].isSet() && found[2].isSet());
    EXPECT_EQ(4u, found[0].getPosition());
    EXPECT_EQ(7u, found[0].getLength());
    EXPECT_EQ(5u, found[1].getPosition());
    EXPECT_EQ(2u, found[1].getLength());
    EXPECT_EQ(8u, found[2].getPosition());
    EXPECT_EQ(3u, found[2].getLength());
    EXPECT_EQ("v12.345", found[0].in(subject));
    EXPECT_EQ("12", found[1].in(subject));
    EXPECT_EQ("345", found[2].in(subject));
}

TEST(Regex, emptySubMatchIsSet) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a(b*)c", Regex::SUB_MATCHES));
    SubMatch found[2];
    ASSERT_EQ(0, regex.match("xac", found));
    EXPECT_TRUE(found[1].isSet());
    EXPECT_EQ(2u, found[1].getPosition());
    EXPECT_EQ(0u, found[1].getLength());
    EXPECT_EQ("", found[1].in("xac"));
}

TEST(Regex, partThatTookNoPartIsNotSet) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)|(b)", Regex::SUB_MATCHES));
    SubMatch found[3];
    ASSERT_EQ(0, regex.match("b", found));
    EXPECT_TRUE(found[0].isSet());
    EXPECT_FALSE(found[1].isSet());
    EXPECT_EQ(nullptr, found[1].in("b").data());
    EXPECT_TRUE(found[2].isSet());
}

TEST(Regex, subMatchesThatTheExpressionDoesNotHaveAreNotSet) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("b", Regex::SUB_MATCHES));
    EXPECT_EQ(1u, regex.getSubMatchCount());
    SubMatch found[4];
    ASSERT_EQ(0, regex.match("abc", found));
    EXPECT_EQ(1u, found[0].getPosition());
    EXPECT_FALSE(found[1].isSet() || found[2].isSet() || found[3].isSet());
}

TEST(Regex, fewerSubMatchesThanTheExpressionHasMayBeWanted) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)(b)(c)", Regex::SUB_MATCHES));
    std::vector<SubMatch> found(3);
    ASSERT_EQ(0, regex.match("abc", found.data(), 2));
    EXPECT_EQ(2u, s_room);
    EXPECT_TRUE(found[0].isSet() && found[1].isSet());
    EXPECT_FALSE(found[2].isSet());
}

TEST(Regex, subMatchesOfAnEarlierMatchAreGoneWhenNothingMatches) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)", Regex::SUB_MATCHES));
    SubMatch found[2];
    ASSERT_EQ(0, regex.match("a", found));
    EXPECT_EQ(1, regex.match("b", found));
    EXPECT_FALSE(found[0].isSet() || found[1].isSet());
    EXPECT_TRUE(chainIs({}));
}

TEST(Regex, freshSubMatchIsNotSet) {
    SubMatch const nothing;
    EXPECT_FALSE(nothing.isSet());
    EXPECT_EQ("", nothing.in("abc"));
}

TEST(Regex, withoutSubMatchesTheyCannotBeHad) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)", Regex::IGNORE_CASE));
    EXPECT_EQ(0u, regex.getSubMatchCount());
    SubMatch found[2];
    Fault const fault(inject_regexec, 0);
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_TRUE(chainIs({misuse(UNFIT)}));
    EXPECT_FALSE(found[0].isSet());
    EXPECT_EQ(0, regex.match("a")) << "it is as good as before for all else";
}

TEST(Regex, noneWantedIsAlwaysPossible) {
    Regex regex;
    for (unsigned int const flags : {0U, 2U}) {
        ASSERT_EQ(0, regex.compile("(a)", flags));
        SubMatch found;
        EXPECT_EQ(0, regex.match("a", &found, 0));
        EXPECT_EQ(0u, s_room);
        EXPECT_FALSE(found.isSet());
        EXPECT_EQ(0, regex.match("a", nullptr, 5));
        EXPECT_EQ(0u, s_room);
    }
}

TEST(Regex, matchingWithoutAnExpressionFails) {
    Regex const regex;
    Fault const fault(inject_regexec, 0);
    EXPECT_EQ(-1, regex.match("a"));
    EXPECT_TRUE(chainIs({misuse(INVALID)}));
    SubMatch found[2];
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_TRUE(chainIs({misuse(INVALID)}));
    EXPECT_EQ(0, fault.getCalls());
}

TEST(Regex, matchingNullFails) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    EXPECT_EQ(-1, regex.match(nullptr));
    EXPECT_TRUE(chainIs({misuse("NULL pointer given for subject")}));
}

class RegexCodes : public testing::TestWithParam<int> {};

TEST_P(RegexCodes, ofMatchingAreReported) {
    std::ErrorOutput("test", 1, true)(SysErrorId::INVALID_PARAMETER, "before");
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)", Regex::SUB_MATCHES));
    SubMatch found[2];
    ASSERT_EQ(0, regex.match("a", found));
    Fault const fault(inject_regexec, GetParam(), 1, 2);
    EXPECT_EQ(-1, regex.match("a"));
    EXPECT_TRUE(chainIs({reportOf(2, GetParam())}));
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_TRUE(chainIs({reportOf(2, GetParam())}));
    EXPECT_FALSE(found[0].isSet());
    EXPECT_EQ(0, regex.match("a"));
}

INSTANTIATE_TEST_SUITE_P(All, RegexCodes, testing::Values(REG_ESPACE, REG_ESIZE, REG_BADPAT, REG_EPAREN));

TEST(Regex, threadsMayMatchWithOneObject) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("([a-z]+)=([0-9]+)", Regex::SUB_MATCHES));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&regex, i] {
            std::string const subject = "key=" + std::to_string(i);
            for (int round = 0; round < 100; ++round) {
                SubMatch found[3];
                EXPECT_EQ(0, regex.match(subject.c_str(), found));
                EXPECT_EQ(std::to_string(i), found[2].in(subject.c_str()));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- what a failed match means ----

TEST(RegexHandle, handlesAFailureOfAFitExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
    EXPECT_EQ(-1, regex.handleMatchError(REG_ESPACE, false));
    EXPECT_TRUE(chainIs({reportOf(2, REG_ESPACE)}));
    EXPECT_EQ(-1, regex.handleMatchError(REG_ESPACE, true));
    EXPECT_TRUE(chainIs({reportOf(2, REG_ESPACE)}));
}

TEST(RegexHandle, handlesAnExpressionWithoutSubMatches) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    EXPECT_EQ(-1, regex.handleMatchError(REG_ESPACE, false));
    EXPECT_TRUE(chainIs({reportOf(2, REG_ESPACE)}));
    EXPECT_EQ(-1, regex.handleMatchError(REG_ESPACE, true));
    EXPECT_TRUE(chainIs({misuse(UNFIT)}));
}

TEST(RegexHandle, handlesTheLackOfAnExpression) {
    RegexHandle const handle;
    EXPECT_FALSE(handle.isValid());
    for (bool const sub_matches_wanted : {false, true}) {
        EXPECT_EQ(-1, handle.handleMatchError(REG_ESPACE, sub_matches_wanted));
        EXPECT_TRUE(chainIs({misuse(INVALID)}));
    }
}

} // namespace
