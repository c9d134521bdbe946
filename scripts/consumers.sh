#!/usr/bin/env bash
# Takes the library up the ways an application does, static and shared, and runs the tiny application
# examples/consumer (the README's quick start) each time; it must log a user in on the dev server:
#   - find_package(qnbrl) from an install prefix (`cmake --install`),
#   - pkg-config, with no build system,
#   - add_subdirectory of this tree (GoogleTest made unfindable: a sub-project must not need it),
#   - the Debian packages made by CPack, unpacked with `dpkg-deb -x` into a scratch root.
# The installed command-line client (install prefix and its Debian package) runs a short script there too.
# It also checks that the installed public headers compile alone and pull in no Boost, OpenSSL, RE2 or
# GLib header, that the shared library exports nothing outside namespace qnbrl, and that the README's
# quick start is examples/consumer/main.cpp. Last, examples/app_loop runs a client whose callbacks all
# go to the application's own loop.
#
# The static library is the dev preset's (scripts/test.sh leaves it built); the shared one is the dev
# preset configured again with BUILD_SHARED_LIBS, the library alone. Work files: build/consumers/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/bootstrap.sh
work=$root/build/consumers
rm -rf "$work"
mkdir -p "$work"
warn=(-Wall -Wextra -Wpedantic -Werror)
step() { printf '\n== %s\n' "$*"; }

step "README quick start is examples/consumer/main.cpp"
sed -n '/^## Quick start/,/^## /p' README.md | sed -n '/^```cpp$/,/^```$/p' | sed '1d;$d' >"$work/quickstart.cpp"
diff -u examples/consumer/main.cpp "$work/quickstart.cpp"

step "library builds"
cmake --preset dev >/dev/null
cmake --build --preset dev --target qnbrl qnbrl_cli qnbrl_app_loop
cmake --preset dev -B build/shared -DBUILD_SHARED_LIBS=ON -DCMAKE_INSTALL_PREFIX=/usr \
  -DQNBRL_BUILD_TESTS=OFF -DQNBRL_BUILD_BENCH=OFF -DQNBRL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/shared

for kind in static shared; do
  build=build/dev
  [[ $kind == shared ]] && build=build/shared
  step "$kind: install and package"
  cmake --install "$build" --prefix "$work/$kind/prefix" >/dev/null
  (cd "$work/$kind" && cpack --config "$root/$build/CPackConfig.cmake" -B "$work/$kind/deb" >/dev/null)
  for deb in "$work/$kind"/deb/*.deb; do
    echo "$(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
    dpkg-deb -x "$deb" "$work/$kind/root"
  done

  step "$kind: public headers stand alone, without Boost, OpenSSL, RE2 or GLib"
  for header in "$work/$kind/prefix/include/qnbrl"/*.hpp; do
    if ! included=$(printf '#include <qnbrl/%s>\n' "$(basename "$header")" |
      g++ -std=c++20 "${warn[@]}" -fsyntax-only -H -I"$work/$kind/prefix/include" -x c++ - 2>&1); then
      echo "$included"
      exit 1
    fi
    if grep -E '^\.+ .*/(boost|openssl|re2|glib-2.0|libsecret-1)/' <<<"$included"; then
      echo "FAILED: $(basename "$header") needs the headers above"
      exit 1
    fi
  done
done

step "shared: only namespace qnbrl is exported"
lib=$(find "$work/shared/prefix" -name 'libqnbrl.so.*.*.*')
echo "$(basename "$lib"): soname $(readelf -d "$lib" | sed -n 's/.*soname: \[\(.*\)\]/\1/p')"
leaked=$(nm -DC --defined-only "$lib" | cut -d' ' -f3- | grep -v -E '^(typeinfo (name )?for |vtable for )?qnbrl::' || true)
if [[ -n $leaked ]]; then
  echo "FAILED: exported outside the API:"
  echo "$leaked"
  exit 1
fi

step "consumer builds"
for kind in static shared; do
  shared=OFF
  [[ $kind == shared ]] && shared=ON
  prefix=$work/$kind/prefix
  for way in package deb subdirectory; do
    args=(-DCMAKE_PREFIX_PATH="$prefix")
    [[ $way == deb ]] && args=(-DCMAKE_PREFIX_PATH="$work/$kind/root/usr")
    [[ $way == subdirectory ]] && args=(-DQNBRL_SOURCE_DIR="$root" -DBUILD_SHARED_LIBS=$shared
      -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON)
    cmake -S examples/consumer -B "$work/$kind/$way" -G Ninja --no-warn-unused-cli -DCMAKE_CXX_FLAGS="${warn[*]}" \
      "${args[@]}" >/dev/null
    cmake --build "$work/$kind/$way" >/dev/null
  done
  pc=$(find "$prefix" -name qnbrl.pc)
  static=()
  [[ $kind == static ]] && static=(--static)
  mkdir -p "$work/$kind/pkg-config"
  # shellcheck disable=SC2046  # pkg-config's output is a list of words
  g++ -std=c++20 "${warn[@]}" examples/consumer/main.cpp -o "$work/$kind/pkg-config/consumer" \
    $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config "${static[@]}" --cflags --libs qnbrl)
done

step "consumer runs against the dev server"
home=$(mktemp -d)
coproc devserver { exec node devserver/src/main.js --session --tavern 1 --tavernTls 0; }
server_pid=$devserver_PID
trap 'kill "$server_pid" 2>/dev/null || true; rm -rf "$home"' EXIT
read -r -t 30 ready <&"${devserver[0]}"
api=$(sed -E 's/.*"http":"([^"]+)".*/\1/' <<<"$ready")
echo "dev server: $api"
for kind in static shared; do
  libdir=$(dirname "$(find "$work/$kind/prefix" -name 'libqnbrl.*' | head -1)")
  debdir=$(dirname "$(find "$work/$kind/root" -name 'libqnbrl.*' | head -1)")
  for way in package pkg-config deb subdirectory; do
    exe=$work/$kind/$way/consumer
    # The shared builds must load the library, the static ones must carry it.
    needed=static
    if readelf -d "$exe" | grep -q 'NEEDED.*libqnbrl\.so'; then needed=shared; fi
    [[ $needed == "$kind" ]] || { echo "FAILED: $kind/$way links the $needed library"; exit 1; }
    path=$libdir
    [[ $way == deb ]] && path=$debdir
    [[ $way == subdirectory ]] && path=$work/$kind/$way/qnbrl
    echo "-- $kind/$way"
    HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share \
      DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus LD_LIBRARY_PATH=$path \
      "$exe" "$api" "$kind-${way/-/}"
  done
done

step "installed command-line client runs a script against the dev server"
for kind in static shared; do
  for root in "$work/$kind/prefix" "$work/$kind/root/usr"; do
    echo "-- $kind: ${root#"$work/"}/bin/qnbrl"
    # No LD_LIBRARY_PATH: a shared build's client finds libqnbrl from bin/ by its run path.
    printf 'status query cli-%s\n' "$kind" |
      HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share \
        DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus "$root/bin/qnbrl" --api "$api" --user "cli-$kind" --token t \
        --json 2>/dev/null | tail -1
  done
done

step "callbacks on the application's own loop (examples/app_loop.cpp)"
HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share \
  DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus build/dev/examples/qnbrl_app_loop "$api" apploop
echo
echo "consumers: all passed"
