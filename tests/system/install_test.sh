#!/usr/bin/env bash
# The installed kit as a new user has it: installs the build into a fresh prefix,
# builds the example owner ntpd against it with pkg-config and with CMake, and runs
# the installed host and client (no LD_LIBRARY_PATH) with it.
#   tests/system/install_test.sh BUILD-DIR
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/kiXXXXXX)
owner=
host=
cleanup() {
    for p in $owner $host; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; for f in "$work"/*.log; do echo "---- $f"; cat "$f"; done >&2; exit 1; }
unset LD_LIBRARY_PATH

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
pc=$(dirname "$(find "$prefix" -name kepOwner.pc)")
export PKG_CONFIG_PATH=$pc
libdir=$(pkg-config --variable=libdir kepOwner)
[ -f "$libdir/libkepOwner.so" ] || fail "kepOwner.pc points at $libdir, not the prefix"
[ -f "$prefix/include/kepHandle/kep_owner.h" ] || fail "kep_owner.h not installed"
[ -f "$prefix/share/man/man3/kep_owner.3" ] || fail "manual page not installed"

# pkg-config
cc -Wall -Wextra -Werror "$src/examples/ntpd/ntpd.c" $(pkg-config --cflags --libs kepOwner) \
    -Wl,-rpath,"$libdir" -o "$work/ntpd"
# CMake package
mkdir -p "$work/cm"
cat >"$work/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.20)
project(ntpd C)
find_package(kepHandle REQUIRED)
add_executable(ntpd $src/examples/ntpd/ntpd.c)
target_link_libraries(ntpd PRIVATE kepHandle::kepOwner)
CM
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" 2>&1 || fail "find_package"
cmake --build "$work/cm/build" >>"$work/cmake.log" 2>&1 || fail "building against the CMake package"

sed "s|@CONFDIR@|$work|" "$src/examples/ntpd/ntp.xml.in" >"$work/ntp.xml"
export KEP_RUNTIME_DIR=$work/run
kepctl() { "$prefix/bin/kepctl" -c "$@"; }
"$work/cm/build/ntpd" "$work/ntp.xml" 2>"$work/ntpd.log" & owner=$!
"$prefix/bin/kepd" -m "$work/ntp.xml" 2>"$work/kepd.log" & host=$!
for _ in $(seq 200); do kepctl do ntp sync >/dev/null 2>&1 && break; sleep 0.05; done

expect() {  # expect OUTPUT-SUBSTRING kepctl-args...
    local want=$1; shift
    local got
    got=$(kepctl "$@" 2>&1) || true
    case "$got" in *"$want"*) ;; *) fail "kepctl $*: wanted $want, got $got" ;; esac
}
expect '"server":2' get ntp server
expect '"zone":"UTC"' get ntp --name main
expect '"error_code":0' set ntp main '{"zone":"CET"}'
expect '"server_3"' add ntp server '{"address":"time.example"}'
expect '"error_code":2001' add ntp server '{"prefer":true}'
expect '"error_code":0' delete ntp server_1
expect '"synced":true' do ntp sync
expect '"server":2' get ntp server
"$prefix/bin/kepctl" reset >/dev/null || fail "reset"
expect '"server_1"' get ntp server
expect '"zone":"UTC"' get ntp --name main
echo "install test: the installed kit builds and serves an owner"
