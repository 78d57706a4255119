# qorping against real kernels: "here" probes, "there" is the other host on the link.

bats_require_minimum_version 1.5.0

setup_file() {
    export here="qph$$" there="qpt$$"
    ip netns add "$here"
    ip netns add "$there"
    ip -n "$here" link add eth0 type veth peer name eth0 netns "$there"
    ip -n "$here" link add eth1 type veth peer name eth1 netns "$there"
    ip -n "$there" address add 192.0.2.2/24 dev eth0
    ip -n "$there" address add 2001:db8::2/64 dev eth0 nodad
    ip -n "$there" address add fe80::2/64 dev eth0 nodad
    ip -n "$there" address add fe80::22/64 dev eth1 nodad
    ip -n "$here" address add 192.0.2.1/24 dev eth0
    ip -n "$here" address add 2001:db8::1/64 dev eth0 nodad
    ip -n "$here" address add fe80::1/64 dev eth0 nodad
    ip -n "$here" address add fe80::11/64 dev eth1 nodad
    for link in lo eth0 eth1; do ip -n "$here" link set "$link" up; done
    for link in eth0 eth1; do ip -n "$there" link set "$link" up; done
    ip -n "$here" route add prohibit 198.51.100.0/24
    ip -n "$here" route add unreachable 203.0.113.0/24
}

teardown_file() {
    ip netns delete "$here"
    ip netns delete "$there"
}

# expect STATUS ARGUMENT...: one run, which must end by itself
expect() {
    local status_wanted=$1
    shift
    run -"$status_wanted" timeout 20 ip netns exec "$here" "$QOR_BIN/qorping" "$@"
}

@test "an address that answers is found at once" {
    index=$(ip netns exec "$here" cat /sys/class/net/eth0/ifindex)
    for address in 192.0.2.2 "fe80::2%$index" 2001:db8::2 2001:db8::2%eth0 fe80::2%eth0 fe80::2 fe80::22; do
        expect 0 -c 60 "$address"
        [[ $output =~ ^"$address: reply in "[0-9.]+" ms"$ ]]
    done
}

@test "an address of this host answers over loopback" {
    for address in 127.0.0.1 ::1 192.0.2.1 2001:db8::1 2001:db8::1%eth0 fe80::1%eth0 fe80::1 fe80::11; do
        expect 0 -c 60 "$address"
    done
}

@test "nobody answers" {
    for address in 192.0.2.9 2001:db8::9 fe80::9 fe80::2%eth1; do
        expect 1 -c 1 "$address"
        [ "$output" = "$address: no reply in 1 s" ]
    done
}

@test "a network without route counts as nobody" {
    for address in 10.9.9.9 203.0.113.1 fd00::9 fe80::9%lo 2001:db8::2%eth1; do
        expect 1 -c 1 "$address"
        [[ $output == "$address: no reply in 1 s ("*" unreachable)" ||
            $output == "$address: no reply in 1 s (No route to host)" ]]
    done
    ip -n "$here" link set eth1 down
    expect 1 -c 1 fe80::11%eth1
    ip -n "$here" link set eth1 up
}

@test "a request that may not be sent tells nothing" {
    for address in 198.51.100.1 192.0.2.255; do
        expect 2 -c 1 "$address"
        [ "$output" = "qorping: cannot probe $address: send: Permission denied" ]
    done
}

@test "an address that appears during the run is found" {
    (sleep 1; ip -n "$there" address add 192.0.2.7/24 dev eth0) 3>&- &
    expect 0 -c 15 192.0.2.7
    wait
    ip -n "$there" address delete 192.0.2.7/24 dev eth0
}

@test "without the right to raw sockets datagram sockets do it" {
    local unprivileged=(ip netns exec "$here" setpriv --bounding-set=-net_raw --inh-caps=-net_raw "$QOR_BIN/qorping")
    ip netns exec "$here" sh -c 'echo 1 0 >/proc/sys/net/ipv4/ping_group_range'
    run -2 "${unprivileged[@]}" -c 1 192.0.2.2
    [ "$output" = "qorping: cannot probe 192.0.2.2: socket: Permission denied" ]
    ip netns exec "$here" sh -c 'echo 0 0 >/proc/sys/net/ipv4/ping_group_range'
    for address in 192.0.2.2 192.0.2.1 2001:db8::2%eth0 2001:db8::1 fe80::2 fe80::1 fe80::2%eth0; do
        run -0 timeout 20 "${unprivileged[@]}" -c 60 "$address"
    done
    for address in 192.0.2.9 fe80::9 10.9.9.9; do
        run -1 timeout 20 "${unprivileged[@]}" -c 1 "$address"
    done
}

@test "a bad argument is refused" {
    local bad=("" "192.0.2.2" "-c 1" "-c" "-c 1 192.0.2.2 192.0.2.2" "-c 1 -c 1 192.0.2.2" "-x 192.0.2.2")
    for seconds in 0 -1 +1 1x 0x1 86401 4294967297; do bad+=("-c $seconds 192.0.2.2"); done
    for address in localhost 192.0.2 192.0.2.2/24 192.0.2.2%eth0 0.0.0.0 :: 224.0.0.1 255.255.255.255 \
        ff02::1%eth0 ::ffff:192.0.2.2 fe80::2% fe80::2%none; do bad+=("-c 1 $address"); done
    for arguments in "${bad[@]}"; do
        # shellcheck disable=SC2086 # words
        expect 2 $arguments
        [[ $output == Usage:* || $output == qorping:* ]]
    done
    expect 2 -c 1 ""
    expect 2 -c "" 192.0.2.2
}

@test "--help and --version" {
    expect 0 --help
    [[ $output == "Usage: qorping -c SECONDS ADDRESS"* ]]
    expect 0 --version
    [[ $output =~ ^"qorping "[0-9]+\. ]]
}
