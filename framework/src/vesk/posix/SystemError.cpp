#include <vesk/SystemError.h>

#include "SystemErrorText.h"

#include <cstdio>
#include <cstring>

namespace vesk {

namespace detail {

SystemErrorText::SystemErrorText(int error_number) noexcept {
    int const saved_errno = errno;
    char buffer[256];
    // The text need not lie in the buffer: this is the form of the call that returns where it is.
    char const* const text = strerror_r(error_number, buffer, sizeof buffer);
    snprintf(m_text, sizeof m_text, "%.255s (errno = %d)", text, error_number);
    errno = saved_errno;
}

} // namespace detail

std::string SystemError::getString() const {
    return detail::SystemErrorText(m_error_number).get();
}

} // namespace vesk
