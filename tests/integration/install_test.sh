#!/usr/bin/env bash
# install_test.sh BUILD_DIR CONSUMER_DIR [CXXFLAGS]
# Installs BUILD_DIR into a temporary prefix, checks the installed tool and
# files, then builds and runs CONSUMER_DIR against the prefix twice: with
# CMake's find_package(ferrow) and with pkg-config. Removes everything it
# made on exit.
set -euo pipefail
build=$1 consumer=$2 flags=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

help=$("$prefix/bin/ferrow" --help)
for command in watch list get register update; do
  grep -q "^  $command " <<<"$help" || { echo "installed ferrow --help does not describe '$command'"; exit 1; }
done
for f in include/ferrow/service_watcher.h include/ferrow/service_registration.h \
         include/logger/logger.h include/utility/observable.h include/messaging/ferrow/service.pb.h; do
  [ -f "$prefix/$f" ] || { echo "not installed: $f"; exit 1; }
done

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/configure.log" 2>&1 \
  || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
[ "$("$work/cmake-build/consumer")" = ok ] || { echo "find_package consumer failed"; exit 1; }

pcdir=$(dirname "$(find "$prefix" -name ferrow.pc | head -1)")
# shellcheck disable=SC2046,SC2086
c++ -std=c++17 $flags -o "$work/pc-consumer" "$consumer/main.cpp" \
  $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs ferrow)
[ "$("$work/pc-consumer")" = ok ] || { echo "pkg-config consumer failed"; exit 1; }
echo "installed package works with find_package and pkg-config"
