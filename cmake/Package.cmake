# Defines what `cmake --install` installs: the libraries, their headers, the CMake package `vesk` and a
# pkg-config file for each library. The installed tree is relocatable: no file in it contains the install
# prefix.
include(CMakePackageConfigHelpers)

set(VESK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vesk)
set(VESK_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The libraries find each other in their own directory, independently of the program's search path.
set_target_properties(vesk veskloop PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS tarncommon vesk veskloop EXPORT veskTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(
    DIRECTORY tarncommon/include/ framework/include/ loop/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING
    PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/tarncommon/include/tarncommon/Widths.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarncommon)

# Before 1.0 a new minor version may change the interface.
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
    DESTINATION ${VESK_CMAKE_DIR})
install(
    EXPORT veskTargets
    NAMESPACE vesk::
    DESTINATION ${VESK_CMAKE_DIR})

# The relative path from a .pc file to the prefix. It depends on the depth of the library folder.
file(RELATIVE_PATH VESK_PREFIX_FROM_PKGCONFIG /prefix/${VESK_PKGCONFIG_DIR} /prefix)
list(TRANSFORM VESK_WIDTH_DEFINITIONS PREPEND " -D" OUTPUT_VARIABLE VESK_WIDTH_FLAGS)
list(JOIN VESK_WIDTH_FLAGS "" VESK_WIDTH_FLAGS)
foreach(library tarncommon vesk veskloop)
    configure_file(cmake/${library}.pc.in ${PROJECT_BINARY_DIR}/package/${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/package/${library}.pc DESTINATION ${VESK_PKGCONFIG_DIR})
endforeach()
