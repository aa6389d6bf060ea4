#include "MountTable.h"

#include <vesk/common/UniqueFd.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/FileSys";

/// A parser that extracts the second field of each line from a sequence of chunks.
class MountParser {
public:
    void parse(char const* at, char const* end) {
        // Also applies within a mount point. The kernel returns whole lines, so a chunk never ends there.
        if (m_field != Field::REST) {
            beginEntry();
        }
        while (at != end) {
            at = parseField(at, end);
        }
    }

    std::list<std::string> finish() {
        if (!m_entries.empty() && m_entries.back().empty()) {
            m_entries.pop_back();
        }
        return std::move(m_entries);
    }

private:
    enum class Field { DEVICE, MOUNT_POINT, REST };

    /// Parses the rest of the current field. Returns the position after its end, or the end of the chunk.
    char const* parseField(char const* at, char const* end) {
        char const delimiter = m_field == Field::REST ? '\n' : ' ';
        auto const* const found =
            static_cast<char const*>(memchr(at, delimiter, static_cast<size_t>(end - at)));
        if (m_field == Field::MOUNT_POINT) {
            m_entries.back().append(at, found != nullptr ? found : end);
        }
        if (found == nullptr) {
            return end;
        }
        switch (m_field) {
        case Field::DEVICE:
            m_field = Field::MOUNT_POINT;
            break;
        case Field::MOUNT_POINT:
            m_field = Field::REST;
            break;
        case Field::REST:
            m_field = Field::DEVICE;
            beginEntry();
            break;
        }
        return found + 1;
    }

    void beginEntry() {
        if (m_entries.empty() || !m_entries.back().empty()) {
            m_entries.emplace_back();
        }
    }

    Field m_field = Field::DEVICE;
    std::list<std::string> m_entries;
};

} // namespace

std::list<std::string> detail::readMountPoints() {
    UniqueFd file(open("/proc/mounts", O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        return {};
    }
    MountParser parser;
    char chunk[4096];
    // An error is treated as the end of the file.
    ssize_t count = read(file.get(), chunk, sizeof chunk);
    while (count > 0) {
        parser.parse(chunk, chunk + count);
        count = read(file.get(), chunk, sizeof chunk);
    }
    if (file.close() != 0) {
        std::GlobalErrorHandler::doAssert(
            false, "mount_fd == 0", SOURCE, __LINE__, "getMountPoints", nullptr);
    }
    return parser.finish();
}

} // namespace vesk
