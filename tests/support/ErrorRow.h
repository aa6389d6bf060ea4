#pragma once

#include "support/ErrnoRows.h"

/// Rows of errno tables as the parameters of tests.

namespace support {

namespace SysErrorId = vesk::SysErrorId;
namespace FileAccessErrorId = vesk::FileAccessErrorId;

/// An errno and the reports that it makes.
struct ErrorRow {
    int error;
    SysErrorId::Id id;
    std::optional<FileAccessErrorId::Id> access = std::nullopt; ///< Reported on top, with the name.
};

inline constexpr ErrorRow DENIED{EACCES, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
inline constexpr ErrorRow MISSING{ENOENT, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH};
inline constexpr ErrorRow EXISTING{EEXIST, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};

inline void PrintTo(ErrorRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

/// Rows that differ only in the error.
struct ErrorRows {
    std::vector<int> errors;
    SysErrorId::Id id;
    std::optional<FileAccessErrorId::Id> access = std::nullopt;
};

/// Returns one row for each error of a table.
inline std::vector<ErrorRow> rowsOf(std::vector<ErrorRows> const& table) {
    std::vector<ErrorRow> rows;
    for (ErrorRows const& some : table) {
        for (int const error : some.errors) {
            rows.push_back({error, some.id, some.access});
        }
    }
    return rows;
}

/// Returns the reports of a row, the root cause first.
inline std::vector<ExpectedReport> reportsOf(ErrorRow const& row, std::string const& name = {}) {
    std::string text = rowText(row.id, systemText(row.error));
    if (row.id == SysErrorId::PATH_TOO_LONG) {
        text = "Given path exceeds system maximum: " + name + " (" + std::to_string(name.size()) +
            " chars encountered, only max ? chars allowed)";
    }
    std::vector<ExpectedReport> reports{{row.id, text}};
    if (row.access) {
        reports.emplace_back(*row.access, rowText(*row.access, name));
    }
    return reports;
}

} // namespace support
