#pragma once

#include "support/ErrnoRows.h"

/// Cases of errno tables with the reports of a name.

namespace support {

namespace SysErrorId = vesk::SysErrorId;
namespace FileAccessErrorId = vesk::FileAccessErrorId;

inline ErrnoCase const DENIED = accessDenied(EACCES);
inline ErrnoCase const EXISTING{EEXIST, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};

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

} // namespace support
