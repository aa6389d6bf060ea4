#include <vesk/StdoutBinFile.h>

#include <unistd.h>

namespace vesk {

StdoutBinFile::StdoutBinFile(unsigned int) {
    m_fd = STDOUT_FILENO;
    m_flags = WRITE;
}

StdoutBinFile::~StdoutBinFile() {
    // No base closes what the process did not open through it.
    m_fd = -1;
}

bool StdoutBinFile::close() {
    m_fd = -1;
    return false;
}

} // namespace vesk
