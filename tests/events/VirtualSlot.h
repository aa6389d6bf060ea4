#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace support {

/// The place of a virtual operation in its class's table, counted from 0; the two slots of the destructor come first. All
/// targets share the layout of member pointers but for the bit that says "virtual", which is the lowest of either word.
template <typename Member>
size_t slotOf(Member member) {
    uintptr_t words[2];
    static_assert(sizeof member == sizeof words);
    memcpy(words, &member, sizeof words);
    return (words[0] & ~uintptr_t{1}) / sizeof(void*);
}

} // namespace support
