# Tests of the thread object, and of the names that it must not take from a program; included by tests/CMakeLists.txt.

zel_add_test(Thread_test SOURCES Thread_test.cpp support/Support.cpp LIBRARIES zel_static)

add_executable(names_program programs/names_program.cpp programs/names_program.c)
zel_private_flags(names_program)
set_target_properties(names_program PROPERTIES C_VISIBILITY_PRESET default) # like any application's
target_link_libraries(names_program PRIVATE zel)
add_test(NAME names.an_application_does_not_take_the_place_of_the_librarys_functions COMMAND names_program)
zel_test_properties(names.an_application_does_not_take_the_place_of_the_librarys_functions TIMEOUT 10)
