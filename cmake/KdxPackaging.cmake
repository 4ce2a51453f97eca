# What `cmake --install` puts beside the targets' own install rules (the manual
# pages), and the Debian packages CPack makes from the installed tree.
#
# Packages, one set per target architecture:
# - kendrivex-cli: the programs, their manual pages and the bash completion of
#   kendrivex-ctl (the default install component). The programs carry the IPC
#   code statically linked, so they need no library package.
# - libkendrivex-ipc0: the client library, named after its SONAME as Debian
#   does, so that a later incompatible version can be installed beside it.
# - libkendrivex-ipc-dev: header, pkg-config file and the unversioned link,
#   needed only to build programs against the library.

# Manual pages, installed gzip-compressed as Debian expects (man reads them
# either way). -n leaves name and time out, so that packages are reproducible.
# The programs' pages go with the programs; the library's with its header.
find_program(KDX_GZIP gzip REQUIRED)
set(kdxManPages)
function(kdx_man_page page section component)
  set(copy ${PROJECT_BINARY_DIR}/man/${page})
  configure_file(${PROJECT_SOURCE_DIR}/man/${page} ${copy} COPYONLY)
  add_custom_command(OUTPUT ${copy}.gz
    COMMAND ${KDX_GZIP} -9 -n -k -f ${copy}
    DEPENDS ${copy}
    COMMENT "Compressing the manual page ${page}"
    VERBATIM)
  install(FILES ${copy}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  set(kdxManPages ${kdxManPages} ${copy}.gz PARENT_SCOPE)
endfunction()
kdx_man_page(kendrivex-cli.1 1 Unspecified)
kdx_man_page(kendrivex-ctl.1 1 Unspecified)
kdx_man_page(kendrivex-sim.1 1 Unspecified)
kdx_man_page(kendrivex_ipc.3 3 ipc_dev)
# kendrivex-bridge's files are a component of their own, which no package
# holds yet.
kdx_man_page(kendrivex-bridge.8 8 bridge)
add_custom_target(kdx_man_pages ALL DEPENDS ${kdxManPages})

# The Debian name of the target architecture, from the compiler's multiarch
# triplet, so that a cross build is not labelled with the build machine's.
function(kdx_debian_architecture result)
  set(triplet ${CMAKE_LIBRARY_ARCHITECTURE})
  if(NOT triplet)
    execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpmachine
      OUTPUT_VARIABLE triplet OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  set(known_x86_64-linux-gnu amd64)
  set(known_arm-linux-gnueabihf armhf)
  set(known_arm-linux-gnueabi armel)
  set(known_aarch64-linux-gnu arm64)
  set(known_i386-linux-gnu i386)
  set(known_i686-linux-gnu i386)
  set(${result} "${known_${triplet}}" PARENT_SCOPE)
endfunction()

# The target C library's version, as "2.36", read from its headers.
function(kdx_glibc_version result)
  set(probe ${PROJECT_BINARY_DIR}/CMakeFiles/kdx_glibc_version.c)
  file(WRITE ${probe} "#include <features.h>\nKDX_GLIBC __GLIBC__ . __GLIBC_MINOR__\n")
  execute_process(COMMAND ${CMAKE_C_COMPILER} -E -P ${probe}
    OUTPUT_VARIABLE expanded ERROR_QUIET)
  if(expanded MATCHES "KDX_GLIBC ([0-9]+) *\\. *([0-9]+)")
    set(${result} "${CMAKE_MATCH_1}.${CMAKE_MATCH_2}" PARENT_SCOPE)
  else()
    set(${result} "" PARENT_SCOPE)
  endif()
endfunction()

kdx_debian_architecture(kdxDebianArch)
kdx_glibc_version(kdxGlibcVersion)
if(kdxGlibcVersion)
  set(kdxLibcDepends "libc6 (>= ${kdxGlibcVersion})")
else()
  message(WARNING "The C library's version cannot be read from ${CMAKE_C_COMPILER}: "
    "the packages will depend on libc6 of any version")
  set(kdxLibcDepends libc6)
endif()

# Every package's programs and library need the C library, libstdc++ and
# libgcc_s. dpkg-shlibdeps cannot work these out for a cross build (it looks
# for the target's libraries among the installed packages), so they are
# stated: at least the versions this tool chain builds against.
string(REGEX MATCH "^[0-9]+" kdxGccMajor "${CMAKE_CXX_COMPILER_VERSION}")
set(kdxRuntimeDepends
  "${kdxLibcDepends}, libstdc++6 (>= ${kdxGccMajor}), libgcc-s1 (>= ${kdxGccMajor})")

set(KDX_PACKAGE_MAINTAINER "kendrivex-cli developers <kendrivex-cli@example.org>"
  CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kendrivex-cli)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KDX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Only these components are packaged: anything else that installs files by
# mistake stays out of the packages.
set(CPACK_COMPONENTS_ALL Unspecified ipc_runtime ipc_dev)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(kdxDebianArch)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${kdxDebianArch})
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# A shlibs file in the package that holds the library, so that packages of
# programs linked against it get their dependency from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(kdxDebianVersion ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME kendrivex-cli)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_DEPENDS "${kdxRuntimeDepends}")
set(CPACK_DEBIAN_UNSPECIFIED_DESCRIPTION
  "interactive command line for the device-control service
kendrivex-cli talks to the device-control service over its Unix-domain
datagram socket: a prompt with line editing, history and completion of
command names, from which the operator pings the service and queries the
Wi-Fi access point's stations and MAC address.
.
kendrivex-ctl does the same from scripts: one command per run or one a line
from standard input, plain or JSON output, exit statuses that say what
happened, and a watch that prints the service's events as they arrive.
.
kendrivex-sim plays the service, so that the client (and programs built on
the client library) can be tried and tested without the device.")

# The library package carries the library's SONAME version in its name.
get_target_property(kdxIpcSoversion kendrivex_ipc SOVERSION)
set(kdxIpcPackage libkendrivex-ipc${kdxIpcSoversion})
set(CPACK_DEBIAN_IPC_RUNTIME_PACKAGE_NAME ${kdxIpcPackage})
set(CPACK_DEBIAN_IPC_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_IPC_RUNTIME_PACKAGE_DEPENDS "${kdxRuntimeDepends}")
set(CPACK_DEBIAN_IPC_RUNTIME_DESCRIPTION
  "client library for the device-control service
Lets programs written in C send requests to the device-control service and
read its replies, as kendrivex-cli does.")

set(CPACK_DEBIAN_IPC_DEV_PACKAGE_NAME libkendrivex-ipc-dev)
set(CPACK_DEBIAN_IPC_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_IPC_DEV_PACKAGE_DEPENDS "${kdxIpcPackage} (= ${kdxDebianVersion})")
set(CPACK_DEBIAN_IPC_DEV_DESCRIPTION
  "client library for the device-control service - development files
The C header, the pkg-config file (kendrivex-ipc) and the link to the
library, for building programs that use ${kdxIpcPackage}.")

include(CPack)
