# Determines what the C library and the compiler offer. VESK_SYSTEM_LIBRARIES lists the libraries that the C library
# keeps apart, and VESK_HAS_STRERRORDESC_NP tells whether it has the one function that glibc 2.28 does not have.
# A value that is set in advance replaces the check: with -DVESK_HAS_STRERRORDESC_NP=OFF the library uses its own
# table.
include(CheckCXXSourceCompiles)
include(CheckCXXSymbolExists)

find_package(Threads REQUIRED)

# Message queues, timers and shared memory are in librt before glibc 2.34.
check_cxx_symbol_exists(mq_open mqueue.h VESK_LIBC_HAS_RT)
set(VESK_SYSTEM_LIBRARIES ${CMAKE_DL_LIBS})
if(NOT VESK_LIBC_HAS_RT)
    list(APPEND VESK_SYSTEM_LIBRARIES rt)
endif()

check_cxx_symbol_exists(strerrordesc_np cstring VESK_HAS_STRERRORDESC_NP)
check_cxx_symbol_exists(__powerpc__ cstring VESK_IS_POWERPC)

# VESK_ATOMIC_LIBRARY: before GCC 14, atomic operations on one byte are functions of the compiler's libatomic on
# RISC-V. The public headers have such operations, therefore programs need it, too.
check_cxx_source_compiles(
    "#include <atomic>
     std::atomic<bool> value{false};
     int main() { return value.exchange(true) ? 1 : 0; }"
    VESK_HAS_BYTE_ATOMICS)
set(VESK_ATOMIC_LIBRARY)
if(NOT VESK_HAS_BYTE_ATOMICS)
    set(VESK_ATOMIC_LIBRARY atomic)
endif()

# VESK_WIDE_ATOMIC_LIBRARY: on 32-bit PowerPC so are atomic operations on 64 bits. Only the tests and the soak program
# have them on a 32-bit processor.
check_cxx_source_compiles(
    "#include <atomic>
     std::atomic<long long> value{0};
     int main() { return static_cast<int>(++value); }"
    VESK_HAS_WIDE_ATOMICS)
set(VESK_WIDE_ATOMIC_LIBRARY)
if(NOT VESK_HAS_WIDE_ATOMICS)
    set(VESK_WIDE_ATOMIC_LIBRARY atomic)
endif()
