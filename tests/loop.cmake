# Tests of the core, the loop and its sources of events; included by tests/CMakeLists.txt.

foreach(stem core receptacle threadGroup threadMonitor turn cancel fd signal)
    zel_add_test(${stem}_test SOURCES ${stem}_test.cpp support/Support.cpp LIBRARIES zel_static)
endforeach()

# The clock of these stands still: the fake comes before the real timer in the library.
zel_add_test(alarm_test
    SOURCES alarm_test.cpp support/Support.cpp support/FakeTimer.cpp LIBRARIES zel_static)
zel_test_faults(threadGroup_test fd_test alarm_test)
zel_add_test(alarm_clock_test SOURCES alarm_clock_test.cpp support/Support.cpp LIBRARIES zel_static)

# The ends of a process that uses the shared library, and the coming and going of the library in a host that
# does not link it.
add_executable(exit_program programs/exit_program.cpp)
add_library(user_module MODULE programs/user_module.cpp)
add_library(quiet_module MODULE modules/quiet_module.cpp)
foreach(program exit_program user_module quiet_module)
    zel_private_flags(${program})
    target_link_libraries(${program} PRIVATE zel)
endforeach()
zel_add_test(exit_test SOURCES exit_test.cpp LIBRARIES ${CMAKE_DL_LIBS} TIMEOUT 120)
target_compile_definitions(exit_test PRIVATE EXIT_PROGRAM="$<TARGET_FILE:exit_program>"
    ZEL_LIBRARY="$<TARGET_FILE:zel>" USER_MODULE="$<TARGET_FILE:user_module>")
target_compile_definitions(exit_program PRIVATE QUIET_MODULE="$<TARGET_FILE:quiet_module>")
add_dependencies(exit_test exit_program user_module quiet_module zel)
