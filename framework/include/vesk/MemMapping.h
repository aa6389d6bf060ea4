#pragma once

#include <vesk/Export.h>

#include <cstdint>

namespace vesk {

/// A part of an open file or of shared memory that is mapped into the address space.
///
///     vesk::MemMapping mapping(file.getDescriptor(), vesk::MemMapping::READ, size, 0);
///     if (!mapping.isValid()) { ... }
///     use(mapping.getAddress(), mapping.getSize());
///     mapping.destroy();
///
/// An object is a value: a copy refers to the same mapping, and only `destroy` removes the mapping.
/// `SharedMemoryBase` and `MemBinFileBase` keep track of their own mappings. Written data is visible at once
/// in every other mapping of the object, including those of other processes, and in the object itself.
///
/// A ring buffer maps the same pages twice, one copy directly behind the other. A block that crosses the end
/// of the first half is contiguous in memory, so that it can be read or written without a copy and in one
/// pass.
///
///     vesk::MemMapping ring(shm.getDescriptor(), MemMapping::READ | MemMapping::WRITE, length, 0, nullptr,
///                           true);
///     auto* const bytes = static_cast<char*>(ring.getAddress());
///     memcpy(bytes + at % length, block, size); // May cross the end of the first half; `size` <= `length`.
///
/// Accessing a page behind the end of the object raises `SIGBUS`. The descriptor is needed only while the
/// constructor runs. Callers must synchronize access to the mapped bytes. An object belongs to one thread at
/// a time.
class VESK_API MemMapping {
public:
    /// Permitted access to the bytes. The values are those of the system.
    enum MemAccessFlag : uint32_t {
        READ = 1,
        WRITE = 2,
        EXECUTE = 4,
    };

    /// A set of access flags. An empty set reserves the range without permitting any access. Unknown bits are
    /// ignored.
    class MemAccessFlags {
    public:
        constexpr MemAccessFlags() noexcept = default;
        /// Creates a set of one flag.
        constexpr MemAccessFlags(MemAccessFlag flags) noexcept : m_word(flags) {}
        /// Creates a set from the sum of its flags.
        constexpr explicit MemAccessFlags(uint32_t word) noexcept : m_word(word) {}

        /// Returns the sum of the flags.
        constexpr uint32_t getWord() const noexcept { return m_word; }
        /// Returns whether a flag is set.
        constexpr bool has(MemAccessFlag flag) const noexcept { return (m_word & flag) != 0; }

        /// @{
        /// Compares two sets.
        friend constexpr bool operator==(MemAccessFlags a, MemAccessFlags b) noexcept {
            return a.m_word == b.m_word;
        }
        friend constexpr bool operator!=(MemAccessFlags a, MemAccessFlags b) noexcept {
            return a.m_word != b.m_word;
        }
        /// @}

    private:
        uint32_t m_word = 0;
    };

    /// Maps a part of an object (`mmap`, shared). Use `isValid` to check the result.
    ///
    /// Reports on failure:
    /// - `SysErrorId::SPOILED_INTEGRITY` if the descriptor is not open or cannot be mapped in this way
    /// - `SysErrorId::OUT_OF_MEMORY` if the mapping does not fit into memory
    /// - `SysErrorId::PERMISSION_DENIED` if the descriptor was not opened for this access
    /// - `SysErrorId::NOT_IMPLEMENTED` if the device does not support mappings, or if no address range of
    ///   twice the `length` is available for a ring buffer
    /// - `SysErrorId::INVALID_PARAMETER` if `length` is 0 or `offset` is not a multiple of the page size
    /// - `SysErrorId::RESOURCES_EXHAUSTED` if the process has no descriptor left
    /// - `CommonErrorId::CONTRACT_BROKEN` if the `length` of a ring buffer is not a multiple of the page size
    /// - `SysErrorId::UNCLASSIFIED` otherwise
    ///
    /// A ring buffer of `length` 0 fails with `SysErrorId::NOT_IMPLEMENTED`. If the object itself cannot be
    /// mapped as a ring buffer, the address range stays reserved until the process ends.
    /// @param fd          the object; the caller may close it afterwards
    /// @param flags       permitted access to the bytes
    /// @param length      in bytes; the mapping extends to the end of the last page. That of a ring buffer
    ///                    must be below 2 GiB
    /// @param offset      start within the object, a multiple of the page size (`Vesk::s_sys_info`)
    /// @param address     preferred address, only a hint; null for any address
    /// @param ringbuffer  whether to map the part twice
    MemMapping(
        int const& fd, MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Removes the mapping (`munmap`) and sets the size to 0. The address in all copies of the object is no
    /// longer valid. Does nothing, with success, if the mapping could not be made.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, with the object unchanged. A second call
    ///         fails in this way
    [[nodiscard]] bool destroy();

    /// Blocks until written data has reached the file (`msync`).
    /// @param length  bytes
    /// @param offset  from the start of the mapping, a multiple of the page size
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` if pages are locked (`EBUSY`),
    ///         `SysErrorId::INVALID_PARAMETER` if the range is not mapped or does not start at a page
    ///         boundary, else `SysErrorId::UNCLASSIFIED`
    bool sync(unsigned int length, unsigned int offset);

    /// Returns whether the mapping was made and this object has not destroyed it.
    bool isValid() const noexcept;

    /// Returns the address of the first byte: `MAP_FAILED` (all bits set) if the mapping could not be made,
    /// null after `destroy`.
    void* getAddress() const noexcept { return address; }

    /// Returns the offset within the object at which the mapping starts.
    unsigned int getOffset() const noexcept { return offset; }

    /// Returns the requested size in bytes, doubled for a ring buffer. Returns 0 after `destroy`.
    unsigned int getSize() const noexcept { return size; }

    /// Returns the access that the mapping was created with.
    MemAccessFlags getFlags() const noexcept { return flags; }

private:
    void mapPlain(int fd, void* hint);
    void mapRing(int fd, void* hint, uint32_t length);

    void* address;
    uint32_t offset;
    uint32_t size;
    MemAccessFlags flags;
};

constexpr MemMapping::MemAccessFlag
operator|(MemMapping::MemAccessFlag a, MemMapping::MemAccessFlag b) noexcept {
    return static_cast<MemMapping::MemAccessFlag>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

} // namespace vesk
