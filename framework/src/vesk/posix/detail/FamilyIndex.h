#pragma once

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/stream/IBinStreamBase.h>

namespace vesk::detail {

/// The position of a family in the list of `RowReport::getFamily`.
enum class FamilyIndex : unsigned char {
    NONE,
    SYSTEM,
    FILE_ACCESS,
    COMMON,
    STREAM,
    SOCKET,
    MUTEX,
    CONDITION,
    RW_LOCK,
    SPIN_LOCK,
    THREAD,
    TIME,
    CALENDAR_TIME,
    PROCESS,
    VESK,
};

} // namespace vesk::detail

// The index for each enumeration of ids. Those of the families of single classes stand beside the tables that
// use them.

namespace vesk::SysErrorId {
constexpr detail::FamilyIndex familyIndexOf(Id /*unused*/) noexcept {
    return detail::FamilyIndex::SYSTEM;
}
} // namespace vesk::SysErrorId

namespace vesk::FileAccessErrorId {
constexpr detail::FamilyIndex familyIndexOf(Id /*unused*/) noexcept {
    return detail::FamilyIndex::FILE_ACCESS;
}
} // namespace vesk::FileAccessErrorId

namespace std {
namespace CommonErrorId {
constexpr vesk::detail::FamilyIndex familyIndexOf(Id /*unused*/) noexcept {
    return vesk::detail::FamilyIndex::COMMON;
}
} // namespace CommonErrorId

constexpr vesk::detail::FamilyIndex familyIndexOf(IBinStreamBase::StreamErrorId /*unused*/) noexcept {
    return vesk::detail::FamilyIndex::STREAM;
}
} // namespace std
