# Private flags of zel's own targets. Nothing here reaches a consumer and nothing here is global.

function(zel_private_flags target)
    target_compile_features(${target} PRIVATE cxx_std_17)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        C_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
    if(ZEL_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    # Files of more than 2 GiB, and inode numbers of large file systems, on 32-bit processors, too. Nothing of what the
    # headers declare depends on it.
    target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64)
    # A unique symbol pins a shared object for good: dlclose() would never unload it.
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
    # Nobody interposes zel's functions; calls among them need not go through the procedure linkage table.
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    # Clang's lock analysis; the annotations are empty elsewhere.
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
    if(ZEL_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer)
        if(ZEL_SANITIZE MATCHES "undefined")
            target_compile_options(${target} PRIVATE -fno-sanitize-recover=undefined)
        endif()
        target_link_options(${target} PRIVATE -fsanitize=${ZEL_SANITIZE})
    endif()
endfunction()
