#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <pthread.h>

namespace threadsafe {

/// A process-wide slot in which each thread keeps one pointer of its own, null until set. The slot does not
/// own the values: nothing happens to them when a thread or the slot ends.
class TARN_API TlsImpl : private tarnbase::NonCopyable {
public:
    /// Allocates one of the system's slots (`pthread_key_create`; a process has 1,024). A failure ends the
    /// process through `GlobalErrorHandler::doAbort`.
    TlsImpl();

    /// Creates a slot that allocates the system's slot in the first `set`, with the same effect of a failure.
    constexpr explicit TlsImpl(ConstantInit) noexcept : m_key(NO_KEY) {}

    /// Releases the system's slot (`pthread_key_delete`).
    ~TlsImpl();

    /// Stores the calling thread's value (`pthread_setspecific`). A failure, such as lack of memory, ends the
    /// process through `GlobalErrorHandler::doAbort`.
    void set(void* value);

    /// Returns the calling thread's value (`pthread_getspecific`). Takes no lock.
    TARN_API_INLINE void* get() const noexcept {
        pthread_key_t const key = m_key.load(std::memory_order_relaxed);
        return __builtin_expect(key == NO_KEY, 0) ? nullptr : pthread_getspecific(key);
    }

private:
    static constexpr pthread_key_t NO_KEY = ~pthread_key_t{0};

    pthread_key_t makeKey();

    std::atomic<pthread_key_t> m_key;
};

} // namespace threadsafe
