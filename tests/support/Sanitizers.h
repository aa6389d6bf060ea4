#pragma once

/// Limits of the sanitizers that tests must take into account.
namespace support {

#if defined(__SANITIZE_ADDRESS__)
/// The address sanitizer keeps its marks on stack frames that a canceled thread has unwound.
constexpr bool FORGETS_UNWOUND_FRAMES = false;
#else
constexpr bool FORGETS_UNWOUND_FRAMES = true;
#endif

#if defined(__SANITIZE_THREAD__)
/// The thread sanitizer does not follow a thread that is canceled in a system call.
constexpr bool FOLLOWS_CANCELED_THREADS = false;
#else
constexpr bool FOLLOWS_CANCELED_THREADS = true;
#endif

} // namespace support

#define VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN()                                                              \
    if (!support::FORGETS_UNWOUND_FRAMES) {                                                                  \
        GTEST_SKIP() << "the address sanitizer takes frames that were unwound for live ones";                \
    }
