#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and only those
# that are missing, so a machine that has them all is not touched.
set -euo pipefail
packages=(cmake make g++ clang pkg-config libssl-dev libsqlite3-dev libjsoncpp-dev
          libgtest-dev libbenchmark-dev libmsgpack-dev sqlite3 openssl python3 passwd faketime strace)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
