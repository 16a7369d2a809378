# CPack runs this before packing: directories are readable for all whatever the umask, and all files have
# the time of the sources. rpmbuild would keep older times.
file(GLOB_RECURSE entries LIST_DIRECTORIES true ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(entry ${CPACK_TEMPORARY_DIRECTORY} ${entries})
  if(IS_DIRECTORY ${entry})
    file(CHMOD ${entry} PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
execute_process(COMMAND_ERROR_IS_FATAL ANY
  COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +)
