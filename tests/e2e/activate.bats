# What an activation does to the node, and what its neighbours see of it.

# shellcheck source-path=SCRIPTDIR source=fip_helper.bash
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# goes ADDRESS CODE "DEVICE|MESSAGE" [ADDED]: activates ADDRESS, which puts ADDED on the node, and takes it back
goes() {
    local before
    before=$(addresses)
    rm -rf "$QOR_HOME/run"
    cluster "fip1 $1"
    activate "$2"
    filed "g1|fip|fip1|$3"
    [ "$(addresses)" = "${4:+${before:+$before$'\n'}}${4:-$before}" ] || fail "$1: not added: ${4-nothing}"
    if [ "$2" -eq 0 ]; then
        deactivate 0
        filed "g1|fip|fip1|$3"
    fi
    carries "$before"
}

# The targets that do not depend on how addresses are read and changed.
common_targets() {
    local absent='|Fip interface was not found.' none='|Success.'
    goes 192.0.2.10/24 0 'veth:0|Success.' "$alias0"
    goes 192.0.2.10 0 'veth:0|Success.' "$alias0"
    goes 192.0.2.10/24%veth 0 'veth:0|Success.' "$alias0"
    goes 192.0.2.10/24%veth:7 0 'veth:7|Success.' "${alias0/veth:0/veth:7}"
    goes 192.0.2.10/25 0 'veth:0|Success.' 'veth inet 192.0.2.10/25 brd 192.0.2.127 scope global veth:0'
    goes 192.0.2.10/32 17 "$absent"
    goes 192.0.2.10/16 17 "$absent"
    goes 198.51.100.7/24 17 "$absent"
    goes 198.51.100.7/24%veth 0 'veth:0|Success.' \
        'veth inet 198.51.100.7/24 brd 198.51.100.255 scope global veth:0'
    goes 192.0.2.1/24 15 '|This ip address was already used.  IP=192.0.2.1'
    goes 2001:db8::1/64 15 '|This ip address was already used.  IP=2001:db8::1'
    goes 2001:db8::10/64 0 'veth|Success.' 'veth inet6 2001:db8::10/64 scope global'
    goes 2001:db8::10 0 'veth|Success.' 'veth inet6 2001:db8::10/64 scope global'
    goes 2001:db8::10/128%veth 0 'veth|Success.' 'veth inet6 2001:db8::10/128 scope global'
    goes 2001:db8:9::1/64 17 "$absent"

    ip -n "$here" address add 192.0.2.9/24 dev veth label veth:0
    ip -n "$here" address add 192.0.2.8/24 dev veth label veth:2
    goes 192.0.2.10/24 0 'veth:1|Success.' "${alias0/veth:0/veth:1}"
    goes 192.0.2.10/24%veth:2 28 "$none"
    ip -n "$here" link set bare name a2345678901234
    ip -n "$here" address add 203.0.113.1/24 dev a2345678901234
    goes 203.0.113.7/24 30 "$none"
}

@test "by ioctl: addresses go where they belong and leave nothing behind" {
    goes 198.51.100.7%bare 0 'bare|Success.' 'bare inet 198.51.100.7/24 brd 198.51.100.255 scope global bare'
    goes 2001:db8:9::1%bare 0 'bare|Success.' 'bare inet6 2001:db8:9::1/64 scope global'
    goes 198.51.100.7/24%nosuch 39 '|Add ip(198.51.100.7) failed.'
    goes 2001:db8:9::1%nosuch 39 '|Add ip(2001:db8:9::1) failed.'
    not_traced 4 'parsing succeed,the format of ifconfig -a is the same as RHEL 6 or previous.'
    common_targets
}

@test "by an ifconfig of the older layout: the same" {
    layout older
    # Other than the kernel's list, the command's has interfaces without address.
    goes 198.51.100.7/24%bare 0 'bare:0|Success.' \
        'bare inet 198.51.100.7/24 brd 198.51.100.255 scope global bare:0'
    goes 2001:db8:9::1/64%bare 0 'bare|Success.' 'bare inet6 2001:db8:9::1/64 scope global'
    goes 198.51.100.7/24%nosuch 3 '|Internal error. (status=3)'
    goes 2001:db8:9::1%nosuch 3 '|Internal error. (status=3)'
    traced 4 'parsing succeed,the format of ifconfig -a is the same as RHEL 6 or previous.'
    common_targets
}

@test "without ifconfig, or with ifconfig/use, an activation uses the kernel" {
    mkdir none
    ln -s "$(command -v which)" none/
    search "$PWD/none"
    activate 0
    traced 1 'which ifconfig > /dev/null 2>&1 failed,ifconfig does not exist.(ret=1)'
    layout older
    cluster 'fip1 192.0.2.10/24 <ifconfig><use>1</use></ifconfig>'
    deactivate 0
    traced 4 '"ifconfig" veth:0 down > /dev/null 2>&1 succeeded.'
    activate 0
    traced 8 'nic_act_ipaddr_ioctl() succeeded.'
}

@test "names from the configuration are single words to the shell" {
    layout older
    # shellcheck disable=SC2016 # the dollar and the quotes are what matters
    {
        odd='my $(touch made) "tools"'
        mkdir "$odd"
        tool if <<<'echo "$@" >>used; exec busybox ifconfig "$@"'
        mv tools/if "$odd/"
        shared="<ifconfig><path>$PWD/$odd/if</path></ifconfig>" cluster 'fip1 192.0.2.10/24'
        activate 0
        deactivate 0
        [ "$(paste -sd+ used)" = '-a+veth:0 192.0.2.10 netmask 255.255.255.0 broadcast 192.0.2.255 up+-a+veth:0 down' ]
        for name in 'a;touch made' '$(touch made)' '`touch made`' '|touch made' '>made'; do
            goes "192.0.2.10/24%$name" 3 '|Internal error. (status=3)'
        done
    }
    [ ! -e made ]
}

@test "neighbours are told, byte for byte, and learn the hardware address" {
    local mac=020000000001 ip=c000020a
    for opcode in 1 2; do
        cluster "fip1 192.0.2.10/24 <arp><retry>3</retry><opcode>$opcode</opcode></arp>"
        ip -n "$there" neighbour replace 192.0.2.10 lladdr 02:00:00:00:00:99 dev veth nud stale
        sniff arp
        activate 0
        traced 4 'mac : 02:00:00:00:00:01'
        frame="ffffffffffff${mac}0806000108000604000$opcode${mac}${ip}${mac}${ip}"
        [ "$(heard)" = "$(yes "$frame" | sed 3q)" ] || fail "$(frames)"
        [[ $(ip -n "$there" neighbour show 192.0.2.10) == *' 02:00:00:00:00:01 '* ]]
        deactivate 0
        kill "$!"
    done
}

@test "nobody is told with arp/retry 0, of an IPv6 address, or of a failure" {
    sniff arp
    cluster 'fip1 192.0.2.10/24 <arp><retry>0</retry></arp>' 'fip2 192.0.2.1' 'fip6 2001:db8::10'
    activate 0
    activate 15 fip2
    activate 0 fip6
    [ -z "$(heard)" ] || fail "$(frames)"
}

@test "an address that names its interface and alias is trusted: no critical section" {
    while read -r up down resource; do
        cluster "fip1 $resource"
        for run in "activate 8 $up" "deactivate 4 $down"; do
            read -r sequence level trusted <<<"$run"
            $sequence 0
            if [ "$trusted" = trusted ]; then
                traced "$level" 'trusted mode'
                [ "$(grep -c 'crit_ifconfig' "$trace")" -eq 0 ] || fail
            else
                traced 8 'sem_entercrit_ifconfig() succeeded.'
                traced 8 'sem_leavecrit_ifconfig() succeeded.'
            fi
        done
    done <<-EOT
	enters enters 192.0.2.10/24%veth
	trusted trusted 192.0.2.10/24%veth:3
	enters trusted 192.0.2.10/24%veth:3 <srcip><use>1</use></srcip>
	EOT
}

@test "a node without any address" {
    ip -n "$here" address flush dev veth
    cluster 'fip1 192.0.2.10/24%veth'
    for run in activate deactivate; do
        $run 38
        filed 'g1|fip|fip1||Get nic info failed.'
        traced 1 'no ip address found.'
    done
    # The command's list can be empty too, though this one isn't, from which the layout is told.
    ip -n "$here" address add 192.0.2.1/24 dev veth
    layout older
    tool silent <<<'exit 0'
    shared="<ifconfig><path>$PWD/tools/silent</path></ifconfig>" cluster 'fip1 192.0.2.10/24'
    for run in activate deactivate; do
        $run 14
        filed 'g1|fip|fip1||IP address did not exist.'
    done
}
