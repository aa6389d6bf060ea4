#pragma once

#include "vesk/posix/detail/ErrorDescriptions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vesk::detail {

/// Returns the system's text for an error number, in English, or null for a number that the system does not
/// know. The text is a constant: reading it takes neither a lock nor the heap, while glibc's `strerror` may
/// translate and takes the lock of the locale.
inline char const* getErrorDescription(int error_number) noexcept {
#if defined(VESK_HAS_STRERRORDESC_NP)
    return strerrordesc_np(error_number);
#else
    return findErrorDescription(error_number);
#endif
}

/// The text of `SystemError` without the heap, for reports. Used as a temporary in the call that needs the
/// text. Preserves `errno`.
class SystemErrorText {
public:
    explicit SystemErrorText(int error_number = errno) noexcept;

    char const* get() const noexcept { return m_text; }

private:
    // Holds the system's text, which the call limits to 256 bytes, and the number after it.
    char m_text[256 + 32];
};

/// The same text, not translated. Async-signal-safe, for code that runs after a fork.
class UntranslatedErrorText {
public:
    explicit UntranslatedErrorText(int error_number = errno) noexcept;

    char const* get() const noexcept { return m_text; }

private:
    void put(char const* text) noexcept;
    void put(int number) noexcept;

    char m_text[128];
    char* m_end = m_text;
};

} // namespace vesk::detail
