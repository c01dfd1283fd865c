# Tests of the core, the loop and its sources of events; included by tests/CMakeLists.txt.

foreach(stem core readiness receptacle threadGroup threadMonitor turn cancel fd signal members)
    zel_add_test(${stem}_test SOURCES ${stem}_test.cpp LIBRARIES zel_test_loop)
endforeach()

# The clock of these stands still: the fake comes before the real timer in the library.
zel_add_test(alarm_test SOURCES alarm_test.cpp support/FakeTimer.cpp LIBRARIES zel_test_loop)
zel_test_faults(threadGroup_test fd_test alarm_test)

# Threads come in between the locks that the library takes.
zel_add_test(perThread_test SOURCES perThread_test.cpp LIBRARIES zel_test_loop)
target_link_options(perThread_test PRIVATE LINKER:--wrap=o_pthread_mutex_lock,--wrap=o_pthread_mutex_unlock)

# Once more, the way that large groups go. The tasks' test comes with another file.
foreach(stem threadGroup threadMonitor turn fd members alarm task)
    add_test(NAME readiness.${stem} COMMAND ${stem}_test)
    zel_test_properties(readiness.${stem} TIMEOUT 120)
    set_property(TEST readiness.${stem} APPEND PROPERTY ENVIRONMENT ZEL_TEST_READINESS=1)
endforeach()
