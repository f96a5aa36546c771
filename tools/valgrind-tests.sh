#!/usr/bin/env bash
# Runs every test executable of a build (tests/api, internal, system) under valgrind
# memcheck: any invalid access, use of uninitialised memory or definite/indirect leak
# fails the run.
#   tools/valgrind-tests.sh [BUILD_DIR]     (default: build)
# Left out: alloc_sweep_test and the out-of-memory cases of request_test and
# config_crash_test (they replace malloc or the tree's allocator themselves, which
# valgrind's own allocator bypasses; they check their leaks themselves), and the
# system tests (the demo and host_test: they drive the daemon and owners as separate
# programs, which would not run under valgrind, and they time their answers). Forked owner processes are checked
# too; their output is silenced, their errors still fail the test that forked them.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[ -d "$build" ] || build="$root/$build"
tests="$build/tests"
supp="$root/tools/valgrind.supp"
log_dir=$(mktemp -d)
trap 'rm -rf "$log_dir"' EXIT
export KEP_RUNTIME_DIR="$tests/imi-run"
export KEP_KILL_ITERATIONS=5  # faults_test: each forked owner starts slowly under valgrind
jobs=${JOBS:-2}

run_one() {
    local exe=$1 name rc=0
    name=$(basename "$exe")
    local start=$SECONDS
    local vg=(valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect
        --show-leak-kinds=definite,indirect --track-origins=yes --child-silent-after-fork=yes
        --suppressions="$supp")
    local skip='-RequestOutOfMemory.*:ConfigAllocFailure.*'
    case "$exe" in
    *_ctest) "${vg[@]}" "$exe" >"$log_dir/$name.log" 2>&1 || rc=1 ;;
    */api/*)
        # One process per test, as ctest runs them: the public interface cannot empty a tree.
        local t
        for t in $("$exe" --gtest_list_tests | awk '/^[^ ]/ {s=$1} /^  / {print s $1}'); do
            case "$t" in RequestOutOfMemory.* | ConfigAllocFailure.*) continue ;; esac
            "${vg[@]}" "$exe" --gtest_brief=1 --gtest_filter="$t" >>"$log_dir/$name.log" 2>&1 || rc=1
        done
        ;;
    *) "${vg[@]}" "$exe" --gtest_brief=1 --gtest_filter="$skip" >"$log_dir/$name.log" 2>&1 || rc=1 ;;
    esac
    if [ $rc = 0 ]; then
        echo "valgrind ok   $name ($((SECONDS - start)) s)"
    else
        echo "valgrind FAIL $name ($((SECONDS - start)) s)"
        cat "$log_dir/$name.log"
        return 1
    fi
}
export -f run_one
export log_dir supp

failed=0
find "$tests/api" "$tests/internal" "$tests/system" -maxdepth 1 -type f \( -name '*_test' -o -name '*_ctest' \) \
    -perm -u+x ! -name alloc_sweep_test ! -name host_test 2>/dev/null | sort |
    xargs -P "$jobs" -I{} bash -c 'run_one "$@"' _ {} || failed=1
exit $failed
