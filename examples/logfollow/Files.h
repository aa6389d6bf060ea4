#pragma once

#include <vesk/Directory.h>
#include <vesk/FileInfo.h>

#include <tarncommon/error/ErrorStorage.h>

#include <string>

namespace logfollow {

/// What a file is, whatever its name: the same after a rename, another one after a rename and a new file.
struct FileId {
    unsigned long long device = 0;
    unsigned long long inode = 0;

    FileId() = default;
    FileId(unsigned long long of_device, unsigned long long of_inode) : device(of_device), inode(of_inode) {}
    explicit FileId(vesk::FileInfo const& info) : device(info.getDevice()), inode(info.getInode()) {}
    friend bool operator==(FileId const& a, FileId const& b) {
        return a.device == b.device && a.inode == b.inode;
    }
};

/// Calls `use(name, info)` for each regular file in a folder. A folder that is not there has none: it may come later.
template <typename Use>
void forEachFile(std::string const& folder, Use&& use) {
    for (vesk::Directory entries(folder, false); entries.isValid() && !entries.atEnd();
         static_cast<void>(entries.next())) {
        vesk::FileInfo const info = entries.curInfo(true);
        if (info.isValid() && info.isRegularFile()) { // Otherwise it may have been removed meanwhile.
            use(entries.curName(), info);
        }
    }
    std::ErrorStorage::ack();
}

} // namespace logfollow
