#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileBase.h>
#include <vesk/UnicodeString.h>

#include <tarncommon/stream/IBinOutputStream.h>

namespace vesk {

/// A file, a device or one end of a pipe that is written as a stream.
///
///     vesk::StreamBinFileW file(4096);
///     if (file.open(path, file.WRITE | file.CREATE | file.TRUNCATE)) { ... }
///     unsigned int written = 0;
///     if (file.write(block, sizeof block, written) != 1 || file.close()) { ... }
///
/// `write` and `flush` are documented at `std::IBinOutputStream`. A failure makes two reports: a row of
/// `SysError` with a row of `StreamError` on top. `flush(false)` returns when the data is on the medium
/// (`fsync`). So do `close`, the destructor, and `seek` while the buffer holds data. `flush(true)` only
/// passes the data to the system. Writing to a pipe without a reader fails with `EPIPE`, provided that
/// `SIGPIPE` is ignored.
///
/// An object must be used by one thread at a time.
class VESK_API StreamBinFileW : public std::IBinOutputStream, public virtual StreamBinFileBase {
public:
    /// Creates a closed object.
    /// @param buffer_size  bytes to collect; 0: unbuffered. If the buffer cannot be allocated, the object can
    ///                     be neither opened nor written, and `CommonErrorId::OUT_OF_MEMORY` is pending
    explicit StreamBinFileW(unsigned int buffer_size = 0) : std::IBinOutputStream(true, buffer_size) {}

    /// Flushes and closes the file. A failure is only a warning; call `close` to detect it.
    ~StreamBinFileW() override;

    /// Returns whether the file is open and the requested buffer was allocated.
    bool isValid() const override;

    /// Takes ownership of the write end of a pipe and writes to it in blocking mode; see `BinFileBase::open`.
    /// The previous file is flushed and closed.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if the requested buffer was not allocated,
    ///         otherwise what `close` reported, or as the base class
    [[nodiscard]] bool open(Pipe& pipe);

    /// Opens a file; see `BinFileBase::open`. The previous file is flushed and closed.
    /// @param flags   with `NON_BLOCK`, a write that would block is short
    /// @param access  permissions of a created file
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if the requested buffer was not allocated,
    ///         otherwise what `close` reported, or as the base class
    [[nodiscard]] bool
    open(char const* path, WriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// Opens a file by a path in the encoding of the locale; otherwise as above.
    [[nodiscard]] bool
    open(UnicodeString const& path, WriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);

    /// Opens an entry of a directory; see `BinFileBase::openAt`. Call it on a closed object only.
    [[nodiscard]] bool openAt(
        Directory const& dir, char const* name, bool follow, WriteFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Flushes the buffer and closes the file, even if the flush fails. Of two failures the second is
    /// pending. Once the file is closed, data that it did not take is discarded. On an object that is not
    /// valid, does nothing and succeeds.
    [[nodiscard]] bool close() override;

    /// Flushes the buffer and then moves the position. The position does not move while data remains in the
    /// buffer.
    [[nodiscard]] bool seek(int offset, SeekDirection direction, unsigned int& position) override;

protected:
    /// Called before a write. Clears the error state of the previous operation.
    bool checkWriteBufferConsistency() override;

    /// Calls `write` once, repeated while a signal interrupts it; it may be short. For 0 bytes it makes no
    /// system call. In non-blocking mode it succeeds if there is no room. In blocking mode, on a descriptor
    /// that was made non-blocking from outside, it waits for room (`poll`) and returns a count of 0.
    /// @return true on failure: for a closed file `CommonErrorId::CONTRACT_BROKEN` with
    ///         `StreamErrorId::UNUSABLE` on top; otherwise a row of `SysError` with a row of `StreamError` on
    ///         top
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

    /// Blocks until the data of the file is on the medium (`fsync`, repeated while a signal interrupts it).
    /// Succeeds at once for a file without a medium, such as a pipe or a terminal.
    /// @return true on failure: for a closed file `CommonErrorId::CONTRACT_BROKEN` with
    ///         `StreamErrorId::UNUSABLE` on top; otherwise a row of `SysError` with a row of `StreamError` on
    ///         top
    bool performFlush() override;

    /// Flushes what the buffer holds with `flush(false)`. A failure of the medium alone is acknowledged and
    /// ignored, because the data is in the file.
    /// @return true if the buffer still holds data, after a report
    bool passOnWritten();

    /// Calls `flush(false)` and then always `BinFileBase::close`. Returns true if one of them failed.
    bool flushAndClose();

private:
    template <typename Open>
    bool openBy(Open open);
    void waitForRoom() const;
};

} // namespace vesk
