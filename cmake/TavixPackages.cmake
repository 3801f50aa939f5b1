# Debian packages, by "cpack" in a build with the prefix /usr (the preset "package"): one for each component that
# TavixInstall.cmake names. What only a Debian package has lies in packaging/debian.
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(package_of_library libtavix-settings0)
set(package_of_development libtavix-settings-dev)
set(package_of_server tavix-settings-server)
set(package_of_tools tavix-settings)
set(package_of_web tavix-settings-web)
set(package_of_bridge_mqtt tavix-settings-bridge-mqtt)
set(package_of_bridge_etcd tavix-settings-bridge-etcd)
set(package_of_python python3-tavix-settings)
set(debian_version ${PROJECT_VERSION}-1)
set(same_version "(= ${debian_version})")

file(STRINGS ${debian}/changelog newest_version LIMIT_COUNT 1)
if(NOT newest_version MATCHES "^tavix-settings \\(${debian_version}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog begins with '${newest_version}', not with version ${debian_version}")
endif()

# Policy asks for these in every package; they are no part of an installation from source.
set(CPACK_COMPONENTS_ALL library development python)
if(TAVIX_BUILD_PROGRAMS)
  list(APPEND CPACK_COMPONENTS_ALL server)
  if(TAVIX_BUILD_CLI)
    list(APPEND CPACK_COMPONENTS_ALL tools)
  endif()
  if(TAVIX_BUILD_WEB)
    list(APPEND CPACK_COMPONENTS_ALL web)
  endif()
  foreach(engine mqtt etcd)
    if(TARGET tavix-settings-bridge-${engine})
      list(APPEND CPACK_COMPONENTS_ALL bridge_${engine})
    endif()
  endforeach()
endif()
foreach(component ${CPACK_COMPONENTS_ALL})
  set(package ${package_of_${component}})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(license ${PROJECT_SOURCE_DIR}/LICENSE)
  if(EXISTS ${debian}/${component}/copyright) # of one that also holds files of others
    set(license ${debian}/${component}/copyright)
  endif()
  install(FILES ${license} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          COMPONENT ${component} RENAME copyright EXCLUDE_FROM_ALL)
  install(FILES ${debian}/changelog DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
          RENAME changelog.Debian EXCLUDE_FROM_ALL)
  if(EXISTS ${debian}/${package}.lintian-overrides)
    install(FILES ${debian}/${package}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            COMPONENT ${component} RENAME ${package} EXCLUDE_FROM_ALL)
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGE_NAME tavix-settings)
set(CPACK_PACKAGE_VENDOR "the developers of tavix-settings")
set(CPACK_PACKAGE_CONTACT "the developers of tavix-settings <tavix-settings@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
# Some files go to /etc: everything is installed below a staging root, as below the root of a device.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/CompressDocuments.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/tavix) # where the programs' library is
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has a line of its own
set(common_description "
One store of settings for all processes of an embedded device: read groups,
change them, change them only if a condition still holds, and be told when
somebody else did.

")

set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "settings of a device (library)${common_description}This is the library that programs are linked with.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/triggers)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "settings of a device (development)${common_description}These are the headers, the static library, and the files that CMake and
pkg-config look for.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${package_of_library} ${same_version}")

set(CPACK_COMPONENT_SERVER_DESCRIPTION "settings of a device (daemon)${common_description}This is the daemon that keeps the settings and serves them on a local port,
with what systemd or an init script needs to start it.")
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "${package_of_library} ${same_version}, adduser")
set(CPACK_DEBIAN_SERVER_PACKAGE_PREDEPENDS "init-system-helpers (>= 1.54~)") # knows --skip-systemd-native
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS ${package_of_tools})
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${debian}/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)

set(CPACK_COMPONENT_TOOLS_DESCRIPTION "settings of a device (command)${common_description}This is the command that reads, changes, compares, backs up and watches
settings, on a running daemon or on a file.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${package_of_library} ${same_version}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS ${package_of_server})

set(CPACK_COMPONENT_WEB_DESCRIPTION "settings of a device (HTTP interface)${common_description}This is the program that serves the settings as JSON over HTTP, and a page for
browsers, with what systemd or an init script needs to start it. Neither does
so by itself.")
set(CPACK_DEBIAN_WEB_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_WEB_PACKAGE_DEPENDS "${package_of_library} ${same_version}")
set(CPACK_DEBIAN_WEB_PACKAGE_RECOMMENDS ${package_of_server})
set(CPACK_DEBIAN_WEB_PACKAGE_PREDEPENDS "init-system-helpers (>= 1.54~)")
set(CPACK_DEBIAN_WEB_PACKAGE_CONTROL_EXTRA ${debian}/web/conffiles ${debian}/web/postinst ${debian}/web/prerm
    ${debian}/web/postrm)

# The daemon's package makes the user that they run as.
set(CPACK_COMPONENT_BRIDGE_MQTT_DESCRIPTION "settings of a device (bridge to MQTT)${common_description}This is the program that mirrors settings to a broker of MQTT, from which a
centre sees and changes them, with what systemd needs to start it.")
set(CPACK_COMPONENT_BRIDGE_ETCD_DESCRIPTION "settings of a device (bridge to etcd)${common_description}This is the program that mirrors settings to a cluster of etcd, by which
several devices share them, with what systemd needs to start it.")
foreach(engine MQTT ETCD)
  set(CPACK_DEBIAN_BRIDGE_${engine}_PACKAGE_SECTION admin)
  set(CPACK_DEBIAN_BRIDGE_${engine}_PACKAGE_DEPENDS
      "${package_of_library} ${same_version}, ${package_of_server} ${same_version}")
  set(CPACK_DEBIAN_BRIDGE_${engine}_PACKAGE_RECOMMENDS ${package_of_tools})
  set(CPACK_DEBIAN_BRIDGE_${engine}_PACKAGE_CONTROL_EXTRA ${debian}/bridge/postinst ${debian}/bridge/prerm
      ${debian}/bridge/postrm)
endforeach()

set(CPACK_COMPONENT_PYTHON_DESCRIPTION "settings of a device (Python 3)${common_description}This is the package for programs in Python: one store that waits and one for
asyncio, a module for scripts, and what tests of programs need.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.9)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS ${package_of_server})

include(CPack)
