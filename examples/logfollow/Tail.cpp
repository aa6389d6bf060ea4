#include "Tail.h"

#include <algorithm>

namespace logfollow {

namespace {

constexpr unsigned int PIECE = 65536;
constexpr size_t LONGEST_LINE = 1 << 20;

/// Moves to a position. A seek counts 32 bits, and reports a position beyond 2 GiB as a failure after it has moved.
void seekFar(vesk::StreamBinFileR& file, long long position) {
    while (position > 0) {
        long long const step = std::min<long long>(position, INT32_MAX);
        unsigned int reached = 0;
        static_cast<void>(file.seek(static_cast<int>(step), file.Current, reached));
        position -= step;
    }
}

} // namespace

bool Tail::open(std::string const& path, long long position) {
    auto file = std::make_unique<vesk::StreamBinFileR>();
    bool const failed = file->open(path, file->READ);
    vesk::FileInfo const info = failed ? vesk::FileInfo() : file->getFileInfo();
    // Shorter than it was: emptied, or another file that got the number of a removed one.
    long long const begin = info.isValid() && info.getSize() >= position ? position : 0;
    if (info.isValid()) {
        seekFar(*file, begin);
    }
    std::ErrorStorage::ack();
    if (!info.isValid()) {
        return true;
    }
    m_file = std::move(file);
    m_id = FileId(info);
    m_position = begin;
    m_text.clear();
    return false;
}

/// Appends the next piece to the text. Returns false at the end of the file.
bool Tail::readPiece() {
    if (!isOpen()) {
        return false;
    }
    unsigned int count = 0;
    vesk::FileInfo const info = m_file->getFileInfo();
    // Not valid: a 32-bit program cannot see the size of a large file, but still read it.
    if (info.isValid() && info.getSize() < m_position + static_cast<long long>(m_text.size())) {
        // Emptied to be written anew. What was written before and not read yet is lost.
        static_cast<void>(m_file->seek(0, m_file->Begin, count));
        m_position = 0;
        m_text.clear();
    }
    if (m_text.size() > LONGEST_LINE) {
        m_text += '\n'; // No log has such lines. Better a cut line than all the memory.
        --m_position;
        return true;
    }
    char piece[PIECE];
    static_cast<void>(m_file->read(piece, sizeof piece, count));
    // The end of the file is a report, too. Reading goes on when the file has grown.
    std::ErrorStorage::ack();
    m_text.append(piece, count);
    return count != 0;
}

bool Tail::isRemoved() const {
    vesk::FileInfo const info = isOpen() ? m_file->getFileInfo() : vesk::FileInfo();
    std::ErrorStorage::ack();
    return info.isValid() && info.getLinkCount() == 0;
}

} // namespace logfollow
