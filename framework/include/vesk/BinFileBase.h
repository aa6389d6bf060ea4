#pragma once

#include <vesk/Export.h>
#include <vesk/FileAccess.h>
#include <vesk/FileInfo.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <string>

namespace vesk {

class BinTempFileRW;
class Directory;
class Pipe;

/// The owner of one file descriptor. Opens and closes it, and reads and sets the properties of the file as a
/// whole. The derived classes read and write. All of them share the word of flags for opening a file:
///
///     vesk::StreamBinFileW log;
///     if (log.open("log", log.WRITE | log.CREATE | log.APPEND)) { ... }
///
/// Every descriptor that the object opens itself is close-on-exec from the start. A descriptor that comes
/// from a `Pipe` or a `BinTempFileRW` is not. Positions and sizes are 32 bits wide in every build.
///
/// An object must be used by one thread at a time.
class VESK_API BinFileBase : private tarnbase::NonCopyable {
public:
    /// The bits of the word that opens a file. The lowest two bits are the direction. A word without a
    /// direction, such as `CREATE` alone, opens in both directions.
    enum OpenFlag : uint32_t {
        READ = 0x01,
        WRITE = 0x02,
        READ_WRITE = 0x03,
        NON_BLOCK = 0x04, ///< Reads and writes do not block.
        CREATE = 0x08,    ///< Creates the file if it does not exist.
        TRUNCATE = 0x10,  ///< Truncates an existing file.
        APPEND = 0x20,    ///< Every write appends to the file.
        EXCLUSIVE = 0x40, ///< Creates the file, also without `CREATE`; an existing file is an error.
    };

    /// The word of flags. It is used unchanged, without a mask or a check.
    class OpenFlags {
    public:
        constexpr OpenFlags() noexcept = default;
        /// Creates a set of one flag.
        constexpr OpenFlags(OpenFlag flags) noexcept : m_word(flags) {}
        /// Creates a set from the sum of its flags.
        constexpr explicit OpenFlags(uint32_t word) noexcept : m_word(word) {}

        /// Returns the sum of the flags.
        constexpr uint32_t getWord() const noexcept { return m_word; }
        /// Returns whether a flag is set.
        constexpr bool has(OpenFlag flag) const noexcept { return (m_word & flag) != 0; }

        /// @{
        /// Compares two sets.
        friend constexpr bool operator==(OpenFlags a, OpenFlags b) noexcept { return a.m_word == b.m_word; }
        friend constexpr bool operator!=(OpenFlags a, OpenFlags b) noexcept { return a.m_word != b.m_word; }
        /// @}

    private:
        uint32_t m_word = 0;
    };

    /// The word for a file that is read. The type does not check the word: a word with `WRITE` opens for
    /// writing.
    class ReadFlags : public OpenFlags {
    public:
        constexpr ReadFlags() noexcept : OpenFlags(READ) {}
        /// Creates a set as `OpenFlags` does.
        using OpenFlags::OpenFlags;
    };

    /// The word for a file that is written. The type does not check the word.
    class WriteFlags : public OpenFlags {
    public:
        constexpr WriteFlags() noexcept : OpenFlags(WRITE) {}
        /// Creates a set as `OpenFlags` does.
        using OpenFlags::OpenFlags;
    };

    /// The word for a file that is read and written. The type does not check the word.
    class ReadWriteFlags : public OpenFlags {
    public:
        constexpr ReadWriteFlags() noexcept : OpenFlags(READ_WRITE) {}
        /// Creates a set as `OpenFlags` does.
        using OpenFlags::OpenFlags;
    };

    /// The default permissions of a created file: owner and group may read and write it.
    static constexpr FileAccess DEFAULT_ACCESS{0660};

    BinFileBase() = default;

    /// Returns whether the file is open.
    virtual bool isValid() const;

    /// Closes the file (`close`, repeated while a signal interrupts it). Does nothing on a closed object and
    /// succeeds.
    /// @return true on failure. `SysErrorId::SPOILED_INTEGRITY` (the descriptor was not open) and
    ///         `SysErrorId::NO_SUCH_PROCESS` (`ESRCH`) leave the object closed. `SysErrorId::INPUT_OUTPUT`
    ///         and `SysErrorId::UNCLASSIFIED` leave it open
    [[nodiscard]] virtual bool close();

    /// Closes the file. A failure is only printed to `std::cerr`.
    virtual ~BinFileBase();

    /// Opens a file (`open`, repeated while a signal interrupts it), after closing the file that is open. If
    /// the file is a named pipe, blocks until its other end is opened, unless `NON_BLOCK` is set.
    /// @param path    the file; with null or an empty path nothing is opened and the call succeeds, so check
    ///                `isValid`
    /// @param flags   see `OpenFlag`
    /// @param access  permissions of a created file, before the umask of the process is applied
    /// @return true on failure. If the previous file could not be closed, what `close` reported; `isValid`
    ///         then returns whether that file is still open. Otherwise what `handleOpenError` reports: a row
    ///         of `SysError` with a row of `FileAccessError` on top
    [[nodiscard]] bool open(char const* path, OpenFlags const& flags, FileAccess const& access);

    /// Takes ownership of one end of a pipe, after closing the file that is open. If the pipe no longer has
    /// that end, the call leaves the object closed and succeeds.
    /// @return true on failure: what `close` reported; the pipe is unchanged
    [[nodiscard]] bool open(Pipe& pipe, bool write_end);

    /// Takes ownership of a temporary file, after closing the file that is open. The file then stays on the
    /// disk: the new owner must remove it. If `temp` no longer has the file, the call leaves the object
    /// closed and succeeds.
    /// @param keep_path  whether `getTempPath` returns its path from now on. Throws `std::logic_error` if the
    ///                   locale has changed and cannot express the path; the file then stays with `temp`
    /// @return true on failure: what `close` reported; the temporary file is unchanged
    [[nodiscard]] bool open(BinTempFileRW& temp, bool keep_path);

    /// Opens an entry of a directory (`openat`, repeated while a signal interrupts it). It works even if the
    /// directory has been moved since it was opened. Call it on a closed object only: it does not
    /// close an open descriptor, which is then leaked.
    /// @param name    one name, without `'/'`
    /// @param follow  whether a symbolic link is followed; otherwise it is refused
    ///                (`FileAccessErrorId::BAD_PATH`)
    /// @param flags   as for `open`
    /// @param access  as for `open`
    /// @return true on failure: `CommonErrorId::OPEN_FILE_OPERATION_FAILED` if the name is null, empty or
    ///         contains `'/'`, or if the directory is invalid; otherwise as for `open`
    [[nodiscard]] bool openAt(
        Directory const& dir, char const* name, bool follow, OpenFlags const& flags,
        FileAccess const& access);

    /// Returns the attributes of the open file (`fstat`).
    /// @return an invalid object on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open,
    ///         `SysErrorId::INPUT_OUTPUT` for an input/output error, `SysErrorId::SPOILED_INTEGRITY` for a
    ///         bad descriptor, `SysErrorId::OUT_OF_MEMORY` without memory, otherwise
    ///         `SysErrorId::UNCLASSIFIED`
    FileInfo getFileInfo() const;

    /// Sets the size of the file (`ftruncate`, repeated while a signal interrupts it). Bytes beyond the new
    /// size are discarded; bytes that are added read as zeros. The position does not change. The buffer of a
    /// stream is neither flushed nor dropped.
    /// @param size  in bytes, at most 2,147,483,647; the system refuses a larger size with `EINVAL`
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open,
    ///         `SysErrorId::INPUT_OUTPUT` for an input/output error, `SysErrorId::SPOILED_INTEGRITY` if the
    ///         file is not open for writing, is of a kind without a size, or if the size is refused,
    ///         `SysErrorId::NO_SPACE` if the file becomes too large, `SysErrorId::PERMISSION_DENIED` on a
    ///         read-only file system, otherwise `SysErrorId::UNCLASSIFIED`
    [[nodiscard]] bool truncateSize(unsigned int size);

    /// Returns whether the last `open`, `close`, `seek`, `flush` or transfer failed, including the part that
    /// a buffer did. It is also true after a `close` that a signal interrupted and that then succeeded.
    /// `openAt` of this class does not change it, nor does a read that is served from the read buffer.
    bool hadError() const noexcept { return m_had_error; }

    /// Returns the descriptor, for system calls that this library does not wrap; -1 if the file is closed.
    /// The object keeps the ownership.
    int getDescriptor() const noexcept { return m_fd; }

    /// Returns the path of the last temporary file that was opened with `keep_path`, and the empty text if
    /// there was none. It is kept when the object is closed or opens another file. The caller must remove
    /// that file.
    std::string const& getTempPath() const noexcept { return m_temp_path; }

protected:
    /// The descriptor, -1 if the file is closed.
    int m_fd = -1;
    OpenFlags m_flags; ///< Of the last `open`; `READ` or `WRITE` for the end of a pipe.
    /// The result of `hadError`.
    bool m_had_error = false;
    /// The path of a temporary file that `close` removes; otherwise empty.
    std::string m_temp_path;
};

constexpr BinFileBase::OpenFlag operator|(BinFileBase::OpenFlag a, BinFileBase::OpenFlag b) noexcept {
    return static_cast<BinFileBase::OpenFlag>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

} // namespace vesk
