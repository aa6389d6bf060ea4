#pragma once

#include <vesk/RWLock.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstring>

namespace vesk {

inline RWLock::RWLock() {
    // What a failed creation leaves behind must not look like a lock to the destructor.
    memset(&m_lock, 0xFF, sizeof m_lock);
    m_valid = !RWLockOps::init(&m_lock, false);
}

inline RWLock::~RWLock() {
    if (RWLockOps::destroy(&m_lock)) {
        std::GlobalErrorHandler::doWarning(
            "framework/include/vesk/posix/RWLock", __LINE__, "~RWLock", "Error destroying RWLock!");
        std::ErrorStorage::ack();
    }
}

inline bool RWLock::lockForRead() const {
    return RWLockOps::lock(&m_lock, false, nullptr) != 0;
}

inline bool RWLock::lockForWrite() const {
    return RWLockOps::lock(&m_lock, true, nullptr) != 0;
}

inline signed char RWLock::tryLockForRead() const {
    return tryLockForRead(0);
}

inline signed char RWLock::tryLockForRead(unsigned int timeout_ms) const {
    return RWLockOps::lock(&m_lock, false, &timeout_ms);
}

inline signed char RWLock::tryLockForWrite() const {
    return tryLockForWrite(0);
}

inline signed char RWLock::tryLockForWrite(unsigned int timeout_ms) const {
    return RWLockOps::lock(&m_lock, true, &timeout_ms);
}

inline bool RWLock::unlock() const {
    int const error = pthread_rwlock_unlock(&m_lock);
    return __builtin_expect(error != 0, 0) && RWLockOps::handleUnlockError(error);
}

} // namespace vesk
