# libmosquitto, the MQTT client library of kendrivex-bridge (and of its tests'
# own client): Debian's libmosquitto-dev on the build machine; for the armhf
# build, Debian's armhf packages unpacked by scripts/armhf_sysroot.sh, which
# the cross tool chain file puts on the search path. Only the bridge and its
# tests link it: the client and its packages stay free of it.
find_path(KDX_MOSQUITTO_INCLUDE_DIR mosquitto.h)
find_library(KDX_MOSQUITTO_LIBRARY mosquitto)
if(NOT KDX_MOSQUITTO_INCLUDE_DIR OR NOT KDX_MOSQUITTO_LIBRARY)
  if(CMAKE_CROSSCOMPILING)
    message(FATAL_ERROR "libmosquitto for the target not found (run scripts/armhf_sysroot.sh)")
  endif()
  message(FATAL_ERROR "libmosquitto not found (install the Debian package 'libmosquitto-dev')")
endif()

add_library(Kdx::Mosquitto UNKNOWN IMPORTED)
set_target_properties(Kdx::Mosquitto PROPERTIES
  IMPORTED_LOCATION ${KDX_MOSQUITTO_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${KDX_MOSQUITTO_INCLUDE_DIR})
