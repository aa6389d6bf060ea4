#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <pthread.h>

namespace threadsafe {

/// A slot of the process in which each thread keeps one pointer of its own, null until set. The values are not owned:
/// nothing happens to them when a thread or the slot ends.
class TARN_API TlsImpl : private tarnbase::NonCopyable {
public:
    /// Takes one of the system's slots (`pthread_key_create`; there are 1,024 in a process). A failure ends the process
    /// through `GlobalErrorHandler::doAbort`.
    TlsImpl();

    /// Makes a slot whose first `set` takes the system's slot, with the same failure.
    constexpr explicit TlsImpl(ConstantInit) noexcept : m_key(NO_KEY) {}

    /// Gives the system's slot back (`pthread_key_delete`).
    ~TlsImpl();

    /// Stores the calling thread's value. Running out of memory ends the process through `GlobalErrorHandler::doAbort`.
    void set(void* value);

    /// The calling thread's value. Takes no lock.
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
