#pragma once

#include "TextWriter.h"

#include <tarncommon/error/ErrorObject.h>

namespace tarnbase::detail {

/// One report of a chain as people read it: "file:line: text", and "  caused by " before all but the first.
class ChainLine {
public:
    // One byte is left for the end of a line that is cut.
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

    /// Puts a newline behind the text, and tells the length of both. `getText` comes before.
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
