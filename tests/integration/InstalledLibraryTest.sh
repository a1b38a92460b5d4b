#!/bin/sh
# Installs the library into a scratch prefix and builds the example against it in both ways that other projects do.
#
#   InstalledLibraryTest.sh build-directory compiler
set -eu
build=$1
compiler=$2
tests=$(cd "$(dirname "$0")" && pwd)
example=$tests/../../examples/discover.cpp
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
  echo "InstalledLibraryTest: $1" >&2
  exit 1
}

# No daemon serves an empty device, and the example says so.
expect_refusal() {
  mkdir -p "$scratch/device"
  status=0
  VANTREL_ROOT=$scratch/device LD_LIBRARY_PATH=$libraries timeout 10 "$1" com.example.none \
    >"$scratch/out" 2>"$scratch/err" || status=$?
  [ "$status" = 1 ] || fail "$1 ended with $status: $(cat "$scratch/err")"
  grep -q '^discover: ' "$scratch/err" || fail "$1 does not say what is wrong: $(cat "$scratch/err")"
}

cmake --install "$build" --prefix "$scratch/prefix" --component library >"$scratch/log" || fail "$(cat "$scratch/log")"
libraries=$(dirname "$(find "$scratch/prefix" -name libVornik.so.3)")

for header in "$scratch"/prefix/include/Vornik/*.h; do
  echo "#include \"Vornik/$(basename "$header")\""
done >"$scratch/headers.cpp"
PKG_CONFIG_PATH=$libraries/pkgconfig
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags vornik)
# shellcheck disable=SC2086  # flags are words
"$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror $flags -fsyntax-only "$scratch/headers.cpp"
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $flags "$example" -o "$scratch/discover" $(pkg-config --libs vornik)
expect_refusal "$scratch/discover"

cmake -S "$tests/InstalledLibrary" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DEXAMPLE="$example" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
cmake --build "$scratch/build" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
expect_refusal "$scratch/build/discover"
