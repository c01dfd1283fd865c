# Tests of the platform layer; included by tests/CMakeLists.txt, which defines zel_add_test().

if(NOT TARGET zel_os)
    return() # a vendor's own platform libraries
endif()

function(zel_add_platform_module name)
    add_library(${name} MODULE ${ARGN})
    zel_private_flags(${name})
    target_link_libraries(${name} PRIVATE zel_platform_headers)
endfunction()

zel_add_test(platform_os_test SOURCES platform_os_test.cpp LIBRARIES zel_os zel_std zel_log)
zel_add_test(platform_msg_test SOURCES platform_msg_test.cpp LIBRARIES zel_os)
zel_add_test(platform_timer_test SOURCES platform_timer_test.cpp LIBRARIES zel_os)
target_link_options(platform_timer_test PRIVATE -Wl,--wrap=pthread_create) # to make it slow, or fail
zel_add_test(platform_log_test SOURCES platform_log_test.cpp LIBRARIES zel_std zel_log)
# A library that registers thread hooks with the program.
zel_add_platform_module(platform_module_hooks ${CMAKE_CURRENT_LIST_DIR}/support/platform_module_hooks.cpp)
# A library with a platform layer of its own, to be loaded and unloaded whole.
zel_add_platform_module(platform_module_whole ${CMAKE_CURRENT_LIST_DIR}/support/platform_module_whole.cpp)
target_link_libraries(platform_module_whole PRIVATE zel_os zel_log)

target_compile_definitions(platform_log_test PRIVATE MODULE_WHOLE="$<TARGET_FILE:platform_module_whole>")
target_compile_definitions(platform_os_test PRIVATE MODULE_HOOKS="$<TARGET_FILE:platform_module_hooks>")
add_dependencies(platform_log_test platform_module_whole)
add_dependencies(platform_os_test platform_module_hooks)
# The linkers of some processors export what a program uses of itself, so that a module may find the program's
# variable in place of its own. Here that is so on all of them.
target_link_options(platform_log_test PRIVATE LINKER:--export-dynamic-symbol=orn_log_enabled)
set_target_properties(platform_os_test PROPERTIES ENABLE_EXPORTS ON) # the module registers its hooks there
