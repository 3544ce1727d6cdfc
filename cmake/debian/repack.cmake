# After cpack has packed: it always adds scripts that call ldconfig. Debian's way is the trigger that this package has,
# so that it runs nothing of its own.
foreach(package ${CPACK_PACKAGE_FILES})
    set(tree "${package}.tree")
    execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
    execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${package}"
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE "${tree}")
endforeach()
