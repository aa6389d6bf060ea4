#pragma once

#include <vesk/Export.h>

#include <tarncommon/filebuf_base.h>

namespace std {
class IBinInputStream;
class IBinOutputStream;
} // namespace std

namespace vesk {

class StreamBinFileBase;
class StreamBinFileR;

/// A buffer through which the standard formatted streams read from a file of this library:
///
///     vesk::StreamBinFileR file;
///     if (file.open("/proc/uptime", file.READ)) { ... }
///     vesk::FileBuffer buffer(&file, 4096, nullptr);
///     std::istream stream(&buffer);
///     stream >> seconds;
///
/// `vesk::FmtFileWrapper` combines all three in one object. The file is not owned and must outlive the
/// buffer. The buffer neither opens, nor closes, nor flushes it. The buffer reports nothing by itself: the
/// end of the file only ends the stream. Any other failure of the file stays pending and looks like the end
/// to the stream.
///
/// An object must be used by one thread at a time, the thread that uses its file.
class VESK_API FileBuffer : public std::filebuf_base {
public:
    /// Creates a buffer for reading.
    /// @param in      the file to read from. It must have no read buffer of its own, because two buffers
    ///                would make the positions wrong. A buffered file and null go to
    ///                `std::GlobalErrorHandler::doAssert`
    /// @param size    the bytes to read at a time; 0 stands for 1
    /// @param buffer  memory of that size, which the caller keeps, or null to allocate it. If the allocation
    ///                fails, nothing can be read and `CommonErrorId::OUT_OF_MEMORY` is pending
    FileBuffer(StreamBinFileR* in, unsigned int size, void const* buffer);

    /// Frees the memory unless the caller provided it.
    ~FileBuffer() override;

    /// Returns whether the file is open. Returns true without any file.
    bool isOpen() override;

protected:
    /// Reads from the file once. `read` receives the number of bytes, 0 at the end; the result is always 1.
    int actuallyRead(char* buffer, unsigned int size, unsigned int& read) override;

    /// Writes to the sink until it has taken `size` bytes in all, each time the whole block from its start.
    /// Returns 0 on success.
    int actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) override;

    /// Moves the position of the file. An offset that does not fit in 32 bits fails as a position beyond the
    /// limit does: `SysErrorId::SPOILED_INTEGRITY` with the text of `EOVERFLOW`. Returns 0 on success; on
    /// failure the report of the file's `seek` is pending. An invalid `way` ends the process through
    /// `std::GlobalErrorHandler::doAbort`.
    int actuallySeek(long long offset, std::ios_base::seekdir way, std::streampos& result) override;

    /// Flushes the sink. Returns 0 on success.
    int actuallyFlush() override;

    /// The input stream of the file, null if there is none.
    std::IBinInputStream* m_in;
    std::IBinOutputStream* m_out = nullptr; ///< Null unless a derived class sets it.
    /// The file if it has a position, otherwise null.
    StreamBinFileBase* m_seekable;
};

} // namespace vesk
