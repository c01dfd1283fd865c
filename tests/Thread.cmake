# Tests of the thread object; included by tests/CMakeLists.txt.

zel_add_test(Thread_test SOURCES Thread_test.cpp support/Support.cpp LIBRARIES zel_static)
