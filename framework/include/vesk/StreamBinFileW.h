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
/// `write` and `flush` are those of `std::IBinOutputStream`, which tells their results. Their reports are two: a row of
/// `SysError` with one of `StreamError` on top. `flush(false)` returns when the data is on the medium (`fsync`), and
/// so do `close`, `seek` while the buffer holds something, and the destructor; `flush(true)` hands the data to the
/// system only. Without a reader a pipe fails with `EPIPE`, once `SIGPIPE` is ignored.
///
/// An object belongs to one thread at a time.
class VESK_API StreamBinFileW : public std::IBinOutputStream, public virtual StreamBinFileBase {
public:
    /// @param buffer_size  bytes to collect; 0: unbuffered. Without memory for them the object can be neither opened nor
    ///                     written, and `CommonErrorId::OUT_OF_MEMORY` is pending.
    explicit StreamBinFileW(unsigned int buffer_size = 0) : std::IBinOutputStream(true, buffer_size) {}

    /// Flushes and closes the file. A failure shows as a warning only; call `close` to learn of it.
    ~StreamBinFileW() override;

    /// Whether the file is open and has the buffer that it was made for.
    bool isValid() const override;

    /// Takes over the write end of a pipe and writes to it in blocking mode, see `BinFileBase::open`. The file before is
    /// flushed and closed.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` without the buffer that the object was made for, else what `close`
    ///         reported, or as the base
    bool open(Pipe& pipe);

    /// Opens a file, see `BinFileBase::open`. The file before is flushed and closed.
    /// @param flags   with `NON_BLOCK` a write that would wait is short
    /// @param access  permissions of a file that is made
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` without the buffer that the object was made for, else what `close`
    ///         reported, or as the base
    bool open(char const* path, WriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// The same for a path in the locale's encoding.
    bool open(UnicodeString const& path, WriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);

    /// The same for an entry of a directory, see `BinFileBase::openAt`. Only for a closed object.
    bool openAt(
        Directory const& dir, char const* name, bool follow, WriteFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Flushes, and closes the file whether that succeeds or not; of two failures the second is pending. What a file that
    /// is closed did not take is dropped. A file that is not valid is left alone, with success.
    bool close() override;

    /// Flushes what the buffer holds, and moves the position. It does not move while something is left in the buffer.
    bool seek(int offset, SeekDirection direction, unsigned int& position) override;

protected:
    /// Called before a write: forgets the failure of the operation before.
    bool checkWriteBufferConsistency() override;

    /// One `write`, repeated while a signal interrupts it; it may be short. No room in non-blocking mode is success. For
    /// 0 bytes no call is made. No room in blocking mode, on a descriptor that was made non-blocking from outside, waits
    /// for room (`poll`) and gives a count of 0.
    /// @return true on failure: `SysError` with `StreamError` on top, or for a closed file `CommonErrorId::CONTRACT_BROKEN` with
    ///         `StreamErrorId::UNUSABLE` on top
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

    /// Waits until the file's data is on the medium (`fsync`, repeated while a signal interrupts it). What has no medium,
    /// such as a pipe or a terminal, is done at once.
    /// @return true on failure: `SysError` with `StreamError` on top, or for a closed file `CommonErrorId::CONTRACT_BROKEN` with
    ///         `StreamErrorId::UNUSABLE` on top
    bool performFlush() override;

    /// Passes on what the buffer holds, with `flush(false)`. If only the medium fails, which is acknowledged, the data is
    /// in the file all the same.
    /// @return true if the buffer still holds something, after a report
    bool passOnWritten();

    /// Calls `flush(false)` and `BinFileBase::close`, both always; true if one of them failed.
    bool flushAndClose();

private:
    template <typename Open>
    bool openBy(Open open);
    void waitForRoom() const;
};

} // namespace vesk
