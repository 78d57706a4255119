# What an activation does to the node, and what its neighbours see of it.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

parsed='parsing succeed,the format of ifconfig -a is the same as RHEL 6 or previous.'
inet198='inet 198.51.100.7/24 brd 198.51.100.255 scope global'

# The targets that do not depend on how addresses are read and changed.
common_targets() {
    goes 192.0.2.10/24 0 'veth:0|Success.' "$alias0"
    goes 192.0.2.10/24%veth:7 0 'veth:7|Success.' "${alias0/veth:0/veth:7}"
    goes 192.0.2.10/25 0 'veth:0|Success.' 'veth inet 192.0.2.10/25 brd 192.0.2.127 scope global veth:0'
    goes 192.0.2.10/16 17 '|Fip interface was not found.'
    goes 198.51.100.7%veth 0 'veth:0|Success.' "veth $inet198 veth:0"
    # RFC 3021: a /31 and a /32 have no room for a broadcast address.
    goes 198.51.100.6/30%veth 0 'veth:0|Success.' 'veth inet 198.51.100.6/30 brd 198.51.100.7 scope global veth:0'
    goes 198.51.100.7/31%veth 0 'veth:0|Success.' 'veth inet 198.51.100.7/31 scope global veth:0'
    goes 198.51.100.7/32%veth 0 'veth:0|Success.' 'veth inet 198.51.100.7/32 scope global veth:0'
    goes 192.0.2.1/24 15 '|This ip address was already used.  IP=192.0.2.1'
    goes 2001:db8::1/64 15 '|This ip address was already used.  IP=2001:db8::1'
    goes 2001:db8::10 0 'veth|Success.' 'veth inet6 2001:db8::10/64 scope global'
    goes 2001:db8::10/128%veth 0 'veth|Success.' 'veth inet6 2001:db8::10/128 scope global'
    ip -n "$here" address add 192.0.2.9/24 dev veth label veth:0
    ip -n "$here" address add 192.0.2.8/24 dev veth label veth:2
    goes 192.0.2.10/24 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    goes 192.0.2.10/24%veth:2 28 '|Success.'
}

@test "by ioctl, as without ifconfig: addresses go where they belong and leave nothing behind" {
    goes 198.51.100.7%bare 0 'bare|Success.' "bare $inet198 bare"
    goes 2001:db8:9::1%bare 0 'bare|Success.' 'bare inet6 2001:db8:9::1/64 scope global'
    # An interface that has addresses of the other family only is not stopped by taking one down.
    ip -n "$here" address add fe80::9/64 dev bare
    goes 198.51.100.7%bare 0 'bare:0|Success.' "bare $inet198 bare:0"
    cluster 'fip2 198.51.100.7/24%bare'
    activate 0 fip2
    goes 198.51.100.8/24%bare 0 'bare:1|Success.' "bare ${inet198/.7/.8} secondary bare:1"
    # Here already, although no interface is there for it.
    goes 198.51.100.7/16 15 '|This ip address was already used.  IP=198.51.100.7'
    cluster 'fip2 198.51.100.7/24%bare'
    deactivate 0 fip2
    ip -n "$here" address delete fe80::9/64 dev bare # still there
    goes 198.51.100.7/24%nosuch 39 '|Add ip(198.51.100.7) failed.'
    goes 2001:db8:9::1%nosuch 39 '|Add ip(2001:db8:9::1) failed.'
    common_targets
    run -1 is_traced 4 "$parsed"
    search /nonexistent
    goes 192.0.2.10/24 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    traced 1 'which ifconfig > /dev/null 2>&1 failed,ifconfig does not exist.(ret=127)'
    ip -n "$here" address flush dev veth
    goes 192.0.2.10/24%veth 38 '|Get nic info failed.'
}

@test "by an ifconfig of the older layout: the same" {
    layout older
    # Other than the kernel's list, the command's has interfaces without address.
    goes 198.51.100.7/24%bare 0 'bare:0|Success.' "bare $inet198 bare:0"
    goes 2001:db8:9::1/64%bare 0 'bare|Success.' 'bare inet6 2001:db8:9::1/64 scope global'
    goes 198.51.100.7/24%nosuch 3 '|Internal error. (status=3)'
    common_targets
    traced 4 "$parsed"
    # It can be kept for the removal only. Names from the configuration are single words to the shell.
    own_ifconfig <<<"echo \"\$2\" >>used; exec busybox ifconfig \"\$@\""
    cp -r tools "my \$(>made) \"tools\""
    shared=${shared/tools/"my \$(>made) \"tools\""}
    goes '192.0.2.10/24 <ifconfig><use>1</use></ifconfig>' 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    [ "$(sort -u used | xargs)" = down ]
    goes "192.0.2.10/24%\$(>made)" 3 '|Internal error. (status=3)'
    goes '2001:db8::10%a;>made' 3 '|Internal error. (status=3)'
    goes '192.0.2.10/24%a;>made' 3 '|Internal error. (status=3)'
    [ ! -e made ]
    own_ifconfig <<<'exit 0'
    goes 192.0.2.10/24 14 '|IP address did not exist.'
    deactivate 14
    filed 'g1|fip|fip1||IP address did not exist.'
}

@test "neighbours are told, byte for byte, and learn the hardware address" {
    local mac=020000000001 ip=c000020a
    # Nobody is told with arp/retry 0, of an IPv6 address, or of a failure.
    while read -r code told opcode resource; do
        cluster "fip1 $resource"
        ip -n "$here" neighbour flush dev veth
        ip -n "$there" neighbour replace 192.0.2.10 lladdr 02:00:00:00:00:99 dev veth nud stale
        rm -f listening
        ip netns exec "$there" tcpdump -i veth --immediate-mode -l -n -t -xx arp >heard 2>listening 3>&- &
        eventually grep -qs listening listening
        activate "$code"
        # The question for an address that nobody has marks the end.
        ip netns exec "$here" bash -c 'echo >/dev/udp/192.0.2.99/9'
        eventually grep -q 'who-has 192.0.2.99' heard
        kill "$!"
        frame="ffffffffffff${mac}0806000108000604000$opcode${mac}${ip}${mac}${ip}"
        [ "$(frames)" = "$(yes "$frame" | head -n "$told")" ] || fail "$(<heard)"
        [[ $told -eq 0 || $(ip -n "$there" neighbour show 192.0.2.10) == *' 02:00:00:00:00:01 '* ]]
        deactivate 0
    done <<-EOT
	0  3 1 192.0.2.10/24 <arp><retry>3</retry><opcode>1</opcode></arp>
	0  1 2 192.0.2.10/24 <arp><retry>1</retry><opcode>2</opcode></arp>
	0  0 1 192.0.2.10/24 <arp><retry>0</retry></arp>
	0  0 1 2001:db8::10
	15 0 1 192.0.2.1
	EOT
}
# The frames heard before the mark, a line of hexadecimal each.
frames() {
    sed '/ 192.0.2.99 /q' heard | awk '/^\t/ { gsub(/.*:| /, ""); f = f $0; next } f { print f; f = "" }'
}

@test "an address that names its interface and alias is trusted: no critical section" {
    while read -r up down resource; do
        cluster "fip1 $resource"
        activate 0
        found=$(grep -cF 'crit_ifconfig() succeeded.' "$trace" || true)
        deactivate 0
        [ "$found $(grep -cF 'crit_ifconfig() succeeded.' "$trace")" = "$up $down" ] || fail
    done <<-EOT
	2 2 192.0.2.10/24%veth
	0 0 192.0.2.10/24%veth:3
	2 0 192.0.2.10/24%veth:3 <srcip><use>1</use></srcip>
	EOT
    traced 4 'trusted mode'
}
