#include "Clients.h"

#include "support/AllocationCounter.h"
#include "support/Testing.h"
#include "support/VtableSlot.h"

namespace {

using namespace support;
using std::unicode::BOM;
using std::unicode::REPLACEMENT_CHAR;
using Entries = std::map<std::string, std::string>;
using CodePoints = std::vector<unsigned int>;

/// Returns a text with null bytes in it.
template <size_t N>
std::string bytes(char const (&literal)[N]) {
    return std::string(literal, N - 1);
}

CodePoints operator+(CodePoints first, CodePoints const& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

String makeString(CodePoints const& code_points) {
    String result;
    for (unsigned int const code_point : code_points) {
        result += code_point;
    }
    return result;
}

CodePoints sanitize(CodePoints const& code_points) {
    String const name = makeString(code_points);
    String const result = DnsSdBase::sanitize(name);
    EXPECT_TRUE(makeString(code_points) == name) << "the argument stays";
    return CodePoints(result.begin(), result.end());
}

void expectSanitized(unsigned int c, unsigned int expected) {
    SCOPED_TRACE(c);
    EXPECT_EQ(CodePoints{expected}, sanitize({c}));
    EXPECT_EQ((CodePoints{expected, 'a', 'b'}), sanitize({c, 'a', 'b'}));
    EXPECT_EQ((CodePoints{'a', expected, 'b'}), sanitize({'a', c, 'b'}));
    EXPECT_EQ((CodePoints{'a', 'b', expected}), sanitize({'a', 'b', c}));
    EXPECT_EQ((CodePoints{REPLACEMENT_CHAR, 'a', expected}), sanitize({1, 'a', c}))
        << "behind a replaced one";
}

TEST(Sanitize, keepsOrReplacesACharacterInEveryPlace) {
    // Line feed, form feed, carriage return, and the bounds of the ranges. Unicode does not end at the last.
    for (unsigned int const c :
         {10u, 12u, 13u, 32u, 126u, 160u, 0xFCu, 0xD7FFu, 0xF900u, 0xFFFDu, 0xFFFEu, 0xFFFFu, 0x10000u,
          0x10FFFu}) {
        expectSanitized(c, c);
    }
    // Control characters with the tab, surrogates and private use, and everything above.
    for (unsigned int const c :
         {0u,       1u,       8u,        9u,        11u,         14u,        27u,     31u,
          127u,     128u,     159u,      0xD800u,   0xDFFFu,     0xE000u,    0xF8FFu, 0x11000u,
          0x1F5A8u, 0xF0000u, 0x10FFFFu, 0x110000u, 0x80000000u, 0xFFFFFFFFu}) {
        expectSanitized(c, REPLACEMENT_CHAR);
    }
}

TEST(Sanitize, replacesExactlyTheFourRanges) {
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

struct SanitizeRow : NamedRow {
    CodePoints name;
    CodePoints expected;
};

SanitizeRow const NAMES[] = {
    {"empty", {}, {}},
    {"oneMark", {BOM, 'a', 'b'}, {'a', 'b'}},
    {"threeMarks", {BOM, BOM, BOM, 'a', 'b'}, {'a', 'b'}},
    {"manyMarks", CodePoints(100000, BOM), {}},
    {"onlyOneMark", {BOM}, {}},
    {"onlyMarks", {BOM, BOM}, {}},
    {"marksBehindTheBeginning", {'a', BOM, 'b', BOM}, {'a', BOM, 'b', BOM}},
    {"markBehindAReplacedCharacter", {7, BOM}, {REPLACEMENT_CHAR, BOM}},
    {"markAndReplacedCharacters", {BOM, 7, 'a', 0x1F5A8}, {REPLACEMENT_CHAR, 'a', REPLACEMENT_CHAR}},
    {"manyMarksBeforeALetter", CodePoints(100000, BOM) + CodePoints{'a'}, {'a'}},
    {"pictographBehindLetters",
     {'P', 'r', 'i', 'n', 't', 'e', 'r', 0x1F5A8},
     {'P', 'r', 'i', 'n', 't', 'e', 'r', REPLACEMENT_CHAR}},
};

VESK_TEST_TABLE(SanitizeName, dropsByteOrderMarksAtTheBeginningOnly, testing::Test, NAMES) {
    EXPECT_EQ(GetParam().expected, sanitize(GetParam().name));
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

struct UnescapeRow : NamedRow {
    std::string text; ///< Without its terminating zero.
    char const* stop_chars;
    std::string piece;
    size_t cursor; ///< Behind the piece.
};

UnescapeRow const ESCAPED[] = {
    // A zero ends it.
    {"empty", "", ".", "", 0},
    {"plain", "abc", ".", "abc", 3},
    {"zeroInside", bytes("ab\0cd"), ".", "ab", 2},
    // A stop character ends it and is not consumed.
    {"stop", "ab.cd", ".", "ab", 2},
    {"stopAtOnce", ".ab", ".", "", 0},
    {"secondStop", "ab/cd.e", "./", "ab", 2},
    {"noStops", "a.b/c", "", "a.b/c", 5},
    {"highStop", "ab\377cd", "\377", "ab", 2},
    {"digitAsStop", "ab1cd", "1", "ab", 2},
    {"backslashAsStop", "a\\032b", "\\", "a", 1},
    // An escaped byte stands for itself.
    {"escapedStop", "a\\.b.c", ".", "a.b", 4},
    {"escapedBackslash", "a\\\\b", ".", "a\\b", 4},
    {"escapedBackslashThenStop", "a\\\\.b", ".", "a\\", 3},
    {"escapedLetter", "\\n\\x", ".", "nx", 4},
    {"escapedHighByte", "\\\xC3\\\xBC", ".", "\xC3\xBC", 4},
    {"escapedBeforeZero", "\\/\\:", "", "/:", 4}, // The neighbors of the digits.
    // Three digits are a byte.
    {"space", "a\\032b", ".", "a b", 6},
    {"dotAndSpace", "a\\.b\\032c", ".", "a.b c", 9},
    {"stopAsDigits", "a\\046b.c", ".", "a.b", 6},
    {"zeroAsDigits", "a\\000b", ".", bytes("a\0b"), 6},
    {"highAsDigits", "\\128\\255", ".", "\x80\xFF", 8},
    {"digitsAsDigits", "\\0651", ".", "A1", 5},
    {"twice", "\\065\\066", ".", "AB", 8},
    {"digitAsStopWithin", "\\065b1", "0561", "Ab", 5}, // A stop character does not end an escape.
    // They are cut to 8 bits.
    {"overflowToOne", "\\257x", ".", "\x01x", 5},
    // A backslash at the end is ignored.
    {"backslashAlone", "\\", ".", "", 1},
    {"backslashAtEnd", "ab\\", ".", "ab", 3},
    {"backslashBeforeZero", bytes("ab\\\0cd"), ".", "ab", 3},
    // A bad second or third digit ends it, the cursor behind the bad byte.
    {"badSecond", "ab\\1x23", ".", "ab", 5},
    {"badSecondIsBackslash", "ab\\1\\23", ".", "ab", 5},
    {"badSecondIsStop", "ab\\1.23", ".", "ab", 5},
    {"badSecondBelowDigits", "ab\\1/23", ".", "ab", 5},
    {"badSecondAboveDigits", "ab\\1:23", ".", "ab", 5},
    {"badSecondIsHigh", "ab\\1\2623", ".", "ab", 5},
    {"badThird", "ab\\12x3", ".", "ab", 6},
    {"badThirdIsBackslash", "ab\\12\\3", ".", "ab", 6},
    {"badThirdIsStop", "ab\\12.3", ".", "ab", 6},
    {"badThirdBelowDigits", "ab\\12/", ".", "ab", 6},
    {"badThirdAboveDigits", "ab\\12:", ".", "ab", 6},
    {"badThirdIsHigh", "ab\\12\xFF", ".", "ab", 6},
    {"badSecondAtTheStart", "\\1x", ".", "", 3},
    {"badAfterGood", "\\065\\1x", ".", "A", 7},
    // Also where the bad byte is the terminating zero: the cursor is beyond the text.
    {"secondIsTheEnd", "ab\\1", ".", "ab", 5},
    {"thirdIsTheEnd", "ab\\12", ".", "ab", 6},
    {"secondIsAZero", bytes("ab\\1\0cd"), ".", "ab", 5},
    {"thirdIsAZero", bytes("ab\\12\0cd"), ".", "ab", 6},
    // Bytes are bytes.
    {"utf8", "K\303\274che.x", ".", "K\303\274che", 6},
    {"allHigh", "\x80\xFE\xFF", ".", "\x80\xFE\xFF", 3},
};

VESK_TEST_TABLE(Unescape, returnsThePieceAndMovesTheCursorBehindIt, testing::Test, ESCAPED) {
    UnescapeRow const& row = GetParam();
    // In memory of exactly its size, so that a sanitizer detects a read beyond it.
    std::vector<char> const text(row.text.c_str(), row.text.c_str() + row.text.size() + 1);
    char const* cursor = text.data();
    EXPECT_EQ(row.piece, DnsSdBase::unescape(cursor, row.stop_chars));
    EXPECT_EQ(row.cursor, static_cast<size_t>(cursor - text.data()));
}

TEST(UnescapeName, isSplitPieceByPiece) {
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

TEST(UnescapeName, everyNumberOfThreeDigitsIsAByte) {
    for (int value = 0; value < 1000; ++value) {
        std::string const digits = std::to_string(1000 + value).substr(1);
        std::string const text = "\\" + digits;
        char const* cursor = text.c_str();
        EXPECT_EQ(std::string(1, static_cast<char>(value % 256)), DnsSdBase::unescape(cursor, "."));
        EXPECT_EQ(text.c_str() + 4, cursor);
    }
}

/// Returns a string of the wire format, of at most 255 bytes.
std::string entry(std::string const& content) {
    EXPECT_LE(content.size(), 255U);
    return std::string(1, static_cast<char>(content.size())) + content;
}

/// Reads a record from memory of exactly its size, so that a sanitizer detects a read beyond it.
Txt decode(std::string const& record) {
    std::vector<char> const memory(record.begin(), record.end());
    return Txt(static_cast<unsigned short>(memory.size()), memory.data());
}

std::string encode(Txt const& txt) {
    std::Buf const wire = txt.data();
    EXPECT_TRUE(wire.isValid());
    return std::string(reinterpret_cast<char const*>(wire.data), wire.getSize());
}

struct TxtRow : NamedRow {
    std::string record;
    Entries entries;
};

TxtRow const RECORDS[] = {
    {"nothing", "", {}},
    {"empty", bytes("\0"), {}},
    {"emptyTwice", bytes("\0\0"), {}},
    {"one", bytes("\3a=b"), {{"a", "b"}}},
    {"two", bytes("\3a=b\5cd=ef"), {{"a", "b"}, {"cd", "ef"}}},
    {"keyWithoutSeparatorAndEmptyKey", bytes("\3a=b\2cd\1="), {{"a", "b"}, {"", ""}}},
    {"emptyValue", bytes("\2a="), {{"a", ""}}},
    {"emptyKeyWithValue", bytes("\2=b"), {{"", "b"}}},
    {"emptyStringBetween", bytes("\3a=b\0\3c=d"), {{"a", "b"}, {"c", "d"}}},
    {"keyEndsAtTheFirstSeparator", bytes("\6a==b=c"), {{"a", "=b=c"}}},
    {"lastValueOfAKeyIsKept", bytes("\3a=1\3b=2\3a=3"), {{"a", "3"}, {"b", "2"}}},
    {"lastValueCanBeEmpty", bytes("\3a=1\2a="), {{"a", ""}}},
    {"lastWithoutSeparatorIsIgnored", bytes("\3a=1\1a"), {{"a", "1"}}},
    {"caseDiffers", bytes("\3a=1\3A=2"), {{"a", "1"}, {"A", "2"}}},
    {"unsorted", bytes("\3c=3\3a=1\3b=2"), {{"a", "1"}, {"b", "2"}, {"c", "3"}}},
    {"zeroBytes", bytes("\5\0=\0\0x"), {{bytes("\0"), bytes("\0\0x")}}},
    {"highBytes", bytes("\3\xFF=\x80"), {{"\xFF", "\x80"}}},
    {"overrunByOne", bytes("\3a=b\4c=d"), {{"a", "b"}}},
    {"overrunByFar", bytes("\3a=b\377c=d"), {{"a", "b"}}},
    {"overrunAtOnce", bytes("\1"), {}},
    {"lengthIsTheEnd", bytes("\3a=b\1"), {{"a", "b"}}},
    {"overrunEndsAll", bytes("\11a=b\3c=d"), {}},
};

VESK_TEST_TABLE(TxtOfRecord, hasTheEntries, testing::Test, RECORDS) {
    EXPECT_EQ(GetParam().entries, decode(GetParam().record));
}

TEST(TxtRecord, readsOnlyTheGivenSize) {
    EXPECT_TRUE(Txt(0, nullptr).empty());
    EXPECT_TRUE(Txt(0, "\3a=b").empty());
    EXPECT_EQ((Entries{{"a", "b"}}), Txt(4, "\3a=b\3c=d"));
}

TEST(TxtRecord, keepsTheEntriesBeforeACut) {
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

TEST(TxtRecord, canHaveTheLargestSize) {
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

TEST(TxtData, hasTheStringsInTheOrderOfTheirKeysOrAZeroByte) {
    EXPECT_EQ(bytes("\3a=1\3b=2\3c=3"), encode(decode(bytes("\3c=3\3a=1\3b=2"))));
    EXPECT_EQ(bytes("\3A=2\3a=1\6\xC3\xA4=xyz"), encode(decode(bytes("\6\xC3\xA4=xyz\3a=1\3A=2"))))
        << "bytes are compared, high ones come last";
    Txt txt;
    EXPECT_EQ(bytes("\0"), encode(txt));
    EXPECT_EQ(bytes("\0"), encode(Txt::EMPTY));
    EXPECT_TRUE(decode(encode(txt)).empty());
    txt[""] = "";
    EXPECT_EQ(bytes("\1="), encode(txt));
}

TEST(TxtData, lengthWrapsAtEightBitsAndCutsNothing) {
    std::tuple<size_t, size_t, int> const rows[] = {
        {0, 0, 1},   {1, 1, 3},     {1, 125, 127}, {1, 126, 128},  {1, 253, 255},  {1, 254, 0},
        {1, 255, 1}, {254, 0, 255}, {255, 0, 0},   {300, 300, 89}, {1, 70000, 114}};
    for (auto const& [key_size, value_size, length_byte] : rows) {
        std::string const key(key_size, 'k');
        std::string const value(value_size, 'v');
        Txt txt;
        txt[key] = value;
        EXPECT_EQ(std::string(1, static_cast<char>(length_byte)) + key + "=" + value, encode(txt));
    }
}

TEST(TxtData, goesOnAfterATooLongEntry) {
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

static_assert(std::is_base_of_v<Entries, Txt> && std::is_convertible_v<Txt const&, Entries const&>);
static_assert(std::is_const_v<decltype(Txt::EMPTY)>);

TEST(TxtMap, isAMapOfStringsWithDeepCopiesThatOrdersKeysByTheirBytes) {
    Txt txt;
    EXPECT_TRUE(txt.empty());
    for (char const* key : {"\xFF", "b", "", "B", "a", "ab"}) {
        txt[key] = "1";
    }
    std::vector<std::string> keys;
    for (auto const& [key, value] : txt) {
        keys.push_back(key);
    }
    EXPECT_EQ((std::vector<std::string>{"", "B", "a", "ab", "b", "\xFF"}), keys);
    Txt const copy(txt);
    txt["a"] = "2";
    EXPECT_EQ("1", copy.at("a"));
    EXPECT_EQ("2", txt.find("a")->second);
    EXPECT_EQ(txt.end(), txt.find("A"));
    txt.erase("b");
    EXPECT_EQ(5U, txt.size());
    txt = copy;
    EXPECT_EQ(copy, txt);
}

size_t const g_size_before_main = Txt::EMPTY.size();

TEST(TxtEmpty, isInitializedBeforeMain) {
    EXPECT_EQ(0U, g_size_before_main);
    EXPECT_TRUE(Txt::EMPTY.empty());
}

struct QuietClient : DnsSdBase::Client {
    void error() override { ++errors; }
    int errors = 0;
};

static_assert(std::is_abstract_v<DnsSdBase::Client> && !std::is_abstract_v<QuietClient>);
static_assert(std::has_virtual_destructor_v<DnsSdBase::Client>);

TEST(DnsSdBaseClient, doesNothingByDefault) {
    QuietClient quiet;
    DnsSdBase::Client& client = quiet;
    String const name = text("Printer");
    client.service_appeared(name, "_ipp._tcp", "local");
    client.service_disappeared(name, "_ipp._tcp", "local");
    client.all_for_now();
    client.resolved(name, "_ipp._tcp", "local", "printer.local", 631, Txt::EMPTY);
    client.address("printer.local", "192.0.2.1");
    EXPECT_EQ(0, quiet.errors);
    client.error();
    EXPECT_EQ(1, quiet.errors);
}

TEST(DnsSdBaseClient, operationsHaveTheirSlots) {
    using Client = DnsSdBase::Client;
    EXPECT_EQ(2, getSlot(&Client::error)) << "behind the two of the destructor";
    EXPECT_EQ(3, getSlot(&Client::service_appeared));
    EXPECT_EQ(4, getSlot(&Client::service_disappeared));
    EXPECT_EQ(5, getSlot(&Client::all_for_now));
    EXPECT_EQ(6, getSlot(&Client::resolved));
    EXPECT_EQ(7, getSlot(&Client::address));
}

} // namespace
