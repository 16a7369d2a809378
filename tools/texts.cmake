# The texts among the tool's sources, as constants: ROOM/NAME.EXT becomes ROOM::NAME_EXT of the
# header ROOM/NAME_EXT.h in the build folder. The tool reads none of them from disk when it runs.
set(folder ${CMAKE_CURRENT_LIST_DIR}/xbsactl)
set(XBSACTL_TEXTS ${CMAKE_CURRENT_BINARY_DIR}/texts)
foreach(text explain/messages.json trace/head.html trace/page.css trace/legend.html)
  string(MAKE_C_IDENTIFIER ${text} name)
  get_filename_component(room ${text} DIRECTORY)
  string(REGEX REPLACE "^${room}_" "" name ${name})
  string(TOUPPER ${name} constant)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${folder}/${text})
  file(READ ${folder}/${text} content)
  string(CONCAT header "#include <string_view>\n\nnamespace ${room}\n{\n"
    "constexpr std::string_view @constant@ = R\"TEXT(@content@)TEXT\";\n}\n")
  file(CONFIGURE OUTPUT ${XBSACTL_TEXTS}/${room}/${name}.h CONTENT "${header}" @ONLY)
endforeach()
