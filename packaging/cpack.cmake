# CPack reads this before each kind of package: selects its contents.
string(TOLOWER ${CPACK_GENERATOR} format)
set(packages library dev tool sandbox all)
if(format STREQUAL deb) # rpm handles renamed packages without an empty package
  list(APPEND packages old)
endif()
set(CPACK_COMPONENTS_ALL)
foreach(package ${packages})
  list(APPEND CPACK_COMPONENTS_ALL ${package}-common ${package}-${format})
endforeach()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY) # each package has its own

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_XBSA_EPOCH})
endif()
