# Compiles every public header alone, in each language standard that a caller may use, without compiler
# extensions. Each header must also refuse a program with other widths of offsets and times, so it must
# include an Export.h. Part of the default build: a header that depends on the includes of another one breaks
# the build.
set(VESK_HEADER_CHECK_STANDARDS 17 20 23)

add_custom_target(header_check)
set(libraries tarncommon vesk veskloop)
if(TARGET vesk-avahi)
    list(APPEND libraries vesk-avahi)
endif()
foreach(library IN LISTS libraries)
    get_target_property(source_dir ${library} SOURCE_DIR)
    file(
        GLOB_RECURSE headers
        RELATIVE ${source_dir}/include
        CONFIGURE_DEPENDS ${source_dir}/include/*.h)
    set(sources)
    foreach(header IN LISTS headers)
        set(content "#include <${header}>\n#ifndef TARN_TIME_BITS\n#error \"include an Export.h\"\n#endif\n")
        set(source ${CMAKE_BINARY_DIR}/header_check/${library}/${header}.cpp)
        file(CONFIGURE OUTPUT ${source} CONTENT "${content}" @ONLY)
        list(APPEND sources ${source})
    endforeach()
    foreach(standard IN LISTS VESK_HEADER_CHECK_STANDARDS)
        set(target header_check_${library}_${standard})
        add_library(${target} OBJECT ${sources})
        set_target_properties(
            ${target}
            PROPERTIES CXX_STANDARD ${standard}
                       CXX_STANDARD_REQUIRED ON
                       CXX_EXTENSIONS OFF
                       EXPORT_COMPILE_COMMANDS OFF)
        add_dependencies(header_check ${target})
        target_link_libraries(${target} PRIVATE ${library} vesk_build_flags)
        # No debug information: the objects are never used, and there are three per header.
        target_compile_options(${target} PRIVATE -Wpedantic -O0 -g0)
    endforeach()
endforeach()
