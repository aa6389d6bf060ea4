#pragma once

#include "support/Chain.h"

#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

/// Rows of errno tables, written as the library writes them: several error numbers with one report. A row is a
/// struct with a `name`, the numbers in `errors`, and an `error` that stays at its default.
namespace support {

/// Returns one row for each error number, with the number in `error`.
template <typename Row>
std::vector<Row> eachErrno(std::initializer_list<Row> rows) {
    std::vector<Row> cases;
    for (Row const& row : rows) {
        for (int const error : row.errors) {
            cases.push_back(row);
            cases.back().error = error;
        }
    }
    return cases;
}

/// Names a case by its row and its error number, if any, for example "lock_EPERM".
struct ErrnoName {
    template <typename Info>
    std::string operator()(Info const& info) const {
        std::string const name = info.param.name;
        return info.param.error == 0 ? name : name + "_" + strerrorname_np(info.param.error);
    }
};

/// Names a case by the `name` of its row.
struct RowName {
    template <typename Info>
    std::string operator()(Info const& info) const {
        return info.param.name;
    }
};

/// Names the case of a number, for example "ESRCH".
struct NumberName {
    template <typename Info>
    std::string operator()(Info const& info) const {
        return strerrorname_np(info.param);
    }
};

/// Returns these reports with their texts, with that of an error number as the argument of each row that has one.
inline std::vector<ExpectedReport> withErrno(std::vector<ExpectedReport> reports, int error) {
    for (ExpectedReport& report : reports) {
        bool const has_row = report.family->getRow(report.id) != nullptr;
        report.text = has_row ? rowText(*report.family, report.id, systemText(error))
                              : "unknown error " + std::to_string(report.id);
    }
    return reports;
}

/// Leaves a report pending, which shows whether an operation opens a new chain.
inline void leaveOlderReport() {
    std::ErrorOutput("older", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
}

/// Checks that only the report of `leaveOlderReport` is pending.
inline testing::AssertionResult onlyOlderIsPending() {
    return chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}});
}

/// Checks the texts of a family's rows, all of which have as many arguments, and that it has no further row.
inline void
expectRows(std::ErrorType const& family, std::initializer_list<char const*> texts, int argument_count) {
    int id = 0;
    for (char const* const text : texts) {
        ASSERT_NE(nullptr, family.getRow(id)) << id;
        EXPECT_EQ(id, family.getRow(id)->id);
        EXPECT_STREQ(text, family.getRow(id)->format);
        EXPECT_EQ(argument_count, family.getRow(id)->nargs) << id;
        ++id;
    }
    EXPECT_EQ(nullptr, family.getRow(id));
    EXPECT_TRUE(family.isA(vesk::SysError));
}

} // namespace support
