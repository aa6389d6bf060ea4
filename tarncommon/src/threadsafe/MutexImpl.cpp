#include <tarncommon/threadsafe/MutexImpl.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/MutexImpl";

} // namespace

TARN_CONSTANT_INIT int const MutexBase::ERROR_INCONSISTENCY = -1;

MutexImpl::MutexImpl(bool recursive) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error == 0) {
        pthread_mutexattr_settype(
            &attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
        error = pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "MutexImpl", "error creating mutex (errno = %d)", error);
    }
}

MutexImpl::~MutexImpl() {
    int const error = pthread_mutex_destroy(&m_mutex);
    if (error != 0) {
        std::GlobalErrorHandler::doAssert(
            false, "error == 0", SOURCE, __LINE__, "~MutexImpl", "destroying mutex failed (errno = %d)",
            error);
    }
}

int MutexImpl::classify(int error) noexcept {
    errno = error;
    switch (error) {
    case EDEADLK:
    case EINVAL:
    case EPERM:
        return ERROR_INCONSISTENCY;
    default:
        return error;
    }
}

} // namespace threadsafe
