# Tests of the platform layer; included by tests/CMakeLists.txt, which defines zel_add_test().

if(NOT TARGET zel_os)
    return() # a vendor's own platform libraries
endif()

zel_add_test(platform_os_test SOURCES platform_os_test.cpp LIBRARIES zel_os zel_std zel_log)
zel_add_test(platform_msg_test SOURCES platform_msg_test.cpp LIBRARIES zel_os)
target_link_options(platform_msg_test PRIVATE LINKER:--wrap=recvmsg,--wrap=__recvmsg64)
zel_add_test(platform_timer_clock_test SOURCES platform_timer_clock_test.cpp LIBRARIES zel_os)
target_link_options(platform_timer_clock_test PRIVATE -Wl,--wrap=pthread_create) # to make it slow, or fail
# The contract of timers, on the real clock and on the one that tests turn by hand.
zel_add_test(platform_timer_test SOURCES platform_timer_test.cpp LIBRARIES zel_os)
zel_add_test(platform_faketimer_test
    SOURCES platform_timer_test.cpp support/FakeTimer.cpp LIBRARIES zel_platform_headers)
target_compile_definitions(platform_faketimer_test PRIVATE FAKE_TIMER)
zel_add_test(platform_log_test SOURCES platform_log_test.cpp LIBRARIES zel_std zel_log)

# A library that registers thread hooks with the program.
add_library(platform_module_hooks MODULE support/platform_module_hooks.cpp)
zel_private_flags(platform_module_hooks)
target_link_libraries(platform_module_hooks PRIVATE zel_platform_headers)
target_compile_definitions(platform_os_test PRIVATE MODULE_HOOKS="$<TARGET_FILE:platform_module_hooks>")
add_dependencies(platform_os_test platform_module_hooks)
set_target_properties(platform_os_test PROPERTIES ENABLE_EXPORTS ON) # where the module registers its hooks
