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
# - kendrivex-bridge: the MQTT bridge, its manual page, its systemd unit and
#   its configuration file (a conffile), apart from the client's package so
#   that the client does not need libmosquitto.
# - kendrivex-fleet: the operator's client of the fleet, its manual page and
#   bash completion, for the operator's machine, which needs neither the
#   client nor the bridge.
#
# Each package is declared with kdx_debian_package (below), which gives it
# what Debian's package checker (lintian) asks of every package: the
# machine-readable copyright file and the Debian changelog in
# /usr/share/doc/<package>/, and the lintian overrides that apply to it, in
# /usr/share/lintian/overrides/<package> (each override with its reason on
# the comment line above it). A library package also gets its shlibs file
# and the ldconfig trigger; a package with configuration files its conffiles
# list, and one with systemd units the maintainer scripts that look after
# them. The texts are in cmake/debian/.

# Manual pages, installed gzip-compressed as Debian expects (man reads them
# either way). -n leaves name and time out, so that packages are reproducible.
# The programs' pages go with the programs; the library's with its header.
# The build keeps them in build/<preset>/share/man/man<section>/, beside the
# programs' build/<preset>/bin/: with that on PATH, man finds them there.
find_program(KDX_GZIP gzip REQUIRED)
set(kdxCompressed)
# kdx_gzip(<file> <compressed file>): a rule that compresses <file> into
# <compressed file>, run by every build.
function(kdx_gzip file compressed)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${KDX_GZIP} -9 -n -k -f ${file}
    COMMAND ${CMAKE_COMMAND} -E rename ${file}.gz ${compressed}
    DEPENDS ${file}
    COMMENT "Compressing ${name}"
    VERBATIM)
  set(kdxCompressed ${kdxCompressed} ${compressed} PARENT_SCOPE)
endfunction()

function(kdx_man_page page section component)
  set(copy ${PROJECT_BINARY_DIR}/man/${page})
  set(dir ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_DATAROOTDIR}/man/man${section})
  configure_file(${PROJECT_SOURCE_DIR}/man/${page} ${copy} COPYONLY)
  file(MAKE_DIRECTORY ${dir})
  kdx_gzip(${copy} ${dir}/${page}.gz)
  install(FILES ${dir}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  set(kdxCompressed ${kdxCompressed} PARENT_SCOPE)
endfunction()
kdx_man_page(kendrivex-cli.1 1 Unspecified)
kdx_man_page(kendrivex-ctl.1 1 Unspecified)
kdx_man_page(kendrivex-sim.1 1 Unspecified)
kdx_man_page(kendrivex_ipc.3 3 ipc_dev)
# kendrivex-bridge's and kendrivex-fleet's files are components of their own,
# their own packages.
kdx_man_page(kendrivex-bridge.8 8 bridge)
kdx_man_page(kendrivex-fleet.1 1 fleet)

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

# The project's name and address: the Maintainer field of every package, the
# contact and copyright holder in the copyright file and the signature of
# the changelog's entries. Set here and nowhere else.
# A plain variable, not a cache entry, so that a build configured before a
# change cannot keep the old name.
set(KDX_PACKAGE_MAINTAINER "Seed 38a510ad maintainers <maintainers@users.noreply.c-seed-38a510ad.example>")
if(NOT KDX_PACKAGE_MAINTAINER MATCHES "^([^<>]*[^<> ]) <[^<> ]+@[^<> ]+>$")
  message(FATAL_ERROR "KDX_PACKAGE_MAINTAINER must read \"name <address>\", not \"${KDX_PACKAGE_MAINTAINER}\"")
endif()
set(KDX_PACKAGE_COPYRIGHT_HOLDER "${CMAKE_MATCH_1}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kendrivex-cli)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KDX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Only the components declared with kdx_debian_package are packaged: anything
# else that installs files by mistake stays out of the packages.
set(CPACK_COMPONENTS_ALL)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(kdxDebianArch)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${kdxDebianArch})
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# CPack's own shlibs file would come with maintainer scripts that call
# ldconfig; kdx_debian_package writes the shlibs file itself and uses the
# ldconfig trigger instead, as Debian does.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
set(kdxDebianVersion ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
# Debian keeps configuration files in /etc and, on Debian 12, a package's
# systemd units in /lib/systemd/system, outside the prefix /usr. cmake
# --install puts them below the prefix it is given (etc/, lib/systemd/); the
# packages move them there in CPack's staging directory.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/outside_usr.cmake)

# The copyright file and the changelog, the same for every package. The
# changelog's latest entry must be for the version being packaged.
set(kdxDebianDir ${PROJECT_SOURCE_DIR}/cmake/debian)
set(kdxDebianBuildDir ${PROJECT_BINARY_DIR}/debian)
configure_file(${kdxDebianDir}/copyright.in ${kdxDebianBuildDir}/copyright @ONLY)
configure_file(${kdxDebianDir}/changelog ${kdxDebianBuildDir}/changelog.Debian @ONLY)
file(STRINGS ${kdxDebianDir}/changelog kdxChangelogTop LIMIT_COUNT 1)
if(NOT kdxChangelogTop MATCHES "^${PROJECT_NAME} \\(${kdxDebianVersion}\\) ")
  message(FATAL_ERROR "cmake/debian/changelog has no entry for ${kdxDebianVersion} at its top: "
    "add one for the version being packaged")
endif()
kdx_gzip(${kdxDebianBuildDir}/changelog.Debian ${kdxDebianBuildDir}/changelog.Debian.gz)
add_custom_target(kdx_compressed_files ALL DEPENDS ${kdxCompressed})

# kdx_debian_package(<component> <package> [LIBRARY <shared library target>]
#                    [CONFFILES <path>...] [SERVICES <systemd unit>...])
# Makes the install component <component> the Debian package <package>, with
# the copyright file, the changelog and its lintian overrides: those of every
# package (cmake/debian/lintian-overrides) followed by the package's own
# (cmake/debian/<package>.lintian-overrides), if any. These are installed
# with the component only (cmake --install of the whole tree leaves them
# out). With LIBRARY, the package holds that shared
# library: it gets a shlibs file, so that packages of programs linked against
# it get their dependency from dpkg-shlibdeps, and the ldconfig trigger, so
# that the library cache is updated without maintainer scripts. CONFFILES
# names the package's configuration files as installed (/etc/...): dpkg keeps
# an administrator's changes to them on upgrades. SERVICES names the systemd
# units the package installs: its maintainer scripts
# (cmake/debian/services.*.in) keep them disabled until the administrator
# enables them, restart a running one after an upgrade, stop it on removal
# and forget it on purge. The
# package's own control fields (section, dependencies, description) are set
# as CPACK_DEBIAN_<COMPONENT>_... beside the call.
function(kdx_debian_package component package)
  cmake_parse_arguments(ARG "" "LIBRARY" "CONFFILES;SERVICES" ${ARGN})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${kdxDebianBuildDir}/copyright ${kdxDebianBuildDir}/changelog.Debian.gz
    DESTINATION ${doc} COMPONENT ${component} EXCLUDE_FROM_ALL)
  # The overrides of every package, then the package's own.
  set(overrides ${kdxDebianBuildDir}/${package}/lintian-overrides)
  file(READ ${kdxDebianDir}/lintian-overrides text)
  set(own ${kdxDebianDir}/${package}.lintian-overrides)
  if(EXISTS ${own})
    file(READ ${own} ownText)
    string(APPEND text "${ownText}")
  endif()
  file(CONFIGURE OUTPUT ${overrides} CONTENT "${text}" @ONLY)
  install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  # The control files beside the control file itself.
  set(control ${kdxDebianBuildDir}/${package})
  set(extra)
  if(ARG_LIBRARY)
    get_target_property(soversion ${ARG_LIBRARY} SOVERSION)
    get_target_property(name ${ARG_LIBRARY} OUTPUT_NAME)
    if(NOT name)
      set(name ${ARG_LIBRARY})
    endif()
    file(WRITE ${control}/shlibs "lib${name} ${soversion} ${package} (>= ${kdxDebianVersion})\n")
    file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
    list(APPEND extra ${control}/shlibs ${control}/triggers)
  endif()
  if(ARG_CONFFILES)
    list(JOIN ARG_CONFFILES "\n" conffiles)
    file(WRITE ${control}/conffiles "${conffiles}\n")
    list(APPEND extra ${control}/conffiles)
  endif()
  if(ARG_SERVICES)
    # Each unit's name in single quotes, as the scripts' shell words.
    list(JOIN ARG_SERVICES "' '" KDX_UNITS)
    set(KDX_UNITS "'${KDX_UNITS}'")
    foreach(script postinst prerm postrm)
      configure_file(${kdxDebianDir}/services.${script}.in ${control}/${script} @ONLY)
      list(APPEND extra ${control}/${script})
    endforeach()
  endif()
  if(extra)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${extra}" PARENT_SCOPE)
  endif()
endfunction()

kdx_debian_package(Unspecified kendrivex-cli)
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
kdx_debian_package(ipc_runtime ${kdxIpcPackage} LIBRARY kendrivex_ipc)
set(CPACK_DEBIAN_IPC_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_IPC_RUNTIME_PACKAGE_DEPENDS "${kdxRuntimeDepends}")
set(CPACK_DEBIAN_IPC_RUNTIME_DESCRIPTION
  "client library for the device-control service
Lets programs written in C send requests to the device-control service and
read its replies, as kendrivex-cli does.")

kdx_debian_package(ipc_dev libkendrivex-ipc-dev)
set(CPACK_DEBIAN_IPC_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_IPC_DEV_PACKAGE_DEPENDS "${kdxIpcPackage} (= ${kdxDebianVersion})")
set(CPACK_DEBIAN_IPC_DEV_DESCRIPTION
  "client library for the device-control service - development files
The C header, the pkg-config file (kendrivex-ipc) and the link to the
library, for building programs that use ${kdxIpcPackage}.")

# The bridge: libmosquitto is the one library it needs beyond the others'.
# Its symbols are all in libmosquitto 1.6 (dpkg-shlibdeps says so for the
# amd64 build), but two options it sets came with 2.0: TCP_NODELAY on its
# connection, and the system's certificate authorities for TLS. Stated here,
# like the C and C++ libraries, because dpkg-shlibdeps does not serve the
# cross build.
kdx_debian_package(bridge kendrivex-bridge
  CONFFILES /etc/kendrivex/bridge.conf
  SERVICES kendrivex-bridge.service)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_DEPENDS "${kdxRuntimeDepends}, libmosquitto1 (>= 2.0)")
set(CPACK_DEBIAN_BRIDGE_DESCRIPTION
  "puts the device-control service on the fleet's MQTT broker
kendrivex-bridge publishes the device-control service's events on an MQTT
broker and takes commands from it (ping, stations, mac; send only when
allowed), one box's or every box's, answering each on the requester's
response topic. It says on retained topics whether it and the service are
there, keeps events while the broker is away, and speaks TLS with
certificate verification.
.
The systemd unit kendrivex-bridge.service is installed but not enabled: the
bridge needs this box's service socket and broker first. Set them in
/etc/kendrivex/bridge.conf, then run systemctl enable --now kendrivex-bridge.")

# The fleet's client, for the operator's machine: like the bridge, it needs
# libmosquitto 2.0; its web command serves HTTP with Debian's cpp-httplib
# library (0.11, whose soname carries its version).
kdx_debian_package(fleet kendrivex-fleet)
set(CPACK_DEBIAN_FLEET_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FLEET_PACKAGE_DEPENDS "${kdxRuntimeDepends}, libmosquitto1 (>= 2.0), libcpp-httplib0.11")
set(CPACK_DEBIAN_FLEET_DESCRIPTION
  "operator's client of the boxes on the fleet's MQTT broker
kendrivex-fleet lists the boxes that kendrivex-bridge puts on an MQTT broker
(online or offline, service up or down), runs a command on all of them,
some or one and gathers every answer (correlated, ending as soon as the last
box has answered, exiting non-zero when some did not), prints their events
as they come, and forgets boxes that are gone for good. Plain or JSON
output; what the boxes send is checked and never reaches the terminal raw.
kendrivex-fleet web serves a live page of the boxes and a small HTTP API to
browsers, loopback only unless a password is set.")

include(CPack)
