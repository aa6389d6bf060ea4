# Determines what the C library offers: VESK_SYSTEM_LIBRARIES lists the libraries that it keeps apart, and
# VESK_HAS_STRERRORDESC_NP tells whether it has the one function that glibc 2.28 does not have. A value that
# is set in advance replaces the check: with -DVESK_HAS_STRERRORDESC_NP=OFF the library uses its own table.
include(CheckCXXSymbolExists)

find_package(Threads REQUIRED)

# Message queues, timers and shared memory are in librt before glibc 2.34.
check_cxx_symbol_exists(mq_open mqueue.h VESK_LIBC_HAS_RT)
set(VESK_SYSTEM_LIBRARIES ${CMAKE_DL_LIBS})
if(NOT VESK_LIBC_HAS_RT)
    list(APPEND VESK_SYSTEM_LIBRARIES rt)
endif()

check_cxx_symbol_exists(strerrordesc_np cstring VESK_HAS_STRERRORDESC_NP)
