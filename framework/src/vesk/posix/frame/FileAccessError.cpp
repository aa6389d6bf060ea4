#include <vesk/FileAccessError.h>

#include "vesk/posix/detail/ErrnoTable.h"

#include <vesk/SysError.h>

#include <iterator>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/FileAccessError";

constexpr std::ErrorID ROWS[] = {
    {0, "Bad path '%s'", 1},
    {1, "Path '%s' is not a directory", 1},
    {2, "Path '%s' is a directory", 1},
    {3, "Access to path '%s' denied", 1},
    {4, "'%s' is already existing", 1},
    {5, "Path '%s' is busy", 1},
    {6, "Can't get file descriptor for path '%s'", 1},
    {7, "Not enough space to create '%s'", 1},
    {8, "Given device '%s' is not existing or not ready", 1},
    {9, "Unclassified open/access error occured for path '%s'", 1},
};

} // namespace

TARN_CONSTANT_INIT std::ErrorType const FileAccessError(ROWS, std::size(ROWS));
TARN_CONSTANT_INIT std::ErrorType const& OpenError = FileAccessError;

namespace {

using namespace detail;

constexpr ErrnoRow OPEN_ERRORS[] = {
    {{EINTR}, NONE, NONE, Outcome::REPEAT},
    {{EPERM, EACCES, EROFS}, SysErrorId::PERMISSION_DENIED, FileAccessErrorId::ACCESS_DENIED},
    {{ENOENT, ENOTDIR, EISDIR, ENAMETOOLONG, ELOOP}, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH},
    {{ENXIO, ENODEV}, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE},
    {{ENOMEM}, SysErrorId::OUT_OF_MEMORY, FileAccessErrorId::UNCLASSIFIED},
    // Not `FILE_EXISTS`. Required by callers: an existing file counts as in use here.
    {{EEXIST}, SysErrorId::IN_USE, FileAccessErrorId::ALREADY_EXISTS},
    {{ENFILE, EMFILE}, SysErrorId::RESOURCES_EXHAUSTED, FileAccessErrorId::NO_DESCRIPTOR},
    {{ETXTBSY}, SysErrorId::IN_USE, FileAccessErrorId::BUSY},
    {{EFBIG, EOVERFLOW}, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED},
    {{ENOSPC}, SysErrorId::NO_SPACE, FileAccessErrorId::NO_SPACE},
    // An error number that no open should produce is a broken invariant, not an unclassified failure.
    {OTHERS, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED},
};

} // namespace

bool handleOpenError(int error_number, char const* path) {
    return classify(SOURCE, OPEN_ERRORS, error_number, path) == Outcome::REPEAT;
}

} // namespace vesk
