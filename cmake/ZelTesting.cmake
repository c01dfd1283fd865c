# What the tests, the examples and the benchmarks share: the environment and the time limits of a test.

set(zel_default_scale 1)
if(ZEL_SANITIZE OR CMAKE_CROSSCOMPILING_EMULATOR)
    set(zel_default_scale 4)
endif()
if(DEFINED ENV{ZEL_TEST_SCALE})
    set(zel_default_scale $ENV{ZEL_TEST_SCALE})
endif()
set(ZEL_TEST_SCALE ${zel_default_scale} CACHE STRING "Whole number that time limits in tests are multiplied by")

# The tests find the scale in their environment, too.
set(zel_test_environment ZEL_TEST_SCALE=${ZEL_TEST_SCALE})
if(CMAKE_CROSSCOMPILING_EMULATOR)
    # For tests that start programs, which the emulator does not follow.
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " zel_emulator)
    list(APPEND zel_test_environment "ZEL_TEST_EMULATOR=${zel_emulator}")
endif()
if(ZEL_SANITIZE MATCHES "address")
    list(APPEND zel_test_environment
        ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_init_order=1:check_initialization_order=1)
endif()
if(ZEL_SANITIZE MATCHES "undefined")
    list(APPEND zel_test_environment UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1)
endif()
if(ZEL_SANITIZE MATCHES "thread")
    list(APPEND zel_test_environment TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1)
endif()

# Multiplies a time limit in seconds by the scale.
function(zel_scaled_timeout result seconds)
    math(EXPR scaled "${seconds} * ${ZEL_TEST_SCALE}")
    set(${result} ${scaled} PARENT_SCOPE)
endfunction()

# zel_test_properties(<test>... [TIMEOUT s] [LABELS l...])
# For tests that are made with add_test().
function(zel_test_properties)
    cmake_parse_arguments(arg "" "TIMEOUT" "LABELS" ${ARGN})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 60)
    endif()
    zel_scaled_timeout(timeout ${arg_TIMEOUT})
    set_tests_properties(${arg_UNPARSED_ARGUMENTS} PROPERTIES
        TIMEOUT ${timeout} LABELS "${arg_LABELS}" ENVIRONMENT "${zel_test_environment}")
endfunction()
