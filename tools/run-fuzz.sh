#!/bin/sh
# Builds the libFuzzer targets (clang, AddressSanitizer and UndefinedBehaviorSanitizer)
# in build-fuzz/ and runs each for the given number of seconds (default 60), starting
# from a scratch copy of its seed corpus fuzz/corpus/<name>/, with the dictionary that
# the source names in a "// Dictionary: <file>" line near its top, or else
# fuzz/<name>.dict when there is one. Fails when any target finds a crash, leak or
# failed check; the input that did it is kept in build-fuzz/crashes/<name>/ to be
# added to the corpus as a regression case.
#
# FUZZ_RUNS caps each target's executions as well (a long run: FUZZ_RUNS=10000000 with
# 3600 s stops each target at whichever comes first). Each target's figures (executions,
# seconds, edges covered of those instrumented, features, corpus size, date, commit)
# replace its line
# in build-fuzz/summary.tsv, which tools/robustness-report.sh puts in docs/ROBUSTNESS.md.
#
#   tools/run-fuzz.sh [seconds-per-target [name...]]    (default: 60 s, every target)
set -eu

seconds=${1:-60}
case $seconds in '' | *[!0-9]*) echo "usage: $0 [seconds-per-target [name...]]" >&2; exit 2 ;; esac
[ $# -gt 0 ] && shift
only=" $* "

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-fuzz

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKEP_FUZZ=ON -DKEP_SANITIZE=address,undefined -DKEP_BUILD_TESTS=OFF -DKEP_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j2

# summarise NAME SECONDS LOG CORPUS: prints the target's figures and records them.
summarise() {
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$3")
    edges=$(sed -n 's/.*Loaded [0-9]* modules *(\([0-9]*\) inline 8-bit counters.*/\1/p' "$3" | head -n 1)
    last=$(grep -E '^#[0-9]+.*cov: ' "$3" | tail -n 1)
    cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
    ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
    units=$(find "$4" -type f | wc -l)
    echo "   $execs executions in $2 s, $cov of $edges edges covered, $ft features, corpus $units inputs"
    touch "$build/summary.tsv"
    grep -v "^$1	" "$build/summary.tsv" >"$build/summary.tsv.new" || true
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$1" "$execs" "$2" "$cov" "$edges" "$ft" "$units" \
        "$(date -u +%Y-%m-%d)" "$commit" >>"$build/summary.tsv.new"
    sort "$build/summary.tsv.new" >"$build/summary.tsv" && rm -f "$build/summary.tsv.new"
}

# The code the figures belong to.
commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo unknown)
if [ "$commit" != unknown ] && [ -n "$(git -C "$root" status --porcelain --untracked-files=no 2>/dev/null)" ]; then
    commit="$commit+changes"
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kep-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT INT TERM

failed=
for src in "$root"/fuzz/*_fuzz.cpp; do
    [ -e "$src" ] || continue
    target=$(basename "$src" .cpp)
    name=${target%_fuzz}
    if [ "$only" != "  " ]; then case $only in *" $name "*) ;; *) continue ;; esac; fi
    corpus=$scratch/$name/corpus
    artifacts=$scratch/$name/artifacts
    mkdir -p "$corpus" "$artifacts"
    if [ -d "$root/fuzz/corpus/$name" ]; then cp -R "$root/fuzz/corpus/$name/." "$corpus/"; fi

    set -- -max_total_time="$seconds" -runs="${FUZZ_RUNS:--1}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/"
    dict=$(sed -n '1,5s|^// Dictionary: *\([^ ]*\).*|\1|p' "$src" | head -n 1)
    if [ -z "$dict" ] && [ -f "$root/fuzz/$name.dict" ]; then dict=$name.dict; fi
    if [ -n "$dict" ]; then set -- "$@" -dict="$root/fuzz/$dict"; fi

    echo "== $target: $seconds s${FUZZ_RUNS:+ or $FUZZ_RUNS executions}${dict:+, dictionary $dict}"
    start=$(date +%s)
    if ! "$build/fuzz/$target" "$@" "$corpus" >"$scratch/$name/log" 2>&1; then
        tail -n 40 "$scratch/$name/log" >&2
        mkdir -p "$build/crashes/$name"
        cp "$artifacts"/* "$build/crashes/$name/" 2>/dev/null || true
        echo "FAIL: $target (inputs kept in $build/crashes/$name/)" >&2
        failed="$failed $target"
    else
        summarise "$name" $(($(date +%s) - start)) "$scratch/$name/log" "$corpus"
    fi
done

if [ -n "$failed" ]; then
    echo "fuzzing failed:$failed" >&2
    exit 1
fi
echo "fuzzing passed"
