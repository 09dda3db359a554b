#!/usr/bin/env bash
# Makes what an ARM hard-float build and its tests need, only what is
# missing and quietly: Debian's cross compiler and qemu-user as host
# packages, and the armhf libraries unpacked into SYSROOT, never installed
# on the host (the host's amd64 libraries and Debian's armhf index may be
# a point release apart, which makes a multiarch install fail).  The
# armhf index lives in SYSROOT's own apt folder, so the host's apt state is
# not touched.
#
#   tools/setup-armhf.sh SYSROOT
set -euo pipefail
sysroot=${1:?usage: tools/setup-armhf.sh SYSROOT}
here=$(cd "$(dirname "$0")" && pwd)
"$here/setup.sh"

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

host_packages=(g++-arm-linux-gnueabihf qemu-user)
missing=()
for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The libraries the programs and the tests link and load, with what they
# need at run time.  libssl3 brings OpenSSL's legacy provider
# (ossl-modules/legacy.so), which the proxy-password cipher needs.
sysroot_packages=(libc6 libgcc-s1 libstdc++6 libssl3 libssl-dev libsqlite3-0 libsqlite3-dev
                  libjsoncpp25 libjsoncpp-dev libgtest-dev libgmock-dev)
stamp="$sysroot/.packages"
[ -f "$stamp" ] && [ "$(cat "$stamp")" = "${sysroot_packages[*]}" ] && exit 0

echo "fetching armhf packages into $sysroot"
apt_dir="$sysroot.apt"
rm -rf "$apt_dir/debs"
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs"
touch "$apt_dir/status"
apt_armhf() {
  apt-get -qq -o Dir::State="$apt_dir" -o Dir::State::Lists="$apt_dir/lists" \
    -o Dir::State::status="$apt_dir/status" -o Dir::Cache="$apt_dir/cache" \
    -o APT::Architecture=armhf -o APT::Architectures::=armhf "$@"
}

# A mirror caught mid-sync serves an index of the wrong size; another try a
# little later usually gets a whole one.  An index that still fails is left
# out (apt says so); the download below then decides.
for attempt in 1 2 3; do
  apt_armhf update 2>"$apt_dir/update.err" && break
  if [ "$attempt" -eq 3 ]; then
    echo "warning: part of Debian's armhf index could not be fetched:"
    cat "$apt_dir/update.err"
  else
    sleep $((attempt * 5))
  fi
done

fetched=0
for attempt in 1 2 3; do
  if (cd "$apt_dir/debs" && apt_armhf download "${sysroot_packages[@]/%/:armhf}" 2>"$apt_dir/download.err"); then
    fetched=1
    break
  fi
  [ "$attempt" -eq 3 ] || sleep $((attempt * 5))
done
if [ "$fetched" -ne 1 ]; then
  echo "error: Debian's package registry refused the armhf packages after 3 tries:" >&2
  cat "$apt_dir/download.err" >&2
  echo "error: no ARM sysroot, so the ARM build and its tests cannot run" >&2
  exit 1
fi

rm -rf "$sysroot"
mkdir -p "$sysroot"
for p in "${sysroot_packages[@]}"; do
  deb=$(ls "$apt_dir/debs/${p}"_*_armhf.deb)
  dpkg-deb -x "$deb" "$sysroot"
done
echo "${sysroot_packages[*]}" > "$stamp"
