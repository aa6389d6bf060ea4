#include <vesk/MutexOps.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Poison.h"
#include "vesk/posix/detail/ScopeExit.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/detail/WallDeadline.h"

#include <vesk/Mutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(Mutex::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::MUTEX;
}

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MutexOps";

constexpr ErrnoRow ATTRIBUTE_ERRORS[] = {
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SETTING_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow INIT_ERRORS[] = {
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {{ENOTSUP}, SysErrorId::NOT_IMPLEMENTED},
    {{EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow DESTROY_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow TIMED_LOCK_ERRORS[] = {
    {{EBUSY, ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {{EAGAIN, EINVAL, EDEADLK}, Mutex::ErrorId::INCONSISTENT},
    {{EOWNERDEAD}, Mutex::ErrorId::OWNER_DIED},
    {OTHERS, Mutex::ErrorId::LOCK_FAILED},
};

constexpr ErrnoRow LOCK_ERRORS[] = {
    {{EPERM, EBUSY, EINVAL, EDEADLK}, Mutex::ErrorId::INCONSISTENT},
    {{EOWNERDEAD}, Mutex::ErrorId::OWNER_DIED},
    {OTHERS, Mutex::ErrorId::LOCK_FAILED},
};

constexpr ErrnoRow UNLOCK_ERRORS[] = {
    {{EPERM, EINVAL}, Mutex::ErrorId::INCONSISTENT},
    {OTHERS, Mutex::ErrorId::UNLOCK_FAILED},
};

constexpr ErrnoRow TRY_LOCK_ERRORS[] = {
    {{EBUSY}, NONE, NONE, Outcome::BUSY},
    {{EPERM, EINVAL, EDEADLK}, Mutex::ErrorId::INCONSISTENT},
    {{EOWNERDEAD}, Mutex::ErrorId::OWNER_DIED},
    {OTHERS, Mutex::ErrorId::LOCK_FAILED},
};

constexpr ErrnoRow RECOVER_ERRORS[] = {
    {{EINVAL}, Mutex::ErrorId::INCONSISTENT},
    {OTHERS, Mutex::ErrorId::LOCK_FAILED},
};

bool create(pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared, bool robust) {
    pthread_mutexattr_t attributes;
    if (int const error = pthread_mutexattr_init(&attributes)) {
        classifyResult(SOURCE, ATTRIBUTE_ERRORS, error);
        return true;
    }
    ScopeExit const destroy([&attributes] {
        if (int const error = pthread_mutexattr_destroy(&attributes)) {
            std::GlobalErrorHandler::doWarning(
                SOURCE, __LINE__, "~AttrCleaner", "destroying mutex attributes failed, res = %d", error);
        }
    });
    static_assert(PTHREAD_MUTEX_RECURSIVE == 1 && PTHREAD_MUTEX_DEFAULT == 0);
    if (int const error = pthread_mutexattr_settype(&attributes, recursive)) {
        classifyResult(SOURCE, SETTING_ERRORS, error);
        return true;
    }
    if (priority_inherit) {
        if (int const error = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT)) {
            classifyResult(SOURCE, SETTING_ERRORS, error);
            return true;
        }
    }
    if (process_shared) {
        if (int const error = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED)) {
            classifyResult(SOURCE, SETTING_ERRORS, error);
            return true;
        }
    }
    if (robust) {
        if (int const error = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST)) {
            classifyResult(SOURCE, SETTING_ERRORS, error);
            return true;
        }
    }
    if (int const error = pthread_mutex_init(mutex, &attributes)) {
        classifyResult(SOURCE, INIT_ERRORS, error);
        return true;
    }
    return false;
}

} // namespace

bool MutexOps::init(pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared) {
    return init(mutex, recursive, priority_inherit, process_shared, false);
}

bool MutexOps::init(
    pthread_mutex_t* mutex, bool recursive, bool priority_inherit, bool process_shared, bool robust) {
    if (create(mutex, recursive, priority_inherit, process_shared, robust)) {
        poison(mutex, FAILED_LOCK);
        return true;
    }
    return false;
}

bool MutexOps::recover(pthread_mutex_t* mutex) {
    if (int const error = pthread_mutex_consistent(mutex)) {
        classifyResult(SOURCE, RECOVER_ERRORS, error);
        return true;
    }
    return false;
}

bool MutexOps::destroy(pthread_mutex_t* mutex) {
    if (isPoisoned(mutex, FAILED_LOCK)) {
        return false;
    }
    if (int const error = pthread_mutex_destroy(mutex)) {
        classifyResult(SOURCE, DESTROY_ERRORS, error);
        return true;
    }
    return false;
}

signed char MutexOps::tryLockTimeout(pthread_mutex_t* mutex, long long const& timeout_ms) {
    WallDeadline const deadline(timeout_ms);
    if (!deadline.isValid()) {
        // Required by callers: the report shows the result of the failed call, -1, instead of its error
        // number.
        errno = -1;
        report(SOURCE, Chain::NEW, Mutex::ErrorId::LOCK_FAILED, SystemErrorText().get());
        return -1;
    }
    int const error = pthread_mutex_timedlock(mutex, deadline.get());
    if (error == 0) {
        return 0;
    }
    return toResult(classifyResult(SOURCE, TIMED_LOCK_ERRORS, error));
}

bool MutexOps::handleLockError(int error) {
    classifyResult(SOURCE, LOCK_ERRORS, error);
    return true;
}

bool MutexOps::handleUnlockError(int error) {
    classifyResult(SOURCE, UNLOCK_ERRORS, error);
    return true;
}

signed char MutexOps::handleTryLockError(int error) {
    return toResult(classifyResult(SOURCE, TRY_LOCK_ERRORS, error));
}

} // namespace vesk
