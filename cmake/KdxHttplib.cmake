# cpp-httplib, the HTTP server of kendrivex-fleet web (and the client of its
# tests): Debian's libcpp-httplib-dev. Debian builds it as a shared library
# (libcpp-httplib.so.0.11, with OpenSSL, zlib and brotli) and ships in
# httplib.h the declarations only. Code that includes the header must be
# compiled with the library's three options, which change the layout of its
# classes (a request holds the TLS connection it came on), and so needs
# OpenSSL's, zlib's and brotli's headers too; kendrivex-fleet serves no TLS
# itself all the same. On the build machine the package brings them all;
# for the armhf build, scripts/armhf_sysroot.sh unpacks Debian's armhf
# packages of the library and of those headers (OpenSSL's configuration is
# per architecture) under build/, where the cross tool chain file looks.
find_path(KDX_HTTPLIB_INCLUDE_DIR httplib.h)
find_library(KDX_HTTPLIB_LIBRARY cpp-httplib)
find_path(KDX_HTTPLIB_OPENSSL_INCLUDE_DIR openssl/ssl.h)
find_path(KDX_HTTPLIB_OPENSSL_CONFIG_DIR openssl/configuration.h)
if(NOT KDX_HTTPLIB_INCLUDE_DIR OR NOT KDX_HTTPLIB_LIBRARY OR NOT KDX_HTTPLIB_OPENSSL_INCLUDE_DIR
   OR NOT KDX_HTTPLIB_OPENSSL_CONFIG_DIR)
  if(CMAKE_CROSSCOMPILING)
    message(FATAL_ERROR "cpp-httplib for the target not found (run scripts/armhf_sysroot.sh)")
  endif()
  message(FATAL_ERROR "cpp-httplib not found (install the Debian package 'libcpp-httplib-dev')")
endif()

add_library(Kdx::Httplib UNKNOWN IMPORTED)
set_target_properties(Kdx::Httplib PROPERTIES
  IMPORTED_LOCATION ${KDX_HTTPLIB_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES
    "${KDX_HTTPLIB_INCLUDE_DIR};${KDX_HTTPLIB_OPENSSL_INCLUDE_DIR};${KDX_HTTPLIB_OPENSSL_CONFIG_DIR}"
  INTERFACE_COMPILE_DEFINITIONS "CPPHTTPLIB_OPENSSL_SUPPORT;CPPHTTPLIB_ZLIB_SUPPORT;CPPHTTPLIB_BROTLI_SUPPORT")
