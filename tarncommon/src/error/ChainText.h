#pragma once

#include "TextWriter.h"

#include <tarncommon/error/ErrorObject.h>

namespace tarnbase::detail {

/// One report of a chain as a line of readable text: "file:line: text", with "  caused by " before all but
/// the first.
class ChainLine {
public:
    // Reserves one byte for the newline after a cut text.
    ChainLine(std::ErrorObject const& report, bool first) noexcept : m_writer(m_text, sizeof m_text - 1) {
        m_writer.put(first ? "" : "  caused by ");
        m_writer.put(report.file);
        m_writer.put(':');
        m_writer.putSigned(report.line);
        m_writer.put(": ");
        m_writer.put(report.getText());
    }

    char const* getText() noexcept {
        m_writer.finish();
        return m_text;
    }

    /// Appends a newline to the text, and returns the length of both. `getText` must be called before.
    size_t endLine() noexcept {
        size_t const length = m_writer.finish();
        m_text[length] = '\n';
        return length + 1;
    }

private:
    char m_text[std::ErrorObject::TEXT_SIZE + 256];
    TextWriter m_writer;
};

} // namespace tarnbase::detail
