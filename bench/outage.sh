#!/usr/bin/env bash
# Prints, as Markdown, how long clients miss an address that another server takes over: three hosts on a bridge,
# the one that has the address loses its link, the second takes it over at once, the third pings it every 10 ms.
# Everything runs in network namespaces of its own. -n sets the take-overs behind each median.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
while getopts n: option; do
    case $option in
    n) runs=$OPTARG ;;
    *) exit 2 ;;
    esac
done

bin=$PWD/build/release/bin
switch=qorout-s-$$ dead=qorout-a-$$ taker=qorout-b-$$ client=qorout-c-$$
home=$(mktemp -d /tmp/qoroutage.XXXXXX)
declare -A address=([4]=192.0.2.10/24 [6]=2001:db8::10/64)

clean_up() {
    local ns
    for ns in "$switch" "$dead" "$taker" "$client"; do
        [ -e "/run/netns/$ns" ] || continue
        ip netns pids "$ns" | xargs -r kill -9 2>/dev/null || true
        ip netns del "$ns"
    done
    rm -rf "$home"
}
trap clean_up EXIT

set_up_network() {
    local ns host=0
    ip netns add "$switch"
    ip -n "$switch" link add br0 type bridge mcast_snooping 0
    ip -n "$switch" link set br0 up
    for ns in "$dead" "$taker" "$client"; do
        ip netns add "$ns"
        ip link add eth0 netns "$ns" type veth peer name "port$((++host))" netns "$switch"
        ip -n "$switch" link set "port$host" master br0 up
        ip -n "$ns" link set lo up
        ip -n "$ns" addr add "192.0.2.$host/24" dev eth0
        ip -n "$ns" addr add "2001:db8::$host/64" dev eth0 nodad
        ip -n "$ns" link set eth0 up
    done
}

# The agent's resources, on the sample policy: NAME-FAMILY, with what each changes of it.
write_configuration() {
    local family
    cmake --install build/release --prefix "$home" >/dev/null
    chmod 755 "$home"
    sed -i "s|/opt/qor|$home|" "$home/etc/policy/all.xml"
    {
        echo '<root><resource>'
        for family in 4 6; do
            resource "check-$family" "$family" '<ping><timeout>1</timeout></ping>'
            resource "plain-$family" "$family" '<ping><timeout>0</timeout></ping><nd><dad>0</dad></nd>'
            resource "dad-$family" "$family" '<ping><timeout>0</timeout></ping>'
        done
        echo '</resource></root>'
    } >"$home/etc/cluster.xml"
}
resource() {
    echo "<fip name='$1'><parameters><ip>${address[$2]}%eth0</ip>"
    echo "<ifconfig><use>1</use></ifconfig>$3</parameters></fip>"
}

agent() { ip netns exec "$taker" env QOR_HOME="$home" "$bin/qorfip" --active -r "$1" -g bench; }
peer() {
    local env=(OCF_ROOT=/usr/lib/ocf OCF_RESOURCE_INSTANCE=bench "HA_RSCTMP=$home/rsctmp" OCF_RESKEY_nic=eth0
        "OCF_RESKEY_ip=${address[$1]%/*}" "OCF_RESKEY_cidr_netmask=${address[$1]#*/}")
    ip netns exec "$taker" env "${env[@]}" /usr/lib/ocf/resource.d/heartbeat/IPaddr2 start
}

# answered SINCE: when the first answer after that came, in microseconds, or nothing
answered() { awk -v since="$1" -F '[][]' '/bytes from/ { t = $2 * 1e6; if (t > since) { printf "%d", t; exit } }' "$home/pings"; }
us_now() { echo "${EPOCHREALTIME/./}"; }

await_answer() { # SINCE: waits for it, a minute at the most, and tells when it came
    local at=''
    for ((i = 0; i < 6000; ++i)); do
        at=$(answered "$1")
        [ -z "$at" ] || break
        sleep 0.01
    done
    echo "${at:-$(($1 + 60000000))}"
}

# outage FAMILY COMMAND...: one take-over: milliseconds from the loss of the link to the first answer
outage() {
    local family=$1 ip=${address[$1]} ping start at
    shift
    ip -n "$taker" addr del "$ip" dev eth0 2>/dev/null || true
    ip -n "$switch" link set port1 up
    ip -n "$dead" addr replace "$ip" dev eth0 nodad
    ip -n "$client" neigh flush dev eth0
    ip netns exec "$client" ping -D -n -i 0.01 "${ip%/*}" >"$home/pings" 2>&1 &
    ping=$!
    await_answer 0 >/dev/null
    sleep 0.2 # the client believes the dead server's hardware address by now
    ip -n "$switch" link set port1 down
    start=$(us_now)
    "$@" >/dev/null 2>&1
    at=$(await_answer "$start")
    kill "$ping"
    wait "$ping" 2>/dev/null || true
    echo $(((at - start + 500) / 1000))
}

# The commands take turns, so that what else the machine does falls on all of them alike.
declare -A samples=()
measure() {
    local family name
    for ((i = 0; i < runs; ++i)); do
        for family in 4 6; do
            for name in plain check dad peer; do
                case $family:$name in
                4:dad) continue ;; # there is no detection to wait for
                *:peer) samples[$name-$family]+="$(outage "$family" peer "$family") " ;;
                *) samples[$name-$family]+="$(outage "$family" agent "$name-$family") " ;;
                esac
            done
        done
    done
}
median() { # of the words given, with the range behind it
    tr ' ' '\n' <<<"$*" | grep . | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] " (" v[1] "-" v[NR] ")" }'
}
cell() { [ -n "${samples[$1]-}" ] && median "${samples[$1]}" || echo -; }

set_up_network
write_configuration
measure
cat <<END

## A take-over, as a client sees it

Milliseconds from the loss of the old server's link to the first answer of the new one, to a client that pings
every 10 ms; medians of $runs, with the range. The sample policy's values but for what the heading names; IPaddr2 does not
ask whether anybody has the address.

| | agent, no check, \`nd/dad\` 0 | agent, check on | agent, no check (kernel's DAD) | IPaddr2 |
|---|---:|---:|---:|---:|
| IPv4 | $(cell plain-4) | $(cell check-4) | - | $(cell peer-4) |
| IPv6 | $(cell plain-6) | $(cell check-6) | $(cell dad-6) | $(cell peer-6) |
END
