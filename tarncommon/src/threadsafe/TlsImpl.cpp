#include <tarncommon/threadsafe/TlsImpl.h>

#include <tarncommon/error/GlobalErrorHandler.h>

namespace threadsafe {

namespace {

constexpr char const* SOURCE = "tarncommon/src/threadsafe/TlsImpl";

} // namespace

TlsImpl::TlsImpl() {
    int const error = pthread_key_create(&m_key, nullptr);
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "TlsImpl", "error creating key (errno = %d)", error);
    }
}

TlsImpl::~TlsImpl() {
    pthread_key_delete(m_key);
}

void TlsImpl::set(void* value) {
    int const error = pthread_setspecific(m_key, value);
    if (error != 0) {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "set", "error storing value (errno = %d)", error);
    }
}

} // namespace threadsafe
