#pragma once

#include <vesk/loop/Export.h>

#include <tarncommon/error/ErrorObject.h>

#include <iosfwd>
#include <memory>
#include <string>
#include <system_error>

namespace vesk::loop {

/// Why an operation failed: a copy of its chain of reports, from the highest level to the root cause. Independent
/// of the thread's store and of the thread. Uses the heap only for a chain of more than four reports.
class VESK_LOOP_API Error {
public:
    /// Takes the chain that is pending in the calling thread's store, and acknowledges it.
    /// @param number  the error number of the failed system call below it, 0 if the chain tells it
    static Error take(int number = 0);

    /// @{
    /// Copies or takes the chain of another error.
    Error(Error const& other);
    Error(Error&& other) noexcept;
    Error& operator=(Error other) noexcept;
    ~Error();
    /// @}

    /// Returns the report of the highest level. Its `next` leads to the root cause.
    std::ErrorObject const& head() const noexcept { return get(0); }
    /// Returns the root cause.
    std::ErrorObject const& root() const noexcept { return get(m_count - 1); }
    /// Returns the number of reports.
    unsigned int count() const noexcept { return m_count; }

    /// Returns the system's error number of the root cause, in the category of the system. A root cause that is
    /// not a failed system call has the nearest number, such as `ENOMEM`, or else `EIO`.
    std::error_code code() const noexcept;
    /// Returns `code`.
    operator std::error_code() const noexcept { return code(); }

    /// @{
    /// Compares `code` with a condition that does not depend on the system.
    friend bool operator==(Error const& error, std::errc condition) { return error.code() == condition; }
    friend bool operator!=(Error const& error, std::errc condition) { return error.code() != condition; }
    /// @}

    /// Returns the whole chain as text, one line a report, the root cause last.
    std::string text() const;

private:
    static constexpr unsigned int INLINE_REPORTS = 4;

    Error() noexcept = default;
    std::ErrorObject const& get(unsigned int index) const noexcept;
    void copy(std::ErrorObject const* head, unsigned int count);
    void link() noexcept;

    unsigned int m_count = 0;
    int m_number = 0;
    alignas(std::ErrorObject) unsigned char m_first[INLINE_REPORTS * sizeof(std::ErrorObject)];
    std::unique_ptr<std::ErrorObject[]> m_more;
};

/// Writes the whole chain, one line a report.
VESK_LOOP_API std::ostream& operator<<(std::ostream& stream, Error const& error);

} // namespace vesk::loop
