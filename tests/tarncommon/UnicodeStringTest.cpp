#include "support/Testing.h"

#include <tarncommon/unicode/String.h>

namespace {

using std::unicode::BOM;
using std::unicode::REPLACEMENT_CHAR;
using std::unicode::String;

using CodePoints = std::vector<unsigned int>;

CodePoints getCodePoints(String const& text) {
    return {text.begin(), text.end()};
}

String makeString(CodePoints const& code_points) {
    String result;
    for (unsigned int const code_point : code_points) {
        result += code_point;
    }
    return result;
}

TEST(UnicodeString, isEmptyAtFirstAndSoAreItsParts) {
    String const text;
    EXPECT_TRUE(text.isEmpty() && text.begin() == text.end() && text == String());
    EXPECT_EQ(0U, text.getLength());
    EXPECT_TRUE(text.substr(0, 1).isEmpty());
    EXPECT_TRUE(text.substr(text.begin(), text.end()).isEmpty());
}

TEST(UnicodeString, codePointsAreCharactersAndConvertToTexts) {
    for (unsigned int const code_point : {0U, 0x41U, 0xD800U, 0x1F5A8U, 0x10FFFFU, 0xFFFFFFFFU}) {
        String const text(code_point);
        EXPECT_EQ(1U, text.getLength());
        EXPECT_EQ(code_point, *text.begin());
        EXPECT_FALSE(text.isEmpty());
    }
    EXPECT_EQ(0xFEFFU, BOM);
    EXPECT_EQ(0xFFFDU, REPLACEMENT_CHAR);
    EXPECT_TRUE(makeString({'a'}) + REPLACEMENT_CHAR == makeString({'a', REPLACEMENT_CHAR}));
    EXPECT_TRUE(makeString({BOM}) == BOM);
}

TEST(UnicodeString, copiesAreValues) {
    String const original = makeString({'a', 'b', 'c'});
    String copy(original);
    copy += 'd';
    EXPECT_EQ((CodePoints{'a', 'b', 'c'}), getCodePoints(original));
    EXPECT_EQ((CodePoints{'a', 'b', 'c', 'd'}), getCodePoints(copy));
    copy = original;
    EXPECT_TRUE(copy == original);
    String& alias = copy;
    copy = alias;
    EXPECT_TRUE(copy == original);
    String const moved(std::move(copy));
    EXPECT_TRUE(moved == original);
}

TEST(UnicodeString, textsAreEqualIfEveryCodePointIs) {
    EXPECT_TRUE(makeString({'a', 0x1F5A8}) == makeString({'a', 0x1F5A8}));
    EXPECT_FALSE(makeString({'a', 0x1F5A8}) != makeString({'a', 0x1F5A8}));
    EXPECT_TRUE(makeString({'a', 0x1F5A8}) != makeString({'a', 0x1F5A9}));
    EXPECT_TRUE(makeString({'a'}) != makeString({'a', 0}));
    EXPECT_TRUE(makeString({'a'}) != makeString({'A'}));
}

TEST(UnicodeString, additionKeepsItsOperands) {
    String const left = makeString({'a', 'b'});
    String const right = makeString({'c'});
    EXPECT_TRUE(left + right == makeString({'a', 'b', 'c'}));
    EXPECT_EQ(2U, left.getLength());
    EXPECT_EQ(1U, right.getLength());
    EXPECT_TRUE(left + String() == left);
    EXPECT_TRUE(String() + left == left);
    EXPECT_TRUE(left + left == makeString({'a', 'b', 'a', 'b'}));
}

struct Cut {
    int first;
    int count;
    char const* result;
};

void PrintTo(Cut const& cut, std::ostream* out) {
    *out << "first " << cut.first << " count " << cut.count;
}

class UnicodeStringCuts : public testing::TestWithParam<Cut> {};

TEST_P(UnicodeStringCuts, areClampedToTheText) {
    String const text = String::fromUTF8("abcdef");
    EXPECT_EQ(GetParam().result, text.substr(GetParam().first, GetParam().count).toUTF8());
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringCuts,
    testing::Values(
        Cut{0, 6, "abcdef"}, Cut{0, 0, ""}, Cut{1, 3, "bcd"}, Cut{5, 1, "f"}, Cut{6, 1, ""}, Cut{7, 1, ""},
        Cut{4, 10, "ef"}, Cut{-2, 3, "abc"}, Cut{2, -1, ""}, Cut{-1, -1, ""}, Cut{1, INT_MAX, "bcdef"},
        Cut{INT_MAX, INT_MAX, ""}, Cut{INT_MIN, INT_MAX, "abcdef"}, Cut{0, INT_MIN, ""}));

TEST(UnicodeString, cutsBetweenIterators) {
    String const text = makeString({'a', 0x1F5A8, 'c', 'd'});
    EXPECT_TRUE(text.substr(text.begin(), text.end()) == text);
    EXPECT_TRUE(text.substr(text.begin() + 1, text.begin() + 3) == makeString({0x1F5A8, 'c'}));
    EXPECT_TRUE(text.substr(text.begin() + 2, text.begin() + 2).isEmpty());
    EXPECT_TRUE(text.substr(text.begin() + 3, text.begin() + 1).isEmpty());
}

TEST(UnicodeString, iteratorMovesInBothDirections) {
    String const text = makeString({'a', 'b', 'c', 'd'});
    String::Iterator i = text.begin();
    EXPECT_EQ('a', static_cast<int>(*i++));
    EXPECT_EQ('b', static_cast<int>(*i));
    EXPECT_EQ('c', static_cast<int>(*++i));
    EXPECT_EQ('c', static_cast<int>(*i--));
    EXPECT_EQ('a', static_cast<int>(*--i));
    EXPECT_EQ('d', static_cast<int>(i[3]));
    EXPECT_EQ('c', static_cast<int>(*(i += 2)));
    EXPECT_EQ('b', static_cast<int>(*(i -= 1)));
    EXPECT_EQ('d', static_cast<int>(*(2 + i)));
    EXPECT_EQ('a', static_cast<int>(*(i - 1)));
    EXPECT_EQ(4, text.end() - text.begin());
    EXPECT_TRUE(text.begin() < i && i <= i && i >= i && text.end() > i && i != text.end());
    EXPECT_EQ(2, std::find(text.begin(), text.end(), static_cast<unsigned int>('c')) - text.begin());
    EXPECT_TRUE(String::Iterator() == String::Iterator());
}

// ---- UTF-8 ----

struct WellFormed {
    std::string bytes;
    CodePoints code_points;
};

void PrintTo(WellFormed const& row, std::ostream* out) {
    *out << testing::PrintToString(row.code_points);
}

class UnicodeStringWellFormed : public testing::TestWithParam<WellFormed> {};

TEST_P(UnicodeStringWellFormed, isDecodedAndEncoded) {
    String const text = String::fromUTF8(GetParam().bytes);
    EXPECT_EQ(GetParam().code_points, getCodePoints(text));
    EXPECT_EQ(GetParam().bytes, text.toUTF8());
}

INSTANTIATE_TEST_SUITE_P(
    All, UnicodeStringWellFormed,
    testing::Values(
        WellFormed{"", {}}, WellFormed{"Printer", {'P', 'r', 'i', 'n', 't', 'e', 'r'}},
        WellFormed{"\x7F", {0x7F}}, WellFormed{"\xC2\x80", {0x80}}, WellFormed{"\xC3\xA4!", {0xE4, '!'}},
        WellFormed{"\xDF\xBF", {0x7FF}}, WellFormed{"\xE0\xA0\x80", {0x800}},
        WellFormed{"\xED\x9F\xBF", {0xD7FF}}, WellFormed{"\xEE\x80\x80", {0xE000}},
        WellFormed{"\xEF\xBB\xBFx", {BOM, 'x'}}, WellFormed{"\xEF\xBF\xBD", {REPLACEMENT_CHAR}},
        WellFormed{"\xEF\xBF\xBF", {0xFFFF}}, WellFormed{"\xF0\x90\x80\x80", {0x10000}},
        WellFormed{"\xF0\x9F\x96\xA8", {0x1F5A8}}, WellFormed{"\xF4\x8F\xBF\xBF", {0x10FFFF}},
        WellFormed{{"a\0b", 3}, {'a', 0, 'b'}}));

TEST(UnicodeString, everyCodePointIsEncodedAndDecoded) {
    for (unsigned int code_point = 0; code_point <= 0x10FFFF; ++code_point) {
        if (code_point < 0xD800 || code_point > 0xDFFF) {
            String const text = String::fromUTF8(String(code_point).toUTF8());
            ASSERT_TRUE(text.getLength() == 1 && *text.begin() == code_point) << code_point;
        }
    }
}

struct Malformed : support::NamedRow {
    char const* bytes;
    CodePoints code_points;
};

constexpr unsigned int R = REPLACEMENT_CHAR;
Malformed const MALFORMED[] = {
    {"followingByteAlone", "a\x80z", {'a', R, 'z'}},
    {"twoFollowingBytes", "\x80\xBF", {R, R}},
    {"firstByteAtTheEnd", "a\xC3", {'a', R}},
    {"firstByteBeforeASCII", "\xC3z", {R, 'z'}},
    {"twoOfThreeBytesAtTheEnd", "\xE2\x82", {R}},
    {"twoOfThreeBytes", "\xE2\x82z", {R, 'z'}},
    {"threeOfFourBytes", "\xF0\x9F\x96z", {R, 'z'}},
    {"twoOfFourBytes", "\xF1\x80z", {R, 'z'}},
    {"brokenOffByTheNextCharacter", "\xE2\x82\xC3\xA4", {R, 0xE4}},
    {"overlongTwoBytes", "\xC0\xAF", {R, R}},
    {"overlongThreeBytes", "\xE0\x9F\xBF", {R, R, R}},
    {"overlongFourBytes", "\xF0\x8F\xBF\xBF", {R, R, R, R}},
    {"surrogate", "\xED\xA0\x80", {R, R, R}},
    {"beyondTheLastCodePoint", "\xF4\x90\x80\x80", {R, R, R, R}},
    {"firstByteBeyond", "\xF5\x80\x80\x80", {R, R, R, R}},
    {"bytesThatNeverOccur", "\xFE\xFF", {R, R}},
    {"severalInARow",
     "a\xF1\x80\x80\xE1\x80\xC2"
     "b\x80"
     "c\x80\xBF"
     "d",
     {'a', R, R, R, 'b', R, 'c', R, R, 'd'}}};
VESK_TEST_TABLE(UnicodeStringMalformed, becomesOneReplacementForEachMaximalPiece, testing::Test, MALFORMED) {
    EXPECT_EQ(GetParam().code_points, getCodePoints(String::fromUTF8(GetParam().bytes)));
}

TEST(UnicodeString, invalidElementsBecomeReplacementsInUTF8) {
    for (unsigned int const element : {0xD800U, 0xDFFFU, 0x110000U, 0xFFFFFFFFU}) {
        EXPECT_EQ("\xEF\xBF\xBD", String(element).toUTF8()) << element;
    }
}

} // namespace
