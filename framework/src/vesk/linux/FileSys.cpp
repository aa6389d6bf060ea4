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

/// The file that lists the mounts, closed on every way out.
class MountFile : private tarnbase::NonCopyable {
public:
    MountFile() : m_fd(open("/proc/mounts", O_RDONLY | O_CLOEXEC)) {}
    // A thread may be cancelled in here.
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

/// Takes the second field out of each line, from chunk to chunk.
class MountParser {
public:
    void parse(char const* at, char const* end) {
        // Also in the midst of a mount point: the kernel gives whole lines, so that a chunk never ends there.
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

    /// Goes on in the present field, to behind its end or to the end of the chunk.
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
    // An error is taken for the end.
    for (ssize_t count = file.read(chunk, sizeof chunk); count > 0; count = file.read(chunk, sizeof chunk)) {
        parser.parse(chunk, chunk + count);
    }
    return parser.finish();
}

} // namespace vesk
