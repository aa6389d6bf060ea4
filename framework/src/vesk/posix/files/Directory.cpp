#include <vesk/Directory.h>

#include "PrivateDirectory.h"
#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/FileAccessError.h>
#include <vesk/SavedErrorChain.h>
#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>
#include <vesk/common/UniqueFd.h>
#include <vesk/common/Unwindable.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Directory";

constexpr ErrnoRow OPEN_ERRORS[] = {
    {{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{EACCES}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY, FileAccessErrorId::NOT_A_DIRECTORY},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {OTHERS, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow TAKE_OVER_ERRORS[] = {
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow NEXT_ERRORS[] = {
    {{EBADF, EOVERFLOW, ENOENT}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CUR_INFO_ERRORS[] = {
    {{ENOENT}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{EBADF, ENOTDIR, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow CUR_DIR_ERRORS[] = {
    {{ENOENT, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH},
    {{EACCES}, SysErrorId::PERMISSION_DENIED},
    {{ENOTDIR}, SysErrorId::NOT_A_DIRECTORY},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

/// Closes a resource during the clean-up after a failure. An error here is only a warning, because the first
/// failure is the one to report.
template <typename Close>
void closeOrWarn(Close close_it, char const* function, char const* message, int line = __builtin_LINE()) {
    if (close_it() != 0) {
        std::GlobalErrorHandler::doWarning(SOURCE, line, function, "%s", message);
        std::ErrorStorage::ack();
    }
}

/// Calls `closedir`, which is declared not to take null. For null, fails as the system does.
int closeStream(DIR* dir) noexcept {
    if (dir == nullptr) {
        errno = EINVAL;
        return -1;
    }
    CancellationOff const cancellation_off;
    return closedir(dir);
}

/// Makes a `Directory` that owns a descriptor. Closes the descriptor if it is not one of a directory. After a
/// failure of the first read, the `Directory` has closed it.
Directory takeOver(UniqueFd fd, char const* function) {
    DirectoryHandle handle;
    handle.fd = fd.get();
    Directory directory(&handle);
    if (directory.isValid() || directory.atEnd()) {
        static_cast<void>(fd.release());
        return directory;
    }
    SavedErrorChain const saved;
    closeOrWarn([&fd] { return fd.close(); }, function, "error closing dir-fd");
    saved.restore();
    return directory;
}

/// Clears close-on-exec, which `fdopendir` sets. Required by callers: a descriptor that is opened here stays
/// open across `exec`.
void keepAcrossExec(int fd) noexcept {
    fcntl(fd, F_SETFD, 0);
}

} // namespace

Directory::Directory() : m_at_end(true) {}

Directory::Directory(std::string const& path, bool) {
    m_handle.fd = open(path.c_str(), O_RDONLY);
    adopt(path.c_str());
}

Directory::Directory(Directory const& parent, std::string const& name, bool follow, bool) {
    if (name.empty() || name.find('/') != std::string::npos) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Directory c'tor called on invalid entry-name.");
        return;
    }
    if (!parent.m_valid) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Directory c'tor called on invalid directory.");
        return;
    }
    m_handle.fd =
        unwindable([&] { return openat(parent.m_handle.fd, name.c_str(), follow ? 0 : O_NOFOLLOW); });
    adopt(name.c_str());
}

Directory::Directory(DirectoryHandle const* handle) {
    m_handle.fd = handle->fd;
    m_handle.dir = fdopendir(m_handle.fd);
    if (m_handle.dir != nullptr) {
        init();
        return;
    }
    classify(SOURCE, TAKE_OVER_ERRORS, errno);
    m_handle.fd = -1;
}

/// Completes a constructor after the open, which has stored its result in the handle.
void Directory::adopt(char const* path) {
    if (m_handle.fd != -1) {
        m_handle.dir = fdopendir(m_handle.fd);
        if (m_handle.dir != nullptr) {
            keepAcrossExec(m_handle.fd);
            init();
            return;
        }
    }
    classify(SOURCE, OPEN_ERRORS, errno, path);
    if (m_handle.fd != -1) {
        if (closeFd(m_handle.fd) != 0) {
            std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "Directory", "Error closing dir FD");
        }
        m_handle.fd = -1;
    }
}

/// Moves to the first entry of the stream. Releases the stream if that fails.
void Directory::init() {
    m_handle.entry = nullptr;
    if (next() >= 0) {
        m_valid = true;
        return;
    }
    SavedErrorChain const saved;
    closeOrWarn([this] { return closeStream(m_handle.dir); }, "init", "error closing dir");
    if (m_handle.fd != -1) {
        // Also after a successful `closedir`, for a `closedir` that failed before it closed the descriptor.
        // Usually the descriptor is closed already, and this call warns. If another thread has received the
        // same number in between, the call closes the descriptor of that thread. This is accepted, because a
        // failure of the first step is rare.
        closeOrWarn([this] { return closeFd(m_handle.fd); }, "init", "error closing dir-fd");
    }
    m_handle = DirectoryHandle();
    saved.restore();
}

int Directory::next() {
    dirent* entry = nullptr;
    if (m_handle.dir != nullptr) {
        errno = 0;
        entry = readdir(m_handle.dir);
    } else {
        errno = EBADF; // As the system does for a closed stream; `readdir` must not be given null.
    }
    if (entry != nullptr) {
        m_handle.entry = entry;
        return 0;
    }
    m_at_end = true;
    if (errno == 0) {
        return 1;
    }
    classify(SOURCE, NEXT_ERRORS, errno);
    return -1;
}

FileInfo Directory::curInfo(bool follow) const {
    if (m_at_end || m_handle.entry == nullptr) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "curInfo() called on directory with atEnd() == true");
        return FileInfo();
    }
    struct stat data;
    if (fstatat(m_handle.fd, m_handle.entry->d_name, &data, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
        classify(SOURCE, CUR_INFO_ERRORS, errno, m_handle.entry->d_name);
        return FileInfo();
    }
    return FileInfo(data);
}

Directory Directory::curDir(bool follow, bool) const {
    if (m_at_end || m_handle.entry == nullptr) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "curDir() called on directory with atEnd() == true");
        return Directory();
    }
    UniqueFd fd(
        unwindable([&] { return openat(m_handle.fd, m_handle.entry->d_name, follow ? 0 : O_NOFOLLOW); }));
    if (!fd.isOpen()) {
        classify(SOURCE, CUR_DIR_ERRORS, errno);
        return Directory();
    }
    int const number = fd.get();
    Directory directory = takeOver(std::move(fd), "curDir");
    if (directory.m_valid) {
        keepAcrossExec(number);
    }
    return directory;
}

Directory Directory::curDir(bool flag) const {
    return curDir(true, flag);
}

int Directory::destroy() {
    if (!m_valid) {
        return 0;
    }
    std::GlobalErrorHandler::doAssert(
        m_handle.dir != nullptr, "m_handle.dir != NULL", SOURCE, __LINE__, "destroy", nullptr);
    KeptErrorChain const kept_chain;
    // Safe to repeat: the system never interrupts the close of a directory after it has begun, so the stream
    // still exists.
    if (retryOnEintr([this] { return closeStream(m_handle.dir); }) != 0) {
        report(SOURCE, Chain::NEW, SysErrorId::UNCLASSIFIED, SystemErrorText().get());
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "destroy", "Error closing directory @%p; a file descriptor may have leaked!",
            static_cast<void*>(this));
        std::ErrorStorage::ack();
    }
    return 0;
}

Directory detail::openPrivateDirectory(char const* path) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.isOpen()) {
        int const error = errno;
        DirectoryHandle const none;
        Directory directory(&none);
        // The constructor has reported the missing descriptor. Reports the reason of the open instead.
        std::ErrorStorage::ack();
        errno = error;
        classify(SOURCE, OPEN_ERRORS, error, path);
        return directory;
    }
    return takeOver(std::move(fd), "openPrivateDirectory");
}

} // namespace vesk
