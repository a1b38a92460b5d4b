#!/bin/sh
# Installs the library into a scratch prefix and builds the example against it in both ways that other projects do, in an
# empty folder with nothing of the source tree in reach; runs it with the daemon and without.
#
#   InstalledLibraryTest.sh build-directory compiler
set -eu
build=$1
compiler=$2
tests=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
daemon=
trap '[ -z "$daemon" ] || kill "$daemon"; rm -rf "$scratch"' EXIT

fail() {
  echo "InstalledLibraryTest: $1" >&2
  exit 1
}

# Ends with the status; what it printed is in "out" and "err".
run() {
  status=0
  VANTREL_ROOT=$scratch/device LD_LIBRARY_PATH=$libraries timeout 10 "$@" >"$scratch/out" 2>"$scratch/err" || status=$?
}

expect_refusal() {
  run "$1" com.example.none
  [ "$status" = 1 ] || fail "$1 ended with $status: $(cat "$scratch/err")"
  grep -q '^discover: ' "$scratch/err" || fail "$1 does not say what is wrong: $(cat "$scratch/err")"
}

start_daemon() {
  VANTREL_ROOT=$scratch/device "$build/vkd" 2>"$scratch/log" &
  daemon=$!
  for _ in $(seq 100); do
    [ ! -S "$scratch/device/run/zyp/com.vantrel.vornik.vkd" ] || return 0
    sleep 0.1
  done
  fail "the daemon does not listen: $(cat "$scratch/log")"
}

cmake --install "$build" --prefix "$scratch/prefix" --component library >"$scratch/log" || fail "$(cat "$scratch/log")"
libraries=$(dirname "$(find "$scratch/prefix" -name libVornik.so.3)")

mkdir "$scratch/project"
cp "$tests/../../examples/discover.cpp" "$tests/InstalledLibrary/CMakeLists.txt" "$scratch/project"
cp -R "$tests/../../share/device" "$scratch/device"
cd "$scratch/project"
for header in "$scratch"/prefix/include/Vornik/*.h; do
  echo "#include \"Vornik/$(basename "$header")\""
done >"$scratch/headers.cpp"
PKG_CONFIG_PATH=$libraries/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags vornik)
# shellcheck disable=SC2086  # flags are words
"$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror $flags -fsyntax-only "$scratch/headers.cpp"
# shellcheck disable=SC2086
"$compiler" -std=c++17 $flags -fsyntax-only "$scratch/headers.cpp" 2>"$scratch/err" && fail "C++17 is taken"
grep -m 1 'error' "$scratch/err" | grep -q 'Vornik needs C++20' || fail "C++17 is refused otherwise: $(head "$scratch/err")"
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $flags discover.cpp -o "$scratch/discover" $(pkg-config --libs vornik)
expect_refusal "$scratch/discover"

cmake -S . -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" -DCMAKE_CXX_COMPILER="$compiler" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
cmake --build "$scratch/build" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
expect_refusal "$scratch/build/discover"

start_daemon
run "$scratch/build/discover" com.vantrel.photo-editing
grep -q '^com.vantrel.crop [0-9.]*$' "$scratch/out" || fail "nothing is discovered: $(cat "$scratch/out" "$scratch/err")"
