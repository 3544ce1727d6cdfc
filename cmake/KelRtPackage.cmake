# `cpack -G DEB`: one Debian package of all that is installed. Library, headers and tool are not packages of their own,
# since nobody wants one without the others: this library is bound to the simulated accelerator and serves a desk. A
# device takes its own from its image.

# What a package depends on is read from the packages of this machine.
if(NOT TARGET kelrt OR CMAKE_CROSSCOMPILING)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelrt)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "The libkelRt developers <libkelrt@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/debian/stage.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/debian/repack.cmake")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Library and headers, bound to a simulated accelerator, with the
kelrt command line that runs, checks, replays and measures operator
contexts, and the recorder that captures them in a driver's process.")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# What the programs need of the C and C++ libraries, read from them by dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pkg-config | cmake, gcc | c-compiler")
# Who links the library needs a package of the same interface; the loader is told of it by a trigger.
configure_file(cmake/debian/shlibs.in "${CMAKE_BINARY_DIR}/debian/shlibs" @ONLY)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${CMAKE_BINARY_DIR}/debian/shlibs" "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")

include(CPack)
