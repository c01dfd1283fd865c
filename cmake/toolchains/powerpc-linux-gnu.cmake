# 32-bit big-endian PowerPC. Needs Debian's g++-powerpc-linux-gnu; qemu-user to run the tests.
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(zel_cross_triplet powerpc-linux-gnu)
set(zel_cross_qemu qemu-ppc)
include(${CMAKE_CURRENT_LIST_DIR}/ZelCross.cmake)
