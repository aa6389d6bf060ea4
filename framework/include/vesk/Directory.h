#pragma once

#include <vesk/DirectoryHandle.h>
#include <vesk/Export.h>
#include <vesk/FileInfo.h>
#include <vesk/RefCounted.h>

#include <string>

namespace vesk {

/// An open directory that is read entry by entry, and that opens its entries without resolving its own path
/// again.
///
///     vesk::Directory directory("/proc", false);
///     for (; directory.isValid() && !directory.atEnd(); directory.next()) {
///         vesk::FileInfo const info = directory.curInfo(false);
///         ...
///     }
///
/// After it has been opened, a directory is positioned on its first entry. The entries have the order of the
/// system and include `.` and `..`. There is no rewind: open the directory again.
///
/// Copies share the system's stream and its position: after `next` on one of them, the current entry of every
/// other copy is meaningless until its own `next`. The last copy closes the stream. A directory and its
/// copies must be used by one thread at a time; copies may be destroyed in different threads. An object
/// opened from a directory does not depend on that directory.
///
/// The descriptor stays open across `exec`: it is not close-on-exec. For a directory made from a
/// `DirectoryHandle`, `fdopendir` decides. Names go to the system unchanged. Calls that a signal interrupts
/// are not repeated.
///
/// The constructors return no result: check `isValid`. They report for the path, or for the name within the
/// parent:
///
/// | errno | `SysErrorId` | on top: `FileAccessErrorId` |
/// |---|---|---|
/// | `ENOENT`, `ENAMETOOLONG`, `ELOOP` | `INVALID_PATH` | `BAD_PATH` |
/// | `EACCES` | `PERMISSION_DENIED` | `ACCESS_DENIED` |
/// | `ENOTDIR` | `NOT_A_DIRECTORY` | `NOT_A_DIRECTORY` |
/// | `ENFILE`, `EMFILE` | `RESOURCES_EXHAUSTED` | `NO_DESCRIPTOR` |
/// | other | `UNCLASSIFIED` | `UNCLASSIFIED` |
///
/// Each constructor moves to the first entry, so it can also fail as `next` does. If `fdopendir` fails for a
/// path or a name, and the descriptor cannot be closed then, the process ends through
/// `std::GlobalErrorHandler::doAbort`, with "Error closing dir FD".
class VESK_API Directory : public RefCounted {
public:
    /// Opens a directory (`open`, `fdopendir`) and moves to its first entry. Symbolic links are followed.
    /// Blocks as long as the file system does; on a named pipe, blocks until a writer opens it.
    /// @param path  the directory; whether it is one is known only after it has been opened
    ///
    /// The last argument has no effect.
    Directory(std::string const& path, bool);

    /// Opens an entry of an open directory (`openat`, `fdopendir`) and moves to its first entry. It works
    /// even if the parent has been moved since it was opened.
    ///
    /// Reports `CommonErrorId::CONTRACT_BROKEN` for an empty name or a name with a `/`, and for an invalid
    /// parent.
    /// @param parent  valid, at its end or not; its position does not change, and it may be destroyed
    ///                afterwards
    /// @param name    one component, not necessarily the current entry
    /// @param follow  whether a symbolic link is followed; otherwise it is refused as `ELOOP` or `ENOTDIR`
    ///
    /// The last argument has no effect.
    Directory(Directory const& parent, std::string const& name, bool follow, bool);

    /// Takes ownership of a descriptor (`fdopendir`) and moves to the first entry. If `fdopendir` fails, the
    /// caller keeps the ownership; the report has no path: `SysErrorId::PERMISSION_DENIED` for `EACCES`,
    /// `SysErrorId::NOT_A_DIRECTORY` for `ENOTDIR`, `SysErrorId::RESOURCES_EXHAUSTED` for `ENFILE` and
    /// `EMFILE`, `SysErrorId::UNCLASSIFIED` for others.
    /// @param handle  not null; only its `fd` is read, which must be open for reading
    explicit Directory(DirectoryHandle const* handle);

    /// Shares the stream and the current position of another directory.
    Directory(Directory const&) = default;

    /// Releases the stream as the destructor does, and shares the stream of another directory.
    Directory& operator=(Directory const&) = default;

    /// Closes the stream if this is the last copy (`closedir`). A failure is only a warning, with the text
    /// "Error closing directory @%p; a file descriptor may have leaked!". A pending report stays as it is.
    VESK_API_INLINE ~Directory() override { decrement(); }

    /// Returns whether the directory is open. It stays true at the end.
    bool isValid() const noexcept { return m_valid; }

    /// Returns whether there is no current entry because the end was reached or `next` failed. A directory
    /// that could not be opened returns false, with two exceptions: its first `next` failed, or `curDir`
    /// could not open the entry at all.
    bool atEnd() const noexcept { return m_at_end; }

    /// Returns the name of the current entry, valid until the next call of `next`. At the end it is the name
    /// of the last entry; it is empty if there was no entry.
    char const* curName() const noexcept { return m_handle.entry != nullptr ? m_handle.entry->d_name : ""; }

    /// Returns the descriptor and the stream, for `openat` and related calls. The directory keeps the
    /// ownership: close neither, and move the stream with `next` only.
    DirectoryHandle const& getHandle() const noexcept { return m_handle; }

    /// Moves to the next entry (`readdir`). Reaching the end reports nothing, and calling it at the end is
    /// allowed. A failure reports `SysErrorId::SPOILED_INTEGRITY` for `EBADF`, which a directory that could
    /// not be opened also gives, for `EOVERFLOW` (a 32-bit program cannot represent the entry) and for
    /// `ENOENT`; `SysErrorId::UNCLASSIFIED` for others.
    /// @return 0 if there is an entry; 1 at the end; -1 on failure. After 1 and -1 `atEnd` is true
    [[nodiscard]] int next();

    /// Returns the attributes of the current entry (`fstatat`).
    ///
    /// Reports `SysErrorId::INVALID_PATH` with `FileAccessErrorId::BAD_PATH` on top for `ENOENT` (the entry
    /// has been removed, or a link is dangling). Reports without a second level
    /// `SysErrorId::SPOILED_INTEGRITY` for `EBADF`, `ENOTDIR` and `EINVAL`, `SysErrorId::UNCLASSIFIED` for
    /// others, and `CommonErrorId::CONTRACT_BROKEN` at the end.
    /// @param follow  whether to describe the target of a symbolic link instead of the link itself
    /// @return an invalid object on failure
    FileInfo curInfo(bool follow) const;

    /// Opens the current entry as a directory (`openat`, `fdopendir`).
    ///
    /// Reports only `SysError`: `SysErrorId::INVALID_PATH` for `ENOENT`, `ENAMETOOLONG` and `ELOOP`,
    /// `SysErrorId::PERMISSION_DENIED` for `EACCES`, `SysErrorId::NOT_A_DIRECTORY` for `ENOTDIR`,
    /// `SysErrorId::RESOURCES_EXHAUSTED` for `ENFILE` and `EMFILE`, `SysErrorId::UNCLASSIFIED` for others; at
    /// the end `CommonErrorId::CONTRACT_BROKEN`.
    /// @param follow  whether a symbolic link is followed; otherwise it is refused as `ELOOP`
    /// @return an invalid object on failure
    ///
    /// The last argument has no effect.
    Directory curDir(bool follow, bool) const;

    /// Opens the current entry as `curDir(true, flag)` does: symbolic links are always followed, and the
    /// argument has no effect.
    Directory curDir(bool flag) const;

private:
    /// Creates a directory that is not open and is at its end.
    Directory();

    void adopt(char const* path);
    void init();
    int destroy() override;

    bool m_valid = false;
    bool m_at_end = false;
    DirectoryHandle m_handle;
};

} // namespace vesk
