#pragma once

#include "Files.h"

#include <vesk/StreamBinFileR.h>

#include <memory>
#include <string>

namespace logfollow {

/// An open file that grows. It stays the same file when it is renamed, and can be read when it is removed.
class Tail {
public:
    /// Opens a file to be read from a position on. Returns true on failure, which may be temporary.
    [[nodiscard]] bool open(std::string const& path, long long position);
    bool isOpen() const { return m_file != nullptr; }
    FileId const& id() const { return m_id; }
    /// Returns the position of the first line that was not used yet. It may be incomplete.
    long long position() const { return m_position; }

    /// Calls `use(line)` for each line that is complete, and closes a file that was removed when all of it is read.
    /// @return whether there may be more to read at once: a large file must not keep the caller from other work
    template <typename Use>
    bool read(Use&& use) {
        bool const is_removed = isRemoved(); // Asked first: what was written before that is read.
        for (int i = 0; i < 16; ++i) {
            if (!readPiece()) {
                if (is_removed) {
                    m_file.reset();
                }
                return false;
            }
            size_t begin = 0;
            for (size_t end = 0; (end = m_text.find('\n', begin)) != std::string::npos; begin = end + 1) {
                use(m_text.substr(begin, end - begin));
            }
            m_position += static_cast<long long>(begin);
            m_text.erase(0, begin);
        }
        return true;
    }

private:
    bool readPiece();
    bool isRemoved() const;

    std::unique_ptr<vesk::StreamBinFileR> m_file; ///< Can be moved, unlike the file itself.
    FileId m_id;
    long long m_position = 0;
    std::string m_text; ///< The begin of a line.
};

} // namespace logfollow
