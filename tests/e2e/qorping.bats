# qorping against real kernels: "here" probes, "there" is the other host on the link.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

setup_file() {
    export here="qph$$" there="qpt$$"
    for netns in "$here" "$there"; do ip netns add "$netns"; done
    for link in eth0 eth1; do ip -n "$here" link add "$link" type veth peer name "$link" netns "$there"; done
    for ip in 192.0.2.1/24 2001:db8::1/64 fe80::1/64; do node add "$ip" dev eth0 nodad; done
    for ip in 192.0.2.2/24 2001:db8::2/64 fe80::2/64; do peer add "$ip" dev eth0 nodad; done
    node add fe80::11/64 dev eth1 nodad
    peer add fe80::22/64 dev eth1 nodad
    for link in lo eth0 eth1; do ip -n "$here" link set "$link" up; ip -n "$there" link set "$link" up; done
    ip -n "$here" route add prohibit 198.51.100.0/24
    ip -n "$here" route add unreachable 203.0.113.0/24
}

teardown_file() {
    for netns in "$here" "$there"; do ip netns delete "$netns"; done
}

setup() { cd "$BATS_TEST_TMPDIR" || return; }

# Every test finds the hosts as they were.
teardown() {
    ip netns exec "$there" sysctl -qw net.ipv4.icmp_echo_ignore_all=0 net.ipv6.icmp.echo_ignore_all=0
}

# probe CODE ROUNDS ANSWER ADDRESS...: a run of "$tool" for each address, under "$as", ends by itself with CODE, and
# what it tells of the address matches ANSWER
probe() {
    for address in "${@:4}"; do
        run -"$1" timeout 20 ip netns exec "$here" "${as[@]}" "$QOR_BIN/${tool:-qorping}" -c "$2" "$address"
        [[ $output =~ ^(qorping: cannot probe )?"$address: "$3$ ]]
    done
}
# found ADDRESS..., silent SECONDS ADDRESS..., untold ERROR ADDRESS...
found() { probe 0 60 'reply in [0-9.]+ ms' "$@"; }
silent() { probe 1 1 "no reply in $1 s( \\(.*)?" "${@:2}"; }
untold() { probe 2 1 "$@"; }

# asks CODE ADDRESS LINKS: which links a run says that it asks
asks() {
    run -"$1" timeout 20 ip netns exec "$here" "${as[@]}" "$QOR_BIN/qorping" -v -c 1 "$2"
    [ "${lines[0]}" = "qorping: asking $3" ]
}

@test "an address that answers is found at once, one of this host over loopback" {
    index=$(ip netns exec "$here" cat /sys/class/net/eth0/ifindex)
    found 192.0.2.2 "fe80::2%$index" 2001:db8::2{,%eth0} fe80::2{%eth0,} fe80::22
    found 127.0.0.1 ::1 192.0.2.1 2001:db8::1{,%eth0} fe80::1{%eth0,} fe80::11
}

@test "which links are asked, what their silence decides, and how long it took" {
    ip -n "$here" tuntap add tun0 mode tun
    ip -n "$here" link set tun0 up
    node add 10.7.0.1/24 dev tun0
    ip -n "$here" route add 10.8.0.0/24 via 192.0.2.2
    ip -n "$here" route add unreachable fd02::/64
    while row address seconds links; do
        asks 1 "$address" "$links"
        [[ ${lines[1]} =~ ^"$address: no reply in $seconds s"( \(|$) ]]
    done <<-'EOT'
	# address        | seconds | links
	# a link's silence decides
	192.0.2.9        | 0.4     | on the link too: eth0
	2001:db8::9      | 0.4     | on the link too: eth0
	fe80::2%eth1     | 0.4     | on the link too: eth1
	2001:db8::2%eth1 | 0.4     | on the link too: eth1
	# it does not where the address may be elsewhere
	fe80::9          | 1       | on every link too: eth0 eth1
	10.9.9.8         | 1       | on every link too: eth0 eth1
	fd02::1          | 1       | on every link too: eth0 eth1
	# no link to ask
	10.8.0.1         | 1       | by echo only: it is behind a gateway
	10.7.0.2         | 1       | by echo only: no link with hardware addresses and a carrier leads there
	EOT
    for address in 192.0.2.1 2001:db8::1{,%eth0} fe80::1{,%eth0}; do
        asks 0 "$address" 'by echo only: it is of this host, or of no single one'
    done
    ip -n "$here" link delete tun0
    # The network's errors, which come soon here, are no reason to spin for the rest of the time.
    ip netns exec "$here" sysctl -qw net.ipv4.neigh.eth0.retrans_time_ms=20
    local as=(prlimit --cpu=1)
    tool=qorping-icmp probe 1 3 'no reply in 3 s' 192.0.2.9
}

@test "a host that drops echo requests is found on its link, and the neighbour table has it" {
    ip netns exec "$there" sysctl -qw net.ipv4.icmp_echo_ignore_all=1 net.ipv6.icmp.echo_ignore_all=1
    tool=qorping-icmp silent 1 192.0.2.2 2001:db8::2
    found 2001:db8::2{,%eth0} fe80::2{,%eth0} fe80::22
    # The first address of a subnet: without a route, then with only the default route to it.
    for ip in 10.9.9.9/24 fd00::9/64; do peer add "$ip" dev eth0 nodad; done
    for gateways in '' '192.0.2.2 2001:db8::2'; do
        for gateway in $gateways; do ip -n "$here" route add default via "$gateway"; done
        ip -n "$here" neighbour flush all
        found 192.0.2.2 10.9.9.9 fd00::9
        for address in 192.0.2.2 10.9.9.9; do
            run -0 ip netns exec "$here" arp -n "$address"
            [[ $output == *"$(ip netns exec "$there" cat /sys/class/net/eth0/address)"* ]]
        done
    done
    for family in -4 -6; do ip -n "$here" "$family" route delete default; done
    # It has no answer yet while it looks for duplicates of the address, but that search tells of it.
    ip netns exec "$there" sysctl -qw net.ipv6.conf.eth0.dad_transmits=30
    peer add 2001:db8::88/64 dev eth0
    found 2001:db8::88
    [[ $(peer show tentative) == *2001:db8::88* ]]
}

@test "three probes that enter no cache are sent, and a router that answers for others is not taken for them" {
    ip netns exec "$there" sysctl -qw net.ipv4.conf.eth0.proxy_arp=1 net.ipv4.conf.all.forwarding=1 \
        net.ipv4.neigh.eth0.proxy_delay=0
    ip -n "$there" route add 192.0.2.55/32 dev eth1
    link=eth0 hears 'arp or icmp6' silent 0.4 192.0.2.55 2001:db8::9
    [[ $(ip -n "$here" neighbour show 192.0.2.55) == *lladdr* ]]
    [ "$(grep -c 'who-has 192.0.2.55 tell 0.0.0.0' heard)" -eq 3 ]
    [ "$(grep -c 'fe80::.* > ff02::1:ff00:9: .*who has 2001:db8::9' heard)" -eq 3 ]
}

@test "a full queue, which lets no request out, tells nothing" {
    ip netns exec "$here" tc qdisc add dev eth0 root pfifo limit 0
    ip -n "$here" neighbour replace 192.0.2.66 lladdr 02:00:00:00:00:66 dev eth0
    tool=qorping-icmp untold 'send: No buffer space available' 192.0.2.66
    ip netns exec "$here" tc qdisc delete dev eth0 root
}

@test "nobody answers in a network without route, but a request that may not be sent tells nothing" {
    probe 1 1 'no reply in 1 s \((.* unreachable|No route to host)\)' 10.9.9.8 203.0.113.1 fd00::8 fe80::9%lo
    ip -n "$here" link set eth1 down
    silent 1 fe80::11%eth1
    ip -n "$here" link set eth1 up
    untold 'send: Permission denied' 198.51.100.1 192.0.2.255
    eventually eval ! node show dev eth1 tentative '|' grep -q .
    ip -n "$there" link set eth1 down
    eventually ip netns exec "$here" grep -qxv up /sys/class/net/eth1/operstate
    asks 1 fe80::2%eth1 'by echo only: no link with hardware addresses and a carrier leads there'
    ip -n "$there" link set eth1 up # without its fe80::22
}

@test "an address that appears during the run is found" {
    (sleep 1; peer add 192.0.2.7/24 dev eth0) 3>&- &
    found 192.0.2.7
    wait
}

@test "without the right to raw sockets datagram sockets do it" {
    local as=(setpriv --bounding-set=-net_raw --inh-caps=-net_raw)
    ip netns exec "$here" sh -c 'echo 1 0 >/proc/sys/net/ipv4/ping_group_range'
    untold 'socket: Permission denied' 192.0.2.2
    ip netns exec "$here" sh -c 'echo 0 0 >/proc/sys/net/ipv4/ping_group_range'
    found 192.0.2.2 192.0.2.1 2001:db8::2%eth0 2001:db8::1 fe80::2 fe80::1 fe80::2%eth0
    silent 1 192.0.2.9 2001:db8::9 10.9.9.8
    asks 0 192.0.2.2 'by echo only: link socket: Operation not permitted'
}

@test "a bad argument is refused, the options that tell about the program are not" {
    local bad=("" "-c 1 ''" "192.0.2.2" "-c 1" "-c" "-c 1 192.0.2.2 192.0.2.2" "-c 1 -c 1 192.0.2.2" "-x 192.0.2.2" "-v 192.0.2.2")
    bad+=("-c "{0,-1,+1,1x,0x1,86401,4294967297}" 192.0.2.2")
    bad+=("-c 1 "{localhost,192.0.2,192.0.2.2/24,192.0.2.2%eth0,0.0.0.0,::,224.0.0.1,255.255.255.255})
    bad+=("-c 1 "{ff02::1%eth0,::ffff:192.0.2.2,fe80::2%,fe80::2%none})
    for arguments in "${bad[@]}"; do
        eval "run -2 timeout 20 ip netns exec $here $QOR_BIN/qorping $arguments"
        [[ $output == Usage:* || $output == qorping:* ]]
    done
    run -0 "$QOR_BIN/qorping" --help
    [[ $output == "Usage: qorping [-v] -c ROUNDS ADDRESS"* ]]
    run -0 "$QOR_BIN/qorping" --version
    [[ $output =~ ^"qorping "[0-9]+\. ]]
}
