#pragma once

#include "TextWriter.h"

#include <tarncommon/error/ErrorObject.h>

namespace tarnbase::detail {

/// One report of a chain as people read it: "file:line: text", and "  caused by " before all but the first.
class ChainLine {
public:
    ChainLine(std::ErrorObject const& report, bool first) noexcept : m_writer(m_text, sizeof m_text) {
        m_writer.put(first ? "" : "  caused by ");
        m_writer.put(report.file);
        m_writer.put(':');
        m_writer.putSigned(report.line);
        m_writer.put(": ");
        m_writer.put(report.getText());
    }

    void append(char character) noexcept { m_writer.put(character); }
    size_t getLength() noexcept { return m_writer.finish(); }
    char const* getText() noexcept {
        m_writer.finish();
        return m_text;
    }

private:
    char m_text[std::ErrorObject::TEXT_SIZE + 256];
    TextWriter m_writer;
};

} // namespace tarnbase::detail
