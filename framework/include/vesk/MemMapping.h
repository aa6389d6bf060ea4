#pragma once

#include <vesk/Export.h>

#include <cstdint>

namespace vesk {

/// One piece of an open file or shared memory, mapped into the address space.
///
///     vesk::MemMapping mapping(file.getDescriptor(), vesk::MemMapping::READ, size, 0);
///     if (!mapping.isValid()) { ... }
///     use(mapping.getAddress(), mapping.getSize());
///     mapping.destroy();
///
/// It is a value: a copy tells of the same mapping, and nothing but `destroy` takes that down. `SharedMemoryBase` and
/// `MemBinFileBase` keep book of theirs. What is written shows at once in every other mapping of the object, also those of
/// other processes, and in the object itself.
///
/// As a ring buffer the same pages stand twice, one behind the other: what lies across the end of the first half is one
/// piece of memory, and a reader or writer of it needs neither a copy nor a second pass.
///
///     vesk::MemMapping ring(shm.getDescriptor(), MemMapping::READ | MemMapping::WRITE, length, 0, nullptr, true);
///     auto* const bytes = static_cast<char*>(ring.getAddress());
///     memcpy(bytes + at % length, block, size); // The end of the first half is no matter, up to `length` bytes.
///
/// Touching a page behind the end of the object raises `SIGBUS`. The mapping needs the descriptor no longer than its
/// constructor runs. The mapped bytes are the caller's to guard; an object belongs to one thread at a time.
class VESK_API MemMapping {
public:
    /// What may be done with the bytes; the values are the system's.
    enum MemAccessFlag : uint32_t {
        READ = 1,
        WRITE = 2,
        EXECUTE = 4,
    };

    /// A set of them. Without any the range is taken, and nobody may touch it. Bits of no meaning are dropped.
    class MemAccessFlags {
    public:
        constexpr MemAccessFlags() noexcept = default;
        constexpr MemAccessFlags(MemAccessFlag flags) noexcept : m_word(flags) {}
        constexpr explicit MemAccessFlags(uint32_t word) noexcept : m_word(word) {}

        constexpr uint32_t getWord() const noexcept { return m_word; }
        constexpr bool has(MemAccessFlag flag) const noexcept { return (m_word & flag) != 0; }

        friend constexpr bool operator==(MemAccessFlags a, MemAccessFlags b) noexcept {
            return a.m_word == b.m_word;
        }
        friend constexpr bool operator!=(MemAccessFlags a, MemAccessFlags b) noexcept {
            return a.m_word != b.m_word;
        }

    private:
        uint32_t m_word = 0;
    };

    /// Maps a part of an object (`mmap`, shared). `isValid` tells whether it worked.
    ///
    /// Reports `SysErrorId::SPOILED_INTEGRITY` for what is not open or cannot be mapped so, 1 if it does not fit into memory, 7 if the
    /// descriptor was not opened for this access, 6 if the device has no mappings, 8 for a `length` of 0 or an `offset`
    /// that is no multiple of the page size, 0 without descriptors, else 19. For a ring buffer also `CommonErrorId::CONTRACT_BROKEN` for a
    /// `length` that is no multiple of the page size, and `SysErrorId::NOT_IMPLEMENTED` if there is no range of twice the `length`. A ring
    /// buffer that is refused by the object itself leaves that range taken until the process ends.
    /// @param fd          the object, which the caller may close afterwards
    /// @param flags       what the bytes are for
    /// @param length      in bytes; the mapping ends with a whole page. A ring buffer has less than 2 GiB
    /// @param offset      where in the object, a multiple of the page size (`Vesk::s_sys_info`)
    /// @param address     where it would be liked; only a hint. Null: anywhere
    /// @param ringbuffer  whether it stands twice
    MemMapping(
        int const& fd, MemAccessFlags const& flags, unsigned int length, unsigned int offset = 0,
        void* address = nullptr, bool ringbuffer = false);

    /// Takes the mapping down (`munmap`); its size is 0 then. All copies of the object name an address that is not valid
    /// from then on. A mapping that could not be made is left alone, with success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, the object being as before. A second call fails in this way
    bool destroy();

    /// Waits until what was written is in the file (`msync`).
    /// @param length  bytes
    /// @param offset  from the start of the mapping, a multiple of the page size
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY` for pages that are locked, 8 for a range that is not mapped or does not begin
    ///         with a page, else 19
    bool sync(unsigned int length, unsigned int offset);

    /// Whether there is a mapping: it was made, and this object has not destroyed it.
    bool isValid() const noexcept;

    /// Its first byte; all ones if it could not be made, null after `destroy`.
    void* getAddress() const noexcept { return address; }

    /// Where in the object it begins.
    unsigned int getOffset() const noexcept { return offset; }

    /// Its bytes, as they were asked for; those of a ring buffer count twice. 0 after `destroy`.
    unsigned int getSize() const noexcept { return size; }

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
