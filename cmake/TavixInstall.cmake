# What "cmake --install" puts where: the daemon, the command with its completions, man pages, both libraries, the
# headers that users include, and what find_package and pkg-config ask for.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

if(TAVIX_BUILD_PROGRAMS)
  install(TARGETS tavix-settings-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

if(TAVIX_BUILD_PROGRAMS AND TAVIX_BUILD_CLI)
  install(TARGETS tavix-settings-command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(completions ${PROJECT_SOURCE_DIR}/programs/cli/completion)
  install(FILES ${completions}/tavix-settings.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME tavix-settings)
  install(FILES ${completions}/_tavix-settings DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(FILES ${completions}/tavix-settings.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()

# Man pages are written in scdoc's form; without scdoc there are none.
find_program(SCDOC scdoc)
if(SCDOC)
  add_subdirectory(${PROJECT_SOURCE_DIR}/docs/man ${PROJECT_BINARY_DIR}/docs/man)
endif()

install(TARGETS tavix-settings tavix-settings-static EXPORT tavix-settings-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Every header of the upper folders is for users unless it stands here; of the lower ones, what those include or what is
# of use beside them. A class with code in one of them is marked TAVIX_EXPORT.
set(internal_headers
    tavix/settings/PendingChanges.h
    tavix/settings/Subscription.h
    tavix/settings/server/ClientHandlerDispatcher.h
    tavix/settings/server/NoticeText.h
    tavix/settings/server/PhpArrayScanner.h
    tavix/settings/server/RequestFramer.h)
set(lower_headers
    tavix/core/CoreLogging.h
    tavix/core/DelimitedIstream.h
    tavix/core/DelimitedStreamBuf.h
    tavix/core/IniFile.h
    tavix/core/Logger.h
    tavix/core/MemoryStream.h
    tavix/core/Stopwatch.h
    tavix/core/StringUtil.h
    tavix/osa/Exception.h
    tavix/osa/Export.h
    tavix/osa/LockException.h
    tavix/osa/Mutex.h
    tavix/osa/MutexAutoLock.h
    tavix/osa/ReadWriteLock.h
    tavix/osa/Time.h
    tavix/settings/client/IConnectionObserver.h
    tavix/settings/client/ProtocolConstants.h)

file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/tavix/settings/*.h
     ${PROJECT_SOURCE_DIR}/tavix/settings/common/*.h
     ${PROJECT_SOURCE_DIR}/tavix/settings/server/*.h)
list(REMOVE_ITEM headers ${internal_headers})
list(APPEND headers ${lower_headers})
list(JOIN headers "\n" public_headers)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/public-headers.txt CONTENT "${public_headers}\n")
foreach(header ${headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tavix-settings)
install(EXPORT tavix-settings-targets NAMESPACE tavix:: DESTINATION ${package_folder})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tavix-settings-config.cmake.in
                              ${PROJECT_BINARY_DIR}/tavix-settings-config.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavix-settings-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavix-settings-config.cmake
              ${PROJECT_BINARY_DIR}/tavix-settings-config-version.cmake
        DESTINATION ${package_folder})

# The prefix is told from where the file lies, so that an installed tree can be moved.
set(pkgconfig_folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig ${pkgconfig_folder} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
file(RELATIVE_PATH libdir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavix-settings.pc.in ${PROJECT_BINARY_DIR}/tavix-settings.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavix-settings.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
