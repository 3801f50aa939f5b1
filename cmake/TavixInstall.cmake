# What "cmake --install" puts where. Each file belongs to one component, and each component is a package of a
# distribution:
#
#     library      the shared library
#     development  the static library, the headers that users include, what find_package and pkg-config ask for, and the
#                  man page of the C interface
#     server       the daemon, its man pages, and what starts it
#     tools        the command, its completions and its man pages
#     web          the HTTP interface, its man page, and what starts it
#     bridge_mqtt  the bridge to brokers of MQTT, its man page, and what starts it
#     bridge_etcd  the same to clusters of etcd
#     python       the Python package
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

if(TAVIX_BUILD_PROGRAMS)
  # Below /usr the loader finds the library by itself; below other prefixes both programs are told where.
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(tavix-settings-server PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS tavix-settings-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/InstallService.cmake.in ${PROJECT_BINARY_DIR}/InstallService.cmake @ONLY)
  install(SCRIPT ${PROJECT_BINARY_DIR}/InstallService.cmake COMPONENT server)
endif()

if(TAVIX_BUILD_PROGRAMS AND TAVIX_BUILD_CLI)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(tavix-settings-command PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS tavix-settings-command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  set(completions ${PROJECT_SOURCE_DIR}/programs/cli/completion)
  install(FILES ${completions}/tavix-settings.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME tavix-settings COMPONENT tools)
  install(FILES ${completions}/_tavix-settings DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
          COMPONENT tools)
  install(FILES ${completions}/tavix-settings.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
          COMPONENT tools)
endif()

if(TAVIX_BUILD_PROGRAMS AND TAVIX_BUILD_WEB)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(tavix-settings-web PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS tavix-settings-web RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT web)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/InstallWebService.cmake.in ${PROJECT_BINARY_DIR}/InstallWebService.cmake
                 @ONLY)
  install(SCRIPT ${PROJECT_BINARY_DIR}/InstallWebService.cmake COMPONENT web)
endif()

foreach(engine mqtt etcd)
  if(TARGET tavix-settings-bridge-${engine})
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
      set_target_properties(tavix-settings-bridge-${engine}
                            PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    endif()
    install(TARGETS tavix-settings-bridge-${engine} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
            COMPONENT bridge_${engine})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/InstallBridgeService.cmake.in
                   ${PROJECT_BINARY_DIR}/InstallBridgeService-${engine}.cmake @ONLY)
    install(SCRIPT ${PROJECT_BINARY_DIR}/InstallBridgeService-${engine}.cmake COMPONENT bridge_${engine})
  endif()
endforeach()

# Pure Python: it needs no build. No part of an installation from source, which pip does better; packages take it.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/bindings/python/tavix_settings DESTINATION lib/python3/dist-packages
        COMPONENT python EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.py" PATTERN "py.typed"
        PATTERN "__pycache__" EXCLUDE)

# Man pages are written in scdoc's form; without scdoc there are none.
find_program(SCDOC scdoc)
if(SCDOC)
  add_subdirectory(${PROJECT_SOURCE_DIR}/docs/man ${PROJECT_BINARY_DIR}/docs/man)
elseif(NOT DEFINED CACHE{SCDOC} OR "$CACHE{SCDOC}" STREQUAL "SCDOC-NOTFOUND")
  message(STATUS "scdoc is missing (Debian: scdoc). No man pages are made.")
endif()

install(TARGETS tavix-settings tavix-settings-static tavix-settings-c EXPORT tavix-settings-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Every header of the upper folders is for users unless it stands here; of the lower ones, what those include or what is
# of use beside them. A class with code in one of them is marked TAVIX_EXPORT.
set(internal_headers
    tavix/settings/CheckedSetting.h
    tavix/settings/PendingChanges.h
    tavix/settings/ResourceFigures.h
    tavix/settings/Subscription.h
    tavix/settings/common/ChangeRound.h
    tavix/settings/common/NumberedTable.h
    tavix/settings/common/PatternIndex.h
    tavix/settings/common/SettingGuess.h
    tavix/settings/common/SmallChange.h
    tavix/settings/common/Subscriptions.h
    tavix/settings/common/TextCopy.h
    tavix/settings/server/AmendedGroup.h
    tavix/settings/server/AmendmentPlan.h
    tavix/settings/server/ChangeLines.h
    tavix/settings/server/ChangeNotifier.h
    tavix/settings/server/ChangeRecorder.h
    tavix/settings/server/ChangeRequest.h
    tavix/settings/server/ClientHandlerDispatcher.h
    tavix/settings/server/ClientHandlerRequests.h
    tavix/settings/server/ClientState.h
    tavix/settings/server/CommandTable.h
    tavix/settings/server/DeletedGroupsRecord.h
    tavix/settings/server/DocumentChange.h
    tavix/settings/server/DocumentEdit.h
    tavix/settings/server/DocumentPlan.h
    tavix/settings/server/DocumentTally.h
    tavix/settings/server/EarlyMatches.h
    tavix/settings/server/EarlyTest.h
    tavix/settings/server/GroupWalk.h
    tavix/settings/server/HandlerCounts.h
    tavix/settings/server/HiddenChange.h
    tavix/settings/server/HiddenLayers.h
    tavix/settings/server/InfoText.h
    tavix/settings/server/MessageWriter.h
    tavix/settings/server/NoticeRound.h
    tavix/settings/server/NoticeText.h
    tavix/settings/server/OwnSubscriptions.h
    tavix/settings/server/PhpArrayScanner.h
    tavix/settings/server/PreparedMerge.h
    tavix/settings/server/RecordEdit.h
    tavix/settings/server/RefusalReasons.h
    tavix/settings/server/RequestFramer.h
    tavix/settings/server/RequestInput.h
    tavix/settings/server/RequestLists.h
    tavix/settings/server/SharedPlaces.h
    tavix/settings/server/StoreAccount.h
    tavix/settings/server/StoreChange.h
    tavix/settings/server/StoreDocuments.h
    tavix/settings/server/StoreLoader.h
    tavix/settings/server/StoreText.h
    tavix/settings/server/StreamOutput.h
    tavix/settings/server/TextInParts.h
    tavix/settings/server/UnrestrictedPart.h
    tavix/settings/server/UserLayer.h
    tavix/settings/server/Words.h)
set(lower_headers
    tavix/c/tavix-settings-c.h
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
    tavix/osa/PlainMutex.h
    tavix/osa/ReadWriteLock.h
    tavix/osa/ThreadAnnotations.h
    tavix/osa/Time.h
    tavix/settings/client/IConnectionObserver.h
    tavix/settings/client/ProtocolClient.h
    tavix/settings/client/ProtocolConstants.h
    tavix/settings/client/ProtocolException.h
    tavix/settings/client/ProtocolOptions.h)

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
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}
          COMPONENT development)
endforeach()

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tavix-settings)
install(EXPORT tavix-settings-targets NAMESPACE tavix:: DESTINATION ${package_folder}
        COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tavix-settings-config.cmake.in
                              ${PROJECT_BINARY_DIR}/tavix-settings-config.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavix-settings-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavix-settings-config.cmake
              ${PROJECT_BINARY_DIR}/tavix-settings-config-version.cmake
        DESTINATION ${package_folder} COMPONENT development)

# The prefix is told from where the file lies, so that an installed tree can be moved.
set(pkgconfig_folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig ${pkgconfig_folder} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
file(RELATIVE_PATH libdir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavix-settings.pc.in ${PROJECT_BINARY_DIR}/tavix-settings.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavix-settings.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
