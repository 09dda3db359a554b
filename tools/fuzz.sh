#!/bin/sh
# Builds the libFuzzer target of the wire decoder with clang (AddressSanitizer
# and UndefinedBehaviorSanitizer) and runs it for SECONDS (default 60).
# Exit 77 when clang++ is missing, so ctest reports a skip.
#
#   tools/fuzz.sh [SECONDS]        FUZZ_BUILD=dir overrides build-fuzz/
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/build-fuzz}
cxx=${FUZZ_CXX:-clang++}

if ! command -v "$cxx" >/dev/null 2>&1; then
  echo "fuzz: $cxx not found, skipping"
  exit 77
fi

flags="-std=c++17 -g -O1 -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -I$root"
mkdir -p "$build/obj" "$build/corpus"

# The decoder and what it stands on: the value, the encoding, the Channel
# with its I/O primitives, and the logger.
sources="$(ls "$root"/stream/*.cc) $root/net/channel.cc
         $(ls "$root"/net/cat/*.cc) $(ls "$root"/log/*.cc) $root/tests/fuzz/pstream_fuzz.cc"
objects=""
for src in $sources; do
  obj="$build/obj/$(echo "${src#$root/}" | tr / _).o"
  objects="$objects $obj"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find "$root/stream" "$root/net" "$root/log" -name '*.h' -newer "$obj" 2>/dev/null | head -n 1)" ]; then
    echo "fuzz: compiling ${src#$root/}"
    $cxx $flags -c "$src" -o "$obj"
  fi
done
$cxx -fsanitize=fuzzer,address,undefined $objects -lssl -lcrypto -lpthread -o "$build/pstream_fuzz"

# New inputs go to the build folder; the committed seeds stay as they are.
# Received files go to a scratch folder of this run, removed afterwards.  The
# target limits the size of every file it writes, so its output goes through
# a pipe, never straight into a log file.
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export PSTREAM_FUZZ_DIR="$build/files-$$"
status="$build/status-$$"
{ "$build/pstream_fuzz" -max_total_time="$seconds" -rss_limit_mb=1024 -malloc_limit_mb=64 \
    -timeout=10 -max_len=4096 -artifact_prefix="$build/" -print_final_stats=1 \
    "$build/corpus" "$root/tests/fuzz/corpus" 2>&1; echo $? > "$status"; } | cat
rc=$(cat "$status")
rm -rf "$PSTREAM_FUZZ_DIR" "$status"
exit "$rc"
