# Read by CPack before each kind of package: what goes into it.
string(TOLOWER ${CPACK_GENERATOR} format)
set(CPACK_COMPONENTS_ALL)
foreach(package runtime dev sandbox)
  list(APPEND CPACK_COMPONENTS_ALL ${package}-common ${package}-${format})
endforeach()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY) # each package has one of its own

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_XBSA_EPOCH})
endif()
