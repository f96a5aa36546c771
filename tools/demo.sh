#!/usr/bin/env bash
# The system at work: starts the host daemon (kepd) and the example owners (dhcpd, sysd)
# against the sample model descriptions, with configuration files in a temporary folder,
# runs a scripted session with kepctl, and stops everything it started.
#   tools/demo.sh [BUILD-DIR]      (default: build)
# Exits nonzero when any step answers other than expected, so it doubles as a system test.
# KEP_RUN, when set, prefixes every program started (an emulator for a cross build).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(cd "${1:-$root/build}" && pwd)
# Configuration file paths live in the model description and hold at most 31 characters.
work=$(mktemp -d /tmp/kepXXXXXX)
export KEP_RUNTIME_DIR=$work/run KEP_IMI_TIMEOUT_MS=2000
pids=()
failures=0

cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

for m in dhcpd/dhcp sysd/system; do
    sed "s|@CONFDIR@|$work|" "$root/examples/$m.xml.in" >"$work/$(basename $m).xml"
done

kepctl() { ${KEP_RUN:-} "$bin/tools/kepctl" "$@"; }

# The arguments as one line a shell reads back as the same words: words of plain
# characters as they are, others in single quotes (a quote inside as '\'').
shell_words() {
    local out=() word
    for word in "$@"; do
        if [[ $word =~ ^[A-Za-z0-9_./:=@%+,-]+$ ]]; then
            out+=("$word")
        else
            out+=("'${word//\'/\'\\\'\'}'")
        fi
    done
    printf '%s' "${out[*]}"
}

# step EXPECTED-EXIT-STATUS TITLE -- kepctl ARGS...
step() {
    local want=$1 title=$2; shift 3
    printf '\n### %s\n$ kepctl %s\n' "$title" "$(shell_words "$@")"
    local status=0
    kepctl "$@" || status=$?
    if [ "$status" != "$want" ]; then
        echo "!!! expected exit status $want, got $status"
        failures=$((failures + 1))
    fi
}

# Owners first: each loads its module's file, writing defaults when there is none,
# then waits for the host to register with it. The waits end as soon as all are up;
# their bound (20 s) only matters on a heavily loaded machine.
${KEP_RUN:-} "$bin/examples/dhcpd" "$work/dhcp.xml" 2>"$work/dhcpd.log" & pids+=($!)
dhcpd=$!
${KEP_RUN:-} "$bin/examples/sysd" "$work/system.xml" >"$work/sysd.out" 2>"$work/sysd.log" & pids+=($!)
for _ in $(seq 400); do [ -f "$work/dhcp.json" ] && [ -f "$work/system.json" ] && break; sleep 0.05; done
${KEP_RUN:-} "$bin/tools/kepd" -m "$work/dhcp.xml" -m "$work/system.xml" 2>"$work/kepd.log" & pids+=($!)
for _ in $(seq 400); do
    kepctl -c get dhcp host >/dev/null 2>&1 && kepctl -c get system --name ntp >/dev/null 2>&1 && break
    sleep 0.05
done

echo "host kepd, owners dhcpd and sysd are up; configuration files in $work"
step 0 "Read the static leases (a list table) with their count" -- get dhcp host
step 0 "Read the current leases (a dynamic table), one page of 2" -- get dhcp client --para '{"limit":2}'
step 0 "Add a static lease; the owner names it" -- add dhcp host '{"mac":"02:00:00:00:00:42","ip":"192.168.1.42","hostname":"printer"}'
step 1 "An address already given away is refused by the owner" -- add dhcp host '{"mac":"02:00:00:00:00:43","ip":"192.168.1.42","hostname":"copy"}'
step 0 "Change that lease by its section name" -- set dhcp host_2 '{"hostname":"office-printer"}'
step 0 "Read two tables at once" -- get dhcp host client
step 0 "Change the DHCP pool (a named section); sysd is notified" -- set dhcp lan '{"leaseMinutes":720}'
step 0 "Read named sections of two modules" -- call '{"method":"get","dhcp":{"name":"lan"},"system":{"name":["ntp","zone"]}}'
step 0 "Set the time zone" -- set system zone '{"name":"Europe/Berlin","dst":true}'
step 0 "Delete the lease again" -- delete dhcp host_2
step 0 "Run an action" -- do dhcp restart '{"delay":0}'
step 1 "An action nobody declared" -- do dhcp reboot
step 1 "A module the model does not know" -- set nosuch thing '{}'
step 1 "A request without a method" -- call '{"dhcp":{"table":"host"}}'
step 0 "The tree with every registration" -- dump
echo; echo "### The configuration file of the dhcp module"; cat "$work/dhcp.json"; echo
step 0 "Factory reset" -- reset
step 0 "After the reset the defaults are back" -- get dhcp host
sleep 0.2
echo; echo "### What sysd printed"; cat "$work/sysd.out"

kill "$dhcpd"; wait "$dhcpd" 2>/dev/null || true
start=$(date +%s%N)
step 1 "The dhcp owner was stopped: the request fails at once instead of hanging" -- get dhcp host
echo "(answered in $(( ($(date +%s%N) - start) / 1000000 )) ms)"

echo
if [ "$failures" -ne 0 ]; then
    echo "demo: $failures step(s) answered other than expected; logs:"
    tail -n 20 "$work"/*.log
    exit 1
fi
echo "demo: every step answered as expected"
