#include <vesk/StderrBinFile.h>

#include "StandardChannel.h"

#include <unistd.h>

namespace vesk {

using namespace detail;

StderrBinFile::StderrBinFile(unsigned int) {
    m_fd = STDERR_FILENO;
    m_flags = WRITE;
}

StderrBinFile::~StderrBinFile() {
    // The base class closes a file that was opened through the object. Nothing closes a standard channel.
    if (isStandardChannel(m_fd)) {
        m_fd = -1;
    }
}

bool StderrBinFile::close() {
    if (!isStandardChannel(m_fd)) {
        return StreamBinFileW::close();
    }
    m_had_error = false;
    m_fd = -1;
    return false;
}

} // namespace vesk
