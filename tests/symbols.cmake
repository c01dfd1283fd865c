# What the shared library exports, and what passes its edge; included by tests/CMakeLists.txt.

foreach(kind pie fixed)
    zel_add_test(edge_${kind}_test SOURCES edge_test.cpp support/names.c LIBRARIES zel)
    set_target_properties(edge_${kind}_test PROPERTIES C_VISIBILITY_PRESET default) # like any application's
endforeach()
# At a fixed address: the program has copies of the library's data, and entries of its own for its functions.
set_target_properties(edge_fixed_test PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_compile_options(edge_fixed_test PRIVATE -fno-pie)
target_link_options(edge_fixed_test PRIVATE -no-pie)

find_package(Python3 QUIET COMPONENTS Interpreter)
if(Python3_FOUND)
    if(ZEL_PLATFORM STREQUAL "linux")
        set(command ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/script/symbols --check $<TARGET_FILE:zel>)
    else()
        set(command ${CMAKE_COMMAND} -E echo "skipped: the list has the names of the Linux platform layer, too")
    endif()
    add_test(NAME symbols COMMAND ${command})
    zel_test_properties(symbols)
    set_property(TEST symbols APPEND PROPERTY ENVIRONMENT NM=${CMAKE_NM})
    set_tests_properties(symbols PROPERTIES SKIP_REGULAR_EXPRESSION "^skipped: ")
endif()
