# Installation: headers, library, the packages by which find_package and pkg-config find them, manuals, and completion
# for the shells. Nothing installed knows where it lies, so the tree can be moved. The simulated accelerator comes along
# where the library was linked against it, since such a library does not load without it.

include(CMakePackageConfigHelpers)

set(KELRT_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/kelRt")

install(FILES include/kelRt.h include/kelRt_platform.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
set(installed_targets kelRt)
if(KELRT_PLATFORM_DIR)
    set(KELRT_SIM_LIBS "")
else()
    install(FILES platform/sim/nna_sim.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
    list(APPEND installed_targets kelRt_sim_udriver kelRt_sim_common)
    set(KELRT_SIM_LIBS "-ltivnna_udriver -ltiv_common")
    if(KELRT_ANDROID_LIBLOG)
        string(APPEND KELRT_SIM_LIBS " ${KELRT_DEBIAN_LIBLOG}")
    else()
        list(APPEND installed_targets kelRt_sim_log)
        string(APPEND KELRT_SIM_LIBS " -llog")
    endif()
    set_target_properties(kelRt_sim_udriver PROPERTIES EXPORT_NAME sim_udriver)
    set_target_properties(kelRt_sim_common PROPERTIES EXPORT_NAME sim_common)
    set_target_properties(kelRt_sim_log PROPERTIES EXPORT_NAME sim_log)
endif()

install(TARGETS ${installed_targets} EXPORT kelRtTargets LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT kelRtTargets NAMESPACE kelRt:: DESTINATION "${KELRT_PACKAGE_DIR}")

configure_package_config_file(cmake/kelRtConfig.cmake.in "${CMAKE_BINARY_DIR}/kelRtConfig.cmake"
    INSTALL_DESTINATION "${KELRT_PACKAGE_DIR}")
write_basic_package_version_file("${CMAKE_BINARY_DIR}/kelRtConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/kelRtConfig.cmake" "${CMAKE_BINARY_DIR}/kelRtConfigVersion.cmake"
    DESTINATION "${KELRT_PACKAGE_DIR}")

# From lib/<arch>/pkgconfig back up to the prefix.
file(RELATIVE_PATH KELRT_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/kelRt.pc.in "${CMAKE_BINARY_DIR}/kelRt.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/kelRt.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(FILES docs/man/libkelRt.3 DESTINATION "${CMAKE_INSTALL_MANDIR}/man3")
if(TARGET kelRt_record)
    install(FILES docs/man/libkelRt_record.7 DESTINATION "${CMAKE_INSTALL_MANDIR}/man7")
endif()
if(TARGET kelrt)
    install(FILES docs/man/kelrt.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
    install(FILES tools/kelrt/completion/kelrt.bash
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME kelrt)
    install(FILES tools/kelrt/completion/_kelrt DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
endif()
