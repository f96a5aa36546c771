#!/usr/bin/env bash
# Checks of the manual pages:
#   render PAGE...              each renders without a warning from man or groff
#   exports PAGE LIST           the page gives the prototype of every name of the export
#                               list, and of no function the library does not export
#   options PAGE PROGRAM        every option of "PROGRAM --help" is an entry of the page,
#                               and for kepctl every command too
#   example PAGE CC LIB-DIR MODEL.in INCLUDE-DIR...
#                               the page's first example builds against the library and
#                               answers a request with the example model description
# Exits 77 (skipped) when man and groff are missing.
set -euo pipefail
mode=$1
shift
fail() { echo "manual: $*" >&2; exit 1; }

have_man() { command -v man >/dev/null && command -v groff >/dev/null; }

render() {
    have_man || { echo "man or groff not installed: skipped"; exit 77; }
    local page out
    for page in "$@"; do
        for width in 80 120; do
            out=$(MANWIDTH=$width man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null) ||
                fail "$page: man failed: $out"
            [ -z "$out" ] || fail "$page at $width columns: $out"
        done
        out=$(groff -t -man -ww -z "$page" 2>&1) || fail "$page: groff failed: $out"
        [ -z "$out" ] || fail "$page: $out"
    done
    echo "manual: $# pages render without warnings"
}

exports() {
    local page=$1 list=$2 name missing=() stale=()
    # The prototypes of the synopsis blocks: ".BI "type name(" ..." and ".B "extern ... name[".
    local documented
    documented=$(sed -n -e 's/^\.BI\{0,1\} "\([A-Za-z_][A-Za-z0-9_ *]*[ *]\)\([A-Za-z_][A-Za-z0-9_]*\)(.*/\2/p' \
        -e 's/^\.B "extern [^"]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)[[;].*/\1/p' "$page" | sort -u)
    for name in $(grep -E '^[A-Za-z_]' "$list"); do
        grep -qx "$name" <<<"$documented" || missing+=("$name")
    done
    for name in $documented; do
        grep -qx "$name" "$list" || stale+=("$name")
    done
    [ ${#missing[@]} -eq 0 ] || fail "$page lacks the prototypes of: ${missing[*]}"
    [ ${#stale[@]} -eq 0 ] || fail "$page gives prototypes of functions not exported: ${stale[*]}"
    echo "manual: $page gives all $(grep -cE '^[A-Za-z_]' "$list") exports"
}

options() {
    local page=$1 program=${2:-} help tags opt cmd missing=()
    [ -n "$program" ] || { echo "$(basename "$page") describes a program not built here: skipped"; exit 77; }
    help=$("$program" --help)
    # The tags of the page's entries: the line after each .TP.
    tags=$(awk 'previous == ".TP" { print } { previous = $0 }' "$page")
    # Option lines of the usage start with blanks and an option; some name two.
    for opt in $(grep -E '^ +-' <<<"$help" | grep -oE '(^| )-[A-Za-z](\b|$)' | tr -d ' -' | sort -u); do
        grep -qE "(^|[ \"])\\\\-${opt}([ \",]|\$)" <<<"$tags" || missing+=("-$opt")
    done
    if [ "$(basename "$program")" = kepctl ]; then
        for cmd in $(grep -oE '^kepctl (\[[^]]*\] )*[a-z]+' <<<"$help" | awk '{ print $NF }' | sort -u); do
            grep -qE "^\\.BI? \"?${cmd}( |\"|\$)" <<<"$tags" || missing+=("command $cmd")
        done
    fi
    [ ${#missing[@]} -eq 0 ] || fail "$page has no entry for: ${missing[*]}"
    echo "manual: $page has an entry for every option of $(basename "$program") --help"
}

example() {
    local page=$1 cc=$2 build=$3 model=$4
    shift 4
    local work includes=() out
    work=$(mktemp -d /tmp/kmXXXXXX)
    trap 'rm -rf "$work"' RETURN
    for dir in "$@"; do includes+=(-I"$dir"); done
    # The first example block, with the escapes of roff undone.
    sed -n '/^\.SH EXAMPLES/,$p' "$page" | sed -n '/^\.EX/,/^\.EE/p' | sed '/^\.EE/q' | sed '1d;$d' |
        sed -e 's/\\e/\\/g' -e 's/\\-/-/g' >"$work/example.c"
    grep -q 'int main' "$work/example.c" || fail "$page: no example program found"
    "$cc" -Wall -Wextra -Werror "${includes[@]}" $(pkg-config --cflags json-c) "$work/example.c" \
        -L"$build" -lkepHandle -lkepPlatform -Wl,-rpath,"$build" -o "$work/example" 2>"$work/cc.log" ||
        fail "$page: the example does not build: $(cat "$work/cc.log")"
    sed "s|@CONFDIR@|$work|" "$model" >"$work/model.xml"
    out=$(KEP_RUNTIME_DIR=$work/run "$work/example" "$work/model.xml") || fail "$page: the example failed"
    [ "$out" = '{"error_code":-10000}' ] || fail "$page: the example answered $out"
    echo "manual: the example of $page builds and answers"
}

case $mode in
render) render "$@" ;;
exports) exports "$@" ;;
options) options "$@" ;;
example) example "$@" ;;
*) fail "unknown mode $mode" ;;
esac
