#pragma once

#include <tarncommon/Export.h>

namespace std {

/// A block of bytes that is handed around as a value: a copy has bytes of its own.
///
///     std::Buf record(size);
///     if (!record.isValid()) { ... }
///     memcpy(record.data, source, record.getSize());
///
/// Different objects may be used from different threads, one object from one thread at a time. Nothing throws: a block
/// that could not be had leaves `CommonErrorId::OUT_OF_MEMORY` pending, and `isValid` tells.
class TARN_API Buf {
public:
    /// Where the bytes of a block come from and go to. It must outlive every block that uses it, all copies included,
    /// and be callable from every thread that handles one.
    class TARN_API Allocator {
    public:
        /// Gives `size` bytes (never 0), or null if it cannot.
        virtual void* allocate(unsigned int size) const noexcept = 0;

        /// Takes back what `allocate` gave for this size.
        virtual void release(void* memory, unsigned int size) const noexcept = 0;

    protected:
        constexpr Allocator() noexcept = default;
        // An allocator may be a constant that is never torn down, so nothing is deleted through this interface.
        ~Allocator() = default;
    };

    /// The heap. Usable from any initialiser and until the process has ended.
    static Allocator const& DEFAULT_ALLOCATOR;

    /// A block of `size` bytes, all 0. A size of 0 asks the allocator for nothing and gives a valid block without bytes.
    /// If the allocator gives nothing the block is invalid and `CommonErrorId::OUT_OF_MEMORY` is reported.
    explicit Buf(unsigned int size, Allocator const& allocator = DEFAULT_ALLOCATOR) noexcept;

    /// A copy with bytes of its own, from the allocator of `other`; invalid if that gives none (`CommonErrorId::OUT_OF_MEMORY`). The copy
    /// of an invalid block is invalid, without a report.
    Buf(Buf const& other) noexcept;

    /// Takes the bytes over; `other` is a valid block of size 0 afterwards.
    Buf(Buf&& other) noexcept;

    /// Both as the constructors. The own bytes go back to the allocator that they came from, also if no memory is to be
    /// had for the copy: then the block is invalid.
    Buf& operator=(Buf const& other) noexcept;
    Buf& operator=(Buf&& other) noexcept;

    ~Buf();

    /// Whether the block has the bytes that were asked for.
    bool isValid() const noexcept { return m_size == 0 || data != nullptr; }

    /// How many bytes `data` points to; 0 in an invalid block.
    unsigned int getSize() const noexcept { return data != nullptr ? m_size : 0; }

    /// Whether both have the same bytes. An invalid block equals an empty one.
    bool operator==(Buf const& other) const noexcept;
    bool operator!=(Buf const& other) const noexcept { return !(*this == other); }

    /// The bytes; null if the size is 0 or the block is invalid. The block owns them: the pointer is not to be changed.
    unsigned char* data;

private:
    struct Uninitialised {};
    Buf(unsigned int size, Allocator const& allocator, Uninitialised) noexcept;

    void swap(Buf& other) noexcept;

    unsigned int m_size; // What was asked for, also in an invalid block.
    Allocator const* m_allocator;
};

} // namespace std
