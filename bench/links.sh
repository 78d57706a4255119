#!/usr/bin/env bash
# Prints how qorping judges addresses that are silent to echo requests, late, behind a proxy, or not there, and how
# long it takes: medians of 5 runs between two network namespaces. Needs root and the release programs.
set -euo pipefail
cd "$(dirname "$0")/.."
qorping=$PWD/build/release/bin/qorping here="qlh$$" there="qlt$$"
clean() {
    for netns in "$here" "$there"; do
        ip netns pids "$netns" | xargs -r kill
        ip netns delete "$netns"
    done
}
trap clean EXIT

for netns in "$here" "$there"; do ip netns add "$netns"; done
ip -n "$here" link add eth0 type veth peer name eth0 netns "$there"
ip -n "$there" link add eth1 type veth peer name eth2
ip -n "$here" tuntap add tun0 mode tun
for ip in 192.0.2.1/24 2001:db8::1/64; do ip -n "$here" address add "$ip" dev eth0; done
for ip in 192.0.2.2/24 2001:db8::2/64 10.9.9.9/24; do ip -n "$there" address add "$ip" dev eth0; done
ip -n "$here" address add 10.7.0.1/24 dev tun0
for link in lo eth0 tun0; do ip -n "$here" link set "$link" up; done
for link in eth0 eth1 eth2; do ip -n "$there" link set "$link" up; done
ip netns exec "$there" sysctl -qw net.ipv4.icmp_echo_ignore_all=1 net.ipv6.icmp.echo_ignore_all=1 \
    net.ipv4.conf.all.forwarding=1 net.ipv4.conf.eth0.proxy_arp=1 net.ipv4.neigh.eth0.proxy_delay=0
ip -n "$there" route add 192.0.2.55/32 dev eth1
ip -n "$here" link add vlan0 link eth0 type macvlan
ip -n "$here" address add 10.5.0.1/24 dev vlan0
ip -n "$here" link set vlan0 up
ip -n "$there" address add 10.5.0.2/24 dev eth0
sleep 2.5 # duplicate address detection

# case_of WHAT ROUNDS ADDRESS [DELAY_MS LOST]: a row of the table; the last two make a host that has the address
case_of() {
    local results='' median
    for _ in 1 2 3 4 5; do
        local responder='' before status=0
        if [ $# -gt 3 ]; then
            coproc { exec ip netns exec "$there" python3 bench/link_host.py eth0 "$3" "$4" "$5"; }
            responder=$COPROC_PID
            read -r _ <&"${COPROC[0]}"
        fi
        ip -n "$here" neighbour flush all
        before=${EPOCHREALTIME/./}
        ip netns exec "$here" "$qorping" -c "$2" "$3" >/dev/null || status=$?
        results+="$(((${EPOCHREALTIME/./} - before) / 1000)) $status"$'\n'
        [ -z "$responder" ] || { kill "$responder" && wait "$responder"; } 2>/dev/null || true
    done
    median=$(printf %s "$results" | sort -n | sed -n 3p)
    printf '| %s | %s | %s |\n' "$1" "${median#* }" "${median% *}"
}

# together NUMBER: that many addresses at once, until the last run has ended
together() {
    local before=${EPOCHREALTIME/./}
    # shellcheck disable=SC2016 # the inner shell's own
    ip netns exec "$here" bash -c 'for i in $(seq "$1"); do "$0" -c 1 "192.0.2.$((i + 100))" & done; wait' \
        "$qorping" "$1" >/dev/null
    printf '| nobody, %s addresses at once | 1 | %s |\n' "$1" "$(((${EPOCHREALTIME/./} - before) / 1000))"
}

printf '| address | status | ms |\n|---|---:|---:|\n'
case_of 'drops echo requests, IPv4' 1 192.0.2.2
case_of 'drops echo requests, IPv6' 1 2001:db8::2
case_of 'drops echo requests, on a macvlan' 1 10.5.0.2
case_of 'drops echo requests, no route to it' 1 10.9.9.9
for address in 192.0.2.77 2001:db8::77; do
    for delay in 50 150 350; do case_of "$address, its link answers after $delay ms" 1 "$address" "$delay" 0; done
done
case_of '192.0.2.77, one question lost' 1 192.0.2.77 0 1
case_of '192.0.2.77, two questions lost' 1 192.0.2.77 0 2
case_of 'nobody, IPv4' 1 192.0.2.9
case_of 'nobody, IPv6' 1 2001:db8::9
case_of 'nobody, 3 rounds' 3 192.0.2.9
case_of 'nobody, behind a router with proxy ARP' 1 192.0.2.55
case_of 'nobody, no route to it' 1 10.9.9.8
case_of 'nobody, on a tun' 1 10.7.0.2
together 100
