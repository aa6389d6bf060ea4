#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/stream/IBinStreamBase.h>

#include <cstring>

namespace std {

/// A source of bytes, with a buffer if wanted. A class for a kind of source gives `performRead` and `isValid`; its users
/// read:
///
///     unsigned int count = 0;
///     while (stream.read(block, sizeof block, count) > 0) {
///         use(block, count);
///     }
///     if (std::ErrorStorage::isA(std::IBinStreamBase::StreamError) && std::ErrorStorage::id() == 2) {
///         std::ErrorStorage::ack(); // The end.
///     }
///
/// No operation allocates; the buffer is made by the constructor.
class TARN_API IBinInputStream : public virtual IBinStreamBase {
public:
    ~IBinInputStream() override;

    bool isValid() const override = 0;

    /// Reads up to `size` bytes.
    ///
    /// Gives what the buffer holds or, when it is empty, what one `performRead` brings: it may be less than `size`, and
    /// there is no waiting for more. Blocks as `performRead` does. A request as large as the buffer goes to `performRead`
    /// directly. A request for 0 bytes succeeds at once on a stream that can be read, without a system call.
    ///
    /// @param buffer  room for `size` bytes; null is allowed if `size` is 0
    /// @param size    in bytes
    /// @param read    how many bytes came, whatever the result is
    /// @return 1 done, in non-blocking mode also with nothing there and a `read` of 0; 0 at the end of the stream, with
    ///         `StreamErrorId::END_OF_STREAM` pending and `read` telling what came before it; -1 on failure: `StreamErrorId::UNUSABLE` without the
    ///         buffer that the stream was made for, else what `performRead` or `checkReadBufferConsistency` reported
    TARN_API_INLINE int read(void* buffer, unsigned int size, unsigned int& read) {
        // A buffer that holds something shows that reading was the last direction: nothing is to be made consistent.
        if (__builtin_expect(size - 1 < m_end - m_pos, 1)) {
            memcpy(buffer, m_buffer + m_pos, size);
            m_pos += size;
            read = size;
            return 1;
        }
        return readSlowly(buffer, size, read);
    }

    /// Whether the stream was made with a read buffer.
    bool isInputBuffered() const noexcept { return m_buffer_size != 0; }

protected:
    /// @param blocking     the blocking mode of the stream, see `m_blocking`
    /// @param buffer_size  bytes to read ahead; 0: unbuffered. Without memory for them `isReadBufferSound` is false, and
    ///                     `CommonErrorId::OUT_OF_MEMORY` is reported.
    IBinInputStream(bool blocking, unsigned int buffer_size);

    /// Whether the stream has the buffer that it was made for.
    bool isReadBufferSound() const noexcept { return m_buffer_size == 0 || m_buffer != nullptr; }

    /// Called before the stream reads from its source: a class with both directions over one position passes on here
    /// what was written. This one does nothing.
    /// @return true if nothing may be read, after a report; the `read` fails with it
    virtual bool checkReadBufferConsistency();

    /// Reads from the source, once.
    ///
    /// Nothing there in non-blocking mode is success with a count of 0. A `size` of 0 only checks the state: it fails on a
    /// stream that cannot be read as any other size does, and otherwise succeeds without a system call.
    ///
    /// @param buffer  room for `size` bytes
    /// @param size    in bytes; 0 only if the user asked for 0
    /// @param read    out: how many bytes came, also on failure; 0 when called
    /// @return true on failure, after a report whose head tells the end of the stream by `StreamErrorId::END_OF_STREAM`
    virtual bool performRead(void* buffer, unsigned int size, unsigned int& read) = 0;

    unsigned int m_pos = 0; ///< What of the buffer is consumed.
    unsigned int m_end = 0; ///< What of it is filled; equal to `m_pos` when it holds nothing.
    unsigned int const m_buffer_size;
    unsigned char* const m_buffer; ///< Null also if the allocation failed.

private:
    int readSlowly(void* buffer, unsigned int size, unsigned int& read);
    unsigned int take(void* buffer, unsigned int size) noexcept;
};

} // namespace std
