#pragma once

#include <vesk/Export.h>
#include <vesk/FileAccess.h>
#include <vesk/Group.h>
#include <vesk/User.h>

#include <string>
#include <sys/stat.h>

namespace vesk {

class UnicodeString;

/// What the system told about one file at one moment: its type, size, times, owner, access.
///
///     vesk::FileInfo const info("/etc/hostname", true);
///     if (info.isValid() && info.isRegularFile()) { use(info.getSize()); }
///
/// A plain value that holds no descriptor and is not kept up to date. It may be read by any number of threads at once.
/// `isValid` comes first: of an invalid one the other answers mean nothing, they are zeros of no file at best.
///
/// Times are whole seconds since the epoch; `getStat` has their fractions. A 32-bit program is told nothing about a file
/// that its own types cannot describe, one of 2 GiB or more for example: that fails as `EOVERFLOW`.
class VESK_API FileInfo {
public:
    enum class Type {
        UNKNOWN, ///< None of those below, or the object is invalid.
        REGULAR,
        DIRECTORY,
        SYMBOLIC_LINK, ///< Only if it was not followed.
        CHARACTER_DEVICE,
        BLOCK_DEVICE,
        FIFO,
        SOCKET,
    };

    /// Invalid and zeroed.
    FileInfo() noexcept : m_valid(false), m_stat() {}

    /// Valid, with what the caller has from the system (`fstat` and its relatives).
    explicit FileInfo(struct stat const& data) noexcept : m_valid(true), m_stat(data) {}

    /// Asks the system about a path; see `init`. The name goes to the system as it is.
    FileInfo(char const* path, bool follow);
    FileInfo(std::string const& path, bool follow);
    FileInfo(UnicodeString const& path, bool follow);

    /// Asks the system about a path (`stat`, `lstat`); ask `isValid` afterwards. Blocks as the file system does.
    ///
    /// | errno | `SysError` | on top: `FileAccessError` |
    /// |---|---|---|
    /// | `ENOENT`, `ENOTDIR`, `ENAMETOOLONG`, `ELOOP` | 2 | 0 |
    /// | `EIO` | 11 | 8 |
    /// | `ENOMEM` | 1 | 9 |
    /// | `EACCES` | 7 | 3 |
    /// | `EFAULT`, for a null path | 10 | 9 |
    /// | other | 19 | 9 |
    /// @param follow  whether a symbolic link stands for its target, or for itself
    void init(char const* path, bool follow);

    /// Whether the answers below are real.
    bool isValid() const noexcept { return m_valid; }

    /// Permission, set-id and sticky bits.
    VESK_API_INLINE FileAccess getAccess() const noexcept {
        return FileAccess(m_stat.st_mode) & FileAccess::mask;
    }

    /// The owner, by id; the name is looked up only when it is asked for.
    VESK_API_INLINE User getOwner() const { return User(static_cast<long long>(m_stat.st_uid)); }

    /// The group, by id; the name is looked up only when it is asked for.
    VESK_API_INLINE Group getGroup() const { return Group(static_cast<long long>(m_stat.st_gid)); }

    Type getType() const noexcept;
    bool isRegularFile() const noexcept { return S_ISREG(m_stat.st_mode); }
    bool isDirectory() const noexcept { return S_ISDIR(m_stat.st_mode); }
    bool isSymbolicLink() const noexcept { return S_ISLNK(m_stat.st_mode); }

    /// Bytes of a regular file's content, or of the path in a symbolic link.
    long long getSize() const noexcept { return m_stat.st_size; }

    /// Bytes that the file takes up on its device, less than its size if it has holes.
    long long getAllocatedSize() const noexcept { return 512LL * m_stat.st_blocks; }

    /// When the content was read last, which many file systems note only now and then.
    long long getAccessTime() const noexcept { return m_stat.st_atim.tv_sec; }

    /// When the content was changed last, what `setModTime` sets.
    long long getModTime() const noexcept { return m_stat.st_mtim.tv_sec; }

    /// When the content or anything told here was changed last.
    long long getChangeTime() const noexcept { return m_stat.st_ctim.tv_sec; }

    /// The file's number on its device. Two paths with the same inode and device are the same file.
    unsigned long long getInode() const noexcept { return m_stat.st_ino; }

    /// The device that the file is on.
    unsigned long long getDevice() const noexcept { return m_stat.st_dev; }

    /// The device that the file itself is, for a character or block device.
    unsigned long long getSpecialDevice() const noexcept { return m_stat.st_rdev; }

    /// How many names the file has on its device.
    unsigned long long getLinkCount() const noexcept { return m_stat.st_nlink; }

    /// The system's record, all of it.
    struct stat const& getStat() const noexcept {
        return m_stat;
    }

    /// Sets the times of last access and last modification (`utimes`), both to the same; symbolic links are followed.
    ///
    /// Reports `SysError` alone: 7 for `EPERM`, `EACCES` and `EROFS`, 2 for `ENOENT`, `ENOTDIR`, `ENAMETOOLONG` and
    /// `ELOOP`, 19 for others.
    /// @param time  seconds since the epoch; 0 stands for the present
    /// @return true on failure
    static bool setModTime(char const* path, long time);
    static bool setModTime(std::string const& path, long time);
    static bool setModTime(UnicodeString const& path, long time);

private:
    bool m_valid;
    struct stat m_stat;
};

} // namespace vesk
