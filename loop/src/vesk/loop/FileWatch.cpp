#include <vesk/loop/FileWatch.h>

#include "Composite.h"

#include <vesk/common/UniqueFd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <map>
#include <optional>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/FileWatch";

constexpr uint32_t EVENTS = IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
    IN_DELETE_SELF | IN_MOVE_SELF;
// The system queues both halves of a rename one after the other, but not at once.
constexpr auto PAIR_TIME = std::chrono::milliseconds(10);

struct Meaning {
    uint32_t mask;
    FileEvent::Kind kind;
};
constexpr Meaning MEANINGS[] = {
    {IN_CREATE, FileEvent::CREATED}, {IN_CLOSE_WRITE, FileEvent::CHANGED}, {IN_ATTRIB, FileEvent::ATTRIBUTES},
    {IN_DELETE, FileEvent::REMOVED}, {IN_MOVED_TO, FileEvent::CREATED},
};

/// An `inotify` descriptor, and a timer that ends the wait for the second half of a rename.
class FileSource final : public Composite {
public:
    FileSource(
        std::shared_ptr<Core> core, Options options, UniqueFd fd, Callback<void(FileEvent const&)> callback)
        : Composite(std::move(core), options), m_fd(std::move(fd)), m_callback(std::move(callback)) {}

    int begin() {
        m_reader = addFd(m_fd.get(), false, &FileSource::serveReader);
        m_timer = addTimer(&FileSource::endPair);
        return start(m_reader);
    }

    int add(std::filesystem::path const& path) {
        int const id = inotify_add_watch(m_fd.get(), path.c_str(), EVENTS);
        if (id < 0) {
            return errno;
        }
        m_paths[id] = path;
        return 0;
    }

    int remove(std::filesystem::path const& path) {
        auto const row = std::find_if(
            m_paths.begin(), m_paths.end(), [&path](auto const& entry) { return entry.second == path; });
        if (row == m_paths.end()) {
            return ENOENT;
        }
        inotify_rm_watch(m_fd.get(), row->first);
        m_paths.erase(row);
        return 0;
    }

private:
    void serveReader() {
        alignas(inotify_event) std::array<char, 4096> buffer;
        static_assert(sizeof buffer >= sizeof(inotify_event) + NAME_MAX + 1);
        ssize_t const size = read(m_fd.get(), buffer.data(), buffer.size());
        for (ssize_t at = 0; at < size && !isSilent();) {
            auto const& event = *reinterpret_cast<inotify_event const*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof event + event.len);
            serve(event);
        }
    }

    void serve(inotify_event const& event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            endPair();
            call({FileEvent::OVERFLOW, false, {}, {}});
            return;
        }
        auto const watched = m_paths.find(event.wd);
        if (watched == m_paths.end()) {
            return; // Removed since, or gone before.
        }
        FileEvent result{FileEvent::GONE, (event.mask & IN_ISDIR) != 0, watched->second, {}};
        if (event.len > 0) {
            result.path /= event.name;
        }
        if ((event.mask & IN_MOVED_TO) != 0 && m_moved.has_value() && m_cookie == event.cookie) {
            result.kind = FileEvent::RENAMED;
            result.old_path = std::move(m_moved->path);
            m_moved.reset();
            call(result);
            return;
        }
        endPair();
        if ((event.mask & IN_MOVED_FROM) != 0) {
            m_cookie = event.cookie;
            m_moved = std::move(result);
            start(m_timer, Clock::now() + PAIR_TIME);
        } else if (!isSilent()) {
            serveSingle(event, std::move(result));
        }
    }

    void serveSingle(inotify_event const& event, FileEvent result) {
        for (Meaning const& meaning : MEANINGS) {
            if ((event.mask & meaning.mask) != 0) {
                result.kind = meaning.kind;
                call(result);
                return;
            }
        }
        if ((event.mask & IN_MOVE_SELF) != 0) {
            inotify_rm_watch(m_fd.get(), event.wd); // Its path is another one now.
        }
        m_paths.erase(event.wd);
        call(result);
    }

    /// Reports the first half of a rename without a second one.
    void endPair() {
        if (m_moved.has_value()) {
            FileEvent event = std::move(*m_moved);
            m_moved.reset();
            event.kind = FileEvent::REMOVED;
            call(event);
        }
    }

    void call(FileEvent const& event) {
        if (!isSilent()) {
            m_callback(event);
        }
    }

    UniqueFd m_fd;
    std::shared_ptr<ReadySource> m_reader;
    std::shared_ptr<TimerSource> m_timer;
    std::map<int, std::filesystem::path> m_paths;
    std::optional<FileEvent> m_moved; ///< The first half of a rename, with `m_cookie`.
    uint32_t m_cookie = 0;
    Callback<void(FileEvent const&)> m_callback;
};

template <typename Operation>
Result<> change(Watch const& watch, std::filesystem::path const& path, Operation operation) {
    return withoutThrowing(SOURCE, [&]() -> Result<> {
        auto* const source = Access::getSource<FileSource>(watch);
        int const error = source == nullptr ? EBADF : (source->*operation)(path);
        if (error != 0) {
            return makeError(SOURCE, error, LoopErrorId::PATH_REFUSED, path.c_str());
        }
        return {};
    });
}

} // namespace

Result<FileWatch> FileWatch::open(Loop& loop, Callback<void(FileEvent const&)> callback, Options options) {
    return withoutThrowing(SOURCE, [&]() -> Result<FileWatch> {
        auto const& core = Access::getCore(loop);
        UniqueFd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        if (!fd.isOpen()) {
            return makeError(SOURCE, errno, LoopErrorId::PATH_REFUSED, "");
        }
        auto source = std::make_shared<FileSource>(core, options, std::move(fd), std::move(callback));
        int error = core->getState();
        error = error != 0 ? error : source->begin();
        if (error != 0) {
            return makeError(SOURCE, error, LoopErrorId::PATH_REFUSED, "");
        }
        return Access::make<FileWatch>(std::move(source));
    });
}

Result<> FileWatch::add(std::filesystem::path const& path) {
    return change(*this, path, &FileSource::add);
}

Result<> FileWatch::remove(std::filesystem::path const& path) {
    return change(*this, path, &FileSource::remove);
}

} // namespace vesk::loop
