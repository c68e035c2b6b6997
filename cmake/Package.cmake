# `cpack -G DEB`: the installed tree as the Debian package libctessel-dev.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libctessel-dev)
set(CPACK_PACKAGE_VENDOR "cTessel")
set(CPACK_PACKAGE_CONTACT "the cTessel maintainers <maintainers@ctessel.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "reconstruction kernels for magnetic-resonance imaging")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Plain C++ functions over float arrays: circular shifts, zero padding, filters,
coil combination and interpolation. Any number of threads gives the same bits.
.
This package has the header, both libraries, and what CMake and pkg-config need
to find them.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libeigen3-dev (>= 3.4)")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Licence and changelogs, which every Debian package has in a folder of its own.
set(package_doc ${PROJECT_BINARY_DIR}/package/doc)
set(package_templates ${CMAKE_CURRENT_LIST_DIR}/package)
string(TIMESTAMP package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE licence)
string(REGEX REPLACE "^.*All rights reserved.\n\n" "" licence "${licence}")
string(REGEX REPLACE "\n\n" "\n.\n" licence "${licence}")
string(REGEX REPLACE "\n([^\n])" "\n \\1" licence " ${licence}")
configure_file(${package_templates}/copyright.in ${package_doc}/copyright @ONLY)
configure_file(${package_templates}/changelog.Debian.in ${package_doc}/changelog.Debian @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${package_doc}/changelog COPYONLY)
execute_process(COMMAND gzip -9nf ${package_doc}/changelog ${package_doc}/changelog.Debian
                COMMAND_ERROR_IS_FATAL ANY)
# The dynamic linker's cache follows by trigger: CPack's own scripts would call it directly.
set(abi ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(control ${PROJECT_BINARY_DIR}/package/control)
file(WRITE ${control}/shlibs "libcTessel ${abi} libctessel-dev (>= ${abi})\n")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)
set(CPACK_INSTALLED_DIRECTORIES ${package_doc} usr/share/doc/libctessel-dev)

include(CPack)
