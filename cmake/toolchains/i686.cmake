# 32-bit x86 with Debian's cross compiler. Its programs run on the host through the toolchain's loader. The
# path of the loader is linked into each program, so that programs started as children run as well.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# DT_RPATH instead of DT_RUNPATH, because it also applies to the dependencies of the toolchain's libraries.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2 -Wl,-rpath,/usr/i686-linux-gnu/lib -Wl,--disable-new-dtags")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags")
