#!/usr/bin/env bash
# install_test.sh prefix BUILD_DIR CONSUMER_DIR EXAMPLE [CXXFLAGS]
#   Installs BUILD_DIR into a temporary prefix.
# install_test.sh deb PACKAGE_DIR CONSUMER_DIR EXAMPLE
#   Installs the Debian packages of PACKAGE_DIR (scripts/package) with
#   dpkg -i, and removes them on exit unless they were installed before; a
#   user who is not root gets them unpacked into a throwaway root instead.
#   Checks the systemd unit with systemd-analyze where systemd is present.
# Either way, runs the installed tool, then builds the README's EXAMPLE
# program against the installed files twice, with CMake's
# find_package(ferrow) (the project in CONSUMER_DIR) and with pkg-config,
# and runs each build: without arguments it must print its usage and exit 2.
# Removes everything it made on exit.
set -euo pipefail
mode=$1 from=$2 consumer=$3 example=$4 flags=${5:-}
work=$(mktemp -d)
remove=()
cleanup() {
  if [ ${#remove[@]} -gt 0 ]; then dpkg --purge "${remove[@]}" >/dev/null 2>&1 || echo "could not remove ${remove[*]}" >&2; fi
  rm -rf "$work"
}
trap cleanup EXIT

case $mode in
  prefix)
    prefix=$work/prefix
    cmake --install "$from" --prefix "$prefix" >"$work/install.log"
    ;;
  deb)
    debs=("$from"/*.deb)
    [ -e "${debs[0]}" ] || { echo "no packages in $from (run scripts/package)"; exit 1; }
    if [ "$(id -u)" = 0 ]; then
      for p in $(for deb in "${debs[@]}"; do dpkg-deb -f "$deb" Package; done); do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || remove+=("$p")
      done
      dpkg -i "${debs[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
      prefix=/usr
    else
      for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$work/root"; done
      prefix=$work/root/usr
      export LD_LIBRARY_PATH=$prefix/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    fi
    version=$(dpkg-deb -f "$(ls "$from"/ferrow_*.deb)" Version)
    [ "$("$prefix/bin/ferrow" --version)" = "ferrow $version" ] \
      || { echo "ferrow --version does not print the package's version $version"; exit 1; }
    unit=$prefix/lib/systemd/system/ferrow-register@.service
    [ -f "$unit" ] || { echo "the tool's package has no systemd unit"; exit 1; }
    if [ "$prefix" = /usr ] && command -v systemd-analyze >/dev/null; then
      # The template checked as an instance of it, as systemctl would load it.
      cp "$unit" "$work/ferrow-register@check.service"
      systemd-analyze verify "$work/ferrow-register@check.service" >"$work/verify.log" 2>&1 \
        || { cat "$work/verify.log"; exit 1; }
    fi
    ;;
  *) echo "usage: install_test.sh prefix|deb ..." >&2; exit 2 ;;
esac

# grep reads the whole help (no -q): the tool must not die of a closed pipe.
"$prefix/bin/ferrow" --help | grep "^  register " >/dev/null || { echo "the installed tool does not run"; exit 1; }
pc=$(find "$prefix" -path '*/pkgconfig/ferrow.pc' | head -1)
[ "$("$prefix/bin/ferrow" --version)" = "ferrow $(sed -n 's/^Version: //p' "$pc")" ] \
  || { echo "ferrow --version does not print the package's version"; exit 1; }

usage_of() { local status=0; "$1" 2>&1 >/dev/null || status=$?; [ "$status" = 2 ]; }
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DEXAMPLE="$example" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/configure.log" 2>&1 \
  || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
usage_of "$work/cmake-build/consumer" | grep -q usage || { echo "find_package consumer failed"; exit 1; }

# shellcheck disable=SC2046,SC2086
c++ -std=c++17 $flags -o "$work/pc-consumer" "$example" \
  $(PKG_CONFIG_PATH="$(dirname "$pc")" pkg-config --cflags --libs ferrow)
usage_of "$work/pc-consumer" | grep -q usage || { echo "pkg-config consumer failed"; exit 1; }
echo "installed $mode works with find_package and pkg-config"
