# cmake --install BUILD [--prefix PREFIX]: the helper, the library with its headers, packages for
# CMake and pkg-config, the manuals; off macOS also the tool of the simulated Mac. Everything is to
# be changed by its owner only; scripts/install sees that the owner is root.

include(CMakePackageConfigHelpers)

set(FEROVANE_HELPER_FOLDER ${CMAKE_INSTALL_LIBEXECDIR} CACHE STRING
    "Where the helper is installed; every folder above has to be root's own")
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Ferovane)

install(TARGETS FerovaneHelper RUNTIME DESTINATION ${FEROVANE_HELPER_FOLDER})
install(TARGETS FerovaneCore EXPORT FerovaneTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY core DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ferovane FILES_MATCHING PATTERN *.h)
install(FILES shim/fv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ferovane/shim)

install(EXPORT FerovaneTargets NAMESPACE Ferovane:: DESTINATION ${package_folder})
set(package_files ${PROJECT_BINARY_DIR}/package)
configure_package_config_file(cmake/FerovaneConfig.cmake.in ${package_files}/FerovaneConfig.cmake
    INSTALL_DESTINATION ${package_folder} PATH_VARS FEROVANE_HELPER_FOLDER)
write_basic_package_version_file(${package_files}/FerovaneConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${package_files}/FerovaneConfig.cmake ${package_files}/FerovaneConfigVersion.cmake
        DESTINATION ${package_folder})

# Found from its own place, so that the prefix can be chosen when it is installed.
file(RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
if(IS_ABSOLUTE ${FEROVANE_HELPER_FOLDER})
    set(pkgconfig_helper ${FEROVANE_HELPER_FOLDER}/FerovaneHelper)
else()
    set(pkgconfig_helper \${prefix}/${FEROVANE_HELPER_FOLDER}/FerovaneHelper)
endif()
if(APPLE)
    set(pkgconfig_platform "-framework IOKit -framework CoreFoundation -framework Foundation -lobjc")
else()
    set(pkgconfig_platform "-pthread")
endif()
configure_file(cmake/ferovane.pc.in ${package_files}/ferovane.pc @ONLY)
install(FILES ${package_files}/ferovane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(manuals docs/man/FerovaneHelper.8)
if(NOT APPLE AND TARGET simulated-mac)
    install(TARGETS simulated-mac RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    list(APPEND manuals docs/man/simulated-mac.1)
endif()
foreach(manual IN LISTS manuals)
    if(EXISTS ${PROJECT_SOURCE_DIR}/${manual})
        string(REGEX MATCH "[0-9]$" section ${manual})
        install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    endif()
endforeach()
