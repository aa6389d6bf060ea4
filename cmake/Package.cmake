# Defines what `cmake --install` installs: the libraries, their headers, the CMake package `vesk`, a pkg-config
# file for each library, and the guide pages. The installed tree is relocatable: no file in it contains the
# install prefix. The components are `runtime`, `development`, `docs` and, for the plug-in,
# `avahi`.
#
# A library that is added with `vesk_add_library` is installed with the headers of its folder `include`. It
# needs a file LIBRARY.pc.in beside this one.
include(CMakePackageConfigHelpers)

set(VESK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vesk)
set(VESK_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
get_property(VESK_LIBRARIES GLOBAL PROPERTY VESK_LIBRARIES)

install(
    TARGETS ${VESK_LIBRARIES}
    EXPORT veskTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT runtime
            NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(
    FILES ${PROJECT_BINARY_DIR}/tarncommon/include/tarncommon/Widths.h
          ${PROJECT_BINARY_DIR}/tarncommon/include/tarncommon/Checks.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarncommon
    COMPONENT development)

# The relative path from a .pc file to the prefix. It depends on the depth of the library folder.
file(RELATIVE_PATH VESK_PREFIX_FROM_PKGCONFIG /prefix/${VESK_PKGCONFIG_DIR} /prefix)
list(TRANSFORM VESK_WIDTH_DEFINITIONS PREPEND " -D" OUTPUT_VARIABLE VESK_WIDTH_FLAGS)
list(JOIN VESK_WIDTH_FLAGS "" VESK_WIDTH_FLAGS)
# A program needs the system's libraries itself only if it contains these libraries.
list(TRANSFORM VESK_SYSTEM_LIBRARIES PREPEND " -l" OUTPUT_VARIABLE VESK_PC_SYSTEM_LIBS)
list(JOIN VESK_PC_SYSTEM_LIBS "" VESK_PC_SYSTEM_LIBS)
set(VESK_PC_LIBS "${CMAKE_THREAD_LIBS_INIT}")
if(VESK_ATOMIC_LIBRARY)
    string(APPEND VESK_PC_LIBS " -l${VESK_ATOMIC_LIBRARY}")
endif()
if(VESK_LIBRARY_TYPE STREQUAL STATIC)
    string(APPEND VESK_PC_LIBS "${VESK_PC_SYSTEM_LIBS}")
endif()
if(VESK_PC_LIBS MATCHES "^[^ ]")
    string(PREPEND VESK_PC_LIBS " ")
endif()

foreach(library IN LISTS VESK_LIBRARIES)
    # libvesk finds the base library in its own directory, independently of the program's search path.
    if(NOT library STREQUAL tarncommon)
        set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
    get_target_property(source_dir ${library} SOURCE_DIR)
    install(
        DIRECTORY ${source_dir}/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development
        FILES_MATCHING
        PATTERN "*.h")
    configure_file(cmake/${library}.pc.in ${PROJECT_BINARY_DIR}/package/${library}.pc @ONLY)
    install(
        FILES ${PROJECT_BINARY_DIR}/package/${library}.pc
        DESTINATION ${VESK_PKGCONFIG_DIR}
        COMPONENT development)
endforeach()

# The header of the plug-in needs nothing of it: programs load it at run time.
install(
    DIRECTORY avahi/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.h")
if(TARGET vesk-avahi)
    set_target_properties(vesk-avahi PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(
        TARGETS vesk-avahi
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT avahi
                NAMELINK_SKIP)
endif()

# A version is accepted in the place of another one exactly if both have the same soname.
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatibility SameMinorVersion)
else()
    set(compatibility SameMajorVersion)
endif()
configure_package_config_file(
    cmake/veskConfig.cmake.in ${PROJECT_BINARY_DIR}/package/veskConfig.cmake
    INSTALL_DESTINATION ${VESK_CMAKE_DIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/package/veskConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY ${compatibility})
install(
    FILES ${PROJECT_BINARY_DIR}/package/veskConfig.cmake ${PROJECT_BINARY_DIR}/package/veskConfigVersion.cmake
    DESTINATION ${VESK_CMAKE_DIR}
    COMPONENT development)
install(
    EXPORT veskTargets
    NAMESPACE vesk::
    DESTINATION ${VESK_CMAKE_DIR}
    COMPONENT development)

install(
    FILES scripts/gdb/vesk.py
    DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb
    COMPONENT development)

install(
    FILES README.md CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT docs)
install(
    DIRECTORY docs
    DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT docs
    FILES_MATCHING
    PATTERN "*.md"
    PATTERN "*.svg")
