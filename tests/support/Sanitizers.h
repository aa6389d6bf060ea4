#pragma once

/// What a sanitizer cannot follow.
namespace support {

#if defined(__SANITIZE_ADDRESS__)
/// The address sanitizer keeps its marks of the stack frames that a cancelled thread has left by unwinding.
constexpr bool FORGETS_UNWOUND_FRAMES = false;
#else
constexpr bool FORGETS_UNWOUND_FRAMES = true;
#endif

} // namespace support
