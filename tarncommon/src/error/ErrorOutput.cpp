#include <tarncommon/error/ErrorOutput.h>

#include "TextWriter.h"

#include <tarncommon/error/ErrorStorage.h>

#include <cstring>

namespace std {

namespace {

using tarnbase::detail::TextWriter;

void putArgument(TextWriter& writer, ErrorArgument const& argument) noexcept {
    switch (argument.getKind()) {
    case ErrorArgument::Kind::TEXT:
        writer.put(argument.getText());
        break;
    case ErrorArgument::Kind::SIGNED:
        writer.putSigned(argument.getSigned());
        break;
    case ErrorArgument::Kind::UNSIGNED:
        writer.putUnsigned(argument.getUnsigned());
        break;
    case ErrorArgument::Kind::ADDRESS:
        writer.putAddress(argument.getAddress());
        break;
    }
}

/// The type of an argument decides how it prints, so the letter of a conversion is only passed over.
void putRow(TextWriter& writer, char const* format, ErrorArgument const* args, unsigned int count) noexcept {
    for (; *format != '\0'; ++format) {
        if (*format != '%') {
            writer.put(*format);
            continue;
        }
        ++format;
        if (*format == '\0') {
            return;
        }
        if (*format == '%') {
            writer.put('%');
        } else if (count > 0) {
            putArgument(writer, *args++);
            --count;
        } else {
            writer.put('?');
        }
    }
}

} // namespace

void ErrorOutput::make(
    ErrorType const& type, int id, ErrorArgument const* args, unsigned int count) const noexcept {
    // Formatted before the store is touched: an argument may be the text of a report that is given up here.
    char text[ErrorObject::TEXT_SIZE];
    TextWriter writer(text, sizeof text);
    if (ErrorID const* const row = type.getRow(id)) {
        unsigned int const taken = static_cast<unsigned int>(row->nargs);
        putRow(writer, row->format, args, count < taken ? count : taken);
    } else {
        writer.put("unknown error ");
        writer.putSigned(id);
    }
    size_t const length = writer.finish();

    ErrorObject& report = ErrorStorage::Chain::ofThread().open(m_new_chain);
    report.file = m_file;
    report.line = m_line;
    report.m_type = &type;
    report.m_id = id;
    report.m_length = static_cast<unsigned int>(length);
    memcpy(report.m_text, text, length + 1);
}

void ErrorOutput::operator()(ErrorObject const& object) const noexcept {
    // The object may lie in the chain that is given up here.
    ErrorObject const copy(object); // NOLINT(performance-unnecessary-copy-initialization)
    ErrorObject& report = ErrorStorage::Chain::ofThread().open(m_new_chain);
    ErrorObject const* const next = report.next;
    report = copy;
    report.next = next;
    report.file = m_file;
    report.line = m_line;
}

} // namespace std
