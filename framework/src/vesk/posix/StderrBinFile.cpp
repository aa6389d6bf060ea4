#include <vesk/StderrBinFile.h>

#include <unistd.h>

namespace vesk {

StderrBinFile::StderrBinFile(unsigned int) {
    m_fd = STDERR_FILENO;
    m_flags = WRITE;
}

StderrBinFile::~StderrBinFile() {
    // No base closes what the process did not open through it.
    m_fd = -1;
}

bool StderrBinFile::close() {
    m_fd = -1;
    return false;
}

} // namespace vesk
