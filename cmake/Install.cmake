# What "cmake --install" lays out, in two components: "runtime", what a device needs, and
# "development", what plugins and hosts are built with. Everything finds the rest relative to itself,
# so that the whole may be moved; below /usr the loader knows the folders.
include(CMakePackageConfigHelpers)

set(KETRA_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Ketra)
file(RELATIVE_PATH libraries_from_programs
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

# ketra_find_libraries_in(TARGET FOLDER): where the loader finds our libraries, seen from the target.
# By the linker's own option, the same in the build and once installed: CMake would put an empty entry
# into what it is to change later, and that is the current directory.
function(ketra_find_libraries_in TARGET FOLDER)
  set_target_properties(${TARGET} PROPERTIES SKIP_BUILD_RPATH ON)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    # no link option: those lose a dollar sign on their way to ninja
    set_property(TARGET ${TARGET} APPEND_STRING PROPERTY LINK_FLAGS " -Wl,-rpath,'${FOLDER}'")
  endif()
endfunction()

# ketra_install_library(TARGET COMPONENT): a library that is part of the CMake package.
function(ketra_install_library TARGET COMPONENT)
  string(REPLACE Ketra "" name ${TARGET})
  set_target_properties(${TARGET} PROPERTIES EXPORT_NAME ${name})
  ketra_find_libraries_in(${TARGET} "$ORIGIN")
  install(TARGETS ${TARGET} EXPORT KetraTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${COMPONENT})
endfunction()

# ketra_install_program(TARGET)
function(ketra_install_program TARGET)
  ketra_find_libraries_in(${TARGET} "$ORIGIN/${libraries_from_programs}")
  install(TARGETS ${TARGET} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endfunction()

# ketra_install_output(TARGET FILE FOLDER words...): what the command prints, which runs the program
# TARGET, as a file below share/.
function(ketra_install_output TARGET FILE FOLDER)
  set(output ${CMAKE_BINARY_DIR}/share/${FOLDER}/${FILE})
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/share/${FOLDER}
    # built for /usr, it does not know of this folder
    COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${CMAKE_LIBRARY_OUTPUT_DIRECTORY} ${ARGN} > ${output}
    VERBATIM DEPENDS ${TARGET} ${PROJECT_SOURCE_DIR}/cmake/man-page)
  string(MAKE_C_IDENTIFIER ${FOLDER}/${FILE} target)
  add_custom_target(${target} ALL DEPENDS ${output})
  install(FILES ${output} DESTINATION ${CMAKE_INSTALL_DATADIR}/${FOLDER} COMPONENT runtime)
endfunction()

# ketra_install_man_page(TARGET SECTION SUMMARY OTHER): made of what the program's --help says.
function(ketra_install_man_page TARGET SECTION SUMMARY OTHER)
  ketra_install_output(${TARGET} ${TARGET}.${SECTION} man/man${SECTION}
    ${PROJECT_SOURCE_DIR}/cmake/man-page $<TARGET_FILE:${TARGET}>
    ${SECTION} ${SUMMARY} ${PROJECT_VERSION} ${OTHER})
endfunction()

install(DIRECTORY include/ktr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT KetraTargets NAMESPACE Ketra::
  DESTINATION ${KETRA_PACKAGE_DIR} COMPONENT development)
configure_package_config_file(cmake/KetraConfig.cmake.in cmake/KetraConfig.cmake
  INSTALL_DESTINATION ${KETRA_PACKAGE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(cmake/KetraConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/cmake/KetraConfig.cmake ${PROJECT_BINARY_DIR}/cmake/KetraConfigVersion.cmake
        cmake/KetraAddPlugin.cmake cmake/KetraPlugin.map
  DESTINATION ${KETRA_PACKAGE_DIR} COMPONENT development)

file(RELATIVE_PATH prefix_from_pkgconfig
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
foreach(package ketra-common ketra-plugins)
  configure_file(cmake/${package}.pc.in cmake/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/cmake/${package}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
