#pragma once

#include <tarncommon/Export.h>

#include <ios>
#include <streambuf>

namespace std {

/// The generic part of a buffer that puts the standard formatted streams on a file of another kind. A class for a kind of
/// file gives the five operations that reach it, sets the fields and calls `createBuffer`:
///
///     class LogBuffer : public std::filebuf_base {
///     public:
///         explicit LogBuffer(Log& log) : m_log(log) {
///             m_buffer_size = 4096;
///             m_open_mode = std::ios_base::in;
///             createBuffer();
///         }
///         ...
///     };
///
/// One buffer and one position serve both directions: before it turns from writing to reading it passes on what is
/// written, before it turns from reading to writing it seeks back over what is read ahead. Belongs to one thread at a
/// time. Its failures show in the stream as for every `std::streambuf`; their reports stay pending.
class TARN_API filebuf_base : public basic_streambuf<char> {
public:
    /// Gives the buffer back as `destroyBuffer` does. Neither flushes nor closes anything.
    ~filebuf_base() override;

    filebuf_base(filebuf_base const&) = delete;
    filebuf_base& operator=(filebuf_base const&) = delete;

    /// Provides `m_buffer`, unless it is there already or the caller's, and empties both areas. A `m_buffer_size` of 0
    /// becomes 1.
    /// @return true without memory, after `CommonErrorId::OUT_OF_MEMORY`; then nothing can be read or written
    bool createBuffer() noexcept;

    /// Gives the memory back unless it is the caller's, and drops what the areas hold. `createBuffer` makes the object
    /// usable again.
    void destroyBuffer() noexcept;

protected:
    filebuf_base() = default;

    /// Moves the position. What the get area holds is dropped, and also what the put area holds: `sync` goes before a seek
    /// that follows a write. The mode is not used.
    /// @return the new position; -1 on failure, with everything as it was
    TARN_API_INLINE pos_type seekoff(
        off_type offset, ios_base::seekdir way, ios_base::openmode = ios_base::in | ios_base::out) override {
        long long distance = offset;
        if (way == ios_base::cur && m_reading) {
            // The file is ahead of the reader by what is not consumed.
            distance -= egptr() - gptr();
        }
        return moveTo(distance, way);
    }

    /// The same for a position that was told before; its conversion state is not restored.
    TARN_API_INLINE pos_type
    seekpos(pos_type position, ios_base::openmode = ios_base::in | ios_base::out) override {
        return moveTo(static_cast<off_type>(position), ios_base::beg);
    }

    /// Passes the put area on and calls `actuallyFlush`; with a file that is only read there is nothing to do. -1 on
    /// failure, with what was not passed on still in the put area.
    int sync() override;

    /// Fills an empty get area. End of file if nothing comes, or if what is written cannot be passed on before.
    int_type underflow() override;

    /// Passes the put area on and puts `c` into it. End of file on failure, with what was not passed on still in the put
    /// area.
    int_type overflow(int_type c = traits_type::eof()) override;

    /// Reads up to `size` bytes. `read` tells how many came, 0 is the end; the result is not looked at.
    virtual int actuallyRead(char* buffer, unsigned int size, unsigned int& read) = 0;

    /// Writes `size` bytes. `written` tells how many were taken, also on failure. 0 on success.
    virtual int actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) = 0;

    /// Moves the file's position and tells the new one. 0 on success.
    virtual int actuallySeek(long long offset, ios_base::seekdir way, streampos& result) = 0;

    /// Makes the file pass on what it was given. 0 on success.
    virtual int actuallyFlush() = 0;

public:
    /// Whether the file is open.
    virtual bool isOpen() = 0;

protected:
    char* m_buffer = nullptr;
    unsigned int m_buffer_size = 1;
    ios_base::openmode m_open_mode{};
    bool m_external_buffer = false; ///< The memory of `m_buffer` is the caller's.
    bool m_reading = false;         ///< The get area holds what was taken from the file.
    bool m_writing = false;         ///< The put area is in use.

private:
    pos_type moveTo(long long offset, ios_base::seekdir way) {
        pos_type result;
        if (actuallySeek(offset, way, result) != 0) {
            return pos_type(off_type(-1));
        }
        empty();
        return result;
    }

    /// Both areas without anything in them, neither direction active.
    void empty() noexcept {
        m_reading = false;
        m_writing = false;
        setp(nullptr, nullptr);
        setg(m_buffer, m_buffer, m_buffer);
    }

    bool passOn();
    bool giveBack();
};

} // namespace std
