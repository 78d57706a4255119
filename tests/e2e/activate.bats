# What an activation does to the node, and what its neighbours see of it.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

parsed='parsing succeed,the format of ifconfig -a is the same as RHEL 6 or previous.'
inet198='inet 198.51.100.7/24 brd 198.51.100.255 scope global'

# The targets that do not depend on how addresses are read and changed.
common_targets() {
    goes 192.0.2.10/24 0 'veth:0|Success.' "$alias0"
    goes 192.0.2.10/25 0 'veth:0|Success.' 'veth inet 192.0.2.10/25 brd 192.0.2.127 scope global veth:0'
    # RFC 3021: a /31 and a /32 have no room for a broadcast address.
    goes 198.51.100.7/31%veth 0 'veth:0|Success.' 'veth inet 198.51.100.7/31 scope global veth:0'
    goes 198.51.100.7/32%veth 0 'veth:0|Success.' 'veth inet 198.51.100.7/32 scope global veth:0'
    goes 2001:db8::10 0 'veth|Success.' 'veth inet6 2001:db8::10/64 scope global'
    goes 2001:db8::10/128%veth 0 'veth|Success.' 'veth inet6 2001:db8::10/128 scope global'
    node add 192.0.2.9/24 dev veth label veth:0
    node add 192.0.2.8/24 dev veth label veth:2
    goes 192.0.2.10/24 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    goes 192.0.2.10/24%veth:2 28 '|Success.'
}

@test "by ioctl, as without ifconfig: addresses go where they belong and leave nothing behind" {
    goes 198.51.100.7%bare 0 'bare|Success.' "bare $inet198 bare"
    goes 2001:db8:9::1%bare 0 'bare|Success.' 'bare inet6 2001:db8:9::1/64 scope global'
    # An interface that has addresses of the other family only is not stopped by taking one down.
    node add fe80::9/64 dev bare
    goes 198.51.100.7%bare 0 'bare:0|Success.' "bare $inet198 bare:0"
    cluster 'fip2 198.51.100.7/24%bare'
    activate 0 fip2
    goes 198.51.100.8/24%bare 0 'bare:1|Success.' "bare ${inet198/.7/.8} secondary bare:1"
    # Here already, although no interface is there for it.
    goes 198.51.100.7/16 15 '|This ip address was already used.  IP=198.51.100.7'
    cluster 'fip2 198.51.100.7/24%bare'
    deactivate 0 fip2
    node delete fe80::9/64 dev bare # still there
    goes 198.51.100.7/24%nosuch 39 '|Add ip(198.51.100.7) failed.'
    goes 2001:db8:9::1%nosuch 39 '|Add ip(2001:db8:9::1) failed.'
    common_targets
    run -1 is_traced 4 "$parsed"
    search /nonexistent
    goes 192.0.2.10/24 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    traced 1 'which ifconfig > /dev/null 2>&1 failed,ifconfig does not exist.(ret=127)'
    node flush dev veth
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
    [ ! -e made ]
    own_ifconfig <<<'exit 0'
    goes 192.0.2.10/24 14 '|IP address did not exist.'
    deactivate 14
    filed 'g1|fip|fip1||IP address did not exist.'
}

@test "neighbours are told, of an IPv6 address when the search for duplicates is over, and learn the hardware address" {
    local mac=02:00:00:00:00:01 any='who-has 192.0.2.1[0 ]|is-at|advertisement'
    local arp="$mac > ff:ff:ff:ff:ff:ff, .*" na="hlim 255.* 2001:db8::10 > ff02::1: .*sum ok.* 2001:db8::10, Flags"
    setting accept_dad 1
    while row code told forwarding packet address parameters; do
        setting forwarding "$forwarding"
        cluster "fip1 $address $parameters"
        ip -n "$here" neighbour flush dev veth
        ip -n "$there" neighbour replace "$address" lladdr 02:00:00:00:00:99 dev veth nud stale
        hears 'arp or icmp6' activate "$code"
        [ "$(grep -cE "${packet:-$any}" heard)" = "$told" ] || fail "$(<heard)"
        [[ $told -eq 0 || $(ip -n "$there" neighbour show "$address") == *" $mac "* ]]
        deactivate 0
    done <<-EOT
	# code | told | forwarding | packet                                    | address      | parameters
	0      | 3    | 0          | $arp who-has 192.0.2.10 .*tell 192.0.2.10 | 192.0.2.10   | <arp><retry>3</retry><opcode>1</opcode></arp>
	0      | 1    | 0          | $arp 192.0.2.10 is-at $mac                | 192.0.2.10   | <arp><retry>1</retry><opcode>2</opcode></arp>
	0      | 3    | 0          | $na .override.                            | 2001:db8::10 | <nd><retry>3</retry><timeout>600</timeout></nd>
	0      | 1    | 1          | $na .router, override.                    | 2001:db8::10 | <nd><retry>1</retry></nd>
	# nobody: so configured, or of a failure
	0      | 0    | 0          |                                           | 192.0.2.10   | <arp><retry>0</retry></arp>
	0      | 0    | 0          |                                           | 2001:db8::10 | <nd><retry>0</retry></nd>
	15     | 0    | 0          |                                           | 192.0.2.1
	EOT
}

@test "an address that names its interface and alias is trusted: no critical section" {
    while row up down resource; do
        cluster "fip1 $resource"
        activate 0
        found=$(grep -cF 'crit_ifconfig() succeeded.' "$trace" || true)
        deactivate 0
        [ "$found $(grep -cF 'crit_ifconfig() succeeded.' "$trace")" = "$up $down" ] || fail "$found"
    done <<-EOT
	# up | down | resource
	2    | 2    | 192.0.2.10/24%veth
	0    | 0    | 192.0.2.10/24%veth:3
	# other runs may change the routes
	2    | 0    | 192.0.2.10/24%veth:3 <srcip><use>1</use></srcip>
	# a guard may put others' IPv4 addresses back
	2    | 2    | 192.0.2.10/24%veth:3 <guard><interface>1</interface></guard>
	0    | 0    | 2001:db8::10/64%veth:3 <guard><interface>1</interface></guard>
	EOT
    traced 4 'trusted mode'
}
