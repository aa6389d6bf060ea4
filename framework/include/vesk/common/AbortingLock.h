#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// Holds an internal lock, whose failure nobody could handle, for the length of a scope: being unable to lock or to
/// unlock goes to `std::GlobalErrorHandler::doAbort` with "error locking" or "error unlocking", in the name of the
/// operation that needs the lock. Should that return, the operation goes on as if it held the lock.
///
/// `Lock` is any class whose `lock()` and `unlock()` give a result that converts to true on failure.
template <typename Lock>
class [[nodiscard]] AbortingLock : private tarnbase::NonCopyable {
public:
    /// @param file      source path of the operation, kept by pointer
    /// @param function  its plain name, kept by pointer
    AbortingLock(Lock& lock, char const* file, char const* function, int line = __builtin_LINE())
        : m_lock(lock), m_file(file), m_function(function), m_line(line) {
        if (m_lock.lock()) {
            std::GlobalErrorHandler::doAbort(m_file, m_line, m_function, "error locking");
        }
    }

    ~AbortingLock() {
        if (m_lock.unlock()) {
            std::GlobalErrorHandler::doAbort(m_file, m_line, m_function, "error unlocking");
        }
    }

private:
    Lock& m_lock;
    char const* m_file;
    char const* m_function;
    int m_line;
};

} // namespace vesk
