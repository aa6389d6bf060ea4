#include "support/Descriptors.h"

#include <dirent.h>

namespace support {

int countDescriptors() {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    int count = -3; // ".", ".." and the directory itself
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

} // namespace support
