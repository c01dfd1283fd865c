# 32-bit big-endian MIPS. Needs Debian's g++-mips-linux-gnu; qemu-user to run the tests.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(zel_cross_triplet mips-linux-gnu)
set(zel_cross_qemu qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/ZelCross.cmake)
