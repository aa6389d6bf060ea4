#pragma once

#include <tarncommon/Export.h>

#include <cstdint>

namespace std {

/// One row of an error family's table.
struct ErrorID {
    int32_t id;         ///< Number of the message in its family: counted from 0, in the order of the table.
    char const* format; ///< printf-style text; `%s` and `%d` are its only conversions.
    int32_t nargs;      ///< How many arguments a report of this row takes.
};

/// A family of errors: a constant table of numbered messages, and perhaps a parent.
///
/// A family is a public static object and is told from others by its address. It is initialised at compile time,
/// so a report may be made from any initialiser, whatever the order of the source files:
///
///     constexpr std::ErrorID ROWS[] = {{0, "Door %s is locked", 1}};
///     TARN_CONSTANT_INIT std::ErrorType const Door::Error(ROWS, 1, vesk::SysError);
///
/// All operations are callable from any thread at any time and cannot fail.
class TARN_API ErrorType {
public:
    /// A family without a parent. `rows` must outlive the family.
    TARN_API_INLINE constexpr ErrorType(ErrorID const* rows, unsigned int count) noexcept
        : m_rows(rows), m_count(count) {}

    /// A family that derives from `parent`: its reports also count as the parent's in `ErrorStorage::isA`.
    TARN_API_INLINE constexpr ErrorType(
        ErrorID const* rows, unsigned int count, ErrorType const& parent) noexcept
        : m_rows(rows), m_count(count), m_parent(&parent) {}

    ErrorType(ErrorType const&) = delete;
    ErrorType& operator=(ErrorType const&) = delete;

    /// The row with the given id, null when the table has none.
    ErrorID const* getRow(int id) const noexcept;

    /// Whether this family is `other` or derives from it.
    bool isA(ErrorType const& other) const noexcept;

private:
    ErrorID const* m_rows;
    unsigned int m_count;
    ErrorType const* m_parent = nullptr;
};

} // namespace std
