#include <vesk/StdinBinFile.h>

#include "StandardChannel.h"

#include <unistd.h>

namespace vesk {

using namespace detail;

StdinBinFile::StdinBinFile(unsigned int) {
    m_fd = STDIN_FILENO;
    m_flags = READ;
}

StdinBinFile::~StdinBinFile() {
    // The base class closes a file that was opened through the object. Nothing closes a standard channel.
    if (isStandardChannel(m_fd)) {
        m_fd = -1;
    }
}

bool StdinBinFile::close() {
    if (!isStandardChannel(m_fd)) {
        return StreamBinFileR::close();
    }
    m_had_error = false;
    m_fd = -1;
    return false;
}

} // namespace vesk
