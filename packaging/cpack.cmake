# Read by CPack before each kind of package: what goes into it.
string(TOLOWER ${CPACK_GENERATOR} format)
set(packages library dev tool sandbox all)
if(format STREQUAL deb) # rpm knows what obsoletes an old name, and needs no empty package for it
  list(APPEND packages old)
endif()
set(CPACK_COMPONENTS_ALL)
foreach(package ${packages})
  list(APPEND CPACK_COMPONENTS_ALL ${package}-common ${package}-${format})
endforeach()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY) # each package has one of its own

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_XBSA_EPOCH})
endif()
