# Embeds the texts among the tool's sources as constants, so that the tool reads none from disk.
# ROOM/NAME.EXT becomes ROOM::NAME_EXT in the header ROOM/NAME_EXT.h of the build directory (texts::
# outside the rooms).
set(XBSACTL_TEXTS ${CMAKE_CURRENT_BINARY_DIR}/texts)
foreach(text help.txt options.json check/settings.json explain/messages.json
    setup/logrotate.txt trace/head.html trace/page.css trace/legend.html)
  set(file ${CMAKE_CURRENT_LIST_DIR}/xbsactl/${text})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} content)
  string(REGEX REPLACE "\n$" "" content "${content}") # drops the last line end
  get_filename_component(room texts/${text} DIRECTORY)
  get_filename_component(room ${room} NAME)
  get_filename_component(name ${text} NAME)
  string(MAKE_C_IDENTIFIER ${name} name)
  string(TOUPPER ${name} constant)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/text.h.in ${XBSACTL_TEXTS}/${room}/${name}.h @ONLY)
endforeach()
