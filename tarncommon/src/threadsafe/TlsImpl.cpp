#include <tarncommon/threadsafe/TlsImpl.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/TlsImpl";

pthread_key_t createKey() {
    pthread_key_t key{};
    int const error = pthread_key_create(&key, nullptr);
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "TlsImpl", "error creating key (errno = %d)", error);
    }
    return key;
}

} // namespace

TlsImpl::TlsImpl() : m_key(createKey()) {}

TlsImpl::~TlsImpl() {
    pthread_key_t const key = m_key.load(std::memory_order_relaxed);
    if (key != NO_KEY) {
        pthread_key_delete(key);
    }
}

/// Creates the key of a slot that has none yet, and returns it. If several threads do so at once, the first
/// key is used.
pthread_key_t TlsImpl::makeKey() {
    pthread_key_t const key = createKey();
    pthread_key_t present = NO_KEY;
    if (m_key.compare_exchange_strong(present, key)) {
        return key;
    }
    pthread_key_delete(key); // LCOV_EXCL_LINE: only if two threads meet here
    return present;
}

void TlsImpl::set(void* value) {
    pthread_key_t key = m_key.load(std::memory_order_relaxed);
    if (key == NO_KEY) {
        key = makeKey();
    }
    int const error = pthread_setspecific(key, value);
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "set", "error storing value (errno = %d)", error);
    }
}

} // namespace threadsafe
