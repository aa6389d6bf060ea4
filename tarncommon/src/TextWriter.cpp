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
    size_t const room = static_cast<size_t>(m_limit - m_end);
    size_t length = strnlen(text, room + 1);
    if (length > room) {
        m_cut = true;
        length = room;
    }
    memcpy(m_end, text, length);
    m_end += length;
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

void TextWriter::putFormatted(char const* format, va_list args) noexcept {
    for (; *format != '\0'; ++format) {
        if (*format != '%') {
            put(*format);
            continue;
        }
        int longs = 0;
        bool size = false;
        for (++format; *format == 'l' || *format == 'h' || *format == 'z'; ++format) {
            longs += *format == 'l' ? 1 : 0;
            size = size || *format == 'z';
        }
        switch (*format) {
        case 's':
            put(va_arg(args, char const*));
            break;
        case 'c':
            put(static_cast<char>(va_arg(args, int)));
            break;
        case 'd':
        case 'i':
            putSigned(
                size             ? va_arg(args, ssize_t)
                    : longs >= 2 ? va_arg(args, long long)
                    : longs == 1 ? va_arg(args, long)
                                 : va_arg(args, int));
            break;
        case 'u':
        case 'x':
            putUnsigned(
                size             ? va_arg(args, size_t)
                    : longs >= 2 ? va_arg(args, unsigned long long)
                    : longs == 1 ? va_arg(args, unsigned long)
                                 : va_arg(args, unsigned int),
                *format == 'x' ? 16 : 10);
            break;
        case 'p':
            putAddress(va_arg(args, void const*));
            break;
        case '\0':
            return;
        default:
            put(*format);
            break;
        }
    }
}

void TextWriter::putPlace(char const* file, int line, char const* function) noexcept {
    put(file);
    put(':');
    putSigned(line);
    put(": ");
    put(function);
    put(": ");
}

size_t TextWriter::finish() noexcept {
    if (m_cut) {
        memcpy(m_limit - 3, "...", 3);
    }
    *m_end = '\0';
    return static_cast<size_t>(m_end - m_begin);
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
