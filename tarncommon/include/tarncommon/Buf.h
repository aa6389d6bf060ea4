#pragma once

#include <tarncommon/Export.h>

namespace std {

/// A block of bytes with value semantics: a copy has bytes of its own.
///
///     std::Buf record(size);
///     if (!record.isValid()) { ... }
///     memcpy(record.data, source, record.getSize());
///
/// Different objects may be used from different threads, one object from one thread at a time. No operation
/// throws. A failed allocation leaves `CommonErrorId::OUT_OF_MEMORY` pending, and `isValid` then returns
/// false.
class TARN_API Buf {
public:
    /// The source of the bytes of a block. It must outlive every block that uses it, including all copies,
    /// and be callable from every thread that uses such a block.
    class TARN_API Allocator {
    public:
        /// Returns `size` bytes (`size` is never 0), or null if they are not available.
        virtual void* allocate(unsigned int size) const noexcept = 0;

        /// Releases memory that `allocate` returned for this size.
        virtual void release(void* memory, unsigned int size) const noexcept = 0;

    protected:
        constexpr Allocator() noexcept = default;
        // Protected and not virtual: an allocator may be a constant that is never destroyed, so an object is
        // never deleted through this interface.
        ~Allocator() = default;
    };

    /// The heap. Usable from any initializer and until the process has ended.
    static Allocator const& DEFAULT_ALLOCATOR;

    /// Creates a block of `size` bytes, all 0. A `size` of 0 gives a valid block without bytes and does not
    /// call the allocator. If the allocation fails, the block is invalid and `CommonErrorId::OUT_OF_MEMORY`
    /// is reported.
    explicit Buf(unsigned int size, Allocator const& allocator = DEFAULT_ALLOCATOR) noexcept;

    /// Creates a copy with bytes of its own, from the allocator of `other`. If the allocation fails, the copy
    /// is invalid and `CommonErrorId::OUT_OF_MEMORY` is reported. The copy of an invalid block is invalid,
    /// without a report.
    Buf(Buf const& other) noexcept;

    /// Takes ownership of the bytes of `other`, which becomes a valid block of size 0.
    Buf(Buf&& other) noexcept;

    /// @{
    /// Replaces the block with what the matching constructor creates from `other`. The previous bytes go back
    /// to the allocator that they came from. If the allocation for a copy fails, the block is invalid
    /// afterwards.
    Buf& operator=(Buf const& other) noexcept;
    Buf& operator=(Buf&& other) noexcept;
    /// @}

    ~Buf();

    /// Returns whether the block has the bytes that were requested.
    bool isValid() const noexcept { return m_size == 0 || data != nullptr; }

    /// Returns the number of bytes that `data` points to, 0 for an invalid block.
    unsigned int getSize() const noexcept { return data != nullptr ? m_size : 0; }

    /// @{
    /// Returns whether both blocks have the same bytes. An invalid block equals an empty one.
    bool operator==(Buf const& other) const noexcept;
    bool operator!=(Buf const& other) const noexcept { return !(*this == other); }
    /// @}

    /// The bytes; null if the size is 0 or the block is invalid. The block owns them: callers must not change
    /// the pointer.
    unsigned char* data;

private:
    struct Uninitialised {};
    Buf(unsigned int size, Allocator const& allocator, Uninitialised) noexcept;

    void swap(Buf& other) noexcept;

    unsigned int m_size; // The requested size, also in an invalid block.
    Allocator const* m_allocator;
};

} // namespace std
