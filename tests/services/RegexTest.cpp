#include "support/ErrnoCases.h"
#include "support/Inject.h"
#include "support/NamedRow.h"
#include "support/RunInThreads.h"

#include <vesk/Regex.h>
#include <vesk/RegexHandle.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <regex.h>
#include <type_traits>

namespace {

int s_flags = 0;   // Of the last regcomp.
int s_frees = 0;   // Calls of regfree.
size_t s_room = 0; // For sub-matches in the last regexec.

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

using namespace support;
using vesk::Regex;
using vesk::RegexHandle;
using vesk::SysErrorId::INVALID_PARAMETER;
using SubMatch = Regex::SubMatch;

constexpr char const* INVALID = "match() was called on invalid object";
constexpr char const* UNFIT = "sub matches requested but regex was not compiled for sub matches";

/// Returns the report of a code of the system.
ExpectedReport reportOf(Regex::ErrorId id, int code) {
    regex_t const nothing{};
    char text[256];
    regerror(code, &nothing, text, sizeof text);
    return {id, rowText(id, text)};
}

/// Makes a report pending.
ExpectedReport reportBefore() {
    std::ErrorOutput("test", 1, true)(INVALID_PARAMETER, "before");
    return {INVALID_PARAMETER, rowText(INVALID_PARAMETER, "before")};
}

static_assert(std::is_base_of_v<RegexHandle, Regex> && sizeof(Regex) == sizeof(RegexHandle));
static_assert(!std::is_copy_constructible_v<Regex> && !std::is_copy_assignable_v<Regex>);
static_assert(!std::is_copy_constructible_v<RegexHandle> && !std::is_copy_assignable_v<RegexHandle>);
static_assert(!std::is_polymorphic_v<Regex>);

TEST(Regex, reportsHaveTheirTextsAndNoParentFamily) {
    EXPECT_EQ("Syntax error in regular expression: x", rowText(Regex::ErrorId::SYNTAX_ERROR, "x"));
    EXPECT_EQ(
        "Memory exhausted in regular expression handling: x", rowText(Regex::ErrorId::OUT_OF_MEMORY, "x"));
    EXPECT_EQ("Error matching regular expression: x", rowText(Regex::ErrorId::MATCH_FAILED, "x"));
    Regex regex;
    EXPECT_EQ(1, regex.compile("(", 0));
    EXPECT_TRUE(std::ErrorStorage::isA(Regex::Error));
    EXPECT_FALSE(std::ErrorStorage::isA(vesk::SysError));
    std::ErrorStorage::ack();
}

TEST(Regex, isNotValidBeforeTheFirstCompile) {
    Regex const regex;
    EXPECT_FALSE(regex.isValid());
    EXPECT_EQ(0u, regex.getSubMatchCount());
}

class RegexFlags : public testing::TestWithParam<std::pair<unsigned int, int>> {};

TEST_P(RegexFlags, becomeTheFlagsOfTheSystem) {
    Regex regex;
    EXPECT_EQ(0, regex.compile("a", GetParam().first));
    EXPECT_EQ(GetParam().second, s_flags);
    EXPECT_TRUE(regex.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexFlags,
    testing::Values(
        std::pair(0u, REG_EXTENDED | REG_NOSUB), std::pair(1u, REG_EXTENDED | REG_NOSUB | REG_ICASE),
        std::pair(2u, REG_EXTENDED), std::pair(3u, REG_EXTENDED | REG_ICASE),
        std::pair(0xFFFFFFFCu, REG_EXTENDED | REG_NOSUB)));

TEST(Regex, flagsHaveTheirNumbers) {
    EXPECT_EQ(1, Regex::IGNORE_CASE);
    EXPECT_EQ(2, Regex::SUB_MATCHES);
}

TEST(Regex, secondCompileFreesTheFirstExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    s_frees = 0;
    EXPECT_EQ(0, regex.compile("b", 0));
    EXPECT_EQ(1, s_frees);
    EXPECT_EQ(1, regex.match("a"));
    EXPECT_EQ(0, regex.match("b"));
}

TEST(Regex, destructorFreesTheExpressionIfThereIsOne) {
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
    EXPECT_EQ(1, s_frees);
}

TEST(Regex, failedCompileDiscardsAnEarlierExpression) {
    for (char const* const pattern : {"(", static_cast<char const*>(nullptr)}) {
        Regex regex;
        ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
        s_frees = 0;
        EXPECT_EQ(1, regex.compile(pattern, Regex::SUB_MATCHES));
        EXPECT_EQ(1, s_frees);
        EXPECT_FALSE(regex.isValid());
        EXPECT_EQ(0u, regex.getSubMatchCount());
        EXPECT_TRUE(
            pattern == nullptr ? isContractBroken("NULL pointer given for pattern")
                               : chainIs({reportOf(Regex::ErrorId::SYNTAX_ERROR, REG_EPAREN)}));
        EXPECT_EQ(-1, regex.match("a"));
        EXPECT_TRUE(isContractBroken(INVALID));
        EXPECT_EQ(0, regex.compile("a", 0));
        EXPECT_EQ(0, regex.match("a"));
        EXPECT_EQ(1, s_frees);
    }
}

class RegexPatterns : public testing::TestWithParam<std::pair<char const*, int>> {};

TEST_P(RegexPatterns, areSyntaxErrors) {
    Regex regex;
    EXPECT_EQ(1, regex.compile(GetParam().first, 0));
    EXPECT_FALSE(regex.isValid());
    EXPECT_TRUE(chainIs({reportOf(Regex::ErrorId::SYNTAX_ERROR, GetParam().second)}));
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexPatterns,
    testing::Values(
        std::pair("(a", REG_EPAREN), std::pair("[a", REG_EBRACK), std::pair("[[:nothing:]]", REG_ECTYPE),
        std::pair("[b-a]", REG_ERANGE), std::pair("a\\", REG_EESCAPE), std::pair("a{2,1}", REG_BADBR),
        std::pair("(a)\\2", REG_ESUBREG), std::pair("(", REG_EPAREN)));

TEST(Regex, syntaxErrorIsReportedOnTopOfPendingReports) {
    ExpectedReport const before = reportBefore();
    Regex regex;
    EXPECT_EQ(1, regex.compile("(", 0));
    EXPECT_TRUE(chainIs({before, reportOf(Regex::ErrorId::SYNTAX_ERROR, REG_EPAREN)}));
}

class RegexMemory : public testing::TestWithParam<int> {};

TEST_P(RegexMemory, exhaustionOpensAChain) {
    reportBefore();
    Regex regex;
    {
        Fault const fault(inject_regcomp, GetParam());
        EXPECT_EQ(1, regex.compile("a", 0));
    }
    EXPECT_TRUE(
        chainIs({std::CommonErrorId::OUT_OF_MEMORY, reportOf(Regex::ErrorId::OUT_OF_MEMORY, GetParam())}));
    EXPECT_FALSE(regex.isValid());
}

INSTANTIATE_TEST_SUITE_P(All, RegexMemory, testing::Values(REG_ESPACE, REG_ESIZE));

TEST(Regex, expressionTooLargeForTheSystemIsExhaustion) {
    Regex regex;
    EXPECT_EQ(1, regex.compile("a{40000}", 0));
    EXPECT_TRUE(chainIs({std::CommonErrorId::OUT_OF_MEMORY, Regex::ErrorId::OUT_OF_MEMORY}));
}

struct MatchRow : NamedRow {
    char const* pattern;
    unsigned int flags;
    char const* subject;
    int result;
};

class RegexMatch : public testing::TestWithParam<MatchRow> {};

TEST_P(RegexMatch, returnsWhetherTheSubjectMatchesAndReportsNothing) {
    Regex regex;
    ASSERT_EQ(0, regex.compile(GetParam().pattern, GetParam().flags));
    EXPECT_EQ(GetParam().result, regex.match(GetParam().subject));
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexMatch,
    rowsOf<MatchRow>({
        {"match", "^a+b$", 0, "aaab", 0},
        {"noMatch", "^a+b$", 0, "aaabc", 1},
        {"emptySubject", "^a+b$", 0, "", 1},
        {"emptyPatternAndSubject", "", 0, "", 0},
        {"emptyPattern", "", 0, "abc", 0},
        {"otherCase", "Abc", 0, "aBC", 1},
        {"ignoredCase", "Abc", Regex::IGNORE_CASE, "aBC", 0},
    }),
    byName);

struct SubMatchRow : NamedRow {
    char const* pattern;
    char const* subject;
    unsigned int count; ///< Sub-matches of the expression.
    /// "position+length text" of each requested sub-match, "" for one that is not set.
    std::vector<std::string> found;
};

class RegexSubMatches : public testing::TestWithParam<SubMatchRow> {};

TEST_P(RegexSubMatches, haveTheirPositionLengthAndText) {
    auto const& row = GetParam();
    Regex regex;
    ASSERT_EQ(0, regex.compile(row.pattern, Regex::SUB_MATCHES));
    EXPECT_EQ(row.count, regex.getSubMatchCount());
    std::vector<SubMatch> matches(row.found.size());
    ASSERT_EQ(0, regex.match(row.subject, matches.data(), static_cast<unsigned int>(matches.size())));
    std::vector<std::string> found;
    for (SubMatch const& match : matches) {
        std::string const text(match.in(row.subject));
        std::string const place =
            std::to_string(match.getPosition()) + "+" + std::to_string(match.getLength());
        found.push_back(match.isSet() ? place + " " + text : text);
        EXPECT_EQ(match.isSet(), match.in(row.subject).data() != nullptr);
    }
    EXPECT_EQ(row.found, found);
}

INSTANTIATE_TEST_SUITE_P(
    All, RegexSubMatches,
    rowsOf<SubMatchRow>({
        {"all", "v([0-9]+)\\.([0-9]+)", "lib v12.345 beta", 3, {"4+7 v12.345", "5+2 12", "8+3 345"}},
        {"empty", "a(b*)c", "xac", 2, {"1+2 ac", "2+0 "}},
        {"otherAlternativeIsNotSet", "(a)|(b)", "b", 3, {"0+1 b", "", "0+1 b"}},
        {"moreThanTheExpressionHas", "b", "abc", 1, {"1+1 b", "", "", ""}},
        {"fewerThanTheExpressionHas", "(a)(b)(c)", "abc", 4, {"0+3 abc", "0+1 a"}},
    }),
    byName);

TEST(Regex, onlyRequestedSubMatchesAreSet) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)(b)(c)", Regex::SUB_MATCHES));
    SubMatch found[3];
    ASSERT_EQ(0, regex.match("abc", found, 2));
    EXPECT_EQ(2u, s_room);
    EXPECT_TRUE(found[0].isSet() && found[1].isSet());
    EXPECT_FALSE(found[2].isSet());
    EXPECT_EQ(1, regex.match("b", found));
    EXPECT_FALSE(found[0].isSet() || found[1].isSet()) << "those of the earlier match are cleared";
    EXPECT_TRUE(chainIs({}));
}

TEST(Regex, newSubMatchIsNotSet) {
    SubMatch const nothing;
    EXPECT_FALSE(nothing.isSet());
    EXPECT_EQ("", nothing.in("abc"));
}

TEST(Regex, subMatchesAreRefusedIfTheExpressionWasCompiledWithoutThem) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)", Regex::IGNORE_CASE));
    EXPECT_EQ(0u, regex.getSubMatchCount());
    SubMatch found[2];
    Fault const fault(inject_regexec, 0);
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_EQ(0, fault.getCalls());
    EXPECT_TRUE(isContractBroken(UNFIT));
    EXPECT_FALSE(found[0].isSet());
    EXPECT_EQ(0, regex.match("a")) << "the expression stays usable";
}

TEST(Regex, zeroSubMatchesAreAlwaysAccepted) {
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

TEST(Regex, matchWithoutAnExpressionFails) {
    Regex const regex;
    Fault const fault(inject_regexec, 0);
    EXPECT_EQ(-1, regex.match("a"));
    EXPECT_TRUE(isContractBroken(INVALID));
    SubMatch found[2];
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_TRUE(isContractBroken(INVALID));
    EXPECT_EQ(0, fault.getCalls());
}

TEST(Regex, matchOfNullFails) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", 0));
    EXPECT_EQ(-1, regex.match(nullptr));
    EXPECT_TRUE(isContractBroken("NULL pointer given for subject"));
}

class RegexCodes : public testing::TestWithParam<int> {};

TEST_P(RegexCodes, failedMatchIsReported) {
    reportBefore();
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)", Regex::SUB_MATCHES));
    SubMatch found[2];
    ASSERT_EQ(0, regex.match("a", found));
    Fault const fault(inject_regexec, GetParam(), 1, 2);
    EXPECT_EQ(-1, regex.match("a"));
    EXPECT_TRUE(chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, GetParam())}));
    EXPECT_EQ(-1, regex.match("a", found));
    EXPECT_TRUE(chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, GetParam())}));
    EXPECT_FALSE(found[0].isSet());
    EXPECT_EQ(0, regex.match("a"));
}

INSTANTIATE_TEST_SUITE_P(All, RegexCodes, testing::Values(REG_ESPACE, REG_ESIZE, REG_BADPAT, REG_EPAREN));

TEST(Regex, objectCanBeUsedByManyThreads) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("([a-z]+)=([0-9]+)", Regex::SUB_MATCHES));
    runInThreads(4, [&regex](int number) {
        std::string const subject = "key=" + std::to_string(number);
        for (int round = 0; round < 100; ++round) {
            SubMatch found[3];
            EXPECT_EQ(0, regex.match(subject.c_str(), found));
            EXPECT_EQ(std::to_string(number), found[2].in(subject.c_str()));
        }
    });
}

/// Expects the report of a failed match.
void expectMatchError(RegexHandle const& handle, bool sub_matches_wanted, char const* misuse) {
    EXPECT_EQ(-1, handle.handleMatchError(REG_ESPACE, sub_matches_wanted));
    EXPECT_TRUE(
        misuse != nullptr ? isContractBroken(misuse)
                          : chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, REG_ESPACE)}));
}

TEST(RegexHandle, matchErrorsDependOnTheFlagsOfTheExpression) {
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
    expectMatchError(regex, false, nullptr);
    expectMatchError(regex, true, nullptr);
    ASSERT_EQ(0, regex.compile("a", 0));
    expectMatchError(regex, false, nullptr);
    expectMatchError(regex, true, UNFIT);
}

TEST(RegexHandle, matchErrorWithoutAnExpressionIsABrokenContract) {
    RegexHandle const handle;
    EXPECT_FALSE(handle.isValid());
    expectMatchError(handle, false, INVALID);
    expectMatchError(handle, true, INVALID);
}

} // namespace
