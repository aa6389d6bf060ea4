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
///     if (vesk::FileSys::createDir(path) && vesk::FileSys::exists(path, true) != 0) { ... } // Neither new nor there.
///
/// Each takes its path as it stands: none creates the directories above it, works through a tree, or resolves the path
/// first. Paths are in the encoding of the locale and go to the system unchanged; a null path is one that the system
/// refuses (`EFAULT`), except where an operation says otherwise.
///
/// A failure is reported as two levels, a row of `SysError` that tells the cause and on top of it a row of
/// `FileAccessError` with the path; "alone" marks those without the second one. An interruption by a signal is a failure
/// like any other where an operation does not say that it tries again.
///
/// Has no state: all may be called from any thread. What they touch belongs to the whole process, such as the working
/// directory, which every relative path depends on. All block as long as the file system below them takes.
class VESK_API FileSys {
public:
    FileSys() = delete;

    /// Copies the bytes of a file into a new file, which nobody but its owner and group may use (0660, less the umask):
    /// access, owner and times of the source are not carried over. The data is on the medium when it returns (`fsync`).
    ///
    ///     if (vesk::FileSys::copy(source, destination, 65536, nullptr)) { ... }
    ///
    /// It never overwrites: a destination that exists, also the source itself, is refused with `FileAccessErrorId::ALREADY_EXISTS` and
    /// stays as it was. A failure on the way leaves on the disk what was written until then. A file that cannot be closed
    /// or brought to the medium at the end is no failure of the call but ends the process (`GlobalErrorHandler::doAbort`).
    ///
    /// Allocates the buffer if it is to, and nothing else.
    ///
    /// @param source       an empty path fails without a report, as it does for the destination
    /// @param buffer_size  bytes to copy at a time; 0 is refused with `CommonErrorId::CONTRACT_BROKEN`
    /// @param buffer       room for as many bytes; null: memory for the time of the call (`CommonErrorId::OUT_OF_MEMORY` if there is none)
    /// @return true on failure: besides these, what `handleOpenError` reports of an open that fails, and a row of `SysError`
    ///         with one of `StreamError` on top for a read or a write that fails (a full file system: 15 and 1)
    static bool copy(
        UnicodeString const& source, UnicodeString const& destination, unsigned int buffer_size,
        void* buffer);

    /// Whether there is something at a path.
    ///
    /// Reports `SysError` and `FileAccessErrorId::NO_SPACE` and 3 without the right to search the directories above, 11 and 8 for an
    /// error of the device, 2 and 0 for a name that is too long or a loop of links; alone 1 without memory, 10 for a bad
    /// address, 19 for anything else.
    /// @param follow  true asks for what a symbolic link leads to (`stat`), false for the link itself (`lstat`)
    /// @return 0 it exists, also if it is too large for this system to describe; 1 it does not, also where a directory on
    ///         the way is none; -1 on failure
    static int exists(char const* path, bool follow);

    /// Creates a directory for its owner alone, 0700 less the umask (`mkdir`).
    ///
    /// Reports `SysError` and `FileAccessErrorId::NO_SPACE` and 3 without the right to, 2 and 0 for a bad path, 12 and 4 if
    /// something is there, 0 and 9 if the directory above has its fill of others, 19 and 9 for anything else.
    /// @return true on failure
    static bool createDir(char const* path);

    /// Removes a name of a file, which goes with its last one, or a symbolic link (`unlink`).
    ///
    /// Reports `SysError` and `FileAccessErrorId::NO_SPACE` and 3 without the right to, 2 and 0 for a bad path, 13 and 5 if it is
    /// in use, 2 and 2 for a directory, 10 and 9 for a bad address, 1 alone without memory, 19 and 9 for anything else.
    /// @return true on failure
    static bool removeFile(char const* path);

    /// Removes an empty directory (`rmdir`).
    ///
    /// Reports as `removeFile` does, and `SysErrorId::DIRECTORY_NOT_EMPTY` with `FileAccessErrorId::BUSY` for a directory that is not empty.
    /// @return true on failure
    static bool removeDir(char const* path);

    /// Gives a file or directory another name within its file system (`rename`). A file at the destination is replaced at
    /// one stroke. To another file system nothing is copied, and the source stays.
    ///
    /// The system does not tell which of the two it refused, so both are the path of the report: "a or b". Reports
    /// `SysError` and `FileAccessErrorId::NO_SPACE` and 3 without the right to, 2 and 0 for a bad path, 11 and 8 for an error of the
    /// device, 13 and 5 if one is in use or a directory at the destination is not empty, 6 and 9 between two file systems,
    /// 15 and 7 without space, 0 and 9 if a directory has its fill of others, 19 and 9 for anything else.
    /// @return true on failure
    static bool move(char const* source, char const* destination);

    /// The absolute path of the working directory (`getcwd`).
    ///
    /// Reports `SysErrorId::INVALID_PATH` if the directory has been removed, 1 without memory, 7 if a directory above it cannot be read,
    /// 10 if the path has more than 4,095 bytes, 19 for anything else; all of them alone.
    /// @param result  takes the path; stays as it is on failure
    /// @return true on failure
    static bool currentWD(std::string& result);

    /// Changes the working directory, of all threads (`chdir`).
    ///
    /// Reports `SysError` and `FileAccessErrorId::IS_A_DIRECTORY` and 3 for a bad path, 7 and 3 without the right to, 3 and 1 for what is
    /// no directory, 11 and 8 for an error of the device, 10 and 9 for a bad address, 19 and 9 for anything else.
    /// @return true on failure
    static bool changeWD(char const* path);

    /// The roots of the file system, which is one: "/".
    static std::list<std::string> getEntryPoints();

    /// The same as handles on a constant text.
    /// @param result  takes the list in place of what it held
    static void getEntryPoints(std::list<UnicodeString>& result);

    /// The longest name that the file system of a path allows (`statvfs`, on 32-bit systems `statvfs64`; tried again when
    /// a signal interrupts it).
    ///
    /// Reports `SysError` and `FileAccessErrorId::IS_A_DIRECTORY` and 0 for a bad path, 7 and 3 without the right to search the
    /// directories above, 11 and 9 for an error of the device, 19 and 9 for anything else.
    /// @param length  in bytes, without a NUL; 0 on failure
    /// @return true on failure
    static bool maxComponentLength(char const* path, unsigned int& length);

    /// Where temporary files go: the environment's "TMPDIR" if it is set and not empty, else "/tmp". The text is valid
    /// until the variable is changed. See `Environment::getVariable` for threads.
    static char const* getTempPath();

    /// The environment's "HOME", and the empty text if it is not set. Otherwise as `getTempPath`.
    static char const* getHomePath();

    /// The target of a symbolic link (`readlink`). A target that is longer than the buffer is cut without a report.
    ///
    ///     char target[256];
    ///     unsigned int size = sizeof target;
    ///     if (!vesk::FileSys::readLink("/proc/self/exe", target, size)) { ... } // `size` is the length now.
    ///
    /// Reports `SysError` and `FileAccessErrorId::IS_A_DIRECTORY` and 0 for a bad path or what is no link, 7 and 3 without the right to
    /// search the directories above, 11 and 8 for an error of the device, 19 and 9 for anything else.
    /// @param buffer  takes the target with a NUL behind it; the empty text on failure; not null
    /// @param size    in: the bytes of the buffer, at least 2, and never 0: the call would take that for the largest of all
    ///                sizes. Out: the length of the text without its NUL, 0 on failure.
    /// @return true on failure
    static bool readLink(char const* path, char* buffer, unsigned int& size);

    /// Creates a symbolic link (`symlink`).
    ///
    /// Reports `SysError` and `FileAccessError`, always with the link as the path: 6 and 9 if its file system has no links,
    /// 7 and 3 without the right to, 2 and 0 for a bad path, 12 and 4 if something is there, 11 and 8 for an error of the
    /// device, 15 and 7 without space, 19 and 9 for anything else.
    /// @param target  what the link shall hold, whether or not it exists
    /// @param link    what is created
    /// @return true on failure
    static bool createLink(char const* target, char const* link);

    /// Sets the access of a file or directory, of what a symbolic link leads to (`chmod`, tried again when a signal
    /// interrupts it).
    ///
    /// Reports `SysError` and `FileAccessErrorId::NO_SPACE` and 3 without the right to, 2 and 0 for a bad path, 11 and 8 for an error
    /// of the device, 10 and 9 for a bad address or argument, 1 alone without memory, 19 and 9 for anything else.
    /// @param access  only what `FileAccess::mask` has counts
    /// @return true on failure
    static bool changeAccess(char const* path, FileAccess const& access);

    /// Sets the owner and the group of a file or directory, of what a symbolic link leads to (`chown`, tried again when a
    /// signal interrupts it). An id that is not known yet is looked up by the name and kept in the object, so neither
    /// `user` nor `group` may be shared with another thread meanwhile.
    ///
    /// Reports as `changeAccess` does. An id beyond those that the system has is an invalid argument.
    /// @param user   one without an id, such as `User(User::BAD_ID)` or an unknown name, leaves the owner as it is
    /// @param group  in the same way
    /// @return true on failure
    static bool changeOwnerGroup(UnicodeString const& path, User const& user, Group const& group);

    /// Where file systems are mounted, in the order of "/proc/mounts", as that file has them: a blank in a path reads
    /// "\040", and so on.
    ///
    /// Reports nothing: without the file the list is empty, and where reading it fails the list ends.
    static std::list<std::string> getMountPoints();
};

} // namespace vesk
