#pragma once

#include <vesk/Export.h>
#include <vesk/MemMapping.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <map>

namespace vesk {

/// Common base of `SharedMemoryServer` and `SharedMemoryClient`: an open piece of shared memory with its
/// mappings, both of which it owns.
///
///     vesk::MemMapping const mapping = shm.addMapping(MemMapping::READ | MemMapping::WRITE, shm.getSize());
///     if (!mapping.isValid()) { ... }
///     use(mapping.getAddress());
///     if (shm.close()) { ... } // The address is not valid any more.
///
/// The classes have no lock: an object belongs to one thread at a time. Users must synchronize access to the
/// contents of the memory, for example with a `ShmMutex` inside it.
class VESK_API SharedMemoryBase : private tarnbase::NonCopyable {
public:
    /// Closes the object as this class does, without removing its name. A failure gives only a warning of
    /// `std::GlobalErrorHandler`.
    virtual ~SharedMemoryBase();

    /// Removes all mappings and closes the object (`close`, repeated while a signal interrupts it). Does
    /// nothing, with success, on a closed object.
    /// @return true on failure of a mapping or of the object: `SysErrorId::SPOILED_INTEGRITY`. The mappings
    ///         are discarded in any case. If closing the object itself fails, it stays open, except if the
    ///         system does not know its descriptor (`EBADF`)
    [[nodiscard]] virtual bool close();

    /// Returns whether the object is open.
    bool isValid() const noexcept { return descriptor != -1; }

    /// Returns the descriptor, for system calls that this class does not make, or -1 if the object is closed.
    /// The object keeps the ownership.
    int getDescriptor() const noexcept { return descriptor; }

    /// Returns the size of the memory in bytes (`fstat`), at most 2,147,483,647.
    /// @return 0 if the object is closed (`CommonErrorId::CONTRACT_BROKEN`), if the system does not return a
    ///         size, or if the size exceeds the maximum (the last two without a report)
    unsigned int getSize() const;

    /// Maps a part of the memory; see the constructor of `MemMapping` for the arguments and reports. The
    /// mapping is valid until it is removed or the object is closed. Do not call `destroy` on it: this object
    /// does.
    /// @return a mapping that is not valid on failure, which this object does not keep
    MemMapping addMapping(
        MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Removes one mapping.
    /// @param mapping  a result of `addMapping` of this object
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` if the object does not have this mapping;
    ///         else the report of `MemMapping::destroy`, and the object discards the mapping nevertheless
    [[nodiscard]] bool removeMapping(MemMapping const& mapping);

protected:
    SharedMemoryBase() = default;

    /// The descriptor, -1 if the object is closed.
    int descriptor = -1;
    /// The existing mappings, by their addresses.
    std::map<void const*, MemMapping> mappings;
};

} // namespace vesk
