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

# probe STATUS SECONDS PATTERN ADDRESS...: a run for each address, under "$as", ends by itself and tells that
probe() {
    for address in "${@:4}"; do
        run -"$1" timeout 20 ip netns exec "$here" "${as[@]}" "$QOR_BIN/qorping" -c "$2" "$address"
        [[ $output =~ ^(qorping: cannot probe )?"$address: "$3$ ]]
    done
}

@test "an address that answers is found at once, one of this host over loopback" {
    index=$(ip netns exec "$here" cat /sys/class/net/eth0/ifindex)
    probe 0 60 'reply in [0-9.]+ ms' 192.0.2.2 "fe80::2%$index" 2001:db8::2{,%eth0} fe80::2{%eth0,} fe80::22
    probe 0 60 'reply in [0-9.]+ ms' 127.0.0.1 ::1 192.0.2.1 2001:db8::1{,%eth0} fe80::1{%eth0,} fe80::11
}

@test "nobody answers, nor does a network without route, but a request that may not be sent tells nothing" {
    probe 1 1 'no reply in 1 s' 192.0.2.9 2001:db8::9 fe80::9 fe80::2%eth1
    local why='no reply in 1 s \((.* unreachable|No route to host)\)'
    probe 1 1 "$why" 10.9.9.9 203.0.113.1 fd00::9 fe80::9%lo 2001:db8::2%eth1
    ip -n "$here" link set eth1 down
    probe 1 1 'no reply in 1 s.*' fe80::11%eth1
    ip -n "$here" link set eth1 up
    probe 2 1 'send: Permission denied' 198.51.100.1 192.0.2.255
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
    probe 1 1 'no reply in 1 s.*' 192.0.2.9 fe80::9 10.9.9.9
}

@test "a bad argument is refused, the options that tell about the program are not" {
    local bad=("" "192.0.2.2" "-c 1" "-c" "-c 1 192.0.2.2 192.0.2.2" "-c 1 -c 1 192.0.2.2" "-x 192.0.2.2")
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
    [[ $output == "Usage: qorping -c SECONDS ADDRESS"* ]]
    run -0 "$QOR_BIN/qorping" --version
    [[ $output =~ ^"qorping "[0-9]+\. ]]
}
