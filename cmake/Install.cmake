# What `cmake --install` installs, and vesper_install_library, which makes one room part of it.
#
#   bin/                         the programs
#   share/man/man1/              their manual pages
#   include/vesper/ROOM/x.h      the public headers, under the names they have in this tree
#   lib/libvesper-ROOM.a         the rooms an application links
#   lib/cmake/vesper/            find_package(vesper): vesper::net, vesper::audio, vesper::client
#   lib/pkgconfig/               vesper-net, vesper-audio, vesper-client
#   share/doc/vesper/            for embedders: the manual, the wire, the examples
#
# The include path that users get is include/vesper, so that #include "client/video_receiver.h"
# means the same inside and outside of this tree, and so that directories of such common names as
# net/ and client/ stay out of the system's own include directory.
#
# Three install components: `player` for viewers, `parent` for authors of parent applications,
# `development` for embedders. With VESPER_INSTALL off there are none.

# Debian's directory for its architecture, whatever the prefix: compiler, CMake and pkg-config look
# there under /usr and under /usr/local, and one build tree serves both.
if(VESPER_INSTALL AND EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH
        "Where libraries go, under the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VESPER_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vesper)
set(VESPER_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vesper)
set(VESPER_INSTALL_PCDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# vesper_install_library(NAME DESCRIPTION text HEADERS header... [REQUIRES pkg-config-module...])
#
# Installs and exports vesper::NAME with its public headers and its pkg-config file. REQUIRES names
# everything else that a program linking the room needs: the rooms are static libraries.
function(vesper_install_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION" "HEADERS;REQUIRES")
    target_compile_features(vesper_${name} PUBLIC cxx_std_20)
    set_target_properties(vesper_${name} PROPERTIES OUTPUT_NAME vesper-${name})
    target_sources(vesper_${name} PUBLIC
        FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${arg_HEADERS})
    if(NOT VESPER_INSTALL)
        return()
    endif()
    install(TARGETS vesper_${name} EXPORT vesper
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        FILE_SET HEADERS DESTINATION ${VESPER_INSTALL_INCLUDEDIR} COMPONENT development)

    set(pc_name vesper-${name})
    set(pc_description "${arg_DESCRIPTION}")
    list(JOIN arg_REQUIRES ", " pc_requires)
    # From the file's own place, so that an installed tree can be moved.
    file(RELATIVE_PATH pc_prefix /${VESPER_INSTALL_PCDIR} /)
    string(REGEX REPLACE "/$" "" pc_prefix ${pc_prefix})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/vesper.pc.in
                   ${PROJECT_BINARY_DIR}/install/${pc_name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/install/${pc_name}.pc
        DESTINATION ${VESPER_INSTALL_PCDIR} COMPONENT development)
endfunction()

# vesper_install_program(NAME COMPONENT): installs the program NAME and its manual page, man/NAME.1.in.
function(vesper_install_program name component)
    if(NOT VESPER_INSTALL)
        return()
    endif()
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
    configure_file(${PROJECT_SOURCE_DIR}/man/${name}.1.in
                   ${PROJECT_BINARY_DIR}/install/${name}.1 @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/install/${name}.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()

# Installs what describes the whole: the CMake package and the documents. Once, after the rooms.
function(vesper_install_package)
    install(EXPORT vesper FILE vesper-targets.cmake NAMESPACE vesper::
        DESTINATION ${VESPER_INSTALL_CMAKEDIR} COMPONENT development)
    configure_package_config_file(
        ${PROJECT_SOURCE_DIR}/cmake/vesper-config.cmake.in
        ${PROJECT_BINARY_DIR}/install/vesper-config.cmake
        INSTALL_DESTINATION ${VESPER_INSTALL_CMAKEDIR}
        NO_CHECK_REQUIRED_COMPONENTS_MACRO NO_SET_AND_CHECK_MACRO)
    # Before 1.0 a new minor version may change the interface.
    write_basic_package_version_file(
        ${PROJECT_BINARY_DIR}/install/vesper-config-version.cmake COMPATIBILITY SameMinorVersion)
    install(FILES
        ${PROJECT_BINARY_DIR}/install/vesper-config.cmake
        ${PROJECT_BINARY_DIR}/install/vesper-config-version.cmake
        DESTINATION ${VESPER_INSTALL_CMAKEDIR} COMPONENT development)
    # Placed as in this tree, so that their links lead there, too.
    install(FILES ${PROJECT_SOURCE_DIR}/docs/embedding.md ${PROJECT_SOURCE_DIR}/docs/protocol.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT development)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
endfunction()
