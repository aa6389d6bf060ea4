#pragma once

#include <vesk/Export.h>

#include <sys/types.h>

namespace vesk {

/// Permission bits of a file, identical to those of the system's `mode_t`: `open`, `mkdir` and `chmod` take
/// it directly.
///
///     vesk::FileAccess const access = vesk::FileAccess::owner_all | vesk::FileAccess::group_read;
///
/// The constants are constant-initialized, so that every initializer may use them.
class VESK_API FileAccess {
public:
    /// Creates a set of rights from the bits of `chmod`.
    constexpr explicit FileAccess(unsigned int bits) noexcept : m_bits(bits) {}

    /// @{
    /// Returns the bits of `chmod`.
    constexpr unsigned int getBits() const noexcept { return m_bits; }
    constexpr operator mode_t() const noexcept { return static_cast<mode_t>(m_bits); }
    /// @}

    /// Returns the rights that are in either set.
    friend constexpr FileAccess operator|(FileAccess a, FileAccess b) noexcept {
        return FileAccess(a.m_bits | b.m_bits);
    }
    /// Returns the rights that are in both sets.
    friend constexpr FileAccess operator&(FileAccess a, FileAccess b) noexcept {
        return FileAccess(a.m_bits & b.m_bits);
    }
    /// @{
    /// Compares two sets.
    friend constexpr bool operator==(FileAccess a, FileAccess b) noexcept { return a.m_bits == b.m_bits; }
    friend constexpr bool operator!=(FileAccess a, FileAccess b) noexcept { return a.m_bits != b.m_bits; }
    /// @}

    /// No right.
    static FileAccess const none;
    /// The owner may read.
    static FileAccess const owner_read;
    /// The owner may write.
    static FileAccess const owner_write;
    /// The owner may execute the file, or search the directory.
    static FileAccess const owner_exec;
    /// All rights of the owner.
    static FileAccess const owner_all;
    /// The group may read.
    static FileAccess const group_read;
    /// The group may write.
    static FileAccess const group_write;
    /// The group may execute the file, or search the directory.
    static FileAccess const group_exec;
    /// All rights of the group.
    static FileAccess const group_all;
    /// All others may read.
    static FileAccess const others_read;
    /// All others may write.
    static FileAccess const others_write;
    /// All others may execute the file, or search the directory.
    static FileAccess const others_exec;
    /// All rights of all others.
    static FileAccess const others_all;
    static FileAccess const all;     ///< All nine bits of owner, group and others.
    static FileAccess const set_uid; ///< Executes with the user id of the file's owner.
    static FileAccess const set_gid; ///< Executes with the group id of the file's group.
    static FileAccess const
        sticky_bit;               ///< In a directory: only its owner and the owner of a file remove the file.
    static FileAccess const mask; ///< All permission bits.

private:
    unsigned int m_bits;
};

} // namespace vesk
