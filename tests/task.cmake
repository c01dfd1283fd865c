# Tests of the tasks; included by tests/CMakeLists.txt.

foreach(stem idTable task taskCore taskWords)
    zel_add_test(${stem}_test SOURCES ${stem}_test.cpp LIBRARIES zel_test_loop)
endforeach()
zel_test_faults(task_test taskWords_test)
