#include <vesk/RWLockOps.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Poison.h"
#include "vesk/posix/detail/ScopeExit.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/detail/WallDeadline.h"

#include <vesk/RWLock.h>
#include <vesk/SysError.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(RWLock::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::RW_LOCK;
}

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/RWLockOps";

constexpr ErrnoRow ATTRIBUTE_ERRORS[] = {
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SETTING_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow INIT_ERRORS[] = {
    {{EPERM}, SysErrorId::PERMISSION_DENIED}, {{EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},    {{EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow DESTROY_ERRORS[] = {
    {{EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// The rows for reading and for writing. Only the report for all other numbers differs.
template <RWLock::ErrorId OTHERS_ID>
constexpr ErrnoRow LOCK_ERRORS[4] = {
    {{EBUSY, ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {{EDEADLK}, RWLock::ErrorId::DEADLOCK},
    {{EAGAIN}, RWLock::ErrorId::TOO_MANY_LOCKS},
    {OTHERS, OTHERS_ID},
};

constexpr ErrnoRow UNLOCK_ERRORS[] = {
    {{EPERM}, SysErrorId::PERMISSION_DENIED, RWLock::ErrorId::UNLOCK_FAILED},
    {OTHERS, RWLock::ErrorId::UNLOCK_FAILED},
};

/// Reports that creating a lock failed. The text is that of error number 0. Required by callers: log filters
/// match this text, and the id alone identifies the cause.
void reportInit(int error) noexcept {
    for (ErrnoRow const& row : INIT_ERRORS) {
        if (row.errnos.has(error)) {
            report(SOURCE, Chain::NEW, row.cause.getFamily(), row.cause.getId(), SystemErrorText(0).get());
            return;
        }
    }
}

/// Creates the lock. Returns true on failure, with a report.
/// @param attributes  null: the system's defaults
bool create(pthread_rwlock_t* lock, pthread_rwlockattr_t const* attributes) {
    if (int const error = pthread_rwlock_init(lock, attributes)) {
        reportInit(error);
        return true;
    }
    return false;
}

bool createShared(pthread_rwlock_t* lock) {
    pthread_rwlockattr_t attributes;
    if (int const error = pthread_rwlockattr_init(&attributes)) {
        classify(SOURCE, ATTRIBUTE_ERRORS, error);
        return true;
    }
    ScopeExit const destroy([&attributes] {
        if (pthread_rwlockattr_destroy(&attributes) != 0) {
            std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "init", "error destroying temp. attr.");
        }
    });
    if (int const error = pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED)) {
        classify(SOURCE, SETTING_ERRORS, error);
        return true;
    }
    return create(lock, &attributes);
}

} // namespace

bool RWLockOps::init(pthread_rwlock_t* lock, bool process_shared) {
    return process_shared ? createShared(lock) : create(lock, nullptr);
}

bool RWLockOps::destroy(pthread_rwlock_t* lock) {
    if (isPoisoned(lock, NO_LOCK)) {
        return false;
    }
    if (int const error = pthread_rwlock_destroy(lock)) {
        classify(SOURCE, DESTROY_ERRORS, error);
        return true;
    }
    return false;
}

signed char RWLockOps::lock(pthread_rwlock_t* lock, bool for_write, unsigned int const* timeout_ms) {
    int error = 0;
    if (timeout_ms == nullptr) {
        error = for_write ? pthread_rwlock_wrlock(lock) : pthread_rwlock_rdlock(lock);
    } else if (*timeout_ms == 0) {
        error = for_write ? pthread_rwlock_trywrlock(lock) : pthread_rwlock_tryrdlock(lock);
    } else {
        WallDeadline const deadline(*timeout_ms);
        if (!deadline.isValid()) {
            RWLock::ErrorId const id =
                for_write ? RWLock::ErrorId::WRITE_LOCK_FAILED : RWLock::ErrorId::READ_LOCK_FAILED;
            report(SOURCE, Chain::NEW, id, SystemErrorText().get());
            return -1;
        }
        error = for_write ? pthread_rwlock_timedwrlock(lock, deadline.get())
                          : pthread_rwlock_timedrdlock(lock, deadline.get());
    }
    return error == 0 ? static_cast<signed char>(0) : handleLockError(error, for_write);
}

signed char RWLockOps::handleLockError(int error, bool for_write) {
    ErrnoTable const table = for_write ? LOCK_ERRORS<RWLock::ErrorId::WRITE_LOCK_FAILED>
                                       : LOCK_ERRORS<RWLock::ErrorId::READ_LOCK_FAILED>;
    return toResult(classify(SOURCE, table, error));
}

bool RWLockOps::handleUnlockError(int error) {
    classify(SOURCE, UNLOCK_ERRORS, error, SystemErrorText(error).get());
    return true;
}

} // namespace vesk
