# Run by CPack when the components lie in their directories, before the packages are made of them: adds what Debian
# wants in every package. Times and compressed files depend on the sources alone, so that a package can be built twice.

set(source ${CPACK_PROCWARDEN_SOURCE_DIR})
set(revision "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
# Honours SOURCE_DATE_EPOCH.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)

# Whoever distributes the packages states the terms by a file at the root of the tree.
file(READ ${source}/packaging/copyright copyright)
foreach(name COPYING LICENSE LICENSE.md LICENSE.txt)
    if(EXISTS ${source}/${name})
        file(READ ${source}/${name} terms)
        string(APPEND copyright "\n${terms}")
        set(has_terms ON)
    endif()
endforeach()
if(NOT has_terms)
    string(APPEND copyright "\nLicense: the source tree states none.\n")
endif()

function(compress file)
    execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} upper)
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    set(directory ${CPACK_TEMPORARY_DIRECTORY}/${component})
    if(NOT IS_DIRECTORY ${directory}/usr)
        message(FATAL_ERROR "there is nothing below /usr in ${directory}: packages take the prefix /usr")
    endif()

    set(documents ${directory}/usr/share/doc/${package})
    file(WRITE ${documents}/copyright "${copyright}")
    configure_file(${source}/CHANGELOG.md ${documents}/changelog COPYONLY)
    compress(${documents}/changelog)
    file(WRITE ${documents}/changelog.Debian
        "${package} (${revision}) unstable; urgency=medium\n\n"
        "  * Package of version ${CPACK_PACKAGE_VERSION}; changelog.gz tells what it brings.\n\n"
        " -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}\n")
    compress(${documents}/changelog.Debian)

    file(GLOB pages ${directory}/usr/share/man/man*/*.[1-9])
    foreach(page ${pages})
        compress(${page})
    endforeach()
    file(GLOB_RECURSE files LIST_DIRECTORIES OFF ${documents}/* ${directory}/usr/share/man/*)
    file(CHMOD ${files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
