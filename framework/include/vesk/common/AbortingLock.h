#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>

namespace vesk {

/// Guard that holds an internal lock for the duration of a scope, for code that cannot handle a failure of
/// the lock. If locking or unlocking fails, `std::GlobalErrorHandler::doAbort` is called with "error locking"
/// or "error unlocking", in the name of the operation that needs the lock. If that call returns, the
/// operation continues as if it held the lock.
///
/// `Lock` is any class with `lock()` and `unlock()` that return a result which converts to true on failure.
template <typename Lock>
class [[nodiscard]] TARN_SCOPED_LOCK AbortingLock : private tarnbase::NonCopyable {
public:
    /// @param file      source path of the operation, kept by pointer
    /// @param function  plain name of the operation, kept by pointer
    AbortingLock(Lock& lock, char const* file, char const* function, int line = __builtin_LINE())
        TARN_ACQUIRE(lock) TARN_NOT_ANALYZED : m_lock(lock),
                                               m_file(file),
                                               m_function(function),
                                               m_line(line) {
        if (m_lock.lock()) {
            std::GlobalErrorHandler::doAbort(m_file, m_line, m_function, "error locking");
        }
    }

    ~AbortingLock() TARN_RELEASE() TARN_NOT_ANALYZED {
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
