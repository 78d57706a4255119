# IPv6 addresses: what becomes of the kernel's duplicate address detection (DAD), and the announcement.
source "$BATS_TEST_DIRNAME/fip_helper.bash"

# stands FLAG: so the address stands
stands() { [[ "$(ip -n "$here" -o address show to 2001:db8::10 | grep . || echo ' gone ')" == *" $1 "* ]]; }

@test "another host's address is refused by DAD, if that runs and its end is waited for" {
    local used='IP address was already used.' untold='Internal error. (status=21)'
    local event='address 2001:db8::10 is in use by another host'
    setting accept_dad 1
    while row layout retry dad transmits link code stands device message level text parameters; do
        layout "$layout"
        practice "$retry" "$dad" 0
        setting dad_transmits "$transmits"
        ip -n "$there" link set veth "$link"
        # With 50 questions DAD lasts, if nobody answers the first.
        [ "$transmits $link" != '1 up' ] || peer replace 2001:db8::10/64 dev veth
        cluster "fip1 2001:db8::10/64%veth $parameters"
        rm -rf "$QOR_HOME/run"
        activate "$code"
        filed "g1|fip|fip1|$device|$message"
        traced "$level" "$text"
        eventually stands "$stands"
        deactivate 0
    done <<-EOT
	# layout | retry | dad | transmits | link | code | stands    | device | message  | level | text                                       | parameters
	# nobody answers, and it is not over: the neighbours are not told, for such an address must not send
	newer    | 1     | 1   | 50        | up   | 0    | tentative | veth   | $untold  | 2     | DAD of 2001:db8::10 is not over after 0 s. | <nd><timeout>0</timeout></nd>
	# it runs and is waited for; an ifconfig of the older layout cannot do without
	newer    | 1     | 1   | 1         | up   | 15   | gone      |        | $used    | 32768 | $event                                     | <nd><timeout>600</timeout></nd>
	older    | 1     | 0   | 1         | up   | 15   | gone      |        | $used    | 32768 | $event
	newer    | 1     | 2   | 1         | up   | 15   | gone      |        | $used    | 32768 | $event
	# it is not waited for, does not run, or not because a ping has asked
	newer    | 0     | 1   | 1         | up   | 0    | dadfailed | veth   | Success. | 4     | return(ret=0)
	newer    | 1     | 0   | 1         | up   | 0    | nodad     | veth   | Success. | 4     | return(ret=0)
	newer    | 1     | 2   | 1         | up   | 0    | nodad     | veth   | Success. | 4     | return(ret=0)                              | <ping><timeout>1</timeout><force>1</force></ping>
	# it cannot begin: the same
	newer    | 1     | 1   | 1         | down | 0    | tentative | veth   | $untold  | 2     | DAD of 2001:db8::10 waits for the link of veth.
	EOT
    # A check that was forced because it could not ask has not asked.
    ip -n "$there" link set veth up
    eventually ip netns exec "$here" grep -qx up /sys/class/net/veth/operstate
    setting dad_transmits 1
    practice 1 2 0
    ping_tool <<<'exit 2'
    cluster 'fip1 2001:db8::10/64%veth <ping><timeout>1</timeout><force>1</force></ping>'
    activate 0
    traced 8 'fip_await_dad()  ENTRY...'
    [ "$(grep -cF 'sem_entercrit_ifconfig() succeeded.' "$trace")" -eq 2 ] || fail 'it has no turn behind the wait'
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
