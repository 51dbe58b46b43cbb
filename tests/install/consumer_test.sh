#!/bin/bash
# Installs Quillon from the build tree into a fresh prefix, then builds
# examples/hello outside the source tree against that copy twice — once
# through find_package(Quillon), once through pkg-config — and runs each
# build on a new package. Usage: consumer_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/quillon-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT
export XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data

cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
test -f "$work/prefix/include/quillon/quillon.h"
if find "$work/prefix/include" -path '*/internal/*' | grep -q .; then
  echo "internal headers were installed" >&2
  exit 1
fi

# 1. A CMake project that finds the installed package.
cp -r "$source/examples/hello" "$work/cmake-project"
cmake -S "$work/cmake-project" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release > "$work/configure.log"
cmake --build "$work/cmake-build" > "$work/build.log"
"$work/cmake-build/hello" "$work/One.quillon" > "$work/first.out"
"$work/cmake-build/hello" "$work/One.quillon" > "$work/second.out"
grep -q '^1 notes:' "$work/first.out"
grep -q '^2 notes:' "$work/second.out"

# 2. A plain compiler call with the flags pkg-config gives.
export PKG_CONFIG_PATH=$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig
c++ -O1 -o "$work/hello-pc" "$source/examples/hello/main.cc" $(pkg-config --cflags --libs quillon)
"$work/hello-pc" "$work/Two.quillon" > "$work/pc.out"
grep -q '^1 notes:' "$work/pc.out"
echo "find_package and pkg-config consumers built and ran"
