#pragma once

#include <vesk/Export.h>

#include <cerrno>
#include <string>

namespace vesk {

/// Keeps an error number of the system and gives its text.
///
///     std::ErrorOutput(SOURCE, __LINE__, true)(vesk::SysError, vesk::SysErrorId::UNCLASSIFIED, vesk::SystemError().getString());
class VESK_API SystemError {
public:
    /// Keeps the calling thread's `errno`.
    VESK_API_INLINE SystemError() noexcept : m_error_number(errno) {}

    /// Keeps the given number, as the `pthread_*` functions return it.
    VESK_API_INLINE explicit SystemError(int error_number) noexcept : m_error_number(error_number) {}

    /// The system's text and the number, as in "Permission denied (errno = 13)". Re-entrant (`strerror_r`), callable
    /// from any thread, but not in a signal handler: it allocates, and throws `std::bad_alloc` if it cannot.
    std::string getString() const;

private:
    int m_error_number;
};

} // namespace vesk
