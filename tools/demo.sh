#!/usr/bin/env bash
# The system at work: starts the host daemon (kepd) and the example owners (dhcpd, sysd)
# against the sample model descriptions, with configuration files in a temporary folder,
# runs a scripted session with kepctl, then the same through the HTTP gateway (kepwebd)
# with curl, and stops everything it started.
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

# The HTTP gateway runs unprivileged: started as root it becomes nobody, passes through
# the runtime folder to kepd's socket, and a kepd access rule lets its group send
# requests. It reads from the owners directly: their sockets admit its group
# (KEP_RPC_GROUP), and the owners let that group read and nothing else.
kepd_access=()
web_user=()
owner_env=()
if [ "$(id -u)" -eq 0 ] && id nobody >/dev/null 2>&1; then
    owner_env=(KEP_RPC_GROUP="$(id -g nobody)")
    chmod 711 "$work"
    mkdir -m 711 "$KEP_RUNTIME_DIR"
    mkdir "$work/access.d"
    echo "{\"group\": $(id -g nobody), \"send\": true}" >"$work/access.d/kepweb.json"
    kepd_access=(-a "$work/access.d")
    web_user=(-U nobody)
fi

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
env "${owner_env[@]}" ${KEP_RUN:-} "$bin/examples/dhcpd" "$work/dhcp.xml" 2>"$work/dhcpd.log" & pids+=($!)
dhcpd=$!
env "${owner_env[@]}" ${KEP_RUN:-} "$bin/examples/sysd" "$work/system.xml" >"$work/sysd.out" 2>"$work/sysd.log" & pids+=($!)
for _ in $(seq 400); do [ -f "$work/dhcp.json" ] && [ -f "$work/system.json" ] && break; sleep 0.05; done
${KEP_RUN:-} "$bin/tools/kepd" -m "$work/dhcp.xml" -m "$work/system.xml" "${kepd_access[@]}" 2>"$work/kepd.log" & pids+=($!)
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
cat >"$work/change.json" <<'JSON'
[{"method": "set", "dhcp": {"lan": {"leaseMinutes": 60}}},
 {"method": "set", "system": {"zone": {"name": "UTC", "dst": false}}},
 {"method": "set", "system": {"ntp": {"intervalMinutes": "often"}}}]
JSON
echo; echo "### A change set (two modules): its last request is refused, so none of it holds"; cat "$work/change.json"
step 1 "Applied as one" -- apply "$work/change.json"
step 0 "The pool and the zone as they were" -- call '{"method":"get","dhcp":{"name":"lan"},"system":{"name":"zone"}}'
step 0 "The tree with every registration" -- dump
echo; echo "### The configuration file of the dhcp module"; cat "$work/dhcp.json"; echo
step 0 "Factory reset" -- reset
step 0 "After the reset the defaults are back" -- get dhcp host
sleep 0.2
echo; echo "### What sysd printed"; cat "$work/sysd.out"

if [ -x "$bin/gateway/kepwebd" ]; then
    echo; echo "### The HTTP gateway (kepwebd): users, rules, a web root"
    kepwebd() { ${KEP_RUN:-} "$bin/gateway/kepwebd" "$@"; }
    {
        echo "demo:$(echo demo-password | kepwebd --hash):admin"
        echo "viewer:$(echo viewer-password | kepwebd --hash):viewer"
    } >"$work/users"
    echo '{"admin": {"*": ["read", "write", "exec"]}, "viewer": {"*": ["read"]}}' >"$work/rules.json"
    cat "$work/users" "$work/rules.json"
    # The usual port when it is free, else any.
    for listen in "127.0.0.1:${KEP_WEB_PORT:-8080}" 127.0.0.1:0; do
        : >"$work/kepwebd.log"
        # Started directly, not through the function: $! must be the gateway itself.
        ${KEP_RUN:-} "$bin/gateway/kepwebd" -f -l "$listen" -u "$work/users" -r "$work/rules.json" \
            -w "$root/gateway/www" "${web_user[@]}" 2>"$work/kepwebd.log" & web=$!
        for _ in $(seq 200); do
            grep -q "serving with" "$work/kepwebd.log" && break
            kill -0 "$web" 2>/dev/null || break
            sleep 0.05
        done
        grep -q "serving with" "$work/kepwebd.log" && break
    done
    pids+=($web)
    url=http://$(sed -n 's/^kepwebd: listening on //p' "$work/kepwebd.log")
    echo "gateway at $url (log in as demo / demo-password, or viewer / viewer-password)"

    # web EXPECTED-STATUS TITLE TOKEN-VARIABLE -- curl ARGS...: shows the call with the
    # token as $TOKEN, and its answer.
    web() {
        local want=$1 title=$2 tok=$3; shift 4
        local shown="curl $(shell_words "$@")"
        [ -n "$tok" ] && shown="curl -H 'Authorization: Bearer \$TOKEN' $(shell_words "$@")"
        printf '\n### %s\n$ %s\n' "$title" "$shown"
        local auth=()
        [ -n "$tok" ] && auth=(-H "Authorization: Bearer $tok")
        local status
        status=$(curl -s -o "$work/web.out" -w '%{http_code}' "${auth[@]}" "$@") || status=000
        cat "$work/web.out"; echo; echo "(HTTP $status)"
        if [ "$status" != "$want" ]; then
            echo "!!! expected HTTP $want, got $status"
            failures=$((failures + 1))
        fi
    }
    json=(-H 'Content-Type: application/json')
    web 200 "Log in" "" -- "${json[@]}" -d '{"username":"demo","password":"demo-password"}' "$url/api/login"
    token=$(sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p' "$work/web.out")
    web 200 "Read a table through the gateway" "$token" -- "${json[@]}" \
        -d '{"method":"get","dhcp":{"table":"host"}}' "$url/api/request"
    web 200 "Change a table" "$token" -- "${json[@]}" \
        -d '{"method":"set","dhcp":{"lan":{"leaseMinutes":480}}}' "$url/api/request"
    web 200 "What this user may see, for a web page" "$token" -- "$url/api/model"
    web 200 "Log in as a read-only user" "" -- "${json[@]}" \
        -d '{"username":"viewer","password":"viewer-password"}' "$url/api/login"
    viewer=$(sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p' "$work/web.out")
    web 403 "Refused by a rule: the viewer may not change anything" "$viewer" -- "${json[@]}" \
        -d '{"method":"set","dhcp":{"lan":{"leaseMinutes":5}}}' "$url/api/request"
    for i in 1 2 3 4 5; do
        web 401 "Wrong password ($i)" "" -- "${json[@]}" -d '{"username":"demo","password":"guess"}' "$url/api/login"
    done
    web 429 "Throttled: refused at once, with Retry-After" "" -- -i "${json[@]}" \
        -d '{"username":"demo","password":"demo-password"}' "$url/api/login"
    web 200 "Log out" "$token" -- -X POST "$url/api/logout"
    web 401 "The token is dead" "$token" -- "$url/api/session"
    echo; echo "### The audit log (syslog, authpriv; kepwebd -f copies it to standard error)"
    grep -E "login|logout|refused|request:" "$work/kepwebd.log" | sed 's/^/  /'
    if [ -t 0 ] && [ -t 1 ] && [ -z "${CI:-}" ]; then
        echo; echo "The gateway serves the web page at $url (demo / demo-password; viewer / viewer-password;"
        echo "the throttle lifts after a second). Press Enter to go on."
        read -r _ || true
    fi
fi

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
