#!/bin/sh
# Builds one libFuzzer target of fuzz/ with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs it for SECONDS (default 60); "all" runs
# every target in turn.  Exit 77 when clang++ is missing, so ctest reports a
# skip.
#
#   tools/fuzz.sh TARGET|all [SECONDS]     FUZZ_BUILD=dir overrides build-fuzz/
#
# A target is fuzz/TARGET.cc; its seeds are fuzz/corpus-TARGET/
# (the wire decoder's: fuzz/corpus/), the inputs it finds go to
# build-fuzz/corpus-TARGET/.  -max_len follows the largest seed (at least
# 4096 bytes).
set -eu

target=${1:?usage: tools/fuzz.sh TARGET|all [SECONDS]}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/build-fuzz}
cxx=${FUZZ_CXX:-clang++}

if [ "$target" = all ]; then
  for src in "$root"/fuzz/*.cc; do
    "$0" "$(basename "$src" .cc)" "$seconds"
  done
  exit 0
fi

if ! command -v "$cxx" >/dev/null 2>&1; then
  echo "fuzz: $cxx not found, skipping"
  exit 77
fi

# Every library a target may stand on, built once into one archive; the
# linker takes from it only what the target uses.
dirs="log platform stream net net/cat config db sdk/fslib"
libs=$(pkg-config --libs jsoncpp sqlite3 openssl 2>/dev/null || echo "-ljsoncpp -lsqlite3 -lssl -lcrypto")
flags="-std=c++17 -g -O1 -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
       -I$root $(pkg-config --cflags jsoncpp 2>/dev/null || echo -I/usr/include/jsoncpp)"
mkdir -p "$build/obj" "$build/corpus-$target"

# One build at a time per build folder (ctest may start several targets).
exec 9>"$build/build.lock"
flock 9

headers=$(for d in $dirs; do ls "$root/$d"/*.h; done)
newest_header=$(ls -t $headers | head -n 1)
stale=""
objects=""
for src in $(for d in $dirs; do ls "$root/$d"/*.cc; done) "$root/fuzz/$target.cc"; do
  obj="$build/obj/$(echo "${src#$root/}" | tr / _).o"
  [ "$src" = "$root/fuzz/$target.cc" ] || objects="$objects $obj"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ "$newest_header" -nt "$obj" ]; then
    stale="$stale $src"
  fi
done
if [ -n "$stale" ]; then
  echo "fuzz: compiling$(echo "$stale" | sed "s|$root/||g")"
  # shellcheck disable=SC2016
  printf '%s\n' $stale | xargs -P "${FUZZ_JOBS:-2}" -I{} sh -c \
    'src={}; exec $0 $1 -c "$src" -o "$2/$(echo "${src#$3/}" | tr / _).o"' "$cxx" "$flags" "$build/obj" "$root"
  rm -f "$build/libvesta.a"
fi
[ -f "$build/libvesta.a" ] || ar rcs "$build/libvesta.a" $objects
main="$build/obj/fuzz_$target.cc.o"
if [ ! -x "$build/$target" ] || [ "$main" -nt "$build/$target" ] || [ "$build/libvesta.a" -nt "$build/$target" ]; then
  $cxx -fsanitize=fuzzer,address,undefined "$main" "$build/libvesta.a" $libs -lpthread -o "$build/$target"
fi
flock -u 9

seeds="$root/fuzz/corpus-$target"
[ "$target" != pstream_fuzz ] || seeds="$root/fuzz/corpus"
# New inputs go to the build folder; the committed seeds stay as they are.
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
status="$build/status-$$"
{ "$build/$target" -max_total_time="$seconds" -rss_limit_mb=1024 -malloc_limit_mb=64 \
    -timeout=10 -close_fd_mask=3 -artifact_prefix="$build/$target-" -print_final_stats=1 \
    "$build/corpus-$target" "$seeds" 2>&1; echo $? > "$status"; } | cat
rc=$(cat "$status")
rm -f "$status"
exit "$rc"
