#pragma once

#include <vesk/Export.h>

#include <string>

namespace vesk {

/// Operations on the file system that need no open file.
///
///     std::string directory;
///     if (vesk::FileSys::currentWD(directory)) { ... }
///
/// Has no state: all may be called from any thread. The working directory belongs to the whole process.
class VESK_API FileSys {
public:
    FileSys() = delete;

    /// The absolute path of the working directory (`getcwd`).
    ///
    /// Reports `SysError` 2 if the directory has been removed, 1 without memory, 7 if a directory above it cannot be read,
    /// 10 if the path has more than 4,095 bytes, 19 for anything else.
    /// @param result  takes the path; stays as it is on failure
    /// @return true on failure
    static bool currentWD(std::string& result);
};

} // namespace vesk
