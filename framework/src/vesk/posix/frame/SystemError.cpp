#include <vesk/SystemError.h>

#include "vesk/posix/detail/SystemErrorText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace vesk {

namespace detail {

SystemErrorText::SystemErrorText(int error_number) noexcept {
    int const saved_errno = errno;
    char buffer[256];
    // This is the GNU form of the call: it returns the address of the text, which need not be in the buffer.
    char const* const text = strerror_r(error_number, buffer, sizeof buffer);
    snprintf(m_text, sizeof m_text, "%.255s (errno = %d)", text, error_number);
    errno = saved_errno;
}

UntranslatedErrorText::UntranslatedErrorText(int error_number) noexcept {
    if (char const* const text = getErrorDescription(error_number)) {
        put(text);
    } else {
        put("Unknown error ");
        put(error_number);
    }
    put(" (errno = ");
    put(error_number);
    put(")");
}

void UntranslatedErrorText::put(char const* text) noexcept {
    size_t const room = static_cast<size_t>(m_text + sizeof m_text - m_end);
    size_t const length = std::min(strlen(text), room - 1);
    memcpy(m_end, text, length);
    m_end += length;
    *m_end = '\0';
}

void UntranslatedErrorText::put(int number) noexcept {
    char digits[16]{};
    std::to_chars(digits, digits + sizeof digits - 1, number);
    put(digits);
}

} // namespace detail

std::string SystemError::getString() const {
    return detail::SystemErrorText(m_error_number).get();
}

} // namespace vesk
