# Determines the widths of file offsets and times that the compiler and its flags give: TARN_FILE_OFFSET_BITS
# and TARN_TIME_BITS. VESK_WIDTH_DEFINITIONS lists what a program must define to have the same widths.
# VESK_WIDTH_SUFFIX belongs to the sonames, so that the loader refuses a program of other widths. The widths are
# measured, not derived from the flags, because some toolchains define the macros by default.
include(CheckTypeSize)

# A changed flag requires a new measurement.
string(MD5 widths_key "${CMAKE_CXX_COMPILER} ${CMAKE_CXX_FLAGS}")
set(CMAKE_EXTRA_INCLUDE_FILES ctime sys/types.h)
check_type_size(off_t VESK_OFF_T_${widths_key} LANGUAGE CXX)
check_type_size(time_t VESK_TIME_T_${widths_key} LANGUAGE CXX)
unset(CMAKE_EXTRA_INCLUDE_FILES)
if(NOT VESK_OFF_T_${widths_key} OR NOT VESK_TIME_T_${widths_key})
    message(FATAL_ERROR "The widths of off_t and time_t cannot be measured")
endif()
math(EXPR TARN_FILE_OFFSET_BITS "8 * ${VESK_OFF_T_${widths_key}}")
math(EXPR TARN_TIME_BITS "8 * ${VESK_TIME_T_${widths_key}}")

# With 64-bit pointers, offsets and times always have 64 bits.
set(VESK_WIDTH_DEFINITIONS)
set(VESK_WIDTH_SUFFIX)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    if(TARN_FILE_OFFSET_BITS EQUAL 64)
        list(APPEND VESK_WIDTH_DEFINITIONS _FILE_OFFSET_BITS=64)
        set(VESK_WIDTH_SUFFIX lfs)
    endif()
    if(TARN_TIME_BITS EQUAL 64)
        list(APPEND VESK_WIDTH_DEFINITIONS _TIME_BITS=64)
        set(VESK_WIDTH_SUFFIX t64)
    endif()
endif()
