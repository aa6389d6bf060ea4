#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vesk::detail {

/// The system's text for an error number, in English: a constant, which takes neither a lock nor the heap, where glibc's
/// `strerror` may translate and takes the lock of the locale. Null for a number that the system does not know.
inline char const* getErrorDescription(int error_number) noexcept {
#if !defined(__GLIBC__)
    return strerror(error_number); // NOLINT(concurrency-mt-unsafe): it looks the text up in a constant table.
#elif __GLIBC_PREREQ(2, 32)
    return strerrordesc_np(error_number);
#else
    return error_number >= 0 && error_number < sys_nerr ? sys_errlist[error_number] : nullptr;
#endif
}

/// The text of `SystemError` without the heap, for reports: lives as a temporary behind the call that needs it. Keeps
/// `errno`.
class SystemErrorText {
public:
    explicit SystemErrorText(int error_number = errno) noexcept;

    char const* get() const noexcept { return m_text; }

private:
    // Room for the system's text, which its call limits to 256 bytes, and the number behind it.
    char m_text[256 + 32];
};

/// The same text, not translated: async-signal-safe, for what runs behind a fork.
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
