#!/usr/bin/env bash
# Builds the Debian packages with CPack from builds for size (-Os, link-time
# optimised, unreferenced sections collected): amd64 from the host size build
# (preset size: the programs and library without the tests), armhf (the
# device) from the cross build, which is a size build with every test.
# Usage: scripts/package.sh [amd64] [armhf] (both when none is named). The
# packages are put in build/packages/.
#
# The builds are configured to install under /usr with Debian's multiarch
# library directory, as the packages do; `cmake --install <build> --prefix
# <dir>` still installs anywhere else. KDX_BUILD_ROOT (default: build) names
# the directory that holds the size and armhf build directories.
set -euo pipefail
cd "$(dirname "$0")/.."

archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(amd64 armhf)
build_root="${KDX_BUILD_ROOT:-build}"
out=build/packages
mkdir -p "$out"

for arch in "${archs[@]}"; do
  case "$arch" in
    amd64) preset=size; triplet=x86_64-linux-gnu ;;
    armhf) preset=armhf; triplet=arm-linux-gnueabihf ;;
    *) echo "unknown architecture '$arch': amd64 or armhf" >&2; exit 2 ;;
  esac
  scripts/deps.sh "$preset"
  dir="$build_root/$preset"
  start=$(date +%s)
  cmake --preset "$preset" -B "$dir" \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$triplet" >/dev/null
  cmake --build "$dir"
  rm -f "$dir"/*.deb "$out"/*_"$arch".deb
  (cd "$dir" && cpack >/dev/null)
  mv "$dir"/*.deb "$out"/
  echo "packages ($arch) took $(( $(date +%s) - start )) s:"
  ls -l "$out"/*_"$arch".deb
done
