#pragma once

#include <vesk/BinFileBase.h>
#include <vesk/Export.h>
#include <vesk/MemMapping.h>

#include <map>

namespace vesk {

/// A file whose bytes are mapped instead of read and written; it owns the mappings.
///
///     vesk::MemBinFileBase file;
///     if (file.open("table", file.READ, file.DEFAULT_ACCESS) || !file.isValid()) { ... }
///     auto const mapping = file.addMapping(vesk::MemMapping::READ, size);
///     if (!mapping.isValid()) { ... }
///
/// Closing the file, and opening another one, takes its mappings down. An object belongs to one thread at a time.
class VESK_API MemBinFileBase : public BinFileBase {
public:
    MemBinFileBase() = default;

    /// Takes all mappings down, the lowest first, and closes the file, whatever became of them.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` of a mapping, or what `BinFileBase::close` reported; of several failures the
    ///         last one is pending. The mappings are given up in any case
    bool close() override;

    /// Does what `close` does. A failure shows as a warning only.
    ~MemBinFileBase() override;

    /// Maps a part of the file; see the constructor of `MemMapping` for the arguments and reports. Valid until it is removed
    /// or the file is closed, which take it down, so do not `destroy` it yourself.
    /// @return a mapping that is not valid on failure; the file has then nothing to do with it
    MemMapping addMapping(
        MemMapping::MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Takes one mapping down.
    /// @param mapping  what `addMapping` of this object gave
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for one that it does not have; else what `MemMapping::destroy` reported,
    ///         the file having given it up
    bool removeMapping(MemMapping const& mapping);

protected:
    std::map<void const*, MemMapping> m_mappings;
};

} // namespace vesk
