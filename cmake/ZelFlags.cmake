# Private flags of zel's own targets. Nothing here reaches a consumer and nothing here is global.
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

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
    # Files of more than 2 GiB, inode numbers of large file systems, and times after 2038 on 32-bit processors, too: the C
    # library refuses to describe a file that was changed later, and every pipe is one then. Nothing of what the headers
    # declare depends on it.
    target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
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

# Whether the shared library is linked from the compiler's intermediate form. GCC's objects have that beside their code,
# so that the static library is linked as ever.
set(ZEL_LINK_TIME_FLAGS -flto=auto -ffat-lto-objects)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(CMAKE_REQUIRED_FLAGS "-flto=auto -ffat-lto-objects")
    check_cxx_source_compiles("int main() { return 0; }" ZEL_LINK_TIME)
    unset(CMAKE_REQUIRED_FLAGS)
endif()

# zel_small(<target> [HOT <file>...]): the library's own code is optimised for size, but for the files of the target
# that decide what a turn, an alarm or a slice costs; what is seldom called in those has the attribute gnu::cold. A level
# in CMAKE_CXX_FLAGS is kept, and MinSizeRel makes all of it small.
function(zel_small target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HOT")
    if(ZEL_SANITIZE)
        return()
    endif()
    # The linker leaves out the sections that nobody needs.
    target_compile_options(${target} PRIVATE
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-ffunction-sections;-fdata-sections>)
    if(ZEL_LINK_TIME)
        target_compile_options(${target} PRIVATE
            $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${ZEL_LINK_TIME_FLAGS}>)
    endif()
    if(NOT CMAKE_CXX_FLAGS MATCHES "-O[0-9a-z]")
        set(release "$<CONFIG:Release,RelWithDebInfo>")
        # Functions of a template that differ in what a pointer points to are one where types do not matter.
        target_compile_options(${target} PRIVATE "$<${release}:-Os;-fno-strict-aliasing>")
        set(hot -O2 -fstrict-aliasing)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # Alignment takes 4 KiB, a second part of a function with an unwinding entry of its own 8 KiB, and vectors
            # one. A function that frees a tree and calls itself takes 400 bytes less for each kind of tree when it is
            # not unrolled. None of them makes a difference that can be measured.
            list(APPEND hot -fno-align-functions -fno-align-jumps -fno-align-loops -fno-align-labels
                -fno-reorder-blocks-and-partition -fno-tree-vectorize --param=max-inline-recursive-depth-auto=0)
        endif()
        set_property(SOURCE ${arg_HOT} APPEND PROPERTY COMPILE_OPTIONS $<${release}:${hot}>)
    endif()
endfunction()

# zel_small_link(<target>): the same for the shared library that is linked from such targets.
function(zel_small_link target)
    if(ZEL_SANITIZE)
        return()
    endif()
    target_link_options(${target} PRIVATE LINKER:--gc-sections)
    if(ZEL_LINK_TIME)
        target_link_options(${target} PRIVATE
            $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${ZEL_LINK_TIME_FLAGS}>)
    endif()
    # Code and constants share pages, in the file and in memory.
    check_linker_flag(CXX LINKER:--fatal-warnings,-z,noseparate-code ZEL_SHARED_PAGES)
    if(ZEL_SHARED_PAGES)
        target_link_options(${target} PRIVATE LINKER:-z,noseparate-code)
    endif()
    # Most relocations are relative, and take two bytes instead of 24 in this form.
    set(CMAKE_REQUIRED_LINK_OPTIONS LINKER:--fatal-warnings,-z,pack-relative-relocs)
    check_cxx_source_compiles([[
        #include <cstdlib>
        #if !__GLIBC_PREREQ(2, 36)
        #error "the loader of an older C library refuses such a library"
        #endif
        int main() { return 0; }
    ]] ZEL_PACKED_RELOCATIONS)
    if(ZEL_PACKED_RELOCATIONS)
        target_link_options(${target} PRIVATE LINKER:-z,pack-relative-relocs)
    endif()
endfunction()
