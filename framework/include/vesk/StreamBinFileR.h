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
/// `read` is documented at `std::IBinInputStream`. A failure makes two reports: a row of `SysError` with a
/// row of `StreamError` on top. The end of the file is reported as `StreamErrorId::END_OF_STREAM` alone.
///
/// `close` and the destructor behave as those of `BinFileBase`. Data that was read ahead can still be read
/// after `close`.
///
/// An object must be used by one thread at a time.
class VESK_API StreamBinFileR : public std::IBinInputStream, public virtual StreamBinFileBase {
public:
    /// Creates a closed object.
    /// @param buffer_size  bytes to read ahead; 0: unbuffered. If the buffer cannot be allocated, the object
    ///                     can be neither opened nor read, and `CommonErrorId::OUT_OF_MEMORY` is pending
    explicit StreamBinFileR(unsigned int buffer_size = 0) : std::IBinInputStream(true, buffer_size) {}

    /// Closes the file as `BinFileBase` does.
    ~StreamBinFileR() override;

    /// Returns whether the file is open and the requested buffer was allocated.
    bool isValid() const override;

    /// Takes ownership of the read end of a pipe and reads from it in blocking mode; see `BinFileBase::open`.
    /// Data that was read ahead before is discarded.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if the requested buffer was not allocated,
    ///         otherwise as the base class
    [[nodiscard]] bool open(Pipe& pipe);

    /// Opens a file; see `BinFileBase::open`. Data that was read ahead before is discarded.
    /// @param flags   with `NON_BLOCK`, a read that finds no data yet succeeds with a count of 0
    /// @param access  permissions of a created file
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if the requested buffer was not allocated,
    ///         otherwise as the base class
    [[nodiscard]] bool
    open(char const* path, ReadFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// Opens a file by a path in the encoding of the locale; otherwise as above.
    [[nodiscard]] bool
    open(UnicodeString const& path, ReadFlags flags, FileAccess const& access = DEFAULT_ACCESS);

    /// Opens an entry of a directory; see `BinFileBase::openAt`. Call it on a closed object only.
    [[nodiscard]] bool openAt(
        Directory const& dir, char const* name, bool follow, ReadFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Moves the position, counted as the reader sees it: data that was read ahead and not consumed does not
    /// count. That data is discarded whether the seek succeeds or not.
    [[nodiscard]] bool seek(int offset, SeekDirection direction, unsigned int& position) override;

protected:
    /// Called before a read. Clears the error state of the previous operation.
    bool checkReadBufferConsistency() override;

    /// Calls `read` once, repeated while a signal interrupts it. In non-blocking mode it succeeds if no data
    /// is available. For 0 bytes it makes no system call.
    /// @return true on failure: at the end of the file `StreamErrorId::END_OF_STREAM`; for a closed file
    ///         `CommonErrorId::CONTRACT_BROKEN` with `StreamErrorId::UNUSABLE` on top; otherwise a row of
    ///         `SysError` with a row of `StreamError` on top
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;

private:
    template <typename Open>
    bool openBy(Open open);
};

} // namespace vesk
