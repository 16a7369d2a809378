# The packages as .deb and .rpm, if the programs that build them are installed:
#
#   library  libxbsa1            the library alone, for hosts as old as GLIBC 2.17
#   dev      libxbsa-dev         for programs that link with the library; -devel as .rpm
#   tool     xbsactl             the tool, all documentation
#   sandbox  korva-xbsa-sandbox
#   all      korva-xbsa          only dependencies: library and tool
#   old      korva-xbsa-dev      former name of libxbsa-dev: an empty package for upgrades
#
# Up to 1.0.0-1 korva-xbsa contained library and tool.

set(CPACK_GENERATOR)
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps) # package dpkg-dev
find_program(FILE_PROGRAM file)
find_program(RPMBUILD rpmbuild) # package rpm, or rpm-build
if(DPKG_SHLIBDEPS AND FILE_PROGRAM) # they find the tool's dependencies
  list(APPEND CPACK_GENERATOR DEB)
endif()
if(RPMBUILD)
  list(APPEND CPACK_GENERATOR RPM)
endif()
if(NOT CPACK_GENERATOR)
  message(STATUS "No packages: dpkg-dev and file, or rpmbuild, are missing")
  return()
endif()

set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_CONTACT ${XBSA_MAINTAINER})
set(CPACK_PACKAGE_VENDOR "Korva XBSA developers")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/permissions.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/headers.cmake)
set(CPACK_STRIP_FILES ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/cpack.cmake)
set(CPACK_XBSA_EPOCH $ENV{SOURCE_DATE_EPOCH})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_VERBATIM_VARIABLES ON)

# From this version on library, headers and tool are separate packages.
set(split 1.0.0-2~)
set(version ${PROJECT_VERSION}-${XBSA_PACKAGING})

set(library_summary "library that stores Informix backups on a KORVA or FTP server")
set(library_text "The shared library libxbsa.so.1 offers the XBSA calls with which the Informix
database server's backup tool stores its dbspaces and logical logs on a KORVA
backup server, reads them back and asks which copies exist. Other sessions
work with any FTP server that supports active mode, greets in one line and
answers STOR and RETR with 150.

A database server needs this package alone. It needs the C library alone.")
set(dev_summary "headers for programs that call the XBSA library")
set(dev_text "The declarations of the XBSA calls and of the session record, the link for the
linker, files for pkg-config and for CMake's find_package(xbsa), an example and
the manual page of the calls. A database server does not need this package: it
loads the library at run time.")
set(tool_summary "store, restore and check Informix backups from the shell")
set(tool_text "The command xbsactl drives the XBSA library from the shell, hooks it into a
database, checks a set-up before the first backup depends on it, and explains
traces and errors.

This package also contains the documentation of the library.")
set(sandbox_summary "rehearse Informix backups without a KORVA server")
set(sandbox_text "The command korva-sandbox replaces a KORVA server and its COM utility, with
faults on demand, so that backups and restores can be tried on one machine.

The command korva-xbsa-demo shows the library at work, with a real FTP server
and with the sandbox.")
set(all_summary "Informix backups on a KORVA or FTP server, with tool (metapackage)")
set(all_text "This metapackage installs the XBSA library and the command xbsactl, of the
same version.")
set(old_summary "headers of the XBSA library (transitional package)")
set(old_text "This is a transitional package. It can safely be removed after libxbsa-dev is
installed.")

# --- .deb ---------------------------------------------------------------------------------------

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${XBSA_PACKAGING})
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_MULTIARCH same) # for CMake 3.31 and later
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON) # its symbols yield libc6 (>= 2.17)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_BREAKS "${PROJECT_NAME} (<< ${split})")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_REPLACES "${PROJECT_NAME} (<< ${split})")
configure_file(library/shlibs.in shlibs @ONLY)
# The trigger suffices. Two names of missing files keep CPack's scripts, which would run ldconfig
# again, out of the package.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/library/triggers ${CMAKE_CURRENT_SOURCE_DIR}/library/symbols
  ${WORK}/shlibs ${CMAKE_CURRENT_SOURCE_DIR}/none/postinst ${CMAKE_CURRENT_SOURCE_DIR}/none/postrm)

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libxbsa${PROJECT_VERSION_MAJOR} (= ${version})")
set(CPACK_DEBIAN_DEV_PACKAGE_BREAKS "${PROJECT_NAME}-dev (<< ${split})")
set(CPACK_DEBIAN_DEV_PACKAGE_REPLACES "${PROJECT_NAME}-dev (<< ${split})")

set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libxbsa${PROJECT_VERSION_MAJOR} (= ${version})")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "${PROJECT_NAME}-sandbox, logrotate")
set(CPACK_DEBIAN_TOOL_PACKAGE_BREAKS "${PROJECT_NAME} (<< ${split})")
set(CPACK_DEBIAN_TOOL_PACKAGE_REPLACES "${PROJECT_NAME} (<< ${split})")

set(CPACK_DEBIAN_ALL_PACKAGE_SECTION metapackages)
set(CPACK_DEBIAN_ALL_PACKAGE_DEPENDS
  "libxbsa${PROJECT_VERSION_MAJOR} (= ${version}), xbsactl (= ${version})")
set(CPACK_DEBIAN_ALL_PACKAGE_SUGGESTS ${PROJECT_NAME}-sandbox)

set(CPACK_DEBIAN_OLD_PACKAGE_SECTION oldlibs)
set(CPACK_DEBIAN_OLD_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_OLD_PACKAGE_DEPENDS "libxbsa-dev (>= ${version})")

set(CPACK_DEBIAN_SANDBOX_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SANDBOX_PACKAGE_DEPENDS "python3 (>= 3.8)")
set(CPACK_DEBIAN_SANDBOX_PACKAGE_RECOMMENDS xbsactl)
set(CPACK_DEBIAN_SANDBOX_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/sandbox/postinst ${CMAKE_CURRENT_SOURCE_DIR}/sandbox/prerm)

# --- .rpm ---------------------------------------------------------------------------------------

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE ${XBSA_PACKAGING})
set(CPACK_RPM_PACKAGE_LICENSE MIT)
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_CHANGELOG_FILE ${WORK}/changelog.rpm)
# Omits time and host of the build, so that two builds are identical.
set(CPACK_RPM_SPEC_MORE_DEFINE "%global use_source_date_epoch_as_buildtime 1
%global clamp_mtime_to_source_date_epoch 1
%global source_date_epoch_from_changelog 0
%global _buildhost localhost")
# Folders that belong to the system.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/lib64 /usr/lib64/cmake /usr/lib64/pkgconfig /usr/share/doc /usr/share/man /usr/share/man/man1 /usr/share/man/man3
  /usr/share/man/man7 /usr/share/bash-completion /usr/share/bash-completion/completions
  /usr/share/zsh /usr/share/zsh/site-functions)
set(CPACK_RPM_LIBRARY_PACKAGE_OBSOLETES "${PROJECT_NAME} < ${version}")
set(CPACK_RPM_DEV_PACKAGE_NAME libxbsa-devel)
set(CPACK_RPM_DEV_PACKAGE_REQUIRES "libxbsa${PROJECT_VERSION_MAJOR} = ${version}")
set(CPACK_RPM_DEV_PACKAGE_OBSOLETES "${PROJECT_NAME}-devel < ${version}")
set(CPACK_RPM_DEV_PACKAGE_PROVIDES "${PROJECT_NAME}-devel = ${version}")
set(CPACK_RPM_TOOL_PACKAGE_REQUIRES "libxbsa${PROJECT_VERSION_MAJOR} = ${version}")
set(CPACK_RPM_TOOL_PACKAGE_OBSOLETES "${PROJECT_NAME} < ${version}")
set(CPACK_RPM_ALL_PACKAGE_ARCHITECTURE noarch)
set(CPACK_RPM_ALL_PACKAGE_REQUIRES
  "libxbsa${PROJECT_VERSION_MAJOR} = ${version}, xbsactl = ${version}")
set(CPACK_RPM_SANDBOX_PACKAGE_ARCHITECTURE noarch)
set(CPACK_RPM_SANDBOX_PACKAGE_REQUIRES "python3 >= 3.8")
set(CPACK_RPM_SANDBOX_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/sandbox/postinst)
set(CPACK_RPM_SANDBOX_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/sandbox/prerm)

foreach(pair ${XBSA_PACKAGES})
  string(REGEX MATCH "^(.+):(.+)$" _ ${pair})
  set(package ${CMAKE_MATCH_1})
  string(TOUPPER ${package} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${CMAKE_MATCH_2})
  if(NOT package STREQUAL all) # "all" has the name of the source
    set(CPACK_DEBIAN_${name}_PACKAGE_SOURCE ${PROJECT_NAME})
  endif()
  set(CPACK_DEBIAN_${name}_DESCRIPTION "${${package}_summary}\n${${package}_text}")
  if(NOT CPACK_RPM_${name}_PACKAGE_NAME)
    set(CPACK_RPM_${name}_PACKAGE_NAME ${CMAKE_MATCH_2})
  endif()
  set(CPACK_RPM_${name}_PACKAGE_SUMMARY ${${package}_summary})
  set(CPACK_RPM_${name}_PACKAGE_DESCRIPTION ${${package}_text})
  set(CPACK_RPM_${name}_FILE_NAME RPM-DEFAULT)
endforeach()

include(CPack)
foreach(pair ${XBSA_PACKAGES})
  string(REGEX REPLACE ":.*" "" package ${pair})
  cpack_add_component_group(${package})
  foreach(kind common deb rpm)
    cpack_add_component(${package}-${kind} GROUP ${package})
  endforeach()
endforeach()
