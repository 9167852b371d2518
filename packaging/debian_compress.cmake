# Run by CPack on the files it has gathered: Debian wants its manual pages compressed.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-8]")
foreach(page ${pages})
  execute_process(COMMAND gzip -9n "${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
