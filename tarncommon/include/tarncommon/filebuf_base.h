#pragma once

#include <tarncommon/Export.h>

#include <ios>
#include <streambuf>

namespace std {

/// The generic part of a stream buffer that connects the standard formatted streams to another kind of file.
/// A class for a kind of file implements the five operations that access it, sets the fields and calls
/// `createBuffer`:
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
/// One buffer and one position serve both directions. Before it switches from writing to reading, it passes
/// on the written bytes. Before it switches from reading to writing, it seeks back over the read-ahead. An
/// object must be used by one thread at a time. Failures show in the stream as those of every
/// `std::streambuf`, and their reports stay pending.
class TARN_API filebuf_base : public basic_streambuf<char> {
public:
    /// Releases the buffer as `destroyBuffer` does. Does not flush or close the file.
    ~filebuf_base() override;

    filebuf_base(filebuf_base const&) = delete;
    filebuf_base& operator=(filebuf_base const&) = delete;

    /// Allocates `m_buffer`, unless it exists already or is the caller's, and empties both areas. A
    /// `m_buffer_size` of 0 becomes 1.
    /// @return true if the allocation failed, after `CommonErrorId::OUT_OF_MEMORY`; reading and writing are
    ///         then impossible
    [[nodiscard]] bool createBuffer() noexcept;

    /// Releases the memory unless it is the caller's, and discards the contents of both areas. `createBuffer`
    /// makes the object usable again.
    void destroyBuffer() noexcept;

protected:
    filebuf_base() = default;

    /// Moves the position. On success, the contents of both areas are discarded: call `sync` before a seek
    /// that follows a write. The open mode is ignored.
    /// @return the new position; -1 on failure, without any change
    TARN_API_INLINE pos_type seekoff(
        off_type offset, ios_base::seekdir way, ios_base::openmode = ios_base::in | ios_base::out) override {
        long long distance = offset;
        if (way == ios_base::cur && m_reading) {
            // The position of the file is ahead of the reader's by the number of unread characters.
            distance -= egptr() - gptr();
        }
        return moveTo(distance, way);
    }

    /// Moves to a position that an earlier seek returned. Its conversion state is not restored.
    TARN_API_INLINE pos_type
    seekpos(pos_type position, ios_base::openmode = ios_base::in | ios_base::out) override {
        return moveTo(static_cast<off_type>(position), ios_base::beg);
    }

    /// Passes the put area on and calls `actuallyFlush`. Does nothing with a file that is not open for
    /// writing.
    /// @return 0 on success; -1 on failure, with the bytes that were not passed on still in the put area
    int sync() override;

    /// Fills the get area if it is empty.
    /// @return the first character of the get area; end of file if no data comes, if the file is not open for
    ///         reading, or if the put area cannot be passed on first
    int_type underflow() override;

    /// Passes the put area on and puts `c` into it.
    /// @return end of file on failure, with the bytes that were not passed on still in the put area
    int_type overflow(int_type c = traits_type::eof()) override;

    /// Reads up to `size` bytes. `read` receives how many bytes came; 0 means the end. The result is ignored.
    virtual int actuallyRead(char* buffer, unsigned int size, unsigned int& read) = 0;

    /// Writes `size` bytes. `written` receives how many bytes were accepted, also on failure. Returns 0 on
    /// success.
    virtual int actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) = 0;

    /// Moves the file's position, and stores the new one in `result`. Returns 0 on success.
    virtual int actuallySeek(long long offset, ios_base::seekdir way, streampos& result) = 0;

    /// Makes the file pass on the bytes that it accepted. Returns 0 on success.
    virtual int actuallyFlush() = 0;

public:
    /// Returns whether the file is open.
    virtual bool isOpen() = 0;

protected:
    /// The buffer of both directions.
    char* m_buffer = nullptr;
    /// The size of the buffer in bytes.
    unsigned int m_buffer_size = 1;
    /// The directions that are open.
    ios_base::openmode m_open_mode{};
    bool m_external_buffer = false; ///< The memory of `m_buffer` belongs to the caller.
    bool m_reading = false;         ///< The get area holds bytes that were read from the file.
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

    /// Empties both areas and makes neither direction active.
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
