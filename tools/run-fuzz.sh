#!/bin/sh
# Builds the libFuzzer targets (clang, AddressSanitizer and UndefinedBehaviorSanitizer)
# in build-fuzz/ and runs each for the given number of seconds (default 60), starting
# from a scratch copy of its seed corpus fuzz/corpus/<name>/, with the dictionary that
# the source names in a "// Dictionary: <file>" line near its top, or else
# fuzz/<name>.dict when there is one. Fails when any target finds a crash, leak or
# failed check; the input that did it is kept in build-fuzz/crashes/<name>/ to be
# added to the corpus as a regression case.
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

    set -- -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/"
    dict=$(sed -n '1,5s|^// Dictionary: *\([^ ]*\).*|\1|p' "$src" | head -n 1)
    if [ -z "$dict" ] && [ -f "$root/fuzz/$name.dict" ]; then dict=$name.dict; fi
    if [ -n "$dict" ]; then set -- "$@" -dict="$root/fuzz/$dict"; fi

    echo "== $target: $seconds s${dict:+, dictionary $dict}"
    if ! "$build/fuzz/$target" "$@" "$corpus" >"$scratch/$name/log" 2>&1; then
        tail -n 40 "$scratch/$name/log" >&2
        mkdir -p "$build/crashes/$name"
        cp "$artifacts"/* "$build/crashes/$name/" 2>/dev/null || true
        echo "FAIL: $target (inputs kept in $build/crashes/$name/)" >&2
        failed="$failed $target"
    else
        grep -E '^stat::(number_of_executed_units|new_units_added)' "$scratch/$name/log" || true
    fi
done

if [ -n "$failed" ]; then
    echo "fuzzing failed:$failed" >&2
    exit 1
fi
echo "fuzzing passed"
