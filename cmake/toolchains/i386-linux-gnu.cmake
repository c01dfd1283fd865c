# 32-bit x86. Needs Debian's g++-i686-linux-gnu; a 64-bit processor of the kind runs the tests without an emulator,
# with libc6-i386 and lib32stdc++6.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(zel_cross_triplet i686-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/ZelCross.cmake)
