#!/usr/bin/env bash
# install_test.sh BUILD_DIR CONSUMER_DIR EXAMPLE [CXXFLAGS]
# Installs BUILD_DIR into a temporary prefix, runs the installed tool, then
# builds the README's EXAMPLE program against the prefix twice,
# with CMake's find_package(ferrow) (the project in CONSUMER_DIR) and with
# pkg-config, and runs each build: without arguments it must print its usage
# and exit 2. Removes everything it made on exit.
set -euo pipefail
build=$1 consumer=$2 example=$3 flags=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# grep reads the whole help (no -q): the tool must not die of a closed pipe.
"$prefix/bin/ferrow" --help | grep "^  register " >/dev/null || { echo "the installed tool does not run"; exit 1; }
[ "$("$prefix/bin/ferrow" --version)" = "ferrow $(sed -n 's/^Version: //p' "$(find "$prefix" -name ferrow.pc)")" ] \
  || { echo "ferrow --version does not print the package's version"; exit 1; }

usage_of() { local status=0; "$1" 2>&1 >/dev/null || status=$?; [ "$status" = 2 ]; }
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DEXAMPLE="$example" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/configure.log" 2>&1 \
  || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
usage_of "$work/cmake-build/consumer" | grep -q usage || { echo "find_package consumer failed"; exit 1; }

pcdir=$(dirname "$(find "$prefix" -name ferrow.pc | head -1)")
# shellcheck disable=SC2046,SC2086
c++ -std=c++17 $flags -o "$work/pc-consumer" "$example" \
  $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs ferrow)
usage_of "$work/pc-consumer" | grep -q usage || { echo "pkg-config consumer failed"; exit 1; }
echo "installed package works with find_package and pkg-config"
