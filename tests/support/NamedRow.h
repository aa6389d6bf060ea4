#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <ostream>
#include <string>

namespace support {

/// The base of a row of a parameterized test: its name in the output.
struct NamedRow {
    NamedRow(char const* name) : what(name) {}

    char const* what;
};

inline std::ostream& operator<<(std::ostream& out, NamedRow const& row) {
    return out << row.what;
}

/// Returns the parameters of a test, one per row.
template <typename Row>
auto rowsOf(std::initializer_list<Row> rows) {
    return testing::ValuesIn(rows);
}

/// Names the test after its row.
inline auto const byName = [](auto const& info) { return std::string(info.param.what); };

} // namespace support
