#include <vesk/ConditionOps.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/Poison.h"

#include <vesk/Condition.h>
#include <vesk/SysError.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ConditionOps";

constexpr ErrnoRow INIT_ERRORS[] = {
    {{EAGAIN}, {SysError, 0}, {Condition::Error, 0}},
    {{ENOMEM}, {SysError, 1}, {Condition::Error, 0}},
    {{EBUSY, EINVAL}, {SysError, 10}, {Condition::Error, 0}},
    {OTHERS, {SysError, 19}, {Condition::Error, 0}},
};

constexpr ErrnoRow DESTROY_ERRORS[] = {
    {{EBUSY, EINVAL}, {SysError, 10}},
    {OTHERS, {SysError, 19}},
};

constexpr ErrnoRow WAIT_ERRORS[] = {
    {{ETIMEDOUT}, NONE, NONE, Outcome::NOT_NOW},
    {{EINVAL, EPERM}, {SysError, 10}, {Condition::Error, 1}},
    {OTHERS, {SysError, 19}, {Condition::Error, 1}},
};

constexpr ErrnoRow SIGNAL_ERRORS[] = {
    {{EINVAL}, {SysError, 10}, {Condition::Error, 2}},
    {OTHERS, {SysError, 19}, {Condition::Error, 2}},
};

/// Destroys the attributes on every way out.
class AttrCleaner {
public:
    explicit AttrCleaner(pthread_condattr_t& attributes) noexcept : m_attributes(attributes) {}
    ~AttrCleaner() {
        if (int const error = pthread_condattr_destroy(&m_attributes)) {
            std::GlobalErrorHandler::doWarning(
                SOURCE, __LINE__, "init", "destroying condition attributes failed, res = %d", error);
        }
    }

private:
    pthread_condattr_t& m_attributes;
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
    AttrCleaner const cleaner(attributes);
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
    return static_cast<signed char>(classify(SOURCE, WAIT_ERRORS, error));
}

bool ConditionOps::handleSignalError(int error) {
    classify(SOURCE, SIGNAL_ERRORS, error);
    return true;
}

} // namespace vesk
