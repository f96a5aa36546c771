#!/usr/bin/env bash
# A fleet on one machine: a Mosquitto broker on loopback with TLS, passwords and ACLs
# made at run time, and N simulated devices, each in a folder of its own that is also
# its runtime folder, so that devices never meet: its host (kepd, 2 threads) and
# kepagent --simulate, which owns the ntp module itself as examples/ntpd would. With
# FLEET_REAL=K the first K devices run as a real device does instead: kepd, the example
# owner ntpd in its own process, and kepagent over the direct route.
#   tools/fleet.sh up DIR N [BUILD-DIR]   make DIR (a new folder), start the broker and devices d0001..dN
#   tools/fleet.sh broker DIR             (re)start the broker from DIR's files
#   tools/fleet.sh device DIR NAME        (re)start one device's agent
#   tools/fleet.sh down DIR               stop the devices and the broker
# Controllers: ctl-admin (role operator: everything), ctl-view (role viewer: reads),
# ctl-none (a broker account without a role on the devices). kepfleet's options for
# one of them: $(cat DIR/ctl-admin.args). Started as root, the broker and the agents
# run as nobody. Every wait is bounded; exits nonzero when something did not come up.
# FLEET_FLOOR=M also makes broker accounts f0001..fM, under the devices' ACL, with
# their passwords in DIR/floor.passwords, for the benchmark's broker floor.
# FLEET_CERTS=K: the last K devices log in with a client certificate (CN = the device's
# name, the broker's user name) on a second listener, DIR/cert-port, that takes nothing else.
# FLEET_QUEUE (100) is the broker's max_queued_messages: what it holds for a client
# beyond the 20 in flight, so at least the answers a controller awaits at once.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cmd=${1:-}
dir=${2:-}
[ -n "$cmd" ] && [ -n "$dir" ] || { sed -n '2,13p' "$0" >&2; exit 2; }

runas=()
[ "$(id -u)" -eq 0 ] && runas=(nobody)

# Waits up to $1 tenths of a second for the command after it to succeed.
wait_for() {
    local tenths=$1; shift
    for _ in $(seq "$tenths"); do "$@" && return 0; sleep 0.1; done
    "$@"
}

# Running: signalable and not a zombie waiting to be reaped by whoever adopted it.
# Builtins only: stopping a fleet checks thousands of processes many times.
running() {
    local stat
    kill -0 "$1" 2>/dev/null || return 1
    read -r stat <"/proc/$1/stat" 2>/dev/null || return 0
    [[ $stat != *") Z "* ]]
}

# Sends TERM to the processes of the pid files, waits up to 3 s for all, then KILL.
stop_pids() {
    local file pids=() pid
    for file in "$@"; do
        [ -f "$file" ] || continue
        pid=$(cat "$file")
        rm -f "$file"
        running "$pid" && kill "$pid" 2>/dev/null && pids+=("$pid")
    done
    for _ in $(seq 30); do
        local left=()
        for pid in "${pids[@]}"; do running "$pid" && left+=("$pid"); done
        pids=("${left[@]}")
        [ ${#pids[@]} -eq 0 ] && return 0
        sleep 0.1
    done
    kill -9 "${pids[@]}" 2>/dev/null || true
}

start_broker() {
    stop_pids "$dir/broker.pid"
    local port
    port=$(cat "$dir/port")
    # Something else on a port would pass the check below: refuse at once.
    local p
    for p in "$port" $(cat "$dir/cert-port" 2>/dev/null); do
        if bash -c "exec 3<>/dev/tcp/127.0.0.1/$p" 2>/dev/null; then
            echo "fleet: port $p is taken" >&2
            return 1
        fi
    done
    setsid mosquitto -c "$dir/mosquitto.conf" >>"$dir/broker.out" 2>&1 &
    local pid=$!
    echo "$pid" >"$dir/broker.pid"
    # Up once it accepts TCP connections on its port, and it is this broker that does: one
    # with this folder's CA and a controller's password (a broker that lost the port exits).
    wait_for 100 bash -c "exec 3<>/dev/tcp/127.0.0.1/$port" 2>/dev/null && running "$pid" &&
        "$(cat "$dir/build")/fleet/kepfleet" $(cat "$dir/ctl-admin.args") --host localhost -t 5 --no-progress \
            --settle-ms 50 status >/dev/null 2>&1 || {
        echo "fleet: the broker did not start; $dir/broker.log says:" >&2
        tail -5 "$dir/broker.log" >&2 || true
        return 1
    }
}

# The device's host, its owner unless the agent owns the module, then its agent; each as
# the device's user (nobody under root).
start_device() {
    local name=$1 d=$dir/$1 build as=()
    build=$(cat "$dir/build")
    [ ${#runas[@]} -gt 0 ] && as=(setpriv --reuid="${runas[0]}" --regid="$(id -g "${runas[0]}")" --clear-groups)
    stop_pids "$d/agent.pid" "$d/ntpd.pid" "$d/kepd.pid"
    KEP_RUNTIME_DIR=$d/run "${as[@]}" "$build/tools/kepd" -t 2 -m "$d/ntp.xml" >>"$d/kepd.log" 2>&1 &
    echo $! >"$d/kepd.pid"
    if ! grep -q '^simulate' "$d/agent.conf"; then
        KEP_RUNTIME_DIR=$d/run "${as[@]}" "$build/examples/ntpd" "$d/ntp.xml" >>"$d/ntpd.log" 2>&1 &
        echo $! >"$d/ntpd.pid"
    fi
    KEP_RUNTIME_DIR=$d/run "$build/fleet/kepagent" -c "$d/agent.conf" >>"$d/agent.log" 2>&1 &
    echo $! >"$d/agent.pid"
}

# Devices FIRST..LAST in a session of their own. On one machine the kernel shares the CPU
# between sessions first: a thousand devices' processes then weigh as much as the broker
# and as the controller, as if each side had a machine of its own, instead of leaving the
# broker one thousandth of it. (The broker starts in a session of its own too.)
start_devices() {
    if [ "${FLEET_IN_SESSION:-}" != "$dir" ]; then
        FLEET_IN_SESSION=$dir setsid -w "$BASH" "$0" _devices "$dir" "$1" "$2"
        return
    fi
    unset FLEET_IN_SESSION  # the devices' processes need not carry it
    local i name
    for ((i = $1; i <= $2; i++)); do
        printf -v name 'd%04d' "$i"
        start_device "$name"
    done
}

write_broker_files() {
    local port=$1
    cat >"$dir/mosquitto.conf" <<CONF
# Made by tools/fleet.sh. Nobody without a password; nobody reads or writes a topic
# the ACL does not grant; TLS only, on loopback.
per_listener_settings false
allow_anonymous false
password_file $dir/passwd
acl_file $dir/acl
persistence false
max_packet_size 131072
max_inflight_messages 20
max_queued_messages ${FLEET_QUEUE:-100}
max_keepalive 300
log_dest file $dir/broker.log
log_type error
log_type warning
log_type notice
connection_messages true
${runas:+user ${runas[0]}}
# Listener options come after their listener line: before the first one, mosquitto
# would open a default plain listener on port 1883 for them.
listener $port 127.0.0.1
# A client cannot take over another's session by naming its client id.
use_username_as_clientid true
# Small requests and answers go out at once, not after the peer's delayed acknowledgement.
set_tcp_nodelay true
cafile $dir/ca.pem
certfile $dir/server.pem
keyfile $dir/server.key
tls_version tlsv1.2
CONF
    cat >"$dir/acl" <<'ACL'
# Controllers: each writes requests under its own name only, reads the answers to
# itself and every device's status.
user ctl-admin
topic write kep/+/request/ctl-admin
topic read kep/+/response/ctl-admin
topic read kep/+/status
user ctl-view
topic write kep/+/request/ctl-view
topic read kep/+/response/ctl-view
topic read kep/+/status
user ctl-none
topic write kep/+/request/ctl-none
topic read kep/+/response/ctl-none
topic read kep/+/status
# Devices (patterns apply to every user; no controller is named as a device): each
# reads its own requests, writes answers and its status under its own name only.
pattern read kep/%u/request/+
pattern write kep/%u/response/+
pattern write kep/%u/status
ACL
    if [ "${FLEET_CERTS:-0}" -gt 0 ]; then
        cat >>"$dir/mosquitto.conf" <<CONF
# Devices that log in with a certificate of this CA: its CN is their user name, for the
# ACL as for the session; a client without one does not get through the handshake.
listener $((port + 1)) 127.0.0.1
use_username_as_clientid true
set_tcp_nodelay true
require_certificate true
use_identity_as_username true
cafile $dir/ca.pem
certfile $dir/server.pem
keyfile $dir/server.key
tls_version tlsv1.2
CONF
    fi
}

up() {
    local n=$1 build=${2:-$root/build}
    build=$(cd "$build" && pwd)
    [ -x "$build/fleet/kepagent" ] && [ -x "$build/fleet/kepfleet" ] || { echo "fleet: build kepagent and kepfleet first ($build)" >&2; exit 1; }
    [[ $n =~ ^[0-9]+$ ]] && [ "$n" -ge 1 ] && [ "$n" -le 9999 ] || { echo "fleet: N is 1 to 9999" >&2; exit 2; }
    mkdir "$dir"  # a new folder: never writes into one that exists
    dir=$(cd "$dir" && pwd)
    # The model description names each device's file, at most 31 characters.
    [ ${#dir} -le 16 ] || { echo "fleet: DIR must be a path of at most 16 characters (e.g. /tmp/kfXXXXXX)" >&2; exit 2; }
    echo "$build" >"$dir/build"
    chmod 711 "$dir"

    # A CA and the broker's certificate for localhost and 127.0.0.1, valid two days.
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=fleet-ca \
        -keyout "$dir/ca.key" -out "$dir/ca.pem" 2>/dev/null
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=localhost \
        -keyout "$dir/server.key" -out "$dir/server.csr" 2>/dev/null
    printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' >"$dir/san.ext"
    openssl x509 -req -in "$dir/server.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" -CAcreateserial -days 2 \
        -extfile "$dir/san.ext" -out "$dir/server.pem" 2>/dev/null
    chmod 644 "$dir/ca.pem"

    # Passwords: 32 hex digits each from the kernel's random source, hashed by mosquitto_passwd.
    local users=(ctl-admin ctl-view ctl-none) i name
    for ((i = 1; i <= n; i++)); do printf -v name 'd%04d' "$i"; users+=("$name"); done
    for ((i = 1; i <= ${FLEET_FLOOR:-0}; i++)); do printf -v name 'f%04d' "$i"; users+=("$name"); done
    # One password a line: slicing one long string costs bash time in its length, per user.
    local pws
    mapfile -t pws < <(head -c $((16 * ${#users[@]})) /dev/urandom | od -An -tx1 -v -w16 | tr -d ' ')
    : >"$dir/passwd"
    for i in "${!users[@]}"; do
        local u=${users[$i]} pw=${pws[$i]}
        printf '%s:%s\n' "$u" "$pw" >>"$dir/passwd"
        if [[ $u == ctl-* ]]; then
            printf '%s\n' "$pw" >"$dir/$u.password"
        elif [[ $u == f* ]]; then
            printf '%s:%s\n' "$u" "$pw" >>"$dir/floor.passwords"
        else
            mkdir -m 700 "$dir/$u"
            printf '%s\n' "$pw" >"$dir/$u/password"
        fi
    done
    mosquitto_passwd -U "$dir/passwd"

    cat >"$dir/rules.json" <<'RULES'
{"operator": {"*": ["read", "write", "exec"]},
 "viewer": {"*": ["read"]}}
RULES
    printf 'ctl-admin:operator\nctl-view:viewer\n' >"$dir/controllers.txt"

    # A free port: the broker is tried on a few random ones.
    local port started=0
    for _ in 1 2 3 4 5; do
        # Below the range the kernel picks clients' local ports from, which a listener cannot bind.
        local low
        low=$(cut -f1 /proc/sys/net/ipv4/ip_local_port_range 2>/dev/null || echo 32768)
        [ "$low" -gt 11000 ] || low=32768
        port=$((10000 + $(od -An -tu2 -N2 /dev/urandom) % (low - 10000)))
        echo "$port" >"$dir/port"
        [ "${FLEET_CERTS:-0}" -gt 0 ] && echo $((port + 1)) >"$dir/cert-port"
        write_broker_files "$port"
        for u in ctl-admin ctl-view ctl-none; do
            printf -- '--port %s --ca-file %s --user %s --password-file %s\n' "$port" "$dir/ca.pem" "$u" \
                "$dir/$u.password" >"$dir/$u.args"
        done
        if [ ${#runas[@]} -gt 0 ]; then
            touch "$dir/broker.log"
            chown "${runas[0]}" "$dir/passwd" "$dir/acl" "$dir/server.key" "$dir/broker.log"
            chmod 600 "$dir/passwd" "$dir/acl" "$dir/server.key"
        fi
        if start_broker 2>/dev/null; then started=1; break; fi
    done
    [ "$started" = 1 ] || { echo "fleet: the broker did not start; see $dir/broker.log" >&2; exit 1; }

    # After a broker restart the devices come back spread over the longest wait: a window
    # in which the broker takes them all (it connects about 500 TLS clients a second here).
    local backoff=$(((n + 499) / 500))
    [ "$backoff" -ge 2 ] || backoff=2
    for i in $(seq "$n"); do
        local name d
        name=$(printf 'd%04d' "$i")
        d=$dir/$name
        sed "s|@CONFDIR@|$d|" "$root/examples/ntpd/ntp.xml.in" >"$d/ntp.xml"
        local login="broker-port = $port
password-file = $d/password"
        if [ "$i" -gt $((n - ${FLEET_CERTS:-0})) ]; then
            # A key and a certificate of the fleet's CA with the device's name; no password.
            openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=$name" \
                -keyout "$d/client.key" -out "$d/client.csr" 2>/dev/null
            openssl x509 -req -in "$d/client.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" -CAcreateserial \
                -days 2 -out "$d/client.pem" 2>/dev/null
            login="broker-port = $((port + 1))
cert-file = $d/client.pem
key-file = $d/client.key"
        fi
        cat >"$d/agent.conf" <<CONF
broker-host = localhost
$login
ca-file = $dir/ca.pem
device = $name
rules = $dir/rules.json
controllers = $dir/controllers.txt
audit-log = $d/audit.log
answers-file = $d/answers
backoff-max = $backoff
$([ "$i" -gt "${FLEET_REAL:-0}" ] && echo "simulate = $d/ntp.xml")
${runas:+user = ${runas[0]}}
CONF
        mkdir -m 700 "$d/run"
        [ ${#runas[@]} -gt 0 ] && chown -R "${runas[0]}" "$d"
    done
    start_devices 1 "$n"

    # Up once every device says "online" on its status topic: 20 s, and 1 s more per 10 devices.
    local until=$((SECONDS + 20 + n / 10)) online=0
    while [ "$SECONDS" -lt "$until" ]; do
        online=$("$build/fleet/kepfleet" $(cat "$dir/ctl-admin.args") --host localhost -t 5 status 2>/dev/null |
            grep -c '"status":"online"' || true)
        [ "$online" -ge "$n" ] && break
        sleep 0.2
    done
    [ "$online" -ge "$n" ] || { echo "fleet: $online of $n devices online" >&2; exit 1; }
    echo "fleet: broker on localhost:$port, $n devices online, files in $dir"
}

down() {
    [ -f "$dir/port" ] || { echo "fleet: $dir is no fleet folder" >&2; exit 1; }
    stop_pids "$dir"/d[0-9]*/*.pid
    stop_pids "$dir/broker.pid"
}

case "$cmd" in
up) up "${3:?N}" "${4:-}" ;;
broker) dir=$(cd "$dir" && pwd); start_broker ;;
device)
    dir=$(cd "$dir" && pwd)
    [[ ${3:-} =~ ^d([0-9]{4})$ ]] || { echo "fleet: NAME is a device's, d0001 to d9999" >&2; exit 2; }
    start_devices $((10#${BASH_REMATCH[1]})) $((10#${BASH_REMATCH[1]}))
    ;;
_devices) dir=$(cd "$dir" && pwd); start_devices "$3" "$4" ;;
down) dir=$(cd "$dir" && pwd); down ;;
*) sed -n '2,13p' "$0" >&2; exit 2 ;;
esac
