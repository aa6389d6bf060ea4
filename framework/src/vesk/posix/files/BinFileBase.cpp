#include <vesk/BinFileBase.h>

#include "vesk/posix/detail/CloseFd.h"
#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/Pipe.h>
#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>
#include <vesk/common/Unwindable.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>

#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/BinFileBase";

constexpr ErrnoRow CLOSE_ERRORS[] = {
    {{EINTR}, NONE, NONE, Outcome::REPEAT},
    {{EBADF}, SysErrorId::SPOILED_INTEGRITY},
    // Returned by a driver only. Nothing is left to close.
    {{ESRCH}, SysErrorId::NO_SUCH_PROCESS},
    {{EIO}, SysErrorId::INPUT_OUTPUT},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow STAT_ERRORS[] = {
    {{EIO}, SysErrorId::INPUT_OUTPUT},
    {{EBADF, EFAULT}, SysErrorId::SPOILED_INTEGRITY},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow TRUNCATE_ERRORS[] = {
    {{EIO}, SysErrorId::INPUT_OUTPUT},
    {{EBADF, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
    // A size that is too large is reported as a lack of space.
    {{EFBIG}, SysErrorId::NO_SPACE},
    {{EROFS}, SysErrorId::PERMISSION_DENIED},
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

struct FlagRow {
    BinFileBase::OpenFlag flag;
    int system_flags;
};

constexpr FlagRow FLAGS[] = {
    {BinFileBase::NON_BLOCK, O_NONBLOCK},       {BinFileBase::CREATE, O_CREAT},
    {BinFileBase::TRUNCATE, O_TRUNC},           {BinFileBase::APPEND, O_APPEND},
    {BinFileBase::EXCLUSIVE, O_CREAT | O_EXCL},
};

/// Returns the system's flags for a word, always with close-on-exec.
int translate(BinFileBase::OpenFlags flags) noexcept {
    int result = O_CLOEXEC;
    switch (flags.getWord() & BinFileBase::READ_WRITE) {
    case BinFileBase::READ:
        result |= O_RDONLY;
        break;
    case BinFileBase::WRITE:
        result |= O_WRONLY;
        break;
    default:
        result |= O_RDWR;
    }
    for (FlagRow const& row : FLAGS) {
        if (flags.has(row.flag)) {
            result |= row.system_flags;
        }
    }
    return result;
}

bool isEntryName(char const* name) noexcept {
    return name != nullptr && *name != '\0' && strchr(name, '/') == nullptr;
}

} // namespace

BinFileBase::~BinFileBase() {
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (BinFileBase::close()) {
        std::ErrorStorage::ack();
        std::cerr << "~BinFileBase"
                  << "|Warning: Error closing BinFile: " << tarn_error.getReasonList() << std::endl;
    }
}

bool BinFileBase::isValid() const {
    return m_fd != -1;
}

bool BinFileBase::close() {
    m_had_error = false;
    if (!isValid()) {
        return false;
    }
    while (closeFd(m_fd) != 0) {
        // Stays set even if the repeated call succeeds; therefore not `retryOnEintr`.
        m_had_error = true;
        int const error = errno;
        if (classify(SOURCE, CLOSE_ERRORS, error) == Outcome::REPEAT) {
            continue;
        }
        if (error == EBADF || error == ESRCH) {
            m_fd = -1;
        }
        return true;
    }
    m_fd = -1;
    return false;
}

bool BinFileBase::open(char const* path, OpenFlags const& flags, FileAccess const& access) {
    m_had_error = isValid() && close();
    if (m_had_error) {
        return true;
    }
    if (path == nullptr || *path == '\0') {
        return false;
    }
    m_flags = flags;
    int const system_flags = translate(flags);
    do {
        m_fd = ::open(path, system_flags, static_cast<mode_t>(access));
    } while (m_fd == -1 && handleOpenError(errno, path));
    m_had_error = m_fd == -1;
    return m_had_error;
}

bool BinFileBase::open(Pipe& pipe, bool write_end) {
    m_had_error = isValid() && close();
    if (m_had_error) {
        return true;
    }
    int const fd = write_end ? pipe.takeWriteEnd() : pipe.takeReadEnd();
    if (fd != -1) {
        m_fd = fd;
        m_flags = write_end ? WRITE : READ;
    }
    return false;
}

bool BinFileBase::open(BinTempFileRW& temp, bool keep_path) {
    m_had_error = isValid() && close();
    if (m_had_error) {
        return true;
    }
    if (temp.isValid()) {
        if (keep_path) {
            std::string path = temp.getPath();
            m_temp_path.swap(path);
        }
        m_fd = temp.takeDescriptor();
    }
    m_flags = READ_WRITE;
    return false;
}

bool BinFileBase::openAt(
    Directory const& dir, char const* name, bool follow, OpenFlags const& flags, FileAccess const& access) {
    if (!isEntryName(name) || !dir.isValid()) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::OPEN_FILE_OPERATION_FAILED, SystemErrorText().get());
        return true;
    }
    m_flags = flags;
    int const system_flags = translate(flags) | (follow ? 0 : O_NOFOLLOW);
    do {
        m_fd = unwindable(
            [&] { return openat(dir.getHandle().fd, name, system_flags, static_cast<mode_t>(access)); });
    } while (m_fd == -1 && handleOpenError(errno, name));
    return m_fd == -1;
}

FileInfo BinFileBase::getFileInfo() const {
    if (!isValid()) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Attempted to obtain FileInfo object from invalid BinFileBase()");
        return FileInfo();
    }
    struct stat data;
    if (fstat(m_fd, &data) != 0) {
        classify(SOURCE, STAT_ERRORS, errno);
        return FileInfo();
    }
    return FileInfo(data);
}

bool BinFileBase::truncateSize(unsigned int size) {
    if (!isValid()) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Tried to truncate invalid file");
        return true;
    }
    // The size is a signed 32-bit value in every build. A size that is too large becomes negative, which the
    // system refuses.
    auto const length = static_cast<int32_t>(size);
    if (retryOnEintr([&] { return ftruncate(m_fd, length); }) != 0) {
        classify(SOURCE, TRUNCATE_ERRORS, errno);
        return true;
    }
    return false;
}

} // namespace vesk
