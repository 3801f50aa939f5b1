# CPack runs this over what it has staged, before it makes packages of it: Debian compresses man pages and change logs,
# and an installation from source does not. "n" leaves the time out, so that the same sources make the same packages.
file(GLOB_RECURSE documents ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-8]
     ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog.Debian)
if(documents)
  execute_process(COMMAND gzip -9nf ${documents} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip failed: ${status}")
  endif()
endif()
