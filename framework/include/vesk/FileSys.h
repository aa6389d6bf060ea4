#pragma once

#include <vesk/Export.h>
#include <vesk/FileAccess.h>
#include <vesk/Group.h>
#include <vesk/UnicodeString.h>
#include <vesk/User.h>

#include <list>
#include <string>

namespace vesk {

/// Operations on the file system that need no open file.
///
///     if (vesk::FileSys::createDir(path) && vesk::FileSys::exists(path, true) != 0) { ... } // Missing.
///
/// Each operation takes its path as it is: none creates the directories above it, recurses into a tree, or
/// resolves the path first. Paths are in the encoding of the locale and go to the system unchanged. The
/// system refuses a null path (`EFAULT`), except where an operation says otherwise.
///
/// A failure is reported in two levels: a row of `SysError` with the cause, and on top of it a row of
/// `FileAccessError` with the path. Where the second level is "none", there is only the row of `SysError`. An
/// interruption by a signal is a failure like any other, unless the operation says that it repeats the call.
///
/// The class has no state: any thread may call any operation. What they change belongs to the whole process,
/// such as the working directory, which every relative path depends on. All of them block as long as the file
/// system does.
class VESK_API FileSys {
public:
    FileSys() = delete;

    /// Copies the bytes of a file into a new file with the permissions 0660, less the umask. Permissions,
    /// owner and times of the source are not copied. On return the data is on the medium (`fsync`).
    ///
    ///     if (vesk::FileSys::copy(source, destination, 65536, nullptr)) { ... }
    ///
    /// It never overwrites: an existing destination, including the source itself, is refused with
    /// `FileAccessErrorId::ALREADY_EXISTS` and stays unchanged. After a failure during the copy, the
    /// incomplete destination stays on the disk. If at the end a file cannot be closed or flushed to the
    /// medium, the process ends (`GlobalErrorHandler::doAbort`).
    ///
    /// Allocates only the buffer, and only if `buffer` is null.
    ///
    /// @param source       the existing file; a null or empty path fails without a report
    /// @param destination  the file to create; a null or empty path fails without a report
    /// @param buffer_size  bytes to copy at a time; 0 is refused with `CommonErrorId::CONTRACT_BROKEN`
    /// @param buffer       memory of `buffer_size` bytes; null allocates it for the duration of the call
    ///                     (`CommonErrorId::OUT_OF_MEMORY` if that fails)
    /// @return true on failure. Besides the reports above: what `handleOpenError` reports of an open that
    ///         fails, and a row of `SysError` with a row of `StreamError` on top for a read or a write that
    ///         fails (for a full file system `SysErrorId::NO_SPACE` and `StreamErrorId::TRANSFER_FAILED`)
    [[nodiscard]] static bool copy(
        UnicodeString const& source, UnicodeString const& destination, unsigned int buffer_size,
        void* buffer);

    /// Returns whether a path exists (`stat`, `lstat`).
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | no permission to search the directories above | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | a name that is too long, a loop of links | `INVALID_PATH` | `BAD_PATH` |
    /// | no memory | `OUT_OF_MEMORY` | none |
    /// | bad address | `SPOILED_INTEGRITY` | none |
    /// | other | `UNCLASSIFIED` | none |
    /// @param follow  true checks the target of a symbolic link (`stat`), false checks the link itself
    ///                (`lstat`)
    /// @return 0 if it exists, also if it is too large for this system to describe; 1 if it does not exist,
    ///         also if a directory on the way is not a directory; -1 on failure
    [[nodiscard]] static int exists(char const* path, bool follow);

    /// Creates a directory for its owner only: 0700, less the umask (`mkdir`).
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | no permission, a read-only file system | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | the path exists | `FILE_EXISTS` | `ALREADY_EXISTS` |
    /// | too many directories in the directory above (`EMLINK`) | `RESOURCES_EXHAUSTED` | `UNCLASSIFIED` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @return true on failure
    [[nodiscard]] static bool createDir(char const* path);

    /// Removes one name of a file, or a symbolic link (`unlink`). The file is deleted with its last name.
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | no permission, a read-only file system | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | in use | `IN_USE` | `BUSY` |
    /// | a directory (`EISDIR`) | `INVALID_PATH` | `IS_A_DIRECTORY` |
    /// | bad address | `SPOILED_INTEGRITY` | `UNCLASSIFIED` |
    /// | no memory | `OUT_OF_MEMORY` | none |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @return true on failure
    [[nodiscard]] static bool removeFile(char const* path);

    /// Removes an empty directory (`rmdir`).
    ///
    /// Reports as `removeFile` does, except for a directory that is not empty:
    /// `SysErrorId::DIRECTORY_NOT_EMPTY` with `FileAccessErrorId::BUSY` on top.
    /// @return true on failure
    [[nodiscard]] static bool removeDir(char const* path);

    /// Renames a file or directory within its file system (`rename`). An existing file at the destination is
    /// replaced atomically. Between two file systems nothing is copied, and the source stays.
    ///
    /// The system does not report which of the two paths it refused, so the report contains both: "a or b".
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | no permission, a read-only file system | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | one is in use, or the destination is a directory that is not empty | `IN_USE` | `BUSY` |
    /// | two file systems | `NOT_IMPLEMENTED` | `UNCLASSIFIED` |
    /// | no space | `NO_SPACE` | `NO_SPACE` |
    /// | too many directories in a directory (`EMLINK`) | `RESOURCES_EXHAUSTED` | `UNCLASSIFIED` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @return true on failure
    [[nodiscard]] static bool move(char const* source, char const* destination);

    /// Reads the absolute path of the working directory (`getcwd`).
    ///
    /// Reports only `SysError`: `SysErrorId::INVALID_PATH` if the directory has been removed,
    /// `SysErrorId::OUT_OF_MEMORY` without memory, `SysErrorId::PERMISSION_DENIED` if a directory above it
    /// cannot be read, `SysErrorId::SPOILED_INTEGRITY` if the path has more than 4,095 bytes,
    /// `SysErrorId::UNCLASSIFIED` for others.
    /// @param result  receives the path; unchanged on failure
    /// @return true on failure
    [[nodiscard]] static bool currentWD(std::string& result);

    /// Changes the working directory of the process, and so of all its threads (`chdir`).
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | bad path | `INVALID_PATH` | `ACCESS_DENIED` |
    /// | no permission | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | not a directory | `NOT_A_DIRECTORY` | `NOT_A_DIRECTORY` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | bad address | `SPOILED_INTEGRITY` | `UNCLASSIFIED` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @return true on failure
    [[nodiscard]] static bool changeWD(char const* path);

    /// Returns the roots of the file system, always the single entry "/".
    static std::list<std::string> getEntryPoints();

    /// Stores the roots of the file system as handles that borrow a constant text.
    /// @param result  receives the list; its previous content is discarded
    static void getEntryPoints(std::list<UnicodeString>& result);

    /// Reads the length of the longest name that the file system of a path allows (`statvfs`, on 32-bit
    /// systems `statvfs64`; repeated while a signal interrupts it).
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | no permission to search the directories above | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | input/output error | `INPUT_OUTPUT` | `UNCLASSIFIED` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @param length  in bytes, without a NUL; 0 on failure
    /// @return true on failure
    [[nodiscard]] static bool maxComponentLength(char const* path, unsigned int& length);

    /// Returns the directory for temporary files: the environment variable "TMPDIR" if it is set and not
    /// empty, otherwise "/tmp". The text is valid until the variable is changed. See
    /// `Environment::getVariable` about threads.
    static char const* getTempPath();

    /// Returns the environment variable "HOME", or the empty text if it is not set. Validity and threads as
    /// for `getTempPath`.
    static char const* getHomePath();

    /// Reads the target of a symbolic link (`readlink`). A target that is longer than the buffer is truncated
    /// without a report.
    ///
    ///     char target[256];
    ///     unsigned int size = sizeof target;
    ///     if (!vesk::FileSys::readLink("/proc/self/exe", target, size)) { ... } // `size` is the length now.
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | bad path, or not a symbolic link | `INVALID_PATH` | `BAD_PATH` |
    /// | no permission to search the directories above | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @param buffer  receives the target with a terminating NUL, or the empty text on failure; not null
    /// @param size    in: the bytes of the buffer, at least 2. It must not be 0, which wraps around to the
    ///                largest size. Out: the length of the text without its NUL, 0 on failure
    /// @return true on failure
    [[nodiscard]] static bool readLink(char const* path, char* buffer, unsigned int& size);

    /// Creates a symbolic link (`symlink`). The path in the report is always the link.
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | the file system has no symbolic links | `NOT_IMPLEMENTED` | `UNCLASSIFIED` |
    /// | no permission, a read-only file system | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | the path exists | `FILE_EXISTS` | `ALREADY_EXISTS` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | no space | `NO_SPACE` | `NO_SPACE` |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @param target  the content of the link; it need not exist
    /// @param link    the link to create
    /// @return true on failure
    [[nodiscard]] static bool createLink(char const* target, char const* link);

    /// Sets the permissions of a file or directory, or of the target of a symbolic link (`chmod`, repeated
    /// while a signal interrupts it).
    ///
    /// | failure | `SysErrorId` | on top: `FileAccessErrorId` |
    /// |---|---|---|
    /// | no permission, a read-only file system | `PERMISSION_DENIED` | `ACCESS_DENIED` |
    /// | bad path | `INVALID_PATH` | `BAD_PATH` |
    /// | input/output error | `INPUT_OUTPUT` | `NO_DEVICE` |
    /// | bad address, invalid argument | `SPOILED_INTEGRITY` | `UNCLASSIFIED` |
    /// | no memory | `OUT_OF_MEMORY` | none |
    /// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
    /// @param access  only the bits of `FileAccess::mask` are used
    /// @return true on failure
    [[nodiscard]] static bool changeAccess(char const* path, FileAccess const& access);

    /// Sets the owner and the group of a file or directory, or of the target of a symbolic link (`chown`,
    /// repeated while a signal interrupts it). An id that is not known yet is looked up by the name and
    /// stored in the object, so no other thread may use `user` or `group` during the call.
    ///
    /// Reports as `changeAccess` does. An id outside the range of the system is an invalid argument.
    /// @param user   without an id, such as `User(User::BAD_ID)` or an unknown name, it leaves the owner
    ///               unchanged
    /// @param group  without an id it leaves the group unchanged
    /// @return true on failure
    [[nodiscard]] static bool
    changeOwnerGroup(UnicodeString const& path, User const& user, Group const& group);

    /// Returns the mount points, in the order and the encoding of "/proc/mounts": a blank in a path reads
    /// "\040", and so on.
    ///
    /// Reports nothing: the list is empty if the file cannot be opened, and ends where reading it fails.
    static std::list<std::string> getMountPoints();
};

} // namespace vesk
