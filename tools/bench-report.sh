#!/bin/sh
# Builds the benchmarks in Release (build-bench/), runs them with repetitions and
# writes docs/BENCHMARKS.md: every figure, the machine, the reference measured in the
# same run and the ratio against it. Prints each target with its ratio.
#
#   tools/bench-report.sh              full run (about 5 to 10 minutes)
#   KEP_BENCH_REPS=3 tools/bench-report.sh     fewer repetitions
#   KEP_BENCH_BUILD=DIR, KEP_BENCH_OUT=FILE    other build folder / report file
#   KEP_MIPS_BUILD=DIR                 a MIPS build holding libkepHandle.so.0
#                                      (default build-mips/, see tools/cross-mips.sh)
# Needs: cmake, a C++ compiler, json-c, Google Benchmark (libbenchmark-dev), python3,
# binutils; Mini-XML (libmxml-dev) for the XML reference; hyperfine for kepctl's cost per call.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${KEP_BENCH_BUILD:-$root/build-bench}
out=${KEP_BENCH_OUT:-$root/docs/BENCHMARKS.md}
reps=${KEP_BENCH_REPS:-5}
mips=${KEP_MIPS_BUILD:-$root/build-mips}
results=$build/bench-results

command -v python3 >/dev/null || { echo "bench-report: python3 is needed to write the report" >&2; exit 1; }

echo "== building (Release) in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKEP_BUILD_TESTS=OFF -DKEP_BUILD_BENCH=ON >/dev/null
[ -d "$build/bench" ] || {
    echo "bench-report: the benchmarks were not configured (is Google Benchmark installed?)" >&2
    exit 1
}
cmake --build "$build" -j2 --target kepHandle kepd dhcpd kepctl kep_bench_e2e kep_bench_scale kep_bench_xml kep_bench_heap \
    kep_bench_host kep_bench_changeset >/dev/null
# The gateway's benchmark needs libmicrohttpd and libcurl; the report says so when it is missing.
cmake --build "$build" -j2 --target kep_bench_gateway >/dev/null 2>&1 ||
    echo "bench-report: kep_bench_gateway not built (libmicrohttpd-dev, libcurl4-gnutls-dev?)" >&2
cmake --build "$build" -j2 --target kep_bench_fleet >/dev/null 2>&1 ||
    echo "bench-report: kep_bench_fleet not built (libmosquitto-dev, libssl-dev?)" >&2

rm -rf "$results"
mkdir -p "$results"
{
    echo "date=$(date -u '+%Y-%m-%d %H:%M UTC')"
    echo "nproc=$(nproc)"
    echo "cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
    echo "kernel=$(uname -sr)"
    echo "compiler=$(${CXX:-c++} --version 2>/dev/null | head -n 1)"
    echo "load_before=$(cut -d' ' -f1-3 /proc/loadavg)"
    echo "reps=$reps"
} >"$results/machine.txt"

# run BENCH OUTPUT ARGS...: the figures go to $results/OUTPUT.json. $pin, when set,
# is a command the benchmark runs under.
pin=
run() {
    bench=$1 name=$2
    shift 2
    echo "== $name ($(date -u +%H:%M:%S))"
    $pin "$build/bench/kep_bench_$bench" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
        --benchmark_out="$results/$name.json" --benchmark_out_format=json "$@" >/dev/null 2>"$results/$name.log"
}
# Latency with the client and its servers on one CPU (children inherit the affinity):
# a wake-up across CPUs costs an inter-processor interrupt, which on a virtual machine
# swings from run to run with where the scheduler puts the processes; on one CPU each
# hop is a context switch, as on a single-core device. The run on every CPU follows,
# for throughput and for comparison.
if command -v taskset >/dev/null && taskset -c 0 true 2>/dev/null; then
    pin="taskset -c 0"
    run e2e e2e_one_cpu --benchmark_min_time=0.5 --benchmark_filter='^(e2e/|concurrent/host)' \
        --benchmark_enable_random_interleaving=true
    [ -x "$build/bench/kep_bench_gateway" ] &&
        run gateway gateway_one_cpu --benchmark_min_time=0.5 \
            --benchmark_filter='^gateway/(host_path|http_floor|through_gateway|host_then_floor)$' --benchmark_enable_random_interleaving=true
    pin=
fi
# Repetitions of the paths interleaved at random: a stretch in which the scheduler
# places the processes badly then weighs on every path alike, not on one of them.
run e2e e2e --benchmark_min_time=0.5 --benchmark_enable_random_interleaving=true
run scale scale --benchmark_min_time=0.3
run host host --benchmark_min_time=0.3 --benchmark_filter='^host/(get_table|add|memory)/'
run host monitor --benchmark_min_time=0.5 --benchmark_filter='^host/monitor/' --benchmark_enable_random_interleaving=true
[ -x "$build/bench/kep_bench_gateway" ] &&
    run gateway gateway --benchmark_min_time=0.5 --benchmark_enable_random_interleaving=true
run changeset changeset --benchmark_min_time=0.5 --benchmark_enable_random_interleaving=true
run xml xml --benchmark_min_time=0.3
# The same parses with glibc keeping freed memory instead of returning it to the
# kernel: the share of the parse that is the allocator's page traffic.
GLIBC_TUNABLES=glibc.malloc.trim_threshold=67108864:glibc.malloc.mmap_threshold=67108864 \
    run xml xml_keepheap --benchmark_min_time=0.3 --benchmark_filter='^xml/(strXmlParse|mxml|pool_blocks)'
GLIBC_TUNABLES=glibc.malloc.trim_threshold=67108864:glibc.malloc.mmap_threshold=67108864 \
    run scale scale_keepheap --benchmark_min_time=0.3 --benchmark_filter='(store/.*_tmpfs|file_floor/tmpfs)/sections:1000'

# kepctl's whole-process cost against /bin/true, with kepd and dhcpd serving as shipped.
if command -v hyperfine >/dev/null; then
    echo "== kepctl ($(date -u +%H:%M:%S))"
    cli=$(mktemp -d /tmp/kepcliXXXXXX)
    sed "s|@CONFDIR@|$cli|" "$root/examples/dhcpd/dhcp.xml.in" >"$cli/dhcp.xml"
    (
        export KEP_RUNTIME_DIR=$cli/run
        "$build/examples/dhcpd" "$cli/dhcp.xml" 2>"$cli/dhcpd.log" &
        owner=$!
        "$build/tools/kepd" -m "$cli/dhcp.xml" 2>"$cli/kepd.log" &
        host=$!
        for _ in $(seq 200); do "$build/tools/kepctl" -c get dhcp host >/dev/null 2>&1 && break; sleep 0.05; done
        hyperfine -N --warmup 200 --runs 3000 --export-json "$results/kepctl.json" /bin/true \
            "$build/tools/kepctl -c get dhcp host" >"$results/kepctl.log" 2>&1 || true
        kill "$host" "$owner"
        wait
    )
    rm -rf "$cli"
else
    echo "bench-report: hyperfine not installed: kepctl's cost per call is left out" >&2
fi

# The fleet through one broker against its floor, once: each benchmark sets its own
# calls, and starting 1,000 devices takes minutes. KEP_FLEET_DEVICES and KEP_FLEET_FLOOR
# size it (1000 and 10000).
if [ -x "$build/bench/kep_bench_fleet" ] && command -v mosquitto >/dev/null; then
    run fleet fleet --benchmark_repetitions=1
else
    echo "bench-report: the fleet's benchmark is left out (kep_bench_fleet, mosquitto)" >&2
fi

echo "== footprint"
"$build/bench/kep_bench_heap" >"$results/heap.json"
footprint() {
    arch=$1 lib=$2 strip=$3 size=$4 readelf=$5
    [ -f "$lib" ] || return 0
    tmp=$results/libkepHandle.$arch.stripped
    "$strip" --strip-all -o "$tmp" "$lib"
    bytes=$(wc -c <"$tmp")
    set -- $("$size" -B "$tmp" | tail -n 1)
    needed=$("$readelf" -d "$tmp" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    btype=$(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$(dirname "$lib")/CMakeCache.txt" 2>/dev/null)
    echo "$arch ${btype:-?} $bytes $1 $2 $3 $needed" >>"$results/footprint.txt"
}
: >"$results/footprint.txt"
footprint x86-64 "$build/libkepHandle.so.0" strip size readelf
if [ -f "$mips/libkepHandle.so.0" ] && command -v mips-linux-gnu-strip >/dev/null; then
    footprint mips "$mips/libkepHandle.so.0" mips-linux-gnu-strip mips-linux-gnu-size mips-linux-gnu-readelf
fi
echo "load_after=$(cut -d' ' -f1-3 /proc/loadavg)" >>"$results/machine.txt"

mkdir -p "$(dirname "$out")"
python3 "$root/tools/bench-report.py" "$results" "$root/bench/NOTES.md" "$out"
echo "== wrote $out"
