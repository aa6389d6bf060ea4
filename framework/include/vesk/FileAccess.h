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
    constexpr explicit FileAccess(unsigned int bits) noexcept : m_bits(bits) {}

    constexpr unsigned int getBits() const noexcept { return m_bits; }
    constexpr operator mode_t() const noexcept { return static_cast<mode_t>(m_bits); }

    friend constexpr FileAccess operator|(FileAccess a, FileAccess b) noexcept {
        return FileAccess(a.m_bits | b.m_bits);
    }
    friend constexpr FileAccess operator&(FileAccess a, FileAccess b) noexcept {
        return FileAccess(a.m_bits & b.m_bits);
    }
    friend constexpr bool operator==(FileAccess a, FileAccess b) noexcept { return a.m_bits == b.m_bits; }
    friend constexpr bool operator!=(FileAccess a, FileAccess b) noexcept { return a.m_bits != b.m_bits; }

    static FileAccess const none;
    static FileAccess const owner_read;
    static FileAccess const owner_write;
    static FileAccess const owner_exec;
    static FileAccess const owner_all;
    static FileAccess const group_read;
    static FileAccess const group_write;
    static FileAccess const group_exec;
    static FileAccess const group_all;
    static FileAccess const others_read;
    static FileAccess const others_write;
    static FileAccess const others_exec;
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
