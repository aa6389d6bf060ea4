#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <pthread.h>

namespace threadsafe {

/// A slot of the process in which each thread keeps one pointer of its own, null until set. The values are not owned:
/// nothing happens to them when a thread or the slot ends.
class TARN_API TlsImpl : private tarnbase::NonCopyable {
public:
    /// Takes one of the system's slots (`pthread_key_create`; there are 1,024 in a process). A failure ends the process
    /// through `GlobalErrorHandler::doAbort`.
    TlsImpl();
    ~TlsImpl();

    /// Stores the calling thread's value. Running out of memory ends the process through `GlobalErrorHandler::doAbort`.
    void set(void* value);

    /// The calling thread's value. Takes no lock.
    TARN_API_INLINE void* get() const noexcept { return pthread_getspecific(m_key); }

private:
    pthread_key_t m_key{};
};

} // namespace threadsafe
