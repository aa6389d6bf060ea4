#include "support/CleanEnd.h"
#include "support/Testing.h"

#include <vesk/Regex.h>
#include <vesk/RegexHandle.h>

#include <regex.h>

namespace {

int s_flags = 0;   // Of the last regcomp.
int s_frees = 0;   // Calls of regfree.
size_t s_room = 0; // For sub-matches in the last regexec.

} // namespace

VESK_INJECT(
    int, return error, regcomp, (regex_t * preg, char const* pattern, int flags), (preg, pattern, flags),
    s_flags = flags)
VESK_INJECT(
    int, return error, regexec,
    (regex_t const* preg, char const* text, size_t count, regmatch_t* found, int flags),
    (preg, text, count, found, flags), s_room = count)
VESK_INJECT(void, , regfree, (regex_t * preg), (preg), ++s_frees)

namespace {

using namespace support;
using vesk::Regex;
using vesk::RegexHandle;
using vesk::SysErrorId::INVALID_PARAMETER;
using SubMatch = Regex::SubMatch;
constexpr unsigned int SUB = Regex::SUB_MATCHES;

constexpr char const* INVALID = "match() was called on invalid object";
constexpr char const* UNFIT = "sub matches requested but regex was not compiled for sub matches";

/// Returns the report of a code of the system, with any text if the code is 0.
ExpectedReport reportOf(Regex::ErrorId id, int code) {
    regex_t const nothing{};
    char text[256];
    regerror(code, &nothing, text, sizeof text);
    return code == 0 ? ExpectedReport(id) : ExpectedReport(id, rowText(id, text));
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
static_assert(Regex::IGNORE_CASE == 1 && Regex::SUB_MATCHES == 2);

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

TEST(Regex, flagsBecomeThoseOfTheSystem) {
    for (auto const& [flags, system_flags] :
         {std::pair(0u, REG_EXTENDED | REG_NOSUB),
          {1u, REG_EXTENDED | REG_NOSUB | REG_ICASE},
          {2u, REG_EXTENDED},
          {3u, REG_EXTENDED | REG_ICASE},
          {0xFFFFFFFCu, REG_EXTENDED | REG_NOSUB}}) {
        Regex regex;
        EXPECT_EQ(0, regex.compile("a", flags));
        EXPECT_EQ(system_flags, s_flags) << flags;
        EXPECT_TRUE(regex.isValid()) << flags;
    }
}

TEST(Regex, freesEachExpressionOnce) {
    s_frees = 0;
    {
        Regex regex;
        EXPECT_FALSE(regex.isValid());
        EXPECT_EQ(0u, regex.getSubMatchCount());
        ASSERT_EQ(0, regex.compile("a", 0));
        EXPECT_EQ(0, s_frees);
        EXPECT_EQ(0, regex.compile("b", 0));
        EXPECT_EQ(1, s_frees);
        EXPECT_EQ(1, regex.match("a"));
        EXPECT_EQ(0, regex.match("b"));
        Regex const nothing;
    }
    EXPECT_EQ(2, s_frees);
}

struct CompileRow : NamedRow {
    char const* pattern;
    std::vector<ExpectedReport> reports;
    int fault = 0; ///< Of regcomp.
};

std::vector<ExpectedReport> syntaxError(int code) {
    return {reportOf(Regex::ErrorId::SYNTAX_ERROR, code)};
}
std::vector<ExpectedReport> exhaustion(int code) {
    return {std::CommonErrorId::OUT_OF_MEMORY, reportOf(Regex::ErrorId::OUT_OF_MEMORY, code)};
}

CompileRow const FAILED_COMPILES[] = {
    {"null", nullptr, {contractBroken("NULL pointer given for pattern")}},
    {"openGroup", "(", syntaxError(REG_EPAREN)},
    {"openGroupWithALetter", "(a", syntaxError(REG_EPAREN)},
    {"openBracket", "[a", syntaxError(REG_EBRACK)},
    {"unknownClass", "[[:nothing:]]", syntaxError(REG_ECTYPE)},
    {"wrongRange", "[b-a]", syntaxError(REG_ERANGE)},
    {"backslashAtTheEnd", "a\\", syntaxError(REG_EESCAPE)},
    {"wrongCount", "a{2,1}", syntaxError(REG_BADBR)},
    {"wrongReference", "(a)\\2", syntaxError(REG_ESUBREG)},
    {"tooLargeForTheSystem", "a{40000}", exhaustion(0)},
    {"noSpace", "a", exhaustion(REG_ESPACE), REG_ESPACE},
    {"size", "a", exhaustion(REG_ESIZE), REG_ESIZE},
};

VESK_TEST_TABLE(
    RegexFailedCompile, isReportedAndDiscardsAnEarlierExpression, testing::Test, FAILED_COMPILES) {
    for (bool const pending : {false, true}) {
        SCOPED_TRACE(pending);
        Regex regex;
        ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
        s_frees = 0;
        std::vector<ExpectedReport> reports = GetParam().reports;
        if (pending) {
            ExpectedReport const before = reportBefore();
            if (reports[0].family == &Regex::Error) {
                reports.insert(reports.begin(), before); // A syntax error is reported on top.
            }
        }
        {
            Fault const fault(inject_regcomp, GetParam().fault);
            EXPECT_EQ(1, regex.compile(GetParam().pattern, Regex::SUB_MATCHES));
        }
        EXPECT_TRUE(chainIs(reports));
        EXPECT_EQ(1, s_frees);
        EXPECT_FALSE(regex.isValid());
        EXPECT_EQ(0u, regex.getSubMatchCount());
        EXPECT_EQ(-1, regex.match("a"));
        EXPECT_TRUE(isContractBroken(INVALID));
        EXPECT_EQ(0, regex.compile("a", 0));
        EXPECT_EQ(0, regex.match("a"));
        EXPECT_EQ(1, s_frees);
    }
}

struct MatchRow : NamedRow {
    char const* pattern;
    unsigned int flags;
    char const* subject;
    int result;
    unsigned int count = 0; ///< Sub-matches of the expression.
    /// "position+length text" of each requested sub-match, "" for one that is not set.
    std::vector<std::string> found = {};
};

std::vector<std::string> const VERSION = {"4+7 v12.345", "5+2 12", "8+3 345"};

MatchRow const MATCHES[] = {
    {"match", "^a+b$", 0, "aaab", 0},
    {"noMatch", "^a+b$", 0, "aaabc", 1},
    {"emptySubject", "^a+b$", 0, "", 1},
    {"emptyPatternAndSubject", "", 0, "", 0},
    {"emptyPattern", "", 0, "abc", 0},
    {"otherCase", "Abc", 0, "aBC", 1},
    {"ignoredCase", "Abc", Regex::IGNORE_CASE, "aBC", 0},
    {"allSubMatches", "v([0-9]+)\\.([0-9]+)", SUB, "lib v12.345 beta", 0, 3, VERSION},
    {"emptySubMatch", "a(b*)c", SUB, "xac", 0, 2, {"1+2 ac", "2+0 "}},
    {"otherAlternativeIsNotSet", "(a)|(b)", SUB, "b", 0, 3, {"0+1 b", "", "0+1 b"}},
    {"moreThanTheExpressionHas", "b", SUB, "abc", 0, 1, {"1+1 b", "", "", ""}},
    {"fewerThanTheExpressionHas", "(a)(b)(c)", SUB, "abc", 0, 4, {"0+3 abc", "0+1 a"}},
    {"noSubMatches", "(a)", SUB, "a", 0, 2},
    {"noSubMatchesWithoutTheFlag", "(a)", 0, "a", 0},
};

VESK_TEST_TABLE(
    RegexMatch, returnsWhetherTheSubjectMatchesAndSetsTheRequestedSubMatches, testing::Test, MATCHES) {
    auto const& row = GetParam();
    Regex regex;
    ASSERT_EQ(0, regex.compile(row.pattern, row.flags));
    EXPECT_EQ(row.count, regex.getSubMatchCount());
    std::vector<SubMatch> matches(row.found.size() + 1);
    EXPECT_EQ(
        row.result, regex.match(row.subject, matches.data(), static_cast<unsigned int>(row.found.size())));
    EXPECT_EQ(row.found.size(), s_room);
    EXPECT_FALSE(matches.back().isSet()) << "not requested";
    matches.pop_back();
    std::vector<std::string> found;
    for (SubMatch const& match : matches) {
        std::string const text(match.in(row.subject));
        std::string const place =
            std::to_string(match.getPosition()) + "+" + std::to_string(match.getLength());
        found.push_back(match.isSet() ? place + " " + text : text);
        EXPECT_EQ(match.isSet(), match.in(row.subject).data() != nullptr);
    }
    EXPECT_EQ(row.found, found);
    EXPECT_EQ(row.result, regex.match(row.subject));
    EXPECT_EQ(row.result, regex.match(row.subject, nullptr, 5));
    EXPECT_EQ(0u, s_room);
}

TEST(Regex, subMatchIsNotSetBeforeItsFirstAndAfterAFailedMatch) {
    SubMatch found[2];
    EXPECT_FALSE(found[0].isSet());
    EXPECT_EQ("", found[0].in("abc"));
    Regex regex;
    ASSERT_EQ(0, regex.compile("(a)(b)(c)", Regex::SUB_MATCHES));
    ASSERT_EQ(0, regex.match("abc", found));
    EXPECT_TRUE(found[0].isSet() && found[1].isSet());
    EXPECT_EQ(1, regex.match("b", found));
    EXPECT_FALSE(found[0].isSet() || found[1].isSet()) << "those of the earlier match are cleared";
}

TEST(Regex, matchThatBreaksTheContractFailsWithoutACallOfTheSystem) {
    Regex regex;
    SubMatch found[2];
    {
        Fault const calls(inject_regexec, 0);
        EXPECT_EQ(-1, regex.match("a"));
        EXPECT_TRUE(isContractBroken(INVALID));
        EXPECT_EQ(-1, regex.match("a", found));
        EXPECT_TRUE(isContractBroken(INVALID));
        ASSERT_EQ(0, regex.compile("(a)", Regex::IGNORE_CASE));
        EXPECT_EQ(0u, regex.getSubMatchCount());
        EXPECT_EQ(-1, regex.match("a", found));
        EXPECT_TRUE(isContractBroken(UNFIT));
        EXPECT_FALSE(found[0].isSet());
        EXPECT_EQ(-1, regex.match(nullptr));
        EXPECT_TRUE(isContractBroken("NULL pointer given for subject"));
        EXPECT_EQ(0, calls.getCalls());
    }
    EXPECT_EQ(0, regex.match("a")) << "the expression stays usable";
}

TEST(Regex, failedMatchIsReported) {
    for (int const code : {REG_ESPACE, REG_ESIZE, REG_BADPAT, REG_EPAREN}) {
        SCOPED_TRACE(code);
        reportBefore();
        Regex regex;
        ASSERT_EQ(0, regex.compile("(a)", Regex::SUB_MATCHES));
        SubMatch found[2];
        ASSERT_EQ(0, regex.match("a", found));
        Fault const fault(inject_regexec, code, 1, 2);
        EXPECT_EQ(-1, regex.match("a"));
        EXPECT_TRUE(chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, code)}));
        EXPECT_EQ(-1, regex.match("a", found));
        EXPECT_TRUE(chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, code)}));
        EXPECT_FALSE(found[0].isSet());
        EXPECT_EQ(0, regex.match("a"));
    }
}

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

TEST(RegexHandle, matchErrorsDependOnTheFlagsOfTheExpression) {
    auto const expectError = [](RegexHandle const& handle, bool sub_matches_wanted, char const* misuse) {
        EXPECT_EQ(-1, handle.handleMatchError(REG_ESPACE, sub_matches_wanted));
        EXPECT_TRUE(
            misuse != nullptr ? isContractBroken(misuse)
                              : chainIs({reportOf(Regex::ErrorId::MATCH_FAILED, REG_ESPACE)}));
    };
    Regex regex;
    ASSERT_EQ(0, regex.compile("a", Regex::SUB_MATCHES));
    expectError(regex, false, nullptr);
    expectError(regex, true, nullptr);
    ASSERT_EQ(0, regex.compile("a", 0));
    expectError(regex, false, nullptr);
    expectError(regex, true, UNFIT);
    RegexHandle const handle;
    EXPECT_FALSE(handle.isValid());
    expectError(handle, false, INVALID);
    expectError(handle, true, INVALID);
}

} // namespace
