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

/// The owner of one file descriptor: opens it, closes it, tells and sets what belongs to the file as a whole. It neither
/// reads nor writes; the classes that do derive from it. What all of them share is the word of flags for opening a file:
///
///     vesk::StreamBinFileW log;
///     if (log.open("log", log.WRITE | log.CREATE | log.APPEND)) { ... }
///
/// Every descriptor that it opens is closed by `exec`, from the first moment on. Positions and sizes are 32 bits wide
/// in every build.
///
/// An object belongs to one thread at a time.
class VESK_API BinFileBase : private tarnbase::NonCopyable {
public:
    /// The bits of the word that opens a file. The direction is in the low two of them; a word without any, such as
    /// `CREATE` alone, opens in both directions.
    enum OpenFlag : uint32_t {
        READ = 0x01,
        WRITE = 0x02,
        READ_WRITE = 0x03,
        NON_BLOCK = 0x04, ///< Reads and writes do not wait.
        CREATE = 0x08,    ///< A file that is not there is made.
        TRUNCATE = 0x10,  ///< A file that is there is emptied.
        APPEND = 0x20,    ///< Every write goes to the end.
        EXCLUSIVE = 0x40, ///< The file is made, also without `CREATE`; one that is there is an error.
    };

    /// The word itself. It is used as it is: nothing masks or checks it.
    class OpenFlags {
    public:
        constexpr OpenFlags() noexcept = default;
        constexpr OpenFlags(OpenFlag flags) noexcept : m_word(flags) {}
        constexpr explicit OpenFlags(uint32_t word) noexcept : m_word(word) {}

        constexpr uint32_t getWord() const noexcept { return m_word; }
        constexpr bool has(OpenFlag flag) const noexcept { return (m_word & flag) != 0; }

        friend constexpr bool operator==(OpenFlags a, OpenFlags b) noexcept { return a.m_word == b.m_word; }
        friend constexpr bool operator!=(OpenFlags a, OpenFlags b) noexcept { return a.m_word != b.m_word; }

    private:
        uint32_t m_word = 0;
    };

    /// The word for a file that is read. Also this type does not check it: one with `WRITE` in it opens for writing.
    class ReadFlags : public OpenFlags {
    public:
        constexpr ReadFlags() noexcept : OpenFlags(READ) {}
        using OpenFlags::OpenFlags;
    };

    /// The word for a file that is written, unchecked.
    class WriteFlags : public OpenFlags {
    public:
        constexpr WriteFlags() noexcept : OpenFlags(WRITE) {}
        using OpenFlags::OpenFlags;
    };

    /// The word for a file that is read and written, unchecked.
    class ReadWriteFlags : public OpenFlags {
    public:
        constexpr ReadWriteFlags() noexcept : OpenFlags(READ_WRITE) {}
        using OpenFlags::OpenFlags;
    };

    /// What owner and group may do with a file that is made, if nothing else is told: read and write it.
    static constexpr FileAccess DEFAULT_ACCESS{0660};

    BinFileBase() = default;

    /// Whether the file is open.
    virtual bool isValid() const;

    /// Closes the file (`close`, repeated while a signal interrupts it). A closed one is left alone, with success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for a descriptor that was not open and 18 for a process that is not there,
    ///         the object being closed then; 11 for an input/output error and else 19, the object being open still
    virtual bool close();

    /// Closes the file. A failure shows on `std::cerr` only.
    virtual ~BinFileBase();

    /// Opens a file (`open`, repeated while a signal interrupts it), after closing the one that is open. Waits for the
    /// other end when the file is a named pipe, unless `NON_BLOCK` is set.
    /// @param path    null or empty: nothing is opened, and that is no failure; look at `isValid`
    /// @param flags   what for, see `OpenFlag`
    /// @param access  permissions of a file that is made, before the process's mask is applied
    /// @return true on failure: what `close` reported, the file that was open before being told by `isValid`; else what
    ///         `handleOpenError` reports, a row of `SysError` with one of `FileAccessError` on top
    bool open(char const* path, OpenFlags const& flags, FileAccess const& access);

    /// Takes over one end of a pipe, after closing the file that is open. An end that is not there any more leaves the
    /// object closed, with success.
    /// @return true on failure: what `close` reported, the pipe being untouched
    bool open(Pipe& pipe, bool write_end);

    /// Takes over a temporary file, after closing the file that is open. The file stays on the disk from then on, for its new
    /// owner to remove. One that is not there any more leaves the object closed, with success.
    /// @param keep_path  whether `getTempPath` shall tell its path. Throws `std::logic_error` if the locale, having changed,
    ///                   cannot express it; the file is then not taken over
    /// @return true on failure: what `close` reported, the temporary file being untouched
    bool open(BinTempFileRW& temp, bool keep_path);

    /// Opens an entry of a directory (`openat`, repeated while a signal interrupts it), whatever became of the
    /// directory's own path. Use it on a closed object: it does not close, a descriptor that is open gets lost.
    /// @param name    one name, without `'/'`
    /// @param follow  whether a symbolic link leads to its target, or is refused (`FileAccessErrorId::BAD_PATH`)
    /// @param flags   as for `open`
    /// @param access  as for `open`
    /// @return true on failure: `CommonErrorId::OPEN_FILE_OPERATION_FAILED` for a name that is none, or an invalid directory; else as `open`
    bool openAt(
        Directory const& dir, char const* name, bool follow, OpenFlags const& flags,
        FileAccess const& access);

    /// What the system knows of the open file (`fstat`).
    /// @return invalid on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open; `SysErrorId::INPUT_OUTPUT` for an input/output error, 10 for a
    ///         bad descriptor, 1 without memory, else 19
    FileInfo getFileInfo() const;

    /// Makes the file this long (`ftruncate`, repeated while a signal interrupts it): what is behind is dropped, what is
    /// missing reads as zeros. The position stays, and what a stream buffers is not looked at.
    /// @param size  in bytes, at most 2,147,483,647; more is refused as `EINVAL`
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if no file is open; `SysErrorId::INPUT_OUTPUT` for an input/output error, 10 for a file
    ///         that is not open for writing or has no size, 15 if it gets too large, 7 on a read-only file system, else 19
    bool truncateSize(unsigned int size);

    /// Whether the last `open`, `close`, `seek`, `flush` or transfer failed, its part that was done by a buffer included.
    /// It is also true after a `close` that succeeded after an interruption. `openAt` does not change it, nor does a read
    /// that is served by what was read ahead.
    bool hadError() const noexcept { return m_had_error; }

    /// The descriptor, for calls that no class of this library makes; -1 if the file is closed. It stays this object's.
    int getDescriptor() const noexcept { return m_fd; }

    /// The path of a temporary file that was taken over with its path, else empty. Nobody removes that file but its owner.
    std::string const& getTempPath() const noexcept { return m_temp_path; }

protected:
    int m_fd = -1;
    OpenFlags m_flags; ///< Of the last `open`; `READ` or `WRITE` for the end of a pipe.
    bool m_had_error = false;
    std::string m_temp_path;
};

constexpr BinFileBase::OpenFlag operator|(BinFileBase::OpenFlag a, BinFileBase::OpenFlag b) noexcept {
    return static_cast<BinFileBase::OpenFlag>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

} // namespace vesk
