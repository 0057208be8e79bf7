# The Debian packages: "ketra" from the component runtime, "ketra-dev" from development, and what only
# they have. script/package makes them.
#
# They go to /usr, and some of their files to /etc; other installations have none of this.
if(NOT PROJECT_IS_TOP_LEVEL OR NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  return()
endif()

set(packaging ${CMAKE_CURRENT_LIST_DIR})
set(generated ${PROJECT_BINARY_DIR}/packaging)

# ---- systemd

install(FILES ${packaging}/ketra-host.service DESTINATION lib/systemd/system COMPONENT runtime)
install(FILES ${packaging}/ketra.sysusers
  DESTINATION lib/sysusers.d RENAME ketra.conf COMPONENT runtime)
install(FILES ${packaging}/ketra.tmpfiles
  DESTINATION lib/tmpfiles.d RENAME ketra.conf COMPONENT runtime)
install(FILES ${packaging}/ketra-host.properties DESTINATION /etc/ketra COMPONENT runtime)

# ---- documents

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${packaging}/changelog.in ${generated}/changelog @ONLY)

# ketra_install_documents(PACKAGE COMPONENT): what each package of Debian has
function(ketra_install_documents PACKAGE COMPONENT)
  install(FILES ${packaging}/copyright ${generated}/changelog
    DESTINATION share/doc/${PACKAGE} COMPONENT ${COMPONENT})
  install(FILES ${packaging}/${PACKAGE}.lintian-overrides
    DESTINATION share/lintian/overrides RENAME ${PACKAGE} COMPONENT ${COMPONENT})
endfunction()

ketra_install_documents(ketra runtime)
ketra_install_documents(ketra-dev development)
install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION share/doc/ketra COMPONENT runtime)
install(FILES ${packaging}/README.md
  DESTINATION share/doc/ketra RENAME README.Debian COMPONENT runtime)

# ---- the packages

file(WRITE ${generated}/conffiles "/etc/ketra/ketra-host.properties\n")
file(WRITE ${generated}/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME ketra)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "plugin host and microservice supervisor")
set(CPACK_PACKAGE_VENDOR "The Ketra developers")
set(CPACK_PACKAGE_CONTACT "The Ketra developers <ketra@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/Compress.cmake)
# whatever the umask
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ketra)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${packaging}/maintainer-scripts/postinst
  ${packaging}/maintainer-scripts/prerm
  ${packaging}/maintainer-scripts/postrm
  ${generated}/conffiles
  ${generated}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Ketra runs on Linux edge devices. Its host loads plugins into its process,
launches the microservices that belong to them, starts those again that exit,
and routes JSON events between the plugins.
.
This package has the host as a systemd service of its own user, the libraries
that plugins stand on, and the command line tool.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ketra-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "ketra (= ${PROJECT_VERSION}), libpoco-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_CONTROL_EXTRA ${generated}/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Ketra runs on Linux edge devices. Its host loads plugins into its process,
launches the microservices that belong to them, starts those again that exit,
and routes JSON events between the plugins.
.
This package has what plugins and hosts are built with: headers, a CMake
package, pkg-config files, and whatever helps to begin and to test a plugin.")

include(CPack)
