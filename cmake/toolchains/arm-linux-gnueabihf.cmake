# 32-bit little-endian ARM with hardware floating point. Needs Debian's g++-arm-linux-gnueabihf; qemu-user to
# run the tests.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(zel_cross_triplet arm-linux-gnueabihf)
set(zel_cross_qemu qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/ZelCross.cmake)
