# Tests of the thread object; included by tests/CMakeLists.txt.

zel_add_test(Thread_test SOURCES Thread_test.cpp LIBRARIES zel_test_loop)
