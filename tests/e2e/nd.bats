# IPv6 addresses: what becomes of the kernel's duplicate address detection (DAD), and the announcement.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# setting PATH VALUE: a setting of the node's IPv6
setting() { ip netns exec "$here" sh -c "echo $2 >/proc/sys/net/ipv6/conf/veth/$1"; }
# stands FLAG: so the address stands
stands() { [[ "$(ip -n "$here" -o address show to 2001:db8::10 | grep . || echo ' gone ')" == *" $1 "* ]]; }

@test "another host's address is refused by DAD, if that runs and its end is waited for" {
    setting accept_dad 1
    ip -n "$there" address add 2001:db8::10/64 dev veth
    used='|IP_address_was_already_used.' event='32768 address_2001:db8::10_is_in_use_by_another_host'
    # A neighbour that was not told: an address whose DAD is open must not send.
    untold='veth|Internal_error._(status=21)'
    while read -r layout retry dad transmits peer code stands filed level text parameters; do
        layout "$layout"
        practice "$retry" "$dad" 0
        setting dad_transmits "$transmits"
        ip -n "$there" link set veth "$peer"
        cluster "fip1 2001:db8::10/64%veth $parameters"
        rm -rf "$QOR_HOME/run"
        activate "$code"
        filed "g1|fip|fip1|${filed//_/ }"
        traced "$level" "${text//_/ }"
        eventually stands "$stands"
        deactivate 0
    done <<-EOT
	newer 1 1 1  up   15 gone      $used $event <nd><timeout>600</timeout></nd>
	older 1 1 1  up   15 gone      $used $event
	older 1 0 1  up   15 gone      $used $event
	newer 1 2 1  up   15 gone      $used $event
	newer 0 1 1  up   0  dadfailed veth|Success. 4 return(ret=0)
	newer 1 0 1  up   0  nodad     veth|Success. 4 return(ret=0)
	newer 1 2 1  up   0  nodad     veth|Success. 4 return(ret=0) <ping><timeout>1</timeout><force>1</force></ping>
	newer 1 1 50 up   0  tentative $untold 2 DAD_of_2001:db8::10_is_not_over_after_0_s. <nd><timeout>0</timeout></nd>
	newer 1 1 1  down 0  tentative $untold 2 DAD_of_2001:db8::10_waits_for_the_link_of_veth.
	EOT
    # A check that was forced because it could not ask has not asked.
    ip -n "$there" link set veth up
    linked() { [[ $(ip -n "$here" link show veth) == *' state UP '* ]]; }
    eventually linked
    setting dad_transmits 1
    practice 1 2 0
    ping_tool <<<'exit 2'
    cluster 'fip1 2001:db8::10/64%veth <ping><timeout>1</timeout><force>1</force></ping>'
    activate 0
    traced 8 'fip_await_dad()  ENTRY...'
}

@test "other runs have their turn while DAD is waited for, and may take the address off" {
    setting accept_dad 1
    setting dad_transmits 50
    practice 1 1 0
    cluster 'fip1 2001:db8::10/64' 'fip2 192.0.2.10/24'
    for again in false "ip -n $here address add 2001:db8::10/64 dev veth nodad"; do
        rm -rf "$QOR_HOME/run" "$trace"
        "${agent[@]}" --active -r fip1 -g g1 &
        eventually grep -qsF 'fip_await_dad()  ENTRY...' "$trace"
        "${agent[@]}" --active -r fip2 -g g1
        kill -STOP $!
        "${agent[@]}" --del -a 2001:db8::10
        $again && stand=nodad || stand=gone
        kill -CONT $!
        status=0
        wait $! || status=$?
        [ $status -eq 39 ]
        states | grep -xF 'g1|fip|fip1||Add ip(2001:db8::10) failed.'
        stands "$stand"
        "${agent[@]}" --deactive -r fip2 -g g1
    done
}

@test "neighbours are told when DAD has passed, and learn the hardware address" {
    setting accept_dad 1
    while read -r forwarding told flags; do
        setting forwarding "$forwarding"
        cluster "fip1 2001:db8::10 <nd><retry>$told</retry><timeout>600</timeout></nd>"
        ip -n "$here" neighbour flush dev veth
        ip -n "$there" neighbour replace 2001:db8::10 lladdr 02:00:00:00:00:99 dev veth nud stale
        rm -f listening
        ip netns exec "$there" tcpdump -i veth --immediate-mode -l -n -t -vv icmp6 >heard 2>listening 3>&- &
        eventually grep -qs listening listening
        activate 0
        # The question for an address that nobody has marks the end.
        ip netns exec "$here" bash -c 'echo >/dev/udp/2001:db8::99/9'
        eventually grep -q 'who has 2001:db8::99' heard
        kill "$!"
        [ "$(grep -cE "hlim 255.* 2001:db8::10 > ff02::1: \[icmp6 sum ok].* 2001:db8::10, Flags \[${flags//_/ }]" heard)" = \
            "$told" ] || fail "$(<heard)"
        [[ $told -eq 0 || $(ip -n "$there" neighbour show 2001:db8::10) == *' 02:00:00:00:00:01 '* ]]
        deactivate 0
    done <<<$'0 3 override\n1 1 router,_override\n0 0'
}
