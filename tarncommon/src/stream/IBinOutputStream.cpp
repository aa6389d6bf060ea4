#include <tarncommon/stream/IBinOutputStream.h>

#include "StreamBuffer.h"

#include <tarncommon/tarnbase/NonCopyable.h>

#include <algorithm>
#include <cstring>
#include <sched.h>

namespace std {

using namespace stream_detail;

namespace {

constexpr char const* SOURCE = "tarncommon/src/stream/IBinOutputStream";

/// Sets a flag for the duration of a scope, also if the thread is canceled in it.
class Flushing : private tarnbase::NonCopyable {
public:
    explicit Flushing(bool& flag) noexcept : m_flag(flag) { m_flag = true; }
    ~Flushing() { m_flag = false; }

private:
    bool& m_flag;
};

} // namespace

IBinOutputStream::IBinOutputStream(bool blocking, unsigned int buffer_size)
    : m_buffer_size(buffer_size), m_buffer(makeBuffer(SOURCE, buffer_size)) {
    m_blocking = blocking;
}

IBinOutputStream::~IBinOutputStream() {
    delete[] m_buffer;
}

bool IBinOutputStream::checkWriteBufferConsistency() {
    return false;
}

/// Writes until the sink has accepted all bytes or, in non-blocking mode, until it accepts none. `passed`
/// counts the accepted bytes, also on failure.
bool IBinOutputStream::passOn(unsigned char const* source, unsigned int size, unsigned int& passed) {
    passed = 0;
    while (passed != size) {
        unsigned int count = 0;
        bool const failed = performWrite(source + passed, size - passed, count);
        passed += count;
        if (failed) {
            return true;
        }
        if (count == 0 && passed != size) {
            if (!m_blocking) {
                return false;
            }
            // A class waits for its sink if it can. For the others, yielding at least lets other threads run.
            sched_yield();
        }
    }
    return false;
}

/// Passes on the contents of the buffer. In non-blocking mode, success may leave bytes in it.
bool IBinOutputStream::passBufferOn() {
    if (m_pos == m_end) {
        return false;
    }
    unsigned int passed = 0;
    bool const failed = passOn(m_buffer + m_pos, m_end - m_pos, passed);
    m_pos += passed;
    if (m_pos == m_end) {
        m_pos = 0;
        m_end = 0;
    }
    if (failed) {
        leaveNoRoomBehind();
    }
    return failed;
}

/// Moves the contents to the end of the buffer. The next write then takes the slow path, in which the class
/// notices that the failure is over.
void IBinOutputStream::leaveNoRoomBehind() noexcept {
    unsigned int const held = m_end - m_pos;
    if (held != 0) {
        memmove(m_buffer + (m_buffer_size - held), m_buffer + m_pos, held);
        m_pos = m_buffer_size - held;
        m_end = m_buffer_size;
    }
}

/// Puts as many bytes into the buffer as fit, and returns their number.
unsigned int IBinOutputStream::keep(unsigned char const* source, unsigned int size) noexcept {
    unsigned int const held = m_end - m_pos;
    unsigned int const count = min(size, m_buffer_size - held);
    if (count == 0) {
        return 0;
    }
    if (count > m_buffer_size - m_end || held == 0) {
        memmove(m_buffer, m_buffer + m_pos, held);
        m_pos = 0;
        m_end = held;
    }
    memcpy(m_buffer + m_end, source, count);
    m_end += count;
    return count;
}

int IBinOutputStream::writeSlowly(void const* buffer, unsigned int size, unsigned int& written) {
    written = 0;
    if (!isWriteBufferSound()) {
        reportNoBuffer(SOURCE);
        return -1;
    }
    // A request for 0 bytes goes only to `performWrite`, which checks the state: the hook may seek, and the
    // buffer must stay as it is. A stream that is not open buffers nothing, because nothing would pass it on;
    // `performWrite` reports the reason.
    if (size == 0 || (m_buffer_size != 0 && !isValid())) {
        return performWrite(buffer, size, written) ? -1 : 1;
    }
    if (checkWriteBufferConsistency()) {
        return -1;
    }
    auto const* const source = static_cast<unsigned char const*>(buffer);
    bool const bypass = size >= m_buffer_size;
    if (bypass || size > m_buffer_size - (m_end - m_pos)) {
        if (passBufferOn()) {
            return -1;
        }
        // Nothing may overtake buffered bytes that a non-blocking sink did not accept.
        if (bypass && m_pos == m_end && passOn(source, size, written)) {
            return -1;
        }
    }
    written += keep(source + written, size - written);
    return 1;
}

bool IBinOutputStream::flush(bool buffer_only) {
    if (!isWriteBufferSound()) {
        reportNoBuffer(SOURCE);
        return true;
    }
    // Without bytes to pass on, the read-ahead of the other direction must stay.
    if (m_pos != m_end) {
        if (checkWriteBufferConsistency()) {
            leaveNoRoomBehind();
            return true;
        }
        Flushing const flushing(m_flushing);
        if (passBufferOn()) {
            return true;
        }
        if (m_pos != m_end) {
            leaveNoRoomBehind();
            ErrorOutput(SOURCE, __LINE__, true)(StreamErrorId::TRANSFER_FAILED);
            return true;
        }
    }
    return !buffer_only && performFlush();
}

} // namespace std
