zel_add_test(task_test SOURCES task_test.cpp LIBRARIES zel)
