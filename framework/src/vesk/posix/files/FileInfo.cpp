#include <vesk/FileInfo.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>
#include <vesk/UnicodeString.h>

#include <sys/time.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/FileInfo";

constexpr ErrnoRow INIT_ERRORS[] = {
    {{ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{EIO}, SysErrorId::INPUT_OUTPUT, FileAccessErrorId::NO_DEVICE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED},
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{EFAULT}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow SET_MOD_TIME_ERRORS[] = {
    {{EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED},
    {{ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

} // namespace

FileInfo::FileInfo(char const* path, bool follow) : FileInfo() {
    init(path, follow);
}

FileInfo::FileInfo(std::string const& path, bool follow) : FileInfo() {
    init(path.c_str(), follow);
}

FileInfo::FileInfo(UnicodeString const& path, bool follow) : FileInfo() {
    init(path.c_str(), follow);
}

void FileInfo::init(char const* path, bool follow) {
    m_valid = true;
    // Called through a pointer because the functions are declared not to take null. A `UnicodeString`
    // contains null after a failed conversion, and the system reports it.
    int (*const ask)(char const*, struct stat*) = follow ? stat : lstat;
    if (ask(path, &m_stat) != 0) {
        classify(SOURCE, INIT_ERRORS, errno, path);
        m_valid = false;
    }
}

FileInfo::Type FileInfo::getType() const noexcept {
    switch (m_stat.st_mode & S_IFMT) {
    case S_IFREG:
        return Type::REGULAR;
    case S_IFDIR:
        return Type::DIRECTORY;
    case S_IFLNK:
        return Type::SYMBOLIC_LINK;
    case S_IFCHR:
        return Type::CHARACTER_DEVICE;
    case S_IFBLK:
        return Type::BLOCK_DEVICE;
    case S_IFIFO:
        return Type::FIFO;
    case S_IFSOCK:
        return Type::SOCKET;
    default:
        return Type::UNKNOWN;
    }
}

bool FileInfo::setModTime(char const* path, long time) {
    timeval const both[2] = {{time, 0}, {time, 0}};
    // Called through a pointer, as above: the system reports a null path.
    int (*const set)(char const*, timeval const*) = utimes;
    if (set(path, time == 0 ? nullptr : both) != 0) {
        classify(SOURCE, SET_MOD_TIME_ERRORS, errno);
        return true;
    }
    return false;
}

bool FileInfo::setModTime(UnicodeString const& path, long time) {
    return setModTime(path.c_str(), time);
}

bool FileInfo::setModTime(std::string const& path, long time) {
    return setModTime(UnicodeString(path), time);
}

} // namespace vesk
