#pragma once

#include "support/Inject.h"

#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <semaphore.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

/// The system calls below the semaphores, replaced: a `support::Fault` makes them fail, and some tell what they were called
/// with. Include it in one file of a test program.

namespace support {

struct SemaphoreCalls {
    std::string open_name;
    int open_flags = 0;
    mode_t open_mode = 0;
    unsigned int value = 0;
    std::vector<timespec> deadlines;
    std::function<void()>
        on_wait; ///< Runs once, in the next call that waits, which a signal then interrupts.

    /// Whether a waiting call is to fail, and with what.
    bool fails(Injected& call, int& error) {
        if (call.fails(error)) {
            return true;
        }
        if (!on_wait) {
            return false;
        }
        std::function<void()> action;
        action.swap(on_wait);
        action();
        error = EINTR;
        return true;
    }
};

inline SemaphoreCalls s_semaphore_calls;

/// A client's name for a semaphore that no other test has. At the end it is removed from the system.
class SemaphoreName {
public:
    /// @param length  of the name; the rest is padding
    explicit SemaphoreName(size_t length = 0) : m_name("vesk-test-" + std::to_string(getpid())) {
        static int count = 0;
        m_name += "-" + std::to_string(++count);
        m_name.resize(length == 0 ? m_name.size() : length, 'n');
        sem_unlink(getSystemName().c_str());
    }
    ~SemaphoreName() { sem_unlink(getSystemName().c_str()); }

    SemaphoreName(SemaphoreName const&) = delete;
    SemaphoreName& operator=(SemaphoreName const&) = delete;

    operator char const*() const { return m_name.c_str(); }
    std::string getSystemName() const { return "/" + m_name; }

    /// Whether the system knows the name.
    bool exists() const {
        sem_t* const semaphore = sem_open(getSystemName().c_str(), 0);
        if (semaphore != SEM_FAILED) {
            sem_close(semaphore);
        }
        return semaphore != SEM_FAILED;
    }

    /// The value of the semaphore that has the name now; -1 if there is none.
    int getValue() const {
        sem_t* const semaphore = sem_open(getSystemName().c_str(), 0);
        int value = -1;
        if (semaphore != SEM_FAILED) {
            sem_getvalue(semaphore, &value);
            sem_close(semaphore);
        }
        return value;
    }

private:
    std::string m_name;
};

} // namespace support

VESK_INJECT_ERRNO(int, -1, sem_close, (sem_t * semaphore), (semaphore))
VESK_INJECT_ERRNO(int, -1, sem_unlink, (char const* name), (name))
VESK_INJECT_ERRNO(int, -1, sem_post, (sem_t * semaphore), (semaphore))
VESK_INJECT_ERRNO(int, -1, clock_gettime, (clockid_t clock, timespec* time), (clock, time))

support::Injected inject_sem_open("sem_open");
support::Injected inject_sem_wait("sem_wait");
support::Injected inject_sem_trywait("sem_trywait");
support::Injected inject_sem_timedwait("sem_timedwait");

extern "C" {

VESK_UNWATCHED sem_t* sem_open(char const* name, int flags, ...) {
    mode_t mode = 0;
    unsigned int value = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        value = va_arg(arguments, unsigned int);
        va_end(arguments);
    }
    support::s_semaphore_calls.open_name = name;
    support::s_semaphore_calls.open_flags = flags;
    support::s_semaphore_calls.open_mode = mode;
    support::s_semaphore_calls.value = value;
    int error = 0;
    if (inject_sem_open.fails(error)) {
        errno = error;
        return SEM_FAILED;
    }
    return reinterpret_cast<sem_t* (*)(char const*, int, ...)>(inject_sem_open.getReal())(
        name, flags, mode, value);
}

VESK_UNWATCHED int sem_wait(sem_t* semaphore) {
    int error = 0;
    if (support::s_semaphore_calls.fails(inject_sem_wait, error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(sem_t*)>(inject_sem_wait.getReal())(semaphore);
}

VESK_UNWATCHED int sem_trywait(sem_t* semaphore) {
    int error = 0;
    if (support::s_semaphore_calls.fails(inject_sem_trywait, error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(sem_t*)>(inject_sem_trywait.getReal())(semaphore);
}

VESK_UNWATCHED int sem_timedwait(sem_t* semaphore, timespec const* deadline) {
    support::s_semaphore_calls.deadlines.push_back(*deadline);
    int error = 0;
    if (support::s_semaphore_calls.fails(inject_sem_timedwait, error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(sem_t*, timespec const*)>(inject_sem_timedwait.getReal())(
        semaphore, deadline);
}

} // extern "C"
