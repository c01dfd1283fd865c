zel_add_test(thread_object_test SOURCES thread_object_test.cpp LIBRARIES zel)
