# Warning and sanitizer settings shared by every target of the project.

option(VIREO_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" ON)
set(VIREO_SANITIZE "" CACHE STRING "Sanitizers to build with: '', 'address;undefined' or 'thread'")
option(VIREO_FUZZ "Build the fuzz targets (Clang only); the libraries get coverage for libFuzzer" OFF)

add_library(VireoCompileOptions INTERFACE)
target_compile_options(VireoCompileOptions INTERFACE
    $<$<COMPILE_LANG_AND_ID:CXX,GNU,Clang>:-Wall -Wextra -Wpedantic>
    $<$<AND:$<BOOL:${VIREO_WARNINGS_AS_ERRORS}>,$<COMPILE_LANG_AND_ID:CXX,GNU,Clang>>:-Werror>)

if(VIREO_SANITIZE)
    list(JOIN VIREO_SANITIZE "," _vireo_sanitizers)
    target_compile_options(VireoCompileOptions INTERFACE
        -fsanitize=${_vireo_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(VireoCompileOptions INTERFACE -fsanitize=${_vireo_sanitizers})
endif()

if(VIREO_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "VIREO_FUZZ needs Clang")
    endif()
    target_compile_options(VireoCompileOptions INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Applies the project's options and the generated-header directory to a target.
function(vireo_target_defaults target)
    target_link_libraries(${target} PRIVATE VireoCompileOptions)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Source>
        $<BUILD_INTERFACE:${VIREO_GENERATED_DIR}>)
endfunction()
