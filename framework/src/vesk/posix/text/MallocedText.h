#pragma once

#include <cstdlib>
#include <memory>

namespace vesk::detail {

struct Free {
    void operator()(void* memory) const noexcept { free(memory); }
};

/// A text that a function of libc allocated, or null.
using MallocedText = std::unique_ptr<char, Free>;

} // namespace vesk::detail
