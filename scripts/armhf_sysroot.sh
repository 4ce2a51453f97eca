#!/usr/bin/env bash
# The armhf libraries that the tools on MQTT link, taken from Debian's armhf
# packages and unpacked into build/sysroot-armhf: libmosquitto and the libssl
# it needs (kendrivex-bridge, kendrivex-fleet), and cpp-httplib with the
# libraries it needs and the headers its header includes (kendrivex-fleet
# web: see cmake/KdxHttplib.cmake). The cross build finds them there (headers, and the
# libraries through -rpath-link), and qemu-arm through its library path; they
# are never installed into the system. Idempotent: a sysroot that holds the
# packages already is left as it is (remove the folder to fetch them anew).
# Usage: scripts/armhf_sysroot.sh
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=build/sysroot-armhf
packages=(libmosquitto1 libmosquitto-dev libssl3 libcpp-httplib0.11 libcpp-httplib-dev libssl-dev zlib1g zlib1g-dev libbrotli1 libbrotli-dev)
stamp="$sysroot/.packages"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]}" ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

# apt-get download needs armhf among dpkg's architectures and an armhf index.
# The update may exit non-zero when one foreign index cannot be had (not every
# source serves armhf); the main armhf index is all that this needs, so only
# the candidate below decides.
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $sudo dpkg --add-architecture armhf
fi
# The policy is read whole before it is searched: grep -q stops at its first
# match, and under pipefail apt-cache's SIGPIPE would count as a failure.
has_candidate() {
  local policy
  policy=$(apt-cache policy "$1:armhf" 2>/dev/null)
  grep -q 'Candidate: [0-9]' <<<"$policy"
}
if ! has_candidate libmosquitto1; then
  $sudo apt-get -o DPkg::Lock::Timeout=600 update || echo "armhf_sysroot: apt-get update failed in part; going on with what it got" >&2
fi
for package in "${packages[@]}"; do
  has_candidate "$package" || { echo "armhf_sysroot: no armhf package $package" >&2; exit 1; }
done

download=$(mktemp -d "${TMPDIR:-/tmp}/kdx-sysroot.XXXXXX")
trap 'rm -rf "$download"' EXIT
# apt-get download writes into the working directory; as root it warns that
# the download is not sandboxed, which is harmless here.
(cd "$download" && apt-get download "${packages[@]/%/:armhf}")

rm -rf "$sysroot"
mkdir -p "$sysroot"
for deb in "$download"/*.deb; do
  dpkg -x "$deb" "$sysroot"
done
# zlib1g still installs into /lib: its library goes where the others are, as
# on a system whose /lib is /usr/lib, and the development link that points to
# it by an absolute path points to it there.
if [ -d "$sysroot/lib" ]; then
  cp -a "$sysroot/lib/." "$sysroot/usr/lib/"
  rm -rf "$sysroot/lib"
fi
for link in "$sysroot"/usr/lib/arm-linux-gnueabihf/*.so; do
  target=$(readlink "$link" || true)
  if [[ $target == /lib/* ]]; then ln -sf "$(basename "$target")" "$link"; fi
done
echo "${packages[*]}" >"$stamp"
echo "armhf_sysroot: unpacked ${packages[*]} into $sysroot"
