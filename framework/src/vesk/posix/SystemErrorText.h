#pragma once

#include <cerrno>

namespace vesk::detail {

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

} // namespace vesk::detail
