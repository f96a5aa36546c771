#!/usr/bin/env bash
# Developer entry point: sets up a fresh Debian machine and builds, demos or tests.
#   tools/dev.sh deps    install the Debian packages the build and tests need
#   tools/dev.sh demo    deps + build + run the demo
#   tools/dev.sh format  check every C and C++ source against .clang-format (-i rewrites)
#   tools/dev.sh shots   deps + build + the README's screenshots of the web page (docs/page*.png)
#   tools/dev.sh test    deps + format check, plain build and tests, a seeded sample of mutants
#                        (tools/mutate/mutate.py), the unit tests under valgrind,
#                        ASan+UBSan build and tests (the gateway's and fleet's across processes too),
#                        ThreadSanitizer run of the threaded tests, MIPS build and tests under
#                        qemu (tools/cross-mips.sh), short fuzz runs
# FUZZ_SECONDS (default 60) sets each fuzz target's run; 0 skips fuzzing. KEP_MIPS=0 skips MIPS.
# MUTATE_SAMPLE (default 12) and MUTATE_SEED (default 7) choose the mutants; 0 skips them.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}
packages=(build-essential cmake pkg-config clang clang-format libclang-rt-14-dev libjson-c-dev libexpat1-dev
          libgtest-dev libbenchmark-dev binutils valgrind
          libmicrohttpd-dev libgnutls28-dev libcrypt-dev libcurl4-gnutls-dev curl openssl
          chromium chromium-driver python3-selenium)

# The checks of the manual pages (man, groff) and of the service files (systemd-analyze).
packages+=(groff-base man-db systemd)
# The mutation sample's incremental builds.
packages+=(ninja-build)
# The benchmark report's whole-process timing of kepctl.
packages+=(hyperfine)
# The fleet over MQTT: libmosquitto for kepagent and kepfleet; the broker and
# mosquitto_passwd for tools/fleet.sh and the fleet's tests (certificates: openssl).
packages+=(libmosquitto-dev mosquitto)
# The fleet benchmark's broker floor drives libmosquitto's TLS by hand (SSL_pending).
packages+=(libssl-dev)

deps() {
    local missing=()
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo=sudo
    echo "installing: ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

build() {  # build DIR [cmake args...]; TARGETS="a b" limits what is built
    local dir=$1; shift
    cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    local targets=()
    for t in ${TARGETS:-}; do targets+=(--target "$t"); done
    cmake --build "$root/$dir" -j"$jobs" "${targets[@]}"
}

# Sanitized builds compile at -O1, as the sanitizers advise, with line tables only, which
# their reports need: a large test file then compiles in less than half the time.
sanitized=("-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")

run_ctest() {  # run_ctest DIR [ctest args...]
    local dir=$1; shift
    ctest --test-dir "$root/$dir" -j"$jobs" --output-on-failure --timeout 120 "$@"
}

demo() {
    deps
    # The compiler's output would bury the demo: it goes to a log, shown only on failure.
    local log=$root/build/demo-build.log status
    mkdir -p "$root/build"
    echo "building (output in $log)"
    set +e
    (set -e; build build) >"$log" 2>&1  # -e again inside: a failed configure stops there
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        cat "$log"
        echo "demo: the build failed (exit status $status); its output is above and in $log" >&2
        exit "$status"
    fi
    "$root/tools/demo.sh" "$root/build"
}

shots() {
    deps
    TARGETS="kepd kepctl kepwebd dhcpd sysd ntpd" build build
    /usr/bin/python3 "$root/gateway/tests/browser/readme_shots.py" "$root/build" "$root"
}

sources() {
    (cd "$root" && find base include request tree model xml ops config text platform owner tools tests bench fuzz examples gateway rules fleet \
        -name '*.[ch]' -o -name '*.cpp' | sort)
}

format() {  # format [-i]
    local bad=()
    cd "$root"
    if [ "${1:-}" = -i ]; then
        sources | xargs clang-format -i
        return 0
    fi
    for f in $(sources); do
        clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
    done
    if [ ${#bad[@]} -ne 0 ]; then
        echo "not formatted (tools/dev.sh format -i fixes): ${bad[*]}" >&2
        return 1
    fi
}

# Each stage's time, so a run that nears CI's limit shows what to trim.
stage_name="" stage_start=0 stage_times=()
stage() {  # stage TITLE: closes the running stage, opens the next ("" only closes)
    if [ -n "$stage_name" ]; then
        stage_times+=("$(printf '%5d s  %s' $((SECONDS - stage_start)) "$stage_name")")
    fi
    stage_name=$1 stage_start=$SECONDS
    [ -z "$1" ] || echo "== $1"
}

test_all() {
    stage "packages"
    deps
    stage "clang-format"
    format
    stage "plain build"
    build build
    run_ctest build
    if [ "${MUTATE_SAMPLE:-12}" != 0 ]; then
        stage "mutants: ${MUTATE_SAMPLE:-12} of seed ${MUTATE_SEED:-7}, at least 90 % of those that build killed"
        "$root/tools/mutate/mutate.py" --seed "${MUTATE_SEED:-7}" --sample "${MUTATE_SAMPLE:-12}" --jobs "$jobs" \
            --min-score 90
    fi
    stage "valgrind memcheck (unit-test executables)"
    "$root/tools/valgrind-tests.sh" build
    # One ASan build serves the library's tests and the gateway's, change sets' and fleet's
    # across real processes: the library is compiled once. The host's, kit's and service's
    # system tests run under valgrind's and TSan's stages; the browser's need no sanitizer.
    stage "AddressSanitizer + UndefinedBehaviorSanitizer"
    build build-asan -DKEP_SANITIZE=address,undefined "${sanitized[@]}" -DKEP_BUILD_TOOLS=ON -DKEP_BUILD_BENCH=OFF
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 run_ctest build-asan \
        -E '^(abi|AllocSweep|Browser|Host|Kit|KepCheck|Service|docs|system)\.'
    stage "ThreadSanitizer (threaded tests; the host and owners run under it too)"
    TARGETS="config_test api_e2e_test platform_rpc_test api_request_test host_test owner_kit_test changeset_test kepd kepctl dhcpd sysd ntpd gateway_test kepwebd" \
        build build-tsan -DKEP_SANITIZE=thread "${sanitized[@]}" -DKEP_BUILD_TOOLS=ON
    TSAN_OPTIONS="halt_on_error=1 exitcode=66" run_ctest build-tsan -R 'Thread|Concurren|ImiServe|^Host\.|^Kit\.|^Gateway\.|^ChangeSet\.'
    if [ "${KEP_MIPS:-1}" != 0 ]; then
        stage "big-endian MIPS cross build, tests under qemu"
        "$root/tools/cross-mips.sh"
    fi
    if [ "${FUZZ_SECONDS:-60}" != 0 ]; then
        stage "fuzz targets, ${FUZZ_SECONDS:-60} s each"
        "$root/tools/run-fuzz.sh" "${FUZZ_SECONDS:-60}"
    fi
    stage ""
    echo "== stage times (total $SECONDS s)"
    printf '%s\n' "${stage_times[@]}"
}

case "${1:-}" in
deps) deps ;;
demo) shift; demo "$@" ;;
format) shift; format "$@" ;;
shots) shots ;;
test) test_all ;;
*) echo "usage: $0 deps|demo|format|shots|test" >&2; exit 2 ;;
esac
