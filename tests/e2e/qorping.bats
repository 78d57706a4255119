# qorping against real kernels: "here" probes, "there" is the other host on the link.

bats_require_minimum_version 1.5.0

setup_file() {
    export here="qph$$" there="qpt$$"
    for netns in "$here" "$there"; do ip netns add "$netns"; done
    for link in eth0 eth1; do ip -n "$here" link add "$link" type veth peer name "$link" netns "$there"; done
    for ip in 192.0.2.1/24 2001:db8::1/64 fe80::1/64; do ip -n "$here" address add "$ip" dev eth0 nodad; done
    for ip in 192.0.2.2/24 2001:db8::2/64 fe80::2/64; do ip -n "$there" address add "$ip" dev eth0 nodad; done
    ip -n "$here" address add fe80::11/64 dev eth1 nodad
    ip -n "$there" address add fe80::22/64 dev eth1 nodad
    for link in lo eth0 eth1; do ip -n "$here" link set "$link" up; done
    for link in eth0 eth1; do ip -n "$there" link set "$link" up; done
    ip -n "$here" route add prohibit 198.51.100.0/24
    ip -n "$here" route add unreachable 203.0.113.0/24
}

teardown_file() {
    for netns in "$here" "$there"; do ip netns delete "$netns"; done
}

# Every test finds the hosts as they were.
teardown() {
    ip netns exec "$there" sysctl -qw net.ipv4.icmp_echo_ignore_all=0 net.ipv6.icmp.echo_ignore_all=0
}

# probe STATUS ROUNDS PATTERN ADDRESS...: a run for each address, under "$as", ends by itself and tells that
probe() {
    for address in "${@:4}"; do
        run -"$1" timeout 20 ip netns exec "$here" "${as[@]}" "$QOR_BIN/${tool:-qorping}" -c "$2" "$address"
        [[ $output =~ ^(qorping: cannot probe )?"$address: "$3$ ]]
    done
}

@test "an address that answers is found at once, one of this host over loopback" {
    index=$(ip netns exec "$here" cat /sys/class/net/eth0/ifindex)
    probe 0 60 'reply in [0-9.]+ ms' 192.0.2.2 "fe80::2%$index" 2001:db8::2{,%eth0} fe80::2{%eth0,} fe80::22
    probe 0 60 'reply in [0-9.]+ ms' 127.0.0.1 ::1 192.0.2.1 2001:db8::1{,%eth0} fe80::1{%eth0,} fe80::11
}

@test "which links are asked, what their silence decides, and how long it took" {
    ip -n "$here" tuntap add tun0 mode tun
    ip -n "$here" link set tun0 up
    ip -n "$here" address add 10.7.0.1/24 dev tun0
    ip -n "$here" route add 10.8.0.0/24 via 192.0.2.2
    ip -n "$here" route add unreachable fd02::/64
    while read -r address seconds note; do
        run -1 timeout 20 ip netns exec "$here" "$QOR_BIN/qorping" -v -c 1 "$address"
        [ "${lines[0]}" = "qorping: asking $note" ]
        [[ ${lines[1]} =~ ^"$address: no reply in $seconds s"( \(|$) ]]
    done <<-'EOT'
	192.0.2.9        0.4 on the link too: eth0
	2001:db8::9      0.4 on the link too: eth0
	fe80::2%eth1     0.4 on the link too: eth1
	2001:db8::2%eth1 0.4 on the link too: eth1
	fe80::9          1   on every link too: eth0 eth1
	10.9.9.8         1   on every link too: eth0 eth1
	fd02::1          1   on every link too: eth0 eth1
	10.8.0.1         1   by echo only: it is behind a gateway
	10.7.0.2         1   by echo only: no link with hardware addresses and a carrier leads there
	EOT
    for address in 192.0.2.1 2001:db8::1{,%eth0} fe80::1{,%eth0}; do
        run -0 ip netns exec "$here" "$QOR_BIN/qorping" -c 1 -v "$address"
        [ "${lines[0]}" = 'qorping: asking by echo only: it is of this host, or of no single one' ]
    done
    probe 1 2 'no reply in 1.4 s' 192.0.2.9
    tool=qorping-icmp probe 1 1 'no reply in 1 s' 192.0.2.9 2001:db8::9
    ip -n "$here" link delete tun0
    # The network's errors, which come soon here, are no reason to spin for the rest of the time.
    ip netns exec "$here" sysctl -qw net.ipv4.neigh.eth0.retrans_time_ms=20
    local as=(prlimit --cpu=1)
    tool=qorping-icmp probe 1 3 'no reply in 3 s' 192.0.2.9
}

@test "a host that drops echo requests is found on its link, and the neighbour table has it" {
    ip netns exec "$there" sysctl -qw net.ipv4.icmp_echo_ignore_all=1 net.ipv6.icmp.echo_ignore_all=1
    tool=qorping-icmp probe 1 1 'no reply in 1 s' 192.0.2.2 2001:db8::2
    probe 0 60 'reply.*' 2001:db8::2{,%eth0} fe80::2{,%eth0} fe80::22
    # The first address of a subnet: without a route, then with only the default route to it.
    for ip in 10.9.9.9/24 fd00::9/64; do ip -n "$there" address add "$ip" dev eth0 nodad; done
    for route in none default; do
        for gateway in 192.0.2.2 2001:db8::2; do
            [ "$route" = none ] || ip -n "$here" route add "$route" via "$gateway"
        done
        ip -n "$here" neighbour flush all
        probe 0 60 'reply.*' 192.0.2.2 10.9.9.9 fd00::9
        for address in 192.0.2.2 10.9.9.9; do
            run -0 ip netns exec "$here" arp -n "$address"
            [[ $output == *"$(ip netns exec "$there" cat /sys/class/net/eth0/address)"* ]]
        done
    done
    for family in -4 -6; do ip -n "$here" "$family" route delete default; done
    # It has no answer yet while it looks for duplicates of the address, but that search tells of it.
    ip netns exec "$there" sysctl -qw net.ipv6.conf.eth0.dad_transmits=30
    ip -n "$there" address add 2001:db8::88/64 dev eth0
    probe 0 15 'reply.*' 2001:db8::88
    [[ $(ip -n "$there" address show tentative) == *2001:db8::88* ]]
}

@test "three probes that enter no cache are sent, and a router that answers for others is not taken for them" {
    ip netns exec "$there" sysctl -qw net.ipv4.conf.eth0.proxy_arp=1 net.ipv4.conf.all.forwarding=1 \
        net.ipv4.neigh.eth0.proxy_delay=0
    ip -n "$there" route add 192.0.2.55/32 dev eth1
    ip netns exec "$there" timeout 20 tcpdump -Z root -lni eth0 arp or icmp6 >"$BATS_TEST_TMPDIR/seen" \
        2>"$BATS_TEST_TMPDIR/started" 3>&- &
    until grep -q listening "$BATS_TEST_TMPDIR/started"; do sleep 0.05; done
    probe 1 1 'no reply in 0.4 s' 192.0.2.55 2001:db8::9
    [[ $(ip -n "$here" neighbour show 192.0.2.55) == *lladdr* ]]
    kill %1 || true
    wait
    [ "$(grep -c 'who-has 192.0.2.55 tell 0.0.0.0' "$BATS_TEST_TMPDIR/seen")" -eq 3 ]
    [ "$(grep -c 'fe80::.* > ff02::1:ff00:9: .*who has 2001:db8::9' "$BATS_TEST_TMPDIR/seen")" -eq 3 ]
}

@test "a full queue, which lets nothing out, tells nothing" {
    ip netns exec "$here" tc qdisc add dev eth0 root pfifo limit 0
    ip -n "$here" neighbour replace 192.0.2.66 lladdr 02:00:00:00:00:66 dev eth0
    probe 2 1 'send: No buffer space available' 192.0.2.9 2001:db8::9
    tool=qorping-icmp probe 2 1 'send: No buffer space available' 192.0.2.66
    ip netns exec "$here" tc qdisc delete dev eth0 root
}

@test "nobody answers in a network without route, but a request that may not be sent tells nothing" {
    local why='no reply in 1 s \((.* unreachable|No route to host)\)'
    probe 1 1 "$why" 10.9.9.8 203.0.113.1 fd00::8 fe80::9%lo
    ip -n "$here" link set eth1 down
    probe 1 1 'no reply in 1 s.*' fe80::11%eth1
    ip -n "$here" link set eth1 up
    probe 2 1 'send: Permission denied' 198.51.100.1 192.0.2.255
    while ip -n "$here" -6 address show dev eth1 tentative | grep -q inet6; do sleep 0.05; done
    ip -n "$there" link set eth1 down
    until [ "$(ip netns exec "$here" cat /sys/class/net/eth1/operstate)" != up ]; do sleep 0.05; done
    run -1 ip netns exec "$here" "$QOR_BIN/qorping" -v -c 1 fe80::2%eth1
    [ "${lines[0]}" = "qorping: asking by echo only: no link with hardware addresses and a carrier leads there" ]
    ip -n "$there" link set eth1 up # without its fe80::22
}

@test "an address that appears during the run is found" {
    (sleep 1; ip -n "$there" address add 192.0.2.7/24 dev eth0) 3>&- &
    probe 0 15 'reply.*' 192.0.2.7
    wait
}

@test "without the right to raw sockets datagram sockets do it" {
    local as=(setpriv --bounding-set=-net_raw --inh-caps=-net_raw)
    ip netns exec "$here" sh -c 'echo 1 0 >/proc/sys/net/ipv4/ping_group_range'
    probe 2 1 'socket: Permission denied' 192.0.2.2
    ip netns exec "$here" sh -c 'echo 0 0 >/proc/sys/net/ipv4/ping_group_range'
    probe 0 60 'reply.*' 192.0.2.2 192.0.2.1 2001:db8::2%eth0 2001:db8::1 fe80::2 fe80::1 fe80::2%eth0
    probe 1 1 'no reply in 1 s.*' 192.0.2.9 2001:db8::9 10.9.9.8
    run -0 ip netns exec "$here" "${as[@]}" "$QOR_BIN/qorping" -v -c 2 192.0.2.2
    [ "${lines[0]}" = 'qorping: asking by echo only: link socket: Operation not permitted' ]
}

@test "a bad argument is refused, the options that tell about the program are not" {
    local bad=("" "192.0.2.2" "-c 1" "-c" "-c 1 192.0.2.2 192.0.2.2" "-c 1 -c 1 192.0.2.2" "-x 192.0.2.2" "-v 192.0.2.2")
    bad+=("-c "{0,-1,+1,1x,0x1,86401,4294967297}" 192.0.2.2")
    bad+=("-c 1 "{localhost,192.0.2,192.0.2.2/24,192.0.2.2%eth0,0.0.0.0,::,224.0.0.1,255.255.255.255})
    bad+=("-c 1 "{ff02::1%eth0,::ffff:192.0.2.2,fe80::2%,fe80::2%none})
    for arguments in "${bad[@]}"; do
        # shellcheck disable=SC2086 # words
        run -2 timeout 20 ip netns exec "$here" "$QOR_BIN/qorping" $arguments
        [[ $output == Usage:* || $output == qorping:* ]]
    done
    run -2 timeout 20 ip netns exec "$here" "$QOR_BIN/qorping" -c 1 ""
    run -0 "$QOR_BIN/qorping" --help
    [[ $output == "Usage: qorping [-v] -c ROUNDS ADDRESS"* ]]
    run -0 "$QOR_BIN/qorping" --version
    [[ $output =~ ^"qorping "[0-9]+\. ]]
}
