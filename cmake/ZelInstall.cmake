# What `cmake --install` puts where, and the packages that cpack makes of it. Two components: `runtime` is what
# a device needs, `dev` what a build against zel needs besides.

include(CMakePackageConfigHelpers)

set(zel_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zel)

set(zel_exported zel)
if(TARGET zel_platform_headers)
    set_target_properties(zel_platform_headers PROPERTIES EXPORT_NAME platform_headers)
    list(APPEND zel_exported zel_platform_headers)
endif()
install(TARGETS ${zel_exported} EXPORT zelTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
if(TARGET zelctl)
    # It finds the library beside it, wherever the tree is installed or moved to.
    file(RELATIVE_PATH zel_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(zelctl PROPERTIES INSTALL_RPATH "$ORIGIN/${zel_libraries}")
    install(TARGETS zelctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/zelctl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/zelctl/zelctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zelctl COMPONENT runtime)
endif()

foreach(dir include platform/include platform/os/include platform/std/include platform/log/include)
    if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/${dir})
        install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
            FILES_MATCHING PATTERN "*.hpp" PATTERN "*.h")
    endif()
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

install(EXPORT zelTargets NAMESPACE zel:: DESTINATION ${zel_package_dir} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/cmake/zelConfig.cmake INSTALL_DESTINATION ${zel_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/zelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/zelConfig.cmake ${PROJECT_BINARY_DIR}/cmake/zelConfigVersion.cmake
    DESTINATION ${zel_package_dir} COMPONENT dev)

# The installed tree may be moved, so zel.pc finds its prefix from where it lies itself.
set(zel_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    set(zel_pc_prefix ${CMAKE_INSTALL_PREFIX})
    set(zel_pc_libdir ${CMAKE_INSTALL_FULL_LIBDIR})
    set(zel_pc_includedir ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
    file(RELATIVE_PATH zel_pc_up /prefix/${zel_pc_dir} /prefix)
    string(REGEX REPLACE "/$" "" zel_pc_up ${zel_pc_up})
    set(zel_pc_prefix "\${pcfiledir}/${zel_pc_up}")
    set(zel_pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(zel_pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# A vendor's platform libraries, which programs use themselves.
list(TRANSFORM ZEL_PLATFORM_LIBRARIES PREPEND " " OUTPUT_VARIABLE zel_pc_platform)
list(JOIN zel_pc_platform "" zel_pc_platform)
configure_file(${CMAKE_CURRENT_LIST_DIR}/zel.pc.in ${PROJECT_BINARY_DIR}/cmake/zel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/zel.pc DESTINATION ${zel_pc_dir} COMPONENT dev)

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

set(CPACK_GENERATOR TGZ)
find_program(ZEL_DPKG_DEB dpkg-deb)
mark_as_advanced(ZEL_DPKG_DEB)
if(CMAKE_CROSSCOMPILING)
    # Left to itself, the package names the architecture of this machine.
    find_program(ZEL_DPKG_ARCHITECTURE dpkg-architecture)
    mark_as_advanced(ZEL_DPKG_ARCHITECTURE)
    if(ZEL_DPKG_ARCHITECTURE)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine
            OUTPUT_VARIABLE zel_triplet OUTPUT_STRIP_TRAILING_WHITESPACE)
        execute_process(COMMAND ${ZEL_DPKG_ARCHITECTURE} -f -t${zel_triplet} -qDEB_HOST_ARCH
            OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    endif()
endif()
if(ZEL_DPKG_DEB AND (CPACK_DEBIAN_PACKAGE_ARCHITECTURE OR NOT CMAKE_CROSSCOMPILING))
    list(APPEND CPACK_GENERATOR DEB)
endif()
set(CPACK_PACKAGE_NAME zel)
set(CPACK_PACKAGE_VENDOR "The zel authors")
set(CPACK_PACKAGE_CONTACT "The zel authors <zel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_STRIP_FILES ON)

# The package of the library is named after its ABI, so that two of them can be installed side by side.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libboost-dev")
find_program(ZEL_DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(ZEL_DPKG_SHLIBDEPS)
if(ZEL_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
else()
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6")
endif()
include(CPack)
