# Tests of the command channel, of the tool for it, and of how the library begins and ends, with real
# processes; included by tests/CMakeLists.txt.

function(zel_add_test_program name)
    add_executable(${name} programs/${name}.cpp)
    zel_private_flags(${name})
    target_link_libraries(${name} PRIVATE ${ARGN})
endfunction()

function(zel_add_test_module name source)
    add_library(${name} MODULE modules/${source}.cpp)
    zel_private_flags(${name})
    target_link_libraries(${name} PRIVATE ${ARGN})
endfunction()

# Builds what a test starts or loads, and gives its source the path of each as a macro: NAME=target.
function(zel_test_starts test)
    foreach(pair IN LISTS ARGN)
        string(REPLACE "=" ";" pair ${pair})
        list(GET pair 0 name)
        list(GET pair 1 target)
        target_compile_definitions(${test} PRIVATE ${name}="$<TARGET_FILE:${target}>")
        add_dependencies(${test} ${target})
    endforeach()
endfunction()

zel_add_test_program(channel_target zel)
zel_add_test_program(channel_client zel)
zel_add_test_program(exit_program zel)
zel_add_test_program(load_host ${CMAKE_DL_LIBS})
zel_add_test_module(user_module user_module zel)
zel_add_test_module(quiet_module quiet_module zel)
foreach(name first second)
    zel_add_test_module(${name}_module order_module)
    target_compile_definitions(${name}_module PRIVATE MODULE_NAME="${name}")
endforeach()

zel_add_test(cmd_test SOURCES cmd_test.cpp LIBRARIES zel)
zel_test_starts(cmd_test QUIET_MODULE=quiet_module)

zel_add_test(channel_test SOURCES channel_test.cpp support/Client.cpp LIBRARIES zel)
zel_test_starts(channel_test TARGET=channel_target CLIENT=channel_client)
zel_add_test(fork_test SOURCES fork_test.cpp support/Client.cpp LIBRARIES zel)

if(TARGET zelctl)
    zel_add_test_program(brood zel)
    zel_add_test_program(inspect_target zel)
    set(clients zelctl_test zelctl_attach_test zelctl_words_test zelctl_trace_test)
    if(ZEL_EDIT_INCLUDE_DIR AND ZEL_EDIT_LIBRARY) # else the client has no prompt
        list(APPEND clients zelctl_prompt_test)
    endif()
    foreach(name IN LISTS clients)
        zel_add_test(${name} SOURCES ${name}.cpp LIBRARIES nlohmann_json::nlohmann_json)
        zel_test_starts(${name} TARGET=channel_target ZELCTL=zelctl BROOD=brood INSPECT_TARGET=inspect_target
            MODULE=hello CLIENT=channel_client)
        target_compile_definitions(${name} PRIVATE COMPLETION="${PROJECT_SOURCE_DIR}/tools/zelctl/zelctl.bash")
    endforeach()
endif()

zel_add_test(load_test SOURCES load_test.cpp LIBRARIES ${CMAKE_DL_LIBS} TIMEOUT 120)
zel_test_starts(load_test HOST=load_host EXIT_PROGRAM=exit_program CLIENT=channel_client
    ZEL_LIBRARY=zel USER_MODULE=user_module FIRST=first_module SECOND=second_module)
zel_test_starts(exit_program QUIET_MODULE=quiet_module)
