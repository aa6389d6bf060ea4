#pragma once

#include "support/Chain.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

/// Tests of errno tables, written as the library writes them: several error numbers with one report.

namespace support {

namespace SysErrorId = vesk::SysErrorId;
namespace FileAccessErrorId = vesk::FileAccessErrorId;

/// An error number of a system call, and the reports that an operation makes of it: the cause with the system's
/// text and, if the operation reports it, the meaning for the path on top.
struct ErrnoCase {
    int error;
    SysErrorId::Id cause;
    std::optional<FileAccessErrorId::Id> meaning = {};

    /// Checks that the pending chain is exactly these reports. Acknowledges the chain.
    testing::AssertionResult isPending(std::string const& path = "") const;
};

inline void PrintTo(ErrnoCase const& errno_case, std::ostream* out) {
    *out << "errno " << errno_case.error;
}

/// Error numbers that an operation reports alike: one row of the library's table.
struct ErrnoGroup {
    std::vector<int> errors;
    SysErrorId::Id cause;
    std::optional<FileAccessErrorId::Id> meaning = {};
};

/// Returns one case for each error number of a table.
inline std::vector<ErrnoCase> rowsOf(std::vector<ErrnoGroup> const& table) {
    std::vector<ErrnoCase> cases;
    for (ErrnoGroup const& group : table) {
        for (int const error : group.errors) {
            cases.push_back({error, group.cause, group.meaning});
        }
    }
    return cases;
}

/// Returns them as test parameters.
inline auto eachErrno(std::vector<ErrnoGroup> const& table) {
    return testing::ValuesIn(rowsOf(table));
}

/// Returns the reports of a path that does not name what the operation needs.
inline ErrnoCase badPath(int error) {
    return {error, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH};
}

/// Returns the reports of a path to which access is denied.
inline ErrnoCase accessDenied(int error) {
    return {error, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
}

inline ErrnoCase const DENIED = accessDenied(EACCES);
inline ErrnoCase const EXISTING{EEXIST, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};

/// Returns the reports of a row, the root cause first.
inline std::vector<ExpectedReport> reportsOf(ErrnoCase const& row, std::string const& name = {}) {
    std::string text = rowText(row.cause, systemText(row.error));
    if (row.cause == SysErrorId::PATH_TOO_LONG) {
        text = "Given path exceeds system maximum: " + name + " (" + std::to_string(name.size()) +
            " chars encountered, only max ? chars allowed)";
    }
    std::vector<ExpectedReport> reports{{row.cause, text}};
    if (row.meaning) {
        reports.emplace_back(*row.meaning, rowText(*row.meaning, name));
    }
    return reports;
}

inline testing::AssertionResult ErrnoCase::isPending(std::string const& path) const {
    return chainIs(reportsOf(*this, path));
}

/// Returns the report that a contract with the caller is broken.
inline ExpectedReport contractBroken(std::string const& text) {
    return {std::CommonErrorId::CONTRACT_BROKEN, rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}
/// Checks that only this report is pending. Acknowledges it.
inline testing::AssertionResult isContractBroken(std::string const& text) {
    return chainIs({contractBroken(text)});
}

// ---- Rows of any type: a struct with the numbers in `errors`, and an `error` that stays at its default.

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

template <typename Row, typename = void>
inline constexpr bool HAS_NAME = false;
template <typename Row>
inline constexpr bool HAS_NAME<Row, std::void_t<decltype(Row::name)>> = true;

/// Names a case by the `name` of its row, or by its error number, for example "ESRCH".
struct RowName {
    template <typename Row>
    std::string operator()(testing::TestParamInfo<Row> const& info) const {
        if constexpr (HAS_NAME<Row>) {
            return info.param.name;
        } else if constexpr (std::is_same_v<Row, int>) {
            return strerrorname_np(info.param);
        } else {
            return strerrorname_np(info.param.error);
        }
    }
};
using NumberName = RowName;

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
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
}

/// Checks that only the report of `leaveOlderReport` is pending.
inline testing::AssertionResult onlyOlderIsPending() {
    return chainIs({{SysErrorId::NO_SUCH_PROCESS}});
}

/// Checks the texts of a family's rows, all of which have as many arguments unless listed in `other_counts` by their
/// ids, that it has no further row, and whether it belongs to the errors of the system.
inline void expectRows(
    std::ErrorType const& family, std::initializer_list<char const*> texts, int argument_count,
    bool is_system = true, std::map<int, int> const& other_counts = {}) {
    int id = 0;
    for (char const* const text : texts) {
        auto const other = other_counts.find(id);
        ASSERT_NE(nullptr, family.getRow(id)) << id;
        EXPECT_EQ(id, family.getRow(id)->id);
        EXPECT_STREQ(text, family.getRow(id)->format);
        EXPECT_EQ(other == other_counts.end() ? argument_count : other->second, family.getRow(id)->nargs)
            << id;
        ++id;
    }
    EXPECT_EQ(nullptr, family.getRow(id));
    EXPECT_EQ(is_system, family.isA(vesk::SysError));
}

} // namespace support
