#pragma once

#include <vesk/Export.h>
#include <vesk/MemMapping.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <map>

namespace vesk {

/// What a `SharedMemoryServer` and a `SharedMemoryClient` have in common once they are open: a piece of memory with a size
/// and the mappings that were made of it. It owns both.
///
///     vesk::MemMapping const mapping = shm.addMapping(MemMapping::READ | MemMapping::WRITE, shm.getSize());
///     if (!mapping.isValid()) { ... }
///     use(mapping.getAddress());
///     if (shm.close()) { ... } // The address is not valid any more.
///
/// The classes have no lock: an object belongs to one thread at a time, and what lies in the memory is the users' own to
/// guard, for example with a `ShmMutex` in it.
class VESK_API SharedMemoryBase : private tarnbase::NonCopyable {
public:
    /// Closes the object as this class does, without a look at its name. A failure shows as a warning only.
    virtual ~SharedMemoryBase();

    /// Takes all mappings down and closes the object (`close`, repeated while a signal interrupts it). A closed one is left
    /// alone, with success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, of a mapping or of the object. The mappings are gone in any case; the object
    ///         is closed unless the system had another objection than that it is not open
    virtual bool close();

    /// Whether the object is open.
    bool isValid() const noexcept { return descriptor != -1; }

    /// Its descriptor, for calls that this class does not make; -1 if it is closed. It stays this object's.
    int getDescriptor() const noexcept { return descriptor; }

    /// The size of the memory (`fstat`), at most 2,147,483,647.
    /// @return bytes; 0 if nothing is open (`CommonErrorId::CONTRACT_BROKEN`), if the system does not tell, and for a larger one (both
    ///         without a report)
    unsigned int getSize() const;

    /// Maps a part of the memory; see the constructor of `MemMapping` for the arguments and reports. Valid until it is
    /// removed or the object is closed, which take it down, so do not `destroy` it yourself.
    /// @return a mapping that is not valid on failure; the object has then nothing to do with it
    MemMapping addMapping(
        MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Takes one mapping down.
    /// @param mapping  what `addMapping` of this object gave
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for one that it does not have; else what `MemMapping::destroy` reported,
    ///         the object having given it up
    bool removeMapping(MemMapping const& mapping);

protected:
    SharedMemoryBase() = default;

    int descriptor = -1;
    std::map<void const*, MemMapping> mappings;
};

} // namespace vesk
