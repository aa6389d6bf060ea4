#include <tarncommon/filebuf_base.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace std {

namespace {

constexpr char const* SOURCE = "tarncommon/src/filebuf_base";

static_assert(sizeof(ios_base::openmode) == 4);

} // namespace

filebuf_base::~filebuf_base() {
    destroyBuffer();
}

bool filebuf_base::createBuffer() noexcept {
    m_buffer_size = max(m_buffer_size, 1U);
    bool failed = false;
    if (!m_external_buffer && m_buffer == nullptr) {
        m_buffer = new (nothrow) char[m_buffer_size];
        failed = m_buffer == nullptr;
        if (failed) {
            ErrorOutput(SOURCE, __LINE__, true)(CommonErrorId::OUT_OF_MEMORY);
        }
    }
    empty();
    return failed;
}

void filebuf_base::destroyBuffer() noexcept {
    if (!m_external_buffer) {
        delete[] m_buffer;
        m_buffer = nullptr;
    }
    empty();
}

/// Passes on the contents of the put area, and leaves it ready for more. On failure, the rest moves to its
/// beginning. Returns true on failure.
bool filebuf_base::passOn() {
    char const* at = pbase();
    bool failed = false;
    while (!failed && at != pptr()) {
        auto const rest = static_cast<unsigned int>(pptr() - at);
        unsigned int written = 0;
        failed = actuallyWrite(at, rest, written) != 0 || written == 0;
        at += min(written, rest);
    }
    auto const rest = static_cast<size_t>(pptr() - at);
    if (rest != 0) {
        memmove(m_buffer, at, rest);
    }
    setp(m_buffer, m_buffer + min(m_buffer_size, static_cast<unsigned int>(INT_MAX)));
    pbump(static_cast<int>(rest));
    return failed;
}

/// Moves the file's position back to the reader's. Returns true on failure.
bool filebuf_base::giveBack() {
    long long const unread = egptr() - gptr();
    pos_type result;
    if (unread != 0 && actuallySeek(-unread, ios_base::cur, result) != 0) {
        return true;
    }
    empty();
    return false;
}

int filebuf_base::sync() {
    if ((m_open_mode & ios_base::out) == 0) {
        return 0;
    }
    if (m_writing && passOn()) {
        return -1;
    }
    return actuallyFlush() != 0 ? -1 : 0;
}

filebuf_base::int_type filebuf_base::underflow() {
    if ((m_open_mode & ios_base::in) == 0 || m_buffer == nullptr) {
        return traits_type::eof();
    }
    if (gptr() != egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    if (m_writing && passOn()) {
        return traits_type::eof();
    }
    empty();
    unsigned int read = 0;
    // The result is ignored: some kinds of files return the same one for every outcome.
    actuallyRead(m_buffer, m_buffer_size, read);
    if (read == 0) {
        return traits_type::eof();
    }
    setg(m_buffer, m_buffer, m_buffer + min(read, m_buffer_size));
    m_reading = true;
    return traits_type::to_int_type(*gptr());
}

filebuf_base::int_type filebuf_base::overflow(int_type c) {
    if ((m_open_mode & ios_base::out) == 0 || m_buffer == nullptr) {
        return traits_type::eof();
    }
    if (m_reading && giveBack()) {
        return traits_type::eof();
    }
    if (passOn()) {
        return traits_type::eof();
    }
    m_writing = true;
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

} // namespace std
