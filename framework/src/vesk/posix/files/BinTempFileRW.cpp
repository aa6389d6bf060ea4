#include <vesk/BinTempFileRW.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/FileSys.h>
#include <vesk/SysError.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>
#include <vesk/common/UniqueFd.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdlib>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/BinTempFileRW";

/// Errors of `mkstemp` that differ from those of `open`.
constexpr ErrnoRow TEMPLATE_ERRORS[] = {
    {{EEXIST}, SysErrorId::FILE_EXISTS, FileAccessErrorId::ALREADY_EXISTS},
    {{EINVAL}, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
};

/// Reports why no file could be created from a template. Returns true if the call must be repeated.
bool handleTemplateError(int error, char const* path) {
    if (error == EEXIST || error == EINVAL) {
        classify(SOURCE, TEMPLATE_ERRORS, error, path);
        return false;
    }
    return handleOpenError(error, path);
}

/// Creates a file from a template and stores its name in the text that the handle owns. Returns -1 on
/// failure.
int makeFile(UnicodeString const& path) {
    if (path.c_str() == nullptr) {
        errno = EFAULT; // libc would not refuse a null template but crash.
        return -1;
    }
    return mkstemp(const_cast<char*>(path.c_str()));
}

} // namespace

BinTempFileRW::BinTempFileRW(WidePath const& prefix) : m_path(prefix) {
    int error = 0;
    do {
        // Built anew for each attempt: a failed attempt may have changed the template.
        m_path.assign(prefix).append(L"XXXXXX");
        UnicodeString const narrow(m_path);
        UniqueFd created(makeFile(narrow));
        error = errno;
        // Without memory for its name, the file must not stay behind: no destructor would remove it.
        try {
            m_path.assign(narrow);
        } catch (...) {
            if (created.isOpen()) {
                unlink(narrow.c_str());
            }
            throw;
        }
        m_fd = created.release();
    } while (m_fd == -1 && handleTemplateError(error, UnicodeString(m_path).c_str()));
}

BinTempFileRW::~BinTempFileRW() {
    if (!isValid()) {
        return;
    }
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (close(m_fd) != 0) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "~BinTempFileRW", "Couldn't close unused temporary file");
        std::ErrorStorage::ack();
    }
    if (FileSys::removeFile(UnicodeString(m_path).c_str())) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "~BinTempFileRW", "Couldn't remove unused temporary file");
        std::ErrorStorage::ack();
    }
    m_fd = -1;
}

} // namespace vesk
