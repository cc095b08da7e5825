# How every target of this tree is compiled, and vesper_add_library, which makes one room.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Where ccache is installed, what did not change is not compiled again. It takes precompiled headers for
# what they are only when it may trust them (its manual, "Precompiled headers").
find_program(VESPER_CCACHE ccache)
mark_as_advanced(VESPER_CCACHE)
if(VESPER_CCACHE AND (NOT CMAKE_CXX_COMPILER_LAUNCHER OR CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache$"))
    set(CMAKE_CXX_COMPILER_LAUNCHER
        env CCACHE_SLOPPINESS=pch_defines,time_macros ${VESPER_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# The presets that developers test with ask for it. Elsewhere a compiler newer than ours must not end
# the build.
option(VESPER_WARNINGS_AS_ERRORS "Let every warning fail the build" OFF)
if(VESPER_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 sees an overlap in std::string's operator+ that is not there (GCC bug 105651).
    add_compile_options(-Wno-restrict)
endif()

# Zoom and volume arithmetic is the same to the last bit with every compiler: no product may be
# fused with a sum behind our back. Where a fused operation is meant, the code says std::fma.
add_compile_options(-ffp-contract=off)

# The network decides what the player parses, so every optimised build carries every cheap mitigation
# (_FORTIFY_SOURCE needs the optimiser).
include(CheckPIESupported)
check_pie_supported()
add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
set(vesper_optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
foreach(option IN ITEMS -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
    add_compile_options($<${vesper_optimised}:${option}>)
endforeach()
add_link_options($<${vesper_optimised}:-Wl,-z,relro,-z,now>)

# Sanitizers, comma-separated, for the whole tree.
set(VESPER_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
if(VESPER_SANITIZE)
    add_compile_options(-fsanitize=${VESPER_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${VESPER_SANITIZE})
endif()

# vesper_add_library(NAME source... ) makes the room's static library vesper_NAME, known as
# vesper::NAME, with includes rooted at the top of the tree.
function(vesper_add_library name)
    add_library(vesper_${name} STATIC ${ARGN})
    add_library(vesper::${name} ALIAS vesper_${name})
    set_target_properties(vesper_${name} PROPERTIES EXPORT_NAME ${name})
    target_include_directories(vesper_${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
endfunction()
