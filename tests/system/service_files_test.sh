#!/usr/bin/env bash
# The service files as an install leaves them: installs the build into a fresh prefix,
# then
#   verify  checks the systemd units with systemd-analyze verify (syntax, the programs
#           they start, the units they name, their manual pages) and the gateway's
#           sysusers.d file with systemd-sysusers
#   init    runs the example init script with dash against the installed programs:
#           start, status, requests through the host to the owners, a dead owner and
#           a pid file naming another process, restart, stop
#   tests/system/service_files_test.sh verify|init BUILD-DIR
# Exits 77 (skipped) when the tools a mode needs are missing.
set -euo pipefail
mode=$1
build=$(cd "$2" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d /tmp/ksXXXXXX)
prefix=$work/prefix
script=$prefix/share/kepHandle/init.d/kep
export KEP_DEFAULTS=$work/defaults

cleanup() {
    if [ "$mode" = init ] && [ -x "$script" ]; then sh "$script" stop >/dev/null 2>&1 || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "service files: $*" >&2; exit 1; }
unset LD_LIBRARY_PATH

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

verify() {
    command -v systemd-analyze >/dev/null || { echo "systemd-analyze not installed: skipped"; exit 77; }
    local units=$prefix/lib/systemd/system
    # The gateway is built where libmicrohttpd is: a stand-in lets its unit be checked.
    if [ ! -x "$prefix/bin/kepwebd" ]; then
        printf '#!/bin/sh\nexit 0\n' >"$prefix/bin/kepwebd"
        chmod 755 "$prefix/bin/kepwebd"
        echo "kepwebd not built: its unit is checked against a stand-in"
    fi
    local out
    out=$(cd "$units" && MANPATH=$prefix/share/man SYSTEMD_LOG_LEVEL=notice \
        systemd-analyze verify --man=yes kepd.service kep-dhcpd.service kep-sysd.service kep-ntpd.service \
        kepwebd.service 2>&1) || fail "systemd-analyze verify: $out"
    # Warnings do not fail verify: none is wanted either.
    [ -z "$out" ] || fail "systemd-analyze verify says: $out"
    grep -q "^ExecStart=$prefix/bin/kepd " "$units/kepd.service" || fail "kepd.service does not start $prefix/bin/kepd"
    grep -q "^Type=notify" "$units/kepd.service" || fail "kepd.service does not wait for READY=1"

    if command -v systemd-sysusers >/dev/null; then
        mkdir -p "$work/root/etc"
        out=$(systemd-sysusers --root="$work/root" "$prefix/lib/sysusers.d/kepweb.conf" 2>&1) ||
            fail "systemd-sysusers: $out"
        grep -q "^kepweb:x:[0-9]*:[0-9]*:.*:/usr/sbin/nologin$" "$work/root/etc/passwd" ||
            fail "no user kepweb: $(cat "$work/root/etc/passwd")"
        grep -q "^kepweb:x:" "$work/root/etc/group" || fail "no group kepweb"
    fi
    echo "service files: the units and the gateway's user check out"
}

# Whether a process runs; a zombie does not (where nobody reaps orphans, they stay).
alive() {
    kill -0 "$1" 2>/dev/null && ! grep -q '^[0-9]* (.*) Z' "/proc/$1/stat" 2>/dev/null
}

pids_of() {  # the pids in the runtime folder's pid files
    cat "$work/run"/*.pid 2>/dev/null | tr '\n' ' '
}

init() {
    command -v dash >/dev/null || { echo "dash not installed: skipped"; exit 77; }
    local owners=$prefix/libexec/kepHandle
    for m in dhcpd/dhcp sysd/system ntpd/ntp; do
        sed "s|@CONFDIR@|$work|" "$src/examples/$m.xml.in" >"$work/$(basename $m).xml"
    done
    cat >"$KEP_DEFAULTS" <<EOF
KEP_RUNTIME_DIR=$work/run
KEP_STATE_DIR=$work
KEPD_OPTIONS="-m $work/dhcp.xml -m $work/system.xml -m $work/ntp.xml"
KEP_OWNERS="$owners/dhcpd $work/dhcp.xml
$owners/sysd $work/system.xml
$owners/ntpd $work/ntp.xml"
STOP_SECONDS=5
EOF
    export KEP_RUNTIME_DIR=$work/run
    kep() { dash "$script" "$@"; }
    kepctl() { "$prefix/bin/kepctl" -c "$@"; }
    served() {  # waits until every owner answers through the host
        for _ in $(seq 200); do
            kepctl get dhcp host >/dev/null 2>&1 && kepctl get system --name ntp >/dev/null 2>&1 &&
                kepctl do ntp sync >/dev/null 2>&1 && return 0
            sleep 0.05
        done
        return 1
    }

    local status=0
    kep status >"$work/status" || status=$?
    [ "$status" = 3 ] || fail "status before start: $status, not 3: $(cat "$work/status")"
    kep start || fail "start"
    kep status >"$work/status" || fail "status after start: $(cat "$work/status")"
    [ "$(grep -c ' runs (pid ' "$work/status")" = 4 ] || fail "not all four run: $(cat "$work/status")"
    served || fail "the owners do not answer through the host"
    [ "$(stat -c %a "$work/run")" = 755 ] || fail "runtime folder not 0755"
    local before
    before=$(pids_of)
    kep start >/dev/null || fail "a second start"
    [ "$(pids_of)" = "$before" ] || fail "a second start started programs again: $before -> $(pids_of)"

    # A dead owner is reported and started again alone.
    local sysd
    sysd=$(cat "$work/run/sysd.pid")
    kill -9 "$sysd"
    status=0
    kep status >"$work/status" || status=$?
    [ "$status" = 3 ] && grep -q "sysd is not running" "$work/status" || fail "dead sysd: $(cat "$work/status")"
    kep start >/dev/null || fail "start after sysd died"
    [ "$(cat "$work/run/sysd.pid")" != "$sysd" ] || fail "sysd not started again"
    served || fail "sysd does not answer again"

    # A pid file naming another program's process is not taken for the owner.
    local ntpd
    ntpd=$(cat "$work/run/ntpd.pid")
    kill "$ntpd"
    sleep 30 &
    local other=$!
    echo "$other" >"$work/run/ntpd.pid"
    status=0
    kep status >"$work/status" || status=$?
    [ "$status" = 3 ] && grep -q "ntpd is not running" "$work/status" ||
        fail "a sleep taken for ntpd: $(cat "$work/status")"
    kep stop >/dev/null
    kill -0 "$other" 2>/dev/null || fail "stop killed a process that is not ntpd"
    kill "$other"

    kep restart >/dev/null || fail "restart"
    served || fail "not served after restart"
    local kepd
    kepd=$(cat "$work/run/kepd.pid")
    kep restart >/dev/null || fail "second restart"
    served || fail "not served after the second restart"
    [ "$(cat "$work/run/kepd.pid")" != "$kepd" ] || fail "restart kept the old kepd"

    local running
    running=$(pids_of)
    kep stop || fail "stop"
    for p in $running; do
        ! alive "$p" || fail "pid $p still runs after stop"
    done
    [ ! -e "$work/run/kepd.pid" ] || fail "kepd.pid left behind"
    status=0
    kep status >/dev/null || status=$?
    [ "$status" = 3 ] || fail "status after stop: $status"
    echo "service files: the init script starts, watches, restarts and stops the system"
}

case $mode in
verify) verify ;;
init) init ;;
*) fail "usage: $0 verify|init BUILD-DIR" ;;
esac
