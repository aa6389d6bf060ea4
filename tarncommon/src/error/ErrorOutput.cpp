#include <tarncommon/error/ErrorOutput.h>

#include "TextWriter.h"

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
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

/// Formats the text of a row. The type of an argument decides how it prints, so the letter of a conversion is
/// skipped.
void putRow(TextWriter& writer, char const* format, ErrorArgument const* args, unsigned int count) noexcept {
    for (;;) {
        char const* const conversion = strchrnul(format, '%');
        writer.put(format, static_cast<size_t>(conversion - format));
        if (conversion[0] == '\0' || conversion[1] == '\0') {
            return;
        }
        if (conversion[1] == '%') {
            writer.put('%');
        } else if (count > 0) {
            putArgument(writer, *args++);
            --count;
        } else {
            writer.put('?');
        }
        format = conversion + 2;
    }
}

/// Guesses the argument of a `%s` from its value: small numbers, including negative ones, are not addresses
/// of texts. If the caller passed an `int`, only the lower half of a 64-bit argument is defined.
ErrorArgument tellText(char const* value) noexcept {
    constexpr int LARGEST_NUMBER = 4095;
    auto const address = reinterpret_cast<uintptr_t>(value);
    auto const number = static_cast<int32_t>(address);
    bool const extended =
        address == static_cast<uintptr_t>(number) || address == static_cast<uint32_t>(number);
    return value != nullptr && extended && number >= -LARGEST_NUMBER && number <= LARGEST_NUMBER
        ? ErrorArgument(number)
        : ErrorArgument(value);
}

} // namespace

void ErrorOutput::make(
    ErrorType const& type, int id, ErrorArgument const* args, unsigned int count) const noexcept {
    // Formatted before the store changes: an argument may be the text of a report that is discarded here.
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

/// Reads a text for each `%s`, and an `int` for any other conversion.
void ErrorOutput::reportVariadic(ErrorType const& type, int id, ...) const noexcept {
    constexpr unsigned int MAX_ARGUMENTS = 8;
    ErrorArgument list[MAX_ARGUMENTS] = {0, 0, 0, 0, 0, 0, 0, 0};
    ErrorID const* const row = type.getRow(id);
    unsigned int const wanted = row != nullptr ? static_cast<unsigned int>(row->nargs) : 0;
    unsigned int count = 0;
    va_list args;
    va_start(args, id);
    char const* at = wanted != 0 ? strchr(row->format, '%') : nullptr;
    while (at != nullptr && at[1] != '\0' && count < min(wanted, MAX_ARGUMENTS)) {
        if (at[1] == 's') {
            list[count++] = tellText(va_arg(args, char const*));
        } else if (at[1] != '%') {
            list[count++] = va_arg(args, int);
        }
        at = strchr(at + 2, '%');
    }
    va_end(args);
    make(type, id, list, count);
}

void ErrorOutput::operator()(ErrorObject const& object) const noexcept {
    // The object may be part of the chain that is discarded here.
    ErrorObject const copy(object); // NOLINT(performance-unnecessary-copy-initialization)
    ErrorObject& report = ErrorStorage::Chain::ofThread().open(m_new_chain);
    ErrorObject const* const next = report.next;
    report = copy;
    report.next = next;
    report.file = m_file;
    report.line = m_line;
}

} // namespace std
