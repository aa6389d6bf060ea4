#include <tarncommon/threadsafe/MutexImpl.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cerrno>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/MutexImpl";

int create(pthread_mutex_t* mutex, bool recursive, MutexBase::Protocol protocol) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) {
        return error;
    }
    pthread_mutexattr_settype(&attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
    if (protocol == MutexBase::Protocol::INHERIT) {
        error = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    }
    if (error == 0) {
        error = pthread_mutex_init(mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    return error;
}

} // namespace

TARN_CONSTANT_INIT int const MutexBase::ERROR_INCONSISTENCY = -1;

MutexImpl::MutexImpl(bool recursive) : MutexImpl(recursive, Protocol::NONE) {}

MutexImpl::MutexImpl(bool recursive, Protocol protocol) {
    if (int const error = create(&m_mutex, recursive, protocol)) {
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
