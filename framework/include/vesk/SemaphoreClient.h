#pragma once

#include <vesk/Export.h>
#include <vesk/SemaphoreBase.h>

namespace vesk {

/// Opens a semaphore that a `SemaphoreCreator` has created.
///
///     vesk::SemaphoreClient slots;
///     if (slots.attach("slots") || slots.take()) { ... }
///
/// Threads: see `SemaphoreBase`. Like `close`, `attach` is not synchronized with other calls.
class VESK_API SemaphoreClient : public SemaphoreBase {
public:
    SemaphoreClient() noexcept = default;

    /// Opens an existing semaphore (`sem_open`, repeated while a signal interrupts it). An open object is
    /// closed first.
    /// @param name  see `transformToIPCIdentifier`; the system may permit fewer characters
    /// @return true on failure; the object is closed then. The reports are those of `close` and
    ///         `transformToIPCIdentifier`; `SysErrorId::PERMISSION_DENIED` with
    ///         `FileAccessErrorId::ACCESS_DENIED` on top without the permission; `SysErrorId::INVALID_PATH`
    ///         with `FileAccessErrorId::BAD_PATH` if there is no such semaphore or the name is not usable;
    ///         `SysErrorId::RESOURCES_EXHAUSTED` with `FileAccessErrorId::NO_DESCRIPTOR` without descriptors;
    ///         `SysErrorId::SPOILED_INTEGRITY` with `FileAccessErrorId::UNCLASSIFIED` for errors that only
    ///         creating a semaphore gives (`EEXIST`, `ENOSPC`); else `SysErrorId::UNCLASSIFIED` with
    ///         `FileAccessErrorId::UNCLASSIFIED`. The reports of `FileAccessError` show `name` as it was
    ///         given
    [[nodiscard]] bool attach(char const* name);
};

} // namespace vesk
