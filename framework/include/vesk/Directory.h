#pragma once

#include <vesk/DirectoryHandle.h>
#include <vesk/Export.h>
#include <vesk/FileInfo.h>
#include <vesk/RefCounted.h>

#include <string>

namespace vesk {

/// Walks one open directory, entry by entry, and opens what is in it without going by its path again.
///
///     vesk::Directory directory("/proc", false);
///     for (; directory.isValid() && !directory.atEnd(); directory.next()) {
///         vesk::FileInfo const info = directory.curInfo(false);
///         ...
///     }
///
/// A directory stands on its first entry when it has been opened. Entries come in the system's order, `.` and `..`
/// among them. There is no way back: open it once more.
///
/// Copies share the system's stream and with it one position: after `next` on one of them no other one's current entry
/// means anything until its own `next`. The last copy to go closes the stream. A directory and its copies belong to one
/// thread at a time, but copies may end in different threads. What is opened from a directory lives on without it.
///
/// The descriptor is passed on to a new program (`exec`): it has no close-on-exec, unless it was taken over, when
/// `fdopendir` decides. Names go to the system as they are.
/// Calls that a signal interrupts are not repeated.
///
/// The constructors cannot fail visibly: ask `isValid`. What they report of the path, or of the name within the parent:
///
/// | errno | `SysError` | on top: `FileAccessError` |
/// |---|---|---|
/// | `ENOENT`, `ENAMETOOLONG`, `ELOOP` | 2 | 0 |
/// | `EACCES` | 7 | 3 |
/// | `ENOTDIR` | 3 | 1 |
/// | `ENFILE`, `EMFILE` | 0 | 6 |
/// | other | 19 | 9 |
///
/// Each of them goes to the first entry, so it may also fail as `next` does. A descriptor that cannot be closed after
/// a failure ends the process through `std::GlobalErrorHandler::doAbort`, with "Error closing dir FD".
class VESK_API Directory : public RefCounted {
public:
    /// Opens a directory (`open`, `fdopendir`) and goes to its first entry. Symbolic links are followed. Blocks as the
    /// file system does; on a pipe with a name, until somebody writes to it.
    /// @param path  what to open; whether it is a directory turns out only when it is open
    ///
    /// The last argument has no effect.
    Directory(std::string const& path, bool);

    /// The same for an entry of an open directory (`openat`), wherever that has been moved meanwhile.
    ///
    /// Reports `CommonErrorId::CONTRACT_BROKEN` for an empty name or one with a `/`, and for an invalid parent.
    /// @param parent  valid; at its end or not. It does not move, and need not stay.
    /// @param name    one component, not necessarily the current entry
    /// @param follow  whether a symbolic link is followed; otherwise it is refused as `ELOOP` or `ENOTDIR`
    ///
    /// The last argument has no effect.
    Directory(Directory const& parent, std::string const& name, bool follow, bool);

    /// Takes over a descriptor (`fdopendir`) and goes to the first entry. On failure of the former the descriptor stays
    /// the caller's; reported without a path: `SysErrorId::PERMISSION_DENIED` for `EACCES`, 3 for `ENOTDIR`, 0 for `ENFILE` and
    /// `EMFILE`, 19 for others.
    /// @param handle  not null; only its `fd` is read, which is open for reading
    explicit Directory(DirectoryHandle const* handle);

    /// Shares the stream of another directory, and stands where that stands.
    Directory(Directory const&) = default;

    /// Lets go of the stream as the destructor does, and shares that of another directory.
    Directory& operator=(Directory const&) = default;

    /// Closes the stream if this is the last copy (`closedir`). A failure ends as a warning: "Error closing directory
    /// @%p; a file descriptor may have leaked!". Whatever report was pending then is gone.
    VESK_API_INLINE ~Directory() override { decrement(); }

    /// Whether the directory is open. Stays so at the end.
    bool isValid() const noexcept { return m_valid; }

    /// Whether there is no current entry, since the walk has ended or `next` failed. A directory that could not be
    /// opened is not at its end, except one that `curDir` gives.
    bool atEnd() const noexcept { return m_at_end; }

    /// The name of the current entry, valid until the next `next`. At the end that of the last one; empty if there was
    /// none at all.
    char const* curName() const noexcept { return m_handle.entry != nullptr ? m_handle.entry->d_name : ""; }

    /// Descriptor and stream, for `openat` and its relatives. They stay the directory's: close neither, and move the
    /// stream with `next` only.
    DirectoryHandle const& getHandle() const noexcept { return m_handle; }

    /// Moves to the next entry (`readdir`). Ending the walk reports nothing, and may be asked for again. A failure
    /// reports `SysErrorId::SPOILED_INTEGRITY` for `EBADF`, which is also the answer of a directory that could not be opened,
    /// `EOVERFLOW` (an entry that a 32-bit program has no numbers for) and `ENOENT`, 19 for others.
    /// @return 0: there is one; 1: there is none, and `atEnd`; -1: it failed, and `atEnd`
    int next();

    /// What the system tells about the current entry (`fstatat`).
    ///
    /// Reports `SysErrorId::INVALID_PATH` with `FileAccessErrorId::BAD_PATH` on top for `ENOENT` (the entry is gone, or a link leads nowhere),
    /// `SysErrorId::SPOILED_INTEGRITY` for `EBADF`, `ENOTDIR` and `EINVAL`, 19 for others; `CommonErrorId::CONTRACT_BROKEN` at the end.
    /// @param follow  whether a symbolic link stands for its target, or for itself
    /// @return invalid on failure
    FileInfo curInfo(bool follow) const;

    /// Opens the current entry as a directory (`openat`, `fdopendir`).
    ///
    /// Reports `SysError` alone: 2 for `ENOENT`, `ENAMETOOLONG` and `ELOOP`, 7 for `EACCES`, 3 for `ENOTDIR`, 0 for
    /// `ENFILE` and `EMFILE`, 19 for others; `CommonErrorId::CONTRACT_BROKEN` at the end.
    /// @param follow  whether a symbolic link is followed; otherwise it is refused as `ELOOP`
    /// @return invalid on failure
    ///
    /// The last argument has no effect.
    Directory curDir(bool follow, bool) const;

    /// The same with symbolic links always followed, whatever the argument: it goes to the argument without effect of
    /// the other form.
    Directory curDir(bool flag) const;

private:
    /// A directory that could not be opened, and is at its end.
    Directory();

    void adopt(char const* path);
    void init();
    int destroy() override;

    bool m_valid = false;
    bool m_at_end = false;
    DirectoryHandle m_handle;
};

} // namespace vesk
