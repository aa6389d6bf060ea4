#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <ostream>
#include <string>
#include <type_traits>

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

/// Defines a test of a fixture that runs once for each row of an array, with the row as `GetParam()`.
///
///     VESK_TEST_TABLE(TextSize, isTheNumberOfBytes, testing::Test, ROWS) {
///         EXPECT_EQ(GetParam().size, strlen(GetParam().text));
///     }
#define VESK_TEST_TABLE(suite, name, fixture, rows)                                                          \
    class suite : public fixture, public testing::WithParamInterface<std::decay_t<decltype((rows)[0])>> {};  \
    INSTANTIATE_TEST_SUITE_P(All, suite, testing::ValuesIn(rows), support::byName);                          \
    TEST_P(suite, name)
