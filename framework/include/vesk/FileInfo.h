#pragma once

#include <vesk/Export.h>
#include <vesk/FileAccess.h>
#include <vesk/Group.h>
#include <vesk/User.h>

#include <string>
#include <sys/stat.h>

namespace vesk {

class UnicodeString;

/// The attributes of one file at one moment: its type, size, times, owner, permissions.
///
///     vesk::FileInfo const info("/etc/hostname", true);
///     if (info.isValid() && info.isRegularFile()) { use(info.getSize()); }
///
/// A plain value that holds no descriptor and is not kept up to date. Any number of threads may read it at
/// once. Check `isValid` first: the other results of an invalid object are meaningless.
///
/// Times are whole seconds since the epoch; `getStat` has their fractions. A file that the types of a 32-bit
/// program cannot describe, for example one of 2 GiB or more, fails with `EOVERFLOW` there.
class VESK_API FileInfo {
public:
    /// The kinds of files.
    enum class Type {
        UNKNOWN, ///< None of the types below, or the object is invalid.
        REGULAR,
        DIRECTORY,
        SYMBOLIC_LINK, ///< Only if the link was not followed.
        CHARACTER_DEVICE,
        BLOCK_DEVICE,
        FIFO,
        SOCKET,
    };

    /// Creates an invalid object, all zero.
    FileInfo() noexcept : m_valid(false), m_stat() {}

    /// Creates a valid object from the result of `fstat` or a related call.
    explicit FileInfo(struct stat const& data) noexcept : m_valid(true), m_stat(data) {}

    /// @{
    /// Reads the attributes of a path; see `init`. The name goes to the system unchanged.
    FileInfo(char const* path, bool follow);
    FileInfo(std::string const& path, bool follow);
    FileInfo(UnicodeString const& path, bool follow);
    /// @}

    /// Reads the attributes of a path (`stat`, `lstat`). Check `isValid` afterwards. Blocks as long as the
    /// file system does.
    ///
    /// | errno | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | `ENOENT`, `ENOTDIR`, `ENAMETOOLONG`, `ELOOP` | `INVALID_PATH` | `BAD_PATH` |
    /// | `EIO` | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | `ENOMEM` | `OUT_OF_MEMORY` | `UNCLASSIFIED` |
    /// | `EACCES` | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | `EFAULT`, for a null path | `SPOILED_INTEGRITY` | `UNCLASSIFIED` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @param follow  whether to describe the target of a symbolic link instead of the link itself
    void init(char const* path, bool follow);

    /// Returns whether the attributes were read successfully.
    bool isValid() const noexcept { return m_valid; }

    /// Returns the permission, set-id and sticky bits.
    VESK_API_INLINE FileAccess getAccess() const noexcept {
        return FileAccess(m_stat.st_mode) & FileAccess::mask;
    }

    /// Returns the owner by id; the name is looked up on its first use.
    VESK_API_INLINE User getOwner() const { return User(static_cast<long long>(m_stat.st_uid)); }

    /// Returns the group by id; the name is looked up on its first use.
    VESK_API_INLINE Group getGroup() const { return Group(static_cast<long long>(m_stat.st_gid)); }

    /// Returns the kind of the file.
    Type getType() const noexcept;
    /// Returns whether it is a regular file.
    bool isRegularFile() const noexcept { return S_ISREG(m_stat.st_mode); }
    /// Returns whether it is a directory.
    bool isDirectory() const noexcept { return S_ISDIR(m_stat.st_mode); }
    /// Returns whether it is a symbolic link.
    bool isSymbolicLink() const noexcept { return S_ISLNK(m_stat.st_mode); }

    /// Returns the size in bytes of a regular file's content, or of the path in a symbolic link.
    long long getSize() const noexcept { return m_stat.st_size; }

    /// Returns the bytes that the file occupies on its device. This is less than its size if it has holes.
    long long getAllocatedSize() const noexcept { return 512LL * m_stat.st_blocks; }

    /// Returns when the content was last read. Many file systems update it only occasionally.
    long long getAccessTime() const noexcept { return m_stat.st_atim.tv_sec; }

    /// Returns when the content was last changed; `setModTime` sets this time.
    long long getModTime() const noexcept { return m_stat.st_mtim.tv_sec; }

    /// Returns when the content or any of these attributes was last changed.
    long long getChangeTime() const noexcept { return m_stat.st_ctim.tv_sec; }

    /// Returns the number of the file on its device. Two paths with the same inode and device are the same
    /// file.
    unsigned long long getInode() const noexcept { return m_stat.st_ino; }

    /// Returns the device that contains the file.
    unsigned long long getDevice() const noexcept { return m_stat.st_dev; }

    /// Returns the device that a character or block device file represents.
    unsigned long long getSpecialDevice() const noexcept { return m_stat.st_rdev; }

    /// Returns how many names the file has on its device.
    unsigned long long getLinkCount() const noexcept { return m_stat.st_nlink; }

    /// Returns the complete record of the system.
    struct stat const& getStat() const noexcept {
        return m_stat;
    }

    /// @{
    /// Sets the times of last access and last modification to the same value (`utimes`). Symbolic links are
    /// followed.
    ///
    /// Reports only `SysError`: `SysErrorId::PERMISSION_DENIED` for `EPERM`, `EACCES` and `EROFS`,
    /// `SysErrorId::INVALID_PATH` for `ENOENT`, `ENOTDIR`, `ENAMETOOLONG` and `ELOOP`,
    /// `SysErrorId::UNCLASSIFIED` for others.
    /// @param time  seconds since the epoch; 0 stands for the current time
    /// @return true on failure
    [[nodiscard]] static bool setModTime(char const* path, long time);
    [[nodiscard]] static bool setModTime(std::string const& path, long time);
    [[nodiscard]] static bool setModTime(UnicodeString const& path, long time);
    /// @}

private:
    bool m_valid;
    struct stat m_stat;
};

} // namespace vesk
