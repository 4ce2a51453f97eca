# Cross build for the device: 32-bit ARM, hard-float, glibc, with Debian's
# arm-linux-gnueabihf tool chain (package g++-arm-linux-gnueabihf). Target
# executables run on the build machine through qemu-user (package qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KDX_TARGET_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KDX_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KDX_TARGET_TRIPLE}-g++)

# GCC notes, for many standard-library templates, that their parameter
# passing on ARM changed in GCC 7.1. Everything here is built by one compiler,
# so the notes are noise that would bury real diagnostics.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Debian's cross C library, libstdc++ and dynamic loader live here.
set(KDX_TARGET_ROOT /usr/${KDX_TARGET_TRIPLE})
# libmosquitto and the libssl it needs come from Debian's armhf packages,
# unpacked here by scripts/armhf_sysroot.sh rather than installed. The link
# finds libmosquitto's own dependencies through -rpath-link.
get_filename_component(KDX_TARGET_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf" ABSOLUTE)
set(KDX_TARGET_SYSROOT_LIBS ${KDX_TARGET_SYSROOT}/usr/lib/${KDX_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${KDX_TARGET_ROOT} ${KDX_TARGET_SYSROOT})
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KDX_TARGET_SYSROOT_LIBS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KDX_TARGET_SYSROOT_LIBS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# No binfmt_misc registration is assumed, so every target executable that
# CTest or the test discovery starts goes through the emulator explicitly;
# -L makes the emulator load the target's libraries from the cross root, and
# the library path set for the emulated program (-E) adds the unpacked ones.
find_program(KDX_QEMU_ARM qemu-arm)
if(NOT KDX_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found (install the Debian package 'qemu-user')")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${KDX_QEMU_ARM} -L ${KDX_TARGET_ROOT} -E LD_LIBRARY_PATH=${KDX_TARGET_SYSROOT_LIBS})
