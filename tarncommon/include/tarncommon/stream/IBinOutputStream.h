#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinStreamBase.h>

#include <cstring>

namespace std {

/// A sink for bytes, with a buffer if wanted. A class for a kind of sink gives `performWrite`, `performFlush` and
/// `isValid`; its users write:
///
///     unsigned int written = 0;
///     if (stream.write(block, size, written) != 1 || stream.flush(false)) { ... }
///
/// The bytes reach the sink in the order in which they were written. No operation allocates; the buffer is made by the
/// constructor. A stream that is not valid takes no bytes into its buffer: `performWrite` tells the failure.
class TARN_API IBinOutputStream : public virtual IBinStreamBase {
public:
    /// Drops what the buffer still holds, since the sink is gone by now: a class that derives from this one flushes in its
    /// own destructor.
    ~IBinOutputStream() override;

    bool isValid() const override = 0;

    /// Writes `size` bytes, into the buffer if they fit. Otherwise the buffer is passed on first; a request as large as
    /// the buffer then goes to `performWrite` directly, any other one into the buffer.
    ///
    /// In blocking mode it goes on until everything is passed on or buffered, even where the sink takes nothing for a
    /// while. In non-blocking mode it ends when the sink takes no more; what then fits into the buffer is buffered, and
    /// `written` may be short. A request of 0 bytes succeeds at once on a stream that can be written, without a system
    /// call; what is buffered stays so.
    ///
    /// @param buffer   `size` bytes; null is allowed if `size` is 0
    /// @param size     in bytes
    /// @param written  how many bytes of this request were passed on or buffered, whatever the result is
    /// @return 1 done, in non-blocking mode also with a `written` of 0; -1 on failure: `StreamErrorId::UNUSABLE` without the buffer
    ///         that the stream was made for, else what `performWrite` or `checkWriteBufferConsistency` reported. What
    ///         is buffered stays so.
    TARN_API_INLINE int write(void const* buffer, unsigned int size, unsigned int& written) {
        // A buffer that holds something shows that writing was the last direction: nothing is to be made consistent.
        if (__builtin_expect(m_pos != m_end && size - 1 < m_buffer_size - m_end, 1)) {
            memcpy(m_buffer + m_end, buffer, size);
            m_end += size;
            written = size;
            return 1;
        }
        return writeSlowly(buffer, size, written);
    }

    /// Passes the buffer on, and then calls `performFlush`.
    ///
    /// @param buffer_only  whether to leave `performFlush` out: the data reaches the sink but, say, not the medium of a file
    /// @return true on failure: `StreamErrorId::UNUSABLE` as for `write`; `StreamErrorId::TRANSFER_FAILED`, opening a chain, when a sink in
    ///         non-blocking mode did not take all; else what `performWrite`, `checkWriteBufferConsistency` or
    ///         `performFlush` reported. What was not passed on stays in the buffer, and `performFlush` is not called.
    bool flush(bool buffer_only);

    /// Whether the stream was made with a write buffer.
    bool isOutputBuffered() const noexcept { return m_buffer_size != 0; }

protected:
    /// @param blocking     the blocking mode of the stream, see `m_blocking`
    /// @param buffer_size  bytes to collect; 0: unbuffered. Without memory for them `isWriteBufferSound` is false, and
    ///                     `CommonErrorId::OUT_OF_MEMORY` is reported.
    IBinOutputStream(bool blocking, unsigned int buffer_size);

    /// Whether the stream has the buffer that it was made for.
    bool isWriteBufferSound() const noexcept { return m_buffer_size == 0 || m_buffer != nullptr; }

    /// Called before the stream writes to its sink or puts the first bytes into an empty buffer: a class with both
    /// directions over one position gives back here what was read ahead. This one does nothing.
    /// @return true if nothing may be written, after a report; the `write` or `flush` fails with it
    virtual bool checkWriteBufferConsistency();

    /// Writes to the sink, once. A `size` of 0 only checks the state: it fails on a stream that cannot be written as any
    /// other size does, and otherwise succeeds without a system call.
    ///
    /// @param buffer   `size` bytes
    /// @param size     in bytes; 0 only if the user wrote 0
    /// @param written  out: how many bytes the sink took, also on failure; 0 when called. A short count is success, so is
    ///                 a count of 0 where the sink would have to wait.
    /// @return true on failure, after a report; also whenever the stream is not open, whatever the size
    virtual bool performWrite(void const* buffer, unsigned int size, unsigned int& written) = 0;

    /// Makes the sink pass on what it has taken, such as a file to its medium. True on failure, after a report.
    virtual bool performFlush() = 0;

    unsigned int m_pos = 0; ///< What of the buffer is passed on.
    unsigned int m_end = 0; ///< What of it is filled; equal to `m_pos` when it holds nothing.
    unsigned int const m_buffer_size;
    unsigned char* const m_buffer; ///< Null also if the allocation failed.

private:
    int writeSlowly(void const* buffer, unsigned int size, unsigned int& written);
    bool passOn(unsigned char const* source, unsigned int size, unsigned int& passed);
    bool passBufferOn();
    void leaveNoRoomBehind() noexcept;
    unsigned int keep(unsigned char const* source, unsigned int size) noexcept;
};

} // namespace std
