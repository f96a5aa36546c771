#!/usr/bin/env bash
# Builds libkepHandle for the device (32-bit big-endian MIPS Linux, o32) and runs the
# whole test suite under qemu-user, then prints the stripped size of the library.
#
# On a fresh Debian bookworm machine, as root or with sudo. Everything comes from
# Debian's archive: the cross compilers and qemu as packages, json-c from its Debian
# source package, GoogleTest from the sources libgtest-dev ships, for the HTTP gateway
# libmicrohttpd (without TLS), libxcrypt and libcurl, and for the fleet OpenSSL and
# libmosquitto from their source packages. All are built with cmake/mips-linux-gnu.cmake's
# compilers into build-mips-deps/sysroot and kept there: a second run rebuilds them only
# when the toolchain file, the compiler or their version changes.
#
#   tools/cross-mips.sh            deps + build-mips/ + ctest under qemu
# JOBS (default 2) sets the build's parallelism; KEP_MIPS_TOOLS=OFF leaves out tools/ and
# examples/ and with them the system test across processes.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}
triplet=mips-linux-gnu
toolchain=$root/cmake/mips-linux-gnu.cmake
deps=$root/build-mips-deps
prefix=$deps/sysroot
build=$root/build-mips
export KEP_MIPS_PREFIX=$prefix

sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
started=$SECONDS
step() { echo "== mips: $* ($((SECONDS - started)) s)"; }

# ---- packages: cross compilers and binutils, qemu-user, host build tools ----
packages=(gcc-$triplet g++-$triplet binutils-$triplet dpkg-dev cmake pkg-config libgtest-dev autoconf automake libtool)
command -v qemu-mips >/dev/null || command -v qemu-mips-static >/dev/null || packages+=(qemu-user)
apt_updated=0
apt_update() {
    [ $apt_updated = 1 ] && return 0
    $sudo apt-get update -qq
    apt_updated=1
}
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    step "installing ${missing[*]}"
    apt_update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# A dependency build is reused while its key (what it was built from and with) is unchanged.
toolkey="$(sha256sum "$toolchain" | cut -c1-16) $($triplet-gcc -dumpfullversion)"
fresh() {  # fresh NAME KEY: true when NAME was built with KEY
    [ -f "$prefix/.$1.key" ] && [ "$(cat "$prefix/.$1.key")" = "$2" ]
}
deps_cmake() {  # deps_cmake NAME SOURCE [cmake args...]: configure, build, install into the prefix
    local name=$1 src=$2; shift 2
    rm -rf "$deps/$name-build"
    cmake -S "$src" -B "$deps/$name-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib \
        "$@" >"$deps/$name.log"
    cmake --build "$deps/$name-build" -j"$jobs" >>"$deps/$name.log"
    cmake --install "$deps/$name-build" >>"$deps/$name.log"
    rm -rf "$deps/$name-build"
}
mkdir -p "$prefix"

# Source records for the archive that already serves json-c's binary packages.
deb_src() {
    apt-cache showsrc json-c >/dev/null 2>&1 && return 0
    uri=$(apt-cache policy libjson-c5 | awk '$3 ~ /^bookworm(-updates)?\/main$/ {print $2; exit}')
    if [ -z "$uri" ]; then
        apt_update
        uri=$(apt-cache policy libjson-c5 | awk '$3 ~ /^bookworm(-updates)?\/main$/ {print $2; exit}')
    fi
    [ -n "$uri" ] || { echo "no bookworm archive configured for json-c" >&2; exit 1; }
    printf 'Types: deb-src\nURIs: %s\nSuites: bookworm bookworm-updates\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
        "$uri" | $sudo tee /etc/apt/sources.list.d/kep-deb-src.sources >/dev/null
    apt_updated=0
    apt_update
}

# ---- json-c from Debian's source package ----
# The Debian version is known from the binary package; the source is fetched only
# when no build of that version exists yet.
jsonc_version=$(dpkg-query -W -f='${Version}' libjson-c-dev 2>/dev/null || true)
[ -n "$jsonc_version" ] || jsonc_version=$(apt-cache policy libjson-c-dev | awk '/Candidate:/ {print $2}')
# Unwind tables: MIPS code has none by default (x86-64 always has), and the
# allocation-failure tests walk the stack through json-c with backtrace().
jsonc_cflags=-funwind-tables
jsonc_key="json-c $jsonc_version $jsonc_cflags $toolkey"
if ! fresh json-c "$jsonc_key"; then
    step "json-c $jsonc_version from its Debian source package"
    deb_src
    rm -rf "$deps/src/json-c"
    mkdir -p "$deps/src/json-c"
    # As root apt fetches unsandboxed and says so; the download itself is what matters.
    (cd "$deps/src/json-c" && apt-get source -qq "json-c=$jsonc_version" 2>/dev/null \
        || apt-get source -qq json-c) >/dev/null
    src=$(find "$deps/src/json-c" -mindepth 1 -maxdepth 1 -type d -name 'json-c-*' | head -n1)
    [ -f "$src/CMakeLists.txt" ] || { echo "json-c source not unpacked" >&2; exit 1; }
    CFLAGS=$jsonc_cflags deps_cmake json-c "$src" -DBUILD_SHARED_LIBS=ON -DBUILD_STATIC_LIBS=OFF -DBUILD_TESTING=OFF \
        -DBUILD_APPS=OFF -DDISABLE_WERROR=ON
    echo "$jsonc_key" >"$prefix/.json-c.key"
fi

# ---- the gateway's libraries from their Debian source packages (autotools) ----
# deps_source NAME BINARY-PACKAGE: unpacks NAME's Debian source of the version the
# build machine has into $deps/src/NAME and prints its folder.
deps_source() {
    local name=$1 version
    version=$(dpkg-query -W -f='${Version}' "$2" 2>/dev/null || true)
    rm -rf "$deps/src/$name"
    mkdir -p "$deps/src/$name"
    # One download at a time: the two streams of builds below may ask at once.
    (cd "$deps/src/$name" && flock 9 && { [ -n "$version" ] && apt-get source -qq "$name=$version" 2>/dev/null ||
        apt-get source -qq "$name"; }) >/dev/null 9>"$deps/.apt-source.lock"
    find "$deps/src/$name" -mindepth 1 -maxdepth 1 -type d -name "$name-*" | head -n1
}
# deps_autotools NAME BINARY-PACKAGE [configure args...]: builds and installs into the prefix.
deps_autotools() {
    local name=$1 package=$2 key src; shift 2
    key="$name $(dpkg-query -W -f='${Version}' "$package" 2>/dev/null) $* $toolkey"
    fresh "$name" "$key" && return 0
    step "$name from its Debian source package"
    deb_src
    src=$(deps_source "$name" "$package")
    [ -n "$src" ] || { echo "$name source not unpacked" >&2; exit 1; }
    (
        cd "$src"
        [ -x configure ] || ./autogen.sh
        ./configure --host=$triplet --prefix="$prefix" --libdir="$prefix/lib" --disable-static "$@" \
            CFLAGS="-O2 -D_FILE_OFFSET_BITS=64"
        if [ "$name" = curl ]; then  # the library, its headers and .pc only
            make -j"$jobs" -C lib && make -C lib install && make -C include install && make install-pkgconfigDATA
        else
            make -j"$jobs" && make install
        fi
    ) >"$deps/$name.log" 2>&1 || { tail -n 30 "$deps/$name.log"; exit 1; }
    rm -rf "$deps/src/$name"
    echo "$key" >"$prefix/.$name.key"
}
# The gateway's libraries and the fleet's build in two streams at once: most of the first
# is configure scripts, which run on one core.
gateway_deps() {
# libmicrohttpd without TLS: GnuTLS and its own dependencies are not cross-built here,
# so the device's gateway serves plain HTTP (README).
deps_autotools libmicrohttpd libmicrohttpd-dev --disable-https --disable-doc --disable-examples --disable-curl \
    --disable-nls
deps_autotools libxcrypt libcrypt-dev --disable-werror --disable-obsolete-api --enable-hashes=strong,glibc
# libcurl drives the gateway's system tests under qemu: plain HTTP only.
deps_autotools curl libcurl4-gnutls-dev --without-ssl --disable-ldap --disable-ldaps --without-libpsl \
    --without-zlib --without-brotli --without-zstd --without-nghttp2 --without-libidn2 --without-librtmp \
    --without-libssh2 --disable-manual --disable-docs --disable-rtsp --disable-dict --disable-telnet \
    --disable-tftp --disable-pop3 --disable-imap --disable-smtp --disable-gopher --disable-mqtt --disable-smb \
    --disable-ftp --disable-file --disable-alt-svc --disable-ntlm
}

fleet_deps() {
# ---- the fleet's MQTT over TLS: OpenSSL and libmosquitto from their Debian source packages ----
# libssl and libcrypto only (no programs, tests, modules or engines), without the protocols
# and algorithms a TLS 1.2/1.3 client of the broker never uses, to compile less.
# ChaCha20-Poly1305 stays (faster than AES on a core without AES instructions), and so do
# OCSP and the console UI, which libmosquitto calls.
openssl_options=(no-tests no-module no-legacy no-engine no-dso no-async no-comp no-ssl3 no-dtls no-srtp
    no-sctp no-psk no-srp no-cmp no-cms no-ts no-ct no-gost no-aria no-bf no-camellia no-cast no-idea
    no-md4 no-mdc2 no-rc2 no-rc4 no-rc5 no-seed no-sm2 no-sm3 no-sm4 no-whirlpool no-siphash no-scrypt
    no-ec2m no-des no-dsa no-ocb no-siv no-blake2 no-rmd160)
openssl_key="openssl $(dpkg-query -W -f='${Version}' libssl-dev 2>/dev/null) ${openssl_options[*]} $toolkey"
if ! fresh openssl "$openssl_key"; then
    step "OpenSSL (libssl, libcrypto) from its Debian source package"
    deb_src
    src=$(deps_source openssl libssl-dev)
    [ -n "$src" ] || { echo "openssl source not unpacked" >&2; exit 1; }
    # The libraries find each other through their run path, as the prefix's other libraries do.
    (
        cd "$src"
        ./Configure linux-mips32 --cross-compile-prefix=$triplet- --prefix="$prefix" --libdir=lib \
            --openssldir=/etc/ssl shared "${openssl_options[@]}" -O2 -D_FILE_OFFSET_BITS=64 \
            "-Wl,-rpath,$prefix/lib"
        make -j"$jobs" build_libs && make install_dev
    ) >"$deps/openssl.log" 2>&1 || { tail -n 30 "$deps/openssl.log"; exit 1; }
    rm -f "$prefix/lib/libssl.a" "$prefix/lib/libcrypto.a"
    rm -rf "$deps/src/openssl"
    echo "$openssl_key" >"$prefix/.openssl.key"
fi
# The client library only, with TLS (not PSK, which the fleet does not use); rebuilt
# with OpenSSL. Its run path finds libssl in the prefix for the programs that link it.
mosquitto_key="mosquitto $(dpkg-query -W -f='${Version}' libmosquitto-dev 2>/dev/null) [$openssl_key]"
if ! fresh mosquitto "$mosquitto_key"; then
    step "libmosquitto from its Debian source package"
    deb_src
    src=$(deps_source mosquitto libmosquitto-dev)
    [ -n "$src" ] || { echo "mosquitto source not unpacked" >&2; exit 1; }
    deps_cmake mosquitto "$src" -DCMAKE_INSTALL_RPATH="$prefix/lib" -DWITH_TLS=ON -DWITH_TLS_PSK=OFF \
        -DWITH_CLIENTS=OFF -DWITH_BROKER=OFF -DWITH_APPS=OFF -DWITH_PLUGINS=OFF -DDOCUMENTATION=OFF \
        -DWITH_LIB_CPP=OFF -DWITH_CJSON=OFF
    rm -f "$prefix/lib/pkgconfig/libmosquittopp.pc"  # installed even without the C++ library
    rm -rf "$deps/src/mosquitto"
    echo "$mosquitto_key" >"$prefix/.mosquitto.key"
fi
}

deb_src  # once, before the streams: both would add the source records and update
gateway_deps &
gateway_stream=$!
fleet_deps
wait "$gateway_stream"

# ---- GoogleTest from the sources shipped by libgtest-dev ----
gtest_key="googletest $(dpkg-query -W -f='${Version}' libgtest-dev) $toolkey"
if ! fresh googletest "$gtest_key"; then
    step "GoogleTest from /usr/src/googletest"
    deps_cmake googletest /usr/src/googletest -DBUILD_GMOCK=ON -DINSTALL_GTEST=ON
    echo "$gtest_key" >"$prefix/.googletest.key"
fi

# ---- the library and its tests ----
step "configuring and building build-mips/"
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DKEP_MIPS_PREFIX="$prefix" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" -DKEP_BUILD_TOOLS="${KEP_MIPS_TOOLS:-ON}" >/dev/null
cmake --build "$build" -j"$jobs"

step "tests under $(command -v qemu-mips || command -v qemu-mips-static)"
rc=0
ctest --test-dir "$build" -j"$jobs" --output-on-failure --timeout 300 || rc=$?

lib=$(readlink -f "$build/libkepHandle.so.0")
cp "$lib" "$build/libkepHandle.so.0.stripped"
$triplet-strip "$build/libkepHandle.so.0.stripped"
echo "MIPS libkepHandle.so.0 stripped: $(stat -c %s "$build/libkepHandle.so.0.stripped") bytes" \
    "(unstripped $(stat -c %s "$lib"))"
if [ -f "$build/gateway/kepwebd" ]; then
    $triplet-strip -o "$build/gateway/kepwebd.stripped" "$build/gateway/kepwebd"
    echo "MIPS kepwebd stripped: $(stat -c %s "$build/gateway/kepwebd.stripped") bytes;" \
        "libmicrohttpd $(stat -c %s "$(readlink -f "$prefix/lib/libmicrohttpd.so")") bytes," \
        "libcrypt $(stat -c %s "$(readlink -f "$prefix/lib/libcrypt.so")") bytes (unstripped)"
fi
if [ -f "$build/fleet/kepagent" ]; then
    $triplet-strip -o "$build/fleet/kepagent.stripped" "$build/fleet/kepagent"
    echo "MIPS kepagent stripped: $(stat -c %s "$build/fleet/kepagent.stripped") bytes;" \
        "libmosquitto $(stat -c %s "$(readlink -f "$prefix/lib/libmosquitto.so")") bytes," \
        "libssl $(stat -c %s "$(readlink -f "$prefix/lib/libssl.so")") bytes," \
        "libcrypto $(stat -c %s "$(readlink -f "$prefix/lib/libcrypto.so")") bytes (unstripped)"
fi
step "done"
exit $rc
