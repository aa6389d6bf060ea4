#pragma once

#include <tarncommon/Export.h>

#include <cstdint>

namespace std {

/// One row of an error family's table.
struct ErrorID {
    int32_t id;         ///< Number of the row in its family: counted from 0, in the order of the table.
    char const* format; ///< printf-style text. `%s` and `%d` are the only conversions.
    int32_t nargs;      ///< Number of arguments that a report of this row takes.
};

/// A family of errors: a constant table of numbered messages, and an optional parent.
///
/// A family is a public static object, identified by its address. It is initialized at compile time, so that
/// a report can be made from any initializer, whatever the order of the source files:
///
///     constexpr std::ErrorID ROWS[] = {{0, "Door %s is locked", 1}};
///     TARN_CONSTANT_INIT std::ErrorType const Door::Error(ROWS, 1, vesk::SysError);
///
/// All operations may be called from any thread at any time, and none can fail.
class TARN_API ErrorType {
public:
    /// Creates a family without a parent. `rows` must outlive the family.
    TARN_API_INLINE constexpr ErrorType(ErrorID const* rows, unsigned int count) noexcept
        : m_rows(rows), m_count(count) {}

    /// Creates a family that derives from `parent`: `ErrorStorage::isA` also counts its reports as reports of
    /// the parent.
    TARN_API_INLINE constexpr ErrorType(
        ErrorID const* rows, unsigned int count, ErrorType const& parent) noexcept
        : m_rows(rows), m_count(count), m_parent(&parent) {}

    ErrorType(ErrorType const&) = delete;
    ErrorType& operator=(ErrorType const&) = delete;

    /// Returns the row with the given id, or null if the table has no such row.
    ErrorID const* getRow(int id) const noexcept;

    /// Returns whether this family is `other` or derives from it.
    bool isA(ErrorType const& other) const noexcept;

private:
    ErrorID const* m_rows;
    unsigned int m_count;
    ErrorType const* m_parent = nullptr;
};

} // namespace std
