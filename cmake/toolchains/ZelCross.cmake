# The common part of the cross toolchain files: Debian's cross compilers, the host's Boost headers and, where
# qemu's user mode is installed, an emulator that lets ctest run what was built.
#
#   cmake -S . -B build/powerpc -G Ninja --toolchain cmake/toolchains/powerpc-linux-gnu.cmake
#
# Expects zel_cross_triplet and zel_cross_qemu.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${zel_cross_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${zel_cross_triplet}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${zel_cross_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Boost's headers are the same for every processor, but the rest of the host's /usr/include is not: show the
# compiler Boost alone.
set(ZEL_CROSS_BOOST /usr/include/boost CACHE PATH "Where Boost's headers are")
if(NOT EXISTS ${CMAKE_BINARY_DIR}/cross-include/boost AND EXISTS ${ZEL_CROSS_BOOST})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cross-include)
    file(CREATE_LINK ${ZEL_CROSS_BOOST} ${CMAKE_BINARY_DIR}/cross-include/boost SYMBOLIC)
endif()
set(Boost_NO_BOOST_CMAKE ON)
set(Boost_INCLUDE_DIR ${CMAKE_BINARY_DIR}/cross-include)

find_program(ZEL_CROSS_EMULATOR NAMES ${zel_cross_qemu} ${zel_cross_qemu}-static)
mark_as_advanced(ZEL_CROSS_EMULATOR)
if(ZEL_CROSS_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEL_CROSS_EMULATOR};-L;/usr/${zel_cross_triplet})
endif()
