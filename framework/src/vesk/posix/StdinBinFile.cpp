#include <vesk/StdinBinFile.h>

#include <unistd.h>

namespace vesk {

StdinBinFile::StdinBinFile(unsigned int) {
    m_fd = STDIN_FILENO;
    m_flags = READ;
}

StdinBinFile::~StdinBinFile() {
    // No base closes what the process did not open through it.
    m_fd = -1;
}

bool StdinBinFile::close() {
    m_fd = -1;
    return false;
}

} // namespace vesk
