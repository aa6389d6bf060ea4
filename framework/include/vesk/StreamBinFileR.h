#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileBase.h>
#include <vesk/UnicodeString.h>

#include <tarncommon/stream/IBinInputStream.h>

namespace vesk {

/// A file, a device or one end of a pipe that is read as a stream.
///
///     vesk::StreamBinFileR file(4096);
///     if (file.open(path, file.READ)) { ... }
///     unsigned int count = 0;
///     while (file.read(block, sizeof block, count) > 0) {
///         use(block, count);
///     }
///
/// `read` is that of `std::IBinInputStream`, which tells its results. Its reports are two: a row of `SysError` with one of
/// `StreamError` on top; the end of the file is `StreamErrorId::END_OF_STREAM` alone.
///
/// The object's own `close` and destructor are those of `BinFileBase`. What is read ahead is still there after `close`.
///
/// An object belongs to one thread at a time.
class VESK_API StreamBinFileR : public std::IBinInputStream, public virtual StreamBinFileBase {
public:
    /// @param buffer_size  bytes to read ahead; 0: unbuffered. Without memory for them the object can be neither opened
    ///                     nor read, and `CommonErrorId::OUT_OF_MEMORY` is pending.
    explicit StreamBinFileR(unsigned int buffer_size = 0) : std::IBinInputStream(true, buffer_size) {}

    /// Closes the file as `BinFileBase` does.
    ~StreamBinFileR() override;

    /// Whether the file is open and has the buffer that it was made for.
    bool isValid() const override;

    /// Takes over the read end of a pipe and reads from it in blocking mode, see `BinFileBase::open`. What was read ahead
    /// before is dropped.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` without the buffer that the object was made for, else as the base
    bool open(Pipe& pipe);

    /// Opens a file, see `BinFileBase::open`. What was read ahead before is dropped.
    /// @param flags   with `NON_BLOCK` a read that finds nothing yet gives a count of 0
    /// @param access  permissions of a file that is made
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` without the buffer that the object was made for, else as the base
    bool open(char const* path, ReadFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// The same for a path in the locale's encoding.
    bool open(UnicodeString const& path, ReadFlags flags, FileAccess const& access = DEFAULT_ACCESS);

    /// The same for an entry of a directory, see `BinFileBase::openAt`. Only for a closed object.
    bool openAt(
        Directory const& dir, char const* name, bool follow, ReadFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Moves the position, counted as the reader sees it: what is read ahead and not consumed is given back. It is gone
    /// whether the seek succeeds or not.
    bool seek(int offset, SeekDirection direction, unsigned int& position) override;

protected:
    /// Called before a read: forgets the failure of the operation before.
    bool checkReadBufferConsistency() override;

    /// One `read`, repeated while a signal interrupts it. Nothing there in non-blocking mode is success. For 0 bytes no
    /// call is made.
    /// @return true on failure: at the end of the file `StreamErrorId::END_OF_STREAM`; else `SysError` with `StreamError` on top, or for
    ///         a closed file `CommonErrorId::CONTRACT_BROKEN` with `StreamErrorId::UNUSABLE` on top
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;

private:
    template <typename Open>
    bool openBy(Open open);
};

} // namespace vesk
