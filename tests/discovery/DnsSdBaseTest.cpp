#include "support/AllocationCounter.h"
#include "support/VtableSlot.h"

#include <vesk/DnsSdBase.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using std::unicode::BOM;
using std::unicode::REPLACEMENT_CHAR;
using std::unicode::String;
using support::AllocationCounter;
using support::COUNTS_ALLOCATIONS;
using vesk::DnsSdBase;
using Txt = DnsSdBase::Txt;
using Entries = std::map<std::string, std::string>;
using CodePoints = std::vector<unsigned int>;

/// A text with null bytes in it.
template <size_t N>
std::string bytes(char const (&literal)[N]) {
    return std::string(literal, N - 1);
}

String makeString(CodePoints const& code_points) {
    String result;
    for (unsigned int const code_point : code_points) {
        result += code_point;
    }
    return result;
}

CodePoints sanitize(CodePoints const& code_points) {
    String const result = DnsSdBase::sanitize(makeString(code_points));
    return CodePoints(result.begin(), result.end());
}

// ---- sanitize ----

struct CharacterRow {
    unsigned int code_point;
    bool fit;
};

void PrintTo(CharacterRow const& row, std::ostream* out) {
    *out << "U+" << std::hex << row.code_point << std::dec << (row.fit ? " stays" : " is replaced");
}

class SanitizeCharacter : public testing::TestWithParam<CharacterRow> {};

TEST_P(SanitizeCharacter, staysOrIsReplacedWhereverItStands) {
    unsigned int const c = GetParam().code_point;
    unsigned int const expected = GetParam().fit ? c : REPLACEMENT_CHAR;
    EXPECT_EQ(CodePoints{expected}, sanitize({c}));
    EXPECT_EQ((CodePoints{expected, 'a', 'b'}), sanitize({c, 'a', 'b'}));
    EXPECT_EQ((CodePoints{'a', expected, 'b'}), sanitize({'a', c, 'b'}));
    EXPECT_EQ((CodePoints{'a', 'b', expected}), sanitize({'a', 'b', c}));
    EXPECT_EQ((CodePoints{REPLACEMENT_CHAR, 'a', expected}), sanitize({1, 'a', c})) << "behind an unfit one";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SanitizeCharacter,
    testing::Values(
        CharacterRow{0, false},          //
        CharacterRow{1, false},          //
        CharacterRow{8, false},          //
        CharacterRow{9, false},          // Tab.
        CharacterRow{10, true},          // Line feed.
        CharacterRow{11, false},         //
        CharacterRow{12, true},          // Form feed.
        CharacterRow{13, true},          // Carriage return.
        CharacterRow{14, false},         //
        CharacterRow{27, false},         //
        CharacterRow{31, false},         //
        CharacterRow{32, true},          //
        CharacterRow{126, true},         //
        CharacterRow{127, false},        //
        CharacterRow{128, false},        //
        CharacterRow{159, false},        //
        CharacterRow{160, true},         //
        CharacterRow{0xFC, true},        //
        CharacterRow{0xD7FF, true},      //
        CharacterRow{0xD800, false},     // Surrogates...
        CharacterRow{0xDFFF, false},     //
        CharacterRow{0xE000, false},     // ...and private use.
        CharacterRow{0xF8FF, false},     //
        CharacterRow{0xF900, true},      //
        CharacterRow{0xFFFD, true},      //
        CharacterRow{0xFFFE, true},      //
        CharacterRow{0xFFFF, true},      //
        CharacterRow{0x10000, true},     //
        CharacterRow{0x10FFF, true},     // The bound is this one...
        CharacterRow{0x11000, false},    //
        CharacterRow{0x1F5A8, false},    //
        CharacterRow{0xF0000, false},    //
        CharacterRow{0x10FFFF, false},   // ...and not the end of Unicode.
        CharacterRow{0x110000, false},   //
        CharacterRow{0x80000000, false}, //
        CharacterRow{0xFFFFFFFF, false}));

TEST(Sanitize, ofAnEmptyStringGivesAnEmptyString) {
    EXPECT_TRUE(DnsSdBase::sanitize(String()).isEmpty());
}

TEST(Sanitize, tellsEveryCodePointOfUnicodeByTheFourRanges) {
    CodePoints all;
    CodePoints expected;
    for (unsigned int c = 1; c <= 0x110000; ++c) {
        bool const unfit = (c <= 31 && c != 10 && c != 12 && c != 13) || (c >= 127 && c <= 159) ||
            (c >= 0xD800 && c <= 0xF8FF) || c > 0x10FFF;
        all.push_back(c);
        expected.push_back(unfit ? 0xFFFD : c);
    }
    EXPECT_TRUE(expected == sanitize(all));
}

TEST(Sanitize, dropsAnyNumberOfByteOrderMarksAtTheBeginning) {
    EXPECT_EQ((CodePoints{'a', 'b'}), sanitize({BOM, 'a', 'b'}));
    EXPECT_EQ((CodePoints{'a', 'b'}), sanitize({BOM, BOM, BOM, 'a', 'b'}));
    CodePoints many(100000, BOM);
    many.push_back('a');
    EXPECT_EQ(CodePoints{'a'}, sanitize(many));
}

TEST(Sanitize, ofNothingButByteOrderMarksGivesAnEmptyString) {
    EXPECT_EQ(CodePoints(), sanitize({BOM}));
    EXPECT_EQ(CodePoints(), sanitize({BOM, BOM}));
}

TEST(Sanitize, keepsByteOrderMarksBehindTheBeginning) {
    EXPECT_EQ((CodePoints{'a', BOM, 'b', BOM}), sanitize({'a', BOM, 'b', BOM}));
    EXPECT_EQ((CodePoints{REPLACEMENT_CHAR, BOM}), sanitize({7, BOM}));
}

TEST(Sanitize, dropsByteOrderMarksAndReplacesInTheSameName) {
    EXPECT_EQ((CodePoints{REPLACEMENT_CHAR, 'a', REPLACEMENT_CHAR}), sanitize({BOM, 7, 'a', 0x1F5A8}));
}

TEST(Sanitize, keepsSevenLettersBeforeAPictograph) {
    String name = String::fromUTF8("Printer");
    name += 0x1F5A8;
    String expected = String::fromUTF8("Printer");
    expected += REPLACEMENT_CHAR;
    EXPECT_TRUE(expected == DnsSdBase::sanitize(name));
}

TEST(Sanitize, keepsTheLengthInCodePoints) {
    CodePoints name;
    for (unsigned int i = 0; i < 1000; ++i) {
        name.push_back(i % 7 == 0 ? i % 32 : 'a' + i % 26);
    }
    EXPECT_EQ(name.size(), sanitize(name).size());
}

TEST(Sanitize, leavesItsArgumentAlone) {
    String const name = makeString({BOM, 'a', 1});
    DnsSdBase::sanitize(name);
    EXPECT_TRUE(makeString({BOM, 'a', 1}) == name);
}

TEST(Sanitize, copiesACleanNameOnce) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "allocations are not counted under this sanitizer";
    }
    String const name = makeString(CodePoints(200, 'a'));
    AllocationCounter const counter;
    String const result = DnsSdBase::sanitize(name);
    EXPECT_EQ(1, counter.getCount());
    EXPECT_TRUE(name == result);
}

// ---- unescape ----

struct UnescapeRow {
    char const* what;
    std::string text; // Without its terminating zero.
    char const* stop_chars;
    std::string piece;
    size_t cursor; // Where it is left.
};

void PrintTo(UnescapeRow const& row, std::ostream* out) {
    *out << row.what;
}

class Unescape : public testing::TestWithParam<UnescapeRow> {};

TEST_P(Unescape, givesThePieceAndLeavesTheCursor) {
    UnescapeRow const& row = GetParam();
    // In memory of its own size, so that a sanitizer sees what is read beyond it.
    std::vector<char> const text(row.text.c_str(), row.text.c_str() + row.text.size() + 1);
    char const* cursor = text.data();
    EXPECT_EQ(row.piece, DnsSdBase::unescape(cursor, row.stop_chars));
    EXPECT_EQ(row.cursor, static_cast<size_t>(cursor - text.data()));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Unescape,
    testing::Values(
        // A zero ends it.
        UnescapeRow{"empty", "", ".", "", 0}, //
        UnescapeRow{"plain", "abc", ".", "abc", 3}, UnescapeRow{"zeroInside", bytes("ab\0cd"), ".", "ab", 2},
        // A stop character ends it, and is not taken.
        UnescapeRow{"stop", "ab.cd", ".", "ab", 2}, //
        UnescapeRow{"stopAtOnce", ".ab", ".", "", 0}, UnescapeRow{"secondStop", "ab/cd.e", "./", "ab", 2},
        UnescapeRow{"noStops", "a.b/c", "", "a.b/c", 5},
        UnescapeRow{
            "highStop",
            "ab\xFF"
            "cd",
            "\xFF", "ab", 2},
        UnescapeRow{"digitAsStop", "ab1cd", "1", "ab", 2},
        UnescapeRow{"backslashAsStop", "a\\032b", "\\", "a", 1},
        // An escaped byte stands for itself.
        UnescapeRow{"escapedStop", "a\\.b.c", ".", "a.b", 4}, //
        UnescapeRow{"escapedBackslash", "a\\\\b", ".", "a\\b", 4},
        UnescapeRow{"escapedBackslashThenStop", "a\\\\.b", ".", "a\\", 3},
        UnescapeRow{"escapedLetter", "\\n\\x", ".", "nx", 4},
        UnescapeRow{"escapedHighByte", "\\\xC3\\\xBC", ".", "\xC3\xBC", 4},
        UnescapeRow{"escapedBeforeZero", "\\/\\:", "", "/:", 4}, // The neighbours of the digits.
        // Three digits are a byte.
        UnescapeRow{"space", "a\\032b", ".", "a b", 6}, //
        UnescapeRow{"dotAndSpace", "a\\.b\\032c", ".", "a.b c", 9},
        UnescapeRow{"stopAsDigits", "a\\046b.c", ".", "a.b", 6},
        UnescapeRow{"zeroAsDigits", "a\\000b", ".", bytes("a\0b"), 6},
        UnescapeRow{"highAsDigits", "\\128\\255", ".", "\x80\xFF", 8},
        UnescapeRow{"digitsAsDigits", "\\0651", ".", "A1", 5},
        UnescapeRow{"twice", "\\065\\066", ".", "AB", 8},
        UnescapeRow{"digitAsStopWithin", "\\065b1", "0561", "Ab", 5}, // Within an escape nothing stops.
        // They are cut to 8 bits.
        UnescapeRow{"overflowToZero", "\\256", ".", bytes("\0"), 4}, //
        UnescapeRow{"overflowToOne", "\\257x", ".", "\x01x", 5},
        UnescapeRow{"overflowTwice", "\\512", ".", bytes("\0"), 4},
        UnescapeRow{"overflowOfAll", "\\999", ".", "\xE7", 4},
        // A backslash at the end counts for nothing.
        UnescapeRow{"backslashAlone", "\\", ".", "", 1}, //
        UnescapeRow{"backslashAtEnd", "ab\\", ".", "ab", 3},
        UnescapeRow{"backslashBeforeZero", bytes("ab\\\0cd"), ".", "ab", 3},
        // A bad second or third digit ends it, the cursor behind the bad byte.
        UnescapeRow{"badSecond", "ab\\1x23", ".", "ab", 5}, //
        UnescapeRow{"badSecondIsBackslash", "ab\\1\\23", ".", "ab", 5},
        UnescapeRow{"badSecondIsStop", "ab\\1.23", ".", "ab", 5},
        UnescapeRow{"badSecondBelowDigits", "ab\\1/23", ".", "ab", 5},
        UnescapeRow{"badSecondAboveDigits", "ab\\1:23", ".", "ab", 5},
        UnescapeRow{
            "badSecondIsHigh",
            "ab\\1\xB2"
            "3",
            ".", "ab", 5},
        UnescapeRow{"badThird", "ab\\12x3", ".", "ab", 6},
        UnescapeRow{"badThirdIsBackslash", "ab\\12\\3", ".", "ab", 6},
        UnescapeRow{"badThirdIsStop", "ab\\12.3", ".", "ab", 6},
        UnescapeRow{"badThirdBelowDigits", "ab\\12/", ".", "ab", 6},
        UnescapeRow{"badThirdAboveDigits", "ab\\12:", ".", "ab", 6},
        UnescapeRow{"badThirdIsHigh", "ab\\12\xFF", ".", "ab", 6},
        UnescapeRow{"badFirstThing", "\\1x", ".", "", 3},
        UnescapeRow{"badAfterGood", "\\065\\1x", ".", "A", 7},
        // Also where the bad byte is the terminating zero: the cursor is beyond the text.
        UnescapeRow{"secondIsTheEnd", "ab\\1", ".", "ab", 5}, //
        UnescapeRow{"thirdIsTheEnd", "ab\\12", ".", "ab", 6},
        UnescapeRow{"secondIsAZero", bytes("ab\\1\0cd"), ".", "ab", 5},
        UnescapeRow{"thirdIsAZero", bytes("ab\\12\0cd"), ".", "ab", 6},
        // Bytes are bytes.
        UnescapeRow{
            "utf8",
            "K\xC3\xBC"
            "che.x",
            ".",
            "K\xC3\xBC"
            "che",
            6},
        UnescapeRow{"allHigh", "\x80\xFE\xFF", ".", "\x80\xFE\xFF", 3}),
    [](auto const& row) { return std::string(row.param.what); });

TEST(UnescapeName, isTakenApartPieceByPiece) {
    char const* cursor = "Living\\032Room\\.2._http._tcp.local";
    std::vector<std::string> pieces;
    for (;;) {
        pieces.push_back(DnsSdBase::unescape(cursor, "."));
        if (*cursor == '\0') {
            break;
        }
        ++cursor;
    }
    EXPECT_EQ((std::vector<std::string>{"Living Room.2", "_http", "_tcp", "local"}), pieces);
}

TEST(UnescapeName, readsEveryByteFromItsThreeDigits) {
    for (int value = 0; value < 1000; ++value) {
        std::string const digits = std::to_string(1000 + value).substr(1);
        std::string const text = "\\" + digits;
        char const* cursor = text.c_str();
        EXPECT_EQ(std::string(1, static_cast<char>(value % 256)), DnsSdBase::unescape(cursor, "."));
        EXPECT_EQ(text.c_str() + 4, cursor);
    }
}

// ---- reading TXT records ----

/// A string of the wire format, of at most 255 bytes.
std::string entry(std::string const& text) {
    EXPECT_LE(text.size(), 255U);
    return std::string(1, static_cast<char>(text.size())) + text;
}

/// Reads a record from memory of its own size, so that a sanitizer sees what is read beyond it.
Txt decode(std::string const& record) {
    std::vector<char> const memory(record.begin(), record.end());
    return Txt(static_cast<unsigned short>(memory.size()), memory.data());
}

std::string encode(Txt const& txt) {
    std::Buf const wire = txt.data();
    EXPECT_TRUE(wire.isValid());
    return std::string(reinterpret_cast<char const*>(wire.data), wire.getSize());
}

struct TxtRow {
    char const* what;
    std::string record;
    Entries entries;
};

void PrintTo(TxtRow const& row, std::ostream* out) {
    *out << row.what;
}

class TxtOfRecord : public testing::TestWithParam<TxtRow> {};

TEST_P(TxtOfRecord, hasTheEntries) {
    EXPECT_EQ(GetParam().entries, decode(GetParam().record));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TxtOfRecord,
    testing::Values(
        TxtRow{"nothing", "", {}},               //
        TxtRow{"empty", bytes("\0"), {}},        //
        TxtRow{"emptyTwice", bytes("\0\0"), {}}, //
        TxtRow{"one", bytes("\3a=b"), {{"a", "b"}}},
        TxtRow{"two", bytes("\3a=b\5cd=ef"), {{"a", "b"}, {"cd", "ef"}}},
        TxtRow{"keyWithoutSeparatorAndEmptyKey", bytes("\3a=b\2cd\1="), {{"a", "b"}, {"", ""}}},
        TxtRow{"emptyValue", bytes("\2a="), {{"a", ""}}},
        TxtRow{"emptyKeyWithValue", bytes("\2=b"), {{"", "b"}}},
        TxtRow{"emptyStringBetween", bytes("\3a=b\0\3c=d"), {{"a", "b"}, {"c", "d"}}},
        TxtRow{"firstSeparatorCounts", bytes("\6a==b=c"), {{"a", "=b=c"}}},
        TxtRow{"lastOfAKeyCounts", bytes("\3a=1\3b=2\3a=3"), {{"a", "3"}, {"b", "2"}}},
        TxtRow{"lastMayBeEmpty", bytes("\3a=1\2a="), {{"a", ""}}},
        TxtRow{"lastWithoutSeparatorCountsNot", bytes("\3a=1\1a"), {{"a", "1"}}},
        TxtRow{"caseDiffers", bytes("\3a=1\3A=2"), {{"a", "1"}, {"A", "2"}}},
        TxtRow{"unsorted", bytes("\3c=3\3a=1\3b=2"), {{"a", "1"}, {"b", "2"}, {"c", "3"}}},
        TxtRow{"zeroBytes", bytes("\5\0=\0\0x"), {{bytes("\0"), bytes("\0\0x")}}},
        TxtRow{"highBytes", bytes("\3\xFF=\x80"), {{"\xFF", "\x80"}}},
        TxtRow{"overrunByOne", bytes("\3a=b\4c=d"), {{"a", "b"}}},
        TxtRow{"overrunByFar", bytes("\3a=b\377c=d"), {{"a", "b"}}},
        TxtRow{"overrunAtOnce", bytes("\1"), {}}, //
        TxtRow{"lengthIsTheEnd", bytes("\3a=b\1"), {{"a", "b"}}},
        TxtRow{"overrunEndsAll", bytes("\11a=b\3c=d"), {}}),
    [](auto const& row) { return std::string(row.param.what); });

TEST(TxtRecord, ofSizeZeroIsEmptyWhateverTheDataIs) {
    EXPECT_TRUE(Txt(0, nullptr).empty());
    EXPECT_TRUE(Txt(0, "\3a=b").empty());
}

TEST(TxtRecord, takesOnlyTheSizeThatItIsTold) {
    EXPECT_EQ((Entries{{"a", "b"}}), Txt(4, "\3a=b\3c=d"));
}

TEST(TxtRecord, keepsTheEntriesBeforeTheByteWhereItWasCut) {
    std::vector<std::pair<std::string, std::string>> const entries{
        {"alpha", "1"}, {"beta", ""}, {"", "no key"}, {"delta", std::string(200, 'd')}, {"e", "=5="}};
    std::string record;
    std::map<size_t, Entries> expected{{0, {}}}; // By the size at which an entry is complete.
    Entries so_far;
    for (auto const& [key, value] : entries) {
        record += entry(key + "=" + value);
        so_far[key] = value;
        expected[record.size()] = so_far;
    }
    for (size_t size = 0; size <= record.size(); ++size) {
        EXPECT_EQ(std::prev(expected.upper_bound(size))->second, decode(record.substr(0, size)))
            << "cut at " << size;
    }
}

TEST(TxtRecord, mayHaveTheLargestSize) {
    std::string record;
    Entries expected;
    for (int i = 0; i < 255; ++i) {
        std::string const key = std::to_string(1000 + i);
        std::string const value(250, static_cast<char>(i));
        record += entry(key + "=" + value);
        expected[key] = value;
    }
    record += entry("last=" + std::string(249, 'z'));
    expected["last"] = std::string(249, 'z');
    ASSERT_EQ(65535U, record.size());
    Txt const txt = decode(record);
    EXPECT_EQ(expected, txt);
    EXPECT_EQ(record, encode(txt));
    EXPECT_EQ(255U, decode(record.substr(0, 65534)).size()) << "the last one is cut";
}

// ---- writing TXT records ----

TEST(TxtData, ofAnEmptyMapIsOneZeroByteThatReadsAsAnEmptyMap) {
    EXPECT_EQ(bytes("\0"), encode(Txt()));
    EXPECT_EQ(bytes("\0"), encode(Txt::EMPTY));
    EXPECT_TRUE(decode(encode(Txt())).empty());
}

TEST(TxtData, hasTheStringsInTheOrderOfTheirKeys) {
    EXPECT_EQ(bytes("\3a=1\3b=2\3c=3"), encode(decode(bytes("\3c=3\3a=1\3b=2"))));
    EXPECT_EQ(bytes("\3A=2\3a=1\6\xC3\xA4=xyz"), encode(decode(bytes("\6\xC3\xA4=xyz\3a=1\3A=2"))))
        << "bytes are compared, high ones come last";
}

TEST(TxtData, ofEmptyKeyAndValueIsASeparator) {
    Txt txt;
    txt[""] = "";
    EXPECT_EQ(bytes("\1="), encode(txt));
}

struct LengthRow {
    size_t key;
    size_t value;
    unsigned char length_byte;
};

void PrintTo(LengthRow const& row, std::ostream* out) {
    *out << row.key << " and " << row.value << " bytes";
}

class TxtDataLength : public testing::TestWithParam<LengthRow> {};

TEST_P(TxtDataLength, wrapsAtEightBitsAndCutsNothing) {
    std::string const key(GetParam().key, 'k');
    std::string const value(GetParam().value, 'v');
    Txt txt;
    txt[key] = value;
    EXPECT_EQ(std::string(1, static_cast<char>(GetParam().length_byte)) + key + "=" + value, encode(txt));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TxtDataLength,
    testing::Values(
        LengthRow{0, 0, 1}, LengthRow{1, 1, 3}, LengthRow{1, 125, 127}, LengthRow{1, 126, 128},
        LengthRow{1, 253, 255}, LengthRow{1, 254, 0}, LengthRow{1, 255, 1}, LengthRow{254, 0, 255},
        LengthRow{255, 0, 0}, LengthRow{300, 300, 89}, LengthRow{1, 70000, 114}));

TEST(TxtData, writesOnBehindAnEntryThatIsTooLong) {
    Txt txt;
    txt["a"] = std::string(256, 'v');
    txt["b"] = "2";
    EXPECT_EQ(bytes("\2a=") + std::string(256, 'v') + bytes("\3b=2"), encode(txt));
}

TEST(TxtData, isAllocatedOnce) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "allocations are not counted under this sanitizer";
    }
    Txt txt;
    for (char c = 'a'; c <= 't'; ++c) {
        txt[std::string("key ") + c] = "some value";
    }
    AllocationCounter const encoding;
    std::Buf const wire = txt.data();
    EXPECT_EQ(1, encoding.getCount());
    AllocationCounter const decoding;
    Txt const again(static_cast<unsigned short>(wire.getSize()), wire.data);
    EXPECT_EQ(20, decoding.getCount()) << "one for each entry";
    EXPECT_EQ(txt, again);
}

// ---- TXT records as maps ----

TEST(TxtMap, isAMapOfStrings) {
    static_assert(std::is_base_of_v<Entries, Txt>);
    static_assert(std::is_convertible_v<Txt const&, Entries const&>);
    Txt txt;
    EXPECT_TRUE(txt.empty());
    txt["path"] = "/status";
    txt["version"] = "2";
    EXPECT_EQ(2U, txt.size());
    EXPECT_EQ("/status", txt.find("path")->second);
    EXPECT_EQ(txt.end(), txt.find("PATH"));
    txt.erase("path");
    EXPECT_EQ((Entries{{"version", "2"}}), txt);
}

TEST(TxtMap, copiesAreDeep) {
    Txt txt;
    txt["a"] = "1";
    Txt const copy(txt);
    txt["a"] = "2";
    EXPECT_EQ("1", copy.at("a"));
    txt = copy;
    EXPECT_EQ(copy, txt);
}

TEST(TxtMap, ordersKeysByTheirBytes) {
    Txt txt;
    for (char const* key : {"\xFF", "b", "", "B", "a", "ab"}) {
        txt[key];
    }
    std::vector<std::string> keys;
    for (auto const& [key, value] : txt) {
        keys.push_back(key);
    }
    EXPECT_EQ((std::vector<std::string>{"", "B", "a", "ab", "b", "\xFF"}), keys);
}

size_t const g_size_before_main = Txt::EMPTY.size();

TEST(TxtEmpty, isThereBeforeMain) {
    EXPECT_EQ(0U, g_size_before_main);
    EXPECT_TRUE(Txt::EMPTY.empty());
    static_assert(std::is_const_v<decltype(Txt::EMPTY)>);
}

// ---- the client ----

struct QuietClient : DnsSdBase::Client {
    void error() override { ++errors; }
    int errors = 0;
};

TEST(DnsSdBaseClient, doesNothingByDefault) {
    QuietClient quiet;
    DnsSdBase::Client& client = quiet;
    String const name = String::fromUTF8("Printer");
    client.service_appeared(name, "_ipp._tcp", "local");
    client.service_disappeared(name, "_ipp._tcp", "local");
    client.all_for_now();
    client.resolved(name, "_ipp._tcp", "local", "printer.local", 631, Txt::EMPTY);
    client.address("printer.local", "192.0.2.1");
    EXPECT_EQ(0, quiet.errors);
    client.error();
    EXPECT_EQ(1, quiet.errors);
}

TEST(DnsSdBaseClient, leavesOnlyErrorToBeDefined) {
    static_assert(std::is_abstract_v<DnsSdBase::Client>);
    static_assert(!std::is_abstract_v<QuietClient>);
    static_assert(std::has_virtual_destructor_v<DnsSdBase::Client>);
}

TEST(DnsSdBaseClient, hasItsOperationsInTheirSlots) {
    using Client = DnsSdBase::Client;
    EXPECT_EQ(2, support::getSlot(&Client::error)) << "behind the two of the destructor";
    EXPECT_EQ(3, support::getSlot(&Client::service_appeared));
    EXPECT_EQ(4, support::getSlot(&Client::service_disappeared));
    EXPECT_EQ(5, support::getSlot(&Client::all_for_now));
    EXPECT_EQ(6, support::getSlot(&Client::resolved));
    EXPECT_EQ(7, support::getSlot(&Client::address));
}

} // namespace
