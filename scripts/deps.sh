#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and nothing when
# they are all there already. Arguments name a build (release, asan, tsan,
# size, armhf, which adds the cross compiler, the emulator and the armhf
# libraries of the bridge unpacked under build/, or coverage, which adds
# gcovr) or extra packages.
set -euo pipefail

# ccache keeps compiled objects outside the clone for the next build;
# nlohmann-json3-dev is header-only and serves the cross build too;
# bash-completion loads the completion that the tests try; libclang-rt-14-dev
# carries the input splitter that the fuzz targets use (the test run replays
# them in every build); jq is in the README's examples, which a test runs.
# kendrivex-bridge links libmosquitto; its tests run a broker of their own
# (mosquitto), make its certificates (openssl) and check its systemd unit
# (systemd-analyze, from systemd). kendrivex-fleet web serves HTTP with
# cpp-httplib (libcpp-httplib-dev: its library, and the headers of OpenSSL,
# zlib and brotli that its header needs).
packages=(cmake ninja-build ccache g++ make googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  bash-completion libclang-rt-14-dev jq libmosquitto-dev mosquitto mosquitto-clients openssl systemd
  libcpp-httplib-dev)
sysroot=false
for arg in "$@"; do
  case "$arg" in
    # The release build's tests include the fleet page's, in Debian's
    # headless Chromium (node and npm, which they also need, come with the
    # machine's Node.js).
    release) packages+=(chromium) ;;
    asan|tsan|size) ;;
    armhf)
      packages+=(g++-arm-linux-gnueabihf qemu-user)
      sysroot=true
      ;;
    coverage) packages+=(gcovr) ;;
    *) packages+=("$arg") ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null || true)
  if ! grep -q 'install ok installed' <<<"$status"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -ne 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  # Another apt-get (a second script installing at the same time) holds
  # dpkg's lock for a while: wait for it rather than fail.
  lock_wait=(-o DPkg::Lock::Timeout=600)
  if ! $sudo apt-get "${lock_wait[@]}" install -y --no-install-recommends "${missing[@]}"; then
    $sudo apt-get "${lock_wait[@]}" update
    $sudo apt-get "${lock_wait[@]}" install -y --no-install-recommends "${missing[@]}"
  fi
fi
if [ "$sysroot" = true ]; then
  "$(dirname "$0")/armhf_sysroot.sh"
fi
