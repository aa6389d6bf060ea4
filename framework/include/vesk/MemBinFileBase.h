#pragma once

#include <vesk/BinFileBase.h>
#include <vesk/Export.h>
#include <vesk/MemMapping.h>

#include <map>

namespace vesk {

/// A file that is mapped into memory instead of read and written. It owns the mappings.
///
///     vesk::MemBinFileBase file;
///     if (file.open("table", file.READ, file.DEFAULT_ACCESS) || !file.isValid()) { ... }
///     auto const mapping = file.addMapping(vesk::MemMapping::READ, size);
///     if (!mapping.isValid()) { ... }
///
/// Closing the file, or opening another one, unmaps them. An object must be used by one thread at a time.
class VESK_API MemBinFileBase : public BinFileBase {
public:
    MemBinFileBase() = default;

    /// Unmaps all mappings, the lowest address first, and then closes the file, even if unmapping failed.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` of a mapping, or what `BinFileBase::close`
    ///         reported; of several failures the last one is pending. The object discards its mappings in any
    ///         case
    [[nodiscard]] bool close() override;

    /// Does what `close` does. A failure is only a warning.
    ~MemBinFileBase() override;

    /// Maps a part of the file; see the constructor of `MemMapping` for the arguments and reports. The
    /// mapping is valid until it is removed or the file is closed. Both unmap it, so the caller must not
    /// `destroy` it.
    /// @return an invalid mapping on failure; the file does not store it
    MemMapping addMapping(
        MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Unmaps one mapping.
    /// @param mapping  a mapping that `addMapping` of this object returned
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for a mapping that the object does not own;
    ///         otherwise what `MemMapping::destroy` reported, and the object has discarded the mapping
    [[nodiscard]] bool removeMapping(MemMapping const& mapping);

protected:
    /// The existing mappings, by their addresses.
    std::map<void const*, MemMapping> m_mappings;
};

} // namespace vesk
