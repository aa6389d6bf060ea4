#include "support/AllocationCounter.h"
#include "support/Testing.h"

/// `ErrorOutput::operator()(std::ErrorType const&, int, ...) const`, which only programs linked earlier call.
extern "C" void reportOfEarlier(
    std::ErrorOutput const* output, std::ErrorType const& type, int id,
    ...) __asm__("_ZNKSt11ErrorOutputclERKSt9ErrorTypeiz");

namespace {

using std::ErrorObject;
using std::ErrorOutput;
using std::ErrorStorage;
using namespace support;

constexpr std::ErrorID ROWS[] = {
    {0, "nothing to add", 0},
    {1, "text %s.", 1},
    {2, "%s and %d", 2},
    {3, "%s (%d of %d)", 2},
    {4, "takes one, shows none", 1},
    {5, "100%% of %s", 1},
    {6, "ends with a lone %", 1},
    {7, "none allowed: %s", 0},
};
TARN_CONSTANT_INIT std::ErrorType const Family(ROWS, std::size(ROWS));

std::string takeText() {
    std::string const text = ErrorStorage::get()->getText();
    ErrorStorage::ack();
    return text;
}

template <typename... Args>
std::string textOf(int id, Args const&... args) {
    ErrorOutput("file", 1, true)(Family, id, args...);
    return takeText();
}

TEST(ErrorOutput, formatsEachKindOfArgument) {
    EXPECT_EQ("nothing to add", textOf(0));
    EXPECT_EQ("text abc.", textOf(1, "abc"));
    EXPECT_EQ("text abc.", textOf(1, std::string("abc")));
    EXPECT_EQ("abc and -7", textOf(2, "abc", -7));
    EXPECT_EQ("takes one, shows none", textOf(4, "unseen"));
    EXPECT_EQ("100% of it", textOf(5, "it"));
    EXPECT_EQ("ends with a lone ", textOf(6, "x"));
    EXPECT_EQ("text 22.", textOf(1, 22));
    EXPECT_EQ("text -1.", textOf(1, -1));
    EXPECT_EQ("text 0.", textOf(1, 0));
    EXPECT_EQ("text 18446744073709551615.", textOf(1, ULLONG_MAX));
    EXPECT_EQ("text -9223372036854775808.", textOf(1, LLONG_MIN));
    EXPECT_EQ("text 200.", textOf(1, static_cast<unsigned char>(200)));
    EXPECT_EQ("text -100.", textOf(1, static_cast<signed char>(-100)));
    EXPECT_EQ("text 1.", textOf(1, true));
    enum class Small : short { MINUS = -3 };
    enum Plain : unsigned int { BIG = 4000000000u };
    EXPECT_EQ("text -3.", textOf(1, Small::MINUS));
    EXPECT_EQ("text 4000000000.", textOf(1, BIG));
    EXPECT_EQ("a and b", textOf(2, "a", "b"));
    EXPECT_EQ("text 0x1f.", textOf(1, reinterpret_cast<void const*>(0x1f)));
    EXPECT_EQ("text (null).", textOf(1, static_cast<char const*>(nullptr)));
}

TEST(ErrorOutput, operationOfEarlierProgramsFormatsTheSame) {
    auto const textOfEarlier = [](int id, auto... args) {
        ErrorOutput const output("file", 1, true);
        reportOfEarlier(&output, Family, id, args...);
        return takeText();
    };
    EXPECT_EQ("nothing to add", textOfEarlier(0));
    EXPECT_EQ("text abc.", textOfEarlier(1, "abc"));
    EXPECT_EQ("abc and -7", textOfEarlier(2, "abc", -7));
    EXPECT_EQ("100% of it", textOfEarlier(5, "it"));
    EXPECT_EQ("ends with a lone ", textOfEarlier(6, "x"));
    EXPECT_EQ("none allowed: ?", textOfEarlier(7, "unseen"));
    EXPECT_EQ("unknown error 99", textOfEarlier(99, "unseen"));
    // A result code where the row has a text.
    EXPECT_EQ("text 22.", textOfEarlier(1, 22));
    EXPECT_EQ("text -4095.", textOfEarlier(1, -4095));
}

TEST(ErrorOutput, missingArgumentsShowAsQuestionMarksAndThoseBeyondTheCountDoNotShow) {
    EXPECT_EQ("text ?.", textOf(1));
    EXPECT_EQ("abc and ?", textOf(2, "abc"));
    EXPECT_EQ("name (255 of ?)", textOf(3, "name", 255));
    EXPECT_EQ("text abc.", textOf(1, "abc", "more"));
    EXPECT_EQ("name (255 of ?)", textOf(3, "name", 255, 254)) << "the count of the row applies";
    EXPECT_EQ("none allowed: ?", textOf(7, "abc"));
}

TEST(ErrorOutput, idOutsideTheTablePrintsUnknownErrorAndTheId) {
    EXPECT_EQ("unknown error 8", textOf(8, "argument"));
    EXPECT_EQ("unknown error -1", textOf(-1));
    EXPECT_EQ("unknown error 2147483647", textOf(INT_MAX, 1, 2));
    ErrorOutput("file", 1, true)(Family, 8, "argument");
    EXPECT_EQ(8, ErrorStorage::id());
    EXPECT_TRUE(ErrorStorage::isA(Family));
}

TEST(ErrorOutput, longTextIsCutAndEndsInDots) {
    std::string const fits(ErrorObject::TEXT_SIZE - 1 - strlen("text ."), 'x');
    EXPECT_EQ("text " + fits + ".", textOf(1, fits));
    std::string const cut = textOf(1, fits + "y");
    EXPECT_EQ(ErrorObject::TEXT_SIZE - 1, cut.size());
    EXPECT_EQ("text " + fits.substr(0, cut.size() - 5 - 3) + "...", cut);
    EXPECT_EQ(ErrorObject::TEXT_SIZE - 1, textOf(2, std::string(5000, 'x'), 5).size());
}

TEST(ErrorOutput, keepsThePlaceOfTheReport) {
    static char const file[] = "framework/src/vesk/posix/Thread";
    ErrorOutput(file, 4711, true)(Family, 0);
    EXPECT_EQ(file, ErrorStorage::get()->file) << "kept by pointer";
    EXPECT_EQ(4711, ErrorStorage::get()->line);
    EXPECT_EQ(nullptr, ErrorStorage::get()->next);
}

TEST(ErrorOutput, reportOnTopLinksToTheCauseAndANewChainReplacesThePendingOne) {
    ErrorOutput("low", 1, true)(Family, 1, "cause");
    ErrorOutput("high", 2, false)(Family, 0);
    ASSERT_NE(nullptr, ErrorStorage::get());
    EXPECT_STREQ("high", ErrorStorage::get()->file);
    ASSERT_NE(nullptr, ErrorStorage::get()->next);
    EXPECT_STREQ("low", ErrorStorage::get()->next->file);
    EXPECT_TRUE(chainIs({{Family, 1, "text cause."}, {Family, 0}}));
    ErrorOutput("high", 2, false)(Family, 0);
    EXPECT_TRUE(chainIs({{Family, 0}}));
    ErrorOutput("high", 3, false)(Family, 1, "a");
    EXPECT_TRUE(chainIs({{Family, 1}})) << "an acknowledged report is not pending";
    ErrorOutput("old", 1, true)(Family, 0);
    ErrorOutput("old", 2, false)(Family, 0);
    ErrorOutput("new", 3, true)(Family, 1, "x");
    EXPECT_TRUE(chainIs({{Family, 1}}));
    ErrorOutput("old", 1, true)(Family, 1, "abc");
    ErrorOutput("new", 2, true)(Family, 1, ErrorStorage::get()->getText());
    EXPECT_TRUE(chainIs({{Family, 1, "text text abc.."}}));
}

TEST(ErrorOutput, reportsACopyOrAnObjectOfThePendingChainAgain) {
    ErrorOutput("file", 7, true)(Family, 1, "abc");
    ErrorObject const copy(*ErrorStorage::get());
    ErrorStorage::ack();
    ErrorOutput(copy.file, 99, true)(copy);
    EXPECT_STREQ("file", ErrorStorage::get()->file);
    EXPECT_EQ(99, ErrorStorage::get()->line);
    EXPECT_TRUE(chainIs({{Family, 1, "text abc."}}));
    ErrorOutput("low", 1, true)(Family, 1, "abc");
    ErrorOutput("high", 2, false)(*ErrorStorage::get());
    EXPECT_TRUE(chainIs({{Family, 1, "text abc."}, {Family, 1, "text abc."}}));
}

TEST(ErrorObject, copyHasNoLinkAndAnEmptyObjectIsEmpty) {
    ErrorOutput("low", 1, true)(Family, 1, "abc");
    ErrorOutput("high", 2, false)(Family, 2, "x", 1);
    ErrorObject copy;
    EXPECT_EQ(nullptr, copy.getType());
    EXPECT_EQ(-1, copy.getID());
    EXPECT_STREQ("", copy.getText());
    copy = *ErrorStorage::get();
    EXPECT_EQ(nullptr, copy.next);
    EXPECT_EQ(&Family, copy.getType());
    EXPECT_EQ(2, copy.getID());
    EXPECT_STREQ("x and 1", copy.getText());
    EXPECT_STREQ("high", copy.file);
    ErrorObject& same = copy;
    copy = same;
    EXPECT_STREQ("x and 1", copy.getText());
}

TEST(ErrorOutput, neverUsesTheHeap) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizers bring their own allocation functions";
    }
    AllocationCounter const counter;
    for (int round = 0; round < 3; ++round) {
        ErrorOutput("file", 1, true)(Family, 1, "cause");
        for (unsigned int level = 0; level < 2 * ErrorStorage::CAPACITY; ++level) {
            ErrorOutput("file", 2, false)(Family, 2, "level", level);
        }
        ErrorStorage::ack();
    }
    EXPECT_EQ(0, counter.getCount());
}

} // namespace
