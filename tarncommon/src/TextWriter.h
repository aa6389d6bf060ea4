#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>

namespace tarnbase::detail {

/// Builds a text in a fixed array, without locks, the heap or the C library's formatting. Usable in signal
/// handlers. A text that does not fit is cut and ends in "...".
class TextWriter {
public:
    /// Starts an empty text. `size` is the size of `buffer`, including the closing null, and is at least 4.
    TextWriter(char* buffer, size_t size) noexcept
        : m_begin(buffer), m_end(buffer), m_limit(buffer + size - 1) {}

    void put(char character) noexcept;
    void put(char const* text) noexcept;
    void put(char const* text, size_t length) noexcept {
        size_t const room = static_cast<size_t>(m_limit - m_end);
        if (length > room) {
            m_cut = true;
            length = room;
        }
        memcpy(m_end, text, length);
        m_end += length;
    }
    void putSigned(long long value) noexcept;
    void putUnsigned(unsigned long long value, unsigned int base = 10) noexcept;
    void putAddress(void const* address) noexcept;

    /// Appends a printf-style text: `%s %c %d %i %u %x %p %%` with the lengths `h`, `l`, `ll` and `z`.
    void putFormatted(char const* format, va_list args) noexcept __attribute__((format(printf, 2, 0)));

    /// Appends "file:line: function: ", the beginning of each line of `GlobalErrorHandler` and
    /// `tarnbase::abort`.
    void putPlace(char const* file, int line, char const* function) noexcept;

    /// Appends the closing null and returns the length of the text without it.
    size_t finish() noexcept {
        if (m_cut) {
            memcpy(m_limit - 3, "...", 3);
        }
        *m_end = '\0';
        return static_cast<size_t>(m_end - m_begin);
    }

private:
    char* m_begin;
    char* m_end;
    char* m_limit; // Last possible position of the closing null.
    bool m_cut = false;
};

/// Writes a whole text to a descriptor, in one call if the system accepts all of it. Failures are ignored,
/// because there is no place to report them. Preserves `errno`.
void writeAll(int fd, char const* text, size_t length) noexcept;

} // namespace tarnbase::detail
