# The ways in which another project takes zel in, each configured, built and run as a project of its own:
# find_package and pkg-config against an installed copy, and add_subdirectory, also with a platform layer of
# another vendor. They are left out where zel has a sanitizer, whose flags they would need as well, and where
# what they build would not run on this machine.

if(NOT ZEL_SANITIZE AND NOT CMAKE_CROSSCOMPILING AND ZEL_INSTALL AND PROJECT_IS_TOP_LEVEL)
    set(consumers_dir ${CMAKE_CURRENT_BINARY_DIR}/consumers)
    set(consumers_prefix ${consumers_dir}/prefix)

    add_test(NAME consumer.install
        COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${PROJECT_BINARY_DIR} -DPREFIX=${consumers_prefix}
            -P ${CMAKE_CURRENT_SOURCE_DIR}/consumers/install.cmake)
    zel_test_properties(consumer.install LABELS consumer)
    set_tests_properties(consumer.install PROPERTIES FIXTURES_SETUP zel_installed)

    # zel_add_consumer(<name> [argument of its configuration]...)
    function(zel_add_consumer name)
        add_test(NAME consumer.${name}
            COMMAND ${CMAKE_CTEST_COMMAND}
                --build-and-test ${CMAKE_CURRENT_SOURCE_DIR}/consumers/${name} ${consumers_dir}/${name}
                --build-generator ${CMAKE_GENERATOR}
                --build-options -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER} ${ARGN}
                --test-command consumer)
        zel_test_properties(consumer.${name} LABELS consumer TIMEOUT 300)
    endfunction()

    zel_add_consumer(find_package -DCMAKE_PREFIX_PATH=${consumers_prefix} -DZEL_EXPECTED_VERSION=${PROJECT_VERSION})
    set_tests_properties(consumer.find_package PROPERTIES FIXTURES_REQUIRED zel_installed)

    zel_add_consumer(add_subdirectory -DZEL_SOURCE_DIR=${PROJECT_SOURCE_DIR})
    zel_add_consumer(external -DZEL_SOURCE_DIR=${PROJECT_SOURCE_DIR})
    set_tests_properties(consumer.add_subdirectory consumer.external PROPERTIES PROCESSORS 2)

    # The tool finds the library under a prefix that the dynamic linker does not know.
    if(TARGET zelctl)
        add_test(NAME consumer.zelctl COMMAND ${consumers_prefix}/${CMAKE_INSTALL_BINDIR}/zelctl --help)
        zel_test_properties(consumer.zelctl LABELS consumer)
        set_tests_properties(consumer.zelctl PROPERTIES FIXTURES_REQUIRED zel_installed)
    endif()

    find_program(ZEL_PKG_CONFIG pkg-config)
    mark_as_advanced(ZEL_PKG_CONFIG)
    if(ZEL_PKG_CONFIG)
        add_test(NAME consumer.pkg_config
            COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumers/pkg_config/run.sh
                ${ZEL_PKG_CONFIG} ${CMAKE_CXX_COMPILER} ${consumers_prefix} ${CMAKE_INSTALL_LIBDIR} ${PROJECT_VERSION}
                ${consumers_dir}/pkg_config)
        zel_test_properties(consumer.pkg_config LABELS consumer)
        set_tests_properties(consumer.pkg_config PROPERTIES FIXTURES_REQUIRED zel_installed)
    endif()
endif()

# A package names the processor that it is for, also when it was made on a machine with another one.
set(architecture_x86_64 amd64)
set(architecture_i686 i386)
set(architecture_powerpc powerpc)
set(architecture_mips mips)
set(architecture_armv7l armhf)
find_program(ZEL_DPKG_DEB dpkg-deb)
find_program(ZEL_DPKG_ARCHITECTURE dpkg-architecture)
mark_as_advanced(ZEL_DPKG_DEB ZEL_DPKG_ARCHITECTURE)
if(NOT ZEL_SANITIZE AND ZEL_INSTALL AND PROJECT_IS_TOP_LEVEL AND ZEL_DPKG_DEB AND ZEL_DPKG_ARCHITECTURE
        AND DEFINED architecture_${CMAKE_SYSTEM_PROCESSOR})
    add_test(NAME package COMMAND ${CMAKE_CPACK_COMMAND} -G DEB -B ${CMAKE_CURRENT_BINARY_DIR}/packages
        WORKING_DIRECTORY ${PROJECT_BINARY_DIR})
    zel_test_properties(package LABELS consumer)
    set_tests_properties(package PROPERTIES PASS_REGULAR_EXPRESSION
        "libzel${PROJECT_VERSION_MAJOR}_${PROJECT_VERSION}_${architecture_${CMAKE_SYSTEM_PROCESSOR}}.deb generated")
endif()
