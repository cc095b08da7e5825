# Debian packages, made by `cpack` from a release build tree:
#
#   vesper          the player and its manual page            (install component player)
#   vesper-parent   the stand-in parent and its manual page   (install component parent)
#   libvesper-dev   what one needs to embed the receiver      (install component development)
#
# The stand-in parent reads films and captures, with libraries that the player has no use for.
#
# Packages install under /usr whatever the tree's own prefix is.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vesper)
set(CPACK_PACKAGE_CONTACT "Vesper authors <vesper@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL player parent development)
if(NOT TARGET vesper-parent)
    list(REMOVE_ITEM CPACK_COMPONENTS_ALL parent)
endif()

# One package for each component.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
if(CMAKE_CROSSCOMPILING)
    # CPack would ask dpkg, which knows what this machine is, and not what the programs are for.
    execute_process(
        COMMAND dpkg-architecture --host-type ${CMAKE_LIBRARY_ARCHITECTURE} --query DEB_HOST_ARCH
        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Adds what Debian asks of every package, strips the binaries and compresses the manual pages.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/FinishStaging.cmake)
set(CPACK_VESPER_STRIP ${CMAKE_STRIP})
set(CPACK_VESPER_DEBIAN_DIR ${PROJECT_SOURCE_DIR}/cmake/debian)

set(CPACK_DEBIAN_PLAYER_PACKAGE_NAME vesper)
set(CPACK_DEBIAN_PLAYER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PLAYER_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_PLAYER_DESCRIPTION "window for one live stream
vesper-player shows one live stream in a window of its own. A parent
application starts it, sends it VP8 video and Opus sound as datagrams on the
loopback address, and hears from it when a keyframe is needed or the volume
was changed.")

set(CPACK_DEBIAN_PARENT_PACKAGE_NAME vesper-parent)
set(CPACK_DEBIAN_PARENT_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PARENT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PARENT_PACKAGE_DEPENDS "vesper (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PARENT_DESCRIPTION "stand-in parent application for vesper-player
vesper-parent stands in for the application that starts vesper-player, to try
the player and to develop with it: it sends test pictures and sound, a film,
the screen or a stored capture, over a good network or a bad one, and shows
what the player reports.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvesper-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The libraries are static, so a program that embeds them links everything that they use; the
# CMake package asks pkg-config where that is.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libavcodec-dev, libavutil-dev, libopus-dev, libsdl2-dev, libswscale-dev, pkgconf")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "live streams in windows of your application (development files)
Static libraries and headers of the receiver that vesper-player is made of:
reassembly of VP8 frames out of datagrams, decoding, presentation in an SDL
window, and Opus sound with loss concealment. They let an application show
several live streams inside its own process.
.
The package holds a CMake package, pkg-config files, the embedder's manual
and examples.")

include(CPack)
