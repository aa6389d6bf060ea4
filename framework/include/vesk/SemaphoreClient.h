#pragma once

#include <vesk/Export.h>
#include <vesk/SemaphoreBase.h>

namespace vesk {

/// Attaches to a semaphore that a `SemaphoreCreator` has made.
///
///     vesk::SemaphoreClient slots;
///     if (slots.attach("slots") || slots.take()) { ... }
///
/// Threads: see `SemaphoreBase`; `attach` is no more synchronised than `close`.
class VESK_API SemaphoreClient : public SemaphoreBase {
public:
    SemaphoreClient() noexcept = default;

    /// Opens a semaphore that exists (`sem_open`, repeated while a signal interrupts it). An open object is closed first.
    /// @param name  see `transformToIPCIdentifier`; the system may take fewer characters
    /// @return true on failure, and the object is closed. Besides the reports of `close` and `transformToIPCIdentifier`,
    ///         with `name` as it was given: `SysErrorId::PERMISSION_DENIED` with `FileAccessErrorId::ACCESS_DENIED` on top without the right, 2 with 0 if
    ///         there is no such semaphore or the name is not possible, 0 with 6 without descriptors, 10 with 9, else 19
    ///         with 9
    bool attach(char const* name);
};

} // namespace vesk
