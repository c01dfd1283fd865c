# Tests of the core, the loop and its sources of events; included by tests/CMakeLists.txt.

foreach(stem core receptacle threadGroup threadMonitor turn cancel fd signal members)
    zel_add_test(${stem}_test SOURCES ${stem}_test.cpp support/Support.cpp LIBRARIES zel_static)
endforeach()
zel_add_test(idTable_test SOURCES idTable_test.cpp)

# The clock of these stands still: the fake comes before the real timer in the library.
zel_add_test(alarm_test
    SOURCES alarm_test.cpp support/Support.cpp support/FakeTimer.cpp LIBRARIES zel_static)
zel_test_faults(threadGroup_test fd_test alarm_test)
