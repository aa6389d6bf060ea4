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
/// `vesk::FmtFileWrapper` is the three of them in one object. The file is not owned, and outlives the buffer, which
/// neither opens, nor closes, nor flushes it. The buffer reports nothing by itself: the end of the file only ends the
/// stream, while any other failure of the file stays pending and looks like the end to the stream.
///
/// An object belongs to one thread at a time, which is that of its file.
class VESK_API FileBuffer : public std::filebuf_base {
public:
    /// @param in      what to read from; it must have no read buffer of its own, since two of them would spoil the
    ///                positions. That, and null, goes to `std::GlobalErrorHandler::doAssert`.
    /// @param size    how much to read at once, in bytes; 0 stands for 1
    /// @param buffer  memory of that size, which stays the caller's, or null to have it allocated; without memory
    ///                nothing can be read, and `CommonErrorId::OUT_OF_MEMORY` is pending
    FileBuffer(StreamBinFileR* in, unsigned int size, void const* buffer);

    /// Gives the memory back unless it is the caller's.
    ~FileBuffer() override;

    /// Whether the file is open. True without any file.
    bool isOpen() override;

protected:
    /// Reads from the file, once. `read` tells how much came, 0 is the end; the result is always 1.
    int actuallyRead(char* buffer, unsigned int size, unsigned int& read) override;

    /// Writes to the sink until it has taken `size` bytes in all, each time the whole from its begin. 0 on success.
    int actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) override;

    /// Moves the file's position. An offset that does not fit in 32 bits fails as a position beyond the limit does:
    /// `SysErrorId::SPOILED_INTEGRITY` with the text of `EOVERFLOW`. 0 on success; on failure the report of the file's `seek` is pending. A way
    /// that is none ends the process through `std::GlobalErrorHandler::doAbort`.
    int actuallySeek(long long offset, std::ios_base::seekdir way, std::streampos& result) override;

    /// Makes the sink pass on what it has taken. 0 on success.
    int actuallyFlush() override;

    std::IBinInputStream* m_in;
    std::IBinOutputStream* m_out = nullptr; ///< Null in every buffer that is only made by the constructor.
    StreamBinFileBase* m_seekable;
};

} // namespace vesk
