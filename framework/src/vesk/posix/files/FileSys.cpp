#include <vesk/FileSys.h>

#include "vesk/common/FileCopy.h"
#include "vesk/linux/MountTable.h"
#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/Environment.h>
#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/FileSys";

// Rows that several operations share.
constexpr ErrnoRow DENIED{
    {EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
constexpr ErrnoRow NO_SEARCH{{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED};
constexpr ErrnoRow BAD_PATH{
    {ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH};
constexpr ErrnoRow EXISTS_ALREADY{{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS};
constexpr ErrnoRow IS_DIRECTORY{{EISDIR}, SysErrorId::INVALID_PATH, FileAccessErrorId::IS_A_DIRECTORY};
constexpr ErrnoRow IN_USE{{EBUSY, EEXIST, ETXTBSY, ENOTEMPTY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY};
constexpr ErrnoRow TOO_MANY_LINKS{{EMLINK}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::UNCLASSIFIED};
constexpr ErrnoRow NO_SPACE{{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE};
constexpr ErrnoRow DEVICE_ERROR{{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::NO_DEVICE};
constexpr ErrnoRow BAD_ADDRESS{{EFAULT}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
constexpr ErrnoRow NO_MEMORY{{ENOMEM}, SysErrorId::OUT_OF_MEMORY};
constexpr ErrnoRow UNCLASSIFIED{OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};

constexpr ErrnoRow CURRENT_WD_ERRORS[] = {
    {{ENOENT}, SysErrorId::INVALID_PATH},      {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {{EACCES}, SysErrorId::PERMISSION_DENIED}, {{EFAULT, EINVAL, ERANGE}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow EXISTS_ERRORS[] = {
    {{ENOENT, ENOTDIR}, NONE, NONE, Outcome::ABSENT},
    // The file exists and is only too large for the fields of a 32-bit `stat`.
    {{EOVERFLOW}, NONE, NONE, Outcome::DONE},
    NO_SEARCH,
    DEVICE_ERROR,
    {{ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    NO_MEMORY,
    {{EFAULT}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CREATE_DIR_ERRORS[] = {
    DENIED, BAD_PATH, EXISTS_ALREADY, TOO_MANY_LINKS, UNCLASSIFIED,
};

constexpr ErrnoRow REMOVE_FILE_ERRORS[] = {
    DENIED, BAD_PATH, IN_USE, IS_DIRECTORY, BAD_ADDRESS, NO_MEMORY, UNCLASSIFIED,
};

constexpr ErrnoRow REMOVE_DIR_ERRORS[] = {
    DENIED,
    BAD_PATH,
    {{EBUSY, ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
    {{EEXIST, ENOTEMPTY}, SysErrorId::DIRECTORY_NOT_EMPTY, FileAccessErrorId::BUSY},
    IS_DIRECTORY,
    BAD_ADDRESS,
    NO_MEMORY,
    UNCLASSIFIED,
};

constexpr ErrnoRow MOVE_ERRORS[] = {
    DENIED,
    {{ENOENT, ENOTDIR, EISDIR, EINVAL, ENAMETOOLONG, ELOOP},
     SysErrorId::INVALID_PATH,
     FileAccessErrorId::BAD_PATH},
    DEVICE_ERROR,
    IN_USE,
    {{EXDEV}, SysErrorId::NOT_IMPLEMENTED, FileAccessErrorId::UNCLASSIFIED},
    NO_SPACE,
    TOO_MANY_LINKS,
    UNCLASSIFIED,
};

constexpr ErrnoRow CHANGE_WD_ERRORS[] = {
    // Required by callers: a directory that cannot be reached is reported as denied access, for any reason.
    {{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::ACCESS_DENIED},
    NO_SEARCH,
    {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY},
    DEVICE_ERROR,
    BAD_ADDRESS,
    UNCLASSIFIED,
};

constexpr ErrnoRow MAX_COMPONENT_LENGTH_ERRORS[] = {
    BAD_PATH,
    NO_SEARCH,
    {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::UNCLASSIFIED},
    UNCLASSIFIED,
};

constexpr ErrnoRow READ_LINK_ERRORS[] = {
    // The system returns `EINVAL` for a path that is not a symbolic link.
    {{ENOENT, ENOTDIR, EINVAL, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    NO_SEARCH,
    DEVICE_ERROR,
    UNCLASSIFIED,
};

constexpr ErrnoRow CREATE_LINK_ERRORS[] = {
    // The file system does not support symbolic links.
    {{EPERM}, SysErrorId::NOT_IMPLEMENTED, FileAccessErrorId::UNCLASSIFIED},
    {{EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    BAD_PATH,
    EXISTS_ALREADY,
    DEVICE_ERROR,
    NO_SPACE,
    UNCLASSIFIED,
};

constexpr ErrnoRow CHANGE_ERRORS[] = {
    DENIED,       BAD_PATH,
    DEVICE_ERROR, {{EFAULT, EINVAL}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    NO_MEMORY,    UNCLASSIFIED,
};

/// Returns whether a system call failed, after reporting the failure.
bool hasFailed(Place place, int result, ErrnoTable table, char const* path) noexcept {
    if (result == 0) {
        return false;
    }
    classify(place, table, errno, path);
    return true;
}

/// The text "a or b" for a failure of one of two paths. Its size is the limit of a report, which truncates
/// longer texts.
class EitherPath {
public:
    EitherPath(char const* one, char const* other) noexcept {
        snprintf(m_text, sizeof m_text, "%s%s%s", one, " or ", other);
    }
    char const* get() const noexcept { return m_text; }

private:
    char m_text[std::ErrorObject::TEXT_SIZE + 1];
};

/// Returns whether the id fits in the type of the system. A truncated id would be that of another user.
bool isOfSystem(long long id) noexcept {
    static_assert(std::numeric_limits<uid_t>::max() == UINT32_MAX && sizeof(gid_t) == sizeof(uid_t));
    // `BAD_ID` means no id; the system then leaves the owner unchanged.
    return id >= User::BAD_ID && id <= std::numeric_limits<uid_t>::max();
}
static_assert(User::BAD_ID == -1 && Group::BAD_ID == -1);

int changeOwner(char const* path, User const& user, Group const& group) {
    long long const user_id = user.getId();
    long long const group_id = group.getId();
    if (!isOfSystem(user_id) || !isOfSystem(group_id)) {
        errno = EINVAL;
        return -1;
    }
    return chown(path, static_cast<uid_t>(user_id), static_cast<gid_t>(group_id));
}

// On 32-bit systems `statvfs` fails if a count of blocks or files needs 64 bits; `statvfs64` has no such
// limit.
#if __WORDSIZE == 32
using FileSystemData = struct statvfs64;
constexpr auto readFileSystemData = statvfs64;
#else
using FileSystemData = struct statvfs;
constexpr auto readFileSystemData = statvfs;
#endif

} // namespace

int FileSys::exists(char const* path, bool follow) {
    struct stat info;
    if ((follow ? stat(path, &info) : lstat(path, &info)) == 0) {
        return 0;
    }
    return toResult(classify(SOURCE, EXISTS_ERRORS, errno, path));
}

bool FileSys::copy(
    UnicodeString const& source, UnicodeString const& destination, unsigned int buffer_size, void* buffer) {
    return copyFile(source, destination, buffer_size, buffer);
}

bool FileSys::createDir(char const* path) {
    return hasFailed(SOURCE, mkdir(path, S_IRWXU), CREATE_DIR_ERRORS, path);
}

bool FileSys::removeFile(char const* path) {
    return hasFailed(SOURCE, unlink(path), REMOVE_FILE_ERRORS, path);
}

bool FileSys::removeDir(char const* path) {
    return hasFailed(SOURCE, rmdir(path), REMOVE_DIR_ERRORS, path);
}

bool FileSys::move(char const* source, char const* destination) {
    if (rename(source, destination) == 0) {
        return false;
    }
    int const error = errno;
    classify(SOURCE, MOVE_ERRORS, error, EitherPath(source, destination).get());
    return true;
}

bool FileSys::currentWD(std::string& result) {
    char directory[4096];
    if (getcwd(directory, sizeof directory) == nullptr) {
        classify(SOURCE, CURRENT_WD_ERRORS, errno);
        return true;
    }
    result = directory;
    return false;
}

bool FileSys::changeWD(char const* path) {
    return hasFailed(SOURCE, chdir(path), CHANGE_WD_ERRORS, path);
}

std::list<std::string> FileSys::getEntryPoints() {
    return {"/"};
}

void FileSys::getEntryPoints(std::list<UnicodeString>& result) {
    result.clear();
    result.emplace_back("/", 2U);
}

std::list<std::string> FileSys::getMountPoints() {
    return readMountPoints();
}

bool FileSys::maxComponentLength(char const* path, unsigned int& length) {
    length = 0;
    FileSystemData data;
    // Repeated in a loop, because the number of interruptions is not limited.
    int const result = retryOnEintr([&] { return readFileSystemData(path, &data); });
    if (hasFailed(SOURCE, result, MAX_COMPONENT_LENGTH_ERRORS, path)) {
        return true;
    }
    length = static_cast<unsigned int>(data.f_namemax);
    return false;
}

char const* FileSys::getTempPath() {
    char const* const path = Environment::getVariable("TMPDIR");
    return *path != '\0' ? path : "/tmp";
}

char const* FileSys::getHomePath() {
    return Environment::getVariable("HOME");
}

bool FileSys::readLink(char const* path, char* buffer, unsigned int& size) {
    // A size of 0 wraps around to the largest size.
    ssize_t const count = readlink(path, buffer, size - 1);
    if (count < 0) {
        int const error = errno;
        buffer[0] = '\0';
        size = 0;
        classify(SOURCE, READ_LINK_ERRORS, error, path);
        return true;
    }
    buffer[count] = '\0';
    size = static_cast<unsigned int>(count);
    return false;
}

bool FileSys::createLink(char const* target, char const* link) {
    return hasFailed(SOURCE, symlink(target, link), CREATE_LINK_ERRORS, link);
}

bool FileSys::changeAccess(char const* path, FileAccess const& access) {
    int const result = retryOnEintr([&] { return chmod(path, access & FileAccess::mask); });
    return hasFailed(SOURCE, result, CHANGE_ERRORS, path);
}

bool FileSys::changeOwnerGroup(UnicodeString const& path, User const& user, Group const& group) {
    int const result = retryOnEintr([&] { return changeOwner(path.c_str(), user, group); });
    return hasFailed(SOURCE, result, CHANGE_ERRORS, path.c_str());
}

} // namespace vesk
