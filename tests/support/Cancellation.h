#pragma once

#include <features.h>

/// Limits of the C library that tests of canceled threads must take into account.
namespace support {

#if defined(__arm__) && defined(__GLIBC__) && !__GLIBC_PREREQ(2, 41)
/// Up to glibc 2.40 a cancellation can interrupt a cancellation point anywhere, also in its first and last
/// instructions. The unwind tables of 32-bit ARM do not describe these. In about one of 10,000 cancellations
/// the unwinding stops there, and the thread ends without its destructors. It occurs in programs without this
/// library as well.
constexpr bool UNWINDS_ASYNCHRONOUSLY = false;
#else
constexpr bool UNWINDS_ASYNCHRONOUSLY = true;
#endif

} // namespace support
