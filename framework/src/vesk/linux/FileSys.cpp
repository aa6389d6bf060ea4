#include <vesk/FileSys.h>

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/FileSys";

/// The owner of the descriptor of the file that lists the mounts.
class MountFile : private tarnbase::NonCopyable {
public:
    MountFile() : m_fd(open("/proc/mounts", O_RDONLY | O_CLOEXEC)) {}
    // Not `noexcept`, because cancellation of the thread can act in `close`.
    ~MountFile() noexcept(false) {
        if (m_fd == -1) {
            return;
        }
        if (::close(m_fd) != 0) {
            std::GlobalErrorHandler::doAssert(
                false, "mount_fd == 0", SOURCE, __LINE__, "getMountPoints", nullptr);
        }
    }

    bool isOpen() const noexcept { return m_fd != -1; }

    ssize_t read(char* buffer, size_t size) const { return ::read(m_fd, buffer, size); }

private:
    int m_fd;
};

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

std::list<std::string> FileSys::getMountPoints() {
    MountFile const file;
    if (!file.isOpen()) {
        return {};
    }
    MountParser parser;
    char chunk[4096];
    // An error is treated as the end of the file.
    for (ssize_t count = file.read(chunk, sizeof chunk); count > 0; count = file.read(chunk, sizeof chunk)) {
        parser.parse(chunk, chunk + count);
    }
    return parser.finish();
}

} // namespace vesk
