#include "TextWriter.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarnbase::detail {

void TextWriter::put(char character) noexcept {
    if (m_end == m_limit) {
        m_cut = true;
        return;
    }
    *m_end++ = character;
}

void TextWriter::put(char const* text) noexcept {
    if (text == nullptr) {
        text = "(null)";
    }
    put(text, strnlen(text, static_cast<size_t>(m_limit - m_end) + 1));
}

void TextWriter::putSigned(long long value) noexcept {
    unsigned long long magnitude = static_cast<unsigned long long>(value);
    if (value < 0) {
        put('-');
        magnitude = 0 - magnitude;
    }
    putUnsigned(magnitude);
}

void TextWriter::putUnsigned(unsigned long long value, unsigned int base) noexcept {
    char digits[24];
    char* digit = digits + sizeof digits;
    *--digit = '\0';
    do {
        *--digit = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    put(digit);
}

void TextWriter::putAddress(void const* address) noexcept {
    put("0x");
    putUnsigned(reinterpret_cast<uintptr_t>(address), 16);
}

namespace {

/// The length modifiers of a conversion.
struct Length {
    int longs = 0;
    bool is_size = false;

    /// Reads the modifiers, and returns the position after them.
    char const* read(char const* format) noexcept {
        for (; *format == 'l' || *format == 'h' || *format == 'z'; ++format) {
            longs += *format == 'l' ? 1 : 0;
            is_size = is_size || *format == 'z';
        }
        return format;
    }
};

/// Takes the next argument of the given length.
template <typename Int, typename Long, typename LongLong, typename Size>
LongLong take(va_list* args, Length length) noexcept {
    if (length.is_size) {
        return static_cast<LongLong>(va_arg(*args, Size));
    }
    switch (length.longs) {
    case 0: // NOLINT(bugprone-branch-clone): the types differ.
        return va_arg(*args, Int);
    case 1:
        return va_arg(*args, Long);
    default:
        return va_arg(*args, LongLong);
    }
}

void putConversion(TextWriter& writer, char conversion, Length length, va_list* args) noexcept {
    switch (conversion) {
    case 's':
        writer.put(va_arg(*args, char const*));
        break;
    case 'c':
        writer.put(static_cast<char>(va_arg(*args, int)));
        break;
    case 'd':
    case 'i':
        writer.putSigned(take<int, long, long long, ssize_t>(args, length));
        break;
    case 'u':
    case 'x':
        writer.putUnsigned(
            take<unsigned int, unsigned long, unsigned long long, size_t>(args, length),
            conversion == 'x' ? 16 : 10);
        break;
    case 'p':
        writer.putAddress(va_arg(*args, void const*));
        break;
    default:
        writer.put(conversion);
        break;
    }
}

} // namespace

void TextWriter::putFormatted(char const* format, va_list args) noexcept {
    va_list rest;
    va_copy(rest, args);
    for (; *format != '\0'; ++format) {
        if (*format != '%') {
            put(*format);
            continue;
        }
        Length length;
        format = length.read(format + 1);
        if (*format == '\0') {
            break;
        }
        putConversion(*this, *format, length, &rest);
    }
    va_end(rest);
}

void TextWriter::putPlace(char const* file, int line, char const* function) noexcept {
    put(file);
    put(':');
    putSigned(line);
    put(": ");
    put(function);
    put(": ");
}

void writeAll(int fd, char const* text, size_t length) noexcept {
    int const saved_errno = errno;
    while (length > 0) {
        // The raw system call, because write() is a cancellation point: a thread may be canceled while it
        // warns or reports.
        long const done = syscall(SYS_write, fd, text, length);
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            break;
        }
        text += done;
        length -= static_cast<size_t>(done);
    }
    errno = saved_errno;
}

} // namespace tarnbase::detail
