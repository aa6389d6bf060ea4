#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/error/ErrorType.h>

namespace std {

/// One report: what failed, in words and numbers, and where. A plain value of fixed size that never allocates.
///
/// The reports of one failure form a chain: the head is the report of the highest level, `next` leads down to the
/// root cause.
class TARN_API ErrorObject {
public:
    /// Bytes for the text with its closing null. A longer text is cut and ends in "...".
    static constexpr unsigned int TEXT_SIZE = 512;

    /// An empty report: no family, id -1, no text.
    TARN_API_INLINE constexpr ErrorObject() noexcept {}

    /// Copies the report itself. The copy stands alone: its `next` is null, since the chain of the source may be
    /// gone at any time.
    ErrorObject(ErrorObject const& other) noexcept;
    ErrorObject& operator=(ErrorObject const& other) noexcept;

    /// The family, null in an empty report.
    ErrorType const* getType() const noexcept { return m_type; }

    /// The number of the row in its family; it may lie outside the table.
    int getID() const noexcept { return m_id; }

    /// The formatted text, at most `TEXT_SIZE` - 1 bytes.
    char const* getText() const noexcept { return m_text; }

    char const* file = nullptr;        ///< Source path of the report, a constant text.
    int line = 0;                      ///< Source line of the report.
    ErrorObject const* next = nullptr; ///< The report one level nearer to the root cause; null in the root.

private:
    friend class ErrorOutput;

    ErrorType const* m_type = nullptr;
    int m_id = -1;
    unsigned int m_length = 0;
    char m_text[TEXT_SIZE] = {};
};

} // namespace std
