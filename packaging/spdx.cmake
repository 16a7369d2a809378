# Writes an SPDX 2.3 file: packages, versions, licences and dependencies.

set(spdx_packages)
set(spdx_relations)
function(spdx_package name version license)
  set(text [[
    { "SPDXID": "SPDXRef-@name@", "name": "@name@", "versionInfo": "@version@",
      "downloadLocation": "NOASSERTION", "filesAnalyzed": false, "copyrightText": "NOASSERTION",
      "licenseConcluded": "@license@", "licenseDeclared": "@license@" }]])
  string(CONFIGURE "${text}" text @ONLY)
  set(spdx_packages ${spdx_packages} ${text} PARENT_SCOPE)
endfunction()

function(spdx_relation from relation)
  foreach(to ${ARGN})
    list(APPEND spdx_relations "    { \"spdxElementId\": \"SPDXRef-${from}\", \
\"relationshipType\": \"${relation}\", \"relatedSpdxElement\": \"SPDXRef-${to}\" }")
  endforeach()
  set(spdx_relations ${spdx_relations} PARENT_SCOPE)
endfunction()

set(library libxbsa${PROJECT_VERSION_MAJOR})
foreach(name ${library} libxbsa-dev xbsactl ${PROJECT_NAME}-sandbox)
  spdx_package(${name} ${PROJECT_VERSION} MIT)
  spdx_relation(DOCUMENT DESCRIBES ${name})
endforeach()
spdx_package(libc 2.17+ NOASSERTION)
spdx_package(python3 3.8+ NOASSERTION)
spdx_relation(${library} DEPENDS_ON libc)
file(STRINGS ${XXHASH_FOLDER}/xxhash.h version REGEX "define XXH_VERSION_(MAJOR|MINOR|RELEASE) ")
string(REGEX REPLACE "[^0-9]+" "." version "${version}")
string(REGEX MATCH "[0-9]+\\.[0-9]+\\.[0-9]+" version "${version}")
spdx_package(xxHash ${version} BSD-2-Clause)
spdx_relation(${library} STATIC_LINK xxHash)
spdx_relation(libxbsa-dev DEPENDS_ON ${library})
spdx_relation(${PROJECT_NAME}-sandbox DEPENDS_ON python3)
if(TARGET xbsactl)
  find_package(CLI11 QUIET) # the tool's directory does not export the versions
  find_package(nlohmann_json QUIET)
  find_package(OpenSSL QUIET COMPONENTS Crypto)
  find_package(ZLIB QUIET)
  spdx_package(CLI11 ${CLI11_VERSION} BSD-3-Clause)
  spdx_package(nlohmann-json ${nlohmann_json_VERSION} MIT)
  spdx_package(OpenSSL ${OPENSSL_VERSION} NOASSERTION)
  spdx_package(zlib ${ZLIB_VERSION_STRING} Zlib)
  spdx_package(libstdcxx ${CMAKE_CXX_COMPILER_VERSION} "GPL-3.0-or-later WITH GCC-exception-3.1")
  spdx_relation(xbsactl STATIC_LINK CLI11 nlohmann-json xxHash)
  spdx_relation(xbsactl DYNAMIC_LINK libc libstdcxx OpenSSL zlib)
  spdx_relation(xbsactl DEPENDS_ON ${library})
endif()

list(JOIN spdx_packages ",\n" spdx_packages)
list(JOIN spdx_relations ",\n" spdx_relations)
string(TIMESTAMP spdx_date "%Y-%m-%dT%H:%M:%SZ" UTC)
# The name depends on the content.
string(UUID spdx_name NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
  NAME "${spdx_date}${spdx_packages}${spdx_relations}")
configure_file(spdx.json.in ${PROJECT_NAME}.spdx.json @ONLY)
