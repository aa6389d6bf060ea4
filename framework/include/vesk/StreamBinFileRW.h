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
///     if (file.seek(0, file.Begin, position) || file.write(header, sizeof header, count) != 1 || file.close()) { ... }
///
/// The buffers do not show: what was written is in the file, and on its medium, before the next read; what was read ahead
/// is given back before the next write. Where there is no position, as on a terminal, use no read buffer: a write then
/// fails as long as something is read ahead, and that is lost.
///
/// Otherwise it is a `StreamBinFileR` and a `StreamBinFileW`, whose operations it has. An object belongs to one thread at
/// a time: one thread cannot read while another one writes.
class VESK_API StreamBinFileRW : public StreamBinFileR, public StreamBinFileW {
public:
    /// @param read_buffer_size   bytes to read ahead; 0: unbuffered
    /// @param write_buffer_size  bytes to collect; 0: unbuffered
    ///
    /// Without memory for a buffer the object cannot be opened, and `CommonErrorId::OUT_OF_MEMORY` is pending.
    explicit StreamBinFileRW(unsigned int read_buffer_size = 0, unsigned int write_buffer_size = 0)
        : StreamBinFileR(read_buffer_size), StreamBinFileW(write_buffer_size) {}

    /// Flushes and closes the file. A failure shows as a warning only; call `close` to learn of it.
    ~StreamBinFileRW() override;

    /// Whether the file is open and has both buffers that it was made for.
    bool isValid() const override;

    /// Opens a file, see `BinFileBase::open`. The file before is flushed and closed, what was read ahead of it is
    /// dropped.
    /// @param flags   with `NON_BLOCK` neither direction waits
    /// @param access  permissions of a file that is made
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` without the buffers that the object was made for, else what `close`
    ///         reported, or as the base
    bool open(char const* path, ReadWriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);
    /// The same for a path in the locale's encoding.
    bool
    open(UnicodeString const& path, ReadWriteFlags const& flags, FileAccess const& access = DEFAULT_ACCESS);

    /// Takes over a temporary file, which is read and written in blocking mode, see `BinFileBase::open`. What becomes of
    /// the file before, and the reports, are those of `open`.
    bool open(BinTempFileRW& temp, bool keep_path);

    /// The same for an entry of a directory, see `BinFileBase::openAt`. Only for a closed object.
    bool openAt(
        Directory const& dir, char const* name, bool follow, ReadWriteFlags const& flags,
        FileAccess const& access = DEFAULT_ACCESS);

    /// Moves the position of both directions, as `StreamBinFileR` after a read and as `StreamBinFileW` after a write.
    bool seek(int offset, SeekDirection direction, unsigned int& position) override;

    /// As `StreamBinFileW::close`.
    bool close() override;

protected:
    /// Called before a read: passes on what was written.
    bool checkReadBufferConsistency() override;

    /// Called before a write: gives back what was read ahead.
    bool checkWriteBufferConsistency() override;

    /// Which buffer can be ahead of the file's position, or behind it.
    enum LastOperation : int {
        READING = 0,
        WRITING = 1,
    };

    LastOperation m_last_op = READING;

private:
    template <typename Open>
    bool openBy(Open open);
};

} // namespace vesk
