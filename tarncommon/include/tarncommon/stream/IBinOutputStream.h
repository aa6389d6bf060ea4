#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinStreamBase.h>

#include <cstring>

namespace std {

/// A sink for bytes with an optional buffer. A class for a kind of sink implements `performWrite`,
/// `performFlush` and `isValid`. Its users write:
///
///     unsigned int written = 0;
///     if (stream.write(block, size, written) != 1 || stream.flush(false)) { ... }
///
/// The bytes reach the sink in the order in which they were written. No operation allocates; the constructor
/// creates the buffer. A stream that is not valid adds no bytes to its buffer: `performWrite` reports the
/// failure.
class TARN_API IBinOutputStream : public virtual IBinStreamBase {
public:
    /// Discards the contents of the buffer, because the sink no longer exists at this point. A derived class
    /// must flush in its own destructor.
    ~IBinOutputStream() override;

    bool isValid() const override = 0;

    /// Writes `size` bytes. If they fit, they go into the buffer. Otherwise the buffer is passed on first;
    /// then a request at least as large as the buffer goes to `performWrite` directly, and a smaller one
    /// into the buffer.
    ///
    /// In blocking mode, blocks until all bytes are passed on or buffered, even if the sink accepts nothing
    /// for a while. In non-blocking mode, stops when the sink accepts no more, and buffers as many of the
    /// remaining bytes as fit: `written` may be short. A request of 0 bytes succeeds at once on a stream that
    /// can be written, without a system call, and leaves the buffer as it is.
    ///
    /// @param buffer   `size` bytes; null is allowed if `size` is 0
    /// @param size     in bytes
    /// @param written  out: how many bytes of this request were passed on or buffered, whatever the result is
    /// @return 1 on success, in non-blocking mode also with a `written` of 0; -1 on failure:
    ///         `StreamErrorId::UNUSABLE` if the stream lacks the buffer that it was created for, otherwise
    ///         the reports of `performWrite` or `checkWriteBufferConsistency`. Buffered bytes that were
    ///         not passed on stay buffered.
    [[nodiscard]] TARN_API_INLINE int write(void const* buffer, unsigned int size, unsigned int& written) {
        // A buffer with contents shows that the last operation was a write, so no consistency check is
        // needed.
        if (__builtin_expect(m_pos != m_end && size - 1 < m_buffer_size - m_end, 1)) {
            memcpy(m_buffer + m_end, buffer, size);
            m_end += size;
            written = size;
            return 1;
        }
        return writeSlowly(buffer, size, written);
    }

    /// Passes the buffer on, and then calls `performFlush`. Blocks as `write` does.
    ///
    /// @param buffer_only  true: does not call `performFlush`, so that the data reaches the sink but not, for
    ///                     example, the medium of a file
    /// @return true on failure: `StreamErrorId::UNUSABLE` as for `write`; `StreamErrorId::TRANSFER_FAILED`,
    ///         as the root of a new chain, if a sink in non-blocking mode did not accept all bytes; otherwise
    ///         the reports of `performWrite`, `checkWriteBufferConsistency` or `performFlush`. Bytes that
    ///         were not passed on stay in the buffer, and `performFlush` is then not called.
    [[nodiscard]] bool flush(bool buffer_only);

    /// Returns whether the stream was created with a write buffer.
    bool isOutputBuffered() const noexcept { return m_buffer_size != 0; }

protected:
    /// @param blocking     the blocking mode of the stream, see `m_blocking`
    /// @param buffer_size  size of the buffer in bytes; 0: unbuffered. If the allocation fails,
    ///                     `isWriteBufferSound` returns false, and `CommonErrorId::OUT_OF_MEMORY` is
    ///                     reported.
    IBinOutputStream(bool blocking, unsigned int buffer_size);

    /// Returns whether the stream has the buffer that it was created for.
    bool isWriteBufferSound() const noexcept { return m_buffer_size == 0 || m_buffer != nullptr; }

    /// Called before the stream writes to its sink or puts the first bytes into an empty buffer. A class with
    /// both directions over one position seeks back over its read-ahead here. The default does nothing.
    /// @return true if writing is impossible, after a report; the `write` or `flush` then fails with that
    ///         report
    virtual bool checkWriteBufferConsistency();

    /// Writes to the sink, once. A `size` of 0 only checks the state: it fails on a stream that cannot be
    /// written, as any other size does, and otherwise succeeds without a system call.
    ///
    /// @param buffer   `size` bytes
    /// @param size     in bytes; 0 only if the user of the stream wrote 0 bytes
    /// @param written  out: how many bytes the sink accepted, also on failure; 0 on entry. A short count is
    ///                 success, and so is a count of 0 if the sink would have to wait.
    /// @return true on failure, after a report; always if the stream is not open, whatever the size
    virtual bool performWrite(void const* buffer, unsigned int size, unsigned int& written) = 0;

    /// Makes the sink pass on what it has accepted, for example from a file to its medium.
    /// @return true on failure, after a report
    virtual bool performFlush() = 0;

    unsigned int m_pos = 0; ///< Start of the bytes in the buffer that are not yet passed on.
    unsigned int m_end = 0; ///< End of the filled bytes; equal to `m_pos` if the buffer is empty.
    /// The size of the buffer in bytes, 0 for none.
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
