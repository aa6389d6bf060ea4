#pragma once

#include <vesk/loop/Loop.h>

#include <filesystem>

namespace vesk::loop {

/// What has happened to a file or in a folder.
struct FileEvent {
    /// The kind of an event.
    enum Kind : unsigned char {
        CREATED,    ///< An entry was made, or moved to here from a folder that is not watched.
        CHANGED,    ///< A file that was open for writing was closed.
        ATTRIBUTES, ///< Owner, rights, times or links have changed.
        REMOVED,    ///< An entry was removed, or moved to a folder that is not watched.
        RENAMED,    ///< An entry has a new path; `old_path` is the former one.
        GONE,       ///< The watched path itself was removed, moved or unmounted. It is not watched any more.
        OVERFLOW,   ///< The system has lost events: look at everything again. No path.
    };
    Kind kind;                      ///< What has happened.
    bool is_folder = false;         ///< Whether it has happened to a folder.
    std::filesystem::path path;     ///< The watched path, with the name of the entry if it is a folder.
    std::filesystem::path old_path; ///< The former path of a renamed entry.
};

/// Watches files and folders (`inotify`), not what is below the folders of a folder.
///
///     auto watch = FileWatch::open(loop, [&](FileEvent const& event) { reload(event.path); });
///     (void)watch->add("/etc/example");
///
/// An editor often writes a new file and renames it: watch the folder rather than the file.
class [[nodiscard]] VESK_LOOP_API FileWatch : public Watch {
public:
    /// Watches nothing.
    FileWatch() noexcept = default;

    /// Makes a watch without paths (`inotify_init1`).
    static Result<FileWatch>
    open(Loop& loop, Callback<void(FileEvent const&)> callback, Options options = {});

    /// Watches a file or folder, too. Like `remove`, for the loop's thread, or while no thread runs the loop.
    Result<> add(std::filesystem::path const& path);
    /// Stops watching a path. Fails with `ENOENT` for one that is not watched.
    Result<> remove(std::filesystem::path const& path);

private:
    using Watch::Watch;
    friend struct detail::Access;
};

} // namespace vesk::loop
