# Run by CPack when the components are staged and before they are packed: adds what Debian asks of
# every package and what `cmake --install` does not lay out.

# Takes out of a binary what only a debugger would read.
function(strip_sections file)
    execute_process(
        COMMAND ${CPACK_VESPER_STRIP} ${ARGN} --remove-section=.comment --remove-section=.note ${file}
        COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Without name and time in its header, so that the same input gives the same package.
function(compress file)
    execute_process(COMMAND gzip --best --no-name ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(finish_component component package)
    set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
    set(doc ${root}/share/doc/${package})
    file(COPY ${CPACK_VESPER_DEBIAN_DIR}/copyright DESTINATION ${doc}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    configure_file(${CPACK_VESPER_DEBIAN_DIR}/changelog.in ${doc}/changelog @ONLY)
    compress(${doc}/changelog)

    file(GLOB pages ${root}/share/man/*/*.1)
    foreach(page IN LISTS pages)
        compress(${page})
    endforeach()

    file(GLOB programs ${root}/bin/*)
    foreach(program IN LISTS programs)
        strip_sections(${program})
    endforeach()
    file(GLOB_RECURSE archives ${root}/lib/*.a)
    foreach(archive IN LISTS archives)
        strip_sections(${archive} --strip-debug --enable-deterministic-archives)
    endforeach()
endfunction()

finish_component(player ${CPACK_DEBIAN_PLAYER_PACKAGE_NAME})
if(EXISTS ${CPACK_TEMPORARY_DIRECTORY}/parent)
    finish_component(parent ${CPACK_DEBIAN_PARENT_PACKAGE_NAME})
endif()
finish_component(development ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME})
