#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/StreamBinFileW.h>

namespace vesk {

/// A file or a device that is read and written as a stream, with one position for both directions.
///
///     vesk::StreamBinFileRW file(4096, 4096);
///     unsigned int position = 0;
///     if (file.open(path, file.READ_WRITE) || file.read(header, sizeof header, count) != 1 || ...) { ... }
///     if (file.seek(0, file.Begin, position) || file.write(header, sizeof header, count) != 1 ||
///         file.close()) { ... }
///
/// The buffers are transparent: written data is in the file, and on its medium, before the next read. Before
/// the next write the position is moved back over the data that was read ahead. On a device without a
/// position, such as a terminal, do not use a read buffer: a write fails while data is read ahead, and that
/// data is discarded.
///
/// Otherwise it has the operations of `StreamBinFileR` and `StreamBinFileW`. An object must be used by one
/// thread at a time: one thread must not read while another one writes.
class VESK_API StreamBinFileRW : public StreamBinFileR, public StreamBinFileW {
public:
    /// Creates a closed object.
    /// @param read_buffer_size   bytes to read ahead; 0: unbuffered
    /// @param write_buffer_size  bytes to collect; 0: unbuffered
    ///
    /// If a buffer cannot be allocated, the object cannot be opened, and `CommonErrorId::OUT_OF_MEMORY` is
    /// pending.
    explicit StreamBinFileRW(unsigned int read_buffer_size = 0, unsigned int write_buffer_size = 0)
        : StreamBinFileR(read_buffer_size), StreamBinFileW(write_buffer_size) {}

    /// Flushes and closes the file. A failure is only a warning; call `close` to detect it.
    ~StreamBinFileRW() override;

    /// Returns whether the file is open and both requested buffers were allocated.
    bool isValid() const override;

    /// Opens a file; see `BinFileBase::open`. The previous file is flushed and closed; data that was read
    /// ahead of it is discarded.
    /// @param flags   with `NON_BLOCK`, neither direction blocks
    /// @param access  permissions of a created file
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if a requested buffer was not allocated,
    ///         otherwise what `close` reported, or as the base class
    [[nodiscard]] bool
    open(char const* path, ReadWriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// Opens a file by a path in the encoding of the locale; otherwise as above.
    [[nodiscard]] bool
    open(UnicodeString const& path, ReadWriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);

    /// Takes ownership of a temporary file and uses it in blocking mode; see `BinFileBase::open`. The
    /// previous file and the reports are handled as for `open`.
    [[nodiscard]] bool open(BinTempFileRW& temp, bool keep_path);

    /// Opens an entry of a directory; see `BinFileBase::openAt`. Call it on a closed object only.
    [[nodiscard]] bool openAt(
        Directory const& dir, char const* name, bool follow, ReadWriteFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Moves the position of both directions: after a read as `StreamBinFileR` does, after a write as
    /// `StreamBinFileW` does.
    [[nodiscard]] bool seek(int offset, SeekDirection direction, unsigned int& position) override;

    /// Closes the file as `StreamBinFileW::close` does.
    [[nodiscard]] bool close() override;

protected:
    /// Called before a read. Flushes the data that was written.
    bool checkReadBufferConsistency() override;

    /// Called before a write. Moves the position back over the data that was read ahead, and discards that
    /// data.
    bool checkWriteBufferConsistency() override;

    /// The direction of the last operation, which determines the buffer that can hold data.
    enum LastOperation : int {
        READING = 0,
        WRITING = 1,
    };

    /// The direction of the last transfer.
    LastOperation m_last_op = READING;

private:
    template <typename Open>
    bool openBy(Open open);
};

} // namespace vesk
