# CPack runs this after packing: sets the modes in the headers of a .deb to 644, so that they do not
# depend on the umask. They do not affect the files in the package.
set(header "((debian-binary|control\\.tar\\.[a-z]+|data\\.tar\\.[a-z]+) +[0-9]+ +0 +0 +)")
foreach(package ${CPACK_PACKAGE_FILES})
  if(package MATCHES "\\.deb$")
    execute_process(COMMAND env LC_ALL=C sed -i -E "s/${header}100[0-7]{3}( +[0-9]+ +`)$/\\1100644\\3/"
      ${package} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
