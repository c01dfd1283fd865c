# Tests of the word "inspect"; included by tests/CMakeLists.txt.

find_package(nlohmann_json QUIET)
if(TARGET nlohmann_json::nlohmann_json)
    zel_add_test(inspect_test SOURCES inspect_test.cpp support/Support.cpp
        LIBRARIES zel_static nlohmann_json::nlohmann_json)
else()
    message(STATUS "nlohmann-json is missing: no tests of the word inspect")
endif()
