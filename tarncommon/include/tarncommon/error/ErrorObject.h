#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// One report: the description of a failure and its place in the source. A plain value of fixed size that
/// never allocates.
///
/// The reports of one failure form a chain. The head is the report of the highest level, and `next` leads
/// towards the root cause.
class TARN_API ErrorObject {
public:
    /// Size of the text in bytes, including the closing null. A longer text is cut and ends in "...".
    static constexpr unsigned int TEXT_SIZE = 512;

    /// Creates an empty report: no family, id -1, no text.
    TARN_API_INLINE constexpr ErrorObject() noexcept {}

    /// Copies the report without its chain: `next` is null in the copy, because the chain of the source may
    /// be discarded at any time.
    ErrorObject(ErrorObject const& other) noexcept;
    ErrorObject& operator=(ErrorObject const& other) noexcept;

    /// Returns the family, or null for an empty report.
    ErrorType const* getType() const noexcept { return m_type; }

    /// Returns the id of the row in its family. The id may lie outside of the table.
    int getID() const noexcept { return m_type == nullptr ? -1 : m_id; }

    /// Returns the formatted text, at most `TEXT_SIZE` - 1 bytes.
    char const* getText() const noexcept { return m_text; }

    char const* file = nullptr;        ///< Source path of the report; points to a constant text.
    int line = 0;                      ///< Source line of the report.
    ErrorObject const* next = nullptr; ///< The report one level nearer to the root cause; null in the root.

private:
    friend class ErrorOutput;

    // All zero in an empty report, so that the chain of each thread needs no initial image in the library.
    ErrorType const* m_type = nullptr;
    int m_id = 0;
    unsigned int m_length = 0;
    char m_text[TEXT_SIZE] = {};
};

} // namespace std
