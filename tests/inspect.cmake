# Tests of the word "inspect"; included by tests/CMakeLists.txt.

find_package(nlohmann_json QUIET)
if(TARGET nlohmann_json::nlohmann_json)
    foreach(name inspect_test inspectClient_test inspectLoop_test trace_test)
        zel_add_test(${name} SOURCES ${name}.cpp LIBRARIES zel_test_loop nlohmann_json::nlohmann_json)
    endforeach()
else()
    message(STATUS "nlohmann-json is missing: no tests of the word inspect")
endif()
