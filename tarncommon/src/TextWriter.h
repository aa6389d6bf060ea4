#pragma once

#include <cstdarg>
#include <cstddef>

namespace tarnbase::detail {

/// Builds a text in a fixed array, without locks, the heap or the C library's formatting: usable in signal handlers.
/// A text that does not fit ends in "...".
class TextWriter {
public:
    /// `size` counts the closing null and is at least 4.
    TextWriter(char* buffer, size_t size) noexcept
        : m_begin(buffer), m_end(buffer), m_limit(buffer + size - 1) {}

    void put(char character) noexcept;
    void put(char const* text) noexcept;
    void putSigned(long long value) noexcept;
    void putUnsigned(unsigned long long value, unsigned int base = 10) noexcept;
    void putAddress(void const* address) noexcept;

    /// Appends a printf-style text: `%s %c %d %i %u %x %p %%` with the lengths `h`, `l`, `ll` and `z`.
    void putFormatted(char const* format, va_list args) noexcept __attribute__((format(printf, 2, 0)));

    /// "file:line: function: ", the beginning of every line that this library writes.
    void putPlace(char const* file, int line, char const* function) noexcept;

    /// Closes the text with a null and gives its length.
    size_t finish() noexcept;

private:
    char* m_begin;
    char* m_end;
    char* m_limit; // Where the closing null goes at the latest.
    bool m_cut = false;
};

/// Writes a whole text to a descriptor, in one call wherever the system takes it in one. Failures have nowhere to go;
/// `errno` is kept.
void writeAll(int fd, char const* text, size_t length) noexcept;

} // namespace tarnbase::detail
