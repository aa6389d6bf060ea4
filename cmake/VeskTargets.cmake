# Settings of every target of the tree: language, warnings, sanitizers, and the layout of a library.

add_library(vesk_build_flags INTERFACE)
target_compile_features(vesk_build_flags INTERFACE cxx_std_17)
target_compile_options(vesk_build_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion $<$<BOOL:${VESK_WERROR}>:-Werror>)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Notes on how version 7 of the compiler has changed the passing of some arguments; nothing is older here.
    target_compile_options(vesk_build_flags INTERFACE -Wno-psabi)
endif()
if(VESK_SANITIZE)
    target_compile_options(vesk_build_flags INTERFACE -fsanitize=${VESK_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(vesk_build_flags INTERFACE -fsanitize=${VESK_SANITIZE})
    if(VESK_SANITIZE MATCHES "undefined")
        target_compile_options(vesk_build_flags INTERFACE -fno-sanitize-recover=undefined)
    endif()
endif()
# The counters are in a file that all processes map, so that they survive every end of a process: a signal, abort,
# _exit and exec. They are atomic and counted at once, because the count of one outcome of a condition is the
# difference between two counters.
if(VESK_COVERAGE)
    target_compile_options(
        vesk_build_flags
        INTERFACE -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic
                  "SHELL:-mllvm -runtime-counter-relocation" "SHELL:-mllvm -do-counter-promotion=false"
                  -fprofile-list=${PROJECT_SOURCE_DIR}/cmake/coverage.list)
    # The libraries do not export the symbols of the compiler's runtime.
    target_link_options(
        vesk_build_flags INTERFACE -fprofile-instr-generate -Wl,--exclude-libs=ALL
                                   -Wl,-z,start-stop-visibility=hidden)
endif()

# Packed relative relocations take little more than one bit each. A linker that does not support them for its
# target ignores the option with a warning.
include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,--fatal-warnings,-z,pack-relative-relocs VESK_HAS_PACKED_RELOCATIONS)

if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    set(VESK_OPTIMIZES_SIZE ON)
endif()

# A canary in each frame that has an array or a variable with its address taken makes the libraries 8 % larger.
# Where memory is scarce, only frames with a buffer of bytes have one.
if(VESK_OPTIMIZES_SIZE)
    set(VESK_STACK_PROTECTOR -fstack-protector)
else()
    set(VESK_STACK_PROTECTOR -fstack-protector-strong)
endif()

# Hardens a library: canaries in stack frames with arrays, no lazy binding (which makes all relocated data
# read-only), no executable stack, no relocations in code. The checks of buffer sizes in the C library are left to
# the flags of the distribution: they call other functions than those that the tests replace.
function(vesk_harden name)
    target_compile_options(${name} PRIVATE ${VESK_STACK_PROTECTOR})
    target_link_options(${name} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-z,text)
endfunction()

# The libraries are shared unless BUILD_SHARED_LIBS is off, also in a project that does not set it: a process
# must have only one copy of their process-wide state.
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
    set(VESK_LIBRARY_TYPE STATIC)
else()
    set(VESK_LIBRARY_TYPE SHARED)
endif()

# Adds one of the libraries. ARGN lists its sources. SYMBOL is the mangled name of a symbol that only this
# library exports.
function(vesk_add_library name symbol)
    add_library(${name} ${VESK_LIBRARY_TYPE} ${ARGN})
    add_library(vesk::${name} ALIAS ${name})
    set_property(GLOBAL APPEND PROPERTY VESK_LIBRARIES ${name})
    set_target_properties(
        ${name}
        PROPERTIES VERSION ${PROJECT_VERSION}
                   SOVERSION ${VESK_SOVERSION}
                   CXX_EXTENSIONS ON
                   CXX_VISIBILITY_PRESET hidden
                   POSITION_INDEPENDENT_CODE ON
                   VISIBILITY_INLINES_HIDDEN ON)
    target_compile_features(${name} PUBLIC cxx_std_17)
    target_link_libraries(
        ${name}
        PUBLIC Threads::Threads ${VESK_ATOMIC_LIBRARY}
        PRIVATE $<BUILD_INTERFACE:vesk_build_flags> ${VESK_SYSTEM_LIBRARIES})
    # Calls inside a library are bound to the library; a program can replace only functions of libc.
    target_compile_options(${name} PRIVATE -fno-semantic-interposition)
    # On PowerPC, the linker (Binutils 2.40) redirects calls of `__tls_get_addr` to `__tls_get_addr_opt`, which only
    # the PLT may call: code without a PLT would get a wrong address of each thread-local object.
    if(NOT VESK_IS_POWERPC)
        target_compile_options(${name} PRIVATE -fno-plt)
    endif()
    vesk_harden(${name})
    # On 32-bit systems memory is scarce. `vesk_optimize_speed` names the exceptions.
    if(VESK_OPTIMIZES_SIZE)
        target_compile_options(${name} PRIVATE -Os)
    endif()
    # A unique symbol would prevent the loader from ever unloading the library. Clang does not create such
    # symbols.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
    # Checks that each guarded field is used under its lock.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
    target_include_directories(
        ${name}
        PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
               $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
        PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    # Two thirds of the time to compile a source is spent on the standard library. The presets that check the
    # headers compile each source without precompiled headers, which detects a missing #include.
    if(NOT VESK_HEADER_CHECK)
        target_precompile_headers(${name} PRIVATE <algorithm> <atomic> <functional> <memory> <string> <vector>)
    endif()
    # The loader has room in the static block of a thread for the few bytes of the shared libraries. A module that
    # contains static libraries would place all of their thread-local data there.
    if(VESK_LIBRARY_TYPE STREQUAL SHARED)
        target_compile_definitions(${name} PRIVATE TARN_TLS_MODEL="initial-exec")
        vesk_set_up_shared(${name} ${symbol})
    else()
        target_compile_definitions(${name} PRIVATE TARN_TLS_MODEL="global-dynamic")
        vesk_set_up_static(${name} ${symbol})
    endif()
endfunction()

# Static objects are destroyed when a library is unloaded, but not at the end of the process:
# StaticObjects.cpp takes the place of the C library's registration of destructors.
function(vesk_add_static_objects name symbol)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tarncommon/src/StaticObjects.cpp)
    target_compile_definitions(${name} PRIVATE TARN_LIBRARY_SYMBOL="${symbol}")
endfunction()

function(vesk_set_up_shared name symbol)
    target_link_options(${name} PRIVATE -Wl,--dynamic-list=${PROJECT_SOURCE_DIR}/cmake/preemptible.list)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/preemptible.list)
    if(VESK_HAS_PACKED_RELOCATIONS)
        target_link_options(${name} PRIVATE -Wl,-z,pack-relative-relocs)
    endif()
    vesk_add_static_objects(${name} ${symbol})
    target_link_options(${name} PRIVATE -Wl,--wrap=__cxa_atexit -Wl,--wrap=__aeabi_atexit)
    if(NOT VESK_SANITIZE)
        target_link_options(${name} PRIVATE -Wl,-z,defs)
    endif()
endfunction()

# Renames symbols in the archive, because --wrap would also redirect the program's own static objects. All
# libraries use the StaticObjects.cpp of the base library.
function(vesk_set_up_static name symbol)
    if(name STREQUAL tarncommon)
        vesk_add_static_objects(${name} ${symbol})
    endif()
    add_custom_command(
        TARGET ${name}
        POST_BUILD
        COMMAND
            ${CMAKE_OBJCOPY} --redefine-sym __cxa_atexit=__wrap___cxa_atexit
            --redefine-sym __aeabi_atexit=__wrap___aeabi_atexit
            --redefine-sym __real___cxa_atexit=__cxa_atexit $<TARGET_FILE:${name}>
        VERBATIM)
endfunction()

# Optimizes sources for speed where the others are optimized for size.
function(vesk_optimize_speed)
    if(VESK_OPTIMIZES_SIZE)
        set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O2 SKIP_PRECOMPILE_HEADERS ON)
    endif()
endfunction()

# Prepares a source that creates exported copies of inline functions. By default, Clang emits only one of the
# two symbols of a constructor or destructor.
function(vesk_make_inline_copies source)
    if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
        set_property(SOURCE ${source} APPEND PROPERTY COMPILE_OPTIONS -Xclang -mno-constructor-aliases)
    endif()
endfunction()
