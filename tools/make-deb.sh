#!/usr/bin/env bash
# Packs what `cmake --install` puts in a tree into
# BUILD/vesta-monitor_<version>_<ARCH>.deb with dpkg-deb, then checks it
# with lintian (installed when missing): an error fails the build.  BUILD
# must be configured with the prefix /usr and hold both programs built.
#
#   tools/make-deb.sh BUILD ARCH
set -euo pipefail
build=$(cd "${1:?usage: tools/make-deb.sh BUILD ARCH}" && pwd)
arch=${2:?usage: tools/make-deb.sh BUILD ARCH}
src=$(cd "$(dirname "$0")/.." && pwd)
if [ "$arch" != armhf ] && [ "$arch" != "$(dpkg --print-architecture)" ]; then
  echo "make-deb: builds for this machine's architecture or armhf, not $arch" >&2
  exit 1
fi

cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
version=$(cache CMAKE_PROJECT_VERSION)
prefix=$(cache CMAKE_INSTALL_PREFIX)
[ "$prefix" = /usr ] || { echo "make-deb: $build is configured for $prefix, not /usr" >&2; exit 1; }

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR="$stage/root" cmake --install "$build" --strip >/dev/null
root=$stage/root
# Debian keeps manual pages compressed, and a package's notes in its doc folder.
find "$root/usr/share/man" -type f -exec gzip -9n {} +
doc=$root/usr/share/doc/vesta-monitor
# Dated by the last commit, so that the same tree gives the same notes.
when=$(git -C "$src" log -1 --format=%ct 2>/dev/null || date +%s)
mkdir -p "$doc"
cat > "$doc/copyright" <<EOF
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: vesta-monitor

Files: *
Copyright: $(date -u -d "@$when" +%Y) the vesta-monitor developers
License: all-rights-reserved
 All rights reserved.
EOF
cat <<EOF | gzip -9n > "$doc/changelog.gz"
vesta-monitor ($version) unstable; urgency=medium

  * Version $version.

 -- vesta-monitor developers <vesta-monitor@example.org>  $(date -u -R -d "@$when")
EOF
chmod 0644 "$doc"/*

# What dpkg-shlibdeps finds for the amd64 build; written out, since it cannot
# ask about armhf libraries that are only unpacked, never installed.
depends="libc6 (>= 2.34), libgcc-s1 (>= 3.0), libjsoncpp25 (>= 1.9.5), libsqlite3-0 (>= 3.5.9),"
depends+=" libssl3 (>= 3.0.0), libstdc++6 (>= 11)"

mkdir -p "$root/DEBIAN"
echo /etc/vesta-monitor.conf > "$root/DEBIAN/conffiles"
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
   xargs -0 md5sum) > "$root/DEBIAN/md5sums"
cat > "$root/DEBIAN/control" <<EOF
Package: vesta-monitor
Version: $version
Architecture: $arch
Maintainer: vesta-monitor developers <vesta-monitor@example.org>
Installed-Size: $(du -sk --exclude=DEBIAN "$root" | cut -f1)
Depends: $depends
Section: admin
Priority: optional
Description: monitor daemon of a folder-synchronisation client
 vesta-monitor runs beside the sync daemon on a network-attached storage
 server: it follows the sync daemon's connections, asks remote servers
 which shared folders they offer, reacts to events of the local shared
 folders and turns every error into stored state, commands to the sync
 daemon and notifications to administrators.  vesta-monitorctl sends it
 requests and shows what the system database holds.
EOF

deb=$build/vesta-monitor_${version}_${arch}.deb
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"

if ! command -v lintian >/dev/null; then
  echo "installing: lintian"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends lintian >/dev/null
fi
lintian --fail-on error "$deb"
