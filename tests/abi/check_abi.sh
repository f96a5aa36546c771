#!/bin/sh
# Binary-interface checks of libkepHandle and the platform stand-in, one per subcommand;
# exit status 0 = pass.
set -eu

# NM and READELF name the target's binutils; KEP_RUN runs a target program (an emulator).
nm=${NM:-nm} readelf=${READELF:-readelf}

fail() { echo "FAIL: $*" >&2; exit 1; }

case "$1" in
exports)
    # The dynamic symbol table holds exactly the names of the export list.
    lib=$2 list=$3 want_soname=${4:-libkepHandle.so.0}
    soname=$("$readelf" -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
    [ "$soname" = "$want_soname" ] || fail "soname is '$soname'"
    want=$(mktemp) have=$(mktemp)
    trap 'rm -f "$want" "$have"' EXIT
    grep -E '^[A-Za-z_]' "$list" | sort -u >"$want"
    "$nm" -D --defined-only "$lib" | awk '{print $NF}' | grep -v -E '^(_init|_fini|__bss_start|_edata|_end)$' \
        | sort -u >"$have"
    if ! diff -u "$want" "$have"; then
        fail "exported symbols differ from the export list ('-' missing, '+' stray)"
    fi
    echo "exports: $(wc -l <"$have") names, as listed"
    ;;
needed)
    # At run time the library needs only the C library, json-c and the platform library.
    lib=$2
    "$readelf" -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | while read -r dep; do
        case "$dep" in
        libc.so.*|libjson-c.so.*|libkepPlatform.so.*) ;;
        libasan.so.*|libubsan.so.*|libtsan.so.*) ;;  # sanitizer builds only
        *) fail "unexpected run-time dependency $dep" ;;
        esac
    done
    "$readelf" -d "$lib" | grep -q 'libkepPlatform.so.0' || fail "the platform library is not linked dynamically"
    echo "needed: $("$readelf" -d "$lib" | grep -c NEEDED) libraries, all allowed"
    ;;
platform-needed)
    # Every command-line process loads the stand-in: the C library, the loader, threads
    # and json-c only; never the C++ runtime.
    lib=$2
    "$readelf" -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | while read -r dep; do
        case "$dep" in
        libc.so.*|libpthread.so.*|libjson-c.so.*|ld-linux*.so.*|ld.so.*) ;;  # ld.so: thread-local storage
        libasan.so.*|libubsan.so.*|libtsan.so.*) ;;  # sanitizer builds only
        *) fail "unexpected run-time dependency $dep" ;;
        esac
    done
    echo "platform-needed: $("$readelf" -d "$lib" | grep -c NEEDED) libraries, all allowed"
    ;;
headers)
    # Every public header compiles on its own as strict C99.
    cc=$2; shift 2
    for dir in "$@"; do
        for h in "$dir"/*.h; do
            printf '#include "%s"\nint kep_header_check;\n' "$h" \
                | "$cc" -std=c99 -pedantic -Wall -Wextra -Werror -I"$1" -I"$2" -x c -fsyntax-only - \
                || fail "$h is not self-contained C99"
        done
    done
    echo "headers: all compile alone as C99"
    ;;
install)
    # Install into a scratch prefix and build a C consumer through pkg-config.
    build=$2 cc=$3 src=$4
    prefix=$(mktemp -d)
    trap 'rm -rf "$prefix"' EXIT
    cmake --install "$build" --prefix "$prefix" >/dev/null
    pcdir=$(dirname "$(find "$prefix" -name kepHandle.pc)")
    [ -f "$(find "$prefix" -name kepHandleConfig.cmake)" ] || fail "no CMake package config installed"
    flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --define-variable=prefix="$prefix" --cflags --libs kepHandle)
    # shellcheck disable=SC2086
    "$cc" -std=c99 -pedantic -Wall -Wextra -Werror -o "$prefix/consumer" "$src" $flags
    # The run also needs the dependencies' library folders when they are not the system's.
    libpath=$(dirname "$(find "$prefix" -name 'libkepHandle.so.0' | head -n1)")
    for dir in $(PKG_CONFIG_PATH=$pcdir pkg-config --libs-only-L json-c); do
        libpath=$libpath:${dir#-L}
    done
    # shellcheck disable=SC2086
    LD_LIBRARY_PATH=$libpath ${KEP_RUN:-} "$prefix/consumer"
    ;;
*)
    fail "unknown check $1"
    ;;
esac
