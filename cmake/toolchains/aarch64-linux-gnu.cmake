# 64-bit little-endian ARM. Needs Debian's g++-aarch64-linux-gnu; qemu-user to run the tests.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(zel_cross_triplet aarch64-linux-gnu)
set(zel_cross_qemu qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/ZelCross.cmake)
