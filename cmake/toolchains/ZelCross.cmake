# The common part of the cross toolchain files: Debian's cross compilers, the host's copies of libraries that are
# headers only and, where qemu's user mode is installed, an emulator that lets ctest run what was built.
#
#   cmake -S . -B build/powerpc -G Ninja --toolchain cmake/toolchains/powerpc-linux-gnu.cmake
#
# Expects zel_cross_triplet, and zel_cross_qemu unless this machine runs the target's programs itself.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${zel_cross_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${zel_cross_triplet}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${zel_cross_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers of Boost, CLI11 and nlohmann-json are the same for every processor, but the rest of the host's /usr/include is
# not: show the compiler these alone.
set(ZEL_CROSS_BOOST /usr/include/boost CACHE PATH "Where Boost's headers are")
set(ZEL_CROSS_CLI11 /usr/include/CLI CACHE PATH "Where CLI11's headers are")
set(ZEL_CROSS_JSON /usr/include/nlohmann CACHE PATH "Where nlohmann-json's headers are")
foreach(headers ${ZEL_CROSS_BOOST} ${ZEL_CROSS_CLI11} ${ZEL_CROSS_JSON})
    cmake_path(GET headers FILENAME zel_cross_name)
    if(NOT EXISTS ${CMAKE_BINARY_DIR}/cross-include/${zel_cross_name} AND EXISTS ${headers})
        file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cross-include)
        file(CREATE_LINK ${headers} ${CMAKE_BINARY_DIR}/cross-include/${zel_cross_name} SYMBOLIC)
    endif()
endforeach()
set(Boost_NO_BOOST_CMAKE ON)
set(Boost_INCLUDE_DIR ${CMAKE_BINARY_DIR}/cross-include)
set(ZEL_CLI11_INCLUDE_DIR ${CMAKE_BINARY_DIR}/cross-include)
set(ZEL_JSON_INCLUDE_DIR ${CMAKE_BINARY_DIR}/cross-include)

if(zel_cross_qemu)
    find_program(ZEL_CROSS_EMULATOR NAMES ${zel_cross_qemu} ${zel_cross_qemu}-static)
    mark_as_advanced(ZEL_CROSS_EMULATOR)
    if(ZEL_CROSS_EMULATOR)
        set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEL_CROSS_EMULATOR};-L;/usr/${zel_cross_triplet})
    endif()
endif()
