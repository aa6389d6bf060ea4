#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinStreamBase.h>

#include <cstring>

namespace std {

/// A source of bytes with an optional buffer. A class for a kind of source implements `performRead` and
/// `isValid`. Its users read:
///
///     unsigned int count = 0;
///     while (stream.read(block, sizeof block, count) > 0) {
///         use(block, count);
///     }
///     if (std::ErrorStorage::is(std::IBinStreamBase::StreamErrorId::END_OF_STREAM)) {
///         std::ErrorStorage::ack();
///     }
///
/// No operation allocates; the constructor creates the buffer.
class TARN_API IBinInputStream : public virtual IBinStreamBase {
public:
    ~IBinInputStream() override;

    bool isValid() const override = 0;

    /// Reads up to `size` bytes.
    ///
    /// Returns the contents of the buffer or, if it is empty, what one `performRead` returns. The result may
    /// be shorter than `size`: the operation does not wait for more. Blocks as `performRead` does. A request
    /// at least as large as the buffer goes to `performRead` directly. A request for 0 bytes succeeds at once
    /// on a stream that can be read, without a system call.
    ///
    /// @param buffer  room for `size` bytes; null is allowed if `size` is 0
    /// @param size    in bytes
    /// @param read    out: how many bytes were read, whatever the result is
    /// @return 1 on success, in non-blocking mode also with a `read` of 0 if no data is available; 0 at the
    ///         end of the stream, with `StreamErrorId::END_OF_STREAM` pending and in `read` the count of
    ///         bytes before the end; -1 on failure: `StreamErrorId::UNUSABLE` if the stream lacks the buffer
    ///         that it was created for, otherwise the reports of `performRead` or
    ///         `checkReadBufferConsistency`
    [[nodiscard]] TARN_API_INLINE int read(void* buffer, unsigned int size, unsigned int& read) {
        // A buffer with contents shows that the last operation was a read, so no consistency check is needed.
        if (__builtin_expect(size - 1 < m_end - m_pos, 1)) {
            memcpy(buffer, m_buffer + m_pos, size);
            m_pos += size;
            read = size;
            return 1;
        }
        return readSlowly(buffer, size, read);
    }

    /// Returns whether the stream was created with a read buffer.
    bool isInputBuffered() const noexcept { return m_buffer_size != 0; }

protected:
    /// @param blocking     the blocking mode of the stream, see `m_blocking`
    /// @param buffer_size  how many bytes to read ahead; 0: unbuffered. If the allocation fails,
    ///                     `isReadBufferSound` returns false, and `CommonErrorId::OUT_OF_MEMORY` is reported.
    IBinInputStream(bool blocking, unsigned int buffer_size);

    /// Returns whether the stream has the buffer that it was created for.
    bool isReadBufferSound() const noexcept { return m_buffer_size == 0 || m_buffer != nullptr; }

    /// Called before the stream reads from its source. A class with both directions over one position passes
    /// on its written bytes here. The default does nothing.
    /// @return true if reading is impossible, after a report; the `read` then fails with that report
    virtual bool checkReadBufferConsistency();

    /// Reads from the source, once.
    ///
    /// In non-blocking mode, a source without available data is success with a count of 0. A `size` of 0 only
    /// checks the state: it fails on a stream that cannot be read, as any other size does, and otherwise
    /// succeeds without a system call.
    ///
    /// @param buffer  room for `size` bytes
    /// @param size    in bytes; 0 only if the user of the stream asked for 0 bytes
    /// @param read    out: how many bytes were read, also on failure; 0 on entry
    /// @return true on failure, after a report; at the end of the stream its head is
    ///         `StreamErrorId::END_OF_STREAM`
    virtual bool performRead(void* buffer, unsigned int size, unsigned int& read) = 0;

    unsigned int m_pos = 0; ///< Start of the bytes in the buffer that are not yet consumed.
    unsigned int m_end = 0; ///< End of the filled bytes; equal to `m_pos` if the buffer is empty.
    /// The size of the buffer in bytes, 0 for none.
    unsigned int const m_buffer_size;
    unsigned char* const m_buffer; ///< Null also if the allocation failed.

private:
    int readSlowly(void* buffer, unsigned int size, unsigned int& read);
    unsigned int take(void* buffer, unsigned int size) noexcept;
};

} // namespace std
