#pragma once

#include "support/ErrnoRows.h"

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

template <typename Row, typename = void>
inline constexpr bool HAS_ERROR = false;
template <typename Row>
inline constexpr bool HAS_ERROR<Row, std::void_t<decltype(Row::error)>> = true;

/// Names the test after its row, whatever its type: by its `what` or `name`, with its error number if it has one, or
/// by its index.
struct TableName {
    template <typename Row>
    std::string operator()(testing::TestParamInfo<Row> const& info) const {
        if constexpr (std::is_base_of_v<NamedRow, Row>) {
            return info.param.what;
        } else if constexpr (HAS_NAME<Row> && HAS_ERROR<Row>) {
            return ErrnoName()(info);
        } else if constexpr (HAS_NAME<Row>) {
            return info.param.name;
        } else {
            return std::to_string(info.index);
        }
    }
};

/// Names the types of a typed test by their classes, for example "ShmRWLock".
struct TypeName {
    template <typename T>
    static std::string GetName(int) {
        std::string name = testing::internal::GetTypeName<T>();
        return name.substr(name.rfind(':') + 1);
    }
};

} // namespace support

/// Defines a test of a fixture that runs once for each row of an array or vector, with the row as `GetParam()`.
///
///     VESK_TEST_TABLE(TextSize, isTheNumberOfBytes, testing::Test, ROWS) {
///         EXPECT_EQ(GetParam().size, strlen(GetParam().text));
///     }
#define VESK_TEST_TABLE(suite, name, fixture, rows)                                                          \
    class suite : public fixture, public testing::WithParamInterface<std::decay_t<decltype((rows)[0])>> {};  \
    INSTANTIATE_TEST_SUITE_P(All, suite, testing::ValuesIn(rows), support::TableName());                     \
    TEST_P(suite, name)
