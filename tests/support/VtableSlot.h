#pragma once

#include <cstddef>
#include <cstring>

namespace support {

/// Returns the slot of a virtual operation in the table of the class that declares it, counted from 0.
/// Programs that were built against the class call the operation through this slot. A destructor takes two
/// slots.
template <typename Member>
int getSlot(Member member) {
    ptrdiff_t words[2] = {};
    static_assert(sizeof member == sizeof words);
    memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    return static_cast<int>(words[0] / static_cast<ptrdiff_t>(sizeof(void*)));
#else
    return static_cast<int>((words[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*)));
#endif
}

} // namespace support
