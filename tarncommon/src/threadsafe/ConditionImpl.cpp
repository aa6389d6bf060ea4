#include <tarncommon/threadsafe/ConditionImpl.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/ConditionImpl";

} // namespace

TARN_CONSTANT_INIT int const ConditionBase::TIMEOUT = 1;
TARN_CONSTANT_INIT int const ConditionBase::ERROR_INCONSISTENCY = -1;

ConditionImpl::ConditionImpl(MutexImpl& mutex) : m_mutex(&mutex.m_mutex) {
    pthread_condattr_t attributes;
    int error = pthread_condattr_init(&attributes);
    if (error == 0) {
        error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        if (error == 0) {
            error = pthread_cond_init(&m_condition, &attributes);
        }
        pthread_condattr_destroy(&attributes);
    }
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "ConditionImpl", "error creating condition (errno = %d)", error);
    }
}

ConditionImpl::~ConditionImpl() {
    int const error = pthread_cond_destroy(&m_condition);
    if (error != 0) {
        std::GlobalErrorHandler::doAssert(
            false, "error == 0", SOURCE, __LINE__, "~ConditionImpl",
            "destroying condition failed (errno = %d)", error);
    }
}

int ConditionImpl::wait() {
    return classify(pthread_cond_wait(&m_condition, m_mutex));
}

int ConditionImpl::wait_timeout(tarnbase::TimePoint const& deadline) {
    if (deadline == tarnbase::TimePoint::MAX) {
        return wait();
    }
    timespec const time = deadline.toTimespec();
    return classify(pthread_cond_timedwait(&m_condition, m_mutex, &time));
}

int ConditionImpl::signal_one() noexcept {
    return classify(pthread_cond_signal(&m_condition));
}

int ConditionImpl::classify(int error) noexcept {
    switch (error) {
    case 0:
        return 0;
    case ETIMEDOUT:
        return TIMEOUT;
    case EINVAL:
    case EPERM:
        errno = error;
        return ERROR_INCONSISTENCY;
    default:
        errno = error;
        // No error number is mistaken for TIMEOUT: its value, 1, is that of EPERM, which is handled above.
        return error;
    }
}

} // namespace threadsafe
