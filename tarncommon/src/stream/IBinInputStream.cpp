#include <tarncommon/stream/IBinInputStream.h>

#include "StreamBuffer.h"

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <cstring>

namespace std {

using namespace stream_detail;

namespace {

constexpr char const* SOURCE = "tarncommon/src/stream/IBinInputStream";

} // namespace

IBinInputStream::IBinInputStream(bool blocking, unsigned int buffer_size)
    : m_buffer_size(buffer_size), m_buffer(makeBuffer(SOURCE, buffer_size)) {
    m_blocking = blocking;
}

IBinInputStream::~IBinInputStream() {
    delete[] m_buffer;
}

bool IBinInputStream::checkReadBufferConsistency() {
    return false;
}

unsigned int IBinInputStream::take(void* buffer, unsigned int size) noexcept {
    unsigned int const count = min(size, m_end - m_pos);
    if (count != 0) {
        memcpy(buffer, m_buffer + m_pos, count);
        m_pos += count;
    }
    return count;
}

int IBinInputStream::readSlowly(void* buffer, unsigned int size, unsigned int& read) {
    read = 0;
    if (!isReadBufferSound()) {
        reportNoBuffer(SOURCE);
        return -1;
    }
    if (size != 0 && m_pos != m_end) {
        read = take(buffer, size);
        return 1;
    }
    // A request for 0 bytes goes only to `performRead`, which checks the state: the hook may write, and
    // reading ahead may block or meet the end of the stream.
    if (size != 0 && checkReadBufferConsistency()) {
        return -1;
    }
    bool failed = false;
    unsigned int count = 0;
    if (size == 0 || size >= m_buffer_size) {
        failed = performRead(buffer, size, count);
        read = count;
    } else {
        m_pos = 0;
        m_end = 0;
        failed = performRead(m_buffer, m_buffer_size, count);
        m_end = count;
        read = take(buffer, size);
    }
    if (!failed) {
        return 1;
    }
    return ErrorStorage::isA(StreamError) && ErrorStorage::id() == 2 ? 0 : -1;
}

} // namespace std
