# Shows that every public header compiles alone, twice in one unit, and with only public headers in reach, and
# the C headers as C, too. Only the compiler is asked, so one kind of build is enough.

if(NOT ZEL_SANITIZE)
    set(header_units "")
    foreach(dir include platform/include platform/os/include platform/std/include platform/log/include)
        file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/${dir}
            ${PROJECT_SOURCE_DIR}/${dir}/*.hpp ${PROJECT_SOURCE_DIR}/${dir}/*.h)
        foreach(header IN LISTS headers)
            set(languages cpp)
            if(header MATCHES "\\.h$")
                list(APPEND languages c)
            endif()
            foreach(language IN LISTS languages)
                set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers/${header}.${language})
                # The last line is there for C, where a unit must declare something.
                file(CONFIGURE OUTPUT ${unit}
                    CONTENT "#include <${header}>\n#include <${header}>\ntypedef int declares_something;\n")
                list(APPEND header_units ${unit})
            endforeach()
        endforeach()
    endforeach()

    if(header_units)
        add_library(headers_alone OBJECT ${header_units})
        zel_private_flags(headers_alone)
        target_include_directories(headers_alone PRIVATE ${PROJECT_SOURCE_DIR}/include)
        target_link_libraries(headers_alone PRIVATE zel_platform_headers)
        target_compile_options(headers_alone PRIVATE -O0 -g0)
    endif()
endif()
