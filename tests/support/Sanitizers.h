#pragma once

/// What a sanitizer cannot follow.
namespace support {

#if defined(__SANITIZE_ADDRESS__)
/// The address sanitizer keeps its marks of the stack frames that a cancelled thread has left by unwinding.
constexpr bool FORGETS_UNWOUND_FRAMES = false;
/// Its allocator's locks are not held across a fork, as those of libc are: a child may find one locked for ever.
constexpr bool CHILD_MAY_ALLOCATE = false;
#else
constexpr bool FORGETS_UNWOUND_FRAMES = true;
constexpr bool CHILD_MAY_ALLOCATE = true;
#endif

} // namespace support
