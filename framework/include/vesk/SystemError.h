#pragma once

#include <vesk/Export.h>

#include <cerrno>
#include <string>

namespace vesk {

/// An error number of the system and its text.
///
///     std::ErrorOutput(SOURCE, __LINE__, true)(
///         vesk::SysError, vesk::SysErrorId::UNCLASSIFIED, vesk::SystemError().getString());
class VESK_API SystemError {
public:
    /// Stores the calling thread's `errno`.
    VESK_API_INLINE SystemError() noexcept : m_error_number(errno) {}

    /// Stores the given number, such as the result of a `pthread_*` function.
    VESK_API_INLINE explicit SystemError(int error_number) noexcept : m_error_number(error_number) {}

    /// Returns the system's text and the number, as in "Permission denied (errno = 13)". The text is in the
    /// language of the thread's locale (`strerror_r`); in the locale "C" it is read without a lock.
    /// Reentrant and callable from any thread. Not callable in a signal handler: it allocates, and throws
    /// `std::bad_alloc` if that fails.
    std::string getString() const;

private:
    int m_error_number;
};

} // namespace vesk
