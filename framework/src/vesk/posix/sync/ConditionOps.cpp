#include <vesk/ConditionOps.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Poison.h"
#include "vesk/posix/detail/ScopeExit.h"

#include <vesk/Condition.h>
#include <vesk/SysError.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

constexpr detail::FamilyIndex familyIndexOf(Condition::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::CONDITION;
}

constexpr detail::FamilyIndex familyIndexOf(Mutex::ErrorId /*unused*/) noexcept {
    return detail::FamilyIndex::MUTEX;
}

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ConditionOps";

constexpr ErrnoRow INIT_ERRORS[] = {
    {{EAGAIN}, SysErrorId::RESOURCES_EXHAUSTED, Condition::ErrorId::CREATE_FAILED},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, Condition::ErrorId::CREATE_FAILED},
    {{EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY, Condition::ErrorId::CREATE_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Condition::ErrorId::CREATE_FAILED},
};

constexpr ErrnoRow DESTROY_ERRORS[] = {
    {{EBUSY, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow WAIT_ERRORS[] = {
    {{ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {{EINVAL, EPERM}, SysErrorId::SPOILED_INTEGRITY, Condition::ErrorId::WAIT_FAILED},
    // Alone, as from a lock: the caller was woken, holds the lock, and recovers it in the same way.
    {{EOWNERDEAD}, Mutex::ErrorId::OWNER_DIED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Condition::ErrorId::WAIT_FAILED},
};

constexpr ErrnoRow SIGNAL_ERRORS[] = {
    {{EINVAL}, SysErrorId::SPOILED_INTEGRITY, Condition::ErrorId::SIGNAL_FAILED},
    {OTHERS, SysErrorId::UNCLASSIFIED, Condition::ErrorId::SIGNAL_FAILED},
};

int create(pthread_cond_t* condition, pthread_condattr_t& attributes, bool process_shared) {
    if (int const error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC)) {
        return error;
    }
    if (process_shared) {
        if (int const error = pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED)) {
            return error;
        }
    }
    return pthread_cond_init(condition, &attributes);
}

} // namespace

bool ConditionOps::init(pthread_cond_t* condition, bool process_shared) {
    pthread_condattr_t attributes;
    if (int const error = pthread_condattr_init(&attributes)) {
        poison(condition, FAILED_LOCK);
        return handleInitError(error);
    }
    ScopeExit const destroy([&attributes] {
        if (int const error = pthread_condattr_destroy(&attributes)) {
            std::GlobalErrorHandler::doWarning(
                SOURCE, __LINE__, "init", "destroying condition attributes failed, res = %d", error);
        }
    });
    if (int const error = create(condition, attributes, process_shared)) {
        poison(condition, FAILED_LOCK);
        return handleInitError(error);
    }
    return false;
}

bool ConditionOps::handleInitError(int error) {
    classify(SOURCE, INIT_ERRORS, error);
    return true;
}

bool ConditionOps::handleDestroyError(int error) {
    classify(SOURCE, DESTROY_ERRORS, error);
    return true;
}

signed char ConditionOps::handleWaitError(int error) {
    return toResult(classify(SOURCE, WAIT_ERRORS, error));
}

bool ConditionOps::handleSignalError(int error) {
    classify(SOURCE, SIGNAL_ERRORS, error);
    return true;
}

} // namespace vesk
