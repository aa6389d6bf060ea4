#include "support/NamedRow.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/IPCIdentifier.h>

#include <cstring>

namespace {

using support::chainIs;
using support::rowText;
using vesk::IPC_NAME_SIZE;
using vesk::transformToIPCIdentifier;
using Reports = std::vector<support::ExpectedReport>;

template <typename Id>
Reports reportOf(Id id, char const* text) {
    return {{id, rowText(id, text)}};
}

Reports const VALID;
Reports const SEPARATOR = reportOf(std::CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name");
Reports const NOTHING = reportOf(std::CommonErrorId::INVALID_ARGUMENT, "null ptr. or zero size turned in");
Reports const TOO_LONG = reportOf(std::CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long");

std::string const LONGEST(254, 'n');

struct Row : support::NamedRow {
    std::string name;
    unsigned int size;
    std::string result;
    Reports reports;
};

Row const ROWS[] = {
    {"shortName", "orders", IPC_NAME_SIZE, "/orders", VALID},
    {"emptyName", "", IPC_NAME_SIZE, "/", VALID},
    {"nameOf254Characters", LONGEST, IPC_NAME_SIZE, "/" + LONGEST, VALID},
    {"nameOf255Characters", LONGEST + "n", IPC_NAME_SIZE, "/" + LONGEST, TOO_LONG},
    {"separatorFirst", "/orders", IPC_NAME_SIZE, "/", SEPARATOR},
    {"separatorInTheMiddle", "or/ders", IPC_NAME_SIZE, "/or", SEPARATOR},
    {"separatorLast", "orders/", IPC_NAME_SIZE, "/orders", SEPARATOR},
    {"separatorAlone", "/", IPC_NAME_SIZE, "/", SEPARATOR},
    {"twoSeparators", "//", IPC_NAME_SIZE, "/", SEPARATOR},
    {"separatorDirectlyAfterTheLastCharacterThatFits", LONGEST + "/more", IPC_NAME_SIZE, "/" + LONGEST,
     SEPARATOR},
    {"separatorFurtherBehindIsNotFound", LONGEST + "n/more", IPC_NAME_SIZE, "/" + LONGEST, TOO_LONG},
    {"nameThatFitsASmallSize", "abc", 5, "/abc", VALID},
    {"nameLargerThanASmallSize", "abcd", 5, "/abc", TOO_LONG},
    {"emptyNameInTheSmallestSize", "", 2, "/", VALID},
    {"nameInTheSmallestSize", "a", 2, "/", TOO_LONG}};
VESK_TEST_TABLE(IPCIdentifier, isASeparatorAndTheNameAndNothingIsWrittenBehindIt, testing::Test, ROWS) {
    Row const& row = GetParam();
    char result[512];
    memset(result, 'x', sizeof result);
    EXPECT_EQ(!row.reports.empty(), transformToIPCIdentifier(row.name.c_str(), result, row.size));
    EXPECT_TRUE(chainIs(row.reports));
    EXPECT_EQ(row.result, result);
    for (size_t i = row.result.size() + 1; i < sizeof result; ++i) {
        EXPECT_EQ('x', result[i]) << i;
    }
}

TEST(IPCIdentifierArguments, nullAndSize0AreRefusedAndNothingIsWritten) {
    char result[4] = "xyz";
    EXPECT_TRUE(transformToIPCIdentifier(nullptr, result, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs(NOTHING));
    EXPECT_TRUE(transformToIPCIdentifier("orders", nullptr, IPC_NAME_SIZE));
    EXPECT_TRUE(chainIs(NOTHING));
    EXPECT_TRUE(transformToIPCIdentifier("orders", result, 0));
    EXPECT_TRUE(chainIs(NOTHING));
    EXPECT_STREQ("xyz", result);
}

} // namespace
